// One convolution layer of any type under any method, in a graph of its own, whose output
// ends at an inaccessible page, against the formula.
#pragma once

#include <utility>

#include "support/reference.h"

namespace zyn_test {

// Words of fixed point, over wide integers.
__extension__ typedef __int128 Wide;
inline int16_t low16(Wide v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF)); }
// floor(v / 2^d + 1/2).
inline Wide rounded(Wide v, int64_t d) {
  d = std::min<int64_t>(d, 100);
  return (v + (d > 0 ? Wide{1} << (d - 1) : 0)) >> d;
}
inline int16_t rescaled(Wide v, int64_t from, int64_t to) {
  if (from > to) return low16(rounded(v, from - to));
  return to - from > 15 ? int16_t{0} : low16(v * (1 << (to - from)));
}
inline int16_t hard_swish(int16_t x, int q_in, int q_out) {
  if (q_out < 2) return 0;  // so small a 1/6 is none
  const Wide one = Wide{1} << q_in;
  const Wide gate = std::min(std::max<Wide>(x + 3 * one, 0), 6 * one);
  const Wide sixth = ((Wide{1} << q_out) + 3) / 6;
  return low16(rounded(x * rounded(gate * sixth, q_in), q_in));
}
inline int16_t activated(int16_t y, int code, int q) {
  const Wide six = q >= 0 ? Wide{6} << std::min(q, 20) : rounded(6, -int64_t{q});
  if (code == 1) return std::max<int16_t>(y, 0);
  if (code == 2) return hard_swish(y, q, q);
  if (code == 3) return low16(std::min<Wide>(std::max<int>(y, 0), six));
  return y;
}
// The full range, with many extremes.
inline Array words(Random& random, std::vector<int> dims) {
  constexpr int kExtremes[] = {-32768, 32767, -32767, 0, 1, -1, 16384, -16384};
  Array a(dims);
  for (double& v : a.v)
    v = random.integer(0, 3) ? random.integer(-32768, 32767) : kExtremes[random.integer(0, 7)];
  return a;
}
inline Array integers(Random& random, std::vector<int> dims, int bound) {
  Array a(dims);
  for (double& v : a.v) v = random.integer(-bound, bound);
  return a;
}

constexpr uint32_t kFixed = 3;  // a method to the tests

// Fixed point: the sum of each input channel, in the 32 bits that it has, is rounded by itself.
struct RoundedSum : ExactSum {
  int64_t d;
  double join(double total, double sum) const {
    const int64_t half = (int64_t{1} << d) / 2;
    const auto bits = static_cast<uint32_t>(static_cast<int64_t>(sum) + half);
    return low16(static_cast<Wide>(total) + low16(static_cast<int32_t>(bits) >> d));
  }
};
// Method 2: one chain of fused multiply-adds in ascending order of terms, bit by bit.
struct ChainSum {
  double start(double total) const { return total; }
  double tap(double sum, double w, double x) const {
    return fmaf(static_cast<float>(w), static_cast<float>(x), static_cast<float>(sum));
  }
  double join(double, double sum) const { return sum; }
};

// Data are small integers, so that every order of summation gives the same; in fixed point
// they are any words, and weights have 15 fraction bits unless a normalisation needs less.
class Layer {
 public:
  explicit Layer(const zyn_conv_param& param = conv_param(3, 5, 3, 1, 1), int w = 9, int h = 7)
      : p(param), w_(w), h_(h) {
    const bool one = p.kernel_h == 1 && p.kernel_w == 1;
    type_ = is_depthwise(p) ? ZYN_OP_CONV_DEPTHWISE : one ? ZYN_OP_CONV_POINTWISE : ZYN_OP_CONV;
  }
  Layer& type(int t) { return type_ = t, *this; }
  Layer& bias(int b) { return p.bias = b, *this; }
  Layer& activation(int code) { return activation_ = code, *this; }
  Layer& epsilon(float e) { return epsilon_ = e, *this; }
  Layer& layout(uint32_t code) { return layout_ = code, *this; }
  Layer& method(uint32_t m) { return method_ = m, *this; }
  Layer& seed(uint64_t s) { return seed_ = s, *this; }
  Layer& extra(int count) { return extra_ = count, *this; }  // of the constant's elements
  Layer& channels(int c) { return channels_ = c, *this; }    // of the input tensor
  Layer& input(const Array& a) { return given_ = a, *this; }
  Layer& q(int shift, int out) { return q_in_ = shift + out - 15, q_out_ = out, *this; }
  bool is(int type) const { return type_ == type; }
  Net& net() { return *net_; }
  Array& constant() { return constant_; }

  // Nodes 0 input, 1 constant, 2 the layer.
  int32_t make() {
    Random random(seed_);
    const std::vector<int> dims = {w_, h_, channels_ ? channels_ : p.in_channels};
    input_ = fixed() ? words(random, dims) : integers(random, dims, 4);
    if (!given_.v.empty()) input_ = given_;
    fill_constant(random);
    net_ = std::make_unique<Net>(fixed());
    net_->method(fixed() ? static_cast<uint32_t>(seed_ % 3) : method_);
    const int in = net_->input(input_, fixed() ? 0 : layout_), constant = net_->constant(constant_);
    // The constant first: the last input that is none counts.
    net_->op(type_, record(), {constant, in});
    const int32_t code = net_->make();
    if (fixed()) net_->q_list(15, {{0, q_in_}, {2, q_out_}});
    return code;
  }
  // Makes the layer, which then answers with these codes.
  void answers(int prepare, int run) {
    ASSERT_EQ(make(), 0);
    EXPECT_EQ(net_->prepare(), prepare) << text();
    EXPECT_EQ(net_->run(), run) << text();
  }

  // What preparation, then a run, answers.
  std::pair<int, int> codes() const {
    const auto both = [](int a, int b, int value) { return a == value && b == value; };
    const bool plain = both(p.dilation_h, p.dilation_w, 1), depthwise = is_depthwise(p);
    const bool one = both(p.kernel_h, p.kernel_w, 1), two = both(p.stride_h, p.stride_w, 2);
    if (method_ == 0 || fixed() || grouped() || (method_ == 1 && !has_kernel(p))) return {0, 0};
    if (method_ == 1) {
      const bool pointwise = one && !depthwise && !is(ZYN_OP_CONV) && !is(ZYN_OP_CONV_DEPTHWISE);
      const bool pace = both(p.stride_h, p.stride_w, 1) || (two && !pointwise);
      const bool served = pointwise || both(p.kernel_h, p.kernel_w, 3);
      return {0, served && pace && both(p.pad_h, p.pad_w, !pointwise) && plain ? 0 : 4};
    }
    const int k = p.kernel_h, pad = p.pad_h;
    const bool square = k == p.kernel_w && p.stride_h == p.stride_w && pad == p.pad_w && plain &&
                        k <= w_ + 2 * pad && k <= h_ + 2 * pad;
    const bool known = (k == 3 || k == 5) && pad == k / 2 && p.stride_h <= 2;
    return {square && (p.groups == 1 || (depthwise && known)) ? 0 : 2, 0};
  }

  void check() {
    SCOPED_TRACE(text());
    const auto [prepare, run] = codes();
    ASSERT_EQ(make(), 0);
    ASSERT_EQ(net_->prepare(), prepare);
    if (prepare) return;
    check_runs(run, expected(), bound());
    const bool generic = p.kernel_h * p.kernel_w * p.in_channels > 512 && p.kernel_h > 1;
    if (method_ != 2 || folded() || grouped() || activation_ > 1 || generic) return;
    Random random(seed_);
    input_ = random_array(random, input_.dims);
    constant_ = random_array(random, constant_.dims);
    net_->fill(0, input_), net_->fill(1, constant_);
    ASSERT_EQ(net_->prepare(), 0);
    check_runs(0, chain(), 0);
  }
  void compare() { ASSERT_TRUE(agrees(net_->output(2), expected(), bound())) << text(); }
  std::string text() const {
    const auto method = static_cast<int32_t>(method_), layout = static_cast<int32_t>(layout_);
    int32_t n[21] = {type_, method, w_, h_, activation_, q_in_, q_out_, layout};
    memcpy(n + 8, &p, 13 * sizeof(int32_t));  // up to the bias
    const std::vector<int32_t> all(n, n + 21);
    return "type, method, sizes, code, q, layout, record: " + ::testing::PrintToString(all);
  }

  zyn_conv_param p;

 private:
  bool folded() const { return is(ZYN_OP_CONV_BN); }
  bool grouped() const { return is(ZYN_OP_CONV_GROUPED) || is(ZYN_OP_CONV_TRANSPOSED); }
  bool fixed() const { return method_ == kFixed; }
  double bound() const {
    return !fixed() && (activation_ == 2 || activation_ == 4 || epsilon_ == 0) ? 3e-7 : 0;
  }
  size_t weights() const {
    const int inputs = is_depthwise(p) ? 1 : grouped() ? p.in_channels / p.groups : p.in_channels;
    return static_cast<size_t>(p.kernel_h * p.kernel_w * inputs * p.out_channels);
  }

  void fill_constant(Random& random) {
    const size_t out = static_cast<size_t>(p.out_channels);
    const size_t plain = weights() + (p.bias == 1 ? out : 0);
    const std::vector<int> dims = {static_cast<int>(plain + (folded() ? 4 * out : 0)) + extra_};
    constant_ = integers(random, dims, 3);
    if (fixed()) {
      const Array any = words(random, dims);
      for (size_t i = 0; i < std::min(plain, any.v.size()); i++) constant_.v[i] = any.v[i] / 32768;
    }
    for (size_t i = plain; folded() && i < constant_.v.size(); i++) {
      const size_t which = (i - plain) / out;
      if (which == 0) constant_.v[i] *= 2;  // scale: divided by 2
      if (which == 3)
        constant_.v[i] = epsilon_ == 0 ? 1e-5 : 3.75;  // with epsilon 0.25 the divisor is 2
    }
  }
  zyn_conv_param record() const {
    zyn_conv_param r = p;
    if (folded())
      r.word14.epsilon = epsilon_;
    else
      r.word14.activation = activation_;
    r.activation = folded() ? activation_ : 99;
    return r;
  }

  // Twice into a block of its own; a refused run writes nothing.
  void check_runs(int code, const Array& expected, double bound) {
    zyn_tensor* out = net_->output_tensor(2);
    PageEnd<uint8_t> block(static_cast<size_t>(out->byte_size));
    memset(block.data(), 77, block.size());
    void* own = std::exchange(out->data, block.data());
    for (int round = 0; round < 2; round++) EXPECT_EQ(net_->run(), code);
    const bool blocked = method_ == 1 && has_kernel(p) && !grouped();
    if (code) {
      EXPECT_EQ(std::count(block.begin(), block.end(), 77), out->byte_size);
    } else {
      EXPECT_TRUE(agrees(Net::read(out), expected, bound));
      EXPECT_TRUE(grouped() || out->layout == (blocked ? ZYN_LAYOUT_BLOCKED : 0));
    }
    out->data = own;
  }

  Array expected() const {
    zyn_conv_param r = record();
    Array constant = constant_;
    if (grouped()) return reference_conv(input_, constant, r, is(ZYN_OP_CONV_TRANSPOSED));
    if (!has_kernel(p)) {  // other groups add nothing
      r.groups = 1;
      std::fill_n(constant.v.begin(), weights(), 0.0);
    }
    // On purpose: the folded type's pad_h counts for both axes and dilation for none.
    const int ow = folded() ? (w_ - p.kernel_h + 2 * p.pad_h) / p.stride_h + 1 : 0;
    const int oh = folded() ? (h_ - p.kernel_w + 2 * p.pad_h) / p.stride_w + 1 : 0;
    if (fixed()) return fixed_layer(folded() ? reference_fold(constant, r) : constant, r, ow, oh);
    if (folded()) return reference_conv_bn(input_, constant, r, method_ == 2, ow, oh);
    if (!is(ZYN_OP_CONV_ACT)) r.word14.activation = 0;
    return reference_conv_act(input_, constant, r, ow, oh);
  }
  Array fixed_layer(Array constant, zyn_conv_param r, int ow, int oh) const {
    int q = 15;
    for (double v : constant.v)
      while (v < -std::ldexp(1, 15 - q) || v > std::ldexp(32767, -q)) q--;
    for (double& v : constant.v) v = low16(std::lrint(std::ldexp(v, q)));
    const int code = is(ZYN_OP_CONV_ACT) || folded() ? activation_ : 0;
    const bool biased = (folded() || p.bias == 1) && code >= 0 && code <= 3;
    r.bias = 0;
    RoundedSum sum;
    sum.d = int64_t{q_in_} + q - q_out_;
    Array out = reference_conv(input_, constant, r, false, ow, oh, sum);
    for_each_element(out, [&](int x, int y, int z) {
      double& v = out.at(x, y, z);
      const auto b = static_cast<Wide>(biased ? constant.v[weights() + static_cast<size_t>(z)] : 0);
      v = activated(low16(static_cast<Wide>(v) + rescaled(b, q, q_out_)), code, q_out_);
    });
    return out;
  }
  Array chain() const {
    zyn_conv_param r = p;
    r.bias = 0;
    Array out = reference_conv(input_, constant_, r, false, 0, 0, ChainSum{});
    for_each_element(out, [&](int x, int y, int z) {
      double& v = out.at(x, y, z);
      const double b = p.bias == 1 && activation_ >= 0 ? constant_.v[weights() + z] : 0;
      v = static_cast<double>(static_cast<float>(v + b));
      if (is(ZYN_OP_CONV_ACT) && activation_ == 1) v = std::max(v, 0.0);
    });
    return out;
  }

  int w_, h_, type_;
  int activation_ = 0, extra_ = 0, channels_ = 0, q_in_ = 8, q_out_ = 8;
  float epsilon_ = 0.25f;
  uint32_t layout_ = 0, method_ = 0;
  uint64_t seed_ = 1;
  Array given_, input_, constant_;
  std::unique_ptr<Net> net_;
};

}  // namespace zyn_test

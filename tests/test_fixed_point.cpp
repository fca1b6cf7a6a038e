// Fixed-point kernels and operators, bit for bit against plain loops over wide integers:
// shapes around the 16 and 32 pixels of a step, every shift, full-range data with many
// extremes, tensors that end at an inaccessible page.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "support/net.h"

namespace {

using zyn_test::Array;
using zyn_test::Net;
using zyn_test::PageEnd;
using zyn_test::Random;
using Words = std::vector<int16_t>;

int16_t low16(int64_t v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF)); }

// floor(v / 2^d + 1/2).
int64_t rounded(int64_t v, int d) {
  const auto r = static_cast<int64_t>(std::pow(2.0, d)) / 2;
  return (v + r) >> d;
}

int16_t rescaled(int64_t v, int from, int to) {
  return low16(from > to        ? rounded(v, from - to)
               : to - from > 30 ? 0
                                : v * (int64_t{1} << (to - from)));
}

// One input channel's sum, in the 32 bits that it has, rounded and shifted.
int16_t narrowed(int64_t sum, int d) {
  const auto r = static_cast<int64_t>(std::pow(2.0, d)) / 2;
  return low16(static_cast<int32_t>(static_cast<uint32_t>((sum + r) & 0xFFFFFFFF)) >> d);
}

int16_t hard_swish(int16_t x, int q_in, int q_out) {
  const int64_t gate = std::min(std::max<int64_t>(x + 3 * (1 << q_in), 0), int64_t{6} << q_in);
  const int64_t sixth = std::llround(std::pow(2.0, q_out) / 6);
  return low16(rounded(x * rounded(gate * sixth, q_in), q_in));
}

int16_t activated(int16_t y, int code, int q) {
  if (code == 1) return std::max<int16_t>(y, 0);
  if (code == 2) return hard_swish(y, q, q);
  if (code == 3) return static_cast<int16_t>(std::min(std::max<int>(y, 0), 6 << q));
  return y;
}

int16_t any_word(Random& random) {
  constexpr int16_t kExtremes[] = {-32768, 32767, -32767, 0, 1, -1, 16384, -16384};
  return random.integer(0, 3) ? low16(random.integer(-32768, 32767))
                              : kExtremes[random.integer(0, 7)];
}

// One convolution layer; defaults are a 3 x 3 one.
class Conv {
 public:
  Conv(int w, int h, int in, int out) : width_(w), height_(h) {
    p_ = {in, out, 3, 3, 1, 1, 1, 1, {0, 0}, 1, 1, 1, 0, {0}, 0};
  }
  Conv& kernel(int x, int y) { return p_.kernel_h = x, p_.kernel_w = y, *this; }
  Conv& stride(int x, int y) { return p_.stride_h = x, p_.stride_w = y, *this; }
  Conv& pad(int x, int y) { return p_.pad_h = x, p_.pad_w = y, *this; }
  Conv& dilation(int x, int y) { return p_.dilation_h = x, p_.dilation_w = y, *this; }
  Conv& groups(int groups) { return p_.groups = groups, *this; }
  Conv& q(int in, int weights, int out) { return q_in_ = in, q_w_ = weights, q_out_ = out, *this; }
  Conv& shift(int d) { return q(d, 0, 0); }
  Conv& epilogue(bool bias, int code) { return bias_ = bias, code_ = code, *this; }

  void check() {
    const int out_w =
        (width_ - 1 + 2 * p_.pad_h - (p_.kernel_h - 1) * p_.dilation_h) / p_.stride_h + 1;
    const int out_h =
        (height_ - 1 + 2 * p_.pad_w - (p_.kernel_w - 1) * p_.dilation_w) / p_.stride_w + 1;
    ASSERT_TRUE(out_w > 0 && out_h > 0);
    Random random(static_cast<uint64_t>(out_w * 100 + p_.out_channels));
    Block in(random, {width_, height_, p_.in_channels}),
        out(random, {out_w, out_h, p_.out_channels});
    inputs_ = p_.groups == 1 ? p_.in_channels : p_.in_channels == p_.groups ? 1 : p_.in_channels;
    const int weights = p_.kernel_h * p_.kernel_w * inputs_ * p_.out_channels;
    PageEnd<int16_t> constant(static_cast<size_t>(weights + (bias_ ? p_.out_channels : 0)));
    for (int16_t& w : constant) w = any_word(random);
    const zyn_fpi_epilogue epilogue = {bias_ ? constant.data() + weights : nullptr, code_};
    ASSERT_EQ(zyn_cg_fpi_conv2d(out.tensor, q_out_, in.tensor, q_in_, constant.data(), q_w_, &p_,
                                &epilogue),
              0u);
    for (int o = 0, i = 0; o < p_.out_channels; o++)
      for (int y = 0; y < out_h; y++)
        for (int x = 0; x < out_w; x++, i++) {
          int16_t expected = convolved(in.words.data(), constant.data(), x, y, o);
          if (bias_) expected = low16(expected + rescaled(constant[weights + o], q_w_, q_out_));
          ASSERT_EQ(out.words[i], activated(expected, code_, q_out_))
              << "at " << x << ", " << y << ", " << o << " of " << out_w << " x " << out_h
              << ", kernel " << p_.kernel_h << " x " << p_.kernel_w << ", stride " << p_.stride_h
              << ", pad " << p_.pad_h << ", groups " << p_.groups << ", q " << q_in_ << " " << q_w_
              << " " << q_out_ << ", code " << code_;
        }
  }

 private:
  struct Block {
    PageEnd<int16_t> words;
    zyn_tensor* tensor;
    Block(Random& random, std::vector<int> dims) : words(Array::size_of(dims)) {
      for (int16_t& v : words) v = any_word(random);
      tensor = zyn_create_tensor_header(3, dims.data(), ZYN_TYPE_FPI16);
      zyn_set_tensor_data(tensor, words.data(), static_cast<int64_t>(2 * words.size()));
    }
    ~Block() { zyn_release_tensor(&tensor); }
  };

  int16_t convolved(const int16_t* in, const int16_t* weights, int x, int y, int o) const {
    const bool depthwise = p_.groups != 1 && p_.groups == p_.in_channels;
    if (p_.groups != 1 && !depthwise) return 0;
    int16_t total = 0;
    for (int i = 0; i < inputs_; i++) {
      int64_t sum = 0;
      for (int ky = 0; ky < p_.kernel_w; ky++)
        for (int kx = 0; kx < p_.kernel_h; kx++) {
          const int ix = x * p_.stride_h - p_.pad_h + kx * p_.dilation_h;
          const int iy = y * p_.stride_w - p_.pad_w + ky * p_.dilation_w;
          if (ix < 0 || iy < 0 || ix >= width_ || iy >= height_) continue;
          const int plane = depthwise ? o : i;
          sum += int64_t{in[(plane * height_ + iy) * width_ + ix]} *
                 weights[((o * inputs_ + i) * p_.kernel_w + ky) * p_.kernel_h + kx];
        }
      total = low16(total + narrowed(sum, q_in_ + q_w_ - q_out_));
    }
    return total;
  }

  int width_, height_, inputs_ = 0;
  int q_in_ = 8, q_w_ = 8, q_out_ = 8;
  bool bias_ = false;
  int code_ = 0;
  zyn_conv_param p_;
};

TEST(FixedPoint, DenseAndDepthwise3x3) {
  for (int stride : {1, 2})
    for (int w : {1, 2, 8, 15, 16, 17, 31, 34, 65})
      for (int pad : {0, 1, 2}) {
        if (w + 2 * pad < 3) continue;
        for (int shift : {0, 1, 8, 15, 16, 17, 30, 31}) {
          Conv(w, 5, 3, 5).stride(stride, stride).pad(pad, 1).shift(shift).check();
          Conv(w, 5, 3, 3).groups(3).stride(stride, stride).pad(pad, 1).shift(shift).check();
        }
      }
  Conv(20, 4, 2, 65).check();  // more output channels than one tile holds
  Conv(3, 40, 2, 2).stride(2, 2).pad(1, 9).check();
  for (int stride : {1, 2}) {
    Conv(17 * stride, 20, 3, 8).stride(stride, stride).check();  // channels in the lanes, by rows
    Conv(150, 61, 2, 2).groups(2).stride(stride, stride).pad(1, 3).check();  // several bands
  }
  for (int groups : {1, 2}) {
    Conv(6, 3, 2, 2).groups(groups).pad(40, 30).check();
    Conv(20, 15, 2, 2).groups(groups).pad(0, 5).check();
  }
}

TEST(FixedPoint, Pointwise) {
  for (int pixels : {1, 15, 16, 17, 31, 32, 33, 67})
    for (int shift = 0; shift <= 31; shift++)
      Conv(pixels, 1, 7, 5).kernel(1, 1).pad(0, 0).shift(shift).check();
  for (int out : {1, 2, 3, 4, 8, 9})
    for (int in : {1, 2, 33}) Conv(13, 5, in, out).kernel(1, 1).pad(0, 0).q(9, 12, 8).check();
}

TEST(FixedPoint, EveryOtherShape) {
  for (int w : {6, 7, 21, 22, 38})
    for (int shift : {0, 9, 16, 29}) Conv(w, 8, 3, 2).kernel(6, 6).pad(0, 0).shift(shift).check();
  Conv(9, 9, 2, 2).kernel(6, 6).pad(1, 1).check();
  Conv(19, 9, 2, 2).kernel(6, 6).pad(0, 0).stride(2, 2).check();
  for (int groups : {1, 4}) {
    Conv(17, 9, 4, 4).groups(groups).kernel(5, 5).pad(2, 2).check();
    Conv(17, 9, 4, 4).groups(groups).kernel(5, 2).pad(4, 0).stride(3, 1).check();
    Conv(18, 9, 4, 4).groups(groups).dilation(2, 3).pad(2, 3).check();
    Conv(40, 9, 4, 4).groups(groups).dilation(33, 1).pad(30, 1).check();
    Conv(18, 9, 4, 4).groups(groups).stride(1, 2).check();
    Conv(18, 9, 4, 4).groups(groups).stride(2, 1).pad(2, 0).check();
    Conv(18, 9, 4, 4).groups(groups).stride(5, 4).pad(7, 6).check();
    Conv(11, 3, 4, 4).groups(groups).kernel(1, 1).pad(0, 0).stride(2, 2).check();
    Conv(11, 3, 4, 4).groups(groups).kernel(1, 1).pad(2, 1).check();
    Conv(11, 3, 4, 4).groups(groups).kernel(1, 1).pad(0, 0).check();
  }
  Conv(5, 5, 1, 1).check();
  // No kernel serves other groups: zeros, and what follows the convolution.
  Conv(5, 5, 4, 4).groups(2).epilogue(true, 1).check();
}

TEST(FixedPoint, BiasAndActivations) {
  for (int code = 0; code <= 5; code++)
    for (bool bias : {false, true})
      for (int q_out : {0, 3, 8, 12, 13, 15})
        for (int q_w : {0, 8, 13, 15})
          Conv(7, 5, 2, 3).q(15, q_w, q_out).epilogue(bias, code).check();
}

TEST(FixedPoint, SumsWrapAndChannelsRoundByThemselves) {
  Conv one(1, 1, 1, 1);
  int32_t dims[3] = {1, 1, 2};
  zyn_tensor* in = zyn_create_tensor(3, dims, ZYN_TYPE_FPI16);
  dims[2] = 1;
  zyn_tensor* out = zyn_create_tensor(3, dims, ZYN_TYPE_FPI16);
  zyn_conv_param p = {2, 1, 1, 1, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 0, {0}, 0};
  auto* x = static_cast<int16_t*>(in->data);
  const struct {
    int16_t x[2], w[2];
    int32_t q;
    int16_t expected;
  } cases[] = {
      {{256, 0}, {256, 0}, 8, 256},
      {{1, 1}, {128, 128}, 8, 2},           // one sum of both would give 1
      {{32767, 1}, {256, 256}, 8, -32768},  // the sum wraps
      {{-32768, 0}, {-32768, 0}, 8, 0},     // narrowing wraps: 2^22 has no low bits
  };
  for (const auto& c : cases) {
    memcpy(x, c.x, sizeof(c.x));
    EXPECT_EQ(zyn_cg_fpi_conv2d(out, c.q, in, c.q, c.w, c.q, &p, nullptr), 0u);
    EXPECT_EQ(*static_cast<int16_t*>(out->data), c.expected);
  }
  const int16_t w[2] = {1, 1};
  EXPECT_EQ(zyn_cg_fpi_conv2d(out, 9, in, 4, w, 4, &p, nullptr), 1u) << "d = -1";
  EXPECT_EQ(zyn_cg_fpi_conv2d(out, 0, in, 16, w, 16, &p, nullptr), 1u) << "d = 32";
  EXPECT_EQ(zyn_cg_fpi_conv2d(out, 0, in, 0, nullptr, 0, &p, nullptr), 1u);
  EXPECT_EQ(zyn_cg_fpi_conv2d(nullptr, 0, in, 0, w, 0, &p, nullptr), 1u);
  EXPECT_EQ(zyn_cg_fpi_conv2d(out, 0, nullptr, 0, w, 0, &p, nullptr), 1u);
  EXPECT_EQ(zyn_cg_fpi_conv2d(out, 0, in, 0, w, 0, nullptr, nullptr), 1u);
  EXPECT_EQ(zyn_cg_fpi_conv2d(in, 0, in, 0, w, 0, &p, nullptr), 1u) << "output channels";
  EXPECT_EQ(zyn_cg_fpi_conv2d(out, 0, out, 0, w, 0, &p, nullptr), 1u) << "input channels";
  zyn_release_tensor(&in);
  zyn_release_tensor(&out);
}

// (x * w + r) >> d in 16-bit lanes: every x with a sample of w for every d; with ZYN_SOAK
// set, every w for some d.
TEST(FixedPoint, ProductsInSixteenBitsAreExact) {
  constexpr int kValues = 65536, kWeights = 16;
  const bool soak = getenv("ZYN_SOAK") != nullptr;
  const int32_t dims[3] = {256, 256, 1}, out_dims[3] = {256, 256, kWeights};
  zyn_tensor* in = zyn_create_tensor(3, dims, ZYN_TYPE_FPI16);
  zyn_tensor* out = zyn_create_tensor(3, out_dims, ZYN_TYPE_FPI16);
  auto* x = static_cast<int16_t*>(in->data);
  for (int i = 0; i < kValues; i++) x[i] = low16(i);
  const zyn_conv_param p = {1, kWeights, 1, 1, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 0, {0}, 0};
  Random random(5);
  for (int d = 0; d <= 31; d++) {
    const bool all = soak && (d == 1 || d == 7 || d == 14 || d == 15 || d == 16 || d == 31);
    const int64_t r = (int64_t{1} << d) / 2;
    for (int first = 0; first < (all ? kValues : kWeights); first += kWeights) {
      int16_t w[kWeights];
      for (int k = 0; k < kWeights; k++) w[k] = all ? low16(first + k) : any_word(random);
      if (!all)
        w[0] = -32768, w[1] = 32767, w[2] = low16(int64_t{1} << d),
        w[3] = low16(-(int64_t{1} << d));
      ASSERT_EQ(zyn_cg_fpi_conv2d(out, 0, in, d, w, 0, &p, nullptr), 0u);
      const auto* got = static_cast<const int16_t*>(out->data);
      int64_t wrong = 0;
      for (int k = 0; k < kWeights; k++)
        for (int i = 0; i < kValues; i++) {
          // 2^31 wraps, as the 32-bit sum does.
          const auto sum = static_cast<int32_t>(static_cast<uint32_t>(x[i] * w[k] + r));
          wrong += got[k * kValues + i] != static_cast<int16_t>(sum >> d);
        }
      ASSERT_EQ(wrong, 0) << "d " << d << ", weights from " << w[0];
    }
  }
  zyn_release_tensor(&in);
  zyn_release_tensor(&out);
}

// ---- operators in graphs

Array words(Random& random, std::vector<int> dims, int low = -32768, int high = 32767) {
  Array a(dims);
  for (double& v : a.v) v = random.integer(low, high);
  return a;
}

int at(const Array& a, size_t i) { return static_cast<int>(a.v[i]); }

// Runs a network whose nodes have the given q, and compares one node with a formula by
// element index.
template <typename Formula>
void expect_values(Net& net, std::vector<std::pair<int, uint32_t>> q, int node, Formula formula) {
  ASSERT_EQ(net.make(), 0);
  net.q_list(15, q);
  ASSERT_EQ(net.prepare(), 0);
  ASSERT_EQ(net.run(), 0);
  const Array got = net.output(node);
  for (size_t i = 0; i < got.v.size(); i++) ASSERT_EQ(at(got, i), formula(i)) << "element " << i;
}

constexpr int kQ[] = {0, 4, 7, 8, 13, 14, 15};

TEST(FixedPoint, ActivationNodes) {
  for (int type : {ZYN_OP_SIGMOID, ZYN_OP_RELU, ZYN_OP_RELU6, ZYN_OP_HARD_SWISH})
    for (int q_in : kQ)
      for (int q_out : kQ) {
        SCOPED_TRACE(testing::Message() << "type " << type << ", q " << q_in << " " << q_out);
        Random random(1);
        Array in = words(random, {21, 3, 2});
        in.v[0] = -32768, in.v[1] = 32767, in.v[2] = 0, in.v[3] = -3.0 * (1 << q_in);
        in.v[3] = std::max(in.v[3], -32768.0);
        Net net(1);
        const int node = net.op(type, {net.input(in)});
        expect_values(net, {{0, q_in}, {node, q_out}}, node, [&](size_t i) -> int {
          const int16_t x = low16(at(in, i));
          if (type == ZYN_OP_RELU) return std::max<int>(x, 0);
          if (type == ZYN_OP_RELU6) return std::min<int>(std::max<int>(x, 0), 6 << q_in);
          if (type == ZYN_OP_HARD_SWISH) return hard_swish(x, q_in, q_out);
          const double e = std::exp(x / std::pow(2.0, q_in));
          const double y = std::isinf(e) ? 1 : e / (e + 1);
          return static_cast<int>(std::min(std::llround(y * 32768), 32767LL));
        });
      }
}

TEST(FixedPoint, SumsAndProducts) {
  for (int type : {ZYN_OP_ADD, ZYN_OP_MULTIPLY})
    for (int form = 0; form < 3; form++)  // equal shapes, values as b, values as a
      for (int qa : kQ)
        for (int qb : {0, 9, 15})
          for (int q : {0, 8, 15}) {
            if (type == ZYN_OP_ADD ? form == 2 : qa + qb < q) continue;
            SCOPED_TRACE(testing::Message()
                         << type << form << ", q " << qa << " " << qb << " " << q);
            Random random(2);
            const std::vector<int> data = {7, 5, 3}, values = {1, 1, 3};
            const Array a = words(random, form == 2 ? values : data);
            const Array b = words(random, form == 1 ? values : data);
            Net net(1);
            const int node = net.op(type, {net.input(a), net.input(b)});
            expect_values(net, {{0, qa}, {1, qb}, {node, q}}, node, [&](size_t i) -> int {
              const int64_t x = at(a, form == 2 ? i / 35 : i), y = at(b, form == 1 ? i / 35 : i);
              if (type == ZYN_OP_MULTIPLY) return low16(rounded(x * y, qa + qb - q));
              return low16(rescaled(x, qa, q) + rescaled(y, qb, q));
            });
          }
}

TEST(FixedPoint, PoolingNodes) {
  for (int type : {ZYN_OP_MAX_POOL, ZYN_OP_AVERAGE_POOL})
    for (int k : {1, 2, 3, 7})
      for (int stride : {1, 2, 3})
        for (int q_out : {0, 8, 15}) {
          SCOPED_TRACE(testing::Message() << type << ", k " << k << " " << stride);
          Random random(3);
          const Array in = words(random, {20, 7, 2});
          Net net(1);
          const int node = net.op(type, zyn_pool_param{k, k, stride, stride, 0}, {net.input(in)});
          const int w = (20 - k) / stride + 1, h = (7 - k) / stride + 1;
          expect_values(net, {{0, 8}, {node, q_out}}, node, [&](size_t i) -> int {
            const int x = static_cast<int>(i) % w, y = static_cast<int>(i) / w % h;
            int64_t sum = 0, best = -32769;
            for (int dy = y * k; dy < std::min(y * k + k, 7); dy++)
              for (int dx = x * k; dx < std::min(x * k + k, 20); dx++) {
                const auto v = static_cast<int64_t>(in.at(dx, dy, static_cast<int>(i) / w / h));
                sum += v;
                best = std::max(best, v);
              }
            if (best < -32768) return 0;
            if (type == ZYN_OP_MAX_POOL) return static_cast<int>(best);
            const double mean = std::floor(static_cast<double>(sum) / (k * k) + 0.5);
            return rescaled(static_cast<int64_t>(mean), 8, q_out);
          });
        }
}

TEST(FixedPoint, DenseLayer) {
  for (uint32_t bias : {0u, 1u})
    for (int q_out : {0, 8, 15})
      for (int features : {1, 15, 40}) {
        Random random(4);
        Array in = words(random, {features, 2}), constant({features * 3 + 3});
        for (double& v : constant.v) v = random.integer(-32768, 32767) / 32768.0;
        constant.v[0] = -1;  // so that q is 15
        Net net(1);
        const int node =
            net.op(ZYN_OP_LINEAR, zyn_linear_param{static_cast<uint32_t>(features), 3, bias},
                   {net.input(in), net.constant(constant)});
        expect_values(net, {{0, 9}, {node, q_out}}, node, [&](size_t i) -> int {
          const size_t j = i % 3, n = static_cast<size_t>(features);
          int64_t sum = 0;
          for (size_t k = 0; k < n; k++)
            sum += at(in, i / 3 * n + k) * std::llround(constant.v[j * n + k] * 32768);
          sum = rounded(sum, 9 + 15 - q_out);
          const auto b = std::llround(constant.v[3 * n + j] * 32768);
          return low16(sum + (bias && i < 3 ? rescaled(b, 15, q_out) : 0));
        });
      }
}

TEST(FixedPoint, NormalisationIsWithinOneStep) {
  Random random(6);
  Array in = words(random, {9, 5, 3}, -2000, 2000);
  // gamma 12, beta 12, mean 12, variance 10 fraction bits: the node takes 10.
  Array constant({12});
  constant.v = {1.5, -7.25, 0.5, 3, -4, 0.125, 2, -3.5, 5, 4, 30, 0.25};
  Net net(1);
  const int node =
      net.op(ZYN_OP_BATCH_NORM, zyn_bn_param{1e-3f, 0}, {net.input(in), net.constant(constant)});
  ASSERT_EQ(net.make(), 0);
  net.q_list(8);
  ASSERT_EQ(net.prepare() + net.run(), 0);
  ASSERT_EQ(zyn_cg_get_q_from_list(net.graph(), node), 10u);
  const Array got = net.output(node);
  for (size_t i = 0; i < got.v.size(); i++) {
    const double* s = constant.v.data() + i / 45;
    const double y = (in.v[i] / 256 - s[6]) * s[0] / std::sqrt(s[9] + 1e-3) + s[3];
    if (std::fabs(y) < 31.9) {
      EXPECT_NEAR(got.v[i], y * 1024, 1.0) << i;
    }
  }
}

TEST(FixedPoint, ConcatenationBringsInputsToOneQ) {
  for (int axis : {0, 1, 2}) {
    Random random(7);
    const Array a = words(random, {5, 4, 3}), b = words(random, {5, 4, 3});
    Net net(1);
    const int32_t ids[2] = {1, 0};
    const int node =
        net.op(ZYN_OP_CONCAT, zyn_concat_param{axis, 2, ids}, {net.input(a), net.input(b)});
    int extents[3] = {5, 4, 3};
    extents[axis] *= 2;
    expect_values(net, {{0, 6}, {1, 11}, {node, 1}}, node, [&](size_t i) -> int {
      int p[3] = {static_cast<int>(i) % extents[0], static_cast<int>(i) / extents[0] % extents[1],
                  static_cast<int>(i) / extents[0] / extents[1]};
      const bool second = p[axis] >= extents[axis] / 2;
      if (second) p[axis] -= extents[axis] / 2;
      return second ? static_cast<int>(a.at(p[0], p[1], p[2]))
                    : rescaled(static_cast<int64_t>(b.at(p[0], p[1], p[2])), 11, 6);
    });
    EXPECT_EQ(zyn_cg_get_q_from_list(net.graph(), node), 6u);
  }
}

// Types 3, 4, 5, 12 and 13: which weights, which bias, which code.
class ConvNode {
 public:
  explicit ConvNode(int type) : type_(type) {
    p_ = {3, 4, 3, 3, 1, 1, 1, 1, {0, 0}, 1, 1, 1, 0, {0}, 0};
    if (type == ZYN_OP_CONV_DEPTHWISE) p_.out_channels = p_.groups = 3;
    if (type == ZYN_OP_CONV_POINTWISE) p_.kernel_h = p_.kernel_w = 1, p_.pad_h = p_.pad_w = 0;
  }
  ConvNode& bias(int bias) { return p_.bias = bias, *this; }
  ConvNode& code(int code) {
    (type_ == ZYN_OP_CONV_ACT ? p_.word14.activation : p_.activation) = code;
    return *this;
  }
  // code, and whether a bias is added, as the epilogue that must follow.
  void check(bool bias, int code) {
    Random random(8);
    const bool depthwise = p_.groups == 3;
    const size_t outs = static_cast<size_t>(p_.out_channels);
    const size_t weights =
        static_cast<size_t>(p_.kernel_h * p_.kernel_w) * outs * (depthwise ? 1 : 3);
    const bool norm = type_ == ZYN_OP_CONV_BN;
    Array constant({static_cast<int>(weights + outs * ((p_.bias == 1) + (norm ? 4u : 0u)))});
    for (double& v : constant.v) v = random.integer(-100, 100) / 128.0;
    // Normalisation by 1 / 2 and a shift, exact in floats: variance + epsilon = 4.
    std::vector<double> folded(constant.v.begin(), constant.v.begin() + static_cast<int>(weights));
    for (size_t c = 0; norm && c < outs; c++) {
      double* s = constant.v.data() + constant.v.size() - 4 * outs + c;
      s[0] = 1, s[3 * outs] = 3;
      p_.word14.epsilon = 1;
      const double b = p_.bias == 1 ? constant.v[weights + c] : 0;
      folded.push_back((b - s[2 * outs]) / 2 + s[outs]);
    }
    for (size_t i = 0; norm && i < weights; i++) folded[i] /= 2;
    for (size_t c = 0; !norm && p_.bias == 1 && c < outs; c++)
      folded.push_back(constant.v[weights + c]);
    double most = 0;
    for (double v : folded) most = std::max(most, std::fabs(v));
    const int q_w = 15 - (most >= 1 ? 1 + (most >= 2) : 0);
    std::vector<int16_t> quantised;
    for (double v : folded) quantised.push_back(low16(std::lrint(v * (1 << q_w))));
    quantised.resize(weights + outs);

    const Array in = words(random, {11, 6, 3}, -300, 300);
    for (uint32_t method : {0u, 1u, 2u}) {
      Net net(1);
      net.method(method);
      const int node = net.op(type_, p_, {net.input(in), net.constant(constant)});
      ASSERT_EQ(net.make(), 0);
      net.q_list(15, {{0, 8}, {node, 9}});
      ASSERT_EQ(net.prepare(), 0);
      ASSERT_EQ(net.run(), 0);
      const zyn_tensor* got = net.output_tensor(node);
      zyn_tensor* expected = zyn_create_tensor(3, got->dims, ZYN_TYPE_FPI16);
      const zyn_fpi_epilogue epilogue = {bias ? quantised.data() + weights : nullptr, code};
      EXPECT_EQ(zyn_cg_fpi_conv2d(expected, 9, net.output_tensor(0), 8, quantised.data(), q_w, &p_,
                                  &epilogue),
                0u);
      EXPECT_EQ(memcmp(got->data, expected->data, static_cast<size_t>(got->byte_size)), 0)
          << "type " << type_ << ", bias " << p_.bias << ", code " << code << ", method " << method;
      zyn_release_tensor(&expected);
    }
  }

 private:
  int type_;
  zyn_conv_param p_;
};

TEST(FixedPoint, ConvolutionNodes) {
  for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_DEPTHWISE, ZYN_OP_CONV_POINTWISE})
    for (int bias : {0, 1}) ConvNode(type).bias(bias).code(1).check(bias == 1, 0);
  for (int code : {0, 1, 2, 3, 4, 7, -1})
    for (int bias : {0, 1}) {
      const bool listed = code >= 0 && code <= 3;
      ConvNode(ZYN_OP_CONV_ACT).bias(bias).code(code).check(listed && bias, code);
      ConvNode(ZYN_OP_CONV_BN).bias(bias).code(code).check(listed, code);
    }
}

TEST(FixedPoint, PreparationRefusesListsThatDoNotFit) {
  const struct {
    double weight;
    uint32_t q_in, q_out;
    int32_t code;
  } cases[] = {{0.5, 0, 15, 0}, {0.5, 1, 15, 0}, {1, 0, 15, 1}, {1, 1, 15, 0},  {70000, 8, 8, 1},
               {0.5, 16, 8, 1}, {0.5, 8, 16, 1}, {2, 1, 15, 1}, {0.5, 15, 0, 0}};
  for (const auto& c : cases)
    for (int type : {ZYN_OP_CONV_POINTWISE, ZYN_OP_LINEAR}) {
      Net net(1);
      const int in = net.input(Array({1, 1})), w = net.constant(Array({1}, c.weight));
      const zyn_conv_param p = {1, 1, 1, 1, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 0, {0}, 0};
      const int node = type == ZYN_OP_LINEAR ? net.op(type, zyn_linear_param{1, 1, 0}, {in, w})
                                             : net.op(type, p, {in, w});
      ASSERT_EQ(net.make(), 0);
      net.q_list(15, {{in, c.q_in}, {node, c.q_out}});
      EXPECT_EQ(net.prepare(), c.code)
          << type << ": " << c.weight << ", q " << c.q_in << " " << c.q_out;
    }
}

}  // namespace

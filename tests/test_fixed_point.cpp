// Fixed-point kernels and operators, bit for bit against plain loops over wide integers:
// shapes around the 16 and 32 pixels of a step, every shift, any q, full-range data with
// many extremes, tensors that end at an inaccessible page.
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "support/reference.h"

namespace {

using namespace zyn_test;
__extension__ typedef __int128 Wide;

int16_t low16(Wide v) { return static_cast<int16_t>(static_cast<uint16_t>(v & 0xFFFF)); }

// floor(v / 2^d + 1/2).
Wide rounded(Wide v, int64_t d) {
  d = std::min<int64_t>(d, 100);
  return (v + (d > 0 ? Wide{1} << (d - 1) : 0)) >> d;
}
int16_t rescaled(Wide v, int64_t from, int64_t to) {
  if (from > to) return low16(rounded(v, from - to));
  return to - from > 15 ? int16_t{0} : low16(v * (1 << (to - from)));
}

int16_t hard_swish(int16_t x, int q_in, int q_out) {
  if (q_out < 2) return 0;  // so small a 1/6 is none
  const Wide one = Wide{1} << q_in;
  const Wide gate = std::min(std::max<Wide>(x + 3 * one, 0), 6 * one);
  const Wide sixth = ((Wide{1} << q_out) + 3) / 6;
  return low16(rounded(x * rounded(gate * sixth, q_in), q_in));
}

int16_t activated(int16_t y, int code, int q) {
  const Wide six = q >= 0 ? Wide{6} << std::min(q, 20) : rounded(6, -int64_t{q});
  if (code == 1) return std::max<int16_t>(y, 0);
  if (code == 2) return hard_swish(y, q, q);
  if (code == 3) return low16(std::min<Wide>(std::max<int>(y, 0), six));
  return y;
}

int16_t any_word(Random& random) {
  constexpr int16_t kExtremes[] = {-32768, 32767, -32767, 0, 1, -1, 16384, -16384};
  return random.integer(0, 3) ? low16(random.integer(-32768, 32767))
                              : kExtremes[random.integer(0, 7)];
}
Array words(Random& random, std::vector<int> dims) {
  Array a(dims);
  for (double& v : a.v) v = any_word(random);
  return a;
}
Wide at(const Array& a, size_t i) { return static_cast<Wide>(a.v[i]); }

// What a layer must give from words: each input channel's sum, in the 32 bits that it has,
// is rounded by itself. constant: the weights, then the biases.
struct Qs {
  int in = 8, weights = 8, out = 8;
};
Array fixed_layer(const Array& in, Array constant, zyn_conv_param p, Qs q, bool bias, int code,
                  int ow = 0, int oh = 0) {
  const int64_t d = int64_t{q.in} + q.weights - q.out;
  const size_t weights = static_cast<size_t>(weight_count(p));
  constant.v.resize(weights + static_cast<size_t>(p.out_channels));
  if (!has_kernel(p)) p.groups = 1, std::fill_n(constant.v.begin(), weights, 0.0);
  constant.v.resize(constant.v.size() + weights * static_cast<size_t>(p.in_channels));
  p.bias = 0;
  const int64_t r = (int64_t{1} << d) / 2;
  Array out = reference_conv(in, constant, p, false, ow, oh, [&](double total, double sum) {
    const auto bits = static_cast<uint32_t>(static_cast<int64_t>(sum) + r);
    return low16(static_cast<Wide>(total) + low16(static_cast<int32_t>(bits) >> d));
  });
  for_each_element(out, [&](int x, int y, int z) {
    Wide v = static_cast<Wide>(out.at(x, y, z));
    if (bias) v += rescaled(at(constant, weights + static_cast<size_t>(z)), q.weights, q.out);
    out.at(x, y, z) = activated(low16(v), code, q.out);
  });
  return out;
}

// A tensor of words that ends at an inaccessible page.
struct Block {
  PageEnd<int16_t> words;
  zyn_tensor* tensor;
  explicit Block(const Array& a) : words(a.v.size()) {
    for (size_t i = 0; i < a.v.size(); i++) words[i] = static_cast<int16_t>(a.v[i]);
    const auto count = static_cast<int32_t>(a.dims.size());
    tensor = zyn_create_tensor_header(count, a.dims.data(), ZYN_TYPE_FPI16);
    zyn_set_tensor_data(tensor, words.data(), tensor->byte_size);
  }
  ~Block() { zyn_release_tensor(&tensor); }
};

void check_words(const Array& in, const Array& constant, const zyn_conv_param& p, Qs q,
                 bool bias = false, int code = 0) {
  SCOPED_TRACE(testing::Message() << describe(p, in.w(), in.h()) << ", q " << q.in << " "
                                  << q.weights << " " << q.out << ", code " << code);
  const Array expected = fixed_layer(in, constant, p, q, bias, code);
  Block input(in), output(expected), weights(constant);
  std::fill(output.words.begin(), output.words.end(), int16_t{77});
  const zyn_fpi_epilogue epilogue = {bias ? weights.words.data() + weight_count(p) : nullptr, code};
  ASSERT_EQ(zyn_cg_fpi_conv2d(output.tensor, q.out, input.tensor, q.in, weights.words.data(),
                              q.weights, &p, &epilogue),
            0u);
  ASSERT_TRUE(agrees(Net::read(output.tensor), expected, 0));
}

// One convolution layer of any words; defaults are a 3 x 3 one.
class Conv {
 public:
  Conv(int w, int h, int in, int out) : width_(w), height_(h), p_(conv_param(in, out, 3, 1, 1)) {}
  Conv& kernel(int x, int y) { return p_.kernel_h = x, p_.kernel_w = y, *this; }
  Conv& stride(int x, int y) { return p_.stride_h = x, p_.stride_w = y, *this; }
  Conv& pad(int x, int y) { return p_.pad_h = x, p_.pad_w = y, *this; }
  Conv& dilation(int x, int y) { return p_.dilation_h = x, p_.dilation_w = y, *this; }
  Conv& groups(int groups) { return p_.groups = groups, *this; }
  Conv& pointwise() { return kernel(1, 1).pad(0, 0); }
  Conv& q(Qs q) { return q_ = q, *this; }
  Conv& shift(int d) { return q({d, 0, 0}); }
  Conv& epilogue(bool bias, int code) { return bias_ = bias, code_ = code, *this; }

  void check() const {
    Random random(static_cast<uint64_t>(width_ * 100 + p_.out_channels));
    const Array in = words(random, {width_, height_, p_.in_channels});
    check_words(in, words(random, {weight_count(p_) + (bias_ ? p_.out_channels : 0)}), p_, q_,
                bias_, code_);
  }

 private:
  int width_, height_;
  Qs q_;
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
      Conv(pixels, 1, 7, 5).pointwise().shift(shift).check();
  for (int out : {1, 2, 3, 4, 8, 9})
    for (int in : {1, 2, 33}) Conv(13, 5, in, out).pointwise().q({9, 12, 8}).check();
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
    Conv(11, 3, 4, 4).groups(groups).pointwise().stride(2, 2).check();
    Conv(11, 3, 4, 4).groups(groups).kernel(1, 1).pad(2, 1).check();
    Conv(11, 3, 4, 4).groups(groups).pointwise().check();
  }
  Conv(5, 5, 1, 1).check();
  // No kernel serves other groups: zeros, and what follows the convolution.
  Conv(5, 5, 4, 4).groups(2).epilogue(true, 1).check();
}

// q of any size as long as the shift fits: 16 and more bits between bias and output leave
// nothing of the bias, and 6 and 1/6 follow the output's q.
TEST(FixedPoint, BiasAndActivationsUnderAnyFractionBits) {
  for (int code = 0; code <= 5; code++)
    for (bool bias : {false, true})
      for (int q_w : {0, 8, 13, 15}) {
        for (int q_out : {0, 3, 8, 12, 13, 15})
          Conv(7, 5, 2, 3).q({15, q_w, q_out}).epilogue(bias, code).check();
        for (int q_out : {-60, -20, -16, -4, -3, -2, -1, 1, 16, 17, 20, 30, 31, 32, 33, 40, 58, 59})
          for (int shift : {0, 9, 31}) {
            const Qs q = {shift + q_out - q_w, q_w, q_out};
            Conv(7, 5, 2, 3).q(q).epilogue(bias, code).check();
            Conv(7, 5, 3, 3).groups(3).q(q).epilogue(bias, code).check();
            Conv(37, 1, 2, 3).pointwise().q(q).epilogue(bias, code).check();
          }
      }
}

TEST(FixedPoint, SumsWrapAndChannelsRoundByThemselves) {
  const zyn_conv_param p = conv_param(2, 1, 1, 1, 0);
  const struct {
    std::vector<double> x, w;
    double expected;
  } cases[] = {
      {{256, 0}, {256, 0}, 256},
      {{1, 1}, {128, 128}, 2},           // one sum of both would give 1
      {{32767, 1}, {256, 256}, -32768},  // the sum wraps
      {{-32768, 0}, {-32768, 0}, 0},     // narrowing wraps: 2^22 has no low bits
  };
  Array x({1, 1, 2}), w({2});
  for (const auto& c : cases) {
    x.v = c.x, w.v = c.w;
    EXPECT_EQ(fixed_layer(x, w, p, {}, false, 0).v[0], c.expected);
    check_words(x, w, p, {});
  }
  const Block in(x), out(Array({1, 1, 1}));
  const int16_t k[2] = {1, 1};
  const auto conv = [&](zyn_tensor* to, int q_out, zyn_tensor* from, int q, const int16_t* weights,
                        const zyn_conv_param* param) {
    return zyn_cg_fpi_conv2d(to, q_out, from, q, weights, q, param, nullptr);
  };
  EXPECT_EQ(conv(out.tensor, 9, in.tensor, 4, k, &p), 1u) << "d = -1";
  EXPECT_EQ(conv(out.tensor, 0, in.tensor, 16, k, &p), 1u) << "d = 32";
  EXPECT_EQ(conv(out.tensor, 0, in.tensor, 0, nullptr, &p), 1u);
  EXPECT_EQ(conv(nullptr, 0, in.tensor, 0, k, &p), 1u);
  EXPECT_EQ(conv(out.tensor, 0, nullptr, 0, k, &p), 1u);
  EXPECT_EQ(conv(out.tensor, 0, in.tensor, 0, k, nullptr), 1u);
  EXPECT_EQ(conv(in.tensor, 0, in.tensor, 0, k, &p), 1u) << "output channels";
  EXPECT_EQ(conv(out.tensor, 0, out.tensor, 0, k, &p), 1u) << "input channels";
}

// (x * w + r) >> d in 16-bit lanes: every x with a sample of w for every d.
TEST(FixedPoint, ProductsInSixteenBitsAreExact) {
  Array x({256, 256, 1});
  for (int i = 0; i < 65536; i++) x.v[static_cast<size_t>(i)] = low16(i);
  Random random(5);
  for (int d = 0; d <= 31; d++) {
    Array w = words(random, {16});
    w.v[0] = -32768, w.v[1] = 32767, w.v[2] = low16(Wide{1} << d), w.v[3] = low16(-(Wide{1} << d));
    check_words(x, w, conv_param(1, 16, 1, 1, 0), {d, 0, 0});
  }
}

// ---- operators in graphs

// Runs a network whose nodes have the given q, and compares one node with a formula by
// element index.
template <typename Formula>
void expect_values(Net& net, std::vector<std::pair<int, uint32_t>> q, int node, Formula formula) {
  ASSERT_EQ(net.make(), 0);
  net.q_list(15, q);
  ASSERT_EQ(net.prepare(), 0);
  ASSERT_EQ(net.run(), 0);
  const Array got = net.output(node);
  for (size_t i = 0; i < got.v.size(); i++)
    ASSERT_EQ(got.v[i], static_cast<double>(formula(i))) << "element " << i;
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
        expect_values(net, {{0, q_in}, {node, q_out}}, node, [&](size_t i) -> Wide {
          const int16_t x = low16(at(in, i));
          if (type == ZYN_OP_RELU) return std::max<int>(x, 0);
          if (type == ZYN_OP_RELU6) return activated(x, 3, q_in);
          if (type == ZYN_OP_HARD_SWISH) return hard_swish(x, q_in, q_out);
          const double e = std::exp(x / std::pow(2.0, q_in));
          const double y = std::isinf(e) ? 1 : e / (e + 1);
          return std::min(std::llround(y * 32768), 32767LL);
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
            expect_values(net, {{0, qa}, {1, qb}, {node, q}}, node, [&](size_t i) -> Wide {
              const Wide x = at(a, form == 2 ? i / 35 : i), y = at(b, form == 1 ? i / 35 : i);
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
          expect_values(net, {{0, 8}, {node, q_out}}, node, [&](size_t i) -> Wide {
            const int x = static_cast<int>(i) % w, y = static_cast<int>(i) / w % h;
            int64_t sum = 0, best = -32769;
            for (int dy = y * k; dy < std::min(y * k + k, 7); dy++)
              for (int dx = x * k; dx < std::min(x * k + k, 20); dx++) {
                const auto v = static_cast<int64_t>(in.at(dx, dy, static_cast<int>(i) / w / h));
                sum += v;
                best = std::max(best, v);
              }
            if (best < -32768) return 0;
            if (type == ZYN_OP_MAX_POOL) return best;
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
        expect_values(net, {{0, 9}, {node, q_out}}, node, [&](size_t i) -> Wide {
          const size_t j = i % 3, n = static_cast<size_t>(features);
          Wide sum = 0;
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
  const Array in = map(words(random, {9, 5, 3}), [](double v) { return std::floor(v / 16); });
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
    expect_values(net, {{0, 6}, {1, 11}, {node, 1}}, node, [&](size_t i) -> Wide {
      int p[3] = {static_cast<int>(i) % extents[0], static_cast<int>(i) / extents[0] % extents[1],
                  static_cast<int>(i) / extents[0] / extents[1]};
      const bool second = p[axis] >= extents[axis] / 2;
      if (second) p[axis] -= extents[axis] / 2;
      return second ? low16(at(a, a.index(p[0], p[1], p[2])))
                    : rescaled(at(b, b.index(p[0], p[1], p[2])), 11, 6);
    });
    EXPECT_EQ(zyn_cg_get_q_from_list(net.graph(), node), 6u);
  }
}

// Types 3, 4, 5, 12 and 13 under every method: which weights with which q, whether a bias is
// added, and the epilogue that must follow a code.
void check_node(int type, int record_bias, int record_code, bool bias, int code) {
  const bool pointwise = type == ZYN_OP_CONV_POINTWISE, depthwise = type == ZYN_OP_CONV_DEPTHWISE;
  zyn_conv_param p =
      conv_param(3, depthwise ? 3 : 4, pointwise ? 1 : 3, 1, pointwise ? 0 : 1, depthwise ? 3 : 1);
  p.bias = record_bias;
  (type == ZYN_OP_CONV_ACT ? p.word14.activation : p.activation) = record_code;
  Random random(8);
  const bool norm = type == ZYN_OP_CONV_BN;
  const int weights = weight_count(p), outs = p.out_channels;
  Array constant({weights + outs * ((p.bias == 1) + (norm ? 4 : 0))});
  for (double& v : constant.v) v = random.integer(-100, 100) / 128.0;
  // Normalisation by 1 / 2 and a shift, exact in floats: variance + epsilon = 4.
  for (int c = 0; norm && c < outs; c++) {
    double* s = constant.v.data() + constant.v.size() - 4 * outs + c;
    s[0] = 1, s[3 * outs] = 3;
    p.word14.epsilon = 1;
  }
  Array quantised = norm ? reference_fold(constant, p) : constant;
  double most = 0;
  for (double v : quantised.v) most = std::max(most, std::fabs(v));
  const int q_w = 15 - (most >= 1 ? 1 + (most >= 2) : 0);
  for (double& v : quantised.v) v = low16(std::lrint(v * (1 << q_w)));
  const Array in = map(words(random, {11, 6, 3}), [](double v) { return std::floor(v / 110); });
  const Array expected = fixed_layer(in, quantised, p, {8, q_w, 9}, bias, code);
  for (uint32_t method : {0u, 1u, 2u}) {
    Net net(1);
    net.method(method);
    const int node = net.op(type, p, {net.input(in), net.constant(constant)});
    ASSERT_EQ(net.make(), 0);
    net.q_list(15, {{0, 8}, {node, 9}});
    ASSERT_EQ(net.prepare() + net.run(), 0);
    EXPECT_TRUE(agrees(net.output(node), expected, 0))
        << "type " << type << ", bias " << p.bias << ", code " << code << ", method " << method;
  }
}

TEST(FixedPoint, ConvolutionNodes) {
  for (int bias : {0, 1}) {
    for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_DEPTHWISE, ZYN_OP_CONV_POINTWISE})
      check_node(type, bias, 1, bias == 1, 0);
    for (int code : {0, 1, 2, 3, 4, 7, -1}) {
      const bool listed = code >= 0 && code <= 3;
      check_node(ZYN_OP_CONV_ACT, bias, code, listed && bias, code);
      check_node(ZYN_OP_CONV_BN, bias, code, listed, code);
    }
  }
}

// A convolution takes any q that gives a shift of 0 to 31; a dense layer 0 to 15.
TEST(FixedPoint, PreparationRefusesListsThatDoNotFitAndTheNodeDoesNotRun) {
  const struct {
    double weight;
    uint32_t q_in, q_out;
    int32_t conv, linear;
  } cases[] = {{0.5, 0, 15, 0, 0},
               {0.5, 1, 15, 0, 0},
               {1, 0, 15, 1, 1},
               {1, 1, 15, 0, 0},
               {70000, 8, 8, 1, 1},
               {0.5, 16, 8, 0, 1},
               {0.5, 8, 16, 0, 1},
               {2, 1, 15, 1, 1},
               {0.5, 15, 0, 0, 0},
               {0.5, 0, 16, 1, 1},
               {0.5, 16, 0, 0, 1},
               {0.5, 17, 0, 1, 1},
               {0.5, -15u, 0, 0, 1},
               {0.5, -16u, 0, 1, 1},
               {0.5, INT32_MAX, INT32_MAX, 0, 1},
               {0.5, -9u, -3u, 0, 1},
               {0.5, INT32_MAX, 1u << 31, 1, 1}};
  for (const auto& c : cases)
    for (int type : {3, 5, 12, int{ZYN_OP_LINEAR}}) {
      Net net(1);
      const bool linear = type == ZYN_OP_LINEAR;
      const int in = net.input(linear ? Array({1, 1}) : Array({1, 1, 1}));
      const int w = net.constant(Array({1}, c.weight));
      const int node = linear ? net.op(type, zyn_linear_param{1, 1, 0}, {in, w})
                              : net.op(type, conv_param(1, 1, 1, 1, 0), {in, w});
      ASSERT_EQ(net.make(), 0);
      net.q_list(15, {{in, c.q_in}, {node, c.q_out}});
      const int32_t code = linear ? c.linear : c.conv;
      EXPECT_EQ(net.prepare(), code)
          << type << ": " << c.weight << ", " << c.q_in << " " << c.q_out;
      if (linear) continue;
      EXPECT_EQ(net.run(), code) << type << ": " << c.weight << ", " << c.q_in;
    }
}

}  // namespace

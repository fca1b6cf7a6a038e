// Fixed-point operators but convolutions, bit for bit against plain loops over wide integers:
// any q, full-range data with many extremes.
#include "support/conv_case.h"

namespace {

using namespace zyn_test;

Wide at(const Array& a, size_t i) { return static_cast<Wide>(a.v[i]); }

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
        in.v[0] = -32768, in.v[1] = 32767, in.v[2] = 0,
        in.v[3] = std::max(-3.0 * (1 << q_in), -32768.0);
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
          const bool max = type == ZYN_OP_MAX_POOL;
          const Array pooled = reference_pool(in, {k, k, stride, stride, 0}, max);
          expect_values(net, {{0, 8}, {node, q_out}}, node, [&](size_t i) -> Wide {
            const auto v = static_cast<Wide>(std::floor(pooled.v[i] + 0.5));
            return max ? v : rescaled(v, 8, q_out);
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
        constant.v[0] = -1;                                                // so that q is 15
        if (features > 1) in.v[0] = in.v[1] = -32768, constant.v[1] = -1;  // largest sum of two
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
    const Array first = map(b, [](double v) { return rescaled(static_cast<Wide>(v), 11, 6); });
    const Array both = reference_concat({&first, &a}, axis);
    expect_values(net, {{0, 6}, {1, 11}, {node, 1}}, node, [&](size_t i) { return both.v[i]; });
    EXPECT_EQ(zyn_cg_get_q_from_list(net.graph(), node), 6u);
  }
}

// A convolution takes any q that gives a shift of 0 to 31; a dense layer 0 to 15.
TEST(FixedPoint, PreparationRefusesListsThatDoNotFitAndTheNodeDoesNotRun) {
  constexpr uint32_t kMost = INT32_MAX;
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
               {0.5, kMost, kMost, 0, 1},
               {0.5, -9u, -3u, 0, 1},
               {0.5, kMost, 1u << 31, 1, 1}};
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
      SCOPED_TRACE(testing::Message() << type << " " << c.weight << " " << c.q_in << c.q_out);
      EXPECT_EQ(net.prepare(), code);
      EXPECT_EQ(net.run(), code);
    }
}

}  // namespace

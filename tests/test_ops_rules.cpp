// The operators' particular rules: what is refused and where, and what is odd on purpose.
#include <numeric>
#include <set>

#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"
#include "cg/cpu/ops/zyn_cg_power.h"
#include "cg/cpu/zyn_cg.h"
#include "support/ledger.h"
#include "support/model.h"
#include "support/reference.h"

using namespace zyn_test;

namespace {

Array ramp(std::vector<int> dims) {
  Array a(dims);
  for (size_t i = 0; i < a.v.size(); i++) a.v[i] = static_cast<double>(i);
  return a;
}

Array list(std::vector<double> values) {
  Array a({static_cast<int>(values.size())});
  a.v = values;
  return a;
}

// The step that a net fails in and its code: b(ind), p(repare) or r(un), or "".
std::string failure(Net& net) {
  if (const int32_t code = net.make()) return "b" + std::to_string(code);
  if (const int32_t code = net.prepare()) return "p" + std::to_string(code);
  const int32_t code = net.run();
  return code ? "r" + std::to_string(code) : "";
}

// Expects a failure of nodes with these records, inputs of these shapes and, unless 0, a
// constant of so many values.
template <typename Record>
void expect_each(const std::string& expected, int type, const std::vector<std::vector<int>>& inputs,
                 int constant, const std::vector<Record>& records) {
  for (size_t i = 0; i < records.size(); i++) {
    Net net;
    std::vector<int> from;
    for (const auto& dims : inputs) from.push_back(net.input(ramp(dims)));
    if (constant) from.push_back(net.constant(ramp({constant})));
    net.op(type, records[i], from);
    EXPECT_EQ(failure(net), expected) << "type " << type << " record " << i << " " << constant;
  }
}

TEST(Ops, PoolingOfLongRowsAndWideWindows) {
  Random random(3);
  for (int k : {2, 3, 5, 170, 256, 511, 512, 513, 1030})
    for (bool max : {false, true}) {
      const zyn_pool_param p = {k, 1, k, 1, 0};
      const Array in = random_array(random, {2 * k + (k < 10 ? 1200 : 0) + 1, 3, 1});
      Net net;
      const int id = net.op(max ? ZYN_OP_MAX_POOL : ZYN_OP_AVERAGE_POOL, p, {net.input(in)});
      ASSERT_EQ(net.go(), 0);
      EXPECT_TRUE(agrees(net.output(id), reference_pool(in, p, max), 2e-6)) << k;
    }
}

TEST(Ops, DenseBiasReachesTheFirstRowAlone) {
  // in_features finds the bias, the input's rows decide how much of the weights is read.
  for (uint32_t features : {1u, 2u}) {
    const zyn_linear_param p = {features, 3, 1};
    const Array in = ramp({2, static_cast<int>(features)});
    const Array constant = list({1, 2, 3, 4, 5, 6, 10, 20, 30});
    Net net;
    const int id = net.op(ZYN_OP_LINEAR, p, {net.input(in), net.constant(constant)});
    ASSERT_EQ(net.go(), 0);
    EXPECT_TRUE(agrees(net.output(id), reference_linear(in, constant, p), 0));
  }
}

TEST(Ops, DenseOfDoubles) {
  const int32_t dims[2] = {5, 1}, weight_dims[1] = {12};
  zyn_tensor* in = zyn_create_tensor(2, dims, ZYN_TYPE_F64);
  zyn_tensor* constant = zyn_create_tensor(1, weight_dims, ZYN_TYPE_F64);
  auto *x = static_cast<double*>(in->data), *w = static_cast<double*>(constant->data);
  for (int i = 0; i < 12; i++) w[i] = 3 * i - 7, x[i % 5] = i % 5 + 1e-12;
  Net net;
  const int id = net.op(ZYN_OP_LINEAR, zyn_linear_param{5, 2, 1},
                        {net.tensor(ZYN_OP_INPUT, in), net.tensor(ZYN_OP_CONSTANT, constant)});
  ASSERT_EQ(net.go(), 0);
  const auto* y = static_cast<const double*>(net.output_tensor(id)->data);
  for (int j = 0; j < 2; j++)
    EXPECT_NEAR(y[j], std::inner_product(x, x + 5, w + 5 * j, w[10 + j]), 1e-13);
}

TEST(Ops, ReshapeCopiesWhateverTheCountsAndClearsTheRest) {
  const Array in = ramp({4, 4, 8});
  Net net;
  const int x = net.input(in);
  const int id = net.op(ZYN_OP_RESHAPE, zyn_reshape_param{2, {-1, 8}}, {x});
  const int larger = net.op(ZYN_OP_RESHAPE, zyn_reshape_param{1, {130}}, {x});
  ASSERT_EQ(net.go(), 0);
  EXPECT_TRUE(agrees(net.output(id), reference_reshape(in, {16, 8}), 0));
  EXPECT_TRUE(agrees(net.output(larger), reference_reshape(in, {130}), 0));
  // Of a count above 5 nothing is copied, and preparation refuses it; two extents end with
  // the caller's record.
  for (const std::vector<int32_t>& words : {std::vector<int32_t>{6}, {2, -1, 16}}) {
    PageEnd<int32_t> record(words.size());
    std::copy(words.begin(), words.end(), record.begin());
    Net short_net;
    short_net.op(ZYN_OP_RESHAPE, {short_net.input(in)});
    ASSERT_EQ(short_net.connect(), 0);
    for (int32_t id : {0, 1}) {
      const zyn_cg_node_desc desc = {id ? ZYN_OP_RESHAPE : ZYN_OP_INPUT, short_net.output_tensor(0),
                                     0, nullptr, 0};
      zyn_bind_operator_onto_computation_graph(short_net.graph(), id, &desc, record.data());
    }
    EXPECT_EQ(short_net.prepare(), words[0] == 6 ? 1 : 0);
  }
}

TEST(Ops, ChannelsAreTakenFromEveryImage) {
  const Array in = ramp({2, 3, 4, 2});
  const int32_t last = 3;
  Net net;
  const int x = net.input(in);
  const int slice = net.op(ZYN_OP_CHANNEL_SLICE, zyn_slice_param{0, 4, last, 1, 0}, {x});
  const int gather = net.op(ZYN_OP_CHANNEL_GATHER, zyn_gather_param{1, &last}, {x});
  ASSERT_EQ(net.go(), 0);
  for (const Array& out : {net.output(slice), net.output(gather)}) {
    ASSERT_EQ(out.dims, (std::vector<int>{2, 3, 1, 2}));
    for (size_t i = 0; i < 12; i++) EXPECT_EQ(out.v[i], in.v[18 + i % 6 + i / 6 * 24]) << i;
  }
}

TEST(Ops, ActivationsAtTheirEnds) {
  const double inf = HUGE_VAL;
  Array in = list({-inf, -1e30, -100, -20, -3, -1, -0.0, 0, 1, 3, 7, 19, 21, 88, 1e30, inf, NAN});
  in.dims.push_back(1);
  for (int type : {ZYN_OP_RELU, ZYN_OP_RELU6, ZYN_OP_HARD_SWISH, ZYN_OP_MISH, ZYN_OP_SIGMOID}) {
    Net net;
    const int x = net.input(in);
    Array expected = reference_activation(net.output(x), type);
    expected.v[16] = NAN;
    if (type == ZYN_OP_MISH) expected.v[0] = 0;
    net.op(type, {x});
    ASSERT_EQ(net.go(), 0);
    for (size_t i = 0; i < in.v.size(); i++) {
      const double got = net.output(x).v[i], e = expected.v[i];
      EXPECT_TRUE(std::isnan(e) ? std::isnan(got)
                                : got == e || std::fabs(got - e) <= 1e-6 * std::fabs(e) + 1.2e-38)
          << type << " of " << in.v[i] << ": " << got << ", not " << e;
    }
  }
}

TEST(Ops, SigmoidNeedsTwoDimensions) {
  Net net;
  net.op(ZYN_OP_SIGMOID, {net.input(ramp({4}))});
  ASSERT_EQ(net.make() + net.prepare(), 0);
  EXPECT_SAYS(zyn_computation_graph_inference(net.graph()), 1,
              report("parameters error!", "src/matrix/zyn_matrix_core.cpp", 109) +
                  "failed to inference: 1!!!");
}

TEST(Ops, JoinsRefuseWhatDoesNotFit) {
  using Shape = std::vector<int>;
  const Shape block = {3, 2, 4}, pixel = {1, 1, 4}, odd = {1, 1, 5}, two = {1, 1, 4, 2};
  const Shape block4 = {3, 2, 4, 1}, pixel4 = {1, 1, 4, 1}, flat = {24};
  const auto expect_joins = [](const char* expected, int type,
                               const std::vector<std::vector<Shape>>& inputs) {
    for (const auto& shapes : inputs) expect_each<int>(expected, type, shapes, 0, {0});
  };
  // Equal counts in different shapes can be added.
  expect_joins("", ZYN_OP_ADD, {{block, pixel}, {block, flat}, {pixel, pixel4}});
  expect_joins("r1", ZYN_OP_ADD,
               {{block, {5}}, {pixel, block}, {{6, 4}, {1}}, {pixel, two}, {two, pixel}});
  expect_joins("p1", ZYN_OP_ADD, {{block}, {block, block, block}});
  expect_joins("", ZYN_OP_MULTIPLY,
               {{pixel, block}, {block4, pixel4}, {pixel, block4}, {block, block4}});
  expect_joins("r1", ZYN_OP_MULTIPLY,
               {{block, flat}, {{3, 2, 4, 2}, pixel}, {block, odd}, {odd, block}});
  Net net;  // a one-pixel a lends its place to b's shape
  const int x = net.input(ramp(pixel)), y = net.input(ramp(block));
  const int id = net.op(ZYN_OP_ADD, {x, y});
  ASSERT_EQ(net.make() + net.prepare(), 0);
  EXPECT_EQ(net.output(id).dims, block);
}

TEST(Ops, NormalisationLeavesEpsilonZeroAlone) {
  const zyn_bn_param p = {0, 0};
  for (int type : {ZYN_OP_BATCH_NORM, ZYN_OP_BATCH_NORM_FAST}) {
    Net net;
    const int id = net.op(type, p, {net.input(ramp({2, 1, 1})), net.constant(list({1, 0, 0, 0}))});
    ASSERT_EQ(net.go(), 0);
    EXPECT_TRUE(std::isnan(net.output(id).v[0]));  // 0 / 0, where 1e-5 would give 0
    EXPECT_EQ(net.output(id).v[1], HUGE_VAL);
    for (int count : {3, 8, 0}) expect_each<zyn_bn_param>("p1", type, {{2, 1, 1}}, count, {p});
    expect_each<zyn_bn_param>("p1", type, {{2, 1, 1}, {2, 1, 1}}, 4, {p});
  }
}

TEST(Ops, ConcatenationFollowsItsListAndRefusesOthers) {
  const struct {
    int axis;
    std::vector<int32_t> ids;
    std::vector<int> from;
    std::string expected;
    int rows = 5;
  } cases[] = {
      {2, {0, 1}, {1, 0}, ""},    {2, {0, 1, 0}, {0, 0, 1}, ""}, {3, {0, 1}, {0, 1}, "p1"},
      {-1, {0, 1}, {0, 1}, "p1"}, {2, {0}, {0, 1}, "p1"},        {2, {0, 0}, {0, 1}, "p1"},
      {2, {0, 1}, {0, 0}, "p1"},  {0, {0, 1}, {0, 1}, "r1"},     {2, {0, 1}, {0, 1}, "r1", 4}};
  for (const auto& c : cases) {
    Net net;
    const zyn_concat_param p = {c.axis, static_cast<int32_t>(c.ids.size()), c.ids.data()};
    net.input(ramp({5, 5, 3}));
    net.input(ramp({c.rows, 5, 2}));
    net.op(ZYN_OP_CONCAT, p, c.from);
    for (int id : {0, 1}) net.op(ZYN_OP_ADD, {id, id});  // both inputs need an edge
    EXPECT_EQ(failure(net), c.expected) << c.axis << ::testing::PrintToString(c.ids);
  }
  const int32_t id = 0;
  expect_each<zyn_concat_param>("p2", ZYN_OP_CONCAT, {}, 5, {{2, 1, &id}});
  expect_each<zyn_concat_param>("b1", ZYN_OP_CONCAT, {{5}}, 0, {{2, 1, nullptr}, {2, 0, &id}});
}

TEST(Ops, RecordsThatDoNotFitAreRefused) {
  using Shapes = std::vector<std::vector<int>>;
  using Pool = zyn_pool_param;
  const Shapes quad = {{2, 2, 1}}, row = {{4, 1}}, block = {{4, 4, 6}};
  expect_each<Pool>("p1", ZYN_OP_MAX_POOL, quad, 0,
                    {{0, 2, 2, 2, 0}, {2, 0, 2, 2, 0}, {2, 2, 0, 2, 0}, {2, 2, 2, 0, 0}});
  expect_each<Pool>("p2", ZYN_OP_MAX_POOL, quad, 0, {{9, 9, 2, 2, 0}});
  expect_each<Pool>("", ZYN_OP_MAX_POOL, quad, 0, {{3, 3, 2, 2, 0}});  // less than a window
  // The dense layer reads weights and biases that the constant has.
  using Dense = zyn_linear_param;
  constexpr uint32_t kMost = 0xFFFFFFFFu;
  expect_each<Dense>("", ZYN_OP_LINEAR, row, 12, {{4, 3, 0}});
  expect_each<Dense>("p1", ZYN_OP_LINEAR, row, 11, {{4, 3, 0}});
  expect_each<Dense>("", ZYN_OP_LINEAR, row, 15, {{4, 3, 1}});
  expect_each<Dense>("p1", ZYN_OP_LINEAR, row, 14, {{4, 3, 1}, {kMost, kMost, 1}});
  expect_each<Dense>("p2", ZYN_OP_LINEAR, row, 12, {{4, 0, 0}});
  expect_each<Dense>("p2", ZYN_OP_LINEAR, {{4}}, 12, {{4, 3, 0}});
  expect_each<Dense>("r1", ZYN_OP_LINEAR, {{4, 1, 1}}, 12, {{4, 3, 0}});
  using Reshape = zyn_reshape_param;
  expect_each<Reshape>("p1", ZYN_OP_RESHAPE, {{16, 8}}, 0,
                       {{2, {-1, -1}}, {2, {0, 8}}, {2, {-2, 8}}, {0, {}}});
  expect_each<Reshape>("p2", ZYN_OP_RESHAPE, {{16, 8}}, 0, {{2, {-1, 129}}});
  expect_each<Reshape>("r1", ZYN_OP_RESHAPE, {{16, 8}}, 0, {{1, {127}}, {2, {-1, 50}}});
  expect_each<Reshape>("", ZYN_OP_RESHAPE, {{16, 8}}, 0, {{5, {2, 2, 2, 2, -1}}});
  using Slice = zyn_slice_param;
  for (const Slice& p : {Slice{0, 0, 0, 1, 0},
                         {0, 7, 0, 1, 0},
                         {0, 2, 2, 2, 0},
                         {0, 2, -1, 1, 0},
                         {0, 3, 6, -1, 0},
                         {0, 1, 0, 1 << 30, 0}})
    expect_each<Slice>("p1", ZYN_OP_CHANNEL_SLICE, block, 0, {p});
  expect_each<Slice>("", ZYN_OP_CHANNEL_SLICE, block, 0, {{0, 1, 5, -1, 0}, {0, 6, 5, 1000, 0}});
  using Gather = zyn_gather_param;
  const int32_t channels[3] = {-1, 0, 6};
  expect_each<Gather>("p1", ZYN_OP_CHANNEL_GATHER, block, 0, {{2, channels}, {2, channels + 1}});
  expect_each<Gather>("b1", ZYN_OP_CHANNEL_GATHER, block, 0, {{1, nullptr}});
  expect_each<zyn_func_param>("p1", ZYN_OP_FUNCTION, block, 0,
                              {{11, 0, 0}, {-1, 0, 0}, {ZYN_FUNC_POWER, INFINITY, 0}});
  expect_each<zyn_resample_param>("p1", ZYN_OP_RESAMPLE, block, 0, {{3, 1, 1}});
  for (float factor : {0.0f, -1.0f, 0.1f, 1e30f, NAN})
    expect_each<zyn_resample_param>("p2", ZYN_OP_RESAMPLE, block, 0, {{0, factor, 1}});
  expect_each<zyn_affine_param>("p1", ZYN_OP_AFFINE, block, 5, {{1, 1}});
}

TEST(Ops, ConvolutionsThatDoNotFitAreRefused) {
  using Conv = zyn_conv_param;
  const Conv good = {6, 6, 3, 3, 1, 1, 1, 1, {0, 0}, 1, 1, 2, 0, {0}, 0};
  const auto expect = [&](const char* expected, int type, int constant,
                          int32_t Conv::*field = &Conv::groups, int32_t value = 2) {
    Conv p = good;
    p.*field = value;
    expect_each<Conv>(expected, type, {{4, 4, 6}}, constant, {p});
  };
  constexpr std::pair<int32_t Conv::*, int32_t> kBad[] = {
      {&Conv::groups, 4},     {&Conv::groups, 0},          {&Conv::in_channels, 8},
      {&Conv::stride_h, 0},   {&Conv::kernel_w, 0},        {&Conv::pad_h, -1},
      {&Conv::dilation_w, 0}, {&Conv::out_channels, 2000}, {&Conv::out_channels, INT32_MAX - 1}};
  for (int type : {ZYN_OP_CONV_GROUPED, ZYN_OP_CONV_TRANSPOSED}) {
    for (const auto& [field, value] : kBad) expect("p1", type, 2000, field, value);
    expect("", type, 6 * 3 * 9);
    expect("p1", type, 6 * 3 * 9 - 1);
    expect("p1", type, 6 * 3 * 9, &Conv::bias, 1);
  }
  expect("p2", ZYN_OP_CONV_GROUPED, 2000, &Conv::dilation_h, 9);
  expect("p2", ZYN_OP_CONV_TRANSPOSED, 2000, &Conv::pad_h, 9);
}

TEST(Ops, MissingRecordsInputsAndOtherElementTypes) {
  const std::set<int> recordless = {ZYN_OP_SIGMOID, ZYN_OP_RELU, ZYN_OP_RELU6,   ZYN_OP_HARD_SWISH,
                                    ZYN_OP_MISH,    ZYN_OP_ADD,  ZYN_OP_MULTIPLY};
  for (int type : kOperatorTypes) {
    SCOPED_TRACE(type);
    Net bare;
    bare.op(type, {bare.input(ramp({2, 2, 2}))});
    EXPECT_EQ(bare.make(), recordless.count(type) ? 0 : 1);
    Model model(11);
    while (model.add(type) < 0) {
    }
    model.use_leftovers();
    ASSERT_EQ(model.net.make(), 0);
    for (int id = 0; id < model.size(); id++)
      if (model.net.is_input(id)) model.net.output_tensor(id)->type = ZYN_TYPE_FPI16;
    // The operators that move data take any type.
    EXPECT_TRUE(type >= ZYN_OP_RESHAPE || model.net.prepare() == 1);
  }
}

TEST(Ops, FixedPointGraphsKeepTheirQRulesAndRefuseTheRest) {
  const std::set<int> refused = {ZYN_OP_CONV_GROUPED, ZYN_OP_CONV_TRANSPOSED,
                                 ZYN_OP_BATCH_NORM_FAST, ZYN_OP_MISH, ZYN_OP_RESAMPLE};
  const std::set<int> takes_input_q = {ZYN_OP_RELU,          ZYN_OP_RELU6,  ZYN_OP_MAX_POOL,
                                       ZYN_OP_RESHAPE,       ZYN_OP_CONCAT, ZYN_OP_CHANNEL_SLICE,
                                       ZYN_OP_CHANNEL_GATHER};
  for (int type : kOperatorTypes) {
    if (type == ZYN_OP_FUNCTION || type == ZYN_OP_AFFINE) continue;  // test_functions.cpp
    SCOPED_TRACE(type);
    Model model(12, 1);
    int node = -1;
    while (node < 0) node = model.add(type);
    ASSERT_EQ(model.net.make(), 0);
    EXPECT_EQ(model.net.prepare(), 1) << "no Q list";
    uint32_t* q = model.net.q_list(13, {{0, 7}, {node, 3}});
    const int32_t code = refused.count(type) ? 4 : 0;
    EXPECT_EQ(model.net.prepare(), code);
    if (type != ZYN_OP_BATCH_NORM) {
      EXPECT_EQ(q[node], takes_input_q.count(type) ? 7u : 3u);
    }
    // No 16-bit value has more than 15 fraction bits. Nothing half-prepared runs.
    for (uint32_t none : {16u, 0xFFFFFFFFu}) {
      if (type == ZYN_OP_AVERAGE_POOL) break;
      q[0] = none;
      EXPECT_EQ(model.net.prepare(), code == 4 ? 4 : 1) << none;
      EXPECT_EQ(model.net.run(), 1) << none;
      EXPECT_EQ(model.net.output_tensor(node), nullptr) << none;
    }
    q[0] = 7;
    model.net.output_tensor(0)->type = ZYN_TYPE_F32;
    EXPECT_EQ(model.net.prepare(), 1) << "floats";
  }
}

TEST(Ops, AveragePoolingJudgesItsQAtTheRun) {
  const struct {
    uint32_t q_in, q_out;
    double mean;  // of four times 30001; -1: refused
  } cases[] = {{16, 8, 117},
               {40, 8, 0},
               {8, 16, -1},
               {0x80000000u, 8, -1},
               {0, 15, -32768},
               {3, 0xFFFFFFFEu, 938},
               {0x7FFFFFFFu, 0x80000000u, 0}};
  for (const auto& c : cases) {
    Net net(1);
    const int x = net.input(Array({2, 2, 1}, 30001));
    const int id = net.op(ZYN_OP_AVERAGE_POOL, zyn_pool_param{2, 2, 2, 2, 0}, {x});
    ASSERT_EQ(net.make(), 0);
    net.q_list(c.q_in, {{id, c.q_out}});
    EXPECT_EQ(net.prepare(), 0) << c.q_in;
    EXPECT_EQ(net.run(), c.mean == -1 ? 1 : 0) << c.q_in;
    EXPECT_TRUE(c.mean == -1 || net.output(id).v[0] == c.mean) << c.q_in;
  }
}

// Until the run writes planar order the output says what its input lies in.
TEST(Ops, OutputsTakeOverTheirInputsLayoutAtPreparation) {
  const int32_t zero = 0;
  const zyn_linear_param dense = {8, 1, 0};
  for (int type : {ZYN_OP_RESHAPE, ZYN_OP_CONCAT, ZYN_OP_LINEAR}) {
    Net net;
    const int x = net.input(ramp({8, 2}), ZYN_LAYOUT_BLOCKED);
    const int id = type == ZYN_OP_RESHAPE  ? net.op(type, zyn_reshape_param{1, {16}}, {x})
                   : type == ZYN_OP_CONCAT ? net.op(type, zyn_concat_param{0, 1, &zero}, {x})
                                           : net.op(type, dense, {x, net.constant(ramp({8}))});
    ASSERT_EQ(net.make() + net.prepare(), 0);
    EXPECT_EQ(net.output_tensor(id)->layout, ZYN_LAYOUT_BLOCKED) << type;
    EXPECT_EQ(net.run(), 0);
    EXPECT_EQ(net.output_tensor(id)->layout, ZYN_LAYOUT_PLANAR) << type;
  }
}

TEST(Ops, FixedPointNormalisationChoosesItsQ) {
  const struct {
    double gamma, variance;
    uint32_t q;
  } cases[] = {{5, 700, 8}, {0.5, 3, 13}, {3, 0.2, 13}, {0.5, 0.5, 15}};
  for (const auto& c : cases) {
    Net net(1);
    const int id =
        net.op(ZYN_OP_BATCH_NORM, zyn_bn_param{0, 0},
               {net.input(ramp({2, 2, 1})), net.constant(list({c.gamma, 0, 0, c.variance}))});
    ASSERT_EQ(net.make(), 0);
    const uint32_t* q = net.q_list(0);
    EXPECT_EQ(net.prepare(), 0);
    EXPECT_EQ(q[id], c.q) << c.gamma;
  }
}

TEST(Ops, FloatsBecomeSixteenBits) {
  Net net;
  const auto floats = [&](std::vector<double> values) {
    return net.output_tensor(net.input(list(values)));
  };
  const struct {
    double value;
    int32_t code;
    uint32_t q;
  } cases[] = {{1, 0, 14}, {-1, 0, 15}, {70000, 1, 0}, {0, 0, 15}, {-32768, 0, 0}, {32767.5, 1, 0}};
  for (const auto& c : cases) {
    const zyn_tensor* t = floats({0, c.value, 0});
    uint32_t q = 0;
    EXPECT_EQ(zyn_cg_fpi_choose_fraction_bits(&q, t, 0, 3), c.code) << c.value;
    EXPECT_EQ(q, c.q) << c.value;
    EXPECT_EQ(zyn_cg_fpi_choose_fraction_bits(&q, t, -1, 3), 1);
  }
  const zyn_tensor* in = floats({0.5, 1.5, 2.5, 40000, -1.25, 1e30});
  Net fixed(1);
  zyn_tensor* out = fixed.output_tensor(fixed.input(Array({6})));
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 0, 5, 0), 0);
  EXPECT_EQ(Net::read(out).v, (std::vector<double>{0, 2, 2, 40000 - 65536, -1, 0}));
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 1, 2, 1), 0);
  EXPECT_EQ(Net::read(out).v[2], 5);
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 0, 5, 16), 1);
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 0, 7, 1), 1);
}

TEST(Ops, PowersAreRightToTheLastPlace) {
  const float values[] = {0.0f,    -0.0f,   1.0f,  -1.0f,    2.0f,      0.5f,       1e-40f, -1e-40f,
                          3.4e38f, 1e-38f,  -2.0f, -3.5f,    0.9999f,   1.00001f,   7.25f,  1e10f,
                          -1e10f,  123.45f, NAN,   INFINITY, -INFINITY, 1.4142135f, 1e-20f, 0.3f};
  for (float y : {0.0f, 1.0f, -1.0f, 2.0f, NAN, INFINITY, -INFINITY, 3.0f, -3.0f, 0.5f, -0.5f,
                  1.0f / 3, 2.2f, 17.0f, 80.5f, -40.0f, 1e-3f, 1000.0f, 16777216.0f})
    for (size_t i = 0; i < std::size(values); i += 8) {
      float got[8];
      _mm256_storeu_ps(got, zyn_power8(_mm256_loadu_ps(values + i), y));
      for (size_t k = 0; k < 8; k++) {
        const float exact = static_cast<float>(
            std::pow(static_cast<double>(values[i + k]), static_cast<double>(y)));
        const bool exactly = exact == 0 || std::isinf(exact) || got[k] == exact;
        EXPECT_TRUE(std::isnan(exact) ? std::isnan(got[k])
                    : exactly ? got[k] == exact && std::signbit(got[k]) == std::signbit(exact)
                              : std::nextafter(got[k], exact) == exact)
            << values[i + k] << "^" << y << " = " << got[k] << ", not " << exact;
      }
    }
}

TEST(Ops, DeviceGraphsComputeNothing) {
  for (int type : {ZYN_OP_ADD, ZYN_OP_MULTIPLY, ZYN_OP_SIGMOID, ZYN_OP_HARD_SWISH, ZYN_OP_MISH,
                   ZYN_OP_AVERAGE_POOL, ZYN_OP_BATCH_NORM, ZYN_OP_CONCAT, ZYN_OP_LINEAR})
    for (uint32_t device : {1u, 2u, 3u}) {
      Model model(13);
      const int node = model.add(type);
      ASSERT_EQ(model.net.make(), 0);
      model.net.graph()->device_type = device;
      ASSERT_EQ(model.net.prepare(), 0) << type;
      const zyn_tensor* out = model.net.output_tensor(node);
      EXPECT_EQ(out->data, nullptr);
      EXPECT_EQ(model.net.run(), type == ZYN_OP_MISH && device != 2 ? 1 : 0) << type;
      if (type == ZYN_OP_CONCAT && device == 2) {
        EXPECT_EQ(out->dims[0] * out->dims[1], 1);
        EXPECT_EQ(out->dims[2], out->count);
      }
    }
}

// ---- prepared again, with other shapes

// Gives a tensor other extents over the memory that it has, or back.
void reshape(zyn_tensor* tensor, std::vector<int32_t> dims) {
  void* data = tensor->data;
  zyn_set_tensor_header(tensor, static_cast<int32_t>(dims.size()), dims.data(), ZYN_TYPE_F32);
  zyn_set_tensor_data(tensor, data, tensor->byte_size);
}

// A second preparation keeps outputs, unless their shape changes. The producer makes another
// output, the node after it in the order cannot be prepared, and so the consumer is never told: it
// must not touch the output that is gone.
TEST(Ops, NodesBehindAFailedPreparationRefuseToRunAndToBeRead) {
  const int32_t twice[2] = {1, 1};
  const zyn_func_param negate = {ZYN_FUNC_NEGATE, 0, 0};
  for (int type : {ZYN_OP_RELU, ZYN_OP_FUNCTION, ZYN_OP_ADD, ZYN_OP_CONCAT}) {
    SCOPED_TRACE(type);
    Net net;
    const int x = net.input(Array({12, 12, 8}, 1));
    const int producer = net.op(ZYN_OP_FUNCTION, negate, {x});
    const int failing = net.op(ZYN_OP_MAX_POOL, zyn_pool_param{9, 9, 1, 1, 0}, {x});
    const std::vector<int> from(type == ZYN_OP_ADD || type == ZYN_OP_CONCAT ? 2 : 1, producer);
    const int consumer = type == ZYN_OP_CONCAT ? net.op(type, zyn_concat_param{2, 2, twice}, from)
                                               : net.op(type, negate, from);
    ASSERT_EQ(net.go(), 0);
    const zyn_tensor* kept = net.output_tensor(producer);
    ASSERT_EQ(net.prepare(), 0);
    EXPECT_EQ(net.output_tensor(producer), kept);
    reshape(net.output_tensor(x), {4, 4, 8});
    EXPECT_EQ(net.prepare(), ZYN_RET_ERR_MEMORY);
    EXPECT_EQ(net.output(producer).w(), 4);
    EXPECT_EQ(net.output_tensor(failing), nullptr);
    EXPECT_EQ(net.output_tensor(consumer), nullptr);
    reshape(net.output_tensor(x), {12, 12, 8});
    EXPECT_EQ(net.run(), ZYN_RET_ERR_PARA);  // not before the next preparation
    ASSERT_EQ(net.prepare() + net.run(), 0);
    EXPECT_EQ(net.output(consumer).w(), 12);
    net.output_tensor(x)->data = nullptr;
    EXPECT_EQ(net.run(), ZYN_RET_ERR_PARA);
  }
}

// An edge that the sort has not seen, against the order: its producer's output of the
// preparation before is about to be replaced.
TEST(Ops, OutputsOfTheLastTimeAreNoInputs) {
  Net net;
  const int x = net.input(Array({6, 5, 4}, 1));
  const int first = net.op(ZYN_OP_ADD, {x, x});
  const int second = net.op(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_NEGATE, 0, 0}, {first});
  ASSERT_EQ(net.go(), 0);
  zyn_add_one_edge_into_computation_graph(net.graph(), second, first);
  EXPECT_NE(net.prepare(), 0);
  EXPECT_EQ(net.run(), ZYN_RET_ERR_PARA);
}

TEST(Ops, OutputsThatCannotBeMadeAreReported) {
  const struct {
    int type;
    std::string file;
    int line;
  } sites[] = {{ZYN_OP_LINEAR, "linear", 237}, {ZYN_OP_CHANNEL_SLICE, "tensor", 750},
               {ZYN_OP_CONCAT, "tensor", 982}, {ZYN_OP_ADD, "func", 236},
               {ZYN_OP_FUNCTION, "func", 121}, {ZYN_OP_MAX_POOL, "pool", 92},
               {ZYN_OP_BATCH_NORM, "bn", 118}, {ZYN_OP_AVERAGE_POOL, "pool", 181}};
  for (const auto& site : sites) {
    const Ledger ledger;
    Model model(1);
    const int id = model.add(site.type);
    ASSERT_EQ(model.net.make(), 0);
    Ledger::fail(1, true);
    EXPECT_SAYS(zyn_prepare_inference_computation(model.net.graph()), 2,
                report(kMemory, "src/matrix/zyn_tensor.cpp", 53) +
                    report("Allocating memory error!\n", "src/cg/cpu/zyn_cg_" + site.file + ".cpp",
                           site.line) +
                    "failed to prepare inference node:" + std::to_string(id) + "!!!");
    Ledger::fail(0, false);
  }
}

}  // namespace

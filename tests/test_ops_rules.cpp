// The operators' particular rules: what is refused and where, and what is odd on purpose.
#include <numeric>
#include <set>

#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"
#include "cg/cpu/ops/zyn_cg_power.h"
#include "cg/cpu/zyn_cg.h"
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

// What one node with the given inputs answers at bind, prepare and run.
struct Answers {
  int32_t bind, prepare, run;
  bool operator==(const Answers& o) const {
    return bind == o.bind && prepare == o.prepare && run == o.run;
  }
};
std::ostream& operator<<(std::ostream& s, const Answers& a) {
  return s << a.bind << " " << a.prepare << " " << a.run;
}
constexpr Answers kFine = {0, 0, 0};
constexpr Answers kBindRefuses = {1, -1, -1};
constexpr Answers kPrepareRefuses = {0, 1, -1};
constexpr Answers kPrepareFails = {0, 2, -1};
constexpr Answers kRunRefuses = {0, 0, 1};

Answers answers(Net& net) {
  Answers a = {net.make(), -1, -1};
  if (!a.bind) a.prepare = net.prepare();
  if (!a.prepare) a.run = net.run();
  return a;
}

// A node of one input, and a constant where given.
template <typename Record>
Answers ask(int type, const Record& record, const Array& in, const Array* constant = nullptr) {
  Net net;
  std::vector<int> from = {net.input(in)};
  if (constant) from.push_back(net.constant(*constant));
  net.op(type, record, from);
  return answers(net);
}

TEST(Ops, PoolingOfLongRowsAndWideWindowsAndLessThanAWindow) {
  struct Case {
    zyn_pool_param p;
    std::vector<int> dims;
  };
  std::vector<Case> cases = {{{3, 3, 2, 2, 0}, {2, 2, 1}}};
  for (int k : {2, 3, 5, 170, 256, 511, 512, 513, 1030})
    cases.push_back({{k, 1, k, 1, 0}, {2 * k + (k < 10 ? 1200 : 0) + 1, 3, 1}});
  Random random(3);
  for (const Case& c : cases)
    for (bool max : {false, true}) {
      const Array in = random_array(random, c.dims);
      Net net;
      const int id = net.op(max ? ZYN_OP_MAX_POOL : ZYN_OP_AVERAGE_POOL, c.p, {net.input(in)});
      ASSERT_EQ(net.go(), 0);
      EXPECT_TRUE(agrees(net.output(id), reference_pool(in, c.p, max), 2e-6)) << c.p.kernel_h;
    }
  const Array quad({2, 2, 1});
  for (zyn_pool_param bad : {zyn_pool_param{0, 2, 2, 2, 0}, zyn_pool_param{2, 0, 2, 2, 0},
                             zyn_pool_param{2, 2, 0, 2, 0}, zyn_pool_param{2, 2, 2, 0, 0}})
    EXPECT_EQ(ask(ZYN_OP_MAX_POOL, bad, quad), kPrepareRefuses);
  EXPECT_EQ(ask(ZYN_OP_MAX_POOL, zyn_pool_param{9, 9, 2, 2, 0}, quad), kPrepareFails);
}

TEST(Ops, DenseBiasReachesTheFirstRowAlone) {
  // in_features finds the bias, the input's rows decide how much of the weights is read.
  const Array constant = list({1, 2, 3, 4, 5, 6, 10, 20, 30});
  const struct {
    zyn_linear_param p;
    int rows;
    std::vector<double> expected;
  } cases[] = {{{2, 3, 1}, 2, {12, 24, 36, 8, 18, 28}}, {{1, 3, 1}, 1, {2 + 4, 4 + 5, 6 + 6}}};
  for (const auto& c : cases) {
    Net net;
    const int id =
        net.op(ZYN_OP_LINEAR, c.p, {net.input(ramp({2, c.rows})), net.constant(constant)});
    ASSERT_EQ(net.go(), 0);
    EXPECT_EQ(net.output(id).v, c.expected);
  }
}

TEST(Ops, DenseRefusesWhatWouldBeReadPastTheConstant) {
  const struct {
    zyn_linear_param p;
    int constant;
    std::vector<int> in;
    Answers expected;
  } cases[] = {{{4, 3, 0}, 12, {4, 1}, kFine},
               {{4, 3, 0}, 11, {4, 1}, kPrepareRefuses},
               {{4, 3, 1}, 15, {4, 1}, kFine},
               {{4, 3, 1}, 14, {4, 1}, kPrepareRefuses},
               {{0xFFFFFFFFu, 0xFFFFFFFFu, 1}, 14, {4, 1}, kPrepareRefuses},
               {{4, 0, 0}, 12, {4, 1}, kPrepareFails},
               {{4, 3, 0}, 12, {4}, kPrepareFails},
               {{4, 3, 0}, 12, {4, 1, 1}, kRunRefuses}};
  for (const auto& c : cases) {
    const Array constant = ramp({c.constant});
    EXPECT_EQ(ask(ZYN_OP_LINEAR, c.p, ramp(c.in), &constant), c.expected) << c.constant;
  }
}

TEST(Ops, DenseOfDoubles) {
  const int32_t dims[2] = {5, 1}, weight_dims[1] = {12};
  zyn_tensor* in = zyn_create_tensor(2, dims, ZYN_TYPE_F64);
  zyn_tensor* constant = zyn_create_tensor(1, weight_dims, ZYN_TYPE_F64);
  auto* x = static_cast<double*>(in->data);
  auto* w = static_cast<double*>(constant->data);
  for (int i = 0; i < 12; i++) w[i] = 3 * i - 7, x[i % 5] = i % 5 + 1e-12;
  {
    Net net;
    const int id = net.op(ZYN_OP_LINEAR, zyn_linear_param{5, 2, 1},
                          {net.tensor(ZYN_OP_INPUT, in), net.tensor(ZYN_OP_CONSTANT, constant)});
    ASSERT_EQ(net.go(), 0);
    const auto* y = static_cast<const double*>(net.output_tensor(id)->data);
    for (int j = 0; j < 2; j++)
      EXPECT_NEAR(y[j], std::inner_product(x, x + 5, w + 5 * j, w[10 + j]), 1e-13);
  }
  zyn_release_tensor(&in);
  zyn_release_tensor(&constant);
}

TEST(Ops, ReshapeCopiesWhateverTheCountsAndClearsTheRest) {
  const Array in = ramp({4, 4, 8});
  const auto reshaped = [&](std::vector<int> dims) {
    zyn_reshape_param p = {static_cast<int32_t>(dims.size()), {}};
    std::copy(dims.begin(), dims.end(), p.dims);
    return p;
  };
  Net net;
  const int x = net.input(in);
  const int id = net.op(ZYN_OP_RESHAPE, reshaped({-1, 8}), {x});
  const int larger = net.op(ZYN_OP_RESHAPE, reshaped({130}), {x});
  ASSERT_EQ(net.go(), 0);
  EXPECT_EQ(net.output(id).dims, (std::vector<int>{16, 8}));
  EXPECT_EQ(net.output(id).v, in.v);
  Array rest = net.output(larger);
  EXPECT_EQ(rest.v[128], 0);
  EXPECT_EQ(rest.v[129], 0);
  rest.v.resize(128);
  EXPECT_EQ(rest.v, in.v);
  const struct {
    std::vector<int> dims;
    Answers expected;
  } cases[] = {{{-1, -1}, kPrepareRefuses}, {{0, 8}, kPrepareRefuses},  {{-2, 8}, kPrepareRefuses},
               {{}, kPrepareRefuses},       {{-1, 129}, kPrepareFails}, {{127}, kRunRefuses},
               {{-1, 50}, kRunRefuses},     {{2, 2, 2, 2, -1}, kFine}};
  for (const auto& c : cases)
    EXPECT_EQ(ask(ZYN_OP_RESHAPE, reshaped(c.dims), in), c.expected)
        << ::testing::PrintToString(c.dims);
  // Of a count above 5 nothing is copied, and preparation refuses it; two extents end with the
  // caller's record.
  for (const std::vector<int32_t>& words : {std::vector<int32_t>{6}, {2, -1, 16}}) {
    PageEnd<int32_t> record(words.size());
    std::copy(words.begin(), words.end(), record.begin());
    Net short_net;
    short_net.op(ZYN_OP_RESHAPE, {short_net.input(in)});
    ASSERT_EQ(short_net.connect(), 0);
    zyn_cg_node_desc desc = {ZYN_OP_RESHAPE, nullptr, 0, nullptr, 0};
    EXPECT_EQ(zyn_bind_operator_onto_computation_graph(short_net.graph(), 1, &desc, record.data()),
              0);
    desc = {ZYN_OP_INPUT, short_net.output_tensor(0), 0, nullptr, 0};
    zyn_bind_operator_onto_computation_graph(short_net.graph(), 0, &desc, nullptr);
    EXPECT_EQ(short_net.prepare(), words[0] == 6 ? 1 : 0);
  }
}

TEST(Ops, ActivationsChangeTheirInputAndWhatOthersReadOfIt) {
  for (uint32_t layout : {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_BLOCKED}) {
    Net net;
    Array in = ramp({3, 2, 13});
    for (double& v : in.v) v -= 40;
    const int x = net.input(in, layout);
    const int copy = net.op(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_SCALE_SHIFT, 1, 0}, {x});
    const int relu = net.op(ZYN_OP_RELU, {copy});
    const int relu6 = net.op(ZYN_OP_RELU6, {relu});
    const int late = net.op(ZYN_OP_ADD, {relu6, copy});
    const int own = net.op(ZYN_OP_RELU, {x});
    ASSERT_EQ(net.go(), 0);
    EXPECT_EQ(net.output_tensor(copy), net.output_tensor(relu6));
    EXPECT_EQ(net.output_tensor(x), net.output_tensor(own));
    EXPECT_EQ(net.output_tensor(late)->layout, layout);
    for (size_t i = 0; i < in.v.size(); i++) {
      const double v = std::max(in.v[i], 0.0);
      ASSERT_EQ(net.output(late).v[i], 2 * std::min(v, 6.0));
      ASSERT_EQ(net.output(x).v[i], v);
    }
  }
}

TEST(Ops, ActivationsAtTheirEnds) {
  const double inf = HUGE_VAL;
  const Array in =
      list({-inf, -1e30, -100, -20, -3, -1, -0.0, 0, 1, 3, 7, 19, 21, 88, 1e30, inf, NAN});
  for (int type : {ZYN_OP_RELU, ZYN_OP_RELU6, ZYN_OP_HARD_SWISH, ZYN_OP_MISH, ZYN_OP_SIGMOID}) {
    Net net;
    Array flat = in;
    flat.dims = {17, 1};
    const int id = net.op(type, {net.input(flat)});
    ASSERT_EQ(net.go(), 0);
    const Array got = net.output(id);
    for (size_t i = 0; i < in.v.size(); i++) {
      const double x = static_cast<double>(static_cast<float>(in.v[i]));
      Array one = reference_activation(list({x}), type);
      if (type == ZYN_OP_MISH && x == -inf) one.v[0] = 0;
      if (std::isnan(x)) one.v[0] = NAN;
      if (std::isnan(one.v[0]))
        EXPECT_TRUE(std::isnan(got.v[i])) << type << " of " << x;
      else if (std::isinf(one.v[0]))
        EXPECT_EQ(got.v[i], one.v[0]) << type << " of " << x;
      else
        EXPECT_NEAR(got.v[i], one.v[0], 1e-6 * std::fabs(one.v[0]) + 2e-43) << type << " of " << x;
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
  const Array block = ramp({3, 2, 4}), pixel = ramp({1, 1, 4}), flat = ramp({24});
  const struct {
    int type;
    Array a, b;
    Answers expected;
  } cases[] = {{ZYN_OP_ADD, block, pixel, kFine},
               {ZYN_OP_ADD, block, ramp({5}), kRunRefuses},
               {ZYN_OP_ADD, block, flat, kFine},  // equal counts, different shapes
               {ZYN_OP_ADD, pixel, block, kRunRefuses},
               {ZYN_OP_ADD, pixel, pixel, kFine},
               {ZYN_OP_ADD, ramp({6, 4}), ramp({1}), kRunRefuses},
               {ZYN_OP_MULTIPLY, pixel, block, kFine},
               {ZYN_OP_MULTIPLY, block, flat, kRunRefuses},
               {ZYN_OP_ADD, ramp({1, 1, 4}), ramp({1, 1, 4, 1}), kFine},
               {ZYN_OP_ADD, ramp({1, 1, 4}), ramp({1, 1, 4, 2}), kRunRefuses},
               {ZYN_OP_ADD, ramp({1, 1, 4, 2}), pixel, kRunRefuses},
               {ZYN_OP_MULTIPLY, ramp({3, 2, 4, 1}), ramp({1, 1, 4, 1}), kFine},
               {ZYN_OP_MULTIPLY, pixel, ramp({3, 2, 4, 1}), kFine},
               {ZYN_OP_MULTIPLY, block, ramp({3, 2, 4, 1}), kFine},
               {ZYN_OP_MULTIPLY, ramp({3, 2, 4, 2}), pixel, kRunRefuses},
               {ZYN_OP_MULTIPLY, block, ramp({1, 1, 5}), kRunRefuses},
               {ZYN_OP_MULTIPLY, ramp({1, 1, 5}), block, kRunRefuses}};
  for (const auto& c : cases) {
    Net net;
    const int a = net.input(c.a), b = net.input(c.b);
    net.op(c.type, {a, b});
    EXPECT_EQ(answers(net), c.expected) << c.type << " " << c.a.v.size() << " " << c.b.v.size();
  }
  for (int count : {1, 3}) {
    Net net;
    const int x = net.input(block);
    net.op(ZYN_OP_ADD, std::vector<int>(static_cast<size_t>(count), x));
    EXPECT_EQ(answers(net), kPrepareRefuses);
  }
  Net net;  // a one-pixel a lends its place to b's shape
  const int x = net.input(pixel), y = net.input(block);
  const int id = net.op(ZYN_OP_ADD, {x, y});
  ASSERT_EQ(net.make() + net.prepare(), 0);
  EXPECT_EQ(net.output(id).dims, block.dims);
}

TEST(Ops, NormalisationLeavesEpsilonZeroAlone) {
  const Array in = ramp({2, 1, 1}), stats = list({1, 0, 0, 0}), short_stats = list({1, 0, 0});
  for (int type : {ZYN_OP_BATCH_NORM, ZYN_OP_BATCH_NORM_FAST}) {
    Net net;
    const zyn_bn_param p = {0, 0};
    const int id = net.op(type, p, {net.input(in), net.constant(stats)});
    ASSERT_EQ(net.go(), 0);
    EXPECT_TRUE(std::isnan(net.output(id).v[0]));  // 0 / 0, where 1e-5 would give 0
    EXPECT_EQ(net.output(id).v[1], HUGE_VAL);
    EXPECT_EQ(ask(type, p, in, &short_stats), kPrepareRefuses);
    EXPECT_EQ(ask(type, p, ramp({2, 1, 2}), &stats), kPrepareRefuses);
    EXPECT_EQ(ask(type, p, in), kPrepareRefuses);
    Net three;
    const int x = three.input(in);
    three.op(type, p, {x, x, three.constant(stats)});
    EXPECT_EQ(answers(three), kPrepareRefuses);
  }
}

TEST(Ops, ConcatenationFollowsItsListAndRefusesOthers) {
  const Array a = ramp({5, 5, 3}), b = ramp({5, 5, 2}), narrow = ramp({4, 5, 2});
  const auto ask_concat = [&](int axis, std::vector<int32_t> ids, std::vector<int> from,
                              const Array& second) {
    Net net;
    net.input(a);
    net.input(second);
    const zyn_concat_param p = {axis, static_cast<int32_t>(ids.size()), ids.data()};
    net.op(ZYN_OP_CONCAT, p, from);
    // Both inputs need an edge.
    net.op(ZYN_OP_ADD, {0, 0});
    net.op(ZYN_OP_ADD, {1, 1});
    return answers(net);
  };
  const struct {
    int axis;
    std::vector<int32_t> ids;
    std::vector<int> from;
    Answers expected;
  } cases[] = {{2, {0, 1}, {1, 0}, kFine},           {2, {0, 1, 0}, {0, 0, 1}, kFine},
               {3, {0, 1}, {0, 1}, kPrepareRefuses}, {-1, {0, 1}, {0, 1}, kPrepareRefuses},
               {2, {0}, {0, 1}, kPrepareRefuses},    {2, {0, 0}, {0, 1}, kPrepareRefuses},
               {2, {0, 1}, {0, 0}, kPrepareRefuses}, {0, {0, 1}, {0, 1}, kRunRefuses}};
  for (const auto& c : cases)
    EXPECT_EQ(ask_concat(c.axis, c.ids, c.from, b), c.expected)
        << c.axis << ::testing::PrintToString(c.ids);
  EXPECT_EQ(ask_concat(2, {0, 1}, {0, 1}, narrow), kRunRefuses);
  Net constant;
  const int32_t id = 0;
  constant.constant(a);
  constant.op(ZYN_OP_CONCAT, zyn_concat_param{2, 1, &id}, {0});
  EXPECT_EQ(answers(constant), kPrepareFails);
  EXPECT_EQ(ask(ZYN_OP_CONCAT, zyn_concat_param{2, 1, nullptr}, a), kBindRefuses);
  EXPECT_EQ(ask(ZYN_OP_CONCAT, zyn_concat_param{2, 0, &id}, a), kBindRefuses);
}

TEST(Ops, ChannelsOutsideTheInputAreRefused) {
  const Array in = ramp({1, 1, 8});
  Net net;
  const int id = net.op(ZYN_OP_CHANNEL_SLICE, zyn_slice_param{9, 2, 1, 2, 9}, {net.input(in)});
  ASSERT_EQ(net.go(), 0);
  EXPECT_EQ(net.output(id).v, (std::vector<double>{1, 3, 5, 7}));
  const struct {
    zyn_slice_param p;
    Answers expected;
  } cases[] = {{{0, 0, 0, 1, 0}, kPrepareRefuses},
               {{0, 9, 0, 1, 0}, kPrepareRefuses},
               {{0, 2, 2, 2, 0}, kPrepareRefuses},
               {{0, 2, -1, 1, 0}, kPrepareRefuses},
               {{0, 1, 7, -1, 0}, kFine},
               {{0, 8, 7, 1000, 0}, kFine},
               {{0, 1, 0, 1 << 30, 0}, kPrepareRefuses}};
  for (const auto& c : cases) EXPECT_EQ(ask(ZYN_OP_CHANNEL_SLICE, c.p, in), c.expected);
  for (int32_t channel : {-1, 8}) {
    const int32_t channels[2] = {0, channel};
    EXPECT_EQ(ask(ZYN_OP_CHANNEL_GATHER, zyn_gather_param{2, channels}, in), kPrepareRefuses);
  }
  EXPECT_EQ(ask(ZYN_OP_CHANNEL_GATHER, zyn_gather_param{1, nullptr}, in), kBindRefuses);
}

TEST(Ops, RecordsOutOfRangeAreRefused) {
  const Array in = ramp({4, 4, 6}), weights = ramp({2000});
  EXPECT_EQ(ask(ZYN_OP_FUNCTION, zyn_func_param{11, 0, 0}, in), kPrepareRefuses);
  EXPECT_EQ(ask(ZYN_OP_FUNCTION, zyn_func_param{-1, 0, 0}, in), kPrepareRefuses);
  EXPECT_EQ(ask(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_POWER, INFINITY, 0}, in), kPrepareRefuses);
  EXPECT_EQ(ask(ZYN_OP_RESAMPLE, zyn_resample_param{3, 1, 1}, in), kPrepareRefuses);
  for (float factor : {0.0f, -1.0f, 0.1f, 1e30f, NAN})
    EXPECT_EQ(ask(ZYN_OP_RESAMPLE, zyn_resample_param{0, factor, 1}, in), kPrepareFails) << factor;
  const Array five = ramp({5});
  EXPECT_EQ(ask(ZYN_OP_AFFINE, zyn_affine_param{1, 1}, in, &five), kPrepareRefuses);
  const zyn_conv_param good = {6, 6, 3, 3, 1, 1, 1, 1, {0, 0}, 1, 1, 2, 0, {0}, 0};
  for (int type : {ZYN_OP_CONV_GROUPED, ZYN_OP_CONV_TRANSPOSED}) {
    const struct {
      int32_t zyn_conv_param::*field;
      int32_t value;
    } bad[] = {{&zyn_conv_param::groups, 4},
               {&zyn_conv_param::groups, 0},
               {&zyn_conv_param::in_channels, 8},
               {&zyn_conv_param::stride_h, 0},
               {&zyn_conv_param::kernel_w, 0},
               {&zyn_conv_param::pad_h, -1},
               {&zyn_conv_param::dilation_w, 0},
               {&zyn_conv_param::out_channels, 2000},
               {&zyn_conv_param::out_channels, INT32_MAX - 1}};
    for (const auto& b : bad) {
      zyn_conv_param p = good;
      p.*b.field = b.value;
      EXPECT_EQ(ask(type, p, in, &weights), kPrepareRefuses) << b.value;
    }
    const Array exact = ramp({6 * 3 * 9}), one_less = ramp({6 * 3 * 9 - 1});
    EXPECT_EQ(ask(type, good, in, &exact), kFine);
    EXPECT_EQ(ask(type, good, in, &one_less), kPrepareRefuses);
    zyn_conv_param biased = good;
    biased.bias = 1;
    EXPECT_EQ(ask(type, biased, in, &exact), kPrepareRefuses);
  }
  zyn_conv_param wide = good;
  wide.dilation_h = 9;
  EXPECT_EQ(ask(ZYN_OP_CONV_GROUPED, wide, in, &weights), kPrepareFails);
  wide = good;
  wide.pad_h = 9;
  EXPECT_EQ(ask(ZYN_OP_CONV_TRANSPOSED, wide, in, &weights), kPrepareFails);
}

// Types with a record; the others accept none.
bool needs_record(int type) {
  return type < ZYN_OP_SIGMOID || (type >= ZYN_OP_MAX_POOL && type != ZYN_OP_MISH &&
                                   type != ZYN_OP_ADD && type != ZYN_OP_MULTIPLY);
}

TEST(Ops, MissingRecordsInputsAndOtherElementTypes) {
  for (int type : kOperatorTypes) {
    SCOPED_TRACE(type);
    Net bare;
    bare.op(type, {bare.input(ramp({2, 2, 2}))});
    EXPECT_EQ(bare.make(), needs_record(type) ? 1 : 0);

    // A constant where an input belongs, and an input of another element type.
    Model model(11);
    while (model.add(type) < 0) {
    }
    model.use_leftovers();
    ASSERT_EQ(model.net.make(), 0);
    for (int id = 0; id < model.size(); id++)
      if (model.net.is_input(id)) model.net.output_tensor(id)->type = ZYN_TYPE_FPI16;
    // The operators that move data take any type.
    EXPECT_EQ(type >= ZYN_OP_RESHAPE || model.net.prepare() == 1, true);
  }
}

TEST(Ops, FixedPointGraphsKeepTheirQRulesAndRefuseTheRest) {
  const std::set<int> refused = {
      ZYN_OP_CONV_GROUPED, ZYN_OP_CONV_TRANSPOSED, ZYN_OP_FUNCTION, ZYN_OP_BATCH_NORM_FAST,
      ZYN_OP_MISH,         ZYN_OP_RESAMPLE,        ZYN_OP_AFFINE};
  const std::set<int> takes_input_q = {ZYN_OP_RELU,          ZYN_OP_RELU6,  ZYN_OP_MAX_POOL,
                                       ZYN_OP_RESHAPE,       ZYN_OP_CONCAT, ZYN_OP_CHANNEL_SLICE,
                                       ZYN_OP_CHANNEL_GATHER};
  for (int type : kOperatorTypes) {
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
    for (uint32_t none : {16u, 40u, 0x80000000u, 0xFFFFFFFFu}) {
      if (type == ZYN_OP_AVERAGE_POOL) break;
      q[0] = none;
      EXPECT_EQ(model.net.prepare(), code == 4 ? 4 : 1) << none;
      EXPECT_EQ(model.net.run(), 1) << none;
      EXPECT_EQ(model.net.output_tensor(node), nullptr) << none;
    }
    q[0] = 7;
    zyn_tensor* input = model.net.output_tensor(0);
    input->type = ZYN_TYPE_F32;
    EXPECT_EQ(model.net.prepare(), 1) << "floats";
    input->type = ZYN_TYPE_FPI16;
  }
}

TEST(Ops, AveragePoolingJudgesItsQAtTheRun) {
  const struct {
    uint32_t q_in, q_out;
    int32_t code;
    double mean;  // of four times 30001
  } cases[] = {{16, 8, 0, 117},
               {40, 8, 0, 0},
               {8, 16, 1, 0},
               {0x80000000u, 8, 1, 0},
               {3, 0xFFFFFFFEu, 0, 938},
               {0x7FFFFFFFu, 0x80000000u, 0, 0},
               {0, 15, 0, -32768}};
  for (const auto& c : cases) {
    Net net(1);
    const int x = net.input(Array({2, 2, 1}, 30001));
    const int id = net.op(ZYN_OP_AVERAGE_POOL, zyn_pool_param{2, 2, 2, 2, 0}, {x});
    ASSERT_EQ(net.make(), 0);
    net.q_list(c.q_in, {{id, c.q_out}});
    EXPECT_EQ(net.prepare(), 0) << c.q_in;
    EXPECT_EQ(net.run(), c.code) << c.q_in;
    if (!c.code) {
      EXPECT_EQ(net.output(id).v[0], c.mean) << c.q_in;
    }
  }
}

// Until the run writes planar order the output says what its input lies in.
TEST(Ops, OutputsTakeOverTheirInputsLayoutAtPreparation) {
  const int32_t zero = 0;
  for (int type : {ZYN_OP_RESHAPE, ZYN_OP_CONCAT, ZYN_OP_LINEAR}) {
    Net net;
    const int x = net.input(ramp({8, 2}), ZYN_LAYOUT_BLOCKED);
    const int id = type == ZYN_OP_RESHAPE ? net.op(type, zyn_reshape_param{1, {16}}, {x})
                   : type == ZYN_OP_CONCAT
                       ? net.op(type, zyn_concat_param{0, 1, &zero}, {x})
                       : net.op(type, zyn_linear_param{8, 1, 0}, {x, net.constant(ramp({8}))});
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
  const struct {
    double value;
    int32_t code;
    uint32_t q;
  } cases[] = {{1, 0, 14}, {-1, 0, 15}, {70000, 1, 0}, {0, 0, 15}, {-32768, 0, 0}, {32767.5, 1, 0}};
  for (const auto& c : cases) {
    Net net;
    zyn_tensor* t = net.output_tensor(net.input(list({0, c.value, 0})));
    uint32_t q = 0;
    EXPECT_EQ(zyn_cg_fpi_choose_fraction_bits(&q, t, 0, 3), c.code) << c.value;
    EXPECT_EQ(q, c.q) << c.value;
    EXPECT_EQ(zyn_cg_fpi_choose_fraction_bits(&q, t, -1, 3), 1);
  }
  Net net;
  const zyn_tensor* in = net.output_tensor(net.input(list({0.5, 1.5, 2.5, 40000, -1.25, 1e30})));
  const int32_t dims[1] = {6};
  zyn_tensor* out = zyn_create_tensor(1, dims, ZYN_TYPE_FPI16);
  memset(out->data, 0, 12);
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 0, 5, 0), 0);
  const int16_t expected[5] = {0, 2, 2, static_cast<int16_t>(40000 - 65536), -1};
  EXPECT_EQ(memcmp(out->data, expected, sizeof(expected)), 0);
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 1, 2, 1), 0);
  EXPECT_EQ(static_cast<int16_t*>(out->data)[2], 5);
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 0, 5, 16), 1);
  EXPECT_EQ(zyn_cg_fpi_quantize_range(out, in, 0, 7, 1), 1);
  zyn_release_tensor(&out);
}

TEST(Ops, PowersAreRightToTheLastPlace) {
  const float values[] = {0.0f,    -0.0f,   1.0f,  -1.0f,    2.0f,      0.5f,       1e-40f, -1e-40f,
                          3.4e38f, 1e-38f,  -2.0f, -3.5f,    0.9999f,   1.00001f,   7.25f,  1e10f,
                          -1e10f,  123.45f, NAN,   INFINITY, -INFINITY, 1.4142135f, 1e-20f, 0.3f};
  for (float y : {0.0f, 1.0f, -1.0f, 2.0f, 3.0f, -3.0f, 0.5f, -0.5f, 1.0f / 3, 2.2f, 17.0f, 80.5f,
                  -40.0f, 1e-3f, 1000.0f, 16777216.0f})
    for (size_t i = 0; i < std::size(values); i += 8) {
      float got[8];
      _mm256_storeu_ps(got, zyn_power8(_mm256_loadu_ps(values + i), y));
      for (size_t k = 0; k < 8; k++) {
        const float exact = static_cast<float>(
            std::pow(static_cast<double>(values[i + k]), static_cast<double>(y)));
        if (std::isnan(exact))
          EXPECT_TRUE(std::isnan(got[k])) << values[i + k] << "^" << y;
        else if (exact == 0 || std::isinf(exact))
          EXPECT_TRUE(got[k] == exact && std::signbit(got[k]) == std::signbit(exact))
              << values[i + k] << "^" << y << " = " << got[k];
        else
          EXPECT_TRUE(got[k] == exact || std::nextafter(got[k], exact) == exact)
              << values[i + k] << "^" << y << " = " << got[k] << ", not " << exact;
      }
    }
}

TEST(Ops, PreparingAgainKeepsOutputsOrFollowsNewShapes) {
  Net net;
  const int x = net.input(ramp({4, 4, 2}));
  const int id = net.op(ZYN_OP_MAX_POOL, zyn_pool_param{2, 2, 2, 2, 0}, {x});
  const int later = net.op(ZYN_OP_RELU, {id});
  ASSERT_EQ(net.go(), 0);
  const zyn_tensor* first = net.output_tensor(id);
  ASSERT_EQ(net.prepare(), 0);
  EXPECT_EQ(net.output_tensor(id), first);
  zyn_tensor* input = net.output_tensor(x);
  void* data = input->data;
  const int32_t dims[3] = {2, 8, 2};
  ASSERT_EQ(zyn_set_tensor_header(input, 3, dims, ZYN_TYPE_F32), 0);
  EXPECT_EQ(net.run(), 1) << "no data";
  ASSERT_EQ(zyn_set_tensor_data(input, data, 128), 0);
  ASSERT_EQ(net.prepare() + net.run(), 0);
  EXPECT_EQ(net.output(later).dims, (std::vector<int>{1, 4, 2}));
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
      ASSERT_NE(out, nullptr);
      EXPECT_EQ(out->data, nullptr);
      EXPECT_EQ(model.net.run(), type == ZYN_OP_MISH && device != 2 ? 1 : 0) << type;
      if (type == ZYN_OP_CONCAT && device == 2) {
        EXPECT_EQ(out->dims[0] * out->dims[1], 1);
        EXPECT_EQ(out->dims[2], out->count);
      }
    }
}

}  // namespace

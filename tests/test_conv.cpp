// Convolution operators (types 3, 4, 5, 12, 13) within graphs, through the exported
// functions, under every method and in fixed point: results, activation codes, shapes,
// refusals, and what preparation keeps.
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "support/conv_case.h"
#include "support/ledger.h"

namespace {

using namespace zyn_test;

// A layer of the same kernel, stride and padding along both axes; groups 0: depthwise.
struct Square {
  int w, h, in, out, kernel, stride = 1, pad = 1, groups = 1;
  operator zyn_conv_param() const {
    return conv_param(in, groups ? out : in, kernel, stride, pad, groups ? groups : in);
  }
};

// A shape for every kernel.
constexpr Square kKinds[] = {
    {19, 7, 9, 9, 1, 1, 0},   {1, 1, 13, 9, 1, 1, 0},  {9, 9, 9, 9, 3},
    {9, 4, 9, 5, 3},          {30, 5, 3, 6, 5, 2, 2},  {9, 5, 3, 5, 2, 1, 0},
    {2, 2, 3, 7, 2, 1, 0},    {9, 9, 6, 7, 3, 2},      {19, 7, 6, 6, 3, 1, 1, 0},
    {9, 5, 8, 8, 3, 1, 1, 0}, {9, 9, 9, 9, 5, 2, 2, 0}};

class ConvMethod : public ::testing::TestWithParam<uint32_t> {
 protected:
  // A layer with the rest of its record at random.
  void check(const zyn_conv_param& p, int w, int h) {
    if (HasFailure()) return;
    static constexpr uint32_t kLayouts[] = {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_INTERLEAVED,
                                            ZYN_LAYOUT_BLOCKED};
    Layer layer(p, w, h);
    // A pointwise kernel under type 3 keeps the routine of the larger kernels.
    const int kind = random_.integer(0, 5);
    if (kind < 2) layer.type(ZYN_OP_CONV_ACT).activation(random_.integer(-1, 4));
    if (kind == 2 && layer.is(ZYN_OP_CONV_POINTWISE)) layer.type(ZYN_OP_CONV);
    layer.bias(random_.integer(0, 2)).layout(kLayouts[random_.integer(0, 2)]);
    layer.q(random_.integer(0, 31), random_.integer(0, 1) ? 8 : random_.integer(-20, 34));
    layer.method(GetParam()).seed(random_.next());
    // Method 1 looks at padding, and at the stride of one pixel, only through the size of
    // the output: small images may pass.
    if (layer.codes().second == 0 || (w > 8 && h > 8)) layer.check();
  }
  void check(const Square& s) { check(s, s.w, s.h); }

  Random random_{GetParam() + 1};
};
INSTANTIATE_TEST_SUITE_P(Conv, ConvMethod, ::testing::Values(0, 1, 2, kFixed),
                         [](const auto& info) { return "Method" + std::to_string(info.param); });

// Steps of 4, 8, 16 and 32 pixels, rings of rows, pairs of rows.
TEST_P(ConvMethod, EverySideAndStride) {
  for (int w : {1, 2, 3, 4, 5, 7, 8, 9, 10, 13, 15, 16, 17, 18, 19, 20, 21, 23, 24, 25, 31, 33, 34})
    for (int h : {1, 2, 3, 4, 5, 6, 7, 8, 9, 13, 40})
      for (int kernel : {1, 3, 5})
        for (int stride : {1, 2})
          for (int groups : {0, 1}) {
            const int in = random_.integer(1, 13), out = random_.integer(1, 13);
            check({w, h, in, out, kernel, stride, kernel / 2, groups});
          }
}

// Blocks of 1, 4, 6 and 8 channels.
TEST_P(ConvMethod, EveryPairOfChannelCounts) {
  constexpr int kSides[] = {1, 2, 3, 5, 9, 17};
  for (int in : {1, 2, 3, 4, 5, 7, 8, 9, 11, 12, 13, 16, 17, 21, 29, 40})
    for (int out : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 12, 13, 16, 18, 20, 24, 29, 36, 40})
      for (int kernel : {1, 3}) {
        const int stride = kernel / 2 ? random_.integer(1, 2) : 1;
        check({kSides[random_.integer(0, 5)], kSides[random_.integer(0, 5)], in, out, kernel,
               stride, kernel / 2});
      }
}

TEST_P(ConvMethod, PointwiseOverEveryPixelAndChannelRemainder) {
  for (int pixels = 1; pixels <= 98; pixels += pixels < 50 ? 1 : 3)
    for (int out : {1, 2, 3, 4, 5, 6, 8, 9, 10, 12, 16, 18, 20, 70})
      check({pixels, 1, random_.integer(1, 15), out, 1, 1, 0});
}

// Where strips, bands, parts and blocks of 512 terms meet, panels are copied; any padding.
TEST_P(ConvMethod, LabelledShapes) {
  constexpr int k27 = 1 << 27, k30 = 1 << 30;
  constexpr Square kShapes[] = {
      {41, 53, 40, 29, 1, 1, 0},   {11, 11, 700, 21, 1, 1, 0},   {5, 7, 64, 13, 1, 1, 0},
      {5, 7, 511, 13, 1, 1, 0},    {5, 7, 513, 13, 1, 1, 0},     {5, 7, 1100, 13, 1, 1, 0},
      {32, 32, 61, 4, 1, 1, 0},    {32, 32, 61, 6, 1, 1, 0},     {32, 32, 61, 9, 1, 1, 0},
      {9, 113, 40, 7, 1, 1, 0},    {33, 140, 37, 21, 3, 1, 1},   {33, 140, 37, 21, 3, 2, 1},
      {60, 40, 30, 5, 3, 1, 1},    {9, 70, 64, 6, 3, 1, 1},      {150, 33, 3, 16, 3, 2, 1},
      {21, 60, 40, 4, 5, 2, 2},    {90, 71, 9, 5, 4, 1, 3},      {3, 2, 1, 3, 200, 3, 200},
      {3, 2, 2, 2, 3, k27, k27},   {3, 2, 2, 2, 3, k27, k27, 0}, {6, 6, 2, 2, 3, k30, 1},
      {6, 6, 2, 2, 3, k30, 1, 0},  {420, 310, 5, 5, 3, 1, 1, 0}, {420, 310, 5, 5, 3, 2, 1, 0},
      {6, 300, 7, 7, 3, 1, 1, 0},  {6, 300, 8, 8, 3, 1, 1, 0},   {6, 300, 17, 17, 3, 1, 1, 0},
      {32, 4, 2, 65, 3, 1, 1},     {33, 4, 2, 130, 3, 2, 1},     {150, 61, 2, 2, 3, 1, 3, 0},
      {34, 20, 3, 8, 3, 2, 1},     {6, 3, 2, 2, 3, 1, 40},       {6, 3, 2, 2, 3, 1, 40, 0},
      {300, 61, 2, 2, 3, 2, 2, 0}, {22, 8, 3, 2, 6, 1, 0},       {18, 9, 4, 4, 3, 5, 7},
      {18, 9, 4, 4, 3, 5, 7, 0},   {7, 7, 4, 4, 3, 1, 1, 2},     {41, 41, 460, 2, 41, 1, 0},
      {45, 13, 64, 1, 3, 1, 1},    {24, 24, 70, 7, 3, 1, 1},     {100, 9, 61, 3, 1, 1, 0},
      {99, 600, 9, 9, 3, 1, 1, 0}, {99, 600, 9, 9, 3, 2, 1, 0},  {7, 6, 303, 7, 3, 1, 1},
      {9, 8, 133, 6, 3, 2, 1},     {8, 5, 2, 11, 3, 1, 1}};
  for (const Square& shape : kShapes) check(shape);
}

TEST_P(ConvMethod, AnyRecordIsComputedOrRefusedWithItsCode) {
  for (int i = 0; i < 1000;) {
    const int c = random_.integer(1, 9);
    const bool depthwise = random_.integer(0, 2) == 0;
    // The record as the kernels of one shape want it, but for one member or for all.
    const int k = 1 + 2 * random_.integer(0, 2), except = random_.integer(0, 11);
    zyn_conv_param p = conv_param(c, depthwise ? c : random_.integer(1, 9), k,
                                  random_.integer(1, 2), k / 2, depthwise ? c : 1);
    int32_t* members[] = {&p.kernel_h, &p.kernel_w, &p.stride_h,   &p.stride_w,
                          &p.pad_h,    &p.pad_w,    &p.dilation_h, &p.dilation_w};
    constexpr int kLow[] = {1, 1, 0, 1}, kHigh[] = {6, 4, 4, 3};
    for (int m = 0; m < 8; m++)
      if (except > 7 || except == m) *members[m] = random_.integer(kLow[m / 2], kHigh[m / 2]);
    const int w = random_.integer(1, 40), h = random_.integer(1, 14);
    if ((p.kernel_h - 1) * p.dilation_h >= w + 2 * p.pad_h) continue;
    if ((p.kernel_w - 1) * p.dilation_w >= h + 2 * p.pad_w) continue;
    check(p, w, h);
    i++;
  }
}

TEST_P(ConvMethod, ActivationCodesOfTheFusedTypesFollowTheirTable) {
  for (int type : {ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN})
    for (int code : {-1, 0, 1, 2, 3, 4, 5, 7})
      for (int bias : {0, 1, 2})
        for (const Square& s : kKinds) {
          Layer layer(s, s.w, s.h);
          layer.type(type).activation(code).bias(bias).method(GetParam()).seed(code + 7);
          if (layer.codes() == std::make_pair(0, 0)) layer.check();
        }
}

// q of any size as long as the shift fits: 16 and more bits between bias and output leave
// nothing of the bias, and 6 and 1/6 follow the output's q.
TEST(Conv, FixedPointUnderAnyFractionBits) {
  for (int type : {ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN})
    for (int code = 0; code <= 5; code++)
      for (int q_out : {-60, -20, -16, -4, -3, -2, -1, 0,  1,  2,  3,  8,  12,
                        13,  14,  15,  16, 17, 20, 30, 31, 32, 33, 40, 58, 59})
        for (int shift : {type == ZYN_OP_CONV_BN ? 4 : 0, 9, 16, 31})
          for (const Square& s : {Square{7, 5, 2, 3, 3},
                                  {7, 5, 3, 3, 3, 1, 1, 0},
                                  {37, 1, 2, 3, 1, 1, 0},
                                  {18, 3, 2, 3, 3}}) {
            Layer layer(s, s.w, s.h);
            layer.type(type).activation(code).bias(1).method(kFixed).q(shift, q_out).check();
          }
}

// (x * w + r) >> d in 16-bit lanes: every x with a sample of w for every d.
TEST(Conv, FixedPointProductsAreExact) {
  Array every({256, 256, 1});
  for (int i = 0; i < 65536; i++) every.v[static_cast<size_t>(i)] = low16(i);
  for (int d = 0; d <= 31; d++)
    Layer(conv_param(1, 16, 1, 1, 0), 256, 256).method(kFixed).input(every).q(d, 0).seed(d).check();
}

TEST(Conv, FixedPointSumsWrapAndChannelsRoundByThemselves) {
  const struct {
    std::vector<double> x, w;
    double expected;
  } cases[] = {
      {{256, 0}, {256, 0}, 256},
      {{1, 1}, {128, 128}, 2},           // one sum of both would give 1
      {{32767, 1}, {256, 256}, -32768},  // the sum wraps
      {{-32768, 0}, {-32768, 0}, 0},     // narrowing wraps: 2^22 has no low bits
  };
  for (const auto& c : cases) {
    Net net(1);
    Array x({1, 1, 2}), w({2});
    x.v = c.x, w.v = {c.w[0] / 32768, c.w[1] / 32768};
    const int node = net.op(5, conv_param(2, 1, 1, 1, 0), {net.input(x), net.constant(w)});
    ASSERT_EQ(net.make(), 0);
    net.q_list(8, {{0, 1}});
    ASSERT_EQ(net.prepare() + net.run(), 0);
    EXPECT_EQ(net.output(node).v[0], c.expected);
  }
}

// On purpose: code 3 is outside the table, so that not even the folded bias is added.
TEST_P(ConvMethod, ActivationCode3OfType13WritesTheRawConvolution) {
  if (GetParam() == kFixed) return;
  Layer layer, biased;
  layer.type(ZYN_OP_CONV_BN).activation(3).bias(1).method(GetParam()).check();
  biased.type(ZYN_OP_CONV_BN).activation(0).bias(1).method(GetParam()).check();
  layer.net().run(), biased.net().run();
  EXPECT_NE(layer.net().output(2).v, biased.net().output(2).v);
}

// On purpose: pad_h counts for both axes and dilation for none.
TEST_P(ConvMethod, FoldedShapeUsesPadHTwiceAndLeavesOutDilation) {
  if (GetParam() % 3) return;  // the other methods have no kernel
  zyn_conv_param p = conv_param(2, 3, 3, 1, 1);
  p.kernel_w = 5, p.pad_w = 3, p.stride_w = 2, p.dilation_h = 2;
  Layer layer(p, 8, 11);
  layer.type(ZYN_OP_CONV_BN).method(GetParam()).check();
  EXPECT_EQ(layer.net().output(2).w(), 8);
  EXPECT_EQ(layer.net().output(2).h(), 5);
  p = conv_param(2, 3, 3, 1, 1);
  p.dilation_h = p.dilation_w = 4;  // the last windows lie far beyond the input
  Layer(p, 6, 6).type(ZYN_OP_CONV_BN).method(GetParam()).check();
}

TEST_P(ConvMethod, FoldedEpsilonOfZeroMeansOneHundredThousandth) {
  if (GetParam() == kFixed) return;
  Layer().type(ZYN_OP_CONV_BN).epsilon(0).bias(1).method(GetParam()).check();
}

// Those of the folded type must have exactly their elements.
TEST_P(ConvMethod, ConstantsShorterThanTheRecordAreRefusedAndLongerOnesTaken) {
  for (int type : {3, 5, 12, 13})
    for (int bias : {0, 1})
      for (int extra : {-5, -1, 0, 1, 5}) {
        const int kernel = type == ZYN_OP_CONV_POINTWISE ? 1 : 3;
        const int code = extra < 0 || (type == 13 && extra > 0) ? 1 : 0;
        Layer layer(conv_param(4, 6, kernel, 1, kernel / 2));
        layer.type(type).bias(bias).extra(extra).method(GetParam()).answers(code, code);
      }
}

TEST_P(ConvMethod, RecordsWithoutMeaningAreRefusedAtPreparation) {
  using P = zyn_conv_param;
  const struct {
    int32_t P::*member;
    int value, code;
  } cases[] = {{&P::stride_h, 0, 1},
               {&P::stride_w, -1, 1},
               {&P::kernel_h, 0, 1},
               {&P::kernel_w, -3, 1},
               {&P::dilation_h, 0, 1},
               {&P::dilation_w, 0, 1},
               {&P::pad_h, -1, 1},
               {&P::pad_w, INT32_MIN, 1},
               {&P::kernel_h, 1 << 30, 1},
               {&P::in_channels, INT32_MAX, 1},
               {&P::in_channels, -3, 1},
               {&P::out_channels, 0, 1},
               {&P::pad_h, INT32_MAX, 2},
               {&P::dilation_h, 6, 2},
               {&P::dilation_w, INT32_MAX, 2}};
  for (const auto& c : cases) {
    zyn_conv_param record = conv_param(3, 5, 3, 1, 1);
    record.*c.member = c.value;
    Net net(GetParam() == kFixed);
    net.method(GetParam() % 3);
    net.op(ZYN_OP_CONV, record, {net.input(Array({9, 7, 3})), net.constant(Array({5 * 3 * 9}))});
    ASSERT_EQ(net.make(), 0);
    if (GetParam() == kFixed) net.q_list(8);
    EXPECT_EQ(net.prepare(), c.code) << c.value;
    EXPECT_EQ(net.run(), 1) << c.value;
  }
}

TEST_P(ConvMethod, OutputsBelowOnePixelFailInTheTensorAndOtherChannelCountsAtTheRun) {
  for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN}) {
    Layer(conv_param(2, 2, 5, 1, 0), 9, 3).type(type).method(GetParam()).answers(2, 1);
    Layer().type(type).channels(4).method(GetParam()).answers(0, 1);
  }
}

TEST_P(ConvMethod, GroupsWithoutAKernelAddNothingButTheBias) {
  if (GetParam() == 2) return;  // no plan
  const zyn_conv_param p = conv_param(4, 6, 3, 1, 1, 2);
  Layer(p).bias(1).method(GetParam()).check();
  Layer(p).type(ZYN_OP_CONV_ACT).bias(1).activation(1).method(GetParam()).check();
}

TEST(Conv, MissingPiecesAreRefused) {
  const zyn_conv_param p = conv_param(2, 2, 1, 1, 0);
  for (int type : {3, 4, 5, 12, 13}) {
    Net lone, no_input, none, batch;
    lone.op(type, p, {lone.input(Array({3, 3, 2}))});
    no_input.op(type, p, {no_input.constant(Array({40}))});
    none.op(type, {none.input(Array({3, 3, 2}))});
    batch.op(type, p, {batch.input(Array({3, 3, 2, 2})), batch.constant(Array({12}))});
    EXPECT_EQ(none.make(), 1) << type;  // no record
    for (Net* net : {&lone, &no_input, &batch}) {
      EXPECT_EQ(net->go(), 1) << type;
      EXPECT_EQ(net->run(), 1) << type;
    }
  }
}

// Weights are read by preparation (method 0: at the run), biases at every run.
TEST_P(ConvMethod, PreparingTwiceReadsTheConstantAgainAndKeepsMemory) {
  if (GetParam() == kFixed) return;
  for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN}) {
    Layer layer;
    layer.type(type).bias(1).method(GetParam());
    const auto run = [&](bool prepare) {
      layer.net().fill(1, layer.constant());
      ASSERT_EQ((prepare ? layer.net().prepare() : 0) + layer.net().run(), 0);
    };
    ASSERT_EQ(layer.make(), 0);
    run(true);
    const Array first = layer.net().output(2);
    const uint64_t before = zyn_get_current_memory_size_occupation();
    for (size_t i = 0; i < 3 * 5 * 9; i++) layer.constant().v[i] = 1 - layer.constant().v[i];
    run(false);
    EXPECT_EQ(layer.net().output(2).v == first.v, GetParam() != 0 || type == ZYN_OP_CONV_BN);
    run(true);
    layer.compare();
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
    for (size_t i = 3 * 5 * 9; i < 3 * 5 * 9 + 5; i++) layer.constant().v[i] += 2;
    run(type == ZYN_OP_CONV_BN);
    layer.compare();
  }
}

TEST_P(ConvMethod, APreparationThatFailsLeavesANodeThatRefusesToRun) {
  for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN}) {
    Layer layer;
    layer.type(type).method(GetParam());
    ASSERT_EQ(layer.make(), 0);
    ASSERT_EQ(layer.net().prepare() + layer.net().run(), 0);
    zyn_tensor* constant = layer.net().output_tensor(1);
    constant->count -= 100;
    const bool own = type == ZYN_OP_CONV_BN || GetParam() == kFixed;
    EXPECT_EQ(layer.net().run(), own ? 0 : 1);
    EXPECT_EQ(layer.net().prepare(), 1);
    EXPECT_EQ(layer.net().run(), 1);
    constant->count += 100;
    EXPECT_EQ(layer.net().prepare() + layer.net().run(), 0);
    layer.compare();
  }
}

// A plan without room for its weights is handed out; the run refuses it. Nothing but a
// complete output is written, or zeros by 3 x 3 kernels of method 1 and in fixed point.
TEST_P(ConvMethod, FailingAllocationsAnswerTwoAndTheNextAttemptWorks) {
  for (const Square& s : kKinds)
    until_it_succeeds([&](int n, bool lasting) {
      Layer layer(s, s.w, s.h);
      layer.bias(1).layout(ZYN_LAYOUT_BLOCKED).method(GetParam());
      if (layer.codes() != std::make_pair(0, 0)) return 0;
      EXPECT_EQ(layer.make(), 0);
      Ledger::fail(n, lasting);
      const int32_t prepared = layer.net().prepare();
      const bool unpacked = GetParam() == 2 && Ledger::seen() >= n;
      auto* first = prepared ? nullptr : static_cast<int16_t*>(layer.net().output_tensor(2)->data);
      if (first) *first = 77;
      const int32_t code = prepared ? prepared : layer.net().run();
      const int seen = Ledger::seen();
      Ledger::fail(0, false);
      // Without a later failure the plan's refusal is met, else maybe a failure before it.
      const bool refused = unpacked && !prepared && (!lasting || code == 1);
      EXPECT_EQ(code, seen < n ? 0 : refused ? 1 : 2) << layer.text() << n;
      if (prepared) {
        EXPECT_EQ(layer.net().run(), 1);
      } else if (code) {
        EXPECT_TRUE(*first == 77 || (*first == 0 && (GetParam() == 1 || GetParam() == 3)))
            << *first << layer.text();
      }
      EXPECT_EQ(layer.net().prepare() + layer.net().run(), 0);
      layer.compare();
      return seen;
    });
}

// Largest request of the library, in bytes.
size_t most_requested = 0;
void* counted(size_t bytes) {
  most_requested = std::max(most_requested, bytes);
  return malloc(bytes);
}

// Strides, pads and dilations far beyond the shapes: results as of small ones, and no request
// above a small multiple of input and output. The last ones take several strips of output
// columns, whose zeros lie in different places.
TEST(Conv, ScratchFollowsTheShapesNotStridesPadsOrDilations) {
  constexpr int k27 = 1 << 27, k28 = 2 * k27, k29 = 2 * k28, k30 = 2 * k29, kDeep = 600000;
  constexpr int kFar = 300000000, kPad = 1000000000, kStep = 2 * kPad - 2, kEven = k28 - 2;
  const struct {
    int type;
    uint32_t method;
    int w, h, kx, ky, sx, sy, px, py, dx, dy;
  } cases[] = {{7, 0, 1, 1, 1, 1, kFar, 1, 0, 0, 1, 1},
               {7, 0, 5, 3, 2, 1, kFar, 2, 0, 0, 4, 1},
               {7, 0, 3, 2, 3, 3, 1, 1, k27, 1, k27, 1},
               {7, 0, 9, 2, 3, 3, k27, 1, k27, 1, 3, 1},
               {8, 0, 1, 1, 3, 1, 1, 1, k27, 0, k27, 1},
               {8, 0, 4, 3, 3, 3, 2, 2, k27 + 1, 1, k27, 1},
               {8, 0, 4, 3, 3, 3, 3, 2, k27, 1, k27, 1},
               {3, 3, 1, 1, 3, 3, 1, kEven, 1, k27, 1, 1},
               {3, 3, 2, 1, 3, 3, 1, kStep, 1, kPad, 1, 1},
               {4, 3, 2, 1, 3, 3, 1, kEven, 1, k27, 1, 1},
               {3, 3, 2, 2, 3, 3, kEven, 1, k27, 1, 1, 1},
               {3, 3, 1, 1, 31, 2, 32, 32, 900, 1900, 1, 30},
               {4, 3, 1, 1, 3, 3, 1, 1, k27, 1, k27, 1},
               {3, 3, 40, 9, 3, 3, 1, 1, 30, 1, 33, 1},
               {4, 3, 40, 9, 3, 3, 1, 1, 30, 1, 33, 1},
               {3, 0, 5, 4, 2, 2, 1, 1, k28, k28, k29, k29},
               {3, 0, 6, 6, 3, 3, k30, k30, 1, 1, 1, 1},
               {4, 0, 3, 2, 3, 3, k27, k27, k27, k27, 1, 1},
               {3, 0, 9000, 3, 250, 1, 251, 1, kDeep, 0, 1, 1},
               {3, 0, 9000, 3, 250, 1, 200, 1, kDeep, 0, 1, 1},
               {4, 0, 9000, 3, 250, 1, 200, 1, kDeep, 0, 1, 1}};
  for (const auto& c : cases) {
    const int channels = c.type == 3 && c.method ? 200 : 2;
    const int groups = c.type == 3 ? 1 : 2;
    const zyn_conv_param p = {channels, 2,    c.kx, c.ky,   c.sx, c.sy, c.px, c.py,
                              {},       c.dx, c.dy, groups, 1,    {},   0};
    most_requested = 0;
    Layer layer(p, c.w, c.h);
    layer.type(c.type).method(c.method);
    const FailingAllocations counting(0, false, {counted, free});
    layer.check();
    // Constants in 16 bits and packed for 8 channels, planes of 32 times their size.
    const size_t values = layer.net().output(0).v.size() + layer.net().output(2).v.size();
    EXPECT_LE(most_requested, 200000 + 64 * (values + layer.constant().v.size())) << layer.text();
  }
}

TEST(Conv, FoldedPreparationReports) {
  const Reports fusion_report{"src/cg/cpu/zyn_cg_op_fusion.cpp"};
  for (int n : {1, 3}) {  // the folded tensor, the output
    Ledger ledger;
    Layer layer;
    layer.type(ZYN_OP_CONV_BN);
    ASSERT_EQ(layer.make(), 0);
    zyn_cg_handle* graph = layer.net().graph();
    for (zyn_cg_handle* g : {static_cast<zyn_cg_handle*>(nullptr), graph})
      EXPECT_SAYS(zyn_cg_conv_bn_row.prepare(g, g ? -1 : 0), 1, fusion_report(kPara, 301));
    Ledger::fail(n, true);
    const std::string text = printed([&] { zyn_prepare_inference_computation(graph); });
    Ledger::fail(0, false);
    EXPECT_EQ(text, report(kMemory, "src/matrix/zyn_tensor.cpp", 53) +
                        fusion_report("Allocating memory error!\n", n == 1 ? 371 : 352) +
                        "failed to prepare inference node:2!!!");
  }
  for (const zyn_cg_operator* row : {&zyn_cg_conv_row, &zyn_cg_conv_act_row})
    EXPECT_SAYS(row->prepare(nullptr, 0), 1, "");
}

}  // namespace

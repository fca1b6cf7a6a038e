// Convolution operators (types 3, 4, 5, 12, 13) within graphs, through the exported
// functions, under every method: results, activation codes, shapes, refusals, and what
// preparation keeps. Integer data make results exact in every order of summation.
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "support/ledger.h"
#include "support/reference.h"

namespace {

using namespace zyn_test;

constexpr uint32_t kMethods[] = {0, 1, 2};
constexpr float kEpsilon = 0.25f;  // with variance 3.75 the divisor is 2

// Codes of a layer under a method: what preparation, then a run, answers.
struct Codes {
  int prepare, run;
};

bool is(int a, int b, int value) { return a == value && b == value; }

Codes codes_of(const zyn_conv_param& p, uint32_t method, int type) {
  const bool one = is(p.kernel_h, p.kernel_w, 1);
  if (method == 0 || (method == 1 && !has_kernel(p))) return {0, 0};
  if (method == 1) {
    const bool pointwise =
        one && p.groups == 1 && type != ZYN_OP_CONV && type != ZYN_OP_CONV_DEPTHWISE;
    const bool stride =
        is(p.stride_h, p.stride_w, 1) || (is(p.stride_h, p.stride_w, 2) && !pointwise);
    const bool served = pointwise || is(p.kernel_h, p.kernel_w, 3);
    const bool pad = is(p.pad_h, p.pad_w, pointwise ? 0 : 1);
    return {0, served && stride && pad && is(p.dilation_h, p.dilation_w, 1) ? 0 : 4};
  }
  const bool square = p.kernel_h == p.kernel_w && p.stride_h == p.stride_w && p.pad_h == p.pad_w &&
                      is(p.dilation_h, p.dilation_w, 1);
  const bool depthwise = (p.kernel_h == 3 || p.kernel_h == 5) && p.pad_h == p.kernel_h / 2 &&
                         (p.stride_h == 1 || p.stride_h == 2);
  return {square && (p.groups == 1 || (is_depthwise(p) && depthwise)) ? 0 : 2, 0};
}

// One layer in a graph of its own. Defaults: 3x3, 3 -> 5 channels, 9 x 7 pixels.
class Layer {
 public:
  Layer() : p(conv_param(3, 5, 3, 1, 1)) {}
  explicit Layer(const zyn_conv_param& param) : p(param) {}
  Layer& size(int w, int h) { return w_ = w, h_ = h, *this; }
  Layer& type(int t) { return type_ = t, *this; }
  Layer& bias(int b) { return p.bias = b, *this; }
  Layer& activation(int code) { return activation_ = code, *this; }
  Layer& epsilon(float e) { return epsilon_ = e, *this; }
  Layer& layout(uint32_t code) { return layout_ = code, *this; }
  Layer& method(uint32_t m) { return method_ = m, *this; }
  Layer& seed(uint64_t s) { return seed_ = s, *this; }
  Layer& extra(int count) { return extra_ = count, *this; }  // of the constant's elements
  Layer& channels(int c) { return channels_ = c, *this; }    // of the input tensor

  bool folded() const { return type_ == ZYN_OP_CONV_BN; }
  int ow() const {
    return folded() ? (w_ - p.kernel_h + 2 * p.pad_h) / p.stride_h + 1
                    : out_extent(w_, p.kernel_h, p.stride_h, p.pad_h, p.dilation_h);
  }
  int oh() const {
    return folded() ? (h_ - p.kernel_w + 2 * p.pad_h) / p.stride_w + 1
                    : out_extent(h_, p.kernel_w, p.stride_w, p.pad_w, p.dilation_w);
  }

  // Nodes 0 input, 1 constant, 2 the layer.
  int32_t make() {
    Random random(seed_);
    const int channels = channels_ ? channels_ : p.in_channels;
    input_ = Array({w_, h_, channels});
    input_.v = small_integers(random, input_.v.size(), 4);
    fill_constant(random);
    net_ = std::make_unique<Net>();
    net_->method(method_);
    const int in = net_->input(input_, layout_), constant = net_->constant(constant_);
    // The constant first: the last input that is none counts.
    return net_->op(type_, record(), {constant, in}), net_->make();
  }
  Net& net() { return *net_; }
  Array& constant() { return constant_; }
  // Makes the layer, which then answers with these codes.
  void answers(int prepare, int run) {
    ASSERT_EQ(make(), 0);
    EXPECT_EQ(net_->prepare(), prepare) << text();
    EXPECT_EQ(net_->run(), run) << text();
  }

  void check() {
    SCOPED_TRACE(text());
    const Codes codes = codes_of(p, method_, type_);
    ASSERT_EQ(make(), 0);
    ASSERT_EQ(net_->prepare(), codes.prepare);
    if (codes.prepare) return;
    const zyn_tensor* out = net_->output_tensor(2);
    auto* values = static_cast<float*>(out->data);
    std::fill(values, values + out->count, 7.0f);
    for (int round = 0; round < 2; round++) ASSERT_EQ(net_->run(), codes.run);
    if (codes.run) {  // writes nothing
      ASSERT_EQ(std::count(values, values + out->count, 7.0f), out->count);
      return;
    }
    compare();
    const bool blocked = method_ == 1 && has_kernel(p);
    EXPECT_EQ(net_->output_tensor(2)->layout, blocked ? 3u : 0u);
  }
  void compare() {
    const double bound = activation_ == 2 || activation_ == 4 || epsilon_ == 0 ? 3e-7 : 0;
    ASSERT_TRUE(agrees(net_->output(2), expected(), bound)) << text();
  }
  std::string text() const {
    return "type " + std::to_string(type_) + " method " + std::to_string(method_) + " code " +
           std::to_string(activation_) + " layout " + std::to_string(layout_) + " seed " +
           std::to_string(seed_) + " " + describe(p, w_, h_);
  }

  zyn_conv_param p;

 private:
  size_t weights() const { return static_cast<size_t>(weight_count(p)); }
  size_t bias_count() const { return static_cast<size_t>(p.bias == 1 ? p.out_channels : 0); }

  void fill_constant(Random& random) {
    const size_t out = static_cast<size_t>(p.out_channels);
    const size_t count = weights() + bias_count() + (folded() ? 4 * out : 0);
    constant_ = Array({static_cast<int>(count) + extra_});
    const auto values = small_integers(random, constant_.v.size(), 3);
    constant_.v = values;
    for (size_t i = weights() + bias_count(); folded() && i < constant_.v.size(); i++) {
      const size_t which = (i - weights() - bias_count()) / out;
      if (which == 0) constant_.v[i] = 2 * values[i];  // scale: divided by 2
      if (which == 3) constant_.v[i] = epsilon_ == 0 ? 1e-5 : 3.75;
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
  Array expected() const {
    zyn_conv_param r = record();
    Array constant = constant_;
    if (!has_kernel(p)) {  // other groups add nothing
      r.groups = 1;
      std::fill_n(constant.v.begin(), weights(), 0.0);
    }
    if (folded()) return reference_conv_bn(input_, constant, r, method_ == 2, ow(), oh());
    if (type_ != ZYN_OP_CONV_ACT) r.word14.activation = 0;
    return reference_conv_act(input_, constant, r, ow(), oh());
  }

  int type_ = ZYN_OP_CONV;
  int w_ = 9, h_ = 7;
  int activation_ = 0;
  int extra_ = 0, channels_ = 0;
  float epsilon_ = kEpsilon;
  uint32_t layout_ = 0, method_ = 0;
  uint64_t seed_ = 1;
  Array input_, constant_;
  std::unique_ptr<Net> net_;
};

int plain_type(const zyn_conv_param& p) {
  if (is_depthwise(p)) return ZYN_OP_CONV_DEPTHWISE;
  return is(p.kernel_h, p.kernel_w, 1) ? ZYN_OP_CONV_POINTWISE : ZYN_OP_CONV;
}

class ConvMethod : public ::testing::TestWithParam<uint32_t> {};
INSTANTIATE_TEST_SUITE_P(Conv, ConvMethod, ::testing::ValuesIn(kMethods),
                         [](const auto& info) { return "Method" + std::to_string(info.param); });

TEST_P(ConvMethod, LayersOfNetworksOnSizesAroundTheThresholds) {
  Random random(GetParam() + 1);
  static constexpr uint32_t kLayouts[] = {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_INTERLEAVED,
                                          ZYN_LAYOUT_BLOCKED};
  for (int w : {1, 2, 3, 7, 8, 9, 16, 17})
    for (int h : {1, 2, 5, 6, 7})
      for (int kernel : {1, 3, 5})
        for (int groups : {1, 0}) {
          const int c = random.integer(1, 13), stride = kernel == 1 ? 1 : random.integer(1, 2);
          const int out = groups ? random.integer(1, 13) : c;
          const zyn_conv_param p = conv_param(c, out, kernel, stride, kernel / 2, groups ? 1 : c);
          Layer(p)
              .size(w, h)
              .type(plain_type(p))
              .bias(random.integer(0, 2))
              .layout(kLayouts[random.integer(0, 2)])
              .method(GetParam())
              .seed(random.next())
              .check();
          if (HasFatalFailure()) return;
        }
}

TEST_P(ConvMethod, AnyRecordIsComputedOrRefusedWithItsCode) {
  Random random(GetParam() + 7);
  for (int i = 0; i < 250; i++) {
    const AnyLayer l = any_layer(random);
    // A pointwise kernel under type 3 keeps the routine of the larger kernels.
    static constexpr int kTypes[] = {ZYN_OP_CONV_ACT, 0, ZYN_OP_CONV_POINTWISE, ZYN_OP_CONV};
    int type = kTypes[random.integer(0, 3)];
    if (type == 0 || l.p.kernel_h * l.p.kernel_w > 1) type = plain_type(l.p);
    // Method 1 looks at padding, and at the stride of one pixel, only through the size of
    // the output: small images may pass.
    if (GetParam() == 1 && codes_of(l.p, 1, type).run && (l.w < 9 || l.h < 9)) continue;
    // A window larger than the padded input has no plan.
    if (GetParam() == 2 &&
        (l.p.kernel_h > l.w + 2 * l.p.pad_h || l.p.kernel_w > l.h + 2 * l.p.pad_w))
      continue;
    Layer(l.p).size(l.w, l.h).type(type).method(GetParam()).seed(random.next()).check();
    if (HasFatalFailure()) return;
  }
}

TEST_P(ConvMethod, ActivationCodesOfTheFusedTypesFollowTheirTable) {
  for (int type : {ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN})
    for (int code : {-1, 0, 1, 2, 3, 4, 5})
      for (int bias : {0, 1, 2})
        for (int kernel : {1, 3})
          for (int groups : {1, 9}) {
            if (kernel == 1 && groups > 1 && GetParam() > 0) continue;
            Layer(conv_param(9, 9, kernel, 1, kernel / 2, groups))
                .type(type)
                .activation(code)
                .bias(bias)
                .method(GetParam())
                .seed(code + 7)
                .check();
          }
}

// On purpose: code 3 is outside the table, so that not even the folded bias is added.
TEST_P(ConvMethod, ActivationCode3OfType13WritesTheRawConvolution) {
  Layer layer;
  layer.type(ZYN_OP_CONV_BN).activation(3).bias(1).method(GetParam()).check();
  Layer biased;
  biased.type(ZYN_OP_CONV_BN).activation(0).bias(1).method(GetParam()).check();
  EXPECT_NE(layer.net().output(2).v, biased.net().output(2).v);
}

// On purpose: pad_h counts for both axes and dilation for none.
TEST(Conv, FoldedShapeUsesPadHTwiceAndLeavesOutDilation) {
  zyn_conv_param p = conv_param(2, 3, 3, 1, 1);
  p.kernel_w = 5, p.pad_w = 3, p.stride_w = 2, p.dilation_h = 2;
  Layer layer(p);
  layer.type(ZYN_OP_CONV_BN).size(8, 11).check();
  EXPECT_EQ(layer.ow(), 8);
  EXPECT_EQ(layer.oh(), 5);
  p = conv_param(2, 3, 3, 1, 1);
  p.dilation_h = p.dilation_w = 4;  // the last windows lie far beyond the input
  Layer(p).type(ZYN_OP_CONV_BN).size(6, 6).check();
}

TEST_P(ConvMethod, FoldedEpsilonOfZeroMeansOneHundredThousandth) {
  Layer().type(ZYN_OP_CONV_BN).epsilon(0).bias(1).method(GetParam()).check();
}

TEST(Conv, FoldedConstantMustHaveExactlyItsElements) {
  for (int bias : {0, 1})
    for (int extra : {-5, -1, 1, 5})
      Layer().type(ZYN_OP_CONV_BN).bias(bias).extra(extra).answers(1, 1);
}

TEST_P(ConvMethod, ConstantsShorterThanTheRecordAreRefusedAndLongerOnesTaken) {
  for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_POINTWISE, ZYN_OP_CONV_ACT})
    for (int bias : {0, 1})
      for (int extra : {-1, 0, 3}) {
        const int kernel = type == ZYN_OP_CONV_POINTWISE ? 1 : 3, code = extra < 0 ? 1 : 0;
        Layer layer(conv_param(4, 6, kernel, 1, kernel / 2));
        layer.type(type).bias(bias).extra(extra).method(GetParam()).answers(code, code);
      }
}

TEST_P(ConvMethod, RecordsWithoutMeaningAreRefusedAtPreparation) {
  const struct {
    int32_t zyn_conv_param::*member;
    int value, code;
  } cases[] = {
      {&zyn_conv_param::stride_h, 0, 1},       {&zyn_conv_param::stride_w, -1, 1},
      {&zyn_conv_param::kernel_h, 0, 1},       {&zyn_conv_param::kernel_w, -3, 1},
      {&zyn_conv_param::dilation_h, 0, 1},     {&zyn_conv_param::dilation_w, 0, 1},
      {&zyn_conv_param::pad_h, -1, 1},         {&zyn_conv_param::pad_w, INT32_MIN, 1},
      {&zyn_conv_param::kernel_h, 1 << 30, 1}, {&zyn_conv_param::in_channels, INT32_MAX, 1},
      {&zyn_conv_param::in_channels, -3, 1},   {&zyn_conv_param::pad_h, INT32_MAX, 2},
      {&zyn_conv_param::dilation_h, 6, 2},     {&zyn_conv_param::dilation_w, INT32_MAX, 2}};
  for (const auto& c : cases) {
    zyn_conv_param record = conv_param(3, 5, 3, 1, 1);
    record.*c.member = c.value;
    Net net;
    net.method(GetParam());
    const int in = net.input(Array({9, 7, 3})), constant = net.constant(Array({5 * 3 * 9}));
    net.op(ZYN_OP_CONV, record, {in, constant});
    ASSERT_EQ(net.make(), 0);
    EXPECT_EQ(net.prepare(), c.code) << c.value;
    EXPECT_EQ(net.run(), 1) << c.value;
  }
}

TEST_P(ConvMethod, OutputsBelowOnePixelFailInTheTensorAndOtherChannelCountsAtTheRun) {
  for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN}) {
    Layer(conv_param(2, 2, 5, 1, 0)).type(type).size(9, 3).method(GetParam()).answers(2, 1);
    Layer().type(type).channels(4).method(GetParam()).answers(0, 1);
  }
}

TEST_P(ConvMethod, GroupsWithoutAKernelAddNothingButTheBias) {
  if (GetParam() == 2) return;  // no plan
  zyn_conv_param p = conv_param(4, 6, 3, 1, 1, 2);
  Layer(p).bias(1).method(GetParam()).check();
  Layer(p).type(ZYN_OP_CONV_ACT).bias(1).activation(1).method(GetParam()).check();
}

TEST(Conv, MissingPiecesAreRefused) {
  const zyn_conv_param p = conv_param(2, 2, 1, 1, 0);
  for (int type : {3, 4, 5, 12, 13}) {
    Net lone, no_input, none;
    lone.op(type, p, {lone.input(Array({3, 3, 2}))});
    EXPECT_EQ(lone.go(), 1) << type;
    EXPECT_EQ(lone.run(), 1) << type;
    no_input.op(type, p, {no_input.constant(Array({40}))});
    EXPECT_EQ(no_input.go(), 1) << type;
    none.op(type, {none.input(Array({3, 3, 2}))});
    EXPECT_EQ(none.make(), 1) << type;  // no record
  }
  Net batch;
  const int in = batch.input(Array({3, 3, 2, 2})), constant = batch.constant(Array({4}));
  batch.op(ZYN_OP_CONV, p, {in, constant});
  EXPECT_EQ(batch.go(), 1);  // one image only
}

TEST(Conv, FoldedPreparationReportsMissingArguments) {
  const Reports fusion_report{"src/cg/cpu/zyn_cg_op_fusion.cpp"};
  Layer layer;
  ASSERT_EQ(layer.make(), 0);
  for (zyn_cg_handle* graph : {static_cast<zyn_cg_handle*>(nullptr), layer.net().graph()})
    EXPECT_SAYS(zyn_cg_conv_bn_row.prepare(graph, graph ? -1 : 0), 1, fusion_report(kPara, 301));
  for (const zyn_cg_operator* row : {&zyn_cg_conv_row, &zyn_cg_conv_act_row})
    EXPECT_SAYS(row->prepare(nullptr, 0), 1, "");
}

// Weights are read by preparation (method 0: at the run), biases at every run.
TEST_P(ConvMethod, PreparingTwiceReadsTheConstantAgainAndKeepsMemory) {
  for (int type : {ZYN_OP_CONV, ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN}) {
    Layer layer;
    layer.type(type).bias(1).method(GetParam()).check();
    const Array first = layer.net().output(2);
    const uint64_t before = zyn_get_current_memory_size_occupation();
    Array& constant = layer.constant();
    for (size_t i = 0; i < 3 * 5 * 9; i++) constant.v[i] = -constant.v[i] + 1;
    layer.net().fill(1, constant);
    ASSERT_EQ(layer.net().run(), 0);
    const bool frozen = GetParam() != 0 || type == ZYN_OP_CONV_BN;
    EXPECT_EQ(layer.net().output(2).v == first.v, frozen);
    ASSERT_EQ(layer.net().prepare(), 0);
    ASSERT_EQ(layer.net().run(), 0);
    layer.compare();
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
    for (size_t i = 3 * 5 * 9; i < 3 * 5 * 9 + 5; i++) constant.v[i] += 2;
    layer.net().fill(1, constant);
    ASSERT_EQ(layer.net().run(), 0);
    if (type == ZYN_OP_CONV_BN) {
      ASSERT_EQ(layer.net().prepare() + layer.net().run(), 0);
    }
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
    EXPECT_EQ(layer.net().run(), type == ZYN_OP_CONV_BN ? 0 : 1);  // folded weights are its own
    EXPECT_EQ(layer.net().prepare(), 1);
    EXPECT_EQ(layer.net().run(), 1);
    constant->count += 100;
    EXPECT_EQ(layer.net().prepare() + layer.net().run(), 0);
    layer.compare();
  }
}

TEST_P(ConvMethod, FailingAllocationsAnswerTwoAndTheNextAttemptWorks) {
  for (int type : {3, 4, 5, 12, 13})
    until_it_succeeds([&](int n, bool lasting) {
      const int k = type == 5 ? 1 : 3;
      Layer layer(conv_param(6, 6, k, 1, k / 2, type == 4 ? 6 : 1));
      layer.type(type).bias(1).layout(ZYN_LAYOUT_BLOCKED).method(GetParam());
      EXPECT_EQ(layer.make(), 0);
      Ledger::fail(n, lasting);
      const int32_t prepared = layer.net().prepare();
      const int32_t code = prepared ? prepared : layer.net().run();
      const int seen = Ledger::seen();
      Ledger::fail(0, false);
      // A plan without room for its weights is handed out; the run refuses it.
      const bool unpacked = GetParam() == 2 && prepared == 0 && code == 1;
      EXPECT_TRUE(seen < n ? code == 0 : code == 2 || unpacked) << code;
      if (prepared) {
        EXPECT_EQ(layer.net().run(), 1);
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

// Strides, pads and dilations far beyond the shapes: results as of small ones, and no
// request above a small multiple of input and output. Fixed point with values that are exact.
TEST(Conv, ScratchFollowsTheShapesNotStridesPadsOrDilations) {
  constexpr int kGrouped = ZYN_OP_CONV_GROUPED, kTransposed = ZYN_OP_CONV_TRANSPOSED;
  constexpr int k27 = 1 << 27, kFar = 300000000;
  const struct {
    int type;
    uint32_t fixed;
    int w, h, kx, ky, sx, sy, px, py, dx, dy;
  } cases[] = {{kGrouped, 0, 1, 1, 1, 1, kFar, 1, 0, 0, 1, 1},
               {kGrouped, 0, 5, 3, 2, 1, kFar, 2, 0, 0, 4, 1},
               {kGrouped, 0, 3, 2, 3, 3, 1, 1, k27, 1, k27, 1},
               {kGrouped, 0, 9, 2, 3, 3, k27, 1, k27, 1, 3, 1},
               {kTransposed, 0, 1, 1, 3, 1, 1, 1, k27, 0, k27, 1},
               {kTransposed, 0, 4, 3, 3, 3, 2, 2, k27 + 1, 1, k27, 1},
               {3, 1, 1, 1, 3, 3, 1, 2 * k27 - 2, 1, k27, 1, 1},
               {3, 1, 2, 1, 3, 3, 1, 1999999998, 1, 1000000000, 1, 1},
               {4, 1, 2, 1, 3, 3, 1, 2 * k27 - 2, 1, k27, 1, 1},
               {3, 1, 2, 2, 3, 3, 2 * k27 - 2, 1, k27, 1, 1, 1},
               {3, 1, 1, 1, 31, 2, 32, 32, 900, 1900, 1, 30},
               {4, 1, 1, 1, 3, 3, 1, 1, k27, 1, k27, 1}};
  for (const auto& c : cases) {
    const int channels = c.type == 3 ? 200 : 2, groups = c.type == 3 ? 1 : 2;
    zyn_conv_param p = conv_param(channels, 2, 3, 1, 1, groups);
    p.kernel_h = c.kx, p.kernel_w = c.ky, p.stride_h = c.sx, p.stride_w = c.sy;
    p.pad_h = c.px, p.pad_w = c.py, p.dilation_h = c.dx, p.dilation_w = c.dy, p.bias = 1;
    SCOPED_TRACE(std::to_string(c.type) + describe(p, c.w, c.h));
    Random random(3);
    Array in({c.w, c.h, channels}), constant({c.kx * c.ky * channels * 2 / groups + 2});
    in.v = small_integers(random, in.v.size(), 3);
    constant.v = small_integers(random, constant.v.size(), 3);
    Net net(c.fixed);
    const int node = net.op(c.type, p, {net.input(in), net.constant(constant)});
    ASSERT_EQ(net.make(), 0);
    net.q_list(0);
    most_requested = 0;
    {
      const FailingAllocations counting(0, false, {counted, free});
      ASSERT_EQ(net.prepare() + net.run(), 0);
    }
    const Array expected = reference_conv(in, constant, p, c.type == kTransposed);
    EXPECT_TRUE(agrees(net.output(node), expected, 0));
    // Constants in 16 bits and packed for 8 channels, planes of 32 times their size.
    EXPECT_LE(most_requested, 200000 + 64 * (in.v.size() + expected.v.size() + constant.v.size()));
  }
}

TEST(Conv, FailingAllocationOfABindingAnswersTwo) {
  for (int type : {3, 4, 5, 12, 13}) {
    Net net;
    const zyn_conv_param p = conv_param(2, 2, 1, 1, 0);
    net.op(type, {net.input(Array({3, 3, 2}))});
    ASSERT_EQ(net.connect(), 0);
    zyn_cg_node_desc desc = {};
    ASSERT_EQ(zyn_bind_operator_onto_computation_graph(net.graph(), 0, &desc, nullptr), 0);
    desc.type = type;
    {
      const FailingAllocations failing(1);
      EXPECT_EQ(zyn_bind_operator_onto_computation_graph(net.graph(), 1, &desc, &p), 2);
    }
    EXPECT_EQ(net.prepare(), 1);  // no record
  }
}

TEST(Conv, FoldedAllocationsAreReported) {
  for (int n : {1, 3}) {  // the folded tensor, the output
    Ledger ledger;
    Layer layer;
    layer.type(ZYN_OP_CONV_BN);
    ASSERT_EQ(layer.make(), 0);
    Ledger::fail(n, true);
    const std::string text =
        printed([&] { zyn_prepare_inference_computation(layer.net().graph()); });
    Ledger::fail(0, false);
    EXPECT_EQ(text, report("Allocating memory failure! ", "src/matrix/zyn_tensor.cpp", 53) +
                        report("Allocating memory error!\n", "src/cg/cpu/zyn_cg_op_fusion.cpp",
                               n == 1 ? 371 : 352) +
                        "failed to prepare inference node:2!!!");
  }
}

}  // namespace

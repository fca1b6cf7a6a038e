// The blocked kernels: every pair of block widths, every edge, both strides, planar and
// blocked inputs, epilogues, and the refusals.
#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "support/failing.h"
#include "support/reference.h"

namespace {

using namespace zyn_test;

constexpr int kNoEpilogue = -1;
constexpr uint32_t kLayouts[] = {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_BLOCKED};

// A tensor of floats that ends at an inaccessible page.
struct Block {
  PageEnd<float> floats;
  zyn_tensor tensor = {};
  explicit Block(const Array& a, uint32_t layout = ZYN_LAYOUT_PLANAR) : floats(a.v.size()) {
    const auto count = static_cast<int32_t>(a.dims.size());
    EXPECT_EQ(zyn_set_tensor_header(&tensor, count, a.dims.data(), ZYN_TYPE_F32), 0);
    EXPECT_EQ(zyn_set_tensor_data(&tensor, floats.data(), tensor.byte_size), 0);
    tensor.layout = layout;
    for_each_element(a, [&](int x, int y, int z) {
      floats[place(a, x, y, z, layout)] = static_cast<float>(a.at(x, y, z));
    });
  }
};

Array integers(Random& random, std::vector<int> dims, int bound) {
  Array a(dims);
  a.v = small_integers(random, a.v.size(), bound);
  return a;
}

zyn_conv_param dense(int in, int out, int kernel, int stride = 1) {
  return conv_param(in, out, kernel, stride, 77);  // the kernels do not read the padding
}
zyn_conv_param depthwise(int channels, int stride = 1) {
  return conv_param(channels, channels, 3, stride, 77, channels);
}

uint32_t run(zyn_tensor* out, const zyn_tensor* in, const zyn_conv_blocked_weights* weights,
             const zyn_conv_param& p, const zyn_conv_epilogue* epilogue = nullptr) {
  if (p.kernel_h == 1) return zyn_cg_conv1x1(out, in, weights->packed, &p, epilogue);
  return p.groups == 1 ? zyn_cg_conv3x3(out, in, weights, &p, epilogue)
                       : zyn_cg_dwconv3x3(out, in, weights, &p, epilogue);
}

void check(const zyn_conv_param& p, int w, int h, uint32_t layout = ZYN_LAYOUT_PLANAR,
           int activation = kNoEpilogue) {
  SCOPED_TRACE(describe(p, w, h) + " layout " + std::to_string(layout));
  Random random(static_cast<uint64_t>(((w * 64 + h) * 64 + p.in_channels) * 64 + p.out_channels));
  const Array in = integers(random, {w, h, p.in_channels}, 6);
  Array weights = integers(random, {weight_count(p)}, 4);
  const Array bias = integers(random, {p.out_channels}, 9);
  const Block input(in, layout), constant(weights), biases(bias);
  Block output(Array({(w - 1) / p.stride_h + 1, (h - 1) / p.stride_w + 1, p.out_channels}));
  weights.v.insert(weights.v.end(), bias.v.begin(), bias.v.end());
  zyn_conv_param padded = p;
  padded.pad_h = padded.pad_w = p.kernel_h / 2;
  padded.bias = activation != kNoEpilogue;
  const Array expected =
      map(reference_conv(in, weights, padded), [&](double y) { return activate(y, activation); });

  zyn_conv_blocked_weights* packed = zyn_cg_conv_prepare_direct(&constant.tensor, &p, 1);
  ASSERT_NE(packed, nullptr);
  const zyn_conv_epilogue epilogue = {biases.floats.data(), activation};
  for (int round = 0; round < 2; round++) {  // a second run gives the same
    ASSERT_EQ(run(&output.tensor, &input.tensor, packed, p, padded.bias ? &epilogue : nullptr), 0u);
    ASSERT_EQ(output.tensor.layout, uint32_t{ZYN_LAYOUT_BLOCKED});
    ASSERT_TRUE(agrees(Net::read(&output.tensor), expected, activation > 1 ? 3e-7 : 0));
  }
  EXPECT_EQ(zyn_cg_conv_release_direct(&packed), 0u);
  EXPECT_EQ(zyn_cg_conv_release_direct(&packed), 1u);
}

TEST(ConvBlocked, EveryChannelPairOnRandomSides) {
  constexpr int kSides[] = {1, 2, 3, 5, 17};
  Random random(7);
  for (int in = 1; in <= 40; in++)
    for (int out = 1; out <= 40; out++) {
      const int w = kSides[random.integer(0, 4)], h = kSides[random.integer(0, 3)];
      const uint32_t layout = kLayouts[random.integer(0, 1)];
      check(dense(in, out, 3, random.integer(1, 2)), w, h, layout);
      check(dense(in, out, 1), w, h, layout);
      if (HasFatalFailure()) return;
    }
}

TEST(ConvBlocked, EverySideAndStrideByBlockWidths) {
  for (int w : {1, 2, 3, 5, 17})
    for (int h : {1, 2, 3, 5, 17})
      for (int stride : {1, 2})
        for (uint32_t layout : kLayouts) {
          for (int c : {1, 4, 8, 13})
            for (int out : {1, 4, 8, 16, 29}) check(dense(c, out, 3, stride), w, h, layout);
          for (int c : {2, 4, 8, 13, 40}) check(depthwise(c, stride), w, h, layout);
          if (HasFatalFailure()) return;
        }
}

// Rows are cut into tiles of every size; depthwise rows go in pairs.
TEST(ConvBlocked, EveryTileSizeOfARowAndEveryHeightOfRowPairs) {
  for (int stride : {1, 2}) {
    for (int w = 1; w <= 32; w++) {
      check(dense(8, 24, 3, stride), w, 3);
      check(dense(9, 21, 3, stride), 3, w);
      check(depthwise(8, stride), w, 3);
      for (int out : {21, 24, 61}) check(dense(9, out, 1), w, 1);
    }
    for (int h = 1; h <= 9; h++)
      for (int w = 1; w <= 8; w++) check(depthwise(13, stride), w, h);
  }
}

// Images larger than what a strip of pixels or rows holds.
TEST(ConvBlocked, StripsMeet) {
  check(dense(40, 29, 1), 41, 53);
  check(dense(700, 21, 1), 11, 11, ZYN_LAYOUT_BLOCKED);
  for (int stride : {1, 2}) check(dense(37, 21, 3, stride), 33, 140);
}

TEST(ConvBlocked, EpilogueIsAppliedOnceWhereTheLastSumArrives) {
  for (int activation :
       {ZYN_EPILOGUE_NONE, ZYN_EPILOGUE_RELU, ZYN_EPILOGUE_HARD_SWISH, ZYN_EPILOGUE_HARD_SIGMOID})
    for (const zyn_conv_param& p : {dense(21, 29, 3), dense(21, 29, 1), depthwise(13)})
      check(p, 7, 9, ZYN_LAYOUT_PLANAR, activation);
}

TEST(ConvBlocked, BlockingAndTheBiasOfABlockedTensor) {
  for (int channels = 1; channels <= 29; channels++)
    for (int pixels : {1, 7, 8, 9, 40}) {
      Random random(static_cast<uint64_t>(channels));
      const Array in = integers(random, {pixels, 1, channels}, 1000);
      const Block planar(in);
      Block blocked(in);
      ASSERT_EQ(zyn_cg_block_channels(&blocked.tensor, &planar.tensor), 0u);
      ASSERT_TRUE(agrees(Net::read(&blocked.tensor), in, 0)) << channels << " " << pixels;
      Array constant({channels * 3}, 0.5);  // 2 inputs
      for (int c = 0; c < channels; c++) constant.v[static_cast<size_t>(2 * channels + c)] = c + 1;
      const Block weights(constant);
      zyn_conv_param p = dense(2, channels, 1);
      const float* w = weights.floats.data();
      ASSERT_EQ(zyn_cg_conv_add_bias_blocked(&blocked.tensor, &blocked.tensor, w, &p), 0u);
      Array biased = in;
      for_each_element(in, [&](int x, int y, int z) { biased.at(x, y, z) += z + 1; });
      ASSERT_TRUE(agrees(Net::read(&blocked.tensor), biased, 0)) << channels << " " << pixels;
      p.out_channels++;
      EXPECT_EQ(zyn_cg_conv_add_bias_blocked(&blocked.tensor, &blocked.tensor, w, &p), 1u);
    }
}

// Refusals leave the output as it was.
TEST(ConvBlocked, RefusesWhatItHasNoKernelFor) {
  const struct {
    const char* label;
    void (*change)(zyn_conv_param*, zyn_tensor*);
    uint32_t code;
  } cases[] = {
      {"stride (1,2)", [](zyn_conv_param* p, zyn_tensor*) { p->stride_w = 2; }, 4},
      {"stride (2,1)", [](zyn_conv_param* p, zyn_tensor*) { p->stride_h = 2; }, 4},
      {"stride 3", [](zyn_conv_param* p, zyn_tensor*) { p->stride_h = p->stride_w = 3; }, 4},
      {"kernel 5", [](zyn_conv_param* p, zyn_tensor*) { p->kernel_h = p->kernel_w = 5; }, 4},
      {"kernel 3x1", [](zyn_conv_param* p, zyn_tensor*) { p->kernel_w = 1; }, 4},
      {"dilation", [](zyn_conv_param* p, zyn_tensor*) { p->dilation_h = 2; }, 4},
      {"output sized for no padding", [](zyn_conv_param*, zyn_tensor* o) { o->dims[0] -= 2; }, 4},
      {"output channels", [](zyn_conv_param* p, zyn_tensor*) { p->out_channels = 7; }, 1},
      {"input channels", [](zyn_conv_param* p, zyn_tensor*) { p->in_channels = 9; }, 1},
      {"no data", [](zyn_conv_param*, zyn_tensor* o) { o->data = nullptr; }, 1}};
  const Block constant(Array({8 * 8 * 9}, 1)), input(Array({5, 5, 8}, 1));
  const Block out(Array({5, 5, 8}, 5));
  const zyn_conv_param good = dense(8, 8, 3);
  zyn_conv_blocked_weights* packed = zyn_cg_conv_prepare_direct(&constant.tensor, &good, 1);
  ASSERT_NE(packed, nullptr);
  for (const auto& c : cases)
    for (bool is_depthwise : {false, true}) {
      zyn_conv_param p = good;
      zyn_tensor output = out.tensor;
      c.change(&p, &output);
      EXPECT_EQ(is_depthwise ? zyn_cg_dwconv3x3(&output, &input.tensor, packed, &p)
                             : zyn_cg_conv3x3(&output, &input.tensor, packed, &p),
                c.code)
          << c.label;
      EXPECT_EQ(output.layout, 0u);
    }
  zyn_tensor strided = out.tensor;
  strided.dims[0] = strided.dims[1] = 3;
  EXPECT_EQ(zyn_cg_conv1x1(&strided, &input.tensor, packed->packed, &good), 4u) << "with stride";
  EXPECT_EQ(zyn_cg_conv3x3(nullptr, &input.tensor, packed, &good), 1u);
  EXPECT_EQ(zyn_cg_conv1x1(&strided, &input.tensor, nullptr, &good), 1u);
  EXPECT_TRUE(agrees(Net::read(&out.tensor), Array({5, 5, 8}, 5), 0));
  zyn_cg_conv_release_direct(&packed);
}

TEST(ConvBlocked, ThreadCountIsClampedAndFailuresLoseNothing) {
  Block constant(Array({8 * 8 * 9}, 1)), planar(Array({5, 5, 8}, 1)), out(Array({5, 5, 8}, 5));
  Block blocked(Array({5, 5, 8}, 1), ZYN_LAYOUT_BLOCKED);
  const zyn_conv_param p = dense(8, 8, 3);
  const std::pair<int32_t, uint32_t> threads[] = {{-5, 1}, {0, 1}, {1, 1}, {16, 16}, {100, 16}};
  for (const auto& [asked, stored] : threads) {
    zyn_conv_blocked_weights* packed = zyn_cg_conv_prepare_direct(&constant.tensor, &p, asked);
    ASSERT_NE(packed, nullptr);
    EXPECT_EQ(packed->thread_count, stored);
    const FailingAllocations failing(1, true);
    out.tensor.layout = ZYN_LAYOUT_PLANAR;
    EXPECT_EQ(run(&out.tensor, &planar.tensor, packed, p), 2u);
    EXPECT_EQ(out.tensor.layout, 0u);
    EXPECT_TRUE(agrees(Net::read(&out.tensor), Array({5, 5, 8}), 0)) << "nothing but zeros";
    EXPECT_EQ(run(&out.tensor, &blocked.tensor, packed, p), 0u) << "no copy of blocked inputs";
    zyn_cg_conv_release_direct(&packed);
  }
  constant.tensor.data = nullptr;
  EXPECT_EQ(zyn_cg_conv_prepare_direct(&constant.tensor, &p, 1), nullptr);
  EXPECT_EQ(zyn_cg_conv_prepare_direct(nullptr, &p, 1), nullptr);
}

}  // namespace

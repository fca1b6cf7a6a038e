// The blocked direct kernels against a plain convolution over planar integers: every
// pair of block widths, every edge, both strides, planar and blocked inputs, fused
// epilogues, and the refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "support/buffers.h"
#include "support/failing.h"

namespace {

using zyn_test::PageEnd;
using zyn_test::Random;

// Index of (channel, pixel) in blocked order, from the layout's definition.
size_t blocked_index(int channels, int pixels, int channel, int pixel) {
  const int eights = channels / 8 * 8;
  const int fours = eights + (channels - eights) / 4 * 4;
  const int width = channel < eights ? 8 : channel < fours ? 4 : 1;
  const int first = channel < eights ? channel / 8 * 8 : channel < fours ? eights : channel;
  return static_cast<size_t>(first) * pixels + static_cast<size_t>(pixel) * width + channel - first;
}

zyn_tensor view(float* data, int w, int h, int c, uint32_t layout) {
  const int32_t dims[3] = {w, h, c};
  zyn_tensor tensor = {};
  EXPECT_EQ(zyn_set_tensor_header(&tensor, 3, dims, ZYN_TYPE_F32), 0);
  EXPECT_EQ(zyn_set_tensor_data(&tensor, data, tensor.byte_size), 0);
  tensor.layout = layout;
  return tensor;
}

class Blocked {
 public:
  Blocked& channels(int in, int out) { return ic_ = in, oc_ = out, *this; }
  Blocked& sides(int w, int h) { return w_ = w, h_ = h, *this; }
  Blocked& kernel(int k) { return k_ = k, *this; }
  Blocked& stride(int s) { return s_ = s, *this; }
  Blocked& depthwise(int c) { return ic_ = oc_ = c, groups_ = c, *this; }
  Blocked& input_layout(uint32_t layout) { return layout_ = layout, *this; }
  Blocked& activation(int32_t a) { return activation_ = a, fused_ = true, *this; }
  Blocked& seed(uint64_t s) { return seed_ = s, *this; }

  zyn_conv_param param() const {
    zyn_conv_param p = {};
    p.in_channels = ic_, p.out_channels = oc_;
    p.kernel_h = p.kernel_w = k_;
    p.stride_h = p.stride_w = s_;
    p.pad_h = p.pad_w = 77;  // the kernels do not read it
    p.dilation_h = p.dilation_w = 1;
    p.groups = groups_;
    return p;
  }

  void check() {
    SCOPED_TRACE("in " + std::to_string(ic_) + " out " + std::to_string(oc_) + " sides " +
                 std::to_string(w_) + "x" + std::to_string(h_) + " k " + std::to_string(k_) +
                 " s " + std::to_string(s_) + " groups " + std::to_string(groups_) + " layout " +
                 std::to_string(layout_) + " seed " + std::to_string(seed_));
    const int pixels = w_ * h_, ow = (w_ - 1) / s_ + 1, oh = (h_ - 1) / s_ + 1;
    Random random(seed_);
    std::vector<int> in(static_cast<size_t>(ic_) * pixels);
    for (int& v : in) v = random.integer(-6, 6);
    const int per_output = groups_ == 1 ? ic_ : 1;
    std::vector<int> weights(static_cast<size_t>(oc_) * per_output * k_ * k_);
    for (int& v : weights) v = random.integer(-4, 4);

    // The constant starts 4 bytes past any vector boundary.
    PageEnd<float> constant(weights.size());
    for (size_t i = 0; i < weights.size(); i++) constant[i] = static_cast<float>(weights[i]);
    std::vector<float> bias(static_cast<size_t>(oc_));
    for (float& b : bias) b = static_cast<float>(random.integer(-9, 9));
    PageEnd<float> input(in.size()), output(static_cast<size_t>(oc_) * ow * oh);
    for (int c = 0; c < ic_; c++)
      for (int p = 0; p < pixels; p++)
        input[layout_ == ZYN_LAYOUT_BLOCKED ? blocked_index(ic_, pixels, c, p)
                                            : static_cast<size_t>(c) * pixels + p] =
            static_cast<float>(in[static_cast<size_t>(c) * pixels + p]);

    const zyn_conv_param p = param();
    const int32_t count[1] = {static_cast<int32_t>(weights.size())};
    zyn_tensor constant_tensor = {};
    ASSERT_EQ(zyn_set_tensor_header(&constant_tensor, 1, count, ZYN_TYPE_F32), 0);
    ASSERT_EQ(zyn_set_tensor_data(&constant_tensor, constant.data(), constant_tensor.byte_size), 0);
    const zyn_tensor in_tensor = view(input.data(), w_, h_, ic_, layout_);
    zyn_tensor out_tensor = view(output.data(), ow, oh, oc_, ZYN_LAYOUT_PLANAR);
    zyn_conv_blocked_weights* workspace = zyn_cg_conv_prepare_direct(&constant_tensor, &p, 1);
    ASSERT_NE(workspace, nullptr);
    const zyn_conv_epilogue epilogue = {bias.data(), activation_};
    for (int round = 0; round < 2; round++) {  // a second run gives the same
      const zyn_conv_epilogue* fused = fused_ ? &epilogue : nullptr;
      const uint32_t code =
          k_ == 1        ? zyn_cg_conv1x1(&out_tensor, &in_tensor, workspace->packed, &p, fused)
          : groups_ == 1 ? zyn_cg_conv3x3(&out_tensor, &in_tensor, workspace, &p, fused)
                         : zyn_cg_dwconv3x3(&out_tensor, &in_tensor, workspace, &p, fused);
      ASSERT_EQ(code, 0u);
      ASSERT_EQ(out_tensor.layout, uint32_t{ZYN_LAYOUT_BLOCKED});
      compare(in, weights, bias, output, ow, oh);
    }
    EXPECT_EQ(zyn_cg_conv_release_direct(&workspace), 0u);
    EXPECT_EQ(zyn_cg_conv_release_direct(&workspace), 1u);
  }

 private:
  void compare(const std::vector<int>& in, const std::vector<int>& weights,
               const std::vector<float>& bias, const PageEnd<float>& output, int ow, int oh) const {
    const int per_output = groups_ == 1 ? ic_ : 1, pad = k_ / 2;
    for (int oc = 0; oc < oc_; oc++)
      for (int y = 0; y < oh; y++)
        for (int x = 0; x < ow; x++) {
          int sum = 0;
          for (int i = 0; i < per_output; i++)
            for (int ky = 0; ky < k_; ky++)
              for (int kx = 0; kx < k_; kx++) {
                const int iy = y * s_ + ky - pad, ix = x * s_ + kx - pad;
                if (iy < 0 || iy >= h_ || ix < 0 || ix >= w_) continue;
                const int channel = groups_ == 1 ? i : oc;
                sum += in[static_cast<size_t>((channel * h_ + iy) * w_ + ix)] *
                       weights[static_cast<size_t>(((oc * per_output + i) * k_ + ky) * k_ + kx)];
              }
          const double expected =
              finish(sum + (fused_ ? static_cast<double>(bias[static_cast<size_t>(oc)]) : 0));
          const float got = output[blocked_index(oc_, ow * oh, oc, y * ow + x)];
          ASSERT_NEAR(got, expected,
                      activation_ > ZYN_EPILOGUE_RELU ? std::abs(expected) * 3e-7 : 0)
              << "channel " << oc << " at " << x << "," << y;
        }
  }
  double finish(double y) const {
    const double gate = std::min(std::max(y + 3, 0.0), 6.0) / 6;
    switch (activation_) {
      case ZYN_EPILOGUE_RELU:
        return std::max(y, 0.0);
      case ZYN_EPILOGUE_HARD_SWISH:
        return y * gate;
      case ZYN_EPILOGUE_HARD_SIGMOID:
        return gate;
      default:
        return y;
    }
  }

  int ic_ = 8, oc_ = 8, w_ = 5, h_ = 5, k_ = 3, s_ = 1, groups_ = 1;
  uint32_t layout_ = ZYN_LAYOUT_PLANAR;
  int32_t activation_ = ZYN_EPILOGUE_NONE;
  bool fused_ = false;
  uint64_t seed_ = 1;
};

constexpr int kSides[] = {1, 2, 3, 5, 17};
constexpr uint32_t kLayouts[] = {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_BLOCKED};

TEST(ConvBlocked, EveryChannelPairOnRandomSides) {
  Random random(7);
  for (int in = 1; in <= 40; in++)
    for (int out = 1; out <= 40; out++) {
      const int w = kSides[random.integer(0, 4)], h = kSides[random.integer(0, 3)];
      const uint32_t layout = kLayouts[random.integer(0, 1)];
      Blocked()
          .channels(in, out)
          .sides(w, h)
          .stride(random.integer(1, 2))
          .input_layout(layout)
          .seed(random.next())
          .check();
      Blocked()
          .channels(in, out)
          .sides(w, h)
          .kernel(1)
          .input_layout(layout)
          .seed(random.next())
          .check();
      if (HasFatalFailure()) return;
    }
}

TEST(ConvBlocked, EverySideAndStrideByBlockWidths) {
  uint64_t seed = 1;
  for (int w : kSides)
    for (int h : kSides)
      for (int stride : {1, 2})
        for (uint32_t layout : kLayouts) {
          for (int out : {1, 4, 8, 16, 29})
            for (int in : {1, 4, 8, 13})
              Blocked()
                  .channels(in, out)
                  .sides(w, h)
                  .stride(stride)
                  .input_layout(layout)
                  .seed(seed++)
                  .check();
          for (int channels : {2, 4, 8, 13, 40})
            Blocked()
                .depthwise(channels)
                .sides(w, h)
                .stride(stride)
                .input_layout(layout)
                .seed(seed++)
                .check();
          if (HasFatalFailure()) return;
        }
}

TEST(ConvBlocked, EveryTileSizeOfARow) {
  for (int w = 1; w <= 32; w++)
    for (int stride : {1, 2}) {
      Blocked().channels(8, 24).sides(w, 3).stride(stride).seed(w).check();
      Blocked().channels(9, 21).sides(3, w).stride(stride).seed(w).check();
      Blocked().depthwise(8).sides(w, 3).stride(stride).seed(w).check();
      for (int out : {21, 24, 61}) Blocked().channels(9, out).sides(w, 1).kernel(1).seed(w).check();
    }
}

// Depthwise rows go in pairs: every height by every end of a row.
TEST(ConvBlocked, EveryHeightOfRowPairs) {
  for (int h = 1; h <= 9; h++)
    for (int w = 1; w <= 8; w++)
      for (int stride : {1, 2})
        Blocked().depthwise(13).sides(w, h).stride(stride).seed(h * 8 + w).check();
}

// Images larger than what a strip of pixels or rows holds.
TEST(ConvBlocked, StripsMeet) {
  Blocked().channels(40, 29).sides(41, 53).kernel(1).check();
  Blocked().channels(700, 21).sides(11, 11).kernel(1).input_layout(ZYN_LAYOUT_BLOCKED).check();
  for (int stride : {1, 2}) Blocked().channels(37, 21).sides(33, 140).stride(stride).check();
}

TEST(ConvBlocked, EpilogueIsAppliedOnceWhereTheLastSumArrives) {
  for (int32_t activation :
       {ZYN_EPILOGUE_NONE, ZYN_EPILOGUE_RELU, ZYN_EPILOGUE_HARD_SWISH, ZYN_EPILOGUE_HARD_SIGMOID}) {
    Blocked().channels(21, 29).sides(7, 9).activation(activation).check();
    Blocked().channels(21, 29).sides(7, 9).kernel(1).activation(activation).check();
    Blocked().depthwise(13).sides(7, 9).activation(activation).check();
  }
}

TEST(ConvBlocked, BiasPassAddsPerChannel) {
  for (int channels : {3, 4, 13, 16}) {
    const int pixels = 6;
    PageEnd<float> data(static_cast<size_t>(channels) * pixels), weights(channels * 3u);
    for (int i = 0; i < channels * 2; i++) weights[i] = 0.5f;
    for (int i = 0; i < channels; i++) weights[channels * 2 + i] = static_cast<float>(i + 1);
    for (float& v : data) v = 10;
    zyn_conv_param p = Blocked().channels(2, channels).kernel(1).param();
    zyn_tensor tensor = view(data.data(), 3, 2, channels, ZYN_LAYOUT_BLOCKED);
    ASSERT_EQ(zyn_cg_conv_add_bias_blocked(&tensor, &tensor, weights.data(), &p), 0u);
    for (int c = 0; c < channels; c++)
      for (int i = 0; i < pixels; i++)
        ASSERT_EQ(data[blocked_index(channels, pixels, c, i)], 10 + c + 1);
    p.out_channels++;
    EXPECT_EQ(zyn_cg_conv_add_bias_blocked(&tensor, &tensor, weights.data(), &p), 1u);
  }
}

TEST(ConvBlocked, BlocksOfEightFourAndOne) {
  for (int channels = 1; channels <= 29; channels++)
    for (int pixels : {1, 7, 8, 9, 40}) {
      PageEnd<float> planar(static_cast<size_t>(channels) * pixels), blocked(planar.size()),
          back(planar.size());
      for (size_t i = 0; i < planar.size(); i++) planar[i] = static_cast<float>(i);
      zyn_block_planes(blocked.data(), planar.data(), channels, pixels);
      for (int c = 0; c < channels; c++)
        for (int i = 0; i < pixels; i++)
          ASSERT_EQ(blocked[blocked_index(channels, pixels, c, i)],
                    planar[static_cast<size_t>(c) * pixels + i]);
      zyn_unblock_planes(back.data(), blocked.data(), channels, pixels);
      ASSERT_EQ(memcmp(back.data(), planar.data(), planar.size() * sizeof(float)), 0);
    }
}

// Refusals leave the output as it was.
TEST(ConvBlocked, RefusesWhatItHasNoKernelFor) {
  struct Case {
    const char* label;
    void (*change)(zyn_conv_param*, zyn_tensor*);
    uint32_t code;
  };
  const Case cases[] = {
      {"stride (1,2)", [](zyn_conv_param* p, zyn_tensor*) { p->stride_w = 2; }, 4},
      {"stride 3", [](zyn_conv_param* p, zyn_tensor*) { p->stride_h = p->stride_w = 3; }, 4},
      {"kernel 5", [](zyn_conv_param* p, zyn_tensor*) { p->kernel_h = p->kernel_w = 5; }, 4},
      {"kernel 3x1", [](zyn_conv_param* p, zyn_tensor*) { p->kernel_w = 1; }, 4},
      {"dilation", [](zyn_conv_param* p, zyn_tensor*) { p->dilation_h = 2; }, 4},
      {"output sized for no padding", [](zyn_conv_param*, zyn_tensor* o) { o->dims[0] -= 2; }, 4},
      {"output channels", [](zyn_conv_param* p, zyn_tensor*) { p->out_channels = 7; }, 1},
      {"input channels", [](zyn_conv_param* p, zyn_tensor*) { p->in_channels = 9; }, 1},
      {"no data", [](zyn_conv_param*, zyn_tensor* o) { o->data = nullptr; }, 1}};
  std::vector<float> weights(8 * 8 * 9, 1.0f), in(8 * 25, 1.0f), out(8 * 25, 5.0f);
  const int32_t count[1] = {8 * 8 * 9};
  zyn_tensor constant = {};
  zyn_set_tensor_header(&constant, 1, count, ZYN_TYPE_F32);
  zyn_set_tensor_data(&constant, weights.data(), constant.byte_size);
  zyn_conv_param good = Blocked().param();
  zyn_conv_blocked_weights* workspace = zyn_cg_conv_prepare_direct(&constant, &good, 1);
  ASSERT_NE(workspace, nullptr);
  const zyn_tensor input = view(in.data(), 5, 5, 8, 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    for (bool depthwise : {false, true}) {
      zyn_conv_param p = good;
      zyn_tensor output = view(out.data(), 5, 5, 8, 0);
      c.change(&p, &output);
      EXPECT_EQ(depthwise ? zyn_cg_dwconv3x3(&output, &input, workspace, &p)
                          : zyn_cg_conv3x3(&output, &input, workspace, &p),
                c.code);
      EXPECT_EQ(output.layout, 0u);
    }
  }
  zyn_tensor strided = view(out.data(), 3, 3, 8, 0);
  EXPECT_EQ(zyn_cg_conv1x1(&strided, &input, workspace->packed, &good), 4u) << "1x1 with stride";
  EXPECT_EQ(zyn_cg_conv3x3(nullptr, &input, workspace, &good), 1u);
  EXPECT_EQ(zyn_cg_conv1x1(&strided, &input, nullptr, &good), 1u);
  for (float v : out) ASSERT_EQ(v, 5.0f);
  zyn_cg_conv_release_direct(&workspace);
}

TEST(ConvBlocked, ThreadCountIsClampedAndFailuresLoseNothing) {
  std::vector<float> weights(8 * 8 * 9, 1.0f), in(8 * 25, 1.0f), out(8 * 25);
  const int32_t count[1] = {8 * 8 * 9};
  zyn_tensor constant = {};
  zyn_set_tensor_header(&constant, 1, count, ZYN_TYPE_F32);
  zyn_set_tensor_data(&constant, weights.data(), constant.byte_size);
  const zyn_conv_param p = Blocked().param();
  const int32_t asked[] = {-5, 0, 1, 16, 100};
  const uint32_t stored[] = {1, 1, 1, 16, 16};
  for (int i = 0; i < 5; i++) {
    zyn_conv_blocked_weights* workspace = zyn_cg_conv_prepare_direct(&constant, &p, asked[i]);
    ASSERT_NE(workspace, nullptr);
    EXPECT_EQ(workspace->thread_count, stored[i]);
    zyn_tensor output = view(out.data(), 5, 5, 8, 0);
    const zyn_tensor planar = view(in.data(), 5, 5, 8, ZYN_LAYOUT_PLANAR);
    const zyn_tensor blocked = view(in.data(), 5, 5, 8, ZYN_LAYOUT_BLOCKED);
    {
      zyn_test::FailingAllocations failing(1);
      out.assign(out.size(), 5.0f);
      EXPECT_EQ(zyn_cg_conv3x3(&output, &planar, workspace, &p), 2u);
      EXPECT_EQ(output.layout, 0u);
      EXPECT_EQ(out, std::vector<float>(out.size(), 0.0f)) << "nothing but zeros written";
    }
    zyn_test::FailingAllocations failing(1);
    EXPECT_EQ(zyn_cg_conv3x3(&output, &blocked, workspace, &p), 0u) << "no copy of blocked inputs";
    zyn_cg_conv_release_direct(&workspace);
  }
  zyn_tensor missing = constant;
  missing.data = nullptr;
  EXPECT_EQ(zyn_cg_conv_prepare_direct(&missing, &p, 1), nullptr);
  EXPECT_EQ(zyn_cg_conv_prepare_direct(nullptr, &p, 1), nullptr);
}

}  // namespace

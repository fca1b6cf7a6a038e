// The planar direct kernels on buffers that end at an inaccessible page: integers, so that
// every order of summation gives the same, around every width and height that changes
// what a kernel does.
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "support/failing.h"
#include "support/reference.h"

namespace {

using namespace zyn_test;

zyn_tensor view(float* data, int w, int h, int c) {
  const int32_t dims[3] = {w, h, c};
  zyn_tensor tensor = {};
  EXPECT_EQ(zyn_set_tensor_header(&tensor, 3, dims, ZYN_TYPE_F32), 0);
  EXPECT_EQ(zyn_set_tensor_data(&tensor, data, tensor.byte_size), 0);
  return tensor;
}

class Planar {
 public:
  Planar(const zyn_conv_param& p, int w, int h) : p_(p), w_(w), h_(h) {
    ow_ = out_extent(w, p.kernel_h, p.stride_h, p.pad_h, p.dilation_h);
    oh_ = out_extent(h, p.kernel_w, p.stride_w, p.pad_w, p.dilation_w);
  }
  Planar& out(int ow, int oh) { return ow_ = ow, oh_ = oh, *this; }
  Planar& activation(int code) { return activation_ = code, fused_ = true, *this; }
  Planar& seed(uint64_t s) { return seed_ = s, *this; }

  void check() {
    SCOPED_TRACE(describe(p_, w_, h_) + " seed " + std::to_string(seed_));
    Random random(seed_);
    Array in({w_, h_, p_.in_channels}), weights({weight_count(p_)});
    in.v = small_integers(random, in.v.size(), 6);
    weights.v = small_integers(random, weights.v.size(), 4);
    const size_t channels = static_cast<size_t>(p_.out_channels);
    const auto bias = small_integers(random, channels, 9);
    const Array expected = reference_conv(in, weights, p_, false, ow_, oh_);
    PageEnd<float> input(in.v.size()), constant(weights.v.size()), biases(channels);
    PageEnd<float> output(expected.v.size());
    std::copy(in.v.begin(), in.v.end(), input.data());
    std::copy(weights.v.begin(), weights.v.end(), constant.data());
    std::copy(bias.begin(), bias.end(), biases.data());
    const zyn_tensor from = view(input.data(), w_, h_, p_.in_channels);
    zyn_tensor to = view(output.data(), ow_, oh_, p_.out_channels);
    const zyn_conv_epilogue epilogue = {biases.data(), activation_};
    for (int round = 0; round < 2; round++) {  // what an earlier run left does not count
      ASSERT_EQ(run(&to, &from, constant.data(), fused_ ? &epilogue : nullptr), 0u);
      for (size_t i = 0; i < expected.v.size(); i++) {
        const size_t channel = i / static_cast<size_t>(ow_ * oh_);
        const double y = activate(expected.v[i] + (fused_ ? bias[channel] : 0), activation_);
        ASSERT_NEAR(static_cast<double>(output[i]), y, activation_ > 1 ? std::fabs(y) * 3e-7 : 0)
            << "element " << i << " of " << ow_ << "x" << oh_;
      }
    }
  }
  uint32_t run(zyn_tensor* to, const zyn_tensor* from, const float* constant,
               const zyn_conv_epilogue* epilogue) const {
    if (is_depthwise(p_)) return zyn_cg_dwconv_planar(to, from, constant, &p_, epilogue);
    return p_.kernel_h == 1 && p_.kernel_w == 1
               ? zyn_cg_conv1x1_planar(to, from, constant, &p_, epilogue)
               : zyn_cg_conv_planar(to, from, constant, &p_, epilogue);
  }

 private:
  zyn_conv_param p_;
  int w_, h_, ow_, oh_;
  int activation_ = ZYN_EPILOGUE_NONE;
  bool fused_ = false;
  uint64_t seed_ = 1;
};

constexpr int kWidths[] = {1, 2, 3, 5, 7, 8, 9, 10, 15, 16, 17, 18, 24, 25, 31, 33, 40};

TEST(ConvPlanar, FixedKernelsOnEveryWidthAndHeight) {
  uint64_t seed = 1;
  for (int kernel : {3, 5})
    for (int stride : {1, 2})
      for (int h = 1; h <= 13; h++)  // six rows take the ring, five the small-image kernel
        for (int w : kWidths) {
          const int pad = kernel / 2;
          Planar(conv_param(3, 3, kernel, stride, pad, 3), w, h).seed(seed++).check();
          Planar(conv_param(1 + h % 4, 1 + w % 7, kernel, stride, pad), w, h).seed(seed++).check();
          if (HasFatalFailure()) return;
        }
}

TEST(ConvPlanar, PointwiseOverEveryPixelAndChannelRemainder) {
  uint64_t seed = 1;
  for (int pixels = 1; pixels <= 50; pixels++)
    for (int out = 1; out <= 9; out++)
      Planar(conv_param(1 + out % 4, out, 1, 1, 0), pixels, 1).seed(seed++).check();
  // One pixel: four products at a time, then the rest.
  for (int in = 1; in <= 17; in++)
    Planar(conv_param(in, 1 + in % 11, 1, 1, 0), 1, 1).seed(seed++).activation(in % 3).check();
}

TEST(ConvPlanar, AnyPaddingStrideAndDilationIsTheStraightforwardConvolution) {
  Random random(11);
  for (int i = 0; i < 1500; i++) {
    const AnyLayer l = any_layer(random);
    Planar(l.p, l.w, l.h).seed(random.next()).check();
    if (HasFatalFailure()) return;
  }
}

TEST(ConvPlanar, OutputsOfAnotherSizeThanTheKernelAssumesAreFilledAsAsked) {
  for (int groups : {1, 4})
    for (int kernel : {1, 3, 5})
      for (int out : {1, 4, 9, 19})
        Planar(conv_param(4, 4, kernel, 1, kernel / 2, groups), 9, 7).out(out, 20 - out).check();
}

TEST(ConvPlanar, FarTapsAndWideStepsDoNotGrowTheCopiedRows) {
  zyn_conv_param p = conv_param(1, 1, 2, 1, 1 << 28);
  p.dilation_h = p.dilation_w = 1 << 29;
  Planar(p, 5, 4).check();
  p = conv_param(2, 2, 3, 1 << 30, 1, 1);
  Planar(p, 6, 6).check();
  p.groups = 2;
  Planar(p, 6, 6).check();
}

TEST(ConvPlanar, EpilogueFollowsEveryKernel) {
  for (int activation :
       {ZYN_EPILOGUE_NONE, ZYN_EPILOGUE_RELU, ZYN_EPILOGUE_HARD_SWISH, ZYN_EPILOGUE_HARD_SIGMOID})
    for (int h : {4, 9})
      for (int kernel : {1, 2, 3, 5})
        for (int stride : {1, 2})
          for (int groups : {1, 5})
            Planar(conv_param(5, 5, kernel, stride, kernel / 2, groups), 19, h)
                .activation(activation)
                .check();
}

TEST(ConvPlanar, MissingArgumentsAndOtherChannelCountsAreRefused) {
  for (int kernel : {1, 3})
    for (int groups : {1, 4}) {
      const Planar layer(conv_param(4, 4, kernel, 1, kernel / 2, groups), 5, 6);
      std::vector<float> data(4 * 4 * 30, 7.0f), weights(200);
      zyn_tensor sound = view(data.data(), 5, 6, 4), three = view(data.data(), 5, 6, 3);
      zyn_tensor empty = sound;
      empty.data = nullptr;
      EXPECT_EQ(layer.run(&sound, &sound, nullptr, nullptr), 1u);
      for (zyn_tensor* bad : {static_cast<zyn_tensor*>(nullptr), &empty, &three}) {
        EXPECT_EQ(layer.run(bad, &sound, weights.data(), nullptr), 1u);
        EXPECT_EQ(layer.run(&sound, bad, weights.data(), nullptr), 1u);
      }
      for (float v : data) ASSERT_EQ(v, 7.0f);
    }
}

TEST(ConvPlanar, CopiedRowsWithoutMemoryAnswerTwo) {
  for (int h : {4, 8})
    for (int stride : {1, 2})
      for (int groups : {1, 2}) {
        const int pad = groups == 1 ? 1 : 0;
        const zyn_conv_param p = conv_param(2, 2, 3, stride, pad, groups);
        std::vector<float> in_data(2 * 9 * 8, 1.0f), out_data(2 * 9 * 8), weights(36, 1.0f);
        const zyn_tensor in = view(in_data.data(), 9, h, 2);
        zyn_tensor out = view(out_data.data(), out_extent(9, 3, stride, pad, 1),
                              out_extent(h, 3, stride, pad, 1), 2);
        const int64_t needed = for_each_failing_allocation([&](int64_t, bool) {
          const uint32_t code = Planar(p, 9, h).run(&out, &in, weights.data(), nullptr);
          EXPECT_TRUE(code == 0 || code == 2) << code;
          return code == 0;
        });
        EXPECT_GE(needed, 1);
      }
}

TEST(ConvPlanar, PassesOverAFinishedOutput) {
  const struct {
    uint32_t (*pass)(zyn_tensor*, const zyn_tensor*, const float*, const zyn_conv_param*);
    int activation;
  } passes[] = {{zyn_cg_conv_add_bias, ZYN_EPILOGUE_NONE},
                {zyn_cg_conv_add_bias_relu, ZYN_EPILOGUE_RELU},
                {zyn_cg_conv_add_bias_hard_swish, ZYN_EPILOGUE_HARD_SWISH},
                {zyn_cg_conv_add_bias_hard_sigmoid, ZYN_EPILOGUE_HARD_SIGMOID}};
  Random random(5);
  for (const auto& pass : passes)
    for (int groups : {1, 3})
      for (int w : {1, 7, 8, 19}) {
        const zyn_conv_param p = conv_param(3, 3, 2, 1, 0, groups);
        const auto values = small_integers(random, static_cast<size_t>(9 * w), 5);
        const auto bias = small_integers(random, 3, 5);
        const size_t weights = static_cast<size_t>(weight_count(p));
        PageEnd<float> data(values.size()), other(values.size()), constant(weights + 3);
        std::copy(values.begin(), values.end(), data.data());
        std::fill(constant.begin(), constant.end(), 100.0f);
        std::copy(bias.begin(), bias.end(), constant.data() + weights);
        zyn_tensor in = view(data.data(), w, 3, 3), out = view(other.data(), w, 3, 3);
        zyn_tensor narrow = view(other.data(), w, 3, 2);
        EXPECT_EQ(pass.pass(&narrow, &narrow, constant.data(), &p), 1u);
        EXPECT_EQ(pass.pass(&narrow, &in, constant.data(), &p), 1u);
        ASSERT_EQ(pass.pass(&out, &in, constant.data(), &p), 0u);
        ASSERT_EQ(pass.pass(&in, &in, constant.data(), &p), 0u);
        for (size_t i = 0; i < values.size(); i++) {
          const double sum = values[i] + bias[i / static_cast<size_t>(3 * w)];
          ASSERT_NEAR(static_cast<double>(other[i]), activate(sum, pass.activation),
                      pass.activation > 1 ? 3e-6 : 0);
          ASSERT_EQ(data[i], other[i]);
        }
      }
}

}  // namespace

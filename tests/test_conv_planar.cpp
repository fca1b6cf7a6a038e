// The planar kernels around every width and height that changes what a kernel does.
#include "support/conv_kernel.h"

namespace {

using namespace zyn_test;

KernelLayer planar(const zyn_conv_param& p, int w, int h) { return KernelLayer(0, p, w, h); }

TEST(ConvPlanar, FixedKernelsOnEveryWidthAndHeight) {
  uint64_t seed = 1;
  for (int kernel : {3, 5})
    for (int stride : {1, 2})
      for (int h = 1; h <= 13; h++)  // six rows take the ring, five the small-image kernel
        for (int w : {1, 2, 3, 5, 7, 8, 9, 10, 15, 16, 17, 18, 24, 25, 31, 33, 40}) {
          const int pad = kernel / 2;
          planar(conv_param(3, 3, kernel, stride, pad, 3), w, h).seed(seed++).check();
          planar(conv_param(1 + h % 4, 1 + w % 7, kernel, stride, pad), w, h).seed(seed++).check();
          if (HasFatalFailure()) return;
        }
}

TEST(ConvPlanar, PointwiseOverEveryPixelAndChannelRemainder) {
  uint64_t seed = 1;
  for (int pixels = 1; pixels <= 50; pixels++)
    for (int out = 1; out <= 9; out++)
      planar(conv_param(1 + out % 4, out, 1, 1, 0), pixels, 1).seed(seed++).check();
  // One pixel: four products at a time, then the rest.
  for (int in = 1; in <= 17; in++)
    planar(conv_param(in, 1 + in % 11, 1, 1, 0), 1, 1).seed(seed++).epilogue(in % 3).check();
}

TEST(ConvPlanar, AnyPaddingStrideAndDilationIsTheStraightforwardConvolution) {
  Random random(11);
  for (int i = 0; i < 1500 && !HasFatalFailure(); i++) {
    const AnyLayer l = any_layer(random);
    planar(l.p, l.w, l.h).seed(random.next()).check();
  }
  for (int groups : {1, 4})  // outputs of another size than the kernel assumes
    for (int kernel : {1, 3, 5})
      for (int out : {1, 4, 9, 19})
        planar(conv_param(4, 4, kernel, 1, kernel / 2, groups), 9, 7).out(out, 20 - out).check();
}

// Neither time nor memory grows with them.
TEST(ConvPlanar, FarTapsWideStepsAndDeepPadding) {
  zyn_conv_param p = conv_param(1, 1, 2, 1, 1 << 28);
  p.dilation_h = p.dilation_w = 1 << 29;
  planar(p, 5, 4).check();
  for (int groups : {1, 2}) {
    planar(conv_param(2, 2, 3, 1 << 30, 1, groups), 6, 6).check();
    planar(conv_param(2, 2, 3, 1 << 27, 1 << 27, groups), 3, 2).check();
    // Several strips of output columns, whose zeros lie in different places.
    p = conv_param(2, 2, 1, 1, 0, groups);
    p.kernel_h = 250, p.stride_h = 251, p.pad_h = 600000;
    planar(p, 9000, 3).check();
    p.stride_h = 200;
    planar(p, 9000, 3).check();
  }
  p = conv_param(1, 1, 2000, 1, 2000);  // far fewer rows and columns than taps
  planar(p, 2, 1).out(9, 5).check();
}

TEST(ConvPlanar, EpilogueFollowsEveryKernel) {
  for (int activation :
       {ZYN_EPILOGUE_NONE, ZYN_EPILOGUE_RELU, ZYN_EPILOGUE_HARD_SWISH, ZYN_EPILOGUE_HARD_SIGMOID})
    for (int h : {4, 9})
      for (int kernel : {1, 2, 3, 5})
        for (int stride : {1, 2})
          for (int groups : {1, 5})
            planar(conv_param(5, 5, kernel, stride, kernel / 2, groups), 19, h)
                .epilogue(activation)
                .check();
}

TEST(ConvPlanar, MissingArgumentsAndOtherChannelCountsAreRefused) {
  for (int kernel : {1, 3})
    for (int groups : {1, 4}) {
      const KernelLayer layer = planar(conv_param(4, 4, kernel, 1, kernel / 2, groups), 5, 6);
      std::vector<float> data(4 * 4 * 30, 7.0f);
      zyn_tensor sound = tensor_over(data.data(), 5, 6, 4);
      zyn_tensor three = tensor_over(data.data(), 5, 6, 3), empty = sound;
      empty.data = nullptr;
      EXPECT_EQ(layer.run(&sound, &sound, nullptr, nullptr), 1u);
      for (zyn_tensor* bad : {static_cast<zyn_tensor*>(nullptr), &empty, &three}) {
        EXPECT_EQ(layer.run(bad, &sound, &sound, nullptr), 1u);
        EXPECT_EQ(layer.run(&sound, bad, &sound, nullptr), 1u);
      }
      for (float v : data) ASSERT_EQ(v, 7.0f);
    }
}

TEST(ConvPlanar, CopiedRowsWithoutMemoryAnswerTwo) {
  for (int h : {4, 8})
    for (int stride : {1, 2})
      for (int groups : {1, 2})
        planar(conv_param(2, 2, 3, stride, groups == 1 ? 1 : 0, groups), 9, h)
            .check_failing_allocations();
}

TEST(ConvPlanar, BiasAndReluOverAFinishedOutput) {
  Random random(5);
  for (int groups : {1, 3})
    for (int w : {1, 7, 8, 19}) {
      const zyn_conv_param p = conv_param(3, 3, 2, 1, 0, groups);
      const auto values = small_integers(random, static_cast<size_t>(9 * w), 5);
      const size_t weights = static_cast<size_t>(weight_count(p));
      PageEnd<float> data(values.size()), other(values.size()), constant(weights + 3);
      std::copy(values.begin(), values.end(), data.data());
      std::fill(constant.begin(), constant.end(), 100.0f);
      for (size_t c = 0; c < 3; c++) constant[weights + c] = 1.0f + static_cast<float>(c);
      zyn_tensor in = tensor_over(data.data(), w, 3, 3), out = tensor_over(other.data(), w, 3, 3);
      zyn_tensor narrow = tensor_over(other.data(), w, 3, 2);
      EXPECT_EQ(zyn_cg_conv_add_bias(&narrow, &narrow, constant.data(), &p), 1u);
      EXPECT_EQ(zyn_cg_conv_add_bias(&narrow, &in, constant.data(), &p), 1u);
      EXPECT_EQ(zyn_cg_conv_relu(&narrow, &in), 1u);
      ASSERT_EQ(zyn_cg_conv_add_bias(&out, &in, constant.data(), &p), 0u);
      ASSERT_EQ(zyn_cg_conv_relu(&in, &out), 0u);
      for (size_t i = 0; i < values.size(); i++) {
        const double sum = values[i] + 1.0 + static_cast<double>(i / static_cast<size_t>(3 * w));
        ASSERT_EQ(static_cast<double>(other[i]), sum);
        ASSERT_EQ(static_cast<double>(data[i]), std::max(sum, 0.0));
      }
    }
}

}  // namespace

// The planned convolution kernels and the general multiply. Two oracles, both written from
// the formula: exact integer sums, and for random reals the chain of fused multiply-adds in
// ascending order of terms, which every walk must reproduce bit by bit.
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"
#include "support/conv_kernel.h"

namespace {

using namespace zyn_test;

KernelLayer planned(int in, int out, int w, int h, int kernel, int stride, int pad,
                    int groups = 1) {
  return KernelLayer(2, conv_param(in, out, kernel, stride, pad, groups), w, h);
}
KernelLayer depthwise(int c, int w, int h, int kernel, int stride) {
  return planned(c, c, w, h, kernel, stride, kernel / 2, c);
}

TEST(PlannedConv, PointwiseRoundEveryTileEdge) {
  // Columns round 8, 16 and 24, one pixel to several groups; channels round the blocks of
  // 4 and 6 and round two and three blocks at once.
  for (int pixels : {1, 2, 7, 8, 9, 15, 16, 17, 20, 23, 24, 25, 28, 31, 33, 41, 47, 80, 97})
    for (int out : {1, 4, 5, 6, 8, 10, 12, 16, 18, 20})
      planned(3, out, pixels, 1, 1, 1, 0).epilogue(out % 2).check(true);
  for (int in : {1, 2, 3, 4, 5, 7, 64, 511, 512, 513, 1100})
    planned(in, 13, 5, 7, 1, 1, 0).check(true);
  // Planes whose rows share few cache sets are copied into panels first.
  for (int out : {4, 6, 9}) planned(61, out, 32, 32, 1, 1, 0).epilogue(0).check(true);
  planned(40, 7, 9, 113, 1, 1, 0).check(true);
}

TEST(PlannedConv, DenseKindsOverSizesStridesAndChannels) {
  for (int kernel : {3, 5})
    for (int stride : {1, 2})
      for (int size : {1, 2, 3, 5, 7, 8, 9, 14, 17, 24, 25, 40}) {
        planned(3, 6, size, 7, kernel, stride, kernel / 2).check(true);
        planned(2, 10, 7, size, kernel, stride, kernel / 2).epilogue(1).check(true);
        planned(5, 12, size, size, kernel, stride, kernel / 2).check(true);
      }
  // Several strips, wide and flat.
  planned(30, 5, 60, 40, 3, 1, 1).check(true);
  planned(64, 6, 9, 70, 3, 1, 1).check(true);
  planned(3, 16, 150, 33, 3, 2, 1).epilogue(0).check(true);
  planned(40, 4, 21, 60, 5, 2, 2).check(true);
}

TEST(PlannedConv, GenericKindForEverythingElse) {
  for (int kernel : {1, 2, 3, 4, 5, 6, 7})
    for (int pad : {0, 1, 2, 3})
      for (int stride : {1, 2, 3})
        for (int size : {1, 6, 11})
          if (size + 2 * pad >= kernel)
            planned(2, 5, size, size + 1, kernel, stride, pad).check(true);
  // The column matrix in several parts; and neither time nor memory grows with the rest.
  planned(9, 5, 90, 71, 4, 1, 3).check();
  planned(1, 3, 3, 2, 200, 3, 200).check();
  planned(2, 2, 3, 2, 3, 1 << 27, 1 << 27).check();
}

TEST(PlannedConv, DepthwiseKindsOverSizes) {
  for (int kernel : {3, 5})
    for (int stride : {1, 2})
      for (int size : {1, 2, 3, 4, 5, 7, 8, 9, 10, 14, 15, 16, 17, 18, 19, 20, 31, 32, 33, 40})
        for (int other : {1, 3, 4, 5, 8}) {
          depthwise(3, size, other, kernel, stride).check(true);
          depthwise(2, other, size, kernel, stride).epilogue(1).check(true);
        }
  // More than the second cache level holds.
  for (int stride : {1, 2}) depthwise(5, 420, 310, 3, stride).check();
}

// Narrow planes are computed 8 channels at a time; the channels left over and the other
// planes go row by row.
TEST(PlannedConv, DepthwiseByEightChannels) {
  for (int stride : {1, 2})
    for (int w : {1, 2, 3, 5, 7, 8, 10, 13, 16, 19, 20, 21})
      for (int h : {1, 2, 4, 7, 15, 40}) depthwise(11, w, h, 3, stride).epilogue(h % 2).check(true);
  for (int channels : {7, 8, 16, 17}) depthwise(channels, 6, 300, 3, 1).check();
}

TEST(PlannedConv, EveryActivationOnEveryKindAndFailingAllocations) {
  for (KernelLayer layer :
       {planned(3, 5, 9, 5, 1, 1, 0), planned(3, 6, 2, 2, 1, 1, 0), planned(3, 7, 9, 5, 3, 1, 1),
        planned(3, 6, 30, 5, 5, 2, 2), planned(3, 5, 9, 5, 2, 1, 0), planned(3, 9, 2, 2, 2, 1, 0),
        depthwise(3, 19, 5, 3, 1), depthwise(8, 9, 5, 3, 1), depthwise(3, 5, 5, 5, 2)}) {
    layer.check_failing_allocations();
    for (int activation : {0, 1, 2, 4}) layer.epilogue(activation).check();
  }
}

struct KindCase {
  int kernel, pad, stride, dense, depthwise;  // -1: refused
};
constexpr KindCase kKinds[] = {
    {1, 0, 1, 5, -1}, {1, 0, 2, 0, -1}, {1, 1, 1, 0, -1}, {3, 1, 1, 1, 6},  {3, 1, 2, 2, 7},
    {3, 1, 3, 0, -1}, {3, 0, 1, 0, -1}, {3, 2, 2, 0, -1}, {5, 2, 1, 3, 8},  {5, 2, 2, 4, 9},
    {5, 2, 3, 0, -1}, {5, 1, 1, 0, -1}, {2, 0, 1, 0, -1}, {7, 3, 1, 0, -1},
};

TEST(ConvPlan, PicksKindBlockAndSizes) {
  for (const KindCase& k : kKinds) {
    SCOPED_TRACE("kernel " + std::to_string(k.kernel) + " pad " + std::to_string(k.pad) +
                 " stride " + std::to_string(k.stride));
    zyn_conv_plan p = {};
    for (int channels : {1, 10, 12}) {
      ASSERT_EQ(zyn_cg_conv_plan(4, channels, 17, 9, k.kernel, k.pad, k.stride, 1, 3, &p), 0u);
      const uint32_t block = channels == 12 ? 6 : 4;
      EXPECT_EQ(p.kind, k.dense);
      EXPECT_EQ(p.channel_block, block);
      EXPECT_EQ(p.micro, channels == 12 ? zyn_gemm_micro_6x16 : zyn_gemm_micro_4x16);
      EXPECT_EQ(p.panel_width, 16u);
      EXPECT_EQ(p.padded_rows, k.dense == 0 ? channels : channels == 1 ? 4u : 12u);
      EXPECT_EQ(p.output_w, (17u + 2 * k.pad - k.kernel) / k.stride + 1);
      EXPECT_EQ(p.output_h, (9u + 2 * k.pad - k.kernel) / k.stride + 1);
      EXPECT_EQ(p.output_pixels, p.output_w * p.output_h);
      for (uint32_t terms : {p.k, p.weights_per_output, p.weights_per_row})
        EXPECT_EQ(terms, 4u * k.kernel * k.kernel);
      EXPECT_EQ(p.output_channels, static_cast<uint32_t>(channels));
      EXPECT_EQ(p.threads, 3u);
    }
    EXPECT_EQ(zyn_cg_conv_plan(4, 4, 17, 9, k.kernel, k.pad, k.stride, 4, 1, &p),
              k.depthwise < 0 ? 1u : 0u);
    if (k.depthwise >= 0) {
      EXPECT_EQ(p.kind, k.depthwise);
      EXPECT_EQ(p.padded_rows, 1u);
      EXPECT_EQ(p.k, 4u * k.kernel * k.kernel);
    }
  }
}

TEST(ConvPlan, RefusesWhatNoKernelComputes) {
  zyn_conv_plan p = {};
  const int huge = INT32_MAX;
  const struct {
    int w, h, kernel, pad, stride, groups;
    uint32_t code;
  } cases[] = {{2, 2, 5, 2, 1, 1, 0}, {2, 2, 5, 1, 1, 1, 1},  {9, 4, 5, 0, 1, 1, 1},
               {4, 9, 5, 0, 1, 1, 1}, {9, 9, 3, 1, 1, 2, 1},  {9, 9, 3, 1, 0, 1, 1},
               {9, 9, 0, 1, 1, 1, 1}, {9, 9, 3, -1, 1, 1, 1}, {huge, huge, 1, huge, 1, 1, 1}};
  for (const auto& c : cases)
    EXPECT_EQ(zyn_cg_conv_plan(4, 8, c.w, c.h, c.kernel, c.pad, c.stride, c.groups, 1, &p), c.code);
  EXPECT_EQ(zyn_cg_conv_plan(huge, huge, 9, 9, 3, 1, 1, 1, 1, &p), 1u);
  EXPECT_EQ(zyn_cg_conv_plan(4, 4, 9, 9, 3, 1, 1, 1, 1, nullptr), 1u);

  std::vector<float> data(4 * 4 * 9, 1.0f);
  const zyn_tensor input = tensor_over(data.data(), 6, 6, 4);
  const zyn_tensor weights = tensor_over(data.data(), 144, 1, 1);
  const zyn_tensor short_by_one = tensor_over(data.data(), 143, 1, 1);
  const zyn_conv_param good = conv_param(4, 4, 3, 1, 1);
  const uint32_t threads = 1;
  auto refused = [&](const zyn_conv_param& q, const zyn_tensor* w) {
    zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&input, w, &q, &threads);
    return !plan || zyn_cg_conv_release_planned(&plan) != 0;
  };
  EXPECT_FALSE(refused(good, &weights));
  EXPECT_TRUE(refused(good, &short_by_one));
  EXPECT_TRUE(refused(good, nullptr));
  for (int32_t zyn_conv_param::*field :
       {&zyn_conv_param::kernel_w, &zyn_conv_param::pad_w, &zyn_conv_param::stride_w,
        &zyn_conv_param::dilation_h, &zyn_conv_param::dilation_w}) {
    zyn_conv_param q = good;
    q.*field += 1;
    EXPECT_TRUE(refused(q, &weights));
  }
}

TEST(ConvPlan, RunRefusesWhatWasNotPlanned) {
  std::vector<float> data(144, 1.0f), out(144);
  const zyn_tensor input = tensor_over(data.data(), 6, 6, 4);
  const zyn_tensor weights = tensor_over(data.data(), 144, 1, 1);
  zyn_tensor output = tensor_over(out.data(), 6, 6, 4);
  const zyn_conv_param param = conv_param(4, 4, 3, 1, 1);
  const uint32_t threads = 0;
  zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&input, &weights, &param, &threads);
  ASSERT_NE(plan, nullptr);
  const auto run = zyn_cg_conv_run_planned;
  EXPECT_EQ(run(&output, &input, &weights, &param, plan), 0u);
  EXPECT_EQ(run(nullptr, &input, &weights, &param, plan), 1u);
  EXPECT_EQ(run(&output, nullptr, &weights, &param, plan), 1u);
  EXPECT_EQ(run(&output, &input, nullptr, &param, plan), 1u);
  EXPECT_EQ(run(&output, &input, &weights, nullptr, plan), 1u);
  EXPECT_EQ(run(&output, &input, &weights, &param, nullptr), 1u);
  for (int dim = 0; dim < 3; dim++) {
    zyn_tensor narrow = input, small = output;
    narrow.dims[dim]--;
    small.dims[dim]--;
    EXPECT_EQ(run(&output, &narrow, &weights, &param, plan), 1u);
    EXPECT_EQ(run(&small, &input, &weights, &param, plan), 1u);
  }
  zyn_conv_param other = param;
  other.out_channels = 3;
  EXPECT_EQ(run(&output, &input, &weights, &other, plan), 1u);
  EXPECT_EQ(zyn_cg_conv_release_planned(&plan), 0u);
  EXPECT_EQ(plan, nullptr);
  EXPECT_EQ(zyn_cg_conv_release_planned(&plan), 1u);
  EXPECT_EQ(zyn_cg_conv_release_planned(nullptr), 1u);
}

// alpha * A x B + beta * C with the roundings in the documented places: runs of run terms,
// each a chain of fused multiply-adds, scaled, then joined to the output.
void expect_product(int m, int n, int k, int run, float alpha, float beta, const PageEnd<float>& a,
                    int lda, const PageEnd<float>& b, int ldb, const PageEnd<float>& before,
                    const PageEnd<float>& after, int ldc) {
  for (int i = 0; i < m; i++)
    for (int j = 0; j < ldc && static_cast<size_t>(i) * ldc + j < after.size(); j++) {
      float want = before[i * ldc + j];
      for (int first = 0; j < n && first < k; first += run) {
        float chain = 0;
        for (int t = first; t < k && t < first + run; t++)
          chain = fmaf(a[i * lda + t], b[static_cast<size_t>(t) * ldb + j], chain);
        const float factor = first == 0 ? beta : 1.0f;
        want = factor != 0 ? fmaf(factor, want, alpha * chain) : alpha * chain;
      }
      ASSERT_EQ(after[i * ldc + j], want) << "row " << i << " column " << j;
    }
}

TEST(Gemm, MacroKernelAtEveryEdge) {
  const struct {
    int block, width;
    zyn_gemm_micro micro;
  } kernels[] = {
      {6, 16, zyn_gemm_micro_6x16}, {4, 16, zyn_gemm_micro_4x16}, {8, 8, zyn_gemm_micro_8x8}};
  for (const auto& kernel : kernels)
    for (int m : {1, 4, 5, 6, 8, 9, 13})
      for (int n : {1, 8, 16, 17, 24, 25, 41, 49})
        for (float beta : {0.0f, 1.0f, -0.5f}) {
          SCOPED_TRACE(std::to_string(kernel.block) + " rows: " + std::to_string(m) + " x " +
                       std::to_string(n));
          const int k = 7, ldc = n + 1;
          PageEnd<float> a(m * k), b(k * n), before(m * ldc - 1), after(m * ldc - 1);
          PageEnd<float> pa((m + kernel.block - 1) / kernel.block * kernel.block * k);
          PageEnd<float> pb((n + kernel.width - 1) / kernel.width * kernel.width * k);
          fill_reals(a, 1);
          fill_reals(b, 2);
          fill_reals(before, 3);
          memcpy(after.data(), before.data(), before.size() * sizeof(float));
          zyn_gemm_pack_weights(m, k, kernel.block, a.data(), k, pa.data());
          zyn_gemm_pack_panels(k, n, kernel.width, b.data(), n, pb.data());
          zyn_gemm_macro(m, n, k, 1.5f, beta, after.data(), ldc, pa.data(), pb.data(), kernel.block,
                         kernel.width, kernel.micro);
          expect_product(m, n, k, k, 1.5f, beta, a, k, b, n, before, after, ldc);
        }
}

TEST(Gemm, GeneralMultiplyInBlocksOf512) {
  const int cases[][3] = {{1, 1, 1},   {1, 1, 1600},  {5, 1, 513},  {37, 3, 70}, {3, 5, 512},
                          {512, 7, 9}, {513, 9, 5},   {9, 512, 3},  {7, 513, 4}, {2, 1025, 2},
                          {33, 65, 9}, {16, 7, 1030}, {70, 80, 520}};
  for (const auto& c : cases)
    for (float beta : {0.0f, 0.75f}) {
      const int m = c[0], n = c[1], k = c[2], lda = k + 1, ldb = n + 2, ldc = n + 3;
      SCOPED_TRACE(std::to_string(m) + " x " + std::to_string(n) + " x " + std::to_string(k));
      PageEnd<float> a((m - 1) * lda + k), b((k - 1) * ldb + n);
      PageEnd<float> before((m - 1) * ldc + n), after((m - 1) * ldc + n);
      fill_reals(a, 1);
      fill_reals(b, 2);
      fill_reals(before, 3);
      memcpy(after.data(), before.data(), before.size() * sizeof(float));
      ASSERT_EQ(
          zyn_cg_sgemm(m, n, k, -1.25f, beta, a.data(), lda, b.data(), ldb, after.data(), ldc), 0u);
      expect_product(m, n, k, 512, -1.25f, beta, a, lda, b, ldb, before, after, ldc);
    }
}

// A layer with one output pixel has a path of its own: the sums of the general multiply, bit
// by bit, with one block of terms and with several.
TEST(Gemm, OnePixelSumsAsTheGeneralMultiplyDoes) {
  for (int channels : {1, 5, 56, 57, 120})
    for (int rows : {1, 7, 8, 9, 17, 33, 70}) {
      SCOPED_TRACE(std::to_string(channels) + ">" + std::to_string(rows));
      const int k = channels * 9;
      PageEnd<float> input(k), weights(static_cast<size_t>(rows) * k), output(rows), want(rows);
      fill_reals(input, 1);
      fill_reals(weights, 2);
      const zyn_conv_param p = conv_param(channels, rows, 3, 1, 0);
      const zyn_tensor in = tensor_over(input.data(), 3, 3, channels);
      const zyn_tensor w = tensor_over(weights.data(), static_cast<int>(weights.size()), 1, 1);
      zyn_tensor out = tensor_over(output.data(), 1, 1, rows);
      const uint32_t threads = 1;
      zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&in, &w, &p, &threads);
      ASSERT_EQ(zyn_cg_conv_run_planned(&out, &in, &w, &p, plan), 0u);
      EXPECT_EQ(zyn_cg_conv_release_planned(&plan), 0u);
      ASSERT_EQ(zyn_cg_sgemm(rows, 1, k, 1, 0, weights.data(), k, input.data(), 1, want.data(), 1),
                0u);
      for (int r = 0; r < rows; r++) EXPECT_EQ(output[r], want[r]) << "row " << r;
    }
}

TEST(Gemm, GeneralMultiplyRefusalsAndMemory) {
  float a[4] = {1, 2, 3, 4}, b[4] = {1, 0, 0, 1}, c[4] = {9, 9, NAN, 9};
  EXPECT_EQ(zyn_cg_sgemm(2, 2, 2, 1, 0, nullptr, 2, b, 2, c, 2), 1u);
  EXPECT_EQ(zyn_cg_sgemm(0, 2, 2, 1, 0, a, 2, b, 2, c, 2), 1u);
  EXPECT_EQ(zyn_cg_sgemm(2, 2, 2, 1, 0, a, 1, b, 2, c, 2), 1u);
  EXPECT_EQ(for_each_failing_allocation([&](int64_t n, bool) {
              c[0] = 9;
              const uint32_t code = zyn_cg_sgemm(2, 2, 2, 1, 0, a, 2, b, 2, c, 2);
              EXPECT_EQ(code, n <= 1 ? 2u : 0u);
              EXPECT_EQ(c[0], n <= 1 ? 9.0f : 1.0f);
              return code == 0;
            }),
            1);
  EXPECT_EQ(c[2], 3.0f) << "with beta 0 the output is not read";
}

}  // namespace

// The planned convolution kernels and the general multiply. Two oracles, both written
// from the formula: exact integer sums, and for random reals the chain of fused
// multiply-adds in ascending order of terms, which every walk must reproduce bit by bit.
#include <gtest/gtest.h>
#include <math.h>

#include <sstream>
#include <string>
#include <vector>

#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"
#include "matrix/zyn_tensor.h"
#include "support/buffers.h"
#include "support/failing.h"

namespace {

using zyn_test::PageEnd;
using zyn_test::Random;

enum class Fill { kIntegers, kReals };

void fill(PageEnd<float>& data, Fill how, uint64_t seed) {
  Random random(seed);
  for (float& value : data)
    value = how == Fill::kIntegers ? static_cast<float>(random.integer(-4, 4))
                                   : random.real(-1.0f, 1.0f);
}

float activate(float y, int activation) {
  const float gate = fminf(fmaxf(y + 3.0f, 0.0f), 6.0f);
  if (activation == 1) return y > 0 ? y : 0.0f;
  if (activation == 2) return y * gate * (1.0f / 6.0f);
  if (activation == 4) return gate * (1.0f / 6.0f);
  return y;
}

zyn_tensor tensor_over(float* data, int w, int h, int c) {
  zyn_tensor tensor = {};
  const int32_t dims[] = {w, h, c};
  zyn_set_tensor_header(&tensor, 3, dims, ZYN_TYPE_F32);
  tensor.data = data;
  return tensor;
}

// One layer through plan and run.
class Planned {
 public:
  Planned& in(int w, int h, int c) { return w_ = w, h_ = h, in_ = c, *this; }
  Planned& out(int c) { return out_ = c, *this; }
  Planned& depthwise(int c) { return in_ = out_ = groups_ = c, *this; }
  Planned& kernel(int k) { return kernel_ = k, *this; }
  Planned& pad(int p) { return pad_ = p, *this; }
  Planned& stride(int s) { return stride_ = s, *this; }
  Planned& bias(bool b) { return bias_ = b, *this; }
  Planned& activation(int a) { return activation_ = a, *this; }

  zyn_conv_param param() const {
    zyn_conv_param p = {};
    p.in_channels = in_;
    p.out_channels = out_;
    p.kernel_h = p.kernel_w = kernel_;
    p.stride_h = p.stride_w = stride_;
    p.pad_h = p.pad_w = pad_;
    p.dilation_h = p.dilation_w = 1;
    p.groups = groups_;
    return p;
  }
  int out_w() const { return (w_ + 2 * pad_ - kernel_) / stride_ + 1; }
  int out_h() const { return (h_ + 2 * pad_ - kernel_) / stride_ + 1; }
  int inputs() const { return groups_ == 1 ? in_ : 1; }
  int terms() const { return inputs() * kernel_ * kernel_; }
  size_t weight_count() const { return static_cast<size_t>(out_) * terms(); }
  size_t input_count() const { return static_cast<size_t>(in_) * w_ * h_; }
  size_t output_count() const { return static_cast<size_t>(out_) * out_w() * out_h(); }
  zyn_tensor input_tensor(float* data) const { return tensor_over(data, w_, h_, in_); }
  std::string name() const {
    std::ostringstream s;
    s << in_ << ">" << out_ << " " << w_ << "x" << h_ << " k" << kernel_ << " s" << stride_ << " p"
      << pad_ << " groups " << groups_ << " activation " << activation_;
    return s.str();
  }

  // Both data kinds; the library's and the oracle's outputs must be equal bit by bit.
  void check() const {
    SCOPED_TRACE(name());
    for (Fill how : {Fill::kIntegers, Fill::kReals}) {
      PageEnd<float> input(input_count()), weights(weight_count()), bias(out_);
      PageEnd<float> output(output_count());
      fill(input, how, 1);
      fill(weights, how, 2);
      fill(bias, how, 3);
      const zyn_tensor in = input_tensor(input.data());
      const zyn_tensor w = tensor_over(weights.data(), static_cast<int>(weight_count()), 1, 1);
      zyn_tensor out = tensor_over(output.data(), out_w(), out_h(), out_);
      const zyn_conv_param p = param();
      const uint32_t threads = 1;
      zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&in, &w, &p, &threads);
      ASSERT_NE(plan, nullptr);
      const zyn_conv_epilogue epilogue = {bias_ ? bias.data() : nullptr, activation_};
      for (int run = 0; run < 2; run++) {
        fill(output, Fill::kReals, 4);
        ASSERT_EQ(zyn_cg_conv_run_planned_fused(&out, &in, &w, &p, plan, &epilogue), 0u);
      }
      EXPECT_EQ(zyn_cg_conv_release_planned(&plan), 0u);
      compare(input, weights, bias, output, how);
      if (::testing::Test::HasFailure()) return;
    }
  }

 private:
  void compare(const PageEnd<float>& input, const PageEnd<float>& weights,
               const PageEnd<float>& bias, const PageEnd<float>& output, Fill how) const {
    const int ow = out_w(), oh = out_h(), taps = kernel_ * kernel_;
    for (size_t i = 0; i < output.size(); i++) {
      const int x = static_cast<int>(i) % ow, y = static_cast<int>(i) / ow % oh;
      const int oc = static_cast<int>(i) / (ow * oh);
      float chain = 0;
      double exact = 0, magnitude = 0;
      for (int k = 0; k < terms(); k++) {
        const int ic = groups_ == 1 ? k / taps : oc;
        const int iy = y * stride_ + k % taps / kernel_ - pad_;
        const int ix = x * stride_ + k % kernel_ - pad_;
        if (iy < 0 || iy >= h_ || ix < 0 || ix >= w_) continue;
        const float a = weights[static_cast<size_t>(oc) * terms() + k];
        const float b = input[(static_cast<size_t>(ic) * h_ + iy) * w_ + ix];
        chain = fmaf(a, b, chain);
        exact += static_cast<double>(a) * b;
        magnitude += fabs(static_cast<double>(a) * b);
      }
      ASSERT_LE(fabs(chain - exact), (terms() + 2) * magnitude / (1 << 24)) << "the oracles differ";
      const float sum = how == Fill::kIntegers ? static_cast<float>(exact) : chain;
      const float want = activate(bias_ ? sum + bias[oc] : sum, activation_);
      ASSERT_EQ(output[i], want) << "channel " << oc << " row " << y << " column " << x
                                 << (how == Fill::kIntegers ? " integers" : " reals");
    }
  }

  int w_ = 5, h_ = 5, in_ = 1, out_ = 1, groups_ = 1, kernel_ = 1, pad_ = 0, stride_ = 1;
  int activation_ = 0;
  bool bias_ = false;
};

TEST(PlannedConv, PointwiseRoundEveryTileEdge) {
  // Columns round 8, 16 and 24, one pixel to several groups; channels round the blocks of
  // 4 and 6 and round two and three blocks at once.
  for (int pixels : {1, 2, 7, 8, 9, 15, 16, 17, 20, 23, 24, 25, 28, 31, 33, 41, 47, 80, 97})
    for (int out : {1, 4, 5, 6, 8, 10, 12, 16, 18, 20})
      Planned().in(pixels, 1, 3).out(out).bias(true).activation(out % 2).check();
  for (int in : {1, 2, 3, 4, 5, 7, 64, 511, 512, 513, 1100}) Planned().in(5, 7, in).out(13).check();
  // Planes whose rows share few cache sets are copied into panels first.
  for (int out : {4, 6, 9}) Planned().in(32, 32, 61).out(out).bias(true).check();
  Planned().in(9, 113, 40).out(7).check();
}

TEST(PlannedConv, DenseKindsOverSizesStridesAndChannels) {
  for (int kernel : {3, 5})
    for (int stride : {1, 2})
      for (int size : {1, 2, 3, 5, 7, 8, 9, 14, 17, 24, 25, 40}) {
        Planned p = Planned().kernel(kernel).pad(kernel / 2).stride(stride);
        p.in(size, 7, 3).out(6).check();
        p.in(7, size, 2).out(10).bias(true).activation(1).check();
        p.in(size, size, 5).out(12).check();
      }
  // Several strips, wide and flat.
  Planned().in(60, 40, 30).out(5).kernel(3).pad(1).check();
  Planned().in(9, 70, 64).out(6).kernel(3).pad(1).check();
  Planned().in(150, 33, 3).out(16).kernel(3).pad(1).stride(2).bias(true).check();
  Planned().in(21, 60, 40).out(4).kernel(5).pad(2).stride(2).check();
}

TEST(PlannedConv, GenericKindForEverythingElse) {
  for (int kernel : {1, 2, 3, 4, 5, 6, 7})
    for (int pad : {0, 1, 2, 3})
      for (int stride : {1, 2, 3})
        for (int size : {1, 6, 11})
          if (size + 2 * pad >= kernel)
            Planned().in(size, size + 1, 2).out(5).kernel(kernel).pad(pad).stride(stride).check();
}

TEST(PlannedConv, DepthwiseKindsOverSizes) {
  for (int kernel : {3, 5})
    for (int stride : {1, 2})
      for (int size : {1, 2, 3, 4, 5, 7, 8, 9, 10, 14, 15, 16, 17, 18, 19, 20, 31, 32, 33, 40})
        for (int other : {1, 3, 4, 5, 8}) {
          Planned p = Planned().kernel(kernel).pad(kernel / 2).stride(stride);
          p.in(size, other, 3).depthwise(3).check();
          p.in(other, size, 2).depthwise(2).bias(true).activation(1).check();
        }
  // More than the second cache level holds.
  for (int stride : {1, 2})
    Planned().in(420, 310, 5).depthwise(5).kernel(3).pad(1).stride(stride).check();
}

// Narrow planes are computed 8 channels at a time; the channels left over and the other
// planes go row by row.
TEST(PlannedConv, DepthwiseByEightChannels) {
  for (int stride : {1, 2})
    for (int w : {1, 2, 3, 5, 7, 8, 10, 13, 16, 19, 20, 21})
      for (int h : {1, 2, 4, 7, 15, 40}) {
        Planned p = Planned().kernel(3).pad(1).stride(stride).bias(w % 2).activation(h % 3);
        p.in(w, h, 11).depthwise(11).check();
      }
  for (int channels : {7, 8, 16, 17})
    Planned().in(6, 300, channels).depthwise(channels).kernel(3).pad(1).check();
}

TEST(PlannedConv, EveryActivationOnEveryKind) {
  const Planned kinds[] = {Planned().in(9, 5, 3).out(5),
                           Planned().in(2, 2, 3).out(6),
                           Planned().in(9, 5, 3).out(7).kernel(3).pad(1),
                           Planned().in(30, 5, 3).out(6).kernel(5).pad(2).stride(2),
                           Planned().in(9, 5, 3).out(5).kernel(2),
                           Planned().in(19, 5, 3).depthwise(3).kernel(3).pad(1),
                           Planned().in(9, 5, 8).depthwise(8).kernel(3).pad(1),
                           Planned().in(5, 5, 3).depthwise(3).kernel(5).pad(2).stride(2)};
  for (Planned p : kinds)
    for (int activation : {0, 1, 2, 4})
      for (bool bias : {false, true}) p.activation(activation).bias(bias).check();
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
  auto plan = [&p](int w, int h, int kernel, int pad, int stride, int groups) {
    return zyn_cg_conv_plan(4, 8, w, h, kernel, pad, stride, groups, 1, &p);
  };
  EXPECT_EQ(plan(2, 2, 5, 2, 1, 1), 0u);
  EXPECT_EQ(plan(2, 2, 5, 1, 1, 1), 1u);
  EXPECT_EQ(plan(9, 4, 5, 0, 1, 1), 1u);
  EXPECT_EQ(plan(4, 9, 5, 0, 1, 1), 1u);
  EXPECT_EQ(plan(9, 9, 3, 1, 1, 2), 1u);
  EXPECT_EQ(plan(9, 9, 3, 1, 0, 1), 1u);
  EXPECT_EQ(plan(9, 9, 0, 1, 1, 1), 1u);
  EXPECT_EQ(plan(9, 9, 3, -1, 1, 1), 1u);
  EXPECT_EQ(plan(INT32_MAX, INT32_MAX, 1, INT32_MAX, 1, 1), 1u);
  EXPECT_EQ(zyn_cg_conv_plan(INT32_MAX, INT32_MAX, 9, 9, 3, 1, 1, 1, 1, &p), 1u);
  EXPECT_EQ(zyn_cg_conv_plan(4, 4, 9, 9, 3, 1, 1, 1, 1, nullptr), 1u);

  std::vector<float> data(4 * 4 * 9, 1.0f);
  const zyn_tensor input = tensor_over(data.data(), 6, 6, 4);
  const zyn_tensor weights = tensor_over(data.data(), 144, 1, 1);
  const zyn_tensor short_by_one = tensor_over(data.data(), 143, 1, 1);
  const zyn_conv_param good = Planned().in(6, 6, 4).out(4).kernel(3).pad(1).param();
  const uint32_t threads = 1;
  auto refused = [&](const zyn_conv_param& q, const zyn_tensor* w) {
    zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&input, w, &q, &threads);
    const bool none = plan == nullptr;
    if (plan) zyn_cg_conv_release_planned(&plan);
    return none;
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
  PageEnd<float> in(6 * 6 * 4), w(144), out(6 * 6 * 4);
  fill(in, Fill::kReals, 1);
  fill(w, Fill::kReals, 2);
  const zyn_tensor input = tensor_over(in.data(), 6, 6, 4);
  const zyn_tensor weights = tensor_over(w.data(), 144, 1, 1);
  zyn_tensor output = tensor_over(out.data(), 6, 6, 4);
  const zyn_conv_param param = Planned().in(6, 6, 4).out(4).kernel(3).pad(1).param();
  const uint32_t threads = 0;
  zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&input, &weights, &param, &threads);
  ASSERT_NE(plan, nullptr);
  auto run = [&](zyn_tensor* o, const zyn_tensor* i, const zyn_tensor* v, const zyn_conv_param* p,
                 const zyn_conv_plan* q) { return zyn_cg_conv_run_planned(o, i, v, p, q); };
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

// A plan without memory for its weights is handed out all the same; running it gives 1.
// Scratch that a run cannot get gives 2 and leaves the output alone.
TEST(ConvPlan, AllocationFailures) {
  const Planned layers[] = {Planned().in(6, 6, 4).out(4).kernel(3).pad(1),
                            Planned().in(6, 6, 4).out(4).kernel(2), Planned().in(2, 2, 4).out(4),
                            Planned().in(9, 9, 4).out(4),
                            Planned().in(9, 9, 4).depthwise(4).kernel(3).pad(1)};
  for (const Planned& layer : layers) {
    SCOPED_TRACE(layer.name());
    const zyn_conv_param param = layer.param();
    PageEnd<float> in(layer.input_count()), w(layer.weight_count()), out(layer.output_count());
    fill(in, Fill::kReals, 1);
    fill(w, Fill::kReals, 2);
    const zyn_tensor input = layer.input_tensor(in.data());
    const zyn_tensor weights = tensor_over(w.data(), static_cast<int>(w.size()), 1, 1);
    zyn_tensor output = tensor_over(out.data(), layer.out_w(), layer.out_h(), 4);
    const uint32_t threads = 1;
    zyn_test::for_each_failing_allocation([&](int64_t n, bool) {
      zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&input, &weights, &param, &threads);
      EXPECT_EQ(plan == nullptr, n == 1);
      if (!plan) return false;
      EXPECT_EQ(plan->weights == nullptr, n == 2);
      out[0] = -77;
      const uint32_t code = zyn_cg_conv_run_planned(&output, &input, &weights, &param, plan);
      EXPECT_TRUE(code == 0 || out[0] == -77);
      if (code != 0) {
        EXPECT_EQ(code, n == 2 ? 1u : 2u);
      }
      zyn_cg_conv_release_planned(&plan);
      return code == 0;
    });
  }
}

TEST(Gemm, PackersRegroupRowsAndColumns) {
  for (int block : {4, 6, 8})
    for (int rows : {1, 3, 4, 6, 7, 9, 17})
      for (int k : {1, 3, 4, 5, 9}) {
        const int blocks = (rows + block - 1) / block, stride = k + 3;
        PageEnd<float> source(static_cast<size_t>(rows - 1) * stride + k);
        PageEnd<float> packed(static_cast<size_t>(blocks) * block * k);
        fill(source, Fill::kReals, 7);
        zyn_gemm_pack_weights(rows, k, block, source.data(), stride, packed.data());
        for (int r = 0; r < blocks * block; r++)
          for (int i = 0; i < k; i++)
            ASSERT_EQ(packed[(r / block * k + i) * block + r % block],
                      r < rows ? source[r * stride + i] : 0.0f);
      }
  for (int width : {8, 16})
    for (int columns : {1, 7, 8, 9, 16, 17, 33})
      for (int k : {1, 5}) {
        const int panels = (columns + width - 1) / width, stride = columns + 2;
        PageEnd<float> source(static_cast<size_t>(k - 1) * stride + columns);
        PageEnd<float> packed(static_cast<size_t>(panels) * width * k);
        fill(source, Fill::kReals, 7);
        zyn_gemm_pack_panels(k, columns, width, source.data(), stride, packed.data());
        for (int c = 0; c < panels * width; c++)
          for (int i = 0; i < k; i++)
            ASSERT_EQ(packed[(c / width * k + i) * width + c % width],
                      c < columns ? source[i * stride + c] : 0.0f);
      }
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
          fill(a, Fill::kReals, 1);
          fill(b, Fill::kReals, 2);
          fill(before, Fill::kReals, 3);
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
      fill(a, Fill::kReals, 1);
      fill(b, Fill::kReals, 2);
      fill(before, Fill::kReals, 3);
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
      fill(input, Fill::kReals, 1);
      fill(weights, Fill::kReals, 2);
      Planned layer = Planned().in(3, 3, channels).out(rows).kernel(3);
      const zyn_conv_param p = layer.param();
      const zyn_tensor in = layer.input_tensor(input.data());
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
  EXPECT_EQ(zyn_test::for_each_failing_allocation([&](int64_t n, bool) {
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

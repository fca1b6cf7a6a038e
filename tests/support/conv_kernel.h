// One convolution layer straight through the kernels of method 0 or 2, on buffers that end
// at an inaccessible page, against the formula.
#pragma once

#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "support/failing.h"
#include "support/reference.h"

namespace zyn_test {

inline zyn_tensor tensor_over(float* data, int w, int h, int c) {
  const int32_t dims[3] = {w, h, c};
  zyn_tensor tensor = {};
  EXPECT_EQ(zyn_set_tensor_header(&tensor, 3, dims, ZYN_TYPE_F32), 0);
  tensor.data = data;
  return tensor;
}

inline void fill_reals(PageEnd<float>& data, uint64_t seed) {
  Random random(seed);
  for (float& value : data) value = random.real(-1.0f, 1.0f);
}

class KernelLayer {
 public:
  KernelLayer(int method, const zyn_conv_param& p, int w, int h)
      : p_(p), method_(method), w_(w), h_(h) {
    ow_ = out_extent(w, p.kernel_h, p.stride_h, p.pad_h, p.dilation_h);
    oh_ = out_extent(h, p.kernel_w, p.stride_w, p.pad_w, p.dilation_w);
  }
  KernelLayer& out(int ow, int oh) { return ow_ = ow, oh_ = oh, *this; }
  KernelLayer& epilogue(int code) { return activation_ = code, fused_ = true, *this; }
  KernelLayer& seed(uint64_t s) { return seed_ = s, *this; }

  // Small integers, so that every order of summation gives the same. An output of reals is
  // in addition the chain of fused multiply-adds in ascending order of terms, bit by bit.
  void check(bool chain = false) {
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
    run_twice(input, constant, biases, output);
    for (size_t i = 0; i < expected.v.size() && !::testing::Test::HasFatalFailure(); i++) {
      const size_t channel = i / static_cast<size_t>(ow_ * oh_);
      const double y = activate(expected.v[i] + (fused_ ? bias[channel] : 0), activation_);
      ASSERT_NEAR(static_cast<double>(output[i]), y, activation_ > 1 ? std::fabs(y) * 3e-7 : 0)
          << "element " << i << " of " << ow_ << "x" << oh_;
    }
    if (!chain || ::testing::Test::HasFatalFailure()) return;
    fill_reals(input, 1), fill_reals(constant, 2);
    run_twice(input, constant, biases, output);
    for (size_t i = 0; i < output.size(); i++)
      ASSERT_EQ(output[i], chain_of(input, constant, biases, static_cast<int>(i))) << "real " << i;
  }

  uint32_t run(zyn_tensor* to, const zyn_tensor* from, const zyn_tensor* constant,
               const zyn_conv_epilogue* epilogue, const zyn_conv_plan* plan = nullptr) const {
    if (method_ == 2) return zyn_cg_conv_run_planned_fused(to, from, constant, &p_, plan, epilogue);
    const auto* weights = static_cast<const float*>(constant ? constant->data : nullptr);
    if (is_depthwise(p_)) return zyn_cg_dwconv_planar(to, from, weights, &p_, epilogue);
    return p_.kernel_h == 1 && p_.kernel_w == 1
               ? zyn_cg_conv1x1_planar(to, from, weights, &p_, epilogue)
               : zyn_cg_conv_planar(to, from, weights, &p_, epilogue);
  }

  // Fails n-th allocations from preparation to run: 0, 2 for scratch, 1 for a plan without
  // weights, and no output but a complete one.
  void check_failing_allocations() {
    SCOPED_TRACE(describe(p_, w_, h_));
    std::vector<float> in(static_cast<size_t>(w_ * h_ * p_.in_channels), 1.0f);
    std::vector<float> weights(static_cast<size_t>(weight_count(p_)), 1.0f);
    std::vector<float> out(static_cast<size_t>(ow_ * oh_ * p_.out_channels));
    const zyn_tensor from = tensor_over(in.data(), w_, h_, p_.in_channels);
    const zyn_tensor w = tensor_over(weights.data(), weight_count(p_), 1, 1);
    zyn_tensor to = tensor_over(out.data(), ow_, oh_, p_.out_channels);
    const uint32_t threads = 1;
    EXPECT_GE(for_each_failing_allocation([&](int64_t n, bool) {
                zyn_conv_plan* plan = nullptr;
                if (method_ == 2) {
                  plan = zyn_cg_conv_prepare_planned(&from, &w, &p_, &threads);
                  EXPECT_EQ(plan == nullptr, n == 1);
                  if (!plan) return false;
                }
                out[0] = -77;
                const uint32_t want = plan && !plan->weights ? 1 : 2;
                const uint32_t code = run(&to, &from, &w, nullptr, plan);
                EXPECT_TRUE(code == 0 || (code == want && out[0] == -77)) << code;
                if (plan) zyn_cg_conv_release_planned(&plan);
                return code == 0;
              }),
              1);
  }

 private:
  // What an earlier run left does not count.
  void run_twice(PageEnd<float>& input, PageEnd<float>& constant, PageEnd<float>& biases,
                 PageEnd<float>& output) const {
    const zyn_tensor from = tensor_over(input.data(), w_, h_, p_.in_channels);
    const zyn_tensor w = tensor_over(constant.data(), weight_count(p_), 1, 1);
    zyn_tensor to = tensor_over(output.data(), ow_, oh_, p_.out_channels);
    const zyn_conv_epilogue epilogue = {biases.data(), activation_};
    const uint32_t threads = 1;
    zyn_conv_plan* plan =
        method_ == 2 ? zyn_cg_conv_prepare_planned(&from, &w, &p_, &threads) : nullptr;
    for (int round = 0; round < 2; round++)
      EXPECT_EQ(run(&to, &from, &w, fused_ ? &epilogue : nullptr, plan), 0u);
    if (plan) zyn_cg_conv_release_planned(&plan);
  }

  float chain_of(const PageEnd<float>& in, const PageEnd<float>& weights,
                 const PageEnd<float>& biases, int i) const {
    const int x = i % ow_, y = i / ow_ % oh_, oc = i / (ow_ * oh_),
              taps = p_.kernel_h * p_.kernel_w;
    const bool depthwise = is_depthwise(p_);
    const int terms = taps * (depthwise ? 1 : p_.in_channels);
    float sum = 0;
    for (int k = 0; k < terms; k++) {
      const int iy = y * p_.stride_w + k % taps / p_.kernel_h - p_.pad_w;
      const int ix = x * p_.stride_h + k % p_.kernel_h - p_.pad_h;
      if (iy < 0 || iy >= h_ || ix < 0 || ix >= w_) continue;
      const int at = ((depthwise ? oc : k / taps) * h_ + iy) * w_ + ix;
      sum = fmaf(weights[static_cast<size_t>(oc * terms + k)], in[static_cast<size_t>(at)], sum);
    }
    if (fused_) sum += biases[static_cast<size_t>(oc)];
    return activation_ == ZYN_EPILOGUE_RELU && !(sum > 0) ? 0.0f : sum;
  }

  zyn_conv_param p_;
  int method_, w_, h_, ow_, oh_;
  int activation_ = ZYN_EPILOGUE_NONE;
  bool fused_ = false;
  uint64_t seed_ = 1;
};

}  // namespace zyn_test

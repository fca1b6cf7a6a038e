// Making and releasing plans.
#include "cg/cpu/kernels/planned/zyn_conv_plan.h"

#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

namespace {

constexpr uint32_t kPanelWidth = 16;
constexpr int32_t kRefused = -1;

int32_t dense_kind(int32_t kernel, int32_t pad, int32_t stride) {
  if (kernel == 1 && pad == 0 && stride == 1) return ZYN_PLAN_POINTWISE;
  if (kernel == 3 && pad == 1 && stride == 1) return ZYN_PLAN_DENSE_3X3;
  if (kernel == 3 && pad == 1 && stride == 2) return ZYN_PLAN_DENSE_3X3_S2;
  if (kernel == 5 && pad == 2 && stride == 1) return ZYN_PLAN_DENSE_5X5;
  if (kernel == 5 && pad == 2 && stride == 2) return ZYN_PLAN_DENSE_5X5_S2;
  return ZYN_PLAN_GENERIC;
}

int32_t depthwise_kind(int32_t kernel, int32_t pad, int32_t stride) {
  // The depthwise kinds follow the dense ones in the same order.
  const int32_t dense = dense_kind(kernel, pad, stride);
  return dense == ZYN_PLAN_GENERIC || dense == ZYN_PLAN_POINTWISE
             ? kRefused
             : dense - ZYN_PLAN_DENSE_3X3 + ZYN_PLAN_DEPTHWISE_3X3;
}

bool is_dense(const zyn_conv_plan* plan) { return plan->kind < ZYN_PLAN_DEPTHWISE_3X3; }

void set_block(zyn_conv_plan* plan, uint32_t channels) {
  const bool six = channels % 6 == 0;
  plan->channel_block = six ? 6 : 4;
  plan->micro = six ? zyn_gemm_micro_6x16 : zyn_gemm_micro_4x16;
  const uint32_t block = plan->channel_block;
  plan->padded_rows =
      plan->kind == ZYN_PLAN_GENERIC ? channels : (channels + block - 1) / block * block;
}

// Rows of a block of the second copy of the weights; 0 where there is none.
int64_t second_block(const zyn_conv_plan* plan) {
  if (zyn_conv_is_by_vector(plan)) return ZYN_GEMM_VECTOR_ROWS;
  return plan->kind == ZYN_PLAN_GENERIC && zyn_conv_in_strips(plan) ? plan->channel_block : 0;
}

// Packs (kinds 1 to 5) or copies the weights, of kind 0 both where its run reads them packed.
void fill_weights(const zyn_conv_plan* plan, const float* weights) {
  const int64_t k = plan->k;
  if (plan->kind == ZYN_PLAN_GENERIC || !is_dense(plan))
    memcpy(plan->weights, weights, static_cast<size_t>(plan->padded_rows * k) * sizeof(float));
  else
    zyn_gemm_pack_weights(plan->output_channels, k, plan->channel_block, weights, k, plan->weights);
  const int64_t block = second_block(plan),
                run = zyn_conv_is_by_vector(plan) ? k : int64_t{ZYN_GEMM_RUN};
  float* second = plan->weights + zyn_conv_second_weights(plan);
  for (int64_t first = 0; block > 0 && first < k; first += run)
    zyn_gemm_pack_weights(plan->output_channels, zyn_smaller(run, k - first), block,
                          weights + first, k,
                          second + first * zyn_round_up(plan->output_channels, block));
}

int64_t weight_floats(const zyn_conv_plan* plan) {
  const int64_t block = second_block(plan);
  return zyn_conv_second_weights(plan) +
         (block ? zyn_round_up(plan->output_channels, block) * plan->k : 0);
}

int64_t in_lines(int64_t floats) { return zyn_round_up(floats, 16); }

// The region of floats floats at *at, which moves behind it; null for none.
float* take_region(float* block, int64_t* at, int64_t floats) {
  float* region = floats > 0 ? block + *at : nullptr;
  *at += in_lines(floats);
  return region;
}

zyn_conv_scratch_sizes scratch_sizes(zyn_conv_plan* plan) {
  if (!is_dense(plan)) return zyn_conv_depthwise_sizes(plan);
  if (zyn_conv_by_planes(plan)) return zyn_conv_planes_sizes(plan);
  return zyn_conv_in_strips(plan) ? zyn_conv_plan_dense(plan) : zyn_conv_scratch_sizes{};
}

// False when memory is short.
bool make_scratch(zyn_conv_plan* plan) {
  const zyn_conv_scratch_sizes sizes = scratch_sizes(plan);
  zyn_conv_scratch* s = &plan->scratch;
  const int64_t floats = in_lines(sizes.strip) + in_lines(sizes.panel) + in_lines(sizes.products) +
                         in_lines(sizes.zeros) + in_lines(sizes.lanes);
  if (floats == 0) return true;
  s->block = zyn_scratch<float>::zeroed(floats + kZynAlignmentFloats).take();
  if (!s->block) return false;
  float* const first = zyn_vector_aligned(s->block);
  int64_t at = 0;
  s->strip = take_region(first, &at, sizes.strip);
  s->panel = take_region(first, &at, sizes.panel);
  s->products = take_region(first, &at, sizes.products);
  s->zeros = take_region(first, &at, sizes.zeros);
  s->lanes = take_region(first, &at, sizes.lanes);
  if (s->lanes) zyn_conv_fill_lanes(plan);
  return true;
}

}  // namespace

uint32_t zyn_cg_conv_plan(int32_t input_channels, int32_t output_channels, int32_t input_w,
                          int32_t input_h, int32_t kernel, int32_t pad, int32_t stride,
                          int32_t groups, uint32_t threads, zyn_conv_plan* plan) {
  if (!plan || input_channels < 1 || output_channels < 1 || input_w < 1 || input_h < 1 ||
      kernel < 1 || pad < 0 || stride < 1)
    return 1;
  const int64_t padded_w = input_w + 2 * static_cast<int64_t>(pad);
  const int64_t padded_h = input_h + 2 * static_cast<int64_t>(pad);
  if (kernel > padded_w || kernel > padded_h) return 1;
  // The sizes that a plan stores, and the weights they stand for, must fit 31 bits.
  int64_t k = 0, weights = 0, pixels = 0;
  const int64_t output_w = (padded_w - kernel) / stride + 1;
  const int64_t output_h = (padded_h - kernel) / stride + 1;
  if (!zyn_multiply(kernel, kernel, &k) || !zyn_multiply(k, input_channels, &k) ||
      !zyn_multiply(k, static_cast<int64_t>(output_channels) + 6, &weights) ||
      weights > INT32_MAX || !zyn_multiply(output_w, output_h, &pixels) || pixels > INT32_MAX)
    return 1;

  zyn_conv_plan p = {};
  if (groups == 1)
    p.kind = dense_kind(kernel, pad, stride);
  else
    p.kind = groups == input_channels ? depthwise_kind(kernel, pad, stride) : kRefused;
  if (p.kind == kRefused) return 1;
  p.panel_width = kPanelWidth;
  p.output_w = static_cast<uint32_t>(output_w);
  p.output_h = static_cast<uint32_t>(output_h);
  p.output_pixels = static_cast<uint32_t>(pixels);
  p.k = p.weights_per_output = p.weights_per_row = static_cast<uint32_t>(k);
  p.output_channels = static_cast<uint32_t>(output_channels);
  p.padded_rows = 1;
  p.threads = threads;
  p.input_channels = input_channels;
  p.input_w = input_w;
  p.input_h = input_h;
  p.kernel = kernel;
  p.stride = stride;
  p.pad = pad;
  if (is_dense(&p)) set_block(&p, p.output_channels);
  *plan = p;
  return 0;
}

zyn_conv_plan* zyn_cg_conv_prepare_planned(const zyn_tensor* input, const zyn_tensor* weights,
                                           const zyn_conv_param* param, const uint32_t* threads) {
  if (!input || !weights || !weights->data || !param || !threads) return nullptr;
  const zyn_conv_shape l = zyn_conv_shape_of(param);
  if (l.kernel_x != l.kernel_y || l.pad_x != l.pad_y || l.stride_x != l.stride_y ||
      l.dilation_x != 1 || l.dilation_y != 1)
    return nullptr;
  zyn_scratch<zyn_conv_plan> plan(1);
  if (!plan ||
      zyn_cg_conv_plan(param->in_channels, param->out_channels, input->dims[0], input->dims[1],
                       l.kernel_x, l.pad_x, l.stride_x, param->groups, *threads, plan.get()) != 0)
    return nullptr;
  const int64_t real_rows = is_dense(plan.get()) ? plan->output_channels : 1;
  if (weights->byte_size / static_cast<int64_t>(sizeof(float)) < real_rows * plan->k)
    return nullptr;
  // On purpose: a plan without memory for weights or scratch is handed out without weights,
  // and each run says so.
  zyn_scratch<float> packed(weight_floats(plan.get()));
  if (packed && make_scratch(plan.get())) {
    plan->weights = packed.take();
    fill_weights(plan.get(), static_cast<const float*>(weights->data));
  }
  return plan.take();
}

uint32_t zyn_cg_conv_release_planned(zyn_conv_plan** workspace) {
  if (!workspace || !*workspace) return 1;
  zyn_free((*workspace)->weights);
  zyn_free((*workspace)->scratch.block);
  zyn_free(*workspace);
  *workspace = nullptr;
  return 0;
}

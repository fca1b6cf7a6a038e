// The entry of the fixed-point convolutions: decides which kernel runs, and what follows.
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"

namespace {

constexpr int32_t kRelu = 1, kHardSwish = 2, kRelu6 = 3;  // activation codes
constexpr int64_t kMostReach = 32;  // extents and strides that are worth padded copies
constexpr int64_t kScratchFactor = 32, kScratchWords = 65536;  // see zyn_fpi.h

bool has_stride(const zyn_fpi_layer& l, int32_t stride) {
  return l.stride_x == stride && l.stride_y == stride;
}

bool is_narrow(const zyn_fpi_layer& l) {
  return (l.kernel_x - int64_t{1}) * l.dilation_x < kMostReach &&
         (l.kernel_y - int64_t{1}) * l.dilation_y < kMostReach && l.stride_x <= kMostReach &&
         l.stride_y <= kMostReach;
}

zyn_fpi_kind choose_dense(const zyn_fpi_layer& l, const zyn_tensor* output) {
  const bool unpadded = l.pad_x == 0 && l.pad_y == 0;
  if (l.kernel_x == 1 && l.kernel_y == 1 && unpadded) return ZYN_FPI_POINTWISE;
  if (!is_narrow(l)) return ZYN_FPI_DENSE_ANY;
  const bool by_pixels = (has_stride(l, 1) || has_stride(l, 2)) &&
                         zyn_fpi_pixels_cost(l, output) <= zyn_fpi_channels_cost(l, output);
  return by_pixels ? ZYN_FPI_DENSE_PIXELS : ZYN_FPI_DENSE_CHANNELS;
}

zyn_fpi_kind choose_depthwise(const zyn_fpi_layer& l, const zyn_tensor* input,
                              const zyn_tensor* output) {
  if (zyn_fpi_suits_depthwise_channels(l, output, input)) return ZYN_FPI_DEPTHWISE_CHANNELS;
  const bool known_stride = has_stride(l, 1) || has_stride(l, 2);
  return known_stride && is_narrow(l) ? ZYN_FPI_DEPTHWISE : ZYN_FPI_DEPTHWISE_ANY;
}

// What a kernel needs besides its arguments; null: nothing.
struct kernel {
  zyn_fpi_kernel* run;
  int64_t (*packed)(const zyn_fpi_plan& plan);
  void (*pack)(zyn_fpi_plan* plan);
  int64_t (*scratch)(const zyn_fpi_layer& layer, const zyn_tensor* output);
};

// A grouping that no kernel serves: zeros, and the epilogue.
uint32_t run_none(const zyn_fpi_plan*, const zyn_fpi_tile_epilogue& epilogue, zyn_tensor* output,
                  const zyn_tensor*) {
  memset(output->data, 0, static_cast<size_t>(output->byte_size));
  zyn_fpi_apply_epilogue(output, epilogue);
  return ZYN_RET_OK;
}

kernel kernel_of(zyn_fpi_kind kind) {
  switch (kind) {
    case ZYN_FPI_POINTWISE:
      return {zyn_fpi_run_1x1, zyn_fpi_packed_1x1, zyn_fpi_pack_1x1, nullptr};
    case ZYN_FPI_DENSE_PIXELS:
      return {zyn_fpi_run_pixels, zyn_fpi_packed_pixels, zyn_fpi_pack_pixels,
              zyn_fpi_scratch_pixels};
    case ZYN_FPI_DENSE_CHANNELS:
      return {zyn_fpi_run_channels, zyn_fpi_packed_channels, zyn_fpi_pack_channels,
              zyn_fpi_scratch_channels};
    case ZYN_FPI_DEPTHWISE:
      return {zyn_fpi_run_depthwise, nullptr, nullptr, zyn_fpi_scratch_depthwise};
    case ZYN_FPI_DEPTHWISE_CHANNELS:
      return {zyn_fpi_run_depthwise_channels, zyn_fpi_packed_depthwise_channels,
              zyn_fpi_pack_depthwise_channels, nullptr};
    case ZYN_FPI_DENSE_ANY:
    case ZYN_FPI_DEPTHWISE_ANY:
      return {zyn_fpi_run_any, nullptr, nullptr, nullptr};
    default:
      return {run_none, nullptr, nullptr, nullptr};
  }
}

// Whether a kernel's scratch stays below the bound for layers of these sizes.
bool is_bounded(zyn_fpi_kind kind, const zyn_fpi_layer& l, const zyn_tensor* input,
                const zyn_tensor* output) {
  const kernel chosen = kernel_of(kind);
  if (!chosen.scratch) return true;
  const int64_t words = chosen.scratch(l, output);
  int64_t most = 0;
  if (!zyn_sum(input->count, output->count, &most) || !zyn_multiply(most, kScratchFactor, &most) ||
      !zyn_sum(most, kScratchWords, &most))
    return words >= 0;
  return words >= 0 && words <= most;
}

zyn_fpi_kind choose(const zyn_conv_param* p, const zyn_fpi_layer& l, const zyn_tensor* input,
                    const zyn_tensor* output) {
  if (p->groups != 1 && !zyn_conv_is_depthwise(p)) return ZYN_FPI_NONE;
  // One channel in and out is both.
  const bool dense = p->groups == 1 && (l.in_channels > 1 || l.out_channels > 1);
  const zyn_fpi_kind kind = dense ? choose_dense(l, output) : choose_depthwise(l, input, output);
  if (is_bounded(kind, l, input, output)) return kind;
  if (kind == ZYN_FPI_DENSE_PIXELS && is_bounded(ZYN_FPI_DENSE_CHANNELS, l, input, output))
    return ZYN_FPI_DENSE_CHANNELS;
  return dense ? ZYN_FPI_DENSE_ANY : ZYN_FPI_DEPTHWISE_ANY;
}

// 6 with q fraction bits, rounded to nearest, halves up; where 16 bits do not hold it, the
// largest value.
int16_t six_with(int32_t q) {
  constexpr int32_t kSix = 6, kMostBits = 12;
  return q > kMostBits ? int16_t{INT16_MAX} : zyn_fpi_rescale1(kSix, 0, q);
}

zyn_fpi_tile_epilogue tile_epilogue_of(const zyn_fpi_epilogue* epilogue, int32_t q_weights,
                                       int32_t q_out) {
  zyn_fpi_tile_epilogue of_tile = {nullptr, q_weights, q_out, INT16_MIN, INT16_MAX};
  if (!epilogue) return of_tile;
  of_tile.bias = epilogue->bias;
  if (epilogue->code == kRelu || epilogue->code == kRelu6) of_tile.low = 0;
  if (epilogue->code == kRelu6) of_tile.high = six_with(q_out);
  return of_tile;
}

}  // namespace

uint32_t zyn_fpi_make_plan(zyn_fpi_plan* plan, const int16_t* weights, const zyn_conv_param* param,
                           int64_t shift, const zyn_tensor* input, const zyn_tensor* output) {
  if (shift < 0 || shift > 31) return ZYN_RET_ERR_PARA;
  zyn_fpi_drop_plan(plan);
  const zyn_fpi_layer layer = {zyn_conv_shape_of(param), param->in_channels, param->out_channels};
  *plan = {choose(param, layer, input, output),
           static_cast<int32_t>(shift),
           layer,
           int64_t{output->dims[0]} * output->dims[1],
           weights,
           nullptr};
  const kernel chosen = kernel_of(plan->kind);
  if (!chosen.pack) return ZYN_RET_OK;
  const int64_t bytes = chosen.packed(*plan) * static_cast<int64_t>(sizeof(int32_t));
  plan->packed = static_cast<int32_t*>(zyn_malloc(bytes));
  if (!plan->packed) {
    *plan = {};
    return ZYN_RET_ERR_MEMORY;
  }
  chosen.pack(plan);
  return ZYN_RET_OK;
}

void zyn_fpi_drop_plan(zyn_fpi_plan* plan) {
  zyn_free(plan->packed);
  *plan = {};
}

uint32_t zyn_fpi_run_plan(const zyn_fpi_plan* plan, zyn_tensor* output, int32_t q_out,
                          const zyn_tensor* input, int32_t q_weights,
                          const zyn_fpi_epilogue* epilogue) {
  if (!plan || !plan->weights || !output || !input || !output->data || !input->data ||
      output->dims[2] != plan->layer.out_channels || input->dims[2] != plan->layer.in_channels)
    return ZYN_RET_ERR_PARA;
  const uint32_t code =
      kernel_of(plan->kind).run(plan, tile_epilogue_of(epilogue, q_weights, q_out), output, input);
  if (code == ZYN_RET_OK && epilogue && epilogue->code == kHardSwish)
    zyn_fpi_hard_swish_any(zyn_fpi_words(output), output->count, q_out);
  return code;
}

uint32_t zyn_cg_fpi_conv2d(zyn_tensor* output, int32_t q_out, const zyn_tensor* input, int32_t q_in,
                           const int16_t* weights, int32_t q_weights, const zyn_conv_param* param,
                           const zyn_fpi_epilogue* epilogue) {
  if (!weights || !param || !output || !input) return ZYN_RET_ERR_PARA;
  zyn_fpi_plan plan = {};
  uint32_t code =
      zyn_fpi_make_plan(&plan, weights, param, int64_t{q_in} + q_weights - q_out, input, output);
  if (code == ZYN_RET_OK) code = zyn_fpi_run_plan(&plan, output, q_out, input, q_weights, epilogue);
  zyn_fpi_drop_plan(&plan);
  return code;
}

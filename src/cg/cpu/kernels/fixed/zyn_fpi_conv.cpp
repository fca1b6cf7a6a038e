// Choice of the fixed-point kernel, and the kernels for every other shape: per output row
// and input channel one row of 32-bit sums.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"

namespace {

constexpr int32_t kRelu = 1, kHardSwish = 2, kRelu6 = 3;  // activation codes
constexpr int64_t kMostReach = 32;  // extents and strides that are worth padded copies

bool is_kernel(const zyn_conv_param& p, int32_t size) {
  return p.kernel_h == size && p.kernel_w == size && p.dilation_h == 1 && p.dilation_w == 1;
}

bool has_stride(const zyn_conv_param& p, int32_t stride) {
  return p.stride_h == stride && p.stride_w == stride;
}

// Whether rows of width outputs cost 16 pixels of one output channel at a time less than one
// pixel of 8: idle lanes, and the vector operations for 16 sums.
bool is_better_by_pixels(const zyn_conv_param& p, int64_t width) {
  const int64_t pixels = (width + 15) / 16 * p.out_channels;
  const int64_t channels = width * ((p.out_channels + int64_t{7}) / 8);
  constexpr int64_t kPixelsCost = 22, kChannelsCost = 15;
  return pixels * kPixelsCost <= channels * kChannelsCost;
}

zyn_fpi_kind choose(const zyn_conv_param& p, int64_t width) {
  const bool known_stride = has_stride(p, 1) || has_stride(p, 2);
  const bool is_narrow = (p.kernel_h - int64_t{1}) * p.dilation_h < kMostReach &&
                         (p.kernel_w - int64_t{1}) * p.dilation_w < kMostReach &&
                         p.stride_h <= kMostReach;
  if (p.groups == 1) {
    const bool unpadded = p.pad_h == 0 && p.pad_w == 0 && has_stride(p, 1);
    if (p.kernel_h == 1 && p.kernel_w == 1 && unpadded) return ZYN_FPI_POINTWISE;
    if (is_kernel(p, 3) && known_stride && is_better_by_pixels(p, width)) return ZYN_FPI_DENSE_3X3;
    return is_narrow ? ZYN_FPI_DENSE_CHANNELS : ZYN_FPI_DENSE_ANY;
  }
  if (!zyn_conv_is_depthwise(&p)) return ZYN_FPI_NONE;
  return known_stride && is_narrow ? ZYN_FPI_DEPTHWISE : ZYN_FPI_DEPTHWISE_ANY;
}

// The outputs x of a row whose input x * stride + offset lies in 0 to width - 1.
struct span {
  int64_t first, end;
};

span inside(int64_t offset, int64_t stride, int64_t width, int64_t count) {
  const int64_t first = offset < 0 ? (-offset + stride - 1) / stride : 0;
  const int64_t end = offset < width ? (width - 1 - offset) / stride + 1 : 0;
  return {first, end < count ? end : count};
}

// sums[x] += weight * in[x * stride + offset] where that input exists.
void add_tap(uint32_t* sums, int64_t count, const int16_t* in, int64_t width, int64_t offset,
             int64_t stride, int32_t weight) {
  const span s = inside(offset, stride, width, count);
  if (stride == 1)  // a loop of its own, which runs in vectors
    for (int64_t x = s.first; x < s.end; x++)
      sums[x] += static_cast<uint32_t>(in[x + offset] * weight);
  else
    for (int64_t x = s.first; x < s.end; x++)
      sums[x] += static_cast<uint32_t>(in[x * stride + offset] * weight);
}

// One row of sums of one input plane under one kernel.
void sum_row(uint32_t* sums, int64_t count, const int16_t* plane, int64_t width, int64_t height,
             int64_t y, const int16_t* weights, const zyn_conv_param& p) {
  memset(sums, 0, static_cast<size_t>(count) * sizeof(uint32_t));
  for (int64_t ky = 0; ky < p.kernel_w; ky++) {
    const int64_t row = y * p.stride_w - p.pad_w + ky * p.dilation_w;
    if (row < 0 || row >= height) continue;
    for (int64_t kx = 0; kx < p.kernel_h; kx++)
      add_tap(sums, count, plane + row * width, width, kx * p.dilation_h - p.pad_h, p.stride_h,
              weights[ky * p.kernel_h + kx]);
  }
}

zyn_fpi_outlet outlet_of(const zyn_fpi_epilogue* epilogue, int32_t q_weights, int32_t q_out) {
  zyn_fpi_outlet outlet = {nullptr, q_weights, q_out, INT16_MIN, INT16_MAX};
  if (!epilogue) return outlet;
  outlet.bias = epilogue->bias;
  if (epilogue->code == kRelu || epilogue->code == kRelu6) outlet.low = 0;
  const int64_t six = int64_t{6} << (q_out & 31);
  if (epilogue->code == kRelu6 && six < INT16_MAX) outlet.high = static_cast<int16_t>(six);
  return outlet;
}

// The outlet over a whole output, for the kernels that do not apply it.
void finish(const zyn_fpi_outlet& outlet, zyn_tensor* output) {
  const int64_t pixels = static_cast<int64_t>(output->dims[0]) * output->dims[1];
  int16_t* out = zyn_fpi_words(output);
  for (int64_t c = 0; c < output->dims[2]; c++, out += pixels) {
    const zyn_fpi_finisher finisher(outlet, c);
    zyn_fpi_map(out, out, pixels, finisher);
  }
}

uint32_t run_kernel(const zyn_fpi_plan* plan, const zyn_fpi_outlet& outlet, zyn_tensor* output,
                    const zyn_tensor* input) {
  switch (plan->kind) {
    case ZYN_FPI_POINTWISE:
      return zyn_fpi_run_1x1(plan, outlet, output, input);
    case ZYN_FPI_DENSE_3X3:
      return zyn_fpi_run_3x3(plan, outlet, output, input);
    case ZYN_FPI_DENSE_CHANNELS:
      return zyn_fpi_run_channels(plan, outlet, output, input);
    case ZYN_FPI_DEPTHWISE:
      return zyn_fpi_run_depthwise(plan, outlet, output, input);
    case ZYN_FPI_DENSE_ANY:
    case ZYN_FPI_DEPTHWISE_ANY:
      return zyn_fpi_run_any(plan, outlet, output, input);
    default:
      memset(output->data, 0, static_cast<size_t>(output->byte_size));
      finish(outlet, output);
      return ZYN_RET_OK;
  }
}

// The kernels that have an order of weights of their own.
struct packing {
  zyn_fpi_kind kind;
  int64_t (*words)(const zyn_conv_param* param);
  void (*pack)(zyn_fpi_plan* plan);
};
constexpr packing kPackings[] = {
    {ZYN_FPI_POINTWISE, zyn_fpi_packed_1x1, zyn_fpi_pack_1x1},
    {ZYN_FPI_DENSE_3X3, zyn_fpi_packed_3x3, zyn_fpi_pack_3x3},
    {ZYN_FPI_DENSE_CHANNELS, zyn_fpi_packed_channels, zyn_fpi_pack_channels}};

}  // namespace

uint32_t zyn_fpi_run_any(const zyn_fpi_plan* plan, const zyn_fpi_outlet& outlet, zyn_tensor* output,
                         const zyn_tensor* input) {
  const zyn_conv_param& p = plan->param;
  const int64_t width = input->dims[0], height = input->dims[1];
  const int64_t out_width = output->dims[0], out_height = output->dims[1];
  const bool depthwise = plan->kind == ZYN_FPI_DEPTHWISE_ANY;
  const int64_t inputs = depthwise ? 1 : p.in_channels;
  const int64_t taps = static_cast<int64_t>(p.kernel_h) * p.kernel_w;
  zyn_scratch<uint32_t> sums(out_width);
  if (!sums) return ZYN_RET_ERR_MEMORY;
  memset(output->data, 0, static_cast<size_t>(output->byte_size));
  int16_t* out = zyn_fpi_words(output);
  for (int64_t o = 0; o < p.out_channels; o++)
    for (int64_t y = 0; y < out_height; y++, out += out_width)
      for (int64_t i = 0; i < inputs; i++) {
        const int64_t channel = depthwise ? o : i;
        sum_row(sums.get(), out_width, zyn_fpi_words(input) + channel * width * height, width,
                height, y, plan->weights + (o * inputs + i) * taps, p);
        for (int64_t x = 0; x < out_width; x++)
          out[x] = zyn_fpi_add1(out[x], zyn_fpi_narrow1(sums[x], plan->shift));
      }
  finish(outlet, output);
  return ZYN_RET_OK;
}

uint32_t zyn_fpi_make_plan(zyn_fpi_plan* plan, const int16_t* weights, const zyn_conv_param* param,
                           int32_t shift, int64_t width) {
  if (shift < 0 || shift > 31) return ZYN_RET_ERR_PARA;
  zyn_fpi_drop_plan(plan);
  *plan = {choose(*param, width), shift, *param, weights, nullptr};
  const packing* found = nullptr;
  for (const packing& candidate : kPackings)
    if (candidate.kind == plan->kind) found = &candidate;
  if (!found) return ZYN_RET_OK;
  const int64_t bytes = found->words(param) * static_cast<int64_t>(sizeof(int32_t));
  plan->packed = static_cast<int32_t*>(zyn_malloc(bytes));
  if (!plan->packed) {
    *plan = {};
    return ZYN_RET_ERR_MEMORY;
  }
  found->pack(plan);
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
      output->dims[2] != plan->param.out_channels || input->dims[2] != plan->param.in_channels)
    return ZYN_RET_ERR_PARA;
  const zyn_fpi_outlet outlet = outlet_of(epilogue, q_weights, q_out);
  const uint32_t code = run_kernel(plan, outlet, output, input);
  if (code == ZYN_RET_OK && epilogue && epilogue->code == kHardSwish)
    zyn_fpi_hard_swish(zyn_fpi_words(output), q_out, zyn_fpi_words(output), q_out, output->count);
  return code;
}

uint32_t zyn_cg_fpi_conv2d(zyn_tensor* output, int32_t q_out, const zyn_tensor* input, int32_t q_in,
                           const int16_t* weights, int32_t q_weights, const zyn_conv_param* param,
                           const zyn_fpi_epilogue* epilogue) {
  if (!weights || !param || !output) return ZYN_RET_ERR_PARA;
  zyn_fpi_plan plan = {};
  uint32_t code =
      zyn_fpi_make_plan(&plan, weights, param, q_in + q_weights - q_out, output->dims[0]);
  if (code == ZYN_RET_OK) code = zyn_fpi_run_plan(&plan, output, q_out, input, q_weights, epilogue);
  zyn_fpi_drop_plan(&plan);
  return code;
}

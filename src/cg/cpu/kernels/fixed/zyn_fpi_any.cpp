// The plain loop for every shape that has no kernel of its own: per output row and input
// channel one row of 32-bit sums, to which every tap that meets the input adds.
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"

namespace {

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
void sum_row(uint32_t* sums, int64_t count, const int16_t* plane, const zyn_tensor* input,
             int64_t y, const int16_t* weights, const zyn_fpi_layer& l) {
  const int64_t width = input->dims[0], height = input->dims[1];
  memset(sums, 0, static_cast<size_t>(count) * sizeof(uint32_t));
  for (int64_t ky = 0; ky < l.kernel_y; ky++) {
    const int64_t row = y * l.stride_y - l.pad_y + ky * l.dilation_y;
    if (row < 0 || row >= height) continue;
    for (int64_t kx = 0; kx < l.kernel_x; kx++)
      add_tap(sums, count, plane + row * width, width, kx * l.dilation_x - l.pad_x, l.stride_x,
              weights[ky * l.kernel_x + kx]);
  }
}

}  // namespace

uint32_t zyn_fpi_run_any(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                         zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t out_width = output->dims[0], out_height = output->dims[1];
  const int64_t plane = int64_t{input->dims[0]} * input->dims[1];
  const bool depthwise = plan->kind == ZYN_FPI_DEPTHWISE_ANY;
  const int64_t inputs = depthwise ? 1 : l.in_channels;
  const int64_t taps = int64_t{l.kernel_x} * l.kernel_y;
  zyn_scratch<uint32_t> sums(out_width);
  if (!sums) return ZYN_RET_ERR_MEMORY;
  memset(output->data, 0, static_cast<size_t>(output->byte_size));
  int16_t* out = zyn_fpi_words(output);
  for (int64_t o = 0; o < l.out_channels; o++)
    for (int64_t y = 0; y < out_height; y++, out += out_width)
      for (int64_t i = 0; i < inputs; i++) {
        sum_row(sums.get(), out_width, zyn_fpi_words(input) + (depthwise ? o : i) * plane, input, y,
                plan->weights + (o * inputs + i) * taps, l);
        for (int64_t x = 0; x < out_width; x++)
          out[x] = zyn_fpi_add1(out[x], zyn_fpi_narrow1(sums[x], plan->shift));
      }
  zyn_fpi_apply_epilogue(output, epilogue);
  return ZYN_RET_OK;
}

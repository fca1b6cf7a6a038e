// Method 2, planned kernels: the run, which checks its arguments and decides by the plan's
// kind (zyn_conv_plan.cpp, which picks the kind):
//   generic                      here: column matrix and general multiply; most of strides 1
//                                and 2 as dense 3x3
//   pointwise                    here: the input's planes are the columns
//   dense 3x3, 5x5               zyn_conv_planned_dense.cpp; 3x3 of 1 or 2 outputs in the last
//   depthwise 3x3 by 8 channels  zyn_conv_planned_dw_lanes.cpp, for small planes
//   other depthwise              zyn_conv_planned_dw.cpp, stride 1 and 2
#include <immintrin.h>
#include <string.h>

#include "base/zyn_memory.h"
#include "base/zyn_platform.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"
#include "cg/cpu/kernels/planar/zyn_conv_planar.h"
#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

namespace {

constexpr int64_t kVector = 8;
constexpr int64_t kCachePage = 4096;  // addresses this far apart share a set of the first level
constexpr int64_t kWays = 12;
// Floats of the column matrix at a time, unless one tile needs more.
constexpr int64_t kMostColumnFloats = 256 * 1024;
constexpr int64_t kMostSlices = 64;  // a larger thread count gets no more scratch

int64_t common_divisor(int64_t a, int64_t b) { return b == 0 ? a : common_divisor(b, a % b); }

// Whether k rows stride floats apart push each other out of the first cache level.
bool rows_collide(int64_t k, int64_t stride) {
  const int64_t apart = kCachePage / common_divisor(stride * 4, kCachePage);
  return k > apart * (kWays - 2);
}

// The output pixels that a part of the column matrix stands for.
struct pixel_run {
  int64_t x, y, count;  // of the first one
};

float* clear(float* to, int64_t count) {
  for (int64_t i = 0; i < count; i++) to[i] = 0.0f;
  return to + count;
}

float* copy(float* to, const float* from, int64_t count, int64_t stride) {
  if (count <= 0) return to;
  if (stride == 1) {
    memcpy(to, from, static_cast<size_t>(count) * sizeof(float));
  } else {
    ZYN_UNROLL_BY(4) for (int64_t i = 0; i < count; i++) to[i] = from[i * stride];
  }
  return to + count;
}

// What tap (ky, kx) of one plane sees under a run of output pixels.
void fill_row(float* to, const float* plane, const zyn_conv_plan* p, int64_t ky, int64_t kx,
              const pixel_run& run) {
  const int64_t w = p->input_w, out_w = p->output_w, stride = p->stride, left = p->pad - kx;
  // Output columns from first to end - 1 see a column of the image.
  const int64_t first = left > 0 ? zyn_units(left, stride) : 0;
  const int64_t end = w + left > 0 ? zyn_smaller(zyn_units(w + left, stride), out_w) : 0;
  int64_t rest = run.count, x = run.x;
  for (int64_t y = run.y; rest > 0; y++, x = 0) {
    const int64_t last = zyn_smaller(x + rest, out_w), iy = y * stride + ky - p->pad;
    rest -= last - x;
    const bool inside = iy >= 0 && iy < p->input_h;
    const int64_t begin = inside ? zyn_larger(x, zyn_smaller(first, last)) : last;
    const int64_t stop = inside ? zyn_larger(begin, zyn_smaller(end, last)) : last;
    to = clear(to, begin - x);
    to = copy(to, plane + iy * w + begin * stride - left, stop - begin, stride);
    to = clear(to, last - stop);
  }
}

// Row ((c * kernel) + ky) * kernel + kx of a part of the column matrix holds what tap
// (ky, kx) of channel c sees.
void fill_columns(float* columns, const float* input, const zyn_conv_plan* p,
                  const pixel_run& run) {
  const int64_t plane = static_cast<int64_t>(p->input_w) * p->input_h;
  for (int64_t c = 0; c < p->input_channels; c++)
    for (int64_t ky = 0; ky < p->kernel; ky++)
      for (int64_t kx = 0; kx < p->kernel; kx++, columns += run.count)
        fill_row(columns, input + c * plane, p, ky, kx, run);
}

// The same for rows of few pixels, where runs are so short that calls would cost more than copies:
// where in a plane each value of a channel's columns lies (-1: outside), then every channel by
// that.
constexpr int64_t kShortRow = 16;
constexpr int64_t kMostPlaces = 4096;
constexpr int32_t kPlacesChannels = 2;  // fewer do not earn the list back

int64_t places_of(const zyn_conv_plan* p, int64_t pixels) {
  const int64_t places = int64_t{p->kernel} * p->kernel * pixels;
  const bool pays = p->output_w < kShortRow && p->input_channels >= kPlacesChannels;
  return pays && pixels > 1 && places <= kMostPlaces ? places : 0;
}

void fill_by_places(float* columns, const float* input, const zyn_conv_plan* p,
                    const pixel_run& run, int32_t* places) {
  const int64_t w = p->input_w, h = p->input_h;
  int64_t count = 0;
  for (int64_t ky = 0; ky < p->kernel; ky++)
    for (int64_t kx = 0; kx < p->kernel; kx++)
      for (int64_t i = 0, x = run.x, y = run.y; i < run.count; i++) {
        const int64_t ix = x * p->stride + kx - p->pad, iy = y * p->stride + ky - p->pad;
        const bool inside = ix >= 0 && ix < w && iy >= 0 && iy < h;
        places[count++] = inside ? static_cast<int32_t>(iy * w + ix) : -1;
        if (++x == p->output_w) x = 0, y++;
      }
  for (int64_t c = 0; c < p->input_channels; c++, input += w * h, columns += count)
    for (int64_t i = 0; i < count; i += kVector) {
      const __m256i lanes = zyn_first_lanes(count - i);
      const __m256i at = _mm256_maskload_epi32(places + i, lanes);
      const __m256i inside = _mm256_and_si256(lanes, _mm256_cmpgt_epi32(at, _mm256_set1_epi32(-1)));
      const __m256 values = _mm256_mask_i32gather_ps(_mm256_setzero_ps(), input, at,
                                                     _mm256_castsi256_ps(inside), sizeof(float));
      _mm256_maskstore_ps(columns + i, lanes, values);
    }
}

// The column of an output of one pixel: a row of taps sees neighbours in the image.
void fill_column(float* column, const float* input, const zyn_conv_plan* p) {
  const int64_t w = p->input_w, h = p->input_h, kernel = p->kernel, pad = p->pad;
  for (int64_t c = 0; c < p->input_channels; c++, input += w * h)
    for (int64_t ky = 0; ky < kernel; ky++) {
      const bool inside = ky >= pad && ky - pad < h;
      const int64_t begin = inside ? zyn_smaller(pad, kernel) : kernel;
      const int64_t end = inside ? zyn_smaller(w + pad, kernel) : kernel;
      column = clear(column, begin);
      column = copy(column, input + (ky - pad) * w + begin - pad, end - begin, 1);
      column = clear(column, kernel - end);
    }
}

bool tensor_is(const zyn_tensor* t, int64_t w, int64_t h, int64_t c) {
  return t->dims[0] == w && t->dims[1] == h && t->dims[2] == c &&
         t->byte_size >= w * h * c * static_cast<int64_t>(sizeof(float));
}

bool plan_is_of(const zyn_conv_plan* plan, const zyn_conv_param* param) {
  const zyn_conv_shape shape = zyn_conv_shape_of(param);
  return plan->input_channels == param->in_channels &&
         plan->output_channels == static_cast<uint32_t>(param->out_channels) &&
         plan->kernel == shape.kernel_x && plan->stride == shape.stride_x &&
         plan->pad == shape.pad_x &&
         (plan->kind < ZYN_PLAN_DEPTHWISE_3X3 || param->in_channels == param->out_channels);
}

// Whether the column matrix costs more than its outputs gain by it over method 0, which copies rows
// once for all taps, leaves out those outside of the image, and takes whole tiles of 16 pixels and
// 4 outputs. In multiply-adds per value of a column.
bool is_better_by_rows(const zyn_conv_plan* p) {
  constexpr int64_t kTile = 16, kChannels = 4;
  constexpr int64_t kShort = 21,
                    kLong = 8;  // what a value costs in a row of under 8 pixels, of more
  const int64_t w = p->output_w, outputs = p->output_channels;
  if (zyn_conv_in_runs(p)) return false;
  if (p->kernel == 1) return outputs < kChannels;
  const int64_t tiles = zyn_round_up(w, kTile) * zyn_round_up(outputs, kChannels);
  return p->kernel > p->stride && p->output_pixels > 1 &&
         tiles * zyn_smaller(p->kernel, p->input_h) <=
             w * (outputs + (w < kVector ? kShort : kLong)) * p->kernel;
}

uint32_t run_by_rows(float* output, const float* input, const zyn_conv_plan* p,
                     const zyn_conv_epilogue& epilogue) {
  return zyn_planar_generic({output,
                             static_cast<int32_t>(p->output_w),
                             static_cast<int32_t>(p->output_h),
                             static_cast<int32_t>(p->output_channels),
                             input,
                             p->input_w,
                             p->input_h,
                             p->input_channels,
                             p->weights,
                             {p->kernel, p->kernel, p->stride, p->stride, p->pad, p->pad, 1, 1},
                             epilogue});
}

}  // namespace

uint32_t zyn_conv_run_generic(float* output, const float* input, const zyn_conv_plan* plan,
                              const zyn_conv_epilogue& epilogue) {
  if (is_better_by_rows(plan)) return run_by_rows(output, input, plan, epilogue);
  const int64_t pixels = plan->output_pixels, k = plan->k, rows = plan->output_channels;
  // Parts are whole tiles, so that they cost no more work than one piece.
  const int64_t tiles = zyn_larger(kMostColumnFloats / k / ZYN_GEMM_WIDE, 1);
  const int64_t part = zyn_smaller(pixels, tiles * ZYN_GEMM_WIDE);
  const int64_t place_count = places_of(plan, part);
  zyn_scratch<float> columns(k * part), panel(zyn_gemm_panel_floats(k));
  zyn_scratch<int32_t> places(place_count);
  if (!columns || !panel || (place_count > 0 && !places)) return 2;
  for (int64_t first = 0; first < pixels; first += part) {
    const pixel_run run = {first % plan->output_w, first / plan->output_w,
                           zyn_smaller(part, pixels - first)};
    if (pixels == 1)
      fill_column(columns.get(), input, plan);
    else if (places)
      fill_by_places(columns.get(), input, plan, run, places.get());
    else
      fill_columns(columns.get(), input, plan, run);
    if (zyn_conv_is_by_vector(plan))
      zyn_gemm_by_vector(rows, k, plan->weights + zyn_conv_second_weights(plan), columns.get(),
                         output);
    else
      zyn_gemm_general({rows, run.count, k, 1.0f, 0.0f, plan->weights, k, columns.get(), run.count,
                        output + first, pixels},
                       panel.get());
  }
  zyn_conv_finish_rows(output, rows, pixels, epilogue);
  return 0;
}

uint32_t zyn_conv_run_pointwise(float* output, const float* input, const zyn_conv_plan* plan,
                                const zyn_conv_epilogue& epilogue) {
  const int64_t pixels = plan->output_pixels, k = plan->k, width = plan->panel_width;
  if (pixels == 1) {
    zyn_gemm_blocks_by_vector(plan->output_channels, k, plan->weights, plan->channel_block, input,
                              output);
    zyn_conv_finish_rows(output, plan->output_channels, 1, epilogue);
    return 0;
  }
  zyn_gemm_rows b = {input, pixels, k, 1, nullptr, nullptr};
  const zyn_gemm_output out = {output, pixels, plan->output_channels, epilogue};
  // At steps of 16 bytes one vector in four straddles cache lines, which costs nothing; planes
  // of one tile are read often enough to be copied even so. Of 512-bit vectors every one does.
  const bool aligned = pixels % kZynVectorFloats == 0 ||
                       (kZynVectorFloats == 8 && pixels % 4 == 0 && pixels > ZYN_GEMM_WIDE);
  constexpr uintptr_t kStep = kZynVectorFloats == 8 ? 16 : 64;
  if (aligned && reinterpret_cast<uintptr_t>(input) % kStep == 0 && !rows_collide(k, pixels)) {
    zyn_gemm_in_place(b, pixels, plan->weights, plan->channel_block, out);
    return 0;
  }
  // Columns are copied where vectors read in place would often straddle cache lines, where rows
  // share few cache sets, and where a plane has less than one vector. One slice of scratch
  // per thread.
  const int64_t strip = zyn_larger(zyn_round_up(plan->output_w, width), ZYN_GEMM_PANEL);
  const int64_t slices = zyn_smaller(zyn_larger(plan->threads, 1), kMostSlices);
  zyn_scratch<float> scratch(slices * strip * k + kZynAlignmentFloats);
  if (!scratch) return 2;
  float* slice =
      zyn_vector_aligned(scratch.get()) + zyn_platform_thread_number() % slices * strip * k;
  if (pixels < kVector) {
    zyn_gemm_pack_panels(k, pixels, width, input, pixels, slice);
    b.base = slice;
    b.channel_stride = width;
  } else {
    b.panel = slice;
  }
  zyn_gemm_in_place(b, pixels, plan->weights, plan->channel_block, out);
  return 0;
}

uint32_t zyn_cg_conv_run_planned_fused(zyn_tensor* output, const zyn_tensor* input,
                                       const zyn_tensor* weights, const zyn_conv_param* param,
                                       const zyn_conv_plan* plan,
                                       const zyn_conv_epilogue* epilogue) {
  if (!output || !output->data || !input || !input->data || !weights || !weights->data || !param ||
      !plan || !plan->weights)
    return 1;
  if (!plan_is_of(plan, param) ||
      !tensor_is(input, plan->input_w, plan->input_h, plan->input_channels) ||
      !tensor_is(output, plan->output_w, plan->output_h, plan->output_channels))
    return 1;
  const zyn_conv_epilogue e = epilogue ? *epilogue : zyn_conv_epilogue{};
  float* to = static_cast<float*>(output->data);
  const float* from = static_cast<const float*>(input->data);
  switch (plan->kind) {
    case ZYN_PLAN_GENERIC:
      return zyn_conv_in_strips(plan) ? zyn_conv_run_dense(to, from, plan, e)
                                      : zyn_conv_run_generic(to, from, plan, e);
    case ZYN_PLAN_POINTWISE:
      return zyn_conv_run_pointwise(to, from, plan, e);
    case ZYN_PLAN_DENSE_3X3:
      return zyn_conv_by_planes(plan) ? zyn_conv_run_planes(to, from, plan, e)
                                      : zyn_conv_run_dense(to, from, plan, e);
    case ZYN_PLAN_DENSE_3X3_S2:
    case ZYN_PLAN_DENSE_5X5:
    case ZYN_PLAN_DENSE_5X5_S2:
      return zyn_conv_run_dense(to, from, plan, e);
    default:
      return zyn_conv_run_depthwise(to, from, plan, e);
  }
}

uint32_t zyn_cg_conv_run_planned(zyn_tensor* output, const zyn_tensor* input,
                                 const zyn_tensor* weights, const zyn_conv_param* param,
                                 const zyn_conv_plan* workspace) {
  return zyn_cg_conv_run_planned_fused(output, input, weights, param, workspace, nullptr);
}

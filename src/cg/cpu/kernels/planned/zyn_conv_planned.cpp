// Running a plan: the checks, the pointwise and generic kinds.
#include <string.h>

#include "base/zyn_memory.h"
#include "base/zyn_platform.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"

namespace {

constexpr int64_t kVector = 8;
constexpr int64_t kCachePage = 4096;  // addresses this far apart share a set of the first level
constexpr int64_t kWays = 12;
constexpr int64_t kMostSlices = 64;  // a larger thread count gets no more scratch

int64_t smaller(int64_t a, int64_t b) { return a < b ? a : b; }
int64_t larger(int64_t a, int64_t b) { return a > b ? a : b; }

int64_t common_divisor(int64_t a, int64_t b) { return b == 0 ? a : common_divisor(b, a % b); }

// Whether k rows stride floats apart push each other out of the first cache level.
bool rows_collide(int64_t k, int64_t stride) {
  const int64_t apart = kCachePage / common_divisor(stride * 4, kCachePage);
  return k > apart * (kWays - 2);
}

struct finish_rows {
  float* data;
  int64_t rows, count;
  const float* bias;
  template <int kActivation>
  void run() const {
    for (int64_t r = 0; r < rows; r++) {
      float* row = data + r * count;
      for (int64_t i = 0; i < count; i += kVector) {
        const __m256i lanes = zyn_first_lanes(smaller(count - i, kVector));
        __m256 y = _mm256_maskload_ps(row + i, lanes);
        if (bias) y = _mm256_add_ps(y, _mm256_broadcast_ss(bias + r));
        _mm256_maskstore_ps(row + i, lanes, zyn_activate<kActivation>(y));
      }
    }
  }
};

// Row ((c * kernel) + ky) * kernel + kx holds what tap (ky, kx) of channel c sees under
// every output pixel.
void fill_columns(float* columns, const float* input, const zyn_conv_plan* p) {
  const int64_t w = p->input_w, h = p->input_h, out_w = p->output_w, out_h = p->output_h;
  for (int64_t c = 0; c < p->input_channels; c++)
    for (int64_t ky = 0; ky < p->kernel; ky++)
      for (int64_t kx = 0; kx < p->kernel; kx++)
        for (int64_t y = 0; y < out_h; y++) {
          const int64_t iy = y * p->stride + ky - p->pad;
          const float* row = input + (c * h + iy) * w;
          for (int64_t x = 0; x < out_w; x++) {
            const int64_t ix = x * p->stride + kx - p->pad;
            *columns++ = iy >= 0 && iy < h && ix >= 0 && ix < w ? row[ix] : 0.0f;
          }
        }
}

bool tensor_is(const zyn_tensor* t, int64_t w, int64_t h, int64_t c) {
  return t->dims[0] == w && t->dims[1] == h && t->dims[2] == c &&
         t->byte_size >= w * h * c * static_cast<int64_t>(sizeof(float));
}

bool plan_is_of(const zyn_conv_plan* plan, const zyn_conv_param* param) {
  return plan->input_channels == param->in_channels &&
         plan->output_channels == static_cast<uint32_t>(param->out_channels) &&
         plan->kernel == param->kernel_h && plan->stride == param->stride_h &&
         plan->pad == param->pad_h &&
         (plan->kind < ZYN_PLAN_DEPTHWISE_3X3 || param->in_channels == param->out_channels);
}

}  // namespace

void zyn_conv_finish_rows(float* data, int64_t rows, int64_t count,
                          const zyn_conv_epilogue& epilogue) {
  if (!epilogue.bias && epilogue.activation == ZYN_EPILOGUE_NONE) return;
  zyn_with_activation(epilogue.activation, finish_rows{data, rows, count, epilogue.bias});
}

uint32_t zyn_conv_run_generic(float* output, const float* input, const zyn_conv_plan* plan,
                              const zyn_conv_epilogue& epilogue) {
  const int64_t pixels = plan->output_pixels, k = plan->k;
  zyn_scratch<float> columns(k * pixels);
  if (!columns) return 2;
  fill_columns(columns.get(), input, plan);
  if (zyn_conv_is_by_vector(plan)) {
    zyn_gemm_by_vector(plan->output_channels, k, plan->weights + zyn_conv_plan_scratch(plan),
                       columns.get(), output);
    zyn_conv_finish_rows(output, plan->output_channels, pixels, epilogue);
    return 0;
  }
  const uint32_t code = zyn_cg_sgemm(static_cast<int32_t>(plan->output_channels),
                                     static_cast<int32_t>(pixels), static_cast<int32_t>(k), 1.0f,
                                     0.0f, plan->weights, k, columns.get(), pixels, output, pixels);
  if (code == 0) zyn_conv_finish_rows(output, plan->output_channels, pixels, epilogue);
  return code;
}

uint32_t zyn_conv_run_pointwise(float* output, const float* input, const zyn_conv_plan* plan,
                                const zyn_conv_epilogue& epilogue) {
  const int64_t pixels = plan->output_pixels, k = plan->k, width = plan->panel_width;
  zyn_gemm_rows b = {input, pixels, k, 1, nullptr, nullptr};
  const zyn_gemm_output out = {output, pixels, plan->output_channels, epilogue};
  // At steps of 16 bytes one vector in four straddles cache lines, which costs nothing; planes
  // of one tile are read often enough to be copied even so.
  const bool aligned = pixels % kVector == 0 || (pixels % 4 == 0 && pixels > ZYN_GEMM_WIDE);
  if (aligned && reinterpret_cast<uintptr_t>(input) % 16 == 0 && !rows_collide(k, pixels)) {
    zyn_gemm_in_place(b, pixels, plan->weights, plan->channel_block, out);
    return 0;
  }
  // Columns are copied where vectors read in place would often straddle cache lines, where rows
  // share few cache sets, and where a plane has less than one vector. One slice of scratch
  // per thread.
  const int64_t strip = larger((plan->output_w + width - 1) / width * width, ZYN_GEMM_WIDE);
  const int64_t slices = smaller(larger(plan->threads, 1), kMostSlices);
  zyn_scratch<float> scratch(slices * strip * k);
  if (!scratch) return 2;
  float* slice = scratch.get() + zyn_platform_thread_number() % slices * strip * k;
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
  const zyn_conv_epilogue finish = epilogue ? *epilogue : zyn_conv_epilogue{};
  float* to = static_cast<float*>(output->data);
  const float* from = static_cast<const float*>(input->data);
  switch (plan->kind) {
    case ZYN_PLAN_GENERIC:
      return zyn_conv_run_generic(to, from, plan, finish);
    case ZYN_PLAN_POINTWISE:
      return zyn_conv_run_pointwise(to, from, plan, finish);
    case ZYN_PLAN_DENSE_3X3:
    case ZYN_PLAN_DENSE_3X3_S2:
    case ZYN_PLAN_DENSE_5X5:
    case ZYN_PLAN_DENSE_5X5_S2:
      return zyn_conv_run_dense(to, from, plan, finish);
    default:
      return zyn_conv_run_depthwise(to, from, plan, finish);
  }
}

uint32_t zyn_cg_conv_run_planned(zyn_tensor* output, const zyn_tensor* input,
                                 const zyn_tensor* weights, const zyn_conv_param* param,
                                 const zyn_conv_plan* workspace) {
  return zyn_cg_conv_run_planned_fused(output, input, weights, param, workspace, nullptr);
}

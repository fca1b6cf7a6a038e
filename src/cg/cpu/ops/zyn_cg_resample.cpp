// Resampling: nearest and bilinear with factors along both axes, and the average of each
// plane. Pixel centres map by the ratio of the extents, so that the output covers the whole
// input; bilinear repeats the edge pixels. Further modes are bound elsewhere.
#include "base/zyn_explain.h"
#include "cg/cpu/ops/zyn_cg_further.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/ops/zyn_cg_resize.h"

namespace {

struct resample_state : zyn_cg_varied_state {
  zyn_resample_param param;
  zyn_cg_resizer resizer;
};

// The mean of a plane. Four vectors of partial sums keep the rounding error of long
// planes small.
float plane_mean(const float* in, int64_t count) {
  __m256 sums[4] = {};
  int64_t i = 0;
  for (; i + 32 <= count; i += 32)
    ZYN_UNROLL for (int k = 0; k < 4; k++) sums[k] =
        _mm256_add_ps(sums[k], _mm256_loadu_ps(in + i + 8 * k));
  for (; i < count; i += 8) {
    const __m256i mask = zyn_first_lanes(count - i < 8 ? count - i : 8);
    sums[0] = _mm256_add_ps(sums[0], _mm256_maskload_ps(in + i, mask));
  }
  const __m256 sum =
      _mm256_add_ps(_mm256_add_ps(sums[0], sums[1]), _mm256_add_ps(sums[2], sums[3]));
  float lanes[8];
  _mm256_storeu_ps(lanes, sum);
  double total = 0.0;
  for (float lane : lanes) total += static_cast<double>(lane);
  return static_cast<float>(total / static_cast<double>(count));
}

int32_t run_resample(void* record) {
  auto* state = static_cast<resample_state*>(record);
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || input->dims[0] != state->shape.dims[0] ||
      zyn_cg_height(input) != state->shape.extent(1) ||
      input->count / zyn_cg_pixels(input) != output->count / zyn_cg_pixels(output))
    return ZYN_RET_ERR_PARA;
  input = zyn_cg_planar(input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  const int64_t pixels = zyn_cg_pixels(input);
  const int64_t planes = input->count / pixels;
  const int64_t width = zyn_cg_width(output), height = zyn_cg_height(output);
  for (int64_t p = 0; p < planes; p++) {
    const float* in = zyn_cg_floats(input) + p * pixels;
    float* out = zyn_cg_floats(output) + p * width * height;
    if (state->param.mode == ZYN_RESAMPLE_GLOBAL_AVERAGE)
      *out = plane_mean(in, pixels);
    else
      zyn_cg_resize_plane(state->resizer, out, in);
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// The taps of both axes, made again for every preparation. Nearest takes the pixel that
// holds the output pixel's first corner, bilinear its centre.
int32_t make_taps(resample_state* state) {
  const bool bilinear = state->param.mode == ZYN_RESAMPLE_BILINEAR;
  const int32_t place = bilinear ? ZYN_PLACE_HALF_PIXEL : ZYN_PLACE_ASYMMETRIC;
  constexpr int32_t kDown = 2;
  return zyn_cg_make_resizer(
      &state->resizer, &state->workspace,
      {state->shape.dims[0], zyn_cg_width(state->output), place, kDown, 0},
      {state->shape.extent(1), zyn_cg_height(state->output), place, kDown, 0}, bilinear);
}

int32_t prepare_resample(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<resample_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  const zyn_resample_param& param = state->param;
  if (param.mode < ZYN_RESAMPLE_NEAREST || param.mode > ZYN_RESAMPLE_GLOBAL_AVERAGE)
    return zyn_refuse(ZYN_RET_ERR_PARA, "there is no mode %d", param.mode);
  zyn_tensor* input = nullptr;
  int32_t code = zyn_cg_only_input(graph, node, &input, nullptr);
  if (code != ZYN_RET_OK) return code;
  const bool global = param.mode == ZYN_RESAMPLE_GLOBAL_AVERAGE;
  int32_t dims[5];
  memcpy(dims, input->dims, sizeof(dims));
  const zyn_cg_pair<float> factor = {param.factor_h, param.factor_w};
  dims[0] = global ? 1 : zyn_cg_scaled_extent(dims[0], factor.x);
  if (input->dim_count > 1) dims[1] = global ? 1 : zyn_cg_scaled_extent(dims[1], factor.y);
  code = zyn_cg_make_output(graph, &state->output, input->dim_count, dims, input->type, nullptr);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = input->layout;
  state->input = input;
  state->shape.dim_count = input->dim_count;
  memcpy(state->shape.dims, input->dims, sizeof(state->shape.dims));
  if (!global) code = make_taps(state);
  if (code != ZYN_RET_OK) return code;
  return zyn_cg_is_fixed_point(graph) ? zyn_cg_no_fixed_point() : ZYN_RET_OK;
}

int32_t bind_resample(zyn_cg_handle* graph, int32_t node, const void* param) {
  if (!param) return ZYN_RET_ERR_PARA;
  switch (zyn_cg_first_word(param)) {
    case ZYN_RESAMPLE_MAX_WINDOW:
    case ZYN_RESAMPLE_AVERAGE_WINDOW:
      return zyn_cg_bind_window(graph, node, param);
    case ZYN_RESAMPLE_RESIZE_NEAREST:
    case ZYN_RESAMPLE_RESIZE_BILINEAR:
      return zyn_cg_bind_resize(graph, node, param);
    case ZYN_RESAMPLE_REDUCE:
      return zyn_cg_bind_reduce(graph, node, param);
    default:
      return zyn_cg_bind_varied<resample_state>(graph, node, param, ZYN_OP_RESAMPLE,
                                                prepare_resample, run_resample);
  }
}

}  // namespace

const zyn_cg_operator zyn_cg_resample_row = {
    bind_resample, zyn_cg_prepare_varied, zyn_cg_release_io,
    zyn_cg_output_if<zyn_cg_varied_state, ZYN_OP_RESAMPLE>, nullptr};

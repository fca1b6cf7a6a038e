// Resampling: nearest and bilinear with factors along both axes, and the average
// of each plane. Pixel centres map by the ratio of the extents, so that the output
// covers the whole input; bilinear repeats the edge pixels.
//
// The workspace holds one tap per output column and row: two source indices and the
// weight of the second.
#include <math.h>

#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

struct resample_state : zyn_cg_io_state {
  zyn_resample_param param;
  int32_t width, height;  // of the input that the workspace is made for
};

// The three arrays of an axis, one entry per output position.
struct axis_taps {
  int32_t* low;
  int32_t* high;
  float* weight;  // of high
};

constexpr int64_t kWordsPerTap = 3;

axis_taps taps_at(void* workspace, int64_t first, int64_t count) {
  auto* words = static_cast<int32_t*>(workspace) + first * kWordsPerTap;
  return {words, words + count, reinterpret_cast<float*>(words + 2 * count)};
}

// Nearest: the pixel that holds the output pixel's first corner, floor(i * in / out).
void fill_nearest(const axis_taps& taps, int64_t in, int64_t out) {
  for (int64_t i = 0; i < out; i++) {
    taps.low[i] = taps.high[i] = static_cast<int32_t>(i * in / out);
    taps.weight[i] = 0.0f;
  }
}

// Bilinear: the place (i + 1/2) * in / out - 1/2 between two pixels, inside the input.
void fill_bilinear(const axis_taps& taps, int64_t in, int64_t out) {
  for (int64_t i = 0; i < out; i++) {
    double place =
        (static_cast<double>(i) + 0.5) * static_cast<double>(in) / static_cast<double>(out) - 0.5;
    if (place < 0) place = 0;
    const auto low = static_cast<int32_t>(place);
    taps.low[i] = low;
    taps.high[i] = low + 1 < in ? low + 1 : static_cast<int32_t>(in - 1);
    taps.weight[i] = static_cast<float>(place - low);
  }
}

// Eight elements of a row at the taps from x on, lanes masked.
__m256 row_nearest(const float* row, const axis_taps& taps, int64_t x, __m256i mask) {
  return _mm256_mask_i32gather_ps(_mm256_setzero_ps(), row,
                                  _mm256_maskload_epi32(taps.low + x, mask),
                                  _mm256_castsi256_ps(mask), 4);
}

__m256 row_bilinear(const float* row, const axis_taps& taps, int64_t x, __m256i mask) {
  const __m256 lanes = _mm256_castsi256_ps(mask);
  const __m256 zero = _mm256_setzero_ps();
  const __m256 low =
      _mm256_mask_i32gather_ps(zero, row, _mm256_maskload_epi32(taps.low + x, mask), lanes, 4);
  const __m256 high =
      _mm256_mask_i32gather_ps(zero, row, _mm256_maskload_epi32(taps.high + x, mask), lanes, 4);
  const __m256 weight = _mm256_maskload_ps(taps.weight + x, mask);
  return _mm256_fmadd_ps(weight, _mm256_sub_ps(high, low), low);
}

void resample_plane(float* out, const float* in, const resample_state* state, int64_t width,
                    int64_t height) {
  const axis_taps across = taps_at(state->workspace, 0, width);
  const axis_taps down = taps_at(state->workspace, width, height);
  const bool bilinear = state->param.mode == ZYN_RESAMPLE_BILINEAR;
  for (int64_t y = 0; y < height; y++, out += width) {
    const float* top = in + static_cast<int64_t>(down.low[y]) * state->width;
    const float* bottom = in + static_cast<int64_t>(down.high[y]) * state->width;
    const __m256 weight = _mm256_set1_ps(down.weight[y]);
    for (int64_t x = 0; x < width; x += 8) {
      const __m256i mask = zyn_first_lanes(width - x < 8 ? width - x : 8);
      __m256 value;
      if (bilinear) {
        const __m256 upper = row_bilinear(top, across, x, mask);
        const __m256 lower = row_bilinear(bottom, across, x, mask);
        value = _mm256_fmadd_ps(weight, _mm256_sub_ps(lower, upper), upper);
      } else {
        value = row_nearest(top, across, x, mask);
      }
      _mm256_maskstore_ps(out + x, mask, value);
    }
  }
}

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
  if (!zyn_cg_ready(input, output) || input->dims[0] != state->width ||
      zyn_cg_height(input) != state->height ||
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
      resample_plane(out, in, state, width, height);
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// The taps of both axes, made again for every preparation.
int32_t make_taps(resample_state* state) {
  const zyn_tensor* output = state->output;
  const int64_t width = zyn_cg_width(output), height = zyn_cg_height(output);
  zyn_free(state->workspace);
  state->workspace = zyn_scratch<int32_t>((width + height) * kWordsPerTap).take();
  if (!state->workspace) return ZYN_RET_ERR_MEMORY;
  const auto fill = state->param.mode == ZYN_RESAMPLE_BILINEAR ? fill_bilinear : fill_nearest;
  fill(taps_at(state->workspace, 0, width), state->width, width);
  fill(taps_at(state->workspace, width, height), state->height, height);
  return ZYN_RET_OK;
}

int32_t prepare_resample(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<resample_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  const zyn_resample_param& param = state->param;
  if (param.mode < ZYN_RESAMPLE_NEAREST || param.mode > ZYN_RESAMPLE_GLOBAL_AVERAGE)
    return ZYN_RET_ERR_PARA;
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
  state->width = input->dims[0];
  state->height = static_cast<int32_t>(zyn_cg_height(input));
  if (!global) code = make_taps(state);
  if (code != ZYN_RET_OK) return code;
  return zyn_cg_is_fixed_point(graph) ? zyn_cg_no_fixed_point() : ZYN_RET_OK;
}

}  // namespace

const zyn_cg_operator zyn_cg_resample_row = {
    zyn_cg_bind_record<resample_state, ZYN_OP_RESAMPLE, run_resample>, prepare_resample,
    zyn_cg_release_io, zyn_cg_output_if<resample_state, ZYN_OP_RESAMPLE>, nullptr};

// Affine sampling: every output pixel takes the input at an affinely mapped place,
// bilinear between four pixels, with zeros outside. Eight pixels of a row share their
// places and weights over all channels.
#include <math.h>

#include "cg/cpu/ops/zyn_cg_join.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr zyn_site kOutputMemory{"src/cg/cpu/zyn_cg_affine.cpp", 88, ZYN_MSG_OPERATOR_MEMORY};

constexpr int64_t kCoefficients = 6;
constexpr float kFarAway = 1073741824.0f;  // 2^30: beyond every extent, still an int32_t

struct affine_state : zyn_cg_io_state {
  zyn_tensor* coefficients;
  zyn_affine_param param;
  uint32_t device_type;
};

// The four input pixels around eight places: element index in the plane, the lanes that
// lie inside, and the weight.
struct corners {
  __m256i index[4];
  __m256 inside[4];
  __m256 weight[4];
};

struct plane_size {
  int32_t width, height;
};

__m256 within(__m256i value, int32_t extent) {
  const __m256i low = _mm256_cmpgt_epi32(value, _mm256_set1_epi32(-1));
  const __m256i high = _mm256_cmpgt_epi32(_mm256_set1_epi32(extent), value);
  return _mm256_castsi256_ps(_mm256_and_si256(low, high));
}

// Places that are not numbers, or beyond reach, count as far outside.
__m256 reachable(__m256 place) {
  const __m256 size = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), place);
  const __m256 near = _mm256_cmp_ps(size, _mm256_set1_ps(kFarAway), _CMP_LT_OQ);
  return _mm256_blendv_ps(_mm256_set1_ps(-2.0f), place, near);
}

corners corners_at(__m256 x, __m256 y, plane_size size) {
  x = reachable(x);
  y = reachable(y);
  const __m256 left = _mm256_floor_ps(x);
  const __m256 top = _mm256_floor_ps(y);
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 wx[2] = {_mm256_sub_ps(one, _mm256_sub_ps(x, left)), _mm256_sub_ps(x, left)};
  const __m256 wy[2] = {_mm256_sub_ps(one, _mm256_sub_ps(y, top)), _mm256_sub_ps(y, top)};
  corners result;
  ZYN_UNROLL for (int k = 0; k < 4; k++) {
    const __m256i cx = _mm256_add_epi32(_mm256_cvttps_epi32(left), _mm256_set1_epi32(k & 1));
    const __m256i cy = _mm256_add_epi32(_mm256_cvttps_epi32(top), _mm256_set1_epi32(k >> 1));
    result.index[k] = _mm256_add_epi32(_mm256_mullo_epi32(cy, _mm256_set1_epi32(size.width)), cx);
    result.inside[k] = _mm256_and_ps(within(cx, size.width), within(cy, size.height));
    result.weight[k] = _mm256_mul_ps(wx[k & 1], wy[k >> 1]);
  }
  return result;
}

__m256 sample(const float* plane, const corners& at) {
  __m256 sum = _mm256_setzero_ps();
  ZYN_UNROLL for (int k = 0; k < 4; k++) {
    const __m256 value =
        _mm256_mask_i32gather_ps(_mm256_setzero_ps(), plane, at.index[k], at.inside[k], 4);
    sum = _mm256_fmadd_ps(value, at.weight[k], sum);
  }
  return sum;
}

// Input and output are planar; m holds the six coefficients.
void sample_planes(zyn_tensor* output, const zyn_tensor* input, const float* m) {
  const plane_size size = {input->dims[0], static_cast<int32_t>(zyn_cg_height(input))};
  const int64_t in_plane = zyn_cg_pixels(input);
  const int64_t out_plane = zyn_cg_pixels(output);
  const int64_t planes = input->count / in_plane;
  const __m256 lanes = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
  for (int64_t y = 0; y < zyn_cg_height(output); y++) {
    const float fy = static_cast<float>(y);
    const __m256 row_x = _mm256_set1_ps(fmaf(m[1], fy, m[2]));
    const __m256 row_y = _mm256_set1_ps(fmaf(m[4], fy, m[5]));
    for (int64_t x = 0; x < zyn_cg_width(output); x += 8) {
      const __m256 fx = _mm256_add_ps(_mm256_set1_ps(static_cast<float>(x)), lanes);
      const corners at = corners_at(_mm256_fmadd_ps(_mm256_set1_ps(m[0]), fx, row_x),
                                    _mm256_fmadd_ps(_mm256_set1_ps(m[3]), fx, row_y), size);
      const int64_t left = zyn_cg_width(output) - x;
      const __m256i mask = zyn_first_lanes(left < 8 ? left : 8);
      float* out = zyn_cg_floats(output) + y * zyn_cg_width(output) + x;
      for (int64_t p = 0; p < planes; p++)
        _mm256_maskstore_ps(out + p * out_plane, mask,
                            sample(zyn_cg_floats(input) + p * in_plane, at));
    }
  }
}

int32_t run_affine(void* record) {
  auto* state = static_cast<affine_state*>(record);
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  const zyn_tensor* input = state->input;
  const zyn_tensor* coefficients = state->coefficients;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || !zyn_cg_ready(coefficients, output) ||
      coefficients->count < kCoefficients ||
      input->count / zyn_cg_pixels(input) != output->count / zyn_cg_pixels(output))
    return ZYN_RET_ERR_PARA;
  input = zyn_cg_planar(input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  sample_planes(output, input, zyn_cg_floats(coefficients));
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

int32_t prepare_affine(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<affine_state>(graph, node);
  const int32_t* ids = state ? zyn_cg_two_inputs(graph, node) : nullptr;
  if (!ids) return ZYN_RET_ERR_PARA;
  zyn_tensor* input = zyn_cg_input_tensor(graph, ids[0]);
  zyn_tensor* coefficients = zyn_cg_producer_tensor(graph, ids[1]);
  state->input = nullptr;
  if (zyn_cg_check_input(graph, input) || !coefficients || coefficients->type != ZYN_TYPE_F32 ||
      coefficients->count < kCoefficients)
    return ZYN_RET_ERR_PARA;
  int32_t dims[5];
  memcpy(dims, input->dims, sizeof(dims));
  const zyn_cg_pair<float> factor = {state->param.factor_h, state->param.factor_w};
  dims[0] = zyn_cg_scaled_extent(dims[0], factor.x);
  if (input->dim_count > 1) dims[1] = zyn_cg_scaled_extent(dims[1], factor.y);
  const int32_t code = zyn_cg_make_output(graph, &state->output, input->dim_count, dims,
                                          input->type, &kOutputMemory);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = input->layout;
  state->device_type = graph->device_type;
  state->coefficients = coefficients;
  state->input = input;
  return zyn_cg_is_fixed_point(graph) ? zyn_cg_no_fixed_point() : ZYN_RET_OK;
}

// Type 31 serves two kinds of records.
int32_t bind_affine(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_is_join(param)
             ? zyn_cg_bind_join(graph, node, param)
             : zyn_cg_bind_record<affine_state, ZYN_OP_AFFINE, run_affine>(graph, node, param);
}

int32_t prepare_by_record(zyn_cg_handle* graph, int32_t node) {
  return graph && zyn_cg_is_join(graph->bindings[node].param) ? zyn_cg_prepare_join(graph, node)
                                                              : prepare_affine(graph, node);
}

}  // namespace

const zyn_cg_operator zyn_cg_affine_row = {bind_affine, prepare_by_record, zyn_cg_release_io,
                                           zyn_cg_output_if<zyn_cg_io_state, ZYN_OP_AFFINE>,
                                           nullptr};

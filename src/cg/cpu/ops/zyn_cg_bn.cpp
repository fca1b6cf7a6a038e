// Normalisation per channel with stored statistics, types 10 and 11: the constant holds
// gamma, beta, mean and variance, one array after the other. Works on channel planes; a
// blocked input is first brought to planar order in the output, which has its shape.
#include <math.h>

#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr const char* kPath = "src/cg/cpu/zyn_cg_bn.cpp";
constexpr zyn_site kOutputMemory{kPath, 118, ZYN_MSG_OPERATOR_MEMORY};

constexpr int32_t kArrays = 4;  // gamma, beta, mean, variance
constexpr uint32_t kLeastOutputQ = 8;

struct bn_state : zyn_cg_io_state {
  zyn_tensor* constant;   // the constant node's
  zyn_tensor* quantized;  // fixed point: its four arrays, each with a q of its own
  int32_t q_input;
  uint32_t q_output, q_arrays[kArrays];
  uint32_t fixed_point;
  uint32_t device_type;
  zyn_bn_param param;
};

// The statistics of one channel.
struct channel_stats {
  float gamma, beta, mean, variance;
};

channel_stats stats_of(const zyn_tensor* constant, int64_t c) {
  const int64_t channels = constant->count / kArrays;
  const float* values = zyn_cg_floats(constant) + c;
  return {values[0], values[channels], values[2 * channels], values[3 * channels]};
}

// Runs normalize(out, in, pixels, stats) for every channel plane.
template <typename Normalize>
int32_t for_each_plane(bn_state* state, Normalize normalize) {
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || !zyn_cg_ready(state->constant, output) ||
      !zyn_cg_same_dims(input, output) ||
      state->constant->count / kArrays != zyn_cg_channels(input))
    return ZYN_RET_ERR_PARA;
  const float* source = zyn_cg_floats(input);
  if (zyn_cg_order(input) != ZYN_LAYOUT_PLANAR) {
    zyn_cg_copy_planar(output->data, input);
    source = zyn_cg_floats(output);
  }
  const int64_t pixels = zyn_cg_pixels(input);
  const int64_t channels = zyn_cg_channels(input);
  for (int64_t plane = 0; plane < input->count / pixels; plane++)
    normalize(zyn_cg_floats(output) + plane * pixels, source + plane * pixels, pixels,
              stats_of(state->constant, plane % channels));
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// What a channel's quantised statistics make of x: one multiplication and one addition,
// the rounded constants of which are precise to 30 bits.
bool scale_of(const bn_state* state, int64_t c, zyn_fpi_scale* scale) {
  const int64_t channels = state->quantized->count / kArrays;
  double values[kArrays];
  for (int32_t k = 0; k < kArrays; k++)
    values[k] = ldexp(zyn_fpi_words(state->quantized)[k * channels + c],
                      -static_cast<int32_t>(state->q_arrays[k]));
  const double factor = values[0] / sqrt(values[3] + static_cast<double>(state->param.epsilon));
  return zyn_fpi_make_scale(scale, factor, values[1] - values[2] * factor, state->q_input,
                            static_cast<int32_t>(state->q_output));
}

int32_t run_fixed(bn_state* state) {
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || !state->quantized || !zyn_cg_same_dims(input, output) ||
      state->quantized->count / kArrays != zyn_cg_channels(input))
    return ZYN_RET_ERR_PARA;
  const int64_t pixels = zyn_cg_pixels(input);
  const int64_t channels = zyn_cg_channels(input);
  for (int64_t plane = 0; plane < input->count / pixels; plane++) {
    zyn_fpi_scale scale;
    if (!scale_of(state, plane % channels, &scale)) return ZYN_RET_ERR_PARA;
    zyn_fpi_apply_scale(zyn_fpi_words(output) + plane * pixels,
                        zyn_fpi_words(input) + plane * pixels, pixels, scale);
  }
  return ZYN_RET_OK;
}

int32_t run_divide(void* record) {
  auto* state = static_cast<bn_state*>(record);
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  if (state->fixed_point == 1) return run_fixed(state);
  const float epsilon = state->param.epsilon;
  return for_each_plane(
      state, [=](float* out, const float* in, int64_t pixels, const channel_stats& stats) {
        const __m256 mean = _mm256_set1_ps(stats.mean);
        const __m256 gamma = _mm256_set1_ps(stats.gamma);
        const __m256 deviation = _mm256_sqrt_ps(_mm256_set1_ps(stats.variance + epsilon));
        const __m256 beta = _mm256_set1_ps(stats.beta);
        zyn_map(out, in, pixels, [=](__m256 x) {
          const __m256 scaled = _mm256_mul_ps(_mm256_sub_ps(x, mean), gamma);
          return _mm256_add_ps(_mm256_div_ps(scaled, deviation), beta);
        });
      });
}

int32_t run_reciprocal(void* record) {
  auto* state = static_cast<bn_state*>(record);
  const float epsilon = state->param.epsilon;
  return for_each_plane(
      state, [=](float* out, const float* in, int64_t pixels, const channel_stats& stats) {
        const float reciprocal = 1.0f / sqrtf(stats.variance + epsilon);
        const __m256 mean = _mm256_set1_ps(stats.mean);
        const __m256 scale = _mm256_set1_ps(stats.gamma * reciprocal);
        const __m256 beta = _mm256_set1_ps(stats.beta);
        zyn_map(out, in, pixels,
                [=](__m256 x) { return _mm256_fmadd_ps(_mm256_sub_ps(x, mean), scale, beta); });
      });
}

// The 16-bit copy of the constant, the q of its arrays and the node's own q, which
// later nodes read from the graph's list. 1: an array that fits no q, or statistics whose
// quotient is no number of a usable size.
int32_t prepare_fixed_point(zyn_cg_handle* graph, int32_t node, int32_t producer, bn_state* state) {
  if (state->type == ZYN_OP_BATCH_NORM_FAST) return zyn_cg_no_fixed_point();
  if (!zyn_cg_read_q(graph, producer, &state->q_input)) return ZYN_RET_ERR_PARA;
  const zyn_tensor* constant = state->constant;
  const int32_t code = zyn_cg_make_output(nullptr, &state->quantized, constant->dim_count,
                                          constant->dims, ZYN_TYPE_FPI16, &kOutputMemory);
  if (code != ZYN_RET_OK) return code;
  const int64_t channels = constant->count / kArrays;
  for (int32_t k = 0; k < kArrays; k++) {
    uint32_t* q = &state->q_arrays[k];
    if (zyn_cg_fpi_choose_fraction_bits(q, constant, k * channels, channels) != ZYN_RET_OK ||
        zyn_cg_fpi_quantize_range(state->quantized, constant, k * channels, channels, *q) !=
            ZYN_RET_OK)
      return ZYN_RET_ERR_PARA;
  }
  const uint32_t gamma = state->q_arrays[0];
  const uint32_t variance = state->q_arrays[3];
  const uint32_t least = gamma < variance ? gamma : variance;
  state->q_output = least > kLeastOutputQ ? least : kLeastOutputQ;
  graph->q_list[node] = state->q_output;
  zyn_fpi_scale scale;
  for (int64_t c = 0; c < channels; c++)
    if (!scale_of(state, c, &scale)) return ZYN_RET_ERR_PARA;
  return ZYN_RET_OK;
}

int32_t prepare_bn(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<bn_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  state->input = nullptr;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  const zyn_tensor* constant = sources.constant;
  if (sources.count > 2 || zyn_cg_check_input(graph, sources.input) != ZYN_RET_OK || !constant ||
      constant->type != ZYN_TYPE_F32 || !constant->data ||
      constant->count / kArrays != zyn_cg_channels(sources.input))
    return ZYN_RET_ERR_PARA;
  state->constant = sources.constant;
  state->device_type = graph->device_type;
  state->fixed_point = graph->fixed_point;
  const int32_t code =
      zyn_cg_make_output_like(graph, &state->output, sources.input, &kOutputMemory);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = sources.input->layout;
  state->input = sources.input;
  if (!zyn_cg_is_fixed_point(graph)) return ZYN_RET_OK;
  return prepare_fixed_point(graph, node, sources.producer, state);
}

int32_t release_bn(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  zyn_cg_drop(&static_cast<bn_state*>(*record)->quantized);
  return zyn_cg_release_io(record);
}

constexpr zyn_cg_output_fn output_bn =
    zyn_cg_output_if<bn_state, ZYN_OP_BATCH_NORM, ZYN_OP_BATCH_NORM_FAST>;

}  // namespace

const zyn_cg_operator zyn_cg_bn_row = {zyn_cg_bind_record<bn_state, ZYN_OP_BATCH_NORM, run_divide>,
                                       prepare_bn, release_bn, output_bn, nullptr};

const zyn_cg_operator zyn_cg_bn_fast_row = {
    zyn_cg_bind_record<bn_state, ZYN_OP_BATCH_NORM_FAST, run_reciprocal>, prepare_bn, release_bn,
    output_bn, nullptr};

// Activations of one tensor, in place: sigmoid (15), ReLU (16), ReLU6 (20), hard-swish
// (21), Mish (24). The output is the input tensor itself, in whatever channel order it
// lies; only header outputs of device graphs are the node's own.
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"
#include "matrix/zyn_math.h"

namespace {

constexpr float kSixth = 1.0f / 6.0f;

struct activation_state {
  uint32_t type;
  zyn_tensor* input;
  zyn_tensor* output;  // = input, or a header of the node's own
  int32_t q_input, q_output;
  uint32_t fixed_point;
  uint32_t device_type;
};

template <typename Function>
int32_t apply(activation_state* state, Function f) {
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || input->type != ZYN_TYPE_F32) return ZYN_RET_ERR_PARA;
  zyn_map(zyn_cg_floats(output), zyn_cg_floats(input), output->count, f);
  return ZYN_RET_OK;
}

// The 16-bit forms. The sigmoid's result has 15 fraction bits whatever the node's q.
int32_t apply_fixed(activation_state* state) {
  if (!zyn_cg_ready(state->input, state->output) || state->input->type != ZYN_TYPE_FPI16)
    return ZYN_RET_ERR_PARA;
  int16_t* out = zyn_fpi_words(state->output);
  const int16_t* in = zyn_fpi_words(state->input);
  const int64_t count = state->output->count;
  switch (state->type) {
    case ZYN_OP_SIGMOID:
      zyn_fpi_sigmoid(out, in, state->q_input, count);
      break;
    case ZYN_OP_RELU:
      zyn_fpi_relu(out, in, count);
      break;
    case ZYN_OP_RELU6:
      zyn_fpi_relu6(out, in, count, state->q_input);
      break;
    default:
      zyn_fpi_hard_swish(out, state->q_output, in, state->q_input, count);
  }
  return ZYN_RET_OK;
}

// Operands of max and min stand in the order that lets NaN through.
__m256 relu(__m256 x) { return _mm256_max_ps(_mm256_setzero_ps(), x); }

__m256 relu6(__m256 x) { return _mm256_min_ps(_mm256_set1_ps(6.0f), relu(x)); }

__m256 hard_swish(__m256 x) {
  const __m256 gate = relu6(_mm256_add_ps(x, _mm256_set1_ps(3.0f)));
  return _mm256_mul_ps(_mm256_mul_ps(x, gate), _mm256_set1_ps(kSixth));
}

// The matrix view that the sigmoid works on: rows of dims[0], as many as there are. A
// tensor without a second dimension has no rows, which the matrix header refuses.
int32_t view_as_matrix(zyn_matrix* view, const zyn_tensor* tensor) {
  const int32_t pages = static_cast<int32_t>(tensor->count / zyn_cg_pixels(tensor));
  return zyn_set_matrix_header(view, tensor->dims[1], tensor->dims[0], pages,
                               static_cast<int32_t>(tensor->type));
}

int32_t run_sigmoid(void* record) {
  auto* state = static_cast<activation_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  if (state->fixed_point == 1) return apply_fixed(state);
  zyn_matrix view;
  if (!state->input || view_as_matrix(&view, state->input) != ZYN_RET_OK) return ZYN_RET_ERR_PARA;
  return apply(state, [](__m256 x) { return zyn_sigmoid8(x); });
}

int32_t run_relu(void* record) {
  auto* state = static_cast<activation_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  return state->fixed_point == 1 ? apply_fixed(state) : apply(state, relu);
}

int32_t run_relu6(void* record) {
  auto* state = static_cast<activation_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  return state->fixed_point == 1 ? apply_fixed(state) : apply(state, relu6);
}

int32_t run_hard_swish(void* record) {
  auto* state = static_cast<activation_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  return state->fixed_point == 1 ? apply_fixed(state) : apply(state, hard_swish);
}

int32_t run_mish(void* record) {
  auto* state = static_cast<activation_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  if (state->device_type == 2) return ZYN_RET_OK;
  return zyn_cg_on_device(state->device_type) ? ZYN_RET_ERR_PARA : apply(state, zyn_mish8);
}

// The output is the node's own, not its input: only then it is released here.
bool owns_output(const activation_state* state) {
  return zyn_cg_on_device(state->device_type) && state->output && state->output != state->input;
}

int32_t prepare_activation(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<activation_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  if (owns_output(state)) zyn_release_tensor(&state->output);
  state->output = state->input = nullptr;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  if (sources.count > 1) return ZYN_RET_ERR_PARA;
  if (!sources.input) return ZYN_RET_ERR_MEMORY;
  if (zyn_cg_check_input(graph, sources.input) != ZYN_RET_OK) return ZYN_RET_ERR_PARA;
  state->device_type = graph->device_type;
  zyn_tensor* input = sources.input;
  state->output = zyn_cg_on_device(state->device_type)
                      ? zyn_cg_create_output(graph, input->dim_count, input->dims, input->type)
                      : input;
  if (!state->output) return ZYN_RET_ERR_MEMORY;
  state->input = input;
  if (!zyn_cg_is_fixed_point(graph)) return ZYN_RET_OK;
  if (state->type == ZYN_OP_MISH) return zyn_cg_no_fixed_point();
  state->fixed_point = graph->fixed_point;
  if (state->type == ZYN_OP_RELU || state->type == ZYN_OP_RELU6)
    if (const int32_t code = zyn_cg_inherit_q(graph, node, sources.producer)) return code;
  const bool listed = zyn_cg_read_q(graph, sources.producer, &state->q_input) &&
                      zyn_cg_read_q(graph, node, &state->q_output);
  return listed ? ZYN_RET_OK : ZYN_RET_ERR_PARA;
}

int32_t release_activation(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  auto* state = static_cast<activation_state*>(*record);
  if (owns_output(state)) zyn_release_tensor(&state->output);
  zyn_free(state);
  *record = nullptr;
  return ZYN_RET_OK;
}

template <uint32_t Type, zyn_cg_run_fn Run>
constexpr zyn_cg_operator activation_row() {
  return {zyn_cg_bind_plain<activation_state, Type, Run>, prepare_activation, release_activation,
          zyn_cg_output_if<activation_state, ZYN_OP_SIGMOID, ZYN_OP_RELU, ZYN_OP_RELU6,
                           ZYN_OP_HARD_SWISH, ZYN_OP_MISH>,
          nullptr};
}

}  // namespace

const zyn_cg_operator zyn_cg_sigmoid_row = activation_row<ZYN_OP_SIGMOID, run_sigmoid>();
const zyn_cg_operator zyn_cg_relu_row = activation_row<ZYN_OP_RELU, run_relu>();
const zyn_cg_operator zyn_cg_relu6_row = activation_row<ZYN_OP_RELU6, run_relu6>();
const zyn_cg_operator zyn_cg_hard_swish_row = activation_row<ZYN_OP_HARD_SWISH, run_hard_swish>();
const zyn_cg_operator zyn_cg_mish_row = activation_row<ZYN_OP_MISH, run_mish>();

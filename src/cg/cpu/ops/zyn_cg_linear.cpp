// The dense layer: output = input * transposed weights, by the matrix product on
// views of the tensors, then the bias.
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"
#include "matrix/zyn_matrix_ops.h"

namespace {

constexpr zyn_site kOutputMemory{"src/cg/cpu/zyn_cg_linear.cpp", 237, ZYN_MSG_OPERATOR_MEMORY};

constexpr uint32_t kDoubleType = ZYN_TYPE_F64;

struct linear_state : zyn_cg_io_state {
  zyn_tensor* weights;    // the constant's own
  zyn_tensor* quantized;  // fixed point: its 16-bit copy
  int32_t q_input, q_output;
  uint32_t q_weights;
  uint32_t fixed_point;
  zyn_linear_param param;
  uint32_t device_type;
};

// The last element of the constant that a run reads lies inside it.
bool constant_reaches(const zyn_tensor* constant, const zyn_tensor* input,
                      const zyn_linear_param& param) {
  int64_t weights = 0, bias = 0;
  if (!zyn_multiply(param.out_features, input->dims[0], &weights) || weights > constant->count)
    return false;
  if (param.bias != 1) return true;
  return zyn_multiply(param.out_features, param.in_features, &bias) &&
         zyn_sum(bias, param.out_features, &bias) && bias <= constant->count;
}

// A matrix of rows x cols over the tensor's data; an extent below 1 is reported.
void view_as_matrix(zyn_matrix* view, const zyn_tensor* tensor, int32_t rows, int32_t cols) {
  *view = {};
  zyn_set_matrix_header(view, rows, cols, 1, static_cast<int32_t>(tensor->type));
  view->data = tensor->data;
}

// On purpose the first output row only: the layer serves one input row at a time.
template <typename T>
void add_bias(zyn_tensor* output, const zyn_tensor* constant, const zyn_linear_param& param) {
  T* out = static_cast<T*>(output->data);
  const int64_t first = static_cast<int64_t>(param.out_features) * param.in_features;
  const T* bias = static_cast<const T*>(constant->data) + first;
  for (int64_t j = 0; j < param.out_features; j++) out[j] += bias[j];
}

// Row by row; on purpose the bias reaches the first row only, as in float.
int32_t run_fixed(linear_state* state) {
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || !state->quantized || input->dim_count != 2 ||
      input->dims[1] != output->dims[1] || !constant_reaches(state->quantized, input, state->param))
    return ZYN_RET_ERR_PARA;
  const int64_t features = input->dims[0], units = output->dims[0];
  const int32_t q_weights = static_cast<int32_t>(state->q_weights);
  const int16_t* weights = zyn_fpi_words(state->quantized);
  int16_t* out = zyn_fpi_words(output);
  for (int64_t row = 0; row < input->dims[1]; row++)
    zyn_fpi_linear(out + row * units, units, zyn_fpi_words(input) + row * features, weights,
                   features, state->q_input + q_weights - state->q_output);
  output->layout = ZYN_LAYOUT_PLANAR;
  if (state->param.bias != 1) return ZYN_RET_OK;
  const int16_t* bias = weights + static_cast<int64_t>(state->param.out_features) *
                                      static_cast<int64_t>(state->param.in_features);
  zyn_fpi_add(out, state->q_output, {out, state->q_output, false}, {bias, q_weights, false}, units);
  return ZYN_RET_OK;
}

int32_t run_linear(void* record) {
  auto* state = static_cast<linear_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  if (state->fixed_point == 1) return run_fixed(state);
  const zyn_tensor* input = state->input;
  const zyn_tensor* weights = state->weights;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || !zyn_cg_ready(weights, output) || input->dim_count != 2 ||
      output->dim_count != 2 || input->dims[1] != output->dims[1] ||
      !constant_reaches(weights, input, state->param))
    return ZYN_RET_ERR_PARA;
  zyn_matrix in, w, out;
  view_as_matrix(&in, input, input->dims[1], input->dims[0]);
  view_as_matrix(&w, weights, output->dims[0], input->dims[0]);
  view_as_matrix(&out, output, output->dims[1], output->dims[0]);
  const bool is_double = (input->type & 7) == kDoubleType;
  const float one = 1.0f, none = 0.0f;
  const double one_double = 1.0, none_double = 0.0;
  const int32_t code = is_double ? zyn_matrix_gemm(&out, &in, &w, 1, &one_double, &none_double)
                                 : zyn_matrix_gemm(&out, &in, &w, 1, &one, &none);
  output->layout = ZYN_LAYOUT_PLANAR;
  if (code != ZYN_RET_OK || state->param.bias != 1) return code;
  if (is_double)
    add_bias<double>(output, weights, state->param);
  else
    add_bias<float>(output, weights, state->param);
  return ZYN_RET_OK;
}

// The 16-bit copy of the constant with its q. 1: no q fits, or input and weights have
// fewer fraction bits together than the output.
int32_t prepare_fixed_point(zyn_cg_handle* graph, int32_t node, int32_t producer,
                            linear_state* state) {
  if (!zyn_cg_read_q(graph, producer, &state->q_input) ||
      !zyn_cg_read_q(graph, node, &state->q_output))
    return ZYN_RET_ERR_PARA;
  if (const int32_t code = zyn_cg_quantize(&state->quantized, state->weights, &state->q_weights))
    return code;
  const bool enough = state->q_input + static_cast<int32_t>(state->q_weights) >= state->q_output;
  return enough ? ZYN_RET_OK : ZYN_RET_ERR_PARA;
}

// Float and double graphs: one type on both sides. Fixed point: 16-bit input, floats as
// constant, and a Q list.
bool types_fit(const zyn_cg_handle* graph, const zyn_tensor* input, const zyn_tensor* constant) {
  if (zyn_cg_is_fixed_point(graph))
    return zyn_cg_check_input(graph, input) == ZYN_RET_OK && constant->type == ZYN_TYPE_F32;
  return input->type == constant->type &&
         (input->type == ZYN_TYPE_F32 || input->type == ZYN_TYPE_F64);
}

int32_t prepare_linear(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<linear_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  state->input = nullptr;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  zyn_tensor* input = sources.input;
  zyn_tensor* constant = sources.constant;
  if (!input || !constant || !constant->data || !types_fit(graph, input, constant) ||
      !constant_reaches(constant, input, state->param))
    return ZYN_RET_ERR_PARA;
  state->weights = constant;
  state->fixed_point = graph->fixed_point;
  state->device_type = graph->device_type;
  const int32_t features = zyn_cg_extent(state->param.out_features);
  const bool as_pixel = graph->device_type == 2 && (input->dims[0] < 2 || input->dims[1] < 2);
  const int32_t rows[2] = {features, input->dims[1]};
  const int32_t pixel[3] = {1, 1, features};
  const int32_t code = zyn_cg_make_output(graph, &state->output, as_pixel ? 3 : 2,
                                          as_pixel ? pixel : rows, input->type, &kOutputMemory);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = input->layout;
  state->input = input;
  if (!zyn_cg_is_fixed_point(graph)) return ZYN_RET_OK;
  return prepare_fixed_point(graph, node, sources.producer, state);
}

int32_t release_linear(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  zyn_cg_drop(&static_cast<linear_state*>(*record)->quantized);
  return zyn_cg_release_io(record);
}

constexpr zyn_cg_output_fn output_linear = zyn_cg_output_if<linear_state, ZYN_OP_LINEAR>;

}  // namespace

// The second output is the same: nothing calls that slot.
const zyn_cg_operator zyn_cg_linear_row = {
    zyn_cg_bind_record<linear_state, ZYN_OP_LINEAR, run_linear>, prepare_linear, release_linear,
    output_linear, output_linear};

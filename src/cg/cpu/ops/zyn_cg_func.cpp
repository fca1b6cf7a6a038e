// Addition and multiplication of two tensors, with one value per channel as broadcast
// form, and functions of one tensor. All carry the input's
// channel order on where every element stays in its place; a broadcast, and inputs
// that lie in different orders, are computed in planar order.
#include "base/zyn_explain.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_function.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr const char* kPath = "src/cg/cpu/zyn_cg_func.cpp";
constexpr zyn_site kFuncOutput{kPath, 121, ZYN_MSG_OPERATOR_MEMORY};
constexpr zyn_site kJoinOutput{kPath, 236, ZYN_MSG_OPERATOR_MEMORY};

constexpr uint32_t kTypeWithoutRow = 29;

// input is the first tensor, a; planar is b in planar order.
struct join_state : zyn_cg_io_state {
  zyn_tensor* b;
  int32_t q_a, q_b, q_output;  // fixed point
  uint32_t fixed_point;
  uint32_t device_type;
};

struct func_state : zyn_cg_io_state {
  zyn_func_param param;
  zyn_tensor* slopes;         // ZYN_FUNC_PRELU
  int32_t q_input, q_output;  // fixed point
};

// One slope, or one a channel.
bool has_slopes(const zyn_tensor* slopes, const zyn_tensor* input) {
  return slopes && slopes->data && slopes->type == ZYN_TYPE_F32 &&
         (slopes->count == 1 || slopes->count == zyn_cg_channels(input));
}

using fixed_join = void (*)(int16_t* out, int32_t q_out, const zyn_fpi_operand& a,
                            const zyn_fpi_operand& b, int64_t count);

struct add_op {
  static constexpr fixed_join kFixed = zyn_fpi_add;
  __m256 operator()(__m256 a, __m256 b) const { return _mm256_add_ps(a, b); }
};

struct multiply_op {
  static constexpr fixed_join kFixed = zyn_fpi_multiply;
  __m256 operator()(__m256 a, __m256 b) const { return _mm256_mul_ps(a, b); }
};

// The output has a's shape and b as many elements: element by element.
template <typename Op>
int32_t join_elements(join_state* state, Op op) {
  const zyn_tensor* a = state->input;
  const zyn_tensor* b = state->b;
  zyn_tensor* output = state->output;
  if (state->fixed_point == 1) {
    Op::kFixed(zyn_fpi_words(output), state->q_output, {zyn_fpi_words(a), state->q_a, false},
               {zyn_fpi_words(b), state->q_b, false}, output->count);
    return ZYN_RET_OK;
  }
  const uint32_t order = zyn_cg_order(a);
  const bool in_place = order == ZYN_LAYOUT_PLANAR || zyn_cg_same_dims(a, b);
  if (order == zyn_cg_order(b) && in_place) {
    zyn_map2(zyn_cg_floats(output), zyn_cg_floats(a), zyn_cg_floats(b), output->count, op);
    output->layout = a->layout;
    return ZYN_RET_OK;
  }
  b = zyn_cg_planar(b, &state->planar);
  if (!b) return ZYN_RET_ERR_MEMORY;
  zyn_cg_copy_planar(output->data, a);
  zyn_map2(zyn_cg_floats(output), zyn_cg_floats(output), zyn_cg_floats(b), output->count, op);
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// out = op(data, values[c]) over every channel plane c; the output has data's shape.
template <typename Op>
int32_t join_channels(join_state* state, const zyn_tensor* data, const zyn_tensor* values, Op op) {
  zyn_tensor* output = state->output;
  if (state->fixed_point == 1) {
    const bool swapped = values == state->input;
    const int64_t plane = zyn_cg_pixels(data);
    for (int64_t c = 0; c < zyn_cg_channels(data); c++)
      Op::kFixed(zyn_fpi_words(output) + c * plane, state->q_output,
                 {zyn_fpi_words(data) + c * plane, swapped ? state->q_b : state->q_a, false},
                 {zyn_fpi_words(values) + c, swapped ? state->q_a : state->q_b, true}, plane);
    return ZYN_RET_OK;
  }
  values = zyn_cg_planar(values, &state->planar);
  if (!values) return ZYN_RET_ERR_MEMORY;
  const float* source = zyn_cg_floats(data);
  if (zyn_cg_order(data) != ZYN_LAYOUT_PLANAR) {
    zyn_cg_copy_planar(output->data, data);
    source = zyn_cg_floats(output);
  }
  const int64_t pixels = zyn_cg_pixels(data);
  for (int64_t c = 0; c < zyn_cg_channels(data); c++) {
    const __m256 value = _mm256_set1_ps(zyn_cg_floats(values)[c]);
    zyn_map(zyn_cg_floats(output) + c * pixels, source + c * pixels, pixels,
            [=](__m256 x) { return op(x, value); });
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// The first three extents agree; what lies behind them shows in the element count.
bool same_image(const zyn_tensor* a, const zyn_tensor* b) {
  return memcmp(a->dims, b->dims, 3 * sizeof(a->dims[0])) == 0;
}

bool has_one_pixel(const zyn_tensor* t) { return t->dims[0] == 1 && t->dims[1] == 1; }

int32_t run_add(void* record) {
  auto* state = static_cast<join_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  const zyn_tensor* a = state->input;
  const zyn_tensor* b = state->b;
  const zyn_tensor* output = state->output;
  if (!zyn_cg_ready(a, b) || !zyn_cg_ready(output, a) || !same_image(output, a) ||
      output->count != a->count)
    return ZYN_RET_ERR_PARA;
  if (a->count == b->count) return join_elements(state, add_op());
  if (b->count != zyn_cg_channels(a) || output->dim_count != 3) return ZYN_RET_ERR_PARA;
  return join_channels(state, a, b, add_op());
}

int32_t run_multiply(void* record) {
  auto* state = static_cast<join_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  const zyn_tensor* a = state->input;
  const zyn_tensor* b = state->b;
  const zyn_tensor* output = state->output;
  if (!zyn_cg_ready(a, b) || !zyn_cg_ready(output, a)) return ZYN_RET_ERR_PARA;
  const zyn_tensor* values = has_one_pixel(a) ? a : has_one_pixel(b) ? b : nullptr;
  const zyn_tensor* data = values == a ? b : a;
  if (!zyn_cg_same_dims(output, data)) return ZYN_RET_ERR_PARA;
  if (!values)
    return same_image(a, b) && a->count == b->count ? join_elements(state, multiply_op())
                                                    : ZYN_RET_ERR_PARA;
  const bool one_image = data->count == zyn_cg_pixels(data) * zyn_cg_channels(data);
  if (!one_image || values->count != zyn_cg_channels(data)) return ZYN_RET_ERR_PARA;
  return join_channels(state, data, values, multiply_op());
}

// The three q of a node; false where one is missing, or where a product has fewer
// fraction bits than its result shall have.
bool read_join_q(const zyn_cg_handle* graph, int32_t node, const int32_t* ids, join_state* state) {
  return zyn_cg_read_q(graph, ids[0], &state->q_a) && zyn_cg_read_q(graph, ids[1], &state->q_b) &&
         zyn_cg_read_q(graph, node, &state->q_output) &&
         (state->type != ZYN_OP_MULTIPLY || state->q_a + state->q_b >= state->q_output);
}

int32_t run_func(void* record) {
  auto* state = static_cast<func_state*>(record);
  const zyn_tensor* input = state->input;
  const zyn_tensor* slopes = state->slopes;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || !zyn_cg_same_dims(input, output)) return ZYN_RET_ERR_PARA;
  const bool is_prelu = state->param.function == ZYN_FUNC_PRELU;
  if (is_prelu && !has_slopes(slopes, input)) return ZYN_RET_ERR_PARA;
  if (output->type == ZYN_TYPE_FPI16) {
    zyn_cg_apply_fixed_function(output, input,
                                {state->param, slopes, state->q_input, state->q_output});
  } else if (is_prelu) {
    zyn_cg_apply_prelu(output, input, slopes);
  } else if (zyn_cg_is_axis_function(state->param.function)) {
    input = zyn_cg_planar(input, &state->planar);
    if (!input) return ZYN_RET_ERR_MEMORY;
    zyn_cg_apply_axis_function(output, input, state->param);
    output->layout = ZYN_LAYOUT_PLANAR;
  } else {
    zyn_cg_apply_function(output, input, state->param);
  }
  return ZYN_RET_OK;
}

int32_t prepare_join(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<join_state>(graph, node);
  const int32_t* ids = state ? zyn_cg_two_inputs(graph, node) : nullptr;
  if (!ids) return ZYN_RET_ERR_PARA;
  zyn_tensor* a = zyn_cg_producer_tensor(graph, ids[0]);
  zyn_tensor* b = zyn_cg_producer_tensor(graph, ids[1]);
  state->input = nullptr;
  if (zyn_cg_check_input(graph, a) || zyn_cg_check_input(graph, b)) return ZYN_RET_ERR_PARA;
  state->fixed_point = graph->fixed_point;
  state->device_type = graph->device_type;
  if (zyn_cg_is_fixed_point(graph) && !read_join_q(graph, node, ids, state))
    return ZYN_RET_ERR_PARA;
  const zyn_tensor* shape = has_one_pixel(a) ? b : a;
  const int32_t code = zyn_cg_make_output_like(graph, &state->output, shape, &kJoinOutput);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = shape->layout;
  state->input = a;
  state->b = b;
  return ZYN_RET_OK;
}

// The inputs of a function, checked with its record; state->input stays null otherwise.
int32_t find_func_inputs(zyn_cg_handle* graph, int32_t node, func_state* state) {
  state->input = nullptr;
  const bool is_prelu = state->param.function == ZYN_FUNC_PRELU;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  if (sources.count != (is_prelu ? 2 : 1))
    return zyn_refuse(ZYN_RET_ERR_PARA, "it reads %lld nodes, %s needed",
                      static_cast<long long>(sources.count),
                      is_prelu ? "an input and a constant are" : "one is");
  const int32_t code = zyn_cg_check_input(graph, sources.input);
  if (code != ZYN_RET_OK) return code;
  char text[kZynExplanationBytes];
  if (zyn_cg_find_function_fault(state->param, sources.input->dim_count, text, sizeof(text)))
    return zyn_refuse(ZYN_RET_ERR_PARA, "%s", text);
  if (is_prelu && !has_slopes(sources.constant, sources.input))
    return zyn_refuse(ZYN_RET_ERR_PARA, "a constant of 1 or %lld floats is needed as slopes",
                      static_cast<long long>(zyn_cg_channels(sources.input)));
  state->slopes = sources.constant;
  state->input = sources.input;
  if (!zyn_cg_is_fixed_point(graph) || !zyn_cg_function_is_fixed_point(state->param.function))
    return ZYN_RET_OK;
  const bool listed = zyn_cg_read_q(graph, sources.producer, &state->q_input) &&
                      zyn_cg_read_q(graph, node, &state->q_output);
  return listed ? ZYN_RET_OK : ZYN_RET_ERR_PARA;
}

int32_t prepare_func(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<func_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  int32_t code = find_func_inputs(graph, node, state);
  if (code != ZYN_RET_OK) return code;
  const zyn_tensor* input = state->input;
  code = zyn_cg_make_output_like(graph, &state->output, input, &kFuncOutput);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = input->layout;
  const bool computed =
      !zyn_cg_is_fixed_point(graph) || zyn_cg_function_is_fixed_point(state->param.function);
  return computed ? ZYN_RET_OK : zyn_cg_no_fixed_point();
}

// Slot 3 of all three rows. Types 25 and 29 are admitted as well, though the one has a slot
// of its own and the other no row.
constexpr zyn_cg_output_fn output_func =
    zyn_cg_output_if<zyn_cg_io_state, ZYN_OP_FUNCTION, ZYN_OP_LINEAR, ZYN_OP_ADD, ZYN_OP_MULTIPLY,
                     kTypeWithoutRow>;

}  // namespace

const zyn_cg_operator zyn_cg_func_row = {zyn_cg_bind_record<func_state, ZYN_OP_FUNCTION, run_func>,
                                         prepare_func, zyn_cg_release_io, output_func, nullptr};

// The second output is the same: nothing calls that slot.
const zyn_cg_operator zyn_cg_add_row = {zyn_cg_bind_plain<join_state, ZYN_OP_ADD, run_add>,
                                        prepare_join, zyn_cg_release_io, output_func, output_func};

const zyn_cg_operator zyn_cg_multiply_row = {
    zyn_cg_bind_plain<join_state, ZYN_OP_MULTIPLY, run_multiply>, prepare_join, zyn_cg_release_io,
    output_func, nullptr};

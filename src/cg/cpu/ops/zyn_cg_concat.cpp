// Concatenation along an axis, in planar order; blocked inputs are brought to it on the
// way, but for whole blocks of channels in the graphs of networks, which stay. Elements are moved
// as they are, whatever their type, in fixed point with another q.
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr zyn_site kConcatOutput{"src/cg/cpu/zyn_cg_tensor.cpp", 982, ZYN_MSG_OPERATOR_MEMORY};

constexpr int32_t kWidestQ = 15;

struct concat_state {
  uint32_t type;
  zyn_tensor** inputs;  // in list order
  zyn_tensor* output;
  int32_t* q_inputs;  // fixed point
  int32_t q_output;
  int32_t* nodes;  // the list: ids of the inputs
  int32_t count;
  int32_t axis;
  uint32_t fixed_point;
  uint32_t device_type;
  bool any_order;  // of the graph
};

// Every input has data and the output's extents but along the axis, where theirs add up
// to the output's.
bool inputs_fit(const concat_state* state) {
  const zyn_tensor* output = state->output;
  if (!output || !output->data || output->dim_count > 3) return false;
  int64_t sum = 0;
  for (int32_t j = 0; j < state->count; j++) {
    const zyn_tensor* input = state->inputs[j];
    if (!input || !input->data || input->type != output->type) return false;
    for (int32_t d = 0; d < kZynMaxDims; d++)
      if (d != state->axis && input->dims[d] != output->dims[d]) return false;
    sum += input->dims[state->axis];
  }
  return sum == output->dims[state->axis];
}

// Writes a tensor's values with another q, its rows and planes at the output's distances.
void rescale_block(void* to, int64_t row_pitch, int64_t plane_pitch, const zyn_tensor* from,
                   int32_t q_from, int32_t q_to) {
  const int64_t width = zyn_cg_width(from);
  const int16_t* in = zyn_fpi_words(from);
  for (int64_t c = 0; c < zyn_cg_channels(from); c++)
    for (int64_t y = 0; y < zyn_cg_height(from); y++, in += width)
      zyn_fpi_rescale(static_cast<int16_t*>(to) + c * plane_pitch + y * row_pitch, q_to, in, q_from,
                      width);
}

// Whether the inputs' blocks of channels, one after another, are those of the output.
bool blocks_follow(const concat_state* state) {
  if (!state->any_order || state->axis != 2 || state->fixed_point == 1) return false;
  for (int32_t j = 0; j < state->count; j++) {
    const zyn_tensor* input = state->inputs[j];
    if (zyn_cg_order(input) != ZYN_LAYOUT_BLOCKED) return false;
    if (j + 1 < state->count && zyn_cg_channels(input) % 8 != 0) return false;
  }
  return true;
}

// Every input becomes a sub-block of the output: its rows and planes keep the output's
// distances, and it begins where the inputs before it end along the axis.
int32_t run_concat(void* record) {
  auto* state = static_cast<concat_state*>(record);
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  if (!inputs_fit(state)) return ZYN_RET_ERR_PARA;
  zyn_tensor* output = state->output;
  const int64_t row = zyn_cg_width(output);
  const int64_t plane = zyn_cg_pixels(output);
  const int64_t pitch = state->axis == 0 ? 1 : state->axis == 1 ? row : plane;
  const bool blocked = blocks_follow(state);
  auto* out = static_cast<uint8_t*>(output->data);
  for (int32_t j = 0; j < state->count; j++) {
    if (blocked)
      memcpy(out, state->inputs[j]->data, static_cast<size_t>(state->inputs[j]->byte_size));
    else if (state->fixed_point == 1)
      rescale_block(out, row, plane, state->inputs[j], state->q_inputs[j], state->q_output);
    else
      zyn_cg_copy_planar(out, row, plane, state->inputs[j]);
    out += state->inputs[j]->dims[state->axis] * pitch * output->element_size;
  }
  output->layout = blocked ? ZYN_LAYOUT_BLOCKED : ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

bool contains(const int32_t* ids, int64_t count, int32_t id) {
  for (int64_t i = 0; i < count; i++)
    if (ids[i] == id) return true;
  return false;
}

// The node's predecessors are exactly the ids of the list, in any order.
bool list_matches(const concat_state* state, const zyn_darray* predecessors) {
  if (!predecessors || predecessors->count < 1 || predecessors->count != state->count) return false;
  const int32_t* ids = zyn_darray_ids(predecessors);
  for (int32_t j = 0; j < state->count; j++)
    if (!contains(state->nodes, state->count, ids[j]) ||
        !contains(ids, state->count, state->nodes[j]))
      return false;
  return true;
}

int32_t make_concat_output(zyn_cg_handle* graph, concat_state* state) {
  int32_t dims[kZynMaxDims];
  int64_t along = 0, elements = 0;
  for (int32_t j = 0; j < state->count; j++) {
    along += state->inputs[j]->dims[state->axis];
    elements += state->inputs[j]->count;
  }
  const zyn_tensor* first = state->inputs[0];
  memcpy(dims, first->dims, sizeof(dims));
  dims[state->axis] = zyn_cg_extent(along);
  int32_t dim_count = first->dim_count;
  if (graph->device_type == 2) {
    dims[0] = dims[1] = 1;
    dims[2] = zyn_cg_extent(elements);
    dim_count = 3;
  }
  return zyn_cg_make_output(graph, &state->output, dim_count, dims, first->type, &kConcatOutput);
}

// The node's q is the smallest of its inputs', which later nodes read from the graph's
// list.
int32_t prepare_concat_fixed_point(zyn_cg_handle* graph, int32_t node, concat_state* state) {
  state->q_output = kWidestQ;
  for (int32_t j = 0; j < state->count; j++) {
    if (!zyn_cg_read_q(graph, state->nodes[j], &state->q_inputs[j])) return ZYN_RET_ERR_PARA;
    if (state->q_inputs[j] < state->q_output) state->q_output = state->q_inputs[j];
    graph->q_list[node] = static_cast<uint32_t>(state->q_output);
  }
  return ZYN_RET_OK;
}

int32_t bind_concat(zyn_cg_handle* graph, int32_t node, const void* param) {
  const auto* list = static_cast<const zyn_concat_param*>(param);
  if (!list || !list->nodes || list->count < 1) return ZYN_RET_ERR_PARA;
  zyn_scratch<int32_t> nodes(list->count);
  auto inputs = zyn_scratch<zyn_tensor*>::zeroed(list->count);
  if (!nodes || !inputs) return ZYN_RET_ERR_MEMORY;
  auto* state = zyn_cg_new_state<concat_state>(graph, node, ZYN_OP_CONCAT, run_concat);
  if (!state) return ZYN_RET_ERR_MEMORY;
  memcpy(nodes.get(), list->nodes, static_cast<size_t>(list->count) * sizeof(int32_t));
  state->nodes = nodes.take();
  state->inputs = inputs.take();
  state->count = list->count;
  state->axis = list->axis;
  return ZYN_RET_OK;
}

int32_t prepare_concat(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<concat_state>(graph, node);
  if (!state || !list_matches(state, zyn_cg_inputs(graph, node))) return ZYN_RET_ERR_PARA;
  const bool fixed_point = zyn_cg_is_fixed_point(graph);
  for (int32_t j = 0; j < state->count; j++) {
    state->inputs[j] = zyn_cg_input_tensor(graph, state->nodes[j]);
    if (!state->inputs[j]) return ZYN_RET_ERR_MEMORY;  // On purpose not 1.
    if (fixed_point && zyn_cg_check_input(graph, state->inputs[j]) != ZYN_RET_OK)
      return ZYN_RET_ERR_PARA;
  }
  if (state->axis < 0 || state->axis >= state->inputs[0]->dim_count) return ZYN_RET_ERR_PARA;
  for (int32_t j = 1; j < state->count; j++)
    if (state->inputs[j]->type != state->inputs[0]->type) return ZYN_RET_ERR_PARA;
  state->fixed_point = graph->fixed_point;
  state->device_type = graph->device_type;
  state->any_order = graph->any_order;
  const int32_t code = make_concat_output(graph, state);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = state->inputs[0]->layout;
  if (!fixed_point) return code;
  if (!state->q_inputs) state->q_inputs = zyn_scratch<int32_t>(state->count).take();
  return state->q_inputs ? prepare_concat_fixed_point(graph, node, state) : ZYN_RET_ERR_MEMORY;
}

int32_t release_concat(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  auto* state = static_cast<concat_state*>(*record);
  zyn_cg_drop(&state->output);
  zyn_free(state->inputs);
  zyn_free(state->q_inputs);
  zyn_free(state->nodes);
  zyn_free(state);
  *record = nullptr;
  return ZYN_RET_OK;
}

}  // namespace

const zyn_cg_operator zyn_cg_concat_row = {bind_concat, prepare_concat, release_concat,
                                           zyn_cg_output_if<concat_state, ZYN_OP_CONCAT>, nullptr};

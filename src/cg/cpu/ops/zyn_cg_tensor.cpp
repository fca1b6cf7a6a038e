// Operators that move data: reshape (32), concatenation (33), channel slice (34) and
// channel gather (35). All write planar order; a blocked input is brought to it on the
// way. Elements are moved as they are, whatever their type.
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr const char* kPath = "src/cg/cpu/zyn_cg_tensor.cpp";
constexpr zyn_site kSliceOutput{kPath, 750, ZYN_MSG_OPERATOR_MEMORY};
constexpr zyn_site kConcatOutput{kPath, 982, ZYN_MSG_OPERATOR_MEMORY};

constexpr int32_t kMaxDims = 5;
constexpr int32_t kWidestQ = 15;

struct reshape_state : zyn_cg_io_state {
  uint32_t fixed_point;
  uint32_t device_type;
  zyn_reshape_param param;
};

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
};

struct slice_state : zyn_cg_io_state {
  zyn_slice_param param;
};

struct gather_state : zyn_cg_io_state {
  int32_t* channels;
  int32_t count;
};

// The target extents of a reshape: one -1 takes what the others leave. False for an
// extent that is 0 or below -1, for a second -1, and without extents.
bool resolve_extents(const zyn_reshape_param& param, int64_t elements, int32_t* dims) {
  int64_t product = 1;
  int32_t open = -1;
  for (int32_t i = 0; i < param.count; i++) {
    dims[i] = param.dims[i];
    if (dims[i] > 0) {
      if (!zyn_multiply(product, dims[i], &product)) product = INT64_MAX;
    } else if (dims[i] == -1 && open < 0) {
      open = i;
    } else {
      return false;
    }
  }
  if (open >= 0) dims[open] = zyn_cg_extent(elements / product);
  return param.count > 0;
}

int32_t run_reshape(void* record) {
  auto* state = static_cast<reshape_state*>(record);
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || input->byte_size > output->byte_size) return ZYN_RET_ERR_PARA;
  zyn_cg_copy_planar(output->data, input);
  memset(static_cast<uint8_t*>(output->data) + input->byte_size, 0,
         static_cast<size_t>(output->byte_size - input->byte_size));
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// Every input has data and the output's extents but along the axis, where theirs add up
// to the output's.
bool inputs_fit(const concat_state* state) {
  const zyn_tensor* output = state->output;
  if (!output || !output->data || output->dim_count > 3) return false;
  int64_t sum = 0;
  for (int32_t j = 0; j < state->count; j++) {
    const zyn_tensor* input = state->inputs[j];
    if (!input || !input->data || input->type != output->type) return false;
    for (int32_t d = 0; d < kMaxDims; d++)
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

// Every input becomes a sub-block of the output: its rows and planes keep the output's
// distances, and it begins where the inputs before it end along the axis.
int32_t run_concat(void* record) {
  auto* state = static_cast<concat_state*>(record);
  if (state->device_type >= 1 && state->device_type <= 3) return ZYN_RET_OK;
  if (!inputs_fit(state)) return ZYN_RET_ERR_PARA;
  zyn_tensor* output = state->output;
  const int64_t row = zyn_cg_width(output);
  const int64_t plane = zyn_cg_pixels(output);
  const int64_t pitch = state->axis == 0 ? 1 : state->axis == 1 ? row : plane;
  auto* out = static_cast<uint8_t*>(output->data);
  for (int32_t j = 0; j < state->count; j++) {
    if (state->fixed_point == 1)
      rescale_block(out, row, plane, state->inputs[j], state->q_inputs[j], state->q_output);
    else
      zyn_cg_copy_planar(out, row, plane, state->inputs[j]);
    out += state->inputs[j]->dims[state->axis] * pitch * output->element_size;
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// Blocks of all channels: the product of the extents behind the third.
int64_t images_of(const zyn_tensor* tensor) {
  return tensor->count / (zyn_cg_pixels(tensor) * zyn_cg_channels(tensor));
}

// Copies channel of(c) of the input to channel c of the output.
template <typename Of>
int32_t copy_channels(zyn_cg_io_state* io, Of of) {
  const zyn_tensor* input = io->input;
  zyn_tensor* output = io->output;
  if (!zyn_cg_ready(input, output) || input->dims[0] != output->dims[0] ||
      input->dims[1] != output->dims[1] || images_of(input) != images_of(output))
    return ZYN_RET_ERR_PARA;
  input = zyn_cg_planar(input, &io->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  const int64_t plane = zyn_cg_pixels(input) * input->element_size;
  const int64_t channels = zyn_cg_channels(input);
  const int64_t images = images_of(input);
  const auto* in = static_cast<const uint8_t*>(input->data);
  auto* out = static_cast<uint8_t*>(output->data);
  for (int64_t i = 0; i < images; i++, in += channels * plane) {
    for (int64_t c = 0; c < zyn_cg_channels(output); c++, out += plane) {
      const int64_t source = of(c);
      if (source < 0 || source >= channels) return ZYN_RET_ERR_PARA;
      memcpy(out, in + source * plane, static_cast<size_t>(plane));
    }
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

int64_t slice_channel(const zyn_slice_param& param, int64_t c) {
  return param.first + c * param.step;
}

int32_t run_slice(void* record) {
  auto* state = static_cast<slice_state*>(record);
  return copy_channels(state, [=](int64_t c) { return slice_channel(state->param, c); });
}

int32_t run_gather(void* record) {
  auto* state = static_cast<gather_state*>(record);
  return copy_channels(state, [=](int64_t c) { return state->channels[c]; });
}

// An output with the input's shape but for the number of channels.
int32_t make_channels(zyn_cg_io_state* io, int64_t channels) {
  int32_t dims[kMaxDims];
  memcpy(dims, io->input->dims, sizeof(dims));
  dims[2] = zyn_cg_extent(channels);
  const int32_t code = zyn_cg_make_output(nullptr, &io->output, io->input->dim_count, dims,
                                          io->input->type, &kSliceOutput);
  if (code == ZYN_RET_OK) io->output->layout = io->input->layout;
  return code;
}

// The input of a node that moves data of any type, in fixed point of 16 bits, and the node's
// Q after it. The state has no input until its preparation succeeds.
int32_t moved_input(zyn_cg_handle* graph, int32_t node, zyn_cg_io_state* state,
                    zyn_tensor** input) {
  if (!state) return ZYN_RET_ERR_PARA;
  state->input = nullptr;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  *input = sources.count > 1 ? nullptr : sources.input;
  if (!*input) return ZYN_RET_ERR_PARA;
  if (zyn_cg_is_fixed_point(graph) && zyn_cg_check_input(graph, *input) != ZYN_RET_OK)
    return ZYN_RET_ERR_PARA;
  return zyn_cg_inherit_q(graph, node, sources.producer);
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
  int32_t dims[kMaxDims];
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

template <typename T>
T* make_array(int64_t count) {
  return static_cast<T*>(zyn_calloc(count, sizeof(T)));
}

}  // namespace

int32_t zyn_cg_bind_reshape(zyn_cg_handle* graph, int32_t node, const void* param) {
  const auto* extents = static_cast<const zyn_reshape_param*>(param);
  if (!extents || extents->count > kMaxDims) return ZYN_RET_ERR_PARA;
  auto* state = zyn_cg_new_state<reshape_state>(graph, node, ZYN_OP_RESHAPE, run_reshape);
  if (!state) return ZYN_RET_ERR_MEMORY;
  state->fixed_point = graph->fixed_point;
  state->param.count = extents->count;
  // Only the extents in use: the caller's record may end behind them.
  for (int32_t i = 0; i < extents->count; i++) state->param.dims[i] = extents->dims[i];
  return ZYN_RET_OK;
}

int32_t zyn_cg_prepare_reshape(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<reshape_state>(graph, node);
  zyn_tensor* input = nullptr;
  int32_t code = moved_input(graph, node, state, &input);
  if (code != ZYN_RET_OK) return code;
  state->device_type = graph->device_type;
  int32_t dims[kMaxDims] = {};
  if (!resolve_extents(state->param, input->count, dims)) return ZYN_RET_ERR_PARA;
  const bool keeps_shape = graph->device_type == 2 && input->dims[0] == 1 && input->dims[1] == 1;
  code = keeps_shape ? zyn_cg_make_output_like(graph, &state->output, input, nullptr)
                     : zyn_cg_make_output(graph, &state->output, state->param.count, dims,
                                          input->type, nullptr);
  if (code != ZYN_RET_OK) return code;
  state->input = input;
  return ZYN_RET_OK;
}

int32_t zyn_cg_release_tensor_op(void** record) { return zyn_cg_release_io(record); }

zyn_tensor* zyn_cg_output_reshape(zyn_cg_handle* graph, int32_t node) {
  return zyn_cg_output_if<zyn_cg_io_state, ZYN_OP_RESHAPE>(graph, node);
}

int32_t zyn_cg_bind_concat(zyn_cg_handle* graph, int32_t node, const void* param) {
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

int32_t zyn_cg_prepare_concat(zyn_cg_handle* graph, int32_t node) {
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
  const int32_t code = make_concat_output(graph, state);
  if (code != ZYN_RET_OK || !fixed_point) return code;
  if (!state->q_inputs) state->q_inputs = make_array<int32_t>(state->count);
  return state->q_inputs ? prepare_concat_fixed_point(graph, node, state) : ZYN_RET_ERR_MEMORY;
}

int32_t zyn_cg_release_concat(void** record) {
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

zyn_tensor* zyn_cg_output_concat(zyn_cg_handle* graph, int32_t node) {
  return zyn_cg_output_if<concat_state, ZYN_OP_CONCAT>(graph, node);
}

int32_t zyn_cg_bind_slice(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_record<slice_state, ZYN_OP_CHANNEL_SLICE, run_slice>(graph, node, param);
}

int32_t zyn_cg_prepare_slice(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<slice_state>(graph, node);
  zyn_tensor* input = nullptr;
  const int32_t code = moved_input(graph, node, state, &input);
  if (code != ZYN_RET_OK) return code;
  const zyn_slice_param& param = state->param;
  const int64_t channels = input->dims[2];
  if (param.parts < 1 || param.parts > channels) return ZYN_RET_ERR_PARA;
  const int64_t taken = channels / param.parts;
  const int64_t last = slice_channel(param, taken - 1);
  if (param.first < 0 || param.first >= channels || last < 0 || last >= channels)
    return ZYN_RET_ERR_PARA;
  state->input = input;
  return make_channels(state, taken);
}

zyn_tensor* zyn_cg_output_slice(zyn_cg_handle* graph, int32_t node) {
  return zyn_cg_output_if<zyn_cg_io_state, ZYN_OP_CHANNEL_SLICE>(graph, node);
}

int32_t zyn_cg_bind_gather(zyn_cg_handle* graph, int32_t node, const void* param) {
  const auto* list = static_cast<const zyn_gather_param*>(param);
  if (!list || !list->channels || list->count < 1) return ZYN_RET_ERR_PARA;
  zyn_scratch<int32_t> channels(list->count);
  if (!channels) return ZYN_RET_ERR_MEMORY;
  auto* state = zyn_cg_new_state<gather_state>(graph, node, ZYN_OP_CHANNEL_GATHER, run_gather);
  if (!state) return ZYN_RET_ERR_MEMORY;
  memcpy(channels.get(), list->channels, static_cast<size_t>(list->count) * sizeof(int32_t));
  state->channels = channels.take();
  state->count = list->count;
  return ZYN_RET_OK;
}

int32_t zyn_cg_prepare_gather(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<gather_state>(graph, node);
  zyn_tensor* input = nullptr;
  const int32_t code = moved_input(graph, node, state, &input);
  if (code != ZYN_RET_OK) return code;
  if (input->dim_count < 3) return ZYN_RET_ERR_PARA;
  for (int32_t i = 0; i < state->count; i++)
    if (state->channels[i] < 0 || state->channels[i] >= input->dims[2]) return ZYN_RET_ERR_PARA;
  state->input = input;
  return make_channels(state, state->count);
}

int32_t zyn_cg_release_gather(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  zyn_free(static_cast<gather_state*>(*record)->channels);
  return zyn_cg_release_io(record);
}

zyn_tensor* zyn_cg_output_gather(zyn_cg_handle* graph, int32_t node) {
  return zyn_cg_output_if<zyn_cg_io_state, ZYN_OP_CHANNEL_GATHER>(graph, node);
}

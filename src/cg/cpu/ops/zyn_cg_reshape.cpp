// Reshape: the elements in planar order under another shape. Elements are moved as they
// are, whatever their type; a blocked input is brought to planar order on the way.
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

struct reshape_state : zyn_cg_io_state {
  uint32_t fixed_point;
  uint32_t device_type;
  zyn_reshape_param param;
};

// The target extents of a reshape: one -1 takes what the others leave. False for an
// extent that is 0 or below -1, for a second -1, and unless there are 1 to 5.
bool resolve_extents(const zyn_reshape_param& param, int64_t elements, int32_t* dims) {
  if (param.count < 1 || param.count > kZynMaxDims) return false;
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
  return true;
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

int32_t bind_reshape(zyn_cg_handle* graph, int32_t node, const void* param) {
  const auto* extents = static_cast<const zyn_reshape_param*>(param);
  if (!extents) return ZYN_RET_ERR_PARA;
  auto* state = zyn_cg_new_state<reshape_state>(graph, node, ZYN_OP_RESHAPE, run_reshape);
  if (!state) return ZYN_RET_ERR_MEMORY;
  state->fixed_point = graph->fixed_point;
  state->param.count = extents->count;
  // Only the extents in use: the caller's record may end behind them. A count that prepare
  // refuses has none.
  for (int32_t i = 0; i < extents->count && extents->count <= kZynMaxDims; i++)
    state->param.dims[i] = extents->dims[i];
  return ZYN_RET_OK;
}

int32_t prepare_reshape(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<reshape_state>(graph, node);
  zyn_tensor* input = nullptr;
  int32_t code = zyn_cg_moved_input(graph, node, state, &input);
  if (code != ZYN_RET_OK) return code;
  state->device_type = graph->device_type;
  int32_t dims[kZynMaxDims] = {};
  if (!resolve_extents(state->param, input->count, dims)) return ZYN_RET_ERR_PARA;
  const bool keeps_shape = graph->device_type == 2 && input->dims[0] == 1 && input->dims[1] == 1;
  code = keeps_shape ? zyn_cg_make_output_like(graph, &state->output, input, nullptr)
                     : zyn_cg_make_output(graph, &state->output, state->param.count, dims,
                                          input->type, nullptr);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = input->layout;
  state->input = input;
  return ZYN_RET_OK;
}

}  // namespace

const zyn_cg_operator zyn_cg_reshape_row = {bind_reshape, prepare_reshape, zyn_cg_release_io,
                                            zyn_cg_output_if<reshape_state, ZYN_OP_RESHAPE>,
                                            nullptr};

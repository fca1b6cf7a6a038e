// Channel slice and channel gather: planes of the input, selected by a rule or a list, in
// planar order; a blocked input is brought to it on the way. Elements are moved as they
// are, whatever their type.
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr zyn_site kOutputMemory{"src/cg/cpu/zyn_cg_tensor.cpp", 750, ZYN_MSG_OPERATOR_MEMORY};

struct slice_state : zyn_cg_io_state {
  zyn_slice_param param;
};

struct gather_state : zyn_cg_io_state {
  int32_t* channels;
  int32_t count;
};

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
  int32_t dims[kZynMaxDims];
  memcpy(dims, io->input->dims, sizeof(dims));
  dims[2] = zyn_cg_extent(channels);
  const int32_t code = zyn_cg_make_output(nullptr, &io->output, io->input->dim_count, dims,
                                          io->input->type, &kOutputMemory);
  if (code == ZYN_RET_OK) io->output->layout = io->input->layout;
  return code;
}

int32_t prepare_slice(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<slice_state>(graph, node);
  zyn_tensor* input = nullptr;
  const int32_t code = zyn_cg_moved_input(graph, node, state, &input);
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

int32_t bind_gather(zyn_cg_handle* graph, int32_t node, const void* param) {
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

int32_t prepare_gather(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<gather_state>(graph, node);
  zyn_tensor* input = nullptr;
  const int32_t code = zyn_cg_moved_input(graph, node, state, &input);
  if (code != ZYN_RET_OK) return code;
  if (input->dim_count < 3) return ZYN_RET_ERR_PARA;
  for (int32_t i = 0; i < state->count; i++)
    if (state->channels[i] < 0 || state->channels[i] >= input->dims[2]) return ZYN_RET_ERR_PARA;
  state->input = input;
  return make_channels(state, state->count);
}

int32_t release_gather(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  zyn_free(static_cast<gather_state*>(*record)->channels);
  return zyn_cg_release_io(record);
}

}  // namespace

const zyn_cg_operator zyn_cg_slice_row = {
    zyn_cg_bind_record<slice_state, ZYN_OP_CHANNEL_SLICE, run_slice>, prepare_slice,
    zyn_cg_release_io, zyn_cg_output_if<slice_state, ZYN_OP_CHANNEL_SLICE>, nullptr};

const zyn_cg_operator zyn_cg_gather_row = {bind_gather, prepare_gather, release_gather,
                                           zyn_cg_output_if<gather_state, ZYN_OP_CHANNEL_GATHER>,
                                           nullptr};

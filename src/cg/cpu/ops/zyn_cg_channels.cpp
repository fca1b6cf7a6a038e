// Channel slice and channel gather: planes of the input, selected by a rule or a list, in
// planar order; a blocked input is brought to it on the way. Elements are moved as they
// are, whatever their type. Further moves of type 35 are bound elsewhere.
#include "cg/cpu/ops/zyn_cg_further.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr zyn_site kOutputMemory{"src/cg/cpu/zyn_cg_tensor.cpp", 750, ZYN_MSG_OPERATOR_MEMORY};

struct slice_state : zyn_cg_io_state {
  zyn_slice_param param;
};

// The workspace holds the list.
struct gather_state : zyn_cg_varied_state {
  zyn_gather_param param;
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
  return copy_channels(state, [=](int64_t c) { return state->param.channels[c]; });
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

int32_t prepare_gather(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<gather_state>(graph, node);
  zyn_tensor* input = nullptr;
  const int32_t code = zyn_cg_moved_input(graph, node, state, &input);
  if (code != ZYN_RET_OK) return code;
  if (input->dim_count < 3) return ZYN_RET_ERR_PARA;
  const zyn_gather_param& param = state->param;
  for (int32_t i = 0; i < param.count; i++)
    if (param.channels[i] < 0 || param.channels[i] >= input->dims[2]) return ZYN_RET_ERR_PARA;
  state->input = input;
  return make_channels(state, param.count);
}

int32_t bind_list(zyn_cg_handle* graph, int32_t node, const void* param) {
  const auto* list = static_cast<const zyn_gather_param*>(param);
  if (!list->channels || list->count < 1) return ZYN_RET_ERR_PARA;
  zyn_scratch<int32_t> channels(list->count);
  if (!channels) return ZYN_RET_ERR_MEMORY;
  memcpy(channels.get(), list->channels, static_cast<size_t>(list->count) * sizeof(int32_t));
  const zyn_gather_param own = {list->count, channels.get()};
  const int32_t code = zyn_cg_bind_varied<gather_state>(graph, node, &own, ZYN_OP_CHANNEL_GATHER,
                                                        prepare_gather, run_gather);
  if (code == ZYN_RET_OK)
    static_cast<gather_state*>(zyn_cg_record(graph, node))->workspace = channels.take();
  return code;
}

// By the first word alone: only the record of a list has a pointer behind it.
int32_t bind_gather(zyn_cg_handle* graph, int32_t node, const void* param) {
  if (!param) return ZYN_RET_ERR_PARA;
  switch (zyn_cg_first_word(param)) {
    case ZYN_MOVE_PERMUTE:
      return zyn_cg_bind_permute(graph, node, param);
    case ZYN_MOVE_PAD:
      return zyn_cg_bind_pad(graph, node, param);
    case ZYN_MOVE_SHUFFLE:
      return zyn_cg_bind_shuffle(graph, node, param);
    case ZYN_MOVE_PART:
      return zyn_cg_bind_part(graph, node, param);
    default:
      return bind_list(graph, node, param);
  }
}

}  // namespace

const zyn_cg_operator zyn_cg_slice_row = {
    zyn_cg_bind_record<slice_state, ZYN_OP_CHANNEL_SLICE, run_slice>, prepare_slice,
    zyn_cg_release_io, zyn_cg_output_if<slice_state, ZYN_OP_CHANNEL_SLICE>, nullptr};

const zyn_cg_operator zyn_cg_gather_row = {
    bind_gather, zyn_cg_prepare_varied, zyn_cg_release_io,
    zyn_cg_output_if<zyn_cg_varied_state, ZYN_OP_CHANNEL_GATHER>, nullptr};

// Padding and cutting, channel shuffle, and every step-th element along an axis: elements of
// any type, in planar order.
#include <math.h>

#include "base/zyn_explain.h"
#include "cg/cpu/ops/zyn_cg_further.h"

namespace {

struct pad_state : zyn_cg_varied_state {
  zyn_pad_param param;
  uint64_t value;  // one element's bytes, that of floats and words first
  int32_t axis;    // the first one that is padded or cut; dim_count: none
  int64_t unit;    // bytes of what lies below it
  int64_t step[kZynMaxDims], out_step[kZynMaxDims];  // of each axis, in bytes
};

struct shuffle_state : zyn_cg_varied_state {
  zyn_shuffle_param param;
};

struct part_state : zyn_cg_varied_state {
  zyn_part_param param;
};

// Input and output of a run in planar order; null after a failure, whose code is *code.
const zyn_tensor* planar_input(zyn_cg_varied_state* state, int32_t* code) {
  *code = ZYN_RET_ERR_PARA;
  if (!zyn_cg_same_input(state)) return nullptr;
  *code = ZYN_RET_ERR_MEMORY;
  const zyn_tensor* input = zyn_cg_planar(state->input, &state->planar);
  if (input) *code = ZYN_RET_OK;
  state->output->layout = ZYN_LAYOUT_PLANAR;
  return input;
}

// ---- padding ----

template <typename T>
void fill_elements(void* out, uint64_t value, int64_t bytes) {
  T element;
  memcpy(&element, &value, sizeof(T));
  auto* to = static_cast<T*>(out);
  for (int64_t i = 0; i < bytes / static_cast<int64_t>(sizeof(T)); i++) to[i] = element;
}

void fill(uint8_t* out, int64_t bytes, const pad_state* state) {
  const uint32_t size = state->output->element_size;
  if (state->value == 0)
    memset(out, 0, static_cast<size_t>(bytes));
  else if (size == sizeof(uint16_t))
    fill_elements<uint16_t>(out, state->value, bytes);
  else if (size == sizeof(uint32_t))
    fill_elements<uint32_t>(out, state->value, bytes);
  else
    fill_elements<uint64_t>(out, state->value, bytes);
}

// The element of an axis that element i of the output is, -1: the constant.
int64_t source_of(const pad_state* state, int32_t d, int64_t i) {
  const int64_t n = state->shape.dims[d];
  const int64_t at = i - state->param.before[d];
  if (at >= 0 && at < n) return at;
  if (state->param.mode == ZYN_PAD_CONSTANT) return -1;
  if (state->param.mode == ZYN_PAD_EDGE) return at < 0 ? 0 : n - 1;
  return at < 0 ? -at : 2 * (n - 1) - at;
}

// Elements first to last - 1 of an axis whose sources lie outside the input.
void pad_ends(const pad_state* state, uint8_t* out, const uint8_t* in, int64_t first,
              int64_t last) {
  const int64_t unit = state->unit;
  if (state->param.mode == ZYN_PAD_CONSTANT)
    return fill(out + first * unit, (last - first) * unit, state);
  for (int64_t i = first; i < last; i++) {
    const uint8_t* from = in + source_of(state, state->axis, i) * unit;
    uint8_t* to = out + i * unit;
    if (unit == sizeof(uint32_t))
      memcpy(to, from, sizeof(uint32_t));
    else
      memcpy(to, from, static_cast<size_t>(unit));
  }
}

// The output's axes from d down; what lies below the first padded axis moves at once.
void pad_axis(const pad_state* state, int32_t d, uint8_t* out, const uint8_t* in) {
  const int64_t extent = state->output->dims[d];
  if (d > state->axis) {
    for (int64_t i = 0; i < extent; i++, out += state->out_step[d]) {
      const int64_t source = source_of(state, d, i);
      if (source < 0)
        fill(out, state->out_step[d], state);
      else
        pad_axis(state, d - 1, out, in + source * state->step[d]);
    }
    return;
  }
  const int64_t before = state->param.before[d], unit = state->unit;
  const int64_t first = zyn_smaller(zyn_larger(before, 0), extent);
  const int64_t last =
      zyn_larger(first, zyn_smaller(extent, int64_t{state->shape.dims[d]} + before));
  if (first < last)
    memcpy(out + first * unit, in + (first - before) * unit,
           static_cast<size_t>((last - first) * unit));
  pad_ends(state, out, in, 0, first);
  pad_ends(state, out, in, last, extent);
}

int32_t run_pad(void* record) {
  auto* state = static_cast<pad_state*>(record);
  int32_t code = ZYN_RET_OK;
  const zyn_tensor* input = planar_input(state, &code);
  if (!input) return code;
  auto* out = static_cast<uint8_t*>(state->output->data);
  const auto* in = static_cast<const uint8_t*>(input->data);
  if (state->axis == input->dim_count)
    memcpy(out, in, static_cast<size_t>(input->byte_size));
  else
    pad_axis(state, input->dim_count - 1, out, in);
  return ZYN_RET_OK;
}

// The constant as an element of a type. False where the type has no such numbers: 0 is one of
// every type.
bool make_value(uint64_t* element, float value, uint32_t type, bool fixed_point, int32_t q) {
  *element = 0;
  const double real = static_cast<double>(value);
  if (type == ZYN_TYPE_F32) {
    memcpy(element, &value, sizeof(value));
  } else if (type == ZYN_TYPE_F64) {
    memcpy(element, &real, sizeof(real));
  } else if (type == ZYN_TYPE_FPI16 && fixed_point && real == real) {
    const double scaled = floor(ldexp(real, q) + 0.5);
    const double word = scaled < INT16_MIN ? INT16_MIN : scaled > INT16_MAX ? INT16_MAX : scaled;
    const auto bits = static_cast<int16_t>(word);
    memcpy(element, &bits, sizeof(bits));
  } else {
    return real == 0;
  }
  return true;
}

int32_t prepare_pad(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<pad_state>(graph, node);
  const int32_t code = zyn_cg_prepare_further(graph, node, state, &state->param);
  if (code != ZYN_RET_OK) return code;
  const zyn_pad_param& p = state->param;
  const zyn_tensor* output = state->output;
  const bool fixed_point = zyn_cg_is_fixed_point(graph);
  int32_t q = 0;
  if (fixed_point) zyn_cg_read_q(graph, node, &q);
  state->value = 0;
  if (p.mode == ZYN_PAD_CONSTANT &&
      !make_value(&state->value, p.value, output->type, fixed_point, q)) {
    state->input = nullptr;
    return zyn_refuse(ZYN_RET_ERR_PARA, "%g is no element of type %u", static_cast<double>(p.value),
                      output->type);
  }
  int64_t in = output->element_size, out = in;
  state->axis = output->dim_count;
  for (int32_t d = output->dim_count - 1; d >= 0; d--)
    if (p.before[d] != 0 || p.after[d] != 0) state->axis = d;
  for (int32_t d = 0; d < output->dim_count; d++) {
    if (d == state->axis) state->unit = in;
    state->step[d] = in;
    state->out_step[d] = out;
    in *= state->shape.dims[d];
    out *= output->dims[d];
  }
  return ZYN_RET_OK;
}

// ---- shuffle ----

int32_t run_shuffle(void* record) {
  auto* state = static_cast<shuffle_state*>(record);
  int32_t code = ZYN_RET_OK;
  const zyn_tensor* input = planar_input(state, &code);
  if (!input) return code;
  const int64_t plane = zyn_cg_pixels(input) * input->element_size;
  const int64_t channels = zyn_cg_channels(input), groups = state->param.groups;
  const auto* in = static_cast<const uint8_t*>(input->data);
  auto* out = static_cast<uint8_t*>(state->output->data);
  for (int64_t done = 0; done < input->byte_size; done += channels * plane, in += channels * plane)
    for (int64_t c = 0; c < channels / groups; c++)
      for (int64_t g = 0; g < groups; g++, out += plane)
        memcpy(out, in + (g * (channels / groups) + c) * plane, static_cast<size_t>(plane));
  return ZYN_RET_OK;
}

// ---- part ----

// Elements of a row, step apart.
void pick(float* out, const float* in, int64_t count, int64_t step) {
  const __m256i places =
      _mm256_mullo_epi32(zyn_lane_numbers(), _mm256_set1_epi32(static_cast<int32_t>(step)));
  int64_t i = 0;
  for (; i + 8 <= count; i += 8)
    _mm256_storeu_ps(out + i, _mm256_i32gather_ps(in + i * step, places, 4));
  for (; i < count; i++) out[i] = in[i * step];
}
template <typename T>
void pick(T* out, const T* in, int64_t count, int64_t step) {
  for (int64_t i = 0; i < count; i++) out[i] = in[i * step];
}

// Pieces of unit elements.
template <typename T>
void take_part(void* output, const void* input, const part_state* state) {
  const zyn_part_param& p = state->param;
  const zyn_cg_extents& shape = state->shape;
  const int64_t unit = shape.elements(0, p.axis), extent = shape.dims[p.axis];
  const int64_t step = p.count == 1 ? 1 : p.step;
  auto* out = static_cast<T*>(output);
  const auto* in = static_cast<const T*>(input) + p.first * unit;
  for (int64_t n = shape.elements(p.axis + 1, shape.dim_count); n > 0; n--, in += extent * unit) {
    if (step == 1)
      memcpy(out, in, static_cast<size_t>(p.count * unit) * sizeof(T));
    else if (unit == 1)
      pick(out, in, p.count, step);
    else
      for (int64_t i = 0; i < p.count; i++)
        memcpy(out + i * unit, in + i * step * unit, static_cast<size_t>(unit) * sizeof(T));
    out += p.count * unit;
  }
}

int32_t run_part(void* record) {
  auto* state = static_cast<part_state*>(record);
  int32_t code = ZYN_RET_OK;
  const zyn_tensor* input = planar_input(state, &code);
  if (!input) return code;
  return zyn_cg_move_by_width(input, [&](auto element) {
    take_part<decltype(element)>(state->output->data, input->data, state);
  });
}

}  // namespace

int32_t zyn_cg_bind_pad(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_varied<pad_state>(graph, node, param, ZYN_OP_CHANNEL_GATHER, prepare_pad,
                                       run_pad);
}

int32_t zyn_cg_bind_shuffle(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_varied<shuffle_state>(graph, node, param, ZYN_OP_CHANNEL_GATHER,
                                           zyn_cg_prepare_plain<shuffle_state>, run_shuffle);
}

int32_t zyn_cg_bind_part(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_varied<part_state>(graph, node, param, ZYN_OP_CHANNEL_GATHER,
                                        zyn_cg_prepare_plain<part_state>, run_part);
}

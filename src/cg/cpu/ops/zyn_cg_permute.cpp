// Axes in another order. Axes of one element are left out and those that stay neighbours are
// one; then either runs of elements are copied, or the fastest axes of input and output form
// planes that are transposed in squares of eight.
#include "cg/cpu/ops/zyn_cg_further.h"

namespace {

constexpr int64_t kSquare = 8;

struct permute_state : zyn_cg_varied_state {
  zyn_permute_param param;
};

// Axes of the output in rising order.
struct arrangement {
  zyn_cg_walked axes[kZynMaxDims];
  int32_t count;
};

arrangement arrange(const zyn_cg_extents& shape, const int32_t* order) {
  arrangement a = {};
  int64_t out = 1;
  for (int32_t d = 0; d < shape.dim_count; d++) {
    const int64_t extent = shape.dims[order[d]];
    const int64_t in = shape.elements(0, order[d]);
    if (extent == 1) continue;
    zyn_cg_walked* last = a.count ? &a.axes[a.count - 1] : nullptr;
    if (last && in == last->in * last->extent)
      last->extent *= extent;
    else
      a.axes[a.count++] = {extent, in, out};
    out *= extent;
  }
  return a;
}

// out[b * out_pitch + a] = in[a * in_pitch + b] for a < rows, b < columns, both at most 8.
void transpose_square(float* out, int64_t out_pitch, const float* in, int64_t in_pitch,
                      int64_t rows, int64_t columns) {
  __m256 t[8];
  if (rows == kSquare && columns == kSquare) {
    zyn_transpose_8x8(in, in_pitch, t);
    ZYN_UNROLL for (int64_t b = 0; b < kSquare; b++) _mm256_storeu_ps(out + b * out_pitch, t[b]);
    return;
  }
  const __m256i read = zyn_first_lanes(columns), write = zyn_first_lanes(rows);
  for (int64_t a = 0; a < kSquare; a++)
    t[a] = a < rows ? _mm256_maskload_ps(in + a * in_pitch, read) : _mm256_setzero_ps();
  zyn_transpose_8x8(t);
  for (int64_t b = 0; b < columns; b++) _mm256_maskstore_ps(out + b * out_pitch, write, t[b]);
}

void transpose_words(int16_t* out, int64_t out_pitch, const int16_t* in, int64_t in_pitch) {
  __m128i t[8];
  ZYN_UNROLL for (int a = 0; a < 8; a++) t[a] =
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + a * in_pitch));
  zyn_transpose_8x8(t);
  ZYN_UNROLL for (int b = 0; b < 8; b++)
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + b * out_pitch), t[b]);
}

template <typename T>
void transpose_square(T* out, int64_t out_pitch, const T* in, int64_t in_pitch, int64_t rows,
                      int64_t columns) {
  if constexpr (sizeof(T) == sizeof(int16_t))
    if (rows == kSquare && columns == kSquare) return transpose_words(out, out_pitch, in, in_pitch);
  for (int64_t b = 0; b < columns; b++)
    for (int64_t a = 0; a < rows; a++) out[b * out_pitch + a] = in[a * in_pitch + b];
}

// The fastest axis of the output and that of the input, of one place of all others.
template <typename T>
void transpose_plane(T* out, const T* in, const zyn_cg_walked& rows, const zyn_cg_walked& columns) {
  for (int64_t b = 0; b < columns.extent; b += kSquare)
    for (int64_t a = 0; a < rows.extent; a += kSquare)
      transpose_square(out + b * columns.out + a, columns.out, in + a * rows.in + b, rows.in,
                       zyn_smaller(rows.extent - a, kSquare),
                       zyn_smaller(columns.extent - b, kSquare));
}

// Squares of elements of the size of T; floats move as they are.
template <typename T>
void permute(void* output, const void* input, const arrangement& a) {
  auto* out = static_cast<T*>(output);
  const auto* in = static_cast<const T*>(input);
  int32_t fastest = 0;  // in the input
  while (fastest < a.count && a.axes[fastest].in != 1) fastest++;
  if (fastest == 0) {
    const int64_t run = a.count ? a.axes[0].extent : 1;
    return zyn_cg_walk(a.axes + 1, a.count > 1 ? a.count - 1 : 0, [&](int64_t from, int64_t to) {
      memcpy(out + to, in + from, static_cast<size_t>(run) * sizeof(T));
    });
  }
  zyn_cg_walked others[kZynMaxDims];
  int32_t count = 0;
  for (int32_t d = 1; d < a.count; d++)
    if (d != fastest) others[count++] = a.axes[d];
  zyn_cg_walk(others, count, [&](int64_t from, int64_t to) {
    transpose_plane(out + to, in + from, a.axes[0], a.axes[fastest]);
  });
}

// Channels first, of an input whose channels lie together by blocks: nothing turns.
void gather_blocks(float* out, const zyn_tensor* input) {
  const int64_t pixels = zyn_cg_pixels(input), channels = zyn_cg_channels(input);
  const float* in = zyn_cg_floats(input);
  for (int64_t c = 0, group; c < channels; c += group, in += group * pixels) {
    group = channels - c >= 8 ? 8 : channels - c >= 4 ? 4 : 1;
    const __m256i mask = zyn_first_lanes(group);
    for (int64_t i = 0; i < pixels; i++)
      _mm256_maskstore_ps(out + i * channels + c, mask, _mm256_maskload_ps(in + i * group, mask));
  }
}

// Whether the order of an input's channels makes a permutation a copy; it is then made.
bool copy_ordered(const permute_state* state) {
  const zyn_tensor* input = state->input;
  const int32_t* order = state->param.order;
  const uint32_t lies = zyn_cg_order(input);
  if (lies == ZYN_LAYOUT_PLANAR || input->dim_count != 3 || order[0] != 2 || order[1] != 0)
    return false;
  if (lies == ZYN_LAYOUT_BLOCKED)
    gather_blocks(zyn_cg_floats(state->output), input);
  else
    memcpy(state->output->data, input->data, static_cast<size_t>(input->byte_size));
  return true;
}

int32_t run_permute(void* record) {
  auto* state = static_cast<permute_state*>(record);
  if (!zyn_cg_same_input(state)) return ZYN_RET_ERR_PARA;
  state->output->layout = ZYN_LAYOUT_PLANAR;
  if (copy_ordered(state)) return ZYN_RET_OK;
  const zyn_tensor* input = zyn_cg_planar(state->input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  const arrangement a = arrange(state->shape, state->param.order);
  return zyn_cg_move_by_width(input, [&](auto element) {
    permute<decltype(element)>(state->output->data, input->data, a);
  });
}

}  // namespace

int32_t zyn_cg_bind_permute(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_varied<permute_state>(graph, node, param, ZYN_OP_CHANNEL_GATHER,
                                           zyn_cg_prepare_plain<permute_state>, run_permute);
}

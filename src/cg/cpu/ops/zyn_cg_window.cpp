// Largest value and mean of windows of any kernel, stride, dilation and padding. A row of
// windows is joined down its columns first, into a line with padding at both ends, then
// along the line, eight windows at a time. Blocked inputs are read as they are: a line then
// holds the channels of a block beside each other, and eight windows of eight channels turn
// in registers on their way to the planar output.
#include "cg/cpu/ops/zyn_cg_eight.h"
#include "cg/cpu/ops/zyn_cg_further.h"

namespace {

constexpr int64_t kSlack = 64;  // elements behind a line that full vectors may read

struct window_state : zyn_cg_varied_state {
  zyn_window_param param;
  int64_t line_length;  // elements of a line, padding included; 0: none is so long
  int64_t line_room;    // elements of the line's block
};

// What a run works on: the line and, for averages, the elements of the windows of a row.
struct window_job {
  const zyn_window_param* param;
  int64_t width, height, out_width, out_height;
  float* line;
  int64_t line_length;
  const float* across;
};

template <typename T>
struct largest_of {
  using eight = zyn_eight<T>;
  static __m256 start() { return eight::lowest(); }
  static __m256 join(__m256 a, __m256 b) { return eight::largest(a, b); }
  static __m256 finish(__m256 v, const float*, float) { return v; }
};

template <typename T>
struct mean_of {
  using eight = zyn_eight<T>;
  static __m256 start() { return _mm256_setzero_ps(); }
  static __m256 join(__m256 a, __m256 b) { return eight::add(a, b); }
  static __m256 finish(__m256 v, const float* across, float down) {
    return eight::mean(v, _mm256_loadu_ps(across), down);
  }
};

// Taps of a window that lie in the input.
struct tap_range {
  int64_t first, last;  // last is the one behind
};
tap_range taps_inside(int64_t start, int64_t kernel, int64_t dilation, int64_t extent) {
  return {start < 0 ? zyn_units(-start, dilation) : 0,
          zyn_smaller(kernel, zyn_units(extent - start, dilation))};
}

// Elements of the window at start that an average divides by.
float divisor(int64_t start, int64_t kernel, int64_t extent, int64_t behind, bool count_pad) {
  const int64_t first = count_pad ? start : zyn_larger(start, 0);
  const int64_t last = zyn_smaller(start + kernel, count_pad ? extent + behind : extent);
  return static_cast<float>(last - first);
}

// line[i] = element i of so many rows, joined.
template <typename Kind, typename T, int kRows>
void join_rows(float* line, const T* in, int64_t rows, int64_t pitch, int64_t count) {
  if (kRows) rows = kRows;
  int64_t i = 0;
  for (; i + 8 <= count; i += 8) {
    __m256 v = zyn_eight<T>::load(in + i);
    for (int64_t r = 1; r < rows; r++) v = Kind::join(v, zyn_eight<T>::load(in + r * pitch + i));
    _mm256_storeu_ps(line + i, v);
  }
  if (i == count) return;
  __m256 v = zyn_eight<T>::load(in + i, count - i);
  for (int64_t r = 1; r < rows; r++)
    v = Kind::join(v, zyn_eight<T>::load(in + r * pitch + i, count - i));
  _mm256_maskstore_ps(line + i, zyn_first_lanes(count - i), v);
}

template <typename Kind>
void fill_line(float* line, int64_t count) {
  int64_t i = 0;
  for (; i + 8 <= count; i += 8) _mm256_storeu_ps(line + i, Kind::start());
  if (i < count) _mm256_maskstore_ps(line + i, zyn_first_lanes(count - i), Kind::start());
}

// The rows of the windows of output row y, joined into the line; group values a pixel.
template <typename Kind, typename T>
void join_columns(const window_job& job, float* line, const T* in, int64_t y, int64_t group) {
  const zyn_window_param& p = *job.param;
  const int64_t start = y * p.stride_y - p.pad_top;
  const tap_range rows = taps_inside(start, p.kernel_y, p.dilation_y, job.height);
  const int64_t count = job.width * group, pitch = p.dilation_y * count;
  const int64_t used = rows.last - rows.first;
  if (used < 1) return fill_line<Kind>(line, count);
  in += (start + rows.first * p.dilation_y) * count;
  if (used == 2) return join_rows<Kind, T, 2>(line, in, 2, pitch, count);
  if (used == 3) return join_rows<Kind, T, 3>(line, in, 3, pitch, count);
  join_rows<Kind, T, 0>(line, in, used, pitch, count);
}

// Windows at every second element; the lanes stand in the order of shuffles.
template <typename Kind>
__m256 join_even(const float* at, int64_t taps, int64_t dilation) {
  __m256 low = _mm256_loadu_ps(at), high = _mm256_loadu_ps(at + 8);
  __m256 v = _mm256_shuffle_ps(low, high, 0x88);
  int64_t k = 1;
  if (dilation == 1 && taps > 1) {
    v = Kind::join(v, _mm256_shuffle_ps(low, high, 0xDD));
    k = 2;
  }
  for (; k < taps; k++) {
    low = _mm256_loadu_ps(at + k * dilation);
    high = _mm256_loadu_ps(at + k * dilation + 8);
    v = Kind::join(v, _mm256_shuffle_ps(low, high, 0x88));
  }
  return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(v), 0xD8));
}

// Windows at every stride-th element, the first count lanes.
template <typename Kind>
__m256 join_spread(const float* at, int64_t taps, int64_t dilation, int32_t stride, int64_t count) {
  const __m256i places = _mm256_mullo_epi32(zyn_lane_numbers(), _mm256_set1_epi32(stride));
  const __m256 mask = _mm256_castsi256_ps(zyn_first_lanes(count));
  __m256 v = Kind::start();
  for (int64_t k = 0; k < taps; k++)
    v = Kind::join(
        v, _mm256_mask_i32gather_ps(_mm256_setzero_ps(), at + k * dilation, places, mask, 4));
  return v;
}

// One row of windows along a line; kTaps and kStride are 0 for any.
template <typename Kind, typename T, int kTaps, int kStride>
void join_line(T* out, const window_job& job, float down) {
  const int64_t taps = kTaps ? kTaps : job.param->kernel_x, dilation = job.param->dilation_x;
  const int32_t stride = kStride ? kStride : job.param->stride_x;
  for (int64_t x = 0; x < job.out_width; x += 8) {
    const float* at = job.line + x * stride;
    __m256 v;
    if (kStride == 1) {
      v = _mm256_loadu_ps(at);
      for (int64_t k = 1; k < taps; k++) v = Kind::join(v, _mm256_loadu_ps(at + k * dilation));
    } else if (kStride == 2) {
      v = join_even<Kind>(at, taps, dilation);
    } else {
      v = join_spread<Kind>(at, taps, dilation, stride, job.out_width - x);
    }
    zyn_eight<T>::store(out + x, Kind::finish(v, job.across + x, down), job.out_width - x);
  }
}

// The same for windows that reach far beyond the input: the line has no padding, and every
// window takes the taps inside.
template <typename Kind, typename T>
void join_clipped(T* out, const window_job& job, float down) {
  const zyn_window_param& p = *job.param;
  for (int64_t x = 0; x < job.out_width; x++) {
    const int64_t start = x * p.stride_x - p.pad_left;
    const tap_range taps = taps_inside(start, p.kernel_x, p.dilation_x, job.width);
    __m256 v = Kind::start();
    for (int64_t k = taps.first; k < taps.last; k++)
      v = Kind::join(v, _mm256_loadu_ps(job.line + start + k * p.dilation_x));
    zyn_eight<T>::store(out + x, Kind::finish(v, job.across + x, down), 1);
  }
}

template <typename Kind, typename T>
using line_routine = void (*)(T* out, const window_job& job, float down);

template <typename Kind, typename T>
line_routine<Kind, T> choose_line(const window_job& job) {
  const int32_t taps = job.param->kernel_x;
  const int32_t stride = job.out_width == 1 ? 1 : job.param->stride_x;
  if (job.line_length == 0) return join_clipped<Kind, T>;
  if (stride == 1)
    return taps == 2   ? join_line<Kind, T, 2, 1>
           : taps == 3 ? join_line<Kind, T, 3, 1>
                       : join_line<Kind, T, 0, 1>;
  if (stride == 2)
    return taps == 2   ? join_line<Kind, T, 2, 2>
           : taps == 3 ? join_line<Kind, T, 3, 2>
                       : join_line<Kind, T, 0, 2>;
  return join_line<Kind, T, 0, 0>;
}

// One row of windows of a block of channels; their planes lie pitch apart.
template <typename Kind>
void join_block(float* out, int64_t pitch, const window_job& job, int64_t group, float down) {
  const zyn_window_param& p = *job.param;
  for (int64_t x = 0; x < job.out_width; x += 8) {
    const int64_t count = zyn_smaller(job.out_width - x, 8);
    __m256 rows[8];
    for (int64_t i = 0; i < 8; i++) {
      const float* at = job.line + (x + zyn_smaller(i, count - 1)) * p.stride_x * group;
      __m256 v = _mm256_loadu_ps(at);
      for (int64_t k = 1; k < p.kernel_x; k++)
        v = Kind::join(v, _mm256_loadu_ps(at + k * p.dilation_x * group));
      rows[i] = v;
    }
    zyn_transpose_8x8(rows);
    for (int64_t c = 0; c < group; c++)
      zyn_eight<float>::store(out + c * pitch + x, Kind::finish(rows[c], job.across + x, down),
                              count);
  }
}

float elements_down(const window_job& job, int64_t y) {
  const zyn_window_param& p = *job.param;
  return divisor(y * p.stride_y - p.pad_top, p.kernel_y, job.height, p.pad_bottom,
                 p.count_pad == 1);
}

// The channels of a tensor from in on, group of them beside each other.
template <typename Kind, typename T>
void pool_group(T* out, const T* in, const window_job& job, int64_t group,
                line_routine<Kind, T> along) {
  float* inside = job.line + (job.line_length ? job.param->pad_left * group : 0);
  for (int64_t y = 0; y < job.out_height; y++) {
    const float down = elements_down(job, y);
    T* row = out + y * job.out_width;
    join_columns<Kind>(job, inside, in, y, group);
    if (group == 1)
      along(row, job, down);
    else if constexpr (sizeof(T) == sizeof(float))
      join_block<Kind>(row, job.out_width * job.out_height, job, group, down);
  }
}

template <template <typename> typename Kind, typename T>
int32_t pool(window_state* state) {
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_same_input(state)) return ZYN_RET_ERR_PARA;
  const bool blocked =
      zyn_cg_order(input) == ZYN_LAYOUT_BLOCKED && state->line_length && zyn_cg_channels(input) > 3;
  if (!blocked) input = zyn_cg_planar(input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  auto* across = static_cast<float*>(state->workspace);
  float* line = across + zyn_round_up(zyn_cg_width(output), 8);
  const window_job job = {&state->param,         zyn_cg_width(input),
                          zyn_cg_height(input),  zyn_cg_width(output),
                          zyn_cg_height(output), line,
                          state->line_length,    across};
  const auto along = choose_line<Kind<T>, T>(job);
  const int64_t planes = input->count / zyn_cg_pixels(input);
  const int64_t channels = zyn_cg_channels(input);
  const auto* in = static_cast<const T*>(input->data);
  auto* out = static_cast<T*>(output->data);
  for (int64_t c = 0, before = 0, group; c < planes; c += group) {
    const int64_t left = channels - c % channels;
    group = blocked && left >= 8 ? 8 : blocked && left >= 4 ? 4 : 1;
    if (group != before) fill_line<Kind<T>>(line, state->line_room);
    before = group;
    pool_group<Kind<T>, T>(out + c * job.out_width * job.out_height,
                           in + c * job.width * job.height, job, group, along);
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

int32_t run_window(void* record) {
  auto* state = static_cast<window_state*>(record);
  const bool max = state->param.mode == ZYN_RESAMPLE_MAX_WINDOW;
  if (state->output && state->output->type == ZYN_TYPE_FPI16)
    return max ? pool<largest_of, int16_t>(state) : pool<mean_of, int16_t>(state);
  return max ? pool<largest_of, float>(state) : pool<mean_of, float>(state);
}

int32_t prepare_window(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<window_state>(graph, node);
  const int32_t code = zyn_cg_prepare_further(graph, node, state, &state->param);
  if (code != ZYN_RET_OK) return code;
  const zyn_window_param& p = state->param;
  const int64_t width = state->shape.dims[0], out_width = zyn_cg_width(state->output);
  const int64_t reach = (int64_t{p.kernel_x} - 1) * p.dilation_x + 1;
  state->line_length =
      zyn_larger(p.pad_left + width, (out_width - 1) * int64_t{p.stride_x} + reach);
  // Padding that no output explains makes no request: such windows are clipped.
  if (state->line_length > 4 * (width + out_width) + kSlack) state->line_length = 0;
  const int64_t group = state->line_length && state->shape.extent(2) >= 4 ? 8 : 1;
  state->line_room = zyn_larger(state->line_length, width) * group + kSlack;
  const int64_t across = zyn_round_up(out_width, 8);
  zyn_scratch<float> block(across + state->line_room);
  if (!block) return ZYN_RET_ERR_MEMORY;
  for (int64_t x = 0; x < across; x++)
    block[x] = x < out_width ? divisor(x * p.stride_x - p.pad_left, p.kernel_x, width, p.pad_right,
                                       p.count_pad == 1)
                             : 1.0f;
  zyn_free(state->workspace);
  state->workspace = block.take();
  return ZYN_RET_OK;
}

}  // namespace

int32_t zyn_cg_bind_window(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_varied<window_state>(graph, node, param, ZYN_OP_RESAMPLE, prepare_window,
                                          run_window);
}

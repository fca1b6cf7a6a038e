// Max and average pooling of channel planes. Two rules that need not agree:
// kernel and stride give the output's shape; the windows are kernel_h x kernel_h and
// advance by kernel_h both ways. Windows without an output element are passed over,
// part windows use the elements inside the input, elements without a window are 0.
//
// A window is reduced down its columns first, for a stretch of whole windows at once,
// then along the row of column results.
#include <float.h>

#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr const char* kPath = "src/cg/cpu/zyn_cg_pool.cpp";
constexpr zyn_site kMaxOutput{kPath, 92, ZYN_MSG_OPERATOR_MEMORY};
constexpr zyn_site kAverageOutput{kPath, 181, ZYN_MSG_OPERATOR_MEMORY};

constexpr int64_t kStretch = 512;  // column results kept on the stack

struct pool_state : zyn_cg_io_state {
  zyn_pool_param param;
  int32_t window;             // extent along both axes, and the step from one to the next
  int32_t q_input, q_output;  // fixed point
  uint32_t fixed_point;
  uint32_t device_type;
};

struct max_window {
  static __m256 join(__m256 a, __m256 b) { return _mm256_max_ps(a, b); }
  static float join(float a, float b) { return a > b ? a : b; }
  static float finish(float x, float) { return x; }
  static __m256 finish(__m256 x, __m256) { return x; }
};

struct average_window {
  static __m256 join(__m256 a, __m256 b) { return _mm256_add_ps(a, b); }
  static float join(float a, float b) { return a + b; }
  // On purpose two divisions, and by the whole window also for a part of one.
  static float finish(float x, float k) { return x / k / k; }
  static __m256 finish(__m256 x, __m256 k) { return _mm256_div_ps(_mm256_div_ps(x, k), k); }
};

// columns[i] = the i-th column of rows rows, reduced.
template <typename Window>
void reduce_columns(float* columns, const float* in, int64_t rows, int64_t pitch, int64_t count) {
  int64_t i = 0;
  for (; i + 8 <= count; i += 8) {
    __m256 sum = _mm256_loadu_ps(in + i);
    for (int64_t r = 1; r < rows; r++) sum = Window::join(sum, _mm256_loadu_ps(in + r * pitch + i));
    _mm256_storeu_ps(columns + i, sum);
  }
  if (i == count) return;
  const __m256i mask = zyn_first_lanes(count - i);
  __m256 sum = _mm256_maskload_ps(in + i, mask);
  for (int64_t r = 1; r < rows; r++)
    sum = Window::join(sum, _mm256_maskload_ps(in + r * pitch + i, mask));
  _mm256_maskstore_ps(columns + i, mask, sum);
}

// out[i] = columns[i * k], ... columns[i * k + k - 1] reduced and finished; the last
// window ends at columns + width.
template <typename Window>
void reduce_row(float* out, const float* columns, int64_t windows, int64_t k, int64_t width) {
  const __m256 divisor = _mm256_set1_ps(static_cast<float>(k));
  const __m256i index =
      _mm256_mullo_epi32(zyn_lane_numbers(), _mm256_set1_epi32(static_cast<int32_t>(k)));
  int64_t i = 0;
  for (; i + 8 <= windows && (i + 8) * k <= width; i += 8) {
    __m256 sum;
    if (k == 2) {
      const __m256 low = _mm256_loadu_ps(columns + 2 * i);
      const __m256 high = _mm256_loadu_ps(columns + 2 * i + 8);
      sum = Window::join(_mm256_shuffle_ps(low, high, 0x88), _mm256_shuffle_ps(low, high, 0xDD));
      sum = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(sum), 0xD8));
    } else {
      sum = _mm256_i32gather_ps(columns + i * k, index, 4);
      for (int64_t c = 1; c < k; c++)
        sum = Window::join(sum, _mm256_i32gather_ps(columns + i * k + c, index, 4));
    }
    _mm256_storeu_ps(out + i, Window::finish(sum, divisor));
  }
  for (; i < windows; i++) {
    float sum = columns[i * k];
    for (int64_t c = i * k + 1; c < (i + 1) * k && c < width; c++)
      sum = Window::join(sum, columns[c]);
    out[i] = Window::finish(sum, static_cast<float>(k));
  }
}

// One window wider than a stretch.
template <typename Window>
float reduce_wide(const float* in, int64_t rows, int64_t pitch, int64_t columns, int64_t k) {
  float buffer[kStretch];
  float sum = 0.0f;
  for (int64_t x = 0; x < columns; x += kStretch) {
    const int64_t count = columns - x < kStretch ? columns - x : kStretch;
    reduce_columns<Window>(buffer, in + x, rows, pitch, count);
    for (int64_t i = 0; i < count; i++) sum = x + i ? Window::join(sum, buffer[i]) : buffer[i];
  }
  return Window::finish(sum, static_cast<float>(k));
}

// One output row: windows over rows input rows of width elements.
template <typename Window>
void pool_row(float* out, const float* in, int64_t windows, int64_t rows, int64_t width,
              int64_t k) {
  float columns[kStretch];
  if (k > kStretch) {
    for (int64_t i = 0; i < windows; i++) {
      const int64_t left = width - i * k;
      out[i] = reduce_wide<Window>(in + i * k, rows, width, left < k ? left : k, k);
    }
    return;
  }
  const int64_t step = kStretch / k;
  for (int64_t first = 0; first < windows; first += step) {
    const int64_t count = windows - first < step ? windows - first : step;
    const int64_t left = width - first * k;
    const int64_t used = left < count * k ? left : count * k;
    reduce_columns<Window>(columns, in + first * k, rows, width, used);
    reduce_row<Window>(out + first, columns, count, k, used);
  }
}

// Number of windows along an axis that have an output element.
int64_t windows_along(int64_t input, int64_t output, int64_t k) {
  const int64_t windows = (input + k - 1) / k;
  return windows < output ? windows : output;
}

template <typename Window>
int32_t pool(pool_state* state) {
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || zyn_cg_channels(input) != zyn_cg_channels(output) ||
      input->count / zyn_cg_pixels(input) != output->count / zyn_cg_pixels(output))
    return ZYN_RET_ERR_PARA;
  input = zyn_cg_planar(input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  const int64_t k = state->window;
  const int64_t width = zyn_cg_width(input), height = zyn_cg_height(input);
  const int64_t out_width = zyn_cg_width(output), out_height = zyn_cg_height(output);
  const int64_t across = windows_along(width, out_width, k);
  const int64_t down = windows_along(height, out_height, k);
  if (across < out_width || down < out_height)
    memset(output->data, 0, static_cast<size_t>(output->byte_size));
  for (int64_t plane = 0; plane < input->count / zyn_cg_pixels(input); plane++) {
    const float* in = zyn_cg_floats(input) + plane * width * height;
    float* out = zyn_cg_floats(output) + plane * out_width * out_height;
    for (int64_t y = 0; y < down; y++) {
      const int64_t left = height - y * k;
      pool_row<Window>(out + y * out_width, in + y * k * width, across, left < k ? left : k, width,
                       k);
    }
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

// Counts of fraction bits that differ like those of a node, in the kernel's range. From 17
// bits to the right on every mean becomes 0.
struct mean_scale {
  int32_t q_input, q_output;
};
mean_scale scale_of(int32_t q_input, int32_t q_output) {
  const int64_t right = int64_t{q_input} - q_output;
  if (right < 0) return {0, static_cast<int32_t>(-right)};
  return {right < 31 ? static_cast<int32_t>(right) : 31, 0};
}

// Both poolings on 16-bit data.
int32_t pool_fixed(pool_state* state) {
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  if (!zyn_cg_ready(input, output) || zyn_cg_channels(input) != zyn_cg_channels(output) ||
      input->count / zyn_cg_pixels(input) != output->count / zyn_cg_pixels(output))
    return ZYN_RET_ERR_PARA;
  const zyn_fpi_pool shape = {zyn_cg_width(input), zyn_cg_height(input), zyn_cg_width(output),
                              zyn_cg_height(output), state->window};
  const int16_t* in = zyn_fpi_words(input);
  int16_t* out = zyn_fpi_words(output);
  const mean_scale scale = scale_of(state->q_input, state->q_output);
  for (int64_t plane = 0; plane < input->count / zyn_cg_pixels(input); plane++) {
    if (state->type == ZYN_OP_MAX_POOL)
      zyn_fpi_max_pool(out, in, shape);
    else
      zyn_fpi_average_pool(out, scale.q_output, in, scale.q_input, shape);
    in += zyn_cg_pixels(input);
    out += zyn_cg_pixels(output);
  }
  return ZYN_RET_OK;
}

int32_t run_max(void* record) {
  auto* state = static_cast<pool_state*>(record);
  return state->fixed_point == 1 ? pool_fixed(state) : pool<max_window>(state);
}

int32_t run_average(void* record) {
  auto* state = static_cast<pool_state*>(record);
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  if (state->fixed_point != 1) return pool<average_window>(state);
  // On purpose here and not in preparation, and of one count the upper, of the other the
  // lower bound alone.
  const bool fits = state->q_output < 16 && state->q_input >= 0;
  return fits ? pool_fixed(state) : ZYN_RET_ERR_PARA;
}

// Input and output; device is null where the output has data on every device.
int32_t prepare_pool(zyn_cg_handle* graph, int32_t node, const zyn_cg_handle* device,
                     const zyn_site& site) {
  auto* state = zyn_cg_state<pool_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  int32_t producer = -1;
  int32_t code = zyn_cg_only_input(graph, node, &state->input, &producer);
  if (code != ZYN_RET_OK) return code;
  const zyn_tensor* input = state->input;
  const zyn_pool_param& p = state->param;
  if (p.kernel_h < 1 || p.kernel_w < 1 || p.stride_h < 1 || p.stride_w < 1) return ZYN_RET_ERR_PARA;
  const zyn_cg_pair<int32_t> kernel = {p.kernel_h, p.kernel_w}, stride = {p.stride_h, p.stride_w};
  state->window = kernel.x;  // On purpose along both axes; the rest makes the shape.
  int32_t dims[5];
  memcpy(dims, input->dims, sizeof(dims));
  dims[0] = (dims[0] - kernel.x) / stride.x + 1;
  if (input->dim_count > 1) dims[1] = (dims[1] - kernel.y) / stride.y + 1;
  code = zyn_cg_make_output(device, &state->output, input->dim_count, dims, input->type, &site);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = input->layout;
  state->device_type = graph->device_type;
  if (!zyn_cg_is_fixed_point(graph)) return ZYN_RET_OK;
  state->fixed_point = graph->fixed_point;
  if (state->type == ZYN_OP_MAX_POOL) return zyn_cg_inherit_q(graph, node, producer);
  const bool listed = zyn_cg_read_fraction_bits(graph, producer, &state->q_input) &&
                      zyn_cg_read_fraction_bits(graph, node, &state->q_output);
  return listed ? ZYN_RET_OK : ZYN_RET_ERR_PARA;
}

int32_t prepare_max(zyn_cg_handle* graph, int32_t node) {
  return prepare_pool(graph, node, nullptr, kMaxOutput);
}

int32_t prepare_average(zyn_cg_handle* graph, int32_t node) {
  return prepare_pool(graph, node, graph, kAverageOutput);
}

constexpr zyn_cg_output_fn output_pool =
    zyn_cg_output_if<pool_state, ZYN_OP_MAX_POOL, ZYN_OP_AVERAGE_POOL>;

}  // namespace

const zyn_cg_operator zyn_cg_max_pool_row = {
    zyn_cg_bind_record<pool_state, ZYN_OP_MAX_POOL, run_max>, prepare_max, zyn_cg_release_io,
    output_pool, nullptr};

const zyn_cg_operator zyn_cg_average_pool_row = {
    zyn_cg_bind_record<pool_state, ZYN_OP_AVERAGE_POOL, run_average>, prepare_average,
    zyn_cg_release_io, output_pool, nullptr};

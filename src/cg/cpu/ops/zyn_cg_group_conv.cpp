// Grouped convolution (7) and transposed convolution (8), float, any group count,
// padding, stride and dilation.
//
// Both run one kernel: an output row is a sum over taps, each a row of the input from
// some place on, times a weight. For that the input planes of a group are packed with
// zeros left and right; for a convolution with stride s a packed row holds s phases
// (every s-th pixel), so that its taps are contiguous too; a transposed convolution
// computes every s-th output pixel of a row at a time, for which its taps are.
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr int64_t kTile = 16;  // output pixels at once: with 4 channels 8 accumulators
constexpr int kChannels = 4;   // output channels at once

struct tap {
  int64_t offset;  // in the packed planes, of output pixel 0
  int64_t weight;  // index in the weights of one channel pair
};

// The workspace is an array of taps, then the packed planes of one group.
struct packing {
  int64_t left;        // zeros before a row
  int64_t phases;      // convolution: the stride; transposed: 1
  int64_t phase_size;  // elements of a phase
  int64_t row_size;    // elements of a packed row
};

struct group_conv_state : zyn_cg_io_state {
  zyn_tensor* weights;  // the constant's own
  zyn_conv_param param;
  packing rows;
  int32_t width, height;  // of the input that the workspace is made for
};

// What the kernel sums up for one output row.
struct row_sum {
  const float* planes;
  int64_t plane_pitch;
  int64_t inputs;  // channels of a group
  const tap* taps;
  int64_t tap_count;
  const float* weights;             // of the first output channel and input channel
  int64_t input_step, output_step;  // in weights, to the next channel
  const float* bias;                // of the first output channel, or null
};

int64_t taps_of(const zyn_conv_param& p) { return static_cast<int64_t>(p.kernel_h) * p.kernel_w; }

bool is_transposed(const group_conv_state* state) { return state->type == ZYN_OP_CONV_TRANSPOSED; }

// Sixteen pixels from x on of Outputs channels, rows pitch elements apart.
template <int Outputs>
void sum_tile(float* out, int64_t pitch, const row_sum& row, int64_t x) {
  __m256 low[Outputs], high[Outputs];
#pragma GCC unroll 4
  for (int oc = 0; oc < Outputs; oc++)
    low[oc] = high[oc] = row.bias ? _mm256_set1_ps(row.bias[oc]) : _mm256_setzero_ps();
  for (int64_t ic = 0; ic < row.inputs; ic++) {
    const float* plane = row.planes + ic * row.plane_pitch + x;
    const float* weights = row.weights + ic * row.input_step;
    for (int64_t t = 0; t < row.tap_count; t++) {
      const float* in = plane + row.taps[t].offset;
      const float* w = weights + row.taps[t].weight;
      const __m256 first = _mm256_loadu_ps(in);
      const __m256 second = _mm256_loadu_ps(in + 8);
#pragma GCC unroll 4
      for (int oc = 0; oc < Outputs; oc++) {
        const __m256 weight = _mm256_broadcast_ss(w + oc * row.output_step);
        low[oc] = _mm256_fmadd_ps(first, weight, low[oc]);
        high[oc] = _mm256_fmadd_ps(second, weight, high[oc]);
      }
    }
  }
#pragma GCC unroll 4
  for (int oc = 0; oc < Outputs; oc++) {
    _mm256_storeu_ps(out + oc * pitch, low[oc]);
    _mm256_storeu_ps(out + oc * pitch + 8, high[oc]);
  }
}

void sum_tile(float* out, int64_t pitch, const row_sum& row, int64_t x, int outputs) {
  if (outputs == 4) return sum_tile<4>(out, pitch, row, x);
  if (outputs == 3) return sum_tile<3>(out, pitch, row, x);
  if (outputs == 2) return sum_tile<2>(out, pitch, row, x);
  sum_tile<1>(out, pitch, row, x);
}

// count pixels, stride elements apart, of outputs channels, planes pitch elements apart.
void sum_row(float* out, int64_t pitch, int64_t stride, int64_t count, const row_sum& row,
             int outputs) {
  for (int64_t x = 0; x < count; x += kTile) {
    const int64_t used = count - x < kTile ? count - x : kTile;
    if (stride == 1 && used == kTile) {
      sum_tile(out + x, pitch, row, x, outputs);
      continue;
    }
    float tile[kChannels * kTile];
    sum_tile(tile, kTile, row, x, outputs);
    for (int oc = 0; oc < outputs; oc++)
      for (int64_t i = 0; i < used; i++) out[oc * pitch + (x + i) * stride] = tile[oc * kTile + i];
  }
}

// Packs the planes of a group; the zeros around them stand since preparation.
void pack_planes(float* packed, const float* in, const group_conv_state* state, int64_t channels) {
  const packing& rows = state->rows;
  const int64_t left = rows.left;
  for (int64_t r = 0; r < channels * state->height; r++) {
    for (int64_t phase = 0; phase < rows.phases; phase++) {
      // Entry i of a phase is pixel i * phases + phase - left.
      int64_t i = left > phase ? (left - phase + rows.phases - 1) / rows.phases : 0;
      int64_t x = i * rows.phases + phase - left;
      float* out = packed + phase * rows.phase_size;
      for (; i < rows.phase_size && x < state->width; i++, x += rows.phases) out[i] = in[x];
    }
    packed += rows.row_size;
    in += state->width;
  }
}

// Taps of output row y of a convolution.
int64_t conv_taps(tap* taps, const group_conv_state* state, int64_t y) {
  const zyn_conv_param& p = state->param;
  int64_t count = 0;
  for (int64_t r = 0; r < p.kernel_w; r++) {
    const int64_t iy = y * p.stride_w - p.pad_w + r * p.dilation_w;
    if (iy < 0 || iy >= state->height) continue;
    for (int64_t c = 0; c < p.kernel_h; c++) {
      const int64_t place = c * p.dilation_h;
      taps[count++] = {iy * state->rows.row_size + place % p.stride_h * state->rows.phase_size +
                           place / p.stride_h,
                       r * p.kernel_h + c};
    }
  }
  return count;
}

// Taps of the output pixels phase, phase + stride, ... of row y of a transposed
// convolution: input pixel i meets output pixel i * stride - pad + c * dilation.
int64_t transposed_taps(tap* taps, const group_conv_state* state, int64_t y, int64_t phase) {
  const zyn_conv_param& p = state->param;
  int64_t count = 0;
  for (int64_t r = 0; r < p.kernel_w; r++) {
    const int64_t place_y = y + p.pad_w - r * p.dilation_w;
    const int64_t iy = place_y / p.stride_w;
    if (place_y < 0 || place_y % p.stride_w != 0 || iy >= state->height) continue;
    for (int64_t c = 0; c < p.kernel_h; c++) {
      const int64_t place = phase + p.pad_h - c * p.dilation_h;
      if (place % p.stride_h != 0) continue;
      taps[count++] = {iy * state->rows.row_size + state->rows.left + place / p.stride_h,
                       r * p.kernel_h + c};
    }
  }
  return count;
}

// The output planes of one group, whose input planes are packed.
void run_group(const group_conv_state* state, int64_t group, tap* taps, const float* packed) {
  const zyn_conv_param& p = state->param;
  const zyn_tensor* output = state->output;
  const bool transposed = is_transposed(state);
  const int64_t inputs = p.in_channels / p.groups, outputs = p.out_channels / p.groups;
  const int64_t width = zyn_cg_width(output), plane = zyn_cg_pixels(output);
  const float* constant = zyn_cg_floats(state->weights);
  const float* bias = constant + taps_of(p) * p.in_channels * outputs;
  row_sum row = {};
  row.planes = packed;
  row.plane_pitch = state->rows.row_size * state->height;
  row.inputs = inputs;
  row.taps = taps;
  row.input_step = transposed ? outputs * taps_of(p) : taps_of(p);
  row.output_step = transposed ? taps_of(p) : inputs * taps_of(p);
  const int64_t phases = transposed ? p.stride_h : 1;
  for (int64_t y = 0; y < zyn_cg_height(output); y++) {
    for (int64_t phase = 0; phase < phases && phase < width; phase++) {
      row.tap_count =
          transposed ? transposed_taps(taps, state, y, phase) : conv_taps(taps, state, y);
      for (int64_t oc = 0; oc < outputs; oc += kChannels) {
        const int64_t channel = group * outputs + oc;
        const int64_t left = outputs - oc;
        row.weights = constant + group * inputs * outputs * taps_of(p) + oc * row.output_step;
        row.bias = p.bias == 1 ? bias + channel : nullptr;
        sum_row(zyn_cg_floats(output) + channel * plane + y * width + phase, plane, phases,
                (width - phase + phases - 1) / phases, row,
                static_cast<int>(left < kChannels ? left : kChannels));
      }
    }
  }
}

// Weights and biases that the constant must hold; -1 beyond all bounds.
int64_t constant_size(const zyn_conv_param& p) {
  int64_t size = taps_of(p);
  if (!zyn_multiply(size, p.in_channels, &size) ||
      !zyn_multiply(size, p.out_channels / p.groups, &size) ||
      !zyn_sum(size, p.bias == 1 ? p.out_channels : 0, &size))
    return -1;
  return size;
}

int32_t run_group_conv(void* record) {
  auto* state = static_cast<group_conv_state*>(record);
  const zyn_tensor* input = state->input;
  zyn_tensor* output = state->output;
  const zyn_conv_param& p = state->param;
  if (!zyn_cg_ready(input, output) || !zyn_cg_ready(state->weights, output) ||
      state->weights->count < constant_size(p) || !state->workspace ||
      input->dims[0] != state->width || zyn_cg_height(input) != state->height ||
      zyn_cg_channels(input) != p.in_channels)
    return ZYN_RET_ERR_PARA;
  input = zyn_cg_planar(input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  auto* taps = static_cast<tap*>(state->workspace);
  auto* packed = reinterpret_cast<float*>(taps + taps_of(p));
  const int64_t inputs = p.in_channels / p.groups;
  for (int64_t group = 0; group < p.groups; group++) {
    pack_planes(packed, zyn_cg_floats(input) + group * inputs * zyn_cg_pixels(input), state,
                inputs);
    run_group(state, group, taps, packed);
  }
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

bool is_valid(const zyn_conv_param& p) {
  const bool channels = p.groups >= 1 && p.in_channels >= 1 && p.out_channels >= 1 &&
                        p.in_channels % p.groups == 0 && p.out_channels % p.groups == 0;
  const bool steps = p.kernel_h >= 1 && p.kernel_w >= 1 && p.stride_h >= 1 && p.stride_w >= 1 &&
                     p.dilation_h >= 1 && p.dilation_w >= 1;
  return channels && steps && p.pad_h >= 0 && p.pad_w >= 0;
}

int64_t round_to_tile(int64_t pixels) { return (pixels + kTile - 1) / kTile * kTile; }

// How rows are packed so that every tap of every tile stays inside its row.
packing pack_rule(const group_conv_state* state) {
  const zyn_conv_param& p = state->param;
  const int64_t width = state->output->dims[0];
  const int64_t reach = static_cast<int64_t>(p.kernel_h - 1) * p.dilation_h;
  const int64_t stride = p.stride_h;
  if (!is_transposed(state)) {
    const int64_t size = reach / stride + 1 + round_to_tile(width);
    return {p.pad_h, stride, size, size * stride};
  }
  const int64_t left = reach > p.pad_h ? (reach - p.pad_h + stride - 1) / stride : 0;
  const int64_t furthest = (stride - 1 + p.pad_h) / stride;
  int64_t right = furthest + round_to_tile((width + stride - 1) / stride);
  if (right < state->width) right = state->width;
  return {left, 1, left + right, left + right};
}

int32_t make_workspace(group_conv_state* state) {
  const zyn_conv_param& p = state->param;
  state->rows = pack_rule(state);
  int64_t floats = 0, taps = 0, bytes = 0;
  zyn_free(state->workspace);
  state->workspace = nullptr;
  if (!zyn_multiply(state->rows.row_size, state->height, &floats) ||
      !zyn_multiply(floats, p.in_channels / p.groups, &floats) ||
      !zyn_multiply(floats, sizeof(float), &floats) ||
      !zyn_multiply(taps_of(p), sizeof(tap), &taps) || !zyn_sum(floats, taps, &bytes))
    return ZYN_RET_ERR_MEMORY;
  state->workspace = zyn_calloc(bytes, 1);
  return state->workspace ? ZYN_RET_OK : ZYN_RET_ERR_MEMORY;
}

// Extents of the output along one axis.
int64_t conv_extent(int64_t in, int64_t k, int64_t stride, int64_t pad, int64_t dilation) {
  return (in - 1 + 2 * pad - (k - 1) * dilation) / stride + 1;
}

int64_t transposed_extent(int64_t in, int64_t k, int64_t stride, int64_t pad, int64_t dilation) {
  return (in - 1) * stride - 2 * pad + dilation * (k - 1) + 1;
}

template <typename Extent>
int32_t prepare(zyn_cg_handle* graph, int32_t node, Extent extent) {
  auto* state = zyn_cg_state<group_conv_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  state->input = nullptr;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  const zyn_tensor* input = sources.input;
  const zyn_tensor* constant = sources.constant;
  const zyn_conv_param& p = state->param;
  if (zyn_cg_check_input(graph, input) || !constant || constant->type != ZYN_TYPE_F32 ||
      !constant->data || !is_valid(p) || input->dim_count > 3 ||
      zyn_cg_channels(input) != p.in_channels)
    return ZYN_RET_ERR_PARA;
  const int64_t needed = constant_size(p);
  if (needed < 0 || needed > constant->count) return ZYN_RET_ERR_PARA;
  state->weights = sources.constant;
  state->width = input->dims[0];
  state->height = static_cast<int32_t>(zyn_cg_height(input));
  const int32_t dims[3] = {
      zyn_cg_extent(extent(state->width, p.kernel_h, p.stride_h, p.pad_h, p.dilation_h)),
      zyn_cg_extent(extent(state->height, p.kernel_w, p.stride_w, p.pad_w, p.dilation_w)),
      p.out_channels};
  int32_t code = zyn_cg_make_output(graph, &state->output, 3, dims, input->type, nullptr);
  if (code == ZYN_RET_OK) code = make_workspace(state);
  if (code != ZYN_RET_OK) return code;
  state->input = sources.input;
  return zyn_cg_is_fixed_point(graph) ? zyn_cg_no_fixed_point() : ZYN_RET_OK;
}

int32_t prepare_grouped(zyn_cg_handle* graph, int32_t node) {
  return prepare(graph, node, conv_extent);
}

int32_t prepare_transposed(zyn_cg_handle* graph, int32_t node) {
  return prepare(graph, node, transposed_extent);
}

}  // namespace

const zyn_cg_operator zyn_cg_conv_grouped_row = {
    zyn_cg_bind_record<group_conv_state, ZYN_OP_CONV_GROUPED, run_group_conv>, prepare_grouped,
    zyn_cg_release_io, zyn_cg_output_conv, nullptr};

const zyn_cg_operator zyn_cg_conv_transposed_row = {
    zyn_cg_bind_record<group_conv_state, ZYN_OP_CONV_TRANSPOSED, run_group_conv>,
    prepare_transposed, zyn_cg_release_io, zyn_cg_output_conv, nullptr};

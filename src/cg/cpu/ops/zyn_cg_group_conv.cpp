// Grouped convolution (7) and transposed convolution (8), float, any group count,
// padding, stride and dilation.
//
// Both run one kernel: an output row is a sum over taps, each a row of the input from
// some place on, times a weight. For that the input planes of a group are packed with
// zeros left and right; for a convolution with stride s a packed row holds s phases
// (every s-th pixel), so that its taps are contiguous too; a transposed convolution
// computes every s-th output pixel of a row at a time, for which its taps are.
//
// The packed planes of a group have at most 32 floats for every input and every output of
// the group, and 16384 more; the taps are 16 bytes for each of a kernel. A layer whose
// stride, padding or dilation would ask for more is summed tap by tap from the input.
#include "cg/cpu/kernels/zyn_conv_shape.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"
#include "simd/zyn_flush.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kTile = 16;  // output pixels at once: with 4 channels 8 accumulators
constexpr int kChannels = 4;   // output channels at once
constexpr int64_t kPackedFactor = 32, kPackedFloats = 16384;  // see above

struct tap {
  int64_t offset;  // in the packed planes, of output pixel 0
  int64_t weight;  // index in the weights of one channel pair
};

// The workspace is an array of taps, then the packed planes of one group. No rows: none.
struct packing {
  int64_t left;        // zeros before a row
  int64_t phases;      // convolution: the stride; transposed: 1
  int64_t phase_size;  // elements of a phase
  int64_t row_size;    // elements of a packed row
};

struct group_conv_state : zyn_cg_io_state {
  zyn_tensor* weights;  // the constant's own
  zyn_conv_param param;
  zyn_conv_shape shape;  // of param, once that is known to be valid
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
int64_t inputs_of(const zyn_conv_param& p) { return p.in_channels / p.groups; }
int64_t outputs_of(const zyn_conv_param& p) { return p.out_channels / p.groups; }

bool is_transposed(const group_conv_state* state) { return state->type == ZYN_OP_CONV_TRANSPOSED; }

// Sixteen pixels from x on of Outputs channels, rows pitch elements apart.
template <int Outputs>
void sum_tile(float* out, int64_t pitch, const row_sum& row, int64_t x) {
  __m256 low[Outputs], high[Outputs];
  ZYN_UNROLL for (int oc = 0; oc < Outputs; oc++) low[oc] = high[oc] =
      row.bias ? _mm256_set1_ps(zyn_flushed(row.bias[oc])) : _mm256_setzero_ps();
  for (int64_t ic = 0; ic < row.inputs; ic++) {
    const float* plane = row.planes + ic * row.plane_pitch + x;
    const float* weights = row.weights + ic * row.input_step;
    for (int64_t t = 0; t < row.tap_count; t++) {
      const float* in = plane + row.taps[t].offset;
      const float* w = weights + row.taps[t].weight;
      const __m256 first = _mm256_loadu_ps(in);
      const __m256 second = _mm256_loadu_ps(in + 8);
      ZYN_UNROLL for (int oc = 0; oc < Outputs; oc++) {
        const __m256 weight = _mm256_broadcast_ss(w + oc * row.output_step);
        low[oc] = _mm256_fmadd_ps(first, weight, low[oc]);
        high[oc] = _mm256_fmadd_ps(second, weight, high[oc]);
      }
    }
  }
  ZYN_UNROLL for (int oc = 0; oc < Outputs; oc++) {
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
  const zyn_conv_shape& s = state->shape;
  int64_t count = 0;
  for (int64_t r = 0; r < s.kernel_y; r++) {
    const int64_t iy = y * s.stride_y - s.pad_y + r * s.dilation_y;
    if (iy < 0 || iy >= state->height) continue;
    for (int64_t c = 0; c < s.kernel_x; c++) {
      const int64_t place = c * s.dilation_x;
      taps[count++] = {iy * state->rows.row_size + place % s.stride_x * state->rows.phase_size +
                           place / s.stride_x,
                       r * s.kernel_x + c};
    }
  }
  return count;
}

// Taps of the output pixels phase, phase + stride, ... of row y of a transposed
// convolution: input pixel i meets output pixel i * stride - pad + c * dilation.
int64_t transposed_taps(tap* taps, const group_conv_state* state, int64_t y, int64_t phase) {
  const zyn_conv_shape& s = state->shape;
  int64_t count = 0;
  for (int64_t r = 0; r < s.kernel_y; r++) {
    const int64_t place_y = y + s.pad_y - r * s.dilation_y;
    const int64_t iy = place_y / s.stride_y;
    if (place_y < 0 || place_y % s.stride_y != 0 || iy >= state->height) continue;
    for (int64_t c = 0; c < s.kernel_x; c++) {
      const int64_t place = phase + s.pad_x - c * s.dilation_x;
      if (place % s.stride_x != 0) continue;
      taps[count++] = {iy * state->rows.row_size + state->rows.left + place / s.stride_x,
                       r * s.kernel_x + c};
    }
  }
  return count;
}

// Where along one axis the tap at place k reads for output pixel at; -1 where it does not.
int64_t source_of(int64_t at, int64_t k, int64_t stride, int64_t pad, int64_t dilation,
                  int64_t extent, bool transposed) {
  int64_t place = transposed ? at + pad - k * dilation : at * stride - pad + k * dilation;
  if (transposed && place % stride != 0) return -1;
  if (transposed) place /= stride;
  return place >= 0 && place < extent ? place : -1;
}

// One output pixel from the planes as they are: the same terms in the same order, the
// zeros beside a row among them.
float sum_pixel(const group_conv_state* state, const row_sum& row, float start, int64_t x,
                int64_t y) {
  const zyn_conv_shape& s = state->shape;
  const bool transposed = is_transposed(state);
  for (int64_t t = 0; t < row.inputs * taps_of(state->param); t++) {
    const int64_t ic = t / taps_of(state->param), tap = t % taps_of(state->param);
    const int64_t iy = source_of(y, tap / s.kernel_x, s.stride_y, s.pad_y, s.dilation_y,
                                 state->height, transposed);
    if (iy < 0) continue;
    const int64_t place = x + s.pad_x - tap % s.kernel_x * s.dilation_x;
    if (transposed && place % s.stride_x != 0) continue;
    const int64_t ix =
        source_of(x, tap % s.kernel_x, s.stride_x, s.pad_x, s.dilation_x, state->width, transposed);
    const float value = ix < 0 ? 0.0f : row.planes[ic * row.plane_pitch + iy * state->width + ix];
    start = __builtin_fmaf(value, row.weights[ic * row.input_step + tap], start);
  }
  return start;
}

// What all rows of a layer have in common.
row_sum make_row(const group_conv_state* state, const float* planes, int64_t plane_pitch,
                 const tap* taps) {
  const zyn_conv_param& p = state->param;
  const bool transposed = is_transposed(state);
  row_sum row = {};
  row.planes = planes;
  row.plane_pitch = plane_pitch;
  row.inputs = inputs_of(p);
  row.taps = taps;
  row.input_step = transposed ? outputs_of(p) * taps_of(p) : taps_of(p);
  row.output_step = transposed ? taps_of(p) : inputs_of(p) * taps_of(p);
  return row;
}

// Points weights and bias at output channel oc of a group.
void aim(row_sum& row, const group_conv_state* state, int64_t group, int64_t oc) {
  const zyn_conv_param& p = state->param;
  const float* constant = zyn_cg_floats(state->weights);
  const float* bias = constant + taps_of(p) * p.in_channels * outputs_of(p);
  row.weights = constant + group * inputs_of(p) * outputs_of(p) * taps_of(p) + oc * row.output_step;
  row.bias = p.bias == 1 ? bias + group * outputs_of(p) + oc : nullptr;
}

// The output planes of one group, whose input planes are packed.
void run_group(const group_conv_state* state, int64_t group, tap* taps, const float* packed) {
  const zyn_tensor* output = state->output;
  const bool transposed = is_transposed(state);
  const int64_t outputs = outputs_of(state->param);
  const int64_t width = zyn_cg_width(output), plane = zyn_cg_pixels(output);
  row_sum row = make_row(state, packed, state->rows.row_size * state->height, taps);
  const int64_t phases = transposed ? state->shape.stride_x : 1;
  for (int64_t y = 0; y < zyn_cg_height(output); y++) {
    for (int64_t phase = 0; phase < phases && phase < width; phase++) {
      row.tap_count =
          transposed ? transposed_taps(taps, state, y, phase) : conv_taps(taps, state, y);
      for (int64_t oc = 0; oc < outputs; oc += kChannels) {
        const int64_t left = outputs - oc;
        aim(row, state, group, oc);
        sum_row(zyn_cg_floats(output) + (group * outputs + oc) * plane + y * width + phase, plane,
                phases, (width - phase + phases - 1) / phases, row,
                static_cast<int>(left < kChannels ? left : kChannels));
      }
    }
  }
}

// The output planes of one group from its input planes, which are not packed.
void run_group_unpacked(const group_conv_state* state, int64_t group, const float* planes) {
  const zyn_tensor* output = state->output;
  const int64_t outputs = outputs_of(state->param);
  row_sum row = make_row(state, planes, int64_t{state->width} * state->height, nullptr);
  float* out = zyn_cg_floats(output) + group * outputs * zyn_cg_pixels(output);
  for (int64_t oc = 0; oc < outputs; oc++) {
    aim(row, state, group, oc);
    const float start = row.bias ? zyn_flushed(*row.bias) : 0.0f;
    for (int64_t y = 0; y < zyn_cg_height(output); y++)
      for (int64_t x = 0; x < zyn_cg_width(output); x++)
        *out++ = sum_pixel(state, row, start, x, y);
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
  const int64_t inputs = inputs_of(p);
  const float* planes = zyn_cg_floats(input);
  for (int64_t group = 0; group < p.groups; group++, planes += inputs * zyn_cg_pixels(input)) {
    if (state->rows.row_size == 0) {
      run_group_unpacked(state, group, planes);
      continue;
    }
    pack_planes(packed, planes, state, inputs);
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
  const zyn_conv_shape& s = state->shape;
  const int64_t width = state->output->dims[0];
  const int64_t reach = (s.kernel_x - int64_t{1}) * s.dilation_x;
  const int64_t stride = s.stride_x;
  if (!is_transposed(state)) {
    const int64_t size = reach / stride + 1 + round_to_tile(width);
    return {s.pad_x, stride, size, size * stride};
  }
  const int64_t left = reach > s.pad_x ? (reach - s.pad_x + stride - 1) / stride : 0;
  const int64_t furthest = (stride - 1 + s.pad_x) / stride;
  int64_t right = furthest + round_to_tile((width + stride - 1) / stride);
  if (right < state->width) right = state->width;
  return {left, 1, left + right, left + right};
}

// The packed planes of a group, in floats; 0 where they would be too large.
int64_t packed_size(const group_conv_state* state) {
  const zyn_conv_param& p = state->param;
  int64_t packed = 0, most = 0;
  if (!zyn_multiply(state->input->count / p.groups + state->output->count / p.groups, kPackedFactor,
                    &most) ||
      !zyn_sum(most, kPackedFloats, &most))
    most = INT64_MAX;
  const bool fits = zyn_multiply(state->rows.row_size, state->height, &packed) &&
                    zyn_multiply(packed, inputs_of(p), &packed) && packed <= most;
  return fits ? packed : 0;
}

int32_t make_workspace(group_conv_state* state) {
  state->rows = pack_rule(state);
  int64_t floats = packed_size(state), taps = 0, bytes = 0;
  if (floats == 0) state->rows = {};
  zyn_free(state->workspace);
  state->workspace = nullptr;
  if (!zyn_multiply(floats, sizeof(float), &floats) ||
      !zyn_multiply(taps_of(state->param), sizeof(tap), &taps) || !zyn_sum(floats, taps, &bytes))
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
  state->shape = zyn_conv_shape_of(&p);
  state->width = input->dims[0];
  state->height = static_cast<int32_t>(zyn_cg_height(input));
  const zyn_conv_shape& s = state->shape;
  const int32_t dims[3] = {
      zyn_cg_extent(extent(state->width, s.kernel_x, s.stride_x, s.pad_x, s.dilation_x)),
      zyn_cg_extent(extent(state->height, s.kernel_y, s.stride_y, s.pad_y, s.dilation_y)),
      p.out_channels};
  if (const int32_t code = zyn_cg_make_output(graph, &state->output, 3, dims, input->type, nullptr))
    return code;
  // Until here a failure leaves no input, and the run refuses.
  if (zyn_cg_is_fixed_point(graph)) return zyn_cg_no_fixed_point();
  state->input = sources.input;
  const int32_t code = make_workspace(state);
  if (code != ZYN_RET_OK) state->input = nullptr;
  return code;
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

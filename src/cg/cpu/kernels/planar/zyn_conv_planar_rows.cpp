// Convolution over planes with any kernel, stride, padding and dilation, which is also
// the dense 3x3 of stride 2. The input rows under one output row are copied, for every
// input channel, so that the values that one tap sees under consecutive output pixels
// lie together:
//   - in phases: copied row = stride arrays, array f holding columns f, f + stride, ...
//     of the padded row; a tap is a place in one of them;
//   - by taps, where phases would be larger: one array a tap.
// Copies have zeros where the image has no column and end in whole tiles. A tile of up
// to 4 output channels by 16 pixels keeps its sums in registers over all input channels
// and taps; kernel rows outside the image are left out.
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/planar/zyn_conv_planar.h"

namespace {

constexpr int64_t kTile = 16;
constexpr int kChannels = 4;

// A kernel row that lies inside the image.
struct tap_row {
  int64_t offset;  // of its copy
  int64_t weight;  // of its first weight
};

// Where copies lie.
struct copy_rule {
  bool by_taps;
  int64_t arrays, step;  // per copied row; columns from one array's start to the next
  int64_t array_size;    // floats
  int64_t row_size;      // arrays * array_size
  int64_t plane_size;    // kernel_w copied rows
};

// What one tile sums up.
struct tile_sum {
  const float* copies;
  int64_t plane_size, in_channels;
  const tap_row* rows;
  int64_t row_count;
  const int64_t* columns;  // places of a kernel row's taps
  int64_t column_count;
  const float* weights;
  int64_t in_step, out_step;  // weights to the next channel
};

template <int Channels, int Columns>
void sum_tile(const tile_sum& t, int64_t x, __m256 (&result)[kChannels][2]) {
  const int64_t columns = Columns ? Columns : t.column_count;
  const int64_t out_step = t.out_step;
  __m256 sum[Channels][2];
#pragma GCC unroll 4
  for (int c = 0; c < Channels; c++) sum[c][0] = sum[c][1] = _mm256_setzero_ps();
  for (int64_t ic = 0; ic < t.in_channels; ic++)
    for (int64_t r = 0; r < t.row_count; r++) {
      const float* in = t.copies + ic * t.plane_size + t.rows[r].offset + x;
      const float* w = t.weights + ic * t.in_step + t.rows[r].weight;
      const int64_t* places = t.columns;
#pragma GCC unroll 5
      for (int64_t kx = 0; kx < columns; kx++) {
        const __m256 first = _mm256_loadu_ps(in + places[kx]);
        const __m256 second = _mm256_loadu_ps(in + places[kx] + 8);
#pragma GCC unroll 4
        for (int c = 0; c < Channels; c++) {
          const __m256 weight = _mm256_broadcast_ss(w + c * out_step + kx);
          sum[c][0] = _mm256_fmadd_ps(weight, first, sum[c][0]);
          sum[c][1] = _mm256_fmadd_ps(weight, second, sum[c][1]);
        }
      }
    }
#pragma GCC unroll 4
  for (int c = 0; c < Channels; c++) {
    result[c][0] = sum[c][0];
    result[c][1] = sum[c][1];
  }
}

template <int Channels>
void sum_tile(const tile_sum& t, int64_t x, __m256 (&result)[kChannels][2]) {
  if (t.column_count == 3) return sum_tile<Channels, 3>(t, x, result);
  if (t.column_count == 5) return sum_tile<Channels, 5>(t, x, result);
  sum_tile<Channels, 0>(t, x, result);
}

void sum_tile(const tile_sum& t, int64_t x, int64_t channels, __m256 (&result)[kChannels][2]) {
  if (channels >= 4) return sum_tile<4>(t, x, result);
  if (channels == 3) return sum_tile<3>(t, x, result);
  if (channels == 2) return sum_tile<2>(t, x, result);
  sum_tile<1>(t, x, result);
}

// out[i] = in[i * step].
void copy_columns(float* out, const float* in, int64_t count, int64_t step) {
  if (count <= 0) return;
  if (step == 1) {
    memcpy(out, in, sizeof(float) * static_cast<size_t>(count));
    return;
  }
  int64_t i = 0;
  if (step == 2)
    for (; i + 9 <= count; i += 8) {  // the loads reach one float past the eighth value
      const __m256 mixed =
          _mm256_shuffle_ps(_mm256_loadu_ps(in + 2 * i), _mm256_loadu_ps(in + 2 * i + 8), 0x88);
      _mm256_storeu_ps(out + i,
                       _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(mixed), 0xD8)));
    }
  for (; i < count; i++) out[i] = in[i * step];
}

// The smaller of the two rules.
copy_rule choose_rule(const zyn_planar_layer& l) {
  const zyn_conv_param& p = *l.param;
  const int64_t pixels = (l.out_w + kTile - 1) / kTile * kTile;
  const int64_t stride = p.stride_h, taps = p.kernel_h;
  const int64_t in_phase = pixels + (taps - 1) * p.dilation_h / stride + 1;
  const bool by_taps = static_cast<double>(taps) * static_cast<double>(pixels) <
                       static_cast<double>(stride) * static_cast<double>(in_phase);
  copy_rule rule = {
      by_taps, by_taps ? taps : stride, by_taps ? p.dilation_h : 1, by_taps ? pixels : in_phase, 0,
      0};
  if (!zyn_multiply(rule.arrays, rule.array_size, &rule.row_size) ||
      !zyn_multiply(rule.row_size, p.kernel_w, &rule.plane_size))
    rule.plane_size = -1;  // no allocation holds it
  return rule;
}

// The copies of one layer, or of one depthwise channel at a time, and its taps.
class row_kernel {
 public:
  row_kernel(const zyn_planar_layer& layer, int64_t in_channels)
      : l_(layer),
        p_(*layer.param),
        in_channels_(in_channels),
        rule_(choose_rule(layer)),
        copies_(zyn_scratch<float>::zeroed(total(rule_.plane_size, in_channels))),
        rows_(p_.kernel_w),
        columns_(p_.kernel_h) {
    if (!*this) return;
    for (int64_t kx = 0; kx < p_.kernel_h; kx++) {
      const int64_t place = kx * p_.dilation_h;
      columns_[kx] = rule_.by_taps ? kx * rule_.array_size
                                   : place % p_.stride_h * rule_.array_size + place / p_.stride_h;
    }
  }
  explicit operator bool() const { return copies_ && rows_ && columns_; }

  // outputs channels from first_out on, from the input planes from first_in on.
  void run(int32_t first_in, int32_t first_out, int32_t outputs) {
    copied_ = INT64_MIN;
    for (int32_t y = 0; y < l_.out_h; y++) {
      const int64_t count = copy_rows(first_in, y);
      const int64_t taps = static_cast<int64_t>(p_.kernel_h) * p_.kernel_w;
      tile_sum t = {copies_.get(), rule_.plane_size,   in_channels_, rows_.get(),
                    count,         columns_.get(),     p_.kernel_h,  nullptr,
                    taps,          taps * in_channels_};
      for (int32_t oc = 0; oc < outputs; oc += kChannels) {
        t.weights = l_.weights + (first_out + oc) * t.out_step;
        finish_row(t, first_out + oc, outputs - oc, y);
      }
    }
  }

 private:
  static int64_t total(int64_t plane, int64_t channels) {
    int64_t size = 0;
    return zyn_multiply(plane, channels, &size) ? size : INT64_MAX;
  }

  // One row of up to kChannels output channels.
  void finish_row(const tile_sum& t, int64_t oc, int64_t channels, int32_t y) const {
    const int64_t used = channels < kChannels ? channels : kChannels;
    for (int64_t x = 0; x < l_.out_w; x += kTile) {
      __m256 sum[kChannels][2];
      sum_tile(t, x, used, sum);
      for (int64_t c = 0; c < used; c++) {
        const zyn_planar_finish finish(l_.epilogue, oc + c);
        float* out =
            l_.out_plane(static_cast<int32_t>(oc + c)) + static_cast<int64_t>(y) * l_.out_w + x;
        zyn_planar_store(out, finish.apply(sum[c][0]), l_.out_w - x);
        zyn_planar_store(out + 8, finish.apply(sum[c][1]), l_.out_w - x - 8);
      }
    }
  }

  // Copies what output row y needs and is not there yet; returns the number of kernel
  // rows inside the image. Without dilation input row r lies in place r modulo kernel_w.
  int64_t copy_rows(int32_t first_in, int32_t y) {
    const int64_t top = static_cast<int64_t>(y) * p_.stride_w - p_.pad_w;
    const bool kept = p_.dilation_w == 1;
    int64_t count = 0;
    for (int64_t ky = 0; ky < p_.kernel_w; ky++) {
      const int64_t row = top + ky * p_.dilation_w;
      if (row < 0 || row >= l_.in_h) continue;
      const int64_t offset = (kept ? row % p_.kernel_w : ky) * rule_.row_size;
      rows_[count++] = {offset, ky * p_.kernel_h};
      if (kept && row <= copied_) continue;
      for (int64_t ic = 0; ic < in_channels_; ic++)
        copy_row(copies_.get() + ic * rule_.plane_size + offset,
                 l_.in_plane(static_cast<int32_t>(first_in + ic)) + row * l_.in_w);
      copied_ = row;
    }
    return count;
  }

  // Entry i of array f is column i * stride + f * step - pad; the zeros around the image
  // stand since the allocation.
  void copy_row(float* copy, const float* row) const {
    const int64_t stride = p_.stride_h;
    for (int64_t f = 0; f < rule_.arrays; f++, copy += rule_.array_size) {
      const int64_t start = f * rule_.step - p_.pad_h;
      const int64_t first = start < 0 ? (-start + stride - 1) / stride : 0;
      const int64_t column = start + first * stride;
      if (column >= l_.in_w || first >= rule_.array_size) continue;
      const int64_t inside = (l_.in_w - 1 - column) / stride + 1;
      const int64_t room = rule_.array_size - first;
      copy_columns(copy + first, row + column, inside < room ? inside : room, stride);
    }
  }

  const zyn_planar_layer& l_;
  const zyn_conv_param& p_;
  int64_t in_channels_;
  copy_rule rule_;
  zyn_scratch<float> copies_;
  zyn_scratch<tap_row> rows_;
  zyn_scratch<int64_t> columns_;
  int64_t copied_ = INT64_MIN;  // the last input row that has a copy
};

}  // namespace

uint32_t zyn_planar_generic(const zyn_planar_layer& l) {
  row_kernel kernel(l, l.in_channels);
  if (!kernel) return ZYN_RET_ERR_MEMORY;
  kernel.run(0, 0, l.out_channels);
  return ZYN_RET_OK;
}

uint32_t zyn_planar_generic_depthwise(const zyn_planar_layer& l) {
  row_kernel kernel(l, 1);
  if (!kernel) return ZYN_RET_ERR_MEMORY;
  for (int32_t c = 0; c < l.out_channels; c++) kernel.run(c, c, 1);
  return ZYN_RET_OK;
}

// Convolution over planes with any kernel, stride, padding and dilation, which is also
// the dense 3x3 of stride 2. The input rows under one output row are copied, for every
// input channel, so that the values that one tap sees under consecutive output pixels
// lie together:
//   - in phases: copied row = stride arrays, array f holding columns f, f + stride, ...
//     of the padded row; a tap is a place in one of them;
//   - by taps, where phases would be larger: one array a tap.
// Copies have zeros where the image has no column and end in whole tiles; rows outside the
// image are left out. A strip of output columns whose copies stay small goes over all rows,
// then the next: most layers are one strip. A tile of up to 4 output channels by 16 pixels
// keeps its sums in registers over all input channels and taps.
#include <string.h>

#include "base/zyn_integers.h"
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/planar/zyn_conv_planar.h"

namespace {

constexpr int64_t kTile = 16;
constexpr int kChannels = 4;
constexpr int64_t kMostCopied = 1024 * 1024;  // floats, unless one tile needs more

// A kernel row that lies inside the image.
struct tap_row {
  int64_t offset;  // of its copy
  int64_t weight;  // of its first weight
};

// Where copies lie.
struct copy_rule {
  int64_t pixels;  // output columns of a strip, in whole tiles
  bool by_taps;
  int64_t arrays, step;  // per copied row; columns from one array's start to the next
  int64_t array_size;    // floats
  int64_t row_size;      // arrays * array_size
  int64_t rows;          // of one plane
  int64_t plane_size;    // rows * row_size
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
  ZYN_UNROLL for (int c = 0; c < Channels; c++) sum[c][0] = sum[c][1] = _mm256_setzero_ps();
  for (int64_t ic = 0; ic < t.in_channels; ic++)
    for (int64_t r = 0; r < t.row_count; r++) {
      const float* in = t.copies + ic * t.plane_size + t.rows[r].offset + x;
      const float* w = t.weights + ic * t.in_step + t.rows[r].weight;
      const int64_t* places = t.columns;
      ZYN_UNROLL_BY(5) for (int64_t kx = 0; kx < columns; kx++) {
        const __m256 first = _mm256_loadu_ps(in + places[kx]);
        const __m256 second = _mm256_loadu_ps(in + places[kx] + 8);
        ZYN_UNROLL for (int c = 0; c < Channels; c++) {
          const __m256 weight = _mm256_broadcast_ss(w + c * out_step + kx);
          sum[c][0] = _mm256_fmadd_ps(weight, first, sum[c][0]);
          sum[c][1] = _mm256_fmadd_ps(weight, second, sum[c][1]);
        }
      }
    }
  ZYN_UNROLL for (int c = 0; c < Channels; c++) {
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

// The smaller of the two rules for strips of pixels output columns. False where no
// allocation could hold a plane.
bool make_rule(const zyn_planar_layer& l, int64_t pixels, copy_rule* rule) {
  const zyn_conv_shape& s = l.shape;
  const int64_t stride = s.stride_x, taps = s.kernel_x;
  const int64_t in_phase = pixels + (taps - 1) * s.dilation_x / stride + 1;
  const bool by_taps = static_cast<double>(taps) * static_cast<double>(pixels) <
                       static_cast<double>(stride) * static_cast<double>(in_phase);
  // As many rows as can lie inside the image at once.
  const int64_t rows = zyn_smaller(s.kernel_y, l.in_h);
  *rule = {pixels,
           by_taps,
           by_taps ? taps : stride,
           by_taps ? s.dilation_x : 1,
           by_taps ? pixels : in_phase,
           0,
           rows,
           0};
  return zyn_multiply(rule->arrays, rule->array_size, &rule->row_size) &&
         zyn_multiply(rule->row_size, rows, &rule->plane_size);
}

// The rule with the widest strip for which the copies of in_channels planes stay small.
copy_rule choose_rule(const zyn_planar_layer& l, int64_t in_channels) {
  copy_rule rule;
  for (int64_t pixels = zyn_round_up(l.out_w, kTile);; pixels = zyn_round_up(pixels / 2, kTile)) {
    const bool fits = make_rule(l, pixels, &rule);
    if (fits && rule.plane_size <= kMostCopied / in_channels) return rule;
    if (pixels > kTile) continue;
    if (!fits) rule.plane_size = -1;
    return rule;
  }
}

int64_t copied_floats(const copy_rule& rule, int64_t in_channels) {
  int64_t floats = 0;
  return zyn_multiply(rule.plane_size, in_channels, &floats) ? floats : INT64_MAX;
}

// The copies of one layer, or of one depthwise channel at a time, and its taps.
class row_kernel {
 public:
  row_kernel(const zyn_planar_layer& layer, int64_t in_channels)
      : l_(layer),
        s_(layer.shape),
        in_channels_(in_channels),
        rule_(choose_rule(layer, in_channels)),
        copies_(zyn_scratch<float>::zeroed(copied_floats(rule_, in_channels))),
        rows_(rule_.rows),
        columns_(s_.kernel_x) {
    if (!*this) return;
    for (int64_t kx = 0; kx < s_.kernel_x; kx++) {
      const int64_t place = kx * s_.dilation_x;
      columns_[kx] = rule_.by_taps ? kx * rule_.array_size
                                   : place % s_.stride_x * rule_.array_size + place / s_.stride_x;
    }
  }
  explicit operator bool() const { return copies_ && rows_ && columns_; }

  // Goes on to the next strip; false after the last one.
  bool next_strip() {
    first_ = next_;
    next_ += rule_.pixels;
    // The zeros around the image lie elsewhere in every strip.
    if (first_ > 0 && first_ < l_.out_w)
      memset(copies_.get(), 0,
             static_cast<size_t>(rule_.plane_size * in_channels_) * sizeof(float));
    return first_ < l_.out_w;
  }

  // The strip of outputs channels from first_out on, from the input planes from first_in on.
  void run(int32_t first_in, int32_t first_out, int32_t outputs) {
    copied_ = INT64_MIN;
    const int64_t taps = static_cast<int64_t>(s_.kernel_x) * s_.kernel_y;
    for (int32_t y = 0; y < l_.out_h; y++) {
      const int64_t count = copy_rows(first_in, y);
      tile_sum t = {copies_.get(), rule_.plane_size,   in_channels_, rows_.get(),
                    count,         columns_.get(),     s_.kernel_x,  nullptr,
                    taps,          taps * in_channels_};
      for (int32_t oc = 0; oc < outputs; oc += kChannels) {
        t.weights = l_.weights + (first_out + oc) * t.out_step;
        sum_row(t, first_out + oc, outputs - oc, y);
      }
    }
  }

 private:
  // One row of up to kChannels output channels.
  void sum_row(const tile_sum& t, int64_t oc, int64_t channels, int32_t y) const {
    const int64_t used = zyn_smaller(channels, kChannels);
    const int64_t columns = zyn_smaller(l_.out_w - first_, rule_.pixels);
    for (int64_t x = 0; x < columns; x += kTile) {
      __m256 sum[kChannels][2];
      sum_tile(t, x, used, sum);
      for (int64_t c = 0; c < used; c++) {
        const zyn_planar_epilogue epilogue(l_.epilogue, oc + c);
        float* out = l_.out_plane(static_cast<int32_t>(oc + c)) +
                     static_cast<int64_t>(y) * l_.out_w + first_ + x;
        zyn_planar_store(out, epilogue.apply(sum[c][0]), columns - x);
        zyn_planar_store(out + 8, epilogue.apply(sum[c][1]), columns - x - 8);
      }
    }
  }

  // Copies what output row y needs and is not there yet; returns the number of kernel rows
  // inside the image. Without dilation input row r lies in place r modulo the rows of a
  // plane, otherwise the rows inside follow each other.
  int64_t copy_rows(int32_t first_in, int32_t y) {
    const int64_t top = static_cast<int64_t>(y) * s_.stride_y - s_.pad_y;
    const bool kept = s_.dilation_y == 1;
    int64_t count = 0;
    for (int64_t ky = first_row(top); ky < s_.kernel_y; ky++) {
      const int64_t row = top + ky * s_.dilation_y;
      if (row >= l_.in_h) break;
      const int64_t offset = (kept ? row % rule_.rows : count) * rule_.row_size;
      rows_[count++] = {offset, ky * s_.kernel_x};
      if (kept && row <= copied_) continue;
      for (int64_t ic = 0; ic < in_channels_; ic++)
        copy_row(copies_.get() + ic * rule_.plane_size + offset,
                 l_.in_plane(static_cast<int32_t>(first_in + ic)) + row * l_.in_w);
      copied_ = row;
    }
    return count;
  }

  // The first kernel row that lies inside the image or below it.
  int64_t first_row(int64_t top) const { return top < 0 ? zyn_units(-top, s_.dilation_y) : 0; }

  // Entry i of array f is column (first_ + i) * stride + f * step - pad; zeros stand around
  // the image.
  void copy_row(float* copy, const float* row) const {
    const int64_t stride = s_.stride_x;
    for (int64_t f = 0; f < rule_.arrays; f++, copy += rule_.array_size) {
      const int64_t start = first_ * stride + f * rule_.step - s_.pad_x;
      const int64_t first = start < 0 ? zyn_units(-start, stride) : 0;
      const int64_t column = start + first * stride;
      if (column >= l_.in_w || first >= rule_.array_size) continue;
      const int64_t inside = (l_.in_w - 1 - column) / stride + 1;
      copy_columns(copy + first, row + column, zyn_smaller(inside, rule_.array_size - first),
                   stride);
    }
  }

  const zyn_planar_layer& l_;
  const zyn_conv_shape& s_;
  int64_t in_channels_;
  copy_rule rule_;
  zyn_scratch<float> copies_;
  zyn_scratch<tap_row> rows_;
  zyn_scratch<int64_t> columns_;
  int64_t first_ = 0, next_ = 0;  // output columns at which this strip and the next one begin
  int64_t copied_ = INT64_MIN;    // the last input row that has a copy
};

}  // namespace

uint32_t zyn_planar_generic(const zyn_planar_layer& l) {
  row_kernel kernel(l, l.in_channels);
  if (!kernel) return ZYN_RET_ERR_MEMORY;
  while (kernel.next_strip()) kernel.run(0, 0, l.out_channels);
  return ZYN_RET_OK;
}

uint32_t zyn_planar_generic_depthwise(const zyn_planar_layer& l) {
  row_kernel kernel(l, 1);
  if (!kernel) return ZYN_RET_ERR_MEMORY;
  while (kernel.next_strip())
    for (int32_t c = 0; c < l.out_channels; c++) kernel.run(c, c, 1);
  return ZYN_RET_OK;
}

// Dense 3x3 convolution over planes, padding 1. Input rows are copied once per input
// channel into buffers with a zero column on the left and slack on the right, so that
// vector loads need no edge cases; every copied row then serves every output channel.
// Products are added into the output planes.
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_conv_planar.h"

namespace {

constexpr int32_t kRingRows = 6;  // rows around a step of 4 output rows
constexpr int32_t kStepRows = 4;
constexpr int32_t kRowSlack = 10;  // one zero column on the left, the rest for the last vector
constexpr int kTaps = 9;

void clear_output(const zyn_planar_layer& l) {
  memset(l.out, 0, sizeof(float) * static_cast<size_t>(l.out_w) * l.out_h * l.out_channels);
}

// The weights of one (output channel, input channel) pair.
struct tap_weights {
  float w[kTaps];
};

tap_weights weights_of(const zyn_planar_layer& l, int32_t oc, int32_t ic) {
  tap_weights taps;
  memcpy(taps.w, l.weights + (static_cast<int64_t>(oc) * l.in_channels + ic) * kTaps,
         sizeof(taps.w));
  return taps;
}

__m256i first_lanes(int32_t count) {
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), lane);
}

// Adds value to 8 output pixels, or to the first left of them.
void add_to(float* out, __m256 value, int32_t left) {
  if (left >= 8) {
    _mm256_storeu_ps(out, _mm256_add_ps(_mm256_loadu_ps(out), value));
    return;
  }
  const __m256i mask = first_lanes(left);
  _mm256_maskstore_ps(out, mask, _mm256_add_ps(_mm256_maskload_ps(out, mask), value));
}

// Rows output rows from the Rows + 2 copied rows around them, stride 1. Column x - 1 of
// the image lies at position x of a copied row.
template <int Rows>
void add_rows(float* out, int32_t width, const float* const* rows, const tap_weights& taps) {
  for (int32_t x = 0; x < width; x += 8) {
    __m256 sum[Rows];
#pragma GCC unroll 4
    for (int r = 0; r < Rows; r++) sum[r] = _mm256_setzero_ps();
#pragma GCC unroll 3
    for (int kx = 0; kx < 3; kx++) {
#pragma GCC unroll 6
      for (int r = 0; r < Rows + 2; r++) {
        const __m256 in = _mm256_loadu_ps(rows[r] + x + kx);
#pragma GCC unroll 3
        for (int ky = 0; ky < 3; ky++)
          if (r - ky >= 0 && r - ky < Rows)
            sum[r - ky] =
                _mm256_fmadd_ps(_mm256_broadcast_ss(&taps.w[ky * 3 + kx]), in, sum[r - ky]);
      }
    }
#pragma GCC unroll 4
    for (int r = 0; r < Rows; r++)
      add_to(out + static_cast<int64_t>(r) * width + x, sum[r], width - x);
  }
}

// The ring: row r of the image, counted from the padding row above it, lies in slot
// r modulo 6.
class row_ring {
 public:
  explicit row_ring(int32_t width)
      : pitch_(static_cast<int64_t>(width) + kRowSlack),
        width_(width),
        rows_(zyn_scratch<float>::zeroed(kRingRows * pitch_)) {}
  explicit operator bool() const { return static_cast<bool>(rows_); }

  // Puts padded row r (image row r - 1) of a plane into its slot; zeros outside.
  void load(const float* plane, int32_t height, int32_t r) {
    float* slot = rows_.get() + r % kRingRows * pitch_ + 1;
    if (r < 1 || r > height)
      memset(slot, 0, sizeof(float) * static_cast<size_t>(width_));
    else
      memcpy(slot, plane + (r - 1) * static_cast<int64_t>(width_),
             sizeof(float) * static_cast<size_t>(width_));
  }
  const float* row(int32_t r) const { return rows_.get() + r % kRingRows * pitch_; }

 private:
  int64_t pitch_;
  int32_t width_;
  zyn_scratch<float> rows_;
};

// Output rows y to y + Rows - 1 of every output channel.
template <int Rows>
void step(const zyn_planar_layer& l, const row_ring& ring, int32_t ic, int32_t y) {
  const float* rows[Rows + 2];
  for (int r = 0; r < Rows + 2; r++) rows[r] = ring.row(y + r);
  for (int32_t oc = 0; oc < l.out_channels; oc++)
    add_rows<Rows>(l.out_plane(oc) + static_cast<int64_t>(y) * l.out_w, l.out_w, rows,
                   weights_of(l, oc, ic));
}

// Splits a row into its columns 0, 2, 4, ... and 1, 3, 5, ...
void split_row(float* even, float* odd, const float* row, int32_t width) {
  int32_t x = 0;
  for (; x + 16 <= width; x += 16) {
    const __m256 a = _mm256_loadu_ps(row + x), b = _mm256_loadu_ps(row + x + 8);
    const auto gather = [](__m256 v) {
      return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(v), 0xD8));
    };
    _mm256_storeu_ps(even + x / 2, gather(_mm256_shuffle_ps(a, b, 0x88)));
    _mm256_storeu_ps(odd + x / 2, gather(_mm256_shuffle_ps(a, b, 0xDD)));
  }
  for (; x < width; x++) (x % 2 ? odd : even)[x / 2] = row[x];
}

// One output row of stride 2 from three rows, each as its even and odd columns; odd
// column 2x - 1 lies at position x.
void add_row_s2(float* out, int32_t width, const float* const* even, const float* const* odd,
                const tap_weights& taps) {
  for (int32_t x = 0; x < width; x += 8) {
    __m256 sum[2] = {_mm256_setzero_ps(), _mm256_setzero_ps()};
#pragma GCC unroll 3
    for (int ky = 0; ky < 3; ky++) {
      const float* w = taps.w + ky * 3;
      sum[0] = _mm256_fmadd_ps(_mm256_broadcast_ss(w), _mm256_loadu_ps(odd[ky] + x), sum[0]);
      sum[1] = _mm256_fmadd_ps(_mm256_broadcast_ss(w + 1), _mm256_loadu_ps(even[ky] + x), sum[1]);
      sum[0] =
          _mm256_fmadd_ps(_mm256_broadcast_ss(w + 2), _mm256_loadu_ps(odd[ky] + x + 1), sum[0]);
    }
    add_to(out + x, _mm256_add_ps(sum[0], sum[1]), width - x);
  }
}

}  // namespace

uint32_t zyn_planar_3x3_s1(const zyn_planar_layer& l) {
  row_ring ring(l.in_w);
  if (!ring) return ZYN_RET_ERR_MEMORY;
  clear_output(l);
  for (int32_t ic = 0; ic < l.in_channels; ic++) {
    const float* plane = l.in_plane(ic);
    ring.load(plane, l.in_h, 0);
    ring.load(plane, l.in_h, 1);
    int32_t y = 0;
    for (; y + kStepRows <= l.out_h; y += kStepRows) {
      for (int32_t r = 2; r < kRingRows; r++) ring.load(plane, l.in_h, y + r);
      step<kStepRows>(l, ring, ic, y);
    }
    for (; y < l.out_h; y++) {
      ring.load(plane, l.in_h, y + 2);
      step<1>(l, ring, ic, y);
    }
  }
  return ZYN_RET_OK;
}

// Images of at most 5 rows: the whole padded plane is copied.
uint32_t zyn_planar_3x3_s1_small(const zyn_planar_layer& l) {
  const int64_t pitch = static_cast<int64_t>(l.in_w) + kRowSlack;
  zyn_scratch<float> plane = zyn_scratch<float>::zeroed((l.in_h + 2) * pitch);
  if (!plane) return ZYN_RET_ERR_MEMORY;
  clear_output(l);
  for (int32_t ic = 0; ic < l.in_channels; ic++) {
    for (int32_t y = 0; y < l.in_h; y++)
      memcpy(&plane[(y + 1) * pitch + 1], l.in_plane(ic) + static_cast<int64_t>(y) * l.in_w,
             sizeof(float) * static_cast<size_t>(l.in_w));
    for (int32_t oc = 0; oc < l.out_channels; oc++) {
      const tap_weights taps = weights_of(l, oc, ic);
      for (int32_t y = 0; y < l.out_h; y++) {
        const float* rows[3] = {&plane[y * pitch], &plane[(y + 1) * pitch],
                                &plane[(y + 2) * pitch]};
        add_rows<1>(l.out_plane(oc) + static_cast<int64_t>(y) * l.out_w, l.out_w, rows, taps);
      }
    }
  }
  return ZYN_RET_OK;
}

uint32_t zyn_planar_3x3_s2(const zyn_planar_layer& l) {
  // Three rows, each split in two; the row above the image stays zero.
  const int64_t pitch = l.in_w / 2 + static_cast<int64_t>(kRowSlack);
  zyn_scratch<float> rows = zyn_scratch<float>::zeroed(6 * pitch);
  if (!rows) return ZYN_RET_ERR_MEMORY;
  clear_output(l);
  for (int32_t ic = 0; ic < l.in_channels; ic++)
    for (int32_t y = 0; y < l.out_h; y++) {
      const float* even[3];
      const float* odd[3];
      for (int32_t ky = 0; ky < 3; ky++) {
        const int32_t row = 2 * y - 1 + ky;
        float* slot = &rows[ky * 2 * pitch];
        even[ky] = slot;
        odd[ky] = slot + pitch;
        if (row >= 0 && row < l.in_h)
          split_row(slot, slot + pitch + 1, l.in_plane(ic) + static_cast<int64_t>(row) * l.in_w,
                    l.in_w);
        else
          memset(slot, 0, sizeof(float) * static_cast<size_t>(2 * pitch));
      }
      for (int32_t oc = 0; oc < l.out_channels; oc++)
        add_row_s2(l.out_plane(oc) + static_cast<int64_t>(y) * l.out_w, l.out_w, even, odd,
                   weights_of(l, oc, ic));
    }
  return ZYN_RET_OK;
}

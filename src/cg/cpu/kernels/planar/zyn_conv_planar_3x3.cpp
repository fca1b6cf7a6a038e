// Dense 3x3 convolution of stride 1 over planes, padding 1. Input rows are copied with a
// zero column on the left and slack on the right, so that vector loads need no edge
// cases; every copied row then serves every output channel.
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/planar/zyn_conv_planar.h"

namespace {

constexpr int32_t kRingRows = 6;  // rows around a step of 4 output rows
constexpr int32_t kStepRows = 4;
constexpr int32_t kRowSlack = 10;  // one zero column on the left, the rest for the last vector
constexpr int kTaps = 9;

size_t row_bytes(const zyn_planar_layer& l) { return sizeof(float) * static_cast<size_t>(l.in_w); }

const float* weights_of(const zyn_planar_layer& l, int64_t oc, int64_t ic) {
  return l.weights + (oc * l.in_channels + ic) * kTaps;
}

// The ring: row r of the image, counted from the padding row above it, lies in slot
// r modulo 6.
class row_ring {
 public:
  explicit row_ring(int32_t width)
      : pitch_(static_cast<int64_t>(width) + kRowSlack),
        rows_(zyn_scratch<float>::zeroed(kRingRows * pitch_)) {}
  explicit operator bool() const { return static_cast<bool>(rows_); }

  // Puts padded row r (image row r - 1) of a plane into its slot; zeros outside.
  void load(const zyn_planar_layer& l, int32_t ic, int32_t r) {
    float* slot = rows_.get() + r % kRingRows * pitch_ + 1;
    if (r < 1 || r > l.in_h)
      memset(slot, 0, row_bytes(l));
    else
      memcpy(slot, l.in_plane(ic) + (r - 1) * static_cast<int64_t>(l.in_w), row_bytes(l));
  }
  const float* row(int32_t r) const { return rows_.get() + r % kRingRows * pitch_; }

 private:
  int64_t pitch_;
  zyn_scratch<float> rows_;
};

// Adds copied row r under a column of taps to the output rows that it lies under.
template <int Rows>
[[gnu::always_inline]] inline void add_column(__m256 (&sum)[Rows], __m256 in, int r,
                                              const __m256* column) {
  ZYN_UNROLL for (int ky = 0; ky < 3; ky++) {
    const int out_row = r - ky;
    if (out_row < 0 || out_row >= Rows) continue;
    sum[out_row] = _mm256_fmadd_ps(column[ky * 3], in, sum[out_row]);
  }
}

// Adds one input channel to Rows output rows from the Rows + 2 copied rows around them.
// Column x - 1 of the image lies at position x of a copied row. epilogue: null before the
// last input channel.
template <int Rows>
void add_rows(float* out, int64_t width, const float* const* rows, const float* weights,
              const zyn_planar_epilogue* epilogue) {
  __m256 taps[kTaps];
  ZYN_UNROLL for (int t = 0; t < kTaps; t++) taps[t] = _mm256_broadcast_ss(weights + t);
  for (int64_t x = 0; x < width; x += 8) {
    const __m256i mask = zyn_first_lanes(width - x);
    __m256 sum[Rows];
    ZYN_UNROLL for (int r = 0; r < Rows; r++) sum[r] =
        _mm256_maskload_ps(out + r * width + x, mask);
    ZYN_UNROLL for (int r = 0; r < Rows + 2; r++) {
      ZYN_UNROLL for (int kx = 0; kx < 3; kx++) {
        const __m256 in = _mm256_loadu_ps(rows[r] + x + kx);
        add_column(sum, in, r, taps + kx);
      }
    }
    ZYN_UNROLL for (int r = 0; r < Rows; r++)
        _mm256_maskstore_ps(out + r * width + x, mask, epilogue ? epilogue->apply(sum[r]) : sum[r]);
  }
}

// Output rows y to y + Rows - 1 of every output channel.
template <int Rows>
void step(const zyn_planar_layer& l, const row_ring& ring, int32_t ic, int32_t y) {
  const float* rows[Rows + 2];
  for (int r = 0; r < Rows + 2; r++) rows[r] = ring.row(y + r);
  for (int32_t oc = 0; oc < l.out_channels; oc++) {
    const zyn_planar_epilogue epilogue(l.epilogue, oc);
    add_rows<Rows>(l.out_plane(oc) + static_cast<int64_t>(y) * l.out_w, l.out_w, rows,
                   weights_of(l, oc, ic), ic == l.in_channels - 1 ? &epilogue : nullptr);
  }
}

// Adds copied row r under tap column kx to the output rows that it lies under; weights
// points at tap (0, kx) of the first channel.
template <int Rows, int Channels>
[[gnu::always_inline]] inline void add_taps(__m256 (&sum)[Channels][Rows], __m256 value, int r,
                                            const float* weights, int64_t out_step) {
  ZYN_UNROLL for (int c = 0; c < Channels; c++) {
    ZYN_UNROLL for (int ky = 0; ky < 3; ky++) {
      const int out_row = r - ky;
      if (out_row < 0 || out_row >= Rows) continue;
      const __m256 weight = _mm256_broadcast_ss(weights + c * out_step + ky * 3);
      sum[c][out_row] = _mm256_fmadd_ps(weight, value, sum[c][out_row]);
    }
  }
}

// Small images: the copied planes of all input channels, and 8 columns of all Rows
// output rows of Channels output channels in registers. plane_size floats a plane.
template <int Rows, int Channels>
void small_tile(const zyn_planar_layer& l, const float* planes, int64_t pitch, int32_t oc,
                int32_t x) {
  const int64_t plane_size = (Rows + 2) * pitch;
  const int64_t out_step = static_cast<int64_t>(l.in_channels) * kTaps;
  const float* in = planes + x;
  const float* w = weights_of(l, oc, 0);
  __m256 sum[Channels][Rows];
  ZYN_UNROLL for (int c = 0; c < Channels; c++) {
    ZYN_UNROLL for (int r = 0; r < Rows; r++) sum[c][r] = _mm256_setzero_ps();
  }
  for (int32_t ic = 0; ic < l.in_channels; ic++, in += plane_size, w += kTaps) {
    ZYN_UNROLL for (int kx = 0; kx < 3; kx++) {
      ZYN_UNROLL for (int r = 0; r < Rows + 2; r++) {
        const __m256 value = _mm256_loadu_ps(in + r * pitch + kx);
        add_taps(sum, value, r, w + kx, out_step);
      }
    }
  }
  ZYN_UNROLL for (int c = 0; c < Channels; c++) {
    const zyn_planar_epilogue epilogue(l.epilogue, oc + c);
    ZYN_UNROLL for (int r = 0; r < Rows; r++)
        zyn_planar_store(l.out_plane(oc + c) + r * static_cast<int64_t>(l.out_w) + x,
                         epilogue.apply(sum[c][r]), l.out_w - x);
  }
}

template <int Rows>
void small_image(const zyn_planar_layer& l, const float* planes, int64_t pitch) {
  int32_t oc = 0;
  for (; oc + 2 <= l.out_channels; oc += 2)
    for (int32_t x = 0; x < l.out_w; x += 8) small_tile<Rows, 2>(l, planes, pitch, oc, x);
  for (int32_t x = 0; oc < l.out_channels && x < l.out_w; x += 8)
    small_tile<Rows, 1>(l, planes, pitch, oc, x);
}

}  // namespace

uint32_t zyn_planar_3x3_s1(const zyn_planar_layer& l) {
  row_ring ring(l.in_w);
  if (!ring) return ZYN_RET_ERR_MEMORY;
  memset(l.out, 0, sizeof(float) * static_cast<size_t>(l.out_w) * l.out_h * l.out_channels);
  for (int32_t ic = 0; ic < l.in_channels; ic++) {
    ring.load(l, ic, 0);
    ring.load(l, ic, 1);
    int32_t y = 0;
    for (; y + kStepRows <= l.out_h; y += kStepRows) {
      for (int32_t r = 2; r < kRingRows; r++) ring.load(l, ic, y + r);
      step<kStepRows>(l, ring, ic, y);
    }
    for (; y < l.out_h; y++) {
      ring.load(l, ic, y + 2);
      step<1>(l, ring, ic, y);
    }
  }
  return ZYN_RET_OK;
}

uint32_t zyn_planar_3x3_s1_small(const zyn_planar_layer& l) {
  const int64_t pitch = static_cast<int64_t>(l.in_w) + kRowSlack;
  zyn_scratch<float> planes = zyn_scratch<float>::zeroed((l.in_h + 2) * pitch * l.in_channels);
  if (!planes) return ZYN_RET_ERR_MEMORY;
  for (int32_t ic = 0; ic < l.in_channels; ic++)
    for (int32_t y = 0; y < l.in_h; y++)
      memcpy(&planes[(static_cast<int64_t>(ic) * (l.in_h + 2) + y + 1) * pitch + 1],
             l.in_plane(ic) + static_cast<int64_t>(y) * l.in_w, row_bytes(l));
  using kernel = void (*)(const zyn_planar_layer&, const float*, int64_t);
  constexpr kernel kByRows[] = {small_image<1>, small_image<2>, small_image<3>, small_image<4>,
                                small_image<5>};
  kByRows[l.out_h - 1](l, planes.get(), pitch);
  return ZYN_RET_OK;
}

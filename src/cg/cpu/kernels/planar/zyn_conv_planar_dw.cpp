// Depthwise 3x3 and 5x5 convolution over planes, stride 1 and 2, padding below the kernel's size,
// straight from the input rows. A tile is 4 rows by 8 pixels of output: every loaded
// vector serves all the output rows that it lies under. Tiles at the left and right
// edge load under masks, tiles at the top and bottom leave rows out; the last group of
// rows begins 4 rows before the end and repeats some of those before it.
#include "cg/cpu/kernels/planar/zyn_conv_planar.h"

namespace {

constexpr int kRows = 4;
constexpr int32_t kPixels = 8;

// What a tile has to look out for.
enum edge { kInside, kRowEdge, kColumnEdge };

// One plane and its kernel; Half: padding is half the kernel, as it mostly is.
template <int Kernel, bool Half>
struct plane {
  const float* in;
  int32_t width, height;
  float* out;
  int32_t out_width, out_height;
  int32_t any_pad_x, any_pad_y;
  __m256 weights[Kernel * Kernel];
  zyn_planar_epilogue epilogue;

  int32_t pad_x() const { return Half ? Kernel / 2 : any_pad_x; }
  int32_t pad_y() const { return Half ? Kernel / 2 : any_pad_y; }
};

// The values that the taps of one kernel row see under 8 output pixels; row points at
// the first tap of the first. Stride 2 leaves the pixels in the order 0 1 4 5 2 3 6 7.
template <int Kernel, int Stride>
struct window {
  static constexpr int kLoads = Stride == 1 ? Kernel : Kernel / 2 + 1;
  __m256i masks[Stride * kLoads];

  window(int32_t column, int32_t width) {
    ZYN_UNROLL for (int i = 0; i < kLoads; i++) {
      if (Stride == 1) {
        masks[i] = zyn_lanes_within(column + i, width);
      } else {
        masks[2 * i] = zyn_lanes_within(column + 2 * i, width);
        masks[2 * i + 1] = zyn_lanes_within(column + 2 * i + 8, width);
      }
    }
  }
  template <edge Edge>
  __m256 load(const float* p, int i) const {
    return Edge == kColumnEdge ? _mm256_maskload_ps(p, masks[i]) : _mm256_loadu_ps(p);
  }
  template <edge Edge>
  void read(__m256 (&tap)[Kernel + 1], const float* row) const {
    ZYN_UNROLL for (int i = 0; i < kLoads; i++) {
      if (Stride == 1) {
        tap[i] = load<Edge>(row + i, i);
        continue;
      }
      const __m256 low = load<Edge>(row + 2 * i, 2 * i);
      const __m256 high = load<Edge>(row + 2 * i + 8, 2 * i + 1);
      tap[2 * i] = _mm256_shuffle_ps(low, high, 0x88);
      tap[2 * i + 1] = _mm256_shuffle_ps(low, high, 0xDD);
    }
  }
};

template <int Kernel, int Stride, int Rows, edge Edge, bool Half>
void tile(const plane<Kernel, Half>& p, const window<Kernel, Stride>& columns, int32_t y,
          int32_t x) {
  constexpr int kInRows = (Rows - 1) * Stride + Kernel;
  const int32_t top = y * Stride - p.pad_y();
  const int64_t width = p.width;
  const float* row = p.in + top * width + x * Stride - p.pad_x();
  __m256 sum[Rows];
  ZYN_UNROLL for (int j = 0; j < Rows; j++) sum[j] = _mm256_setzero_ps();
  ZYN_UNROLL for (int r = 0; r < kInRows; r++) {
    if (Edge != kInside && (top + r < 0 || top + r >= p.height)) continue;
    __m256 tap[Kernel + 1];
    columns.template read<Edge>(tap, row + r * width);
    ZYN_UNROLL for (int j = 0; j < Rows; j++) {
      const int ky = r - j * Stride;
      if (ky < 0 || ky >= Kernel) continue;
      ZYN_UNROLL for (int kx = 0; kx < Kernel; kx++) sum[j] =
          _mm256_fmadd_ps(p.weights[ky * Kernel + kx], tap[kx], sum[j]);
    }
  }
  float* out = p.out + static_cast<int64_t>(y) * p.out_width + x;
  ZYN_UNROLL for (int j = 0; j < Rows; j++) {
    if (Stride == 2)
      sum[j] = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(sum[j]), 0xD8));
    const __m256 value = p.epilogue.apply(sum[j]);
    if (Edge == kColumnEdge)
      zyn_planar_store(out + j * static_cast<int64_t>(p.out_width), value, p.out_width - x);
    else
      _mm256_storeu_ps(out + j * static_cast<int64_t>(p.out_width), value);
  }
}

// Calls action(y) for every group of Rows output rows.
template <int Rows, typename Action>
void for_row_groups(int32_t height, const Action& action) {
  for (int32_t y = 0; y < height; y += Rows) action(y + Rows <= height ? y : height - Rows);
}

template <int Kernel, int Stride, int Rows, bool Half>
void convolve(const plane<Kernel, Half>& p) {
  // Tiles [first, end) read inside the rows: the last column that one reads is
  // x * Stride - pad_x + kReach - 1.
  constexpr int32_t kReach = Stride == 1 ? kPixels + Kernel - 1 : 2 * kPixels + Kernel - 1;
  const int32_t first = p.pad_x() > 0 ? kPixels : 0;
  int32_t end = first;
  while (end + kPixels <= p.out_width && end * Stride - p.pad_x() + kReach <= p.width)
    end += kPixels;
  for (int32_t x = 0; x < p.out_width; x += kPixels) {
    if (x == first) x = end;
    if (x >= p.out_width) break;
    const window<Kernel, Stride> columns(x * Stride - p.pad_x(), p.width);
    for_row_groups<Rows>(p.out_height, [&](int32_t y) {
      tile<Kernel, Stride, Rows, kColumnEdge>(p, columns, y, x);
    });
  }
  const window<Kernel, Stride> unmasked(0, 0);
  for_row_groups<Rows>(p.out_height, [&](int32_t y) {
    const int32_t top = y * Stride - p.pad_y();
    const bool inside = top >= 0 && top + (Rows - 1) * Stride + Kernel <= p.height;
    for (int32_t x = first; x < end; x += kPixels)
      if (inside)
        tile<Kernel, Stride, Rows, kInside>(p, unmasked, y, x);
      else
        tile<Kernel, Stride, Rows, kRowEdge>(p, unmasked, y, x);
  });
}

template <int Kernel, int Stride, bool Half>
void convolve_planes(const zyn_planar_layer& l) {
  for (int32_t c = 0; c < l.out_channels; c++) {
    plane<Kernel, Half> p = {l.in_plane(c),
                             l.in_w,
                             l.in_h,
                             l.out_plane(c),
                             l.out_w,
                             l.out_h,
                             l.shape.pad_x,
                             l.shape.pad_y,
                             {},
                             zyn_planar_epilogue(l.epilogue, c)};
    for (int i = 0; i < Kernel * Kernel; i++)
      p.weights[i] = _mm256_broadcast_ss(l.weights + static_cast<int64_t>(c) * Kernel * Kernel + i);
    if (l.out_h >= kRows)
      convolve<Kernel, Stride, kRows>(p);
    else
      convolve<Kernel, Stride, 1>(p);
  }
}

template <int Kernel, int Stride>
void convolve_all(const zyn_planar_layer& l) {
  if (l.shape.pad_x == Kernel / 2 && l.shape.pad_y == Kernel / 2)
    convolve_planes<Kernel, Stride, true>(l);
  else
    convolve_planes<Kernel, Stride, false>(l);
}

}  // namespace

void zyn_planar_depthwise(const zyn_planar_layer& l, int32_t kernel, int32_t stride) {
  if (kernel == 3)
    stride == 1 ? convolve_all<3, 1>(l) : convolve_all<3, 2>(l);
  else
    stride == 1 ? convolve_all<5, 1>(l) : convolve_all<5, 2>(l);
}

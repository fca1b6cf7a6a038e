// Depthwise 3x3 and 5x5 convolution over planes, stride 1 and 2, padding kernel / 2.
// Columns whose taps all lie inside the row go eight at a time, the last vector
// overlapping the one before; the others, and rows too narrow for a vector, one by one.
#include "cg/cpu/kernels/zyn_conv_planar.h"

namespace {

// Eight floats Stride apart.
template <int Stride>
__m256 load(const float* p) {
  if (Stride == 1) return _mm256_loadu_ps(p);
  // The second load begins at the eighth float, so that nothing past the last one is read.
  const __m256 low = _mm256_loadu_ps(p), high = _mm256_loadu_ps(p + 7);
  const __m256 mixed = _mm256_shuffle_ps(low, high, 0xD8);
  return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(mixed), 0xD8));
}

// One plane and its kernel.
struct plane {
  const float* in;
  int32_t width, height;
  float* out;
  int32_t out_width, out_height;
  const float* weights;
};

// Kernel rows that lie inside the image under output row y.
template <int Kernel, int Stride>
void row_range(const plane& p, int32_t y, int* first, int* end) {
  const int32_t top = y * Stride - Kernel / 2;
  *first = top < 0 ? -top : 0;
  *end = top + Kernel > p.height ? p.height - top : Kernel;
}

template <int Kernel, int Stride>
float pixel(const plane& p, int32_t y, int32_t x, int ky0, int ky1) {
  float sum = 0;
  for (int ky = ky0; ky < ky1; ky++) {
    const float* row = p.in + static_cast<int64_t>(y * Stride - Kernel / 2 + ky) * p.width;
    for (int kx = 0; kx < Kernel; kx++) {
      const int32_t column = x * Stride - Kernel / 2 + kx;
      if (column >= 0 && column < p.width)
        sum = __builtin_fmaf(p.weights[ky * Kernel + kx], row[column], sum);
    }
  }
  return sum;
}

template <int Kernel, int Stride>
__m256 pixels(const plane& p, int32_t y, int32_t x, int ky0, int ky1) {
  __m256 sum = _mm256_setzero_ps();
  for (int ky = ky0; ky < ky1; ky++) {
    const float* row = p.in + static_cast<int64_t>(y * Stride - Kernel / 2 + ky) * p.width +
                       x * Stride - Kernel / 2;
    const float* w = p.weights + ky * Kernel;
#pragma GCC unroll 5
    for (int kx = 0; kx < Kernel; kx++)
      sum = _mm256_fmadd_ps(_mm256_broadcast_ss(w + kx), load<Stride>(row + kx), sum);
  }
  return sum;
}

template <int Kernel, int Stride>
void convolve(const plane& p) {
  // Columns [first, end) have all their taps inside.
  const int32_t first = (Kernel / 2 + Stride - 1) / Stride;
  const int32_t room = p.width - 1 - Kernel / 2;
  const int32_t end = room < 0 ? first : room / Stride + 1;
  for (int32_t y = 0; y < p.out_height; y++) {
    int ky0, ky1;
    row_range<Kernel, Stride>(p, y, &ky0, &ky1);
    float* out = p.out + static_cast<int64_t>(y) * p.out_width;
    const bool vectors = end - first >= 8;
    for (int32_t x = 0; x < p.out_width; x++) {
      if (vectors && x == first) x = end;
      if (x < p.out_width) out[x] = pixel<Kernel, Stride>(p, y, x, ky0, ky1);
    }
    if (!vectors) continue;
    for (int32_t x = first; x < end; x += 8) {
      const int32_t at = x + 8 <= end ? x : end - 8;
      _mm256_storeu_ps(out + at, pixels<Kernel, Stride>(p, y, at, ky0, ky1));
    }
  }
}

template <int Kernel>
void convolve_all(const zyn_planar_layer& l, int32_t stride) {
  for (int32_t c = 0; c < l.out_channels; c++) {
    const plane p = {l.in_plane(c),
                     l.in_w,
                     l.in_h,
                     l.out_plane(c),
                     l.out_w,
                     l.out_h,
                     l.weights + static_cast<int64_t>(c) * Kernel * Kernel};
    if (stride == 1)
      convolve<Kernel, 1>(p);
    else
      convolve<Kernel, 2>(p);
  }
}

}  // namespace

void zyn_planar_depthwise_3x3(const zyn_planar_layer& l, int32_t stride) {
  convolve_all<3>(l, stride);
}

void zyn_planar_depthwise_5x5(const zyn_planar_layer& l, int32_t stride) {
  convolve_all<5>(l, stride);
}

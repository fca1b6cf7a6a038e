// Packing of weights and input panels. Whole blocks of 4 and 8 rows are transposed in
// registers; everything else goes element by element.
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"

#include <immintrin.h>
#include <string.h>

namespace {

// 4 values of each of 4 rows, transposed.
void transpose4(const float* s, int64_t stride, float* d, int64_t block) {
  __m128 a = _mm_loadu_ps(s), b = _mm_loadu_ps(s + stride);
  __m128 c = _mm_loadu_ps(s + 2 * stride), e = _mm_loadu_ps(s + 3 * stride);
  _MM_TRANSPOSE4_PS(a, b, c, e);
  _mm_storeu_ps(d, a);
  _mm_storeu_ps(d + block, b);
  _mm_storeu_ps(d + 2 * block, c);
  _mm_storeu_ps(d + 3 * block, e);
}

// Row r of a block, values from first on.
void spread_row(const float* s, int64_t first, int64_t k, int64_t block, float* d) {
  for (int64_t i = first; i < k; i++) d[i * block] = s ? s[i] : 0.0f;
}

template <int kVectors>
void copy_panel(int64_t k, const float* s, int64_t stride, float* d) {
  for (int64_t i = 0; i < k; i++, s += stride, d += 8 * kVectors) {
    for (int v = 0; v < kVectors; v++) _mm256_storeu_ps(d + 8 * v, _mm256_loadu_ps(s + 8 * v));
  }
}

}  // namespace

void zyn_gemm_pack_weights(int64_t rows, int64_t k, int64_t block, const float* source,
                           int64_t source_stride, float* destination) {
  for (int64_t row = 0; row < rows; row += block, destination += block * k) {
    const float* s = source + row * source_stride;
    const int64_t real = rows - row < block ? rows - row : block;
    int64_t r = 0;
    for (; r + 4 <= real; r += 4) {
      const float* four = s + r * source_stride;
      int64_t i = 0;
      for (; i + 4 <= k; i += 4)
        transpose4(four + i, source_stride, destination + i * block + r, block);
      for (int64_t q = 0; q < 4; q++)
        spread_row(four + q * source_stride, i, k, block, destination + r + q);
    }
    for (; r < block; r++)
      spread_row(r < real ? s + r * source_stride : nullptr, 0, k, block, destination + r);
  }
}

void zyn_gemm_pack_panels(int64_t k, int64_t columns, int64_t width, const float* source,
                          int64_t source_stride, float* destination) {
  int64_t column = 0;
  for (; column + width <= columns; column += width, destination += width * k) {
    if (width == 48)
      copy_panel<6>(k, source + column, source_stride, destination);
    else if (width == 24)
      copy_panel<3>(k, source + column, source_stride, destination);
    else if (width == 16)
      copy_panel<2>(k, source + column, source_stride, destination);
    else if (width == 8)
      copy_panel<1>(k, source + column, source_stride, destination);
    else
      for (int64_t i = 0; i < k; i++)
        memcpy(destination + i * width, source + column + i * source_stride,
               static_cast<size_t>(width) * sizeof(float));
  }
  const int64_t rest = columns - column;
  if (rest == 0) return;
  for (int64_t i = 0; i < k; i++) {
    const float* s = source + column + i * source_stride;
    for (int64_t x = 0; x < width; x++) destination[i * width + x] = x < rest ? s[x] : 0.0f;
  }
}

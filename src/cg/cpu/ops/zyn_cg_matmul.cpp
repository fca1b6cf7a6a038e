// Products of matrices in planar order, one for every place of the further extents. A single
// row or column needs no panel: it is read once, as it lies.
#include "base/zyn_integers.h"
#include "cg/cpu/kernels/gemm/zyn_gemm.h"
#include "cg/cpu/ops/zyn_cg_join.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

// y = A x, A of rows x k.
void multiply_by_column(const float* a, const float* x, float* y, int64_t rows, int64_t k) {
  for (int64_t row = 0; row < rows; row++, a += k) {
    __m256 sums[4] = {};
    int64_t i = 0;
    for (; i + 32 <= k; i += 32)
      ZYN_UNROLL for (int v = 0; v < 4; v++) sums[v] =
          _mm256_fmadd_ps(_mm256_loadu_ps(a + i + 8 * v), _mm256_loadu_ps(x + i + 8 * v), sums[v]);
    for (; i < k; i += 8) {
      const __m256i mask = zyn_first_lanes(k - i);
      sums[0] = _mm256_fmadd_ps(_mm256_maskload_ps(a + i, mask), _mm256_maskload_ps(x + i, mask),
                                sums[0]);
    }
    const __m256 sum =
        _mm256_add_ps(_mm256_add_ps(sums[0], sums[1]), _mm256_add_ps(sums[2], sums[3]));
    __m128 four = _mm_add_ps(_mm256_castps256_ps128(sum), _mm256_extractf128_ps(sum, 1));
    four = _mm_add_ps(four, _mm_movehl_ps(four, four));
    y[row] = _mm_cvtss_f32(_mm_add_ss(four, _mm_movehdup_ps(four)));
  }
}

// y += x[0] B[0] + ... of up to 4 rows of B, n elements each.
void add_rows(const float* x, const float* b, float* y, int64_t rows, int64_t n) {
  const __m256 x0 = _mm256_set1_ps(x[0]);
  if (rows < 4) {
    zyn_map2(y, y, b, n, [=](__m256 s, __m256 b0) { return _mm256_fmadd_ps(x0, b0, s); });
    if (rows > 1) add_rows(x + 1, b + n, y, rows - 1, n);
    return;
  }
  const __m256 x1 = _mm256_set1_ps(x[1]), x2 = _mm256_set1_ps(x[2]), x3 = _mm256_set1_ps(x[3]);
  for (int64_t i = 0; i < n; i += 8) {
    const __m256i mask = zyn_first_lanes(n - i);
    const auto row = [&](int64_t r) { return _mm256_maskload_ps(b + r * n + i, mask); };
    __m256 sum = _mm256_fmadd_ps(x0, row(0), _mm256_maskload_ps(y + i, mask));
    sum = _mm256_fmadd_ps(x1, row(1), sum);
    sum = _mm256_fmadd_ps(x2, row(2), sum);
    _mm256_maskstore_ps(y + i, mask, _mm256_fmadd_ps(x3, row(3), sum));
  }
}

void multiply_row(const float* x, const float* b, float* y, int64_t n, int64_t k) {
  memset(y, 0, static_cast<size_t>(n) * sizeof(float));
  for (int64_t i = 0; i < k; i += 4) add_rows(x + i, b + i * n, y, zyn_smaller(k - i, 4), n);
}

}  // namespace

int64_t zyn_cg_matmul_scratch(int64_t k) { return zyn_gemm_panel_floats(k); }

void zyn_cg_matmul(zyn_tensor* output, const zyn_cg_extents& a, const float* a_values,
                   const zyn_cg_extents& b, const float* b_values, float* scratch) {
  const int64_t m = a[1], k = a[0], n = b[0];
  const zyn_cg_extents out = {output->dim_count, output->dims};
  float* to = zyn_cg_floats(output);
  for (int64_t i = 0; i < output->count / (m * n); i++, to += m * n) {
    // Where the matrices of this place lie: an extent of 1 is repeated.
    int64_t rest = i, from_a = 0, from_b = 0, size_a = m * k, size_b = k * n;
    for (int32_t d = 2; d < 5; d++) {
      const int64_t at = rest % out[d];
      rest /= out[d];
      if (a[d] > 1) from_a += at * size_a;
      if (b[d] > 1) from_b += at * size_b;
      size_a *= a[d];
      size_b *= b[d];
    }
    const float *x = a_values + from_a, *y = b_values + from_b;
    if (n == 1)
      multiply_by_column(x, y, to, m, k);
    else if (m == 1)
      multiply_row(x, y, to, n, k);
    else
      zyn_gemm_general({m, n, k, 1.0f, 0.0f, x, k, y, n, to, n}, scratch);
  }
}

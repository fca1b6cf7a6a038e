// Products of small matrices, without packing. Row tails: a tile's rows beyond the
// last one repeat it and are not stored. Column and depth tails: masked loads.
#include <stdint.h>

#include "matrix/zyn_matrix_product.h"
#include "simd/zyn_lanes.h"

namespace {

template <typename T>
using vector = typename zyn_lanes<T>::vector;

// c[i ... i + Rows)[j ... j + Vectors * lanes); the last vector is masked.
template <typename T, int Rows, int Vectors>
void tile_plain(const zyn_product<T>& p, int64_t i, int64_t j, __m256i mask) {
  using L = zyn_lanes<T>;
  const T* a[Rows];
  vector<T> sum[Rows][Vectors];
  ZYN_UNROLL for (int r = 0; r < Rows; r++) {
    a[r] = p.a + (i + r < p.m ? i + r : p.m - 1) * p.a_pitch;
    ZYN_UNROLL for (int v = 0; v < Vectors; v++) sum[r][v] = L::zero();
  }
  const T* b = p.b + j;
  for (int64_t l = 0; l < p.k; l++, b += p.b_pitch) {
    vector<T> row[Vectors];
    ZYN_UNROLL for (int v = 0; v < Vectors; v++) row[v] =
        v == Vectors - 1 ? L::load(b + v * L::count, mask) : L::load(b + v * L::count);
    ZYN_UNROLL for (int r = 0; r < Rows; r++) {
      const vector<T> left = L::broadcast(a[r][l]);
      ZYN_UNROLL for (int v = 0; v < Vectors; v++) sum[r][v] = L::fma(left, row[v], sum[r][v]);
    }
  }
  const vector<T> alpha = L::broadcast(p.alpha);
  const vector<T> beta = L::broadcast(p.beta);
  ZYN_UNROLL for (int r = 0; r < Rows; r++) {
    if (i + r >= p.m) break;
    T* c = p.c + (i + r) * p.c_pitch + j;
    ZYN_UNROLL for (int v = 0; v < Vectors; v++, c += L::count) {
      const __m256i lanes = v == Vectors - 1 ? mask : L::mask(L::count);
      vector<T> value = L::multiply(alpha, sum[r][v]);
      if (p.beta != 0) value = L::fma(beta, L::load(c, lanes), value);
      L::store(c, lanes, value);
    }
  }
}

template <typename T, int Rows>
void rows_plain(const zyn_product<T>& p, int64_t i) {
  constexpr int64_t kLanes = zyn_lanes<T>::count;
  int64_t j = 0;
  for (; p.n - j > kLanes; j += 2 * kLanes)
    tile_plain<T, Rows, 2>(p, i, j, zyn_lanes<T>::mask(p.n - j - kLanes));
  if (j < p.n) tile_plain<T, Rows, 1>(p, i, j, zyn_lanes<T>::mask(p.n - j));
}

// Of a cache line; rows that pass by at the speed of the outer cache levels: those of the next
// tile are asked for.
template <typename T>
constexpr int64_t kLine = 64 / sizeof(T);
template <typename T>
bool streams(const zyn_product<T>& p) {
  constexpr int64_t kCachedBytes = 512 * 1024;
  return p.n * p.k * static_cast<int64_t>(sizeof(T)) > kCachedBytes;
}

// c[i ... i + Rows)[j ... j + Cols) as dot products of rows of a and b.
template <typename T, int Rows, int Cols>
void tile_transposed(const zyn_product<T>& p, int64_t i, int64_t j) {
  using L = zyn_lanes<T>;
  const T* a[Rows];
  const T* b[Cols];
  vector<T> sum[Rows][Cols];
  ZYN_UNROLL for (int q = 0; q < Cols; q++) b[q] =
      p.b + (j + q < p.n ? j + q : p.n - 1) * p.b_pitch;
  ZYN_UNROLL for (int r = 0; r < Rows; r++) {
    a[r] = p.a + (i + r < p.m ? i + r : p.m - 1) * p.a_pitch;
    ZYN_UNROLL for (int q = 0; q < Cols; q++) sum[r][q] = L::zero();
  }
  const auto step = [&](auto load) __attribute__((always_inline)) {
    vector<T> left[Rows];
    ZYN_UNROLL for (int r = 0; r < Rows; r++) left[r] = load(a[r]);
    ZYN_UNROLL for (int q = 0; q < Cols; q++) {
      const vector<T> right = load(b[q]);
      ZYN_UNROLL for (int r = 0; r < Rows; r++) sum[r][q] = L::fma(left[r], right, sum[r][q]);
    }
  };
  int64_t l = 0;
  if (Rows == 1 && streams(p))
    for (; l + kLine<T> <= p.k; l += kLine<T>) {
      ZYN_UNROLL for (int q = 0; q < Cols; q++)
          _mm_prefetch(reinterpret_cast<const char*>(b[q] + Cols * p.b_pitch + l), _MM_HINT_T0);
      step([l](const T* x) { return L::load(x + l); });
      step([l](const T* x) { return L::load(x + l + L::count); });
    }
  for (; l + L::count <= p.k; l += L::count) step([l](const T* x) { return L::load(x + l); });
  if (l < p.k) {
    const __m256i mask = L::mask(p.k - l);
    step([l, mask](const T* x) { return L::load(x + l, mask); });
  }
  ZYN_UNROLL for (int r = 0; r < Rows; r++) {
    if (i + r >= p.m) break;
    T sums[Cols];
    ZYN_UNROLL for (int q = 0; q < Cols; q += 4)
        L::sums(sum[r][q], sum[r][q + 1], sum[r][q + 2], sum[r][q + 3], sums + q);
    T* c = p.c + (i + r) * p.c_pitch + j;
    for (int64_t q = 0; q < Cols && j + q < p.n; q++)
      c[q] = p.beta != 0 ? L::fma(p.beta, c[q], p.alpha * sums[q]) : p.alpha * sums[q];
  }
}

}  // namespace

template <typename T>
void zyn_product_direct(const zyn_product<T>& p) {
  int64_t i = 0;
  if (p.transpose_b) {
    for (; p.m - i > 1; i += 3)
      for (int64_t j = 0; j < p.n; j += 4) tile_transposed<T, 3, 4>(p, i, j);
    if (i < p.m)
      for (int64_t j = 0; j < p.n; j += 8) tile_transposed<T, 1, 8>(p, i, j);
    return;
  }
  for (; p.m - i > 1; i += 4) rows_plain<T, 4>(p, i);
  if (i < p.m) rows_plain<T, 1>(p, i);
}

template void zyn_product_direct<float>(const zyn_product<float>&);
template void zyn_product_direct<double>(const zyn_product<double>&);

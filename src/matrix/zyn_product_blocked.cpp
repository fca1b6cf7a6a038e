// Products of large matrices: the operands are cut into cache blocks and packed into
// panels that the register tile reads in order.
//
//   packed a: panels of kTileRows rows,    element (row r, depth l) at l * kTileRows + r
//   packed b: panels of kTileCols columns, element (depth l, column j) at l * kTileCols + j
//
// Panels at the edge are filled up with whatever is cheapest; those elements of the tile are
// not stored.
#include <stdint.h>

#include "base/zyn_memory.h"
#include "matrix/zyn_matrix_product.h"
#include "simd/zyn_lanes.h"

namespace {

// The register tile: 6 rows x 2 vectors are 12 accumulators, which leave 2 registers for b
// and 2 for a, and are more than the 8 to 10 that latency x throughput of the fused
// multiply-add asks for.
constexpr int64_t kTileRows = 6;
constexpr int64_t kTileVectors = 2;
template <typename T>
constexpr int64_t kTileCols = kTileVectors* zyn_lanes<T>::count;

// Cache blocks. A panel of b (depth x tile columns, 16 to 24 KB) stays in the first cache
// while the block of a (rows x depth, below 256 KB) streams from the second; cols bounds the
// packed b.
struct blocks {
  int64_t rows, cols, depth;
};
template <typename T>
constexpr blocks kBlocks{};
template <>
constexpr blocks kBlocks<float>{168, 4080, 256};
template <>
constexpr blocks kBlocks<double>{96, 4080, 256};

constexpr int64_t min(int64_t a, int64_t b) { return a < b ? a : b; }
constexpr int64_t round_up(int64_t x, int64_t step) { return (x + step - 1) / step * step; }

// The size of the equal parts, multiples of step, that x is cut into; none above limit.
constexpr int64_t part(int64_t x, int64_t limit, int64_t step) {
  const int64_t parts = (x + limit - 1) / limit;
  return round_up((x + parts - 1) / parts, step);
}

// Transposes a square of lanes x lanes in registers.
void transpose(__m256 (&x)[8]) { zyn_transpose_8x8(x); }

void transpose(__m256d (&x)[4]) {
  const __m256d a = _mm256_unpacklo_pd(x[0], x[1]), b = _mm256_unpackhi_pd(x[0], x[1]);
  const __m256d c = _mm256_unpacklo_pd(x[2], x[3]), d = _mm256_unpackhi_pd(x[2], x[3]);
  x[0] = _mm256_permute2f128_pd(a, c, 0x20);
  x[1] = _mm256_permute2f128_pd(b, d, 0x20);
  x[2] = _mm256_permute2f128_pd(a, c, 0x31);
  x[3] = _mm256_permute2f128_pd(b, d, 0x31);
}

// Packs one panel from rows of contiguous depth: to[l * Width + r] = from[r * pitch + l]. The
// last row stands in for missing ones. Stores whole vectors: up to a vector behind the panel
// is overwritten.
template <typename T, int64_t Width>
void pack_panel_across(T* to, const T* from, int64_t pitch, int64_t rows, int64_t depth) {
  using L = zyn_lanes<T>;
  // From the last group of rows to the first, and depth ascending: what a vector writes
  // behind its group is overwritten by what belongs there.
  for (int64_t first = (Width - 1) / L::count * L::count; first >= 0; first -= L::count) {
    const T* row[L::count];
    for (int64_t r = 0; r < L::count; r++) row[r] = from + min(first + r, rows - 1) * pitch;
    T* out = to + first;
    int64_t l = 0;
    for (; l + L::count <= depth; l += L::count) {
      typename L::vector x[L::count];
      ZYN_UNROLL for (int r = 0; r < L::count; r++) x[r] = L::load(row[r] + l);
      transpose(x);
      ZYN_UNROLL for (int r = 0; r < L::count; r++) L::store(out + (l + r) * Width, x[r]);
    }
    for (; l < depth; l++)
      for (int64_t r = 0; r < min(L::count, Width - first); r++) out[l * Width + r] = row[r][l];
  }
}

// Packs one panel from rows of contiguous columns, cols of them present.
template <typename T>
void pack_panel_along(T* to, const T* from, int64_t pitch, int64_t cols, int64_t depth) {
  using L = zyn_lanes<T>;
  const __m256i low = L::mask(cols), high = L::mask(cols - L::count);
  for (int64_t l = 0; l < depth; l++, from += pitch, to += kTileCols<T>) {
    L::store(to, L::load(from, low));
    L::store(to + L::count, L::load(from + L::count, high));
  }
}

// One tile: c = alpha * (packed a * packed b) + beta * c, rows x cols of it stored.
template <typename T, bool Whole>
void tile_6x2(const T* a, const T* b, int64_t depth, T alpha, T beta, T* c, int64_t pitch,
              int64_t rows, int64_t cols) {
  using L = zyn_lanes<T>;
  typename L::vector sum[kTileRows][kTileVectors];
  ZYN_UNROLL for (int r = 0; r < kTileRows; r++) {
    if (Whole) __builtin_prefetch(c + r * pitch + kTileCols<T> - 1);
    sum[r][0] = sum[r][1] = L::zero();
  }
  ZYN_UNROLL_BY(4) for (int64_t l = 0; l < depth; l++) {
    const typename L::vector left = L::load(b), right = L::load(b + L::count);
    ZYN_UNROLL for (int r = 0; r < kTileRows; r++) {
      const typename L::vector x = L::broadcast(a[r]);
      sum[r][0] = L::fma(x, left, sum[r][0]);
      sum[r][1] = L::fma(x, right, sum[r][1]);
    }
    a += kTileRows;
    b += kTileCols<T>;
  }
  const typename L::vector alphas = L::broadcast(alpha), betas = L::broadcast(beta);
  const __m256i masks[2] = {L::mask(cols), L::mask(cols - L::count)};
  ZYN_UNROLL for (int r = 0; r < kTileRows; r++) {
    if (!Whole && r >= rows) break;
    ZYN_UNROLL for (int v = 0; v < kTileVectors; v++) {
      T* const to = c + r * pitch + v * L::count;
      typename L::vector value = L::multiply(alphas, sum[r][v]);
      if (Whole) {
        if (beta != 0) value = L::fma(betas, L::load(to), value);
        L::store(to, value);
      } else {
        if (beta != 0) value = L::fma(betas, L::load(to, masks[v]), value);
        L::store(to, masks[v], value);
      }
    }
  }
}

// All tiles of one packed block of a and one of b.
template <typename T>
void block_times_block(const T* a, const T* b, int64_t rows, int64_t cols, int64_t depth, T alpha,
                       T beta, T* c, int64_t pitch) {
  for (int64_t j = 0; j < cols; j += kTileCols<T>)
    for (int64_t i = 0; i < rows; i += kTileRows) {
      const bool whole = i + kTileRows <= rows && j + kTileCols<T> <= cols;
      (whole ? tile_6x2<T, true> : tile_6x2<T, false>)(a + i * depth, b + j * depth, depth, alpha,
                                                       beta, c + i * pitch + j, pitch, rows - i,
                                                       cols - j);
    }
}

template <typename T>
void scale(const zyn_product<T>& p) {
  for (int64_t i = 0; i < p.m; i++)
    for (int64_t j = 0; j < p.n; j++) {
      T& element = p.c[i * p.c_pitch + j];
      element = p.beta == 0 ? 0 : p.beta * element;
    }
}

template <typename T>
void pack_b(const zyn_product<T>& p, T* to, int64_t l, int64_t depth, int64_t j, int64_t cols) {
  for (int64_t i = 0; i < cols; i += kTileCols<T>, to += kTileCols<T> * depth) {
    const int64_t present = min(kTileCols<T>, cols - i);
    if (p.transpose_b)
      pack_panel_across<T, kTileCols<T>>(to, p.b + (j + i) * p.b_pitch + l, p.b_pitch, present,
                                         depth);
    else
      pack_panel_along(to, p.b + l * p.b_pitch + j + i, p.b_pitch, present, depth);
  }
}

template <typename T>
void pack_a(const zyn_product<T>& p, T* to, int64_t l, int64_t depth, int64_t i, int64_t rows) {
  for (int64_t r = 0; r < rows; r += kTileRows, to += kTileRows * depth)
    pack_panel_across<T, kTileRows>(to, p.a + (i + r) * p.a_pitch + l, p.a_pitch,
                                    min(kTileRows, rows - r), depth);
}

}  // namespace

template <typename T>
bool zyn_product_blocked(const zyn_product<T>& p) {
  if (p.m <= 0 || p.n <= 0) return true;
  if (p.alpha == 0 || p.k <= 0) {
    if (p.beta != 1) scale(p);
    return true;
  }
  const int64_t row_step = part(p.m, kBlocks<T>.rows, kTileRows);
  const int64_t col_step = part(p.n, kBlocks<T>.cols, kTileCols<T>);
  const int64_t depth_step = part(p.k, kBlocks<T>.depth, 1);
  // A vector of slack behind each packed operand.
  zyn_scratch<T> packed_a(row_step * depth_step + zyn_lanes<T>::count);
  zyn_scratch<T> packed_b(col_step * depth_step + zyn_lanes<T>::count);
  if (!packed_a || !packed_b) return false;
  for (int64_t j = 0; j < p.n; j += col_step) {
    const int64_t cols = min(col_step, p.n - j);
    for (int64_t l = 0; l < p.k; l += depth_step) {
      const int64_t depth = min(depth_step, p.k - l);
      pack_b(p, packed_b.get(), l, depth, j, cols);
      for (int64_t i = 0; i < p.m; i += row_step) {
        const int64_t rows = min(row_step, p.m - i);
        pack_a(p, packed_a.get(), l, depth, i, rows);
        block_times_block(packed_a.get(), packed_b.get(), rows, cols, depth, p.alpha,
                          l == 0 ? p.beta : T{1}, p.c + i * p.c_pitch + j, p.c_pitch);
      }
    }
  }
  return true;
}

template bool zyn_product_blocked<float>(const zyn_product<float>&);
template bool zyn_product_blocked<double>(const zyn_product<double>&);

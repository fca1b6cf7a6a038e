// Micro-kernels over packed operands: whole tiles of packed weights by a packed panel, rows
// of A as they lie by a packed panel, packed rows by a vector. Two multipliers with 4 cycles
// of latency want at least 8 sums in flight, 12 with loads between; 16 registers hold 12
// sums, the columns of B and one broadcast weight.
#include <immintrin.h>
#include <string.h>

#include "base/zyn_integers.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_sums.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_tiles.h"

namespace {

template <int kLanes, int kRows, int kVectors>
[[gnu::always_inline]] inline void store_scaled(
    const typename zyn_block_lanes<kLanes>::type (&sums)[kRows][kVectors], float alpha, float beta,
    float* tile, int64_t pitch) {
  using lanes = zyn_block_lanes<kLanes>;
  const auto a = lanes::spread(alpha), b = lanes::spread(beta);
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      float* to = tile + r * pitch + kLanes * v;
      auto y = lanes::multiply(a, sums[r][v]);
      if (beta != 0) lanes::add_product(y, b, lanes::load(to));
      lanes::store(to, y);
    }
  }
}

// A tile of packed weights and one packed panel.
template <int kRows, int kVectors>
[[gnu::always_inline]] inline void packed_tile(int64_t k, float alpha, float beta,
                                               const float* weights, const float* panel,
                                               float* tile, int64_t pitch) {
  __m256 sums[kRows][kVectors];
  zyn_gemm_clear<8>(sums);
  ZYN_UNROLL_BY(4) for (int64_t i = 0; i < k; i++) {
    zyn_gemm_multiply_add<8, false>(
        sums, [weights](int r) { return weights + r; }, [panel](int v) { return panel + 8 * v; },
        nullptr);
    weights += kRows;
    panel += 8 * kVectors;
  }
  store_scaled<8>(sums, alpha, beta, tile, pitch);
}

// A product of rows of A as they lie by one panel.
struct scaled_tile {
  int64_t k;
  float alpha, beta;
  const float* a;
  int64_t lda;
  const float* panel;
  int64_t panel_pitch;  // from term to term
  float* tile;
  int64_t pitch, columns;
  const float* next;  // the panel that comes next as it lies in B, or null
  int64_t next_pitch;
};

constexpr int64_t kLongSum = 128;  // terms from which on a tile hides what it asks for

// What comes next, asked for while sums are long enough: the places that a tile of rows writes, and
// the tile's share of the next panel, whose rows of B lie too far apart to be foreseen.
[[gnu::always_inline]] inline void ask_ahead(const scaled_tile& t, int64_t row, int64_t tile_rows,
                                             int64_t rows) {
  if (t.k < kLongSum) return;
  const int64_t last = t.columns - 1;
  for (int64_t r = row; r < row + tile_rows; r++) {
    const float* first = t.tile + r * t.pitch;
    _mm_prefetch(reinterpret_cast<const char*>(first), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(first + last), _MM_HINT_T0);
  }
  if (!t.next) return;
  const int64_t end = t.k * (row + tile_rows) / rows;
  for (int64_t i = t.k * row / rows; i < end; i++) {
    const float* first = t.next + i * t.next_pitch;
    _mm_prefetch(reinterpret_cast<const char*>(first), _MM_HINT_T1);
    _mm_prefetch(reinterpret_cast<const char*>(first + last), _MM_HINT_T1);
  }
}

template <int kRows, int kVectors, int kLanes = 8>
void rows_tile(const scaled_tile& t, int64_t row) {
  const float* a = t.a + row * t.lda;
  const int64_t lda = t.lda, panel_pitch = t.panel_pitch;
  const float* panel = t.panel;
  typename zyn_block_lanes<kLanes>::type sums[kRows][kVectors];
  zyn_gemm_clear<kLanes>(sums);
  ZYN_UNROLL_BY(4) for (int64_t i = 0; i < t.k; i++) {
    zyn_gemm_multiply_add<kLanes, false>(
        sums, [a, lda](int r) { return a + r * lda; },
        [panel](int v) { return panel + kLanes * v; }, nullptr);
    a++;
    panel += panel_pitch;
  }
  float* tile = t.tile + row * t.pitch;
  constexpr int kColumns = kLanes * kVectors;
  if (t.columns == kColumns) return store_scaled<kLanes>(sums, t.alpha, t.beta, tile, t.pitch);
  alignas(64) float whole[kRows * kColumns];
  store_scaled<kLanes>(sums, t.alpha, 0.0f, whole, kColumns);
  zyn_gemm_merge(whole, kColumns, kRows, t.columns, t.beta, tile, t.pitch);
}

template <int kRows, int kVectors, int kLanes = 8>
int64_t panel_rows(const scaled_tile& t, int64_t row, int64_t rows) {
  for (; row + kRows <= rows; row += kRows) {
    ask_ahead(t, row, kRows, rows);
    rows_tile<kRows, kVectors, kLanes>(t, row);
  }
  return row;
}

// kBlocks blocks of 8 rows by a vector.
template <int kBlocks>
void multiply_rows(const float* packed, int64_t block_stride, int64_t terms, const float* x,
                   float* y, bool add) {
  __m256 sums[kBlocks];
  ZYN_UNROLL for (int b = 0; b < kBlocks; b++) sums[b] = _mm256_setzero_ps();
  for (int64_t i = 0; i < terms; i++, packed += ZYN_GEMM_VECTOR_ROWS) {
    const __m256 value = _mm256_broadcast_ss(x + i);
    ZYN_UNROLL for (int b = 0; b < kBlocks; b++) sums[b] =
        _mm256_fmadd_ps(_mm256_loadu_ps(packed + b * block_stride), value, sums[b]);
  }
  ZYN_UNROLL for (int b = 0; b < kBlocks; b++) {
    float* to = y + b * ZYN_GEMM_VECTOR_ROWS;
    _mm256_storeu_ps(to, add ? _mm256_add_ps(sums[b], _mm256_loadu_ps(to)) : sums[b]);
  }
}

// kCount blocks of kBlock (4 or 6) rows by a vector: the lanes behind a block's rows hold
// nothing of use.
template <int kBlock, int kCount>
void multiply_blocks(const float* packed, int64_t k, const float* x, float* y) {
  const int64_t stride = k * kBlock;
  __m256 sums[kCount];
  ZYN_UNROLL for (int b = 0; b < kCount; b++) sums[b] = _mm256_setzero_ps();
  ZYN_UNROLL_BY(2) for (int64_t i = 0; i < k - 1; i++, packed += kBlock) {
    const __m256 value = _mm256_broadcast_ss(x + i);
    ZYN_UNROLL for (int b = 0; b < kCount; b++) sums[b] =
        _mm256_fmadd_ps(_mm256_loadu_ps(packed + b * stride), value, sums[b]);
  }
  const __m256 value = _mm256_broadcast_ss(x + k - 1);
  const __m256i mask = zyn_first_lanes(kBlock);
  ZYN_UNROLL for (int b = 0; b < kCount; b++) {
    const __m256 last = _mm256_maskload_ps(packed + b * stride, mask);
    _mm256_maskstore_ps(y + b * kBlock, mask, _mm256_fmadd_ps(last, value, sums[b]));
  }
}

template <int kBlock>
void blocks_by_vector(int64_t rows, int64_t k, const float* packed, const float* x, float* y) {
  float sums[8 * kBlock];
  for (int64_t row = 0, count = 0; row < rows; row += count, packed += count * k) {
    const int64_t left = zyn_units(rows - row, kBlock);
    const int64_t blocks = left >= 8 ? 8 : left >= 4 ? 4 : zyn_smaller(left, 2);
    const auto multiply = blocks == 8   ? multiply_blocks<kBlock, 8>
                          : blocks == 4 ? multiply_blocks<kBlock, 4>
                          : blocks == 2 ? multiply_blocks<kBlock, 2>
                                        : multiply_blocks<kBlock, 1>;
    multiply(packed, k, x, sums);
    count = blocks * kBlock;
    const int64_t there = zyn_smaller(count, rows - row);
    memcpy(y + row, sums, static_cast<size_t>(there) * sizeof(float));
  }
}

}  // namespace

void zyn_gemm_merge(const float* tile, int64_t tile_pitch, int64_t rows, int64_t columns,
                    float beta, float* output, int64_t pitch) {
  for (int64_t r = 0; r < rows; r++)
    for (int64_t c = 0; c < columns; c++) {
      float* to = output + r * pitch + c;
      const float y = tile[r * tile_pitch + c];
      *to = beta != 0 ? __builtin_fmaf(beta, *to, y) : y;
    }
}

void zyn_gemm_by_vector(int64_t rows, int64_t k, const float* packed, const float* x, float* y) {
  const int64_t block_stride = k * ZYN_GEMM_VECTOR_ROWS;
  alignas(32) float sums[8 * ZYN_GEMM_VECTOR_ROWS];
  for (int64_t row = 0, count = 0; row < rows; row += count) {
    const int64_t blocks = zyn_units(rows - row, ZYN_GEMM_VECTOR_ROWS);
    const int64_t at_once = blocks >= 8 ? 8 : blocks >= 4 ? 4 : zyn_smaller(blocks, 2);
    const auto multiply = at_once == 8   ? multiply_rows<8>
                          : at_once == 4 ? multiply_rows<4>
                          : at_once == 2 ? multiply_rows<2>
                                         : multiply_rows<1>;
    count = zyn_smaller(rows - row, ZYN_GEMM_VECTOR_ROWS * at_once);
    for (int64_t term = 0; term < k; term += ZYN_GEMM_RUN)
      multiply(packed + row * k + term * ZYN_GEMM_VECTOR_ROWS, block_stride,
               zyn_smaller(ZYN_GEMM_RUN, k - term), x + term, sums, term > 0);
    memcpy(y + row, sums, static_cast<size_t>(count) * sizeof(float));
  }
}

void zyn_gemm_blocks_by_vector(int64_t rows, int64_t k, const float* packed, int64_t block,
                               const float* x, float* y) {
  (block == 6 ? blocks_by_vector<6> : blocks_by_vector<4>)(rows, k, packed, x, y);
}

void zyn_gemm_micro_6x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch) {
  packed_tile<6, 2>(k, alpha, beta, weights, panel, tile, pitch);
}

void zyn_gemm_micro_4x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch) {
  packed_tile<4, 2>(k, alpha, beta, weights, panel, tile, pitch);
}

void zyn_gemm_micro_8x8(int64_t k, float alpha, float beta, const float* weights,
                        const float* panel, float* tile, int64_t pitch) {
  packed_tile<8, 1>(k, alpha, beta, weights, panel, tile, pitch);
}

void zyn_gemm_rows_by_panel(int64_t rows, int64_t k, float alpha, float beta, const float* a,
                            int64_t lda, const float* panel, int64_t panel_pitch, int64_t width,
                            int64_t columns, float* tile, int64_t pitch, const float* next,
                            int64_t next_pitch) {
  const scaled_tile t = {k,           alpha, beta,  a,       lda,  panel,
                         panel_pitch, tile,  pitch, columns, next, next_pitch};
  int64_t row = 0;
#if ZYN_VECTOR_BITS == 512
  if (width == ZYN_GEMM_PANEL) {
    row = panel_rows<8, 3, 16>(t, row, rows);
    row = panel_rows<4, 3, 16>(t, row, rows);
    panel_rows<1, 3, 16>(t, row, rows);
    return;
  }
#endif
  if (width == 24) {
    row = panel_rows<4, 3>(t, row, rows);
    row = panel_rows<2, 3>(t, row, rows);
    panel_rows<1, 3>(t, row, rows);
  } else if (width == 16) {
    row = panel_rows<6, 2>(t, row, rows);
    row = panel_rows<2, 2>(t, row, rows);
    panel_rows<1, 2>(t, row, rows);
  } else {
    row = panel_rows<8, 1>(t, row, rows);
    row = panel_rows<4, 1>(t, row, rows);
    panel_rows<1, 1>(t, row, rows);
  }
}

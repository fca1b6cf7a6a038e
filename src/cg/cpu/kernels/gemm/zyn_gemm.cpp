// The macro-kernel over packed operands, and the general multiply. That one cuts M and K
// into blocks of 512 (a block of A fits the second cache level) and N into panels of 24
// columns, which are packed when they are used; A is read as it lies, up to 4 rows at a
// time: a broadcast does not ask for neighbours.
#include <immintrin.h>
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"

namespace {

constexpr int64_t kBlockExtent = 512;  // of M, N and K
constexpr int64_t kRowBlock = 8;       // of a product by a vector
constexpr int64_t kMostTileFloats = 6 * 16;

int64_t smaller(int64_t a, int64_t b) { return a < b ? a : b; }

// Adds the valid part of a finished tile to the output, as a micro-kernel would.
void merge_tile(const float* tile, int64_t tile_pitch, int64_t rows, int64_t columns, float beta,
                float* output, int64_t pitch) {
  for (int64_t r = 0; r < rows; r++)
    for (int64_t c = 0; c < columns; c++) {
      float* to = output + r * pitch + c;
      const float y = tile[r * tile_pitch + c];
      *to = beta != 0 ? __builtin_fmaf(beta, *to, y) : y;
    }
}

// A product of at most 512 rows and terms, and room for the columns of one tile.
struct block_product {
  int64_t rows, columns, terms;
  float alpha, beta;
  const float* a;
  int64_t lda;
  const float* b;
  int64_t ldb;
  float* c;
  int64_t ldc;
  float* panel;
};

void multiply_block(const block_product& p) {
  for (int64_t column = 0; column < p.columns; column += ZYN_GEMM_WIDE) {
    const int64_t here = smaller(ZYN_GEMM_WIDE, p.columns - column);
    const int64_t width = (here + 7) / 8 * 8;
    zyn_gemm_pack_panels(p.terms, here, width, p.b + column, p.ldb, p.panel);
    zyn_gemm_rows_by_panel(p.rows, p.terms, p.alpha, p.beta, p.a, p.lda, p.panel, width, here,
                           p.c + column, p.ldc);
  }
}

// kBlocks blocks of 8 rows by a vector of at most kBlockExtent terms.
template <int kBlocks>
void multiply_rows(const float* packed, int64_t block_stride, int64_t terms, const float* x,
                   float* y, bool add) {
  __m256 sums[kBlocks];
  _Pragma("GCC unroll 8") for (int b = 0; b < kBlocks; b++) sums[b] = _mm256_setzero_ps();
  for (int64_t i = 0; i < terms; i++, packed += kRowBlock) {
    const __m256 value = _mm256_broadcast_ss(x + i);
    _Pragma("GCC unroll 8") for (int b = 0; b < kBlocks; b++) sums[b] =
        _mm256_fmadd_ps(_mm256_loadu_ps(packed + b * block_stride), value, sums[b]);
  }
  _Pragma("GCC unroll 8") for (int b = 0; b < kBlocks; b++) {
    float* to = y + b * kRowBlock;
    _mm256_storeu_ps(to, add ? _mm256_add_ps(sums[b], _mm256_loadu_ps(to)) : sums[b]);
  }
}

}  // namespace

void zyn_gemm_by_vector(int64_t rows, int64_t k, const float* packed, const float* x, float* y) {
  const int64_t block_stride = k * kRowBlock;
  alignas(32) float sums[8 * kRowBlock];
  for (int64_t row = 0, count = 0; row < rows; row += count) {
    const int64_t blocks = (rows - row + kRowBlock - 1) / kRowBlock;
    const auto multiply = blocks >= 8   ? multiply_rows<8>
                          : blocks >= 4 ? multiply_rows<4>
                          : blocks >= 2 ? multiply_rows<2>
                                        : multiply_rows<1>;
    count = smaller(rows - row, kRowBlock * (blocks >= 8   ? 8
                                             : blocks >= 4 ? 4
                                                           : smaller(blocks, 2)));
    for (int64_t term = 0; term < k; term += kBlockExtent)
      multiply(packed + row * k + term * kRowBlock, block_stride, smaller(kBlockExtent, k - term),
               x + term, sums, term > 0);
    memcpy(y + row, sums, static_cast<size_t>(count) * sizeof(float));
  }
}

void zyn_gemm_macro(int64_t rows, int64_t columns, int64_t k, float alpha, float beta,
                    float* output, int64_t pitch, const float* weights, const float* panels,
                    int64_t row_block, int64_t panel_width, zyn_gemm_micro micro) {
  alignas(32) float tile[kMostTileFloats];
  for (int64_t column = 0; column < columns; column += panel_width) {
    for (int64_t row = 0; row < rows; row += row_block) {
      float* to = output + row * pitch + column;
      const bool whole = rows - row >= row_block && columns - column >= panel_width;
      micro(k, alpha, whole ? beta : 0.0f, weights + row * k, panels + column * k,
            whole ? to : tile, whole ? pitch : panel_width);
      if (!whole)
        merge_tile(tile, panel_width, smaller(row_block, rows - row),
                   smaller(panel_width, columns - column), beta, to, pitch);
    }
  }
}

uint32_t zyn_cg_sgemm(int32_t m, int32_t n, int32_t k, float alpha, float beta, const float* a,
                      int64_t lda, const float* b, int64_t ldb, float* c, int64_t ldc) {
  if (!a || !b || !c || m < 1 || n < 1 || k < 1 || lda < k || ldb < n || ldc < n) return 1;
  // Small: memory of a megabyte and more comes from the system in fresh pages at every call.
  zyn_scratch<float> panel(ZYN_GEMM_WIDE * smaller(k, kBlockExtent));
  if (!panel) return 2;
  for (int64_t row = 0; row < m; row += kBlockExtent)
    for (int64_t term = 0; term < k; term += kBlockExtent)
      multiply_block({smaller(kBlockExtent, m - row), n, smaller(kBlockExtent, k - term), alpha,
                      term == 0 ? beta : 1.0f, a + row * lda + term, lda, b + term * ldb, ldb,
                      c + row * ldc, ldc, panel.get()});
  return 0;
}

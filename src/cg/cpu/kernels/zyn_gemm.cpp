// The macro-kernel over packed operands and the general multiply, which cuts its three
// extents into blocks of 512 so that a packed block of A and one of B fit the second
// cache level.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_gemm_pack.h"

namespace {

constexpr int64_t kBlockExtent = 512;  // of M, N and K
constexpr int64_t kRowBlock = 8, kPanelWidth = 8;
constexpr int64_t kMostTileFloats = 8 * 24;

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

}  // namespace

void zyn_gemm_macro(int64_t rows, int64_t columns, int64_t k, float alpha, float beta,
                    float* output, int64_t pitch, const float* weights, const float* panels,
                    int64_t row_block, int64_t panel_width, zyn_gemm_micro micro) {
  alignas(32) float tile[kMostTileFloats];
  // Three panels of the general multiply go through one tile of 4 x 24.
  const bool wide = row_block == kRowBlock && panel_width == kPanelWidth;
  for (int64_t column = 0; column < columns;) {
    const bool three = wide && columns - column >= 3 * panel_width;
    const int64_t width = three ? 3 * panel_width : panel_width;
    const float* panel = panels + column * k;
    for (int64_t row = 0; row < rows; row += row_block) {
      const float* block = weights + row * k;
      float* to = output + row * pitch + column;
      const bool whole = rows - row >= row_block && columns - column >= width;
      float* target = whole ? to : tile;
      const int64_t target_pitch = whole ? pitch : width;
      const float target_beta = whole ? beta : 0.0f;
      if (three) {
        for (int64_t half = 0; half < 8; half += 4)
          zyn_gemm_micro_4x24_of_8(k, alpha, target_beta, block + half, panel, panel_width * k,
                                   target + half * target_pitch, target_pitch);
      } else {
        micro(k, alpha, target_beta, block, panel, target, target_pitch);
      }
      if (!whole)
        merge_tile(tile, width, smaller(row_block, rows - row), smaller(width, columns - column),
                   beta, to, pitch);
    }
    column += width;
  }
}

uint32_t zyn_cg_sgemm(int32_t m, int32_t n, int32_t k, float alpha, float beta, const float* a,
                      int64_t lda, const float* b, int64_t ldb, float* c, int64_t ldc) {
  if (!a || !b || !c || m < 1 || n < 1 || k < 1 || lda < k || ldb < n || ldc < n) return 1;
  zyn_scratch<float> weights(kBlockExtent * kBlockExtent);
  zyn_scratch<float> panels(kBlockExtent * kBlockExtent);
  if (!weights || !panels) return 2;
  for (int64_t row = 0; row < m; row += kBlockExtent) {
    const int64_t rows = smaller(kBlockExtent, m - row);
    for (int64_t term = 0; term < k; term += kBlockExtent) {
      const int64_t terms = smaller(kBlockExtent, k - term);
      zyn_gemm_pack_weights(rows, terms, kRowBlock, a + row * lda + term, lda, weights.get());
      for (int64_t column = 0; column < n; column += kBlockExtent) {
        const int64_t columns = smaller(kBlockExtent, n - column);
        zyn_gemm_pack_panels(terms, columns, kPanelWidth, b + term * ldb + column, ldb,
                             panels.get());
        zyn_gemm_macro(rows, columns, terms, alpha, term == 0 ? beta : 1.0f, c + row * ldc + column,
                       ldc, weights.get(), panels.get(), kRowBlock, kPanelWidth,
                       zyn_gemm_micro_8x8);
      }
    }
  }
  return 0;
}

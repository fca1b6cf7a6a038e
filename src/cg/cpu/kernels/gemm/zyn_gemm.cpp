// Matrix products: which file computes what.
//   rows of B read in place (convolutions)  zyn_gemm_walk.cpp picks tiles, zyn_gemm_tiles.cpp
//                                           computes them
//   any product (zyn_cg_sgemm)              here: cut into blocks of 512 rows and 512 terms (a
//                                           block of A fits the second cache level) and panels
//                                           of 24 columns (48 of 512-bit vectors), packed when
//                                           they are used; A is read as it lies: a broadcast
//                                           does not ask for neighbours
//   a product by a vector, packed operands  zyn_gemm_micro.cpp
#include "base/zyn_integers.h"
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_tiles.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"

namespace {

constexpr int64_t kMostTileFloats = 6 * 16;
// Products of so few rows read whole panels where they lie: they do not earn a copy back.
constexpr int64_t kRowsInPlace = 8;
constexpr int64_t kPageFloats = 1024;

// A product of at most 512 rows and terms.
void multiply_block(const zyn_gemm_operands& p, float* panel) {
  for (int64_t column = 0, here = 0; column < p.n; column += here) {
    const int64_t left = p.n - column;
    here = left >= ZYN_GEMM_PANEL ? int64_t{ZYN_GEMM_PANEL} : zyn_smaller(left, ZYN_GEMM_WIDE);
    const int64_t width = zyn_round_up(here, 8);
    const bool copies = p.m > kRowsInPlace || here < width;
    if (copies) zyn_gemm_pack_panels(p.k, here, width, p.b + column, p.ldb, panel);
    zyn_gemm_rows_by_panel(p.m, p.k, p.alpha, p.beta, p.a, p.lda, copies ? panel : p.b + column,
                           copies ? width : p.ldb, width, here, p.c + column, p.ldc,
                           left > here ? p.b + column + here : nullptr, p.ldb);
  }
}

}  // namespace

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
        zyn_gemm_merge(tile, panel_width, zyn_smaller(row_block, rows - row),
                       zyn_smaller(panel_width, columns - column), beta, to, pitch);
    }
  }
}

void zyn_gemm_general(const zyn_gemm_operands& p, float* panel) {
  // Parts of rows that lie whole pages apart share half of the second cache level's sets.
  const int64_t rows = p.lda % kPageFloats == 0 ? ZYN_GEMM_RUN / 2 : ZYN_GEMM_RUN;
  for (int64_t row = 0; row < p.m; row += rows)
    for (int64_t term = 0; term < p.k; term += ZYN_GEMM_RUN)
      multiply_block({zyn_smaller(rows, p.m - row), p.n, zyn_smaller(ZYN_GEMM_RUN, p.k - term),
                      p.alpha, term == 0 ? p.beta : 1.0f, p.a + row * p.lda + term, p.lda,
                      p.b + term * p.ldb, p.ldb, p.c + row * p.ldc, p.ldc},
                     panel);
}

uint32_t zyn_cg_sgemm(int32_t m, int32_t n, int32_t k, float alpha, float beta, const float* a,
                      int64_t lda, const float* b, int64_t ldb, float* c, int64_t ldc) {
  if (!a || !b || !c || m < 1 || n < 1 || k < 1 || lda < k || ldb < n || ldc < n) return 1;
  // Small: memory of a megabyte and more comes from the system in fresh pages at every call.
  zyn_scratch<float> panel(zyn_gemm_panel_floats(k));
  if (!panel) return 2;
  zyn_gemm_general({m, n, k, alpha, beta, a, lda, b, ldb, c, ldc}, panel.get());
  return 0;
}

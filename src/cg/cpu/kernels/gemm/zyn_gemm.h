// Products of matrices, C = A x B. Every output element is one sum that starts at 0 and
// takes its K terms in ascending order, each by a fused multiply-add (the general multiply
// and the product by a vector in runs of 512 terms, which are then added), so that every
// tile, wherever it lies, gives the same bits for the same element.
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/zyn_conv_epilogue.h"

enum {
  ZYN_GEMM_RUN = 512,        // terms of one sum of the general multiply, rows of a block
  ZYN_GEMM_VECTOR_ROWS = 8,  // rows of a block of a product by a vector
  ZYN_GEMM_WIDE = 24,        // columns of the widest tile of 256-bit vectors
  ZYN_GEMM_PANEL = 3 * kZynVectorFloats  // columns of the widest tile
};

// tile = alpha * A x B + beta * tile for a whole tile of rows x columns: weights holds
// rows x K floats, k-major; panel columns x K floats, k-major; pitch is the distance of
// the tile's rows in floats. With beta 0 the tile is not read. For zyn_gemm_macro.
using zyn_gemm_micro = void (*)(int64_t k, float alpha, float beta, const float* weights,
                                const float* panel, float* tile, int64_t pitch);
void zyn_gemm_micro_6x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch);
void zyn_gemm_micro_4x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch);
void zyn_gemm_micro_8x8(int64_t k, float alpha, float beta, const float* weights,
                        const float* panel, float* tile, int64_t pitch);

// zyn_cg_sgemm on checked arguments. panel: room for zyn_gemm_panel_floats(k) floats.
inline int64_t zyn_gemm_panel_floats(int64_t k) {
  return ZYN_GEMM_PANEL * (k < ZYN_GEMM_RUN ? k : int64_t{ZYN_GEMM_RUN});
}
struct zyn_gemm_operands {
  int64_t m, n, k;
  float alpha, beta;
  const float* a;
  int64_t lda;
  const float* b;
  int64_t ldb;
  float* c;
  int64_t ldc;
};
void zyn_gemm_general(const zyn_gemm_operands& p, float* panel);

// y = A x as the general multiply sums it; packed holds A in blocks of
// ZYN_GEMM_VECTOR_ROWS rows, k-major.
void zyn_gemm_by_vector(int64_t rows, int64_t k, const float* packed, const float* x, float* y);

// y = A x for A in blocks of block (4 or 6) rows, k-major.
void zyn_gemm_blocks_by_vector(int64_t rows, int64_t k, const float* packed, int64_t block,
                               const float* x, float* y);

// Where the rows of B lie when they are read in place: row c * taps + t starts at
// channel c, tap t: base + c * channel_stride + offsets[t].
struct zyn_gemm_rows {
  const float* base;
  int64_t channel_stride;
  int64_t channels;
  int64_t taps;            // 1: offsets is not read
  const int64_t* offsets;  // one per tap
  // Scratch for ZYN_GEMM_PANEL columns of B, or null. With it the first rows of the output
  // copy the columns that they read into an aligned panel, and the other rows read that.
  float* panel;
};

// Output of a product by rows read in place.
struct zyn_gemm_output {
  float* data;
  int64_t pitch;  // floats from one output row to the next
  int64_t rows;   // output channels
  zyn_conv_epilogue epilogue;
};

// output = packed x B over columns columns. packed holds blocks of block (4 or 6) rows,
// k-major. Of every row of B at least 8 columns must be readable.
void zyn_gemm_in_place(const zyn_gemm_rows& b, int64_t columns, const float* packed, int64_t block,
                       const zyn_gemm_output& output);

// The same for columns that do not lie side by side: count vectors of lanes (8, or
// kZynVectorFloats) columns, each with its place in the rows of B (floats from base on) and in
// the output's rows.
struct zyn_gemm_vector {
  int64_t from, to;
};
void zyn_gemm_scattered(const zyn_gemm_rows& b, const zyn_gemm_vector* vectors, int64_t count,
                        int64_t lanes, const float* packed, int64_t block,
                        const zyn_gemm_output& output);

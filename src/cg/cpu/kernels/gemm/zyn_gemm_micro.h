// Micro-kernels: one register tile of a product C = A x B. Every output element is
// one accumulator that starts at 0 and takes its K terms in ascending order, each by
// a fused multiply-add, so that every kernel here, whatever its tile, gives the same
// bits for the same element.
#pragma once

#include <stdint.h>

// What happens to a finished sum, in the order of the separate passes: the bias is
// added, then the activation is applied.
struct zyn_conv_epilogue {
  const float* bias;   // one per output channel, or null
  int32_t activation;  // ZYN_EPILOGUE_*
};
enum {
  ZYN_EPILOGUE_NONE = 0,
  ZYN_EPILOGUE_RELU = 1,
  ZYN_EPILOGUE_HARD_SWISH = 2,
  ZYN_EPILOGUE_HARD_SIGMOID = 4
};

// tile = alpha * A x B + beta * tile for a whole tile of rows x columns: weights holds
// rows x K floats, k-major; panel columns x K floats, k-major; pitch is the distance of
// the tile's rows in floats. With beta 0 the tile is not read.
using zyn_gemm_micro = void (*)(int64_t k, float alpha, float beta, const float* weights,
                                const float* panel, float* tile, int64_t pitch);
void zyn_gemm_micro_6x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch);
void zyn_gemm_micro_4x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch);
void zyn_gemm_micro_8x8(int64_t k, float alpha, float beta, const float* weights,
                        const float* panel, float* tile, int64_t pitch);

// tile = alpha * A x panel + beta * tile for rows of A as they lie, lda floats apart, and a
// panel of width 8, 16 or 24 columns, of which columns are written.
void zyn_gemm_rows_by_panel(int64_t rows, int64_t k, float alpha, float beta, const float* a,
                            int64_t lda, const float* panel, int64_t width, int64_t columns,
                            float* tile, int64_t pitch);

// y = A x as the general multiply sums it; packed holds A in blocks of 8 rows, k-major.
void zyn_gemm_by_vector(int64_t rows, int64_t k, const float* packed, const float* x, float* y);

// Where the rows of B lie when they are read in place: row c * taps + t starts at
// channel c, tap t: base + c * channel_stride + offsets[t].
struct zyn_gemm_rows {
  const float* base;
  int64_t channel_stride;
  int64_t channels;
  int64_t taps;            // 1: offsets is not read
  const int64_t* offsets;  // one per tap
  // Scratch for ZYN_GEMM_WIDE columns of B, or null. With it the first rows of the output
  // copy the columns that they read into an aligned panel, and the other rows read that.
  float* panel;
};
enum { ZYN_GEMM_WIDE = 24 };  // columns of the widest tile

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

// The same for columns that do not lie side by side: count vectors of 8 columns, each
// with its place in the rows of B (floats from base on) and in the output's rows.
struct zyn_gemm_vector {
  int64_t from, to;
};
void zyn_gemm_scattered(const zyn_gemm_rows& b, const zyn_gemm_vector* vectors, int64_t count,
                        const float* packed, int64_t block, const zyn_gemm_output& output);

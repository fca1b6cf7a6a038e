// Inside the family: register tiles as the walks call them.
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/gemm/zyn_gemm.h"

// A run of tiles of a product by rows read in place. The vectors of a tile may lie
// anywhere: columns of one row or of several.
struct zyn_gemm_tile_job {
  const float* x;  // first row of B, first vector of the first tile
  int64_t channel_stride, channels, taps;
  const int64_t* offsets;
  const float* weights;  // of the tile's first weight block, from the first term on
  int64_t block_stride;  // from one weight block of a tile to the next
  float* out;
  int64_t pitch;
  int64_t rows;     // of the tile's rows those that exist
  int64_t columns;  // of a narrow tile of 8: those that are stored
  int64_t at[3];    // where in B the tile's vectors lie, from x on
  int64_t to[3];    // and where in the output
  const float* bias;
  int32_t activation;
  bool resume;    // the sums so far stand in the output
  float* copy;    // copying tiles: the panel to fill
  int64_t count;  // tiles in the run, and what lies between one and the next
  int64_t next_x, next_weights, next_out, next_rows;
  // Rows of B under the columns that come next, or null: each tile asks the cache for
  // ahead_rows of them, channel_stride of the input apart.
  const float* ahead;
  int64_t ahead_rows, ahead_stride;
};

// The tiles for one block size: wide ones for the bulk of the columns, tiles of one vector
// that take 1, 2 or 3 blocks at once for the columns that remain, and wide ones that end
// with half a vector.
using zyn_gemm_tile_function = void (*)(const zyn_gemm_tile_job& job);
struct zyn_gemm_tile_set {
  int64_t block, lanes, wide_columns, most_blocks;
  zyn_gemm_tile_function wide[2][2];    // by whether B has taps, whether the tile copies
  zyn_gemm_tile_function narrow[2][3];  // by whether B has taps, number of blocks - 1
  zyn_gemm_tile_function half[2];       // rows of B without taps; by whether the tile copies
};
extern const zyn_gemm_tile_set zyn_gemm_tiles_4, zyn_gemm_tiles_6;
// Of vectors of 16 columns, where the library is built for them; their narrow
// tiles store all.
extern const zyn_gemm_tile_set zyn_gemm_wide_tiles_4, zyn_gemm_wide_tiles_6;
enum { ZYN_GEMM_HALF = 20 };  // columns of a tile of two vectors and a half

// The last rows of an output, 1 to 3 of a weight block of 4: in tiles of more vectors than
// whole blocks have, so that no sums are made for rows that do not exist. count vectors of lanes
// columns, anywhere, or side by side where B has no taps.
struct zyn_gemm_slim_job {
  const zyn_gemm_rows& b;
  const float* weights;  // of the block
  float* out;            // the first of the rows
  int64_t pitch;
  const float* bias;
  int32_t activation;
  float* sums;        // vector by vector, of the channels that came before and of those so far
  bool resume, last;  // whether channels came before, whether others follow
};
void zyn_gemm_slim_tiles(const zyn_gemm_slim_job& job, int64_t rows, int64_t lanes,
                         const zyn_gemm_vector* vectors, int64_t count);

// tile = alpha * A x panel + beta * tile for rows of A as they lie, lda floats apart, and a
// panel of width 8, 16, 24 or ZYN_GEMM_PANEL columns, whose terms lie panel_pitch floats apart and
// of which columns are written. next: the panel that comes after it as it lies in B, its terms
// next_pitch floats apart, which is asked for on the way; or null.
void zyn_gemm_rows_by_panel(int64_t rows, int64_t k, float alpha, float beta, const float* a,
                            int64_t lda, const float* panel, int64_t panel_pitch, int64_t width,
                            int64_t columns, float* tile, int64_t pitch, const float* next,
                            int64_t next_pitch);

// Adds the valid part of a finished tile to the output, as a micro-kernel would.
void zyn_gemm_merge(const float* tile, int64_t tile_pitch, int64_t rows, int64_t columns,
                    float beta, float* output, int64_t pitch);

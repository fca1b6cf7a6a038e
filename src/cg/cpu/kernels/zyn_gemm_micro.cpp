// Register tiles of the matrix product and the walk over an output whose B is read in
// place. A tile of kBlocks weight blocks of kBlock rows by kVectors vectors of 8 columns
// holds rows x vectors accumulators; two multipliers with 4 cycles of latency want at
// least 8 of them, 12 with loads between. 16 registers hold 12 accumulators, the columns
// of B and one broadcast weight.
//
// Every loop over accumulators is fully unrolled, or the compiler keeps the array on the
// stack.
#include "cg/cpu/kernels/zyn_gemm_micro.h"

#include <immintrin.h>

#include "cg/cpu/kernels/zyn_conv_epilogue.h"

namespace {

#define ZYN_UNROLL _Pragma("GCC unroll 16")

// One term of every element of a tile: rows kRows (weight of row r at row(r)), columns
// from x on, vectors vector_stride floats apart.
template <int kRows, int kVectors, typename Weight>
[[gnu::always_inline]] inline void multiply_add(__m256 (&sums)[kRows][kVectors], const float* x,
                                                int64_t vector_stride, const Weight& weight) {
  __m256 columns[kVectors];
  ZYN_UNROLL for (int v = 0; v < kVectors; v++) columns[v] = _mm256_loadu_ps(x + v * vector_stride);
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    const __m256 w = _mm256_broadcast_ss(weight(r));
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) sums[r][v] =
        _mm256_fmadd_ps(w, columns[v], sums[r][v]);
  }
}

template <int kRows, int kVectors>
[[gnu::always_inline]] inline void clear(__m256 (&sums)[kRows][kVectors]) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) sums[r][v] = _mm256_setzero_ps();
  }
}

template <int kRows, int kVectors>
[[gnu::always_inline]] inline void store_scaled(const __m256 (&sums)[kRows][kVectors], float alpha,
                                                float beta, float* tile, int64_t pitch) {
  const __m256 a = _mm256_set1_ps(alpha), b = _mm256_set1_ps(beta);
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      float* to = tile + r * pitch + 8 * v;
      __m256 y = _mm256_mul_ps(a, sums[r][v]);
      if (beta != 0) y = _mm256_fmadd_ps(b, _mm256_loadu_ps(to), y);
      _mm256_storeu_ps(to, y);
    }
  }
}

// A tile of packed weights (kBlock rows, of which kRows are used) and packed panels.
template <int kBlock, int kRows, int kWidth, int kVectors>
[[gnu::always_inline]] inline void packed_tile(int64_t k, float alpha, float beta,
                                               const float* weights, const float* panel,
                                               int64_t vector_stride, float* tile, int64_t pitch) {
  __m256 sums[kRows][kVectors];
  clear(sums);
  _Pragma("GCC unroll 4") for (int64_t i = 0; i < k; i++) {
    multiply_add(sums, panel, vector_stride, [weights](int r) { return weights + r; });
    weights += kBlock;
    panel += kWidth;
  }
  store_scaled(sums, alpha, beta, tile, pitch);
}

// The part of an output that a tile writes.
struct tile_output {
  float* data;
  int64_t pitch;
  int64_t rows;     // of the tile's rows those that exist
  int64_t columns;  // of the last vector; below 8 only in outputs narrower than that
  const float* bias;
};

template <int kActivation, int kRows, int kVectors>
[[gnu::always_inline]] inline void finish(const __m256 (&sums)[kRows][kVectors],
                                          const tile_output& out) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    if (r >= out.rows) return;
    const __m256 bias = out.bias ? _mm256_broadcast_ss(out.bias + r) : _mm256_setzero_ps();
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      const __m256 sum = out.bias ? _mm256_add_ps(sums[r][v], bias) : sums[r][v];
      const __m256 y = zyn_activate<kActivation>(sum);
      float* to = out.data + r * out.pitch + 8 * v;
      if (kVectors == 1 && out.columns < 8)
        _mm256_maskstore_ps(to, zyn_first_lanes(out.columns), y);
      else
        _mm256_storeu_ps(to, y);
    }
  }
}

using tile_function = void (*)(const zyn_gemm_rows& b, int64_t column, const float* weights,
                               int32_t activation, const tile_output& out);

// kBlocks weight blocks of kBlock rows by 8 * kVectors columns of a B read in place.
template <int kBlock, int kBlocks, int kVectors, bool kTaps>
void tile(const zyn_gemm_rows& b, int64_t column, const float* weights, int32_t activation,
          const tile_output& out) {
  constexpr int kRows = kBlock * kBlocks;
  const int64_t block_stride = b.channels * b.taps * kBlock;
  __m256 sums[kRows][kVectors];
  clear(sums);
  const float* x = b.base + column;
  const int64_t channel_stride = b.channel_stride;
  auto weight = [&weights, block_stride](int r) {
    return weights + r / kBlock * block_stride + r % kBlock;
  };
  if (kTaps) {
    const int64_t* offsets = b.offsets;
    const int64_t* end = offsets + b.taps;
    for (int64_t c = b.channels; c > 0; c--) {
      for (const int64_t* offset = offsets; offset < end; offset++) {
        multiply_add(sums, x + *offset, 8, weight);
        weights += kBlock;
      }
      x += channel_stride;
    }
  } else {
    _Pragma("GCC unroll 4") for (int64_t c = b.channels; c > 0; c--) {
      multiply_add(sums, x, 8, weight);
      weights += kBlock;
      x += channel_stride;
    }
  }
  switch (activation) {
    case ZYN_EPILOGUE_RELU:
      return finish<ZYN_EPILOGUE_RELU>(sums, out);
    case ZYN_EPILOGUE_HARD_SWISH:
      return finish<ZYN_EPILOGUE_HARD_SWISH>(sums, out);
    case ZYN_EPILOGUE_HARD_SIGMOID:
      return finish<ZYN_EPILOGUE_HARD_SIGMOID>(sums, out);
    default:
      return finish<ZYN_EPILOGUE_NONE>(sums, out);
  }
}

// The tiles for one block size: a wide one for the bulk of the columns, and tiles of one
// vector that take 1, 2 or 3 blocks at once for the columns that remain.
struct tile_set {
  int64_t block, wide_columns, most_blocks;
  tile_function wide[2];       // by whether B has taps
  tile_function narrow[2][3];  // by number of blocks - 1
};
constexpr tile_set kTiles4 = {4,
                              24,
                              3,
                              {tile<4, 1, 3, false>, tile<4, 1, 3, true>},
                              {{tile<4, 1, 1, false>, tile<4, 2, 1, false>, tile<4, 3, 1, false>},
                               {tile<4, 1, 1, true>, tile<4, 2, 1, true>, tile<4, 3, 1, true>}}};
constexpr tile_set kTiles6 = {6,
                              16,
                              2,
                              {tile<6, 1, 2, false>, tile<6, 1, 2, true>},
                              {{tile<6, 1, 1, false>, tile<6, 2, 1, false>, nullptr},
                               {tile<6, 1, 1, true>, tile<6, 2, 1, true>, nullptr}}};

int64_t smaller(int64_t a, int64_t b) { return a < b ? a : b; }

// Everything that a walk over an output needs to call a tile.
struct walk {
  const zyn_gemm_rows& b;
  const tile_set& tiles;
  const float* packed;
  const zyn_gemm_output& output;

  void call(tile_function function, int64_t block, int64_t column, int64_t columns) const {
    const int64_t row = block * tiles.block;
    const zyn_conv_epilogue& e = output.epilogue;
    function(b, column, packed + row * b.channels * b.taps, e.activation,
             {output.data + row * output.pitch + column, output.pitch, output.rows - row, columns,
              e.bias ? e.bias + row : nullptr});
  }

  // One vector of columns, all blocks: as many at once as there are registers, but no
  // single block left over at the end if two pairs do.
  void narrow(int64_t column, int64_t columns) const {
    const int64_t blocks = (output.rows + tiles.block - 1) / tiles.block;
    for (int64_t block = 0; block < blocks;) {
      const int64_t left = blocks - block;
      const int64_t count =
          left == 4 && tiles.most_blocks == 3 ? 2 : smaller(left, tiles.most_blocks);
      call(tiles.narrow[b.taps > 1][count - 1], block, column, columns);
      block += count;
    }
  }

  // Whole wide tiles from first to last, block by block.
  void wide(int64_t first, int64_t last) const {
    for (int64_t block = 0; block * tiles.block < output.rows; block++)
      for (int64_t column = first; column < last; column += tiles.wide_columns)
        call(tiles.wide[b.taps > 1], block, column, 8);
  }
};

// Bytes of B that a group of columns may keep in the first-level cache (48 KB, of which
// the weights and the output need their share).
constexpr int64_t kGroupBytes = 24 * 1024;

}  // namespace

void zyn_gemm_in_place(const zyn_gemm_rows& b, int64_t columns, const float* packed, int64_t block,
                       const zyn_gemm_output& output) {
  const tile_set& tiles = block == 6 ? kTiles6 : kTiles4;
  const walk w = {b, tiles, packed, output};
  const int64_t width = tiles.wide_columns;
  const int64_t whole = columns / width * width;
  const int64_t fitting = kGroupBytes / 4 / b.column_floats / width * width;
  const int64_t group = fitting < width ? width : fitting;
  for (int64_t first = 0; first < whole; first += group)
    w.wide(first, smaller(first + group, whole));
  const int64_t rest = columns - whole;
  if (rest == 0) return;
  // The remaining columns are taken in tiles that end with the last column; what overlaps
  // is computed twice, to the same bits.
  const bool one_block = output.rows <= block;
  if (columns >= width && (rest > 16 || (one_block && rest > 8)))
    return w.wide(columns - width, columns);
  for (int64_t column = whole; column < columns; column += 8) {
    const int64_t start = columns < 8 ? 0 : smaller(column, columns - 8);
    w.narrow(start, smaller(columns, 8));
  }
}

void zyn_gemm_micro_6x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch) {
  packed_tile<6, 6, 16, 2>(k, alpha, beta, weights, panel, 8, tile, pitch);
}

void zyn_gemm_micro_4x16(int64_t k, float alpha, float beta, const float* weights,
                         const float* panel, float* tile, int64_t pitch) {
  packed_tile<4, 4, 16, 2>(k, alpha, beta, weights, panel, 8, tile, pitch);
}

void zyn_gemm_micro_8x8(int64_t k, float alpha, float beta, const float* weights,
                        const float* panel, float* tile, int64_t pitch) {
  packed_tile<8, 8, 8, 1>(k, alpha, beta, weights, panel, 0, tile, pitch);
}

void zyn_gemm_micro_4x24_of_8(int64_t k, float alpha, float beta, const float* weights,
                              const float* panel, int64_t panel_stride, float* tile,
                              int64_t pitch) {
  packed_tile<8, 4, 8, 3>(k, alpha, beta, weights, panel, panel_stride, tile, pitch);
}

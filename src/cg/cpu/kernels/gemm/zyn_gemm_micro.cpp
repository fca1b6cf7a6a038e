// Register tiles of the matrix product and the walk over an output whose B is read in
// place. A tile of kBlocks weight blocks of kBlock rows by kVectors vectors of 8 columns
// holds rows x vectors accumulators; two multipliers with 4 cycles of latency want at
// least 8 of them, 12 with loads between. 16 registers hold 12 accumulators, the columns
// of B and one broadcast weight.
//
// Every loop over accumulators is fully unrolled, or the compiler keeps the array on the
// stack.
#include "cg/cpu/kernels/gemm/zyn_gemm_micro.h"

#include <immintrin.h>

#include "cg/cpu/kernels/zyn_conv_epilogue.h"

namespace {

// One term of every element of a tile of kRows x 8 * kVectors: the weight of row r stands
// at weight(r), the values of vector v at column(v), from where they also go to copy.
template <bool kCopy, int kRows, int kVectors, typename Weight, typename Column>
[[gnu::always_inline]] inline void multiply_add(__m256 (&sums)[kRows][kVectors],
                                                const Weight& weight, const Column& column,
                                                float* copy) {
  __m256 columns[kVectors];
  ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
    columns[v] = _mm256_loadu_ps(column(v));
    if (kCopy) _mm256_store_ps(copy + 8 * v, columns[v]);
  }
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

// A tile of packed weights and one packed panel.
template <int kRows, int kVectors>
[[gnu::always_inline]] inline void packed_tile(int64_t k, float alpha, float beta,
                                               const float* weights, const float* panel,
                                               float* tile, int64_t pitch) {
  __m256 sums[kRows][kVectors];
  clear(sums);
  _Pragma("GCC unroll 4") for (int64_t i = 0; i < k; i++) {
    multiply_add<false>(
        sums, [weights](int r) { return weights + r; }, [panel](int v) { return panel + 8 * v; },
        nullptr);
    weights += kRows;
    panel += 8 * kVectors;
  }
  store_scaled(sums, alpha, beta, tile, pitch);
}

// A product of rows of A as they lie by one packed panel.
struct scaled_tile {
  int64_t k;
  float alpha, beta;
  const float* a;
  int64_t lda;
  const float* panel;
  float* tile;
  int64_t pitch, columns;
};

template <int kRows, int kVectors>
void rows_tile(const scaled_tile& t, int64_t row) {
  const float* a = t.a + row * t.lda;
  const int64_t lda = t.lda;
  const float* panel = t.panel;
  __m256 sums[kRows][kVectors];
  clear(sums);
  _Pragma("GCC unroll 4") for (int64_t i = 0; i < t.k; i++) {
    multiply_add<false>(
        sums, [a, lda](int r) { return a + r * lda; }, [panel](int v) { return panel + 8 * v; },
        nullptr);
    a++;
    panel += 8 * kVectors;
  }
  float* tile = t.tile + row * t.pitch;
  if (t.columns == 8 * kVectors) return store_scaled(sums, t.alpha, t.beta, tile, t.pitch);
  alignas(32) float whole[kRows * kVectors * 8];
  store_scaled(sums, t.alpha, 0.0f, whole, 8 * kVectors);
  for (int64_t r = 0; r < kRows; r++)
    for (int64_t c = 0; c < t.columns; c++) {
      float* to = tile + r * t.pitch + c;
      const float y = whole[r * kVectors * 8 + c];
      *to = t.beta != 0 ? __builtin_fmaf(t.beta, *to, y) : y;
    }
}

template <int kRows, int kVectors>
int64_t panel_rows(const scaled_tile& t, int64_t row, int64_t rows) {
  for (; row + kRows <= rows; row += kRows) rows_tile<kRows, kVectors>(t, row);
  return row;
}

// A run of tiles of a product by rows read in place. The vectors of a tile may lie
// anywhere: columns of one row or of several.
struct tile_job {
  const float* x;  // first row of B, first vector of the first tile
  int64_t channel_stride, channels, taps;
  const int64_t* offsets;
  const float* weights;  // of the tile's first weight block, from the first term on
  int64_t block_stride;  // from one weight block of a tile to the next
  float* out;
  int64_t pitch;
  int64_t rows;     // of the tile's rows those that exist
  int64_t columns;  // of a narrow tile: those that are stored
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

// Where a tile stands in the output, in registers: vector stores may alias what is not.
struct tile_place {
  float* out;
  int64_t pitch, rows, columns, to[3];
};

template <int kRows, int kVectors>
[[gnu::always_inline]] inline void resume(__m256 (&sums)[kRows][kVectors],
                                          const tile_place& place) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    if (r >= place.rows) return;
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) sums[r][v] =
        _mm256_loadu_ps(place.out + r * place.pitch + place.to[v]);
  }
}

// The sums of 4 rows by 4 columns, two rows to a vector, beside whole vectors of columns: a
// plane whose last vector would be half empty (14 x 14, 5 x 4) ends with such a tile.
struct half_vectors {
  static constexpr int kPanelFloats = 8;
  __m256 sums[2];

  void clear() { sums[0] = sums[1] = _mm256_setzero_ps(); }
  [[gnu::always_inline]] void multiply_add(const float* weights, const float* column, float* copy) {
    const __m128* four = reinterpret_cast<const __m128*>(column);
    const __m256 columns = _mm256_broadcast_ps(four);
    if (copy) _mm_store_ps(copy, _mm256_castps256_ps128(columns));
    const __m256 w = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(weights));
    const __m256i low = _mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1);
    const __m256i high = _mm256_setr_epi32(2, 2, 2, 2, 3, 3, 3, 3);
    sums[0] = _mm256_fmadd_ps(_mm256_permutevar_ps(w, low), columns, sums[0]);
    sums[1] = _mm256_fmadd_ps(_mm256_permutevar_ps(w, high), columns, sums[1]);
  }
  [[gnu::always_inline]] void resume(const tile_place& place) {
    alignas(32) float rows[4][4] = {};
    ZYN_UNROLL for (int r = 0; r < 4; r++) {
      if (r < place.rows)
        _mm_store_ps(rows[r], _mm_loadu_ps(place.out + r * place.pitch + place.to[2]));
    }
    sums[0] = _mm256_load_ps(rows[0]);
    sums[1] = _mm256_load_ps(rows[2]);
  }
  template <int kActivation>
  [[gnu::always_inline]] void finish(const tile_place& place, const float* biases) const {
    ZYN_UNROLL for (int r = 0; r < 4; r++) {
      if (r >= place.rows) return;
      __m256 y = sums[r / 2];
      if (biases) y = _mm256_add_ps(y, _mm256_broadcast_ss(biases + r));
      y = zyn_activate<kActivation>(y);
      _mm_storeu_ps(place.out + r * place.pitch + place.to[2],
                    r % 2 ? _mm256_extractf128_ps(y, 1) : _mm256_castps256_ps128(y));
    }
  }
};
struct no_half_vectors {
  static constexpr int kPanelFloats = 0;
  void clear() {}
  void multiply_add(const float*, const float*, float*) {}
  void resume(const tile_place&) {}
  template <int kActivation>
  void finish(const tile_place&, const float*) const {}
};

template <int kActivation, int kRows, int kVectors, typename Half>
[[gnu::always_inline]] inline void finish(const __m256 (&sums)[kRows][kVectors], const Half& half,
                                          const tile_place& place, const float* biases) {
  half.template finish<kActivation>(place, biases);
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    if (r >= place.rows) return;
    const __m256 bias = biases ? _mm256_broadcast_ss(biases + r) : _mm256_setzero_ps();
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      const __m256 sum = biases ? _mm256_add_ps(sums[r][v], bias) : sums[r][v];
      const __m256 y = zyn_activate<kActivation>(sum);
      float* to = place.out + r * place.pitch + place.to[v];
      if (kVectors == 1 && place.columns < 8)
        _mm256_maskstore_ps(to, zyn_first_lanes(place.columns), y);
      else
        _mm256_storeu_ps(to, y);
    }
  }
}

// Within a network a tile's output has left the caches since the last inference: it comes
// back while the tile is summed.
template <int kRows, int kVectors>
[[gnu::always_inline]] inline void ask_for_output(const tile_place& place) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    if (r >= place.rows) return;
    const float* row = place.out + r * place.pitch;
    _mm_prefetch(reinterpret_cast<const char*>(row), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(row + 8 * kVectors - 1), _MM_HINT_T0);
  }
}

// kBlocks weight blocks of kBlock rows by kVectors vectors of 8 columns, and by the half
// vector that follows them where Half is half_vectors.
template <int kBlock, int kBlocks, int kVectors, bool kTaps, bool kCopy,
          typename Half = no_half_vectors>
void tiles(const tile_job& job) {
  constexpr int kRows = kBlock * kBlocks;
  constexpr bool kNarrow = kVectors == 1;
  const int64_t block_stride = job.block_stride, channel_stride = job.channel_stride;
  const int64_t at[3] = {0, kNarrow ? 0 : job.at[1], kNarrow ? 0 : job.at[2]};
  const int32_t activation = job.activation;
  const float* start = job.x;
  const float* first_weights = job.weights;
  const float* biases = job.bias;
  const float* ahead = job.ahead;
  tile_place place = {job.out, job.pitch, job.rows, job.columns, {0, job.to[1], job.to[2]}};
  float* copy = job.copy;
  for (int64_t n = job.count; n > 0; n--) {
    if (!kNarrow && ahead) {
      for (int64_t i = job.ahead_rows; i > 0; i--, ahead += job.ahead_stride) {
        _mm_prefetch(reinterpret_cast<const char*>(ahead), _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(ahead + 8 * kVectors - 1), _MM_HINT_T0);
      }
    }
    if (!kNarrow) ask_for_output<kRows, kVectors>(place);
    __m256 sums[kRows][kVectors];
    Half half;
    clear(sums);
    half.clear();
    if (!kNarrow && job.resume) {
      resume(sums, place);
      half.resume(place);
    }
    const float* x = start;
    const float* weights = first_weights;
    auto step = [&](const float* from) __attribute__((always_inline)) {
      multiply_add<kCopy>(
          sums,
          [weights, block_stride](int r) {
            return weights + r / kBlock * block_stride + r % kBlock;
          },
          [from, &at](int v) { return from + at[v]; }, copy);
      half.multiply_add(weights, from + at[2], kCopy ? copy + 16 : nullptr);
      weights += kBlock;
      if (kCopy) copy += 8 * kVectors + Half::kPanelFloats;
    };
    if (kTaps) {
      const int64_t* end = job.offsets + job.taps;
      for (int64_t c = job.channels; c > 0; c--, x += channel_stride) {
        _Pragma("GCC unroll 9") for (const int64_t* offset = job.offsets; offset < end; offset++)
            step(x + *offset);
      }
    } else {
      // Few rounds per tile: rows far apart miss the first cache level, and a loop's end
      // that is guessed wrong then costs twice.
      const int64_t rest = job.channels % 32;
      _Pragma("GCC unroll 32") for (int64_t c = job.channels - rest; c > 0;
                                    c--, x += channel_stride) step(x);
      _Pragma("GCC unroll 8") for (int64_t c = rest; c > 0; c--, x += channel_stride) step(x);
    }
    switch (activation) {
      case ZYN_EPILOGUE_RELU:
        finish<ZYN_EPILOGUE_RELU>(sums, half, place, biases);
        break;
      case ZYN_EPILOGUE_HARD_SWISH:
        finish<ZYN_EPILOGUE_HARD_SWISH>(sums, half, place, biases);
        break;
      case ZYN_EPILOGUE_HARD_SIGMOID:
        finish<ZYN_EPILOGUE_HARD_SIGMOID>(sums, half, place, biases);
        break;
      default:
        finish<ZYN_EPILOGUE_NONE>(sums, half, place, biases);
    }
    start += job.next_x;
    first_weights += job.next_weights;
    place.out += job.next_out;
    place.rows -= job.next_rows;
    if (biases) biases += job.next_rows;
  }
}

// The tiles for one block size: wide ones for the bulk of the columns, tiles of one vector
// that take 1, 2 or 3 blocks at once for the columns that remain, and wide ones that end
// with half a vector.
using tile_function = void (*)(const tile_job& job);
struct tile_set {
  int64_t block, wide_columns, most_blocks;
  tile_function wide[2][2];    // by whether B has taps, whether the tile copies
  tile_function narrow[2][3];  // by whether B has taps, number of blocks - 1
  tile_function half[2];       // rows of B without taps; by whether the tile copies
};
template <int kBlock, int kBlocks, int kVectors, bool kCopy>
constexpr tile_function pair[2] = {tiles<kBlock, kBlocks, kVectors, false, kCopy>,
                                   tiles<kBlock, kBlocks, kVectors, true, kCopy>};
constexpr tile_set kTiles4 = {
    4,
    24,
    3,
    {{pair<4, 1, 3, false>[0], pair<4, 1, 3, true>[0]},
     {pair<4, 1, 3, false>[1], pair<4, 1, 3, true>[1]}},
    {{pair<4, 1, 1, false>[0], pair<4, 2, 1, false>[0], pair<4, 3, 1, false>[0]},
     {pair<4, 1, 1, false>[1], pair<4, 2, 1, false>[1], pair<4, 3, 1, false>[1]}},
    {tiles<4, 1, 2, false, false, half_vectors>, tiles<4, 1, 2, false, true, half_vectors>}};
constexpr tile_set kTiles6 = {6,
                              16,
                              2,
                              {{pair<6, 1, 2, false>[0], pair<6, 1, 2, true>[0]},
                               {pair<6, 1, 2, false>[1], pair<6, 1, 2, true>[1]}},
                              {{pair<6, 1, 1, false>[0], pair<6, 2, 1, false>[0], nullptr},
                               {pair<6, 1, 1, false>[1], pair<6, 2, 1, false>[1], nullptr}},
                              {nullptr, nullptr}};
constexpr int64_t kHalfColumns = 20;  // of a tile of two vectors and a half

// Bytes of B that a group of columns may keep in the first-level cache (48 KB, of which
// the weights and the output need their share); terms beyond are summed in parts, the
// sums so far waiting in the output.
constexpr int64_t kGroupBytes = 24 * 1024;
constexpr int64_t kMostPartBytes = 60 * 1024;
// More channels than this, for two tiles, leave no room in the first-level cache.
constexpr int64_t kMostChannelsAhead = 160;
// Fewer row blocks than this do not earn the copy of the columns back.
constexpr int64_t kCopyBlocks = 3;

int64_t smaller(int64_t a, int64_t b) { return a < b ? a : b; }
int64_t larger(int64_t a, int64_t b) { return a > b ? a : b; }

// Everything that a walk over an output needs to call a tile.
struct walk {
  const zyn_gemm_rows& b;
  const tile_set& set;
  const float* packed;
  const zyn_gemm_output& output;
  int64_t blocks;
  int64_t part;  // channels that are summed at once

  // The job for row block block and channels first to last - 1, without its columns.
  tile_job job(int64_t block, int64_t first, int64_t last) const {
    const int64_t row = block * set.block, terms = b.channels * b.taps;
    const bool done = last == b.channels;
    const zyn_conv_epilogue& e = output.epilogue;
    tile_job j = {};
    j.x = b.base + first * b.channel_stride;
    j.channel_stride = b.channel_stride;
    j.channels = last - first;
    j.taps = b.taps;
    j.offsets = b.offsets;
    j.weights = packed + row * terms + first * b.taps * set.block;
    j.block_stride = terms * set.block;
    j.out = output.data + row * output.pitch;
    j.pitch = output.pitch;
    j.rows = output.rows - row;
    j.columns = 8;
    j.at[1] = j.to[1] = 8;
    j.at[2] = j.to[2] = 16;
    j.bias = done && e.bias ? e.bias + row : nullptr;
    j.activation = done ? e.activation : static_cast<int32_t>(ZYN_EPILOGUE_NONE);
    j.resume = first > 0;
    j.count = 1;
    return j;
  }

  // One vector of columns, all blocks: as many at once as there are registers, but two
  // pairs rather than three blocks and a single one.
  void narrow(int64_t from, int64_t to, int64_t columns) const {
    for (int64_t block = 0; block < blocks;) {
      const int64_t left = blocks - block;
      const int64_t count = left == 4 && set.most_blocks == 3 ? 2 : smaller(left, set.most_blocks);
      tile_job j = job(block, 0, b.channels);
      j.x += from;
      j.out += to;
      j.columns = columns;
      set.narrow[b.taps > 1][count - 1](j);
      block += count;
    }
  }

  bool copies() const { return b.panel && blocks >= kCopyBlocks; }

  // Whole wide tiles from column to last, row block by row block: for few row blocks, whose
  // columns are not worth a copy.
  void wide(int64_t column, int64_t last) const {
    for (int64_t first = 0; first < b.channels; first += part)
      for (int64_t block = 0; block < blocks; block++) {
        tile_job j = job(block, first, smaller(first + part, b.channels));
        j.x += column;
        j.out += column;
        j.count = (last - column) / set.wide_columns;
        j.next_x = j.next_out = set.wide_columns;
        set.wide[b.taps > 1][0](j);
      }
  }

  // One wide tile whose vectors lie anywhere, all row blocks in one call. The tile that
  // comes next, if it is known, has its first column at next (floats from base on, else 0).
  void scattered(const zyn_gemm_vector* vectors, int64_t next = 0) const {
    all_blocks(vectors, next, set.wide[b.taps > 1], set.wide[0][0]);
  }

  // The tile of the last columns, the last 4 of which are half a vector.
  void half(int64_t column) const {
    const zyn_gemm_vector vectors[3] = {
        {column, column}, {column + 8, column + 8}, {column + 16, column + 16}};
    all_blocks(vectors, 0, set.half, set.half[0]);
  }

  // by_copy: the tile for B in place, without and with copying; packed: for the copy.
  void all_blocks(const zyn_gemm_vector* vectors, int64_t next, const tile_function* by_copy,
                  tile_function packed) const {
    const bool copy = copies();
    for (int64_t first = 0; first < b.channels; first += part) {
      tile_job j = job(0, first, smaller(first + part, b.channels));
      j.x += vectors[0].from;
      j.out += vectors[0].to;
      for (int64_t v = 1; v < set.wide_columns / 8; v++) {
        j.at[v] = vectors[v].from - vectors[0].from;
        j.to[v] = vectors[v].to - vectors[0].to;
      }
      j.copy = b.panel;
      j.next_weights = j.block_stride;
      j.next_out = set.block * j.pitch;
      j.next_rows = set.block;
      j.count = copy ? 1 : blocks;
      if (next > 0 && b.taps == 1 && b.channels <= kMostChannelsAhead) {
        j.ahead = b.base + next;
        j.ahead_stride = b.channel_stride;
        j.ahead_rows = (b.channels + blocks - 1) / blocks;
      }
      by_copy[copy](j);
      if (!copy) continue;
      read_panel(&j);
      j.count = blocks - 1;
      j.weights += j.next_weights;
      j.out += j.next_out;
      j.rows -= j.next_rows;
      if (j.bias) j.bias += j.next_rows;
      if (j.ahead) j.ahead += j.ahead_rows * j.ahead_stride;
      packed(j);
    }
  }

  // Lets a job read the columns that the first row block copied.
  void read_panel(tile_job* j) const {
    j->x = b.panel;
    j->channel_stride = set.wide_columns;
    j->channels *= b.taps;
    j->at[1] = 8;
    j->at[2] = 16;
  }
};

walk make_walk(const zyn_gemm_rows& b, const float* packed, int64_t block,
               const zyn_gemm_output& output) {
  const tile_set& set = block == 6 ? kTiles6 : kTiles4;
  const int64_t bytes = set.wide_columns * b.channels * b.taps * 4;
  const int64_t parts = (bytes + kMostPartBytes - 1) / kMostPartBytes;
  return {
      b, set, packed, output, (output.rows + block - 1) / block, (b.channels + parts - 1) / parts};
}

}  // namespace

void zyn_gemm_in_place(const zyn_gemm_rows& b, int64_t columns, const float* packed, int64_t block,
                       const zyn_gemm_output& output) {
  const walk w = make_walk(b, packed, block, output);
  const int64_t width = w.set.wide_columns;
  // A plane that ends with at most half a vector ends with a tile made for that.
  const int64_t tail = columns % 8;
  if (w.set.half[0] && b.taps == 1 && columns >= kHalfColumns && tail >= 1 && tail <= 4) {
    w.half(columns - kHalfColumns);
    columns -= kHalfColumns;
  }
  const int64_t whole = columns / width * width, rest = columns - whole;
  auto tile_at = [&w, columns, width](int64_t column, int64_t last_vector) {
    const zyn_gemm_vector vectors[3] = {
        {column, column}, {column + 8, column + 8}, {last_vector, last_vector}};
    w.scattered(vectors, column + 2 * width <= columns ? column + width : 0);
  };
  if (w.blocks < kCopyBlocks) {
    const int64_t group = larger(kGroupBytes / (b.channels * b.taps * 4) / width, 1) * width;
    for (int64_t first = 0; first < whole; first += group)
      w.wide(first, smaller(first + group, whole));
  } else {
    for (int64_t first = 0; first < whole; first += width) tile_at(first, first + 16);
  }
  if (rest == 0) return;
  // The remaining columns are taken in tiles that end with the last column; what overlaps
  // is computed twice, to the same bits.
  if (columns >= width && w.blocks == 1 && rest > 8) return w.wide(columns - width, columns);
  if (rest > 16) return tile_at(whole, columns - 8);
  for (int64_t column = whole; column < columns; column += 8) {
    const int64_t start = columns < 8 ? 0 : smaller(column, columns - 8);
    w.narrow(start, start, smaller(columns, 8));
  }
}

void zyn_gemm_scattered(const zyn_gemm_rows& b, const zyn_gemm_vector* vectors, int64_t count,
                        const float* packed, int64_t block, const zyn_gemm_output& output) {
  const walk w = make_walk(b, packed, block, output);
  const int64_t wide = w.set.wide_columns / 8;
  int64_t i = 0;
  for (; i + wide <= count; i += wide) w.scattered(vectors + i);
  for (; i < count; i++) w.narrow(vectors[i].from, vectors[i].to, 8);
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
                            int64_t lda, const float* panel, int64_t width, int64_t columns,
                            float* tile, int64_t pitch) {
  const scaled_tile t = {k, alpha, beta, a, lda, panel, tile, pitch, columns};
  int64_t row = 0;
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

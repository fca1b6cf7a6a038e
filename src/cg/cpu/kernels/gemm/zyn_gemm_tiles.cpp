// Register tiles of the product by rows of B read in place. A tile of kBlocks weight blocks
// of kBlock rows by kVectors vectors of kLanes columns holds rows x vectors sums.
#include "cg/cpu/kernels/gemm/zyn_gemm_tiles.h"

#include <immintrin.h>

#include "base/zyn_integers.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_sums.h"

namespace {

// Where a tile stands in the output, in registers: vector stores may alias what is not.
struct tile_place {
  float* out;
  int64_t pitch, rows, columns, to[8];
};

template <int kLanes, int kRows, int kVectors>
[[gnu::always_inline]] inline void resume(
    typename zyn_block_lanes<kLanes>::type (&sums)[kRows][kVectors], const tile_place& place) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    if (r >= place.rows) return;
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) sums[r][v] =
        zyn_block_lanes<kLanes>::load(place.out + r * place.pitch + place.to[v]);
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

// The epilogue of a tile, and its way out.
template <int kLanes, int kRows, int kVectors, typename Half>
struct finish_tile {
  using lanes = zyn_block_lanes<kLanes>;
  const typename lanes::type (&sums)[kRows][kVectors];
  const Half& half;
  const tile_place& place;
  const float* biases;

  [[gnu::always_inline]] void store(float* to, typename lanes::type y) const {
    if constexpr (kVectors == 1 && kLanes == 8)
      if (place.columns < 8)
        return _mm256_maskstore_ps(to, zyn_first_lanes(static_cast<int64_t>(place.columns)), y);
    lanes::store(to, y);
  }

  template <int kActivation>
  [[gnu::always_inline]] void run() const {
    half.template finish<kActivation>(place, biases);
    ZYN_UNROLL for (int r = 0; r < kRows; r++) {
      if (r >= place.rows) return;
      const auto bias = biases ? lanes::spread(biases + r) : lanes::zero();
      ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
        const auto sum = biases ? lanes::add(sums[r][v], bias) : sums[r][v];
        const auto y = zyn_activate<kActivation, kLanes>(sum);
        float* to = place.out + r * place.pitch + place.to[v];
        store(to, y);
      }
    }
  }
};

// Within a network a tile's output has left the caches since the last inference: it comes
// back while the tile is summed.
constexpr int64_t kFewTerms = 16;  // summed before that
template <int kRows, int kColumns>
[[gnu::always_inline]] inline void ask_for_output(const tile_place& place) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    if (r >= place.rows) return;
    const float* row = place.out + r * place.pitch;
    _mm_prefetch(reinterpret_cast<const char*>(row), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(row + kColumns - 1), _MM_HINT_T0);
  }
}

// The terms of one tile: from is the first row of B under the tile's first vector, whose
// other vectors lie at floats from there; copy moves on with the panel that it fills.
template <int kLanes, int kBlock, bool kTaps, bool kCopy, int kRows, int kVectors, typename Half>
[[gnu::always_inline]] inline void sum_terms(
    typename zyn_block_lanes<kLanes>::type (&sums)[kRows][kVectors], Half& half,
    const zyn_gemm_tile_job& job, int64_t block_stride, int64_t channel_stride, const float* x,
    const float* weights, const int64_t (&at)[3], float*& copy) {
  auto step = [&](const float* from) __attribute__((always_inline)) {
    zyn_gemm_multiply_add<kLanes, kCopy>(
        sums,
        [weights, block_stride](int r) { return weights + r / kBlock * block_stride + r % kBlock; },
        [from, &at](int v) { return from + at[v]; }, copy);
    half.multiply_add(weights, from + at[2], kCopy ? copy + 16 : nullptr);
    weights += kBlock;
    if (kCopy) copy += kLanes * kVectors + Half::kPanelFloats;
  };
  if (kTaps) {
    const int64_t* end = job.offsets + job.taps;
    for (int64_t c = job.channels; c > 0; c--, x += channel_stride) {
      ZYN_UNROLL_BY(9)
      for (const int64_t* offset = job.offsets; offset < end; offset++) step(x + *offset);
    }
    return;
  }
  // Few rounds per tile: rows far apart miss the first cache level, and a loop's end
  // that is guessed wrong then costs twice.
  const int64_t rest = job.channels % 32;
  ZYN_UNROLL_BY(32) for (int64_t c = job.channels - rest; c > 0; c--, x += channel_stride) step(x);
  ZYN_UNROLL_BY(8) for (int64_t c = rest; c > 0; c--, x += channel_stride) step(x);
}

// Asks the cache for rows rows of width floats, stride apart; returns what follows them.
[[gnu::always_inline]] inline const float* ask_ahead(const float* ahead, int64_t rows,
                                                     int64_t stride, int64_t width) {
  for (int64_t i = rows; i > 0; i--, ahead += stride) {
    _mm_prefetch(reinterpret_cast<const char*>(ahead), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char*>(ahead + width - 1), _MM_HINT_T0);
  }
  return ahead;
}

// kBlocks weight blocks of kBlock rows by kVectors vectors of kLanes columns, and by the half
// vector of 8 that follows them where Half is half_vectors.
template <int kLanes, int kBlock, int kBlocks, int kVectors, bool kTaps, bool kCopy,
          typename Half = no_half_vectors>
void tiles(const zyn_gemm_tile_job& job) {
  constexpr int kRows = kBlock * kBlocks;
  constexpr bool kNarrow = kVectors == 1;
  // In registers: vector stores may alias what is not.
  const int64_t block_stride = job.block_stride, channel_stride = job.channel_stride;
  const int64_t at[3] = {0, kNarrow ? 0 : job.at[1], kNarrow ? 0 : job.at[2]};
  const int32_t activation = job.activation;
  const float* start = job.x;
  const float* first_weights = job.weights;
  const float* biases = job.bias;
  const float* ahead = job.ahead;
  tile_place place = {job.out, job.pitch, job.rows, job.columns, {0, job.to[1], job.to[2]}};
  float* copy = job.copy;
  const bool asks = !kNarrow && job.channels * job.taps > kFewTerms;
  for (int64_t n = job.count; n > 0; n--) {
    if (!kNarrow && ahead)
      ahead = ask_ahead(ahead, job.ahead_rows, job.ahead_stride, kLanes * kVectors);
    if (asks) ask_for_output<kRows, kLanes * kVectors>(place);
    typename zyn_block_lanes<kLanes>::type sums[kRows][kVectors];
    Half half;
    zyn_gemm_clear<kLanes>(sums);
    half.clear();
    if (!kNarrow && job.resume) {
      resume<kLanes>(sums, place);
      half.resume(place);
    }
    sum_terms<kLanes, kBlock, kTaps, kCopy>(sums, half, job, block_stride, channel_stride, start,
                                            first_weights, at, copy);
    zyn_with_activation(activation,
                        finish_tile<kLanes, kRows, kVectors, Half>{sums, half, place, biases});
    start += job.next_x;
    first_weights += job.next_weights;
    place.out += job.next_out;
    place.rows -= job.next_rows;
    if (biases) biases += job.next_rows;
  }
}

constexpr int kSlimBlock = 4;
constexpr int slim_vectors(int rows) { return rows == 1 ? 8 : rows == 2 ? 6 : 4; }

// kRows rows of a block of 4 by kVectors vectors, which lie side by side where there are no taps.
template <int kLanes, int kRows, int kVectors, bool kTaps>
void slim_tile(const zyn_gemm_slim_job& job, const zyn_gemm_vector* vectors, float* so_far) {
  using lanes = zyn_block_lanes<kLanes>;
  tile_place place = {job.out, job.pitch, kRows, kLanes, {}};
  int64_t at[kVectors];
  ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
    at[v] = kTaps ? vectors[v].from : v * kLanes;
    place.to[v] = kTaps ? vectors[v].to : v * kLanes;
  }
  const int64_t channel_stride = job.b.channel_stride;
  const float *x = job.b.base + (kTaps ? 0 : vectors->from), *weights = job.weights;
  if (!kTaps) place.out += vectors->to;
  typename lanes::type sums[kRows][kVectors];
  zyn_gemm_clear<kLanes>(sums);
  const auto at_sum = [so_far](int r, int v) { return so_far + (v * kRows + r) * kLanes; };
  if (job.resume) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      ZYN_UNROLL for (int r = 0; r < kRows; r++) sums[r][v] = lanes::load(at_sum(r, v));
    }
  }
  const auto step = [&](const float* from) __attribute__((always_inline)) {
    __asm__("" : "+r"(from));  // else every vector's address is a sum of its own
    typename lanes::type w[kRows];
    ZYN_UNROLL for (int r = 0; r < kRows; r++) w[r] = lanes::spread(weights + r);
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      const typename lanes::type column = lanes::load(from + at[v]);
      ZYN_UNROLL for (int r = 0; r < kRows; r++) lanes::add_product(sums[r][v], w[r], column);
    }
    weights += kSlimBlock;
  };
  for (int64_t c = job.b.channels; c > 0; c--, x += channel_stride) {
    if (kTaps) {
      const int64_t* const end = job.b.offsets + job.b.taps;
      for (const int64_t* offset = job.b.offsets; offset < end; offset++) step(x + *offset);
    } else {
      step(x);
    }
  }
  if (!job.last) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      ZYN_UNROLL for (int r = 0; r < kRows; r++) lanes::store(at_sum(r, v), sums[r][v]);
    }
    return;
  }
  constexpr no_half_vectors kNone;
  zyn_with_activation(job.activation, finish_tile<kLanes, kRows, kVectors, no_half_vectors>{
                                          sums, kNone, place, job.bias});
}

template <int kLanes, int kRows, bool kTaps>
void slim_tiles(const zyn_gemm_slim_job& job, const zyn_gemm_vector* vectors, int64_t count) {
  constexpr int64_t kMost = slim_vectors(kRows), kHalf = kMost / 2;
  for (int64_t i = 0, here = 0; i < count; i += here) {
    here = count - i >= kMost ? kMost : count - i >= kHalf ? kHalf : 1;
    const auto tile = here == kMost   ? slim_tile<kLanes, kRows, kMost, kTaps>
                      : here == kHalf ? slim_tile<kLanes, kRows, kHalf, kTaps>
                                      : slim_tile<kLanes, kRows, 1, kTaps>;
    tile(job, vectors + i, kTaps ? job.sums + i * kRows * kLanes : nullptr);
  }
}

template <int kLanes>
void slim(const zyn_gemm_slim_job& job, int64_t rows, const zyn_gemm_vector* vectors,
          int64_t count) {
  using function = void (*)(const zyn_gemm_slim_job&, const zyn_gemm_vector*, int64_t);
  constexpr function kByRows[3][2] = {{slim_tiles<kLanes, 1, false>, slim_tiles<kLanes, 1, true>},
                                      {slim_tiles<kLanes, 2, false>, slim_tiles<kLanes, 2, true>},
                                      {slim_tiles<kLanes, 3, false>, slim_tiles<kLanes, 3, true>}};
  kByRows[rows - 1][job.b.taps > 1](job, vectors, count);
}

template <int kLanes, int kBlock, int kBlocks, int kVectors, bool kCopy = false>
constexpr zyn_gemm_tile_function pair[2] = {tiles<kLanes, kBlock, kBlocks, kVectors, false, kCopy>,
                                            tiles<kLanes, kBlock, kBlocks, kVectors, true, kCopy>};

template <int kLanes>
constexpr zyn_gemm_tile_set set_of_4(zyn_gemm_tile_function half, zyn_gemm_tile_function copying) {
  return {4,
          kLanes,
          3 * kLanes,
          3,
          {{pair<kLanes, 4, 1, 3>[0], pair<kLanes, 4, 1, 3, true>[0]},
           {pair<kLanes, 4, 1, 3>[1], pair<kLanes, 4, 1, 3, true>[1]}},
          {{pair<kLanes, 4, 1, 1>[0], pair<kLanes, 4, 2, 1>[0], pair<kLanes, 4, 3, 1>[0]},
           {pair<kLanes, 4, 1, 1>[1], pair<kLanes, 4, 2, 1>[1], pair<kLanes, 4, 3, 1>[1]}},
          {half, copying}};
}
template <int kLanes>
constexpr zyn_gemm_tile_set set_of_6() {
  return {6,
          kLanes,
          2 * kLanes,
          2,
          {{pair<kLanes, 6, 1, 2>[0], pair<kLanes, 6, 1, 2, true>[0]},
           {pair<kLanes, 6, 1, 2>[1], pair<kLanes, 6, 1, 2, true>[1]}},
          {{pair<kLanes, 6, 1, 1>[0], pair<kLanes, 6, 2, 1>[0], nullptr},
           {pair<kLanes, 6, 1, 1>[1], pair<kLanes, 6, 2, 1>[1], nullptr}},
          {nullptr, nullptr}};
}

}  // namespace

const zyn_gemm_tile_set zyn_gemm_tiles_4 = set_of_4<8>(
    tiles<8, 4, 1, 2, false, false, half_vectors>, tiles<8, 4, 1, 2, false, true, half_vectors>);
const zyn_gemm_tile_set zyn_gemm_tiles_6 = set_of_6<8>();
#if ZYN_VECTOR_BITS == 512
const zyn_gemm_tile_set zyn_gemm_wide_tiles_4 = set_of_4<16>(nullptr, nullptr);
const zyn_gemm_tile_set zyn_gemm_wide_tiles_6 = set_of_6<16>();
#endif

void zyn_gemm_slim_tiles(const zyn_gemm_slim_job& job, int64_t rows, int64_t lanes,
                         const zyn_gemm_vector* vectors, int64_t count) {
  if (kZynVectorFloats > 8 && lanes > 8)
    slim<kZynVectorFloats>(job, rows, vectors, count);
  else
    slim<8>(job, rows, vectors, count);
}

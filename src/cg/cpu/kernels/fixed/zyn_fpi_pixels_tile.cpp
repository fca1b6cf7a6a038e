// Tiles of the fixed-point kernel by pixels: 16 outputs of every channel, two channels at a time.
#include "cg/cpu/kernels/fixed/zyn_fpi_pixels.h"
#include "simd/zyn_vectors.h"

namespace {

inline __m256i beside(__m256i even, __m256i odd) { return _mm256_blend_epi16(even, odd, 0xAA); }

// Where the sums of 16 outputs take their pairs of one input channel from, for the first group of 8
// and for the second one. for_pairs calls first with the pair of an odd number of taps, add with
// the others, in their order.
//
// Straight from a strip: kNear and kFar pairs, or as many as the job says (kNear -1).
template <int kNear, int kFar, bool kIsOdd>
struct strip_pairs {
  static constexpr bool kOdd = kIsOdd;
  const zyn_fpi_pixel_job& job;
  const int16_t* in;
  const int64_t* places = job.places;
  int64_t second = job.second, next = job.channel_words;

  void move_on() { in += next; }
  template <typename First, typename Add>
  [[gnu::always_inline]] void for_pairs(const First& first, const Add& add) const {
    const int16_t* const in2 = in + second;
    const int64_t* place = places;
    const auto load_near = [&](const int16_t* at) __attribute__((always_inline)) {
      return zyn_fpi_load(at + place[0]);
    };
    const auto load_far = [&](const int16_t* at) __attribute__((always_inline)) {
      return beside(zyn_fpi_load(at + place[0]), zyn_fpi_load(at + place[1]));
    };
    if (kOdd) {
      first(beside(load_near(in), job.constant), beside(load_near(in2), job.constant));
      place++;
    }
    const auto add_near = [&]() __attribute__((always_inline)) {
      add(load_near(in), load_near(in2));
      place += 2;
    };
    const auto add_far = [&]() __attribute__((always_inline)) {
      add(load_far(in), load_far(in2));
      place += 2;
    };
    if constexpr (kNear < 0) {
      for (int64_t p = job.near; p > 0; p--) add_near();
      for (int64_t p = job.far; p > 0; p--) add_far();
    } else {
      ZYN_UNROLL for (int p = 0; p < kNear; p++) add_near();
      ZYN_UNROLL for (int p = 0; p < kFar; p++) add_far();
    }
  }
};

// Gathered: kPairs of them, or as many as the job says (0).
template <int kPairs, bool kIsOdd>
struct gathered_pairs {
  static constexpr bool kOdd = kIsOdd;
  const zyn_fpi_pixel_job& job;
  const int16_t* in = job.gathered;
  int64_t pairs = kPairs > 0 ? kPairs : job.pairs;

  void move_on() { in += pairs * 2 * kZynFpiLanes; }
  template <typename First, typename Add>
  [[gnu::always_inline]] void for_pairs(const First& first, const Add& add) const {
    const int16_t* at = in;
    if (kOdd) first(zyn_fpi_load(at), zyn_fpi_load(at + kZynFpiLanes));
    if (kOdd) at += 2 * kZynFpiLanes;
    const auto add_next = [&]() __attribute__((always_inline)) {
      add(zyn_fpi_load(at), zyn_fpi_load(at + kZynFpiLanes));
      at += 2 * kZynFpiLanes;
    };
    if constexpr (kPairs > 0) {
      ZYN_UNROLL for (int p = kOdd; p < kPairs; p++) add_next();
    } else {
      ZYN_UNROLL_BY(4) for (int64_t p = pairs - kOdd; p > 0; p--) add_next();
    }
  }
};

// The products of pairs, added to a sum but for the first ones.
[[gnu::always_inline]] inline __m256i add_product(__m256i sum, __m256i values, __m256i weights,
                                                  bool first) {
  const __m256i product = _mm256_madd_epi16(values, weights);
  return first ? product : _mm256_add_epi32(sum, product);
}

// The sums of kOutputs output channels over all input channels.
template <bool kScaled, int kOutputs, typename Pairs>
[[gnu::always_inline]] inline void sum_channels(__m256i (&all)[kOutputs][2],
                                                const zyn_fpi_pixel_job& job, Pairs pairs,
                                                const int32_t* weights) {
  const __m256i start = job.constant, shift = _mm256_set1_epi32(job.shift);
  ZYN_UNROLL for (int o = 0; o < kOutputs; o++) all[o][0] = all[o][1] = _mm256_setzero_si256();
  for (int64_t i = job.channels; i > 0; i--, pairs.move_on()) {
    __m256i sums[kOutputs][2];
    // The compiler does not see through the empty statements: else it loads vectors again for every
    // weight, and puts off additions until registers run out.
    const auto take = [&](__m256i a, __m256i b, bool first) __attribute__((always_inline)) {
      __asm__("" : "+x"(a), "+x"(b));
      ZYN_UNROLL for (int o = 0; o < kOutputs; o++) {
        const __m256i w = _mm256_set1_epi32(weights[o]);
        __m256i of_a = add_product(sums[o][0], a, w, first);
        __m256i of_b = add_product(sums[o][1], b, w, first);
        __asm__("" : "+x"(of_a), "+x"(of_b));
        sums[o][0] = of_a;
        sums[o][1] = of_b;
      }
      weights += kOutputs;
    };
    if (!Pairs::kOdd) ZYN_UNROLL for (int o = 0; o < kOutputs; o++) sums[o][0] = sums[o][1] = start;
    pairs.for_pairs(
        [&](__m256i a, __m256i b) __attribute__((always_inline)) { take(a, b, true); },
        [&](__m256i a, __m256i b) __attribute__((always_inline)) { take(a, b, false); });
    ZYN_UNROLL for (int o = 0; o < kOutputs; o++) {
      ZYN_UNROLL for (int g = 0; g < 2; g++) all[o][g] =
          kScaled ? _mm256_add_epi16(all[o][g], sums[o][g])
                  : _mm256_add_epi32(all[o][g], _mm256_srav_epi32(sums[o][g], shift));
    }
  }
}

[[gnu::noinline]] void store_pieces(int16_t* out, const zyn_fpi_tile_place& tile, __m256i v) {
  int16_t lanes[2 * kZynFpiLanes];
  zyn_fpi_store(lanes, v);
  zyn_fpi_store(lanes + kZynFpiLanes, v);
  for (int64_t i = 0; i < tile.pieces; i++) {
    const zyn_fpi_piece& p = tile.at[i];
    if (p.count == kZynFpiLanes)
      zyn_fpi_store(out + p.to, zyn_fpi_load(lanes + p.lane));
    else
      zyn_fpi_copy(out + p.to, lanes + p.lane, p.count);
  }
}

// 16 outputs of every channel.
template <bool kScaled, typename Pairs>
[[gnu::always_inline]] inline void sum_tile(const zyn_fpi_pixel_job& job,
                                            const zyn_fpi_tile_place& tile, const Pairs& pairs) {
  constexpr int kBeside = 2;  // output channels
  const int64_t per_output = job.channels * job.pairs, plane = job.plane;
  const bool whole = tile.pieces == 1 && tile.at[0].lane == 0 && tile.at[0].count == kZynFpiLanes;
  int16_t* const out = job.out + tile.at[0].to;
  const auto finish = [&](int64_t o, const __m256i(&all)[2]) __attribute__((always_inline)) {
    __m256i v = kScaled ? beside(_mm256_srli_epi32(all[0], kZynFpiHighHalf), all[1])
                        : beside(all[0], _mm256_slli_epi32(all[1], kZynFpiHighHalf));
    if (job.second > 1) v = zyn_fpi_part(v);
    v = job.epilogue(v, o);
    if (whole)
      zyn_fpi_store(out + o * plane, v);
    else
      store_pieces(job.out + o * plane, tile, v);
  };
  int64_t o = 0;
  for (; o + kBeside <= job.outputs; o += kBeside) {
    __m256i all[kBeside][2];
    sum_channels<kScaled>(all, job, pairs, job.weights + o * per_output);
    finish(o, all[0]);
    finish(o + 1, all[1]);
  }
  if (o == job.outputs) return;
  __m256i all[1][2];
  sum_channels<kScaled>(all, job, pairs, job.weights + o * per_output);
  finish(o, all[0]);
}

template <bool kScaled, int kNear, int kFar, bool kOdd>
void run_from_strip(const zyn_fpi_pixel_job& job, const zyn_fpi_tile_place& tile) {
  sum_tile<kScaled>(job, tile, strip_pairs<kNear, kFar, kOdd>{job, job.strip + tile.from});
}

template <bool kScaled, int kPairs, bool kOdd>
void run_gathered(const zyn_fpi_pixel_job& job, const zyn_fpi_tile_place& tile) {
  strip_pairs<-1, 0, kOdd> from = {job, job.strip + tile.from};
  int16_t* to = job.gathered;
  const auto put = [&](__m256i a, __m256i b) {
    zyn_fpi_store(to, a);
    zyn_fpi_store(to + kZynFpiLanes, b);
    to += 2 * kZynFpiLanes;
  };
  for (int64_t i = job.channels; i > 0; i--, from.move_on()) from.for_pairs(put, put);
  sum_tile<kScaled>(job, tile, gathered_pairs<kPairs, kOdd>{job});
}

template <bool kScaled>
zyn_fpi_pixel_tile choose_tile(const zyn_fpi_pixel_job& job, bool odd) {
  if (!job.gathered) {
    const auto is = [&](int64_t near, int64_t far) { return job.near == near && job.far == far; };
    if (odd && is(3, 1)) return run_from_strip<kScaled, 3, 1, true>;  // 3 x 3
    if constexpr (kScaled) {
      if (!odd && is(2, 0)) return run_from_strip<kScaled, 2, 0, false>;  // 2 x 2
      if (odd && is(1, 0)) return run_from_strip<kScaled, 1, 0, true>;    // a row of 3
      if (odd && is(2, 0)) return run_from_strip<kScaled, 2, 0, true>;    // a row of 5
      if (odd && is(0, 1)) return run_from_strip<kScaled, 0, 1, true>;    // a column of 3
    }
    if (!odd) return run_from_strip<kScaled, -1, 0, false>;
    return run_from_strip<kScaled, -1, 0, true>;
  }
  if (!odd) return run_gathered<kScaled, 0, false>;
  constexpr zyn_fpi_pixel_tile kOdd[] = {
      run_gathered<kScaled, 0, true>, run_gathered<kScaled, 2, true>,
      run_gathered<kScaled, 3, true>, run_gathered<kScaled, 4, true>,
      run_gathered<kScaled, 5, true>};
  return kOdd[job.pairs >= 2 && job.pairs <= 5 ? job.pairs - 1 : 0];
}

}  // namespace

zyn_fpi_pixel_tile zyn_fpi_choose_pixel_tile(const zyn_fpi_pixel_job& job, bool odd) {
  return job.shift == kZynFpiHighHalf ? choose_tile<true>(job, odd) : choose_tile<false>(job, odd);
}

// Tiles of few output channels, where the lanes are 8 input channels: no lane is idle, and no
// channel is turned into another lane before the end. Every output of every pixel has a vector
// of sums, whose lanes are added at last, in an order of which nothing depends on the tile.
#pragma once

#include "simd/zyn_block_lanes.h"

// A vector of 8 channels, or of 4 and zeros.
template <int Width>
inline __m256 zyn_load_dots(const float* p) {
  return Width == 8 ? _mm256_loadu_ps(p) : _mm256_zextps128_ps256(_mm_loadu_ps(p));
}

// Adds a block of Width input channels. in: of pixels that lie step floats apart; weights: of
// outputs that lie apart floats apart. The fewer of both stay in registers.
template <int Width, int Outputs, int Pixels>
[[gnu::always_inline]] inline void zyn_add_dots(__m256 (&sum)[Outputs][Pixels], const float* in,
                                                int64_t step, const float* weights, int64_t apart) {
  constexpr bool kKeepPixels = Pixels < Outputs;
  constexpr int kKept = kKeepPixels ? Pixels : Outputs, kOthers = kKeepPixels ? Outputs : Pixels;
  const auto kept_at = [&](int k) { return kKeepPixels ? in + k * step : weights + k * apart; };
  const auto other_at = [&](int k) { return kKeepPixels ? weights + k * apart : in + k * step; };
  __m256 kept[kKept];
  ZYN_UNROLL for (int k = 0; k < kKept; k++) kept[k] = zyn_load_dots<Width>(kept_at(k));
  ZYN_UNROLL for (int n = 0; n < kOthers; n++) {
    const __m256 other = zyn_load_dots<Width>(other_at(n));
    ZYN_UNROLL for (int k = 0; k < kKept; k++) {
      __m256& s = kKeepPixels ? sum[n][k] : sum[k][n];
      s = _mm256_fmadd_ps(kept[k], other, s);
    }
  }
}

// The sums of each half of a, b, c and d: of the lower halves, then of the upper ones.
inline __m256 zyn_join_halves(__m256 a, __m256 b, __m256 c, __m256 d) {
  const __m256 ab = _mm256_add_ps(_mm256_shuffle_ps(a, b, 0x4E), _mm256_blend_ps(a, b, 0xCC));
  const __m256 cd = _mm256_add_ps(_mm256_shuffle_ps(c, d, 0x4E), _mm256_blend_ps(c, d, 0xCC));
  return _mm256_add_ps(_mm256_shuffle_ps(ab, cd, 0x88), _mm256_shuffle_ps(ab, cd, 0xDD));
}

// The sums of the lanes of a, b, c and d.
inline __m128 zyn_join_dots(__m256 a, __m256 b, __m256 c, __m256 d) {
  const __m256 halves = zyn_join_halves(a, b, c, d);
  return _mm_add_ps(_mm256_castps256_ps128(halves), _mm256_extractf128_ps(halves, 1));
}

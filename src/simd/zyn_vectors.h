// Vector helpers that every folder shares: masks of some lanes, the transposition of a
// square of floats, loops that the compiler unrolls.
#pragma once

#include <immintrin.h>
#include <stdint.h>

// Floats of the widest vector, 8 or 16: code that gains nothing by 16 lanes keeps to 8. Which
// outputs share a vector is all that differs: every output is the same sum in the same order.
constexpr int kZynVectorFloats = ZYN_VECTOR_BITS / 32;

// The first place of a block from the allocator, which aligns to 32 bytes, that is aligned to a
// vector; blocks that are used from there have kZynAlignmentFloats more.
constexpr int kZynAlignmentFloats = kZynVectorFloats - 8;
template <typename Float>
inline Float* zyn_vector_aligned(Float* block) {
  constexpr uintptr_t kBytes = kZynVectorFloats * sizeof(float);
  if (kZynAlignmentFloats == 0) return block;
  const uintptr_t past = reinterpret_cast<uintptr_t>(block) % kBytes;
  return block + (past == 0 ? 0 : (kBytes - past) / sizeof(float));
}

// Before a loop with a compile-time count of at most 32: the body stands there once for
// every value, so that arrays indexed by the counter stay in registers.
#if defined(__clang__)
#define ZYN_UNROLL _Pragma("unroll")
#define ZYN_PRAGMA_UNROLL(n) ZYN_PRAGMA(unroll n)
#else
#define ZYN_UNROLL _Pragma("GCC unroll 32")
#define ZYN_PRAGMA_UNROLL(n) ZYN_PRAGMA(GCC unroll n)
#endif

// Before a loop whose count is known only when it runs: n bodies a round, then the rest,
// so that the loop's own instructions weigh little beside those of a short body.
#define ZYN_UNROLL_BY(n) ZYN_PRAGMA_UNROLL(n)
#define ZYN_PRAGMA(text) _Pragma(#text)

// The numbers of the lanes.
inline __m256i zyn_lane_numbers() { return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7); }

// All ones in the lanes 0 to count - 1; counts above 8 mean all lanes, whatever their size.
inline __m256i zyn_first_lanes(int64_t count) {
  const int32_t lanes = static_cast<int32_t>(count < 8 ? count : 8);
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(lanes), zyn_lane_numbers());
}

// All ones in the lanes i for which first + i lies in 0 to extent - 1.
inline __m256i zyn_lanes_within(int32_t first, int32_t extent) {
  const __m256i at = _mm256_add_epi32(_mm256_set1_epi32(first), zyn_lane_numbers());
  return _mm256_and_si256(_mm256_cmpgt_epi32(at, _mm256_set1_epi32(-1)),
                          _mm256_cmpgt_epi32(_mm256_set1_epi32(extent), at));
}

// Lane j of row i becomes lane i of row j.
inline void zyn_transpose_8x8(__m256 (&row)[8]) {
  __m256 pair[8];
  ZYN_UNROLL for (int i = 0; i < 8; i += 2) {
    pair[i] = _mm256_unpacklo_ps(row[i], row[i + 1]);
    pair[i + 1] = _mm256_unpackhi_ps(row[i], row[i + 1]);
  }
  ZYN_UNROLL for (int i = 0; i < 8; i += 4) {
    row[i] = _mm256_shuffle_ps(pair[i], pair[i + 2], 0x44);
    row[i + 1] = _mm256_shuffle_ps(pair[i], pair[i + 2], 0xEE);
    row[i + 2] = _mm256_shuffle_ps(pair[i + 1], pair[i + 3], 0x44);
    row[i + 3] = _mm256_shuffle_ps(pair[i + 1], pair[i + 3], 0xEE);
  }
  ZYN_UNROLL for (int i = 0; i < 4; i++) {
    pair[i] = _mm256_permute2f128_ps(row[i], row[i + 4], 0x20);
    pair[i + 4] = _mm256_permute2f128_ps(row[i], row[i + 4], 0x31);
  }
  ZYN_UNROLL for (int i = 0; i < 8; i++) row[i] = pair[i];
}

// The same for 16-bit words.
[[gnu::always_inline]] inline void zyn_transpose_8x8(__m128i (&row)[8]) {
  __m128i pair[8];
  ZYN_UNROLL for (int i = 0; i < 8; i += 2) {
    pair[i] = _mm_unpacklo_epi16(row[i], row[i + 1]);
    pair[i + 1] = _mm_unpackhi_epi16(row[i], row[i + 1]);
  }
  ZYN_UNROLL for (int i = 0; i < 8; i += 4) {
    row[i] = _mm_unpacklo_epi32(pair[i], pair[i + 2]);
    row[i + 1] = _mm_unpackhi_epi32(pair[i], pair[i + 2]);
    row[i + 2] = _mm_unpacklo_epi32(pair[i + 1], pair[i + 3]);
    row[i + 3] = _mm_unpackhi_epi32(pair[i + 1], pair[i + 3]);
  }
  ZYN_UNROLL for (int i = 0; i < 4; i++) {
    pair[2 * i] = _mm_unpacklo_epi64(row[i], row[i + 4]);
    pair[2 * i + 1] = _mm_unpackhi_epi64(row[i], row[i + 4]);
  }
  ZYN_UNROLL for (int i = 0; i < 8; i++) row[i] = pair[i];
}

// The same for rows in memory, pitch floats apart: halves of rows are joined by the loads,
// which leaves the shuffling unit a third less to do.
[[gnu::always_inline]] inline void zyn_transpose_8x8(const float* rows, int64_t pitch,
                                                     __m256 (&t)[8]) {
  __m256 half[8], pair[8];
  ZYN_UNROLL for (int i = 0; i < 4; i++) {
    const __m256 low = _mm256_loadu_ps(rows + i * pitch);
    const __m256 high = _mm256_loadu_ps(rows + (i + 4) * pitch);
    half[i] = _mm256_permute2f128_ps(low, high, 0x20);
    half[i + 4] = _mm256_permute2f128_ps(low, high, 0x31);
  }
  ZYN_UNROLL for (int i = 0; i < 8; i += 2) {
    pair[i] = _mm256_unpacklo_ps(half[i], half[i + 1]);
    pair[i + 1] = _mm256_unpackhi_ps(half[i], half[i + 1]);
  }
  ZYN_UNROLL for (int i = 0; i < 8; i += 4) {
    t[i] = _mm256_shuffle_ps(pair[i], pair[i + 2], 0x44);
    t[i + 1] = _mm256_shuffle_ps(pair[i], pair[i + 2], 0xEE);
    t[i + 2] = _mm256_shuffle_ps(pair[i + 1], pair[i + 3], 0x44);
    t[i + 3] = _mm256_shuffle_ps(pair[i + 1], pair[i + 3], 0xEE);
  }
}

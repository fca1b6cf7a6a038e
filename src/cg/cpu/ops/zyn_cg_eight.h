// Eight values of a row in 32-bit lanes, for operators that serve floats and 16-bit words
// alike: floats as they are, words widened to integers whose bits the vectors hold.
#pragma once

#include <math.h>
#include <string.h>

#include "simd/zyn_vectors.h"

template <typename T>
struct zyn_eight;

template <>
struct zyn_eight<float> {
  static __m256 load(const float* p) { return _mm256_loadu_ps(p); }
  // Below eight values; the idle lanes are 0.
  static __m256 load(const float* p, int64_t count) {
    return _mm256_maskload_ps(p, zyn_first_lanes(count));
  }
  static void store(float* p, __m256 v, int64_t count) {
    if (count >= 8) return _mm256_storeu_ps(p, v);
    _mm256_maskstore_ps(p, zyn_first_lanes(count), v);
  }
  static __m256 add(__m256 a, __m256 b) { return _mm256_add_ps(a, b); }
  static __m256 largest(__m256 a, __m256 b) { return _mm256_max_ps(a, b); }
  static __m256 smallest(__m256 a, __m256 b) { return _mm256_min_ps(a, b); }
  static __m256 lowest() { return _mm256_set1_ps(-INFINITY); }
  static __m256 highest() { return _mm256_set1_ps(INFINITY); }
  // sums / (counts * more)
  static __m256 mean(__m256 sums, __m256 counts, float more) {
    return _mm256_div_ps(sums, _mm256_mul_ps(counts, _mm256_set1_ps(more)));
  }
  static void store(float* p, __m256d v) { _mm_storeu_ps(p, _mm256_cvtpd_ps(v)); }
  static __m256d to_double(__m256 v, bool upper) {
    return _mm256_cvtps_pd(upper ? _mm256_extractf128_ps(v, 1) : _mm256_castps256_ps128(v));
  }
  // Both halves, by way of memory: in registers the unit that moves lanes has most of the work,
  // which additions share with it. Faster where there are few loads beside.
  static void to_doubles(__m256 v, __m256d (&half)[2]) {
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, v);
    __asm__("" : "+m"(lanes));  // else the compiler sees through it
    half[0] = _mm256_cvtps_pd(_mm_load_ps(lanes));
    half[1] = _mm256_cvtps_pd(_mm_load_ps(lanes + 4));
  }
};

template <>
struct zyn_eight<int16_t> {
  static __m256i bits(__m256 v) { return _mm256_castps_si256(v); }
  static __m256 widen(__m128i words) { return _mm256_castsi256_ps(_mm256_cvtepi16_epi32(words)); }
  static __m256 load(const int16_t* p) {
    return widen(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  }
  static __m256 load(const int16_t* p, int64_t count) {
    alignas(16) int16_t words[8] = {};
    memcpy(words, p, static_cast<size_t>(count < 8 ? count : 8) * sizeof(int16_t));
    return widen(_mm_load_si128(reinterpret_cast<const __m128i*>(words)));
  }
  static void store(int16_t* p, __m256 v, int64_t count) {
    const __m256i pairs = _mm256_permute4x64_epi64(_mm256_packs_epi32(bits(v), bits(v)), 0xD8);
    const __m128i words = _mm256_castsi256_si128(pairs);
    if (count >= 8) return _mm_storeu_si128(reinterpret_cast<__m128i*>(p), words);
    alignas(16) int16_t part[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(part), words);
    memcpy(p, part, static_cast<size_t>(count) * sizeof(int16_t));
  }
  static __m256 add(__m256 a, __m256 b) {
    return _mm256_castsi256_ps(_mm256_add_epi32(bits(a), bits(b)));
  }
  static __m256 largest(__m256 a, __m256 b) {
    return _mm256_castsi256_ps(_mm256_max_epi32(bits(a), bits(b)));
  }
  static __m256 smallest(__m256 a, __m256 b) {
    return _mm256_castsi256_ps(_mm256_min_epi32(bits(a), bits(b)));
  }
  static __m256 lowest() { return _mm256_castsi256_ps(_mm256_set1_epi32(INT16_MIN)); }
  static __m256 highest() { return _mm256_castsi256_ps(_mm256_set1_epi32(INT16_MAX)); }
  // Rounded to nearest, halves up: exact, since a quotient of such numbers is further from
  // the next half than double precision errs.
  static __m256 mean(__m256 sums, __m256 counts, float more) {
    __m128i halves[2];
    for (int i = 0; i < 2; i++) {
      const __m256d count = _mm256_mul_pd(zyn_eight<float>::to_double(counts, i == 1),
                                          _mm256_set1_pd(static_cast<double>(more)));
      const __m256d quotient = _mm256_div_pd(to_double(sums, i == 1), count);
      halves[i] =
          _mm256_cvttpd_epi32(_mm256_floor_pd(_mm256_add_pd(quotient, _mm256_set1_pd(0.5))));
    }
    return _mm256_castsi256_ps(_mm256_set_m128i(halves[1], halves[0]));
  }
  // Whole numbers.
  static void store(int16_t* p, __m256d v) {
    const __m128i whole = _mm256_cvttpd_epi32(v);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packs_epi32(whole, whole));
  }
  static __m256d to_double(__m256 v, bool upper) {
    return _mm256_cvtepi32_pd(upper ? _mm256_extracti128_si256(bits(v), 1)
                                    : _mm256_castsi256_si128(bits(v)));
  }
  static void to_doubles(__m256 v, __m256d (&half)[2]) {
    for (int i = 0; i < 2; i++) half[i] = to_double(v, i == 1);
  }
};

// Vectors of Width floats under one set of names: the 8 or 4 channels of a block, a single one,
// or, where vectors have 512 bits, two blocks of 8 side by side.
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "simd/zyn_vectors.h"

template <int Width>
struct zyn_block_lanes;

template <>
struct zyn_block_lanes<8> {
  using type = __m256;
  static type zero() { return _mm256_setzero_ps(); }
  static type load(const float* p) { return _mm256_loadu_ps(p); }
  static type spread(const float* p) { return _mm256_broadcast_ss(p); }
  static type spread(float x) { return _mm256_set1_ps(x); }
  static void store(float* p, type v) { _mm256_storeu_ps(p, v); }
  static type add(type a, type b) { return _mm256_add_ps(a, b); }
  // b where the two compare unordered, so that NaN passes through.
  static type max(type a, type b) { return _mm256_max_ps(a, b); }
  static type min(type a, type b) { return _mm256_min_ps(a, b); }
  static type multiply(type a, type b) { return _mm256_mul_ps(a, b); }
  static void add_product(type& sum, type a, type b) { sum = _mm256_fmadd_ps(a, b, sum); }
  static type fma(type a, type b, type c) { return _mm256_fmadd_ps(a, b, c); }
  static float sum(type v) {
    const __m128 half = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    const __m128 pair = _mm_add_ps(half, _mm_movehl_ps(half, half));
    return _mm_cvtss_f32(_mm_add_ss(pair, _mm_movehdup_ps(pair)));
  }
};

template <>
struct zyn_block_lanes<4> {
  using type = __m128;
  static type zero() { return _mm_setzero_ps(); }
  static type load(const float* p) { return _mm_loadu_ps(p); }
  static type spread(const float* p) { return _mm_broadcast_ss(p); }
  static void store(float* p, type v) { _mm_storeu_ps(p, v); }
  static type add(type a, type b) { return _mm_add_ps(a, b); }
  static type max(type a, type b) { return _mm_max_ps(a, b); }
  static void add_product(type& sum, type a, type b) { sum = _mm_fmadd_ps(a, b, sum); }
  static type fma(type a, type b, type c) { return _mm_fmadd_ps(a, b, c); }
  static float sum(type v) {
    const __m128 pair = _mm_add_ps(v, _mm_movehl_ps(v, v));
    return _mm_cvtss_f32(_mm_add_ss(pair, _mm_movehdup_ps(pair)));
  }
};

template <>
struct zyn_block_lanes<1> {
  using type = float;
  static type zero() { return 0.0f; }
  static type load(const float* p) { return *p; }
  static type spread(const float* p) { return *p; }
  static void store(float* p, type v) { *p = v; }
  static type add(type a, type b) { return a + b; }
  static type max(type a, type b) { return a > b ? a : b; }
  static void add_product(type& sum, type a, type b) { sum = __builtin_fmaf(a, b, sum); }
  static type fma(type a, type b, type c) { return __builtin_fmaf(a, b, c); }
  static float sum(type v) { return v; }
};

#if defined(__AVX512F__) && ZYN_VECTOR_BITS == 512
template <>
struct zyn_block_lanes<16> {
  using type = __m512;
  static type zero() { return _mm512_setzero_ps(); }
  static type load(const float* p) { return _mm512_loadu_ps(p); }
  static type spread(const float* p) { return _mm512_set1_ps(*p); }
  static type spread(float x) { return _mm512_set1_ps(x); }
  static void store(float* p, type v) { _mm512_storeu_ps(p, v); }
  static type add(type a, type b) { return _mm512_add_ps(a, b); }
  static type multiply(type a, type b) { return _mm512_mul_ps(a, b); }
  // Masked, with all lanes: gcc 12 warns of the undefined vectors in its plain ones.
  static type max(type a, type b) { return _mm512_maskz_max_ps(kAllLanes, a, b); }
  static type min(type a, type b) { return _mm512_maskz_min_ps(kAllLanes, a, b); }
  static constexpr __mmask16 kAllLanes = 0xFFFF;
  // In the form that adds to its own register: left to choose, gcc overwrites a or b, moves sums
  // about and runs out of registers.
  static void add_product(type& sum, type a, type b) {
    __asm__("vfmadd231ps %2, %1, %0" : "+v"(sum) : "v"(a), "v"(b));
  }
  static type fma(type a, type b, type c) { return _mm512_fmadd_ps(a, b, c); }
};
#endif

// A vector whose blocks of 8 lie apart floats from each other.
template <int Width>
inline typename zyn_block_lanes<Width>::type zyn_load_blocks(const float* p, int64_t) {
  return zyn_block_lanes<Width>::load(p);
}
template <int Width>
inline void zyn_store_blocks(float* p, int64_t, typename zyn_block_lanes<Width>::type v) {
  zyn_block_lanes<Width>::store(p, v);
}
#if defined(__AVX512F__) && ZYN_VECTOR_BITS == 512
template <>
inline __m512 zyn_load_blocks<16>(const float* p, int64_t apart) {
  return _mm512_insertf32x8(_mm512_castps256_ps512(_mm256_loadu_ps(p)), _mm256_loadu_ps(p + apart),
                            1);
}
template <>
inline void zyn_store_blocks<16>(float* p, int64_t apart, __m512 v) {
  _mm256_storeu_ps(p, _mm512_maskz_extractf32x8_ps(0xFF, v, 0));
  _mm256_storeu_ps(p + apart, _mm512_maskz_extractf32x8_ps(0xFF, v, 1));
}
#endif

// A 256-bit vector under one set of names for float (8 lanes) and double (4 lanes), for
// code that serves both. Internal to the matrix routines. The two bodies say the same in
// different instructions, which no template can choose.
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "simd/zyn_vectors.h"

template <typename T>
struct zyn_lanes;

template <>
struct zyn_lanes<float> {
  using vector = __m256;
  static constexpr int32_t count = 8;
  static vector zero() { return _mm256_setzero_ps(); }
  static vector broadcast(float x) { return _mm256_set1_ps(x); }
  static vector load(const float* p) { return _mm256_loadu_ps(p); }
  static void store(float* p, vector x) { _mm256_storeu_ps(p, x); }
  static vector add(vector a, vector b) { return _mm256_add_ps(a, b); }
  static vector multiply(vector a, vector b) { return _mm256_mul_ps(a, b); }
  static vector fma(vector a, vector b, vector c) { return _mm256_fmadd_ps(a, b, c); }
  static float fma(float a, float b, float c) { return __builtin_fmaf(a, b, c); }
  // The first n lanes, none below 1; the others are zero or stay unwritten.
  static __m256i mask(int64_t n) { return zyn_first_lanes(n); }
  static vector load(const float* p, __m256i mask) { return _mm256_maskload_ps(p, mask); }
  static void store(float* p, __m256i mask, vector x) { _mm256_maskstore_ps(p, mask, x); }
  // The sum of each vector's lanes.
  static void sums(vector a, vector b, vector c, vector d, float* out) {
    const vector abcd = _mm256_hadd_ps(_mm256_hadd_ps(a, b), _mm256_hadd_ps(c, d));
    _mm_storeu_ps(out, _mm_add_ps(_mm256_castps256_ps128(abcd), _mm256_extractf128_ps(abcd, 1)));
  }
};

template <>
struct zyn_lanes<double> {
  using vector = __m256d;
  static constexpr int32_t count = 4;
  static vector zero() { return _mm256_setzero_pd(); }
  static vector broadcast(double x) { return _mm256_set1_pd(x); }
  static vector load(const double* p) { return _mm256_loadu_pd(p); }
  static void store(double* p, vector x) { _mm256_storeu_pd(p, x); }
  static vector add(vector a, vector b) { return _mm256_add_pd(a, b); }
  static vector multiply(vector a, vector b) { return _mm256_mul_pd(a, b); }
  static vector fma(vector a, vector b, vector c) { return _mm256_fmadd_pd(a, b, c); }
  static double fma(double a, double b, double c) { return __builtin_fma(a, b, c); }
  static __m256i mask(int64_t n) { return zyn_first_lanes(2 * (n < count ? n : count)); }
  static vector load(const double* p, __m256i mask) { return _mm256_maskload_pd(p, mask); }
  static void store(double* p, __m256i mask, vector x) { _mm256_maskstore_pd(p, mask, x); }
  static void sums(vector a, vector b, vector c, vector d, double* out) {
    const vector ab = _mm256_hadd_pd(a, b);
    const vector cd = _mm256_hadd_pd(c, d);
    _mm_storeu_pd(out, _mm_add_pd(_mm256_castpd256_pd128(ab), _mm256_extractf128_pd(ab, 1)));
    _mm_storeu_pd(out + 2, _mm_add_pd(_mm256_castpd256_pd128(cd), _mm256_extractf128_pd(cd, 1)));
  }
};

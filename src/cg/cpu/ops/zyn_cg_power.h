// Eight powers x^y: 2^(y * log2 |x|) in double precision, so that the
// float result is within one unit in the last place over the whole range, then the
// special values of C's pow.
#pragma once

#include <immintrin.h>
#include <math.h>
#include <stdint.h>

#include "matrix/zyn_math.h"

// log2 of four positive finite doubles that are not denormal. The mantissa is brought
// to [sqrt(1/2), sqrt(2)), ln m = 2 (s + s^3/3 + ...) with s = (m - 1) / (m + 1).
inline __m256d zyn_log2_4(__m256d x) {
  constexpr double kTwo52 = 4503599627370496.0;
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256i bits = _mm256_castpd_si256(x);
  const __m256d exponent_bits = _mm256_castsi256_pd(
      _mm256_or_si256(_mm256_srli_epi64(bits, 52), _mm256_castpd_si256(_mm256_set1_pd(kTwo52))));
  __m256d e = _mm256_sub_pd(exponent_bits, _mm256_set1_pd(kTwo52 + 1023.0));
  __m256d m = _mm256_or_pd(
      _mm256_and_pd(x, _mm256_castsi256_pd(_mm256_set1_epi64x(0x000FFFFFFFFFFFFF))), one);
  const __m256d high = _mm256_cmp_pd(m, _mm256_set1_pd(1.4142135623730951), _CMP_GT_OQ);
  m = _mm256_blendv_pd(m, _mm256_mul_pd(m, _mm256_set1_pd(0.5)), high);
  e = _mm256_add_pd(e, _mm256_and_pd(high, one));
  const __m256d s = _mm256_div_pd(_mm256_sub_pd(m, one), _mm256_add_pd(m, one));
  const __m256d s2 = _mm256_mul_pd(s, s);
  __m256d sum = _mm256_set1_pd(1.0 / 17);
  for (int k = 15; k >= 1; k -= 2) sum = _mm256_fmadd_pd(sum, s2, _mm256_set1_pd(1.0 / k));
  const __m256d log = _mm256_mul_pd(_mm256_mul_pd(s, sum), _mm256_set1_pd(2.8853900817779268));
  return _mm256_add_pd(e, log);
}

inline __m128 zyn_power_4(__m128 positive, __m128 y) {
  __m256d t = _mm256_mul_pd(zyn_log2_4(_mm256_cvtps_pd(positive)), _mm256_cvtps_pd(y));
  t = _mm256_max_pd(_mm256_min_pd(t, _mm256_set1_pd(1000.0)), _mm256_set1_pd(-1000.0));
  return _mm256_cvtpd_ps(zyn_exp2_4(t));
}

// x^y as C's pow gives it: 1 for y = 0 and for x = 1, NaN for negative x unless y is an integer.
inline __m256 zyn_power8(__m256 x, __m256 y) {
  const __m256 sign_bit = _mm256_set1_ps(-0.0f);
  const __m256 infinity = _mm256_set1_ps(INFINITY);
  const __m256 zero = _mm256_setzero_ps();
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 size = _mm256_andnot_ps(sign_bit, x);
  __m256 result =
      _mm256_set_m128(zyn_power_4(_mm256_extractf128_ps(size, 1), _mm256_extractf128_ps(y, 1)),
                      zyn_power_4(_mm256_castps256_ps128(size), _mm256_castps256_ps128(y)));
  const __m256 is_zero = _mm256_cmp_ps(size, zero, _CMP_EQ_OQ);
  const __m256 is_infinite = _mm256_cmp_ps(size, infinity, _CMP_EQ_OQ);
  const __m256 grows = _mm256_cmp_ps(y, zero, _CMP_GT_OQ);
  result = _mm256_blendv_ps(result, _mm256_andnot_ps(grows, infinity), is_zero);
  result = _mm256_blendv_ps(result, _mm256_and_ps(grows, infinity), is_infinite);
  result = _mm256_blendv_ps(result, one, _mm256_cmp_ps(size, one, _CMP_EQ_OQ));
  const __m256 whole = _mm256_cmp_ps(y, _mm256_floor_ps(y), _CMP_EQ_OQ);
  const __m256 half = _mm256_mul_ps(y, _mm256_set1_ps(0.5f));
  const __m256 odd =
      _mm256_andnot_ps(_mm256_cmp_ps(half, _mm256_floor_ps(half), _CMP_EQ_OQ), whole);
  result = _mm256_or_ps(result, _mm256_and_ps(odd, _mm256_and_ps(sign_bit, x)));
  // Neither infinite nor whole: there is no real power of a negative number.
  __m256 invalid =
      _mm256_andnot_ps(_mm256_or_ps(whole, is_infinite), _mm256_cmp_ps(x, zero, _CMP_LT_OQ));
  invalid = _mm256_or_ps(invalid, _mm256_cmp_ps(x, y, _CMP_UNORD_Q));
  result = _mm256_blendv_ps(result, _mm256_set1_ps(NAN), invalid);
  return _mm256_blendv_ps(
      result, one,
      _mm256_or_ps(_mm256_cmp_ps(y, zero, _CMP_EQ_OQ), _mm256_cmp_ps(x, one, _CMP_EQ_OQ)));
}

// For one exponent.
inline __m256 zyn_power8(__m256 x, float y) { return zyn_power8(x, _mm256_set1_ps(y)); }

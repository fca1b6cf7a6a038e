// Exponential, logarithm, hyperbolic tangent, logistic sigmoid, error function and softplus of
// 8 floats at once, and the exponential of one float with the same bits. Results lie within 2
// units in the last place of the exact ones over the whole range, denormal arguments
// and results included where a function does not say otherwise; zeros keep their sign where the
// function does, infinities and NaN give what the function's limit gives. Polynomials are minimax
// fits (Remez, the error function's by weighted least squares) of relative error below 0.1 units in
// the last place, with coefficients rounded to float.
#pragma once

#include <float.h>
#include <immintrin.h>

// e^r - 1 = r + r^2 q(r) for |r| <= ln 2 / 2.
inline __m256 zyn_exp_tail8(__m256 r) {
  __m256 q = _mm256_set1_ps(0x1.6a23ccp-10f);
  q = _mm256_fmadd_ps(q, r, _mm256_set1_ps(0x1.123a2p-7f));
  q = _mm256_fmadd_ps(q, r, _mm256_set1_ps(0x1.5558f2p-5f));
  q = _mm256_fmadd_ps(q, r, _mm256_set1_ps(0x1.555492p-3f));
  q = _mm256_fmadd_ps(q, r, _mm256_set1_ps(0x1.fffffcp-2f));
  return _mm256_fmadd_ps(_mm256_mul_ps(r, r), q, r);
}

// x = n ln 2 + r, |r| <= ln 2 / 2, for finite x; n is returned.
inline __m256 zyn_exp_reduce8(__m256 x, __m256* r) {
  const __m256 n = _mm256_round_ps(_mm256_mul_ps(x, _mm256_set1_ps(1.442695022f)),
                                   _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  // ln 2 in two parts, both fused.
  *r = _mm256_fnmadd_ps(n, _mm256_set1_ps(0.6931471825f), x);
  *r = _mm256_fnmadd_ps(n, _mm256_set1_ps(-1.904654212e-9f), *r);
  return n;
}

// e^x: 0 below about -103.97, infinity above about 88.72.
inline __m256 zyn_exp8(__m256 x) {
  // The limits lie beyond the first zero and the first infinite result, and inside
  // the exponents that two factors can carry. A NaN passes: it is the second operand.
  x = _mm256_min_ps(_mm256_set1_ps(89.0f), _mm256_max_ps(_mm256_set1_ps(-105.0f), x));
  __m256 r;
  const __m256 n = zyn_exp_reduce8(x, &r);
  const __m256 p = _mm256_add_ps(zyn_exp_tail8(r), _mm256_set1_ps(1.0f));
  // 2^n as two factors: n reaches beyond the exponents of one float on both sides,
  // and only the last product may round to a denormal.
  const __m256i exponent = _mm256_cvtps_epi32(n);
  const __m256i half = _mm256_srai_epi32(exponent, 1);
  const __m256i bias = _mm256_set1_epi32(127);
  const __m256i first = _mm256_slli_epi32(_mm256_add_epi32(half, bias), 23);
  const __m256i second =
      _mm256_slli_epi32(_mm256_add_epi32(_mm256_sub_epi32(exponent, half), bias), 23);
  return _mm256_mul_ps(_mm256_mul_ps(p, _mm256_castsi256_ps(first)), _mm256_castsi256_ps(second));
}

// e^x - 1 for x not above 0.
inline __m256 zyn_expm1_8(__m256 x) {
  __m256 r;
  // From -87 on the result is -1 in single precision. A NaN passes.
  const __m256 n = zyn_exp_reduce8(_mm256_max_ps(_mm256_set1_ps(-87.0f), x), &r);
  // 2^n (1 + t) - 1: for n = 0 nothing cancels, below 2^n - 1 is at most -1/2.
  const __m256 scale = _mm256_castsi256_ps(
      _mm256_slli_epi32(_mm256_add_epi32(_mm256_cvtps_epi32(n), _mm256_set1_epi32(127)), 23));
  const __m256 result =
      _mm256_fmadd_ps(scale, zyn_exp_tail8(r), _mm256_sub_ps(scale, _mm256_set1_ps(1.0f)));
  return _mm256_or_ps(result, _mm256_and_ps(x, _mm256_set1_ps(-0.0f)));
}

// ln x: -infinity for both zeros, NaN below.
inline __m256 zyn_log8(__m256 x) {
  const __m256 zero = _mm256_setzero_ps();
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 infinity = _mm256_set1_ps(__builtin_inff());
  // Denormals are brought to normal numbers first.
  const __m256 tiny = _mm256_cmp_ps(x, _mm256_set1_ps(0x1p-126f), _CMP_LT_OQ);
  const __m256 normal = _mm256_blendv_ps(x, _mm256_mul_ps(x, _mm256_set1_ps(0x1p24f)), tiny);
  // x = 2^e m with m in [sqrt(1/2), sqrt(2)): taking sqrt(1/2)'s bits away leaves e
  // in the exponent field.
  const __m256i root = _mm256_set1_epi32(0x3F3504F3);
  const __m256i moved = _mm256_sub_epi32(_mm256_castps_si256(normal), root);
  const __m256i mantissa =
      _mm256_add_epi32(_mm256_and_si256(moved, _mm256_set1_epi32(0x007FFFFF)), root);
  __m256 e = _mm256_cvtepi32_ps(_mm256_srai_epi32(moved, 23));
  e = _mm256_sub_ps(e, _mm256_and_ps(tiny, _mm256_set1_ps(24.0f)));
  // ln(1 + f) = f + f^2 (f p(f) - 1/2).
  const __m256 f = _mm256_sub_ps(_mm256_castsi256_ps(mantissa), one);
  __m256 p = _mm256_set1_ps(-0x1.38b5aep-4f);
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(0x1.055b84p-3f));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(-0x1.0d8546p-3f));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(0x1.22da1ap-3f));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(-0x1.547244p-3f));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(0x1.99a008p-3f));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(-0x1.000226p-2f));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(0x1.555554p-2f));
  p = _mm256_fmadd_ps(p, f, _mm256_set1_ps(-0.5f));
  // The high part of ln 2 has 17 bits, so that its product with e is exact.
  const __m256 low = _mm256_mul_ps(e, _mm256_set1_ps(1.428606765e-6f));
  const __m256 tail = _mm256_add_ps(f, _mm256_fmadd_ps(_mm256_mul_ps(f, f), p, low));
  __m256 result = _mm256_fmadd_ps(e, _mm256_set1_ps(0x1.62e4p-1f), tail);
  // Infinity and NaN stay; zeros give -infinity, negative numbers NaN.
  result = _mm256_blendv_ps(result, x, _mm256_cmp_ps(x, infinity, _CMP_NLT_UQ));
  result = _mm256_blendv_ps(result, _mm256_set1_ps(__builtin_nanf("")),
                            _mm256_cmp_ps(x, zero, _CMP_LT_OQ));
  return _mm256_blendv_ps(result, _mm256_set1_ps(-__builtin_inff()),
                          _mm256_cmp_ps(x, zero, _CMP_EQ_OQ));
}

// tanh x.
inline __m256 zyn_tanh8(__m256 x) {
  const __m256 sign = _mm256_and_ps(x, _mm256_set1_ps(-0.0f));
  const __m256 a = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), x);
  // Near 0: a + a^3 p(a^2). The difference below would lose the leading bits.
  const __m256 z = _mm256_mul_ps(a, a);
  __m256 p = _mm256_set1_ps(-0x1.75e1c6p-8f);
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(0x1.52269ap-6f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(-0x1.b83c5ap-5f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(0x1.110726p-3f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(-0x1.555532p-2f));
  const __m256 inner = _mm256_fmadd_ps(_mm256_mul_ps(a, z), p, a);
  // Elsewhere: 1 - 2 / (e^2a + 1).
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 power = zyn_exp8(_mm256_add_ps(a, a));
  const __m256 outer =
      _mm256_sub_ps(one, _mm256_div_ps(_mm256_set1_ps(2.0f), _mm256_add_ps(power, one)));
  const __m256 is_inner = _mm256_cmp_ps(a, _mm256_set1_ps(0.625f), _CMP_LT_OQ);
  return _mm256_or_ps(_mm256_blendv_ps(outer, inner, is_inner), sign);
}

// e^x for x not above 0; results below the normal range may be 0.
inline __m256 zyn_exp_below8(__m256 x) {
  x = _mm256_max_ps(_mm256_set1_ps(-88.0f), x);  // where the exponent's bits become 0; NaN passes
  // The last bits of the sum are n plus what exponents are biased by.
  const __m256 shifter = _mm256_set1_ps(0x1.8p23f + 127);
  const __m256 shifted = _mm256_fmadd_ps(x, _mm256_set1_ps(1.442695022f), shifter);
  const __m256 n = _mm256_sub_ps(shifted, shifter);
  __m256 r = _mm256_fnmadd_ps(n, _mm256_set1_ps(0.6931471825f), x);
  r = _mm256_fnmadd_ps(n, _mm256_set1_ps(-1.904654212e-9f), r);
  const __m256 scale = _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_castps_si256(shifted), 23));
  return _mm256_fmadd_ps(scale, zyn_exp_tail8(r), scale);
}

// The bits of zyn_exp8 for x not above 0 while results below the normal range are flushed to 0: one
// factor reaches them all.
inline __m256 zyn_exp_flushed8(__m256 x) {
  __m256 r;  // from -88 on the exponent's bits are 0; a NaN passes
  const __m256 n = zyn_exp_reduce8(_mm256_max_ps(_mm256_set1_ps(-88.0f), x), &r);
  const __m256 p = _mm256_add_ps(zyn_exp_tail8(r), _mm256_set1_ps(1.0f));
  const __m256i exponent = _mm256_add_epi32(_mm256_cvtps_epi32(n), _mm256_set1_epi32(127));
  return _mm256_mul_ps(p, _mm256_castsi256_ps(_mm256_slli_epi32(exponent, 23)));
}

// 1 / (1 + e^-x), within 3 units in the last place; results below the normal range may be 0.
inline __m256 zyn_sigmoid8(__m256 x) {
  // With e^-|x| nothing overflows, and small results keep their precision.
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 power = zyn_exp_below8(_mm256_or_ps(x, _mm256_set1_ps(-0.0f)));
  return _mm256_div_ps(_mm256_blendv_ps(one, power, x), _mm256_add_ps(one, power));
}

// ln (1 + e^x).
inline __m256 zyn_softplus8(__m256 x) {
  // max(x, 0) + ln (1 + t) with t = e^-|x|, which is at most 1.
  const __m256 one = _mm256_set1_ps(1.0f);
  const __m256 t = zyn_exp8(_mm256_or_ps(x, _mm256_set1_ps(-0.0f)));
  const __m256 u = _mm256_add_ps(one, t);
  // What rounding u lost comes back through the logarithm's slope, 1 / u.
  const __m256 lost = _mm256_sub_ps(t, _mm256_sub_ps(u, one));
  const __m256 log = _mm256_add_ps(zyn_log8(u), _mm256_div_ps(lost, u));
  return _mm256_add_ps(_mm256_max_ps(x, _mm256_setzero_ps()), log);
}

// The error function.
inline __m256 zyn_erf8(__m256 x) {
  const __m256 sign = _mm256_and_ps(x, _mm256_set1_ps(-0.0f));
  const __m256 a = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), x);
  // Up to 1: a + a p(a^2).
  const __m256 z = _mm256_mul_ps(a, a);
  __m256 p = _mm256_set1_ps(0x1.4ae4dp-14f);
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(-0x1.a485ecp-11f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(0x1.5419f6p-8f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(-0x1.b7fbb4p-6f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(0x1.ce2d2p-4f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(-0x1.81273ep-2f));
  p = _mm256_fmadd_ps(p, z, _mm256_set1_ps(0x1.06eba8p-3f));
  const __m256 inner = _mm256_fmadd_ps(a, p, a);
  // Beyond: 1 - e^(-b q(b)); from 3.93 on that is 1.
  const __m256 b = _mm256_min_ps(_mm256_set1_ps(3.93f), a);
  __m256 q = _mm256_set1_ps(0x1.daedc8p-17f);
  q = _mm256_fmadd_ps(q, b, _mm256_set1_ps(-0x1.71a656p-12f));
  q = _mm256_fmadd_ps(q, b, _mm256_set1_ps(0x1.ed8a6cp-9f));
  q = _mm256_fmadd_ps(q, b, _mm256_set1_ps(-0x1.89a8c6p-6f));
  q = _mm256_fmadd_ps(q, b, _mm256_set1_ps(0x1.b46eaap-4f));
  q = _mm256_fmadd_ps(q, b, _mm256_set1_ps(0x1.45191ep-1f));
  q = _mm256_fmadd_ps(q, b, _mm256_set1_ps(0x1.20f25p+0f));
  const __m256 rest = zyn_exp8(_mm256_fnmadd_ps(b, q, _mm256_setzero_ps()));
  const __m256 outer = _mm256_sub_ps(_mm256_set1_ps(1.0f), rest);
  const __m256 is_outer = _mm256_cmp_ps(a, _mm256_set1_ps(1.0f), _CMP_GE_OQ);
  return _mm256_or_ps(_mm256_blendv_ps(inner, outer, is_outer), sign);
}

// x tanh(ln (1 + e^x)) = x n / (n + 2) with n = e^x (e^x + 2): one exponential, no
// cancellation. From 20 on the quotient is 1 in single precision; below, x is kept
// finite so that the limit 0 comes out for minus infinity. Within 1e-6, relative.
inline __m256 zyn_mish8(__m256 x) {
  const __m256 e = zyn_exp8(_mm256_min_ps(_mm256_set1_ps(20.0f), x));
  const __m256 two = _mm256_set1_ps(2.0f);
  const __m256 n = _mm256_mul_ps(e, _mm256_add_ps(e, two));
  const __m256 factor = _mm256_div_ps(n, _mm256_add_ps(n, two));
  return _mm256_mul_ps(_mm256_max_ps(_mm256_set1_ps(-FLT_MAX), x), factor);
}

// 2^t for t in [-1000, 1000]: 2^n times the series of e^(f ln 2), |f| <= 1/2.
inline __m256d zyn_exp2_4(__m256d t) {
  const __m256d n = _mm256_round_pd(t, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  const __m256d g = _mm256_mul_pd(_mm256_sub_pd(t, n), _mm256_set1_pd(0.6931471805599453));
  __m256d sum = _mm256_set1_pd(1.0);
  for (int k = 12; k >= 1; k--)
    sum = _mm256_fmadd_pd(_mm256_mul_pd(sum, g), _mm256_set1_pd(1.0 / k), _mm256_set1_pd(1.0));
  const __m256i power = _mm256_slli_epi64(
      _mm256_add_epi64(_mm256_cvtepi32_epi64(_mm256_cvtpd_epi32(n)), _mm256_set1_epi64x(1023)), 52);
  return _mm256_mul_pd(sum, _mm256_castsi256_pd(power));
}

// One float through a vector's lane: the same bits.
inline float zyn_exp1(float x) { return _mm256_cvtss_f32(zyn_exp8(_mm256_set1_ps(x))); }

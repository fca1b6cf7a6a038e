// Vector mathematics against the double functions of the C library.
#include <gtest/gtest.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include "matrix/zyn_math.h"
#include "simd/zyn_flush.h"

namespace {

float of_bits(uint32_t bits) {
  float value;
  memcpy(&value, &bits, sizeof(value));
  return value;
}

uint32_t bits_of(float value) {
  uint32_t bits;
  memcpy(&bits, &value, sizeof(bits));
  return bits;
}

// Distance of got to the exact value in units of the last place of a float of the
// exact value's size; the denormals' unit below the normal numbers. What is exactly a float,
// of zeros and infinities too, must be met.
double ulps(float got, double exact) {
  if (isnan(exact)) return isnan(got) ? 0 : INFINITY;
  const float nearest = static_cast<float>(exact);
  if (got == nearest && signbit(got) == signbit(nearest)) return 0;
  if (double{nearest} == exact || isinf(nearest) || isinf(got) || isnan(got)) return INFINITY;
  int exponent;
  frexp(exact, &exponent);
  return fabs(got - exact) / ldexp(1.0, exponent - 24 < -149 ? -149 : exponent - 24);
}

double exact_sigmoid(double x) { return 1 / (1 + exp(-x)); }
double exact_softplus(double x) { return x > 700 ? x : log1p(exp(x)); }
// e^x - 1 of the negative numbers: the vector function knows no others.
double exact_expm1(double x) { return expm1(-fabs(x)); }
__m256 expm1_below(__m256 x) { return zyn_expm1_8(_mm256_or_ps(x, _mm256_set1_ps(-0.0f))); }

struct Function {
  const char* name;
  __m256 (*vector)(__m256);
  double (*exact)(double);
  double most_ulps = 2;
  bool flushes = false;  // results below the normal range may be 0
};
const Function kFunctions[] = {{"exp", zyn_exp8, exp},
                               {"log", zyn_log8, log},
                               {"tanh", zyn_tanh8, tanh},
                               {"sigmoid", zyn_sigmoid8, exact_sigmoid, 3, true},
                               {"softplus", zyn_softplus8, exact_softplus},
                               {"erf", zyn_erf8, erf},
                               {"expm1", expm1_below, exact_expm1}};

float first_of(const Function& f, float x) { return _mm256_cvtss_f32(f.vector(_mm256_set1_ps(x))); }

// Eight floats step apart, from first on: results within 2 or 3 ulp, and one lane's bits equal
// to what it gives among equals.
void check_eight(const Function& f, uint32_t first, uint32_t step) {
  float x[8], y[8];
  for (uint32_t i = 0; i < 8; i++) x[i] = of_bits(first + i * step);
  _mm256_storeu_ps(y, f.vector(_mm256_loadu_ps(x)));
  for (int i = 0; i < 8; i++) {
    const double exact = f.exact(x[i]);
    if (f.flushes && fabs(exact) < 0x1p-126 && y[i] == 0) continue;
    ASSERT_LE(ulps(y[i], exact), f.most_ulps) << f.name << "(" << x[i] << ") = " << y[i];
  }
  const uint32_t lane = first / step / 8 % 8;
  ASSERT_EQ(bits_of(y[lane]), bits_of(first_of(f, x[lane]))) << f.name << "(" << x[lane] << ")";
}

// Every 2^11-th float with an odd start (2 million, all exponents, both signs), and the
// neighbours of where the way of computing changes, results turn denormal, infinite or zero,
// or arguments do.
TEST(Math, WholeRangeAndSeamsStayClose) {
  constexpr uint32_t kStep = 2048;
  constexpr float kSeams[] = {
      0.34657359f, 0.625f,    0.70710678f,       1.0f,        1.41421356f,   9.0f,
      17.3f,       87.34f,    87.6831f,          88.7228317f, 103.27893066f, 103.9720764f,
      105.0f,      0x1p-126f, 0x1p-149f * 20000, 8.4e-41f,    3.402823e38f};
  for (const Function& f : kFunctions) {
    for (uint64_t first = 1023; first < 0x100000000u && !HasFatalFailure(); first += 8 * kStep)
      check_eight(f, static_cast<uint32_t>(first), kStep);
    for (float seam : kSeams)
      for (uint32_t sign : {0u, 0x80000000u})
        for (uint32_t k = 0; k < 40000 && !HasFatalFailure(); k += 8)
          check_eight(f, (bits_of(seam) | sign) - 20000 + k, 1);
  }
  EXPECT_EQ(bits_of(zyn_exp1(-3.7f)), bits_of(first_of(kFunctions[0], -3.7f)));
}

// Every 263rd number below 0, and NaN.
TEST(Math, FlushedExponentialHasTheBitsOfTheOther) {
  const zyn_flush_denormals flush;
  for (uint64_t bits = 0x80000000u; bits < 0x100000000u; bits += 263) {
    const __m256 x = _mm256_set1_ps(of_bits(static_cast<uint32_t>(bits)));
    const float y = _mm256_cvtss_f32(zyn_exp_flushed8(x)), other = _mm256_cvtss_f32(zyn_exp8(x));
    ASSERT_EQ(bits_of(y), bits_of(other)) << of_bits(static_cast<uint32_t>(bits));
  }
}

}  // namespace

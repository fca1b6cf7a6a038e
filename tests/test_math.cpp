// Vector mathematics against the double functions of the C library.
#include <gtest/gtest.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <limits>

#include "matrix/zyn_math.h"

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
// exact value's size; the denormals' unit below the normal numbers.
double ulps(float got, double exact) {
  if (isnan(exact)) return isnan(got) ? 0 : INFINITY;
  const float nearest = static_cast<float>(exact);
  if (got == nearest) return 0;
  if (isinf(nearest) || isinf(got) || isnan(got)) return INFINITY;
  int exponent;
  frexp(exact, &exponent);
  return fabs(got - exact) / ldexp(1.0, exponent - 24 < -149 ? -149 : exponent - 24);
}

double exact_sigmoid(double x) { return 1 / (1 + exp(-x)); }

struct Function {
  const char* name;
  __m256 (*vector)(__m256);
  float (*scalar)(float);
  double (*exact)(double);
};
const Function kFunctions[] = {{"exp", zyn_exp8, zyn_exp1, exp},
                               {"log", zyn_log8, zyn_log1, log},
                               {"tanh", zyn_tanh8, zyn_tanh1, tanh},
                               {"sigmoid", zyn_sigmoid8, zyn_sigmoid1, exact_sigmoid}};

// Eight floats step apart, from first on: results within 2 ulp, and each lane's bits
// equal to the scalar function's for one lane of the eight.
void check_eight(const Function& f, uint32_t first, uint32_t step) {
  float x[8], y[8];
  for (uint32_t i = 0; i < 8; i++) x[i] = of_bits(first + i * step);
  _mm256_storeu_ps(y, f.vector(_mm256_loadu_ps(x)));
  for (int i = 0; i < 8; i++) {
    if (ulps(y[i], f.exact(x[i])) > 2)
      FAIL() << f.name << "(" << x[i] << ") = " << y[i] << ", exact " << f.exact(x[i]);
  }
  const uint32_t lane = first / step / 8 % 8;
  ASSERT_EQ(bits_of(y[lane]), bits_of(f.scalar(x[lane]))) << f.name << "(" << x[lane] << ")";
}

TEST(Math, WholeRangeStaysWithinTwoUlp) {
  // Every 2^11-th float with an odd start: 2 million, all exponents, both signs.
  constexpr uint32_t kStep = 2048;
  for (const Function& f : kFunctions) {
    for (uint64_t first = 1023; first < 0x100000000u && !HasFatalFailure(); first += 8 * kStep)
      check_eight(f, static_cast<uint32_t>(first), kStep);
  }
}

// Neighbouring floats where the way of computing changes or results turn denormal,
// infinite or zero.
TEST(Math, SeamsStayWithinTwoUlp) {
  constexpr float kSeams[] = {
      0.34657359f, 0.625f,           0.70710678f, 1.0f,          1.41421356f,  9.0f,
      17.3f,       87.34f,           88.7228317f, 103.27893066f, 103.9720764f, 105.0f,
      0x1p-126f,   0x1p-149f * 40000};
  for (const Function& f : kFunctions)
    for (float seam : kSeams)
      for (uint32_t sign : {0u, 0x80000000u}) {
        for (uint32_t k = 0; k < 40000 && !HasFatalFailure(); k += 8)
          check_eight(f, (bits_of(seam) | sign) - 20000 + k, 1);
      }
}

TEST(Math, SpecialValuesAreExact) {
  constexpr float kInf = std::numeric_limits<float>::infinity();
  const float nan = nanf("");
  const struct {
    const Function& f;
    float x, y;
  } cases[] = {{kFunctions[0], 0.0f, 1.0f},      {kFunctions[0], -0.0f, 1.0f},
               {kFunctions[0], kInf, kInf},      {kFunctions[0], -kInf, 0.0f},
               {kFunctions[0], 0x1p-149f, 1.0f}, {kFunctions[0], -3.4e38f, 0.0f},
               {kFunctions[0], 3.4e38f, kInf},   {kFunctions[1], 0.0f, -kInf},
               {kFunctions[1], -0.0f, -kInf},    {kFunctions[1], kInf, kInf},
               {kFunctions[1], -kInf, nan},      {kFunctions[1], -0x1p-149f, nan},
               {kFunctions[1], 1.0f, 0.0f},      {kFunctions[2], 0.0f, 0.0f},
               {kFunctions[2], -0.0f, -0.0f},    {kFunctions[2], kInf, 1.0f},
               {kFunctions[2], -kInf, -1.0f},    {kFunctions[2], 0x1p-149f, 0x1p-149f},
               {kFunctions[2], -20.0f, -1.0f},   {kFunctions[3], 0.0f, 0.5f},
               {kFunctions[3], -0.0f, 0.5f},     {kFunctions[3], kInf, 1.0f},
               {kFunctions[3], -kInf, 0.0f},     {kFunctions[0], nan, nan},
               {kFunctions[1], nan, nan},        {kFunctions[2], nan, nan},
               {kFunctions[3], nan, nan}};
  for (const auto& c : cases) {
    const float got = c.f.scalar(c.x);
    if (isnan(c.y))
      EXPECT_TRUE(isnan(got)) << c.f.name << "(" << c.x << ") = " << got;
    else
      EXPECT_EQ(bits_of(got), bits_of(c.y)) << c.f.name << "(" << c.x << ") = " << got;
  }
}

}  // namespace

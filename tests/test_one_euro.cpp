// The one-euro filter: each step against the formulas in long double.
#include <math.h>

#include "support/buffers.h"
#include "zyncore.h"

namespace {

TEST(OneEuro, EveryStepFollowsTheFormulas) {
  zyn_test::Random random(5);
  for (int i = 0; i < 20000; i++) {
    const zyn_one_euro_param p = {random.real(0.005f, 0.2f), random.real(0.1f, 5),
                                  random.real(0.05f, 5), random.real(0, 0.1f)};
    const float x = random.real(-500, 500), last = i % 10 ? random.real(-500, 500) : x;
    const float last_derivative = random.real(-100, 100);
    float derivative = NAN;
    const float value = zyn_one_euro_filter_v2(x, last, last_derivative, &p, &derivative);
    // 1 / (1 + tau / te) with tau = 1 / (2 pi f).
    const auto weight = [&](long double f) { return 1 / (1 + 1 / (6.2831852L * f * p.te)); };
    const long double wd = weight(p.derivative_cutoff), step = static_cast<long double>(x) - last;
    const long double d = wd * (step / p.te) + (1 - wd) * last_derivative;
    const long double w = weight(p.min_cutoff + p.beta * fabsl(d));
    ASSERT_NEAR(derivative, static_cast<double>(d), 1e-6 * (fabs(x - last) / p.te + 100)) << i;
    ASSERT_NEAR(value, static_cast<double>(last + w * step), 4e-4) << i;
  }
}

// Powers of two keep every other step exact, so that the product shows which of two
// neighbouring floats 2 pi became.
TEST(OneEuro, TwoPiHasSevenDecimals) {
  const zyn_one_euro_param p = {0x1p-7f, 0x1p-10f, 1, 0};
  float derivative = 0;
  zyn_one_euro_filter_v2(1, 0, 0, &p, &derivative);
  const float r = 6.283185005187988f * 0x1p-17f;
  EXPECT_EQ(derivative, r / (r + 1) * 128);
}

}  // namespace

// One step of the one-euro filter: an adaptive low-pass filter whose cut-off frequency
// rises with the speed of the signal.
#include <math.h>

#include "zyncore.h"

namespace {

// 2 * pi to seven decimal places; the filter's results depend on these digits.
constexpr double kTwoPi = 6.2831852;

// The weight of the new sample for a cut-off frequency in hertz.
float weight(float cutoff, float te) {
  const float r = static_cast<float>(kTwoPi * cutoff * te);
  return r / (r + 1);
}

}  // namespace

float zyn_one_euro_filter_v2(float x, float previous, float previous_derivative,
                             const zyn_one_euro_param* param, float* derivative) {
  const float derivative_weight = weight(param->derivative_cutoff, param->te);
  const float dx = (x - previous) / param->te;
  const float speed = derivative_weight * dx + (1 - derivative_weight) * previous_derivative;
  *derivative = speed;
  const float cutoff =
      static_cast<float>(param->min_cutoff + static_cast<double>(param->beta) * fabsf(speed));
  const float value_weight = weight(cutoff, param->te);
  return (1 - value_weight) * previous + value_weight * x;
}

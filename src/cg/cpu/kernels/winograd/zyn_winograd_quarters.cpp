#include "cg/cpu/kernels/winograd/zyn_winograd_quarters.h"

#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kLanes = 8;

struct last_quarter {
  float* c22;
  const float *u3, *p5;
  int64_t count;
  const float* bias;

  template <int kActivation>
  void run() const {
    const __m256 add = _mm256_loadu_ps(bias);
    for (int64_t i = 0; i < count; i += kLanes) {
      const __m256 sum = _mm256_add_ps(_mm256_loadu_ps(u3 + i), _mm256_loadu_ps(p5 + i));
      _mm256_storeu_ps(c22 + i, zyn_activate<kActivation>(_mm256_add_ps(sum, add)));
    }
  }
};

}  // namespace

void zyn_winograd_quarter_weights(const double (&a)[4], double (&factors)[kZynWinogradProducts]) {
  const double s1 = a[2] + a[3], s2 = s1 - a[0];
  factors[kP1] = a[0];
  factors[kP2] = a[1];
  factors[kP3] = a[1] - s2;
  factors[kP4] = a[3];
  factors[kP5] = s1;
  factors[kP6] = s2;
  factors[kP7] = a[0] - a[2];
}

void zyn_winograd_quarter_inputs(const float* const (&b)[4], int64_t count, float* const (&t)[4]) {
  for (int64_t i = 0; i < count; i += kLanes) {
    const __m256 b11 = _mm256_loadu_ps(b[0] + i), b12 = _mm256_loadu_ps(b[1] + i);
    const __m256 b21 = _mm256_loadu_ps(b[2] + i), b22 = _mm256_loadu_ps(b[3] + i);
    const __m256 t1 = _mm256_sub_ps(b12, b11), t2 = _mm256_sub_ps(b22, t1);
    _mm256_storeu_ps(t[0] + i, t1);
    _mm256_storeu_ps(t[1] + i, t2);
    _mm256_storeu_ps(t[2] + i, _mm256_sub_ps(b22, b12));
    _mm256_storeu_ps(t[3] + i, _mm256_sub_ps(b21, t2));
  }
}

void zyn_winograd_last_quarter(float* c22, const float* u3, const float* p5, int64_t count,
                               const float* bias, int32_t activation) {
  zyn_with_activation(activation, last_quarter{c22, u3, p5, count, bias});
}

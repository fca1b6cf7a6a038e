// What follows a convolution: bias, then an activation. The same arithmetic serves
// values in registers and the separate passes over a finished output.
#pragma once

#include <immintrin.h>
#include <stdint.h>

enum zyn_conv_activation : int32_t {
  ZYN_CONV_NONE,
  ZYN_CONV_RELU,
  ZYN_CONV_HARD_SWISH,
  ZYN_CONV_HARD_SIGMOID
};

struct zyn_conv_epilogue {
  const float* bias;  // one per output channel, or null
  zyn_conv_activation activation;
};

// The activations: relu max(y, 0); hard-swish (y * min(max(y + 3, 0), 6)) * (1 / 6);
// hard-sigmoid min(max(y + 3, 0), 6) * (1 / 6).
inline constexpr float kZynSixth = 1.0f / 6.0f;

inline __m256 zyn_activate(__m256 y, zyn_conv_activation activation) {
  const __m256 zero = _mm256_setzero_ps();
  if (activation == ZYN_CONV_RELU) return _mm256_max_ps(zero, y);  // NaN stays NaN
  const __m256 shifted = _mm256_add_ps(y, _mm256_set1_ps(3.0f));
  const __m256 gate = _mm256_min_ps(_mm256_max_ps(shifted, zero), _mm256_set1_ps(6.0f));
  const __m256 sixth = _mm256_set1_ps(kZynSixth);
  if (activation == ZYN_CONV_HARD_SWISH) return _mm256_mul_ps(_mm256_mul_ps(y, gate), sixth);
  return activation == ZYN_CONV_HARD_SIGMOID ? _mm256_mul_ps(gate, sixth) : y;
}

// The activation over count values in place.
void zyn_activate_values(float* values, int64_t count, zyn_conv_activation activation);

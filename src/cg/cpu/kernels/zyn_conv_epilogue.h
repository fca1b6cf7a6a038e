// The epilogue, bias and activation: what happens to the finished sums of a convolution.
// Kernels apply it to a tile or row that is still in registers, or to rows in place; both
// ways do the same arithmetic in the same order, the bias first.
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "simd/zyn_vectors.h"

struct zyn_conv_epilogue {
  const float* bias;   // one per output channel, or null
  int32_t activation;  // ZYN_EPILOGUE_*
};
enum {
  ZYN_EPILOGUE_NONE = 0,
  ZYN_EPILOGUE_RELU = 1,
  ZYN_EPILOGUE_HARD_SWISH = 2,
  ZYN_EPILOGUE_HARD_SIGMOID = 4
};

template <int kActivation>
inline __m256 zyn_activate(__m256 y) {
  const __m256 zero = _mm256_setzero_ps();
  if (kActivation == ZYN_EPILOGUE_RELU) return _mm256_max_ps(zero, y);  // NaN stays NaN
  if (kActivation == ZYN_EPILOGUE_HARD_SWISH || kActivation == ZYN_EPILOGUE_HARD_SIGMOID) {
    const __m256 gate = _mm256_min_ps(_mm256_max_ps(_mm256_add_ps(y, _mm256_set1_ps(3.0f)), zero),
                                      _mm256_set1_ps(6.0f));
    const __m256 scaled = kActivation == ZYN_EPILOGUE_HARD_SWISH ? _mm256_mul_ps(y, gate) : gate;
    return _mm256_mul_ps(scaled, _mm256_set1_ps(1.0f / 6.0f));
  }
  return y;
}

// Calls action with the activation as a template value: action.template run<code>().
template <typename Action>
[[gnu::always_inline]] inline void zyn_with_activation(int32_t activation, const Action& action) {
  switch (activation) {
    case ZYN_EPILOGUE_RELU:
      return action.template run<ZYN_EPILOGUE_RELU>();
    case ZYN_EPILOGUE_HARD_SWISH:
      return action.template run<ZYN_EPILOGUE_HARD_SWISH>();
    case ZYN_EPILOGUE_HARD_SIGMOID:
      return action.template run<ZYN_EPILOGUE_HARD_SIGMOID>();
    default:
      return action.template run<ZYN_EPILOGUE_NONE>();
  }
}

// The epilogue over rows rows of count floats, in place; row r has bias r.
void zyn_conv_finish_rows(float* data, int64_t rows, int64_t count,
                          const zyn_conv_epilogue& epilogue);

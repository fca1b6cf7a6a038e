// The sums of a register tile, which every tile of the product shares. Every loop over
// them is fully unrolled, or the compiler keeps the array on the stack.
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "simd/zyn_vectors.h"

template <int kRows, int kVectors>
[[gnu::always_inline]] inline void zyn_gemm_clear(__m256 (&sums)[kRows][kVectors]) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) sums[r][v] = _mm256_setzero_ps();
  }
}

// One term of every element of a tile of kRows x 8 * kVectors: the weight of row r stands
// at weight(r), the values of vector v at column(v), from where they also go to copy.
template <bool kCopy, int kRows, int kVectors, typename Weight, typename Column>
[[gnu::always_inline]] inline void zyn_gemm_multiply_add(__m256 (&sums)[kRows][kVectors],
                                                         const Weight& weight, const Column& column,
                                                         float* copy) {
  __m256 columns[kVectors];
  ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
    columns[v] = _mm256_loadu_ps(column(v));
    if (kCopy) _mm256_store_ps(copy + 8 * v, columns[v]);
  }
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    const __m256 w = _mm256_broadcast_ss(weight(r));
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) sums[r][v] =
        _mm256_fmadd_ps(w, columns[v], sums[r][v]);
  }
}

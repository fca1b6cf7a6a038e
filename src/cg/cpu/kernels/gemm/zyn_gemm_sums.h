// The sums of a register tile, which every tile of the product shares. Every loop over
// them is fully unrolled, or the compiler keeps the array on the stack.
#pragma once

#include "simd/zyn_block_lanes.h"

template <int kLanes, int kRows, int kVectors>
[[gnu::always_inline]] inline void zyn_gemm_clear(
    typename zyn_block_lanes<kLanes>::type (&sums)[kRows][kVectors]) {
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) sums[r][v] = zyn_block_lanes<kLanes>::zero();
  }
}

// One term of every element of a tile of kRows x kLanes * kVectors: the weight of row r stands
// at weight(r), the values of vector v at column(v), from where they also go to copy.
template <int kLanes, bool kCopy, int kRows, int kVectors, typename Weight, typename Column>
[[gnu::always_inline]] inline void zyn_gemm_multiply_add(
    typename zyn_block_lanes<kLanes>::type (&sums)[kRows][kVectors], const Weight& weight,
    const Column& column, float* copy) {
  using lanes = zyn_block_lanes<kLanes>;
  typename lanes::type columns[kVectors];
  ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
    columns[v] = lanes::load(column(v));
    if (kCopy) lanes::store(copy + kLanes * v, columns[v]);
  }
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    const typename lanes::type w = lanes::spread(weight(r));
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) lanes::add_product(sums[r][v], w, columns[v]);
  }
}

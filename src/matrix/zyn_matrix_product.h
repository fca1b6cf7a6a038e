// One matrix product, taken out of its records: what the direct and the blocked path
// work on. All matrices are row-major, pitches count elements.
#pragma once

#include <stdint.h>

// c (m x n) = alpha * a (m x k) * op(b) + beta * c. b is k x n, with transpose_b n x k.
// With beta = 0 the old content of c is not read.
template <typename T>
struct zyn_product {
  int64_t m, n, k;
  T alpha, beta;
  const T* a;
  int64_t a_pitch;
  const T* b;
  int64_t b_pitch;
  bool transpose_b;
  T* c;
  int64_t c_pitch;
};

// For operands that stay in the first caches.
template <typename T>
void zyn_product_direct(const zyn_product<T>& p);

// For operands beyond the caches. False, with c as it was, when memory for packing them
// is short. alpha = 0 does not look at a and b.
template <typename T>
bool zyn_product_blocked(const zyn_product<T>& p);

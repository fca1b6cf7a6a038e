// Integer helpers that sizes and loops share.
#pragma once

#include <stdint.h>

inline int64_t zyn_smaller(int64_t a, int64_t b) { return a < b ? a : b; }
inline int64_t zyn_larger(int64_t a, int64_t b) { return a > b ? a : b; }

// The number of units that hold n, and n filled up to whole units; n at least 0.
inline int64_t zyn_units(int64_t n, int64_t unit) { return (n + unit - 1) / unit; }
inline int64_t zyn_round_up(int64_t n, int64_t unit) { return zyn_units(n, unit) * unit; }

// Floats to 16-bit fixed point: value = v / 2^q.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// The largest q, 0 to 15, that holds the extremes of count elements from first on (cut
// to the tensor's element count, not to what lies behind first). 1: missing argument,
// negative first, a tensor that is not of floats, or values beyond 16 bits.
int32_t zyn_cg_fpi_choose_fraction_bits(uint32_t* q, const zyn_tensor* source, int64_t first,
                                        int64_t count);

// destination[i] = the integer nearest to source[i] * 2^q, ties to even, low 16 bits,
// for count elements from first on; first + count inside both is the caller's duty. 1:
// missing argument, wrong element types, fewer than count elements, q above 15.
int32_t zyn_cg_fpi_quantize_range(zyn_tensor* destination, const zyn_tensor* source, int64_t first,
                                  int64_t count, uint32_t q);

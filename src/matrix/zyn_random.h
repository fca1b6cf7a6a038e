// The process-wide random generator. Not locked, never seeded by callers.
#pragma once

#include <stdint.h>

// The next 32 bits of MT19937 seeded with 5489.
uint32_t zyn_random_u32();

// A normal value by the polar method, mean + deviation * N(0, 1).
double zyn_random_gauss(double mean, double deviation);

// Which instruction-set extensions the processor has, by feature id.
#pragma once

#include <stdint.h>

inline constexpr int32_t kZynFeatureCount = 512;

// The ids that the kernels need.
enum zyn_cpu_feature : int32_t { ZYN_CPU_AVX2 = 11, ZYN_CPU_FMA3 = 12 };

// Filled by zyn_init_cpu_features: 1 where the processor and the operating system
// support a feature; its name, or null where the id has none.
extern uint8_t zyn_cpu_feature_flags[kZynFeatureCount];
extern const char* zyn_cpu_feature_names[kZynFeatureCount];
extern uint32_t zyn_cpu_family;

// Fills the tables on the first call; later calls do nothing. Nothing in the library calls it:
// it serves a kernel dispatch with a choice of instruction sets, and the vector code here has
// one only.
void zyn_init_cpu_features();

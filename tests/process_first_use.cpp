// What the first use in a process finds: the processor tables, then filled once, and the
// clock's frequency.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "base/zyn_cpu_features.h"
#include "zyncore.h"

TEST(FirstUse, TheClockIsInMilliseconds) {
  using namespace std::chrono;
  const double first = zyn_get_current_system_time();
  const auto start = steady_clock::now();
  ASSERT_GE(first, 0.0);
  std::this_thread::sleep_for(milliseconds(100));
  const double elapsed = zyn_get_current_system_time() - first;
  EXPECT_NEAR(elapsed, (duration<double, std::milli>(steady_clock::now() - start)).count(), 20.0);
}

TEST(FirstUse, CpuTablesAreFilledOnce) {
  for (int i = 0; i < kZynFeatureCount; i++)
    ASSERT_TRUE(!zyn_cpu_feature_flags[i] && !zyn_cpu_feature_names[i]) << i;
  zyn_init_cpu_features();
// The compiler's own detection.
#define HAS(id, name) (__builtin_cpu_supports(name) ? 1u << (id) : 0)
  const uint32_t expected =
      HAS(1, "mmx") | HAS(2, "sse") | HAS(3, "sse2") | HAS(4, "sse3") | HAS(5, "ssse3") |
      HAS(6, "sse4.1") | HAS(7, "sse4.2") | HAS(8, "popcnt") | HAS(10, "avx") | HAS(11, "avx2") |
      HAS(12, "fma") | HAS(13, "avx512f") | HAS(14, "avx512bw") | HAS(15, "avx512cd") |
      HAS(16, "avx512dq") | HAS(17, "avx512er") | HAS(18, "avx512ifma") | HAS(19, "avx512pf") |
      HAS(20, "avx512vbmi") | HAS(21, "avx512vl") | HAS(22, "avx512vbmi2") | HAS(23, "avx512vnni") |
      HAS(24, "avx512bitalg") | HAS(25, "avx512vpopcntdq") | HAS(26, "avx5124vnniw") |
      HAS(27, "avx5124fmaps");
  std::string names;
  for (int id = 1; id < 28; id++) {
    names += zyn_cpu_feature_names[id] + std::string("|");
    if (id != 9) {
      EXPECT_EQ(zyn_cpu_feature_flags[id], expected >> id & 1) << id;
    }
  }
  EXPECT_EQ(names,
            "MMX|SSE|SSE2|SSE3|SSSE3|SSE4.1|SSE4.2|POPCNT|FP16|AVX|AVX2|FMA3|"
            "AVX512F|AVX512BW|AVX512CD|AVX512DQ|AVX512ER|AVX512IFMA|AVX512PF|AVX512VBMI|AVX512VL|"
            "AVX512VBMI2|AVX512VNNI|AVX512BITALG|AVX512VPOPCNTDQ|AVX5124VNNIW|AVX5124FMAPS|");
  // Groups of AVX-512's, from 256 on.
  const uint32_t groups[] = {0x21E000, 0xA000, 0xAA000, 0xE0AA000, 0x35E000, 0xA1E000, 0x3F5E000};
  for (int g = 0; g < 7; g++)
    EXPECT_EQ(zyn_cpu_feature_flags[256 + g], (expected & groups[g]) == groups[g]) << g;
  int named = 0;
  for (const char* name : zyn_cpu_feature_names) named += name != nullptr;
  EXPECT_EQ(named, 39);
  EXPECT_STREQ(zyn_cpu_feature_names[210], "RVV");
  EXPECT_STREQ(zyn_cpu_feature_names[262], "AVX512-ICL");
  EXPECT_EQ(zyn_cpu_feature_flags[100], 0);
  zyn_cpu_feature_flags[1] = 77;
  zyn_init_cpu_features();
  EXPECT_EQ(zyn_cpu_feature_flags[1], 77) << "filled a second time";
}

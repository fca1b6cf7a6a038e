// The processor tables are empty until their first use, then filled once.
#include <gtest/gtest.h>

#include "base/zyn_cpu_features.h"

TEST(CpuFeaturesFirstUse, TablesAreFilledOnce) {
  for (int i = 0; i < kZynFeatureCount; i++) {
    ASSERT_EQ(zyn_cpu_feature_flags[i], 0) << i;
    ASSERT_EQ(zyn_cpu_feature_names[i], nullptr) << i;
  }
  zyn_init_cpu_features();
  const struct {
    int id;
    const char* name;
    int expected;  // by the compiler's own detection
  } features[] = {{1, "MMX", __builtin_cpu_supports("mmx")},
                  {2, "SSE", __builtin_cpu_supports("sse")},
                  {3, "SSE2", __builtin_cpu_supports("sse2")},
                  {4, "SSE3", __builtin_cpu_supports("sse3")},
                  {5, "SSSE3", __builtin_cpu_supports("ssse3")},
                  {6, "SSE4.1", __builtin_cpu_supports("sse4.1")},
                  {7, "SSE4.2", __builtin_cpu_supports("sse4.2")},
                  {8, "POPCNT", __builtin_cpu_supports("popcnt")},
                  {10, "AVX", __builtin_cpu_supports("avx")},
                  {11, "AVX2", __builtin_cpu_supports("avx2")},
                  {12, "FMA3", __builtin_cpu_supports("fma")},
                  {13, "AVX512F", __builtin_cpu_supports("avx512f")},
                  {14, "AVX512BW", __builtin_cpu_supports("avx512bw")},
                  {15, "AVX512CD", __builtin_cpu_supports("avx512cd")},
                  {16, "AVX512DQ", __builtin_cpu_supports("avx512dq")},
                  {17, "AVX512ER", __builtin_cpu_supports("avx512er")},
                  {18, "AVX512IFMA", __builtin_cpu_supports("avx512ifma")},
                  {19, "AVX512PF", __builtin_cpu_supports("avx512pf")},
                  {20, "AVX512VBMI", __builtin_cpu_supports("avx512vbmi")},
                  {21, "AVX512VL", __builtin_cpu_supports("avx512vl")},
                  {22, "AVX512VBMI2", __builtin_cpu_supports("avx512vbmi2")},
                  {23, "AVX512VNNI", __builtin_cpu_supports("avx512vnni")},
                  {24, "AVX512BITALG", __builtin_cpu_supports("avx512bitalg")},
                  {25, "AVX512VPOPCNTDQ", __builtin_cpu_supports("avx512vpopcntdq")},
                  {26, "AVX5124VNNIW", __builtin_cpu_supports("avx5124vnniw")},
                  {27, "AVX5124FMAPS", __builtin_cpu_supports("avx5124fmaps")}};
  for (const auto& f : features) {
    EXPECT_STREQ(zyn_cpu_feature_names[f.id], f.name);
    EXPECT_EQ(zyn_cpu_feature_flags[f.id], f.expected != 0) << f.name;
  }
  int named = 0;
  for (const char* name : zyn_cpu_feature_names) named += name != nullptr;
  EXPECT_EQ(named, 39);
  EXPECT_STREQ(zyn_cpu_feature_names[9], "FP16");
  EXPECT_STREQ(zyn_cpu_feature_names[210], "RVV");
  EXPECT_STREQ(zyn_cpu_feature_names[262], "AVX512-ICL");
  EXPECT_EQ(zyn_cpu_feature_flags[100], 0);
  EXPECT_EQ(zyn_cpu_feature_flags[256], zyn_cpu_feature_flags[13] && zyn_cpu_feature_flags[14] &&
                                            zyn_cpu_feature_flags[15] &&
                                            zyn_cpu_feature_flags[16] && zyn_cpu_feature_flags[21]);
  zyn_cpu_feature_flags[1] = 77;
  zyn_init_cpu_features();
  EXPECT_EQ(zyn_cpu_feature_flags[1], 77) << "filled a second time";
}

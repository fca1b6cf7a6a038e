// Processor identification: the CPUID leaves 1 and 7 into feature flags, as the
// Intel 64 and IA-32 Architectures Software Developer's Manual, volume 2A, lists
// them. Features with vector registers count only when the operating system saves
// those registers (XCR0).
#include "base/zyn_cpu_features.h"

#include <cpuid.h>
#include <stddef.h>

uint8_t zyn_cpu_feature_flags[kZynFeatureCount];
const char* zyn_cpu_feature_names[kZynFeatureCount];
uint32_t zyn_cpu_family;

namespace {

uint32_t detected = 0;  // non-zero once the tables are filled

struct named_id {
  int32_t id;
  const char* name;
};

constexpr named_id kNames[] = {{1, "MMX"},
                               {2, "SSE"},
                               {3, "SSE2"},
                               {4, "SSE3"},
                               {5, "SSSE3"},
                               {6, "SSE4.1"},
                               {7, "SSE4.2"},
                               {8, "POPCNT"},
                               {9, "FP16"},
                               {10, "AVX"},
                               {11, "AVX2"},
                               {12, "FMA3"},
                               {13, "AVX512F"},
                               {14, "AVX512BW"},
                               {15, "AVX512CD"},
                               {16, "AVX512DQ"},
                               {17, "AVX512ER"},
                               {18, "AVX512IFMA"},
                               {19, "AVX512PF"},
                               {20, "AVX512VBMI"},
                               {21, "AVX512VL"},
                               {22, "AVX512VBMI2"},
                               {23, "AVX512VNNI"},
                               {24, "AVX512BITALG"},
                               {25, "AVX512VPOPCNTDQ"},
                               {26, "AVX5124VNNIW"},
                               {27, "AVX5124FMAPS"},
                               {100, "NEON"},
                               {150, "CPU_MSA"},
                               {200, "VSX"},
                               {201, "VSX3"},
                               {210, "RVV"},
                               {256, "AVX512-SKX"},
                               {257, "AVX512-COMMON"},
                               {258, "AVX512-KNL"},
                               {259, "AVX512-KNM"},
                               {260, "AVX512-CNL"},
                               {261, "AVX512-CLX"},
                               {262, "AVX512-ICL"}};

struct registers {
  uint32_t eax, ebx, ecx, edx;
};

struct bit_feature {
  uint32_t registers::*word;
  int bit;
  int32_t id;
};

constexpr bit_feature kLeaf1[] = {
    {&registers::edx, 23, 1},  {&registers::edx, 25, 2}, {&registers::edx, 26, 3},
    {&registers::ecx, 0, 4},   {&registers::ecx, 9, 5},  {&registers::ecx, 19, 6},
    {&registers::ecx, 20, 7},  {&registers::ecx, 23, 8}, {&registers::ecx, 29, 9},
    {&registers::ecx, 28, 10}, {&registers::ecx, 12, 12}};

constexpr bit_feature kLeaf7[] = {
    {&registers::ebx, 5, 11},  {&registers::ebx, 16, 13}, {&registers::ebx, 30, 14},
    {&registers::ebx, 28, 15}, {&registers::ebx, 17, 16}, {&registers::ebx, 27, 17},
    {&registers::ebx, 21, 18}, {&registers::ebx, 26, 19}, {&registers::ebx, 31, 21},
    {&registers::ecx, 1, 20},  {&registers::ecx, 6, 22},  {&registers::ecx, 11, 23},
    {&registers::ecx, 12, 24}, {&registers::ecx, 14, 25}, {&registers::edx, 2, 26},
    {&registers::edx, 3, 27}};

// Ids of wide-register features and the groups of AVX-512 features that make up the
// composite ids.
struct composite {
  int32_t id;
  int32_t parts[8];  // 0 ends the list
};
constexpr composite kComposites[] = {
    {257, {13, 15}},                        // COMMON: F, CD
    {256, {257, 14, 16, 21}},               // SKX: COMMON, BW, DQ, VL
    {258, {257, 17, 19}},                   // KNL: COMMON, ER, PF
    {259, {258, 26, 27, 25}},               // KNM: KNL, 4VNNIW, 4FMAPS, VPOPCNTDQ
    {260, {256, 18, 20}},                   // CNL: SKX, IFMA, VBMI
    {261, {256, 23}},                       // CLX: SKX, VNNI
    {262, {256, 18, 20, 22, 23, 24, 25}}};  // ICL: CNL, VBMI2, VNNI, BITALG, VPOPCNTDQ

bool needs_256_bits(int32_t id) { return id >= 9 && id <= 12; }
bool needs_512_bits(int32_t id) { return id >= 13 && id <= 27; }

uint64_t saved_register_sets(const registers& leaf1) {
  constexpr uint32_t kOsXsave = 1u << 27;
  if (!(leaf1.ecx & kOsXsave)) return 0;
  uint32_t low = 0, high = 0;
  __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return static_cast<uint64_t>(high) << 32 | low;
}

template <size_t Count>
void set_flags(const registers& leaf, const bit_feature (&features)[Count], bool save256,
               bool save512) {
  for (const bit_feature& feature : features) {
    const bool usable = needs_512_bits(feature.id)   ? save512
                        : needs_256_bits(feature.id) ? save256
                                                     : true;
    zyn_cpu_feature_flags[feature.id] = usable && (leaf.*feature.word >> feature.bit & 1);
  }
}

void set_composites() {
  for (const composite& group : kComposites) {
    bool all = true;
    for (int32_t part : group.parts) all = all && (part == 0 || zyn_cpu_feature_flags[part]);
    zyn_cpu_feature_flags[group.id] = all;
  }
}

}  // namespace

void zyn_init_cpu_features() {
  if (detected) return;
  detected = 1;
  for (const named_id& entry : kNames) zyn_cpu_feature_names[entry.id] = entry.name;
  registers leaf{};
  if (!__get_cpuid(1, &leaf.eax, &leaf.ebx, &leaf.ecx, &leaf.edx)) return;
  zyn_cpu_family = leaf.eax >> 8 & 15;
  constexpr uint64_t kSse = 2, kAvx = 4, kAvx512 = 0xE0;
  const uint64_t saved = saved_register_sets(leaf);
  const bool save256 = (saved & (kSse | kAvx)) == (kSse | kAvx);
  const bool save512 = save256 && (saved & kAvx512) == kAvx512;
  set_flags(leaf, kLeaf1, save256, save512);
  if (__get_cpuid_count(7, 0, &leaf.eax, &leaf.ebx, &leaf.ecx, &leaf.edx))
    set_flags(leaf, kLeaf7, save256, save512);
  set_composites();
}

// What the two ways of the fixed-point 1 x 1 convolution share: 16-bit products of a weight,
// shifted and rounded, with pixels or with output channels in the lanes.
//
// For 1 <= d <= 15 a weight is split as w = high * 2^d + low, -2^(d-1) <= low < 2^(d-1);
// then (x * w + r) >> d = x * high + ((x * low + r) >> d) exactly, and the last term is
// one rounding multiplication (mulhrs, which shifts by 15) with low * 2^(15-d). Few
// weights have a high part (those that fit the signed 16 bits shifted need none): the
// channels that have one are kept in a list. d = 0 is all high part. For d above 15 the
// high half of the product is shifted.
#pragma once

#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"

enum zyn_fpi_1x1_mode { kZynFpiRounding, kZynFpiMiddle, kZynFpiHigh };  // d up to 15, 16, above

// The part of a weight that the multiplication takes, and the rest.
struct zyn_fpi_weight_parts {
  int32_t low, high;
};

inline zyn_fpi_weight_parts zyn_fpi_split(int32_t w, int32_t d) {
  constexpr int32_t kMulhrs = 15;  // its shift
  if (d > kMulhrs) return {w, 0};
  const int32_t limit = 1 << d;
  if (d > 0 && w >= -limit && w < limit) return {w * (1 << (kMulhrs - d)), 0};
  if (d == 0) return {0, w};
  const int32_t high = (w + limit / 2) >> d;
  return {(w - high * limit) * (1 << (kMulhrs - d)), high};
}

template <zyn_fpi_1x1_mode kMode>
struct zyn_fpi_product {
  __m128i shift;
  __m256i half;
  explicit zyn_fpi_product(int32_t d)
      : shift(_mm_cvtsi32_si128(d - 16)),
        half(_mm256_set1_epi16(kMode == kZynFpiHigh ? static_cast<int16_t>(1 << (d - 17))
                                                    : int16_t{0})) {}
  __m256i operator()(__m256i x, __m256i w) const {
    if (kMode == kZynFpiRounding) return _mm256_mulhrs_epi16(x, w);
    const __m256i high = _mm256_mulhi_epi16(x, w);
    if (kMode == kZynFpiHigh) return _mm256_sra_epi16(_mm256_add_epi16(high, half), shift);
    return _mm256_add_epi16(high, _mm256_srli_epi16(_mm256_mullo_epi16(x, w), 15));
  }
};

// f of the mode of a shift.
template <typename Function>
void zyn_fpi_with_mode(int32_t d, Function f) {
  if (d < 16) return f.template run<kZynFpiRounding>();
  return d == 16 ? f.template run<kZynFpiMiddle>() : f.template run<kZynFpiHigh>();
}

// Up to so many pixels are left over where planes are cut into tiles.
inline constexpr int64_t kZynFpiTilePixels = 32;

// Whether those have the output channels in the lanes (zyn_fpi_1x1_outputs.cpp): 16 in a vector,
// where 4 by 16 or 32 pixels would have many lanes idle. Counted in vector operations: those of an
// input channel, and what storing takes, copying of planes of less than a vector.
inline bool zyn_fpi_rest_by_outputs(const zyn_fpi_plan& plan) {
  const int64_t rest = plan.pixels % kZynFpiTilePixels, channels = plan.layer.in_channels;
  const int64_t vectors = (rest + kZynFpiLanes - 1) / kZynFpiLanes;
  const int64_t blocks = (plan.layer.out_channels + int64_t{15}) / 16;
  const int64_t rows = (plan.layer.out_channels + int64_t{3}) / 4 * 4;
  const int64_t copying = plan.pixels < kZynFpiLanes ? 20 * channels : 0;
  return rest > 0 &&
         rest * blocks * (4 * channels + 80) < rows * (3 * vectors * channels + 24) + copying;
}

// Packed words for count pixels by outputs, packing, and the run; the planes of in and of out lie
// plan.pixels elements apart.
int64_t zyn_fpi_packed_outputs(const zyn_fpi_plan& plan);
void zyn_fpi_pack_outputs(const zyn_fpi_plan& plan, int32_t* packed);
void zyn_fpi_run_outputs(const zyn_fpi_plan& plan, const int32_t* packed,
                         const zyn_fpi_tile_epilogue& epilogue, int16_t* out, const int16_t* in,
                         int64_t count);

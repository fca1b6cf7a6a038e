// Pointwise convolution over planes: a strip of pixels of every input channel stays in
// the first-level cache while the output channels pass over it, six at a time by two
// vectors of pixels, which is twelve sums in registers. The last strip is masked.
#include "cg/cpu/kernels/zyn_conv_planar.h"

namespace {

constexpr int kChannels = 6;
constexpr int kVectors = 2;
constexpr int kStrip = 8 * kVectors;  // pixels

__m256i first_lanes(int64_t count) {
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int32_t>(count)), lane);
}

// Vector v of a strip: whole, or the lanes of its mask.
template <bool Whole>
__m256 load(const float* p, __m256i mask) {
  return Whole ? _mm256_loadu_ps(p) : _mm256_maskload_ps(p, mask);
}
template <bool Whole>
void store(float* p, __m256i mask, __m256 value) {
  if (Whole)
    _mm256_storeu_ps(p, value);
  else
    _mm256_maskstore_ps(p, mask, value);
}

// Channels output channels from oc on, kStrip pixels from pixel on (or count of them).
template <int Channels, bool Whole>
void tile(const zyn_planar_layer& l, int32_t oc, int64_t pixel, int64_t count) {
  const __m256i masks[kVectors] = {first_lanes(count), first_lanes(count - 8)};
  const int64_t pixels = static_cast<int64_t>(l.in_w) * l.in_h;
  const int64_t in_channels = l.in_channels;
  const float* in = l.in + pixel;
  const float* w = l.weights + oc * in_channels;
  __m256 sum[Channels][kVectors];
#pragma GCC unroll 6
  for (int c = 0; c < Channels; c++) sum[c][0] = sum[c][1] = _mm256_setzero_ps();
  for (int64_t ic = 0; ic < in_channels; ic++, in += pixels, w++) {
    const __m256 first = load<Whole>(in, masks[0]);
    const __m256 second = load<Whole>(in + 8, masks[1]);
#pragma GCC unroll 6
    for (int c = 0; c < Channels; c++) {
      const __m256 weight = _mm256_broadcast_ss(w + c * in_channels);
      sum[c][0] = _mm256_fmadd_ps(weight, first, sum[c][0]);
      sum[c][1] = _mm256_fmadd_ps(weight, second, sum[c][1]);
    }
  }
  float* out = l.out + oc * pixels + pixel;
#pragma GCC unroll 6
  for (int c = 0; c < Channels; c++) {
    store<Whole>(out + c * pixels, masks[0], sum[c][0]);
    store<Whole>(out + c * pixels + 8, masks[1], sum[c][1]);
  }
}

template <bool Whole>
void strip(const zyn_planar_layer& l, int64_t pixel, int64_t count) {
  int32_t oc = 0;
  for (; oc + kChannels <= l.out_channels; oc += kChannels)
    tile<kChannels, Whole>(l, oc, pixel, count);
  switch (l.out_channels - oc) {
    case 5:
      tile<3, Whole>(l, oc, pixel, count);
      oc += 3;
      [[fallthrough]];
    case 2:
      return tile<2, Whole>(l, oc, pixel, count);
    case 4:
      return tile<4, Whole>(l, oc, pixel, count);
    case 3:
      return tile<3, Whole>(l, oc, pixel, count);
    case 1:
      return tile<1, Whole>(l, oc, pixel, count);
    default:
      return;
  }
}

}  // namespace

void zyn_planar_pointwise(const zyn_planar_layer& l) {
  const int64_t pixels = static_cast<int64_t>(l.in_w) * l.in_h;
  int64_t pixel = 0;
  for (; pixel + kStrip <= pixels; pixel += kStrip) strip<true>(l, pixel, kStrip);
  if (pixel < pixels) strip<false>(l, pixel, pixels - pixel);
}

void zyn_planar_dot(const zyn_planar_layer& l) {
  for (int32_t oc = 0; oc < l.out_channels; oc++) {
    const float* w = l.weights + static_cast<int64_t>(oc) * l.in_channels;
    __m128 sum = _mm_setzero_ps();
    int32_t ic = 0;
    for (; ic + 4 <= l.in_channels; ic += 4)
      sum = _mm_fmadd_ps(_mm_loadu_ps(l.in + ic), _mm_loadu_ps(w + ic), sum);
    const __m128 pair = _mm_add_ps(sum, _mm_movehl_ps(sum, sum));
    float total = _mm_cvtss_f32(_mm_add_ss(pair, _mm_movehdup_ps(pair)));
    for (; ic < l.in_channels; ic++) total = __builtin_fmaf(l.in[ic], w[ic], total);
    l.out[oc] = total;
  }
}

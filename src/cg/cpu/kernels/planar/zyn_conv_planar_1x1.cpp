// Pointwise convolution over planes: a strip of 24 pixels of every input channel stays
// in the first-level cache while the output channels pass over it, four at a time by
// three vectors of pixels: twelve sums in registers, seven loads for twelve products.
// The vectors of the last strip are masked.
#include "cg/cpu/kernels/planar/zyn_conv_planar.h"

namespace {

constexpr int kChannels = 4;
constexpr int kVectors = 3;
constexpr int64_t kStrip = 8 * kVectors;

// Channels output channels from oc on, Vectors vectors from pixel on, of which left
// pixels exist (Whole: all).
template <int Channels, int Vectors, bool Whole>
void tile(const zyn_planar_layer& l, int64_t oc, int64_t pixel, int64_t left) {
  const int64_t pixels = static_cast<int64_t>(l.in_w) * l.in_h;
  const int64_t in_channels = l.in_channels;
  const __m256i mask = zyn_first_lanes(Whole ? 8 : left - 8 * (Vectors - 1));
  const float* in = l.in + pixel;
  const float* w = l.weights + oc * in_channels;
  __m256 sum[Channels][Vectors];
  ZYN_UNROLL for (int c = 0; c < Channels; c++) {
    ZYN_UNROLL for (int v = 0; v < Vectors; v++) sum[c][v] = _mm256_setzero_ps();
  }
  for (int64_t ic = 0; ic < in_channels; ic++, in += pixels, w++) {
    __m256 value[Vectors];
    ZYN_UNROLL for (int v = 0; v < Vectors; v++) value[v] =
        Whole || v < Vectors - 1 ? _mm256_loadu_ps(in + 8 * v)
                                 : _mm256_maskload_ps(in + 8 * v, mask);
    ZYN_UNROLL for (int c = 0; c < Channels; c++) {
      const __m256 weight = _mm256_broadcast_ss(w + c * in_channels);
      ZYN_UNROLL for (int v = 0; v < Vectors; v++) sum[c][v] =
          _mm256_fmadd_ps(weight, value[v], sum[c][v]);
    }
  }
  float* out = l.out + oc * pixels + pixel;
  ZYN_UNROLL for (int c = 0; c < Channels; c++) {
    const zyn_planar_epilogue epilogue(l.epilogue, oc + c);
    ZYN_UNROLL for (int v = 0; v < Vectors; v++) {
      const __m256 y = epilogue.apply(sum[c][v]);
      if (Whole || v < Vectors - 1)
        _mm256_storeu_ps(out + c * pixels + 8 * v, y);
      else
        _mm256_maskstore_ps(out + c * pixels + 8 * v, mask, y);
    }
  }
}

template <int Vectors, bool Whole>
void strip(const zyn_planar_layer& l, int64_t pixel, int64_t left) {
  int64_t oc = 0;
  for (; oc + kChannels <= l.out_channels; oc += kChannels)
    tile<kChannels, Vectors, Whole>(l, oc, pixel, left);
  const int64_t rest = l.out_channels - oc;
  if (rest == 3) tile<3, Vectors, Whole>(l, oc, pixel, left);
  if (rest == 2) tile<2, Vectors, Whole>(l, oc, pixel, left);
  if (rest == 1) tile<1, Vectors, Whole>(l, oc, pixel, left);
}

}  // namespace

void zyn_planar_pointwise(const zyn_planar_layer& l) {
  const int64_t pixels = static_cast<int64_t>(l.in_w) * l.in_h;
  int64_t pixel = 0;
  for (; pixel + kStrip <= pixels; pixel += kStrip) strip<kVectors, true>(l, pixel, kStrip);
  const int64_t left = pixels - pixel;
  if (left > 16)
    strip<3, false>(l, pixel, left);
  else if (left > 8)
    strip<2, false>(l, pixel, left);
  else if (left > 0)
    strip<1, false>(l, pixel, left);
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
  // One value a channel: the channels' biases are one row.
  for (int32_t oc = 0; oc < l.out_channels; oc += 8) {
    const int64_t left = l.out_channels - oc;
    const __m256i mask = zyn_first_lanes(left);
    zyn_conv_epilogue plain = l.epilogue;
    plain.bias = nullptr;
    __m256 y = _mm256_maskload_ps(l.out + oc, mask);
    if (l.epilogue.bias) y = _mm256_add_ps(y, _mm256_maskload_ps(l.epilogue.bias + oc, mask));
    _mm256_maskstore_ps(l.out + oc, mask, zyn_planar_epilogue(plain, 0).apply(y));
  }
}

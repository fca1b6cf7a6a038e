// Pointwise convolution to few outputs, which leave lanes idle if each has one: a block of 4 shares
// a vector with a second input channel, 2 single outputs with 4 of them, and a single one's lanes
// are 8 input channels. Sums are joined where they end. A block of 8 has a tile of this form too.
#include <string.h>

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_dots.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_tile.h"

namespace {

// 12 sums; the results of a single output are a vector.
constexpr int most_pixels(int outputs, int vectors) {
  return outputs > 1 ? 12 : vectors == 1 ? 8 : 12 / vectors;
}
// A strip of so many stays in the first cache level from the walk for the outputs before.
constexpr int64_t kFirstLevelFloats = 8 * 1024;
// From so many inputs on joining the lanes of 3 outputs costs less than a second walk.
constexpr int32_t kInputsOfThree = 48;

// The next tile's input, asked for while this one computes: blocks lie too far apart for the
// processor to foresee it.
template <int Pixels>
[[gnu::always_inline]] inline void fetch_next_tile(const float* in) {
  ZYN_UNROLL for (int i = 0; i < Pixels; i += 2)
      _mm_prefetch(reinterpret_cast<const char*>(in + (Pixels + i) * 8), _MM_HINT_T0);
}

// At most 8 outputs fill a vector: the lanes are Outputs outputs by 8 / Outputs inputs. A load
// spreads so many inputs to all outputs.
template <int Outputs>
inline __m256 spread_inputs(const float* p) {
  if (Outputs == 8) return _mm256_broadcast_ss(p);
  if (Outputs == 2) return _mm256_broadcast_ps(reinterpret_cast<const __m128*>(p));
  if (Outputs == 1) return _mm256_loadu_ps(p);
  double pair;
  memcpy(&pair, p, sizeof(pair));
  return _mm256_castpd_ps(_mm256_set1_pd(pair));
}

// Their weights, of which 8 lie together but for 2 single outputs. apart: floats from one single
// output to the next.
template <int Outputs>
inline __m256 load_weights(const float* w, int64_t apart) {
  return Outputs == 2 ? _mm256_loadu2_m128(w + apart, w) : _mm256_loadu_ps(w);
}

// Values of the outputs for one input; the lanes of others are zero.
template <int Outputs>
inline __m256 load_outputs(const float* p, int64_t apart) {
  if (Outputs == 8) return _mm256_loadu_ps(p);
  if (Outputs == 4)
    return _mm256_castsi256_ps(_mm256_cvtepu32_epi64(_mm_castps_si128(_mm_loadu_ps(p))));
  const __m128 first = _mm_load_ss(p);
  return Outputs == 2 ? _mm256_set_m128(_mm_load_ss(p + apart), first)
                      : _mm256_zextps128_ps256(first);
}

// The input channels behind the blocks: a tile's, count planes of pixels, and their weights.
struct single_inputs {
  const float *in, *weights;
  int32_t count;
  int64_t pixels, apart;
};

// A vector of outputs, or Vectors single ones of a vector each.
template <int Outputs, int Vectors>
struct vector_tiles {
  static constexpr int kInputs = 8 / Outputs;
  static constexpr int kBlock = Outputs < 4 ? 1 : Outputs;
  const zyn_blocked_layer& l;
  int32_t oc;
  zyn_tile_epilogue epilogue;
  bool far;  // whether the strip may not be in the first cache level

  template <int Pixels>
  [[gnu::noinline]] void run(int64_t pixel, int64_t count) const {
    const int64_t pixels = l.in_plane();
    const int32_t in_channels = l.in_channels;
    const float* const packed = l.packed + static_cast<int64_t>(oc) * in_channels;
    const float* const in = l.in;
    const __m256 floor = epilogue.floor<8>();
    const int32_t blocked = in_channels / 4 * 4;
    single_inputs ones = {in + blocked * pixels + pixel, packed + blocked * kBlock,
                          in_channels - blocked, pixels, in_channels};
    __m256 bias[Vectors];
    ZYN_UNROLL for (int v = 0; v < Vectors; v++) bias[v] =
        load_outputs<Outputs>(epilogue.biases() + v, 1);
    float* out = l.out + oc * pixels + pixel * kBlock;
    for (; count > 0; count--, pixel += Pixels, ones.in += Pixels) {
      __m256 sum[Vectors][Pixels];
      ZYN_UNROLL for (int v = 0; v < Vectors; v++) ZYN_UNROLL for (int i = 0; i < Pixels; i++)
          sum[v][i] = bias[v];
      const float *w = packed, *at = in + pixel * 8;
      const auto add = [&](const float* values, int step) __attribute__((always_inline)) {
        const __m256 weight = load_weights<Outputs>(w, in_channels);
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[0][i] =
            _mm256_fmadd_ps(spread_inputs<Outputs>(values + i * step), weight, sum[0][i]);
        w += kInputs * kBlock;
      };
      for (int32_t n = in_channels / 8; n > 0; n--, at += pixels * 8) {
        if (far) fetch_next_tile<Pixels>(at);
        if constexpr (Outputs == 1)
          zyn_add_dots<8>(sum, at, 8, w, in_channels), w += 8;
        else  // loops: unrolled, gcc puts sums into other registers and then into memory
          ZYN_UNROLL_BY(1) for (int ic = 0; ic < 8; ic += kInputs) add(at + ic, 8);
      }
      if (in_channels % 8 >= 4) {
        const float* four = in + (blocked - 4) * pixels + pixel * 4;
        if constexpr (Outputs == 1)
          zyn_add_dots<4>(sum, four, 4, w, in_channels);
        else
          ZYN_UNROLL_BY(1) for (int k = 0; k < 4; k += kInputs) add(four + k, 4);
      }
      if constexpr (Outputs >= 4)
        store_block(sum[0], ones, floor, out);
      else
        ZYN_UNROLL for (int v = 0; v < Vectors; v++)
            store_single(sum[v], ones, v * ones.apart, floor, out + v * pixels);
      out += Pixels * kBlock;
    }
  }

  // Adds the single inputs to a block's sums, joins the lanes of every output and stores.
  template <int Pixels>
  [[gnu::always_inline]] static inline void store_block(__m256 (&sum)[Pixels],
                                                        const single_inputs& ones,
                                                        const __m256& floor, float* out) {
    for (int32_t ic = 0; ic < ones.count; ic++) {
      const __m256 weight = load_outputs<Outputs>(ones.weights + ic * Outputs, 0);
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] =
          _mm256_fmadd_ps(_mm256_broadcast_ss(ones.in + ic * ones.pixels + i), weight, sum[i]);
    }
    if constexpr (Outputs == 8) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++)
          _mm256_storeu_ps(out + i * 8, _mm256_max_ps(floor, sum[i]));
      return;
    }
    ZYN_UNROLL for (int i = 0; i < Pixels; i += 2) {
      const __m256 a = sum[i], b = sum[i + 1 < Pixels ? i + 1 : i];
      const __m256 two =
          _mm256_add_ps(_mm256_shuffle_ps(a, b, 0x88), _mm256_shuffle_ps(a, b, 0xDD));
      const __m256d y = _mm256_castps_pd(_mm256_max_ps(floor, two));
      const __m256 turned = _mm256_castpd_ps(_mm256_permute4x64_pd(y, 0xD8));
      if (i + 1 < Pixels)
        _mm256_storeu_ps(out + i * 4, turned);
      else
        _mm_storeu_ps(out + i * 4, _mm256_castps256_ps128(turned));
    }
  }

  // The same for 1 or 2 single outputs, whose weights begin offset floats further: joins the lanes
  // of 8 or 4 pixels before it adds the single inputs.
  template <int Pixels>
  [[gnu::always_inline]] static inline void store_single(const __m256 (&sum)[Pixels],
                                                         const single_inputs& ones, int64_t offset,
                                                         const __m256& floor, float* out) {
    using lanes = zyn_block_lanes<8>;
    ZYN_UNROLL for (int i = 0; i < Pixels; i += kInputs) {
      const auto four = [&](int k) __attribute__((always_inline)) {
        const auto v = [&](int n) { return sum[n < Pixels ? n : Pixels - 1]; };
        return zyn_join_halves(v(k), v(k + 1), v(k + 2), v(k + 3));
      };
      __m256 y = four(i);
      if constexpr (Outputs == 1) {
        const __m256 next = Pixels > 4 ? four(4) : y;
        y = lanes::add(_mm256_permute2f128_ps(y, next, 0x20),
                       _mm256_permute2f128_ps(y, next, 0x31));
      }
      const __m256i mask = zyn_first_lanes(Pixels - i);
      for (int32_t ic = 0; ic < ones.count; ic++)
        lanes::add_product(y, load_pixels(ones.in + ic * ones.pixels + i, Pixels - i, mask),
                           of_outputs(ones.weights + offset + ic, ones.apart));
      store_pixels(out + i, ones.pixels, Pixels - i, mask, lanes::max(floor, y));
    }
  }

  // A value of every output.
  [[gnu::always_inline]] static inline __m256 of_outputs(const float* p, int64_t apart) {
    if (Outputs == 1) return _mm256_broadcast_ss(p);
    return _mm256_set_m128(_mm_broadcast_ss(p + apart), _mm_broadcast_ss(p));
  }
  // The first count of as many pixels as there are inputs, for every output.
  [[gnu::always_inline]] static inline __m256 load_pixels(const float* p, int count,
                                                          const __m256i& mask) {
    if (Outputs == 1) return count < 8 ? _mm256_maskload_ps(p, mask) : _mm256_loadu_ps(p);
    const __m128i first = _mm256_castsi256_si128(mask);
    const __m128 four = count < 4 ? _mm_maskload_ps(p, first) : _mm_loadu_ps(p);
    return _mm256_set_m128(four, four);
  }
  [[gnu::always_inline]] static inline void store_pixels(float* p, int64_t apart, int count,
                                                         const __m256i& mask, const __m256& y) {
    if (Outputs == 1) return count < 8 ? _mm256_maskstore_ps(p, mask, y) : _mm256_storeu_ps(p, y);
    if (count >= 4) return _mm256_storeu2_m128(p + apart, p, y);
    const __m128i first = _mm256_castsi256_si128(mask);
    _mm_maskstore_ps(p, first, _mm256_castps256_ps128(y));
    _mm_maskstore_ps(p + apart, first, _mm256_extractf128_ps(y, 1));
  }
};

// A block of 4 outputs.
inline void store_four(float* out, const __m256 (&y)[4]) {
  __m256 pair[4];
  ZYN_UNROLL for (int i = 0; i < 2; i++) {
    pair[2 * i] = _mm256_unpacklo_ps(y[2 * i], y[2 * i + 1]);
    pair[2 * i + 1] = _mm256_unpackhi_ps(y[2 * i], y[2 * i + 1]);
  }
  ZYN_UNROLL for (int i = 0; i < 4; i++) {
    const __m256 low = pair[i / 2], high = pair[2 + i / 2];
    const __m256 two =
        i % 2 ? _mm256_shuffle_ps(low, high, 0xEE) : _mm256_shuffle_ps(low, high, 0x44);
    _mm_storeu_ps(out + i * 4, _mm256_castps256_ps128(two));
    _mm_storeu_ps(out + 16 + i * 4, _mm256_extractf128_ps(two, 1));
  }
}

// Single inputs alone to 4 outputs by Groups times 8 pixels, which lie in the lanes.
template <int Groups>
inline void pixel_lanes(const zyn_blocked_layer& l, int32_t oc, const zyn_tile_epilogue& epilogue,
                        int64_t pixel) {
  using lanes = zyn_block_lanes<8>;
  const float* w = l.packed + static_cast<int64_t>(oc) * l.in_channels;
  __m256 sum[Groups][4];
  ZYN_UNROLL for (int g = 0; g < Groups; g++) ZYN_UNROLL for (int o = 0; o < 4; o++) sum[g][o] =
      lanes::spread(epilogue.biases() + o);
  const float* in = l.in + pixel;
  for (int32_t ic = 0; ic < l.in_channels; ic++, in += l.in_plane(), w += 4)
    ZYN_UNROLL for (int g = 0; g < Groups; g++) ZYN_UNROLL for (int o = 0; o < 4; o++)
        lanes::add_product(sum[g][o], lanes::load(in + g * 8), lanes::spread(w + o));
  const __m256 floor = epilogue.floor<8>();
  float* out = l.out + oc * l.out_plane() + pixel * 4;
  ZYN_UNROLL for (int g = 0; g < Groups; g++) {
    ZYN_UNROLL for (int o = 0; o < 4; o++) sum[g][o] = lanes::max(floor, sum[g][o]);
    store_four(out + g * 32, sum[g]);
  }
}

// Pixels first to end - 1, at least 8; those that the last group shares with the one before are
// computed twice.
void strip_of_pixels(const zyn_blocked_layer& l, int32_t oc, int64_t first, int64_t end) {
  const zyn_tile_epilogue epilogue(l.epilogue, oc, 4);
  int64_t pixel = first;
  for (; pixel + 16 <= end; pixel += 16) pixel_lanes<2>(l, oc, epilogue, pixel);
  for (; pixel < end; pixel += 8)
    pixel_lanes<1>(l, oc, epilogue, pixel + 8 < end ? pixel : end - 8);
  epilogue.finish(l.out + oc * l.out_plane() + first * 4, (end - first) * 4);
}

template <int Outputs, int Vectors = 1>
void strip_of_few(const zyn_blocked_layer& l, int32_t oc, int64_t first, int64_t end) {
  using tiles = vector_tiles<Outputs, Vectors>;
  constexpr int kChannels = Outputs * Vectors, kBlock = tiles::kBlock;
  const bool far = oc == 0 || (end - first) * l.in_channels > kFirstLevelFloats;
  const tiles body{l, oc, zyn_tile_epilogue(l.epilogue, oc, kChannels), far};
  zyn_balanced_tiles<most_pixels(Outputs, Vectors)>(first, end, body);
  body.epilogue.finish(l.out + oc * l.out_plane() + first * kBlock, (end - first) * kBlock,
                       kChannels / kBlock, l.out_plane());
}

}  // namespace

int32_t zyn_conv1x1_few_outputs(const zyn_blocked_layer& l, int32_t oc, int64_t first,
                                int64_t end) {
  const int32_t left = l.out_channels - oc;
  const bool three = left == 3 && l.in_channels >= kInputsOfThree;
  const int32_t outputs = left >= 8 ? 8 : left >= 4 ? 4 : three ? 3 : left >= 2 ? 2 : 1;
  if (outputs == 8)
    strip_of_few<8>(l, oc, first, end);
  else if (outputs == 4 && zyn_block_is_planar(l.in_channels) && end - first >= 8)
    strip_of_pixels(l, oc, first, end);
  else if (outputs == 4)
    strip_of_few<4>(l, oc, first, end);
  else if (outputs == 3)
    strip_of_few<1, 3>(l, oc, first, end);
  else if (outputs == 2)
    strip_of_few<2>(l, oc, first, end);
  else
    strip_of_few<1>(l, oc, first, end);
  return outputs;
}

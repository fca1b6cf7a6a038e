// Pointwise convolution on channel-blocked tensors. A strip of pixels stays in the second
// cache level while every output block passes over it, a block's weights in the first; a
// tile keeps its sums in registers over all input channels, so that each output value is
// written once.
#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_tile.h"

namespace {

// Input strip of all channels. Strips that fit into the first level were 1 % slower: every
// strip takes all weights from the second level again.
constexpr int64_t kStripBytes = 160 * 1024;
// Single outputs read a strip once more each: it stays in the first level where others are few.
constexpr int32_t kFewOutputs = 8;
constexpr int64_t kFewStripBytes = 24 * 1024;
// Sums of a tile: with two FMA ports and a latency of 4 cycles, 8 would do; the rest hides the
// loads. Tiles are 2 vectors of output channels by 6 pixels; 3 by 4, for the last 24 channels,
// leave gcc no register to spare. 512-bit vectors bring twice the registers: 4 by 6, which reach 99
// % of the multiply-adds, or where their weights overflow the first level 2 by 12 (93 %).
constexpr int kWide = kZynVectorFloats;
constexpr int kTileSums = kWide == 8 ? 12 : 24;
constexpr int kMostPixels = 12;
constexpr int32_t kMostInputsOfFour = 128;
constexpr int kBlocksAtOnce = kWide == 8 ? 4 : 1;  // input blocks in a round of the loop
constexpr int kDotPixels = 8;  // of a single output channel: a vector of results

// Adds IB input channels to a tile of Blocks vectors of OB output channels. w is at the first
// weight of every vector and moves on to the next input block.
template <int OB, int IB, int Blocks, int Pixels>
inline void add_inputs(typename zyn_block_lanes<OB>::type (&sum)[Blocks][Pixels], const float* in,
                       const float* (&w)[Blocks]) {
  using lanes = zyn_block_lanes<OB>;
  ZYN_UNROLL for (int ic = 0; ic < IB; ic++) {
    typename lanes::type weight[Blocks];
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) weight[b] = lanes::load(w[b] + ic * OB);
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
      const typename lanes::type value = lanes::spread(in + i * IB + ic);
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) lanes::add_product(sum[b][i], value, weight[b]);
    }
  }
  ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
    w[b] += IB * OB;
    zyn_own_pointer(w[b]);
  }
}

// The weights that come next, asked for while others are in use: a network's do not fit into the
// second cache level, and a layer of few pixels would wait for them as long as it computes.
struct weights_ahead {
  const char *at, *end;
};
constexpr int64_t kLine = 64;  // bytes; two in every turn of the loop

// Blocks vectors of OB output channels from oc on.
template <int OB, int Blocks>
struct tiles {
  const zyn_blocked_layer& l;
  int32_t oc;
  zyn_tile_epilogue epilogue;
  weights_ahead* ahead;

  // Values are copied to locals first: vector stores may alias anything in memory. A function
  // of its own for every size: gcc shares the registers out badly among several loops.
  template <int Pixels>
  [[gnu::noinline]] void run(int64_t pixel, int64_t count) const {
    using lanes = zyn_block_lanes<OB>;
    constexpr int kBlock = OB < 8 ? OB : 8;
    const int64_t pixels = l.in_plane();
    const int32_t in_channels = l.in_channels;
    const int64_t weight_block = static_cast<int64_t>(OB) * in_channels;
    const float* const in = l.in;
    const float* const packed = l.packed + static_cast<int64_t>(oc) * in_channels;
    const typename lanes::type floor = epilogue.floor<OB>();
    float* out = l.out + oc * pixels + pixel * kBlock;
    const char *line = ahead->at, *const last_line = ahead->end;
    for (; count > 0; count--, pixel += Pixels, out += Pixels * kBlock) {
      const bool more = line < last_line;
      typename lanes::type sum[Blocks][Pixels];
      const float* w[Blocks];
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[b][i] = epilogue.bias<OB>(b);
        w[b] = packed + b * weight_block;
        zyn_own_pointer(w[b]);
      }
      // Unrolled, the same sums of 256-bit vectors let this processor's clock stay 5 % higher.
      const float* eight = in + pixel * 8;
      ZYN_UNROLL_BY(kBlocksAtOnce)
      for (int32_t n = in_channels / 8; n > 0; n--, eight += pixels * 8) {
        if (more) {
          _mm_prefetch(line, _MM_HINT_T1);
          _mm_prefetch(line + kLine, _MM_HINT_T1);
          line += 2 * kLine;
        }
        add_inputs<OB, 8>(sum, eight, w);
      }
      int32_t ic = in_channels / 8 * 8;
      if (in_channels - ic >= 4) {
        add_inputs<OB, 4>(sum, in + ic * pixels + pixel * 4, w);
        ic += 4;
      }
      for (; ic < in_channels; ic++) add_inputs<OB, 1>(sum, in + ic * pixels + pixel, w);
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) zyn_store_blocks<OB>(
            out + b * pixels * OB + i * kBlock, pixels * kBlock, lanes::max(floor, sum[b][i]));
      }
    }
    ahead->at = line;
  }
};

// Single output channel: the lanes are the input channels.
template <int Width, int Pixels>
inline void add_dots(float (&total)[Pixels], const float* in, int64_t step, const float* w,
                     int32_t blocks) {
  using lanes = zyn_block_lanes<Width>;
  typename lanes::type sum[Pixels];
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] = lanes::zero();
  for (int32_t b = 0; b < blocks; b++) {
    const typename lanes::type weight = lanes::load(w + b * Width);
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] =
        lanes::fma(lanes::load(in + b * step + i * Width), weight, sum[i]);
  }
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) total[i] += lanes::sum(sum[i]);
}

// The lanes of each half of 4 vectors joined as lanes::sum of 4 does: halves 0 and 4, 1 and 5, ...
// are pixels 0 to 7.
inline __m256 join_halves(const __m256 (&v)[4]) {
  __m256 pair[2];
  ZYN_UNROLL for (int i = 0; i < 2; i++) pair[i] =
      _mm256_add_ps(_mm256_shuffle_ps(v[2 * i], v[2 * i + 1], 0x44),
                    _mm256_shuffle_ps(v[2 * i], v[2 * i + 1], 0xEE));
  return _mm256_add_ps(_mm256_shuffle_ps(pair[0], pair[1], 0x88),
                       _mm256_shuffle_ps(pair[0], pair[1], 0xDD));
}

// The same for 8 pixels, whose results are a vector.
template <int Width>
inline __m256 dots_of_8(const float* in, int64_t step, const float* w, int32_t blocks) {
  using lanes = zyn_block_lanes<Width>;
  typename lanes::type sum[8];
  ZYN_UNROLL for (int i = 0; i < 8; i++) sum[i] = lanes::zero();
  for (int32_t b = 0; b < blocks; b++) {
    const typename lanes::type weight = lanes::load(w + b * Width);
    ZYN_UNROLL for (int i = 0; i < 8; i++) sum[i] =
        lanes::fma(lanes::load(in + b * step + i * Width), weight, sum[i]);
  }
  __m256 joined[4];
  ZYN_UNROLL for (int i = 0; i < 4; i++) {
    if constexpr (Width == 8)
      joined[i] = _mm256_add_ps(_mm256_permute2f128_ps(sum[i], sum[i + 4], 0x20),
                                _mm256_permute2f128_ps(sum[i], sum[i + 4], 0x31));
    else
      joined[i] = _mm256_insertf128_ps(_mm256_castps128_ps256(sum[i]), sum[i + 4], 1);
  }
  return join_halves(joined);
}

template <>
struct tiles<1, 1> {
  const zyn_blocked_layer& l;
  int32_t oc;
  zyn_tile_epilogue epilogue;
  weights_ahead* ahead;

  template <int Pixels>
  [[gnu::noinline]] void run(int64_t pixel, int64_t count) const {
    const int64_t pixels = l.in_plane();
    const float* w = l.packed + static_cast<int64_t>(oc) * l.in_channels;
    const int32_t eights = l.in_channels / 8, fours = l.in_channels % 8 / 4;
    const int32_t four = eights * 8, one = four + fours * 4, ones = l.in_channels - one;
    for (; count > 0; count--, pixel += Pixels) {
      const float *in8 = l.in + pixel * 8, *in4 = l.in + four * pixels + pixel * 4;
      const float* in1 = l.in + one * pixels + pixel;
      float* out = l.out + oc * pixels + pixel;
      if constexpr (Pixels == 8) {
        using lanes = zyn_block_lanes<8>;
        __m256 total = lanes::add(lanes::zero(), dots_of_8<8>(in8, pixels * 8, w, eights));
        if (fours) total = lanes::add(total, dots_of_8<4>(in4, pixels * 4, w + four, 1));
        __m256 sum = lanes::zero();
        for (int32_t i = 0; i < ones; i++)
          lanes::add_product(sum, lanes::load(in1 + i * pixels), lanes::spread(w + one + i));
        const __m256 bias = lanes::spread(epilogue.bias<1>(0));
        const __m256 floor = lanes::spread(epilogue.floor<1>());
        lanes::store(out, lanes::max(floor, lanes::add(lanes::add(total, sum), bias)));
      } else {
        float total[Pixels] = {};
        add_dots<8>(total, in8, pixels * 8, w, eights);
        if (fours) add_dots<4>(total, in4, pixels * 4, w + four, 1);
        add_dots<1>(total, in1, pixels, w + one, ones);
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) out[i] = epilogue.apply<1>(total[i], 0);
      }
    }
  }
};

// Channels c to c + 3 of 8 pixels that lie pitch floats apart, as vectors of pixels.
inline void load_four(const float* in, int64_t pitch, __m256 (&channel)[4]) {
  __m256 row[4], pair[4];
  ZYN_UNROLL for (int i = 0; i < 4; i++) row[i] = _mm256_insertf128_ps(
      _mm256_castps128_ps256(_mm_loadu_ps(in + i * pitch)), _mm_loadu_ps(in + (i + 4) * pitch), 1);
  ZYN_UNROLL for (int i = 0; i < 4; i += 2) {
    pair[i] = _mm256_unpacklo_ps(row[i], row[i + 1]);
    pair[i + 1] = _mm256_unpackhi_ps(row[i], row[i + 1]);
  }
  ZYN_UNROLL for (int i = 0; i < 2; i++) {
    channel[2 * i] = _mm256_shuffle_ps(pair[i], pair[i + 2], 0x44);
    channel[2 * i + 1] = _mm256_shuffle_ps(pair[i], pair[i + 2], 0xEE);
  }
}

// 4 output channels by Groups times 8 pixels, which lie in the lanes: 4 channels would leave
// half of them idle. Every sum takes its terms in the order of the tiles above.
template <int Groups>
[[gnu::noinline]] void four_by_pixels(const zyn_blocked_layer& l, int32_t oc,
                                      const zyn_tile_epilogue& epilogue, int64_t pixel) {
  using lanes = zyn_block_lanes<8>;
  const int64_t pixels = l.in_plane();
  const float* w = l.packed + static_cast<int64_t>(oc) * l.in_channels;
  const int32_t in_channels = l.in_channels;
  __m256 sum[Groups][4];
  alignas(16) float bias[4];
  _mm_store_ps(bias, epilogue.bias<4>(0));
  ZYN_UNROLL for (int g = 0; g < Groups; g++) {
    ZYN_UNROLL for (int o = 0; o < 4; o++) sum[g][o] = lanes::spread(bias + o);
  }
  const auto add = [&](const __m256& value, int g, const float* weights)
      __attribute__((always_inline)) {
    ZYN_UNROLL for (int o = 0; o < 4; o++)
        lanes::add_product(sum[g][o], value, lanes::spread(weights + o));
  };
  const auto add_four = [&](const float* in, int64_t pitch) __attribute__((always_inline)) {
    ZYN_UNROLL for (int g = 0; g < Groups; g++) {
      // Loaded again for every group: else the compiler keeps 16 of them, and the sums in memory.
      const float* weights = w;
      __asm__ volatile("" : "+r"(weights));
      __m256 value[4];
      load_four(in + g * 8 * pitch, pitch, value);
      ZYN_UNROLL for (int k = 0; k < 4; k++) add(value[k], g, weights + k * 4);
    }
    w += 16;
  };
  const float* in = l.in + pixel * 8;
  int32_t ic = 0;
  for (; ic + 8 <= in_channels; ic += 8, in += pixels * 8) {
    add_four(in, 8);
    add_four(in + 4, 8);
  }
  if (in_channels - ic >= 4) {
    add_four(l.in + ic * pixels + pixel * 4, 4);
    ic += 4;
  }
  for (; ic < in_channels; ic++, w += 4)
    ZYN_UNROLL for (int g = 0; g < Groups; g++)
        add(lanes::load(l.in + ic * pixels + pixel + g * 8), g, w);
  const __m256 floor = epilogue.floor<8>();
  float* out = l.out + oc * pixels + pixel * 4;
  ZYN_UNROLL for (int g = 0; g < Groups; g++, out += 32) {
    __m256 y[4], pair[4];
    ZYN_UNROLL for (int o = 0; o < 4; o++) y[o] = lanes::max(floor, sum[g][o]);
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
}

// The same for pixels first to end - 1, at least 8: those that the last group shares with the one
// before are computed twice.
void strip_of_four(const zyn_blocked_layer& l, int32_t oc, int64_t first, int64_t end) {
  const zyn_tile_epilogue epilogue(l.epilogue, oc, 4);
  int64_t pixel = first;
  for (; pixel + 16 <= end; pixel += 16) four_by_pixels<2>(l, oc, epilogue, pixel);
  if (pixel + 8 < end && end - first >= 16)
    four_by_pixels<2>(l, oc, epilogue, end - 16);
  else if (pixel + 8 < end)
    four_by_pixels<1>(l, oc, epilogue, pixel), four_by_pixels<1>(l, oc, epilogue, end - 8);
  else if (pixel < end)
    four_by_pixels<1>(l, oc, epilogue, end - 8);
  epilogue.finish(l.out + oc * l.out_plane() + first * 4, (end - first) * 4);
}

// Pixels of the largest tile.
constexpr int most_pixels(int ob, int blocks) {
  return ob == 1 ? kDotPixels : kTileSums / blocks < kMostPixels ? kTileSums / blocks : kMostPixels;
}

template <int OB, int Blocks>
void strip(const zyn_blocked_layer& l, int32_t oc, int64_t first, int64_t end) {
  constexpr int kBlock = OB < 8 ? OB : 8;
  const float* next = l.packed + static_cast<int64_t>(oc + OB * Blocks) * l.in_channels;
  const bool more = first == 0 && oc + OB * Blocks < l.out_channels;
  const float* last = more ? next + OB * Blocks * int64_t{l.in_channels} : next;
  weights_ahead ahead = {reinterpret_cast<const char*>(next), reinterpret_cast<const char*>(last)};
  const tiles<OB, Blocks> body{l, oc, zyn_tile_epilogue(l.epilogue, oc, OB * Blocks), &ahead};
  zyn_balanced_tiles<most_pixels(OB, Blocks)>(first, end, body);
  body.epilogue.finish(l.out + oc * l.out_plane() + first * kBlock, (end - first) * kBlock,
                       OB * Blocks / kBlock, l.out_plane() * kBlock);
}

// Strips of nearly equal size, a multiple of every tile's pixels.
void run(const zyn_blocked_layer& l) {
  const int64_t pixels = l.in_plane();
  const bool few = l.out_channels < kFewOutputs && l.out_channels % 4 > 0 && l.out_channels > 1 &&
                   l.in_channels >= 4 * kFewOutputs;
  const int64_t bytes = few ? kFewStripBytes : kStripBytes;
  const int64_t fitting = bytes / (static_cast<int64_t>(sizeof(float)) * l.in_channels);
  const int64_t most = (fitting / kTileSums + 1) * kTileSums;
  const int64_t strips = (pixels + most - 1) / most;
  const int64_t tiles = (pixels + strips * kTileSums - 1) / (strips * kTileSums);
  const int64_t step = tiles * kTileSums;
  for (int64_t first = 0; first < pixels; first += step) {
    const int64_t end = first + step < pixels ? first + step : pixels;
    const int64_t here = end - first;
    for (int32_t oc = 0, channels = 0; oc < l.out_channels; oc += channels) {
      const int32_t left = l.out_channels - oc;
      const bool four = kWide > 8 && left >= 4 * kWide && l.in_channels <= kMostInputsOfFour;
      channels = kWide == 8 && left == 24 ? 24
                 : four                   ? 4 * kWide
                 : left >= 2 * kWide      ? 2 * kWide
                                          : zyn_vector_channels(left);
      if (kWide == 8 && channels == 24)
        strip<8, 3>(l, oc, first, end);
      else if (kWide > 8 && channels == 4 * kWide)
        strip<kWide, kWide == 8 ? 1 : 4>(l, oc, first, end);
      else if (channels == 2 * kWide)
        strip<kWide, 2>(l, oc, first, end);
      else if (kWide > 8 && channels == kWide)
        strip<kWide, 1>(l, oc, first, end);
      else if (channels == 8)
        strip<8, 1>(l, oc, first, end);
      else if (channels == 4 && here >= 8)
        strip_of_four(l, oc, first, end);
      else if (channels == 4)
        strip<4, 1>(l, oc, first, end);
      else
        strip<1, 1>(l, oc, first, end);
    }
  }
}

}  // namespace

uint32_t zyn_cg_conv1x1(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                        const zyn_conv_param* param, const zyn_conv_epilogue* epilogue) {
  return zyn_blocked_drive(output, input, packed, param, epilogue, 1, run);
}

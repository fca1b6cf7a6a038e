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
// Outputs behind a block of 4 read a strip once more: it stays in the first level where others are
// few.
constexpr int32_t kFewOutputs = 8;
constexpr int64_t kFewStripBytes = 24 * 1024;
// Sums of a tile: with two FMA ports and a latency of 4 cycles, 8 would do; the rest hides the
// loads. Tiles are 2 vectors of output channels by 6 pixels; 3 by 4, for the last 24 channels,
// leave gcc no register to spare. 512-bit vectors bring twice the registers: 4 by 6, which reach 99
// % of the multiply-adds, or where their weights overflow the first level 2 by 12 (93 %).
constexpr int kWide = kZynVectorFloats;
constexpr int kTileSums = kWide == 8 ? 12 : 24;
constexpr int kMostPixels = 12;
constexpr int kBlock = 8;  // output channels of a block
constexpr int32_t kMostInputsOfFour = 128;
constexpr int kBlocksAtOnce = kWide == 8 ? 4 : 1;  // input blocks in a round of the loop

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
// second cache level, and a layer of few pixels would wait for them as long as it computes. Behind
// the layer's own lie those of the layers after it. They are asked for evenly over the first strip,
// not as soon as there is time: 2 MB of weights that lay idle early cost a layer 3 % and more.
struct weights_ahead {
  const char *at, *end;
  bool hurried;  // four lines in a turn, so that the turns suffice

  // For the outputs that end before done: asks for the weights of the next ones, and for a share
  // of the later layers' as large as that of done among the outputs.
  void move_on(const zyn_blocked_layer& l, int64_t done, int64_t next, bool first_strip) {
    const auto* packed = reinterpret_cast<const char*>(l.packed);
    const int64_t output = l.in_channels * int64_t{sizeof(float)}, all = l.out_channels;
    if (at < packed + done * output) at = packed + done * output;
    if (!first_strip || done + next > all) {
      done = all;
      next = 0;
    }
    end = packed + (done + next) * output + l.behind * done / all;
  }
};
constexpr int64_t kLine = 64;  // bytes; two in every turn of the loop, or four

// Asks for a turn's lines. Where the next turn's begin.
[[gnu::always_inline]] inline const char* ask(const char* line, bool hurried) {
  _mm_prefetch(line, _MM_HINT_T1);
  _mm_prefetch(line + kLine, _MM_HINT_T1);
  line += 2 * kLine;
  if (!hurried) return line;
  _mm_prefetch(line, _MM_HINT_T1);
  _mm_prefetch(line + kLine, _MM_HINT_T1);
  return line + 2 * kLine;
}

// Blocks vectors of OB output channels from oc on.
template <int OB, int Blocks>
struct tiles {
  const zyn_blocked_layer& l;
  int32_t oc;
  zyn_tile_epilogue epilogue;
  weights_ahead* ahead;

  // What a layer adds at a pixel.
  template <int Pixels>
  void add_sums(typename zyn_block_lanes<OB>::type (&sum)[Blocks][Pixels], const float* sums,
                int64_t pixel) const {
    using lanes = zyn_block_lanes<OB>;
    const int64_t block = l.sums_plane * kBlock;
    const float* from = sums + oc * l.sums_plane + pixel * kBlock;
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
        const float* place = from + b * block * (OB / kBlock) + i * kBlock;
        sum[b][i] = lanes::add(sum[b][i], zyn_load_blocks<OB>(place, block));
      }
    }
  }

  // A tile's sums to their places.
  template <int Pixels>
  [[gnu::always_inline]] void finish(typename zyn_block_lanes<OB>::type (&sum)[Blocks][Pixels],
                                     typename zyn_block_lanes<OB>::type floor, float* out,
                                     int64_t out_block, int64_t pixel) const {
    using lanes = zyn_block_lanes<OB>;
    for (const float* sums : l.sums)
      if (sums) add_sums(sum, sums, pixel);
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++)
          zyn_store_blocks<OB>(out + b * out_block * (OB / kBlock) + i * kBlock, out_block,
                               lanes::max(floor, sum[b][i]));
    }
  }

  // Values are copied to locals first: vector stores may alias anything in memory. A function
  // of its own for every size: gcc shares the registers out badly among several loops.
  template <int Pixels>
  [[gnu::noinline]] void run(int64_t pixel, int64_t count) const {
    using lanes = zyn_block_lanes<OB>;
    const int64_t in_plane = l.in_plane(), out_block = l.out_plane() * kBlock;
    const int32_t in_channels = l.in_channels;
    const int64_t weight_block = static_cast<int64_t>(OB) * in_channels;
    const float* const in = l.in;
    const float* const packed = l.packed + static_cast<int64_t>(oc) * in_channels;
    const typename lanes::type floor = epilogue.floor<OB>();
    float* out = l.out + oc * l.out_plane() + pixel * kBlock;
    const char *line = ahead->at, *const last_line = ahead->end;
    const bool hurried = ahead->hurried;
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
      for (int32_t n = in_channels / 8; n > 0; n--, eight += in_plane * 8) {
        if (more) line = ask(line, hurried);
        add_inputs<OB, 8>(sum, eight, w);
      }
      int32_t ic = in_channels / 8 * 8;
      if (in_channels - ic >= 4) {
        add_inputs<OB, 4>(sum, in + ic * in_plane + pixel * 4, w);
        ic += 4;
      }
      for (; ic < in_channels; ic++) add_inputs<OB, 1>(sum, in + ic * in_plane + pixel, w);
      finish(sum, floor, out, out_block, pixel);
    }
    ahead->at = line;
  }
};

// Pixels of the largest tile.
constexpr int most_pixels(int blocks) {
  return kTileSums / blocks < kMostPixels ? kTileSums / blocks : kMostPixels;
}

template <int OB, int Blocks>
void strip(const zyn_blocked_layer& l, int32_t oc, int64_t first, int64_t end,
           weights_ahead* ahead) {
  ahead->move_on(l, oc + OB * Blocks, OB * Blocks, first == 0);
  const tiles<OB, Blocks> body{l, oc, zyn_tile_epilogue(l.epilogue, oc, OB * Blocks), ahead};
  zyn_balanced_tiles<most_pixels(Blocks)>(first, end, body);
  body.epilogue.finish(l.out + oc * l.out_plane() + first * kBlock, (end - first) * kBlock,
                       OB * Blocks / kBlock, l.out_plane() * kBlock);
}

}  // namespace

// Strips of nearly equal size, a multiple of every tile's pixels.
void zyn_blocked_1x1(const zyn_blocked_layer& l, int64_t pixels) {
  const bool few =
      l.out_channels < kFewOutputs && l.out_channels > 4 && l.in_channels >= 4 * kFewOutputs;
  const int64_t bytes = few ? kFewStripBytes : kStripBytes;
  const int64_t fitting = bytes / (static_cast<int64_t>(sizeof(float)) * l.in_channels);
  const int64_t most = (fitting / kTileSums + 1) * kTileSums;
  const int64_t strips = (pixels + most - 1) / most;
  const int64_t tiles = (pixels + strips * kTileSums - 1) / (strips * kTileSums);
  const int64_t step = tiles * kTileSums;
  // Bytes that the loop's turns leave over for the weights of later layers.
  const int64_t weights = int64_t{l.in_channels} * l.out_channels;
  const int64_t turns = pixels * weights / (int64_t{kBlock} * kWide * kTileSums);
  const int64_t room = turns * 2 * kLine - weights * int64_t{sizeof(float)};
  weights_ahead ahead = {nullptr, nullptr, room > 0 && room < l.behind};
  for (int64_t first = 0; first < pixels; first += step) {
    const int64_t end = first + step < pixels ? first + step : pixels;
    for (int32_t oc = 0, channels = 0; oc < l.out_channels; oc += channels) {
      const int32_t left = l.out_channels - oc;
      const bool four = kWide > 8 && left >= 4 * kWide && l.in_channels <= kMostInputsOfFour;
      channels = kWide == 8 && left == 24 ? 24
                 : four                   ? 4 * kWide
                 : left >= 2 * kWide      ? 2 * kWide
                                          : zyn_vector_channels(left);
      if (kWide == 8 && channels == 24)
        strip<8, 3>(l, oc, first, end, &ahead);
      else if (kWide > 8 && channels == 4 * kWide)
        strip<kWide, kWide == 8 ? 1 : 4>(l, oc, first, end, &ahead);
      else if (channels == 2 * kWide)
        strip<kWide, 2>(l, oc, first, end, &ahead);
      else if (kWide > 8 && channels == kWide)
        strip<kWide, 1>(l, oc, first, end, &ahead);
      else
        channels = zyn_conv1x1_few_outputs(l, oc, first, end);
    }
  }
}

namespace {
void run(const zyn_blocked_layer& l) { zyn_blocked_1x1(l, l.in_plane()); }
}  // namespace

uint32_t zyn_cg_conv1x1(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                        const zyn_conv_param* param, const zyn_conv_epilogue* epilogue,
                        int64_t behind) {
  return zyn_blocked_drive(output, input, packed, param, epilogue, 1, run, behind);
}

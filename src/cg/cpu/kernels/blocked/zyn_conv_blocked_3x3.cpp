// Dense 3x3 convolution, stride 1 and 2, padding 1, on channel-blocked tensors.
//
// One micro-kernel family: a tile of Pixels output pixels by Blocks vectors of OB output
// channels accumulates one input block of IB channels in registers and adds to the output
// once. Two vectors by 6 pixels are 12 accumulators: with two FMA ports and a latency of 4
// cycles, 8 would do; the rest hides the loads; one vector of 8 takes these 8, for smaller code.
// 512-bit vectors bring registers for 12 pixels. Blocks of 4 outputs and single ones put the input
// channels into the lanes instead and sum the lanes at the end. The first input blocks' sums start
// at zero, the later ones' at the output. Taps outside the image are left out: the first and last
// row take fewer kernel rows, the first and last column are run through downwards.
#include <string.h>

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_dots.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_tile.h"

namespace {

constexpr int kTaps = 9;
constexpr int kWide = kZynVectorFloats;
// Whether the lanes of a tile are input channels: of outputs less than a block of 8.
constexpr bool is_dots(int ob, int ib) { return ob < 8 && ib > 1; }

constexpr int tile_pixels(int ob, int ib, int blocks) {
  if (is_dots(ob, ib)) return ob == 4 ? 3 : blocks == 1 ? 8 : 4;
  if (ob > 8) return ib == 1 && blocks == 1 ? 24 : 12;
  return blocks == 1 ? 8 : 6;
}
constexpr int edge_pixels(int ob) { return ob == 4 ? 3 : 4; }  // few pixels, so less code
constexpr int32_t kGroupBlocks = 4;  // input blocks added per load and store of an output value
constexpr int64_t kStripBytes = 64 * 1024;  // output rows of one block pair kept in L1

// Vectors of 16 outputs take half as many blocks of 8, so that their weights are as many. Lanes of
// inputs are joined where a group ends: it is long, and the same for all vectors.
constexpr int32_t group_blocks(int ob, int ib) {
  return is_dots(ob, ib) ? 4 * kGroupBlocks : ob > 8 && ib == 8 ? kGroupBlocks / 2 : kGroupBlocks;
}

// Channels of one block among the OB of a vector.
constexpr int block_of(int ob) { return ob < 8 ? ob : 8; }

// One call's planes: a group of input blocks and up to two vectors of output channels.
struct planes {
  const float* in;
  int32_t in_width;       // channels of an input block
  int32_t in_blocks;      // input blocks of the group
  int64_t in_block;       // floats from one input block to the next
  int32_t width, height;  // input
  float* out;             // first output block
  int64_t out_block;      // floats from one output block to the next
  int32_t out_width;
  const float* weights;        // sub-blocks of the first vector
  int64_t weight_block;        // floats from one vector's sub-blocks to the next
  bool first;                  // whether sums start at zero, not at the output
  zyn_tile_epilogue epilogue;  // active on the last input block only
};

alignas(64) constexpr float kZeros[kWide] = {};

// Kernel rows of an output row that lie inside the image: begin to end - 1.
struct kernel_rows {
  int begin, end;
  bool operator==(const kernel_rows& o) const { return begin == o.begin && end == o.end; }
};

template <int Stride>
kernel_rows rows_inside(const planes& p, int32_t y) {
  const int32_t top = y * Stride - 1;
  return {top < 0 ? -top : 0, p.height - top < 3 ? p.height - top : 3};
}

// The taps that a run of pixels takes, over every input block of the group, or in one block if
// the lanes are inputs: offsets in floats from the pixel's top left tap and from the first weight.
struct tap_list {
  int32_t count;
  int64_t in[kTaps * kGroupBlocks];
  int32_t weight[kTaps * kGroupBlocks];
};

// Taps that follow each other in memory and are one entry of the list: a kernel row of a single
// input channel, whose tile has little else to do.
constexpr int joined_taps(int ob, int ib, bool down) {
  return ob > 1 && ob <= 8 && ib == 1 && !down ? 3 : 1;
}

// Taps of kernel columns kx0 to kx1 - 1 in the given kernel rows, step of them an entry.
template <int OB, int IB>
tap_list taps_of(const planes& p, kernel_rows ky, int kx0, int kx1, int step = 1) {
  tap_list taps;
  taps.count = 0;
  for (int32_t n = 0; n < (is_dots(OB, IB) ? 1 : p.in_blocks); n++)
    for (int k = ky.begin; k < ky.end; k++)
      for (int kx = kx0; kx < kx1; kx += step, taps.count++) {
        taps.in[taps.count] =
            n * p.in_block + (static_cast<int64_t>(k) * p.width + kx) * p.in_width;
        taps.weight[taps.count] = (n * kTaps + k * 3 + kx) * (p.in_width * OB);
      }
  return taps;
}

// Floats from the input block's start to the top left tap of pixel (x, y).
template <int Stride>
int64_t corner(const planes& p, int32_t y, int32_t x) {
  return (static_cast<int64_t>(y * Stride - 1) * p.width + x * Stride - 1) * p.in_width;
}

// A kernel row of one input channel to one vector of outputs. Every value is spread once for all
// the pixels that see it: 512-bit vectors have as many multiply-adds a cycle as loads.
template <int OB, int Pixels, int Stride>
[[gnu::always_inline]] inline void add_row(typename zyn_block_lanes<OB>::type (&sum)[Pixels],
                                           const float* in, const float* weights) {
  using lanes = zyn_block_lanes<OB>;
  typename lanes::type weight[3];
  ZYN_UNROLL for (int k = 0; k < 3; k++) weight[k] = lanes::load(weights + k * OB);
  ZYN_UNROLL_BY(64)
  for (int x = 0; x < (Pixels - 1) * Stride + 3; x++) {
    const typename lanes::type value = lanes::spread(in + x);
    ZYN_UNROLL for (int k = 2; k >= 0; k--) {
      const int pixel = (x - k) / Stride;
      if (x >= k && (x - k) % Stride == 0 && pixel < Pixels)
        lanes::add_product(sum[pixel], value, weight[k]);
    }
  }
}

// Pixels output pixels from (x, y) on, rightwards or downwards.
template <int OB, int IB, int Blocks, int Pixels, int Stride, bool Down = false>
inline void tile(const planes& p, int32_t y, int32_t x, const tap_list& taps) {
  using lanes = zyn_block_lanes<OB>;
  constexpr int kBlock = block_of(OB);
  const int64_t in_step = Down ? static_cast<int64_t>(Stride) * p.width * IB : Stride * IB;
  const int64_t out_step = Down ? static_cast<int64_t>(p.out_width) * kBlock : kBlock;
  const int64_t out_vector = p.out_block * (OB / kBlock);
  typename lanes::type sum[Blocks][Pixels];
  float* out = p.out + (static_cast<int64_t>(y) * p.out_width + x) * kBlock;
  const float* from = p.first ? kZeros : out;
  const int64_t from_block = p.first ? 0 : p.out_block, from_step = p.first ? 0 : out_step;
  const int64_t from_vector = p.first ? 0 : out_vector;
  ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[b][i] =
        OB > 8 && p.first ? lanes::zero()
                          : zyn_load_blocks<OB>(from + b * from_vector + i * from_step, from_block);
  }
  const int64_t first = corner<Stride>(p, y, x);
  constexpr bool kRows = OB > 8 && IB == 1 && Blocks == 1 && !Down;
  if constexpr (kRows)
    for (int32_t t = 0; t < taps.count; t += 3)
      add_row<OB, Pixels, Stride>(sum[0], p.in + (first + taps.in[t]), p.weights + taps.weight[t]);
  for (int32_t t = kRows ? taps.count : 0; t < taps.count; t++) {
    const float* in = p.in + (first + taps.in[t]);
    const float* w[Blocks];
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
      w[b] = p.weights + taps.weight[t] + b * p.weight_block;
      if (IB > 1) zyn_own_pointer(w[b]);  // for one input a tap it costs more than it saves
    }
    const auto add_input = [&](int ic) __attribute__((always_inline)) {
      typename lanes::type weight[Blocks];
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) weight[b] = lanes::load(w[b] + ic * OB);
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
        const typename lanes::type value = lanes::spread(in + i * in_step + ic);
        ZYN_UNROLL for (int b = 0; b < Blocks; b++) lanes::add_product(sum[b][i], value, weight[b]);
      }
    };
    const auto next_tap = [&]() __attribute__((always_inline)) {
      zyn_own_pointer(++in);
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) zyn_own_pointer(w[b] += OB);
    };
    // Small code rather than the last cycles: of few pixels, of one vector. Two vectors of 16 by 12
    // pixels are a loop long enough.
    if constexpr (joined_taps(OB, IB, Down) > 1) {
      ZYN_UNROLL for (int kx = 0; kx < 3; kx++) {
        add_input(0);
        next_tap();
      }
    } else if constexpr (Down || OB > 8 || Blocks == 1) {
      ZYN_UNROLL_BY(1) for (int ic = 0; ic < IB; ic++) add_input(ic);
    } else {
      ZYN_UNROLL for (int ic = 0; ic < IB; ic++) add_input(ic);
    }
  }
  ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) zyn_store_blocks<OB>(
        out + b * out_vector + i * out_step, p.out_block, p.epilogue.apply<OB>(sum[b][i], b));
  }
}

// Single inputs of a single output, stride 1: the lanes are pixels of a row.
template <int Pixels>
inline void row_tile(const planes& p, int32_t y, int32_t x, const tap_list& taps) {
  using lanes = zyn_block_lanes<8>;
  const __m256i mask = zyn_first_lanes(Pixels);
  const auto load = [&](const float* from) {
    return Pixels == 8 ? lanes::load(from) : _mm256_maskload_ps(from, mask);
  };
  float* out = p.out + (static_cast<int64_t>(y) * p.out_width + x);
  __m256 sum = p.first ? lanes::zero() : load(out);
  const int64_t first = corner<1>(p, y, x);
  for (int32_t t = 0; t < taps.count; t++)
    lanes::add_product(sum, load(p.in + (first + taps.in[t])),
                       lanes::spread(p.weights + taps.weight[t]));
  sum = lanes::add(sum, lanes::spread(p.epilogue.biases()));
  _mm256_maskstore_ps(out, mask, lanes::max(p.epilogue.floor<8>(), sum));
}

// A block of 4 outputs or Blocks single ones: the lanes are the input channels. The first pixel's
// top left tap is first floats from p.in; pixels are in_step floats apart there, out_step in out.
template <int OB, int Blocks, int Pixels>
[[gnu::noinline]] void dot_tile(const planes& p, int64_t first, int64_t in_step, float* out,
                                int64_t out_step, const tap_list& taps) {
  using lanes = zyn_block_lanes<OB>;
  const int32_t width = p.in_width;
  const int64_t in_block = p.in_block, apart = OB == 1 ? p.weight_block : width;
  __m256 sum[OB * Blocks][Pixels];
  ZYN_UNROLL for (int o = 0; o < OB * Blocks; o++) ZYN_UNROLL for (int i = 0; i < Pixels; i++)
      sum[o][i] = _mm256_setzero_ps();
  for (int32_t t = 0; t < taps.count; t++) {
    const float* in = p.in + (first + taps.in[t]);
    const float* weights = p.weights + taps.weight[t];
    if (width == 8)
      for (int32_t n = p.in_blocks; n > 0; n--, in += in_block, weights += OB * 8 * kTaps)
        zyn_add_dots<8>(sum, in, in_step, weights, apart);
    else  // the only one
      zyn_add_dots<4>(sum, in, in_step, weights, apart);
  }
  alignas(16) float joined[(Pixels + 3) * OB];
  ZYN_UNROLL for (int b = 0; b < Blocks; b++, out += p.out_block) {
    // Lanes of 4 outputs or of 4 pixels are joined at once.
    const auto v = [&](int i, int k) __attribute__((always_inline)) {
      return OB == 4 ? sum[k][i] : sum[b][i + k < Pixels ? i + k : Pixels - 1];
    };
    ZYN_UNROLL for (int i = 0; i < Pixels; i += 4 / OB)
        _mm_store_ps(joined + i * OB, zyn_join_dots(v(i, 0), v(i, 1), v(i, 2), v(i, 3)));
    ZYN_UNROLL_BY(1) for (int i = 0; i < Pixels; i++) {
      float* to = out + i * out_step;
      const auto value =
          lanes::add(lanes::load(p.first ? kZeros : to), lanes::load(joined + i * OB));
      lanes::store(to, p.epilogue.apply<OB>(value, b));
    }
  }
}

// Tiles of one row from column x on, or of one column from row y on.
template <int OB, int IB, int Blocks, int Stride, bool Down>
struct line {
  const planes& p;
  int32_t y, x;
  const tap_list& taps;
  template <int Pixels>
  void run(int64_t first, int64_t count) const {
    for (; count > 0; count--, first += Pixels) {
      const auto at = static_cast<int32_t>(first);
      const int32_t row = Down ? at : y, column = Down ? x : at;
      if constexpr (is_dots(OB, IB))
        dot_tile<OB, Blocks, Pixels>(
            p, corner<Stride>(p, row, column),
            static_cast<int64_t>(Stride) * (Down ? p.width : 1) * p.in_width,
            p.out + (static_cast<int64_t>(row) * p.out_width + column) * OB,
            static_cast<int64_t>(Down ? p.out_width : 1) * OB, taps);
      else if constexpr (OB == 1 && IB == 1 && Stride == 1 && !Down)
        row_tile<Pixels>(p, row, column, taps);
      else
        tile<OB, IB, Blocks, Pixels, Stride, Down>(p, row, column, taps);
    }
  }
};

// Column x of rows y0 to y1 - 1, downwards: one pixel alone would wait for its own sums.
template <int OB, int IB, int Blocks, int Stride>
[[gnu::noinline]] void edge_column(const planes& p, int32_t x, int32_t y0, int32_t y1,
                                   const tap_list& taps) {
  zyn_balanced_tiles<edge_pixels(OB)>(y0, y1, line<OB, IB, Blocks, Stride, true>{p, 0, x, taps});
}

// Rows y0 to y1 - 1, which take the same kernel rows: the columns whose taps all lie
// inside, then the edges.
template <int OB, int IB, int Blocks, int Stride>
void equal_rows(const planes& p, int32_t y0, int32_t y1, kernel_rows ky) {
  // One past the last column with all taps; column 0 never has them.
  const int32_t end = p.width < 2 ? 1 : (p.width - 2) / Stride + 1;
  if (end > 1) {
    const tap_list taps = taps_of<OB, IB>(p, ky, 0, 3, joined_taps(OB, IB, false));
    for (int32_t y = y0; y < y1; y++)
      zyn_balanced_tiles<tile_pixels(OB, IB, Blocks)>(
          1, end, line<OB, IB, Blocks, Stride, false>{p, y, 0, taps});
  }
  edge_column<OB, IB, Blocks, Stride>(p, 0, y0, y1, taps_of<OB, IB>(p, ky, 1, p.width > 1 ? 3 : 2));
  if (end < p.out_width)
    edge_column<OB, IB, Blocks, Stride>(p, end, y0, y1, taps_of<OB, IB>(p, ky, 0, 2));
}

template <int OB, int IB, int Blocks, int Stride>
void rows(const planes& p, int32_t y0, int32_t y1) {
  while (y0 < y1) {
    const kernel_rows ky = rows_inside<Stride>(p, y0);
    int32_t end = y0 + 1;
    while (end < y1 && rows_inside<Stride>(p, end) == ky) end++;
    equal_rows<OB, IB, Blocks, Stride>(p, y0, end, ky);
    y0 = end;
  }
}

// The sub-blocks of one input block for one vector of outputs, in an aligned local buffer:
// [tap][input][output]. packed: the first block's, whose next one is apart floats away.
template <int OB, int IB>
void load_weights(float* local, const float* packed, int64_t apart) {
  constexpr int kBlock = block_of(OB);
  if (OB == 8 && IB > 1) {
    memcpy(local, packed, sizeof(float) * OB * IB * kTaps);
    return;
  }
  for (int b = 0; b < OB / kBlock; b++, packed += apart)
    for (int t = 0; t < kTaps * IB; t++)
      for (int o = 0; o < kBlock; o++)
        local[t * OB + b * kBlock + o] = packed[IB == 1 ? o * kTaps + t : t * kBlock + o];
}

// Adds a group of input blocks of IB channels to Blocks vectors of outputs over a strip of
// rows.
template <int OB, int IB, int Blocks, int Stride>
void accumulate(const zyn_blocked_layer& l, int32_t oc, int32_t ic, int32_t group, int32_t y0,
                int32_t y1) {
  constexpr int kSubBlock = OB * IB * kTaps, kBlock = block_of(OB);
  constexpr bool kDots = is_dots(OB, IB);  // whose packed weights are used where they are
  const int32_t width = kDots ? zyn_block_width(l.in_channels - ic) : IB;
  alignas(64) float local[kDots ? 1 : Blocks * group_blocks(OB, IB) * kSubBlock];
  const int64_t in_plane = l.in_plane(), out_plane = l.out_plane();
  const int64_t output = int64_t{l.in_channels} * kTaps;  // floats of one output's weights
  const float* packed = l.packed + oc * output + static_cast<int64_t>(ic) * kBlock * kTaps;
  for (int b = 0; b < (kDots ? 0 : Blocks); b++)
    for (int n = 0; n < group; n++)
      load_weights<OB, IB>(local + (b * group + n) * kSubBlock,
                           packed + b * OB * output + n * kSubBlock / OB * kBlock, kBlock * output);
  const bool last = ic + group * width == l.in_channels;
  const planes p = {l.in + ic * in_plane,
                    width,
                    group,
                    in_plane * width,
                    l.width,
                    l.height,
                    l.out + oc * out_plane,
                    out_plane * kBlock,
                    l.out_width,
                    kDots ? packed : local,
                    kDots ? output : group * kSubBlock,
                    ic == 0,
                    zyn_tile_epilogue(last ? l.epilogue : nullptr, oc, OB * Blocks)};
  rows<OB, IB, Blocks, Stride>(p, y0, y1);
  const int64_t row = int64_t{l.out_width} * kBlock;
  p.epilogue.finish(p.out + y0 * row, (y1 - y0) * row, OB * Blocks / kBlock, p.out_block);
}

template <int OB, int Blocks, int Stride>
void output_blocks(const zyn_blocked_layer& l, int32_t oc) {
  constexpr int kSingles = OB == 1 ? 1 : Blocks;  // of single inputs: smaller code
  const int64_t row_bytes = static_cast<int64_t>(l.out_width) * OB * Blocks * sizeof(float);
  const int64_t fitting = kStripBytes / row_bytes;
  // Few single inputs are one group: outputs are written once, and wait in no cache.
  const bool once = l.in_channels < 4;
  const int32_t strip = once ? l.out_height : fitting < 4 ? 4 : static_cast<int32_t>(fitting);
  for (int32_t y = 0; y < l.out_height; y += strip) {
    const int32_t end = y + strip < l.out_height ? y + strip : l.out_height;
    for (int32_t ic = 0, step = 0; ic < l.in_channels; ic += step) {
      const int32_t left = l.in_channels - ic;
      const int32_t width = zyn_block_width(left);
      const int32_t whole = left / width;
      const int32_t most = group_blocks(OB, width), group = whole < most ? whole : most;
      step = group * width;
      constexpr int kFour = is_dots(OB, 4) ? 8 : 4;  // lanes of inputs take both alike
      if (width == 8)
        accumulate<OB, 8, Blocks, Stride>(l, oc, ic, group, y, end);
      else if (width == 4)
        accumulate<OB, kFour, Blocks, Stride>(l, oc, ic, group, y, end);
      else
        for (int b = 0; b < Blocks; b += kSingles)
          accumulate<OB, 1, kSingles, Stride>(l, oc + b, ic, group, y, end);
    }
  }
}

template <int Stride>
void run(const zyn_blocked_layer& l) {
  const int32_t done = kWide == 8 ? zyn_blocked_first_layer(l, Stride) : 0;
  for (int32_t oc = done, blocks = 0; oc < l.out_channels; oc += blocks) {
    const int32_t left = l.out_channels - oc;
    blocks = left >= 2 * kWide ? 2 * kWide : left < 4 ? left : zyn_vector_channels(left);
    if (blocks == 2 * kWide)
      output_blocks<kWide, 2, Stride>(l, oc);
    else if (kWide > 8 && blocks == kWide)
      output_blocks<kWide, 1, Stride>(l, oc);
    else if (blocks == 8)
      output_blocks<8, 1, Stride>(l, oc);
    else if (blocks == 4)
      output_blocks<4, 1, Stride>(l, oc);
    else if (blocks == 3)
      output_blocks<1, 3, Stride>(l, oc);
    else if (blocks == 2)
      output_blocks<1, 2, Stride>(l, oc);
    else
      output_blocks<1, 1, Stride>(l, oc);
  }
}

// What is left where there is no memory for the input's copy: an output of zeros.
template <int Stride>
uint32_t drive(zyn_tensor* output, const zyn_tensor* input,
               const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
               const zyn_conv_epilogue* epilogue) {
  const uint32_t code =
      zyn_blocked_drive(output, input, workspace->packed, param, epilogue, Stride, run<Stride>);
  if (code == ZYN_RET_ERR_MEMORY) memset(output->data, 0, static_cast<size_t>(output->byte_size));
  return code;
}

}  // namespace

uint32_t zyn_cg_conv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue) {
  return drive<1>(output, input, workspace, param, epilogue);
}

uint32_t zyn_cg_conv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue) {
  return drive<2>(output, input, workspace, param, epilogue);
}

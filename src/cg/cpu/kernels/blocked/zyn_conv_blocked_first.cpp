// First layers of method 1: dense 3x3 convolutions with padding 1 of up to three planes, wide rows.
// All input channels go through a tile at once, and its outputs are written once; a row's first and
// last pixels, which miss a kernel column, are part of whole tiles. Every sum takes its taps in the
// order of the kernels for more channels, and those outside of the image are left out alike.
#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_tile.h"

namespace {

constexpr int kMostInputs = 3;
constexpr int kKernel = 3;
constexpr int kTaps = kKernel * kKernel;
constexpr int kBlock = 8;
constexpr int32_t kLeastTiles = 4;  // of a row

// Pixels of a tile of Blocks blocks of outputs: 12 sums.
constexpr int tile_pixels(int blocks) { return 12 / blocks; }

// Which kernel column a tile's first or last pixel does without.
enum edge { kNoEdge, kLeft, kRight };

// A kernel column of an input row, which begins at at, to the sums.
template <int Stride, edge Edge, int Blocks, int Pixels>
[[gnu::always_inline]] inline void add_column(__m256 (&sum)[Blocks][Pixels], const float* at,
                                              const float* weights, int kx) {
  using lanes = zyn_block_lanes<kBlock>;
  __m256 weight[Blocks];
  ZYN_UNROLL for (int b = 0; b < Blocks; b++) weight[b] = lanes::load(weights + b * kBlock);
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
    if ((Edge == kLeft && i == 0 && kx == 0) ||
        (Edge == kRight && i == Pixels - 1 && kx == kKernel - 1))
      continue;
    const __m256 value = lanes::spread(at + i * Stride);
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) lanes::add_product(sum[b][i], value, weight[b]);
  }
}

// An output row of Blocks blocks: the rows of input planes under it that exist.
template <int Blocks, int Stride>
struct row {
  static constexpr int kMost = tile_pixels(Blocks);
  const float* in;
  int32_t count;
  int64_t from[kMostInputs * kKernel];          // where they begin, a column before the first
  const float* weights[kMostInputs * kKernel];  // [kernel column][output]
  float* out;
  int64_t out_block;  // floats from one block of outputs to the next
  zyn_tile_epilogue epilogue;

  // count tiles from pixel first on.
  template <int Pixels, edge Edge = kNoEdge>
  [[gnu::noinline]] void tiles(int64_t first, int64_t tiles) const {
    using lanes = zyn_block_lanes<kBlock>;
    const int32_t rows = count;
    const int64_t block = out_block;
    float* to = out + first * kBlock;
    const float* origin = in + first * Stride;
    for (; tiles > 0; tiles--, origin += Pixels * Stride, to += Pixels * kBlock) {
      __m256 sum[Blocks][Pixels];
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[b][i] = lanes::zero();
      }
      ZYN_UNROLL_BY(1) for (int32_t t = 0; t < rows; t++) {
        const float* at = origin + from[t];
        const float* const w = weights[t];
        ZYN_UNROLL for (int kx = 0; kx < kKernel; kx++) {
          add_column<Stride, Edge>(sum, at, w + kx * Blocks * kBlock, kx);
          zyn_own_pointer(++at);  // else values are kept for the next column, and sums in memory
        }
      }
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
        ZYN_UNROLL for (int i = 0; i < Pixels; i++)
            lanes::store(to + b * block + i * kBlock, epilogue.apply<kBlock>(sum[b][i], b));
      }
    }
  }
  // For zyn_balanced_tiles, which takes no smaller ones for rows of kLeastTiles tiles.
  template <int Pixels>
  void run(int64_t first, int64_t count_of_tiles) const {
    if constexpr (3 * Pixels >= 2 * kMost) tiles<Pixels>(first, count_of_tiles);
  }
};

// The weights of blocks blocks of outputs from channel oc on: [input][tap][output].
[[gnu::noinline]] void copy_weights(float* to, const zyn_blocked_layer& l, int32_t oc, int blocks) {
  for (int n = 0; n < l.in_channels; n++)
    for (int t = 0; t < kTaps; t++)
      for (int o = 0; o < blocks * kBlock; o++) {
        const int64_t block = oc + o / kBlock * kBlock;
        *to++ = l.packed[(block * l.in_channels + n * kBlock + o % kBlock) * kTaps + t];
      }
}

// Blocks blocks of outputs from channel oc on.
template <int Blocks, int Stride>
[[gnu::noinline]] void output_blocks(const zyn_blocked_layer& l, int32_t oc) {
  constexpr int kMost = tile_pixels(Blocks);
  alignas(32) float weights[kMostInputs * kTaps * Blocks * kBlock];
  copy_weights(weights, l, oc, Blocks);
  row<Blocks, Stride> r = {l.in,
                           0,
                           {},
                           {},
                           l.out + oc * l.out_plane(),
                           l.out_plane() * kBlock,
                           zyn_tile_epilogue(l.epilogue, oc, Blocks * kBlock)};
  const int32_t width = l.out_width;
  const bool right = (width - 1) * Stride + 1 == l.width;  // the last pixel misses a column
  for (int32_t y = 0; y < l.out_height; y++, r.out += int64_t{width} * kBlock) {
    r.count = 0;
    for (int n = 0; n < l.in_channels; n++)
      for (int k = 0; k < kKernel; k++) {
        const int32_t iy = y * Stride - 1 + k;
        if (iy < 0 || iy >= l.height) continue;
        r.from[r.count] = n * l.in_plane() + int64_t{iy} * l.width - 1;
        r.weights[r.count++] = weights + (n * kTaps + k * kKernel) * Blocks * kBlock;
      }
    r.template tiles<kMost, kLeft>(0, 1);
    zyn_balanced_tiles<kMost>(kMost, right ? width - kMost : width, r);
    if (right) r.template tiles<kMost, kRight>(width - kMost, 1);
  }
  for (int b = 0; b < Blocks; b++)
    r.epilogue.finish(l.out + (oc + b * kBlock) * l.out_plane(), l.out_plane() * kBlock);
}

template <int Stride>
int32_t outputs_done(const zyn_blocked_layer& l) {
  if (l.in_channels > kMostInputs || l.out_width < kLeastTiles * tile_pixels(1)) return 0;
  int32_t oc = 0;
  for (; l.out_channels - oc >= kBlock;) {
    const int32_t blocks = (l.out_channels - oc) / kBlock;
    if (blocks == 3 || (blocks > 3 && blocks % 2 == 1))
      output_blocks<3, Stride>(l, oc), oc += 3 * kBlock;
    else if (blocks >= 2)
      output_blocks<2, Stride>(l, oc), oc += 2 * kBlock;
    else
      output_blocks<1, Stride>(l, oc), oc += kBlock;
  }
  return oc;
}

}  // namespace

int32_t zyn_blocked_first_layer(const zyn_blocked_layer& layer, int32_t stride) {
  return stride == 1 ? outputs_done<1>(layer) : outputs_done<2>(layer);
}

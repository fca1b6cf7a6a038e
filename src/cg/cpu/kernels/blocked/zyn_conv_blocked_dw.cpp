// Depthwise 3x3 convolution, stride 1 and 2, padding 1, on channel-blocked tensors. Two
// output rows are made at a time, two pixels of each: every input value of the two rows
// is loaded once for all the sums it belongs to, and four sums beside nine filter vectors
// are what the registers hold. Taps outside the image are left out. Single channels are planes:
// 8 pixels of a row are a vector of them. Where vectors have 16 lanes, they hold two pixels of a
// block of 8 channels.
#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_tile.h"

namespace {

constexpr int kTaps = 9;
constexpr int kTileRows = 2;
constexpr int kTilePixels = 2;
constexpr bool kPairs = kZynVectorFloats == 16;
constexpr int32_t kFewPixels = 16;  // of a row: pairs gain nothing

constexpr int64_t kNearBytes = 2 * 1024 * 1024;  // of the input, as a whole and in a strip
constexpr int64_t kStripBytes = 256 * 1024;

// One channel block.
struct planes {
  const float* in;
  int32_t width, height;
  float* out;
  int32_t out_width, out_height;
  const float* weights;  // [tap][lane]
  zyn_tile_epilogue epilogue;
};

template <int Width>
struct filter {
  typename zyn_block_lanes<Width>::type tap[kTaps], bias, floor;

  explicit filter(const planes& p)
      : bias(p.epilogue.bias<Width>(0)), floor(p.epilogue.floor<Width>()) {
    ZYN_UNROLL for (int t = 0; t < kTaps; t++) tap[t] =
        zyn_block_lanes<Width>::load(p.weights + t * Width);
  }
  // Of a single channel, in all lanes.
  explicit filter(const filter<1>& one)
      : bias(zyn_block_lanes<Width>::spread(one.bias)),
        floor(zyn_block_lanes<Width>::spread(one.floor)) {
    ZYN_UNROLL for (int t = 0; t < kTaps; t++) tap[t] = zyn_block_lanes<Width>::spread(one.tap[t]);
  }
};

#if ZYN_VECTOR_BITS == 512
// Of a block of 8, for two pixels.
template <>
filter<16>::filter(const planes& p) : floor(p.epilogue.floor<16>()) {
  alignas(32) float one[8];
  _mm256_store_ps(one, p.epilogue.bias<8>(0));
  bias = zyn_load_blocks<16>(one, 0);
  for (int t = 0; t < kTaps; t++) tap[t] = zyn_load_blocks<16>(p.weights + t * 8, 0);
}
#endif

// What a strip of Rows output rows takes: kernel rows from Ky0 on in the first of them and
// up to Ky1 - 1 in the last. Input row 0 belongs to the first row's kernel row 0.
template <int Width, int Stride, int Rows, int Ky0, int Ky1>
struct strip {
  static constexpr int kInputs = (Rows - 1) * Stride + Ky1;
  const float* in[kInputs];  // at column x * Stride of the next output pixel x
  float* out;                // at pixel x of the first output row
  int64_t out_pitch;

  strip(const planes& p, int32_t y) {
    const int64_t pitch = static_cast<int64_t>(p.width) * Width;
    ZYN_UNROLL for (int r = Ky0; r < kInputs; r++) in[r] = p.in + (y * Stride - 1 + r) * pitch;
    out_pitch = static_cast<int64_t>(p.out_width) * Width;
    out = p.out + y * out_pitch;
    advance(0);
  }

  void advance(int32_t pixels) {
    ZYN_UNROLL for (int r = Ky0; r < kInputs; r++) {
      in[r] += pixels * Stride * Width;
      zyn_own_pointer(in[r]);
    }
    out += pixels * Width;
  }

  // Adds the input value of row y and column x to every sum that it belongs to; sums are Apart
  // pixels from each other.
  template <int Lanes, int Apart = 1, int Pixels>
  [[gnu::always_inline]] static void add(typename zyn_block_lanes<Lanes>::type (&sum)[Rows][Pixels],
                                         const typename zyn_block_lanes<Lanes>::type& value,
                                         const filter<Lanes>& f, int y, int x) {
    ZYN_UNROLL for (int r = 0; r < Rows; r++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
        const int ky = y - r * Stride, kx = x - i * Apart * Stride;
        if (ky >= 0 && ky < 3 && kx >= 0 && kx < 3)
          sum[r][i] = zyn_block_lanes<Lanes>::fma(value, f.tap[ky * 3 + kx], sum[r][i]);
      }
    }
  }

  // The next Pixels pixels of every row, with kernel columns from Kx0 on in the first of
  // them and up to Kx1 - 1 in the last. Every sum takes its taps in their order.
  template <int Pixels, int Kx0, int Kx1>
  void tile(const filter<Width>& f) {
    using lanes = zyn_block_lanes<Width>;
    typename lanes::type sum[Rows][Pixels];
    ZYN_UNROLL for (int r = 0; r < Rows; r++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[r][i] = lanes::zero();
    }
    ZYN_UNROLL for (int y = Ky0; y < kInputs; y++) {
      ZYN_UNROLL for (int x = Kx0; x < (Pixels - 1) * Stride + Kx1; x++)
          add<Width>(sum, lanes::load(in[y] + (x - 1) * Width), f, y, x);
    }
    ZYN_UNROLL for (int r = 0; r < Rows; r++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) lanes::store(
          out + r * out_pitch + i * Width, lanes::max(f.floor, lanes::add(sum[r][i], f.bias)));
    }
    advance(Pixels);
  }

  // 8 pixels of a single channel, all of whose columns lie inside.
  void eight(const filter<8>& f) {
    using lanes = zyn_block_lanes<8>;
    __m256 sum[Rows][1];
    ZYN_UNROLL for (int r = 0; r < Rows; r++) sum[r][0] = lanes::zero();
    ZYN_UNROLL for (int y = Ky0; y < kInputs; y++) {
      __m256 column[3];
      if (Stride == 1) {
        ZYN_UNROLL for (int x = 0; x < 3; x++) column[x] = lanes::load(in[y] + x - 1);
      } else {
        column[0] = every_other<0xDD>(in[y] - 2);
        column[1] = every_other<0x88>(in[y]);
        column[2] = every_other<0xDD>(in[y]);
      }
      ZYN_UNROLL for (int x = 0; x < 3; x++) add<8>(sum, column[x], f, y, x);
    }
    ZYN_UNROLL for (int r = 0; r < Rows; r++)
        lanes::store(out + r * out_pitch, lanes::max(f.floor, lanes::add(sum[r][0], f.bias)));
    advance(8);
  }

  // Pairs pairs of pixels of a block of 8, all of whose columns lie inside.
  template <int Pairs>
  void pairs(const filter<2 * Width>& f) {
    using lanes = zyn_block_lanes<2 * Width>;
    typename lanes::type sum[Rows][Pairs];
    ZYN_UNROLL for (int r = 0; r < Rows; r++) {
      ZYN_UNROLL for (int i = 0; i < Pairs; i++) sum[r][i] = lanes::zero();
    }
    ZYN_UNROLL for (int y = Ky0; y < kInputs; y++) {
      ZYN_UNROLL for (int x = 0; x < 2 * Pairs + 1; x++)
          add<2 * Width, 2>(sum, lanes::load(in[y] + (x - 1) * Width), f, y, x);
    }
    ZYN_UNROLL for (int r = 0; r < Rows; r++) {
      ZYN_UNROLL for (int i = 0; i < Pairs; i++) lanes::store(
          out + r * out_pitch + i * 2 * Width, lanes::max(f.floor, lanes::add(sum[r][i], f.bias)));
    }
    advance(2 * Pairs);
  }
  // count pixels by pairs; how many are left.
  int32_t in_pairs(const filter<2 * Width>& f, int32_t count) {
    for (; count >= 8; count -= 8) pairs<4>(f);
    if (count >= 4) pairs<2>(f), count -= 4;
    if (count >= 2) pairs<1>(f), count -= 2;
    return count;
  }
  // The even (Order 0x88) or odd (0xDD) ones of 16 values.
  template <int Order>
  static __m256 every_other(const float* from) {
    const __m256 pairs = _mm256_shuffle_ps(_mm256_loadu_ps(from), _mm256_loadu_ps(from + 8), Order);
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(pairs), 0xD8));
  }
};

// A function of its own: as part of all others gcc keeps its pointers in memory.
template <int Width, int Stride, int Rows, int Ky0, int Ky1>
[[gnu::noinline]] void rows(const planes& p, int32_t y) {
  const filter<Width> f(p);
  strip<Width, Stride, Rows, Ky0, Ky1> s(p, y);
  if (p.width == 1) {
    s.template tile<1, 1, 2>(f);
    return;
  }
  s.template tile<1, 1, 3>(f);
  int32_t inside = (p.width - 2) / Stride;  // pixels with all columns
  const bool edge = 1 + inside < p.out_width;
  if constexpr (Width == 1) {
    const filter<8> wide(f);
    for (; inside >= 8; inside -= 8) s.eight(wide);
  }
  if constexpr (kPairs && Width == 8 && Stride == 1) {
    if (inside >= kFewPixels) inside = s.in_pairs(filter<2 * Width>(p), inside);
  }
  for (; inside >= kTilePixels; inside -= kTilePixels) s.template tile<kTilePixels, 0, 3>(f);
  for (; inside > 0; inside--) s.template tile<1, 0, 3>(f);
  if (edge) s.template tile<1, 0, 2>(f);
}

// Rows output rows from y on.
template <int Width, int Stride, int Rows>
void some_rows(const planes& p, int32_t y) {
  const bool above = y > 0;
  const bool below = (y + Rows - 1) * Stride + 1 < p.height;
  if (above && below)
    rows<Width, Stride, Rows, 0, 3>(p, y);
  else if (above)
    rows<Width, Stride, Rows, 0, 2>(p, y);
  else if (below)
    rows<Width, Stride, Rows, 1, 3>(p, y);
  else
    rows<Width, Stride, Rows, 1, 2>(p, y);
}

// Output rows first to end - 1.
template <int Width, int Stride>
void channel_block(const zyn_blocked_layer& l, int32_t c, int32_t first, int32_t end) {
  const planes p = {l.in + c * l.in_plane(),
                    l.width,
                    l.height,
                    l.out + c * l.out_plane(),
                    l.out_width,
                    l.out_height,
                    l.packed + static_cast<int64_t>(c) * kTaps,
                    zyn_tile_epilogue(l.epilogue, c, Width)};
  int32_t y = first;
  for (; y + kTileRows <= end; y += kTileRows) some_rows<Width, Stride, kTileRows>(p, y);
  for (; y < end; y++) some_rows<Width, Stride, 1>(p, y);
  const int64_t row = int64_t{p.out_width} * Width;
  p.epilogue.finish(p.out + first * row, (end - first) * row);
}

template <int Stride>
void all_channels(const zyn_blocked_layer& l, int32_t first, int32_t end) {
  for (int32_t c = 0, block = 0; c < l.out_channels; c += block) {
    block = zyn_block_width(l.out_channels - c);
    if (block == 8)
      channel_block<8, Stride>(l, c, first, end);
    else if (block == 4)
      channel_block<4, Stride>(l, c, first, end);
    else
      channel_block<1, Stride>(l, c, first, end);
  }
}

// An input that the second cache level does not hold is gone through from below in strips of rows:
// the pointwise layer before went from above, and what it did last is still there.
template <int Stride>
void run(const zyn_blocked_layer& l) {
  const int64_t channel_bytes = int64_t{l.in_channels} * static_cast<int64_t>(sizeof(float));
  if (l.in_plane() * channel_bytes <= kNearBytes) return all_channels<Stride>(l, 0, l.out_height);
  const int64_t fitting = kStripBytes / (channel_bytes * l.width * Stride) / kTileRows * kTileRows;
  const int32_t rows = fitting < kTileRows
                           ? kTileRows
                           : static_cast<int32_t>(fitting < l.out_height ? fitting : l.out_height);
  for (int32_t end = l.out_height, first = 0; end > 0; end = first) {
    first = (end - 1) / rows * rows;
    all_channels<Stride>(l, first, end);
  }
}

}  // namespace

uint32_t zyn_cg_dwconv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue) {
  return zyn_blocked_drive(output, input, workspace->packed, param, epilogue, 1, run<1>);
}

uint32_t zyn_cg_dwconv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue) {
  return zyn_blocked_drive(output, input, workspace->packed, param, epilogue, 2, run<2>);
}

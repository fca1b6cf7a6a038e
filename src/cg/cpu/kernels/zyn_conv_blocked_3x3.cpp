// Dense 3x3 convolution, stride 1 and 2, padding 1, on channel-blocked tensors.
//
// One micro-kernel family: a tile of Pixels output pixels by Blocks output blocks of
// OB channels accumulates one input block of IB channels in registers and adds to
// the output once. Two 8-channel output blocks by 6 pixels are 12 accumulators: with
// two FMA ports and a latency of 4 cycles, 8 would do; the rest hides the loads.
// Single output channels put the input channels into the lanes instead and sum the
// lanes at the end. Taps outside the image are left out: the first and last row take
// fewer kernel rows, the first and last column a slower path.
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_conv_blocked.h"
#include "cg/cpu/kernels/zyn_conv_blocked_tile.h"

namespace {

constexpr int kTaps = 9;
constexpr int kPairPixels = 6;              // pixels of a tile of two 8-channel blocks
constexpr int kSinglePixels = 6;            // pixels of a tile of one block
constexpr int64_t kStripBytes = 16 * 1024;  // output rows of one block pair kept in L1

// One call's planes: an input block and up to two output blocks.
struct planes {
  const float* in;
  int32_t width, height;  // input
  float* out;             // first output block
  int64_t out_block;      // floats from one output block to the next
  int32_t out_width;
  const float* weights;        // first output block's sub-block, local
  int64_t weight_block;        // floats from one output block's sub-block to the next
  zyn_tile_epilogue epilogue;  // active on the last input block only
};

// Kernel rows of output row y that lie inside the image.
struct tap_rows {
  int32_t first, end;
};

template <int Stride>
tap_rows rows_inside(const planes& p, int32_t y) {
  const int32_t top = y * Stride - 1;
  const int32_t first = top < 0 ? -top : 0;
  const int32_t end = top + 3 > p.height ? p.height - top : 3;
  return {first, end};
}

// Output pixels x to x + Pixels - 1 of row y, kernel columns kx0 to kx1 - 1.
template <int OB, int IB, int Blocks, int Pixels, int Stride>
inline void tile(const planes& p, int32_t y, int32_t x, tap_rows rows, int kx0, int kx1) {
  using lanes = zyn_lanes<OB>;
  typename lanes::type sum[Blocks][Pixels];
  float* out = p.out + (static_cast<int64_t>(y) * p.out_width + x) * OB;
  ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[b][i] =
        lanes::load(out + b * p.out_block + i * OB);
  }
  for (int32_t ky = rows.first; ky < rows.end; ky++) {
    const int64_t row = static_cast<int64_t>(y * Stride - 1 + ky) * p.width;
    for (int kx = kx0; kx < kx1; kx++) {
      const float* in = p.in + (row + x * Stride - 1 + kx) * IB;
      const float* w = p.weights + (ky * 3 + kx) * IB * OB;
      ZYN_UNROLL for (int ic = 0; ic < IB; ic++) {
        typename lanes::type weight[Blocks];
        ZYN_UNROLL for (int b = 0; b < Blocks; b++) weight[b] =
            lanes::load(w + b * p.weight_block + ic * OB);
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
          const typename lanes::type value = lanes::spread(in + i * Stride * IB + ic);
          ZYN_UNROLL for (int b = 0; b < Blocks; b++) sum[b][i] =
              lanes::fma(value, weight[b], sum[b][i]);
        }
      }
    }
  }
  ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
    ZYN_UNROLL for (int i = 0; i < Pixels; i++)
        lanes::store(out + b * p.out_block + i * OB, p.epilogue.apply<OB>(sum[b][i], b));
  }
}

// Single output channel: the lanes are the input channels.
template <int IB, int Pixels, int Stride>
inline void dot_tile(const planes& p, int32_t y, int32_t x, tap_rows rows, int kx0, int kx1) {
  using lanes = zyn_lanes<IB>;
  typename lanes::type sum[Pixels];
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] = lanes::zero();
  for (int32_t ky = rows.first; ky < rows.end; ky++) {
    const int64_t row = static_cast<int64_t>(y * Stride - 1 + ky) * p.width;
    for (int kx = kx0; kx < kx1; kx++) {
      const float* in = p.in + (row + x * Stride - 1 + kx) * IB;
      const typename lanes::type weight = lanes::load(p.weights + (ky * 3 + kx) * IB);
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] =
          lanes::fma(lanes::load(in + i * Stride * IB), weight, sum[i]);
    }
  }
  float* out = p.out + static_cast<int64_t>(y) * p.out_width + x;
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) out[i] =
      p.epilogue.apply<1>(out[i] + lanes::sum(sum[i]), 0);
}

template <int OB, int IB, int Blocks, int Pixels, int Stride>
void any_tile(const planes& p, int32_t y, int32_t x, tap_rows rows, int kx0, int kx1) {
  if constexpr (OB == 1)
    dot_tile<IB, Pixels, Stride>(p, y, x, rows, kx0, kx1);
  else
    tile<OB, IB, Blocks, Pixels, Stride>(p, y, x, rows, kx0, kx1);
}

// The interior of a row in tiles of nearly equal size.
template <int OB, int IB, int Blocks, int Stride>
struct interior {
  const planes& p;
  int32_t y;
  tap_rows rows;
  template <int Pixels>
  void run(int32_t x) const {
    any_tile<OB, IB, Blocks, Pixels, Stride>(p, y, x, rows, 0, 3);
  }
};

// One row: left edge, interior, right edge.
template <int OB, int IB, int Blocks, int Stride>
void row(const planes& p, int32_t y) {
  const tap_rows rows = rows_inside<Stride>(p, y);
  const int32_t first = 1;
  const int32_t end = (p.width - 2) / Stride + 1;  // one past the last pixel with all columns
  any_tile<OB, IB, Blocks, 1, Stride>(p, y, 0, rows, 1, p.width > 1 ? 3 : 2);
  if (end > first && p.width > 2)
    zyn_balanced_tiles<Blocks == 2 ? kPairPixels : kSinglePixels>(
        first, end, interior<OB, IB, Blocks, Stride>{p, y, rows});
  const int32_t last = end > first && p.width > 2 ? end : first;
  for (int32_t x = last; x < p.out_width; x++)
    any_tile<OB, IB, Blocks, 1, Stride>(p, y, x, rows, 0, p.width - (x * Stride - 1));
}

// The sub-blocks of one input block for Blocks output blocks, in an aligned local
// buffer; [output][tap] becomes [tap][output].
template <int OB, int IB>
void load_weights(float* local, const float* packed) {
  if (IB == 1 && OB > 1) {
    for (int t = 0; t < kTaps; t++)
      for (int o = 0; o < OB; o++) local[t * OB + o] = packed[o * kTaps + t];
  } else {
    memcpy(local, packed, sizeof(float) * OB * IB * kTaps);
  }
}

// Everything that stays the same over a layer.
struct layer {
  const float* in;
  int32_t in_channels, width, height;
  float* out;
  int32_t out_width, out_height;
  const float* packed;
  const zyn_conv_epilogue* epilogue;
};

// Adds one input block to Blocks output blocks over a strip of rows.
template <int OB, int IB, int Blocks, int Stride>
void accumulate(const layer& l, int32_t oc, int32_t ic, int32_t y0, int32_t y1) {
  alignas(32) float local[Blocks * OB * IB * kTaps];
  constexpr int kSubBlock = OB * IB * kTaps;
  const int64_t in_plane = static_cast<int64_t>(l.width) * l.height;
  const int64_t out_plane = static_cast<int64_t>(l.out_width) * l.out_height;
  for (int b = 0; b < Blocks; b++)
    load_weights<OB, IB>(local + b * kSubBlock,
                         l.packed + (static_cast<int64_t>(oc + b * OB) * l.in_channels +
                                     static_cast<int64_t>(ic) * OB) *
                                        kTaps);
  const bool last = ic + IB == l.in_channels;
  const planes p = {l.in + ic * in_plane,
                    l.width,
                    l.height,
                    l.out + oc * out_plane,
                    out_plane * OB,
                    l.out_width,
                    local,
                    kSubBlock,
                    zyn_tile_epilogue(last ? l.epilogue : nullptr, oc, OB * Blocks)};
  for (int32_t y = y0; y < y1; y++) row<OB, IB, Blocks, Stride>(p, y);
  const int64_t rows = static_cast<int64_t>(y0) * l.out_width * OB;
  for (int b = 0; b < Blocks; b++)
    p.epilogue.finish(p.out + b * p.out_block + rows,
                      static_cast<int64_t>(y1 - y0) * l.out_width * OB);
}

template <int OB, int Blocks, int Stride>
void output_blocks(const layer& l, int32_t oc) {
  const int64_t row_bytes = static_cast<int64_t>(l.out_width) * OB * Blocks * sizeof(float);
  const int64_t fitting = kStripBytes / row_bytes;
  const int32_t strip = fitting < 4 ? 4 : static_cast<int32_t>(fitting);
  for (int32_t y = 0; y < l.out_height; y += strip) {
    const int32_t end = y + strip < l.out_height ? y + strip : l.out_height;
    for (int32_t ic = 0, ib = 0; ic < l.in_channels; ic += ib) {
      ib = zyn_block_width(l.in_channels - ic);
      if (ib == 8)
        accumulate<OB, 8, Blocks, Stride>(l, oc, ic, y, end);
      else if (ib == 4)
        accumulate<OB, 4, Blocks, Stride>(l, oc, ic, y, end);
      else
        accumulate<OB, 1, Blocks, Stride>(l, oc, ic, y, end);
    }
  }
}

template <int Stride>
uint32_t drive(zyn_tensor* output, const zyn_tensor* input, const zyn_conv_direct* workspace,
               const zyn_conv_param* param, const zyn_conv_epilogue* epilogue) {
  if (!output || !input || !workspace || !workspace->packed || !param || !output->data ||
      !input->data)
    return ZYN_RET_ERR_PARA;
  const int32_t width = (input->dims[0] - 1) / Stride + 1;
  const int32_t height = (input->dims[1] - 1) / Stride + 1;
  if (const uint32_t code = zyn_blocked_check(output, input, param, width, height)) return code;
  memset(output->data, 0, static_cast<size_t>(output->byte_size));
  zyn_blocked_input blocked;
  if (!blocked.open(input)) return ZYN_RET_ERR_MEMORY;
  const layer l = {blocked.data(),
                   input->dims[2],
                   input->dims[0],
                   input->dims[1],
                   static_cast<float*>(output->data),
                   width,
                   height,
                   static_cast<const float*>(workspace->packed->data),
                   epilogue};
  for (int32_t oc = 0, blocks = 0; oc < param->out_channels; oc += blocks) {
    const int32_t left = param->out_channels - oc;
    blocks = left >= 16 ? 16 : zyn_block_width(left);
    if (blocks == 16)
      output_blocks<8, 2, Stride>(l, oc);
    else if (blocks == 8)
      output_blocks<8, 1, Stride>(l, oc);
    else if (blocks == 4)
      output_blocks<4, 1, Stride>(l, oc);
    else
      output_blocks<1, 1, Stride>(l, oc);
  }
  output->layout = ZYN_LAYOUT_BLOCKED;
  return ZYN_RET_OK;
}

}  // namespace

uint32_t zyn_cg_conv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_direct* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue) {
  return drive<1>(output, input, workspace, param, epilogue);
}

uint32_t zyn_cg_conv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_direct* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue) {
  return drive<2>(output, input, workspace, param, epilogue);
}

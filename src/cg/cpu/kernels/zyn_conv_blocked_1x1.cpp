// Pointwise convolution on channel-blocked tensors. A strip of pixels stays in L1
// while every output block passes over it; a tile keeps its sums in registers over
// all input channels, so that each output value is written once.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_conv_blocked.h"
#include "cg/cpu/kernels/zyn_conv_blocked_tile.h"

namespace {

constexpr int64_t kStripBytes = 20 * 1024;  // input strip of all channels kept in L1
// Pixels of a tile of one and of two output blocks: 12 accumulators.
constexpr int kTilePixels = 12;

struct layer {
  const float* in;
  int32_t in_channels;
  int64_t pixels;
  float* out;
  const float* packed;  // per output block: [input][output], input channels in order
  const zyn_conv_epilogue* epilogue;
};

// Adds IB input channels to a tile of Blocks output blocks; w is at its first weight.
template <int OB, int IB, int Blocks, int Pixels>
inline void add_inputs(typename zyn_lanes<OB>::type (&sum)[Blocks][Pixels], const float* in,
                       const float* w, int64_t weight_block) {
  using lanes = zyn_lanes<OB>;
  ZYN_UNROLL for (int ic = 0; ic < IB; ic++) {
    typename lanes::type weight[Blocks];
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) weight[b] =
        lanes::load(w + b * weight_block + ic * OB);
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
      const typename lanes::type value = lanes::spread(in + i * IB + ic);
      ZYN_UNROLL for (int b = 0; b < Blocks; b++) sum[b][i] =
          lanes::fma(value, weight[b], sum[b][i]);
    }
  }
}

template <int OB, int Blocks>
struct tiles {
  const layer& l;
  int32_t oc;
  zyn_tile_epilogue epilogue;

  // Values are copied to locals first: vector stores may alias anything in memory.
  template <int Pixels>
  void run(int32_t pixel) const {
    using lanes = zyn_lanes<OB>;
    typename lanes::type sum[Blocks][Pixels];
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[b][i] = epilogue.bias<OB>(b);
    }
    const int64_t pixels = l.pixels;
    const int64_t weight_block = static_cast<int64_t>(OB) * l.in_channels;
    const float* in = l.in;
    const float* w = l.packed + static_cast<int64_t>(oc) * l.in_channels;
    const float* eight = in + pixel * 8;
    for (int32_t n = l.in_channels / 8; n > 0; n--, eight += pixels * 8, w += 8 * OB)
      add_inputs<OB, 8>(sum, eight, w, weight_block);
    int32_t ic = l.in_channels / 8 * 8;
    if (l.in_channels - ic >= 4) {
      add_inputs<OB, 4>(sum, in + ic * pixels + pixel * 4, w, weight_block);
      ic += 4;
      w += 4 * OB;
    }
    for (const int32_t end = l.in_channels; ic < end; ic++, w += OB)
      add_inputs<OB, 1>(sum, in + ic * pixels + pixel, w, weight_block);
    const typename lanes::type floor = epilogue.floor<OB>();
    float* out = l.out + oc * pixels + pixel * OB;
    ZYN_UNROLL for (int b = 0; b < Blocks; b++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++)
          lanes::store(out + b * pixels * OB + i * OB, lanes::max(floor, sum[b][i]));
    }
  }
};

// Single output channel: the lanes are the input channels.
template <int Width, int Pixels>
inline void add_dots(float (&total)[Pixels], const float* in, int64_t step, const float* w,
                     int32_t blocks) {
  using lanes = zyn_lanes<Width>;
  typename lanes::type sum[Pixels];
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] = lanes::zero();
  for (int32_t b = 0; b < blocks; b++) {
    const typename lanes::type weight = lanes::load(w + b * Width);
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] =
        lanes::fma(lanes::load(in + b * step + i * Width), weight, sum[i]);
  }
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) total[i] += lanes::sum(sum[i]);
}

template <>
struct tiles<1, 1> {
  const layer& l;
  int32_t oc;
  zyn_tile_epilogue epilogue;

  template <int Pixels>
  void run(int32_t pixel) const {
    float total[Pixels] = {};
    const float* w = l.packed + static_cast<int64_t>(oc) * l.in_channels;
    const int32_t eights = l.in_channels / 8;
    add_dots<8>(total, l.in + static_cast<int64_t>(pixel) * 8, l.pixels * 8, w, eights);
    int32_t ic = eights * 8;
    if (l.in_channels - ic >= 4) {
      add_dots<4>(total, l.in + ic * l.pixels + pixel * 4, l.pixels * 4, w + ic, 1);
      ic += 4;
    }
    add_dots<1>(total, l.in + ic * l.pixels + pixel, l.pixels, w + ic, l.in_channels - ic);
    ZYN_UNROLL for (int i = 0; i < Pixels; i++) l.out[oc * l.pixels + pixel + i] =
        epilogue.apply<1>(total[i], 0);
  }
};

template <int OB, int Blocks>
void strip(const layer& l, int32_t oc, int64_t first, int64_t end) {
  const tiles<OB, Blocks> body{l, oc, zyn_tile_epilogue(l.epilogue, oc, OB * Blocks)};
  zyn_balanced_tiles<OB == 1 ? kTilePixels / 2 : kTilePixels / Blocks>(first, end, body);
  for (int b = 0; b < Blocks; b++)
    body.epilogue.finish(l.out + (oc + b * OB) * l.pixels + first * OB, (end - first) * OB);
}

}  // namespace

uint32_t zyn_cg_conv1x1(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                        const zyn_conv_param* param, const zyn_conv_epilogue* epilogue) {
  if (!output || !input || !packed || !param || !output->data || !input->data || !packed->data)
    return ZYN_RET_ERR_PARA;
  if (const uint32_t code = zyn_blocked_check(output, input, param, input->dims[0], input->dims[1]))
    return code;
  zyn_blocked_input blocked;
  if (!blocked.open(input)) return ZYN_RET_ERR_MEMORY;
  const layer l = {blocked.data(),
                   param->in_channels,
                   static_cast<int64_t>(input->dims[0]) * input->dims[1],
                   static_cast<float*>(output->data),
                   static_cast<const float*>(packed->data),
                   epilogue};
  const int64_t fitting = kStripBytes / (static_cast<int64_t>(sizeof(float)) * l.in_channels);
  const int64_t step = (fitting / kTilePixels + 1) * kTilePixels;
  for (int64_t first = 0; first < l.pixels; first += step) {
    const int64_t end = first + step < l.pixels ? first + step : l.pixels;
    for (int32_t oc = 0, channels = 0; oc < param->out_channels; oc += channels) {
      const int32_t left = param->out_channels - oc;
      channels = left >= 16 ? 16 : zyn_block_width(left);
      if (channels == 16)
        strip<8, 2>(l, oc, first, end);
      else if (channels == 8)
        strip<8, 1>(l, oc, first, end);
      else if (channels == 4)
        strip<4, 1>(l, oc, first, end);
      else
        strip<1, 1>(l, oc, first, end);
    }
  }
  output->layout = ZYN_LAYOUT_BLOCKED;
  return ZYN_RET_OK;
}

// Depthwise 3x3 convolution, stride 1 and 2, padding 1, on channel-blocked tensors.
// The nine filter vectors of a block stay in registers beside the sums of a tile of
// pixels; input values are read as memory operands of the multiply-adds. Taps outside
// the image are left out.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_conv_blocked.h"
#include "cg/cpu/kernels/zyn_conv_blocked_tile.h"

namespace {

// One channel block.
struct planes {
  const float* in;
  int32_t width, height;
  float* out;
  int32_t out_width, out_height;
  const float* weights;  // [tap][lane]
  zyn_tile_epilogue epilogue;
};

// Pixels x to x + Pixels - 1 of row y with kernel rows Ky0 to Ky1 - 1 and columns Kx0
// to Kx1 - 1.
template <int Width, int Stride, int Pixels, int Ky0, int Ky1, int Kx0, int Kx1>
inline void tile(const planes& p, int32_t y, int32_t x) {
  using lanes = zyn_lanes<Width>;
  typename lanes::type sum[Pixels];
  ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] = lanes::zero();
  const float* corner =
      p.in + (static_cast<int64_t>(y * Stride - 1) * p.width + x * Stride - 1) * Width;
  const int64_t pitch = static_cast<int64_t>(p.width) * Width;
  ZYN_UNROLL for (int ky = Ky0; ky < Ky1; ky++) {
    ZYN_UNROLL for (int kx = Kx0; kx < Kx1; kx++) {
      const typename lanes::type weight = lanes::load(p.weights + (ky * 3 + kx) * Width);
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[i] =
          lanes::fma(lanes::load(corner + ky * pitch + (i * Stride + kx) * Width), weight, sum[i]);
    }
  }
  float* out = p.out + (static_cast<int64_t>(y) * p.out_width + x) * Width;
  ZYN_UNROLL for (int i = 0; i < Pixels; i++)
      lanes::store(out + i * Width, p.epilogue.apply<Width>(sum[i], 0));
}

template <int Width, int Stride, int Ky0, int Ky1>
struct interior {
  const planes& p;
  int32_t y;
  template <int Pixels>
  void run(int32_t x) const {
    tile<Width, Stride, Pixels, Ky0, Ky1, 0, 3>(p, y, x);
  }
};

template <int Width, int Stride, int Ky0, int Ky1>
void row(const planes& p, int32_t y) {
  if (p.width == 1) {
    tile<Width, Stride, 1, Ky0, Ky1, 1, 2>(p, y, 0);
    return;
  }
  tile<Width, Stride, 1, Ky0, Ky1, 1, 3>(p, y, 0);
  const int32_t end = (p.width - 2) / Stride + 1;  // one past the last pixel with all columns
  if (end > 1) zyn_balanced_tiles<6>(1, end, interior<Width, Stride, Ky0, Ky1>{p, y});
  if (end < p.out_width) tile<Width, Stride, 1, Ky0, Ky1, 0, 2>(p, y, end);
}

template <int Width, int Stride>
void channel_block(const planes& p) {
  for (int32_t y = 0; y < p.out_height; y++) {
    const bool above = y * Stride - 1 >= 0;
    const bool below = y * Stride + 1 < p.height;
    if (above && below)
      row<Width, Stride, 0, 3>(p, y);
    else if (above)
      row<Width, Stride, 0, 2>(p, y);
    else if (below)
      row<Width, Stride, 1, 3>(p, y);
    else
      row<Width, Stride, 1, 2>(p, y);
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
  zyn_blocked_input blocked;
  if (!blocked.open(input)) return ZYN_RET_ERR_MEMORY;
  const int64_t in_plane = static_cast<int64_t>(input->dims[0]) * input->dims[1];
  const int64_t out_plane = static_cast<int64_t>(width) * height;
  const auto* packed = static_cast<const float*>(workspace->packed->data);
  for (int32_t c = 0, block = 0; c < param->out_channels; c += block) {
    block = zyn_block_width(param->out_channels - c);
    const planes p = {blocked.data() + c * in_plane,
                      input->dims[0],
                      input->dims[1],
                      static_cast<float*>(output->data) + c * out_plane,
                      width,
                      height,
                      packed + c * 9,
                      zyn_tile_epilogue(epilogue, c, block)};
    if (block == 8)
      channel_block<8, Stride>(p);
    else if (block == 4)
      channel_block<4, Stride>(p);
    else
      channel_block<1, Stride>(p);
    p.epilogue.finish(p.out, out_plane * block);
  }
  output->layout = ZYN_LAYOUT_BLOCKED;
  return ZYN_RET_OK;
}

}  // namespace

uint32_t zyn_cg_dwconv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_direct* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue) {
  return drive<1>(output, input, workspace, param, epilogue);
}

uint32_t zyn_cg_dwconv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_direct* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue) {
  return drive<2>(output, input, workspace, param, epilogue);
}

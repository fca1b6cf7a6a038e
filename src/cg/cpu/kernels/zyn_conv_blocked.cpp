// Dispatch of the blocked direct kernels by kernel and stride, and the passes over a
// finished blocked output.
#include "cg/cpu/kernels/zyn_conv_blocked.h"

#include "cg/cpu/kernels/zyn_conv_blocked_tile.h"

namespace {

bool is_pair(int32_t first, int32_t second, int32_t value) {
  return first == value && second == value;
}

using driver = uint32_t (*)(zyn_tensor*, const zyn_tensor*, const zyn_conv_direct*,
                            const zyn_conv_param*, const zyn_conv_epilogue*);

// The driver of a 3x3 layer by its stride, or null.
driver choose(const zyn_conv_param* p, driver stride1, driver stride2) {
  if (!is_pair(p->kernel_h, p->kernel_w, 3)) return nullptr;
  if (is_pair(p->stride_h, p->stride_w, 1)) return stride1;
  return is_pair(p->stride_h, p->stride_w, 2) ? stride2 : nullptr;
}

template <int Width>
void add_to_block(float* values, int64_t pixels, const zyn_tile_epilogue& epilogue) {
  using lanes = zyn_lanes<Width>;
  for (int64_t i = 0; i < pixels; i++)
    lanes::store(values + i * Width, epilogue.apply<Width>(lanes::load(values + i * Width), 0));
}

}  // namespace

uint32_t zyn_cg_conv3x3(zyn_tensor* output, const zyn_tensor* input,
                        const zyn_conv_direct* workspace, const zyn_conv_param* param,
                        const zyn_conv_epilogue* epilogue) {
  if (!output || !input || !workspace || !param) return ZYN_RET_ERR_PARA;
  const driver run = choose(param, zyn_cg_conv3x3_s1, zyn_cg_conv3x3_s2);
  return run ? run(output, input, workspace, param, epilogue) : uint32_t{ZYN_RET_ERR_NOT_SUPPORT};
}

uint32_t zyn_cg_dwconv3x3(zyn_tensor* output, const zyn_tensor* input,
                          const zyn_conv_direct* workspace, const zyn_conv_param* param,
                          const zyn_conv_epilogue* epilogue) {
  if (!output || !input || !workspace || !param) return ZYN_RET_ERR_PARA;
  const driver run = choose(param, zyn_cg_dwconv3x3_s1, zyn_cg_dwconv3x3_s2);
  return run ? run(output, input, workspace, param, epilogue) : uint32_t{ZYN_RET_ERR_NOT_SUPPORT};
}

uint32_t zyn_cg_conv_add_bias_blocked(zyn_tensor* output, const zyn_tensor* source,
                                      const float* weights, const zyn_conv_param* param) {
  if (!output || !source || !weights || !param || !output->data) return ZYN_RET_ERR_PARA;
  if (output->count != source->count || output->dims[2] != param->out_channels)
    return ZYN_RET_ERR_PARA;
  const zyn_conv_epilogue bias = {weights + zyn_conv_weight_count(param), ZYN_EPILOGUE_NONE};
  const int64_t pixels = static_cast<int64_t>(output->dims[0]) * output->dims[1];
  auto* values = static_cast<float*>(output->data);
  for (int32_t c = 0, width = 0; c < param->out_channels; c += width) {
    width = zyn_block_width(param->out_channels - c);
    const zyn_tile_epilogue epilogue(&bias, c, width);
    if (width == 8)
      add_to_block<8>(values + c * pixels, pixels, epilogue);
    else if (width == 4)
      add_to_block<4>(values + c * pixels, pixels, epilogue);
    else
      add_to_block<1>(values + c * pixels, pixels, epilogue);
  }
  return ZYN_RET_OK;
}

// The entry of the blocked kernels (method 1): decides by kernel and stride which driver
// runs. Also the frame of the drivers, and the bias over a finished blocked output.
#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked_tile.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

namespace {

bool is_pair(int32_t first, int32_t second, int32_t value) {
  return first == value && second == value;
}

using driver = uint32_t (*)(zyn_tensor*, const zyn_tensor*, const zyn_conv_blocked_weights*,
                            const zyn_conv_param*, const zyn_conv_epilogue*);

// The driver of a 3x3 layer by its stride, or null.
driver choose(const zyn_conv_shape& s, driver stride1, driver stride2) {
  if (!is_pair(s.kernel_x, s.kernel_y, 3)) return nullptr;
  if (is_pair(s.stride_x, s.stride_y, 1)) return stride1;
  return is_pair(s.stride_x, s.stride_y, 2) ? stride2 : nullptr;
}

// One of two drivers of 3x3 layers, if any serves the record.
uint32_t run_3x3(driver stride1, driver stride2, zyn_tensor* output, const zyn_tensor* input,
                 const zyn_conv_blocked_weights* weights, const zyn_conv_param* param,
                 const zyn_conv_epilogue* epilogue) {
  if (!output || !input || !weights || !param) return ZYN_RET_ERR_PARA;
  const driver run = choose(zyn_conv_shape_of(param), stride1, stride2);
  return run ? run(output, input, weights, param, epilogue) : uint32_t{ZYN_RET_ERR_NOT_SUPPORT};
}

// Whether the input has to be copied into blocked order first.
bool needs_copy(const zyn_tensor* input) {
  return input->layout != ZYN_LAYOUT_BLOCKED && !zyn_block_is_planar(input->dims[2]);
}

// Single outputs of single inputs, whose planes and packed weights lie as the planar kernels
// take them: the outputs from first on.
uint32_t run_planes(const zyn_tensor* output, const zyn_tensor* input, const float* packed,
                    const zyn_conv_param* param, const zyn_conv_epilogue* epilogue, int32_t first) {
  zyn_tensor planes = *output;
  zyn_conv_param rest = *param;
  zyn_conv_epilogue end = epilogue ? *epilogue : zyn_conv_epilogue{};
  planes.data =
      static_cast<float*>(output->data) + int64_t{first} * output->dims[0] * output->dims[1];
  planes.dims[2] = rest.out_channels = output->dims[2] - first;
  if (end.bias) end.bias += first;
  if (zyn_conv_is_depthwise(param))
    return zyn_cg_dwconv_planar(&planes, input, packed, &rest, &end);
  packed += int64_t{first} * param->in_channels * param->kernel_h * param->kernel_w;
  return param->kernel_h == 1 ? zyn_cg_conv1x1_planar(&planes, input, packed, &rest, &end)
                              : zyn_cg_conv_planar(&planes, input, packed, &rest, &end);
}

template <int Width>
void add_to_block(float* values, int64_t pixels, const zyn_tile_epilogue& epilogue) {
  using lanes = zyn_block_lanes<Width>;
  for (int64_t i = 0; i < pixels; i++)
    lanes::store(values + i * Width, epilogue.apply<Width>(lanes::load(values + i * Width), 0));
}

}  // namespace

uint32_t zyn_blocked_drive(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                           const zyn_conv_param* param, const zyn_conv_epilogue* epilogue,
                           int32_t stride, void (*run)(const zyn_blocked_layer&), int64_t behind) {
  if (!output || !input || !packed || !param || !output->data || !input->data || !packed->data)
    return ZYN_RET_ERR_PARA;
  if (output->dims[2] != param->out_channels || input->dims[2] != param->in_channels)
    return ZYN_RET_ERR_PARA;
  zyn_blocked_layer layer = {static_cast<const float*>(input->data),
                             input->dims[2],
                             input->dims[0],
                             input->dims[1],
                             static_cast<float*>(output->data),
                             output->dims[2],
                             (input->dims[0] - 1) / stride + 1,
                             (input->dims[1] - 1) / stride + 1,
                             zyn_vector_aligned(static_cast<const float*>(packed->data)),
                             epilogue,
                             behind,
                             {},
                             0};
  if (param->dilation_h > 1 || param->dilation_w > 1) return ZYN_RET_ERR_NOT_SUPPORT;
  if (output->dims[0] != layer.out_width || output->dims[1] != layer.out_height)
    return ZYN_RET_ERR_NOT_SUPPORT;
  uint32_t code = ZYN_RET_OK;
  if (needs_copy(input)) {
    const zyn_scratch<float> copy(input->count);
    if (!copy) return ZYN_RET_ERR_MEMORY;
    zyn_block_planes(copy.get(), layer.in, layer.in_channels, layer.in_plane());
    layer.in = copy.get();
    run(layer);
  } else if (zyn_block_is_planar(layer.in_channels)) {
    layer.out_channels -= layer.out_channels % 4;
    if (layer.out_channels > 0) run(layer);
    if (layer.out_channels < output->dims[2])
      code = run_planes(output, input, layer.packed, param, epilogue, layer.out_channels);
  } else {
    run(layer);
  }
  if (code == ZYN_RET_OK) output->layout = ZYN_LAYOUT_BLOCKED;
  return code;
}

uint32_t zyn_cg_conv3x3(zyn_tensor* output, const zyn_tensor* input,
                        const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                        const zyn_conv_epilogue* epilogue) {
  return run_3x3(zyn_cg_conv3x3_s1, zyn_cg_conv3x3_s2, output, input, workspace, param, epilogue);
}

uint32_t zyn_cg_dwconv3x3(zyn_tensor* output, const zyn_tensor* input,
                          const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                          const zyn_conv_epilogue* epilogue) {
  return run_3x3(zyn_cg_dwconv3x3_s1, zyn_cg_dwconv3x3_s2, output, input, workspace, param,
                 epilogue);
}

// Nothing calls it: the kernels add the bias where they finish a sum. A caller that ran one
// without an epilogue would.
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

// Method 0: which planar kernel serves a layer.
#include "cg/cpu/kernels/planar/zyn_conv_planar.h"

namespace {

// Output rows from which the row ring and its 4-row steps are used.
constexpr int32_t kSmallImage = 6;

// False for missing arguments and channel counts that differ from the record.
bool open_layer(zyn_planar_layer* layer, zyn_tensor* output, const zyn_tensor* input,
                const float* weights, const zyn_conv_param* param,
                const zyn_conv_epilogue* epilogue) {
  if (!output || !input || !weights || !param || !output->data || !input->data) return false;
  if (output->dims[2] != param->out_channels || input->dims[2] != param->in_channels) return false;
  if (param->out_channels < 1 || param->in_channels < 1) return false;
  *layer = {static_cast<float*>(output->data),
            output->dims[0],
            output->dims[1],
            output->dims[2],
            static_cast<const float*>(input->data),
            input->dims[0],
            input->dims[1],
            input->dims[2],
            weights,
            param,
            epilogue ? *epilogue : zyn_conv_epilogue{}};
  return true;
}

}  // namespace

bool zyn_planar_is_regular(const zyn_planar_layer& l, int32_t kernel, int32_t stride) {
  const zyn_conv_param& p = *l.param;
  const int32_t pad = kernel / 2;
  return p.kernel_h == kernel && p.kernel_w == kernel && p.stride_h == stride &&
         p.stride_w == stride && p.pad_h == pad && p.pad_w == pad && p.dilation_h == 1 &&
         p.dilation_w == 1 && l.out_w == (l.in_w - 1) / stride + 1 &&
         l.out_h == (l.in_h - 1) / stride + 1;
}

uint32_t zyn_cg_conv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                            const zyn_conv_param* param, const zyn_conv_epilogue* epilogue) {
  zyn_planar_layer layer;
  if (!open_layer(&layer, output, input, weights, param, epilogue)) return ZYN_RET_ERR_PARA;
  if (!zyn_planar_is_regular(layer, 3, 1)) return zyn_planar_generic(layer);
  return layer.out_h < kSmallImage ? zyn_planar_3x3_s1_small(layer) : zyn_planar_3x3_s1(layer);
}

uint32_t zyn_cg_conv1x1_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                               const zyn_conv_param* param, const zyn_conv_epilogue* epilogue) {
  zyn_planar_layer layer;
  if (!open_layer(&layer, output, input, weights, param, epilogue)) return ZYN_RET_ERR_PARA;
  if (!zyn_planar_is_regular(layer, 1, 1)) return zyn_planar_generic(layer);
  if (layer.out_w == 1 && layer.out_h == 1)
    zyn_planar_dot(layer);
  else
    zyn_planar_pointwise(layer);
  return ZYN_RET_OK;
}

uint32_t zyn_cg_dwconv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                              const zyn_conv_param* param, const zyn_conv_epilogue* epilogue) {
  zyn_planar_layer layer;
  if (!open_layer(&layer, output, input, weights, param, epilogue) ||
      layer.in_channels != layer.out_channels)
    return ZYN_RET_ERR_PARA;
  constexpr int32_t kKernels[] = {3, 5};
  for (int32_t kernel : kKernels)
    for (int32_t stride = 1; stride <= 2; stride++)
      if (zyn_planar_is_regular(layer, kernel, stride)) {
        zyn_planar_depthwise(layer, kernel, stride);
        return ZYN_RET_OK;
      }
  return zyn_planar_generic_depthwise(layer);
}

// Method 0, planar kernels: the entry points, which decide by the layer's shape.
//   dense 3x3 regular, stride 1    zyn_conv_planar_3x3.cpp, two kernels by output rows
//   dense 1x1 regular              zyn_conv_planar_1x1.cpp, one for a single pixel
//   depthwise 3x3 and 5x5 regular  zyn_conv_planar_dw.cpp, stride 1 and 2
//   everything else                zyn_conv_planar_rows.cpp
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
            zyn_conv_shape_of(param),
            epilogue ? *epilogue : zyn_conv_epilogue{}};
  return true;
}

// Whether a depthwise layer has a kernel of its own.
bool is_direct(const zyn_planar_layer& l, int32_t kernel, int32_t stride) {
  const zyn_conv_shape& p = l.shape;
  const auto fits = [=](int64_t in, int64_t out, int32_t pad) {
    return pad >= 0 && pad < kernel && in + 2 * pad >= kernel &&
           out == (in + 2 * pad - kernel) / stride + 1;
  };
  return p.kernel_x == kernel && p.kernel_y == kernel && p.stride_x == stride &&
         p.stride_y == stride && p.dilation_x == 1 && p.dilation_y == 1 &&
         fits(l.in_w, l.out_w, p.pad_x) && fits(l.in_h, l.out_h, p.pad_y);
}

}  // namespace

bool zyn_planar_is_regular(const zyn_planar_layer& l, int32_t kernel, int32_t stride) {
  const zyn_conv_shape& p = l.shape;
  const int32_t pad = kernel / 2;
  return p.kernel_x == kernel && p.kernel_y == kernel && p.stride_x == stride &&
         p.stride_y == stride && p.pad_x == pad && p.pad_y == pad && p.dilation_x == 1 &&
         p.dilation_y == 1 && l.out_w == (l.in_w - 1) / stride + 1 &&
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
      if (is_direct(layer, kernel, stride)) {
        zyn_planar_depthwise(layer, kernel, stride);
        return ZYN_RET_OK;
      }
  return zyn_planar_generic_depthwise(layer);
}

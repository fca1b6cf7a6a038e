// Bias and activations as passes over a finished output.
#include <string.h>

#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"

namespace {

// The planar passes: copies the source where it is another tensor, then finishes it.
uint32_t finish_planar(zyn_tensor* output, const zyn_tensor* source, const float* weights,
                       const zyn_conv_param* param, int32_t activation) {
  if (!output || !source || !weights || !param || !output->data || !source->data)
    return ZYN_RET_ERR_PARA;
  if (memcmp(output->dims, source->dims, sizeof(output->dims)) != 0 ||
      output->dims[2] != param->out_channels)
    return ZYN_RET_ERR_PARA;
  auto* values = static_cast<float*>(output->data);
  if (output->data != source->data)
    memcpy(values, source->data, static_cast<size_t>(output->byte_size));
  zyn_conv_finish_rows(values, output->dims[2],
                       static_cast<int64_t>(output->dims[0]) * output->dims[1],
                       {weights + zyn_conv_weight_count(param), activation});
  return ZYN_RET_OK;
}

// An activation alone does not ask how the channels lie.
uint32_t activate(zyn_tensor* output, const zyn_tensor* source, int32_t activation) {
  if (!output || !source || !output->data || !source->data || output->count != source->count)
    return ZYN_RET_ERR_PARA;
  auto* values = static_cast<float*>(output->data);
  if (output->data != source->data)
    memcpy(values, source->data, static_cast<size_t>(output->byte_size));
  zyn_conv_finish_rows(values, 1, output->count, {nullptr, activation});
  return ZYN_RET_OK;
}

}  // namespace

uint32_t zyn_cg_conv_add_bias(zyn_tensor* output, const zyn_tensor* source, const float* weights,
                              const zyn_conv_param* param) {
  return finish_planar(output, source, weights, param, ZYN_EPILOGUE_NONE);
}

uint32_t zyn_cg_conv_add_bias_relu(zyn_tensor* output, const zyn_tensor* source,
                                   const float* weights, const zyn_conv_param* param) {
  return finish_planar(output, source, weights, param, ZYN_EPILOGUE_RELU);
}

uint32_t zyn_cg_conv_add_bias_hard_swish(zyn_tensor* output, const zyn_tensor* source,
                                         const float* weights, const zyn_conv_param* param) {
  return finish_planar(output, source, weights, param, ZYN_EPILOGUE_HARD_SWISH);
}

uint32_t zyn_cg_conv_add_bias_hard_sigmoid(zyn_tensor* output, const zyn_tensor* source,
                                           const float* weights, const zyn_conv_param* param) {
  return finish_planar(output, source, weights, param, ZYN_EPILOGUE_HARD_SIGMOID);
}

uint32_t zyn_cg_conv_relu(zyn_tensor* output, const zyn_tensor* source) {
  return activate(output, source, ZYN_EPILOGUE_RELU);
}

uint32_t zyn_cg_conv_hard_swish(zyn_tensor* output, const zyn_tensor* source) {
  return activate(output, source, ZYN_EPILOGUE_HARD_SWISH);
}

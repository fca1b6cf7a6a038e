// The epilogue over finished outputs in memory.
#include "cg/cpu/kernels/zyn_conv_epilogue.h"

#include <string.h>

#include "cg/cpu/kernels/zyn_cg_kernels.h"

namespace {

struct finish_rows {
  float* data;
  int64_t rows, count;
  const float* bias;
  template <int kActivation>
  void run() const {
    for (int64_t r = 0; r < rows; r++) {
      float* row = data + r * count;
      for (int64_t i = 0; i < count; i += 8) {
        const __m256i lanes = zyn_first_lanes(count - i);
        __m256 y = _mm256_maskload_ps(row + i, lanes);
        if (bias) y = _mm256_add_ps(y, _mm256_broadcast_ss(bias + r));
        _mm256_maskstore_ps(row + i, lanes, zyn_activate<kActivation>(y));
      }
    }
  }
};

// Rows of one value: their biases lie side by side, too.
struct finish_pixel {
  float* data;
  int64_t rows;
  const float* bias;
  template <int kActivation>
  void run() const {
    for (int64_t r = 0; r < rows; r += 8) {
      const __m256i lanes = zyn_first_lanes(rows - r);
      __m256 y = _mm256_maskload_ps(data + r, lanes);
      if (bias) y = _mm256_add_ps(y, _mm256_maskload_ps(bias + r, lanes));
      _mm256_maskstore_ps(data + r, lanes, zyn_activate<kActivation>(y));
    }
  }
};

float* copy_values(zyn_tensor* output, const zyn_tensor* source) {
  auto* values = static_cast<float*>(output->data);
  if (output->data != source->data)
    memcpy(values, source->data, static_cast<size_t>(output->byte_size));
  return values;
}

}  // namespace

void zyn_conv_finish_rows(float* data, int64_t rows, int64_t count,
                          const zyn_conv_epilogue& epilogue) {
  if (!epilogue.bias && epilogue.activation == ZYN_EPILOGUE_NONE) return;
  if (count == 1)
    return zyn_with_activation(epilogue.activation, finish_pixel{data, rows, epilogue.bias});
  zyn_with_activation(epilogue.activation, finish_rows{data, rows, count, epilogue.bias});
}

uint32_t zyn_cg_conv_add_bias(zyn_tensor* output, const zyn_tensor* source, const float* weights,
                              const zyn_conv_param* param) {
  if (!output || !source || !weights || !param || !output->data || !source->data)
    return ZYN_RET_ERR_PARA;
  if (memcmp(output->dims, source->dims, sizeof(output->dims)) != 0 ||
      output->dims[2] != param->out_channels)
    return ZYN_RET_ERR_PARA;
  const int64_t pixels = static_cast<int64_t>(output->dims[0]) * output->dims[1];
  zyn_conv_finish_rows(copy_values(output, source), output->dims[2], pixels,
                       {weights + zyn_conv_weight_count(param), ZYN_EPILOGUE_NONE});
  return ZYN_RET_OK;
}

uint32_t zyn_cg_conv_relu(zyn_tensor* output, const zyn_tensor* source) {
  if (!output || !source || !output->data || !source->data || output->count != source->count)
    return ZYN_RET_ERR_PARA;
  zyn_conv_finish_rows(copy_values(output, source), 1, output->count, {nullptr, ZYN_EPILOGUE_RELU});
  return ZYN_RET_OK;
}

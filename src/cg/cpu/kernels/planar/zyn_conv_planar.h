// Shared parts of the planar kernels. Output and input are planes of rows, W (dims[0])
// floats each. Every kernel writes its whole output and applies the epilogue to sums that
// are still in registers; a second run gives the same.
// Row ends: the last vector of a row is stored under a mask, and loads either stay
// inside copied rows with slack behind them or are masked as well.
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

// One convolution over planes, arguments checked.
struct zyn_planar_layer {
  float* out;
  int32_t out_w, out_h, out_channels;
  const float* in;
  int32_t in_w, in_h, in_channels;
  const float* weights;
  zyn_conv_shape shape;
  zyn_conv_epilogue epilogue;

  float* out_plane(int32_t c) const { return out + static_cast<int64_t>(c) * out_w * out_h; }
  const float* in_plane(int32_t c) const { return in + static_cast<int64_t>(c) * in_w * in_h; }
};

// The epilogue of one output channel.
struct zyn_planar_epilogue {
  __m256 bias;
  bool biased;
  int32_t activation;

  zyn_planar_epilogue(const zyn_conv_epilogue& epilogue, int64_t channel)
      : bias(epilogue.bias ? _mm256_broadcast_ss(epilogue.bias + channel) : _mm256_setzero_ps()),
        biased(epilogue.bias != nullptr),
        activation(epilogue.activation) {}

  __m256 apply(__m256 y) const {
    if (biased) y = _mm256_add_ps(y, bias);
    if (activation == ZYN_EPILOGUE_NONE) return y;
    if (activation == ZYN_EPILOGUE_RELU) return zyn_activate<ZYN_EPILOGUE_RELU>(y);
    if (activation == ZYN_EPILOGUE_HARD_SWISH) return zyn_activate<ZYN_EPILOGUE_HARD_SWISH>(y);
    return activation == ZYN_EPILOGUE_HARD_SIGMOID ? zyn_activate<ZYN_EPILOGUE_HARD_SIGMOID>(y) : y;
  }
};

// Stores a vector, or its first left lanes; nothing for left < 1.
inline void zyn_planar_store(float* out, __m256 value, int64_t left) {
  if (left >= 8)
    _mm256_storeu_ps(out, value);
  else if (left > 0)
    _mm256_maskstore_ps(out, zyn_first_lanes(left), value);
}

// Whether the record has this kernel and stride in both directions, padding kernel / 2
// and no dilation, and the output the size that follows: what the kernels of a fixed
// size assume.
bool zyn_planar_is_regular(const zyn_planar_layer& layer, int32_t kernel, int32_t stride);

// Any record: rows copied so that every tap reads them in steps of one. The copies ask for
// at most 4 MB or 64 bytes per weight of one output channel, whichever is more, whatever
// stride, padding and dilation are. 2: no memory.
uint32_t zyn_planar_generic(const zyn_planar_layer& layer);
uint32_t zyn_planar_generic_depthwise(const zyn_planar_layer& layer);

// Dense 3x3, regular, stride 1: with at least 6 output rows, and with fewer. They copy 6
// rows, and all rows and 2 of every input channel, each 10 floats longer than the input's.
// 2: no memory for the copied rows.
uint32_t zyn_planar_3x3_s1(const zyn_planar_layer& layer);
uint32_t zyn_planar_3x3_s1_small(const zyn_planar_layer& layer);

// Depthwise 3x3 and 5x5, stride 1 and 2, no dilation, padding below the kernel.
void zyn_planar_depthwise(const zyn_planar_layer& layer, int32_t kernel, int32_t stride);

// Pointwise over planes, and over single pixels.
void zyn_planar_pointwise(const zyn_planar_layer& layer);
void zyn_planar_dot(const zyn_planar_layer& layer);

// Shared parts of the planar direct kernels. Output and input are planes of rows, W
// (dims[0]) floats each; the first member of every pair of the record runs along a row.
// Every kernel writes or clears its whole output, so that a second run gives the same.
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "cg/cpu/kernels/zyn_cg_kernels.h"

// One convolution over planes, arguments checked.
struct zyn_planar_layer {
  float* out;
  int32_t out_w, out_h, out_channels;
  const float* in;
  int32_t in_w, in_h, in_channels;
  const float* weights;
  const zyn_conv_param* param;

  float* out_plane(int32_t c) const { return out + static_cast<int64_t>(c) * out_w * out_h; }
  const float* in_plane(int32_t c) const { return in + static_cast<int64_t>(c) * in_w * in_h; }
};

// Whether the record has this kernel and stride in both directions, padding kernel / 2
// and no dilation, and the output the size that follows: what the kernels of a fixed
// size assume.
bool zyn_planar_is_regular(const zyn_planar_layer& layer, int32_t kernel, int32_t stride);

// Any record, dense and depthwise: one tap at a time over the part of each row whose
// input lies inside the image.
void zyn_planar_generic(const zyn_planar_layer& layer);
void zyn_planar_generic_depthwise(const zyn_planar_layer& layer);

// Dense 3x3: stride 1 with at least 6 output rows, with fewer, and stride 2. 2: no
// memory for the row buffer.
uint32_t zyn_planar_3x3_s1(const zyn_planar_layer& layer);
uint32_t zyn_planar_3x3_s1_small(const zyn_planar_layer& layer);
uint32_t zyn_planar_3x3_s2(const zyn_planar_layer& layer);

// Depthwise 3x3 and 5x5, stride 1 and 2.
void zyn_planar_depthwise_3x3(const zyn_planar_layer& layer, int32_t stride);
void zyn_planar_depthwise_5x5(const zyn_planar_layer& layer, int32_t stride);

// Pointwise over planes, and over single pixels.
void zyn_planar_pointwise(const zyn_planar_layer& layer);
void zyn_planar_dot(const zyn_planar_layer& layer);

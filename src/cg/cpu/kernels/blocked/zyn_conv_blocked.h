// Shared parts of the blocked kernels (method 1): the channel-blocked layout, the
// vector types of its block widths, and the packed-weight order that packer and
// micro-kernels agree on.
//
// A tensor of C channels in this layout holds blocks of 8 channels while 8 remain,
// then one of 4 if 4 remain, then single channels. A block of g channels starting
// at channel c lies at c * H * W and holds H * W pixels of g values.
//
// Packed dense weights: output blocks in the same order; inside one, input blocks
// in the same order; a pair (output block ob, input block ib) is ob * ib * taps
// floats at (first output channel * inputs + first input channel * ob) * taps:
//   ob 8, ib 8 or 4:      [tap][input][output]
//   ob 4, ib 8 or 4:      [tap][output][input]
//   ob 8 or 4, ib 1:      [output][tap]
//   ob 1:                 [tap][input]
// Weights of 1x1 layers: ob 4, ib 8 or 4 is [input pair][output][input]; where vectors have 16
// lanes, two blocks of 8 outputs count as one of 16. Packed depthwise weights: channel blocks, each
// [tap][channel].
#pragma once

#include <stdint.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "simd/zyn_block_lanes.h"

struct zyn_conv_blocked_weights {
  zyn_tensor* packed;     // weights in the order above, from the first aligned place on
  uint32_t thread_count;  // 1 to 16
};

// Width of the block that begins where remaining channels are left.
inline int32_t zyn_block_width(int32_t remaining) {
  return remaining >= 8 ? 8 : remaining >= 4 ? 4 : 1;
}

// Output channels of the vector that begins where remaining channels are left: a block, or as
// many of 8 as a vector holds.
inline int32_t zyn_vector_channels(int32_t remaining) {
  return remaining >= kZynVectorFloats ? kZynVectorFloats : zyn_block_width(remaining);
}

// Whether planar and blocked order are the same.
inline bool zyn_block_is_planar(int32_t channels) { return channels < 4; }

// Where the packed weight of an output and an input lies in a 1x1 layer of inputs inputs, whole
// blocks of 8, and whole vectors of outputs.
inline int64_t zyn_blocked_1x1_place(int64_t output, int64_t input, int64_t inputs) {
  const int64_t lane = output % kZynVectorFloats;
  return (output - lane) * inputs + input * kZynVectorFloats + lane;
}

// A convolution with padding 1 (3x3) or 0 (1x1) whose tensors have been checked.
struct zyn_blocked_layer {
  const float* in;  // in blocked order
  int32_t in_channels, width, height;
  float* out;
  int32_t out_channels, out_width, out_height;
  const float* packed;
  const zyn_conv_epilogue* epilogue;  // null: none
  int64_t behind;                     // bytes behind the weights that later layers read
  // 1x1 of whole vectors of outputs, at least 16: outputs alike that are added, and the pixels of
  // one of their planes. Null: none.
  const float* sums[2];
  int64_t sums_plane;

  int64_t in_plane() const { return static_cast<int64_t>(width) * height; }
  int64_t out_plane() const { return static_cast<int64_t>(out_width) * out_height; }
};

// The frame of every driver: checks the arguments, makes a blocked copy of a planar
// input, runs and marks the output as blocked. Single outputs of single inputs are left to the
// planar kernels. 1: missing tensors, data or weights, or
// channel counts that differ from the record; 4: the output is not as large as the
// stride makes it, or the record asks for dilation; 2: no memory for the copy.
uint32_t zyn_blocked_drive(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                           const zyn_conv_param* param, const zyn_conv_epilogue* epilogue,
                           int32_t stride, void (*run)(const zyn_blocked_layer&),
                           int64_t behind = 0);

// The whole blocks of outputs of a 3x3 layer of few input channels and wide rows, where vectors
// have 8 lanes; how many channels they are, 0 for other layers.
int32_t zyn_blocked_first_layer(const zyn_blocked_layer& layer, int32_t stride);

// Planar to blocked: channels planes of count pixels. Scratch of the family is one such
// copy of the input, whatever the record says.
void zyn_block_planes(float* blocked, const float* planar, int32_t channels, int64_t count);

// Pointwise, the first count pixels of each plane.
void zyn_blocked_1x1(const zyn_blocked_layer& layer, int64_t count);

// Pointwise, pixels first to end - 1: at most 8 outputs, from channel oc on. Returns how many of
// them it took.
int32_t zyn_conv1x1_few_outputs(const zyn_blocked_layer& layer, int32_t oc, int64_t first,
                                int64_t end);

// Drivers of one stride; the dispatchers zyn_cg_conv3x3 and zyn_cg_dwconv3x3 choose.
// The epilogue (null: none) is applied where an output value receives its last sum.
uint32_t zyn_cg_conv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue);
uint32_t zyn_cg_conv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue);
uint32_t zyn_cg_dwconv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue);
uint32_t zyn_cg_dwconv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue);

// Depthwise layers of the general convolutions, 8 channels at a time.
//
// Where the input is in channel blocks and wide, it is read in place: its output is cut into
// rectangles whose pixels see the same part of the kernel, the whole of it inside, less of it at
// the edges. Else strips of rows are first brought into scratch with zeros left and right, and
// only rows above and below are left out.
#pragma once

#include "cg/cpu/kernels/general/zyn_general_strip.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

// Extents of a layer's planes.
struct zyn_general_planes {
  int32_t width, height, out_width, out_height;
};

struct zyn_general_depthwise_plan;

// Null without memory. planar_output: runs will write planes. scratch receives the floats that
// runs need.
zyn_general_depthwise_plan* zyn_general_depthwise_make(const zyn_conv_shape& shape,
                                                       const zyn_general_planes& planes,
                                                       bool planar_output, int64_t* scratch);
void zyn_general_depthwise_release(zyn_general_depthwise_plan** plan);
int64_t zyn_general_depthwise_bytes(const zyn_general_depthwise_plan* plan);

// weights: [8 channels][tap][lane]; bias, padded to whole blocks of 8 channels, or zeros; values
// below floor become floor, then comes the activation.
struct zyn_general_depthwise_run {
  zyn_general_tensor in, out;
  const float* weights;
  const float* bias;
  float floor;
  int32_t activation;
  float* scratch;
};
void zyn_general_depthwise_planes(const zyn_general_depthwise_plan* plan,
                                  const zyn_general_depthwise_run& run);

// What the parts of the general convolutions share: a layer as preparation leaves it, and the order
// of its weights.
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/general/zyn_general_depthwise.h"
#include "cg/cpu/kernels/general/zyn_general_tile.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

constexpr int32_t kZynGeneralLanes = 8;

struct zyn_conv_general {
  zyn_conv_shape shape;                             // dense layers: of the taps that meet the input
  int32_t first_x, first_y, taps_in_row, all_taps;  // where these lie in the whole kernel
  bool depthwise, planar_output;
  int32_t in_channels, out_channels;
  int32_t width, height, out_width, out_height;
  int32_t blocks;     // of 8 output channels a group of them
  int32_t pitch;      // columns of a gathered row
  int32_t strip;      // output rows at a time
  bool along_y;       // lines of pixels run downwards, and taps are ordered by their column
  bool outside;       // taps meet places outside the input
  bool picks;         // 1 x 1 with strides: of planar input the pixels that are read are gathered
  int64_t in_floats;  // of scratch for gathered rows
  int64_t* taps[2];   // pixels from a pixel's first tap to each, in place and gathered
  float* weights;     // by group, then [step][input][lane]; depthwise [8 channels][tap][lane]
  zyn_general_depthwise_plan* planes;  // depthwise layers; these need nothing else of the above
};

inline int32_t zyn_general_taps(const zyn_conv_general& l) {
  return l.shape.kernel_x * l.shape.kernel_y;
}

inline int32_t zyn_general_block_count(const zyn_conv_general& l) {
  return (l.out_channels + kZynGeneralLanes - 1) / kZynGeneralLanes;
}

// Input rows that a strip of output rows reads.
inline int64_t zyn_general_rows_read(const zyn_conv_general& l, int64_t rows) {
  return (rows - 1) * l.shape.stride_y + int64_t{l.shape.kernel_y - 1} * l.shape.dilation_y + 1;
}

// The blocks of the group that begins at a block.
inline int32_t zyn_general_group_at(const zyn_conv_general& l, int32_t block) {
  const int32_t left = zyn_general_block_count(l) - block;
  return zyn_general_blocks_within(left < l.blocks ? left : l.blocks);
}

// Classes of input channels: whole blocks of 8, a block of 4, single channels.
struct zyn_general_class {
  int32_t first, width, blocks;
};
inline int32_t zyn_general_classes(const zyn_conv_general& l, zyn_general_class (&classes)[3]) {
  const int32_t eights = l.in_channels / 8, fours = l.in_channels % 8 / 4, ones = l.in_channels % 4;
  int32_t count = 0;
  if (eights) classes[count++] = {0, 8, eights};
  if (fours) classes[count++] = {eights * 8, 4, 1};
  if (ones) classes[count++] = {eights * 8 + fours * 4, 1, ones};
  return count;
}

// Taps are ordered by lines: rows of the kernel, or its columns where lines of pixels run
// downwards. So those that a line of pixels sees inside the input follow each other.
struct zyn_general_tap_lines {
  int32_t lines, taps;                    // of each
  int32_t stride, pad, dilation, extent;  // along the axis that lines lie one behind the other
};
inline zyn_general_tap_lines zyn_general_tap_lines_of(const zyn_conv_general& l) {
  const zyn_conv_shape& s = l.shape;
  return l.along_y ? zyn_general_tap_lines{s.kernel_x, s.kernel_y,   s.stride_x,
                                           s.pad_x,    s.dilation_x, l.width}
                   : zyn_general_tap_lines{s.kernel_y, s.kernel_x,   s.stride_y,
                                           s.pad_y,    s.dilation_y, l.height};
}

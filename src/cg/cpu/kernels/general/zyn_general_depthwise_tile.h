// The micro-kernel of the general depthwise convolutions: rectangles of output pixels of 8
// channels, all under the same part of the kernel.
#pragma once

#include <stdint.h>

struct zyn_general_depthwise_block {
  const float* in;
  const float* weights;
  float* out;
  const float* bias;  // 8
  float floor;        // lower bound of every value
};

// Distances are in floats.
struct zyn_general_rectangle {
  int64_t in, out, weights;  // of the first pixel and its first tap, from where a run says
  int64_t in_step, in_line;  // from pixel to pixel, from line to line
  int64_t out_step, out_line;
  int32_t pixels, lines;
  int32_t rows, columns;  // of the kernel's part
  int64_t row, column;    // from tap to tap in the input
  int64_t weights_row;    // taps of a row lie 8 floats apart
  int32_t inside;         // columns of the input rows that lines begin with, whose border tiles
                          // know; else 0

  // Tiles of one size: larger ones first, then those of a pixel less.
  void (*run[2])(const zyn_general_rectangle& r, const zyn_general_depthwise_block& block,
                 int32_t first, int32_t tiles);
  int32_t first[2], tiles[2];
};

// Whether there are tiles that know the border of whole rows, half a kernel on either side.
bool zyn_general_knows_border(int32_t kernel, int32_t stride, int32_t pixels, int32_t inside);

// Splits lines of pixels into tiles. Where lines come in pairs, the last one of an odd number is
// left over: false, and it is in last.
bool zyn_general_choose_tiles(zyn_general_rectangle* rectangle, zyn_general_rectangle* last);

inline void zyn_general_depthwise(const zyn_general_rectangle& r,
                                  const zyn_general_depthwise_block& block) {
  if (r.tiles[0] > 0) r.run[0](r, block, r.first[0], r.tiles[0]);
  r.run[1](r, block, r.first[1], r.tiles[1]);
}

// count blocks of channels whose output is one pixel, r that pixel: the first one as given, the
// others in_step floats of input and weights_step weights further each.
void zyn_general_depthwise_pixel(const zyn_general_rectangle& r, zyn_general_depthwise_block block,
                                 int64_t count, int64_t in_step, int64_t weights_step);

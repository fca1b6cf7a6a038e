// The micro-kernels of the general dense convolutions: tiles of output pixels in registers, by a
// list of taps with any distance between pixels.
#pragma once

#include <stdint.h>

#include "simd/zyn_vectors.h"

// Lines of output pixels, and what their tiles need. Distances are in floats.
struct zyn_general_lines {
  const float* in;      // first tap of the line's first pixel
  const int64_t* taps;  // offsets from there, one per tap and input block
  int32_t tap_count;
  int32_t inputs;        // input channels per tap, 1 or 8
  int64_t in_step;       // from pixel to pixel
  const float* weights;  // [tap][input][lane]
  float* out;
  int64_t out_step;                  // from pixel to pixel
  int64_t out_block;                 // from 8 lanes to the next 8
  bool first;                        // sums start at the bias, not at the output
  const float* bias;                 // one per lane
  float floor;                       // lower bound of every value
  int64_t lines, in_line, out_line;  // how many, and how far apart
};

// Vectors that a number of 8-lane blocks fills.
constexpr int32_t zyn_general_vectors(int32_t blocks) {
  return (blocks * 8 + kZynVectorFloats - 1) / kZynVectorFloats;
}
// The widest tile of a number of blocks: 12 sums where possible (24 of 512-bit vectors, which
// bring twice the registers), so that two multiply-adds a cycle never wait for each other, and
// the weights or the pixels stay in the registers that are left.
constexpr int32_t zyn_general_most_pixels(int32_t blocks) {
  const int32_t sums = kZynVectorFloats == 8 ? 12 : 24, vectors = zyn_general_vectors(blocks);
  return vectors > 4 ? 1 : sums / vectors < 12 ? sums / vectors : 12;
}
constexpr int32_t kZynGeneralMostBlocks = 8;
// Blocks that tiles have: 1 to 8 that are whole vectors, or a single one.
constexpr int32_t zyn_general_blocks_within(int32_t blocks) {
  const int32_t most = blocks < kZynGeneralMostBlocks ? blocks : kZynGeneralMostBlocks;
  return most > 1 && kZynVectorFloats > 8 ? most / 2 * 2 : most;
}

// Lines of count pixels of a dense layer's blocks of 8 output channels, in tiles of nearly equal
// size.
void zyn_general_dense_lines(const zyn_general_lines& lines, int32_t blocks, int64_t count);

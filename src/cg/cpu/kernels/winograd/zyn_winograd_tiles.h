// The transforms of Winograd's convolution F(m x m, 3 x 3) with m = 4 or 2 (Winograd 1980; Lavin
// and Gray, "Fast Algorithms for Convolutional Neural Networks", 2016): m x m outputs from
// (m + 2) x (m + 2) products, one for each pair of interpolation points, a frequency.
#pragma once

#include <stdint.h>

// 3 x 3 kernels of 8 output channels, [tap][8], to [frequency][8].
void zyn_winograd_weights(int32_t m, const double* kernels, double* out);

// A rectangle of tiles of one block of 8 channels.
struct zyn_winograd_tiles {
  int32_t m, rows, columns;  // in tiles
  int64_t step;              // floats from one frequency of a tile to the next
};

// Pixels in [m * rows + 2][m * columns + 2][8] to out, [frequency][tile][8].
void zyn_winograd_input(const zyn_winograd_tiles& tiles, const float* pixels, float* out);

// Where outputs go: width x height pixels of 8 channels, of which tiles may cover more.
struct zyn_winograd_output_rows {
  float* data;
  int64_t pitch;  // floats from row to row
  int32_t width, height;
};

// Products in [frequency][tile][8] to pixels, 8 biases and an activation (ZYN_EPILOGUE_*) applied.
void zyn_winograd_output(const zyn_winograd_tiles& tiles, const float* products, const float* bias,
                         int32_t activation, const zyn_winograd_output_rows& out);

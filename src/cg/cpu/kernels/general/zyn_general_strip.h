// Rows of a tensor in channel blocks with zeros around, and back: what stands between the
// general convolutions and tensors of either channel order.
#pragma once

#include <stdint.h>

// A tensor of one image in planar or blocked order (blocks of 8, then of 4, then single
// channels).
struct zyn_general_tensor {
  float* data;
  bool blocked;
  int32_t channels, width, height;

  int64_t plane() const { return static_cast<int64_t>(width) * height; }
};

// A window of a tensor's rows and columns, which may begin or end outside.
struct zyn_general_window {
  int32_t first, rows;
  int32_t left, pitch;  // first column, number of columns
};

// The window of lanes channels from channel on (8, 4 or 1, the width of a block that begins
// there, or 8 where fewer are left: the missing lanes hold anything) into [row][pixel][lane].
// Places outside the tensor become zero or, without zeros, stay as they are.
void zyn_general_gather(float* out, const zyn_general_tensor& from, int32_t channel, int32_t lanes,
                        const zyn_general_window& window, bool zeros);

// Pixels step_x and step_y apart of planar input: rows of count from pixel 0 of row first on, into
// planes of rows * count; as many channels as lanes, or as are left.
struct zyn_general_grid {
  int32_t first, rows, count, step_x, step_y;
};
void zyn_general_pick(float* out, const zyn_general_tensor& from, int32_t channel, int32_t lanes,
                      const zyn_general_grid& grid);

// count pixels of up to 8 channels from channel on, [pixel][8], into the tensor from its pixel
// number first on; lanes behind the last channel are left out.
void zyn_general_scatter(const zyn_general_tensor& to, int32_t channel, int64_t first,
                         int64_t count, const float* in);

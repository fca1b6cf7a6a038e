// Inside the fixed-point kernel by pixels (zyn_fpi_pixels.cpp): its tiles.
#pragma once

#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"

// The shift whose results are the high halves of sums.
inline constexpr int32_t kZynFpiHighHalf = 16;

// Some lanes of a tile and their place in a plane of the output.
struct zyn_fpi_piece {
  int64_t lane, to, count;  // count 16: whatever is stored behind them is written later
};

struct zyn_fpi_tile_place {
  int64_t from;  // of its first window in a strip's channels
  int64_t pieces;
  zyn_fpi_piece at[kZynFpiLanes];
  void add(int64_t lane, int64_t to, int64_t count, int64_t plane) {
    at[pieces++] = {lane, to, to + kZynFpiLanes <= plane ? kZynFpiLanes : count};
  }
};

// A strip of input rows and a layer.
struct zyn_fpi_pixel_job {
  const int16_t* strip;
  const int32_t* weights;
  const int64_t* places;  // of the taps; those of second taps of far pairs one word less
  const zyn_fpi_layer_epilogue& epilogue;
  int16_t* gathered;  // room for the pairs of 16 outputs; null: they are not gathered
  int64_t near, far;  // pairs of neighbours, other pairs of two
  int64_t pairs, channels, channel_words, outputs, plane;
  int64_t second;  // from a group of 8 outputs to the other
  int32_t shift;
  __m256i constant;  // beside an odd tap what brings in r, otherwise r
  int16_t* out;
};

// 16 outputs of every channel.
using zyn_fpi_pixel_tile = void (*)(const zyn_fpi_pixel_job& job, const zyn_fpi_tile_place& tile);
zyn_fpi_pixel_tile zyn_fpi_choose_pixel_tile(const zyn_fpi_pixel_job& job, bool odd);

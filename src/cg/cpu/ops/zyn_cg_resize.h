// Planes under other extents, nearest or bilinear: the places of the output's columns and
// rows are computed once, as taps, and every plane goes through them.
#pragma once

#include <stdint.h>

#include "cg/cpu/zyn_cg_support.h"
#include "zyncore_net.h"

// How the outputs of an axis lie on its inputs.
struct zyn_cg_placing {
  int64_t in, out;
  int32_t place;     // ZYN_PLACE_*
  int32_t rounding;  // of the nearest element: 0 half down, 1 half up, 2 down, 3 up
  float scale;       // out / in as a network says it; 0: the quotient
};

// The three arrays of an axis, one entry per output position.
struct zyn_cg_taps {
  int32_t* low;
  int32_t* high;
  float* weight;  // of high
};

struct zyn_cg_resizer {
  zyn_cg_placing across, down;
  bool linear;
  zyn_cg_taps columns, rows;
  float* lines[2];  // linear: input rows brought to the output's columns
  int32_t repeat;   // nearest: columns are input columns so often each, 1 or 2; 0: any
};

// Makes the taps for both axes in one block, which replaces *workspace. 2: no memory.
int32_t zyn_cg_make_resizer(zyn_cg_resizer* resizer, void** workspace, const zyn_cg_placing& across,
                            const zyn_cg_placing& down, bool linear);

// One plane of floats; of 16-bit words, nearest alone.
void zyn_cg_resize_plane(const zyn_cg_resizer& resizer, float* out, const float* in);
void zyn_cg_resize_plane(const zyn_cg_resizer& resizer, int16_t* out, const int16_t* in);

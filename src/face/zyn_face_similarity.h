// Similarity transforms of the plane: turned, scaled, moved.
#pragma once

#include <stdint.h>

// (x, y) goes to (a x - b y + x0, b x + a y + y0).
struct zyn_similarity {
  double a, b, x0, y0;
};

// The transform that brings from nearest to to in the sense of least squares; count points of x
// and y. False where none is: points that are not finite or all in one place.
bool zyn_fit_similarity(const float* from, const float* to, int32_t count, zyn_similarity* fit);

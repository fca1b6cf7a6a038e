// Scaling of one plane of packed 8-bit samples, one or three to a pixel. Both planes are
// at least 1 x 1.
#pragma once

#include "image/zyn_image.h"

// 0, or 2 without memory for the tables. destination is untouched then.
int32_t zyn_scale_nearest(const zyn_plane& destination, const zyn_plane& source, int32_t channels);
int32_t zyn_scale_bilinear(const zyn_plane& destination, const zyn_plane& source, int32_t channels);

// source holds at least twice the destination in both directions.
void zyn_scale_half(const zyn_plane& destination, const zyn_plane& source, int32_t channels);

// Channel order at run time. Blocked convolutions leave blocked outputs
// (ZYN_LAYOUT_BLOCKED); operators that index channels or pixels read them through
// these functions, which bring the data to planar order. 4-byte elements; tensors of
// other element sizes, and codes without a meaning here, count as planar.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// Length of a row, rows and channels; missing dimensions count as one.
inline int64_t zyn_cg_width(const zyn_tensor* t) { return t->dims[0]; }
inline int64_t zyn_cg_height(const zyn_tensor* t) { return t->dim_count > 1 ? t->dims[1] : 1; }
inline int64_t zyn_cg_channels(const zyn_tensor* t) { return t->dim_count > 2 ? t->dims[2] : 1; }
inline int64_t zyn_cg_pixels(const zyn_tensor* t) { return zyn_cg_width(t) * zyn_cg_height(t); }

// The order in which the elements really lie: planar as well when the layout code
// makes no difference (one pixel, or one channel).
uint32_t zyn_cg_order(const zyn_tensor* tensor);

// Writes the elements of source in planar order, rows row_pitch and planes
// plane_pitch elements apart. The blocks do not overlap.
void zyn_cg_copy_planar(void* destination, int64_t row_pitch, int64_t plane_pitch,
                        const zyn_tensor* source);
// The same, rows and planes dense.
void zyn_cg_copy_planar(void* destination, const zyn_tensor* source);

// source in planar order: itself when it is, else *scratch, which is made (again) with
// the source's shape where necessary and filled. Null without memory.
const zyn_tensor* zyn_cg_planar(const zyn_tensor* source, zyn_tensor** scratch);

// The growable array's internal operations.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// Appends a copy of *source. 0, or 2 with nothing changed when growing fails.
int32_t zyn_darray_push(zyn_darray* array, const void* source);

// Frees the elements from count on (by the type's callback); the block stays.
void zyn_darray_cut(zyn_darray* array, int64_t count);

// Frees the elements (by the type's callback), the block and the record, and sets
// *array to null. 0, or 1 when array or *array is null.
int32_t zyn_release_darray(zyn_darray** array);

// The elements of an array of node ids.
inline const int32_t* zyn_darray_ids(const zyn_darray* array) {
  return static_cast<const int32_t*>(array->data);
}

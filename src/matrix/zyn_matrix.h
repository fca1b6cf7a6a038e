// The matrix container's internal part: header creation and the type tables.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// Size in bytes of one element (all channels) of a matrix type, 0 to 31.
int32_t zyn_matrix_element_bytes(int32_t type);

// A matrix without data that claims to own it. Null (reported) for an extent below
// 1, a type outside 0 to 31 or without memory.
zyn_matrix* zyn_create_matrix_header(int32_t rows, int32_t cols, int32_t pages, int32_t type);

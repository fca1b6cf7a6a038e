// The tensor operations that stay inside the library.
#pragma once

#include "zyncore.h"

// A tensor with the source's shape, type and layout code and an owned,
// uninitialised block. Null (silent) when source is null or not a tensor.
zyn_tensor* zyn_create_tensor_like(const zyn_tensor* source);

// Copies of the records that operators are bound with.
#pragma once

#include "zyncore.h"

// A block that holds a copy of the record of a type, with the lists that it points at; freed
// with zyn_free. *copy is null for types without a record. False without memory.
bool zyn_cg_copy_record(int32_t type, const void* param, void** copy);

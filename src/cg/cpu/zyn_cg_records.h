// Copies of the records that operators are bound with.
#pragma once

#include <string.h>

#include "zyncore_net.h"

// The record of a further operator (zyncore_net.h), named by the first word of the record of
// its type.
struct zyn_cg_further_record {
  int32_t type;
  int32_t first, last;  // first words that name it
  int32_t words;        // 32-bit fields without gaps
  const char* name;     // of the operator, for explanations
};

// The further record that a type's first word names; null: the record of zyncore.h.
const zyn_cg_further_record* zyn_cg_find_further(int32_t type, int32_t first_word);

// The first word of a record that is not null.
inline int32_t zyn_cg_first_word(const void* param) {
  int32_t word;
  memcpy(&word, param, sizeof(word));
  return word;
}

// A block that holds a copy of the record of a type, with the lists that it points at; freed
// with zyn_free. *copy is null for types without a record. False without memory.
bool zyn_cg_copy_record(int32_t type, const void* param, void** copy);

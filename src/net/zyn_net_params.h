// Parameter records as words of a network file, and back.
#pragma once

#include <stdint.h>

#include "base/zyn_list.h"
#include "zyncore_net.h"

// A record as bind reads it, made from words.
union zyn_net_param {
  zyn_conv_param conv;
  zyn_func_param func;
  zyn_bn_param bn;
  zyn_pool_param pool;
  zyn_linear_param linear;
  zyn_resample_param resample;
  zyn_affine_param affine;
  zyn_reshape_param reshape;
  zyn_concat_param concat;
  zyn_slice_param slice;
  zyn_gather_param gather;
  zyn_window_param window;  // the longest of the further operators
  zyn_pad_param pad;
};

// How many words the record of a type has whose first word is given (0 for records without
// words): least and most; false for types that a file may not hold.
bool zyn_net_param_words(uint32_t type, int32_t first_word, int64_t* least, int64_t* most);

// The record of a type from its count words, a number that has been checked: null for a type
// without one. A gather's list is words itself, a concatenation's the nodes it reads.
const void* zyn_net_read_param(uint32_t type, const uint32_t* words, int64_t count,
                               const int32_t* inputs, int32_t input_count, zyn_net_param* param);

// Appends the words of a record. 1: a null record where the type has one, a type that a
// file may not hold, a null list; 2: no memory.
int32_t zyn_net_write_param(uint32_t type, const void* param, zyn_list<uint32_t>* words);

// Values of metadata keys: lists of numbers by commas, groups of them by semicolons.
#pragma once

#include <stdint.h>

#include "zyncore_net.h"

// At most this many groups and numbers of a group.
inline constexpr int32_t kZynMostGroups = 8, kZynMostNumbers = 8;

struct zyn_number_groups {
  int32_t groups;
  int32_t counts[kZynMostGroups];
  float numbers[kZynMostGroups][kZynMostNumbers];
};

// Reads a key's groups of finite numbers. 0; 1 with an explanation: the key is missing, or its
// value is not as it should be.
int32_t zyn_read_numbers(const zyn_net* net, const char* key, zyn_number_groups* groups);

// Reads points, numbers and ranges (36-41) below limit, into at most room numbers; *count 0
// where the key is missing. 0 or 1 as above.
int32_t zyn_read_points(const zyn_net* net, const char* key, int32_t limit, int16_t* index,
                        int32_t room, int32_t* count);

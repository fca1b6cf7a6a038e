// The tracker's record. Tests reach into it.
#pragma once

#include <stdint.h>

#include "tracking/zyn_box_tracker.h"

struct zyn_sort_handle {
  int32_t max_age;
  int32_t min_hits;
  float iou_threshold;
  zyn_box_tracker** tracks;
  int32_t count;
  int32_t capacity;  // pointers that tracks holds
  uint64_t frame_count;
  uint64_t next_id;
  uint8_t* payload;       // slot k belongs to track k; null without payloads
  int64_t payload_size;   // bytes of one slot
  int32_t payload_slots;  // the buffer's slots: fewer than capacity after
                          // zyn_sort_update_detection has grown the tracks alone, until
                          // zyn_sort_update_detection_v2 has tracks beyond them
};

// One track: a Kalman filter on a box, and the counters by which tracks are listed and
// dropped. State: centre x, centre y, area s, aspect ratio r = width / height, then the
// velocities of centre x, centre y and area. Boxes are four floats x1, y1, x2, y2.
#pragma once

#include <stdint.h>

#include "tracking/zyn_kalman.h"

struct zyn_box_tracker {
  zyn_kalman* filter;         // state 7, measurement 4, floats
  zyn_matrix* measurement;    // 4 x 1, the last one
  int32_t time_since_update;  // predictions since the last detection
  uint32_t id;
  int32_t hits;        // detections over the track's life
  int32_t hit_streak;  // frames in a row with a detection
  int32_t age;         // predictions; like all counters it stops at INT32_MAX
};

// A track at box, at rest. Null (reported) for a null box or without memory.
zyn_box_tracker* zyn_create_box_tracker(const float* box, uint32_t id);

// Counts a detection and corrects the filter by it. 1: null argument; 32: the correction
// failed.
int32_t zyn_box_tracker_update(const float* box, zyn_box_tracker* tracker);

// Moves the track on by one frame and writes the predicted box. 1: null argument; 32:
// the prediction failed.
int32_t zyn_box_tracker_predict(float* box, zyn_box_tracker* tracker);

// 1: null argument. A pointer to null is fine.
int32_t zyn_release_box_tracker(zyn_box_tracker** tracker);

// The box of a state.
void zyn_state_to_box(float* box, const float* state);

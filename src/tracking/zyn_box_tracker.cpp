// The box tracker: conversions between boxes and states, the filter's matrices, one
// track's prediction and update.
#include "tracking/zyn_box_tracker.h"

#include <math.h>

#include "base/zyn_memory.h"
#include "tracking/zyn_tracking_report.h"

namespace {

constexpr zyn_site kCreate{kZynTrackingPath, 986, ZYN_MSG_PARA};

constexpr zyn_kalman_sizes kSizes{7, 4, 0, ZYN_TYPE_F32};
constexpr int32_t kMeasured = 4;  // the leading state elements are the measurement
constexpr int32_t kArea = 2;
constexpr int32_t kAreaVelocity = 6;

constexpr float kMeasurementNoise = 0.01f;
constexpr float kProcessNoise[7] = {1, 1, 1, 1, 0.01f, 0.01f, 0.0001f};
constexpr float kInitialCovariance[7] = {10, 10, 10, 10, 10000, 10000, 10000};

constexpr float kSmallest = 1e-7f;  // width and height of a box that has none

float* values_of(zyn_matrix* matrix) { return static_cast<float*>(matrix->data); }

float& at(zyn_matrix* matrix, int32_t row, int32_t col) {
  return values_of(matrix)[row * matrix->cols + col];
}

// Also for NaN, which roots of a negative area are.
float at_least_smallest(float x) { return x > kSmallest ? x : kSmallest; }

void box_to_measurement(float* z, const float* box) {
  const float w = at_least_smallest(box[2] - box[0]);
  const float h = at_least_smallest(box[3] - box[1]);
  z[0] = box[0] + 0.5f * w;
  z[1] = box[1] + 0.5f * h;
  z[2] = w * h;
  z[3] = w / h;
}

void count_one(int32_t* counter) {
  if (*counter < INT32_MAX) ++*counter;
}

void set_model(zyn_kalman* filter) {
  at(filter->transition, 0, 4) = 1;
  at(filter->transition, 1, 5) = 1;
  // On purpose: nothing at (2, 6); the area's velocity does not feed the area.
  for (int32_t i = 0; i < kMeasured; i++) {
    at(filter->measurement, i, i) = 1;
    at(filter->measurement_noise, i, i) = kMeasurementNoise;
  }
  for (int32_t i = 0; i < kSizes.state; i++) {
    at(filter->process_noise, i, i) = kProcessNoise[i];
    at(filter->corrected_covariance, i, i) = kInitialCovariance[i];
  }
}

zyn_box_tracker* create(const float* box, uint32_t id) {
  auto* tracker = static_cast<zyn_box_tracker*>(zyn_calloc(1, sizeof(zyn_box_tracker)));
  if (!tracker) return nullptr;
  tracker->filter = zyn_create_kalman(&kSizes);
  if (tracker->filter) tracker->measurement = zyn_create_matrix(kMeasured, 1, 1, ZYN_TYPE_F32);
  if (!tracker->measurement) {
    zyn_release_box_tracker(&tracker);
    return nullptr;
  }
  set_model(tracker->filter);
  box_to_measurement(values_of(tracker->measurement), box);
  box_to_measurement(values_of(tracker->filter->corrected_state), box);
  tracker->id = id;
  tracker->hits = 1;
  tracker->hit_streak = 1;
  return tracker;
}

}  // namespace

zyn_box_tracker* zyn_create_box_tracker(const float* box, uint32_t id) {
  zyn_box_tracker* tracker = box ? create(box, id) : nullptr;
  if (!tracker) zyn_report(kCreate);
  return tracker;
}

int32_t zyn_box_tracker_update(const float* box, zyn_box_tracker* tracker) {
  if (!box || !tracker) return ZYN_RET_ERR_PARA;
  tracker->time_since_update = 0;
  count_one(&tracker->hits);
  count_one(&tracker->hit_streak);
  box_to_measurement(values_of(tracker->measurement), box);
  return zyn_kalman_correct(tracker->measurement, tracker->filter) ? ZYN_RET_OK
                                                                   : ZYN_RET_ERR_UNKNOWN;
}

int32_t zyn_box_tracker_predict(float* box, zyn_box_tracker* tracker) {
  if (!box || !tracker) return ZYN_RET_ERR_PARA;
  float* const state = values_of(tracker->filter->corrected_state);
  // On purpose a product: a negative velocity becomes -0.
  if (state[kAreaVelocity] + state[kArea] <= 0) state[kAreaVelocity] *= 0.0f;
  zyn_matrix* const predicted = zyn_kalman_predict(tracker->filter);
  if (!predicted) return ZYN_RET_ERR_UNKNOWN;
  count_one(&tracker->age);
  if (tracker->time_since_update > 0) tracker->hit_streak = 0;
  count_one(&tracker->time_since_update);
  // On purpose there and back: the next correction starts from a box of at least
  // kSmallest by kSmallest, while the corrected state keeps the prediction as it was.
  zyn_state_to_box(box, values_of(predicted));
  box_to_measurement(values_of(predicted), box);
  zyn_state_to_box(box, values_of(predicted));
  return ZYN_RET_OK;
}

int32_t zyn_release_box_tracker(zyn_box_tracker** tracker) {
  if (!tracker) return ZYN_RET_ERR_PARA;
  if (!*tracker) return ZYN_RET_OK;
  zyn_release_kalman(&(*tracker)->filter);
  if ((*tracker)->measurement) zyn_release_matrix(&(*tracker)->measurement);
  zyn_free(*tracker);
  *tracker = nullptr;
  return ZYN_RET_OK;
}

void zyn_state_to_box(float* box, const float* state) {
  const float w = at_least_smallest(sqrtf(state[2] * state[3]));
  const float h = state[2] / w;
  box[0] = state[0] - 0.5f * w;
  box[1] = state[1] - 0.5f * h;
  box[2] = box[0] + w;
  box[3] = box[1] + h;
}

// The general Kalman filter and the box tracker against the formulas.
#include <math.h>

#include "support/buffers.h"
#include "support/capture.h"
#include "support/failing.h"
#include "support/track_model.h"
#include "tracking/zyn_box_tracker.h"

namespace {

using namespace zyn_test;

constexpr Reports tracking_report{"src/tracking/zyn_tracking.cpp"};

template <typename T>
T* values(const zyn_matrix* m) {
  return static_cast<T*>(m->data);
}

// A filter of any size beside its model.
template <typename T>
void check_filter(int n, int m) {
  constexpr bool kNarrow = sizeof(T) == 4;
  SCOPED_TRACE(testing::Message() << n << " / " << m << (kNarrow ? " float" : " double"));
  Random random(100u * n + m);
  const zyn_kalman_sizes sizes{n, m, n % 3, kNarrow ? 6u : 7u};
  zyn_kalman* f = zyn_create_kalman(&sizes);
  zyn_matrix* z = zyn_create_matrix(m, 1, 1, static_cast<int32_t>(sizes.type));
  const auto matrix = [&](int r, int c, float range) {
    Mat made(r, c);
    for (double& x : made.v) x = random.real(-range, range);
    return made;
  };
  const auto identity = [](int k) { return Mat::diagonal(std::vector<double>(k, 1)); };
  const auto covariance = [&](int k) {
    const Mat half = matrix(k, k, 0.7f);
    return (half * half.transposed()).plus(identity(k));
  };
  // Writes values to a library matrix and returns what it then holds.
  const auto put = [](zyn_matrix* to, Mat from) {
    for (size_t i = 0; i < from.v.size(); i++)
      from.v[i] = values<T>(to)[i] = static_cast<T>(from.v[i]);
    return from;
  };
  for (const zyn_matrix* eye : {f->transition, f->process_noise, f->measurement_noise})
    for (int i = 0; i < eye->rows * eye->cols; i++)
      EXPECT_EQ(values<T>(eye)[i], i % (eye->cols + 1) == 0);
  KalmanModel model;
  model.transition = put(f->transition, matrix(n, n, 0.3f).plus(identity(n), 0.7));
  model.measurement = put(f->measurement, matrix(m, n, 1));
  model.process_noise = put(f->process_noise, covariance(n));
  model.measurement_noise = put(f->measurement_noise, covariance(m));
  model.corrected_cov = put(f->corrected_covariance, covariance(n));
  model.corrected = put(f->corrected_state, matrix(n, 1, 2));
  // On purpose not part of any formula: poison that must not show up.
  if (f->control) put(f->control, matrix(n, n % 3, NAN));
  for (bool corrects : {false, true, false, false, true, false, true}) {
    if (corrects) {
      model.correct(put(z, matrix(m, 1, 3)));
      EXPECT_EQ(zyn_kalman_correct(z, f), f->corrected_state);
    } else {
      model.predict();
      EXPECT_EQ(zyn_kalman_predict(f), f->predicted_state);
    }
    const std::pair<zyn_matrix*, Mat*> pairs[] = {{f->predicted_state, &model.predicted},
                                                  {f->corrected_state, &model.corrected},
                                                  {f->predicted_covariance, &model.predicted_cov},
                                                  {f->corrected_covariance, &model.corrected_cov},
                                                  {f->gain, &model.gain}};
    for (const auto& pair : pairs) {
      double bound = 1;
      for (double x : pair.second->v) bound = fmax(bound, fabs(x));
      for (size_t i = 0; i < pair.second->v.size(); i++)
        ASSERT_NEAR(values<T>(pair.first)[i], pair.second->v[i], bound * (kNarrow ? 2e-4 : 1e-11))
            << "matrix " << &pair - pairs;
    }
  }
  zyn_release_matrix(&z);
  zyn_release_kalman(&f);
}

TEST(Kalman, FollowsTheFormulasForAnySizeAndType) {
  for (int state : {1, 2, 4, 7, 9, 17})
    for (int measurement : {1, 3, 4, 8}) {
      check_filter<float>(state, measurement);
      check_filter<double>(state, measurement);
    }
}

TEST(Kalman, FailuresHaveTheReportOfTheirCodeAndSingularOnesNone) {
  EXPECT_SAYS(zyn_create_kalman(nullptr), nullptr, tracking_report(kPara, 42));
  const zyn_kalman_sizes sizes{3, 2, 0, 6},
      bad[] = {{0, 1, 0, 6}, {1, 0, 0, 6}, {1, 1, -1, 6}, {1, 1, 0, 5}, {1, 1, 0, 14}};
  for (const auto& b : bad) EXPECT_SAYS(zyn_create_kalman(&b), nullptr, tracking_report(kPara, 42));
  EXPECT_EQ(zyn_release_kalman(nullptr), 1);
  FailingAllocations failing(1);
  EXPECT_SAYS(zyn_create_kalman(&sizes), nullptr, tracking_report(kMemory, 110));

  zyn_kalman* f = zyn_create_kalman(&sizes);
  zyn_matrix* z = zyn_create_matrix(2, 1, 1, ZYN_TYPE_F32);
  memset(z->data, 0, 8);
  const auto predict = [&](const std::string& text) {
    EXPECT_SAYS(zyn_kalman_predict(f), nullptr, text);
  };
  const auto correct = [&](const std::string& text) {
    EXPECT_SAYS(zyn_kalman_correct(z, f), nullptr, text);
  };
  EXPECT_SAYS(zyn_kalman_predict(nullptr), nullptr, tracking_report(kPara, 300));
  EXPECT_SAYS(zyn_kalman_correct(nullptr, f), nullptr, tracking_report(kPara, 473));
  EXPECT_SAYS(zyn_kalman_correct(z, nullptr), nullptr, tracking_report(kPara, 473));
  f->transition->cols = 2;  // extents that do not fit: code 1 without a report of its own
  predict(tracking_report(kPara, 300));
  f->transition->cols = 3;
  for (int32_t* extent : {&z->rows, &z->cols, &z->pages}) {
    ++*extent;
    correct(tracking_report(kPara, 473));
    --*extent;
  }
  f->type = 3;
  correct(tracking_report(kSupport, 473));
  for (zyn_matrix* m : {f->predicted_state, f->transition, f->corrected_state}) m->type = 3;
  predict(report("ZYN_RET_ERR_NOT_SUPPORT", "src/matrix/zyn_matrix_basic_l3.cpp", 120) +
          tracking_report(kSupport, 300));
  // On purpose: a singular matrix has no report of its own.
  f->type = ZYN_TYPE_F32;
  memset(f->measurement_noise->data, 0, 16);
  correct("\nIt's not a full rank matrix\n");
  zyn_release_matrix(&z);
  zyn_release_kalman(&f);
}

// A track at a box, released at the end.
struct Track {
  zyn_box_tracker* get;
  explicit Track(Box box = {{0, 0, 10, 10}}) : get(zyn_create_box_tracker(box.v, 7)) {}
  ~Track() { zyn_release_box_tracker(&get); }
  zyn_box_tracker* operator->() { return get; }
  float* corrected() { return values<float>(get->filter->corrected_state); }
  float* predicted() { return values<float>(get->filter->predicted_state); }
  Box predict(int code = 0) {
    Box box{};
    printed([&] { EXPECT_EQ(zyn_box_tracker_predict(box.v, get), code); });
    return box;
  }
};

TEST(BoxTracker, RefusalsFailuresAndLargestCounts) {
  EXPECT_SAYS(zyn_create_box_tracker(nullptr, 0), nullptr, tracking_report(kPara, 986));
  EXPECT_EQ(zyn_release_box_tracker(nullptr), 1);
  Track track;
  Box box{{0, 0, 10, 10}};
  for (auto* call : {+[](float*b, zyn_box_tracker*t) { return zyn_box_tracker_update(b, t); },
                     zyn_box_tracker_predict}) {
    EXPECT_EQ(call(nullptr, track.get), 1);
    EXPECT_EQ(call(box.v, nullptr), 1);
  }
  EXPECT_EQ(track->age + track->time_since_update, 0);
  track->age = track->time_since_update = INT32_MAX;
  track.predict();
  EXPECT_TRUE(track->age == INT32_MAX && track->time_since_update == INT32_MAX);
  track->hits = track->hit_streak = INT32_MAX - 1;
  memset(track->filter->measurement_noise->data, 0, 64);
  memset(track->filter->predicted_covariance->data, 0, 7 * 28);
  for (int i = 0; i < 2; i++) {
    EXPECT_SAYS(zyn_box_tracker_update(box.v, track.get), 32, "\nIt's not a full rank matrix\n");
    EXPECT_TRUE(track->hits == INT32_MAX && track->hit_streak == INT32_MAX) << "failed or not";
  }
}

TEST(BoxTracker, StartsFromTheModelsMatrices) {
  Track track;
  const zyn_kalman& f = *track->filter;
  const KalmanModel model = TrackModel({{0, 0, 10, 10}}, 7).filter;
  const std::pair<zyn_matrix*, const Mat*> pairs[] = {
      {f.transition, &model.transition},
      {f.measurement, &model.measurement},
      {f.process_noise, &model.process_noise},
      {f.measurement_noise, &model.measurement_noise},
      {f.corrected_covariance, &model.corrected_cov}};
  for (const auto& pair : pairs)
    for (size_t i = 0; i < pair.second->v.size(); i++)
      EXPECT_FLOAT_EQ(values<float>(pair.first)[i], static_cast<float>(pair.second->v[i])) << i;
}

TEST(BoxTracker, BoxesWithoutExtentAreTheSmallestSquare) {
  for (Box box : {Box{{5, 9, 5, 9}}, {{5, 9, 1, 2}}}) {  // a point; inverted
    Track track(box);
    const float state[7] = {5, 9, 1e-14f, 1};
    for (int i = 0; i < 7; i++) EXPECT_FLOAT_EQ(track.corrected()[i], state[i]) << i;
  }
}

// The area's velocity does not feed the area; one that would use it up becomes -0.
TEST(BoxTracker, StoppedAreaVelocityBecomesMinusZero) {
  for (float velocity : {30.0f, -99.0f, -100.0f, -150.0f}) {
    Track track;
    track.corrected()[6] = velocity;
    // The sign is lost in the prediction's sums: a prediction that fails shows it.
    track->filter->transition->cols = 6;
    track.predict(32);
    EXPECT_EQ(track->age, 0);
    EXPECT_EQ(track.corrected()[6], velocity <= -100 ? 0 : velocity);
    EXPECT_EQ(signbit(track.corrected()[6]), velocity < 0);
    track->filter->transition->cols = 7;
    track.predict();
    EXPECT_FLOAT_EQ(track.predicted()[2], 100);
  }
}

TEST(BoxTracker, PredictedStateIsNormalisedAfterItWasCopied) {
  Track track;
  track.corrected()[2] = -4;  // no box has this area
  const Box box = track.predict();
  EXPECT_EQ(track.corrected()[2], -4);
  // Width 1e-7 and height -4e7 become the smallest box with the same left top corner.
  const float state[] = {5, 5 + 2e7f, 1e-14f, 1};
  for (int i = 1; i < 4; i++) EXPECT_FLOAT_EQ(track.predicted()[i], state[i]) << i;
  EXPECT_GE(box.v[3], box.v[1]);
}

}  // namespace

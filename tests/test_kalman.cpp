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

double element(const zyn_matrix* m, size_t i) {
  return m->type == ZYN_TYPE_F32 ? static_cast<const float*>(m->data)[i]
                                 : static_cast<const double*>(m->data)[i];
}

// A filter of any size beside its model.
class FilterPair {
 public:
  FilterPair(zyn_kalman_sizes sizes, uint64_t seed)
      : random_(seed), filter_(zyn_create_kalman(&sizes)) {
    const int n = sizes.state, m = sizes.measurement;
    model_.transition = put(filter_->transition, random(n, n, 0.3f).plus(identity(n), 0.7));
    model_.measurement = put(filter_->measurement, random(m, n, 1));
    model_.process_noise = put(filter_->process_noise, covariance(n));
    model_.measurement_noise = put(filter_->measurement_noise, covariance(m));
    model_.corrected_cov = put(filter_->corrected_covariance, covariance(n));
    model_.corrected = put(filter_->corrected_state, random(n, 1, 2));
    // On purpose not part of any formula: poison that must not show up.
    if (filter_->control) put(filter_->control, random(n, sizes.control, NAN));
  }
  ~FilterPair() { zyn_release_kalman(&filter_); }

  void predict() {
    ASSERT_EQ(zyn_kalman_predict(filter_), filter_->predicted_state);
    model_.predict();
    compare();
  }
  void correct() {
    const int m = filter_->measurement_size;
    zyn_matrix* z = zyn_create_matrix(m, 1, 1, static_cast<int32_t>(filter_->type));
    model_.correct(put(z, random(m, 1, 3)));
    EXPECT_EQ(zyn_kalman_correct(z, filter_), filter_->corrected_state);
    compare();
    zyn_release_matrix(&z);
  }

 private:
  void compare() {
    const std::pair<zyn_matrix*, Mat> pairs[] = {
        {filter_->predicted_state, model_.predicted},
        {filter_->corrected_state, model_.corrected},
        {filter_->predicted_covariance, model_.predicted_cov},
        {filter_->corrected_covariance, model_.corrected_cov},
        {filter_->gain, model_.gain}};
    for (const auto& [got, want] : pairs) {
      double bound = 1;
      for (double x : want.v) bound = fmax(bound, fabs(x));
      bound *= filter_->type == ZYN_TYPE_F32 ? 2e-4 : 1e-11;
      for (size_t i = 0; i < want.v.size(); i++)
        ASSERT_NEAR(element(got, i), want.v[i], bound) << "matrix " << &got - &pairs[0].first;
    }
  }
  // Writes values to a library matrix and returns what it then holds.
  static Mat put(zyn_matrix* m, Mat values) {
    for (size_t i = 0; i < values.v.size(); i++) {
      if (m->type == ZYN_TYPE_F32)
        static_cast<float*>(m->data)[i] = static_cast<float>(values.v[i]);
      else
        static_cast<double*>(m->data)[i] = values.v[i];
      values.v[i] = element(m, i);
    }
    return values;
  }
  static Mat identity(int n) { return Mat::diagonal(std::vector<double>(n, 1)); }
  Mat random(int r, int c, float range) {
    Mat m(r, c);
    for (double& x : m.v) x = random_.real(-range, range);
    return m;
  }
  Mat covariance(int n) {
    const Mat half = random(n, n, 0.7f);
    return (half * half.transposed()).plus(identity(n));
  }

  Random random_;
  zyn_kalman* filter_;
  KalmanModel model_;
};

// A track at a box, released at the end.
class Track {
 public:
  explicit Track(Box box = {{0, 0, 10, 10}}) : track_(zyn_create_box_tracker(box.v, 7)) {}
  ~Track() { zyn_release_box_tracker(&track_); }
  zyn_box_tracker* operator->() { return track_; }
  zyn_box_tracker* get() { return track_; }
  float* corrected() { return static_cast<float*>(track_->filter->corrected_state->data); }
  float* predicted() { return static_cast<float*>(track_->filter->predicted_state->data); }
  Box predict() {
    Box box{};
    EXPECT_EQ(zyn_box_tracker_predict(box.v, track_), 0);
    return box;
  }

 private:
  zyn_box_tracker* track_;
};

TEST(Kalman, FollowsTheFormulasForAnySizeAndType) {
  for (int32_t state : {1, 2, 4, 7, 9, 17})
    for (int32_t measurement : {1, 3, 4, 8})
      for (uint32_t type : {ZYN_TYPE_F32, ZYN_TYPE_F64}) {
        SCOPED_TRACE(testing::Message() << state << " / " << measurement << " type " << type);
        FilterPair pair({state, measurement, state % 3, type}, 100u * state + measurement);
        for (int step = 0; step < 6; step++) {
          ASSERT_NO_FATAL_FAILURE(pair.predict());
          if (step % 3 == 1) continue;
          ASSERT_NO_FATAL_FAILURE(pair.correct());
        }
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

TEST(BoxTracker, RefusalsFailuresAndLargestCounts) {
  EXPECT_SAYS(zyn_create_box_tracker(nullptr, 0), nullptr, tracking_report(kPara, 986));
  EXPECT_EQ(zyn_release_box_tracker(nullptr), 1);
  Track track;
  Box box{{0, 0, 10, 10}};
  for (auto* call : {+[](float*b, zyn_box_tracker*t) { return zyn_box_tracker_update(b, t); },
                     zyn_box_tracker_predict}) {
    EXPECT_EQ(call(nullptr, track.get()), 1);
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
    EXPECT_SAYS(zyn_box_tracker_update(box.v, track.get()), 32, "\nIt's not a full rank matrix\n");
    EXPECT_TRUE(track->hits == INT32_MAX && track->hit_streak == INT32_MAX) << "failed or not";
  }
}

TEST(BoxTracker, StartsAtRestOnItsBox) {
  const struct {
    Box box;
    std::vector<float> state;
  } cases[] = {{{{10, 20, 30, 60}}, {20, 40, 800, 0.5f, 0, 0, 0}},
               {{{5, 5, 5, 5}}, {5, 5, 1e-14f, 1, 0, 0, 0}},   // a point
               {{{5, 9, 1, 2}}, {5, 9, 1e-14f, 1, 0, 0, 0}}};  // inverted
  for (const auto& c : cases) {
    Track track(c.box);
    for (size_t i = 0; i < 7; i++) EXPECT_FLOAT_EQ(track.corrected()[i], c.state[i]) << i;
  }
}

// The area's velocity does not feed the area; one that would use it up becomes -0.
TEST(BoxTracker, StoppedAreaVelocityBecomesMinusZero) {
  for (float velocity : {30.0f, -99.0f, -100.0f, -150.0f}) {
    Track track;
    track.corrected()[6] = velocity;
    // The sign is lost in the prediction's sums: a prediction that fails shows it.
    track->filter->transition->cols = 6;
    Box box{};
    printed([&] { EXPECT_EQ(zyn_box_tracker_predict(box.v, track.get()), 32); });
    EXPECT_EQ(track->age, 0);
    track->filter->transition->cols = 7;
    EXPECT_EQ(track.corrected()[6], velocity <= -100 ? 0 : velocity);
    EXPECT_EQ(signbit(track.corrected()[6]), velocity < 0);
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

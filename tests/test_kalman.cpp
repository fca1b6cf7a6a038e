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

double element(const zyn_matrix* m, int64_t i) {
  return m->type == ZYN_TYPE_F32 ? static_cast<const float*>(m->data)[i]
                                 : static_cast<const double*>(m->data)[i];
}

// Writes values to a library matrix and returns what it then holds.
Mat<double> put(zyn_matrix* m, const Mat<double>& values) {
  Mat<double> held(m->rows, m->cols);
  for (size_t i = 0; i < values.v.size(); i++) {
    if (m->type == ZYN_TYPE_F32)
      static_cast<float*>(m->data)[i] = static_cast<float>(values.v[i]);
    else
      static_cast<double*>(m->data)[i] = values.v[i];
    held.v[i] = element(m, static_cast<int64_t>(i));
  }
  return held;
}

void expect_near(const zyn_matrix* got, const Mat<double>& want, double tolerance,
                 const char* what) {
  double largest = 1;
  for (double x : want.v) largest = fmax(largest, fabs(x));
  for (size_t i = 0; i < want.v.size(); i++)
    ASSERT_NEAR(element(got, static_cast<int64_t>(i)), want.v[i], tolerance * largest)
        << what << " element " << i;
}

// A filter of any size beside its model in double.
class FilterPair {
 public:
  FilterPair(zyn_kalman_sizes sizes, uint64_t seed) : random_(seed), type_(sizes.type) {
    filter_ = zyn_create_kalman(&sizes);
    const int n = sizes.state, m = sizes.measurement;
    model_.transition = put(filter_->transition, random(n, n, 0.3f).plus(identity(n), 0.7));
    model_.measurement = put(filter_->measurement, random(m, n, 1));
    model_.process_noise = put(filter_->process_noise, covariance(n));
    model_.measurement_noise = put(filter_->measurement_noise, covariance(m));
    model_.corrected_cov = put(filter_->corrected_covariance, covariance(n));
    model_.corrected = put(filter_->corrected_state, random(n, 1, 2));
    // On purpose not part of any formula: poison that must not show up.
    if (filter_->control) {
      Mat<double> poison(n, sizes.control);
      for (double& x : poison.v) x = NAN;
      put(filter_->control, poison);
    }
  }
  ~FilterPair() { zyn_release_kalman(&filter_); }

  void predict() {
    ASSERT_EQ(zyn_kalman_predict(filter_), filter_->predicted_state);
    model_.predict();
    compare();
    EXPECT_EQ(
        memcmp(filter_->predicted_state->data, filter_->corrected_state->data,
               static_cast<size_t>(filter_->state_size * filter_->predicted_state->row_bytes)),
        0);
  }
  void correct() {
    const int m = filter_->measurement_size;
    zyn_matrix* z = zyn_create_matrix(m, 1, 1, static_cast<int32_t>(type_));
    const Mat<double> values = put(z, random(m, 1, 3));
    EXPECT_EQ(zyn_kalman_correct(z, filter_), filter_->corrected_state);
    model_.correct(values);
    expect_near(filter_->gain, model_.gain, tolerance(), "gain");
    compare();
    zyn_release_matrix(&z);
  }

 private:
  double tolerance() const { return type_ == ZYN_TYPE_F32 ? 2e-4 : 1e-11; }
  void compare() {
    expect_near(filter_->predicted_state, model_.predicted, tolerance(), "predicted state");
    expect_near(filter_->corrected_state, model_.corrected, tolerance(), "corrected state");
    expect_near(filter_->predicted_covariance, model_.predicted_cov, tolerance(), "predicted");
    expect_near(filter_->corrected_covariance, model_.corrected_cov, tolerance(), "corrected");
  }
  static Mat<double> identity(int n) {
    return Mat<double>::diagonal(std::vector<double>(static_cast<size_t>(n), 1));
  }
  Mat<double> random(int r, int c, float range) {
    Mat<double> m(r, c);
    for (double& x : m.v) x = random_.real(-range, range);
    return m;
  }
  Mat<double> covariance(int n) {
    const Mat<double> half = random(n, n, 0.7f);
    return half * half.transposed() + identity(n);
  }

  Random random_;
  uint32_t type_;
  zyn_kalman* filter_;
  KalmanModel<double> model_;
};

// A track at a box, released at the end.
class Track {
 public:
  Track(float x1, float y1, float x2, float y2) : Track(Box{{x1, y1, x2, y2}}) {}
  explicit Track(Box box) : track_(zyn_create_box_tracker(box.v, 7)) {}
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
        FilterPair pair({state, measurement, state % 3, type},
                        static_cast<uint64_t>(100 * state + measurement));
        for (int step = 0; step < 6; step++) {
          ASSERT_NO_FATAL_FAILURE(pair.predict());
          if (step % 3 == 1) continue;
          ASSERT_NO_FATAL_FAILURE(pair.correct());
        }
      }
}

TEST(Kalman, FailuresHaveTheReportOfTheirCodeAndSingularOnesNone) {
  const std::string refused = tracking_report(kPara, 42);
  EXPECT_SAYS(zyn_create_kalman(nullptr), nullptr, refused);
  for (const zyn_kalman_sizes& bad : {zyn_kalman_sizes{0, 1, 0, 6},
                                      {-1, 1, 0, 6},
                                      {1, 0, 0, 6},
                                      {1, 1, -1, 6},
                                      {1, 1, 0, 5},
                                      {1, 1, 0, 14}})
    EXPECT_SAYS(zyn_create_kalman(&bad), nullptr, refused);
  EXPECT_EQ(zyn_release_kalman(nullptr), 1);

  const zyn_kalman_sizes sizes{3, 2, 0, ZYN_TYPE_F32};
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

// Fails every allocation of a creation, whose reports end with the given one; returns how
// many there are.
template <typename Create, typename Release>
int64_t without_memory(Create create, Release release, const std::string& last) {
  return for_each_failing_allocation([&](int64_t, bool) {
    auto* made = decltype(create()){};
    const std::string text = printed([&] { made = create(); });
    if (made) return release(&made) == 0;
    EXPECT_EQ(text.substr(text.size() - last.size()), last);
    return false;
  });
}

TEST(Kalman, EveryAllocationOfACreationMayFail) {
  const zyn_kalman_sizes sizes{2, 1, 1, ZYN_TYPE_F64};
  EXPECT_EQ(without_memory([&] { return zyn_create_kalman(&sizes); }, zyn_release_kalman,
                           tracking_report(kMemory, 110)),
            1 + 15 * 2);
  const Box box{{1, 2, 3, 4}};
  without_memory([&] { return zyn_create_box_tracker(box.v, 0); }, zyn_release_box_tracker,
                 tracking_report(kPara, 986));
}

TEST(BoxTracker, RefusalsAndFailures) {
  EXPECT_SAYS(zyn_create_box_tracker(nullptr, 0), nullptr, tracking_report(kPara, 986));
  Track track(0, 0, 10, 10);
  Box box{{0, 0, 1, 1}};
  EXPECT_EQ(zyn_box_tracker_update(nullptr, track.get()), 1);
  EXPECT_EQ(zyn_box_tracker_update(box.v, nullptr), 1);
  EXPECT_EQ(zyn_box_tracker_predict(nullptr, track.get()), 1);
  EXPECT_EQ(zyn_box_tracker_predict(box.v, nullptr), 1);
  EXPECT_EQ(zyn_release_box_tracker(nullptr), 1);
  EXPECT_EQ(track->age + track->time_since_update, 0);
  memset(track->filter->measurement_noise->data, 0, 64);
  printed([&] { EXPECT_EQ(zyn_box_tracker_update(box.v, track.get()), 32); });
  EXPECT_EQ(track->hits, 2) << "a failed correction counts the detection all the same";
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
    Track track(0, 0, 10, 10);
    track.corrected()[6] = velocity;
    const bool stops = velocity <= -100;
    // The sign is lost in the prediction's sums: a prediction that fails shows it.
    track->filter->transition->cols = 6;
    Box box{};
    printed([&] { EXPECT_EQ(zyn_box_tracker_predict(box.v, track.get()), 32); });
    EXPECT_EQ(track->age, 0);
    track->filter->transition->cols = 7;
    EXPECT_EQ(track.corrected()[6], stops ? 0 : velocity);
    EXPECT_EQ(signbit(track.corrected()[6]), velocity < 0);
    track.predict();
    EXPECT_EQ(track.corrected()[6], stops ? 0 : velocity);
    EXPECT_FLOAT_EQ(track.predicted()[2], 100);
  }
}

TEST(BoxTracker, PredictedStateIsNormalisedAfterItWasCopied) {
  Track track(0, 0, 10, 10);
  track.corrected()[2] = -4;  // no box has this area
  const Box box = track.predict();
  EXPECT_EQ(track.corrected()[2], -4);
  // Width 1e-7 and height -4e7 become the smallest box with the same left top corner.
  EXPECT_FLOAT_EQ(track.predicted()[2], 1e-14f);
  EXPECT_FLOAT_EQ(track.predicted()[3], 1);
  EXPECT_FLOAT_EQ(track.predicted()[1], 5 + 2e7f);
  EXPECT_GE(box.v[3], box.v[1]);
}

TEST(BoxTracker, CountersStopAtTheirLargestValue) {
  Track track(0, 0, 10, 10);
  track->age = track->hits = track->time_since_update = INT32_MAX;
  track.predict();
  EXPECT_TRUE(track->age == INT32_MAX && track->time_since_update == INT32_MAX);
  track->hit_streak = INT32_MAX;
  const Box box{{0, 0, 10, 10}};
  EXPECT_EQ(zyn_box_tracker_update(box.v, track.get()), 0);
  EXPECT_TRUE(track->hits == INT32_MAX && track->hit_streak == INT32_MAX);
}

}  // namespace

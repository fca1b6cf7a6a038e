// A Kalman filter and a box track written from their formulas: plain loops, an explicit
// inverse, no code of the library.
#pragma once

#include <stdint.h>

#include <cmath>
#include <utility>
#include <vector>

namespace zyn_test {

struct Mat {
  int rows = 0, cols = 0;
  std::vector<double> v;
  Mat() = default;
  Mat(int r, int c) : rows(r), cols(c), v(static_cast<size_t>(r) * c) {}
  static Mat diagonal(const std::vector<double>& d) {
    Mat m(static_cast<int>(d.size()), static_cast<int>(d.size()));
    for (int i = 0; i < m.rows; i++) m(i, i) = d[i];
    return m;
  }
  double& operator()(int r, int c) { return v[static_cast<size_t>(r) * cols + c]; }
  double operator()(int r, int c) const { return v[static_cast<size_t>(r) * cols + c]; }
  Mat operator*(const Mat& b) const {
    Mat c(rows, b.cols);
    for (int i = 0; i < rows; i++)
      for (int j = 0; j < b.cols; j++)
        for (int k = 0; k < cols; k++) c(i, j) += (*this)(i, k) * b(k, j);
    return c;
  }
  Mat plus(const Mat& b, double factor = 1) const {
    Mat c = *this;
    for (size_t i = 0; i < v.size(); i++) c.v[i] += factor * b.v[i];
    return c;
  }
  Mat transposed() const {
    Mat c(cols, rows);
    for (int i = 0; i < rows; i++)
      for (int j = 0; j < cols; j++) c(j, i) = (*this)(i, j);
    return c;
  }
  // Gauss-Jordan in place; covariances do without pivoting.
  Mat inverse() const {
    Mat a = *this;
    for (int j = 0; j < rows; j++) {
      const double pivot = std::exchange(a(j, j), 1);
      for (int k = 0; k < rows; k++) a(j, k) /= pivot;
      for (int i = 0; i < rows; i++) {
        if (i == j) continue;
        const double factor = std::exchange(a(i, j), 0);
        for (int k = 0; k < rows; k++) a(i, k) -= factor * a(j, k);
      }
    }
    return a;
  }
};

struct KalmanModel {
  Mat transition, measurement, process_noise, measurement_noise;
  Mat predicted, corrected, predicted_cov, corrected_cov, gain;

  void predict() {
    corrected = predicted = transition * corrected;
    corrected_cov = predicted_cov =
        (transition * corrected_cov * transition.transposed()).plus(process_noise);
  }
  void correct(const Mat& z) {
    const Mat cross = predicted_cov * measurement.transposed();
    gain = cross * (measurement * cross).plus(measurement_noise).inverse();
    corrected = predicted.plus(gain * z.plus(measurement * predicted, -1));
    corrected_cov = predicted_cov.plus(gain * (measurement * predicted_cov), -1);
  }
};

struct Box {
  float v[4];
};

struct TrackModel {
  KalmanModel filter;
  uint32_t id = 0;
  int since = 0, hits = 1, streak = 1, age = 0;
  std::vector<uint8_t> payload;  // empty: the track has no slot

  TrackModel(const Box& box, uint32_t track_id) : id(track_id) {
    KalmanModel& f = filter;
    f.transition = Mat::diagonal({1, 1, 1, 1, 1, 1, 1});
    f.transition(0, 4) = f.transition(1, 5) = 1;
    f.measurement = Mat(4, 7);
    for (int i = 0; i < 4; i++) f.measurement(i, i) = 1;
    f.measurement_noise = Mat::diagonal({0.01, 0.01, 0.01, 0.01});
    f.process_noise = Mat::diagonal({1, 1, 1, 1, 0.01, 0.01, 0.0001});
    f.corrected_cov = Mat::diagonal({10, 10, 10, 10, 10000, 10000, 10000});
    f.predicted_cov = Mat(7, 7);
    f.predicted = f.corrected = Mat(7, 1);
    set_box(&f.corrected, box);
  }
  static void set_box(Mat* state, const Box& b) {
    const double w = std::fmax(b.v[2] - b.v[0], 1e-7f), h = std::fmax(b.v[3] - b.v[1], 1e-7f);
    const double z[4] = {b.v[0] + w / 2, b.v[1] + h / 2, w * h, w / h};
    for (int i = 0; i < 4; i++) state->v[i] = z[i];
  }
  static Box box_of(const Mat& state) {
    const double w = std::fmax(std::sqrt(state.v[2] * state.v[3]), 1e-7), h = state.v[2] / w;
    const auto x = static_cast<float>(state.v[0] - w / 2),
               y = static_cast<float>(state.v[1] - h / 2);
    return {{x, y, x + static_cast<float>(w), y + static_cast<float>(h)}};
  }
  Box predict() {
    if (filter.corrected.v[6] + filter.corrected.v[2] <= 0) filter.corrected.v[6] = 0;
    filter.predict();
    age++;
    if (since++ > 0) streak = 0;
    set_box(&filter.predicted, box_of(filter.predicted));
    return box_of(filter.predicted);
  }
  void update(const Box& box) {
    since = 0;
    hits++;
    streak++;
    Mat z(4, 1);
    set_box(&z, box);
    filter.correct(z);
  }
};

}  // namespace zyn_test

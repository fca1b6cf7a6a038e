// A Kalman filter and a box track written from their formulas: plain loops, an explicit
// inverse, no code of the library.
#pragma once

#include <stdint.h>

#include <cmath>
#include <utility>
#include <vector>

namespace zyn_test {

template <typename T>
struct Mat {
  int rows = 0, cols = 0;
  std::vector<T> v;
  Mat() = default;
  Mat(int r, int c) : rows(r), cols(c), v(static_cast<size_t>(r) * c) {}
  static Mat diagonal(std::vector<T> d) {
    Mat m(static_cast<int>(d.size()), static_cast<int>(d.size()));
    for (int i = 0; i < m.rows; i++) m(i, i) = d[i];
    return m;
  }
  T& operator()(int r, int c) { return v[static_cast<size_t>(r) * cols + c]; }
  T operator()(int r, int c) const { return v[static_cast<size_t>(r) * cols + c]; }
  Mat operator*(const Mat& b) const {
    Mat c(rows, b.cols);
    for (int i = 0; i < rows; i++)
      for (int j = 0; j < b.cols; j++)
        for (int k = 0; k < cols; k++) c(i, j) += (*this)(i, k) * b(k, j);
    return c;
  }
  Mat plus(const Mat& b, T factor) const {
    Mat c = *this;
    for (size_t i = 0; i < v.size(); i++) c.v[i] += factor * b.v[i];
    return c;
  }
  Mat operator+(const Mat& b) const { return plus(b, 1); }
  Mat operator-(const Mat& b) const { return plus(b, -1); }
  Mat transposed() const {
    Mat c(cols, rows);
    for (int i = 0; i < rows; i++)
      for (int j = 0; j < cols; j++) c(j, i) = (*this)(i, j);
    return c;
  }
  // Gauss-Jordan on [this | identity].
  Mat inverse() const {
    Mat a = *this, b = diagonal(std::vector<T>(static_cast<size_t>(rows), 1));
    for (int j = 0; j < rows; j++) {
      int pivot = j;
      for (int i = j; i < rows; i++)
        if (std::fabs(a(i, j)) > std::fabs(a(pivot, j))) pivot = i;
      for (int k = 0; k < rows; k++) {
        std::swap(a(j, k), a(pivot, k));
        std::swap(b(j, k), b(pivot, k));
      }
      const T scale = 1 / a(j, j);
      for (int k = 0; k < rows; k++) {
        a(j, k) *= scale;
        b(j, k) *= scale;
      }
      for (int i = 0; i < rows; i++) {
        if (i == j) continue;
        const T factor = a(i, j);
        for (int k = 0; k < rows; k++) {
          a(i, k) -= factor * a(j, k);
          b(i, k) -= factor * b(j, k);
        }
      }
    }
    return b;
  }
};

template <typename T>
struct KalmanModel {
  Mat<T> transition, measurement, process_noise, measurement_noise;
  Mat<T> predicted, corrected, predicted_cov, corrected_cov, gain;

  void predict() {
    corrected = predicted = transition * corrected;
    corrected_cov = predicted_cov =
        transition * corrected_cov * transition.transposed() + process_noise;
  }
  void correct(const Mat<T>& z) {
    const Mat<T> cross = predicted_cov * measurement.transposed();
    gain = cross * (measurement * cross + measurement_noise).inverse();
    corrected = predicted + gain * (z - measurement * predicted);
    corrected_cov = predicted_cov - gain * (measurement * predicted_cov);
  }
};

struct Box {
  float v[4];
};

// One track in floats.
struct TrackModel {
  KalmanModel<float> filter;
  uint32_t id = 0;
  int since = 0, hits = 1, streak = 1, age = 0;
  std::vector<uint8_t> payload;  // empty: the track has no slot

  TrackModel(const Box& box, uint32_t track_id) : id(track_id) {
    auto& f = filter;
    f.transition = Mat<float>::diagonal({1, 1, 1, 1, 1, 1, 1});
    f.transition(0, 4) = f.transition(1, 5) = 1;
    f.measurement = Mat<float>(4, 7);
    for (int i = 0; i < 4; i++) f.measurement(i, i) = 1;
    f.measurement_noise = Mat<float>::diagonal({0.01f, 0.01f, 0.01f, 0.01f});
    f.process_noise = Mat<float>::diagonal({1, 1, 1, 1, 0.01f, 0.01f, 0.0001f});
    f.corrected_cov = Mat<float>::diagonal({10, 10, 10, 10, 10000, 10000, 10000});
    f.predicted_cov = Mat<float>(7, 7);
    f.predicted = f.corrected = Mat<float>(7, 1);
    set_box(&f.corrected, box);
  }
  static void set_box(Mat<float>* state, const Box& b) {
    const float w = std::fmax(b.v[2] - b.v[0], 1e-7f), h = std::fmax(b.v[3] - b.v[1], 1e-7f);
    const float z[4] = {b.v[0] + w / 2, b.v[1] + h / 2, w * h, w / h};
    for (int i = 0; i < 4; i++) state->v[i] = z[i];
  }
  static Box box_of(const Mat<float>& state) {
    const float w = std::fmax(std::sqrt(state.v[2] * state.v[3]), 1e-7f), h = state.v[2] / w;
    const float x = state.v[0] - w / 2, y = state.v[1] - h / 2;
    return {{x, y, x + w, y + h}};
  }
  Box predict() {
    if (filter.corrected.v[6] + filter.corrected.v[2] <= 0) filter.corrected.v[6] *= 0;
    filter.predict();
    age++;
    if (since > 0) streak = 0;
    since++;
    set_box(&filter.predicted, box_of(filter.predicted));
    return box_of(filter.predicted);
  }
  void update(const Box& box) {
    since = 0;
    hits++;
    streak++;
    Mat<float> z(4, 1);
    set_box(&z, box);
    filter.correct(z);
  }
};

}  // namespace zyn_test

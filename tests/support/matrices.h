// Matrix records over buffers that end at an inaccessible page.
#pragma once

#include <gtest/gtest.h>
#include <math.h>

#include <string>

#include "support/buffers.h"
#include "zyncore.h"

namespace zyn_test {

// rows x cols of T whose rows lie pitch elements apart (0: cols); what lies between them
// stays NaN.
template <typename T>
class Matrix {
 public:
  Matrix(int rows, int cols, int pitch = 0)
      : rows_(rows), cols_(cols), pitch_(pitch ? pitch : cols), block_((rows - 1) * pitch_ + cols) {
    zyn_set_matrix_header(&record_, rows, cols, 1, sizeof(T) == 4 ? ZYN_TYPE_F32 : ZYN_TYPE_F64);
    record_.row_bytes = pitch_ * static_cast<int64_t>(sizeof(T));
    record_.data = block_.data();
    for (T& element : block_) element = static_cast<T>(NAN);
  }
  T& at(int r, int c) { return block_[r * pitch_ + c]; }
  const T& at(int r, int c) const { return block_[r * pitch_ + c]; }
  zyn_matrix* get() { return &record_; }
  int rows() const { return rows_; }
  int cols() const { return cols_; }

  // Every element from source(row, column).
  template <typename Source>
  Matrix& fill(Source source) {
    for (int r = 0; r < rows_; r++)
      for (int c = 0; c < cols_; c++) at(r, c) = static_cast<T>(source(r, c));
    return *this;
  }
  Matrix& integers(Random& random, int limit) {
    return fill([&](int, int) { return random.integer(-limit, limit); });
  }
  Matrix& reals(Random& random) {
    return fill([&](int, int) { return random.real(-1, 1); });
  }
  // The first element that differs from expected(row, column) by more than
  // bound(row, column), as text; empty without one.
  template <typename Expected, typename Bound>
  std::string difference(Expected expected, Bound bound) const {
    for (int r = 0; r < rows_; r++)
      for (int c = 0; c < pitch_ && (c < cols_ || r + 1 < rows_); c++) {
        const double have = at(r, c), want = c < cols_ ? double(expected(r, c)) : NAN;
        if (c < cols_ ? !(fabs(have - want) <= bound(r, c)) : !isnan(have))
          return "(" + std::to_string(r) + ", " + std::to_string(c) + ") is " +
                 std::to_string(have) + ", not " + std::to_string(want);
      }
    return "";
  }
  template <typename Expected>
  std::string difference(Expected expected) const {
    return difference(expected, [](int, int) { return 0.0; });
  }

 private:
  int rows_, cols_, pitch_;
  PageEnd<T> block_;
  zyn_matrix record_;
};

}  // namespace zyn_test

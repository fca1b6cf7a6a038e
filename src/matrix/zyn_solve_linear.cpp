// Linear systems by Gaussian elimination with partial pivoting.
#include <stdint.h>
#include <string.h>

#include "base/zyn_report.h"
#include "matrix/zyn_matrix.h"
#include "matrix/zyn_matrix_ops.h"
#include "simd/zyn_lanes.h"

namespace {

constexpr zyn_site kType{"src/matrix/zyn_solve_linear.cpp", 69, ZYN_MSG_NOT_SUPPORT};

template <typename T>
constexpr T kEpsilon;
template <>
constexpr float kEpsilon<float> = 1.1920929e-07f;
template <>
constexpr double kEpsilon<double> = 2.220446049250313e-16;

template <typename T>
T magnitude(T x) {
  return x < 0 ? -x : x;
}

// y += factor * x.
template <typename T>
void add_scaled(T* y, const T* x, T factor, int64_t count) {
  using L = zyn_lanes<T>;
  const auto factors = L::broadcast(factor);
  int64_t i = 0;
  for (; i + L::count <= count; i += L::count)
    L::store(y + i, L::fma(factors, L::load(x + i), L::load(y + i)));
  for (; i < count; i++) y[i] = L::fma(factor, x[i], y[i]);
}

template <typename T>
void swap_rows(T* a, T* b, int64_t count) {
  for (int64_t i = 0; i < count; i++) {
    const T element = a[i];
    a[i] = b[i];
    b[i] = element;
  }
}

// The row from j on with the largest magnitude in column j, the first of equals.
template <typename T>
int64_t pivot_row(const T* a, int64_t pitch, int64_t n, int64_t j) {
  int64_t row = j;
  for (int64_t i = j + 1; i < n; i++)
    if (magnitude(a[i * pitch + j]) > magnitude(a[row * pitch + j])) row = i;
  return row;
}

// a: n x n, overwritten (its diagonal by the pivots' reciprocals); x: n x columns, the
// right-hand sides on entry. False when a pivot is too small.
template <typename T>
bool solve(T* a, int64_t a_pitch, int64_t n, T* x, int64_t x_pitch, int64_t columns) {
  for (int64_t j = 0; j < n; j++) {
    T* const pivot = a + j * a_pitch;
    T* const known = x + j * x_pitch;
    const int64_t row = pivot_row(a, a_pitch, n, j);
    if (magnitude(a[row * a_pitch + j]) < kEpsilon<T>) return false;
    if (row != j) {
      swap_rows(pivot + j, a + row * a_pitch + j, n - j);
      swap_rows(known, x + row * x_pitch, columns);
    }
    pivot[j] = 1 / pivot[j];
    for (int64_t i = j + 1; i < n; i++) {
      T* const below = a + i * a_pitch;
      const T factor = below[j] * -pivot[j];
      add_scaled(below + j + 1, pivot + j + 1, factor, n - j - 1);
      add_scaled(x + i * x_pitch, known, factor, columns);
    }
  }
  for (int64_t i = n - 1; i >= 0; i--) {
    T* const unknown = x + i * x_pitch;
    for (int64_t l = i + 1; l < n; l++)
      add_scaled(unknown, x + l * x_pitch, -a[i * a_pitch + l], columns);
    for (int64_t c = 0; c < columns; c++) unknown[c] *= a[i * a_pitch + i];
  }
  return true;
}

template <typename T>
int32_t solve(zyn_matrix* x, zyn_matrix* a) {
  const int64_t size = zyn_matrix_element_bytes(static_cast<int32_t>(a->type & 31));
  if (solve(static_cast<T*>(a->data), a->row_bytes / size, a->rows, static_cast<T*>(x->data),
            x->row_bytes / size, x->cols))
    return ZYN_RET_OK;
  zyn_print("\nIt's not a full rank matrix\n");
  return ZYN_RET_ERR_UNKNOWN;
}

}  // namespace

int32_t zyn_solve_linear(zyn_matrix* x, zyn_matrix* a, const zyn_matrix* b) {
  if (!x || !a || !b || x->type != a->type || b->type != a->type || a->rows != a->cols ||
      x->rows != a->cols || x->cols != b->cols || b->rows != x->rows || x->pages < b->pages ||
      !x->data || !a->data || !b->data)
    return ZYN_RET_ERR_PARA;
  const uint32_t depth = a->type & 7;
  if (depth != ZYN_TYPE_F32 && depth != ZYN_TYPE_F64)
    return zyn_fail(kType, ZYN_RET_ERR_NOT_SUPPORT);
  if (x->data != b->data)
    memcpy(x->data, b->data, static_cast<size_t>(int64_t{b->pages} * b->rows * b->row_bytes));
  return depth == ZYN_TYPE_F32 ? solve<float>(x, a) : solve<double>(x, a);
}

// The general Kalman filter: creation, prediction, correction.
#include "tracking/zyn_kalman.h"

#include <string.h>

#include "base/zyn_memory.h"
#include "matrix/zyn_matrix_ops.h"
#include "tracking/zyn_tracking_report.h"

namespace {

constexpr zyn_site kCreateArgs{kZynTrackingPath, 42, ZYN_MSG_PARA};
constexpr zyn_site kCreateMemory{kZynTrackingPath, 110, ZYN_MSG_MEMORY};
constexpr int32_t kPredictLine = 300;
constexpr int32_t kCorrectLine = 473;

using matrix_field = zyn_matrix* zyn_kalman::*;

constexpr matrix_field kIdentities[] = {&zyn_kalman::transition, &zyn_kalman::process_noise,
                                        &zyn_kalman::measurement_noise};

// Every matrix with its extents. visit(field, rows, cols) returns false to stop.
template <typename Visit>
bool for_each_matrix(const zyn_kalman* filter, Visit visit) {
  const int32_t n = filter->state_size;
  const int32_t m = filter->measurement_size;
  const struct {
    matrix_field field;
    int32_t rows;
    int32_t cols;
  } matrices[] = {{&zyn_kalman::predicted_state, n, 1},
                  {&zyn_kalman::corrected_state, n, 1},
                  {&zyn_kalman::transition, n, n},
                  {&zyn_kalman::control, n, filter->control_size},
                  {&zyn_kalman::measurement, m, n},
                  {&zyn_kalman::process_noise, n, n},
                  {&zyn_kalman::measurement_noise, m, m},
                  {&zyn_kalman::predicted_covariance, n, n},
                  {&zyn_kalman::gain, n, m},
                  {&zyn_kalman::corrected_covariance, n, n},
                  {&zyn_kalman::work1, n, n},
                  {&zyn_kalman::work2, m, n},
                  {&zyn_kalman::work3, m, m},
                  {&zyn_kalman::work4, m, n},
                  {&zyn_kalman::work5, m, 1}};
  for (const auto& matrix : matrices)
    if (!visit(matrix.field, matrix.rows, matrix.cols)) return false;
  return true;
}

int64_t bytes_of(const zyn_matrix* matrix) { return matrix->row_bytes * matrix->rows; }

void copy_matrix(zyn_matrix* destination, const zyn_matrix* source) {
  memcpy(destination->data, source->data, static_cast<size_t>(bytes_of(source)));
}

bool create_matrices(zyn_kalman* filter) {
  const bool made = for_each_matrix(filter, [=](matrix_field field, int32_t rows, int32_t cols) {
    if (cols == 0) return true;  // no control, no control matrix
    zyn_matrix* matrix = zyn_create_matrix(rows, cols, 1, static_cast<int32_t>(filter->type));
    filter->*field = matrix;
    if (matrix) memset(matrix->data, 0, static_cast<size_t>(bytes_of(matrix)));
    return matrix != nullptr;
  });
  if (!made) return false;
  for (matrix_field field : kIdentities)
    if (zyn_matrix_set_identity(filter->*field) != ZYN_RET_OK) return false;
  return true;
}

int32_t predict(zyn_kalman* f) {
  // On purpose: no control term, whether there is a control matrix or not.
  int32_t code = zyn_matrix_multiply(f->predicted_state, f->transition, f->corrected_state, 0);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_multiply(f->work1, f->transition, f->corrected_covariance, 0);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_multiply(f->predicted_covariance, f->work1, f->transition, 1);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_add(f->predicted_covariance, f->predicted_covariance, f->process_noise);
  if (code != ZYN_RET_OK) return code;
  copy_matrix(f->corrected_state, f->predicted_state);
  copy_matrix(f->corrected_covariance, f->predicted_covariance);
  return ZYN_RET_OK;
}

// c = c - a * b in the filter's type.
int32_t subtract_product(const zyn_kalman* filter, zyn_matrix* c, const zyn_matrix* a,
                         const zyn_matrix* b) {
  static constexpr float kFactors32[2] = {-1, 1};
  static constexpr double kFactors64[2] = {-1, 1};
  switch (filter->type) {
    case ZYN_TYPE_F32:
      return zyn_matrix_gemm(c, a, b, 0, &kFactors32[0], &kFactors32[1]);
    case ZYN_TYPE_F64:
      return zyn_matrix_gemm(c, a, b, 0, &kFactors64[0], &kFactors64[1]);
    default:
      return ZYN_RET_ERR_NOT_SUPPORT;
  }
}

bool is_measurement(const zyn_matrix* z, const zyn_matrix* like) {
  return z->data && z->rows == like->rows && z->cols == 1 && z->pages == 1 && z->type == like->type;
}

int32_t correct(const zyn_matrix* z, zyn_kalman* f) {
  int32_t code = zyn_matrix_multiply(f->work2, f->measurement, f->predicted_covariance, 0);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_multiply(f->work3, f->work2, f->measurement, 1);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_add(f->work3, f->work3, f->measurement_noise);
  if (code != ZYN_RET_OK) return code;
  // The gain is work2^T * work3^-1 and work3 symmetric: a system in place of an inverse.
  code = zyn_solve_linear(f->work4, f->work3, f->work2);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_transpose(f->gain, f->work4);
  if (code != ZYN_RET_OK) return code;
  copy_matrix(f->work5, z);
  code = subtract_product(f, f->work5, f->measurement, f->predicted_state);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_multiply(f->corrected_state, f->gain, f->work5, 0);
  if (code != ZYN_RET_OK) return code;
  code = zyn_matrix_add(f->corrected_state, f->corrected_state, f->predicted_state);
  if (code != ZYN_RET_OK) return code;
  copy_matrix(f->corrected_covariance, f->predicted_covariance);
  return subtract_product(f, f->corrected_covariance, f->gain, f->work2);
}

}  // namespace

zyn_kalman* zyn_create_kalman(const zyn_kalman_sizes* sizes) {
  if (!sizes || (sizes->type != ZYN_TYPE_F32 && sizes->type != ZYN_TYPE_F64) || sizes->state < 1 ||
      sizes->measurement < 1 || sizes->control < 0) {
    zyn_report(kCreateArgs);
    return nullptr;
  }
  auto* filter = static_cast<zyn_kalman*>(zyn_calloc(1, sizeof(zyn_kalman)));
  if (filter) {
    filter->state_size = sizes->state;
    filter->measurement_size = sizes->measurement;
    filter->control_size = sizes->control;
    filter->type = sizes->type;
    if (create_matrices(filter)) return filter;
  }
  zyn_release_kalman(&filter);
  zyn_report(kCreateMemory);
  return nullptr;
}

zyn_matrix* zyn_kalman_predict(zyn_kalman* filter) {
  const int32_t code = filter ? predict(filter) : ZYN_RET_ERR_PARA;
  if (code == ZYN_RET_OK) return filter->predicted_state;
  zyn_report_code(kPredictLine, code);
  return nullptr;
}

zyn_matrix* zyn_kalman_correct(const zyn_matrix* measurement, zyn_kalman* filter) {
  int32_t code = ZYN_RET_ERR_PARA;
  if (filter && measurement && is_measurement(measurement, filter->work5))
    code = correct(measurement, filter);
  if (code == ZYN_RET_OK) return filter->corrected_state;
  // On purpose: of the codes that can occur, 2 and 32 (singular) have no report here.
  if (code == ZYN_RET_ERR_PARA || code == ZYN_RET_ERR_NOT_SUPPORT || code == ZYN_RET_ERR_NOT_FOUND)
    zyn_report_code(kCorrectLine, code);
  return nullptr;
}

int32_t zyn_release_kalman(zyn_kalman** filter) {
  if (!filter) return ZYN_RET_ERR_PARA;
  zyn_kalman* self = *filter;
  if (!self) return ZYN_RET_OK;
  for_each_matrix(self, [=](matrix_field field, int32_t, int32_t) {
    if (self->*field) zyn_release_matrix(&(self->*field));
    return true;
  });
  zyn_free(self);
  *filter = nullptr;
  return ZYN_RET_OK;
}

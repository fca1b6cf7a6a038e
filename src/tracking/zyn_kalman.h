// A linear Kalman filter of any size over matrices of floats or doubles.
#pragma once

#include <stdint.h>

#include "zyncore.h"

struct zyn_kalman_sizes {
  int32_t state;        // 1 or more
  int32_t measurement;  // 1 or more
  int32_t control;      // 0 or more
  uint32_t type;        // ZYN_TYPE_F32 or ZYN_TYPE_F64
};

// The filter owns its matrices; n is the state size, m the measurement size.
struct zyn_kalman {
  int32_t state_size;
  int32_t measurement_size;
  int32_t control_size;
  uint32_t type;
  zyn_matrix* predicted_state;       // n x 1
  zyn_matrix* corrected_state;       // n x 1
  zyn_matrix* transition;            // n x n
  zyn_matrix* control;               // n x control size; null when that is 0; not read
  zyn_matrix* measurement;           // m x n
  zyn_matrix* process_noise;         // n x n
  zyn_matrix* measurement_noise;     // m x m
  zyn_matrix* predicted_covariance;  // n x n
  zyn_matrix* gain;                  // n x m
  zyn_matrix* corrected_covariance;  // n x n
  zyn_matrix* work1;                 // n x n
  zyn_matrix* work2;                 // m x n
  zyn_matrix* work3;                 // m x m
  zyn_matrix* work4;                 // m x n
  zyn_matrix* work5;                 // m x 1
};

// Transition and both noise matrices are identities, everything else is zero. Null
// (reported) for sizes out of range, another type, or without memory.
zyn_kalman* zyn_create_kalman(const zyn_kalman_sizes* sizes);

// Predicts the next state and its covariance, and takes both over as the corrected
// ones, so that a filter without measurements coasts. Returns the predicted state;
// null (reported) when a matrix operation fails, with the matrices half changed.
zyn_matrix* zyn_kalman_predict(zyn_kalman* filter);

// Corrects the predicted state by an m x 1 measurement of the filter's type. Returns the
// corrected state; null when an argument is null or does not fit (reported, nothing
// changed) or a matrix operation fails (codes 1, 4 and 258 reported), with the matrices
// half changed.
zyn_matrix* zyn_kalman_correct(const zyn_matrix* measurement, zyn_kalman* filter);

// 1: null argument. A pointer to null is fine.
int32_t zyn_release_kalman(zyn_kalman** filter);

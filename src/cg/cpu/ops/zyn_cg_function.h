// The functions of type 9 on whole tensors, and which records make sense.
#pragma once

#include <stddef.h>

#include "zyncore_net.h"

// Whether a function looks at all elements along an axis.
inline bool zyn_cg_is_axis_function(int32_t function) {
  return function >= ZYN_FUNC_SOFTMAX && function <= ZYN_FUNC_L2_NORM;
}

// Whether a function is computed on 16-bit fixed point too.
bool zyn_cg_function_is_fixed_point(int32_t function);

// Says what is wrong with a record for an input of so many dimensions; false: nothing is.
bool zyn_cg_find_function_fault(const zyn_func_param& param, int32_t dim_count, char* text,
                                size_t size);

// Element by element, in whatever channel order the input lies; ZYN_FUNC_PRELU and the functions
// along an axis have calls of their own.
void zyn_cg_apply_function(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_func_param& param);

// Slopes: one, or one a channel.
void zyn_cg_apply_prelu(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* slopes);

// The same on fixed point: the value of the real function, rounded to nearest and kept within 16
// bits. slopes is read by ZYN_FUNC_PRELU.
struct zyn_cg_fixed_function {
  zyn_func_param param;
  const zyn_tensor* slopes;
  int32_t q_input, q_output;
};
void zyn_cg_apply_fixed_function(zyn_tensor* output, const zyn_tensor* input,
                                 const zyn_cg_fixed_function& function);

// Functions along an axis, on planar order.
void zyn_cg_apply_axis_function(zyn_tensor* output, const zyn_tensor* input,
                                const zyn_func_param& param);

// Joins of two tensors: the further operations of type 31 (ZYN_JOIN_*).
#pragma once

#include "cg/cpu/zyn_cg.h"
#include "zyncore_net.h"

// Whether a record of type 31 is a zyn_join_param.
bool zyn_cg_is_join(const void* param);

// Whether an operation is computed on 16-bit fixed point too.
bool zyn_cg_join_is_fixed_point(int32_t operation);

// Extents of one operand; those behind its last are 1.
struct zyn_cg_extents {
  int32_t count;
  const int32_t* dims;
  int32_t operator[](int32_t d) const { return d < count ? dims[d] : 1; }
};

// The output's extents, their number returned; 0 where the operands do not fit each other.
int32_t zyn_cg_joined_extents(int32_t operation, const zyn_cg_extents& a, const zyn_cg_extents& b,
                              int32_t (&dims)[5]);

// Slots 0 and 1 of type 31 for these records.
int32_t zyn_cg_bind_join(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_join(zyn_cg_handle* graph, int32_t node);

// The matrix product of planar operands; scratch holds zyn_cg_matmul_scratch(k) floats, k being
// the extent of both that is summed.
int64_t zyn_cg_matmul_scratch(int64_t k);
void zyn_cg_matmul(zyn_tensor* output, const zyn_cg_extents& a, const float* a_values,
                   const zyn_cg_extents& b, const float* b_values, float* scratch);

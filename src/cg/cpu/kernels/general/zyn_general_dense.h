// Dense layers of the general convolutions.
#pragma once

#include "cg/cpu/kernels/general/zyn_general_layer.h"
#include "cg/cpu/kernels/general/zyn_general_strip.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"

// One call's tensors and scratch.
struct zyn_general_dense_run {
  const zyn_conv_general& l;
  zyn_general_tensor in, out;
  bool gathers;
  const float* bias;  // padded to whole blocks
  float floor;
  int32_t activation;  // what is left to do behind bias and floor
  float* rows;         // gathered input
  float* sums;         // a group's output
};

void zyn_general_dense(const zyn_general_dense_run& c);

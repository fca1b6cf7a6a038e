// The convolution operators' common state and steps; types 3, 4, 5 and 12, 13 differ
// in what their constant holds, their output's shape and what follows the convolution.
#pragma once

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/general/zyn_conv_general.h"
#include "cg/cpu/kernels/winograd/zyn_conv_winograd.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "cg/cpu/zyn_cg_support.h"

// Begins as the states of types 7 and 8 do, whose output slot is the same.
struct zyn_cg_conv_state : zyn_cg_io_state {
  zyn_tensor* weights;    // the constant's tensor, or folded
  zyn_tensor* folded;     // type 13: weights and biases with the normalisation in them
  zyn_tensor* biases;     // where the weights were dropped: all that is left of them
  int32_t input_dims[5];  // that output and workspace are made for
  int32_t input_q, output_q, weight_q;
  uint32_t method;
  zyn_conv_param param;
  uint32_t thread_count;
  uint32_t fixed_point;
  uint32_t device_type;
  zyn_conv_blocked_weights* blocked;  // method 1
  zyn_conv_plan* plan;                // method 2
  zyn_conv_general* general;          // methods 3 and 4
  zyn_conv_winograd* winograd;        // methods 5 and 6
  zyn_cg_shared_scratch* scratch;     // the graph's
  zyn_store* store;                   // of packed weights, or null
  zyn_tensor* quantized;              // fixed point: weights and biases with weight_q fraction bits
  zyn_fpi_plan fixed;                 // fixed point: the kernel, whatever the method
  bool far_input, far_output;         // whose place the caches do not hold when the node runs
  int64_t behind;                     // bytes behind the packed weights that later nodes read
};

// bind of every type: copies the record and the graph's settings.
int32_t zyn_cg_bind_conv_state(zyn_cg_handle* graph, int32_t node, const void* param, uint32_t type,
                               zyn_cg_run_fn run);
template <uint32_t Type, zyn_cg_run_fn Run>
int32_t zyn_cg_bind_conv(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_conv_state(graph, node, param, Type, Run);
}

// prepare of types 3, 4, 5 and 12.
int32_t zyn_cg_prepare_conv(zyn_cg_handle* graph, int32_t node);

// The first step of prepare: releases what an earlier one made except the output, so that
// a node whose preparation fails refuses to run, then finds the input and the constant and
// checks that there is one image, that the record makes sense and that the constant holds
// at least the weights and the biases that bias asks for. 1 otherwise. In fixed point it
// also reads the q of the input and of the node.
int32_t zyn_cg_conv_open(zyn_cg_handle* graph, int32_t node, zyn_cg_conv_state* state);

// The last step: makes the output, {width, height, out_channels} and the input's further
// extents, and the workspace of the node's method; in fixed point the 16-bit weights. 2
// when one cannot be made, after the report of site (null: silent) for the output; 1
// when the weights fit no q or q_in + q_w - q_out is not 0 to 31. A node that fails here
// refuses to run, as one that fails in zyn_cg_conv_open.
int32_t zyn_cg_conv_finish_prepare(zyn_cg_handle* graph, zyn_cg_conv_state* state, int32_t width,
                                   int32_t height, const zyn_site* site);

// Runs the node's kernel, then what epilogue says. keep_standard: of method 1 the 3x3 kernels are
// asked for 1x1 layers too, and refuse them with 4.
int32_t zyn_cg_conv_run(zyn_cg_conv_state* state, const zyn_conv_epilogue& epilogue,
                        bool keep_standard);

// The same in fixed point: code is the activation code, has_bias whether biases lie behind
// the weights.
int32_t zyn_cg_conv_run_fixed(zyn_cg_conv_state* state, bool has_bias, int32_t code);

// Drops what a prepared convolution holds of its weights beside their packed copy, and copies
// the biases: its runs do not read the constant any more (nor can it be prepared again). False
// where runs read the weights as they lie, for other types, and without memory.
bool zyn_cg_conv_drop_weights(zyn_cg_handle* graph, int32_t node);

// Bytes of what a prepared convolution holds: weights beside its constant, and scratch. False
// for other types.
bool zyn_cg_conv_memory(zyn_cg_handle* graph, int32_t node, int64_t* weights, int64_t* scratch);

// Tells a convolution whether the places of its input and output have left the caches since a node
// touched them last; no effect on other types.
void zyn_cg_conv_expect_far(zyn_cg_handle* graph, int32_t node, bool input, bool output);

// Packed weights of a prepared convolution; 0 bytes where it has none.
struct zyn_cg_packed {
  uintptr_t first;
  int64_t bytes;
  bool asks_ahead;  // its runs ask for what lies behind
};
zyn_cg_packed zyn_cg_conv_find_packed(zyn_cg_handle* graph, int32_t node);

// Tells such a convolution how many of the bytes behind its packed weights later nodes read.
void zyn_cg_conv_expect_behind(zyn_cg_handle* graph, int32_t node, int64_t bytes);

// The biases behind the weights, where the record has some; null otherwise.
const float* zyn_cg_conv_bias(const zyn_cg_conv_state* state);

int32_t zyn_cg_conv_release(void** record);

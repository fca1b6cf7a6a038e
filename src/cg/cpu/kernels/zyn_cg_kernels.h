// Entry points of the convolution kernels. W is a tensor's dims[0] (the contiguous
// row), H its dims[1], C its dims[2]; a tensor holds one image. All entry points
// return 0, 1 for a missing argument or channel counts that differ from the record,
// or the code that their description names. Weights are floats
// [out][in][kernel row][kernel column], 4-byte aligned, biases directly behind them.
#pragma once

#include <stdint.h>

#include "zyncore.h"

struct zyn_conv_epilogue;  // zyn_conv_epilogue.h

// Whether the record describes a depthwise layer: groups = both channel counts. One
// channel in, out and group is dense.
inline bool zyn_conv_is_depthwise(const zyn_conv_param* p) {
  return p->groups != 1 && p->groups == p->in_channels && p->groups == p->out_channels;
}

// Index of the first bias behind the weights (= number of weights).
inline int64_t zyn_conv_weight_count(const zyn_conv_param* p) {
  const int64_t taps = static_cast<int64_t>(p->kernel_h) * p->kernel_w;
  const int64_t inputs = zyn_conv_is_depthwise(p) ? 1 : p->in_channels;
  return taps * inputs * p->out_channels;
}

// Planar direct kernels (method 0), layout planar in and out.
// Dense, kernel other than 1 x 1. 2: row ring not allocated.
uint32_t zyn_cg_conv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                            const zyn_conv_param* param);
// Dense 1 x 1.
uint32_t zyn_cg_conv1x1_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                               const zyn_conv_param* param);
// Depthwise.
uint32_t zyn_cg_dwconv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                              const zyn_conv_param* param);

// Passes over a planar output, in place (output and source are the same tensor or
// have the same shape). Each adds the bias found behind the weights, then applies
// its function.
uint32_t zyn_cg_conv_add_bias(zyn_tensor* output, const zyn_tensor* source, const float* weights,
                              const zyn_conv_param* param);
uint32_t zyn_cg_conv_add_bias_relu(zyn_tensor* output, const zyn_tensor* source,
                                   const float* weights, const zyn_conv_param* param);
uint32_t zyn_cg_conv_add_bias_hard_swish(zyn_tensor* output, const zyn_tensor* source,
                                         const float* weights, const zyn_conv_param* param);
uint32_t zyn_cg_conv_add_bias_hard_sigmoid(zyn_tensor* output, const zyn_tensor* source,
                                           const float* weights, const zyn_conv_param* param);
// Activations alone, over every element in whatever order the channels lie.
uint32_t zyn_cg_conv_relu(zyn_tensor* output, const zyn_tensor* source);
uint32_t zyn_cg_conv_hard_swish(zyn_tensor* output, const zyn_tensor* source);

// Blocked direct kernels (method 1).
struct zyn_conv_direct;  // packed weights and thread count
zyn_conv_direct* zyn_cg_conv_prepare_direct(const zyn_tensor* weights, const zyn_conv_param* param,
                                            int32_t threads);
uint32_t zyn_cg_conv_release_direct(zyn_conv_direct** workspace);
uint32_t zyn_cg_conv3x3(zyn_tensor* output, const zyn_tensor* input,
                        const zyn_conv_direct* workspace, const zyn_conv_param* param,
                        const zyn_conv_epilogue* epilogue = nullptr);
uint32_t zyn_cg_dwconv3x3(zyn_tensor* output, const zyn_tensor* input,
                          const zyn_conv_direct* workspace, const zyn_conv_param* param,
                          const zyn_conv_epilogue* epilogue = nullptr);
uint32_t zyn_cg_conv1x1(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                        const zyn_conv_param* param, const zyn_conv_epilogue* epilogue = nullptr);
uint32_t zyn_cg_conv_add_bias_blocked(zyn_tensor* output, const zyn_tensor* source,
                                      const float* weights, const zyn_conv_param* param);

// Planned kernels (method 2).
struct zyn_conv_plan;  // kernel kind, sizes and packed weights
zyn_conv_plan* zyn_cg_conv_prepare_planned(const zyn_tensor* input, const zyn_tensor* weights,
                                           const zyn_conv_param* param, const uint32_t* threads);
uint32_t zyn_cg_conv_run_planned(zyn_tensor* output, const zyn_tensor* input,
                                 const zyn_tensor* weights, const zyn_conv_param* param,
                                 const zyn_conv_plan* workspace);
uint32_t zyn_cg_conv_release_planned(zyn_conv_plan** workspace);
// A planar tensor into blocked order in a tensor of the same size, which is marked
// so.
uint32_t zyn_cg_block_channels(zyn_tensor* output, const zyn_tensor* input);

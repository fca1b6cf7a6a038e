// Convolutions on 16-bit fixed point (value = v / 2^q), planar tensors. All kernels
// share one arithmetic, d = q_in + q_w - q_out, r = 2^d / 2 without its fraction:
//
//   out[o] = sum over input channels i of low16((taps(o, i) + r) >> d), wrapping,
//
// where taps is the 32-bit sum of the products of one input channel. On purpose every
// input channel is rounded by itself and nothing saturates: the q of a network are chosen
// for this. All sums wrap (unsigned), so their order is free.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// Which kernel serves a record; ZYN_FPI_NONE clears the output.
enum zyn_fpi_kind : uint32_t {
  ZYN_FPI_NONE,
  ZYN_FPI_POINTWISE,  // 1 x 1, stride 1, no padding
  ZYN_FPI_DENSE_3X3,  // stride 1 or 2, rows that fill vectors well enough
  ZYN_FPI_DENSE_CHANNELS,
  ZYN_FPI_DENSE_ANY,  // kernels of a large extent
  ZYN_FPI_DEPTHWISE,  // stride 1 or 2
  ZYN_FPI_DEPTHWISE_ANY
};

// Weights arranged for their kernel.
struct zyn_fpi_plan {
  zyn_fpi_kind kind;
  int32_t shift;  // d, 0 to 31
  zyn_conv_param param;
  const int16_t* weights;  // the caller's, [out][in][row][column]
  int32_t* packed;         // owned, in the order of the kernel; null: weights serve
};

// What follows the convolution: bias (null: none) brought from q_weights to the output's
// q by a shift that rounds to nearest, added with wrapping; then the function of an
// activation code: 1 ReLU, 2 hard-swish, 3 ReLU6, any other none.
struct zyn_fpi_epilogue {
  const int16_t* bias;
  int32_t code;
};

// Chooses the kernel, the fastest for output rows of width pixels, and packs the weights,
// which must outlive the plan. 1: shift outside 0 to 31; 2: no memory. The record makes
// sense (see zyn_cg_conv_open).
uint32_t zyn_fpi_make_plan(zyn_fpi_plan* plan, const int16_t* weights, const zyn_conv_param* param,
                           int32_t shift, int64_t width);
void zyn_fpi_drop_plan(zyn_fpi_plan* plan);

// Runs the plan's kernel, then the epilogue (null: none). 1: missing argument, channel
// counts that differ from the record; 2: no memory for row buffers.
uint32_t zyn_fpi_run_plan(const zyn_fpi_plan* plan, zyn_tensor* output, int32_t q_out,
                          const zyn_tensor* input, int32_t q_weights,
                          const zyn_fpi_epilogue* epilogue);

// The whole layer from plain weights: plan, kernel, epilogue.
uint32_t zyn_cg_fpi_conv2d(zyn_tensor* output, int32_t q_out, const zyn_tensor* input, int32_t q_in,
                           const int16_t* weights, int32_t q_weights, const zyn_conv_param* param,
                           const zyn_fpi_epilogue* epilogue);

// What a kernel does with finished sums: adds the bias, then keeps them within low and
// high. Everything of an epilogue but hard-swish, which is a pass of its own.
struct zyn_fpi_outlet {
  const int16_t* bias;  // or null
  int32_t q_weights, q_out;
  int16_t low, high;
};

// The kernels, called by zyn_fpi_run_plan with checked arguments.
void zyn_fpi_pack_1x1(zyn_fpi_plan* plan);
int64_t zyn_fpi_packed_1x1(const zyn_conv_param* param);  // size in words
uint32_t zyn_fpi_run_1x1(const zyn_fpi_plan* plan, const zyn_fpi_outlet& outlet, zyn_tensor* output,
                         const zyn_tensor* input);
void zyn_fpi_pack_3x3(zyn_fpi_plan* plan);
int64_t zyn_fpi_packed_3x3(const zyn_conv_param* param);
uint32_t zyn_fpi_run_3x3(const zyn_fpi_plan* plan, const zyn_fpi_outlet& outlet, zyn_tensor* output,
                         const zyn_tensor* input);
uint32_t zyn_fpi_run_depthwise(const zyn_fpi_plan* plan, const zyn_fpi_outlet& outlet,
                               zyn_tensor* output, const zyn_tensor* input);
void zyn_fpi_pack_channels(zyn_fpi_plan* plan);
int64_t zyn_fpi_packed_channels(const zyn_conv_param* param);
uint32_t zyn_fpi_run_channels(const zyn_fpi_plan* plan, const zyn_fpi_outlet& outlet,
                              zyn_tensor* output, const zyn_tensor* input);
uint32_t zyn_fpi_run_any(const zyn_fpi_plan* plan, const zyn_fpi_outlet& outlet, zyn_tensor* output,
                         const zyn_tensor* input);

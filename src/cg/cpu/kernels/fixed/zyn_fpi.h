// Convolutions on fixed-point integers (`fpi` in names): a signed 16-bit v with q fraction
// bits stands for v / 2^q. Planar tensors. All kernels share one arithmetic,
// d = q_in + q_w - q_out, r = 2^d / 2 without its fraction:
//
//   out[o] = sum over input channels i of low16((taps(o, i) + r) >> d), wrapping,
//
// where taps is the 32-bit sum of the products of one input channel. On purpose every
// input channel is rounded by itself and nothing saturates: the q of a network are chosen
// for this. All sums wrap (unsigned), so their order is free.
//
// Scratch of a run is bounded by the shapes, whatever strides, dilations and padding are:
// at most 32 words of 16 bits for every word of the input and of the output, and 65536
// more. Kernels that copy padded rows stay below it, or the plain loop serves the layer.
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/zyn_conv_shape.h"

// Which kernel serves a record; ZYN_FPI_NONE clears the output.
enum zyn_fpi_kind : uint32_t {
  ZYN_FPI_NONE,
  ZYN_FPI_POINTWISE,     // 1 x 1, no padding
  ZYN_FPI_DENSE_PIXELS,  // stride 1 or 2, rows that fill vectors well enough
  ZYN_FPI_DENSE_CHANNELS,
  ZYN_FPI_DENSE_ANY,           // a plain loop: large extents and strides
  ZYN_FPI_DEPTHWISE,           // stride 1 or 2
  ZYN_FPI_DEPTHWISE_CHANNELS,  // small planes
  ZYN_FPI_DEPTHWISE_ANY
};

struct zyn_fpi_layer : zyn_conv_shape {
  int32_t in_channels, out_channels;
};

// Weights arranged for their kernel.
struct zyn_fpi_plan {
  zyn_fpi_kind kind;
  int32_t shift;  // d, 0 to 31
  zyn_fpi_layer layer;
  int64_t pixels;          // of a plane of the output
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

// Chooses the kernel, the fastest for these tensors' shapes, and packs the weights, which
// must outlive the plan. 1: shift outside 0 to 31; 2: no memory. The record makes sense
// (see zyn_cg_conv_open).
uint32_t zyn_fpi_make_plan(zyn_fpi_plan* plan, const int16_t* weights, const zyn_conv_param* param,
                           int64_t shift, const zyn_tensor* input, const zyn_tensor* output);
void zyn_fpi_drop_plan(zyn_fpi_plan* plan);

// Runs the plan's kernel, then the epilogue (null: none). 1: missing argument, channel
// counts that differ from the record; 2: no memory for row buffers.
uint32_t zyn_fpi_run_plan(const zyn_fpi_plan* plan, zyn_tensor* output, int32_t q_out,
                          const zyn_tensor* input, int32_t q_weights,
                          const zyn_fpi_epilogue* epilogue);

// The whole layer from plain weights: plan, kernel, epilogue. Nothing in the library calls it.
uint32_t zyn_cg_fpi_conv2d(zyn_tensor* output, int32_t q_out, const zyn_tensor* input, int32_t q_in,
                           const int16_t* weights, int32_t q_weights, const zyn_conv_param* param,
                           const zyn_fpi_epilogue* epilogue);

// r of a shift: 2^d / 2 without its fraction.
inline uint32_t zyn_fpi_round_term(int32_t shift) { return shift > 0 ? 1u << (shift - 1) : 0; }

// low16((sum + r) >> d) of one element.
inline int16_t zyn_fpi_narrow1(uint32_t sum, int32_t shift) {
  return static_cast<int16_t>(static_cast<int32_t>(sum + zyn_fpi_round_term(shift)) >> shift);
}

// Brings 16-bit values with from fraction bits to to, low 16 bits: rounded to nearest
// (halves up) where bits go. Any from and to: far apart they leave 0.
class zyn_fpi_rescaler {
 public:
  zyn_fpi_rescaler(int32_t from, int32_t to) {
    const int64_t up = int64_t{to} - from;
    const bool far = up < -16 || up > 15;
    left_ = far ? 16 : up > 0 ? static_cast<int32_t>(up) : 0;
    right_ = !far && up < 0 ? static_cast<int32_t>(-up) : 0;
  }
  int16_t operator()(int32_t v) const {
    return zyn_fpi_narrow1(static_cast<uint32_t>(v) << left_, right_);
  }

 private:
  int32_t left_, right_;
};
inline int16_t zyn_fpi_rescale1(int32_t v, int32_t from, int32_t to) {
  return zyn_fpi_rescaler(from, to)(v);
}

// What a kernel does with finished sums: adds the bias, then keeps them within low and
// high. Everything of an epilogue but hard-swish, which is a pass of its own.
struct zyn_fpi_tile_epilogue {
  const int16_t* bias;  // or null
  int32_t q_weights, q_out;
  int16_t low, high;
  zyn_fpi_rescaler to_output{q_weights, q_out};

  int16_t bias_of(int64_t channel) const { return bias ? to_output(bias[channel]) : int16_t{0}; }
};

// A kernel, called by zyn_fpi_run_plan with checked arguments.
using zyn_fpi_kernel = uint32_t(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                                zyn_tensor* output, const zyn_tensor* input);
zyn_fpi_kernel zyn_fpi_run_1x1, zyn_fpi_run_pixels, zyn_fpi_run_channels, zyn_fpi_run_depthwise,
    zyn_fpi_run_depthwise_channels, zyn_fpi_run_any;

// The order of weights of the kernels that have one: its size in elements, then packing.
int64_t zyn_fpi_packed_1x1(const zyn_fpi_plan& plan);
int64_t zyn_fpi_packed_pixels(const zyn_fpi_plan& plan);
int64_t zyn_fpi_packed_channels(const zyn_fpi_plan& plan);
int64_t zyn_fpi_packed_depthwise_channels(const zyn_fpi_plan& plan);
void zyn_fpi_pack_1x1(zyn_fpi_plan* plan);
void zyn_fpi_pack_pixels(zyn_fpi_plan* plan);
void zyn_fpi_pack_channels(zyn_fpi_plan* plan);
void zyn_fpi_pack_depthwise_channels(zyn_fpi_plan* plan);

// Whether the planes are so small that channels in the lanes are faster; their scratch is bounded.
bool zyn_fpi_suits_depthwise_channels(const zyn_fpi_layer& layer, const zyn_tensor* output,
                                      const zyn_tensor* input);

// Vector operations of a dense layer's row of outputs under one input channel.
double zyn_fpi_pixels_cost(const zyn_fpi_layer& layer, const zyn_tensor* output);
double zyn_fpi_channels_cost(const zyn_fpi_layer& layer, const zyn_tensor* output);

// At most so many words of scratch take the kernels that copy padded rows; -1: beyond all.
int64_t zyn_fpi_scratch_pixels(const zyn_fpi_layer& layer, const zyn_tensor* output);
int64_t zyn_fpi_scratch_channels(const zyn_fpi_layer& layer, const zyn_tensor* output);
int64_t zyn_fpi_scratch_depthwise(const zyn_fpi_layer& layer, const zyn_tensor* output);

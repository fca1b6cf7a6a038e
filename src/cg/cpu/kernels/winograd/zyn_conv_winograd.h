// Dense 3 x 3 convolutions with stride 1 by Winograd's F(4 x 4, 3 x 3) or F(2 x 2, 3 x 3): a
// quarter or four ninths of the multiplications, in other sums; and pointwise ones by his form of
// Strassen's products (zyn_conv_quarters.h), seven eighths. What the automatic choice of
// networks takes where it pays; never where results have to be those of the other methods
// bit for bit.
//
// Errors are within 1e-4 of the output's range for inputs and weights of every distribution that
// was tried, with either tile and up to 512 channels (docs/networks.md). An input that is
// infinite or not a number reaches all outputs of the tiles that read it (of pointwise layers,
// those of a pixel in the other half of the plane too), not only those within its reach; so does
// one above 1e37, which may overflow in the transforms.
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "zyncore.h"

struct zyn_conv_winograd;

// Frequencies of tiles of m x m outputs: products that each takes by pair of channels.
constexpr int32_t zyn_winograd_frequencies(int32_t m) { return (m + 2) * (m + 2); }

// Whether the kernels serve a record with an input of width x height: dense 3 x 3, stride 1, no
// dilation, padding of at most 2, input channels in whole blocks of 8 and at least 8 outputs; or
// what zyn_conv_quarters_serves.
bool zyn_conv_winograd_serves(const zyn_conv_param* param, int32_t width, int32_t height);

// The extent of a 3 x 3 layer's tiles, 4 or 2: that which takes fewer multiplications, what reading
// the weights takes counted in.
int32_t zyn_conv_winograd_tile(const zyn_conv_param* param, int32_t out_width, int32_t out_height);

// As zyn_conv_general_prepare and its like (zyn_conv_general.h). Scratch is at most an eighth of
// the packed weights, or 0.7 megabytes where those are small, or what a row of 12 tiles takes.
zyn_conv_winograd* zyn_conv_winograd_prepare(const float* weights, const zyn_conv_param* param,
                                             const int32_t* input, const int32_t* output,
                                             bool planar_output, int64_t* scratch);
void zyn_conv_winograd_release(zyn_conv_winograd** layer);
int64_t zyn_conv_winograd_bytes(const zyn_conv_winograd* layer);
const float* zyn_conv_winograd_weights(const zyn_conv_winograd* layer);
// Whether a layer's runs ask for bytes behind its weights, and how many of them later layers read.
bool zyn_conv_winograd_asks_ahead(const zyn_conv_winograd* layer);
void zyn_conv_winograd_expect_behind(zyn_conv_winograd* layer, int64_t bytes);
void zyn_conv_winograd_run(const zyn_conv_winograd* layer, zyn_tensor* output,
                           const zyn_tensor* input, const zyn_conv_epilogue& epilogue,
                           float* scratch);

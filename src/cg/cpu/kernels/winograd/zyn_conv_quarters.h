// Pointwise convolutions by seven products of a quarter's size instead of eight
// (zyn_winograd_quarters.h), each by the blocked kernels: what Winograd's methods are for layers
// of 1 x 1.
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "zyncore.h"

struct zyn_conv_quarters;

// Whether the kernels serve a record with an input of width x height: stride 1, no padding, input
// channels in whole blocks of 8, at least 32 channels and pixels.
bool zyn_conv_quarters_serves(const zyn_conv_param* param, int32_t width, int32_t height);

// As zyn_conv_winograd_prepare and its like. Scratch is at most a megabyte, or what 48 pairs of
// pixels take.
zyn_conv_quarters* zyn_conv_quarters_prepare(const float* weights, const zyn_conv_param* param,
                                             const int32_t* input, bool planar_output,
                                             int64_t* scratch);
void zyn_conv_quarters_release(zyn_conv_quarters** layer);
int64_t zyn_conv_quarters_bytes(const zyn_conv_quarters* layer);
const float* zyn_conv_quarters_weights(const zyn_conv_quarters* layer);
// How many of the bytes behind these later layers read: runs ask for them.
void zyn_conv_quarters_expect_behind(zyn_conv_quarters* layer, int64_t bytes);
void zyn_conv_quarters_run(const zyn_conv_quarters* layer, zyn_tensor* output,
                           const zyn_tensor* input, const zyn_conv_epilogue& epilogue,
                           float* scratch);

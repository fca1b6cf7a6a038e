// Convolutions of any kernel, stride, padding and dilation, dense or depthwise, that read
// planar or channel-blocked tensors and write either: what the automatic choice of networks
// takes where neither the 3 x 3 kernels in channel blocks nor the planned ones are as fast.
//
// The output is made in strips of rows. Where the input has padding, or is planar, the rows
// that a strip reads are first copied into scratch: channel blocks, as in blocked order, with
// zeros around. Behind that, a layer is a list of taps, each an offset from an output
// pixel's first tap, and one micro-kernel serves all shapes (zyn_general_tile.h). Depthwise
// layers have a way of their own (zyn_general_depthwise.h).
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "zyncore.h"

struct zyn_conv_general;

// Whether the kernels serve a record with an input of width x height: a dense or depthwise layer
// whose padding is within its kernel's reach.
bool zyn_conv_general_serves(const zyn_conv_param* param, int32_t width, int32_t height);

// Packs weights ([out][in][kernel row][kernel column], depthwise [channel][row][column]) for
// tensors of the extents input and output (width, height); planar_output: the order that runs
// write. Null for what is not served, for an output of other extents, and without memory. scratch
// receives the floats that runs need.
zyn_conv_general* zyn_conv_general_prepare(const float* weights, const zyn_conv_param* param,
                                           const int32_t* input, const int32_t* output,
                                           bool planar_output, int64_t* scratch);
void zyn_conv_general_release(zyn_conv_general** layer);

// Bytes of packed weights and tables.
int64_t zyn_conv_general_bytes(const zyn_conv_general* layer);
// The packed weights: a block of their own.
const float* zyn_conv_general_weights(const zyn_conv_general* layer);

// The convolution of input, planar or blocked, with the epilogue. The output's extents are those
// of the record; its layout is set. scratch: as many floats as preparation said, aligned to 32
// bytes.
void zyn_conv_general_run(const zyn_conv_general* layer, zyn_tensor* output,
                          const zyn_tensor* input, const zyn_conv_epilogue& epilogue,
                          float* scratch);

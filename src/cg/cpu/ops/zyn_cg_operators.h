// The rows of the operator table, by the file that defines them. Types that share a
// routine have states that agree in the fields the routine touches.
#pragma once

#include "cg/cpu/zyn_cg.h"

// zyn_cg_conv.cpp: standard, depthwise and pointwise convolution.
extern const zyn_cg_operator zyn_cg_conv_row;
extern const zyn_cg_operator zyn_cg_conv_depthwise_row;
extern const zyn_cg_operator zyn_cg_conv_pointwise_row;
// Slot 3 of types 3, 4, 5, 7 and 8, whose states begin alike.
zyn_tensor* zyn_cg_output_conv(zyn_cg_handle* graph, int32_t node);

// zyn_cg_op_fusion.cpp: convolution with activation, and with normalisation before it.
extern const zyn_cg_operator zyn_cg_conv_act_row;
extern const zyn_cg_operator zyn_cg_conv_bn_row;

// zyn_cg_group_conv.cpp: convolution in groups and transposed convolution.
extern const zyn_cg_operator zyn_cg_conv_grouped_row;
extern const zyn_cg_operator zyn_cg_conv_transposed_row;

// zyn_cg_func.cpp: element-wise functions, sum and product.
extern const zyn_cg_operator zyn_cg_func_row;
extern const zyn_cg_operator zyn_cg_add_row;
extern const zyn_cg_operator zyn_cg_multiply_row;

// zyn_cg_bn.cpp: normalisation per channel.
extern const zyn_cg_operator zyn_cg_bn_row;
extern const zyn_cg_operator zyn_cg_bn_fast_row;

// zyn_cg_activation.cpp
extern const zyn_cg_operator zyn_cg_sigmoid_row;
extern const zyn_cg_operator zyn_cg_relu_row;
extern const zyn_cg_operator zyn_cg_relu6_row;
extern const zyn_cg_operator zyn_cg_hard_swish_row;
extern const zyn_cg_operator zyn_cg_mish_row;

// zyn_cg_pool.cpp
extern const zyn_cg_operator zyn_cg_max_pool_row;
extern const zyn_cg_operator zyn_cg_average_pool_row;

// zyn_cg_linear.cpp: the dense layer.
extern const zyn_cg_operator zyn_cg_linear_row;

// zyn_cg_resample.cpp and zyn_cg_affine.cpp: images under other extents.
extern const zyn_cg_operator zyn_cg_resample_row;
extern const zyn_cg_operator zyn_cg_affine_row;

// zyn_cg_reshape.cpp, zyn_cg_concat.cpp and zyn_cg_channels.cpp: data moved.
extern const zyn_cg_operator zyn_cg_reshape_row;
extern const zyn_cg_operator zyn_cg_concat_row;
extern const zyn_cg_operator zyn_cg_slice_row;
extern const zyn_cg_operator zyn_cg_gather_row;

// The routines of the operator families, by the file that holds them. The registry
// puts them into the operator table; nothing else calls them.
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

// zyn_cg_func.cpp: functions (9), addition (27), multiplication (28).
int32_t zyn_cg_bind_func(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_func(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_func(void** record);
int32_t zyn_cg_bind_add(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_multiply(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_join(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_join(void** record);
zyn_tensor* zyn_cg_output_func(zyn_cg_handle* graph, int32_t node);

// zyn_cg_bn.cpp: normalisation (10, 11).
int32_t zyn_cg_bind_bn(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_bn_fast(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_bn(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_bn(void** record);
zyn_tensor* zyn_cg_output_bn(zyn_cg_handle* graph, int32_t node);

// zyn_cg_activation.cpp: activations (15, 16, 20, 21, 24).
int32_t zyn_cg_bind_sigmoid(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_relu(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_relu6(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_hard_swish(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_mish(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_activation(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_activation(void** record);
zyn_tensor* zyn_cg_output_activation(zyn_cg_handle* graph, int32_t node);

// zyn_cg_pool.cpp: pooling (22, 23). Their release is zyn_cg_release_io.
int32_t zyn_cg_bind_max_pool(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_max_pool(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_bind_average_pool(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_average_pool(zyn_cg_handle* graph, int32_t node);
zyn_tensor* zyn_cg_output_pool(zyn_cg_handle* graph, int32_t node);

// zyn_cg_linear.cpp: the dense layer (25).
int32_t zyn_cg_bind_linear(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_linear(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_linear(void** record);
zyn_tensor* zyn_cg_output_linear(zyn_cg_handle* graph, int32_t node);

// zyn_cg_resample.cpp: resampling (30). Its release is zyn_cg_release_io.
int32_t zyn_cg_bind_resample(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_resample(zyn_cg_handle* graph, int32_t node);
zyn_tensor* zyn_cg_output_resample(zyn_cg_handle* graph, int32_t node);

// zyn_cg_affine.cpp: affine sampling (31).
int32_t zyn_cg_bind_affine(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_affine(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_affine(void** record);
zyn_tensor* zyn_cg_output_affine(zyn_cg_handle* graph, int32_t node);

// zyn_cg_tensor.cpp: reshape (32), concatenation (33), channel slice (34) and gather
// (35). Types 32 and 34 share their release.
int32_t zyn_cg_bind_reshape(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_reshape(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_tensor_op(void** record);
zyn_tensor* zyn_cg_output_reshape(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_bind_concat(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_concat(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_concat(void** record);
zyn_tensor* zyn_cg_output_concat(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_bind_slice(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_slice(zyn_cg_handle* graph, int32_t node);
zyn_tensor* zyn_cg_output_slice(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_bind_gather(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_gather(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_gather(void** record);
zyn_tensor* zyn_cg_output_gather(zyn_cg_handle* graph, int32_t node);

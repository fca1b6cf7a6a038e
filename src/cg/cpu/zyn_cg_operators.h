// The routines of the operator families, by the file that holds them. The registry
// puts them into the operator table; nothing else calls them.
#pragma once

#include "cg/cpu/zyn_cg.h"

// zyn_cg_conv.cpp: standard, depthwise and pointwise convolution (types 3, 4, 5).
int32_t zyn_cg_bind_conv(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_conv_depthwise(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_conv_pointwise(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_conv(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_prepare_conv_pointwise(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_conv(void** record);
int32_t zyn_cg_release_conv_pointwise(void** record);
zyn_tensor* zyn_cg_output_conv(zyn_cg_handle* graph, int32_t node);

// zyn_cg_op_fusion.cpp: convolution with activation (12), with folded normalisation
// and activation (13).
int32_t zyn_cg_bind_conv_act(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_conv_act(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_conv_act(void** record);
zyn_tensor* zyn_cg_output_conv_act(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_bind_conv_bn(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_prepare_conv_bn(zyn_cg_handle* graph, int32_t node);
int32_t zyn_cg_release_conv_bn(void** record);
zyn_tensor* zyn_cg_output_conv_bn(zyn_cg_handle* graph, int32_t node);

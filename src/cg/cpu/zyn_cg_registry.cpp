// The operator table: which row serves which type. The rows stand beside the operators'
// code. Nodes of types without one bind, and
// fail to prepare for want of a record.
#include "cg/cpu/ops/zyn_cg_operators.h"

int32_t zyn_cg_register_operators(zyn_cg_operator* rows) {
  rows[ZYN_OP_CONV] = zyn_cg_conv_row;
  rows[ZYN_OP_CONV_DEPTHWISE] = zyn_cg_conv_depthwise_row;
  rows[ZYN_OP_CONV_POINTWISE] = zyn_cg_conv_pointwise_row;
  rows[ZYN_OP_CONV_GROUPED] = zyn_cg_conv_grouped_row;
  rows[ZYN_OP_CONV_TRANSPOSED] = zyn_cg_conv_transposed_row;
  rows[ZYN_OP_FUNCTION] = zyn_cg_func_row;
  rows[ZYN_OP_BATCH_NORM] = zyn_cg_bn_row;
  rows[ZYN_OP_BATCH_NORM_FAST] = zyn_cg_bn_fast_row;
  rows[ZYN_OP_CONV_ACT] = zyn_cg_conv_act_row;
  rows[ZYN_OP_CONV_BN] = zyn_cg_conv_bn_row;
  rows[ZYN_OP_SIGMOID] = zyn_cg_sigmoid_row;
  rows[ZYN_OP_RELU] = zyn_cg_relu_row;
  rows[ZYN_OP_RELU6] = zyn_cg_relu6_row;
  rows[ZYN_OP_HARD_SWISH] = zyn_cg_hard_swish_row;
  rows[ZYN_OP_MAX_POOL] = zyn_cg_max_pool_row;
  rows[ZYN_OP_AVERAGE_POOL] = zyn_cg_average_pool_row;
  rows[ZYN_OP_MISH] = zyn_cg_mish_row;
  rows[ZYN_OP_LINEAR] = zyn_cg_linear_row;
  rows[ZYN_OP_ADD] = zyn_cg_add_row;
  rows[ZYN_OP_MULTIPLY] = zyn_cg_multiply_row;
  rows[ZYN_OP_RESAMPLE] = zyn_cg_resample_row;
  rows[ZYN_OP_AFFINE] = zyn_cg_affine_row;
  rows[ZYN_OP_RESHAPE] = zyn_cg_reshape_row;
  rows[ZYN_OP_CONCAT] = zyn_cg_concat_row;
  rows[ZYN_OP_CHANNEL_SLICE] = zyn_cg_slice_row;
  rows[ZYN_OP_CHANNEL_GATHER] = zyn_cg_gather_row;
  return ZYN_RET_OK;
}

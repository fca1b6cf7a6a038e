// The operator table: which routine serves which type and slot. Types that share a
// routine have states that agree in the fields the routine touches.
#include "base/zyn_memory.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

void register_convolutions(zyn_cg_operator* rows) {
  rows[ZYN_OP_CONV] = zyn_cg_conv_row;
  rows[ZYN_OP_CONV_DEPTHWISE] = zyn_cg_conv_depthwise_row;
  rows[ZYN_OP_CONV_POINTWISE] = zyn_cg_conv_pointwise_row;
  rows[ZYN_OP_CONV_GROUPED] = zyn_cg_conv_grouped_row;
  rows[ZYN_OP_CONV_TRANSPOSED] = zyn_cg_conv_transposed_row;
  rows[ZYN_OP_CONV_ACT] = zyn_cg_conv_act_row;
  rows[ZYN_OP_CONV_BN] = zyn_cg_conv_bn_row;
}

// Operators that are not one of the convolutions above.
void register_plain_operators(zyn_cg_operator* rows) {
  const zyn_cg_release_fn io = zyn_cg_release_io;  // types 22, 23, 30
  rows[9] = {zyn_cg_bind_func, zyn_cg_prepare_func, zyn_cg_release_func, zyn_cg_output_func,
             nullptr};
  rows[10] = {zyn_cg_bind_bn, zyn_cg_prepare_bn, zyn_cg_release_bn, zyn_cg_output_bn, nullptr};
  rows[11] = rows[10];
  rows[11].bind = zyn_cg_bind_bn_fast;
  rows[15] = {zyn_cg_bind_sigmoid, zyn_cg_prepare_activation, zyn_cg_release_activation,
              zyn_cg_output_activation, nullptr};
  rows[16] = rows[20] = rows[21] = rows[24] = rows[15];
  rows[16].bind = zyn_cg_bind_relu;
  rows[20].bind = zyn_cg_bind_relu6;
  rows[21].bind = zyn_cg_bind_hard_swish;
  rows[24].bind = zyn_cg_bind_mish;
  rows[22] = {zyn_cg_bind_max_pool, zyn_cg_prepare_max_pool, io, zyn_cg_output_pool, nullptr};
  rows[23] = {zyn_cg_bind_average_pool, zyn_cg_prepare_average_pool, io, zyn_cg_output_pool,
              nullptr};
  rows[25] = {zyn_cg_bind_linear, zyn_cg_prepare_linear, zyn_cg_release_linear,
              zyn_cg_output_linear, zyn_cg_output_linear};
  rows[27] = {zyn_cg_bind_add, zyn_cg_prepare_join, zyn_cg_release_join, zyn_cg_output_func,
              zyn_cg_output_func};
  rows[28] = {zyn_cg_bind_multiply, zyn_cg_prepare_join, zyn_cg_release_join, zyn_cg_output_func,
              nullptr};
  rows[30] = {zyn_cg_bind_resample, zyn_cg_prepare_resample, io, zyn_cg_output_resample, nullptr};
  rows[31] = {zyn_cg_bind_affine, zyn_cg_prepare_affine, zyn_cg_release_affine,
              zyn_cg_output_affine, nullptr};
  rows[32] = {zyn_cg_bind_reshape, zyn_cg_prepare_reshape, zyn_cg_release_tensor_op,
              zyn_cg_output_reshape, nullptr};
  rows[33] = {zyn_cg_bind_concat, zyn_cg_prepare_concat, zyn_cg_release_concat,
              zyn_cg_output_concat, nullptr};
  rows[34] = {zyn_cg_bind_slice, zyn_cg_prepare_slice, zyn_cg_release_tensor_op,
              zyn_cg_output_slice, nullptr};
  rows[35] = {zyn_cg_bind_gather, zyn_cg_prepare_gather, zyn_cg_release_gather,
              zyn_cg_output_gather, nullptr};
}

}  // namespace

int32_t zyn_cg_register_operators(zyn_cg_operator* operators) {
  register_convolutions(operators);
  register_plain_operators(operators);
  return ZYN_RET_OK;
}

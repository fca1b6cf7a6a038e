// Names of operators.
#include "cg/cpu/zyn_cg_names.h"

#include "zyncore.h"

const char* zyn_cg_operation_name(int32_t type) {
  static constexpr struct {
    int32_t type;
    const char* name;
  } kNames[] = {
      {ZYN_OP_INPUT, "INPUT"},
      {ZYN_OP_DATA, "DATA"},
      {ZYN_OP_CONSTANT, "CONSTANT"},
      {ZYN_OP_CONV, "CONV"},
      {ZYN_OP_CONV_DEPTHWISE, "CONV_DEPTHWISE"},
      {ZYN_OP_CONV_POINTWISE, "CONV_POINTWISE"},
      {ZYN_OP_CONV_GROUPED, "CONV_GROUPED"},
      {ZYN_OP_CONV_TRANSPOSED, "CONV_TRANSPOSED"},
      {ZYN_OP_FUNCTION, "FUNCTION"},
      {ZYN_OP_BATCH_NORM, "BATCH_NORM"},
      {ZYN_OP_BATCH_NORM_FAST, "BATCH_NORM_FAST"},
      {ZYN_OP_CONV_ACT, "CONV_ACT"},
      {ZYN_OP_CONV_BN, "CONV_BN"},
      {ZYN_OP_SIGMOID, "SIGMOID"},
      {ZYN_OP_RELU, "RELU"},
      {ZYN_OP_RELU6, "RELU6"},
      {ZYN_OP_HARD_SWISH, "HARD_SWISH"},
      {ZYN_OP_MAX_POOL, "MAX_POOL"},
      {ZYN_OP_AVERAGE_POOL, "AVERAGE_POOL"},
      {ZYN_OP_MISH, "MISH"},
      {ZYN_OP_LINEAR, "LINEAR"},
      {ZYN_OP_ADD, "ADD"},
      {ZYN_OP_MULTIPLY, "MULTIPLY"},
      {ZYN_OP_RESAMPLE, "RESAMPLE"},
      {ZYN_OP_AFFINE, "AFFINE"},
      {ZYN_OP_RESHAPE, "RESHAPE"},
      {ZYN_OP_CONCAT, "CONCAT"},
      {ZYN_OP_CHANNEL_SLICE, "CHANNEL_SLICE"},
      {ZYN_OP_CHANNEL_GATHER, "CHANNEL_GATHER"},
  };
  for (const auto& row : kNames)
    if (row.type == type) return row.name;
  return "NOTHING";
}

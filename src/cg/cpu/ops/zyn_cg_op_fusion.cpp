// Fused convolutions: type 12, convolution with bias and activation; type 13, whose
// batch normalisation is folded into weights and biases by preparation, with
// activation.
#include <math.h>

#include "cg/cpu/ops/zyn_cg_conv.h"
#include "cg/cpu/ops/zyn_cg_operators.h"

namespace {

constexpr const char* kPath = "src/cg/cpu/zyn_cg_op_fusion.cpp";
constexpr zyn_site kPrepareArgs{kPath, 301, ZYN_MSG_PARA};
constexpr zyn_site kOutputMemory{kPath, 352, ZYN_MSG_OPERATOR_MEMORY};
constexpr zyn_site kFoldedMemory{kPath, 371, ZYN_MSG_OPERATOR_MEMORY};

constexpr float kDefaultEpsilon = 1e-5f;
constexpr int32_t kFixedRelu6 = 3;  // activation code that only fixed point serves
constexpr int64_t kStatistics = 4;  // scale, shift, mean, variance

// What follows the convolution, by activation code: codes outside the table leave the
// plain convolution. On purpose: that includes code 3, and 4 where it is not served.
zyn_conv_epilogue epilogue_of(int32_t code, const float* bias, bool hard_sigmoid) {
  switch (code) {
    case ZYN_ACT_BIAS:
      return {bias, ZYN_EPILOGUE_NONE};
    case ZYN_ACT_RELU:
      return {bias, ZYN_EPILOGUE_RELU};
    case ZYN_ACT_HARD_SWISH:
      return {bias, ZYN_EPILOGUE_HARD_SWISH};
    case ZYN_ACT_HARD_SIGMOID:
      if (hard_sigmoid) return {bias, ZYN_EPILOGUE_HARD_SIGMOID};
      [[fallthrough]];
    default:
      return {nullptr, ZYN_EPILOGUE_NONE};
  }
}

// In fixed point code 3 is ReLU6; other codes outside the table drop the bias there too.
int32_t run_fixed(zyn_cg_conv_state* state, bool has_bias, int32_t code) {
  const bool listed = code >= ZYN_ACT_BIAS && code <= kFixedRelu6;
  return zyn_cg_conv_run_fixed(state, has_bias && listed, code);
}

int32_t run_conv_act(void* record) {
  auto* state = static_cast<zyn_cg_conv_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  const int32_t code = state->param.word14.activation;
  if (state->fixed_point == 1) return run_fixed(state, state->param.bias == 1, code);
  return zyn_cg_conv_run(state, epilogue_of(code, zyn_cg_conv_bias(state), false), false);
}

// The folded tensor's biases follow its weights, whatever the record says.
int32_t run_conv_bn(void* record) {
  auto* state = static_cast<zyn_cg_conv_state*>(record);
  if (!state || !(state->folded || state->biases)) return ZYN_RET_ERR_PARA;
  if (state->fixed_point == 1) return run_fixed(state, true, state->param.activation);
  const float* bias = state->biases
                          ? zyn_cg_floats(state->biases)
                          : zyn_cg_floats(state->folded) + zyn_conv_weight_count(&state->param);
  return zyn_cg_conv_run(state, epilogue_of(state->param.activation, bias, state->method == 2),
                         false);
}

// Folds the constant's normalisation into the state's own tensor of weights and biases.
// 1: the constant has not exactly the elements that the record describes; 2: no memory.
int32_t fold(zyn_cg_conv_state* state) {
  const zyn_conv_param& p = state->param;
  const int64_t weights = zyn_conv_weight_count(&p);
  const int64_t channels = p.out_channels;
  const bool has_bias = p.bias == 1;
  if (state->weights->count != weights + (has_bias ? channels : 0) + kStatistics * channels)
    return ZYN_RET_ERR_PARA;
  const int32_t dims[1] = {zyn_cg_extent(weights + channels)};
  zyn_tensor* folded = zyn_create_tensor(1, dims, ZYN_TYPE_F32);
  if (!folded) return zyn_fail(kFoldedMemory, ZYN_RET_ERR_MEMORY);
  state->folded = folded;

  const float* source = zyn_cg_floats(state->weights);
  const float* stored_bias = source + weights;
  const float* gamma = stored_bias + (has_bias ? channels : 0);
  const float* beta = gamma + channels;
  const float* mean = beta + channels;
  const float* variance = mean + channels;
  const float epsilon = p.word14.epsilon != 0.0f ? p.word14.epsilon : kDefaultEpsilon;
  float* to = zyn_cg_floats(folded);
  const int64_t per_channel = weights / channels;
  for (int64_t c = 0; c < channels; c++) {
    const float scale = gamma[c] / sqrtf(variance[c] + epsilon);
    const float bias = has_bias ? stored_bias[c] : 0.0f;
    to[weights + c] = (bias - mean[c]) * scale + beta[c];
    for (int64_t i = c * per_channel; i < (c + 1) * per_channel; i++) to[i] = source[i] * scale;
  }
  state->weights = folded;
  return ZYN_RET_OK;
}

// Output extent of type 13 along one axis.
int32_t folded_extent(int32_t extent, int32_t kernel, int32_t pad, int32_t stride) {
  return zyn_cg_extent((int64_t{extent} - kernel + int64_t{2} * pad) / stride + 1);
}

int32_t prepare_conv_bn(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<zyn_cg_conv_state>(graph, node);
  if (!state) return zyn_fail(kPrepareArgs, ZYN_RET_ERR_PARA);
  if (const int32_t code = zyn_cg_conv_open(graph, node, state)) return code;
  if (const int32_t code = fold(state)) return code;
  const zyn_conv_shape s = zyn_conv_shape_of(&state->param);
  const int32_t* dims = state->input->dims;
  // On purpose: dilation is not counted, and pad_x serves both axes.
  return zyn_cg_conv_finish_prepare(
      graph, state, folded_extent(dims[0], s.kernel_x, s.pad_x, s.stride_x),
      folded_extent(dims[1], s.kernel_y, s.pad_x, s.stride_y), &kOutputMemory);
}

}  // namespace

const zyn_cg_operator zyn_cg_conv_act_row = {
    zyn_cg_bind_conv<ZYN_OP_CONV_ACT, run_conv_act>, zyn_cg_prepare_conv, zyn_cg_conv_release,
    zyn_cg_output_if<zyn_cg_conv_state, ZYN_OP_CONV_ACT>, nullptr};

const zyn_cg_operator zyn_cg_conv_bn_row = {
    zyn_cg_bind_conv<ZYN_OP_CONV_BN, run_conv_bn>, prepare_conv_bn, zyn_cg_conv_release,
    zyn_cg_output_if<zyn_cg_conv_state, ZYN_OP_CONV_BN>, nullptr};

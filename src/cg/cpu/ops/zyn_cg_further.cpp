// Preparation that the further operators of types 30 and 35 share.
#include "cg/cpu/ops/zyn_cg_further.h"

#include "base/zyn_explain.h"

int32_t zyn_cg_prepare_varied(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<zyn_cg_varied_state>(graph, node);
  return state ? state->prepare(graph, node) : ZYN_RET_ERR_PARA;
}

int32_t zyn_cg_prepare_further(zyn_cg_handle* graph, int32_t node, zyn_cg_varied_state* state,
                               const void* param) {
  if (!state) return ZYN_RET_ERR_PARA;
  zyn_tensor* input = nullptr;
  int32_t producer = -1;
  const bool moves = state->type == ZYN_OP_CHANNEL_GATHER;
  state->input = nullptr;
  int32_t code = moves ? zyn_cg_moved_input(graph, node, state, &input)
                       : zyn_cg_only_input(graph, node, &input, &producer);
  if (code != ZYN_RET_OK) return code;
  state->shape.dim_count = input->dim_count;
  memcpy(state->shape.dims, input->dims, sizeof(state->shape.dims));
  zyn_cg_verdict verdict;
  zyn_cg_judge(static_cast<int32_t>(state->type), param, state->shape, zyn_cg_is_fixed_point(graph),
               &verdict);
  if (verdict.code != ZYN_RET_OK) return zyn_refuse(verdict.code, "%s", verdict.text);
  if (!moves) code = zyn_cg_inherit_q(graph, node, producer);
  if (code != ZYN_RET_OK) return code;
  code = zyn_cg_make_output(nullptr, &state->output, verdict.output.dim_count, verdict.output.dims,
                            input->type, nullptr);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = ZYN_LAYOUT_PLANAR;
  state->input = input;
  return ZYN_RET_OK;
}

bool zyn_cg_same_input(const zyn_cg_varied_state* state) {
  const zyn_tensor* input = state->input;
  return zyn_cg_ready(input, state->output) && input->dim_count == state->shape.dim_count &&
         memcmp(input->dims, state->shape.dims,
                static_cast<size_t>(input->dim_count) * sizeof(int32_t)) == 0;
}

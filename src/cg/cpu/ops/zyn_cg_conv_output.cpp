// Slot 3 of the convolutions (3, 4, 5, 7, 8), whose states begin alike.
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "cg/cpu/zyn_cg_support.h"

zyn_tensor* zyn_cg_output_conv(zyn_cg_handle* graph, int32_t node) {
  const auto* state = zyn_cg_state<zyn_cg_io_state>(graph, node);
  return state && state->type >= 3 && state->type <= 8 ? state->output : nullptr;
}

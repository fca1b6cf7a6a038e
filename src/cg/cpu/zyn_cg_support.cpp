// Inputs, outputs and release, as every operator family needs them.
#include "cg/cpu/zyn_cg_support.h"

#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"

const int32_t* zyn_cg_two_inputs(const zyn_cg_handle* graph, int32_t node) {
  const zyn_darray* inputs = zyn_cg_inputs(graph, node);
  return inputs && inputs->count == 2 ? zyn_darray_ids(inputs) : nullptr;
}

zyn_tensor* zyn_cg_input_tensor(zyn_cg_handle* graph, int32_t producer) {
  const int32_t type = zyn_cg_node_type(graph, producer);
  return type == ZYN_OP_CONSTANT ? nullptr : zyn_cg_producer_tensor(graph, producer);
}

zyn_cg_sources zyn_cg_find_sources(zyn_cg_handle* graph, int32_t node) {
  zyn_cg_sources sources = {nullptr, -1, nullptr, 0};
  const zyn_darray* inputs = zyn_cg_inputs(graph, node);
  if (!inputs) return sources;
  sources.count = inputs->count;
  for (int64_t i = 0; i < inputs->count; i++) {
    const int32_t producer = zyn_darray_ids(inputs)[i];
    if (zyn_cg_node_type(graph, producer) == ZYN_OP_CONSTANT) {
      sources.constant = zyn_cg_producer_tensor(graph, producer);
    } else {
      sources.input = zyn_cg_input_tensor(graph, producer);
      sources.producer = producer;
    }
  }
  return sources;
}

int32_t zyn_cg_only_input(zyn_cg_handle* graph, int32_t node, zyn_tensor** input,
                          int32_t* producer) {
  *input = nullptr;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  if (sources.count != 1) return ZYN_RET_ERR_PARA;
  const int32_t code = zyn_cg_check_input(graph, sources.input);
  if (code != ZYN_RET_OK) return code;
  *input = sources.input;
  if (producer) *producer = sources.producer;
  return ZYN_RET_OK;
}

bool zyn_cg_read_fraction_bits(const zyn_cg_handle* graph, int32_t node, int32_t* q) {
  if (!graph->q_list || node < 0 || node >= graph->max_nodes) return false;
  *q = static_cast<int32_t>(graph->q_list[node]);
  return true;
}

bool zyn_cg_read_q(const zyn_cg_handle* graph, int32_t node, int32_t* q) {
  return zyn_cg_read_fraction_bits(graph, node, q) && *q >= 0 && *q <= 15;
}

int32_t zyn_cg_inherit_q(zyn_cg_handle* graph, int32_t node, int32_t producer) {
  if (!zyn_cg_is_fixed_point(graph)) return ZYN_RET_OK;
  int32_t q = 0;
  if (!zyn_cg_read_q(graph, producer, &q)) return ZYN_RET_ERR_PARA;
  graph->q_list[node] = static_cast<uint32_t>(q);
  return ZYN_RET_OK;
}

int32_t zyn_cg_moved_input(zyn_cg_handle* graph, int32_t node, zyn_cg_io_state* state,
                           zyn_tensor** input) {
  if (!state) return ZYN_RET_ERR_PARA;
  state->input = nullptr;
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  *input = sources.count > 1 ? nullptr : sources.input;
  if (!*input) return ZYN_RET_ERR_PARA;
  if (zyn_cg_is_fixed_point(graph) && zyn_cg_check_input(graph, *input) != ZYN_RET_OK)
    return ZYN_RET_ERR_PARA;
  return zyn_cg_inherit_q(graph, node, sources.producer);
}

int32_t zyn_cg_quantize(zyn_tensor** quantized, const zyn_tensor* constant, uint32_t* q) {
  const int32_t code = zyn_cg_make_output(nullptr, quantized, constant->dim_count, constant->dims,
                                          ZYN_TYPE_FPI16, nullptr);
  if (code != ZYN_RET_OK) return code;
  if (zyn_cg_fpi_choose_fraction_bits(q, constant, 0, constant->count) != ZYN_RET_OK ||
      zyn_cg_fpi_quantize_range(*quantized, constant, 0, constant->count, *q) != ZYN_RET_OK)
    return ZYN_RET_ERR_PARA;
  return ZYN_RET_OK;
}

int32_t zyn_cg_make_output(const zyn_cg_handle* graph, zyn_tensor** output, int32_t dim_count,
                           const int32_t* dims, uint32_t type, const zyn_site* site) {
  zyn_tensor* held = *output;
  if (held && held->dim_count == dim_count && held->type == type &&
      memcmp(held->dims, dims, static_cast<size_t>(dim_count) * sizeof(int32_t)) == 0)
    return ZYN_RET_OK;
  zyn_tensor* made = graph ? zyn_cg_create_output(graph, dim_count, dims, type)
                           : zyn_create_tensor(dim_count, dims, type);
  if (!made) {
    if (site) zyn_report(*site);
    return ZYN_RET_ERR_MEMORY;
  }
  zyn_cg_drop(output);
  *output = made;
  return ZYN_RET_OK;
}

int32_t zyn_cg_release_io(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  auto* state = static_cast<zyn_cg_io_state*>(*record);
  zyn_cg_drop(&state->output);
  zyn_cg_drop(&state->planar);
  zyn_free(state->workspace);
  zyn_free(state);
  *record = nullptr;
  return ZYN_RET_OK;
}

bool zyn_cg_reserve_scratch(zyn_cg_shared_scratch* scratch, int64_t floats) {
  if (floats <= scratch->floats) return true;
  float* block = zyn_scratch<float>(floats).take();
  if (!block) return false;
  zyn_free(scratch->block);
  *scratch = {block, floats};
  return true;
}

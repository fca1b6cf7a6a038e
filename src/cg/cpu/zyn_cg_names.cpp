// Names of operators and nodes.
#include "cg/cpu/zyn_cg_names.h"

#include <stdio.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "cg/cpu/zyn_cg.h"
#include "cg/cpu/zyn_cg_records.h"

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

const char* zyn_cg_node_operation(const zyn_cg_handle* graph, int32_t node, int32_t type) {
  const bool bound = graph && graph->bindings && node >= 0 && node < graph->record_count;
  const void* param = bound ? graph->bindings[node].param : nullptr;
  const zyn_cg_further_record* further =
      param ? zyn_cg_find_further(type, zyn_cg_first_word(param)) : nullptr;
  return further ? further->name : zyn_cg_operation_name(type);
}

int zyn_cg_name_node(const zyn_cg_handle* graph, int32_t node, int32_t type, char* buffer,
                     size_t size) {
  const char* name = graph && node >= 0 && node < graph->name_count ? graph->names[node] : nullptr;
  const char* quote = name ? "'" : "";
  const int used = snprintf(buffer, size, "node %d%s%s%s%s%s%s: ", node, name ? " " : "", quote,
                            name ? name : "", quote, type >= 0 ? " " : "",
                            type >= 0 ? zyn_cg_node_operation(graph, node, type) : "");
  return used < static_cast<int>(size) ? used : static_cast<int>(size) - 1;
}

int32_t zyn_cg_set_node_name(zyn_cg_handle* graph, int32_t node, const char* name) {
  if (!graph || !name || node < 0 || node >= graph->max_nodes)
    return zyn_refuse(ZYN_RET_ERR_PARA, "a graph, one of its node ids and a name are needed");
  if (node >= graph->name_count) {
    const int64_t before = graph->name_count;
    const int64_t after =
        2 * int64_t{node} + 8 < graph->max_nodes ? 2 * int64_t{node} + 8 : graph->max_nodes;
    auto* names =
        static_cast<char**>(zyn_grow(graph->names, after * static_cast<int64_t>(sizeof(char*))));
    if (!names) return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for a name");
    memset(names + before, 0, static_cast<size_t>(after - before) * sizeof(char*));
    graph->names = names;
    graph->name_count = static_cast<int32_t>(after);
  }
  const size_t bytes = strlen(name) + 1;
  auto* copy = static_cast<char*>(zyn_malloc(static_cast<int64_t>(bytes)));
  if (!copy) return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for a name");
  memcpy(copy, name, bytes);
  zyn_free(graph->names[node]);
  graph->names[node] = copy;
  return ZYN_RET_OK;
}

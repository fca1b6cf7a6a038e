// The graph handle: creation and release, settings, edges, binding, and the loops
// that prepare and run the nodes in order. Everything an operator does goes through
// the operator table; nothing here knows an operator's inside.
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "cg/cpu/zyn_cg_names.h"
#include "cg/cpu/zyn_cg_records.h"
#include "cg/cpu/zyn_cg_support.h"
#include "simd/zyn_flush.h"

namespace {

constexpr const char* kPath = "src/cg/cpu/zyn_cg_core.cpp";
constexpr const char* kParamsLine = "Params Error!\n";
constexpr zyn_site kSuccessorsMemory{kPath, 224, ZYN_MSG_MEMORY};
constexpr zyn_site kPredecessorsMemory{kPath, 225, ZYN_MSG_MEMORY};
constexpr zyn_site kNodesMemory{kPath, 227, ZYN_MSG_MEMORY};
constexpr zyn_site kSuccessorMemory{kPath, 231, ZYN_MSG_MEMORY};
constexpr zyn_site kPredecessorMemory{kPath, 232, ZYN_MSG_MEMORY};
constexpr zyn_site kOperatorsMemory{kPath, 236, ZYN_MSG_MEMORY};
constexpr zyn_site kEdgeArgs{kPath, 535, ZYN_MSG_PARA};
constexpr zyn_site kBindArgs{kPath, 675, kParamsLine};
constexpr zyn_site kBindNode{kPath, 680, kParamsLine};
constexpr zyn_site kBindTwice{kPath, 684, "Params Error!"};
constexpr zyn_site kPrepareArgs{kPath, 701, kParamsLine};
constexpr zyn_site kInferenceArgs{kPath, 741, kParamsLine};
constexpr zyn_site kOutputGraph{kPath, 797, kParamsLine};
constexpr zyn_site kOutputNode{kPath, 804, kParamsLine};
constexpr zyn_site kOutputRecord{kPath, 810, kParamsLine};

constexpr zyn_cg_create_param kDefaults = {256, 1, {0, 0}, 0};
constexpr zyn_darray_type kIdType = {sizeof(int32_t), 0, nullptr, nullptr};
constexpr uint32_t kLastMethod = 2;
constexpr uint32_t kNoQ = 0xFFFFFFFFu;
// Creation makes the edge lists of so many ids, edges those of the ids that they name: what a
// graph asks for grows with its nodes, not with its maximum.
constexpr int32_t kFirstLists = 256;
constexpr int32_t kMostLists = 1 << 20;

bool is_data_type(uint32_t type) { return type <= ZYN_OP_CONSTANT; }

template <typename T>
T* make_array(int64_t count) {
  return static_cast<T*>(zyn_calloc(count, sizeof(T)));
}

bool report_missing(const void* block, const zyn_site& site) {
  if (!block) zyn_report(site);
  return !block;
}

// Makes the arrays of a new handle. False, after the report, on the first failure.
bool make_handle_arrays(zyn_cg_handle* graph) {
  const int32_t count = graph->max_nodes < kFirstLists ? graph->max_nodes : kFirstLists;
  graph->successors = make_array<zyn_darray*>(count);
  if (report_missing(graph->successors, kSuccessorsMemory)) return false;
  graph->predecessors = make_array<zyn_darray*>(count);
  if (report_missing(graph->predecessors, kPredecessorsMemory)) return false;
  graph->list_count = count;
  graph->nodes = zyn_create_darray(&kIdType);
  if (report_missing(graph->nodes, kNodesMemory)) return false;
  for (int32_t id = 0; id < count; id++) {
    graph->successors[id] = zyn_create_darray(&kIdType);
    if (report_missing(graph->successors[id], kSuccessorMemory)) return false;
    graph->predecessors[id] = zyn_create_darray(&kIdType);
    if (report_missing(graph->predecessors[id], kPredecessorMemory)) return false;
  }
  graph->operators = make_array<zyn_cg_operator>(kZynOperatorTypes);
  if (report_missing(graph->operators, kOperatorsMemory)) return false;
  zyn_cg_register_operators(graph->operators);
  return true;
}

void release_edge_lists(zyn_cg_handle* graph, zyn_darray** lists) {
  if (!lists) return;
  for (int32_t id = 0; id < graph->list_count; id++)
    if (lists[id]) zyn_release_darray(&lists[id]);
  zyn_free(lists);
}

void release_records(zyn_cg_handle* graph) {
  if (!graph->records) return;
  for (int32_t id = 0; id < graph->record_count; id++) {
    void* record = graph->records[id];
    if (!record) continue;
    graph->records[id] = nullptr;
    const uint32_t type = static_cast<zyn_cg_node*>(record)->type;
    if (is_data_type(type)) {
      zyn_free(record);
      continue;
    }
    const zyn_cg_release_fn release = graph->operators[type].release;
    if (release && release(&record) != ZYN_RET_OK) break;  // On purpose: the rest is left.
  }
  zyn_free(graph->records);
}

void release_bindings(zyn_cg_handle* graph) {
  for (int32_t id = 0; graph->bindings && id < graph->record_count; id++)
    zyn_free(graph->bindings[id].param);
  zyn_free(graph->bindings);
  for (int32_t id = 0; id < graph->name_count; id++) zyn_free(graph->names[id]);
  zyn_free(graph->names);
}

bool has_node(const zyn_darray* nodes, int32_t node) {
  const int32_t* ids = zyn_darray_ids(nodes);
  for (int64_t i = 0; i < nodes->count; i++)
    if (ids[i] == node) return true;
  return false;
}

void add_node(zyn_darray* nodes, int32_t node) {
  if (!has_node(nodes, node)) zyn_darray_push(nodes, &node);
}

// Makes the lists of held ids those of count ids, the further ones null.
bool widen_lists(zyn_darray*** lists, int64_t held, int64_t count) {
  void* grown = zyn_grow(*lists, count * static_cast<int64_t>(sizeof(zyn_darray*)));
  if (!grown) return false;
  *lists = static_cast<zyn_darray**>(grown);
  for (int64_t i = held; i < count; i++) (*lists)[i] = nullptr;
  return true;
}

// Room for the edge lists of an id below max_nodes.
bool reach_lists(zyn_cg_handle* graph, int32_t id) {
  const int64_t held = graph->list_count;
  if (id < held) return true;
  const int64_t count = id < 2 * held ? 2 * held : id + 1;
  if (id >= kMostLists || !widen_lists(&graph->successors, held, count) ||
      !widen_lists(&graph->predecessors, held, count))
    return false;
  graph->list_count = static_cast<int32_t>(count);
  return true;
}

// Appends to the list of an id. Without memory the entry is left out.
void push_edge(zyn_cg_handle* graph, zyn_darray** zyn_cg_handle::*lists, int32_t id,
               int32_t other) {
  if (!reach_lists(graph, id)) return;
  zyn_darray** list = &(graph->*lists)[id];
  if (!*list) *list = zyn_create_darray(&kIdType);
  if (*list) zyn_darray_push(*list, &other);
}

// The arrays that the first binding makes, with one spare record; all of them or none,
// since the next attempt may see more nodes.
bool make_binding_arrays(zyn_cg_handle* graph) {
  if (graph->records) return true;
  const int32_t count = zyn_cg_node_count(graph);
  zyn_scratch<zyn_cg_run_fn> run = zyn_scratch<zyn_cg_run_fn>::zeroed(count + 1);
  zyn_scratch<void*> extras = zyn_scratch<void*>::zeroed(count + 1);
  zyn_scratch<zyn_cg_stage> stages = zyn_scratch<zyn_cg_stage>::zeroed(count + 1);
  zyn_scratch<void*> records = zyn_scratch<void*>::zeroed(count + 1);
  zyn_scratch<zyn_cg_binding> bindings = zyn_scratch<zyn_cg_binding>::zeroed(count + 1);
  if (!run || !extras || !stages || !records || !bindings) return false;
  graph->bindings = bindings.take();
  graph->run = run.take();
  graph->extras = extras.take();
  graph->stages = stages.take();
  graph->records = records.take();
  graph->record_count = count;
  return true;
}

// From here on what nodes hold of earlier preparations is not to be used.
void outdate_nodes(zyn_cg_handle* graph) {
  for (int32_t id = 0; graph->stages && id < graph->record_count; id++)
    if (graph->stages[id] == ZYN_STAGE_READY) graph->stages[id] = ZYN_STAGE_STALE;
}

bool is_stale(const zyn_cg_handle* graph, int32_t node) {
  return graph->stages && graph->stages[node] == ZYN_STAGE_STALE;
}

// Says which node failed with a code, in front of what its operator said; code.
int32_t explain_node(const zyn_cg_handle* graph, int32_t node, int32_t type, int32_t code,
                     const zyn_explanation_mark& mark) {
  if (!mark.passed()) zyn_explain("failed with code %d", code);
  char name[kZynExplanationBytes];
  zyn_cg_name_node(graph, node, type, name, sizeof(name));
  zyn_explain_where("%s", name);
  return code;
}

// What the check of the graph says of a node that failed, which is more than a code says. Large
// graphs are not examined again for it.
bool explain_by_check(const zyn_cg_handle* graph, int32_t node, bool is_run) {
  constexpr int32_t kMostExamined = 4096;
  return zyn_cg_node_count(graph) <= kMostExamined && zyn_cg_explain_node(graph, node, is_run);
}

// Prepares a node that has a record.
int32_t prepare_node(zyn_cg_handle* graph, int32_t node, int32_t type) {
  const zyn_cg_prepare_fn prepare = graph->operators[type].prepare;
  const zyn_explanation_mark mark;
  const int32_t code = prepare ? prepare(graph, node) : ZYN_RET_OK;
  if (code != ZYN_RET_OK && !explain_by_check(graph, node, false))
    explain_node(graph, node, type, code, mark);
  graph->stages[node] = code == ZYN_RET_OK ? ZYN_STAGE_READY : ZYN_STAGE_STALE;
  return code;
}

// Runs a node that has a record and a run function.
int32_t run_node(zyn_cg_handle* graph, int32_t node) {
  const int32_t type = zyn_cg_node_type(graph, node);
  const zyn_explanation_mark mark;
  int32_t code = ZYN_RET_ERR_PARA;
  if (graph->stages[node] != ZYN_STAGE_READY) {
    zyn_explain("the latest preparation did not make it ready: prepare the graph first");
  } else {
    code = graph->run[node](graph->records[node]);
    if (code == ZYN_RET_OK || explain_by_check(graph, node, true)) return code;
    if (code == ZYN_RET_ERR_PARA && !mark.passed())
      zyn_explain("a tensor that it reads has no data or another shape than at preparation");
  }
  return explain_node(graph, node, type, code, mark);
}

int32_t store_data_node(zyn_cg_handle* graph, int32_t node, const zyn_cg_node_desc* desc) {
  auto* record = static_cast<zyn_cg_data_record*>(zyn_malloc(sizeof(zyn_cg_data_record)));
  if (!record) return ZYN_RET_ERR_MEMORY;
  *record = *desc;
  record->extra = nullptr;
  graph->records[node] = record;
  return ZYN_RET_OK;
}

}  // namespace

zyn_cg_handle* zyn_create_computation_graph_handle(const zyn_cg_create_param* param) {
  const zyn_cg_create_param& settings = param ? *param : kDefaults;
  auto* graph = make_array<zyn_cg_handle>(1);
  if (!graph) return nullptr;
  graph->max_nodes = settings.max_nodes;
  graph->thread_count = settings.thread_count;
  graph->fixed_point = settings.fixed_point;
  graph->conv_method = kLastMethod;
  if (!make_handle_arrays(graph)) {
    if (settings.max_nodes < 1)
      zyn_explain("max_nodes is %d, at least 1 is needed", settings.max_nodes);
    zyn_release_computation_graph_handle(&graph);
    return nullptr;
  }
  zyn_print(zyn_cg_is_fixed_point(graph) ? "zyn go to fixed point cpu backend!"
                                         : "zyn go to cpu backend!");
  return graph;
}

int32_t zyn_release_computation_graph_handle(zyn_cg_handle** handle) {
  if (!handle || !*handle)  // On purpose not 1.
    return zyn_refuse(ZYN_RET_ERR_MEMORY, "the graph is null");
  zyn_cg_handle* graph = *handle;
  *handle = nullptr;
  release_edge_lists(graph, graph->successors);
  release_edge_lists(graph, graph->predecessors);
  zyn_free(graph->run);
  zyn_free(graph->extras);
  zyn_free(graph->stages);
  release_bindings(graph);
  release_records(graph);
  if (graph->nodes) zyn_release_darray(&graph->nodes);
  zyn_free(graph->order);
  zyn_free(graph->bound);
  zyn_free(graph->operators);
  zyn_free(graph->q_list);
  zyn_free(graph->scratch.block);
  zyn_free(graph);
  return ZYN_RET_OK;
}

int32_t zyn_cg_set_conv_method(zyn_cg_handle* graph, uint32_t method) {
  if (!graph) return zyn_refuse_null("the graph");
  if (method > kLastMethod)
    return zyn_refuse(ZYN_RET_ERR_PARA, "there is no method %u: 0, 1 or 2 is needed", method);
  graph->conv_method = method;
  return ZYN_RET_OK;
}

uint32_t zyn_cg_get_dev_type(const zyn_cg_handle* graph) { return graph ? graph->device_type : 0; }

void* zyn_get_dev_context_from_cg_handle(const zyn_cg_handle* graph) {
  return graph ? graph->device_context : nullptr;
}

int32_t zyn_cg_set_ptr_q_list(zyn_cg_handle* graph, uint32_t* q_list) {
  if (!graph || !q_list) return zyn_refuse_null("the graph or the list of fraction bits");
  graph->q_list = q_list;  // On purpose: a list set before is not freed.
  return ZYN_RET_OK;
}

uint32_t zyn_cg_get_q_from_list(const zyn_cg_handle* graph, int32_t node) {
  if (!graph || node < 0 || !graph->q_list || node >= graph->max_nodes) {
    if (!graph)
      zyn_refuse_null("the graph");
    else if (!graph->q_list)
      zyn_explain("the graph has no list of fraction bits");
    else
      zyn_explain("there is no node %d: ids are 0 to %d", node, graph->max_nodes - 1);
    return kNoQ;
  }
  return graph->q_list[node];
}

int32_t zyn_add_one_edge_into_computation_graph(zyn_cg_handle* graph, int32_t from, int32_t to) {
  if (!graph) return zyn_fail_null(kEdgeArgs, "the graph");
  if (from < 0 || to < 0)
    return zyn_refuse(zyn_fail(kEdgeArgs, ZYN_RET_ERR_PARA),
                      "an edge from node %d to node %d: ids are at least 0", from, to);
  // On purpose before the range check: ids out of range stay in the list.
  add_node(graph->nodes, from);
  add_node(graph->nodes, to);
  if (from >= graph->max_nodes || to >= graph->max_nodes)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "an edge from node %d to node %d, but the graph was created for ids 0 to %d: "
                      "create it with max_nodes of at least %lld",
                      from, to, graph->max_nodes - 1, 1LL + (from > to ? from : to));
  push_edge(graph, &zyn_cg_handle::successors, from, to);
  push_edge(graph, &zyn_cg_handle::predecessors, to, from);
  return ZYN_RET_OK;
}

int32_t zyn_bind_operator_onto_computation_graph(zyn_cg_handle* graph, int32_t node,
                                                 const zyn_cg_node_desc* desc, const void* param) {
  if (!graph || !desc) return zyn_fail_null(kBindArgs, "the graph or the descriptor");
  if (desc->type < 0 || desc->type >= kZynOperatorTypes)
    return zyn_refuse(zyn_fail(kBindArgs, ZYN_RET_ERR_PARA),
                      "node %d: there is no operator type %d, types are 0 to %d", node, desc->type,
                      kZynOperatorTypes - 1);
  // Before the sort, and for nodes added after it, there is no room.
  const bool has_room =
      node < graph->sorted_count && (!graph->records || node < graph->record_count);
  if (!has_node(graph->nodes, node) || !has_room)
    return zyn_refuse(zyn_fail(kBindNode, ZYN_RET_ERR_PARA),
                      has_node(graph->nodes, node)
                          ? "node %d: sort the graph after its last edge and before it is bound"
                          : "node %d: no edge names it, add its edges and sort the graph first",
                      node);
  if (graph->bound[node]) {
    zyn_report(kBindTwice);
    zyn_print("the %d th node operator has been bound!\n", static_cast<int>(node));
    char name[kZynExplanationBytes];
    zyn_cg_name_node(graph, node, zyn_cg_node_type(graph, node), name, sizeof(name));
    return zyn_refuse(ZYN_RET_ERR_PARA, "%sit has been bound before: bind every node once", name);
  }
  if (!make_binding_arrays(graph)) return ZYN_RET_ERR_MEMORY;
  graph->bound[node] = 1;  // On purpose before the operator: a refusal leaves it bound.
  if (is_data_type(static_cast<uint32_t>(desc->type))) return store_data_node(graph, node, desc);
  const zyn_cg_bind_fn bind = graph->operators[desc->type].bind;
  if (!bind) return ZYN_RET_OK;
  zyn_cg_binding* binding = &graph->bindings[node];
  binding->method = graph->conv_method;
  if (!zyn_cg_copy_record(desc->type, param, &binding->param))
    return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the record of node %d", node);
  const zyn_explanation_mark mark;
  const int32_t code = bind(graph, node, param);
  if (code == ZYN_RET_ERR_PARA && !mark.passed())
    zyn_explain(param ? "its record is not one that this type takes"
                      : "it needs a record, found null");
  return code == ZYN_RET_OK ? code : explain_node(graph, node, desc->type, code, mark);
}

int32_t zyn_prepare_inference_computation(zyn_cg_handle* graph) {
  if (!graph) return zyn_fail_null(kPrepareArgs, "the graph");
  const zyn_flush_denormals flush;
  outdate_nodes(graph);
  for (int32_t k = 0; k < zyn_cg_node_count(graph); k++) {
    // Nodes that no sort has seen are unbound.
    const int32_t id = k < graph->sorted_count ? graph->order[k] : -1;
    const int32_t type = zyn_cg_node_type(graph, id);
    if (type < 0) {
      graph->prepared = 1;
      if (id < 0)
        return zyn_refuse(ZYN_RET_ERR_PARA,
                          "the graph has not been sorted since its last edge was added");
      return zyn_refuse(ZYN_RET_ERR_PARA, "node %d has not been bound, or its binding was refused",
                        id);
    }
    const int32_t code = prepare_node(graph, id, type);
    if (code != ZYN_RET_OK) {
      zyn_print("failed to prepare inference node:%d!!!", static_cast<int>(id));
      return code;
    }
  }
  graph->prepared = 1;
  return ZYN_RET_OK;
}

int32_t zyn_computation_graph_inference(zyn_cg_handle* graph) {
  if (!graph) return zyn_fail_null(kInferenceArgs, "the graph");
  if (zyn_cg_node_count(graph) > 0 && !graph->order)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the graph has not been sorted");
  const zyn_flush_denormals flush;
  for (int32_t k = 0; k < graph->sorted_count; k++) {
    const int32_t id = graph->order[k];
    if (!zyn_cg_record(graph, id) || !graph->run[id]) continue;
    const int32_t code = run_node(graph, id);
    if (code != ZYN_RET_OK) {
      zyn_print("failed to inference: %d!!!", static_cast<int>(id));
      return code;
    }
  }
  return ZYN_RET_OK;
}

zyn_tensor* zyn_get_computation_node_inference_data(zyn_cg_handle* graph, int32_t node) {
  if (!graph) {
    zyn_fail_null(kOutputGraph, "the graph");
    return nullptr;
  }
  // On purpose: one past the last node is admitted; the arrays have a spare entry.
  if (node < 0 || node > zyn_cg_node_count(graph)) {
    zyn_report(kOutputNode);
    zyn_explain("there is no node %d: ids are 0 to %d", node, zyn_cg_node_count(graph) - 1);
    return nullptr;
  }
  const int32_t type = zyn_cg_node_type(graph, node);
  if (type < 0) {
    zyn_report(kOutputRecord);
    zyn_explain("node %d has not been bound", node);
    return nullptr;
  }
  const zyn_cg_output_fn output = graph->operators[type].output;
  const bool readable = graph->bound[node] && !is_stale(graph, node);
  zyn_tensor* tensor = readable && output ? output(graph, node) : nullptr;
  if (!tensor)
    zyn_explain(is_data_type(static_cast<uint32_t>(type))
                    ? "node %d is a data node: its tensor is the caller's"
                    : "node %d has no output: the graph has not been prepared, or the latest "
                      "preparation failed before or at it",
                node);
  return tensor;
}

void* zyn_cg_record(const zyn_cg_handle* graph, int32_t node) {
  const bool in_range = graph->records && node >= 0 && node <= graph->record_count;
  return in_range ? graph->records[node] : nullptr;
}

int32_t zyn_cg_node_type(const zyn_cg_handle* graph, int32_t node) {
  const void* record = zyn_cg_record(graph, node);
  return record ? static_cast<int32_t>(static_cast<const zyn_cg_node*>(record)->type) : -1;
}

zyn_tensor* zyn_cg_producer_tensor(zyn_cg_handle* graph, int32_t producer) {
  const int32_t type = zyn_cg_node_type(graph, producer);
  if (type < 0) return nullptr;
  if (type == ZYN_OP_INPUT || type == ZYN_OP_CONSTANT)
    return static_cast<zyn_tensor*>(
        static_cast<zyn_cg_data_record*>(zyn_cg_record(graph, producer))->data);
  const zyn_cg_output_fn output = graph->operators[type].output;
  return output && !is_stale(graph, producer) ? output(graph, producer) : nullptr;
}

void zyn_cg_install(zyn_cg_handle* graph, int32_t node, void* record, zyn_cg_run_fn run) {
  graph->records[node] = record;
  graph->run[node] = run;
}

zyn_tensor* zyn_cg_create_output(const zyn_cg_handle* graph, int32_t dim_count, const int32_t* dims,
                                 uint32_t type) {
  return zyn_cg_on_device(graph->device_type) ? zyn_create_tensor_header(dim_count, dims, type)
                                              : zyn_create_tensor(dim_count, dims, type);
}

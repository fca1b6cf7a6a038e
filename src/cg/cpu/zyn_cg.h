// The computation graph's inside: the handle, the operator table, and what every
// operator family shares.
#pragma once

#include <stdint.h>

#include "base/zyn_darray.h"
#include "base/zyn_memory.h"
#include "zyncore.h"

inline constexpr int32_t kZynOperatorTypes = 41;
inline constexpr int32_t kZynOperatorSlots = 5;

// The routines of one operator type; null where the type has nothing to do. A node
// record always begins with its u32 type id; zyn_cg_node is that first field.
struct zyn_cg_node {
  uint32_t type;
};
using zyn_cg_bind_fn = int32_t (*)(zyn_cg_handle* graph, int32_t node, const void* param);
using zyn_cg_prepare_fn = int32_t (*)(zyn_cg_handle* graph, int32_t node);
using zyn_cg_release_fn = int32_t (*)(void** record);
using zyn_cg_output_fn = zyn_tensor* (*)(zyn_cg_handle* graph, int32_t node);
using zyn_cg_run_fn = int32_t (*)(void* record);

// One row of the operator table, five pointers in slot order.
struct zyn_cg_operator {
  zyn_cg_bind_fn bind;             // creates the record, installs the run function
  zyn_cg_prepare_fn prepare;       // finds the inputs, makes the output
  zyn_cg_release_fn release;       // frees the record; non-zero stops the handle's release
  zyn_cg_output_fn output;         // the output, or null for a record of another type
  zyn_cg_output_fn second_output;  // types 25 and 27: the same routine as output
};
static_assert(sizeof(zyn_cg_operator) == kZynOperatorSlots * sizeof(void*), "five pointers a row");

// How far preparation has come with a node. Preparing again may release the outputs of an
// earlier preparation, and one that fails leaves its node half made: only nodes that the
// latest preparation made ready run, and the others are not read.
enum zyn_cg_stage : uint8_t {
  ZYN_STAGE_NEW,    // never tried: holds no tensors
  ZYN_STAGE_READY,  // prepared by the latest preparation
  ZYN_STAGE_STALE   // tried in vain, or prepared by an earlier preparation only
};

// What a node was bound with, for whoever examines the graph.
struct zyn_cg_binding {
  void* param;      // a copy of the record, lists behind it; null without
  uint32_t method;  // the graph's convolution method then
};

// Scratch of kernels, of which one runs at a time: as large as the largest needs.
struct zyn_cg_shared_scratch {
  float* block;
  int64_t floats;
};

// Makes the scratch hold at least so many floats; its content is lost. False without memory: it
// is then as it was.
bool zyn_cg_reserve_scratch(zyn_cg_shared_scratch* scratch, int64_t floats);

// Methods of convolutions beside 0 to 2, for networks that choose layer by layer.
enum zyn_cg_inner_method : uint32_t {
  ZYN_METHOD_GENERAL = 3,         // kernels/general, output in channel blocks
  ZYN_METHOD_GENERAL_PLANAR = 4,  // the same, planar output
  ZYN_METHOD_WINOGRAD = 5,        // kernels/winograd, output in channel blocks
  ZYN_METHOD_WINOGRAD_PLANAR = 6  // the same, planar output
};
inline constexpr uint32_t kZynMethods = ZYN_METHOD_WINOGRAD_PLANAR + 1;

// Whether a method is Winograd's: its sums are others than those of methods 0 to 4.
inline bool zyn_cg_is_winograd(uint32_t method) {
  return method == ZYN_METHOD_WINOGRAD || method == ZYN_METHOD_WINOGRAD_PLANAR;
}

struct zyn_cg_handle {
  int32_t max_nodes;
  zyn_darray* nodes;           // i32: every id of an edge, in order of appearance
  void** records;              // by id, record_count + 1 entries: made at binding
  int32_t* order;              // sorted_count ids in order of execution
  int32_t* bound;              // by id, sorted_count + 1 entries: 1 once bound
  zyn_darray** successors;     // by id, list_count arrays of i32 or null
  zyn_darray** predecessors;   // the same, an operator's inputs in order
  zyn_cg_run_fn* run;          // by id
  void** extras;               // by id: one word for the operators' use, which none needs
  zyn_cg_operator* operators;  // kZynOperatorTypes rows
  uint32_t thread_count;
  uint32_t conv_method;  // 0, 1 or 2, or a zyn_cg_inner_method
  uint32_t prepared;     // 1 after preparation
  uint32_t device_type;  // always 0
  void* device_context;  // always null
  uint32_t fixed_point;  // 1: fixed point; anything else: float
  uint32_t* q_list;      // by id, max_nodes entries, or null
  // What follows is not of the described record.
  int32_t record_count;      // number of nodes at the first binding; later ones have no room
  int32_t sorted_count;      // number of nodes at the last sort
  int32_t list_count;        // ids with room for edge lists
  zyn_cg_stage* stages;      // by id
  zyn_cg_binding* bindings;  // by id, record_count entries
  char** names;              // by id, name_count entries: null where a node has none
  int32_t name_count;
  zyn_cg_shared_scratch scratch;
  zyn_store* store;  // of the network's loader: packed weights, or null
  bool any_order;  // nobody expects outputs in planar order: where channel blocks come in, they may
                   // go out
};

// A stored data node (types 0, 1, 2): a copy of its descriptor with extra cleared.
using zyn_cg_data_record = zyn_cg_node_desc;

// Number of nodes.
inline int32_t zyn_cg_node_count(const zyn_cg_handle* graph) {
  return static_cast<int32_t>(graph->nodes->count);
}

// Whether an operator of this graph works in fixed point.
inline bool zyn_cg_is_fixed_point(const zyn_cg_handle* graph) { return graph->fixed_point == 1; }

// Fills the rows of a zeroed operator table; 0.
int32_t zyn_cg_register_operators(zyn_cg_operator* operators);

// The record of a node, null when it has none or the id is out of range.
void* zyn_cg_record(const zyn_cg_handle* graph, int32_t node);

// Type of a bound node's record, -1 without one.
int32_t zyn_cg_node_type(const zyn_cg_handle* graph, int32_t node);

// What a consumer reads from a producer: a data node's tensor (types 0 and 2), else
// the producer's output tensor. Null when there is none (yet, or any more).
zyn_tensor* zyn_cg_producer_tensor(zyn_cg_handle* graph, int32_t producer);

// The predecessors of a node; null when no edge has named an id that far.
inline const zyn_darray* zyn_cg_inputs(const zyn_cg_handle* graph, int32_t node) {
  return node >= 0 && node < graph->list_count ? graph->predecessors[node] : nullptr;
}

// The nodes that read a node; null when no edge has named an id that far.
inline const zyn_darray* zyn_cg_readers(const zyn_cg_handle* graph, int32_t node) {
  return node >= 0 && node < graph->list_count ? graph->successors[node] : nullptr;
}

// Makes what the check of a graph finds wrong with a node this thread's explanation; false where it
// finds nothing.
bool zyn_cg_explain_node(const zyn_cg_handle* graph, int32_t node, bool is_run);

// Stores a fresh record and its run function for a node being bound.
void zyn_cg_install(zyn_cg_handle* graph, int32_t node, void* record, zyn_cg_run_fn run);

// Creates an operator's output: dim_count extents of the given type, with data
// (device types 1 to 3: a header only). Null when it cannot be made.
zyn_tensor* zyn_cg_create_output(const zyn_cg_handle* graph, int32_t dim_count, const int32_t* dims,
                                 uint32_t type);

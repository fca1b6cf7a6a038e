// The order of execution: Kahn's algorithm (A. B. Kahn, "Topological sorting of
// large networks", CACM 5, 1962) with a first-in first-out queue, so that the same
// edges in the same order always give the same result.
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "cg/cpu/zyn_cg.h"

namespace {

constexpr const char* kPath = "src/cg/cpu/zyn_cg_top_order.cpp";
constexpr zyn_site kSortArgs{kPath, 59, ZYN_MSG_PARA};
constexpr zyn_site kCycle{kPath, 108, "There exists a cycle in the graph"};
constexpr zyn_site kQueueMemory{kPath, 126, ZYN_MSG_MEMORY};
constexpr zyn_site kQueueFull{kPath, 161, ZYN_MSG_WAITING};

constexpr int32_t kCapacityFactor = 8;
constexpr int32_t kAbsent = INT32_MIN;  // in-degree of an id that is no node

// A ring buffer of node ids.
struct id_queue {
  int32_t* data;
  int32_t front;
  int32_t rear;
  int32_t size;
  int32_t capacity;
};

void enqueue(id_queue* queue, int32_t id) {
  if (queue->size == queue->capacity) {
    zyn_report(kQueueFull);
    return;
  }
  queue->rear = (queue->rear + 1) % queue->capacity;
  queue->data[queue->rear] = id;
  queue->size++;
}

int32_t dequeue(id_queue* queue) {
  queue->front = (queue->front + 1) % queue->capacity;
  queue->size--;
  return queue->data[queue->front];
}

// Counts the incoming edges of ids 0 to count - 1. Ids that no edge names, and edges
// to ids beyond, are passed over: the sort then ends short.
void count_inputs(const zyn_cg_handle* graph, int32_t count, int32_t* in_degree) {
  for (int32_t id = 0; id < count; id++) in_degree[id] = kAbsent;
  const int32_t* nodes = zyn_darray_ids(graph->nodes);
  for (int32_t i = 0; i < count; i++)
    if (nodes[i] < count && nodes[i] < graph->max_nodes) in_degree[nodes[i]] = 0;
  for (int32_t id = 0; id < count && id < graph->list_count; id++) {
    const zyn_darray* successors = graph->successors[id];
    for (int64_t i = 0; successors && i < successors->count; i++) {
      const int32_t successor = zyn_darray_ids(successors)[i];
      if (successor < count) in_degree[successor]++;
    }
  }
}

// Room for count ids and flags, keeping what an earlier sort left.
bool make_results(zyn_cg_handle* graph, int32_t count) {
  void* order = zyn_grow(graph->order, static_cast<int64_t>(count) * sizeof(int32_t));
  if (!order) return false;
  const int32_t held_ids = graph->order ? graph->sorted_count : 0;
  graph->order = static_cast<int32_t*>(order);
  void* bound = zyn_grow(graph->bound, (static_cast<int64_t>(count) + 1) * sizeof(int32_t));
  if (!bound) {
    if (!held_ids) {  // a fresh order without flags is no result
      zyn_free(graph->order);
      graph->order = nullptr;
    }
    return false;
  }
  const int32_t held_flags = graph->bound ? graph->sorted_count + 1 : 0;
  graph->bound = static_cast<int32_t*>(bound);
  for (int32_t i = held_ids; i < count; i++) graph->order[i] = 0;
  for (int32_t i = held_flags; i < count + 1; i++) graph->bound[i] = 0;
  if (graph->sorted_count < count) graph->sorted_count = count;
  return true;
}

// Takes ids off the queue in order; returns how many.
int32_t drain(zyn_cg_handle* graph, int32_t count, int32_t* in_degree, id_queue* queue) {
  int32_t taken = 0;
  while (queue->size > 0) {
    const int32_t id = dequeue(queue);
    graph->order[taken++] = id;
    const zyn_darray* successors = id < graph->list_count ? graph->successors[id] : nullptr;
    for (int64_t i = 0; successors && i < successors->count; i++) {
      const int32_t successor = zyn_darray_ids(successors)[i];
      if (successor < count && --in_degree[successor] == 0) enqueue(queue, successor);
    }
  }
  return taken;
}

}  // namespace

int32_t zyn_computation_graph_topo_sort(zyn_cg_handle* graph) {
  if (!graph) return zyn_fail_null(kSortArgs, "the graph");
  const int32_t count = zyn_cg_node_count(graph);
  if (count < 1) return ZYN_RET_OK;
  zyn_scratch<int32_t> in_degree(count);
  if (!in_degree) return ZYN_RET_ERR_MEMORY;
  zyn_scratch<id_queue> queue(1);
  if (!queue) return zyn_fail(kQueueMemory, ZYN_RET_ERR_MEMORY);
  zyn_scratch<int32_t> ring(static_cast<int64_t>(kCapacityFactor) * count);
  if (!ring || !make_results(graph, count)) return ZYN_RET_ERR_MEMORY;
  *queue.get() = {ring.get(), -1, -1, 0, kCapacityFactor * count};

  count_inputs(graph, count, in_degree.get());
  for (int32_t id = 0; id < count; id++)
    if (in_degree[id] == 0) enqueue(queue.get(), id);
  const int32_t sorted = drain(graph, count, in_degree.get(), queue.get());
  if (sorted != count)
    return zyn_refuse(
        zyn_fail(kCycle, ZYN_RET_ERR_UNKNOWN),
        "%d of %d nodes can be sorted: the edges lead in a circle, or the ids are not "
        "0 to %d (zyn_cg_check says which)",
        sorted, count, count - 1);
  return ZYN_RET_OK;
}

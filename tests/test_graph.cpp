// The graph engine: handle, edges, order, binding, and the loops that drive the
// operators, seen through a fake operator that logs its calls.
#include <immintrin.h>
#include <stddef.h>

#include <vector>

#include "cg/cpu/zyn_cg.h"
#include "support/buffers.h"
#include "support/capture.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;
using Edges = std::vector<std::pair<int32_t, int32_t>>;
using Ids = std::vector<int32_t>;

constexpr Reports core_report{"src/cg/cpu/zyn_cg_core.cpp"};
constexpr Reports order_report{"src/cg/cpu/zyn_cg_top_order.cpp"};
constexpr const char* kParams = "Params Error!\n";
constexpr const char* kCycle = "There exists a cycle in the graph";
constexpr const char* kFloatNotice = "zyn go to cpu backend!";

// The fake operator, type 6: every routine logs its letter and node, and answers with the
// code that a test sets for them.
constexpr int32_t kFake = 6;
struct FakeRecord {
  uint32_t type;
  int32_t node;
  zyn_tensor* output;
};
struct {
  std::string step_and_node;
  int32_t code;
} failing;
std::string calls;

int32_t log_call(char step, int32_t node) {
  const std::string call = step + std::to_string(node);
  calls += call + " ";
  return call == failing.step_and_node ? failing.code : 0;
}
int32_t node_of(const void* record) { return static_cast<const FakeRecord*>(record)->node; }
uint32_t state_of_runs;  // of the floating-point unit
int32_t fake_run(void* record) {
  state_of_runs = _mm_getcsr();
  return log_call('r', node_of(record));
}
int32_t fake_bind(zyn_cg_handle* graph, int32_t node, const void* param) {
  if (const int32_t code = log_call('b', node)) return code;
  auto* record = static_cast<FakeRecord*>(zyn_malloc(sizeof(FakeRecord)));
  if (!record) return 2;
  *record = {kFake, node, static_cast<zyn_tensor*>(const_cast<void*>(param))};
  zyn_cg_install(graph, node, record, fake_run);
  return 0;
}
int32_t fake_prepare(zyn_cg_handle*, int32_t node) { return log_call('p', node); }
int32_t fake_release(void** record) {
  const int32_t code = log_call('x', node_of(*record));
  if (code == 0) zyn_free(*record);
  return code;
}
zyn_tensor* fake_output(zyn_cg_handle* graph, int32_t node) {
  return static_cast<FakeRecord*>(zyn_cg_record(graph, node))->output;
}

// A graph with the fake operator in its table.
class Graph {
 public:
  explicit Graph(const Edges& edges = {}, int32_t max_nodes = 8) {
    calls.clear();
    failing = {};
    const zyn_cg_create_param param = {max_nodes, 1, {0, 0}, 0};
    printed([&] { handle = zyn_create_computation_graph_handle(&param); });
    handle->operators[kFake] = {fake_bind, fake_prepare, fake_release, fake_output, nullptr};
    for (const auto& [from, to] : edges) EXPECT_EQ(edge(from, to), 0);
  }
  ~Graph() { zyn_release_computation_graph_handle(&handle); }
  int32_t edge(int32_t from, int32_t to) {
    return zyn_add_one_edge_into_computation_graph(handle, from, to);
  }
  int32_t sort() { return zyn_computation_graph_topo_sort(handle); }
  int32_t bind(int32_t node, int32_t type = kFake, const void* param = nullptr) {
    const zyn_cg_node_desc desc = {type, nullptr, 0, nullptr, 0};
    return zyn_bind_operator_onto_computation_graph(handle, node, &desc, param);
  }
  // Sorts and binds every node to the fake operator.
  void ready() {
    EXPECT_EQ(sort(), 0);
    for (int32_t id = 0; id < zyn_cg_node_count(handle); id++) EXPECT_EQ(bind(id), 0);
    calls.clear();
  }
  int32_t prepare() { return zyn_prepare_inference_computation(handle); }
  int32_t run() { return zyn_computation_graph_inference(handle); }
  zyn_tensor* output(int32_t node) { return zyn_get_computation_node_inference_data(handle, node); }
  Ids order() const { return Ids(handle->order, handle->order + handle->sorted_count); }
  zyn_cg_handle* handle = nullptr;
};
Ids ids(const zyn_darray* list) {
  return Ids(zyn_darray_ids(list), zyn_darray_ids(list) + list->count);
}

// Others read the handle by the places of its fields; the library's own follow behind them.
#define AT(field, place) (offsetof(zyn_cg_handle, field) == (place))
static_assert(AT(max_nodes, 0) && AT(nodes, 8) && AT(records, 16) && AT(order, 24) &&
              AT(bound, 32) && AT(successors, 40) && AT(predecessors, 48) && AT(run, 56) &&
              AT(extras, 64) && AT(operators, 72) && AT(thread_count, 80) && AT(conv_method, 84) &&
              AT(prepared, 88) && AT(device_type, 92) && AT(device_context, 96) &&
              AT(fixed_point, 104) && AT(q_list, 112) && AT(record_count, 120));

TEST(GraphHandle, DefaultsSettingsAndNotices) {
  zyn_cg_handle* graph = nullptr;
  EXPECT_EQ(printed([&] { graph = zyn_create_computation_graph_handle(nullptr); }), kFloatNotice);
  EXPECT_EQ(zyn_add_one_edge_into_computation_graph(graph, 0, 255), 0);
  EXPECT_EQ(zyn_add_one_edge_into_computation_graph(graph, 0, 256), 1);
  EXPECT_EQ(graph->thread_count, 1u);
  EXPECT_EQ(graph->conv_method, 2u);
  EXPECT_EQ(zyn_cg_set_conv_method(graph, 1), 0);
  EXPECT_EQ(zyn_cg_set_conv_method(graph, 3), 1);
  EXPECT_EQ(graph->conv_method, 1u);
  EXPECT_EQ(zyn_cg_set_conv_method(nullptr, 0), 1);
  for (const zyn_cg_handle* of : {graph, static_cast<zyn_cg_handle*>(nullptr)}) {
    EXPECT_EQ(zyn_cg_get_dev_type(of), 0u);
    EXPECT_EQ(zyn_get_dev_context_from_cg_handle(of), nullptr);
  }
  EXPECT_EQ(zyn_release_computation_graph_handle(&graph), 0);
  EXPECT_EQ(zyn_release_computation_graph_handle(&graph), 2);  // null now
  EXPECT_EQ(zyn_release_computation_graph_handle(nullptr), 2);
  for (uint32_t word : {0u, 1u, 2u, 0xFFFFFFFFu}) {
    const zyn_cg_create_param param = {3, 7, {9, 9}, word};
    EXPECT_EQ(printed([&] { graph = zyn_create_computation_graph_handle(&param); }),
              word == 1 ? "zyn go to fixed point cpu backend!" : kFloatNotice);
    EXPECT_EQ(graph->thread_count, 7u);
    EXPECT_EQ(zyn_cg_is_fixed_point(graph), word == 1);
    zyn_release_computation_graph_handle(&graph);
  }
  for (int32_t none : {0, -1, INT32_MIN}) {
    const zyn_cg_create_param param = {none, 1, {0, 0}, 0};
    EXPECT_SAYS(zyn_create_computation_graph_handle(&param), nullptr, core_report(kMemory, 224));
  }
}

// What is asked for follows the nodes that edges name, not the maximum.
TEST(GraphHandle, HugeMaximaCostNothing) {
  const FailingAllocations rubbish(0);
  const uint64_t before = zyn_get_current_memory_size_occupation();
  Graph graph({}, INT32_MAX);
  EXPECT_LT(zyn_get_current_memory_size_occupation() - before, 100000u);
  for (int32_t id = 4999; id > 0; id--) ASSERT_EQ(graph.edge(id - 1, id), 0);
  EXPECT_EQ(ids(zyn_cg_inputs(graph.handle, 4999)), Ids{4998});
  EXPECT_EQ(graph.sort(), 0);
  EXPECT_EQ(graph.order()[4999], 4999);
  for (int32_t far : {1 << 20, INT32_MAX - 1}) {
    EXPECT_EQ(graph.edge(0, far), 0);
    EXPECT_EQ(zyn_cg_inputs(graph.handle, far), nullptr);
  }
  EXPECT_LT(zyn_get_current_memory_size_occupation() - before, 2000000u);
}

TEST(GraphHandle, FailedCreationIsReported) {
  const int lines[] = {224, 225, 227, 231, 232, 231, 232, 231, 232, 236};
  const zyn_cg_create_param param = {3, 1, {0, 0}, 0};
  const int64_t needed = for_each_failing_allocation([&](int64_t n, bool) {
    zyn_cg_handle* graph = nullptr;
    const std::string text = printed([&] { graph = zyn_create_computation_graph_handle(&param); });
    const bool silent = n == 1 || n > 11;
    EXPECT_EQ(text, graph ? kFloatNotice : silent ? "" : core_report(kMemory, lines[n - 2]));
    return zyn_release_computation_graph_handle(&graph) == 0;
  });
  EXPECT_EQ(needed, 11);
}

TEST(GraphHandle, QListIsHandedOverAndReplacedWithoutBeingFreed) {
  Graph graph;
  EXPECT_EQ(zyn_cg_get_q_from_list(graph.handle, 0), 0xFFFFFFFFu);
  EXPECT_EQ(zyn_cg_set_ptr_q_list(graph.handle, nullptr), 1);
  uint32_t* lists[2];  // the second goes with the graph
  for (uint32_t*& list : lists) {
    list = static_cast<uint32_t*>(zyn_malloc(8 * sizeof(uint32_t)));
    list[0] = 6, list[7] = 7;
    EXPECT_EQ(zyn_cg_set_ptr_q_list(nullptr, list), 1);
    EXPECT_EQ(zyn_cg_set_ptr_q_list(graph.handle, list), 0);
    EXPECT_EQ(zyn_cg_get_q_from_list(graph.handle, 0), 6u);
    EXPECT_EQ(zyn_cg_get_q_from_list(graph.handle, 7), 7u);
    list[0] = 1;
  }
  for (int32_t none : {-1, 8}) EXPECT_EQ(zyn_cg_get_q_from_list(graph.handle, none), 0xFFFFFFFFu);
  EXPECT_EQ(zyn_cg_get_q_from_list(nullptr, 0), 0xFFFFFFFFu);
  zyn_free(lists[0]);
}

// Nodes enter in order of appearance. Ids out of range are refused, but they stay.
TEST(GraphEdges, IdsOutOfRangeStayNodes) {
  Graph graph({{4, 1}, {1, 2}, {2, 4}, {0, 2}, {1, 2}});
  zyn_cg_handle* h = graph.handle;
  for (const auto& e : Edges{{1, 8}, {8, 0}, {INT32_MAX, 0}})
    EXPECT_SAYS(graph.edge(e.first, e.second), 1, "");
  for (const auto& e : Edges{{-1, 1}, {1, -1}})
    EXPECT_SAYS(graph.edge(e.first, e.second), 1, core_report(kPara, 535));
  EXPECT_SAYS(zyn_add_one_edge_into_computation_graph(nullptr, 0, 1), 1, core_report(kPara, 535));
  EXPECT_EQ(ids(h->nodes), (Ids{4, 1, 2, 0, 8, INT32_MAX}));
  EXPECT_EQ(ids(zyn_cg_inputs(h, 2)), (Ids{1, 0, 1}));
  EXPECT_EQ(ids(zyn_cg_inputs(h, 0)), Ids{});
  for (int32_t none : {-1, 8}) EXPECT_EQ(zyn_cg_inputs(h, none), nullptr);
  EXPECT_SAYS(graph.sort(), 32, order_report(kCycle, 108));
}

TEST(GraphOrder, CyclesAndGapsAreRefused) {
  const Edges cases[] = {{{0, 0}},
                         {{0, 5}},           // ids with gaps, the second node beyond the count
                         {{1, 2}},           // no node 0
                         {{0, 7}, {7, 1}}};  // 0, 1 and 7
  for (const Edges& edges : cases) {
    Graph graph(edges);
    EXPECT_SAYS(graph.sort(), 32, order_report(kCycle, 108));
  }
  Graph cycle({{0, 1}, {1, 2}, {2, 1}});
  printed([&] { cycle.sort(); });
  EXPECT_EQ(cycle.order(), (Ids{0, 0, 0}));  // what was dequeued, the rest as it was
  EXPECT_SAYS(zyn_computation_graph_topo_sort(nullptr), 1, order_report(kPara, 59));
  EXPECT_EQ(Graph().sort(), 0);
}

// First in, first out, the lower id first, over edges in the order of their adding.
Ids queue_order(const Edges& edges, int32_t count) {
  Ids open(static_cast<size_t>(count), 0), order;
  for (const auto& edge : edges) open.at(edge.second)++;
  for (int32_t id = 0; id < count; id++)
    if (open[id] == 0) order.push_back(id);
  for (size_t k = 0; k < order.size(); k++)
    for (const auto& [from, to] : edges)
      if (from == order[k] && --open[to] == 0) order.push_back(to);
  return order;
}

TEST(GraphOrder, RandomGraphsFollowTheQueueAndCyclesAreSaid) {
  for (uint64_t seed = 1; seed <= 200; seed++) {
    Random random(seed);
    const int32_t count = random.integer(2, 40);
    Ids label(1, 0);  // hidden order of the ids
    for (int32_t i = 1; i < count; i++) label.insert(label.begin() + random.integer(0, i), i);
    Edges edges;
    for (int32_t i = 1; i < count; i++)
      for (int32_t k = random.integer(1, 4); k > 0; k--)
        edges.push_back({label[random.integer(0, i - 1)], label[i]});
    Graph graph(edges, count);
    for (int again : {0, 1}) {  // in the same arrays
      ASSERT_EQ(graph.sort(), 0) << seed << " " << again;
      ASSERT_EQ(graph.order(), queue_order(edges, count)) << seed;
    }
    // The last edge back closes a cycle.
    graph.edge(edges.back().second, edges.back().first);
    EXPECT_SAYS(graph.sort(), 32, order_report(kCycle, 108)) << seed;
  }
}

// Later nodes find room, or are refused, whatever a failure in the sort (of five requests),
// the first binding (five arrays and the record) or the second one (a copy of its record,
// and its state) left.
TEST(GraphOrder, FailedAllocationsLeaveAGraphThatWorksLater) {
  constexpr int32_t kCodes[3][4] = {{2, 1, 1, 1}, {0, 2, 0, 0}, {0, 0, 2, 1}};
  for (int n = 1; n <= 12; n++) {
    SCOPED_TRACE(n);
    const int32_t* codes = kCodes[n <= 5 ? 0 : n <= 11 ? 1 : 2];
    const std::string unsorted = n <= 5 ? core_report(kParams, 680) : "";
    Graph graph({{0, 1}});
    const FailingAllocations memory(n);
    EXPECT_SAYS(graph.sort(), codes[0], n == 2 ? order_report(kMemory, 126) : "");
    EXPECT_SAYS(graph.bind(0), codes[1], unsorted);
    EXPECT_SAYS(graph.bind(1, 0), codes[2], unsorted);
    FailingAllocations::fail(0, false);  // new memory is rubbish
    EXPECT_SAYS(graph.run(), codes[3], n == 12 ? "failed to inference: 0!!!" : "");
    EXPECT_EQ(graph.sort(), 0);
    EXPECT_EQ(graph.order(), (Ids{0, 1}));
    for (int32_t id = 2; id < 8; id++) EXPECT_EQ(graph.edge(id - 1, id), 0);
    printed([&] {
      EXPECT_EQ(graph.sort(), 0);
      for (int32_t id = 2; id < 8; id++) EXPECT_EQ(graph.bind(id), n <= 5 ? 0 : 1);
      graph.prepare();
      graph.run();
    });
  }
}

TEST(GraphBinding, RefusalsAreReported) {
  Graph graph({{0, 1}, {1, 2}});
  zyn_cg_handle* h = graph.handle;
  const std::string params = core_report(kParams, 675), node = core_report(kParams, 680);
  const zyn_cg_node_desc desc = {kFake, nullptr, 0, nullptr, 0};
  EXPECT_SAYS(graph.bind(0), 1, node);  // no sort
  EXPECT_EQ(graph.sort(), 0);
  EXPECT_SAYS(zyn_bind_operator_onto_computation_graph(nullptr, 0, &desc, nullptr), 1, params);
  EXPECT_SAYS(zyn_bind_operator_onto_computation_graph(h, 0, nullptr, nullptr), 1, params);
  for (int32_t type : {41, -1}) EXPECT_SAYS(graph.bind(0, type), 1, params);
  for (int32_t id : {3, -1, 8, INT32_MAX}) EXPECT_SAYS(graph.bind(id), 1, node) << id;
  EXPECT_SAYS(Graph().bind(0), 1, node);  // no nodes at all
  // A routine that fails, or none, leaves the node bound, without a record.
  failing = {"b2", 77};
  for (const auto& bound : Edges{{1, 0}, {2, 77}, {0, 0}}) {
    const int id = bound.first, code = bound.second;
    EXPECT_EQ(graph.bind(id, id == 0 ? 14 : kFake), code);
    EXPECT_EQ(zyn_cg_record(h, id) != nullptr, id == 1);
    EXPECT_SAYS(graph.bind(id), 1,
                core_report("Params Error!", 684) + "the " + std::to_string(id) +
                    " th node operator has been bound!\n");
  }
  EXPECT_EQ(calls, "b1 b2 ");
}

TEST(GraphBinding, DataNodesKeepACopyWithoutTheExtraField) {
  Graph graph({{0, 3}, {1, 3}, {2, 3}});
  EXPECT_EQ(graph.sort(), 0);
  zyn_tensor tensor{};
  for (int32_t type = 0; type < 3; type++) {
    zyn_cg_node_desc desc = {type, &tensor, 11, &tensor, 22};
    EXPECT_EQ(zyn_bind_operator_onto_computation_graph(graph.handle, type, &desc, &tensor), 0);
    const auto* record = static_cast<zyn_cg_data_record*>(zyn_cg_record(graph.handle, type));
    desc.extra = nullptr;
    EXPECT_TRUE(same_bytes(record, &desc, sizeof(desc)));
    EXPECT_EQ(zyn_cg_producer_tensor(graph.handle, type), type == 1 ? nullptr : &tensor);
    EXPECT_SAYS(graph.output(type), nullptr, "");
  }
  EXPECT_EQ(graph.bind(3, 1), 0);
  EXPECT_EQ(graph.prepare() + graph.run(), 0);
}

TEST(GraphDriver, EveryStepFollowsTheOrderUpToAFailure) {
  {
    Graph graph({{2, 1}, {1, 0}});
    graph.ready();
    failing = {"p1", 5};
    EXPECT_SAYS(graph.prepare(), 5, "failed to prepare inference node:1!!!");
    EXPECT_EQ(graph.handle->prepared, 0u);
    EXPECT_SAYS(graph.run(), 1, "failed to inference: 1!!!");  // never half-prepared
    failing = {"r1", 300};
    EXPECT_EQ(graph.prepare(), 0);
    EXPECT_EQ(graph.handle->prepared, 1u);
    EXPECT_SAYS(graph.run(), 300, "failed to inference: 1!!!");
    failing = {};
    EXPECT_EQ(graph.run(), 0);
    EXPECT_EQ(calls, "p2 p1 r2 p2 p1 p0 r2 r1 r2 r1 r0 ");
    calls.clear();
  }
  EXPECT_EQ(calls, "x0 x1 x2 ");  // release goes by id
}

TEST(GraphDriver, RunsFlushDenormalsAndGiveTheCallersStateBack) {
  Graph graph({{0, 1}});
  graph.ready();
  const uint32_t usual = _mm_getcsr(), upwards = usual | 0x4000;
  EXPECT_EQ(graph.prepare(), 0);
  for (uint32_t state : {usual, upwards, usual | 0x8000})
    for (const char* at : {"", "r0"}) {
      failing = {at, 7};
      _mm_setcsr(state);
      EXPECT_EQ(printed([&] { graph.run(); }).empty(), *at == 0);
      const uint32_t left = _mm_getcsr();
      _mm_setcsr(usual);
      EXPECT_EQ(left, state);
      EXPECT_EQ(state_of_runs, state | 0x8040);
    }
}

// A release routine that fails ends the loop: the records after it are left.
TEST(GraphDriver, AFailingReleaseLeavesTheLaterRecords) {
  void* left[2];
  {
    Graph graph({{0, 1}, {1, 2}});
    graph.ready();
    failing = {"x1", 1};
    for (int32_t id : {1, 2}) left[id - 1] = zyn_cg_record(graph.handle, id);
  }
  EXPECT_EQ(calls, "x0 x1 ");
  for (void* record : left) zyn_free(record);
}

TEST(GraphDriver, GraphsThatAreNotReadyAreRefused) {
  EXPECT_SAYS(zyn_prepare_inference_computation(nullptr), 1, core_report(kParams, 701));
  EXPECT_SAYS(zyn_computation_graph_inference(nullptr), 1, core_report(kParams, 741));
  Graph empty;
  EXPECT_EQ(empty.prepare() + empty.run(), 0);
  EXPECT_EQ(empty.handle->prepared, 1u);
  Graph graph({{0, 1}, {1, 2}});
  EXPECT_EQ(graph.prepare(), 1);  // not sorted
  EXPECT_EQ(graph.run(), 1);
  EXPECT_EQ(graph.sort(), 0);
  EXPECT_EQ(graph.run(), 0);  // nothing bound, nothing to run
  graph.bind(0);
  graph.bind(2);
  graph.handle->prepared = 0;
  EXPECT_SAYS(graph.prepare(), 1, "");
  EXPECT_EQ(graph.handle->prepared, 1u);  // as the unbound node leaves it
  EXPECT_SAYS(graph.run(), 1, "failed to inference: 2!!!");
  EXPECT_EQ(calls, "b0 b2 p0 r0 ");
  // Nodes added after the first binding have no room and stay unbound.
  graph.bind(1);
  EXPECT_EQ(graph.edge(2, 3), 0);
  EXPECT_EQ(graph.prepare(), 1);
  EXPECT_EQ(graph.sort(), 0);
  EXPECT_SAYS(graph.bind(3), 1, core_report(kParams, 680));
  EXPECT_EQ(graph.prepare(), 1);
  EXPECT_EQ(graph.run(), 0);
}

TEST(GraphOutput, OnlyBoundOperatorsHaveOne) {
  Graph graph({{0, 1}, {1, 2}});
  zyn_tensor tensor{};
  EXPECT_SAYS(graph.output(0), nullptr, core_report(kParams, 810));
  EXPECT_EQ(graph.sort(), 0);
  EXPECT_EQ(graph.bind(0, 1), 0);
  EXPECT_EQ(graph.bind(1, kFake, &tensor), 0);
  EXPECT_EQ(graph.output(1), &tensor);
  EXPECT_EQ(zyn_cg_producer_tensor(graph.handle, 1), &tensor);
  EXPECT_EQ(zyn_cg_producer_tensor(graph.handle, 2), nullptr);
  EXPECT_SAYS(zyn_get_computation_node_inference_data(nullptr, 0), nullptr,
              core_report(kParams, 797));
  for (int32_t id : {-1, 4}) EXPECT_SAYS(graph.output(id), nullptr, core_report(kParams, 804));
  // Unbound, and one past the last: the spare record.
  for (int32_t id : {2, 3}) EXPECT_SAYS(graph.output(id), nullptr, core_report(kParams, 810));
  EXPECT_SAYS(graph.output(0), nullptr, "");  // no output slot
  graph.handle->bound[1] = 0;
  EXPECT_SAYS(graph.output(1), nullptr, "");  // flag taken away
}

}  // namespace

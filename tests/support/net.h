// Networks for tests of the operators: arrays of doubles as the values of nodes, and a
// builder that collects nodes and edges and then makes the graph through the exported
// functions. Data nodes lie before an inaccessible page.
#pragma once

#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "support/buffers.h"
#include "support/capture.h"
#include "zyncore_net.h"

namespace zyn_test {

// A block of values, dims[0] running fastest, always in planar order.
struct Array {
  std::vector<int> dims;
  std::vector<double> v;

  Array() = default;
  explicit Array(std::vector<int> d, double fill = 0) : dims(d), v(size_of(d), fill) {}
  static size_t size_of(const std::vector<int>& d) {
    size_t size = 1;
    for (int extent : d) size *= static_cast<size_t>(extent);
    return size;
  }
  int extent(size_t d) const { return d < dims.size() ? dims[d] : 1; }
  int w() const { return extent(0); }
  int h() const { return extent(1); }
  int c() const { return extent(2); }
  int planes() const { return c() * extent(3) * extent(4); }
  size_t index(int x, int y, int z) const {
    return (static_cast<size_t>(z) * static_cast<size_t>(h()) + static_cast<size_t>(y)) *
               static_cast<size_t>(w()) +
           static_cast<size_t>(x);
  }
  double& at(int x, int y, int z) { return v[index(x, y, z)]; }
  double at(int x, int y, int z) const { return v[index(x, y, z)]; }
};

// Calls f(x, y, z) for every element of a block, z counting planes of further extents too.
template <typename Function>
void for_each_element(const Array& a, Function f) {
  for (int z = 0; z < a.planes(); z++)
    for (int y = 0; y < a.h(); y++)
      for (int x = 0; x < a.w(); x++) f(x, y, z);
}

inline Array random_array(Random& random, std::vector<int> dims, float low = -2, float high = 2) {
  Array a(dims);
  for (double& v : a.v) v = static_cast<double>(random.real(low, high));
  return a;
}

// Where element (x, y, z) lies in a block of channel order layout: channels in groups.
inline size_t place(const Array& a, int x, int y, int z, uint32_t layout) {
  const int eights = a.c() / 8 * 8, four = a.c() % 8 / 4 * 4, c = z % a.c();
  int group = layout == ZYN_LAYOUT_INTERLEAVED ? a.c() : 1;
  if (layout == ZYN_LAYOUT_BLOCKED && c < eights + four) group = c < eights ? 8 : 4;
  return a.index(0, 0, z - c % group) + static_cast<size_t>(group) * a.index(x, y, 0) +
         static_cast<size_t>(c % group);
}

// One network. Add nodes in the order of their ids, then make(). Graph inputs of
// fixed-point networks hold 16-bit integers.
class Net {
 public:
  explicit Net(uint32_t fixed_point = 0) : settings_{256, 1, {0, 0}, fixed_point} {}
  ~Net() {
    zyn_release_computation_graph_handle(&graph_);
    for (Node& node : nodes_)
      if (node.tensor) zyn_release_tensor(&node.tensor);
  }
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;

  int input(const Array& a, uint32_t layout = 0) { return add_data(ZYN_OP_INPUT, a, layout); }
  int constant(const Array& a) { return add_data(ZYN_OP_CONSTANT, a, 0); }
  // A data node for a tensor of the test's making, released with the net.
  int tensor(int type, zyn_tensor* own) {
    nodes_.push_back({type, {}, {}, own, nullptr});
    return static_cast<int>(nodes_.size()) - 1;
  }
  bool is_input(int id) const { return nodes_[id].type == ZYN_OP_INPUT; }
  bool is_constant(int id) const { return nodes_[id].type == ZYN_OP_CONSTANT; }
  // An operator with its record (copied; lists it points at must outlive make()).
  template <typename Record>
  int op(int type, const Record& record, std::vector<int> from) {
    const int id = op(type, from);
    nodes_.back().record.resize(sizeof(Record));
    memcpy(nodes_.back().record.data(), &record, sizeof(Record));
    return id;
  }
  int op(int type, std::vector<int> from) {
    nodes_.push_back({type, from, {}, nullptr, nullptr});
    return static_cast<int>(nodes_.size()) - 1;
  }

  // Creates, connects and sorts. What a call prints is swallowed here and below; tests of
  // texts capture themselves.
  int32_t connect() {
    printed([&] { graph_ = zyn_create_computation_graph_handle(&settings_); });
    if (!graph_) return ZYN_RET_ERR_MEMORY;
    zyn_cg_set_conv_method(graph_, method_);
    for (size_t id = 0; id < nodes_.size(); id++)
      for (int from : nodes_[id].from)
        zyn_add_one_edge_into_computation_graph(graph_, from, static_cast<int32_t>(id));
    return zyn_computation_graph_topo_sort(graph_);
  }
  // Binds every node; 0 or the first code that is not.
  int32_t bind() {
    for (size_t id = 0; id < nodes_.size(); id++) {
      const Node& node = nodes_[id];
      const zyn_cg_node_desc desc = {node.type, node.tensor, 0, nullptr, 0};
      const int32_t code = zyn_bind_operator_onto_computation_graph(
          graph_, static_cast<int32_t>(id), &desc,
          node.record.empty() ? nullptr : node.record.data());
      if (code) return code;
    }
    return 0;
  }
  int32_t make() {
    const int32_t code = connect();
    return code ? code : bind();
  }
  int32_t prepare() { return quietly(zyn_prepare_inference_computation); }
  int32_t run() { return quietly(zyn_computation_graph_inference); }
  // make, prepare, run: the first code that is not 0.
  int32_t go() {
    int32_t code = make();
    if (!code) code = prepare();
    return code ? code : run();
  }

  zyn_tensor* output_tensor(int id) {
    zyn_tensor* tensor = nodes_[id].tensor;
    return tensor ? tensor : zyn_get_computation_node_inference_data(graph_, id);
  }
  // An operator's output, or a data node's tensor, in planar order.
  Array output(int id) { return read(output_tensor(id)); }
  static Array read(const zyn_tensor* tensor) {
    if (!tensor || !tensor->data) return Array();
    Array a(std::vector<int>(tensor->dims, tensor->dims + tensor->dim_count));
    for_each_element(a, [&](int x, int y, int z) {
      const size_t i = place(a, x, y, z, tensor->layout);
      a.at(x, y, z) = tensor->type == ZYN_TYPE_FPI16
                          ? static_cast<const int16_t*>(tensor->data)[i]
                          : static_cast<double>(static_cast<const float*>(tensor->data)[i]);
    });
    return a;
  }
  // Refills a data node in the layout that it has.
  void fill(int id, const Array& a) {
    zyn_tensor* tensor = output_tensor(id);
    for_each_element(a, [&](int x, int y, int z) {
      const size_t i = place(a, x, y, z, tensor->layout);
      if (tensor->type == ZYN_TYPE_FPI16)
        static_cast<int16_t*>(tensor->data)[i] = static_cast<int16_t>(a.at(x, y, z));
      else
        static_cast<float*>(tensor->data)[i] = static_cast<float>(a.at(x, y, z));
    });
  }
  zyn_cg_handle* graph() { return graph_; }
  // Gives the made graph a Q list: q for every node, other values by id.
  uint32_t* q_list(uint32_t q, std::vector<std::pair<int, uint32_t>> others = {}) {
    auto* list = static_cast<uint32_t*>(zyn_malloc(settings_.max_nodes * 4));
    for (int i = 0; i < settings_.max_nodes; i++) list[i] = q;
    for (const auto& [id, value] : others) list[id] = value;
    zyn_cg_set_ptr_q_list(graph_, list);
    return list;
  }
  void method(uint32_t method) { method_ = method; }

 private:
  struct Node {
    int type;
    std::vector<int> from;
    std::vector<uint8_t> record;
    zyn_tensor* tensor;  // of a data node
    std::unique_ptr<PageEnd<uint8_t>> block;
  };

  int32_t quietly(int32_t (*call)(zyn_cg_handle*)) {
    int32_t code = 0;
    printed([&] { code = call(graph_); });
    return code;
  }

  int add_data(int type, const Array& a, uint32_t layout) {
    const bool fixed = settings_.fixed_point == 1 && type == ZYN_OP_INPUT;
    const auto dim_count = static_cast<int32_t>(a.dims.size());
    zyn_tensor* t =
        zyn_create_tensor_header(dim_count, a.dims.data(), fixed ? ZYN_TYPE_FPI16 : ZYN_TYPE_F32);
    const int id = tensor(type, t);
    nodes_[id].block = std::make_unique<PageEnd<uint8_t>>(static_cast<size_t>(t->byte_size));
    zyn_set_tensor_data(t, nodes_[id].block->data(), t->byte_size);
    t->layout = layout;
    fill(id, a);
    return id;
  }

  zyn_cg_create_param settings_;
  zyn_cg_handle* graph_ = nullptr;
  uint32_t method_ = 2;
  std::vector<Node> nodes_;
};

// Whether two blocks agree within bound times the size of the values; says where not.
inline ::testing::AssertionResult agrees(const Array& got, const Array& expected, double bound) {
  auto failure = ::testing::AssertionFailure() << ::testing::PrintToString(got.dims) << " ";
  if (got.dims != expected.dims)
    return failure << "instead of " << ::testing::PrintToString(expected.dims);
  double size = 1;
  for (double v : expected.v)
    if (std::isfinite(v)) size = std::max(size, std::fabs(v));
  for (size_t i = 0; i < got.v.size(); i++) {
    const double g = got.v[i], e = expected.v[i];
    const bool same = std::isnan(e) ? std::isnan(g) : g == e || std::fabs(g - e) <= bound * size;
    if (!same) return failure << "element " << i << ": " << g << ", expected " << e;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace zyn_test

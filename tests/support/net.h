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
#include "zyncore.h"

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
  size_t index(int x, int y, int z) const {
    return (static_cast<size_t>(z) * static_cast<size_t>(h()) + static_cast<size_t>(y)) *
               static_cast<size_t>(w()) +
           static_cast<size_t>(x);
  }
  double& at(int x, int y, int z) { return v[index(x, y, z)]; }
  double at(int x, int y, int z) const { return v[index(x, y, z)]; }
};

// Calls f(x, y, z) for every element of a block.
template <typename Function>
void for_each_element(const Array& a, Function f) {
  for (int z = 0; z < a.c(); z++)
    for (int y = 0; y < a.h(); y++)
      for (int x = 0; x < a.w(); x++) f(x, y, z);
}

inline Array random_array(Random& random, std::vector<int> dims, float low = -2, float high = 2) {
  Array a(dims);
  for (double& v : a.v) v = static_cast<double>(random.real(low, high));
  return a;
}

// Where element (x, y, z) lies in a block of channel order layout.
inline size_t place(const Array& a, int x, int y, int z, uint32_t layout) {
  const size_t pixels = static_cast<size_t>(a.w()) * static_cast<size_t>(a.h());
  const size_t pixel = static_cast<size_t>(y) * static_cast<size_t>(a.w()) + static_cast<size_t>(x);
  if (layout == ZYN_LAYOUT_INTERLEAVED)
    return pixel * static_cast<size_t>(a.c()) + static_cast<size_t>(z);
  int first = 0, group = 1;
  for (int left = a.c(); layout == ZYN_LAYOUT_BLOCKED; first += group, left -= group) {
    group = left >= 8 ? 8 : left >= 4 ? 4 : 1;
    if (z < first + group)
      return static_cast<size_t>(first) * pixels + pixel * static_cast<size_t>(group) +
             static_cast<size_t>(z - first);
  }
  return a.index(x, y, z);
}

// One network. Add nodes in the order of their ids, then make(). Graph inputs of
// fixed-point networks hold 16-bit integers.
class Net {
 public:
  explicit Net(uint32_t fixed_point = 0) : settings_{256, 1, {0, 0}, fixed_point} {}
  ~Net() {
    if (graph_) {
      EXPECT_EQ(zyn_release_computation_graph_handle(&graph_), 0);
    }
    for (Data& data : data_)
      if (data.block) zyn_release_tensor(&data.tensor);
  }
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;

  int input(const Array& a, uint32_t layout = 0) { return add_data(ZYN_OP_INPUT, a, layout); }
  int constant(const Array& a) { return add_data(ZYN_OP_CONSTANT, a, 0); }
  // A data node for a tensor of the test's own.
  int tensor(int type, zyn_tensor* own) {
    nodes_.push_back({type, {}, {}, static_cast<int>(data_.size())});
    data_.push_back({own, nullptr});
    return static_cast<int>(nodes_.size()) - 1;
  }
  bool is_data(int id) const { return nodes_[id].data >= 0; }
  bool is_input(int id) const { return nodes_[id].type == ZYN_OP_INPUT; }
  // An operator with its record (copied; lists it points at must outlive make()).
  template <typename Record>
  int op(int type, const Record& record, std::vector<int> from) {
    const int id = op(type, from);
    nodes_.back().record.resize(sizeof(Record));
    memcpy(nodes_.back().record.data(), &record, sizeof(Record));
    return id;
  }
  int op(int type, std::vector<int> from) {
    nodes_.push_back({type, {}, from, -1});
    return static_cast<int>(nodes_.size()) - 1;
  }

  // Creates, connects and sorts.
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
      zyn_cg_node_desc desc = {};
      desc.type = node.type;
      if (node.data >= 0) desc.data = data_[node.data].tensor;
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
  // What a call prints on failure is swallowed here; tests of texts capture themselves.
  int32_t prepare() {
    int32_t code = 0;
    printed([&] { code = zyn_prepare_inference_computation(graph_); });
    return code;
  }
  int32_t run() {
    int32_t code = 0;
    printed([&] { code = zyn_computation_graph_inference(graph_); });
    return code;
  }
  // make, prepare, run: the first code that is not 0.
  int32_t go() {
    int32_t code = make();
    if (!code) code = prepare();
    return code ? code : run();
  }

  // An operator's output, or a data node's tensor, in planar order.
  Array output(int id) { return read(output_tensor(id)); }
  zyn_tensor* output_tensor(int id) {
    const Node& node = nodes_[id];
    return node.data >= 0 ? data_[node.data].tensor
                          : zyn_get_computation_node_inference_data(graph_, id);
  }
  // Refills a data node in the layout that it has.
  void fill(int id, const Array& a) {
    Data& data = data_[nodes_[id].data];
    write(data, a);
  }
  static Array read(const zyn_tensor* tensor) {
    if (!tensor || !tensor->data) return Array();
    Array a(std::vector<int>(tensor->dims, tensor->dims + tensor->dim_count));
    const float* values = static_cast<const float*>(tensor->data);
    const int16_t* words = static_cast<const int16_t*>(tensor->data);
    const bool fixed = tensor->type == ZYN_TYPE_FPI16;
    for_each_element(a, [&](int x, int y, int z) {
      const size_t i = place(a, x, y, z, tensor->layout);
      a.at(x, y, z) = fixed ? words[i] : static_cast<double>(values[i]);
    });
    return a;
  }
  zyn_cg_handle* graph() { return graph_; }
  // Gives the made graph a Q list: q for every node, other values by id.
  uint32_t* q_list(uint32_t q, std::vector<std::pair<int, uint32_t>> others = {}) {
    auto* list = static_cast<uint32_t*>(zyn_malloc(settings_.max_nodes * 4));
    if (!list) return nullptr;
    for (int i = 0; i < settings_.max_nodes; i++) list[i] = q;
    for (const auto& [id, value] : others) list[id] = value;
    zyn_cg_set_ptr_q_list(graph_, list);
    return list;
  }
  void method(uint32_t method) { method_ = method; }
  size_t size() const { return nodes_.size(); }

 private:
  struct Data {
    zyn_tensor* tensor;
    std::unique_ptr<PageEnd<uint8_t>> block;
  };
  struct Node {
    int type;
    std::vector<uint8_t> record;
    std::vector<int> from;
    int data;
  };

  static void write(Data& data, const Array& a) {
    float* values = static_cast<float*>(data.tensor->data);
    int16_t* words = static_cast<int16_t*>(data.tensor->data);
    for_each_element(a, [&](int x, int y, int z) {
      const size_t i = place(a, x, y, z, data.tensor->layout);
      if (data.tensor->type == ZYN_TYPE_FPI16)
        words[i] = static_cast<int16_t>(a.at(x, y, z));
      else
        values[i] = static_cast<float>(a.at(x, y, z));
    });
  }

  int add_data(int type, const Array& a, uint32_t layout) {
    const bool fixed = settings_.fixed_point == 1 && type == ZYN_OP_INPUT;
    const size_t bytes = (fixed ? 2 : 4) * a.v.size();
    Data data = {zyn_create_tensor_header(static_cast<int32_t>(a.dims.size()), a.dims.data(),
                                          fixed ? ZYN_TYPE_FPI16 : ZYN_TYPE_F32),
                 std::make_unique<PageEnd<uint8_t>>(bytes)};
    zyn_set_tensor_data(data.tensor, data.block->data(), static_cast<int64_t>(bytes));
    data.tensor->layout = layout;
    write(data, a);
    data_.push_back(std::move(data));
    nodes_.push_back({type, {}, {}, static_cast<int>(data_.size()) - 1});
    return static_cast<int>(nodes_.size()) - 1;
  }

  zyn_cg_create_param settings_;
  zyn_cg_handle* graph_ = nullptr;
  uint32_t method_ = 2;
  std::vector<Data> data_;
  std::vector<Node> nodes_;
};

// Whether two blocks agree within bound times the size of the values; says where not.
inline ::testing::AssertionResult agrees(const Array& got, const Array& expected, double bound) {
  if (got.dims != expected.dims)
    return ::testing::AssertionFailure()
           << "shape " << ::testing::PrintToString(got.dims) << ", expected "
           << ::testing::PrintToString(expected.dims);
  double size = 1;
  for (double v : expected.v)
    if (std::isfinite(v)) size = std::max(size, std::fabs(v));
  for (size_t i = 0; i < got.v.size(); i++) {
    const double g = got.v[i], e = expected.v[i];
    const bool same = std::isnan(e) ? std::isnan(g) : g == e || std::fabs(g - e) <= bound * size;
    if (!same)
      return ::testing::AssertionFailure()
             << "element " << i << " of " << ::testing::PrintToString(got.dims) << ": " << g
             << ", expected " << e;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace zyn_test

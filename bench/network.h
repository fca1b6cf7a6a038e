// Graphs of convolutions through the exported functions. A Network is made from a list of
// layers: every layer is a fused convolution with bias and ReLU (type 12) on the latest
// layer whose output has its input shape, so that heads branch off, or on an input of its own
// (peers::wire). Weights are seeded, scaled to keep the values' size from layer to layer.
#pragma once

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "measure.h"
#include "zyncore.h"

namespace bench {

// In place of a convolution method: 16-bit fixed point, kNetworkFractionBits in every node of
// a network (few enough that the values of the scaled ones, up to some hundreds, do not wrap).
constexpr uint32_t kFixedPoint = 3;
constexpr uint32_t kNetworkFractionBits = 5;

struct Tensor {
  zyn_tensor* t = nullptr;
  Tensor(const std::vector<int32_t>& dims, uint32_t type = ZYN_TYPE_F32)
      : t(zyn_create_tensor(static_cast<int32_t>(dims.size()), dims.data(), type)) {}
  Tensor(const Tensor&) = delete;
  Tensor& operator=(const Tensor&) = delete;
  ~Tensor() {
    if (t) zyn_release_tensor(&t);
  }
  float* data() const { return static_cast<float*>(t->data); }
};

// Where element i of the planar order lies in a tensor {W, H, C} of channel blocks:
// groups of 8 channels, then 4, then single ones, interleaved within a group.
inline size_t blocked_index(const zyn_tensor* t, size_t i) {
  const size_t pixels = static_cast<size_t>(t->dims[0]) * t->dims[1];
  const size_t c = i / pixels, pixel = i % pixels, channels = static_cast<size_t>(t->dims[2]);
  const size_t eights = channels / 8 * 8, fours = channels / 4 * 4;
  const size_t group = c < eights ? 8 : c < fours ? 4 : 1;
  const size_t begin = c < eights ? c / 8 * 8 : c < fours ? eights : c;
  return begin * pixels + pixel * group + (c - begin);
}

inline void make_blocked(zyn_tensor* t) {
  auto* data = static_cast<float*>(t->data);
  const std::vector<float> planar(data, data + t->count);
  for (size_t i = 0; i < planar.size(); i++) data[blocked_index(t, i)] = planar[i];
  zyn_set_tensor_channel_layout(t, ZYN_LAYOUT_BLOCKED);
}

// A convolution of a graph: from is the index of the node that it reads, -1 - j input j.
struct Node {
  int from;
  int32_t type;
  zyn_conv_param param;
  zyn_tensor* constant;
};

// Inputs and convolutions behind them. Inputs and constants stay the caller's and outlive
// the graph. Input 0 has id 0, node i the id 2 i + 2, its constant the one before; further
// inputs follow behind the nodes.
class Graph {
 public:
  Graph() = default;
  Graph(const Graph&) = delete;
  Graph& operator=(const Graph&) = delete;
  ~Graph() {
    if (graph_) zyn_release_computation_graph_handle(&graph_);
  }
  // Whether the graph could be made and prepared; in fixed point with the fraction bits q of
  // the inputs and of every node, kNetworkFractionBits where there are none.
  bool create(zyn_tensor* input, const std::vector<Node>& nodes, uint32_t method,
              const std::vector<uint32_t>& q = {}) {
    return create(std::vector<zyn_tensor*>{input}, nodes, method, q);
  }
  bool create(const std::vector<zyn_tensor*>& inputs, const std::vector<Node>& nodes,
              uint32_t method, const std::vector<uint32_t>& q = {}) {
    node_count_ = nodes.size();
    zyn_cg_create_param settings = {};
    settings.max_nodes = static_cast<int32_t>(2 * nodes.size() + inputs.size());
    settings.thread_count = 1;
    settings.fixed_point = method == kFixedPoint;
    graph_ = zyn_create_computation_graph_handle(&settings);
    if (!graph_) return false;
    if (method == kFixedPoint ? !give_fraction_bits(settings.max_nodes, q)
                              : zyn_cg_set_conv_method(graph_, method) != ZYN_RET_OK)
      return false;
    for (size_t i = 0; i < nodes.size(); i++)
      if (zyn_add_one_edge_into_computation_graph(graph_, id(nodes[i].from), id(i)) ||
          zyn_add_one_edge_into_computation_graph(graph_, id(i) - 1, id(i)))
        return false;
    if (zyn_computation_graph_topo_sort(graph_)) return false;
    for (size_t j = 0; j < inputs.size(); j++)
      if (!bind(id(-1 - static_cast<int>(j)), ZYN_OP_INPUT, inputs[j], nullptr)) return false;
    for (size_t i = 0; i < nodes.size(); i++)
      if (!bind(id(i) - 1, ZYN_OP_CONSTANT, nodes[i].constant, nullptr) ||
          !bind(id(i), nodes[i].type, nullptr, &nodes[i].param))
        return false;
    return zyn_prepare_inference_computation(graph_) == ZYN_RET_OK;
  }
  bool run() { return zyn_computation_graph_inference(graph_) == ZYN_RET_OK; }
  zyn_tensor* output(size_t node) const {
    return zyn_get_computation_node_inference_data(graph_, id(node));
  }

 private:
  template <class Index>
  int32_t id(Index node) const {
    const auto i = static_cast<int32_t>(node);
    return i >= -1 ? 2 * i + 2 : 2 * static_cast<int32_t>(node_count_) - 1 - i;
  }
  // The list becomes the graph's own. Constants need none.
  bool give_fraction_bits(int32_t count, const std::vector<uint32_t>& q) {
    auto* list = static_cast<uint32_t*>(zyn_malloc(count * int64_t{sizeof(uint32_t)}));
    for (int32_t i = 0; list && i < count; i++) list[i] = kNetworkFractionBits;
    for (size_t i = 0; list && i < q.size(); i++) list[2 * i] = q[i];
    for (auto i = static_cast<int32_t>(2 * q.size()) - 1; list && !q.empty() && i < count; i++)
      list[i] = q[0];
    return list && zyn_cg_set_ptr_q_list(graph_, list) == ZYN_RET_OK;
  }
  bool bind(int32_t node, int32_t type, zyn_tensor* data, const void* param) {
    zyn_cg_node_desc desc = {};
    desc.type = type;
    desc.data = data;
    return zyn_bind_operator_onto_computation_graph(graph_, node, &desc, param) == ZYN_RET_OK;
  }

  zyn_cg_handle* graph_ = nullptr;
  size_t node_count_ = 0;
};

class Network {
 public:
  // scaled: for whole networks; else weights are the test values as they are. A single
  // layer under method 1 gets its input in channel blocks, as within a network. words: what
  // the constants hold instead, one behind the other. q: fraction bits of the inputs and of
  // every layer.
  Network(const std::vector<peers::Layer>& layers, uint32_t method, bool scaled,
          const float* words = nullptr, const std::vector<uint32_t>& q = {})
      : q_(q) {
    const bool single = layers.size() == 1;
    if (q_.empty())
      q_.assign(layers.size() + 1, single ? peers::kLayerFractionBits : kNetworkFractionBits);
    const peers::Wiring wiring = peers::wire(layers);
    for (size_t reader : wiring.inputs) {
      const peers::Layer& l = layers[reader];
      add_tensor({l.in_w, l.in_h, l.in_c}, peers::kInput, 0, 1);
      if (method == 1 && single) make_blocked(tensors_.back()->t);
      if (method == kFixedPoint) make_fixed_point(tensors_.back());
      inputs_.push_back(tensors_.back()->t);
    }
    for (size_t i = 0; i < layers.size(); i++) {
      nodes_.push_back(node(layers[i], wiring.from[i], scaled));
      if (!words) continue;
      const Tensor& constant = *tensors_.back();
      std::copy(words, words + constant.t->count, constant.data());
      words += constant.t->count;
    }
    ok_ = graph_.create(inputs_, nodes_, method, q_);
  }

  bool ok() const { return ok_; }
  bool run() { return graph_.run(); }
  // The last layer's output in planar order.
  float output(size_t i) const {
    const zyn_tensor* t = graph_.output(nodes_.size() - 1);
    if (t->type == ZYN_TYPE_FPI16)
      return std::ldexp(static_cast<float>(static_cast<const int16_t*>(t->data)[i]),
                        -static_cast<int>(q_.back()));
    const auto* data = static_cast<const float*>(t->data);
    return data[t->layout == ZYN_LAYOUT_BLOCKED ? blocked_index(t, i) : i];
  }
  zyn_tensor* input() const { return inputs_[0]; }
  const std::vector<zyn_tensor*>& inputs() const { return inputs_; }
  const std::vector<Node>& nodes() const { return nodes_; }
  const Graph& graph() const { return graph_; }

  // Whether every layer but those of the one input reads another.
  static bool connected(const std::vector<peers::Layer>& layers) {
    return peers::wire(layers).inputs.size() == 1;
  }

 private:
  float* add_tensor(const std::vector<int32_t>& dims, uint32_t stream, size_t skip, float scale) {
    tensors_.emplace_back(new Tensor(dims));
    const auto count = static_cast<size_t>(tensors_.back()->t->count) - skip;
    for (size_t i = 0; i < count; i++)
      tensors_.back()->data()[i] = scale * peers::test_value(static_cast<uint32_t>(i), stream);
    return tensors_.back()->data() + count;
  }

  void make_fixed_point(std::unique_ptr<Tensor>& tensor) {
    const zyn_tensor& from = *tensor->t;
    std::unique_ptr<Tensor> words(
        new Tensor({from.dims[0], from.dims[1], from.dims[2]}, ZYN_TYPE_FPI16));
    for (int64_t i = 0; i < from.count; i++)
      static_cast<int16_t*>(words->t->data)[i] =
          static_cast<int16_t>(std::lrint(std::ldexp(tensor->data()[i], static_cast<int>(q_[0]))));
    tensor = std::move(words);
  }

  Node node(const peers::Layer& l, int from, bool scaled) {
    const float scale = scaled ? std::sqrt(24.0f / static_cast<float>(l.k_len())) : 1.0f;
    float* bias = add_tensor({static_cast<int32_t>(l.w_size() + l.out_c)}, peers::kWeights,
                             static_cast<size_t>(l.out_c), scale);
    for (int k = 0; k < l.out_c; k++)
      bias[k] = peers::test_value(static_cast<uint32_t>(k), peers::kBias);
    zyn_conv_param p = {};
    p.in_channels = l.in_c;
    p.out_channels = l.out_c;
    p.kernel_h = l.k.x;  // _h is along x
    p.kernel_w = l.k.y;
    p.stride_h = l.stride.x;
    p.stride_w = l.stride.y;
    p.pad_h = l.pad.x;
    p.pad_w = l.pad.y;
    p.dilation_h = l.dilation.x;
    p.dilation_w = l.dilation.y;
    p.groups = l.groups;
    p.bias = 1;
    p.word14.activation = ZYN_ACT_RELU;
    return {from, ZYN_OP_CONV_ACT, p, tensors_.back()->t};
  }

  // The graph refers to the tensors, so it goes first.
  std::vector<std::unique_ptr<Tensor>> tensors_;
  std::vector<zyn_tensor*> inputs_;
  std::vector<Node> nodes_;
  Graph graph_;
  std::vector<uint32_t> q_;
  bool ok_ = false;
};

}  // namespace bench

// A graph made from a list of layers: every layer is a fused convolution with bias and
// ReLU (type 12) on the latest node whose output has the layer's input shape, so that
// heads branch off. Weights are seeded, scaled to keep the values' size from layer to
// layer.
#pragma once

#include <cmath>
#include <memory>
#include <vector>

#include "peers/common.h"
#include "zyncore.h"

namespace bench {

struct Tensor {
  zyn_tensor* t = nullptr;
  Tensor(std::vector<int32_t> dims)
      : t(zyn_create_tensor(static_cast<int32_t>(dims.size()), dims.data(), ZYN_TYPE_F32)) {}
  Tensor(const Tensor&) = delete;
  Tensor& operator=(const Tensor&) = delete;
  ~Tensor() {
    if (t) zyn_release_tensor(&t);
  }
  float* data() const { return static_cast<float*>(t->data); }
};

class Network {
 public:
  // scaled: for whole networks; else weights are the test values as they are. ok() tells
  // whether the graph could be made and prepared.
  Network(const std::vector<peers::Layer>& layers, uint32_t method, bool scaled) {
    zyn_cg_create_param settings = {};
    settings.max_nodes = static_cast<int32_t>(2 * layers.size() + 1);
    settings.thread_count = 1;
    graph_ = zyn_create_computation_graph_handle(&settings);
    if (!graph_) return;
    zyn_cg_set_conv_method(graph_, method);
    const peers::Layer& first = layers.front();
    add_tensor({first.in_w, first.in_h, first.in_c});
    peers::Buffer<float> values(first.in_size());
    peers::fill(values, peers::kInput);
    memcpy(tensors_[0]->data(), values.p, first.in_size() * sizeof(float));
    ok_ = connect(layers, scaled) && bind(layers) &&
          zyn_prepare_inference_computation(graph_) == ZYN_RET_OK;
  }
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;
  ~Network() {
    if (graph_) zyn_release_computation_graph_handle(&graph_);
  }

  bool ok() const { return ok_; }
  bool run() { return zyn_computation_graph_inference(graph_) == ZYN_RET_OK; }
  // The last layer's output in planar order.
  float output(size_t i) const {
    const zyn_tensor* t =
        zyn_get_computation_node_inference_data(graph_, static_cast<int32_t>(last_));
    const auto* data = static_cast<const float*>(t->data);
    if (t->layout != ZYN_LAYOUT_BLOCKED) return data[i];
    // Groups of 8 channels, then 4, then single ones, interleaved within a group.
    const size_t pixels = static_cast<size_t>(t->dims[0]) * t->dims[1];
    const size_t c = i / pixels, pixel = i % pixels, channels = static_cast<size_t>(t->dims[2]);
    const size_t eights = channels / 8 * 8, fours = channels / 4 * 4;
    const size_t group = c < eights ? 8 : c < fours ? 4 : 1;
    const size_t begin = c < eights ? c / 8 * 8 : c < fours ? eights : c;
    return data[begin * pixels + pixel * group + (c - begin)];
  }

 private:
  size_t add_tensor(std::vector<int32_t> dims) {
    tensors_.emplace_back(new Tensor(dims));
    return tensors_.size() - 1;
  }

  // Node 0 is the input; layer i has its constant at 2 i + 1, itself at 2 i + 2.
  bool connect(const std::vector<peers::Layer>& layers, bool scaled) {
    for (size_t i = 0; i < layers.size(); i++) {
      const peers::Layer& l = layers[i];
      const size_t constant = add_tensor({static_cast<int32_t>(l.w_size() + l.out_c)});
      float* values = tensors_[constant]->data();
      const float scale = scaled ? std::sqrt(24.0f / static_cast<float>(l.k_len())) : 1.0f;
      for (size_t k = 0; k < l.w_size(); k++)
        values[k] = scale * peers::test_value(static_cast<uint32_t>(k), peers::kWeights);
      for (int k = 0; k < l.out_c; k++)
        values[l.w_size() + k] = peers::test_value(static_cast<uint32_t>(k), peers::kBias);
      const int from = source(layers, i);
      last_ = 2 * i + 2;
      const auto node = static_cast<int32_t>(last_);
      if (from < 0 || zyn_add_one_edge_into_computation_graph(graph_, from, node) ||
          zyn_add_one_edge_into_computation_graph(graph_, node - 1, node))
        return false;
    }
    return zyn_computation_graph_topo_sort(graph_) == ZYN_RET_OK;
  }

 public:
  // The node that layer i reads: the latest with its input shape; -1 if there is none.
  static int source(const std::vector<peers::Layer>& layers, size_t i) {
    const peers::Layer& l = layers[i];
    for (size_t j = i; j-- > 0;)
      if (layers[j].out_c == l.in_c && layers[j].out_w() == l.in_w && layers[j].out_h() == l.in_h)
        return static_cast<int>(2 * j + 2);
    const peers::Layer& f = layers[0];
    return f.in_c == l.in_c && f.in_w == l.in_w && f.in_h == l.in_h ? 0 : -1;
  }
  // Whether every layer has something to read.
  static bool connected(const std::vector<peers::Layer>& layers) {
    for (size_t i = 0; i < layers.size(); i++)
      if (source(layers, i) < 0) return false;
    return !layers.empty();
  }

 private:
  bool bind(const std::vector<peers::Layer>& layers) {
    zyn_cg_node_desc desc = {};
    desc.type = ZYN_OP_INPUT;
    desc.data = tensors_[0]->t;
    if (zyn_bind_operator_onto_computation_graph(graph_, 0, &desc, nullptr)) return false;
    for (size_t i = 0; i < layers.size(); i++) {
      const peers::Layer& l = layers[i];
      const auto node = static_cast<int32_t>(2 * i + 2);
      desc.type = ZYN_OP_CONSTANT;
      desc.data = tensors_[i + 1]->t;
      if (zyn_bind_operator_onto_computation_graph(graph_, node - 1, &desc, nullptr)) return false;
      zyn_conv_param p = {};
      p.in_channels = l.in_c;
      p.out_channels = l.out_c;
      p.kernel_h = p.kernel_w = l.k;
      p.stride_h = p.stride_w = l.stride;
      p.pad_h = p.pad_w = l.pad;
      p.dilation_h = p.dilation_w = 1;
      p.groups = l.groups;
      p.bias = 1;
      p.word14.activation = ZYN_ACT_RELU;
      desc.type = ZYN_OP_CONV_ACT;
      desc.data = nullptr;
      if (zyn_bind_operator_onto_computation_graph(graph_, node, &desc, &p)) return false;
    }
    return true;
  }

  zyn_cg_handle* graph_ = nullptr;
  std::vector<std::unique_ptr<Tensor>> tensors_;
  size_t last_ = 0;
  bool ok_ = false;
};

}  // namespace bench

// A landmark network for 112 x 112 face crops, built from library nodes: a stem, a chain
// of inverted residuals, a 7 x 7 reduction, three branches pooled to one pixel each and
// joined, and a dense head that gives 98 points. Weights are seeded noise: the shape of
// the computation is the point here; real weights come from a model file.
#pragma once

#include <math.h>

#include <deque>
#include <vector>

#include "findings.h"
#include "zyncore.h"

class LandmarkNetwork {
 public:
  static constexpr int kSide = 112;   // of the input image
  static constexpr int kPoints = 98;  // landmarks, x and y each

  // One node, in order of ids.
  struct Node {
    int type;
    std::vector<int> from;
    zyn_tensor* data = nullptr;  // data nodes
    union Record {
      zyn_conv_param conv;
      zyn_pool_param pool;
      zyn_reshape_param reshape;
      zyn_linear_param linear;
      zyn_concat_param concat;
    } record = {};
  };

  // Collects the nodes, each layer with its channels divided by divisor (1, 2, 4, 8).
  // Call build() before the first run.
  explicit LandmarkNetwork(uint64_t seed, int divisor = 1) : random_(seed), divisor_(divisor) {
    const int32_t dims[3] = {kSide, kSide, 3};
    input_ = add_data(ZYN_OP_INPUT, zyn_create_tensor(3, dims, ZYN_TYPE_F32));
    int x = convolution(input_, 3, 64, 3, 2, true);
    x = convolution(x, 64, 64, 3, 1, true);
    x = bottleneck(x, 64, 128, 64, 2);
    for (int i = 0; i < 4; i++) x = bottleneck(x, 64, 128, 64, 1);
    x = bottleneck(x, 64, 128, 128, 2);
    for (int i = 0; i < 6; i++) x = bottleneck(x, 128, 512, 128, 1);
    const int early = bottleneck(x, 128, 256, 16, 1);              // 14 x 14 x 16
    const int middle = convolution(early, 16, 32, 3, 2, true);     // 7 x 7 x 32
    const int late = convolution(middle, 32, 128, 7, 1, true, 0);  // 1 x 1 x 128
    const int joined = join({average(early, 14), average(middle, 7), late});
    output_ = dense(flatten(joined), channels(16) + channels(32) + channels(128), 2 * kPoints);
  }
  ~LandmarkNetwork() {
    if (graph_) zyn_release_computation_graph_handle(&graph_);
    for (Node& node : nodes_)
      if (node.data) zyn_release_tensor(&node.data);
  }
  LandmarkNetwork(const LandmarkNetwork&) = delete;
  LandmarkNetwork& operator=(const LandmarkNetwork&) = delete;

  // Edges, order, one binding per node, a check, preparation: 0 or the first code that is not.
  int32_t build() {
    const zyn_cg_create_param settings = {static_cast<int32_t>(nodes_.size()), 1, {0, 0}, 0};
    graph_ = zyn_create_computation_graph_handle(&settings);
    if (!graph_) return ZYN_RET_ERR_MEMORY;
    for (size_t id = 0; id < nodes_.size(); id++)
      for (int from : nodes_[id].from)
        if (const int32_t code =
                zyn_add_one_edge_into_computation_graph(graph_, from, static_cast<int32_t>(id)))
          return code;
    if (const int32_t code = zyn_computation_graph_topo_sort(graph_)) return code;
    for (size_t id = 0; id < nodes_.size(); id++) {
      const zyn_cg_node_desc desc = {nodes_[id].type, nodes_[id].data, 0, nullptr, 0};
      if (const int32_t code = zyn_bind_operator_onto_computation_graph(
              graph_, static_cast<int32_t>(id), &desc, &nodes_[id].record))
        return code;
    }
    return check_graph(graph_) ? zyn_prepare_inference_computation(graph_)
                               : int32_t{ZYN_RET_ERR_PARA};
  }

  // Planar {112, 112, 3}: fill it before every run.
  zyn_tensor* input() { return nodes_[static_cast<size_t>(input_)].data; }
  int32_t run() { return zyn_computation_graph_inference(graph_); }
  // {196, 1}: x and y of every point as fractions of the crop's side.
  const zyn_tensor* output() { return output(output_); }
  const zyn_tensor* output(int node) {
    return zyn_get_computation_node_inference_data(graph_, node);
  }
  const std::vector<Node>& nodes() const { return nodes_; }

 private:
  int channels(int full) const { return full / divisor_; }

  int add(int type, std::vector<int> from) {
    nodes_.emplace_back();
    nodes_.back().type = type;
    nodes_.back().from = std::move(from);
    return static_cast<int>(nodes_.size()) - 1;
  }

  int add_data(int type, zyn_tensor* tensor) {
    const int id = add(type, {});
    nodes_.back().data = tensor;
    return id;
  }

  // Weights of a layer whose outputs sum up terms inputs, then biases.
  int weights(int count, int biases, int terms, float gain) {
    const int32_t dims[1] = {count + biases};
    zyn_tensor* tensor = zyn_create_tensor(1, dims, ZYN_TYPE_F32);
    float* values = static_cast<float*>(tensor->data);
    const float reach = gain * sqrtf(3.0f / static_cast<float>(terms));
    for (int i = 0; i < count; i++) values[i] = noise(reach);
    for (int i = 0; i < biases; i++) values[count + i] = noise(0.1f);
    return add_data(ZYN_OP_CONSTANT, tensor);
  }

  // -reach to reach, evenly (splitmix64).
  float noise(float reach) {
    uint64_t z = (random_ += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    z ^= z >> 31;
    return reach * (static_cast<float>(z >> 40) * (2.0f / 16777216.0f) - 1.0f);
  }

  // Square kernel, bias, ReLU where asked for.
  int layer(int x, int in, int out, int groups, int kernel, int stride, int pad, bool relu) {
    const int per_output = kernel * kernel * in / groups;
    const int constant = weights(per_output * out, out, per_output, relu ? 1.4f : 0.5f);
    const int id = add(ZYN_OP_CONV_ACT, {x, constant});
    zyn_conv_param& p = nodes_.back().record.conv;
    p.in_channels = in;
    p.out_channels = out;
    p.kernel_h = p.kernel_w = kernel;
    p.stride_h = p.stride_w = stride;
    p.pad_h = p.pad_w = pad;
    p.dilation_h = p.dilation_w = 1;
    p.groups = groups;
    p.bias = 1;
    p.word14.activation = relu ? ZYN_ACT_RELU : ZYN_ACT_BIAS;
    return id;
  }

  int convolution(int x, int in, int out, int kernel, int stride, bool relu, int pad = -1) {
    return layer(x, in == 3 ? 3 : channels(in), channels(out), 1, kernel, stride,
                 pad < 0 ? kernel / 2 : pad, relu);
  }

  // Inverted residual: expand, filter each channel, project; the input is added where
  // the shape stays.
  int bottleneck(int x, int in, int inner, int out, int stride) {
    int y = layer(x, channels(in), channels(inner), 1, 1, 1, 0, true);
    y = layer(y, channels(inner), channels(inner), channels(inner), 3, stride, 1, true);
    y = layer(y, channels(inner), channels(out), 1, 1, 1, 0, false);
    return in == out && stride == 1 ? add(ZYN_OP_ADD, {x, y}) : y;
  }

  int average(int x, int side) {
    const int id = add(ZYN_OP_AVERAGE_POOL, {x});
    nodes_.back().record.pool = {side, side, side, side, 0};
    return id;
  }

  int join(std::vector<int> inputs) {
    lists_.emplace_back(inputs.begin(), inputs.end());
    const int id = add(ZYN_OP_CONCAT, inputs);
    nodes_.back().record.concat = {2, static_cast<int32_t>(inputs.size()), lists_.back().data()};
    return id;
  }

  // The dense layer takes {features, 1}.
  int flatten(int x) {
    const int id = add(ZYN_OP_RESHAPE, {x});
    nodes_.back().record.reshape = {2, {-1, 1, 0, 0, 0}};
    return id;
  }

  int dense(int x, int in, int out) {
    const int constant = weights(in * out, out, in, 0.2f);
    const int id = add(ZYN_OP_LINEAR, {x, constant});
    nodes_.back().record.linear = {static_cast<uint32_t>(in), static_cast<uint32_t>(out), 1};
    return id;
  }

  uint64_t random_;
  int divisor_;
  std::vector<Node> nodes_;
  std::deque<std::vector<int32_t>> lists_;
  zyn_cg_handle* graph_ = nullptr;
  int input_ = 0;
  int output_ = 0;
};

// The networks that the tools know, with what a tool needs to look into them: the ssd320
// detector of the examples, layer lists (see bench/README.md), and network files.
#pragma once

#include "../bench/network.h"
#include "../examples/ssd320.h"
#include "net.h"

namespace tools {

// A network under one method. Node i of the list is the convolution whose output
// output(i) gives; its id is first_id + i * id_step. A network file has no list.
struct Whole {
  std::vector<bench::Node> nodes;
  zyn_tensor* input = nullptr;
  std::function<bool()> run;
  std::function<zyn_tensor*(size_t)> output;
  int first_id = 0, id_step = 1;
  std::shared_ptr<zyn_net> net;  // of a file

  int id(size_t node) const { return first_id + static_cast<int>(node) * id_step; }
  // Words of all constants, one behind the other: what a model file holds.
  int32_t words() const {
    int64_t count = 0;
    for (const bench::Node& node : nodes) count += node.constant->count;
    return static_cast<int32_t>(count);
  }
};

// How a network is made.
struct Making {
  uint32_t method;          // bench::kFixedPoint: 16-bit fixed point
  const float* words;       // of the constants; null: generated
  std::vector<uint32_t> q;  // fixed point: fraction bits of the input and of every node
};

inline bool make_ssd320(const Making& making, Whole* whole) {
  const auto detector = std::make_shared<ssd320::Detector>();
  const bool fixed = making.method == bench::kFixedPoint;
  std::vector<uint32_t> q = making.q;
  if (fixed) q.resize(2 * ssd320::convolutions().size() + 1);  // constants need none
  if (!detector->create(fixed ? 0 : making.method, q)) return false;
  if (making.words)
    std::copy(making.words, making.words + detector->weight_count(), detector->weights());
  else
    detector->generate_weights(1);
  auto* pixels = static_cast<float*>(detector->input()->data);
  for (int64_t i = 0; !fixed && i < detector->input()->count; i++)
    pixels[i] = peers::test_value(static_cast<uint32_t>(i), peers::kInput);
  if (!detector->prepare()) return false;
  for (const ssd320::Convolution& c : ssd320::convolutions()) {
    zyn_conv_param p = {};
    p.in_channels = static_cast<int32_t>(c.in_channels);
    p.out_channels = static_cast<int32_t>(c.out_channels);
    p.kernel_h = p.kernel_w = static_cast<int32_t>(c.kernel);
    p.stride_h = p.stride_w = static_cast<int32_t>(c.stride);
    p.pad_h = p.pad_w = static_cast<int32_t>(c.kernel / 2);
    p.dilation_h = p.dilation_w = 1;
    p.groups = static_cast<int32_t>(c.groups);
    p.bias = c.normalised ? 0 : 1;
    if (c.type == ZYN_OP_CONV_BN)
      p.activation = ZYN_ACT_RELU;
    else
      p.word14.activation = ZYN_ACT_RELU;
    whole->nodes.push_back({c.from - 1, c.type, p, detector->constant(whole->nodes.size())});
  }
  whole->input = detector->input();
  whole->run = [detector] { return detector->run(); };
  whole->output = [detector](size_t i) {
    return zyn_get_computation_node_inference_data(detector->graph(), static_cast<int32_t>(i + 1));
  };
  whole->first_id = 1;
  return true;
}

inline bool make_listed(const std::vector<peers::Layer>& layers, const Making& making,
                        Whole* whole) {
  const auto network =
      std::make_shared<bench::Network>(layers, making.method, true, making.words, making.q);
  if (!network->ok()) return false;
  whole->nodes = network->nodes();
  whole->input = network->input();
  whole->run = [network] { return network->run(); };
  whole->output = [network](size_t i) { return network->graph().output(i); };
  whole->first_id = whole->id_step = 2;
  return true;
}

// method is one of a network's options. False: zyn_error_detail tells why.
inline bool make_file(const std::string& path, int32_t method, Whole* whole) {
  whole->net = load(path, method, false, false);
  const auto net = whole->net;
  whole->run = [net] { return zyn_net_run(net.get()) == ZYN_RET_OK; };
  return net != nullptr;
}

// The detector where there are no layers.
inline bool make_whole(const std::vector<peers::Layer>& layers, const Making& making,
                       Whole* whole) {
  *whole = {};
  return layers.empty() ? make_ssd320(making, whole) : make_listed(layers, making, whole);
}

}  // namespace tools

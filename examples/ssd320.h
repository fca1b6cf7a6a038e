// A published SSD face detector for inputs of 320 x 240 pixels, put together from the
// library's building blocks: the network as a table, the graph made from it, and the
// way from its outputs to boxes. It shows what a host does for a network of its own.
//
// Node 0 is the input, the convolutions follow from 1 on in the order of the table,
// and every convolution has a constant node behind all of them that holds its words
// of the model file.
#pragma once

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zyncore.h>

#include <memory>
#include <vector>

#include "findings.h"

namespace ssd320 {

// ---- owners: every record has its release function

struct Release {
  void operator()(zyn_tensor* tensor) const { zyn_release_tensor(&tensor); }
  void operator()(zyn_image* image) const { zyn_release_matrix(&image); }
  void operator()(zyn_cg_handle* graph) const { zyn_release_computation_graph_handle(&graph); }
  void operator()(float* block) const { zyn_free(block); }
};
using Tensor = std::unique_ptr<zyn_tensor, Release>;
using Image = std::unique_ptr<zyn_image, Release>;
using Graph = std::unique_ptr<zyn_cg_handle, Release>;
using Floats = std::unique_ptr<float, Release>;

// ---- the network

constexpr int32_t kWidth = 320, kHeight = 240;
constexpr float kAspectRatio = 0.75f;  // height / width of the input
constexpr int32_t kPriors = 4420;
constexpr int32_t kClasses = 2;  // background, face
constexpr float kCenterVariance = 0.1f, kSizeVariance = 0.2f;

enum class Kind {
  kEntry,      // zyn_bind_base_net_conv_bn: 3 x 3, normalised
  kSeparable,  // zyn_bind_base_net_conv_dw: depthwise 3 x 3, then 1 x 1, normalised
  kHead,       // zyn_bind_seperable_conv2d: the same with biases
  kExtra,      // zyn_bind_extra_net: 1 x 1, depthwise 3 x 3, 1 x 1
  kLastHead    // zyn_bind_std_conv2d: 3 x 3 with bias
};

struct Block {
  Kind kind;
  int32_t from;  // node whose output it reads
  uint32_t in_channels, out_channels, stride;
};

constexpr Block kBlocks[] = {
    {Kind::kEntry, 0, 3, 16, 2},          // node 1
    {Kind::kSeparable, 1, 16, 32, 1},     // 2, 3
    {Kind::kSeparable, 3, 32, 32, 2},     // 4, 5
    {Kind::kSeparable, 5, 32, 32, 1},     // 6, 7
    {Kind::kSeparable, 7, 32, 64, 2},     // 8, 9
    {Kind::kSeparable, 9, 64, 64, 1},     // 10, 11
    {Kind::kSeparable, 11, 64, 64, 1},    // 12, 13
    {Kind::kSeparable, 13, 64, 64, 1},    // 14, 15
    {Kind::kHead, 15, 64, 6, 1},          // 16, 17: scores, 40 x 30 cells of 3 boxes
    {Kind::kHead, 15, 64, 12, 1},         // 18, 19: locations
    {Kind::kSeparable, 15, 64, 128, 2},   // 20, 21
    {Kind::kSeparable, 21, 128, 128, 1},  // 22, 23
    {Kind::kSeparable, 23, 128, 128, 1},  // 24, 25
    {Kind::kHead, 25, 128, 4, 1},         // 26, 27: scores, 20 x 15 cells of 2 boxes
    {Kind::kHead, 25, 128, 8, 1},         // 28, 29: locations
    {Kind::kSeparable, 25, 128, 256, 2},  // 30, 31
    {Kind::kSeparable, 31, 256, 256, 1},  // 32, 33
    {Kind::kHead, 33, 256, 4, 1},         // 34, 35: scores, 10 x 8 cells of 2 boxes
    {Kind::kHead, 33, 256, 8, 1},         // 36, 37: locations
    {Kind::kExtra, 33, 256, 256, 2},      // 38, 39, 40
    {Kind::kLastHead, 40, 256, 6, 1},     // 41: scores, 5 x 4 cells of 3 boxes
    {Kind::kLastHead, 40, 256, 12, 1},    // 42: locations
};
constexpr int32_t kScoreHeads[] = {17, 27, 35, 41};
constexpr int32_t kLocationHeads[] = {19, 29, 37, 42};

// One convolution of a block: what its constant holds, and how it runs.
struct Convolution {
  int32_t from;
  uint32_t in_channels, out_channels, kernel, stride, groups;
  bool normalised;  // scale, shift, mean and variance behind the weights, else biases
  int32_t type;     // of the node that its block binds

  int32_t weights() const {
    return static_cast<int32_t>(in_channels / groups * out_channels * kernel * kernel);
  }
  int32_t words() const {
    return weights() + static_cast<int32_t>((normalised ? 4 : 1) * out_channels);
  }
};

// The table's convolutions in node order; element i is node i + 1.
inline std::vector<Convolution> convolutions() {
  std::vector<Convolution> list;
  for (const Block& b : kBlocks) {
    const int32_t next = static_cast<int32_t>(list.size()) + 1;
    const uint32_t in = b.in_channels, out = b.out_channels, narrow = in / 4;
    const int32_t fused = b.kind == Kind::kSeparable ? ZYN_OP_CONV_BN : ZYN_OP_CONV_ACT;
    const bool bn = fused == ZYN_OP_CONV_BN;
    switch (b.kind) {
      case Kind::kEntry:
        list.push_back({b.from, in, out, 3, b.stride, 1, true, ZYN_OP_CONV_BN});
        break;
      case Kind::kSeparable:
      case Kind::kHead:
        list.push_back({b.from, in, in, 3, b.stride, in, bn, fused});
        list.push_back({next, in, out, 1, 1, 1, bn, bn ? fused : ZYN_OP_CONV_POINTWISE});
        break;
      case Kind::kExtra:
        list.push_back({b.from, in, narrow, 1, 1, 1, false, fused});
        list.push_back({next, narrow, narrow, 3, b.stride, narrow, false, fused});
        list.push_back({next + 1, narrow, out, 1, 1, 1, false, fused});
        break;
      case Kind::kLastHead:
        list.push_back({b.from, in, out, 3, 1, 1, false, ZYN_OP_CONV});
        break;
    }
  }
  return list;
}

// Binds a block from node on; *bound is the number of nodes it takes.
inline int32_t bind(const Block& b, uint32_t node, zyn_cg_handle* graph, uint32_t* bound) {
  const uint32_t in = b.in_channels, out = b.out_channels;
  switch (b.kind) {
    case Kind::kEntry:
      *bound = 1;
      return zyn_bind_base_net_conv_bn(in, out, b.stride, node, graph);
    case Kind::kSeparable:
      *bound = 2;
      return zyn_bind_base_net_conv_dw(in, out, b.stride, node, graph);
    case Kind::kHead:
      *bound = 2;
      return zyn_bind_seperable_conv2d(in, out, b.stride, node, graph);
    case Kind::kExtra:
      *bound = 3;
      return zyn_bind_extra_net(in / 16, b.stride, node, graph);
    case Kind::kLastHead:
      *bound = 1;
      return zyn_bind_std_conv2d(in, out, 0, node, graph);
  }
  return ZYN_RET_ERR_PARA;
}

// ---- pictures

// A photo padded to the input's aspect ratio, and how much was added left and on top.
struct Padded {
  Image image;
  int32_t left = 0, top = 0;
};

// Null image: a side of the photo is not within 1 to 4096, or no memory.
inline Padded pad(const zyn_image* photo) {
  Padded padded;
  int32_t bottom = 0, right = 0;
  padded.image.reset(
      zyn_create_border_image(&padded.top, &bottom, &padded.left, &right, photo, kAspectRatio));
  return padded;
}

// Resizes a padded photo into an input tensor: floats (byte - 127.5) / 128, or 16-bit
// integers byte - 127, which with kInputQ fraction bits are nearly the same.
constexpr uint32_t kInputQ = 7;
inline bool fill_input(const zyn_image* padded, zyn_tensor* input) {
  constexpr int32_t kBilinear = 1;
  const Image scaled(zyn_create_image(kWidth, kHeight, ZYN_IMAGE_BGR));
  if (!scaled || zyn_image_resizer(scaled.get(), padded, kBilinear) != ZYN_RET_OK) return false;
  if (input->type == ZYN_TYPE_FPI16)
    zyn_transform_image_data_for_ssd_detector_fp16(input, scaled.get());
  else
    zyn_transform_image_data_for_ssd_detector(input, scaled.get());
  return true;
}

// ---- lists of fraction bits

// One line "node q" for the input and every convolution; # begins a comment. The constants
// need none and get 0. False for anything else: a missing or repeated node, other text, a
// line without an end (a file that was cut short).
inline bool read_q_list(const char* path, std::vector<uint32_t>* q) {
  constexpr uint32_t kMost = 15, kUnset = kMost + 1;
  const size_t nodes = 1 + convolutions().size();
  FILE* file = fopen(path, "r");
  if (!file) return false;
  char line[256];
  bool good = true;
  q->assign(nodes, kUnset);
  while (good && fgets(line, sizeof(line), file)) {
    good = strchr(line, '\n') != nullptr;
    line[strcspn(line, "#")] = 0;
    char *second = nullptr, *end = nullptr;
    const unsigned long node = strtoul(line, &second, 10), value = strtoul(second, &end, 10);
    if (second == line) {  // no number: an empty line
      good = good && line[strspn(line, " \t\r\n")] == 0;
      continue;
    }
    good = good && end != second && end[strspn(end, " \t\r\n")] == 0 && node < nodes &&
           value <= kMost && (*q)[node] == kUnset;
    if (good) (*q)[node] = static_cast<uint32_t>(value);
  }
  fclose(file);
  for (const uint32_t value : *q) good = good && value != kUnset;
  q->resize(2 * nodes - 1);
  return good;
}

// ---- the detector

class Detector {
 public:
  // Makes the graph with all its nodes bound; fill weights() and input() afterwards. With a
  // list of fraction bits by node the graph works in fixed point, and the input holds
  // 16-bit integers.
  bool create(uint32_t method, const std::vector<uint32_t>& q_list = {});
  // The words of the model file.
  float* weights() const { return weights_.get(); }
  int32_t weight_count() const { return weight_count_; }
  // Replaces the weights by noise, scaled so that values neither vanish nor explode.
  void generate_weights(uint64_t seed);
  // Reads the weights; call it again after changing them.
  bool prepare() {
    return check_graph(graph_.get()) &&
           zyn_prepare_inference_computation(graph_.get()) == ZYN_RET_OK;
  }

  // For a closer look: the graph, and the constant of element i of convolutions().
  zyn_cg_handle* graph() const { return graph_.get(); }
  zyn_tensor* constant(size_t i) const { return constants_[i].get(); }

  // Planes red, green, blue of 320 x 240 floats.
  zyn_tensor* input() const { return input_.get(); }
  const zyn_tensor* output(int32_t node) const {
    return zyn_get_computation_node_inference_data(graph_.get(), node);
  }
  bool run() { return zyn_computation_graph_inference(graph_.get()) == ZYN_RET_OK; }
  // Class scores {2, 4420} (before softmax) and location offsets {4, 4420} of the last
  // run, in the order of the priors; null on failure.
  Tensor scores() const { return collect(kScoreHeads, kClasses); }
  Tensor locations() const { return collect(kLocationHeads, 4); }
  // The faces of the last run whose score exceeds threshold, best first, in fractions of
  // the input.
  bool faces(float threshold, float overlap, std::vector<zyn_detection>* found) const;

 private:
  bool add_edges(const std::vector<Convolution>& list);
  bool give_q_list(const std::vector<uint32_t>& q_list);
  bool bind_data(int32_t node, int32_t type, zyn_tensor* tensor);
  bool bind_constants(const std::vector<Convolution>& list);
  Tensor in_floats(const zyn_tensor* words, int32_t node) const;
  Tensor collect(const int32_t (&nodes)[4], int32_t values_per_prior) const;

  // The graph refers to the tensors, so it goes first: members are destroyed last to
  // first.
  Floats weights_;
  int32_t weight_count_ = 0;
  Tensor input_;
  std::vector<Tensor> constants_;
  Graph graph_;
};

inline bool Detector::create(uint32_t method, const std::vector<uint32_t>& q_list) {
  const std::vector<Convolution> list = convolutions();
  const auto count = static_cast<int32_t>(list.size());
  zyn_cg_create_param settings{};
  settings.max_nodes = 1 + 2 * count;
  settings.thread_count = 1;
  settings.fixed_point = q_list.empty() ? 0 : 1;
  graph_.reset(zyn_create_computation_graph_handle(&settings));
  if (!graph_ || zyn_cg_set_conv_method(graph_.get(), method) != ZYN_RET_OK) return false;
  if (!q_list.empty() && !give_q_list(q_list)) return false;

  // All edges first, then the order, then one binding per node.
  if (!add_edges(list) || zyn_computation_graph_topo_sort(graph_.get()) != ZYN_RET_OK) return false;
  const int32_t dims[3] = {kWidth, kHeight, 3};
  input_.reset(zyn_create_tensor(3, dims, q_list.empty() ? ZYN_TYPE_F32 : ZYN_TYPE_FPI16));
  if (!input_ || !bind_data(0, ZYN_OP_INPUT, input_.get())) return false;
  uint32_t node = 1, bound = 0;
  for (const Block& block : kBlocks) {
    if (bind(block, node, graph_.get(), &bound) != ZYN_RET_OK) return false;
    node += bound;
  }
  return bind_constants(list);
}

inline bool Detector::add_edges(const std::vector<Convolution>& list) {
  const auto count = static_cast<int32_t>(list.size());
  for (int32_t i = 0; i < count; i++) {
    const int32_t node = i + 1;
    if (zyn_add_one_edge_into_computation_graph(graph_.get(), list[i].from, node) != ZYN_RET_OK ||
        zyn_add_one_edge_into_computation_graph(graph_.get(), node + count, node) != ZYN_RET_OK)
      return false;
  }
  return true;
}

// The list becomes the graph's own.
inline bool Detector::give_q_list(const std::vector<uint32_t>& q_list) {
  const size_t bytes = (1 + 2 * convolutions().size()) * sizeof(uint32_t);
  if (q_list.size() * sizeof(uint32_t) != bytes) return false;
  auto* list = static_cast<uint32_t*>(zyn_malloc(static_cast<int64_t>(bytes)));
  if (!list) return false;
  memcpy(list, q_list.data(), bytes);
  return zyn_cg_set_ptr_q_list(graph_.get(), list) == ZYN_RET_OK;
}

inline bool Detector::bind_data(int32_t node, int32_t type, zyn_tensor* tensor) {
  zyn_cg_node_desc desc{};
  desc.type = type;
  desc.data = tensor;
  return zyn_bind_operator_onto_computation_graph(graph_.get(), node, &desc, nullptr) == ZYN_RET_OK;
}

// One block of weights for all constants, each a tensor that refers to its part.
inline bool Detector::bind_constants(const std::vector<Convolution>& list) {
  weight_count_ = 0;
  for (const Convolution& c : list) weight_count_ += c.words();
  weights_.reset(static_cast<float*>(zyn_malloc(int64_t{4} * weight_count_)));
  if (!weights_) return false;
  float* words = weights_.get();
  int32_t node = static_cast<int32_t>(list.size()) + 1;
  for (const Convolution& c : list) {
    const int32_t count = c.words();
    constants_.emplace_back(zyn_create_tensor_header(1, &count, ZYN_TYPE_F32));
    zyn_tensor* tensor = constants_.back().get();
    if (!tensor || zyn_set_tensor_data(tensor, words, int64_t{4} * count) != ZYN_RET_OK ||
        !bind_data(node++, ZYN_OP_CONSTANT, tensor))
      return false;
    words += count;
  }
  return true;
}

inline void Detector::generate_weights(uint64_t seed) {
  const auto noise = [&seed] {  // -1 to 1
    seed = seed * 6364136223846793005u + 1442695040888963407u;
    return static_cast<float>(static_cast<int32_t>(seed >> 32)) / 2147483648.0f;
  };
  float* word = weights();
  for (const Convolution& c : convolutions()) {
    const uint32_t inputs = c.in_channels / c.groups * c.kernel * c.kernel;
    const float scale = sqrtf(6.0f / static_cast<float>(inputs));
    for (int32_t i = 0; i < c.weights(); i++) *word++ = scale * noise();
    constexpr float kNormalisation[] = {1, 0, 0, 1};  // scale, shift, mean, variance
    for (const float value : kNormalisation)
      for (uint32_t i = 0; c.normalised && i < c.out_channels; i++) *word++ = value;
    for (uint32_t i = 0; !c.normalised && i < c.out_channels; i++) *word++ = 0;
  }
}

inline Tensor Detector::in_floats(const zyn_tensor* words, int32_t node) const {
  Tensor floats(zyn_create_tensor(words->dim_count, words->dims, ZYN_TYPE_F32));
  const uint32_t q = zyn_cg_get_q_from_list(graph_.get(), node);
  const auto count = static_cast<int32_t>(words->count);
  const bool done = floats && zyn_tensor_transform_data_from_fpi16_to_real32(
                                  floats.get(), words, count, q) == ZYN_RET_OK;
  return done ? std::move(floats) : nullptr;
}

// The outputs of the heads one behind the other, pixel by pixel: the heads are planar (or
// in blocks of channels, depending on the method), priors run through the channels of a
// pixel first.
inline Tensor Detector::collect(const int32_t (&nodes)[4], int32_t values_per_prior) const {
  const int32_t dims[2] = {values_per_prior, kPriors};
  Tensor all(zyn_create_tensor(2, dims, ZYN_TYPE_F32));
  if (!all) return nullptr;
  auto* to = static_cast<char*>(all->data);
  int64_t room = all->byte_size;
  for (const int32_t node : nodes) {
    const zyn_tensor* head = output(node);
    if (!head) return nullptr;
    const Tensor floats = head->type == ZYN_TYPE_FPI16 ? in_floats(head, node) : nullptr;
    if (head->type == ZYN_TYPE_FPI16) head = floats.get();
    if (!head) return nullptr;
    Tensor part(zyn_create_tensor_header(head->dim_count, head->dims, head->type));
    if (!part || zyn_set_tensor_data(part.get(), to, room) != ZYN_RET_OK) return nullptr;
    int32_t code = ZYN_RET_OK;
    if (head->layout == ZYN_LAYOUT_PLANAR)
      code = zyn_tensor_convert_NCHW2NHWC(part.get(), head);
    else if (head->layout == ZYN_LAYOUT_BLOCKED)
      code = zyn_tensor_convert_NHWG2NHWC(part.get(), head);
    else
      memcpy(to, head->data, static_cast<size_t>(head->byte_size));
    if (code != ZYN_RET_OK) return nullptr;
    to += head->byte_size;
    room -= head->byte_size;
  }
  return room == 0 ? std::move(all) : nullptr;
}

inline bool Detector::faces(float threshold, float overlap,
                            std::vector<zyn_detection>* found) const {
  const Tensor probabilities = scores(), boxes = locations();
  const Tensor priors(zyn_generate_priors(kHeight, kWidth, 0));
  if (!probabilities || !boxes || !priors) return false;
  if (zyn_tensor_softmax(probabilities.get(), probabilities.get(), kClasses) != ZYN_RET_OK)
    return false;
  auto* box = static_cast<float*>(boxes->data);
  zyn_convert_locations_to_boxes(box, box, static_cast<const float*>(priors->data), kPriors,
                                 kCenterVariance, kSizeVariance);
  zyn_center_form_to_corner_form(box, kPriors);

  std::vector<zyn_detection> candidates;
  const auto* probability = static_cast<const float*>(probabilities->data);
  for (int32_t i = 0; i < kPriors; i++, box += 4)
    if (probability[kClasses * i + 1] > threshold)
      candidates.push_back({box[0], box[1], box[2], box[3], probability[kClasses * i + 1]});
  found->resize(candidates.size());
  const int32_t kept = zyn_ssd_nms(found->data(), candidates.data(),
                                   static_cast<int32_t>(candidates.size()), overlap);
  found->resize(static_cast<size_t>(kept));
  return kept > 0 || candidates.empty();
}

}  // namespace ssd320

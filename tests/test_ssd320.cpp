// The trained detector as the example builds it: raw outputs and faces from given input
// tensors. Needs the folder in ZYN_MODEL_DIR.
#include <math.h>

#include <deque>
#include <fstream>

#include "../examples/ssd320.h"
#include "support/conv_case.h"
#include "support/net.h"

namespace {

using ssd320::Detector;
using ssd320::Tensor;
using namespace zyn_test;

std::vector<float> read_floats(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  std::vector<float> values(bytes.size() / sizeof(float));
  memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
  return values;
}

void expect_near(const zyn_tensor* got, const std::string& path) {
  const std::vector<float> expected = read_floats(path);
  ASSERT_NE(got, nullptr) << path;
  ASSERT_EQ(static_cast<size_t>(got->count), expected.size()) << path;
  for (size_t i = 0; i < expected.size(); i++)
    ASSERT_NEAR(static_cast<const float*>(got->data)[i], expected[i], 2e-4) << path << " " << i;
}

// The faces with the lines of a file: four fractions of the input and a score.
void expect_faces(const std::vector<zyn_detection>& faces, const std::string& path) {
  std::ifstream file(path);
  std::string line;
  size_t count = 0;
  while (std::getline(file, line)) {
    zyn_detection f;
    if (sscanf(line.c_str(), "%f %f %f %f %f", &f.x1, &f.y1, &f.x2, &f.y2, &f.score) != 5) continue;
    ASSERT_LT(count, faces.size());
    const zyn_detection& got = faces[count++];
    for (float zyn_detection::*field : {&zyn_detection::x1, &zyn_detection::y1, &zyn_detection::x2,
                                        &zyn_detection::y2, &zyn_detection::score})
      EXPECT_NEAR(got.*field, f.*field, 1e-4) << line;
  }
  EXPECT_EQ(count, faces.size());
  EXPECT_GT(count, 0u);
}

// The network from plain nodes: convolution, normalisation (both types in turn) and ReLU
// apart, and the heads brought to the order of the priors inside the graph.
struct PlainDetector {
  Net net;
  int input = net.input(Array({ssd320::kWidth, ssd320::kHeight, 3}));
  int scores, locations;

  PlainDetector(const float* words, uint32_t method) {
    net.method(method);
    const auto constant = [&](int32_t count) {
      Array a({count});
      std::copy(words, words + count, a.v.begin());
      words += count;
      return net.constant(a);
    };
    std::vector<int> last = {input};  // by the table's node: the last of its plain nodes
    const ssd320::Block* block = ssd320::kBlocks;
    for (const ssd320::Convolution& c : ssd320::convolutions()) {
      const bool spatial = c.kernel == 3;  // each block has one such convolution
      const uint32_t stride = spatial ? (block++)->stride : 1;
      zyn_conv_param p =
          conv_param(static_cast<int>(c.in_channels), static_cast<int>(c.out_channels),
                     static_cast<int>(c.kernel), static_cast<int>(stride), spatial ? 1 : 0,
                     static_cast<int>(c.groups));
      p.bias = c.normalised ? 0 : 1;
      const int type = !spatial       ? ZYN_OP_CONV_POINTWISE
                       : c.groups > 1 ? ZYN_OP_CONV_DEPTHWISE
                                      : ZYN_OP_CONV;
      const int table_node = static_cast<int>(last.size());
      int node = net.op(type, p, {last[c.from], constant(c.normalised ? c.weights() : c.words())});
      if (c.normalised)
        node = net.op(table_node % 2 ? ZYN_OP_BATCH_NORM : ZYN_OP_BATCH_NORM_FAST,
                      zyn_bn_param{1e-5f, 0}, {node, constant(c.words() - c.weights())});
      if (!is_head(table_node)) node = net.op(ZYN_OP_RELU, {node});
      last.push_back(node);
    }
    scores = collect(last, ssd320::kScoreHeads, ssd320::kClasses);
    locations = collect(last, ssd320::kLocationHeads, 4);
  }

 private:
  static bool is_head(int32_t node) {
    const auto in = [=](const int32_t(&list)[4]) { return std::count(list, list + 4, node) > 0; };
    return in(ssd320::kScoreHeads) || in(ssd320::kLocationHeads);
  }
  // The list stays until binding.
  int concat(int axis, const std::vector<int32_t>& nodes) {
    lists_.push_back(nodes);
    return net.op(ZYN_OP_CONCAT,
                  zyn_concat_param{axis, static_cast<int32_t>(nodes.size()), lists_.back().data()},
                  nodes);
  }
  // A head's planes as columns {1, pixels, 1}, joined along the rows to {channels, pixels,
  // 1}: the channels of a pixel lie together. Then one prior per row, head after head.
  int collect(const std::vector<int>& last, const int32_t (&heads)[4], int32_t values) {
    std::vector<int32_t> parts;
    for (const int32_t head : heads) {
      const uint32_t count = ssd320::convolutions()[static_cast<size_t>(head) - 1].out_channels;
      const auto channels = static_cast<int32_t>(count);
      const int columns =
          net.op(ZYN_OP_RESHAPE, zyn_reshape_param{3, {1, -1, channels}}, {last[head]});
      std::vector<int32_t> planes;
      for (int32_t c = 0; c < channels; c++) {
        lists_.push_back({c});
        planes.push_back(
            net.op(ZYN_OP_CHANNEL_GATHER, zyn_gather_param{1, lists_.back().data()}, {columns}));
      }
      parts.push_back(
          net.op(ZYN_OP_RESHAPE, zyn_reshape_param{2, {values, -1}}, {concat(0, planes)}));
    }
    return concat(1, parts);
  }

  std::deque<std::vector<int32_t>> lists_;
};

TEST(Ssd320, BlocksAndPlainNodesGiveTheOutputsAndFacesOfTheGivenInput) {
  const std::string folder = model_dir();
  if (folder.empty()) return;
  for (uint32_t method : {0u, 1u, 2u}) {
    Detector detector;
    ASSERT_TRUE(detector.create(method));
    ASSERT_EQ(zyn_cg_load_model(detector.weights(), detector.weight_count(),
                                (folder + "/ssd320.zynm").c_str()),
              0);
    ASSERT_TRUE(detector.prepare());
    PlainDetector plain(detector.weights(), method);
    ASSERT_EQ(plain.net.make() + plain.net.prepare(), 0);
    for (const char* photo : {"/photo_a", "/photo_b", "/photo_a"}) {
      SCOPED_TRACE(photo + std::string(" method ") + std::to_string(method));
      const std::string given = folder + photo;
      const std::vector<float> input = read_floats(given + ".input.f32");
      for (zyn_tensor* t : {detector.input(), plain.net.output_tensor(plain.input)}) {
        ASSERT_EQ(static_cast<size_t>(t->count), input.size());
        std::copy(input.begin(), input.end(), static_cast<float*>(t->data));
      }
      ASSERT_TRUE(detector.run() && plain.net.run() == 0);
      const Tensor scores = detector.scores(), locations = detector.locations();
      for (const zyn_tensor* t : {scores.get(), plain.net.output_tensor(plain.scores)})
        expect_near(t, given + ".logits.f32");
      for (const zyn_tensor* t : {locations.get(), plain.net.output_tensor(plain.locations)})
        expect_near(t, given + ".locations.f32");
      std::vector<zyn_detection> faces;
      ASSERT_TRUE(detector.faces(0.7f, 0.3f, &faces));
      expect_faces(faces, given + ".faces.txt");
    }
  }
}

}  // namespace

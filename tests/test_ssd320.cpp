// The trained detector as the example builds it: raw outputs and faces from given input
// tensors. Needs the folder in ZYN_MODEL_DIR.
#include <math.h>
#include <stdio.h>

#include <deque>

#include "../examples/ssd320.h"
#include "support/conv_case.h"
#include "support/net.h"

namespace {

using ssd320::Detector;
using ssd320::Tensor;
using namespace zyn_test;

constexpr uint32_t kMethods[] = {0, 1, 2};

std::vector<float> read_floats(const std::string& path) {
  std::vector<float> values;
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return values;
  float buffer[1024];
  for (size_t n; (n = fread(buffer, sizeof(float), 1024, file)) > 0;)
    values.insert(values.end(), buffer, buffer + n);
  fclose(file);
  return values;
}

// The boxes of a faces.txt file, in fractions of the input.
std::vector<zyn_detection> read_faces(const std::string& path) {
  std::vector<zyn_detection> faces;
  FILE* file = fopen(path.c_str(), "r");
  if (!file) return faces;
  char line[256];
  zyn_detection f;
  while (fgets(line, sizeof(line), file))
    if (sscanf(line, "%f %f %f %f %f", &f.x1, &f.y1, &f.x2, &f.y2, &f.score) == 5)
      faces.push_back(f);
  fclose(file);
  return faces;
}

void expect_near(const zyn_tensor* got, const std::vector<float>& expected, const char* what) {
  ASSERT_NE(got, nullptr) << what;
  ASSERT_EQ(static_cast<size_t>(got->count), expected.size()) << what;
  const auto* values = static_cast<const float*>(got->data);
  size_t worst = 0;
  const auto distance = [&](size_t i) { return std::fabs(values[i] - expected[i]); };
  for (size_t i = 0; i < expected.size(); i++)
    if (!(distance(i) <= distance(worst))) worst = i;
  EXPECT_LE(distance(worst), 2e-4)
      << what << " " << worst << ": " << values[worst] << " for " << expected[worst];
}

void expect_same(const zyn_detection& got, const zyn_detection& expected) {
  const float got_fields[5] = {got.x1, got.y1, got.x2, got.y2, got.score};
  const float fields[5] = {expected.x1, expected.y1, expected.x2, expected.y2, expected.score};
  for (int k = 0; k < 5; k++) EXPECT_NEAR(got_fields[k], fields[k], 1e-4) << "field " << k;
}

void check_photo(Detector* detector, const std::string& photo) {
  SCOPED_TRACE(photo);
  const std::vector<float> input = read_floats(photo + ".input.f32");
  ASSERT_EQ(static_cast<size_t>(detector->input()->count), input.size());
  std::copy(input.begin(), input.end(), static_cast<float*>(detector->input()->data));
  ASSERT_TRUE(detector->run());
  expect_near(detector->scores().get(), read_floats(photo + ".logits.f32"), "scores");
  expect_near(detector->locations().get(), read_floats(photo + ".locations.f32"), "locations");

  std::vector<zyn_detection> faces;
  ASSERT_TRUE(detector->faces(0.7f, 0.3f, &faces));
  const std::vector<zyn_detection> expected = read_faces(photo + ".faces.txt");
  ASSERT_GT(expected.size(), 0u);
  ASSERT_EQ(faces.size(), expected.size());
  for (size_t i = 0; i < expected.size(); i++) expect_same(faces[i], expected[i]);
}

TEST(Ssd320, OutputsAndFacesFromTheGivenInput) {
  const std::string folder = model_dir();
  if (folder.empty()) return;
  for (uint32_t method : kMethods) {
    SCOPED_TRACE("method " + std::to_string(method));
    Detector detector;
    ASSERT_TRUE(detector.create(method));
    ASSERT_EQ(detector.weight_count(), 264732);
    ASSERT_EQ(zyn_cg_load_model(detector.weights(), detector.weight_count(),
                                (folder + "/ssd320.zynm").c_str()),
              0);
    ASSERT_TRUE(detector.prepare());
    for (const char* photo : {"/photo_a", "/photo_b", "/photo_a"})
      ASSERT_NO_FATAL_FAILURE(check_photo(&detector, folder + photo));
  }
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
      zyn_conv_param p =
          conv_param(static_cast<int>(c.in_channels), static_cast<int>(c.out_channels),
                     static_cast<int>(c.kernel), spatial ? static_cast<int>((block++)->stride) : 1,
                     spatial ? 1 : 0, static_cast<int>(c.groups));
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
  int concat(std::vector<int32_t> nodes, int axis) {
    lists_.push_back(nodes);
    const std::vector<int32_t>& kept = lists_.back();
    return net.op(ZYN_OP_CONCAT,
                  zyn_concat_param{axis, static_cast<int32_t>(kept.size()), kept.data()}, nodes);
  }
  // A head's planes as columns {1, pixels, 1}, joined along the rows to {channels, pixels,
  // 1}: the channels of a pixel lie together. Then one prior per row, head after head.
  int collect(const std::vector<int>& last, const int32_t (&heads)[4], int32_t values) {
    std::vector<int32_t> parts;
    for (const int32_t head : heads) {
      const auto channels =
          static_cast<int32_t>(ssd320::convolutions()[static_cast<size_t>(head) - 1].out_channels);
      const int columns =
          net.op(ZYN_OP_RESHAPE, zyn_reshape_param{3, {1, -1, channels}}, {last[head]});
      std::vector<int32_t> planes;
      for (int32_t c = 0; c < channels; c++) {
        lists_.push_back({c});
        planes.push_back(
            net.op(ZYN_OP_CHANNEL_GATHER, zyn_gather_param{1, lists_.back().data()}, {columns}));
      }
      parts.push_back(
          net.op(ZYN_OP_RESHAPE, zyn_reshape_param{2, {values, -1}}, {concat(planes, 0)}));
    }
    return concat(parts, 1);
  }

  std::deque<std::vector<int32_t>> lists_;  // that records point at until binding
};

TEST(Ssd320, PlainNodesGiveTheSameOutputsInOneTensorEach) {
  const std::string folder = model_dir();
  if (folder.empty()) return;
  std::vector<float> words(264732);
  ASSERT_EQ(zyn_cg_load_model(words.data(), static_cast<int32_t>(words.size()),
                              (folder + "/ssd320.zynm").c_str()),
            0);
  for (uint32_t method : kMethods) {
    SCOPED_TRACE("method " + std::to_string(method));
    PlainDetector plain(words.data(), method);
    ASSERT_EQ(plain.net.make(), 0);
    ASSERT_EQ(plain.net.prepare(), 0);
    for (const char* photo : {"/photo_a", "/photo_b"}) {
      SCOPED_TRACE(photo);
      const std::string given = folder + photo;
      const std::vector<float> values = read_floats(given + ".input.f32");
      Array image({ssd320::kWidth, ssd320::kHeight, 3});
      ASSERT_EQ(values.size(), image.v.size());
      std::copy(values.begin(), values.end(), image.v.begin());
      plain.net.fill(plain.input, image);
      ASSERT_EQ(plain.net.run(), 0);
      expect_near(plain.net.output_tensor(plain.scores), read_floats(given + ".logits.f32"),
                  "scores");
      expect_near(plain.net.output_tensor(plain.locations), read_floats(given + ".locations.f32"),
                  "locations");
    }
  }
}

// Random weights keep values in range: the stand-in runs through everything.
TEST(Ssd320, GeneratedWeightsGiveFiniteOutputs) {
  Detector detector;
  ASSERT_TRUE(detector.create(0));
  detector.generate_weights(1);
  ASSERT_TRUE(detector.prepare());
  auto* input = static_cast<float*>(detector.input()->data);
  for (int64_t i = 0; i < detector.input()->count; i++)
    input[i] = static_cast<float>(i % 255) / 128 - 1;
  ASSERT_TRUE(detector.run());
  for (const Tensor& heads : {detector.scores(), detector.locations()}) {
    ASSERT_NE(heads, nullptr);
    const auto* values = static_cast<const float*>(heads->data);
    EXPECT_TRUE(
        std::all_of(values, values + heads->count, [](float v) { return std::isfinite(v); }));
    EXPECT_GT(*std::max_element(values, values + heads->count), 1e-3f);
  }
}

}  // namespace

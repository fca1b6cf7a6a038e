// The trained detector as the example builds it: raw outputs and faces from given input
// tensors. Needs the folder in ZYN_MODEL_DIR.
#include <gtest/gtest.h>
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../examples/ssd320.h"
#include "support/capture.h"
#include "support/failing.h"

namespace {

using ssd320::Detector;
using ssd320::Tensor;

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

void expect_near(const Tensor& got, const std::vector<float>& expected, const char* what) {
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
  expect_near(detector->scores(), read_floats(photo + ".logits.f32"), "scores");
  expect_near(detector->locations(), read_floats(photo + ".locations.f32"), "locations");

  std::vector<zyn_detection> faces;
  ASSERT_TRUE(detector->faces(0.7f, 0.3f, &faces));
  const std::vector<zyn_detection> expected = read_faces(photo + ".faces.txt");
  ASSERT_GT(expected.size(), 0u);
  ASSERT_EQ(faces.size(), expected.size());
  for (size_t i = 0; i < expected.size(); i++) expect_same(faces[i], expected[i]);
}

TEST(Ssd320, OutputsAndFacesFromTheGivenInput) {
  const std::string folder = zyn_test::model_dir();
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

// Prior boxes and the decoding of locations, against the definitions in double
// precision.
#include <math.h>

#include <algorithm>
#include <vector>

#include "support/buffers.h"
#include "support/capture.h"
#include "support/ledger.h"

namespace {

using namespace zyn_test;

struct Input {
  uint32_t width, height;
  // The maps are those of this input.
  uint32_t map_width, map_height;
};
const Input kInputs[] = {{128, 96, 128, 96},
                         {160, 120, 160, 120},
                         {240, 180, 240, 180},
                         {320, 240, 320, 240},
                         {480, 360, 480, 360},
                         {640, 480, 640, 480},
                         {1280, 960, 1280, 960},
                         {300, 300, 128, 96},
                         {240, 320, 128, 96},
                         {64, 48, 128, 96},
                         {4096, 1000, 128, 96},
                         {1, 1, 128, 96},
                         {0xFFFFFFFF, 0xFFFFFFFF, 128, 96}};

int cells(uint32_t pixels, int level) {
  const int divisor = 8 << level;
  return (static_cast<int>(pixels) + divisor - 1) / divisor;
}

std::vector<double> expected_priors(const Input& input, bool transposed) {
  const std::vector<std::vector<int>> sizes = {{10, 16, 24}, {32, 48}, {64, 96}, {128, 192, 256}};
  std::vector<double> values;
  for (int level = 0; level < 4; level++) {
    int columns = cells(input.map_width, level), rows = cells(input.map_height, level);
    double w = input.width, h = input.height;
    const double shrink_x = w / columns, shrink_y = h / rows;
    if (transposed) {
      std::swap(columns, rows);
      std::swap(w, h);
    }
    for (int j = 0; j < rows; j++)
      for (int i = 0; i < columns; i++)
        for (int size : sizes[level])
          for (double v :
               {(i + 0.5) / (w / shrink_x), (j + 0.5) / (h / shrink_y), size / w, size / h})
            values.push_back(std::min(1.0, std::max(0.0, v)));
  }
  return values;
}

TEST(Priors, EveryInputSizeAndItsTurnedForm) {
  for (const Input& input : kInputs)
    for (uint32_t transposed : {0u, 1u, 7u}) {
      SCOPED_TRACE(std::to_string(input.width) + "x" + std::to_string(input.height) +
                   (transposed ? " transposed" : ""));
      const std::vector<double> expected = expected_priors(input, transposed != 0);
      zyn_tensor* priors = zyn_generate_priors(input.height, input.width, transposed);
      ASSERT_NE(priors, nullptr);
      EXPECT_TRUE(priors->dim_count == 2 && priors->dims[0] == 4);
      EXPECT_EQ(priors->type, static_cast<uint32_t>(ZYN_TYPE_F32));
      ASSERT_EQ(static_cast<size_t>(priors->count), expected.size());
      const auto* values = static_cast<const float*>(priors->data);
      double worst = 0;
      for (size_t i = 0; i < expected.size(); i++)
        worst = std::max(worst, std::fabs(values[i] - expected[i]));
      EXPECT_LT(worst, 4e-7);
      zyn_release_tensor(&priors);
    }
}

TEST(Priors, WithoutAnInputOrMemoryThereAreNone) {
  for (const auto& size : {std::pair<uint32_t, uint32_t>{0, 0}, {0, 96}, {128, 0}})
    EXPECT_SAYS(zyn_generate_priors(size.second, size.first, 1), nullptr, "");
  for (int n : {1, 2}) {  // On purpose the header is lost with the data.
    const uint64_t before = zyn_get_current_memory_size_occupation();
    Ledger ledger;
    Ledger::fail(n, false);
    EXPECT_SAYS(zyn_generate_priors(96, 128, 0), nullptr,
                report(kMemory, "src/matrix/zyn_tensor.cpp", n == 1 ? 53 : 123));
    EXPECT_EQ(zyn_get_current_memory_size_occupation() - before, n == 1 ? 0 : sizeof(zyn_tensor));
  }
}

TEST(Priors, DecodingFollowsTheFormulas) {
  Random random(21);
  for (int count : {1, 2, 3, 5, 8, 501}) {
    const auto floats = static_cast<size_t>(count) * 4;
    PageEnd<float> locations(floats), priors(floats), boxes(floats);
    for (float& v : locations) v = random.real(-8, 8);
    for (float& v : priors) v = random.real(0.01f, 1);
    const auto decode = [&](float* to, const float* from, const float* by) {
      zyn_convert_locations_to_boxes(to, from, by, count, 0.1f, 0.2f);
    };
    decode(boxes.data(), locations.data(), priors.data());
    for (size_t i = 0; i < floats; i++) {
      const bool center = i % 4 < 2;
      const double size = priors[center ? i + 2 : i], offset = locations[i];
      const double expected = center ? 0.1 * offset * size + priors[i] : exp(0.2 * offset) * size;
      ASSERT_NEAR(boxes[i], expected, 1e-6 * std::max(1.0, std::fabs(expected))) << i;
    }
    // The result may replace either input.
    std::vector<float> over_priors(priors.begin(), priors.end());
    decode(over_priors.data(), locations.data(), over_priors.data());
    decode(locations.data(), locations.data(), priors.data());
    EXPECT_TRUE(std::equal(boxes.begin(), boxes.end(), over_priors.begin())) << count;
    EXPECT_TRUE(std::equal(boxes.begin(), boxes.end(), locations.begin())) << count;

    zyn_center_form_to_corner_form(boxes.data(), count);
    for (size_t i = 0; i < floats; i++) {
      const float* whole = &locations[i / 4 * 4];
      const double half = 0.5 * whole[2 + i % 2];
      const double expected = whole[i % 2] + (i % 4 < 2 ? -half : half);
      ASSERT_NEAR(boxes[i], expected, 1e-6 * std::max(1.0, std::fabs(expected))) << i;
    }
  }
  for (int32_t count : {0, -1, INT32_MIN}) {  // nothing to do
    zyn_convert_locations_to_boxes(nullptr, nullptr, nullptr, count, 0.1f, 0.2f);
    zyn_center_form_to_corner_form(nullptr, count);
  }
}

}  // namespace

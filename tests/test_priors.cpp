// Prior boxes and the decoding of locations, against the definitions in double
// precision.
#include <math.h>

#include <algorithm>

#include "support/buffers.h"
#include "support/capture.h"
#include "support/ledger.h"

namespace {

using namespace zyn_test;

struct Input {
  uint32_t width, height;
  int map_width = 128, map_height = 96;  // the maps are those of this input
};
const Input kInputs[] = {{128, 96},
                         {160, 120, 160, 120},
                         {240, 180, 240, 180},
                         {320, 240, 320, 240},
                         {480, 360, 480, 360},
                         {640, 480, 640, 480},
                         {1280, 960, 1280, 960},
                         {240, 320},
                         {160, 96},
                         {4096, 1000},
                         {1, 1},
                         {0xFFFFFFFF, 0xFFFFFFFF}};

std::vector<double> expected_priors(const Input& input, bool transposed) {
  const std::vector<int> sizes[] = {{10, 16, 24}, {32, 48}, {64, 96}, {128, 192, 256}};
  std::vector<double> values;
  for (int level = 0; level < 4; level++) {
    const int cell = 8 << level;
    int columns = (input.map_width + cell - 1) / cell, rows = (input.map_height + cell - 1) / cell;
    double w = input.width, h = input.height;
    const double shrink_x = w / columns, shrink_y = h / rows;
    if (transposed) {
      std::swap(columns, rows);
      std::swap(w, h);
    }
    for (int j = 0; j < rows; j++)
      for (int i = 0; i < columns; i++)
        for (int size : sizes[level])
          for (double v : {(i + 0.5) * shrink_x / w, (j + 0.5) * shrink_y / h, size / w, size / h})
            values.push_back(std::min(1.0, v));
  }
  return values;
}

TEST(Priors, EveryInputSizeAndItsTurnedForm) {
  for (const Input& input : kInputs)
    for (uint32_t transposed : {0u, 1u, 7u}) {
      SCOPED_TRACE(testing::Message() << input.width << "x" << input.height << " " << transposed);
      const std::vector<double> expected = expected_priors(input, transposed != 0);
      zyn_tensor* priors = zyn_generate_priors(input.height, input.width, transposed);
      ASSERT_NE(priors, nullptr);
      EXPECT_TRUE(priors->dim_count == 2 && priors->dims[0] == 4 && priors->type == 6u);
      ASSERT_EQ(static_cast<size_t>(priors->count), expected.size());
      for (size_t i = 0; i < expected.size(); i++)
        ASSERT_NEAR(static_cast<const float*>(priors->data)[i], expected[i], 4e-7) << i;
      zyn_release_tensor(&priors);
    }
  EXPECT_SAYS(zyn_generate_priors(0, 96, 1), nullptr, "");
  EXPECT_SAYS(zyn_generate_priors(128, 0, 1), nullptr, "");
  for (int n : {1, 2}) {  // On purpose the header is lost with the data.
    Ledger ledger;
    Ledger::fail(n, false);
    EXPECT_SAYS(zyn_generate_priors(96, 128, 0), nullptr,
                report(kMemory, "src/matrix/zyn_tensor.cpp", n == 1 ? 53 : 123));
  }
}

TEST(Priors, DecodingFollowsTheFormulas) {
  Random random(21);
  for (int count : {-1, 0, 1, 2, 3, 5, 8, 501}) {
    const auto floats = static_cast<size_t>(std::max(0, count)) * 4;
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
      const float half = 0.5f * locations[i | 2], middle = locations[i & ~size_t{2}];
      ASSERT_EQ(boxes[i], i % 4 < 2 ? middle - half : middle + half) << i;
    }
  }
}

}  // namespace

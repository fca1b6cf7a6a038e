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

// The maps that an input size has of its own; all others have the first ones.
constexpr uint32_t kMaps[][2] = {{128, 96},  {160, 120}, {240, 180}, {320, 240},
                                 {480, 360}, {640, 480}, {1280, 960}};

void check_priors(uint32_t width, uint32_t height, const uint32_t (&map)[2], uint32_t transposed) {
  SCOPED_TRACE(testing::Message() << width << "x" << height << " " << transposed);
  zyn_tensor* priors = zyn_generate_priors(height, width, transposed);
  ASSERT_NE(priors, nullptr);
  EXPECT_TRUE(priors->dim_count == 2 && priors->dims[0] == 4 && priors->type == 6u);
  const std::vector<int> sizes[] = {{10, 16, 24}, {32, 48}, {64, 96}, {128, 192, 256}};
  const auto* prior = static_cast<const float*>(priors->data);
  const float* const end = prior + priors->count;
  for (int level = 0; level < 4; level++) {
    const uint32_t cell = 8u << level;
    int columns = static_cast<int>((map[0] + cell - 1) / cell);
    int rows = static_cast<int>((map[1] + cell - 1) / cell);
    double w = width, h = height;
    const double shrink_x = w / columns, shrink_y = h / rows;
    if (transposed) {
      std::swap(columns, rows);
      std::swap(w, h);
    }
    for (int i = 0; i < rows * columns; i++)
      for (int size : sizes[level]) {
        ASSERT_LT(prior, end);
        const int x = i % columns, y = i / columns;
        for (double v : {(x + 0.5) * shrink_x / w, (y + 0.5) * shrink_y / h, size / w, size / h})
          ASSERT_NEAR(*prior++, std::min(1.0, v), 4e-7) << "level " << level << " cell " << i;
      }
  }
  EXPECT_EQ(prior, end);
  zyn_release_tensor(&priors);
}

TEST(Priors, EveryInputSizeAndItsTurnedForm) {
  const uint32_t others[][2] = {{240, 320}, {160, 96}, {4096, 1000}, {1, 1}, {~0u, ~0u}};
  for (uint32_t transposed : {0u, 1u, 7u}) {
    for (const auto& size : kMaps) check_priors(size[0], size[1], size, transposed);
    for (const auto& size : others) check_priors(size[0], size[1], kMaps[0], transposed);
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

// Non-maximum suppression against the definition: passes over a flag array with a
// compaction after each, in plain single precision.
#include <math.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "support/buffers.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;
using Boxes = std::vector<zyn_detection>;

constexpr float kInf = std::numeric_limits<float>::infinity();

bool scores_before(const zyn_detection& a, const zyn_detection& b) {
  if (std::isnan(a.score) || std::isnan(b.score)) return !std::isnan(a.score);
  return a.score > b.score;
}

float side(float from, float to) { return std::max(0.0f, to - from); }

bool survives(const zyn_detection& i, const zyn_detection& j, float threshold) {
  const float intersection = side(std::max(i.x1, j.x1), std::min(i.x2, j.x2)) *
                             side(std::max(i.y1, j.y1), std::min(i.y2, j.y2));
  const float area_i = side(i.x1, i.x2) * side(i.y1, i.y2);
  const float area_j = side(j.x1, j.x2) * side(j.y1, j.y2);
  return threshold >= intersection / (area_j + area_i - intersection + 0.00001f);
}

Boxes passes(Boxes sorted, float threshold) {
  // std::stable_sort wants a strict weak order: NaN scores are moved behind first.
  const auto numbers = std::stable_partition(
      sorted.begin(), sorted.end(), [](const zyn_detection& b) { return !std::isnan(b.score); });
  std::stable_sort(sorted.begin(), numbers, scores_before);
  std::vector<int> flags(sorted.size(), 0);
  size_t n = sorted.size(), p = 0;
  while (n != p) {
    flags[p] = 1;
    for (size_t j = p + 1; j < n; j++) flags[j] = survives(sorted[p], sorted[j], threshold);
    p++;
    Boxes kept;
    for (size_t j = 0; j < n; j++)
      if (flags[j]) kept.push_back(sorted[j]);
    n = kept.size();
    std::copy(kept.begin(), kept.end(), sorted.begin());
    std::fill(flags.begin(), flags.end(), 0);
    std::fill(flags.begin(), flags.begin() + static_cast<int64_t>(p), 1);
  }
  sorted.resize(n);
  return sorted;
}

std::string text(const zyn_detection& b) {
  char line[128];
  snprintf(line, sizeof(line), "(%a %a %a %a: %a)", b.x1, b.y1, b.x2, b.y2, b.score);
  return line;
}

// Runs both on buffers that end at an inaccessible page and compares every bit.
void expect_as_defined(const Boxes& boxes, float threshold, const std::string& what) {
  const Boxes expected = passes(boxes, threshold);
  PageEnd<zyn_detection> in(boxes.size()), out(boxes.size());
  std::copy(boxes.begin(), boxes.end(), in.begin());
  const auto count = static_cast<int32_t>(boxes.size());
  const int32_t n = zyn_ssd_nms(out.data(), in.data(), count, threshold);
  ASSERT_EQ(n, static_cast<int32_t>(expected.size()))
      << what << ", " << count << " boxes, threshold " << threshold;
  for (size_t i = 0; i < expected.size(); i++)
    ASSERT_EQ(memcmp(&out[i], &expected[i], sizeof(zyn_detection)), 0)
        << what << ", record " << i << " of " << n << ": " << text(out[i]) << " for "
        << text(expected[i]);
  ASSERT_EQ(memcmp(in.data(), boxes.data(), boxes.size() * sizeof(zyn_detection)), 0) << what;
  // In place gives the same.
  ASSERT_EQ(zyn_ssd_nms(in.data(), in.data(), count, threshold), n) << what;
  ASSERT_EQ(memcmp(in.data(), out.data(), static_cast<size_t>(n) * sizeof(zyn_detection)), 0)
      << what;
}

zyn_detection random_box(Random& random, float spread) {
  const float x = random.real(0, spread), y = random.real(0, spread);
  return {x, y, x + random.real(-1, 40), y + random.real(-1, 40), random.real(0, 1)};
}

TEST(Nms, MatchesThePassesForEveryCountAroundTheBlocksAndSorts) {
  Random random(11);
  std::vector<int> counts;
  for (int n = 1; n <= 50; n++) counts.push_back(n);
  counts.insert(counts.end(), {63, 64, 65, 257, 600});
  for (int n : counts)
    for (float spread : {5.0f, 100.0f, 2000.0f})
      for (float threshold : {0.0f, 0.3f, 0.7f}) {
        Boxes boxes;
        for (int i = 0; i < n; i++) boxes.push_back(random_box(random, spread));
        ASSERT_NO_FATAL_FAILURE(expect_as_defined(boxes, threshold, "random boxes"));
      }
}

TEST(Nms, SortsAnyArrangementOfScores) {
  struct Arrangement {
    const char* name;
    float (*score)(int i, int n);
  };
  const Arrangement arrangements[] = {
      {"rising", [](int i, int) { return static_cast<float>(i); }},
      {"falling", [](int i, int n) { return static_cast<float>(n - i); }},
      {"equal", [](int, int) { return 0.5f; }},
      {"both zeros", [](int i, int) { return i % 2 ? 0.0f : -0.0f; }},
      {"organ pipe", [](int i, int n) { return static_cast<float>(std::min(i, n - i)); }},
      {"signs", [](int i, int) { return static_cast<float>(i % 2 ? i : -i) * 1e-3f; }},
      {"powers", [](int i, int) { return ldexpf(i % 3 ? 1.0f : -1.0f, i % 250 - 140); }},
      {"NaN between", [](int i, int) { return i % 3 ? static_cast<float>(i) : NAN; }},
      {"infinities", [](int i, int) {
         return i % 5 ? static_cast<float>(i) : i % 2 ? kInf : -kInf;
       }}};
  for (const Arrangement& a : arrangements)
    for (int n : {7, 40, 41, 300}) {
      Boxes boxes;
      for (int i = 0; i < n; i++) {
        const auto x = static_cast<float>(i);
        boxes.push_back({x, 0, x + 1, 1, a.score(i, n)});
      }
      ASSERT_NO_FATAL_FAILURE(expect_as_defined(boxes, 1.0f, a.name));
    }
}

TEST(Nms, AnOverlapEqualToTheThresholdSurvivesAndTheNextFloatDoesNot) {
  Random random(5);
  for (int i = 0; i < 200; i++) {
    const zyn_detection a{0, 0, random.real(1, 9), random.real(1, 9), 0.9f};
    const zyn_detection b{random.real(0, 1), random.real(0, 1), random.real(1, 9),
                          random.real(1, 9), 0.8f};
    const float w = std::min(a.x2, b.x2) - b.x1, h = std::min(a.y2, b.y2) - b.y1;
    const float common = w * h;
    const float overlap =
        common / ((b.x2 - b.x1) * (b.y2 - b.y1) + a.x2 * a.y2 - common + 0.00001f);
    if (!(overlap > 0)) continue;
    const zyn_detection in[2] = {b, a};
    zyn_detection out[2];
    EXPECT_EQ(zyn_ssd_nms(out, in, 2, overlap), 2) << overlap;
    EXPECT_EQ(out[0].score, 0.9f);
    EXPECT_EQ(zyn_ssd_nms(out, in, 2, nextafterf(overlap, 0)), 1) << overlap;
  }
}

TEST(Nms, SpecialCornersAndThresholds) {
  const float values[] = {0, -0.0f, 1, 2, -1, kInf, -kInf, NAN, 3.4e38f, -3.4e38f, 1e-45f, 1e-20f};
  Random random(3);
  const auto pick = [&] { return values[random.integer(0, 11)]; };
  for (float threshold : {0.3f, 0.0f, 1.0f, -0.5f, kInf, -kInf, NAN})
    for (int round = 0; round < 150; round++) {
      Boxes boxes(random.integer(1, 30));
      // min and max of the oracle are those of <algorithm>, with the pivot first: the
      // same rule for NaN as the library's.
      for (zyn_detection& b : boxes) b = {pick(), pick(), pick(), pick(), pick()};
      ASSERT_NO_FATAL_FAILURE(expect_as_defined(boxes, threshold, "special values"));
    }
}

TEST(Nms, NothingToDo) {
  const zyn_detection box{1, 2, 3, 4, 0.5f};
  zyn_detection out{};
  EXPECT_EQ(zyn_ssd_nms(&out, &box, 0, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(&out, &box, -1, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(&out, &box, INT32_MIN, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(nullptr, &box, 1, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(&out, nullptr, 1, 0.5f), 0);
  EXPECT_EQ(out.x1, 0);
  EXPECT_EQ(zyn_ssd_nms(&out, &box, 1, 0.5f), 1);
  EXPECT_EQ(memcmp(&out, &box, sizeof(box)), 0);
}

TEST(Nms, WithoutMemoryNothingIsWritten) {
  const zyn_detection boxes[3] = {{0, 0, 1, 1, 0.5f}, {0, 0, 1, 1, 0.9f}, {5, 5, 6, 6, 0.1f}};
  const int64_t allocations = for_each_failing_allocation([&](int64_t, bool) {
    zyn_detection out[3] = {};
    const int32_t n = zyn_ssd_nms(out, boxes, 3, 0.5f);
    EXPECT_EQ(out[0].score, n ? 0.9f : 0.0f);
    return n == 2;
  });
  EXPECT_EQ(allocations, 3);
}

}  // namespace

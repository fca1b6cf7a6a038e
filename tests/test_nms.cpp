// Non-maximum suppression against the definition, in plain single precision: a record
// survives when no better survivor removes it.
#include <math.h>
#include <time.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "support/buffers.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;
using Boxes = std::vector<zyn_detection>;

constexpr float kInf = std::numeric_limits<float>::infinity();

// NaN scores last, equal ones in their order.
bool scores_before(const zyn_detection& a, const zyn_detection& b) {
  return a.score > b.score || (std::isnan(b.score) && !std::isnan(a.score));
}

float side(float from, float to) { return std::max(0.0f, to - from); }

float overlap(const zyn_detection& i, const zyn_detection& j) {
  const float common = side(std::max(i.x1, j.x1), std::min(i.x2, j.x2)) *
                       side(std::max(i.y1, j.y1), std::min(i.y2, j.y2));
  const float area_i = side(i.x1, i.x2) * side(i.y1, i.y2);
  const float area_j = side(j.x1, j.x2) * side(j.y1, j.y2);
  return common / (area_j + area_i - common + 0.00001f);
}

Boxes greedy(Boxes sorted, float threshold) {
  std::stable_sort(sorted.begin(), sorted.end(), scores_before);
  Boxes kept;
  for (const zyn_detection& b : sorted)
    if (std::all_of(kept.begin(), kept.end(),
                    [&](const zyn_detection& by) { return threshold >= overlap(by, b); }))
      kept.push_back(b);
  return kept;
}

// Runs both on buffers that end at an inaccessible page and compares every bit.
void expect_as_defined(const Boxes& boxes, float threshold, const std::string& what) {
  SCOPED_TRACE(what + ", threshold " + std::to_string(threshold));
  const Boxes expected = greedy(boxes, threshold);
  PageEnd<zyn_detection> in(boxes.size()), out(boxes.size());
  std::copy(boxes.begin(), boxes.end(), in.begin());
  const auto count = static_cast<int32_t>(boxes.size());
  ASSERT_EQ(zyn_ssd_nms(out.data(), in.data(), count, threshold),
            static_cast<int32_t>(expected.size()));
  for (size_t i = 0; i < expected.size(); i++)
    ASSERT_TRUE(same_bytes(&out[i], &expected[i], sizeof(zyn_detection))) << "record " << i;
  ASSERT_EQ(memcmp(in.data(), boxes.data(), boxes.size() * sizeof(zyn_detection)), 0);
  // In place gives the same.
  zyn_ssd_nms(in.data(), in.data(), count, threshold);
  ASSERT_EQ(memcmp(in.data(), out.data(), expected.size() * sizeof(zyn_detection)), 0);
}

// A box at (x, y).
zyn_detection at(float x, float y, float w, float h, float score) {
  return {x, y, x + w, y + h, score};
}

const float kSpecial[] = {0, -0.0f, 1, 2, -1, kInf, -kInf, NAN, 3.4e38f, -3.4e38f, 1e-45f, 1e-20f};

// Ranges of corners and extents, and what is done to a box.
enum Twist { kNone, kWhole, kGiants, kAnySize, kThin, kSpecialOnes, kAllSpecial };
struct Kind {
  const char* name;
  float first, last, least, most;
  Twist twist = kNone;
  int columns = 1, rows = 1;  // places, pitch apart
  float pitch = 0;
  bool timed = false;
};
const Kind kKinds[] = {{"dense", 0, 100, -1, 40},
                       {"sparse, whole numbers, equal scores", 0, 300, -1, 9, kWhole},
                       {"disjoint", 0, 0, 10, 10, kNone, 40, 50, 20, true},
                       {"identical", 1, 1, 8, 8, kNone, 1, 1, 0, true},
                       {"clusters", -9, 9, 40, 60, kNone, 3, 3, 70, true},
                       {"a giant among small ones", 0, 900, 5, 20, kGiants, 1, 1, 0, true},
                       {"every size", -9, 9, 0.1f, 9, kAnySize},
                       {"thin", 0, 900, 100, 500, kThin},
                       {"areas near the largest float", -8e19f, 8e19f, 0, 4e19f},
                       {"infinite areas", -3e38f, 3e38f, 0, 3e37f},
                       {"special corners among others", 0, 900, 5, 90, kSpecialOnes},
                       {"special values", 0, 0, 0, 0, kAllSpecial}};

zyn_detection box(const Kind& kind, Random& r, int i) {
  const float x = r.real(kind.first, kind.last), y = r.real(kind.first, kind.last);
  const float w = r.real(kind.least, kind.most), h = r.real(kind.least, kind.most);
  const Twist twist = kind.twist;
  zyn_detection b =
      at(x + kind.pitch * static_cast<float>(i % kind.columns),
         y + kind.pitch * static_cast<float>(i / kind.columns % kind.rows), w, h, r.real(0, 1));
  if (twist == kThin) (i % 2 ? b.x2 : b.y2) = (i % 2 ? b.x1 : b.y1) + 0.5f;
  if (twist == kGiants && i % 500 == 77) b = at(-1e30f, -1e9f, 2e30f, 2e9f, b.score);
  const float size = exp2f(r.real(-20, 20));
  for (int k = 0; k < 5; k++) {
    float& v = (&b.x1)[k];
    if (twist == kWhole) v = floorf(k < 4 ? v : 6 * v);
    if (twist == kAnySize && k < 4) v *= size;
    if (twist == kAllSpecial || (twist == kSpecialOnes && i % 7 == 3 && r.integer(0, 4) == k))
      v = kSpecial[r.integer(0, 11)];
  }
  return b;
}

Boxes some_boxes(const Kind& kind, int count) {
  Random random(static_cast<uint64_t>(count) + 7);
  Boxes boxes;
  for (int i = 0; i < count; i++) boxes.push_back(box(kind, random, i));
  return boxes;
}

TEST(Nms, FollowsTheDefinitionAroundBlocksSortsAndGrids) {
  std::vector<int> counts = {63, 64, 65, 257, 1023, 1024, 1500};
  for (int n = 1; n <= 50; n++) counts.push_back(n);
  for (const Kind& kind : kKinds)
    for (int n : counts)
      for (float threshold :
           {0.3f, 0.0f, 1e-3f, 0.7f, 0.98f, 1.0f, 1.5f, -0.5f, kInf, -kInf, NAN}) {
        // Small counts in turn with one of the thresholds, otherwise all.
        if (n <= 50 && (n + static_cast<int>(&kind - kKinds)) % 3) continue;
        ASSERT_NO_FATAL_FAILURE(expect_as_defined(some_boxes(kind, n), threshold, kind.name));
      }
}

TEST(Nms, AHundredThousandBoxesTakeNoTime) {
  for (const Kind& kind : kKinds) {
    if (!kind.timed) continue;
    Boxes boxes = some_boxes(kind, 100000), out(100000);
    for (int i = 0; i < 100000; i++) {
      // Apart by scenes, so that most of them survive.
      boxes[i].x1 += 2000.0f * static_cast<float>(i % 50);
      boxes[i].x2 += 2000.0f * static_cast<float>(i % 50);
    }
    const clock_t start = clock();
    EXPECT_GT(zyn_ssd_nms(out.data(), boxes.data(), 100000, 0.5f), 0);
    EXPECT_LT(static_cast<double>(clock() - start) / CLOCKS_PER_SEC, 2) << kind.name;
  }
}

TEST(Nms, AnOverlapEqualToTheThresholdSurvivesAndTheNextFloatDoesNot) {
  Random random(5);
  for (int i = 0; i < 200; i++) {
    const zyn_detection a = at(0, 0, random.real(1, 9), random.real(1, 9), 0.9f);
    // Half of them as nested as the threshold allows.
    zyn_detection b{0, 0, a.x2 * random.real(0.1f, 1), a.y2, 0.8f};
    if (i % 2)
      b = {random.real(0, 1), random.real(0, 1), random.real(1, 9), random.real(1, 9), 0.8f};
    const float threshold = overlap(a, b);
    if (!(threshold > 0)) continue;
    // Alone, and on grids with others far away, the first of which go before.
    for (int others : {0, 1200}) {
      Boxes in{b, a}, out(others + 2);
      for (int k = 0; k < others; k++)
        in.push_back(at(100 + 900.0f * static_cast<float>(k), 0, 500, 500, k < 100 ? 1.0f : 0.0f));
      EXPECT_EQ(zyn_ssd_nms(out.data(), in.data(), others + 2, threshold), others + 2);
      EXPECT_EQ(zyn_ssd_nms(out.data(), in.data(), others + 2, nextafterf(threshold, 0)),
                others + 1);
    }
  }
}

TEST(Nms, NothingToDoAndNoMemory) {
  zyn_detection one{}, out{};
  for (int32_t count : {0, -1, INT32_MIN}) EXPECT_EQ(zyn_ssd_nms(&out, &one, count, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(nullptr, &one, 1, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(&out, nullptr, 1, 0.5f), 0);
  // Two blocks are vital, those of the grids are not.
  const Boxes boxes = some_boxes(kKinds[0], 1500), expected = greedy(boxes, 0.9f);
  ASSERT_GT(expected.size(), 1200u);
  for_each_failing_allocation([&](int64_t n, bool) {
    Boxes result(boxes.size());
    const int32_t kept = zyn_ssd_nms(result.data(), boxes.data(), 1500, 0.9f);
    EXPECT_EQ(kept, n <= 2 ? 0 : static_cast<int32_t>(expected.size()));
    return kept > 0;
  });
}

}  // namespace

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

Boxes greedy(Boxes sorted, float threshold) {
  // std::stable_sort wants a strict weak order: NaN scores are moved behind first.
  const auto numbers = std::stable_partition(
      sorted.begin(), sorted.end(), [](const zyn_detection& b) { return !std::isnan(b.score); });
  std::stable_sort(sorted.begin(), numbers, scores_before);
  Boxes kept;
  for (const zyn_detection& b : sorted)
    if (std::all_of(kept.begin(), kept.end(),
                    [&](const zyn_detection& by) { return survives(by, b, threshold); }))
      kept.push_back(b);
  return kept;
}

std::string text(const zyn_detection& b) {
  char line[128];
  snprintf(line, sizeof(line), "(%a %a %a %a: %a)", b.x1, b.y1, b.x2, b.y2, b.score);
  return line;
}

// Runs both on buffers that end at an inaccessible page and compares every bit.
void expect_as_defined(const Boxes& boxes, float threshold, const std::string& what) {
  const Boxes expected = greedy(boxes, threshold);
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

// A box at (x, y).
zyn_detection at(float x, float y, float w, float h, float score) {
  return {x, y, x + w, y + h, score};
}

const float kSpecial[] = {0, -0.0f, 1, 2, -1, kInf, -kInf, NAN, 3.4e38f, -3.4e38f, 1e-45f, 1e-20f};

// Kinds of inputs; i counts the boxes.
struct Kind {
  const char* name;
  zyn_detection (*box)(Random& r, int i);
};
const Kind kKinds[] = {
    {"dense",
     [](Random& r, int) {
       return at(r.real(0, 100), r.real(0, 100), r.real(-1, 40), r.real(-1, 40), r.real(-1, 1));
     }},
    {"sparse, whole numbers, equal scores",
     [](Random& r, int) {
       const auto n = [&](int low, int high) { return static_cast<float>(r.integer(low, high)); };
       return at(n(0, 300), n(0, 300), n(-1, 9), n(-1, 9), n(0, 5));
     }},
    {"disjoint",
     [](Random& r, int i) {
       return at(20.0f * static_cast<float>(i % 40), 20.0f * static_cast<float>(i / 40), 10, 10,
                 r.real(0, 1));
     }},
    {"identical", [](Random& r, int) { return at(1, 1, 8, 8, r.real(0, 1)); }},
    {"clusters",
     [](Random& r, int i) {
       const auto c = static_cast<float>(i % 9) * 70;
       return at(c + r.real(-9, 9), c + r.real(-9, 9), r.real(40, 60), r.real(40, 60),
                 r.real(0, 1));
     }},
    {"a giant among small ones",
     [](Random& r, int i) {
       if (i % 500 == 77) return at(-1e30f, -1e9f, 2e30f, 2e9f, r.real(0, 1));
       return at(r.real(0, 900), r.real(0, 900), r.real(5, 20), r.real(5, 20), r.real(0, 1));
     }},
    {"every size",
     [](Random& r, int) {
       const float s = exp2f(r.real(-20, 20));
       return at(r.real(-9, 9) * s, r.real(-9, 9) * s, s * r.real(.1f, 9), s * r.real(.1f, 9),
                 r.real(0, 1));
     }},
    {"thin",
     [](Random& r, int i) {
       const float p = r.real(0, 900), q = r.real(0, 900), l = r.real(100, 500);
       return at(p, q, i % 2 ? 0.5f : l, i % 2 ? l : 0.5f, r.real(0, 1));
     }},
    {"areas near the largest float",
     [](Random& r, int) {
       return at(r.real(-8e19f, 8e19f), r.real(-8e19f, 8e19f), r.real(0, 4e19f), r.real(0, 4e19f),
                 r.real(0, 1));
     }},
    {"infinite areas",
     [](Random& r, int) {
       return at(r.real(-3e38f, 3e38f), r.real(-3e38f, 3e38f), r.real(0, 3e37f), r.real(0, 3e37f),
                 r.real(0, 1));
     }},
    {"special corners among others",
     [](Random& r, int i) {
       zyn_detection b =
           at(r.real(0, 900), r.real(0, 900), r.real(5, 90), r.real(5, 90), r.real(0, 1));
       if (i % 7 == 3) (&b.x1)[r.integer(0, 4)] = kSpecial[r.integer(0, 11)];
       return b;
     }},
    {"special values", [](Random& r, int) {
       const auto pick = [&] { return kSpecial[r.integer(0, 11)]; };
       return zyn_detection{pick(), pick(), pick(), pick(), pick()};
     }}};

TEST(Nms, FollowsTheDefinitionAroundBlocksSortsAndGrids) {
  std::vector<int> counts = {63, 64, 65, 257, 1023, 1024, 1500};
  for (int n = 1; n <= 50; n++) counts.push_back(n);
  for (const Kind& kind : kKinds)
    for (int n : counts)
      for (float threshold :
           {0.3f, 0.0f, 1e-3f, 0.7f, 0.98f, 1.0f, 1.5f, -0.5f, kInf, -kInf, NAN}) {
        // Small counts in turn with one of the thresholds, otherwise all.
        if (n <= 50 && (n + static_cast<int>(&kind - kKinds)) % 3) continue;
        Random random(static_cast<uint64_t>(n) + 7);
        Boxes boxes;
        for (int i = 0; i < n; i++) boxes.push_back(kind.box(random, i));
        ASSERT_NO_FATAL_FAILURE(expect_as_defined(boxes, threshold, kind.name));
      }
}

TEST(Nms, AHundredThousandBoxesTakeNoTime) {
  for (const char* name : {"disjoint", "identical", "clusters", "a giant among small ones"})
    for (const Kind& kind : kKinds) {
      if (strcmp(kind.name, name) != 0) continue;
      Random random(1);
      Boxes boxes, out(100000);
      for (int i = 0; i < 100000; i++) {
        boxes.push_back(kind.box(random, i));
        // Apart by scenes, so that most of them survive.
        boxes.back().x1 += 2000.0f * static_cast<float>(i % 50);
        boxes.back().x2 += 2000.0f * static_cast<float>(i % 50);
      }
      const clock_t start = clock();
      EXPECT_GT(zyn_ssd_nms(out.data(), boxes.data(), 100000, 0.5f), 0);
      EXPECT_LT(static_cast<double>(clock() - start) / CLOCKS_PER_SEC, 2) << name;
    }
}

TEST(Nms, AnOverlapEqualToTheThresholdSurvivesAndTheNextFloatDoesNot) {
  Random random(5);
  for (int i = 0; i < 200; i++) {
    const zyn_detection a = at(0, 0, random.real(1, 9), random.real(1, 9), 0.9f);
    const zyn_detection b{random.real(0, 1), random.real(0, 1), random.real(1, 9),
                          random.real(1, 9), 0.8f};
    const float w = std::min(a.x2, b.x2) - b.x1, h = std::min(a.y2, b.y2) - b.y1;
    const float common = w * h;
    const float overlap =
        common / ((b.x2 - b.x1) * (b.y2 - b.y1) + a.x2 * a.y2 - common + 0.00001f);
    if (!(overlap > 0)) continue;
    // Alone, and on grids with others far away.
    for (int others : {0, 1200}) {
      Boxes in{b, a}, out(others + 2);
      for (int k = 0; k < others; k++)
        in.push_back(at(100 + 9.0f * static_cast<float>(k), 0, 5, 5, 0));
      EXPECT_EQ(zyn_ssd_nms(out.data(), in.data(), others + 2, overlap), others + 2) << overlap;
      EXPECT_EQ(out[0].score, 0.9f);
      EXPECT_EQ(zyn_ssd_nms(out.data(), in.data(), others + 2, nextafterf(overlap, 0)), others + 1);
    }
  }
}

TEST(Nms, NothingToDoAndNoMemory) {
  const zyn_detection boxes[3] = {{0, 0, 1, 1, 0.5f}, {0, 0, 1, 1, 0.9f}, {5, 5, 6, 6, 0.1f}};
  zyn_detection out[3] = {};
  for (int32_t count : {0, -1, INT32_MIN}) EXPECT_EQ(zyn_ssd_nms(out, boxes, count, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(nullptr, boxes, 1, 0.5f), 0);
  EXPECT_EQ(zyn_ssd_nms(out, nullptr, 1, 0.5f), 0);
  const int64_t allocations = for_each_failing_allocation([&](int64_t, bool) {
    out[0] = {};
    const int32_t n = zyn_ssd_nms(out, boxes, 3, 0.5f);
    EXPECT_EQ(out[0].score, n ? 0.9f : 0.0f);
    return n == 2;
  });
  EXPECT_EQ(allocations, 3);
  // Grids are not vital.
  Random random(2);
  Boxes many, expected;
  for (int i = 0; i < 1200; i++) many.push_back(kKinds[0].box(random, i));
  expected = greedy(many, 0.5f);
  for_each_failing_allocation([&](int64_t n, bool) {
    Boxes result(many.size());
    const int32_t kept = zyn_ssd_nms(result.data(), many.data(), 1200, 0.5f);
    EXPECT_EQ(kept, n <= 3 ? 0 : static_cast<int32_t>(expected.size()));
    return kept > 0;
  });
}

}  // namespace

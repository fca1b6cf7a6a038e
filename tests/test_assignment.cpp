// The assignment against a model in whole numbers, the overlap score, the threshold and the
// match info.
#include <math.h>

#include <algorithm>
#include <set>

#include "support/buffers.h"
#include "support/capture.h"
#include "support/failing.h"
#include "support/track_model.h"
#include "tracking/zyn_assignment.h"

namespace {

using namespace zyn_test;

using Pairs = std::vector<std::pair<int, int>>;
using Boxes = std::vector<zyn_detection>;

constexpr const char* kInfeasible = "infeasible cost matrix\n";

constexpr Reports tracking_report{"src/tracking/zyn_tracking.cpp"};

// Scores that are whole numbers, so that every sum is exact.
struct Scores {
  int rows, cols;
  std::vector<int> v;
  int at(int r, int c) const { return v[r * cols + c]; }
  Pairs solve() const {
    zyn_matrix* m = zyn_create_matrix(rows, cols, 1, ZYN_TYPE_F32);
    std::copy(v.begin(), v.end(), static_cast<float*>(m->data));
    int32_t* pairs = zyn_assignment_pairs(m);
    zyn_release_matrix(&m);
    Pairs result;
    for (int i = 0; pairs && i < std::min(rows, cols); i++)
      result.push_back({pairs[2 * i], pairs[2 * i + 1]});
    zyn_free(pairs);
    return result;
  }
};

// The order in which equal costs are decided: rows in turn, columns scanned in a list
// that starts with the last one, is shortened by moving its tail into the gap, and
// prefers, among equal distances, the last free column, else the first.
Pairs model_assignment(const Scores& s) {
  const bool turned = s.rows > s.cols;
  const int n = std::min(s.rows, s.cols), m = std::max(s.rows, s.cols);
  const int64_t top = *std::max_element(s.v.begin(), s.v.end());
  std::vector<int64_t> u(n), v(m);
  std::vector<int> owner(m, -1), choice(n, -1);
  for (int start = 0; start < n; start++) {
    std::vector<int> open, from(m, -1), closed;
    for (int j = m; j-- > 0;) open.push_back(j);
    std::vector<int64_t> reach(m, INT64_MAX);
    int64_t so_far = 0;
    int end = -1;
    for (int row = start; end < 0;) {
      size_t pick = open.size();
      for (size_t k = 0; k < open.size(); k++) {
        const int j = open[k];
        const int64_t way = so_far + top - (turned ? s.at(j, row) : s.at(row, j)) - u[row] - v[j];
        if (way < reach[j]) from[j] = row;
        reach[j] = std::min(reach[j], way);
        if (pick == open.size() || reach[j] < reach[open[pick]] ||
            (reach[j] == reach[open[pick]] && owner[j] < 0))
          pick = k;
      }
      const int j = open[pick];
      so_far = reach[j];
      closed.push_back(j);
      open[pick] = open.back();
      open.pop_back();
      (owner[j] < 0 ? end : row) = owner[j] < 0 ? j : owner[j];
    }
    // Rows of the search tree, other than the start, are the owners of closed columns.
    u[start] += so_far;
    for (int j : closed) {
      if (owner[j] >= 0) u[owner[j]] += so_far - reach[j];
      v[j] -= so_far - reach[j];
    }
    for (int j = end, r = -1; r != start;) {
      owner[j] = r = from[j];
      std::swap(j, choice[r]);
    }
  }
  Pairs pairs;
  for (int i = 0; i < n; i++)
    pairs.push_back(turned ? std::make_pair(choice[i], i) : std::make_pair(i, choice[i]));
  return pairs;
}

// What an association says; nothing where it fails.
struct Matches {
  bool made = false;
  Pairs matched;
  std::vector<int> unmatched;

  Matches(const Boxes& detections, const Boxes& tracks, float threshold) {
    zyn_sort_match_info* info = zyn_associate_detections_to_trackers(
        detections.data(), static_cast<int32_t>(detections.size()), tracks.data(),
        static_cast<int32_t>(tracks.size()), threshold);
    made = info != nullptr;
    for (int i = 0; made && i < info->matched_count; i++)
      matched.push_back({info->matched[2 * i], info->matched[2 * i + 1]});
    if (made) unmatched.assign(info->unmatched, info->unmatched + info->unmatched_count);
    zyn_release_sort_match_info(&info);
  }
};

// The overlap in double.
double overlap(const zyn_detection& a, const zyn_detection& b) {
  auto common = [](double a1, double a2, double b1, double b2) {
    const double ac = (a1 + a2) / 2, bc = (b1 + b2) / 2, ah = 2.5 * (a2 - a1), bh = 2.5 * (b2 - b1);
    return fmax(0, fmin(ac + ah, bc + bh) - fmax(ac - ah, bc - bh));
  };
  const double both = common(a.x1, a.x2, b.x1, b.x2) * common(a.y1, a.y2, b.y1, b.y2);
  auto area = [](const zyn_detection& d) {
    return 25.0 * (double{d.x2} - d.x1) * (double{d.y2} - d.y1);
  };
  return both / (area(a) + area(b) - both + 0.00001);
}

TEST(Assignment, FollowsTheModelAlsoWhereCostsAreEqual) {
  Random random(11);
  const int cases = soak(20000, 100000);
  for (int i = 0; i < cases; i++) {
    // Small ranges are full of ties, large ones have none.
    const int most = i % 100 ? 6 : 40, range[3] = {2, 9, 5000}, top = range[i % 3];
    Scores s{random.integer(1, most), random.integer(1, most), {}};
    for (int k = 0; k < s.rows * s.cols; k++) s.v.push_back(random.integer(-top / 4, top));
    ASSERT_EQ(s.solve(), model_assignment(s)) << "case " << i << " " << s.rows << " x " << s.cols;
  }
}

TEST(Assignment, ColumnsWithoutANumberAreAvoidedAndWithoutAPathItSaysInfeasible) {
  const float inf = INFINITY;
  const struct {
    int rows, cols;
    std::vector<float> scores;
    bool solved = false;
  } cases[] = {{3, 2, {1, 2, 3, 4, 5, 6}},       {2, 3, {NAN, NAN, NAN, NAN, NAN, NAN}},
               {2, 3, {1, 2, 3, NAN, NAN, NAN}}, {2, 3, {1, 2, 3, -inf, -inf, -inf}},
               {2, 3, {inf, 1, 2, 3, 4, 5}},     {2, 3, {1, 2, NAN, 5, 9, NAN}, true}};
  for (const auto& c : cases) {
    zyn_matrix* m = zyn_create_matrix(c.rows, c.cols, 1, ZYN_TYPE_F32);
    std::copy(c.scores.begin(), c.scores.end(), static_cast<float*>(m->data));
    int32_t columns[3] = {};
    EXPECT_SAYS(zyn_solve_assignment(m, columns), c.solved ? 0 : 256, c.solved ? "" : kInfeasible);
    EXPECT_TRUE(!c.solved || (columns[0] == 0 && columns[1] == 1));
    zyn_release_matrix(&m);
  }
}

TEST(Association, MatchesAreThePairsWhoseOverlapExceedsTheThreshold) {
  Random random(13);
  for (int i = 0; i < soak(2000, 20000); i++) {
    auto boxes = [&](int count) {
      Boxes result;
      for (int k = 0; k < count; k++) {
        const float x = random.real(0, 300), y = random.real(0, 300);
        result.push_back({x, y, x + random.real(1, 40), y + random.real(1, 40), random.real(0, 1)});
      }
      return result;
    };
    const Boxes detections = boxes(random.integer(1, 6)), tracks = boxes(random.integer(1, 6));
    const float threshold = random.real(-0.1f, 0.5f);
    Scores s{static_cast<int>(detections.size()), static_cast<int>(tracks.size()), {}};
    for (const zyn_detection& d : detections)
      for (const zyn_detection& t : tracks)
        s.v.push_back(static_cast<int>(lround(1e8 * overlap(d, t))));
    Pairs matched;
    std::set<int> unmatched;
    for (int d = 0; d < s.rows; d++) unmatched.insert(d);
    for (auto [d, t] : model_assignment(s)) {
      if (s.at(d, t) <= 1e8 * threshold) continue;
      matched.push_back({d, t});
      unmatched.erase(d);
    }
    const Matches got(detections, tracks, threshold);
    ASSERT_EQ(got.matched, matched) << "case " << i << " " << s.rows << " x " << s.cols;
    ASSERT_EQ(got.unmatched, std::vector<int>(unmatched.begin(), unmatched.end()));
  }
}

TEST(Association, ScoresAtTheirEdges) {
  // Large boxes: the margin in the union is lost, the score 1. Equal is no match. On purpose
  // areas are not clamped: an inverted box has a negative one, and a union of 0.
  const zyn_detection large{0, 0, 100, 100, 0}, small{0, 0, 4, 4, 0}, inverted{4, 0, 0, 4, 0};
  const struct {
    zyn_detection a, b;
    float threshold;
    bool match;
  } cases[] = {{large, large, 1, false},
               {large, large, nextafterf(1, 0), true},
               {large, large, NAN, false},
               {small, inverted, 0, false},
               {small, inverted, -1, true}};
  for (const auto& c : cases)
    EXPECT_EQ(Matches({c.a}, {c.b}, c.threshold).matched.size(), c.match) << c.threshold;
}

TEST(Association, NullTracksAreLetThroughAndOverlapNothing) {
  const zyn_detection boxes[2] = {{-1, -1, 1, 1, 0}, {0, 0, 1, 1, 0}};
  zyn_sort_match_info* info = zyn_associate_detections_to_trackers(boxes, 2, nullptr, 1, 0);
  ASSERT_TRUE(info);
  EXPECT_TRUE(info->matched_count == 0 && info->unmatched_count == 2);
  zyn_release_sort_match_info(&info);
}

TEST(Association, RefusesMissingDetectionsAndZeroCounts) {
  const zyn_detection good{5, 5, 9, 9, 0}, bad{NAN, 0, 1, 1, 0}, box{0, 0, 1, 1, 0};
  const std::string refused = tracking_report(kPara, 1196);
  const std::string no_matrix = report("parameters error!", "src/matrix/zyn_matrix_core.cpp", 43) +
                                tracking_report(kMemory, 1202);
  const std::pair<int, int> counts[] = {{0, 1}, {1, 0}, {-1, 1}, {1, -3}};
  for (const auto& c : counts)
    EXPECT_SAYS(zyn_associate_detections_to_trackers(&box, c.first, &box, c.second, 0), nullptr,
                c.first != 0 && c.second != 0 ? no_matrix : refused);
  EXPECT_SAYS(zyn_associate_detections_to_trackers(nullptr, 1, &box, 1, 0), nullptr, refused);
  const Boxes sides[][2] = {
      {{bad, bad}, {bad, bad}}, {{good, bad}, {box, good}}, {{box, good}, {bad, good}}};
  for (const auto& side : sides)
    EXPECT_SAYS(Matches(side[0], side[1], 0).made, false,
                kInfeasible + tracking_report("Unknown error!", 1222));
  // A spare track may hold anything.
  EXPECT_EQ(Matches({good}, {bad, good}, 0.3f).matched, (Pairs{{0, 1}}));
}

TEST(Association, EveryAllocationMayFail) {
  const Boxes detections(3, {0, 0, 9, 9, 0}), tracks(2, {1, 0, 10, 9, 0});
  const Reports matrix{"src/matrix/zyn_matrix_core.cpp"};
  const std::string scores = tracking_report(kMemory, 1202);
  const std::string solve = tracking_report("Unknown error!", 1222);
  const std::string header = matrix("memory error!", 48), block = matrix(kMemory, 241);
  const std::string texts[] = {
      header + scores, block + scores, header + solve, block + solve,
      tracking_report(kMemory, 767) + solve,
      // the solver's three blocks, the list of pairs; the flags; the record and its arrays
      solve, solve, solve, solve, tracking_report(kMemory, 1232), tracking_report(kMemory, 1239),
      "", "", "", ""};
  for (int n = 1; n <= 15; n++) {
    FailingAllocations failing(n);
    EXPECT_SAYS(Matches(detections, tracks, 0).made, n == 15, texts[n - 1]);
  }
}

TEST(MatchInfo, KeepsItsCountsAsGivenAndTouchesNoElement) {
  const zyn_system_allocator hooks{[](size_t bytes) { return malloc(bytes < 4096 ? bytes : 64); },
                                   free};
  const zyn_system_allocator before = zyn_set_system_allocator(&hooks);
  const int32_t sizes[][2] = {{0, 0},   {3, 0},         {0, 2},
                              {-4, -1}, {INT32_MIN, 1}, {INT32_MAX, INT32_MAX}};
  for (const auto& size : sizes) {
    zyn_sort_match_info* info = zyn_create_sort_match_info(size[0], size[1]);
    ASSERT_NE(info, nullptr);
    EXPECT_TRUE(info->matched_count == size[0] && info->unmatched_count == size[1]);
    EXPECT_TRUE(!info->matched == (size[0] <= 0) && !info->unmatched == (size[1] <= 0));
    zyn_release_sort_match_info(&info);
    EXPECT_EQ(info, nullptr);
    zyn_release_sort_match_info(&info);
  }
  zyn_set_system_allocator(&before);
  zyn_release_sort_match_info(nullptr);
}

}  // namespace

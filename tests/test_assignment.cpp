// The assignment against brute force and against a model in whole numbers, the overlap
// score, the threshold and the match info.
#include <math.h>

#include <algorithm>

#include "support/buffers.h"
#include "support/capture.h"
#include "support/failing.h"
#include "support/track_model.h"
#include "tracking/zyn_assignment.h"

namespace {

using namespace zyn_test;

using Pairs = std::vector<std::pair<int, int>>;

constexpr const char* kUnknown = "Unknown error!";
constexpr const char* kInfeasible = "infeasible cost matrix\n";

constexpr Reports tracking_report{"src/tracking/zyn_tracking.cpp"};

// Scores that are whole numbers, so that every sum is exact.
struct Scores {
  int rows, cols;
  std::vector<int> v;
  Scores(int r, int c, int largest, Random* random) : rows(r), cols(c) {
    for (int i = 0; i < r * c; i++) v.push_back(random->integer(-largest / 4, largest));
  }
  int at(int r, int c) const { return v[r * cols + c]; }
  Pairs solve() const {
    zyn_matrix* m = zyn_create_matrix(rows, cols, 1, ZYN_TYPE_F32);
    for (size_t i = 0; i < v.size(); i++)
      static_cast<float*>(m->data)[i] = static_cast<float>(v[i]);
    int32_t* pairs = zyn_assignment_pairs(m);
    zyn_release_matrix(&m);
    Pairs result;
    for (int i = 0; pairs && i < std::min(rows, cols); i++)
      result.push_back({pairs[2 * i], pairs[2 * i + 1]});
    zyn_free(pairs);
    return result;
  }
  int64_t total(const Pairs& pairs) const {
    int64_t sum = 0;
    for (auto [r, c] : pairs) sum += at(r, c);
    return sum;
  }
  // The largest total over every injective choice for the shorter side.
  int64_t best(int i = 0, unsigned used = 0) const {
    if (i == std::min(rows, cols)) return 0;
    int64_t top = INT64_MIN;
    for (int j = 0; j < std::max(rows, cols); j++)
      if (!(used >> j & 1))
        top = std::max(top, (rows <= cols ? at(i, j) : at(j, i)) + best(i + 1, used | 1u << j));
    return top;
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

// Match info, released at the end.
class Info {
 public:
  explicit Info(zyn_sort_match_info* info) : info_(info) {}
  ~Info() { zyn_release_sort_match_info(&info_); }
  explicit operator bool() const { return info_ != nullptr; }
  Pairs matched() const {
    Pairs result;
    for (int i = 0; i < info_->matched_count; i++)
      result.push_back({info_->matched[2 * i], info_->matched[2 * i + 1]});
    return result;
  }
  std::vector<int> unmatched() const {
    return std::vector<int>(info_->unmatched, info_->unmatched + info_->unmatched_count);
  }

 private:
  zyn_sort_match_info* info_;
};

using Boxes = std::vector<zyn_detection>;

Info associate(const Boxes& detections, const Boxes& tracks, float threshold) {
  return Info(zyn_associate_detections_to_trackers(
      detections.data(), static_cast<int32_t>(detections.size()), tracks.data(),
      static_cast<int32_t>(tracks.size()), threshold));
}

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

TEST(Assignment, IsOptimalAndDecidesEqualCostsInOrder) {
  Random random(11);
  const int cases = soak(20000, 100000);
  for (int i = 0; i < cases; i++) {
    // Small ranges are full of ties, large ones have none.
    const Scores s(random.integer(1, 6), random.integer(1, 6),
                   i % 3 == 0   ? 2
                   : i % 3 == 1 ? 9
                                : 5000,
                   &random);
    const Pairs got = s.solve();
    ASSERT_EQ(got, model_assignment(s)) << "case " << i << " " << s.rows << " x " << s.cols;
    ASSERT_EQ(s.total(got), s.best()) << "case " << i << " " << s.rows << " x " << s.cols;
  }
  for (int i = 0; i < cases / 100; i++) {
    const Scores s(random.integer(1, 40), random.integer(1, 40), 30, &random);
    ASSERT_EQ(s.solve(), model_assignment(s)) << "case " << i << " " << s.rows << " x " << s.cols;
  }
}

TEST(Assignment, ColumnsWithoutANumberAreAvoidedAndWithoutAPathItSaysInfeasible) {
  const struct {
    const char* label;
    int rows, cols;
    float scores[6];
    bool solved = false;
  } cases[] = {{"more rows than columns", 3, 2, {1, 2, 3, 4, 5, 6}},
               {"no number at all", 2, 3, {NAN, NAN, NAN, NAN, NAN, NAN}},
               {"a row without a number", 2, 3, {1, 2, 3, NAN, NAN, NAN}},
               {"a row of infinite costs", 2, 3, {1, 2, 3, -INFINITY, -INFINITY, -INFINITY}},
               {"infinitely better than the rest", 2, 3, {INFINITY, 1, 2, 3, 4, 5}},
               {"a column without a number", 2, 3, {NAN, 1, 2, NAN, 5, 9}, true}};
  for (const auto& c : cases) {
    zyn_matrix* m = zyn_create_matrix(c.rows, c.cols, 1, ZYN_TYPE_F32);
    memcpy(m->data, c.scores, sizeof(c.scores));
    int32_t columns[3] = {}, code = 0;
    EXPECT_EQ(printed([&] { code = zyn_solve_assignment(m, columns); }),
              c.solved ? "" : kInfeasible);
    EXPECT_EQ(code, c.solved ? 0 : 256) << c.label;
    if (c.solved) {
      EXPECT_TRUE(columns[0] == 1 && columns[1] == 2);
    }
    zyn_release_matrix(&m);
  }
}

TEST(Association, MatchesAreThePairsWhoseOverlapExceedsTheThreshold) {
  Random random(13);
  for (int i = 0; i < soak(1000, 20000); i++) {
    auto boxes = [&](int count) {
      Boxes result;
      for (int k = 0; k < count; k++) {
        const float x = random.real(0, 300), y = random.real(0, 300);
        result.push_back({x, y, x + random.real(1, 40), y + random.real(1, 40), random.real(0, 1)});
      }
      return result;
    };
    const Boxes detections = boxes(random.integer(1, 6)), tracks = boxes(random.integer(1, 6));
    const float threshold = random.real(0, 0.5f);
    const Info info = associate(detections, tracks, threshold);
    ASSERT_TRUE(info);
    // Every detection once, every track at most once, unmatched ascending.
    std::vector<int> seen(detections.size()), taken(tracks.size());
    for (auto [d, t] : info.matched()) {
      ASSERT_EQ(seen[d]++, 0);
      ASSERT_EQ(taken[t]++, 0);
    }
    const std::vector<int> unmatched = info.unmatched();
    ASSERT_TRUE(std::is_sorted(unmatched.begin(), unmatched.end()));
    for (int d : unmatched) ASSERT_EQ(seen[d]++, 0);
    ASSERT_EQ(info.matched().size() + unmatched.size(), detections.size());
    // Without a threshold the total is the best possible one; the threshold takes the
    // pairs that do not exceed it away, and leaves the others in their order.
    double total = 0;
    const Pairs some = info.matched();
    auto next = some.begin();
    const Info all = associate(detections, tracks, -1);
    for (auto [d, t] : all.matched()) {
      const double score = overlap(detections[d], tracks[t]);
      total += score;
      const bool kept = next != some.end() && *next == std::make_pair(d, t);
      if (fabs(score - threshold) > 1e-5) {
        ASSERT_EQ(kept, score > threshold);
      }
      if (kept) ++next;
    }
    ASSERT_EQ(next, some.end());
    Scores s(static_cast<int>(detections.size()), static_cast<int>(tracks.size()), 1, &random);
    for (int d = 0; d < s.rows; d++)
      for (int t = 0; t < s.cols; t++)
        s.v[d * s.cols + t] = static_cast<int>(1e8 * overlap(detections[d], tracks[t]));
    ASSERT_NEAR(total, static_cast<double>(s.best()) * 1e-8, 1e-5);
  }
}

TEST(Association, ScoresAtTheirEdges) {
  // Unit squares side by side: enlarged to 5 x 5, apart by `gap` they share 5 - 1 - gap.
  for (float gap : {0.0f, 3.5f}) {
    const Boxes a{{0, 0, 1, 1, 0}}, b{{1 + gap, 0, 2 + gap, 1, 0}};
    const float shared = (4 - gap) * 5, score = shared / (50 - shared);
    EXPECT_EQ(associate(a, b, score * 0.999f).matched().size(), 1u) << gap;
    EXPECT_EQ(associate(a, b, score * 1.001f).matched().size(), 0u) << gap;
  }
  // Large boxes: the margin in the union is lost, the score 1. Equal is no match.
  const Boxes box{{0, 0, 100, 100, 0}};
  EXPECT_TRUE(associate(box, box, 1).matched().empty());
  EXPECT_EQ(associate(box, box, nextafterf(1, 0)).matched().size(), 1u);
  EXPECT_TRUE(associate(box, box, NAN).matched().empty());
  // On purpose areas are not clamped: an inverted box has a negative one, and a union of 0.
  const Boxes small{{0, 0, 4, 4, 0}}, inverted{{4, 0, 0, 4, 0}};
  EXPECT_TRUE(associate(small, inverted, 0).matched().empty());
  EXPECT_EQ(associate(small, inverted, -1).matched().size(), 1u);
  // Pairs come in the order of the tracks where these are fewer.
  const Info info = associate({{200, 1, 210, 11, 0}, {100, 0, 110, 10, 0}, {1, 0, 11, 10, 0}},
                              {{0, 0, 10, 10, 0}, {200, 0, 210, 10, 0}}, 0.3f);
  EXPECT_EQ(info.matched(), (Pairs{{2, 0}, {0, 1}}));
  EXPECT_EQ(info.unmatched(), std::vector<int>{1});
}

TEST(Association, NullTracksAreLetThroughAndOverlapNothing) {
  const Boxes boxes{{-1, -1, 1, 1, 0}, {0, 0, 1, 1, 0}};
  const Info info(zyn_associate_detections_to_trackers(boxes.data(), 2, nullptr, 1, 0));
  ASSERT_TRUE(info);
  EXPECT_TRUE(info.matched().empty());
  EXPECT_EQ(info.unmatched(), (std::vector<int>{0, 1}));
}

TEST(Association, RefusesMissingDetectionsAndZeroCounts) {
  const zyn_detection box{0, 0, 1, 1, 0};
  const std::string refused = tracking_report(kPara, 1196);
  const std::string no_matrix = report("parameters error!", "src/matrix/zyn_matrix_core.cpp", 43) +
                                tracking_report(kMemory, 1202);
  const struct {
    const zyn_detection* detections;
    int detection_count, track_count;
    const std::string& text;
  } cases[] = {{nullptr, 1, 1, refused},
               {&box, 0, 1, refused},
               {&box, 1, 0, refused},
               {&box, -1, 1, no_matrix},
               {&box, 1, -3, no_matrix}};
  for (const auto& c : cases)
    EXPECT_SAYS(zyn_associate_detections_to_trackers(c.detections, c.detection_count, &box,
                                                     c.track_count, 0),
                nullptr, c.text);
  const std::string both = kInfeasible + tracking_report(kUnknown, 1222);
  const Boxes good{{0, 0, 1, 1, 0}, {5, 5, 9, 9, 0}}, bad{{NAN, 0, 1, 1, 0}, {0, NAN, 1, 1, 0}};
  EXPECT_EQ(printed([&] { EXPECT_FALSE(associate(bad, bad, 0)); }), both);
  EXPECT_EQ(printed([&] { EXPECT_FALSE(associate({good[0], bad[0]}, good, 0)); }), both);
  EXPECT_EQ(printed([&] { EXPECT_FALSE(associate(good, {bad[0], good[0]}, 0)); }), both);
  // A spare track may hold anything.
  EXPECT_EQ(associate({good[0]}, {bad[0], good[0]}, 0.3f).matched(), (Pairs{{0, 1}}));
}

TEST(Association, EveryAllocationMayFail) {
  const Boxes detections{{0, 0, 9, 9, 0}, {50, 0, 59, 9, 0}, {90, 0, 99, 9, 0}};
  const Boxes tracks{{51, 0, 60, 9, 0}, {1, 0, 10, 9, 0}};
  const Reports matrix{"src/matrix/zyn_matrix_core.cpp"};
  const std::string scores = tracking_report(kMemory, 1202);
  const std::string solve = tracking_report(kUnknown, 1222);
  const std::vector<std::string> texts{
      matrix("memory error!", 48) + scores, matrix(kMemory, 241) + scores,
      matrix("memory error!", 48) + solve, matrix(kMemory, 241) + solve,
      tracking_report(kMemory, 767) + solve,
      // the solver's three blocks, the list of pairs
      solve, solve, solve, solve,
      // the flags; the record and its arrays
      tracking_report(kMemory, 1232), tracking_report(kMemory, 1239), "", "", ""};
  const int64_t needed = for_each_failing_allocation([&](int64_t n, bool) {
    bool made = false;
    const std::string text =
        printed([&] { made = static_cast<bool>(associate(detections, tracks, 0)); });
    EXPECT_EQ(text, n <= static_cast<int64_t>(texts.size()) ? texts[n - 1] : "");
    return made;
  });
  EXPECT_EQ(needed, static_cast<int64_t>(texts.size()));
}

TEST(MatchInfo, KeepsItsCountsAsGiven) {
  const struct {
    int32_t matched, unmatched;
  } sizes[] = {{0, 0}, {3, 0}, {0, 2}, {2, 5}, {-4, -1}, {INT32_MIN, 1}};
  for (const auto& size : sizes) {
    zyn_sort_match_info* info = zyn_create_sort_match_info(size.matched, size.unmatched);
    ASSERT_NE(info, nullptr);
    EXPECT_TRUE(info->matched_count == size.matched && info->unmatched_count == size.unmatched);
    EXPECT_EQ(info->matched != nullptr, size.matched > 0);
    EXPECT_EQ(info->unmatched != nullptr, size.unmatched > 0);
    for (int i = 0; i < size.matched; i++) info->matched[2 * i] = info->matched[2 * i + 1] = i;
    for (int i = 0; i < size.unmatched; i++) info->unmatched[i] = i;
    zyn_release_sort_match_info(&info);
    EXPECT_EQ(info, nullptr);
    zyn_release_sort_match_info(&info);
  }
  zyn_release_sort_match_info(nullptr);
}

// Pages that nobody touched: what a caller asked for by mistake costs no time.
TEST(MatchInfo, OfAnySizeIsRequestedWithoutTouchingIt) {
  static int64_t requested;
  requested = 0;
  const zyn_system_allocator hooks{[](size_t bytes) -> void* {
                                     requested += static_cast<int64_t>(bytes);
                                     return malloc(bytes < 4096 ? bytes : 64);
                                   },
                                   free};
  const zyn_system_allocator before = zyn_set_system_allocator(&hooks);
  zyn_sort_match_info* info = zyn_create_sort_match_info(INT32_MAX, INT32_MAX);
  EXPECT_NE(info, nullptr);
  zyn_release_sort_match_info(&info);
  zyn_set_system_allocator(&before);
  EXPECT_LT(requested, 12ll * INT32_MAX + 1000);
}

}  // namespace

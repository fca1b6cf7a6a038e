// The tracker against a literal model over random frames, and rule by rule.
#include <math.h>
#include <time.h>

#include <algorithm>

#include "support/buffers.h"
#include "support/capture.h"
#include "support/failing.h"
#include "support/track_model.h"
#include "tracking/zyn_sort.h"

namespace {

using namespace zyn_test;

using Bytes = std::vector<uint8_t>;
using Boxes = std::vector<zyn_detection>;
using Ids = std::vector<int32_t>;

constexpr Reports tracking_report{"src/tracking/zyn_tracking.cpp"};

Box box_of(const zyn_detection& d) { return {{d.x1, d.y1, d.x2, d.y2}}; }

// Boxes that do not touch.
Boxes row_of_boxes(int count) {
  Boxes boxes;
  for (int i = 0; i < count; i++) {
    const float x = 100.0f * static_cast<float>(i);
    boxes.push_back({x, 0, x + 10, 10, 1});
  }
  return boxes;
}

// One entry of a list of tracks.
struct Entry {
  int32_t id;
  int since;
  Box box;
  Bytes payload;
};
using Entries = std::vector<Entry>;

Ids ids_of(const Entries& entries) {
  Ids ids;
  for (const Entry& e : entries) ids.push_back(e.id);
  return ids;
}

// A tracker under test, released at the end.
class Sort {
 public:
  explicit Sort(int max_age = 1, int min_hits = 1, int payload = 0) : payload_(payload) {
    const zyn_sort_param param{max_age, min_hits, 0.3f, static_cast<float>(payload)};
    handle_ = zyn_create_sort_handle(&param);
  }
  ~Sort() { EXPECT_EQ(zyn_release_sort_handle(&handle_), 0); }
  zyn_sort_handle* operator->() { return handle_; }
  zyn_sort_handle* get() { return handle_; }

  Entries predict() { return entries(zyn_create_sort_predict(handle_)); }
  Entries list() { return entries(zyn_sort_get_track_info(handle_)); }

  // First variant: match[d] is a track's index, or -1 for an unmatched detection.
  int32_t update(Boxes boxes, const Ids& match, Ids* ids, const uint8_t* mask = nullptr) {
    Ids matched, unmatched;
    for (size_t d = 0; d < match.size(); d++)
      if (match[d] < 0)
        unmatched.push_back(static_cast<int32_t>(d));
      else
        matched.insert(matched.end(), {static_cast<int32_t>(d), match[d]});
    const zyn_sort_match_info info{static_cast<int32_t>(matched.size() / 2),
                                   static_cast<int32_t>(unmatched.size()), matched.data(),
                                   unmatched.data()};
    ids->assign(match.size(), 77);
    boxes.push_back({});  // never a null pointer
    return zyn_sort_update_detection(boxes.data(), ids->data(), mask,
                                     static_cast<int32_t>(match.size()), &info, handle_);
  }
  // Second variant.
  int32_t update_ids(Boxes boxes, Ids ids, const uint8_t* mask = nullptr,
                     const void* payloads = nullptr) {
    const auto count = static_cast<int32_t>(ids.size());
    boxes.push_back({});
    ids.push_back(0);
    return zyn_sort_update_detection_v2(boxes.data(), ids.data(), mask, count, payloads, handle_);
  }
  int32_t add(int count) {
    return update_ids(row_of_boxes(count), Ids(static_cast<size_t>(count), -1));
  }

 private:
  Entries entries(zyn_track_info* info) {
    Entries result;
    EXPECT_NE(info, nullptr);
    if (!info) return result;
    const bool any = handle_->count > 0;
    EXPECT_EQ(info->payload != nullptr, payload_ > 0 && any);
    EXPECT_TRUE(!info->boxes != any && !info->ids != any && !info->time_since_update != any);
    for (int i = 0; i < info->count; i++) {
      Entry e{static_cast<int32_t>(info->ids[i]), info->time_since_update[i], {}, {}};
      memcpy(e.box.v, info->boxes + 4 * i, sizeof(e.box.v));
      const uint8_t* bytes = static_cast<const uint8_t*>(info->payload) + i * payload_;
      e.payload.assign(bytes, bytes + payload_);
      result.push_back(e);
    }
    zyn_release_track_info(&info);
    EXPECT_EQ(info, nullptr);
    return result;
  }
  int payload_;
  zyn_sort_handle* handle_;
};

// The tracker from its rules, a vector of tracks.
struct SortModel {
  int max_age, min_hits, payload;
  std::vector<TrackModel> tracks;
  uint64_t frames = 0, next_id = 0;
  size_t capacity = 128, slots = 128;

  // Tracks beyond the slots have no payload; those that come within start with zeros.
  void settle() {
    for (size_t k = 0; k < tracks.size(); k++) tracks[k].payload.resize(k < slots ? payload : 0);
  }
  Entry entry(const TrackModel& t, const Box& box) const {
    Entry e{static_cast<int32_t>(t.id), t.since, box, t.payload};
    e.payload.resize(payload);
    return e;
  }
  Entries predict() {
    Entries result;
    for (TrackModel& t : tracks) {
      const Box box = t.predict();
      result.push_back(entry(t, box));
    }
    frames++;
    return result;
  }
  void add(const zyn_detection& d) {
    if (tracks.size() == capacity) capacity *= 2;
    tracks.emplace_back(box_of(d), static_cast<uint32_t>(next_id));
    settle();
  }
  void drop() {
    for (size_t k = 0; k < tracks.size(); k++)
      if (tracks[k].since > max_age) tracks.erase(tracks.begin() + static_cast<long>(k));
    settle();
  }
  Ids update(const Boxes& boxes, const Ids& match, const uint8_t* mask) {
    Ids ids(match.size(), -1);
    for (size_t d = 0; d < match.size(); d++) {
      if (match[d] >= 0 || (mask && !mask[d])) continue;
      add(boxes[d]);
      ids[d] = static_cast<int32_t>(next_id++);
    }
    for (size_t d = 0; d < match.size(); d++) {
      if (match[d] < 0) continue;
      TrackModel& t = tracks[match[d]];
      if (!mask || mask[d] == 1) t.update(box_of(boxes[d]));
      ids[d] = static_cast<int32_t>(t.id);
    }
    drop();
    return ids;
  }
  int update_ids(const Boxes& boxes, const Ids& ids, const uint8_t* mask, const uint8_t* payloads) {
    auto give = [&](TrackModel& t, size_t i) {
      if (payloads && !t.payload.empty())
        t.payload.assign(payloads + i * payload, payloads + (i + 1) * payload);
    };
    if (tracks.size() > slots) slots = capacity;
    settle();
    for (size_t i = 0; i < ids.size(); i++) {
      const bool allowed = !mask || mask[i] == 1;
      if (ids[i] < 0) {
        if (tracks.size() == capacity) capacity *= 2;  // masked out or not
        if (tracks.size() >= slots) slots = capacity;
        if (!allowed) continue;
        add(boxes[i]);
        give(tracks.back(), i);
        next_id = next_id >= INT32_MAX ? 0 : next_id + 1;
        continue;
      }
      bool found = false;
      for (TrackModel& t : tracks) {
        if (t.id != static_cast<uint32_t>(ids[i])) continue;
        found = true;
        if (!allowed) continue;
        t.update(box_of(boxes[i]));
        give(t, i);
      }
      if (!found) return 32;
    }
    drop();
    return 0;
  }
  Entries list() const {
    Entries result;
    for (const TrackModel& t : tracks)
      if (t.since < 1 && (t.streak >= min_hits || frames >= static_cast<uint64_t>(t.streak)))
        result.push_back(entry(t, TrackModel::box_of(t.filter.corrected)));
    return result;
  }
};

void expect_same(const Entries& got, const Entries& want, const char* what) {
  ASSERT_EQ(ids_of(got), ids_of(want)) << what;
  for (size_t i = 0; i < got.size(); i++) {
    ASSERT_EQ(got[i].since, want[i].since) << what << " entry " << i;
    ASSERT_EQ(got[i].payload, want[i].payload) << what << " entry " << i;
    // Relative to the coordinates or the box, whichever is larger.
    float scale = 0;
    for (float x : want[i].box.v) scale = fmaxf(scale, fabsf(x));
    for (int k = 0; k < 4; k++)
      ASSERT_NEAR(got[i].box.v[k], want[i].box.v[k], 1e-3f * scale) << what << " entry " << i;
  }
}

// Random frames for a tracker and its model: noisy boxes around the predictions, some
// missing, some masked, some new, in both variants, now and then without a prediction.
class Scene {
 public:
  Scene(uint64_t seed, int max_age, int min_hits, int payload, uint64_t first_id)
      : random_(seed), sort_(max_age, min_hits, payload), model_{max_age, min_hits, payload,
                                                                 {},      0,        0} {
    restart_ids(first_id);
  }
  void restart_ids(uint64_t id) { sort_->next_id = model_.next_id = id; }

  void frame(int newcomers) {
    if (random_.integer(0, 9)) {
      ASSERT_NO_FATAL_FAILURE(expect_same(sort_.predict(), model_.predict(), "predicted"));
    }
    Boxes boxes;
    Ids match, ids;
    for (size_t k = 0; k < model_.tracks.size(); k++) {
      if (random_.integer(0, 9) < 3) continue;
      const TrackModel& track = model_.tracks[k];
      boxes.push_back(jittered(TrackModel::box_of(track.filter.predicted)));
      match.push_back(static_cast<int>(k));
      ids.push_back(static_cast<int32_t>(track.id));
    }
    for (int i = 0; i < newcomers; i++) {
      const float x = random_.real(10, 900), y = random_.real(10, 900);
      boxes.push_back({x, y, x + random_.real(5, 90), y + random_.real(5, 90), 1});
      match.push_back(-1);
      ids.push_back(-random_.integer(1, 1000));
    }
    Bytes mask(match.size());
    for (uint8_t& m : mask)
      m = static_cast<uint8_t>(random_.integer(0, 5) ? 1 : random_.integer(0, 2));
    const uint8_t* const used = random_.integer(0, 1) ? mask.data() : nullptr;
    if (random_.integer(0, 1)) {
      Ids got;
      ASSERT_EQ(sort_.update(boxes, match, &got, used), 0);
      ASSERT_EQ(got, model_.update(boxes, match, used));
    } else {
      if (random_.integer(0, 19) == 0 && !ids.empty())
        ids[random_.integer(0, static_cast<int>(ids.size()) - 1)] = 2000000000;
      Bytes payloads(match.size() * static_cast<size_t>(model_.payload) + 1);
      for (uint8_t& b : payloads) b = static_cast<uint8_t>(random_.next());
      const uint8_t* const given = random_.integer(0, 3) ? payloads.data() : nullptr;
      ASSERT_EQ(sort_.update_ids(boxes, ids, used, given),
                model_.update_ids(boxes, ids, used, given));
    }
    ASSERT_NO_FATAL_FAILURE(expect_same(sort_.list(), model_.list(), "listed"));
    ASSERT_EQ(zyn_sort_get_frame_count(sort_.get()), model_.frames);
    ASSERT_EQ(static_cast<size_t>(sort_->count), model_.tracks.size());
    ASSERT_EQ(static_cast<size_t>(sort_->capacity), model_.capacity);
    ASSERT_EQ(static_cast<size_t>(sort_->payload_slots), model_.payload ? model_.slots : 0);
    for (size_t k = 0; k < model_.tracks.size(); k++) {
      const zyn_box_tracker& got = *sort_->tracks[k];
      const TrackModel& want = model_.tracks[k];
      ASSERT_TRUE(got.age == want.age && got.hits == want.hits && got.hit_streak == want.streak);
    }
  }
  int tracks() const { return static_cast<int>(model_.tracks.size()); }
  Random& random() { return random_; }

 private:
  zyn_detection jittered(const Box& b) {
    auto jitter = [&] { return random_.real(-4, 4); };
    const float x = b.v[0] + jitter(), y = b.v[1] + jitter();
    return {x, y, x + fmaxf(b.v[2] - b.v[0] + jitter(), 3),
            y + fmaxf(b.v[3] - b.v[1] + jitter(), 3), random_.real(0, 1)};
  }
  FailingAllocations dirty_{0};
  Random random_;
  Sort sort_;
  SortModel model_;
};

TEST(Sort, FollowsTheModelOverRandomFrames) {
  const int frames = soak(500, 5000);
  const struct {
    int max_age, min_hits, payload;
    uint64_t first_id;
  } settings[] = {{0, 1, 0, 0}, {1, 3, 8, INT32_MAX - 40}, {3, 2, 1, 0}, {7, 5, 20, 0}};
  for (uint64_t seed = 0; seed < 20; seed++) {
    const auto& s = settings[seed / 5];
    Scene scene(seed + 1, s.max_age, s.min_hits, s.payload, s.first_id);
    for (int f = 0; f < frames; f++) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " frame " << f);
      const int room = std::max(0, std::min(12 - scene.tracks(), 3));
      ASSERT_NO_FATAL_FAILURE(scene.frame(scene.random().integer(0, room)));
    }
  }
}

// Both variants grow the tracks past the first 128 slots. Ids from the first variant that
// turned negative, and ids that several tracks share, are among them.
TEST(Sort, FollowsTheModelThroughGrowthAndRepeatedIds) {
  for (uint64_t seed = 100; seed < static_cast<uint64_t>(soak(112, 200)); seed++) {
    SCOPED_TRACE(seed);
    Scene scene(seed, 2, 1, seed % 3 ? 5 : 0, seed % 2 ? INT32_MAX - 120u : 0);
    for (int newcomers : {100, 60, 90, 40, 30, 0, 0}) {
      ASSERT_NO_FATAL_FAILURE(scene.frame(newcomers));
      if (newcomers == 90) scene.restart_ids(30);
    }
  }
}

TEST(Sort, TwentyThousandTracksAreCorrectedAndDroppedInNoTime) {
  Sort sort(0);
  ASSERT_EQ(sort.add(20000), 0);
  Ids ids;
  for (int i = 20000; i-- > 0;) ids.push_back(i);
  const clock_t start = clock();
  for (size_t kept : {20000u, 4000u}) {
    ids.resize(kept);
    sort.predict();
    ASSERT_EQ(sort.update_ids(row_of_boxes(20000), ids), 0);
  }
  EXPECT_LT(static_cast<double>(clock() - start) / CLOCKS_PER_SEC, 3);
  EXPECT_EQ(sort->count, 4000 + 8000);  // of the stale ones every other
}

TEST(Sort, ParametersAndPayloadSizes) {
  const struct {
    zyn_sort_param param;
    int payload, line = 0;  // of the report, 0: fine
  } cases[] = {
      {{-1, 1, 0, 0}, 0, 1034},     {{0, 0, 0, 0}, 0, 1034},        {{0, 1, 1, 0}, 0, 1034},
      {{0, 1, -1e-9f, 0}, 0, 1034}, {{0, 1, NAN, 0}, 0, 1034},      {{0, 1, 0, NAN}, 0},
      {{0, 1, 0, -INFINITY}, 0},    {{0, 1, 0, 0.99f}, 0},          {{0, 1, 0, 1}, 1},
      {{0, 1, 0, 7.9f}, 7},         {{0, 1, 0, INFINITY}, 0, 1067}, {{0, 1, 0, 9.3e18f}, 0, 1067},
      {{0, 1, 0, 1e17f}, 0, 1067}};
  for (const auto& c : cases) {
    zyn_sort_handle* handle = nullptr;
    const std::string text = printed([&] { handle = zyn_create_sort_handle(&c.param); });
    EXPECT_EQ(text, c.line ? tracking_report(c.line == 1034 ? kPara : kMemory, c.line) : "");
    ASSERT_EQ(handle != nullptr, c.line == 0) << c.param.payload_size;
    if (!handle) continue;
    EXPECT_TRUE(handle->payload_size == c.payload && !handle->payload == !c.payload);
    EXPECT_EQ(zyn_release_sort_handle(&handle), 0);
  }
}

TEST(Sort, NullArguments) {
  Sort sort;
  const zyn_detection box{};
  int32_t id = -1;
  zyn_sort_match_info none{0, 0, nullptr, nullptr};
  zyn_sort_handle* gone = nullptr;
  zyn_track_info* info = nullptr;
  EXPECT_SAYS(zyn_create_sort_handle(nullptr), nullptr, tracking_report(kPara, 1034));
  EXPECT_SAYS(zyn_sort_get_track_info(nullptr), nullptr, tracking_report(kPara, 1551));
  EXPECT_SAYS(zyn_create_sort_predict(nullptr), nullptr, "");
  EXPECT_EQ(zyn_sort_get_frame_count(nullptr), 18446744073709551615u);
  for (zyn_sort_handle** bad : {&gone, static_cast<zyn_sort_handle**>(nullptr)})
    EXPECT_SAYS(zyn_release_sort_handle(bad), 1, "");
  zyn_release_track_info(nullptr);
  zyn_release_track_info(&info);
  const struct {
    const zyn_detection* boxes;
    int32_t* ids;
    const zyn_sort_match_info* matches;
    zyn_sort_handle* handle;
    int count, code, code_v2;
  } cases[] = {
      {nullptr, &id, &none, sort.get(), 0, 1, 1},   {&box, &id, nullptr, sort.get(), 0, 1, 0},
      {&box, &id, &none, nullptr, 0, 1, 1},         {&box, nullptr, &none, sort.get(), 1, 1, 1},
      {&box, nullptr, &none, sort.get(), -5, 0, 1}, {&box, &id, &none, sort.get(), -5, 0, 0}};
  for (const auto& c : cases) {
    EXPECT_SAYS(zyn_sort_update_detection(c.boxes, c.ids, nullptr, c.count, c.matches, c.handle),
                c.code, "");
    EXPECT_SAYS(zyn_sort_update_detection_v2(c.boxes, c.ids, nullptr, c.count, nullptr, c.handle),
                c.code_v2, "");
  }
  EXPECT_EQ(sort->count, 0);
}

TEST(Sort, IndicesOutsideTheirArraysChangeNothing) {
  Sort sort;
  ASSERT_EQ(sort.add(2), 0);
  const Boxes boxes = row_of_boxes(2);
  const struct {
    int32_t d, t, unmatched;
    bool fits = false;
  } cases[] = {{0, 0, 1, true}, {0, 3, 1, true}, {-1, 0, 1}, {2, 0, 1},
               {0, -1, 1},      {0, 5, 1},       {0, 0, -1}, {0, 0, 2}};  // 3: the track just made
  for (const auto& c : cases) {
    int32_t pair[2] = {c.d, c.t}, unmatched = c.unmatched, ids[2] = {55, 55};
    const int32_t before = sort->count;
    const zyn_sort_match_info info{1, 1, pair, &unmatched};
    EXPECT_EQ(zyn_sort_update_detection(boxes.data(), ids, nullptr, 2, &info, sort.get()), !c.fits);
    EXPECT_EQ(sort->count, before + c.fits) << c.d << " " << c.t << " " << c.unmatched;
    EXPECT_EQ(ids[0] == 55 && ids[1] == 55, !c.fits);
  }
  int32_t ids[1];
  for (const zyn_sort_match_info& info :
       {zyn_sort_match_info{1, 0, nullptr, ids}, {0, 1, ids, nullptr}})
    EXPECT_EQ(zyn_sort_update_detection(boxes.data(), ids, nullptr, 1, &info, sort.get()), 1);
}

TEST(Sort, OfTwoAdjacentStaleTracksTheSecondGoesAFrameLater) {
  Sort sort(0);
  ASSERT_EQ(sort.add(5), 0);
  for (const Ids& left : {Ids{0, 1, 2, 3, 4}, {1, 3}, {3}, {}}) {
    EXPECT_EQ(ids_of(sort.predict()), left);
    EXPECT_EQ(sort.update_ids({}, {}), 0);
  }
}

TEST(Sort, TracksUpdatedMoreOftenThanPredictedAreListedFromMinHitsOn) {
  // On purpose: the streak is compared with the frame count, not the frame count with
  // min_hits.
  Sort sort(1, 4);
  sort.predict();
  ASSERT_EQ(sort.add(1), 0);
  EXPECT_EQ(sort.list().size(), 1u);    // streak 1, frame 1
  for (size_t listed : {0u, 0u, 1u}) {  // streaks 2, 3, 4, still frame 1
    EXPECT_EQ(sort.update_ids(row_of_boxes(1), {0}), 0);
    EXPECT_EQ(sort.list().size(), listed);
  }
}

TEST(Sort, AnyMaskByteButZeroCreatesButOnlyOneCorrects) {
  const uint8_t masks[3] = {0, 1, 2};
  Sort sort(5), by_id(5, 1, 3);
  Ids ids;
  ASSERT_EQ(sort.update(row_of_boxes(3), {-1, -1, -1}, &ids, masks), 0);
  EXPECT_EQ(ids, (Ids{-1, 0, 1}));
  ASSERT_EQ(sort.add(1), 0);
  sort.predict();
  ASSERT_EQ(sort.update(row_of_boxes(3), {0, 1, 2}, &ids, masks), 0);
  EXPECT_EQ(ids, (Ids{0, 1, 2})) << "ids are told all the same";
  EXPECT_EQ(ids_of(sort.list()), Ids{1});

  ASSERT_EQ(by_id.update_ids(row_of_boxes(3), {-1, -1, -1}, masks), 0);
  EXPECT_EQ(by_id->count, 1) << "here 2 does not create either";
  EXPECT_EQ(by_id.update_ids(row_of_boxes(1), {5}, masks), 32) << "masked ids must exist";
  ASSERT_EQ(by_id.add(127), 0);
  ASSERT_EQ(by_id.update_ids(row_of_boxes(1), {-1}, masks), 0);
  EXPECT_TRUE(by_id->count == 128 && by_id->capacity == 256 && by_id->payload_slots == 256)
      << "a masked-out detection makes room all the same";
}

TEST(Sort, FailuresInTheMiddleReport) {
  const std::string singular = "\nIt's not a full rank matrix\n";
  Sort sort(0);
  ASSERT_EQ(sort.add(3), 0);
  sort.predict();
  sort.predict();
  zyn_kalman* filter = sort->tracks[1]->filter;
  memset(filter->measurement_noise->data, 0, 64);
  memset(filter->predicted_covariance->data, 0, 7 * 28);
  EXPECT_SAYS(sort.update_ids(row_of_boxes(2), {0, 1}), 32,
              singular + tracking_report("Unknown error!", 1483));
  Ids ids;
  EXPECT_SAYS(sort.update(row_of_boxes(2), {0, 1}, &ids), 32, singular);
  EXPECT_EQ(ids, (Ids{0, -1}));
  EXPECT_EQ(sort->count, 3) << "nothing was dropped";

  filter->transition->cols = 6;
  EXPECT_SAYS(zyn_create_sort_predict(sort.get()), nullptr, tracking_report(kPara, 300));
  EXPECT_EQ(zyn_sort_get_frame_count(sort.get()), 2u);
  EXPECT_TRUE(sort->tracks[0]->age == 3 && sort->tracks[2]->age == 2);

  Sort full;
  ASSERT_EQ(full.add(127), 0);
  FailingAllocations failing(1, true);
  EXPECT_SAYS(full.add(1), 2, tracking_report(kPara, 986) + tracking_report(kMemory, 1524));
  EXPECT_TRUE(full->count == 127 && full->next_id == 127);
  EXPECT_EQ(full.update_ids(row_of_boxes(127), Ids(127, 5)), 0) << "the table of ids is not vital";
}

}  // namespace

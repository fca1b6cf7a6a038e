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

// A tracker beside a model of its rules, a vector of tracks: every call goes to both.
class Pair {
 public:
  zyn_sort_handle* sort;
  std::vector<TrackModel> tracks;

  explicit Pair(int max_age = 1, int min_hits = 1, int payload = 0, uint64_t first_id = 0)
      : max_age_(max_age), min_hits_(min_hits), payload_(payload) {
    const zyn_sort_param param{max_age, min_hits, 0.3f, static_cast<float>(payload)};
    sort = zyn_create_sort_handle(&param);
    restart_ids(first_id);
  }
  ~Pair() { EXPECT_EQ(zyn_release_sort_handle(&sort), 0); }
  void restart_ids(uint64_t id) { sort->next_id = next_id_ = id; }
  size_t payload() const { return payload_; }

  void predict() {
    zyn_track_info* info = zyn_create_sort_predict(sort);
    frames_++;
    int32_t entry = 0;
    for (TrackModel& t : tracks) {
      const Box box = t.predict();
      EXPECT_EQ(info->time_since_update[entry], t.since);
      check_entry(*info, entry++, t, box);
    }
    finish(info, entry);
  }
  // Returns how many tracks are listed.
  int32_t list() {
    zyn_track_info* info = zyn_sort_get_track_info(sort);
    int32_t entry = 0;
    for (const TrackModel& t : tracks)
      if (t.since < 1 && (t.streak >= min_hits_ || frames_ >= static_cast<uint64_t>(t.streak)))
        check_entry(*info, entry++, t, TrackModel::box_of(t.filter.corrected));
    finish(info, entry);
    return entry;
  }
  // First variant: match[d] is a track's index, or -1 for an unmatched detection.
  void update(Boxes boxes, const Ids& match, const uint8_t* mask = nullptr) {
    Ids matched, unmatched, ids(match.size(), 77), expected(match.size(), -1);
    for (int32_t d = 0; d < static_cast<int32_t>(match.size()); d++)
      if (match[d] < 0)
        unmatched.push_back(d);
      else
        matched.insert(matched.end(), {d, match[d]});
    const zyn_sort_match_info info{static_cast<int32_t>(matched.size() / 2),
                                   static_cast<int32_t>(unmatched.size()), matched.data(),
                                   unmatched.data()};
    boxes.push_back({});  // never a null pointer
    EXPECT_EQ(zyn_sort_update_detection(boxes.data(), ids.data(), mask,
                                        static_cast<int32_t>(match.size()), &info, sort),
              0);
    for (int32_t d : unmatched) {
      if (mask && !mask[d]) continue;
      add(boxes[d]);
      expected[d] = static_cast<int32_t>(next_id_++);
    }
    for (size_t k = 0; k < matched.size(); k += 2) {
      const int32_t d = matched[k];
      TrackModel& t = tracks[matched[k + 1]];
      if (!mask || mask[d] == 1) t.update(box_of(boxes[d]));
      expected[d] = static_cast<int32_t>(t.id);
    }
    EXPECT_EQ(ids, expected);
    drop();
    check();
  }
  // Second variant.
  void update_ids(Boxes boxes, Ids ids, const uint8_t* mask = nullptr,
                  const uint8_t* payloads = nullptr) {
    const auto count = static_cast<int32_t>(ids.size());
    boxes.push_back({});
    ids.push_back(0);
    const int32_t code =
        zyn_sort_update_detection_v2(boxes.data(), ids.data(), mask, count, payloads, sort);
    if (tracks.size() > slots_) slots_ = capacity_;
    settle();
    int32_t expected = 0;
    for (int32_t i = 0; i < count && expected == 0; i++) {
      const uint8_t* const given = payloads ? payloads + i * payload_ : nullptr;
      expected = update_id(boxes[i], ids[i], !mask || mask[i] == 1, given);
    }
    EXPECT_EQ(code, expected);
    if (expected == 0) drop();
    check();
  }

 private:
  int32_t update_id(const zyn_detection& box, int32_t id, bool allowed, const uint8_t* payload) {
    auto give = [&](TrackModel& t) {
      if (payload && !t.payload.empty()) t.payload.assign(payload, payload + payload_);
    };
    if (id < 0) {
      if (tracks.size() == capacity_) capacity_ *= 2;  // masked out or not
      if (tracks.size() >= slots_) slots_ = capacity_;
      if (!allowed) return 0;
      add(box);
      give(tracks.back());
      next_id_ = next_id_ >= INT32_MAX ? 0 : next_id_ + 1;
      return 0;
    }
    bool found = false;
    for (TrackModel& t : tracks) {
      if (t.id != static_cast<uint32_t>(id)) continue;
      found = true;
      if (!allowed) continue;
      t.update(box_of(box));
      give(t);
    }
    return found ? 0 : 32;
  }
  // Tracks beyond the slots have no payload; those that come within start with zeros.
  void settle() {
    for (size_t k = 0; k < tracks.size(); k++) tracks[k].payload.resize(k < slots_ ? payload_ : 0);
  }
  void add(const zyn_detection& d) {
    if (tracks.size() == capacity_) capacity_ *= 2;
    tracks.emplace_back(box_of(d), static_cast<uint32_t>(next_id_));
    settle();
  }
  void drop() {
    for (size_t k = 0; k < tracks.size(); k++)
      if (tracks[k].since > max_age_) tracks.erase(tracks.begin() + static_cast<long>(k));
    settle();
  }
  void check() const {
    EXPECT_EQ(zyn_sort_get_frame_count(sort), frames_);
    EXPECT_EQ(static_cast<size_t>(sort->capacity), capacity_);
    EXPECT_EQ(static_cast<size_t>(sort->payload_slots), payload_ ? slots_ : 0);
    ASSERT_EQ(static_cast<size_t>(sort->count), tracks.size());
    for (size_t k = 0; k < tracks.size(); k++) {
      const zyn_box_tracker& got = *sort->tracks[k];
      const TrackModel& want = tracks[k];
      EXPECT_TRUE(got.age == want.age && got.hits == want.hits && got.hit_streak == want.streak);
    }
  }
  void check_entry(const zyn_track_info& info, int32_t entry, const TrackModel& t,
                   const Box& box) const {
    ASSERT_LT(entry, info.count);
    EXPECT_EQ(info.ids[entry], t.id) << "entry " << entry;
    Bytes payload = t.payload;
    payload.resize(payload_);
    const uint8_t* const bytes = static_cast<const uint8_t*>(info.payload) + entry * payload_;
    EXPECT_EQ(Bytes(bytes, bytes + payload_), payload) << "entry " << entry;
    // Relative to the coordinates or the scene, whichever are larger.
    float scale = 400;
    for (float x : box.v) scale = fmaxf(scale, fabsf(x));
    for (int k = 0; k < 4; k++)
      EXPECT_NEAR(info.boxes[4 * entry + k], box.v[k], 1e-3f * scale) << "entry " << entry;
  }
  void finish(zyn_track_info* info, int32_t entries) const {
    EXPECT_EQ(info->count, entries);
    EXPECT_EQ(info->payload != nullptr, payload_ > 0 && !tracks.empty());
    for (const void* list : {(void*)info->boxes, (void*)info->ids, (void*)info->time_since_update})
      EXPECT_EQ(list != nullptr, !tracks.empty());
    zyn_release_track_info(&info);
    EXPECT_EQ(info, nullptr);
  }
  int max_age_, min_hits_;
  size_t payload_, capacity_ = 128, slots_ = 128;
  uint64_t frames_ = 0, next_id_ = 0;
  FailingAllocations dirty_{0};
};

// A random frame: noisy boxes around the predictions, some missing, some masked, some new, by
// either variant, now and then without a prediction.
void random_frame(Pair& pair, Random& random, int newcomers) {
  if (random.integer(0, 9)) pair.predict();
  Boxes boxes;
  Ids match, ids;
  for (const TrackModel& track : pair.tracks) {
    if (random.integer(0, 9) < 3) continue;
    Box b = TrackModel::box_of(track.filter.predicted);
    for (float& v : b.v) v += random.real(-4, 4);
    boxes.push_back({b.v[0], b.v[1], fmaxf(b.v[2], b.v[0] + 3), fmaxf(b.v[3], b.v[1] + 3), 0});
    match.push_back(static_cast<int32_t>(&track - pair.tracks.data()));
    ids.push_back(static_cast<int32_t>(track.id));
  }
  for (int i = 0; i < newcomers; i++) {
    const float x = random.real(10, 900), y = random.real(10, 900);
    boxes.push_back({x, y, x + random.real(5, 90), y + random.real(5, 90), 1});
    match.push_back(-1);
    ids.push_back(-random.integer(1, 1000));
  }
  Bytes mask(match.size() + 1), payloads(match.size() * pair.payload() + 1);
  for (uint8_t& m : mask) m = static_cast<uint8_t>(random.integer(0, 5) ? 1 : random.integer(0, 2));
  for (uint8_t& b : payloads) b = static_cast<uint8_t>(random.next());
  const uint8_t* const used = random.integer(0, 1) ? mask.data() : nullptr;
  if (random.integer(0, 19) == 0 && !ids.empty()) ids[ids.size() / 2] = 2000000000;
  if (random.integer(0, 1))
    pair.update(boxes, match, used);
  else
    pair.update_ids(boxes, ids, used, random.integer(0, 3) ? payloads.data() : nullptr);
  pair.list();
}

// Few tracks for long; and growth past the first 128 slots in both variants, where ids from the
// first variant turn negative and several tracks share an id.
TEST(Sort, FollowsTheModelOverRandomFrames) {
  const struct {
    int max_age, min_hits, payload;
    uint64_t first_id;
    bool grows = false;
  } settings[] = {{0, 1, 0, 0},  {1, 3, 8, INT32_MAX - 40},        {3, 2, 1, 0},
                  {7, 5, 20, 0}, {0, 1, 5, INT32_MAX - 120, true}, {2, 1, 0, 0, true}};
  for (const auto& s : settings)
    for (uint64_t seed = 0; seed < 6; seed++) {
      Pair pair(s.max_age, s.min_hits, s.payload, s.first_id);
      Random random(seed);
      for (int f = 0; f < (s.grows ? 7 : soak(400, 5000)); f++) {
        SCOPED_TRACE(testing::Message()
                     << "payload " << s.payload << " seed " << seed << ": " << f);
        const int many[7] = {128, 60, 90, 40, 30, 0, 0},
                  tracks = static_cast<int>(pair.tracks.size());
        if (s.grows && f == 3) pair.restart_ids(30);
        random_frame(pair, random,
                     s.grows ? many[f] : random.integer(0, std::max(0, std::min(12 - tracks, 3))));
        if (HasFailure()) return;
      }
    }
}

TEST(Sort, TwentyThousandTracksAreCorrectedAndDroppedInNoTime) {
  Pair pair(0);
  Ids ids(20000, -1);
  const Boxes boxes = row_of_boxes(20000);
  const clock_t start = clock();
  for (int count : {20000, 20000, 4000}) {
    EXPECT_EQ(
        zyn_sort_update_detection_v2(boxes.data(), ids.data(), nullptr, count, nullptr, pair.sort),
        0);
    for (int i = 0; i < 20000; i++) ids[i] = 19999 - i;
    zyn_track_info* info = zyn_create_sort_predict(pair.sort);
    zyn_release_track_info(&info);
  }
  EXPECT_LT(static_cast<double>(clock() - start) / CLOCKS_PER_SEC, 3);
  EXPECT_EQ(pair.sort->count, 4000 + 8000);  // of the stale ones every other
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
  Pair pair;
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
      {nullptr, &id, &none, pair.sort, 0, 1, 1},   {&box, &id, nullptr, pair.sort, 0, 1, 0},
      {&box, &id, &none, nullptr, 0, 1, 1},        {&box, nullptr, &none, pair.sort, 1, 1, 1},
      {&box, nullptr, &none, pair.sort, -5, 0, 1}, {&box, &id, &none, pair.sort, -5, 0, 0}};
  for (const auto& c : cases) {
    EXPECT_SAYS(zyn_sort_update_detection(c.boxes, c.ids, nullptr, c.count, c.matches, c.handle),
                c.code, "");
    EXPECT_SAYS(zyn_sort_update_detection_v2(c.boxes, c.ids, nullptr, c.count, nullptr, c.handle),
                c.code_v2, "");
  }
  EXPECT_EQ(pair.sort->count, 0);
}

TEST(Sort, IndicesOutsideTheirArraysChangeNothing) {
  Pair pair;
  const Boxes boxes = row_of_boxes(2);
  pair.update(boxes, {-1, -1});
  const struct {
    int32_t d, t, unmatched;
    bool fits = false;
    uint8_t mask = 1;
  } cases[] = {{0, 0, 1, true},     {0, 3, 1, true},  // the track just made
               {0, 4, 1, false, 0},                   // and one that is not
               {-1, 0, 1},          {2, 0, 1},       {0, -1, 1}, {0, 5, 1}, {0, 0, -1}, {0, 0, 2}};
  for (const auto& c : cases) {
    int32_t match[2] = {c.d, c.t}, unmatched = c.unmatched, ids[2] = {55, 55};
    const uint8_t mask[2] = {1, c.mask};
    const int32_t before = pair.sort->count;
    const zyn_sort_match_info info{1, 1, match, &unmatched};
    EXPECT_EQ(zyn_sort_update_detection(boxes.data(), ids, mask, 2, &info, pair.sort), !c.fits);
    EXPECT_EQ(pair.sort->count, before + c.fits) << c.d << " " << c.t << " " << c.unmatched;
    EXPECT_EQ(ids[0] == 55 && ids[1] == 55, !c.fits);
  }
  int32_t ids[1];
  for (const zyn_sort_match_info& info :
       {zyn_sort_match_info{1, 0, nullptr, ids}, {0, 1, ids, nullptr}})
    EXPECT_EQ(zyn_sort_update_detection(boxes.data(), ids, nullptr, 1, &info, pair.sort), 1);
}

TEST(Sort, OfTwoAdjacentStaleTracksTheSecondGoesAFrameLater) {
  Pair pair(0);
  pair.update(row_of_boxes(5), Ids(5, -1));
  for (int left : {5, 2, 1, 0}) {  // 1 and 3, then 3
    EXPECT_EQ(pair.sort->count, left);
    pair.predict();
    pair.update_ids({}, {});
  }
}

TEST(Sort, TracksUpdatedMoreOftenThanPredictedAreListedFromMinHitsOn) {
  // On purpose: the streak is compared with the frame count, not the frame count with
  // min_hits.
  Pair pair(1, 4);
  pair.predict();
  pair.update_ids(row_of_boxes(1), {-1});
  for (int listed : {1, 0, 0, 1}) {  // streaks 1 to 4, always frame 1
    EXPECT_EQ(pair.list(), listed);
    pair.update_ids(row_of_boxes(1), {0});
  }
}

TEST(Sort, AnyMaskByteButZeroCreatesButOnlyOneCorrects) {
  const uint8_t masks[3] = {0, 1, 2};
  Pair pair(5, 1, 3), by_id(5, 1, 3);
  pair.update(row_of_boxes(3), {-1, -1, -1}, masks);
  EXPECT_EQ(pair.sort->count, 2);
  pair.predict();
  pair.update(row_of_boxes(3), {0, 1, 0}, masks);  // ids are told all the same
  EXPECT_EQ(pair.list(), 1);
  by_id.update_ids(row_of_boxes(3), {-1, -1, -1}, masks);
  EXPECT_EQ(by_id.sort->count, 1) << "here 2 does not create either";
  by_id.update_ids(row_of_boxes(1), {5}, masks);  // refused: masked ids must exist
  by_id.update_ids(row_of_boxes(127), Ids(127, -1));
  by_id.update_ids(row_of_boxes(1), {-1}, masks);
  EXPECT_TRUE(by_id.sort->count == 128 && by_id.sort->payload_slots == 256)
      << "a masked-out detection makes room all the same";
  pair.update(row_of_boxes(127), Ids(127, -1));
  EXPECT_TRUE(pair.sort->count == 129 && pair.sort->payload_slots == 128)
      << "the first variant leaves the payloads alone";
  pair.update_ids({}, {});
  pair.predict();
}

TEST(Sort, FailuresInTheMiddleReport) {
  const std::string singular = "\nIt's not a full rank matrix\n";
  Pair pair(0), full;
  pair.update(row_of_boxes(3), {-1, -1, -1});
  pair.predict();
  pair.predict();
  zyn_kalman* filter = pair.sort->tracks[1]->filter;
  memset(filter->measurement_noise->data, 0, 64);
  memset(filter->predicted_covariance->data, 0, 7 * 28);
  const Boxes boxes = row_of_boxes(127);
  int32_t pairs[4] = {0, 0, 1, 1}, ids[2] = {0, 1};
  const zyn_sort_match_info info{2, 0, pairs, nullptr};
  const auto update_ids = [&](const Ids& all, zyn_sort_handle* sort) {
    return zyn_sort_update_detection_v2(boxes.data(), all.data(), nullptr,
                                        static_cast<int32_t>(all.size()), nullptr, sort);
  };
  EXPECT_SAYS(update_ids({0, 1}, pair.sort), 32,
              singular + tracking_report("Unknown error!", 1483));
  EXPECT_SAYS(zyn_sort_update_detection(boxes.data(), ids, nullptr, 2, &info, pair.sort), 32,
              singular);
  EXPECT_TRUE(ids[0] == 0 && ids[1] == -1 && pair.sort->count == 3) << "nothing was dropped";
  filter->transition->cols = 6;
  EXPECT_SAYS(zyn_create_sort_predict(pair.sort), nullptr, tracking_report(kPara, 300));
  EXPECT_EQ(zyn_sort_get_frame_count(pair.sort), 2u);
  EXPECT_TRUE(pair.sort->tracks[0]->age == 3 && pair.sort->tracks[2]->age == 2);

  full.update_ids(boxes, Ids(127, -1));
  FailingAllocations failing(1, true);
  EXPECT_SAYS(update_ids({-1}, full.sort), 2,
              tracking_report(kPara, 986) + tracking_report(kMemory, 1524));
  EXPECT_TRUE(full.sort->count == 127 && full.sort->next_id == 127);
  EXPECT_EQ(update_ids(Ids(127, 5), full.sort), 0) << "the table of ids is not vital";
}

}  // namespace

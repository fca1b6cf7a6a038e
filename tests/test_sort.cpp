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

constexpr Reports tracking_report{"src/tracking/zyn_tracking.cpp"};

Box box_of(const zyn_detection& d) { return {{d.x1, d.y1, d.x2, d.y2}}; }

// Boxes that do not touch.
Boxes row_of_boxes(int count, float shift = 0) {
  Boxes boxes;
  for (int i = 0; i < count; i++) {
    const float x = 100.0f * static_cast<float>(i) + shift;
    boxes.push_back({x, 0, x + 10, 10, 1});
  }
  return boxes;
}

// One entry of a list of tracks.
struct Entry {
  uint32_t id;
  int since;
  Box box;
  Bytes payload;
};
using Entries = std::vector<Entry>;

std::vector<int> ids_of(const Entries& entries) {
  std::vector<int> ids;
  for (const Entry& e : entries) ids.push_back(static_cast<int>(e.id));
  return ids;
}

// A tracker under test, released at the end. Calls expect success unless they return a
// code.
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
  int32_t update(const Boxes& boxes, const std::vector<int>& match, std::vector<int32_t>* ids,
                 const uint8_t* mask = nullptr) {
    const int matched =
        static_cast<int>(std::count_if(match.begin(), match.end(), [](int t) { return t >= 0; }));
    const int count = static_cast<int>(match.size());
    zyn_sort_match_info* info = zyn_create_sort_match_info(matched, count - matched);
    for (int d = 0, m = 0, u = 0; d < count; d++) {
      if (match[d] < 0) {
        info->unmatched[u++] = d;
      } else {
        info->matched[2 * m] = d;
        info->matched[2 * m++ + 1] = match[d];
      }
    }
    ids->assign(match.size(), 77);
    const int32_t code =
        zyn_sort_update_detection(some(boxes), ids->data(), mask, count, info, handle_);
    zyn_release_sort_match_info(&info);
    return code;
  }
  int32_t add(int count) {
    std::vector<int32_t> ids;
    return update(row_of_boxes(count), std::vector<int>(static_cast<size_t>(count), -1), &ids);
  }
  // Second variant.
  int32_t update_ids(const Boxes& boxes, const std::vector<int32_t>& ids,
                     const uint8_t* mask = nullptr, const void* payloads = nullptr) {
    static const int32_t kNoId = 0;
    return zyn_sort_update_detection_v2(some(boxes), ids.empty() ? &kNoId : ids.data(), mask,
                                        static_cast<int32_t>(ids.size()), payloads, handle_);
  }
  int32_t add_ids(int count, const void* payloads = nullptr) {
    return update_ids(row_of_boxes(count), std::vector<int32_t>(static_cast<size_t>(count), -1),
                      nullptr, payloads);
  }

 private:
  static const zyn_detection* some(const Boxes& boxes) {
    static const zyn_detection kNone{};
    return boxes.empty() ? &kNone : boxes.data();
  }
  Entries entries(zyn_track_info* info) {
    Entries result;
    EXPECT_NE(info, nullptr);
    if (!info) return result;
    const bool any = handle_->count > 0;
    EXPECT_EQ(info->payload != nullptr, payload_ > 0 && any);
    EXPECT_TRUE(!info->boxes != any && !info->ids != any && !info->time_since_update != any);
    for (int i = 0; i < info->count; i++) {
      Entry e{info->ids[i], info->time_since_update[i], {}, {}};
      memcpy(e.box.v, info->boxes + 4 * i, sizeof(e.box.v));
      if (payload_ > 0) {
        const uint8_t* bytes = static_cast<const uint8_t*>(info->payload) + i * payload_;
        e.payload.assign(bytes, bytes + payload_);
      }
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
  int max_age = 0, min_hits = 0, payload = 0;
  std::vector<TrackModel> tracks;
  uint64_t frames = 0, next_id = 0;
  size_t capacity = 128, slots = 128;

  Bytes zeros() const { return Bytes(payload); }
  // Tracks beyond the slots have no payload; those that come within start with zeros.
  void settle() {
    for (size_t k = 0; k < tracks.size(); k++) {
      if (k >= slots)
        tracks[k].payload.clear();
      else if (tracks[k].payload.empty())
        tracks[k].payload = zeros();
    }
  }
  Entries predict() {
    Entries result;
    for (TrackModel& t : tracks) {
      const Box box = t.predict();
      result.push_back({t.id, t.since, box, t.payload.empty() ? zeros() : t.payload});
    }
    frames++;
    return result;
  }
  void add(const zyn_detection& d) {
    tracks.emplace_back(box_of(d), static_cast<uint32_t>(next_id));
    settle();
  }
  void drop() {
    for (size_t k = 0; k < tracks.size(); k++)
      if (tracks[k].since > max_age) tracks.erase(tracks.begin() + static_cast<long>(k));
    settle();
  }
  std::vector<int32_t> update(const Boxes& boxes, const std::vector<int>& match,
                              const uint8_t* mask) {
    std::vector<int32_t> ids(match.size(), -1);
    for (size_t d = 0; d < match.size(); d++) {
      if (match[d] >= 0 || (mask && !mask[d])) continue;
      if (tracks.size() == capacity) capacity *= 2;
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
  int update_ids(const Boxes& boxes, const std::vector<int32_t>& ids, const uint8_t* mask,
                 const uint8_t* payloads) {
    auto give = [&](TrackModel& t, size_t i) {
      if (payloads && !t.payload.empty())
        t.payload.assign(payloads + i * payload, payloads + (i + 1) * payload);
    };
    if (tracks.size() > slots) slots = capacity;
    settle();
    for (size_t i = 0; i < ids.size(); i++) {
      const bool allowed = !mask || mask[i] == 1;
      bool found = false;
      if (ids[i] < 0) {
        if (tracks.size() == capacity) capacity *= 2;
        if (tracks.size() >= slots) slots = capacity;
        settle();
        if (!allowed) continue;
        add(boxes[i]);
        give(tracks.back(), i);
        next_id = next_id >= 2147483647 ? 0 : next_id + 1;
        continue;
      }
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
    for (const TrackModel& t : tracks) {
      if (t.since >= 1 || (min_hits > t.streak && frames < static_cast<uint64_t>(t.streak)))
        continue;
      result.push_back({t.id, 0, TrackModel::box_of(t.filter.corrected),
                        t.payload.empty() ? zeros() : t.payload});
    }
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
      : random_(seed), payload_(payload), sort_(max_age, min_hits, payload) {
    model_.max_age = max_age;
    model_.min_hits = min_hits;
    model_.payload = payload;
    restart_ids(first_id);
  }
  void restart_ids(uint64_t id) { sort_->next_id = model_.next_id = id; }

  void frame(int newcomers) {
    if (random_.integer(0, 9)) {
      ASSERT_NO_FATAL_FAILURE(expect_same(sort_.predict(), model_.predict(), "predicted"));
    }
    Boxes boxes;
    std::vector<int> match;
    std::vector<int32_t> ids;
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
      std::vector<int32_t> got;
      ASSERT_EQ(sort_.update(boxes, match, &got, used), 0);
      ASSERT_EQ(got, model_.update(boxes, match, used));
    } else {
      if (random_.integer(0, 19) == 0 && !ids.empty())
        ids[random_.integer(0, static_cast<int>(ids.size()) - 1)] = 2000000000;
      Bytes payloads(match.size() * static_cast<size_t>(payload_) + 1);
      for (uint8_t& b : payloads) b = static_cast<uint8_t>(random_.next());
      const uint8_t* const given = random_.integer(0, 3) ? payloads.data() : nullptr;
      ASSERT_EQ(sort_.update_ids(boxes, ids, used, given),
                model_.update_ids(boxes, ids, used, given));
    }
    ASSERT_NO_FATAL_FAILURE(expect_same(sort_.list(), model_.list(), "listed"));
    ASSERT_EQ(zyn_sort_get_frame_count(sort_.get()), model_.frames);
    ASSERT_EQ(static_cast<size_t>(sort_->count), model_.tracks.size());
    ASSERT_EQ(static_cast<size_t>(sort_->capacity), model_.capacity);
    ASSERT_EQ(static_cast<size_t>(sort_->payload_slots), payload_ ? model_.slots : 0);
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
  int payload_;
  Sort sort_;
  SortModel model_;
};

TEST(Sort, FollowsTheModelOverRandomFrames) {
  const int frames = soak(10000, 100000);
  const struct {
    int max_age, min_hits, payload;
    uint64_t first_id;
  } settings[] = {{0, 1, 0, 0}, {1, 3, 8, INT32_MAX - 40}, {3, 2, 1, 0}, {7, 5, 20, 0}};
  uint64_t seed = 1;
  for (const auto& s : settings)
    for (int part = 0; part < 5; part++) {
      SCOPED_TRACE(testing::Message() << "max age " << s.max_age << " seed " << seed);
      Scene scene(seed++, s.max_age, s.min_hits, s.payload, s.first_id);
      for (int f = 0; f < frames / 20; f++) {
        SCOPED_TRACE(f);
        const int room = 12 - scene.tracks();
        ASSERT_NO_FATAL_FAILURE(
            scene.frame(room > 0 ? scene.random().integer(0, std::min(room, 3)) : 0));
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

TEST(Sort, TracksThatTheFirstVariantAddedKeepThePayloadsOfTheSecond) {
  Sort sort(0, 1, 3);
  ASSERT_EQ(sort.add(130), 0);
  EXPECT_EQ(sort->capacity, 256);
  EXPECT_EQ(sort->payload_slots, 128) << "the first variant leaves the buffer alone";
  const Bytes payloads{1, 2, 3, 4, 5, 6};
  ASSERT_EQ(sort.update_ids(row_of_boxes(2), {129, -1}, nullptr, payloads.data()), 0);
  const Entries entries = sort.predict();
  EXPECT_EQ(entries[129].payload, (Bytes{1, 2, 3}));
  EXPECT_EQ(entries[130].payload, (Bytes{4, 5, 6}));

  Sort full(0, 1, 3);
  ASSERT_EQ(full.add_ids(128), 0);
  const uint8_t mask[1] = {0};
  ASSERT_EQ(full.update_ids(row_of_boxes(1), {-1}, mask), 0);
  EXPECT_TRUE(full->count == 128 && full->capacity == 256 && full->payload_slots == 256)
      << "a masked-out detection makes room all the same";
}

TEST(Sort, TwentyThousandTracksAreCorrectedAndDroppedInNoTime) {
  constexpr int kTracks = 20000, kPayload = 64;
  Sort sort(0, 1, kPayload);
  Bytes payloads(size_t{kTracks} * kPayload);
  for (size_t i = 0; i < payloads.size(); i++)
    payloads[i] = static_cast<uint8_t>(i / kPayload % 251);
  ASSERT_EQ(sort.add_ids(kTracks, payloads.data()), 0);
  // All are corrected, the last first, then all but every fifth are stale.
  std::vector<int32_t> ids;
  for (int i = kTracks; i-- > 0;) ids.push_back(i);
  const clock_t start = clock();
  ASSERT_EQ(sort.update_ids(row_of_boxes(kTracks), ids), 0);
  sort.predict();
  ids.clear();
  for (int i = 0; i < kTracks; i += 5) ids.push_back(i);
  ASSERT_EQ(sort.update_ids(row_of_boxes(kTracks / 5), ids), 0);
  const double seconds = static_cast<double>(clock() - start) / CLOCKS_PER_SEC;
  EXPECT_LT(seconds, 3);
  const Entries left = sort.predict();
  ASSERT_EQ(left.size(), size_t{kTracks} * 3 / 5);  // of four in a row the first and third go
  for (size_t k = 0; k < left.size(); k++) {
    const size_t id = k / 3 * 5 + k % 3 * 2;
    ASSERT_EQ(left[k].id, id);
    ASSERT_EQ(left[k].payload, Bytes(kPayload, static_cast<uint8_t>(id % 251)));
  }
}

TEST(Sort, ParametersAndPayloadSizes) {
  const struct {
    zyn_sort_param param;
    int payload, line;  // of the report, 0: fine
  } cases[] = {
      {{-1, 1, 0, 0}, 0, 1034},     {{0, 0, 0, 0}, 0, 1034},     {{0, 1, 1, 0}, 0, 1034},
      {{0, 1, -0.01f, 0}, 0, 1034}, {{0, 1, NAN, 0}, 0, 1034},   {{0, -5, 0, 0}, 0, 1034},
      {{0, 1, 0, NAN}, 0, 0},       {{0, 1, 0, -1}, 0, 0},       {{0, 1, 0, -INFINITY}, 0, 0},
      {{0, 1, 0, 0.99f}, 0, 0},     {{0, 1, 0, 7.9f}, 7, 0},     {{0, 1, 0, INFINITY}, 0, 1067},
      {{0, 1, 0, 3e38f}, 0, 1067},  {{0, 1, 0, 1e19f}, 0, 1067}, {{0, 1, 0, 9.3e18f}, 0, 1067},
      {{0, 1, 0, 1e17f}, 0, 1067}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.param.payload_size);
    zyn_sort_handle* handle = nullptr;
    const std::string text = printed([&] { handle = zyn_create_sort_handle(&c.param); });
    EXPECT_EQ(text, c.line ? tracking_report(c.line == 1034 ? kPara : kMemory, c.line) : "");
    ASSERT_EQ(handle != nullptr, c.line == 0);
    if (!handle) continue;
    EXPECT_EQ(handle->payload_size, c.payload);
    EXPECT_EQ(handle->payload != nullptr, c.payload > 0);
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
  const std::string text = printed([&] {
    EXPECT_EQ(zyn_release_sort_handle(nullptr), 1);
    EXPECT_EQ(zyn_release_sort_handle(&gone), 1);
    EXPECT_EQ(zyn_create_sort_predict(nullptr), nullptr);
    EXPECT_EQ(zyn_sort_get_frame_count(nullptr), 18446744073709551615u);
    zyn_release_track_info(nullptr);
    zyn_release_track_info(&info);
    auto update = zyn_sort_update_detection;
    EXPECT_EQ(update(nullptr, &id, nullptr, 0, &none, sort.get()), 1);
    EXPECT_EQ(update(&box, &id, nullptr, 0, nullptr, sort.get()), 1);
    EXPECT_EQ(update(&box, &id, nullptr, 0, &none, nullptr), 1);
    EXPECT_EQ(update(&box, nullptr, nullptr, 1, &none, sort.get()), 1);
    EXPECT_EQ(update(&box, nullptr, nullptr, -5, &none, sort.get()), 0);
    auto update_v2 = zyn_sort_update_detection_v2;
    EXPECT_EQ(update_v2(nullptr, &id, nullptr, 0, nullptr, sort.get()), 1);
    EXPECT_EQ(update_v2(&box, nullptr, nullptr, 0, nullptr, sort.get()), 1);
    EXPECT_EQ(update_v2(&box, &id, nullptr, 0, nullptr, nullptr), 1);
    EXPECT_EQ(update_v2(&box, &id, nullptr, -5, nullptr, sort.get()), 0);
  });
  EXPECT_EQ(text, "");
  EXPECT_EQ(sort->count, 0);
}

TEST(Sort, IndicesOutsideTheirArraysChangeNothing) {
  Sort sort;
  ASSERT_EQ(sort.add(2), 0);
  const Boxes boxes = row_of_boxes(2);
  const struct {
    const char* label;
    int32_t d, t, unmatched;
    bool fits, listed = true;
  } cases[] = {{"fits", 0, 0, 1, true},
               {"the track just made", 0, 2, 1, true},
               {"detection below", -1, 0, 1, false},
               {"detection above", 2, 0, 1, false},
               {"track below", 0, -1, 1, false},
               {"track above", 0, 5, 1, false},
               {"unmatched below", 0, 0, -1, false},
               {"unmatched above", 0, 0, 2, false},
               {"no lists", 0, 0, 1, false, false}};
  for (const auto& c : cases) {
    int32_t pairs[2] = {c.d, c.t}, unmatched[1] = {c.unmatched}, ids[2] = {55, 55};
    const int32_t before = sort->count;
    for (bool matched : {true, false}) {
      if (c.listed && !matched) continue;
      const zyn_sort_match_info info{matched, !matched || c.listed, c.listed ? pairs : nullptr,
                                     c.listed ? unmatched : nullptr};
      EXPECT_EQ(zyn_sort_update_detection(boxes.data(), ids, nullptr, 2, &info, sort.get()),
                !c.fits)
          << c.label;
    }
    EXPECT_EQ(sort->count, before + c.fits) << c.label;
    EXPECT_EQ(ids[0] == 55 && ids[1] == 55, !c.fits) << c.label;
  }
}

TEST(Sort, OfTwoAdjacentStaleTracksTheSecondGoesAFrameLater) {
  Sort sort(0);
  ASSERT_EQ(sort.add_ids(5), 0);
  for (const auto& left : {std::vector<int>{0, 1, 2, 3, 4}, {1, 3}, {3}}) {
    EXPECT_EQ(ids_of(sort.predict()), left);
    EXPECT_EQ(sort.update_ids({}, {}), 0);
  }
  EXPECT_TRUE(sort.predict().empty());
}

TEST(Sort, TracksUpdatedMoreOftenThanPredictedAreListedFromMinHitsOn) {
  // On purpose: the streak is compared with the frame count, not the frame count with
  // min_hits.
  Sort sort(1, 4);
  sort.predict();
  ASSERT_EQ(sort.add_ids(1), 0);
  EXPECT_EQ(sort.list().size(), 1u);    // streak 1, frame 1
  for (size_t listed : {0u, 0u, 1u}) {  // streaks 2, 3, 4, still frame 1
    EXPECT_EQ(sort.update_ids(row_of_boxes(1), {0}), 0);
    EXPECT_EQ(sort.list().size(), listed);
  }
}

TEST(Sort, AnyMaskByteButZeroCreatesButOnlyOneCorrects) {
  const uint8_t masks[3] = {0, 1, 2};
  Sort sort(5);
  std::vector<int32_t> ids;
  ASSERT_EQ(sort.update(row_of_boxes(3), {-1, -1, -1}, &ids, masks), 0);
  EXPECT_EQ(ids, (std::vector<int32_t>{-1, 0, 1}));
  ASSERT_EQ(sort.update(row_of_boxes(1), {-1}, &ids), 0);
  sort.predict();
  ASSERT_EQ(sort.update(row_of_boxes(3), {0, 1, 2}, &ids, masks), 0);
  EXPECT_EQ(ids, (std::vector<int32_t>{0, 1, 2})) << "ids are told all the same";
  EXPECT_EQ(ids_of(sort.list()), (std::vector<int>{1}));

  Sort by_id(5);
  ASSERT_EQ(by_id.update_ids(row_of_boxes(3), {-1, -1, -1}, masks), 0);
  EXPECT_EQ(by_id->count, 1) << "here 2 does not create either";
  EXPECT_EQ(by_id.update_ids(row_of_boxes(1), {5}, masks), 32) << "masked ids must exist";
}

TEST(Sort, FailingFiltersReport) {
  const std::string singular = "\nIt's not a full rank matrix\n";
  Sort sort(0);
  ASSERT_EQ(sort.add_ids(3), 0);
  sort.predict();
  sort.predict();
  zyn_kalman* filter = sort->tracks[1]->filter;
  memset(filter->measurement_noise->data, 0, 64);
  memset(filter->predicted_covariance->data, 0, 7 * 28);
  EXPECT_SAYS(sort.update_ids(row_of_boxes(2), {0, 1}), 32,
              singular + tracking_report("Unknown error!", 1483));
  std::vector<int32_t> ids;
  EXPECT_SAYS(sort.update(row_of_boxes(2), {0, 1}, &ids), 32, singular);
  EXPECT_EQ(ids, (std::vector<int32_t>{0, -1}));
  EXPECT_EQ(sort->count, 3) << "nothing was dropped";

  filter->transition->cols = 6;
  EXPECT_SAYS(zyn_create_sort_predict(sort.get()), nullptr, tracking_report(kPara, 300));
  EXPECT_EQ(zyn_sort_get_frame_count(sort.get()), 2u);
  EXPECT_TRUE(sort->tracks[0]->age == 3 && sort->tracks[2]->age == 2);
}

TEST(Sort, EveryAllocationMayFail) {
  const zyn_sort_param param{1, 1, 0.3f, 6};
  EXPECT_EQ(for_each_failing_allocation([&](int64_t, bool) {
              zyn_sort_handle* handle = nullptr;
              const std::string text = printed([&] { handle = zyn_create_sort_handle(&param); });
              EXPECT_EQ(text, handle ? "" : tracking_report(kMemory, 1067));
              return handle && zyn_release_sort_handle(&handle) == 0;
            }),
            3);
  Sort sort(1, 1, 6);
  ASSERT_EQ(sort.add_ids(3), 0);
  uint64_t frames = 0;
  for (bool predict : {true, false})
    for_each_failing_allocation([&](int64_t, bool) {
      zyn_track_info* info =
          predict ? zyn_create_sort_predict(sort.get()) : zyn_sort_get_track_info(sort.get());
      const bool made = info != nullptr;
      zyn_release_track_info(&info);
      frames += predict && made;
      EXPECT_EQ(zyn_sort_get_frame_count(sort.get()), frames);
      return made;
    });
  // 128 tracks: the next one needs room first. What a failure leaves is used further.
  int32_t zero = 0, id = 0;
  const zyn_sort_match_info unmatched{0, 1, nullptr, &zero};
  const Boxes boxes = row_of_boxes(129);
  std::vector<int32_t> all;
  for (int32_t k = 0; k < 129; k++) all.push_back(k);
  for (int variant : {1, 2}) {
    Sort sorts[2] = {Sort(1, 1, 6), Sort(1, 1, 6)};
    for (Sort& s : sorts) ASSERT_EQ(s.add_ids(128), 0);
    for_each_failing_allocation([&](int64_t, bool persistent) {
      Sort& s = sorts[persistent];
      int32_t code = 0;
      const std::string text = printed([&] {
        code = variant == 1
                   ? zyn_sort_update_detection(boxes.data(), &id, nullptr, 1, &unmatched, s.get())
                   : s.update_ids(boxes, {-1});
      });
      EXPECT_TRUE(code == 0 || code == 2) << code;
      EXPECT_EQ(s->count, code == 0 ? 129 : 128);
      EXPECT_EQ(s->next_id, static_cast<uint64_t>(s->count));
      const bool reported = text.find(tracking_report(kMemory, 1524)) != std::string::npos;
      EXPECT_EQ(reported, variant == 2 && code == 2 && s->capacity == 256) << text;
      return code == 0;
    });
    for (Sort& s : sorts) {
      EXPECT_EQ(s.predict().size(), 129u);
      // A track of the first variant wants a slot; the table of ids is not vital.
      FailingAllocations failing(1, true);
      EXPECT_EQ(s.update_ids(boxes, all), variant == 1 ? 2 : 0);
      FailingAllocations::fail(variant == 1 ? 2 : 1, true);
      EXPECT_EQ(s.update_ids(boxes, all), 0);
    }
  }
}

}  // namespace

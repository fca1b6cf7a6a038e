// The tracker: all tracks of a scene, their predictions, updates, payloads and lists.
#include "tracking/zyn_sort.h"

#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_integers.h"
#include "base/zyn_memory.h"
#include "tracking/zyn_tracking_report.h"

namespace {

constexpr zyn_site kCreateArgs{kZynTrackingPath, 1034, ZYN_MSG_PARA};
constexpr zyn_site kCreateMemory{kZynTrackingPath, 1067, ZYN_MSG_MEMORY};
constexpr int32_t kUpdateLine = 1483;
constexpr zyn_site kTrackMemory{kZynTrackingPath, 1524, ZYN_MSG_MEMORY};
constexpr zyn_site kListArgs{kZynTrackingPath, 1551, ZYN_MSG_PARA};

constexpr int32_t kInitialCapacity = 128;
constexpr float kPayloadLimit = 0x1p63f;  // sizes from here on do not fit 64 bits
constexpr int32_t kBoxFloats = 4;
constexpr int32_t kNone = -1;

using sort_guard = zyn_guard<zyn_sort_handle, zyn_release_sort_handle>;

// Release functions of records answer a code.
int32_t release_info(zyn_track_info** info) {
  zyn_release_track_info(info);
  return ZYN_RET_OK;
}
using info_guard = zyn_guard<zyn_track_info, release_info>;

// Track k's payload; null when it has no slot.
uint8_t* payload_of(const zyn_sort_handle* handle, int32_t k) {
  return k < handle->payload_slots ? handle->payload + k * handle->payload_size : nullptr;
}

bool allocate_payload(zyn_sort_handle* handle, float size) {
  if (!(size >= 1)) return true;
  if (size >= kPayloadLimit) return false;
  handle->payload_size = static_cast<int64_t>(size);
  int64_t bytes = 0;
  if (zyn_multiply(kInitialCapacity, handle->payload_size, &bytes))
    handle->payload = static_cast<uint8_t*>(zyn_malloc(bytes));
  if (handle->payload) handle->payload_slots = kInitialCapacity;
  return handle->payload != nullptr;
}

// Brings the payload buffer to a number of slots when it has fewer than needed; tracks
// that come to a slot so find it zeroed.
bool make_slots(zyn_sort_handle* handle, int32_t needed, int32_t slots) {
  if (!handle->payload || handle->payload_slots >= needed) return true;
  int64_t bytes = 0;
  if (!zyn_multiply(slots, handle->payload_size, &bytes)) return false;
  void* payload = zyn_grow(handle->payload, bytes);
  if (!payload) return false;
  handle->payload = static_cast<uint8_t*>(payload);
  const int32_t before = handle->payload_slots;
  handle->payload_slots = slots;
  if (handle->count > before)
    memset(payload_of(handle, before), 0,
           static_cast<size_t>((handle->count - before) * handle->payload_size));
  return true;
}

// Room for another track, with_payload also a payload slot: doubles the capacity when it
// is used up. On failure everything is as it was.
bool make_room(zyn_sort_handle* handle, bool with_payload) {
  int32_t capacity = handle->capacity;
  if (handle->count == capacity) {
    if (capacity > INT32_MAX / 2) return false;
    capacity *= 2;
    void* tracks = zyn_grow(handle->tracks, int64_t{capacity} * int64_t{sizeof(*handle->tracks)});
    if (!tracks) return false;
    handle->tracks = static_cast<zyn_box_tracker**>(tracks);
  }
  if (with_payload && !make_slots(handle, handle->count + 1, capacity)) return false;
  handle->capacity = capacity;
  return true;
}

// Adds a track with the next id, its payload zeroed; there is room. Null on failure.
zyn_box_tracker* append_track(zyn_sort_handle* handle, const zyn_detection& detection) {
  zyn_box_tracker* tracker =
      zyn_create_box_tracker(&detection.x1, static_cast<uint32_t>(handle->next_id));
  if (!tracker) return nullptr;
  if (uint8_t* slot = payload_of(handle, handle->count))
    memset(slot, 0, static_cast<size_t>(handle->payload_size));
  handle->tracks[handle->count++] = tracker;
  return tracker;
}

// Moves track and payload to a slot before its own.
void move_track(zyn_sort_handle* handle, int32_t to, int32_t from) {
  handle->tracks[to] = handle->tracks[from];
  uint8_t* const slot = payload_of(handle, to);
  if (!slot) return;
  const auto bytes = static_cast<size_t>(handle->payload_size);
  if (const uint8_t* payload = payload_of(handle, from))
    memcpy(slot, payload, bytes);
  else
    memset(slot, 0, bytes);  // it had none
}

void drop_stale_tracks(zyn_sort_handle* handle) {
  int32_t kept = 0;
  bool skip = false;
  for (int32_t k = 0; k < handle->count; k++) {
    const bool stale = !skip && handle->tracks[k]->time_since_update > handle->max_age;
    if (stale)
      zyn_release_box_tracker(&handle->tracks[k]);
    else if (kept++ != k)
      move_track(handle, kept - 1, k);
    skip = stale;  // On purpose: the track behind a dropped one has its turn in the next frame.
  }
  handle->count = kept;
}

// Zeroed track info with room for every track: one block, the arrays behind the record.
zyn_track_info* create_track_info(const zyn_sort_handle* handle) {
  constexpr int64_t kUnit = 32;  // what arrays are aligned to
  const int64_t count = handle->count;
  int64_t bytes = zyn_round_up(sizeof(zyn_track_info), kUnit);
  const auto place = [&](int64_t entry_bytes) {
    const int64_t at = bytes;
    bytes += zyn_round_up(count * entry_bytes, kUnit);
    return at;
  };
  const int64_t boxes = place(kBoxFloats * sizeof(float));
  const int64_t ids = place(sizeof(uint32_t));
  const int64_t times = place(sizeof(int32_t));
  const int64_t payload = bytes;
  int64_t payload_bytes = 0;
  if (!zyn_multiply(count, handle->payload ? handle->payload_size : 0, &payload_bytes) ||
      __builtin_add_overflow(payload, payload_bytes, &bytes)) {
    zyn_explain("no memory for the payloads of %lld tracks", static_cast<long long>(count));
    return nullptr;
  }
  auto* const block = static_cast<uint8_t*>(zyn_calloc(1, bytes));
  if (!block) return nullptr;
  auto* const info = reinterpret_cast<zyn_track_info*>(block);
  if (count == 0) return info;
  info->boxes = reinterpret_cast<float*>(block + boxes);
  info->ids = reinterpret_cast<uint32_t*>(block + ids);
  info->time_since_update = reinterpret_cast<int32_t*>(block + times);
  if (payload_bytes > 0) info->payload = block + payload;
  return info;
}

// Writes id and payload of track k to an entry.
void fill_entry(zyn_track_info* info, int32_t entry, const zyn_sort_handle* handle, int32_t k) {
  info->ids[entry] = handle->tracks[k]->id;
  if (const uint8_t* slot = payload_of(handle, k))
    memcpy(static_cast<uint8_t*>(info->payload) + entry * handle->payload_size, slot,
           static_cast<size_t>(handle->payload_size));
}

bool is_listed(const zyn_sort_handle* handle, const zyn_box_tracker* track) {
  if (track->time_since_update >= 1) return false;
  if (track->hit_streak >= handle->min_hits) return true;
  // On purpose: measured by the track's own streak, not an exemption of the first frames.
  return static_cast<uint64_t>(track->hit_streak) <= handle->frame_count;
}

// On purpose two rules: any byte but 0 lets a detection become a track, only 1 lets it
// correct one.
bool may_create(const uint8_t* mask, int32_t d) { return !mask || mask[d] != 0; }
bool may_correct(const uint8_t* mask, int32_t d) { return !mask || mask[d] == 1; }

// Whether every index of the match info lies in its array; tracks that this update
// creates count.
bool indices_fit(const zyn_sort_match_info* matches, const uint8_t* mask, int32_t detection_count,
                 const zyn_sort_handle* handle) {
  if ((matches->unmatched_count > 0 && !matches->unmatched) ||
      (matches->matched_count > 0 && !matches->matched))
    return false;
  int64_t tracks = handle->count;
  for (int32_t i = 0; i < matches->unmatched_count; i++) {
    const int32_t d = matches->unmatched[i];
    if (d < 0 || d >= detection_count) return false;
    tracks += may_create(mask, d);
  }
  for (int32_t i = 0; i < matches->matched_count; i++) {
    const int32_t* const pair = matches->matched + 2 * int64_t{i};
    if (pair[0] < 0 || pair[0] >= detection_count || pair[1] < 0 || pair[1] >= tracks) return false;
  }
  return true;
}

// Finds tracks by id: chains in the order of the tracks. Several tracks may share an id.
// Without a table (few tracks, or no memory for it) every track is looked at.
class track_index {
 public:
  track_index(const zyn_sort_handle* handle, int32_t searches, int64_t most_tracks)
      : handle_(handle) {
    // Up to here looking at every track costs less than a table.
    constexpr int64_t kFewLooks = 4096;
    if (most_tracks > INT32_MAX / 2 || int64_t{searches} * handle->count <= kFewLooks) return;
    while (int64_t{1} << bits_ < most_tracks) bits_++;
    table_ = static_cast<int32_t*>(zyn_malloc((most_tracks + (int64_t{2} << bits_)) * 4));
    if (!table_) return;  // harmless: only slower
    heads_ = table_ + most_tracks;
    tails_ = heads_ + (int64_t{1} << bits_);
    memset(heads_, 0xFF, sizeof(int32_t) << bits_);
    for (int32_t k = 0; k < handle->count; k++) add(k);
  }
  ~track_index() { zyn_free(table_); }
  track_index(const track_index&) = delete;
  track_index& operator=(const track_index&) = delete;

  // Takes in the track that was appended last.
  void add_last() {
    if (table_) add(handle_->count - 1);
  }
  // The first track with an id, or the next one behind track k; kNone without one.
  int32_t first(uint32_t id) const { return find(id, table_ ? heads_[hash(id)] : 0); }
  int32_t next(uint32_t id, int32_t k) const { return find(id, table_ ? table_[k] : k + 1); }

 private:
  uint32_t hash(uint32_t id) const { return bits_ ? id * 2654435769u >> (32 - bits_) : 0; }
  void add(int32_t k) {
    const uint32_t h = hash(handle_->tracks[k]->id);
    (heads_[h] < 0 ? heads_[h] : table_[tails_[h]]) = k;
    tails_[h] = k;
    table_[k] = kNone;
  }
  int32_t find(uint32_t id, int32_t k) const {
    while (k >= 0 && k < handle_->count && handle_->tracks[k]->id != id)
      k = table_ ? table_[k] : k + 1;
    return k < handle_->count ? k : kNone;
  }

  const zyn_sort_handle* handle_;
  int32_t* table_ = nullptr;  // per track the next one of its chain, then heads and tails
  int32_t* heads_ = nullptr;
  int32_t* tails_ = nullptr;
  int32_t bits_ = 0;
};

// What the second update works on.
struct update_v2 {
  zyn_sort_handle* handle;
  track_index* index;
  const uint8_t* payloads;

  void give_payload(int32_t i, int32_t k) const {
    uint8_t* const slot = payload_of(handle, k);
    if (slot && payloads)
      memcpy(slot, payloads + i * handle->payload_size, static_cast<size_t>(handle->payload_size));
  }

  // A new track for detection i, if the mask lets it; the capacity grows even if not.
  int32_t add_track(const zyn_detection& detection, int32_t i, bool allowed) const {
    if (!make_room(handle, true)) return ZYN_RET_ERR_MEMORY;
    if (!allowed) return ZYN_RET_OK;
    if (!append_track(handle, detection)) return zyn_fail(kTrackMemory, ZYN_RET_ERR_MEMORY);
    index->add_last();
    give_payload(i, handle->count - 1);
    // The number of tracks would wrap alike, but the capacity never gets there.
    handle->next_id = handle->next_id < INT32_MAX ? handle->next_id + 1 : 0;
    return ZYN_RET_OK;
  }

  // Corrects every track with an id by detection i, if the mask lets it.
  int32_t correct_tracks(const zyn_detection& detection, int32_t i, uint32_t id,
                         bool allowed) const {
    int32_t k = index->first(id);
    if (k == kNone)
      return zyn_refuse(ZYN_RET_ERR_UNKNOWN, "detection %d: no track has the id %u", i, id);
    for (; allowed && k != kNone; k = index->next(id, k)) {
      const int32_t code = zyn_box_tracker_update(&detection.x1, handle->tracks[k]);
      if (code != ZYN_RET_OK) {
        zyn_report_code(kUpdateLine, code);
        return zyn_refuse(code, "detection %d does not correct track %u", i, id);
      }
      give_payload(i, k);
    }
    return ZYN_RET_OK;
  }
};

}  // namespace

zyn_sort_handle* zyn_create_sort_handle(const zyn_sort_param* param) {
  if (!param || param->max_age < 0 || param->min_hits < 1 ||
      !(param->iou_threshold >= 0 && param->iou_threshold < 1)) {
    zyn_report(kCreateArgs);
    zyn_explain(
        "a max_age of at least 0, a min_hits of at least 1 and an iou_threshold of 0 to below 1 "
        "are "
        "needed, found %d, %d, %g",
        param ? param->max_age : -1, param ? param->min_hits : 0,
        param ? static_cast<double>(param->iou_threshold) : -1.0);
    return nullptr;
  }
  sort_guard handle(static_cast<zyn_sort_handle*>(zyn_calloc(1, sizeof(zyn_sort_handle))));
  if (handle) {
    handle->max_age = param->max_age;
    handle->min_hits = param->min_hits;
    handle->iou_threshold = param->iou_threshold;
    handle->capacity = kInitialCapacity;
    handle->tracks =
        static_cast<zyn_box_tracker**>(zyn_calloc(kInitialCapacity, sizeof(*handle->tracks)));
    if (handle->tracks && allocate_payload(handle.get(), param->payload_size)) return handle.take();
  }
  zyn_report(kCreateMemory);
  return nullptr;
}

int32_t zyn_release_sort_handle(zyn_sort_handle** handle) {
  if (!handle || !*handle) return zyn_refuse_null("the tracker");
  zyn_sort_handle* self = *handle;
  zyn_free(self->payload);
  for (int32_t k = 0; k < self->count; k++) zyn_release_box_tracker(&self->tracks[k]);
  zyn_free(self->tracks);
  zyn_free(self);
  *handle = nullptr;
  return ZYN_RET_OK;
}

zyn_track_info* zyn_create_sort_predict(zyn_sort_handle* handle) {
  if (!handle) {
    zyn_refuse_null("the tracker");
    return nullptr;
  }
  info_guard info(create_track_info(handle));
  if (!info) return nullptr;
  for (int32_t k = 0; k < handle->count; k++) {
    zyn_box_tracker* const track = handle->tracks[k];
    if (zyn_box_tracker_predict(info->boxes + int64_t{k} * kBoxFloats, track) != ZYN_RET_OK) {
      zyn_explain("the prediction of track %u failed", track->id);
      return nullptr;
    }
    info->time_since_update[k] = track->time_since_update;
    fill_entry(info.get(), k, handle, k);
  }
  info->count = handle->count;
  handle->frame_count++;
  return info.take();
}

int32_t zyn_sort_update_detection(const zyn_detection* detections, int32_t* ids,
                                  const uint8_t* mask, int32_t detection_count,
                                  const zyn_sort_match_info* matches, zyn_sort_handle* handle) {
  if (!detections || !matches || !handle || (detection_count > 0 && !ids))
    return zyn_refuse_null("the detections, the ids, the matches or the tracker");
  if (!indices_fit(matches, mask, detection_count, handle))
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "an index of the matches lies outside of %d detections and %d tracks",
                      detection_count, handle->count);
  for (int32_t d = 0; d < detection_count; d++) ids[d] = -1;
  for (int32_t i = 0; i < matches->unmatched_count; i++) {
    const int32_t d = matches->unmatched[i];
    if (!may_create(mask, d)) continue;
    // On purpose: the payload buffer stays as it is.
    if (!make_room(handle, false)) return ZYN_RET_ERR_MEMORY;
    const zyn_box_tracker* const track = append_track(handle, detections[d]);
    if (!track) return ZYN_RET_ERR_MEMORY;
    ids[d] = static_cast<int32_t>(track->id);
    handle->next_id++;
  }
  for (int32_t i = 0; i < matches->matched_count; i++) {
    const int32_t d = matches->matched[2 * int64_t{i}];
    zyn_box_tracker* const track = handle->tracks[matches->matched[2 * int64_t{i} + 1]];
    if (may_correct(mask, d)) {
      const int32_t code = zyn_box_tracker_update(&detections[d].x1, track);
      if (code != ZYN_RET_OK)
        return zyn_refuse(code, "detection %d does not correct track %u", d, track->id);
    }
    ids[d] = static_cast<int32_t>(track->id);
  }
  drop_stale_tracks(handle);
  return ZYN_RET_OK;
}

int32_t zyn_sort_update_detection_v2(const zyn_detection* detections, const int32_t* ids,
                                     const uint8_t* mask, int32_t detection_count,
                                     const void* payloads, zyn_sort_handle* handle) {
  if (!detections || !ids || !handle)
    return zyn_refuse_null("the detections, the ids or the tracker");
  // The first update may have left tracks without a slot.
  if (!make_slots(handle, handle->count, handle->capacity)) return ZYN_RET_ERR_MEMORY;
  int32_t newcomers = 0;
  for (int32_t i = 0; i < detection_count; i++) newcomers += ids[i] < 0;
  track_index index(handle, detection_count - newcomers, int64_t{handle->count} + newcomers);
  const update_v2 update{handle, &index, static_cast<const uint8_t*>(payloads)};
  for (int32_t i = 0; i < detection_count; i++) {
    const bool allowed = may_correct(mask, i);
    const int32_t code = ids[i] < 0 ? update.add_track(detections[i], i, allowed)
                                    : update.correct_tracks(detections[i], i,
                                                            static_cast<uint32_t>(ids[i]), allowed);
    if (code != ZYN_RET_OK) return code;
  }
  drop_stale_tracks(handle);
  return ZYN_RET_OK;
}

zyn_track_info* zyn_sort_get_track_info(const zyn_sort_handle* handle) {
  if (!handle) {
    zyn_fail_null(kListArgs, "the tracker");
    return nullptr;
  }
  zyn_track_info* const info = create_track_info(handle);
  if (!info) return nullptr;
  for (int32_t k = 0; k < handle->count; k++) {
    const zyn_box_tracker* const track = handle->tracks[k];
    if (!is_listed(handle, track)) continue;
    zyn_state_to_box(info->boxes + int64_t{info->count} * kBoxFloats,
                     static_cast<const float*>(track->filter->corrected_state->data));
    fill_entry(info, info->count++, handle, k);
  }
  return info;
}

uint64_t zyn_sort_get_frame_count(const zyn_sort_handle* handle) {
  if (!handle) zyn_refuse_null("the tracker");
  return handle ? handle->frame_count : UINT64_MAX;
}

void zyn_release_track_info(zyn_track_info** info) {
  if (!info || !*info) return;
  zyn_free(*info);
  *info = nullptr;
}

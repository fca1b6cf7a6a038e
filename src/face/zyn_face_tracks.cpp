// Faces from frame to frame, by the tracker's public functions.
#include "face/zyn_face_tracks.h"

#include <math.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_integers.h"

namespace {

constexpr int32_t kBoxFloats = 4;
constexpr int32_t kBlocks = 3;  // of landmarks in a slot

int32_t no_memory() { return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory to follow faces"); }

bool is_finite(const float* box) {
  return isfinite(box[0]) && isfinite(box[1]) && isfinite(box[2]) && isfinite(box[3]);
}

void put_box(const zyn_detection& from, float* box) {
  box[0] = from.x1;
  box[1] = from.y1;
  box[2] = from.x2;
  box[3] = from.y2;
}

int32_t release_matches(zyn_sort_match_info** matches) {
  zyn_release_sort_match_info(matches);
  return ZYN_RET_OK;
}
using match_guard = zyn_guard<zyn_sort_match_info, release_matches>;

}  // namespace

zyn_face_tracks::~zyn_face_tracks() {
  zyn_release_track_info(&predicted_);
  if (tracker_) zyn_release_sort_handle(&tracker_);
  zyn_free(slots_);
  zyn_free(landmarks_);
  zyn_free(lost_);
}

int32_t zyn_face_tracks::open(const zyn_face_options& options, int32_t values) {
  options_ = options;
  values_ = values;
  const int64_t faces = options.max_faces;
  slots_ = static_cast<zyn_face_slot*>(zyn_calloc(faces, sizeof(zyn_face_slot)));
  if (values > 0)
    landmarks_ = static_cast<float*>(zyn_calloc(faces * kBlocks * values, int64_t{sizeof(float)}));
  lost_ = static_cast<zyn_known_face*>(zyn_calloc(faces, sizeof(zyn_known_face)));
  if (!slots_ || !lost_ || (values > 0 && !landmarks_)) return no_memory();
  for (int64_t i = 0; landmarks_ && i < faces; i++) {
    slots_[i].landmarks = landmarks_ + i * kBlocks * values_;
    slots_[i].smoothed = slots_[i].landmarks + values_;
    slots_[i].speeds = slots_[i].smoothed + values_;
  }
  return clear();
}

int32_t zyn_face_tracks::clear() {
  count_ = lost_count_ = 0;
  zyn_release_track_info(&predicted_);
  if (tracker_) zyn_release_sort_handle(&tracker_);
  const zyn_sort_param param = {options_.max_age, 1, options_.track_overlap, 0};
  tracker_ = zyn_create_sort_handle(&param);
  return tracker_ ? ZYN_RET_OK : no_memory();
}

int32_t zyn_face_tracks::find(uint32_t track) const {
  for (int32_t i = 0; i < count_; i++)
    if (slots_[i].track == track) return i;
  return -1;
}

int32_t zyn_face_tracks::add(uint32_t track) {
  if (count_ == options_.max_faces) return -1;
  zyn_face_slot& slot = slots_[count_];
  float* const blocks = slot.landmarks;
  slot = {};
  if (blocks) {
    memset(blocks, 0, static_cast<size_t>(kBlocks * values_) * sizeof(float));
    slot.landmarks = blocks;
    slot.smoothed = blocks + values_;
    slot.speeds = slot.smoothed + values_;
  }
  slot.track = track;
  slot.id = -1;
  slot.age = -1;  // counts up where the slot is given its finding
  return count_++;
}

// The faces keep their order; the slot's memory goes behind the last one.
void zyn_face_tracks::remove(int32_t slot) {
  const zyn_face_slot removed = slots_[slot];
  remember(removed);
  count_--;
  for (int32_t i = slot; i < count_; i++) slots_[i] = slots_[i + 1];
  slots_[count_] = removed;
}

int32_t zyn_face_tracks::predict() {
  zyn_release_track_info(&predicted_);
  predicted_ = zyn_create_sort_predict(tracker_);
  if (!predicted_) return no_memory();
  forget();
  for (int32_t i = 0; i < count_; i++) slots_[i].predicted = -1;
  for (int32_t k = 0; k < predicted_->count; k++) {
    float* box = predicted_->boxes + int64_t{k} * kBoxFloats;
    const int32_t i = find(predicted_->ids[k]);
    // Something far away that nothing overlaps.
    if (!is_finite(box)) memset(box, 0, kBoxFloats * sizeof(float));
    if (i < 0) continue;
    memcpy(slots_[i].box, box, sizeof(slots_[i].box));
    slots_[i].predicted = k;
  }
  for (int32_t i = count_ - 1; i >= 0; i--) {
    zyn_face_slot& slot = slots_[i];
    if (slot.predicted < 0) {
      remove(i);
      continue;
    }
    slot.state = ZYN_FACE_PREDICTED;
    slot.age++;
    slot.unseen++;
  }
  return ZYN_RET_OK;
}

int32_t zyn_face_tracks::associate(zyn_face_finding* findings, int32_t count) const {
  const int32_t tracks = predicted_->count;
  if (count == 0 || tracks == 0) return ZYN_RET_OK;
  const zyn_scratch<zyn_detection> boxes(int64_t{count} + tracks);
  if (!boxes) return no_memory();
  for (int32_t d = 0; d < count; d++) boxes[d] = findings[d].box;
  for (int32_t k = 0; k < tracks; k++) {
    const float* box = predicted_->boxes + int64_t{k} * kBoxFloats;
    boxes[count + k] = {box[0], box[1], box[2], box[3], 0};
  }
  const match_guard matches(zyn_associate_detections_to_trackers(
      boxes.get(), count, boxes.get() + count, tracks, options_.track_overlap));
  if (!matches) return no_memory();
  for (int64_t i = 0; i < matches->matched_count; i++)
    findings[matches->matched[2 * i]].predicted = matches->matched[2 * i + 1];
  return ZYN_RET_OK;
}

// Face and finding meet; a track without a face, which went unseen for too long and was found
// again before the tracker dropped it, gets one where there is room.
void zyn_face_tracks::give(zyn_face_finding* finding, uint32_t track, int32_t state) {
  finding->slot = find(track);
  if (finding->slot < 0) finding->slot = add(track);
  if (finding->slot < 0) return;
  zyn_face_slot& slot = slots_[finding->slot];
  if (slot.age < 0) slot.age = 0;
  slot.unseen = 0;
  slot.state = state;
  put_box(finding->box, slot.box);
  memcpy(slot.seen_box, slot.box, sizeof(slot.box));
  if (state != ZYN_FACE_DETECTED) return;
  slot.score = finding->box.score;
  slot.hits++;
}

// Brings the findings to the tracker, of new ones room of them at most; ids takes the tracks', -1
// for those without one.
int32_t zyn_face_tracks::correct(const zyn_face_finding* findings, int32_t count, int32_t room,
                                 int32_t* ids) {
  int32_t matched = 0, pair = 0, single = 0;
  for (int32_t d = 0; d < count; d++) matched += findings[d].predicted >= 0;
  const zyn_scratch<zyn_detection> boxes(int64_t{count} + 1);
  const zyn_scratch<uint8_t> mask(int64_t{count} + 1);
  const match_guard matches(zyn_create_sort_match_info(matched, count - matched));
  if (!boxes || !mask || !matches) return no_memory();
  for (int32_t d = 0; d < count; d++) {
    const zyn_face_finding& finding = findings[d];
    boxes[d] = finding.box;
    const bool known = finding.predicted >= 0;
    mask[d] = known || (finding.box.score > options_.score_threshold && room > 0);
    if (!known) {
      matches->unmatched[single++] = d;
      room -= mask[d];
      continue;
    }
    matches->matched[2 * int64_t{pair}] = d;
    matches->matched[2 * int64_t{pair++} + 1] = finding.predicted;
  }
  const int32_t code =
      zyn_sort_update_detection(boxes.get(), ids, mask.get(), count, matches.get(), tracker_);
  return code == ZYN_RET_ERR_MEMORY ? no_memory() : code;
}

int32_t zyn_face_tracks::update(zyn_face_finding* findings, int32_t count, int32_t state) {
  const zyn_scratch<int32_t> ids(int64_t{count} + 1);
  if (!ids) return no_memory();
  if (const int32_t code = correct(findings, count, options_.max_faces - count_, ids.get()))
    return code;
  for (int32_t d = 0; d < count; d++)
    if (ids[d] != -1) give(&findings[d], static_cast<uint32_t>(ids[d]), state);
  return ZYN_RET_OK;
}

int32_t zyn_face_tracks::warm_up(zyn_face_finding* findings, int32_t count) {
  const zyn_scratch<int32_t> ids(int64_t{count} + 1);
  if (!ids) return no_memory();
  if (const int32_t code = predict()) return code;
  if (const int32_t code = associate(findings, count)) return code;
  return correct(findings, count, count, ids.get());
}

void zyn_face_tracks::drop_lost(int32_t width, int32_t height) {
  for (int32_t i = count_ - 1; i >= 0; i--) {
    const zyn_face_slot& slot = slots_[i];
    const float x = 0.5f * (slot.box[0] + slot.box[2]), y = 0.5f * (slot.box[1] + slot.box[3]);
    const bool inside =
        x >= 0 && y >= 0 && x <= static_cast<float>(width) && y <= static_cast<float>(height);
    if (slot.unseen > options_.max_age || (slot.unseen > 0 && !inside)) remove(i);
  }
}

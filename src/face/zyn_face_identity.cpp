// Who is who: faces that come out from behind others get their ids back, and those that cross keep
// them, by how they look and where they were.
#include <math.h>

#include "face/zyn_face_tracks.h"

namespace {

// Two faces may be one up to this difference of looks and, for each size of the face that it has
// moved, as much more difference.
constexpr float kAlike = 0.9f, kMoved = 0.05f;

float larger_side(const float* box) { return fmaxf(box[2] - box[0], box[3] - box[1]); }

float distance(const float* a, const float* b) {
  return 0.5f * hypotf(a[0] + a[2] - b[0] - b[2], a[1] + a[3] - b[1] - b[3]);
}

float common_area(const float* a, const float* b) {
  const float width = fminf(a[2], b[2]) - fmaxf(a[0], b[0]);
  const float height = fminf(a[3], b[3]) - fmaxf(a[1], b[1]);
  return fmaxf(width, 0) * fmaxf(height, 0);
}

bool is_known(const zyn_face_look& look) { return look.size > 0; }

// Whether a face may have come to a place from where it was last seen, in sizes of the face.
bool can_have_come(const zyn_known_face& face, const float* box) {
  constexpr float kAtOnce = 1.5f, kEachFrame = 0.12f;
  return distance(face.seen_box, box) <
         (kAtOnce + kEachFrame * static_cast<float>(face.unseen)) * larger_side(box);
}

// How badly a finding fits a face: its look, and how far it lies from where the face is expected.
float misfit(const zyn_face_finding& finding, const zyn_face_slot& slot) {
  constexpr float kEachSize = 0.15f;
  const float* box = &finding.box.x1;
  return zyn_compare_looks(finding.look, slot.look) +
         kEachSize * distance(slot.box, box) / larger_side(box);
}

}  // namespace

void zyn_face_tracks::remember(const zyn_known_face& face) {
  if (face.id < 0 || !is_known(face.look) || options_.remember == 0) return;
  int32_t oldest = 0;
  for (int32_t i = 1; i < lost_count_; i++)
    if (lost_[i].unseen > lost_[oldest].unseen) oldest = i;
  lost_[lost_count_ < options_.max_faces ? lost_count_++ : oldest] = face;
}

void zyn_face_tracks::forget() {
  int32_t kept = 0;
  for (int32_t i = 0; i < lost_count_; i++)
    if (lost_[i].unseen++ < options_.remember) lost_[kept++] = lost_[i];
  lost_count_ = kept;
}

// By how much better it fits when a finding of slot from goes to slot to, and the finding of that
// one, if it has any, to from. A face that was seen in the frame before is favoured over one that
// was not: who is hidden is hidden for a while.
float zyn_face_tracks::gain(const zyn_face_finding* findings, int32_t count, int32_t finding,
                            int32_t from, int32_t to) const {
  constexpr float kSeenBefore = 0.15f;
  const zyn_face_finding& f = findings[finding];
  const zyn_face_slot &a = slots_[from], &b = slots_[to];
  const float* box = &f.box.x1;
  const float reach = larger_side(box);
  if (from == to || !is_known(b.look) || distance(b.box, box) > reach) return 0;
  float gain = misfit(f, a) - misfit(f, b);
  if (a.unseen > 1 && b.unseen == 1) gain += kSeenBefore;
  if (a.unseen == 1 && b.unseen > 1) gain -= kSeenBefore;
  for (int32_t i = 0; i < count; i++) {
    const zyn_face_finding& other = findings[i];
    if (other.predicted != b.predicted) continue;
    if (!is_known(other.look) || distance(a.box, &other.box.x1) > reach) return 0;
    gain += misfit(other, b) - misfit(other, a);
  }
  return isfinite(gain) ? gain : 0;
}

// Whether a finding looks clearly more like a lost face than like its own.
bool zyn_face_tracks::rather_lost(const zyn_face_finding& finding, float difference) const {
  if (!isfinite(difference)) return false;
  constexpr float kClearly = 0.2f;
  for (int32_t i = 0; i < lost_count_; i++)
    if (can_have_come(lost_[i], &finding.box.x1) &&
        difference - zyn_compare_looks(finding.look, lost_[i].look) > kClearly)
      return true;
  return false;
}

void zyn_face_tracks::reconsider(zyn_face_finding* findings, int32_t count) const {
  constexpr float kWorthwhile = 0.1f;
  for (int32_t i = 0; i < count; i++) {
    zyn_face_finding& f = findings[i];
    const int32_t from = f.predicted < 0 ? -1 : find(predicted_->ids[f.predicted]);
    if (from < 0 || !is_known(f.look) || !is_known(slots_[from].look)) continue;
    float most = kWorthwhile;
    int32_t to = -1;
    for (int32_t k = 0; k < count_; k++) {
      const float here = gain(findings, count, i, from, k);
      if (here > most) {
        most = here;
        to = k;
      }
    }
    if (to < 0) {
      if (rather_lost(f, zyn_compare_looks(f.look, slots_[from].look))) f.predicted = -1;
      continue;
    }
    for (int32_t k = 0; k < count; k++)
      if (findings[k].predicted == slots_[to].predicted) findings[k].predicted = f.predicted;
    f.predicted = slots_[to].predicted;
  }
}

void zyn_face_tracks::learn(const zyn_face_finding* findings, int32_t count) {
  constexpr float kShare = 0.05f;
  constexpr float kCovered = 0.1f;  // of the box
  for (int32_t i = 0; i < count; i++) {
    const zyn_face_finding& f = findings[i];
    if (f.slot < 0 || !is_known(f.look)) continue;
    zyn_face_slot& slot = slots_[f.slot];
    if (!is_known(slot.look) || slot.id < 0) {
      slot.look = f.look;
      continue;
    }
    bool covered = false;
    const float* box = &f.box.x1;
    const float area = (box[2] - box[0]) * (box[3] - box[1]);
    for (int32_t k = 0; k < count_ && !covered; k++)
      covered = k != f.slot && common_area(slots_[k].box, box) > kCovered * area;
    if (!covered) zyn_blend_look(f.look, kShare, &slot.look);
  }
}

// Gives the id of a face that is not seen to the one without an id that looks most like it; false
// where none does.
bool zyn_face_tracks::recall() {
  float least = kAlike;
  int32_t face = -1, from = -1;  // from: a slot, or behind them a lost face
  for (int32_t i = 0; i < count_; i++) {
    const zyn_face_slot& slot = slots_[i];
    if (slot.id >= 0 || slot.hits < options_.min_hits || !is_known(slot.look)) continue;
    for (int32_t k = 0; k < count_ + lost_count_; k++) {
      const zyn_known_face& known =
          k < count_ ? static_cast<const zyn_known_face&>(slots_[k]) : lost_[k - count_];
      if (known.id < 0 || known.unseen == 0 || !is_known(known.look)) continue;
      if (!can_have_come(known, slot.box)) continue;
      const float moved = distance(known.seen_box, slot.box) / larger_side(slot.box);
      const float difference = zyn_compare_looks(slot.look, known.look) + kMoved * moved;
      if (!(difference < least)) continue;
      least = difference;
      face = i;
      from = k;
    }
  }
  if (face < 0) return false;
  zyn_known_face& known = from < count_ ? slots_[from] : lost_[from - count_];
  slots_[face].id = known.id;
  slots_[face].look = known.look;
  known.id = -1;
  if (from < count_)
    remove(from);
  else
    known = lost_[--lost_count_];
  return true;
}

void zyn_face_tracks::identify(int32_t* next_id) {
  while (options_.remember > 0 && recall()) continue;
  for (int32_t i = 0; i < count_; i++) {
    if (slots_[i].id >= 0 || slots_[i].hits < options_.min_hits) continue;
    slots_[i].id = *next_id;
    *next_id = *next_id < INT32_MAX ? *next_id + 1 : 0;
  }
}

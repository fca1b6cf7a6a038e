// Sessions: from frame to faces. What a frame needs is allocated while its predecessors run:
// the session keeps the blocks (zyn_recycler), and create makes it need them all once.
#include <math.h>
#include <string.h>

#include <new>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "face/zyn_face_frame.h"
#include "face/zyn_face_marks.h"
#include "face/zyn_face_networks.h"
#include "face/zyn_face_sample.h"
#include "face/zyn_face_tracks.h"

struct zyn_face_session {
  zyn_recycler memory;
  zyn_face_options options;
  zyn_face_detector detector;
  zyn_face_landmarker landmarker;
  zyn_face_viewer viewer;
  zyn_face_tracks tracks;
  zyn_face_finding* findings;  // of a frame
  float* landmarks;            // of each finding
  zyn_face* faces;             // what was handed out, max_faces
  int32_t face_count;
  int32_t next_id;
  bool begun;  // there was a frame since the beginning or a reset
  int32_t width, height;
  double time;
  int32_t since_detection;  // frames
  zyn_face_times times;
};

namespace {

constexpr int32_t kMostFaces = 1000;
// Of the detections of a frame at most so many times max_faces are looked at, the best ones:
// known faces find theirs also where there are others with higher scores.
constexpr int32_t kFindings = 2;

int32_t no_memory() { return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the session"); }

int32_t wrong(const char* option, double value, const char* expected) {
  return zyn_refuse(ZYN_RET_ERR_PARA, "option %s = %g: %s is expected", option, value, expected);
}

int32_t check_options(const zyn_face_options& o) {
  const auto from_0_to_1 = [](float value) { return value >= 0 && value <= 1; };
  const auto at_least_0 = [](float value) { return value >= 0 && isfinite(value); };
  if (o.detect_every < 1) return wrong("detect_every", o.detect_every, "1 or more");
  if (o.max_faces < 1 || o.max_faces > kMostFaces)
    return wrong("max_faces", o.max_faces, "1 to 1000");
  const float score = o.score_threshold, keep = o.keep_threshold, side_overlap = o.track_overlap;
  if (!from_0_to_1(score)) return wrong("score_threshold", static_cast<double>(score), "0 to 1");
  if (!(keep >= 0 && keep <= score))
    return wrong("keep_threshold", static_cast<double>(keep), "0 to score_threshold");
  if (!from_0_to_1(o.overlap_threshold))
    return wrong("overlap_threshold", static_cast<double>(o.overlap_threshold), "0 to 1");
  if (o.resize < 0 || o.resize > 3) return wrong("resize", o.resize, "0 to 3");
  if (o.max_age < 0) return wrong("max_age", o.max_age, "0 or more");
  if (o.min_hits < 1) return wrong("min_hits", o.min_hits, "1 or more");
  if (!(side_overlap >= 0 && side_overlap < 1))
    return wrong("track_overlap", static_cast<double>(side_overlap), "0 to below 1");
  if (!at_least_0(o.smooth_cutoff))
    return wrong("smooth_cutoff", static_cast<double>(o.smooth_cutoff), "0 or more");
  if (!at_least_0(o.smooth_beta))
    return wrong("smooth_beta", static_cast<double>(o.smooth_beta), "0 or more");
  if (!(o.smooth_derivative > 0 && isfinite(o.smooth_derivative)))
    return wrong("smooth_derivative", static_cast<double>(o.smooth_derivative), "above 0");
  if (o.remember < 0) return wrong("remember", o.remember, "0 or more");
  if (!from_0_to_1(o.second_look))
    return wrong("second_look", static_cast<double>(o.second_look), "0 to 1");
  if (!at_least_0(o.focal_length))
    return wrong("focal_length", static_cast<double>(o.focal_length), "0 or more");
  return ZYN_RET_OK;
}

// Adds the time since the latest mark to a stage.
class stopwatch {
 public:
  stopwatch() : begin_(zyn_get_current_system_time()), mark_(begin_) {}
  void add_to(double* stage) {
    const double now = zyn_get_current_system_time();
    *stage += now - mark_;
    mark_ = now;
  }
  double total() const { return mark_ - begin_; }

 private:
  double begin_, mark_;
};

void destroy(zyn_face_session* s) {
  zyn_recycler memory = s->memory;
  zyn_free(s->findings);
  zyn_free(s->landmarks);
  zyn_free(s->faces);
  s->~zyn_face_session();
  zyn_empty_recycler(&memory);
  zyn_free(s);
}

// ---- the stages of a frame

// The detections above the threshold for known faces, best first, in pixels of the frame.
int32_t detect(zyn_face_session* s, const zyn_face_frame& frame, stopwatch* watch, int32_t* count) {
  zyn_face_detector* d = &s->detector;
  const int32_t rule = s->options.resize > 0 ? s->options.resize : d->input.resize;
  const zyn_face_region region = zyn_face_input_region(frame, d->width(), d->height(), rule);
  if (const int32_t code = zyn_face_sample(d->pixels, d->input, frame, region)) return code;
  watch->add_to(&s->times.detector_input);
  if (const int32_t code = zyn_run_face_detector(d)) return code;
  watch->add_to(&s->times.detector);
  int32_t found = 0;
  if (const int32_t code = zyn_collect_faces(d, s->options.keep_threshold, &found)) return code;
  const int32_t kept = zyn_ssd_nms(d->kept, d->candidates, found, s->options.overlap_threshold);
  if (kept == 0 && found > 0) return no_memory();
  const int32_t most = kFindings * s->options.max_faces;
  *count = kept < most ? kept : most;
  const auto x = [&](float part) { return static_cast<float>(region.x + part * region.width); };
  const auto y = [&](float part) { return static_cast<float>(region.y + part * region.height); };
  for (int32_t i = 0; i < *count; i++) {
    const zyn_detection& box = d->kept[i];
    s->findings[i] = {{x(box.x1), y(box.y1), x(box.x2), y(box.y2), box.score}, -1, -1, false, {}};
  }
  watch->add_to(&s->times.boxes);
  return ZYN_RET_OK;
}

// The landmarks in the square around a box; *found: they are numbers.
int32_t find_landmarks(zyn_face_session* s, const zyn_face_frame& frame, const float* box,
                       stopwatch* watch, zyn_face_region* crop, float* landmarks, bool* found) {
  const float* points = nullptr;
  if (const int32_t code = zyn_sample_face(&s->landmarker, frame, box, crop)) return code;
  watch->add_to(&s->times.landmark_input);
  if (const int32_t code = zyn_run_face_landmarker(&s->landmarker, &points)) return code;
  *found = zyn_place_landmarks(s->landmarker, points, *crop, landmarks);
  watch->add_to(&s->times.landmarks);
  return ZYN_RET_OK;
}

float focal_of(const zyn_face_session* s) {
  return s->options.focal_length > 0 ? s->options.focal_length : static_cast<float>(s->width);
}

void take_landmarks(zyn_face_session* s, const float* landmarks, double time, bool restart,
                    zyn_face_slot* slot, stopwatch* watch) {
  const zyn_face_landmarker& l = s->landmarker;
  zyn_take_landmarks(s->options, l.points, landmarks, time, restart, slot);
  l.five_points(slot->smoothed, slot->points);
  l.pose(slot->smoothed, s->width, s->height, focal_of(s), &slot->pose);
  watch->add_to(&s->times.pose);
}

float* landmarks_of(const zyn_face_session* s, int64_t finding) {
  return s->landmarks + finding * 2 * s->landmarker.points;
}

bool judges(const zyn_face_session* s) {
  return s->landmarker.judges && s->options.second_look > 0;
}

// The second look, by the landmark network: the detection's odds become a weighted geometric mean
// of those of both networks, its box the one that the landmark network tells.
int32_t judge(const zyn_face_session* s, const zyn_face_region& crop, zyn_detection* box) {
  constexpr float kMost = 15;  // a logarithm of odds: scores of 0 and 1 have infinite ones
  constexpr float kFar = 2;    // crops
  float odds = 0, part[4];
  if (const int32_t code = s->landmarker.judge(&odds, part)) return code;
  const float weight = s->options.second_look;
  const float before = logf(box->score) - log1pf(-box->score);
  const auto limited = [](float value) { return fminf(fmaxf(value, -kMost), kMost); };
  const float both = (1 - weight) * limited(before) + weight * limited(odds);
  box->score = 1 / (1 + expf(-both));
  for (int32_t i = 0; i < 4; i++)
    if (!(fabsf(part[i]) < kFar)) return ZYN_RET_OK;
  if (!(part[0] < part[2] && part[1] < part[3])) return ZYN_RET_OK;
  const auto x = [&](float value) { return static_cast<float>(crop.x + value * crop.width); };
  const auto y = [&](float value) { return static_cast<float>(crop.y + value * crop.height); };
  *box = {x(part[0]), y(part[1]), x(part[2]), y(part[3]), box->score};
  return ZYN_RET_OK;
}

// The landmarks and looks of the detections that continue a face or may begin one.
int32_t examine(zyn_face_session* s, const zyn_face_frame& frame, int32_t count, stopwatch* watch) {
  for (int32_t i = 0; i < count; i++) {
    zyn_face_finding& finding = s->findings[i];
    if (finding.predicted < 0 && !judges(s) && !(finding.box.score > s->options.score_threshold))
      continue;
    zyn_face_region crop;
    if (const int32_t code = find_landmarks(s, frame, &finding.box.x1, watch, &crop,
                                            landmarks_of(s, i), &finding.has_landmarks))
      return code;
    if (judges(s) && finding.has_landmarks) {
      if (const int32_t code = judge(s, crop, &finding.box)) return code;
      if (!(finding.box.score > s->options.keep_threshold)) finding.predicted = -1;
      watch->add_to(&s->times.boxes);
    }
    if (!finding.has_landmarks || s->options.remember == 0) continue;
    zyn_face_pose pose;
    s->landmarker.pose(landmarks_of(s, i), s->width, s->height, focal_of(s), &pose);
    if (const int32_t code =
            s->viewer.look(frame, &finding.box.x1, pose, focal_of(s), &finding.look))
      return code;
    watch->add_to(&s->times.tracking);
  }
  return ZYN_RET_OK;
}

// A frame with detection: tracks first, then the landmarks of what was detected.
int32_t run_detection(zyn_face_session* s, const zyn_face_frame& frame, double time, bool restart,
                      stopwatch* watch) {
  int32_t count = 0;
  if (const int32_t code = detect(s, frame, watch, &count)) return code;
  if (const int32_t code = s->tracks.associate(s->findings, count)) return code;
  watch->add_to(&s->times.tracking);
  if (s->landmarker) {
    if (const int32_t code = examine(s, frame, count, watch)) return code;
    s->tracks.reconsider(s->findings, count);
  }
  if (const int32_t code = s->tracks.update(s->findings, count, ZYN_FACE_DETECTED)) return code;
  s->tracks.learn(s->findings, count);
  watch->add_to(&s->times.tracking);
  for (int32_t i = 0; i < count; i++) {
    if (s->findings[i].slot < 0 || !s->findings[i].has_landmarks) continue;
    zyn_face_slot& slot = s->tracks.slot(s->findings[i].slot);
    take_landmarks(s, landmarks_of(s, i), time, restart, &slot, watch);
    zyn_link_box(s->landmarker.points, &slot);
  }
  return ZYN_RET_OK;
}

// A frame without: faces seen in the frame before are looked for where they should be by now. What
// the landmark network takes for something else is none.
int32_t run_following(zyn_face_session* s, const zyn_face_frame& frame, double time,
                      stopwatch* watch) {
  int32_t count = 0;
  for (int32_t i = 0; s->landmarker && i < s->tracks.count(); i++) {
    zyn_face_slot& slot = s->tracks.slot(i);
    zyn_face_region crop;
    bool found = false;
    if (slot.unseen > 1 || !slot.has_landmarks || !(slot.link[2] > 0)) continue;
    if (const int32_t code = find_landmarks(s, frame, slot.box, watch, &crop, s->landmarks, &found))
      return code;
    if (!found || !zyn_can_follow(s->landmarker, slot, crop, s->landmarks)) continue;
    float odds = 0, box[4];
    if (judges(s))
      if (const int32_t code = s->landmarker.judge(&odds, box)) return code;
    if (odds < 0) continue;
    s->findings[count++] = {zyn_box_of_landmarks(s->landmarker.points, slot, s->landmarks),
                            i,
                            slot.predicted,
                            true,
                            {}};
    take_landmarks(s, s->landmarks, time, false, &slot, watch);
  }
  const int32_t code = s->tracks.update(s->findings, count, ZYN_FACE_FOLLOWED);
  watch->add_to(&s->times.tracking);
  return code;
}

// The records of the faces with enough detections, by id.
void hand_out(zyn_face_session* s) {
  s->face_count = 0;
  for (int32_t i = 0; i < s->tracks.count(); i++) {
    zyn_face_slot& slot = s->tracks.slot(i);
    if (slot.id < 0) continue;
    zyn_face face = {};
    face.id = slot.id;
    face.state = slot.state;
    face.age = slot.age;
    face.unseen = slot.unseen;
    face.score = slot.score;
    memcpy(face.box, slot.box, sizeof(face.box));
    if (slot.has_landmarks) {
      face.landmark_count = s->landmarker.points;
      face.landmarks = slot.landmarks;
      face.smoothed = slot.smoothed;
      memcpy(face.points, slot.points, sizeof(face.points));
      face.pose = slot.pose;
    }
    int32_t to = s->face_count++;
    for (; to > 0 && s->faces[to - 1].id > face.id; to--) s->faces[to] = s->faces[to - 1];
    s->faces[to] = face;
  }
}

// What crops of all sizes allocate in frames of this one. 0 or 2.
int32_t warm_up_crops(zyn_face_session* s, const zyn_face_frame& frame) {
  constexpr int32_t kLargestSide = 1 << 15;
  for (int32_t side = 1; s->landmarker && side <= kLargestSide; side *= 2) {
    const double x = 0.5 * (frame.width - side), y = 0.5 * (frame.height - side);
    const auto length = static_cast<double>(side);
    const zyn_face_region crop = {x, y, length, length};
    if (const int32_t code =
            zyn_face_sample(s->landmarker.pixels, s->landmarker.input, frame, crop))
      return code;
    if (const int32_t code = s->viewer.sample(frame, crop)) return code;
    if (side > frame.width && side > frame.height) break;
  }
  return ZYN_RET_OK;
}

int32_t run_frame(zyn_face_session* s, const zyn_face_frame& frame, double time) {
  stopwatch watch;
  s->times = {};
  if (s->begun && (frame.width != s->width || frame.height != s->height)) {
    s->begun = false;
    s->face_count = 0;
    if (const int32_t code = s->tracks.clear()) return code;
  }
  constexpr double kLongest = 1;  // seconds between frames that belong together
  const double step = time - s->time;
  const bool jump = !s->begun || !(step > 0 && step <= kLongest);
  const bool detects = jump || s->since_detection + 1 >= s->options.detect_every;
  if (frame.width != s->width || frame.height != s->height)
    if (const int32_t code = warm_up_crops(s, frame)) return code;
  s->begun = true;
  s->width = frame.width;
  s->height = frame.height;
  s->time = time;
  s->since_detection = detects ? 0 : s->since_detection + 1;
  if (const int32_t code = s->tracks.predict()) return code;
  watch.add_to(&s->times.tracking);
  const int32_t code =
      detects ? run_detection(s, frame, time, jump, &watch) : run_following(s, frame, time, &watch);
  if (code != ZYN_RET_OK) return code;
  s->tracks.drop_lost(frame.width, frame.height);
  s->tracks.identify(&s->next_id);
  hand_out(s);
  watch.add_to(&s->times.tracking);
  s->times.total = watch.total();
  return ZYN_RET_OK;
}

// ---- creation

// Numbers from 1 to most that leave out few sizes of blocks in between.
int32_t next_number(int32_t n, int32_t most) {
  const int32_t next = n + n / 8 + 1;
  return n < most && next > most ? most : next;
}

// What the stages allocate for any number of candidates and faces, so that the blocks are on the
// session's lists; the networks run for the first time. 0 or a code.
int32_t warm_up(zyn_face_session* s) {
  zyn_face_detector* d = &s->detector;
  const float* points = nullptr;
  int32_t count = 0;
  memset(d->pixels->data, 0, static_cast<size_t>(d->pixels->byte_size));
  if (const int32_t code = zyn_run_face_detector(d)) return code;
  if (const int32_t code = zyn_collect_faces(d, 1, &count)) return code;
  if (s->landmarker) {
    zyn_tensor* pixels = s->landmarker.pixels;
    memset(pixels->data, 0, static_cast<size_t>(pixels->byte_size));
    if (const int32_t code = zyn_run_face_landmarker(&s->landmarker, &points)) return code;
  }
  for (int32_t n = 1; n <= d->priors; n = next_number(n, d->priors)) {
    for (int32_t i = 0; i < n; i++) d->candidates[i] = {0, 0, 1, 1, 0.5f};
    if (zyn_ssd_nms(d->kept, d->candidates, n, 0.5f) == 0) return no_memory();
  }
  // Boxes side by side become tracks, more in every frame.
  const int32_t most = kFindings * s->options.max_faces;
  for (int32_t n = 0; n <= most; n = next_number(n, most)) {
    for (int32_t i = 0; i < n; i++) {
      const auto x = static_cast<float>(100 * i);
      s->findings[i] = {{x, 0, x + 10, 10, 1}, -1, -1, false, {}};
    }
    if (const int32_t code = s->tracks.warm_up(s->findings, n)) return code;
  }
  return s->tracks.clear();
}

int32_t open(zyn_face_session* s) {
  if (const int32_t code = check_options(s->options)) return code;
  if (const int32_t code = zyn_open_face_detector(s->options, &s->detector)) return code;
  if (const int32_t code = zyn_open_face_landmarker(s->options, &s->landmarker)) return code;
  const int32_t values = s->landmarker ? 2 * s->landmarker.points : 0;
  const int64_t faces = s->options.max_faces;
  s->findings = static_cast<zyn_face_finding*>(
      zyn_calloc(kFindings * faces, int64_t{sizeof(zyn_face_finding)}));
  s->faces = static_cast<zyn_face*>(zyn_calloc(faces, int64_t{sizeof(zyn_face)}));
  s->landmarks =
      static_cast<float*>(zyn_malloc(int64_t{sizeof(float)} * (kFindings * faces * values + 1)));
  if (!s->findings || !s->faces || !s->landmarks) return no_memory();
  if (const int32_t code = s->tracks.open(s->options, values)) return code;
  if (s->landmarker)
    if (const int32_t code = s->viewer.open()) return code;
  const zyn_recycling recycling(&s->memory);
  return warm_up(s);
}

}  // namespace

zyn_face_session* zyn_face_create(const zyn_face_options* options) {
  if (!options) {
    zyn_explain("the options are null");
    return nullptr;
  }
  const zyn_quiet quiet;
  void* block = zyn_malloc(sizeof(zyn_face_session));
  if (!block) {
    no_memory();
    return nullptr;
  }
  zyn_face_session* s = new (block) zyn_face_session{};
  s->options = *options;
  if (open(s) == ZYN_RET_OK) return s;
  destroy(s);
  return nullptr;
}

int32_t zyn_face_release(zyn_face_session** session) {
  if (!session || !*session) return zyn_refuse(ZYN_RET_ERR_PARA, "the session is null");
  destroy(*session);
  *session = nullptr;
  return ZYN_RET_OK;
}

int32_t zyn_face_process(zyn_face_session* session, const zyn_face_frame* frame, double time,
                         const zyn_face** faces, int32_t* count) {
  if (faces) *faces = nullptr;
  if (count) *count = 0;
  if (!session) return zyn_refuse(ZYN_RET_ERR_PARA, "the session is null");
  if (!isfinite(time)) return zyn_refuse(ZYN_RET_ERR_PARA, "the time is not finite");
  if (const int32_t code = zyn_check_frame(frame)) return code;
  const zyn_quiet quiet;
  const zyn_recycling recycling(&session->memory);
  if (const int32_t code = run_frame(session, *frame, time)) return code;
  if (faces) *faces = session->faces;
  if (count) *count = session->face_count;
  return ZYN_RET_OK;
}

int32_t zyn_face_reset(zyn_face_session* session) {
  if (!session) return zyn_refuse(ZYN_RET_ERR_PARA, "the session is null");
  const zyn_quiet quiet;
  const zyn_recycling recycling(&session->memory);
  session->begun = false;
  session->face_count = 0;
  return session->tracks.clear();
}

int32_t zyn_face_get_times(const zyn_face_session* session, zyn_face_times* times) {
  if (!session || !times)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the session or the place for the times is null");
  *times = session->times;
  return ZYN_RET_OK;
}

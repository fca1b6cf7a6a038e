// What happens to the landmarks of one face in one frame.
#include "face/zyn_face_marks.h"

#include <math.h>
#include <string.h>

namespace {

// Their mean, and the root mean square distance from it.
struct cloud {
  double x, y, spread;
};

cloud measure(const float* points, int32_t count) {
  cloud c = {};
  for (int32_t i = 0; i < count; i++) {
    c.x += points[2 * i];
    c.y += points[2 * i + 1];
  }
  c.x /= count;
  c.y /= count;
  for (int32_t i = 0; i < count; i++) {
    const double dx = points[2 * i] - c.x, dy = points[2 * i + 1] - c.y;
    c.spread += dx * dx + dy * dy;
  }
  c.spread = sqrt(c.spread / count);
  return c;
}

float larger_side(const float* box) { return fmaxf(box[2] - box[0], box[3] - box[1]); }

}  // namespace

int32_t zyn_sample_face(zyn_face_landmarker* l, const zyn_face_frame& frame, const float* box,
                        zyn_face_region* crop) {
  const double side = fmax(static_cast<double>(l->crop) * larger_side(box), 1);
  crop->x = 0.5 * (static_cast<double>(box[0]) + box[2] - side);
  crop->y = 0.5 * (static_cast<double>(box[1]) + box[3] - side);
  crop->width = crop->height = side;
  return zyn_face_sample(l->pixels, l->input, frame, *crop);
}

bool zyn_place_landmarks(const zyn_face_landmarker& l, const float* points,
                         const zyn_face_region& crop, float* landmarks) {
  bool finite = true;
  for (int32_t i = 0; i < l.points; i++) {
    landmarks[2 * i] = static_cast<float>(crop.x + points[2 * i] * crop.width);
    landmarks[2 * i + 1] = static_cast<float>(crop.y + points[2 * i + 1] * crop.height);
    finite = finite && isfinite(landmarks[2 * i]) && isfinite(landmarks[2 * i + 1]);
  }
  return finite;
}

bool zyn_can_follow(const zyn_face_landmarker& l, const zyn_face_slot& slot,
                    const zyn_face_region& crop, const float* landmarks) {
  constexpr double kOffCenter = 0.25;  // of the crop's side
  constexpr double kMostChange = 1.35;
  const cloud before = measure(slot.landmarks, l.points), then = measure(landmarks, l.points);
  const double side = crop.width;
  if (fabs(then.x - crop.x - 0.5 * side) > kOffCenter * side ||
      fabs(then.y - crop.y - 0.5 * side) > kOffCenter * side ||
      !(then.spread * kMostChange > before.spread && then.spread < before.spread * kMostChange))
    return false;
  // The mouth lies below the eyes, seen along the line between them, at some distance.
  float p[10];
  l.five_points(landmarks, p);
  const double ex = p[2] - p[0], ey = p[3] - p[1];
  const double mx = 0.5 * (p[6] + p[8] - p[0] - p[2]), my = 0.5 * (p[7] + p[9] - p[1] - p[3]);
  return ex * my - ey * mx > 0 && sqrt(mx * mx + my * my) > 0.5 * then.spread;
}

void zyn_link_box(int32_t points, zyn_face_slot* slot) {
  const cloud c = measure(slot->landmarks, points);
  const float* box = slot->box;
  if (!(c.spread > 0)) return;
  slot->link[0] = static_cast<float>((0.5 * (box[0] + box[2]) - c.x) / c.spread);
  slot->link[1] = static_cast<float>((0.5 * (box[1] + box[3]) - c.y) / c.spread);
  slot->link[2] = static_cast<float>(0.5 * (box[2] - box[0]) / c.spread);
  slot->link[3] = static_cast<float>(0.5 * (box[3] - box[1]) / c.spread);
}

zyn_detection zyn_box_of_landmarks(int32_t points, const zyn_face_slot& slot,
                                   const float* landmarks) {
  const cloud c = measure(landmarks, points);
  const double x = c.x + slot.link[0] * c.spread, y = c.y + slot.link[1] * c.spread;
  const double w = slot.link[2] * c.spread, h = slot.link[3] * c.spread;
  return {static_cast<float>(x - w), static_cast<float>(y - h), static_cast<float>(x + w),
          static_cast<float>(y + h), slot.score};
}

void zyn_take_landmarks(const zyn_face_options& options, int32_t points, const float* landmarks,
                        double time, bool restart, zyn_face_slot* slot) {
  constexpr double kLongest = 1;  // seconds over which a speed says anything
  const int32_t values = 2 * points;
  const double step = time - slot->seen;
  const bool smooth = slot->has_landmarks && !restart && options.smooth_cutoff > 0 && step > 0 &&
                      step <= kLongest && static_cast<float>(step) > 0;
  memcpy(slot->landmarks, landmarks, static_cast<size_t>(values) * sizeof(float));
  slot->has_landmarks = true;
  slot->seen = time;
  if (!smooth) {
    memcpy(slot->smoothed, landmarks, static_cast<size_t>(values) * sizeof(float));
    memset(slot->speeds, 0, static_cast<size_t>(values) * sizeof(float));
    return;
  }
  const float side = fmaxf(larger_side(slot->box), 1);
  const zyn_one_euro_param filter = {static_cast<float>(step), options.smooth_derivative,
                                     options.smooth_cutoff, options.smooth_beta / side};
  for (int32_t i = 0; i < values; i++)
    slot->smoothed[i] = zyn_one_euro_filter_v2(landmarks[i], slot->smoothed[i], slot->speeds[i],
                                               &filter, &slot->speeds[i]);
}

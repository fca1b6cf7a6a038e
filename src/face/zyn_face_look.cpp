// Looks of faces: a grid on a head's surface, seen through the face's pose.
#include "face/zyn_face_look.h"

#include <math.h>

#include "base/zyn_explain.h"

namespace {

constexpr int32_t kSide = 48;    // pixels of the picture that is looked at
constexpr float kReach = 1.7f;   // its side by the box's larger one: hair counts
constexpr int32_t kColumns = 6;  // cells across and down
constexpr int32_t kTaps = 3;     // across and down a cell
constexpr float kLeft = -72, kTop = -68, kCellWidth = 24, kCellHeight = 31;  // millimetres
constexpr float kLeastFacing = 0.15f;  // cosine between the surface and the way to the camera
constexpr float kDark = 16;            // grey levels that keep the logarithm of black small

// A place of the surface and its normal: a paraboloid through the points of the head's model.
struct surface_point {
  float at[3], normal[3];
};

surface_point surface(float x, float y) {
  constexpr float kZ = -24.8f, kAcross = 0.0186f, kDown = 0.1326f, kDownSquare = -0.000465f;
  const float dx = 2 * kAcross * x, dy = kDown + 2 * kDownSquare * y;
  const float length = sqrtf(1 + dx * dx + dy * dy);
  return {{x, y, kZ + kAcross * x * x + kDown * y + kDownSquare * y * y},
          {dx / length, dy / length, -1 / length}};
}

void turn(const float* r, const float* v, float* to) {
  for (int32_t i = 0; i < 3; i++)
    to[i] = r[3 * i] * v[0] + r[3 * i + 1] * v[1] + r[3 * i + 2] * v[2];
}

// The picture's part of the frame.
struct view {
  const float* planes;
  zyn_face_region region;
  float focal, cx, cy;

  bool shows(double x, double y) const {
    return x >= 0 && y >= 0 && x < 2 * static_cast<double>(cx) && y < 2 * static_cast<double>(cy);
  }
};

// Adds the colour at a place of the head to the cell.
void add_tap(const view& v, const zyn_face_pose& pose, const surface_point& point,
             float (&sum)[kZynLookChannels], float* weight) {
  float p[3], n[3];
  turn(pose.rotation, point.at, p);
  turn(pose.rotation, point.normal, n);
  for (int32_t i = 0; i < 3; i++) p[i] += pose.translation[i];
  if (!(p[2] > 0)) return;
  const float facing =
      -(n[0] * p[0] + n[1] * p[1] + n[2] * p[2]) / sqrtf(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
  const double x = static_cast<double>(v.focal * p[0] / p[2] + v.cx);
  const double y = static_cast<double>(v.focal * p[1] / p[2] + v.cy);
  const double column = (x - v.region.x) / v.region.width * kSide;
  const double row = (y - v.region.y) / v.region.height * kSide;
  if (!(facing > kLeastFacing && v.shows(x, y) && column >= 0 && row >= 0 && column < kSide &&
        row < kSide))
    return;
  const int32_t at = kSide * static_cast<int32_t>(row) + static_cast<int32_t>(column);
  for (int32_t c = 0; c < kZynLookChannels; c++)
    sum[c] += facing * v.planes[kSide * kSide * c + at];
  *weight += facing;
}

}  // namespace

zyn_face_viewer::~zyn_face_viewer() {
  if (pixels_) zyn_release_tensor(&pixels_);
}

int32_t zyn_face_viewer::open() {
  const int32_t dims[3] = {kSide, kSide, kZynLookChannels};
  pixels_ = zyn_create_tensor(3, dims, ZYN_TYPE_F32);
  return pixels_ ? ZYN_RET_OK : zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory to look at faces");
}

int32_t zyn_face_viewer::sample(const zyn_face_frame& frame, const zyn_face_region& region) const {
  zyn_net_port port = {};
  port.channel_order = 1;
  for (float& scale : port.scale) scale = 1;
  return zyn_face_sample(pixels_, port, frame, region);
}

int32_t zyn_face_viewer::look(const zyn_face_frame& frame, const float* box,
                              const zyn_face_pose& pose, float focal_length,
                              zyn_face_look* look) const {
  *look = {};
  const float side = fmaxf(fmaxf(box[2] - box[0], box[3] - box[1]), 1);
  look->size = logf(side);
  if (!pose.valid) return ZYN_RET_OK;
  const double reach = static_cast<double>(kReach * side);
  const view v = {static_cast<const float*>(pixels_->data),
                  {0.5 * (static_cast<double>(box[0]) + box[2] - reach),
                   0.5 * (static_cast<double>(box[1]) + box[3] - reach), reach, reach},
                  focal_length,
                  0.5f * static_cast<float>(frame.width),
                  0.5f * static_cast<float>(frame.height)};
  if (const int32_t code = sample(frame, v.region)) return code;
  for (int32_t i = 0; i < kZynLookCells; i++) {
    float sum[kZynLookChannels] = {}, weight = 0;
    const int32_t column = i % kColumns, row = i / kColumns;
    for (int32_t k = 0; k < kTaps * kTaps; k++) {
      const int32_t tap_x = k % kTaps, tap_y = k / kTaps;
      const float across = (static_cast<float>(tap_x) + 0.5f) / kTaps;
      const float down = (static_cast<float>(tap_y) + 0.5f) / kTaps;
      const float x = kLeft + kCellWidth * (static_cast<float>(column) + across);
      const float y = kTop + kCellHeight * (static_cast<float>(row) + down);
      add_tap(v, pose, surface(x, y), sum, &weight);
    }
    if (weight == 0) continue;
    look->weights[i] = weight / (kTaps * kTaps);
    for (int32_t c = 0; c < kZynLookChannels; c++)
      look->values[i][c] = logf(fmaxf(sum[c] / weight, 0) + kDark);
  }
  return ZYN_RET_OK;
}

float zyn_compare_looks(const zyn_face_look& a, const zyn_face_look& b) {
  constexpr float kLeastCommon = 4;    // cells
  constexpr float kSizeWeight = 1.5f;  // of the difference of the logarithms
  float weights[kZynLookCells], total = 0, mean = 0;
  for (int32_t i = 0; i < kZynLookCells; i++) {
    weights[i] = fminf(a.weights[i], b.weights[i]);
    total += weights[i];
    for (int32_t c = 0; c < kZynLookChannels; c++)
      mean += weights[i] * (a.values[i][c] - b.values[i][c]);
  }
  if (!(total > kLeastCommon)) return INFINITY;
  // Light is brighter or darker as a whole: the mean difference says nothing.
  mean /= total * kZynLookChannels;
  float square = 0;
  for (int32_t i = 0; i < kZynLookCells; i++)
    for (int32_t c = 0; c < kZynLookChannels; c++) {
      const float d = a.values[i][c] - b.values[i][c] - mean;
      square += weights[i] * d * d;
    }
  const float size = kSizeWeight * (a.size - b.size);
  return sqrtf(square / total + size * size);
}

void zyn_blend_look(const zyn_face_look& seen, float share, zyn_face_look* look) {
  for (int32_t i = 0; i < kZynLookCells; i++) {
    const float there = share * seen.weights[i], kept = (1 - share) * look->weights[i];
    if (there == 0) continue;  // what is turned away stays known
    for (int32_t c = 0; c < kZynLookChannels; c++)
      look->values[i][c] += there / (there + kept) * (seen.values[i][c] - look->values[i][c]);
    look->weights[i] = fmaxf(look->weights[i], there + kept);
  }
  look->size += share * (seen.size - look->size);
}

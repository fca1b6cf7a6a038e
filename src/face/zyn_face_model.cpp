// The generic head: half of it by hand, the other half mirrored. Lengths are near to the means of
// adults: 63 mm between the eyes, 118 from the bridge of the nose to the chin, 148 across the jaw's
// hinges.
#include <stdint.h>

#include "face/zyn_face_pose.h"
#include "zyncore_face.h"

namespace {

struct half_point {
  int32_t left, right;  // indices of the point and its mirror image; alike in the middle
  float x, y, z, weight;
};
constexpr half_point kHalf[] = {
    {0, 16, -74, -2, 62, 0.3f},   {1, 15, -73, 17, 60, 0.3f},    {2, 14, -71, 35, 56, 0.3f},
    {3, 13, -67, 53, 49, 0.3f},   {4, 12, -60, 70, 38, 0.3f},    {5, 11, -49, 86, 24, 0.3f},
    {6, 10, -35, 99, 10, 0.3f},   {7, 9, -18, 109, 0, 0.3f},     {8, 8, 0, 113, -4, 0.5f},
    {17, 26, -56, -13, 14, 0.7f}, {18, 25, -48, -22, 3, 0.7f},   {19, 24, -37, -25, -4, 0.7f},
    {20, 23, -26, -23, -9, 0.7f}, {21, 22, -14, -19, -11, 0.7f}, {27, 27, 0, -4, -11, 1},
    {28, 28, 0, 9, -18, 1},       {29, 29, 0, 22, -26, 1},       {30, 30, 0, 35, -33, 1},
    {31, 35, -15, 44, -14, 1},    {32, 34, -8, 47, -19, 1},      {33, 33, 0, 49, -21, 1},
    {36, 45, -45, 0, 6, 1},       {37, 44, -37, -5, -1, 1},      {38, 43, -26, -5, -2, 1},
    {39, 42, -18, 1, -1, 1},      {40, 47, -26, 4.5f, -1, 1},    {41, 46, -37, 4.5f, -1, 1},
    {48, 54, -26, 71, -6, 0.6f},  {49, 53, -16, 66, -15, 0.6f},  {50, 52, -6, 63, -19, 0.6f},
    {51, 51, 0, 64, -20, 0.6f},   {59, 55, -17, 76, -12, 0.4f},  {58, 56, -7, 79, -16, 0.4f},
    {57, 57, 0, 80, -16, 0.4f},   {60, 64, -22, 71, -8, 0.6f},   {61, 63, -8, 69, -16, 0.6f},
    {62, 62, 0, 69, -17, 0.6f},   {67, 65, -8, 73, -14, 0.4f},   {66, 66, 0, 73, -15, 0.4f}};

struct head {
  float points[3 * kZynFacePoints];
  float weights[kZynFacePoints];
};
constexpr head make_head() {
  head h{};
  for (const half_point& p : kHalf) {
    const float place[2][3] = {{p.x, p.y, p.z}, {-p.x, p.y, p.z}};
    for (int32_t c = 0; c < 3; c++) {
      h.points[3 * p.left + c] = place[0][c];
      if (p.right != p.left) h.points[3 * p.right + c] = place[1][c];
    }
    h.weights[p.left] = h.weights[p.right] = p.weight;
  }
  return h;
}
constexpr head kHead = make_head();

}  // namespace

const float* zyn_face_model(void) { return kHead.points; }

zyn_pose_points zyn_all_landmarks(const float* landmarks) {
  // The outer corners of the eyes with the chin, the lower lip, the base of the nose.
  return {kZynFacePoints,
          {{36, 45, 8}, {36, 45, 57}, {36, 45, 33}},
          kHead.points,
          landmarks,
          kHead.weights};
}

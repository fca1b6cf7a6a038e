// The generic head, one half of it by hand and the other mirrored: near the mean of the heads that
// the training renders, with 64.5 mm between the eyes, 112 from the bridge of the nose to the chin
// and 143 across the hinges of the jaw. Weights: what moves with the mouth, what differs most from
// head to head and what networks place least surely counts less.
#include <stdint.h>

#include "face/zyn_face_pose.h"
#include "zyncore_face.h"

namespace {

struct half_point {
  int32_t left, right;  // indices of the point and its mirror image; alike in the middle
  float x, y, z, weight;
};
constexpr half_point kHalf[] = {{0, 16, -71.5f, -2, 69, 0.6f},
                                {1, 15, -69.5f, 19, 66.5f, 0.6f},
                                {2, 14, -66.5f, 40.5f, 64.5f, 0.6f},
                                {3, 13, -60.5f, 58.5f, 60.5f, 0.6f},
                                {4, 12, -53, 74, 44.5f, 0.6f},
                                {5, 11, -42, 87.5f, 22, 0.2f},
                                {6, 10, -28.5f, 99.5f, 3, 0.2f},
                                {7, 9, -13.5f, 108, -9, 0.2f},
                                {8, 8, 0, 110.5f, -13, 0.2f},
                                {17, 26, -55.5f, -21.5f, 11.5f, 0.8f},
                                {18, 25, -44.5f, -24.5f, 0, 0.8f},
                                {19, 24, -34, -24, -7.5f, 0.8f},
                                {20, 23, -23.5f, -21.5f, -12.5f, 0.8f},
                                {21, 22, -12.5f, -18.5f, -14, 0.8f},
                                {27, 27, 0, -1, -13, 2},
                                {28, 28, 0, 13, -23.5f, 2},
                                {29, 29, 0, 27, -32.5f, 2},
                                {30, 30, 0, 41, -40, 0.6f},
                                {31, 35, -14.5f, 48, -18, 0.2f},
                                {32, 34, -7, 49.5f, -20, 0.2f},
                                {33, 33, 0, 50, -19, 0.2f},
                                {36, 45, -47.5f, 0, 9.5f, 1},
                                {37, 44, -38, -3.5f, 1.5f, 1},
                                {38, 43, -26.5f, -4, -4, 1},
                                {39, 42, -17, 1, -5.5f, 1},
                                {40, 47, -26.5f, 3.5f, -3, 1},
                                {41, 46, -38, 3, 1.5f, 1},
                                {48, 54, -26.5f, 68, -8, 0.15f},
                                {49, 53, -16.5f, 64, -17.5f, 0.15f},
                                {50, 52, -6.5f, 63, -21.5f, 0.15f},
                                {51, 51, 0, 64, -22, 0.15f},
                                {59, 55, -16.5f, 77, -17, 0.15f},
                                {58, 56, -7, 81, -21, 0.15f},
                                {57, 57, 0, 81.5f, -21.5f, 0.15f},
                                {60, 64, -23.5f, 68.5f, -12, 0.15f},
                                {61, 63, -10, 69, -21, 0.15f},
                                {62, 62, 0, 69, -23, 0.15f},
                                {67, 65, -10, 72.5f, -21, 0.15f},
                                {66, 66, 0, 73, -23, 0.15f}};

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

// Poses of heads from points of the model and where a picture shows them.
#pragma once

#include <stdint.h>

#include "zyncore_face.h"

inline constexpr int32_t kZynFacePoints = 68;

// Points of a head: count of them, x y z of the model, u v in the picture, and how much each
// says (1: a usual point; 0: nothing). Any of the triples may give the first estimate.
inline constexpr int32_t kZynPoseTriples = 3;
struct zyn_pose_points {
  int32_t count;
  int32_t triples[kZynPoseTriples][3];
  const float* model;
  const float* image;
  const float* weights;
};

// The 68 landmarks, those that move with the mouth and the jaw with less weight.
zyn_pose_points zyn_all_landmarks(const float* landmarks);

// The pose from at least four points in a frame of this size; focal_length in pixels. False, and
// the pose is not valid, where no pose explains the points.
bool zyn_fit_pose(const zyn_pose_points& points, int32_t width, int32_t height, float focal_length,
                  zyn_face_pose* pose);

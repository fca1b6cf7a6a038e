// How a face looks, so that it is known again: the colours of its head's surface.
//
// A coarse grid on a smooth head is put into the frame by the face's pose, so that looks of
// different poses compare place by place; what is turned away from the camera or outside the
// frame has no weight.
#pragma once

#include <stdint.h>

#include "base/zyn_memory.h"
#include "face/zyn_face_sample.h"
#include "zyncore_face.h"

inline constexpr int32_t kZynLookCells = 36;
inline constexpr int32_t kZynLookChannels = 3;

struct zyn_face_look {
  float values[kZynLookCells][kZynLookChannels];  // logarithms of red, green, blue
  float weights[kZynLookCells];                   // 0: not seen
  float size;                                     // logarithm of the box's larger side
};

// The place where faces are looked at.
class zyn_face_viewer {
 public:
  zyn_face_viewer() = default;
  zyn_face_viewer(const zyn_face_viewer&) = delete;
  zyn_face_viewer& operator=(const zyn_face_viewer&) = delete;
  ~zyn_face_viewer();

  // 0 or 2.
  int32_t open();
  // Brings a part of the frame into the viewer. 0 or 2.
  int32_t sample(const zyn_face_frame& frame, const zyn_face_region& region) const;
  // The look of a face in a box with a pose; nothing has weight where the pose is not known. 0
  // or 2.
  int32_t look(const zyn_face_frame& frame, const float* box, const zyn_face_pose& pose,
               float focal_length, zyn_face_look* look) const;

 private:
  zyn_tensor* pixels_ = nullptr;
};

// How different two looks are: 0 for the same one, about 0.25 for those of one face, above 0.4 for
// most pairs of faces. Infinite where they have too little in common.
float zyn_compare_looks(const zyn_face_look& a, const zyn_face_look& b);

// Brings a look nearer to another one of the same face.
void zyn_blend_look(const zyn_face_look& seen, float share, zyn_face_look* look);

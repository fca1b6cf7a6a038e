// The two networks of a session: what their metadata and ports promise, and their runs.
#pragma once

#include <stdint.h>

#include "base/zyn_memory.h"
#include "face/zyn_face_pose.h"
#include "zyncore_face.h"

// A network with a picture as its input.
struct zyn_face_network {
  zyn_net* net;
  bool owned;
  zyn_net_port input;
  zyn_tensor* pixels;

  ~zyn_face_network();
  explicit operator bool() const { return net != nullptr; }
  int32_t width() const { return pixels->dims[0]; }
  int32_t height() const { return pixels->dims[1]; }
};

// An output: floats, brought there from fixed point where it is not of floats.
struct zyn_face_output {
  zyn_net_port port;
  zyn_tensor* floats;  // null: the network's own tensor serves

  ~zyn_face_output();
};

struct zyn_face_detector : zyn_face_network {
  zyn_face_output scores, offsets;
  bool probabilities;       // else scores before softmax
  int32_t classes, priors;  // class 1 is the face
  float variances[2];       // of centres and of sizes
  float* table;             // the priors, in centre form
  float* boxes;             // decoded, as fractions of the input
  zyn_tensor* chances;      // {classes, priors}
  zyn_detection* candidates;
  zyn_detection* kept;

  ~zyn_face_detector();
};

// Some of the landmarks, whose mean is a point of the face.
struct zyn_face_group {
  int32_t count;
  int16_t index[32];
};

struct zyn_face_landmarker : zyn_face_network {
  zyn_face_output landmarks;
  bool judges;              // has these two outputs, which tell what a crop shows
  zyn_face_output scores;   // no face, face
  zyn_face_output offsets;  // of the face's box from the square that the crop was made for
  bool probabilities;       // else scores before softmax
  float variances[2];       // of centre and of size
  int32_t points;
  float crop;  // side of the square crop as a multiple of the box's larger side
  zyn_face_group left_eye, right_eye, nose, left_mouth, right_mouth, chin;  // chin may be empty
  float model[3 * 6];  // of these groups, in this order

  // After a run, where it judges: the logarithm of the odds that the crop's middle is a face, and
  // the face's box, x1, y1, x2, y2 as fractions of the crop. 0 or a code.
  int32_t judge(float* odds, float* box) const;
  // Left eye, right eye, nose, corners of the mouth.
  void five_points(const float* landmarks, float* points) const;
  // The pose of a face in a frame of this size.
  void pose(const float* landmarks, int32_t width, int32_t height, float focal_length,
            zyn_face_pose* pose) const;
};

// Load or take over the network that the options name, and check it. 0 or a code
// with an explanation. Without a landmark network the landmarker stays without one.
int32_t zyn_open_face_detector(const zyn_face_options& options, zyn_face_detector* detector);
int32_t zyn_open_face_landmarker(const zyn_face_options& options, zyn_face_landmarker* landmarker);

// Runs the detector on its input. Decoded boxes with a score above threshold come back in
// detector->candidates as fractions of the input, *count of them; those that are no boxes are
// left out.
int32_t zyn_run_face_detector(zyn_face_detector* detector);
int32_t zyn_collect_faces(zyn_face_detector* detector, float threshold, int32_t* count);

// Runs the landmarker on its input: x, y of every point as fractions of the crop.
int32_t zyn_run_face_landmarker(zyn_face_landmarker* landmarker, const float** points);

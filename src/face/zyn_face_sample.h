// Parts of frames resized straight into the inputs of networks.
//
// A pixel of the target lies at its centre's place in the source rectangle and holds the mean of
// the frame around it: of a box whose sides are those of the target's pixel, but at least one
// pixel of the frame. Reduced pictures so are averaged over areas, enlarged ones bilinear. Of a
// box that reaches over the frame's edge the part inside counts; where the centre lies outside,
// the target is black.
#pragma once

#include <stdint.h>

#include "zyncore_face.h"

// A rectangle of the frame in pixels; it may reach over the frame's edges.
struct zyn_face_region {
  double x, y, width, height;
};

// The part of a frame that fills an input of width x height pixels by a rule of zyn_net_port
// (1 stretched, 2 bordered, 3 cut out).
zyn_face_region zyn_face_input_region(const zyn_face_frame& frame, int32_t width, int32_t height,
                                      int32_t rule);

// Fills the input's tensor, {width, height, 1 or 3} of floats or 16-bit values, in the way of
// its port: order of the channels, mean, scale, fraction bits. 0 or 2. The frame has been checked.
int32_t zyn_face_sample(zyn_tensor* tensor, const zyn_net_port& port, const zyn_face_frame& frame,
                        const zyn_face_region& region);

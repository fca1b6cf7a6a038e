// Landmarks of one face: its crop, their plausibility, smoothing and pose.
#pragma once

#include <stdint.h>

#include "face/zyn_face_networks.h"
#include "face/zyn_face_sample.h"
#include "face/zyn_face_tracks.h"

// Fills the landmarker's input with the square around the box.
int32_t zyn_sample_face(zyn_face_landmarker* landmarker, const zyn_face_frame& frame,
                        const float* box, zyn_face_region* crop);

// The landmarker's points as pixels of the frame; false where one is not finite.
bool zyn_place_landmarks(const zyn_face_landmarker& landmarker, const float* points,
                         const zyn_face_region& crop, float* landmarks);

// Whether landmarks in a crop can be those of the face a frame later: they lie in its middle,
// their spread has hardly changed, eyes, nose and mouth are where they are in faces.
bool zyn_can_follow(const zyn_face_landmarker& landmarker, const zyn_face_slot& slot,
                    const zyn_face_region& crop, const float* landmarks);

// Remembers how the slot's box lies to its landmarks, and the box that other landmarks tell.
void zyn_link_box(int32_t points, zyn_face_slot* slot);
zyn_detection zyn_box_of_landmarks(int32_t points, const zyn_face_slot& slot,
                                   const float* landmarks);

// Takes landmarks into the slot and smooths them; restart: without regard to those before.
void zyn_take_landmarks(const zyn_face_options& options, int32_t points, const float* landmarks,
                        double time, bool restart, zyn_face_slot* slot);

// A head with exact truth. Lengths are centimetres. Face coordinates: x to the picture's
// right, y down, both 0 between the eyes; z away from the camera, 0 at the ears, so that
// a head that looks into the camera has the identity as its rotation.
#ifndef ZYN_RENDER_HEAD_H
#define ZYN_RENDER_HEAD_H

#include <cstdint>
#include <vector>

#include "vec.h"

namespace render {

constexpr int kPoints = 68;

// Who it is: shape, colours, hair, what is worn. Shape values are factors around 1 or
// offsets around 0.
struct identity {
  float wide, long_upper, long_lower, deep, jaw_wide, chin;
  float brow_ridge, socket, cheek, nose_long, nose_wide, nose_high, nose_bend;
  float eye_size, eye_apart, eye_slant, eye_open, mouth_wide, lip_upper, lip_lower;
  float brow_thick, brow_arch, brow_high, brow_dark;
  float warp_phase[6], uneven;
  vec3 skin, lips, hair, brow, iris, cloth[2];
  float blush, freckles, oily, age, makeup;
  float stubble, beard, moustache;
  // Hair: coverage of the scalp and what hangs down.
  bool bald;
  float hair_front, hair_temple, hair_sideburn, hair_thick, hair_side, hair_length, hair_open;
  float hair_curl, hair_part, hair_grey;
  int hat;  // 0 none, 1 knitted, 2 cap with a visor, 3 brim all round, 4 cloth round the head
  vec3 hat_color;
  int glasses;  // 0 none, 1 frame, 2 rimless, 3 sunglasses
  float glasses_wide, glasses_high, glasses_round, glasses_thick;
  vec3 glasses_color;
  float collar;  // where the cloth starts at the neck
  int pattern;   // of the cloth
  int seed;      // of the noise
};

struct expression {
  float open, smile, pucker, skew;
  float brow_raise[2], lids[2];  // lids: 1 as usual, 0 closed
  float gaze_x, gaze_y;
};

struct light {
  vec3 direction;  // towards the light, in camera coordinates
  vec3 color;
};
struct lighting {
  light lights[3];  // the first one casts shadows
  vec3 sky, ground;
  float shadow;  // how dark the cast shadow is, 0 to 1
};

struct head_pose {
  mat3 rotation, torso;  // head and shoulders
  vec3 translation;
};

struct camera {
  float focal, cx, cy;  // pixels
  int width, height;
};

// What is known of a rendered head; in pixels of its picture.
struct head_truth {
  float points[kPoints][2];
  float visible[kPoints];  // 1 seen, 0 hidden by the head itself or by what it wears
  float box[4];            // x1, y1, x2, y2: middle of the forehead to the chin
  float rotation[9], translation[3];
  float focal, cx, cy;
  float yaw, pitch, roll;  // degrees
};

identity make_identity(uint64_t seed);
expression make_expression(dice& r);
lighting make_lighting(dice& r);
// The shoulders follow the head by a part of its turn.
head_pose make_pose(float yaw, float pitch, float roll, vec3 translation);

// Renders at twice the size inside and averages. rgba: width * height * 4 bytes, colours
// multiplied by alpha.
void render_head(const identity& who, const expression& mood, const lighting& lights,
                 const head_pose& pose, const camera& view, uint8_t* rgba, head_truth* truth);

}  // namespace render

#endif

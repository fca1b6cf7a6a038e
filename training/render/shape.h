// The surface of a head: rings from the crown to the chest, and what the face adds to them.
#ifndef ZYN_RENDER_SHAPE_H
#define ZYN_RENDER_SHAPE_H

#include "head.h"

namespace render {

constexpr float kLastRing = 21.0f;
constexpr float kEyeRing = 7.0f;  // the ring at the height of the eyes

// Canonical coordinates: x, y as in face coordinates of a mean head, f = towards the
// camera. Colours and features are functions of them; to_face makes the head's own shape.
class shape {
 public:
  shape(const identity& who, const expression& mood);

  // A point of the rings: ring 0 (crown) to kLastRing, angle 0 at the nose, +-pi behind.
  vec3 ring_point(float ring, float angle) const;
  // What the face's features add towards the camera at (x, y).
  float relief(float x, float y) const;
  // A point of the skin with its features.
  vec3 skin_point(float ring, float angle) const;
  // Canonical coordinates to face coordinates.
  vec3 to_face(vec3 p) const;

  // Height of the eye's upper (sign -1) or lower lid edge at t, -1 inner to 1 outer corner,
  // and the eye's middle; side 0 is at the picture's left.
  float lid(int side, float t, int sign) const;
  float eye_x(int side) const { return (side == 0 ? -1.0f : 1.0f) * eye_apart; }
  float eye_y(float t) const { return 0.05f - slant * t; }
  // The brow's middle line and half thickness at t from 0 (inner) to 1 (outer end).
  float brow_line(int side, float t) const;
  float brow_half(float t) const;
  static float brow_x(float t) { return 1.25f + 4.2f * t; }
  // The mouth's edges at u from -1 to 1 across: 0 upper outer, 1 upper inner, 2 lower
  // inner, 3 lower outer.
  float mouth_edge(float u, int edge) const;
  // Height of the hairline at an angle: hair is above it.
  float hairline(float angle) const;

  const identity& who;
  const expression& mood;
  float eye_apart, eye_half, slant, mouth_half, mouth_y, drop;

 private:
  float nose(float x, float y) const;
  float mouth(float x, float y) const;
};

}  // namespace render

#endif

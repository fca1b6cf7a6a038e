#include "shape.h"

namespace render {
namespace {

// One ring: heights at the front, the sides and behind, half width, depth in front of and
// behind the ears, and the exponent that makes it rounder (1) or more boxy (below 1).
struct ring_key {
  float front_y, side_y, back_y, wide, front, back, boxy;
};
constexpr ring_key kRings[] = {{-11.8f, -11.8f, -11.8f, 0.0f, -0.9f, -1.1f, 1.0f},
                               {-11.3f, -11.3f, -11.3f, 2.9f, 2.6f, -4.2f, 1.0f},
                               {-10.2f, -10.2f, -10.2f, 5.0f, 5.5f, -7.0f, 1.0f},
                               {-8.4f, -8.4f, -8.4f, 6.6f, 7.7f, -9.0f, 0.97f},
                               {-6.0f, -6.0f, -6.0f, 7.35f, 9.0f, -10.0f, 0.93f},
                               {-3.5f, -3.5f, -3.5f, 7.5f, 9.6f, -10.3f, 0.9f},
                               {-1.8f, -1.8f, -1.8f, 7.35f, 9.75f, -10.2f, 0.9f},
                               {0.0f, -0.2f, -0.2f, 7.1f, 9.5f, -9.8f, 0.9f},
                               {2.5f, 1.6f, 1.8f, 6.95f, 9.5f, -9.0f, 0.92f},
                               {5.0f, 3.4f, 3.4f, 6.75f, 9.7f, -8.0f, 0.95f},
                               {7.5f, 5.0f, 4.6f, 6.35f, 9.8f, -7.3f, 1.0f},
                               {9.5f, 6.3f, 5.5f, 5.95f, 9.8f, -6.9f, 1.05f},
                               {10.8f, 7.3f, 6.0f, 5.6f, 9.6f, -6.6f, 1.07f},
                               {11.5f, 8.1f, 6.5f, 5.15f, 8.8f, -6.5f, 1.05f},
                               {11.8f, 8.8f, 7.2f, 4.6f, 6.8f, -6.3f, 1.0f},
                               {12.2f, 9.8f, 8.5f, 4.3f, 4.9f, -6.1f, 1.0f},
                               {14.6f, 13.2f, 12.0f, 4.5f, 4.0f, -6.2f, 1.0f},
                               {17.0f, 15.0f, 13.6f, 5.8f, 4.3f, -6.8f, 1.0f},
                               {19.0f, 16.4f, 14.8f, 12.0f, 5.3f, -7.8f, 1.0f},
                               {22.5f, 19.0f, 16.8f, 18.5f, 8.0f, -9.0f, 0.9f},
                               {30.0f, 29.0f, 27.0f, 20.5f, 10.0f, -10.0f, 0.9f},
                               {48.0f, 48.0f, 48.0f, 20.5f, 10.5f, -10.0f, 0.9f}};

constexpr int kRingCount = sizeof(kRings) / sizeof(kRings[0]);

// Catmull-Rom between the keys b and c.
float between(float a, float b, float c, float d, float t) {
  return b + 0.5f * t * (c - a + t * (2 * a - 5 * b + 4 * c - d + t * (3 * (b - c) + d - a)));
}

ring_key ring_at(float ring) {
  const int i = std::min(static_cast<int>(ring), kRingCount - 2);
  const ring_key& a = kRings[std::max(i - 1, 0)];
  const ring_key &b = kRings[i], &c = kRings[i + 1], &d = kRings[std::min(i + 2, kRingCount - 1)];
  const float t = ring - static_cast<float>(i);
  const auto at = [&](float ring_key::*v) { return between(a.*v, b.*v, c.*v, d.*v, t); };
  return {at(&ring_key::front_y), at(&ring_key::side_y),
          at(&ring_key::back_y),  std::max(at(&ring_key::wide), 0.0f),
          at(&ring_key::front),   at(&ring_key::back),
          at(&ring_key::boxy)};
}

// Values at even steps, joined by lines.
template <int N>
float table(const float (&values)[N], float t) {
  const float at = clamp(t, 0.0f, 1.0f) * (N - 1);
  const int i = std::min(static_cast<int>(at), N - 2);
  return mix(values[i], values[i + 1], at - static_cast<float>(i));
}

}  // namespace

shape::shape(const identity& who, const expression& mood)
    : who(who),
      mood(mood),
      eye_apart(3.2f * who.eye_apart),
      eye_half(1.48f * who.eye_size),
      slant(who.eye_slant),
      mouth_half(2.5f * who.mouth_wide * (1.0f + 0.16f * mood.smile - 0.25f * mood.pucker)),
      mouth_y(7.2f),
      drop(0.72f * mood.open) {}

vec3 shape::ring_point(float ring, float angle) const {
  const ring_key key = ring_at(ring);
  const float s = std::sin(angle), c = std::cos(angle);
  const float ahead = c > 0.0f ? c * c : 0.0f, behind = c > 0.0f ? 0.0f : c * c;
  // The jaw goes down with an open mouth.
  const float jaw = drop * step(7.6f, 10.5f, ring) * (1.0f - step(14.0f, 16.5f, ring));
  const float front_y = key.front_y + jaw, side_y = key.side_y + 0.25f * jaw;
  const float x = key.wide * std::copysign(std::pow(std::fabs(s), key.boxy), s);
  const float depth = std::pow(std::fabs(c), key.boxy);
  return {x, front_y * ahead + side_y * s * s + key.back_y * behind,
          (c > 0.0f ? key.front : key.back) * depth};
}

float shape::lid(int side, float t, int sign) const {
  const float open = mood.lids[side] * who.eye_open;
  const float edge = 1.0f - t * t;
  if (sign < 0)
    return eye_y(t) - 0.58f * who.eye_size * (open - 0.25f * (1.0f - open)) *
                          (1.0f - std::pow(std::fabs(t + 0.12f * (1 - t * t)), 2.3f));
  return eye_y(t) + (0.36f - 0.10f * std::max(mood.smile, 0.0f)) * who.eye_size * edge;
}

float shape::brow_line(int side, float t) const {
  const float arch[] = {-1.75f, -2.05f, -2.4f, -2.62f, -2.55f, -2.05f};
  return mix(-2.15f, table(arch, t), who.brow_arch) - who.brow_high -
         mood.brow_raise[side] * (0.5f + 0.3f * t) +
         std::max(-mood.brow_raise[side], 0.0f) * (1.0f - 2.0f * t) * 0.4f;
}

float shape::brow_half(float t) const {
  const float half[] = {0.24f, 0.36f, 0.36f, 0.32f, 0.24f, 0.06f};
  return who.brow_thick * table(half, t);
}

float shape::mouth_edge(float u, int edge) const {
  const float inside = std::max(1.0f - u * u, 0.0f);
  const float corners = -mood.smile * 0.55f * u * u + mood.skew * u * 0.35f;
  const float gap = mood.open * inside;
  const float cupid = 1.0f - 0.22f * bump(u, 0.13f);
  const float stretch = 1.0f - 0.25f * std::max(mood.smile, 0.0f) + 0.3f * mood.pucker;
  const float upper = 0.72f * who.lip_upper * stretch * cupid * std::pow(inside, 0.8f);
  const float lower = 0.95f * who.lip_lower * stretch * std::pow(inside, 0.7f);
  const float middle = mouth_y + corners;
  switch (edge) {
    case 0:
      return middle - 0.12f * gap - upper;
    case 1:
      return middle - 0.12f * gap;
    case 2:
      return middle + 0.88f * gap;
    default:
      return middle + 0.88f * gap + lower;
  }
}

float shape::hairline(float angle) const {
  const float degrees = std::fabs(angle) * 180.0f / kPi;
  const float line[] = {-7.3f, -7.3f, -7.1f, -6.7f, -5.9f, -4.5f, -2.2f, 0.2f, -0.1f, -0.6f,
                        2.0f,  4.6f,  6.0f,  7.0f,  7.4f,  7.6f,  7.7f,  7.8f, 7.8f};
  float y = table(line, degrees / 180.0f);
  y -= who.hair_front * (1.0f - step(40.0f, 65.0f, degrees));
  y -= who.hair_temple * bump(degrees - 38.0f, 12.0f);
  y += who.hair_sideburn * bump(degrees - 77.0f, 6.0f);
  if (who.hair_part != 0.0f) {  // a fringe to one side
    const float side = (angle * (who.hair_part > 0 ? 1.0f : -1.0f)) * 180.0f / kPi;
    y += 2.6f * std::fabs(who.hair_part) * step(-25.0f, 45.0f, side) *
         (1.0f - step(50.0f, 75.0f, side));
  }
  if (who.hair_length > 8.0f)
    y = mix(y, who.hair_length, step(who.hair_open, who.hair_open + 14.0f, degrees));
  return y;
}

float shape::nose(float x, float y) const {
  const float tip = 4.3f * who.nose_long, wide = who.nose_wide;
  const float profile[] = {0.0f, 0.18f, 0.5f, 0.85f, 1.2f, 1.55f, 1.9f, 2.2f, 2.38f, 2.35f};
  float high = 0.0f;
  if (y < tip) {
    high = table(profile, (y + 1.2f) / (tip + 1.2f));
    high += who.nose_bend * bump(y - 1.6f, 0.9f);
  } else {
    high = 2.35f * (1.0f - step(0.1f, 1.15f, y - tip));
  }
  const float spread = mix(0.62f, 0.92f * wide, step(0.0f, tip, y));
  float out = who.nose_high * high * std::exp(-std::pow(std::fabs(x) / spread, 2.0f));
  out += 0.95f * bump2(std::fabs(x) - 1.12f * wide, 0.36f, y - tip - 0.3f, 0.42f);
  out += 0.25f * bump2(x, 0.6f * wide, y - tip, 0.5f);
  return out - 0.3f * bump(x, 1.1f) * bump(y + 0.5f, 0.7f);
}

float shape::mouth(float x, float y) const {
  float out = 0.45f * bump2(x, 2.2f, y - mouth_y, 1.5f + 0.3f * drop) -
              0.12f * bump2(x, 0.28f, y - 5.95f, 0.45f);
  const float u = x / mouth_half;
  if (std::fabs(u) < 1.15f) {
    const float edges[] = {mouth_edge(u, 0), mouth_edge(u, 1), mouth_edge(u, 2), mouth_edge(u, 3)};
    const float fade = std::max(1.0f - u * u, 0.0f);
    const float in_upper =
        (y - 0.5f * (edges[0] + edges[1])) / (0.6f * (edges[1] - edges[0]) + .1f);
    const float in_lower =
        (y - 0.5f * (edges[2] + edges[3])) / (0.6f * (edges[3] - edges[2]) + .1f);
    out += fade * (0.34f * bump(in_upper, 0.8f) + 0.42f * bump(in_lower, 0.8f) -
                   0.22f * bump(y - 0.5f * (edges[1] + edges[2]), 0.12f));
    const float gap = edges[2] - edges[1];
    if (gap > 0.1f)
      out -= std::min(1.1f, gap) * step(0.0f, 0.2f, y - edges[1]) * step(0.0f, 0.2f, edges[2] - y);
    out += 0.5f * who.lip_upper * mood.pucker * bump2(u, 0.5f, y - mouth_y, 0.9f);
  }
  // Folds from the nose to the corners of the mouth, deeper with a smile.
  const float along = (y - 5.0f) / 2.6f;
  if (along > -0.2f && along < 1.2f) {
    const float fold_x = mix(1.75f, mouth_half + 0.65f, along);
    const float depth = (0.08f + 0.10f * who.age + 0.22f * std::max(mood.smile, 0.0f));
    out -= depth * bump(std::fabs(x) - fold_x, 0.28f) * step(-0.2f, 0.2f, along) *
           step(1.2f, 0.8f, along);
  }
  return out +
         0.42f * std::max(mood.smile, 0.0f) * bump2(std::fabs(x) - 4.1f, 1.0f, y - 3.9f, 1.2f);
}

float shape::relief(float x, float y) const {
  const float ax = std::fabs(x);
  float out = who.brow_ridge * 0.38f * bump(y + 1.9f, 0.7f) * bump(ax - 2.8f, 2.0f);
  out -= who.socket * bump2(ax - 3.0f, 1.45f, y - 0.1f, 0.95f);
  out += 0.55f * bump2(ax - eye_apart, 0.95f * who.eye_size, y - 0.05f, 0.62f);
  out -= 0.10f * (0.5f + who.age) * bump2(ax - 2.6f, 1.0f, y - 1.35f, 0.22f);
  out += who.cheek * 0.4f * bump2(ax - 4.7f, 1.3f, y - 2.3f, 1.2f);
  out -= 0.3f * bump2(ax - 4.6f, 1.2f, y - 6.2f, 1.6f) * (1.5f - who.wide);
  out -= 0.34f * bump2(x, 1.5f, y - 8.85f - drop, 0.35f);
  out += who.chin * 0.5f * bump2(x, 1.3f, y - 10.1f - drop, 0.8f);
  return out + nose(x, y) + mouth(x, y);
}

vec3 shape::skin_point(float ring, float angle) const {
  vec3 p = ring_point(ring, angle);
  if (ring > 3.5f && ring < 13.6f) {
    const float front = step(0.05f, 0.35f, std::cos(angle)) * step(3.5f, 4.5f, ring) *
                        (1.0f - step(12.6f, 13.6f, ring));
    if (front > 0.0f) p.z += front * relief(p.x, p.y);
  }
  return p;
}

vec3 shape::to_face(vec3 p) const {
  const float below = step(1.0f, 9.0f, p.y) * (1.0f - step(13.0f, 16.0f, p.y));
  const float wide = who.wide * (1.0f + (who.jaw_wide - 1.0f) * below);
  const float* phase = who.warp_phase;
  vec3 q{p.x * wide, p.y, -p.z * who.deep};
  q.y *= p.y > 0.0f ? mix(who.long_lower, 1.0f, step(13.0f, 18.0f, p.y)) : who.long_upper;
  q.x += who.uneven * std::sin(0.45f * p.y + phase[0]);
  q.y += who.uneven * std::sin(0.4f * p.x + phase[1]) * 0.7f;
  q.z += 2.0f * who.uneven * (std::sin(0.35f * p.y + phase[2]) - std::sin(phase[2]));
  return q;
}

}  // namespace render

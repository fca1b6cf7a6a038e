// Small vectors, random numbers and noise of the renderer.
#ifndef ZYN_RENDER_VEC_H
#define ZYN_RENDER_VEC_H

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace render {

constexpr float kPi = 3.14159265f;

struct vec3 {
  float x, y, z;
};

inline vec3 operator+(vec3 a, vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline vec3 operator-(vec3 a, vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline vec3 operator*(vec3 a, vec3 b) { return {a.x * b.x, a.y * b.y, a.z * b.z}; }
inline vec3 operator*(vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline float dot(vec3 a, vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline vec3 cross(vec3 a, vec3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline vec3 normalize(vec3 a) { return a * (1.0f / std::sqrt(dot(a, a) + 1e-12f)); }
inline float mix(float a, float b, float t) { return a + (b - a) * t; }
inline vec3 mix(vec3 a, vec3 b, float t) { return a + (b - a) * t; }
inline float clamp(float v, float low, float high) { return std::min(std::max(v, low), high); }
// 0 below low, 1 above high (or the other way round), smooth between.
inline float step(float low, float high, float v) {
  const float t = clamp((v - low) / (high - low), 0.0f, 1.0f);
  return t * t * (3.0f - 2.0f * t);
}
// A bump of height 1 at 0 with the given spread.
inline float bump(float v, float spread) { return std::exp(-0.5f * v * v / (spread * spread)); }
inline float bump2(float x, float spread_x, float y, float spread_y) {
  return std::exp(-0.5f * (x * x / (spread_x * spread_x) + y * y / (spread_y * spread_y)));
}

// Row by row.
struct mat3 {
  float m[9];
};

inline vec3 operator*(const mat3& a, vec3 v) {
  return {a.m[0] * v.x + a.m[1] * v.y + a.m[2] * v.z, a.m[3] * v.x + a.m[4] * v.y + a.m[5] * v.z,
          a.m[6] * v.x + a.m[7] * v.y + a.m[8] * v.z};
}
inline mat3 operator*(const mat3& a, const mat3& b) {
  mat3 c;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      c.m[3 * i + j] =
          a.m[3 * i] * b.m[j] + a.m[3 * i + 1] * b.m[3 + j] + a.m[3 * i + 2] * b.m[6 + j];
  return c;
}
// Turns by yaw (about y), then pitch (about x), then roll (about z), in radians.
inline mat3 turn(float yaw, float pitch, float roll) {
  const float cy = std::cos(yaw), sy = std::sin(yaw), cp = std::cos(pitch), sp = std::sin(pitch),
              cr = std::cos(roll), sr = std::sin(roll);
  const mat3 about_y{{cy, 0, sy, 0, 1, 0, -sy, 0, cy}};
  const mat3 about_x{{1, 0, 0, 0, cp, -sp, 0, sp, cp}};
  const mat3 about_z{{cr, -sr, 0, sr, cr, 0, 0, 0, 1}};
  return about_z * about_x * about_y;
}

// A sequence of random numbers (SplitMix64): the same on every machine.
class dice {
 public:
  explicit dice(uint64_t seed) : state_(seed) {
    // A seed's neighbours start far from it in the sequence.
    state_ = next() ^ 0xD1B54A32D192ED03u;
    state_ = next();
  }
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
  }
  float unit() { return static_cast<float>(next() >> 40) * (1.0f / 16777216.0f); }
  float within(float low, float high) { return low + (high - low) * unit(); }
  // Around 0, nearly normal, spread 1, never beyond 3.5.
  float normal() {
    float sum = 0.0f;
    for (int i = 0; i < 4; i++) sum += unit();
    return (sum - 2.0f) * 1.732f;
  }
  bool chance(float probability) { return unit() < probability; }
  int below(int count) { return static_cast<int>(next() % static_cast<uint64_t>(count)); }

 private:
  uint64_t state_;
};

inline float hash_unit(int x, int y, int z) {
  uint32_t h = static_cast<uint32_t>(x) * 0x8DA6B343u + static_cast<uint32_t>(y) * 0xD8163841u +
               static_cast<uint32_t>(z) * 0xCB1AB31Fu;
  h = (h ^ (h >> 15)) * 0x2C1B3C6Du;
  h = (h ^ (h >> 12)) * 0x297A2D39u;
  return static_cast<float>((h ^ (h >> 15)) >> 8) * (1.0f / 16777216.0f);
}
// Smooth noise from -1 to 1 with one bump a unit.
inline float noise(float x, float y, int seed) {
  const float fx = std::floor(x), fy = std::floor(y);
  const int ix = static_cast<int>(fx), iy = static_cast<int>(fy);
  float u = x - fx, v = y - fy;
  u = u * u * (3.0f - 2.0f * u);
  v = v * v * (3.0f - 2.0f * v);
  const float a = mix(hash_unit(ix, iy, seed), hash_unit(ix + 1, iy, seed), u);
  const float b = mix(hash_unit(ix, iy + 1, seed), hash_unit(ix + 1, iy + 1, seed), u);
  return 2.0f * mix(a, b, v) - 1.0f;
}

inline vec3 srgb_to_linear(float r, float g, float b) {
  const auto one = [](float v) { return std::pow(v / 255.0f, 2.2f); };
  return {one(r), one(g), one(b)};
}

}  // namespace render

#endif

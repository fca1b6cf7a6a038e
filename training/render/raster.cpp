#include "mesh.h"

namespace render {
namespace {

// The part of a triangle's box that lies in the picture, and the weights of a place in it.
struct triangle {
  float x[3], y[3];
  float area;

  triangle(const float (&px)[3], const float (&py)[3]) {
    for (int i = 0; i < 3; i++) x[i] = px[i], y[i] = py[i];
    area = (x[1] - x[0]) * (y[2] - y[0]) - (x[2] - x[0]) * (y[1] - y[0]);
  }
  // Calls inside(column, row, weights) for each sample within.
  template <typename F>
  void each_sample(int width, int height, const F& inside) const {
    if (std::fabs(area) < 1e-7f) return;
    const auto [left, right] = std::minmax({x[0], x[1], x[2]});
    const auto [top, low] = std::minmax({y[0], y[1], y[2]});
    if (!(right >= 0.0f && left < width && low >= 0.0f && top < height)) return;
    const int first = std::max(static_cast<int>(std::ceil(left - 0.5f)), 0);
    const int last = std::min(static_cast<int>(std::floor(right - 0.5f)), width - 1);
    const int above = std::max(static_cast<int>(std::ceil(top - 0.5f)), 0);
    const int below = std::min(static_cast<int>(std::floor(low - 0.5f)), height - 1);
    const float scale = 1.0f / area;
    for (int row = above; row <= below; row++)
      for (int column = first; column <= last; column++) {
        const float px = column + 0.5f, py = row + 0.5f;
        const float a = ((x[1] - px) * (y[2] - py) - (x[2] - px) * (y[1] - py)) * scale;
        const float b = ((x[2] - px) * (y[0] - py) - (x[0] - px) * (y[2] - py)) * scale;
        const float c = 1.0f - a - b;
        if (a >= 0.0f && b >= 0.0f && c >= 0.0f) inside(column, row, a, b, c);
      }
  }
};

// The two triangles of each cell of the grid: f(first, second, third vertex).
template <typename F>
void each_triangle(const mesh& m, const F& f) {
  for (int i = 0; i + 1 < m.rows; i++)
    for (int j = 0; j + 1 < m.columns; j++) {
      const int a = i * m.columns + j, b = a + 1, c = a + m.columns, d = c + 1;
      f(a, b, c);
      f(b, d, c);
    }
}

// Hair ends in strands: its cover is frayed by noise along them.
float frayed(float cover, float u, float v, int seed) {
  return cover + 0.55f * noise(u * 26.0f, v * 0.7f, seed) +
         0.35f * noise(u * 61.0f, v * 1.2f, seed);
}

}  // namespace

void draw(const mesh& m, const camera& view, int seed, std::vector<sample>* samples) {
  struct place {
    float x, y;
  };
  std::vector<place> places(m.vertices.size());
  for (size_t i = 0; i < places.size(); i++) {
    const vec3& p = m.vertices[i].seen;
    const float scale = p.z > 1.0f ? view.focal / p.z : 0.0f;
    places[i] = {p.x * scale + view.cx, p.y * scale + view.cy};
  }
  each_triangle(m, [&](int ia, int ib, int ic) {
    const vertex &va = m.vertices[static_cast<size_t>(ia)],
                 &vb = m.vertices[static_cast<size_t>(ib)],
                 &vc = m.vertices[static_cast<size_t>(ic)];
    if (va.seen.z <= 1.0f || vb.seen.z <= 1.0f || vc.seen.z <= 1.0f) return;
    const bool ends = m.kind == kHair || m.kind == kHat;
    if (ends && std::max({va.cover, vb.cover, vc.cover}) < -1.0f) return;
    const place &pa = places[static_cast<size_t>(ia)], &pb = places[static_cast<size_t>(ib)],
                &pc = places[static_cast<size_t>(ic)];
    const triangle t({pa.x, pb.x, pc.x}, {pa.y, pb.y, pc.y});
    t.each_sample(view.width, view.height, [&](int column, int row, float a, float b, float c) {
      sample& s = (*samples)[static_cast<size_t>(row * view.width + column)];
      const float z = a * va.seen.z + b * vb.seen.z + c * vc.seen.z;
      if (s.kind != kNothing && z >= s.z) return;
      const float cover = a * va.cover + b * vb.cover + c * vc.cover;
      const float u = a * va.u + b * vb.u + c * vc.u, v = a * va.v + b * vb.v + c * vc.v;
      if (m.kind == kHair && frayed(cover, u, v, seed) < 0.0f) return;
      if (m.kind == kHat && cover < 0.0f) return;
      s = {z,
           va.canonical * a + vb.canonical * b + vc.canonical * c,
           va.normal * a + vb.normal * b + vc.normal * c,
           cover,
           u,
           v,
           m.kind};
    });
  });
}

shadow_map::shadow_map(const std::vector<mesh>& meshes, vec3 towards_light)
    : ahead_(normalize(towards_light) * -1.0f), depth_(kSize * kSize, 1e9f) {
  right_ = normalize(cross(vec3{0.05f, 1.0f, 0.1f}, ahead_));
  down_ = cross(ahead_, right_);
  origin_ = meshes[0].vertices[0].seen;
  scale_ = kSize / 44.0f;  // 44 cm around the head
  const vec3 middle = meshes[0].vertices[meshes[0].vertices.size() / 2].seen;
  origin_ = mix(origin_, middle, 0.6f);
  for (const mesh& m : meshes) {
    if (m.kind == kLens) continue;
    std::vector<vec3> places(m.vertices.size());
    for (size_t i = 0; i < places.size(); i++) {
      const vec3 p = m.vertices[i].seen - origin_;
      places[i] = {dot(p, right_) * scale_ + kMiddle, dot(p, down_) * scale_ + kMiddle,
                   dot(p, ahead_)};
    }
    each_triangle(m, [&](int ia, int ib, int ic) {
      const auto at = [](int i) { return static_cast<size_t>(i); };
      if ((m.kind == kHair || m.kind == kHat) &&
          std::min({m.vertices[at(ia)].cover, m.vertices[at(ib)].cover, m.vertices[at(ic)].cover}) <
              0.0f)
        return;
      const vec3 &pa = places[at(ia)], &pb = places[at(ib)], &pc = places[at(ic)];
      const triangle t({pa.x, pb.x, pc.x}, {pa.y, pb.y, pc.y});
      t.each_sample(kSize, kSize, [&](int column, int row, float a, float b, float c) {
        float& z = depth_[static_cast<size_t>(row * kSize + column)];
        z = std::min(z, a * pa.z + b * pb.z + c * pc.z);
      });
    });
  }
}

float shadow_map::at(vec3 seen) const {
  const vec3 p = seen - origin_;
  const float x = dot(p, right_) * scale_ + kMiddle, y = dot(p, down_) * scale_ + kMiddle;
  const float z = dot(p, ahead_) - 0.55f;  // so that a surface does not shade itself
  const int column = static_cast<int>(x), row = static_cast<int>(y);
  if (column < 2 || row < 2 || column > kSize - 3 || row > kSize - 3) return 0.0f;
  float hidden = 0.0f;
  for (int i = -2; i <= 2; i += 2)
    for (int j = -2; j <= 2; j += 2)
      hidden += depth_[static_cast<size_t>((row + i) * kSize + column + j)] < z ? 1.0f : 0.0f;
  return hidden / 9.0f;
}

}  // namespace render

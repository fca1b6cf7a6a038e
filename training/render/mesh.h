// Grids of points that make up a head, and their drawing into samples by depth.
#ifndef ZYN_RENDER_MESH_H
#define ZYN_RENDER_MESH_H

#include <vector>

#include "shape.h"

namespace render {

enum material : uint8_t { kNothing, kSkin, kEar, kHair, kHat, kFrame, kLens };

struct vertex {
  vec3 canonical;
  vec3 seen;    // camera coordinates
  vec3 normal;  // camera coordinates, outwards
  float cover;  // above 0 where there is something: hair and cloth end at 0
  float u, v;   // along the surface, for strands and weaving
};

struct mesh {
  int rows, columns;
  material kind;
  std::vector<vertex> vertices;
  vertex& at(int row, int column) { return vertices[static_cast<size_t>(row * columns + column)]; }
};

// Everything of the head, in camera coordinates. The first mesh is the skin.
std::vector<mesh> build_head(const shape& form, const head_pose& pose);

// Where landmark i lies, in face coordinates.
vec3 landmark(const shape& form, int i);
// Points of the forehead that the box takes in besides the landmarks.
vec3 forehead_point(const shape& form, int i);
constexpr int kForeheadPoints = 5;

struct sample {
  float z;
  vec3 canonical, normal;
  float cover, u, v;
  material kind;
};

// Draws a mesh with its nearest surface; lenses lie behind nothing and hide nothing, they
// have samples of their own.
void draw(const mesh& m, const camera& view, int seed, std::vector<sample>* samples);

// Distances along the light, for cast shadows.
class shadow_map {
 public:
  shadow_map(const std::vector<mesh>& meshes, vec3 towards_light);
  // 0 in full light to 1 in full shadow.
  float at(vec3 seen) const;

 private:
  static constexpr int kSize = 192;
  static constexpr float kMiddle = kSize / 2.0f;
  vec3 right_, down_, ahead_, origin_;
  float scale_;
  std::vector<float> depth_;
};

}  // namespace render

#endif

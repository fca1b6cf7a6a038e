// The colours of a head's surfaces, and light on them.
#ifndef ZYN_RENDER_PAINT_H
#define ZYN_RENDER_PAINT_H

#include "mesh.h"

namespace render {

// The colour of a surface before light, and how it shines.
struct surface {
  vec3 color;
  vec3 normal;
  float gloss, shine;  // strength and sharpness of the highlight
  float open;          // ambient light that comes in, 0 to 1
  float soft;          // how far light wraps around: skin scatters it
  bool strands;
};

class painter {
 public:
  painter(const shape& form, const lighting& lights, const head_pose& pose, const shadow_map& cast)
      : form_(form), who_(form.who), lights_(lights), pose_(pose), cast_(cast) {}

  vec3 shade(const sample& s, vec3 seen) const;
  // What a lens in front adds: its tint and its glare.
  vec3 through_lens(const sample& s, vec3 behind, vec3 seen) const;

 private:
  float collar_dip(const sample& s) const;
  vec3 lit(const surface& s, vec3 seen) const;
  surface ear(const sample& s) const;
  surface hair(const sample& s) const;
  surface hat(const sample& s) const;
  surface cloth(const sample& s) const;

  // paint_face.cpp
  surface skin(const sample& s) const;
  void face_colors(vec3 p, float ax, surface* out) const;
  void hollows(vec3 p, float ax, surface* out) const;
  void brows(vec3 p, surface* out) const;
  void beard(vec3 p, float ax, surface* out) const;
  void lips(vec3 p, surface* out) const;
  void eye(vec3 p, int side, surface* out) const;
  void eyeball(vec3 p, int side, float upper, float inside, surface* out) const;

  const shape& form_;
  const identity& who_;
  const lighting& lights_;
  const head_pose& pose_;
  const shadow_map& cast_;
};

}  // namespace render

#endif

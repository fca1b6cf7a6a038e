#include "head.h"

#include "paint.h"

namespace render {
namespace {

constexpr int kFiner = 2;  // samples along each side of a pixel

float encode(float linear) {
  // A shoulder for bright light, then the usual curve.
  const float v = linear < 0.7f ? linear : 0.7f + 0.3f * (1.0f - std::exp(-(linear - 0.7f) / 0.3f));
  return 255.0f * std::pow(std::max(v, 0.0f), 1.0f / 2.2f);
}

struct truth_finder {
  const shape& form;
  const head_pose& pose;
  const camera& view;

  vec3 seen(vec3 p) const { return pose.rotation * p + pose.translation; }
  void project(vec3 p, float* x, float* y) const {
    *x = p.x * view.focal / p.z + view.cx;
    *y = p.y * view.focal / p.z + view.cy;
  }
  bool hidden(vec3 p, const std::vector<sample>& samples, const camera& finer) const {
    float x, y;
    project(p, &x, &y);
    const int column = static_cast<int>(x * kFiner), row = static_cast<int>(y * kFiner);
    if (column < 0 || row < 0 || column >= finer.width || row >= finer.height) return true;
    const sample& s = samples[static_cast<size_t>(row * finer.width + column)];
    return s.kind != kNothing && s.z < p.z - 1.0f;
  }

  void fill(const std::vector<sample>& samples, const camera& finer, head_truth* truth) const {
    float box[4] = {1e9f, 1e9f, -1e9f, -1e9f};
    const auto take = [&](float x, float y) {
      box[0] = std::min(box[0], x);
      box[1] = std::min(box[1], y);
      box[2] = std::max(box[2], x);
      box[3] = std::max(box[3], y);
    };
    for (int i = 0; i < kPoints; i++) {
      const vec3 p = seen(landmark(form, i));
      project(p, &truth->points[i][0], &truth->points[i][1]);
      truth->visible[i] = hidden(p, samples, finer) ? 0.0f : 1.0f;
      take(truth->points[i][0], truth->points[i][1]);
    }
    for (int i = 0; i < kForeheadPoints; i++) {
      float x, y;
      project(seen(forehead_point(form, i)), &x, &y);
      take(x, y);
    }
    std::copy(box, box + 4, truth->box);
    std::copy(pose.rotation.m, pose.rotation.m + 9, truth->rotation);
    truth->translation[0] = pose.translation.x;
    truth->translation[1] = pose.translation.y;
    truth->translation[2] = pose.translation.z;
    truth->focal = view.focal;
    truth->cx = view.cx;
    truth->cy = view.cy;
  }
};

}  // namespace

void render_head(const identity& who, const expression& mood, const lighting& lights,
                 const head_pose& pose, const camera& view, uint8_t* rgba, head_truth* truth) {
  const shape form(who, mood);
  const std::vector<mesh> meshes = build_head(form, pose);
  const camera finer{view.focal * kFiner, view.cx * kFiner, view.cy * kFiner, view.width * kFiner,
                     view.height * kFiner};
  const size_t count = static_cast<size_t>(finer.width) * static_cast<size_t>(finer.height);
  std::vector<sample> samples(count), lenses;
  for (const mesh& m : meshes)
    if (m.kind != kLens) draw(m, finer, who.seed, &samples);
  if (who.glasses) {
    lenses.resize(count);
    for (const mesh& m : meshes)
      if (m.kind == kLens) draw(m, finer, who.seed, &lenses);
  }
  const shadow_map cast(meshes, lights.lights[0].direction);
  const painter paint(form, lights, pose, cast);
  for (int y = 0; y < view.height; y++)
    for (int x = 0; x < view.width; x++) {
      float sum[4] = {0, 0, 0, 0};
      for (int k = 0; k < kFiner * kFiner; k++) {
        const int column = x * kFiner + k % kFiner, row = y * kFiner + k / kFiner;
        const size_t at = static_cast<size_t>(row * finer.width + column);
        const sample& s = samples[at];
        if (s.kind == kNothing) continue;
        const float px = (column + 0.5f - finer.cx) / finer.focal;
        const float py = (row + 0.5f - finer.cy) / finer.focal;
        vec3 color = paint.shade(s, vec3{px, py, 1.0f} * s.z);
        if (who.glasses && lenses[at].kind == kLens && lenses[at].z < s.z)
          color = paint.through_lens(lenses[at], color, vec3{px, py, 1.0f} * lenses[at].z);
        sum[0] += encode(color.x);
        sum[1] += encode(color.y);
        sum[2] += encode(color.z);
        sum[3] += 255.0f;
      }
      uint8_t* to = rgba + 4 * (static_cast<size_t>(y) * static_cast<size_t>(view.width) +
                                static_cast<size_t>(x));
      for (int c = 0; c < 4; c++) to[c] = static_cast<uint8_t>(sum[c] / (kFiner * kFiner) + 0.5f);
    }
  truth_finder{form, pose, view}.fill(samples, finer, truth);
}

}  // namespace render

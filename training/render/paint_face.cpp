// The skin: complexion, brows, beard, lips, eyes.
#include "paint.h"

namespace render {

surface painter::skin(const sample& s) const {
  const vec3 p = s.canonical;
  const int seed = who_.seed;
  surface out{who_.skin, s.normal, 0.10f + 0.22f * who_.oily, 14.0f, 1.0f, 0.35f, false};
  const float ax = std::fabs(p.x);
  const bool front = p.z > 2.0f && p.y > -7.0f && p.y < 15.0f;
  const float blotch = noise(p.x * 0.8f + 3.0f, p.y * 0.8f, seed) +
                       0.6f * noise(p.x * 2.3f, p.y * 2.3f + p.z, seed + 1) +
                       0.35f * noise(p.x * 6.0f, p.y * 6.0f, seed + 2);
  out.color = out.color * (1.0f + 0.05f * blotch);
  if (front) {
    face_colors(p, ax, &out);
    beard(p, ax, &out);
    brows(p, &out);
    lips(p, &out);
    for (int side = 0; side < 2; side++) eye(p, side, &out);
    hollows(p, ax, &out);
  }
  if (!who_.bald && s.cover > -0.8f) {  // roots of the hair
    const float roots = step(-0.5f, 0.4f, s.cover + 0.4f * noise(s.u * 30.0f, p.y, seed + 4));
    out.color = mix(out.color, who_.hair * 0.8f, 0.85f * roots);
    out.gloss *= 1.0f - 0.7f * roots;
  }
  // Less light under the chin.
  out.open *= 1.0f - 0.6f * step(12.1f, 13.1f, s.v) * step(17.5f, 14.0f, s.v);
  return out;
}

void painter::face_colors(vec3 p, float ax, surface* out) const {
  const float red = 0.5f * bump2(ax - 4.2f, 1.5f, p.y - 3.4f, 1.4f) +
                    0.5f * bump2(p.x, 0.9f, p.y - 4.4f, 0.8f) +
                    0.2f * bump2(p.x, 1.5f, p.y - 10.3f, 0.8f);
  out->color = out->color * mix({1, 1, 1}, {1.04f, 0.80f, 0.80f}, red * who_.blush);
  const float tired = bump2(ax - form_.eye_apart + 0.2f, 1.2f, p.y - 1.1f, 0.45f);
  out->color = out->color * mix({1, 1, 1}, {0.82f, 0.76f, 0.78f}, tired * (0.3f + who_.age * 0.5f));
  if (who_.freckles > 0.0f) {
    const float spot = noise(p.x * 5.5f + 7.0f, p.y * 5.5f, who_.seed + 9) +
                       0.4f * noise(p.x * 11.0f, p.y * 11.0f, who_.seed + 10);
    const float where = bump2(p.x, 4.0f, p.y - 2.6f, 1.8f);
    out->color = out->color * (1.0f - 0.35f * who_.freckles * where * step(0.55f, 0.9f, spot));
  }
  if (who_.age > 0.4f) {  // lines of the forehead and at the eyes
    const float waves =
        std::sin(p.y * 6.0f + 0.25f * p.x * p.x * 0.3f + noise(p.x, p.y, who_.seed));
    const float lines = step(0.6f, 1.0f, waves) * bump2(p.x, 3.0f, p.y + 4.4f, 0.9f);
    out->color = out->color * (1.0f - 0.16f * (who_.age - 0.4f) * lines);
  }
  const float along = (p.y - 5.0f) / 2.6f;
  if (along > 0.0f && along < 1.1f) {
    const float fold = bump(ax - mix(1.75f, form_.mouth_half + 0.6f, along), 0.16f);
    out->color =
        out->color * (1.0f - (0.10f + 0.12f * who_.age + 0.16f * std::max(form_.mood.smile, 0.0f)) *
                                 fold * step(1.1f, 0.8f, along));
  }
}

void painter::hollows(vec3 p, float ax, surface* out) const {
  const float tip = 4.3f * who_.nose_long;
  const float nostril = bump2(ax - 0.62f * who_.nose_wide, 0.3f, p.y - tip - 0.72f, 0.17f);
  out->color = out->color * (1.0f - 0.85f * step(0.3f, 0.9f, nostril));
  const float under_nose = bump2(p.x, 1.3f * who_.nose_wide, p.y - tip - 0.95f, 0.3f);
  const float wing = bump2(ax - 1.62f * who_.nose_wide, 0.14f, p.y - tip - 0.3f, 0.45f);
  const float socket = bump2(ax - form_.eye_apart + 0.9f, 0.9f, p.y + 0.75f, 0.5f);
  const float under_lip = bump2(p.x, 1.6f, p.y - 8.85f - form_.drop, 0.3f);
  out->open *= 1.0f - 0.5f * under_nose - 0.35f * wing - 0.35f * socket - 0.25f * under_lip;
  out->open = std::max(out->open, 0.15f);
  out->color = out->color * (1.0f - 0.25f * wing - 0.18f * socket);
}

void painter::brows(vec3 p, surface* out) const {
  const int side = p.x < 0.0f ? 0 : 1;
  const float t = (std::fabs(p.x) - 1.25f) / 4.2f;
  if (t < -0.08f || t > 1.06f || who_.brow_dark <= 0.0f) return;
  const float line = form_.brow_line(side, clamp(t, 0.0f, 1.0f)), half = form_.brow_half(t);
  const float strands =
      0.28f * noise(p.x * 9.0f - p.y * 4.0f * (p.x < 0 ? -1.0f : 1.0f), p.y * 2.0f, who_.seed + 12);
  const float far = std::fabs(p.y - line) / std::max(half, 0.02f) + strands;
  const float part = step(1.25f, 0.65f, far) * step(-0.08f, 0.08f, t) * step(1.06f, 0.94f, t);
  out->color = mix(out->color, who_.brow, part * who_.brow_dark);
  out->gloss *= 1.0f - part;
}

void painter::beard(vec3 p, float ax, surface* out) const {
  if (who_.stubble + who_.beard + who_.moustache <= 0.0f) return;
  const float cheek_line = ax > 3.0f ? 8.4f - 1.5f * (ax - 3.0f) : 8.4f + 0.2f * (3.0f - ax);
  const float goatee = who_.beard > 0.0f && who_.beard < 0.5f ? step(3.0f, 2.2f, ax) : 1.0f;
  const float chin = step(-0.5f, 0.7f, p.y - std::max(cheek_line, 1.0f)) * goatee;
  const float bottom = step(13.6f, 12.4f, p.y);
  const float lip = form_.mouth_edge(clamp(p.x / form_.mouth_half, -1.0f, 1.0f), 0);
  const float above =
      step(5.35f, 5.75f, p.y + 0.05f * ax) * step(3.3f, 2.7f, ax) * step(lip + 0.7f, lip, p.y);
  const float grain = noise(p.x * 10.0f, p.y * 5.0f, who_.seed + 14) +
                      0.5f * noise(p.x * 17.0f, p.y * 9.0f, who_.seed + 15);
  const float region = std::max(chin * bottom, above);
  out->color = mix(out->color, who_.hair * 0.5f + vec3{0.02f, 0.022f, 0.026f},
                   region * who_.stubble * (0.45f + 0.2f * grain));
  const float full =
      std::max(chin * bottom * (who_.beard > 0.0f ? 1.0f : 0.0f), above * who_.moustache);
  const float cover = step(0.15f, 0.75f, full + 0.3f * grain * (full > 0.05f ? 1.0f : 0.0f));
  out->color = mix(out->color, who_.hair * (0.9f + 0.35f * grain), 0.95f * cover);
  out->gloss *= 1.0f - 0.8f * cover;
}

void painter::lips(vec3 p, surface* out) const {
  const float u = p.x / form_.mouth_half;
  if (std::fabs(u) > 1.1f || p.y < 5.0f || p.y > 11.0f) return;
  const float c = clamp(u, -1.0f, 1.0f);
  const float e0 = form_.mouth_edge(c, 0), e1 = form_.mouth_edge(c, 1), e2 = form_.mouth_edge(c, 2),
              e3 = form_.mouth_edge(c, 3);
  const float on = step(e0 - 0.08f, e0 + 0.1f, p.y) * step(e3 + 0.12f, e3 - 0.1f, p.y) *
                   step(1.05f, 0.97f, std::fabs(u));
  const float wrinkles = 1.0f + 0.08f * noise(p.x * 8.0f, p.y, who_.seed + 16);
  out->color = mix(out->color, who_.lips * wrinkles, on * 0.9f);
  out->gloss = mix(out->gloss, 0.22f, on);
  const float gap = e2 - e1;
  if (gap < 0.05f) {
    const float line = bump(p.y - 0.5f * (e1 + e2), 0.09f) * step(1.08f, 0.95f, std::fabs(u));
    out->color = out->color * (1.0f - 0.75f * line);
    return;
  }
  const float inside = step(e1 - 0.04f, e1 + 0.06f, p.y) * step(e2 + 0.04f, e2 - 0.06f, p.y);
  if (inside <= 0.0f || std::fabs(u) > 1.0f) return;
  vec3 within{0.05f, 0.012f, 0.01f};
  const float tongue = step(e2 - 0.75f, e2 - 0.2f, p.y) * step(0.8f, 0.4f, std::fabs(u));
  within = mix(within, {0.30f, 0.08f, 0.07f}, tongue * step(0.7f, 1.2f, gap));
  const float teeth_end = e1 + 0.62f + 0.05f * std::cos(p.x * 7.0f) - 0.25f * u * u;
  const float shadow = 1.0f - 0.65f * std::pow(std::fabs(u), 3.0f);
  const float seam = 1.0f - 0.25f * bump(std::sin(p.x * 4.2f), 0.10f);
  const vec3 tooth = vec3{0.80f, 0.74f, 0.64f} * (shadow * seam);
  within = mix(within, tooth, step(teeth_end + 0.06f, teeth_end - 0.06f, p.y));
  if (form_.mood.smile < -0.1f) {  // the lower teeth as well
    const float from = e2 - 0.4f;
    within = mix(within, tooth * 0.8f, step(from - 0.05f, from + 0.08f, p.y));
  }
  out->color = mix(out->color, within, inside);
  out->gloss = mix(out->gloss, 0.12f, inside);
  out->open = mix(out->open, 0.75f, inside);
}

void painter::eye(vec3 p, int side, surface* out) const {
  const float sign = side == 0 ? -1.0f : 1.0f;
  const float t = sign * (p.x - form_.eye_x(side)) / form_.eye_half;
  if (std::fabs(t) > 1.35f || std::fabs(p.y) > 2.2f) return;
  const float c = clamp(t, -1.0f, 1.0f);
  const float upper = form_.lid(side, c, -1), lower = form_.lid(side, c, 1);
  const float ends = step(1.08f, 0.98f, std::fabs(t));
  // The fold above the lid, and paint between it and the lashes.
  const float fold = upper - 0.34f - 0.1f * (1.0f - c * c);
  out->color = out->color * (1.0f - 0.4f * bump(p.y - fold, 0.1f) * step(1.3f, 0.8f, std::fabs(t)));
  const float painted = step(fold - 0.2f, fold + 0.2f, p.y) * step(upper + 0.1f, upper - 0.1f, p.y);
  out->color = mix(out->color, who_.lips * 0.4f, painted * ends * who_.makeup * 0.5f);
  const float inside =
      step(upper - 0.03f, upper + 0.06f, p.y) * step(lower + 0.05f, lower - 0.05f, p.y) * ends;
  if (inside > 0.0f) eyeball(p, side, upper, inside, out);
  const float lashes =
      bump(p.y - upper, 0.075f + 0.04f * who_.makeup) * step(1.15f, 0.95f, std::fabs(t));
  const float below = bump(p.y - lower, 0.06f) * ends * (0.25f + 0.4f * who_.makeup);
  out->color = mix(out->color, {0.02f, 0.014f, 0.012f}, std::min(0.85f * lashes + below, 1.0f));
  const float corner = bump2(t + 0.97f, 0.09f, p.y - form_.eye_y(-1.0f), 0.12f);
  out->color = mix(out->color, {0.55f, 0.25f, 0.2f}, 0.5f * corner);
}

void painter::eyeball(vec3 p, int side, float upper, float inside, surface* out) const {
  const float x = p.x - form_.eye_x(side) - 0.75f * form_.mood.gaze_x;
  const float y = p.y - form_.eye_y(0.0f) + 0.12f - 0.45f * form_.mood.gaze_y;
  const float r = std::sqrt(x * x + y * y) / who_.eye_size;
  const float white = 0.70f - 0.10f * std::fabs(p.x - form_.eye_x(side));
  vec3 color = vec3{white, white * 0.93f, white * 0.89f};
  const float spokes = 1.0f + 0.35f * noise(std::atan2(y, x) * 5.0f, r * 3.0f, who_.seed + 20);
  vec3 iris = who_.iris * spokes * (1.0f + 0.5f * step(-0.1f, 0.5f, y));
  iris = iris * mix(0.35f, 1.0f, step(0.66f, 0.54f, r));
  color = mix(color, iris, step(0.70f, 0.63f, r));
  color = mix(color, {0.006f, 0.005f, 0.005f}, step(0.28f, 0.23f, r));
  color = color * mix(0.45f, 1.0f, step(0.0f, 0.34f, p.y - upper));  // the lid's shadow
  const vec3 l = lights_.lights[0].direction;
  const float gx = x - 0.22f * l.x, gy = y - 0.22f * l.y;
  const float glint = step(0.15f, 0.08f, std::sqrt(gx * gx + gy * gy));
  out->color = mix(out->color, color + vec3{1, 1, 1} * (0.9f * glint), inside);
  const vec3 ball = pose_.rotation * normalize(vec3{(p.x - form_.eye_x(side)) * 0.75f,
                                                    (p.y - form_.eye_y(0.0f)) * 0.75f, -1.0f});
  out->normal = mix(normalize(out->normal), ball, 0.75f * inside);
  out->gloss = mix(out->gloss, 0.25f, inside);
  out->soft = mix(out->soft, 0.5f, inside);
  out->open = mix(out->open, 0.8f, inside);
}

}  // namespace render

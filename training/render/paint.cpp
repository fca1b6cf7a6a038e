#include "paint.h"

namespace render {
namespace {

// A light and how much of it arrives.
struct light_in {
  const light& from;
  float part;
};

}  // namespace

vec3 painter::shade(const sample& s, vec3 seen) const {
  surface out{};
  switch (s.kind) {
    case kSkin:
      out = s.canonical.y > who_.collar + collar_dip(s) ? cloth(s) : skin(s);
      break;
    case kEar:
      out = ear(s);
      break;
    case kHair:
      out = hair(s);
      break;
    case kHat:
      out = hat(s);
      break;
    default:
      out = {who_.glasses_color, s.normal, 0.5f, 30.0f, 0.9f, 0.1f, false};
  }
  return lit(out, seen);
}

vec3 painter::through_lens(const sample& s, vec3 behind, vec3 seen) const {
  const vec3 view = normalize(seen * -1.0f);
  const vec3 n = normalize(s.normal);
  const vec3 mirror = n * (2.0f * dot(n, view)) - view;
  const float glance = noise(mirror.x * 5.0f, mirror.y * 5.0f, who_.seed + 31);
  const float glare = 0.04f + 0.5f * step(0.45f, 0.7f, glance) * step(0.2f, -0.6f, mirror.y);
  const vec3 tint =
      who_.glasses == 3 ? who_.glasses_color * 0.4f + vec3{0.02f, 0.02f, 0.02f} : behind * 0.93f;
  return tint + (lights_.sky + lights_.lights[0].color * 0.3f) * glare * 0.7f;
}

float painter::collar_dip(const sample& s) const {
  return 1.2f * bump(s.canonical.x, 4.0f) * (s.canonical.z > 0 ? 1.0f : 0.0f);
}

vec3 painter::lit(const surface& s, vec3 seen) const {
  const vec3 view = normalize(seen * -1.0f);
  vec3 n = normalize(s.normal);
  if (dot(n, view) < 0.0f) n = n * -1.0f;
  const float up = 0.5f - 0.5f * n.y;
  vec3 light = mix(lights_.ground, lights_.sky, up) * s.open;
  vec3 shine{0, 0, 0};
  const float hidden = cast_.at(seen) * lights_.shadow;
  for (int i = 0; i < 3; i++) {
    const light_in in{lights_.lights[i], i == 0 ? 1.0f - hidden : 1.0f};
    const float facing = dot(n, in.from.direction);
    const float wrapped = std::max((facing + s.soft) / (1.0f + s.soft), 0.0f);
    // Red light goes farther through skin.
    const vec3 reach{wrapped, mix(wrapped, std::max(facing, 0.0f), 0.35f * s.soft * 2),
                     mix(wrapped, std::max(facing, 0.0f), 0.5f * s.soft * 2)};
    light = light + in.from.color * reach * (in.part * mix(1.0f, s.open, 0.5f));
    const vec3 half = normalize(in.from.direction + view);
    float peak;
    if (s.strands) {
      vec3 along = pose_.rotation * vec3{0, 1, 0};
      along = normalize(along - n * dot(along, n));
      const float t = dot(along, half);
      peak = std::pow(std::max(1.0f - t * t, 0.0f), 0.5f * s.shine) * step(-0.2f, 0.4f, facing);
    } else {
      peak = facing > 0.0f ? std::pow(std::max(dot(n, half), 0.0f), s.shine) : 0.0f;
    }
    shine = shine + in.from.color * (peak * s.gloss * in.part);
  }
  const float rim = std::pow(1.0f - std::max(dot(n, view), 0.0f), 4.0f) * 0.12f;
  return s.color * light + shine + lights_.sky * (rim * s.open);
}

surface painter::ear(const sample& s) const {
  surface out{who_.skin * vec3{1.0f, 0.88f, 0.86f}, s.normal, 0.08f, 12.0f, 0.85f, 0.45f, false};
  const float r = s.u * s.u + s.v * s.v;
  const float hollow = bump2(s.u - 0.05f, 0.34f, s.v + 0.02f, 0.38f);
  const float ring = bump(std::sqrt(r) - 0.68f, 0.09f) * step(0.5f, 0.0f, s.v);
  out.open *= 1.0f - 0.55f * hollow - 0.3f * ring;
  out.color = out.color * (1.0f - 0.4f * hollow - 0.25f * ring);
  return out;
}

surface painter::hair(const sample& s) const {
  const vec3 p = s.canonical;
  const int seed = who_.seed;
  const float curl = who_.hair_curl;
  const float wave = 0.25f * noise(p.y * (0.5f + curl), s.u * 3.0f, seed + 21) * (0.5f + 2 * curl);
  const float strand = 0.6f * noise((s.u + wave * 0.2f) * 38.0f, p.y * 0.35f, seed + 22) +
                       0.5f * noise((s.u + wave * 0.2f) * 90.0f, p.y * 0.6f, seed + 23);
  const float lock = noise((s.u + wave * 0.3f) * 12.0f, p.y * 0.25f, seed + 24);
  const float knots = noise(p.x * 2.6f + p.z, p.y * 2.6f, seed + 25) +
                      0.6f * noise(p.x * 5.0f, p.y * 5.0f + p.z * 2, seed + 26);
  const float tone = mix(strand + 0.5f * lock, knots * 1.1f, std::min(curl, 1.0f) * 0.8f);
  surface out{
      who_.hair * clamp(1.0f + 0.5f * tone, 0.25f, 2.0f), s.normal, 0.0f, 18.0f, 1.0f, 0.25f, true};
  const float grey = step(0.2f, -0.6f, noise(s.u * 70.0f, p.y * 0.3f, seed + 27) - who_.hair_grey);
  out.color = mix(out.color, {0.45f, 0.45f, 0.46f}, grey * who_.hair_grey);
  out.gloss = (0.05f + 0.12f * (1.0f - curl)) * clamp(0.6f + tone, 0.1f, 1.5f) *
              (0.4f + dot(who_.hair, {0.8f, 0.8f, 0.8f}));
  out.open = clamp(0.65f + 0.35f * tone + 0.1f * step(0.0f, 2.0f, s.cover), 0.2f, 1.0f);
  // The normal leans with the strands.
  out.normal = normalize(s.normal) + pose_.rotation * vec3{0.35f * tone, 0.1f * lock, 0};
  if (p.y > 4.0f) out.open *= 0.85f;
  return out;
}

surface painter::hat(const sample& s) const {
  const vec3 p = s.canonical;
  float weave = 0.0f;
  if (who_.hat == 1)
    weave = 0.35f * std::sin(s.u * 60.0f) + 0.15f * std::sin(p.y * 9.0f);
  else
    weave = 0.1f * noise(p.x * 6.0f, p.y * 6.0f + p.z * 3.0f, who_.seed + 28);
  if (who_.hat == 4) weave += 0.35f * noise(s.u * 5.0f, p.y * 0.6f + s.u * 4.0f, who_.seed + 29);
  vec3 color = who_.hat_color;
  if (who_.hat <= 2 && p.y > -5.4f && s.v < 4.0f) color = mix(color, who_.cloth[1], 0.7f);
  return {color * (1.0f + 0.4f * weave),         s.normal, 0.02f, 8.0f,
          clamp(0.9f + 0.3f * weave, 0.3f, 1.f), 0.15f,    false};
}

surface painter::cloth(const sample& s) const {
  const vec3 p = s.canonical;
  vec3 color = who_.cloth[0];
  const float folds = noise(p.x * 0.35f, p.y * 0.18f + p.x * 0.1f, who_.seed + 30) +
                      0.5f * noise(p.x * 0.9f, p.y * 0.4f, who_.seed + 31);
  const auto stripes = [](float v) { return step(-0.15f, 0.15f, std::sin(v)); };
  if (who_.pattern == 1) color = mix(color, who_.cloth[1], stripes(p.y * 2.2f));
  if (who_.pattern == 2)
    color = mix(color, who_.cloth[1], 0.5f * stripes(p.y * 1.7f) + 0.5f * stripes(p.x * 1.7f));
  if (who_.pattern == 3 && std::fabs(p.x) < 3.0f + 0.3f * (p.y - who_.collar))
    color = who_.cloth[1];  // a jacket over a shirt
  if (p.y < who_.collar + collar_dip(s) + 1.2f && who_.pattern != 1)
    color = mix(color, who_.cloth[1], 0.6f);
  return {color * (1.0f + 0.25f * folds),          s.normal, 0.01f, 6.0f,
          clamp(0.85f + 0.3f * folds, 0.3f, 1.0f), 0.1f,     false};
}

}  // namespace render

// Who, in which mood, in which light: everything that chance decides.
#include "head.h"

namespace render {
namespace {

constexpr float kSkins[][3] = {{255, 226, 208}, {247, 210, 186}, {238, 195, 165},
                               {225, 175, 140}, {205, 150, 115}, {176, 121, 86},
                               {140, 92, 62},   {105, 67, 45},   {78, 50, 36}};
constexpr int kSkinCount = sizeof(kSkins) / sizeof(kSkins[0]);
constexpr float kHairs[][3] = {{22, 18, 16},    {35, 26, 21},   {52, 36, 26},   {78, 52, 34},
                               {110, 74, 44},   {150, 108, 62}, {196, 158, 98}, {140, 62, 30},
                               {150, 148, 146}, {205, 203, 200}};
constexpr float kIrises[][3] = {
    {60, 36, 20}, {90, 58, 30}, {70, 90, 60}, {90, 120, 150}, {110, 110, 110}};

vec3 color_of(const float (&c)[3]) { return srgb_to_linear(c[0], c[1], c[2]); }

vec3 any_color(dice& r) {
  // Cloth is seldom of full colour.
  const float grey = r.within(15, 235), full = r.unit() * r.unit();
  return srgb_to_linear(clamp(mix(grey, r.within(0, 255), full), 0, 255),
                        clamp(mix(grey, r.within(0, 255), full), 0, 255),
                        clamp(mix(grey, r.within(0, 255), full), 0, 255));
}

void choose_shape(dice& r, identity* who) {
  const auto around = [&](float spread) { return 1.0f + spread * r.normal(); };
  who->wide = 1.02f * around(0.05f);
  who->long_upper = around(0.04f);
  who->long_lower = 0.98f * around(0.05f);
  who->deep = around(0.04f);
  who->jaw_wide = around(0.06f);
  who->chin = around(0.4f);
  who->brow_ridge = r.within(0.0f, 1.5f);
  who->socket = r.within(0.55f, 1.15f);
  who->cheek = r.within(0.2f, 1.8f);
  who->nose_long = around(0.06f);
  who->nose_wide = around(0.13f);
  who->nose_high = around(0.14f);
  who->nose_bend = 0.12f * r.normal();
  who->eye_size = around(0.07f);
  who->eye_apart = around(0.04f);
  who->eye_slant = 0.05f + 0.09f * r.normal();
  who->eye_open = clamp(1.0f + 0.17f * r.normal(), 0.5f, 1.4f);
  who->mouth_wide = around(0.09f);
  who->lip_upper = std::max(around(0.3f), 0.3f);
  who->lip_lower = std::max(around(0.25f), 0.4f);
  who->brow_thick = std::max(around(0.3f), 0.4f);
  who->brow_arch = r.within(0.0f, 1.2f);
  who->brow_high = 0.18f * r.normal();
  for (float& phase : who->warp_phase) phase = r.within(0, 6.28f);
  who->uneven = r.within(0.0f, 0.18f);
  if (r.chance(0.18f)) {  // a child: low face, large eyes, small nose
    who->long_lower *= 0.9f;
    who->long_upper *= 1.05f;
    who->eye_size *= 1.1f;
    who->nose_high *= 0.75f;
    who->nose_long *= 0.9f;
    who->brow_ridge = 0.0f;
    who->age = 0.0f;
  }
}

void choose_hair(dice& r, identity* who) {
  const float style = r.unit();
  who->hair_front = 0.9f * r.normal();
  who->hair_temple = 0.6f * std::fabs(r.normal());
  who->hair_sideburn = r.within(-0.5f, 2.5f);
  who->hair_thick = r.within(0.5f, 1.9f);
  who->hair_side = r.within(0.1f, 1.2f);
  who->hair_open = r.within(52.0f, 78.0f);
  who->hair_curl = r.chance(0.3f) ? r.within(0.5f, 1.2f) : r.within(0.0f, 0.3f);
  if (style < 0.06f) {
    who->bald = true;
  } else if (style < 0.16f) {  // clipped, or thin above
    who->hair_thick = r.within(0.02f, 0.2f);
    who->hair_side = r.within(0.02f, 0.15f);
    if (r.chance(0.4f)) who->hair_front = r.within(1.5f, 5.0f);
  } else if (style < 0.52f) {  // short
    if (r.chance(0.45f)) who->hair_front = r.within(-3.4f, -1.0f);
  } else if (style < 0.92f) {  // long
    who->hair_length = r.within(9.0f, 28.0f);
    who->hair_side = r.within(0.4f, 1.3f);
    who->hair_thick = r.within(0.4f, 1.6f);
    if (r.chance(0.4f)) who->hair_front = r.within(-4.2f, -1.5f);
    if (r.chance(0.3f))
      who->hair_part = r.chance(0.5f) ? r.within(0.4f, 1.2f) : -r.within(0.4f, 1.2f);
  } else {  // a ball of curls
    who->hair_curl = 1.2f;
    who->hair_thick = r.within(2.0f, 4.5f);
    who->hair_side = who->hair_thick * r.within(0.6f, 0.9f);
  }
  if (!who->bald && r.chance(0.15f) && who->hair_length < 8.0f)
    who->hair_part = r.chance(0.5f) ? r.within(0.2f, 0.9f) : -r.within(0.2f, 0.9f);
}

void choose_colors(dice& r, identity* who) {
  const float tone = std::pow(r.unit(), 1.25f) * (kSkinCount - 1.01f);
  const int i = static_cast<int>(tone);
  who->skin = mix(color_of(kSkins[i]), color_of(kSkins[i + 1]), tone - static_cast<float>(i));
  who->skin = who->skin * vec3{1.0f, 1.0f + 0.05f * r.normal(), 1.0f + 0.09f * r.normal()};
  const bool dark = tone > 3.5f;
  int hair = dark ? r.below(3) : r.below(8);
  if (who->age > 0.6f && r.chance(0.6f)) hair = 8 + r.below(2);
  who->hair = color_of(kHairs[hair]) * r.within(0.75f, 1.3f);
  who->hair_grey = who->age > 0.4f ? r.within(0.0f, 0.7f) : 0.0f;
  who->brow = mix(who->hair, vec3{0.02f, 0.014f, 0.01f}, r.within(0.3f, 0.9f));
  who->brow_dark = r.within(0.45f, 0.97f);
  who->iris = color_of(kIrises[dark ? r.below(2) : r.below(5)]) * r.within(0.6f, 1.2f);
  const float pale = r.within(0.5f, 0.85f);
  who->lips = who->skin * vec3{0.92f, pale * 0.85f, pale * 0.88f};
  if (who->makeup > 0.0f)
    who->lips =
        mix(who->lips, srgb_to_linear(r.within(120, 205), r.within(20, 80), r.within(40, 95)),
            r.within(0.2f, 0.9f));
  who->blush = r.within(0.1f, 1.0f) * (dark ? 0.4f : 1.0f);
  who->freckles = r.chance(0.15f) && tone < 3.0f ? r.unit() : 0.0f;
  who->oily = r.unit() * r.unit();
}

void choose_extras(dice& r, identity* who) {
  const bool bearded = who->makeup <= 0.0f && who->hair_length < 8.0f;
  if (bearded) {
    if (r.chance(0.5f)) who->stubble = r.within(0.1f, 0.9f);
    if (r.chance(0.28f)) who->beard = r.chance(0.35f) ? 0.3f : 1.0f;
    if (who->beard > 0.0f ? r.chance(0.85f) : r.chance(0.1f)) who->moustache = 1.0f;
  }
  const float hat = r.unit();
  if (hat < 0.17f) who->hat = hat < 0.05f ? 1 : hat < 0.1f ? 2 : hat < 0.135f ? 3 : 4;
  if (who->hat) {  // flattens the hair
    who->hair_thick = std::min(who->hair_thick, 0.4f);
    who->hair_side = std::min(who->hair_side, 0.6f);
  }
  who->hat_color = any_color(r);
  const float glasses = r.unit();
  who->glasses = glasses < 0.2f ? 1 : glasses < 0.27f ? 2 : glasses < 0.32f ? 3 : 0;
  const float side = who->glasses == 3 ? 1.1f : 1.0f;
  who->glasses_wide = side * r.within(2.0f, 2.7f);
  who->glasses_high = side * r.within(1.2f, 2.0f);
  who->glasses_round = r.within(0.45f, 1.0f);
  who->glasses_thick = r.within(0.08f, 0.22f);
  who->glasses_color = r.chance(0.75f) ? vec3{0.012f, 0.012f, 0.014f} : any_color(r) * 0.25f;
  who->cloth[0] = any_color(r);
  who->cloth[1] = any_color(r);
  who->collar = r.within(12.5f, 17.5f);
  who->pattern = r.below(5);
}

}  // namespace

identity make_identity(uint64_t seed) {
  dice r(seed * 7919u + 17u);
  identity who{};
  who.seed = static_cast<int>(r.next() & 0xFFFFFF);
  who.age = r.unit();
  choose_shape(r, &who);
  choose_hair(r, &who);
  if (who.hair_length > 8.0f && r.chance(0.8f)) who.makeup = r.unit();
  choose_colors(r, &who);
  choose_extras(r, &who);
  return who;
}

expression make_expression(dice& r) {
  expression mood{};
  const float kind = r.unit();
  mood.smile = kind < 0.5f ? r.within(0.3f, 1.0f) : r.within(-0.35f, 0.3f);
  if (kind < 0.32f) mood.open = r.within(0.3f, 0.75f);  // a smile that shows teeth
  if (kind > 0.82f) mood.open = r.within(0.2f, 2.4f);
  if (r.chance(0.1f)) mood.pucker = r.unit() * std::max(1.0f - mood.smile, 0.0f);
  mood.skew = 0.2f * r.normal();
  const float raise = 0.3f * r.normal();
  const float lids =
      r.chance(0.08f)
          ? r.within(0.0f, 0.4f)
          : clamp(1.0f - 0.25f * std::max(mood.smile, 0.0f) + 0.12f * r.normal(), 0.3f, 1.35f);
  for (int side = 0; side < 2; side++) {
    mood.brow_raise[side] = clamp(raise + 0.1f * r.normal(), -0.6f, 1.0f);
    mood.lids[side] = clamp(lids + 0.04f * r.normal(), 0.0f, 1.4f);
  }
  if (r.chance(0.04f)) mood.lids[r.below(2)] = 0.0f;
  mood.gaze_x = clamp(0.35f * r.normal(), -0.9f, 0.9f);
  mood.gaze_y = clamp(0.3f * r.normal(), -0.7f, 0.7f);
  return mood;
}

lighting make_lighting(dice& r) {
  lighting out{};
  const auto tint = [&](float amount) {
    return vec3{1.0f + amount * r.normal(), 1.0f + 0.3f * amount * r.normal(),
                1.0f + amount * r.normal()};
  };
  const float base = r.within(0.2f, 0.55f);
  out.sky = tint(0.1f) * base;
  out.ground = tint(0.12f) * (base * r.within(0.35f, 0.9f));
  const int count = 1 + r.below(3);
  for (int i = 0; i < 3; i++) {
    const float yaw = r.within(-1.6f, 1.6f), pitch = r.within(-0.3f, 1.2f);
    out.lights[i].direction = normalize(
        vec3{std::sin(yaw) * std::cos(pitch), -std::sin(pitch), -std::cos(yaw) * std::cos(pitch)});
    const float strength = i >= count ? 0.0f
                           : i == 0   ? r.within(0.25f, 0.9f)
                                      : r.within(0.05f, 0.35f);
    out.lights[i].color = tint(0.1f) * strength;
  }
  out.shadow = r.within(0.35f, 0.95f);
  return out;
}

head_pose make_pose(float yaw, float pitch, float roll, vec3 translation) {
  const float to_radians = kPi / 180.0f;
  return {turn(yaw * to_radians, pitch * to_radians, roll * to_radians),
          turn(yaw * 0.35f * to_radians, pitch * 0.15f * to_radians, roll * 0.3f * to_radians),
          translation};
}

}  // namespace render

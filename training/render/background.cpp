// What stands behind and between the heads.
#include "scene.h"

namespace render {
namespace {

constexpr int kTile = 256;  // side of a texture, a power of two

// Textures of several octaves that repeat without a seam, made at first use.
struct textures {
  std::vector<float> values[4];
  textures() {
    for (int t = 0; t < 4; t++) {
      values[t].resize(kTile * kTile);
      const float decay = 0.35f + 0.15f * static_cast<float>(t);
      float strength = 1.0f;
      for (int cells = 4; cells <= 128; cells *= 2, strength *= decay)
        for (int y = 0; y < kTile; y++)
          for (int x = 0; x < kTile; x++)
            values[t][static_cast<size_t>(y * kTile + x)] +=
                strength * tiled(x, y, cells, t * 10 + cells);
    }
  }
  static float tiled(int x, int y, int cells, int seed) {
    const int step_size = kTile / cells, ix = x / step_size, iy = y / step_size;
    const float u = step(0, 1, static_cast<float>(x % step_size) / static_cast<float>(step_size));
    const float v = step(0, 1, static_cast<float>(y % step_size) / static_cast<float>(step_size));
    const int jx = (ix + 1) % cells, jy = (iy + 1) % cells;
    return 2.0f * mix(mix(hash_unit(ix, iy, seed), hash_unit(jx, iy, seed), u),
                      mix(hash_unit(ix, jy, seed), hash_unit(jx, jy, seed), u), v) -
           1.0f;
  }
};

// A turned and scaled view of a texture.
class cloth {
 public:
  explicit cloth(dice& r) : values_(all().values[r.below(4)].data()) {
    const float size = std::exp(r.within(-1.2f, 1.2f)), angle = r.within(0, 2 * kPi);
    const float narrow = r.chance(0.3f) ? r.within(0.15f, 0.5f) : 1.0f;
    a_ = size * std::cos(angle), b_ = -size * std::sin(angle);
    c_ = size * narrow * std::sin(angle), d_ = size * narrow * std::cos(angle);
    x_ = r.within(0, kTile), y_ = r.within(0, kTile);
  }
  float at(float x, float y) const {
    const int u = static_cast<int>(std::floor(a_ * x + b_ * y + x_)) & (kTile - 1);
    const int v = static_cast<int>(std::floor(c_ * x + d_ * y + y_)) & (kTile - 1);
    return values_[v * kTile + u];
  }

 private:
  static const textures& all() {
    static const textures made;
    return made;
  }
  const float* values_;
  float a_, b_, c_, d_, x_, y_;
};

vec3 any_color(dice& r) {
  const float grey = r.within(5, 250), full = std::sqrt(r.unit()) * 0.8f;
  return {mix(grey, r.within(0, 255), full * r.unit()),
          mix(grey, r.within(0, 255), full * r.unit()),
          mix(grey, r.within(0, 255), full * r.unit())};
}

vec3 skin_color(dice& r) {
  const float light = r.within(0.25f, 1.0f);
  return vec3{235, r.within(165, 205), r.within(120, 180)} * light;
}

void blend(float* to, vec3 color, float part) {
  to[0] = mix(to[0], color.x, part);
  to[1] = mix(to[1], color.y, part);
  to[2] = mix(to[2], color.z, part);
}

// A filled outline: where inside(x, y) is above 0, softly over one pixel.
struct patch {
  float cx, cy, wide, high, angle;
  int form;  // 0 rectangle, 1 ellipse, 2 triangle, 3 capsule
  vec3 color, second;
  float opaque, rough, shading;
  int pattern;  // 0 plain, 1 stripes, 2 checks, 3 bricks, 4 writing
  float period;
  bool hides;  // takes the pixels from whoever is there
};

float inside_of(const patch& p, float u, float v) {
  const float x = std::fabs(u), y = std::fabs(v);
  switch (p.form) {
    case 0:
      return std::min(p.wide - x, p.high - y);
    case 1: {
      const float r = std::sqrt(u * u / (p.wide * p.wide) + v * v / (p.high * p.high));
      return (1.0f - r) * std::min(p.wide, p.high);
    }
    case 2:
      return std::min(p.high - v, (v + p.high) * 0.5f * p.wide / p.high - x);
    default: {
      const float round = std::min(p.wide, p.high), over_x = std::max(x - (p.wide - round), 0.0f),
                  over_y = std::max(y - (p.high - round), 0.0f);
      return round - std::sqrt(over_x * over_x + over_y * over_y);
    }
  }
}

float pattern_at(const patch& p, float u, float v) {
  const float a = u / p.period, b = v / p.period;
  const auto part = [](float t) { return t - std::floor(t); };
  switch (p.pattern) {
    case 1:
      return part(a) < 0.5f ? 1.0f : 0.0f;
    case 2:
      return (part(a) < 0.5f) != (part(b) < 0.5f) ? 1.0f : 0.0f;
    case 3: {
      const float row = std::floor(b);
      const float shifted = part(0.5f * a + 0.5f * std::fmod(std::fabs(row), 2.0f));
      return part(b) < 0.12f || shifted < 0.06f ? 1.0f : 0.0f;
    }
    case 4: {
      const int line = static_cast<int>(std::floor(b)),
                letter = static_cast<int>(std::floor(a * 3));
      return part(b) > 0.35f && hash_unit(letter, line, 5) > 0.35f && part(a * 3) > 0.25f ? 1.0f
                                                                                          : 0.0f;
    }
    default:
      return 0.0f;
  }
}

void paint_patch(const patch& p, const cloth& rough, picture* out) {
  const float reach = std::sqrt(p.wide * p.wide + p.high * p.high) + 1.0f;
  const float c = std::cos(p.angle), s = std::sin(p.angle);
  const int x1 = std::max(static_cast<int>(p.cx - reach), 0);
  const int x2 = std::min(static_cast<int>(p.cx + reach), out->width - 1);
  const int y1 = std::max(static_cast<int>(p.cy - reach), 0);
  const int y2 = std::min(static_cast<int>(p.cy + reach), out->height - 1);
  for (int y = y1; y <= y2; y++)
    for (int x = x1; x <= x2; x++) {
      const float dx = static_cast<float>(x) - p.cx, dy = static_cast<float>(y) - p.cy;
      const float u = c * dx + s * dy, v = c * dy - s * dx;
      const float part = clamp(inside_of(p, u, v) + 0.5f, 0.0f, 1.0f) * p.opaque;
      if (part <= 0.0f) continue;
      vec3 color = mix(p.color, p.second, p.pattern ? pattern_at(p, u, v) : 0.0f);
      float light = 1.0f;
      if (p.rough > 0.0f) light += p.rough * rough.at(dx, dy);
      if (p.shading > 0.0f) {
        const float ru = u / p.wide, rv = v / p.high;
        light *= 1.0f -
                 p.shading * clamp(0.5f * (ru * ru + rv * rv) + 0.4f * ru + 0.3f * rv, -0.3f, 0.9f);
      }
      blend(out->at(x, y), color * light, part);
      if (p.hides && part > 0.5f) out->owner[static_cast<size_t>(y * out->width + x)] = 0;
    }
}

patch any_patch(dice& r, float size) {
  patch p{};
  p.wide = size * std::exp(r.within(-0.8f, 0.8f));
  p.high = size * std::exp(r.within(-0.8f, 0.8f));
  p.angle = r.chance(0.6f) ? 0.0f : r.within(0, kPi);
  p.form = r.below(4);
  p.color = any_color(r);
  p.second = any_color(r);
  p.opaque = r.chance(0.8f) ? 1.0f : r.within(0.3f, 1.0f);
  p.rough = r.chance(0.6f) ? r.within(0.0f, 0.5f) : 0.0f;
  p.shading = r.chance(0.5f) ? r.unit() : 0.0f;
  p.pattern = r.chance(0.5f) ? 0 : 1 + r.below(4);
  p.period = std::exp(r.within(0.9f, 3.2f));
  return p;
}

void place(dice& r, const picture& out, patch* p) {
  p->cx = r.within(-0.1f, 1.1f) * static_cast<float>(out.width);
  p->cy = r.within(-0.1f, 1.1f) * static_cast<float>(out.height);
}

void paint_ground(dice& r, picture* out) {
  const vec3 colors[4] = {any_color(r), any_color(r), any_color(r), any_color(r)};
  const cloth coarse(r), fine(r);
  const float rough = r.chance(0.3f) ? 0.0f : r.within(0.0f, 0.7f), mixed = r.unit();
  const float horizon = r.chance(0.5f) ? r.within(0.2f, 0.95f) : 2.0f;
  for (int y = 0; y < out->height; y++)
    for (int x = 0; x < out->width; x++) {
      const float fx = static_cast<float>(x), fy = static_cast<float>(y);
      const float down = fy / static_cast<float>(out->height);
      const float blot = clamp(0.5f + mixed * coarse.at(fx, fy), 0.0f, 1.0f);
      vec3 color = mix(colors[0], colors[1], mixed > 0.4f ? blot : down);
      if (down > horizon) color = mix(colors[2], colors[3], blot);
      color = color * (1.0f + rough * 0.6f * fine.at(fx, fy));
      float* to = out->at(x, y);
      to[0] = color.x, to[1] = color.y, to[2] = color.z;
    }
}

// Many small shapes of one family: leaves, grass, stones, a crowd of windows.
void paint_many(dice& r, picture* out) {
  const int count = 60 + r.below(220);
  const float size = r.within(1.5f, 7.0f), spread = r.within(0.1f, 0.5f);
  const float cx = r.unit() * static_cast<float>(out->width),
              cy = r.unit() * static_cast<float>(out->height);
  patch base = any_patch(r, size);
  const cloth rough(r);
  base.pattern = 0;
  const bool green = r.chance(0.5f);
  if (green) base.color = {r.within(40, 110), r.within(80, 160), r.within(20, 80)};
  for (int i = 0; i < count; i++) {
    patch p = base;
    p.cx = cx + r.normal() * spread * static_cast<float>(out->width);
    p.cy = cy + r.normal() * spread * static_cast<float>(out->height);
    p.angle += r.normal() * (green ? 1.5f : 0.05f);
    p.color = p.color * r.within(0.45f, 1.45f);
    paint_patch(p, rough, out);
  }
}

}  // namespace

void paint_background(dice& r, picture* out) {
  paint_ground(r, out);
  const float size = static_cast<float>(std::min(out->width, out->height));
  if (r.chance(0.25f)) {  // a wall of bricks or boards
    patch p = any_patch(r, size);
    p.form = 0, p.angle = 0.0f, p.pattern = 1 + r.below(3);
    p.cx = 0.5f * size, p.cy = 0.4f * size;
    paint_patch(p, cloth(r), out);
  }
  const int shapes = r.chance(0.2f) ? r.below(4) : 3 + r.below(20);
  for (int i = 0; i < shapes; i++) {
    patch p = any_patch(r, size * 0.25f * std::exp(r.within(-2.0f, 0.6f)));
    place(r, *out, &p);
    paint_patch(p, cloth(r), out);
  }
  if (r.chance(0.4f)) paint_many(r, out);
  const int limbs = r.chance(0.5f) ? r.below(7) : 0;
  for (int i = 0; i < limbs; i++) {  // arms, legs, hands: skin without a face
    patch p = any_patch(r, size * 0.1f * std::exp(r.within(-1.3f, 0.5f)));
    place(r, *out, &p);
    p.form = r.chance(0.5f) ? 3 : 1, p.pattern = 0, p.angle = r.within(0, kPi);
    p.color = skin_color(r), p.shading = r.within(0.2f, 0.9f), p.opaque = 1.0f;
    if (p.form == 3) p.high *= 0.4f;
    paint_patch(p, cloth(r), out);
  }
}

void paint_distractor(dice& r, picture* out) {
  const float size = static_cast<float>(out->height) * 0.2f * std::exp(r.within(-2.0f, 0.4f));
  const cloth rough(r);
  patch p = any_patch(r, size);
  place(r, *out, &p);
  p.form = r.chance(0.8f) ? 1 : 0, p.opaque = 1.0f, p.angle = 0.2f * r.normal(), p.pattern = 0;
  p.wide = size * r.within(0.6f, 1.1f), p.high = size;
  if (r.chance(0.6f)) p.color = skin_color(r);
  paint_patch(p, rough, out);
  const int dots = r.below(5);  // dots where eyes do not go, or balls without any
  for (int i = 0; i < dots; i++) {
    patch dot = any_patch(r, size * r.within(0.08f, 0.2f));
    dot.cx = p.cx + p.wide * r.within(-0.6f, 0.6f);
    dot.cy = p.cy + p.high * r.within(-0.6f, 0.6f);
    dot.form = r.below(2), dot.color = dot.color * r.unit();
    paint_patch(dot, rough, out);
  }
}

void paint_occluder(dice& r, const float (&box)[4], picture* out) {
  const float wide = box[2] - box[0], high = box[3] - box[1];
  const cloth rough(r);
  patch p = any_patch(r, 0.3f * wide);
  p.opaque = 1.0f;
  p.hides = true;
  p.cx = mix(box[0], box[2], r.chance(0.5f) ? r.within(-0.1f, 0.25f) : r.within(0.75f, 1.1f));
  p.cy = mix(box[1], box[3], r.within(0.0f, 1.1f));
  const int kind = r.below(3);
  if (kind == 0) {  // a bar across or beside
    p.form = 0, p.wide = wide * r.within(0.08f, 0.25f), p.high = 3.0f * high,
    p.angle = 0.4f * r.normal();
  } else if (kind == 1) {  // fingers
    p.form = 3, p.pattern = 0, p.color = skin_color(r), p.shading = 0.7f;
    p.wide = wide * r.within(0.07f, 0.13f), p.high = high * r.within(0.25f, 0.45f);
    p.angle = r.within(-0.7f, 0.7f);
    const int fingers = 2 + r.below(4);
    for (int i = 1; i < fingers; i++) {
      patch next = p;
      next.cx += 2.0f * p.wide * static_cast<float>(i) * std::cos(p.angle);
      next.cy +=
          2.0f * p.wide * static_cast<float>(i) * std::sin(p.angle) + r.within(-0.1f, 0.1f) * high;
      paint_patch(next, rough, out);
    }
  } else {  // from below: a cup, a telephone, a scarf
    p.cy = box[3] - r.within(-0.2f, 0.18f) * high;
    p.cx = mix(box[0], box[2], r.unit());
    p.form = r.below(2);
  }
  paint_patch(p, rough, out);
}

}  // namespace render

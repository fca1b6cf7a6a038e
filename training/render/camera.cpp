// Putting heads into pictures, and what lens, sensor and compression do to them.
#include <immintrin.h>

#include <cstring>

#include "scene.h"

namespace render {
namespace {

constexpr int kBlock = 8;

// The mean of the sprite over a square, by the pixels it touches: red, green, blue, alpha.
struct mean_color {
  float v[4];
};
mean_color mean_of(const sprite& s, float x1, float y1, float x2, float y2) {
  __m128 sum = _mm_setzero_ps();
  float weight = 0.0f;
  const int left = std::max(static_cast<int>(x1), 0), top = std::max(static_cast<int>(y1), 0);
  const int right = std::min(static_cast<int>(std::ceil(x2)), s.size);
  const int low = std::min(static_cast<int>(std::ceil(y2)), s.size);
  for (int y = top; y < low; y++) {
    const float wy = std::min(y2, y + 1.0f) - std::max(y1, static_cast<float>(y));
    const uint8_t* row = s.rgba + 4 * static_cast<size_t>(y * s.size);
    for (int x = left; x < right; x++) {
      const float w = wy * (std::min(x2, x + 1.0f) - std::max(x1, static_cast<float>(x)));
      int bytes;
      std::memcpy(&bytes, row + 4 * x, 4);
      const __m128 color = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(bytes)));
      sum = _mm_fmadd_ps(_mm_set1_ps(w), color, sum);
      weight += w;
    }
  }
  mean_color mean;
  _mm_storeu_ps(mean.v, _mm_div_ps(sum, _mm_set1_ps(std::max(weight, 1e-6f))));
  return mean;
}

// A box blur of width 2 * half + 1 along one direction: steps of one pixel.
void blur_along(float dx, float dy, int half, picture* out) {
  const std::vector<float> from = out->rgb;
  const float part = 1.0f / static_cast<float>(2 * half + 1);
  for (int y = 0; y < out->height; y++)
    for (int x = 0; x < out->width; x++) {
      float sum[3] = {0, 0, 0};
      for (int i = -half; i <= half; i++) {
        const int sx =
            std::min(std::max(static_cast<int>(std::lround(x + dx * i)), 0), out->width - 1);
        const int sy =
            std::min(std::max(static_cast<int>(std::lround(y + dy * i)), 0), out->height - 1);
        const float* p = &from[static_cast<size_t>(sy * out->width + sx) * 3];
        for (int c = 0; c < 3; c++) sum[c] += p[c];
      }
      for (int c = 0; c < 3; c++) out->at(x, y)[c] = sum[c] * part;
    }
}

void change_light(dice& r, picture* out) {
  float gain[3], lift[3];
  const float contrast = r.chance(0.12f) ? r.within(0.4f, 0.75f) : r.within(0.8f, 1.25f);
  const float bright = r.chance(0.1f) ? r.within(1.2f, 1.6f) : r.within(0.7f, 1.2f);
  const float cast = r.chance(0.25f) ? 0.11f : 0.03f;
  for (int c = 0; c < 3; c++) {
    gain[c] = contrast * bright * (1.0f + cast * r.normal());
    lift[c] = 128.0f * (1.0f - contrast) * r.within(0.6f, 1.3f);
  }
  const float gamma = r.chance(0.3f) ? std::exp(r.within(-0.5f, 0.5f)) : 1.0f;
  float curve[3][256];
  for (int c = 0; c < 3; c++)
    for (int i = 0; i < 256; i++)
      curve[c][i] = clamp(
          255.0f * std::pow(static_cast<float>(i) / 255.0f, gamma) * gain[c] + lift[c], 0, 255);
  for (size_t i = 0; i < out->rgb.size(); i++)
    out->rgb[i] = curve[i % 3][static_cast<int>(clamp(out->rgb[i], 0.0f, 255.0f))];
}

void drain_color(dice& r, picture* out) {
  const float keep = r.chance(0.6f) ? 0.0f : r.within(0.0f, 0.6f);
  for (size_t i = 0; i < out->rgb.size(); i += 3) {
    float* p = &out->rgb[i];
    const float grey = 0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2];
    for (int c = 0; c < 3; c++) p[c] = mix(grey, p[c], keep);
  }
}

struct cosines {
  float at[kBlock][kBlock];
  cosines() {
    for (int k = 0; k < kBlock; k++)
      for (int n = 0; n < kBlock; n++)
        at[k][n] = std::cos(kPi * (static_cast<float>(n) + 0.5f) * static_cast<float>(k) / kBlock) *
                   (k == 0 ? std::sqrt(1.0f / kBlock) : std::sqrt(2.0f / kBlock));
  }
};

// to = by * from * by transposed, or the inverse.
void transform(const cosines& by, bool inverse, float (&block)[kBlock][kBlock]) {
  float half[kBlock][kBlock];
  for (int i = 0; i < kBlock; i++)
    for (int j = 0; j < kBlock; j++) {
      float sum = 0.0f;
      for (int k = 0; k < kBlock; k++) sum += (inverse ? by.at[k][i] : by.at[i][k]) * block[k][j];
      half[i][j] = sum;
    }
  for (int i = 0; i < kBlock; i++)
    for (int j = 0; j < kBlock; j++) {
      float sum = 0.0f;
      for (int k = 0; k < kBlock; k++) sum += half[i][k] * (inverse ? by.at[k][j] : by.at[j][k]);
      block[i][j] = sum;
    }
}

}  // namespace

void paint_sprite(const sprite& head, const placing& where, picture* out) {
  const float size = where.scale * static_cast<float>(head.size), per = 1.0f / where.scale;
  const int x1 = std::max(static_cast<int>(where.x), 0);
  const int x2 = std::min(static_cast<int>(where.x + size), out->width - 1);
  const int y1 = std::max(static_cast<int>(where.y), 0);
  const int end = static_cast<int>(where.y + size) - 1;
  const int y2 = std::min(end + where.body, out->height - 1);
  const float gain[3] = {where.gain.x, where.gain.y, where.gain.z};
  const float reach = std::max(per, 1.0f);  // a square of at least one pixel smooths enlarging
  std::vector<mean_color> row(static_cast<size_t>(std::max(x2 + 1, 1)));
  for (int y = y1; y <= y2; y++)
    for (int x = x1; x <= x2; x++) {
      mean_color& c = row[static_cast<size_t>(x)];  // below the sprite that of its last row
      if (y <= end || y == y1) {
        const float dy = static_cast<float>(std::min(y, end)) - where.y;
        float u = (static_cast<float>(x) - where.x + 0.5f) * per;
        const float v = std::min((dy + 0.5f) * per, static_cast<float>(head.size) - 0.51f * reach);
        if (where.mirrored) u = static_cast<float>(head.size) - u;
        c = mean_of(head, u - 0.5f * reach, v - 0.5f * reach, u + 0.5f * reach, v + 0.5f * reach);
      }
      if (c.v[3] <= 0.0f) continue;
      float* to = out->at(x, y);
      const float behind = 1.0f - c.v[3] / 255.0f;
      const float fold = y > end ? 0.97f : 1.0f;
      for (int k = 0; k < 3; k++)
        to[k] = to[k] * behind + std::min(c.v[k] * gain[k] * fold, c.v[3]);
      if (c.v[3] > 127.0f) out->owner[static_cast<size_t>(y * out->width + x)] = where.owner;
    }
}

float seen_part(const picture& p, const float (&box)[4], uint8_t owner) {
  constexpr int kSteps = 12;
  int seen = 0, all = 0;
  const float dx = (box[2] - box[0]) / kSteps, dy = (box[3] - box[1]) / kSteps;
  for (int i = 0; i < kSteps; i++)
    for (int j = 0; j < kSteps; j++) {
      const float u = 2.0f * (j + 0.5f) / kSteps - 1.0f, v = 2.0f * (i + 0.5f) / kSteps - 1.0f;
      if (u * u + v * v > 1.0f) continue;  // corners of the box are not face
      const float x = box[0] + (j + 0.5f) * dx, y = box[1] + (i + 0.5f) * dy;
      all++;
      if (x < 0 || y < 0 || x >= p.width || y >= p.height) continue;
      const size_t at =
          static_cast<size_t>(y) * static_cast<size_t>(p.width) + static_cast<size_t>(x);
      seen += p.owner[at] == owner ? 1 : 0;
    }
  return static_cast<float>(seen) / static_cast<float>(all);
}

void add_noise(dice& r, float amount, picture* out) {
  auto state = static_cast<uint32_t>(r.next() | 1u);
  for (float& v : out->rgb) {
    state = state * 1664525u + 1013904223u;
    const float a = static_cast<float>(state >> 16) * (1.0f / 65536.0f);
    state = state * 1664525u + 1013904223u;
    const float b = static_cast<float>(state >> 16) * (1.0f / 65536.0f);
    v += amount * 2.45f * (a + b - 1.0f);
  }
}

void compress(float coarse, picture* out) {
  static const cosines by;
  const size_t count = static_cast<size_t>(out->width) * static_cast<size_t>(out->height);
  std::vector<float> planes(count * 3);
  for (size_t i = 0; i < count; i++) {
    const float* p = &out->rgb[3 * i];
    const float y = 0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2];
    planes[i] = y;
    planes[count + i] = p[2] - y;
    planes[2 * count + i] = p[0] - y;
  }
  for (int plane = 0; plane < 3; plane++)
    for (int y0 = 0; y0 + kBlock <= out->height; y0 += kBlock)
      for (int x0 = 0; x0 + kBlock <= out->width; x0 += kBlock) {
        float block[kBlock][kBlock];
        float* corner =
            &planes[static_cast<size_t>(plane) * count + static_cast<size_t>(y0 * out->width + x0)];
        for (int y = 0; y < kBlock; y++)
          for (int x = 0; x < kBlock; x++) block[y][x] = corner[y * out->width + x];
        transform(by, false, block);
        for (int y = 0; y < kBlock; y++)
          for (int x = 0; x < kBlock; x++) {
            const float step_size =
                coarse * (1.0f + 0.8f * static_cast<float>(x + y)) * (plane ? 2.0f : 1.0f);
            block[y][x] = std::nearbyint(block[y][x] / step_size) * step_size;
          }
        transform(by, true, block);
        for (int y = 0; y < kBlock; y++)
          for (int x = 0; x < kBlock; x++) corner[y * out->width + x] = block[y][x];
      }
  for (size_t i = 0; i < count; i++) {
    const float y = planes[i], b = planes[count + i] + y, red = planes[2 * count + i] + y;
    out->rgb[3 * i] = red;
    out->rgb[3 * i + 1] = (y - 0.299f * red - 0.114f * b) / 0.587f;
    out->rgb[3 * i + 2] = b;
  }
}

void spoil(dice& r, picture* out) {
  if (r.chance(0.2f)) {  // out of focus
    blur_along(1, 0, 1, out);
    blur_along(0, 1, 1, out);
  }
  if (r.chance(0.12f)) {  // moved
    const float angle = r.within(0, kPi);
    blur_along(std::cos(angle), std::sin(angle), 1 + r.below(out->height > 150 ? 4 : 3), out);
  }
  change_light(r, out);
  if (r.chance(0.15f)) drain_color(r, out);
  if (r.chance(0.6f)) add_noise(r, std::exp(r.within(0.0f, 2.5f)), out);
  if (r.chance(0.35f)) compress(std::exp(r.within(0.7f, 2.4f)), out);
  for (float& v : out->rgb) v = clamp(v, 0.0f, 255.0f);
}

}  // namespace render

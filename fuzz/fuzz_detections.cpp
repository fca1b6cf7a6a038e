// Suppression, decoding and priors on any boxes, each beside the plain formula.
#include <algorithm>
#include <cmath>
#include <vector>

#include "support/fuzz.h"

namespace {

using zyn_fuzz::check;
using zyn_fuzz::Input;
using Boxes = std::vector<zyn_detection>;
using Floats = std::vector<float>;

bool same(const zyn_detection& a, const zyn_detection& b) {
  const float *x = &a.x1, *y = &b.x1;
  return std::equal(x, x + 5, y, [](float v, float w) { return v == w || (v != v && w != w); });
}

// By falling score, equal ones in their order, NaN last; each survivor against all before.
Boxes greedy(Boxes boxes, float threshold) {
  const auto better = [](const zyn_detection& a, const zyn_detection& b) {
    return a.score > b.score || (b.score != b.score && a.score == a.score);
  };
  std::stable_sort(boxes.begin(), boxes.end(), better);
  const auto side = [](float a, float b) { return std::max(0.0f, b - a); };
  const auto area = [&](const zyn_detection& b) { return side(b.x1, b.x2) * side(b.y1, b.y2); };
  Boxes kept;
  for (const zyn_detection& b : boxes) {
    const bool stays = std::all_of(kept.begin(), kept.end(), [&](const zyn_detection& k) {
      const float common = side(std::max(k.x1, b.x1), std::min(k.x2, b.x2)) *
                           side(std::max(k.y1, b.y1), std::min(k.y2, b.y2));
      return threshold >= common / (area(b) + area(k) - common + 0.00001f);
    });
    if (stays) kept.push_back(b);
  }
  return kept;
}

void suppress(Input& in) {
  const bool many = in.one_in(128), wild = in.one_in(4), grid = in.one_in(2);
  Boxes boxes(many ? 70 + in.byte() : in.byte() % 24 + 1);
  uint32_t state = 1;
  for (zyn_detection& b : boxes) {
    const auto byte = [&] {
      return static_cast<float>(many ? (state = state * 1664525 + 1013904223) >> 24 : in.byte());
    };
    if (wild && in.one_in(4))
      b = {in.real(), in.real(), in.real(), in.real(), in.real()};
    else if (grid)  // equal scores, empty and inverted boxes
      b = {byte() / 16, byte() / 16, byte() / 8, byte() / 8, std::floor(byte() / 8)};
    else
      b = {byte(), byte(), byte(), byte(), byte() + byte() / 256}, b.x2 += b.x1, b.y2 += b.y1;
  }
  const float threshold = in.one_in(8) ? in.real() : static_cast<float>(in.byte()) / 200;
  const auto count = static_cast<int32_t>(boxes.size());
  Boxes out(boxes.size());
  const bool in_place = in.one_in(4);
  if (in_place) out = boxes;
  zyn_fuzz::Memory::bound(128 * int64_t{count} + 4096);
  const int32_t kept =
      zyn_ssd_nms(out.data(), in_place ? out.data() : boxes.data(), count, threshold);
  check(kept >= 1 && kept <= count, "the best box survives");
  const bool finite = std::all_of(boxes.begin(), boxes.end(), [](const zyn_detection& b) {
    return std::isfinite(b.x1) && std::isfinite(b.y1) && std::isfinite(b.x2) && std::isfinite(b.y2);
  });
  out.resize(static_cast<size_t>(kept));
  for (const zyn_detection& o : out)
    check(std::any_of(boxes.begin(), boxes.end(), [&](const auto& b) { return same(o, b); }),
          "survivors are boxes of the caller");
  for (size_t i = 1; i < out.size(); i++) check(!(out[i].score > out[i - 1].score), "scores fall");
  if (!finite) return;
  const Boxes expected = greedy(boxes, threshold);
  check(expected.size() == out.size() && std::equal(out.begin(), out.end(), expected.begin(), same),
        "survivors are those of the greedy rule");
}

bool close(float have, double want, double scale) {
  if (!(std::fabs(want) < 1e37 && scale < 1e37)) return true;  // may overflow on the way
  return std::fabs(static_cast<double>(have) - want) <= 1e-5 * scale + 1e-37;
}

void decode(Input& in) {
  const int32_t count = in.integer(-1, 20);
  Floats offsets(static_cast<size_t>(std::max(0, 4 * count))), priors = offsets;
  for (float& v : offsets) v = in.real();
  for (float& v : priors) v = in.one_in(16) ? in.real() : static_cast<float>(in.byte()) / 256;
  const float center = in.real(), size = in.real();
  const uint32_t where = in.byte() % 3;  // the result in its own place, or in an operand's
  const Floats l = offsets, p = priors;
  Floats own(l.size(), 7);
  Floats& boxes = where == 0 ? own : where == 1 ? offsets : priors;
  zyn_convert_locations_to_boxes(boxes.data(), offsets.data(), priors.data(), count, center, size);
  for (size_t i = 0; i < boxes.size(); i++) {
    const double offset = static_cast<double>(l[i]);
    if (i % 4 < 2) {
      const double shift = static_cast<double>(center) * offset * static_cast<double>(p[i + 2]);
      const double prior = static_cast<double>(p[i]);
      // The first product may overflow on the way, or lose digits below the normal range.
      const double first = std::fabs(static_cast<double>(center) * offset);
      if (!(first < 1e37) || (first < 1.2e-38 && first > 0)) continue;
      check(close(boxes[i], shift + prior, std::fabs(shift) + std::fabs(prior) + 1e-30),
            "a decoded centre");
    } else {
      const double power = static_cast<double>(size) * offset;
      if (power > 80 || power < -80) continue;
      const double extent = std::exp(power) * static_cast<double>(p[i]);
      check(close(boxes[i], extent, (1 + std::fabs(power)) * std::fabs(extent)), "a decoded size");
    }
  }
  const Floats centred = boxes;
  zyn_center_form_to_corner_form(boxes.data(), count);
  for (size_t i = 0; i < boxes.size(); i++) {
    const float half = 0.5f * centred[i | 2], middle = centred[i & ~size_t{2}];
    const float edge = i & 2 ? middle + half : middle - half;
    check(boxes[i] == edge || edge != edge, "a corner");
  }
}

void priors(Input& in) {
  static const uint32_t kSizes[7][2] = {{128, 96},  {160, 120}, {240, 180}, {320, 240},
                                        {480, 360}, {640, 480}, {1280, 960}};
  static const int kPixels[4][3] = {{10, 16, 24}, {32, 48, 0}, {64, 96, 0}, {128, 192, 256}};
  uint32_t map = in.byte() % 9 % 7, w = kSizes[map][0], h = kSizes[map][1];
  if (in.one_in(2))
    w = static_cast<uint32_t>(in.extreme()), h = static_cast<uint32_t>(in.extreme());
  for (map = 6; map > 0 && (w != kSizes[map][0] || h != kSizes[map][1]);) map--;
  const uint32_t turned = in.byte() % 3;
  zyn_tensor* t = zyn_generate_priors(h, w, turned);
  check((t != nullptr) == (w && h), "an input without pixels has no priors");
  if (!t) return;
  const auto* v = static_cast<const float*>(t->data);
  const float* const end = v + t->count;
  const auto clamped = [](double x) { return std::min(1.0, std::max(0.0, x)); };
  for (uint32_t level = 0; level < 4; level++) {
    const uint32_t cell = 8u << level;
    uint32_t columns = (kSizes[map][0] + cell - 1) / cell,
             rows = (kSizes[map][1] + cell - 1) / cell;
    // The cells' extents are those of the input before the turn.
    double shrink_x = static_cast<double>(w) / columns, shrink_y = static_cast<double>(h) / rows;
    const double width = turned ? h : w, height = turned ? w : h;
    if (turned) std::swap(columns, rows);
    for (uint32_t j = 0; j < rows; j++)
      for (uint32_t i = 0; i < columns; i++)
        for (int s = 0; s < 3 && kPixels[level][s]; s++, v += 4) {
          check(v + 4 <= end, "as many priors as cells and sizes");
          const double want[4] = {(i + 0.5) * shrink_x / width, (j + 0.5) * shrink_y / height,
                                  kPixels[level][s] / width, kPixels[level][s] / height};
          for (int k = 0; k < 4; k++)
            check(std::fabs(static_cast<double>(v[k]) - clamped(want[k])) < 1e-5, "a prior");
        }
  }
  check(v == end, "as many priors as cells and sizes");
  zyn_release_tensor(&t);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zyn_fuzz::Memory memory(size % 8 == 7, 1 << 21);
  Input in(data, size);
  const uint32_t kind = in.byte() % 16;
  if (kind == 15) return priors(in), 0;
  for (int rounds = 0; rounds < 4 && !in.empty(); rounds++) kind % 3 ? suppress(in) : decode(in);
  return 0;
}

// What Python calls: heads for the store, pictures for the detector, crops for the
// landmark network. Everything follows from the seeds alone.
#include <cstring>

#include "scene.h"

namespace render {
namespace {

constexpr int kTruthFloats = 228;  // head_truth in order, then who, then 1 for a face
constexpr int kPicturesPerPerson = 3;

struct stored {
  const uint8_t* heads;
  const float* truths;
  int first, count, size;

  sprite head(int i) const {
    return {heads + 4 * static_cast<size_t>(i) * static_cast<size_t>(size * size), size};
  }
  const float* truth(int i) const { return truths + static_cast<size_t>(i) * kTruthFloats; }
  int any(dice& r) const { return first + r.below(count); }
};
const float* box_of(const float* truth) { return truth + 3 * kPoints; }
bool is_face(const float* truth) { return truth[kTruthFloats - 1] > 0.5f; }

void pack(const head_truth& truth, int who, bool face, float* to) {
  for (int i = 0; i < kPoints; i++) {
    to[3 * i] = truth.points[i][0];
    to[3 * i + 1] = truth.points[i][1];
    to[3 * i + 2] = truth.visible[i];
  }
  to += 3 * kPoints;
  std::memcpy(to, truth.box, 4 * sizeof(float));
  std::memcpy(to + 4, truth.rotation, 9 * sizeof(float));
  std::memcpy(to + 13, truth.translation, 3 * sizeof(float));
  const float rest[] = {truth.focal,
                        truth.cx,
                        truth.cy,
                        truth.yaw,
                        truth.pitch,
                        truth.roll,
                        static_cast<float>(who),
                        face ? 1.0f : 0.0f};
  std::memcpy(to + 16, rest, sizeof(rest));
}

// The order of the landmarks in a mirrored picture.
int mirrored_point(int i) {
  if (i < 17) return 16 - i;
  if (i < 27) return 43 - i;
  if (i < 31) return i;
  if (i < 36) return 66 - i;
  if (i < 48) {
    const int order[] = {45, 44, 43, 42, 47, 46, 39, 38, 37, 36, 41, 40};
    return order[i - 36];
  }
  if (i < 55) return 102 - i;
  if (i < 60) return 114 - i;
  if (i < 65) return 124 - i;
  return 132 - i;
}

// A head's box in the picture it is placed in.
void placed_box(const placing& where, int size, const float* box, float (&out)[4]) {
  const float x1 = where.mirrored ? size - box[2] : box[0];
  const float x2 = where.mirrored ? size - box[0] : box[2];
  out[0] = where.x + where.scale * x1;
  out[1] = where.y + where.scale * box[1];
  out[2] = where.x + where.scale * x2;
  out[3] = where.y + where.scale * box[3];
}

float overlap(const float (&a)[4], const float (&b)[4]) {
  const float w = std::min(a[2], b[2]) - std::max(a[0], b[0]);
  const float h = std::min(a[3], b[3]) - std::max(a[1], b[1]);
  return w > 0 && h > 0
             ? w * h / std::min((a[2] - a[0]) * (a[3] - a[1]), (b[2] - b[0]) * (b[3] - b[1]))
             : 0;
}

vec3 any_gain(dice& r) {
  const float gain = std::exp(0.18f * r.normal());
  return {gain * (1 + 0.03f * r.normal()), gain, gain * (1 + 0.03f * r.normal())};
}

struct placed {
  int index;
  placing where;
  float box[4];
};

void to_bytes(const picture& p, uint8_t* rgb) {
  for (size_t i = 0; i < p.rgb.size(); i++)
    rgb[i] = static_cast<uint8_t>(clamp(p.rgb[i], 0.0f, 255.0f) + 0.5f);
}

// Chooses heads that do not cover each other much; small ones first.
std::vector<placed> choose_heads(dice& r, const stored& store, int width, int height) {
  std::vector<placed> heads;
  const int most = 1 + 7 * width * height / (320 * 240);
  const int wanted = r.chance(0.1f) ? 0 : 1 + r.below(1 + most);
  const float crowd = height * (wanted > 3 ? 0.65f : 0.85f);  // many faces are small
  const float common = std::exp(r.within(std::log(13.0f), std::log(0.7f * crowd)));
  const bool alike = r.chance(0.4f);  // a group at one distance
  for (int attempt = 0; attempt < wanted * 3 && static_cast<int>(heads.size()) < wanted;
       attempt++) {
    placed h{};
    h.index = store.any(r);
    const float* box = box_of(store.truth(h.index));
    const float high = alike ? common * r.within(0.85f, 1.18f)
                             : std::exp(r.within(std::log(12.0f), std::log(crowd)));
    h.where.scale = high / std::max(box[3] - box[1], 0.8f * (box[2] - box[0]));
    h.where.mirrored = r.chance(0.5f);
    h.where.gain = any_gain(r);
    h.where.x = r.within(0.02f, 0.98f) * width - 0.5f * h.where.scale * store.size;
    h.where.y = r.within(0.02f, 0.98f) * height - 0.5f * h.where.scale * store.size;
    h.where.body = static_cast<int>(high * r.within(0.5f, 5.0f));
    placed_box(h.where, store.size, box, h.box);
    bool free = true;
    for (const placed& other : heads) free = free && overlap(h.box, other.box) < 0.25f;
    if (free) heads.push_back(h);
  }
  std::sort(heads.begin(), heads.end(), [](const placed& a, const placed& b) {
    return a.box[3] - a.box[1] < b.box[3] - b.box[1];
  });
  return heads;
}

// One head large in a small picture, others around it; the crop's square is the picture.
std::vector<placed> choose_crop(dice& r, const stored& store, int side) {
  std::vector<placed> heads;
  const int others = r.chance(0.3f) ? 1 + r.below(2) : 0;
  for (int i = 0; i <= others; i++) {
    placed h{};
    do {
      h.index = store.any(r);
    } while (i == others && !is_face(store.truth(h.index)));
    const float* box = box_of(store.truth(h.index));
    const float larger = std::max(box[2] - box[0], box[3] - box[1]);
    const float wobble = i == others ? 0.04f : 0.8f;
    h.where.scale = static_cast<float>(side) / (1.25f * larger) * std::exp(0.055f * r.normal());
    h.where.mirrored = r.chance(0.5f);
    h.where.gain = any_gain(r);
    const float cx = 0.5f * (box[0] + box[2]), cy = 0.5f * (box[1] + box[3]);
    const float mx = h.where.mirrored ? store.size - cx : cx;
    h.where.x = side * (0.5f + wobble * r.normal()) - h.where.scale * mx;
    h.where.y = side * (0.5f + wobble * r.normal()) - h.where.scale * cy;
    h.where.body = side;
    placed_box(h.where, store.size, box, h.box);
    heads.push_back(h);
  }
  return heads;
}

void paint_heads(const stored& store, std::vector<placed>* heads, picture* out) {
  for (size_t i = 0; i < heads->size(); i++) {
    (*heads)[i].where.owner = static_cast<uint8_t>(i + 1);
    paint_sprite(store.head((*heads)[i].index), (*heads)[i].where, out);
  }
}

}  // namespace

extern "C" {

int render_truth_floats() { return kTruthFloats; }

// Head number index of a store: rgba size * size * 4, truth kTruthFloats. Some are seen from
// behind and count as no face.
void render_store_head(uint64_t seed, uint32_t index, int size, uint8_t* rgba, float* truth) {
  const uint64_t person = seed * 1000003u + index / kPicturesPerPerson;
  dice r(person * 64u + index % kPicturesPerPerson + 1u);
  const identity who = make_identity(person);
  const expression mood = make_expression(r);
  const lighting lights = make_lighting(r);
  const bool face = !r.chance(0.06f);
  float yaw = r.chance(0.6f) ? 25.0f * r.normal() : r.within(-75.0f, 75.0f);
  yaw = face ? clamp(yaw, -75.0f, 75.0f) : r.within(125.0f, 235.0f);
  const float pitch = clamp(13.0f * r.normal() - 2.0f, -35.0f, 35.0f);
  const float roll = clamp(13.0f * r.normal(), -40.0f, 40.0f);
  const float distance = std::exp(r.within(std::log(45.0f), std::log(260.0f)));
  const float middle = 0.5f * static_cast<float>(size);
  const camera view{0.42f * static_cast<float>(size) * distance / 15.0f, middle, middle, size,
                    size};
  const head_pose pose = make_pose(yaw, pitch, roll, {0.0f, -2.0f, distance});
  head_truth found{};
  render_head(who, mood, lights, pose, view, rgba, &found);
  found.yaw = yaw, found.pitch = pitch, found.roll = roll;
  pack(found, static_cast<int>(index / kPicturesPerPerson), face, truth);
}

// A picture for the detector: rgb width * height * 3; boxes 16 * 5: x1, y1, x2, y2 in
// pixels, 1 for a face that must be found or 0 for one too hidden or small to count.
int render_scene(uint64_t seed, const uint8_t* heads, const float* truths, int first, int count,
                 int size, int width, int height, uint8_t* rgb, float* boxes) {
  dice r(seed);
  const stored store{heads, truths, first, count, size};
  picture out(width, height);
  paint_background(r, &out);
  const int distractors = r.chance(0.5f) ? 1 + r.below(4) : 0;
  for (int i = 0; i < distractors; i++) paint_distractor(r, &out);
  std::vector<placed> chosen = choose_heads(r, store, width, height);
  paint_heads(store, &chosen, &out);
  for (const placed& h : chosen)
    if (r.chance(0.15f)) paint_occluder(r, h.box, &out);
  int found = 0;
  for (const placed& h : chosen) {
    if (!is_face(store.truth(h.index))) continue;
    const float seen = seen_part(out, h.box, h.where.owner);
    if (seen < 0.15f) continue;
    float* to = boxes + 5 * found++;
    std::memcpy(to, h.box, sizeof(h.box));
    to[4] = seen > 0.5f && h.box[3] - h.box[1] > 12.0f ? 1.0f : 0.0f;
  }
  spoil(r, &out);
  to_bytes(out, rgb);
  return found;
}

// A crop for the landmark network: rgb side * side * 3; points kPoints * 3: x, y from 0 to 1
// across the crop, 1 for seen. Returns the head's number.
int render_crop(uint64_t seed, const uint8_t* heads, const float* truths, int first, int count,
                int size, int side, uint8_t* rgb, float* points) {
  dice r(seed);
  const stored store{heads, truths, first, count, size};
  // Far faces have fewer pixels than the crop.
  const int real = r.chance(0.7f) ? side : static_cast<int>(side * r.within(0.35f, 1.0f));
  picture out(real, real);
  paint_background(r, &out);
  std::vector<placed> chosen = choose_crop(r, store, real);
  paint_heads(store, &chosen, &out);
  const placed& h = chosen.back();
  if (r.chance(0.15f)) paint_occluder(r, h.box, &out);
  if (r.chance(0.75f)) spoil(r, &out);
  const float* truth = store.truth(h.index);
  for (int i = 0; i < kPoints; i++) {
    const float* p = truth + 3 * (h.where.mirrored ? mirrored_point(i) : i);
    const float x = h.where.x + h.where.scale * (h.where.mirrored ? size - p[0] : p[0]);
    const float y = h.where.y + h.where.scale * p[1];
    const int column = static_cast<int>(x), row = static_cast<int>(y);
    const bool within = x >= 0 && y >= 0 && column < real && row < real;
    points[3 * i] = x / static_cast<float>(real);
    points[3 * i + 1] = y / static_cast<float>(real);
    // Points at the outline may lie just beside the head's own pixels.
    const bool hidden =
        within && out.owner[static_cast<size_t>(row * real + column)] == 0 && i >= 17;
    points[3 * i + 2] = p[2] * (hidden ? 0.0f : 1.0f);
  }
  picture full(side, side);
  const float per = static_cast<float>(real) / static_cast<float>(side);
  for (int y = 0; y < side; y++)
    for (int x = 0; x < side; x++) {
      const float u = clamp((x + 0.5f) * per - 0.5f, 0.0f, real - 1.001f);
      const float v = clamp((y + 0.5f) * per - 0.5f, 0.0f, real - 1.001f);
      const int iu = static_cast<int>(u), iv = static_cast<int>(v);
      for (int c = 0; c < 3; c++)
        full.at(x, y)[c] =
            mix(mix(out.at(iu, iv)[c], out.at(iu + 1, iv)[c], u - iu),
                mix(out.at(iu, iv + 1)[c], out.at(iu + 1, iv + 1)[c], u - iu), v - iv);
    }
  to_bytes(full, rgb);
  return h.index;
}

}  // extern "C"
}  // namespace render

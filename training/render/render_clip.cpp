// A clip of moving, crossing, partly hidden heads with the truth of every frame:
//   render_clip FOLDER [SEED [FRAMES [HEADS]]]
// writes FOLDER/frame_0000.bmp ... (640 x 480) and FOLDER/truth.json. The same arguments
// give the same bytes.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "scene.h"

namespace {

using namespace render;

constexpr int kWidth = 640, kHeight = 480, kRate = 25;
constexpr float kFocal = 640.0f;  // pixels
constexpr float kAround = 46.0f;  // cm of picture around a head
constexpr float kMiddleX = 0.5f * kWidth, kMiddleY = 0.5f * kHeight;

// A swing around a middle: two waves.
struct swing {
  float middle, wide, rate, phase;
  float at(float seconds) const {
    return middle + wide * (0.8f * std::sin(rate * seconds + phase) +
                            0.2f * std::sin(2.3f * rate * seconds + 2.0f * phase));
  }
};

struct actor {
  identity who;
  expression mood;
  swing x, y, z, yaw, pitch, roll, smile;
  float start;  // seconds at rest before it moves
  vec3 gain;
};

struct shown {
  int id;
  float box[4];
  head_truth truth;
  float depth, seen;
};

actor make_actor(dice& r, uint64_t seed, int index, int count) {
  actor a{};
  a.who = make_identity(seed * 1000u + static_cast<uint64_t>(index) + 500000u);
  a.mood = make_expression(r);
  for (float& lid : a.mood.lids) lid = std::max(lid, 0.6f);
  const float z = 105.0f + 28.0f * static_cast<float>(index) + r.within(-6.0f, 6.0f);
  const float reach = z * kMiddleX / kFocal;
  const auto any = [&](float middle, float wide, float rate) {
    return swing{middle, wide, rate * r.within(0.8f, 1.25f), r.within(0, 2 * kPi)};
  };
  // At first they stand side by side, then they cross.
  const int column = (index * 5 + 2) % count;
  const float place = (static_cast<float>(column) + 0.5f) / static_cast<float>(count) * 1.8f - 0.9f;
  a.x = any(0.0f, 0.8f * reach, 0.75f);
  a.x.phase = r.chance(0.5f) ? std::asin(place) : kPi - std::asin(place);
  a.y = any(r.within(-0.25f, -0.05f) * reach, 2.0f, 1.1f);
  a.z = any(z, 5.0f, 0.5f);
  a.yaw = any(0.0f, r.within(15.0f, 50.0f), 1.2f);
  a.pitch = any(-2.0f, 9.0f, 1.0f);
  a.roll = any(0.0f, 10.0f, 0.9f);
  a.smile = any(0.3f, 0.5f, 1.5f);
  a.start = 1.0f;
  const float gain = r.within(0.85f, 1.1f);
  a.gain = {gain, gain, gain};
  return a;
}

void paint_actor(const actor& a, const lighting& lights, float seconds, shown* out,
                 picture* frame) {
  const float t = std::max(seconds - a.start, 0.0f);
  const float moved = t * step(0.0f, 0.5f, t);  // starts softly
  const vec3 place{a.x.at(moved), a.y.at(moved), a.z.at(moved)};
  expression mood = a.mood;
  mood.smile = clamp(a.smile.at(moved), -0.2f, 1.0f);
  const head_pose pose = make_pose(a.yaw.at(moved), a.pitch.at(moved), a.roll.at(moved), place);
  const float per_cm = kFocal / place.z;
  const int size = static_cast<int>(kAround * per_cm);
  const int left = static_cast<int>(std::floor(kMiddleX + place.x * per_cm)) - size / 2;
  const int top = static_cast<int>(std::floor(kMiddleY + place.y * per_cm)) - size * 2 / 5;
  const camera view{kFocal, kMiddleX - static_cast<float>(left), kMiddleY - static_cast<float>(top),
                    size, size};
  std::vector<uint8_t> rgba(static_cast<size_t>(size * size) * 4);
  render_head(a.who, mood, lights, pose, view, rgba.data(), &out->truth);
  const placing where{1.0f,    static_cast<float>(left),     static_cast<float>(top), false, a.gain,
                      kHeight, static_cast<uint8_t>(out->id)};
  paint_sprite({rgba.data(), size}, where, frame);
  for (auto& p : out->truth.points) p[0] += left, p[1] += top;
  for (int i = 0; i < 4; i++)
    out->box[i] = out->truth.box[i] + static_cast<float>(i % 2 ? top : left);
  out->depth = place.z;
}

void write_bmp(const picture& p, const std::string& path) {
  const uint32_t bytes = kWidth * kHeight * 3;
  uint8_t head[54] = {'B', 'M'};
  const auto put = [&](int at, uint32_t value) {
    for (int i = 0; i < 4; i++) head[at + i] = static_cast<uint8_t>(value >> (8 * i));
  };
  put(2, 54 + bytes), put(10, 54), put(14, 40), put(18, kWidth), put(22, kHeight);
  head[26] = 1, head[28] = 24;
  put(34, bytes);
  std::vector<uint8_t> body;
  body.reserve(bytes);
  for (int y = kHeight - 1; y >= 0; y--)
    for (int x = 0; x < kWidth; x++)
      for (int c = 2; c >= 0; c--)
        body.push_back(static_cast<uint8_t>(
            clamp(p.rgb[static_cast<size_t>(y * kWidth + x) * 3 + static_cast<size_t>(c)], 0, 255) +
            0.5f));
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file || std::fwrite(head, 1, 54, file) != 54 ||
      std::fwrite(body.data(), 1, body.size(), file) != body.size() || std::fclose(file) != 0) {
    std::fprintf(stderr, "render_clip: cannot write %s\n", path.c_str());
    std::exit(1);
  }
}

void write_numbers(FILE* file, const char* name, const float* values, int count) {
  std::fprintf(file, ", \"%s\": [", name);
  for (int i = 0; i < count; i++) std::fprintf(file, "%s%.5g", i ? ", " : "", values[i]);
  std::fprintf(file, "]");
}

void write_face(FILE* file, const shown& face) {
  std::fprintf(file, "{\"id\": %d, \"visible\": %.3f", face.id, face.seen);
  write_numbers(file, "box", face.box, 4);
  write_numbers(file, "rotation", face.truth.rotation, 9);
  write_numbers(file, "translation", face.truth.translation, 3);
  write_numbers(file, "landmarks", face.truth.points[0], 2 * kPoints);
  write_numbers(file, "landmarks_visible", face.truth.visible, kPoints);
  std::fprintf(file, "}");
}

// Paints a frame from the farthest head to the nearest and measures what is seen of each.
std::vector<shown> paint_frame(const std::vector<actor>& actors, const lighting& lights,
                               float seconds, picture* frame) {
  std::vector<shown> faces;
  for (size_t i = actors.size(); i-- > 0;) {  // made from near to far
    shown face{};
    face.id = static_cast<int>(i) + 1;
    paint_actor(actors[i], lights, seconds, &face, frame);
    faces.push_back(face);
  }
  for (shown& face : faces) face.seen = seen_part(*frame, face.box, static_cast<uint8_t>(face.id));
  return faces;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 2 || arguments[1][0] == '-') {
    std::fprintf(stderr, "usage: render_clip FOLDER [SEED [FRAMES [HEADS]]]\n");
    return 2;
  }
  const auto number = [&](int i, int otherwise) {
    return count > i ? std::atoi(arguments[i]) : otherwise;
  };
  const int seed = number(2, 1), frames = number(3, 150), heads = std::min(number(4, 4), 8);
  const std::string folder = arguments[1];
  mkdir(folder.c_str(), 0777);
  dice r(static_cast<uint64_t>(seed) * 77u + 5u);
  picture background(kWidth, kHeight);
  paint_background(r, &background);
  const lighting lights = make_lighting(r);
  std::vector<actor> actors;
  for (int i = 0; i < heads; i++)
    actors.push_back(make_actor(r, static_cast<uint64_t>(seed), i, heads));
  FILE* file = std::fopen((folder + "/truth.json").c_str(), "w");
  if (!file) {
    std::fprintf(stderr, "render_clip: cannot write %s/truth.json\n", arguments[1]);
    return 1;
  }
  std::fprintf(file,
               "{\"width\": %d, \"height\": %d, \"rate\": %d, \"camera\": {\"focal\": %g, "
               "\"cx\": %g, \"cy\": %g},\n \"frames\": [",
               kWidth, kHeight, kRate, kFocal, kMiddleX, kMiddleY);
  for (int f = 0; f < frames; f++) {
    picture frame = background;
    const std::vector<shown> faces =
        paint_frame(actors, lights, static_cast<float>(f) / kRate, &frame);
    add_noise(r, 3.0f, &frame);
    compress(2.5f, &frame);
    char name[32];
    std::snprintf(name, sizeof(name), "/frame_%04d.bmp", f);
    write_bmp(frame, folder + name);
    std::fprintf(file, "%s\n  {\"index\": %d, \"time\": %.3f, \"faces\": [", f ? "," : "", f,
                 static_cast<float>(f) / kRate);
    for (size_t i = 0; i < faces.size(); i++) {
      if (i) std::fprintf(file, ",\n    ");
      write_face(file, faces[i]);
    }
    std::fprintf(file, "]}");
  }
  std::fprintf(file, "]}\n");
  return std::fclose(file) == 0 ? 0 : 1;
}

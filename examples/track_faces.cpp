// Follows made-up faces through forty frames; see kHelp.
#include <stdio.h>
#include <string.h>

#include <vector>

#include "../tools/options.h"
#include "zyncore.h"

namespace {

constexpr char kHelp[] =
    "usage: track_faces [tracks.bmp]\n"
    "\n"
    "Follows made-up faces through forty frames: two cross, one hides for a while and comes\n"
    "back, one arrives late and leaves. Prints what every frame lists and draws the tracks to a\n"
    "picture.\n";

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr int kFrames = 40;

struct Face {
  float x, y, size;        // centre and edge in frame 0
  float dx, dy;            // movement per frame
  int first, last;         // frames with a detection
  int hidden, hidden_end;  // without one in between
};

constexpr Face kFaces[] = {{60, 120, 60, 13, 1, 0, 99, 0, 0},
                           {580, 170, 70, -13, -1, 0, 99, 0, 0},
                           {320, 290, 50, 2, 0, 0, 99, 14, 17},
                           {520, 320, 44, -9, -3, 8, 27, 0, 0}};

// Everything a detector would have found in a frame. It is not sure to a few pixels.
std::vector<zyn_detection> detect(int frame) {
  std::vector<zyn_detection> found;
  unsigned noise = 2654435761u * static_cast<unsigned>(frame + 1);
  for (const Face& face : kFaces) {
    noise = noise * 1664525u + 1013904223u;
    const bool hides = frame >= face.hidden && frame < face.hidden_end;
    if (frame < face.first || frame > face.last || hides) continue;
    const float t = static_cast<float>(frame);
    const float x = face.x + face.dx * t + static_cast<float>(noise >> 16 & 3) - 1.5f;
    const float y = face.y + face.dy * t + static_cast<float>(noise >> 24 & 3) - 1.5f;
    const float half = face.size / 2;
    found.push_back({x - half, y - half, x + half, y + half, 0.9f});
  }
  return found;
}

// Which detection continues which track. Without tracks there is nothing to pair:
// every detection is unmatched.
zyn_sort_match_info* match(const std::vector<zyn_detection>& detections,
                           const zyn_track_info* predicted, float threshold) {
  const int count = static_cast<int>(detections.size());
  if (count == 0 || predicted->count == 0) {
    zyn_sort_match_info* info = zyn_create_sort_match_info(0, count);
    for (int d = 0; info && d < count; d++) info->unmatched[d] = d;
    return info;
  }
  std::vector<zyn_detection> tracks;
  for (int k = 0; k < predicted->count; k++) {
    const float* box = predicted->boxes + 4 * k;
    tracks.push_back({box[0], box[1], box[2], box[3], 0});
  }
  return zyn_associate_detections_to_trackers(detections.data(), count, tracks.data(),
                                              predicted->count, threshold);
}

void fill(zyn_image* image, float left, float top, float right, float bottom, uint32_t color) {
  for (int y = static_cast<int>(top); y <= static_cast<int>(bottom); y++)
    for (int x = static_cast<int>(left); x <= static_cast<int>(right); x++) {
      if (x < 0 || y < 0 || x >= image->cols || y >= image->rows) continue;
      uint8_t* pixel = static_cast<uint8_t*>(image->data) + y * image->row_bytes + 3 * x;
      for (int c = 0; c < 3; c++) pixel[c] = static_cast<uint8_t>(color >> (8 * c));
    }
}

void draw_frame(zyn_image* image, const float* box, uint32_t color) {
  fill(image, box[0], box[1], box[2], box[1] + 1, color);
  fill(image, box[0], box[3] - 1, box[2], box[3], color);
  fill(image, box[0], box[1], box[0] + 1, box[3], color);
  fill(image, box[2] - 1, box[1], box[2], box[3], color);
}

void show(zyn_image* image, const zyn_track_info* listed, int frame) {
  constexpr uint32_t kColors[] = {0x4060FF, 0xFF9030, 0x30C040, 0xD040C0, 0x20B0E0, 0x808080};
  for (int i = 0; i < listed->count; i++) {
    const float* box = listed->boxes + 4 * i;
    const uint32_t color = kColors[listed->ids[i] % 6];
    printf("  #%u %4.0f,%4.0f %3.0f x %3.0f", listed->ids[i], box[0], box[1], box[2] - box[0],
           box[3] - box[1]);
    const float x = (box[0] + box[2]) / 2, y = (box[1] + box[3]) / 2;
    fill(image, x - 2, y - 2, x + 2, y + 2, color);
    if (frame % 13 == 0) draw_frame(image, box, color);
  }
  printf("%s\n", listed->count ? "" : "  -");
}

// One frame of the cycle. Returns whether every call succeeded.
bool track(zyn_sort_handle* sort, const zyn_sort_param& param, int frame, zyn_image* image) {
  std::vector<zyn_detection> detections = detect(frame);
  const int count = static_cast<int>(detections.size());
  detections.reserve(1);  // an empty frame still hands over a pointer
  std::vector<int32_t> ids(detections.size());

  zyn_track_info* predicted = zyn_create_sort_predict(sort);
  zyn_sort_match_info* matches =
      predicted ? match(detections, predicted, param.iou_threshold) : nullptr;
  const bool updated = matches && zyn_sort_update_detection(detections.data(), ids.data(), nullptr,
                                                            count, matches, sort) == 0;
  zyn_track_info* listed = updated ? zyn_sort_get_track_info(sort) : nullptr;
  if (listed) {
    printf("%2d: %d found, %d tracked:", frame, count, listed->count);
    show(image, listed, frame);
  }
  const bool done = listed != nullptr;
  zyn_release_track_info(&listed);
  zyn_release_sort_match_info(&matches);
  zyn_release_track_info(&predicted);
  return done;
}

}  // namespace

int main(int argc, char** argv) {
  const cli::Line line(argc, argv, kHelp, {}, 1);
  const std::string path = line.words().empty() ? "tracks.bmp" : line.word(0);
  if (!cli::writable(path, true)) {
    fprintf(stderr, "%s cannot be written (its name must end in .bmp)\n", path.c_str());
    return 1;
  }
  const zyn_sort_param param = {5, 2, 0.3f, 0};
  zyn_sort_handle* sort = zyn_create_sort_handle(&param);
  zyn_image* image = zyn_create_image(kWidth, kHeight, ZYN_IMAGE_BGR);
  bool done = sort && image;
  if (done) memset(image->data, 0xF4, static_cast<size_t>(image->row_bytes) * kHeight);
  for (int frame = 0; done && frame < kFrames; frame++) done = track(sort, param, frame, image);
  if (done) done = zyn_image_write_to_file_with_level(path.c_str(), image) == 0;
  if (done) printf("drawn to %s\n", path.c_str());
  if (image) zyn_release_matrix(&image);
  if (sort) zyn_release_sort_handle(&sort);
  return done ? 0 : 1;
}

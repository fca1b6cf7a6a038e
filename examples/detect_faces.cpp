// Finds the faces in a photo (see kHelp). Uses the public header alone.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../tools/options.h"
#include "ssd320.h"

namespace {

using ssd320::Detector;
using ssd320::Image;

constexpr char kHelp[] =
    "usage: detect_faces [--model FILE.zynm] [--method 0|1|2] [--q-list FILE] [--draw OUT.bmp] "
    "[--verbose] [PHOTO.bmp]\n"
    "\n"
    "Finds the faces in a photo: one line \"x1 y1 x2 y2 score\" per face, in pixels of the photo.\n"
    "With --q-list, a file that zyn-quant writes, the network runs in 16-bit fixed point.\n"
    "\n"
    "Without --model the detector is ssd320.zynm in the folder that the environment variable\n"
    "ZYN_MODEL_DIR names, without a photo photo_a.bmp there. Where there is no such folder a\n"
    "model and a picture are generated: everything runs, but what is found means nothing.\n";
constexpr float kScoreThreshold = 0.7f;
constexpr float kOverlapThreshold = 0.3f;
constexpr int32_t kColour = 2;  // reading mode: blue, green, red
constexpr uint64_t kSeed = 2024;

struct Options {
  std::string model, photo, draw, q_list;
  uint32_t method;
  bool verbose;
};

bool failed(const std::string& complaint) {
  fprintf(stderr, "detect_faces: %s\n", complaint.c_str());
  return false;
}

Options parse(int argc, char** argv) {
  const cli::Line line(
      argc, argv, kHelp,
      {{"model", ""}, {"method", "2"}, {"q-list", ""}, {"draw", ""}, {"verbose", nullptr}}, 1);
  const std::string& method = line["method"];
  if (method != "0" && method != "1" && method != "2") line.wrong("no method " + method + "\n");
  Options options = {line["model"],
                     line.word(0),
                     line["draw"],
                     line["q-list"],
                     static_cast<uint32_t>(method[0] - '0'),
                     line.has("verbose")};
  const char* folder = getenv("ZYN_MODEL_DIR");
  if (folder && *folder) {
    if (options.model.empty()) options.model = std::string(folder) + "/ssd320.zynm";
    if (options.photo.empty()) options.photo = std::string(folder) + "/photo_a.bmp";
  }
  return options;
}

// A dark gradient with bright discs, so that there is something to look at.
Image generate_picture() {
  constexpr int32_t kCols = 640, kRows = 400;
  Image picture(zyn_create_image(kCols, kRows, ZYN_IMAGE_BGR));
  if (!picture) return picture;
  for (int32_t y = 0; y < kRows; y++) {
    uint8_t* row = static_cast<uint8_t*>(picture->data) + y * picture->row_bytes;
    for (int32_t x = 0; x < kCols; x++) {
      const int32_t dx = x % 160 - 80, dy = y % 200 - 100;
      const bool disc = dx * dx + dy * dy < 50 * 50;
      row[3 * x] = static_cast<uint8_t>(disc ? 150 : x * 120 / kCols);
      row[3 * x + 1] = static_cast<uint8_t>(disc ? 180 : y * 120 / kRows);
      row[3 * x + 2] = static_cast<uint8_t>(disc ? 220 : 60);
    }
  }
  return picture;
}

bool read_photo(const Options& options, Image* photo) {
  if (options.photo.empty()) {
    fprintf(stderr, "no photo given: using a generated picture\n");
    *photo = generate_picture();
    return *photo || failed("no memory for the picture");
  }
  photo->reset(zyn_create_image_from_file(options.photo.c_str(), kColour));
  return *photo || failed(options.photo + " cannot be read as a BMP file");
}

bool load_weights(const Options& options, Detector* detector) {
  if (options.model.empty()) {
    fprintf(stderr,
            "no model given (--model, or a folder in ZYN_MODEL_DIR): using random weights.\n"
            "What is found below means nothing.\n");
    detector->generate_weights(kSeed);
    return true;
  }
  if (zyn_cg_load_model(detector->weights(), detector->weight_count(), options.model.c_str()) !=
      ZYN_RET_OK)
    return failed(options.model + " cannot be read or is not an ssd320 model");
  return true;
}

// From fractions of the padded photo to pixels of the photo.
void map_to_photo(const ssd320::Padded& padded, std::vector<zyn_detection>* faces) {
  const auto width = static_cast<float>(padded.image->cols);
  const auto height = static_cast<float>(padded.image->rows);
  const auto left = static_cast<float>(padded.left), top = static_cast<float>(padded.top);
  for (zyn_detection& face : *faces) {
    face.x1 = face.x1 * width - left;
    face.x2 = face.x2 * width - left;
    face.y1 = face.y1 * height - top;
    face.y2 = face.y2 * height - top;
  }
}

// Draws the part of a filled rectangle that lies on the photo.
void fill_rectangle(zyn_image* photo, int32_t x1, int32_t y1, int32_t x2, int32_t y2) {
  static const uint8_t kGreen[3] = {0, 255, 0};
  for (int32_t y = std::max(y1, 0); y < std::min(y2, photo->rows); y++)
    for (int32_t x = std::max(x1, 0); x < std::min(x2, photo->cols); x++)
      memcpy(static_cast<uint8_t*>(photo->data) + y * photo->row_bytes + 3 * x, kGreen, 3);
}

void draw_box(zyn_image* photo, const zyn_detection& face) {
  // Clamped first: a float beyond 32 bits has no integer.
  const auto pixel = [](float v, int32_t limit) {
    return static_cast<int32_t>(std::min(std::max(v, -8.0f), static_cast<float>(limit + 8)));
  };
  const int32_t x1 = pixel(face.x1, photo->cols), x2 = pixel(face.x2, photo->cols);
  const int32_t y1 = pixel(face.y1, photo->rows), y2 = pixel(face.y2, photo->rows);
  constexpr int32_t kLine = 3;
  fill_rectangle(photo, x1, y1, x2, y1 + kLine);
  fill_rectangle(photo, x1, y2 - kLine, x2, y2);
  fill_rectangle(photo, x1, y1, x1 + kLine, y2);
  fill_rectangle(photo, x2 - kLine, y1, x2, y2);
}

bool draw(const std::string& file, zyn_image* photo, const std::vector<zyn_detection>& faces) {
  for (const zyn_detection& face : faces) draw_box(photo, face);
  if (zyn_image_write_to_file_with_level(file.c_str(), photo) != ZYN_RET_OK)
    return failed(file + " cannot be written");
  fprintf(stderr, "drawn: %s\n", file.c_str());
  return true;
}

bool detect(const Options& options) {
  Image photo;
  Detector detector;
  std::vector<uint32_t> q_list;
  if (!options.draw.empty() && !cli::writable(options.draw, true))
    return failed(options.draw + " cannot be written (its name must end in .bmp)");
  if (!read_photo(options, &photo)) return false;
  const ssd320::Padded padded = ssd320::pad(photo.get());
  if (!padded.image)
    return failed("the photo cannot be padded: its sides must be 1 to 4096 pixels");
  if (!options.q_list.empty() && !ssd320::read_q_list(options.q_list.c_str(), &q_list))
    return failed(options.q_list +
                  " cannot be read or is no list of fraction bits: a line \"node q\" for each of "
                  "the nodes 0 to " +
                  std::to_string(ssd320::convolutions().size()));
  if (!detector.create(options.method, q_list)) return failed("the network cannot be built");
  printf("\n");  // The notice of a new graph does not end its line.
  if (!load_weights(options, &detector)) return false;
  if (!detector.prepare())
    return failed("the network cannot be prepared with method " + std::to_string(options.method));
  if (!ssd320::fill_input(padded.image.get(), detector.input()))
    return failed("the photo cannot be resized");

  const double begin = zyn_get_current_system_time();
  std::vector<zyn_detection> faces;
  if (!detector.run() || !detector.faces(kScoreThreshold, kOverlapThreshold, &faces))
    return failed("the network cannot be run");
  const double milliseconds = zyn_get_current_system_time() - begin;

  map_to_photo(padded, &faces);
  for (const zyn_detection& f : faces)
    printf("%.2f %.2f %.2f %.2f %.6f\n", f.x1, f.y1, f.x2, f.y2, f.score);
  fprintf(stderr, "%zu boxes in a photo of %d x %d pixels, %s, %.1f ms\n", faces.size(),
          photo->cols, photo->rows,
          q_list.empty() ? ("method " + std::to_string(options.method)).c_str() : "fixed point",
          milliseconds);
  return options.draw.empty() || draw(options.draw, photo.get(), faces);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  const bool done = detect(options);
  if (options.verbose)
    fprintf(stderr, "library memory in use at exit: %llu bytes\n",
            static_cast<unsigned long long>(zyn_get_current_memory_size_occupation()));
  return done ? 0 : 1;
}

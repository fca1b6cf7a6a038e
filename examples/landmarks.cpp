// From an image crop to landmark coordinates; see kHelp.
#include <stdio.h>
#include <stdlib.h>

#include "../tools/options.h"
#include "landmark_network.h"

namespace {

constexpr char kHelp[] =
    "usage: landmarks [face.bmp x y width height]\n"
    "\n"
    "Crops the rectangle (pixels beyond the edge repeat it), scales it to 112 x 112, runs the\n"
    "landmark network and prints the points in pixels of the image. Without arguments a small\n"
    "picture is made up. The network's weights are seeded noise, so the points are no face;\n"
    "everything around them is what an application does.\n";

// The crop as network input; 0 or a code.
int32_t fill_input(zyn_tensor* input, const zyn_image* image, int32_t position[2],
                   const int32_t size[2]) {
  const int32_t side = LandmarkNetwork::kSide;
  zyn_image* crop = zyn_create_image(size[0], size[1], ZYN_IMAGE_BGR);
  zyn_image* scaled = zyn_create_image(side, side, ZYN_IMAGE_BGR);
  int32_t code = crop && scaled ? ZYN_RET_OK : ZYN_RET_ERR_MEMORY;
  if (!code) code = zyn_image_cropped_patch(crop, image, position, size);
  if (!code) code = zyn_image_resizer(scaled, crop, 1);
  if (!code) zyn_transform_image_data_for_pfld_detector(input, scaled);
  if (crop) zyn_release_matrix(&crop);
  if (scaled) zyn_release_matrix(&scaled);
  return code;
}

zyn_image* made_up_image() {
  zyn_image* image = zyn_create_image(160, 160, ZYN_IMAGE_BGR);
  if (!image) return nullptr;
  unsigned char* row = static_cast<unsigned char*>(image->data);
  for (int y = 0; y < 160; y++, row += image->row_bytes)
    for (int x = 0; x < 160; x++)
      for (int c = 0; c < 3; c++)
        row[3 * x + c] = static_cast<unsigned char>((x * (c + 1) + y * (3 - c)) / 2);
  return image;
}

}  // namespace

int main(int argc, char** argv) {
  const cli::Line line(argc, argv, kHelp, {}, 5);
  const bool given = !line.words().empty();
  int32_t rectangle[4] = {24, 24, 112, 112};  // x, y, width, height
  for (size_t i = 0; given && i < 4; i++) {
    const std::string word = line.word(i + 1);
    char* end = nullptr;
    rectangle[i] = static_cast<int32_t>(strtol(word.c_str(), &end, 10));
    if (word.empty() || *end) line.wrong("no rectangle: \"" + word + "\" is no number\n");
  }
  zyn_image* image = given ? zyn_create_image_from_file(line.word(0).c_str(), 2) : made_up_image();
  if (!image) {
    fprintf(stderr, "no image\n");
    return 1;
  }
  int32_t* const position = rectangle;
  const int32_t* const size = rectangle + 2;

  LandmarkNetwork network(1);
  int32_t code = network.build();
  if (!code) code = fill_input(network.input(), image, position, size);
  const double start = zyn_get_current_system_time();
  if (!code) code = network.run();
  if (code) {
    fprintf(stderr, "failed with code %d: %s\n", static_cast<int>(code), zyn_error_detail());
    zyn_release_matrix(&image);
    return 1;
  }
  printf("\n%.2f ms\n", zyn_get_current_system_time() - start);
  const float* points = static_cast<const float*>(network.output()->data);
  for (int i = 0; i < LandmarkNetwork::kPoints; i++)
    printf("%d: %.2f %.2f\n", i,
           static_cast<double>(static_cast<float>(position[0]) +
                               points[2 * i] * static_cast<float>(size[0])),
           static_cast<double>(static_cast<float>(position[1]) +
                               points[2 * i + 1] * static_cast<float>(size[1])));
  zyn_release_matrix(&image);
  return 0;
}

// Image operations on pairs of images in any formats and sizes, their buffers exact so
// that the sanitizer sees every step outside. A program is a run of small commands; its
// images go from one to the next.
#include "support/fuzz.h"

namespace {

using zyn_fuzz::check;
using zyn_fuzz::Input;

int64_t buffer_bytes(const zyn_image* image) {
  const int64_t luma = image->rows * image->row_bytes;
  if (image->format == ZYN_IMAGE_PLANAR) return 3 * luma;
  const bool halves = image->format == ZYN_IMAGE_I420 || image->format == ZYN_IMAGE_NV12 ||
                      image->format == ZYN_IMAGE_NV21;
  return halves ? luma * 3 / 2 : luma;
}

zyn_image* make_image(Input& input) {
  const uint32_t format = input.byte() % 15, fill = input.byte();
  const auto width = static_cast<int32_t>(input.byte() % 200 + 1);
  const auto height = static_cast<int32_t>(input.byte() % 40 + 1);
  zyn_image* image = zyn_create_image(width, height, format);
  check(image, "an image can be made");
  auto* bytes = static_cast<uint8_t*>(image->data);
  const int64_t count = buffer_bytes(image);
  for (int64_t i = 0; i < count; i++) bytes[i] = static_cast<uint8_t>(fill * i + (i >> 8));
  // Now and then a recreated image: planes are missing, the buffer is the first plane.
  if (fill == 77) {
    zyn_recreate_image(image, width + 3, height + 3);
    if (image->data) memset(image->data, 9, static_cast<size_t>(image->rows * image->row_bytes));
  }
  return image;
}

void run(Input& input, zyn_image* a, zyn_image* b) {
  int32_t position[2], size[2];
  switch (input.byte() % 6) {
    case 0:
      zyn_image_color_space_convert(a, b, input.byte() % 24);
      break;
    case 1:
      zyn_image_color_space_convert(a, a, 2 + (input.byte() & 1));
      break;
    case 2:
      zyn_image_resizer(a, b, static_cast<int32_t>(input.byte() % 3));
      break;
    case 3:
      position[0] = input.signed16();
      position[1] = input.signed16();
      size[0] = a->cols;
      size[1] = a->rows;
      zyn_image_cropped_patch(a, b, position, size);
      break;
    case 4:
      zyn_image_resizer(b, a, 1);
      break;
    default:
      zyn_image_color_space_convert(b, a, input.byte() % 24);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zyn_fuzz::Memory memory(size % 8 == 7, 16 * 203 * 43);
  Input input(data, size);
  zyn_image* a = make_image(input);
  zyn_image* b = make_image(input);
  for (int steps = 0; steps < 8 && !input.empty(); steps++) {
    run(input, a, b);
    // The next pair: legal ones often share format or size.
    const uint32_t next = input.byte() & 3;
    if (next == 0) continue;
    zyn_release_matrix(&b);
    b = next == 1 ? zyn_create_image(a->cols, a->rows, input.byte() % 15) : make_image(input);
    check(b, "an image can be made");
    if (next == 1) memset(b->data, 5, static_cast<size_t>(buffer_bytes(b)));
  }
  zyn_release_matrix(&a);
  zyn_release_matrix(&b);
  return 0;
}

// Any bytes as a BMP file, read in every mode. What is read must be whole: it is
// summed up, written out and read back.
#include "support/fuzz.h"

namespace {

using zyn_fuzz::check;

uint32_t sum_of(const zyn_image* image) {
  uint32_t sum = 0;
  const auto* bytes = static_cast<const uint8_t*>(image->data);
  for (int64_t i = 0; i < image->rows * image->row_bytes; i++) sum = sum * 31 + bytes[i];
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A header of 54 bytes may ask for a picture of any size: it must be there.
  zyn_fuzz::Memory memory(size % 8 == 7, 4096 + 64 * static_cast<int64_t>(size));
  for (int32_t mode = 0; mode < 3; mode++) {
    const char* path = zyn_fuzz::scratch_file(data, size);
    zyn_image* image = zyn_create_image_from_file(path, mode);
    if (!image) continue;
    const uint32_t sum = sum_of(image);
    check(zyn_image_write_to_file_with_level(path, image) == 0, "what is read can be written");
    zyn_image* back = zyn_create_image_from_file(path, 0);
    check(back && sum_of(back) == sum, "what is written can be read");
    zyn_release_matrix(&back);
    zyn_release_matrix(&image);
  }
  return 0;
}

// Any bytes as a BMP file, read in every mode. What is read must be whole: it is
// summed up, written out and read back.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zyncore.h"

namespace {

// A file of this process, in memory where the system has a place for it.
const char* scratch_file() {
  static char name[64];
  if (!name[0])
    snprintf(name, sizeof(name), "%s/zyn-fuzz-%d.bmp",
             access("/dev/shm", W_OK) ? "/tmp" : "/dev/shm", static_cast<int>(getpid()));
  return name;
}

uint32_t sum_of(const zyn_image* image) {
  uint32_t sum = 0;
  const auto* bytes = static_cast<const uint8_t*>(image->data);
  for (int64_t i = 0; i < image->rows * image->row_bytes; i++) sum = sum * 31 + bytes[i];
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* path = scratch_file();
  for (int32_t mode = 0; mode < 3; mode++) {
    FILE* stream = fopen(path, "wb");
    if (!stream) abort();
    fwrite(data, 1, size, stream);
    fclose(stream);
    zyn_image* image = zyn_create_image_from_file(path, mode);
    if (!image) continue;
    const uint32_t sum = sum_of(image);
    if (zyn_image_write_to_file_with_level(path, image) != 0) abort();
    zyn_image* back = zyn_create_image_from_file(path, 0);
    if (!back || sum_of(back) != sum) abort();
    zyn_release_matrix(&back);
    zyn_release_matrix(&image);
  }
  unlink(path);
  if (zyn_get_current_memory_size_occupation() != 0) abort();
  return 0;
}

// Writes image files: the choice by format and extension, and the BMP writer.
#include <stdio.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_platform.h"
#include "base/zyn_report.h"
#include "image/zyn_image.h"

namespace {

constexpr zyn_site kWriterArgs{kZynBmpCodecPath, 383, ZYN_MSG_PARA};
constexpr zyn_site kWriterOpen{kZynBmpCodecPath, 407, ZYN_MSG_OPEN_FILE};
constexpr zyn_site kImageArgs{kZynBmpCodecPath, 727, ZYN_MSG_PARA};
constexpr zyn_site kNeedsPng{kZynBmpCodecPath, 758, "48 bit must save to be PNG format!\n"};
constexpr zyn_site kExtension{kZynBmpCodecPath, 770, ZYN_MSG_NOT_SUPPORT};

constexpr int64_t kHeaders = 54;
constexpr int64_t kGrayPalette = 256 * 4;

void put(uint8_t* at, int64_t value, int bytes) {
  for (int i = 0; i < bytes; i++) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

bool write_bytes(FILE* stream, const uint8_t* bytes, int64_t count) {
  return fwrite(bytes, 1, static_cast<size_t>(count), stream) == static_cast<size_t>(count);
}

bool write_header(FILE* stream, const zyn_image* image, int32_t channels, int64_t offset,
                  int64_t bytes) {
  uint8_t header[kHeaders + kGrayPalette] = {'B', 'M'};
  put(header + 2, bytes + offset, 4);
  put(header + 10, offset, 4);
  put(header + 14, 40, 4);
  put(header + 18, image->cols, 4);
  put(header + 22, image->rows, 4);
  put(header + 26, 1, 2);
  put(header + 28, 8 * channels, 2);
  for (int i = 0; i < 256; i++) put(header + kHeaders + 4 * i, 0x010101 * i, 4);
  return write_bytes(stream, header, offset);
}

// image: format 0 or 2 with data.
int32_t write_bmp(const char* file_name, const zyn_image* image) {
  if (!file_name || !image || !image->data) return zyn_fail(kWriterArgs, ZYN_RET_ERR_PARA);
  const int32_t channels = image->format == ZYN_IMAGE_GRAY ? 1 : 3;
  const int64_t row = static_cast<int64_t>(channels) * image->cols;
  const int64_t padded = (row + 3) & ~int64_t{3};
  const int64_t offset = kHeaders + (channels == 1 ? kGrayPalette : 0);
  int64_t bytes = 0;
  if (!zyn_multiply(padded, image->rows, &bytes) || bytes > UINT32_MAX - offset)
    return ZYN_RET_ERR_NOT_SUPPORT;  // the header has 32 bits for it
  FILE* stream = zyn_platform_open(file_name, "wb");
  if (!stream) return zyn_fail(kWriterOpen, ZYN_RET_ERR_OPEN_FILE);
  static constexpr uint8_t kPadding[3] = {};
  bool complete = write_header(stream, image, channels, offset, bytes);
  for (int64_t y = image->rows - 1; complete && y >= 0; y--)
    complete = write_bytes(stream, zyn_first_plane(image).row(y), row) &&
               write_bytes(stream, kPadding, padded - row);
  return zyn_platform_finish(stream, file_name, complete) ? ZYN_RET_OK : ZYN_RET_ERR_OPEN_FILE;
}

bool is_one_of(const char* extension, const char* first, const char* second) {
  return strcmp(extension, first) == 0 || strcmp(extension, second) == 0;
}

int32_t write_by_extension(const char* file_name, const char* extension, const zyn_image* image) {
  if (is_one_of(extension, ".bmp", ".BMP")) return write_bmp(file_name, image);
  // There is no encoder for these: the name is accepted, nothing is written.
  if (is_one_of(extension, ".jpg", ".JPG") || is_one_of(extension, ".png", ".PNG"))
    return ZYN_RET_ERR_DATA_LENGTH;
  return zyn_fail(kExtension, ZYN_RET_ERR_NOT_SUPPORT);
}

int32_t write_i420(const char* file_name, const char* extension, zyn_image* image) {
  zyn_matrix_guard bgr(zyn_create_image(image->cols, image->rows, ZYN_IMAGE_BGR));
  if (!bgr) return ZYN_RET_ERR_MEMORY;
  if (zyn_image_color_space_convert(bgr.get(), image, ZYN_COLOR_I420_TO_BGR))
    return ZYN_RET_ERR_PARA;
  return write_by_extension(file_name, extension, bgr.get());
}

int32_t write_image(const char* file_name, zyn_image* image) {
  if (!file_name || !zyn_is_image(image) ||
      (image->format > ZYN_IMAGE_I420 && image->format != ZYN_IMAGE_BGR48))
    return zyn_fail(kImageArgs, ZYN_RET_ERR_PARA);
  const char* extension = strrchr(file_name, '.');
  if (!extension) return ZYN_RET_ERR_PARA;
  switch (image->format) {
    case ZYN_IMAGE_RGB:
      // On purpose: the caller's image is exchanged in place and stays format 0, even
      // where the extension is refused afterwards.
      zyn_image_color_space_convert(image, image, ZYN_COLOR_RGB_TO_BGR);
      return write_by_extension(file_name, extension, image);
    case ZYN_IMAGE_I420:
      return write_i420(file_name, extension, image);
    case ZYN_IMAGE_BGRA:
    case ZYN_IMAGE_RGBA:
    case ZYN_IMAGE_BGR48:
      return is_one_of(extension, ".png", ".PNG") ? int32_t{ZYN_RET_ERR_DATA_LENGTH}
                                                  : zyn_fail(kNeedsPng, ZYN_RET_ERR_DATA_LENGTH);
    default:
      return write_by_extension(file_name, extension, image);
  }
}

}  // namespace

int32_t zyn_image_write_to_file_with_level(const char* file_name, zyn_image* image) {
  const int32_t code = write_image(file_name, image);
  if (code == ZYN_RET_OK || code == ZYN_RET_ERR_MEMORY) return code;
  if (!file_name || !image) return zyn_refuse_null("the file's name or the image");
  if (code == ZYN_RET_ERR_OPEN_FILE)
    return zyn_refuse(code, "'%s' cannot be opened or not be written to its end", file_name);
  return zyn_refuse(code,
                    "images with data of formats 0, 1, 2 and 5, below 4 GB, are written to names "
                    "that end in .bmp or .BMP, found format %u, '%s'",
                    image->format, file_name);
}

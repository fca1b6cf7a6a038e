// Rectangles of an image, with the edge pixels repeated outside of it.
#include <string.h>

#include "base/zyn_explain.h"
#include "image/zyn_image.h"

namespace {

int64_t clamp(int64_t value, int64_t last) { return value < 0 ? 0 : value > last ? last : value; }

// count copies of one pixel: a block of what is there is doubled until it suffices.
void repeat_pixel(uint8_t* out, const uint8_t* pixel, int64_t count, int32_t pixel_bytes) {
  const int64_t bytes = count * pixel_bytes;
  if (bytes <= 0) return;
  memcpy(out, pixel, static_cast<size_t>(pixel_bytes));
  for (int64_t done = pixel_bytes; done < bytes;) {
    const int64_t block = done < bytes - done ? done : bytes - done;
    memcpy(out + done, out, static_cast<size_t>(block));
    done += block;
  }
}

// The rectangle of destination's size at (x, y) of source: pixels left of the source,
// a block inside of it, pixels right of it. Rows above and below repeat the row
// that was just made.
void crop_plane(const zyn_plane& destination, const zyn_plane& source, int32_t pixel_bytes,
                int64_t x, int64_t y) {
  const int64_t width = destination.width, last = source.width - 1;
  const int64_t left = clamp(-x, width);
  const int64_t inside_end = clamp(source.width - x, width);
  const int64_t inside = inside_end > left ? inside_end - left : 0;
  const int64_t right = width - left - inside;
  int64_t before = -1;
  for (int64_t r = 0; r < destination.height; r++) {
    uint8_t* out = destination.row(r);
    const int64_t from = clamp(y + r, source.height - 1);
    if (from == before) {
      memcpy(out, destination.row(r - 1), static_cast<size_t>(width * pixel_bytes));
      continue;
    }
    before = from;
    const uint8_t* row = source.row(from);
    repeat_pixel(out, row, left, pixel_bytes);
    out += left * pixel_bytes;
    if (inside)
      memcpy(out, row + (x + left) * pixel_bytes, static_cast<size_t>(inside * pixel_bytes));
    repeat_pixel(out + inside * pixel_bytes, row + last * pixel_bytes, right, pixel_bytes);
  }
}

int32_t crop_i420(zyn_image* destination, const zyn_image* source, int32_t position[2]) {
  zyn_plane to[3], from[3];
  if (!zyn_i420_planes_half_stride(destination, to) || !zyn_i420_planes_half_stride(source, from))
    return zyn_refuse(ZYN_RET_ERR_PARA, "an image of format 5 lacks a plane");
  crop_plane(to[0], from[0], 1, position[0], position[1]);
  // On purpose: the caller's position stays halved.
  position[0] >>= 1;
  position[1] >>= 1;
  for (int k = 1; k < 3; k++) {
    if (to[k].width == 0 || to[k].height == 0) continue;
    if (from[k].width == 0 || from[k].height == 0) {
      // A source of one row or column has no chroma to repeat.
      for (int32_t y = 0; y < to[k].height; y++)
        memset(to[k].row(y), 128, static_cast<size_t>(to[k].width));
      continue;
    }
    crop_plane(to[k], from[k], 1, position[0], position[1]);
  }
  return ZYN_RET_OK;
}

constexpr char kNeeded[] =
    "a position and a destination of the size, with the source's pixels, are";
constexpr char kFormats[] = "packed pixels of one or three channels, or format 5, are";
constexpr char kApart[] = "images that share no pixels are";

}  // namespace

int32_t zyn_image_cropped_patch(zyn_image* destination, const zyn_image* source,
                                int32_t position[2], const int32_t size[2]) {
  if (!zyn_is_image(destination) || !zyn_is_image(source) || !position || !size ||
      destination->cols != size[0] || destination->rows != size[1] ||
      destination->channels != source->channels ||
      destination->element_size != source->element_size)
    return zyn_refuse_images(ZYN_RET_ERR_PARA, kNeeded, destination, source);
  const zyn_image_layout layout = zyn_layout_of(source->format);
  if (layout != zyn_layout_of(destination->format))
    return zyn_refuse_images(ZYN_RET_ERR_PARA, kNeeded, destination, source);
  const bool i420 = layout == zyn_image_layout::i420;
  if (!i420 &&
      (layout != zyn_image_layout::packed || (source->channels != 3 && source->channels != 1)))
    return zyn_refuse_images(ZYN_RET_ERR_NOT_SUPPORT, kFormats, destination, source);
  if (zyn_images_overlap(destination, source, true))
    return zyn_refuse_images(ZYN_RET_ERR_PARA, kApart, destination, source);
  if (i420) return crop_i420(destination, source, position);
  crop_plane(zyn_first_plane(destination), zyn_first_plane(source), zyn_pixel_bytes(source),
             position[0], position[1]);
  return ZYN_RET_OK;
}

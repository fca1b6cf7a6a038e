// Images padded to an aspect ratio, and patches on a cleared canvas. Packed formats
// have one plane; format 5 has a luma plane and two chroma planes of half the size,
// with positions and sizes halved by an arithmetic shift.
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "image/zyn_image.h"

namespace {

constexpr int32_t kLargestSide = 4096;
constexpr uint8_t kBlack = 0;
constexpr uint8_t kNoChroma = 128;

// A rectangle of pixels in memory.
template <typename Byte>
struct plane_of {
  Byte* data;
  int64_t stride;       // bytes
  int32_t cols, rows;   // pixels
  int64_t pixel_bytes;  // bytes

  int64_t used() const { return cols * pixel_bytes; }
  // Whether there is memory behind it, with room for every row.
  bool sound() const { return rows < 1 || (data && stride >= used()); }
};
using target_plane = plane_of<uint8_t>;
using source_plane = plane_of<const uint8_t>;

template <typename Byte>
plane_of<Byte> main_plane(const zyn_image* image) {
  const bool packed = image->format != ZYN_IMAGE_I420;
  return {static_cast<Byte*>(image->data), image->row_bytes, image->cols, image->rows,
          packed ? static_cast<int64_t>(image->element_size) * image->channels : 1};
}

template <typename Byte>
plane_of<Byte> chroma_plane(const zyn_image* image, int32_t which) {
  return {static_cast<Byte*>(which ? image->plane2 : image->plane1),
          which ? image->plane2_bytes : image->plane1_bytes, image->cols >> 1, image->rows >> 1, 1};
}

bool planes_sound(const zyn_image* image) {
  if (!main_plane<const uint8_t>(image).sound()) return false;
  return image->format != ZYN_IMAGE_I420 || (chroma_plane<const uint8_t>(image, 0).sound() &&
                                             chroma_plane<const uint8_t>(image, 1).sound());
}

void copy_rows(uint8_t* to, int64_t to_stride, const uint8_t* from, int64_t from_stride,
               int64_t bytes, int64_t rows) {
  if (bytes < 1 || rows < 1) return;
  if (bytes == to_stride && bytes == from_stride) {
    memcpy(to, from, static_cast<size_t>(bytes * rows));
    return;
  }
  for (int64_t y = 0; y < rows; y++)
    memcpy(to + y * to_stride, from + y * from_stride, static_cast<size_t>(bytes));
}

void fill(uint8_t* to, uint8_t value, int64_t bytes) {
  if (bytes > 0) memset(to, value, static_cast<size_t>(bytes));
}

// Copies source into target at (left, top) and makes everything around it black, up to
// the stride.
void copy_with_margins(const target_plane& target, const source_plane& source, int32_t top,
                       int32_t left) {
  const int64_t before = left * target.pixel_bytes;
  const int64_t after = target.stride - before - source.used();
  uint8_t* first = target.data + top * target.stride;
  fill(target.data, kBlack, top * target.stride);
  copy_rows(first + before, target.stride, source.data, source.stride, source.used(), source.rows);
  for (int64_t y = 0; (before || after) && y < source.rows; y++) {
    fill(first + y * target.stride, kBlack, before);
    fill(first + y * target.stride + before + source.used(), kBlack, after);
  }
  fill(first + source.rows * target.stride, kBlack,
       static_cast<int64_t>(target.rows - top - source.rows) * target.stride);
}

// Fills target with its border and the source at (left, top); target comes from
// zyn_create_image, in the source's format.
int32_t copy_bordered(zyn_image* target, const zyn_image* source, int32_t top, int32_t left) {
  const uint32_t format = source->format;
  if (format != ZYN_IMAGE_BGR && format != ZYN_IMAGE_RGB && format != ZYN_IMAGE_I420)
    return ZYN_RET_ERR_PARA;
  if (!planes_sound(source)) return ZYN_RET_ERR_PARA;
  const auto from = main_plane<const uint8_t>(source);
  const auto to = main_plane<uint8_t>(target);
  if (from.pixel_bytes != to.pixel_bytes) return ZYN_RET_ERR_PARA;
  copy_with_margins(to, from, top, left);
  if (format != ZYN_IMAGE_I420) return ZYN_RET_OK;
  for (int32_t which = 0; which < 2; which++) {
    const auto chroma = chroma_plane<uint8_t>(target, which);
    const auto chroma_from = chroma_plane<const uint8_t>(source, which);
    // The whole plane first, half a row at an odd height included: halved margins and
    // halved sizes need not add up to the halved target.
    fill(chroma.data, kNoChroma, target->row_bytes * target->rows / 4);
    copy_rows(chroma.data + (top >> 1) * chroma.stride + (left >> 1), chroma.stride,
              chroma_from.data, chroma_from.stride, chroma_from.used(), chroma_from.rows);
  }
  return ZYN_RET_OK;
}

// truncate(wanted + 0.5) - extent where that is positive, else 0; false when wanted is
// beyond 32 bits.
bool extra_pixels(float wanted, int32_t extent, int32_t* extra) {
  const float rounded = wanted + 0.5f;
  if (!(rounded < 2147483648.0f)) return false;
  const int32_t more = static_cast<int32_t>(rounded) - extent;
  *extra = more > 0 ? more : 0;
  return true;
}

bool side_in_range(int32_t side) { return side >= 1 && side <= kLargestSide; }

struct point {
  int32_t x, y;
};

// What a patch needs to know to be copied from one plane to another.
struct patch {
  point to, from;
  int32_t width, height;

  patch halved() const {
    return {{to.x >> 1, to.y >> 1}, {from.x >> 1, from.y >> 1}, width >> 1, height >> 1};
  }
};

bool fits(point position, const patch& p, int32_t cols, int32_t rows) {
  return static_cast<int64_t>(position.x) + p.width <= cols &&
         static_cast<int64_t>(position.y) + p.height <= rows;
}

// A patch that fits can lie outside above only.
int64_t clamp_row(int64_t row) { return row < 0 ? 0 : row; }

// On purpose: a patch that begins left of a plane is not copied at all, one that begins
// above it repeats the first row.
void copy_patch(const target_plane& target, const source_plane& source, const patch& p) {
  if (p.to.x < 0 || p.from.x < 0 || p.width < 1 || target.rows < 1 || source.rows < 1) return;
  if (static_cast<int64_t>(p.to.x) + p.width > target.cols ||
      static_cast<int64_t>(p.from.x) + p.width > source.cols)
    return;
  uint8_t* to = target.data + p.to.x * target.pixel_bytes;
  const uint8_t* from = source.data + p.from.x * source.pixel_bytes;
  const int64_t bytes = p.width * target.pixel_bytes;
  if (p.to.y >= 0 && p.from.y >= 0) {
    copy_rows(to + p.to.y * target.stride, target.stride, from + p.from.y * source.stride,
              source.stride, bytes, p.height);
    return;
  }
  for (int64_t r = 0; r < p.height; r++)
    memcpy(to + clamp_row(p.to.y + r) * target.stride,
           from + clamp_row(p.from.y + r) * source.stride, static_cast<size_t>(bytes));
}

// Whether clearing and filling target would change a byte of source.
bool touches(const target_plane& target, const source_plane& source) {
  const zyn_plane cleared = {target.data, 0, 1, 1};
  const zyn_plane read = {const_cast<uint8_t*>(source.data), source.stride, source.cols,
                          source.rows};
  return zyn_planes_overlap(cleared, target.stride * target.rows, read, source.used());
}

bool touches(zyn_image* target, const zyn_image* source) {
  const int32_t planes = target->format == ZYN_IMAGE_I420 ? 3 : 1;
  for (int32_t i = 0; i < planes * planes; i++) {
    const int32_t to = i / planes, from = i % planes;
    if (touches(to ? chroma_plane<uint8_t>(target, to - 1) : main_plane<uint8_t>(target),
                from ? chroma_plane<const uint8_t>(source, from - 1)
                     : main_plane<const uint8_t>(source)))
      return true;
  }
  return false;
}

int32_t check_patch(const zyn_image* target, const zyn_image* source, const patch& p) {
  if (target->channels != source->channels ||
      zyn_layout_of(target->format) != zyn_layout_of(source->format) ||
      target->element_size != source->element_size)
    return ZYN_RET_ERR_PARA;
  if (target->cols < 1 || target->rows < 1) return ZYN_RET_ERR_PARA;
  if (p.width < 1 || p.height < 1 || p.width > source->cols || p.height > source->rows ||
      !fits(p.to, p, target->cols, target->rows) || !fits(p.from, p, source->cols, source->rows))
    return ZYN_RET_ERR_PARA;
  const zyn_image_layout layout = zyn_layout_of(target->format);
  if (layout == zyn_image_layout::planar || layout == zyn_image_layout::two_plane)
    return ZYN_RET_ERR_NOT_SUPPORT;
  if (layout == zyn_image_layout::packed && target->channels != 1 && target->channels != 3)
    return ZYN_RET_ERR_NOT_SUPPORT;
  return planes_sound(target) && planes_sound(source) ? ZYN_RET_OK : ZYN_RET_ERR_PARA;
}

zyn_image* make_border_image(int32_t* top, int32_t* bottom, int32_t* left, int32_t* right,
                             const zyn_image* source, float ratio) {
  if (!top || !bottom || !left || !right || !source || !(ratio > 0)) return nullptr;
  const int32_t width = source->cols, height = source->rows;
  if (!side_in_range(width) || !side_in_range(height)) return nullptr;
  int32_t extra_height = 0, extra_width = 0;
  if (!extra_pixels(static_cast<float>(width) * ratio, height, &extra_height) ||
      !extra_pixels(static_cast<float>(height) / ratio, width, &extra_width))
    return nullptr;
  const int32_t above = extra_height / 2, before = extra_width / 2;
  zyn_matrix_guard image(
      zyn_create_image(width + extra_width, height + extra_height, source->format));
  if (!image || copy_bordered(image.get(), source, above, before) != ZYN_RET_OK) return nullptr;
  *top = above;
  *bottom = extra_height - above;
  *left = before;
  *right = extra_width - before;
  return image.take();
}

int32_t copy_cropped(zyn_image* destination, const int32_t destination_position[2],
                     const zyn_image* source, const int32_t source_position[2],
                     const int32_t size[2]) {
  const patch p{{destination_position[0], destination_position[1]},
                {source_position[0], source_position[1]},
                size[0],
                size[1]};
  const int32_t code = check_patch(destination, source, p);
  if (code != ZYN_RET_OK) return code;
  if (touches(destination, source)) return ZYN_RET_ERR_PARA;
  const auto to = main_plane<uint8_t>(destination);
  fill(to.data, kBlack, to.rows * to.stride);
  copy_patch(to, main_plane<const uint8_t>(source), p);
  if (destination->format != ZYN_IMAGE_I420) return ZYN_RET_OK;
  for (int32_t which = 0; which < 2; which++) {
    const auto chroma = chroma_plane<uint8_t>(destination, which);
    fill(chroma.data, kNoChroma, chroma.rows * chroma.stride);
    copy_patch(chroma, chroma_plane<const uint8_t>(source, which), p.halved());
  }
  return ZYN_RET_OK;
}

}  // namespace

zyn_image* zyn_create_border_image(int32_t* top, int32_t* bottom, int32_t* left, int32_t* right,
                                   const zyn_image* source, float ratio) {
  const zyn_explanation_mark mark;
  zyn_image* image = make_border_image(top, bottom, left, right, source, ratio);
  if (!image && !source) zyn_refuse_null("the source");
  if (!image && !mark.passed())
    zyn_explain(
        "margins, an image with data of format 0, 1 or 5 with sides of 1 to 4096, and a ratio "
        "above 0 that makes no side of 2^31 are needed, found %d x %d of format %u, ratio %g",
        source->cols, source->rows, source->format, static_cast<double>(ratio));
  return image;
}

int32_t zyn_image_cropped_patch_with_border(zyn_image* destination,
                                            const int32_t destination_position[2],
                                            const zyn_image* source,
                                            const int32_t source_position[2],
                                            const int32_t size[2]) {
  if (!destination_position || !source_position || !size)
    return zyn_refuse_null("a position or the size");
  const int32_t code = destination && source ? copy_cropped(destination, destination_position,
                                                            source, source_position, size)
                                             : int32_t{ZYN_RET_ERR_PARA};
  if (code == ZYN_RET_OK) return code;
  return zyn_refuse_images(
      code,
      code == ZYN_RET_ERR_NOT_SUPPORT
          ? "packed pixels of one or three channels, or format 5, are"
          : "a patch inside both images, which have like pixels and share none, is",
      destination, source);
}

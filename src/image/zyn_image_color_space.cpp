// Colour conversion: checks, the walk over rows and planes, and what odd sizes need.
// The arithmetic of a row lives in zyn_image_rows.
#include <string.h>

#include "base/zyn_report.h"
#include "image/zyn_image.h"
#include "image/zyn_image_rows.h"

namespace {

constexpr const char* kPath = "src/image/zyn_image_color_space.cpp";
constexpr const char* kParameters = "Color space parameters error!";
constexpr zyn_site kImages{kPath, 73, ZYN_MSG_PARA};
constexpr zyn_site kBgrToI420{kPath, 88, ZYN_MSG_PARA};
constexpr zyn_site kI420ToBgr{kPath, 106, ZYN_MSG_PARA};
constexpr zyn_site kToGray{kPath, 128, ZYN_MSG_PARA};
constexpr zyn_site kToSigned{kPath, 136, ZYN_MSG_PARA};
constexpr zyn_site kFromSigned{kPath, 148, ZYN_MSG_PARA};
constexpr zyn_site kSplit{kPath, 182, kParameters};
constexpr zyn_site kMerge{kPath, 202, kParameters};

using row_function = void (*)(uint8_t*, const uint8_t*, int64_t);

// Rows that follow each other without a gap on both sides are taken as one.
void each_row(const zyn_plane& destination, int32_t destination_bytes, const zyn_plane& source,
              int32_t source_bytes, row_function row) {
  int64_t width = source.width, rows = source.height;
  if (destination.stride == width * destination_bytes && source.stride == width * source_bytes) {
    width *= rows;
    rows = 1;
  }
  for (int64_t y = 0; y < rows; y++) row(destination.row(y), source.row(y), width);
}

int32_t convert_packed(zyn_image* destination, const zyn_image* source, row_function row) {
  each_row(zyn_first_plane(destination), zyn_pixel_bytes(destination), zyn_first_plane(source),
           zyn_pixel_bytes(source), row);
  return ZYN_RET_OK;
}

// Whether writing destination could spoil source: they share pixels, but not one packed
// buffer in which every pixel goes to its own place.
bool spoils(const zyn_image* destination, const zyn_image* source) {
  const bool in_place = destination->data == source->data &&
                        destination->row_bytes == source->row_bytes &&
                        zyn_layout_of(destination->format) == zyn_image_layout::packed &&
                        zyn_layout_of(source->format) == zyn_image_layout::packed &&
                        zyn_pixel_bytes(destination) == zyn_pixel_bytes(source);
  return !in_place && zyn_images_overlap(destination, source, false);
}

int32_t to_gray(zyn_image* destination, const zyn_image* source) {
  if (source->format != ZYN_IMAGE_BGR ||
      (destination->format != ZYN_IMAGE_BGR && destination->format != ZYN_IMAGE_GRAY) ||
      spoils(destination, source))
    return zyn_fail(kToGray, ZYN_RET_ERR_PARA);
  return convert_packed(destination, source,
                        destination->format == ZYN_IMAGE_BGR ? zyn_gray3_row : zyn_gray_row);
}

// Null: pixels of this kind have no first and third value to exchange.
row_function swap_row_of(const zyn_image* image) {
  if (zyn_layout_of(image->format) != zyn_image_layout::packed || image->channels < 3)
    return nullptr;
  if (image->element_size == 2) return zyn_swap48_row;
  return image->channels == 3 ? zyn_swap3_row : zyn_swap4_row;
}

// from and to: the formats whose exchange a shared buffer records.
int32_t swap_red_blue(zyn_image* destination, const zyn_image* source, uint32_t from, uint32_t to) {
  const row_function row = swap_row_of(source);
  if (!row || row != swap_row_of(destination) || spoils(destination, source))
    return zyn_fail(kImages, ZYN_RET_ERR_PARA);
  const bool shared = destination->data == source->data;
  convert_packed(destination, source, row);
  if (shared && source->format == from) destination->format = to;
  return ZYN_RET_OK;
}

// The column beyond the even part repeats the one before it; a single column stands
// for both of its block.
void i420_odd_column(const zyn_plane yuv[3], const zyn_plane& bgr) {
  const int32_t last = bgr.width - 1;
  for (int32_t y = 0; y < bgr.height; y++) {
    uint8_t* luma = yuv[0].row(y);
    if (last > 0)
      luma[last] = luma[last - 1];
    else
      zyn_luma_row(luma, bgr.row(bgr.height > 1 && y == (bgr.height & ~1) ? y - 1 : y), 1);
  }
  const int32_t column = last / 2;
  for (int32_t y = 0; y < yuv[1].height; y++) {
    if (last == 0) {
      uint8_t pairs[2][6];
      for (int row = 0; row < 2; row++)
        for (int k = 0; k < 6; k++) pairs[row][k] = bgr.row(2 * y + row)[k % 3];
      uint8_t u = 0, v = 0;
      zyn_chroma_row(&u, &v, pairs[0], pairs[1], 1);
      if (yuv[1].stride > 0) yuv[1].row(y)[0] = u;
      if (yuv[2].stride > 0) yuv[2].row(y)[0] = v;
      continue;
    }
    for (int plane = 1; plane < 3; plane++)
      if (yuv[plane].stride > column) yuv[plane].row(y)[column] = yuv[plane].row(y)[column - 1];
  }
}

int32_t bgr_to_i420(zyn_image* destination, const zyn_image* source) {
  zyn_plane yuv[3];
  if (source->format != ZYN_IMAGE_BGR || destination->format != ZYN_IMAGE_I420 ||
      !zyn_i420_planes(destination, yuv) || spoils(destination, source))
    return zyn_fail(kBgrToI420, ZYN_RET_ERR_PARA);
  const zyn_plane bgr = zyn_first_plane(source);
  const int32_t even_width = bgr.width & ~1, even_height = bgr.height & ~1;
  for (int32_t y = 0; y < even_height; y += 2) {
    const uint8_t *upper = bgr.row(y), *lower = bgr.row(y + 1);
    zyn_luma_row(yuv[0].row(y), upper, even_width);
    zyn_luma_row(yuv[0].row(y + 1), lower, even_width);
    zyn_chroma_row(yuv[1].row(y / 2), yuv[2].row(y / 2), upper, lower, even_width / 2);
  }
  // The chroma planes hold half the rows, rounded down: an odd row has luma only.
  if (bgr.height == 1)
    zyn_luma_row(yuv[0].data, bgr.data, even_width);
  else if (bgr.height & 1)
    memcpy(yuv[0].row(even_height), yuv[0].row(even_height - 1), static_cast<size_t>(even_width));
  if (bgr.width & 1) i420_odd_column(yuv, bgr);
  return ZYN_RET_OK;
}

// Rows y and next (the same, or the one below) with the chroma of their block row.
void yuv_rows(const zyn_plane& bgr, const zyn_plane yuv[3], int32_t y, int32_t next) {
  uint8_t *upper = bgr.row(y), *lower = bgr.row(next);
  const uint8_t *y0 = yuv[0].row(y), *y1 = yuv[0].row(next);
  static constexpr uint8_t kNeutral = 128;
  const int32_t even_width = bgr.width & ~1;
  if (yuv[1].height == 0) {
    // A single row has no chroma: its pixels are grey.
    for (int32_t x = 0; x < bgr.width; x++) {
      const int32_t from = even_width > 0 && x == even_width ? x - 1 : x;
      zyn_yuv_to_bgr_rows(upper + 3 * x, upper + 3 * x, y0 + from, y0 + from, &kNeutral, &kNeutral,
                          1);
    }
    return;
  }
  const uint8_t *u = yuv[1].row(y / 2), *v = yuv[2].row(y / 2);
  if (even_width == 0) {
    const bool sample = yuv[1].stride > 0 && yuv[2].stride > 0;
    zyn_yuv_to_bgr_rows(upper, lower, y0, y1, sample ? u : &kNeutral, sample ? v : &kNeutral, 1);
    return;
  }
  zyn_yuv_to_bgr_rows(upper, lower, y0, y1, u, v, even_width);
  if (bgr.width & 1) {
    memcpy(upper + 3 * even_width, upper + 3 * even_width - 3, 3);
    memcpy(lower + 3 * even_width, lower + 3 * even_width - 3, 3);
  }
}

int32_t i420_to_bgr(zyn_image* destination, const zyn_image* source) {
  zyn_plane yuv[3];
  if (source->format != ZYN_IMAGE_I420 || destination->format != ZYN_IMAGE_BGR ||
      !zyn_i420_planes(source, yuv) || spoils(destination, source))
    return zyn_fail(kI420ToBgr, ZYN_RET_ERR_PARA);
  const zyn_plane bgr = zyn_first_plane(destination);
  const int32_t even_height = bgr.height & ~1;
  for (int32_t y = 0; y < even_height; y += 2) yuv_rows(bgr, yuv, y, y + 1);
  if (bgr.height == 1)
    yuv_rows(bgr, yuv, 0, 0);
  else if (bgr.height & 1)
    memcpy(bgr.row(even_height), bgr.row(even_height - 1), static_cast<size_t>(3) * bgr.width);
  return ZYN_RET_OK;
}

int32_t signed_colours(zyn_image* destination, const zyn_image* source, bool forward) {
  const uint32_t from = forward ? ZYN_IMAGE_BGR : ZYN_IMAGE_SIGNED3;
  const uint32_t to = forward ? ZYN_IMAGE_SIGNED3 : ZYN_IMAGE_BGR;
  if (source->format != from || destination->format != to || spoils(destination, source))
    return zyn_fail(forward ? kToSigned : kFromSigned, ZYN_RET_ERR_PARA);
  return convert_packed(destination, source,
                        forward ? zyn_bgr_to_opponent_row : zyn_opponent_to_bgr_row);
}

// An image as packed pixels of three bytes: its own, or the block of three planes without
// a gap read as rows of three times their width.
bool packed3(const zyn_image* image, zyn_plane* pixels) {
  *pixels = zyn_first_plane(image);
  const zyn_image_layout layout = zyn_layout_of(image->format);
  if (layout == zyn_image_layout::packed) return zyn_pixel_bytes(image) == 3;
  const int64_t width = pixels->width, plane = width * pixels->height;
  pixels->stride = 3 * width;
  return layout == zyn_image_layout::planar && image->row_bytes == width &&
         image->plane1_bytes == width && image->plane2_bytes == width &&
         image->plane1 == pixels->data + plane && image->plane2 == pixels->data + 2 * plane;
}

// Three planes of an image: its own, or thirds of a packed buffer that has the room.
bool three_planes(const zyn_image* image, zyn_plane planes[3]) {
  const zyn_image_layout layout = zyn_layout_of(image->format);
  const zyn_plane first = zyn_first_plane(image);
  planes[0] = planes[1] = planes[2] = first;
  if (layout == zyn_image_layout::planar && image->plane1 && image->plane2) {
    planes[1].data = static_cast<uint8_t*>(image->plane1);
    planes[1].stride = image->plane1_bytes;
    planes[2].data = static_cast<uint8_t*>(image->plane2);
    planes[2].stride = image->plane2_bytes;
    return true;
  }
  if (layout != zyn_image_layout::packed && layout != zyn_image_layout::planar) return false;
  const int64_t plane = static_cast<int64_t>(first.width) * first.height;
  if (first.stride / 3 < first.width) return false;
  for (int k = 0; k < 3; k++) {
    planes[k].data = first.data + k * plane;
    planes[k].stride = first.width;
  }
  return true;
}

int32_t split_or_merge(const zyn_image* planar, const zyn_image* packed, bool split) {
  const zyn_site& site = split ? kSplit : kMerge;
  // On purpose: one right format out of two passes this check.
  if (planar->format != ZYN_IMAGE_PLANAR && packed->format != ZYN_IMAGE_BGR)
    return zyn_fail(site, ZYN_RET_ERR_PARA);
  zyn_plane planes[3], pixels;
  if (!packed3(packed, &pixels) || !three_planes(planar, planes) ||
      zyn_images_overlap(planar, packed, false))
    return zyn_fail(site, ZYN_RET_ERR_PARA);
  for (int32_t y = 0; y < pixels.height; y++) {
    uint8_t *p0 = planes[0].row(y), *p1 = planes[1].row(y), *p2 = planes[2].row(y);
    if (split)
      zyn_split_row(p0, p1, p2, pixels.row(y), pixels.width);
    else
      zyn_merge_row(pixels.row(y), p0, p1, p2, pixels.width);
  }
  return ZYN_RET_OK;
}

int32_t convert(zyn_image* destination, zyn_image* source, uint32_t code) {
  if (!zyn_is_image(destination) || !zyn_is_image(source) || destination->rows != source->rows ||
      destination->cols != source->cols || destination->pages != source->pages)
    return zyn_fail(kImages, ZYN_RET_ERR_PARA);
  switch (code) {
    case ZYN_COLOR_BGR_TO_GRAY:
      return to_gray(destination, source);
    case ZYN_COLOR_BGR_TO_RGB:
      return swap_red_blue(destination, source, ZYN_IMAGE_BGR, ZYN_IMAGE_RGB);
    case ZYN_COLOR_RGB_TO_BGR:
      return swap_red_blue(destination, source, ZYN_IMAGE_RGB, ZYN_IMAGE_BGR);
    case ZYN_COLOR_BGR_TO_I420:
      return bgr_to_i420(destination, source);
    case ZYN_COLOR_I420_TO_BGR:
      return i420_to_bgr(destination, source);
    case ZYN_COLOR_BGR_TO_SIGNED3:
      return signed_colours(destination, source, true);
    case ZYN_COLOR_SIGNED3_TO_BGR:
      return signed_colours(destination, source, false);
    case ZYN_COLOR_BGR_TO_PLANAR:
      return split_or_merge(destination, source, true);
    case ZYN_COLOR_PLANAR_TO_BGR:
      return split_or_merge(source, destination, false);
    default:
      return ZYN_RET_ERR_NOT_SUPPORT;
  }
}

// What a code asks for.
const char* needed_by(uint32_t code) {
  switch (code) {
    case ZYN_COLOR_BGR_TO_GRAY:
      return "code 0: images of one size, format 0 to 2 or to 0, are";
    case ZYN_COLOR_BGR_TO_RGB:
    case ZYN_COLOR_RGB_TO_BGR:
      return "codes 2 and 3: packed images of one size with equal pixels of three or four values "
             "are";
    case ZYN_COLOR_BGR_TO_I420:
      return "code 8: images of one size, format 0 to 5 with all planes, are";
    case ZYN_COLOR_I420_TO_BGR:
      return "code 9: images of one size, format 5 with all planes to 0, are";
    case ZYN_COLOR_BGR_TO_SIGNED3:
      return "code 13: images of one size, format 0 to 8, are";
    case ZYN_COLOR_SIGNED3_TO_BGR:
      return "code 14: images of one size, format 8 to 0, are";
    case ZYN_COLOR_BGR_TO_PLANAR:
      return "code 21: images of one size, format 0 to 6, apart, are";
    case ZYN_COLOR_PLANAR_TO_BGR:
      return "code 22: images of one size, format 6 to 0, apart, are";
    default:
      return "one of the codes 0, 2, 3, 8, 9, 13, 14, 21 and 22 is";
  }
}

}  // namespace

int32_t zyn_image_color_space_convert(zyn_image* destination, zyn_image* source, uint32_t code) {
  const int32_t result = convert(destination, source, code);
  if (result == ZYN_RET_OK) return ZYN_RET_OK;
  return zyn_refuse_images(result, needed_by(code), destination, source);
}

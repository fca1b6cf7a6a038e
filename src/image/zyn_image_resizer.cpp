// Resizing: which formats go together and which routine a pair of sizes takes.
#include <string.h>

#include "base/zyn_report.h"
#include "image/zyn_image.h"
#include "image/zyn_image_scale.h"

namespace {

constexpr const char* kPath = "src/image/zyn_image_resizer.cpp";
constexpr zyn_site kImages{kPath, 651, ZYN_MSG_PARA};
constexpr zyn_site kMethod{kPath, 742, ZYN_MSG_NOT_SUPPORT};

constexpr int32_t kNearest = 0, kBilinear = 1;

bool accepted(const zyn_image* destination, const zyn_image* source) {
  if (!zyn_is_image(destination) || !zyn_is_image(source) || destination->type != source->type)
    return false;
  switch (source->format) {
    case ZYN_IMAGE_BGR:
    case ZYN_IMAGE_RGB:
    case ZYN_IMAGE_GRAY:
    case ZYN_IMAGE_I420:
    case ZYN_IMAGE_SIGNED3:
    case ZYN_IMAGE_PACKED3_C:
      return zyn_layout_of(destination->format) == zyn_layout_of(source->format);
    default:
      return false;
  }
}

// Equal strides: what lies between the rows comes along, unless that is the other one's.
void copy_plane(const zyn_plane& destination, const zyn_plane& source, int64_t row_bytes) {
  const int64_t all = source.stride * (source.height - 1) + row_bytes;
  const zyn_plane to = {destination.data, 0, 1, 1}, from = {source.data, 0, 1, 1};
  if (destination.stride == source.stride && destination.stride >= row_bytes &&
      !zyn_planes_overlap(to, all, from, all)) {
    memcpy(destination.data, source.data, static_cast<size_t>(all));
    return;
  }
  for (int32_t y = 0; y < source.height; y++)
    memcpy(destination.row(y), source.row(y), static_cast<size_t>(row_bytes));
}

// The last odd column has a chroma sample where the stride leaves room for it.
void copy_chroma(const zyn_plane& destination, const zyn_plane& source, int32_t luma_width) {
  int64_t width = (static_cast<int64_t>(luma_width) + 1) / 2;
  if (destination.stride < width || source.stride < width) width = source.width;
  if (source.height > 0) copy_plane(destination, source, width);
}

// A source of one row or column has no chroma; what it would colour is neutral.
int32_t scale_chroma(const zyn_plane& destination, const zyn_plane& source, int32_t method) {
  if (destination.width == 0 || destination.height == 0) return ZYN_RET_OK;
  if (source.width > 0 && source.height > 0)
    return method == kNearest ? zyn_scale_nearest(destination, source, 1)
                              : zyn_scale_bilinear(destination, source, 1);
  for (int32_t y = 0; y < destination.height; y++)
    memset(destination.row(y), 128, static_cast<size_t>(destination.width));
  return ZYN_RET_OK;
}

int32_t resize_i420(zyn_image* destination, const zyn_image* source, int32_t method, bool equal,
                    bool half) {
  zyn_plane to[3], from[3];
  if (!zyn_i420_planes_half_stride(destination, to) || !zyn_i420_planes_half_stride(source, from))
    return zyn_fail(kImages, ZYN_RET_ERR_PARA);
  if (equal) {
    copy_plane(to[0], from[0], source->cols);
    for (int k = 1; k < 3; k++) copy_chroma(to[k], from[k], source->cols);
    return ZYN_RET_OK;
  }
  if (half) {
    for (int k = 0; k < 3; k++) zyn_scale_half(to[k], from[k], 1);
    return ZYN_RET_OK;
  }
  if (method != kNearest && method != kBilinear) return zyn_fail(kMethod, ZYN_RET_ERR_NOT_SUPPORT);
  const int32_t code = method == kNearest ? zyn_scale_nearest(to[0], from[0], 1)
                                          : zyn_scale_bilinear(to[0], from[0], 1);
  if (code) return code;
  for (int k = 1; k < 3; k++) {
    const int32_t chroma_code = scale_chroma(to[k], from[k], method);
    if (chroma_code) return chroma_code;
  }
  return ZYN_RET_OK;
}

int32_t resize_packed(zyn_image* destination, const zyn_image* source, int32_t method, bool equal,
                      bool half) {
  const zyn_plane to = zyn_first_plane(destination), from = zyn_first_plane(source);
  // On purpose: bytes are bytes, also the signed ones of format 8; only their number
  // per pixel counts.
  const int32_t channels = zyn_pixel_bytes(source);
  if (equal) {
    copy_plane(to, from, static_cast<int64_t>(channels) * source->cols);
    return ZYN_RET_OK;
  }
  if (half) {
    zyn_scale_half(to, from, channels);
    return ZYN_RET_OK;
  }
  switch (method) {
    case kNearest:
      return zyn_scale_nearest(to, from, channels);
    case kBilinear:
      return zyn_scale_bilinear(to, from, channels);
    default:
      return ZYN_RET_OK;  // On purpose: another method does nothing and succeeds.
  }
}

int32_t resize(zyn_image* destination, const zyn_image* source, int32_t method) {
  if (!accepted(destination, source)) return zyn_fail(kImages, ZYN_RET_ERR_PARA);
  const bool equal = destination->rows == source->rows && destination->cols == source->cols &&
                     destination->pages == source->pages;
  if (equal && destination->data == source->data) return ZYN_RET_OK;
  if (zyn_images_overlap(destination, source, true)) return zyn_fail(kImages, ZYN_RET_ERR_PARA);
  const bool half = source->rows == 2 * static_cast<int64_t>(destination->rows) &&
                    source->cols == 2 * static_cast<int64_t>(destination->cols);
  return source->format == ZYN_IMAGE_I420 ? resize_i420(destination, source, method, equal, half)
                                          : resize_packed(destination, source, method, equal, half);
}

}  // namespace

int32_t zyn_image_resizer(zyn_image* destination, const zyn_image* source, int32_t method) {
  const int32_t code = resize(destination, source, method);
  if (code == ZYN_RET_OK || code == ZYN_RET_ERR_MEMORY) return code;
  return zyn_refuse_images(code,
                           code == ZYN_RET_ERR_NOT_SUPPORT
                               ? "method 0 or 1 is"
                               : "images of one pixel type that share no pixels, of format 0, 1, "
                                 "2, 5 (with all planes), 8 or 11, are",
                           destination, source);
}

// The image record: formats, creation, headers over a caller's memory.
#include "image/zyn_image.h"

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "matrix/zyn_matrix.h"

namespace {

constexpr const char* kParams = "error params!";
constexpr zyn_site kCreateArgs{kZynBmpCodecPath, 472, ZYN_MSG_PARA};
constexpr zyn_site kHeaderArgs{kZynBmpCodecPath, 540, kParams};
constexpr zyn_site kDataArgs{kZynBmpCodecPath, 577, kParams};
constexpr zyn_site kDataLength{kZynBmpCodecPath, 584, "not support!"};
constexpr zyn_site kHeaderAndDataArgs{kZynBmpCodecPath, 626, ZYN_MSG_PARA};

constexpr int32_t kHeaderMinimum = 4;  // smallest extent of zyn_set_image_header
constexpr int64_t kLengthMinimum = 16;
constexpr int32_t kPlanarChannels = -1;

constexpr uint8_t kTypes[kZynImageFormats] = {16, 16, 0,  24, 24, 16, 16, 8,
                                              17, 16, 16, 16, 16, 16, 18};

// Two-plane 4:2:0 and format 5: one buffer of three halves of the luma plane.
zyn_image* create_420(int32_t width, int32_t height, uint32_t format) {
  const int64_t stride = zyn_aligned_stride(width);
  int64_t bytes = 0;
  // The size is a 32-bit product; what exceeds it is refused.
  if (!zyn_multiply(stride * 3, height, &bytes) || bytes > INT32_MAX) {
    zyn_explain("an image of %d x %d pixels of format %u has 2^31 bytes or more", width, height,
                format);
    return nullptr;
  }
  zyn_matrix_guard image(zyn_create_matrix_header(height, width, 1, zyn_image_type(format)));
  if (!image) return nullptr;
  auto* data = static_cast<uint8_t*>(zyn_malloc(bytes / 2));
  if (!data) return nullptr;
  image->data = data;
  image->row_bytes = stride;
  if (format == ZYN_IMAGE_I420) {
    uint8_t* chroma = data + stride * height;
    image->plane1_bytes = image->plane2_bytes = stride / 2;
    image->plane1 = chroma;
    image->plane2 = chroma + stride * height / 4;
  }
  return image.take();
}

void set_strides(zyn_image* image) {
  switch (zyn_layout_of(image->format)) {
    case zyn_image_layout::packed:
      break;
    case zyn_image_layout::i420:
      image->row_bytes = zyn_aligned_stride(image->cols);
      image->plane1_bytes = image->plane2_bytes = image->row_bytes / 2;
      break;
    case zyn_image_layout::two_plane:
      image->row_bytes = zyn_aligned_stride(image->cols);
      break;
    case zyn_image_layout::planar:
      image->row_bytes = image->plane1_bytes = image->plane2_bytes = image->cols;
      image->channels = kPlanarChannels;
      break;
  }
}

// The planes of any image and the bytes of their rows that hold pixels.
int32_t used_planes(const zyn_image* image, bool half_stride, zyn_plane planes[3],
                    int64_t row_bytes[3]) {
  planes[0] = zyn_first_plane(image);
  switch (zyn_layout_of(image->format)) {
    case zyn_image_layout::packed:
      row_bytes[0] = static_cast<int64_t>(image->cols) * zyn_pixel_bytes(image);
      return 1;
    case zyn_image_layout::two_plane:
      row_bytes[0] = image->cols;
      return 1;
    case zyn_image_layout::i420:
      row_bytes[0] = image->cols;
      if (!(half_stride ? zyn_i420_planes_half_stride : zyn_i420_planes)(image, planes)) return 1;
      // An odd last column has a sample of its own where there is room for it.
      for (int k = 1; k < 3; k++) {
        const int64_t width = (static_cast<int64_t>(image->cols) + 1) / 2;
        row_bytes[k] = width < planes[k].stride ? width : planes[k].stride;
      }
      return 3;
    default:
      planes[1] = {static_cast<uint8_t*>(image->plane1), image->plane1_bytes, image->cols,
                   image->rows};
      planes[2] = {static_cast<uint8_t*>(image->plane2), image->plane2_bytes, image->cols,
                   image->rows};
      row_bytes[0] = row_bytes[1] = row_bytes[2] = image->cols;
      return planes[1].data && planes[2].data ? 3 : 1;
  }
}

// pages * rows * row_bytes, the size that counts for every format.
bool plane_bytes(const zyn_image* image, int64_t* bytes) {
  return zyn_multiply(image->row_bytes, image->rows, bytes) &&
         zyn_multiply(*bytes, image->pages, bytes);
}

bool planes_at_half_width(const zyn_image* image, zyn_plane planes[3]) {
  planes[0] = zyn_first_plane(image);
  const int32_t width = image->cols / 2, height = image->rows / 2;
  planes[1] = {static_cast<uint8_t*>(image->plane1), image->plane1_bytes, width, height};
  planes[2] = {static_cast<uint8_t*>(image->plane2), image->plane2_bytes, width, height};
  return planes[1].data && planes[2].data;
}

int32_t refuse_image(int32_t code, int32_t least, int32_t width, int32_t height, uint32_t format) {
  return zyn_refuse(code,
                    "an image has sides of at least %d and a format of 0 to 14, found %d x %d, "
                    "format %u",
                    least, width, height, format);
}

}  // namespace

int32_t zyn_refuse_images(int32_t code, const char* needed, const zyn_image* destination,
                          const zyn_image* source) {
  const zyn_image* const both[] = {destination, source};
  for (const zyn_image* image : both)
    if (!image || !image->data || !(image->kind & ZYN_KIND_IMAGE))
      return zyn_refuse(code, "the %s is %s", image == source ? "source" : "destination",
                        !image        ? "null"
                        : image->data ? "no image"
                                      : "without data");
  return zyn_refuse(code, "%s needed, found %d x %d of format %u from %d x %d of format %u", needed,
                    destination->cols, destination->rows, destination->format, source->cols,
                    source->rows, source->format);
}

zyn_image_layout zyn_layout_of(uint32_t format) {
  switch (format) {
    case ZYN_IMAGE_I420:
      return zyn_image_layout::i420;
    case ZYN_IMAGE_PLANAR:
      return zyn_image_layout::planar;
    case ZYN_IMAGE_NV12:
    case ZYN_IMAGE_NV21:
      return zyn_image_layout::two_plane;
    default:
      return zyn_image_layout::packed;
  }
}

int32_t zyn_image_type(uint32_t format) { return kTypes[format]; }

zyn_plane zyn_first_plane(const zyn_image* image) {
  return {static_cast<uint8_t*>(image->data), image->row_bytes, image->cols, image->rows};
}

bool zyn_i420_planes(const zyn_image* image, zyn_plane planes[3]) {
  return planes_at_half_width(image, planes);
}

bool zyn_i420_planes_half_stride(const zyn_image* image, zyn_plane planes[3]) {
  if (!planes_at_half_width(image, planes)) return false;
  planes[1].stride = planes[2].stride = image->row_bytes / 2;
  return true;
}

bool zyn_planes_overlap(const zyn_plane& a, int64_t bytes_a, const zyn_plane& b, int64_t bytes_b) {
  if (a.height < 1 || b.height < 1 || bytes_a < 1 || bytes_b < 1) return false;
  const int64_t last = b.height - 1;
  const auto start_a = reinterpret_cast<intptr_t>(a.data);
  const auto start_b = reinterpret_cast<intptr_t>(b.data);
  if (start_a + a.stride * (a.height - 1) + bytes_a <= start_b ||
      start_b + b.stride * last + bytes_b <= start_a)
    return false;
  if (b.stride < 1) return true;
  for (int64_t y = 0; y < a.height; y++) {
    const int64_t from = start_a + y * a.stride - start_b, to = from + bytes_a;
    if (to <= 0) continue;
    // The last row of b that begins before the end of this one: the earlier ones end earlier.
    const int64_t row = (to - 1) / b.stride < last ? (to - 1) / b.stride : last;
    if (row * b.stride + bytes_b > from) return true;
  }
  return false;
}

bool zyn_images_overlap(const zyn_image* a, const zyn_image* b, bool half_stride) {
  zyn_plane planes_a[3], planes_b[3];
  int64_t bytes_a[3], bytes_b[3];
  const int32_t count_a = used_planes(a, half_stride, planes_a, bytes_a);
  const int32_t count_b = used_planes(b, half_stride, planes_b, bytes_b);
  for (int32_t i = 0; i < count_a; i++)
    for (int32_t k = 0; k < count_b; k++)
      if (zyn_planes_overlap(planes_a[i], bytes_a[i], planes_b[k], bytes_b[k])) return true;
  return false;
}

zyn_image* zyn_create_image(int32_t width, int32_t height, uint32_t format) {
  if (width < 1 || height < 1 || format >= kZynImageFormats) {
    refuse_image(zyn_fail(kCreateArgs, ZYN_RET_ERR_PARA), 1, width, height, format);
    return nullptr;
  }
  const zyn_image_layout layout = zyn_layout_of(format);
  zyn_image* image = layout == zyn_image_layout::i420 || layout == zyn_image_layout::two_plane
                         ? create_420(width, height, format)
                         : zyn_create_matrix(height, width, 1, zyn_image_type(format));
  if (!image) return nullptr;
  image->kind = ZYN_KIND_IMAGE;
  image->format = format;
  if (layout == zyn_image_layout::planar) {
    // The element type has three bytes, so the block holds all three planes.
    set_strides(image);
    image->plane1 = static_cast<uint8_t*>(image->data) + image->row_bytes * height;
    image->plane2 = static_cast<uint8_t*>(image->data) + 2 * image->row_bytes * height;
  }
  return image;
}

zyn_image* zyn_recreate_image(zyn_image* image, int32_t width, int32_t height) {
  if (!image || width < 1 || height < 1) {
    refuse_image(ZYN_RET_ERR_PARA, 1, width, height, image ? image->format : kZynImageFormats);
    return image;
  }
  void* before = image->data;
  // On purpose: a refused header keeps the old size, and the buffer is renewed all the
  // same. The old one goes even if the image did not own it, and formats with several
  // planes get the first plane only.
  zyn_set_image_header(image, width, height, image->format);
  zyn_free(before);
  int64_t bytes = 0;
  image->data = plane_bytes(image, &bytes) ? zyn_malloc(bytes) : nullptr;
  image->plane1 = image->plane2 = nullptr;
  image->owns_data = 1;
  return image;
}

int32_t zyn_set_image_header(zyn_image* image, int32_t width, int32_t height, uint32_t format) {
  // On purpose: the smallest image here is 4 x 4, while zyn_create_image takes 1 x 1.
  if (!image || width < kHeaderMinimum || height < kHeaderMinimum || format >= kZynImageFormats)
    return refuse_image(zyn_fail(kHeaderArgs, ZYN_RET_ERR_PARA), kHeaderMinimum, width, height,
                        format);
  const int32_t code = zyn_set_matrix_header(image, height, width, 1, zyn_image_type(format));
  if (code) return code;
  image->kind = ZYN_KIND_IMAGE;
  image->format = format;
  set_strides(image);
  return ZYN_RET_OK;
}

int32_t zyn_set_image_data(zyn_image* image, void* data, int64_t length) {
  if (!image || !(image->kind & ZYN_KIND_IMAGE) || !data || length < kLengthMinimum)
    return zyn_refuse(zyn_fail(kDataArgs, ZYN_RET_ERR_PARA),
                      "an image and at least %lld bytes of data are needed, found %lld bytes",
                      static_cast<long long>(kLengthMinimum), static_cast<long long>(length));
  int64_t bytes = 0;
  if (!plane_bytes(image, &bytes) || length < bytes)
    return zyn_refuse(zyn_fail(kDataLength, ZYN_RET_ERR_DATA_LENGTH),
                      "%d rows of %lld bytes are needed, found %lld bytes", image->rows,
                      static_cast<long long>(image->row_bytes), static_cast<long long>(length));
  // On purpose: a buffer that the image owned is not freed, and it goes on owning
  // what data points at.
  image->data = data;
  auto* first = static_cast<uint8_t*>(data);
  switch (image->format) {
    case ZYN_IMAGE_I420:
      image->plane1 = first + image->rows * zyn_aligned_stride(image->cols);
      image->plane2 = static_cast<uint8_t*>(image->plane1) + image->plane1_bytes * image->rows / 2;
      return ZYN_RET_OK;
    case ZYN_IMAGE_NV12:
    case ZYN_IMAGE_NV21:
      image->plane1 = image->plane2 = nullptr;
      return ZYN_RET_OK;
    case ZYN_IMAGE_PLANAR:
      image->plane1 = first + image->rows * image->row_bytes;
      image->plane2 = first + 2 * image->rows * image->row_bytes;
      return ZYN_RET_OK;
    case ZYN_IMAGE_BGR:
    case ZYN_IMAGE_RGB:
    case ZYN_IMAGE_GRAY:
      return ZYN_RET_OK;
    default:
      // On purpose: the pointer is stored all the same.
      return zyn_refuse(ZYN_RET_ERR_DATA_LENGTH, "images of format %u take no data this way",
                        image->format);
  }
}

int32_t zyn_set_image_header_and_data(zyn_image* image, int32_t width, int32_t height,
                                      uint32_t format, void* const planes[3],
                                      const int32_t strides[3]) {
  if (!image || width < 1 || height < 1 || !planes || !planes[0] || !strides || strides[0] < width)
    return zyn_refuse(zyn_fail(kHeaderAndDataArgs, ZYN_RET_ERR_PARA),
                      "an image, sides of at least 1, a first plane and strides of at least the "
                      "width are needed, found %d x %d, stride %d",
                      width, height, strides ? strides[0] : 0);
  const zyn_image_layout layout =
      format < kZynImageFormats ? zyn_layout_of(format) : zyn_image_layout::packed;
  if (layout != zyn_image_layout::i420 && layout != zyn_image_layout::two_plane) {
    const int32_t code = zyn_set_image_header(image, width, height, format);
    // On purpose: the stride serves as the length of the buffer.
    return code ? code : zyn_set_image_data(image, planes[0], strides[0]);
  }
  const int32_t code = zyn_set_matrix_header(image, height, width, 1, zyn_image_type(format));
  if (code) return code;
  image->kind = ZYN_KIND_IMAGE;
  image->format = format;
  image->data = planes[0];
  image->plane1 = planes[1];
  image->plane2 = planes[2];
  image->row_bytes = strides[0];
  image->plane1_bytes = strides[1];
  image->plane2_bytes = strides[2];
  return ZYN_RET_OK;
}

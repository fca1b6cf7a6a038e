// What the image files share: layouts of the pixel formats and views of planes.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// Source paths of the reports.
inline constexpr const char* kZynBmpCodecPath = "src/image/zyn_bmp_codec.cpp";

inline constexpr uint32_t kZynImageFormats = 15;

// How a format's buffer is divided.
enum class zyn_image_layout {
  packed,    // pixel after pixel
  i420,      // luma, then two chroma planes of half the stride and half the rows
  planar,    // three full planes
  two_plane  // luma, then interleaved chroma
};

// Layout and matrix type of a format below kZynImageFormats.
zyn_image_layout zyn_layout_of(uint32_t format);
int32_t zyn_image_type(uint32_t format);

// The row stride of formats 5, 12 and 13: width raised to a multiple of 4.
inline int64_t zyn_aligned_stride(int32_t width) {
  return (static_cast<int64_t>(width) + 3) & ~int64_t{3};
}

// An image record with a known format and something in it.
inline bool zyn_is_image(const zyn_matrix* image) {
  return image && (image->kind & ZYN_KIND_IMAGE) && image->data &&
         image->format < kZynImageFormats && image->rows > 0 && image->cols > 0;
}

// Bytes of one pixel of a packed image.
inline int32_t zyn_pixel_bytes(const zyn_image* image) {
  return image->channels * static_cast<int32_t>(image->element_size);
}

// Refuses two images that do not go together, with what is needed and what they are; code.
int32_t zyn_refuse_images(int32_t code, const char* needed, const zyn_image* destination,
                          const zyn_image* source);

// A rectangle of samples, width counted in pixels; stride in bytes.
struct zyn_plane {
  uint8_t* data;
  int64_t stride;
  int32_t width;
  int32_t height;
  uint8_t* row(int64_t y) const { return data + y * stride; }
};

// Plane 0 of any image.
zyn_plane zyn_first_plane(const zyn_image* image);

// The three planes of a format 5 image with all of its pointers: the chroma planes have
// half the size, rounded down, and the strides that the record names. False when
// a plane is missing, as after zyn_recreate_image.
bool zyn_i420_planes(const zyn_image* image, zyn_plane planes[3]);

// The same with half the luma stride as the chroma strides: the operations on
// format 5 that work plane by plane go by this rule.
bool zyn_i420_planes_half_stride(const zyn_image* image, zyn_plane planes[3]);

// Whether a byte of a row of a (bytes_a from its start) is one of a row of b. Planes whose
// rows interleave, as the halves of a picture do, share nothing. Strides are not negative.
bool zyn_planes_overlap(const zyn_plane& a, int64_t bytes_a, const zyn_plane& b, int64_t bytes_b);

// The same for the pixels of two images in all of their planes; half_stride: the chroma
// planes of format 5 as zyn_i420_planes_half_stride has them.
bool zyn_images_overlap(const zyn_image* a, const zyn_image* b, bool half_stride);

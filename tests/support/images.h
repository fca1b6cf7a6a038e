// Images for tests: owned ones, ones over memory that ends at an inaccessible page, and
// the reports of the image files.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/buffers.h"
#include "support/capture.h"
#include "zyncore.h"

namespace zyn_test {

struct ImageDeleter {
  void operator()(zyn_image* image) const { zyn_release_matrix(&image); }
};
using Image = std::unique_ptr<zyn_image, ImageDeleter>;

inline Image make_image(int width, int height, uint32_t format) {
  return Image(zyn_create_image(width, height, format));
}

inline uint8_t* bytes(zyn_image* image) { return static_cast<uint8_t*>(image->data); }
inline uint8_t* bytes(const Image& image) { return bytes(image.get()); }

inline size_t buffer_bytes(int width, int height, uint32_t format) {
  static const int kPixel[15] = {3, 3, 1, 4, 4, 0, 3, 2, 3, 3, 3, 3, 0, 0, 6};
  const size_t rows = static_cast<size_t>(height);
  if (kPixel[format]) return rows * static_cast<size_t>(width * kPixel[format]);
  return static_cast<size_t>((width + 3) / 4 * 4) * rows * 3 / 2;
}

// Plane k of an image, or of another block of its layout.
struct PlaneView {
  uint8_t* data;
  int64_t stride;
  uint8_t& at(int x, int y, int c = 0, int channels = 1) const {
    return data[y * stride + x * channels + c];
  }
};
inline PlaneView plane_of(const zyn_image* image, int k, uint8_t* block = nullptr) {
  void* const planes[3] = {image->data, image->plane1, image->plane2};
  const int64_t strides[3] = {image->row_bytes, image->plane1_bytes, image->plane2_bytes};
  uint8_t* data = static_cast<uint8_t*>(planes[k]);
  return {block ? block + (data - static_cast<uint8_t*>(image->data)) : data, strides[k]};
}

// An image of the library's layout in a buffer that ends at an inaccessible page.
class PageEndImage {
 public:
  PageEndImage(int width, int height, uint32_t format)
      : memory_(buffer_bytes(width, height, format)), image_(make_image(width, height, format)) {
    own_ = image_->data;
    const auto move = [&](void* plane) -> void* {
      return plane ? memory_.data() + (static_cast<uint8_t*>(plane) - static_cast<uint8_t*>(own_))
                   : nullptr;
    };
    image_->plane1 = move(image_->plane1);
    image_->plane2 = move(image_->plane2);
    image_->data = memory_.data();
  }
  ~PageEndImage() { image_->data = own_; }
  zyn_image* operator->() { return image_.get(); }
  zyn_image* get() { return image_.get(); }
  PageEnd<uint8_t>& memory() { return memory_; }
  void fill(Random& random) {
    for (uint8_t& byte : memory_) byte = static_cast<uint8_t>(random.next());
  }

 private:
  PageEnd<uint8_t> memory_;
  Image image_;
  void* own_;
};

constexpr Reports codec_report{"src/image/zyn_bmp_codec.cpp"};

}  // namespace zyn_test

// Images for tests: owned ones, ones over memory that ends at an inaccessible page, and
// the reports of the image files.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "support/buffers.h"
#include "support/capture.h"
#include "zyncore.h"

namespace zyn_test {

using Bytes = std::vector<uint8_t>;

struct ImageDeleter {
  void operator()(zyn_image* image) const { zyn_release_matrix(&image); }
};
using Image = std::unique_ptr<zyn_image, ImageDeleter>;

inline Image make_image(int width, int height, uint32_t format) {
  return Image(zyn_create_image(width, height, format));
}

inline uint8_t* bytes(const zyn_image* image) { return static_cast<uint8_t*>(image->data); }
inline uint8_t* bytes(const Image& image) { return bytes(image.get()); }

struct PlaneView {
  uint8_t* data;
  int64_t stride;
  uint8_t& at(int x, int y, int c = 0, int channels = 1) const {
    return data[y * stride + x * channels + c];
  }
};
inline PlaneView plane_of(const zyn_image& image, int k) {
  void* const planes[3] = {image.data, image.plane1, image.plane2};
  const int64_t strides[3] = {image.row_bytes, image.plane1_bytes, image.plane2_bytes};
  return {static_cast<uint8_t*>(planes[k]), strides[k]};
}

// A record over memory of its own that ends at an inaccessible page, its rows padded. The chroma
// rows of format 5 are half a row of luma, whatever the record says, or have their own padding.
class Picture {
 public:
  Picture(int width, int height, uint32_t format, int padding = 0, bool half_rows = false)
      : image_(*make_image(width, height, format)), half_rows_(half_rows && format == 5) {
    const int64_t row = (format == 5 ? width : image_.row_bytes) + padding;
    image_.row_bytes = row;
    image_.owns_data = 0;
    image_.data = add(row * height * (format == 6 ? 3 : 1));
    if (format == 6) {
      image_.plane1_bytes = image_.plane2_bytes = row;
      image_.plane1 = bytes(&image_) + row * height;
      image_.plane2 = bytes(&image_) + 2 * row * height;
    }
    if (format != 5) return;
    image_.plane1_bytes = half_rows ? row / 2 : width / 2 + (padding & 1);
    image_.plane2_bytes = half_rows ? row / 2 : width / 2 + (padding >> 1);
    image_.plane1 = add(image_.plane1_bytes * (height / 2));
    image_.plane2 = add(image_.plane2_bytes * (height / 2));
    if (half_rows) image_.plane1_bytes = image_.plane2_bytes = 1;
  }
  zyn_image* get() { return &image_; }
  zyn_image* operator->() { return &image_; }
  int planes() const { return image_.plane1 ? 3 : 1; }
  int pixel_bytes() const {
    return image_.plane1 ? 1 : image_.channels * static_cast<int>(image_.element_size);
  }
  // A plane, or where it lies in a copy.
  PlaneView plane(int k, Bytes* copy = nullptr) {
    PlaneView view = plane_of(image_, k);
    if (k && half_rows_) view.stride = image_.row_bytes / 2;
    for (size_t i = 0, at = 0; copy && i < memory_.size(); at += memory_[i++]->size())
      if (view.data >= memory_[i]->begin() && view.data <= memory_[i]->end())
        return {copy->data() + at + (view.data - memory_[i]->data()), view.stride};
    return view;
  }
  Picture& fill(uint64_t seed) {
    Random random(seed);
    for (const auto& block : memory_)
      for (uint8_t& byte : *block) byte = static_cast<uint8_t>(random.next());
    return *this;
  }
  // All memory with one value, and as a copy.
  Bytes clear(uint8_t value) {
    for (const auto& block : memory_) memset(block->data(), value, block->size());
    return copy();
  }
  Bytes copy() const {
    Bytes all;
    for (const auto& block : memory_) all.insert(all.end(), block->begin(), block->end());
    return all;
  }
  testing::AssertionResult holds(const Bytes& want) const {
    const Bytes got = copy();
    const auto at = std::mismatch(got.begin(), got.end(), want.begin()).first - got.begin();
    if (got == want) return testing::AssertionSuccess();
    return testing::AssertionFailure() << image_.cols << "x" << image_.rows << ": byte " << at
                                       << " is " << +got[at] << ", not " << +want[at];
  }

 private:
  uint8_t* add(int64_t size) {
    memory_.push_back(std::make_unique<PageEnd<uint8_t>>(static_cast<size_t>(size)));
    return memory_.back()->data();
  }
  zyn_image image_;
  bool half_rows_;
  std::vector<std::unique_ptr<PageEnd<uint8_t>>> memory_;
};

constexpr Reports codec_report{"src/image/zyn_bmp_codec.cpp"};

}  // namespace zyn_test

// Frames for tests: every plane ends at an inaccessible page, rows have room behind them, and a
// reader that knows each format by itself.
#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "support/buffers.h"
#include "zyncore_face.h"

namespace zyn_test {

inline constexpr uint32_t kFrameFormats[] = {ZYN_FRAME_BGR,  ZYN_FRAME_RGB,  ZYN_FRAME_GREY,
                                             ZYN_FRAME_I420, ZYN_FRAME_NV12, ZYN_FRAME_NV21,
                                             ZYN_FRAME_YUYV};

class Frame {
 public:
  Frame(uint32_t format, int width, int height, int padding = 0)
      : record{format, width, height, {}, {}} {
    const bool planar = format == ZYN_FRAME_I420,
               paired = format == ZYN_FRAME_NV12 || format == ZYN_FRAME_NV21;
    const int bytes = format == ZYN_FRAME_YUYV                             ? 2
                      : format == ZYN_FRAME_BGR || format == ZYN_FRAME_RGB ? 3
                                                                           : 1;
    add(bytes * width, height, padding);
    if (planar) add(width / 2, height / 2, padding + 1), add(width / 2, height / 2, padding + 2);
    if (paired) add(width, height / 2, padding + 1);
  }
  Frame& noise(uint64_t seed) {
    Random random(seed);
    for (const auto& plane : planes_)
      for (uint8_t& byte : *plane) byte = static_cast<uint8_t>(random.next());
    return *this;
  }
  // Luma or all channels of a pixel; colours stay grey.
  void set(int x, int y, uint8_t value) {
    const uint32_t f = record.format;
    const int step = f == ZYN_FRAME_YUYV ? 2 : f == ZYN_FRAME_BGR || f == ZYN_FRAME_RGB ? 3 : 1;
    for (int c = 0; c < (step == 3 ? 3 : 1); c++) *at(0, y, step * x + c) = value;
    if (f == ZYN_FRAME_YUYV) *at(0, y, 2 * x + 1) = 128;
    for (size_t k = 1; k < planes_.size(); k++)
      for (uint8_t& byte : *planes_[k]) byte = 128;
  }
  uint8_t* at(size_t plane, int row, int byte) {
    return planes_[plane]->data() + row * record.strides[plane] + byte;
  }
  // Blue, green, red of a pixel.
  std::vector<double> pixel(int x, int y) {
    const auto same = [&](int byte) { return static_cast<double>(*at(0, y, byte)); };
    switch (record.format) {
      case ZYN_FRAME_BGR:
        return {same(3 * x), same(3 * x + 1), same(3 * x + 2)};
      case ZYN_FRAME_RGB:
        return {same(3 * x + 2), same(3 * x + 1), same(3 * x)};
      case ZYN_FRAME_GREY:
        return {same(x), same(x), same(x)};
      case ZYN_FRAME_I420:
        return colour(*at(0, y, x), *at(1, y / 2, x / 2), *at(2, y / 2, x / 2));
      case ZYN_FRAME_NV12:
        return colour(*at(0, y, x), *at(1, y / 2, x & ~1), *at(1, y / 2, x | 1));
      case ZYN_FRAME_NV21:
        return colour(*at(0, y, x), *at(1, y / 2, x | 1), *at(1, y / 2, x & ~1));
      default:
        return colour(*at(0, y, 2 * x), *at(0, y, 4 * (x / 2) + 1), *at(0, y, 4 * (x / 2) + 3));
    }
  }

  zyn_face_frame record;

 private:
  static std::vector<double> colour(int y, int u, int v) {
    const auto byte = [](int sum) { return std::min(std::max((sum + 4096) >> 13, 0), 255) * 1.0; };
    const int luma = 9535 * (y - 16);
    return {byte(luma + 16531 * (u - 128)), byte(luma - 6660 * (v - 128) - 3203 * (u - 128)),
            byte(luma + 13074 * (v - 128))};
  }
  void add(int bytes, int rows, int padding) {
    const size_t k = planes_.size();
    record.strides[k] = bytes + padding;
    planes_.push_back(std::make_unique<PageEnd<uint8_t>>((bytes + padding) * (rows - 1) + bytes));
    record.planes[k] = planes_.back()->data();
  }
  std::vector<std::unique_ptr<PageEnd<uint8_t>>> planes_;
};

}  // namespace zyn_test

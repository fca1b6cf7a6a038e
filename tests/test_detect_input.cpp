// Images as network input: the eight transforms, borders and patches, pixel by pixel
// against their definitions, on buffers that end at an inaccessible page.
#include <math.h>
#include <stdio.h>

#include <array>

#include "support/images.h"

namespace {

using namespace zyn_test;

// ---- transforms

double ssd_real(int byte) { return (byte - 127.5) / 128; }
double ssd_word(int byte) { return byte - 127; }
double pfld_real(int byte) {
  char text[16];
  snprintf(text, sizeof(text), "%.7f", byte / 255.0);
  return strtof(text, nullptr);
}
// The product of 8 and 24 bits is exact in double; the cast rounds it once.
double pfld_word(int byte) { return trunc(static_cast<float>(byte * 64.25098419189453)); }

struct Transform {
  void (*run)(zyn_tensor*, const zyn_image*);
  bool reversed;  // plane 0 takes byte 2
  bool words;
  double (*value)(int byte);
};
const Transform kTransforms[] = {
    {zyn_transform_image_data_for_ssd_detector, true, false, ssd_real},
    {zyn_transform_image_data_for_ssd_detector_rgb24, false, false, ssd_real},
    {zyn_transform_image_data_for_ssd_detector_fp16, true, true, ssd_word},
    {zyn_transform_image_data_for_ssd_detector_rgb24_fp16, false, true, ssd_word},
    {zyn_transform_image_data_for_pfld_detector, false, false, pfld_real},
    {zyn_transform_image_data_for_pfld_detector_rgb24, true, false, pfld_real},
    {zyn_transform_image_data_for_pfld_detector_fp16, false, true, pfld_word},
    {zyn_transform_image_data_for_pfld_detector_rgb24_fp16, true, true, pfld_word}};

void check_transform(const Transform& t, Picture& picture) {
  const zyn_image& image = *picture.get();
  const int plane = image.cols * image.rows;
  PageEnd<float> reals(t.words ? 0 : 3 * plane);
  PageEnd<int16_t> words(t.words ? 3 * plane : 0);
  zyn_tensor tensor{};
  tensor.data = t.words ? static_cast<void*>(words.data()) : reals.data();
  t.run(&tensor, &image);
  for (int i = 0; i < 3 * plane; i++) {
    const int p = i / plane, x = i % plane % image.cols, y = i % plane / image.cols;
    ASSERT_EQ(t.words ? words[i] : static_cast<double>(reals[i]),
              t.value(picture.plane(0).at(x, y, t.reversed ? 2 - p : p, 3)))
        << &t - kTransforms << " " << image.cols << "x" << image.rows << " stride "
        << image.row_bytes << ", plane " << p << " at (" << x << ", " << y << ")";
  }
}

TEST(DetectInput, TransformsGiveTheStatedBitsForEveryByteAndShape) {
  Picture all(256, 1, ZYN_IMAGE_BGR);
  for (int i = 0; i < 768; i++)
    bytes(all.get())[i] = static_cast<uint8_t>(i / 3 * (i % 3 * 2 + 1) + 85 * (i % 3));
  for (const Transform& t : kTransforms) {
    ASSERT_NO_FATAL_FAILURE(check_transform(t, all));
    for (int width = 1; width <= 33; width++)
      for (int height : {1, 3})
        for (int padding : {0, 1, 13}) {
          Picture picture(width, height, ZYN_IMAGE_BGR, padding);
          ASSERT_NO_FATAL_FAILURE(check_transform(t, picture.fill(width)));
        }
    // Missing records are passed over.
    zyn_tensor tensor{};
    t.run(nullptr, all.get());
    t.run(&tensor, all.get());
    tensor.data = &tensor;
    t.run(&tensor, nullptr);
    const zyn_image empty{};
    t.run(&tensor, &empty);
  }
}

TEST(DetectInput, DroppingTheFourthByte) {
  for (int width = 1; width <= 37; width++)
    for (int height : {1, 3}) {
      Picture four(width, height, ZYN_IMAGE_BGRA), three(width, height, ZYN_IMAGE_BGR);
      uint8_t *source = bytes(four.fill(width).get()), *target = bytes(three.get());
      Bytes want = three.copy();
      for (size_t i = 0; i < want.size(); i++) want[i] = source[i / 3 * 4 + i % 3];
      ASSERT_EQ(zyn_convert_rgba_to_rgb(target, source, width, height), 0);
      ASSERT_TRUE(three.holds(want));
      ASSERT_EQ(zyn_convert_rgba_to_rgb(source, source, width, height), 0);
      ASSERT_EQ(memcmp(source, target, want.size()), 0) << "in place";
    }
  uint8_t byte = 7;
  EXPECT_EQ(zyn_convert_rgba_to_rgb(nullptr, &byte, 1, 1), 1);
  EXPECT_EQ(zyn_convert_rgba_to_rgb(&byte, nullptr, 1, 1), 1);
  for (int width : {8, 0, INT32_MIN})
    EXPECT_EQ(zyn_convert_rgba_to_rgb(&byte, &byte, width, width == 8 ? 0 : INT32_MIN), 0);
  EXPECT_EQ(byte, 7);
}

// ---- borders

using Margins = std::array<int32_t, 4>;  // top, bottom, left, right

zyn_image* border(Margins& m, const zyn_image* image, float ratio) {
  return zyn_create_border_image(&m[0], &m[1], &m[2], &m[3], image, ratio);
}

Margins expected_margins(int width, int height, float ratio) {
  const float wanted_height = static_cast<float>(width) * ratio + 0.5f;
  const float wanted_width = static_cast<float>(height) / ratio + 0.5f;
  const int rows = std::max(0, static_cast<int>(wanted_height) - height);
  const int columns = std::max(0, static_cast<int>(wanted_width) - width);
  return {rows / 2, rows - rows / 2, columns / 2, columns - columns / 2};
}

void check_border(int width, int height, uint32_t format, float ratio, int padding) {
  Picture source(width, height, format, padding);
  Margins m;
  Image image(border(m, source.fill(width * 31 + height).get(), ratio));
  ASSERT_TRUE(image && image->format == format);
  ASSERT_EQ(m, expected_margins(width, height, ratio));
  ASSERT_TRUE(image->cols == width + m[2] + m[3] && image->rows == height + m[0] + m[1]);
  const int pixel = source.pixel_bytes();
  for (int p = 0; p < source.planes(); p++) {
    const PlaneView plane = plane_of(*image, p), from = source.plane(p);
    const int half = p ? 1 : 0, w = (width >> half) * pixel, h = height >> half;
    for (int y = 0; y < image->rows >> half; y++)
      for (int x = 0; x < (image->cols >> half) * pixel; x++) {
        const int sx = x - (m[2] >> half) * pixel, sy = y - (m[0] >> half);
        const bool inside = sx >= 0 && sy >= 0 && sx < w && sy < h;
        ASSERT_EQ(plane.at(x, y), inside ? from.at(sx, sy) : 128 * half)
            << "plane " << p << " byte " << x << " of row " << y;
      }
  }
}

TEST(DetectInput, BordersOfEveryShapeAndFormat) {
  for (uint32_t format : {ZYN_IMAGE_BGR, ZYN_IMAGE_RGB, ZYN_IMAGE_I420})
    for (int width : {1, 2, 5, 8, 17})
      for (int height : {1, 2, 3, 7, 16})
        for (float ratio : {0.75f, 1.0f, 0.31f, 3.3f})
          for (int padding : {0, 2, 3})
            ASSERT_NO_FATAL_FAILURE(check_border(width, height, format, ratio, padding))
                << width << "x" << height << " format " << format << " ratio " << ratio;
}

TEST(DetectInput, BorderRefusalsLeaveTheMargins) {
  const Margins untouched{7, 7, 7, 7};
  Margins m = untouched;
  Picture picture(8, 8, ZYN_IMAGE_BGR), chroma(8, 8, ZYN_IMAGE_I420);
  for (float ratio : {0.0f, -0.0f, -1.0f, NAN, INFINITY, -INFINITY, 1e-45f, 1e-9f, 1e9f, 3.4e38f})
    EXPECT_EQ(border(m, picture.get(), ratio), nullptr) << ratio;
  zyn_image image;
  const auto refused = [&](Picture& of, auto zyn_image::*field, auto value) {
    image = *of.get();
    image.*field = value;
    EXPECT_EQ(border(m, &image, 1.5f), nullptr);
  };
  for (int32_t side : {0, -1, 4097, INT32_MIN, INT32_MAX}) {
    refused(picture, &zyn_image::cols, side);
    refused(picture, &zyn_image::rows, side);
  }
  for (uint32_t format : {2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14})
    refused(picture, &zyn_image::format, format);
  refused(picture, &zyn_image::data, nullptr);
  refused(picture, &zyn_image::row_bytes, 23);
  refused(chroma, &zyn_image::plane1, nullptr);
  refused(chroma, &zyn_image::plane2_bytes, 3);
  // A format that no image has is the creation's to report.
  EXPECT_EQ(printed([&] { refused(picture, &zyn_image::format, 15); }), codec_report(kPara, 472));
  for (size_t k = 0; k < 5; k++) {
    const auto place = [&](size_t i) { return i == k ? nullptr : &m[i]; };
    const zyn_image* from = k == 4 ? nullptr : picture.get();
    EXPECT_EQ(zyn_create_border_image(place(0), place(1), place(2), place(3), from, 1), nullptr);
  }
  EXPECT_EQ(m, untouched);
}

// ---- patches

struct Patch {
  int32_t to[2], from[2], size[2];
};

// One direction of a patch in an image of count pixels.
bool fits(int at, int size, int count) { return size >= 1 && size <= count && at + size <= count; }

void check_patch(Picture& target, Picture& source, const Patch& p) {
  const zyn_image &to = *target.get(), &from = *source.get();
  bool good = true;
  for (int k : {0, 1})
    good = good && fits(p.from[k], p.size[k], k ? from.rows : from.cols) &&
           p.to[k] + p.size[k] <= (k ? to.rows : to.cols);
  Bytes want = target.fill(99).copy();
  const int pixel = target.pixel_bytes();
  for (int i = 0; i < target.planes() && good; i++) {
    const int half = i ? 1 : 0, rows = to.rows >> half;
    const int x = p.to[0] >> half, sx = p.from[0] >> half, w = p.size[0] >> half;
    const PlaneView out = target.plane(i, &want), in = source.plane(i);
    memset(out.data, 128 * half, static_cast<size_t>(out.stride * rows));
    if (x < 0 || sx < 0 || x + w > to.cols >> half || sx + w > from.cols >> half) continue;
    const auto clamp = [](int row, int count) { return std::max(0, std::min(row, count - 1)); };
    for (int r = 0; r < p.size[1] >> half; r++)
      std::copy_n(&in.at(sx * pixel, clamp((p.from[1] >> half) + r, from.rows >> half)), w * pixel,
                  &out.at(x * pixel, clamp((p.to[1] >> half) + r, rows)));
  }
  SCOPED_TRACE(testing::PrintToString(p.from) + testing::PrintToString(p.to) +
               testing::PrintToString(p.size));
  ASSERT_EQ(zyn_image_cropped_patch_with_border(target.get(), p.to, source.get(), p.from, p.size),
            good ? 0 : 1);
  ASSERT_TRUE(target.holds(want)) << "format " << to.format;
}

TEST(DetectInput, PatchesAtEveryPlaceOfSmallImages) {
  const int pairs[][3] = {{0, 1, 0}, {2, 2, 2}, {5, 5, 3}, {5, 5, 0}, {14, 14, 0}};
  for (const auto& [to, from, padding] : pairs) {
    Picture target(5, 6, to, padding), source(5, 4, from, padding);
    source.fill(4);
    for (int x = -2; x <= 3; x++)
      for (int y = -3; y <= 4; y++)
        for (int sx = -1; sx <= 2; sx++)
          for (int sy = -3; sy <= 2; sy++)
            for (int w : {0, 1, 2, 5, 6})
              for (int h : {0, 1, 3, 4})
                ASSERT_NO_FATAL_FAILURE(check_patch(target, source, {{x, y}, {sx, sy}, {w, h}}));
  }
}

TEST(DetectInput, PatchRefusals) {
  const int32_t origin[2] = {0, 0}, one[2] = {1, 1};
  // Sums of position and size do not wrap.
  const int32_t above[2] = {0, -10}, beyond[2] = {INT32_MAX, INT32_MAX}, high[2] = {0, INT32_MIN};
  Picture target(4, 4, ZYN_IMAGE_BGR), source(4, 4, ZYN_IMAGE_BGR);
  const Bytes before = target.clear(1);
  zyn_image to = *target.get(), from = *source.get();
  const auto run = [&](const int32_t* at, const int32_t* source_at) {
    const int32_t code = zyn_image_cropped_patch_with_border(&to, at, &from, source_at, one);
    EXPECT_TRUE(target.holds(before));
    to = *target.get(), from = *source.get();
    return code;
  };
  EXPECT_EQ(zyn_image_cropped_patch_with_border(nullptr, origin, &from, origin, one), 1);
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, origin, nullptr, origin, one), 1);
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, origin, &from, origin, nullptr), 1);
  EXPECT_EQ(run(nullptr, origin), 1);
  EXPECT_EQ(run(origin, nullptr), 1);
  EXPECT_EQ(run(beyond, origin), 1);
  EXPECT_EQ(run(origin, beyond), 1);
  EXPECT_EQ((to.rows = -5, run(above, origin)), 1);
  const auto refused = [&](int code) { EXPECT_EQ(run(origin, origin), code); };
  for (int channels : {4, 2}) refused((to.channels = from.channels = channels, 4));
  for (uint32_t format : {ZYN_IMAGE_PLANAR, ZYN_IMAGE_NV12})
    refused((to.format = from.format = format, 4));
  refused((to.channels = 1, 1));
  refused((from.format = ZYN_IMAGE_I420, 1));  // though type and channel count agree
  refused((to.format = ZYN_IMAGE_NV21, 1));
  refused((from.element_size = 2, 1));
  refused((to.data = nullptr, 1));
  refused((from.data = nullptr, 1));
  refused((to.row_bytes = 11, 1));
  refused((to.format = from.format = ZYN_IMAGE_I420, 1));  // no chroma planes
  // Far above the image the first row repeats.
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, high, &from, high, one), 0);
}

}  // namespace

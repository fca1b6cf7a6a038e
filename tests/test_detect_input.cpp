// Images as network input: the eight transforms, borders and patches, pixel by pixel
// against their definitions, on buffers that end at an inaccessible page.
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <array>

#include "support/failing.h"
#include "support/images.h"

namespace {

using namespace zyn_test;
using Bytes = std::vector<uint8_t>;

// An image record over planes of its own, each ending at an inaccessible page; the
// last row has no padding behind it.
class Picture {
 public:
  Picture(int width, int height, uint32_t format, int padding = 0) {
    image_.kind = ZYN_KIND_IMAGE;
    image_.rows = height;
    image_.cols = width;
    image_.pages = 1;
    image_.format = format;
    image_.element_size = format == ZYN_IMAGE_BGR48 ? 2 : 1;
    image_.channels = format == ZYN_IMAGE_GRAY ? 1 : 3;
    const bool yuv = format == ZYN_IMAGE_I420;
    image_.row_bytes = width * (yuv ? 1 : pixel_bytes()) + padding;
    image_.data = add_plane(image_.row_bytes, height);
    if (!yuv) return;
    image_.plane1 = add_plane(image_.plane1_bytes = width / 2 + padding, height / 2);
    image_.plane2 = add_plane(image_.plane2_bytes = width / 2 + 2 * padding, height / 2);
  }
  Picture& fill(uint64_t seed) {
    Random random(seed);
    for (auto& plane : planes_)
      for (uint8_t& byte : *plane) byte = static_cast<uint8_t>(random.next());
    return *this;
  }
  int pixel_bytes() const { return static_cast<int>(image_.element_size) * image_.channels; }
  zyn_image* record() { return &image_; }
  PageEnd<uint8_t>& plane(size_t i) { return *planes_[i]; }
  int planes() const { return static_cast<int>(planes_.size()); }

 private:
  uint8_t* add_plane(int64_t stride, int rows) {
    planes_.push_back(std::make_unique<PageEnd<uint8_t>>(static_cast<size_t>(stride * rows)));
    return planes_.back()->data();
  }
  zyn_image image_{};
  std::vector<std::unique_ptr<PageEnd<uint8_t>>> planes_;
};

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
  const char* name;
  void (*run)(zyn_tensor*, const zyn_image*);
  bool reversed;  // plane 0 takes byte 2
  bool words;
  double (*value)(int byte);
};
const Transform kTransforms[] = {
    {"ssd", zyn_transform_image_data_for_ssd_detector, true, false, ssd_real},
    {"ssd rgb", zyn_transform_image_data_for_ssd_detector_rgb24, false, false, ssd_real},
    {"ssd fp16", zyn_transform_image_data_for_ssd_detector_fp16, true, true, ssd_word},
    {"ssd rgb fp16", zyn_transform_image_data_for_ssd_detector_rgb24_fp16, false, true, ssd_word},
    {"pfld", zyn_transform_image_data_for_pfld_detector, false, false, pfld_real},
    {"pfld rgb", zyn_transform_image_data_for_pfld_detector_rgb24, true, false, pfld_real},
    {"pfld fp16", zyn_transform_image_data_for_pfld_detector_fp16, false, true, pfld_word},
    {"pfld rgb fp16", zyn_transform_image_data_for_pfld_detector_rgb24_fp16, true, true,
     pfld_word}};

void check_transform(const Transform& t, Picture& picture) {
  const zyn_image& image = *picture.record();
  const size_t width = static_cast<size_t>(image.cols),
               plane = width * static_cast<size_t>(image.rows);
  PageEnd<float> reals(t.words ? 0 : 3 * plane);
  PageEnd<int16_t> words(t.words ? 3 * plane : 0);
  zyn_tensor tensor{};
  tensor.data = t.words ? static_cast<void*>(words.data()) : reals.data();
  t.run(&tensor, &image);
  for (size_t i = 0; i < 3 * plane; i++) {
    const size_t p = i / plane, y = i % plane / width, x = i % width;
    const size_t at = y * static_cast<size_t>(image.row_bytes) + 3 * x + (t.reversed ? 2 - p : p);
    ASSERT_EQ(t.words ? words[i] : static_cast<double>(reals[i]), t.value(picture.plane(0)[at]))
        << t.name << " " << width << "x" << image.rows << " stride " << image.row_bytes
        << ", plane " << p << " at (" << x << ", " << y << ")";
  }
}

TEST(DetectInput, TransformsGiveTheStatedBitsForEveryByteAndShape) {
  for (const Transform& t : kTransforms) {
    Picture all(256, 1, ZYN_IMAGE_BGR);
    for (size_t i = 0; i < 256; i++)
      for (size_t c = 0; c < 3; c++)
        all.plane(0)[3 * i + c] = static_cast<uint8_t>(i * (2 * c + 1) + 85 * c);
    ASSERT_NO_FATAL_FAILURE(check_transform(t, all));
    for (int width = 1; width <= 33; width++)
      for (int height : {1, 3})
        for (int padding : {0, 1, 13}) {
          Picture picture(width, height, ZYN_IMAGE_BGR, padding);
          ASSERT_NO_FATAL_FAILURE(check_transform(t, picture.fill(width)));
        }
    // Missing records are passed over.
    zyn_tensor tensor{};
    zyn_image empty{};
    t.run(nullptr, all.record());
    t.run(&tensor, all.record());
    tensor.data = &tensor;
    t.run(&tensor, nullptr);
    t.run(&tensor, &empty);
  }
}

TEST(DetectInput, DroppingTheFourthByte) {
  for (int width = 1; width <= 37; width++)
    for (int height : {1, 3}) {
      const auto pixels = static_cast<size_t>(width * height);
      PageEnd<uint8_t> source(4 * pixels), target(3 * pixels);
      Random random(width);
      for (uint8_t& byte : source) byte = static_cast<uint8_t>(random.next());
      ASSERT_EQ(zyn_convert_rgba_to_rgb(target.data(), source.data(), width, height), 0);
      for (size_t i = 0; i < target.size(); i++)
        ASSERT_EQ(target[i], source[i / 3 * 4 + i % 3]) << width << "x" << height << " byte " << i;
      ASSERT_EQ(zyn_convert_rgba_to_rgb(source.data(), source.data(), width, height), 0);
      ASSERT_TRUE(std::equal(target.begin(), target.end(), source.begin())) << "in place";
    }
  uint8_t byte = 7;
  EXPECT_EQ(zyn_convert_rgba_to_rgb(nullptr, &byte, 1, 1), 1);
  EXPECT_EQ(zyn_convert_rgba_to_rgb(&byte, nullptr, 1, 1), 1);
  for (int height : {0, -1, INT32_MIN})
    EXPECT_EQ(zyn_convert_rgba_to_rgb(&byte, &byte, 8, height), 0);
  EXPECT_EQ(zyn_convert_rgba_to_rgb(&byte, &byte, INT32_MIN, INT32_MIN), 0);
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
  SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height) + " format " +
               std::to_string(format) + " ratio " + std::to_string(ratio));
  Picture source(width, height, format, padding);
  source.fill(width * 31 + height);
  Margins m;
  Image image(border(m, source.record(), ratio));
  ASSERT_TRUE(image);
  EXPECT_EQ(m, expected_margins(width, height, ratio));
  EXPECT_EQ(image->format, format);
  ASSERT_TRUE(image->cols == width + m[2] + m[3] && image->rows == height + m[0] + m[1]);
  const int bytes = format == ZYN_IMAGE_I420 ? 1 : 3;
  for (int p = 0; p < source.planes(); p++) {
    const PlaneView plane = plane_of(image.get(), p), from = plane_of(source.record(), p);
    const int halving = p ? 1 : 0;
    for (int y = 0; y < image->rows >> halving; y++)
      for (int x = 0; x < (image->cols >> halving) * bytes; x++) {
        const int sx = x - (m[2] >> halving) * bytes, sy = y - (m[0] >> halving);
        const bool inside =
            sx >= 0 && sy >= 0 && sx < (width >> halving) * bytes && sy < height >> halving;
        ASSERT_EQ(plane.at(x, y), inside ? from.at(sx, sy)
                                  : p    ? 128
                                         : 0)
            << "plane " << p << " byte " << x << " of row " << y;
      }
  }
}

TEST(DetectInput, BordersOfEveryShapeAndFormat) {
  for (uint32_t format : {ZYN_IMAGE_BGR, ZYN_IMAGE_RGB, ZYN_IMAGE_I420})
    for (int width : {1, 2, 5, 8, 17})
      for (int height : {1, 2, 3, 7, 16})
        for (float ratio : {0.75f, 1.0f, 0.31f, 3.3f})
          for (int padding : {0, 3})
            ASSERT_NO_FATAL_FAILURE(check_border(width, height, format, ratio, padding));
}

TEST(DetectInput, BorderRefusalsLeaveTheMargins) {
  const Margins untouched{7, 7, 7, 7};
  Margins m = untouched;
  Picture picture(8, 8, ZYN_IMAGE_BGR), chroma(8, 8, ZYN_IMAGE_I420);
  for (float ratio : {0.0f, -0.0f, -1.0f, NAN, INFINITY, -INFINITY, 1e-45f, 1e-9f, 1e9f, 3.4e38f})
    EXPECT_EQ(border(m, picture.record(), ratio), nullptr) << ratio;
  const auto refused = [&](Picture& of, auto damage) {
    zyn_image image = *of.record();
    damage(image);
    EXPECT_EQ(border(m, &image, 1.5f), nullptr);
  };
  for (int32_t side : {0, -1, 4097, INT32_MIN, INT32_MAX}) {
    refused(picture, [&](zyn_image& image) { image.cols = side; });
    refused(picture, [&](zyn_image& image) { image.rows = side; });
  }
  for (uint32_t format : {2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14})
    refused(picture, [&](zyn_image& image) { image.format = format; });
  refused(picture, [](zyn_image& image) { image.data = nullptr; });
  refused(picture, [](zyn_image& image) { image.row_bytes = 23; });
  refused(chroma, [](zyn_image& image) { image.plane1 = nullptr; });
  refused(chroma, [](zyn_image& image) { image.plane2_bytes = 3; });
  // A format that no image has is the creation's to report.
  EXPECT_EQ(printed([&] { refused(picture, [](zyn_image& image) { image.format = 15; }); }),
            codec_report(kPara, 472));
  for (int k = 0; k < 5; k++) {
    const auto place = [&](int i) { return i == k ? nullptr : &m[static_cast<size_t>(i)]; };
    EXPECT_EQ(zyn_create_border_image(place(0), place(1), place(2), place(3),
                                      k == 4 ? nullptr : picture.record(), 1),
              nullptr);
  }
  EXPECT_EQ(m, untouched);
  Capture capture;
  for (Picture* of : {&picture, &chroma})
    EXPECT_EQ(for_each_failing_allocation([&](int64_t, bool) {
                m = untouched;
                Image image(border(m, of->record(), 2.0f));
                EXPECT_EQ(m, image ? (Margins{4, 4, 0, 0}) : untouched);
                return image != nullptr;
              }),
              2);
}

// ---- patches

struct Patch {
  int32_t to[2], from[2], size[2];
};

int clamp_to(int value, int count) { return std::max(0, std::min(value, count - 1)); }

void check_patch(Picture& target, Picture& source, const Patch& p) {
  const zyn_image &to = *target.record(), &from = *source.record();
  const bool fits = p.size[0] >= 1 && p.size[1] >= 1 && p.size[0] <= from.cols &&
                    p.size[1] <= from.rows && p.to[0] + p.size[0] <= to.cols &&
                    p.to[1] + p.size[1] <= to.rows && p.from[0] + p.size[0] <= from.cols &&
                    p.from[1] + p.size[1] <= from.rows;
  target.fill(99);
  std::vector<Bytes> expected;
  for (int i = 0; i < target.planes(); i++) {
    expected.emplace_back(target.plane(i).begin(), target.plane(i).end());
    if (!fits) continue;
    Bytes& plane = expected.back();
    std::fill(plane.begin(), plane.end(), i ? 128 : 0);
    const int halving = i ? 1 : 0, bytes = target.planes() > 1 ? 1 : target.pixel_bytes();
    const int x = p.to[0] >> halving, sx = p.from[0] >> halving, w = p.size[0] >> halving;
    if (x < 0 || sx < 0 || x + w > to.cols >> halving || sx + w > from.cols >> halving) continue;
    const PlaneView out = {plane.data(), plane_of(&to, i).stride}, in = plane_of(&from, i);
    for (int r = 0; r < p.size[1] >> halving; r++) {
      const int y = clamp_to((p.to[1] >> halving) + r, to.rows >> halving);
      const int sy = clamp_to((p.from[1] >> halving) + r, from.rows >> halving);
      std::copy_n(&in.at(sx * bytes, sy), w * bytes, &out.at(x * bytes, y));
    }
  }
  const int32_t code =
      zyn_image_cropped_patch_with_border(target.record(), p.to, source.record(), p.from, p.size);
  const auto where = [&] {
    char text[128];
    snprintf(text, sizeof(text), "format %u, (%d, %d) to (%d, %d), %d x %d", to.format, p.from[0],
             p.from[1], p.to[0], p.to[1], p.size[0], p.size[1]);
    return std::string(text);
  };
  ASSERT_EQ(code, fits ? 0 : 1) << where();
  for (int i = 0; i < target.planes(); i++)
    ASSERT_TRUE(std::equal(expected[i].begin(), expected[i].end(), target.plane(i).begin()))
        << "plane " << i << ", " << where();
}

TEST(DetectInput, PatchesAtEveryPlaceOfSmallImages) {
  const struct {
    uint32_t to, from;
    int padding;
  } pairs[] = {{ZYN_IMAGE_BGR, ZYN_IMAGE_RGB, 0},
               {ZYN_IMAGE_GRAY, ZYN_IMAGE_GRAY, 2},
               {ZYN_IMAGE_I420, ZYN_IMAGE_I420, 1},
               {ZYN_IMAGE_I420, ZYN_IMAGE_I420, 0},
               {ZYN_IMAGE_BGR48, ZYN_IMAGE_BGR48, 0}};
  for (const auto& pair : pairs) {
    Picture target(5, 6, pair.to, pair.padding), source(5, 4, pair.from, pair.padding);
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
  Picture target(4, 4, ZYN_IMAGE_BGR), source(4, 4, ZYN_IMAGE_BGR);
  target.fill(1);
  const Bytes before(target.plane(0).begin(), target.plane(0).end());
  zyn_image to = *target.record(), from = *source.record();
  const auto run = [&](const int32_t* at = nullptr, const int32_t* source_at = nullptr) {
    const int32_t code = zyn_image_cropped_patch_with_border(&to, at ? at : origin, &from,
                                                             source_at ? source_at : origin, one);
    EXPECT_TRUE(std::equal(before.begin(), before.end(), target.plane(0).begin()));
    to = *target.record();
    from = *source.record();
    return code;
  };
  EXPECT_EQ(zyn_image_cropped_patch_with_border(nullptr, origin, &from, origin, one), 1);
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, nullptr, &from, origin, one), 1);
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, origin, nullptr, origin, one), 1);
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, origin, &from, nullptr, one), 1);
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, origin, &from, origin, nullptr), 1);
  for (int channels : {4, 2}) EXPECT_EQ((to.channels = from.channels = channels, run()), 4);
  for (uint32_t format : {ZYN_IMAGE_PLANAR, ZYN_IMAGE_NV12})
    EXPECT_EQ((to.format = from.format = format, run()), 4);
  EXPECT_EQ((to.channels = 1, run()), 1);
  // Layouts are not mixed although type and channel count agree.
  EXPECT_EQ((from.format = ZYN_IMAGE_I420, run()), 1);
  EXPECT_EQ((to.format = ZYN_IMAGE_NV21, run()), 1);
  EXPECT_EQ((from.element_size = 2, run()), 1);
  EXPECT_EQ((to.data = nullptr, run()), 1);
  EXPECT_EQ((from.data = nullptr, run()), 1);
  EXPECT_EQ((to.row_bytes = 11, run()), 1);
  EXPECT_EQ((to.format = from.format = ZYN_IMAGE_I420, run()), 1) << "no chroma planes";
  // Sums of position and size do not wrap; far above the image the first row repeats.
  const int32_t above[2] = {0, -10}, beyond[2] = {INT32_MAX, INT32_MAX}, high[2] = {0, INT32_MIN};
  EXPECT_EQ((to.rows = -5, run(above)), 1);
  EXPECT_EQ(run(beyond), 1);
  EXPECT_EQ(run(nullptr, beyond), 1);
  EXPECT_EQ(zyn_image_cropped_patch_with_border(&to, high, &from, high, one), 0);
}

}  // namespace

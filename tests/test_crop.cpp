// Cropped patches: every way of hanging over an edge, against clamped coordinates.
#include "support/images.h"

namespace {

using namespace zyn_test;

int clamp(int64_t v, int last) {
  return static_cast<int>(std::min<int64_t>(std::max<int64_t>(v, 0), last));
}

// Crops a random image; every byte of the destination is compared.
void check(uint32_t format, int from_w, int from_h, int x, int y, int w, int h) {
  Picture from(from_w, from_h, format, w % 4, true), to(w, h, format, (w / 4 + h) % 4, true);
  from.fill(from_w * 31 + from_h);
  Bytes want = to.clear(0xEE);
  const int pixel = from.pixel_bytes();
  for (int k = 0; k < from.planes(); k++) {
    const int half = k ? 1 : 0, sw = from_w >> half, sh = from_h >> half;
    const PlaneView source = from.plane(k), out = to.plane(k, &want);
    for (int r = 0; r < h >> half; r++)
      for (int i = 0; i < (w >> half) * pixel; i++) {
        const int at = clamp(int64_t{x >> half} + i / pixel, sw - 1) * pixel + i % pixel;
        // A source of one row or column has no chroma to repeat.
        out.at(i, r) = sw && sh ? source.at(at, clamp(int64_t{y >> half} + r, sh - 1)) : 128;
      }
  }
  int32_t position[2] = {x, y};
  const int32_t size[2] = {w, h};
  ASSERT_EQ(zyn_image_cropped_patch(to.get(), from.get(), position, size), 0);
  // On purpose: a format 5 crop leaves the caller's position halved.
  EXPECT_EQ(position[0], format == 5 ? x >> 1 : x);
  EXPECT_EQ(position[1], format == 5 ? y >> 1 : y);
  ASSERT_TRUE(to.holds(want)) << "format " << format << " source " << from_w << "x" << from_h
                              << " at (" << x << ", " << y << ")";
}

TEST(Crop, EveryOverhangOfEveryFormatAndAFormat5PositionIsLeftHalved) {
  for (uint32_t format : {0u, 1u, 2u, 5u, 8u, 9u, 14u}) {
    for (int x : {INT32_MIN, -40, -7, -2, -1, 0, 1, 5, 8, 9, 30, INT32_MAX})
      for (int y : {INT32_MIN, -3, 0, 2, 6, 25, INT32_MAX})
        for (int w : {1, 4, 9, 21})
          for (int h : {1, 3, 12}) ASSERT_NO_FATAL_FAILURE(check(format, 9, 7, x, y, w, h));
    for (int from_w : {1, 2, 70})
      for (int from_h : {1, 3}) check(format, from_w, from_h, -1, -1, 64, 4);
  }
}

TEST(Crop, RefusalsAreSilentAndWriteNothing) {
  int32_t position[2] = {2, 2}, size[2] = {4, 4};
  const auto expect = [&](zyn_image* to, zyn_image* from, int code = 1) {
    EXPECT_SAYS(zyn_image_cropped_patch(to, from, position, size), code, "");
    EXPECT_EQ(position[0], 2);
  };
  const uint32_t formats[][3] = {{3, 3, 4},   {4, 4, 4},  {7, 7, 4}, {6, 6, 4},  {12, 12, 4},
                                 {13, 13, 4}, {0, 5, 1},  {5, 0, 1}, {0, 12, 1}, {5, 12, 1},
                                 {0, 14, 1},  {14, 0, 1}, {0, 6, 1}, {2, 0, 1}};
  for (const auto& f : formats)
    expect(make_image(4, 4, f[0]).get(), make_image(9, 9, f[1]).get(), static_cast<int>(f[2]));
  Picture to(4, 4, 0);
  const Bytes before = to.clear(0x77);
  Image from = make_image(9, 9, 0), planeless = make_image(9, 9, 5), yuv = make_image(4, 4, 5);
  zyn_recreate_image(planeless.get(), 9, 9);
  expect(nullptr, from.get());
  expect(to.get(), nullptr);
  expect(yuv.get(), planeless.get());
  for (int& side : size) {
    side++;
    expect(to.get(), from.get());
    side--;
  }
  EXPECT_EQ(zyn_image_cropped_patch(to.get(), from.get(), nullptr, size), 1);
  EXPECT_EQ(zyn_image_cropped_patch(to.get(), from.get(), position, nullptr), 1);
  EXPECT_TRUE(to.holds(before));
}

}  // namespace

// Cropped patches: every way of hanging over an edge, against clamped coordinates.
#include <algorithm>

#include "support/images.h"

namespace {

using namespace zyn_test;

int clamp(int64_t v, int last) {
  return static_cast<int>(std::min<int64_t>(std::max<int64_t>(v, 0), last));
}

// Crops a random page-end image; every byte of the destination is compared.
void check(uint32_t format, int from_w, int from_h, int x, int y, int w, int h) {
  PageEndImage from(from_w, from_h, format), to(w, h, format);
  Random random(from_w * 31 + from_h);
  from.fill(random);
  for (uint8_t& byte : to.memory()) byte = 0xEE;
  std::vector<uint8_t> want(to.memory().begin(), to.memory().end());
  const int pixel = format == 14 ? 6 : format == 2 || format == 5 ? 1 : 3;
  const auto plane = [&](int k, int sw, int sh, int px, int py, int dw, int dh) {
    const PlaneView source = plane_of(from.get(), k), out = plane_of(to.get(), k, want.data());
    for (int r = 0; r < dh; r++)
      for (int i = 0; i < dw * pixel; i++)
        out.at(i, r) = sw && sh
                           ? source.at(clamp(int64_t{px} + i / pixel, sw - 1) * pixel + i % pixel,
                                       clamp(int64_t{py} + r, sh - 1))
                           : 128;
  };
  plane(0, from_w, from_h, x, y, w, h);
  for (int k = 1; k < 3 && format == 5; k++)
    plane(k, from_w / 2, from_h / 2, x >> 1, y >> 1, w / 2, h / 2);
  int32_t position[2] = {x, y};
  const int32_t size[2] = {w, h};
  ASSERT_EQ(zyn_image_cropped_patch(to.get(), from.get(), position, size), 0);
  // On purpose: a format 5 crop leaves the caller's position halved.
  EXPECT_EQ(position[0], format == 5 ? x >> 1 : x);
  EXPECT_EQ(position[1], format == 5 ? y >> 1 : y);
  size_t at = 0;
  while (at < want.size() && to.memory()[at] == want[at]) at++;
  ASSERT_EQ(at, want.size()) << "format " << format << " source " << from_w << "x" << from_h
                             << " at (" << x << ", " << y << ") size " << w << "x" << h;
}

TEST(Crop, EveryOverhangOfEveryFormatAndAFormat5PositionIsLeftHalved) {
  for (uint32_t format : {0u, 1u, 2u, 5u, 8u, 9u, 14u})
    for (int x : {-40, -7, -2, -1, 0, 1, 5, 8, 9, 30})
      for (int y : {-40, -3, 0, 2, 6, 25})
        for (int w : {1, 4, 9, 21})
          for (int h : {1, 3, 12}) {
            check(format, 9, 7, x, y, w, h);
            if (::testing::Test::HasFatalFailure()) return;
          }
  for (uint32_t format : {0u, 2u, 5u})
    for (int from_w : {1, 2, 70})
      for (int from_h : {1, 3}) check(format, from_w, from_h, -1, -1, 64, 4);
  for (int extreme : {INT32_MIN, INT32_MAX})
    for (uint32_t format : {0u, 5u}) check(format, 9, 7, extreme, extreme, 4, 4);
}

TEST(Crop, RefusalsAreSilentAndWriteNothing) {
  const auto expect = [](zyn_image* to, zyn_image* from, int w, int h, int code) {
    int32_t position[2] = {2, 2};
    const int32_t size[2] = {w, h};
    EXPECT_SAYS(zyn_image_cropped_patch(to, from, position, size), code, "");
    EXPECT_EQ(position[0], 2);
  };
  Image from = make_image(9, 9, 0), to = make_image(4, 4, 0), gray = make_image(4, 4, 2);
  memset(to->data, 0x77, 48);
  expect(nullptr, from.get(), 4, 4, 1);
  expect(to.get(), nullptr, 4, 4, 1);
  expect(to.get(), from.get(), 5, 4, 1);
  expect(to.get(), from.get(), 4, 3, 1);
  expect(gray.get(), from.get(), 4, 4, 1);
  const uint32_t pairs[][3] = {{3, 3, 4},   {4, 4, 4},   {7, 7, 4},  {6, 6, 4},
                               {12, 12, 4}, {13, 13, 4}, {0, 5, 1},  {5, 0, 1},
                               {0, 12, 1},  {5, 12, 1},  {0, 14, 1}, {0, 6, 1}};
  for (const auto& p : pairs) {
    Image a = make_image(4, 4, p[0]), b = make_image(9, 9, p[1]);
    expect(a.get(), b.get(), 4, 4, static_cast<int>(p[2]));
  }
  for (int i = 0; i < 48; i++) EXPECT_EQ(bytes(to)[i], 0x77);
  int32_t position[2] = {0, 0};
  const int32_t size[2] = {4, 4};
  EXPECT_EQ(zyn_image_cropped_patch(to.get(), from.get(), nullptr, size), 1);
  EXPECT_EQ(zyn_image_cropped_patch(to.get(), from.get(), position, nullptr), 1);
  Image yuv = make_image(4, 4, 5), planeless = make_image(9, 9, 5);
  zyn_recreate_image(planeless.get(), 9, 9);
  expect(yuv.get(), planeless.get(), 4, 4, 1);
}

}  // namespace

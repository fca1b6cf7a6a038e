// Colour conversion against the formulas in plain integers: all colours, odd sizes,
// strides, page-end buffers, refusals.
#include "support/images.h"

namespace {

using namespace zyn_test;

uint8_t clamp(int v) { return static_cast<uint8_t>(std::min(255, std::max(0, v))); }

// Blue, green and red, or what stands in their place, under a code for packed pixels.
void convert_pixel(uint32_t code, int p[3]) {
  const int b = p[0], g = p[1], r = p[2];
  if (code == 0) p[0] = p[1] = p[2] = (1868 * b + 9617 * g + 4899 * r + 8192) >> 14;
  if (code == 13) {
    const int middle = b + ((r - b) >> 1), leaf = (g - middle) >> 1;
    p[0] = middle + leaf - 128, p[1] = leaf, p[2] = (r - b) >> 1;
  }
  if (code == 14) {
    const int leaf = static_cast<int8_t>(g), warm = static_cast<int8_t>(r);
    const int middle = static_cast<int8_t>(b) + 128 - leaf;
    p[0] = clamp(middle - warm), p[1] = clamp(middle + 2 * leaf), p[2] = clamp(middle + warm);
  }
}

// Odd rows and columns at the end repeat the pixel before them.
int even(int x, int w) { return w > 1 && (w & 1) && x == w - 1 ? x - 1 : x; }

void expect_yuv(const PlaneView& s, const PlaneView d[3], int w, int h) {
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      const uint8_t* p = &s.at(even(x, w), even(y, h), 0, 3);
      d[0].at(x, y) =
          static_cast<uint8_t>(((8421 * p[2] + 16515 * p[1] + 3211 * p[0] + 16384) >> 15) + 16);
    }
  for (int y = 0; y < h / 2; y++)
    for (int x = 0; x < (w + 1) / 2; x++) {
      int m[3];
      const int left = w > 1 ? 2 * std::min(x, w / 2 - 1) : 0, right = w > 1 ? left + 1 : 0;
      for (int c = 0; c < 3; c++)
        m[c] = (s.at(left, 2 * y, c, 3) + s.at(right, 2 * y, c, 3) + s.at(left, 2 * y + 1, c, 3) +
                s.at(right, 2 * y + 1, c, 3) + 2) >>
               2;
      const int u = (-4850 * m[2] - 9535 * m[1] + 14385 * m[0] + 16384) >> 15;
      const int v = (14385 * m[2] - 12059 * m[1] - 2327 * m[0] + 16384) >> 15;
      // The odd column has chroma where there is room for it.
      if (x < d[1].stride) d[1].at(x, y) = static_cast<uint8_t>(u + 128);
      if (x < d[2].stride) d[2].at(x, y) = static_cast<uint8_t>(v + 128);
    }
}

void expect_bgr(const PlaneView s[3], const PlaneView& d, int w, int h) {
  const bool neutral = h == 1 || s[1].stride == 0 || s[2].stride == 0;
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      const int ex = even(x, w), ey = even(y, h), l = 9535 * (s[0].at(ex, ey) - 16) + 4096;
      const int u = neutral ? 0 : s[1].at(ex / 2, ey / 2) - 128;
      const int v = neutral ? 0 : s[2].at(ex / 2, ey / 2) - 128;
      d.at(x, y, 0, 3) = clamp((l + 16531 * u) >> 13);
      d.at(x, y, 1, 3) = clamp((l - 6660 * v - 3203 * u) >> 13);
      d.at(x, y, 2, 3) = clamp((l + 13074 * v) >> 13);
    }
}

// Codes 2, 3, 21, 22 and the ones of single pixels.
void expect_packed(uint32_t code, Picture& from, Picture& to, PlaneView s[3], PlaneView d[3]) {
  const int w = from->cols, h = from->rows, bytes = from.pixel_bytes();
  // The side whose format is another one's is taken for what the code expects.
  for (int k = 2; k >= 0; k--) {
    if (from->format != 6 && code == 22) s[k] = {s[0].data + k * w * h, w};
    if (to->format != 6 && code == 21) d[k] = {d[0].data + k * w * h, w};
  }
  if (from->format == 6 && code == 21) s[0].stride = 3 * w;
  if (to->format == 6 && code == 22) d[0].stride = 3 * w;
  static const int kOrder[3][6] = {{2, 1, 0}, {2, 1, 0, 3}, {4, 5, 2, 3, 0, 1}};
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++) {
      if (code == 2 || code == 3) {
        for (int c = 0; c < bytes; c++)
          d[0].at(x, y, c, bytes) = s[0].at(x, y, kOrder[bytes == 6 ? 2 : bytes - 3][c], bytes);
        continue;
      }
      int p[3];
      for (int c = 0; c < 3; c++) p[c] = code == 22 ? s[c].at(x, y) : s[0].at(x, y, c, 3);
      convert_pixel(code, p);
      const int channels = to->format == 2 ? 1 : 3;
      for (int c = 0; c < channels; c++)
        (code == 21 ? d[c].at(x, y) : d[0].at(x, y, c, channels)) = static_cast<uint8_t>(p[c]);
    }
}

// Every byte of the destination is compared, those that must be left alone included.
void check(uint32_t code, Picture& from, Picture& to) {
  Bytes want = to.clear(0xEE);
  PlaneView s[3], d[3];
  for (int k = 0; k < 3; k++) s[k] = from.plane(k), d[k] = to.plane(k, &want);
  if (code == 8)
    expect_yuv(s[0], d, from->cols, from->rows);
  else if (code == 9)
    expect_bgr(s, d[0], from->cols, from->rows);
  else
    expect_packed(code, from, to, s, d);
  ASSERT_EQ(zyn_image_color_space_convert(to.get(), from.get(), code), 0);
  ASSERT_TRUE(to.holds(want)) << "code " << code << ", stride " << to->row_bytes;
}

// Rows top and on of a picture that holds every colour in turn, block x block pixels each.
void fill_colours(Picture& image, int top, int block) {
  for (int y = 0; y < image->rows; y++)
    for (int x = 0; x < image->cols; x++)
      for (int c = 0; c < 3; c++)
        image.plane(0).at(x, y, c, 3) = static_cast<uint8_t>(
            ((top + y) / block * (image->cols / block) + x / block) >> (8 * c));
}

TEST(Color, EveryColourToGrayLumaChromaAndSignedAndBack) {
  constexpr int kSlice = 64;
  Picture wide(8192, kSlice, 0), wide_yuv(8192, kSlice, 5), bgr(4096, kSlice, 0);
  Picture gray(4096, kSlice, 2), yuv(4096, kSlice, 5), other(4096, kSlice, 8);
  Picture back(4096, kSlice, 0);
  for (int top = 0; top < 8192 && !HasFatalFailure(); top += kSlice) {
    fill_colours(wide, top, 2);  // blocks of one colour: the chroma of every colour
    check(8, wide, wide_yuv);
    if (top >= 4096) continue;
    fill_colours(bgr, top, 1);
    fill_colours(other, top, 1);
    check(14, other, back);
    check(13, bgr, other);
    check(0, bgr, gray);
    check(8, bgr, yuv);
    // Block n has chroma n mod 65536 and four luma values: every triple occurs once.
    for (int y = 0; y < kSlice; y++)
      for (int x = 0; x < 4096; x++) {
        const int block = (top + y) / 2 * 2048 + x / 2;
        yuv.plane(1).at(x / 2, y / 2) = static_cast<uint8_t>(block);
        yuv.plane(2).at(x / 2, y / 2) = static_cast<uint8_t>(block >> 8);
        yuv.plane(0).at(x, y) = static_cast<uint8_t>((block >> 16) * 4 + y % 2 * 2 + x % 2);
      }
    check(9, yuv, back);
  }
}

TEST(Color, EverySizeUpToAFewVectorsWritesExactlyItsPixelsWithinItsStrides) {
  const uint32_t cases[][3] = {{0, 2, 0},  {0, 0, 0},   {0, 1, 2},  {1, 0, 3},  {9, 10, 2},
                               {3, 4, 2},  {14, 14, 3}, {0, 5, 8},  {5, 0, 9},  {0, 6, 21},
                               {6, 0, 22}, {1, 6, 21},  {0, 9, 21}, {9, 0, 22}, {6, 8, 22},
                               {6, 6, 21}, {6, 6, 22},  {0, 0, 21}, {0, 0, 22}};
  for (const auto& c : cases)
    for (int width = 1; width <= 100; width++)
      for (int height : {1, 2, 3, 7})
        for (int padding = 0; padding < (width < 9 ? 16 : 1) && !HasFatalFailure(); padding++) {
          // Three planes that are to be read as pixels have no gaps.
          const bool tight_from = c[0] == 6 && c[2] == 21, tight_to = c[1] == 6 && c[2] == 22;
          Picture from(width, height, c[0], tight_from ? 0 : padding % 4);
          Picture to(width, height, c[1], tight_to ? 0 : padding / 4);
          check(c[2], from.fill(width * 100 + height), to);
        }
}

TEST(Color, ASharedBufferConvertsInPlaceAndRecordsAnExchangeOfItsOrder) {
  const struct {
    uint32_t from, to, code, recorded;  // the format afterwards
  } cases[] = {{0, 0, 2, 1}, {1, 1, 3, 0}, {1, 1, 2, 1},  {0, 0, 3, 0},
               {9, 9, 2, 9}, {0, 0, 0, 0}, {0, 8, 13, 8}, {8, 0, 14, 0}};
  for (const auto& c : cases) {
    Picture image(75, 3, c.from), apart(75, 3, c.to);
    ASSERT_NO_FATAL_FAILURE(check(c.code, image.fill(c.code), apart));
    EXPECT_EQ(apart->format, c.to);
    zyn_image same = *image.get();
    same.format = c.to;
    EXPECT_EQ(zyn_image_color_space_convert(&same, image.get(), c.code), 0);
    EXPECT_EQ(same.format, c.recorded) << c.from << " " << c.code;
    EXPECT_TRUE(image.holds(apart.copy()));
  }
}

TEST(Color, Refusals) {
  const auto refused = [](zyn_image* to, zyn_image* from, uint32_t code, int line) {
    EXPECT_SAYS(zyn_image_color_space_convert(to, from, code), 1,
                report(code > 20 ? "Color space parameters error!" : kPara,
                       "src/image/zyn_image_color_space.cpp", line));
  };
  const struct {
    uint32_t from, to, code;
    int line;
  } cases[] = {{1, 2, 0, 128},  {0, 1, 0, 128},   {0, 0, 8, 88},   {1, 5, 8, 88},   {0, 0, 9, 106},
               {5, 1, 9, 106},  {12, 0, 9, 106},  {8, 8, 13, 136}, {0, 0, 13, 136}, {0, 8, 14, 148},
               {8, 1, 14, 148}, {1, 9, 21, 182},  {9, 1, 22, 202}, {0, 2, 21, 182}, {2, 6, 21, 182},
               {5, 6, 21, 182}, {0, 12, 21, 182}, {6, 5, 22, 202}, {7, 0, 22, 202}, {1, 9, 22, 202},
               {2, 2, 2, 73},   {7, 7, 3, 73},    {5, 5, 2, 73},   {6, 6, 2, 73},   {0, 3, 2, 73},
               {0, 12, 3, 73}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.from << " to " << c.to);
    refused(make_image(6, 4, c.to).get(), make_image(6, 4, c.from).get(), c.code, c.line);
  }
  Image image = make_image(6, 4, 0), yuv = make_image(6, 4, 5), three = make_image(6, 4, 6);
  refused(nullptr, image.get(), 0, 73);
  refused(image.get(), nullptr, 0, 73);
  refused(make_image(7, 4, 2).get(), image.get(), 0, 73);
  refused(make_image(6, 5, 2).get(), image.get(), 0, 73);
  for (zyn_image* without : {yuv.get(), three.get()}) zyn_recreate_image(without, 6, 4);
  refused(yuv.get(), image.get(), 8, 88);
  refused(image.get(), yuv.get(), 9, 106);
  refused(three.get(), image.get(), 21, 182);
  refused(image.get(), three.get(), 22, 202);
  for (uint32_t code = 0; code < 26; code++)
    if (!(0x60630D >> code & 1)) {
      EXPECT_SAYS(zyn_image_color_space_convert(image.get(), image.get(), code), 4, "") << code;
    }
}

}  // namespace

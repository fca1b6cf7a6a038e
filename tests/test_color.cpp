// Colour conversion against the formulas in plain integers: all colours, odd sizes,
// strides, page-end buffers, refusals.
#include <algorithm>

#include "support/images.h"

namespace {

using namespace zyn_test;

constexpr const char* kPath = "src/image/zyn_image_color_space.cpp";

int clamp(int v) { return std::min(255, std::max(0, v)); }
int gray_of(int b, int g, int r) { return (1868 * b + 9617 * g + 4899 * r + 8192) >> 14; }
int luma_of(int b, int g, int r) { return ((8421 * r + 16515 * g + 3211 * b + 16384) >> 15) + 16; }
int u_of(int b, int g, int r) { return ((-4850 * r - 9535 * g + 14385 * b + 16384) >> 15) + 128; }
int v_of(int b, int g, int r) { return ((14385 * r - 12059 * g - 2327 * b + 16384) >> 15) + 128; }
void bgr_of(int y, int u, int v, int out[3]) {
  const int l = 9535 * (y - 16), cu = u - 128, cv = v - 128;
  out[0] = clamp((l + 16531 * cu + 4096) >> 13);
  out[1] = clamp((l - 6660 * cv - 3203 * cu + 4096) >> 13);
  out[2] = clamp((l + 13074 * cv + 4096) >> 13);
}

// One conversion of page-end images; every byte of the destination is compared, those that
// the conversion must leave alone included.
class Convert {
 public:
  Convert(uint32_t from, uint32_t to, uint32_t code) : from_(from), to_(to), code_(code) {}

  void check(int width, int height) {
    Random random(width * 100 + height);
    check(width, height, [&](PageEndImage& image) { image.fill(random); });
  }
  template <typename Fill>
  void check(int width, int height, Fill fill) {
    SCOPED_TRACE(testing::Message() << "code " << code_ << ", " << width << "x" << height);
    PageEndImage from(width, height, from_), to(width, height, to_);
    fill(from);
    for (uint8_t& byte : to.memory()) byte = 0xEE;
    std::vector<uint8_t> want(to.memory().begin(), to.memory().end());
    expect(from, to, want);
    ASSERT_EQ(zyn_image_color_space_convert(to.get(), from.get(), code_), 0);
    size_t at = 0;
    while (at < want.size() && to.memory()[at] == want[at]) at++;
    ASSERT_EQ(at, want.size()) << "got " << +to.memory()[at] << ", want " << +want[at];
  }

 private:
  void expect(PageEndImage& from, PageEndImage& to, std::vector<uint8_t>& want) {
    const int w = from->cols, h = from->rows;
    PlaneView s = plane_of(from.get(), 0), d = plane_of(to.get(), 0, want.data());
    PlaneView sp[3] = {s, s, s}, dp[3] = {d, d, d};
    for (int k = 1; k < 3; k++) {
      if (from->plane1) sp[k] = plane_of(from.get(), k);
      if (to->plane1) dp[k] = plane_of(to.get(), k, want.data());
    }
    // The side whose format is another one's is taken for what the code expects.
    for (int k = 0; k < 3; k++) {
      if (from_ != 6 && code_ == 22) sp[k] = {s.data + k * w * h, w};
      if (to_ != 6 && code_ == 21) dp[k] = {d.data + k * w * h, w};
    }
    if (from_ == 6) s.stride = 3 * w;
    if (to_ == 6) d.stride = 3 * w;
    if (code_ == 8) return expect_yuv(s, dp, w, h);
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++) {
        // Odd rows and columns at the end repeat the pixel before them.
        const int ex = even(x, w), ey = even(y, h);
        int pixel[3] = {};
        for (int c = 0; c < 3 && code_ != 9; c++) pixel[c] = s.at(x, y, c, 3);
        if (code_ == 2 || code_ == 3) {
          exchange(s, d, x, y);
          continue;
        }
        if (code_ == 0) pixel[0] = pixel[1] = pixel[2] = gray_of(pixel[0], pixel[1], pixel[2]);
        if (code_ == 9)
          bgr_of(s.at(ex, ey), h > 1 ? sp[1].at(ex / 2, ey / 2) : 128,
                 h > 1 ? sp[2].at(ex / 2, ey / 2) : 128, pixel);
        const int channels = to_ == 2 ? 1 : 3;
        for (int c = 0; c < channels; c++)
          (code_ == 21 ? dp[c].at(x, y) : d.at(x, y, c, channels)) =
              static_cast<uint8_t>(code_ == 22 ? sp[c].at(x, y) : pixel[c]);
      }
  }
  static int even(int x, int w) { return w > 1 && (w & 1) && x == w - 1 ? x - 1 : x; }
  void exchange(const PlaneView& s, const PlaneView& d, int x, int y) const {
    const int bytes = from_ == 14 ? 6 : from_ == 3 || from_ == 4 ? 4 : 3;
    static const int kOrder[3][6] = {{2, 1, 0}, {2, 1, 0, 3}, {4, 5, 2, 3, 0, 1}};
    for (int c = 0; c < bytes; c++)
      d.at(x, y, c, bytes) = s.at(x, y, kOrder[bytes == 6 ? 2 : bytes - 3][c], bytes);
  }
  static void expect_yuv(const PlaneView& s, const PlaneView d[3], int w, int h) {
    for (int y = 0; y < h; y++)
      for (int x = 0; x < w; x++) {
        const int ex = even(x, w), ey = even(y, h);
        d[0].at(x, y) = static_cast<uint8_t>(
            luma_of(s.at(ex, ey, 0, 3), s.at(ex, ey, 1, 3), s.at(ex, ey, 2, 3)));
      }
    for (int y = 0; y < h / 2; y++)
      for (int x = 0; x < (w + 1) / 2; x++) {
        int mean[3];
        const int left = w > 1 ? 2 * std::min(x, w / 2 - 1) : 0, right = w > 1 ? left + 1 : 0;
        for (int c = 0; c < 3; c++)
          mean[c] = (s.at(left, 2 * y, c, 3) + s.at(right, 2 * y, c, 3) +
                     s.at(left, 2 * y + 1, c, 3) + s.at(right, 2 * y + 1, c, 3) + 2) >>
                    2;
        d[1].at(x, y) = static_cast<uint8_t>(u_of(mean[0], mean[1], mean[2]));
        d[2].at(x, y) = static_cast<uint8_t>(v_of(mean[0], mean[1], mean[2]));
      }
  }

  uint32_t from_, to_, code_;
};

// Rows top and on of a picture that holds every colour in turn, block x block pixels each.
void fill_colours(PageEndImage& image, int top, int block) {
  for (int y = 0; y < image->rows; y++)
    for (int x = 0; x < image->cols; x++)
      for (int c = 0; c < 3; c++)
        image.memory()[(y * image->cols + x) * 3 + c] = static_cast<uint8_t>(
            ((top + y) / block * (image->cols / block) + x / block) >> (8 * c));
}

constexpr int kSlice = 64;  // rows of a slice of a picture of all colours

TEST(Color, EveryColourToGrayLumaAndChromaAndEveryYuvToColour) {
  for (int top = 0; top < 8192; top += kSlice) {
    // Blocks of 2 x 2 pixels of one colour: the chroma of every colour.
    Convert(0, 5, 8).check(8192, kSlice, [&](PageEndImage& i) { fill_colours(i, top, 2); });
    if (top >= 4096) continue;
    Convert(0, 2, 0).check(4096, kSlice, [&](PageEndImage& i) { fill_colours(i, top, 1); });
    Convert(0, 5, 8).check(4096, kSlice, [&](PageEndImage& i) { fill_colours(i, top, 1); });
    // Block n has chroma n mod 65536 and four luma values: every triple occurs once.
    Convert(5, 0, 9).check(4096, kSlice, [&](PageEndImage& image) {
      for (int y = 0; y < kSlice; y++)
        for (int x = 0; x < 4096; x++) {
          const int at = y / 2 * 2048 + x / 2, block = top / 2 * 2048 + at;
          static_cast<uint8_t*>(image->plane1)[at] = static_cast<uint8_t>(block);
          static_cast<uint8_t*>(image->plane2)[at] = static_cast<uint8_t>(block >> 8);
          image.memory()[y * 4096 + x] =
              static_cast<uint8_t>((block >> 16) * 4 + y % 2 * 2 + x % 2);
        }
    });
    if (HasFatalFailure()) return;
  }
}

TEST(Color, SignedColoursReturnEveryColourWithinOneLevel) {
  int worst[3] = {0, 0, 0};
  for (int top = 0; top < 4096; top += kSlice) {
    PageEndImage bgr(4096, kSlice, 0), other(4096, kSlice, 8), back(4096, kSlice, 0);
    fill_colours(bgr, top, 1);
    ASSERT_EQ(zyn_image_color_space_convert(other.get(), bgr.get(), 13), 0);
    ASSERT_EQ(zyn_image_color_space_convert(back.get(), other.get(), 14), 0);
    for (size_t i = 0; i < bgr.memory().size(); i++)
      worst[i % 3] = std::max(worst[i % 3], abs(bgr.memory()[i] - back.memory()[i]));
  }
  EXPECT_EQ(worst[0], 0);
  EXPECT_LE(worst[1], 1);
  EXPECT_LE(worst[2], 1);
  // Any bytes come back clamped; pure colours of the axes.
  const int8_t in[3][3] = {{127, 127, 127}, {-128, -128, -128}, {0, 0, 0}};
  const uint8_t want[3][3] = {{1, 255, 255}, {255, 0, 0}, {128, 128, 128}};
  for (int k = 0; k < 3; k++) {
    Image one = make_image(1, 1, 8), pixel = make_image(1, 1, 0);
    memcpy(one->data, in[k], 3);
    ASSERT_EQ(zyn_image_color_space_convert(pixel.get(), one.get(), 14), 0);
    for (int c = 0; c < 3; c++) EXPECT_EQ(bytes(pixel)[c], want[k][c]) << k << " " << c;
  }
}

TEST(Color, EverySizeUpToAFewVectorsWritesExactlyItsPixels) {
  const uint32_t cases[][3] = {{0, 2, 0},  {0, 0, 0},   {0, 1, 2},  {1, 0, 3},  {9, 10, 2},
                               {3, 4, 2},  {14, 14, 3}, {0, 5, 8},  {5, 0, 9},  {0, 6, 21},
                               {6, 0, 22}, {1, 6, 21},  {0, 9, 21}, {9, 0, 22}, {6, 8, 22},
                               {6, 6, 21}, {6, 6, 22},  {0, 0, 21}, {0, 0, 22}};
  for (const auto& c : cases) {
    for (int width = 1; width <= 100; width++)
      for (int height : {1, 2, 3}) {
        Convert(c[0], c[1], c[2]).check(width, height);
        if (HasFatalFailure()) return;
      }
    Convert(c[0], c[1], c[2]).check(6, 7);
  }
}

TEST(Color, ExchangeInASharedBufferRecordsTheOrder) {
  const auto expect = [](uint32_t from, uint32_t code, bool shared, uint32_t format) {
    Image image = make_image(75, 3, from), to = make_image(75, 3, from);
    const int count = 3 * 75 * 3;
    for (int i = 0; i < count; i++) bytes(image)[i] = static_cast<uint8_t>(i);
    zyn_image* destination = shared ? image.get() : to.get();
    EXPECT_EQ(zyn_image_color_space_convert(destination, image.get(), code), 0);
    for (int i = 0; i < count; i++) ASSERT_EQ(bytes(destination)[i], (i / 3 * 3 + 2 - i % 3) & 255);
    EXPECT_EQ(destination->format, format) << from << " " << code << " " << shared;
  };
  expect(0, 2, true, 1);
  expect(1, 3, true, 0);
  expect(1, 2, true, 1);
  expect(0, 3, true, 0);
  expect(9, 2, true, 9);
  expect(0, 2, false, 0);
  expect(1, 3, false, 1);
  // Grey and signed colours in one buffer are those of two.
  const uint32_t cases[][3] = {{0, 0, 0}, {0, 8, 13}, {8, 0, 14}};
  for (const auto& c : cases) {
    Image image = make_image(75, 3, c[0]), to = make_image(75, 3, c[1]);
    for (int i = 0; i < 3 * 75 * 3; i++) bytes(image)[i] = static_cast<uint8_t>(i * 37);
    EXPECT_EQ(zyn_image_color_space_convert(to.get(), image.get(), c[2]), 0);
    zyn_image same = *image;
    same.format = c[1];
    EXPECT_EQ(zyn_image_color_space_convert(&same, image.get(), c[2]), 0);
    EXPECT_EQ(memcmp(image->data, to->data, 3 * 75 * 3), 0) << c[2];
  }
}

TEST(Color, ChromaColumnsAndPaddingStayWithinCallerStrides) {
  // 5 wide, strides of 5 and 2: there is no room for the third chroma column.
  uint8_t luma[5 * 4], u[2 * 2 + 1], v[2 * 2 + 1];
  void* planes[3] = {luma, u, v};
  const int32_t strides[3] = {5, 2, 2};
  zyn_image yuv;
  ASSERT_EQ(zyn_set_image_header_and_data(&yuv, 5, 4, 5, planes, strides), 0);
  Image bgr = make_image(5, 4, 0), back = make_image(5, 4, 0);
  memset(bgr->data, 200, 60);
  memset(u, 0xEE, sizeof(u));
  memset(v, 0xEE, sizeof(v));
  EXPECT_EQ(zyn_image_color_space_convert(&yuv, bgr.get(), 8), 0);
  EXPECT_EQ(u[4], 0xEE);
  EXPECT_EQ(v[4], 0xEE);
  EXPECT_EQ(zyn_image_color_space_convert(back.get(), &yuv, 9), 0);
  for (int i = 0; i < 60; i++) EXPECT_NEAR(bytes(back)[i], 200, 1);
}

TEST(Color, Refusals) {
  const auto refused = [](zyn_image* to, zyn_image* from, uint32_t code, const char* message,
                          int line) {
    EXPECT_SAYS(zyn_image_color_space_convert(to, from, code), 1, report(message, kPath, line));
  };
  const char* const planes = "Color space parameters error!";
  const struct {
    uint32_t from, to, code;
    const char* message;
    int line;
  } cases[] = {{1, 2, 0, kPara, 128},   {0, 1, 0, kPara, 128},    {0, 0, 8, kPara, 88},
               {1, 5, 8, kPara, 88},    {0, 0, 9, kPara, 106},    {5, 1, 9, kPara, 106},
               {12, 0, 9, kPara, 106},  {8, 8, 13, kPara, 136},   {0, 0, 13, kPara, 136},
               {0, 8, 14, kPara, 148},  {8, 1, 14, kPara, 148},   {1, 9, 21, planes, 182},
               {9, 1, 22, planes, 202}, {0, 2, 21, planes, 182},  {2, 6, 21, planes, 182},
               {5, 6, 21, planes, 182}, {0, 12, 21, planes, 182}, {6, 5, 22, planes, 202},
               {7, 0, 22, planes, 202}, {1, 9, 22, planes, 202},  {2, 2, 2, kPara, 73},
               {7, 7, 3, kPara, 73},    {5, 5, 2, kPara, 73},     {6, 6, 2, kPara, 73},
               {0, 3, 2, kPara, 73},    {0, 12, 3, kPara, 73}};
  for (const auto& c : cases) {
    Image from = make_image(6, 4, c.from), to = make_image(6, 4, c.to);
    SCOPED_TRACE(testing::Message() << c.from << " to " << c.to);
    refused(to.get(), from.get(), c.code, c.message, c.line);
  }
  Image image = make_image(6, 4, 0), wide = make_image(7, 4, 2), tall = make_image(6, 5, 2);
  refused(nullptr, image.get(), 0, kPara, 73);
  refused(image.get(), nullptr, 0, kPara, 73);
  refused(wide.get(), image.get(), 0, kPara, 73);
  refused(tall.get(), image.get(), 0, kPara, 73);
  Image yuv = make_image(6, 4, 5), three = make_image(6, 4, 6);
  zyn_recreate_image(yuv.get(), 6, 4);
  zyn_recreate_image(three.get(), 6, 4);
  refused(yuv.get(), image.get(), 8, kPara, 88);
  refused(image.get(), yuv.get(), 9, kPara, 106);
  refused(three.get(), image.get(), 21, planes, 182);
  refused(image.get(), three.get(), 22, planes, 202);
  for (uint32_t code :
       {1u, 4u, 5u, 6u, 7u, 10u, 11u, 12u, 15u, 16u, 17u, 18u, 19u, 20u, 23u, 1000u})
    EXPECT_SAYS(zyn_image_color_space_convert(image.get(), image.get(), code), 4, "") << code;
}

}  // namespace

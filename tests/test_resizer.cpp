// The resizer against the definition evaluated sample by sample.
#include <math.h>

#include <array>
#include <map>

#include "support/images.h"

namespace {

using namespace zyn_test;

constexpr Reports resizer_report{"src/image/zyn_image_resizer.cpp"};

// Where one output coordinate samples: two indices, and the second's weight.
struct Tap {
  int index, next, weight;
};

std::vector<Tap> taps(int from, int to, int method) {
  std::vector<Tap> out;
  const float scale = static_cast<float>(from) / static_cast<float>(to);
  for (int i = 0; i < to; i++) {
    const float f = method == 0 ? floorf(static_cast<float>(i) * scale)
                                : (static_cast<float>(i) + 0.5f) * scale - 0.5f;
    int index = static_cast<int>(floorf(f));
    float fraction = f - static_cast<float>(index);
    if (index < 0) index = 0, fraction = 0;
    if (index >= from - 1) index = from - 1, fraction = 0;
    out.push_back(
        {index, std::min(index + 1, from - 1), static_cast<int>(floorf(fraction * 2048))});
  }
  return out;
}

int blend(int a, int b, int weight) { return (a * 2048 + (b - a) * weight + 1024) >> 11; }

// Plane k of sizes w and h into want's, of channels samples a pixel.
void expect_plane(const PlaneView& s, int sw, int sh, const PlaneView& d, int dw, int dh,
                  int channels, bool half, int method) {
  if (method > 1 && !half) return;
  const std::vector<Tap> xs = taps(sw, dw, method), ys = taps(sh, dh, method);
  for (int y = 0; y < dh; y++)
    for (int x = 0; x < dw; x++)
      for (int c = 0; c < channels; c++) {
        const auto at = [&](int i, int j) -> int { return s.at(i, j, c, channels); };
        const Tap &tx = xs[x], &ty = ys[y];
        const int want =
            sw == 0 || sh == 0 ? 128
            : half
                ? (at(2 * x, 2 * y) + at(2 * x + 1, 2 * y) + at(2 * x, 2 * y + 1) +
                   at(2 * x + 1, 2 * y + 1) + 2) >>
                      2
                : blend(blend(at(tx.index, ty.index), at(tx.next, ty.index), tx.weight),
                        blend(at(tx.index, ty.next), at(tx.next, ty.next), tx.weight), ty.weight);
        d.at(x, y, c, channels) = static_cast<uint8_t>(want);
      }
}

// Equal sizes: rows of equal strides come with what lies between them; the odd column has
// chroma where both have room for it.
void expect_copy(const PlaneView& s, const PlaneView& d, int width, int room, int rows) {
  if (s.stride >= room && d.stride >= room) width = room;
  const bool joined = s.stride == d.stride;
  for (int y = 0; y < rows; y++)
    memcpy(&d.at(0, y), &s.at(0, y), joined && y < rows - 1 ? s.stride : width);
}

// Resizes and compares every byte of the destination.
void check(Picture& from, Picture& to, int method) {
  Bytes want = to.clear(0xEE);
  const int fw = from->cols, fh = from->rows, tw = to->cols, th = to->rows;
  const bool equal = fw == tw && fh == th, half = fw == 2 * tw && fh == 2 * th;
  const int bytes = from.pixel_bytes();
  for (int k = 0; k < from.planes(); k++) {
    const PlaneView s = from.plane(k), d = to.plane(k, &want);
    const int part = k ? 2 : 1;
    if (equal)
      expect_copy(s, d, fw / part * bytes, (fw + part - 1) / part * bytes, fh / part);
    else
      expect_plane(s, fw / part, fh / part, d, tw / part, th / part, bytes, half, method);
  }
  ASSERT_EQ(zyn_image_resizer(to.get(), from.get(), method), 0);
  ASSERT_TRUE(to.holds(want)) << "from " << fw << "x" << fh << " format " << from->format
                              << " method " << method;
}

TEST(Resizer, EverySizeUpTo17IntoEverySizeUpTo17) {
  // Random pictures, kept for the sweep; strides differ from size to size.
  std::map<std::array<int, 4>, std::unique_ptr<Picture>> kept;
  const auto get = [&](int source, int width, int height, uint32_t format) -> Picture& {
    auto& image = kept[{source, width, height, static_cast<int>(format)}];
    if (!image) {
      image = std::make_unique<Picture>(width, height, format, (width * source + height) % 3, true);
      image->fill(width * 977 + height);
    }
    return *image;
  };
  const uint32_t formats[3] = {0, 2, 5};  // in turn: each meets every pair of widths
  for (int fw = 1; fw <= 17; fw++)
    for (int tw = 1; tw <= 17; tw++)
      for (int fh = 1; fh <= 17; fh++)
        for (int th = 1; th <= 17; th++)
          for (int method : {0, 1}) {
            const uint32_t format = formats[(fw + fh + 2 * tw + th + method) % 3];
            ASSERT_NO_FATAL_FAILURE(check(get(1, fw, fh, format), get(0, tw, th, format), method));
          }
}

TEST(Resizer, LargerSizesAndEqualAndHalvedOnesWhateverTheMethodOfEveryFormat) {
  const int sizes[][4] = {{64, 48, 30, 22}, {100, 9, 33, 4},     {257, 5, 31, 7},   {31, 5, 257, 7},
                          {640, 3, 100, 2}, {128, 6, 64, 3},     {130, 34, 65, 17}, {500, 4, 3, 3},
                          {97, 13, 97, 5},  {97, 5, 97, 13},     {90, 6, 180, 12},  {33, 7, 66, 3},
                          {1000, 3, 57, 5}, {400, 300, 100, 75}, {14, 10, 7, 5},    {7, 5, 7, 5},
                          {1, 9, 1, 9},     {2, 1, 82, 1}};  // 41 * (2 / 82) falls short of 1
  for (const auto& s : sizes)
    for (uint32_t format : {0u, 1u, 2u, 5u, 8u, 11u})
      for (int method : {0, 1, 9}) {
        const int n = s[0] / s[2];
        const bool first = (n == 1 || n == 2) && s[0] == n * s[2] && s[1] == n * s[3];
        if (method == 9 && format == 5 && !first) continue;
        for (int padding = 0; padding < (s[0] < 15 ? 9 : 1); padding++) {
          Picture from(s[0], s[1], format, padding % 3, true);
          Picture to(s[2], s[3], format, padding / 3, true);
          ASSERT_NO_FATAL_FAILURE(check(from.fill(s[0]), to, method));
        }
      }
}

TEST(Resizer, Refusals) {
  const auto refused = [&](zyn_image* to, zyn_image* from) {
    EXPECT_SAYS(zyn_image_resizer(to, from, 0), 1, resizer_report(kPara, 651));
  };
  const uint32_t pairs[][2] = {{3, 3},   {4, 4},   {6, 6},   {7, 7},  {9, 9}, {10, 10},
                               {12, 12}, {13, 13}, {14, 14}, {0, 2},  {8, 0}, {5, 0},
                               {0, 5},   {0, 6},   {12, 0},  {5, 12}, {6, 5}, {0, 12}};
  for (const auto& pair : pairs) {
    SCOPED_TRACE(testing::Message() << pair[0] << " from " << pair[1]);
    refused(make_image(4, 4, pair[0]).get(), make_image(9, 9, pair[1]).get());
  }
  Image image = make_image(8, 8, 5), planeless = make_image(8, 8, 5), other = make_image(4, 5, 5);
  zyn_recreate_image(planeless.get(), 9, 9);
  refused(nullptr, image.get());
  refused(image.get(), nullptr);
  refused(image.get(), planeless.get());
  refused(planeless.get(), image.get());
  // A method that packed formats pass over; a buffer that is its own copy is done.
  EXPECT_SAYS(zyn_image_resizer(other.get(), image.get(), 2), 4, resizer_report(kSupport, 742));
  EXPECT_SAYS(zyn_image_resizer(image.get(), image.get(), 1), 0, "");
}

}  // namespace

// The resizer against the definition evaluated sample by sample.
#include <math.h>

#include <array>
#include <map>

#include "support/failing.h"
#include "support/images.h"

namespace {

using namespace zyn_test;

constexpr Reports resizer_report{"src/image/zyn_image_resizer.cpp"};

// A plane of samples as the definition sees it.
struct Plane {
  PlaneView view;
  int width, height, channels;
  int at(int x, int y, int c) const { return view.at(x, y, c, channels); }
};

// Where one output coordinate samples: the first index, and the second's weight.
struct Tap {
  int index, next, weight;
};

std::vector<Tap> taps(int from, int to, int method) {
  std::vector<Tap> out;
  const float scale = static_cast<float>(from) / static_cast<float>(to);
  for (int i = 0; i < to; i++) {
    if (method == 0) {
      const int at = std::min(from - 1, static_cast<int>(floorf(static_cast<float>(i) * scale)));
      out.push_back({at, at, 0});
      continue;
    }
    const float f = (static_cast<float>(i) + 0.5f) * scale - 0.5f;
    int index = static_cast<int>(floor(f));
    float fraction = f - static_cast<float>(index);
    if (index < 0) index = 0, fraction = 0;
    if (index >= from - 1) index = from - 1, fraction = 0;
    out.push_back({index, std::min(index + 1, from - 1), static_cast<int>(floor(fraction * 2048))});
  }
  return out;
}

int expected(const Plane& s, const Tap& x, const Tap& y, int c) {
  const int a = s.at(x.index, y.index, c), b = s.at(x.next, y.index, c);
  const int d = s.at(x.index, y.next, c), e = s.at(x.next, y.next, c);
  const int top = (a * 2048 + (b - a) * x.weight + 1024) >> 11;
  const int bottom = (d * 2048 + (e - d) * x.weight + 1024) >> 11;
  return (top * 2048 + (bottom - top) * y.weight + 1024) >> 11;
}

int mean(const Plane& s, int x, int y, int c) {
  return (s.at(2 * x, 2 * y, c) + s.at(2 * x + 1, 2 * y, c) + s.at(2 * x, 2 * y + 1, c) +
          s.at(2 * x + 1, 2 * y + 1, c) + 2) >>
         2;
}

// Page-end images by size and format, random at first, kept for a whole sweep.
class Images {
 public:
  PageEndImage& get(int width, int height, uint32_t format) {
    auto& image = images_[{width, height, static_cast<int>(format)}];
    if (!image) {
      image = std::make_unique<PageEndImage>(width, height, format);
      Random random(width * 977 + height);
      image->fill(random);
    }
    return *image;
  }

 private:
  std::map<std::array<int, 3>, std::unique_ptr<PageEndImage>> images_;
};

// Resizes a random page-end image and compares every sample of every plane.
class Resize {
 public:
  Resize(int from_w, int from_h, int to_w, int to_h)
      : from_w_(from_w), from_h_(from_h), to_w_(to_w), to_h_(to_h) {}
  Resize& format(uint32_t value) { return format_ = value, *this; }
  Resize& method(int value) { return method_ = value, *this; }

  void check(Images& sources, Images& destinations) {
    PageEndImage& from = sources.get(from_w_, from_h_, format_);
    PageEndImage& to = destinations.get(to_w_, to_h_, format_);
    ASSERT_EQ(zyn_image_resizer(to.get(), from.get(), method_), 0);
    const int channels = format_ == 2 || format_ == 5 ? 1 : 3;
    for (int k = 0; k < (format_ == 5 ? 3 : 1); k++) {
      const int part = k ? 2 : 1;
      compare({plane_of(from.get(), k), from_w_ / part, from_h_ / part, channels},
              {plane_of(to.get(), k), to_w_ / part, to_h_ / part, channels}, k);
    }
  }
  void check() {
    Images sources, destinations;
    check(sources, destinations);
  }

 private:
  void compare(const Plane& from, const Plane& to, int k) {
    const bool neutral = from.width == 0 || from.height == 0;
    const bool half = from_w_ == 2 * to_w_ && from_h_ == 2 * to_h_;
    const std::vector<Tap> xs = taps(from.width, to.width, method_);
    const std::vector<Tap> ys = taps(from.height, to.height, method_);
    for (int y = 0; y < to.height; y++)
      for (int x = 0; x < to.width; x++)
        for (int c = 0; c < to.channels; c++) {
          const int want = neutral ? 128
                           : half  ? mean(from, x, y, c)
                                   : expected(from, xs[x], ys[y], c);
          if (to.at(x, y, c) == want) continue;
          FAIL() << from_w_ << "x" << from_h_ << " to " << to_w_ << "x" << to_h_ << " format "
                 << format_ << " method " << method_ << " plane " << k << ": (" << x << ", " << y
                 << ", " << c << ") is " << to.at(x, y, c) << ", not " << want;
        }
  }

  int from_w_, from_h_, to_w_, to_h_, method_ = 1;
  uint32_t format_ = 0;
};

TEST(Resizer, EverySizeUpTo17IntoEverySizeUpTo17) {
  Images sources, destinations;
  const uint32_t formats[3] = {0, 2, 5};  // in turn: each meets every pair of widths
  for (int from_w = 1; from_w <= 17; from_w++)
    for (int to_w = 1; to_w <= 17; to_w++)
      for (int from_h = 1; from_h <= 17; from_h++)
        for (int to_h = 1; to_h <= 17; to_h++)
          for (int method : {0, 1}) {
            Resize(from_w, from_h, to_w, to_h)
                .format(formats[(from_w + from_h + 2 * to_w + to_h + method) % 3])
                .method(method)
                .check(sources, destinations);
            if (HasFatalFailure()) return;
          }
}

TEST(Resizer, LargerSizesOfEveryRatioAndFormat) {
  const int sizes[][4] = {{64, 48, 30, 22}, {100, 9, 33, 4},     {257, 5, 31, 7},   {31, 5, 257, 7},
                          {640, 3, 100, 2}, {128, 6, 64, 3},     {130, 34, 65, 17}, {500, 4, 3, 3},
                          {97, 13, 97, 5},  {97, 5, 97, 13},     {90, 6, 180, 12},  {33, 7, 66, 3},
                          {1000, 3, 57, 5}, {400, 300, 100, 75}, {2, 1, 82, 1}};
  for (const auto& s : sizes)
    for (uint32_t format : {0u, 1u, 2u, 5u, 8u, 11u})
      for (int method : {0, 1})
        Resize(s[0], s[1], s[2], s[3]).format(format).method(method).check();
  // The scale is a rounded quotient: 41 times 2 / 82 falls short of 1.
  Image from = make_image(2, 1, 2), to = make_image(82, 1, 2);
  bytes(from)[0] = 10, bytes(from)[1] = 20;
  EXPECT_EQ(zyn_image_resizer(to.get(), from.get(), 0), 0);
  for (int i = 0; i < 82; i++) EXPECT_EQ(bytes(to)[i], i < 42 ? 10 : 20) << i;
}

TEST(Resizer, EqualSizesAndHalvesComeBeforeTheMethodAndASharedBufferIsDone) {
  for (uint32_t format : {0u, 1u, 2u, 5u, 8u, 11u}) {
    Resize(7, 5, 7, 5).format(format).method(7).check();
    if (format != 5) Resize(14, 10, 7, 5).format(format).method(9).check();
    Image image = make_image(7, 5, format);
    memset(image->data, 0, buffer_bytes(7, 5, format));
    EXPECT_EQ(zyn_image_resizer(image.get(), image.get(), 1), 0);
  }
  // The chroma column of an odd width comes along, and what lies between the rows.
  Image from = make_image(7, 4, 5), to = make_image(7, 4, 5);
  memset(from->data, 9, 48);
  memset(to->data, 0, 48);
  EXPECT_EQ(zyn_image_resizer(to.get(), from.get(), 0), 0);
  EXPECT_EQ(static_cast<uint8_t*>(to->plane1)[3], 9);
  EXPECT_EQ(bytes(to)[7], 9);
}

TEST(Resizer, OtherMethodsDoNothingOnPackedAndAreRefusedOn420) {
  Image from = make_image(9, 9, 0), to = make_image(4, 5, 0);
  memset(to->data, 0x5A, 60);
  EXPECT_EQ(zyn_image_resizer(to.get(), from.get(), 2), 0);
  for (int i = 0; i < 60; i++) EXPECT_EQ(bytes(to)[i], 0x5A);
  Image planar = make_image(9, 9, 5), small = make_image(4, 5, 5);
  EXPECT_SAYS(zyn_image_resizer(small.get(), planar.get(), 2), 4,
              resizer_report("Current version can not support!", 742));
}

TEST(Resizer, RefusesWhatIsNotListedOrHasAnotherLayout) {
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
  Image image = make_image(8, 8, 5), planeless = make_image(8, 8, 5);
  zyn_recreate_image(planeless.get(), 9, 9);
  refused(nullptr, image.get());
  refused(image.get(), nullptr);
  refused(image.get(), planeless.get());
  refused(planeless.get(), image.get());
}

TEST(Resizer, FailedAllocationsGiveTwo) {
  for (uint32_t format : {0u, 5u})
    for (int method : {0, 1}) {
      Image from = make_image(40, 30, format), to = make_image(33, 41, format);
      for_each_failing_allocation([&](int64_t n, bool) {
        const int32_t code = zyn_image_resizer(to.get(), from.get(), method);
        EXPECT_TRUE(code == 0 || code == 2) << n;
        return code == 0;
      });
    }
}

}  // namespace

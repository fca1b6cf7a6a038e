// The image record: layout of every format, headers over a caller's memory, refusals.
#include <functional>

#include "support/failing.h"
#include "support/images.h"

namespace {

using namespace zyn_test;

// What a format's image of 6 x 5 looks like; offsets in bytes, -1 for a null plane.
struct Layout {
  uint32_t format, type;
  int64_t stride, chroma_stride, plane1, plane2;
  int32_t channels;
};
constexpr Layout kLayouts[] = {
    {0, 16, 18, 0, -1, -1, 3}, {1, 16, 18, 0, -1, -1, 3},  {2, 0, 6, 0, -1, -1, 1},
    {3, 24, 24, 0, -1, -1, 4}, {4, 24, 24, 0, -1, -1, 4},  {5, 16, 8, 4, 40, 50, 3},
    {6, 16, 6, 6, 30, 60, -1}, {7, 8, 12, 0, -1, -1, 2},   {8, 17, 18, 0, -1, -1, 3},
    {9, 16, 18, 0, -1, -1, 3}, {10, 16, 18, 0, -1, -1, 3}, {11, 16, 18, 0, -1, -1, 3},
    {12, 16, 8, 0, -1, -1, 3}, {13, 16, 8, 0, -1, -1, 3},  {14, 18, 36, 0, -1, -1, 3}};

int64_t offset_of(const zyn_image* image, const void* plane) {
  return plane ? static_cast<const uint8_t*>(plane) - static_cast<const uint8_t*>(image->data) : -1;
}

void expect_layout(const zyn_image* image, const Layout& want, int width, int height) {
  EXPECT_TRUE(image->kind == 8 && image->type == want.type && image->format == want.format);
  EXPECT_TRUE(image->rows == height && image->cols == width && image->pages == 1);
  EXPECT_TRUE(image->row_bytes == want.stride && image->plane1_bytes == want.chroma_stride &&
              image->plane2_bytes == want.chroma_stride && image->channels == want.channels);
}

TEST(Image, CreationGivesEveryFormatItsLayoutAndExactBuffer) {
  for (const Layout& want : kLayouts) {
    SCOPED_TRACE(want.format);
    const uint64_t before = zyn_get_current_memory_size_occupation();
    Image image = make_image(6, 5, want.format);
    ASSERT_TRUE(image);
    expect_layout(image.get(), want, 6, 5);
    EXPECT_EQ(offset_of(image.get(), image->plane1), want.plane1);
    EXPECT_EQ(offset_of(image.get(), image->plane2), want.plane2);
    EXPECT_EQ(image->owns_data, 1u);
    EXPECT_EQ(zyn_get_current_memory_size_occupation() - before,
              sizeof(zyn_image) + buffer_bytes(6, 5, want.format));
  }
}

TEST(Image, CreationRefusesBadSizesWithAReportAndOverflowsWithNull) {
  const struct {
    int width, height;
    uint32_t format;
  } bad[] = {{0, 4, 0}, {4, 0, 0}, {-1, 4, 5}, {4, 4, 15}, {4, 4, 0xFFFFFFFFu}};
  for (const auto& b : bad)
    EXPECT_EQ(printed([&] { EXPECT_FALSE(make_image(b.width, b.height, b.format)); }),
              codec_report(kPara, 472));
  // 4:2:0 sizes are 32-bit products.
  EXPECT_SAYS(make_image(40000, 40000, 5), nullptr, "");
  EXPECT_SAYS(make_image(INT32_MAX, 1, 12), nullptr, "");
  EXPECT_SAYS(make_image(4, INT32_MAX, 13), nullptr, "");
  printed([] {
    EXPECT_FALSE(make_image(INT32_MAX, INT32_MAX, 14));
    for (uint32_t format : {0u, 5u, 6u, 12u})
      EXPECT_EQ(for_each_failing_allocation(
                    [&](int64_t, bool) { return make_image(9, 7, format) != nullptr; }),
                2);
  });
}

TEST(Image, HeaderOverCallerMemory) {
  uint8_t memory[600];
  for (const Layout& want : kLayouts) {
    SCOPED_TRACE(want.format);
    zyn_image image;
    memset(&image, 0xEE, sizeof(image));
    ASSERT_EQ(zyn_set_image_header(&image, 6, 5, want.format), 0);
    expect_layout(&image, want, 6, 5);
    EXPECT_EQ(image.data, nullptr);
    EXPECT_EQ(image.plane1, nullptr);
    EXPECT_EQ(image.owns_data, 0u);
    const bool stores_and_refuses = want.format == 3 || want.format == 4 ||
                                    (want.format >= 7 && want.format <= 11) || want.format == 14;
    // One byte too few changes nothing.
    EXPECT_EQ(
        printed([&] { EXPECT_EQ(zyn_set_image_data(&image, memory, 5 * want.stride - 1), 256); }),
        codec_report("not support!", 584));
    EXPECT_EQ(image.data, nullptr);
    EXPECT_SAYS(zyn_set_image_data(&image, memory, 5 * want.stride), stores_and_refuses ? 256 : 0,
                "");
    EXPECT_EQ(image.data, memory);
    EXPECT_EQ(offset_of(&image, image.plane1), want.plane1);
    EXPECT_EQ(offset_of(&image, image.plane2), want.plane2);
  }
}

TEST(Image, HeadersNeedFourByFourAndDataIsRefusedForBadArgumentsAndNeverFreed) {
  EXPECT_TRUE(make_image(3, 3, 0));
  zyn_image header;
  for (int k = 0; k < 4; k++)
    EXPECT_SAYS(zyn_set_image_header(k == 0 ? nullptr : &header, k == 1 ? 3 : 4, k == 2 ? 3 : 4,
                                     k == 3 ? 15 : 0),
                1, codec_report("error params!", 540));
  EXPECT_EQ(zyn_set_image_header(&header, 4, 4, 0), 0);
  uint8_t memory[64];
  Image image = make_image(4, 4, 2), plain = make_image(4, 4, 2);
  plain->kind = 4;
  for (int k = 0; k < 4; k++)
    EXPECT_SAYS(zyn_set_image_data(k == 0   ? nullptr
                                   : k == 1 ? plain.get()
                                            : image.get(),
                                   k == 2 ? nullptr : memory, k == 3 ? 15 : 64),
                1, codec_report("error params!", 577));
  void* own = image->data;
  const uint64_t held = zyn_get_current_memory_size_occupation();
  EXPECT_EQ(zyn_set_image_data(image.get(), memory, 64), 0);
  EXPECT_EQ(zyn_get_current_memory_size_occupation(), held);
  EXPECT_EQ(image->owns_data, 1u);
  EXPECT_EQ(zyn_set_image_data(image.get(), own, 16), 0);
  EXPECT_EQ(zyn_set_image_data(image.get(), image->data, 16), 0);  // its own block again
  EXPECT_TRUE(image->data == own && image->owns_data == 1);
}

TEST(Image, HeaderAndDataTakesPlanesOf420AndALengthElsewhere) {
  uint8_t memory[400];
  void* planes[3] = {memory, memory + 200, memory + 300};
  const int32_t strides[3] = {80, 33, 17};
  zyn_image image;
  for (uint32_t format : {5u, 12u, 13u}) {
    ASSERT_EQ(zyn_set_image_header_and_data(&image, 7, 2, format, planes, strides), 0);
    EXPECT_TRUE(image.kind == 8 && image.format == format && image.type == 16);
    EXPECT_TRUE(image.rows == 2 && image.cols == 7 && image.owns_data == 0);
    EXPECT_TRUE(image.data == planes[0] && image.plane1 == planes[1] && image.plane2 == planes[2]);
    EXPECT_TRUE(image.row_bytes == 80 && image.plane1_bytes == 33 && image.plane2_bytes == 17);
  }
  // On packed formats the first stride is the buffer's length: 4 x 5 x 3 = 60 bytes.
  const int32_t enough[3] = {60, 0, 0}, short_of[3] = {59, 0, 0}, tiny[3] = {15, 0, 0};
  EXPECT_EQ(zyn_set_image_header_and_data(&image, 4, 5, 0, planes, enough), 0);
  EXPECT_EQ(image.row_bytes, 12);
  const std::string params = codec_report(kPara, 626), header = codec_report("error params!", 540);
  const struct {
    int width, height;
    uint32_t format;
    const int32_t* strides;
    int code;
    std::string text;
  } refused[] = {{4, 5, 0, short_of, 256, codec_report("not support!", 584)},
                 {4, 5, 0, tiny, 1, codec_report("error params!", 577)},
                 {3, 5, 0, enough, 1, header},
                 {4, 5, 15, enough, 1, header},
                 {61, 5, 5, enough, 1, params},
                 {0, 5, 5, enough, 1, params},
                 {4, 0, 5, enough, 1, params},
                 {4, 5, 5, nullptr, 1, params}};
  for (const auto& r : refused)
    EXPECT_SAYS(
        zyn_set_image_header_and_data(&image, r.width, r.height, r.format, planes, r.strides),
        r.code, r.text);
  planes[0] = nullptr;
  EXPECT_SAYS(zyn_set_image_header_and_data(&image, 4, 5, 5, planes, enough), 1, params);
}

TEST(Image, RecreationRenewsTheFirstPlaneOnly) {
  for (const Layout& layout : kLayouts) {
    SCOPED_TRACE(layout.format);
    Image image = make_image(9, 9, layout.format);
    const uint64_t other =
        zyn_get_current_memory_size_occupation() - buffer_bytes(9, 9, layout.format);
    EXPECT_EQ(zyn_recreate_image(image.get(), 6, 5), image.get());
    expect_layout(image.get(), layout, 6, 5);
    EXPECT_TRUE(!image->plane1 && !image->plane2 && image->owns_data == 1);
    EXPECT_EQ(zyn_get_current_memory_size_occupation() - other,
              static_cast<uint64_t>(5 * layout.stride));
  }
  Image image = make_image(5, 6, 0);
  void* before = image->data;
  EXPECT_EQ(zyn_recreate_image(image.get(), 0, 4), image.get());
  EXPECT_EQ(zyn_recreate_image(image.get(), 4, -1), image.get());
  EXPECT_EQ(image->data, before);
  EXPECT_EQ(zyn_recreate_image(nullptr, 4, 4), nullptr);
}

// Views into one canvas of 64-byte rows, the source at a fixed place, the destination
// everywhere: refused where a byte belongs to both, else as with memory of their own.
TEST(Image, PixelsThatTwoImagesShareAreRefusedByEveryOperation) {
  constexpr int kStride = 64, kRows = 28, kColumn = 26, kRow = 10, kSource = 8;
  using Bytes = std::vector<uint8_t>;
  const auto resize = [](int method) {
    return [=](zyn_image* to, zyn_image* from) { return zyn_image_resizer(to, from, method); };
  };
  const auto convert = [](uint32_t code) {
    return [=](zyn_image* to, zyn_image* from) {
      return zyn_image_color_space_convert(to, from, code);
    };
  };
  const auto crop = [](zyn_image* to, zyn_image* from) {
    int32_t position[2] = {-1, 3}, size[2] = {6, 6};
    return zyn_image_cropped_patch(to, from, position, size);
  };
  const auto patch = [](zyn_image* to, zyn_image* from) {
    const int32_t at[2] = {1, 2}, size[2] = {4, 4};
    return zyn_image_cropped_patch_with_border(to, at, from, at, size);
  };
  const auto view = [](Bytes& canvas, int column, int row, int size, uint32_t format) {
    zyn_image image;
    zyn_set_image_header(&image, size, size, format);
    image.data = canvas.data() + row * kStride + column;
    image.row_bytes = kStride;
    return image;
  };
  const struct {
    int size;
    uint32_t format;
    bool clears;  // whole rows of the destination
    std::function<int32_t(zyn_image*, zyn_image*)> run;
  } cases[] = {{8, 0, false, resize(1)},  {4, 0, false, resize(1)}, {5, 0, false, resize(0)},
               {9, 0, false, resize(1)},  {6, 0, false, crop},      {6, 0, true, patch},
               {8, 0, false, convert(2)}, {8, 2, false, convert(0)}};
  Bytes before(kStride * (kRows + 1));
  for (size_t i = 0; i < before.size(); i++)
    before[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
  const auto same_rows = [](const zyn_image& a, const zyn_image& b) {
    bool same = true;
    for (int64_t at = 0; at < a.rows * kStride; at += kStride)
      same &= memcmp(bytes(const_cast<zyn_image*>(&a)) + at, bytes(const_cast<zyn_image*>(&b)) + at,
                     static_cast<size_t>(a.cols * a.channels)) == 0;
    return same;
  };
  const auto right = [&](const auto& c, int row, int column) {
    bool shared = false;
    for (int at = (kRow - row) * kStride + kColumn - column, y = 0; y < kSource; y++, at += kStride)
      for (int b = at; b < at + 3 * kSource; b++)
        shared |= b >= 0 && b < kStride * c.size &&
                  (c.clears || b % kStride < (c.format == 2 ? 1 : 3) * c.size);
    Bytes canvas = before, other = before;
    zyn_image from = view(canvas, kColumn, kRow, kSource, 0);
    zyn_image apart = view(before, kColumn, kRow, kSource, 0);
    zyn_image to = view(canvas, column, row, c.size, c.format);
    zyn_image clean = view(other, column, row, c.size, c.format);
    if (c.run(&to, &from) != (shared ? 1 : 0)) return false;
    if (shared) return canvas == before;
    return c.run(&clean, &apart) == 0 && same_rows(to, clean) && same_rows(from, apart);
  };
  std::string wrong;
  printed([&] {
    for (const auto& c : cases)
      for (int row = 0; row <= kRows - c.size; row++)
        for (int column = 0; column <= kStride - 3 * c.size; column++)
          if ((row != kRow || column != kColumn) && !right(c, row, column) && wrong.empty())
            wrong = testing::PrintToString(std::vector<int64_t>{&c - cases, row, column});
  });
  EXPECT_EQ(wrong, "");
  // Any plane of format 5 counts.
  Image a = make_image(8, 8, 5), b = make_image(9, 9, 5);
  a->plane2 = static_cast<uint8_t*>(b->plane1) + 5;
  int32_t position[2] = {0, 0};
  const int32_t size[2] = {8, 8};
  EXPECT_SAYS(zyn_image_resizer(a.get(), b.get(), 1), 1,
              report(kPara, "src/image/zyn_image_resizer.cpp", 651));
  EXPECT_SAYS(zyn_image_cropped_patch(a.get(), b.get(), position, size), 1, "");
  EXPECT_EQ(zyn_image_cropped_patch_with_border(a.get(), position, b.get(), position, size), 1);
}

TEST(Image, RecreationBelowTheHeaderMinimumKeepsTheSizeAndRenewsTheBuffer) {
  Image image = make_image(8, 8, 5);
  EXPECT_EQ(printed([&] { zyn_recreate_image(image.get(), 3, 8); }),
            codec_report("error params!", 540));
  EXPECT_EQ(image->cols, 8);
  EXPECT_NE(image->data, nullptr);
  EXPECT_EQ(image->plane1, nullptr);
  {
    FailingAllocations failing(1);
    zyn_recreate_image(image.get(), 8, 8);
  }
  EXPECT_EQ(image->data, nullptr);
}

}  // namespace

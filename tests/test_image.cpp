// The image record: layout of every format, headers over a caller's memory, refusals.
#include <functional>

#include "support/failing.h"
#include "support/images.h"

namespace {

using namespace zyn_test;

uint64_t in_use() { return zyn_get_current_memory_size_occupation(); }

// What a format's image of 6 x 5 looks like; size and offsets in bytes, -1 for a null plane.
struct Layout {
  uint32_t format, type;
  int64_t size, stride, chroma_stride, plane1, plane2;
  int32_t channels;
};
constexpr Layout kLayouts[] = {{0, 16, 90, 18, 0, -1, -1, 3},  {1, 16, 90, 18, 0, -1, -1, 3},
                               {2, 0, 30, 6, 0, -1, -1, 1},    {3, 24, 120, 24, 0, -1, -1, 4},
                               {4, 24, 120, 24, 0, -1, -1, 4}, {5, 16, 60, 8, 4, 40, 50, 3},
                               {6, 16, 90, 6, 6, 30, 60, -1},  {7, 8, 60, 12, 0, -1, -1, 2},
                               {8, 17, 90, 18, 0, -1, -1, 3},  {9, 16, 90, 18, 0, -1, -1, 3},
                               {10, 16, 90, 18, 0, -1, -1, 3}, {11, 16, 90, 18, 0, -1, -1, 3},
                               {12, 16, 60, 8, 0, -1, -1, 3},  {13, 16, 60, 8, 0, -1, -1, 3},
                               {14, 18, 180, 36, 0, -1, -1, 3}};

void expect_layout(const zyn_image* image, const Layout& want, bool planes = true) {
  const auto offset = [&](const void* plane) -> int64_t {
    return plane ? static_cast<const uint8_t*>(plane) - bytes(image) : -1;
  };
  EXPECT_TRUE(image->kind == 8 && image->type == want.type && image->format == want.format);
  EXPECT_TRUE(image->rows == 5 && image->cols == 6 && image->pages == 1);
  EXPECT_TRUE(image->row_bytes == want.stride && image->plane1_bytes == want.chroma_stride &&
              image->plane2_bytes == want.chroma_stride && image->channels == want.channels);
  EXPECT_EQ(offset(image->plane1), planes ? want.plane1 : -1);
  EXPECT_EQ(offset(image->plane2), planes ? want.plane2 : -1);
}

TEST(Image, EveryFormatHasItsLayoutWhenCreatedRecreatedAndOverCallerMemory) {
  uint8_t memory[600];
  for (const Layout& want : kLayouts) {
    SCOPED_TRACE(want.format);
    const uint64_t before = in_use();
    Image image = make_image(6, 5, want.format);
    expect_layout(image.get(), want);
    EXPECT_EQ(image->owns_data, 1u);
    EXPECT_EQ(in_use() - before, sizeof(zyn_image) + want.size);
    // On purpose: recreation gives the first plane only.
    image = make_image(9, 9, want.format);
    EXPECT_EQ(zyn_recreate_image(image.get(), 6, 5), image.get());
    expect_layout(image.get(), want, false);
    EXPECT_EQ(image->owns_data, 1u);
    EXPECT_EQ(in_use() - before, sizeof(zyn_image) + 5 * want.stride);
    zyn_image header;
    memset(&header, 0xEE, sizeof(header));
    ASSERT_EQ(zyn_set_image_header(&header, 6, 5, want.format), 0);
    expect_layout(&header, want, false);
    EXPECT_TRUE(!header.data && header.owns_data == 0);
    // One byte too few changes nothing.
    EXPECT_SAYS(zyn_set_image_data(&header, memory, 5 * want.stride - 1), 256,
                codec_report("not support!", 584));
    EXPECT_EQ(header.data, nullptr);
    const bool stores_and_refuses = 0x4F98 >> want.format & 1;  // 3, 4, 7 to 11 and 14
    EXPECT_SAYS(zyn_set_image_data(&header, memory, 5 * want.stride), stores_and_refuses ? 256 : 0,
                "");
    EXPECT_EQ(header.data, memory);
    expect_layout(&header, want);
  }
}

TEST(Image, BadArgumentsAreRefused) {
  uint8_t memory[64];
  void* planes[3] = {memory, memory, memory};
  const struct {
    int call, width, height;
    uint32_t format;
    int length, line;  // of the report; 0 for success, -1 for a silent refusal
  } cases[] = {
      {0, 0, 4, 0, 0, 472},         {0, 4, 0, 0, 0, 472},         {0, -1, 4, 5, 0, 472},
      {0, 4, 4, 15, 0, 472},        {0, 4, 4, ~0u, 0, 472},       {0, 40000, 40000, 5, 0, -1},
      {0, INT32_MAX, 1, 12, 0, -1}, {0, 4, INT32_MAX, 13, 0, -1}, {0, 3, 3, 0, 0, 0},
      {1, 3, 4, 0, 0, 540},         {1, 4, 3, 0, 0, 540},         {1, 4, 4, 15, 0, 540},
      {1, 4, 4, 0, 0, 0},           {2, 4, 4, 2, 15, 577},        {3, 4, 5, 0, 60, 0},
      {3, 4, 5, 0, 59, 584},        {3, 4, 5, 0, 15, 577},        {3, 3, 5, 0, 60, 540},
      {3, 4, 5, 15, 60, 540},       {3, 61, 5, 5, 60, 626},       {3, 0, 5, 5, 60, 626},
      {3, 4, 0, 5, 60, 626},        {3, 60, 1, 5, 60, 0}};
  const auto run = [&](const auto& c) {
    const int32_t lengths[3] = {c.length, 0, 0};
    zyn_image record = *make_image(4, 4, 2);
    if (c.call == 0) return make_image(c.width, c.height, c.format) ? 0 : 1;
    if (c.call == 1) return zyn_set_image_header(&record, c.width, c.height, c.format);
    if (c.call == 2) return zyn_set_image_data(&record, memory, c.length);
    // On packed formats the first stride is the buffer's length.
    return zyn_set_image_header_and_data(&record, c.width, c.height, c.format, planes, lengths);
  };
  const auto text = [](int line) {
    const bool other = line == 540 || line == 577;
    return line < 1 ? ""
                    : codec_report(line == 584 ? "not support!"
                                   : other     ? "error params!"
                                               : kPara,
                                   line);
  };
  for (const auto& c : cases)
    EXPECT_SAYS(run(c), c.line == 584 ? 256 : c.line != 0, text(c.line)) << &c - cases;
  printed([] { EXPECT_FALSE(make_image(INT32_MAX, INT32_MAX, 14)); });
  const int32_t strides[3] = {60, 0, 0};
  zyn_image record = *make_image(4, 4, 2);
  EXPECT_SAYS(zyn_set_image_header(nullptr, 4, 4, 0), 1, text(540));
  EXPECT_SAYS(zyn_set_image_data(nullptr, memory, 64), 1, text(577));
  EXPECT_SAYS(zyn_set_image_data(&record, nullptr, 64), 1, text(577));
  record.kind = 4;
  EXPECT_SAYS(zyn_set_image_data(&record, memory, 64), 1, text(577));
  const auto set = [&](zyn_image* to, void* const* blocks, const int32_t* lengths) {
    EXPECT_SAYS(zyn_set_image_header_and_data(to, 4, 5, 5, blocks, lengths), 1, text(626));
  };
  set(nullptr, planes, strides);
  set(&record, nullptr, strides);
  set(&record, planes, nullptr);
  planes[0] = nullptr;
  set(&record, planes, strides);
}

TEST(Image, DataThatAnImageOwnedIsNotFreedAndPlanesOf420AreTaken) {
  uint8_t memory[400];
  Image image = make_image(4, 4, 2);
  void* own = image->data;
  const uint64_t held = in_use();
  EXPECT_EQ(zyn_set_image_data(image.get(), memory, 64), 0);
  EXPECT_TRUE(in_use() == held && image->owns_data == 1);
  EXPECT_EQ(zyn_set_image_data(image.get(), own, 16), 0);
  EXPECT_EQ(zyn_set_image_data(image.get(), image->data, 16), 0);  // its own block again
  EXPECT_TRUE(image->data == own && image->owns_data == 1);
  void* planes[3] = {memory, memory + 200, memory + 300};
  const int32_t strides[3] = {80, 33, 17};
  zyn_image header;
  for (uint32_t format : {5u, 12u, 13u}) {
    ASSERT_EQ(zyn_set_image_header_and_data(&header, 7, 2, format, planes, strides), 0);
    EXPECT_TRUE(header.kind == 8 && header.format == format && header.type == 16);
    EXPECT_TRUE(header.rows == 2 && header.cols == 7 && header.owns_data == 0);
    for (int k = 0; k < 3; k++)
      EXPECT_TRUE(plane_of(header, k).data == planes[k] &&
                  plane_of(header, k).stride == strides[k]);
  }
}

TEST(Image, RecreationBelowTheHeaderMinimumKeepsTheSizeAndRenewsTheBuffer) {
  Image image = make_image(8, 8, 5);
  void* before = image->data;
  EXPECT_EQ(zyn_recreate_image(image.get(), 0, 4), image.get());
  EXPECT_EQ(zyn_recreate_image(image.get(), 4, -1), image.get());
  EXPECT_TRUE(image->data == before && image->plane1);
  EXPECT_SAYS(zyn_recreate_image(image.get(), 3, 8), image.get(),
              codec_report("error params!", 540));
  EXPECT_TRUE(image->cols == 8 && image->data && !image->plane1);
  EXPECT_EQ(zyn_recreate_image(nullptr, 4, 4), nullptr);
  FailingAllocations failing(1);
  zyn_recreate_image(image.get(), 8, 8);
  EXPECT_EQ(image->data, nullptr);
}

// Views into one canvas of 64-byte rows, the source at a fixed place, the destination
// everywhere: refused where a byte belongs to both, else as with memory of their own.
TEST(Image, PixelsThatTwoImagesShareAreRefusedByEveryOperation) {
  constexpr int kStride = 64, kRows = 28, kColumn = 26, kRow = 10, kSource = 8;
  const auto resize = [](zyn_image* to, zyn_image* from) {
    return zyn_image_resizer(to, from, to->cols != 5);
  };
  const auto convert = [](zyn_image* to, zyn_image* from) {
    return zyn_image_color_space_convert(to, from, to->format == 0 ? 2 : 0);
  };
  const auto crop = [](zyn_image* to, zyn_image* from) {
    int32_t position[2] = {-1, 3}, size[2] = {to->cols, to->rows};
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
  } cases[] = {{8, 0, false, resize},  {4, 0, false, resize}, {5, 0, false, resize},
               {9, 0, false, resize},  {6, 0, false, crop},   {6, 0, true, patch},
               {8, 0, false, convert}, {8, 2, false, convert}};
  Bytes before(kStride * (kRows + 1));
  for (size_t i = 0; i < before.size(); i++)
    before[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
  const auto same_rows = [](const zyn_image& a, const zyn_image& b) {
    bool same = true;
    for (int y = 0; y < a.rows; y++)
      same &= same_bytes(&plane_of(a, 0).at(0, y), &plane_of(b, 0).at(0, y), a.cols * a.channels);
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
  Capture capture;
  for (const auto& c : cases)
    for (int row = 0; row <= kRows - c.size; row++)
      for (int column = 0; column <= kStride - 3 * c.size; column++) {
        if (row == kRow && column == kColumn) continue;
        ASSERT_TRUE(right(c, row, column)) << &c - cases << " at " << column << ", " << row;
      }
  // Any plane of format 5 counts.
  Image a = make_image(8, 8, 5), b = make_image(9, 9, 5);
  a->plane2 = static_cast<uint8_t*>(b->plane1) + 5;
  for (size_t k : {0, 4, 5}) EXPECT_EQ(cases[k].run(a.get(), b.get()), 1);
}

}  // namespace

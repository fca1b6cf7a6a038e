// BMP files: every depth made by a writer of its own, damage of every kind, and what the
// library writes, byte for byte.
#include <stdio.h>

#include <functional>

#include "support/failing.h"
#include "support/images.h"

namespace {

using namespace zyn_test;

using Bytes = std::vector<uint8_t>;

void put(Bytes& out, uint32_t value, int count) {
  for (int i = 0; i < count; i++) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void patch(Bytes& file, size_t at, uint32_t value, int count) {
  for (int i = 0; i < count; i++)
    file[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
}

void save(const std::string& path, const Bytes& content) {
  remove(path.c_str());  // some systems flush a file that is cut and written again
  FILE* stream = fopen(path.c_str(), "wb");
  ASSERT_TRUE(stream);
  fwrite(content.data(), 1, content.size(), stream);
  fclose(stream);
}

bool load(const std::string& path, Bytes* content) {
  FILE* stream = fopen(path.c_str(), "rb");
  if (!stream) return false;
  content->resize(1 << 20);
  content->resize(fread(content->data(), 1, content->size(), stream));
  fclose(stream);
  return true;
}

// A BMP file from its description: pixel values are given raw, by a function.
struct Bmp {
  int width = 5, height = 3, bits = 24;
  bool top_down = false, gray = false;
  uint32_t header = 40, compression = 0, colours = 0, gap = 0;
  uint32_t masks[3] = {0, 0, 0};

  // Raw value of pixel (x, y), y from the top: any value that the depth holds.
  uint32_t raw(int x, int y) const {
    const uint32_t value = static_cast<uint32_t>(x * 2654435761u + y * 40503u * 65537u + 12345u);
    return bits == 32 ? value : value >> 7 & ((1u << bits) - 1);
  }
  uint32_t entries() const { return colours ? colours : 1u << bits; }
  // Palette entry i: blue, green, red.
  void entry(uint32_t i, uint8_t out[3]) const {
    for (int c = 0; c < 3; c++) out[c] = static_cast<uint8_t>(gray ? i * 7 + 3 : i * 7 + 40 * c);
    if (i >= entries()) out[0] = out[1] = out[2] = 0;
  }
  static int widen(uint32_t value, int bits) {
    return static_cast<int>(value << (8 - bits) | value >> (2 * bits - 8));
  }
  void colour(int x, int y, int out[3]) const {
    const uint32_t v = raw(x, y);
    if (bits <= 8) {
      uint8_t e[3];
      entry(v, e);
      for (int c = 0; c < 3; c++) out[c] = e[c];
    } else if (bits == 16 || bits == 15) {
      const bool six = compression == 3 && masks[0] != 0x7C00;
      out[0] = widen(v & 31, 5);
      out[1] = six ? widen(v >> 5 & 63, 6) : widen(v >> 5 & 31, 5);
      out[2] = widen((six ? v >> 11 : v >> 10) & 31, 5);
    } else {
      for (int c = 0; c < 3; c++) out[c] = static_cast<int>(v >> (8 * c) & 255);
    }
  }
  Bytes file() const {
    Bytes rest;
    put(rest, static_cast<uint32_t>(width), 4);
    put(rest, static_cast<uint32_t>(top_down ? -height : height), 4);
    put(rest, 1, 2);
    put(rest, static_cast<uint32_t>(bits), 2);
    // A core header has its fields where a 40-byte header has them; the palette begins at 30.
    if (header != 12) {
      put(rest, compression, 4);
      for (int i = 0; i < 3; i++) put(rest, 0, 4);
      put(rest, colours, 4);
      rest.resize(header - 4, 0);
      if (header == 40 && compression == 3)
        for (uint32_t mask : masks) put(rest, mask, 4);
      else if (compression == 3)
        for (size_t i = 0; i < 3; i++) patch(rest, 36 + 4 * i, masks[i], 4);
    }
    if (bits <= 8)
      for (uint32_t i = 0; i < entries(); i++) {
        uint8_t e[3];
        entry(i, e);
        rest.insert(rest.end(), e, e + 3);
        if (header != 12) rest.push_back(0xCC);
      }
    rest.resize(rest.size() + gap, 0xBB);
    const uint32_t offset = static_cast<uint32_t>(18 + rest.size());
    for (int r = 0; r < height; r++) {
      const int y = top_down ? r : height - 1 - r;
      uint64_t hold = 0;
      int held = 0;
      size_t length = 0;
      for (int x = 0; x < width; x++) {
        if (bits < 8) {
          hold = hold << bits | raw(x, y);
          if ((held += bits) == 8) rest.push_back(static_cast<uint8_t>(hold)), held = 0, length++;
        } else {
          put(rest, raw(x, y), (bits + 7) / 8);
          length += static_cast<size_t>((bits + 7) / 8);
        }
      }
      if (held) rest.push_back(static_cast<uint8_t>(hold << (8 - held))), length++;
      while (length++ % 4) rest.push_back(0xAA);
    }
    Bytes out = {'B', 'M'};
    put(out, offset + static_cast<uint32_t>(rest.size()), 4);
    put(out, 0, 4);
    put(out, offset, 4);
    put(out, header, 4);
    out.insert(out.end(), rest.begin(), rest.end());
    return out;
  }
};

Image read(const Bytes& content, int mode) {
  const std::string path = temp_path("read.bmp");
  save(path, content);
  Image image(zyn_create_image_from_file(path.c_str(), mode));
  remove(path.c_str());
  return image;
}

void check(const Bmp& bmp) {
  const std::string path = temp_path("kind.bmp");
  save(path, bmp.file());
  for (int mode : {0, 1, 2, -1}) {
    SCOPED_TRACE(testing::Message() << bmp.bits << " bits " << bmp.width << "x" << bmp.height
                                    << " header " << bmp.header << " mode " << mode);
    Image image(zyn_create_image_from_file(path.c_str(), mode));
    ASSERT_TRUE(image);
    const bool gray = mode == 1 || (mode == 0 && bmp.gray);
    ASSERT_EQ(image->format, gray ? 2u : 0u);
    ASSERT_TRUE(image->cols == bmp.width && image->rows == bmp.height);
    int wrong = 0;
    for (int y = 0; y < bmp.height; y++)
      for (int x = 0; x < bmp.width; x++) {
        int c[3];
        bmp.colour(x, y, c);
        const uint8_t* row = bytes(image) + y * image->row_bytes;
        if (gray)
          wrong += row[x] != (1868 * c[0] + 9617 * c[1] + 4899 * c[2] + 8192) >> 14;
        else
          for (int k = 0; k < 3; k++) wrong += row[3 * x + k] != c[k];
      }
    EXPECT_EQ(wrong, 0);
  }
  remove(path.c_str());
}

std::vector<Bmp> every_kind() {
  std::vector<Bmp> kinds;
  for (int bits : {1, 4, 8, 16, 24, 32, 15}) {
    Bmp bmp;
    bmp.bits = bits;
    kinds.push_back(bmp);
    bmp.top_down = true;
    bmp.gap = 5;
    kinds.push_back(bmp);
    bmp.header = 124;
    kinds.push_back(bmp);
    bmp.header = 36;
    if (bits > 8) kinds.push_back(bmp);
    if (bits > 8) continue;
    bmp = Bmp();
    bmp.bits = bits;
    bmp.gray = true;
    kinds.push_back(bmp);
    bmp.header = 12;
    kinds.push_back(bmp);
    bmp.header = 40;
    bmp.gray = false;
    bmp.colours = bits == 1 ? 1 : 3;  // indices beyond it are black
    kinds.push_back(bmp);
  }
  Bmp fields;
  fields.bits = 16;
  fields.compression = 3;
  const uint32_t masks[][3] = {{0x7C00, 0x03E0, 0x001F}, {0xF800, 0x07E0, 0x001F}};
  for (const auto& m : masks) {
    memcpy(fields.masks, m, sizeof(m));
    fields.header = 40;
    kinds.push_back(fields);
    fields.header = 108;
    kinds.push_back(fields);
  }
  return kinds;
}

TEST(BmpReader, EveryDepthHeaderAndRowOrder) {
  for (const Bmp& kind : every_kind())
    for (int width : {1, 7, 8, 33}) {
      Bmp bmp = kind;
      bmp.width = width;
      check(bmp);
    }
}

// Bytes from one cut to the next: files are slow under emulation.
#ifdef _WIN32
constexpr size_t kCut = 7;
#else
constexpr size_t kCut = 1;
#endif

TEST(BmpReader, AFileCutAnywhereIsRefusedQuietly) {
  const std::string path = temp_path("cut.bmp");
  EXPECT_EQ(printed([&] {
              for (Bmp kind : every_kind()) {
                if (kind.top_down || kind.gray || kind.header > 40) continue;
                if (kind.bits == 8) kind.colours = 3;  // a short file
                for (Bytes file = kind.file(); file.size() > kCut;) {
                  file.resize(file.size() - kCut);
                  save(path, file);
                  ASSERT_EQ(zyn_create_image_from_file(path.c_str(), 0), nullptr)
                      << kind.bits << " bits cut at " << file.size();
                }
              }
            }),
            "");
  remove(path.c_str());
}

TEST(BmpReader, HostileFieldsAreRefused) {
  const uint32_t hostile[] = {0,          1,          4,          35,
                              0x7FFF,     0x7FFFFFFF, 0x80000000, 0x80000001,
                              0xFFFFFFFF, 0xFFFFFFFE, 0x10000000, 0x55555556};
  for (const Bmp& kind : every_kind()) {
    if (kind.top_down || kind.gray || kind.header > 40) continue;
    const Bytes good = kind.file();
    for (size_t at : {10u, 14u, 18u, 22u, 28u, 30u, 46u})
      for (uint32_t value : hostile) {
        Bytes file = good;
        if (at + 4 > file.size()) continue;
        patch(file, at, value, at == 28 ? 2 : 4);
        const uint64_t before = zyn_get_current_memory_size_occupation();
        printed([&] {
          Image image = read(file, 0);
          // What is still readable holds no more pixels than the file has bits.
          if (!image) return;
          EXPECT_LE(static_cast<uint64_t>(image->rows) * static_cast<uint64_t>(image->cols),
                    8 * file.size());
        });
        EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
      }
  }
}

TEST(BmpReader, RefusesRunLengthOtherDepthsAndBitFieldsElsewhere) {
  const auto refused = [](int bits, uint32_t compression, uint32_t header) {
    Bmp bmp;
    bmp.bits = bits;
    bmp.compression = compression;
    bmp.header = header;
    EXPECT_EQ(printed([&] { EXPECT_FALSE(read(bmp.file(), 0)); }), "") << bmp.bits;
  };
  for (int bits : {1, 4, 8, 24, 32})
    for (uint32_t compression : {1u, 2u, 3u, 4u}) refused(bits, compression, 40);
  for (int bits : {2, 12}) refused(bits, 0, 40);
  refused(24, 0, 12);  // 24 bits have no place in a core header
}

TEST(BmpReader, FilesThatAreNoBmp) {
  const Bytes contents[] = {{0x89, 'P', 'N', 'G', 13, 10, 26, 10, 0, 0, 0, 0},
                            {0xFF, 0xD8, 0xFF, 0xE0},
                            {},
                            {'B'},
                            {'B', 'M'}};
  for (const Bytes& content : contents)
    EXPECT_EQ(printed([&] { EXPECT_FALSE(read(content, 0)); }), "");
  EXPECT_SAYS(zyn_create_image_from_file(nullptr, 0), nullptr,
              codec_report("file name is null!", 667));
  for (const std::string& name : {temp_path("missing/none.bmp"), temp_path("")})
    EXPECT_SAYS(zyn_create_image_from_file(name.c_str(), 0), nullptr,
                "file name is " + name + "\n" + codec_report("open file error!", 682));
}

TEST(BmpReader, FailsCleanlyAtEveryAllocation) {
  const std::string path = temp_path("memory.bmp");
  save(path, Bmp().file());
  printed([&] {
    EXPECT_GE(for_each_failing_allocation([&](int64_t, bool) {
                return Image(zyn_create_image_from_file(path.c_str(), 1)) != nullptr;
              }),
              4);  // opening a file takes one more on Windows
  });
  remove(path.c_str());
}

int write(const std::string& name, zyn_image* image, std::string* text) {
  int code = 0;
  *text = printed([&] { code = zyn_image_write_to_file_with_level(name.c_str(), image); });
  return code;
}

TEST(BmpWriter, BytesOfSmallFiles) {
  const std::string path = temp_path("small.BMP");
  std::string text;
  Bytes file;
  Image colour = make_image(3, 2, 0);
  for (int i = 0; i < 18; i++) bytes(colour)[i] = static_cast<uint8_t>(i + 1);
  EXPECT_EQ(write(path, colour.get(), &text), 0);
  ASSERT_TRUE(load(path, &file));
  const Bytes want = {'B', 'M', 78, 0, 0, 0, 0, 0, 0,  0, 54, 0, 0, 0, 40, 0,  0,  0,  3,  0,
                      0,   0,   2,  0, 0, 0, 1, 0, 24, 0, 0,  0, 0, 0, 0,  0,  0,  0,  0,  0,
                      0,   0,   0,  0, 0, 0, 0, 0, 0,  0, 0,  0, 0, 0, 10, 11, 12, 13, 14, 15,
                      16,  17,  18, 0, 0, 0, 1, 2, 3,  4, 5,  6, 7, 8, 9,  0,  0,  0};
  EXPECT_EQ(file, want);
  Image gray = make_image(4, 4, 2);
  memset(gray->data, 77, 16);
  EXPECT_EQ(write(path, gray.get(), &text), 0);
  ASSERT_TRUE(load(path, &file));
  ASSERT_EQ(file.size(), 1094u);
  EXPECT_EQ(file[2] | file[3] << 8, 1094);
  EXPECT_EQ(file[10] | file[11] << 8, 1078);
  EXPECT_EQ(file[28], 8);
  for (size_t i = 0; i < 256; i++)
    for (size_t k = 0; k < 4; k++) EXPECT_EQ(file[54 + 4 * i + k], k < 3 ? i : 0u);
  remove(path.c_str());
}

TEST(BmpWriter, WhatIsWrittenReadsBack) {
  const std::string path = temp_path("back \xC3\xA4.bmp");  // a name beyond ASCII
  std::string text;
  Random random(5);
  for (int width = 1; width < 9; width++)
    for (uint32_t format : {0u, 1u, 2u, 5u}) {
      Image image = make_image(width, 4, format), sent = make_image(width, 4, 0);
      const size_t count = buffer_bytes(width, 4, format);
      for (size_t i = 0; i < count; i++) bytes(image)[i] = static_cast<uint8_t>(random.next());
      if (format == 5) {
        ASSERT_EQ(zyn_image_color_space_convert(sent.get(), image.get(), 9), 0);
      }
      Bytes before(bytes(image), bytes(image) + count);
      ASSERT_EQ(write(path, image.get(), &text), 0);
      Image back(zyn_create_image_from_file(path.c_str(), 0));
      ASSERT_TRUE(back);
      ASSERT_EQ(back->format, format == 2 ? 2u : 0u);
      const size_t size = static_cast<size_t>(width * 4) * (format == 2 ? 1 : 3);
      EXPECT_EQ(memcmp(back->data, format == 5 ? sent->data : image->data, size), 0) << format;
      if (format != 1) continue;
      // On purpose: the caller's image has its channels exchanged and stays format 0.
      EXPECT_EQ(image->format, 0u);
      for (size_t i = 0; i < size; i++) EXPECT_EQ(bytes(image)[i], before[i / 3 * 3 + 2 - i % 3]);
    }
  remove(path.c_str());
}

TEST(BmpWriter, NamesAndFormatsThatAreRefused) {
  Image image = make_image(4, 4, 0);
  const std::string base = temp_path("refused");
  const std::string long_name = base + std::string(9000, 'x') + ".bmp";
  const struct {
    std::string name;
    uint32_t format;
    int code;
    std::string text;
  } cases[] = {
      {base + ".jpg", 0, 256, ""},
      {base + ".JPG", 2, 256, ""},
      {base + ".png", 14, 256, ""},
      {base + ".PNG", 3, 256, ""},
      {base + ".PNG", 0, 256, ""},
      {base + ".Bmp", 0, 4, codec_report("Current version can not support!", 770)},
      {base + ".bmp.", 0, 4, codec_report("Current version can not support!", 770)},
      {base + ".bmp", 3, 256, codec_report("48 bit must save to be PNG format!\n", 758)},
      {base + ".jpg", 4, 256, codec_report("48 bit must save to be PNG format!\n", 758)},
      {base + ".bmp", 14, 256, codec_report("48 bit must save to be PNG format!\n", 758)},
      {base + ".bmp", 6, 1, codec_report(kPara, 727)},
      {base + ".bmp", 13, 1, codec_report(kPara, 727)},
      {"plain", 0, 1, ""},
      {base + "/no/such/place.bmp", 0, 8, codec_report("Opening file errors!", 407)},
      {long_name, 0, 8, codec_report("Opening file errors!", 407)},
  };
  for (const auto& c : cases) {
    std::string text;
    Image other = make_image(4, 4, c.format);
    memset(other->data, 0, buffer_bytes(4, 4, c.format));
    EXPECT_EQ(write(c.name, other.get(), &text), c.code) << c.name << " " << c.format;
    EXPECT_EQ(text, c.text);
    Bytes content;
    EXPECT_FALSE(load(c.name, &content)) << c.name;
  }
  std::string text;
  EXPECT_EQ(write(base + ".bmp", nullptr, &text), 1);
  EXPECT_EQ(text, codec_report(kPara, 727));
  image->kind = 4;
  EXPECT_EQ(write(base + ".bmp", image.get(), &text), 1);
  image->kind = 8;
  EXPECT_EQ(
      printed([&] { EXPECT_EQ(zyn_image_write_to_file_with_level(nullptr, image.get()), 1); }),
      codec_report(kPara, 727));
  Image planeless = make_image(4, 4, 5);
  zyn_recreate_image(planeless.get(), 4, 4);
  EXPECT_EQ(write(base + ".bmp", planeless.get(), &text), 1);
  EXPECT_EQ(text, report(kPara, "src/image/zyn_image_color_space.cpp", 106));
}

}  // namespace

// BMP files: every depth made by a writer of its own, damage of every kind, and what the
// library writes, byte for byte.
#include <stdio.h>
#ifndef _WIN32
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "support/failing.h"
#include "support/images.h"

namespace {

using namespace zyn_test;

using Bytes = std::vector<uint8_t>;

void patch(Bytes& file, size_t at, uint32_t value, int count) {
  for (int i = 0; i < count; i++)
    file[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
}

void put(Bytes& out, uint32_t value, int count) {
  out.resize(out.size() + static_cast<size_t>(count));
  patch(out, out.size() - static_cast<size_t>(count), value, count);
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
  uint32_t header = 40, compression = 0, colours = 0, gap = 0, odd = 0;
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
    if (odd && i == odd) out[1]++;
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
  // A stored row: values of less than a byte share one, the first in the high bits.
  void row(Bytes& out, int y) const {
    const size_t first = out.size(), whole = static_cast<size_t>((bits + 7) / 8);
    for (int x = 0; x < width; x++) {
      if (bits >= 8) {
        put(out, raw(x, y), static_cast<int>(whole));
        continue;
      }
      const int bit = x * bits % 8;
      if (bit == 0) out.push_back(0);
      out.back() = static_cast<uint8_t>(out.back() | raw(x, y) << (8 - bits - bit));
    }
    while ((out.size() - first) % 4) out.push_back(0xAA);
  }
  Bytes file() const {
    Bytes out = {'B', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    put(out, header, 4);
    put(out, static_cast<uint32_t>(width), 4);
    put(out, static_cast<uint32_t>(top_down ? -height : height), 4);
    put(out, 1, 2);
    put(out, static_cast<uint32_t>(bits), 2);
    // A core header has its fields where a 40-byte header has them; the palette begins at 30.
    if (header != 12) {
      put(out, compression, 4);
      out.resize(46);
      put(out, colours, 4);
      out.resize(14 + header);
      if (header == 40 && compression == 3) out.resize(66);
      for (size_t i = 0; i < 3 && compression == 3; i++) patch(out, 54 + 4 * i, masks[i], 4);
    }
    for (uint32_t i = 0; bits <= 8 && i < entries(); i++) {
      uint8_t e[3];
      entry(i, e);
      out.insert(out.end(), e, e + 3);
      if (header != 12) out.push_back(0xCC);
    }
    out.resize(out.size() + gap, 0xBB);
    patch(out, 10, static_cast<uint32_t>(out.size()), 4);
    for (int r = 0; r < height; r++) row(out, top_down ? r : height - 1 - r);
    patch(out, 2, static_cast<uint32_t>(out.size()), 4);
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
    const bool gray = mode == 1 || (mode == 0 && bmp.gray && !bmp.odd);
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
  const auto add = [&](Bmp bmp, uint32_t header) { bmp.header = header, kinds.push_back(bmp); };
  for (int bits : {1, 4, 8, 16, 24, 32, 15}) {
    Bmp bmp;
    bmp.bits = bits;
    add(bmp, 40);
    bmp.top_down = true;
    bmp.gap = 5;
    for (uint32_t header : {40u, 124u, 36u})
      if (bits > 8 || header > 36) add(bmp, header);
    if (bits > 8) continue;
    bmp = Bmp();
    bmp.bits = bits;
    bmp.gray = true;
    for (uint32_t header : {40u, 12u}) add(bmp, header);
    bmp.gray = false;
    bmp.colours = bits == 1 ? 1 : 3;  // indices beyond it are black
    add(bmp, 40);
    bmp.gray = true;
    for (uint32_t odd : {0u, 299u}) {  // more than pixels can name, of which one may decide
      bmp.colours = 600;
      bmp.odd = odd;
      add(bmp, 40);
    }
  }
  Bmp fields;
  fields.bits = 16;
  fields.compression = 3;
  const uint32_t masks[][3] = {{0x7C00, 0x03E0, 0x001F}, {0xF800, 0x07E0, 0x001F}};
  for (const auto& m : masks)
    for (uint32_t header : {40u, 108u}) {
      memcpy(fields.masks, m, sizeof(m));
      add(fields, header);
    }
  return kinds;
}

TEST(BmpReader, EveryDepthHeaderAndRowOrder) {
  for (Bmp bmp : every_kind())
    for (int width : {1, 7, 8, 33}) {
      bmp.width = width;
      check(bmp);
    }
  Bmp large;  // more than is read at once, and a row alone that is
  for (int width : {1003, 30001}) {
    large.width = width;
    large.height = 90000 / width;
    check(large);
  }
}

// One file of every depth and compression, short ones.
std::vector<Bmp> plain_kinds() {
  std::vector<Bmp> kinds;
  for (Bmp kind : every_kind()) {
    if (kind.top_down || kind.gray || kind.header > 40 || kind.colours > 3) continue;
    if (kind.bits == 8) kind.colours = 3;
    kinds.push_back(kind);
  }
  return kinds;
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
              for (const Bmp& kind : plain_kinds())
                for (Bytes file = kind.file(); file.size() > kCut;) {
                  file.resize(file.size() - kCut);
                  save(path, file);
                  ASSERT_EQ(zyn_create_image_from_file(path.c_str(), 0), nullptr)
                      << kind.bits << " bits cut at " << file.size();
                }
            }),
            "");
  remove(path.c_str());
}

TEST(BmpReader, HostileFieldsAreRefused) {
  const uint32_t hostile[] = {0,          1,          4,          35,
                              0x7FFF,     0x7FFFFFFF, 0x80000000, 0x80000001,
                              0xFFFFFFFF, 0xFFFFFFFE, 0x10000000, 0x55555556};
  for (const Bmp& kind : plain_kinds()) {
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

TEST(BmpReader, RefusesOtherFilesRunLengthOtherDepthsAndBitFieldsElsewhere) {
  std::vector<Bytes> contents = {{0x89, 'P', 'N', 'G', 13, 10, 26, 10, 0, 0, 0, 0},
                                 {0xFF, 0xD8, 0xFF, 0xE0},
                                 {},
                                 {'B'},
                                 {'B', 'M'}};
  const auto add = [&](int bits, uint32_t compression, uint32_t header) {
    Bmp bmp;
    bmp.bits = bits;
    bmp.compression = compression;
    bmp.header = header;
    contents.push_back(bmp.file());
  };
  for (int bits : {1, 4, 8, 24, 32})
    for (uint32_t compression : {1u, 2u, 3u, 4u}) add(bits, compression, 40);
  for (int bits : {2, 12}) add(bits, 0, 40);
  add(24, 0, 12);  // 24 bits have no place in a core header
  for (const Bytes& content : contents)
    EXPECT_EQ(printed([&] { EXPECT_FALSE(read(content, 0)); }), "");
  EXPECT_SAYS(zyn_create_image_from_file(nullptr, 0), nullptr,
              codec_report("file name is null!", 667));
  for (const std::string& name : {temp_path("missing/none.bmp"), temp_path("")})
    EXPECT_SAYS(zyn_create_image_from_file(name.c_str(), 0), nullptr,
                "file name is " + name + "\n" + codec_report("open file error!", 682));
}

int write(const std::string& name, zyn_image* image, std::string* text) {
  int code = 0;
  *text = printed([&] { code = zyn_image_write_to_file_with_level(name.c_str(), image); });
  return code;
}

#ifndef _WIN32  // files with holes, devices behind links, limits
uint64_t asked = 0;
void* count_bytes(size_t bytes) {
  asked += bytes;
  return malloc(bytes);
}

TEST(BmpReader, OnlyWhatTheHeaderAsksForIsRead) {
  const std::string path = temp_path("hole.bmp");
  Bmp bmp;
  bmp.width = bmp.height = 1;
  for (int64_t pixels : {int64_t{54}, int64_t{0xF0000000}}) {
    Bytes file = bmp.file();
    patch(file, 10, static_cast<uint32_t>(pixels), 4);
    save(path, file);
    ASSERT_EQ(truncate(path.c_str(), int64_t{1} << 33), 0);
    const zyn_system_allocator counting = {count_bytes, free};
    const zyn_system_allocator own = zyn_set_system_allocator(&counting);
    asked = 0;
    Image image(zyn_create_image_from_file(path.c_str(), 0));
    zyn_set_system_allocator(&own);
    EXPECT_LT(asked, 1000u);
    ASSERT_TRUE(image);
    int colour[3];
    bmp.colour(0, 0, colour);
    for (int c = 0; c < 3; c++) EXPECT_EQ(bytes(image)[c], pixels == 54 ? colour[c] : 0);
  }
  remove(path.c_str());
  // A pipe has no length.
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  FILE* both = fopen(path.c_str(), "r+b");
  fwrite("BM", 1, 2, both);
  fflush(both);
  EXPECT_SAYS(zyn_create_image_from_file(path.c_str(), 0), nullptr, codec_report(kMemory, 183));
  fclose(both);
  remove(path.c_str());
}

TEST(BmpWriter, AFileThatCannotBeWrittenIsRemovedAndADeviceStays) {
  const std::string path = temp_path("full.bmp"), other = temp_path("other");
  std::string text;
  for (int size : {3, 300}) {  // noticed at the close, and before
    Image image = make_image(size, size, 0);
    memset(image->data, 1, buffer_bytes(size, size, 0));
    struct stat found;
    ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);
    EXPECT_EQ(write(path, image.get(), &text), 8);
    EXPECT_EQ(text, "");
    EXPECT_TRUE(lstat(path.c_str(), &found) == 0 && S_ISLNK(found.st_mode));
    EXPECT_TRUE(stat("/dev/full", &found) == 0 && S_ISCHR(found.st_mode));
    remove(path.c_str());
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight = {50, before.rlim_max};
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    for (bool linked : {false, true}) {
      if (linked) {
        ASSERT_EQ(symlink(other.c_str(), path.c_str()), 0);
      }
      setrlimit(RLIMIT_FSIZE, &tight);
      EXPECT_EQ(write(path, image.get(), &text), 8);
      setrlimit(RLIMIT_FSIZE, &before);
      EXPECT_EQ(text, "");
      EXPECT_NE(stat(path.c_str(), &found), 0);
      EXPECT_NE(stat(other.c_str(), &found), 0);
      remove(path.c_str());
    }
    signal(SIGXFSZ, handler);
  }
}
#endif

TEST(BmpReader, AndWriterFailCleanlyAtEveryAllocation) {
  Image image = make_image(6, 4, 5);
  memset(image->data, 0, buffer_bytes(6, 4, 5));
  const std::string path = temp_path("short.bmp");
  save(path, Bmp().file());
  printed([&] {
    EXPECT_GE(for_each_failing_allocation([&](int64_t, bool) {
                return Image(zyn_create_image_from_file(path.c_str(), 1)) != nullptr;
              }),
              4);  // opening a file takes one more on Windows
    for_each_failing_allocation([&](int64_t n, bool) {
      const int code = zyn_image_write_to_file_with_level(path.c_str(), image.get());
      EXPECT_EQ(code == 2, n < 3) << n;
      return code == 0;
    });
  });
  remove(path.c_str());
}

TEST(BmpWriter, BytesOfSmallFiles) {
  const std::string path = temp_path("small.BMP");
  std::string text;
  Bytes file;
  Image colour = make_image(3, 2, 0);
  for (int i = 0; i < 18; i++) bytes(colour)[i] = static_cast<uint8_t>(i + 1);
  EXPECT_EQ(write(path, colour.get(), &text), 0);
  ASSERT_TRUE(load(path, &file));
  Bytes want(54);
  const auto describe = [&](uint32_t size, uint32_t at, uint32_t w, uint32_t h, uint32_t bits) {
    const uint32_t fields[][3] = {{0, 0x4D42, 2}, {2, size, 4}, {10, at, 4}, {14, 40, 4},
                                  {18, w, 4},     {22, h, 4},   {26, 1, 2},  {28, bits, 2}};
    for (const auto& f : fields) patch(want, f[0], f[1], static_cast<int>(f[2]));
  };
  describe(78, 54, 3, 2, 24);
  want.insert(want.end(), {10, 11, 12, 13, 14, 15, 16, 17, 18, 0, 0, 0});
  want.insert(want.end(), {1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0});
  EXPECT_EQ(file, want);
  Image gray = make_image(4, 4, 2);
  memset(gray->data, 77, 16);
  EXPECT_EQ(write(path, gray.get(), &text), 0);
  ASSERT_TRUE(load(path, &file));
  want.resize(54);
  describe(1094, 1078, 4, 4, 8);
  for (uint32_t i = 0; i < 256; i++) put(want, i * 0x010101, 4);
  want.resize(1094, 77);
  EXPECT_EQ(file, want);
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
      const Bytes before(bytes(image), bytes(image) + count);
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
  const std::string base = temp_path("refused");
  const std::string params = codec_report(kPara, 727), unknown = codec_report(kSupport, 770);
  const std::string deep = codec_report("48 bit must save to be PNG format!\n", 758);
  const std::string closed = codec_report("Opening file errors!", 407);
  const struct {
    std::string name;
    uint32_t format;
    int code;
    std::string text;
  } cases[] = {{base + ".jpg", 0, 256, ""},
               {base + ".JPG", 2, 256, ""},
               {base + ".png", 14, 256, ""},
               {base + ".PNG", 3, 256, ""},
               {base + ".PNG", 0, 256, ""},
               {base + ".Bmp", 0, 4, unknown},
               {base + ".bmp.", 0, 4, unknown},
               {base + ".bmp", 3, 256, deep},
               {base + ".jpg", 4, 256, deep},
               {base + ".bmp", 14, 256, deep},
               {base + ".bmp", 6, 1, params},
               {base + ".bmp", 13, 1, params},
               {"plain", 0, 1, ""},
               {base + "/no/such/place.bmp", 0, 8, closed},
               {base + std::string(9000, 'x') + ".bmp", 0, 8, closed}};
  std::string text;
  for (const auto& c : cases) {
    Image image = make_image(4, 4, c.format);
    memset(image->data, 0, buffer_bytes(4, 4, c.format));
    EXPECT_EQ(write(c.name, image.get(), &text), c.code) << c.name << " " << c.format;
    EXPECT_EQ(text, c.text);
    Bytes content;
    EXPECT_FALSE(load(c.name, &content)) << c.name;
  }
  Image plain = make_image(4, 4, 0), planeless = make_image(4, 4, 5);
  plain->kind = 4;
  for (zyn_image* image : {static_cast<zyn_image*>(nullptr), plain.get()}) {
    EXPECT_EQ(write(base + ".bmp", image, &text), 1);
    EXPECT_EQ(text, params);
  }
  plain->kind = 8;
  EXPECT_SAYS(zyn_image_write_to_file_with_level(nullptr, plain.get()), 1, params);
  zyn_recreate_image(planeless.get(), 4, 4);
  EXPECT_EQ(write(base + ".bmp", planeless.get(), &text), 1);
  EXPECT_EQ(text, report(kPara, "src/image/zyn_image_color_space.cpp", 106));
}

}  // namespace

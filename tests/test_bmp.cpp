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

void patch(Bytes& file, size_t at, uint32_t value, int count) {
  for (int i = 0; i < count; i++) file[at + size_t(i)] = static_cast<uint8_t>(value >> (8 * i));
}

void put(Bytes& out, uint32_t value, int count) {
  out.resize(out.size() + size_t(count));
  patch(out, out.size() - size_t(count), value, count);
}

void save(const std::string& path, const Bytes& content) {
  remove(path.c_str());  // some systems flush a file that is cut and written again
  FILE* stream = fopen(path.c_str(), "wb");
  fwrite(content.data(), 1, content.size(), stream);
  fclose(stream);
}

// Empty for a file that is not there.
Bytes load(const std::string& path) {
  Bytes content;
  FILE* stream = fopen(path.c_str(), "rb");
  if (!stream) return content;
  content.resize(1 << 20);
  content.resize(fread(content.data(), 1, content.size(), stream));
  fclose(stream);
  return content;
}

// A BMP file from its description: pixel values are given raw, by a function.
struct Bmp {
  int width = 5, height = 3, bits = 24;
  bool top_down = false, gray = false, own = false;  // own: as the library writes it
  uint32_t header = 40, compression = 0, colours = 0, gap = 0, odd = 0;
  bool six = false;  // of bit fields: 5-6-5

  // Raw value of pixel (x, y), y from the top: any value that the depth holds.
  uint32_t raw(int x, int y) const {
    const uint32_t value = static_cast<uint32_t>(x * 2654435761u + y * 40503u * 65537u + 12345u);
    return bits == 32 ? value : value >> 7 & ((1u << bits) - 1);
  }
  uint32_t entries() const { return colours ? colours : 1u << bits; }
  // Palette entry i: blue, green, red; those that the file lacks are black.
  uint8_t entry(uint32_t i, uint32_t c) const {
    if (i >= entries()) return 0;
    return static_cast<uint8_t>(own ? i
                                    : i * 7 + (gray ? 3 : 40 * c) + (odd && i == odd && c == 1));
  }
  static uint8_t widen(uint32_t value, int bits) {
    value &= (1u << bits) - 1;
    return static_cast<uint8_t>(value << (8 - bits) | value >> (2 * bits - 8));
  }
  uint8_t colour(int x, int y, uint32_t c) const {
    const uint32_t v = raw(x, y);
    if (bits <= 8) return entry(v, c);
    if (bits > 16) return static_cast<uint8_t>(v >> (8 * c));
    return widen(v >> (five_six[six][c]), six && c == 1 ? 6 : 5);
  }
  static constexpr int five_six[2][3] = {{0, 5, 10}, {0, 5, 11}};
  // A stored row: values of less than a byte share one, the first in the high bits.
  void row(Bytes& out, int y) const {
    const size_t first = out.size();
    for (int x = 0; x < width; x++)
      if (bits < 8) {
        if (x * bits % 8 == 0) out.push_back(0);
        out.back() = static_cast<uint8_t>(out.back() | raw(x, y) << (8 - bits - x * bits % 8));
      } else {
        put(out, raw(x, y), (bits + 7) / 8);
      }
    while ((out.size() - first) % 4) out.push_back(own ? 0 : 0xAA);
  }
  Bytes file() const {
    Bytes out(14);
    for (uint32_t field : {header, uint32_t(width), uint32_t(top_down ? -height : height)})
      put(out, field, 4);
    put(out, 1, 2);
    put(out, static_cast<uint32_t>(bits), 2);
    // A core header has its fields where a 40-byte header has them; the palette begins at 30.
    if (header != 12) {
      put(out, compression, 4);
      out.resize(46);
      put(out, colours, 4);
      out.resize(std::max(14 + header, compression == 3 ? 66u : 0u));
      const uint32_t masks[2][3] = {{0x7C00, 0x3E0, 0x1F}, {0xF800, 0x7E0, 0x1F}};
      for (uint32_t i = 0; i < 3 && compression == 3; i++) patch(out, 54 + 4 * i, masks[six][i], 4);
    }
    for (uint32_t i = 0; bits <= 8 && i < entries(); i++) {
      for (uint32_t c = 0; c < 3; c++) out.push_back(entry(i, c));
      if (header != 12) out.push_back(own ? 0 : 0xCC);
    }
    out.resize(out.size() + gap, 0xBB);
    patch(out, 10, static_cast<uint32_t>(out.size()), 4);
    for (int r = 0; r < height; r++) row(out, top_down ? r : height - 1 - r);
    patch(out, 0, 0x4D42, 2);
    patch(out, 2, static_cast<uint32_t>(out.size()), 4);
    return out;
  }
};

const std::string& path() {
  static const std::string name = temp_path("back.BMP");
  return name;
}

Image read(const Bytes& content, int mode) {
  save(path(), content);
  Image image(zyn_create_image_from_file(path().c_str(), mode));
  remove(path().c_str());
  return image;
}

void check(const Bmp& bmp) {
  const Bytes file = bmp.file();
  for (int mode : {0, 1, 2, -1}) {
    SCOPED_TRACE(testing::Message() << bmp.bits << " bits " << bmp.width << "x" << bmp.height
                                    << " header " << bmp.header << " mode " << mode);
    Image image = read(file, mode);
    ASSERT_TRUE(image && image->cols == bmp.width && image->rows == bmp.height);
    const bool gray = mode == 1 || (mode == 0 && bmp.gray && !bmp.odd);
    ASSERT_EQ(image->format, gray ? 2u : 0u);
    const PlaneView pixels = plane_of(*image, 0);
    int wrong = 0;
    for (int y = 0; y < bmp.height; y++)
      for (int x = 0; x < bmp.width; x++) {
        const int c[3] = {bmp.colour(x, y, 0), bmp.colour(x, y, 1), bmp.colour(x, y, 2)};
        for (int k = 0; k < 3; k++)
          wrong += gray ? pixels.at(x, y) != (1868 * c[0] + 9617 * c[1] + 4899 * c[2] + 8192) >> 14
                        : pixels.at(x, y, k, 3) != c[k];
      }
    ASSERT_EQ(wrong, 0);
  }
}

std::vector<Bmp> every_kind() {
  std::vector<Bmp> kinds;
  for (int bits : {1, 4, 8, 15, 16, 24, 32})
    for (uint32_t header : {12u, 36u, 40u, 108u})
      for (uint32_t form = 0; form < 6; form++) {
        // Palettes that are short, or longer than pixels can name, where one entry may decide.
        const uint32_t colours[6] = {0, 0, 2u - (bits == 1), 3u - 2 * (bits == 1), 600, 600};
        if (bits > 8 ? header == 12 || form > (bits == 16) : header == 12 && form > 1) continue;
        Bmp bmp;
        bmp.bits = bits, bmp.header = header, bmp.gap = form % 3;
        bmp.gray = bits <= 8 && form != 0 && form != 2;
        bmp.top_down = form % 2 && header != 12;
        bmp.colours = colours[form], bmp.odd = form == 5 ? 299 : 0;
        kinds.push_back(bmp);
        bmp.compression = 3, bmp.six = form;
        if (bits == 16) kinds.push_back(bmp);
      }
  return kinds;
}

TEST(BmpReader, EveryDepthHeaderAndRowOrder) {
  for (Bmp bmp : every_kind())
    for (int width : {1, 7, 8, 33}) {
      bmp.width = width;
      ASSERT_NO_FATAL_FAILURE(check(bmp));
    }
  Bmp large;  // more than is read at once, and a row alone that is
  for (int width : {1003, 30001}) {
    large.width = width;
    large.height = 90000 / width;
    check(large);
  }
}

TEST(BmpReader, CutFilesAreRefusedQuietlyAndHostileFieldsMakeNoPixels) {
  const uint32_t hostile[] = {0, 1, 4, 35, 0x7FFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x55555556};
  const size_t step = sizeof(long) == 4 ? 7 : 1;  // files are slow under emulation
  Capture capture;
  for (const Bmp& kind : every_kind()) {
    Bytes file = kind.file();
    if (file.size() > 130) continue;
    for (size_t at : {10u, 14u, 18u, 22u, 28u, 30u, 46u})
      for (uint32_t value : hostile) {
        Bytes other = file;
        if (at + 4 <= file.size()) patch(other, at, value, at == 28 ? 2 : 4);
        const Image image = read(other, 0);
        EXPECT_LE(image ? size_t(image->rows) * image->cols : 0, 8 * file.size());
      }
    for (; file.size() > step; file.resize(file.size() - step))
      ASSERT_EQ(file == kind.file(), read(file, 0) != nullptr) << kind.bits << " " << file.size();
  }
  EXPECT_EQ(capture.text(), "");
}

TEST(BmpReader, RefusesOtherFilesRunLengthOtherDepthsAndBitFieldsElsewhere) {
  std::vector<Bytes> contents = {{}, {'B'}, {'B', 'M'}, Bytes(99, 'M')};
  Bmp bmp;
  for (int bits : {1, 4, 8, 24, 32, 2, 12})
    for (uint32_t compression : {1u, 2u, 3u, 4u, 0u}) {
      bmp.bits = bits, bmp.compression = compression;
      if (compression || bits == 2 || bits == 12) contents.push_back(bmp.file());
    }
  bmp.bits = 24, bmp.header = 12;  // 24 bits have no place in a core header
  contents.push_back(bmp.file());
  for (const Bytes& content : contents) EXPECT_SAYS(read(content, 0), nullptr, "");
  EXPECT_SAYS(zyn_create_image_from_file(nullptr, 0), nullptr,
              codec_report("file name is null!", 667));
  for (const std::string& name : {temp_path("missing/none.bmp"), temp_path("")})
    EXPECT_SAYS(zyn_create_image_from_file(name.c_str(), 0), nullptr,
                "file name is " + name + "\n" + codec_report("open file error!", 682));
}

int32_t write(const std::string& name, zyn_image* image) {
  return zyn_image_write_to_file_with_level(name.c_str(), image);
}

#ifndef _WIN32  // files with holes, devices behind links, limits
TEST(BmpReader, OnlyWhatTheHeaderAsksForIsRead) {
  Bmp bmp;
  bmp.width = bmp.height = 1;
  for (int64_t pixels : {int64_t{54}, int64_t{0xF0000000}}) {
    Bytes file = bmp.file();
    patch(file, 10, static_cast<uint32_t>(pixels), 4);
    save(path(), file);
    ASSERT_EQ(truncate(path().c_str(), int64_t{1} << 33), 0);
    FailingAllocations large(0, false,
                             {[](size_t n) { return n < 999 ? malloc(n) : nullptr; }, free});
    Image image(zyn_create_image_from_file(path().c_str(), 0));
    ASSERT_TRUE(image);
    for (uint32_t c = 0; c < 3; c++)
      EXPECT_EQ(bytes(image)[c], pixels == 54 ? bmp.colour(0, 0, c) : 0);
  }
  remove(path().c_str());
  // A pipe has no length.
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  FILE* both = fopen(path().c_str(), "r+b");
  fwrite("BM", 1, 2, both);
  fflush(both);
  EXPECT_SAYS(zyn_create_image_from_file(path().c_str(), 0), nullptr, codec_report(kMemory, 183));
  fclose(both);
  remove(path().c_str());
}

TEST(BmpWriter, AFileThatCannotBeWrittenIsRemovedAndADeviceStays) {
  const std::string other = temp_path("other");
  struct stat found;
  for (int size : {3, 300}) {  // noticed at the close, and before
    Picture image(size, size, 0);
    image.clear(1);
    ASSERT_EQ(symlink("/dev/full", path().c_str()), 0);
    EXPECT_SAYS(write(path(), image.get()), 8, "");
    EXPECT_TRUE(lstat(path().c_str(), &found) == 0 && S_ISLNK(found.st_mode));
    EXPECT_TRUE(stat("/dev/full", &found) == 0 && S_ISCHR(found.st_mode));
    remove(path().c_str());
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight = {50, before.rlim_max};
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    for (bool linked : {false, true}) {
      ASSERT_TRUE(!linked || symlink(other.c_str(), path().c_str()) == 0);
      setrlimit(RLIMIT_FSIZE, &tight);
      const int32_t code = write(path(), image.get());
      setrlimit(RLIMIT_FSIZE, &before);
      EXPECT_EQ(code, 8);
      EXPECT_NE(stat(path().c_str(), &found), 0);
      EXPECT_NE(stat(other.c_str(), &found), 0);
      remove(path().c_str());
    }
    signal(SIGXFSZ, handler);
  }
}
#endif

// Every byte of a picture: its place and its colour's.
template <typename Act>
void each_byte(Picture& image, const Bmp& bmp, Act act) {
  const int count = image->format == 2 ? 1 : 3;
  for (int y = 0; y < image->rows; y++)
    for (int x = 0; x < image->cols; x++)
      for (int c = 0; c < count; c++)
        act(image.plane(0).at(x, y, c, count), bmp.colour(x, y, c), bmp.colour(x, y, 2 - c));
}

TEST(BmpWriter, WritesTheStatedBytesAndLeavesAnRgbImageExchangedAsFormat0) {
  const auto written = [](Picture& image) {
    EXPECT_EQ(write(path(), image.get()), 0);
    return load(path());
  };
  for (int width = 1; width < 9; width++) {
    Bmp bmp;
    bmp.width = width, bmp.height = 4, bmp.own = true;
    Picture bgr(width, 4, 0, width % 3), rgb(width, 4, 1, width % 3);
    each_byte(bgr, bmp, [](uint8_t& to, uint8_t same, uint8_t) { to = same; });
    each_byte(rgb, bmp, [](uint8_t& to, uint8_t, uint8_t exchanged) { to = exchanged; });
    for (Picture* image : {&bgr, &rgb}) {
      EXPECT_EQ(written(*image), bmp.file());
      // On purpose: the caller's image.
      EXPECT_EQ((*image)->format, 0u);
      each_byte(*image, bmp, [](uint8_t got, uint8_t same, uint8_t) { EXPECT_EQ(got, same); });
    }
    Picture yuv(width, 4, 5, width % 3), gray(width, 4, 2, width % 3);
    ASSERT_EQ(zyn_image_color_space_convert(bgr.get(), yuv.fill(width).get(), 9), 0);
    EXPECT_EQ(written(yuv), written(bgr));
    bmp.bits = 8;
    each_byte(gray, bmp, [](uint8_t& to, uint8_t same, uint8_t) { to = same; });
    EXPECT_EQ(written(gray), bmp.file());
  }
  remove(path().c_str());
}

TEST(BmpWriter, NamesAndFormatsThatAreRefused) {
  const std::string base = temp_path("refused"), long_name = base + std::string(9000, 'x') + ".bmp";
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
               {long_name, 0, 8, closed}};
  for (const auto& c : cases) {
    Image image = make_image(4, 4, c.format);
    EXPECT_SAYS(write(c.name, image.get()), c.code, c.text) << c.name << " " << c.format;
    EXPECT_TRUE(load(c.name).empty()) << c.name;
  }
  Image plain = make_image(4, 4, 0), planeless = make_image(4, 4, 5);
  EXPECT_SAYS(zyn_image_write_to_file_with_level(nullptr, plain.get()), 1, params);
  plain->kind = 4;
  for (zyn_image* image : {static_cast<zyn_image*>(nullptr), plain.get()})
    EXPECT_SAYS(write(base + ".bmp", image), 1, params);
  zyn_recreate_image(planeless.get(), 4, 4);
  EXPECT_SAYS(write(base + ".bmp", planeless.get()), 1,
              report(kPara, "src/image/zyn_image_color_space.cpp", 106));
}

}  // namespace

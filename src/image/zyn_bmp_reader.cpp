// Reads BMP files: the header, then the palette and the rows that it asks for, a block at
// a time; what else is in the file is not looked at. Nothing in a file is trusted: every
// offset, count and size is checked in 64 bits against the file's length before anything
// is allocated for it, so that a file can claim at most the pixels that it holds.
#include <stdio.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_platform.h"
#include "base/zyn_report.h"
#include "image/zyn_image.h"
#include "image/zyn_image_rows.h"

namespace {

constexpr zyn_site kNoContent{kZynBmpCodecPath, 183, ZYN_MSG_MEMORY};
constexpr zyn_site kNoName{kZynBmpCodecPath, 667, "file name is null!"};
constexpr zyn_site kNoFile{kZynBmpCodecPath, 682, "open file error!"};

constexpr int64_t kFileHeader = 14;
constexpr uint32_t kCoreHeader = 12;
constexpr uint32_t kShortestHeader = 36;  // shorter ones name no size and no depth
constexpr int64_t kCorePalette = 30;
constexpr int64_t kMasks = 54;
constexpr uint32_t kPlain = 0, kBitFields = 3;  // compression
constexpr int32_t kModeKeep = 0, kModeGray = 1;

constexpr int64_t kHeaderBytes = kMasks + 12;  // nothing behind them is a header field
constexpr int64_t kBlockBytes = 1 << 16;       // of rows that are read at once

// A file by its header, zeros where it is shorter, and its length.
struct bmp_file {
  FILE* stream;
  int64_t length;
  uint8_t header[kHeaderBytes];

  bool holds(int64_t offset, int64_t count) const {
    int64_t end = 0;
    return zyn_sum(offset, count, &end) && end <= length;
  }
  bool read(uint8_t* to, int64_t count) const {
    return fread(to, 1, static_cast<size_t>(count), stream) == static_cast<size_t>(count);
  }
  uint32_t u16(int64_t at) const { return header[at] | static_cast<uint32_t>(header[at + 1]) << 8; }
  uint32_t u32(int64_t at) const { return u16(at) | u16(at + 2) << 16; }
  int32_t i32(int64_t at) const { return static_cast<int32_t>(u32(at)); }
};

struct bmp_info {
  int32_t width;
  int32_t height;
  bool top_down;
  uint32_t bits;    // 1, 4, 8, 16, 24 or 32
  bool six_green;   // 16 bits: 5-6-5, else 5-5-5
  int64_t pixels;   // offset of the first stored row
  int64_t stride;   // bytes of a stored row
  int64_t palette;  // offset
  int64_t colours;  // palette entries in the file
  int32_t entry;    // bytes of one of them
};

bool has_palette(uint32_t bits) { return bits == 1 || bits == 4 || bits == 8; }

bool parse_core(const bmp_file& file, bmp_info* info) {
  if (!file.holds(0, kCorePalette)) return false;
  info->bits = file.u16(28);
  info->height = file.i32(22);
  if (info->height < 1 || !has_palette(info->bits)) return false;
  info->palette = kCorePalette;
  info->colours = int64_t{1} << info->bits;
  info->entry = 3;
  return true;
}

bool parse_depth(const bmp_file& file, uint32_t compression, bmp_info* info) {
  switch (info->bits) {
    case 1:
    case 4:
    case 8:
    case 24:
    case 32:
      return compression == kPlain;
    case 15:
      info->bits = 16;
      return compression == kPlain;
    case 16:
      if (compression == kPlain) return true;
      if (compression != kBitFields || !file.holds(kMasks, 12)) return false;
      info->six_green = file.u32(kMasks) != 0x7C00 || file.u32(kMasks + 4) != 0x03E0 ||
                        file.u32(kMasks + 8) != 0x001F;
      return true;
    default:
      return false;
  }
}

bool parse_info(const bmp_file& file, uint32_t header, bmp_info* info) {
  if (header < kShortestHeader || !file.holds(kFileHeader, header)) return false;
  const int64_t height = file.i32(22);
  info->top_down = height < 0;
  if (height == 0 || height == INT32_MIN) return false;
  info->height = static_cast<int32_t>(height < 0 ? -height : height);
  info->bits = file.u16(28);
  if (!parse_depth(file, file.u32(30), info)) return false;
  if (!has_palette(info->bits)) return true;
  const uint32_t used = file.u32(46);
  info->palette = kFileHeader + header;
  info->colours = used ? used : int64_t{1} << info->bits;
  info->entry = 4;
  return true;
}

// Everything that the pixels need, or false for what is damaged or unsupported.
bool parse(const bmp_file& file, bmp_info* info) {
  memset(info, 0, sizeof(*info));
  if (!file.holds(0, kFileHeader + 4)) return false;
  const uint32_t header = file.u32(14);
  if (!(header == kCoreHeader ? parse_core(file, info) : parse_info(file, header, info)))
    return false;
  info->width = file.i32(18);
  info->pixels = file.u32(10);
  if (info->width < 1 || !file.holds(info->palette, info->colours * info->entry)) return false;
  info->stride = ((static_cast<int64_t>(info->bits) * info->width + 7) / 8 + 3) & ~int64_t{3};
  int64_t stored = 0;
  return zyn_multiply(info->stride, info->height, &stored) && file.holds(info->pixels, stored);
}

// The palette as blue, green, red; indices beyond a short one are black.
struct bmp_palette {
  uint8_t colours[256][3];
  bool gray;  // every entry of the file is; false without a palette
};

// False for a file that cannot be read.
bool load_palette(const bmp_file& file, const bmp_info& info, bmp_palette* palette) {
  memset(palette, 0, sizeof(*palette));
  if (!has_palette(info.bits)) return true;
  if (!zyn_platform_seek(file.stream, info.palette)) return false;
  palette->gray = true;
  uint8_t block[256 * 4];
  // Entries that no pixel can name decide about grey too; the first colour ends the search.
  for (int64_t first = 0; first < info.colours && (first == 0 || palette->gray); first += 256) {
    const int64_t count = info.colours - first < 256 ? info.colours - first : 256;
    if (!file.read(block, count * info.entry)) return false;
    for (int64_t i = 0; i < count; i++) {
      const uint8_t* entry = block + i * info.entry;
      if (first == 0) memcpy(palette->colours[i], entry, 3);
      palette->gray = palette->gray && entry[0] == entry[1] && entry[0] == entry[2];
    }
  }
  return true;
}

void indexed_row(uint8_t* out, const uint8_t* stored, const bmp_info& info,
                 const uint8_t palette[256][3]) {
  const uint32_t mask = (1u << info.bits) - 1;
  for (int64_t x = 0; x < info.width; x++, out += 3) {
    const int64_t bit = x * info.bits;
    const uint32_t shift = 8 - info.bits - static_cast<uint32_t>(bit & 7);
    memcpy(out, palette[stored[bit >> 3] >> shift & mask], 3);
  }
}

// Five and six bits become eight by repeating the top ones below.
void packed16_row(uint8_t* out, const uint8_t* stored, const bmp_info& info) {
  for (int64_t x = 0; x < info.width; x++, out += 3) {
    const uint32_t value = stored[2 * x] | static_cast<uint32_t>(stored[2 * x + 1]) << 8;
    const uint32_t blue = value & 31;
    const uint32_t green = info.six_green ? value >> 5 & 63 : value >> 5 & 31;
    const uint32_t red = (info.six_green ? value >> 11 : value >> 10) & 31;
    out[0] = static_cast<uint8_t>(blue << 3 | blue >> 2);
    out[1] =
        static_cast<uint8_t>(info.six_green ? green << 2 | green >> 4 : green << 3 | green >> 2);
    out[2] = static_cast<uint8_t>(red << 3 | red >> 2);
  }
}

// One stored row as blue, green, red.
void colour_row(uint8_t* out, const uint8_t* stored, const bmp_info& info,
                const uint8_t palette[256][3]) {
  switch (info.bits) {
    case 16:
      return packed16_row(out, stored, info);
    case 24:
      memcpy(out, stored, static_cast<size_t>(info.width) * 3);
      return;
    case 32:
      for (int64_t x = 0; x < info.width; x++) memcpy(out + 3 * x, stored + 4 * x, 3);
      return;
    default:
      return indexed_row(out, stored, info, palette);
  }
}

// Stored rows into an image's rows.
class row_decoder {
 public:
  row_decoder(const bmp_info& info, const bmp_palette& palette, bool gray)
      : info_(info),
        palette_(palette),
        gray_(gray),
        colours_(gray && !has_palette(info.bits) ? int64_t{3} * info.width : 1) {
    if (!gray || !has_palette(info.bits)) return;
    // A grey palette gives its values, any other their luma.
    if (palette.gray)
      for (int i = 0; i < 256; i++) shades_[i] = palette.colours[i][0];
    else
      zyn_gray_row(shades_, palette.colours[0], 256);
  }
  explicit operator bool() const { return static_cast<bool>(colours_); }

  void run(uint8_t* out, const uint8_t* stored) const {
    if (!gray_) return colour_row(out, stored, info_, palette_.colours);
    if (has_palette(info_.bits)) return gray_row(out, stored);
    colour_row(colours_.get(), stored, info_, palette_.colours);
    zyn_gray_row(out, colours_.get(), info_.width);
  }

 private:
  void gray_row(uint8_t* out, const uint8_t* stored) const {
    const uint32_t mask = (1u << info_.bits) - 1;
    for (int64_t x = 0; x < info_.width; x++) {
      const int64_t bit = x * info_.bits;
      out[x] = shades_[stored[bit >> 3] >> (8 - info_.bits - (bit & 7)) & mask];
    }
  }

  const bmp_info& info_;
  const bmp_palette& palette_;
  bool gray_;
  zyn_scratch<uint8_t> colours_;  // a row before it becomes grey
  uint8_t shades_[256];
};

// The pixels into image, in blocks of whole rows. False for a file that cannot be read.
bool read_rows(const bmp_file& file, const bmp_info& info, const row_decoder& decoder,
               uint8_t* block, int64_t block_rows, zyn_image* image) {
  if (!zyn_platform_seek(file.stream, info.pixels)) return false;
  const zyn_plane plane = zyn_first_plane(image);
  for (int64_t first = 0; first < info.height; first += block_rows) {
    const int64_t rest = info.height - first, rows = rest < block_rows ? rest : block_rows;
    if (!file.read(block, rows * info.stride)) return false;
    for (int64_t y = first; y < first + rows; y++)
      decoder.run(plane.row(info.top_down ? y : info.height - 1 - y),
                  block + (y - first) * info.stride);
  }
  return true;
}

zyn_image* decode(const bmp_file& file, int32_t mode) {
  bmp_info info;
  bmp_palette palette;
  if (!parse(file, &info) || !load_palette(file, info, &palette)) return nullptr;
  const int64_t fitting = kBlockBytes / info.stride;
  const int64_t block_rows = fitting < 1 ? 1 : fitting < info.height ? fitting : info.height;
  zyn_scratch<uint8_t> block(block_rows * info.stride);
  if (!block) {
    zyn_report(kNoContent);
    return nullptr;
  }
  const bool gray = mode == kModeGray || (mode == kModeKeep && palette.gray);
  const row_decoder decoder(info, palette, gray);
  zyn_matrix_guard image(
      zyn_create_image(info.width, info.height, gray ? ZYN_IMAGE_GRAY : ZYN_IMAGE_BGR));
  if (!image || !decoder || !read_rows(file, info, decoder, block.get(), block_rows, image.get()))
    return nullptr;
  return image.take();
}

zyn_image* read_bmp(FILE* stream, int32_t mode) {
  bmp_file file = {stream, zyn_platform_length(stream), {}};
  if (file.length < 1) {
    zyn_report(kNoContent);
    return nullptr;
  }
  const int64_t header = file.length < kHeaderBytes ? file.length : kHeaderBytes;
  if (!zyn_platform_seek(stream, 0) || !file.read(file.header, header)) return nullptr;
  return decode(file, mode);
}

}  // namespace

zyn_image* zyn_create_image_from_file(const char* file_name, int32_t mode) {
  if (!file_name) {
    zyn_fail_null(kNoName, "the file's name");
    return nullptr;
  }
  FILE* stream = zyn_platform_open(file_name, "rb");
  if (!stream) {
    zyn_print("file name is %s\n", file_name);
    zyn_report(kNoFile);
    zyn_explain("'%s' cannot be opened", file_name);
    return nullptr;
  }
  // PNG and JPEG have signatures of their own, but there is no decoder for them: they
  // end as every other file that is no BMP.
  uint8_t signature[2] = {};
  zyn_image* image = nullptr;
  const bool is_bmp = fread(signature, 1, 2, stream) == 2 && memcmp(signature, "BM", 2) == 0;
  const zyn_explanation_mark mark;
  if (is_bmp) image = read_bmp(stream, mode);
  fclose(stream);
  if (!image && !mark.passed())
    zyn_explain(is_bmp ? "'%s' is cut short, damaged, or coded in a way that is not read: 1, 4, 8, "
                         "16, 24 or 32 bits without compression are"
                       : "'%s' is no BMP file: it does not begin with BM",
                file_name);
  return image;
}

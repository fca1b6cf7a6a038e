// Nearest neighbour, bilinear with 11-bit weights, and the 2:1 mean.
//
// Bilinear runs in two passes that each round to a byte: source rows are scaled
// horizontally into two row buffers, each at most once, and two of them are blended
// into every destination row. Enlargement needs nothing else: its rows find both
// buffers filled.
#include "image/zyn_image_scale.h"

#include <math.h>
#include <string.h>

#include "base/zyn_memory.h"

namespace {

constexpr int32_t kWeightOne = 2048;

// Where an output sample lies between two input samples; weight is the second one's.
struct tap {
  int32_t index;
  int32_t weight;
};

// Single precision as the definition has it. The comparison as floats comes first: it
// keeps the conversion to an integer in range.
tap bilinear_tap(int32_t i, float scale, int32_t length) {
  const float position = (static_cast<float>(i) + 0.5f) * scale - 0.5f;
  const float whole = floorf(position);
  if (whole < 0.0f) return {0, 0};
  if (whole >= static_cast<float>(length - 1)) return {length - 1, 0};
  const auto index = static_cast<int32_t>(whole);
  return {index, static_cast<int32_t>((position - whole) * static_cast<float>(kWeightOne))};
}

int32_t nearest_index(int32_t i, float scale, int32_t length) {
  const float position = floorf(static_cast<float>(i) * scale);
  return position >= static_cast<float>(length - 1) ? length - 1 : static_cast<int32_t>(position);
}

float scale_of(int32_t source, int32_t destination) {
  return static_cast<float>(source) / static_cast<float>(destination);
}

uint8_t blend(int32_t first, int32_t second, int32_t weight) {
  return static_cast<uint8_t>((first * kWeightOne + (second - first) * weight + 1024) >> 11);
}

void scale_row(uint8_t* out, const uint8_t* row, const tap* taps, int32_t count, int32_t channels,
               int32_t last) {
  for (int32_t i = 0; i < count; i++) {
    const uint8_t* first = row + static_cast<int64_t>(taps[i].index) * channels;
    const uint8_t* second = taps[i].index < last ? first + channels : first;
    for (int32_t c = 0; c < channels; c++) *out++ = blend(first[c], second[c], taps[i].weight);
  }
}

void blend_rows(uint8_t* out, const uint8_t* top, const uint8_t* bottom, int32_t weight,
                int64_t count) {
  for (int64_t i = 0; i < count; i++) out[i] = blend(top[i], bottom[i], weight);
}

// Two scaled source rows, by the source row that they come from.
class row_pair {
 public:
  row_pair(uint8_t* first, uint8_t* second) : rows_{first, second} {}
  // The scaled row y, made where it is not there; the slot of keep stays.
  template <typename Make>
  const uint8_t* get(int32_t y, int32_t keep, Make make) {
    for (int slot = 0; slot < 2; slot++)
      if (held_[slot] == y) return rows_[slot];
    const int slot = held_[0] == keep ? 1 : 0;
    held_[slot] = y;
    make(rows_[slot], y);
    return rows_[slot];
  }

 private:
  uint8_t* rows_[2];
  int32_t held_[2] = {-1, -1};
};

}  // namespace

int32_t zyn_scale_nearest(const zyn_plane& destination, const zyn_plane& source, int32_t channels) {
  zyn_scratch<int64_t> offsets(destination.width);
  if (!offsets) return ZYN_RET_ERR_MEMORY;
  const float scale_x = scale_of(source.width, destination.width);
  const float scale_y = scale_of(source.height, destination.height);
  for (int32_t i = 0; i < destination.width; i++)
    offsets[i] = static_cast<int64_t>(nearest_index(i, scale_x, source.width)) * channels;
  for (int32_t y = 0; y < destination.height; y++) {
    const uint8_t* row = source.row(nearest_index(y, scale_y, source.height));
    uint8_t* out = destination.row(y);
    for (int32_t i = 0; i < destination.width; i++)
      for (int32_t c = 0; c < channels; c++) *out++ = row[offsets[i] + c];
  }
  return ZYN_RET_OK;
}

int32_t zyn_scale_bilinear(const zyn_plane& destination, const zyn_plane& source,
                           int32_t channels) {
  const int64_t samples = static_cast<int64_t>(destination.width) * channels;
  zyn_scratch<tap> taps(destination.width);
  zyn_scratch<uint8_t> buffer(2 * samples);
  if (!taps || !buffer) return ZYN_RET_ERR_MEMORY;
  const float scale_x = scale_of(source.width, destination.width);
  const float scale_y = scale_of(source.height, destination.height);
  for (int32_t i = 0; i < destination.width; i++) taps[i] = bilinear_tap(i, scale_x, source.width);
  row_pair rows(buffer.get(), buffer.get() + samples);
  const auto make = [&](uint8_t* out, int32_t y) {
    scale_row(out, source.row(y), taps.get(), destination.width, channels, source.width - 1);
  };
  for (int32_t y = 0; y < destination.height; y++) {
    const tap at = bilinear_tap(y, scale_y, source.height);
    const int32_t next = at.weight ? at.index + 1 : at.index;
    const uint8_t* top = rows.get(at.index, next, make);
    const uint8_t* bottom = rows.get(next, at.index, make);
    blend_rows(destination.row(y), top, bottom, at.weight, samples);
  }
  return ZYN_RET_OK;
}

void zyn_scale_half(const zyn_plane& destination, const zyn_plane& source, int32_t channels) {
  for (int32_t y = 0; y < destination.height; y++) {
    const uint8_t* upper = source.row(2 * static_cast<int64_t>(y));
    const uint8_t* lower = source.row(2 * static_cast<int64_t>(y) + 1);
    uint8_t* out = destination.row(y);
    for (int32_t i = 0; i < destination.width; i++, upper += 2 * channels, lower += 2 * channels)
      for (int32_t c = 0; c < channels; c++)
        *out++ = static_cast<uint8_t>(
            (upper[c] + upper[c + channels] + lower[c] + lower[c + channels] + 2) >> 2);
  }
}

// Nearest neighbour, bilinear with 11-bit weights, and the 2:1 mean.
//
// Bilinear runs in two passes that each round to a byte: source rows are scaled
// horizontally into two row buffers, each at most once, and two of them are blended
// into every destination row. Enlargement needs nothing else: its rows find both
// buffers filled. (a * 2048 + (b - a) * w + 1024) >> 11 is a plus the rounded
// product of b - a and w * 16 in 15-bit fixed point, one instruction, and b - a is
// one multiplication of the byte pair (a, b) by (-1, 1).
#include "image/zyn_image_scale.h"

#include <math.h>
#include <string.h>

#include "image/zyn_image_gather.h"
#include "image/zyn_image_simd.h"

namespace {

constexpr int32_t kWeightOne = 2048;
constexpr int kRowBlock = 32;  // row buffers are whole blocks

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

int64_t whole_blocks(int64_t samples) { return (samples + kRowBlock - 1) / kRowBlock * kRowBlock; }

// 16 blends of byte pairs; weights are times 16.
inline __m256i blend16(__m256i pairs, __m256i weights) {
  const __m256i first = _mm256_and_si256(pairs, _mm256_set1_epi16(255));
  const __m256i difference = _mm256_maddubs_epi16(pairs, _mm256_set1_epi16(0x01FF));
  return _mm256_add_epi16(first, _mm256_mulhrs_epi16(difference, weights));
}

// The horizontal pass: for each output sample the offsets of its two input samples and
// the weight of the second. Whole blocks of outputs, of which those past the last
// sample mean nothing.
class row_scaler {
 public:
  row_scaler(int32_t from, int32_t to, int32_t channels)
      : samples_(static_cast<int64_t>(to) * channels),
        offsets_(2 * samples_),
        weights_(zyn_scratch<int16_t>::zeroed(whole_blocks(samples_))) {
    if (!offsets_ || !weights_) return;
    const float scale = scale_of(from, to);
    int64_t sample = 0;
    for (int32_t i = 0; i < to; i++) {
      const tap at = bilinear_tap(i, scale, from);
      for (int32_t c = 0; c < channels; c++, sample++) {
        const int64_t first = static_cast<int64_t>(at.index) * channels + c;
        offsets_[2 * sample] = first;
        offsets_[2 * sample + 1] = at.weight ? first + channels : first;
        weights_[sample] = static_cast<int16_t>(at.weight * 16);
      }
    }
    ready_ = gather_.plan(offsets_.get(), 2 * samples_, static_cast<int64_t>(from) * channels,
                          zyn_gather_order::for_packing);
  }
  explicit operator bool() const { return ready_; }

  void run(uint8_t* out, const uint8_t* row) const {
    switch (gather_.parts()) {
      case 1:
        return gathered<1>(out, row);
      case 2:
        return gathered<2>(out, row);
      case 3:
        return gathered<3>(out, row);
      case 4:
        return gathered<4>(out, row);
      default:
        return one_by_one(out, row);
    }
  }

 private:
  template <int Parts>
  void gathered(uint8_t* out, const uint8_t* row) const {
    // The weights lie in sample order; vectors hold groups of 8 in the order 0 2, 1 3.
    const auto weights = [](const int16_t* w) {
      return _mm256_inserti128_si256(
          _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(w))),
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(w + 16)), 1);
    };
    const int16_t* w = weights_.get();
    for (int64_t v = 0; v < gather_.vectors(); v += 2, out += kRowBlock, w += kRowBlock) {
      const __m256i first = blend16(gather_.pick<Parts>(row, v), weights(w));
      const __m256i second = blend16(gather_.pick<Parts>(row, v + 1), weights(w + 8));
      zyn_store(out, _mm256_packus_epi16(first, second));
    }
  }
  void one_by_one(uint8_t* out, const uint8_t* row) const {
    for (int64_t s = 0; s < samples_; s++) {
      const int32_t first = row[offsets_[2 * s]], second = row[offsets_[2 * s + 1]];
      out[s] = static_cast<uint8_t>(first + (((second - first) * weights_[s] + (1 << 14)) >> 15));
    }
  }

  int64_t samples_;
  zyn_scratch<int64_t> offsets_;
  zyn_scratch<int16_t> weights_;
  zyn_gather gather_;
  bool ready_ = false;
};

// top and bottom are whole blocks.
void blend_rows(uint8_t* out, const uint8_t* top, const uint8_t* bottom, int32_t weight,
                int64_t count) {
  const __m256i weights = _mm256_set1_epi16(static_cast<int16_t>(weight * 16));
  const auto block = [&](int64_t i) {
    const __m256i a = zyn_load(top + i), b = zyn_load(bottom + i);
    return _mm256_packus_epi16(blend16(_mm256_unpacklo_epi8(a, b), weights),
                               blend16(_mm256_unpackhi_epi8(a, b), weights));
  };
  int64_t i = 0;
  for (; i + kRowBlock <= count; i += kRowBlock) zyn_store(out + i, block(i));
  if (i >= count) return;
  alignas(32) uint8_t rest[kRowBlock];
  zyn_store(rest, block(i));
  memcpy(out + i, rest, static_cast<size_t>(count - i));
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

template <int Parts>
void pick_row(uint8_t* out, const uint8_t* row, const zyn_gather& gather, int64_t count) {
  int64_t i = 0;
  for (; i + 32 <= count; i += 32) zyn_store(out + i, gather.pick<Parts>(row, i / 32));
  if (i >= count) return;
  alignas(32) uint8_t rest[32];
  zyn_store(rest, gather.pick<Parts>(row, i / 32));
  memcpy(out + i, rest, static_cast<size_t>(count - i));
}

void nearest_row(uint8_t* out, const uint8_t* row, const zyn_gather& gather, const int64_t* offsets,
                 int64_t count) {
  switch (gather.parts()) {
    case 1:
      return pick_row<1>(out, row, gather, count);
    case 2:
      return pick_row<2>(out, row, gather, count);
    case 3:
      return pick_row<3>(out, row, gather, count);
    case 4:
      return pick_row<4>(out, row, gather, count);
    default:
      for (int64_t i = 0; i < count; i++) out[i] = row[offsets[i]];
  }
}

// Rounded means of four from sums of four.
inline __m256i quarter(__m256i sums) {
  return _mm256_mulhrs_epi16(sums, _mm256_set1_epi16(1 << 13));  // (sum + 2) >> 2
}

// 32 samples from 64 of both rows.
inline void half_block1(uint8_t* out, const uint8_t* upper, const uint8_t* lower) {
  const __m256i ones = _mm256_set1_epi8(1);
  const auto means = [&](int at) {
    return quarter(_mm256_add_epi16(_mm256_maddubs_epi16(zyn_load(upper + at), ones),
                                    _mm256_maddubs_epi16(zyn_load(lower + at), ones)));
  };
  zyn_store(out, _mm256_permute4x64_epi64(_mm256_packus_epi16(means(0), means(32)),
                                          _MM_SHUFFLE(3, 1, 2, 0)));
}

// 16 pixels from 32 of both rows.
inline void half_block3(uint8_t* out, const uint8_t* upper, const uint8_t* lower) {
  const __m256i m0 =
      quarter(_mm256_add_epi16(zyn_neighbour_sums<0>(upper), zyn_neighbour_sums<0>(lower)));
  const __m256i m1 =
      quarter(_mm256_add_epi16(zyn_neighbour_sums<1>(upper), zyn_neighbour_sums<1>(lower)));
  const __m256i m2 =
      quarter(_mm256_add_epi16(zyn_neighbour_sums<2>(upper), zyn_neighbour_sums<2>(lower)));
  const __m256i m3 =
      quarter(_mm256_add_epi16(zyn_neighbour_sums<3>(upper), zyn_neighbour_sums<3>(lower)));
  // Packed, a lane has four pixels of three bytes and a zero; two such lanes become 24
  // bytes.
  static constexpr zyn_shuffle kFirst =
      zyn_make_shuffle([](int i) { return i < 12 ? i + i / 3 : -1; });
  static constexpr zyn_shuffle kMiddle =
      zyn_make_shuffle([](int i) { return i < 12 ? -1 : i - 12 + (i - 12) / 3; });
  static constexpr zyn_shuffle kLast =
      zyn_make_shuffle([](int i) { return i < 8 ? i + 4 + (i + 4) / 3 : -1; });
  const __m256i early = _mm256_packus_epi16(m0, m1), late = _mm256_packus_epi16(m2, m3);
  const __m256i low = _mm256_or_si256(zyn_shuffled(early, kFirst), zyn_shuffled(late, kMiddle));
  const __m256i high = zyn_shuffled(late, kLast);
  const auto store16 = [&](int at, __m128i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), v);
  };
  const auto store8 = [&](int at, __m128i v) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + at), v);
  };
  store16(0, _mm256_castsi256_si128(low));
  store8(16, _mm256_castsi256_si128(high));
  store16(24, _mm256_extracti128_si256(low, 1));
  store8(40, _mm256_extracti128_si256(high, 1));
}

// Samples samples of a row, Block of them at a time from twice as many of both rows.
template <int Block, typename Function>
void half_row(uint8_t* out, const uint8_t* upper, const uint8_t* lower, int64_t samples,
              Function block) {
  for (; samples >= Block; samples -= Block) {
    zyn_ask_ahead<2 * Block>(upper + kZynReadAhead);
    zyn_ask_ahead<2 * Block>(lower + kZynReadAhead);
    zyn_ask_ahead<Block>(out + kZynWriteAhead);
    block(out, upper, lower);
    out += Block;
    upper += 2 * Block;
    lower += 2 * Block;
  }
  if (samples <= 0) return;
  alignas(32) uint8_t rows[2][2 * Block] = {}, rest[Block];
  memcpy(rows[0], upper, static_cast<size_t>(2 * samples));
  memcpy(rows[1], lower, static_cast<size_t>(2 * samples));
  block(rest, rows[0], rows[1]);
  memcpy(out, rest, static_cast<size_t>(samples));
}

}  // namespace

int32_t zyn_scale_nearest(const zyn_plane& destination, const zyn_plane& source, int32_t channels) {
  const int64_t samples = static_cast<int64_t>(destination.width) * channels;
  zyn_scratch<int64_t> offsets(samples);
  if (!offsets) return ZYN_RET_ERR_MEMORY;
  const float scale_x = scale_of(source.width, destination.width);
  const float scale_y = scale_of(source.height, destination.height);
  for (int32_t i = 0; i < destination.width; i++)
    for (int32_t c = 0; c < channels; c++)
      offsets[static_cast<int64_t>(i) * channels + c] =
          static_cast<int64_t>(nearest_index(i, scale_x, source.width)) * channels + c;
  zyn_gather gather;
  if (!gather.plan(offsets.get(), samples, static_cast<int64_t>(source.width) * channels,
                   zyn_gather_order::straight))
    return ZYN_RET_ERR_MEMORY;
  int32_t before = -1;
  for (int32_t y = 0; y < destination.height; y++) {
    const int32_t from = nearest_index(y, scale_y, source.height);
    if (from == before)
      memcpy(destination.row(y), destination.row(y - 1), static_cast<size_t>(samples));
    else
      nearest_row(destination.row(y), source.row(from), gather, offsets.get(), samples);
    before = from;
  }
  return ZYN_RET_OK;
}

int32_t zyn_scale_bilinear(const zyn_plane& destination, const zyn_plane& source,
                           int32_t channels) {
  const int64_t samples = static_cast<int64_t>(destination.width) * channels;
  const int64_t pitch = whole_blocks(samples);
  const row_scaler scaler(source.width, destination.width, channels);
  zyn_scratch<uint8_t> buffer(2 * pitch);
  if (!scaler || !buffer) return ZYN_RET_ERR_MEMORY;
  const float scale_y = scale_of(source.height, destination.height);
  row_pair rows(buffer.get(), buffer.get() + pitch);
  const auto make = [&](uint8_t* out, int32_t y) { scaler.run(out, source.row(y)); };
  for (int32_t y = 0; y < destination.height; y++) {
    const tap at = bilinear_tap(y, scale_y, source.height);
    const int32_t next = at.weight ? at.index + 1 : at.index;
    const uint8_t* top = rows.get(at.index, next, make);
    if (!at.weight) {
      memcpy(destination.row(y), top, static_cast<size_t>(samples));
      continue;
    }
    blend_rows(destination.row(y), top, rows.get(next, at.index, make), at.weight, samples);
  }
  return ZYN_RET_OK;
}

void zyn_scale_half(const zyn_plane& destination, const zyn_plane& source, int32_t channels) {
  const int64_t samples = static_cast<int64_t>(destination.width) * channels;
  for (int32_t y = 0; y < destination.height; y++) {
    const uint8_t* upper = source.row(2 * static_cast<int64_t>(y));
    const uint8_t* lower = source.row(2 * static_cast<int64_t>(y) + 1);
    if (channels == 1)
      half_row<32>(destination.row(y), upper, lower, samples, half_block1);
    else
      half_row<48>(destination.row(y), upper, lower, samples, half_block3);
  }
}

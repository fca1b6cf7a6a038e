// Rows of pixel arithmetic in blocks of 32 pixels. A block function reads and writes
// exactly its block, everything read before anything is written; what remains of a
// row goes through a block on the stack.
//
// The weighted sums are exact in 16 bits: a weight w is split into 128 h + l with
// bytes h and l, multiplied by pairs of samples, and (128 H + L) >> s becomes
// (H + (L >> 7)) >> (s - 7), which loses nothing because shifts round down.
#include "image/zyn_image_rows.h"

#include <string.h>

#include "image/zyn_image_simd.h"

namespace {

// block(out, in) for every 32 pixels of InBytes and OutBytes.
template <int InBytes, int OutBytes, typename Block>
inline void each_block(uint8_t* out, const uint8_t* in, int64_t count, Block block) {
  for (; count >= kZynBlock; count -= kZynBlock) {
    zyn_ask_ahead<kZynBlock * InBytes>(in + kZynReadAhead);
    zyn_ask_ahead<kZynBlock * OutBytes>(out + kZynWriteAhead);
    block(out, in);
    in += kZynBlock * InBytes;
    out += kZynBlock * OutBytes;
  }
  if (count <= 0) return;
  alignas(32) uint8_t from[kZynBlock * InBytes] = {}, to[kZynBlock * OutBytes];
  memcpy(from, in, static_cast<size_t>(count * InBytes));
  block(to, from);
  memcpy(out, to, static_cast<size_t>(count * OutBytes));
}

// Two bytes, the first one in the low half, in every 16-bit lane.
inline __m256i byte_pairs(int first, int second) {
  return _mm256_set1_epi16(static_cast<int16_t>((first & 255) | (second & 255) << 8));
}

// Sample pairs (blue, green) and (red, green) of 16 pixels.
struct pixel_pairs {
  __m256i blue_green, red_green;
};

// Four pixels that begin skip bytes into a lane: low half (blue, green) pairs, high
// half (red, green) pairs.
template <int skip>
inline __m256i pair_halves(__m256i v) {
  static constexpr zyn_shuffle kOrder = zyn_make_shuffle([](int i) {
    return skip + 3 * (i % 8 / 2) + (i & 1 ? 1 : i < 8 ? 0 : 2);
  });
  return zyn_shuffled(v, kOrder);
}

// Pixels 8 n to 8 n + 7 of both halves of the block at p.
template <int n>
inline pixel_pairs load_pairs(const uint8_t* p) {
  // The last four pixels are loaded 4 bytes early to stay inside the block.
  constexpr int early = n == 1 ? 4 : 0;
  const __m256i a = pair_halves<0>(zyn_load_lanes(p + 24 * n));
  const __m256i b = pair_halves<early>(zyn_load_lanes(p + 24 * n + 12 - early));
  return {_mm256_unpacklo_epi64(a, b), _mm256_unpackhi_epi64(a, b)};
}

// High and low parts of a sum of weights: bytes for blue, green (with blue), red, green
// (with red).
struct weights {
  int high[4], low[4];
};
inline __m256i pair_sum(const pixel_pairs& pixels, const int w[4]) {
  return _mm256_add_epi16(_mm256_maddubs_epi16(pixels.blue_green, byte_pairs(w[0], w[1])),
                          _mm256_maddubs_epi16(pixels.red_green, byte_pairs(w[2], w[3])));
}

// 1868 B + 9617 G + 4899 R. The high sum stays below 2^15.
constexpr weights kGray = {{14, 75, 38, 0}, {76, 17, 35, 0}};
// 3211 B + 16515 G + 8421 R. Green's 129 is shared between the pairs; the high sum needs
// all 16 bits, unsigned.
constexpr weights kLuma = {{25, 66, 65, 63}, {11, 3, 101, 0}};

inline __m256i gray16(const pixel_pairs& pixels) {
  const __m256i sum = _mm256_add_epi16(pair_sum(pixels, kGray.high),
                                       _mm256_srli_epi16(pair_sum(pixels, kGray.low), 7));
  // (sum + 64) >> 7
  return _mm256_mulhrs_epi16(sum, _mm256_set1_epi16(256));
}

inline __m256i luma16(const pixel_pairs& pixels) {
  const __m256i sum = _mm256_add_epi16(pair_sum(pixels, kLuma.high),
                                       _mm256_srli_epi16(pair_sum(pixels, kLuma.low), 7));
  // ((sum + 128) >> 8) + 16
  return _mm256_srli_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(128 + 16 * 256)), 8);
}

inline __m256i gray_block(const uint8_t* bgr) {
  return _mm256_packus_epi16(gray16(load_pairs<0>(bgr)), gray16(load_pairs<1>(bgr)));
}

inline __m256i luma_block(const uint8_t* bgr) {
  return _mm256_packus_epi16(luma16(load_pairs<0>(bgr)), luma16(load_pairs<1>(bgr)));
}

// Weights of blue, green, red for each group of four 16-bit values.
inline __m256i bgr_weights(int blue, int green, int red) {
  const auto word = [](int value) { return static_cast<int16_t>(value); };
  return _mm256_setr_epi16(word(blue), word(green), word(red), 0, word(blue), word(green),
                           word(red), 0, word(blue), word(green), word(red), 0, word(blue),
                           word(green), word(red), 0);
}

// Chroma 2 n and 2 n + 1 of both halves: u, u, v, v in each lane.
template <int n>
inline __m256i chroma32(const uint8_t* upper, const uint8_t* lower) {
  const __m256i sum = _mm256_add_epi16(zyn_neighbour_sums<n>(upper), zyn_neighbour_sums<n>(lower));
  const __m256i mean = _mm256_mulhrs_epi16(sum, _mm256_set1_epi16(1 << 13));  // (sum + 2) >> 2
  const __m256i both =
      _mm256_hadd_epi32(_mm256_madd_epi16(mean, bgr_weights(14385, -9535, -4850)),
                        _mm256_madd_epi16(mean, bgr_weights(-2327, -12059, 14385)));
  return _mm256_srai_epi32(_mm256_add_epi32(both, _mm256_set1_epi32(16384 + (128 << 15))), 15);
}

// 16 values each of u (low lane) and v (high lane).
inline __m256i chroma_block(const uint8_t* upper, const uint8_t* lower) {
  static constexpr zyn_shuffle kOrder =
      zyn_make_shuffle([](int i) { return 4 * (i % 8 / 2) + 2 * (i / 8) + (i & 1); });
  const __m256i first = _mm256_packs_epi32(chroma32<0>(upper, lower), chroma32<1>(upper, lower));
  const __m256i second = _mm256_packs_epi32(chroma32<2>(upper, lower), chroma32<3>(upper, lower));
  return _mm256_permute4x64_epi64(zyn_shuffled(_mm256_packus_epi16(first, second), kOrder),
                                  _MM_SHUFFLE(3, 1, 2, 0));
}

// From YUV: 8 times a sum is kept as two 16-bit halves, and only the high half of the
// total is wanted: the high halves added, and one more where the low halves carry.
// The carry is a signed comparison: the luma's low half, which takes the rounding
// constant 8 * 4096 as a flipped top bit, against the complement of the other.

// 8 * (sample - zero) for samples in the low bytes and one constant byte above:
// zero = 128 / 8 * constant.
inline __m256i times_eight(__m256i samples) {
  return _mm256_maddubs_epi16(samples, byte_pairs(8, -128));
}

struct yuv_luma {
  __m256i high, low;
};
inline yuv_luma luma_terms(__m256i samples) {
  const __m256i y = times_eight(samples), weight = _mm256_set1_epi16(9535);
  const __m256i low = _mm256_mullo_epi16(y, weight);
  return {_mm256_add_epi16(_mm256_mulhi_epi16(y, weight), _mm256_srli_epi16(low, 15)), low};
}

struct chroma_term {
  __m256i high, threshold;
};
inline chroma_term term_of(__m256i high, __m256i low) {
  return {high, _mm256_xor_si256(low, _mm256_set1_epi16(0x7FFF))};
}
inline chroma_term one_weight(__m256i chroma, int weight) {
  const __m256i w = _mm256_set1_epi16(static_cast<int16_t>(weight));
  return term_of(_mm256_mulhi_epi16(chroma, w), _mm256_mullo_epi16(chroma, w));
}
inline chroma_term two_weights(__m256i v, __m256i u) {
  const __m256i wv = _mm256_set1_epi16(-6660), wu = _mm256_set1_epi16(-3203);
  const __m256i low_v = _mm256_mullo_epi16(v, wv), low_u = _mm256_mullo_epi16(u, wu);
  const __m256i low = _mm256_add_epi16(low_v, low_u);
  // -1 where the low halves do not carry.
  const __m256i none = _mm256_cmpeq_epi16(low, _mm256_adds_epu16(low_v, low_u));
  const __m256i high = _mm256_add_epi16(_mm256_mulhi_epi16(v, wv), _mm256_mulhi_epi16(u, wu));
  return term_of(_mm256_add_epi16(_mm256_add_epi16(high, none), _mm256_set1_epi16(1)), low);
}

// 32 bytes of one channel of one row: each chroma value serves two pixels.
inline __m256i yuv_channel(const yuv_luma luma[2], const chroma_term& chroma) {
  const auto half = [](const yuv_luma& y, __m256i high, __m256i threshold) {
    return _mm256_sub_epi16(_mm256_add_epi16(y.high, high), _mm256_cmpgt_epi16(y.low, threshold));
  };
  return _mm256_packus_epi16(half(luma[0], _mm256_unpacklo_epi16(chroma.high, chroma.high),
                                  _mm256_unpacklo_epi16(chroma.threshold, chroma.threshold)),
                             half(luma[1], _mm256_unpackhi_epi16(chroma.high, chroma.high),
                                  _mm256_unpackhi_epi16(chroma.threshold, chroma.threshold)));
}

inline void yuv_block(uint8_t* bgr, const uint8_t* luma, const chroma_term channels[3]) {
  const __m256i y = zyn_load(luma), one = _mm256_set1_epi8(1);
  const yuv_luma terms[2] = {luma_terms(_mm256_unpacklo_epi8(y, one)),
                             luma_terms(_mm256_unpackhi_epi8(y, one))};
  zyn_store_block(bgr,
                  zyn_interleave(yuv_channel(terms, channels[0]), yuv_channel(terms, channels[1]),
                                 yuv_channel(terms, channels[2])));
}

inline void yuv_block_pair(uint8_t* upper, uint8_t* lower, const uint8_t* y0, const uint8_t* y1,
                           const uint8_t* u, const uint8_t* v) {
  const auto centred = [](const uint8_t* samples) {
    const __m256i words =
        _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(samples)));
    return times_eight(_mm256_or_si256(words, byte_pairs(0, 8)));
  };
  const __m256i cu = centred(u), cv = centred(v);
  const chroma_term channels[3] = {one_weight(cu, 16531), two_weights(cv, cu),
                                   one_weight(cv, 13074)};
  yuv_block(upper, y0, channels);
  yuv_block(lower, y1, channels);
}

template <int part, int from>
inline __m256i exchange_from(const zyn_packed_block& block) {
  static constexpr zyn_shuffle kOrder = zyn_make_shuffle([](int i) {
    const int at = 16 * part + i;
    return at + 2 - 2 * (at % 3) - 16 * from;
  });
  return zyn_shuffled(block.part[from], kOrder);
}

inline void exchange_block(uint8_t* out, const uint8_t* in) {
  const zyn_packed_block b = zyn_load_block(in);
  zyn_store_block(out,
                  {{_mm256_or_si256(exchange_from<0, 0>(b), exchange_from<0, 1>(b)),
                    _mm256_or_si256(_mm256_or_si256(exchange_from<1, 0>(b), exchange_from<1, 1>(b)),
                                    exchange_from<1, 2>(b)),
                    _mm256_or_si256(exchange_from<2, 1>(b), exchange_from<2, 2>(b))}});
}

inline uint8_t clamp_byte(int32_t value) {
  return static_cast<uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
}

}  // namespace

void zyn_gray_row(uint8_t* gray, const uint8_t* bgr, int64_t count) {
  each_block<3, 1>(gray, bgr, count,
                   [](uint8_t* out, const uint8_t* in) { zyn_store(out, gray_block(in)); });
}

void zyn_gray3_row(uint8_t* gray, const uint8_t* bgr, int64_t count) {
  each_block<3, 3>(gray, bgr, count, [](uint8_t* out, const uint8_t* in) {
    const __m256i value = gray_block(in);
    zyn_store_block(out, zyn_interleave(value, value, value));
  });
}

void zyn_swap3_row(uint8_t* destination, const uint8_t* source, int64_t count) {
  each_block<3, 3>(destination, source, count, exchange_block);
}

void zyn_swap4_row(uint8_t* destination, const uint8_t* source, int64_t count) {
  static constexpr zyn_shuffle kOrder = zyn_make_shuffle([](int i) { return i & 1 ? i : i ^ 2; });
  each_block<4, 4>(destination, source, count, [](uint8_t* out, const uint8_t* in) {
    for (int i = 0; i < 4 * kZynBlock; i += 32)
      zyn_store(out + i, zyn_shuffled(zyn_load(in + i), kOrder));
  });
}

void zyn_swap48_row(uint8_t* destination, const uint8_t* source, int64_t count) {
  for (int64_t i = 0; i < 6 * count; i += 6) {
    uint16_t pixel[3];
    memcpy(pixel, source + i, 6);
    const uint16_t exchanged[3] = {pixel[2], pixel[1], pixel[0]};
    memcpy(destination + i, exchanged, 6);
  }
}

void zyn_split_row(uint8_t* p0, uint8_t* p1, uint8_t* p2, const uint8_t* packed, int64_t count) {
  int64_t i = 0;
  for (; i + kZynBlock <= count; i += kZynBlock) {
    uint8_t* const planes[] = {p0, p1, p2};
    for (const uint8_t* plane : planes) zyn_ask_ahead<kZynBlock>(plane + i + kZynWriteAhead);
    const zyn_packed_block block = zyn_load_block(packed + 3 * i);
    zyn_store(p0 + i, zyn_channel<0>(block));
    zyn_store(p1 + i, zyn_channel<1>(block));
    zyn_store(p2 + i, zyn_channel<2>(block));
  }
  for (; i < count; i++) {
    p0[i] = packed[3 * i];
    p1[i] = packed[3 * i + 1];
    p2[i] = packed[3 * i + 2];
  }
}

void zyn_merge_row(uint8_t* packed, const uint8_t* p0, const uint8_t* p1, const uint8_t* p2,
                   int64_t count) {
  int64_t i = 0;
  for (; i + kZynBlock <= count; i += kZynBlock) {
    zyn_ask_ahead<3 * kZynBlock>(packed + 3 * i + kZynWriteAhead);
    zyn_store_block(packed + 3 * i,
                    zyn_interleave(zyn_load(p0 + i), zyn_load(p1 + i), zyn_load(p2 + i)));
  }
  for (; i < count; i++) {
    packed[3 * i] = p0[i];
    packed[3 * i + 1] = p1[i];
    packed[3 * i + 2] = p2[i];
  }
}

void zyn_luma_row(uint8_t* luma, const uint8_t* bgr, int64_t count) {
  each_block<3, 1>(luma, bgr, count,
                   [](uint8_t* out, const uint8_t* in) { zyn_store(out, luma_block(in)); });
}

void zyn_chroma_row(uint8_t* u, uint8_t* v, const uint8_t* upper, const uint8_t* lower,
                    int64_t count) {
  constexpr int block = kZynBlock / 2;
  const auto store = [](uint8_t* to_u, uint8_t* to_v, __m256i chroma) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to_u), _mm256_castsi256_si128(chroma));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to_v), _mm256_extracti128_si256(chroma, 1));
  };
  int64_t i = 0;
  for (; i + block <= count; i += block)
    store(u + i, v + i, chroma_block(upper + 6 * i, lower + 6 * i));
  if (i >= count) return;
  alignas(32) uint8_t rows[2][3 * kZynBlock] = {}, out[2][block];
  const auto rest = static_cast<size_t>(count - i);
  memcpy(rows[0], upper + 6 * i, 6 * rest);
  memcpy(rows[1], lower + 6 * i, 6 * rest);
  store(out[0], out[1], chroma_block(rows[0], rows[1]));
  memcpy(u + i, out[0], rest);
  memcpy(v + i, out[1], rest);
}

void zyn_yuv_to_bgr_rows(uint8_t* upper, uint8_t* lower, const uint8_t* y0, const uint8_t* y1,
                         const uint8_t* u, const uint8_t* v, int64_t count) {
  int64_t i = 0;
  for (; i + kZynBlock <= count; i += kZynBlock)
    yuv_block_pair(upper + 3 * i, lower + 3 * i, y0 + i, y1 + i, u + i / 2, v + i / 2);
  if (i >= count) return;
  alignas(32) uint8_t luma[2][kZynBlock] = {}, chroma[2][kZynBlock / 2] = {};
  alignas(32) uint8_t out[2][3 * kZynBlock];
  const auto rest = static_cast<size_t>(count - i), pairs = (rest + 1) / 2;
  memcpy(luma[0], y0 + i, rest);
  memcpy(luma[1], y1 + i, rest);
  memcpy(chroma[0], u + i / 2, pairs);
  memcpy(chroma[1], v + i / 2, pairs);
  yuv_block_pair(out[0], out[1], luma[0], luma[1], chroma[0], chroma[1]);
  memcpy(upper + 3 * i, out[0], 3 * rest);
  memcpy(lower + 3 * i, out[1], 3 * rest);
}

void zyn_bgr_to_opponent_row(uint8_t* opponent, const uint8_t* bgr, int64_t count) {
  for (int64_t i = 0; i < 3 * count; i += 3) {
    const int32_t blue = bgr[i], green = bgr[i + 1], red = bgr[i + 2];
    const int32_t warm = (red - blue) >> 1;
    const int32_t middle = blue + warm;
    const int32_t leaf = (green - middle) >> 1;
    opponent[i] = static_cast<uint8_t>(middle + leaf - 128);
    opponent[i + 1] = static_cast<uint8_t>(leaf);
    opponent[i + 2] = static_cast<uint8_t>(warm);
  }
}

void zyn_opponent_to_bgr_row(uint8_t* bgr, const uint8_t* opponent, int64_t count) {
  for (int64_t i = 0; i < 3 * count; i += 3) {
    const int32_t lightness = static_cast<int8_t>(opponent[i]) + 128;
    const int32_t leaf = static_cast<int8_t>(opponent[i + 1]);
    const int32_t warm = static_cast<int8_t>(opponent[i + 2]);
    const int32_t middle = lightness - leaf;
    bgr[i] = clamp_byte(middle - warm);
    bgr[i + 1] = clamp_byte(middle + 2 * leaf);
    bgr[i + 2] = clamp_byte(middle + warm);
  }
}

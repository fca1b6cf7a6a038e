// Blocks of 32 packed pixels as vectors. The two 128-bit lanes of a vector hold pixels
// 0 to 15 and 16 to 31, so that no shuffle has to cross lanes.
#pragma once

#include <immintrin.h>
#include <stdint.h>

// Pixels of a block.
inline constexpr int kZynBlock = 32;

// lane0 at p, lane1 48 bytes (16 pixels) further on.
inline __m256i zyn_load_lanes(const uint8_t* p) {
  return _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48)), 1);
}
inline __m256i zyn_load(const void* p) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(p));
}
inline void zyn_store(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }

// Asks the cache for a block that is read or written some steps from here: what does not fit
// the second cache level is bound by memory, and pages end the processor's own look-ahead.
inline constexpr int kZynReadAhead = 1536, kZynWriteAhead = 512;
template <int Bytes>
inline void zyn_ask_ahead(const uint8_t* block) {
  for (int i = 0; i < Bytes; i += 64)
    _mm_prefetch(reinterpret_cast<const char*>(block + i), _MM_HINT_T0);
}

// A shuffle of the 16 bytes of a lane, the same in both. Indices outside of 0 to 15 give
// 0, so that one index expression can serve several source vectors.
struct zyn_shuffle {
  alignas(32) int8_t bytes[32];
};
template <typename Index>
constexpr zyn_shuffle zyn_make_shuffle(Index index) {
  zyn_shuffle shuffle = {};
  for (int i = 0; i < 32; i++) {
    const int from = index(i & 15);
    shuffle.bytes[i] = static_cast<int8_t>(from >= 0 && from < 16 ? from : -128);
  }
  return shuffle;
}
inline __m256i zyn_shuffled(__m256i v, const zyn_shuffle& shuffle) {
  return _mm256_shuffle_epi8(v, _mm256_load_si256(reinterpret_cast<const __m256i*>(shuffle.bytes)));
}

// The block at p: its 96 bytes in three vectors, 16 bytes of each half in each.
struct zyn_packed_block {
  __m256i part[3];
};
inline zyn_packed_block zyn_load_block(const uint8_t* p) {
  const __m256i a = zyn_load(p), b = zyn_load(p + 32), c = zyn_load(p + 64);
  return {{_mm256_blend_epi32(a, b, 0xF0), _mm256_permute2x128_si256(a, c, 0x21),
           _mm256_blend_epi32(b, c, 0xF0)}};
}
inline void zyn_store_block(uint8_t* p, const zyn_packed_block& block) {
  const __m256i* part = block.part;
  zyn_store(p, _mm256_permute2x128_si256(part[0], part[1], 0x20));
  zyn_store(p + 32, _mm256_blend_epi32(part[2], part[0], 0xF0));
  zyn_store(p + 64, _mm256_permute2x128_si256(part[1], part[2], 0x31));
}

// Channel c of a block, 32 bytes in pixel order.
template <int c, int part>
inline __m256i zyn_channel_part(const zyn_packed_block& block) {
  static constexpr zyn_shuffle kOrder =
      zyn_make_shuffle([](int i) { return 3 * i + c - 16 * part; });
  return zyn_shuffled(block.part[part], kOrder);
}
template <int c>
inline __m256i zyn_channel(const zyn_packed_block& block) {
  return _mm256_or_si256(
      _mm256_or_si256(zyn_channel_part<c, 0>(block), zyn_channel_part<c, 1>(block)),
      zyn_channel_part<c, 2>(block));
}

// The bytes of one channel in a part of an interleaved block, and the block.
template <int c, int part>
inline __m256i zyn_spread(__m256i channel) {
  static constexpr zyn_shuffle kOrder =
      zyn_make_shuffle([](int i) { return (16 * part + i) % 3 == c ? (16 * part + i) / 3 : -1; });
  return zyn_shuffled(channel, kOrder);
}
template <int part>
inline __m256i zyn_interleaved(__m256i c0, __m256i c1, __m256i c2) {
  return _mm256_or_si256(_mm256_or_si256(zyn_spread<0, part>(c0), zyn_spread<1, part>(c1)),
                         zyn_spread<2, part>(c2));
}
inline zyn_packed_block zyn_interleave(__m256i c0, __m256i c1, __m256i c2) {
  return {{zyn_interleaved<0>(c0, c1, c2), zyn_interleaved<1>(c0, c1, c2),
           zyn_interleaved<2>(c0, c1, c2)}};
}

// Sums of neighbouring pixels, B G R and 0, for pixels 4 n to 4 n + 3 of both halves.
template <int n>
inline __m256i zyn_neighbour_sums(const uint8_t* row) {
  constexpr int early = n == 3 ? 4 : 0;  // to stay inside the block
  static constexpr zyn_shuffle kOrder = zyn_make_shuffle(
      [](int i) { return i % 8 / 2 == 3 ? -1 : early + 6 * (i / 8) + 3 * (i & 1) + i % 8 / 2; });
  return _mm256_maddubs_epi16(zyn_shuffled(zyn_load_lanes(row + 12 * n - early), kOrder),
                              _mm256_set1_epi8(1));
}

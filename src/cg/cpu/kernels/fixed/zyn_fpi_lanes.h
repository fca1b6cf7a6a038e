// What the fixed-point kernels share: 16 pixels at a time, and padded rows.
#pragma once

#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "cg/cpu/kernels/fixed/zyn_fpi.h"

inline constexpr int64_t kZynFpiLanes = 16;

// a + b, the low 16 bits.
inline int16_t zyn_fpi_add1(int32_t a, int32_t b) {
  return static_cast<int16_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

inline __m256i zyn_fpi_load(const void* l) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(l));
}
inline void zyn_fpi_store(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }

// Two neighbouring 16-bit values as one 32-bit lane.
inline int32_t zyn_fpi_pair(int32_t first, int32_t second) {
  return static_cast<int32_t>((static_cast<uint32_t>(first) & 0xFFFF) |
                              static_cast<uint32_t>(second) << 16);
}

// Two neighbouring values in every 32-bit lane.
inline __m256i zyn_fpi_broadcast(const int16_t* pair) {
  int32_t word;
  memcpy(&word, pair, sizeof(word));
  return _mm256_set1_epi32(word);
}

// Pairs of taps in the rows of a kernel, the last one beside nothing where their number is
// odd: columns of a pair (dilated taps have no neighbour), pairs of a kernel, and the pair
// that begins at column x of a row of weights.
inline int64_t zyn_fpi_pair_step(const zyn_fpi_layer& l) { return l.dilation_x == 1 ? 2 : 1; }
inline int64_t zyn_fpi_pair_count(const zyn_fpi_layer& l) {
  return (l.kernel_x + zyn_fpi_pair_step(l) - 1) / zyn_fpi_pair_step(l) * l.kernel_y;
}
inline int32_t zyn_fpi_pair_at(const int16_t* row, int64_t x, const zyn_fpi_layer& l) {
  const bool has_next = zyn_fpi_pair_step(l) == 2 && x + 1 < l.kernel_x;
  return zyn_fpi_pair(row[x], has_next ? row[x + 1] : 0);
}

// Both vectors shifted right, their low halves side by side: even[j] in lane 2j. The count
// lies in every lane: such shifts are one operation, those by a register two.
inline __m256i zyn_fpi_interleave(__m256i even, __m256i odd, __m256i shift) {
  odd = _mm256_slli_epi32(_mm256_srav_epi32(odd, shift), 16);
  return _mm256_blend_epi16(_mm256_srav_epi32(even, shift), odd, 0xAA);
}

// The even lanes, then the odd ones: undoes zyn_fpi_interleave.
inline __m256i zyn_fpi_part(__m256i v) {
  const __m256i order = _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15, 0, 1,
                                         4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15);
  return _mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, order), 0xD8);
}

// A tile's epilogue for one output channel.
struct zyn_fpi_channel_epilogue {
  __m256i bias, low, high;
  zyn_fpi_channel_epilogue(const zyn_fpi_tile_epilogue& o, int64_t channel)
      : bias(_mm256_set1_epi16(o.bias_of(channel))),
        low(_mm256_set1_epi16(o.low)),
        high(_mm256_set1_epi16(o.high)) {}
  __m256i operator()(__m256i sum) const {
    return _mm256_min_epi16(_mm256_max_epi16(_mm256_add_epi16(sum, bias), low), high);
  }
};

// A layer's epilogue for kernels of many tiles: the biases brought to the output's q beforehand,
// each twice in a word.
struct zyn_fpi_layer_epilogue {
  const int32_t* biases;
  __m256i low, high;
  zyn_fpi_layer_epilogue(const zyn_fpi_tile_epilogue& o, int64_t channels, int32_t* room)
      : biases(room), low(_mm256_set1_epi16(o.low)), high(_mm256_set1_epi16(o.high)) {
    for (int64_t c = 0; c < channels; c++) room[c] = zyn_fpi_pair(o.bias_of(c), o.bias_of(c));
  }
  __m256i operator()(__m256i sum, int64_t channel) const {
    const __m256i v = _mm256_add_epi16(sum, _mm256_set1_epi32(biases[channel]));
    return _mm256_min_epi16(_mm256_max_epi16(v, low), high);
  }
};

// Copies the first and the last T's worth of count values, which may overlap.
template <typename T>
inline void zyn_fpi_copy_ends(int16_t* to, const int16_t* from, int64_t count) {
  const int64_t rest = count - static_cast<int64_t>(sizeof(T) / sizeof(int16_t));
  T first, last;
  memcpy(&first, from, sizeof(T));
  memcpy(&last, from + rest, sizeof(T));
  memcpy(to, &first, sizeof(T));
  memcpy(to + rest, &last, sizeof(T));
}

// Copies count values: short rows are too many for calls of memcpy.
inline void zyn_fpi_copy(int16_t* to, const int16_t* from, int64_t count) {
  if (count >= kZynFpiLanes) {
    for (int64_t i = 0; i + kZynFpiLanes < count; i += kZynFpiLanes)
      zyn_fpi_store(to + i, zyn_fpi_load(from + i));
    const int64_t last = count - kZynFpiLanes;
    return zyn_fpi_store(to + last, zyn_fpi_load(from + last));
  }
  if (count >= 8) return zyn_fpi_copy_ends<__m128i>(to, from, count);
  if (count >= 4) return zyn_fpi_copy_ends<int64_t>(to, from, count);
  for (int64_t i = 0; i < count; i++) to[i] = from[i];
}

// The same for rows, whose beginnings lie pitch values apart: one choice for all.
inline void zyn_fpi_copy_rows(int16_t* to, int64_t to_pitch, const int16_t* from,
                              int64_t from_pitch, int64_t count, int64_t rows) {
  if (count >= 8 && count < kZynFpiLanes)
    for (; rows > 0; rows--, to += to_pitch, from += from_pitch)
      zyn_fpi_copy_ends<__m128i>(to, from, count);
  else
    for (; rows > 0; rows--, to += to_pitch, from += from_pitch) zyn_fpi_copy(to, from, count);
}

// Stores the first count of up to 16 lanes.
inline void zyn_fpi_store_part(int16_t* to, __m256i v, int64_t count) {
  if (count >= kZynFpiLanes) return zyn_fpi_store(to, v);
  alignas(32) int16_t lanes[kZynFpiLanes];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), v);
  zyn_fpi_copy(to, lanes, count);
}

// Up to 16 values; the idle lanes are 0.
inline __m256i zyn_fpi_load_part(const int16_t* from, int64_t count) {
  alignas(32) int16_t lanes[kZynFpiLanes] = {};
  memcpy(lanes, from, static_cast<size_t>(count) * sizeof(int16_t));
  return _mm256_load_si256(reinterpret_cast<const __m256i*>(lanes));
}

// out[i] = f(in[i]) on vectors of 16.
template <typename Function>
inline void zyn_fpi_map(int16_t* out, const int16_t* in, int64_t count, Function f) {
  int64_t i = 0;
  for (; i + kZynFpiLanes <= count; i += kZynFpiLanes)
    zyn_fpi_store(out + i, f(zyn_fpi_load(in + i)));
  if (i < count) zyn_fpi_store_part(out + i, f(zyn_fpi_load_part(in + i, count - i)), count - i);
}

// out = f(x) of the real numbers that the values stand for, 8 at a time: rounded to nearest
// (halves up) and kept within 16 bits. q_in and q_out are 0 to 15.
template <typename Function>
inline void zyn_fpi_map_floats(int16_t* out, int32_t q_out, const int16_t* in, int32_t q_in,
                               int64_t count, Function f) {
  const __m256 unit = _mm256_set1_ps(1.0f / static_cast<float>(1 << q_in));
  const __m256 scale = _mm256_set1_ps(static_cast<float>(1 << q_out));
  const __m256 least = _mm256_set1_ps(-32768.0f), most = _mm256_set1_ps(32767.0f);
  const auto half = [=](__m128i words) {
    const __m256 x = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(words)), unit);
    const __m256 y = _mm256_fmadd_ps(f(x), scale, _mm256_set1_ps(0.5f));
    return _mm256_cvttps_epi32(_mm256_min_ps(_mm256_max_ps(_mm256_floor_ps(y), least), most));
  };
  zyn_fpi_map(out, in, count, [=](__m256i words) {
    const __m256i low = half(_mm256_castsi256_si128(words));
    const __m256i high = half(_mm256_extracti128_si256(words, 1));
    return _mm256_permute4x64_epi64(_mm256_packs_epi32(low, high), 0xD8);
  });
}

inline int16_t* zyn_fpi_words(const zyn_tensor* t) { return static_cast<int16_t*>(t->data); }

// The epilogue over a whole output, for kernels that do not apply it to their tiles.
inline void zyn_fpi_apply_epilogue(zyn_tensor* output, const zyn_fpi_tile_epilogue& epilogue) {
  const int64_t pixels = static_cast<int64_t>(output->dims[0]) * output->dims[1];
  int16_t* out = zyn_fpi_words(output);
  for (int64_t c = 0; c < output->dims[2]; c++, out += pixels)
    zyn_fpi_map(out, out, pixels, zyn_fpi_channel_epilogue(epilogue, c));
}

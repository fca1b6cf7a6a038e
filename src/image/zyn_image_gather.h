// Bytes picked from a row by a table, 32 at a time: for each 16 of them up to four
// loads of 16 neighbouring source bytes, shuffled and merged. Planned once per
// image, run for every row. A plan exists where 16 picked bytes never lie more than
// 64 apart and the row is long enough for the loads.
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "base/zyn_memory.h"
#include "image/zyn_image_simd.h"
#include "simd/zyn_vectors.h"

inline constexpr int kZynGatherParts = 4;

// How the 16-byte groups of the table fill the vectors: one after the other, or 0 2 and
// 1 3 of each four, so that packing two vectors puts them in order.
enum class zyn_gather_order { straight, for_packing };

class zyn_gather {
 public:
  zyn_gather() = default;
  zyn_gather(const zyn_gather&) = delete;
  zyn_gather& operator=(const zyn_gather&) = delete;
  ~zyn_gather() {
    zyn_free(base_);
    zyn_free(masks_);
  }

  // offsets: count positions below row_bytes. False without memory; parts() is 0
  // where there is no plan. Once per object.
  bool plan(const int64_t* offsets, int64_t count, int64_t row_bytes, zyn_gather_order order);

  // Loads per group; vectors is a multiple of 2 and those past the table give 0.
  int parts() const { return parts_; }
  int64_t vectors() const { return vectors_; }

  template <int Parts>
  __m256i pick(const uint8_t* row, int64_t vector) const {
    const uint8_t* p0 = row + base_[2 * vector];
    const uint8_t* p1 = row + base_[2 * vector + 1];
    const uint8_t* masks = masks_ + vector * Parts * 32;
    __m256i picked = one(p0, p1, masks);
    ZYN_UNROLL for (int k = 1; k < Parts; k++) picked =
        _mm256_or_si256(picked, one(p0 + 16 * k, p1 + 16 * k, masks + 32 * k));
    return picked;
  }

 private:
  static __m256i one(const uint8_t* p0, const uint8_t* p1, const uint8_t* masks) {
    const __m256i both = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p0))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(p1)), 1);
    return _mm256_shuffle_epi8(both, zyn_load(masks));
  }

  int parts_ = 0;
  int64_t vectors_ = 0;
  int64_t* base_ = nullptr;   // first byte of each group's loads
  uint8_t* masks_ = nullptr;  // per vector and part 32 bytes
};

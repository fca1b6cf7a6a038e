// Plans for picking bytes from rows.
#include "image/zyn_image_gather.h"

#include <string.h>

namespace {

constexpr int64_t kGroup = 16;

struct range {
  int64_t first, last;
};

range range_of(const int64_t* offsets, int64_t count) {
  range r = {offsets[0], offsets[0]};
  for (int64_t i = 1; i < count; i++) {
    if (offsets[i] < r.first) r.first = offsets[i];
    if (offsets[i] > r.last) r.last = offsets[i];
  }
  return r;
}

int64_t group_size(int64_t count, int64_t group) {
  const int64_t rest = count - group * kGroup;
  return rest < kGroup ? rest : kGroup;
}

}  // namespace

bool zyn_gather::plan(const int64_t* offsets, int64_t count, int64_t row_bytes,
                      zyn_gather_order order) {
  const int64_t groups = (count + kGroup - 1) / kGroup;
  int64_t parts = 1;
  for (int64_t g = 0; g < groups; g++) {
    const range r = range_of(offsets + g * kGroup, group_size(count, g));
    const int64_t needed = (r.last - r.first) / kGroup + 1;
    if (needed > parts) parts = needed;
  }
  parts_ = 0;
  if (parts > kZynGatherParts || row_bytes < parts * kGroup) return true;
  vectors_ = (groups + 3) / 4 * 2;
  base_ = static_cast<int64_t*>(zyn_calloc(2 * vectors_, sizeof(int64_t)));
  masks_ = static_cast<uint8_t*>(zyn_malloc(vectors_ * parts * 32));
  if (!base_ || !masks_) return false;
  memset(masks_, 0x80, static_cast<size_t>(vectors_ * parts * 32));
  for (int64_t g = 0; g < groups; g++) {
    const int64_t size = group_size(count, g);
    const int64_t* from = offsets + g * kGroup;
    // Near the end of the row the loads move back to stay inside of it.
    const int64_t first = range_of(from, size).first, latest = row_bytes - parts * kGroup;
    const int64_t base = first < latest ? first : latest;
    const int64_t at = g & 3;
    const int64_t slot =
        g - at + (order == zyn_gather_order::straight ? at : (at & 1) * 2 + (at >> 1));
    base_[slot] = base;
    uint8_t* masks = masks_ + slot / 2 * parts * 32 + (slot & 1) * kGroup;
    for (int64_t i = 0; i < size; i++) {
      const int64_t distance = from[i] - base;
      masks[distance / kGroup * 32 + i] = static_cast<uint8_t>(distance % kGroup);
    }
  }
  parts_ = static_cast<int>(parts);
  return true;
}

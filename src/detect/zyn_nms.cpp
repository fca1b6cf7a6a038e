// Greedy non-maximum suppression. The candidates are sorted by score, split into
// columns (structure of arrays), and then every remaining record in turn is the
// pivot of a pass that packs the survivors behind it, eight overlaps at a time.
// A column ends where the next one begins, so the last block of a pass is masked.
#include <immintrin.h>
#include <string.h>

#include "base/zyn_memory.h"
#include "zyncore.h"

namespace {

constexpr int32_t kLanes = 8;
// Added to the denominator of every overlap.
constexpr float kUnionOffset = 0.00001f;
// Up to here an insertion sort beats clearing and summing the radix histograms.
constexpr int32_t kInsertionCount = 40;

// A sort entry: key of the score above, position of the record below.
using sort_entry = uint64_t;

// Ascending keys are falling scores: -0 equals 0 and NaN comes last, so that the
// order is total whatever the bits.
uint32_t sort_key(float score) {
  if (score != score) return UINT32_MAX;
  const float canonical = score + 0.0f;
  uint32_t bits;
  memcpy(&bits, &canonical, sizeof(bits));
  return bits & 0x80000000u ? bits : bits ^ 0x7FFFFFFFu;
}

void insertion_sort(sort_entry* entries, int32_t count) {
  for (int32_t i = 1; i < count; i++) {
    const sort_entry entry = entries[i];
    int32_t to = i;
    for (; to > 0 && entries[to - 1] > entry; to--) entries[to] = entries[to - 1];
    entries[to] = entry;
  }
}

// Least significant byte first over the four key bytes: linear for any input, and
// equal keys keep their order. Returns the sorted one of the two arrays.
sort_entry* radix_sort(sort_entry* entries, sort_entry* spare, int32_t count) {
  constexpr int32_t kDigits = 4;
  const auto digit_of = [](sort_entry entry, int32_t d) { return (entry >> (32 + 8 * d)) & 255; };
  uint32_t starts[kDigits][256] = {};
  for (int32_t i = 0; i < count; i++)
    for (int32_t d = 0; d < kDigits; d++) starts[d][digit_of(entries[i], d)]++;
  for (int32_t d = 0; d < kDigits; d++) {
    uint32_t* start = starts[d];
    if (start[digit_of(entries[0], d)] == static_cast<uint32_t>(count)) continue;
    uint32_t sum = 0;
    for (int32_t value = 0; value < 256; value++) {
      const uint32_t here = start[value];
      start[value] = sum;
      sum += here;
    }
    for (int32_t i = 0; i < count; i++) spare[start[digit_of(entries[i], d)]++] = entries[i];
    sort_entry* sorted = spare;
    spare = entries;
    entries = sorted;
  }
  return entries;
}

// The remaining records, best first: corners, areas and positions in the input.
struct columns {
  float *x1, *y1, *x2, *y2, *area;
  int32_t* index;
};

// max(0, b - a) where a comparison with NaN is false.
float extent(float a, float b) { return 0.0f < b - a ? b - a : 0.0f; }

void fill_columns(const columns& c, const zyn_detection* boxes, const sort_entry* order,
                  int32_t count) {
  for (int32_t i = 0; i < count; i++) {
    const auto from = static_cast<uint32_t>(order[i]);
    const zyn_detection& box = boxes[from];
    c.x1[i] = box.x1;
    c.y1[i] = box.y1;
    c.x2[i] = box.x2;
    c.y2[i] = box.y2;
    c.area[i] = extent(box.x1, box.x2) * extent(box.y1, box.y2);
    c.index[i] = static_cast<int32_t>(from);
  }
}

// For every mask of eight lanes the numbers of the set lanes, one byte each, lowest
// first.
struct pack_table {
  uint64_t lanes[256];
};
constexpr pack_table make_pack_table() {
  pack_table table{};
  for (uint32_t mask = 0; mask < 256; mask++) {
    uint32_t to = 0;
    for (uint64_t lane = 0; lane < kLanes; lane++)
      if (mask & (1u << lane)) table.lanes[mask] |= lane << (8 * to++);
  }
  return table;
}
constexpr pack_table kPack = make_pack_table();

// Eight boxes, or one in all lanes.
struct box8 {
  __m256 x1, y1, x2, y2, area;
};

// Bit per lane: the overlap with the pivot does not exceed the threshold. Operand
// order decides what NaN gives: min and max take their second operand then, and a
// NaN overlap does not pass.
uint32_t kept_lanes(const box8& p, const box8& b, __m256 threshold) {
  const __m256 zero = _mm256_setzero_ps();
  const __m256 w =
      _mm256_max_ps(_mm256_sub_ps(_mm256_min_ps(b.x2, p.x2), _mm256_max_ps(b.x1, p.x1)), zero);
  const __m256 h =
      _mm256_max_ps(_mm256_sub_ps(_mm256_min_ps(b.y2, p.y2), _mm256_max_ps(b.y1, p.y1)), zero);
  const __m256 intersection = _mm256_mul_ps(w, h);
  const __m256 both = _mm256_add_ps(_mm256_sub_ps(_mm256_add_ps(b.area, p.area), intersection),
                                    _mm256_set1_ps(kUnionOffset));
  const __m256 overlap = _mm256_div_ps(intersection, both);
  return static_cast<uint32_t>(_mm256_movemask_ps(_mm256_cmp_ps(threshold, overlap, _CMP_GE_OQ)));
}

// A block of a column: all eight lanes or the given ones.
template <bool kWhole>
__m256 load(const float* from, __m256i lanes) {
  return kWhole ? _mm256_loadu_ps(from) : _mm256_maskload_ps(from, lanes);
}
template <bool kWhole>
void store(float* to, __m256i lanes, __m256 values) {
  if (kWhole)
    _mm256_storeu_ps(to, values);
  else
    _mm256_maskstore_ps(to, lanes, values);
}

__m256i first_lanes(int32_t count) {
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
}

// Moves the survivors among records [read, read + lanes) down to write; returns where
// the next ones go. write <= read, so as many lanes may be stored as were loaded: what
// they cover has been read.
template <bool kWhole>
int32_t pack_block(const columns& c, const box8& p, __m256 threshold, int32_t read, int32_t write,
                   int32_t lanes) {
  const __m256i in = first_lanes(lanes);
  const box8 b{load<kWhole>(c.x1 + read, in), load<kWhole>(c.y1 + read, in),
               load<kWhole>(c.x2 + read, in), load<kWhole>(c.y2 + read, in),
               load<kWhole>(c.area + read, in)};
  const uint32_t present = (1u << lanes) - 1;
  const uint32_t kept = kept_lanes(p, b, threshold) & present;
  const int32_t survivors = __builtin_popcount(kept);
  if (read == write && kept == present) return write + survivors;
  const __m256i order =
      _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(&kPack.lanes[kept])));
  const auto pack = [&](float* column, __m256 values) {
    store<kWhole>(column + write, in, _mm256_permutevar8x32_ps(values, order));
  };
  auto* index = reinterpret_cast<float*>(c.index);
  const __m256 indices = load<kWhole>(index + read, in);
  pack(c.x1, b.x1);
  pack(c.y1, b.y1);
  pack(c.x2, b.x2);
  pack(c.y2, b.y2);
  pack(c.area, b.area);
  pack(index, indices);
  return write + survivors;
}

// One pass: drops what overlaps the pivot too much from the n records and returns how
// many remain.
int32_t suppress(const columns& c, int32_t pivot, int32_t n, __m256 threshold) {
  const box8 p{_mm256_set1_ps(c.x1[pivot]), _mm256_set1_ps(c.y1[pivot]),
               _mm256_set1_ps(c.x2[pivot]), _mm256_set1_ps(c.y2[pivot]),
               _mm256_set1_ps(c.area[pivot])};
  int32_t write = pivot + 1;
  int32_t read = pivot + 1;
  for (; n - read >= kLanes; read += kLanes)
    write = pack_block<true>(c, p, threshold, read, write, kLanes);
  if (read < n) write = pack_block<false>(c, p, threshold, read, write, n - read);
  return write;
}

}  // namespace

int32_t zyn_ssd_nms(zyn_detection* out, const zyn_detection* boxes, int32_t count,
                    float iou_threshold) {
  if (count < 1 || !out || !boxes) return 0;
  zyn_scratch<float> sorted(5 * static_cast<int64_t>(count));
  zyn_scratch<zyn_detection> compaction(count);
  zyn_scratch<int32_t> index(count);
  if (!sorted || !compaction || !index) return 0;

  // The sort's two arrays of 8 bytes a record fit into the 20 of the other buffer.
  static_assert(sizeof(zyn_detection) >= 2 * sizeof(sort_entry), "room for the sort");
  auto* entries = reinterpret_cast<sort_entry*>(compaction.get());
  for (int32_t i = 0; i < count; i++)
    entries[i] = static_cast<uint64_t>(sort_key(boxes[i].score)) << 32 | static_cast<uint32_t>(i);
  const sort_entry* order = entries;
  if (count <= kInsertionCount)
    insertion_sort(entries, count);
  else
    order = radix_sort(entries, entries + count, count);

  float* base = sorted.get();
  const int64_t pitch = count;
  const columns c{base,       base + pitch, base + 2 * pitch, base + 3 * pitch, base + 4 * pitch,
                  index.get()};
  fill_columns(c, boxes, order, count);
  int32_t n = count;
  const __m256 threshold = _mm256_set1_ps(iou_threshold);
  for (int32_t pivot = 0; pivot < n; pivot++) n = suppress(c, pivot, n, threshold);

  // Through the buffer, so that out may be the array of boxes itself.
  for (int32_t i = 0; i < n; i++) compaction[i] = boxes[index[i]];
  memcpy(out, compaction.get(), static_cast<size_t>(n) * sizeof(zyn_detection));
  return n;
}

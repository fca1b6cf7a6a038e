// Greedy non-maximum suppression. The candidates are sorted by score and lie in columns
// (structure of arrays); every remaining record in turn is the pivot of a pass that packs
// the survivors behind it, eight overlaps at a time. Where many candidates outlast the first
// passes they are spread over the cells of grids (see struct grid), and a pass visits the cells
// near the pivot.
// The run of a grid's cell ends where the next one begins, so the last block of a pass over it is
// masked; columns as a whole have room for one more block.
#include <immintrin.h>
#include <math.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_integers.h"
#include "base/zyn_memory.h"
#include "simd/zyn_vectors.h"
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

// Floats of a column: room for one more block, and beginnings that lie far from each other in the
// lowest 12 bits of their addresses, by which processors take loads for those of recent stores.
int64_t column_pitch(int64_t count) {
  constexpr int64_t kPage = 4096 / sizeof(float);
  constexpr int64_t kShift =
      kPage / 7 & ~int64_t{15};  // of six columns no two meet at 1 to 6 of it
  const int64_t needed = count + kLanes;
  const int64_t pages = needed / kPage;
  const int64_t shifts = zyn_units(needed % kPage, kShift);
  return shifts > 6 ? (pages + 1) * kPage + kShift
                    : pages * kPage + (shifts > 0 ? shifts : 1) * kShift;
}

// max(0, b - a) where a comparison with NaN is false.
float extent(float a, float b) { return 0.0f < b - a ? b - a : 0.0f; }

void put(const columns& c, int32_t at, const zyn_detection* boxes, sort_entry entry) {
  const auto from = static_cast<uint32_t>(entry);
  const zyn_detection& box = boxes[from];
  c.x1[at] = box.x1;
  c.y1[at] = box.y1;
  c.x2[at] = box.x2;
  c.y2[at] = box.y2;
  c.area[at] = extent(box.x1, box.x2) * extent(box.y1, box.y2);
  c.index[at] = static_cast<int32_t>(from);
}

void move_record(const columns& c, int32_t to, int32_t from) {
  c.x1[to] = c.x1[from];
  c.y1[to] = c.y1[from];
  c.x2[to] = c.x2[from];
  c.y2[to] = c.y2[from];
  c.area[to] = c.area[from];
  c.index[to] = c.index[from];
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

// Bit per lane: the overlap of pivot p and candidate b does not exceed the threshold. Operand
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

template <bool kWhole>
box8 load_boxes(const columns& c, int32_t at, __m256i lanes) {
  return {load<kWhole>(c.x1 + at, lanes), load<kWhole>(c.y1 + at, lanes),
          load<kWhole>(c.x2 + at, lanes), load<kWhole>(c.y2 + at, lanes),
          load<kWhole>(c.area + at, lanes)};
}

box8 broadcast(const columns& c, int32_t at) {
  return {_mm256_set1_ps(c.x1[at]), _mm256_set1_ps(c.y1[at]), _mm256_set1_ps(c.x2[at]),
          _mm256_set1_ps(c.y2[at]), _mm256_set1_ps(c.area[at])};
}

// Moves the survivors among records [read, read + lanes) down to write; returns where
// the next ones go. write <= read, so as many lanes may be stored as were loaded: what
// they cover has been read.
template <bool kWhole>
int32_t pack_block(const columns& c, const box8& p, __m256 threshold, int32_t read, int32_t write,
                   int32_t lanes) {
  const __m256i in = zyn_first_lanes(lanes);
  const box8 b = load_boxes<kWhole>(c, read, in);
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

// One pass: drops what overlaps the pivot too much from the records first to end and
// returns their new end. kPadded: a block behind them may be written. Columns by value and
// inlined: 1.3 times as fast.
template <bool kPadded>
[[gnu::always_inline]] inline int32_t suppress(columns c, int32_t pivot, int32_t first, int32_t end,
                                               __m256 threshold) {
  const box8 p = broadcast(c, pivot);
  int32_t write = first;
  int32_t read = first;
  for (; end - read >= kLanes; read += kLanes)
    write = pack_block<true>(c, p, threshold, read, write, kLanes);
  if (read < end) write = pack_block<kPadded>(c, p, threshold, read, write, end - read);
  return write;
}

// From here on grids beat passes over everything, if these have made so many tests a box, which
// take as long as laying the grids: few boxes may remain by then.
constexpr int32_t kGridCount = 1024;
constexpr int64_t kTestsFirst = 80;
constexpr int32_t kGridLimit = 1 << 29;  // buckets are numbered in 31 bits

// A run of the columns: the pivots so far up to kept, and the records that remain, from
// next to end in order of score.
struct bucket {
  int32_t begin, kept, next, end;
};

// Boxes whose width and whose height lie within a factor of 16, on a grid by their upper
// left corners, hashed into buckets.
struct size_class {
  int32_t count, kept;
  int32_t first_bucket;
  uint32_t bucket_mask;
  float min_w, max_w, min_h, max_h;
  double per_cell_x, per_cell_y;  // cells per unit of length
  double rank;                    // larger for larger boxes
};
constexpr int32_t kClassesPerAxis = 64;
constexpr int32_t kClasses = kClassesPerAxis * kClassesPerAxis;

// What a box is to the grids, where it is no number of a class.
constexpr int32_t kInert = -1;     // neither removes nor is removed by a box of a class
constexpr int32_t kAnywhere = -2;  // corners or extents that are not finite: met by all

// Two boxes of finite corners and extents that have no common part have an overlap of
// zero, so that a threshold of zero or more keeps both. If one removes the other, each
// extent of the common part is above threshold times either box's. For upper left
// corners at x1 and x1', widths w and w' that means
//
//   x1 - (1 - threshold) w' < x1' < x1 + (1 - threshold) w,    threshold w < w' < w / threshold
//
// and likewise for y. Where areas may add up to infinity an overlap may be no number for
// any common part: the rule then serves with a threshold of zero.
struct grid {
  zyn_scratch<size_class> classes = zyn_scratch<size_class>::zeroed(kClasses);
  zyn_scratch<int32_t> used{kClasses};  // the classes that have boxes
  int32_t used_count = 0;
  struct home {
    int32_t kind, bucket;  // kind: a class, kInert or kAnywhere
  };
  zyn_scratch<home> place;  // per record, in order of score
  zyn_scratch<bucket> buckets;
  int32_t bucket_count = 0;
  double threshold = 0;  // a little lower, for what rounding does to overlaps

  explicit grid(int32_t count) : place(count), buckets(2 * int64_t{count} + 2) {}
  explicit operator bool() const { return classes && used && place && buckets; }
};
constexpr int32_t kAnywhereBucket = 0;
constexpr int32_t kInertBucket = 1;

// Two areas below it have a finite sum.
constexpr float kLargeArea = 0x1p126f;

int32_t log16(float length) {
  uint32_t bits;
  memcpy(&bits, &length, sizeof(bits));
  return static_cast<int32_t>(bits >> 25);
}

// A box's class. Thresholds from 1 on remove nothing of finite area.
int32_t classify(const zyn_detection& box, float threshold) {
  const float w = box.x2 - box.x1, h = box.y2 - box.y1;
  if (!isfinite(box.x1) || !isfinite(box.y1) || !isfinite(w) || !isfinite(h)) return kAnywhere;
  if (!(w > 0 && h > 0) || (threshold >= 1 && w * h < kLargeArea)) return kInert;
  return log16(h) * kClassesPerAxis + log16(w);
}

// Classifies every record and collects the classes' extents.
void fill_classes(grid* g, const zyn_detection* boxes, const sort_entry* order, int32_t count,
                  float threshold) {
  bool large = false;
  for (int32_t i = 0; i < count; i++) {
    const zyn_detection& box = boxes[static_cast<uint32_t>(order[i])];
    const int32_t k = g->place[i].kind = classify(box, threshold);
    if (k < 0) continue;
    const float w = box.x2 - box.x1, h = box.y2 - box.y1;
    large |= !(w * h < kLargeArea);
    size_class& own = g->classes[k];
    if (own.count++ == 0) {
      g->used[g->used_count++] = k;
      own.min_w = own.max_w = w;
      own.min_h = own.max_h = h;
    }
    own.min_w = fminf(own.min_w, w);
    own.max_w = fmaxf(own.max_w, w);
    own.min_h = fminf(own.min_h, h);
    own.max_h = fmaxf(own.max_h, h);
  }
  constexpr double kMargin = 1e-4, kMost = 0.99;  // the latter bounds the number of cells
  if (!large) g->threshold = fmax(0, fmin(threshold - kMargin, kMost));
}

// Cell numbers of coordinates: monotonic, and the low bits tell neighbours apart.
int64_t cell_of(double x, double per_cell) {
  constexpr double kFar = 0x1p60;
  const double cell = floor(x * per_cell);
  return static_cast<int64_t>(cell < -kFar ? -kFar : cell > kFar ? kFar : cell);
}

int32_t bucket_of(const size_class& k, int64_t x, int64_t y) {
  const uint64_t row = static_cast<uint64_t>(y) * 0x9E3779B97F4A7C15u >> 32;
  return k.first_bucket +
         static_cast<int32_t>((static_cast<uint32_t>(x) + static_cast<uint32_t>(row)) &
                              k.bucket_mask);
}

// Gives every class its grid and at least as many buckets as boxes.
void lay_buckets(grid* g) {
  g->bucket_count = 2;
  for (int32_t u = 0; u < g->used_count; u++) {
    size_class& k = g->classes[g->used[u]];
    uint32_t buckets = 1;
    while (buckets < static_cast<uint32_t>(k.count)) buckets *= 2;
    k.first_bucket = g->bucket_count;
    k.bucket_mask = buckets - 1;
    g->bucket_count += static_cast<int32_t>(buckets);
    k.rank = double{k.max_w} * k.max_h;
    k.per_cell_x = 1 / ((1 - g->threshold) * k.max_w);
    k.per_cell_y = 1 / ((1 - g->threshold) * k.max_h);
  }
  for (int32_t b = 0; b < g->bucket_count; b++) g->buckets[b] = {0, 0, 0, 0};
}

// Brings the records into their buckets, in order of score within each.
void fill_buckets(grid* g, const columns& c, const zyn_detection* boxes, const sort_entry* order,
                  int32_t count) {
  for (int32_t i = 0; i < count; i++) {
    grid::home& place = g->place[i];
    const zyn_detection& box = boxes[static_cast<uint32_t>(order[i])];
    place.bucket = place.kind == kInert ? kInertBucket : kAnywhereBucket;
    if (place.kind >= 0) {
      const size_class& k = g->classes[place.kind];
      place.bucket = bucket_of(k, cell_of(box.x1, k.per_cell_x), cell_of(box.y1, k.per_cell_y));
    }
    g->buckets[place.bucket].end++;
  }
  int32_t sum = 0;
  for (int32_t b = 0; b < g->bucket_count; b++) {
    bucket& own = g->buckets[b];
    const int32_t boxes_here = own.end;
    own = {sum, sum, sum, sum};
    sum += boxes_here;
  }
  for (int32_t i = 0; i < count; i++) put(c, g->buckets[g->place[i].bucket].end++, boxes, order[i]);
}

// Whether one of the pivots of a bucket removes a record.
bool is_removed(const columns& c, const bucket& by, int32_t at, __m256 threshold) {
  if (by.begin == by.kept) return false;
  const box8 b = broadcast(c, at);
  for (int32_t i = by.begin; i < by.kept; i += kLanes) {
    const int32_t lanes = by.kept - i < kLanes ? by.kept - i : kLanes;
    const uint32_t present = (1u << lanes) - 1;
    const box8 pivots = load_boxes<false>(c, i, zyn_first_lanes(lanes));
    if (~kept_lanes(pivots, b, threshold) & present) return true;
  }
  return false;
}

// Calls visit with the buckets where boxes of a class may lie that the record removes or
// is removed by, until it answers true; returns whether it did.
template <typename Visit>
bool find_near(const grid& g, const columns& c, int32_t at, const size_class& k, Visit visit) {
  const double w = c.x2[at] - c.x1[at], h = c.y2[at] - c.y1[at];
  const double t = g.threshold;
  if (k.max_w < t * w || k.max_h < t * h || t * k.min_w > w || t * k.min_h > h) return false;
  constexpr double kRounding = 1 + 1e-6;  // extents are rounded to floats
  const double reach = (1 - t) * kRounding;
  const int64_t left = cell_of(c.x1[at] - reach * k.max_w, k.per_cell_x);
  const int64_t right = cell_of(c.x1[at] + reach * w, k.per_cell_x);
  const int64_t top = cell_of(c.y1[at] - reach * k.max_h, k.per_cell_y);
  const int64_t bottom = cell_of(c.y1[at] + reach * h, k.per_cell_y);
  if (static_cast<double>(right - left + 1) * static_cast<double>(bottom - top + 1) >
      k.bucket_mask) {
    for (uint32_t b = 0; b <= k.bucket_mask; b++)
      if (visit(&g.buckets[k.first_bucket + static_cast<int32_t>(b)])) return true;
    return false;
  }
  for (int64_t y = top; y <= bottom; y++)
    for (int64_t x = left; x <= right; x++)
      if (visit(&g.buckets[bucket_of(k, x, y)])) return true;
  return false;
}

// Takes the first record of a bucket out of those that remain. Returns whether it stays:
// then it is the last of the bucket's pivots, and has removed what it can. A box meets few
// cells of grids of larger boxes, so that between two classes the work is always done by
// the smaller boxes: they look for pivots before they are pivots themselves.
bool take_turn(const grid& g, const columns& c, int32_t b, size_class* own, __m256 threshold) {
  bucket& home = g.buckets[b];
  bucket& anywhere = g.buckets[kAnywhereBucket];
  const int32_t at = home.next++;
  const auto removed = [&](const bucket* by) { return is_removed(c, *by, at, threshold); };
  if (&home != &anywhere && removed(&anywhere)) return false;
  for (int32_t u = 0; own && u < g.used_count; u++) {
    const size_class& k = g.classes[g.used[u]];
    if (k.kept > 0 && k.rank > own->rank && find_near(g, c, at, k, removed)) return false;
  }
  const int32_t pivot = home.kept++;
  move_record(c, pivot, at);
  const auto pass = [&](bucket* over) {
    if (over->next < over->end)
      over->end = suppress<false>(c, pivot, over->next, over->end, threshold);
    return false;
  };
  pass(&anywhere);
  for (int32_t u = 0; own && u < g.used_count; u++) {
    const size_class& k = g.classes[g.used[u]];
    if (k.rank >= own->rank) find_near(g, c, pivot, k, pass);
  }
  if (own) own->kept++;
  return true;
}

// Every record in its turn. Boxes that may be met anywhere are tested by every pivot, and
// every record is by them.
int32_t suppress_on_grids(const grid& g, const columns& c, const sort_entry* order, int32_t count,
                          __m256 threshold) {
  int32_t n = 0;
  for (int32_t i = 0; i < count; i++) {
    const int32_t b = g.place[i].bucket;
    const int32_t k = g.place[i].kind;
    const auto from = static_cast<int32_t>(order[i]);
    const bucket& home = g.buckets[b];
    if (home.next == home.end || c.index[home.next] != from) continue;  // it was removed
    if (take_turn(g, c, b, k < 0 ? nullptr : &g.classes[k], threshold)) g.place[n++].kind = from;
  }
  for (int32_t i = 0; i < n; i++) c.index[i] = g.place[i].kind;
  return n;
}

// The same as the passes over the records that remain, on grids; -1 without memory for these.
int32_t survivors_on_grids(const columns& c, const zyn_detection* boxes, sort_entry* order,
                           int32_t count, float iou_threshold) {
  grid g(count);
  if (!g) return -1;
  for (int32_t i = 0; i < count; i++) order[i] = static_cast<uint32_t>(c.index[i]);
  fill_classes(&g, boxes, order, count, iou_threshold);
  lay_buckets(&g);
  fill_buckets(&g, c, boxes, order, count);
  return suppress_on_grids(g, c, order, count, _mm256_set1_ps(iou_threshold));
}

columns from(const columns& c, int32_t at) {
  return {c.x1 + at, c.y1 + at, c.x2 + at, c.y2 + at, c.area + at, c.index + at};
}

// The number of survivors, whose positions in the input then lead the column of indices. The
// order is lost.
int32_t survivors(const columns& c, const zyn_detection* boxes, sort_entry* order, int32_t count,
                  float iou_threshold) {
  const __m256 threshold = _mm256_set1_ps(iou_threshold);
  for (int32_t i = 0; i < count; i++) put(c, i, boxes, order[i]);
  // Below zero and without a number the first pivot removes everything.
  bool may_use_grids = count < kGridLimit && iou_threshold >= 0;
  int64_t tests = 0;
  int32_t n = count;
  for (int32_t pivot = 0; pivot < n; pivot++) {
    const int32_t left = n - pivot;
    if (may_use_grids && left >= kGridCount && tests > kTestsFirst * count) {
      const int32_t more = survivors_on_grids(from(c, pivot), boxes, order, left, iou_threshold);
      if (more >= 0) return pivot + more;
      may_use_grids = false;
    }
    tests += left;
    n = suppress<true>(c, pivot, pivot + 1, n, threshold);
  }
  return n;
}

}  // namespace

int32_t zyn_ssd_nms(zyn_detection* out, const zyn_detection* boxes, int32_t count,
                    float iou_threshold) {
  if (!out || !boxes) zyn_refuse_null("the boxes or the place for them");
  if (count < 1 || !out || !boxes) return 0;
  const int64_t pitch = column_pitch(count);
  zyn_scratch<float> sorted(6 * pitch);
  zyn_scratch<zyn_detection> compaction(count);
  if (!sorted || !compaction) return 0;

  // The sort's two arrays of 8 bytes a record fit into the 20 of the other buffer.
  static_assert(sizeof(zyn_detection) >= 2 * sizeof(sort_entry), "room for the sort");
  auto* entries = reinterpret_cast<sort_entry*>(compaction.get());
  for (int32_t i = 0; i < count; i++)
    entries[i] = static_cast<uint64_t>(sort_key(boxes[i].score)) << 32 | static_cast<uint32_t>(i);
  sort_entry* order = entries;
  if (count <= kInsertionCount)
    insertion_sort(entries, count);
  else
    order = radix_sort(entries, entries + count, count);

  float* const base = sorted.get();
  const columns c{base,
                  base + pitch,
                  base + 2 * pitch,
                  base + 3 * pitch,
                  base + 4 * pitch,
                  reinterpret_cast<int32_t*>(base + 5 * pitch)};
  const int32_t n = survivors(c, boxes, order, count, iou_threshold);

  // Through the buffer, so that out may be the array of boxes itself.
  for (int32_t i = 0; i < n; i++) compaction[i] = boxes[c.index[i]];
  memcpy(out, compaction.get(), static_cast<size_t>(n) * sizeof(zyn_detection));
  return n;
}

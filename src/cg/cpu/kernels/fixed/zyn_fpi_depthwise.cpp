// Fixed-point depthwise convolution, stride 1 or 2, 16 outputs at a time. The products of a
// row are added in pairs (madd): two neighbouring columns, then the third of a 3 x 3 kernel
// beside nothing. There are two groups of 8 outputs: the even and the odd ones of a row
// (stride 1), its first and second 8, or, in narrow planes, those of two rows (stride 2).
//
// Every plane goes through a padded copy, a band of rows at a time. The vectors of one
// column follow each other down the band; 3 x 3 with stride 1 loads a row once, and adds it to
// the three outputs that read it: vectors that cross a cache line are what loads cost most.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kBandWords = 4096;
constexpr int64_t kSlack = 3 * kZynFpiLanes;  // what idle lanes read behind the last row

// Up to d = 16 the low half of sum >> d is a part of the sum, so that the bias may join it
// and the odd groups may shift to the left.
constexpr int32_t kMostSmallShift = 16;

enum layout { kEvenOdd, kHalves, kTwoRows };

struct channel {
  const zyn_fpi_layer* layer;
  const int16_t* weights;
  const int32_t* pairs;  // of weights, row by row; kernels other than 3 x 3
  int32_t start;         // of the sums: r, and where the shift is small the bias
  int16_t bias;          // for the results otherwise
};

bool is_3x3(const zyn_fpi_layer& l) {
  return l.kernel_x == 3 && l.kernel_y == 3 && l.dilation_x == 1 && l.dilation_y == 1;
}

void pack_pairs(int32_t* to, const int16_t* weights, const zyn_fpi_layer& l) {
  for (int64_t y = 0; y < l.kernel_y; y++, weights += l.kernel_x)
    for (int64_t x = 0; x < l.kernel_x; x += zyn_fpi_pair_step(l))
      *to++ = zyn_fpi_pair_at(weights, x, l);
}

channel make_channel(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue, int64_t c,
                     int32_t* pairs) {
  const zyn_fpi_layer& l = plan->layer;
  const int16_t bias = epilogue.bias_of(c);
  const uint32_t round = zyn_fpi_round_term(plan->shift);
  const int16_t* weights = plan->weights + c * l.kernel_x * l.kernel_y;
  if (!is_3x3(l)) pack_pairs(pairs, weights, l);
  if (plan->shift > kMostSmallShift) return {&l, weights, pairs, static_cast<int32_t>(round), bias};
  const uint32_t start = round + (static_cast<uint32_t>(bias) << plan->shift);
  return {&l, weights, pairs, static_cast<int32_t>(start), 0};
}

// What the vectors of all channels have in common.
struct limits {
  __m256i right, left;  // shifts of even and odd groups
  __m256i low, high;
};

struct row_taps {
  __m256i pair, third;
  explicit row_taps(const int16_t* w)
      : pair(zyn_fpi_broadcast(w)), third(_mm256_srli_epi32(zyn_fpi_broadcast(w + 1), 16)) {}
  __m256i sum(__m256i columns01, __m256i columns2) const {
    return _mm256_add_epi32(_mm256_madd_epi16(columns01, pair), _mm256_madd_epi16(columns2, third));
  }
  __m256i sum(const int16_t* row) const { return sum(zyn_fpi_load(row), zyn_fpi_load(row + 2)); }
};

struct filter {
  row_taps upper, middle, lower;
  __m256i start, bias;
  limits ends;
  filter(const channel& c, const limits& given)
      : upper(c.weights),
        middle(c.weights + 3),
        lower(c.weights + 6),
        start(_mm256_set1_epi32(c.start)),
        bias(_mm256_set1_epi16(c.bias)),
        ends(given) {}
};

// Results of 16 finished sums, even[j] in lane 2 j.
template <bool kSmallShift>
inline __m256i narrow(__m256i even, __m256i odd, __m256i bias, const limits& ends) {
  const __m256i v = kSmallShift ? _mm256_blend_epi16(_mm256_srlv_epi32(even, ends.right),
                                                     _mm256_sllv_epi32(odd, ends.left), 0xAA)
                                : _mm256_add_epi16(zyn_fpi_interleave(even, odd, ends.right), bias);
  return _mm256_min_epi16(_mm256_max_epi16(v, ends.low), ends.high);
}

// A column of vectors: rows of input and of output lie these words apart. A split one is a
// vector of 8 outputs of a row and 8 of another, which lies skipped rows below.
struct column {
  const int16_t* in;
  int16_t* out;
  int64_t pitch, out_pitch, rows, skipped;
};

// The sums of a group that still miss rows: one has had two, the other one.
struct pending {
  __m256i two, one;
};

inline __m256i take_row(pending& sums, __m256i columns01, __m256i columns2, const filter& f) {
  const __m256i done = _mm256_add_epi32(sums.two, f.lower.sum(columns01, columns2));
  sums.two = _mm256_add_epi32(sums.one, f.middle.sum(columns01, columns2));
  sums.one = _mm256_add_epi32(f.start, f.upper.sum(columns01, columns2));
  return done;
}

template <bool kSplit>
inline __m256i load(const int16_t* at, int64_t other) {
  if (!kSplit) return zyn_fpi_load(at);
  return _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at))),
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + other)), 1);
}

inline void store_halves(int16_t* low, int16_t* high, __m256i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(low), _mm256_castsi256_si128(v));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(high), _mm256_extracti128_si256(v, 1));
}

template <bool kSplit, bool kSmallShift>
void filter_stride1(const column& c, const channel& of, const limits& ends) {
  const filter f(of, ends);
  const int16_t* in = c.in;
  int16_t* out = c.out;
  const int64_t pitch = c.pitch, out_pitch = c.out_pitch;
  const int64_t other = c.skipped * pitch, out_other = c.skipped * out_pitch;
  pending even = {}, odd = {};
  for (int i = 0; i < 2; i++, in += pitch) {
    take_row(even, load<kSplit>(in, other), load<kSplit>(in + 2, other), f);
    take_row(odd, load<kSplit>(in + 1, other), load<kSplit>(in + 3, other), f);
  }
  for (int64_t rows = c.rows; rows > 0; rows--, in += pitch, out += out_pitch) {
    const __m256i first = take_row(even, load<kSplit>(in, other), load<kSplit>(in + 2, other), f);
    const __m256i next = take_row(odd, load<kSplit>(in + 1, other), load<kSplit>(in + 3, other), f);
    const __m256i v = narrow<kSmallShift>(first, next, f.bias, f.ends);
    if (kSplit)
      store_halves(out, out + out_other, v);
    else
      zyn_fpi_store(out, v);
  }
}

// One addition and one multiplication less than by rows, for loads that stride 1 could not
// afford: the third columns of the upper two rows make a pair.
inline __m256i sum_of(const int16_t* r0, int64_t pitch, __m256i third01, const filter& f) {
  const int16_t *r1 = r0 + pitch, *r2 = r1 + pitch;
  const __m256i columns2 = _mm256_blend_epi16(zyn_fpi_load(r0 + 2), zyn_fpi_load(r1 + 1), 0xAA);
  const __m256i upper = _mm256_add_epi32(_mm256_madd_epi16(zyn_fpi_load(r0), f.upper.pair),
                                         _mm256_madd_epi16(zyn_fpi_load(r1), f.middle.pair));
  const __m256i thirds = _mm256_add_epi32(_mm256_madd_epi16(columns2, third01), f.start);
  return _mm256_add_epi32(_mm256_add_epi32(upper, thirds), f.lower.sum(r2));
}

template <layout kLayout, bool kSmallShift>
void filter_stride2(const column& c, const channel& of, const limits& ends) {
  constexpr int64_t kRows = kLayout == kTwoRows ? 2 : 1;
  const filter f(of, ends);
  const __m256i third01 = _mm256_blend_epi16(zyn_fpi_broadcast(of.weights + 2),
                                             zyn_fpi_broadcast(of.weights + 4), 0xAA);
  const int16_t* in = c.in;
  int16_t* out = c.out;
  const int64_t pitch = c.pitch, out_pitch = c.out_pitch;
  const int64_t second = kLayout == kTwoRows ? 2 * pitch : kZynFpiLanes;
  for (int64_t rows = c.rows; rows > 0; rows -= kRows) {
    const __m256i v = zyn_fpi_part(narrow<kSmallShift>(
        sum_of(in, pitch, third01, f), sum_of(in + second, pitch, third01, f), f.bias, f.ends));
    if (kLayout == kHalves)
      zyn_fpi_store(out, v);
    else
      store_halves(out, out + out_pitch, v);
    in += kRows * 2 * pitch;
    out += kRows * out_pitch;
  }
}

// Any kernel, the two groups those of a row. kPairs: in a row of the kernel, 0 for any number.
template <int kStride, bool kSmallShift, int kPairs>
void filter_any(const column& c, const channel& of, const limits& given) {
  constexpr int64_t kSecond = kStride == 1 ? 1 : kZynFpiLanes;
  const zyn_fpi_layer l = *of.layer;
  const limits ends = given;
  const __m256i start = _mm256_set1_epi32(of.start), bias = _mm256_set1_epi16(of.bias);
  const int64_t step = zyn_fpi_pair_step(l), apart = step * l.dilation_x;
  const int64_t pairs = kPairs ? kPairs : (l.kernel_x + step - 1) / step;
  const int64_t next_row = l.dilation_y * c.pitch;
  const int16_t* in = c.in;
  int16_t* out = c.out;
  for (int64_t rows = c.rows; rows > 0; rows--, in += kStride * c.pitch, out += c.out_pitch) {
    __m256i even = start, odd = start;
    const int32_t* pair = of.pairs;
    const int16_t* row = in;
    const auto add = [&](const int16_t* at) __attribute__((always_inline)) {
      const __m256i w = _mm256_set1_epi32(*pair++);
      even = _mm256_add_epi32(even, _mm256_madd_epi16(zyn_fpi_load(at), w));
      odd = _mm256_add_epi32(odd, _mm256_madd_epi16(zyn_fpi_load(at + kSecond), w));
    };
    for (int64_t y = l.kernel_y; y > 0; y--, row += next_row) {
      if constexpr (kPairs > 0) {
        ZYN_UNROLL for (int x = 0; x < kPairs; x++) add(row + x * apart);
      } else {
        for (int64_t x = 0; x < pairs; x++) add(row + x * apart);
      }
    }
    const __m256i v = narrow<kSmallShift>(even, odd, bias, ends);
    zyn_fpi_store(out, kStride == 1 ? v : zyn_fpi_part(v));
  }
}

using filter_function = void(const column& c, const channel& of, const limits& ends);

filter_function* choose_filter(const zyn_fpi_layer& l, int64_t width, bool is_small) {
  static constexpr filter_function* k3x3[][2] = {
      {filter_stride1<false, false>, filter_stride1<false, true>},
      {filter_stride2<kHalves, false>, filter_stride2<kHalves, true>},
      {filter_stride2<kTwoRows, false>, filter_stride2<kTwoRows, true>}};
  static constexpr filter_function* kAny[][3][2] = {
      {{filter_any<1, false, 0>, filter_any<1, true, 0>},
       {filter_any<1, false, 3>, filter_any<1, true, 3>},
       {filter_any<1, false, 4>, filter_any<1, true, 4>}},
      {{filter_any<2, false, 0>, filter_any<2, true, 0>},
       {filter_any<2, false, 3>, filter_any<2, true, 3>},
       {filter_any<2, false, 4>, filter_any<2, true, 4>}}};
  const int64_t pairs = zyn_fpi_pair_count(l) / l.kernel_y;  // 3: 5 columns, 4: 7
  if (!is_3x3(l)) return kAny[l.stride_x - 1][pairs == 3 || pairs == 4 ? pairs - 2 : 0][is_small];
  return k3x3[l.stride_x == 1             ? kEvenOdd
              : 2 * width <= kZynFpiLanes ? kTwoRows
                                          : kHalves][is_small];
}

// How the planes of a layer are worked on.
struct scheme {
  filter_function* run;
  filter_function* run_split;  // or null
  limits ends;
  int64_t stride, width, height;
  int64_t reach;   // input rows of an output row
  int64_t pitch;   // of the padded copy
  int64_t band;    // output rows at a time
  int64_t inside;  // words of an input row that windows reach
};

scheme make_scheme(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                   const zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t width = output->dims[0], height = output->dims[1], stride = l.stride_x;
  const int64_t columns = stride * (width - 1) + (l.kernel_x - int64_t{1}) * l.dilation_x + 1;
  const int64_t reach = (l.kernel_y - int64_t{1}) * l.dilation_y + 1;
  const int64_t pitch = (columns + kZynFpiLanes - 1) / kZynFpiLanes * kZynFpiLanes;
  const int64_t most = (kBandWords / pitch - reach) / stride + 1;
  const int64_t inside = columns - l.pad_x;
  const bool is_small = plan->shift <= kMostSmallShift;
  const limits ends = {_mm256_set1_epi32(plan->shift),
                       _mm256_set1_epi32(kMostSmallShift - plan->shift),
                       _mm256_set1_epi16(epilogue.low), _mm256_set1_epi16(epilogue.high)};
  filter_function* const split =
      is_small ? filter_stride1<true, true> : filter_stride1<true, false>;
  return {choose_filter(l, width, is_small),
          is_3x3(l) && stride == 1 ? split : nullptr,
          ends,
          stride,
          width,
          height,
          reach,
          pitch,
          height <= most ? height
          : most < 2     ? 2
                         : most / 2 * 2,
          inside < input->dims[0] ? inside : input->dims[0]};
}

// Rows first to first + count - 1 of a padded plane, counted from the first of the input.
void fill(int16_t* to, const scheme& s, const int16_t* plane, const zyn_tensor* input,
          int64_t first, int64_t count) {
  if (s.inside <= 0) return;
  const int64_t width = input->dims[0], height = input->dims[1], end = first + count;
  const int64_t pitch = s.pitch, inside = s.inside;
  const int64_t begin = first < 0 ? 0 : first;
  const int64_t behind = height < end ? height : end;
  if (begin < behind)
    zyn_fpi_copy_rows(to + (begin - first) * pitch, pitch, plane + begin * width, width, inside,
                      behind - begin);
  if (s.band == s.height) return;  // nothing but zeros has been in the other rows
  for (int64_t y = first; y < end; y++, to += pitch)
    if (y < 0 || y >= height) memset(to, 0, static_cast<size_t>(inside) * sizeof(int16_t));
}

// The outputs of a band. Vectors reach beyond the end of rows that are shorter than they are.
void filter_band(const scheme& s, const int16_t* band, int16_t* out, int64_t out_pitch,
                 int64_t rows, const channel& of) {
  constexpr int64_t kHalf = kZynFpiLanes / 2;
  const int64_t last = s.width > kZynFpiLanes ? s.width - kZynFpiLanes : 0;
  for (int64_t x = 0; x < s.width; x += kZynFpiLanes) {
    if (s.run_split && s.width >= kHalf && s.width - x <= kHalf) {
      // The last columns of the upper and of the lower rows, which share one if they are odd.
      const int64_t at = s.width - kHalf, upper = (rows + 1) / 2;
      return s.run_split({band + at, out + at, s.pitch, out_pitch, upper, rows - upper}, of,
                         s.ends);
    }
    const int64_t at = x < last ? x : last;
    s.run({band + s.stride * at, out + at, s.pitch, out_pitch, rows, 0}, of, s.ends);
  }
}

}  // namespace

// The copy has at most the rows of two output rows where kBandWords hold fewer.
int64_t zyn_fpi_scratch_depthwise(const zyn_fpi_layer& layer, const zyn_tensor* output) {
  const int64_t reach_x = (layer.kernel_x - int64_t{1}) * layer.dilation_x;
  const int64_t reach_y = (layer.kernel_y - int64_t{1}) * layer.dilation_y;
  const int64_t pitch = layer.stride_x * int64_t{output->dims[0]} + reach_x + kZynFpiLanes;
  return pitch * (2 * layer.stride_y + reach_y + 1) + 3 * kBandWords +
         2 * zyn_fpi_pair_count(layer);
}

uint32_t zyn_fpi_run_depthwise(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                               zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const scheme s = make_scheme(plan, epilogue, output, input);
  // One block: pairs of weights, the copy, results. The copied rows begin at the start of a
  // vector; two rows at once may be one too many.
  const int64_t packed = is_3x3(l) ? 0 : (2 * zyn_fpi_pair_count(l) + kZynFpiLanes) & -kZynFpiLanes;
  const int64_t lead = -l.pad_x & (kZynFpiLanes - 1);
  const int64_t copied = packed + lead + s.pitch * (s.band * s.stride + s.reach) + kSlack;
  auto words = zyn_scratch<int16_t>::zeroed(copied + kZynFpiLanes * (s.band + 1));
  if (!words) return ZYN_RET_ERR_MEMORY;
  int16_t *const band = words.get() + packed + lead, *const results = words.get() + copied;
  auto* const pairs = reinterpret_cast<int32_t*>(words.get());
  const int64_t in_plane = int64_t{input->dims[0]} * input->dims[1];
  const int16_t* const end = zyn_fpi_words(output) + output->count;
  int16_t* out = zyn_fpi_words(output);
  for (int64_t c = 0; c < l.out_channels; c++) {
    const channel of = make_channel(plan, epilogue, c, pairs);
    for (int64_t y = 0; y < s.height; y += s.band) {
      const int64_t rows = s.height - y < s.band ? s.height - y : s.band;
      fill(band + l.pad_x, s, zyn_fpi_words(input) + c * in_plane, input, y * s.stride - l.pad_y,
           (rows - 1) * s.stride + s.reach);
      int16_t* const next = out + rows * s.width;
      // What lies behind short rows is written later, but for the last ones of all.
      if (s.width >= kZynFpiLanes || end - next >= 2 * kZynFpiLanes) {
        filter_band(s, band, out, s.width, rows, of);
      } else {
        filter_band(s, band, results, kZynFpiLanes, rows, of);
        zyn_fpi_copy_rows(out, s.width, results, kZynFpiLanes, s.width, rows);
      }
      out = next;
    }
  }
  return ZYN_RET_OK;
}

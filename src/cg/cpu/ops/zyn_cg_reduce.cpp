// One value along any axes. Neighbouring axes that share their fate are one, so that at most
// five are left, in turn kept and reduced. Where the fastest is reduced, its elements lie in
// the lanes of four vectors; where it is kept, the lanes are outputs side by side. Either
// way single precision joins few elements, whose results go on in double precision: long
// axes lose nothing.
#include "cg/cpu/ops/zyn_cg_eight.h"
#include "cg/cpu/ops/zyn_cg_further.h"

namespace {

constexpr int64_t kJoined = 64;       // elements of a lane between two steps in double precision
constexpr int64_t kFewElements = 32;  // of a row whose additions leave the processor loads to spare

struct reduce_state : zyn_cg_varied_state {
  zyn_reduce_param param;
};

// The axes that are left. Steps in the input, and for kept ones in the output, of elements.
struct reduction {
  zyn_cg_walked kept[kZynMaxDims], reduced[kZynMaxDims];
  int32_t kept_count, reduced_count;
  int64_t row;       // extent of the fastest axis, which is in neither list
  bool row_reduced;  // else kept
  int64_t count;     // elements for one output
};

reduction plan(const zyn_cg_extents& shape, int32_t axes) {
  reduction r = {};
  r.row = r.count = 1;
  int64_t in = 1, out = 1;
  int32_t last = -1;  // whether the axis before was reduced; -1: there was none
  for (int32_t d = 0; d < shape.dim_count; d++) {
    const int64_t extent = shape.dims[d];
    const int32_t reduced = axes >> d & 1;
    if (reduced) r.count *= extent;
    if (extent == 1) continue;
    if (last < 0) {
      r.row_reduced = reduced == 1;
      r.row = extent;
    } else if (reduced == last && r.kept_count + r.reduced_count == 0) {
      r.row *= extent;
    } else if (reduced == last) {
      (reduced ? r.reduced[r.reduced_count - 1] : r.kept[r.kept_count - 1]).extent *= extent;
    } else if (reduced) {
      r.reduced[r.reduced_count++] = {extent, in, 0};
    } else {
      r.kept[r.kept_count++] = {extent, in, out};
    }
    last = reduced;
    in *= extent;
    if (!reduced) out *= extent;
  }
  return r;
}

// What an operation does with eight elements, and with doubles.
template <typename T>
struct sum_of {
  static __m256 start() { return _mm256_setzero_ps(); }
  static __m256 part(__m256 v, int64_t) { return v; }  // idle lanes are 0
  static __m256 join(__m256 a, __m256 b) { return zyn_eight<T>::add(a, b); }
  static double first() { return 0; }
  static __m256d join(__m256d a, __m256d b) { return _mm256_add_pd(a, b); }
};

template <typename T>
struct squares_of : sum_of<T> {
  static __m256 part(__m256 v, int64_t) { return _mm256_mul_ps(v, v); }
};

// v with another value in the lanes from count on.
inline __m256 fill_idle(__m256 v, __m256 idle, int64_t count) {
  return _mm256_blendv_ps(idle, v, _mm256_castsi256_ps(zyn_first_lanes(count)));
}

template <typename T>
struct max_of {
  static __m256 start() { return zyn_eight<T>::lowest(); }
  static __m256 part(__m256 v, int64_t count) { return fill_idle(v, start(), count); }
  static __m256 join(__m256 a, __m256 b) { return zyn_eight<T>::largest(a, b); }
  static double first() { return -static_cast<double>(INFINITY); }
  static __m256d join(__m256d a, __m256d b) { return _mm256_max_pd(a, b); }
};

template <typename T>
struct min_of {
  static __m256 start() { return zyn_eight<T>::highest(); }
  static __m256 part(__m256 v, int64_t count) { return fill_idle(v, start(), count); }
  static __m256 join(__m256 a, __m256 b) { return zyn_eight<T>::smallest(a, b); }
  static double first() { return static_cast<double>(INFINITY); }
  static __m256d join(__m256d a, __m256d b) { return _mm256_min_pd(a, b); }
};

// Eight lanes in double precision.
template <typename Kind, typename T>
struct totals {
  __m256d half[2] = {_mm256_set1_pd(Kind::first()), _mm256_set1_pd(Kind::first())};

  void take(__m256 v) {
    for (int i = 0; i < 2; i++) half[i] = Kind::join(half[i], zyn_eight<T>::to_double(v, i == 1));
  }
  void lanes(double (&values)[8]) const {
    _mm256_storeu_pd(values, half[0]);
    _mm256_storeu_pd(values + 4, half[1]);
  }
  double one() const {
    double values[4];
    _mm256_storeu_pd(values, Kind::join(half[0], half[1]));
    const __m128d pair = _mm256_castpd256_pd128(Kind::join(
        _mm256_set_pd(0, 0, values[1], values[0]), _mm256_set_pd(0, 0, values[3], values[2])));
    const __m256d both = Kind::join(_mm256_castpd128_pd256(pair),
                                    _mm256_castpd128_pd256(_mm_unpackhi_pd(pair, pair)));
    return _mm256_cvtsd_f64(both);
  }
};

// A total as the output's element.
void finish(float* out, double total, int32_t operation, int64_t count) {
  if (operation == ZYN_REDUCE_MEAN) total /= static_cast<double>(count);
  *out = static_cast<float>(operation == ZYN_REDUCE_L2 ? sqrt(total) : total);
}
void finish(int16_t* out, double total, int32_t operation, int64_t count) {
  if (operation == ZYN_REDUCE_MEAN) total = floor(total / static_cast<double>(count) + 0.5);
  *out = static_cast<int16_t>(total);
}

// A row of elements into one total.
template <typename Kind, typename T>
void reduce_row(totals<Kind, T>* total, const T* in, int64_t count) {
  using eight = zyn_eight<T>;
  for (int64_t i = 0; i + 32 <= count;) {
    __m256 v[4] = {Kind::start(), Kind::start(), Kind::start(), Kind::start()};
    const int64_t end = zyn_smaller(i + 32 * kJoined, count);
    for (; i + 32 <= end; i += 32)
      ZYN_UNROLL for (int k = 0; k < 4; k++) v[k] =
          Kind::join(v[k], Kind::part(eight::load(in + i + 8 * k), 8));
    total->take(Kind::join(Kind::join(v[0], v[1]), Kind::join(v[2], v[3])));
  }
  const int64_t rest = count % 32;
  if (rest == 0) return;
  in += count - rest;
  __m256 v = Kind::start();
  int64_t i = 0;
  for (; i + 8 <= rest; i += 8) v = Kind::join(v, Kind::part(eight::load(in + i), 8));
  if (i < rest) v = Kind::join(v, Kind::part(eight::load(in + i, rest - i), rest - i));
  total->take(v);
}

// Totals of four rows as outputs.
inline __m256d finish(float, __m256d total, int32_t operation, __m256d count) {
  if (operation == ZYN_REDUCE_MEAN) return _mm256_div_pd(total, count);
  return operation == ZYN_REDUCE_L2 ? _mm256_sqrt_pd(total) : total;
}
inline __m256d finish(int16_t, __m256d total, int32_t operation, __m256d count) {
  if (operation != ZYN_REDUCE_MEAN) return total;
  return _mm256_floor_pd(_mm256_add_pd(_mm256_div_pd(total, count), _mm256_set1_pd(0.5)));
}

// The lanes of each of four vectors joined. ByMemory: see zyn_eight.
template <typename Kind, typename T, bool ByMemory>
__m256d join_lanes(const __m256* v) {
  using eight = zyn_eight<T>;
  __m256d row[4];
  ZYN_UNROLL for (int k = 0; k < 4; k++) {
    __m256d half[2] = {eight::to_double(v[k], false), eight::to_double(v[k], true)};
    if (ByMemory) eight::to_doubles(v[k], half);
    row[k] = Kind::join(half[0], half[1]);
  }
  const __m256d even =
      Kind::join(_mm256_unpacklo_pd(row[0], row[1]), _mm256_unpackhi_pd(row[0], row[1]));
  const __m256d odd =
      Kind::join(_mm256_unpacklo_pd(row[2], row[3]), _mm256_unpackhi_pd(row[2], row[3]));
  return Kind::join(_mm256_permute2f128_pd(even, odd, 0x20),
                    _mm256_permute2f128_pd(even, odd, 0x31));
}

// Totals of groups of eight short rows, apart elements from row to row: together, none of them
// waits for its own sums.
template <typename Kind, typename T>
[[gnu::noinline]] void reduce_eights(T* out, const T* in, int64_t groups, int64_t apart,
                                     int64_t count, int32_t operation) {
  using eight = zyn_eight<T>;
  const int64_t rest = count % 8;
  const bool few = count < kFewElements;
  const __m256d divisor = _mm256_set1_pd(static_cast<double>(count));
  for (; groups > 0; groups--, in += 8 * apart, out += 8) {
    const T *upper = in, *lower = in + 4 * apart;
    const auto at = [&](int k) { return k < 4 ? upper + k * apart : lower + (k - 4) * apart; };
    __m256 v[8];
    ZYN_UNROLL for (int k = 0; k < 8; k++) v[k] = Kind::start();
    for (int64_t i = 0; i + 8 <= count; i += 8, upper += 8, lower += 8)
      ZYN_UNROLL for (int k = 0; k < 8; k++) v[k] =
          Kind::join(v[k], Kind::part(eight::load(at(k)), 8));
    if (rest > 0)
      ZYN_UNROLL for (int k = 0; k < 8; k++) v[k] =
          Kind::join(v[k], Kind::part(eight::load(at(k), rest), rest));
    ZYN_UNROLL for (int k = 0; k < 8; k += 4) {
      const __m256d total =
          few ? join_lanes<Kind, T, true>(v + k) : join_lanes<Kind, T, false>(v + k);
      eight::store(out + k, finish(T{}, total, operation, divisor));
    }
  }
}

// Rows that follow each other, one total for each.
template <typename Kind, typename T>
void reduce_short_rows(T* out, const T* in, int64_t count, int64_t rows, int32_t operation) {
  const int64_t groups = rows / 8;
  reduce_eights<Kind>(out, in, groups, count, count, operation);
  for (int64_t y = 8 * groups; y < rows; y++) {
    T same[8];
    reduce_eights<Kind>(same, in + y * count, 1, 0, count, operation);
    out[y] = same[0];
  }
}

// Outputs side by side: kVectors of eight, or, for kVectors 0, the first count of eight.
template <typename Kind, typename T, int kVectors>
void reduce_beside(T* out, const T* in, const reduction& r, int32_t operation, int64_t count) {
  constexpr int kUsed = kVectors ? kVectors : 1;
  totals<Kind, T> total[kUsed];
  __m256 v[kUsed];
  for (__m256& one : v) one = Kind::start();
  int64_t joined = 0;
  zyn_cg_walk(r.reduced, r.reduced_count, [&](int64_t at, int64_t) {
    ZYN_UNROLL for (int k = 0; k < kUsed; k++) v[k] =
        Kind::join(v[k], kVectors ? Kind::part(zyn_eight<T>::load(in + at + 8 * k), 8)
                                  : Kind::part(zyn_eight<T>::load(in + at, count), count));
    if (++joined < kJoined) return;
    joined = 0;
    for (int k = 0; k < kUsed; k++) {
      total[k].take(v[k]);
      v[k] = Kind::start();
    }
  });
  for (int k = 0; k < kUsed; k++) {
    total[k].take(v[k]);
    double values[8];
    total[k].lanes(values);
    for (int64_t i = 0; i < (kVectors ? 8 : count); i++)
      finish(out + 8 * k + i, values[i], operation, r.count);
  }
}

template <typename Kind, typename T>
void reduce_all(T* out, const T* in, const reduction& r, int32_t operation) {
  if (r.row_reduced && r.reduced_count == 0 && r.kept_count == 1 && r.row <= 8 * kJoined)
    return reduce_short_rows<Kind>(out, in, r.row, r.kept[0].extent, operation);
  zyn_cg_walk(r.kept, r.kept_count, [&](int64_t from, int64_t to) {
    const T* first = in + from;
    if (r.row_reduced) {
      totals<Kind, T> total;
      zyn_cg_walk(r.reduced, r.reduced_count,
                  [&](int64_t at, int64_t) { reduce_row<Kind>(&total, first + at, r.row); });
      return finish(out + to, total.one(), operation, r.count);
    }
    int64_t x = 0;
    for (; x + 32 <= r.row; x += 32)
      reduce_beside<Kind, T, 4>(out + to + x, first + x, r, operation, 32);
    for (; x < r.row; x += 8)
      reduce_beside<Kind, T, 0>(out + to + x, first + x, r, operation, zyn_smaller(r.row - x, 8));
  });
}

template <typename T>
void reduce(T* out, const T* in, const reduction& r, int32_t operation) {
  if (operation == ZYN_REDUCE_MAX)
    reduce_all<max_of<T>>(out, in, r, operation);
  else if (operation == ZYN_REDUCE_MIN)
    reduce_all<min_of<T>>(out, in, r, operation);
  else
    reduce_all<sum_of<T>>(out, in, r, operation);
}

// Fixed point has no root of squares.
void reduce_floats(float* out, const float* in, const reduction& r, int32_t operation) {
  if (operation == ZYN_REDUCE_L2) return reduce_all<squares_of<float>>(out, in, r, operation);
  reduce(out, in, r, operation);
}

// Whole planes of an input whose channels lie together: those of a block are side by side.
void reduce_blocks(reduce_state* state) {
  const zyn_tensor* input = state->input;
  const bool interleaved = zyn_cg_order(input) == ZYN_LAYOUT_INTERLEAVED;
  const int64_t pixels = zyn_cg_pixels(input), channels = zyn_cg_channels(input);
  for (int64_t c = 0, group; c < channels; c += group) {
    const int64_t left = channels - c;
    group = interleaved ? channels : left >= 8 ? 8 : left >= 4 ? 4 : 1;
    reduction r = {};
    r.count = pixels;
    r.row_reduced = group == 1;
    r.row = r.row_reduced ? pixels : group;
    if (!r.row_reduced) r.reduced[r.reduced_count++] = {pixels, group, 0};
    reduce_floats(zyn_cg_floats(state->output) + c, zyn_cg_floats(input) + c * pixels, r,
                  state->param.operation);
  }
}

int32_t run_reduce(void* record) {
  constexpr int32_t kPlane = 3;  // x and y
  auto* state = static_cast<reduce_state*>(record);
  if (!zyn_cg_same_input(state)) return ZYN_RET_ERR_PARA;
  state->output->layout = ZYN_LAYOUT_PLANAR;
  const zyn_tensor* input = state->input;
  if (zyn_cg_order(input) != ZYN_LAYOUT_PLANAR && input->dim_count == 3 &&
      state->param.axes == kPlane) {
    reduce_blocks(state);
    return ZYN_RET_OK;
  }
  input = zyn_cg_planar(input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  const reduction r = plan(state->shape, state->param.axes);
  void* out = state->output->data;
  if (input->type == ZYN_TYPE_FPI16)
    reduce(static_cast<int16_t*>(out), static_cast<const int16_t*>(input->data), r,
           state->param.operation);
  else
    reduce_floats(static_cast<float*>(out), static_cast<const float*>(input->data), r,
                  state->param.operation);
  return ZYN_RET_OK;
}

}  // namespace

int32_t zyn_cg_bind_reduce(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_varied<reduce_state>(graph, node, param, ZYN_OP_RESAMPLE,
                                          zyn_cg_prepare_plain<reduce_state>, run_reduce);
}

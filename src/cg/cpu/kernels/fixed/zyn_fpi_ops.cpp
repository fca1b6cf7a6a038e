// Element-wise functions, pooling and the dense product on 16-bit fixed point, 16 lanes at
// a time where it pays, in two halves of 32-bit lanes where 16 bits do not hold a step.
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"

#include <math.h>

#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "matrix/zyn_math.h"

namespace {

constexpr int32_t kSigmoidBits = 15;
constexpr int32_t kMostWord = 32767;

// zyn_fpi_map with two operands.
template <typename Function>
void map2(int16_t* out, const zyn_fpi_operand& a, const zyn_fpi_operand& b, int64_t count,
          Function f) {
  const auto whole = [](const zyn_fpi_operand& x, int64_t i) {
    return x.is_single ? _mm256_set1_epi16(*x.values) : zyn_fpi_load(x.values + i);
  };
  const auto part = [](const zyn_fpi_operand& x, int64_t i, int64_t left) {
    return x.is_single ? _mm256_set1_epi16(*x.values) : zyn_fpi_load_part(x.values + i, left);
  };
  int64_t i = 0;
  for (; i + kZynFpiLanes <= count; i += kZynFpiLanes)
    zyn_fpi_store(out + i, f(whole(a, i), whole(b, i)));
  const int64_t left = count - i;
  if (left) zyn_fpi_store_part(out + i, f(part(a, i, left), part(b, i, left)), left);
}

__m256i low_half(__m256i v) { return _mm256_cvtepi16_epi32(_mm256_castsi256_si128(v)); }
__m256i high_half(__m256i v) { return _mm256_cvtepi16_epi32(_mm256_extracti128_si256(v, 1)); }

// The low 16 bits of the lanes of two halves.
__m256i pack(__m256i low, __m256i high) {
  const __m256i mask = _mm256_set1_epi32(0xFFFF);
  const __m256i packed =
      _mm256_packus_epi32(_mm256_and_si256(low, mask), _mm256_and_si256(high, mask));
  return _mm256_permute4x64_epi64(packed, 0xD8);
}

// Shift right by a count, rounded to nearest.
struct round_shift {
  __m256i term;
  __m128i count;
  explicit round_shift(int32_t shift)
      : term(_mm256_set1_epi32(static_cast<int32_t>(zyn_fpi_round_term(shift)))),
        count(_mm_cvtsi32_si128(shift)) {}
  __m256i operator()(__m256i v) const { return _mm256_sra_epi32(_mm256_add_epi32(v, term), count); }
};

// 32-bit lanes from one q to another: one of the two shifts is by 0.
struct rescale {
  __m128i left;
  round_shift right;
  rescale(int32_t from, int32_t to)
      : left(_mm_cvtsi32_si128(to > from ? to - from : 0)), right(from > to ? from - to : 0) {}
  __m256i operator()(__m256i v) const { return right(_mm256_sll_epi32(v, left)); }
};

// map2 on 32-bit lanes of operands that are brought to q_out first.
template <typename Function>
void map2_rescaled(int16_t* out, int32_t q_out, const zyn_fpi_operand& a, const zyn_fpi_operand& b,
                   int64_t count, Function f) {
  const rescale scale_a(a.q, q_out), scale_b(b.q, q_out);
  const auto half = [=](__m256i x, __m256i y) { return f(scale_a(x), scale_b(y)); };
  map2(out, a, b, count, [=](__m256i x, __m256i y) {
    return pack(half(low_half(x), low_half(y)), half(high_half(x), high_half(y)));
  });
}

// floor((a + b / 2) / b): rounded to nearest, halves up.
int64_t divide(int64_t a, int64_t b) {
  const int64_t shifted = a + b / 2;
  const int64_t quotient = shifted / b;
  return quotient * b > shifted ? quotient - 1 : quotient;
}

int64_t least(int64_t a, int64_t b) { return a < b ? a : b; }

// Pooling reduces a window down its columns first, for a stretch of whole windows at once, then
// along the row of column results.
constexpr int64_t kStretch = 512;      // column results on the stack
constexpr int64_t kMostRows = 0xFFFF;  // whose sum 32 bits hold

struct largest {
  using column = int16_t;
  static constexpr int64_t kStart = -kMostWord - 1;
  static int64_t join(int64_t a, int64_t b) { return a > b ? a : b; }
  int16_t finish(int64_t value) const { return static_cast<int16_t>(value); }

  void reduce(int16_t* columns, const int16_t* in, int64_t rows, int64_t pitch,
              int64_t count) const {
    for (int64_t i = 0; i < count; i += kZynFpiLanes) {
      const int64_t left = count - i;
      const bool whole = left >= kZynFpiLanes;
      const auto at = [=](int64_t r) {
        const int16_t* from = in + r * pitch + i;
        return whole ? zyn_fpi_load(from) : zyn_fpi_load_part(from, left);
      };
      __m256i best = at(0);
      for (int64_t r = 1; r < rows; r++) best = _mm256_max_epi16(best, at(r));
      if (whole)
        zyn_fpi_store(columns + i, best);
      else
        zyn_fpi_store_part(columns + i, best, left);
    }
  }
  // 16 windows of 2 columns.
  void pairs(int16_t* out, const int16_t* columns) const {
    const auto half = [](__m256i v) {  // the larger of every two, in 32 bits
      const __m256i best = _mm256_max_epi16(v, _mm256_srli_epi32(v, 16));
      return _mm256_srai_epi32(_mm256_slli_epi32(best, 16), 16);
    };
    zyn_fpi_store(out,
                  pack(half(zyn_fpi_load(columns)), half(zyn_fpi_load(columns + kZynFpiLanes))));
  }
};

struct mean {
  using column = int32_t;
  static constexpr int64_t kStart = 0;
  int64_t k;
  int32_t q_in, q_out;
  rescale scale{q_in, q_out};

  static int64_t join(int64_t a, int64_t b) { return a + b; }
  int16_t finish(int64_t sum) const {
    return zyn_fpi_rescale1(static_cast<int32_t>(divide(sum, k * k)), q_in, q_out);
  }
  void reduce(int32_t* columns, const int16_t* in, int64_t rows, int64_t pitch,
              int64_t count) const {
    int64_t i = 0;
    for (; i + 8 <= count; i += 8) {
      const auto at = [=](int64_t r) {
        const int16_t* from = in + r * pitch + i;
        return _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
      };
      __m256i sum = at(0);
      for (int64_t r = 1; r < rows; r++) sum = _mm256_add_epi32(sum, at(r));
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(columns + i), sum);
    }
    for (; i < count; i++) {
      columns[i] = 0;
      for (int64_t r = 0; r < rows; r++) columns[i] += in[r * pitch + i];
    }
  }
  void pairs(int16_t* out, const int32_t* columns) const {
    const auto half = [&](const int32_t* from) {
      const auto* at = reinterpret_cast<const __m256i*>(from);
      const __m256i sums = _mm256_permute4x64_epi64(
          _mm256_hadd_epi32(_mm256_loadu_si256(at), _mm256_loadu_si256(at + 1)), 0xD8);
      return scale(_mm256_srai_epi32(_mm256_add_epi32(sums, _mm256_set1_epi32(2)), 2));
    };
    zyn_fpi_store(out, pack(half(columns), half(columns + kZynFpiLanes)));
  }
};

// count windows over columns, width of them.
template <typename Kind>
void reduce_row(int16_t* out, const typename Kind::column* columns, int64_t count, int64_t k,
                int64_t width, const Kind& kind) {
  int64_t i = 0;
  if (k == 2)
    for (; i + kZynFpiLanes <= count && (i + kZynFpiLanes) * 2 <= width; i += kZynFpiLanes)
      kind.pairs(out + i, columns + 2 * i);
  for (; i < count; i++) {
    const int64_t end = least((i + 1) * k, width);
    int64_t total = columns[i * k];
    for (int64_t c = i * k + 1; c < end; c++) total = Kind::join(total, columns[c]);
    out[i] = kind.finish(total);
  }
}

// One window of more columns or rows than are reduced at once.
template <typename Kind>
int16_t reduce_wide(const int16_t* in, int64_t rows, int64_t pitch, int64_t width,
                    const Kind& kind) {
  typename Kind::column columns[kStretch];
  int64_t total = Kind::kStart;
  for (int64_t y = 0; y < rows; y += kMostRows)
    for (int64_t x = 0; x < width; x += kStretch) {
      const int64_t count = least(kStretch, width - x);
      kind.reduce(columns, in + y * pitch + x, least(kMostRows, rows - y), pitch, count);
      for (int64_t i = 0; i < count; i++) total = Kind::join(total, columns[i]);
    }
  return kind.finish(total);
}

template <typename Kind>
void pool(int16_t* out, const int16_t* in, const zyn_fpi_pool& s, const Kind& kind) {
  typename Kind::column columns[kStretch];
  const int64_t k = s.k, step = k > kStretch ? 1 : kStretch / k;
  const int64_t across = least((s.width + k - 1) / k, s.out_width);
  const int64_t down = least((s.height + k - 1) / k, s.out_height);
  if (across < s.out_width || down < s.out_height)
    memset(out, 0, static_cast<size_t>(s.out_width * s.out_height) * sizeof(int16_t));
  for (int64_t y = 0; y < down; y++)
    for (int64_t x = 0; x < across; x += step) {
      const int64_t count = least(step, across - x), rows = least(k, s.height - y * k);
      const int64_t width = least(count * k, s.width - x * k);
      const int16_t* from = in + y * k * s.width + x * k;
      int16_t* to = out + y * s.out_width + x;
      if (k > kStretch) {
        *to = reduce_wide(from, rows, s.width, width, kind);
      } else {
        kind.reduce(columns, from, rows, s.width, width);
        reduce_row(to, columns, count, k, width, kind);
      }
    }
}

}  // namespace

void zyn_fpi_relu(int16_t* out, const int16_t* in, int64_t count) {
  zyn_fpi_map(out, in, count,
              [](__m256i x) { return _mm256_max_epi16(x, _mm256_setzero_si256()); });
}

void zyn_fpi_relu6(int16_t* out, const int16_t* in, int64_t count, int32_t q) {
  const int32_t six = 6 << q;
  const __m256i most = _mm256_set1_epi16(static_cast<int16_t>(six < kMostWord ? six : kMostWord));
  zyn_fpi_map(out, in, count, [=](__m256i x) {
    return _mm256_min_epi16(_mm256_max_epi16(x, _mm256_setzero_si256()), most);
  });
}

void zyn_fpi_hard_swish(int16_t* out, int32_t q_out, const int16_t* in, int32_t q_in,
                        int64_t count) {
  // No step leaves 32 bits: the gate is at most 6 * 2^15, c at most 2^15 / 6, and their
  // rounded product at most 2^15 once shifted.
  const __m256i three = _mm256_set1_epi32(3 << q_in);
  const __m256i six = _mm256_set1_epi32(6 << q_in);
  const __m256i sixth = _mm256_set1_epi32(((1 << q_out) + 3) / 6);
  const round_shift shift(q_in);
  const auto half = [=](__m256i x) {
    const __m256i open = _mm256_max_epi32(_mm256_add_epi32(x, three), _mm256_setzero_si256());
    const __m256i gate = shift(_mm256_mullo_epi32(_mm256_min_epi32(open, six), sixth));
    return shift(_mm256_mullo_epi32(x, gate));
  };
  zyn_fpi_map(out, in, count,
              [=](__m256i x) { return pack(half(low_half(x)), half(high_half(x))); });
}

void zyn_fpi_hard_swish_any(int16_t* values, int64_t count, int32_t q) {
  constexpr int32_t kMostQ = 31;
  if (q < 2) memset(values, 0, static_cast<size_t>(count) * sizeof(int16_t));
  if (q < 2) return;
  if (q < 16) return zyn_fpi_hard_swish(values, q, values, q, count);
  // Beyond kMostQ only the parity of q matters: it decides whether 1/6 is rounded up.
  if (q > kMostQ) q = kMostQ - 1 + (q & 1);
  const int64_t unit = int64_t{1} << q, round = unit / 2, sixth = (unit + 3) / 6;
  for (int64_t i = 0; i < count; i++) {
    const int64_t gate = ((values[i] + 3 * unit) * sixth + round) >> q;  // 0 to 6 always
    values[i] = static_cast<int16_t>((values[i] * gate + round) >> q);
  }
}

void zyn_fpi_sigmoid(int16_t* out, const int16_t* in, int32_t q_in, int64_t count) {
  constexpr double kLog2E = 1.4426950408889634, kMostPower = 1000.0;
  const __m256d unit = _mm256_set1_pd(ldexp(-kLog2E, -q_in)), one = _mm256_set1_pd(1.0);
  const __m256d most = _mm256_set1_pd(kMostPower), least = _mm256_set1_pd(-kMostPower);
  // Double precision: the rounding to 15 bits is then right for every input.
  const auto quarter = [=](__m128i x) {
    const __m256d power = _mm256_mul_pd(_mm256_cvtepi32_pd(x), unit);
    const __m256d e = zyn_exp2_4(_mm256_max_pd(_mm256_min_pd(power, most), least));
    const __m256d y = _mm256_div_pd(_mm256_set1_pd(1 << kSigmoidBits), _mm256_add_pd(one, e));
    return _mm256_cvttpd_epi32(_mm256_add_pd(y, _mm256_set1_pd(0.5)));
  };
  const auto half = [=](__m256i x) {
    const __m256i y = _mm256_set_m128i(quarter(_mm256_extracti128_si256(x, 1)),
                                       quarter(_mm256_castsi256_si128(x)));
    return _mm256_min_epi32(y, _mm256_set1_epi32(kMostWord));
  };
  zyn_fpi_map(out, in, count,
              [=](__m256i x) { return pack(half(low_half(x)), half(high_half(x))); });
}

void zyn_fpi_rescale(int16_t* out, int32_t q_out, const int16_t* in, int32_t q_in, int64_t count) {
  if (q_in == q_out) {
    if (out != in) memcpy(out, in, static_cast<size_t>(count) * sizeof(int16_t));
    return;
  }
  const rescale scale(q_in, q_out);
  zyn_fpi_map(out, in, count,
              [=](__m256i x) { return pack(scale(low_half(x)), scale(high_half(x))); });
}

void zyn_fpi_add(int16_t* out, int32_t q_out, const zyn_fpi_operand& a, const zyn_fpi_operand& b,
                 int64_t count) {
  map2_rescaled(out, q_out, a, b, count,
                [](__m256i x, __m256i y) { return _mm256_add_epi32(x, y); });
}

void zyn_fpi_subtract(int16_t* out, int32_t q_out, const zyn_fpi_operand& a,
                      const zyn_fpi_operand& b, int64_t count) {
  map2_rescaled(out, q_out, a, b, count,
                [](__m256i x, __m256i y) { return _mm256_sub_epi32(x, y); });
}

void zyn_fpi_max(int16_t* out, int32_t q_out, const zyn_fpi_operand& a, const zyn_fpi_operand& b,
                 int64_t count) {
  map2_rescaled(out, q_out, a, b, count,
                [](__m256i x, __m256i y) { return _mm256_max_epi32(x, y); });
}

void zyn_fpi_min(int16_t* out, int32_t q_out, const zyn_fpi_operand& a, const zyn_fpi_operand& b,
                 int64_t count) {
  map2_rescaled(out, q_out, a, b, count,
                [](__m256i x, __m256i y) { return _mm256_min_epi32(x, y); });
}

void zyn_fpi_multiply(int16_t* out, int32_t q_out, const zyn_fpi_operand& a,
                      const zyn_fpi_operand& b, int64_t count) {
  const round_shift shift(a.q + b.q - q_out);
  const auto half = [=](__m256i x, __m256i y) { return shift(_mm256_mullo_epi32(x, y)); };
  map2(out, a, b, count, [=](__m256i x, __m256i y) {
    return pack(half(low_half(x), low_half(y)), half(high_half(x), high_half(y)));
  });
}

void zyn_fpi_max_pool(int16_t* out, const int16_t* in, const zyn_fpi_pool& shape) {
  pool(out, in, shape, largest{});
}

void zyn_fpi_average_pool(int16_t* out, int32_t q_out, const int16_t* in, int32_t q_in,
                          const zyn_fpi_pool& shape) {
  pool(out, in, shape, mean{shape.k, q_in, q_out});
}

void zyn_fpi_linear(int16_t* out, int64_t units, const int16_t* in, const int16_t* weights,
                    int64_t features, int32_t shift) {
  const int64_t round = shift > 0 ? int64_t{1} << (shift - 1) : 0;
  const int64_t whole = features / kZynFpiLanes * kZynFpiLanes;
  const int64_t lowest = int64_t{1} << 31;
  for (int64_t j = 0; j < units; j++, weights += features) {
    // Two products add up to more than -2^31, whose bits therefore stand for 2^31. With 2^31 - 1
    // added every such sum is an unsigned number of 32 bits.
    __m256i low = _mm256_setzero_si256(), high = low;
    for (int64_t i = 0; i < whole; i += kZynFpiLanes) {
      const __m256i pairs = _mm256_madd_epi16(zyn_fpi_load(in + i), zyn_fpi_load(weights + i));
      const __m256i above = _mm256_add_epi32(pairs, _mm256_set1_epi32(INT32_MAX));
      low = _mm256_add_epi64(low, _mm256_and_si256(above, _mm256_set1_epi64x(UINT32_MAX)));
      high = _mm256_add_epi64(high, _mm256_srli_epi64(above, 32));
    }
    int64_t lanes[4];
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), _mm256_add_epi64(low, high));
    int64_t sum = round + lanes[0] + lanes[1] + lanes[2] + lanes[3] - whole / 2 * (lowest - 1);
    for (int64_t i = whole; i < features; i++) sum += in[i] * weights[i];
    out[j] = static_cast<int16_t>(sum >> shift);
  }
}

bool zyn_fpi_make_scale(zyn_fpi_scale* scale, double factor, double term, int32_t q_in,
                        int32_t q_out) {
  if (!isfinite(factor) || !isfinite(term)) return false;
  const double wanted = ldexp(factor, q_out - q_in);
  int exponent = 0;
  frexp(wanted, &exponent);
  // 30 bits of multiplier, as far as the shift reaches.
  int32_t shift = 30 - exponent;
  if (wanted == 0.0 || shift > 40) shift = 40;
  const double offset = ldexp(term, q_out + shift);
  if (shift < 1 || !(fabs(offset) < 4.0e18)) return false;
  *scale = {static_cast<int32_t>(llrint(ldexp(wanted, shift))), shift,
            static_cast<int64_t>(llrint(offset)) + (int64_t{1} << (shift - 1))};
  return true;
}

void zyn_fpi_apply_scale(int16_t* out, const int16_t* in, int64_t count,
                         const zyn_fpi_scale& scale) {
  for (int64_t i = 0; i < count; i++)
    out[i] =
        static_cast<int16_t>((in[i] * int64_t{scale.multiplier} + scale.offset) >> scale.shift);
}

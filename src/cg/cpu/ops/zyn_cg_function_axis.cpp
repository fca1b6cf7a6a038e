// Functions of type 9 along an axis: softmax, its logarithm, division by the length. The lines
// along the axis lie outer x inner, inner elements side by side: eight and more lines are computed
// at once wherever they do, and short lines that lie one behind the other are turned first. Long
// sums are taken in parts, so that rounding does not grow with the axis.
#include <math.h>

#include "base/zyn_integers.h"
#include "cg/cpu/ops/zyn_cg_function.h"
#include "cg/cpu/zyn_cg_support.h"
#include "matrix/zyn_math.h"

namespace {

constexpr int64_t kPart = 64;       // terms of one partial sum
constexpr int64_t kShortLine = 32;  // shorter lines are turned
constexpr int32_t kWide = 4;        // vectors side by side

// keep: what is left of an element until the sum of all terms is known; finish: the result. The
// largest element of a line is its shift where the function uses one, which leaves no exponential
// above 1; inference flushes what is below the normal range.
struct softmax {
  static constexpr bool kShifts = true;
  static __m256 keep(__m256 x, __m256 shift) { return zyn_exp_flushed8(_mm256_sub_ps(x, shift)); }
  static __m256 term(__m256 kept) { return kept; }
  static __m256 total(__m256 sum, __m256) { return sum; }
  static __m256 finish(__m256 kept, __m256 total) { return _mm256_div_ps(kept, total); }
};

struct log_softmax {
  static constexpr bool kShifts = true;
  static __m256 keep(__m256 x, __m256 shift) { return _mm256_sub_ps(x, shift); }
  static __m256 term(__m256 kept) { return zyn_exp_flushed8(kept); }
  static __m256 total(__m256 sum, __m256) { return zyn_log8(sum); }
  static __m256 finish(__m256 kept, __m256 total) { return _mm256_sub_ps(kept, total); }
};

struct l2_norm {
  static constexpr bool kShifts = false;
  static __m256 keep(__m256 x, __m256) { return x; }
  static __m256 term(__m256 kept) { return _mm256_mul_ps(kept, kept); }
  static __m256 total(__m256 sum, __m256 least) {  // in this order NaN passes
    return _mm256_max_ps(least, _mm256_sqrt_ps(sum));
  }
  static __m256 finish(__m256 kept, __m256 total) { return _mm256_div_ps(kept, total); }
};

// Lines of n elements pitch floats apart: 8 * Vectors of them side by side, or with one vector as
// many as its first lanes. out may be in.
template <typename Norm, int32_t Vectors>
void norm_columns(float* out, const float* in, int64_t n, int64_t pitch, int64_t lanes,
                  __m256 least) {
  const __m256i mask = zyn_first_lanes(lanes);
  const auto load = [&](const float* p, int32_t v) {
    return Vectors == 1 ? _mm256_maskload_ps(p, mask) : _mm256_loadu_ps(p + 8 * v);
  };
  const auto store = [&](float* p, int32_t v, __m256 value) {
    if constexpr (Vectors == 1)
      _mm256_maskstore_ps(p, mask, value);
    else
      _mm256_storeu_ps(p + 8 * v, value);
  };
  __m256 shift[Vectors], total[Vectors];
  ZYN_UNROLL for (int32_t v = 0; v < Vectors; v++) {
    shift[v] = load(in, v);
    total[v] = _mm256_setzero_ps();
  }
  for (int64_t i = 1; Norm::kShifts && i < n; i++)
    ZYN_UNROLL for (int32_t v = 0; v < Vectors; v++) shift[v] =
        _mm256_max_ps(shift[v], load(in + i * pitch, v));
  for (int64_t first = 0; first < n; first += kPart) {
    __m256 sum[Vectors];
    ZYN_UNROLL for (int32_t v = 0; v < Vectors; v++) sum[v] = _mm256_setzero_ps();
    for (int64_t i = first; i < zyn_smaller(first + kPart, n); i++)
      ZYN_UNROLL for (int32_t v = 0; v < Vectors; v++) {
        const __m256 kept = Norm::keep(load(in + i * pitch, v), shift[v]);
        store(out + i * pitch, v, kept);
        sum[v] = _mm256_add_ps(sum[v], Norm::term(kept));
      }
    ZYN_UNROLL for (int32_t v = 0; v < Vectors; v++) total[v] = _mm256_add_ps(total[v], sum[v]);
  }
  ZYN_UNROLL for (int32_t v = 0; v < Vectors; v++) total[v] = Norm::total(total[v], least);
  for (int64_t i = 0; i < n; i++)
    ZYN_UNROLL for (int32_t v = 0; v < Vectors; v++)
        store(out + i * pitch, v, Norm::finish(load(out + i * pitch, v), total[v]));
}

// All lanes joined, in every lane.
template <typename Join>
__m256 joined(__m256 x, Join join) {
  x = join(x, _mm256_permute2f128_ps(x, x, 1));
  x = join(x, _mm256_shuffle_ps(x, x, 0x4E));
  return join(x, _mm256_shuffle_ps(x, x, 0xB1));
}

// One line of n elements side by side.
template <typename Norm>
void norm_line(float* out, const float* in, int64_t n, __m256 least) {
  // Idle lanes hold what changes neither the largest element nor the sum.
  const __m256 idle = _mm256_set1_ps(Norm::kShifts ? -INFINITY : 0.0f);
  const auto load = [&](int64_t i) {
    if (i + 8 <= n) return _mm256_loadu_ps(in + i);
    const __m256i mask = zyn_first_lanes(n - i);
    return _mm256_blendv_ps(idle, _mm256_maskload_ps(in + i, mask), _mm256_castsi256_ps(mask));
  };
  const auto larger = [](__m256 x, __m256 y) { return _mm256_max_ps(x, y); };
  const auto add = [](__m256 x, __m256 y) { return _mm256_add_ps(x, y); };
  __m256 shift = idle, total = _mm256_setzero_ps();
  if (Norm::kShifts) {
    __m256 largest[kWide] = {idle, idle, idle, idle};
    int64_t i = 0;
    for (; i + 8 * kWide <= n; i += 8 * kWide)
      ZYN_UNROLL for (int32_t v = 0; v < kWide; v++) largest[v] =
          larger(largest[v], _mm256_loadu_ps(in + i + 8 * v));
    shift = larger(larger(largest[0], largest[1]), larger(largest[2], largest[3]));
    for (; i < n; i += 8) shift = larger(shift, load(i));
    shift = joined(shift, larger);
  }
  for (int64_t first = 0; first < n; first += 8 * kPart) {
    __m256 sum = _mm256_setzero_ps();
    for (int64_t i = first; i < zyn_smaller(first + 8 * kPart, n); i += 8) {
      const __m256 kept = Norm::keep(load(i), shift);
      if (i + 8 <= n)
        _mm256_storeu_ps(out + i, kept);
      else
        _mm256_maskstore_ps(out + i, zyn_first_lanes(n - i), kept);
      sum = add(sum, Norm::term(kept));
    }
    total = add(total, sum);
  }
  total = Norm::total(joined(total, add), least);
  zyn_map(out, out, n, [=](__m256 kept) { return Norm::finish(kept, total); });
}

// Short lines of n elements one behind the other, eight at a time.
template <typename Norm>
void norm_short_lines(float* out, const float* in, int64_t lines, int64_t n, __m256 least) {
  alignas(32) float turned[8 * kShortLine];
  const __m256i places =
      _mm256_mullo_epi32(zyn_lane_numbers(), _mm256_set1_epi32(static_cast<int32_t>(n)));
  for (int64_t line = 0; line < lines; line += 8) {
    const int64_t count = zyn_smaller(lines - line, 8);
    const __m256 mask = _mm256_castsi256_ps(zyn_first_lanes(count));
    const float* from = in + line * n;
    for (int64_t i = 0; i < n; i++)
      _mm256_store_ps(turned + 8 * i,
                      _mm256_mask_i32gather_ps(_mm256_setzero_ps(), from + i, places, mask, 4));
    norm_columns<Norm, 1>(turned, turned, n, 8, 8, least);
    float* to = out + line * n;
    for (int64_t lane = 0; lane < count; lane++)
      for (int64_t i = 0; i < n; i++) *to++ = turned[8 * i + lane];
  }
}

template <typename Norm>
void norm_tensor(zyn_tensor* output, const zyn_tensor* input, const zyn_func_param& param) {
  const auto axis = static_cast<int32_t>(param.a);
  const int64_t n = input->dims[axis];
  int64_t inner = 1;
  for (int32_t d = 0; d < axis; d++) inner *= input->dims[d];
  const int64_t outer = input->count / (inner * n);
  const __m256 least = _mm256_set1_ps(param.b);
  float* out = zyn_cg_floats(output);
  const float* in = zyn_cg_floats(input);
  if (inner == 1 && n < kShortLine) return norm_short_lines<Norm>(out, in, outer, n, least);
  for (int64_t k = 0; k < outer; k++, out += inner * n, in += inner * n) {
    if (inner == 1) {
      norm_line<Norm>(out, in, n, least);
      continue;
    }
    int64_t i = 0;
    for (; i + 8 * kWide <= inner; i += 8 * kWide)
      norm_columns<Norm, kWide>(out + i, in + i, n, inner, 8, least);
    for (; i < inner; i += 8) norm_columns<Norm, 1>(out + i, in + i, n, inner, inner - i, least);
  }
}

}  // namespace

void zyn_cg_apply_axis_function(zyn_tensor* output, const zyn_tensor* input,
                                const zyn_func_param& param) {
  if (param.function == ZYN_FUNC_SOFTMAX) return norm_tensor<softmax>(output, input, param);
  if (param.function == ZYN_FUNC_LOG_SOFTMAX) return norm_tensor<log_softmax>(output, input, param);
  norm_tensor<l2_norm>(output, input, param);
}

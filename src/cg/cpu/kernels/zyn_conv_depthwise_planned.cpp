// Depthwise convolutions of method 2: 3 x 3 and 5 x 5, padding half the kernel, stride 1
// and 2. A group of output rows goes down the plane together, so that an input row is
// loaded once for all taps that use it. Every output is one accumulator that takes its
// taps row by row. Vectors that touch the left or right border load by mask; the last
// vector of a row overlaps the one before it; rows above and below the image are left
// out.
#include <immintrin.h>

#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "cg/cpu/kernels/zyn_conv_plan.h"

namespace {

#define ZYN_UNROLL _Pragma("GCC unroll 16")

constexpr int64_t kVector = 8;
constexpr int kRowGroup = 4;  // output rows that go together

int64_t smaller(int64_t a, int64_t b) { return a < b ? a : b; }

// One channel.
struct plane {
  const float* input;
  const float* bias;  // or null
  float* output;
  int64_t input_w, input_h, output_w, output_h;
};

// Lanes i of a vector at column x for which 0 <= x + i < width.
__m256i inside(int64_t x, int64_t width) {
  const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  const __m256i column = _mm256_add_epi32(lane, _mm256_set1_epi32(static_cast<int32_t>(x)));
  const __m256i low = _mm256_cmpgt_epi32(column, _mm256_set1_epi32(-1));
  const __m256i high = _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int32_t>(width)), column);
  return _mm256_and_si256(low, high);
}

// What the taps of one kernel row see under 8 neighbouring output pixels: tap kx of pixel
// i the input column first + i * kStride + kx. With stride 2 the lanes of all taps, and
// so of the sums, are in the order that in_order undoes.
template <int kKernel, int kStride>
struct taps;

template <int kKernel>
struct taps<kKernel, 1> {
  static constexpr int64_t kReach = kVector + kKernel - 1;  // floats read from first on
  __m256i masks[kKernel];
  taps(int64_t first, int64_t width) {
    ZYN_UNROLL for (int kx = 0; kx < kKernel; kx++) masks[kx] = inside(first + kx, width);
  }
  template <bool kMasked>
  [[gnu::always_inline]] void load(const float* row, __m256 (&x)[kKernel]) const {
    ZYN_UNROLL for (int kx = 0; kx < kKernel; kx++) x[kx] =
        kMasked ? _mm256_maskload_ps(row + kx, masks[kx]) : _mm256_loadu_ps(row + kx);
  }
  static __m256 in_order(__m256 y) { return y; }
};

template <int kKernel>
struct taps<kKernel, 2> {
  static constexpr int kPairs = (kKernel + 1) / 2;
  static constexpr int64_t kReach = 2 * kVector + 2 * (kPairs - 1);
  __m256i low[kPairs], high[kPairs];
  taps(int64_t first, int64_t width) {
    ZYN_UNROLL for (int i = 0; i < kPairs; i++) {
      low[i] = inside(first + 2 * i, width);
      high[i] = inside(first + 2 * i + kVector, width);
    }
  }
  template <bool kMasked>
  [[gnu::always_inline]] void load(const float* row, __m256 (&x)[kKernel]) const {
    ZYN_UNROLL for (int i = 0; i < kPairs; i++) {
      const float* p = row + 2 * i;
      const __m256 a = kMasked ? _mm256_maskload_ps(p, low[i]) : _mm256_loadu_ps(p);
      const __m256 b =
          kMasked ? _mm256_maskload_ps(p + kVector, high[i]) : _mm256_loadu_ps(p + kVector);
      x[2 * i] = _mm256_shuffle_ps(a, b, 0x88);
      if (2 * i + 1 < kKernel) x[2 * i + 1] = _mm256_shuffle_ps(a, b, 0xDD);
    }
  }
  static __m256 in_order(__m256 y) {
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(y), 0xD8));
  }
};

// 8 columns of kRows output rows from (x, y) on; columns of them are stored.
template <int kKernel, int kStride, int kRows, bool kMasked, int kActivation>
[[gnu::always_inline]] inline void block(const plane& p, const taps<kKernel, kStride>& t,
                                         const __m256 (&weights)[kKernel * kKernel], int64_t x,
                                         int64_t y, int64_t columns) {
  constexpr int kInputRows = (kRows - 1) * kStride + kKernel;
  const int64_t first_row = y * kStride - kKernel / 2;
  const float* row = p.input + first_row * p.input_w + x * kStride - kKernel / 2;
  __m256 sums[kRows];
  ZYN_UNROLL for (int r = 0; r < kRows; r++) sums[r] = _mm256_setzero_ps();
  ZYN_UNROLL for (int i = 0; i < kInputRows; i++) {
    if (first_row + i >= 0 && first_row + i < p.input_h) {
      __m256 v[kKernel];
      t.template load<kMasked>(row + i * p.input_w, v);
      ZYN_UNROLL for (int r = 0; r < kRows; r++) {
        const int ky = i - r * kStride;
        if (ky < 0 || ky >= kKernel) continue;
        ZYN_UNROLL for (int kx = 0; kx < kKernel; kx++) sums[r] =
            _mm256_fmadd_ps(weights[ky * kKernel + kx], v[kx], sums[r]);
      }
    }
  }
  float* to = p.output + y * p.output_w + x;
  ZYN_UNROLL for (int r = 0; r < kRows; r++) {
    __m256 sum = t.in_order(sums[r]);
    if (p.bias) sum = _mm256_add_ps(sum, _mm256_broadcast_ss(p.bias));
    sum = zyn_activate<kActivation>(sum);
    if (kMasked && columns < kVector)
      _mm256_maskstore_ps(to + r * p.output_w, zyn_first_lanes(columns), sum);
    else
      _mm256_storeu_ps(to + r * p.output_w, sum);
  }
}

template <int kKernel, int kStride, int kRows, int kActivation>
void row_group(const plane& p, const __m256 (&weights)[kKernel * kKernel], int64_t y) {
  using row_taps = taps<kKernel, kStride>;
  const int64_t columns = smaller(p.output_w, kVector);
  for (int64_t column = 0; column < p.output_w; column += kVector) {
    const int64_t x = p.output_w < kVector ? 0 : smaller(column, p.output_w - kVector);
    const int64_t first = x * kStride - kKernel / 2;
    const row_taps t(first, p.input_w);
    if (first >= 0 && first + row_taps::kReach <= p.input_w)
      block<kKernel, kStride, kRows, false, kActivation>(p, t, weights, x, y, columns);
    else
      block<kKernel, kStride, kRows, true, kActivation>(p, t, weights, x, y, columns);
  }
}

template <int kKernel, int kStride>
struct run_planes {
  const zyn_conv_plan* plan;
  const float* input;
  float* output;
  const float* bias;

  template <int kActivation>
  void run() const {
    const int64_t w = plan->input_w, h = plan->input_h;
    const int64_t out_w = plan->output_w, out_h = plan->output_h;
    for (int64_t c = 0; c < plan->input_channels; c++) {
      const plane p = {input + c * w * h,
                       bias ? bias + c : nullptr,
                       output + c * out_w * out_h,
                       w,
                       h,
                       out_w,
                       out_h};
      __m256 weights[kKernel * kKernel];
      for (int i = 0; i < kKernel * kKernel; i++)
        weights[i] = _mm256_broadcast_ss(plan->weights + c * kKernel * kKernel + i);
      if (out_h < kRowGroup) {
        for (int64_t y = 0; y < out_h; y++)
          row_group<kKernel, kStride, 1, kActivation>(p, weights, y);
        continue;
      }
      for (int64_t y = 0; y < out_h; y += kRowGroup)
        row_group<kKernel, kStride, kRowGroup, kActivation>(p, weights,
                                                            smaller(y, out_h - kRowGroup));
    }
  }
};

}  // namespace

uint32_t zyn_conv_run_depthwise(float* output, const float* input, const zyn_conv_plan* plan,
                                const zyn_conv_epilogue& epilogue) {
  const int32_t activation = epilogue.activation;
  const float* bias = epilogue.bias;
  switch (plan->kind) {
    case ZYN_PLAN_DEPTHWISE_3X3:
      zyn_with_activation(activation, run_planes<3, 1>{plan, input, output, bias});
      break;
    case ZYN_PLAN_DEPTHWISE_3X3_S2:
      zyn_with_activation(activation, run_planes<3, 2>{plan, input, output, bias});
      break;
    case ZYN_PLAN_DEPTHWISE_5X5:
      zyn_with_activation(activation, run_planes<5, 1>{plan, input, output, bias});
      break;
    default:
      zyn_with_activation(activation, run_planes<5, 2>{plan, input, output, bias});
      break;
  }
  return 0;
}

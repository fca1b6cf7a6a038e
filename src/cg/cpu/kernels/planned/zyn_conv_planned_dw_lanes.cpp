// Depthwise 3 x 3 convolutions of method 2 on small planes: 8 channels at a time, one per
// lane. The 8 planes are transposed into [row][column][channel] with their zero
// border, so that no lane is lost at the ends of narrow rows and every load is aligned, and
// the sums are transposed back on the way out. Every output is one accumulator that takes
// its taps row by row.
#include <immintrin.h>

#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"

namespace {

constexpr int64_t kLanes = 8;
constexpr int64_t kLinePair = 32;  // floats of two cache lines, which come together
constexpr int64_t kKernel = 3, kTaps = kKernel * kKernel;
// Input and sums share the first cache level with the planes; larger planes, wider rows and
// rows that fill at least 8 of 9 lanes are faster row by row.
constexpr int64_t kMostFloats = 6144;
constexpr int64_t kMostWidth = 20;

// The places in the scratch region of a plan: the weights and bias of 8 channels, their
// padded planes, the sums, and a table of where the pixels of a plane go.
struct lanes_layout {
  int64_t pitch;  // floats of one padded row
  int64_t planes, sums, table, floats;

  explicit lanes_layout(const zyn_conv_plan* plan) {
    const int64_t w = plan->input_w, h = plan->input_h;
    pitch = (w + 2) * kLanes;
    planes = (kTaps + 1) * kLanes;
    sums = planes + (h + 2) * pitch;
    table = sums + plan->output_pixels * kLanes;
    floats = table + w * h;
  }
};

bool is_suitable(const zyn_conv_plan* plan) {
  const int64_t w = plan->output_w, row_lanes = (w + kLanes - 1) / kLanes * kLanes;
  if (plan->kernel != kKernel || plan->input_channels < kLanes) return false;
  if (plan->input_w > kMostWidth || plan->input_h > kMostFloats) return false;
  if (plan->output_pixels < kLanes || row_lanes * 8 <= w * 9) return false;
  const lanes_layout layout(plan);
  return layout.table - layout.planes <= kMostFloats;
}

template <int kStride>
struct run_lanes {
  const zyn_conv_plan* plan;
  const float* input;
  float* output;
  const float* bias;
  lanes_layout layout{plan};
  float* scratch = plan->scratch.lanes;

  // The weights of the channels c to c + 7, then their bias. A bias of -0 changes no sum.
  void load_filter(int64_t c) const {
    for (int64_t tap = 0; tap < kTaps; tap++)
      for (int64_t i = 0; i < kLanes; i++)
        scratch[tap * kLanes + i] = plan->weights[(c + i) * kTaps + tap];
    for (int64_t i = 0; i < kLanes; i++) scratch[kTaps * kLanes + i] = bias ? bias[c + i] : -0.0f;
  }

  // Transposes 8 planes; their border is zero since the plan was made. Meanwhile the second
  // cache level is asked for the place of the results: within a network it has lost them since
  // the last inference.
  void load_planes(const float* planes, const float* results) const {
    const int64_t count = static_cast<int64_t>(plan->input_w) * plan->input_h;
    const int32_t* table = reinterpret_cast<const int32_t*>(scratch + layout.table);
    for (int64_t at = 0; at < count; at += kLanes) {
      for (int64_t i = 0; kStride == 1 && i < kLanes * kLanes; i += kLinePair)
        _mm_prefetch(reinterpret_cast<const char*>(results + at * kLanes + i), _MM_HINT_T1);
      at = zyn_smaller(at, count - kLanes);
      __m256 t[8];
      zyn_transpose_8x8(planes + at, count, t);
      ZYN_UNROLL for (int i = 0; i < 8; i++) _mm256_storeu_ps(scratch + table[at + i], t[i]);
    }
  }

  // kPixels sums next to each other, so many that their chains hide each other's latency.
  template <int kPixels>
  [[gnu::always_inline]] static void sum_pixels(const float* weights, const float* in,
                                                int64_t pitch, float* out) {
    __m256 sums[kPixels];
    ZYN_UNROLL for (int p = 0; p < kPixels; p++) sums[p] = _mm256_setzero_ps();
    ZYN_UNROLL for (int ky = 0; ky < kKernel; ky++, weights += kKernel * kLanes, in += pitch) {
      __m256 weight[kKernel];
      ZYN_UNROLL for (int kx = 0; kx < kKernel; kx++) weight[kx] =
          _mm256_loadu_ps(weights + kx * kLanes);
      // Every value is loaded once for all the sums that take it.
      ZYN_UNROLL for (int x = 0; x < (kPixels - 1) * kStride + kKernel; x++) {
        const __m256 value = _mm256_loadu_ps(in + x * kLanes);
        ZYN_UNROLL for (int p = 0; p < kPixels; p++) {
          const int kx = x - p * kStride;
          if (kx >= 0 && kx < kKernel) sums[p] = _mm256_fmadd_ps(weight[kx], value, sums[p]);
        }
      }
    }
    ZYN_UNROLL for (int p = 0; p < kPixels; p++) _mm256_storeu_ps(out + p * kLanes, sums[p]);
  }

  // A row of width pixels in blocks of 8; a rest of 1 to 7 shares evenly with the last block.
  static void sum_row(const float* weights, const float* in, int64_t pitch, float* out,
                      int64_t width) {
    while (width > 0) {
      const int64_t n = width <= 8 ? width : width < 16 ? (width + 1) / 2 : 8;
      block(n, weights, in, pitch, out);
      in += n * kStride * kLanes;
      out += n * kLanes;
      width -= n;
    }
  }
  [[gnu::always_inline]] static void block(int64_t n, const float* weights, const float* in,
                                           int64_t pitch, float* out) {
    switch (n) {
      case 1:
        return sum_pixels<1>(weights, in, pitch, out);
      case 2:
        return sum_pixels<2>(weights, in, pitch, out);
      case 3:
        return sum_pixels<3>(weights, in, pitch, out);
      case 4:
        return sum_pixels<4>(weights, in, pitch, out);
      case 5:
        return sum_pixels<5>(weights, in, pitch, out);
      case 6:
        return sum_pixels<6>(weights, in, pitch, out);
      case 7:
        return sum_pixels<7>(weights, in, pitch, out);
      default:
        return sum_pixels<8>(weights, in, pitch, out);
    }
  }

  template <int kActivation>
  void store_planes(float* planes) const {
    const float* sums = scratch + layout.sums;
    const float* filter_bias = scratch + kTaps * kLanes;
    const int64_t count = plan->output_pixels;
    for (int64_t at = 0; at < count; at += kLanes) {
      at = zyn_smaller(at, count - kLanes);
      __m256 t[8];
      zyn_transpose_8x8(sums + at * kLanes, kLanes, t);
      ZYN_UNROLL for (int i = 0; i < 8; i++) {
        const __m256 y = _mm256_add_ps(t[i], _mm256_broadcast_ss(filter_bias + i));
        _mm256_storeu_ps(planes + i * count + at, zyn_activate<kActivation>(y));
      }
    }
  }

  template <int kActivation>
  void run() const {
    const int64_t out_w = plan->output_w, out_h = plan->output_h, pixels = plan->output_pixels;
    const int64_t plane = static_cast<int64_t>(plan->input_w) * plan->input_h;
    for (int64_t c = 0; c + kLanes <= plan->input_channels; c += kLanes) {
      load_filter(c);
      load_planes(input + c * plane, output + c * pixels);
      for (int64_t y = 0; y < out_h; y++)
        sum_row(scratch, scratch + layout.planes + y * kStride * layout.pitch, layout.pitch,
                scratch + layout.sums + y * out_w * kLanes, out_w);
      store_planes<kActivation>(output + c * pixels);
    }
  }
};

}  // namespace

int64_t zyn_conv_lanes_floats(const zyn_conv_plan* plan) {
  return is_suitable(plan) ? lanes_layout(plan).floats : 0;
}

void zyn_conv_fill_lanes(const zyn_conv_plan* plan) {
  const lanes_layout layout(plan);
  const int64_t w = plan->input_w, h = plan->input_h;
  int32_t* table = reinterpret_cast<int32_t*>(plan->scratch.lanes + layout.table);
  for (int64_t i = 0; i < w * h; i++)
    table[i] =
        static_cast<int32_t>(layout.planes + (i / w + 1) * layout.pitch + (i % w + 1) * kLanes);
}

int64_t zyn_conv_run_lanes(float* output, const float* input, const zyn_conv_plan* plan,
                           const zyn_conv_epilogue& epilogue) {
  if (!is_suitable(plan)) return 0;
  if (plan->stride == 1)
    zyn_with_activation(epilogue.activation, run_lanes<1>{plan, input, output, epilogue.bias});
  else
    zyn_with_activation(epilogue.activation, run_lanes<2>{plan, input, output, epilogue.bias});
  return plan->input_channels / kLanes * kLanes;
}

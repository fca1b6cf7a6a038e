// Depthwise convolutions of method 2: 3 x 3 and 5 x 5, padding half the kernel, stride 1
// and 2. Those of 5 x 5 taps are method 0's, which sums them in the same order; the ones here are
// of 3 x 3. A group of output rows goes along the plane together, so that an input row is
// loaded once for all taps that use it. Every output is one accumulator that takes its
// taps row by row. Rows above and below the image are read from a row of zeros; vectors
// that touch the left or right border load by mask; the last vector of a row overlaps the
// one before it.
//
// A dense layer of 3 x 3 with one or two output channels is a sum of such layers, which waits in
// the output.
#include <immintrin.h>

#include "cg/cpu/kernels/planar/zyn_conv_planar.h"
#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"

namespace {

constexpr int64_t kVector = 8;
constexpr int64_t kLine = 16;  // floats of a cache line
// Input and output of more floats than this (2 MB) do not stay in the second cache level.
constexpr int64_t kMostCachedFloats = 512 * 1024;
constexpr int64_t kRowsFloats = 4096;  // of a plane, which stay in the first level
constexpr int kTaps = 9;

// Which borders of the image a vector touches.
enum { kNone = 0, kLeft = 1, kRight = 2, kBoth = 3 };

// What the taps of one kernel row see under 8 neighbouring output pixels: tap kx of pixel
// i the input column i * stride + kx, from the first column that tap 0 sees. A load is
// named by its distance from there; masks holds the lanes of load i that lie inside the
// image.
template <int kKernel, int kStride>
struct taps;

template <int kKernel>
struct taps<kKernel, 1> {
  static constexpr int kLoads = kKernel, kPad = kKernel / 2;
  static constexpr int distance(int i) { return i; }
  static constexpr bool masked(int i, int edge) {
    return edge == kBoth || (edge == kLeft && i < kPad) || (edge == kRight && i > kPad);
  }
  template <int kEdge, typename Load>
  [[gnu::always_inline]] static void take(const Load& load, __m256 (&x)[kKernel]) {
    ZYN_UNROLL for (int i = 0; i < kKernel; i++) x[i] = load(i);
  }
  static __m256 in_order(__m256 y) { return y; }
};

// Stride 2 takes the taps from pairs of loads, those at even and those at odd places. The
// lanes of all taps, and so of the sums, are in the order that in_order undoes.
template <int kKernel>
struct taps<kKernel, 2> {
  static constexpr int kLoads = kKernel + 1, kPad = kKernel / 2;
  static constexpr int distance(int i) {
    return (i < 2 ? 0 : i / 2 * 2 - 1) + i % 2 * static_cast<int>(kVector);
  }
  static constexpr bool masked(int i, int edge) {
    return edge == kBoth || (edge == kLeft && distance(i) < kPad) ||
           (edge == kRight && i % 2 == 1 && i > 1);
  }
  template <int kEdge, typename Load>
  [[gnu::always_inline]] static void take(const Load& load, __m256 (&x)[kKernel]) {
    x[0] = _mm256_shuffle_ps(load(0), load(1), 0x88);
    ZYN_UNROLL for (int i = 2; i < kLoads; i += 2) {
      const __m256 low = load(i), high = load(i + 1);
      x[i - 1] = _mm256_shuffle_ps(low, high, 0x88);
      x[i] = _mm256_shuffle_ps(low, high, 0xDD);
    }
  }
  static __m256 in_order(__m256 y) {
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(y), 0xD8));
  }
};

template <int kKernel, int kStride>
struct run_planes {
  using row_taps = taps<kKernel, kStride>;
  static constexpr int kPad = kKernel / 2;
  // Output rows that go together: as many as there are registers for.
  static constexpr int kRowGroup = kStride == 1 ? 4 : 3;

  const zyn_conv_plan* plan;
  const float* input;
  float* output;
  const float* bias;
  int64_t first_channel;
  bool far = false;  // whether the tensors are larger than the second cache level
  // The first and the last vector of a row.
  int64_t last_x = 0, stored = kVector;
  int first_edge = kNone, last_edge = kNone;
  __m256i fresh = {};  // the lanes of the last vector that the one before has not
  __m256i first_masks[row_taps::kLoads] = {}, last_masks[row_taps::kLoads] = {};

  run_planes(const zyn_conv_plan* plan_, const float* input_, float* output_, const float* bias_,
             int64_t first_channel_ = 0)
      : plan(plan_), input(input_), output(output_), bias(bias_), first_channel(first_channel_) {
    const int64_t width = plan->output_w;
    const int64_t in_plane = static_cast<int64_t>(plan->input_w) * plan->input_h;
    far = (in_plane + plan->output_pixels) * plan->input_channels > kMostCachedFloats;
    stored = zyn_smaller(width, kVector);
    last_x = width - stored;
    fresh = zyn_lanes_within(static_cast<int32_t>(width % kVector - kVector),
                             static_cast<int32_t>(kVector));
    if (width % kVector == 0) fresh = zyn_first_lanes(kVector);
    first_edge = edge(0);
    last_edge = edge(last_x);
    ZYN_UNROLL for (int i = 0; i < row_taps::kLoads; i++) {
      const int32_t first = row_taps::distance(i) - kPad;
      const int32_t last = static_cast<int32_t>(last_x * kStride) + first;
      first_masks[i] = zyn_lanes_within(first, plan->input_w);
      last_masks[i] = zyn_lanes_within(last, plan->input_w);
    }
  }

  // Borders that the loads of the vector at output column x touch.
  int edge(int64_t x) const {
    const int64_t first = x * kStride - kPad;
    const int64_t end = first + row_taps::distance(row_taps::kLoads - 1) + kVector;
    const int64_t low_end = first + row_taps::distance(row_taps::kLoads - kStride) + kVector;
    if (low_end > plan->input_w && (kStride == 2 || first < 0)) return kBoth;
    return (first < 0 ? kLeft : 0) + (end > plan->input_w ? kRight : 0);
  }

  // The rows of one group.
  template <int kRows>
  struct group {
    static constexpr int kInputRows = (kRows - 1) * kStride + kKernel;
    const float* rows[kInputRows];  // at the column that tap 0 of output column 0 sees
    float* out;
    int64_t pitch;
    __m256 bias;  // -0 where there is none: it changes no sum
  };

  // One vector of a group.
  template <int kRows, int kEdge, int kActivation, bool kAdd>
  [[gnu::always_inline]] void block(const group<kRows>& g,
                                    const __m256 (&weights)[kKernel * kKernel], int64_t x,
                                    const __m256i* masks) const {
    __m256 sums[kRows];
    const bool partial = kEdge == kBoth && stored < kVector;
    ZYN_UNROLL for (int r = 0; r < kRows; r++) {
      const float* from = g.out + r * g.pitch + x;
      sums[r] = !kAdd     ? _mm256_setzero_ps()
                : partial ? _mm256_maskload_ps(from, zyn_first_lanes(stored))
                          : _mm256_loadu_ps(from);
    }
    ZYN_UNROLL for (int i = 0; i < group<kRows>::kInputRows; i++) {
      __m256 v[kKernel];
      load_row<kEdge>(g.rows[i] + x * kStride, masks, v);
      ZYN_UNROLL for (int r = 0; r < kRows; r++) {
        const int ky = i - r * kStride;
        if (ky < 0 || ky >= kKernel) continue;
        ZYN_UNROLL for (int kx = 0; kx < kKernel; kx++) sums[r] =
            _mm256_fmadd_ps(weights[ky * kKernel + kx], v[kx], sums[r]);
      }
    }
    float* to = g.out + x;
    ZYN_UNROLL for (int r = 0; r < kRows; r++) {
      const __m256 sum = _mm256_add_ps(row_taps::in_order(sums[r]), g.bias);
      const __m256 y = zyn_activate<kActivation>(sum);
      if (partial)
        _mm256_maskstore_ps(to, zyn_first_lanes(stored), y);
      else if (kAdd && x == last_x)
        _mm256_maskstore_ps(to, fresh, y);
      else
        _mm256_storeu_ps(to, y);
      to += g.pitch;
    }
  }

  template <int kEdge>
  [[gnu::always_inline]] static void load_row(const float* row, const __m256i* masks,
                                              __m256 (&x)[kKernel]) {
    row_taps::template take<kEdge>(
        [ row, masks ](int load) __attribute__((always_inline)) {
          const float* from = row + row_taps::distance(load);
          return row_taps::masked(load, kEdge) ? _mm256_maskload_ps(from, masks[load])
                                               : _mm256_loadu_ps(from);
        },
        x);
  }

  template <int kRows, int kActivation, bool kAdd>
  [[gnu::always_inline]] void edge_block(const group<kRows>& g,
                                         const __m256 (&weights)[kKernel * kKernel], int64_t x,
                                         const __m256i* masks, int edges) const {
    switch (edges) {
      case kNone:
        return block<kRows, kNone, kActivation, kAdd>(g, weights, x, masks);
      case kLeft:
        return block<kRows, kLeft, kActivation, kAdd>(g, weights, x, masks);
      case kRight:
        return block<kRows, kRight, kActivation, kAdd>(g, weights, x, masks);
      default:
        return block<kRows, kBoth, kActivation, kAdd>(g, weights, x, masks);
    }
  }

  // Asks the cache for what 8 output columns of the rows after these need: the output, which
  // within a network has left the caches since the last inference, and input that is large.
  template <int kRows>
  [[gnu::always_inline]] static void ask_ahead(const float** at) {
    ZYN_UNROLL for (int64_t i = 0; i < kRows * kVector; i += kLine, *at += kLine)
        _mm_prefetch(reinterpret_cast<const char*>(*at), _MM_HINT_T0);
  }

  // Where a group's rows come from and go to.
  struct planes {
    const float* in;
    float* out;
    __m256 bias;
  };

  // kRows output rows from y on; kAdd: added to what stands there.
  template <int kRows, int kActivation, bool kAdd = false>
  void row_group(const planes& p, int64_t y, const __m256 (&weights)[kKernel * kKernel]) const {
    constexpr int kInputRows = group<kRows>::kInputRows;
    const int64_t w = plan->input_w, h = plan->input_h, out_w = plan->output_w;
    const int64_t first = y * kStride - kPad;
    group<kRows> g;
    const float* row = p.in + first * w - kPad;
    ZYN_UNROLL for (int i = 0; i < kInputRows; i++, row += w) g.rows[i] = row;
    if (first < 0 || first + kInputRows > h) {
      const float* zeros = plan->scratch.zeros - kPad;
      ZYN_UNROLL for (int i = 0; i < kInputRows; i++) {
        if (first + i < 0 || first + i >= h) g.rows[i] = zeros;
      }
    }
    g.out = p.out + y * out_w;
    g.pitch = out_w;
    g.bias = p.bias;
    edge_block<kRows, kActivation, kAdd>(g, weights, 0, first_masks, first_edge);
    const float* next_in = p.in + (first + kInputRows) * w;
    const float* next_out = g.out + kRows * out_w;
    for (int64_t x = kVector; x < last_x; x += kVector) {
      if (far) ask_ahead<kRows * kStride * kStride>(&next_in);
      ask_ahead<kRows>(&next_out);
      block<kRows, kNone, kActivation, kAdd>(g, weights, x, nullptr);
    }
    if (last_x > 0) edge_block<kRows, kActivation, kAdd>(g, weights, last_x, last_masks, last_edge);
  }

  planes planes_of(int64_t in_channel, int64_t out_channel, const float* biases) const {
    return {input + in_channel * plan->input_w * plan->input_h,
            output + out_channel * plan->output_pixels,
            biases ? _mm256_broadcast_ss(biases + out_channel) : _mm256_set1_ps(-0.0f)};
  }

  template <int kActivation>
  void run() const {
    const int64_t rows = plan->output_h;
    for (int64_t c = first_channel; c < plan->input_channels; c++) {
      __m256 weights[kKernel * kKernel];
      ZYN_UNROLL for (int i = 0; i < kKernel * kKernel; i++) weights[i] =
          _mm256_broadcast_ss(plan->weights + c * kKernel * kKernel + i);
      const planes p = planes_of(c, c, bias);
      int64_t y = 0;
      for (; y + kRowGroup <= rows; y += kRowGroup)
        row_group<kRowGroup, kActivation>(p, y, weights);
      // One row less than a group: a group that overlaps the one before.
      if (rows > kRowGroup && rows - y == kRowGroup - 1 && kRowGroup > 2) {
        row_group<kRowGroup, kActivation>(p, rows - kRowGroup, weights);
        continue;
      }
      for (; y + 2 <= rows; y += 2) row_group<2, kActivation>(p, y, weights);
      if (y < rows) row_group<1, kActivation>(p, y, weights);
    }
  }

  // Rows y to end - 1.
  template <int kActivation, bool kAdd>
  void rows_between(const planes& p, int64_t y, int64_t end,
                    const __m256 (&weights)[kKernel * kKernel]) const {
    for (; y + kRowGroup <= end; y += kRowGroup)
      row_group<kRowGroup, kActivation, kAdd>(p, y, weights);
    for (; y < end; y++) row_group<1, kActivation, kAdd>(p, y, weights);
  }
};

// A dense layer of few output channels as sums of depthwise ones.
struct sum_planes {
  const zyn_conv_plan* plan;
  const zyn_conv_epilogue& epilogue;
  run_planes<3, 1> of;

  // Rows y to end - 1 of what input channel c adds to output channel o.
  template <int kActivation, bool kAdd>
  void add(int64_t c, int64_t o, int64_t y, int64_t end, const float* bias) const {
    __m256 weights[kTaps];
    ZYN_UNROLL for (int t = 0; t < kTaps; t++) weights[t] =
        _mm256_broadcast_ss(plan->weights + (c * kTaps + t) * plan->channel_block + o);
    of.rows_between<kActivation, kAdd>(of.planes_of(c, o, bias), y, end, weights);
  }

  // One input channel: nothing waits for others.
  template <int kActivation>
  void run() const {
    for (int64_t o = 0; o < plan->output_channels; o++)
      add<kActivation, false>(0, o, 0, plan->output_h, epilogue.bias);
  }

  void run_all() const {
    const int64_t width = plan->output_w, height = plan->output_h, outputs = plan->output_channels;
    const int64_t some = zyn_larger(kRowsFloats / width / of.kRowGroup, 1) * of.kRowGroup;
    for (int64_t y = 0; y < height; y += some) {
      const int64_t end = zyn_smaller(y + some, height);
      for (int64_t o = 0; o < outputs; o++) add<ZYN_EPILOGUE_NONE, false>(0, o, y, end, nullptr);
      for (int64_t c = 1; c < plan->input_channels; c++)
        for (int64_t o = 0; o < outputs; o++) add<ZYN_EPILOGUE_NONE, true>(c, o, y, end, nullptr);
      for (int64_t o = 0; o < outputs; o++)
        zyn_conv_finish_rows(of.output + o * plan->output_pixels + y * width, 1, (end - y) * width,
                             {epilogue.bias ? epilogue.bias + o : nullptr, epilogue.activation});
    }
  }
};

}  // namespace

// The zeros reach a vector past the longest row.
zyn_conv_scratch_sizes zyn_conv_depthwise_sizes(const zyn_conv_plan* plan) {
  return {0, 0, 0, int64_t{plan->input_w} + 2 * kVector, zyn_conv_lanes_floats(plan)};
}

zyn_conv_scratch_sizes zyn_conv_planes_sizes(const zyn_conv_plan* plan) {
  return {0, 0, 0, int64_t{plan->input_w} + 2 * kVector, 0};
}

uint32_t zyn_conv_run_planes(float* output, const float* input, const zyn_conv_plan* plan,
                             const zyn_conv_epilogue& epilogue) {
  const sum_planes sums = {plan, epilogue, {plan, input, output, nullptr}};
  if (plan->input_channels == 1)
    zyn_with_activation(epilogue.activation, sums);
  else
    sums.run_all();
  return 0;
}

uint32_t zyn_conv_run_depthwise(float* output, const float* input, const zyn_conv_plan* plan,
                                const zyn_conv_epilogue& epilogue) {
  const int32_t activation = epilogue.activation, channels = plan->input_channels;
  if (plan->kernel == 5) {
    const int32_t k = plan->kernel, stride = plan->stride, pad = plan->pad;
    zyn_planar_depthwise({output,
                          static_cast<int32_t>(plan->output_w),
                          static_cast<int32_t>(plan->output_h),
                          channels,
                          input,
                          plan->input_w,
                          plan->input_h,
                          channels,
                          plan->weights,
                          {k, k, stride, stride, pad, pad, 1, 1},
                          epilogue},
                         k, stride);
    return 0;
  }
  const float* bias = epilogue.bias;
  const int64_t done = zyn_conv_run_lanes(output, input, plan, epilogue);
  if (done == channels) return 0;
  if (plan->stride == 1)
    zyn_with_activation(activation, run_planes<3, 1>(plan, input, output, bias, done));
  else
    zyn_with_activation(activation, run_planes<3, 2>(plan, input, output, bias, done));
  return 0;
}

// Fixed-point depthwise convolution of small planes, any kernel, stride and dilation, with 8
// channels in the lanes: rows of a few pixels would leave most of them idle.
//
// The planes of 8 channels are transposed into [pixel][channel] with zeros around them, and every
// pixel stands beside the one that the next tap of its row reads, so that a multiplication adds
// two taps (madd). Results go back by another transposition.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kBlock = 8;  // channels
constexpr int64_t kTile = 4;   // pixels
constexpr int64_t kMostPixels = 1024;

// Pairs of taps in a row, the last one beside nothing where their number is odd.
int64_t row_pairs(const zyn_fpi_layer& l) { return (l.kernel_x + int64_t{1}) / 2; }
int64_t pair_count(const zyn_fpi_layer& l) { return row_pairs(l) * l.kernel_y; }

struct extents {
  int64_t columns, rows;      // that outputs read
  int64_t pitch, all_rows;    // of the transposed pixels: those, and all of the input
  int64_t in_width, outputs;  // pixels
  int64_t inputs;

  extents(const zyn_fpi_layer& l, const zyn_tensor* output, const zyn_tensor* input)
      : columns((output->dims[0] - int64_t{1}) * l.stride_x +
                (l.kernel_x - int64_t{1}) * l.dilation_x + 1),
        rows((output->dims[1] - int64_t{1}) * l.stride_y +
             (l.kernel_y - int64_t{1}) * l.dilation_y + 1),
        pitch(columns + l.dilation_x),
        all_rows(rows),
        in_width(input->dims[0]),
        outputs(int64_t{output->dims[0]} * output->dims[1]),
        inputs(in_width * input->dims[1]) {
    if (pitch < l.pad_x + in_width) pitch = l.pad_x + in_width;
    if (all_rows < l.pad_y + int64_t{input->dims[1]}) all_rows = l.pad_y + int64_t{input->dims[1]};
  }
};

__m128i load8(const int16_t* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}
void store8(int16_t* to, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(to), v); }

// What a run works in. Offsets are of words of 16 bits.
struct work {
  const zyn_fpi_layer& l;
  const extents e;
  int16_t* pixels;       // [row][column][channel]
  int16_t* pairs;        // of the columns that outputs read
  int16_t* results;      // [pixel][channel]
  int32_t* places;       // of every input pixel among the transposed ones
  int32_t* windows;      // of every output pixel's first pair
  int32_t* pair_places;  // from there to each pair

  void fill_places() const {
    for (int64_t i = 0; i < e.inputs; i++)
      places[i] = static_cast<int32_t>(
          ((i / e.in_width + l.pad_y) * e.pitch + i % e.in_width + l.pad_x) * kBlock);
    const int64_t width =
        (e.columns - 1 - (l.kernel_x - int64_t{1}) * l.dilation_x) / l.stride_x + 1;
    for (int64_t i = 0; i < e.outputs; i++)
      windows[i] = static_cast<int32_t>(
          (i / width * l.stride_y * e.columns + i % width * l.stride_x) * 2 * kBlock);
    int32_t* to = pair_places;
    for (int64_t y = 0; y < l.kernel_y; y++)
      for (int64_t x = 0; x < l.kernel_x; x += 2)
        *to++ =
            static_cast<int32_t>((y * l.dilation_y * e.columns + x * l.dilation_x) * 2 * kBlock);
  }
  // Brings in 8 channels, valid of them.
  void take(const int16_t* planes, int64_t valid) const {
    const auto plane = [&](int64_t k) { return planes + (k < valid ? k : valid - 1) * e.inputs; };
    for (int64_t i = 0; i < e.inputs; i += 8) {
      const int64_t left = e.inputs - i;
      // The last ones once more, or, of fewer than 8, one by one.
      const int64_t at = left >= 8 ? i : e.inputs - 8;
      if (at < 0) {
        for (int64_t k = 0; k < kBlock; k++)
          for (int64_t x = 0; x < e.inputs; x++) pixels[places[x] + k] = plane(k)[x];
        break;
      }
      __m128i v[8];
      ZYN_UNROLL for (int k = 0; k < 8; k++) v[k] = load8(plane(k) + at);
      zyn_transpose_8x8(v);
      ZYN_UNROLL for (int k = 0; k < 8; k++) store8(pixels + places[at + k], v[k]);
    }
    int16_t* to = pairs;
    for (int64_t y = 0; y < e.rows; y++) {
      const int16_t* row = pixels + y * e.pitch * kBlock;
      for (int64_t x = 0; x < e.columns; x++, row += kBlock, to += 2 * kBlock) {
        const __m128i first = load8(row), second = load8(row + l.dilation_x * kBlock);
        store8(to, _mm_unpacklo_epi16(first, second));
        store8(to + kBlock, _mm_unpackhi_epi16(first, second));
      }
    }
  }
  // Takes 8 channels' results to their planes, valid of them.
  void give(int16_t* planes, int64_t valid) const {
    for (int64_t i = 0; i < e.outputs; i += 8) {
      const int64_t left = e.outputs - i;
      const int64_t at = left >= 8 ? i : e.outputs - 8;
      if (at < 0) {
        for (int64_t k = 0; k < valid; k++)
          for (int64_t x = 0; x < e.outputs; x++)
            planes[k * e.outputs + x] = results[x * kBlock + k];
        break;
      }
      __m128i v[8];
      ZYN_UNROLL for (int k = 0; k < 8; k++) v[k] = load8(results + (at + k) * kBlock);
      zyn_transpose_8x8(v);
      for (int64_t k = 0; k < valid; k++) store8(planes + k * e.outputs + at, v[k]);
    }
  }
};

// What follows the sums of 8 channels, of two pixels at a time.
struct finish {
  __m256i round, shift, bias, low, high;

  finish(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& o, int64_t channel, int64_t valid)
      : round(_mm256_set1_epi32(static_cast<int32_t>(zyn_fpi_round_term(plan->shift)))),
        shift(_mm256_set1_epi32(plan->shift)),
        low(_mm256_set1_epi16(o.low)),
        high(_mm256_set1_epi16(o.high)) {
    int16_t lanes[kBlock] = {};
    for (int64_t k = 0; k < valid; k++) lanes[k] = o.bias_of(channel + k);
    bias = _mm256_broadcastsi128_si256(load8(lanes));
  }
  __m256i operator()(__m256i first, __m256i second) const {
    const __m256i mask = _mm256_set1_epi32(0xFFFF);
    const __m256i packed =
        _mm256_packus_epi32(_mm256_and_si256(_mm256_srav_epi32(first, shift), mask),
                            _mm256_and_si256(_mm256_srav_epi32(second, shift), mask));
    const __m256i sum = _mm256_add_epi16(_mm256_permute4x64_epi64(packed, 0xD8), bias);
    return _mm256_min_epi16(_mm256_max_epi16(sum, low), high);
  }
};

// kTile output pixels from x on.
void filter_tile(const work& w, const int32_t* weights, const finish& ends, int64_t x) {
  const int16_t* at[kTile];
  __m256i sum[kTile];
  ZYN_UNROLL for (int p = 0; p < kTile; p++) {
    at[p] = w.pairs + w.windows[x + p];
    sum[p] = ends.round;
  }
  const int64_t pairs = pair_count(w.l);
  for (int64_t t = 0; t < pairs; t++) {
    const __m256i weight = zyn_fpi_load(weights + t * kBlock);
    const int64_t place = w.pair_places[t];
    ZYN_UNROLL for (int p = 0; p < kTile; p++) sum[p] =
        _mm256_add_epi32(sum[p], _mm256_madd_epi16(zyn_fpi_load(at[p] + place), weight));
  }
  ZYN_UNROLL for (int p = 0; p < kTile; p += 2)
      zyn_fpi_store(w.results + (x + p) * kBlock, ends(sum[p], sum[p + 1]));
}

}  // namespace

int64_t zyn_fpi_packed_depthwise_channels(const zyn_fpi_plan& plan) {
  return (plan.layer.out_channels + kBlock - 1) / kBlock * pair_count(plan.layer) * kBlock;
}

// Per block of 8 channels, every pair of weights for all of them.
void zyn_fpi_pack_depthwise_channels(zyn_fpi_plan* plan) {
  const zyn_fpi_layer& l = plan->layer;
  int32_t* to = plan->packed;
  for (int64_t first = 0; first < l.out_channels; first += kBlock)
    for (int64_t y = 0; y < l.kernel_y; y++)
      for (int64_t x = 0; x < l.kernel_x; x += 2)
        for (int64_t c = first; c < first + kBlock; c++) {
          const int16_t* row = plan->weights + (c * l.kernel_y + y) * l.kernel_x;
          *to++ =
              c < l.out_channels ? zyn_fpi_pair(row[x], x + 1 < l.kernel_x ? row[x + 1] : 0) : 0;
        }
}

bool zyn_fpi_suits_depthwise_channels(const zyn_fpi_layer& l, const zyn_tensor* output,
                                      const zyn_tensor* input) {
  // Where vectors of pixels are about as fast: those for 3 x 3 taps read a row once.
  const bool is_3x3 = l.kernel_x == 3 && l.kernel_y == 3 && l.dilation_x == 1 && l.dilation_y == 1;
  const int64_t most_width = !is_3x3 ? 12 : l.stride_x == 1 ? 7 : 4;
  const extents e(l, output, input);
  return output->dims[0] <= most_width && e.pitch <= kMostPixels && e.all_rows <= kMostPixels &&
         e.pitch * e.all_rows <= kMostPixels;
}

uint32_t zyn_fpi_run_depthwise_channels(const zyn_fpi_plan* plan,
                                        const zyn_fpi_tile_epilogue& epilogue, zyn_tensor* output,
                                        const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const extents e(l, output, input);
  const int64_t whole = (e.outputs + kTile - 1) / kTile * kTile;
  auto words = zyn_scratch<int16_t>::zeroed(
      (e.pitch * e.all_rows + 2 * e.columns * e.rows + whole) * kBlock);
  zyn_scratch<int32_t> places(e.inputs + whole + pair_count(l));
  if (!words || !places) return ZYN_RET_ERR_MEMORY;
  int16_t* const pairs = words.get() + e.pitch * e.all_rows * kBlock;
  int32_t* const windows = places.get() + e.inputs;
  const work w = {l,
                  e,
                  words.get(),
                  pairs,
                  pairs + 2 * e.columns * e.rows * kBlock,
                  places.get(),
                  windows,
                  windows + whole};
  w.fill_places();
  for (int64_t x = e.outputs; x < whole; x++) windows[x] = 0;  // of pixels that nobody takes
  const int32_t* weights = plan->packed;
  for (int64_t c = 0; c < l.out_channels; c += kBlock, weights += pair_count(l) * kBlock) {
    const int64_t left = l.out_channels - c, valid = left < kBlock ? left : kBlock;
    w.take(zyn_fpi_words(input) + c * e.inputs, valid);
    const finish ends(plan, epilogue, c, valid);
    for (int64_t x = 0; x < e.outputs; x += kTile) filter_tile(w, weights, ends, x);
    w.give(zyn_fpi_words(output) + c * e.outputs, valid);
  }
  return ZYN_RET_OK;
}

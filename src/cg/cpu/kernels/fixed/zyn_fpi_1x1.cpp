// Fixed-point 1 x 1 convolution without padding (with strides: of a copy of the pixels that are
// read) in 16-bit lanes: the pixels of a plane are one run, and a tile is 4 output channels of
// 32 pixels.
//
// For 1 <= d <= 15 a weight is split as w = high * 2^d + low, -2^(d-1) <= low < 2^(d-1);
// then (x * w + r) >> d = x * high + ((x * low + r) >> d) exactly, and the last term is
// one rounding multiplication (mulhrs, which shifts by 15) with low * 2^(15-d). Few
// weights have a high part (those that fit the signed 16 bits shifted need none): the
// channels that have one are kept in a list. d = 0 is all high part. For d above 15 the
// high half of the product is shifted.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"

namespace {

constexpr int64_t kRows = 4;     // output channels of a tile
constexpr int64_t kPixels = 32;  // pixels of a tile: two vectors
constexpr int32_t kMulhrs = 15;  // its shift

enum mode { kRounding, kMiddle, kHigh };  // d up to 15, 16, above

// Packed: per block of 4 output channels, for every input channel the 4 weights, each
// twice in a word; behind all blocks, per block: the number of list entries, then room
// for one entry {channel, 4 high parts} per input channel.
constexpr int64_t kEntry = 1 + kRows;

int64_t blocks_of(const zyn_fpi_layer& l) { return (int64_t{l.out_channels} + kRows - 1) / kRows; }
int64_t list_words(const zyn_fpi_layer& l) { return 1 + kEntry * l.in_channels; }
const int32_t* list_of(const zyn_fpi_plan* plan, int64_t block) {
  const zyn_fpi_layer& l = plan->layer;
  return plan->packed + blocks_of(l) * l.in_channels * kRows + block * list_words(l);
}

// The part of a weight that the multiplication takes, and the rest.
struct parts {
  int32_t low, high;
};

parts split(int32_t w, int32_t d) {
  if (d > kMulhrs) return {w, 0};
  const int32_t limit = 1 << d;
  if (d > 0 && w >= -limit && w < limit) return {w * (1 << (kMulhrs - d)), 0};
  if (d == 0) return {0, w};
  const int32_t high = (w + limit / 2) >> d;
  return {(w - high * limit) * (1 << (kMulhrs - d)), high};
}

template <mode kMode>
inline __m256i product(__m256i x, __m256i w, __m256i half, __m128i shift) {
  if (kMode == kRounding) return _mm256_mulhrs_epi16(x, w);
  const __m256i high = _mm256_mulhi_epi16(x, w);
  if (kMode == kHigh) return _mm256_sra_epi16(_mm256_add_epi16(high, half), shift);
  return _mm256_add_epi16(high, _mm256_srli_epi16(_mm256_mullo_epi16(x, w), 15));
}

inline __m256i broadcast(const int32_t* word) { return _mm256_set1_epi32(*word); }

// 4 rows of 32 pixels; the planes of in lie in_pitch elements apart.
template <mode kMode>
void tile(__m256i (&sum)[2 * kRows], const int16_t* in, int64_t in_pitch, int64_t channels,
          const int32_t* weights, const int32_t* list, int32_t d) {
  const __m128i shift = _mm_cvtsi32_si128(d - 16);
  const __m256i half =
      _mm256_set1_epi16(kMode == kHigh ? static_cast<int16_t>(1 << (d - 17)) : int16_t{0});
  __m256i s00 = _mm256_setzero_si256(), s01 = s00, s10 = s00, s11 = s00;
  __m256i s20 = s00, s21 = s00, s30 = s00, s31 = s00;
  const int16_t* at = in;
  for (int64_t i = 0; i < channels; i++, at += in_pitch, weights += kRows) {
    const __m256i x0 = zyn_fpi_load(at), x1 = zyn_fpi_load(at + kZynFpiLanes);
    __m256i w = broadcast(weights);
    s00 = _mm256_add_epi16(s00, product<kMode>(x0, w, half, shift));
    s01 = _mm256_add_epi16(s01, product<kMode>(x1, w, half, shift));
    w = broadcast(weights + 1);
    s10 = _mm256_add_epi16(s10, product<kMode>(x0, w, half, shift));
    s11 = _mm256_add_epi16(s11, product<kMode>(x1, w, half, shift));
    w = broadcast(weights + 2);
    s20 = _mm256_add_epi16(s20, product<kMode>(x0, w, half, shift));
    s21 = _mm256_add_epi16(s21, product<kMode>(x1, w, half, shift));
    w = broadcast(weights + 3);
    s30 = _mm256_add_epi16(s30, product<kMode>(x0, w, half, shift));
    s31 = _mm256_add_epi16(s31, product<kMode>(x1, w, half, shift));
  }
  sum[0] = s00, sum[1] = s01, sum[2] = s10, sum[3] = s11;
  sum[4] = s20, sum[5] = s21, sum[6] = s30, sum[7] = s31;
  const int32_t* entry = list + 1;
  for (int32_t n = 0; n < list[0]; n++, entry += kEntry) {
    at = in + entry[0] * in_pitch;
    const __m256i x0 = zyn_fpi_load(at), x1 = zyn_fpi_load(at + kZynFpiLanes);
#pragma GCC unroll 4
    for (int64_t k = 0; k < kRows; k++) {
      const __m256i w = broadcast(entry + 1 + k);
      sum[2 * k] = _mm256_add_epi16(sum[2 * k], _mm256_mullo_epi16(x0, w));
      sum[2 * k + 1] = _mm256_add_epi16(sum[2 * k + 1], _mm256_mullo_epi16(x1, w));
    }
  }
}

// All output channels of up to 32 pixels.
template <mode kMode>
void run_pixels(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue, int16_t* out,
                int64_t out_pitch, const int16_t* in, int64_t in_pitch, int64_t count) {
  const zyn_fpi_layer& l = plan->layer;
  for (int64_t block = 0; block < blocks_of(l); block++) {
    __m256i sum[2 * kRows];
    tile<kMode>(sum, in, in_pitch, l.in_channels, plan->packed + block * l.in_channels * kRows,
                list_of(plan, block), plan->shift);
    for (int64_t k = 0; k < kRows && block * kRows + k < l.out_channels; k++) {
      int16_t* row = out + (block * kRows + k) * out_pitch;
      const zyn_fpi_channel_epilogue finish(epilogue, block * kRows + k);
      zyn_fpi_store_part(row, finish(sum[2 * k]), count);
      if (count > kZynFpiLanes)
        zyn_fpi_store_part(row + kZynFpiLanes, finish(sum[2 * k + 1]), count - kZynFpiLanes);
    }
  }
}

// in: planes of as many pixels as the output's.
template <mode kMode>
uint32_t run(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue, zyn_tensor* output,
             const int16_t* in) {
  const int64_t channels = plan->layer.in_channels;
  const int64_t pixels = static_cast<int64_t>(output->dims[0]) * output->dims[1];
  int16_t* out = zyn_fpi_words(output);
  // The last pixels go through a copy: nothing is read behind a plane. It is made before
  // anything is written.
  const int64_t rest = pixels % kPixels;
  auto tail = zyn_scratch<int16_t>::zeroed(rest == 0 ? 0 : channels * kPixels);
  if (rest != 0 && !tail) return ZYN_RET_ERR_MEMORY;
  int64_t x = 0;
  for (; x + kPixels <= pixels; x += kPixels)
    run_pixels<kMode>(plan, epilogue, out + x, pixels, in + x, pixels, kPixels);
  if (rest == 0) return ZYN_RET_OK;
  for (int64_t i = 0; i < channels; i++)
    memcpy(tail.get() + i * kPixels, in + i * pixels + x,
           static_cast<size_t>(rest) * sizeof(int16_t));
  run_pixels<kMode>(plan, epilogue, out + x, pixels, tail.get(), kPixels, rest);
  return ZYN_RET_OK;
}

// The pixels of every plane that a layer with strides reads, side by side.
void subsample(int16_t* out, const zyn_fpi_layer& l, const zyn_tensor* output,
               const zyn_tensor* input) {
  const int64_t width = input->dims[0], plane = width * input->dims[1];
  for (int64_t i = 0; i < l.in_channels; i++)
    for (int64_t y = 0; y < output->dims[1]; y++, out += output->dims[0]) {
      const int16_t* row = zyn_fpi_words(input) + i * plane + y * l.stride_y * width;
      for (int64_t x = 0; x < output->dims[0]; x++) out[x] = row[x * l.stride_x];
    }
}

}  // namespace

int64_t zyn_fpi_packed_1x1(const zyn_fpi_layer& layer) {
  return blocks_of(layer) * (int64_t{layer.in_channels} * kRows + list_words(layer));
}

void zyn_fpi_pack_1x1(zyn_fpi_plan* plan) {
  const zyn_fpi_layer& l = plan->layer;
  int32_t* to = plan->packed;
  for (int64_t block = 0; block < blocks_of(l); block++) {
    auto* list = const_cast<int32_t*>(list_of(plan, block));
    int32_t* entry = list + 1;
    list[0] = 0;
    for (int32_t i = 0; i < l.in_channels; i++, to += kRows) {
      int32_t any = 0;
      entry[0] = i;  // at most in_channels entries so far: there is room for this one
      for (int64_t k = 0; k < kRows; k++) {
        const int64_t o = block * kRows + k;
        const int32_t w = o < l.out_channels ? plan->weights[o * l.in_channels + i] : 0;
        const parts part = split(w, plan->shift);
        to[k] = zyn_fpi_pair(part.low, part.low);
        entry[1 + k] = zyn_fpi_pair(part.high, part.high);
        any |= part.high;
      }
      if (!any) continue;
      list[0]++;
      entry += kEntry;
    }
  }
}

uint32_t zyn_fpi_run_1x1(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                         zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t width = output->dims[0], height = output->dims[1];
  if ((width - 1) * l.stride_x >= input->dims[0] || (height - 1) * l.stride_y >= input->dims[1])
    return ZYN_RET_ERR_PARA;
  const bool strided = l.stride_x > 1 || l.stride_y > 1;
  zyn_scratch<int16_t> copy(strided ? l.in_channels * width * height : 0);
  if (strided && !copy) return ZYN_RET_ERR_MEMORY;
  if (strided) subsample(copy.get(), l, output, input);
  const int16_t* in = strided ? copy.get() : zyn_fpi_words(input);
  if (plan->shift <= kMulhrs) return run<kRounding>(plan, epilogue, output, in);
  return plan->shift == 16 ? run<kMiddle>(plan, epilogue, output, in)
                           : run<kHigh>(plan, epilogue, output, in);
}

// Fixed-point dense convolution of any kernel, stride and dilation with the output
// channels in the lanes: 8 of them in a vector of 32-bit sums, and none of the lanes idle
// however small the plane is. A tap's input is broadcast, two neighbouring columns at a
// time where the kernel has both (madd); rows under a dilated kernel are kept so that its taps are
// neighbours.
//
// The sums of an output row, or of a small plane, lie in memory, and every input channel
// adds to all of them: so its weights are read once for each.
#include "cg/cpu/kernels/fixed/zyn_fpi_rows.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kBlock = 8;         // output channels of a vector
constexpr int64_t kSmallPlane = 128;  // pixels
constexpr int64_t kFewPairs = 7;      // whose weights registers hold

// The layer as its rows are kept: no dilation along them.
zyn_fpi_layer kept(zyn_fpi_layer l) {
  l.dilation_x = 1;
  return l;
}

int64_t pairs_of(const zyn_fpi_layer& l) { return zyn_fpi_pair_count(kept(l)); }

int64_t blocks_of(const zyn_fpi_layer& l) { return (l.out_channels + kBlock - 1) / kBlock; }

// Pixels whose sums are made together: a row, or all of a small plane, so that weights
// are read and loops begun for more than a few pixels.
struct pixel_job {
  const int64_t* offsets;  // of the pairs of a window
  const int64_t* places;   // of the windows of all pixels
  int64_t pairs, pixels;
  int64_t channels, next_channel;  // of the input, words from each to the next
  __m256i round, shift;
};

inline void add_rounded(int32_t* sum, __m256i taps, __m256i shift) {
  zyn_fpi_store(sum, _mm256_add_epi32(zyn_fpi_load(sum), _mm256_srav_epi32(taps, shift)));
}

// Adds all input channels to the sums, few pairs of taps: a channel's weights stay in registers,
// and the compiler is not to see where the pairs' places come from, else it keeps less of them
// there.
template <int kPairs>
[[gnu::noinline]] void add_few(int32_t* sums, const int16_t* in, const int32_t* weights,
                               const pixel_job& job) {
  const __m256i round = job.round, shift = job.shift;
  for (int64_t i = 0; i < job.channels; i++, in += job.next_channel, weights += kPairs * kBlock) {
    __m256i w[kPairs];
    const int16_t* at[kPairs];
    ZYN_UNROLL for (int t = 0; t < kPairs; t++) {
      w[t] = zyn_fpi_load(weights + t * kBlock);
      at[t] = in + job.offsets[t];
      __asm__("" : "+r"(at[t]));
    }
    const int64_t* places = job.places;
    int32_t* sum = sums;
    for (int64_t x = 0; x < job.pixels; x++, sum += kBlock) {
      const int64_t place = places[x];
      __m256i even = round, odd = _mm256_setzero_si256();  // two chains of sums
      ZYN_UNROLL for (int t = 0; t < kPairs; t++) {
        __m256i& chain = t % 2 ? odd : even;
        const __m256i product = _mm256_madd_epi16(zyn_fpi_broadcast(at[t] + place), w[t]);
        chain = t == 1 ? product : _mm256_add_epi32(chain, product);
      }
      add_rounded(sum, kPairs > 1 ? _mm256_add_epi32(even, odd) : even, shift);
    }
  }
}

// Any taps, kPixels pixels: the weights are read once for all of them.
template <int kPixels>
inline void add_tile(int32_t* sums, const int16_t* in, const int64_t* places,
                     const int32_t* weights, const pixel_job& job) {
  __m256i taps[kPixels];
  const int16_t* first[kPixels];
  ZYN_UNROLL for (int p = 0; p < kPixels; p++) {
    taps[p] = job.round;
    first[p] = in + places[p];
  }
  const int64_t *offset = job.offsets, *const end = offset + job.pairs;
  for (; offset < end; offset++, weights += kBlock) {
    const __m256i w = zyn_fpi_load(weights);
    const int64_t at = *offset;
    ZYN_UNROLL for (int p = 0; p < kPixels; p++) taps[p] =
        _mm256_add_epi32(taps[p], _mm256_madd_epi16(zyn_fpi_broadcast(first[p] + at), w));
  }
  ZYN_UNROLL for (int p = 0; p < kPixels; p++) add_rounded(sums + p * kBlock, taps[p], job.shift);
}

void add_many(int32_t* sums, const int16_t* in, const int32_t* weights, const pixel_job& job) {
  constexpr int kTile = 8, kHalf = 4;
  for (int64_t i = 0; i < job.channels; i++) {
    int64_t x = 0;
    for (; x + kTile <= job.pixels; x += kTile)
      add_tile<kTile>(sums + x * kBlock, in, job.places + x, weights, job);
    for (; x + kHalf <= job.pixels; x += kHalf)
      add_tile<kHalf>(sums + x * kBlock, in, job.places + x, weights, job);
    for (; x < job.pixels; x++) add_tile<1>(sums + x * kBlock, in, job.places + x, weights, job);
    in += job.next_channel;
    weights += job.pairs * kBlock;
  }
}

// The sums of a single pixel, which need no memory. kPairs: 0 for any number.
template <int kPairs>
void sum_one(int32_t* sums, const int16_t* in, const int32_t* weights, const pixel_job& job) {
  const int64_t pairs = kPairs > 0 ? kPairs : job.pairs;
  const __m256i shift = job.shift;
  in += job.places[0];
  __m256i sum = _mm256_setzero_si256();
  for (int64_t i = 0; i < job.channels; i++, in += job.next_channel, weights += pairs * kBlock) {
    __m256i even = job.round, odd = _mm256_setzero_si256();  // two chains of sums
    const auto add = [&](__m256i* chain, int64_t t) {
      const __m256i value = zyn_fpi_broadcast(in + job.offsets[t]);
      *chain =
          _mm256_add_epi32(*chain, _mm256_madd_epi16(value, zyn_fpi_load(weights + t * kBlock)));
    };
    ZYN_UNROLL_BY(4) for (int64_t t = 0; t + 2 <= pairs; t += 2) add(&even, t), add(&odd, t + 1);
    if (pairs % 2) add(&even, pairs - 1);
    sum = _mm256_add_epi32(sum, _mm256_srav_epi32(_mm256_add_epi32(even, odd), shift));
  }
  zyn_fpi_store(sums, sum);
}

using adder = void (*)(int32_t*, const int16_t*, const int32_t*, const pixel_job&);

adder adder_of(int64_t pairs) {
  constexpr adder kFew[kFewPairs] = {add_few<1>, add_few<2>, add_few<3>, add_few<4>,
                                     add_few<5>, add_few<6>, add_few<7>};
  return pairs <= kFewPairs ? kFew[pairs - 1] : add_many;
}

int64_t pixels_of(const zyn_tensor* output) {
  const int64_t plane = int64_t{output->dims[0]} * output->dims[1];
  return plane <= kSmallPlane ? plane : output->dims[0];
}

zyn_fpi_reach reach_of(const zyn_fpi_layer& l, const zyn_tensor* output, int64_t pixels) {
  const int64_t width = output->dims[0];
  zyn_fpi_reach reach = {(l.kernel_y - int64_t{1}) * l.dilation_y + 1, 0, 1, l.dilation_x};
  reach.rows += (pixels / width - 1) * l.stride_y;
  // One more column, the second of a pair that has none.
  const int64_t columns = (width - 1) * l.stride_x + (l.kernel_x - int64_t{1}) * l.dilation_x + 1;
  reach.columns = ((columns - 1) / l.dilation_x + 2) * l.dilation_x;
  while (reach.most_rows < reach.rows) reach.most_rows *= 2;
  return reach;
}

// The sums of all pixels for one block of output channels.
void add_channels(int32_t* sums, const int16_t* in, const int32_t* weights, const pixel_job& job) {
  if (job.pixels == 1)
    return job.pairs == 6 ? sum_one<6>(sums, in, weights, job) : sum_one<0>(sums, in, weights, job);
  memset(sums, 0, static_cast<size_t>(kBlock * job.pixels) * sizeof(int32_t));
  adder_of(job.pairs)(sums, in, weights, job);
}

// The low halves of the sums, epilogue applied, to count planes: 8 pixels at a time, the last ones
// beside others that are not stored (sums has room for whole eights).
void store_sums(const int32_t* sums, int64_t pixels, const zyn_fpi_tile_epilogue& epilogue,
                int64_t first, int64_t count, int16_t* out, int64_t plane) {
  const __m128i low = _mm_set1_epi16(epilogue.low), high = _mm_set1_epi16(epilogue.high);
  __m128i bias[kBlock] = {};
  for (int64_t o = 0; o < count; o++) bias[o] = _mm_set1_epi16(epilogue.bias_of(first + o));
  for (int64_t x = 0; x < pixels; x += kBlock) {
    __m256 rows[kBlock];
    zyn_transpose_8x8(reinterpret_cast<const float*>(sums + x * kBlock), kBlock, rows);
    for (int64_t o = 0; o < count; o++) {
      const __m256i halves =
          _mm256_and_si256(_mm256_castps_si256(rows[o]), _mm256_set1_epi32(0xFFFF));
      const __m128i words =
          _mm_packus_epi32(_mm256_castsi256_si128(halves), _mm256_extracti128_si256(halves, 1));
      const __m128i v = _mm_min_epi16(_mm_max_epi16(_mm_add_epi16(words, bias[o]), low), high);
      int16_t* const to = out + o * plane + x;
      if (pixels - x >= kBlock) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), v);
      } else {
        alignas(16) int16_t lanes[kBlock];
        _mm_store_si128(reinterpret_cast<__m128i*>(lanes), v);
        zyn_fpi_copy(to, lanes, pixels - x);
      }
    }
  }
}

}  // namespace

double zyn_fpi_channels_cost(const zyn_fpi_layer& l, const zyn_tensor* output) {
  return static_cast<double>(output->dims[0] * blocks_of(l)) *
         static_cast<double>(2 * pairs_of(l) + 4);
}

// Per block of 8 output channels, for every input channel the pairs of the kernel, each
// for all channels of the block; absent taps and channels are 0.
int64_t zyn_fpi_packed_channels(const zyn_fpi_plan& plan) {
  const zyn_fpi_layer& layer = plan.layer;
  return blocks_of(layer) * layer.in_channels * pairs_of(layer) * kBlock;
}

int64_t zyn_fpi_scratch_channels(const zyn_fpi_layer& layer, const zyn_tensor* output) {
  constexpr int64_t kPixelWords = 2 * kBlock + 4, kPairWords = 4;  // sums and places; offsets
  const int64_t pixels = pixels_of(output);
  const int64_t ring = zyn_fpi_rows::words_of(output, layer, reach_of(layer, output, pixels));
  return ring < 0 ? ring : ring + (pixels + kBlock) * kPixelWords + pairs_of(layer) * kPairWords;
}

void zyn_fpi_pack_channels(zyn_fpi_plan* plan) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t kernel_rows = int64_t{l.in_channels} * l.kernel_y;  // of one output channel
  int32_t* to = plan->packed;
  for (int64_t first = 0; first < l.out_channels; first += kBlock)
    for (int64_t row = 0; row < kernel_rows; row++)
      for (int64_t x = 0; x < l.kernel_x; x += 2)
        for (int64_t o = first; o < first + kBlock; o++) {
          const int64_t at = (o * kernel_rows + row) * l.kernel_x;
          *to++ = o < l.out_channels ? zyn_fpi_pair_at(plan->weights + at, x, kept(l)) : 0;
        }
}

uint32_t zyn_fpi_run_channels(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                              zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t width = output->dims[0], height = output->dims[1], plane = width * height;
  const int64_t pairs = pairs_of(l), pixels = pixels_of(output);
  zyn_fpi_rows ring(input, output, l, reach_of(l, output, pixels));
  zyn_scratch<int32_t> sums(kBlock * ((pixels + kBlock - 1) / kBlock * kBlock));
  zyn_scratch<int64_t> offsets(pairs), places(pixels);
  if (!ring.words || !sums || !offsets || !places) return ZYN_RET_ERR_MEMORY;
  // More rows than one are all rows, and the ring begins with the first of them.
  for (int64_t i = 0; i < pixels; i++)
    places[i] = i / width * l.stride_y * ring.pitch + ring.column(i % width * l.stride_x);
  const pixel_job job = {offsets.get(),
                         places.get(),
                         pairs,
                         pixels,
                         ring.channels,
                         ring.capacity * ring.pitch,
                         _mm256_set1_epi32(static_cast<int32_t>(zyn_fpi_round_term(plan->shift))),
                         _mm256_set1_epi32(plan->shift)};
  for (int64_t y = 0, at = 0; at < plane; y++, at += pixels) {
    const int64_t row = y * l.stride_y;
    ring.advance(row);
    int64_t* to = offsets.get();
    for (int64_t ky = 0; ky < l.kernel_y; ky++)
      for (int64_t kx = 0; kx < l.kernel_x; kx += 2)
        *to++ = ring.slot(0, row + ky * l.dilation_y) + kx - ring.slot(0, 0);
    const int32_t* weights = plan->packed;
    for (int64_t first = 0; first < l.out_channels; first += kBlock) {
      add_channels(sums.get(), ring.slot(0, 0), weights, job);
      weights += l.in_channels * pairs * kBlock;
      const int64_t left = l.out_channels - first;
      store_sums(sums.get(), pixels, epilogue, first, left < kBlock ? left : kBlock,
                 zyn_fpi_words(output) + first * plane + at, plane);
    }
  }
  return ZYN_RET_OK;
}

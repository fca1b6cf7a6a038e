// Fixed-point dense convolution of any kernel, stride and dilation with the output
// channels in the lanes: 8 of them in a vector of 32-bit sums, and none of the lanes idle
// however small the plane is. A tap's input is broadcast, two neighbouring columns at a
// time where the kernel has both (madd).
//
// The sums of an output row, or of a small plane, lie in memory, and every input channel
// adds to all of them: so its weights are read once for each.
#include "cg/cpu/kernels/fixed/zyn_fpi_rows.h"

namespace {

constexpr int64_t kBlock = 8;         // output channels of a vector
constexpr int64_t kSmallPlane = 128;  // pixels

bool is_3x3(const zyn_fpi_layer& l) {
  return l.kernel_x == 3 && l.kernel_y == 3 && zyn_fpi_pair_step(l) == 2;
}
int64_t blocks_of(const zyn_fpi_layer& l) { return (l.out_channels + kBlock - 1) / kBlock; }

// Pixels whose sums are made together: a row, or all of a small plane, so that weights
// are read and loops begun for more than a few pixels.
struct pixel_job {
  const int64_t* offsets;  // of the pairs of a window
  const int64_t* places;   // of the windows of all pixels
  int64_t pairs, pixels;
  __m256i round, shift;
};

inline void add_rounded(int32_t* sum, __m256i taps, __m256i shift) {
  zyn_fpi_store(sum, _mm256_add_epi32(zyn_fpi_load(sum), _mm256_srav_epi32(taps, shift)));
}

// Adds one input channel to the sums, 3 x 3 taps: the weights stay in registers.
inline void add_3x3(int32_t* sums, const int16_t* in, const int32_t* weights,
                    const pixel_job& job) {
  const __m256i w00 = zyn_fpi_load(weights), w01 = zyn_fpi_load(weights + kBlock);
  const __m256i w10 = zyn_fpi_load(weights + 2 * kBlock), w11 = zyn_fpi_load(weights + 3 * kBlock);
  const __m256i w20 = zyn_fpi_load(weights + 4 * kBlock), w21 = zyn_fpi_load(weights + 5 * kBlock);
  const int16_t *r0 = in + job.offsets[0], *r1 = in + job.offsets[2], *r2 = in + job.offsets[4];
  const __m256i round = job.round, shift = job.shift;
  for (int64_t x = 0; x < job.pixels; x++, sums += kBlock) {
    const int64_t at = job.places[x];
    const __m256i t0 = _mm256_add_epi32(_mm256_madd_epi16(zyn_fpi_broadcast(r0 + at), w00),
                                        _mm256_madd_epi16(zyn_fpi_broadcast(r0 + at + 2), w01));
    const __m256i t1 = _mm256_add_epi32(_mm256_madd_epi16(zyn_fpi_broadcast(r1 + at), w10),
                                        _mm256_madd_epi16(zyn_fpi_broadcast(r1 + at + 2), w11));
    const __m256i t2 = _mm256_add_epi32(_mm256_madd_epi16(zyn_fpi_broadcast(r2 + at), w20),
                                        _mm256_madd_epi16(zyn_fpi_broadcast(r2 + at + 2), w21));
    add_rounded(sums, _mm256_add_epi32(_mm256_add_epi32(t0, t1), _mm256_add_epi32(t2, round)),
                shift);
  }
}

// Any taps, kPixels pixels: the weights are read once for all of them.
template <int kPixels>
inline void add_tile(int32_t* sums, const int16_t* in, const int64_t* places,
                     const int32_t* weights, const pixel_job& job) {
  __m256i taps[kPixels];
#pragma GCC unroll 4
  for (int p = 0; p < kPixels; p++) taps[p] = job.round;
  for (int64_t t = 0; t < job.pairs; t++) {
    const __m256i w = zyn_fpi_load(weights + t * kBlock);
    const int16_t* at = in + job.offsets[t];
#pragma GCC unroll 4
    for (int p = 0; p < kPixels; p++)
      taps[p] = _mm256_add_epi32(taps[p], _mm256_madd_epi16(zyn_fpi_broadcast(at + places[p]), w));
  }
#pragma GCC unroll 4
  for (int p = 0; p < kPixels; p++) add_rounded(sums + p * kBlock, taps[p], job.shift);
}

inline void add_any(int32_t* sums, const int16_t* in, const int32_t* weights,
                    const pixel_job& job) {
  constexpr int kTile = 4;
  int64_t x = 0;
  for (; x + kTile <= job.pixels; x += kTile)
    add_tile<kTile>(sums + x * kBlock, in, job.places + x, weights, job);
  for (; x < job.pixels; x++) add_tile<1>(sums + x * kBlock, in, job.places + x, weights, job);
}

int64_t pixels_of(const zyn_tensor* output) {
  const int64_t plane = int64_t{output->dims[0]} * output->dims[1];
  return plane <= kSmallPlane ? plane : output->dims[0];
}

zyn_fpi_reach reach_of(const zyn_fpi_layer& l, const zyn_tensor* output, int64_t pixels) {
  const int64_t width = output->dims[0];
  zyn_fpi_reach reach = {(l.kernel_y - int64_t{1}) * l.dilation_y + 1, 0, 1};
  reach.rows += (pixels / width - 1) * l.stride_y;
  // One more column, the second of a pair that has none.
  reach.columns = (width - 1) * l.stride_x + (l.kernel_x - int64_t{1}) * l.dilation_x + 2;
  while (reach.most_rows < reach.rows) reach.most_rows *= 2;
  return reach;
}

// The sums of all pixels for one block of output channels.
void add_channels(int32_t* sums, const zyn_fpi_rows& ring, const int32_t* weights, bool is_small,
                  const pixel_job& job) {
  memset(sums, 0, static_cast<size_t>(kBlock * job.pixels) * sizeof(int32_t));
  const int16_t* in = ring.slot(0, 0);
  const int64_t next_in = ring.capacity * ring.pitch, next_weights = job.pairs * kBlock;
  for (int64_t i = 0; i < ring.channels; i++, in += next_in, weights += next_weights)
    is_small ? add_3x3(sums, in, weights, job) : add_any(sums, in, weights, job);
}

// The low halves of the sums, epilogue applied, to count planes.
void store_sums(const int32_t* sums, int64_t pixels, const zyn_fpi_tile_epilogue& epilogue,
                int64_t first, int64_t count, int16_t* out, int64_t plane) {
  alignas(32) int16_t lanes[2 * kBlock] = {};
  for (int64_t o = 0; epilogue.bias && o < count; o++)
    lanes[o] = zyn_fpi_rescale1(epilogue.bias[first + o], epilogue.q_weights, epilogue.q_out);
  const __m128i bias = _mm_load_si128(reinterpret_cast<const __m128i*>(lanes));
  const __m128i low = _mm_set1_epi16(epilogue.low), high = _mm_set1_epi16(epilogue.high);
  for (int64_t x = 0; x < pixels; x++) {
    const __m256i halves =
        _mm256_and_si256(zyn_fpi_load(sums + x * kBlock), _mm256_set1_epi32(0xFFFF));
    const __m128i v = _mm_add_epi16(
        _mm_packus_epi32(_mm256_castsi256_si128(halves), _mm256_extracti128_si256(halves, 1)),
        bias);
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), _mm_min_epi16(_mm_max_epi16(v, low), high));
    for (int64_t o = 0; o < count; o++) out[o * plane + x] = lanes[o];
  }
}

}  // namespace

// Per block of 8 output channels, for every input channel the pairs of the kernel, each
// for all channels of the block; absent taps and channels are 0.
int64_t zyn_fpi_packed_channels(const zyn_fpi_plan& plan) {
  const zyn_fpi_layer& layer = plan.layer;
  return blocks_of(layer) * layer.in_channels * zyn_fpi_pair_count(layer) * kBlock;
}

int64_t zyn_fpi_scratch_channels(const zyn_fpi_layer& layer, const zyn_tensor* output) {
  constexpr int64_t kPixelWords = 2 * kBlock + 4, kPairWords = 4;  // sums and places; offsets
  const int64_t pixels = pixels_of(output);
  const int64_t ring = zyn_fpi_rows::words_of(output, layer, reach_of(layer, output, pixels));
  return ring < 0 ? ring : ring + pixels * kPixelWords + zyn_fpi_pair_count(layer) * kPairWords;
}

void zyn_fpi_pack_channels(zyn_fpi_plan* plan) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t kernel_rows = int64_t{l.in_channels} * l.kernel_y;  // of one output channel
  int32_t* to = plan->packed;
  for (int64_t first = 0; first < l.out_channels; first += kBlock)
    for (int64_t row = 0; row < kernel_rows; row++)
      for (int64_t x = 0; x < l.kernel_x; x += zyn_fpi_pair_step(l))
        for (int64_t o = first; o < first + kBlock; o++) {
          const int64_t at = (o * kernel_rows + row) * l.kernel_x;
          *to++ = o < l.out_channels ? zyn_fpi_pair_at(plan->weights + at, x, l) : 0;
        }
}

uint32_t zyn_fpi_run_channels(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                              zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t width = output->dims[0], height = output->dims[1], plane = width * height;
  const int64_t pairs = zyn_fpi_pair_count(l), pixels = pixels_of(output);
  zyn_fpi_rows ring(input, output, l, reach_of(l, output, pixels));
  zyn_scratch<int32_t> sums(kBlock * pixels);
  zyn_scratch<int64_t> offsets(pairs), places(pixels);
  if (!ring.words || !sums || !offsets || !places) return ZYN_RET_ERR_MEMORY;
  // More rows than one are all rows, and the ring begins with the first of them.
  for (int64_t i = 0; i < pixels; i++)
    places[i] = i / width * l.stride_y * ring.pitch + i % width * l.stride_x;
  const pixel_job job = {offsets.get(),
                         places.get(),
                         pairs,
                         pixels,
                         _mm256_set1_epi32(static_cast<int32_t>(zyn_fpi_round_term(plan->shift))),
                         _mm256_set1_epi32(plan->shift)};
  for (int64_t y = 0, at = 0; at < plane; y++, at += pixels) {
    const int64_t row = y * l.stride_y;
    ring.advance(row);
    int64_t* to = offsets.get();
    for (int64_t ky = 0; ky < l.kernel_y; ky++)
      for (int64_t kx = 0; kx < l.kernel_x; kx += zyn_fpi_pair_step(l))
        *to++ = ring.slot(0, row + ky * l.dilation_y) + kx * l.dilation_x - ring.slot(0, 0);
    const int32_t* weights = plan->packed;
    for (int64_t first = 0; first < l.out_channels; first += kBlock) {
      add_channels(sums.get(), ring, weights, is_3x3(l), job);
      weights += l.in_channels * pairs * kBlock;
      const int64_t left = l.out_channels - first;
      store_sums(sums.get(), pixels, epilogue, first, left < kBlock ? left : kBlock,
                 zyn_fpi_words(output) + first * plane + at, plane);
    }
  }
  return ZYN_RET_OK;
}

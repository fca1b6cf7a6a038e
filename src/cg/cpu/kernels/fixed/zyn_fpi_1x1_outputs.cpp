// Fixed-point 1 x 1 convolution with 16 output channels in the lanes: small planes, and the
// pixels that are left behind whole tiles of larger ones.
#include "base/zyn_integers.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_1x1.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kBlock = kZynFpiLanes;  // output channels
constexpr int64_t kBlockWords = kBlock / 2;

// Packed: per block of 16 output channels, for every input channel the parts that the
// multiplication takes; behind all blocks, per block: the number of list entries, then the
// entries {channel, 16 high parts}.
constexpr int64_t kEntry = 1 + kBlockWords;

int64_t blocks_of(const zyn_fpi_layer& l) { return (l.out_channels + kBlock - 1) / kBlock; }

int32_t weight_of(const zyn_fpi_plan& plan, int64_t out, int64_t in) {
  const zyn_fpi_layer& l = plan.layer;
  return out < l.out_channels ? plan.weights[out * l.in_channels + in] : 0;
}

// One input channel's weights of a block: false without high parts.
bool split_block(const zyn_fpi_plan& plan, int64_t block, int64_t in, int16_t (&low)[kBlock],
                 int16_t (&high)[kBlock]) {
  int32_t any = 0;
  for (int64_t k = 0; k < kBlock; k++) {
    const zyn_fpi_weight_parts parts =
        zyn_fpi_split(weight_of(plan, block * kBlock + k, in), plan.shift);
    low[k] = static_cast<int16_t>(parts.low);
    high[k] = static_cast<int16_t>(parts.high);
    any |= parts.high;
  }
  return any != 0;
}

// Blocks at hand, and where their results go.
struct job {
  const zyn_fpi_plan& plan;
  const zyn_fpi_tile_epilogue& epilogue;
  const int16_t* weights;  // of the first block
  const int32_t* lists;
  int64_t first;  // block
  const int16_t* in;
  int16_t* out;
};

// Stores a pixel's results, those of a block to as many planes.
[[gnu::noinline]] void store_block(const job& j, int64_t block, __m256i sum, __m256i bias,
                                   int16_t* out) {
  const __m256i v = _mm256_min_epi16(
      _mm256_max_epi16(_mm256_add_epi16(sum, bias), _mm256_set1_epi16(j.epilogue.low)),
      _mm256_set1_epi16(j.epilogue.high));
  const int64_t left = j.plan.layer.out_channels - block * kBlock;
  const int64_t count = left < kBlock ? left : kBlock;
  if (j.plan.pixels == 1) return zyn_fpi_store_part(out + block * kBlock, v, count);
  alignas(32) int16_t lanes[kBlock];
  _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), v);
  int16_t* to = out + block * kBlock * j.plan.pixels;
  for (int64_t k = 0; k < count; k++, to += j.plan.pixels) *to = lanes[k];
}

[[gnu::noinline]] __m256i biases_of(const job& j, int64_t block) {
  int16_t lanes[kBlock] = {};
  const zyn_fpi_tile_epilogue& e = j.epilogue;
  const int64_t first = block * kBlock, left = int64_t{e.q_out} - e.q_weights;
  if (e.bias && left >= -16 && left <= 15)  // as zyn_fpi_rescale1: q that are far apart leave 0
    zyn_fpi_rescale(lanes, e.q_out, e.bias + first, e.q_weights,
                    zyn_smaller(kBlock, j.plan.layer.out_channels - first));
  return zyn_fpi_load(lanes);
}

// kPixels pixels from x on of kBlocks blocks.
template <zyn_fpi_1x1_mode kMode, int kPixels, int kBlocks>
void tile(const job& j, const __m256i (&bias)[kBlocks], int64_t x) {
  const zyn_fpi_product<kMode> product(j.plan.shift);
  const int64_t channels = j.plan.layer.in_channels, pitch = j.plan.pixels;
  __m256i sum[kBlocks][kPixels] = {};
  const int16_t *in = j.in + x, *weights = j.weights;
  for (int64_t i = 0; i < channels; i++, in += pitch, weights += kBlock)
    ZYN_UNROLL for (int p = 0; p < kPixels; p++) {
      const __m256i pixel = _mm256_set1_epi16(in[p]);
      ZYN_UNROLL for (int b = 0; b < kBlocks; b++) sum[b][p] = _mm256_add_epi16(
          sum[b][p], product(pixel, zyn_fpi_load(weights + b * channels * kBlock)));
    }
  const int32_t* list = j.lists;
  for (int b = 0; b < kBlocks; b++) {
    const int32_t* entry = list + 1;
    for (int32_t n = 0; n < list[0]; n++, entry += kEntry)
      ZYN_UNROLL for (int p = 0; p < kPixels; p++) sum[b][p] = _mm256_add_epi16(
          sum[b][p], _mm256_mullo_epi16(_mm256_set1_epi16(j.in[entry[0] * pitch + x + p]),
                                        zyn_fpi_load(entry + 1)));
    list = entry;
    for (int p = 0; p < kPixels; p++)
      store_block(j, j.first + b, sum[b][p], bias[b], j.out + x + p);
  }
}

// All pixels of kBlocks blocks; single ones are fewer sums, so they take more blocks.
template <zyn_fpi_1x1_mode kMode, int kBlocks>
void run_blocks(const job& j, int64_t count) {
  __m256i bias[kBlocks];
  for (int b = 0; b < kBlocks; b++) bias[b] = biases_of(j, j.first + b);
  int64_t x = 0;
  if constexpr (kBlocks <= 2)
    for (; x + 4 <= count; x += 4) tile<kMode, 4, kBlocks>(j, bias, x);
  for (; x < count; x++) tile<kMode, 1, kBlocks>(j, bias, x);
}

struct run_all {
  job j;
  int64_t count;

  template <zyn_fpi_1x1_mode kMode>
  void run() {
    const int64_t blocks = blocks_of(j.plan.layer);
    for (int64_t taken = 0; j.first < blocks; skip(taken)) {
      const int64_t left = blocks - j.first;
      taken = count < 4 && left >= 4 ? 4 : left >= 2 ? 2 : 1;
      if (taken == 4)
        run_blocks<kMode, 4>(j, count);
      else if (taken == 2)
        run_blocks<kMode, 2>(j, count);
      else
        run_blocks<kMode, 1>(j, count);
    }
  }
  void skip(int64_t blocks) {
    j.first += blocks;
    j.weights += blocks * j.plan.layer.in_channels * kBlock;
    for (; blocks > 0; blocks--) j.lists += 1 + j.lists[0] * kEntry;
  }
};

}  // namespace

int64_t zyn_fpi_packed_outputs(const zyn_fpi_plan& plan) {
  const int64_t blocks = blocks_of(plan.layer), channels = plan.layer.in_channels;
  int64_t words = blocks * (channels * kBlockWords + 1);
  int16_t low[kBlock], high[kBlock];
  for (int64_t block = 0; block < blocks; block++)
    for (int64_t i = 0; i < channels; i++)
      words += split_block(plan, block, i, low, high) ? kEntry : 0;
  return words;
}

void zyn_fpi_pack_outputs(const zyn_fpi_plan& plan, int32_t* packed) {
  const int64_t blocks = blocks_of(plan.layer), channels = plan.layer.in_channels;
  int32_t *to = packed, *list = packed + blocks * channels * kBlockWords;
  for (int64_t block = 0; block < blocks; block++) {
    int32_t* entry = list + 1;
    list[0] = 0;
    for (int64_t i = 0; i < channels; i++, to += kBlockWords) {
      int16_t low[kBlock], high[kBlock];
      const bool has_high = split_block(plan, block, i, low, high);
      memcpy(to, low, sizeof(low));
      if (!has_high) continue;
      list[0]++;
      entry[0] = static_cast<int32_t>(i);
      memcpy(entry + 1, high, sizeof(high));
      entry += kEntry;
    }
    list = entry;
  }
}

void zyn_fpi_run_outputs(const zyn_fpi_plan& plan, const int32_t* packed,
                         const zyn_fpi_tile_epilogue& epilogue, int16_t* out, const int16_t* in,
                         int64_t count) {
  const int64_t words = blocks_of(plan.layer) * plan.layer.in_channels * kBlockWords;
  const auto* weights = reinterpret_cast<const int16_t*>(packed);
  zyn_fpi_with_mode(plan.shift,
                    run_all{{plan, epilogue, weights, packed + words, 0, in, out}, count});
}

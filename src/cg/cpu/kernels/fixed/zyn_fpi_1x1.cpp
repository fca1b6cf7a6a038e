// Fixed-point 1 x 1 convolution without padding (with strides: of a copy of the pixels that are
// read) in 16-bit lanes: the pixels of a plane are one run, and a tile is 4 output channels of
// 32 pixels.
// Weights are split as zyn_fpi_1x1.h says.
#include "cg/cpu/kernels/fixed/zyn_fpi_1x1.h"

#include "base/zyn_memory.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kRows = 4;  // output channels of a tile
constexpr int64_t kVector = kZynFpiLanes;
constexpr int64_t kPixels = kZynFpiTilePixels;  // two vectors

// Packed: per block of 4 output channels, for every input channel the 4 weights, each
// twice in a word; behind all blocks, per block: the number of list entries, then the entries
// {channel, 4 high parts}. Behind that the same by outputs, where that serves the last pixels.
constexpr int64_t kEntry = 1 + kRows;

int64_t blocks_of(const zyn_fpi_layer& l) { return (int64_t{l.out_channels} + kRows - 1) / kRows; }

bool has_tiles(const zyn_fpi_plan& plan) {
  return plan.pixels >= kPixels || !zyn_fpi_rest_by_outputs(plan);
}

// One input channel's weights of a block.
struct block_weights {
  int32_t low[kRows], high[kRows], any = 0;

  block_weights(const zyn_fpi_plan& plan, int64_t block, int64_t in) {
    for (int64_t k = 0; k < kRows; k++) {
      const int64_t o = block * kRows + k;
      const bool exists = o < plan.layer.out_channels;
      const zyn_fpi_weight_parts part =
          zyn_fpi_split(exists ? plan.weights[o * plan.layer.in_channels + in] : 0, plan.shift);
      low[k] = zyn_fpi_pair(part.low, part.low);
      high[k] = zyn_fpi_pair(part.high, part.high);
      any |= part.high;
    }
  }
};

int64_t tile_words(const zyn_fpi_plan& plan) {
  if (!has_tiles(plan)) return 0;
  const int64_t blocks = blocks_of(plan.layer), channels = plan.layer.in_channels;
  int64_t words = blocks * (channels * kRows + 1);
  for (int64_t block = 0; block < blocks; block++)
    for (int64_t i = 0; i < channels; i++) words += block_weights(plan, block, i).any ? kEntry : 0;
  return words;
}

inline __m256i broadcast(const int32_t* word) { return _mm256_set1_epi32(*word); }

// kUsed of 4 rows of one or two times 16 pixels, which lie apart elements from each other; the
// planes of in lie in_pitch elements apart.
template <zyn_fpi_1x1_mode kMode, int kUsed, int kVectors>
void tile(__m256i (&sum)[kUsed][kVectors], const int16_t* in, int64_t in_pitch, int64_t apart,
          int64_t channels, const int32_t* weights, const int32_t* list, int32_t d) {
  const zyn_fpi_product<kMode> product(d);
  __m256i s[kUsed][kVectors] = {};
  const int16_t* at = in;
  for (int64_t i = 0; i < channels; i++, at += in_pitch, weights += kRows) {
    // The compiler does not see through the empty statements: else it loads vectors again for every
    // weight, and moves sums from register to register.
    __m256i x[kVectors];
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      x[v] = zyn_fpi_load(at + v * apart);
      __asm__("" : "+x"(x[v]));
    }
    ZYN_UNROLL for (int k = 0; k < kUsed; k++) {
      const __m256i w = broadcast(weights + k);
      ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
        s[k][v] = _mm256_add_epi16(s[k][v], product(x[v], w));
        __asm__("" : "+x"(s[k][v]));
      }
    }
  }
  const int32_t* entry = list + 1;
  for (int32_t n = 0; n < list[0]; n++, entry += kEntry) {
    at = in + entry[0] * in_pitch;
    ZYN_UNROLL for (int k = 0; k < kUsed; k++) {
      const __m256i w = broadcast(entry + 1 + k);
      ZYN_UNROLL for (int v = 0; v < kVectors; v++) s[k][v] =
          _mm256_add_epi16(s[k][v], _mm256_mullo_epi16(zyn_fpi_load(at + v * apart), w));
    }
  }
  ZYN_UNROLL for (int k = 0; k < kUsed; k++) ZYN_UNROLL for (int v = 0; v < kVectors; v++)
      sum[k][v] = s[k][v];
}

// What run_pixels works on: tiles of up to 16 pixels, or of two times 16 that lie apart elements
// from each other, side by side.
struct pixel_run {
  int16_t* out;
  const int16_t* in;
  int64_t in_pitch;
  int64_t apart, count, tiles;
};

// The first rows of a block, of kUsed that are computed.
template <zyn_fpi_1x1_mode kMode, int kUsed, int kVectors>
[[gnu::always_inline]] inline void run_block(const zyn_fpi_plan* plan,
                                             const zyn_fpi_layer_epilogue& epilogue, int64_t block,
                                             const int32_t* list, const pixel_run& run, int64_t at,
                                             int64_t rows = kUsed) {
  const zyn_fpi_layer& l = plan->layer;
  __m256i sum[kUsed][kVectors];
  tile<kMode>(sum, run.in + at, run.in_pitch, run.apart, l.in_channels,
              plan->packed + block * l.in_channels * kRows, list, plan->shift);
  int16_t* row = run.out + at + block * kRows * plan->pixels;
  ZYN_UNROLL for (int k = 0; k < kUsed; k++, row += plan->pixels) {
    if (k >= rows) return;
    ZYN_UNROLL for (int v = 0; v < kVectors; v++)
        zyn_fpi_store_part(row + v * run.apart, epilogue(sum[k][v], block * kRows + k), run.count);
  }
}

// All output channels.
template <zyn_fpi_1x1_mode kMode, int kVectors>
[[gnu::noinline]] void run_pixels(const zyn_fpi_plan* plan, const zyn_fpi_layer_epilogue& epilogue,
                                  const pixel_run& run) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t whole = l.out_channels / kRows, rest = l.out_channels % kRows;
  for (int64_t at = 0; at < run.tiles * kPixels; at += kPixels) {
    const int32_t* list = plan->packed + blocks_of(l) * l.in_channels * kRows;
    for (int64_t block = 0; block < whole; block++, list += 1 + list[0] * kEntry)
      run_block<kMode, 4, kVectors>(plan, epilogue, block, list, run, at);
    if constexpr (kVectors == 1) {
      if (rest > 0) run_block<kMode, 4, 1>(plan, epilogue, whole, list, run, at, rest);
    } else {
      if (rest == 3) run_block<kMode, 3, kVectors>(plan, epilogue, whole, list, run, at);
      if (rest == 2) run_block<kMode, 2, kVectors>(plan, epilogue, whole, list, run, at);
      if (rest == 1) run_block<kMode, 1, kVectors>(plan, epilogue, whole, list, run, at);
    }
  }
}

// Where the words of the tiles end.
const int32_t* behind_tiles(const zyn_fpi_plan& plan) {
  if (!has_tiles(plan)) return plan.packed;
  const int64_t blocks = blocks_of(plan.layer);
  const int32_t* list = plan.packed + blocks * plan.layer.in_channels * kRows;
  for (int64_t block = 0; block < blocks; block++) list += 1 + list[0] * kEntry;
  return list;
}

// in: planes of as many pixels as the output's; those of less than a vector lie in small as well,
// zeros behind them.
struct run_planes {
  const zyn_fpi_plan* plan;
  const zyn_fpi_tile_epilogue& epilogue;
  const zyn_fpi_layer_epilogue& of_layer;
  int16_t* out;
  const int16_t *in, *small;

  template <zyn_fpi_1x1_mode kMode>
  void run() const {
    const int64_t pixels = plan->pixels;
    const auto vectors = [this, pixels](int64_t first, int64_t second, int64_t tiles) {
      run_pixels<kMode, 2>(plan, of_layer,
                           {out + first, in + first, pixels, second - first, kVector, tiles});
    };
    const int64_t tiles = pixels / kPixels, x = tiles * kPixels;
    if (tiles > 0) vectors(0, kVector, tiles);
    const int64_t left = pixels - x, last = pixels - kVector;
    if (left == 0) return;
    if (small) return run_pixels<kMode, 1>(plan, of_layer, {out, small, kVector, 0, pixels, 1});
    if (!zyn_fpi_rest_by_outputs(*plan)) {  // pixels of the last vector are computed twice
      if (left > kVector) return vectors(x, last, 1);
      return run_pixels<kMode, 1>(plan, of_layer, {out + last, in + last, pixels, 0, kVector, 1});
    }
    zyn_fpi_run_outputs(*plan, behind_tiles(*plan), epilogue, out + x, in + x, pixels - x);
  }
};

// Every other one of 32 words.
__m256i even_words(const int16_t* from) {
  const __m256i mask = _mm256_set1_epi32(0xFFFF);
  const __m256i packed =
      _mm256_packus_epi32(_mm256_and_si256(zyn_fpi_load(from), mask),
                          _mm256_and_si256(zyn_fpi_load(from + kZynFpiLanes), mask));
  return _mm256_permute4x64_epi64(packed, 0xD8);
}

// The pixels of every plane that a layer with strides reads, side by side.
void subsample(int16_t* out, const zyn_fpi_layer& l, const zyn_tensor* output,
               const zyn_tensor* input) {
  const int64_t width = input->dims[0], plane = width * input->dims[1];
  for (int64_t i = 0; i < l.in_channels; i++)
    for (int64_t y = 0; y < output->dims[1]; y++, out += output->dims[0]) {
      const int16_t* row = zyn_fpi_words(input) + i * plane + y * l.stride_y * width;
      int64_t x = 0;
      for (; l.stride_x == 2 && 2 * (x + kZynFpiLanes) <= width; x += kZynFpiLanes)
        zyn_fpi_store(out + x, even_words(row + 2 * x));
      for (; x < output->dims[0]; x++) out[x] = row[x * l.stride_x];
    }
}

}  // namespace

int64_t zyn_fpi_packed_1x1(const zyn_fpi_plan& plan) {
  return tile_words(plan) + (zyn_fpi_rest_by_outputs(plan) ? zyn_fpi_packed_outputs(plan) : 0);
}

void zyn_fpi_pack_1x1(zyn_fpi_plan* plan) {
  const zyn_fpi_layer& l = plan->layer;
  int32_t *to = plan->packed, *list = to + blocks_of(l) * l.in_channels * kRows;
  for (int64_t block = 0; has_tiles(*plan) && block < blocks_of(l); block++) {
    int32_t* entry = list + 1;
    list[0] = 0;
    for (int32_t i = 0; i < l.in_channels; i++, to += kRows) {
      const block_weights weights(*plan, block, i);
      memcpy(to, weights.low, sizeof(weights.low));
      if (!weights.any) continue;
      list[0]++;
      entry[0] = i;
      memcpy(entry + 1, weights.high, sizeof(weights.high));
      entry += kEntry;
    }
    list = entry;
  }
  if (zyn_fpi_rest_by_outputs(*plan)) zyn_fpi_pack_outputs(*plan, has_tiles(*plan) ? list : to);
}

uint32_t zyn_fpi_run_1x1(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                         zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const int64_t width = output->dims[0], height = output->dims[1], pixels = width * height;
  if ((width - 1) * l.stride_x >= input->dims[0] || (height - 1) * l.stride_y >= input->dims[1] ||
      pixels != plan->pixels)
    return ZYN_RET_ERR_PARA;
  const bool strided = l.stride_x > 1 || l.stride_y > 1;
  zyn_scratch<int16_t> copy(strided ? l.in_channels * pixels : 0);
  // Planes of less than a vector go through a copy: nothing is read behind a plane. It is made
  // before anything is written.
  const bool small = pixels < kVector && !zyn_fpi_rest_by_outputs(*plan);
  auto planes = zyn_scratch<int16_t>::zeroed(small ? l.in_channels * kVector : 0);
  zyn_scratch<int32_t> biases(l.out_channels);
  if ((strided && !copy) || (small && !planes) || !biases) return ZYN_RET_ERR_MEMORY;
  if (strided) subsample(copy.get(), l, output, input);
  const int16_t* in = strided ? copy.get() : zyn_fpi_words(input);
  for (int64_t i = 0; small && i < l.in_channels; i++)
    zyn_fpi_copy(planes.get() + i * kVector, in + i * pixels, pixels);
  const zyn_fpi_layer_epilogue of_layer(epilogue, l.out_channels, biases.get());
  zyn_fpi_with_mode(plan->shift,
                    run_planes{plan, epilogue, of_layer, zyn_fpi_words(output), in, planes.get()});
  return ZYN_RET_OK;
}

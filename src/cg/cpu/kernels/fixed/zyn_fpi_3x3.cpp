// Fixed-point dense 3 x 3 convolution, stride 1 or 2, 16 pixels at a time.
// Products are added in pairs into 32-bit lanes (madd). A window holds what 16 outputs
// read from one input channel: pairs of neighbouring columns of each row, then the third
// column of two rows, then that of the last row beside a constant that brings in r: five
// pairs for each of two groups of 8 outputs. The groups are the even and the odd outputs
// of a row (stride 1), or its first and its second 8 (stride 2), so that every pair is an
// unaligned load or a blend of two.
//
// Input rows pass through a ring of rows with zeros around them.
#include "cg/cpu/kernels/fixed/zyn_fpi_rows.h"

namespace {

constexpr int64_t kTaps = 9;
constexpr int64_t kPairs = 5;
constexpr int64_t kChunk = 64;  // output channels whose sums stay on the stack
constexpr int64_t kSlack = 24;  // what windows read behind the columns of their outputs

struct group {
  __m256i row0, row1, row2, third01, third2;
};

struct window {
  group a, b;
};

// r as a product of two 16-bit factors: one beside the data, one among the weights.
struct round_factors {
  int32_t data, weight;
};

round_factors factors_of(int32_t d) {
  if (d == 0) return {0, 0};
  // Negative, because -2^15 is there and 2^15 is not.
  return d <= 16 ? round_factors{-1, -(1 << (d - 1))} : round_factors{-(1 << (d - 16)), -32768};
}

inline __m256i beside(__m256i even, __m256i odd) { return _mm256_blend_epi16(even, odd, 0xAA); }

// Outputs whose windows begin at columns 0, 2, 4, ... of the rows.
inline group gather(const int16_t* r0, const int16_t* r1, const int16_t* r2, __m256i constant) {
  return {zyn_fpi_load(r0), zyn_fpi_load(r1), zyn_fpi_load(r2),
          beside(zyn_fpi_load(r0 + 2), zyn_fpi_load(r1 + 1)),
          beside(zyn_fpi_load(r2 + 2), constant)};
}

template <int kStride>
inline window gather(const int16_t* const rows[3], int64_t x, __m256i constant) {
  const int16_t *r0 = rows[0] + kStride * x, *r1 = rows[1] + kStride * x,
                *r2 = rows[2] + kStride * x;
  constexpr int64_t kSecond = kStride == 1 ? 1 : kZynFpiLanes;
  return {gather(r0, r1, r2, constant), gather(r0 + kSecond, r1 + kSecond, r2 + kSecond, constant)};
}

struct weight_pairs {
  __m256i row0, row1, row2, third01, third2;
};

inline weight_pairs load_weights(const int32_t* w) {
  return {_mm256_set1_epi32(w[0]), _mm256_set1_epi32(w[1]), _mm256_set1_epi32(w[2]),
          _mm256_set1_epi32(w[3]), _mm256_set1_epi32(w[4])};
}

inline __m256i sum_of(const group& g, const weight_pairs& w) {
  const __m256i rows =
      _mm256_add_epi32(_mm256_madd_epi16(g.row0, w.row0), _mm256_madd_epi16(g.row1, w.row1));
  const __m256i thirds = _mm256_add_epi32(_mm256_madd_epi16(g.third01, w.third01),
                                          _mm256_madd_epi16(g.third2, w.third2));
  return _mm256_add_epi32(_mm256_add_epi32(_mm256_madd_epi16(g.row2, w.row2), rows), thirds);
}

// 16 outputs, group a in the even lanes.
inline __m256i convolve(const window& in, const weight_pairs& w, __m256i shift) {
  return zyn_fpi_interleave(sum_of(in.a, w), sum_of(in.b, w), shift);
}

void pack_taps(int32_t* to, const int16_t* w, int32_t round_weight) {
  to[0] = zyn_fpi_pair(w[0], w[1]);
  to[1] = zyn_fpi_pair(w[3], w[4]);
  to[2] = zyn_fpi_pair(w[6], w[7]);
  to[3] = zyn_fpi_pair(w[2], w[5]);
  to[4] = zyn_fpi_pair(w[8], round_weight);
}

// 16 outputs at x of the channels first to first + count - 1. Whole vectors are stored
// where room allows, beyond the end of a row: the next row comes later.
template <int kStride>
void dense_tile(int16_t* out, int64_t out_plane, const zyn_fpi_rows& ring, int64_t row, int64_t x,
                const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue, int64_t first,
                int64_t count, int64_t room) {
  alignas(32) __m256i sums[kChunk];
  const int64_t outputs = plan->layer.out_channels;
  const __m256i shift = _mm256_set1_epi32(plan->shift);
  const __m256i constant = _mm256_set1_epi16(static_cast<int16_t>(factors_of(plan->shift).data));
  for (int64_t o = 0; o < count; o++) sums[o] = _mm256_setzero_si256();
  const int32_t* weights = plan->packed + first * kPairs;
  for (int64_t i = 0; i < ring.channels; i++, weights += outputs * kPairs) {
    const int16_t* const rows[3] = {ring.slot(i, row), ring.slot(i, row + 1),
                                    ring.slot(i, row + 2)};
    const window in = gather<kStride>(rows, x, constant);
    for (int64_t o = 0; o < count; o++)
      sums[o] = _mm256_add_epi16(sums[o], convolve(in, load_weights(weights + o * kPairs), shift));
  }
  for (int64_t o = 0; o < count; o++)
    zyn_fpi_store_part(out + o * out_plane,
                       zyn_fpi_channel_epilogue(
                           epilogue, first + o)(kStride == 1 ? sums[o] : zyn_fpi_part(sums[o])),
                       room);
}

zyn_fpi_reach reach_of(const zyn_fpi_layer& l, const zyn_tensor* output) {
  const int64_t vectors = (output->dims[0] + kZynFpiLanes - 1) / kZynFpiLanes;
  return {3, l.stride_x * vectors * kZynFpiLanes + kSlack, 4};
}

template <int kStride>
uint32_t dense(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue, zyn_tensor* output,
               const zyn_tensor* input) {
  const int64_t width = output->dims[0], height = output->dims[1];
  const int64_t outputs = plan->layer.out_channels;
  zyn_fpi_rows ring(input, output, plan->layer, reach_of(plan->layer, output));
  if (!ring.words) return ZYN_RET_ERR_MEMORY;
  for (int64_t y = 0; y < height; y++) {
    ring.advance(y * kStride);
    for (int64_t x = 0; x < width; x += kZynFpiLanes)
      for (int64_t first = 0; first < outputs; first += kChunk) {
        const int64_t count = outputs - first < kChunk ? outputs - first : kChunk;
        const int64_t at = y * width + x;
        const int64_t room = at + kZynFpiLanes <= width * height ? kZynFpiLanes : width - x;
        dense_tile<kStride>(zyn_fpi_words(output) + first * width * height + at, width * height,
                            ring, y * kStride, x, plan, epilogue, first, count, room);
      }
  }
  return ZYN_RET_OK;
}

}  // namespace

int64_t zyn_fpi_packed_3x3(const zyn_fpi_plan& plan) {
  return int64_t{plan.layer.in_channels} * plan.layer.out_channels * kPairs;
}

int64_t zyn_fpi_scratch_3x3(const zyn_fpi_layer& layer, const zyn_tensor* output) {
  return zyn_fpi_rows::words_of(output, layer, reach_of(layer, output));
}

void zyn_fpi_pack_3x3(zyn_fpi_plan* plan) {
  const zyn_fpi_layer& l = plan->layer;
  const int32_t round_weight = factors_of(plan->shift).weight;
  int32_t* to = plan->packed;
  for (int64_t i = 0; i < l.in_channels; i++)
    for (int64_t o = 0; o < l.out_channels; o++, to += kPairs)
      pack_taps(to, plan->weights + (o * l.in_channels + i) * kTaps, round_weight);
}

uint32_t zyn_fpi_run_3x3(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                         zyn_tensor* output, const zyn_tensor* input) {
  return plan->layer.stride_x == 1 ? dense<1>(plan, epilogue, output, input)
                                   : dense<2>(plan, epilogue, output, input);
}

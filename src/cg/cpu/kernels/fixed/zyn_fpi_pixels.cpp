// Fixed-point dense convolution of any kernel and dilation, stride 1 or 2, 16 pixels at a time, for
// planes whose rows fill vectors and for few output channels.
// Products are added in pairs into 32-bit lanes (madd): neighbouring columns first, then the taps
// that have no neighbour two by two, a last one beside a constant that brings in r. There are two
// groups of 8 outputs: the even and the odd ones of 16 (stride 1), or the first and the second 8
// (stride 2), so that every pair is an unaligned load or a blend of two.
//
// Where all weights fit 16 bits with 16 - d bits more, the results are the high halves of the sums:
// additions of words take them from there, and nothing is shifted.
//
// Strips of input rows are copied with zeros around them. Outputs are computed row by row or, where
// that leaves more lanes idle, as one run of columns over the rows of a strip, border included. For
// more than a few output channels, the pairs of 16 outputs are gathered once for all of them.
#include "cg/cpu/kernels/fixed/zyn_fpi_pixels.h"

#include "base/zyn_integers.h"
#include "base/zyn_memory.h"

namespace {

constexpr int64_t kSmallStrip = 32 * 1024;    // words
constexpr int64_t kLargeStrip = 128 * 1024;   // words that a few rows may take
constexpr int64_t kLargeStripRows = 8;        // of outputs
constexpr int64_t kSlack = 3 * kZynFpiLanes;  // what idle lanes read behind the last row
constexpr int64_t kFewOutputs = 7;            // that do not earn gathered pairs back
constexpr int64_t kMostGathered = 64 * 1024;  // words

// r as a product of two 16-bit factors: one beside the data, one among the weights.
struct round_factors {
  int32_t data, weight;
};

round_factors factors_of(int32_t d) {
  if (d == 0) return {0, 0};
  // Negative, because -2^15 is there and 2^15 is not.
  return d <= 16 ? round_factors{-1, -(1 << (d - 1))} : round_factors{-(1 << (d - 16)), -32768};
}

// The taps in pairs: perhaps the last one by itself, then near ones, far ones.
struct tap_pairs {
  int64_t near, far;
  bool odd;
  explicit tap_pairs(const zyn_fpi_layer& l) {
    const int64_t taps = int64_t{l.kernel_x} * l.kernel_y;
    near = l.dilation_x == 1 ? int64_t{l.kernel_x / 2} * l.kernel_y : 0;
    far = (taps - 2 * near) / 2;
    odd = taps % 2 == 1;
  }
  int64_t count() const { return near + far + odd; }
  int64_t taps() const { return 2 * (near + far) + odd; }
};

// Calls action(column, row) for every tap in that order.
template <typename Action>
void for_taps(const zyn_fpi_layer& l, const Action& action) {
  const int64_t odd = int64_t{l.kernel_x} * l.kernel_y % 2, last = l.kernel_y - odd;
  if (odd) action(int64_t{l.kernel_x} - 1, last);
  const int64_t paired = l.dilation_x == 1 ? l.kernel_x / 2 * 2 : 0;
  for (int64_t y = 0; y < l.kernel_y; y++)
    for (int64_t x = 0; x < paired; x++) action(x, y);
  for (int64_t y = 0; y < l.kernel_y; y++)
    for (int64_t x = paired; x < l.kernel_x - (y == last ? 1 : 0); x++) action(x, y);
}

// Strips of the padded input.
struct strip_shape {
  bool flat;      // whether a strip is one run of columns
  int64_t pitch;  // of a row, words
  int64_t rows;   // of outputs
  int64_t channel_words;

  strip_shape(const zyn_fpi_layer& l, const zyn_tensor* output) {
    const int64_t width = output->dims[0], reach = (l.kernel_x - int64_t{1}) * l.dilation_x;
    const int64_t by_rows = zyn_round_up(width, kZynFpiLanes);
    pitch = (width - 1) * l.stride_x + 1 + reach;
    // Rows that share vectors cost stores.
    const int64_t taps = int64_t{l.kernel_x} * l.kernel_y, storing = 24;
    const auto sums = 2 * static_cast<double>(taps) * l.in_channels;
    flat = l.stride_x == 1 && l.stride_y == 1 &&
           static_cast<double>(pitch) * (sums + storing) < static_cast<double>(by_rows) * sums;
    if (!flat) pitch = zyn_round_up(pitch, kZynFpiLanes);  // fewer loads straddle cache lines
    const auto rows_of = [&](int64_t words) { return words / pitch / l.in_channels / l.stride_y; };
    rows = zyn_larger(rows_of(kSmallStrip), zyn_smaller(kLargeStripRows, rows_of(kLargeStrip)));
    rows = zyn_smaller(zyn_larger(rows, 1), output->dims[1]);
    // An odd number of cache lines: channels spread over all sets of the cache.
    constexpr int64_t kLine = 32;
    channel_words = (zyn_units(in_rows(l, rows) * pitch + kSlack, kLine) | 1) * kLine;
  }
  static int64_t in_rows(const zyn_fpi_layer& l, int64_t rows) {
    return (rows - 1) * l.stride_y + (l.kernel_y - int64_t{1}) * l.dilation_y + 1;
  }
  // Lanes that a row of outputs takes.
  int64_t lanes(int64_t width) const { return flat ? pitch : zyn_round_up(width, kZynFpiLanes); }
};

// The input rows under output rows y to y + rows - 1.
void fill(int16_t* strip, const strip_shape& s, const zyn_fpi_layer& l, const zyn_tensor* input,
          int64_t y, int64_t rows) {
  const int64_t width = input->dims[0], height = input->dims[1];
  const int64_t inside = zyn_smaller(width, s.pitch - l.pad_x);
  if (inside <= 0) return;
  const int64_t first = y * l.stride_y - l.pad_y, end = first + strip_shape::in_rows(l, rows);
  const int64_t begin = zyn_smaller(zyn_larger(first, 0), end);
  const int64_t behind = zyn_larger(zyn_smaller(height, end), begin);
  for (int64_t c = 0; c < l.in_channels; c++) {
    int16_t* const to = strip + c * s.channel_words + l.pad_x;
    if (behind > begin)
      zyn_fpi_copy_rows(to + (begin - first) * s.pitch, s.pitch,
                        zyn_fpi_words(input) + (c * height + begin) * width, width, inside,
                        behind - begin);
    if (y == 0) continue;  // zeros as they were made
    for (int64_t r = first; r < end; r++)
      if (r < begin || r >= behind)
        memset(to + (r - first) * s.pitch, 0, static_cast<size_t>(inside) * sizeof(int16_t));
  }
}

// The tiles of a strip of rows output rows from row y on.
template <typename Action>
void for_tiles(const strip_shape& s, const zyn_fpi_layer& l, const zyn_tensor* output, int64_t y,
               int64_t rows, const Action& action) {
  const int64_t width = output->dims[0], plane = width * output->dims[1];
  zyn_fpi_tile_place tile;
  if (s.flat) {
    const int64_t end = (rows - 1) * s.pitch + width;
    for (int64_t from = 0; from < end; from += kZynFpiLanes) {
      tile.from = from;
      tile.pieces = 0;
      if (s.pitch == width)  // kernels of one column: the outputs are the run
        tile.add(0, y * width + from, zyn_smaller(kZynFpiLanes, end - from), plane);
      for (int64_t lane = 0; s.pitch > width && lane < kZynFpiLanes && from + lane < end;) {
        const int64_t row = (from + lane) / s.pitch, x = (from + lane) % s.pitch;
        if (x < width)
          tile.add(lane, (y + row) * width + x, zyn_smaller(width - x, kZynFpiLanes - lane), plane);
        lane += s.pitch - x;
      }
      if (tile.pieces > 0) action(tile);
    }
    return;
  }
  for (int64_t row = 0; row < rows; row++)
    for (int64_t column = 0; column < width; column += kZynFpiLanes) {
      const int64_t x = width < kZynFpiLanes ? 0 : zyn_smaller(column, width - kZynFpiLanes);
      tile.from = row * l.stride_y * s.pitch + x * l.stride_x;
      tile.pieces = 0;
      tile.add(0, (y + row) * width + x, zyn_smaller(width, kZynFpiLanes), plane);
      action(tile);
    }
}

// d, or 16 where the weights fit the difference.
int32_t scaled_shift(const zyn_fpi_plan& plan) {
  const zyn_fpi_layer& l = plan.layer;
  const int64_t count = int64_t{l.kernel_x} * l.kernel_y * l.in_channels * l.out_channels;
  if (plan.shift > kZynFpiHighHalf) return plan.shift;
  const int64_t factor = int64_t{1} << (kZynFpiHighHalf - plan.shift);
  for (int64_t i = 0; i < count; i++)
    if (plan.weights[i] * factor != static_cast<int16_t>(plan.weights[i] * factor))
      return plan.shift;
  return kZynFpiHighHalf;
}

void fill_places(int64_t* places, const zyn_fpi_layer& l, const strip_shape& s) {
  const tap_pairs pairs(l);
  const int64_t* const far = places + pairs.odd + 2 * pairs.near;
  for_taps(l, [&](int64_t x, int64_t y) {
    const bool second = places >= far && (places - far) % 2 == 1;
    *places++ = y * l.dilation_y * s.pitch + x * l.dilation_x - second;
  });
}

}  // namespace

// Vector operations for a row of outputs under one input channel.
double zyn_fpi_pixels_cost(const zyn_fpi_layer& l, const zyn_tensor* output) {
  const tap_pairs pairs(l);
  const auto lanes = static_cast<double>(strip_shape(l, output).lanes(output->dims[0]));
  const auto count = static_cast<double>(pairs.count()), far = static_cast<double>(pairs.far);
  const double gathering = 6 * count;  // for all outputs
  const bool gathered = l.out_channels > kFewOutputs;
  const double each = 4 * count + (gathered ? 2 : far + 4);
  return lanes / kZynFpiLanes * (l.out_channels * each + (gathered ? gathering : 0));
}

// The shift that the weights are made for, then per output channel and input channel its pairs of
// taps; two output channels stand pair by pair beside each other.
int64_t zyn_fpi_packed_pixels(const zyn_fpi_plan& plan) {
  return 1 + tap_pairs(plan.layer).count() * plan.layer.in_channels * plan.layer.out_channels;
}

int64_t zyn_fpi_scratch_pixels(const zyn_fpi_layer& layer, const zyn_tensor* output) {
  constexpr int64_t kPlaceWords = 4;
  int64_t words = 0;
  return zyn_multiply(strip_shape(layer, output).channel_words, layer.in_channels, &words)
             ? words + tap_pairs(layer).taps() * kPlaceWords + 2 * int64_t{layer.out_channels} +
                   (layer.out_channels > kFewOutputs ? kMostGathered : 0)
             : -1;
}

void zyn_fpi_pack_pixels(zyn_fpi_plan* plan) {
  const zyn_fpi_layer& l = plan->layer;
  const tap_pairs pairs(l);
  const int32_t shift = scaled_shift(*plan), round = factors_of(shift).weight;
  const int32_t factor = shift == plan->shift ? 1 : 1 << (shift - plan->shift);
  const int64_t outputs = l.out_channels, whole = outputs / 2 * 2, count = pairs.count();
  plan->packed[0] = shift;
  for (int64_t o = 0; o < outputs; o++)
    for (int64_t i = 0; i < l.in_channels; i++) {
      const int64_t beside = o < whole ? 2 : 1, first = o / beside * beside;
      const int16_t* w = plan->weights + (o * l.in_channels + i) * pairs.taps();
      int32_t* to = plan->packed + 1 + (first * l.in_channels + i * beside) * count + o - first;
      int64_t at = pairs.odd ? -1 : 0;
      int32_t before = 0;
      for_taps(l, [&](int64_t x, int64_t y) {
        const int32_t value = w[y * l.kernel_x + x] * factor;
        if (at % 2 != 0) {
          *to = at < 0 ? zyn_fpi_pair(value, round) : zyn_fpi_pair(before, value);
          to += beside;
        }
        before = value;
        at++;
      });
    }
}

uint32_t zyn_fpi_run_pixels(const zyn_fpi_plan* plan, const zyn_fpi_tile_epilogue& epilogue,
                            zyn_tensor* output, const zyn_tensor* input) {
  const zyn_fpi_layer& l = plan->layer;
  const strip_shape s(l, output);
  const tap_pairs pairs(l);
  auto strip = zyn_scratch<int16_t>::zeroed(s.channel_words * l.in_channels);
  zyn_scratch<int64_t> places(pairs.taps());
  zyn_scratch<int32_t> biases(l.out_channels);
  const int64_t all_pairs = pairs.count() * 2 * kZynFpiLanes * l.in_channels;
  const bool gathered = l.out_channels > kFewOutputs && all_pairs <= kMostGathered;
  zyn_scratch<int16_t> room(gathered ? all_pairs : 0);
  if (!strip || !places || !biases || (gathered && !room)) return ZYN_RET_ERR_MEMORY;
  fill_places(places.get(), l, s);
  const zyn_fpi_layer_epilogue of_layer(epilogue, l.out_channels, biases.get());
  const int32_t shift = plan->packed[0];
  const __m256i constant = pairs.odd
                               ? _mm256_set1_epi16(static_cast<int16_t>(factors_of(shift).data))
                               : _mm256_set1_epi32(static_cast<int32_t>(zyn_fpi_round_term(shift)));
  const zyn_fpi_pixel_job job = {strip.get(),
                                 plan->packed + 1,
                                 places.get(),
                                 of_layer,
                                 room.get(),
                                 pairs.near,
                                 pairs.far,
                                 pairs.count(),
                                 l.in_channels,
                                 s.channel_words,
                                 l.out_channels,
                                 plan->pixels,
                                 l.stride_x == 1 ? 1 : kZynFpiLanes,
                                 shift,
                                 constant,
                                 zyn_fpi_words(output)};
  const zyn_fpi_pixel_tile run = zyn_fpi_choose_pixel_tile(job, pairs.odd);
  const int64_t height = output->dims[1];
  for (int64_t y = 0; y < height; y += s.rows) {
    const int64_t rows = zyn_smaller(s.rows, height - y);
    fill(strip.get(), s, l, input, y, rows);
    for_tiles(s, l, output, y, rows, [&](const zyn_fpi_tile_place& tile) { run(job, tile); });
  }
  return ZYN_RET_OK;
}

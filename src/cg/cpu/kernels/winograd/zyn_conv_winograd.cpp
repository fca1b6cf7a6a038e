// Strips of tiles: all input channels of a strip are transformed into scratch that stays in the
// second cache level; then, for a group of output blocks after the other, every frequency's
// product by the general tiles, and the output's transform while the products are in the cache.
#include "cg/cpu/kernels/winograd/zyn_conv_winograd.h"

#include <immintrin.h>
#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/general/zyn_general_strip.h"
#include "cg/cpu/kernels/general/zyn_general_tile.h"
#include "cg/cpu/kernels/winograd/zyn_conv_quarters.h"
#include "cg/cpu/kernels/winograd/zyn_winograd_tiles.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

struct zyn_conv_winograd {
  zyn_conv_quarters* quarters;  // of a pointwise layer, which has nothing else
  bool planar_output;
  int32_t in_channels, out_channels;
  int32_t width, height, out_width, out_height, pad_x, pad_y;
  int32_t m;              // extent of a tile
  int32_t rows, columns;  // of a strip, in tiles
  int32_t blocks;         // of 8 output channels a group of them
  int64_t* taps;          // floats to each block of 8 transformed inputs
  float* weights;         // by group, then [frequency][input][lane]
};

namespace {

using layer = zyn_conv_winograd;

constexpr int32_t kLanes = 8;
// Transformed inputs of a strip, and products: what the second cache level holds, but not so
// little that reading the weights again for every strip takes longer than it saves.
constexpr int64_t kStripBytes = 512 * 1024;
constexpr int64_t kStripsOfWeights = 8;
constexpr int64_t kChunkBytes = 20 * 1024;  // weights that stay in the first cache level
constexpr int64_t kLine = 16;               // floats of a cache line

int32_t ceil_div(int64_t value, int64_t by) { return static_cast<int32_t>((value + by - 1) / by); }

int32_t block_count(const layer& l) { return ceil_div(l.out_channels, kLanes); }

int64_t tile_count(const layer& l) { return int64_t{l.rows} * l.columns; }

// The blocks of the group that begins at a block.
int32_t group_at(const layer& l, int32_t block) {
  const int32_t left = block_count(l) - block;
  return zyn_general_blocks_within(left < l.blocks ? left : l.blocks);
}

// Floats from one frequency to the next: an odd number of lines, as all frequencies of a tile are
// written in turn and shall not meet in one set of the cache.
int64_t frequency_step(const layer& l, int64_t blocks) {
  return (ceil_div(tile_count(l) * blocks * kLanes, kLine) | 1) * kLine;
}
int64_t input_step(const layer& l) { return frequency_step(l, l.in_channels / kLanes); }
int64_t product_step(const layer& l) { return frequency_step(l, l.blocks); }

// What a run keeps in scratch, in floats, one behind the other.
struct layout {
  int64_t bias, pixels, inputs, products, outputs;

  explicit layout(const layer& l) {
    const int64_t frequencies = zyn_winograd_frequencies(l.m);
    bias = int64_t{block_count(l)} * kLanes;
    pixels = (int64_t{l.m} * l.rows + 2) * (int64_t{l.m} * l.columns + 2) * kLanes;
    inputs = frequencies * input_step(l);
    products = frequencies * product_step(l);
    outputs = tile_count(l) * l.m * l.m * kLanes;  // of a block that is not written in place
  }
  int64_t total() const { return bias + pixels + inputs + products + outputs; }
};

int64_t weight_floats(const layer& l) {
  return int64_t{zyn_winograd_frequencies(l.m)} * l.in_channels * block_count(l) * kLanes;
}

// Tiles of a strip: whole rows of them, or parts of one row, all of nearly equal size.
void choose_strip(layer* l) {
  const int32_t across = ceil_div(l->out_width, l->m), down = ceil_div(l->out_height, l->m);
  const int64_t tile = int64_t{zyn_winograd_frequencies(l->m)} * (l->in_channels + 4 * kLanes);
  const int64_t weights = weight_floats(*l) / kStripsOfWeights;
  int64_t most = kStripBytes / static_cast<int64_t>(sizeof(float));
  most = (most < weights ? weights : most) / tile;
  if (most < 1) most = 1;
  if (most >= across) {
    const int32_t rows = most / across < down ? static_cast<int32_t>(most / across) : down;
    l->rows = ceil_div(down, ceil_div(down, rows));
    l->columns = across;
  } else {
    l->rows = 1;
    l->columns = ceil_div(across, ceil_div(across, most));
  }
}

// The group whose register tiles are the fewest.
void choose_blocks(layer* l) {
  constexpr int32_t kCandidates[] = {4, 3, 2, 8, 1};
  const int64_t tiles = tile_count(*l);
  int64_t fewest = 0;
  for (const int32_t blocks : kCandidates) {
    const int64_t count = int64_t{ceil_div(block_count(*l), blocks)} *
                          ceil_div(tiles, zyn_general_most_pixels(blocks));
    if (fewest > 0 && count >= fewest) continue;
    fewest = count;
    l->blocks = blocks;
  }
}

// The layer's shape and plan; false where it is not served.
bool open(layer* l, const zyn_conv_param& p, int32_t width, int32_t height) {
  const zyn_conv_shape s = zyn_conv_shape_of(&p);
  const bool served = s.kernel_x == 3 && s.kernel_y == 3 && s.stride_x == 1 && s.stride_y == 1 &&
                      s.dilation_x == 1 && s.dilation_y == 1 && p.groups == 1 && s.pad_x >= 0 &&
                      s.pad_x <= 2 && s.pad_y >= 0 && s.pad_y <= 2 && p.in_channels > 0 &&
                      p.in_channels % kLanes == 0 && p.out_channels >= kLanes &&
                      width > 2 - 2 * s.pad_x && height > 2 - 2 * s.pad_y && width > 0 &&
                      height > 0;
  if (!served) return false;
  l->in_channels = p.in_channels;
  l->out_channels = p.out_channels;
  l->width = width;
  l->height = height;
  l->pad_x = s.pad_x;
  l->pad_y = s.pad_y;
  l->out_width = width + 2 * s.pad_x - 2;
  l->out_height = height + 2 * s.pad_y - 2;
  l->m = zyn_conv_winograd_tile(&p, l->out_width, l->out_height);
  choose_strip(l);
  choose_blocks(l);
  return true;
}

// One block of 8 outputs of one input channel, as doubles [tap][lane].
void read_kernels(const layer& l, const float* weights, int32_t block, int32_t in,
                  double (&kernels)[9 * kLanes]) {
  for (int64_t lane = 0; lane < kLanes; lane++) {
    const int64_t out = int64_t{block} * kLanes + lane;
    const float* from = weights + (out * l.in_channels + in) * 9;
    for (int32_t t = 0; t < 9; t++)
      kernels[t * kLanes + lane] = out < l.out_channels ? static_cast<double>(from[t]) : 0.0;
  }
}

void pack(const layer& l, const float* weights) {
  const int32_t frequencies = zyn_winograd_frequencies(l.m);
  double kernels[9 * kLanes], transformed[zyn_winograd_frequencies(4) * kLanes];
  float* group = l.weights;
  for (int32_t block = 0, blocks = 0; block < block_count(l); block += blocks) {
    blocks = group_at(l, block);
    const int64_t lanes = int64_t{blocks} * kLanes, frequency = l.in_channels * lanes;
    for (int32_t in = 0; in < l.in_channels; in++)
      for (int32_t b = 0; b < blocks; b++) {
        read_kernels(l, weights, block + b, in, kernels);
        zyn_winograd_weights(l.m, kernels, transformed);
        float* to = group + in * lanes + b * kLanes;
        for (int32_t f = 0; f < frequencies; f++)
          for (int32_t lane = 0; lane < kLanes; lane++)
            to[f * frequency + lane] = static_cast<float>(transformed[f * kLanes + lane]);
      }
    group += frequencies * frequency;
  }
}

// One call's tensors and scratch.
struct call {
  const layer& l;
  zyn_general_tensor in, out;
  int32_t activation;
  float *bias, *pixels, *inputs, *products, *outputs;
};

// A strip: its first tile, and how many.
struct strip {
  int32_t y, x;
  zyn_winograd_tiles tiles;
};

void transform_inputs(const call& c, const strip& s) {
  const layer& l = c.l;
  const zyn_winograd_tiles tiles = {l.m, s.tiles.rows, s.tiles.columns, input_step(l)};
  const zyn_general_window window = {s.y * l.m - l.pad_y, l.m * tiles.rows + 2, s.x * l.m - l.pad_x,
                                     l.m * tiles.columns + 2};
  for (int32_t block = 0; block < l.in_channels / kLanes; block++) {
    zyn_general_gather(c.pixels, c.in, block * kLanes, kLanes, window, true);
    zyn_winograd_input(tiles, c.pixels, c.inputs + l.taps[block]);
  }
}

// One chunk of inputs into all tiles of a frequency, a register tile's pixels at a time: between
// them the lines that are read next are asked for, as weights come from far away.
void multiply_chunk(zyn_general_lines line, int32_t blocks, int64_t tiles, const float* next,
                    int64_t next_floats) {
  const int64_t parts = ceil_div(tiles, zyn_general_most_pixels(blocks));
  const float *in = line.in, *ahead = next;
  float* out = line.out;
  for (int64_t part = 0; part < parts; part++) {
    const int64_t first = tiles * part / parts, end = tiles * (part + 1) / parts;
    const float* until = next + next_floats * (part + 1) / parts;
    for (; ahead < until; ahead += kLine)
      _mm_prefetch(reinterpret_cast<const char*>(ahead), _MM_HINT_T1);
    line.in = in + first * kLanes;
    line.out = out + first * kLanes;
    zyn_general_dense_lines(line, blocks, end - first);
  }
}

// The products of a group of output blocks, frequency by frequency.
void multiply(const call& c, const float* weights, int32_t blocks, int64_t tiles) {
  alignas(32) static constexpr float kNoBias[kZynGeneralMostBlocks * kLanes] = {};
  const layer& l = c.l;
  const int32_t steps = l.in_channels / kLanes;
  const int64_t step_floats = int64_t{kLanes} * blocks * kLanes;
  const int32_t most =
      static_cast<int32_t>(kChunkBytes / static_cast<int64_t>(sizeof(float)) / step_floats);
  const int32_t chunks = ceil_div(steps, most);
  const float* all_end = l.weights + weight_floats(l);
  for (int32_t f = 0; f < zyn_winograd_frequencies(l.m); f++) {
    const float* in = c.inputs + f * input_step(l);
    float* out = c.products + f * product_step(l);
    for (int32_t chunk = 0, done = 0; chunk < chunks; chunk++) {
      const int32_t end = static_cast<int32_t>(int64_t{steps} * (chunk + 1) / chunks);
      const float* next = weights + (end - done) * step_floats;
      const int64_t left = all_end - next;
      const zyn_general_lines line = {in,
                                      l.taps + done,
                                      end - done,
                                      kLanes,
                                      kLanes,
                                      weights,
                                      out,
                                      kLanes,
                                      tile_count(l) * kLanes,
                                      done == 0,
                                      kNoBias,
                                      -__builtin_inff(),
                                      1,
                                      0,
                                      0};
      multiply_chunk(line, blocks, tiles, next, left < next - weights ? left : next - weights);
      weights = next;
      done = end;
    }
  }
}

// A block's pixels into the output, in place where its order is that of the tiles.
void transform_outputs(const call& c, const strip& s, int32_t block, const float* products) {
  const layer& l = c.l;
  const zyn_winograd_tiles tiles = {l.m, s.tiles.rows, s.tiles.columns, product_step(l)};
  const int32_t first_y = s.y * l.m, first_x = s.x * l.m, channel = block * kLanes;
  zyn_winograd_output_rows rows = {nullptr, 0, l.out_width - first_x, l.out_height - first_y};
  if (rows.width > l.m * tiles.columns) rows.width = l.m * tiles.columns;
  if (rows.height > l.m * tiles.rows) rows.height = l.m * tiles.rows;
  const int64_t first = int64_t{first_y} * l.out_width + first_x;
  if (c.out.blocked && channel + kLanes <= l.out_channels) {
    rows.data = c.out.data + channel * c.out.plane() + first * kLanes;
    rows.pitch = int64_t{l.out_width} * kLanes;
    zyn_winograd_output(tiles, products, c.bias + channel, c.activation, rows);
    return;
  }
  rows.data = c.outputs;
  rows.pitch = int64_t{rows.width} * kLanes;
  zyn_winograd_output(tiles, products, c.bias + channel, c.activation, rows);
  const bool whole = rows.width == l.out_width;  // rows follow each other
  const int64_t runs = whole ? 1 : rows.height, count = int64_t{rows.width} * rows.height / runs;
  for (int64_t y = 0; y < runs; y++)
    zyn_general_scatter(c.out, channel, first + y * l.out_width, count, c.outputs + y * rows.pitch);
}

void run_strip(const call& c, const strip& s) {
  const layer& l = c.l;
  transform_inputs(c, s);
  const float* weights = l.weights;
  for (int32_t block = 0, blocks = 0; block < block_count(l); block += blocks) {
    blocks = group_at(l, block);
    multiply(c, weights, blocks, int64_t{s.tiles.rows} * s.tiles.columns);
    weights += int64_t{zyn_winograd_frequencies(l.m)} * l.in_channels * blocks * kLanes;
    for (int32_t b = 0; b < blocks; b++)
      transform_outputs(c, s, block + b, c.products + b * tile_count(l) * kLanes);
  }
}

layer* prepare_pointwise(const float* weights, const zyn_conv_param* param, const int32_t* input,
                         bool planar_output, int64_t* scratch) {
  auto made = zyn_scratch<layer>::zeroed(1);
  if (!made) return nullptr;
  made->quarters = zyn_conv_quarters_prepare(weights, param, input, planar_output, scratch);
  return made->quarters ? made.take() : nullptr;
}

}  // namespace

bool zyn_conv_winograd_serves(const zyn_conv_param* param, int32_t width, int32_t height) {
  layer l = {};
  return open(&l, *param, width, height) || zyn_conv_quarters_serves(param, width, height);
}

int32_t zyn_conv_winograd_tile(const zyn_conv_param* param, int32_t out_width, int32_t out_height) {
  // Fetching a pair of channels' weights takes as long as the products of so many tiles; those of
  // few channels may still be in the cache.
  const int64_t pairs = int64_t{param->in_channels} * param->out_channels;
  const int64_t weights = pairs < 20 * 512 ? pairs / 512 : 20;
  const auto products = [=](int32_t m) {
    return (int64_t{ceil_div(out_width, m)} * ceil_div(out_height, m) + weights) *
           zyn_winograd_frequencies(m);
  };
  return products(4) < products(2) ? 4 : 2;
}

zyn_conv_winograd* zyn_conv_winograd_prepare(const float* weights, const zyn_conv_param* param,
                                             const int32_t* input, const int32_t* output,
                                             bool planar_output, int64_t* scratch) {
  layer l = {};
  if (input[0] == output[0] && input[1] == output[1] &&
      zyn_conv_quarters_serves(param, input[0], input[1]))
    return prepare_pointwise(weights, param, input, planar_output, scratch);
  if (!open(&l, *param, input[0], input[1]) || l.out_width != output[0] ||
      l.out_height != output[1])
    return nullptr;
  l.planar_output = planar_output;
  const int32_t in_blocks = l.in_channels / kLanes;
  zyn_scratch<float> packed(weight_floats(l));
  zyn_scratch<int64_t> taps(in_blocks);
  zyn_scratch<layer> made(1);
  if (!packed || !taps || !made) return nullptr;
  *scratch = layout(l).total();
  l.weights = packed.take();
  l.taps = taps.take();
  for (int32_t block = 0; block < in_blocks; block++)
    l.taps[block] = block * tile_count(l) * kLanes;
  *made.get() = l;
  pack(l, weights);
  return made.take();
}

void zyn_conv_winograd_release(zyn_conv_winograd** layer) {
  if (!*layer) return;
  zyn_conv_quarters_release(&(*layer)->quarters);
  zyn_free((*layer)->weights);
  zyn_free((*layer)->taps);
  zyn_free(*layer);
  *layer = nullptr;
}

int64_t zyn_conv_winograd_bytes(const zyn_conv_winograd* layer) {
  return layer ? zyn_conv_quarters_bytes(layer->quarters) + zyn_block_bytes(layer->weights) +
                     zyn_block_bytes(layer->taps) + zyn_block_bytes(layer)
               : 0;
}

const float* zyn_conv_winograd_weights(const zyn_conv_winograd* layer) {
  return layer->quarters ? zyn_conv_quarters_weights(layer->quarters) : layer->weights;
}
bool zyn_conv_winograd_asks_ahead(const zyn_conv_winograd* layer) { return layer->quarters; }
void zyn_conv_winograd_expect_behind(zyn_conv_winograd* layer, int64_t bytes) {
  if (layer->quarters) zyn_conv_quarters_expect_behind(layer->quarters, bytes);
}

void zyn_conv_winograd_run(const zyn_conv_winograd* layer, zyn_tensor* output,
                           const zyn_tensor* input, const zyn_conv_epilogue& epilogue,
                           float* scratch) {
  const zyn_conv_winograd& l = *layer;
  if (l.quarters) return zyn_conv_quarters_run(l.quarters, output, input, epilogue, scratch);
  const layout parts(l);
  const bool one_pixel = l.width == 1 && l.height == 1;  // both orders are one
  const bool blocked = input->layout == ZYN_LAYOUT_BLOCKED || one_pixel;
  memset(scratch, 0, static_cast<size_t>(parts.bias) * sizeof(float));
  if (epilogue.bias)
    memcpy(scratch, epilogue.bias, static_cast<size_t>(l.out_channels) * sizeof(float));
  output->layout = l.planar_output ? ZYN_LAYOUT_PLANAR : ZYN_LAYOUT_BLOCKED;
  float* pixels = scratch + parts.bias;
  float* inputs = pixels + parts.pixels;
  float* products = inputs + parts.inputs;
  const call c = {l,
                  {static_cast<float*>(input->data), blocked, l.in_channels, l.width, l.height},
                  {static_cast<float*>(output->data), !l.planar_output, l.out_channels, l.out_width,
                   l.out_height},
                  epilogue.activation,
                  scratch,
                  pixels,
                  inputs,
                  products,
                  products + parts.products};
  const int32_t down = ceil_div(l.out_height, l.m), across = ceil_div(l.out_width, l.m);
  for (int32_t y = 0; y < down; y += l.rows)
    for (int32_t x = 0; x < across; x += l.columns) {
      const int32_t rows = down - y < l.rows ? down - y : l.rows;
      const int32_t columns = across - x < l.columns ? across - x : l.columns;
      run_strip(c, {y, x, {l.m, rows, columns, 0}});
    }
}

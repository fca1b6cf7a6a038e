// Strips of pairs of pixels, one of each half of the plane. Halves of an odd number of pixels, or
// of blocks of outputs, have one in common, which is computed twice; of an odd number of blocks of
// inputs the one in common has no weights in the second half.
#include "cg/cpu/kernels/winograd/zyn_conv_quarters.h"

#include <string.h>

#include "base/zyn_integers.h"
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/general/zyn_general_strip.h"
#include "cg/cpu/kernels/winograd/zyn_winograd_quarters.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

struct zyn_conv_quarters {
  bool planar_output;
  int32_t in_channels, out_channels, width, height;
  int32_t in_blocks, out_blocks, pairs;  // of a half: blocks of 8 channels, pixels
  int32_t strip;                         // pairs at a time
  float* weights;                        // by product, as the blocked kernels pack them
  int64_t behind;                        // bytes behind them that later layers read
};

namespace {

using layer = zyn_conv_quarters;

constexpr int32_t kLanes = 8;
constexpr int32_t kLeast = 32;               // channels and pixels
constexpr int64_t kStripBytes = 768 * 1024;  // of all quarters of a strip
constexpr int32_t kLeastStrip = 48;
constexpr int64_t kLine = 16;  // floats of a cache line
constexpr int32_t kBlocksTogether = 2;  // of outputs: whole vectors of any width
constexpr int32_t kFirstOutputs = 16;  // whose weights the product before asks for

int32_t half_of(int64_t count) { return static_cast<int32_t>((count + 1) / 2); }
int32_t blocks_of(int32_t channels) { return static_cast<int32_t>(zyn_units(channels, kLanes)); }

// Where the second halves begin.
int32_t second_input(const layer& l) { return blocks_of(l.in_channels) - l.in_blocks; }
int32_t second_output(const layer& l) { return blocks_of(l.out_channels) - l.out_blocks; }
int64_t second_pixel(const layer& l) { return int64_t{l.width} * l.height - l.pairs; }

int64_t product_weights(const layer& l) {
  return int64_t{l.in_blocks} * kLanes * l.out_blocks * kLanes;
}

// Floats of a quarter of blocks blocks of a strip's pixels, as what lies behind it begins: an odd
// number of lines, as quarters are read and written in turn and shall not meet in one set of the
// cache.
int64_t quarter_floats(const layer& l, int32_t blocks) {
  return (zyn_units(int64_t{l.strip} * blocks * kLanes, kLine) | 1) * kLine;
}

// What a run keeps in scratch, in floats, one behind the other: biases, T1 to T4, two quarters of
// sums, and quarters of planar tensors in channel blocks: four of inputs, one of outputs.
struct layout {
  int64_t bias, inputs, outputs;

  explicit layout(const layer& l)
      : bias(int64_t{blocks_of(l.out_channels)} * kLanes),
        inputs(quarter_floats(l, l.in_blocks)),
        outputs(quarter_floats(l, l.out_blocks)) {}
  int64_t total() const { return bias + 8 * inputs + 3 * outputs + kZynAlignmentFloats; }
};

bool open(layer* l, const zyn_conv_param& p, int32_t width, int32_t height) {
  const zyn_conv_shape s = zyn_conv_shape_of(&p);
  const int64_t plane = int64_t{width} * height;
  const bool served = s.kernel_x == 1 && s.kernel_y == 1 && s.stride_x == 1 && s.stride_y == 1 &&
                      s.pad_x == 0 && s.pad_y == 0 && p.groups == 1 && p.in_channels >= kLeast &&
                      p.in_channels % kLanes == 0 && p.out_channels >= kLeast && width > 0 &&
                      height > 0 && plane >= kLeast && plane <= INT32_MAX / kLanes;
  if (!served) return false;
  *l = {false, p.in_channels, p.out_channels, width, height, 0, 0, half_of(plane), 0, nullptr, 0};
  l->in_blocks = half_of(blocks_of(p.in_channels));
  l->out_blocks =
      static_cast<int32_t>(zyn_round_up(half_of(blocks_of(p.out_channels)), kBlocksTogether));
  const int64_t pair = int64_t{kLanes} * (8 * l->in_blocks + 6 * l->out_blocks);
  const int64_t most =
      zyn_larger(kStripBytes / static_cast<int64_t>(sizeof(float)) / pair, kLeastStrip);
  l->strip = static_cast<int32_t>(zyn_units(l->pairs, zyn_units(l->pairs, most)));
  return true;
}

// The weight of an output and an input of a quarter.
double weight_at(const layer& l, const float* weights, int64_t out, int64_t in, bool lower,
                 bool right) {
  if (right && second_input(l) < l.in_blocks && in < kLanes) return 0;
  out += lower ? second_output(l) * kLanes : 0;
  in += right ? second_input(l) * kLanes : 0;
  return out < l.out_channels ? static_cast<double>(weights[out * l.in_channels + in]) : 0.0;
}

void pack(const layer& l, const float* weights) {
  float* packed = zyn_vector_aligned(l.weights);
  const int64_t inputs = int64_t{l.in_blocks} * kLanes, outputs = int64_t{l.out_blocks} * kLanes;
  for (int64_t out = 0; out < outputs; out++)
    for (int64_t in = 0; in < inputs; in++) {
      double factors[kZynWinogradProducts];
      zyn_winograd_quarter_weights(
          {weight_at(l, weights, out, in, false, false),
           weight_at(l, weights, out, in, false, true), weight_at(l, weights, out, in, true, false),
           weight_at(l, weights, out, in, true, true)},
          factors);
      const int64_t place = zyn_blocked_1x1_place(out, in, inputs);
      for (int64_t f = 0; f < kZynWinogradProducts; f++)
        packed[f * product_weights(l) + place] = static_cast<float>(factors[f]);
    }
}

// One call's tensors and scratch, and a strip of it: pixels first to first + count - 1 of either
// half.
struct call {
  const layer& l;
  zyn_general_tensor in, out;
  int32_t activation;
  float *bias, *t[4], *sums[2], *gathered[4], *held;
  int32_t first, count;

  int32_t pixel(bool right) const {
    return static_cast<int32_t>(right ? second_pixel(l) + first : first);
  }
};

// Where a quarter of a strip lies: its first pixel, and the pixels of a plane.
struct place {
  float* first;
  int64_t plane;
};
place place_in(const zyn_general_tensor& tensor, int32_t block, int32_t pixel) {
  return {tensor.data + (block * tensor.plane() + pixel) * kLanes, tensor.plane()};
}

// An input's quarter, in place or gathered.
place input_quarter(const call& c, bool lower, bool right) {
  const int32_t first = lower ? second_input(c.l) : 0;
  if (c.in.blocked) return place_in(c.in, first, c.pixel(right));
  float* to = c.gathered[2 * lower + right];
  for (int32_t block = 0; block < c.l.in_blocks; block++)
    zyn_general_gather(to + int64_t{block} * c.count * kLanes, c.in, (first + block) * kLanes,
                       kLanes, {0, 1, c.pixel(right), c.count}, true);
  return {to, c.count};
}

// An output's quarter, in place or where it is held until scatter.
bool in_place(const call& c, bool lower) {
  return c.out.blocked && (!lower || c.l.out_channels % kLanes == 0);
}
place output_quarter(const call& c, bool lower, bool right) {
  return in_place(c, lower) ? place_in(c.out, lower ? second_output(c.l) : 0, c.pixel(right))
                            : place{c.held, c.count};
}
void scatter(const call& c, bool lower, bool right) {
  if (in_place(c, lower)) return;
  for (int32_t block = 0; block < c.l.out_blocks; block++)
    zyn_general_scatter(c.out, ((lower ? second_output(c.l) : 0) + block) * kLanes, c.pixel(right),
                        c.count, c.held + int64_t{block} * c.count * kLanes);
}

// A product plus what is given of sums, to out.
void multiply(const call& c, zyn_winograd_product product, const place& in, const place& out,
              const float* first_sums, const float* second_sums = nullptr,
              const zyn_conv_epilogue* epilogue = nullptr) {
  const layer& l = c.l;
  const bool last = product == kZynWinogradProducts - 1, last_strip = c.first + c.count == l.pairs;
  const int64_t first_weights = int64_t{l.in_blocks} * kLanes * kFirstOutputs * 4;
  zyn_blocked_1x1({in.first,
                   l.in_blocks * kLanes,
                   static_cast<int32_t>(in.plane),
                   1,
                   out.first,
                   l.out_blocks * kLanes,
                   static_cast<int32_t>(out.plane),
                   1,
                   zyn_vector_aligned(l.weights) + product * product_weights(l),
                   epilogue,
                   !last        ? first_weights
                   : last_strip ? l.behind
                                : 0,
                   {first_sums, second_sums},
                   c.count},
                  c.count);
}

void run_strip(const call& c) {
  const layer& l = c.l;
  const place b11 = input_quarter(c, false, false), b12 = input_quarter(c, false, true);
  const place b21 = input_quarter(c, true, false), b22 = input_quarter(c, true, true);
  const int64_t floats = int64_t{c.count} * kLanes;
  for (int64_t block = 0; block < l.in_blocks; block++) {
    const int64_t from = block * b11.plane * kLanes, to = block * floats;
    zyn_winograd_quarter_inputs(
        {b11.first + from, b12.first + from, b21.first + from, b22.first + from}, floats,
        {c.t[0] + to, c.t[1] + to, c.t[2] + to, c.t[3] + to});
  }
  const float* lower_bias = c.bias + second_output(l) * kLanes;
  const zyn_conv_epilogue upper = {c.bias, c.activation}, lower = {lower_bias, c.activation};
  float *const u = c.sums[0], *const p5 = c.sums[1];
  const auto t = [&](int32_t n) { return place{c.t[n - 1], c.count}; };
  const place c11 = output_quarter(c, false, false), c12 = output_quarter(c, false, true);
  const place c21 = output_quarter(c, true, false), c22 = output_quarter(c, true, true);
  multiply(c, kP1, b11, {u, c.count}, nullptr);
  multiply(c, kP2, b21, c11, u, nullptr, &upper);
  scatter(c, false, false);
  multiply(c, kP6, t(2), {u, c.count}, u);
  multiply(c, kP5, t(1), {p5, c.count}, nullptr);
  multiply(c, kP3, b22, c12, u, p5, &upper);
  scatter(c, false, true);
  multiply(c, kP7, t(3), {u, c.count}, u);
  multiply(c, kP4, t(4), c21, u, nullptr, &lower);
  scatter(c, true, false);
  for (int64_t block = 0; block < l.out_blocks; block++)
    zyn_winograd_last_quarter(c22.first + block * c22.plane * kLanes, u + block * floats,
                              p5 + block * floats, floats, lower_bias + block * kLanes,
                              c.activation);
  scatter(c, true, true);
}

}  // namespace

bool zyn_conv_quarters_serves(const zyn_conv_param* param, int32_t width, int32_t height) {
  layer l = {};
  return open(&l, *param, width, height);
}

zyn_conv_quarters* zyn_conv_quarters_prepare(const float* weights, const zyn_conv_param* param,
                                             const int32_t* input, bool planar_output,
                                             int64_t* scratch) {
  layer l = {};
  if (!open(&l, *param, input[0], input[1])) return nullptr;
  l.planar_output = planar_output;
  zyn_scratch<float> packed(kZynWinogradProducts * product_weights(l) + kZynAlignmentFloats);
  zyn_scratch<layer> made(1);
  if (!packed || !made) return nullptr;
  *scratch = layout(l).total();
  l.weights = packed.take();
  pack(l, weights);
  *made.get() = l;
  return made.take();
}

void zyn_conv_quarters_release(zyn_conv_quarters** layer) {
  if (!*layer) return;
  zyn_free((*layer)->weights);
  zyn_free(*layer);
  *layer = nullptr;
}

void zyn_conv_quarters_expect_behind(zyn_conv_quarters* layer, int64_t bytes) {
  layer->behind = bytes;
}

const float* zyn_conv_quarters_weights(const zyn_conv_quarters* layer) { return layer->weights; }

int64_t zyn_conv_quarters_bytes(const zyn_conv_quarters* layer) {
  return layer ? zyn_block_bytes(layer->weights) + zyn_block_bytes(layer) : 0;
}

void zyn_conv_quarters_run(const zyn_conv_quarters* layer, zyn_tensor* output,
                           const zyn_tensor* input, const zyn_conv_epilogue& epilogue,
                           float* scratch) {
  const zyn_conv_quarters& l = *layer;
  const layout parts(l);
  const int32_t plane = l.width * l.height;
  output->layout = l.planar_output ? ZYN_LAYOUT_PLANAR : ZYN_LAYOUT_BLOCKED;
  float* next = zyn_vector_aligned(scratch);
  const auto take = [&](int64_t floats) {
    float* taken = next;
    next += floats;
    return taken;
  };
  call c = {l,
            {static_cast<float*>(input->data), input->layout == ZYN_LAYOUT_BLOCKED, l.in_channels,
             plane, 1},
            {static_cast<float*>(output->data), !l.planar_output, l.out_channels, plane, 1},
            epilogue.activation,
            take(parts.bias),
            {},
            {},
            {},
            nullptr,
            0,
            0};
  for (float*& t : c.t) t = take(parts.inputs);
  for (float*& sums : c.sums) sums = take(parts.outputs);
  for (float*& quarter : c.gathered) quarter = take(parts.inputs);
  c.held = take(parts.outputs);
  memset(c.bias, 0, static_cast<size_t>(parts.bias) * sizeof(float));
  if (epilogue.bias)
    memcpy(c.bias, epilogue.bias, static_cast<size_t>(l.out_channels) * sizeof(float));
  for (; c.first < l.pairs; c.first += l.strip) {
    c.count = l.pairs - c.first < l.strip ? l.pairs - c.first : l.strip;
    run_strip(c);
  }
}

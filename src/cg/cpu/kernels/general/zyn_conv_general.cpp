// Plans and drives the general convolutions: how many output channels a tile takes, strips of
// rows, chunks of taps whose weights stay in the first cache level.
#include "cg/cpu/kernels/general/zyn_conv_general.h"

#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/general/zyn_general_depthwise.h"
#include "cg/cpu/kernels/general/zyn_general_strip.h"
#include "cg/cpu/kernels/general/zyn_general_tile.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_shape.h"

struct zyn_conv_general {
  zyn_conv_shape shape;
  bool depthwise, planar_output;
  int32_t in_channels, out_channels;
  int32_t width, height, out_width, out_height;
  int32_t blocks;     // of 8 output channels a group of them
  int32_t pitch;      // columns of a gathered row
  int32_t strip;      // output rows at a time
  bool along_y;       // lines of pixels run downwards
  int64_t in_floats;  // of scratch for gathered rows
  int64_t* taps[2];   // pixels from a pixel's first tap to each, in place and gathered
  float* weights;     // by group, then [step][input][lane]; depthwise [8 channels][tap][lane]
  zyn_general_depthwise_plan* planes;  // depthwise layers; these need nothing else of the above
};

namespace {

using layer = zyn_conv_general;

constexpr int32_t kLanes = 8;
constexpr int64_t kInputBytes = 512 * 1024;  // gathered rows of all channels
constexpr int64_t kOutputBytes = 64 * 1024;  // a group's rows
constexpr int64_t kChunkBytes = 20 * 1024;   // weights of a group
constexpr int32_t kMostTaps = 256;           // of a chunk
constexpr int32_t kAlignment = 8;            // floats

// -0 changes no value that it is added to.
alignas(32) constexpr float kNoBias[kZynGeneralMostBlocks * kLanes] = {
    -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f,
    -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f,
    -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f,
    -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f,
    -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f, -0.0f};

int64_t round_up(int64_t value, int64_t step) { return (value + step - 1) / step * step; }

int32_t taps_of(const layer& l) { return l.shape.kernel_x * l.shape.kernel_y; }

int32_t block_count(const layer& l) { return (l.out_channels + kLanes - 1) / kLanes; }

// Input rows that a strip of output rows reads.
int64_t rows_read(const layer& l, int64_t rows) {
  return (rows - 1) * l.shape.stride_y + int64_t{l.shape.kernel_y - 1} * l.shape.dilation_y + 1;
}

// The blocks of the group that begins at a block.
int32_t group_at(const layer& l, int32_t block) {
  const int32_t left = block_count(l) - block;
  return zyn_general_blocks_within(left < l.blocks ? left : l.blocks);
}

// Cycles of a step of a line of pixels under tiles of a number of blocks: multiply-adds, what
// they wait for each other, loads.
double line_cycles(int32_t blocks, int64_t pixels) {
  const int64_t most = zyn_general_most_pixels(blocks);
  const int64_t tiles = (pixels + most - 1) / most;
  const double each = static_cast<double>(pixels) / static_cast<double>(tiles);
  const int32_t vectors = zyn_general_vectors(blocks);
  const double sums = each * vectors;
  double cycles = sums / 2 + 0.35;
  if (cycles < 4.6) cycles = 4.6;
  const double loads = (each + vectors) / 2.4;
  return static_cast<double>(tiles) * ((cycles < loads ? loads : cycles) + 0.15);
}

int32_t choose_blocks(const layer& l, int64_t pixels) {
  constexpr int32_t kCandidates[] = {3, 2, 1, 4, 8};
  int32_t best = 1;
  double best_cycles = 0;
  for (const int32_t candidate : kCandidates) {
    double cycles = 0;
    for (int32_t left = block_count(l), taken = 0; left > 0; left -= taken) {
      taken = zyn_general_blocks_within(left < candidate ? left : candidate);
      cycles += line_cycles(taken, pixels);
    }
    if (best_cycles > 0 && cycles >= 0.99 * best_cycles) continue;
    best_cycles = cycles;
    best = candidate;
  }
  return best;
}

// Classes of input channels: whole blocks of 8, a block of 4, single channels.
struct input_class {
  int32_t first, width, blocks;
};
int32_t classes_of(const layer& l, input_class (&classes)[3]) {
  const int32_t eights = l.in_channels / 8, fours = l.in_channels % 8 / 4, ones = l.in_channels % 4;
  int32_t count = 0;
  if (eights) classes[count++] = {0, 8, eights};
  if (fours) classes[count++] = {eights * 8, 4, 1};
  if (ones) classes[count++] = {eights * 8 + fours * 4, 1, ones};
  return count;
}

// Weights of a group of blocks, class by class.
float* pack_group(const layer& l, float* to, const float* weights, int32_t block, int32_t blocks) {
  input_class classes[3];
  const int32_t count = classes_of(l, classes), taps = taps_of(l);
  for (int32_t n = 0; n < count; n++)
    for (int32_t i = 0; i < classes[n].blocks; i++)
      for (int32_t t = 0; t < taps; t++)
        for (int32_t k = 0; k < classes[n].width; k++)
          for (int32_t lane = 0; lane < blocks * kLanes; lane++, to++) {
            const int64_t out = int64_t{block} * kLanes + lane;
            const int64_t in = classes[n].first + int64_t{i} * classes[n].width + k;
            *to = out < l.out_channels ? weights[(out * l.in_channels + in) * taps + t] : 0.0f;
          }
  return to;
}

void pack(layer* l, const float* weights) {
  float* to = l->weights;
  const int32_t taps = taps_of(*l);
  for (int32_t block = 0; block < block_count(*l);) {
    const int32_t blocks = l->depthwise ? 1 : group_at(*l, block);
    if (!l->depthwise) {
      to = pack_group(*l, to, weights, block, blocks);
    } else {
      for (int32_t t = 0; t < taps; t++)
        for (int32_t lane = 0; lane < kLanes; lane++) {
          const int64_t c = int64_t{block} * kLanes + lane;
          *to++ = c < l->out_channels ? weights[c * taps + t] : 0.0f;
        }
    }
    block += blocks;
  }
}

// One call's tensors and scratch.
struct call {
  const layer& l;
  zyn_general_tensor in, out;
  bool gathers;
  const float* bias;  // padded to whole blocks
  float floor;
  int32_t activation;  // what is left to do behind bias and floor
  float* rows;         // gathered input
  float* sums;         // a group's output
};

// Input of a strip: where the first tap of its first pixel lies, by class of channels.
struct strip_input {
  const float* base;
  int64_t plane;  // pixels from one channel to the next
  int64_t row;    // first row within a plane
  int32_t pitch;
  const int64_t* taps;  // of the layer

  const float* channels_from(int32_t channel, int32_t width) const {
    return base + channel * plane + row * pitch * width;
  }
};

// A chunk's part of a strip: lines of pixels along its rows, or its columns.
void run_lines(const call& c, zyn_general_lines line, int32_t lanes, int32_t pitch, int32_t rows,
               int32_t blocks) {
  const layer& l = c.l;
  const int64_t across = int64_t{l.shape.stride_x} * lanes;
  const int64_t down = int64_t{l.shape.stride_y} * pitch * lanes;
  int64_t lines = rows, pixels = l.out_width, in_line = down,
          out_line = int64_t{l.out_width} * kLanes;
  line.in_step = across;
  line.out_step = kLanes;
  if (down == across * l.out_width) {  // rows follow each other
    lines = 1;
    pixels *= rows;
  } else if (l.along_y) {
    lines = l.out_width;
    pixels = rows;
    in_line = across;
    line.in_step = down;
    line.out_step = out_line;
    out_line = kLanes;
  }
  line.lines = lines;
  line.in_line = in_line;
  line.out_line = out_line;
  zyn_general_dense_lines(line, blocks, pixels);
}

// Where a group's sums of a strip go: the output itself where its order is that of the tiles.
struct target {
  float* out;
  int64_t block;  // floats between blocks of 8 channels
  bool direct;
};

target target_of(const call& c, int32_t block, int32_t blocks, int32_t y, int32_t rows) {
  const layer& l = c.l;
  const bool whole = (block + blocks) * kLanes <= l.out_channels;
  const int64_t plane = c.out.plane();
  if (c.out.blocked && whole)
    return {c.out.data + block * kLanes * plane + int64_t{y} * l.out_width * kLanes, plane * kLanes,
            true};
  return {c.sums, int64_t{rows} * l.out_width * kLanes, false};
}

// The activation where tiles do not have it, and the way into the output.
void finish(const call& c, const target& to, int32_t block, int32_t blocks, int32_t y,
            int32_t rows) {
  const int64_t pixels = int64_t{rows} * c.l.out_width;
  for (int32_t b = 0; b < blocks; b++) {
    float* values = to.out + b * to.block;
    if (c.activation != ZYN_EPILOGUE_NONE)
      zyn_conv_finish_rows(values, 1, pixels * kLanes, {nullptr, c.activation});
    if (!to.direct)
      zyn_general_scatter(c.out, (block + b) * kLanes, int64_t{y} * c.l.out_width, pixels, values);
  }
}

// The steps of a class of input channels, in the order of their weights. A step is a tap of 8
// inputs, or of one: in a block of 4 these lie side by side.
class step_walk {
 public:
  step_walk(const strip_input& in, const input_class& k, int32_t taps)
      : in_(in), k_(k), taps_(taps), parts_(k.width == kLanes ? 1 : k.width) {}

  int32_t inputs() const { return k_.width / parts_; }
  int64_t count() const { return int64_t{k_.blocks} * taps_ * parts_; }
  // The offset of the step at hand; the next one is then at hand.
  int64_t next() {
    const int64_t offset = block_ + in_.taps[tap_] * k_.width + part_;
    if (++part_ < parts_) return offset;
    part_ = 0;
    if (++tap_ < taps_) return offset;
    tap_ = 0;
    block_ += k_.width * in_.plane;
    return offset;
  }

 private:
  const strip_input& in_;
  const input_class& k_;
  int32_t taps_, parts_;
  int32_t tap_ = 0, part_ = 0;
  int64_t block_ = 0;
};

// All input channels into a group of output blocks over a strip.
const float* dense_group(const call& c, const strip_input& in, const float* weights, int32_t block,
                         int32_t blocks, int32_t y, int32_t rows) {
  const layer& l = c.l;
  const target to = target_of(c, block, blocks, y, rows);
  const int32_t taps = taps_of(l);
  input_class classes[3];
  const int32_t count = classes_of(l, classes);
  int64_t offsets[kMostTaps];
  bool first = true;
  for (int32_t n = 0; n < count; n++) {
    const input_class& k = classes[n];
    step_walk walk(in, k, taps);
    const int64_t steps = walk.count();
    const int64_t step_floats = int64_t{walk.inputs()} * blocks * kLanes;
    int64_t most = kChunkBytes / static_cast<int64_t>(sizeof(float)) / step_floats;
    most = most < 1 ? 1 : most > kMostTaps ? kMostTaps : most;
    const int64_t chunks = (steps + most - 1) / most;
    for (int64_t done = 0, chunk = 0; done < steps; chunk++) {
      const int64_t end = steps * (chunk + 1) / chunks;
      for (int64_t s = done; s < end; s++) offsets[s - done] = walk.next();
      const bool last = n == count - 1 && end == steps;
      zyn_general_lines line = {in.channels_from(k.first, k.width),
                                offsets,
                                static_cast<int32_t>(end - done),
                                walk.inputs(),
                                0,
                                weights,
                                to.out,
                                0,
                                to.block,
                                first,
                                last ? c.bias + block * kLanes : kNoBias,
                                last ? c.floor : -__builtin_inff(),
                                0,
                                0,
                                0};
      run_lines(c, line, k.width, in.pitch, rows, blocks);
      weights += (end - done) * step_floats;
      done = end;
      first = false;
    }
  }
  finish(c, to, block, blocks, y, rows);
  return weights;
}

// What a strip reads.
zyn_general_window window_of(const layer& l, int32_t y, int32_t rows) {
  return {y * l.shape.stride_y - l.shape.pad_y, static_cast<int32_t>(rows_read(l, rows)),
          -l.shape.pad_x, l.pitch};
}

void run_dense(const call& c) {
  const layer& l = c.l;
  input_class classes[3];
  const int32_t count = classes_of(l, classes);
  for (int32_t y = 0; y < l.out_height; y += l.strip) {
    const int32_t rows = l.out_height - y < l.strip ? l.out_height - y : l.strip;
    strip_input in = {c.in.data, c.in.plane(), int64_t{y} * l.shape.stride_y, l.width, l.taps[0]};
    if (c.gathers) {
      in = {c.rows, rows_read(l, rows) * l.pitch, 0, l.pitch, l.taps[1]};
      for (int32_t n = 0; n < count; n++)
        for (int32_t i = 0; i < classes[n].blocks; i++) {
          const int32_t channel = classes[n].first + i * classes[n].width;
          zyn_general_gather(c.rows + channel * in.plane, c.in, channel, classes[n].width,
                             window_of(l, y, rows), true);
        }
    }
    const float* weights = l.weights;
    for (int32_t block = 0, blocks = 0; block < block_count(l); block += blocks) {
      blocks = group_at(l, block);
      weights = dense_group(c, in, weights, block, blocks, y, rows);
    }
  }
}

// Whether a record and an input are ones that the kernels take; scratch stays within a small
// multiple of the tensors.
bool serves(const layer& l, const zyn_conv_param& p) {
  const zyn_conv_shape& s = l.shape;
  const bool positive = s.kernel_x > 0 && s.kernel_y > 0 && s.stride_x > 0 && s.stride_y > 0 &&
                        s.dilation_x > 0 && s.dilation_y > 0 && s.pad_x >= 0 && s.pad_y >= 0 &&
                        l.width > 0 && l.height > 0 && l.in_channels > 0 && l.out_channels > 0;
  if (!positive || (p.groups != 1 && !l.depthwise)) return false;
  const auto fits = [](int64_t kernel, int64_t dilation, int64_t pad, int64_t extent) {
    const int64_t reach = (kernel - 1) * dilation;
    return pad <= reach && reach < 4 * extent + 64 && extent + 2 * pad > reach;
  };
  return fits(s.kernel_x, s.dilation_x, s.pad_x, l.width) &&
         fits(s.kernel_y, s.dilation_y, s.pad_y, l.height);
}

// Output rows at a time, so that what they read and write stays in the caches.
int32_t strip_rows(const layer& l) {
  const int64_t most = kInputBytes / static_cast<int64_t>(sizeof(float));
  const int64_t row = int64_t{l.in_channels} * l.pitch;
  const int64_t reach = rows_read(l, 1);
  int64_t rows = (most / row - reach) / l.shape.stride_y + 1;
  const int64_t out_row = int64_t{l.blocks} * kLanes * l.out_width;
  const int64_t out_rows = kOutputBytes / static_cast<int64_t>(sizeof(float)) / out_row;
  if (rows > out_rows) rows = out_rows;
  if (rows < 1) rows = 1;
  if (rows >= l.out_height) return l.out_height;
  const int64_t strips = (l.out_height + rows - 1) / rows;  // strips of nearly equal size
  return static_cast<int32_t>((l.out_height + strips - 1) / strips);
}

void fill_taps(const layer& l, int64_t* taps, int32_t pitch) {
  for (int64_t ky = 0; ky < l.shape.kernel_y; ky++)
    for (int64_t kx = 0; kx < l.shape.kernel_x; kx++)
      *taps++ = ky * l.shape.dilation_y * pitch + kx * l.shape.dilation_x;
}

// The layer's shape; false where it is not served.
bool open(layer* l, const zyn_conv_param& param, int32_t width, int32_t height) {
  l->shape = zyn_conv_shape_of(&param);
  l->depthwise = zyn_conv_is_depthwise(&param);
  l->in_channels = param.in_channels;
  l->out_channels = param.out_channels;
  l->width = width;
  l->height = height;
  if (!serves(*l, param)) return false;
  const zyn_conv_shape& s = l->shape;
  const auto extent = [](int64_t in, int64_t kernel, int64_t dilation, int64_t pad,
                         int64_t stride) {
    return static_cast<int32_t>((in + 2 * pad - (kernel - 1) * dilation - 1) / stride + 1);
  };
  l->out_width = extent(width, s.kernel_x, s.dilation_x, s.pad_x, s.stride_x);
  l->out_height = extent(height, s.kernel_y, s.dilation_y, s.pad_y, s.stride_y);
  return true;
}

// What a dense run is made of.
void plan_dense(layer* l) {
  const zyn_conv_shape& s = l->shape;
  const int64_t reach = int64_t{s.kernel_x - 1} * s.dilation_x;
  l->pitch = static_cast<int32_t>(int64_t{l->out_width - 1} * s.stride_x + reach + 1);
  l->along_y = l->out_width < 4 && l->out_height > l->out_width;
  const bool one_line = s.kernel_x == 1 && s.kernel_y == 1 && s.stride_x == 1 && s.stride_y == 1;
  const int64_t pixels = one_line     ? int64_t{l->out_width} * l->out_height
                         : l->along_y ? l->out_height
                                      : l->out_width;
  l->blocks = choose_blocks(*l, pixels);
  l->strip = strip_rows(*l);
  if (l->along_y) l->strip = l->out_height;
  l->in_floats = round_up(int64_t{l->in_channels} * rows_read(*l, l->strip) * l->pitch, kAlignment);
}

}  // namespace

bool zyn_conv_general_serves(const zyn_conv_param* param, int32_t width, int32_t height) {
  layer l = {};
  return open(&l, *param, width, height);
}

zyn_conv_general* zyn_conv_general_prepare(const float* weights, const zyn_conv_param* param,
                                           const int32_t* input, const int32_t* output,
                                           bool planar_output, int64_t* scratch) {
  layer l = {};
  if (!open(&l, *param, input[0], input[1]) || l.out_width != output[0] ||
      l.out_height != output[1])
    return nullptr;
  l.planar_output = planar_output;
  const int64_t blocks = block_count(l);
  const int64_t inputs = l.depthwise ? 1 : l.in_channels;
  zyn_scratch<float> packed(blocks * kLanes * inputs * taps_of(l));
  zyn_scratch<int64_t> taps(int64_t{2} * taps_of(l));
  zyn_scratch<layer> made(1);
  if (!packed || !taps || !made) return nullptr;
  if (l.depthwise) {
    l.planes = zyn_general_depthwise_make(l.shape, {l.width, l.height, l.out_width, l.out_height},
                                          planar_output, scratch);
    if (!l.planes) return nullptr;
  } else {
    plan_dense(&l);
    *scratch = l.in_floats + int64_t{l.blocks} * kLanes * l.strip * l.out_width;
  }
  *scratch += blocks * kLanes;
  l.weights = packed.take();
  l.taps[0] = taps.take();
  l.taps[1] = l.taps[0] + taps_of(l);
  fill_taps(l, l.taps[0], l.width);
  fill_taps(l, l.taps[1], l.pitch);
  *made.get() = l;
  pack(made.get(), weights);
  return made.take();
}

void zyn_conv_general_release(zyn_conv_general** layer) {
  if (!*layer) return;
  zyn_free((*layer)->weights);
  zyn_free((*layer)->taps[0]);
  zyn_general_depthwise_release(&(*layer)->planes);
  zyn_free(*layer);
  *layer = nullptr;
}

int64_t zyn_conv_general_bytes(const zyn_conv_general* layer) {
  return layer ? zyn_block_bytes(layer->weights) + zyn_block_bytes(layer->taps[0]) +
                     zyn_general_depthwise_bytes(layer->planes) + zyn_block_bytes(layer)
               : 0;
}

void zyn_conv_general_run(const zyn_conv_general* layer, zyn_tensor* output,
                          const zyn_tensor* input, const zyn_conv_epilogue& epilogue,
                          float* scratch) {
  const zyn_conv_general& l = *layer;
  const int64_t blocks = block_count(l);
  const bool one_pixel = l.width == 1 && l.height == 1;  // both orders are one
  const bool blocked = input->layout == ZYN_LAYOUT_BLOCKED || one_pixel;
  const bool padded = l.shape.pad_x > 0 || l.shape.pad_y > 0;
  const bool relu = epilogue.activation == ZYN_EPILOGUE_RELU;
  const bool same_order = l.in_channels < 4;
  float* bias = scratch;
  scratch += blocks * kLanes;
  // -0 changes no value that it is added to.
  for (int64_t i = 0; i < blocks * kLanes; i++) bias[i] = -0.0f;
  if (epilogue.bias)
    memcpy(bias, epilogue.bias, static_cast<size_t>(l.out_channels) * sizeof(float));
  const zyn_general_tensor in = {static_cast<float*>(input->data), blocked, l.in_channels, l.width,
                                 l.height};
  const zyn_general_tensor out = {static_cast<float*>(output->data), !l.planar_output,
                                  l.out_channels, l.out_width, l.out_height};
  const float floor = relu ? 0.0f : -__builtin_inff();
  const int32_t activation = relu ? int32_t{ZYN_EPILOGUE_NONE} : epilogue.activation;
  output->layout = l.planar_output ? ZYN_LAYOUT_PLANAR : ZYN_LAYOUT_BLOCKED;
  if (l.depthwise)
    return zyn_general_depthwise_planes(l.planes,
                                        {in, out, l.weights, bias, floor, activation, scratch});
  run_dense({l, in, out, padded || !(blocked || same_order), bias, floor, activation, scratch,
             scratch + l.in_floats});
}

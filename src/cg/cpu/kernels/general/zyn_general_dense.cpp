// Runs of general dense layers: strips of rows, groups of output channels, chunks of taps whose
// weights stay in the first cache level.
#include "cg/cpu/kernels/general/zyn_general_dense.h"

namespace {

using layer = zyn_conv_general;
using call = zyn_general_dense_run;

constexpr int32_t kLanes = kZynGeneralLanes;
constexpr int64_t kChunkBytes = 20 * 1024;  // weights of a group
constexpr int32_t kMostTaps = 256;          // of a chunk

// Input of a strip: where the first tap of its first pixel lies, by class of channels.
struct strip_input {
  const float* base;
  int64_t plane;  // pixels from one channel to the next
  int64_t row;    // first row within a plane
  int32_t pitch;
  const int64_t* taps;  // of the layer
  int32_t step_x, step_y;

  const float* channels_from(int32_t channel, int32_t width) const {
    return base + channel * plane + row * pitch * width;
  }
};

// Steps of a class of input channels that are done at once, first to end - 1.
struct chunk {
  int64_t first, end;
  int64_t in_line;  // steps of a line of taps
  int64_t floats;   // of a step's weights
  bool last;
};

// The part of a chunk that a line of output pixels sees inside the input.
chunk seen_by(const chunk& steps, const zyn_general_tap_lines& taps, int64_t line) {
  const int64_t start = line * taps.stride - taps.pad;  // of the line's first tap
  const int64_t skipped = start < 0 ? (-start + taps.dilation - 1) / taps.dilation : 0;
  const int64_t end = start < taps.extent ? (taps.extent - 1 - start) / taps.dilation + 1 : 0;
  chunk seen = steps;
  if (skipped * steps.in_line > seen.first) seen.first = skipped * steps.in_line;
  if (end * steps.in_line < seen.end) seen.end = end * steps.in_line;
  if (seen.end < seen.first) seen.end = seen.first = steps.first;
  return seen;
}

// A chunk's part of a strip that begins at row y: lines of pixels along its rows, or its
// columns, those together that see the same taps.
void run_lines(const call& c, const strip_input& in, zyn_general_lines line, const chunk& steps,
               int32_t lanes, int32_t y, int32_t rows, int32_t blocks) {
  const layer& l = c.l;
  const zyn_general_tap_lines taps = zyn_general_tap_lines_of(l);
  const int64_t across = int64_t{in.step_x} * lanes;
  const int64_t down = int64_t{in.step_y} * in.pitch * lanes;
  const int64_t out_row = int64_t{l.out_width} * kLanes;
  const int64_t count = l.along_y ? l.out_width : rows, pixels = l.along_y ? rows : l.out_width;
  const bool joined = !l.along_y && down == across * l.out_width;  // rows follow each other
  line.in_step = l.along_y ? down : across;
  line.out_step = l.along_y ? out_row : kLanes;
  line.in_line = l.along_y ? across : down;
  line.out_line = l.along_y ? kLanes : out_row;
  const int64_t origin = l.along_y ? 0 : y;
  for (int64_t i = 0, next = 0; i < count; i = next) {
    const chunk seen = l.outside ? seen_by(steps, taps, origin + i) : steps;
    for (next = l.outside ? i + 1 : count; next < count; next++) {
      const chunk other = seen_by(steps, taps, origin + next);
      if (other.first != seen.first || other.end != seen.end) break;
    }
    if (seen.first == seen.end && !line.first && !steps.last) continue;
    zyn_general_lines some = line;
    some.in += i * line.in_line;
    some.out += i * line.out_line;
    some.taps += seen.first - steps.first;
    some.tap_count = static_cast<int32_t>(seen.end - seen.first);
    some.weights += (seen.first - steps.first) * steps.floats;
    some.lines = joined ? 1 : next - i;
    zyn_general_dense_lines(some, blocks, joined ? pixels * (next - i) : pixels);
  }
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
  step_walk(const strip_input& in, const zyn_general_class& k, const zyn_general_tap_lines& order)
      : in_(in), k_(k), order_(order), parts_(k.width == kLanes ? 1 : k.width) {}

  int32_t inputs() const { return k_.width / parts_; }
  int64_t in_line() const { return int64_t{k_.blocks} * order_.taps * parts_; }
  int64_t count() const { return in_line() * order_.lines; }
  // The offset of the step at hand; the next one is then at hand.
  int64_t next() {
    const int64_t offset =
        block_ * k_.width * in_.plane + in_.taps[line_ * order_.taps + tap_] * k_.width + part_;
    if (++part_ < parts_) return offset;
    part_ = 0;
    if (++tap_ < order_.taps) return offset;
    tap_ = 0;
    if (++block_ < k_.blocks) return offset;
    block_ = 0;
    line_++;
    return offset;
  }

 private:
  const strip_input& in_;
  const zyn_general_class& k_;
  const zyn_general_tap_lines order_;
  int32_t parts_;
  int32_t line_ = 0, tap_ = 0, part_ = 0;
  int64_t block_ = 0;
};

// All input channels into a group of output blocks over a strip.
const float* dense_group(const call& c, const strip_input& in, const float* weights, int32_t block,
                         int32_t blocks, int32_t y, int32_t rows) {
  const layer& l = c.l;
  const target to = target_of(c, block, blocks, y, rows);
  zyn_general_class classes[3];
  const int32_t count = zyn_general_classes(l, classes);
  int64_t offsets[kMostTaps];
  bool first = true;
  for (int32_t n = 0; n < count; n++) {
    const zyn_general_class& k = classes[n];
    step_walk walk(in, k, zyn_general_tap_lines_of(l));
    const int64_t steps = walk.count();
    const int64_t step_floats = int64_t{walk.inputs()} * blocks * kLanes;
    // One tile reads weights once.
    const bool once = int64_t{rows} * l.out_width == 1;
    int64_t most =
        once ? kMostTaps : kChunkBytes / static_cast<int64_t>(sizeof(float)) / step_floats;
    most = most < 1 ? 1 : most > kMostTaps ? kMostTaps : most;
    const int64_t chunks = (steps + most - 1) / most;
    for (int64_t done = 0, n_done = 0; done < steps; n_done++) {
      const int64_t end = steps * (n_done + 1) / chunks;
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
                                c.bias + block * kLanes,
                                last ? c.floor : -__builtin_inff(),
                                0,
                                0,
                                0};
      const chunk part = {done, end, walk.in_line(), step_floats, last};
      run_lines(c, in, line, part, k.width, y, rows, blocks);
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
  return {y * l.shape.stride_y - l.shape.pad_y,
          static_cast<int32_t>(zyn_general_rows_read(l, rows)), -l.shape.pad_x, l.pitch};
}

// The input of a strip of a layer that picks its pixels, as of one without strides.
strip_input picked_strip(const call& c, int32_t y, int32_t rows) {
  const layer& l = c.l;
  const int32_t pixels = rows * l.out_width;
  float* const planes = c.rows + int64_t{l.in_channels} * pixels;
  zyn_general_class classes[3];
  const int32_t count = zyn_general_classes(l, classes);
  for (int32_t n = 0; n < count; n++)
    for (int32_t i = 0; i < classes[n].blocks; i++) {
      const int32_t channel = classes[n].first + i * classes[n].width, width = classes[n].width;
      zyn_general_pick(planes, c.in, channel, width,
                       {y, rows, l.out_width, l.shape.stride_x, l.shape.stride_y});
      zyn_general_gather(c.rows + int64_t{channel} * pixels, {planes, false, width, pixels, 1}, 0,
                         width, {0, 1, 0, pixels}, true);
    }
  return {c.rows, pixels, 0, l.out_width, l.taps[1], 1, 1};
}

// The input of a strip with zeros around it.
strip_input gathered_strip(const call& c, int32_t y, int32_t rows) {
  const layer& l = c.l;
  const int64_t plane = zyn_general_rows_read(l, rows) * l.pitch;
  zyn_general_class classes[3];
  const int32_t count = zyn_general_classes(l, classes);
  for (int32_t n = 0; n < count; n++)
    for (int32_t i = 0; i < classes[n].blocks; i++) {
      const int32_t channel = classes[n].first + i * classes[n].width;
      zyn_general_gather(c.rows + channel * plane, c.in, channel, classes[n].width,
                         window_of(l, y, rows), true);
    }
  return {c.rows, plane, 0, l.pitch, l.taps[1], l.shape.stride_x, l.shape.stride_y};
}

}  // namespace

void zyn_general_dense(const call& c) {
  const layer& l = c.l;
  for (int32_t y = 0; y < l.out_height; y += l.strip) {
    const int32_t rows = l.out_height - y < l.strip ? l.out_height - y : l.strip;
    const strip_input in =
        !c.gathers ? strip_input{c.in.data,       c.in.plane(), int64_t{y} * l.shape.stride_y,
                                 l.width,         l.taps[0],    l.shape.stride_x,
                                 l.shape.stride_y}
        : l.picks  ? picked_strip(c, y, rows)
                   : gathered_strip(c, y, rows);
    const float* weights = l.weights;
    for (int32_t block = 0, blocks = 0; block < zyn_general_block_count(l); block += blocks) {
      blocks = zyn_general_group_at(l, block);
      weights = dense_group(c, in, weights, block, blocks, y, rows);
    }
  }
}

// What a general convolution's run is made of: the output channels of a tile, the rows of a strip,
// the taps that meet the input.
#include "cg/cpu/kernels/general/zyn_general_plan.h"

#include "cg/cpu/kernels/zyn_cg_kernels.h"

namespace {

using layer = zyn_conv_general;

constexpr int32_t kLanes = kZynGeneralLanes;
constexpr int64_t kInputBytes = 512 * 1024;  // gathered rows of all channels
constexpr int64_t kOutputBytes = 64 * 1024;  // a group's rows
constexpr int32_t kAlignment = 8;            // floats

int64_t round_up(int64_t value, int64_t step) { return (value + step - 1) / step * step; }

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

// Of one pixel: as few groups as there can be, nearly equal, so that none has so few sums that
// these wait for each other.
int32_t choose_blocks_of_pixel(int32_t count) {
  constexpr int32_t kInVector = kZynVectorFloats / kLanes;
  constexpr int32_t kMost = kZynGeneralMostBlocks / kInVector;
  const int32_t vectors = count / kInVector;
  if (vectors == 0) return 1;
  const int32_t groups = (vectors + kMost - 1) / kMost;
  return (vectors + groups - 1) / groups * kInVector;
}

int32_t choose_blocks(const layer& l, int64_t pixels) {
  if (pixels == 1) return choose_blocks_of_pixel(zyn_general_block_count(l));
  // What comes first wins among equals. Three blocks load least; what is left over would lose that.
  const bool threes = zyn_general_block_count(l) % 3 == 0;
  const int32_t candidates[] = {threes ? 3 : 2, threes ? 2 : 3, 1, 4, 8};
  int32_t best = 1;
  double best_cycles = 0;
  for (const int32_t candidate : candidates) {
    double cycles = 0;
    for (int32_t left = zyn_general_block_count(l), taken = 0; left > 0; left -= taken) {
      taken = zyn_general_blocks_within(left < candidate ? left : candidate);
      cycles += line_cycles(taken, pixels);
    }
    if (best_cycles > 0 && cycles >= 0.99 * best_cycles) continue;
    best_cycles = cycles;
    best = candidate;
  }
  return best;
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
  const int64_t reach = zyn_general_rows_read(l, 1);
  int64_t rows = (most / row - reach) / l.shape.stride_y + 1;
  const int64_t out_row = int64_t{l.blocks} * kLanes * l.out_width;
  const int64_t out_rows = kOutputBytes / static_cast<int64_t>(sizeof(float)) / out_row;
  if (rows > out_rows) rows = out_rows;
  if (rows < 1) rows = 1;
  if (rows >= l.out_height) return l.out_height;
  const int64_t strips = (l.out_height + rows - 1) / rows;  // strips of nearly equal size
  return static_cast<int32_t>((l.out_height + strips - 1) / strips);
}

// Taps that meet the input under none of count outputs, at either end of an axis of a kernel: cut
// off. Returns how many there are at its beginning.
int32_t cut_taps(int32_t* kernel, int32_t* pad, int32_t stride, int32_t dilation, int32_t extent,
                 int32_t count) {
  const auto meets = [=](int64_t tap) {
    for (int64_t x = 0; x < count; x++) {
      const int64_t at = x * stride - *pad + tap * dilation;
      if (at >= 0 && at < extent) return true;
    }
    return false;
  };
  int32_t first = 0;
  while (*kernel > 1 && !meets(*kernel - 1)) --*kernel;
  while (first + 1 < *kernel && !meets(first)) first++;
  *kernel -= first;
  *pad -= first * dilation;
  return first;
}

}  // namespace

bool zyn_general_open(zyn_conv_general* l, const zyn_conv_param& param, int32_t width,
                      int32_t height) {
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

void zyn_general_plan_dense(zyn_conv_general* l) {
  zyn_conv_shape& s = l->shape;
  l->taps_in_row = s.kernel_x;
  l->all_taps = zyn_general_taps(*l);
  l->first_x = cut_taps(&s.kernel_x, &s.pad_x, s.stride_x, s.dilation_x, l->width, l->out_width);
  l->first_y = cut_taps(&s.kernel_y, &s.pad_y, s.stride_y, s.dilation_y, l->height, l->out_height);
  const int64_t reach = int64_t{s.kernel_x - 1} * s.dilation_x;
  l->pitch = static_cast<int32_t>(int64_t{l->out_width - 1} * s.stride_x + reach + 1);
  const bool beside = s.pad_x != 0 || l->pitch > l->width;
  l->outside = beside || s.pad_y != 0 || zyn_general_rows_read(*l, l->out_height) > l->height;
  l->along_y = l->out_width < 4 && l->out_height > l->out_width;
  const bool strided = s.stride_x > 1 || s.stride_y > 1;
  const bool one_line = s.kernel_x == 1 && s.kernel_y == 1 && !strided;
  l->picks = s.kernel_x == 1 && s.kernel_y == 1 && strided && !l->outside;
  const int64_t pixels = one_line     ? int64_t{l->out_width} * l->out_height
                         : l->along_y ? l->out_height
                                      : l->out_width;
  l->blocks = choose_blocks(*l, pixels);
  l->strip = strip_rows(*l);
  if (l->along_y) l->strip = l->out_height;
  const int64_t gathered =
      l->picks ? (int64_t{l->in_channels} + kLanes) * l->strip * l->out_width
               : int64_t{l->in_channels} * zyn_general_rows_read(*l, l->strip) * l->pitch;
  l->in_floats = round_up(gathered, kAlignment);
}

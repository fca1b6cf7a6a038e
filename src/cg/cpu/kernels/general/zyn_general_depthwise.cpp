#include "cg/cpu/kernels/general/zyn_general_depthwise.h"

#include <string.h>

#include "base/zyn_integers.h"
#include "base/zyn_list.h"
#include "cg/cpu/kernels/general/zyn_general_depthwise_tile.h"

namespace {

constexpr int32_t kLanes = 8;
constexpr int64_t kRowFloats = 6 * 1024;       // of gathered rows: half the first cache level
constexpr int64_t kMostRowFloats = 32 * 1024;  // where few rows would be gathered again and again
constexpr int64_t kMostRectangles = 4096;
// The more rectangles there are, the less of their branches the processor foresees.
constexpr double kRectangleCycles = 2, kMostRectangleCycles = 70;
constexpr double kTileCycles = 22, kCopyCycles = 2;  // of a tile, of copying a pixel
constexpr int32_t kTilePixels = 14;

// Output rows y to y + rows - 1 and the input rows that they see.
struct strip {
  int32_t y, rows;
  int32_t in_first, in_rows;
  int64_t first, count;  // of rectangles
};

// A way to make the output: strips of rectangles.
struct way {
  strip* strips;
  int64_t strip_count;
  zyn_general_rectangle* rectangles;
};

}  // namespace

struct zyn_general_depthwise_plan {
  zyn_conv_shape shape;
  zyn_general_planes planes;
  int32_t pitch;      // columns of a gathered row
  int64_t in_floats;  // of gathered rows
  way ways[2];        // by whether the input is read in place
  bool reads_in_place;
};

namespace {

using plan = zyn_general_depthwise_plan;

// Neighbouring outputs along an axis that see the same taps.
struct span {
  int32_t first, count;
  int32_t tap, taps;
};

struct axis {
  int32_t in, out, kernel, stride, pad, dilation;

  int32_t reach() const { return (kernel - 1) * dilation; }
  int32_t first_of(int32_t output) const { return output * stride - pad; }
};

axis axis_x(const plan& p) {
  const zyn_conv_shape& s = p.shape;
  return {p.planes.width, p.planes.out_width, s.kernel_x, s.stride_x, s.pad_x, s.dilation_x};
}

axis axis_y(const plan& p) {
  const zyn_conv_shape& s = p.shape;
  return {p.planes.height, p.planes.out_height, s.kernel_y, s.stride_y, s.pad_y, s.dilation_y};
}

bool find_spans(const axis& a, zyn_list<span>* spans) {
  for (int32_t o = 0; o < a.out; o++) {
    const int32_t at = a.first_of(o);
    const int32_t tap = at < 0 ? (-at + a.dilation - 1) / a.dilation : 0;
    int32_t end = at < a.in ? (a.in - 1 - at) / a.dilation + 1 : 0;
    if (end > a.kernel) end = a.kernel;
    const int32_t taps = end > tap ? end - tap : 0;
    const int64_t count = spans->count();
    span* last = count > 0 ? &(*spans)[count - 1] : nullptr;
    if (last && last->tap == tap && last->taps == taps)
      last->count++;
    else if (!spans->push({o, 1, tap, taps}))
      return false;
  }
  return true;
}

// Columns of an input row with its border.
int32_t columns_seen(const plan& p) {
  const axis x = axis_x(p);
  return (x.out - 1) * x.stride + x.reach() + 1;
}

// Rows of a strip: as many as the first cache level holds while they are copied or scattered.
int32_t strip_rows(const plan& p) {
  const axis y = axis_y(p);
  const int64_t row = int64_t{kLanes} * columns_seen(p);
  const auto fitting = [&](int64_t floats) {
    return (floats / row - y.reach() - 1) / y.stride + 1;
  };
  // Rows that two strips read are at most half as many as others.
  int64_t rows = zyn_larger(fitting(kRowFloats), zyn_smaller(fitting(kMostRowFloats),
                                                             zyn_units(2 * y.reach(), y.stride)));
  if (rows < 1) rows = 1;
  if (rows >= y.out) return y.out;
  const int64_t strips = zyn_units(y.out, rows);  // of nearly equal size
  return static_cast<int32_t>(zyn_units(y.out, strips));
}

// Where the pixels of two spans see their taps; pitch: columns of an input row, whose first one
// is number top.
zyn_general_rectangle make_rectangle(const plan& p, const span& x, const span& y, const strip& s,
                                     int32_t pitch, int32_t top, int32_t left) {
  const zyn_conv_shape& k = p.shape;
  zyn_general_rectangle r = {};
  const int64_t row = axis_y(p).first_of(y.first) + int64_t{y.tap} * k.dilation_y - top;
  const int64_t column = axis_x(p).first_of(x.first) + int64_t{x.tap} * k.dilation_x - left;
  if (x.taps > 0 && y.taps > 0) r.in = (row * pitch + column) * kLanes;
  r.out = (int64_t{y.first - s.y} * p.planes.out_width + x.first) * kLanes;
  r.weights = (int64_t{y.tap} * k.kernel_x + x.tap) * kLanes;
  r.in_step = int64_t{k.stride_x} * kLanes;
  r.in_line = int64_t{k.stride_y} * pitch * kLanes;
  r.out_step = kLanes;
  r.out_line = int64_t{p.planes.out_width} * kLanes;
  r.pixels = x.count;
  r.lines = y.count;
  r.rows = y.taps;
  r.columns = x.taps;
  r.row = int64_t{k.dilation_y} * pitch * kLanes;
  r.column = int64_t{k.dilation_x} * kLanes;
  r.weights_row = int64_t{k.kernel_x} * kLanes;
  return r;
}

// Whether tiles know the border of whole rows, which are then read, or gathered, without one.
bool knows_border(const plan& p) {
  const axis x = axis_x(p);
  return x.dilation == 1 && x.pad == x.kernel / 2 &&
         zyn_general_knows_border(x.kernel, x.stride, x.out, x.in);
}
// Gathered rows with stride 2 are not faster so.
bool gathers_border(const plan& p) { return !knows_border(p) || p.shape.stride_x > 1; }

int32_t within(int64_t value, int32_t last) {
  return static_cast<int32_t>(value < 0 ? 0 : value > last ? last : value);
}

// Strips of rows output rows. spans_x: one over all columns where rows are copied, or tiles know
// their border.
bool make_way(const plan& p, const zyn_list<span>& spans_x, const zyn_list<span>& spans_y,
              int32_t rows, bool copies, way* made) {
  const axis y = axis_y(p);
  const bool border = spans_x.count() == 1 && (copies ? !gathers_border(p) : knows_border(p));
  const int32_t left = copies || border ? -p.shape.pad_x : 0;
  zyn_list<strip> strips;
  zyn_list<zyn_general_rectangle> rectangles;
  for (int32_t first = 0; first < y.out; first += rows) {
    const int32_t last = within(int64_t{first} + rows, y.out);
    const int32_t top = within(y.first_of(first), y.in);
    const int32_t bottom = within(int64_t{y.first_of(last - 1)} + y.reach() + 1, y.in);
    strip s = {first, last - first, top, bottom - top, rectangles.count(), 0};
    for (int64_t i = 0; i < spans_y.count(); i++) {
      span here = spans_y[i];
      const int32_t begin = here.first > first ? here.first : first;
      here.count = within(int64_t{here.first} + here.count, last) - begin;
      here.first = begin;
      for (int64_t n = 0; here.count > 0 && n < spans_x.count(); n++) {
        zyn_general_rectangle last,
            r = make_rectangle(p, spans_x[n], here, s, copies ? p.pitch : p.planes.width,
                               copies ? top : 0, left);
        r.inside = border ? p.planes.width : 0;
        const bool whole = zyn_general_choose_tiles(&r, &last);
        if (!rectangles.push(r) || (!whole && !rectangles.push(last))) return false;
      }
    }
    s.count = rectangles.count() - s.first;
    if (!strips.push(s)) return false;
  }
  made->strip_count = strips.count();
  made->strips = strips.take();
  made->rectangles = rectangles.take();
  return true;
}

double cycles_of(const way& w) {
  double cycles = 0;
  for (int64_t s = 0; s < w.strip_count; s++) {
    const auto count = static_cast<double>(w.strips[s].count);
    const double each = kRectangleCycles * count;
    cycles += count * (each < kMostRectangleCycles ? each : kMostRectangleCycles);
    for (int64_t i = 0; i < w.strips[s].count; i++) {
      const zyn_general_rectangle& r = w.rectangles[w.strips[s].first + i];
      const double pixels = static_cast<double>(r.pixels) * r.lines;
      cycles += pixels * r.rows * r.columns / 2 + (pixels / kTilePixels + 0.5) * kTileCycles;
    }
  }
  return cycles;
}

void free_way(way* w) {
  zyn_free(w->strips);
  zyn_free(w->rectangles);
  *w = {};
}

// Both ways, and whether the input in channel blocks is better read in place.
bool make_ways(plan* p, bool planar_output) {
  zyn_list<span> spans_x, spans_y, row;
  if (!find_spans(axis_x(*p), &spans_x) || !find_spans(axis_y(*p), &spans_y) ||
      !row.push({0, p->planes.out_width, 0, p->shape.kernel_x}))
    return false;
  const int32_t rows = strip_rows(*p);
  if (!make_way(*p, row, spans_y, rows, true, &p->ways[0])) return false;
  if (spans_x.count() * spans_y.count() > kMostRectangles) return true;
  if (!make_way(*p, spans_x, spans_y, planar_output ? rows : p->planes.out_height, false,
                &p->ways[1]))
    return false;
  const double copied = static_cast<double>(columns_seen(*p)) * p->planes.height * kCopyCycles;
  p->reads_in_place = cycles_of(p->ways[1]) < cycles_of(p->ways[0]) + copied;
  const bool strided = p->shape.stride_x > 1;
  if (!knows_border(*p) || (p->reads_in_place && !strided)) return true;
  // The sums of gathered rows, which need not be gathered.
  p->reads_in_place = true;
  free_way(&p->ways[1]);
  return make_way(*p, row, spans_y, rows, false, &p->ways[1]);
}

void free_ways(plan* p) {
  for (way& w : p->ways) free_way(&w);
}

void run_block(const plan& p, const zyn_general_depthwise_run& run, int32_t channel,
               bool in_place) {
  const way& w = p.ways[in_place];
  const zyn_general_planes& planes = p.planes;
  const bool direct = run.out.blocked && channel + kLanes <= run.out.channels;
  const float* from = in_place ? run.in.data + channel * run.in.plane() : run.scratch;
  const int64_t taps = int64_t{p.shape.kernel_x} * p.shape.kernel_y;
  for (int64_t n = 0; n < w.strip_count; n++) {
    const strip& s = w.strips[n];
    if (!in_place)  // a single strip's zeros were made before
      zyn_general_gather(run.scratch, run.in, channel, kLanes,
                         {s.in_first, s.in_rows, gathers_border(p) ? -p.shape.pad_x : 0, p.pitch},
                         w.strip_count > 1);
    const int64_t first = int64_t{s.y} * planes.out_width;
    float* to = direct ? run.out.data + channel * run.out.plane() + first * kLanes
                       : run.scratch + p.in_floats;
    const zyn_general_depthwise_block block = {from, run.weights + channel * taps, to,
                                               run.bias + channel, run.floor};
    for (int64_t i = 0; i < s.count; i++) zyn_general_depthwise(w.rectangles[s.first + i], block);
    const int64_t pixels = int64_t{s.rows} * planes.out_width;
    if (run.activation != ZYN_EPILOGUE_NONE)
      zyn_conv_finish_rows(to, 1, pixels * kLanes, {nullptr, run.activation});
    if (!direct) zyn_general_scatter(run.out, channel, first, pixels, to);
  }
}

// The whole blocks of a layer in channel blocks whose output is one pixel. The channels done, 0
// of other layers.
int32_t run_pixel(const plan& p, const zyn_general_depthwise_run& run) {
  const way& w = p.ways[1];
  const int32_t channels = run.in.channels / kLanes * kLanes;
  if (!p.reads_in_place || !run.in.blocked || !run.out.blocked || run.out.plane() != 1) return 0;
  zyn_general_depthwise_pixel(w.rectangles[0],
                              {run.in.data, run.weights, run.out.data, run.bias, run.floor},
                              channels / kLanes, run.in.plane() * kLanes,
                              int64_t{p.shape.kernel_x} * p.shape.kernel_y * kLanes);
  zyn_conv_finish_rows(run.out.data, 1, channels, {nullptr, run.activation});
  return channels;
}

}  // namespace

zyn_general_depthwise_plan* zyn_general_depthwise_make(const zyn_conv_shape& shape,
                                                       const zyn_general_planes& planes,
                                                       bool planar_output, int64_t* scratch) {
  plan p = {};
  p.shape = shape;
  p.planes = planes;
  p.pitch = gathers_border(p) ? columns_seen(p) : planes.width;
  zyn_scratch<plan> made(1);
  if (!made || !make_ways(&p, planar_output)) {
    free_ways(&p);
    return nullptr;
  }
  int64_t in_rows = 0, rows = 0;
  for (int64_t n = 0; n < p.ways[0].strip_count; n++) {
    in_rows = zyn_larger(in_rows, p.ways[0].strips[n].in_rows);
    rows = zyn_larger(rows, p.ways[0].strips[n].rows);
  }
  p.in_floats = in_rows * p.pitch * kLanes;
  *scratch = p.in_floats + rows * planes.out_width * kLanes;
  *made.get() = p;
  return made.take();
}

void zyn_general_depthwise_release(zyn_general_depthwise_plan** plan) {
  if (!*plan) return;
  free_ways(*plan);
  zyn_free(*plan);
  *plan = nullptr;
}

int64_t zyn_general_depthwise_bytes(const zyn_general_depthwise_plan* plan) {
  int64_t bytes = zyn_block_bytes(plan);
  if (!plan) return 0;
  for (const way& w : plan->ways)
    bytes += zyn_block_bytes(w.strips) + zyn_block_bytes(w.rectangles);
  return bytes;
}

void zyn_general_depthwise_planes(const zyn_general_depthwise_plan* plan,
                                  const zyn_general_depthwise_run& run) {
  if (plan->ways[0].strip_count == 1)
    memset(run.scratch, 0, static_cast<size_t>(plan->in_floats) * sizeof(float));
  for (int32_t channel = run_pixel(*plan, run); channel < run.in.channels; channel += kLanes) {
    const bool whole = run.in.blocked && channel + kLanes <= run.in.channels;
    run_block(*plan, run, channel, whole && plan->reads_in_place);
  }
}

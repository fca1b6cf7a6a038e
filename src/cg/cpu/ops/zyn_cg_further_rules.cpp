// What the records of further operators may say, and the outputs that they make. Extents are
// computed in 64 bits; numbers of a record alone never make a request.
#include <math.h>
#include <stdarg.h>
#include <stdio.h>

#include "base/zyn_explain.h"
#include "cg/cpu/ops/zyn_cg_further.h"

namespace {

constexpr int64_t kMostSummed = 65536;  // 16-bit values whose sum 32 bits hold

using verdict = zyn_cg_verdict;
using extents = zyn_cg_extents;

ZYN_FORMAT(3, 4) void refuse(verdict* v, int32_t code, const char* format, ...) {
  v->code = code;
  v->output.dim_count = 0;
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(v->text, sizeof(v->text), format, arguments);
  va_end(arguments);
}

// An extent of the output; false, said, where no tensor has it.
bool set_extent(verdict* v, int32_t axis, int64_t extent) {
  v->output.dims[axis] = zyn_cg_extent(extent);
  if (v->output.dims[axis]) return true;
  refuse(v, ZYN_RET_ERR_MEMORY, "axis %d of the output would have %lld elements", axis,
         static_cast<long long>(extent));
  return false;
}

struct window_axis {
  int64_t kernel, stride, dilation, before, behind;
  int64_t reach() const { return (kernel - 1) * dilation + 1; }
};

bool judge_window_axis(verdict* v, char name, const window_axis& a) {
  if (a.kernel < 1 || a.stride < 1 || a.dilation < 1)
    refuse(v, ZYN_RET_ERR_PARA, "along %c kernel %lld, stride %lld, dilation %lld: at least 1 each",
           name, static_cast<long long>(a.kernel), static_cast<long long>(a.stride),
           static_cast<long long>(a.dilation));
  else if (a.before < 0 || a.behind < 0 || a.before >= a.reach() || a.behind >= a.reach())
    refuse(v, ZYN_RET_ERR_PARA, "along %c pads %lld and %lld: 0 to %lld, less than a window, fit",
           name, static_cast<long long>(a.before), static_cast<long long>(a.behind),
           static_cast<long long>(a.reach() - 1));
  return v->code == ZYN_RET_OK;
}

// Windows along an axis. One that only ceil mode adds begins in the input or the padding
// before it.
int64_t window_count(const window_axis& a, int64_t extent, bool ceil_mode) {
  const int64_t span = extent + a.before + a.behind - a.reach() + (ceil_mode ? a.stride - 1 : 0);
  if (span < 0) return 0;
  const int64_t count = span / a.stride + 1;
  return ceil_mode && (count - 1) * a.stride >= extent + a.before ? count - 1 : count;
}

void judge_window(const zyn_window_param& p, const extents& in, bool fixed_point, verdict* v) {
  const window_axis x = {p.kernel_x, p.stride_x, p.dilation_x, p.pad_left, p.pad_right};
  const window_axis y = {p.kernel_y, p.stride_y, p.dilation_y, p.pad_top, p.pad_bottom};
  const bool average = p.mode == ZYN_RESAMPLE_AVERAGE_WINDOW;
  if (in.dim_count < 2)
    return refuse(v, ZYN_RET_ERR_PARA, "the input has one dimension, at least 2 are needed");
  if (!judge_window_axis(v, 'x', x) || !judge_window_axis(v, 'y', y)) return;
  if (average && (x.dilation != 1 || y.dilation != 1))
    return refuse(v, ZYN_RET_ERR_PARA, "dilation %d, %d: averages are of windows without gaps",
                  p.dilation_x, p.dilation_y);
  if (p.ceil_mode < 0 || p.ceil_mode > 1 || p.count_pad < 0 || p.count_pad > 1)
    return refuse(v, ZYN_RET_ERR_PARA, "ceil_mode %d and count_pad %d: each is 0 or 1", p.ceil_mode,
                  p.count_pad);
  const int64_t inside = zyn_smaller(x.kernel, in.extent(0)) * zyn_smaller(y.kernel, in.extent(1));
  if (fixed_point && average && inside > kMostSummed)
    return refuse(v, ZYN_RET_ERR_NOT_SUPPORT,
                  "%lld elements a window: fixed point averages at most %lld",
                  static_cast<long long>(inside), static_cast<long long>(kMostSummed));
  const bool ceil_mode = p.ceil_mode == 1;
  const int64_t across = window_count(x, in.extent(0), ceil_mode);
  const int64_t down = window_count(y, in.extent(1), ceil_mode);
  if (across < 1 || down < 1)
    return refuse(v, ZYN_RET_ERR_MEMORY,
                  "windows of %lld x %lld on %d x %d with padding %d, %d, %d, %d leave no output",
                  static_cast<long long>(x.reach()), static_cast<long long>(y.reach()), in.dims[0],
                  in.dims[1], p.pad_left, p.pad_top, p.pad_right, p.pad_bottom);
  if (set_extent(v, 0, across)) set_extent(v, 1, down);
}

void judge_resize(const zyn_resize_param& p, const extents& in, bool fixed_point, verdict* v) {
  const bool linear = p.mode == ZYN_RESAMPLE_RESIZE_BILINEAR;
  if (in.dim_count < 2)
    return refuse(v, ZYN_RET_ERR_PARA, "the input has one dimension, at least 2 are needed");
  if (p.width < 1 || p.height < 1)
    return refuse(v, ZYN_RET_ERR_PARA, "to %d x %d: at least 1 each", p.width, p.height);
  if (p.place < ZYN_PLACE_HALF_PIXEL || p.place > ZYN_PLACE_HALF_PIXEL_0)
    return refuse(v, ZYN_RET_ERR_PARA, "there is no place %d", p.place);
  if (!linear && (p.rounding < 0 || p.rounding > 3))
    return refuse(v, ZYN_RET_ERR_PARA, "there is no rounding %d", p.rounding);
  if (!isfinite(p.scale_x) || !isfinite(p.scale_y) || p.scale_x < 0 || p.scale_y < 0)
    return refuse(v, ZYN_RET_ERR_PARA, "scales %g, %g: 0, or above 0 and finite",
                  static_cast<double>(p.scale_x), static_cast<double>(p.scale_y));
  if (fixed_point && linear)
    return refuse(v, ZYN_RET_ERR_NOT_SUPPORT, "bilinear resizing has no fixed-point form");
  v->output.dims[0] = p.width;
  v->output.dims[1] = p.height;
}

void judge_reduce(const zyn_reduce_param& p, const extents& in, bool fixed_point, verdict* v) {
  const int32_t axes = 1 << in.dim_count;
  if (p.axes < 1 || p.axes >= axes)
    return refuse(v, ZYN_RET_ERR_PARA, "axes are %d: bits of %d dimensions make 1 to %d", p.axes,
                  in.dim_count, axes - 1);
  if (p.operation < ZYN_REDUCE_MEAN || p.operation > ZYN_REDUCE_L2)
    return refuse(v, ZYN_RET_ERR_PARA, "there is no operation %d", p.operation);
  if (fixed_point && (p.operation == ZYN_REDUCE_SUM || p.operation == ZYN_REDUCE_L2))
    return refuse(v, ZYN_RET_ERR_NOT_SUPPORT,
                  "sums have no fixed-point form: mean, largest and smallest value have");
  for (int32_t d = 0; d < in.dim_count; d++)
    if (p.axes >> d & 1) v->output.dims[d] = 1;
}

void judge_permute(const zyn_permute_param& p, const extents& in, verdict* v) {
  uint32_t seen = 0;
  for (int32_t d = 0; d < in.dim_count; d++) {
    const int32_t axis = p.order[d];
    if (axis < 0 || axis >= in.dim_count || (seen >> axis & 1))
      return refuse(v, ZYN_RET_ERR_PARA,
                    "order[%d] is %d: each of the %d axes is needed once, 0 to %d", d, axis,
                    in.dim_count, in.dim_count - 1);
    seen |= 1u << axis;
    v->output.dims[d] = in.dims[axis];
  }
}

void judge_pad(const zyn_pad_param& p, const extents& in, verdict* v) {
  if (p.mode < ZYN_PAD_CONSTANT || p.mode > ZYN_PAD_EDGE)
    return refuse(v, ZYN_RET_ERR_PARA, "there is no mode %d", p.mode);
  for (int32_t d = 0; d < in.dim_count; d++) {
    const int32_t n = in.dims[d];
    if (p.mode == ZYN_PAD_REFLECT && (p.before[d] >= n || p.after[d] >= n))
      return refuse(v, ZYN_RET_ERR_PARA,
                    "axis %d has %d elements: reflection pads by less, found %d and %d", d, n,
                    p.before[d], p.after[d]);
    if (!set_extent(v, d, int64_t{n} + p.before[d] + p.after[d])) return;
  }
}

void judge_shuffle(const zyn_shuffle_param& p, const extents& in, verdict* v) {
  if (in.dim_count < 3)
    return refuse(v, ZYN_RET_ERR_PARA, "the input has %d dimensions, at least 3 are needed",
                  in.dim_count);
  if (p.groups < 1 || in.dims[2] % p.groups != 0)
    refuse(v, ZYN_RET_ERR_PARA, "%d groups of %d channels: a divisor is needed", p.groups,
           in.dims[2]);
}

void judge_part(const zyn_part_param& p, const extents& in, verdict* v) {
  if (p.axis < 0 || p.axis >= in.dim_count)
    return refuse(v, ZYN_RET_ERR_PARA, "there is no axis %d of %d dimensions", p.axis,
                  in.dim_count);
  if (p.count < 1 || p.step == 0)
    return refuse(v, ZYN_RET_ERR_PARA, "%d elements in steps of %d: at least one, steps not 0",
                  p.count, p.step);
  const int32_t n = in.dims[p.axis];
  const int64_t last = p.first + (int64_t{p.count} - 1) * p.step;
  if (p.first < 0 || p.first >= n || last < 0 || last >= n)
    return refuse(v, ZYN_RET_ERR_PARA, "elements %d to %lld of %d are taken", p.first,
                  static_cast<long long>(last), n);
  v->output.dims[p.axis] = p.count;
}

template <typename Param>
const Param& as(const void* param) {
  return *static_cast<const Param*>(param);
}

}  // namespace

void zyn_cg_judge(int32_t type, const void* param, const zyn_cg_extents& input, bool fixed_point,
                  zyn_cg_verdict* verdict) {
  *verdict = {ZYN_RET_OK, input, ""};
  const int32_t word = zyn_cg_first_word(param);
  if (type == ZYN_OP_RESAMPLE && word <= ZYN_RESAMPLE_AVERAGE_WINDOW)
    judge_window(as<zyn_window_param>(param), input, fixed_point, verdict);
  else if (type == ZYN_OP_RESAMPLE && word <= ZYN_RESAMPLE_RESIZE_BILINEAR)
    judge_resize(as<zyn_resize_param>(param), input, fixed_point, verdict);
  else if (type == ZYN_OP_RESAMPLE)
    judge_reduce(as<zyn_reduce_param>(param), input, fixed_point, verdict);
  else if (word == ZYN_MOVE_PERMUTE)
    judge_permute(as<zyn_permute_param>(param), input, verdict);
  else if (word == ZYN_MOVE_PAD)
    judge_pad(as<zyn_pad_param>(param), input, verdict);
  else if (word == ZYN_MOVE_SHUFFLE)
    judge_shuffle(as<zyn_shuffle_param>(param), input, verdict);
  else
    judge_part(as<zyn_part_param>(param), input, verdict);
}

// What can be wrong with a convolution: its inputs, its record, its constant, its shape, its
// method, its fraction bits.
#include "cg/cpu/check/zyn_check.h"
#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"
#include "cg/cpu/kernels/general/zyn_conv_general.h"
#include "cg/cpu/kernels/winograd/zyn_conv_winograd.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"

namespace {

constexpr int64_t kStatistics = 4;  // values per channel of a folded normalisation
constexpr int32_t kFixedRelu6 = 3;
constexpr int32_t kMostShift = 31;

const zyn_conv_param& record(const zyn_check_node& node) {
  return *static_cast<const zyn_conv_param*>(node.param);
}

bool is_transposed(const zyn_check_node& node) { return node.type == ZYN_OP_CONV_TRANSPOSED; }

bool has_groups(const zyn_check_node& node) {
  return node.type == ZYN_OP_CONV_GROUPED || is_transposed(node);
}

// Every field is within its range.
bool check_record(zyn_checker* check, const zyn_check_node& node) {
  const zyn_conv_param& p = record(node);
  const struct {
    const char* name;
    int32_t value, least;
  } fields[] = {{"in_channels", p.in_channels, 1},
                {"out_channels", p.out_channels, 1},
                {"kernel_h", p.kernel_h, 1},
                {"kernel_w", p.kernel_w, 1},
                {"stride_h", p.stride_h, 1},
                {"stride_w", p.stride_w, 1},
                {"dilation_h", p.dilation_h, 1},
                {"dilation_w", p.dilation_w, 1},
                {"pad_h", p.pad_h, 0},
                {"pad_w", p.pad_w, 0},
                {"groups", p.groups, has_groups(node) ? 1 : INT32_MIN}};
  bool good = true;
  for (const auto& field : fields) {
    if (field.value >= field.least) continue;
    check->error(ZYN_CHECK_RECORD, node.id, "%s is %d, at least %d is needed", field.name,
                 field.value, field.least);
    good = false;
  }
  if (good && has_groups(node) &&
      (p.in_channels % p.groups != 0 || p.out_channels % p.groups != 0)) {
    check->error(ZYN_CHECK_RECORD, node.id, "%d groups do not divide %d and %d channels", p.groups,
                 p.in_channels, p.out_channels);
    good = false;
  }
  if (good && !has_groups(node) && p.groups != 1 && !zyn_conv_is_depthwise(&p)) {
    check->error(ZYN_CHECK_METHOD, node.id,
                 "%d groups of %d channels to %d: this type computes 1 group, or as many as both "
                 "channel counts; CONV_GROUPED computes any",
                 p.groups, p.in_channels, p.out_channels);
    good = false;
  }
  return good;
}

// The constant holds what the record asks for.
bool check_constant(zyn_checker* check, const zyn_check_node& node) {
  const zyn_conv_param& p = record(node);
  const int64_t groups = has_groups(node) || zyn_conv_is_depthwise(&p) ? p.groups : 1;
  const int64_t inputs = is_transposed(node) ? p.in_channels : p.in_channels / groups;
  const int64_t outputs = is_transposed(node) ? p.out_channels / groups : p.out_channels;
  int64_t weights = 0, needed = 0;
  const bool bn = node.type == ZYN_OP_CONV_BN;
  const int64_t biases = p.bias == 1 ? p.out_channels : 0;
  const int64_t statistics = bn ? kStatistics * p.out_channels : 0;
  if (!zyn_multiply(p.kernel_h, p.kernel_w, &weights) || !zyn_multiply(weights, inputs, &weights) ||
      !zyn_multiply(weights, outputs, &weights) || !zyn_sum(weights, biases + statistics, &needed))
    needed = INT64_MAX;
  const int64_t held = node.constant->count;
  if (held == needed) return true;
  const bool is_short = held < needed;
  const int32_t kind = is_short ? ZYN_CHECK_CONSTANT_SHORT : ZYN_CHECK_CONSTANT_LONG;
  char parts[120];
  int used = snprintf(parts, sizeof(parts), "%lld x %lld x %d x %d weights",
                      static_cast<long long>(outputs), static_cast<long long>(inputs), p.kernel_w,
                      p.kernel_h);
  if (biases)
    used += snprintf(parts + used, sizeof(parts) - static_cast<size_t>(used), " + %lld biases",
                     static_cast<long long>(biases));
  if (statistics)
    snprintf(parts + used, sizeof(parts) - static_cast<size_t>(used), " + 4 x %d statistics",
             p.out_channels);
  if (is_short || bn)
    check->error(kind, node.id, "constant holds %lld floats, %s = %lld are needed",
                 static_cast<long long>(held), parts, static_cast<long long>(needed));
  else
    check->warn(kind, node.id,
                "constant holds %lld floats, %s = %lld are read and the rest is ignored%s",
                static_cast<long long>(held), parts, static_cast<long long>(needed),
                biases == 0 ? " (bias is not 1)" : "");
  return !is_short && !bn;
}

int64_t extent(int64_t in, int64_t kernel, int64_t pad, int64_t stride, int64_t dilation) {
  return (in - 1 + 2 * pad - (kernel - 1) * dilation) / stride + 1;
}

// The output's extents; false, said, where there is no output.
bool output_shape(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  const zyn_conv_param& p = record(node);
  const zyn_check_shape& in = node.input;
  int64_t x = 0, y = 0;
  if (is_transposed(node)) {
    x = (in.extent(0) - 1) * p.stride_h - 2 * int64_t{p.pad_h} +
        (p.kernel_h - int64_t{1}) * p.dilation_h + 1;
    y = (in.extent(1) - 1) * p.stride_w - 2 * int64_t{p.pad_w} +
        (p.kernel_w - int64_t{1}) * p.dilation_w + 1;
  } else if (node.type == ZYN_OP_CONV_BN) {  // no dilation, pad_h on both axes
    x = (in.extent(0) - p.kernel_h + 2 * int64_t{p.pad_h}) / p.stride_h + 1;
    y = (in.extent(1) - p.kernel_w + 2 * int64_t{p.pad_h}) / p.stride_w + 1;
  } else {
    x = extent(in.extent(0), p.kernel_h, p.pad_h, p.stride_h, p.dilation_h);
    y = extent(in.extent(1), p.kernel_w, p.pad_w, p.stride_w, p.dilation_w);
  }
  if (x < 1 || y < 1 || x > INT32_MAX || y > INT32_MAX) {
    check->error(ZYN_CHECK_SHAPE, node.id,
                 "the output would be %lld x %lld: a kernel of %d x %d on %lld x %lld with padding "
                 "%d, %d",
                 static_cast<long long>(x), static_cast<long long>(y), p.kernel_h, p.kernel_w,
                 static_cast<long long>(in.extent(0)), static_cast<long long>(in.extent(1)),
                 p.pad_h, p.pad_w);
    return false;
  }
  *output = in;
  output->dims[0] = static_cast<int32_t>(x);
  output->dims[1] = static_cast<int32_t>(y);
  output->dims[2] = p.out_channels;
  return true;
}

// Method 2 wants equal pairs and no dilation, and of depthwise layers 3 x 3 and 5 x 5 with
// padding half the kernel and strides of 1 and 2.
bool has_equal_pairs(const zyn_conv_param& p) {
  return p.kernel_h == p.kernel_w && p.pad_h == p.pad_w && p.stride_h == p.stride_w &&
         p.dilation_h == 1 && p.dilation_w == 1;
}
bool is_usual_depthwise(const zyn_conv_param& p) {
  return (p.kernel_h == 3 || p.kernel_h == 5) && p.pad_h == p.kernel_h / 2 &&
         (p.stride_h == 1 || p.stride_h == 2);
}
bool reaches(const zyn_conv_param& p, const zyn_check_shape& input) {
  return p.kernel_h <= input.extent(0) + 2 * int64_t{p.pad_h} &&
         p.kernel_h <= input.extent(1) + 2 * int64_t{p.pad_h};
}

void check_planned(zyn_checker* check, const zyn_check_node& node) {
  const zyn_conv_param& p = record(node);
  if (!has_equal_pairs(p))
    check->error(ZYN_CHECK_METHOD, node.id,
                 "method 2 computes equal kernels, paddings and strides along both axes without "
                 "dilation; choose method 0 for this node");
  else if (p.groups != 1 && !is_usual_depthwise(p))
    check->error(ZYN_CHECK_METHOD, node.id,
                 "method 2 computes depthwise kernels 3 with padding 1 and 5 with padding 2, "
                 "strides 1 and 2, found %d with %d and %d; choose method 0 for this node",
                 p.kernel_h, p.pad_h, p.stride_h);
  else if (!reaches(p, node.input))
    check->error(ZYN_CHECK_METHOD, node.id,
                 "method 2 refuses a kernel of %d on %lld x %lld with padding %d", p.kernel_h,
                 static_cast<long long>(node.input.extent(0)),
                 static_cast<long long>(node.input.extent(1)), p.pad_h);
}

// Method 1 has kernels for 3 x 3 with padding 1 and strides 1 and 2, and for 1 x 1 alone; types
// 3 and 4 know the first only.
bool blocked_computes(int32_t type, const zyn_conv_param& p) {
  const bool is_3x3 = p.kernel_h == 3 && p.pad_h == 1 && (p.stride_h == 1 || p.stride_h == 2);
  const bool is_1x1 = p.kernel_h == 1 && p.pad_h == 0 && p.stride_h == 1 && p.groups == 1 &&
                      type != ZYN_OP_CONV && type != ZYN_OP_CONV_DEPTHWISE;
  return has_equal_pairs(p) && (is_3x3 || is_1x1);
}

void check_blocked(zyn_checker* check, const zyn_check_node& node) {
  const zyn_conv_param& p = record(node);
  if (blocked_computes(node.type, p)) return;
  check->error(ZYN_CHECK_METHOD, node.id,
               "method 1 computes 3 x 3 with padding 1 and strides 1 and 2%s, found %d x %d with "
               "padding %d and stride %d; choose method 0 for this node",
               node.type == ZYN_OP_CONV || node.type == ZYN_OP_CONV_DEPTHWISE
                   ? ""
                   : ", and 1 x 1 with stride 1",
               p.kernel_h, p.kernel_w, p.pad_h, p.stride_h);
}

void check_activation(zyn_checker* check, const zyn_check_node& node) {
  const zyn_conv_param& p = record(node);
  const bool act = node.type == ZYN_OP_CONV_ACT, bn = node.type == ZYN_OP_CONV_BN;
  if (!act && !bn) return;
  const int32_t code = act ? p.word14.activation : p.activation;
  const bool known =
      (code >= ZYN_ACT_BIAS && code <= ZYN_ACT_HARD_SWISH) ||
      (check->is_fixed_point() && code == kFixedRelu6) ||
      (bn && code == ZYN_ACT_HARD_SIGMOID && !check->is_fixed_point() && node.method == 2);
  if (!known)
    check->warn(ZYN_CHECK_ACTIVATION, node.id,
                "activation code %d computes nothing here: the output is the plain convolution "
                "without bias; codes are 0 (bias), 1 (ReLU), 2 (hard-swish)%s",
                code,
                check->is_fixed_point()  ? ", 3 (ReLU6)"
                : bn && node.method == 2 ? ", 4 (hard-sigmoid)"
                                         : "");
}

// The fraction bits of input and weights reach the output's. The weights' follow from the
// constant; those of a folded normalisation are made by preparation and are not foreseen.
void check_fraction_bits(zyn_checker* check, const zyn_check_node& node) {
  int32_t q_in = 0, q_out = 0;
  uint32_t q_weights = 0;
  if (!zyn_check_q(check, node.producer, node.id, INT32_MIN, INT32_MAX, &q_in) ||
      !zyn_check_q(check, node.id, node.id, INT32_MIN, INT32_MAX, &q_out))
    return;
  if (node.type == ZYN_OP_CONV_BN || !node.constant->data) return;
  if (zyn_cg_fpi_choose_fraction_bits(&q_weights, node.constant, 0, node.constant->count) !=
      ZYN_RET_OK) {
    check->error(ZYN_CHECK_FRACTION_BITS, node.id,
                 "the constant holds a value beyond 32767, or one that is no number: 16 bits "
                 "cannot hold it");
    return;
  }
  const int64_t shift = int64_t{q_in} + q_weights - q_out;
  if (shift < 0 || shift > kMostShift)
    check->error(ZYN_CHECK_FRACTION_BITS, node.id,
                 "fraction bits: input %d + weights %u - output %d = %lld, 0 to 31 is needed; "
                 "give the output at most %lld",
                 q_in, q_weights, q_out, static_cast<long long>(shift),
                 static_cast<long long>(q_in) + q_weights);
}

}  // namespace

bool zyn_check_method_computes(uint32_t method, int32_t type, const zyn_conv_param& param,
                               const zyn_check_shape& input) {
  if (method == 1) return blocked_computes(type, param);
  if (method >= ZYN_METHOD_GENERAL) {
    const bool winograd = zyn_cg_is_winograd(method);
    const auto serves = winograd ? zyn_conv_winograd_serves : zyn_conv_general_serves;
    // Type 13 pads both axes alike and counts no dilation.
    const bool odd = type == ZYN_OP_CONV_BN &&
                     (param.pad_h != param.pad_w || param.dilation_h > 1 || param.dilation_w > 1);
    return !odd && serves(&param, input.dims[0], static_cast<int32_t>(input.extent(1)));
  }
  return method == 0 || (has_equal_pairs(param) && reaches(param, input) &&
                         (param.groups == 1 || is_usual_depthwise(param)));
}

void zyn_check_conv(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  bool good = zyn_check_reads(check, node, true);
  if (!node.param) {
    check->error(ZYN_CHECK_RECORD, node.id, "it was bound without a record");
    return;
  }
  if (!check_record(check, node)) return;
  if (node.constant) good = check_constant(check, node) && good;
  check_activation(check, node);
  if (!node.input.known()) return;
  if (node.input.dim_count < 3) {
    check->error(ZYN_CHECK_SHAPE, node.id, "the input has %d dimensions, {W, H, C} is needed",
                 node.input.dim_count);
    return;
  }
  const zyn_conv_param& p = record(node);
  if (node.input.dims[2] != p.in_channels) {
    check->error(ZYN_CHECK_CHANNELS, node.id,
                 "in_channels is %d, the input (node %d) has %d channels", p.in_channels,
                 node.producer, node.input.dims[2]);
    good = false;
  }
  if (!output_shape(check, node, output)) return;
  if (check->is_fixed_point()) {
    if (has_groups(node))
      check->error(ZYN_CHECK_TYPE, node.id, "this type has no fixed-point form");
    else if (good)
      check_fraction_bits(check, node);
    return;
  }
  if (has_groups(node)) return;
  if (node.method == 2) check_planned(check, node);
  if (node.method == 1) check_blocked(check, node);
}

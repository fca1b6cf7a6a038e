// What can be wrong with the operators that are no convolutions.
#include <string.h>

#include "cg/cpu/check/zyn_check.h"
#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"
#include "cg/cpu/ops/zyn_cg_join.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

constexpr int32_t kMostQ = 15;
constexpr int64_t kArrays = 4;        // of a normalisation
constexpr int64_t kCoefficients = 6;  // of an affine map

using rule = void (*)(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output);

template <typename Param>
const Param& record(const zyn_check_node& node) {
  return *static_cast<const Param*>(node.param);
}

// An input of one node, of whatever kind; unknown where there is an error before.
zyn_check_shape input_at(const zyn_checker* check, const zyn_check_node& node, int64_t i) {
  return check->shape(zyn_darray_ids(node.reads)[i]);
}

void no_fixed_point(zyn_checker* check, const zyn_check_node& node) {
  if (check->is_fixed_point())
    check->error(ZYN_CHECK_TYPE, node.id, "this type has no fixed-point form");
}

bool same_extents(const zyn_check_shape& a, const zyn_check_shape& b, int32_t dims) {
  for (int32_t d = 0; d < dims; d++)
    if (a.extent(d) != b.extent(d)) return false;
  return true;
}

using extents_text = zyn_shape_text;

void check_normalisation(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!zyn_check_reads(check, node, true)) return;
  const int64_t channels = node.input.extent(2);
  const int64_t held = node.constant->count;
  if (held / kArrays != channels)
    check->error(held < kArrays * channels ? ZYN_CHECK_CONSTANT_SHORT : ZYN_CHECK_CONSTANT_LONG,
                 node.id,
                 "constant holds %lld floats, gamma, beta, mean and variance of %lld channels = "
                 "%lld are needed",
                 static_cast<long long>(held), static_cast<long long>(channels),
                 static_cast<long long>(kArrays * channels));
  if (node.type == ZYN_OP_BATCH_NORM_FAST) no_fixed_point(check, node);
  int32_t q = 0;
  if (check->is_fixed_point()) zyn_check_q(check, node.producer, node.id, 0, kMostQ, &q);
  *output = node.input;
}

void check_activation(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!zyn_check_reads(check, node, false)) return;
  if (node.type == ZYN_OP_SIGMOID && node.input.dim_count < 2)
    check->error(ZYN_CHECK_SHAPE, node.id, "the input has one dimension, at least 2 are needed");
  if (node.type == ZYN_OP_MISH) no_fixed_point(check, node);
  int32_t q = 0;
  if (check->is_fixed_point()) {
    zyn_check_q(check, node.producer, node.id, 0, kMostQ, &q);
    const bool inherits = node.type == ZYN_OP_RELU || node.type == ZYN_OP_RELU6;
    if (!inherits) zyn_check_q(check, node.id, node.id, 0, kMostQ, &q);
  }
  *output = node.input;
}

void check_pooling(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!zyn_check_reads(check, node, false)) return;
  const auto& p = record<zyn_pool_param>(node);
  if (p.kernel_h < 1 || p.kernel_w < 1 || p.stride_h < 1 || p.stride_w < 1) {
    check->error(ZYN_CHECK_RECORD, node.id, "kernel %d x %d and stride %d, %d: each is at least 1",
                 p.kernel_h, p.kernel_w, p.stride_h, p.stride_w);
    return;
  }
  *output = node.input;
  output->dims[0] = (node.input.dims[0] - p.kernel_h) / p.stride_h + 1;
  if (output->dim_count > 1) output->dims[1] = (node.input.dims[1] - p.kernel_w) / p.stride_w + 1;
  if (output->extent(0) < 1 || output->extent(1) < 1)
    check->error(ZYN_CHECK_SHAPE, node.id, "a kernel of %d x %d on %s leaves no output", p.kernel_h,
                 p.kernel_w, extents_text(node.input).text);
  if (p.kernel_w != p.kernel_h || p.stride_h != p.kernel_h || p.stride_w != p.kernel_h)
    check->warn(ZYN_CHECK_POOL_STEP, node.id,
                "its windows are %d x %d and advance by %d, whatever kernel %d x %d and stride %d, "
                "%d say: those make the output's shape alone",
                p.kernel_h, p.kernel_h, p.kernel_h, p.kernel_h, p.kernel_w, p.stride_h, p.stride_w);
  int32_t q = 0;
  if (check->is_fixed_point()) zyn_check_q(check, node.producer, node.id, 0, kMostQ, &q);
}

void check_linear(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!zyn_check_reads(check, node, true)) return;
  const auto& p = record<zyn_linear_param>(node);
  const zyn_check_shape& in = node.input;
  if (p.out_features < 1 || p.out_features > INT32_MAX) {
    check->error(ZYN_CHECK_RECORD, node.id, "out_features is %u, at least 1 is needed",
                 p.out_features);
    return;
  }
  if (in.dim_count != 2)
    check->error(ZYN_CHECK_SHAPE, node.id,
                 "the input is %s, {features, rows} is needed: put a RESHAPE to {-1, 1} before it",
                 extents_text(in).text);
  else if (p.in_features != static_cast<uint32_t>(in.dims[0]))
    check->error(ZYN_CHECK_CHANNELS, node.id, "in_features is %u, the input has %d", p.in_features,
                 in.dims[0]);
  int64_t weights = 0, needed = 0;
  const int64_t biases = p.bias == 1 ? int64_t{p.out_features} : 0;
  if (!zyn_multiply(in.extent(0), p.out_features, &weights) || !zyn_sum(weights, biases, &needed))
    needed = INT64_MAX;
  const int64_t held = node.constant->count;
  if (held < needed)
    check->error(ZYN_CHECK_CONSTANT_SHORT, node.id,
                 "constant holds %lld floats, %u x %lld weights + %lld biases = %lld are needed",
                 static_cast<long long>(held), p.out_features, static_cast<long long>(in.extent(0)),
                 static_cast<long long>(biases), static_cast<long long>(needed));
  if (held > needed)
    check->warn(ZYN_CHECK_CONSTANT_LONG, node.id,
                "constant holds %lld floats, %u x %lld weights + %lld biases = %lld are read and "
                "the rest is ignored",
                static_cast<long long>(held), p.out_features, static_cast<long long>(in.extent(0)),
                static_cast<long long>(biases), static_cast<long long>(needed));
  if (in.extent(1) > 1 && p.bias == 1)
    check->warn(ZYN_CHECK_SHAPE, node.id, "the bias is added to the first of %lld rows alone",
                static_cast<long long>(in.extent(1)));
  *output = in;
  output->dim_count = 2;
  output->dims[0] = static_cast<int32_t>(p.out_features);
  output->dims[1] = static_cast<int32_t>(in.extent(1));
}

// Both inputs of a join or an affine map; false, said, unless there are two.
bool two_inputs(zyn_checker* check, const zyn_check_node& node) {
  if (node.reads->count == 2) return true;
  check->error(ZYN_CHECK_INPUTS, node.id, "it reads %lld nodes, two are needed",
               static_cast<long long>(node.reads->count));
  return false;
}

bool has_one_pixel(const zyn_check_shape& s) { return s.extent(0) == 1 && s.extent(1) == 1; }

void check_join(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!two_inputs(check, node)) return;
  const zyn_check_shape a = input_at(check, node, 0), b = input_at(check, node, 1);
  if (!a.known() || !b.known()) return;
  *output = has_one_pixel(a) ? b : a;
  const bool per_channel = node.type == ZYN_OP_ADD ? b.count() == a.extent(2) && a.dim_count == 3
                           : has_one_pixel(a)      ? a.count() == b.extent(2)
                           : has_one_pixel(b)      ? b.count() == a.extent(2)
                                                   : false;
  const bool alike = node.type == ZYN_OP_ADD ? a.count() == b.count() && same_extents(a, *output, 3)
                                             : same_extents(a, b, 5);
  if (!alike && !per_channel)
    check->error(ZYN_CHECK_SHAPE, node.id,
                 "%s and %s: equal shapes are needed, or one value per channel of the %s",
                 extents_text(a).text, extents_text(b).text,
                 node.type == ZYN_OP_ADD ? "first, as the second" : "other");
  if (!check->is_fixed_point()) return;
  int32_t q = 0;
  for (int64_t i = 0; i < 2; i++)
    zyn_check_q(check, zyn_darray_ids(node.reads)[i], node.id, 0, kMostQ, &q);
  zyn_check_q(check, node.id, node.id, 0, kMostQ, &q);
}

int32_t scaled(int32_t extent, float factor) { return zyn_cg_scaled_extent(extent, factor); }

void check_resample(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (zyn_cg_find_further(node.type, zyn_cg_first_word(node.param)))
    return zyn_check_further(check, node, output);
  if (!zyn_check_reads(check, node, false)) return;
  const auto& p = record<zyn_resample_param>(node);
  if (p.mode < ZYN_RESAMPLE_NEAREST || p.mode > ZYN_RESAMPLE_GLOBAL_AVERAGE) {
    check->error(ZYN_CHECK_RECORD, node.id, "there is no mode %d", p.mode);
    return;
  }
  const bool global = p.mode == ZYN_RESAMPLE_GLOBAL_AVERAGE;
  *output = node.input;
  output->dims[0] = global ? 1 : scaled(node.input.dims[0], p.factor_h);
  if (output->dim_count > 1) output->dims[1] = global ? 1 : scaled(node.input.dims[1], p.factor_w);
  if (output->extent(0) < 1 || output->extent(1) < 1)
    check->error(ZYN_CHECK_SHAPE, node.id, "%s times %g, %g leaves no output",
                 extents_text(node.input).text, static_cast<double>(p.factor_h),
                 static_cast<double>(p.factor_w));
  no_fixed_point(check, node);
}

void check_affine(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!two_inputs(check, node)) return;
  if (zyn_cg_is_join(node.param)) return zyn_check_join(check, node, output);
  const zyn_check_shape image = input_at(check, node, 0), map = input_at(check, node, 1);
  if (!image.known() || !map.known()) return;
  const auto& p = record<zyn_affine_param>(node);
  if (map.count() < kCoefficients)
    check->error(ZYN_CHECK_SHAPE, node.id, "the map has %lld values, six are needed",
                 static_cast<long long>(map.count()));
  *output = image;
  output->dims[0] = scaled(image.dims[0], p.factor_h);
  if (output->dim_count > 1) output->dims[1] = scaled(image.dims[1], p.factor_w);
  if (output->extent(0) < 1 || output->extent(1) < 1)
    check->error(ZYN_CHECK_SHAPE, node.id, "%s times %g, %g leaves no output",
                 extents_text(image).text, static_cast<double>(p.factor_h),
                 static_cast<double>(p.factor_w));
  no_fixed_point(check, node);
}

void check_reshape(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!zyn_check_reads(check, node, false)) return;
  const auto& p = record<zyn_reshape_param>(node);
  if (p.count < 1 || p.count > 5) {
    check->error(ZYN_CHECK_RECORD, node.id, "%d extents, 1 to 5 are needed", p.count);
    return;
  }
  int64_t product = 1;
  int32_t open = -1;
  *output = node.input;
  memset(output->dims, 0, sizeof(output->dims));
  output->dim_count = p.count;
  for (int32_t i = 0; i < p.count; i++) {
    output->dims[i] = p.dims[i];
    if (p.dims[i] > 0 && !zyn_multiply(product, p.dims[i], &product)) product = INT64_MAX;
    if (p.dims[i] == -1 && open < 0) {
      open = i;
    } else if (p.dims[i] < 1) {
      check->error(ZYN_CHECK_RECORD, node.id,
                   "extent %d is %d: one may be -1, the others are at "
                   "least 1",
                   i, p.dims[i]);
      output->dim_count = 0;
      return;
    }
  }
  const int64_t held = node.input.count();
  if (open >= 0) output->dims[open] = zyn_cg_extent(held / product);
  if (output->count() < held)
    check->error(ZYN_CHECK_SHAPE, node.id, "%s values do not fit into %s",
                 extents_text(node.input).text, extents_text(*output).text);
  else if (output->count() > held)
    check->warn(ZYN_CHECK_SHAPE, node.id, "%s values leave a part of %s zero",
                extents_text(node.input).text, extents_text(*output).text);
}

void check_concat(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  const auto& p = record<zyn_concat_param>(node);
  if (node.reads->count != p.count) {
    check->error(ZYN_CHECK_INPUTS, node.id, "its list has %d nodes, its edges bring %lld", p.count,
                 static_cast<long long>(node.reads->count));
    return;
  }
  int64_t along = 0;
  zyn_check_shape first = {};
  for (int32_t j = 0; j < p.count; j++) {
    bool edge = false;
    for (int64_t i = 0; i < node.reads->count; i++)
      edge = edge || zyn_darray_ids(node.reads)[i] == p.nodes[j];
    if (!edge) {
      check->error(ZYN_CHECK_INPUTS, node.id, "its list names node %d, from which no edge comes",
                   p.nodes[j]);
      return;
    }
    const zyn_check_shape in = check->shape(p.nodes[j]);
    if (!in.known()) return;
    if (j == 0) first = in;
    if (p.axis < 0 || p.axis >= first.dim_count || first.dim_count > 3) {
      check->error(ZYN_CHECK_RECORD, node.id, "axis %d of %s: the axis is one of at most 3", p.axis,
                   extents_text(first).text);
      return;
    }
    for (int32_t d = 0; d < 5; d++)
      if (d != p.axis && in.extent(d) != first.extent(d)) {
        check->error(
            ZYN_CHECK_SHAPE, node.id, "%s (node %d) and %s (node %d) differ beside axis %d",
            extents_text(first).text, p.nodes[0], extents_text(in).text, p.nodes[j], p.axis);
        return;
      }
    along += in.extent(p.axis);
  }
  *output = first;
  output->dims[p.axis] = zyn_cg_extent(along);
}

void check_slice(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!zyn_check_reads(check, node, false)) return;
  const auto& p = record<zyn_slice_param>(node);
  const int64_t channels = node.input.extent(2);
  if (p.parts < 1 || p.parts > channels) {
    check->error(ZYN_CHECK_RECORD, node.id, "%d parts of %lld channels", p.parts,
                 static_cast<long long>(channels));
    return;
  }
  const int64_t taken = channels / p.parts;
  const int64_t last = p.first + (taken - 1) * p.step;
  if (p.first < 0 || p.first >= channels || last < 0 || last >= channels)
    check->error(ZYN_CHECK_RECORD, node.id, "channels %d to %lld of %lld are taken", p.first,
                 static_cast<long long>(last), static_cast<long long>(channels));
  *output = node.input;
  output->dims[2] = static_cast<int32_t>(taken);
}

void check_gather(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (zyn_cg_find_further(node.type, zyn_cg_first_word(node.param)))
    return zyn_check_further(check, node, output);
  if (!zyn_check_reads(check, node, false)) return;
  const auto& p = record<zyn_gather_param>(node);
  for (int32_t i = 0; i < p.count; i++)
    if (p.channels[i] < 0 || p.channels[i] >= node.input.extent(2)) {
      check->error(ZYN_CHECK_RECORD, node.id, "channel %d of %lld is taken", p.channels[i],
                   static_cast<long long>(node.input.extent(2)));
      return;
    }
  *output = node.input;
  output->dims[2] = p.count;
}

struct rule_row {
  int32_t type;
  bool has_record;
  rule check;
};
constexpr rule_row kRules[] = {{ZYN_OP_FUNCTION, true, zyn_check_function},
                               {ZYN_OP_BATCH_NORM, true, check_normalisation},
                               {ZYN_OP_BATCH_NORM_FAST, true, check_normalisation},
                               {ZYN_OP_SIGMOID, false, check_activation},
                               {ZYN_OP_RELU, false, check_activation},
                               {ZYN_OP_RELU6, false, check_activation},
                               {ZYN_OP_HARD_SWISH, false, check_activation},
                               {ZYN_OP_MISH, false, check_activation},
                               {ZYN_OP_MAX_POOL, true, check_pooling},
                               {ZYN_OP_AVERAGE_POOL, true, check_pooling},
                               {ZYN_OP_LINEAR, true, check_linear},
                               {ZYN_OP_ADD, false, check_join},
                               {ZYN_OP_MULTIPLY, false, check_join},
                               {ZYN_OP_RESAMPLE, true, check_resample},
                               {ZYN_OP_AFFINE, true, check_affine},
                               {ZYN_OP_RESHAPE, true, check_reshape},
                               {ZYN_OP_CONCAT, true, check_concat},
                               {ZYN_OP_CHANNEL_SLICE, true, check_slice},
                               {ZYN_OP_CHANNEL_GATHER, true, check_gather}};

}  // namespace

bool zyn_check_reads(zyn_checker* check, const zyn_check_node& node, bool with_constant) {
  bool good = true;
  if (node.producers == 0) {
    check->error(ZYN_CHECK_INPUTS, node.id,
                 "it has no input: the edge from the node that it reads is missing");
    good = false;
  }
  if (with_constant && node.constants == 0) {
    check->error(ZYN_CHECK_INPUTS, node.id,
                 "it has no constant: the edge from the node with its weights is missing");
    good = false;
  }
  if (with_constant && !node.constant) good = false;  // said of the constant itself
  if (node.producers > 1) {
    check->warn(ZYN_CHECK_INPUTS, node.id, "it reads %d inputs: only the last, node %d, counts",
                node.producers, node.producer);
  }
  if (!with_constant && node.reads->count > 1) {
    check->error(ZYN_CHECK_INPUTS, node.id, "it reads %lld nodes, one is needed",
                 static_cast<long long>(node.reads->count));
    good = false;
  }
  if (good && node.constant && node.constant->type != ZYN_TYPE_F32 && node.type != ZYN_OP_LINEAR) {
    check->error(ZYN_CHECK_DATA, node.id,
                 "its constant has element type %u, floats (type %d) are "
                 "needed",
                 node.constant->type, ZYN_TYPE_F32);
    good = false;
  }
  return good && node.input.known();
}

bool zyn_check_q(zyn_checker* check, int32_t node, int32_t listed, int32_t least, int32_t most,
                 int32_t* q) {
  if (!check->graph()->q_list) {
    check->error(ZYN_CHECK_FRACTION_BITS, listed,
                 "a fixed-point graph needs a list of fraction bits: call zyn_cg_set_ptr_q_list");
    return false;
  }
  *q = static_cast<int32_t>(zyn_cg_get_q_from_list(check->graph(), node));
  if (*q >= least && *q <= most) return true;
  check->error(ZYN_CHECK_FRACTION_BITS, listed,
               "the fraction bits of node %d are %d, %d to %d is needed", node, *q, least, most);
  return false;
}

void zyn_check_operator(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  for (const rule_row& row : kRules) {
    if (row.type != node.type) continue;
    if (row.has_record && !node.param)
      check->error(ZYN_CHECK_RECORD, node.id, "it was bound without a record");
    else
      row.check(check, node, output);
    return;
  }
  check->error(ZYN_CHECK_TYPE, node.id, "nothing computes type %d", node.type);
}

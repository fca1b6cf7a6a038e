// The choice of a method for every convolution: what each takes by a formula whose numbers
// were fitted to 820 layers timed on one core (2.7 GHz, AVX2), and what it takes to bring
// channels into the order that the next node wants. Starting from one method for all, runs
// of neighbouring convolutions change their method as long as that lowers the sum.
#include <string.h>

#include "cg/cpu/check/zyn_check.h"
#include "cg/cpu/kernels/winograd/zyn_conv_winograd.h"
#include "cg/cpu/ops/zyn_cg_function.h"
#include "cg/cpu/ops/zyn_cg_join.h"
#include "cg/cpu/zyn_cg_records.h"
#include "net/zyn_net_graph.h"

namespace {

// Above so many nodes every convolution is chosen by itself: the search looks at each change
// with the whole network.
constexpr int32_t kMostSearched = 512;
constexpr auto kMethods = static_cast<int32_t>(kZynMethods);
constexpr bool kOrders[] = {false, true};  // of channels: planar, blocked
constexpr double kWorthIt = 0.999;         // a change that saves less is noise

// A layer by what its microseconds are fitted to.
struct layer {
  bool depthwise;
  bool usual;  // kernel 3 or 5 with padding kernel / 2, stride 1 or 2, no dilation: methods 0 and 2
               // have kernels for these
  bool direct;  // kernel 3 or 5 with any padding below it, stride 1 or 2, no dilation: method 0 has
                // kernels for depthwise ones
  bool strips;  // in_strips
  int32_t kernel, stride;
  double taps, seen;  // of the kernel; those inside the input, a mean over the rows of outputs
  double in_channels, out_channels, pixels_in, pixels_out, rows_out;
  int32_t tile;     // of Winograd's kernels
  double products;  // of these by channel: frequencies of all tiles

  double weights() const { return taps * in_channels * out_channels; }
  double moved() const { return pixels_in * in_channels + pixels_out * out_channels; }
};

double rounded_up(double value, int32_t step) {
  const int64_t steps = (static_cast<int64_t>(value) + step - 1) / step;
  return static_cast<double>(steps * step);
}

// Lanes that blocks of 8, 4 and single channels take, where a block of 4 costs as much as so many
// and a single channel as others.
double block_lanes(double channels, double of_four, double single) {
  auto count = static_cast<int64_t>(channels);
  const int64_t whole = count / 8 * 8;
  count -= whole;
  return static_cast<double>(whole) + (count >= 4 ? of_four : 0) +
         single * static_cast<double>(count >= 4 ? count - 4 : count);
}

// Taps of an axis that lie inside the input, a mean over the outputs; among many of these those
// that miss some do not count.
double taps_inside(int64_t kernel, int64_t stride, int64_t pad, int64_t dilation, int64_t in,
                   int64_t out) {
  constexpr int64_t kMany = 64;
  if (out > kMany) return static_cast<double>(kernel);
  int64_t sum = 0;
  for (int64_t x = 0; x < out; x++) {
    const int64_t start = x * stride - pad;
    const int64_t first = start < 0 ? (-start + dilation - 1) / dilation : 0;
    const int64_t end = start < in ? (in - 1 - start) / dilation + 1 : 0;
    const int64_t seen = (end < kernel ? end : kernel) - first;
    sum += seen > 0 ? seen : 0;
  }
  return static_cast<double>(sum) / static_cast<double>(out);
}

// Where method 2 reads columns from strips and earns by it against the general kernels.
bool in_strips(const zyn_conv_param& p, int32_t out_width) {
  constexpr int32_t kFewInputs = 8, kMostKernel = 7, kLeastWidth = 8;
  return p.kernel_h == p.kernel_w && p.kernel_h > 1 && p.kernel_h <= kMostKernel &&
         p.stride_h == p.stride_w && p.stride_h <= 2 && p.dilation_h == 1 && p.dilation_w == 1 &&
         out_width >= kLeastWidth && p.in_channels < kFewInputs;
}

double planar_depthwise(const layer& l) {
  const double work = l.taps * l.pixels_out * l.in_channels, rows = l.in_channels * l.rows_out;
  if (!l.direct) return 9.7e-5 * work + (l.stride == 1 ? 0.028 : 0.053) * rows + 0.28;
  return l.stride == 1
             ? 3.2e-5 * work + 3.6e-4 * l.taps * rows + 8e-3 * l.in_channels + 0.07
             : 5.8e-5 * work + (1.3e-3 + 3.8e-4 * l.taps) * rows + 1e-2 * l.in_channels + 0.02;
}

double planar_cost(const layer& l) {  // method 0
  if (l.depthwise) return planar_depthwise(l);
  const double outputs = l.in_channels * rounded_up(l.out_channels, 4);
  const double rows = l.in_channels * l.out_channels * l.rows_out;
  if (l.kernel == 1) {
    const double work = rounded_up(l.pixels_out, 8) * outputs;
    // The input is read again for every four outputs, from afar what the cache does not hold.
    const double afar = l.pixels_in * l.in_channels - 131072, times = l.out_channels / 4 - 1;
    const double again = afar > 0 && times > 0 ? 2.5e-4 * afar * times : 0;
    return l.stride == 1 ? 2.3e-5 * work + 5.1e-5 * l.moved() + again + 0.05
                         : 3.8e-5 * work + 1.4e-4 * l.moved() + 7.3e-4 * rows + 0.47;
  }
  const double columns = rounded_up(l.pixels_out / l.rows_out, 8) * l.taps * l.rows_out;
  if (l.usual && l.kernel == 3 && l.stride == 1)  // channel by channel
    return 3.6e-5 * columns * l.in_channels * (l.out_channels + 0.6) + 0.4;
  const double work = columns * outputs;
  if (l.stride == 1) return 3.6e-5 * work + 0.4;
  return l.usual ? 3.9e-5 * work + 1.2e-3 * rows + 0.65
                 : 3.7e-5 * work + 1.5e-4 * l.taps * rows + 0.5;
}

double blocked_cost(const layer& l) {  // method 1
  const double rows = l.in_channels * l.rows_out;
  if (l.depthwise)
    return 2.2e-5 * l.taps * l.pixels_out * block_lanes(l.in_channels, 6, 6) + 1.4e-4 * rows +
           1.4e-5 * l.pixels_in * l.in_channels + 0.08;
  const double lanes =
      l.kernel == 1 ? block_lanes(l.out_channels, 6, 6) : block_lanes(l.out_channels, 9, 3.5);
  const double work = l.taps * l.pixels_out * l.in_channels * lanes;
  return l.kernel == 1 ? 1.75e-5 * work + 5e-5 * l.moved() + 5e-5 * l.weights() + 0.08
                       : 2.05e-5 * work + 4.1e-5 * l.moved() + 3.4e-5 * l.weights() + 0.34;
}

double planned_cost(const layer& l) {  // method 2
  if (l.depthwise)
    return (l.stride == 1 ? 3.9e-5 : 6.5e-5) * l.taps * l.pixels_out * l.in_channels +
           3e-3 * l.in_channels + 0.14;
  const bool pointwise = l.kernel == 1 && l.stride == 1;
  const double fours = rounded_up(l.out_channels, 4);
  if (pointwise && l.pixels_out <= 1) return (0.01 + 5.8e-5 * l.in_channels) * fours + 0.1;
  const bool sixes = static_cast<int64_t>(l.out_channels) % 6 == 0 && (pointwise || l.usual);
  const double work =
      l.taps * rounded_up(l.pixels_out, 8) * l.in_channels * (sixes ? l.out_channels : fours);
  if (pointwise) return 1.85e-5 * work + 6.4e-5 * l.moved() + 2.4e-5 * l.weights() + 0.12;
  if (l.usual)
    return 2.1e-5 * work + 3.2e-5 * l.taps * l.pixels_in * l.in_channels +
           5e-5 * l.pixels_out * l.out_channels + 6.8e-5 * l.weights() + 0.016 * l.in_channels +
           0.4;
  if (l.strips)
    return 1.9e-5 * work + 3.2e-5 * l.taps * l.pixels_out * l.in_channels +
           1e-4 * l.pixels_in * l.in_channels + 5e-5 * l.pixels_out * l.out_channels +
           6.8e-5 * l.weights() + 0.4;
  return 2.05e-5 * work + 1.2e-4 * l.taps * l.pixels_out * l.in_channels +
         2e-4 * l.pixels_out * l.out_channels + 7e-3 * l.taps * l.in_channels * l.rows_out + 0.25;
}

// Methods 3 and 4; rows are gathered and the sums scattered on the way.
double general_cost(const layer& l, bool blocked_input, bool blocked_output) {
  const double outputs = rounded_up(l.out_channels, 8);
  if (l.depthwise)
    return 2.1e-5 * l.taps * l.pixels_out * outputs +
           (blocked_input ? 1.7e-5 : 1.2e-4) * l.pixels_in * outputs +
           (blocked_output ? 4.8e-5 : 1.65e-4) * l.pixels_out * outputs + 1.8e-3 * outputs + 0.09;
  if (l.kernel == 1 && l.pixels_out <= 1) return 4.2e-5 * l.in_channels * outputs + 0.15;
  const double gathered = blocked_input ? (l.kernel == 1 ? 1.5e-5 : 7e-5) : 2e-4;
  return 1.95e-5 * l.seen * l.pixels_out * l.in_channels * outputs +
         gathered * l.pixels_in * l.in_channels +
         (blocked_output ? 8.5e-5 : 1.85e-4) * l.pixels_out * outputs +
         3.8e-5 * l.seen * l.in_channels * outputs + 6e-4 * outputs + 0.15;
}

// Methods 5 and 6 of pointwise layers: seven products instead of eight, and sums of quarters. They
// hold 1.75 times the weights: what saves less than 3 % is left to others.
double quarters_cost(const layer& l, bool blocked_input, bool blocked_output) {
  const double outputs = rounded_up(l.out_channels, 8), afar = l.weights() - 65536;
  return 0.92 * 1.75e-5 * l.pixels_out * l.in_channels * outputs +
         (blocked_input ? 1.9e-4 : 5e-4) * l.pixels_in * l.in_channels +
         (blocked_output ? 9e-5 : 3.5e-4) * l.pixels_out * outputs +
         9e-5 * (l.weights() + (afar > 0 ? afar : 0)) + 8e-3 * (l.in_channels + outputs) + 0.5;
}

// Methods 5 and 6: the input's transform, products, the output's transform, and weights, which
// come from afar where they are many.
double winograd_cost(const layer& l, bool blocked_input, bool blocked_output) {
  if (l.kernel == 1) return quarters_cost(l, blocked_input, blocked_output);
  const double outputs = rounded_up(l.out_channels, 8), pairs = l.in_channels * outputs;
  const double frequencies = (l.tile + 2) * (l.tile + 2), afar = pairs - 65536;
  return 6.5e-4 * l.pixels_in * l.in_channels + 2.15e-5 * l.products * pairs +
         2e-4 * l.products * outputs + (blocked_output ? 0 : 1.9e-4) * l.pixels_out * outputs +
         frequencies * (3e-5 * pairs + 6e-5 * (afar > 0 ? afar : 0) + 0.02) + 0.3;
}

// Bringing a tensor from one order of channels to the other.
double conversion_cost(const zyn_check_shape& shape) {
  return 3e-4 * static_cast<double>(shape.count()) + 0.1;
}

// Whether planar and blocked order differ for a tensor.
bool has_order(const zyn_check_shape& shape) {
  return shape.dim_count > 2 && shape.dims[2] >= 4 && shape.extent(0) * shape.extent(1) > 1;
}

// Whether an operator gives its output the order of its input; joins of extents that differ in
// more than one value a channel do not, and are few.
bool keeps_order(int32_t type, const void* param) {
  const int32_t first = param ? zyn_cg_first_word(param) : 0;
  if (type == ZYN_OP_FUNCTION) return !zyn_cg_is_axis_function(first);
  if (type == ZYN_OP_AFFINE) return zyn_cg_is_join(param) && first != ZYN_JOIN_MATMUL;
  return type == ZYN_OP_ADD || type == ZYN_OP_MULTIPLY || type == ZYN_OP_SIGMOID ||
         type == ZYN_OP_RELU || type == ZYN_OP_RELU6 || type == ZYN_OP_HARD_SWISH ||
         type == ZYN_OP_MISH || type == ZYN_OP_BATCH_NORM || type == ZYN_OP_BATCH_NORM_FAST;
}

// A method, or where it refuses the layer one that does not.
int32_t method_or_another(uint32_t wanted, int32_t type, const zyn_conv_param& param,
                          const zyn_check_shape& input) {
  // The general kernels write the same two orders.
  if (zyn_cg_is_winograd(wanted) && !zyn_check_method_computes(wanted, type, param, input))
    wanted -= ZYN_METHOD_WINOGRAD - ZYN_METHOD_GENERAL;
  return zyn_check_method_computes(wanted, type, param, input) ? static_cast<int32_t>(wanted)
         : zyn_check_method_computes(2, type, param, input)    ? 2
                                                               : 0;
}

// The methods that a network may use.
int32_t usable_methods(const zyn_net* net) {
  return net->options.exact == 1 ? static_cast<int32_t>(ZYN_METHOD_WINOGRAD) : kMethods;
}

class chooser {
 public:
  chooser(zyn_net* net, const zyn_checker& checker)
      : net_(net), checker_(checker), methods_(usable_methods(net)) {}

  bool run() {
    const int32_t count = net_->description.node_count;
    for (int32_t id = 0; id < count; id++) {
      if (!blocked_.push(0)) return false;
      if (net_->methods[id] >= 0 && !convolutions_.push(id)) return false;
    }
    if (!kept_.reserve(count) || !best_.reserve(count) || !fill_tables() || !find_steps())
      return false;
    double best = -1;
    for (int32_t method = 0; method < methods_; method++) {
      for (int64_t i = 0; i < convolutions_.count(); i++) set(convolutions_[i], method);
      double cost = total();
      if (count <= kMostSearched) cost = search(cost);
      if (best >= 0 && cost >= best) continue;
      best = cost;
      best_.cut(0);
      best_.append(net_->methods, count);
    }
    memcpy(net_->methods, best_.data(), static_cast<size_t>(count) * sizeof(int32_t));
    return true;
  }

 private:
  const zyn_conv_param& record(int32_t id) const {
    return *static_cast<const zyn_conv_param*>(net_->graph->bindings[id].param);
  }
  const zyn_check_shape& input_of(int32_t id) const {
    const zyn_darray* reads = zyn_cg_inputs(net_->graph, id);
    for (int64_t i = reads->count - 1; i > 0; i--)
      if (!checker_.is_constant(zyn_darray_ids(reads)[i]))
        return checker_.shape(zyn_darray_ids(reads)[i]);
    return checker_.shape(zyn_darray_ids(reads)[0]);
  }

  // The method that a convolution gets where one is wanted: that, or the one that takes its layer
  // where that refuses it.
  int32_t method_for(int32_t id, int32_t wanted) const {
    const zyn_conv_param& p = record(id);
    const zyn_check_shape& in = input_of(id);
    const int32_t type = net_->nodes[id].type;
    return method_or_another(static_cast<uint32_t>(wanted), type, p, in);
  }

  // What the search asks for again and again.
  bool fill_tables() {
    for (int32_t id = 0; id < net_->description.node_count; id++)
      for (int32_t method = 0; method < methods_; method++) {
        const bool is_conv = net_->methods[id] >= 0;
        const int32_t taken = is_conv ? method_for(id, method) : -1;
        if (!taken_.push(taken)) return false;
        for (const bool blocked : kOrders)
          if (!costs_.push(is_conv ? cost_of(id, method, blocked) : 0)) return false;
      }
    return true;
  }
  void set(int32_t id, int32_t method) { net_->methods[id] = taken_[id * methods_ + method]; }
  double node_cost(int32_t id, bool blocked_input) const {
    return costs_[(id * methods_ + net_->methods[id]) * 2 + (blocked_input ? 1 : 0)];
  }

  double cost_of(int32_t id, int32_t method, bool blocked_input) const {
    const zyn_conv_param& p = record(id);
    const zyn_check_shape &in = input_of(id), &out = checker_.shape(id);
    const double pixels_in = static_cast<double>(in.extent(0)) * static_cast<double>(in.extent(1));
    const double rows = static_cast<double>(out.extent(1));
    const auto width = static_cast<int32_t>(out.extent(0));
    const int32_t tile = zyn_conv_winograd_tile(&p, width, static_cast<int32_t>(out.extent(1)));
    const double products = rounded_up(width, tile) * rounded_up(rows, tile) / (tile * tile) *
                            zyn_winograd_frequencies(tile);
    const bool own = p.kernel_h == p.kernel_w && (p.kernel_h == 3 || p.kernel_h == 5) &&
                     p.stride_h == p.stride_w && p.stride_h <= 2;
    const bool direct = own && p.dilation_h == 1 && p.dilation_w == 1 && p.pad_h < p.kernel_h &&
                        p.pad_w < p.kernel_h;
    const layer l = {p.groups != 1,
                     direct && p.pad_h == p.kernel_h / 2 && p.pad_w == p.pad_h,
                     direct,
                     in_strips(p, width),
                     p.kernel_h > p.kernel_w ? p.kernel_h : p.kernel_w,
                     p.stride_h > p.stride_w ? p.stride_h : p.stride_w,
                     static_cast<double>(p.kernel_h) * p.kernel_w,
                     p.kernel_h * taps_inside(p.kernel_w, p.stride_w, p.pad_w, p.dilation_w,
                                              in.extent(1), out.extent(1)),
                     static_cast<double>(p.in_channels),
                     static_cast<double>(p.out_channels),
                     pixels_in,
                     static_cast<double>(out.extent(0)) * rows,
                     rows,
                     tile,
                     products};
    return method == 0   ? planar_cost(l)
           : method == 1 ? blocked_cost(l)
           : method == 2 ? planned_cost(l)
           : zyn_cg_is_winograd(static_cast<uint32_t>(method))
               ? winograd_cost(l, blocked_input, method == ZYN_METHOD_WINOGRAD)
               : general_cost(l, blocked_input, method == ZYN_METHOD_GENERAL);
  }

  // What total() has to know of the nodes in their order, and of what they read.
  struct step {
    int32_t id, first;  // the node, and the first that it reads
    bool is_conv, keeps, keeps_if_all, has_order;
    int64_t reads, read_count;
  };
  struct read {
    int32_t from;
    double conversion;
  };

  // Whether the output of a node is in blocks if all that it reads is: concatenations of whole
  // ones.
  bool joins_blocks(int32_t id) const {
    if (net_->nodes[id].type != ZYN_OP_CONCAT) return false;
    const auto* param = static_cast<const zyn_concat_param*>(net_->graph->bindings[id].param);
    for (int32_t i = 0; i < param->count; i++) {
      const zyn_check_shape& in = checker_.shape(param->nodes[i]);
      if (checker_.is_constant(param->nodes[i]) || !has_order(in) ||
          (i + 1 < param->count && in.dims[2] % 8 != 0))
        return false;
    }
    return param->axis == 2;
  }
  bool all_blocked(const step& s) const {
    for (int64_t i = s.reads; i < s.reads + s.read_count; i++)
      if (!blocked_[reads_[i].from]) return false;
    return true;
  }

  bool find_steps() {
    const zyn_cg_handle* graph = net_->graph;
    for (int32_t k = 0; k < graph->sorted_count; k++) {
      const int32_t id = graph->order[k];
      const zyn_darray* inputs = zyn_cg_inputs(graph, id);
      if (!inputs || inputs->count == 0) continue;
      step s = {id,
                zyn_darray_ids(inputs)[0],
                net_->methods[id] >= 0,
                keeps_order(net_->nodes[id].type, graph->bindings[id].param),
                joins_blocks(id),
                has_order(checker_.shape(id)),
                reads_.count(),
                0};
      for (int64_t i = 0; i < inputs->count; i++) {
        const int32_t from = zyn_darray_ids(inputs)[i];
        if (checker_.is_constant(from) || !has_order(checker_.shape(from))) continue;
        if (!reads_.push({from, conversion_cost(checker_.shape(from))})) return false;
      }
      s.read_count = reads_.count() - s.reads;
      if (!steps_.push(s)) return false;
    }
    return true;
  }

  // What the network takes under net->methods.
  double total() {
    double sum = 0;
    for (int64_t k = 0; k < steps_.count(); k++) {
      const step& s = steps_[k];
      const int32_t method = net_->methods[s.id];
      const bool any_order = method >= static_cast<int32_t>(ZYN_METHOD_GENERAL);
      const bool wants_blocked = s.is_conv        ? method == 1
                                 : s.keeps_if_all ? all_blocked(s)
                                                  : s.keeps && blocked_[s.first];
      const bool writes_blocked =
          method == ZYN_METHOD_GENERAL || method == ZYN_METHOD_WINOGRAD || wants_blocked;
      bool reads_blocked = wants_blocked;
      for (int64_t i = s.reads; i < s.reads + s.read_count; i++) {
        const bool is_blocked = blocked_[reads_[i].from] != 0;
        if (any_order)
          reads_blocked = is_blocked;
        else if (is_blocked != wants_blocked)
          sum += reads_[i].conversion;
      }
      blocked_[s.id] = writes_blocked && s.has_order ? 1 : 0;
      if (s.is_conv) sum += node_cost(s.id, reads_blocked);
    }
    for (int32_t i = 0; i < net_->description.output_count; i++) {
      const int32_t id = net_->description.outputs[i].node;
      if (blocked_[id]) sum += conversion_cost(checker_.shape(id));
    }
    return sum;
  }

  // Changes runs of 1, 2, 4, ... neighbouring convolutions while that helps.
  double search(double cost) {
    for (bool changed = true; changed;) {
      changed = false;
      for (int64_t length = 1; length <= convolutions_.count(); length *= 2)
        for (int64_t first = 0; first + length <= convolutions_.count(); first++)
          for (int32_t method = 0; method < methods_; method++) {
            const double tried = try_run(first, length, method, cost);
            if (tried < kWorthIt * cost) {
              cost = tried;
              changed = true;
            } else {
              for (int64_t i = 0; i < length; i++)
                net_->methods[convolutions_[first + i]] = kept_[i];
            }
          }
    }
    return cost;
  }

  // What the network takes with another method for a run; cost: what it takes now.
  double try_run(int64_t first, int64_t length, int32_t method, double cost) {
    kept_.cut(0);
    bool changes = false;
    for (int64_t i = 0; i < length; i++) {
      const int32_t id = convolutions_[first + i], before = net_->methods[id];
      kept_.push(before);
      set(id, method);
      changes |= net_->methods[id] != before;
    }
    return changes ? total() : cost;
  }

  zyn_net* net_;
  const zyn_checker& checker_;
  const int32_t methods_;           // that may be used
  zyn_list<int32_t> convolutions_;  // ids
  zyn_list<uint8_t> blocked_;       // by id: whether the output is in blocked order
  zyn_list<step> steps_;
  zyn_list<read> reads_;
  zyn_list<int32_t> taken_;  // by id and method
  zyn_list<double> costs_;   // by id, method, order of the input
  zyn_list<int32_t> kept_, best_;
};

// One method for all, or the file's own choice; where it refuses a layer another takes it.
bool take(zyn_net* net, const zyn_checker& checker, bool from_file) {
  for (int32_t id = 0; id < net->description.node_count; id++) {
    if (net->methods[id] < 0) continue;
    const uint32_t listed = net->file.method(id);
    uint32_t wanted = !from_file               ? static_cast<uint32_t>(net->options.method)
                      : listed == kZynFileNone ? 2
                                               : listed;
    if (static_cast<int32_t>(wanted) >= usable_methods(net))
      wanted -= ZYN_METHOD_WINOGRAD - ZYN_METHOD_GENERAL;
    const auto* param = static_cast<const zyn_conv_param*>(net->graph->bindings[id].param);
    const zyn_darray* reads = zyn_cg_inputs(net->graph, id);
    zyn_check_shape input = {};
    for (int64_t i = 0; i < reads->count; i++)
      if (!checker.is_constant(zyn_darray_ids(reads)[i]))
        input = checker.shape(zyn_darray_ids(reads)[i]);
    const int32_t type = net->nodes[id].type;
    net->methods[id] = method_or_another(wanted, type, *param, input);
  }
  return true;
}

}  // namespace

bool zyn_net_choose_methods(zyn_net* net, const zyn_checker& checker) {
  if (net->options.fixed_point == 1) return true;  // one kernel whatever the method
  const bool automatic = net->options.method < 0;
  const bool from_file = automatic && net->file.count(ZYN_FILE_METHODS) > 0;
  return automatic && !from_file ? chooser(net, checker).run() : take(net, checker, from_file);
}

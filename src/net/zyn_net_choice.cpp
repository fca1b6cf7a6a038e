// The choice of a method for every convolution: what each takes by a formula whose numbers
// were fitted to 566 layers timed on one core (2.7 GHz, AVX2), and what it takes to bring
// channels into the order that the next node wants. Starting from one method for all, runs
// of neighbouring convolutions change their method as long as that lowers the sum.
#include <string.h>

#include "cg/cpu/ops/zyn_cg_function.h"
#include "cg/cpu/ops/zyn_cg_join.h"
#include "cg/cpu/zyn_cg_records.h"
#include "net/zyn_check.h"
#include "net/zyn_net_graph.h"

namespace {

// Above so many nodes every convolution is chosen by itself: the search looks at each change
// with the whole network.
constexpr int32_t kMostSearched = 512;
constexpr int32_t kLastMethod = ZYN_METHOD_GENERAL_PLANAR;
constexpr double kWorthIt = 0.999;  // a change that saves less is noise

// Microseconds of a layer: the sum of what was fitted times what it counts.
struct layer {
  bool depthwise;
  int32_t kernel, stride;
  double in_channels, out_channels, pixels_in, pixels_out, rows_out;
};

double rounded_up(double value, int32_t step) {
  return static_cast<double>((static_cast<int64_t>(value) + step - 1) / step * step);
}

// Lanes that blocks of 8, 4 and single channels take: a block of 4 costs 6 lanes, a single
// channel some.
double block_lanes(double channels, double single) {
  auto count = static_cast<int64_t>(channels);
  const int64_t whole = count / 8 * 8;
  count -= whole;
  const int64_t four = count >= 4 ? 6 : 0;
  return static_cast<double>(whole + four) +
         single * static_cast<double>(count >= 4 ? count - 4 : count);
}

double planar_cost(const layer& l) {  // method 0
  const double taps = l.kernel * l.kernel;
  if (l.depthwise)
    return l.stride == 1 ? 4.2e-5 * taps * l.pixels_out * l.in_channels +
                               4.5e-3 * l.in_channels * l.rows_out + 0.02
                         : 8.5e-5 * taps * l.pixels_out * l.in_channels +
                               3.2e-3 * l.in_channels * l.rows_out + 0.015 * l.in_channels + 0.02;
  const double columns = rounded_up(l.pixels_out, 8);
  const double outputs = rounded_up(l.out_channels, 4);
  const double work = taps * columns * l.in_channels * outputs;
  return l.kernel == 1
             ? 2.3e-5 * work +
                   8.2e-5 * (l.pixels_in * l.in_channels + l.pixels_out * l.out_channels) + 0.03
             : 4.7e-5 * work + 1.1e-4 * taps * l.in_channels * l.out_channels +
                   0.04 * l.in_channels + 0.4;
}

double blocked_cost(const layer& l) {  // method 1
  const double taps = l.kernel * l.kernel;
  if (l.depthwise)
    return (l.stride == 1 ? 3.2e-5 : 3.5e-5) * taps * l.pixels_out * block_lanes(l.in_channels, 6) +
           0.03;
  const double work = taps * l.pixels_out * l.in_channels * block_lanes(l.out_channels, 3.5);
  const double moved = l.pixels_in * l.in_channels + l.pixels_out * l.out_channels;
  const double weights = taps * l.in_channels * l.out_channels;
  return l.kernel == 1 ? 2.0e-5 * work + 5.2e-5 * moved + 5.7e-5 * weights + 0.06
                       : 2.1e-5 * work + 1.4e-4 * moved + 2.0e-4 * weights + 0.25;
}

double planned_cost(const layer& l) {  // method 2
  const double taps = l.kernel * l.kernel;
  if (l.depthwise)
    return l.stride == 1
               ? 2.2e-5 * taps * l.pixels_out * l.in_channels + 9e-4 * l.in_channels * l.rows_out +
                     2e-4 * l.pixels_in * l.in_channels + 0.06
               : 1.9e-5 * taps * l.pixels_in * l.in_channels + 7e-3 * l.in_channels + 0.07;
  const double outputs = static_cast<int64_t>(l.out_channels) % 6 == 0
                             ? l.out_channels
                             : rounded_up(l.out_channels, 4);
  const double work = taps * rounded_up(l.pixels_out, 8) * l.in_channels * outputs;
  const double moved =
      (taps > 1 ? taps : 1) * l.pixels_in * l.in_channels + l.pixels_out * l.out_channels;
  const double weights = taps * l.in_channels * l.out_channels;
  return l.kernel == 1
             ? 2.15e-5 * work + 5.3e-5 * moved + 4.4e-5 * weights + 0.12
             : 2.35e-5 * work + 6e-5 * moved + 1.1e-4 * weights + 0.025 * l.in_channels + 0.4;
}

// Methods 3 and 4; rows are gathered and the sums scattered on the way.
double general_cost(const layer& l, bool blocked_input, bool blocked_output) {
  const double taps = l.kernel * l.kernel;
  const double outputs = rounded_up(l.out_channels, 8);
  const double moved = (blocked_input ? 1.1e-4 : 1.75e-4) * l.pixels_in * l.in_channels +
                       (blocked_output ? 0 : 0.65e-4) * l.pixels_out * outputs;
  if (l.depthwise) return 2.6e-5 * taps * l.pixels_out * outputs + moved + 0.02 * outputs / 8 + 0.1;
  return 2.15e-5 * taps * l.pixels_out * l.in_channels * outputs + moved +
         5.7e-5 * taps * l.in_channels * outputs + 0.25;
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

class chooser {
 public:
  chooser(zyn_net* net, const zyn_checker& checker) : net_(net), checker_(checker) {}

  bool run() {
    const int32_t count = net_->description.node_count;
    for (int32_t id = 0; id < count; id++) {
      if (!blocked_.push(0)) return false;
      if (net_->methods[id] >= 0 && !convolutions_.push(id)) return false;
    }
    if (!kept_.reserve(count) || !best_.reserve(count)) return false;
    double best = -1;
    for (int32_t method = 0; method <= kLastMethod; method++) {
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

  // Gives a convolution a method, or the one that takes its layer where that refuses it.
  void set(int32_t id, int32_t method) {
    const zyn_conv_param& p = record(id);
    const zyn_check_shape& in = input_of(id);
    const int32_t type = net_->nodes[id].type;
    if (!zyn_check_method_computes(static_cast<uint32_t>(method), type, p, in))
      method = zyn_check_method_computes(2, type, p, in) ? 2 : 0;
    net_->methods[id] = method;
  }

  double cost_of(int32_t id, bool blocked_input) const {
    const zyn_conv_param& p = record(id);
    const zyn_check_shape &in = input_of(id), &out = checker_.shape(id);
    const double pixels_in = static_cast<double>(in.extent(0)) * static_cast<double>(in.extent(1));
    const double rows = static_cast<double>(out.extent(1));
    const layer l = {p.groups != 1,
                     p.kernel_h,
                     p.stride_h,
                     static_cast<double>(p.in_channels),
                     static_cast<double>(p.out_channels),
                     pixels_in,
                     static_cast<double>(out.extent(0)) * rows,
                     rows};
    const int32_t method = net_->methods[id];
    return method == 0   ? planar_cost(l)
           : method == 1 ? blocked_cost(l)
           : method == 2 ? planned_cost(l)
                         : general_cost(l, blocked_input, method == ZYN_METHOD_GENERAL);
  }

  // What the network takes under net->methods.
  double total() {
    double sum = 0;
    const zyn_cg_handle* graph = net_->graph;
    for (int32_t k = 0; k < graph->sorted_count; k++) {
      const int32_t id = graph->order[k];
      const zyn_darray* reads = zyn_cg_inputs(graph, id);
      if (!reads || reads->count == 0) continue;
      const bool is_conv = net_->methods[id] >= 0;
      const bool keeps = keeps_order(net_->nodes[id].type, graph->bindings[id].param);
      const int32_t first = zyn_darray_ids(reads)[0];
      const int32_t method = net_->methods[id];
      const bool any_order = method == ZYN_METHOD_GENERAL || method == ZYN_METHOD_GENERAL_PLANAR;
      const bool wants_blocked = is_conv ? method == 1 : keeps && blocked_[first];
      const bool writes_blocked = method == ZYN_METHOD_GENERAL || wants_blocked;
      bool reads_blocked = wants_blocked;
      for (int64_t i = 0; i < reads->count; i++) {
        const int32_t from = zyn_darray_ids(reads)[i];
        if (checker_.is_constant(from) || !has_order(checker_.shape(from))) continue;
        if (any_order)
          reads_blocked = blocked_[from] != 0;
        else if ((blocked_[from] != 0) != wants_blocked)
          sum += conversion_cost(checker_.shape(from));
      }
      blocked_[id] = writes_blocked && has_order(checker_.shape(id)) ? 1 : 0;
      if (is_conv) sum += cost_of(id, reads_blocked);
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
          for (int32_t method = 0; method <= kLastMethod; method++) {
            const double tried = try_run(first, length, method);
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

  double try_run(int64_t first, int64_t length, int32_t method) {
    kept_.cut(0);
    for (int64_t i = 0; i < length; i++) {
      kept_.push(net_->methods[convolutions_[first + i]]);
      set(convolutions_[first + i], method);
    }
    return total();
  }

  zyn_net* net_;
  const zyn_checker& checker_;
  zyn_list<int32_t> convolutions_;  // ids
  zyn_list<uint8_t> blocked_;       // by id: whether the output is in blocked order
  zyn_list<int32_t> kept_, best_;
};

// One method for all, or the file's own choice; where it refuses a layer another takes it.
bool take(zyn_net* net, const zyn_checker& checker, bool from_file) {
  for (int32_t id = 0; id < net->description.node_count; id++) {
    if (net->methods[id] < 0) continue;
    const uint32_t listed = net->file.method(id);
    const uint32_t wanted = !from_file               ? static_cast<uint32_t>(net->options.method)
                            : listed == kZynFileNone ? 2
                                                     : listed;
    const auto* param = static_cast<const zyn_conv_param*>(net->graph->bindings[id].param);
    const zyn_darray* reads = zyn_cg_inputs(net->graph, id);
    zyn_check_shape input = {};
    for (int64_t i = 0; i < reads->count; i++)
      if (!checker.is_constant(zyn_darray_ids(reads)[i]))
        input = checker.shape(zyn_darray_ids(reads)[i]);
    const int32_t type = net->nodes[id].type;
    net->methods[id] = zyn_check_method_computes(wanted, type, *param, input)
                           ? static_cast<int32_t>(wanted)
                       : zyn_check_method_computes(2, type, *param, input) ? 2
                                                                           : 0;
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

// A network and its reference side by side: every node added to the library's graph has
// a formula here, random nodes of every operator type, and the evaluation that respects
// the order of execution and the activations that work in place.
#pragma once

#include <deque>
#include <functional>

#include "support/net.h"

namespace zyn_test {

// Every type that a model can add: the convolutions with a kernel for each method ...
inline constexpr int kConvTypes[] = {ZYN_OP_CONV, ZYN_OP_CONV_DEPTHWISE, ZYN_OP_CONV_POINTWISE,
                                     ZYN_OP_CONV_ACT, ZYN_OP_CONV_BN};
// ... and all others.
inline constexpr int kOperatorTypes[] = {ZYN_OP_CONV_GROUPED,
                                         ZYN_OP_CONV_TRANSPOSED,
                                         ZYN_OP_FUNCTION,
                                         ZYN_OP_BATCH_NORM,
                                         ZYN_OP_BATCH_NORM_FAST,
                                         ZYN_OP_SIGMOID,
                                         ZYN_OP_RELU,
                                         ZYN_OP_RELU6,
                                         ZYN_OP_HARD_SWISH,
                                         ZYN_OP_MAX_POOL,
                                         ZYN_OP_AVERAGE_POOL,
                                         ZYN_OP_MISH,
                                         ZYN_OP_LINEAR,
                                         ZYN_OP_ADD,
                                         ZYN_OP_MULTIPLY,
                                         ZYN_OP_RESAMPLE,
                                         ZYN_OP_AFFINE,
                                         ZYN_OP_RESHAPE,
                                         ZYN_OP_CONCAT,
                                         ZYN_OP_CHANNEL_SLICE,
                                         ZYN_OP_CHANNEL_GATHER};

class Model {
 public:
  using Inputs = const std::vector<const Array*>&;
  using Formula = std::function<Array(Inputs)>;

  explicit Model(uint64_t seed, uint32_t fixed_point = 0)
      : random(seed), net(fixed_point), fixed_point_(fixed_point) {}

  Random random;
  Net net;
  // Channel order of the graph's inputs: a code, or -1 for any.
  int layout = 0;
  bool small = false;  // few elements a node

  // Convolution method of types 3, 4, 5, 12 and 13.
  void method(uint32_t method) {
    method_ = method;
    net.method(method);
  }

  // Adds a random node of a type, with what it needs around it. Inputs are taken from
  // the nodes so far where one fits, else made. gentle: only what keeps values small
  // and errors from growing. Returns the node's id, -1 where nothing fits.
  int add(int type, bool gentle = false);

  // Feeds inputs that no node reads to a function: every node needs an edge.
  void use_leftovers();
  int input(const Array& a);
  int constant(const Array& a);
  // Makes and prepares the graph, in fixed point with q 8 for every node.
  int32_t prepare();
  // Every node's tensor.
  std::vector<std::vector<double>> outputs();
  // Writes the inputs' first values again.
  void refill();
  // Computes every node's value in the library's order of execution.
  void evaluate();
  // The value that a node's tensor holds after a run.
  const Array& value(int id) const { return values_[root(id)]; }
  // Compares all nodes after a run.
  void check(double bound);
  const Array& shape(int id) const { return shapes_[id]; }
  int size() const { return static_cast<int>(shapes_.size()); }

 private:
  struct Step {
    std::vector<int> from;
    Formula formula;  // null: data
    int in_place;     // the node whose tensor this one changes, or -1
  };

  template <typename Record>
  int op(int type, const Record& record, std::vector<int> from, Formula formula) {
    return note(net.op(type, record, from), type, from, formula, -1);
  }
  int add_data(int id, int type, const Array& a);
  int note(int id, int type, std::vector<int> from, Formula formula, int in_place);
  size_t root(int id) const;
  int pick(size_t dim_count, int largest = 4000);
  int same_shape(int id, std::vector<int> dims);
  std::vector<int> any_dims(size_t dim_count);

  int add_function(bool gentle);
  int add_activation(int type);
  int add_join(int type);
  int add_norm(int type);
  int add_pool(int type);
  int add_linear(int type);
  int add_resample(int type);
  int add_affine(int type);
  int add_reshape(int type);
  int add_concat(int type);
  int add_channels(int type);
  int add_conv(int type);
  int add_method_conv(int type);

  uint32_t fixed_point_, method_ = 2;
  std::vector<Step> steps_;
  std::vector<Array> shapes_;  // eager values: right in shape only
  std::vector<Array> data_;
  std::vector<Array> values_;
  std::vector<int> types_;
  std::deque<std::vector<int32_t>> lists_;
};

}  // namespace zyn_test

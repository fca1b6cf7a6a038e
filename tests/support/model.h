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
// ... and all others by number, grouped convolution to channel gather.
inline constexpr int kOperatorTypes[] = {7,  8,  9,  10, 11, 15, 16, 20, 21, 22, 23,
                                         24, 25, 27, 28, 30, 31, 32, 33, 34, 35};

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
  const Array& value(int id) const { return steps_[root(id)].value; }
  // Compares all nodes after a run.
  void check(double bound);
  const Array& shape(int id) const { return steps_[id].shape; }
  int size() const { return static_cast<int>(steps_.size()); }

 private:
  struct Step {
    int type;
    std::vector<int> from;
    Formula formula;     // null: data
    int in_place;        // the node whose tensor this one changes, or -1
    Array shape, value;  // a value right in shape only, or data; that after evaluation
  };

  template <typename Record>
  int op(int type, const Record& record, std::vector<int> from, Formula formula) {
    return note(net.op(type, record, from), type, from, formula, -1);
  }
  int note(int id, int type, std::vector<int> from, Formula formula, int in_place);
  int add_data(int id, int type, const Array& a);
  int root(int id) const;
  std::vector<int> any_dims(size_t dim_count);
  int pick(size_t dim_count, int largest = 4000);
  int same_shape(int id, std::vector<int> dims);
  Array small_weights(int taps, int outputs, int more);

  int add_function(int type);
  int add_activation(int type);
  int add_join(int type);
  int add_norm(int type);
  int add_pool(int type);
  int add_linear(int type);
  int add_resample(int type);
  int add_affine(int type);
  int add_further_join(int type);
  int add_reshape(int type);
  int add_concat(int type);
  int add_channels(int type);
  int add_conv(int type);
  int add_method_conv(int type);

  uint32_t fixed_point_, method_ = 2;
  bool gentle_ = false;
  std::deque<Step> steps_;
  std::deque<std::vector<int32_t>> lists_;
};

}  // namespace zyn_test

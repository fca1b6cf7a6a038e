// Graphs. Even inputs make a network that every rule allows, whose values are compared
// with formulas in double precision, bit by bit with a second run, and after preparations
// that ran out of memory. Odd ones make any graph of any nodes: repeated, missing and
// backward edges, records and tensors that nothing fits, preparation and runs in any
// order. No request may be larger than its shapes explain.
#include <algorithm>
#include <cmath>
#include <functional>

#include "support/capture.h"
#include "support/fuzz.h"
#include "support/model.h"
#include "zyncore_net.h"

// What the library prints is the runner's business here.
namespace zyn_test {
Capture::Capture() {}
Capture::~Capture() {}
std::string Capture::text() { return ""; }
}  // namespace zyn_test

namespace {

using zyn_fuzz::check;
using zyn_fuzz::Input;
using zyn_fuzz::Memory;

// Of those whose first word says what they are.
constexpr size_t kLongestRecord = sizeof(zyn_window_param);

// Scratch beside the nodes' own tensors: packed weights, panels, padded rows.
constexpr int64_t bound_of(double tensor_bytes) {
  return (int64_t{1} << 20) + static_cast<int64_t>(32 * std::min(1e15, tensor_bytes));
}

// Not a number counts as too high.
double within(double low, double value, double high) {
  return std::max(low, std::min(high, value));
}

// ---- networks that every rule allows ----

void run_model(Input& input) {
  const uint32_t setup = input.byte();
  const bool fixed_point = setup % 8 == 7;
  zyn_test::Model model(input.word(), fixed_point);
  model.layout = fixed_point ? 0 : static_cast<int>(setup / 8 % 2) - 1;
  model.small = !input.one_in(16);
  model.method(setup / 16 % 3);
  const int64_t failing = setup & 128 ? input.byte() : 0;
  while (!input.empty() && model.size() < 16) {
    const size_t convs = std::size(zyn_test::kConvTypes),
                 others = std::size(zyn_test::kOperatorTypes);
    const size_t type = input.byte() % (2 * convs + others);
    model.add(type < others ? zyn_test::kOperatorTypes[type]
                            : zyn_test::kConvTypes[(type - others) % convs],
              true);
  }
  model.use_leftovers();
  if (model.size() == 0) return;
  double bytes = 0;
  for (int id = 0; id < model.size(); id++)
    bytes += 4 * static_cast<double>(model.shape(id).v.size());
  Memory::bound(bound_of(bytes));

  check(model.net.make() == 0, "a graph that keeps the rules can be made");
  if (fixed_point) model.net.q_list(8);
  if (failing) {
    Memory::fail(failing / 2, failing % 2);
    const int32_t code = model.net.prepare();
    const bool short_memory = Memory::failed();
    Memory::fail(0, false);
    check(short_memory || code == 0 || fixed_point, "only short memory stops a preparation");
    check(code == 0 || model.net.run() != 0, "what was not prepared does not run");
    model.refill();
  }
  const int32_t code = model.net.prepare();
  check(code == 0 || fixed_point, "a graph that keeps the rules can be prepared");
  check((model.net.run() == 0) == (code == 0), "a prepared graph runs, and no other");
  if (code) return;
  const auto first = model.outputs();
  if (!fixed_point) {
    model.evaluate();
    for (int id = 0; id < model.size(); id++) {
      const auto same = zyn_test::agrees(model.net.output(id), model.value(id), 1e-4);
      if (!same) fprintf(stderr, "node %d: %s\n", id, same.message());
      check(same, "every value follows its formula");
    }
  }
  model.refill();
  check(model.net.run() == 0 && model.outputs() == first, "a second run gives the same values");
}

// ---- any graph ----

struct Shape {
  int count = 0;
  double d[5] = {};
  double bytes() const {
    double product = 8;
    for (int i = 0; i < count; i++) product *= within(0, d[i], 2147483647);
    return product;
  }
};

struct Node {
  int32_t type = 0;
  std::vector<int32_t> from;
  std::vector<uint8_t> record;
  std::vector<int32_t> list;
  zyn_tensor* tensor = nullptr;
  Shape shape;
  std::function<void(Shape&)> grow;  // from the inputs' shape to the output's
};

class Attack {
 public:
  explicit Attack(Input& input) : in_(input) {
    const uint32_t setup = in_.byte();
    fixed_ = setup & 1;
    settings_ = {setup & 2 ? in_.extreme() : 64,
                 setup & 4 ? static_cast<uint32_t>(in_.extreme()) : 1,
                 {0, 0},
                 setup & 8 ? static_cast<uint32_t>(in_.extreme()) : fixed_};
    Memory::bound(bound_of(16.0 * 4096));
    graph_ = zyn_create_computation_graph_handle(&settings_);
    zyn_cg_set_conv_method(graph_, setup / 16 % 4);
    for (uint32_t n = 2 + in_.byte() % 6; n > 0; n--) add_node();
    connect(setup & 64);
    for (size_t steps = 0; !in_.empty() && steps < 12; steps++) step();
    Memory::fail(0, false);
  }
  ~Attack() {
    zyn_release_computation_graph_handle(&graph_);
    for (Node& node : nodes_)
      if (node.tensor) zyn_release_tensor(&node.tensor);
  }
  Attack(const Attack&) = delete;
  Attack& operator=(const Attack&) = delete;

 private:
  // What fits, or now and then anything.
  int32_t field(double fits) {
    const uint32_t b = in_.byte();
    return b >= 240 ? in_.extreme() : static_cast<int32_t>(within(-2e9, fits, 2e9));
  }
  int32_t small(int32_t low, int32_t high) {
    const uint32_t b = in_.byte();
    return b >= 244 ? in_.extreme() : low + static_cast<int32_t>(b) % (high - low + 1);
  }

  zyn_tensor* make_tensor(int count, const int32_t* dims, uint32_t type) {
    const uint32_t b = in_.byte();
    if (b == 255) return nullptr;
    zyn_tensor* t = b == 254 ? zyn_create_tensor_header(count, dims, type)
                             : zyn_create_tensor(count, dims, b >= 248 ? b % 32 : type);
    if (!t) return nullptr;
    static constexpr uint32_t kLayouts[8] = {0, 0, 0, 0, 2, 3, 3, 1};
    if (b < 248) zyn_set_tensor_channel_layout(t, kLayouts[b % 8]);
    fill(t);
    return t;
  }
  void fill(zyn_tensor* t) {
    if (!t || !t->data) return;
    const uint32_t seed = in_.byte();
    for (int64_t i = 0; i < t->count; i++) {
      const auto value = static_cast<int>((seed + 1) * static_cast<uint32_t>(i + 3) >> 2) % 9 - 4;
      const float real = i == 5 ? in_.real() : static_cast<float>(value) / 2;
      if (t->element_size == 4)
        static_cast<float*>(t->data)[i] = real;
      else if (t->element_size == 2)
        static_cast<int16_t*>(t->data)[i] = static_cast<int16_t>(value * 1000);
      else
        memset(static_cast<uint8_t*>(t->data) + i * t->element_size, value, t->element_size);
    }
  }
  zyn_tensor* any_tensor() {
    int32_t dims[5];
    const auto count = static_cast<int>(in_.byte());
    for (int i = 0; i < 5; i++) dims[i] = std::min(small(1, 9), i < 3 ? 16 : 3);
    if (count < 16 && dims[0] > 0) dims[0] *= 5;
    return make_tensor(count >= 224 ? count % 5 + 1 : 3 - count / 192, dims,
                       fixed_ ? ZYN_TYPE_FPI16 : ZYN_TYPE_F32);
  }
  static Shape shape_of(const zyn_tensor* t) {
    Shape shape;
    if (t) shape.count = t->dim_count;
    for (int i = 0; i < shape.count; i++) shape.d[i] = t->dims[i];
    return shape;
  }

  size_t data_node(int32_t type, zyn_tensor* tensor) {
    nodes_.emplace_back();
    nodes_.back().type = type;
    nodes_.back().tensor = tensor;
    nodes_.back().shape = shape_of(tensor);
    return nodes_.size() - 1;
  }
  // An earlier node: mostly the latest that holds values.
  int32_t source() {
    const uint32_t b = in_.byte();
    if (b >= 160) return static_cast<int32_t>(b % nodes_.size());
    size_t id = nodes_.size() - 1;
    while (id > 0 && nodes_[id].type == ZYN_OP_CONSTANT) id--;
    return static_cast<int32_t>(id);
  }
  void constant(Node& node, double count) {
    const uint32_t b = in_.byte();
    if (b >= 250) return;
    const int32_t missing = b >= 220 ? 1 + static_cast<int32_t>(b % 4) : 0;
    const int32_t size = std::max(static_cast<int32_t>(within(1, count, 20000)) - missing, 1);
    node.from.push_back(
        static_cast<int32_t>(data_node(ZYN_OP_CONSTANT, make_tensor(1, &size, ZYN_TYPE_F32))));
  }
  template <typename Record>
  void record(Node& node, const Record& r, std::function<void(Shape&)> grow = nullptr) {
    // Types 30, 31 and 35 read as much as the first word says, which may be any.
    const bool varies = node.type == ZYN_OP_RESAMPLE || node.type == ZYN_OP_AFFINE ||
                        node.type == ZYN_OP_CHANNEL_GATHER;
    node.record.resize(varies ? std::max(sizeof(Record), kLongestRecord) : sizeof(Record));
    memcpy(node.record.data(), &r, sizeof(Record));
    node.grow = grow;
  }

  void add_node();
  void add_conv(Node& node, const Shape& in);
  void add_window(Node& node, int32_t mode);
  void add_move(Node& node, const Shape& in, int32_t move);
  void add_further(Node& node, const Shape& in);
  void add_operator(Node& node, int32_t from);
  Shape output_of(const Node& node) const;
  void connect(bool wild);
  int32_t bind(size_t id);
  void step();
  void read_outputs();
  void expect_requests();

  Input& in_;
  uint32_t fixed_;
  int32_t highest_ = 0;  // id: edge lists follow the ids
  bool whole_ = true;    // sorted, every node bound and of a type that has an operator
  zyn_cg_create_param settings_;
  zyn_cg_handle* graph_ = nullptr;
  std::vector<Node> nodes_;
};

void Attack::add_conv(Node& node, const Shape& in) {
  zyn_conv_param p = {};
  const bool pointwise = node.type == ZYN_OP_CONV_POINTWISE;
  p.in_channels = field(in.count > 2 ? in.d[2] : 1);
  const bool depthwise = node.type == ZYN_OP_CONV_DEPTHWISE || in_.byte() % 4 == 3;
  p.out_channels = depthwise ? field(p.in_channels) : small(1, 9);
  p.groups = field(depthwise ? p.in_channels : 1);
  p.kernel_h = pointwise ? field(1) : small(1, 5);
  p.kernel_w = field(p.kernel_h);
  p.stride_h = small(1, 2);
  p.stride_w = field(p.stride_h);
  const int32_t centred = p.kernel_h / 2;
  p.pad_h = field(centred);
  p.pad_w = field(p.pad_h);
  p.dilation_h = field(1);
  p.dilation_w = field(p.dilation_h);
  p.bias = small(0, 1);
  p.word14.activation = small(0, 4);
  p.activation = small(0, 4);
  record(node, p, [p, type = node.type](Shape& s) {
    for (; s.count < 3; s.count++) s.d[s.count] = std::max(1.0, s.d[s.count]);
    for (int i = 0; i < 2; i++) {
      const double in = s.d[i], k = (&p.kernel_h)[i], step = (&p.stride_h)[i];
      const double reach = (k - 1) * (&p.dilation_h)[i], pad = std::max((&p.pad_h)[i], p.pad_h);
      s.d[i] = type == ZYN_OP_CONV_TRANSPOSED ? (in - 1) * step - 2 * pad + reach + 1
               : type == ZYN_OP_CONV_BN       ? (in - k + 2 * pad) / step + 1
                                              : (in - 1 + 2 * pad - reach) / step + 1;
    }
    s.d[2] = p.out_channels;
  });
  const double out = p.out_channels, taps = static_cast<double>(p.kernel_h) * p.kernel_w;
  const int32_t group_in = p.groups > 0 ? p.in_channels / p.groups : p.in_channels;
  constant(node, taps * out * group_in + (p.bias == 1 ? out : 0) +
                     (node.type == ZYN_OP_CONV_BN ? 4 * out : 0));
}

void Attack::add_window(Node& node, int32_t mode) {
  zyn_window_param p = {};
  p.mode = mode;
  p.kernel_x = small(1, 5), p.kernel_y = field(p.kernel_x);
  p.stride_x = small(1, 3), p.stride_y = field(p.stride_x);
  const bool gaps = mode == ZYN_RESAMPLE_MAX_WINDOW && in_.one_in(4);
  p.dilation_x = gaps ? small(1, 3) : field(1), p.dilation_y = field(p.dilation_x);
  const int32_t left = p.kernel_x / 2, top = p.kernel_y / 2;
  p.pad_left = field(left), p.pad_top = field(top);
  p.pad_right = field(p.pad_left), p.pad_bottom = field(p.pad_top);
  p.ceil_mode = small(0, 1), p.count_pad = small(0, 1);
  record(node, p, [p](Shape& s) {
    for (int i = 0; i < 2; i++) {
      const double reach = ((&p.kernel_x)[i] - 1.0) * (&p.dilation_x)[i] + 1;
      const double span = s.d[i] + (&p.pad_left)[i] + (&p.pad_right)[i] - reach;
      s.d[i] = std::max(span, 0.0) / std::max((&p.stride_x)[i], 1) + 2;
    }
  });
}

void Attack::add_move(Node& node, const Shape& in, int32_t move) {
  if (move == ZYN_MOVE_PERMUTE) {
    zyn_permute_param p = {move, {0, 1, 2, 3, 4}};
    for (int32_t i = 1; i < std::min(in.count, 5); i++)
      std::swap(p.order[i], p.order[in_.byte() % static_cast<uint32_t>(i + 1)]);
    if (in_.one_in(16)) p.order[in_.byte() % 5] = in_.extreme();
    record(node, p, [p](Shape& s) {
      const Shape from = s;
      for (int i = 0; i < s.count; i++)
        s.d[i] = p.order[i] >= 0 && p.order[i] < s.count ? from.d[p.order[i]] : 1;
    });
  } else if (move == ZYN_MOVE_PAD) {
    zyn_pad_param p = {move, small(0, 2), {}, {}, in_.real()};
    for (int32_t i = 0; i < 5; i++) p.before[i] = small(-1, 2), p.after[i] = small(-1, 2);
    record(node, p, [p](Shape& s) {
      for (int i = 0; i < s.count; i++) s.d[i] += 0.0 + p.before[i] + p.after[i];
    });
  } else if (move == ZYN_MOVE_SHUFFLE) {
    record(node, zyn_shuffle_param{move, field(in_.one_in(2) ? in.d[2] : 1)});
  } else {
    const int32_t axis = small(0, 2), step = small(-2, 2);
    const double extent = axis >= 0 && axis < in.count ? in.d[axis] : 1;
    const zyn_part_param p = {move, axis, field(step < 0 ? extent - 1 : 0),
                              field(extent / std::max(std::abs(static_cast<double>(step)), 1.0)),
                              step};
    record(node, p);  // never more than the input
  }
}

// Types 30 and 35 by other records than those of zyncore.h.
void Attack::add_further(Node& node, const Shape& in) {
  if (node.type == ZYN_OP_CHANNEL_GATHER)
    return add_move(node, in, ZYN_MOVE_PART + static_cast<int32_t>(in_.byte() % 4));
  const int32_t mode = ZYN_RESAMPLE_MAX_WINDOW + static_cast<int32_t>(in_.byte() % 5);
  if (mode <= ZYN_RESAMPLE_AVERAGE_WINDOW) return add_window(node, mode);
  if (mode == ZYN_RESAMPLE_REDUCE)
    return record(
        node, zyn_reduce_param{mode, small(1, (2 << std::clamp(in.count, 0, 4)) - 1), small(0, 4)});
  const zyn_resize_param p = {mode,
                              small(1, 40),
                              small(1, 9),
                              small(0, 3),
                              small(0, 3),
                              in_.one_in(4) ? in_.real() : 0,
                              in_.one_in(4) ? in_.real() : 0};
  record(node, p, [p](Shape& s) { s.d[0] = p.width, s.d[1] = p.height; });
}

void Attack::add_operator(Node& node, int32_t from) {
  const Shape in = nodes_[static_cast<size_t>(from)].shape;
  const bool varies = node.type == ZYN_OP_RESAMPLE || node.type == ZYN_OP_CHANNEL_GATHER;
  if (varies && in_.byte() % 4 != 0) return add_further(node, in);
  const auto scaled = [](float h, float w) {
    return [h, w](Shape& s) {
      s.d[0] *= static_cast<double>(std::max(1.0f, h));
      s.d[1] *= static_cast<double>(std::max(1.0f, w));
    };
  };
  const auto half = [&] { return static_cast<float>(small(1, 6)) / 2; };
  if (node.type == ZYN_OP_FUNCTION) {
    zyn_func_param p = {small(0, ZYN_FUNC_ERF), in_.real(), in_.real()};
    // Axes and GELU's kinds are small whole numbers.
    if (in_.byte() % 8) p.a = std::round(within(0, p.a, 2));
    record(node, p);
    if (p.function == ZYN_FUNC_PRELU) constant(node, in_.one_in(4) ? 1 : in.d[2]);
  } else if (node.type == ZYN_OP_BATCH_NORM || node.type == ZYN_OP_BATCH_NORM_FAST) {
    record(node, zyn_bn_param{in_.real(), 0});
    constant(node, 4 * in.d[2]);
  } else if (node.type == ZYN_OP_MAX_POOL || node.type == ZYN_OP_AVERAGE_POOL) {
    const int32_t k = small(1, 4);
    record(node, zyn_pool_param{k, field(k), field(k), field(k), 0});
  } else if (node.type == ZYN_OP_LINEAR) {
    const zyn_linear_param p = {static_cast<uint32_t>(field(in.d[0])),
                                static_cast<uint32_t>(small(1, 20)),
                                static_cast<uint32_t>(small(0, 1))};
    const double out = p.out_features;
    record(node, p, [out](Shape& s) { s = {2, {out, s.d[1], 1, 1, 1}}; });
    constant(node, in.d[0] * out + (p.bias == 1 ? out : 0));
  } else if (node.type == ZYN_OP_RESAMPLE) {
    const zyn_resample_param p = {small(0, 2), half(), in_.real()};
    record(node, p, scaled(p.factor_h, p.factor_w));
  } else if (node.type == ZYN_OP_AFFINE && in_.byte() % 4) {
    // Another node, or a constant of one channel, row or column.
    record(node, zyn_join_param{small(ZYN_JOIN_MATMUL, ZYN_JOIN_ADD), small(0, 0)});
    const uint32_t other = in_.byte();
    if (other % 2)
      node.from.push_back(source());
    else
      constant(node, in.d[other / 2 % 3]);
  } else if (node.type == ZYN_OP_AFFINE) {
    const zyn_affine_param p = {half(), in_.real()};
    record(node, p, scaled(p.factor_h, p.factor_w));
    constant(node, 6);
  } else if (node.type == ZYN_OP_RESHAPE) {
    zyn_reshape_param p = {small(1, 4),
                           {field(in.d[1]), field(in.d[0]), field(in.d[2]), field(1), 1}};
    if (in_.one_in(4)) p.dims[in_.byte() % 5] = -1;
    record(node, p, [p](Shape& s) {
      const double all = s.bytes();
      s.count = std::clamp(p.count, 0, 5);
      for (int i = 0; i < s.count; i++) s.d[i] = p.dims[i] < 0 ? all : p.dims[i];
    });
  } else if (node.type == ZYN_OP_CONCAT) {
    node.list = {from};
    for (uint32_t more = in_.byte() % 3; more > 0; more--) {
      node.list.insert(node.list.begin(), source());
      node.from.push_back(node.list.front());
    }
    if (in_.one_in(16)) node.list[0] = in_.extreme();
    const auto size = static_cast<int32_t>(node.list.size());
    record(node, zyn_concat_param{small(0, 2), std::min(field(size), size), nullptr});
  } else if (node.type == ZYN_OP_CHANNEL_SLICE) {
    record(node, zyn_slice_param{0, small(1, 4), small(0, 2), small(0, 2), 0});
  } else if (node.type == ZYN_OP_CHANNEL_GATHER) {
    for (uint32_t n = in_.byte() % 8 + 1; n > 0; n--) node.list.push_back(small(0, 3));
    const auto size = static_cast<int32_t>(node.list.size());
    record(node, zyn_gather_param{size, nullptr}, [size](Shape& s) { s.d[2] = size; });
  } else if (node.type == ZYN_OP_ADD || node.type == ZYN_OP_MULTIPLY) {
    node.from.push_back(source());
  } else if (node.type > ZYN_OP_CHANNEL_GATHER) {
    node.record.resize(64);
  }
}

void Attack::add_node() {
  static constexpr int32_t kConvs[] = {3, 4, 5, 7, 8, 12, 13};
  static constexpr int32_t kOthers[] = {9,  10, 11, 15, 16, 20, 21, 22, 23, 24, 25, 27, 28,
                                        30, 31, 32, 33, 34, 35, 0,  27, 30, 31, 32, 33};
  const uint32_t b = in_.byte();
  if (nodes_.empty() || b % 32 == 31) {
    data_node(b == 255 ? ZYN_OP_DATA : ZYN_OP_INPUT, any_tensor());
    if (nodes_.size() > 1) return;
  }
  Node node;
  const bool conv = b % 3 == 0;
  node.type = b >= 248 ? in_.extreme() : conv ? kConvs[b / 3 % 7] : kOthers[b / 3 % 25];
  if (b >= 248) whole_ = false;
  const int32_t from = source();
  node.from.push_back(from);
  if (std::count(std::begin(kConvs), std::end(kConvs), node.type))
    add_conv(node, nodes_[static_cast<size_t>(from)].shape);
  else
    add_operator(node, from);
  if (in_.one_in(32)) node.from.push_back(source());
  if (in_.one_in(32)) node.record.clear();
  nodes_.push_back(node);
}

// The shape that a node's output may have, at most; wider than true where the rules leave
// the choice among several inputs.
Shape Attack::output_of(const Node& node) const {
  Shape shape;
  for (int32_t id : node.from) {
    if (id < 0 || static_cast<size_t>(id) >= nodes_.size()) continue;
    const Shape& in = nodes_[static_cast<size_t>(id)].shape;
    shape.count = std::max(shape.count, in.count);
    for (int i = 0; i < 5; i++)
      shape.d[i] =
          node.type == ZYN_OP_CONCAT ? shape.d[i] + in.d[i] : std::max(shape.d[i], in.d[i]);
  }
  if (node.grow && !node.record.empty()) node.grow(shape);
  return shape;
}

void Attack::expect_requests() {
  double bytes = 16.0 * (4096.0 + highest_);
  for (size_t pass = 0; pass < nodes_.size(); pass++)
    for (Node& node : nodes_)
      if (node.type < 0 || node.type > 2) node.shape = output_of(node);
  for (const Node& node : nodes_) bytes += node.shape.bytes();
  Memory::bound(bound_of(bytes));
}

void Attack::connect(bool wild) {
  const auto last = static_cast<int32_t>(nodes_.size()) - 1;
  for (int32_t id = 0; id <= last; id++)
    for (int32_t from : nodes_[static_cast<size_t>(id)].from)
      zyn_add_one_edge_into_computation_graph(graph_, from, id);
  for (uint32_t more = wild ? in_.byte() % 4 : 0; more > 0; more--) {
    const int32_t from = small(0, last), to = small(0, last);
    highest_ = std::max({highest_, from, to});
    if (to >= 0 && to <= last) nodes_[static_cast<size_t>(to)].from.push_back(from);
    expect_requests();
    zyn_add_one_edge_into_computation_graph(graph_, from, to);
  }
  expect_requests();
  const bool sorted = wild && in_.one_in(8) ? false : zyn_computation_graph_topo_sort(graph_) == 0;
  whole_ = whole_ && sorted;
  for (size_t id = 0; id < nodes_.size(); id++)
    if ((wild && in_.one_in(16)) || bind(id) != 0) whole_ = false;
  const uint32_t q = in_.byte();
  if (settings_.max_nodes < 1 || settings_.max_nodes > 4096 || q == 255) return;
  auto* list = static_cast<uint32_t*>(zyn_malloc(4 * int64_t{settings_.max_nodes}));
  if (!list) return;
  for (int32_t i = 0; i < settings_.max_nodes; i++) list[i] = q % 16;
  for (size_t i = 0; q >= 128 && i < nodes_.size() && i < static_cast<size_t>(settings_.max_nodes);
       i++)
    list[i] = static_cast<uint32_t>(small(0, 15));
  if (zyn_cg_set_ptr_q_list(graph_, list) != 0) zyn_free(list);
}

int32_t Attack::bind(size_t id) {
  Node& node = nodes_[id];
  zyn_cg_node_desc desc = {};
  desc.type = node.type;
  desc.data = node.tensor;
  // The list behind a record: where it is kept now.
  const int32_t* list = node.list.data();
  if (node.type == ZYN_OP_CONCAT && node.record.size() == sizeof(zyn_concat_param))
    memcpy(node.record.data() + offsetof(zyn_concat_param, nodes), &list, sizeof(list));
  if (node.type == ZYN_OP_CHANNEL_GATHER && !node.record.empty() && !node.list.empty())
    memcpy(node.record.data() + offsetof(zyn_gather_param, channels), &list, sizeof(list));
  return zyn_bind_operator_onto_computation_graph(
      graph_, static_cast<int32_t>(id), &desc, node.record.empty() ? nullptr : node.record.data());
}

// Every output is a whole record over a block that can be read.
void Attack::read_outputs() {
  static volatile uint32_t seen = 0;
  const auto n = static_cast<int32_t>(nodes_.size());
  for (int32_t id = -1; id <= n; id++) {
    const zyn_tensor* t = zyn_get_computation_node_inference_data(graph_, id);
    if (!t) continue;
    int64_t count = 1;
    for (int i = 0; i < t->dim_count; i++) count *= t->dims[i];
    check(t->dim_count >= 1 && t->dim_count <= 5 && t->count == count &&
              t->byte_size == count * t->element_size,
          "an output's record is whole");
    const auto* bytes = static_cast<const uint8_t*>(t->data);
    uint32_t sum = 0;
    for (int64_t i = 0; bytes && i < t->byte_size; i++) sum += bytes[i];
    seen = seen + sum;
  }
}

void Attack::step() {
  const uint32_t b = in_.byte();
  Node& node = nodes_[b / 8 % nodes_.size()];
  int32_t code = 0;
  switch (b % 8) {
    case 0:
    case 1:
      code = zyn_prepare_inference_computation(graph_);
      // Nodes without an operator are passed over.
      if (code != 0 && whole_)
        check(zyn_computation_graph_inference(graph_) != 0, "what was not prepared does not run");
      break;
    case 2:
    case 3:
      zyn_computation_graph_inference(graph_);
      break;
    case 4:
      fill(node.tensor);
      return;
    case 5: {
      if (!node.tensor) return;
      zyn_tensor* fresh = any_tensor();
      if (!fresh) return;
      std::swap(*node.tensor, *fresh);
      zyn_release_tensor(&fresh);
      node.shape = shape_of(node.tensor);
      expect_requests();
      return;
    }
    case 6:
      Memory::fail(b / 16 + 1, b & 8);
      return;
    default:
      zyn_computation_graph_topo_sort(graph_);
      bind(b / 8 % nodes_.size());
  }
  read_outputs();
  Memory::fail(0, false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool once = [] {
    ::testing::GTEST_FLAG(break_on_failure) = true;
    return true;
  }();
  (void)once;
  Input input(data, size);
  const uint32_t kind = input.byte();
  Memory memory(kind % 16 >= 14, int64_t{1} << 24, int64_t{1} << 22);
  if (kind & 1)
    Attack attack(input);
  else
    run_model(input);
  // A tensor whose data finds no memory loses its header on purpose.
  Memory::hand_back(sizeof(zyn_tensor));
  return 0;
}

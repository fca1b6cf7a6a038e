#include "support/model.h"

#include "support/reference.h"

namespace zyn_test {

int Model::root(int id) const { return steps_[id].in_place < 0 ? id : root(steps_[id].in_place); }

int Model::note(int id, int type, std::vector<int> from, Formula formula, int in_place) {
  std::vector<const Array*> inputs;
  for (int f : from) inputs.push_back(&shape(f));
  steps_.push_back({type, from, formula, in_place, formula(inputs), {}});
  return id;
}

int Model::add_data(int id, int type, const Array& a) {
  // What the library reads is rounded to float.
  const Array rounded = map(a, [](double v) { return static_cast<double>(static_cast<float>(v)); });
  steps_.push_back({type, {}, nullptr, -1, rounded, {}});
  return id;
}

int Model::input(const Array& given) {
  // Words that use some bits: the formulas know floats only, and nobody compares.
  const Array a = fixed_point_ ? map(given, [](double v) { return std::round(100 * v); }) : given;
  static constexpr uint32_t kCodes[3] = {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_INTERLEAVED,
                                         ZYN_LAYOUT_BLOCKED};
  const uint32_t code = layout < 0 ? kCodes[random.integer(0, 2)] : static_cast<uint32_t>(layout);
  return add_data(net.input(a, code), ZYN_OP_INPUT, a);
}

int Model::constant(const Array& a) { return add_data(net.constant(a), ZYN_OP_CONSTANT, a); }

int32_t Model::prepare() {
  const int32_t code = net.make();
  if (!code && fixed_point_) net.q_list(8);
  return code ? code : net.prepare();
}

std::vector<std::vector<double>> Model::outputs() {
  std::vector<std::vector<double>> values;
  for (int id = 0; id < size(); id++) values.push_back(net.output(id).v);
  return values;
}

void Model::refill() {
  for (int id = 0; id < size(); id++)
    if (steps_[id].type == ZYN_OP_INPUT) net.fill(id, shape(id));
}

// First in, first out, lower ids first: the order that the sort promises.
void Model::evaluate() {
  std::vector<int> open, ready;
  for (int id = 0; id < size(); id++) {
    open.push_back(static_cast<int>(steps_[id].from.size()));
    if (open[id] == 0) ready.push_back(id);
  }
  for (size_t k = 0; k < ready.size(); k++) {
    Step& step = steps_[ready[k]];
    if (!step.formula) step.value = step.shape;
    std::vector<const Array*> inputs;
    for (int f : step.from) inputs.push_back(&value(f));
    if (step.formula) steps_[root(ready[k])].value = step.formula(inputs);
    for (int to = 0; to < size(); to++)
      for (int f : steps_[to].from)
        if (f == ready[k] && --open[to] == 0) ready.push_back(to);
  }
}

void Model::check(double bound) {
  for (int id = 0; id < size(); id++)
    ASSERT_TRUE(agrees(net.output(id), value(id), bound))
        << "node " << id << " of type " << steps_[id].type;
}

std::vector<int> Model::any_dims(size_t dim_count) {
  // Around the vector and block sizes: 1 to 20, now and then longer rows.
  std::vector<int> dims;
  for (size_t d = 0; d < dim_count; d++)
    dims.push_back(random.integer(1, (d == 2 ? 21 : 18) / (small ? 2 : 1)));
  if (!small && random.integer(0, 9) == 0) dims[0] = random.integer(30, 70);
  return dims;
}

// An earlier node of a dimension count, or an input made for it.
int Model::pick(size_t dim_count, int largest) {
  if (small) largest = 500;
  for (int tries = 0; tries < 6 && size() > 0; tries++) {
    const int id = random.integer(std::max(0, size() - 12), size() - 1);
    if (steps_[id].type == ZYN_OP_CONSTANT) continue;
    const Array& a = shape(id);
    if (a.dims.size() == dim_count && a.v.size() <= static_cast<size_t>(largest)) return id;
  }
  return input(random_array(random, any_dims(dim_count)));
}

// Another node with the given shape, or an input made for it.
int Model::same_shape(int id, std::vector<int> dims) {
  for (int k = 0; k < size(); k++)
    if (k != id && shape(k).dims == dims && steps_[k].type != ZYN_OP_CONSTANT &&
        random.integer(0, 1))
      return k;
  return input(random_array(random, dims));
}

// Weights of outputs that sum so many taps, and more values for each output.
Array Model::small_weights(int taps, int outputs, int more) {
  const float scale = 1 / std::sqrt(static_cast<float>(taps));
  return random_array(random, {(taps + more) * outputs}, -scale, scale);
}

int Model::add_function(int type) {
  static constexpr int kGentle[] = {ZYN_FUNC_ABS,  ZYN_FUNC_NEGATE,      ZYN_FUNC_TANH,
                                    ZYN_FUNC_CLIP, ZYN_FUNC_SCALE_SHIFT, ZYN_FUNC_HARD_SIGMOID,
                                    ZYN_FUNC_SILU, ZYN_FUNC_SOFTMAX,     ZYN_FUNC_SIGMOID,
                                    ZYN_FUNC_PRELU};
  int function = kGentle[random.integer(0, static_cast<int>(std::size(kGentle)) - 1)];
  if (!gentle_) function = random.integer(0, 24);
  if (!gentle_ && function > ZYN_FUNC_SCALE_SHIFT)
    function += ZYN_FUNC_LEAKY_RELU - ZYN_FUNC_SCALE_SHIFT - 1;
  zyn_func_param p = {function, 0, 0};
  p.a = random.real(-1.5f, 1.5f);
  p.b = p.a + random.real(0, 2);
  const bool positive = p.function == ZYN_FUNC_SQRT || p.function == ZYN_FUNC_LOG ||
                        p.function == ZYN_FUNC_RECIPROCAL || p.function == ZYN_FUNC_POWER;
  const int in = positive ? input(random_array(random, any_dims(3), 0.1f, 4)) : pick(3);
  if (p.function == ZYN_FUNC_GELU) p.a = static_cast<float>(random.integer(0, 1));
  if (p.function >= ZYN_FUNC_SOFTMAX && p.function <= ZYN_FUNC_L2_NORM)
    p.a = static_cast<float>(random.integer(0, 2)), p.b = random.real(0.1f, 2);
  if (p.function == ZYN_FUNC_PRELU) {
    const int k = constant(random_array(random, {random.integer(0, 3) ? shape(in).c() : 1}));
    return op(type, p, {k, in}, [](Inputs a) { return reference_prelu(*a[1], *a[0]); });
  }
  return op(type, p, {in}, [p](Inputs a) { return reference_function(*a[0], p); });
}

int Model::add_activation(int type) {
  const int in = pick(3);
  const auto f = [type](Inputs a) { return reference_activation(*a[0], type); };
  return note(net.op(type, {in}), type, {in}, f, in);
}

int Model::add_join(int type) {
  int a = pick(3);
  const std::vector<int> dims = shape(a).dims;
  const int form = random.integer(0, 3);
  std::vector<int> other = dims;
  if (form >= 2) other = {1, 1, dims[2]};
  if (form == 1 && type == ZYN_OP_ADD) other = {dims[1] * dims[0], dims[2]};
  // A one-pixel a takes b's shape, and is refused when that is another.
  if (type == ZYN_OP_ADD && dims[0] == 1 && dims[1] == 1) other = dims;
  int b = same_shape(a, other);
  if (type == ZYN_OP_MULTIPLY && form == 3) std::swap(a, b);
  const auto f = [type](Inputs in) {
    return type == ZYN_OP_ADD ? reference_add(*in[0], *in[1]) : reference_multiply(*in[0], *in[1]);
  };
  return note(net.op(type, {a, b}), type, {a, b}, f, -1);
}

int Model::add_norm(int type) {
  const int in = pick(3);
  const int c = shape(in).c();
  Array stats = random_array(random, {4 * c}, -1, 1);
  for (int i = 0; i < c; i++) {
    stats.v[i] += 1.2;
    stats.v[3 * c + i] = std::fabs(stats.v[3 * c + i]) + 0.4;  // variances
  }
  const zyn_bn_param p = {random.real(0, 0.01f), 77};
  return op(type, p, {in, constant(stats)},
            [p](Inputs a) { return reference_norm(*a[0], *a[1], p); });
}

int Model::add_pool(int type) {
  const int in = pick(random.integer(0, 9) ? 3 : 2);
  const Array& a = shape(in);
  zyn_pool_param p = {random.integer(1, 4), 0, 0, 0, 0};
  p.kernel_w = random.integer(0, 3) ? p.kernel_h : random.integer(1, 4);
  p.stride_h = random.integer(0, 3) ? p.kernel_h : random.integer(1, 4);
  p.stride_w = random.integer(0, 3) ? p.kernel_w : random.integer(1, 4);
  if (a.w() < p.kernel_h || a.h() < p.kernel_w) p = {1, 1, 1, 1, 0};
  const bool max = type == ZYN_OP_MAX_POOL;
  return op(type, p, {in}, [=](Inputs x) { return reference_pool(*x[0], p, max); });
}

int Model::add_linear(int type) {
  const int in = pick(2);
  const Array& a = shape(in);
  const zyn_linear_param p = {static_cast<uint32_t>(a.w()),
                              static_cast<uint32_t>(random.integer(1, 40)),
                              static_cast<uint32_t>(random.integer(0, 2))};
  const int k = constant(small_weights(a.w(), static_cast<int>(p.out_features), 1));
  return op(type, p, {k, in}, [p](Inputs x) { return reference_linear(*x[1], *x[0], p); });
}

int Model::add_resample(int type) {
  const int in = pick(3, 1200);
  static constexpr float kFactors[7] = {0.5f, 1, 2, 3, 1.5f, 0.37f, 1.27f};
  zyn_resample_param p = {random.integer(0, 2), kFactors[random.integer(0, 6)],
                          kFactors[random.integer(0, 6)]};
  const Array& a = shape(in);
  if (static_cast<float>(a.w()) * p.factor_h < 1) p.factor_h = 1;
  if (static_cast<float>(a.h()) * p.factor_w < 1) p.factor_w = 1;
  return op(type, p, {in}, [p](Inputs x) { return reference_resample(*x[0], p); });
}

// Operands of up to five extents, each now and then 1 in one of them; matrices multiplied.
int Model::add_further_join(int type) {
  int operation = random.integer(ZYN_JOIN_MATMUL, ZYN_JOIN_ADD);
  if (gentle_ && (operation == ZYN_JOIN_POWER || operation == ZYN_JOIN_DIVIDE))
    operation = ZYN_JOIN_MAX;
  const bool positive = operation == ZYN_JOIN_POWER || operation == ZYN_JOIN_DIVIDE;
  int a = positive ? input(random_array(random, any_dims(3), 0.5f, 2))
                   : pick(static_cast<size_t>(random.integer(2, 3)));
  std::vector<int> dims = shape(a).dims, other = dims;
  if (operation == ZYN_JOIN_MATMUL) {
    other[0] = random.integer(0, 2) ? random.integer(1, 40) : 1;
    other[1] = dims[0];
  }
  for (size_t d = operation == ZYN_JOIN_MATMUL ? 2 : 0; d < other.size(); d++)
    if (random.integer(0, 2) == 0) other[d] = 1;
  while (!gentle_ && other.size() < 5 && random.integer(0, 2) == 0)
    other.push_back(random.integer(1, 3));
  // Sums of products grow with their terms.
  const float most = operation == ZYN_JOIN_MATMUL ? 1 / std::sqrt(static_cast<float>(dims[0])) : 2;
  const Array values = random_array(random, other, positive ? 0.5f : -most, most);
  int b = random.integer(0, 1) ? constant(values) : input(values);
  if (operation != ZYN_JOIN_MATMUL && random.integer(0, 1)) std::swap(a, b);
  const zyn_join_param p = {operation, 0};
  return op(type, p, {a, b},
            [operation](Inputs x) { return reference_further_join(*x[0], *x[1], operation); });
}

int Model::add_affine(int type) {
  if (random.integer(0, 2)) return add_further_join(type);
  const int in = pick(3, 1200);
  const Array& a = shape(in);
  Array m = random_array(random, {6}, -1, 1);
  m.v[0] += 1, m.v[4] += 1;
  m.v[2] *= a.w(), m.v[5] *= a.h();
  const zyn_affine_param p = {random.real(1, 1.6f), random.real(1, 1.6f)};
  const int k = random.integer(0, 1) ? constant(m) : input(m);
  return op(type, p, {in, k}, [p](Inputs x) { return reference_affine(*x[0], *x[1], p); });
}

int Model::add_reshape(int type) {
  const int in = pick(random.integer(2, 3));
  const int count = static_cast<int>(shape(in).v.size());
  int part = random.integer(1, 12);
  while (count % part) part--;
  std::vector<int> dims = {count / part, part};
  if (random.integer(0, 1)) {
    int rows = random.integer(1, 9);
    while (dims[0] % rows) rows--;
    dims = {dims[0] / rows, rows, part};
  }
  zyn_reshape_param p = {static_cast<int32_t>(dims.size()), {}};
  std::copy(dims.begin(), dims.end(), p.dims);
  if (random.integer(0, 1)) p.dims[random.integer(0, p.count - 1)] = -1;
  return op(type, p, {in}, [dims](Inputs x) { return reference_reshape(*x[0], dims); });
}

int Model::add_concat(int type) {
  const int axis = random.integer(0, 2);
  const int first = pick(3);
  std::vector<int> order = {first};
  for (int k = random.integer(0, 3); k > 0; k--) {
    std::vector<int> dims = shape(first).dims;
    if (random.integer(0, 2)) dims[axis] = random.integer(1, 9);
    order.push_back(random.integer(0, 5) ? same_shape(-1, dims) : first);
  }
  // Edges in another order than the list's.
  std::vector<int> from = order;
  for (size_t i = from.size() - 1; i > 0; i--)
    std::swap(from[i], from[random.integer(0, static_cast<int>(i))]);
  lists_.emplace_back(order.begin(), order.end());
  const zyn_concat_param p = {axis, static_cast<int32_t>(order.size()), lists_.back().data()};
  std::vector<size_t> places;
  for (int id : order) places.push_back(std::find(from.begin(), from.end(), id) - from.begin());
  return op(type, p, from, [=](Inputs x) {
    std::vector<const Array*> listed;
    for (size_t place : places) listed.push_back(x[place]);
    return reference_concat(listed, axis);
  });
}

int Model::add_channels(int type) {
  const int in = pick(3);
  const int c = shape(in).c();
  lists_.emplace_back();
  std::vector<int32_t>& channels = lists_.back();
  const auto add = [&](const auto& record) {
    return op(type, record, {in},
              [channels](Inputs a) { return reference_channels(*a[0], channels); });
  };
  if (type == ZYN_OP_CHANNEL_GATHER) {
    for (int k = random.integer(1, 2 * c); k > 0; k--) channels.push_back(random.integer(0, c - 1));
    return add(zyn_gather_param{static_cast<int32_t>(channels.size()), channels.data()});
  }
  zyn_slice_param p = {-5, random.integer(1, c), 0, 0, 99};
  const int taken = c / p.parts;
  p.step = random.integer(0, taken > 1 ? (c - 1) / (taken - 1) : 1);
  p.first = random.integer(0, c - 1 - p.step * (taken - 1));
  for (int k = 0; k < taken; k++) channels.push_back(p.first + k * p.step);
  return add(p);
}

int Model::add_conv(int type) {
  const int in = pick(3, 1500);
  const Array& a = shape(in);
  const bool transposed = type == ZYN_OP_CONV_TRANSPOSED;
  zyn_conv_param p = {};
  p.in_channels = a.c();
  p.groups = random.integer(1, a.c());
  while (a.c() % p.groups) p.groups--;
  p.out_channels = p.groups * random.integer(1, std::max(1, 9 / p.groups));
  for (int i = 0; i < 2; i++) (&p.kernel_h)[i] = random.integer(1, 4);
  for (int i = 0; i < 2; i++) (&p.stride_h)[i] = random.integer(1, 3);
  for (int i = 0; i < 2; i++) (&p.pad_h)[i] = random.integer(0, 2);
  p.dilation_h = random.integer(1, 3);
  p.dilation_w = random.integer(1, 2);
  p.bias = random.integer(0, 2);
  const int reach_h = (p.kernel_h - 1) * p.dilation_h, reach_w = (p.kernel_w - 1) * p.dilation_w;
  const bool fits = transposed
                        ? (a.w() - 1) * p.stride_h + reach_h >= 2 * p.pad_h &&
                              (a.h() - 1) * p.stride_w + reach_w >= 2 * p.pad_w
                        : a.w() - 1 + 2 * p.pad_h >= reach_h && a.h() - 1 + 2 * p.pad_w >= reach_w;
  if (!fits) return -1;
  const int taps = p.kernel_h * p.kernel_w * p.in_channels / p.groups;
  const int k = constant(small_weights(taps, p.out_channels, 1));
  return op(type, p, {in, k},
            [=](Inputs x) { return reference_conv(*x[0], *x[1], p, transposed); });
}

// Shapes that every method has a kernel for: square, padded to keep the size.
int Model::add_method_conv(int type) {
  const int in = pick(3, 1500);
  const int c = shape(in).c();
  const bool bn = type == ZYN_OP_CONV_BN;
  const bool fused = bn || type == ZYN_OP_CONV_ACT;
  int form = fused ? random.integer(0, 2) : 2;  // 2: one pixel
  if (type <= ZYN_OP_CONV_DEPTHWISE) form = type - ZYN_OP_CONV;
  const int kernel = form == 2 ? 1 : method_ == 1 ? 3 : 2 * random.integer(1, 2) + 1;
  const int stride = form == 2 ? 1 : random.integer(1, 2);
  zyn_conv_param p = conv_param(c, form == 1 ? c : random.integer(1, 20), kernel, stride,
                                kernel / 2, form == 1 ? c : 1);
  p.bias = random.integer(0, 2);
  const int taps = kernel * kernel * c / p.groups;
  Array values = small_weights(taps, p.out_channels, (p.bias == 1 ? 1 : 0) + (bn ? 4 : 0));
  double* end = values.v.data() + values.v.size();
  for (int i = 0; bn && i < p.out_channels; i++) {
    end[-1 - i] = static_cast<double>(random.real(0.4f, 2));
    end[i - 4 * p.out_channels] = static_cast<double>(random.real(0.5f, 1.5f));
  }
  p.activation = p.word14.activation = random.integer(0, 4);
  if (bn) p.word14.epsilon = random.integer(0, 1) ? 0.01f : 0.0f;
  const bool hard_sigmoid = method_ == 2;
  return op(type, p, {in, constant(values)}, [=](Inputs a) {
    if (bn) return reference_conv_bn(*a[0], *a[1], p, hard_sigmoid);
    return fused ? reference_conv_act(*a[0], *a[1], p) : reference_conv(*a[0], *a[1], p);
  });
}

void Model::use_leftovers() {
  std::vector<bool> used(static_cast<size_t>(size()), false);
  for (const Step& step : steps_)
    for (int f : step.from) used[f] = true;
  const zyn_func_param p = {ZYN_FUNC_NEGATE, 0, 0};
  for (int id = 0; id < static_cast<int>(used.size()); id++)
    if (!used[id] && !steps_[id].formula)
      op(ZYN_OP_FUNCTION, p, {id}, [p](Inputs a) { return reference_function(*a[0], p); });
}

int Model::add(int type, bool gentle) {
  gentle_ = gentle;
  // By the last type of each range.
  static constexpr struct {
    int last;
    int (Model::*add)(int);
  } kAdders[] = {
      {5, &Model::add_method_conv}, {8, &Model::add_conv},         {9, &Model::add_function},
      {11, &Model::add_norm},       {13, &Model::add_method_conv}, {21, &Model::add_activation},
      {23, &Model::add_pool},       {24, &Model::add_activation},  {25, &Model::add_linear},
      {28, &Model::add_join},       {30, &Model::add_resample},    {31, &Model::add_affine},
      {32, &Model::add_reshape},    {33, &Model::add_concat},      {35, &Model::add_channels}};
  const auto* adder = kAdders;
  while (adder->last < type) adder++;
  return (this->*adder->add)(type);
}

}  // namespace zyn_test

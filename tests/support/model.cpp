#include "support/model.h"

#include <map>
#include <queue>

#include "support/reference.h"

namespace zyn_test {

size_t Model::root(int id) const {
  while (steps_[id].in_place >= 0) id = steps_[id].in_place;
  return static_cast<size_t>(id);
}

int Model::note(int id, int type, std::vector<int> from, Formula formula, int in_place) {
  std::vector<const Array*> inputs;
  for (int f : from) inputs.push_back(&shapes_[f]);
  shapes_.push_back(formula(inputs));
  data_.emplace_back();
  steps_.push_back({from, formula, in_place});
  types_.push_back(type);
  return id;
}

int Model::add_data(int id, int type, const Array& a) {
  // What the library reads is rounded to float.
  shapes_.push_back(map(a, [](double v) { return static_cast<double>(static_cast<float>(v)); }));
  data_.push_back(shapes_.back());
  steps_.push_back({{}, nullptr, -1});
  types_.push_back(type);
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
    if (types_[id] == ZYN_OP_INPUT) net.fill(id, data_[id]);
}

// First in, first out, lower ids first: the order that the sort promises.
void Model::evaluate() {
  const size_t n = steps_.size();
  values_ = data_;
  std::vector<int> open(n, 0);
  std::vector<std::vector<size_t>> next(n);
  for (size_t id = 0; id < n; id++)
    for (int f : steps_[id].from) {
      next[f].push_back(id);
      open[id]++;
    }
  std::queue<size_t> ready;
  for (size_t id = 0; id < n; id++)
    if (!open[id]) ready.push(id);
  for (; !ready.empty(); ready.pop()) {
    const size_t id = ready.front();
    const Step& step = steps_[id];
    if (step.formula) {
      std::vector<const Array*> inputs;
      for (int f : step.from) inputs.push_back(&values_[root(f)]);
      Array result = step.formula(inputs);
      values_[root(static_cast<int>(id))] = result;
    }
    for (size_t to : next[id])
      if (--open[to] == 0) ready.push(to);
  }
}

void Model::check(double bound) {
  for (int id = 0; id < size(); id++)
    ASSERT_TRUE(agrees(net.output(id), value(id), bound))
        << "node " << id << " of type " << types_[id];
}

std::vector<int> Model::any_dims(size_t dim_count) {
  // Around the vector and block sizes: 1 to 20, now and then longer rows.
  std::vector<int> dims;
  for (size_t d = 0; d < dim_count; d++) dims.push_back(random.integer(1, (d == 2 ? 21 : 18) / (small ? 2 : 1)));
  if (!small && random.integer(0, 9) == 0) dims[0] = random.integer(30, 70);
  return dims;
}

// An earlier node of a dimension count, or an input made for it.
int Model::pick(size_t dim_count, int largest) {
  if (small) largest = 500;
  for (int tries = 0; tries < 6 && size() > 0; tries++) {
    const int id = random.integer(std::max(0, size() - 12), size() - 1);
    if (types_[id] == ZYN_OP_CONSTANT) continue;
    const Array& a = shape(id);
    if (a.dims.size() == dim_count && a.v.size() <= static_cast<size_t>(largest)) return id;
  }
  return input(random_array(random, any_dims(dim_count)));
}

// Another node with the given shape, or an input made for it.
int Model::same_shape(int id, std::vector<int> dims) {
  for (int k = 0; k < size(); k++)
    if (k != id && shape(k).dims == dims && types_[k] != ZYN_OP_CONSTANT && random.integer(0, 1))
      return k;
  return input(random_array(random, dims));
}

int Model::add_function(bool gentle) {
  static constexpr int kGentle[6] = {ZYN_FUNC_ABS,  ZYN_FUNC_NEGATE,      ZYN_FUNC_TANH,
                                     ZYN_FUNC_CLIP, ZYN_FUNC_SCALE_SHIFT, ZYN_FUNC_NEGATE};
  zyn_func_param p = {gentle ? kGentle[random.integer(0, 5)] : random.integer(0, 10), 0, 0};
  p.a = random.real(-1.5f, 1.5f);
  p.b = p.a + random.real(0, 2);
  const bool positive = p.function == ZYN_FUNC_SQRT || p.function == ZYN_FUNC_LOG ||
                        p.function == ZYN_FUNC_RECIPROCAL || p.function == ZYN_FUNC_POWER;
  const int in = positive ? input(random_array(random, any_dims(3), 0.1f, 4)) : pick(3);
  return op(ZYN_OP_FUNCTION, p, {in}, [p](Inputs a) { return reference_function(*a[0], p); });
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
    double& variance = stats.v[3 * c + i];
    variance = std::fabs(variance) + 0.4;
  }
  const zyn_bn_param p = {random.real(0, 0.01f), 77};
  const int k = constant(stats);
  return op(type, p, {in, k}, [p](Inputs a) { return reference_norm(*a[0], *a[1], p); });
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
  return op(type, p, {in}, [=](Inputs arrays) { return reference_pool(*arrays[0], p, max); });
}

int Model::add_linear(int type) {
  const int in = pick(2);
  const Array& a = shape(in);
  const zyn_linear_param p = {static_cast<uint32_t>(a.w()),
                              static_cast<uint32_t>(random.integer(1, 40)),
                              static_cast<uint32_t>(random.integer(0, 2))};
  const float scale = 1 / std::sqrt(static_cast<float>(a.w()));
  const int k = constant(random_array(
      random, {a.w() * static_cast<int>(p.out_features) + static_cast<int>(p.out_features)}, -scale,
      scale));
  return op(type, p, {k, in},
            [p](Inputs arrays) { return reference_linear(*arrays[1], *arrays[0], p); });
}

int Model::add_resample(int type) {
  const int in = pick(3, 1200);
  static constexpr float kFactors[7] = {0.5f, 1, 2, 3, 1.5f, 0.37f, 1.27f};
  zyn_resample_param p = {random.integer(0, 2), kFactors[random.integer(0, 6)],
                          kFactors[random.integer(0, 6)]};
  const Array& a = shape(in);
  if (static_cast<float>(a.w()) * p.factor_h < 1) p.factor_h = 1;
  if (static_cast<float>(a.h()) * p.factor_w < 1) p.factor_w = 1;
  return op(type, p, {in}, [p](Inputs arrays) { return reference_resample(*arrays[0], p); });
}

int Model::add_affine(int type) {
  const int in = pick(3, 1200);
  const Array& a = shape(in);
  Array m = random_array(random, {6}, -1, 1);
  m.v[0] += 1;
  m.v[4] += 1;
  m.v[2] *= a.w();
  m.v[5] *= a.h();
  const zyn_affine_param p = {random.real(1, 1.6f), random.real(1, 1.6f)};
  const int k = random.integer(0, 1) ? constant(m) : input(m);
  return op(type, p, {in, k},
            [p](Inputs arrays) { return reference_affine(*arrays[0], *arrays[1], p); });
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
  return op(type, p, {in}, [dims](Inputs arrays) { return reference_reshape(*arrays[0], dims); });
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
  return op(type, p, from, [=](Inputs arrays) {
    std::vector<const Array*> listed;
    for (size_t place : places) listed.push_back(arrays[place]);
    return reference_concat(listed, axis);
  });
}

int Model::add_channels(int type) {
  const int in = pick(3);
  const int c = shape(in).c();
  std::vector<int> channels;
  if (type == ZYN_OP_CHANNEL_GATHER) {
    for (int k = random.integer(1, 2 * c); k > 0; k--) channels.push_back(random.integer(0, c - 1));
    lists_.emplace_back(channels.begin(), channels.end());
    const zyn_gather_param p = {static_cast<int32_t>(channels.size()), lists_.back().data()};
    return op(type, p, {in}, [channels](Inputs a) { return reference_channels(*a[0], channels); });
  }
  zyn_slice_param p = {-5, random.integer(1, c), 0, 0, 99};
  const int taken = c / p.parts;
  const int step = taken > 1 ? (c - 1) / (taken - 1) : 1;
  p.step = random.integer(0, step);
  p.first = random.integer(0, c - 1 - p.step * (taken - 1));
  for (int k = 0; k < taken; k++) channels.push_back(p.first + k * p.step);
  return op(type, p, {in}, [channels](Inputs a) { return reference_channels(*a[0], channels); });
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
  p.kernel_h = random.integer(1, 4);
  p.kernel_w = random.integer(1, 4);
  p.stride_h = random.integer(1, 3);
  p.stride_w = random.integer(1, 3);
  p.pad_h = random.integer(0, 2);
  p.pad_w = random.integer(0, 2);
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
  const float scale = 1 / std::sqrt(static_cast<float>(taps));
  const int k =
      constant(random_array(random, {taps * p.out_channels + p.out_channels}, -scale, scale));
  return op(type, p, {in, k},
            [=](Inputs arrays) { return reference_conv(*arrays[0], *arrays[1], p, transposed); });
}

// Shapes that every method has a kernel for: square, padded to keep the size.
int Model::add_method_conv(int type) {
  const int in = pick(3, 1500);
  const int c = shape(in).c();
  const bool bn = type == ZYN_OP_CONV_BN;
  const bool fused = bn || type == ZYN_OP_CONV_ACT;
  const int form = type == ZYN_OP_CONV             ? 0
                   : type == ZYN_OP_CONV_DEPTHWISE ? 1
                   : fused                         ? random.integer(0, 2)
                                                   : 2;
  const int kernel = form == 2 ? 1 : method_ == 1 ? 3 : 2 * random.integer(1, 2) + 1;
  const int stride = form == 2 ? 1 : random.integer(1, 2);
  zyn_conv_param p = conv_param(c, form == 1 ? c : random.integer(1, 20), kernel, stride,
                                kernel / 2, form == 1 ? c : 1);
  p.bias = random.integer(0, 2);
  const int taps = kernel * kernel * c / p.groups;
  const int stats = bn ? 4 * p.out_channels : 0;
  const int bias = p.bias == 1 ? p.out_channels : 0;
  const float scale = 1 / std::sqrt(static_cast<float>(taps));
  Array values = random_array(random, {taps * p.out_channels + bias + stats}, -scale, scale);
  for (size_t i = 0; bn && i < static_cast<size_t>(p.out_channels); i++) {
    values.v[values.v.size() - 1 - i] = static_cast<double>(random.real(0.4f, 2));
    values.v[values.v.size() - static_cast<size_t>(stats) + i] =
        static_cast<double>(random.real(0.5f, 1.5f));
  }
  const int code = random.integer(0, 4);
  if (bn) {
    p.word14.epsilon = random.integer(0, 1) ? 0.01f : 0.0f;
    p.activation = code;
  } else {
    p.word14.activation = code;
  }
  const bool hard_sigmoid = method_ == 2;
  const int k = constant(values);
  return op(type, p, {in, k}, [=](Inputs a) {
    return bn      ? reference_conv_bn(*a[0], *a[1], p, hard_sigmoid)
           : fused ? reference_conv_act(*a[0], *a[1], p)
                   : reference_conv(*a[0], *a[1], p);
  });
}

void Model::use_leftovers() {
  std::vector<bool> used(static_cast<size_t>(size()), false);
  for (const Step& step : steps_)
    for (int f : step.from) used[f] = true;
  const zyn_func_param p = {ZYN_FUNC_NEGATE, 0, 0};
  for (size_t id = 0; id < used.size(); id++)
    if (!used[id] && !steps_[id].formula)
      op(ZYN_OP_FUNCTION, p, {static_cast<int>(id)},
         [p](Inputs a) { return reference_function(*a[0], p); });
}

int Model::add(int type, bool gentle) {
  if (type == ZYN_OP_FUNCTION) return add_function(gentle);
  static const std::map<int, int (Model::*)(int)> kAdders = {
      {ZYN_OP_CONV_GROUPED, &Model::add_conv},
      {ZYN_OP_CONV_TRANSPOSED, &Model::add_conv},
      {ZYN_OP_CONV, &Model::add_method_conv},
      {ZYN_OP_CONV_DEPTHWISE, &Model::add_method_conv},
      {ZYN_OP_CONV_POINTWISE, &Model::add_method_conv},
      {ZYN_OP_CONV_ACT, &Model::add_method_conv},
      {ZYN_OP_CONV_BN, &Model::add_method_conv},
      {ZYN_OP_BATCH_NORM, &Model::add_norm},
      {ZYN_OP_BATCH_NORM_FAST, &Model::add_norm},
      {ZYN_OP_MAX_POOL, &Model::add_pool},
      {ZYN_OP_AVERAGE_POOL, &Model::add_pool},
      {ZYN_OP_LINEAR, &Model::add_linear},
      {ZYN_OP_ADD, &Model::add_join},
      {ZYN_OP_MULTIPLY, &Model::add_join},
      {ZYN_OP_RESAMPLE, &Model::add_resample},
      {ZYN_OP_AFFINE, &Model::add_affine},
      {ZYN_OP_RESHAPE, &Model::add_reshape},
      {ZYN_OP_CONCAT, &Model::add_concat},
      {ZYN_OP_CHANNEL_SLICE, &Model::add_channels},
      {ZYN_OP_CHANNEL_GATHER, &Model::add_channels}};
  const auto adder = kAdders.find(type);
  return adder == kAdders.end() ? add_activation(type) : (this->*adder->second)(type);
}

}  // namespace zyn_test

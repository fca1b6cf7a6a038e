// The operators' formulas in double precision, element by element: the independent
// evaluation that tests of operators and whole graphs compare with.
#pragma once

#include <functional>

#include "support/net.h"

namespace zyn_test {

template <typename Function>
Array map(const Array& a, Function f) {
  Array out = a;
  for (double& v : out.v) v = f(v);
  return out;
}

// Softmax, its logarithm and division by the length, along axis a.
inline Array reference_axis_function(const Array& in, const zyn_func_param& p) {
  Array out = in;
  const auto axis = static_cast<size_t>(p.a);
  size_t step = 1;
  for (size_t d = 0; d < axis; d++) step *= static_cast<size_t>(in.dims[d]);
  const size_t block = step * static_cast<size_t>(in.dims[axis]);
  for (size_t i = 0; i < in.v.size() / block * step; i++) {
    const size_t first = i / step * block + i % step, end = first + block;
    double most = in.v[first], sum = 0;
    for (size_t k = first; k < end; k += step) most = std::max(most, in.v[k]);
    for (size_t k = first; k < end; k += step)
      sum += p.function == ZYN_FUNC_L2_NORM ? in.v[k] * in.v[k] : std::exp(in.v[k] - most);
    for (size_t k = first; k < end; k += step)
      out.v[k] = p.function == ZYN_FUNC_SOFTMAX ? std::exp(in.v[k] - most) / sum
                 : p.function == ZYN_FUNC_LOG_SOFTMAX
                     ? in.v[k] - most - std::log(sum)
                     : in.v[k] / std::max(std::sqrt(sum), static_cast<double>(p.b));
  }
  return out;
}

inline Array reference_prelu(const Array& in, const Array& slopes) {
  Array out = in;
  const int count = static_cast<int>(slopes.v.size());
  for_each_element(in, [&](int x, int y, int z) {
    out.at(x, y, z) *= in.at(x, y, z) < 0 ? slopes.v[static_cast<size_t>(z % in.c() % count)] : 1;
  });
  return out;
}

inline Array reference_function(const Array& in, const zyn_func_param& p) {
  if (p.function >= ZYN_FUNC_SOFTMAX && p.function <= ZYN_FUNC_L2_NORM)
    return reference_axis_function(in, p);
  return map(in, [&](double x) {
    const double a = static_cast<double>(p.a), b = static_cast<double>(p.b);
    const double root = std::sqrt(2 / std::acos(-1.0)),
                 softplus = x > 700 ? x : std::log1p(std::exp(x));
    const double phi =
        a == 0 ? std::erf(x / std::sqrt(2.0)) : std::tanh(root * (x + 0.044715 * x * x * x));
    const double each[] = {std::fabs(x),
                           -x,
                           x * x,
                           std::sqrt(x),
                           1 / x,
                           std::exp(x),
                           std::log(x),
                           std::tanh(x),
                           std::pow(x, a),
                           std::min(std::max(x, a), b),
                           x * a + b,
                           0,
                           0,
                           0,
                           0,
                           0,  // no functions
                           x < 0 ? a * x : x,
                           0,  // PReLU
                           x < 0 ? a * std::expm1(x) : x,
                           std::min(std::max(a * x + b, 0.0), 1.0),
                           1 / (1 + std::exp(-x)),
                           x / (1 + std::exp(-a * x)),
                           x * std::min(std::max(x + 3, 0.0), 6.0) / 6,
                           x * std::tanh(softplus),
                           x * (1 + phi) / 2,
                           softplus,
                           0,
                           0,
                           0,  // along an axis
                           std::erf(x)};
    return each[p.function];
  });
}

// The place in a block with extents of 1 repeated that element i of a block out stands for.
inline size_t repeated_place(const Array& a, const std::vector<int>& out, size_t i) {
  size_t place = 0, pitch = 1;
  for (size_t d = 0; d < out.size(); d++) {
    const auto extent = static_cast<size_t>(out[d]);
    if (a.extent(d) > 1) place += i % extent * pitch;
    pitch *= static_cast<size_t>(a.extent(d));
    i /= extent;
  }
  return place;
}

inline double reference_join_of(int operation, double x, double y) {
  const double each[] = {x + y,          x - y,          x * y,         x / y,
                         std::max(x, y), std::min(x, y), std::pow(x, y)};
  return each[-1 - operation];
}

// Type 31's joins: extents of 1 repeated, or matrices of the first two extents.
inline Array reference_further_join(const Array& a, const Array& b, int operation) {
  const bool product = operation == ZYN_JOIN_MATMUL;
  std::vector<int> dims;
  for (size_t d = 0; d < std::max(a.dims.size(), b.dims.size()); d++)
    dims.push_back(product && d < 2 ? (d ? a.h() : b.w()) : std::max(a.extent(d), b.extent(d)));
  Array out(dims);
  for (size_t i = 0; i < out.v.size(); i++) {
    if (!product) {
      out.v[i] = reference_join_of(operation, a.v[repeated_place(a, dims, i)],
                                   b.v[repeated_place(b, dims, i)]);
      continue;
    }
    // The matrices of this place, then row and column in them.
    std::vector<int> planes(dims);
    planes[0] = 1;
    if (planes.size() > 1) planes[1] = 1;
    Array first = a, second = b;
    for (Array* m : {&first, &second})
      for (size_t d = 0; d < 2 && d < m->dims.size(); d++) m->dims[d] = 1;
    const auto n = static_cast<size_t>(b.w()), m = static_cast<size_t>(a.h()),
               k = static_cast<size_t>(a.w());
    const size_t at_a = repeated_place(first, planes, i / (n * m)) * k * m + i / n % m * k;
    const size_t at_b = repeated_place(second, planes, i / (n * m)) * k * n + i % n;
    for (size_t t = 0; t < k; t++) out.v[i] += a.v[at_a + t] * b.v[at_b + t * n];
  }
  return out;
}

inline Array reference_activation(const Array& in, int type) {
  return map(in, [&](double x) {
    const double positive = std::max(x, 0.0);
    return type == ZYN_OP_SIGMOID      ? 1 / (1 + std::exp(-x))
           : type == ZYN_OP_RELU       ? positive
           : type == ZYN_OP_RELU6      ? std::min(positive, 6.0)
           : type == ZYN_OP_HARD_SWISH ? x * std::min(std::max(x + 3, 0.0), 6.0) / 6
                                       : x * std::tanh(x > 700 ? x : std::log1p(std::exp(x)));
  });
}

inline Array reference_norm(const Array& in, const Array& stats, const zyn_bn_param& p) {
  Array out = in;
  const size_t c = stats.v.size() / 4;
  for_each_element(in, [&](int x, int y, int z) {
    const double* s = stats.v.data() + z;
    out.at(x, y, z) =
        (in.at(x, y, z) - s[2 * c]) * s[0] / std::sqrt(s[3 * c] + static_cast<double>(p.epsilon)) +
        s[c];
  });
  return out;
}

inline Array reference_pool(const Array& in, const zyn_pool_param& p, bool max) {
  Array out = in;
  out.dims[0] = (in.w() - p.kernel_h) / p.stride_h + 1;
  if (out.dims.size() > 1) out.dims[1] = (in.h() - p.kernel_w) / p.stride_w + 1;
  out.v.assign(Array::size_of(out.dims), 0);
  const int k = p.kernel_h;
  for (int z = 0; z < in.c(); z++)
    for (int j = 0; j < out.h() && j * k < in.h(); j++)
      for (int i = 0; i < out.w() && i * k < in.w(); i++) {
        double best = -HUGE_VAL, sum = 0;
        for (int y = j * k; y < std::min(j * k + k, in.h()); y++)
          for (int x = i * k; x < std::min(i * k + k, in.w()); x++) {
            best = std::max(best, in.at(x, y, z));
            sum += in.at(x, y, z);
          }
        out.at(i, j, z) = max ? best : sum / k / k;
      }
  return out;
}

inline Array reference_linear(const Array& in, const Array& constant, const zyn_linear_param& p) {
  const int n = in.w(), m = static_cast<int>(p.out_features);
  Array out({m, in.h()});
  for (int r = 0; r < in.h(); r++)
    for (int j = 0; j < m; j++) {
      const double* weights = constant.v.data() + j * n;
      const size_t bias = p.in_features * p.out_features + static_cast<size_t>(j);
      double sum = p.bias == 1 && r == 0 ? constant.v[bias] : 0;
      for (int i = 0; i < n; i++) sum += in.at(i, r, 0) * weights[i];
      out.at(j, r, 0) = sum;
    }
  return out;
}

// Types 27 and 28: element by element, or one value of values per channel of data.
template <typename Op>
Array reference_join(const Array& data, const Array& values, Op op) {
  Array out = data;
  const size_t plane = static_cast<size_t>(data.w()) * static_cast<size_t>(data.h());
  const bool same = data.v.size() == values.v.size();
  for (size_t i = 0; i < out.v.size(); i++)
    out.v[i] = op(data.v[i], values.v[same ? i : i / plane]);
  return out;
}

inline Array reference_add(const Array& a, const Array& b) {
  return reference_join(a, b, [](double x, double y) { return x + y; });
}

inline Array reference_multiply(const Array& a, const Array& b) {
  const bool swap = a.w() == 1 && a.h() == 1;
  return reference_join(swap ? b : a, swap ? a : b, [](double x, double y) { return x * y; });
}

inline Array reference_resample(const Array& in, const zyn_resample_param& p) {
  const bool global = p.mode == ZYN_RESAMPLE_GLOBAL_AVERAGE;
  const int ow = global ? 1 : static_cast<int>(in.w() * static_cast<double>(p.factor_h));
  const int oh = global ? 1 : static_cast<int>(in.h() * static_cast<double>(p.factor_w));
  Array out(in.dims);
  out.dims[0] = ow;
  out.dims[1] = oh;
  out.v.assign(Array::size_of(out.dims), 0);
  const auto clamped = [&](int x, int y, int z) {
    return in.at(std::clamp(x, 0, in.w() - 1), std::clamp(y, 0, in.h() - 1), z);
  };
  for_each_element(out, [&](int x, int y, int z) {
    double& o = out.at(x, y, z);
    if (global) {
      for (int j = 0; j < in.h(); j++)
        for (int i = 0; i < in.w(); i++) o += in.at(i, j, z) / (in.w() * in.h());
    } else if (p.mode == ZYN_RESAMPLE_NEAREST) {
      o = in.at(x * in.w() / ow, y * in.h() / oh, z);
    } else {
      const double sx = (x + 0.5) * in.w() / ow - 0.5, sy = (y + 0.5) * in.h() / oh - 0.5;
      const int x0 = static_cast<int>(std::floor(sx)), y0 = static_cast<int>(std::floor(sy));
      const double fx = sx - x0, fy = sy - y0;
      o = (1 - fy) * ((1 - fx) * clamped(x0, y0, z) + fx * clamped(x0 + 1, y0, z)) +
          fy * ((1 - fx) * clamped(x0, y0 + 1, z) + fx * clamped(x0 + 1, y0 + 1, z));
    }
  });
  return out;
}

inline Array reference_affine(const Array& in, const Array& m, const zyn_affine_param& p) {
  Array out(in.dims);
  out.dims[0] = static_cast<int>(in.w() * static_cast<double>(p.factor_h));
  out.dims[1] = static_cast<int>(in.h() * static_cast<double>(p.factor_w));
  out.v.assign(Array::size_of(out.dims), 0);
  for_each_element(out, [&](int x, int y, int z) {
    const double sx = m.v[0] * x + m.v[1] * y + m.v[2];
    const double sy = m.v[3] * x + m.v[4] * y + m.v[5];
    // Every input pixel weighs in with a tent around it.
    for (int j = 0; j < in.h(); j++)
      for (int i = 0; i < in.w(); i++)
        out.at(x, y, z) += in.at(i, j, z) * std::max(0.0, 1 - std::fabs(sx - i)) *
                           std::max(0.0, 1 - std::fabs(sy - j));
  });
  return out;
}

inline Array reference_reshape(const Array& in, const std::vector<int>& dims) {
  Array out(dims);
  std::copy(in.v.begin(), in.v.end(), out.v.begin());
  return out;
}

inline Array reference_concat(const std::vector<const Array*>& in, int axis) {
  std::vector<int> dims = in[0]->dims;
  for (size_t i = 1; i < in.size(); i++) dims[axis] += in[i]->extent(axis);
  Array out(dims);
  int at[3] = {0, 0, 0};
  for (const Array* a : in) {
    for_each_element(
        *a, [&](int x, int y, int z) { out.at(x + at[0], y + at[1], z + at[2]) = a->at(x, y, z); });
    at[axis] += a->extent(axis);
  }
  return out;
}

inline Array reference_channels(const Array& in, const std::vector<int>& channels) {
  Array out({in.w(), in.h(), static_cast<int>(channels.size())});
  for_each_element(out, [&](int x, int y, int z) { out.at(x, y, z) = in.at(x, y, channels[z]); });
  return out;
}

// Records of convolution layers, and what they mean.
inline zyn_conv_param conv_param(int in, int out, int kernel, int stride, int pad, int groups = 1) {
  zyn_conv_param p = {};
  p.in_channels = in, p.out_channels = out;
  p.kernel_h = p.kernel_w = kernel;
  p.stride_h = p.stride_w = stride;
  p.pad_h = p.pad_w = pad;
  p.dilation_h = p.dilation_w = 1;
  p.groups = groups;
  return p;
}
inline bool is_depthwise(const zyn_conv_param& p) {
  return p.groups > 1 && p.groups == p.in_channels && p.groups == p.out_channels;
}
inline bool has_kernel(const zyn_conv_param& p) { return p.groups == 1 || is_depthwise(p); }
// What an activation code does to a sum with its bias.
inline double activate(double y, int code) {
  const double gate = std::min(std::max(y + 3, 0.0), 6.0) / 6;
  return code == 1 ? std::max(y, 0.0) : code == 2 ? y * gate : code == 4 ? gate : y;
}

// How the products of a layer are summed: one sum for every input channel, joined exactly.
struct ExactSum {
  double start(double) const { return 0; }
  double tap(double sum, double w, double x) const { return sum + w * x; }
  double join(double total, double sum) const { return total + sum; }
};

// The one oracle of convolutions: output channel o of a group is its bias, which the sums
// of the group's input channels join one after another. Transposed: every input pixel
// spreads over the output. Weights [out][in / groups] or [in][out / groups], then
// [row][column]. Extents of the output that are not 0 replace the usual ones.
template <typename Sum = ExactSum>
Array reference_conv(const Array& in, const Array& constant, const zyn_conv_param& p,
                     bool transposed = false, int ow = 0, int oh = 0, Sum sum = {}) {
  const auto extent = [&](int64_t size, int64_t k, int64_t s, int64_t pad, int64_t d) {
    return static_cast<int>(transposed ? (size - 1) * s - 2 * pad + d * (k - 1) + 1
                                       : (size - 1 + 2 * pad - (k - 1) * d) / s + 1);
  };
  Array out({ow ? ow : extent(in.w(), p.kernel_h, p.stride_h, p.pad_h, p.dilation_h),
             oh ? oh : extent(in.h(), p.kernel_w, p.stride_w, p.pad_w, p.dilation_w),
             p.out_channels});
  const int ig = p.in_channels / p.groups, og = p.out_channels / p.groups;
  const int taps = p.kernel_h * p.kernel_w, pixels = out.w() * out.h();
  const double* bias = constant.v.data() + static_cast<size_t>(taps * p.in_channels * og);
  // One plane of sums: every tap walks the side that the stride counts on.
  Array sums({out.w(), out.h()});
  const Array &walked = transposed ? in : sums, &other = transposed ? sums : in;
  const auto add_tap = [&](int i, int r, int c, double w) {
    for (int y = 0; y < walked.h(); y++) {
      const int64_t fy = int64_t{y} * p.stride_w - p.pad_w + int64_t{r} * p.dilation_w;
      if (fy < 0 || fy >= other.h()) continue;
      const int row = static_cast<int>(fy);
      double* to = &sums.at(0, transposed ? row : y, 0);
      const double* from = &in.v[in.index(0, transposed ? y : row, i)];
      for (int x = 0; x < walked.w(); x++) {
        const int64_t fx = int64_t{x} * p.stride_h - p.pad_h + int64_t{c} * p.dilation_h;
        if (fx < 0 || fx >= other.w()) continue;
        double& one = to[transposed ? fx : x];
        one = sum.tap(one, w, from[transposed ? x : fx]);
      }
    }
  };
  for (int o = 0; o < p.out_channels; o++) {
    double* to = &out.at(0, 0, o);
    std::fill_n(to, pixels, p.bias == 1 ? bias[o] : 0);
    for (int k = 0; k < ig; k++) {
      const int i = o / og * ig + k, pair = transposed ? i * og + o % og : o * ig + k;
      std::transform(to, to + pixels, sums.v.begin(), [&](double v) { return sum.start(v); });
      for (int t = 0; t < taps; t++)
        add_tap(i, t / p.kernel_h, t % p.kernel_h,
                constant.v[static_cast<size_t>(pair * taps + t)]);
      for (int n = 0; n < pixels; n++) to[n] = sum.join(to[n], sums.v[static_cast<size_t>(n)]);
    }
  }
  return out;
}

// Type 12: bias for codes 0 to 2 where the record has one, then the activation.
inline Array reference_conv_act(const Array& in, const Array& constant, zyn_conv_param p,
                                int ow = 0, int oh = 0) {
  const int code = p.word14.activation;
  if (code < 0 || code > 2) p.bias = 0;
  return map(reference_conv(in, constant, p, false, ow, oh),
             [=](double y) { return activate(y, code <= 2 ? code : 0); });
}

// Type 13: weights and bias folded with the statistics behind them.
inline Array reference_fold(const Array& constant, const zyn_conv_param& p) {
  const size_t outputs = static_cast<size_t>(p.out_channels);
  const size_t biased = p.bias == 1 ? outputs : 0;
  const size_t weights = constant.v.size() - 4 * outputs - biased;
  const double* stats = constant.v.data() + weights + biased;
  Array folded({static_cast<int>(weights + outputs)});
  for (size_t c = 0; c < outputs; c++) {
    const double epsilon = p.word14.epsilon != 0 ? static_cast<double>(p.word14.epsilon) : 1e-5;
    const double scale = stats[c] / std::sqrt(stats[3 * outputs + c] + epsilon);
    const double bias = biased ? constant.v[weights + c] : 0;
    for (size_t i = c * weights / outputs; i < (c + 1) * weights / outputs; i++)
      folded.v[i] = constant.v[i] * scale;
    folded.v[weights + c] = (bias - stats[2 * outputs + c]) * scale + stats[outputs + c];
  }
  return folded;
}
inline Array reference_conv_bn(const Array& in, const Array& constant, zyn_conv_param p,
                               bool hard_sigmoid, int ow = 0, int oh = 0) {
  const Array folded = reference_fold(constant, p);
  const int code = p.activation;
  const bool known = (code >= 0 && code <= 2) || (code == ZYN_ACT_HARD_SIGMOID && hard_sigmoid);
  p.bias = known ? 1 : 0;
  return map(reference_conv(in, folded, p, false, ow, oh),
             [=](double y) { return known ? activate(y, code) : y; });
}

}  // namespace zyn_test

// Convolution records, sizes and data for the tests of convolution layers.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "support/buffers.h"
#include "zyncore.h"

namespace zyn_test {

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
inline int weight_count(const zyn_conv_param& p) {
  return p.kernel_h * p.kernel_w * p.out_channels * (is_depthwise(p) ? 1 : p.in_channels);
}
inline int out_extent(int in, int k, int s, int pad, int d) {
  return (in - 1 + 2 * pad - (k - 1) * d) / s + 1;
}

inline std::string describe(const zyn_conv_param& p, int w, int h) {
  const auto pair = [](const char* name, int a, int b) {
    return std::string(" ") + name + " " + std::to_string(a) + "," + std::to_string(b);
  };
  return "channels " + std::to_string(p.in_channels) + "->" + std::to_string(p.out_channels) +
         " groups " + std::to_string(p.groups) + pair("size", w, h) +
         pair("kernel", p.kernel_h, p.kernel_w) + pair("stride", p.stride_h, p.stride_w) +
         pair("pad", p.pad_h, p.pad_w) + pair("dilation", p.dilation_h, p.dilation_w) + " bias " +
         std::to_string(p.bias);
}

// What an activation code does to a sum with its bias.
inline double activate(double y, int code) {
  const double gate = std::min(std::max(y + 3, 0.0), 6.0) / 6;
  return code == 1 ? std::max(y, 0.0) : code == 2 ? y * gate : code == 4 ? gate : y;
}

inline std::vector<double> small_integers(Random& random, size_t count, int bound) {
  std::vector<double> v(count);
  for (double& x : v) x = random.integer(-bound, bound);
  return v;
}

// Any record that a planar kernel may meet, and sizes for it.
struct AnyLayer {
  zyn_conv_param p;
  int w, h, ow, oh;
};
inline AnyLayer any_layer(Random& random) {
  for (;;) {
    const bool depthwise = random.integer(0, 2) == 0;
    const int c = random.integer(1, 9);
    AnyLayer l = {};
    l.p = conv_param(c, depthwise ? c : random.integer(1, 9), 1, 1, 0, depthwise ? c : 1);
    l.p.kernel_h = random.integer(1, 6), l.p.kernel_w = random.integer(1, 6);
    l.p.stride_h = random.integer(1, 4), l.p.stride_w = random.integer(1, 4);
    l.p.pad_h = random.integer(0, 4), l.p.pad_w = random.integer(0, 4);
    l.p.dilation_h = random.integer(1, 3), l.p.dilation_w = random.integer(1, 3);
    if (random.integer(0, 2) == 0) {  // all but one member as the fixed kernels want them
      const zyn_conv_param odd = l.p;
      const int k = 1 + 2 * random.integer(0, 2), s = random.integer(1, 2);
      l.p = conv_param(c, odd.out_channels, k, s, k / 2, odd.groups);
      int32_t* members[] = {&l.p.pad_h,    &l.p.pad_w,    &l.p.dilation_h, &l.p.dilation_w,
                            &l.p.stride_h, &l.p.stride_w, &l.p.kernel_h,   &l.p.kernel_w};
      const int32_t values[] = {odd.pad_h,    odd.pad_w,    odd.dilation_h, odd.dilation_w,
                                odd.stride_h, odd.stride_w, odd.kernel_h,   odd.kernel_w};
      const int which = random.integer(0, 7);
      *members[which] = values[which];
    }
    l.w = random.integer(1, 37), l.h = random.integer(1, 14);
    l.ow = out_extent(l.w, l.p.kernel_h, l.p.stride_h, l.p.pad_h, l.p.dilation_h);
    l.oh = out_extent(l.h, l.p.kernel_w, l.p.stride_w, l.p.pad_w, l.p.dilation_w);
    if (l.ow >= 1 && l.oh >= 1) return l;
  }
}

}  // namespace zyn_test

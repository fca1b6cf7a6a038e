// Method 0: which planar kernel serves a layer, and the kernels that take any record.
#include "cg/cpu/kernels/zyn_conv_planar.h"

#include <string.h>

namespace {

// Output rows from which the row ring and its 4-row steps are used.
constexpr int32_t kSmallImage = 6;

// The part of [0, count) whose source position + offset - pad lies in [0, extent).
struct span {
  int32_t first, end;
};

span inside(int32_t count, int32_t extent, int64_t offset, int64_t stride) {
  const int64_t first = offset < 0 ? (-offset + stride - 1) / stride : 0;
  const int64_t last = extent - 1 - offset;  // source position of the last pixel inside
  const int64_t end = last < 0 ? 0 : last / stride + 1;
  const int64_t clipped = end < count ? end : count;
  return {static_cast<int32_t>(first < clipped ? first : clipped), static_cast<int32_t>(clipped)};
}

// out[i] += weight * in[i * stride], i < count.
void add_row(float* out, const float* in, int64_t count, int64_t stride, float weight) {
  int64_t i = 0;
  if (stride == 1) {
    const __m256 w = _mm256_set1_ps(weight);
    for (; i + 8 <= count; i += 8)
      _mm256_storeu_ps(out + i,
                       _mm256_fmadd_ps(w, _mm256_loadu_ps(in + i), _mm256_loadu_ps(out + i)));
  }
  for (; i < count; i++) out[i] = __builtin_fmaf(weight, in[i * stride], out[i]);
}

// Adds one input plane under its kernel to one output plane.
void add_plane(const zyn_planar_layer& l, float* out, const float* in, const float* weights) {
  const zyn_conv_param& p = *l.param;
  for (int32_t ky = 0; ky < p.kernel_w; ky++) {
    const int64_t dy = static_cast<int64_t>(ky) * p.dilation_w - p.pad_w;
    const span ys = inside(l.out_h, l.in_h, dy, p.stride_w);
    for (int32_t kx = 0; kx < p.kernel_h; kx++) {
      const int64_t dx = static_cast<int64_t>(kx) * p.dilation_h - p.pad_h;
      const span xs = inside(l.out_w, l.in_w, dx, p.stride_h);
      if (xs.end <= xs.first) continue;
      const float weight = weights[static_cast<int64_t>(ky) * p.kernel_h + kx];
      for (int32_t y = ys.first; y < ys.end; y++)
        add_row(out + static_cast<int64_t>(y) * l.out_w + xs.first,
                in + (y * static_cast<int64_t>(p.stride_w) + dy) * l.in_w +
                    xs.first * static_cast<int64_t>(p.stride_h) + dx,
                xs.end - xs.first, p.stride_h, weight);
    }
  }
}

int64_t taps_of(const zyn_planar_layer& l) {
  return static_cast<int64_t>(l.param->kernel_h) * l.param->kernel_w;
}

void clear_plane(const zyn_planar_layer& l, int32_t c) {
  memset(l.out_plane(c), 0, sizeof(float) * static_cast<size_t>(l.out_w) * l.out_h);
}

// False for missing arguments and channel counts that differ from the record.
bool open_layer(zyn_planar_layer* layer, zyn_tensor* output, const zyn_tensor* input,
                const float* weights, const zyn_conv_param* param) {
  if (!output || !input || !weights || !param || !output->data || !input->data) return false;
  if (output->dims[2] != param->out_channels || input->dims[2] != param->in_channels) return false;
  *layer = {static_cast<float*>(output->data),
            output->dims[0],
            output->dims[1],
            output->dims[2],
            static_cast<const float*>(input->data),
            input->dims[0],
            input->dims[1],
            input->dims[2],
            weights,
            param};
  return true;
}

bool is_pointwise(const zyn_planar_layer& l) {
  return zyn_planar_is_regular(l, 1, 1) && l.out_w == l.in_w && l.out_h == l.in_h;
}

}  // namespace

bool zyn_planar_is_regular(const zyn_planar_layer& l, int32_t kernel, int32_t stride) {
  const zyn_conv_param& p = *l.param;
  const int32_t pad = kernel / 2;
  return p.kernel_h == kernel && p.kernel_w == kernel && p.stride_h == stride &&
         p.stride_w == stride && p.pad_h == pad && p.pad_w == pad && p.dilation_h == 1 &&
         p.dilation_w == 1 && l.out_w == (l.in_w - 1) / stride + 1 &&
         l.out_h == (l.in_h - 1) / stride + 1;
}

void zyn_planar_generic(const zyn_planar_layer& l) {
  const int64_t taps = taps_of(l);
  for (int32_t oc = 0; oc < l.out_channels; oc++) {
    clear_plane(l, oc);
    for (int32_t ic = 0; ic < l.in_channels; ic++)
      add_plane(l, l.out_plane(oc), l.in_plane(ic),
                l.weights + (static_cast<int64_t>(oc) * l.in_channels + ic) * taps);
  }
}

void zyn_planar_generic_depthwise(const zyn_planar_layer& l) {
  for (int32_t c = 0; c < l.out_channels; c++) {
    clear_plane(l, c);
    add_plane(l, l.out_plane(c), l.in_plane(c), l.weights + c * taps_of(l));
  }
}

uint32_t zyn_cg_conv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                            const zyn_conv_param* param) {
  zyn_planar_layer layer;
  if (!open_layer(&layer, output, input, weights, param)) return ZYN_RET_ERR_PARA;
  if (zyn_planar_is_regular(layer, 3, 1))
    return layer.out_h < kSmallImage ? zyn_planar_3x3_s1_small(layer) : zyn_planar_3x3_s1(layer);
  if (zyn_planar_is_regular(layer, 3, 2)) return zyn_planar_3x3_s2(layer);
  zyn_planar_generic(layer);
  return ZYN_RET_OK;
}

uint32_t zyn_cg_conv1x1_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                               const zyn_conv_param* param) {
  zyn_planar_layer layer;
  if (!open_layer(&layer, output, input, weights, param)) return ZYN_RET_ERR_PARA;
  if (!is_pointwise(layer))
    zyn_planar_generic(layer);
  else if (layer.out_w == 1 && layer.out_h == 1)
    zyn_planar_dot(layer);
  else
    zyn_planar_pointwise(layer);
  return ZYN_RET_OK;
}

uint32_t zyn_cg_dwconv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                              const zyn_conv_param* param) {
  zyn_planar_layer layer;
  if (!open_layer(&layer, output, input, weights, param)) return ZYN_RET_ERR_PARA;
  for (int32_t stride = 1; stride <= 2; stride++) {
    if (zyn_planar_is_regular(layer, 3, stride)) {
      zyn_planar_depthwise_3x3(layer, stride);
      return ZYN_RET_OK;
    }
    if (zyn_planar_is_regular(layer, 5, stride)) {
      zyn_planar_depthwise_5x5(layer, stride);
      return ZYN_RET_OK;
    }
  }
  zyn_planar_generic_depthwise(layer);
  return ZYN_RET_OK;
}

// Shared parts of the blocked kernels (method 1): the channel-blocked layout, the
// vector types of its block widths, and the packed-weight order that packer and
// micro-kernels agree on.
//
// A tensor of C channels in this layout holds blocks of 8 channels while 8 remain,
// then one of 4 if 4 remain, then single channels. A block of g channels starting
// at channel c lies at c * H * W and holds H * W pixels of g values.
//
// Packed dense weights: output blocks in the same order; inside one, input blocks
// in the same order; a pair (output block ob, input block ib) is ob * ib * taps
// floats at (first output channel * inputs + first input channel * ob) * taps:
//   ob 8 or 4, ib 8 or 4: [tap][input][output]
//   ob 8 or 4, ib 1:      [output][tap]
//   ob 1:                 [tap][input]
// Packed depthwise weights: channel blocks, each [tap][channel].
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"

struct zyn_conv_blocked_weights {
  zyn_tensor* packed;     // weights in the order above, the weight tensor's shape
  uint32_t thread_count;  // 1 to 16
};

// Width of the block that begins where remaining channels are left.
inline int32_t zyn_block_width(int32_t remaining) {
  return remaining >= 8 ? 8 : remaining >= 4 ? 4 : 1;
}

// Whether planar and blocked order are the same.
inline bool zyn_block_is_planar(int32_t channels) { return channels < 4; }

// The lanes of one block: vectors of 8 or 4 channels, or one float.
template <int Width>
struct zyn_block_lanes;

template <>
struct zyn_block_lanes<8> {
  using type = __m256;
  static type zero() { return _mm256_setzero_ps(); }
  static type load(const float* p) { return _mm256_loadu_ps(p); }
  static type spread(const float* p) { return _mm256_broadcast_ss(p); }
  static void store(float* p, type v) { _mm256_storeu_ps(p, v); }
  static type add(type a, type b) { return _mm256_add_ps(a, b); }
  // b where the two compare unordered, so that NaN passes through.
  static type max(type a, type b) { return _mm256_max_ps(a, b); }
  static type fma(type a, type b, type c) { return _mm256_fmadd_ps(a, b, c); }
  static float sum(type v) {
    const __m128 half = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    const __m128 pair = _mm_add_ps(half, _mm_movehl_ps(half, half));
    return _mm_cvtss_f32(_mm_add_ss(pair, _mm_movehdup_ps(pair)));
  }
};

template <>
struct zyn_block_lanes<4> {
  using type = __m128;
  static type zero() { return _mm_setzero_ps(); }
  static type load(const float* p) { return _mm_loadu_ps(p); }
  static type spread(const float* p) { return _mm_broadcast_ss(p); }
  static void store(float* p, type v) { _mm_storeu_ps(p, v); }
  static type add(type a, type b) { return _mm_add_ps(a, b); }
  static type max(type a, type b) { return _mm_max_ps(a, b); }
  static type fma(type a, type b, type c) { return _mm_fmadd_ps(a, b, c); }
  static float sum(type v) {
    const __m128 pair = _mm_add_ps(v, _mm_movehl_ps(v, v));
    return _mm_cvtss_f32(_mm_add_ss(pair, _mm_movehdup_ps(pair)));
  }
};

template <>
struct zyn_block_lanes<1> {
  using type = float;
  static type zero() { return 0.0f; }
  static type load(const float* p) { return *p; }
  static type spread(const float* p) { return *p; }
  static void store(float* p, type v) { *p = v; }
  static type add(type a, type b) { return a + b; }
  static type max(type a, type b) { return a > b ? a : b; }
  static type fma(type a, type b, type c) { return __builtin_fmaf(a, b, c); }
  static float sum(type v) { return v; }
};

// A convolution with padding 1 (3x3) or 0 (1x1) whose tensors have been checked.
struct zyn_blocked_layer {
  const float* in;  // in blocked order
  int32_t in_channels, width, height;
  float* out;
  int32_t out_channels, out_width, out_height;
  const float* packed;
  const zyn_conv_epilogue* epilogue;  // null: none

  int64_t in_plane() const { return static_cast<int64_t>(width) * height; }
  int64_t out_plane() const { return static_cast<int64_t>(out_width) * out_height; }
};

// The frame of every driver: checks the arguments, makes a blocked copy of a planar
// input, runs and marks the output as blocked. 1: missing tensors, data or weights, or
// channel counts that differ from the record; 4: the output is not as large as the
// stride makes it, or the record asks for dilation; 2: no memory for the copy.
uint32_t zyn_blocked_drive(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                           const zyn_conv_param* param, const zyn_conv_epilogue* epilogue,
                           int32_t stride, void (*run)(const zyn_blocked_layer&));

// Planar to blocked: channels planes of count pixels. Scratch of the family is one such
// copy of the input, whatever the record says.
void zyn_block_planes(float* blocked, const float* planar, int32_t channels, int64_t count);

// Drivers of one stride; the dispatchers zyn_cg_conv3x3 and zyn_cg_dwconv3x3 choose.
// The epilogue (null: none) is applied where an output value receives its last sum.
uint32_t zyn_cg_conv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue);
uint32_t zyn_cg_conv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                           const zyn_conv_epilogue* epilogue);
uint32_t zyn_cg_dwconv3x3_s1(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue);
uint32_t zyn_cg_dwconv3x3_s2(zyn_tensor* output, const zyn_tensor* input,
                             const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                             const zyn_conv_epilogue* epilogue);

// Packed weights of the blocked kernels, and the conversion between planar and
// channel-blocked order.
#include "base/zyn_memory.h"
#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "matrix/zyn_tensor.h"

namespace {

constexpr int32_t kMaxThreads = 16;

// One (output block, input block) pair; weights of output o, input i begin at
// weights + (o * inputs + i) * taps.
void pack_pair(float* packed, const float* weights, int32_t outputs, int32_t inputs_of_block,
               int64_t inputs, int64_t taps) {
  for (int32_t o = 0; o < outputs; o++)
    for (int32_t i = 0; i < inputs_of_block; i++)
      for (int64_t t = 0; t < taps; t++) {
        const float weight = weights[(o * inputs + i) * taps + t];
        if (inputs_of_block == 1 && outputs > 1)
          packed[o * taps + t] = weight;
        else if (outputs == 4 && taps == 1)
          packed[i / 2 * 8 + o * 2 + i % 2] = weight;
        else if (outputs == 4)
          packed[(t * outputs + o) * inputs_of_block + i] = weight;
        else
          packed[(t * inputs_of_block + i) * outputs + o] = weight;
      }
}

void pack_dense(float* packed, const float* weights, const zyn_conv_param* p) {
  const int64_t taps = static_cast<int64_t>(p->kernel_h) * p->kernel_w;
  const int64_t inputs = p->in_channels;
  for (int32_t oc = 0, ob = 0; oc < p->out_channels; oc += ob) {
    const int32_t left = p->out_channels - oc;
    ob = taps == 1 ? zyn_vector_channels(left) : zyn_block_width(left);
    for (int32_t ic = 0, ib = 0; ic < p->in_channels; ic += ib) {
      ib = zyn_block_width(p->in_channels - ic);
      pack_pair(packed, weights + (oc * inputs + ic) * taps, ob, ib, inputs, taps);
      packed += ob * ib * taps;
    }
  }
}

// Room for as many weights.
zyn_tensor* make_packed(const zyn_tensor* weights) {
  if (kZynAlignmentFloats == 0) return zyn_create_tensor_like(weights);
  if (weights->count > INT32_MAX - kZynAlignmentFloats) return nullptr;
  const auto room = static_cast<int32_t>(weights->count + kZynAlignmentFloats);
  return zyn_create_tensor(1, &room, ZYN_TYPE_F32);
}

// Eight planes of count pixels, interleaved.
void interleave8(float* blocked, const float* planar, int64_t count) {
  int64_t i = 0;
  for (; i + 8 <= count; i += 8) {
    __m256 r[8];
    ZYN_UNROLL for (int k = 0; k < 8; k++) r[k] = _mm256_loadu_ps(planar + k * count + i);
    zyn_transpose_8x8(r);
    ZYN_UNROLL for (int k = 0; k < 8; k++) _mm256_storeu_ps(blocked + (i + k) * 8, r[k]);
  }
  for (; i < count; i++)
    for (int k = 0; k < 8; k++) blocked[i * 8 + k] = planar[k * count + i];
}

}  // namespace

zyn_conv_blocked_weights* zyn_cg_conv_prepare_direct(const zyn_tensor* weights,
                                                     const zyn_conv_param* param, int32_t threads) {
  if (!weights || !weights->data || !param) return nullptr;
  if (weights->count < zyn_conv_weight_count(param)) return nullptr;
  zyn_scratch<zyn_conv_blocked_weights> workspace(1);
  if (!workspace) return nullptr;
  workspace->thread_count = static_cast<uint32_t>(threads < 1             ? 1
                                                  : threads > kMaxThreads ? kMaxThreads
                                                                          : threads);
  workspace->packed = make_packed(weights);
  if (!workspace->packed) return nullptr;
  float* packed = zyn_vector_aligned(static_cast<float*>(workspace->packed->data));
  const float* source = static_cast<const float*>(weights->data);
  if (zyn_conv_is_depthwise(param))
    // A filter is a plane of taps: packing is blocking.
    zyn_block_planes(packed, source, param->out_channels,
                     static_cast<int64_t>(param->kernel_h) * param->kernel_w);
  else
    pack_dense(packed, source, param);
  return workspace.take();
}

uint32_t zyn_cg_conv_release_direct(zyn_conv_blocked_weights** workspace) {
  if (!workspace || !*workspace) return ZYN_RET_ERR_PARA;
  if ((*workspace)->packed) zyn_release_tensor(&(*workspace)->packed);
  zyn_free(*workspace);
  *workspace = nullptr;
  return ZYN_RET_OK;
}

void zyn_block_planes(float* blocked, const float* planar, int32_t channels, int64_t count) {
  for (int32_t c = 0, width = 0; c < channels; c += width) {
    width = zyn_block_width(channels - c);
    float* to = blocked + c * count;
    const float* from = planar + c * count;
    if (width == 8) {
      interleave8(to, from, count);
      continue;
    }
    for (int64_t i = 0; i < count; i++)
      for (int32_t k = 0; k < width; k++) to[i * width + k] = from[k * count + i];
  }
}

// Nothing calls it: the kernels' frame blocks into scratch. Code that keeps a blocked tensor
// of its own would.
uint32_t zyn_cg_block_channels(zyn_tensor* output, const zyn_tensor* input) {
  if (!output || !input || !output->data || !input->data) return ZYN_RET_ERR_PARA;
  if (output->count != input->count || input->layout != ZYN_LAYOUT_PLANAR || input->dim_count < 3)
    return ZYN_RET_ERR_PARA;
  zyn_block_planes(static_cast<float*>(output->data), static_cast<const float*>(input->data),
                   input->dims[2], static_cast<int64_t>(input->dims[0]) * input->dims[1]);
  output->layout = ZYN_LAYOUT_BLOCKED;
  return ZYN_RET_OK;
}

// Preparation of the general convolutions with their packed weights, and their entry.
#include "cg/cpu/kernels/general/zyn_conv_general.h"

#include <string.h>

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/general/zyn_general_dense.h"
#include "cg/cpu/kernels/general/zyn_general_plan.h"

namespace {

using layer = zyn_conv_general;

constexpr int32_t kLanes = kZynGeneralLanes;

// Weights of a group of blocks, class by class.
float* pack_group(const layer& l, float* to, const float* weights, int32_t block, int32_t blocks) {
  zyn_general_class classes[3];
  const int32_t count = zyn_general_classes(l, classes);
  const zyn_general_tap_lines order = zyn_general_tap_lines_of(l);
  const auto place = [&](int32_t line, int32_t tap) {  // in the whole kernel
    const int32_t x = l.first_x + (l.along_y ? line : tap);
    const int32_t y = l.first_y + (l.along_y ? tap : line);
    return y * l.taps_in_row + x;
  };
  const auto add_tap = [&](int64_t in, int32_t width, int32_t tap) {
    for (int32_t k = 0; k < width; k++)
      for (int32_t lane = 0; lane < blocks * kLanes; lane++) {
        const int64_t out = int64_t{block} * kLanes + lane;
        *to++ = out < l.out_channels ? weights[(out * l.in_channels + in + k) * l.all_taps + tap]
                                     : 0.0f;
      }
  };
  for (int32_t n = 0; n < count; n++)
    for (int32_t line = 0; line < order.lines; line++)
      for (int64_t i = 0; i < classes[n].blocks; i++)
        for (int32_t t = 0; t < order.taps; t++)
          add_tap(classes[n].first + i * classes[n].width, classes[n].width, place(line, t));
  return to;
}

void pack(layer* l, const float* weights) {
  float* to = l->weights;
  const int32_t taps = zyn_general_taps(*l);
  for (int32_t block = 0; block < zyn_general_block_count(*l);) {
    const int32_t blocks = l->depthwise ? 1 : zyn_general_group_at(*l, block);
    if (!l->depthwise) {
      to = pack_group(*l, to, weights, block, blocks);
    } else {
      for (int32_t t = 0; t < taps; t++)
        for (int32_t lane = 0; lane < kLanes; lane++) {
          const int64_t c = int64_t{block} * kLanes + lane;
          *to++ = c < l->out_channels ? weights[c * taps + t] : 0.0f;
        }
    }
    block += blocks;
  }
}

void fill_taps(const layer& l, int64_t* taps, int32_t pitch) {
  const zyn_conv_shape& s = l.shape;
  const int64_t across = s.dilation_x, down = int64_t{s.dilation_y} * pitch;
  const zyn_general_tap_lines order = zyn_general_tap_lines_of(l);
  for (int64_t line = 0; line < order.lines; line++)
    for (int64_t t = 0; t < order.taps; t++)
      *taps++ = l.along_y ? line * across + t * down : line * down + t * across;
}

}  // namespace

bool zyn_conv_general_serves(const zyn_conv_param* param, int32_t width, int32_t height) {
  layer l = {};
  return zyn_general_open(&l, *param, width, height);
}

zyn_conv_general* zyn_conv_general_prepare(const float* weights, const zyn_conv_param* param,
                                           const int32_t* input, const int32_t* output,
                                           bool planar_output, int64_t* scratch) {
  layer l = {};
  if (!zyn_general_open(&l, *param, input[0], input[1]) || l.out_width != output[0] ||
      l.out_height != output[1])
    return nullptr;
  l.planar_output = planar_output;
  const int64_t blocks = zyn_general_block_count(l);
  const int64_t inputs = l.depthwise ? 1 : l.in_channels;
  if (!l.depthwise) zyn_general_plan_dense(&l);
  zyn_scratch<float> packed(blocks * kLanes * inputs * zyn_general_taps(l));
  zyn_scratch<int64_t> taps(int64_t{2} * zyn_general_taps(l));
  zyn_scratch<layer> made(1);
  if (!packed || !taps || !made) return nullptr;
  if (l.depthwise) {
    l.planes = zyn_general_depthwise_make(l.shape, {l.width, l.height, l.out_width, l.out_height},
                                          planar_output, scratch);
    if (!l.planes) return nullptr;
  } else {
    *scratch = l.in_floats + int64_t{l.blocks} * kLanes * l.strip * l.out_width;
  }
  *scratch += blocks * kLanes;
  l.weights = packed.take();
  l.taps[0] = taps.take();
  l.taps[1] = l.taps[0] + zyn_general_taps(l);
  fill_taps(l, l.taps[0], l.width);
  fill_taps(l, l.taps[1], l.pitch);
  *made.get() = l;
  pack(made.get(), weights);
  return made.take();
}

void zyn_conv_general_release(zyn_conv_general** layer) {
  if (!*layer) return;
  zyn_free((*layer)->weights);
  zyn_free((*layer)->taps[0]);
  zyn_general_depthwise_release(&(*layer)->planes);
  zyn_free(*layer);
  *layer = nullptr;
}

int64_t zyn_conv_general_bytes(const zyn_conv_general* layer) {
  return layer ? zyn_block_bytes(layer->weights) + zyn_block_bytes(layer->taps[0]) +
                     zyn_general_depthwise_bytes(layer->planes) + zyn_block_bytes(layer)
               : 0;
}

const float* zyn_conv_general_weights(const zyn_conv_general* layer) { return layer->weights; }

void zyn_conv_general_run(const zyn_conv_general* layer, zyn_tensor* output,
                          const zyn_tensor* input, const zyn_conv_epilogue& epilogue,
                          float* scratch) {
  const zyn_conv_general& l = *layer;
  const int64_t blocks = zyn_general_block_count(l);
  const bool one_pixel = l.width == 1 && l.height == 1;  // both orders are one
  const bool blocked = input->layout == ZYN_LAYOUT_BLOCKED || one_pixel;
  const bool relu = epilogue.activation == ZYN_EPILOGUE_RELU;
  const bool same_order = l.in_channels < 4;
  float* bias = scratch;
  scratch += blocks * kLanes;
  // -0 changes no value that it is added to.
  for (int64_t i = 0; i < blocks * kLanes; i++) bias[i] = -0.0f;
  if (epilogue.bias)
    memcpy(bias, epilogue.bias, static_cast<size_t>(l.out_channels) * sizeof(float));
  const zyn_general_tensor in = {static_cast<float*>(input->data), blocked, l.in_channels, l.width,
                                 l.height};
  const zyn_general_tensor out = {static_cast<float*>(output->data), !l.planar_output,
                                  l.out_channels, l.out_width, l.out_height};
  const float floor = relu ? 0.0f : -__builtin_inff();
  const int32_t activation = relu ? int32_t{ZYN_EPILOGUE_NONE} : epilogue.activation;
  output->layout = l.planar_output ? ZYN_LAYOUT_PLANAR : ZYN_LAYOUT_BLOCKED;
  if (l.depthwise)
    return zyn_general_depthwise_planes(l.planes,
                                        {in, out, l.weights, bias, floor, activation, scratch});
  zyn_general_dense({l, in, out, l.outside || !(blocked || same_order), bias, floor, activation,
                     scratch, scratch + l.in_floats});
}

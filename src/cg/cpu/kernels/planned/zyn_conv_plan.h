// The plan of one convolution layer under method 2: kernel kind, sizes, packed weights, and
// the scratch that its runs write to.
#pragma once

#include <stdint.h>

#include "base/zyn_integers.h"
#include "cg/cpu/kernels/gemm/zyn_gemm.h"
#include "zyncore.h"

// Kernel kinds.
enum {
  ZYN_PLAN_GENERIC = 0,       // column matrix and general multiply
  ZYN_PLAN_DENSE_3X3 = 1,     // padding 1, stride 1
  ZYN_PLAN_DENSE_3X3_S2 = 2,  // padding 1, stride 2
  ZYN_PLAN_DENSE_5X5 = 3,     // padding 2, stride 1
  ZYN_PLAN_DENSE_5X5_S2 = 4,  // padding 2, stride 2
  ZYN_PLAN_POINTWISE = 5,     // padding 0, stride 1
  ZYN_PLAN_DEPTHWISE_3X3 = 6,
  ZYN_PLAN_DEPTHWISE_3X3_S2 = 7,
  ZYN_PLAN_DEPTHWISE_5X5 = 8,
  ZYN_PLAN_DEPTHWISE_5X5_S2 = 9
};

// Kinds 1 to 4, and many layers of kind 0, copy a strip of input rows with their zero border,
// channel by channel, and read the columns of the product from there. Stride 2 splits a strip by
// the parity of padded row and column into 4 phases, so that neighbouring output columns read
// neighbouring floats in every phase.
struct zyn_conv_strip {
  int64_t rows;            // output rows per strip
  int64_t phase_rows;      // rows of one phase
  int64_t pitch;           // floats of one row of a phase
  bool flat;               // the strip's rows are one run of columns, border included
  int64_t channel_floats;  // from one channel to the next
  int64_t phase_floats;    // from one phase to the next
};

// What the runs of a plan write to: regions of one block of zeros that preparation makes,
// each a whole number of cache lines, null where a kind does not use it.
struct zyn_conv_scratch {
  float* block;     // all of them
  float* strip;     // by strips: copied input rows with their border, at most those of
                    // 128 K floats or, if that is more, those under one output row
  float* panel;     // by strips: an aligned copy of ZYN_GEMM_PANEL of the product's columns
  float* products;  // flat strips: the products with their border, less than 4 outputs; in runs:
                    // those of one run, rows filled up to 8
  float* zeros;     // depthwise and by planes: a row of zeros, for rows outside of the image
  float* lanes;     // depthwise by 8 channels: 8 channels' weights, planes and sums
};

// Nothing but scratch changes once a plan is prepared.
struct zyn_conv_plan {
  uint32_t channel_block;  // output channels per tile: 6 or 4; 0 in depthwise plans
  uint32_t panel_width;    // 16
  zyn_gemm_micro micro;    // of the channel block; null in depthwise plans
  uint32_t output_pixels;
  uint32_t k;  // input channels * kernel * kernel
  uint32_t output_w, output_h;
  uint32_t weights_per_output;  // k
  uint32_t output_channels;
  uint32_t weights_per_row;  // k
  uint32_t padded_rows;      // rows of the packed weights: a multiple of the channel block
                             // (kinds 1 to 5), all channels (0), 1 (depthwise)
  float* weights;            // padded_rows * k floats, behind them what kind 0 packs
  int32_t kind;              // ZYN_PLAN_*
  uint32_t threads;

  // The layer, for the run functions. Kernel, stride and padding are the same along both axes.
  int32_t input_channels, input_w, input_h;
  int32_t kernel, stride, pad;
  zyn_conv_strip strip;  // where zyn_conv_in_strips
  bool far_output;       // the owner's to set: no cache holds the output when a run begins
  zyn_conv_scratch scratch;
};

// Whether a plan of kind 0 has a single output pixel: its product is one by a vector, by
// weights in blocks of ZYN_GEMM_VECTOR_ROWS rows.
inline bool zyn_conv_is_by_vector(const zyn_conv_plan* plan) {
  return plan->kind == ZYN_PLAN_GENERIC && plan->output_pixels == 1;
}
// Whether a plan of kind 1 has so few output channels that it sums input planes as depthwise layers
// do: copies of the input do not pay.
enum { ZYN_CONV_FEW_OUTPUTS = 2 };
inline bool zyn_conv_by_planes(const zyn_conv_plan* plan) {
  return plan->kind == ZYN_PLAN_DENSE_3X3 && plan->output_channels <= ZYN_CONV_FEW_OUTPUTS &&
         plan->output_w >= 8;
}
// Whether the product reads its columns from strips: kinds 1 to 4, and kind 0, in runs of terms as
// the general multiply's.
enum { ZYN_CONV_STRIP_KERNEL = 7 };  // the largest kernel, for kind 0
inline bool zyn_conv_in_runs(const zyn_conv_plan* plan) {
  return plan->kind == ZYN_PLAN_GENERIC && plan->k > ZYN_GEMM_RUN;
}
inline bool zyn_conv_in_strips(const zyn_conv_plan* plan) {
  if (plan->kind != ZYN_PLAN_GENERIC)
    return !zyn_conv_by_planes(plan) && plan->kind >= ZYN_PLAN_DENSE_3X3 &&
           plan->kind <= ZYN_PLAN_DENSE_5X5_S2;
  const bool narrow = plan->output_w < (zyn_conv_in_runs(plan) ? 4 : 8);
  if (narrow || plan->kernel == 1 || plan->kernel > ZYN_CONV_STRIP_KERNEL || plan->stride > 2)
    return false;
  // Many outputs earn a column matrix back sooner than lanes that are idle at the ends of rows.
  const int64_t w = plan->output_w, idle = zyn_round_up(w, 8) - w;
  return !zyn_conv_in_runs(plan) || idle * plan->output_channels < 16 * w;
}
// Where the weights that kind 0 packs begin, by vector or, run by run, by strips.
inline int64_t zyn_conv_second_weights(const zyn_conv_plan* plan) {
  return zyn_round_up(static_cast<int64_t>(plan->padded_rows) * plan->weights_per_row, 16);
}
inline const float* zyn_conv_strip_weights(const zyn_conv_plan* plan) {
  return plan->weights + (plan->kind == ZYN_PLAN_GENERIC ? zyn_conv_second_weights(plan) : 0);
}

// How many floats the regions hold.
struct zyn_conv_scratch_sizes {
  int64_t strip, panel, products, zeros, lanes;
};

// The strip of a plan by strips and the sizes of its scratch.
zyn_conv_scratch_sizes zyn_conv_plan_dense(zyn_conv_plan* plan);
// The sizes of the scratch of a depthwise plan, and of one by planes.
zyn_conv_scratch_sizes zyn_conv_depthwise_sizes(const zyn_conv_plan* plan);
zyn_conv_scratch_sizes zyn_conv_planes_sizes(const zyn_conv_plan* plan);

// The kinds. Arguments have been checked against the plan. 0, or 2 when scratch memory
// is short.
uint32_t zyn_conv_run_dense(float* output, const float* input, const zyn_conv_plan* plan,
                            const zyn_conv_epilogue& epilogue);
uint32_t zyn_conv_run_planes(float* output, const float* input, const zyn_conv_plan* plan,
                             const zyn_conv_epilogue& epilogue);
uint32_t zyn_conv_run_depthwise(float* output, const float* input, const zyn_conv_plan* plan,
                                const zyn_conv_epilogue& epilogue);
// Generic: by parts of the column matrix (K rows, one column per output pixel) that ask for
// at most 1 MB or 96 bytes per weight of one output channel, whichever is more.
uint32_t zyn_conv_run_generic(float* output, const float* input, const zyn_conv_plan* plan,
                              const zyn_conv_epilogue& epilogue);
// Pointwise: asks for at most a row of the input, filled up to ZYN_GEMM_PANEL pixels, per thread,
// of which
// 64 count.
uint32_t zyn_conv_run_pointwise(float* output, const float* input, const zyn_conv_plan* plan,
                                const zyn_conv_epilogue& epilogue);

// Depthwise 3 x 3 by 8 channels at a time, for planes small enough: the floats of scratch
// that it needs (0: not for this plan), what prepare writes there, and the run, which gives
// the number of channels that it has computed.
int64_t zyn_conv_lanes_floats(const zyn_conv_plan* plan);
void zyn_conv_fill_lanes(const zyn_conv_plan* plan);
int64_t zyn_conv_run_lanes(float* output, const float* input, const zyn_conv_plan* plan,
                           const zyn_conv_epilogue& epilogue);

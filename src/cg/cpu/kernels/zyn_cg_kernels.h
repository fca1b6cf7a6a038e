// Entry points of the convolution kernels. W is a tensor's dims[0] (the contiguous
// row), H its dims[1], C its dims[2]; a tensor holds one image. All entry points
// return 0, 1 for a missing argument or channel counts that differ from the record,
// or the code that their description names. Weights are floats
// [out][in][kernel row][kernel column], 4-byte aligned, biases directly behind them.
#pragma once

#include <stdint.h>

#include "cg/cpu/kernels/gemm/zyn_gemm.h"
#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "zyncore.h"

// Whether the record describes a depthwise layer: groups = both channel counts. One
// channel in, out and group is dense.
inline bool zyn_conv_is_depthwise(const zyn_conv_param* p) {
  return p->groups != 1 && p->groups == p->in_channels && p->groups == p->out_channels;
}

// Index of the first bias behind the weights (= number of weights).
inline int64_t zyn_conv_weight_count(const zyn_conv_param* p) {
  const int64_t taps = static_cast<int64_t>(p->kernel_h) * p->kernel_w;
  const int64_t inputs = zyn_conv_is_depthwise(p) ? 1 : p->in_channels;
  return taps * inputs * p->out_channels;
}

// Planar kernels (method 0), layout planar in and out, with the epilogue (null: none).
// Dense, kernel other than 1 x 1. 2: the copied rows could not be allocated.
uint32_t zyn_cg_conv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                            const zyn_conv_param* param,
                            const zyn_conv_epilogue* epilogue = nullptr);
// Dense 1 x 1. 2: as above, where padding or stride make it need copied rows.
uint32_t zyn_cg_conv1x1_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                               const zyn_conv_param* param,
                               const zyn_conv_epilogue* epilogue = nullptr);
// Depthwise. 2: as above.
uint32_t zyn_cg_dwconv_planar(zyn_tensor* output, const zyn_tensor* input, const float* weights,
                              const zyn_conv_param* param,
                              const zyn_conv_epilogue* epilogue = nullptr);

// Parts of the epilogue by themselves, for a host's own kernels (the operators hand the
// whole epilogue to their kernel): from source to output, which are the same tensor or have
// the same shape. The bias behind the weights of a planar output; ReLU over every element,
// in whatever order the channels lie.
uint32_t zyn_cg_conv_add_bias(zyn_tensor* output, const zyn_tensor* source, const float* weights,
                              const zyn_conv_param* param);
uint32_t zyn_cg_conv_relu(zyn_tensor* output, const zyn_tensor* source);

// Blocked kernels (method 1). The names of preparation and release are fixed ones.
struct zyn_conv_blocked_weights;  // packed weights and thread count
zyn_conv_blocked_weights* zyn_cg_conv_prepare_direct(const zyn_tensor* weights,
                                                     const zyn_conv_param* param, int32_t threads);
uint32_t zyn_cg_conv_release_direct(zyn_conv_blocked_weights** workspace);
uint32_t zyn_cg_conv3x3(zyn_tensor* output, const zyn_tensor* input,
                        const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                        const zyn_conv_epilogue* epilogue = nullptr);
uint32_t zyn_cg_dwconv3x3(zyn_tensor* output, const zyn_tensor* input,
                          const zyn_conv_blocked_weights* workspace, const zyn_conv_param* param,
                          const zyn_conv_epilogue* epilogue = nullptr);
// behind: bytes behind the packed weights that come next, which are asked for while this runs.
uint32_t zyn_cg_conv1x1(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* packed,
                        const zyn_conv_param* param, const zyn_conv_epilogue* epilogue = nullptr,
                        int64_t behind = 0);
uint32_t zyn_cg_conv_add_bias_blocked(zyn_tensor* output, const zyn_tensor* source,
                                      const float* weights, const zyn_conv_param* param);

// Planned kernels (method 2).
struct zyn_conv_plan;  // kernel kind, sizes, packed weights and scratch
zyn_conv_plan* zyn_cg_conv_prepare_planned(const zyn_tensor* input, const zyn_tensor* weights,
                                           const zyn_conv_param* param, const uint32_t* threads);
// Without epilogue, for a host's own: nothing in the library calls it.
uint32_t zyn_cg_conv_run_planned(zyn_tensor* output, const zyn_tensor* input,
                                 const zyn_tensor* weights, const zyn_conv_param* param,
                                 const zyn_conv_plan* workspace);
uint32_t zyn_cg_conv_release_planned(zyn_conv_plan** workspace);
// zyn_cg_conv_run_planned with the epilogue (null: none) applied while the sums are still in
// registers: the same bits as afterwards over the planar output.
uint32_t zyn_cg_conv_run_planned_fused(zyn_tensor* output, const zyn_tensor* input,
                                       const zyn_tensor* weights, const zyn_conv_param* param,
                                       const zyn_conv_plan* workspace,
                                       const zyn_conv_epilogue* epilogue);
// Fills every field of a plan but the packed weights. 1: refused (see the kinds in
// zyn_conv_plan.h), the plan is then left as it was.
uint32_t zyn_cg_conv_plan(int32_t input_channels, int32_t output_channels, int32_t input_w,
                          int32_t input_h, int32_t kernel, int32_t pad, int32_t stride,
                          int32_t groups, uint32_t threads, zyn_conv_plan* plan);

// C = alpha * A x B + beta * C, row-major, m x k by k x n; lda, ldb and ldc are row
// lengths in floats. With beta 0, C is not read. Terms are summed in runs of 512. 1: bad
// argument; 2: no memory for the packed blocks; C is then untouched. Nothing in the
// library calls it either.
uint32_t zyn_cg_sgemm(int32_t m, int32_t n, int32_t k, float alpha, float beta, const float* a,
                      int64_t lda, const float* b, int64_t ldb, float* c, int64_t ldc);

// The walk for a host's own packed operands, with the micro-kernel that a plan names; the
// kernels here read B in place instead. output = alpha * A x B + beta * output on packed
// operands (zyn_gemm_pack.h), tile by tile of row_block x panel_width; of the tiles at the
// right and bottom edges only the valid part reaches the output, whose rows lie pitch
// floats apart.
void zyn_gemm_macro(int64_t rows, int64_t columns, int64_t k, float alpha, float beta,
                    float* output, int64_t pitch, const float* weights, const float* panels,
                    int64_t row_block, int64_t panel_width, zyn_gemm_micro micro);
// A planar tensor into blocked order in a tensor of the same size, which is marked
// so.
uint32_t zyn_cg_block_channels(zyn_tensor* output, const zyn_tensor* input);

// A convolution record's pairs by axis. The record's first member of every pair (_h) runs
// along a row of the tensor, the second (_w) from row to row; past this point x is along
// a row and y from row to row, and kernels read these names alone.
#pragma once

#include "zyncore.h"

struct zyn_conv_shape {
  int32_t kernel_x, kernel_y;
  int32_t stride_x, stride_y;
  int32_t pad_x, pad_y;
  int32_t dilation_x, dilation_y;
};

inline zyn_conv_shape zyn_conv_shape_of(const zyn_conv_param* param) {
  return {param->kernel_h, param->kernel_w, param->stride_h,   param->stride_w,
          param->pad_h,    param->pad_w,    param->dilation_h, param->dilation_w};
}

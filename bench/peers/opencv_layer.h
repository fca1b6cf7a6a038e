// A layer as OpenCV's dnn module takes it.
#pragma once
#include <opencv2/core.hpp>
#include <opencv2/dnn.hpp>

#include "common.h"

namespace peers {

// A convolution with bias; the values are copied.
inline cv::dnn::LayerParams opencv_convolution(const Layer& l, float* weights, float* bias) {
  cv::dnn::LayerParams p;
  p.name = "c";
  p.type = "Convolution";
  p.set("kernel_h", l.k.y);
  p.set("kernel_w", l.k.x);
  p.set("stride_h", l.stride.y);
  p.set("stride_w", l.stride.x);
  p.set("pad_h", l.pad.y);
  p.set("pad_w", l.pad.x);
  p.set("dilation_h", l.dilation.y);
  p.set("dilation_w", l.dilation.x);
  p.set("num_output", l.out_c);
  p.set("group", l.groups);
  p.set("bias_term", true);
  const int shape[] = {l.out_c, l.in_c / l.groups, l.k.y, l.k.x};
  p.blobs.push_back(cv::Mat(4, shape, CV_32F, weights).clone());
  p.blobs.push_back(cv::Mat(1, l.out_c, CV_32F, bias).clone());
  return p;
}

}  // namespace peers

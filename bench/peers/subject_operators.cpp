// Single operators as jobs of the comparison harness: "NAME NUMBERS" (bench/README.md), each as
// a network of one node; the changes of channel order, which no node is, by their functions.
#include <cfloat>
#include <memory>

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/zyn_cg_layout.h"
#include "common.h"
#include "network.h"
#include "subject_job.h"

namespace subject {
namespace {

using bench::Tensor;
using Numbers = std::vector<int32_t>;

std::shared_ptr<Tensor> values(const Numbers& dims, uint32_t stream) {
  const auto tensor = std::make_shared<Tensor>(dims);
  for (int64_t i = 0; i < tensor->t->count; i++)
    tensor->data()[i] = peers::operand(static_cast<uint32_t>(i), stream);
  return tensor;
}

int32_t window(zyn_net_writer* writer, int32_t in, int32_t mode, const Numbers& n) {
  const int32_t k = n[3], stride = n[4], pad = n[5];
  const zyn_window_param p = {mode, k, k, stride, stride, 1, 1, pad, pad, pad, pad, 0, 0};
  return zyn_net_writer_node(writer, "", ZYN_OP_RESAMPLE, &p, &in, 1);
}

int32_t doubled(zyn_net_writer* writer, int32_t in, int32_t mode, const Numbers& n) {
  const zyn_resize_param p = {mode, 2 * n[0], 2 * n[1], ZYN_PLACE_HALF_PIXEL, 0, 0, 0};
  return zyn_net_writer_node(writer, "", ZYN_OP_RESAMPLE, &p, &in, 1);
}

int32_t mean(zyn_net_writer* writer, int32_t in) {
  const zyn_reduce_param p = {ZYN_RESAMPLE_REDUCE, 3, ZYN_REDUCE_MEAN};
  return zyn_net_writer_node(writer, "", ZYN_OP_RESAMPLE, &p, &in, 1);
}

int32_t with_constant(zyn_net_writer* writer, int32_t in, int32_t type, const void* param,
                      const Tensor& constant) {
  const int32_t reads[] = {in, zyn_net_writer_constant(writer, "", constant.t)};
  return zyn_net_writer_node(writer, "", type, param, reads, 2);
}

int32_t dense(zyn_net_writer* writer, int32_t in, const Numbers& n) {
  const auto constant = values({n[0] * n[1] + n[1]}, peers::kWeights);
  const auto bias = values({n[1]}, peers::kBias);
  std::copy_n(bias->data(), n[1], constant->data() + static_cast<int64_t>(n[0]) * n[1]);
  const zyn_linear_param p = {static_cast<uint32_t>(n[0]), static_cast<uint32_t>(n[1]), 1};
  return with_constant(writer, in, ZYN_OP_LINEAR, &p, *constant);
}

int32_t function(zyn_net_writer* writer, int32_t in, const zyn_func_param& p) {
  return zyn_net_writer_node(writer, "", ZYN_OP_FUNCTION, &p, &in, 1);
}

int32_t prelu(zyn_net_writer* writer, int32_t in, const Numbers& n) {
  const zyn_func_param p = {ZYN_FUNC_PRELU, 0, 0};
  return with_constant(writer, in, ZYN_OP_FUNCTION, &p, *values({n[2]}, peers::kWeights));
}

int32_t sum(FileNetwork* net, int32_t a, int32_t b) {
  const zyn_join_param p = {ZYN_JOIN_ADD, 0};
  const int32_t reads[] = {a, b};
  return zyn_net_writer_node(net->writer(), "", ZYN_OP_AFFINE, &p, reads, 2);
}

int32_t node(zyn_net_writer* w, int32_t in, const std::string& name, const Numbers& n) {
  if (name == "max") return window(w, in, ZYN_RESAMPLE_MAX_WINDOW, n);
  if (name == "average") return window(w, in, ZYN_RESAMPLE_AVERAGE_WINDOW, n);
  if (name == "mean") return mean(w, in);
  if (name == "dense") return dense(w, in, n);
  if (name == "nearest") return doubled(w, in, ZYN_RESAMPLE_RESIZE_NEAREST, n);
  if (name == "bilinear") return doubled(w, in, ZYN_RESAMPLE_RESIZE_BILINEAR, n);
  if (name == "softmax") return function(w, in, {ZYN_FUNC_SOFTMAX, 0, 0});
  if (name == "relu") return function(w, in, {ZYN_FUNC_CLIP, 0, FLT_MAX});
  if (name == "sigmoid") return function(w, in, {ZYN_FUNC_SIGMOID, 0, 0});
  if (name == "hardswish") return function(w, in, {ZYN_FUNC_HARD_SWISH, 0, 0});
  return name == "prelu" ? prelu(w, in, n) : -1;
}

// "block", planar to channel blocks, and "planes", the other way.
Job order_job(const std::shared_ptr<Tensor>& from, bool block) {
  const zyn_tensor* t = from->t;
  const auto to = std::make_shared<Tensor>(Numbers(t->dims, t->dims + 3));
  if (block) {
    const int64_t pixels = int64_t{t->dims[0]} * t->dims[1];
    return {[=] { zyn_block_planes(to->data(), from->data(), from->t->dims[2], pixels); },
            [=](size_t i) { return double(to->data()[bench::blocked_index(to->t, i)]); }};
  }
  bench::make_blocked(from->t);
  return {[=] { zyn_cg_copy_planar(to->t->data, from->t); },
          [=](size_t i) { return double(to->data()[i]); }};
}

}  // namespace

Job operator_job(std::istringstream& request) {
  std::string name;
  request >> name;
  Numbers n;
  for (int32_t number = 0; request >> number;) n.push_back(number);
  const bool flat = name == "dense" || name == "softmax", pool = name == "max" || name == "average";
  if (n.size() != (flat ? 2u : pool ? 6u : 3u)) return {};
  const auto in =
      values(name == "dense" ? Numbers{n[0], 1} : Numbers(n.begin(), n.begin() + (flat ? 2 : 3)),
             peers::kInput);
  if (name == "block" || name == "planes") return order_job(in, name == "block");
  const auto net = std::make_shared<FileNetwork>();
  const int32_t a = net->input(in->t);
  std::shared_ptr<Tensor> second;
  int32_t result = -1;
  if (name == "add") {
    second = values(n, peers::kMatB);
    result = sum(net.get(), a, net->input(second->t));
  } else {
    result = node(net->writer(), a, name, n);
  }
  net->output(result);
  if (result < 0 || !net->load()) return {};
  return {[=] { net->run(); }, [=](size_t i) { return net->element(i); }};
}

}  // namespace subject

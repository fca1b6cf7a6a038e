// Network building blocks: whole blocks of convolutions bound onto consecutive nodes.
#include "base/zyn_explain.h"
#include "cg/cpu/zyn_cg.h"

namespace {

constexpr float kEpsilon = 1e-5f;
constexpr int32_t kPlainAct = 3;  // outside the activation table: the plain convolution

// One square convolution of a block.
struct layer {
  int32_t type;
  uint32_t in_channels, out_channels;
  uint32_t kernel, stride, pad, groups;
  int32_t activation;  // of types 12 and 13
};

layer pointwise(int32_t type, uint32_t in, uint32_t out, int32_t activation) {
  return {type, in, out, 1, 1, 0, 1, activation};
}

layer depthwise(int32_t type, uint32_t channels, uint32_t stride, int32_t activation) {
  return {type, channels, channels, 3, stride, 1, channels, activation};
}

zyn_conv_param param_of(const layer& l) {
  zyn_conv_param p = {};
  p.in_channels = static_cast<int32_t>(l.in_channels);
  p.out_channels = static_cast<int32_t>(l.out_channels);
  p.kernel_h = p.kernel_w = static_cast<int32_t>(l.kernel);
  p.stride_h = p.stride_w = static_cast<int32_t>(l.stride);
  p.pad_h = p.pad_w = static_cast<int32_t>(l.pad);
  p.dilation_h = p.dilation_w = 1;
  p.groups = static_cast<int32_t>(l.groups);
  p.bias = l.type == ZYN_OP_CONV_BN ? 0 : 1;
  if (l.type == ZYN_OP_CONV_BN) {
    p.word14.epsilon = kEpsilon;
    p.activation = l.activation;
  } else if (l.type == ZYN_OP_CONV_ACT) {
    p.word14.activation = l.activation;
  }
  return p;
}

int32_t bind(zyn_cg_handle* graph, uint32_t node, int32_t type, const void* param) {
  const zyn_cg_node_desc desc = {type, nullptr, 0, nullptr, 0};
  return zyn_bind_operator_onto_computation_graph(graph, static_cast<int32_t>(node), &desc, param);
}

// Binds layers onto node, node + 1, ...; the first failure ends the block.
template <uint32_t Count>
int32_t bind_layers(zyn_cg_handle* graph, uint32_t node, const layer (&layers)[Count]) {
  if (!graph) return zyn_refuse_null("the graph");
  for (uint32_t i = 0; i < Count; i++) {
    const zyn_conv_param param = param_of(layers[i]);
    if (const int32_t code = bind(graph, node + i, layers[i].type, &param)) return code;
  }
  return ZYN_RET_OK;
}

int32_t bind_inverted_residual(uint32_t in, uint32_t out, uint32_t stride, uint32_t residual,
                               uint32_t expand, uint32_t node, zyn_cg_handle* graph,
                               int32_t activation) {
  const uint32_t inner = in * expand;
  const layer layers[] = {pointwise(ZYN_OP_CONV_BN, in, inner, activation),
                          depthwise(ZYN_OP_CONV_BN, inner, stride, activation),
                          pointwise(ZYN_OP_CONV_BN, inner, out, ZYN_ACT_BIAS)};
  const int32_t code = bind_layers(graph, node, layers);
  return code == ZYN_RET_OK && residual ? bind(graph, node + 3, ZYN_OP_ADD, nullptr) : code;
}

}  // namespace

int32_t zyn_bind_std_conv2d(uint32_t in_channels, uint32_t out_channels, uint32_t, uint32_t node,
                            zyn_cg_handle* graph) {
  const layer layers[] = {{ZYN_OP_CONV, in_channels, out_channels, 3, 1, 1, 1, 0}};
  return bind_layers(graph, node, layers);
}

int32_t zyn_bind_base_net_conv_bn(uint32_t in_channels, uint32_t out_channels, uint32_t stride,
                                  uint32_t node, zyn_cg_handle* graph) {
  const layer layers[] = {
      {ZYN_OP_CONV_BN, in_channels, out_channels, 3, stride, 1, 1, ZYN_ACT_RELU}};
  return bind_layers(graph, node, layers);
}

int32_t zyn_bind_base_net_conv_dw(uint32_t channels, uint32_t out_channels, uint32_t stride,
                                  uint32_t node, zyn_cg_handle* graph) {
  const layer layers[] = {depthwise(ZYN_OP_CONV_BN, channels, stride, ZYN_ACT_RELU),
                          pointwise(ZYN_OP_CONV_BN, channels, out_channels, ZYN_ACT_RELU)};
  return bind_layers(graph, node, layers);
}

int32_t zyn_bind_seperable_conv2d(uint32_t in_channels, uint32_t out_channels, uint32_t stride,
                                  uint32_t node, zyn_cg_handle* graph) {
  const layer layers[] = {depthwise(ZYN_OP_CONV_ACT, in_channels, stride, ZYN_ACT_RELU),
                          pointwise(ZYN_OP_CONV_POINTWISE, in_channels, out_channels, 0)};
  return bind_layers(graph, node, layers);
}

int32_t zyn_bind_extra_net(uint32_t c, uint32_t stride, uint32_t node, zyn_cg_handle* graph) {
  const layer layers[] = {pointwise(ZYN_OP_CONV_ACT, 16 * c, 4 * c, ZYN_ACT_RELU),
                          depthwise(ZYN_OP_CONV_ACT, 4 * c, stride, ZYN_ACT_RELU),
                          pointwise(ZYN_OP_CONV_ACT, 4 * c, 16 * c, ZYN_ACT_RELU)};
  return bind_layers(graph, node, layers);
}

int32_t zyn_bind_invert_residual(uint32_t in_channels, uint32_t out_channels, uint32_t stride,
                                 uint32_t residual, uint32_t expand, uint32_t node,
                                 zyn_cg_handle* graph) {
  return bind_inverted_residual(in_channels, out_channels, stride, residual, expand, node, graph,
                                ZYN_ACT_HARD_SWISH);
}

int32_t zyn_bind_invert_residual_relu6(uint32_t in_channels, uint32_t out_channels, uint32_t stride,
                                       uint32_t residual, uint32_t expand, uint32_t node,
                                       zyn_cg_handle* graph) {
  // On purpose: a code outside the table, despite the function's name.
  return bind_inverted_residual(in_channels, out_channels, stride, residual, expand, node, graph,
                                kPlainAct);
}

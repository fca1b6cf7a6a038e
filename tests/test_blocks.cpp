// Building blocks: the records that they bind, and where they stop.
#include <gtest/gtest.h>

#include "cg/cpu/ops/zyn_cg_conv.h"
#include "support/capture.h"

namespace {

using namespace zyn_test;

// A chain of nodes 0 -> 1 -> ... -> 8, sorted, none bound.
struct Chain {
  Chain() {
    printed([&] { graph = zyn_create_computation_graph_handle(nullptr); });
    for (int i = 0; i < 8; i++) zyn_add_one_edge_into_computation_graph(graph, i, i + 1);
    zyn_computation_graph_topo_sort(graph);
  }
  ~Chain() { zyn_release_computation_graph_handle(&graph); }
  // "type in->out k s p groups bias activation epsilon", "-" where unbound.
  std::string text(int id) const {
    const int type = zyn_cg_node_type(graph, id);
    if (type < 0 || type == ZYN_OP_ADD) return type < 0 ? "-" : "27";
    const zyn_conv_param& p =
        static_cast<const zyn_cg_conv_state*>(zyn_cg_record(graph, id))->param;
    EXPECT_TRUE(p.kernel_h == p.kernel_w && p.stride_h == p.stride_w && p.pad_h == p.pad_w &&
                p.dilation_h == 1 && p.dilation_w == 1);
    const bool folded = type == ZYN_OP_CONV_BN;
    const int act = folded ? p.activation : type == ZYN_OP_CONV_ACT ? p.word14.activation : -1;
    char line[160];
    snprintf(line, sizeof(line), "%d %d->%d k%d s%d p%d g%d b%d a%d%s", type, p.in_channels,
             p.out_channels, p.kernel_h, p.stride_h, p.pad_h, p.groups, p.bias, act,
             folded && p.word14.epsilon == 1e-5f ? " e" : "");
    return line;
  }
  zyn_cg_handle* graph = nullptr;
};

struct Block {
  std::vector<const char*> nodes;  // from node 2 on
  int32_t (*bind)(zyn_cg_handle* graph);
};

const Block kBlocks[] = {
    {{"3 7->9 k3 s1 p1 g1 b1 a-1"},
     [](zyn_cg_handle* g) { return zyn_bind_std_conv2d(7, 9, 5, 2, g); }},
    {{"13 3->16 k3 s2 p1 g1 b0 a1 e"},
     [](zyn_cg_handle* g) { return zyn_bind_base_net_conv_bn(3, 16, 2, 2, g); }},
    {{"13 16->16 k3 s2 p1 g16 b0 a1 e", "13 16->32 k1 s1 p0 g1 b0 a1 e"},
     [](zyn_cg_handle* g) { return zyn_bind_base_net_conv_dw(16, 32, 2, 2, g); }},
    {{"12 64->64 k3 s1 p1 g64 b1 a1", "5 64->6 k1 s1 p0 g1 b1 a-1"},
     [](zyn_cg_handle* g) { return zyn_bind_seperable_conv2d(64, 6, 1, 2, g); }},
    {{"12 128->32 k1 s1 p0 g1 b1 a1", "12 32->32 k3 s2 p1 g32 b1 a1",
      "12 32->128 k1 s1 p0 g1 b1 a1"},
     [](zyn_cg_handle* g) { return zyn_bind_extra_net(8, 2, 2, g); }},
    {{"13 8->48 k1 s1 p0 g1 b0 a2 e", "13 48->48 k3 s1 p1 g48 b0 a2 e",
      "13 48->8 k1 s1 p0 g1 b0 a0 e", "27"},
     [](zyn_cg_handle* g) { return zyn_bind_invert_residual(8, 8, 1, 3, 6, 2, g); }},
    {{"13 8->16 k1 s1 p0 g1 b0 a2 e", "13 16->16 k3 s2 p1 g16 b0 a2 e",
      "13 16->4 k1 s1 p0 g1 b0 a0 e"},
     [](zyn_cg_handle* g) { return zyn_bind_invert_residual(8, 4, 2, 0, 2, 2, g); }},
    // On purpose: code 3, whatever the name says.
    {{"13 8->16 k1 s1 p0 g1 b0 a3 e", "13 16->16 k3 s1 p1 g16 b0 a3 e",
      "13 16->8 k1 s1 p0 g1 b0 a0 e", "27"},
     [](zyn_cg_handle* g) { return zyn_bind_invert_residual_relu6(8, 8, 1, 1, 2, 2, g); }}};

// Whole, and with a node that is bound before: the block ends there.
TEST(Blocks, BindTheRecordsOfTheirTableUpToTheFirstFailure) {
  for (const Block& block : kBlocks) {
    EXPECT_SAYS(block.bind(nullptr), 1, "");
    const int count = static_cast<int>(block.nodes.size());
    for (int bad = 0; bad <= count; bad++) {
      Chain chain;
      const zyn_cg_node_desc input = {};
      if (bad < count)
        zyn_bind_operator_onto_computation_graph(chain.graph, 2 + bad, &input, nullptr);
      const std::string text =
          printed([&] { EXPECT_EQ(block.bind(chain.graph), bad < count ? 1 : 0); });
      const std::string bound = "the " + std::to_string(2 + bad) + " th node operator has been";
      EXPECT_EQ(text.find(bound) != std::string::npos, bad < count);
      for (int i = 0; i < bad; i++) EXPECT_EQ(chain.text(2 + i), block.nodes[i]);
      for (int id : {1, 3 + bad}) EXPECT_EQ(chain.text(id), "-");
    }
  }
}

}  // namespace

// Building blocks: the records that they bind, and where they stop.
#include <gtest/gtest.h>

#include <functional>

#include "cg/cpu/ops/zyn_cg_conv.h"
#include "support/capture.h"

namespace {

using namespace zyn_test;

// A chain of nodes 0 -> 1 -> ... -> 8, sorted, none bound.
class Chain {
 public:
  Chain() {
    printed([&] { graph_ = zyn_create_computation_graph_handle(nullptr); });
    for (int i = 0; i < 8; i++) zyn_add_one_edge_into_computation_graph(graph_, i, i + 1);
    zyn_computation_graph_topo_sort(graph_);
  }
  ~Chain() { zyn_release_computation_graph_handle(&graph_); }
  zyn_cg_handle* graph() { return graph_; }
  // Node by node "type in->out k s p groups bias activation epsilon", " -" where unbound.
  std::string text(int first, int count) {
    std::string text;
    for (int id = first; id < first + count; id++) {
      const int type = zyn_cg_node_type(graph_, id);
      char line[160] = "-";
      if (type == ZYN_OP_ADD) snprintf(line, sizeof(line), "27");
      if (type >= 0 && type != ZYN_OP_ADD) {
        const zyn_conv_param& p =
            static_cast<const zyn_cg_conv_state*>(zyn_cg_record(graph_, id))->param;
        EXPECT_EQ(p.kernel_h, p.kernel_w);
        EXPECT_EQ(p.stride_h, p.stride_w);
        EXPECT_EQ(p.pad_h, p.pad_w);
        EXPECT_TRUE(p.dilation_h == 1 && p.dilation_w == 1);
        const bool folded = type == ZYN_OP_CONV_BN;
        const int act = folded ? p.activation : type == ZYN_OP_CONV_ACT ? p.word14.activation : -1;
        snprintf(line, sizeof(line), "%d %d->%d k%d s%d p%d g%d b%d a%d%s", type, p.in_channels,
                 p.out_channels, p.kernel_h, p.stride_h, p.pad_h, p.groups, p.bias, act,
                 folded && p.word14.epsilon == 1e-5f ? " e" : "");
      }
      text += (id > first ? " | " : "") + std::string(line);
    }
    return text;
  }

 private:
  zyn_cg_handle* graph_ = nullptr;
};

struct Block {
  const char* nodes;  // from node 2 on
  std::function<int32_t(zyn_cg_handle*, uint32_t)> bind;
};

const Block kBlocks[] = {
    {"3 7->9 k3 s1 p1 g1 b1 a-1 | -",
     [](zyn_cg_handle* g, uint32_t n) { return zyn_bind_std_conv2d(7, 9, 5, n, g); }},
    {"13 3->16 k3 s2 p1 g1 b0 a1 e | -",
     [](zyn_cg_handle* g, uint32_t n) { return zyn_bind_base_net_conv_bn(3, 16, 2, n, g); }},
    {"13 16->16 k3 s2 p1 g16 b0 a1 e | 13 16->32 k1 s1 p0 g1 b0 a1 e | -",
     [](zyn_cg_handle* g, uint32_t n) { return zyn_bind_base_net_conv_dw(16, 32, 2, n, g); }},
    {"12 64->64 k3 s1 p1 g64 b1 a1 | 5 64->6 k1 s1 p0 g1 b1 a-1 | -",
     [](zyn_cg_handle* g, uint32_t n) { return zyn_bind_seperable_conv2d(64, 6, 1, n, g); }},
    {"12 128->32 k1 s1 p0 g1 b1 a1 | 12 32->32 k3 s2 p1 g32 b1 a1 | 12 32->128 k1 s1 p0 g1 b1 a1 "
     "| -",
     [](zyn_cg_handle* g, uint32_t n) { return zyn_bind_extra_net(8, 2, n, g); }},
    {"13 8->48 k1 s1 p0 g1 b0 a2 e | 13 48->48 k3 s1 p1 g48 b0 a2 e | 13 48->8 k1 s1 p0 g1 b0 a0 e "
     "| 27 | -",
     [](zyn_cg_handle* g, uint32_t n) { return zyn_bind_invert_residual(8, 8, 1, 3, 6, n, g); }},
    {"13 8->16 k1 s1 p0 g1 b0 a2 e | 13 16->16 k3 s2 p1 g16 b0 a2 e | 13 16->4 k1 s1 p0 g1 b0 a0 e "
     "| -",
     [](zyn_cg_handle* g, uint32_t n) { return zyn_bind_invert_residual(8, 4, 2, 0, 2, n, g); }},
    // On purpose: code 3, whatever the name says.
    {"13 8->16 k1 s1 p0 g1 b0 a3 e | 13 16->16 k3 s1 p1 g16 b0 a3 e | 13 16->8 k1 s1 p0 g1 b0 a0 e "
     "| 27 | -",
     [](zyn_cg_handle* g, uint32_t n) {
       return zyn_bind_invert_residual_relu6(8, 8, 1, 1, 2, n, g);
     }}};

int node_count(const Block& block) {
  int count = 0;
  for (const char* c = block.nodes; *c; c++) count += *c == '|';
  return count;
}

TEST(Blocks, BindTheRecordsOfTheirTable) {
  for (const Block& block : kBlocks) {
    Chain chain;
    EXPECT_EQ(block.bind(chain.graph(), 2), 0);
    EXPECT_EQ(chain.text(2, node_count(block) + 1), block.nodes);
    EXPECT_EQ(chain.text(1, 1), "-");
  }
}

TEST(Blocks, NullGraphIsRefusedSilently) {
  for (const Block& block : kBlocks) EXPECT_SAYS(block.bind(nullptr, 2), 1, "");
}

TEST(Blocks, TheFirstBindingThatFailsEndsTheBlock) {
  for (const Block& block : kBlocks)
    for (int bad = 0; bad < node_count(block); bad++) {
      Chain chain;
      zyn_cg_node_desc input = {};
      ASSERT_EQ(zyn_bind_operator_onto_computation_graph(chain.graph(), 2 + bad, &input, nullptr),
                0);
      const std::string text = printed([&] { EXPECT_EQ(block.bind(chain.graph(), 2), 1); });
      EXPECT_NE(text.find("the " + std::to_string(2 + bad) + " th node operator has been bound!"),
                std::string::npos);
      for (int id = 2; id < 7; id++)
        EXPECT_EQ(zyn_cg_node_type(chain.graph(), id) > 0, id < 2 + bad) << id;
    }
}

}  // namespace

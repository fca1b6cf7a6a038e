// Mistakes that people make with graphs: what zyn_cg_check says about each, word for word,
// and that what it foresees is what preparation finds.
#include <gtest/gtest.h>

#include "support/net.h"
#include "zyncore_net.h"

using namespace zyn_test;

namespace {

zyn_conv_param conv(int in, int out, int kernel, int stride = 1, int groups = 1) {
  return {in,     out, kernel, kernel, stride, stride, kernel / 2, kernel / 2,
          {0, 0}, 1,   1,      groups, 1,      {0},    0};
}

// Every finding as "error TEXT" or "warning TEXT".
std::vector<std::string> findings(const zyn_cg_handle* graph) {
  zyn_cg_report* report = nullptr;
  std::vector<std::string> texts;
  const std::string text = printed([&] { EXPECT_EQ(zyn_cg_check(graph, &report), 0); });
  EXPECT_EQ(text, "");
  if (!report) return texts;
  for (int i = 0; i < report->errors + report->warnings; i++)
    texts.push_back((report->findings[i].severity == ZYN_CHECK_ERROR ? "error " : "warning ") +
                    std::string(report->findings[i].text));
  zyn_release_cg_report(&report);
  EXPECT_EQ(report, nullptr);
  return texts;
}

// A network of one operator on an {8, 6, 4} input, with a constant of the given size.
struct OneNode {
  Net net;
  int node = 0;
  template <typename Record>
  OneNode(int type, const Record& record, int constant, uint32_t method = 2, uint32_t fixed = 0,
          uint32_t own_q = 8)
      : net(fixed) {
    net.method(method);
    const int in = net.input(Array({8, 6, 4}, 0.25));
    std::vector<int> from = {in};
    if (constant) from.push_back(net.constant(Array({constant}, 0.25)));
    node = net.op(type, record, from);
    EXPECT_EQ(net.connect(), 0);
    if (fixed) net.q_list(8, {{node, own_q}});
    net.bind();
  }
  std::vector<std::string> check() { return findings(net.graph()); }
};

using Texts = std::vector<std::string>;

}  // namespace

TEST(Check, NothingIsSaidOfASoundGraph) {
  EXPECT_EQ(OneNode(ZYN_OP_CONV, conv(4, 5, 3), 5 * 4 * 9 + 5).check(), Texts());
  EXPECT_EQ(OneNode(ZYN_OP_CONV_GROUPED, conv(4, 6, 3, 1, 2), 6 * 2 * 9 + 6).check(), Texts());
}

TEST(Check, TextsOfMistakesInTheConstantAndTheRecord) {
  const struct {
    const char* name;
    int type;
    zyn_conv_param record;
    int constant;
    uint32_t method;
    Texts texts;
  } cases[] = {
      {"constant one channel short",
       ZYN_OP_CONV,
       conv(4, 5, 3),
       5 * 3 * 9 + 5,
       2,
       {"error node 2 CONV: constant holds 140 floats, 5 x 4 x 3 x 3 weights + 5 biases = 185 are "
        "needed"}},
      {"constant too long",
       ZYN_OP_CONV,
       conv(4, 5, 3),
       200,
       2,
       {"warning node 2 CONV: constant holds 200 floats, 5 x 4 x 3 x 3 weights + 5 biases = 185 "
        "are read and the rest is ignored"}},
      {"in_channels",
       ZYN_OP_CONV,
       conv(3, 5, 3),
       5 * 3 * 9 + 5,
       2,
       {"error node 2 CONV: in_channels is 3, the input (node 0) has 4 channels"}},
      {"no constant",
       ZYN_OP_CONV,
       conv(4, 5, 3),
       0,
       2,
       {"error node 1 CONV: it has no constant: the edge from the node with its weights is "
        "missing"}},
      {"kernel too large",
       ZYN_OP_CONV,
       {4, 5, 9, 9, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 0, {0}, 0},
       1620,
       2,
       {"error node 2 CONV: the output would be 0 x -2: a kernel of 9 x 9 on 8 x 6 with padding 0, "
        "0"}},
      {"stride 0",
       ZYN_OP_CONV,
       {4, 5, 3, 3, 0, 1, 1, 1, {0, 0}, 1, 1, 1, 0, {0}, 0},
       180,
       2,
       {"error node 2 CONV: stride_h is 0, at least 1 is needed"}},
      {"a 1 x 1 kernel as type 3 under method 1",
       ZYN_OP_CONV,
       conv(4, 5, 1),
       25,
       1,
       {"error node 2 CONV: method 1 computes 3 x 3 with padding 1 and strides 1 and 2, found 1 x "
        "1 with padding 0 and stride 1; choose method 0 for this node"}},
      {"depthwise 7 x 7 under method 2",
       ZYN_OP_CONV_DEPTHWISE,
       conv(4, 4, 7, 1, 4),
       200,
       2,
       {"error node 2 CONV_DEPTHWISE: method 2 computes depthwise kernels 3 with padding 1 and 5 "
        "with padding 2, strides 1 and 2, found 7 with 3 and 1; choose method 0 for this node"}},
      {"two groups",
       ZYN_OP_CONV,
       conv(4, 4, 3, 1, 2),
       300,
       2,
       {"error node 2 CONV: 2 groups of 4 channels to 4: this type computes 1 group, or as many as "
        "both channel counts; CONV_GROUPED computes any"}},
      {"three groups of four channels",
       ZYN_OP_CONV_GROUPED,
       conv(4, 6, 3, 1, 3),
       100,
       2,
       {"error node 2 CONV_GROUPED: 3 groups do not divide 4 and 6 channels"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(OneNode(c.type, c.record, c.constant, c.method).check(), c.texts);
  }
  zyn_conv_param five = conv(4, 5, 3);
  five.word14.activation = 5;
  EXPECT_EQ(OneNode(ZYN_OP_CONV_ACT, five, 185).check(),
            Texts({"warning node 2 CONV_ACT: activation code 5 computes nothing here: the output "
                   "is the plain convolution without bias; codes are 0 (bias), 1 (ReLU), 2 "
                   "(hard-swish)"}));
}

TEST(Check, TextsOfMistakesInEdgesAndBindings) {
  zyn_cg_handle* graph = nullptr;
  const zyn_cg_create_param settings = {4, 1, {0, 0}, 0};
  const auto make = [&](std::vector<std::pair<int, int>> edges, bool sort) {
    printed([&] {
      graph = zyn_create_computation_graph_handle(&settings);
      for (const auto& [from, to] : edges) zyn_add_one_edge_into_computation_graph(graph, from, to);
      if (sort) zyn_computation_graph_topo_sort(graph);
    });
    const Texts texts = findings(graph);
    zyn_release_computation_graph_handle(&graph);
    return texts;
  };
  EXPECT_EQ(make({{0, 1}}, false),
            Texts({"error the graph has not been sorted since its last edge was added: call "
                   "zyn_computation_graph_topo_sort before binding"}));
  EXPECT_EQ(make({{0, 1}, {3, 1}}, true),
            Texts({"error no edge names node 2, although the graph has 3 nodes, which must be 0 to "
                   "2: an edge of that node is missing"}));
  EXPECT_EQ(make({{0, 1}, {1, 4}}, true),
            Texts({"error an edge names node 4, but the graph was created for ids 0 to 3: create "
                   "it with max_nodes of at least 5"}));
  EXPECT_EQ(make({{0, 1}, {1, INT32_MAX}}, true),
            Texts({"error an edge names node 2147483647, but the graph was created for ids 0 to 3: "
                   "create it with max_nodes of at least 2147483648"}));
  EXPECT_EQ(make({{0, 1}, {1, 2}, {2, 3}, {3, 1}}, true),
            Texts({"error the edges lead in a circle: 3 > 1 > 2 > 3"}));
  EXPECT_EQ(make({{0, 1}}, true), Texts({"error node 0: has not been bound: call "
                                         "zyn_bind_operator_onto_computation_graph for it",
                                         "error node 1: has not been bound: call "
                                         "zyn_bind_operator_onto_computation_graph for it"}));
}

TEST(Check, TextsOfAMissingDataEdgeAndASecondBinding) {
  Net net;
  const int node = net.op(ZYN_OP_CONV, conv(4, 5, 3), {net.constant(Array({185}, 1))});
  ASSERT_EQ(net.make(), 0);
  const std::string missing =
      "node 1 CONV: it has no input: the edge from the node that it reads is missing";
  EXPECT_EQ(findings(net.graph()), Texts({"error " + missing}));
  EXPECT_EQ(net.prepare(), 1);
  EXPECT_EQ(zyn_error_detail(), missing);  // preparation says the same
  Net nothing;                             // a constant whose descriptor holds no tensor
  nothing.op(ZYN_OP_BATCH_NORM, zyn_bn_param{0, 0},
             {nothing.input(Array({2, 2, 2})), nothing.tensor(ZYN_OP_CONSTANT, nullptr)});
  ASSERT_EQ(nothing.make(), 0);
  EXPECT_EQ(nothing.prepare(), 1);
  EXPECT_STREQ(zyn_error_detail(), "node 1 CONSTANT: its descriptor's data is no tensor");
  Net empty;
  const int32_t dims[] = {2, 2, 2};
  const int none = empty.tensor(ZYN_OP_INPUT, zyn_create_tensor_header(3, dims, ZYN_TYPE_F32));
  empty.op(ZYN_OP_BATCH_NORM, zyn_bn_param{0, 0},
           {none, empty.tensor(ZYN_OP_CONSTANT, zyn_create_tensor_header(3, dims, ZYN_TYPE_F32))});
  ASSERT_EQ(empty.make(), 0);
  const Texts texts = findings(empty.graph());
  EXPECT_EQ(texts.at(0),
            "error node 1 CONSTANT: its tensor has no data: preparation reads constants");
  EXPECT_EQ(texts.at(1), "warning node 0 INPUT: its tensor has no data yet: a run needs them");
  zyn_cg_set_node_name(net.graph(), node, "stem");
  const zyn_cg_node_desc desc = {ZYN_OP_RELU, nullptr, 0, nullptr, 0};
  printed([&] {
    EXPECT_EQ(zyn_bind_operator_onto_computation_graph(net.graph(), node, &desc, nullptr), 1);
  });
  EXPECT_STREQ(zyn_error_detail(),
               "node 1 'stem' CONV: it has been bound before: bind every node once");
}

TEST(Check, TextsOfSharedInputsAndPooling) {
  Net net;
  const int in = net.input(Array({8, 6, 4}, 1));
  const int copy = net.op(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_ABS, 0, 0}, {in});
  net.op(ZYN_OP_RELU, {copy});
  net.op(ZYN_OP_MAX_POOL, zyn_pool_param{3, 3, 2, 2, 0}, {copy});
  ASSERT_EQ(net.make(), 0);
  EXPECT_EQ(findings(net.graph()),
            Texts({"warning node 2 RELU: works in place: node 3, which reads node 1 too, sees the "
                   "activated values; let a copy (FUNCTION, ZYN_FUNC_SCALE_SHIFT, 1, 0) feed the "
                   "activation",
                   "warning node 3 MAX_POOL: its windows are 3 x 3 and advance by 3, whatever "
                   "kernel 3 x 3 and stride 2, 2 say: those make the output's shape alone"}));
}

TEST(Check, TextsOfFixedPoint) {
  OneNode large(ZYN_OP_CONV, conv(4, 5, 3), 185, 2, 1, 30);
  zyn_cg_set_node_name(large.net.graph(), 2, "head.cls");
  EXPECT_EQ(large.check(),
            Texts({"error node 2 'head.cls' CONV: fraction bits: input 8 + weights 15 - output 30 "
                   "= -7, 0 to 31 is needed; give the output at most 23"}));

  Net floats(1);
  const int32_t dims[3] = {8, 6, 4};
  const int in = floats.tensor(ZYN_OP_INPUT, zyn_create_tensor(3, dims, ZYN_TYPE_F32));
  floats.op(ZYN_OP_RELU, {in});
  ASSERT_EQ(floats.make(), 0);
  floats.q_list(8);
  const std::string float_input =
      "node 0 INPUT: its tensor has element type 6, a fixed-point graph reads 16-bit values (type "
      "3)";
  EXPECT_EQ(findings(floats.graph())[0], "error " + float_input);
  EXPECT_EQ(floats.prepare(), 1);
  EXPECT_EQ(zyn_error_detail(), float_input);
}

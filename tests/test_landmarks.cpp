// The landmark network of the examples, every node against its formula in double
// precision, from the same weights.
#include "../examples/landmark_network.h"
#include "support/reference.h"

namespace {

using namespace zyn_test;
using Node = LandmarkNetwork::Node;

Array evaluate(const LandmarkNetwork& net, const Node& node, const std::vector<Array>& values) {
  const Array& in = values[node.from[0]];
  Array constant;
  for (int from : node.from) {
    const Node& source = net.nodes()[from];
    if (source.type == ZYN_OP_CONSTANT) constant = Net::read(source.data);
  }
  switch (node.type) {
    case ZYN_OP_ADD:
      return reference_add(in, values[node.from[1]]);
    case ZYN_OP_AVERAGE_POOL:
      return reference_pool(in, node.record.pool, false);
    case ZYN_OP_CONCAT: {
      std::vector<const Array*> parts;
      for (int from : node.from) parts.push_back(&values[from]);
      return reference_concat(parts, 2);
    }
    case ZYN_OP_RESHAPE:
      return reference_reshape(in, {in.c(), 1});
    case ZYN_OP_LINEAR:
      return reference_linear(in, constant, node.record.linear);
    default:
      return reference_conv_act(in, constant, node.record.conv);
  }
}

TEST(Landmarks, EveryNodeOfTheExampleNetworkIsRight) {
  for (int divisor : {1, 4}) {
    LandmarkNetwork net(5, divisor);
    const std::string text = printed([&] { ASSERT_EQ(net.build(), 0); });
    Array image({112, 112, 3});
    for (size_t i = 0; i < image.v.size(); i++)
      image.v[i] = static_cast<float*>(net.input()->data)[i] =
          static_cast<float>(i * 2654435761u % 256) / 255.0f;
    ASSERT_EQ(net.run(), 0);
    ASSERT_EQ(net.output()->dims[0], 2 * LandmarkNetwork::kPoints);
    std::vector<Array> values;
    for (const Node& node : net.nodes()) {
      const int id = static_cast<int>(values.size());
      values.push_back(!node.from.empty()          ? evaluate(net, node, values)
                       : node.type == ZYN_OP_INPUT ? image
                                                   : Array());
      ASSERT_TRUE(node.from.empty() || agrees(Net::read(net.output(id)), values.back(), 5e-6))
          << "node " << id << " of type " << node.type;
    }
  }
}

}  // namespace

// Callers that change a graph's data between preparation and run, or prepare again with
// other shapes: whatever the codes are, nothing outside the tensors is touched, and the
// graph works again once the data are back. Data end at an inaccessible page.
#include "support/model.h"

using namespace zyn_test;

namespace {

// Another shape for a data node's tensor, with a block of exactly that size, until the
// end of the scope.
class Disguise {
 public:
  Disguise(zyn_tensor* tensor, const std::vector<int>& dims, uint32_t type)
      : tensor_(tensor), before_(*tensor) {
    zyn_tensor* shape =
        zyn_create_tensor_header(static_cast<int32_t>(dims.size()), dims.data(), type);
    *tensor = *shape;
    tensor->owns_data = 0;
    tensor->layout = before_.layout;
    zyn_release_tensor(&shape);
    block_ = std::make_unique<PageEnd<uint8_t>>(static_cast<size_t>(tensor->byte_size));
    tensor->data = block_->data();
  }
  ~Disguise() { *tensor_ = before_; }
  Disguise(const Disguise&) = delete;
  Disguise& operator=(const Disguise&) = delete;

 private:
  zyn_tensor* tensor_;
  zyn_tensor before_;
  std::unique_ptr<PageEnd<uint8_t>> block_;
};

// Shapes near that of a tensor: each extent smaller and larger, extents swapped, another
// number of dimensions.
std::vector<std::vector<int>> other_shapes(const zyn_tensor* tensor) {
  const std::vector<int> dims(tensor->dims, tensor->dims + tensor->dim_count);
  std::vector<std::vector<int>> shapes = {{1}, {static_cast<int>(tensor->count)}};
  for (size_t d = 0; d < dims.size(); d++) {
    for (int extent : {1, dims[d] / 2, dims[d] - 1, dims[d] + 1, 2 * dims[d] + 3}) {
      shapes.push_back(dims);
      shapes.back()[d] = std::max(extent, 1);
    }
    shapes.push_back(dims);
    std::swap(shapes.back()[d], shapes.back()[0]);
  }
  for (int more : {1, 2}) {
    shapes.push_back(dims);
    if (shapes.back().size() < 5) shapes.back().push_back(more);
  }
  if (dims.size() > 1) shapes.emplace_back(dims.begin(), dims.end() - 1);
  return shapes;
}

// Runs a model of one node of a type under every disguise of each of its data nodes.
void run_disguised(Model& model) {
  for (int id = 0; id < model.size(); id++) {
    if (!model.net.is_data(id)) continue;
    zyn_tensor* tensor = model.net.output_tensor(id);
    for (const std::vector<int>& dims : other_shapes(tensor)) {
      SCOPED_TRACE("node " + std::to_string(id) + " as " + ::testing::PrintToString(dims));
      const Disguise disguise(tensor, dims, tensor->type);
      for (uint32_t layout : {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_INTERLEAVED, ZYN_LAYOUT_BLOCKED}) {
        tensor->layout = layout;
        model.net.run();
      }
    }
    const std::vector<int> own(tensor->dims, tensor->dims + tensor->dim_count);
    for (int type : {0, int{ZYN_TYPE_FPI16}, int{ZYN_TYPE_F64}, -1}) {  // -1: no data
      SCOPED_TRACE("node " + std::to_string(id) + " of type " + std::to_string(type));
      const Disguise disguise(tensor, own, type < 0 ? tensor->type : static_cast<uint32_t>(type));
      if (type < 0) tensor->data = nullptr;
      model.net.run();
    }
  }
}

class ChangedInputs : public ::testing::TestWithParam<int> {};

TEST_P(ChangedInputs, StayInsideTheirTensors) {
  const int type = GetParam();
  const bool by_method = std::count(std::begin(kConvTypes), std::end(kConvTypes), type) > 0;
  for (uint64_t seed = 0; seed < 20; seed++) {
    const bool fixed = seed >= 12;
    SCOPED_TRACE("seed " + std::to_string(seed));
    Model model(seed * 7919 + static_cast<uint64_t>(type), fixed);
    if (by_method) model.method(static_cast<uint32_t>(seed % 3));
    model.layout = fixed ? 0 : -1;
    if (model.add(type) < 0) continue;
    const int32_t code = model.prepare();
    if (fixed && code == 4) return;  // a type without a 16-bit form
    ASSERT_EQ(code + model.net.run(), 0);
    const auto before = model.outputs();
    run_disguised(model);
    model.refill();
    ASSERT_EQ(model.net.run(), 0);
    if (fixed) {
      EXPECT_EQ(model.outputs(), before);
    } else {
      model.evaluate();
      model.check(2e-5);
    }
    if (HasFatalFailure()) return;
  }
}

INSTANTIATE_TEST_SUITE_P(Conv, ChangedInputs, ::testing::ValuesIn(kConvTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });
INSTANTIATE_TEST_SUITE_P(Ops, ChangedInputs, ::testing::ValuesIn(kOperatorTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });

// The producer makes another output, the node after it in the order cannot be prepared,
// and so the consumer is never told: it must not touch the output that is gone.
TEST(PreparedAgain, NodesBehindAFailureRefuseToRunAndToBeRead) {
  const int32_t twice[2] = {1, 1};
  const zyn_func_param negate = {ZYN_FUNC_NEGATE, 0, 0};
  for (int type : {ZYN_OP_RELU, ZYN_OP_FUNCTION, ZYN_OP_ADD, ZYN_OP_CONCAT}) {
    SCOPED_TRACE(type);
    Net net;
    const int x = net.input(Array({12, 12, 8}, 1));
    const int producer = net.op(ZYN_OP_FUNCTION, negate, {x});
    const int failing = net.op(ZYN_OP_MAX_POOL, zyn_pool_param{9, 9, 1, 1, 0}, {x});
    const int consumer = type == ZYN_OP_CONCAT ? net.op(type, zyn_concat_param{2, 2, twice}, {1, 1})
                         : type == ZYN_OP_FUNCTION
                             ? net.op(type, negate, {1})
                             : net.op(type, std::vector<int>(type == ZYN_OP_ADD ? 2 : 1, 1));
    ASSERT_EQ(net.go(), 0);
    {
      const Disguise smaller(net.output_tensor(x), {4, 4, 8}, ZYN_TYPE_F32);
      EXPECT_EQ(net.prepare(), ZYN_RET_ERR_MEMORY);
      EXPECT_EQ(net.run(), ZYN_RET_ERR_PARA);
      EXPECT_NE(net.output_tensor(producer), nullptr);
      EXPECT_EQ(net.output_tensor(failing), nullptr);
      EXPECT_EQ(net.output_tensor(consumer), nullptr);
    }
    EXPECT_EQ(net.run(), ZYN_RET_ERR_PARA);  // not before the next preparation
    ASSERT_EQ(net.prepare(), 0);
    EXPECT_EQ(net.run(), 0);
    EXPECT_EQ(net.output(consumer).w(), 12);
  }
}

// An edge that the sort has not seen, against the order: its producer's output of the
// preparation before is about to be replaced.
TEST(PreparedAgain, OutputsOfTheLastTimeAreNoInputs) {
  const zyn_func_param negate = {ZYN_FUNC_NEGATE, 0, 0};
  Net net;
  const int x = net.input(Array({6, 5, 4}, 1));
  const int first = net.op(ZYN_OP_ADD, {x, x});
  const int second = net.op(ZYN_OP_FUNCTION, negate, {first});
  ASSERT_EQ(net.go(), 0);
  zyn_add_one_edge_into_computation_graph(net.graph(), second, first);
  EXPECT_NE(net.prepare(), 0);
  EXPECT_EQ(net.run(), ZYN_RET_ERR_PARA);
}

}  // namespace

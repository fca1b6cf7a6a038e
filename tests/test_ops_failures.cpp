// Every operator type without memory: the n-th allocation of binding, preparation and run
// fails, once or from there on. Nothing is lost but the header that a tensor without data
// loses on purpose; a node whose preparation failed does not run, and the next attempt
// succeeds.
#include "support/ledger.h"
#include "support/model.h"

using namespace zyn_test;

namespace {

class WithoutMemory : public ::testing::TestWithParam<int> {};

Model& with_node(Model& model, int type, uint32_t fixed_point) {
  model.layout = fixed_point ? ZYN_LAYOUT_PLANAR : ZYN_LAYOUT_BLOCKED;
  for (int k = 0; model.add(type) < 0 && k < 20;) k++;
  model.use_leftovers();
  return model;
}

// Bind, prepare and run, of which one fails once the n-th allocation does.
void fail_each(int type, uint64_t seed, uint32_t fixed_point, const Model& usual) {
  until_it_succeeds([&](int n, bool lasting) {
    Model model(seed, fixed_point);
    EXPECT_EQ(with_node(model, type, fixed_point).net.connect(), 0);
    Ledger::fail(n, lasting);
    const int32_t bound = model.net.bind();
    int seen = Ledger::seen();
    if (bound) {
      EXPECT_TRUE(bound == ZYN_RET_ERR_MEMORY && seen >= n);
      Ledger::fail(0, false);
      return seen;
    }
    if (fixed_point) {
      Ledger::fail(0, false);
      model.net.q_list(8);
      Ledger::fail(n - seen, lasting);
    }
    const int32_t prepared = model.net.prepare();
    const int32_t code = prepared ? prepared : model.net.run();
    seen += fixed_point ? Ledger::seen() : Ledger::seen() - seen;
    EXPECT_EQ(code, seen >= n ? ZYN_RET_ERR_MEMORY : 0);
    Ledger::fail(0, false);
    if (prepared) {
      EXPECT_EQ(model.net.run(), ZYN_RET_ERR_PARA);
    }
    if (code) {
      model.refill();  // an in-place activation may have run before the failure
      EXPECT_EQ(model.net.prepare() + model.net.run(), 0);
    }
    EXPECT_EQ(model.outputs(), const_cast<Model&>(usual).outputs());
    return seen;
  });
}

TEST_P(WithoutMemory, EveryStepAnswersTwoAndWorksTheNextTime) {
  for (uint64_t seed : {1, 2, 3})
    for (uint32_t fixed_point : {0u, 1u}) {
      Model usual(seed, fixed_point);
      const int32_t refused = with_node(usual, GetParam(), fixed_point).prepare();
      if (refused == 4) continue;  // a type without a 16-bit form
      ASSERT_EQ(refused + usual.net.run(), 0);
      fail_each(GetParam(), seed, fixed_point, usual);
    }
}

INSTANTIATE_TEST_SUITE_P(Conv, WithoutMemory, ::testing::ValuesIn(kConvTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });
INSTANTIATE_TEST_SUITE_P(Ops, WithoutMemory, ::testing::ValuesIn(kOperatorTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });

TEST(Ops, OutputsThatCannotBeMadeAreReported) {
  const struct {
    int type;
    const char* path;
    int line;  // -1: not a described number
  } sites[] = {{ZYN_OP_LINEAR, "src/cg/cpu/zyn_cg_linear.cpp", 237},
               {ZYN_OP_CHANNEL_SLICE, "src/cg/cpu/zyn_cg_tensor.cpp", 750},
               {ZYN_OP_CONCAT, "src/cg/cpu/zyn_cg_tensor.cpp", 982},
               {ZYN_OP_ADD, "src/cg/cpu/zyn_cg_func.cpp", -1},
               {ZYN_OP_MAX_POOL, "src/cg/cpu/zyn_cg_pool.cpp", -1},
               {ZYN_OP_AVERAGE_POOL, "src/cg/cpu/zyn_cg_pool.cpp", -1},
               {ZYN_OP_BATCH_NORM, "src/cg/cpu/zyn_cg_bn.cpp", -1}};
  for (const auto& site : sites) {
    Ledger ledger;
    Model model(1);
    const int id = model.add(site.type);
    ASSERT_EQ(model.net.make(), 0);
    Ledger::fail(1, true);
    const std::string text = printed([&] { zyn_prepare_inference_computation(model.net.graph()); });
    Ledger::fail(0, false);
    const std::string own = report("Allocating memory error!\n", site.path, site.line);
    const std::string tail = "failed to prepare inference node:" + std::to_string(id) + "!!!";
    const std::string expected =
        report(kMemory, "src/matrix/zyn_tensor.cpp", 53) +
        (site.line > 0 ? own + tail : own.substr(0, own.size() - 3));  // up to "-1\n"
    EXPECT_EQ(site.line > 0 ? text : text.substr(0, expected.size()), expected) << site.type;
  }
}

}  // namespace

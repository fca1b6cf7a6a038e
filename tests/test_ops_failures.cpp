// Every operator type without memory: the n-th allocation of binding, preparation and
// run fails, once or from there on. Nothing is lost but the header that a tensor without
// data loses on purpose, and the next attempt succeeds.
#include "support/ledger.h"
#include "support/model.h"

using zyn_test::Ledger;
using zyn_test::Model;
using zyn_test::printed;
using zyn_test::until_it_succeeds;

namespace {

class WithoutMemory : public ::testing::TestWithParam<int> {};

Model& with_node(Model& model, int type, bool fixed = false) {
  model.layout = fixed ? ZYN_LAYOUT_PLANAR : ZYN_LAYOUT_BLOCKED;
  for (int k = 0; model.add(type) < 0 && k < 20;) k++;
  model.use_leftovers();
  return model;
}

TEST_P(WithoutMemory, PreparationAndRunAnswerTwoAndWorkTheNextTime) {
  for (uint64_t seed : {1, 2, 3})
    until_it_succeeds([&](int n, bool lasting) {
      Model model(seed);
      with_node(model, GetParam());
      EXPECT_EQ(model.net.make(), 0);
      Ledger::fail(n, lasting);
      int32_t code = model.net.prepare();
      if (!code) code = model.net.run();
      const int seen = Ledger::seen();
      EXPECT_EQ(code, seen >= n ? ZYN_RET_ERR_MEMORY : 0);
      Ledger::fail(0, false);
      // An in-place activation may have run before the failure.
      if (code) model.refill();
      if (code) {
        EXPECT_EQ(model.net.prepare() + model.net.run(), 0);
      }
      model.evaluate();
      model.check(2e-5);
      return seen;
    });
}

TEST_P(WithoutMemory, InFixedPointTheSame) {
  for (uint64_t seed : {1, 2, 3}) {
    Model usual(seed, 1);
    const int32_t refused = with_node(usual, GetParam(), true).prepare();
    if (refused == 4) return;  // a type without a 16-bit form
    ASSERT_EQ(refused + usual.net.run(), 0);
    until_it_succeeds([&](int n, bool lasting) {
      Model model(seed, 1);
      EXPECT_EQ(with_node(model, GetParam(), true).net.make(), 0);
      model.net.q_list(8);
      Ledger::fail(n, lasting);
      int32_t code = model.net.prepare();
      if (!code) code = model.net.run();
      const int seen = Ledger::seen();
      EXPECT_EQ(code, seen >= n ? ZYN_RET_ERR_MEMORY : 0);
      Ledger::fail(0, false);
      if (code) {
        model.refill();
        EXPECT_EQ(model.net.prepare() + model.net.run(), 0);
      }
      EXPECT_EQ(model.outputs(), usual.outputs());
      return seen;
    });
  }
}

TEST_P(WithoutMemory, BindingAnswersTwo) {
  until_it_succeeds([&](int n, bool lasting) {
    Model model(5);
    with_node(model, GetParam());
    EXPECT_EQ(model.net.connect(), 0);
    Ledger::fail(n, lasting);
    const int32_t code = model.net.bind();
    const int seen = Ledger::seen();
    EXPECT_EQ(code, seen >= n ? ZYN_RET_ERR_MEMORY : 0);
    Ledger::fail(0, false);
    return seen;
  });
}

INSTANTIATE_TEST_SUITE_P(Conv, WithoutMemory, ::testing::ValuesIn(zyn_test::kConvTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });
INSTANTIATE_TEST_SUITE_P(Ops, WithoutMemory, ::testing::ValuesIn(zyn_test::kOperatorTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });

TEST(Ops, OutputsThatCannotBeMadeAreReported) {
  const struct {
    int type;
    const char* path;
    int line;
  } sites[] = {{ZYN_OP_LINEAR, "src/cg/cpu/zyn_cg_linear.cpp", 237},
               {ZYN_OP_CHANNEL_SLICE, "src/cg/cpu/zyn_cg_tensor.cpp", 750},
               {ZYN_OP_CONCAT, "src/cg/cpu/zyn_cg_tensor.cpp", 982},
               {ZYN_OP_ADD, "src/cg/cpu/zyn_cg_func.cpp", -1},
               {ZYN_OP_MAX_POOL, "src/cg/cpu/zyn_cg_pool.cpp", -1},
               {ZYN_OP_AVERAGE_POOL, "src/cg/cpu/zyn_cg_pool.cpp", -1},
               {ZYN_OP_BATCH_NORM, "src/cg/cpu/zyn_cg_bn.cpp", -1}};
  for (const auto& site : sites) {
    SCOPED_TRACE(site.type);
    Ledger ledger;
    Model model(1);
    const int id = model.add(site.type);
    ASSERT_EQ(model.net.make(), 0);
    Ledger::fail(1, true);
    const std::string text = printed([&] { zyn_prepare_inference_computation(model.net.graph()); });
    Ledger::fail(0, false);
    const std::string own = zyn_test::report("Allocating memory error!\n", site.path, site.line);
    const std::string tail = "failed to prepare inference node:" + std::to_string(id) + "!!!";
    const std::string expected =
        zyn_test::report("Allocating memory failure! ", "src/matrix/zyn_tensor.cpp", 53) +
        (site.line > 0 ? own + tail : own.substr(0, own.size() - 3));  // up to "-1\n"
    EXPECT_EQ(site.line > 0 ? text : text.substr(0, expected.size()), expected);
  }
}

}  // namespace

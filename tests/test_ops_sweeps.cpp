// Every operator type alone over seeded sweeps, and random graphs of all of them, against
// the formulas in double precision, with inputs in every channel order.
#include "support/model.h"

using zyn_test::Model;

namespace {

constexpr int kTypes[] = {ZYN_OP_CONV_GROUPED,
                          ZYN_OP_CONV_TRANSPOSED,
                          ZYN_OP_FUNCTION,
                          ZYN_OP_BATCH_NORM,
                          ZYN_OP_BATCH_NORM_FAST,
                          ZYN_OP_SIGMOID,
                          ZYN_OP_RELU,
                          ZYN_OP_RELU6,
                          ZYN_OP_HARD_SWISH,
                          ZYN_OP_MAX_POOL,
                          ZYN_OP_AVERAGE_POOL,
                          ZYN_OP_MISH,
                          ZYN_OP_LINEAR,
                          ZYN_OP_ADD,
                          ZYN_OP_MULTIPLY,
                          ZYN_OP_RESAMPLE,
                          ZYN_OP_AFFINE,
                          ZYN_OP_RESHAPE,
                          ZYN_OP_CONCAT,
                          ZYN_OP_CHANNEL_SLICE,
                          ZYN_OP_CHANNEL_GATHER};

class EveryType : public ::testing::TestWithParam<int> {};

TEST_P(EveryType, FollowsItsFormulaInEveryChannelOrder) {
  int checked = 0;
  for (uint64_t seed = 0; seed < 120; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Model model(seed * 1000003 + static_cast<uint64_t>(GetParam()));
    static constexpr int kLayouts[3] = {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_BLOCKED, -1};
    model.layout = kLayouts[seed % 3];
    if (model.add(GetParam()) < 0) continue;
    ASSERT_EQ(model.net.go(), 0);
    model.evaluate();
    // Places far out in the image are rounded to float.
    model.check(GetParam() == ZYN_OP_AFFINE ? 2e-5 : 2e-6);
    if (HasFatalFailure()) return;
    checked++;
  }
  EXPECT_GT(checked, 60);
}

INSTANTIATE_TEST_SUITE_P(Ops, EveryType, ::testing::ValuesIn(kTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });

TEST(Ops, RandomGraphsAgreeWithTheirReference) {
  for (uint64_t seed = 0; seed < 500; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Model model(seed + 77);
    model.layout = -1;
    const int nodes = model.random.integer(3, 30);
    while (model.size() < nodes)
      model.add(kTypes[model.random.integer(0, static_cast<int>(std::size(kTypes)) - 1)], true);
    model.use_leftovers();
    ASSERT_EQ(model.net.go(), 0);
    model.evaluate();
    model.check(1e-4);
    if (HasFatalFailure()) return;
  }
}

}  // namespace

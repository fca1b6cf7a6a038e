// Every operator type alone over seeded sweeps, and random graphs of all of them, against
// the formulas in double precision, with inputs in every channel order.
#include "support/model.h"

using namespace zyn_test;

namespace {

class EveryType : public ::testing::TestWithParam<int> {};

TEST_P(EveryType, FollowsItsFormulaInEveryChannelOrder) {
  const bool conv = std::count(std::begin(kConvTypes), std::end(kConvTypes), GetParam()) > 0;
  int checked = 0;
  for (uint64_t seed = 0; seed < 120; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Model model(seed * 1000003 + static_cast<uint64_t>(GetParam()));
    static constexpr int kLayouts[3] = {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_BLOCKED, -1};
    model.layout = kLayouts[seed % 3];
    model.method(conv ? static_cast<uint32_t>(seed / 3 % 3) : 2);
    if (model.add(GetParam()) < 0) continue;
    ASSERT_EQ(model.net.go(), 0);
    model.evaluate();
    // Places far out in the image are rounded to float.
    model.check(conv ? 1e-5 : GetParam() == ZYN_OP_AFFINE ? 2e-5 : 2e-6);
    if (HasFatalFailure()) return;
    checked++;
  }
  EXPECT_GT(checked, 60);
}

INSTANTIATE_TEST_SUITE_P(Conv, EveryType, ::testing::ValuesIn(kConvTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });
INSTANTIATE_TEST_SUITE_P(Ops, EveryType, ::testing::ValuesIn(kOperatorTypes),
                         [](const auto& info) { return "Type" + std::to_string(info.param); });

// Constants of which 60 % lie below the normal range, and the same with zeros instead.
TEST(Ops, DenormalConstantsAreZeros) {
  std::vector<int> types(std::begin(kConvTypes), std::end(kConvTypes));
  types.insert(types.end(), std::begin(kOperatorTypes), std::end(kOperatorTypes));
  int differ = 0;
  for (uint64_t seed = 0; seed < 20; seed++)
    for (int type : types) {
      Model with(seed), without(seed);
      const bool conv = std::count(std::begin(kConvTypes), std::end(kConvTypes), type) > 0;
      for (Model* model : {&with, &without})
        model->method(conv ? static_cast<uint32_t>(seed % 3) : 2);
      if (with.add(type) < 0 || without.add(type) < 0) continue;
      for (Model* model : {&with, &without}) {
        Random random(seed + 1);
        for (int id = 0; id < model->size(); id++) {
          if (!model->net.is_constant(id)) continue;
          Array values = model->net.output(id);
          for (double& v : values.v)
            if (random.integer(0, 4) < 3) v = model == &with ? 1e-39 : 0;
          model->net.fill(id, values);
        }
        ASSERT_EQ(model->net.go(), 0);
      }
      const int last = with.size() - 1;
      const Array got = with.net.output(last), expected = without.net.output(last);
      EXPECT_TRUE(agrees(got, expected, 0)) << "type " << type << " seed " << seed;
      differ++;
    }
  EXPECT_GT(differ, 200);
}

TEST(Ops, RandomGraphsAgreeWithTheirReference) {
  for (uint64_t seed = 0; seed < 600; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Model model(seed + 77);
    model.layout = -1;
    model.method(static_cast<uint32_t>(seed % 3));
    const int nodes = model.random.integer(3, 30);
    while (model.size() < nodes) {
      const bool conv = model.random.integer(0, 3) == 0;
      const int other = model.random.integer(0, static_cast<int>(std::size(kOperatorTypes)) - 1);
      model.add(conv ? kConvTypes[model.random.integer(0, 4)] : kOperatorTypes[other], true);
    }
    model.use_leftovers();
    ASSERT_EQ(model.net.go(), 0);
    model.evaluate();
    model.check(1e-4);
    if (HasFatalFailure()) return;
  }
}

}  // namespace

// Outputs of operators that cannot be made.
#include "support/ledger.h"
#include "support/model.h"

using zyn_test::Ledger;
using zyn_test::Model;
using zyn_test::printed;

namespace {

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

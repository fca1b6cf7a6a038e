// Failing allocations for calls that may lose a tensor header on purpose: remembers which
// blocks came and did not go.
#pragma once

#include <map>

#include "support/failing.h"
#include "zyncore.h"

namespace zyn_test {

class Ledger : public FailingAllocations {
 public:
  Ledger() : FailingAllocations(0, false, {remembered, forgotten}) {
    live().clear();
    last() = lost() = nullptr;
  }
  ~Ledger() {
    // What may be left is a tensor's header, made just before its data could not be: it is
    // handed back for the next test.
    EXPECT_LE(live().size(), 1u);
    EXPECT_TRUE(live().empty() || live().begin()->first == lost());
    while (!live().empty()) {
      EXPECT_EQ(live().begin()->second, sizeof(zyn_tensor) + 48);
      auto* block = static_cast<uint8_t*>(live().begin()->first) + 16;
      while (reinterpret_cast<uintptr_t>(block) % 32) block++;
      zyn_free(block);
    }
  }
  static int seen() { return static_cast<int>(FailingAllocations::seen()); }

 private:
  static std::map<void*, size_t>& live() {
    static std::map<void*, size_t> blocks;
    return blocks;
  }
  static void*& last() {
    static void* block;
    return block;
  }
  static void*& lost() {  // the block before the first failure
    static void* block;
    return block;
  }
  static void* remembered(size_t bytes) {
    void* block = allocate(bytes);
    if (block) live()[last() = block] = bytes;
    if (!block && !lost()) lost() = last();
    return block;
  }
  static void forgotten(void* block) {
    live().erase(block);
    free(block);
  }
};

// Calls attempt(n) with the n-th allocation failing until it meets no failure.
template <typename Attempt>
inline void until_it_succeeds(Attempt attempt) {
  for (bool lasting : {false, true})
    for (int n = 1, seen = 1; seen >= n; n++) {
      SCOPED_TRACE("allocation " + std::to_string(n) + (lasting ? " and later fail" : " fails"));
      ASSERT_LT(n, 100);
      Ledger ledger;
      seen = attempt(n, lasting);
      if (::testing::Test::HasFatalFailure()) return;
    }
}

}  // namespace zyn_test

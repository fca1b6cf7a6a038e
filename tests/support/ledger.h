// Failing allocations for calls that may lose a tensor header on purpose: remembers which
// blocks came and did not go.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "base/zyn_memory.h"

namespace zyn_test {

// Fails allocations and remembers which blocks came and did not go.
class Ledger {
 public:
  Ledger() {
    static constexpr zyn_system_allocator kHooks = {allocate, release};
    before_ = zyn_set_system_allocator(&kHooks);
    live().clear();
    fail(0, false);
  }
  ~Ledger() {
    // What is left are lost tensor headers: they are handed back for the next test.
    EXPECT_LE(live().size(), 1u);
    while (!live().empty()) {
      EXPECT_EQ(live().begin()->second, sizeof(zyn_tensor) + 48);
      auto* block = static_cast<uint8_t*>(live().begin()->first) + 16;
      while (reinterpret_cast<uintptr_t>(block) % 32) block++;
      zyn_free(block);
    }
    zyn_set_system_allocator(&before_);
  }
  // The n-th allocation from now on fails; 0: none.
  static void fail(int n, bool lasting) { state() = {n, lasting, 0}; }
  static int seen() { return state().seen; }

 private:
  struct State {
    int n;
    bool lasting;
    int seen;
  };
  static State& state() {
    static State value;
    return value;
  }
  static std::map<void*, size_t>& live() {
    static std::map<void*, size_t> blocks;
    return blocks;
  }
  static void* allocate(size_t bytes) {
    State& s = state();
    s.seen++;
    if (s.n > 0 && (s.lasting ? s.seen >= s.n : s.seen == s.n)) return nullptr;
    void* block = malloc(bytes);
    live()[block] = bytes;
    return block;
  }
  static void release(void* block) {
    live().erase(block);
    free(block);
  }
  zyn_system_allocator before_;
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

// Makes library allocations fail: the n-th one, once or from there on. Memory that comes
// is full of rubbish.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "base/zyn_memory.h"

namespace zyn_test {

class FailingAllocations {
 public:
  // The n-th allocation from now on (1 is the next) fails; persistent: all later ones
  // too. n = 0 only counts.
  explicit FailingAllocations(int64_t n, bool persistent = false,
                              zyn_system_allocator hooks = {allocate, free}) {
    fail(n, persistent);
    before_ = zyn_set_system_allocator(&hooks);
  }
  ~FailingAllocations() { zyn_set_system_allocator(&before_); }
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  static int64_t seen() { return state().seen; }
  // Counts again from now on.
  static void fail(int64_t n, bool persistent) { state() = {n, persistent, 0}; }

 protected:
  static void* allocate(size_t bytes) {
    State& s = state();
    s.seen++;
    if (s.n > 0 && (s.persistent ? s.seen >= s.n : s.seen == s.n)) return nullptr;
    void* block = malloc(bytes);
    return block ? memset(block, 0xCD, bytes) : nullptr;
  }

 private:
  struct State {
    int64_t n;
    bool persistent;
    int64_t seen;
  };
  static State& state() {
    static State value;
    return value;
  }
  zyn_system_allocator before_;
};

// Calls attempt(n, persistent) with the n-th allocation failing, n = 1, 2, ... until an
// attempt meets no failure, for single and for lasting failures. attempt runs the
// code under test, checks what a failure must leave, and returns whether the code
// reported success. Returns the number of allocations of a successful run.
template <typename Attempt>
int64_t for_each_failing_allocation(Attempt attempt) {
  int64_t needed = 0;
  for (bool persistent : {false, true}) {
    for (int64_t n = 1;; n++) {
      SCOPED_TRACE("allocation " + std::to_string(n) + (persistent ? " and later fail" : " fails"));
      bool success = false;
      int64_t seen = 0;
      {
        FailingAllocations failing(n, persistent);
        success = attempt(n, persistent);
        seen = FailingAllocations::seen();
      }
      if (seen < n) {
        EXPECT_TRUE(success) << "fails without a failing allocation";
        needed = n - 1;
        break;
      }
      if (n > 100000) {
        ADD_FAILURE() << "never succeeds";
        return n;
      }
    }
  }
  return needed;
}

}  // namespace zyn_test

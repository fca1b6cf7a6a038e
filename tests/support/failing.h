// Makes library allocations fail: the n-th one, once or from there on. Memory that comes
// is full of rubbish.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <map>
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
  ~FailingAllocations() {
    zyn_set_system_allocator(&before_);
    bound_ = SIZE_MAX;
  }
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  // Counts again from now on.
  static void fail(int64_t n, bool persistent) { n_ = n, persistent_ = persistent, seen_ = 0; }
  static int64_t seen() { return seen_; }
  // Larger requests fail, until the end of the scope.
  static void bound(size_t bytes) { bound_ = bytes; }

 protected:
  static void* allocate(size_t bytes) {
    seen_++;
    if (bytes > bound_) return nullptr;
    if (n_ > 0 && (persistent_ ? seen_ >= n_ : seen_ == n_)) return nullptr;
    void* block = malloc(bytes);
    return block ? memset(block, 0xCD, bytes) : nullptr;
  }

 private:
  inline static int64_t n_, seen_;
  inline static size_t bound_ = SIZE_MAX;
  inline static bool persistent_;
  zyn_system_allocator before_;
};

// For calls that may lose a tensor's header on purpose: remembers which blocks came and
// did not go. What may be left is a header made just before its data could not be; it is
// handed back for the next test.
class Ledger : public FailingAllocations {
 public:
  Ledger() : FailingAllocations(0, false, {remembered, forgotten}) { last_ = lost_ = nullptr; }
  ~Ledger() {
    EXPECT_LE(live_.size(), 1u);
    while (!live_.empty()) {
      const auto [block, bytes] = *live_.begin();
      // A session that keeps blocks asks for powers of two.
      EXPECT_TRUE(block == lost_ &&
                  (bytes == sizeof(zyn_tensor) + 48 || bytes == kKeptHeader + 48));
      zyn_free(reinterpret_cast<void*>((reinterpret_cast<uintptr_t>(block) + 47) / 32 * 32));
    }
  }
  static int seen() { return static_cast<int>(FailingAllocations::seen()); }

 private:
  static constexpr size_t kKeptHeader = sizeof(zyn_tensor) <= 128 ? 128 : 256;
  inline static std::map<void*, size_t> live_;
  inline static void *last_, *lost_;  // lost: the block before the first failure
  static void* remembered(size_t bytes) {
    void* block = allocate(bytes);
    if (block) live_[last_ = block] = bytes;
    if (!block && !lost_) lost_ = last_;
    return block;
  }
  static void forgotten(void* block) {
    live_.erase(block);
    free(block);
  }
};

// Calls attempt(n, lasting) with a ledger for n = 1, 2, ..., for single and for lasting
// failures, until it answers that it saw fewer than n allocations.
template <typename Attempt>
void until_it_succeeds(Attempt attempt) {
  for (bool lasting : {false, true})
    for (int64_t n = 1;; n++) {
      SCOPED_TRACE("allocation " + std::to_string(n) + (lasting ? " and later fail" : " fails"));
      ASSERT_LT(n, 100000) << "never succeeds";
      Ledger ledger;
      const int64_t seen = attempt(static_cast<int>(n), lasting);
      if (seen < n || ::testing::Test::HasFatalFailure()) break;
    }
}

// The same with the n-th allocation failing. attempt runs the code under test, checks what
// a failure must leave, and returns whether the code reported success. Returns the number
// of allocations of a successful run.
template <typename Attempt>
int64_t for_each_failing_allocation(Attempt attempt) {
  int64_t needed = 0;
  until_it_succeeds([&](int64_t n, bool persistent) {
    const FailingAllocations failing(n, persistent);
    const bool success = attempt(n, persistent);
    const int64_t seen = FailingAllocations::seen();
    EXPECT_TRUE(success || seen >= n) << "fails without a failing allocation";
    needed = n - 1;
    return seen;
  });
  return needed;
}

}  // namespace zyn_test

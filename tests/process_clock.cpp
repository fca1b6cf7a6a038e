// The clock's first reading in a process finds its frequency.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "zyncore.h"

TEST(ClockFirstUse, TheFirstReadingIsAlreadyInMilliseconds) {
  const double first = zyn_get_current_system_time();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_GE(first, 0.0);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const double elapsed = zyn_get_current_system_time() - first;
  const std::chrono::duration<double, std::milli> expected =
      std::chrono::steady_clock::now() - start;
  EXPECT_NEAR(elapsed, expected.count(), 20.0);
}

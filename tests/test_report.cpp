// The message table and the version.
#include <gtest/gtest.h>

#include "zyncore.h"

namespace {

TEST(Report, TableHoldsTheTextsByteForByte) {
  const char* const expected[13] = {"Good! Normal return!",
                                    "Your input params are wrong!",
                                    "Allocating memory failure! ",
                                    "Current version can not support!",
                                    "Opening file errors!",
                                    "Data are uninitialized!",
                                    "Unknown error!",
                                    "Arriving the end of the file!",
                                    "Data are waiting!",
                                    "Data length is not enough!",
                                    "Data was already exits!",
                                    "Data not found!",
                                    "Faled to lock thread"};
  for (int i = 0; i < 13; i++) EXPECT_STREQ(zyn_error_string[i], expected[i]) << i;
}

TEST(Report, TheVersionIsTheHeaders) {
  EXPECT_EQ(zyn_version() / 10000, uint32_t{ZYN_VERSION_MAJOR});
  EXPECT_EQ(zyn_version() / 100 % 100, uint32_t{ZYN_VERSION_MINOR});
  EXPECT_EQ(zyn_version() % 100, uint32_t{ZYN_VERSION_PATCH});
}

}  // namespace

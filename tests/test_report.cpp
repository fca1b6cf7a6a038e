// The message table.
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

}  // namespace

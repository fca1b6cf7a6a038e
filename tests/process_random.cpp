// The random sequence of a process, from its first draw on, against a transcription of
// MT19937 and the polar method that shares nothing with the library's.
#include <gtest/gtest.h>
#include <math.h>

#include <random>

#include "matrix/zyn_random.h"
#include "support/buffers.h"
#include "zyncore.h"

namespace {

class Polar {
 public:
  uint32_t bits() { return static_cast<uint32_t>(twister_()); }
  double normal() {
    if (half_) return half_ = false, kept_;
    for (;;) {
      const double u = bits() / 2147483648.0 - 1, v = bits() / 2147483648.0 - 1;
      const double s = u * u + v * v;
      if (s <= 1e-10 || s >= 1) continue;
      const double f = sqrt(-2.0 * log(s) / s);
      half_ = true;
      kept_ = v * f;
      return u * f;
    }
  }

 private:
  std::mt19937 twister_;  // seeded with 5489
  bool half_ = false;
  double kept_ = 0;
};

template <typename T>
void expect_same(Polar& polar, int rows, int cols, int pages, int type, T mean, T deviation) {
  zyn_matrix matrix;
  ASSERT_EQ(zyn_set_matrix_header(&matrix, rows, cols, pages, type), 0);
  zyn_test::PageEnd<T> block(static_cast<size_t>(matrix.row_bytes) * rows * pages / sizeof(T));
  matrix.data = block.data();
  ASSERT_EQ(zyn_random_norm(&matrix, &mean, &deviation), 0);
  for (T value : block)
    ASSERT_EQ(value, static_cast<T>(polar.normal() * deviation + mean)) << rows << " x " << cols;
}

TEST(RandomSequence, IsTheSameInEveryProcess) {
  Polar polar;
  EXPECT_EQ(zyn_random_u32(), 3499211612u);
  EXPECT_EQ(polar.bits(), 3499211612u);
  // Refused calls draw nothing.
  float one = 1;
  zyn_matrix m;
  zyn_set_matrix_header(&m, 2, 2, 1, 0);
  m.data = &one;
  EXPECT_EQ(zyn_random_norm(&m, &one, &one), 4);
  EXPECT_EQ(zyn_random_norm(&m, nullptr, &one), 1);
  // Odd counts leave half a round to the next call, whatever its type.
  expect_same<float>(polar, 1, 3, 1, 6, 0, 1);
  expect_same<double>(polar, 3, 3, 3, 7, 5, 0.25);
  expect_same<double>(polar, 1, 1, 1, 7, -1, 3);
  expect_same<float>(polar, 2, 5, 1, 22, 2, 0.5f);
  expect_same<float>(polar, 5, 3, 1, 6, 5, 0);
  expect_same<float>(polar, 317, 315, 1, 6, 1, 2);
  expect_same<double>(polar, 101, 991, 1, 7, 0.1, 1e-3);
  EXPECT_EQ(zyn_random_u32(), polar.bits());
}

}  // namespace

// The linear solver: residuals of random systems, pivoting, refusals.
#include <cmath>
#include <limits>

#include "matrix/zyn_matrix_ops.h"
#include "support/capture.h"
#include "support/matrices.h"

namespace {

using namespace zyn_test;

template <typename T>
class Solve : public ::testing::Test {};
using Floats = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Solve, Floats);

// Elimination with partial pivoting leaves |b - a x| <= c n eps growth |a| |x|.
template <typename T>
double relative_residual(const Matrix<T>& a, const Matrix<T>& x, const Matrix<T>& b) {
  double worst = 0, largest_a = 0, largest_x = 0;
  for (int r = 0; r < a.rows(); r++) {
    double sum = 0;
    for (int c = 0; c < a.cols(); c++) sum += fabs(a.at(r, c));
    largest_a = fmax(largest_a, sum);
    for (int c = 0; c < x.cols(); c++) largest_x = fmax(largest_x, fabs(double{x.at(r, c)}));
  }
  for (int r = 0; r < a.rows(); r++)
    for (int c = 0; c < x.cols(); c++) {
      long double rest = b.at(r, c);
      for (int l = 0; l < a.cols(); l++) rest -= static_cast<long double>(a.at(r, l)) * x.at(l, c);
      worst = fmax(worst, static_cast<double>(fabsl(rest)));
    }
  return worst / (largest_a * largest_x * std::numeric_limits<T>::epsilon());
}

TYPED_TEST(Solve, ResidualsStayAtRoundingLevel) {
  Random random(11);
  const int cases = soak(4000, 100000);
  for (int i = 0; i < cases; i++) {
    const int n = random.integer(1, 12), columns = random.integer(1, 11);
    Matrix<TypeParam> a(n, n), x(n, columns), b(n, columns);
    a.reals(random);
    b.reals(random);
    Matrix<TypeParam> copy(n, n, i % 2 ? n + 3 : 0);
    copy.fill([&](int r, int c) { return a.at(r, c); });
    ASSERT_EQ(zyn_solve_linear(x.get(), copy.get(), b.get()), 0) << "case " << i;
    // The right-hand side may share its block with the result.
    Matrix<TypeParam> shared(n, columns);
    shared.fill([&](int r, int c) { return b.at(r, c); });
    copy.fill([&](int r, int c) { return a.at(r, c); });
    ASSERT_EQ(zyn_solve_linear(shared.get(), copy.get(), shared.get()), 0);
    ASSERT_EQ(shared.difference([&](int r, int c) { return double{x.at(r, c)}; }), "") << i;
    ASSERT_LE(relative_residual(a, x, b), 4 * n) << "case " << i << ", " << n << " x " << columns;
  }
}

TYPED_TEST(Solve, TheFirstOfEqualPivotsIsTaken) {
  // Without rounding either choice gives the same x; the row that is left in place tells
  // which one was taken.
  Matrix<TypeParam> a(3, 3), b(3, 1), x(3, 1);
  const int rows[3][3] = {{1, 0, 0}, {-4, 8, 0}, {4, 0, 16}};
  a.fill([&](int r, int c) { return rows[r][c]; });
  b.fill([](int r, int) { return r; });
  EXPECT_EQ(zyn_solve_linear(x.get(), a.get(), b.get()), 0);
  EXPECT_EQ(a.at(0, 0), TypeParam(-0.25));
}

TYPED_TEST(Solve, PivotsBelowTheEpsilonAreRefusedWithOneLine) {
  const double epsilon = sizeof(TypeParam) == 4 ? 1.1920929e-07 : 2.220446049250313e-16;
  const double below =
      static_cast<double>(std::nextafter(static_cast<TypeParam>(epsilon), TypeParam{}));
  const struct {
    double a[4];
    bool singular;
  } cases[] = {{{1, 2, 2, 4}, true},
               {{0, 0, 0, 0}, true},
               {{1, 0, 0, 1e-8}, sizeof(TypeParam) == 4},
               {{1, 0, 0, -epsilon}, false},
               {{epsilon, 0, 0, 1}, false},
               {{1, 0, 0, -below}, true},
               {{below, 0, 0, 1}, true}};
  for (const auto& c : cases) {
    Matrix<TypeParam> a(2, 2), b(2, 1), x(2, 1);
    a.fill([&](int r, int j) { return c.a[2 * r + j]; });
    b.fill([](int, int) { return 1; });
    EXPECT_SAYS(zyn_solve_linear(x.get(), a.get(), b.get()), c.singular ? 32 : 0,
                c.singular ? "\nIt's not a full rank matrix\n" : "");
    EXPECT_TRUE(c.singular || fabs(x.at(1, 0) * c.a[3] - 1) < 1e-6);
  }
}

TEST(SolveContracts, Refusals) {
  Matrix<float> a(2, 2), b(2, 3), x(2, 3), tall(3, 3), wide(2, 4);
  Matrix<double> other(2, 3);
  uint8_t bytes[4] = {1, 0, 0, 1};
  zyn_matrix m;
  zyn_set_matrix_header(&m, 2, 2, 1, 0);
  zyn_matrix* const bad[][3] = {{nullptr, a.get(), b.get()},     {x.get(), nullptr, b.get()},
                                {x.get(), a.get(), nullptr},     {other.get(), a.get(), b.get()},
                                {x.get(), a.get(), other.get()}, {x.get(), wide.get(), b.get()},
                                {tall.get(), a.get(), b.get()},  {wide.get(), a.get(), b.get()},
                                {x.get(), a.get(), tall.get()},  {&m, &m, &m}};
  for (const auto& c : bad) EXPECT_SAYS(zyn_solve_linear(c[0], c[1], c[2]), 1, "");
  m.data = bytes;
  EXPECT_SAYS(zyn_solve_linear(&m, &m, &m), 4,
              report(kSupport, "src/matrix/zyn_solve_linear.cpp", 69));
}

}  // namespace

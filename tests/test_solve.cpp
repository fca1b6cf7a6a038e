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
TYPED_TEST(Solve, ResidualsStayAtRoundingLevel) {
  Random random(11);
  const int cases = soak(4000, 100000);
  for (int i = 0; i < cases; i++) {
    const int n = random.integer(1, 12), columns = random.integer(1, 11);
    Matrix<TypeParam> a(n, n), x(n, columns), b(n, columns), shared(n, columns);
    a.reals(random);
    b.reals(random);
    shared.fill([&](int r, int c) { return b.at(r, c); });
    // The right-hand side may share its block with the result.
    for (auto [to, from] : {std::pair{&x, &b}, {&shared, &shared}}) {
      Matrix<TypeParam> copy(n, n, i % 2 ? n + 3 : 0);
      copy.fill([&](int r, int c) { return a.at(r, c); });
      ASSERT_EQ(zyn_solve_linear(to->get(), copy.get(), from->get()), 0) << "case " << i;
    }
    ASSERT_EQ(shared.difference([&](int r, int c) { return x.at(r, c); }), "") << i;
    double largest = 0, worst = 0;
    for (int r = 0; r < n; r++)
      for (int c = 0; c < columns; c++) {
        long double rest = b.at(r, c);
        for (int l = 0; l < n; l++) rest -= static_cast<long double>(a.at(r, l)) * x.at(l, c);
        largest = fmax(largest, fabs(double{x.at(r, c)}));
        worst = fmax(worst, static_cast<double>(fabsl(rest)));
      }
    ASSERT_LE(worst, 2 * n * n * largest * std::numeric_limits<TypeParam>::epsilon()) << i;
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
  const TypeParam epsilon = std::numeric_limits<TypeParam>::epsilon();
  const TypeParam below = std::nextafter(epsilon, TypeParam{});
  const struct {
    TypeParam a[4];
    bool singular;
  } cases[] = {{{1, 2, 2, 4}, true},        {{0, 0, 0, 0}, true},      {{1, 0, 0, -epsilon}, false},
               {{epsilon, 0, 0, 1}, false}, {{1, 0, 0, -below}, true}, {{below, 0, 0, 1}, true}};
  for (const auto& c : cases) {
    Matrix<TypeParam> a(2, 2), b(2, 1), x(2, 1);
    a.fill([&](int r, int j) { return c.a[2 * r + j]; });
    b.fill([](int, int) { return 1; });
    EXPECT_SAYS(zyn_solve_linear(x.get(), a.get(), b.get()), c.singular ? 32 : 0,
                c.singular ? "\nIt's not a full rank matrix\n" : "");
    EXPECT_TRUE(c.singular || std::fabs(x.at(1, 0) * c.a[3] - 1) < 1e-6);
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

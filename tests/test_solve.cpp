// The linear solver: residuals of random systems, pivoting, refusals.
#include <limits>

#include "matrix/zyn_matrix_ops.h"
#include "support/capture.h"
#include "support/matrices.h"

namespace {

using namespace zyn_test;

constexpr char kSingular[] = "\nIt's not a full rank matrix\n";

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
  double worst = 0;
  const int cases = soak(4000, 100000);
  for (int i = 0; i < cases; i++) {
    const int n = random.integer(1, 12), columns = random.integer(1, 11);
    Matrix<TypeParam> a(n, n), x(n, columns), b(n, columns);
    a.reals(random);
    b.reals(random);
    const Matrix<TypeParam>& kept = a;
    Matrix<TypeParam> copy(n, n, i % 2 ? n + 3 : 0);
    copy.fill([&](int r, int c) { return kept.at(r, c); });
    ASSERT_EQ(zyn_solve_linear(x.get(), copy.get(), b.get()), 0) << "case " << i;
    // The right-hand side may share its block with the result.
    Matrix<TypeParam> shared(n, columns);
    shared.fill([&](int r, int c) { return b.at(r, c); });
    copy.fill([&](int r, int c) { return kept.at(r, c); });
    ASSERT_EQ(zyn_solve_linear(shared.get(), copy.get(), shared.get()), 0);
    ASSERT_EQ(shared.difference([&](int r, int c) { return double{x.at(r, c)}; }), "") << i;
    const double residual = relative_residual(a, x, b);
    ASSERT_LE(residual, 4 * n) << "case " << i << ", " << n << " x " << columns;
    worst = fmax(worst, residual / n);
  }
  this->RecordProperty("worst_residual_over_n_epsilon", std::to_string(worst));
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

TYPED_TEST(Solve, SingularMatricesPrintOneLine) {
  constexpr bool kFloat = sizeof(TypeParam) == 4;
  const struct {
    double a[4];
    bool singular;
  } cases[] = {{{1, 2, 2, 4}, true}, {{0, 0, 0, 0}, true}, {{1, 0, 0, 1e-8}, kFloat}};
  for (const auto& c : cases) {
    Matrix<TypeParam> a(2, 2), b(2, 1), x(2, 1);
    a.fill([&](int r, int j) { return c.a[2 * r + j]; });
    b.fill([](int, int) { return 1; });
    int code = 0;
    EXPECT_EQ(printed([&] { code = zyn_solve_linear(x.get(), a.get(), b.get()); }),
              c.singular ? kSingular : "");
    EXPECT_EQ(code, c.singular ? 32 : 0);
    if (!c.singular) {
      EXPECT_NEAR(x.at(1, 0), 1e8, 1e-3);
    }
  }
}

TEST(SolveContracts, Refusals) {
  Matrix<float> a(2, 2), b(2, 3), x(2, 3), tall(3, 3), wide(2, 4);
  Matrix<double> other(2, 3);
  const auto silent = [](zyn_matrix* result, zyn_matrix* left, const zyn_matrix* right) {
    EXPECT_SAYS(zyn_solve_linear(result, left, right), 1, "");
  };
  silent(nullptr, a.get(), b.get());
  silent(x.get(), nullptr, b.get());
  silent(x.get(), a.get(), nullptr);
  silent(other.get(), a.get(), b.get());
  silent(x.get(), a.get(), other.get());
  silent(x.get(), wide.get(), b.get());
  silent(tall.get(), a.get(), b.get());
  silent(wide.get(), a.get(), b.get());
  silent(x.get(), a.get(), tall.get());
  uint8_t bytes[4] = {1, 0, 0, 1};
  zyn_matrix m;
  zyn_set_matrix_header(&m, 2, 2, 1, 0);
  silent(&m, &m, &m);
  m.data = bytes;
  EXPECT_SAYS(zyn_solve_linear(&m, &m, &m), 4,
              report("Current version can not support!", "src/matrix/zyn_solve_linear.cpp", 69));
}

}  // namespace

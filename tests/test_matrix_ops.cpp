// Addition, identity, transposition and products against sums in double. Small-integer
// data make every product exact, whatever the order of its sums.
#include <limits>
#include <vector>

#include "matrix/zyn_matrix_ops.h"
#include "support/capture.h"
#include "support/failing.h"
#include "support/matrices.h"

namespace {

using namespace zyn_test;

template <typename T>
class Product {
 public:
  Product& size(int m, int n, int k) { return m_ = m, n_ = n, k_ = k, *this; }
  Product& transposed(bool on) { return transposed_ = on, *this; }
  Product& factors(double alpha, double beta) { return alpha_ = alpha, beta_ = beta, *this; }
  Product& pitches(int extra) { return extra_ = extra, *this; }
  Product& reals() { return reals_ = true, *this; }

  void check() const {
    Random random(m_ * 1000003 + n_ * 1009 + k_);
    Matrix<T> a(m_, k_, k_ + extra_), c(m_, n_, n_ + extra_);
    Matrix<T> b(transposed_ ? n_ : k_, transposed_ ? k_ : n_, (transposed_ ? k_ : n_) + extra_);
    for (Matrix<T>* x : {&a, &b}) reals_ ? x->reals(random) : x->integers(random, 8);
    if (beta_ != 0) c.integers(random, 8);
    std::vector<double> expected(m_ * n_), magnitudes(expected.size());
    for (int r = 0; r < m_; r++)
      for (int l = 0; l < k_; l++)
        for (int j = 0; j < n_; j++) {
          const double term = double{a.at(r, l)} * (transposed_ ? b.at(j, l) : b.at(l, j));
          expected[r * n_ + j] += term;
          magnitudes[r * n_ + j] += fabs(term);
        }
    for (size_t i = 0; i < expected.size(); i++) {
      const double old = c.at(static_cast<int>(i) / n_, static_cast<int>(i) % n_);
      expected[i] = alpha_ * expected[i] + (beta_ != 0 ? beta_ * old : 0);
      magnitudes[i] = fabs(alpha_) * magnitudes[i] + (beta_ != 0 ? fabs(beta_ * old) : 0);
    }
    const T alpha = static_cast<T>(alpha_), beta = static_cast<T>(beta_);
    ASSERT_EQ(zyn_matrix_gemm(c.get(), a.get(), b.get(), transposed_, &alpha, &beta), 0);
    if (alpha_ == 1 && beta_ == 0) {
      Matrix<T> same(m_, n_, n_ + extra_);
      ASSERT_EQ(zyn_matrix_multiply(same.get(), a.get(), b.get(), transposed_), 0);
      EXPECT_EQ(same.difference([&](int r, int j) { return double{c.at(r, j)}; }), "");
    }
    const double scale = reals_ ? 2 * std::numeric_limits<T>::epsilon() * sqrt(k_ + 4.0) : 0;
    EXPECT_EQ(c.difference([&](int r, int j) { return expected[r * n_ + j]; },
                           [&](int r, int j) { return scale * magnitudes[r * n_ + j]; }),
              "")
        << m_ << " x " << n_ << " x " << k_ << (transposed_ ? " transposed" : "") << " alpha "
        << alpha_ << " beta " << beta_ << (sizeof(T) == 4 ? " float" : " double");
  }

 private:
  int m_ = 7, n_ = 7, k_ = 7, extra_ = 0;
  bool transposed_ = false, reals_ = false;
  double alpha_ = 1, beta_ = 0;
};

template <typename T>
class MatrixOps : public ::testing::Test {};
using Floats = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatrixOps, Floats);

TYPED_TEST(MatrixOps, SmallProductsOfEverySize) {
  const int sizes[] = {1, 2, 3, 4, 5, 7, 8, 9, 16, 17, 37};
  for (bool transposed : {false, true})
    for (int m : sizes)
      for (int n : sizes)
        for (int k : sizes) {
          const auto product = Product<TypeParam>().size(m, n, k).transposed(transposed);
          Product<TypeParam>(product).check();
          Product<TypeParam>(product).factors(-1, 1).pitches(3).check();
        }
  for (double alpha : {0.0, 2.0})
    for (double beta : {0.0, 1.0, -3.0})
      for (bool transposed : {false, true})
        Product<TypeParam>().size(5, 11, 6).transposed(transposed).factors(alpha, beta).check();
}

// Rows around multiples of the tile's 6 and of the block's rows, columns around its 16 (8),
// depths around the block's.
TYPED_TEST(MatrixOps, LargeProducts) {
  const struct {
    int m, n, k;
  } shapes[] = {{302, 5, 600}, {1, 700, 300},  {700, 1, 300},   {2, 3, 60000},  {6, 16, 9000},
                {7, 4097, 47}, {5, 1025, 257}, {175, 33, 1030}, {13, 35, 4001}, {169, 17, 1000}};
  for (const auto& shape : shapes)
    for (bool transposed : {false, true}) {
      const auto product =
          Product<TypeParam>().size(shape.m, shape.n, shape.k).transposed(transposed);
      Product<TypeParam>(product).check();
      Product<TypeParam>(product).factors(-1, 2).pitches(5).check();
    }
  for (double alpha : {0.0, 1.0})
    for (double beta : {0.0, 1.0, 3.0})
      Product<TypeParam>().size(302, 5, 600).factors(alpha, beta).check();
  for (bool transposed : {false, true})
    for (int k : {129, 700}) {
      const auto product = Product<TypeParam>().size(64, 250, k).transposed(transposed).reals();
      Product<TypeParam>(product).check();
      Product<TypeParam>(product).factors(0.5, 3).check();
    }
}

TYPED_TEST(MatrixOps, ProductsAboveTheLimitArePackedAndDoWithoutMemory) {
  const auto allocations = [](int m, int k) {
    return for_each_failing_allocation([&](int64_t, bool) {
      Product<TypeParam>().size(m, 2, k).factors(2, 0).check();
      return true;
    });
  };
  EXPECT_EQ(allocations(1, 60000), 0) << "180000 elements in both operands";
  EXPECT_EQ(allocations(1, 60001), 2);
}

TYPED_TEST(MatrixOps, AddAndTransposeInPlaceAndNot) {
  Random random(3);
  for (int rows : {1, 2, 7, 16, 33})
    for (int cols : {1, 3, 7, 32}) {
      Matrix<TypeParam> a(rows, cols), b(rows, cols), c(rows, cols), t(cols, rows);
      a.integers(random, 99);
      b.integers(random, 99);
      const auto sum = [&](int r, int j) { return double{a.at(r, j)} + b.at(r, j); };
      EXPECT_EQ(zyn_matrix_add(c.get(), a.get(), b.get()), 0);
      EXPECT_EQ(c.difference(sum), "");
      EXPECT_EQ(zyn_matrix_add(b.get(), c.get(), b.get()), 0);
      EXPECT_EQ(zyn_matrix_transpose(t.get(), b.get()), 0);
      EXPECT_EQ(t.difference([&](int r, int j) { return 2 * double{c.at(j, r)} - a.at(j, r); }), "")
          << rows << " x " << cols;
    }
  Matrix<TypeParam> square(9, 9);
  square.fill([](int r, int c) { return 10 * r + c; });
  EXPECT_EQ(zyn_matrix_transpose(square.get(), square.get()), 0);
  EXPECT_EQ(square.difference([](int r, int c) { return 10 * c + r; }), "");
  EXPECT_EQ(zyn_matrix_set_identity(square.get()), 0);
  EXPECT_EQ(square.difference([](int r, int c) { return r == c ? 1 : 0; }), "");
}

zyn_matrix header(int rows, int cols, int pages, int type, void* data) {
  zyn_matrix m;
  zyn_set_matrix_header(&m, rows, cols, pages, type);
  m.data = data;
  return m;
}

TEST(MatrixContracts, PagesChannelsAndWordsOfOtherTypes) {
  float x[24], y[24], z[24];
  for (int i = 0; i < 24; i++) x[i] = static_cast<float>(i), y[i] = 100, z[i] = NAN;
  zyn_matrix a = header(2, 3, 2, 14, x), b = header(2, 3, 2, 14, y), c = header(2, 3, 2, 14, z);
  EXPECT_EQ(zyn_matrix_add(&c, &a, &b), 0);
  for (int i = 0; i < 24; i++) EXPECT_EQ(z[i], static_cast<float>(100 + i));
  zyn_matrix pages = header(2, 2, 3, 6, z);
  EXPECT_EQ(zyn_matrix_set_identity(&pages), 0);
  for (int i = 0; i < 12; i++) EXPECT_EQ(z[i], i == 0 || i == 3 ? 1.0f : 0.0f) << i;
  zyn_matrix pairs = header(2, 2, 1, 14, y);  // on purpose cleared, then refused
  EXPECT_SAYS(zyn_matrix_set_identity(&pairs), 4,
              report(kSupport, "src/matrix/zyn_matrix_basic_l1.cpp", 2222));
  for (int i = 0; i < 8; i++) EXPECT_EQ(y[i], 0.0f);
  int32_t words[6] = {1, 2, 3, 4, 5, -2147483647 - 1}, turned[6];
  for (int type : {4, 5, 6}) {
    zyn_matrix s = header(2, 3, 1, type, words), d = header(3, 2, 1, type, turned);
    EXPECT_EQ(zyn_matrix_transpose(&d, &s), 0);
    for (int i = 0; i < 6; i++) EXPECT_EQ(turned[i % 3 * 2 + i / 3], words[i]);
  }
}

TEST(MatrixContracts, RefusalsKeepTheirSites) {
  double block[64] = {};
  const Reports core{"src/matrix/zyn_matrix_core.cpp"}, l1{"src/matrix/zyn_matrix_basic_l1.cpp"},
      l2{"src/matrix/zyn_matrix_basic_l2.cpp"}, l3{"src/matrix/zyn_matrix_basic_l3.cpp"},
      random{"src/matrix/zyn_random.cpp"};
  zyn_matrix a = header(2, 3, 1, 6, block), t = header(3, 2, 1, 6, block + 20);
  zyn_matrix b = header(2, 3, 1, 6, block + 40), wide = header(2, 3, 1, 7, block);
  zyn_matrix view = header(3, 2, 1, 6, block), none = header(2, 3, 1, 6, nullptr);
  zyn_matrix bytes = header(2, 3, 1, 0, block), bytes_t = header(3, 2, 1, 0, block + 8);
  zyn_matrix pages = header(2, 3, 2, 6, block), shorts = header(600, 600, 1, 2, block);
  zyn_matrix pair = header(2, 3, 1, 14, block), pair_t = header(3, 2, 1, 14, block + 20);
  zyn_matrix small = header(2, 2, 1, 2, block), words = header(1, 1, 1, 13, block);
  zyn_matrix* const null = nullptr;
  const float one = 1;

  const std::string sum = core("parameters error!", 592);
  zyn_matrix* const sums[][3] = {
      {&a, &b, &t}, {&wide, &b, &a}, {&pages, &pages, &a}, {null, &a, &a}, {&a, &none, &a}};
  for (const auto& m : sums) EXPECT_SAYS(zyn_matrix_add(m[0], m[1], m[2]), 1, sum);
  EXPECT_SAYS(zyn_matrix_add(&bytes, &bytes, &bytes), 4, core("can not support!", 609));

  for (zyn_matrix* m : {&a, &none, null})
    EXPECT_SAYS(zyn_matrix_set_identity(m), 1, l1(kPara, 2205));

  zyn_matrix* const turns[][2] = {{&b, &a}, {&pair_t, &pair}, {&t, &pages}, {&t, null}};
  for (const auto& m : turns) EXPECT_SAYS(zyn_matrix_transpose(m[0], m[1]), 1, l2(kPara, 1411));
  EXPECT_SAYS(zyn_matrix_transpose(&view, &a), 1, l2(kPara, 1417));
  EXPECT_SAYS(zyn_matrix_transpose(&bytes_t, &bytes), 4, l2(kSupport, 1425));

  const auto product = [&](zyn_matrix* c, zyn_matrix* x, zyn_matrix* y, const float* alpha) {
    return zyn_matrix_gemm(c, x, y, 0, alpha, &one);
  };
  const std::string gemm = l3("ZYN_RET_ERR_PARA", 47), other = "ZYN_RET_ERR_NOT_SUPPORT";
  EXPECT_SAYS(product(&b, &a, null, &one), 1, gemm);
  EXPECT_SAYS(product(&b, &a, &wide, &one), 1, gemm);
  EXPECT_SAYS(product(&b, &pages, &a, &one), 1, gemm);
  EXPECT_SAYS(product(&b, &a, &t, nullptr), 1, gemm);
  EXPECT_SAYS(product(&b, &a, &a, &one), 1, "");
  EXPECT_SAYS(product(&small, &small, &small, &one), 4, l3(other, 120));
  EXPECT_SAYS(product(&shorts, &shorts, &shorts, &one), 4, l3(other, 185));

  // Refused calls draw nothing from the process's sequence, which has a program of its own.
  for (zyn_matrix* m : {null, &none})
    EXPECT_SAYS(zyn_random_norm(m, &one, &one), 1, random(kPara, 166));
  EXPECT_SAYS(zyn_random_norm(&words, &one, &one), 4, random(kSupport, 181));
}

}  // namespace

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
struct Product {
  int m, n, k, gap = 0;
  double alpha = 1, beta = 0;
  bool real = false;

  void check(bool transposed) const {
    Random random(m * 1000003 + n * 1009 + k);
    Matrix<T> a(m, k, k + gap), c(m, n, n + gap), old(m, n), plain(m, n, n + gap);
    Matrix<T> b(transposed ? n : k, transposed ? k : n, (transposed ? k : n) + gap);
    for (Matrix<T>* x : {&a, &b}) real ? x->reals(random) : x->integers(random, 8);
    if (beta != 0) c.integers(random, 8);
    old.fill([&](int r, int j) { return c.at(r, j); });
    std::vector<double> sums(m * n), magnitudes(sums.size());
    for (int r = 0; r < m; r++)
      for (int l = 0; l < k; l++)
        for (int j = 0; j < n; j++) {
          const double term = double{a.at(r, l)} * (transposed ? b.at(j, l) : b.at(l, j));
          sums[r * n + j] += term;
          magnitudes[r * n + j] += fabs(term);
        }
    SCOPED_TRACE(testing::Message()
                 << m << " x " << n << " x " << k << (transposed ? " transposed" : "") << " alpha "
                 << alpha << " beta " << beta << (sizeof(T) == 4 ? " float" : " double"));
    const T factors[2] = {static_cast<T>(alpha), static_cast<T>(beta)};
    ASSERT_EQ(zyn_matrix_gemm(c.get(), a.get(), b.get(), transposed, &factors[0], &factors[1]), 0);
    const auto added = [&](int r, int j) { return beta != 0 ? beta * old.at(r, j) : 0; };
    const double scale = real ? 2 * std::numeric_limits<T>::epsilon() * sqrt(k + 4.0) : 0;
    EXPECT_EQ(c.difference([&](int r, int j) { return alpha * sums[r * n + j] + added(r, j); },
                           [&](int r, int j) {
                             return scale *
                                    (fabs(alpha) * magnitudes[r * n + j] + fabs(added(r, j)));
                           }),
              "");
    if (alpha != 1 || beta != 0) return;
    ASSERT_EQ(zyn_matrix_multiply(plain.get(), a.get(), b.get(), transposed), 0);
    EXPECT_EQ(plain.difference([&](int r, int j) { return c.at(r, j); }), "");
  }
};

template <typename T>
class MatrixOps : public ::testing::Test {};
using Floats = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatrixOps, Floats);

TYPED_TEST(MatrixOps, ProductsOfEverySize) {
  std::vector<Product<TypeParam>> products;
  const int sizes[] = {1, 2, 3, 4, 5, 7, 8, 9, 16, 17, 37};
  for (int m : sizes)
    for (int n : sizes)
      for (int k : sizes) products.insert(products.end(), {{m, n, k}, {m, n, k, 3, -1, 1}});
  // Rows around multiples of the tile's 6 and of the block's rows, columns around its 16 (8),
  // depths around the block's.
  const int large[][3] = {{302, 5, 600},  {1, 700, 300},  {700, 1, 300},  {2, 3, 60000},
                          {6, 16, 9000},  {7, 4097, 47},  {5, 1025, 257}, {175, 33, 1030},
                          {13, 35, 4001}, {169, 17, 1000}};
  for (const auto& s : large)
    products.insert(products.end(), {{s[0], s[1], s[2]}, {s[0], s[1], s[2], 5, -1, 2}});
  for (double alpha : {0.0, 2.0})
    for (double beta : {0.0, 1.0, -3.0})
      products.insert(products.end(), {{5, 11, 6, 0, alpha, beta}, {302, 5, 600, 0, alpha, beta}});
  for (int k : {129, 700})
    products.insert(products.end(), {{64, 250, k, 0, 1, 0, true}, {64, 250, k, 0, 0.5, 3, true}});
  for (const auto& product : products)
    for (bool transposed : {false, true}) product.check(transposed);
}

TYPED_TEST(MatrixOps, ProductsAboveTheLimitArePackedAndDoWithoutMemory) {
  for (int k : {60000, 60001})  // the former: 180000 elements in both operands
    EXPECT_EQ(for_each_failing_allocation([&](int64_t, bool) {
                Product<TypeParam>{1, 2, k, 0, 2}.check(false);
                return true;
              }),
              k == 60000 ? 0 : 2);
}

TYPED_TEST(MatrixOps, AddAndTransposeInPlaceAndNot) {
  Random random(3);
  for (int rows : {1, 2, 7, 16, 33})
    for (int cols : {1, 3, 7, 32, 33}) {
      Matrix<TypeParam> a(rows, cols), b(rows, cols), c(rows, cols), t(cols, rows);
      a.integers(random, 99);
      b.integers(random, 99);
      const auto sum = [&](int r, int j) { return a.at(r, j) + b.at(r, j); };
      EXPECT_EQ(zyn_matrix_add(c.get(), a.get(), b.get()), 0);
      EXPECT_EQ(c.difference(sum), "");
      EXPECT_EQ(zyn_matrix_add(b.get(), c.get(), b.get()), 0);
      EXPECT_EQ(zyn_matrix_transpose(t.get(), b.get()), 0);
      EXPECT_EQ(t.difference([&](int r, int j) { return 2 * c.at(j, r) - a.at(j, r); }), "");
      if (rows != cols) continue;
      EXPECT_EQ(zyn_matrix_transpose(t.get(), t.get()), 0);
      EXPECT_EQ(t.difference([&](int r, int j) { return b.at(r, j); }), "");
      EXPECT_EQ(zyn_matrix_set_identity(t.get()), 0);
      EXPECT_EQ(t.difference([](int r, int j) { return r == j; }), "");
    }
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
  int32_t words[6] = {1, 2, 3, 4, 5, INT32_MIN}, turned[6];
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

  zyn_matrix* const sums[][3] = {
      {&a, &b, &t}, {&wide, &b, &a}, {&pages, &pages, &a}, {null, &a, &a}, {&a, &none, &a}};
  for (const auto& m : sums)
    EXPECT_SAYS(zyn_matrix_add(m[0], m[1], m[2]), 1, core("parameters error!", 592));
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
  for (zyn_matrix* y : {null, &wide, &pages, &none}) EXPECT_SAYS(product(&b, &a, y, &one), 1, gemm);
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

// Functions of type 9 and joins of type 31 beyond what the sweeps over all operators show: long
// axes and rows, limits, fixed point, what is refused and how that is said.
#include <set>
#include <tuple>

#include "support/conv_case.h"

using namespace zyn_test;

namespace {

using Shape = std::vector<int>;

// Whether a value is a float near the exact one; infinity where that is beyond floats.
bool is_near(double got, double exact) {
  if (std::isnan(exact)) return std::isnan(got);
  if (std::fabs(exact) > 3.5e38) return got == std::copysign(HUGE_VAL, exact);
  return std::fabs(got - exact) <= 1e-6 * std::fabs(exact) + 1e-6;
}

// What preparation answers and explains.
std::string explained(Net& net) {
  EXPECT_EQ(net.make(), 0);
  const int32_t code = net.prepare();
  return std::to_string(code) + (code ? std::string(" ") + zyn_error_detail() : "");
}

// The errors that the check of a graph finds.
std::string checked(Net& net) {
  zyn_cg_report* report = nullptr;
  EXPECT_EQ(zyn_cg_check(net.graph(), &report), 0);
  std::string texts;
  for (int i = 0; i < report->errors; i++) texts += report->findings[i].text;
  zyn_release_cg_report(&report);
  return texts;
}

TEST(Functions, OfNumbersOfEverySize) {
  std::vector<double> numbers = {NAN,  HUGE_VAL, -HUGE_VAL, 1e30,  -1e30,  1e4, -1e4, 200,
                                 -200, 89,       -89,       1e-20, -1e-20, 0,   -0.0};
  for (int i = -3000; i <= 3000; i++) numbers.push_back(i / 150.0);
  Array in({static_cast<int>(numbers.size())});
  in.v = numbers;
  for (int f = ZYN_FUNC_LEAKY_RELU; f <= ZYN_FUNC_ERF; f++)
    for (float a : {0.0f, 1.0f, 0.3f, -0.7f}) {
      const bool sums = f >= ZYN_FUNC_SOFTMAX && f <= ZYN_FUNC_L2_NORM;
      const bool open = a == 0 && f != ZYN_FUNC_GELU;  // 0 times infinity
      if (f == ZYN_FUNC_PRELU || sums || open || (f == ZYN_FUNC_GELU && a != 0 && a != 1)) continue;
      const zyn_func_param p = {f, a, 0.5f};
      Net net;
      const int x = net.input(in), y = net.op(ZYN_OP_FUNCTION, p, {x});
      ASSERT_EQ(net.go(), 0);
      const Array got = net.output(y), inputs = net.output(x);
      for (size_t i = 0; i < in.v.size(); i++) {
        // Minus infinity times nothing is the limit, which a finite number shows.
        const double v = std::isinf(inputs.v[i]) ? std::copysign(1e300, inputs.v[i]) : inputs.v[i];
        const double exact = std::isnan(v) ? NAN : reference_function(Array({1}, v), p).v[0];
        EXPECT_TRUE(is_near(got.v[i], exact)) << f << " of " << v << ": " << got.v[i];
      }
    }
}

TEST(Functions, AlongAxesOfEveryLengthAndPlace) {
  Random random(5);
  const Shape shapes[] = {{2, 4420},  {1000},    {5, 1000},   {31, 9},    {32, 9},
                          {33, 9},    {1, 700},  {7, 5, 130}, {33, 1, 5}, {8, 4, 21},
                          {17, 2, 4}, {3, 1, 1}, {9, 3, 4, 2}};
  for (const Shape& dims : shapes)
    for (uint32_t layout : {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_BLOCKED})
      for (size_t axis = 0; axis < dims.size(); axis++)
        for (int f : {ZYN_FUNC_SOFTMAX, ZYN_FUNC_LOG_SOFTMAX, ZYN_FUNC_L2_NORM})
          for (float offset : {0.0f, 1000.0f, -1000.0f}) {
            const zyn_func_param p = {f, static_cast<float>(axis), 1e-3f};
            Net net;
            const int x = net.input(random_array(random, dims, offset - 20, offset + 20), layout);
            const int y = net.op(ZYN_OP_FUNCTION, p, {x});
            ASSERT_EQ(net.go(), 0);
            ASSERT_TRUE(agrees(net.output(y), reference_function(net.output(x), p), 1e-6))
                << f << " axis " << axis << " of " << ::testing::PrintToString(dims);
            EXPECT_EQ(net.output_tensor(y)->layout, 0u);
          }
  // Not a number makes its line so, and no other.
  for (int axis : {0, 1}) {
    Net net;
    Array in({40, 40}, 1);
    in.v[83] = NAN;
    const int y =
        net.op(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_SOFTMAX, float(axis), 0}, {net.input(in)});
    ASSERT_EQ(net.go(), 0);
    const Array got = net.output(y);
    EXPECT_EQ(std::count_if(got.v.begin(), got.v.end(), [](double v) { return v != v; }), 40);
  }
}

TEST(Joins, RepeatExtentsWhereverTheyAre1) {
  Random random(6);
  const std::pair<Shape, Shape> pairs[] = {{{4, 442}, {4}},
                                           {{4, 442}, {1, 442}},
                                           {{9, 1}, {1, 7}},
                                           {{5, 3, 20}, {1, 1, 20}},
                                           {{5, 3, 20}, {5}},
                                           {{5, 3, 20}, {1, 3}},
                                           {{5, 3, 20}, {1}},
                                           {{1, 3, 1, 2, 2}, {4, 1, 5}},
                                           {{5, 3, 20}, {5, 3}},
                                           {{5, 3, 12, 2}, {1, 1, 12}},
                                           {{5, 3, 12, 2}, {1, 1, 1, 2}},
                                           {{6, 5, 4}, {6, 5, 4}},
                                           {{6, 1, 9}, {1, 4, 9}}};
  for (const auto& [first, second] : pairs)
    for (int operation = ZYN_JOIN_POWER; operation <= ZYN_JOIN_ADD; operation++)
      for (int form = 0; form < 8; form++) {
        // Either operand blocked, either first.
        const Array values[2] = {random_array(random, first, 0.5f, 2),
                                 random_array(random, second, 0.5f, 2)};
        Net net;
        const int a = net.input(values[form / 4], form & 1 ? ZYN_LAYOUT_BLOCKED : 0);
        const int b = net.input(values[1 - form / 4], form & 2 ? ZYN_LAYOUT_BLOCKED : 0);
        const int y = net.op(ZYN_OP_AFFINE, zyn_join_param{operation, 0}, {a, b});
        ASSERT_EQ(net.go(), 0);
        ASSERT_TRUE(agrees(net.output(y),
                           reference_further_join(net.output(a), net.output(b), operation), 5e-7))
            << operation << " of " << ::testing::PrintToString(first) << " and "
            << ::testing::PrintToString(second) << " " << form;
        // One value a channel leaves everything where it is.
        const bool by_channel = second.size() == 3 && second[0] * second[1] == 1;
        const bool blocked = by_channel && form & (form / 4 ? 2 : 1);
        EXPECT_TRUE(first == second || net.output_tensor(y)->layout == (blocked ? 3u : 0u)) << form;
      }
}

TEST(Joins, MultiplyMatricesOfEverySize) {
  Random random(7);
  for (int m : {1, 2, 9})
    for (int n : {1, 5, 41})
      for (int k : {1, 3, 33, 600})
        for (const auto& [more_a, more_b] :
             {std::pair<Shape, Shape>{{}, {}}, {{4}, {4}}, {{3, 2}, {1, 2}}, {{1, 2}, {5}}}) {
          Shape dims_a = {k, m}, dims_b = {n, k};
          dims_a.insert(dims_a.end(), more_a.begin(), more_a.end());
          dims_b.insert(dims_b.end(), more_b.begin(), more_b.end());
          Net net;
          const int a = net.input(integers(random, dims_a, 20), ZYN_LAYOUT_BLOCKED);
          const int b = net.input(integers(random, dims_b, 20), ZYN_LAYOUT_BLOCKED);
          const int y = net.op(ZYN_OP_AFFINE, zyn_join_param{ZYN_JOIN_MATMUL, 0}, {a, b});
          ASSERT_EQ(net.go(), 0);
          ASSERT_TRUE(agrees(net.output(y),
                             reference_further_join(net.output(a), net.output(b), ZYN_JOIN_MATMUL),
                             0))
              << m << " x " << n << " x " << k;
        }
}

TEST(Joins, SpreadWhatIsNotANumberAndRaiseAsPowDoes) {
  const std::vector<double> special = {NAN, HUGE_VAL, -HUGE_VAL, 0, -0.0, 1,
                                       -1,  2.5,      -2.5,      3, -3,   2};
  const int n = static_cast<int>(special.size());
  Array column({1, n}), row({n});
  column.v = row.v = special;
  for (int operation = ZYN_JOIN_POWER; operation <= ZYN_JOIN_ADD; operation++) {
    Net net;
    const int y =
        net.op(ZYN_OP_AFFINE, zyn_join_param{operation, 0}, {net.input(column), net.input(row)});
    ASSERT_EQ(net.go(), 0);
    for (int i = 0; i < n * n; i++) {
      const double a = special[i / n], b = special[i % n], got = net.output(y).v[i];
      const bool selects = operation == ZYN_JOIN_MAX || operation == ZYN_JOIN_MIN;
      const double exact =
          selects && (std::isnan(a) || std::isnan(b)) ? NAN : reference_join_of(operation, a, b);
      EXPECT_TRUE(is_near(got, exact)) << operation << " of " << a << ", " << b << ": " << got;
    }
  }
}

// ---- fixed point

TEST(Functions, InFixedPointAreTheRealOnesRounded) {
  Random random(8);
  for (int f : std::initializer_list<int>{ZYN_FUNC_CLIP, ZYN_FUNC_SCALE_SHIFT, ZYN_FUNC_LEAKY_RELU,
                                          ZYN_FUNC_PRELU, ZYN_FUNC_HARD_SIGMOID, ZYN_FUNC_SIGMOID,
                                          ZYN_FUNC_HARD_SWISH})
    for (int q_in : {0, 8, 12, 15})
      for (int q_out : {0, 9, 15}) {
        const zyn_func_param p = {f, 0.3f, 0.7f};
        const Array in = words(random, {7, 5, 3}), slopes = random_array(random, {3});
        Net net(1);
        std::vector<int> from = {net.input(in)};
        if (f == ZYN_FUNC_PRELU) from.push_back(net.constant(slopes));
        const int y = net.op(ZYN_OP_FUNCTION, p, from);
        ASSERT_EQ(net.make(), 0);
        net.q_list(8, {{0, q_in}, {y, q_out}});
        ASSERT_EQ(net.prepare(), 0);
        ASSERT_EQ(net.run(), 0);
        const Array real = map(in, [&](double v) { return std::ldexp(v, -q_in); });
        const Array exact =
            f == ZYN_FUNC_PRELU ? reference_prelu(real, slopes) : reference_function(real, p);
        for (size_t i = 0; i < in.v.size(); i++) {
          const double e = std::clamp(std::ldexp(exact.v[i], q_out), -32768.0, 32767.0);
          ASSERT_NEAR(net.output(y).v[i], e, 1) << f << " q " << q_in << " to " << q_out;
        }
      }
}

TEST(Joins, InFixedPointWrapAsSumsAndProductsDo) {
  Random random(9);
  const auto brought = [](Wide v, int from, int to) {
    return from > to ? rounded(v, from - to) : v * (1 << (to - from));
  };
  for (int operation :
       {ZYN_JOIN_ADD, ZYN_JOIN_SUBTRACT, ZYN_JOIN_MULTIPLY, ZYN_JOIN_MAX, ZYN_JOIN_MIN})
    for (const auto& [qa, qb, q] : {std::tuple<int, int, int>{8, 8, 8}, {15, 3, 9}, {0, 15, 15}})
      for (const Shape& dims : {Shape{5, 3, 4}, {1, 1, 4}, {5}, {1, 3}, {5, 3, 1, 2}}) {
        Net net(1);
        const Array first = words(random, {5, 3, 4}), second = words(random, dims);
        const int a = net.input(first), b = net.input(second);
        const int y = net.op(ZYN_OP_AFFINE, zyn_join_param{operation, 0}, {a, b});
        ASSERT_EQ(net.make(), 0);
        net.q_list(8, {{a, qa}, {b, qb}, {y, q}});
        ASSERT_EQ(net.prepare(), 0);
        ASSERT_EQ(net.run(), 0);
        const Array got = net.output(y);
        for (size_t i = 0; i < got.v.size(); i++) {
          const auto v = static_cast<Wide>(first.v[repeated_place(first, got.dims, i)]);
          const auto w = static_cast<Wide>(second.v[repeated_place(second, got.dims, i)]);
          const Wide x = brought(v, qa, q), z = brought(w, qb, q);
          const Wide exact = operation == ZYN_JOIN_ADD        ? x + z
                             : operation == ZYN_JOIN_SUBTRACT ? x - z
                             : operation == ZYN_JOIN_MAX      ? std::max(x, z)
                             : operation == ZYN_JOIN_MIN      ? std::min(x, z)
                                                              : rounded(v * w, qa + qb - q);
          ASSERT_EQ(got.v[i], low16(exact)) << operation << " q " << qa << " " << qb << " " << q;
        }
      }
}

TEST(Functions, AndJoinsWithoutAFixedPointFormAreRefused) {
  const std::set<int> computed = {ZYN_FUNC_CLIP,         ZYN_FUNC_SCALE_SHIFT, ZYN_FUNC_LEAKY_RELU,
                                  ZYN_FUNC_HARD_SIGMOID, ZYN_FUNC_SIGMOID,     ZYN_FUNC_HARD_SWISH};
  for (int f = 0; f <= ZYN_FUNC_ERF; f++) {
    if ((f > ZYN_FUNC_SCALE_SHIFT && f < ZYN_FUNC_LEAKY_RELU) || f == ZYN_FUNC_PRELU) continue;
    Net net(1);
    const int x = net.input(Array({2, 2, 2}, 1));
    const int y = net.op(ZYN_OP_FUNCTION, zyn_func_param{f, 1, 1}, {x});
    ASSERT_EQ(net.make(), 0);
    EXPECT_EQ(net.prepare(), 1) << "no Q list";
    const int32_t code = computed.count(f) ? 0 : 4;
    uint32_t* q = net.q_list(7);
    EXPECT_EQ(net.prepare(), code) << f;
    EXPECT_EQ(q[y], 7u);
    q[y] = 16;
    EXPECT_EQ(net.prepare(), code ? code : 1) << f;
    EXPECT_EQ(net.run(), 1);
  }
  for (int operation = ZYN_JOIN_MATMUL; operation <= ZYN_JOIN_ADD; operation++) {
    const bool real = operation == ZYN_JOIN_DIVIDE || operation <= ZYN_JOIN_POWER;
    const bool product = operation == ZYN_JOIN_MULTIPLY;
    for (bool constant : {false, true}) {
      Net net(1);
      const Array values({2, 2}, 1);
      const int a = net.input(values), b = constant ? net.constant(values) : net.input(values);
      const int y = net.op(ZYN_OP_AFFINE, zyn_join_param{operation, 0}, {a, b});
      ASSERT_EQ(net.make(), 0);
      uint32_t* q = net.q_list(7);
      EXPECT_EQ(net.prepare(), constant ? 1 : real ? 4 : 0) << operation;
      q[y] = 15;
      EXPECT_EQ(net.prepare(), constant || product ? 1 : real ? 4 : 0) << operation;
    }
  }
}

// ---- what is refused, and how that is said

TEST(Functions, RefusalsAreSaidInPreparationAndInTheCheck) {
  const struct {
    zyn_func_param record;
    const char* text;
  } cases[] = {{{12, 0, 0}, "there is no function 12"},
               {{30, 0, 0}, "there is no function 30"},
               {{ZYN_FUNC_LEAKY_RELU, NAN, 0}, "a is nan, a finite number is needed"},
               {{ZYN_FUNC_HARD_SIGMOID, 1, INFINITY}, "b is inf, a finite number is needed"},
               {{ZYN_FUNC_GELU, 2, 0}, "a is 2, 0 (by erf) or 1 (by tanh) is needed"},
               {{ZYN_FUNC_SOFTMAX, 3, 0}, "axis 3 of an input whose axes are 0 to 2"},
               {{ZYN_FUNC_SOFTMAX, 0.5f, 0}, "axis 0.5 of an input whose axes are 0 to 2"},
               {{ZYN_FUNC_LOG_SOFTMAX, NAN, 0}, "axis nan of an input whose axes are 0 to 2"},
               {{ZYN_FUNC_L2_NORM, -1, 0}, "axis -1 of an input whose axes are 0 to 2"},
               {{ZYN_FUNC_L2_NORM, 0, -1}, "b is -1, a number of at least 0 is needed"}};
  for (const auto& c : cases) {
    Net net;
    net.op(ZYN_OP_FUNCTION, c.record, {net.input(Array({2, 2, 5}))});
    const std::string text = std::string("node 1 FUNCTION: ") + c.text;
    EXPECT_EQ(explained(net), "1 " + text);
    EXPECT_EQ(checked(net), text);
  }
  for (int slopes : {0, 1, 4, 5, 6}) {
    Net net;
    std::vector<int> from = {net.input(Array({2, 2, 5}))};
    if (slopes) from.push_back(net.constant(Array({slopes})));
    net.op(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_PRELU, 0, 0}, from);
    const bool fits = slopes == 1 || slopes == 5;
    EXPECT_EQ(explained(net)[0], fits ? '0' : '1') << slopes;
    EXPECT_EQ(checked(net).empty(), fits) << slopes;
  }
}

TEST(Joins, RefusalsAreSaidInPreparationAndInTheCheck) {
  const struct {
    int operation;
    Shape a, b;
    const char* text;
  } cases[] = {
      {ZYN_JOIN_ADD, {2, 3}, {3, 3}, "2 x 3 and 3 x 3: extents are alike, or one of them is 1"},
      {ZYN_JOIN_MATMUL,
       {2, 3},
       {2, 3},
       "2 x 3 times 2 x 3: the first extent of the one and the second of the other are alike, "
       "further ones alike or 1"},
      {ZYN_JOIN_MATMUL,
       {3, 2, 2},
       {4, 3, 3},
       "3 x 2 x 2 times 4 x 3 x 3: the first extent of the "
       "one and the second of the other are alike, further ones alike or 1"}};
  for (const auto& c : cases) {
    Net net;
    const int a = net.input(Array(c.a)), b = net.input(Array(c.b));
    net.op(ZYN_OP_AFFINE, zyn_join_param{c.operation, 0}, {a, b});
    EXPECT_EQ(explained(net), std::string("1 node 2 JOIN: ") + c.text);
    EXPECT_EQ(checked(net), std::string("node 2 JOIN: ") + c.text);
  }
  // More elements than numbers hold: only preparation finds no memory.
  Net net;
  int y = net.input(Array({9000}));
  for (int d = 1; d < 5; d++) {
    Shape dims(static_cast<size_t>(d), 1);
    dims.push_back(9000);
    y = net.op(ZYN_OP_AFFINE, zyn_join_param{ZYN_JOIN_ADD, 0}, {y, net.input(Array(dims))});
  }
  EXPECT_EQ(net.make(), 0);
  EXPECT_EQ(checked(net), "");
}

}  // namespace

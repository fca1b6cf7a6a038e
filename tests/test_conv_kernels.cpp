// What no operator reaches of the convolution kernels: refusals of single kernels, the plan of
// a layer, the parts of the epilogue by themselves, and the general multiply.
#include <array>
#include <numeric>

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "cg/cpu/kernels/fixed/zyn_fpi.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_pack.h"
#include "cg/cpu/kernels/general/zyn_conv_general.h"
#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/kernels/winograd/zyn_conv_winograd.h"
#include "support/conv_case.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;

// A tensor of floats that ends at an inaccessible page.
struct Block {
  PageEnd<float> floats;
  zyn_tensor tensor = {};
  explicit Block(const Array& a) : floats(a.v.size()) {
    const auto count = static_cast<int32_t>(a.dims.size());
    EXPECT_EQ(zyn_set_tensor_header(&tensor, count, a.dims.data(), ZYN_TYPE_F32), 0);
    EXPECT_EQ(zyn_set_tensor_data(&tensor, floats.data(), tensor.byte_size), 0);
    std::copy(a.v.begin(), a.v.end(), floats.begin());
  }
};

struct Given {
  zyn_tensor* out;
  const zyn_tensor* in;
  const zyn_tensor* weights;
  const zyn_conv_blocked_weights* packed;
  const float* floats;
  const int16_t* words;
  const zyn_conv_param* p;
  const zyn_conv_plan* plan;
};
uint32_t (*const kKernels[])(const Given&) = {
    [](const Given& g) { return zyn_cg_conv_run_planned(g.out, g.in, g.weights, g.p, g.plan); },
    [](const Given& g) { return zyn_cg_conv3x3(g.out, g.in, g.packed, g.p); },
    [](const Given& g) { return zyn_cg_dwconv3x3(g.out, g.in, g.packed, g.p); },
    [](const Given& g) { return zyn_cg_conv1x1(g.out, g.in, g.weights, g.p); },
    [](const Given& g) { return zyn_cg_conv_planar(g.out, g.in, g.floats, g.p); },
    [](const Given& g) { return zyn_cg_conv1x1_planar(g.out, g.in, g.floats, g.p); },
    [](const Given& g) { return zyn_cg_dwconv_planar(g.out, g.in, g.floats, g.p); },
    [](const Given& g) { return zyn_cg_fpi_conv2d(g.out, 0, g.in, 0, g.words, 0, g.p, nullptr); }};

TEST(ConvKernels, RefuseMissingArgumentsAndOtherShapesAndWriteNothing) {
  const Block input(Array({6, 6, 4}, 1)), weights(Array({4 * 4 * 9}, 1));
  Block output(Array({6, 6, 4}, 7));
  const zyn_tensor* w = &weights.tensor;
  const zyn_conv_param param = conv_param(4, 4, 3, 1, 1), other = conv_param(4, 4, 5, 1, 1);
  const uint32_t threads = 0;
  zyn_conv_blocked_weights* packed = zyn_cg_conv_prepare_direct(w, &param, 1);
  zyn_conv_plan* plan = zyn_cg_conv_prepare_planned(&input.tensor, w, &param, &threads);
  const int16_t words[4 * 4 * 9] = {};
  const Given good = {&output.tensor,        &input.tensor, w,      packed,
                      weights.floats.data(), words,         &param, plan};
  zyn_tensor empty = input.tensor, three = output.tensor;
  empty.data = nullptr;
  three.dims[2] = 3;
  for (auto* run : kKernels) {
    std::vector<Given> bad(8, good);
    bad[0].out = nullptr, bad[1].out = &empty, bad[2].out = &three;
    bad[3].in = nullptr, bad[4].in = &empty, bad[5].in = &three;
    bad[6] = {good.out, good.in, nullptr, nullptr, nullptr, nullptr, &param, nullptr};
    bad[7].p = nullptr;
    for (const Given& g : bad) EXPECT_EQ(run(g), 1u) << &g - bad.data();
  }
  // A plan serves the shapes and the record that it was made for, blocked kernels one size.
  for (int dim = 0; dim < 3; dim++) {
    zyn_tensor narrow = input.tensor, small = output.tensor;
    narrow.dims[dim]--, small.dims[dim]--;
    Given in = good, out = good;
    in.in = &narrow, out.out = &small;
    EXPECT_EQ(kKernels[0](in) + kKernels[0](out), 2u);
    EXPECT_EQ(kKernels[1](out), dim == 2 ? 1u : 4u);
  }
  Given changed = good;
  changed.p = &other;
  EXPECT_EQ(kKernels[0](changed), 1u);
  for (float v : output.floats) ASSERT_EQ(v, 7.0f);
  EXPECT_EQ(zyn_cg_conv_release_direct(&packed), 0u);
  EXPECT_EQ(zyn_cg_conv_release_direct(&packed), 1u);
  EXPECT_EQ(zyn_cg_conv_release_planned(&plan), 0u);
  EXPECT_EQ(zyn_cg_conv_release_planned(&plan), 1u);
}

TEST(ConvKernels, PlanarKernelsServeOutputsOfAnySize) {
  Random random(11);
  for (int groups : {1, 4})
    for (int kernel : {1, 3, 5})
      for (int ow : {1, 4, 9, 19}) {
        const zyn_conv_param p = conv_param(4, 4, kernel, 1, kernel / 2, groups);
        const Array in = integers(random, {9, 7, 4}, 6), weights = integers(random, {400}, 4);
        const Array expected = reference_conv(in, weights, p, false, ow, 20 - ow);
        const Block input(in), constant(weights);
        Block out(expected);
        std::fill(out.floats.begin(), out.floats.end(), 77.0f);
        const auto run = groups > 1    ? zyn_cg_dwconv_planar
                         : kernel == 1 ? zyn_cg_conv1x1_planar
                                       : zyn_cg_conv_planar;
        EXPECT_EQ(run(&out.tensor, &input.tensor, constant.floats.data(), &p, nullptr), 0u);
        EXPECT_TRUE(agrees(Net::read(&out.tensor), expected, 0)) << kernel << groups << ow;
      }
}

// The same values in another order of channels.
Array in_order(const Array& a, uint32_t layout) {
  Array moved = a;
  for_each_element(
      a, [&](int x, int y, int z) { moved.v[place(a, x, y, z, layout)] = a.at(x, y, z); });
  return moved;
}

// Kernels that read and write either order of channels.
struct General {
  static constexpr auto prepare = zyn_conv_general_prepare;
  static constexpr auto run = zyn_conv_general_run;
  static constexpr auto release = zyn_conv_general_release;
};
struct Winograd {
  static constexpr auto prepare = zyn_conv_winograd_prepare;
  static constexpr auto run = zyn_conv_winograd_run;
  static constexpr auto release = zyn_conv_winograd_release;
};

// error: of the range of the sums without bias and activation.
template <typename Kernels>
void check_inner(const zyn_conv_param& p, const Array& in, const Array& weights, Random& random,
                 double error) {
  const int w = in.dims[0], h = in.dims[1];
  const Array biases = integers(random, {p.out_channels}, 9);
  const auto extent = [](int size, int k, int pad, int s, int d) {
    return (size + 2 * pad - (k - 1) * d - 1) / s + 1;
  };
  const int ow = extent(w, p.kernel_h, p.pad_h, p.stride_h, p.dilation_h);
  const int oh = extent(h, p.kernel_w, p.pad_w, p.stride_w, p.dilation_w);
  const Array raw = reference_conv(in, weights, p, false, ow, oh);
  const int activation = random.integer(0, 2);
  const bool biased = random.integer(0, 3) > 0;
  Array expected = raw;
  for_each_element(raw, [&](int x, int y, int z) {
    double& v = expected.at(x, y, z);
    v += biased ? biases.v[static_cast<size_t>(z)] : 0;
    if (activation == ZYN_EPILOGUE_RELU) v = std::max(v, 0.0);
    if (activation == ZYN_EPILOGUE_HARD_SWISH) v *= std::min(std::max(v + 3, 0.0), 6.0) / 6;
  });
  const auto sums = std::minmax_element(raw.v.begin(), raw.v.end());
  double size = 1;
  for (double v : expected.v) size = std::max(size, std::fabs(v));
  const double bound = error * (*sums.second - *sums.first) / size + (activation == 2 ? 1e-3 : 0);
  const Block constant(weights), bias(biases);
  for (const bool planar : {false, true})
    for (const uint32_t layout : {ZYN_LAYOUT_PLANAR, ZYN_LAYOUT_BLOCKED}) {
      int64_t floats = 0;
      auto* layer = Kernels::prepare(constant.floats.data(), &p, in.dims.data(), raw.dims.data(),
                                     planar, &floats);
      ASSERT_NE(layer, nullptr);
      Block input(in_order(in, layout));
      input.tensor.layout = layout;
      Block out(Array({ow, oh, p.out_channels}, 77));
      const auto scratch =
          std::make_unique<PageEnd<float>>(static_cast<size_t>(floats + 7) / 8 * 8);
      std::fill(scratch->begin(), scratch->end(), NAN);
      Kernels::run(layer, &out.tensor, &input.tensor,
                   {biased ? bias.floats.data() : nullptr, activation}, scratch->data());
      Kernels::release(&layer);
      ASSERT_TRUE(agrees(Net::read(&out.tensor), expected, bound))
          << w << "x" << h << " channels " << p.in_channels << ">" << p.out_channels << " kernel "
          << p.kernel_h << "x" << p.kernel_w << " stride " << p.stride_h << " pad " << p.pad_h
          << "," << p.pad_w << " dilation " << p.dilation_h << " groups " << p.groups << planar
          << layout;
    }
}

void check_general(const zyn_conv_param& p, int w, int h, Random& random) {
  const int inputs = p.groups == 1 ? p.in_channels : 1;
  const int taps = p.kernel_h * p.kernel_w * inputs * p.out_channels;
  check_inner<General>(p, integers(random, {w, h, p.in_channels}, 4), integers(random, {taps}, 3),
                       random, 0);
}

TEST(ConvKernels, GeneralOnesServeEveryShapeInBothOrders) {
  Random random(5);
  constexpr int kChannels[] = {1, 2, 3, 4, 5, 7, 8, 10, 12, 13, 16, 24, 31, 40, 72};
  constexpr int kKernels[] = {1, 2, 3, 5, 7};
  for (int i = 0; i < (soak(300, 20000)); i++) {
    const auto pick = [&](const auto& list) {
      return list[random.integer(0, static_cast<int>(std::size(list)) - 1)];
    };
    zyn_conv_param p = conv_param(pick(kChannels), pick(kChannels), pick(kKernels), 1, 0);
    if (i % 3 == 0) p.groups = p.out_channels = p.in_channels;
    if (i % 4 == 0) p.kernel_w = pick(kKernels);
    p.stride_h = random.integer(1, 3), p.stride_w = i % 5 ? p.stride_h : random.integer(1, 2);
    p.dilation_h = p.dilation_w = i % 4 == 1 ? random.integer(2, 3) : 1;
    p.pad_h = random.integer(0, (p.kernel_h - 1) * p.dilation_h);
    p.pad_w = i % 2 ? p.pad_h : 0;
    p.pad_w = std::min(p.pad_w, (p.kernel_w - 1) * p.dilation_w);
    const int reach_x = (p.kernel_h - 1) * p.dilation_h, reach_y = (p.kernel_w - 1) * p.dilation_w;
    int w = random.integer(1, i % 7 ? 20 : 90) + reach_x;
    int h = random.integer(1, i % 11 ? 12 : 60) + reach_y;
    if (i % 5 ==
        2) {  // little more than padding: taps that no output, or none of a line, sees inside
      w = std::max(reach_x - 2 * p.pad_h, 0) + random.integer(1, 4);
      h = std::max(reach_y - 2 * p.pad_w, 0) + random.integer(1, 4);
    }
    check_general(p, w, h, random);
    if (HasFatalFailure()) return;
  }
  // Many channels: weights come in chunks; rows in strips.
  check_general(conv_param(300, 20, 3, 1, 1), 40, 30, random);
  check_general(conv_param(64, 64, 5, 1, 2, 64), 70, 60, random);
  check_general(conv_param(700, 530, 1, 1, 0), 1, 1, random);
  // Rows of so few pixels that a tile knows their border.
  for (int w = 3; w < 17; w++)
    for (int stride : {1, 2}) check_general(conv_param(9, 9, 5, stride, 2, 9), w, 7 + w, random);
  // Planes two pixels wide: lines run downwards, in steps that elsewhere are those of a row.
  check_general(conv_param(9, 9, 1, 1, 0, 9), 2, 11, random);
  check_general(conv_param(16, 16, 3, 1, 1, 16), 2, 11, random);
  // Padding beyond the kernel and kernels far beyond the input are left to others.
  int64_t floats = 0;
  const float weight = 1;
  const int32_t extents[] = {5, 5};
  for (zyn_conv_param p :
       {conv_param(1, 1, 1, 1, 1), conv_param(1, 1, 2, 1, 1 << 27), conv_param(2, 4, 1, 1, 0, 2)}) {
    p.dilation_h = p.pad_h > 1 ? 1 << 27 : 1;
    EXPECT_EQ(zyn_conv_general_prepare(&weight, &p, extents, extents, true, &floats), nullptr);
  }
}

// Ordinary values, and such as make sums cancel or be ruled by a few.
Array skewed(Random& random, std::vector<int> dims, int kind) {
  return map(Array(std::move(dims)), [&](double) {
    const double x = static_cast<double>(random.real(-1, 1));
    return static_cast<double>(static_cast<float>(kind == 0   ? x
                                                  : kind == 1 ? std::max(x, 0.0)
                                                  : kind == 2 ? std::copysign(std::exp(6 * x), x)
                                                  : kind == 3 ? std::exp(4 * x)
                                                              : 1 + 0.05 * x));
  });
}

TEST(ConvKernels, WinogradStaysWithinItsErrorInEveryShapeAndOrder) {
  Random random(3);
  constexpr int kIn[] = {8, 16, 24, 40, 136, 512}, kOut[] = {8, 9, 12, 15, 16, 31, 40, 72};
  for (int i = 0; i < soak(120, 5000); i++) {
    const int in = kIn[random.integer(0, i % 6 ? 3 : 5)], out = kOut[random.integer(0, 7)];
    zyn_conv_param p = conv_param(in, out, 3, 1, random.integer(0, 2));
    p.pad_w = i % 3 ? p.pad_h : random.integer(0, 2);
    const int w = random.integer(1, in > 40 ? 12 : i % 5 ? 20 : 70) + std::max(2 - 2 * p.pad_h, 0);
    const int h = random.integer(1, in > 40 ? 9 : 14) + std::max(2 - 2 * p.pad_w, 0);
    Array weights = skewed(random, {9 * in * out}, i % 4);
    if (i % 7 == 0)  // kernels whose sum is 0
      for (size_t k = 0; k < weights.v.size(); k += 9)
        weights.v[k] = static_cast<float>(weights.v[k] -
                                          std::accumulate(&weights.v[k], &weights.v[k] + 9, 0.0));
    check_inner<Winograd>(p, skewed(random, {w, h, in}, random.integer(0, 4)), weights, random,
                          1e-4);
    if (HasFatalFailure()) return;
  }
  // Strips that are parts of a row of tiles, and ones of several rows.
  for (const std::array<int, 4>& s : {std::array<int, 4>{256, 8, 90, 9}, {8, 40, 37, 150}})
    check_inner<Winograd>(conv_param(s[0], s[1], 3, 1, 1), skewed(random, {s[2], s[3], s[0]}, 0),
                          skewed(random, {9 * s[0] * s[1]}, 0), random, 1e-4);
  // Pointwise: halves of odd numbers of pixels, of blocks of inputs, of outputs; several strips.
  constexpr int kPointwise[] = {32, 40, 56, 64, 136, 264}, kOutputs[] = {32, 33, 40, 52, 72, 129};
  for (int i = 0; i < soak(40, 2000); i++) {
    const int in = kPointwise[random.integer(0, 5)], out = kOutputs[random.integer(0, 5)];
    const int w = random.integer(4, i % 5 ? 12 : 40), h = random.integer(8, i % 4 ? 11 : 40);
    check_inner<Winograd>(conv_param(in, out, 1, 1, 0),
                          skewed(random, {w, h, in}, random.integer(0, 4)),
                          skewed(random, {in * out}, i % 4), random, 1e-4);
    if (HasFatalFailure()) return;
  }
  // What others serve.
  std::vector<zyn_conv_param> others = {
      conv_param(12, 8, 3, 1, 1),  conv_param(8, 7, 3, 1, 1),   conv_param(8, 8, 3, 2, 1),
      conv_param(8, 8, 3, 1, 3),   conv_param(8, 8, 5, 1, 2),   conv_param(8, 8, 3, 1, 1, 8),
      conv_param(36, 32, 1, 1, 0), conv_param(32, 31, 1, 1, 0), conv_param(32, 32, 1, 2, 0),
      conv_param(32, 32, 1, 1, 1), conv_param(8, 8, 3, 1, 1)};
  others.back().dilation_w = 2;
  for (const zyn_conv_param& p : others) EXPECT_FALSE(zyn_conv_winograd_serves(&p, 9, 9));
  others[0] = conv_param(8, 8, 3, 1, 0);
  EXPECT_FALSE(zyn_conv_winograd_serves(&others[0], 2, 9));
}

TEST(ConvKernels, ThreadCountIsClamped) {
  const Block constant(Array({8 * 8 * 9}, 1));
  const zyn_conv_param p = conv_param(8, 8, 3, 1, 1);
  const std::pair<int32_t, uint32_t> threads[] = {{-5, 1}, {0, 1}, {1, 1}, {16, 16}, {100, 16}};
  for (const auto& [asked, stored] : threads) {
    zyn_conv_blocked_weights* packed = zyn_cg_conv_prepare_direct(&constant.tensor, &p, asked);
    EXPECT_EQ(packed->thread_count, stored);
    zyn_cg_conv_release_direct(&packed);
  }
  EXPECT_EQ(zyn_cg_conv_prepare_direct(nullptr, &p, 1), nullptr);
}

TEST(ConvKernels, PartsOfTheEpilogueByThemselves) {
  for (int channels = 1; channels <= 29; channels++)
    for (int pixels : {1, 7, 8, 9, 40})
      for (int groups : {1, channels}) {
        Random random(static_cast<uint64_t>(channels));
        const zyn_conv_param p = conv_param(channels, channels, 2, 1, 0, groups);
        const Array in = integers(random, {pixels, 1, channels}, 100);
        const int taps = 4 * channels * channels / groups;
        Array biased = in, constant({taps + channels}, 0.5);
        for (int c = 0; c < channels; c++) constant.v[static_cast<size_t>(taps + c)] = c + 1;
        for_each_element(in, [&](int x, int y, int z) { biased.at(x, y, z) += z + 1; });
        const Block planar(in), weights(constant);
        Block blocked(in), sum(in), positive(in);
        const float* w = weights.floats.data();
        ASSERT_EQ(zyn_cg_block_channels(&blocked.tensor, &planar.tensor), 0u);
        ASSERT_TRUE(agrees(Net::read(&blocked.tensor), in, 0)) << channels << " " << pixels;
        ASSERT_EQ(zyn_cg_conv_add_bias_blocked(&blocked.tensor, &blocked.tensor, w, &p), 0u);
        ASSERT_TRUE(agrees(Net::read(&blocked.tensor), biased, 0)) << channels << " " << pixels;
        ASSERT_EQ(zyn_cg_conv_add_bias(&sum.tensor, &planar.tensor, w, &p), 0u);
        ASSERT_TRUE(agrees(Net::read(&sum.tensor), biased, 0)) << channels << " " << pixels;
        ASSERT_EQ(zyn_cg_conv_relu(&positive.tensor, &sum.tensor), 0u);
        const Array none = map(biased, [](double v) { return std::max(v, 0.0); });
        ASSERT_TRUE(agrees(Net::read(&positive.tensor), none, 0)) << channels << " " << pixels;
        Block wide(Array({pixels, 1, channels + 1}));
        for (auto* add : {zyn_cg_conv_add_bias, zyn_cg_conv_add_bias_blocked}) {
          EXPECT_EQ(add(&wide.tensor, &wide.tensor, w, &p), 1u);
          EXPECT_EQ(add(&sum.tensor, &wide.tensor, w, &p), 1u);
        }
        EXPECT_EQ(zyn_cg_conv_relu(&sum.tensor, &wide.tensor), 1u);
      }
}

TEST(ConvPlan, PicksKindBlockAndSizes) {
  const struct {
    int kernel, pad, stride, dense, depthwise;  // -1: refused
  } kinds[] = {{1, 0, 1, 5, -1}, {1, 0, 2, 0, -1}, {1, 1, 1, 0, -1}, {3, 1, 1, 1, 6},
               {3, 1, 2, 2, 7},  {3, 1, 3, 0, -1}, {3, 0, 1, 0, -1}, {3, 2, 2, 0, -1},
               {5, 2, 1, 3, 8},  {5, 2, 2, 4, 9},  {5, 2, 3, 0, -1}, {5, 1, 1, 0, -1},
               {2, 0, 1, 0, -1}, {7, 3, 1, 0, -1}};
  for (const auto& k : kinds)
    for (int channels : {4, 10, 12}) {
      SCOPED_TRACE(testing::Message() << k.kernel << k.pad << k.stride << " " << channels);
      zyn_conv_plan p = {};
      const auto plan = [&](int groups) {
        return zyn_cg_conv_plan(4, channels, 17, 9, k.kernel, k.pad, k.stride, groups, 3, &p);
      };
      if (channels == 4) {
        ASSERT_EQ(plan(4), k.depthwise < 0 ? 1u : 0u);
        if (k.depthwise >= 0) {
          EXPECT_EQ(p.kind, k.depthwise);
          EXPECT_EQ(p.padded_rows, 1u);
        }
      }
      ASSERT_EQ(plan(1), 0u);
      const uint32_t block = channels == 12 ? 6 : 4, outputs = static_cast<uint32_t>(channels);
      const uint32_t w = (17u + 2 * k.pad - k.kernel) / k.stride + 1;
      const uint32_t h = (9u + 2 * k.pad - k.kernel) / k.stride + 1,
                     terms = 4u * k.kernel * k.kernel;
      const uint32_t rows = k.dense ? (outputs + block - 1) / block * block : outputs;
      EXPECT_EQ(p.kind, k.dense);
      EXPECT_EQ(p.micro, block == 6 ? zyn_gemm_micro_6x16 : zyn_gemm_micro_4x16);
      EXPECT_EQ(
          (std::vector<uint32_t>{p.panel_width, p.channel_block, p.padded_rows, p.output_w,
                                 p.output_h, p.output_pixels, p.k, p.weights_per_output,
                                 p.weights_per_row, p.output_channels, p.threads}),
          (std::vector<uint32_t>{16, block, rows, w, h, w * h, terms, terms, terms, outputs, 3}));
    }
}

TEST(ConvPlan, RefusesWhatNoKernelComputes) {
  const int huge = INT32_MAX;
  const struct {
    int in, out, w, h, kernel, pad, stride, groups;
    uint32_t code;
  } cases[] = {{4, 8, 2, 2, 5, 2, 1, 1, 0},          {4, 8, 2, 2, 5, 1, 1, 1, 1},
               {4, 8, 9, 4, 5, 0, 1, 1, 1},          {4, 8, 4, 9, 5, 0, 1, 1, 1},
               {4, 8, 9, 9, 3, 1, 1, 2, 1},          {4, 8, 9, 9, 3, 1, 0, 1, 1},
               {4, 8, 9, 9, 0, 1, 1, 1, 1},          {4, 8, 9, 9, 3, -1, 1, 1, 1},
               {4, 8, huge, huge, 1, huge, 1, 1, 1}, {huge, huge, 9, 9, 3, 1, 1, 1, 1}};
  zyn_conv_plan p = {};
  for (const auto& c : cases)
    EXPECT_EQ(zyn_cg_conv_plan(c.in, c.out, c.w, c.h, c.kernel, c.pad, c.stride, c.groups, 1, &p),
              c.code);
  EXPECT_EQ(zyn_cg_conv_plan(4, 4, 9, 9, 3, 1, 1, 1, 1, nullptr), 1u);
  const Block input(Array({6, 6, 4})), shorter(Array({143}));
  const zyn_conv_param good = conv_param(4, 4, 3, 1, 1);
  const uint32_t threads = 1;
  for (const zyn_tensor* w : {&shorter.tensor, static_cast<const zyn_tensor*>(nullptr)})
    EXPECT_EQ(zyn_cg_conv_prepare_planned(&input.tensor, w, &good, &threads), nullptr);
}

// alpha * A x B + beta * C with the roundings in the documented places: runs of run terms,
// each a chain of fused multiply-adds, scaled, then joined to the output.
struct Product {
  int m, n, k, gap;
  float alpha, beta;
  int lda = k + gap, ldb = n + 2 * gap, ldc = n + 1 + 2 * gap;
  PageEnd<float> a{size(m, lda, k)}, b{size(k, ldb, n)};
  PageEnd<float> before{size(m, ldc, n)}, after{size(m, ldc, n)};

  static size_t size(int rows, int pitch, int last) {
    return static_cast<size_t>((rows - 1) * pitch + last);
  }
  Product(std::array<int, 4> sizes, float scale, float keep)
      : m(sizes[0]), n(sizes[1]), k(sizes[2]), gap(sizes[3]), alpha(scale), beta(keep) {
    Random random(1);
    for (PageEnd<float>* block : {&a, &b, &before})
      for (float& v : *block) v = random.real(-1, 1);
    std::copy(before.begin(), before.end(), after.begin());
  }
  void expect(int run) const {
    SCOPED_TRACE(testing::Message() << m << " x " << n << " x " << k << ", beta " << beta);
    for (int i = 0; i < static_cast<int>(after.size()); i++) {
      const int row = i / ldc, column = i % ldc;
      float want = before[i];
      for (int first = 0; column < n && first < k; first += run) {
        float chain = 0;
        for (int t = first; t < k && t < first + run; t++)
          chain = fmaf(a[row * lda + t], b[t * ldb + column], chain);
        const float factor = first == 0 ? beta : 1.0f;
        want = factor != 0 ? fmaf(factor, want, alpha * chain) : alpha * chain;
      }
      ASSERT_EQ(after[i], want) << "row " << row << " column " << column;
    }
  }
};

TEST(Gemm, MacroKernelAtEveryEdge) {
  const struct {
    int block, width;
    zyn_gemm_micro micro;
  } kernels[] = {
      {6, 16, zyn_gemm_micro_6x16}, {4, 16, zyn_gemm_micro_4x16}, {8, 8, zyn_gemm_micro_8x8}};
  for (const auto& kernel : kernels)
    for (int m : {1, 4, 5, 6, 8, 9, 13})
      for (int n : {1, 8, 16, 17, 24, 25, 41, 49})
        for (float beta : {0.0f, 1.0f, -0.5f}) {
          Product p({m, n, 7, 0}, 1.5f, beta);
          PageEnd<float> rows((m + kernel.block - 1) / kernel.block * kernel.block * 7);
          PageEnd<float> panels((n + kernel.width - 1) / kernel.width * kernel.width * 7);
          zyn_gemm_pack_weights(m, 7, kernel.block, p.a.data(), 7, rows.data());
          zyn_gemm_pack_panels(7, n, kernel.width, p.b.data(), n, panels.data());
          zyn_gemm_macro(m, n, 7, 1.5f, beta, p.after.data(), p.ldc, rows.data(), panels.data(),
                         kernel.block, kernel.width, kernel.micro);
          p.expect(7);
        }
}

TEST(Gemm, GeneralMultiplyInBlocksOf512) {
  constexpr int kSizes[][3] = {{1, 1, 1},   {1, 1, 1600},  {5, 1, 513},  {37, 3, 70}, {3, 5, 512},
                               {512, 7, 9}, {513, 9, 5},   {9, 512, 3},  {7, 513, 4}, {2, 1025, 2},
                               {33, 65, 9}, {16, 7, 1030}, {70, 80, 520}};
  for (const auto& [m, n, k] : kSizes)
    for (float beta : {0.0f, 0.75f}) {
      Product p({m, n, k, 1}, -1.25f, beta);
      ASSERT_EQ(zyn_cg_sgemm(m, n, k, -1.25f, beta, p.a.data(), p.lda, p.b.data(), p.ldb,
                             p.after.data(), p.ldc),
                0u);
      p.expect(512);
    }
}

// Method 2 sums layers of no shape of its own as the general multiply would, bit by bit: those of
// one pixel, by strips and by lists of places, with one block of terms and with several.
TEST(Gemm, OtherLayersSumAsTheGeneralMultiplyDoes) {
  struct Shape {
    int w, h, channels, rows, kernel, stride, pad;
  };
  std::vector<Shape> shapes = {
      {12, 9, 57, 20, 3, 1, 0}, {30, 20, 19, 5, 6, 2, 2}, {20, 9, 29, 3, 6, 1, 3},
      {10, 9, 513, 5, 2, 1, 0}, {33, 7, 128, 9, 2, 1, 1}, {15, 15, 12, 10, 4, 1, 2},
      {28, 9, 57, 70, 3, 1, 0}, {7, 6, 60, 5, 3, 1, 0},   {17, 5, 4, 3, 3, 3, 1},
      {34, 40, 70, 1, 4, 1, 2}, {34, 40, 7, 2, 7, 2, 3},  {19, 30, 23, 11, 5, 1, 0},
      {17, 20, 11, 1, 7, 1, 3}, {12, 9, 57, 7, 3, 1, 0}};
  for (int channels : {1, 5, 56, 57, 120})
    for (int rows : {1, 7, 8, 9, 17, 33, 70}) shapes.push_back({3, 3, channels, rows, 3, 1, 0});
  for (const Shape& s : shapes) {
    const int out_w = (s.w + 2 * s.pad - s.kernel) / s.stride + 1;
    const int pixels = out_w * ((s.h + 2 * s.pad - s.kernel) / s.stride + 1);
    const int taps = s.kernel * s.kernel;
    Product p({s.rows, pixels, s.channels * taps, 0}, 1, 0);
    Array in({s.w, s.h, s.channels}), weights({s.rows * p.k});
    Random random(2);
    for (double& v : in.v) v = static_cast<float>(random.real(-1, 1));
    std::copy(p.a.begin(), p.a.end(), weights.v.begin());
    for (int i = 0; i < p.k * pixels; i++) {
      const int t = i / pixels, at = i % pixels;
      const int x = at % out_w * s.stride + t % s.kernel - s.pad;
      const int y = at / out_w * s.stride + t % taps / s.kernel - s.pad;
      const bool inside = x >= 0 && x < s.w && y >= 0 && y < s.h;
      p.b[i] = inside ? static_cast<float>(in.v[(t / taps * s.h + y) * s.w + x]) : 0.0f;
    }
    Net net;
    const zyn_conv_param param = conv_param(s.channels, s.rows, s.kernel, s.stride, s.pad);
    const int node = net.op(ZYN_OP_CONV, param, {net.input(in), net.constant(weights)});
    ASSERT_EQ(net.go(), 0);
    const Array out = net.output(node);
    for (int i = 0; i < s.rows * pixels; i++)
      p.after[i / pixels * p.ldc + i % pixels] = static_cast<float>(out.v[i]);
    p.expect(512);
  }
}

TEST(Gemm, GeneralMultiplyRefusalsAndMemory) {
  float a[4] = {1, 2, 3, 4}, b[4] = {1, 0, 0, 1}, c[4] = {9, 9, NAN, 9};
  EXPECT_EQ(zyn_cg_sgemm(2, 2, 2, 1, 0, nullptr, 2, b, 2, c, 2), 1u);
  EXPECT_EQ(zyn_cg_sgemm(0, 2, 2, 1, 0, a, 2, b, 2, c, 2), 1u);
  EXPECT_EQ(zyn_cg_sgemm(2, 2, 2, 1, 0, a, 1, b, 2, c, 2), 1u);
  EXPECT_EQ(for_each_failing_allocation([&](int64_t n, bool) {
              c[0] = 9;
              const uint32_t code = zyn_cg_sgemm(2, 2, 2, 1, 0, a, 2, b, 2, c, 2);
              EXPECT_EQ(code, n <= 1 ? 2u : 0u);
              EXPECT_EQ(c[0], n <= 1 ? 9.0f : 1.0f);
              return code == 0;
            }),
            1);
  EXPECT_EQ(c[2], 3.0f) << "with beta 0 the output is not read";
}

}  // namespace

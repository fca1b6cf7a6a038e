// Layout converters, softmax and fixed point to float, on buffers that end at an
// inaccessible page.
#include <math.h>

#include <vector>

#include "support/buffers.h"
#include "zyncore.h"

namespace {

using namespace zyn_test;

// A tensor over a page-end buffer of its own.
struct Tensor {
  Tensor(std::vector<int32_t> dims, uint32_t type = ZYN_TYPE_F32)
      : record(zyn_create_tensor_header(static_cast<int32_t>(dims.size()), dims.data(), type)),
        bytes(record->byte_size) {
    zyn_set_tensor_data(record, bytes.data(), record->byte_size);
  }
  ~Tensor() { zyn_release_tensor(&record); }
  template <typename T = float>
  T* as() {
    return reinterpret_cast<T*>(bytes.data());
  }
  zyn_tensor* record;
  PageEnd<uint8_t> bytes;
};

zyn_tensor* const none = nullptr;

TEST(TensorLayout, EveryWordLandsAtItsPixelAndChannel) {
  for (bool blocked : {false, true})
    for (int32_t channels : {1, 2, 3, 4, 5, 7, 8, 11, 12, 13, 16, 21, 31})
      for (int32_t w : {1, 3, 4, 5, 16, 17})
        for (int32_t h : {1, 2, 13}) {
          // A type of 4-byte integers: the words pass as they are, NaN patterns too.
          Tensor source({w, h, channels}, 4), destination({w, h, channels}, 4);
          source.record->layout = blocked ? ZYN_LAYOUT_BLOCKED : ZYN_LAYOUT_PLANAR;
          const int64_t pixels = int64_t{w} * h;
          for (int64_t i = 0; i < pixels * channels; i++)
            source.as<uint32_t>()[i] = static_cast<uint32_t>(0x7F800000 + 2654435761u * i);
          const auto convert =
              blocked ? zyn_tensor_convert_NHWG2NHWC : zyn_tensor_convert_NCHW2NHWC;
          ASSERT_EQ(convert(destination.record, source.record), 0);
          EXPECT_EQ(destination.record->layout, 2u);
          for (int64_t i = 0; i < pixels * channels; i++) {
            const int64_t p = i / channels, c = i % channels, eights = channels / 8 * 8;
            const int64_t group = !blocked                            ? 1
                                  : c < eights                        ? 8
                                  : c < eights + channels % 8 / 4 * 4 ? 4
                                                                      : 1;
            const int64_t first = c - (group == 1 ? 0 : c % group);
            ASSERT_EQ(destination.as<uint32_t>()[i],
                      source.as<uint32_t>()[first * pixels + p * group + c - first])
                << w << "x" << h << "x" << channels << " pixel " << p << " channel " << c;
          }
        }
}

TEST(TensorLayout, BadArgumentsAreRefusedAndChangeNothing) {
  Tensor good({2, 2, 3}), source({2, 2, 3}), flat({4, 3}), longer({2, 2, 4}), narrow({2, 2, 3}, 3);
  Tensor four({2, 2, 3, 2}), other({2, 2, 6});
  for (auto* convert : {zyn_tensor_convert_NCHW2NHWC, zyn_tensor_convert_NHWG2NHWC}) {
    const uint32_t layout = convert == zyn_tensor_convert_NHWG2NHWC ? 3 : 0;
    for (Tensor* t : {&flat, &narrow, &four, &source}) t->record->layout = layout;
    zyn_tensor empty = *source.record, torn = empty, wrong = empty;
    empty.data = nullptr;
    for (zyn_tensor* bad : {none, flat.record, longer.record, narrow.record, &empty}) {
      EXPECT_EQ(convert(bad, source.record), 1);
      EXPECT_EQ(convert(good.record, bad), 1);
    }
    for (uint32_t step = 1; step < 5; step++) {
      wrong.layout = (layout + step) % 5;
      EXPECT_EQ(convert(good.record, &wrong), 1) << wrong.layout;
    }
    EXPECT_EQ(good.record->layout, 0u);
    // Extents that the record itself contradicts, and one without a row.
    torn.dims[2] = 1 << 30;
    EXPECT_EQ(convert(good.record, &torn), 1);
    torn.dims[1] = 0;
    memset(good.bytes.data(), 0x5A, good.bytes.size());
    EXPECT_EQ(convert(good.record, &torn), 0);
    EXPECT_TRUE(good.record->layout == 2 && good.bytes[0] == 0x5A);
    good.record->layout = 0;
    // Only the first image of a batch is converted.
    memset(four.bytes.data(), 0, four.bytes.size());
    memset(other.bytes.data(), 0x5A, other.bytes.size());
    EXPECT_EQ(convert(other.record, four.record), 0);
    EXPECT_TRUE(other.bytes[47] == 0 && other.bytes[48] == 0x5A);
  }
}

TEST(Softmax, EveryGroupMatchesTheFormulaAndLeavesTheRestAlone) {
  Random random(7);
  for (int32_t n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 16, 17, 100, 1000})
    for (int32_t groups : {1, 7, 8, 9, 17}) {
      SCOPED_TRACE(testing::Message() << groups << " groups of " << n);
      const int32_t count = n * groups + (n > 1);
      Tensor source({count}), destination({count}), alone({n});
      for (int32_t i = 0; i < count; i++) source.as()[i] = random.real(-30, 30);
      destination.as()[count - 1] = -7.0f;
      ASSERT_EQ(zyn_tensor_softmax(destination.record, source.record, n), 0);
      EXPECT_TRUE(n == 1 || destination.as()[count - 1] == -7.0f);
      for (int32_t g = 0; g < groups; g++) {
        const float *x = source.as() + g * n, *y = destination.as() + g * n;
        double sum = 0;
        for (int32_t i = 0; i < n; i++) sum += exp(x[i]);
        // m + ln s and the difference are rounded to floats below 64: 2^-19 each.
        for (int32_t i = 0; i < n; i++)
          ASSERT_NEAR(y[i], exp(x[i]) / sum, 6e-6 * exp(x[i]) / sum + 1e-44);
        memcpy(alone.as(), x, alone.bytes.size());
        ASSERT_EQ(zyn_tensor_softmax(alone.record, alone.record, n), 0);
        ASSERT_EQ(memcmp(alone.as(), y, alone.bytes.size()), 0) << "group " << g << " alone";
      }
      ASSERT_EQ(zyn_tensor_softmax(source.record, source.record, n), 0);
      ASSERT_EQ(memcmp(source.as(), destination.as(), size_t{4} * n * groups), 0) << "in place";
    }
}

// Blocks that overlap are walked element by element, so a destination behind its
// source gives the bits of separate blocks, and one ahead of it reads its own results.
TEST(Softmax, OverlappingBlocksAreWalkedInOrder) {
  constexpr int32_t kCount = 40, kGroup = 20;
  for (int offset : {-9, -8, -1, 1, 8, 9}) {
    float memory[kCount + 20], simulated[kCount + 20];
    for (int i = 0; i < kCount + 20; i++) memory[i] = simulated[i] = static_cast<float>(i % 7) - 2;
    Tensor source({kCount}), destination({kCount});
    zyn_set_tensor_data(source.record, memory + 10, kCount * 4);
    zyn_set_tensor_data(destination.record, memory + 10 + offset, kCount * 4);
    ASSERT_EQ(zyn_tensor_softmax(destination.record, source.record, kGroup), 0);
    for (float* x = simulated + 10; x < simulated + 10 + kCount; x += kGroup) {
      double s = 0;
      for (int i = 0; i < kGroup; i++) s += exp(x[i]);
      for (int i = 0; i < kGroup; i++) x[i + offset] = static_cast<float>(exp(x[i] - log(s)));
    }
    for (int i = 0; i < kCount + 20; i++)
      ASSERT_NEAR(memory[i], simulated[i], 2e-6 * fabs(simulated[i])) << "offset " << offset;
  }
}

TEST(Softmax, LimitsFollowTheFormula) {
  const float inf = INFINITY, nan = NAN;
  const float cases[][2][3] = {{{-inf, -inf, -inf}, {0, 0, 0}}, {{-inf, 5, -inf}, {0, 1, 0}},
                               {{1, inf, 0}, {nan, nan, nan}},  {{nan, 0, 0}, {nan, nan, nan}},
                               {{3e38f, -3e38f, 0}, {1, 0, 0}}, {{-0.0f, -200, -200}, {1, 0, 0}}};
  for (const auto& c : cases) {
    Tensor t({3, 9});  // nine groups: eight together, one alone
    for (int i = 0; i < 27; i++) t.as()[i] = c[0][i % 3];
    ASSERT_EQ(zyn_tensor_softmax(t.record, t.record, 3), 0);
    for (int i = 0; i < 27; i++) {
      const float want = c[1][i % 3], have = t.as()[i];
      EXPECT_TRUE(isnan(want) ? isnan(have) : have == want) << c[0][0] << ": " << have;
    }
  }
}

TEST(Softmax, BadArgumentsAreRefused) {
  Tensor a({3, 2}), b({3, 2}), turned({2, 3}), deeper({3, 2, 1}), narrow({3, 2}, 3);
  for (int32_t group : {0, -1, 7}) EXPECT_EQ(zyn_tensor_softmax(a.record, b.record, group), 1);
  zyn_tensor empty = *b.record;
  empty.data = nullptr;
  for (zyn_tensor* bad : {none, turned.record, deeper.record, narrow.record, &empty}) {
    EXPECT_EQ(zyn_tensor_softmax(a.record, bad, 3), 1);
    EXPECT_EQ(zyn_tensor_softmax(bad, b.record, 3), 1);
  }
}

TEST(FixedPointToFloat, EveryWordIsDividedExactly) {
  const auto convert = zyn_tensor_transform_data_from_fpi16_to_real32;
  constexpr int32_t kCount = 65536;
  Tensor source({kCount}, ZYN_TYPE_FPI16), destination({kCount});
  for (int32_t i = 0; i < kCount; i++) source.as<int16_t>()[i] = static_cast<int16_t>(i - 32768);
  for (uint32_t q = 0; q < 16; q++) {
    for (int32_t count : {kCount, -1, 0, 1, 31, 32, 33, 63, 95}) {
      for (int32_t i = 0; i < 100; i++) destination.as()[i] = 99999;
      EXPECT_EQ(convert(destination.record, source.record, count, q), 0);
      for (int32_t i = 0; i < (count == kCount ? kCount : 100); i++)
        ASSERT_EQ(destination.as()[i], i < count ? ldexp(i - 32768, -static_cast<int>(q)) : 99999.0)
            << count << " of q " << q;
    }
  }
  // Source words in the upper half of the destination: read before they are reached.
  Tensor both({64}), upper({64}, ZYN_TYPE_FPI16);
  auto* words = both.as<int16_t>() + 64;
  for (int i = 0; i < 64; i++) words[i] = static_cast<int16_t>(100 * i - 3000);
  zyn_set_tensor_data(upper.record, words, 128);
  ASSERT_EQ(convert(both.record, upper.record, 64, 0), 0);
  for (int i = 0; i < 64; i++) ASSERT_EQ(both.as()[i], 100 * i - 3000);
}

TEST(FixedPointToFloat, BadArgumentsAreRefused) {
  const auto convert = zyn_tensor_transform_data_from_fpi16_to_real32;
  Tensor f({4}), s({4}, ZYN_TYPE_FPI16), small({3}), two_channels({4}, 14), unsigned16({4}, 2);
  EXPECT_EQ(convert(f.record, s.record, 4, 15), 0);
  EXPECT_EQ(convert(f.record, s.record, 5, 0), 1);
  EXPECT_EQ(convert(f.record, s.record, 4, 16), 1);
  zyn_tensor empty = *s.record, no_room = *f.record;
  empty.data = no_room.data = nullptr;
  for (zyn_tensor* bad : {none, small.record, s.record, two_channels.record, &no_room})
    EXPECT_EQ(convert(bad, s.record, 4, 0), 1);
  for (zyn_tensor* bad : {none, f.record, unsigned16.record, &empty})
    EXPECT_EQ(convert(f.record, bad, 4, 0), 1);
}

}  // namespace

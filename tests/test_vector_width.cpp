// Builds for vectors of 256 and of 512 bits give the same bits: digests of the outputs of random
// layers with real numbers, which ./dev test prints from both builds and compares. Disabled
// elsewhere: by itself a digest says nothing.
#include "cg/cpu/kernels/general/zyn_conv_general.h"
#include "support/conv_case.h"

namespace {

using namespace zyn_test;

struct Digest {
  uint64_t hash = 14695981039346656037u;
  void add(const Array& a) {
    for (const double v : a.v) {
      uint64_t bits = 0;
      memcpy(&bits, &v, sizeof(bits));
      hash = (hash ^ bits) * 1099511628211u;
      hash ^= hash >> 29;
    }
  }
};

// A layer that every method takes, of extents on both sides of every tile.
struct RandomLayer {
  Random random;
  zyn_conv_param p;
  Array in, weights;
  int out_w, out_h;

  explicit RandomLayer(uint64_t seed) : random(seed) {
    constexpr int kChannels[] = {1, 3, 4, 8, 9, 16, 20, 24, 31, 32, 40, 48, 56, 64, 72, 100, 160};
    const bool depthwise = random.integer(0, 3) == 0;
    const int channels = pick(kChannels), kernel = depthwise ? 3 : 1 + 2 * random.integer(0, 1);
    p = conv_param(channels, depthwise ? channels : pick(kChannels), kernel,
                   kernel == 1 ? 1 : random.integer(1, 2), kernel / 2, depthwise ? channels : 1);
    p.bias = random.integer(0, 1);
    const int most = random.integer(0, 3) ? 16 : 70, w = random.integer(1, most);
    in = random_array(random, {w, random.integer(1, most), channels});
    const int inputs = depthwise ? 1 : channels;
    weights = random_array(random, {p.out_channels * (inputs * kernel * kernel + 1)}, -0.9f, 0.9f);
    out_w = (in.w() - 1) / p.stride_h + 1, out_h = (in.h() - 1) / p.stride_h + 1;
  }
  template <size_t kCount>
  int pick(const int (&list)[kCount]) {
    return list[random.integer(0, static_cast<int>(kCount) - 1)];
  }

  // Through a graph; fixed point: kFixed.
  Array by_method(uint32_t method) {
    Net net(method == kFixed);
    net.method(method);
    p.word14.activation = random.integer(0, 2);
    if (method == kFixed)
      for (double& v : in.v) v = std::round(v * 9000);
    const int input = net.input(in), constant = net.constant(weights);
    const int node = net.op(ZYN_OP_CONV_ACT, p, {input, constant});
    EXPECT_EQ(net.make(), 0);
    if (method == kFixed) net.q_list(15, {{0, 8}, {2, 6}});
    EXPECT_EQ(net.prepare() + net.run(), 0);
    return net.output(node);
  }

  Array by_general_kernels(bool planar) {
    std::vector<float> constant(weights.v.begin(), weights.v.end());
    const int32_t out[] = {out_w, out_h, p.out_channels};
    Net net;
    const int input = net.input(in), output = net.input(Array({out_w, out_h, p.out_channels}));
    int64_t floats = 0;
    zyn_conv_general* layer =
        zyn_conv_general_prepare(constant.data(), &p, in.dims.data(), out, planar, &floats);
    if (!layer) return Array();
    PageEnd<float> scratch(static_cast<size_t>(floats + 7) / 8 * 8);
    zyn_conv_general_run(layer, net.output_tensor(output), net.output_tensor(input),
                         {constant.data() + constant.size() - p.out_channels, ZYN_EPILOGUE_RELU},
                         scratch.data());
    zyn_conv_general_release(&layer);
    return net.output(output);
  }
};

TEST(VectorWidth, DISABLED_DigestsOfRealLayers) {
  for (uint32_t method = 0; method < 6; method++) {
    Digest digest;
    for (uint64_t seed = 1; seed <= 200; seed++) {
      RandomLayer layer(seed);
      digest.add(method > kFixed ? layer.by_general_kernels(method > 4) : layer.by_method(method));
    }
    printf("digest of method %u: %016llx\n", method, static_cast<unsigned long long>(digest.hash));
  }
}

}  // namespace

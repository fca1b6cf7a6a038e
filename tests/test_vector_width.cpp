// Random layers with real numbers by every method: the methods agree, and ./dev test compares the
// digests of their outputs between builds for vectors of 256 and of 512 bits, whose bits are the
// same.
#include "support/conv_case.h"
#include "support/network_files.h"

namespace {

using namespace zyn_test;

struct Digest {
  uint64_t hash = 14695981039346656037u;
  void add(const Array& a) {
    EXPECT_FALSE(a.v.empty());
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

  explicit RandomLayer(uint64_t seed) : random(seed) {
    constexpr int kChannels[] = {1, 3, 4, 8, 9, 16, 20, 24, 31, 32, 40, 48, 56, 64, 72, 100, 160};
    const bool depthwise = random.integer(0, 3) == 0;
    const int channels = pick(kChannels), kernel = depthwise ? 3 : 1 + 2 * random.integer(0, 1);
    p = conv_param(channels, depthwise ? channels : pick(kChannels), kernel,
                   kernel == 1 ? 1 : random.integer(1, 2), kernel / 2, depthwise ? channels : 1);
    p.bias = random.integer(0, 1);
    p.word14.activation = random.integer(0, 2);
    const int most = random.integer(0, 3) ? 16 : 70, w = random.integer(1, most);
    in = random_array(random, {w, random.integer(1, most), channels});
    const int inputs = depthwise ? 1 : channels;
    weights = random_array(random, {p.out_channels * (inputs * kernel * kernel + 1)}, -0.9f, 0.9f);
  }
  template <size_t kCount>
  int pick(const int (&list)[kCount]) {
    return list[random.integer(0, static_cast<int>(kCount) - 1)];
  }

  // In a graph; fixed point: kFixed.
  Array by_graph(uint32_t method) {
    Net net(method == kFixed);
    net.method(method);
    if (method == kFixed)
      for (double& v : in.v) v = std::round(v * 9000);
    const int input = net.input(in), constant = net.constant(weights);
    const int node = net.op(ZYN_OP_CONV_ACT, p, {input, constant});
    EXPECT_EQ(net.make(), 0);
    if (method == kFixed) net.q_list(15, {{0, 8}, {2, 6}});
    EXPECT_EQ(net.prepare() + net.run(), 0);
    return net.output(node);
  }

  // In a network file, which knows more methods.
  Array by_network(int method) {
    const Writer writer(zyn_net_writer_create());
    const zyn_net_port image = port("x", in.dims);
    const int x = zyn_net_writer_input(writer.get(), &image);
    const int w = add_constant(writer.get(), {weights.v.begin(), weights.v.end()});
    const int y = add_node(writer.get(), ZYN_OP_CONV_ACT, &p, {x, w});
    zyn_net_writer_method(writer.get(), y, method);
    add_output(writer.get(), "y", y, 0);
    const Network net = load(bytes_of(writer.get()));
    std::copy(in.v.begin(), in.v.end(),
              static_cast<float*>(zyn_net_input(net.get(), nullptr)->data));
    EXPECT_EQ(zyn_net_run(net.get()), 0);
    return Net::read(zyn_net_output(net.get(), nullptr));
  }
};

// The sums of one output stand in other orders.
void expect_close(const Array& a, const Array& b, const std::string& what) {
  ASSERT_EQ(a.v.size(), b.v.size()) << what;
  double range = 0, worst = 0;
  for (size_t i = 0; i < a.v.size(); i++) {
    range = std::max(range, std::abs(b.v[i]));
    worst = std::max(worst, std::abs(a.v[i] - b.v[i]));
  }
  EXPECT_LE(worst, 1e-4 * range) << what;
}

// A method that networks do not know leaves the layer to their choice.
TEST(VectorWidth, MethodsAgreeOnRealLayers) {
  const int layers = soak(20, 200);
  for (int way = 0; way < 9; way++) {
    Digest digest;
    for (int seed = 1; seed <= layers; seed++) {
      RandomLayer layer(static_cast<uint64_t>(seed));
      const Array out = way <= static_cast<int>(kFixed) ? layer.by_graph(static_cast<uint32_t>(way))
                                                        : layer.by_network(way - 1);
      digest.add(out);
      if (way != static_cast<int>(kFixed))
        expect_close(out, layer.by_graph(0),
                     "way " + std::to_string(way) + ", seed " + std::to_string(seed));
    }
    printf("digest %d: %016llx\n", way, static_cast<unsigned long long>(digest.hash));
  }
}

}  // namespace

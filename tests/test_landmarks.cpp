// The landmark network of the examples against an evaluation of its own: every node, in
// double precision, from the same weights.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "../examples/landmark_network.h"
#include "support/capture.h"

namespace {

using Node = LandmarkNetwork::Node;

struct Block {
  int w, h, c;
  std::vector<double> v;
  double* plane(int z) { return v.data() + static_cast<size_t>(z) * static_cast<size_t>(w * h); }
};

Block make(int w, int h, int c) {
  return {w, h, c, std::vector<double>(static_cast<size_t>(w) * static_cast<size_t>(h * c), 0.0)};
}

// Square kernels; rows of the output grow by one weight at a time.
Block convolve(Block& in, const float* k, const zyn_conv_param& p) {
  const int size = (in.w - 1 + 2 * p.pad_h - (p.kernel_h - 1)) / p.stride_h + 1;
  Block out = make(size, size, p.out_channels);
  const int inputs = p.in_channels / p.groups, outputs = p.out_channels / p.groups;
  const float* bias = k + p.kernel_h * p.kernel_h * inputs * p.out_channels;
  for (int o = 0; o < p.out_channels; o++) {
    std::fill(out.plane(o), out.plane(o) + size * size, static_cast<double>(bias[o]));
    for (int i = o / outputs * inputs; i < (o / outputs + 1) * inputs; i++)
      for (int r = 0; r < p.kernel_h; r++)
        for (int c = 0; c < p.kernel_h; c++) {
          const double weight = static_cast<double>(*k++);
          for (int y = 0; y < size; y++) {
            const int sy = y * p.stride_h + r - p.pad_h;
            if (sy < 0 || sy >= in.h) continue;
            const double* source = in.plane(i) + sy * in.w + c - p.pad_h;
            double* row = out.plane(o) + y * size;
            int first = 0, last = size;
            while (first * p.stride_h + c - p.pad_h < 0) first++;
            while ((last - 1) * p.stride_h + c - p.pad_h >= in.w) last--;
            for (int x = first; x < last; x++) row[x] += weight * source[x * p.stride_h];
          }
        }
    if (p.word14.activation == ZYN_ACT_RELU)
      for (double* v = out.plane(o); v < out.plane(o) + size * size; v++) *v = std::max(*v, 0.0);
  }
  return out;
}

Block evaluate(const LandmarkNetwork& net, const Node& node, std::vector<Block>& values) {
  Block& in = values[static_cast<size_t>(node.from[0])];
  const Node* constant = nullptr;
  for (int from : node.from)
    if (net.nodes()[static_cast<size_t>(from)].type == ZYN_OP_CONSTANT)
      constant = &net.nodes()[static_cast<size_t>(from)];
  const float* k = constant ? static_cast<const float*>(constant->data->data) : nullptr;
  Block out = make(0, 0, 0);
  switch (node.type) {
    case ZYN_OP_ADD:
      out = in;
      for (size_t i = 0; i < out.v.size(); i++)
        out.v[i] += values[static_cast<size_t>(node.from[1])].v[i];
      return out;
    case ZYN_OP_AVERAGE_POOL:
      out = make(1, 1, in.c);
      for (int z = 0; z < in.c; z++)
        for (int i = 0; i < in.w * in.h; i++)
          out.v[static_cast<size_t>(z)] += in.plane(z)[i] / (in.w * in.h);
      return out;
    case ZYN_OP_CONCAT:
      for (int from : node.from) {
        const Block& part = values[static_cast<size_t>(from)];
        out.v.insert(out.v.end(), part.v.begin(), part.v.end());
      }
      return {1, 1, static_cast<int>(out.v.size()), out.v};
    case ZYN_OP_RESHAPE:
      return {in.c, 1, 1, in.v};
    case ZYN_OP_LINEAR:
      out = make(static_cast<int>(node.record.linear.out_features), 1, 1);
      for (int j = 0; j < out.w; j++) {
        out.v[static_cast<size_t>(j)] = static_cast<double>(k[out.w * in.w + j]);
        for (int i = 0; i < in.w; i++)
          out.v[static_cast<size_t>(j)] +=
              in.v[static_cast<size_t>(i)] * static_cast<double>(k[j * in.w + i]);
      }
      return out;
    default:
      return convolve(in, k, node.record.conv);
  }
}

TEST(Landmarks, EveryNodeOfTheExampleNetworkIsRight) {
  for (int divisor : {1, 4}) {
    LandmarkNetwork net(5, divisor);
    const std::string text = zyn_test::printed([&] { ASSERT_EQ(net.build(), 0); });
    float* pixels = static_cast<float*>(net.input()->data);
    Block image = make(112, 112, 3);
    for (size_t i = 0; i < image.v.size(); i++) {
      pixels[i] = static_cast<float>(i * 2654435761u % 256) / 255.0f;
      image.v[i] = static_cast<double>(pixels[i]);
    }
    ASSERT_EQ(net.run(), 0);
    ASSERT_EQ(net.output()->dims[0], 2 * LandmarkNetwork::kPoints);
    std::vector<Block> values;
    for (const Node& node : net.nodes()) {
      const int id = static_cast<int>(values.size());
      if (node.from.empty())
        values.push_back(node.type == ZYN_OP_INPUT ? image : make(0, 0, 0));
      else
        values.push_back(evaluate(net, node, values));
      if (node.from.empty()) continue;
      const zyn_tensor* got = net.output(id);
      ASSERT_EQ(got->count, static_cast<int64_t>(values.back().v.size())) << id;
      double size = 0.1, worst = 0;
      for (int64_t i = 0; i < got->count; i++) {
        const double expected = values.back().v[static_cast<size_t>(i)];
        size = std::max(size, std::fabs(expected));
        worst = std::max(
            worst, std::fabs(static_cast<double>(static_cast<float*>(got->data)[i]) - expected));
      }
      ASSERT_LT(worst, 2e-5 * size) << "node " << id << " of type " << node.type;
    }
  }
}

}  // namespace

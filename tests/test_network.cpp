// Network files: what is written comes back, computes what the same graph computes by
// hand, and takes little memory; files that are damaged or wrong are refused with a reason.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../examples/ssd320.h"
#include "base/zyn_md5.h"
#include "cg/cpu/ops/zyn_cg_conv.h"
#include "net/zyn_net_file.h"
#include "support/capture.h"
#include "support/ledger.h"
#include "support/net.h"
#include "support/network_files.h"
#include "zyncore_net.h"

using namespace zyn_test;

namespace {

// image {6, 5, 2} > conv 3 x 3 to 4 channels > {y, and y beside the image}.
Bytes small_file(std::function<void(zyn_net_writer*)> more = {}) {
  Writer writer(zyn_net_writer_create());
  zyn_net_port in = port("image", {6, 5, 2});
  in.channel_order = 2;
  in.resize = 1;
  in.mean[1] = 127.5f;
  const int image = zyn_net_writer_input(writer.get(), &in);
  std::vector<float> words(4 * 2 * 9 + 4);
  for (size_t i = 0; i < words.size(); i++) words[i] = static_cast<float>(i % 7) - 3.0f;
  const int weights = add_constant(writer.get(), words);
  const zyn_conv_param conv = {2, 4, 3, 3, 1, 1, 1, 1, {0, 0}, 1, 1, 1, 1, {1}, 0};
  const int from[] = {image, weights};
  const int y = zyn_net_writer_node(writer.get(), "conv", ZYN_OP_CONV_ACT, &conv, from, 2);
  const zyn_concat_param axis = {2, 2, nullptr};
  const int both[] = {y, image};
  const int joined = zyn_net_writer_node(writer.get(), "join", ZYN_OP_CONCAT, &axis, both, 2);
  const zyn_net_port first = port("y", {}, y), second = port("joined", {}, joined);
  EXPECT_EQ(zyn_net_writer_output(writer.get(), &first), 0);
  EXPECT_EQ(zyn_net_writer_output(writer.get(), &second), 0);
  EXPECT_EQ(zyn_net_writer_metadata(writer.get(), "origin", "a test"), 0);
  if (more) more(writer.get());
  return bytes_of(writer.get());
}

// The file with something changed and its digest made anew.
Bytes changed(Bytes bytes, size_t at, std::vector<uint8_t> what) {
  for (size_t i = 0; i < what.size(); i++) bytes[at + i] = what[i];
  zyn_md5_ctx md5;
  zyn_md5_start(&md5);
  zyn_md5_update(&md5, bytes.data(), static_cast<int64_t>(bytes.size()) - kZynFileDigestBytes);
  zyn_md5_finish(&md5, bytes.data() + bytes.size() - kZynFileDigestBytes);
  return bytes;
}

size_t row_at(const Bytes& bytes, uint32_t id) {
  for (size_t row = sizeof(zyn_file_frame);; row += sizeof(zyn_file_row))
    if (bytes[row] == id) return row;
}
size_t section_at(const Bytes& bytes, uint32_t id) {
  zyn_file_row found;
  memcpy(&found, bytes.data() + row_at(bytes, id), sizeof(found));
  return static_cast<size_t>(found.offset);
}

std::string refusal(const Bytes& bytes) {
  EXPECT_EQ(load(bytes), nullptr);
  return zyn_error_detail();
}

}  // namespace

TEST(Network, WhatIsWrittenComesBack) {
  const Network net = load(small_file());
  ASSERT_TRUE(net) << zyn_error_detail();
  const zyn_net_description* d = zyn_net_describe(net.get());
  ASSERT_EQ(d->input_count, 1);
  EXPECT_STREQ(d->inputs[0].name, "image");
  EXPECT_EQ(d->inputs[0].channel_order, 2);
  EXPECT_EQ(d->inputs[0].mean[1], 127.5f);
  ASSERT_EQ(d->output_count, 2);
  EXPECT_STREQ(d->outputs[1].name, "joined");
  EXPECT_EQ(std::vector<int>(d->outputs[1].dims, d->outputs[1].dims + 3),
            (std::vector<int>{6, 5, 6}));
  EXPECT_EQ(d->multiply_adds, 6 * 5 * 4 * 2 * 9);
  EXPECT_EQ(d->parameters, 4 * 2 * 9 + 4);
  EXPECT_STREQ(d->nodes[2].operation, "CONV_ACT");
  EXPECT_NE(d->nodes[2].method, 0);  // chosen by its cost
  EXPECT_STREQ(zyn_net_metadata(net.get(), "origin"), "a test");
  EXPECT_EQ(zyn_net_metadata(net.get(), "licence"), nullptr);

  auto* pixels = static_cast<float*>(zyn_net_input(net.get(), "image")->data);
  for (int i = 0; i < 60; i++) pixels[i] = static_cast<float>(i % 5);
  ASSERT_EQ(zyn_net_run(net.get()), 0);
  const zyn_tensor* y = zyn_net_output(net.get(), nullptr);
  const zyn_tensor* joined = zyn_net_output(net.get(), "joined");
  EXPECT_EQ(memcmp(joined->data, y->data, 4 * 120), 0);
  EXPECT_TRUE(same_bytes(static_cast<float*>(joined->data) + 120, pixels, 4 * 60));
  EXPECT_EQ(zyn_net_output(net.get(), "z"), nullptr);
  EXPECT_STREQ(zyn_error_detail(), "the network has no output 'z'");
}

TEST(Network, ComputesTheBitsOfTheGraphMadeByHandInLittleMemory) {
  for (uint32_t method : {0u, 1u, 2u}) {
    SCOPED_TRACE(method);
    ssd320::Detector detector;
    printed([&] { ASSERT_TRUE(detector.create(method)); });
    detector.generate_weights(7);
    ASSERT_TRUE(detector.prepare());
    zyn_net_options options = ZYN_NET_DEFAULTS;
    options.method = static_cast<int32_t>(method);
    const Network net = load(ssd320_file(detector), options);
    ASSERT_TRUE(net) << zyn_error_detail();
    auto* by_hand = static_cast<float*>(detector.input()->data);
    for (int i = 0; i < 3 * 320 * 240; i++)
      by_hand[i] = static_cast<float>(i * 7 % 255) / 128.0f - 1.0f;
    for (int run = 0; run < 2; run++) {  // places are shared: the second run must not notice
      memcpy(zyn_net_input(net.get(), nullptr)->data, by_hand, 4 * 3 * 320 * 240);
      ASSERT_TRUE(detector.run());
      ASSERT_EQ(zyn_net_run(net.get()), 0);
    }
    zyn_net_memory_use use = {};
    EXPECT_EQ(zyn_net_memory(net.get(), &use), 0);
    EXPECT_LE(use.total, method == 1 ? 6000000 : 6700000);
    EXPECT_LE(use.weights + use.activations + use.scratch, use.total);
    EXPECT_GE(use.weights + use.activations + use.scratch, use.total - 100000);
    for (int i = 0; i < 8; i++) {
      const zyn_net_port& out = zyn_net_describe(net.get())->outputs[i];
      const int head = i % 2 ? ssd320::kLocationHeads[i / 2] : ssd320::kScoreHeads[i / 2];
      const zyn_tensor* expected = detector.output(head);
      const zyn_tensor* got = zyn_net_output(net.get(), out.name);
      const Array shape({expected->dims[0], expected->dims[1], expected->dims[2]});
      const auto* from = static_cast<const float*>(expected->data);
      std::vector<float> planar(static_cast<size_t>(expected->count));
      for_each_element(shape, [&](int x, int y, int z) {
        planar[shape.index(x, y, z)] = from[place(shape, x, y, z, expected->layout)];
      });
      ASSERT_EQ(got->count, expected->count);
      EXPECT_EQ(got->layout, static_cast<uint32_t>(ZYN_LAYOUT_PLANAR));
      EXPECT_EQ(memcmp(got->data, planar.data(), static_cast<size_t>(got->byte_size)), 0)
          << out.name;
    }
  }
}

// Constants that functions and joins read must outlive the file's bytes.
TEST(Network, FurtherFunctionsAndJoinsComeBackWithTheirConstants) {
  Writer writer(zyn_net_writer_create());
  const zyn_net_port in = port("x", {6, 5, 9});
  int y = zyn_net_writer_input(writer.get(), &in);
  const auto add = [&](int type, const auto& record, std::vector<int> from) {
    const auto count = static_cast<int32_t>(from.size());
    return zyn_net_writer_node(writer.get(), "", type, &record, from.data(), count);
  };
  std::vector<float> slopes, row = {1, -2, 3, -4, 5, 0.5f}, matrix;
  for (int i = 0; i < 9; i++) slopes.push_back(static_cast<float>(i) / 8);
  for (int i = 0; i < 12; i++) matrix.push_back(static_cast<float>(i % 5) - 2);
  const std::vector<int> constants = {add_constant(writer.get(), slopes),
                                      add_constant(writer.get(), row)};
  zyn_tensor tensor = {};
  const int32_t dims[] = {2, 6};
  zyn_set_tensor_header(&tensor, 2, dims, ZYN_TYPE_F32);
  zyn_set_tensor_data(&tensor, matrix.data(), tensor.byte_size);
  const int weights = zyn_net_writer_constant(writer.get(), "", &tensor);
  y = add(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_PRELU, 0, 0}, {y, constants[0]});
  y = add(ZYN_OP_AFFINE, zyn_join_param{ZYN_JOIN_MULTIPLY, 0}, {y, constants[1]});
  y = add(ZYN_OP_AFFINE, zyn_join_param{ZYN_JOIN_MATMUL, 0}, {y, weights});
  y = add(ZYN_OP_FUNCTION, zyn_func_param{ZYN_FUNC_L2_NORM, 0, 1e-6f}, {y});
  const zyn_net_port out = port("y", {}, y);
  ASSERT_EQ(zyn_net_writer_output(writer.get(), &out), 0);
  Bytes bytes = bytes_of(writer.get());
  const Network net = load(bytes);
  ASSERT_TRUE(net) << zyn_error_detail();
  EXPECT_EQ(zyn_net_describe(net.get())->multiply_adds, 2 * 5 * 9 * 6);
  EXPECT_EQ(zyn_net_describe(net.get())->parameters, 9 + 6 + 12);
  std::fill(bytes.begin(), bytes.end(), uint8_t{0});
  auto* x = static_cast<float*>(zyn_net_input(net.get(), nullptr)->data);
  for (int i = 0; i < 270; i++) x[i] = static_cast<float>(i * 7 % 11) - 5;
  std::vector<float> expected;
  for (int line = 0; line < 45; line++) {
    double sums[2] = {};
    for (int i = 0; i < 12; i++) {
      const float v = x[6 * line + i / 2];
      sums[i % 2] +=
          static_cast<double>((v < 0 ? v * slopes[line / 5] : v) * row[i / 2] * matrix[i]);
    }
    for (double sum : sums)
      expected.push_back(static_cast<float>(sum / std::max(std::hypot(sums[0], sums[1]), 1e-6)));
  }
  ASSERT_EQ(zyn_net_run(net.get()), 0);
  const auto* got = static_cast<const float*>(zyn_net_output(net.get(), nullptr)->data);
  for (size_t i = 0; i < expected.size(); i++) ASSERT_NEAR(got[i], expected[i], 1e-6) << i;
}

TEST(Network, DamagedAndForeignFilesAreRefusedWithAReason) {
  const Bytes file = small_file();
  const size_t nodes = section_at(file, ZYN_FILE_NODES);
  const size_t constants = section_at(file, ZYN_FILE_CONSTANTS);
  const auto cut = [&](size_t bytes) {
    return Bytes(file.begin(), file.begin() + static_cast<int>(bytes));
  };
  EXPECT_EQ(refusal(cut(40)), "a network file has at least 48 bytes, found 40");
  EXPECT_EQ(refusal(cut(file.size() - 5)),
            "the file says that it has " + std::to_string(file.size()) + " bytes, found " +
                std::to_string(file.size() - 5) + ": it is cut short");
  Bytes damaged = file;
  damaged[nodes] ^= 1;
  EXPECT_EQ(refusal(damaged),
            "the digest at the file's end does not match its content: the file is damaged");
  EXPECT_EQ(refusal(changed(file, 0, {'Z', 'I', 'P'})),
            "this is no network file: it does not begin with \"ZYNNET\"");
  EXPECT_EQ(refusal(changed(file, 8, {1, 2, 3, 4})),
            "the file was written in big-endian byte order; network files are little-endian");
  EXPECT_EQ(refusal(changed(file, 12, {9})),
            "the file has version 9, this library reads version 1");
  EXPECT_EQ(refusal(changed(file, nodes + 2 * 32, {6})), "node 2: operator type 6 is not known");
  EXPECT_EQ(refusal(changed(file, nodes + 2 * 32 + 16, {3})),
            "node 2: type 12 has 16 to 16 parameter words, found 3");
  EXPECT_EQ(refusal(changed(file, nodes + 1 * 32 + 28, {1})),
            "node 1: an operator reads at least one node, an input or constant none and has data");
  EXPECT_EQ(refusal(changed(file, constants + 12, {0, 0, 0, 0x40})),
            "constant 0: 1073741824 floats at 0 do not lie in 320 bytes");
  // What a graph would refuse is said by its node.
  EXPECT_EQ(refusal(changed(file, section_at(file, ZYN_FILE_WORDS), {3})),
            "node 2 'conv' CONV_ACT: constant holds 76 floats, 4 x 3 x 3 x 3 weights + 4 biases = "
            "112 are needed (and 1 more)");
  zyn_net_options options = ZYN_NET_DEFAULTS;
  options.memory_limit = 4 * 6 * 5 * (2 + 4 + 6);  // of all outputs
  EXPECT_TRUE(load(file, options));
  options.memory_limit--;
  EXPECT_FALSE(load(file, options));
  EXPECT_EQ(zyn_net_load("no/such/file.zyn", nullptr), nullptr);
  EXPECT_STREQ(zyn_error_detail(), "'no/such/file.zyn' cannot be opened");
}

TEST(Network, AWriterTakesAFileUpAndChangesIt) {
  Bytes file = small_file([](zyn_net_writer* writer) { zyn_net_writer_q(writer, 2, 7); });
  // Data that end with their last constant are filled up to whole lines.
  const size_t data = row_at(file, ZYN_FILE_DATA);
  const Bytes ragged = changed(changed(file, data + 4, {76}), data + 16, {304 & 255});
  const std::string path = ::testing::TempDir() + "zyncore_writer.zyn";
  FILE* out = fopen(path.c_str(), "wb");
  ASSERT_TRUE(out);
  fwrite(ragged.data(), 1, ragged.size(), out);
  fclose(out);
  const Writer writer(zyn_net_writer_load(path.c_str()));
  remove(path.c_str());
  ASSERT_TRUE(writer) << zyn_error_detail();
  EXPECT_EQ(bytes_of(writer.get()), file);
  EXPECT_EQ(zyn_net_writer_method(writer.get(), 2, 1), 0);
  EXPECT_NE(zyn_net_writer_metadata(writer.get(), "origin", "another"), 0);
  // Behind what the file holds: the channels' sums.
  std::vector<float> ones(6, 1.0f);
  const zyn_conv_param sum = {6, 1, 1, 1, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 0, {0}, 0};
  const int from[] = {3, add_constant(writer.get(), ones)};
  const zyn_net_port s =
      port("s", {}, zyn_net_writer_node(writer.get(), "s", ZYN_OP_CONV, &sum, from, 2));
  EXPECT_EQ(zyn_net_writer_output(writer.get(), &s), 0);
  const Network net = load(bytes_of(writer.get()));
  ASSERT_TRUE(net) << zyn_error_detail();
  ASSERT_EQ(zyn_net_run(net.get()), 0);
  const auto* joined = static_cast<const float*>(zyn_net_output(net.get(), "joined")->data);
  float expected = 0;
  for (int c = 0; c < 6; c++) expected += joined[30 * c];
  EXPECT_EQ(static_cast<const float*>(zyn_net_output(net.get(), "s")->data)[0], expected);
  EXPECT_EQ(zyn_net_describe(net.get())->nodes[2].method, 1);
  EXPECT_EQ(zyn_net_writer_load(path.c_str()), nullptr);
  EXPECT_EQ(zyn_error_detail(), "'" + path + "' cannot be opened");
}

TEST(Network, EveryByteOfAFileMayBeAnything) {
  const Bytes file = small_file();
  zyn_net_options options = ZYN_NET_DEFAULTS;
  options.memory_limit = 1 << 20;
  int loaded = 0;
  for (size_t at = 8; at + 16 < file.size(); at++)
    for (uint8_t value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
      const Network net = load(changed(file, at, {value}), options);
      if (net && zyn_net_run(net.get()) == 0) loaded++;
    }
  EXPECT_GT(loaded, 100);
}

namespace {

// x {w, w, in} > conv to out channels > y, by a method or, below 0, any.
Bytes winograd_file(int w, int method, int in = 16, int out = 20, int kernel = 3) {
  Writer writer(zyn_net_writer_create());
  const zyn_net_port x = port("x", {w, w, in});
  const int pad = kernel / 2, count = out * in * kernel * kernel + out;
  std::vector<float> words(static_cast<size_t>(count));
  for (size_t i = 0; i < words.size(); i++) words[i] = static_cast<float>(i * 31 % 17) / 16 - 0.5f;
  const int from[] = {zyn_net_writer_input(writer.get(), &x), add_constant(writer.get(), words)};
  const zyn_conv_param conv = {in, out, kernel, kernel, 1, 1, pad, pad, {0, 0}, 1, 1, 1, 1, {1}, 0};
  const int node = zyn_net_writer_node(writer.get(), "conv", ZYN_OP_CONV_ACT, &conv, from, 2);
  const zyn_net_port y = port("y", {}, node);
  EXPECT_EQ(zyn_net_writer_output(writer.get(), &y), 0);
  EXPECT_EQ(zyn_net_writer_method(writer.get(), node, method), method < 0 ? 1 : 0);
  return bytes_of(writer.get());
}

// The values of y for one input; first: its first element.
std::vector<float> values_of(zyn_net* net, float first) {
  zyn_tensor* x = zyn_net_input(net, nullptr);
  for (int64_t i = 0; i < x->count; i++)
    static_cast<float*>(x->data)[i] = static_cast<float>(i * 37 % 101) / 100;
  static_cast<float*>(x->data)[0] = first;
  EXPECT_EQ(zyn_net_run(net), 0);
  const zyn_tensor* y = zyn_net_output(net, nullptr);
  const auto* values = static_cast<const float*>(y->data);
  return std::vector<float>(values, values + y->count);
}

}  // namespace

TEST(Network, WinogradIsTakenUnlessResultsShallBeExact) {
  constexpr int kWidth = 30, kPixels = kWidth * kWidth;
  const struct {
    int method, in, out, kernel;
  } cases[] = {{-1, 16, 20, 3}, {5, 16, 20, 3}, {6, 16, 20, 3}, {5, 64, 72, 1}, {6, 64, 72, 1}};
  for (const auto& [method, in, out, kernel] : cases) {
    SCOPED_TRACE(::testing::Message() << method << " kernel " << kernel);
    zyn_net_options exact = ZYN_NET_DEFAULTS;
    exact.exact = 1;
    exact.method = 0;
    const Bytes file = winograd_file(kWidth, method, in, out, kernel);
    const Network plain = load(file, exact);
    exact.method = ZYN_NET_AUTOMATIC;
    const Network fast = load(file), other = load(file, exact);
    ASSERT_TRUE(plain && fast && other) << zyn_error_detail();
    const std::vector<float> expected = values_of(plain.get(), 0.5f);
    const int taken = zyn_net_describe(fast.get())->nodes[2].method;
    EXPECT_GE(taken, 5);
    EXPECT_TRUE(method < 0 || taken == method) << taken;
    EXPECT_LT(zyn_net_describe(other.get())->nodes[2].method, 5);
    const std::vector<float> got = values_of(fast.get(), 0.5f), same = values_of(other.get(), 0.5f);
    float range = 0, error = 0, direct = 0;
    for (size_t i = 0; i < expected.size(); i++) {
      range = std::max(range, expected[i]);
      error = std::max(error, std::fabs(got[i] - expected[i]));
      direct = std::max(direct, std::fabs(same[i] - expected[i]));
    }
    EXPECT_LE(error, 1e-4f * range);
    EXPECT_LE(direct, 1e-6f * range);
    // What is no number reaches the tiles that read it, and no other: of pointwise layers a pixel
    // of each half.
    const std::vector<float> spoiled = values_of(fast.get(), NAN);
    EXPECT_TRUE(std::isnan(spoiled[0]));
    for (size_t i = 0; i < got.size(); i++) {
      const size_t pixel = i % kPixels;
      const bool reached =
          kernel == 1 ? pixel % (kPixels / 2) == 0 : pixel % kWidth < 4 && pixel / kWidth < 4;
      ASSERT_TRUE(spoiled[i] == got[i] || reached) << i;
    }
  }
}

// Whole blocks of channels are joined as they lie, others in planar order.
TEST(Network, ConcatenationsOfChannelBlocksStayInThem) {
  for (const int first : {16, 12}) {
    Writer writer(zyn_net_writer_create());
    const zyn_net_port in = port("x", {9, 7, 16});
    const int x = zyn_net_writer_input(writer.get(), &in);
    const auto conv = [&](int from, int channels, int outputs) {
      std::vector<float> words(static_cast<size_t>(channels * outputs));
      for (size_t i = 0; i < words.size(); i++) words[i] = static_cast<float>(i * 31 % 17) - 8;
      const zyn_conv_param p = {channels, outputs, 1, 1, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 0, {0}, 0};
      const int reads[] = {from, add_constant(writer.get(), words)};
      return zyn_net_writer_node(writer.get(), "", ZYN_OP_CONV_POINTWISE, &p, reads, 2);
    };
    const int both[] = {conv(x, 16, first), conv(x, 16, 13)};
    const zyn_concat_param channels = {2, 2, nullptr};
    const int joined = zyn_net_writer_node(writer.get(), "", ZYN_OP_CONCAT, &channels, both, 2);
    const zyn_net_port outs[] = {port("y", {}, conv(joined, first + 13, 5)), port("j", {}, joined)};
    for (const zyn_net_port& out : outs) EXPECT_EQ(zyn_net_writer_output(writer.get(), &out), 0);
    std::vector<float> expected[2];
    for (int method : {0, 1}) {
      zyn_net_options options = ZYN_NET_DEFAULTS;
      options.method = method;
      const Network net = load(bytes_of(writer.get()), options);
      ASSERT_TRUE(net) << zyn_error_detail();
      std::vector<float> values[] = {values_of(net.get(), 1), {}};
      const zyn_tensor* j = zyn_net_output(net.get(), "j");
      values[1].assign(static_cast<float*>(j->data), static_cast<float*>(j->data) + j->count);
      const bool blocked =
          zyn_get_computation_node_inference_data(zyn_net_graph(net.get()), joined)->layout ==
          ZYN_LAYOUT_BLOCKED;
      EXPECT_EQ(blocked, method == 1 && first == 16);
      for (int i = 0; i < 2; i++) {
        if (method == 0) expected[i] = values[i];
        ASSERT_EQ(values[i].size(), expected[i].size());
        for (size_t k = 0; k < values[i].size(); k++)
          ASSERT_NEAR(values[i][k], expected[i][k], 0.01f + 1e-5f * std::fabs(expected[i][k]))
              << first << " " << i << " " << k;
      }
    }
  }
}

namespace {

// A pointwise layer with more than 2 MB of weights, which are kept on large pages.
Bytes large_file() {
  Writer writer(zyn_net_writer_create());
  const zyn_net_port in = port("x", {5, 2, 720});
  std::vector<float> words(720 * 740);
  for (size_t i = 0; i < words.size(); i++) words[i] = static_cast<float>(i * 31 % 17) - 8;
  const zyn_conv_param p = {720, 740, 1, 1, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 0, {0}, 0};
  const int reads[] = {zyn_net_writer_input(writer.get(), &in), add_constant(writer.get(), words)};
  const zyn_net_port out =
      port("y", {}, zyn_net_writer_node(writer.get(), "", ZYN_OP_CONV_POINTWISE, &p, reads, 2));
  EXPECT_EQ(zyn_net_writer_output(writer.get(), &out), 0);
  return bytes_of(writer.get());
}

}  // namespace

TEST(Network, LargeWeightsGiveTheSameSums) {
  const Bytes file = large_file();
  std::vector<float> expected;
  for (int method : {0, 1, 2, int{ZYN_NET_AUTOMATIC}}) {
    SCOPED_TRACE(method);
    zyn_net_options options = ZYN_NET_DEFAULTS;
    options.method = method;
    const uint64_t before = zyn_get_current_memory_size_occupation();
    {
      const FailingAllocations hooks(0);
      FailingAllocations::bound(5 << 20);  // no room for the weights, or for all of method 0's
      EXPECT_EQ(load(file, options), nullptr);
    }
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
    {
      const Network net = load(file, options);
      ASSERT_TRUE(net) << zyn_error_detail();
      zyn_net_memory_use use = {};
      EXPECT_EQ(zyn_net_memory(net.get(), &use), 0);
      EXPECT_NEAR(static_cast<double>(use.weights), 4.0 * 720 * 740, 40000);
      const std::vector<float> values = values_of(net.get(), 1);
      if (method == 0) expected = values;
      for (size_t i = 0; i < expected.size(); i++)
        ASSERT_NEAR(values[i], expected[i], 0.01f + 1e-5f * std::fabs(expected[i])) << i;
    }
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
  }
}

// A pointwise layer in channel blocks knows how far the weights reach that run behind it: to the
// first ones of the next such layer, or as many as the cache may take.
TEST(Network, WeightsLieInTheOrderThatTheyAreAskedForIn) {
  Writer writer(zyn_net_writer_create());
  const zyn_net_port in = port("x", {6, 5, 96});
  int node = zyn_net_writer_input(writer.get(), &in), convs[5];
  const struct {
    int in, out, kernel, method;
  } layers[5] = {
      {96, 640, 1, 1}, {640, 640, 5, 3}, {640, 64, 1, 4}, {64, 800, 1, 1}, {800, 740, 1, 4}};
  for (int i = 0; i < 5; i++) {
    const auto& [inputs, outputs, kernel, method] = layers[i];
    const int groups = kernel > 1 ? inputs : 1, pad = kernel / 2;
    const zyn_conv_param p = {inputs, outputs, kernel, kernel, 1, 1,   pad, pad,
                              {0, 0}, 1,       1,      groups, 0, {0}, 0};
    const size_t count = static_cast<size_t>(inputs / groups * outputs * kernel * kernel);
    const int reads[] = {node, add_constant(writer.get(), std::vector<float>(count, 0.01f))};
    node = convs[i] = zyn_net_writer_node(writer.get(), "", ZYN_OP_CONV_ACT, &p, reads, 2);
    EXPECT_EQ(zyn_net_writer_method(writer.get(), node, method), 0);
  }
  const zyn_net_port out = port("y", {}, node);
  EXPECT_EQ(zyn_net_writer_output(writer.get(), &out), 0);
  const Network net = load(bytes_of(writer.get()));
  ASSERT_TRUE(net) << zyn_error_detail();
  zyn_cg_handle* graph = zyn_net_graph(net.get());
  const auto behind = [&](int i) {
    return zyn_cg_state<zyn_cg_conv_state>(graph, convs[i])->behind;
  };
  zyn_cg_packed packed[5];
  for (int i = 0; i < 5; i++) packed[i] = zyn_cg_conv_find_packed(graph, convs[i]);
  EXPECT_EQ(packed[0].first + packed[0].bytes + behind(0), packed[3].first + 16 * 1024);
  for (int i = 1; i < 4; i++) EXPECT_GE(packed[i].first, packed[i - 1].first + packed[i - 1].bytes);
  EXPECT_EQ(behind(3), 512 * 1024);
  for (int i : {1, 2, 4}) EXPECT_EQ(behind(i), 0);
  EXPECT_EQ(zyn_net_run(net.get()), 0);
  printed([&] { EXPECT_NE(zyn_prepare_inference_computation(graph), 0); });
  EXPECT_EQ(behind(0), 0);  // its weights are gone
}

TEST(Network, NothingIsLostWithoutMemory) {
  const Bytes file = small_file(), winograd = winograd_file(6, 6);
  const auto attempt = [](auto work) {
    until_it_succeeds([&](int n, bool lasting) {
      Ledger::fail(n, lasting);
      const bool good = work();
      const int seen = Ledger::seen();
      Ledger::fail(0, false);
      // Weights that cannot be dropped stay, and that is no failure.
      EXPECT_TRUE(good || seen >= n) << zyn_error_detail();
      return seen;
    });
  };
  attempt([&] {
    const Network net = load(file);
    return net && zyn_net_run(net.get()) == 0 && zyn_net_output(net.get(), "joined");
  });
  attempt([&] {
    const Network net = load(winograd);
    return net && zyn_net_run(net.get()) == 0 && zyn_net_output(net.get(), "y");
  });
  attempt([] {
    const Writer writer(zyn_net_writer_create());
    const zyn_net_port in = port("x", {4, 1, 1});
    const int x = writer ? zyn_net_writer_input(writer.get(), &in) : -1;
    const zyn_func_param abs = {ZYN_FUNC_ABS, 0, 0};
    const int y = x < 0 ? -1 : zyn_net_writer_node(writer.get(), "y", ZYN_OP_FUNCTION, &abs, &x, 1);
    const zyn_net_port out = port("y", {}, y);
    void* data = nullptr;
    int64_t size = 0;
    const bool good = y >= 0 && zyn_net_writer_output(writer.get(), &out) == 0 &&
                      zyn_net_write_memory(writer.get(), &data, &size) == 0;
    zyn_free(data);
    return good;
  });
}

TEST(Network, ReportsGoToTheHandlerThatIsSet) {
  std::string received;
  zyn_set_report_handler([](const char* text, void* to) { *static_cast<std::string*>(to) += text; },
                         &received);
  const std::string text = printed([] { zyn_release_tensor(nullptr); });
  zyn_set_report_handler(nullptr, nullptr);
  EXPECT_EQ(text, "");
  EXPECT_EQ(received, report(kPara, "src/matrix/zyn_tensor.cpp", 244));
}

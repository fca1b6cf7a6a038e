// Network files for tests, made by the writer.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "../examples/ssd320.h"
#include "zyncore_net.h"

namespace zyn_test {

struct ReleaseNet {
  void operator()(zyn_net* net) const { zyn_net_release(&net); }
  void operator()(zyn_net_writer* writer) const { zyn_net_writer_release(&writer); }
};
using Network = std::unique_ptr<zyn_net, ReleaseNet>;
using Writer = std::unique_ptr<zyn_net_writer, ReleaseNet>;
using Bytes = std::vector<uint8_t>;

inline zyn_net_port port(const char* name, std::vector<int> dims = {}, int node = 0) {
  zyn_net_port p = {};
  p.name = name;
  p.node = node;
  p.dim_count = static_cast<int>(dims.size());
  for (size_t i = 0; i < dims.size(); i++) p.dims[i] = dims[i];
  for (float& scale : p.scale) scale = 1.0f;
  p.leading = 1;
  return p;
}

inline Bytes bytes_of(const zyn_net_writer* writer) {
  void* data = nullptr;
  int64_t size = 0;
  EXPECT_EQ(zyn_net_write_memory(writer, &data, &size), 0) << zyn_error_detail();
  Bytes bytes(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
  zyn_free(data);
  return bytes;
}

inline Network load(const Bytes& bytes, zyn_net_options options = ZYN_NET_DEFAULTS) {
  return Network(zyn_net_load_memory(bytes.data(), static_cast<int64_t>(bytes.size()), &options));
}

inline int add_constant(zyn_net_writer* writer, std::vector<float> values, const char* name = "w") {
  zyn_tensor tensor = {};
  const auto count = static_cast<int32_t>(values.size());
  zyn_set_tensor_header(&tensor, 1, &count, ZYN_TYPE_F32);
  zyn_set_tensor_data(&tensor, values.data(), 4 * int64_t{count});
  return zyn_net_writer_constant(writer, name, &tensor);
}

// The nodes of the detector of examples/ssd320.h behind a picture in red, green, blue; their ids.
inline std::vector<int> add_ssd320(zyn_net_writer* writer, const ssd320::Detector& detector) {
  zyn_net_port in = port("image", {ssd320::kWidth, ssd320::kHeight, 3});
  in.channel_order = 2;
  for (float& mean : in.mean) mean = 127.5f;
  for (float& scale : in.scale) scale = 1 / 128.0f;
  std::vector<int> ids = {zyn_net_writer_input(writer, &in)};
  const std::vector<ssd320::Convolution> list = ssd320::convolutions();
  for (size_t i = 0; i < list.size(); i++) {
    const ssd320::Convolution& c = list[i];
    const bool bn = c.type == ZYN_OP_CONV_BN;
    zyn_conv_param p = {};
    p.in_channels = static_cast<int>(c.in_channels);
    p.out_channels = static_cast<int>(c.out_channels);
    p.kernel_h = p.kernel_w = static_cast<int>(c.kernel);
    p.stride_h = p.stride_w = static_cast<int>(c.stride);
    p.pad_h = p.pad_w = p.kernel_h / 2;
    p.dilation_h = p.dilation_w = 1;
    p.groups = static_cast<int>(c.groups);
    p.bias = bn ? 0 : 1;
    if (bn)
      p.word14.epsilon = 1e-5f;
    else
      p.word14.activation = c.type == ZYN_OP_CONV_ACT ? ZYN_ACT_RELU : 0;
    p.activation = bn ? ZYN_ACT_RELU : 0;
    const int from[] = {ids[static_cast<size_t>(c.from)],
                        zyn_net_writer_constant(writer, "", detector.constant(i))};
    ids.push_back(zyn_net_writer_node(writer, "", c.type, &p, from, 2));
  }
  return ids;
}

// As a file, its heads as they are.
inline Bytes ssd320_file(const ssd320::Detector& detector) {
  Writer writer(zyn_net_writer_create());
  const std::vector<int> ids = add_ssd320(writer.get(), detector);
  for (size_t i = 0; i < 4; i++) {
    const std::string number = std::to_string(i);
    const std::string scores = "scores" + number, locations = "locations" + number;
    const zyn_net_port a = port(scores.c_str(), {}, ids[ssd320::kScoreHeads[i]]);
    const zyn_net_port b = port(locations.c_str(), {}, ids[ssd320::kLocationHeads[i]]);
    zyn_net_writer_output(writer.get(), &a);
    zyn_net_writer_output(writer.get(), &b);
  }
  return bytes_of(writer.get());
}

// A convolution whose weights of an output are alike.
inline int add_conv(zyn_net_writer* writer, int from, int in, int kernel, int stride,
                    const std::vector<float>& weights, const std::vector<float>& biases) {
  const int out = static_cast<int>(biases.size());
  std::vector<float> words;
  for (float weight : weights) words.insert(words.end(), in * kernel * kernel, weight);
  words.insert(words.end(), biases.begin(), biases.end());
  const zyn_conv_param p = {in,     out, kernel, kernel, stride, stride,         0, 0,
                            {0, 0}, 1,   1,      1,      1,      {ZYN_ACT_BIAS}, 0};
  const int inputs[] = {from, add_constant(writer, words)};
  return zyn_net_writer_node(writer, "", ZYN_OP_CONV_ACT, &p, inputs, 2);
}

inline int add_node(zyn_net_writer* writer, int type, const void* param,
                    const std::vector<int>& from) {
  return zyn_net_writer_node(writer, "", type, param, from.data(), static_cast<int>(from.size()));
}

inline int add_concat(zyn_net_writer* writer, int axis, const std::vector<int>& from) {
  const zyn_concat_param p = {axis, static_cast<int>(from.size()), nullptr};
  return add_node(writer, ZYN_OP_CONCAT, &p, from);
}

// A head of channels planes, each pixel's channels one after the other, values of them a row.
inline int add_rows(zyn_net_writer* writer, int head, int channels, int values) {
  const zyn_reshape_param column = {2, {1, -1, 0, 0, 0}}, rows = {2, {values, -1, 0, 0, 0}};
  std::vector<int> columns;
  for (int c = 0; c < channels; c++) {
    const zyn_slice_param slice = {0, channels, c, 1, 0};
    const int plane = add_node(writer, ZYN_OP_CHANNEL_SLICE, &slice, {head});
    columns.push_back(add_node(writer, ZYN_OP_RESHAPE, &column, {plane}));
  }
  return add_node(writer, ZYN_OP_RESHAPE, &rows, {add_concat(writer, 0, columns)});
}

inline void add_output(zyn_net_writer* writer, const char* name, int node, int meaning) {
  zyn_net_port p = port(name, {}, node);
  p.meaning = meaning;
  EXPECT_EQ(zyn_net_writer_output(writer, &p), 0);
}

using Keys = std::vector<std::pair<std::string, std::string>>;

// With metadata; in fixed point every node has 8 fraction bits.
inline Bytes finished(const Writer& writer, const Keys& keys) {
  for (int node = 0; zyn_net_writer_q(writer.get(), node, 8) == 0;) node++;
  for (const auto& [key, value] : keys)
    if (!value.empty()) zyn_net_writer_metadata(writer.get(), key.c_str(), value.c_str());
  return bytes_of(writer.get());
}

// The detector for face sessions.
inline Bytes ssd320_face_file(const ssd320::Detector& detector) {
  Writer writer(zyn_net_writer_create());
  const std::vector<int> ids = add_ssd320(writer.get(), detector);
  std::vector<int> scores, offsets;
  for (size_t i = 0; i < 4; i++) {
    const int boxes = i == 1 || i == 2 ? 2 : 3;
    scores.push_back(add_rows(writer.get(), ids[ssd320::kScoreHeads[i]], 2 * boxes, 2));
    offsets.push_back(add_rows(writer.get(), ids[ssd320::kLocationHeads[i]], 4 * boxes, 4));
  }
  add_output(writer.get(), "scores", add_concat(writer.get(), 1, scores), ZYN_NET_MEANING_SCORES);
  add_output(writer.get(), "offsets", add_concat(writer.get(), 1, offsets),
             ZYN_NET_MEANING_OFFSETS);
  return finished(writer, {{"face.role", "detector"},
                           {"face.strides", "8,16,32,64"},
                           {"face.min-sizes", "10,16,24;32,48;64,96;128,192,256"},
                           {"face.variances", "0.1,0.2"}});
}

}  // namespace zyn_test

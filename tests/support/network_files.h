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

}  // namespace zyn_test

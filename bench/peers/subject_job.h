// What a request to the subject sets up, and networks that are made for one in memory.
#pragma once
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "network.h"
#include "zyncore_net.h"

namespace subject {

struct Job {
  std::function<void()> run;
  std::function<double(size_t)> out;  // an element of the result, channels in planar order
};

Job image_job(std::istringstream& request);
Job operator_job(std::istringstream& request);

// A network file in memory that is loaded with the settings of a file, planar in and out, its
// inputs "in0", "in1" and so on.
class FileNetwork {
 public:
  FileNetwork() : writer_(zyn_net_writer_create()) {}
  FileNetwork(const FileNetwork&) = delete;
  FileNetwork& operator=(const FileNetwork&) = delete;
  ~FileNetwork() {
    zyn_net_writer_release(&writer_);
    if (net_) zyn_net_release(&net_);
  }
  zyn_net_writer* writer() { return writer_; }
  // The id of an input of the tensor's extents, which holds its values once loaded.
  int32_t input(const zyn_tensor* values) {
    const std::string name = "in" + std::to_string(inputs_.size());
    inputs_.push_back(values);
    zyn_net_port port = {};
    port.name = name.c_str();
    port.dim_count = values->dim_count;
    std::memcpy(port.dims, values->dims, sizeof(int32_t) * static_cast<size_t>(port.dim_count));
    return zyn_net_writer_input(writer_, &port);
  }
  // The output of a node; the first one is looked at.
  void output(int32_t node) {
    const std::string name = "out" + std::to_string(outputs_++);
    zyn_net_port port = {};
    port.name = name.c_str();
    port.node = node;
    zyn_net_writer_output(writer_, &port);
  }
  // The first input and output are in channel blocks, as between the layers of a network.
  void stay_in_blocks() { blocked_ = true; }
  // Writes the file and loads it. The inputs' tensors are read for the last time.
  bool load() {
    void* data = nullptr;
    int64_t size = 0;
    if (zyn_net_write_memory(writer_, &data, &size) == ZYN_RET_OK)
      net_ = zyn_net_load_memory(data, size, nullptr);
    zyn_free(data);
    zyn_net_writer_release(&writer_);
    for (size_t i = 0; net_ && i < inputs_.size(); i++)
      std::memcpy(zyn_net_input(net_, ("in" + std::to_string(i)).c_str())->data, inputs_[i]->data,
                  static_cast<size_t>(inputs_[i]->byte_size));
    if (net_ && blocked_) bench::make_blocked(zyn_net_input(net_, nullptr));
    return run();
  }
  bool run() {
    if (!net_ || zyn_net_run(net_) != ZYN_RET_OK) return false;
    output_ = blocked_ ? zyn_get_computation_node_inference_data(
                             zyn_net_graph(net_), zyn_net_describe(net_)->outputs[0].node)
                       : zyn_net_output(net_, nullptr);
    return output_ != nullptr;
  }
  double element(size_t i) const {
    const bool blocked = output_->layout == ZYN_LAYOUT_BLOCKED;
    return double(
        static_cast<const float*>(output_->data)[blocked ? bench::blocked_index(output_, i) : i]);
  }

 private:
  zyn_net_writer* writer_;
  zyn_net* net_ = nullptr;
  std::vector<const zyn_tensor*> inputs_;
  int outputs_ = 0;
  bool blocked_ = false;
  const zyn_tensor* output_ = nullptr;
};

}  // namespace subject

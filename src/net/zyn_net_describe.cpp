// What a network is: names, ports and metadata from the file, shapes and sizes from the
// prepared graph.
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "cg/cpu/zyn_cg_names.h"
#include "net/zyn_net_graph.h"

namespace {

int32_t no_memory() { return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the network"); }

// Copies texts of the file one behind the other, each with a zero.
class text_copier {
 public:
  text_copier(const zyn_net_file& file, char* to) : file_(file), to_(to) {}
  const char* operator()(const zyn_file_text& text) {
    char* copy = to_;
    memcpy(copy, file_.text(text), text.length);
    copy[text.length] = 0;
    to_ += text.length + 1;
    return copy;
  }

 private:
  const zyn_net_file& file_;
  char* to_;
};

// Bytes of all texts with their zeros.
int64_t text_bytes(const zyn_net_file& file) {
  int64_t bytes = 1;
  for (int64_t i = 0; i < file.count(ZYN_FILE_NODES); i++) bytes += file.node(i).name.length + 1;
  for (int64_t i = 0; i < file.count(ZYN_FILE_INPUTS); i++) bytes += file.input(i).name.length + 1;
  for (int64_t i = 0; i < file.count(ZYN_FILE_OUTPUTS); i++)
    bytes += file.output(i).name.length + 1;
  for (int64_t i = 0; i < file.count(ZYN_FILE_METADATA); i++)
    bytes += int64_t{file.metadata(i).key.length} + file.metadata(i).value.length + 2;
  return bytes;
}

zyn_net_port input_port(const zyn_file_input& input, const char* name) {
  zyn_net_port port = {};
  port.name = name;
  port.dim_count = static_cast<int32_t>(input.dim_count);
  memcpy(port.dims, input.dims, sizeof(port.dims));
  port.leading = static_cast<int32_t>(input.leading);
  port.channel_order = static_cast<int32_t>(input.channel_order);
  port.resize = static_cast<int32_t>(input.resize);
  memcpy(port.mean, input.mean, sizeof(port.mean));
  memcpy(port.scale, input.scale, sizeof(port.scale));
  return port;
}

zyn_net_port output_port(const zyn_file_output& output, const char* name) {
  zyn_net_port port = {};
  port.name = name;
  port.node = static_cast<int32_t>(output.node);
  port.meaning = static_cast<int32_t>(output.meaning);
  port.leading = static_cast<int32_t>(output.leading);
  return port;
}

int64_t elements(const int32_t* dims, int32_t count) {
  int64_t product = 1;
  for (int32_t i = 0; i < count; i++) product *= dims[i];
  return product;
}

// Multiply-adds of a node whose output and constants are known.
int64_t multiply_adds(const zyn_net* net, const zyn_file_node& file, const zyn_net_node& node) {
  const auto word = [&](int64_t i) {
    return static_cast<int64_t>(static_cast<int32_t>(net->file.word(file.param.first + i)));
  };
  switch (file.type) {
    case ZYN_OP_CONV_TRANSPOSED: {
      const zyn_net_node& input = net->nodes[net->file.word(file.inputs.first)];
      return elements(input.dims, input.dim_count) * word(1) / word(12) * word(2) * word(3);
    }
    case ZYN_OP_AFFINE: {
      if (word(0) != ZYN_JOIN_MATMUL) return 0;
      const zyn_net_node& first = net->nodes[net->file.word(file.inputs.first)];
      return elements(node.dims, node.dim_count) * first.dims[0];
    }
    case ZYN_OP_LINEAR:
      return elements(node.dims, node.dim_count) * word(0);
    case ZYN_OP_CONV:
    case ZYN_OP_CONV_DEPTHWISE:
    case ZYN_OP_CONV_POINTWISE:
    case ZYN_OP_CONV_GROUPED:
    case ZYN_OP_CONV_ACT:
    case ZYN_OP_CONV_BN:
      return elements(node.dims, node.dim_count) * (word(0) / word(12)) * word(2) * word(3);
    default:
      return 0;
  }
}

}  // namespace

int32_t zyn_net_describe_file(zyn_net* net) {
  const zyn_net_file& file = net->file;
  zyn_net_description& d = net->description;
  d.node_count = static_cast<int32_t>(file.count(ZYN_FILE_NODES));
  d.input_count = static_cast<int32_t>(file.count(ZYN_FILE_INPUTS));
  d.output_count = static_cast<int32_t>(file.count(ZYN_FILE_OUTPUTS));
  d.metadata_count = static_cast<int32_t>(file.count(ZYN_FILE_METADATA));
  const int64_t ports = int64_t{d.input_count} + d.output_count;
  net->texts = static_cast<char*>(zyn_malloc(text_bytes(file)));
  net->nodes = static_cast<zyn_net_node*>(zyn_calloc(d.node_count, sizeof(zyn_net_node)));
  net->ports = static_cast<zyn_net_port*>(zyn_calloc(ports, sizeof(zyn_net_port)));
  net->metadata =
      static_cast<const char**>(zyn_calloc(2 * int64_t{d.metadata_count} + 1, sizeof(char*)));
  if (!net->texts || !net->nodes || !net->ports || !net->metadata) return no_memory();
  text_copier copy(file, net->texts);
  for (int32_t id = 0; id < d.node_count; id++) {
    const zyn_file_node node = file.node(id);
    net->nodes[id].name = copy(node.name);
    net->nodes[id].type = static_cast<int32_t>(node.type);
    net->nodes[id].operation = zyn_cg_operation_name(net->nodes[id].type);
    net->nodes[id].method = -1;
  }
  for (int32_t i = 0; i < d.input_count; i++)
    net->ports[i] = input_port(file.input(i), copy(file.input(i).name));
  for (int32_t i = 0; i < d.output_count; i++)
    net->ports[d.input_count + i] = output_port(file.output(i), copy(file.output(i).name));
  for (int32_t i = 0; i < d.metadata_count; i++) {
    net->metadata[i] = copy(file.metadata(i).key);
    net->metadata[d.metadata_count + i] = copy(file.metadata(i).value);
  }
  for (int32_t id = 0, input = 0; id < d.node_count; id++)
    if (net->nodes[id].type == ZYN_OP_INPUT) net->ports[input++].node = id;
  d.inputs = net->ports;
  d.outputs = net->ports + d.input_count;
  d.nodes = net->nodes;
  d.metadata_keys = net->metadata;
  d.metadata_values = net->metadata + d.metadata_count;
  return ZYN_RET_OK;
}

void zyn_net_describe_nodes(zyn_net* net) {
  zyn_net_description& d = net->description;
  for (int32_t id = 0; id < d.node_count; id++) {
    zyn_net_node& node = net->nodes[id];
    const zyn_file_node file = net->file.node(id);
    const zyn_tensor* tensor = net->tensors[id];
    if (!tensor) tensor = zyn_get_computation_node_inference_data(net->graph, id);
    if (!tensor) continue;
    node.dim_count = tensor->dim_count;
    memcpy(node.dims, tensor->dims, sizeof(node.dims));
    node.operation = zyn_cg_node_operation(net->graph, id, node.type);
    node.method = net->methods[id];
    for (uint32_t i = 0; i < file.inputs.count; i++) {
      const uint32_t from = net->file.word(int64_t{file.inputs.first} + i);
      if (net->nodes[from].type == ZYN_OP_CONSTANT) node.parameters += net->tensors[from]->count;
    }
    node.multiply_adds = multiply_adds(net, file, node);
    d.multiply_adds += node.multiply_adds;
    if (file.type == ZYN_OP_CONSTANT) d.parameters += tensor->count;
  }
  for (int32_t i = 0; i < d.input_count + d.output_count; i++) {
    zyn_net_port& port = net->ports[i];
    const zyn_net_node& node = net->nodes[port.node];
    port.dim_count = node.dim_count;
    memcpy(port.dims, node.dims, sizeof(port.dims));
    if (net->options.fixed_point == 1)
      port.q = static_cast<int32_t>(zyn_cg_get_q_from_list(net->graph, port.node));
  }
}

const zyn_net_description* zyn_net_describe(const zyn_net* net) {
  if (!net) zyn_explain("the network is null");
  return net ? &net->description : nullptr;
}

const char* zyn_net_metadata(const zyn_net* net, const char* key) {
  for (int32_t i = 0; net && key && i < net->description.metadata_count; i++)
    if (strcmp(net->metadata[i], key) == 0) return net->description.metadata_values[i];
  zyn_explain("the network has no metadata '%s'", key ? key : "");
  return nullptr;
}

// A graph from a network file, through the public functions: edges, order, one binding a
// node.
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "cg/cpu/zyn_cg.h"
#include "net/zyn_net_graph.h"
#include "net/zyn_net_params.h"

namespace {

int32_t no_memory() { return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the network"); }

// The words of a run, copied so that they are aligned.
bool copy_words(const zyn_net_file& file, const zyn_file_words& run, zyn_list<uint32_t>* words) {
  words->cut(0);
  if (!words->reserve(run.count)) return false;
  for (uint32_t i = 0; i < run.count; i++) {
    const uint32_t word = file.word(int64_t{run.first} + i);
    words->append(&word, 1);
  }
  return true;
}

int32_t make_graph(zyn_net* net) {
  zyn_cg_create_param settings = {};
  settings.max_nodes = static_cast<int32_t>(net->file.count(ZYN_FILE_NODES));
  settings.thread_count = 1;
  settings.fixed_point = net->options.fixed_point == 1;
  net->graph = zyn_create_computation_graph_handle(&settings);
  if (!net->graph) return no_memory();
  net->graph->any_order = true;
  net->graph->store = zyn_net_store(net, net->store.chunk_bytes);
  for (int32_t id = 0; id < settings.max_nodes; id++) {
    if (net->nodes[id].name[0] &&
        zyn_cg_set_node_name(net->graph, id, net->nodes[id].name) != ZYN_RET_OK)
      return no_memory();
    const zyn_file_node node = net->file.node(id);
    for (uint32_t i = 0; i < node.inputs.count; i++)
      if (const int32_t code = zyn_add_one_edge_into_computation_graph(
              net->graph, static_cast<int32_t>(net->file.word(int64_t{node.inputs.first} + i)), id))
        return code;
  }
  return ZYN_RET_OK;
}

// Fraction bits of every node; the graph takes the list over.
int32_t give_fraction_bits(zyn_net* net) {
  if (net->options.fixed_point != 1) return ZYN_RET_OK;
  if (net->file.count(ZYN_FILE_Q) == 0)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "the file holds no fraction bits: it has not been "
                      "prepared for fixed point");
  const int64_t count = net->file.count(ZYN_FILE_NODES);
  zyn_scratch<uint32_t> list(count);
  if (!list) return no_memory();
  for (int64_t id = 0; id < count; id++) list[id] = static_cast<uint32_t>(net->file.q(id));
  const int32_t code = zyn_cg_set_ptr_q_list(net->graph, list.get());
  if (code == ZYN_RET_OK) list.take();
  return code;
}

// The tensor of an input (its own block) or a constant (the file's bytes).
int32_t make_tensor(zyn_net* net, int32_t id, const zyn_file_node& node) {
  if (node.type == ZYN_OP_INPUT) {
    const zyn_file_input input = net->file.input(node.data);
    const uint32_t type = net->options.fixed_point == 1 ? ZYN_TYPE_FPI16 : ZYN_TYPE_F32;
    // A file of a few bytes may ask for an input of gigabytes.
    if (net->options.memory_limit > 0) {
      int64_t bytes = sizeof(float);
      for (uint32_t d = 0; d < input.dim_count; d++) bytes *= input.dims[d];
      if (bytes > net->options.memory_limit)
        return zyn_refuse(ZYN_RET_ERR_MEMORY, "input '%s' takes %lld bytes, the limit is %lld",
                          net->nodes[id].name, static_cast<long long>(bytes),
                          static_cast<long long>(net->options.memory_limit));
    }
    zyn_tensor* tensor =
        zyn_create_tensor_header(static_cast<int32_t>(input.dim_count), input.dims, type);
    net->tensors[id] = tensor;
    const zyn_storing storing(zyn_net_store(net, net->store.chunk_bytes));
    if (tensor) tensor->data = zyn_calloc(tensor->byte_size, 1);  // owned, as headers claim
    return tensor && tensor->data ? ZYN_RET_OK : no_memory();
  }
  const zyn_file_constant constant = net->file.constant(node.data);
  net->tensors[id] = zyn_create_tensor_header(static_cast<int32_t>(constant.dim_count),
                                              constant.dims, constant.type);
  if (!net->tensors[id]) return no_memory();
  return zyn_set_tensor_data(net->tensors[id], const_cast<uint8_t*>(net->file.values(constant)),
                             net->tensors[id]->byte_size);
}

int32_t bind_node(zyn_net* net, int32_t id, zyn_list<uint32_t>* words, zyn_list<uint32_t>* inputs) {
  const zyn_file_node node = net->file.node(id);
  zyn_cg_node_desc desc = {};
  desc.type = static_cast<int32_t>(node.type);
  if (node.type == ZYN_OP_INPUT || node.type == ZYN_OP_CONSTANT) {
    if (const int32_t code = make_tensor(net, id, node)) return code;
    desc.data = net->tensors[id];
    return zyn_bind_operator_onto_computation_graph(net->graph, id, &desc, nullptr);
  }
  if (!copy_words(net->file, node.param, words) || !copy_words(net->file, node.inputs, inputs))
    return no_memory();
  zyn_net_param param;
  const void* record = zyn_net_read_param(node.type, words->data(), words->count(),
                                          reinterpret_cast<const int32_t*>(inputs->data()),
                                          static_cast<int32_t>(node.inputs.count), &param);
  if (net->methods[id] >= 0) net->graph->conv_method = static_cast<uint32_t>(net->methods[id]);
  return zyn_bind_operator_onto_computation_graph(net->graph, id, &desc, record);
}

}  // namespace

int32_t zyn_net_build(zyn_net* net) {
  if (const int32_t code = make_graph(net)) return code;
  if (const int32_t code = give_fraction_bits(net)) return code;
  if (const int32_t code = zyn_computation_graph_topo_sort(net->graph)) return code;
  zyn_list<uint32_t> words, inputs;
  const int64_t count = net->file.count(ZYN_FILE_NODES);
  for (int32_t id = 0; id < count; id++)
    if (const int32_t code = bind_node(net, id, &words, &inputs)) return code;
  return ZYN_RET_OK;
}

// From a checked network file to a graph that is bound: what the loader and its choices
// (methods, memory) share.
#pragma once

#include <stdint.h>

#include "base/zyn_list.h"
#include "base/zyn_memory.h"
#include "net/zyn_net_file.h"
#include "zyncore_net.h"

class zyn_checker;

// What a network owns; released in zyn_net_release.
struct zyn_net {
  zyn_cg_handle* graph;
  void* bytes;            // the file, or null once nothing points into it
  zyn_net_file file;      // a view of bytes
  zyn_tensor** tensors;   // by node: inputs and constants, else null
  zyn_tensor** outputs;   // by output: a planar copy where the node's is blocked, or null
  void* block;            // all outputs of the graph share it
  zyn_store store;        // of what loading makes to keep
  int64_t bytes_kept;     // that loading allocated
  char* texts;            // every text of the file with a zero behind it
  zyn_net_port* ports;    // inputs, then outputs
  zyn_net_node* nodes;    // by id
  const char** metadata;  // keys, then values
  int32_t* methods;       // by id: of convolutions 0 to 6; else -1
  zyn_net_options options;
  zyn_net_description description;
};

// Where so many bytes that the network keeps are to lie: small ones gain nothing by large pages.
inline zyn_store* zyn_net_store(zyn_net* net, int64_t bytes) {
  return bytes >= kZynLargePage ? &net->store : nullptr;
}

// Chooses net->methods by the options and the file, or by what each would take. The graph is
// built and has been examined without errors. False without memory.
bool zyn_net_choose_methods(zyn_net* net, const zyn_checker& checker);

// The graph of the network's file, every operator bound; convolutions take their method from
// net->methods. 0 or a code with an explanation; what was made stays in net.
int32_t zyn_net_build(zyn_net* net);

// Frees the file's bytes of a prepared network: constants that runs still read are copied, of
// packed ones nothing is kept but the biases. 0 or 2.
int32_t zyn_net_drop_file(zyn_net* net);

// Puts the outputs of the prepared graph into one block, net->block. 0 or 2.
int32_t zyn_net_share_memory(zyn_net* net);

// Names, ports, metadata, made before the graph; shapes and sizes of the prepared nodes.
int32_t zyn_net_describe_file(zyn_net* net);
void zyn_net_describe_nodes(zyn_net* net);

// Whether nodes of a type compute by one of the methods.
inline bool zyn_net_has_method(uint32_t type) {
  return type == ZYN_OP_CONV || type == ZYN_OP_CONV_DEPTHWISE || type == ZYN_OP_CONV_POINTWISE ||
         type == ZYN_OP_CONV_ACT || type == ZYN_OP_CONV_BN;
}

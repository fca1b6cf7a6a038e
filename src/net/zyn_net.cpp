// Networks: loading, ports, running, release.
#include <string.h>

#include <new>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "cg/cpu/check/zyn_check.h"
#include "cg/cpu/zyn_cg_layout.h"
#include "net/zyn_net_graph.h"

namespace {

constexpr zyn_net_options kDefaults = ZYN_NET_DEFAULTS;
constexpr int32_t kTimedRuns = 7;
constexpr int64_t kMostMemory = int64_t{1} << 31;

int32_t no_memory() { return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the network"); }

int32_t check_options(const zyn_net_options& options) {
  if (options.method < ZYN_NET_TIMED || options.method > 2)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "method %d: ZYN_NET_AUTOMATIC, ZYN_NET_TIMED, 0, 1 or 2 "
                      "is expected",
                      options.method);
  if (options.memory_limit < 0) return zyn_refuse(ZYN_RET_ERR_PARA, "the memory limit is negative");
  return ZYN_RET_OK;
}

void release_graph(zyn_net* net) {
  if (net->graph) zyn_release_computation_graph_handle(&net->graph);
  for (int32_t id = 0; net->tensors && id < net->description.node_count; id++)
    if (net->tensors[id]) zyn_release_tensor(&net->tensors[id]);
}

void release(zyn_net* net) {
  release_graph(net);
  for (int32_t i = 0; net->outputs && i < net->description.output_count; i++)
    if (net->outputs[i]) zyn_release_tensor(&net->outputs[i]);
  void* blocks[] = {net->tensors,  net->outputs, net->texts, net->ports, net->nodes,
                    net->metadata, net->methods, net->bytes, net->block};
  for (void* block : blocks) zyn_free(block);
  zyn_close_store(&net->store);
  zyn_free(net);
}

int32_t release_net(zyn_net** net) {
  release(*net);
  *net = nullptr;
  return ZYN_RET_OK;
}
using net_guard = zyn_guard<zyn_net, release_net>;

// What the outputs of the graph take without sharing, in the place of every limit that
// sharing could still meet; at most INT64_MAX.
int64_t output_bytes(const zyn_net* net, const zyn_checker& checker) {
  int64_t bytes = 0;
  for (int32_t id = 0; id < net->description.node_count; id++) {
    const zyn_check_shape& shape = checker.shape(id);
    const int64_t element = shape.type == ZYN_TYPE_FPI16 ? 2 : 4;
    if (net->nodes[id].type == ZYN_OP_CONSTANT || !shape.known()) continue;
    if (!zyn_sum(bytes, element * shape.count(), &bytes)) return INT64_MAX;
  }
  return bytes;
}

// Refuses a graph with errors, of which the first is the explanation, and one whose outputs
// exceed the limit.
int32_t check_graph(const zyn_net* net, zyn_checker* checker) {
  zyn_cg_report* report = checker->run() ? checker->report() : nullptr;
  if (!report) return no_memory();
  const int32_t errors = report->errors;
  if (errors == 1) zyn_explain("%s", report->findings[0].text);
  if (errors > 1) zyn_explain("%s (and %d more)", report->findings[0].text, errors - 1);
  zyn_release_cg_report(&report);
  if (errors > 0) return ZYN_RET_ERR_PARA;
  const int64_t needed = output_bytes(net, *checker);
  const int64_t limit = net->options.memory_limit > 0 ? net->options.memory_limit : kMostMemory;
  if (needed <= limit) return ZYN_RET_OK;
  return zyn_refuse(ZYN_RET_ERR_MEMORY,
                    "the outputs of all nodes take %lld bytes, the limit is "
                    "%lld (memory_limit of the options)",
                    static_cast<long long>(needed), static_cast<long long>(limit));
}

// Tables by node and output, and the methods that the options and the file ask for.
int32_t make_tables(zyn_net* net) {
  if (const int32_t code = zyn_net_describe_file(net)) return code;
  const zyn_net_description& d = net->description;
  net->tensors = static_cast<zyn_tensor**>(zyn_calloc(d.node_count, sizeof(zyn_tensor*)));
  net->outputs = static_cast<zyn_tensor**>(zyn_calloc(d.output_count, sizeof(zyn_tensor*)));
  net->methods = static_cast<int32_t*>(zyn_calloc(d.node_count, sizeof(int32_t)));
  return net->tensors && net->outputs && net->methods ? ZYN_RET_OK : no_memory();
}

// The graph is built with method 0, which computes every layer, and examined; then the methods
// are chosen, and it is built again with those.
int32_t build(zyn_net* net) {
  for (int32_t id = 0; id < net->description.node_count; id++)
    net->methods[id] = zyn_net_has_method(net->file.node(id).type) ? 0 : -1;
  if (const int32_t code = zyn_net_build(net)) return code;
  zyn_checker checker(net->graph);
  if (const int32_t code = check_graph(net, &checker)) return code;
  if (!zyn_net_choose_methods(net, checker)) return no_memory();
  release_graph(net);
  net->store.chunk_bytes = zyn_block_bytes(net->bytes);  // what was made so far is gone
  return zyn_net_build(net);
}

int32_t prepare(zyn_net* net) {
  if (const int32_t code = make_tables(net)) return code;
  if (const int32_t code = build(net)) return code;
  if (const int32_t code = zyn_prepare_inference_computation(net->graph)) return code;
  zyn_net_describe_nodes(net);
  if (const int32_t code = zyn_net_share_memory(net)) return code;
  return zyn_net_drop_file(net);
}

// Takes bytes over. Null with an explanation.
zyn_net* load(void* bytes, int64_t size, const zyn_net_options& options) {
  const zyn_quiet quiet;
  const uint64_t before =
      zyn_get_current_memory_size_occupation() - static_cast<uint64_t>(zyn_block_bytes(bytes));
  void* block = zyn_malloc(sizeof(zyn_net));
  if (!block) {
    zyn_free(bytes);
    no_memory();
    return nullptr;
  }
  net_guard net(new (block) zyn_net{});
  net->bytes = bytes;
  net->options = options;
  if (check_options(options) != ZYN_RET_OK || net->file.open(bytes, size) != ZYN_RET_OK ||
      prepare(net.get()) != ZYN_RET_OK)
    return nullptr;
  zyn_close_store(&net->store);
  net->bytes_kept = static_cast<int64_t>(zyn_get_current_memory_size_occupation() - before);
  return net.take();
}

// A copy of the bytes, loaded. Null with an explanation.
zyn_net* load_copy(const void* data, int64_t size, const zyn_net_options& options) {
  zyn_scratch<uint8_t> bytes(size);
  if (!bytes) {
    no_memory();
    return nullptr;
  }
  memcpy(bytes.get(), data, static_cast<size_t>(size));
  return load(bytes.take(), size, options);
}

// The best of some runs in milliseconds.
double time_runs(zyn_net* net) {
  double best = -1;
  for (int32_t run = 0; run < kTimedRuns; run++) {
    const double start = zyn_get_current_system_time();
    if (zyn_net_run(net) != ZYN_RET_OK) return -1;
    const double taken = zyn_get_current_system_time() - start;
    if (best < 0 || taken < best) best = taken;
  }
  return best;
}

// The fastest of the table's choice and each method alone.
zyn_net* load_timed(const void* data, int64_t size, zyn_net_options options) {
  zyn_net* best = nullptr;
  double best_time = 0;
  for (int32_t method = ZYN_NET_AUTOMATIC; method <= 2; method++) {
    options.method = method;
    zyn_net* net = load_copy(data, size, options);
    const double taken = net ? time_runs(net) : -1;
    const bool better = taken >= 0 && (!best || taken < best_time);
    zyn_net* worse = better ? best : net;
    if (worse) release_net(&worse);
    if (!better) continue;
    best = net;
    best_time = taken;
  }
  return best;
}

zyn_net* load_as_asked(void* bytes, int64_t size, const zyn_net_options& options) {
  if (options.method != ZYN_NET_TIMED) return load(bytes, size, options);
  zyn_net* net = load_timed(bytes, size, options);
  zyn_free(bytes);
  return net;
}

const zyn_net_port* find_port(const zyn_net_port* ports, int32_t count, const char* name) {
  for (int32_t i = 0; i < count; i++)
    if (!name || strcmp(ports[i].name, name) == 0) return &ports[i];
  return nullptr;
}

}  // namespace

zyn_net* zyn_net_load(const char* path, const zyn_net_options* options) {
  int64_t size = 0;
  void* bytes = zyn_net_read_file(path, &size);
  return bytes ? load_as_asked(bytes, size, options ? *options : kDefaults) : nullptr;
}

zyn_net* zyn_net_load_memory(const void* data, int64_t size, const zyn_net_options* options) {
  if (!data || size < 1) {
    zyn_explain("there is no file at null, or of %lld bytes", static_cast<long long>(size));
    return nullptr;
  }
  const zyn_net_options& asked = options ? *options : kDefaults;
  return asked.method == ZYN_NET_TIMED ? load_timed(data, size, asked)
                                       : load_copy(data, size, asked);
}

int32_t zyn_net_release(zyn_net** net) {
  if (!net || !*net) return zyn_refuse(ZYN_RET_ERR_PARA, "the network is null");
  return release_net(net);
}

zyn_tensor* zyn_net_input(zyn_net* net, const char* name) {
  const zyn_net_port* port =
      net ? find_port(net->description.inputs, net->description.input_count, name) : nullptr;
  if (port) return net->tensors[port->node];
  zyn_explain("the network has no input '%s'", name ? name : "");
  return nullptr;
}

int32_t zyn_net_run(zyn_net* net) {
  if (!net) return zyn_refuse(ZYN_RET_ERR_PARA, "the network is null");
  const zyn_quiet quiet;
  return zyn_computation_graph_inference(net->graph);
}

const zyn_tensor* zyn_net_output(zyn_net* net, const char* name) {
  const zyn_net_port* port =
      net ? find_port(net->description.outputs, net->description.output_count, name) : nullptr;
  if (!port) {
    zyn_explain("the network has no output '%s'", name ? name : "");
    return nullptr;
  }
  const zyn_quiet quiet;
  const zyn_tensor* tensor = zyn_get_computation_node_inference_data(net->graph, port->node);
  if (!tensor) return nullptr;
  zyn_tensor** planar = &net->outputs[port - net->description.outputs];
  const zyn_tensor* output = zyn_cg_planar(tensor, planar);
  if (!output) no_memory();
  return output;
}

zyn_cg_handle* zyn_net_graph(zyn_net* net) {
  if (!net) zyn_explain("the network is null");
  return net ? net->graph : nullptr;
}

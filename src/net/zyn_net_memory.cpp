// Memory of a prepared network: what packed copies hold is not held twice, and one block
// serves all outputs. An output lives from the node that writes it to the last node
// that reads it; outputs that live at the same time lie apart, others share their place.
// Offsets by falling size, each as low as those already placed allow (Pisarchyk and Lee,
// "Efficient Memory Management for Deep Neural Net Inference", 2020).
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_list.h"
#include "cg/cpu/ops/zyn_cg_conv.h"
#include "net/zyn_net_graph.h"

namespace {

constexpr int64_t kAlignment = 64;  // a cache line, and the widest vector
// After so many bytes of other tensors the second cache level does not hold one any more; as many
// nodes are looked at.
constexpr int64_t kFarBytes = int64_t{2} << 20;
constexpr int32_t kMostBetween = 256;
// Of the weights behind a layer's own: so many at most, the next asking layer's first ones, and
// what may lie between two layers' weights.
constexpr int64_t kMostBehind = 512 * 1024;
constexpr int64_t kFirstWeights = 16 * 1024;
constexpr int64_t kMostGap = 64 * 1024;

struct buffer {
  zyn_tensor* tensor;
  int64_t bytes;
  int32_t first, last;  // positions in the order of execution, both included
  int64_t offset;
};

int32_t no_memory() { return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the network"); }

int64_t round_up(int64_t bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; }

bool overlap_in_time(const buffer& a, const buffer& b) {
  return a.first <= b.last && b.first <= a.last;
}

bool overlap_in_place(const zyn_tensor& a, const zyn_tensor& b) {
  const auto *first = static_cast<const uint8_t*>(a.data),
             *second = static_cast<const uint8_t*>(b.data);
  return first < second + b.byte_size && second < first + a.byte_size;
}

class planner {
 public:
  explicit planner(zyn_net* net) : net_(net), graph_(net->graph) {}

  // 0, or 2 without memory.
  int32_t run() {
    if (!find_positions() || !find_buffers()) return no_memory();
    const int64_t bytes = place();
    if (bytes < 0) return no_memory();
    if (bytes == 0) return ZYN_RET_OK;
    {
      const zyn_storing storing(zyn_net_store(net_, bytes));
      net_->block = zyn_malloc(bytes + kAlignment);
    }
    if (!net_->block) return no_memory();
    auto* base = static_cast<uint8_t*>(net_->block);
    base += (kAlignment - reinterpret_cast<uintptr_t>(base) % kAlignment) % kAlignment;
    memset(base, 0, static_cast<size_t>(bytes));
    for (int64_t i = 0; i < buffers_.count(); i++) {
      const buffer& b = buffers_[i];
      if (const int32_t code = zyn_set_tensor_data(b.tensor, base + b.offset, b.tensor->byte_size))
        return code;
    }
    find_far();
    find_behind();
    return ZYN_RET_OK;
  }

 private:
  bool find_positions() {
    const int32_t count = net_->description.node_count;
    for (int32_t k = 0; k < count; k++)
      if (!positions_.push(k)) return false;
    for (int32_t k = 0; k < count; k++) positions_[graph_->order[k]] = k;
    return true;
  }

  // Tells the convolutions what they touch that no node has touched for kFarBytes.
  void find_far() const {
    for (int32_t k = 0; k < net_->description.node_count; k++) {
      const int32_t id = graph_->order[k];
      if (net_->methods[id] >= 0)
        zyn_cg_conv_expect_far(graph_, id, is_far(k, zyn_cg_find_sources(graph_, id).input),
                               is_far(k, zyn_cg_producer_tensor(graph_, id)));
    }
  }
  // Tells the convolutions that ask ahead which bytes behind their weights the nodes after them
  // read: a store holds all weights in the order of execution.
  void find_behind() const {
    for (int32_t k = 0; k < net_->description.node_count; k++) {
      const zyn_cg_packed own = zyn_cg_conv_find_packed(graph_, graph_->order[k]);
      if (own.asks_ahead) zyn_cg_conv_expect_behind(graph_, graph_->order[k], behind(k, own));
    }
  }
  // As far as the next layer that asks by itself, whose first weights are included.
  int64_t behind(int32_t k, const zyn_cg_packed& own) const {
    const uintptr_t start = own.first + own.bytes;
    uintptr_t end = start;
    for (k++; k < net_->description.node_count && end - start < kMostBehind; k++) {
      const zyn_cg_packed next = zyn_cg_conv_find_packed(graph_, graph_->order[k]);
      if (next.bytes == 0) continue;
      if (next.first < end || next.first - end > kMostGap) break;
      end = next.first + next.bytes;
      if (next.asks_ahead && next.bytes > kFirstWeights) end = next.first + kFirstWeights;
      if (next.asks_ahead) break;
    }
    return end - start < kMostBehind ? end - start : kMostBehind;
  }
  // Whether a tensor's place is, for the node at position k; the nodes behind it ran in the
  // inference before.
  bool is_far(int32_t k, const zyn_tensor* tensor) const {
    const int32_t count = net_->description.node_count;
    int64_t bytes = 0;
    for (int32_t i = 1; i < count && i < kMostBetween && bytes <= kFarBytes; i++) {
      const int32_t id = graph_->order[(k + count - i) % count];
      const uint32_t type = net_->nodes[id].type;
      if (type == ZYN_OP_INPUT || type == ZYN_OP_CONSTANT) continue;
      const zyn_darray* inputs = zyn_cg_inputs(graph_, id);
      for (int64_t n = -1; n < (inputs ? inputs->count : 0); n++) {
        const zyn_tensor* touched =
            zyn_cg_producer_tensor(graph_, n < 0 ? id : zyn_darray_ids(inputs)[n]);
        if (!touched) continue;
        if (overlap_in_place(*touched, *tensor)) return false;
        bytes += touched->byte_size;
      }
    }
    return bytes > kFarBytes;
  }

  // The tensors that nodes write, one row each; in-place operators share their input's.
  bool find_buffers() {
    const int32_t count = net_->description.node_count;
    zyn_scratch<int32_t> row_of(count);
    if (!row_of) return false;
    for (int32_t k = 0; k < count; k++) {
      const int32_t id = graph_->order[k];
      row_of[id] = -1;
      const zyn_net_node& node = net_->nodes[id];
      if (node.type == ZYN_OP_INPUT || node.type == ZYN_OP_CONSTANT) continue;
      zyn_tensor* tensor = zyn_get_computation_node_inference_data(graph_, id);
      if (!tensor || is_input(tensor)) continue;
      row_of[id] = shared_row(id, tensor, row_of.get());
      if (row_of[id] < 0) {
        row_of[id] = static_cast<int32_t>(buffers_.count());
        if (!buffers_.push({tensor, round_up(tensor->byte_size), k, k, 0})) return false;
      }
      buffer& b = buffers_[row_of[id]];
      const int32_t last = last_reader(id);
      if (last > b.last) b.last = last;
    }
    return true;
  }

  // The row of a predecessor that has the same tensor, or -1.
  int32_t shared_row(int32_t id, const zyn_tensor* tensor, const int32_t* row_of) const {
    const zyn_darray* reads = zyn_cg_inputs(graph_, id);
    for (int64_t i = 0; reads && i < reads->count; i++) {
      const int32_t row = row_of[zyn_darray_ids(reads)[i]];
      if (row >= 0 && buffers_[row].tensor == tensor) return row;
    }
    return -1;
  }

  bool is_input(const zyn_tensor* tensor) const {
    for (int32_t i = 0; i < net_->description.input_count; i++)
      if (net_->tensors[net_->description.inputs[i].node] == tensor) return true;
    return false;
  }

  // The position of the last node that reads a node's output; the end for what stays
  // readable.
  int32_t last_reader(int32_t id) const {
    const int32_t end = net_->description.node_count;
    if (net_->options.keep_all == 1) return end;
    for (int32_t i = 0; i < net_->description.output_count; i++)
      if (net_->description.outputs[i].node == id) return end;
    int32_t last = 0;
    const zyn_darray* readers = zyn_cg_readers(graph_, id);
    for (int64_t i = 0; readers && i < readers->count; i++) {
      const int32_t at = positions_[zyn_darray_ids(readers)[i]];
      if (at > last) last = at;
    }
    return last;
  }

  // Gives every buffer its offset; the bytes of the block, -1 without memory.
  int64_t place() {
    // By falling size; a stable order of equal ones keeps the result the same everywhere.
    for (int64_t i = 1; i < buffers_.count(); i++) {
      const buffer b = buffers_[i];
      int64_t at = i;
      for (; at > 0 && buffers_[at - 1].bytes < b.bytes; at--) buffers_[at] = buffers_[at - 1];
      buffers_[at] = b;
    }
    if (!placed_.reserve(buffers_.count())) return -1;
    int64_t end = 0;
    for (int64_t i = 0; i < buffers_.count(); i++) {
      const int64_t behind = place_lowest(static_cast<int32_t>(i));
      if (behind > end) end = behind;
    }
    return end;
  }

  // Puts a buffer at the lowest offset where it meets none of those placed before; where it
  // ends.
  int64_t place_lowest(int32_t row) {
    buffer& b = buffers_[row];
    for (int64_t i = 0; i < placed_.count(); i++) {
      const buffer& other = buffers_[placed_[i]];
      if (!overlap_in_time(other, b)) continue;
      if (other.offset >= b.offset + b.bytes) break;
      const int64_t behind = other.offset + other.bytes;
      if (behind > b.offset) b.offset = behind;
    }
    placed_.push(row);  // room was made before
    int64_t at = placed_.count() - 1;
    for (; at > 0 && buffers_[placed_[at - 1]].offset > b.offset; at--)
      placed_[at] = placed_[at - 1];
    placed_[at] = row;
    return b.offset + b.bytes;
  }

  zyn_net* net_;
  zyn_cg_handle* graph_;
  zyn_list<buffer> buffers_;
  zyn_list<int32_t> positions_;  // by node: where it stands in the order of execution
  zyn_list<int32_t> placed_;     // rows by rising offset
};

// Copies a constant out of the file.
bool keep_constant(zyn_tensor* constant) {
  void* copy = zyn_malloc(constant->byte_size);
  if (!copy) return false;
  memcpy(copy, constant->data, static_cast<size_t>(constant->byte_size));
  constant->data = copy;
  constant->owns_data = 1;
  return true;
}

}  // namespace

int32_t zyn_net_drop_file(zyn_net* net) {
  const zyn_storing storing(zyn_net_store(net, net->store.chunk_bytes));
  const int32_t count = net->description.node_count;
  zyn_scratch<uint8_t> read = zyn_scratch<uint8_t>::zeroed(count);
  if (!read) return no_memory();
  for (int32_t id = 0; id < count; id++) {
    if (net->nodes[id].type == ZYN_OP_CONSTANT || net->nodes[id].type == ZYN_OP_INPUT) continue;
    if (zyn_cg_conv_drop_weights(net->graph, id)) continue;
    const zyn_darray* reads = zyn_cg_inputs(net->graph, id);
    for (int64_t i = 0; reads && i < reads->count; i++) read[zyn_darray_ids(reads)[i]] = 1;
  }
  for (int32_t id = 0; id < count; id++) {
    if (net->nodes[id].type != ZYN_OP_CONSTANT) continue;
    if (!read[id])
      net->tensors[id]->data = nullptr;
    else if (!keep_constant(net->tensors[id]))
      return no_memory();
  }
  zyn_free(net->bytes);
  net->bytes = nullptr;
  return ZYN_RET_OK;
}

int32_t zyn_net_share_memory(zyn_net* net) { return planner(net).run(); }

int32_t zyn_net_memory(const zyn_net* net, zyn_net_memory_use* use) {
  if (!net || !use) return zyn_refuse(ZYN_RET_ERR_PARA, "the network or the record is null");
  *use = {0, zyn_block_bytes(net->block), zyn_block_bytes(net->graph->scratch.block),
          net->bytes_kept};
  for (int32_t id = 0; id < net->description.node_count; id++) {
    int64_t weights = 0, scratch = 0;
    if (zyn_cg_conv_memory(net->graph, id, &weights, &scratch)) {
      use->weights += weights;
      use->scratch += scratch;
    }
    const zyn_tensor* tensor = net->tensors[id];
    if (!tensor || !tensor->data) continue;
    const bool is_input = net->nodes[id].type == ZYN_OP_INPUT;
    (is_input ? use->activations : use->weights) += tensor->byte_size;
  }
  return ZYN_RET_OK;
}

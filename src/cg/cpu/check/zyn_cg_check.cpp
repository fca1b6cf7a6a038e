// Examining a graph: ids and edges, order, bindings, then every operator by its rule, in
// order of execution.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "cg/cpu/check/zyn_check.h"
#include "cg/cpu/zyn_cg_names.h"
#include "simd/zyn_flush.h"

namespace {

constexpr int64_t kMostFindings = 256;

bool is_data(int32_t type) {
  return type == ZYN_OP_INPUT || type == ZYN_OP_DATA || type == ZYN_OP_CONSTANT;
}

bool is_in_place(int32_t type) {
  return type == ZYN_OP_SIGMOID || type == ZYN_OP_RELU || type == ZYN_OP_RELU6 ||
         type == ZYN_OP_HARD_SWISH || type == ZYN_OP_MISH;
}

bool is_conv(int32_t type) {
  return type == ZYN_OP_CONV || type == ZYN_OP_CONV_DEPTHWISE || type == ZYN_OP_CONV_POINTWISE ||
         type == ZYN_OP_CONV_GROUPED || type == ZYN_OP_CONV_TRANSPOSED || type == ZYN_OP_CONV_ACT ||
         type == ZYN_OP_CONV_BN;
}

const zyn_tensor* data_tensor(const zyn_cg_handle* graph, int32_t node) {
  const void* record = zyn_cg_record(graph, node);
  return static_cast<const zyn_tensor*>(static_cast<const zyn_cg_data_record*>(record)->data);
}

zyn_check_shape shape_of(const zyn_tensor* tensor) {
  zyn_check_shape shape = {};
  if (!tensor || tensor->dim_count < 1 || tensor->dim_count > 5) return shape;
  shape.dim_count = tensor->dim_count;
  memcpy(shape.dims, tensor->dims, sizeof(shape.dims));
  shape.type = tensor->type;
  return shape;
}

}  // namespace

void zyn_checker::add(int32_t severity, int32_t kind, int32_t node, const char* format,
                      va_list arguments) {
  if (findings_.count() >= kMostFindings) return;
  zyn_cg_finding finding = {};
  finding.severity = severity;
  finding.kind = kind;
  finding.node = node;
  const int32_t type = node >= 0 ? zyn_cg_node_type(graph_, node) : -1;
  int used = 0;
  if (node >= 0) used = zyn_cg_name_node(graph_, node, type, finding.text, sizeof(finding.text));
  vsnprintf(finding.text + used, sizeof(finding.text) - static_cast<size_t>(used), format,
            arguments);
  if (!findings_.push(finding)) short_of_memory_ = true;
}

void zyn_checker::error(int32_t kind, int32_t node, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  add(ZYN_CHECK_ERROR, kind, node, format, arguments);
  va_end(arguments);
}

void zyn_checker::warn(int32_t kind, int32_t node, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  add(ZYN_CHECK_WARNING, kind, node, format, arguments);
  va_end(arguments);
}

bool zyn_checker::is_constant(int32_t node) const {
  return zyn_cg_node_type(graph_, node) == ZYN_OP_CONSTANT;
}

bool zyn_checker::run() {
  const bool usable = check_edges() && check_order();
  if (usable) {
    check_bound();
    const zyn_check_shape unknown = {};
    const int64_t count = zyn_cg_node_count(graph_);
    for (int64_t i = 0; i < count; i++)
      if (!shapes_.push(unknown)) return false;
    check_operators();
  }
  return !short_of_memory_;
}

// Ids below the maximum and without gaps. False where nothing further can be said.
bool zyn_checker::check_edges() {
  const int32_t count = zyn_cg_node_count(graph_);
  const int32_t* ids = zyn_darray_ids(graph_->nodes);
  if (count < 1) {
    error(ZYN_CHECK_GAP, -1, "the graph has no nodes: add its edges first");
    return false;
  }
  zyn_scratch<uint8_t> seen = zyn_scratch<uint8_t>::zeroed(count);
  if (!seen) {
    short_of_memory_ = true;
    return false;
  }
  bool usable = true;
  for (int32_t i = 0; i < count; i++) {
    if (ids[i] >= graph_->max_nodes) {
      error(ZYN_CHECK_NODE_RANGE, -1,
            "an edge names node %d, but the graph was created for ids 0 to %d: create it with "
            "max_nodes of at least %lld",
            ids[i], graph_->max_nodes - 1, static_cast<long long>(ids[i]) + 1);
      usable = false;
    }
    if (ids[i] < count) seen[ids[i]] = 1;
  }
  for (int32_t i = 0; usable && i < count; i++) {
    if (seen[i]) continue;
    error(ZYN_CHECK_GAP, -1,
          "no edge names node %d, although the graph has %d nodes, which must be 0 to %d: an edge "
          "of that node is missing",
          i, count, count - 1);
    usable = false;
  }
  return usable;
}

// The order holds every node once, behind all that it reads.
bool zyn_checker::is_sorted() {
  const int32_t count = zyn_cg_node_count(graph_);
  if (!graph_->order || graph_->sorted_count != count) return false;
  zyn_scratch<uint8_t> ran = zyn_scratch<uint8_t>::zeroed(count);
  if (!ran) {
    short_of_memory_ = true;
    return false;
  }
  for (int32_t k = 0; k < count; k++) {
    if (ran[graph_->order[k]]) return false;
    const zyn_darray* reads = zyn_cg_inputs(graph_, graph_->order[k]);
    for (int64_t i = 0; reads && i < reads->count; i++)
      if (!ran[zyn_darray_ids(reads)[i]]) return false;
    ran[graph_->order[k]] = 1;
  }
  return true;
}

bool zyn_checker::check_order() {
  const int32_t count = zyn_cg_node_count(graph_);
  if (is_sorted()) return true;
  zyn_scratch<int32_t> open = zyn_scratch<int32_t>::zeroed(count);
  if (!open) {
    short_of_memory_ = true;
    return false;
  }
  // Takes away what nothing leads to until only cycles and what follows them are left.
  for (int32_t i = 0; i < count; i++)
    open[i] = static_cast<int32_t>(zyn_cg_inputs(graph_, i) ? zyn_cg_inputs(graph_, i)->count : 0);
  int32_t left = count;
  for (bool changed = true; changed;) {
    changed = false;
    for (int32_t i = 0; i < count; i++) {
      if (open[i] != 0) continue;
      open[i] = -1;
      left--;
      changed = true;
      const zyn_darray* next = zyn_cg_readers(graph_, i);
      for (int64_t k = 0; next && k < next->count; k++) open[zyn_darray_ids(next)[k]]--;
    }
  }
  if (left == 0) {
    error(ZYN_CHECK_NOT_SORTED, -1,
          "the graph has not been sorted since its last edge was added: call "
          "zyn_computation_graph_topo_sort before binding");
    return false;
  }
  // From any node that is left, going back along edges that are left ends in a cycle.
  int32_t at = 0;
  while (open[at] < 0) at++;
  const auto before = [&](int32_t node) {
    const zyn_darray* reads = zyn_cg_inputs(graph_, node);
    for (int64_t k = 0; k < reads->count; k++)
      if (open[zyn_darray_ids(reads)[k]] >= 0) return zyn_darray_ids(reads)[k];
    return node;
  };
  for (int32_t i = 0; i < count; i++) at = before(at);
  // The circle against its edges, then said along them; of a long one the end.
  constexpr int32_t kMostSaid = 12;
  int32_t circle[kMostSaid] = {at};
  int32_t length = 1;
  while (length < kMostSaid && before(circle[length - 1]) != at) {
    circle[length] = before(circle[length - 1]);
    length++;
  }
  char path[16 * kMostSaid];
  int used = snprintf(path, sizeof(path), length < kMostSaid ? "%d" : "... > %d",
                      circle[length < kMostSaid ? 0 : length - 1]);
  if (length == kMostSaid) length--;
  while (length-- > 0)
    used +=
        snprintf(path + used, sizeof(path) - static_cast<size_t>(used), " > %d", circle[length]);
  error(ZYN_CHECK_CYCLE, -1, "the edges lead in a circle: %s", path);
  return false;
}

void zyn_checker::check_bound() {
  for (int32_t node = 0; node < zyn_cg_node_count(graph_); node++) {
    const bool bound = graph_->bound && graph_->bound[node];
    if (!bound)
      error(ZYN_CHECK_UNBOUND, node,
            "has not been bound: call "
            "zyn_bind_operator_onto_computation_graph for it");
    else if (!zyn_cg_record(graph_, node))
      error(ZYN_CHECK_TYPE, node, "its binding was refused, or its type computes nothing");
  }
}

// A data node's tensor, which becomes its shape.
bool zyn_checker::check_data_node(int32_t node) {
  const int32_t type = zyn_cg_node_type(graph_, node);
  const zyn_tensor* tensor = data_tensor(graph_, node);
  const zyn_darray* readers = zyn_cg_readers(graph_, node);
  if (!readers || readers->count == 0) warn(ZYN_CHECK_UNUSED, node, "no operator reads it");
  const zyn_check_shape shape = shape_of(tensor);
  if (!tensor || tensor->kind != ZYN_KIND_TENSOR || !shape.known()) {
    error(ZYN_CHECK_DATA, node, "its descriptor's data is no tensor");
    return false;
  }
  if (!tensor->data) {
    if (type == ZYN_OP_CONSTANT)
      error(ZYN_CHECK_DATA, node, "its tensor has no data: preparation reads constants");
    else
      warn(ZYN_CHECK_DATA, node, "its tensor has no data yet: a run needs them");
  }
  if (type == ZYN_OP_INPUT && is_fixed_point() && shape.type != ZYN_TYPE_FPI16)
    error(ZYN_CHECK_DATA, node,
          "its tensor has element type %u, a fixed-point graph reads 16-bit values (type %d)",
          shape.type, ZYN_TYPE_FPI16);
  shapes_[node] = shape;
  return true;
}

void zyn_checker::check_operators() {
  for (int32_t k = 0; k < graph_->sorted_count; k++) {
    const int32_t node = graph_->order[k];
    const int32_t type = zyn_cg_node_type(graph_, node);
    if (type < 0) continue;
    if (is_data(type))
      check_data_node(node);
    else
      check_node(node);
  }
}

void zyn_checker::check_node(int32_t id) {
  zyn_check_node node = {};
  node.id = id;
  node.type = zyn_cg_node_type(graph_, id);
  node.param = graph_->bindings ? graph_->bindings[id].param : nullptr;
  static constexpr zyn_darray kNothing = {};
  node.reads = zyn_cg_inputs(graph_, id);
  if (!node.reads) node.reads = &kNothing;
  node.producer = -1;
  node.method = graph_->bindings ? graph_->bindings[id].method : graph_->conv_method;
  for (int64_t i = 0; i < node.reads->count; i++) {
    const int32_t from = zyn_darray_ids(node.reads)[i];
    if (is_constant(from)) {
      node.constant = shapes_[from].known() ? data_tensor(graph_, from) : nullptr;
      node.constants++;
    } else {
      node.producer = from;
      node.producers++;
      node.input = shapes_[from];
    }
  }
  zyn_check_shape output = {};
  if (is_conv(node.type))
    zyn_check_conv(this, node, &output);
  else
    zyn_check_operator(this, node, &output);
  for (int32_t d = 0; d < output.dim_count; d++)
    if (output.dims[d] < 1) output.dim_count = 0;
  shapes_[id] = output;
  if (is_in_place(node.type) && node.producer >= 0) check_sharing(id);
}

// Who else reads what an in-place activation overwrites.
void zyn_checker::check_sharing(int32_t id) {
  const zyn_darray* reads = zyn_cg_inputs(graph_, id);
  const int32_t producer = zyn_darray_ids(reads)[reads->count - 1];
  if (zyn_cg_node_type(graph_, producer) == ZYN_OP_INPUT)
    warn(ZYN_CHECK_IN_PLACE, id,
         "works in place on the graph's input, node %d: every run overwrites it, refill it before "
         "the next",
         producer);
  const zyn_darray* readers = zyn_cg_readers(graph_, producer);
  bool passed = false;
  for (int32_t k = 0; k < graph_->sorted_count; k++) {
    const int32_t other = graph_->order[k];
    if (other == id) {
      passed = true;
      continue;
    }
    for (int64_t i = 0; i < readers->count; i++) {
      if (zyn_darray_ids(readers)[i] != other) continue;
      if (passed)
        warn(ZYN_CHECK_IN_PLACE, id,
             "works in place: node %d, which reads node %d too, sees the activated values; let a "
             "copy (FUNCTION, ZYN_FUNC_SCALE_SHIFT, 1, 0) feed the activation",
             other, producer);
      else
        warn(ZYN_CHECK_IN_PLACE, id,
             "works in place: node %d, which reads node %d too, sees the plain values only "
             "because it happens to run earlier",
             other, producer);
      break;
    }
  }
}

zyn_cg_report* zyn_checker::report() const {
  auto* report = static_cast<zyn_cg_report*>(zyn_calloc(1, sizeof(zyn_cg_report)));
  const int64_t count = findings_.count();
  if (!report || count == 0) return report;
  report->findings = static_cast<zyn_cg_finding*>(zyn_calloc(count, sizeof(zyn_cg_finding)));
  if (!report->findings) {
    zyn_free(report);
    return nullptr;
  }
  // Stable by severity, then by node: the lists are short.
  int64_t filled = 0;
  for (int32_t severity = ZYN_CHECK_ERROR; severity >= ZYN_CHECK_WARNING; severity--)
    for (int64_t i = 0; i < count; i++) {
      if (findings_[i].severity != severity) continue;
      int64_t at = filled++;
      for (; at > 0 && report->findings[at - 1].severity == severity &&
             report->findings[at - 1].node > findings_[i].node;
           at--)
        report->findings[at] = report->findings[at - 1];
      report->findings[at] = findings_[i];
      (severity == ZYN_CHECK_ERROR ? report->errors : report->warnings)++;
    }
  return report;
}

// Its own error, else what is wrong with the data that it reads; runs alone need all of them.
bool zyn_cg_explain_node(const zyn_cg_handle* graph, int32_t node, bool is_run) {
  zyn_checker checker(graph);
  zyn_cg_report* report = checker.run() ? checker.report() : nullptr;
  const zyn_darray* reads = zyn_cg_inputs(graph, node);
  const zyn_cg_finding* found = nullptr;
  for (int32_t i = 0; report && !found && i < report->errors; i++)
    if (report->findings[i].node == node) found = &report->findings[i];
  const int32_t said = report ? report->errors + (is_run ? report->warnings : 0) : 0;
  for (int32_t i = 0; !found && i < said; i++)
    for (int64_t k = 0; !found && reads && k < reads->count; k++)
      if (report->findings[i].kind == ZYN_CHECK_DATA &&
          report->findings[i].node == zyn_darray_ids(reads)[k])
        found = &report->findings[i];
  if (found) zyn_explain("%s", found->text);
  zyn_release_cg_report(&report);
  return found != nullptr;
}

int32_t zyn_cg_check(const zyn_cg_handle* graph, zyn_cg_report** report) {
  if (report) *report = nullptr;
  if (!graph || !report) return zyn_refuse(ZYN_RET_ERR_PARA, "the graph or the report is null");
  const zyn_flush_denormals flush;  // as preparation reads records
  zyn_checker checker(graph);
  if (checker.run()) *report = checker.report();
  if (*report) return ZYN_RET_OK;
  return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory to examine the graph");
}

void zyn_release_cg_report(zyn_cg_report** report) {
  if (!report || !*report) return;
  zyn_free((*report)->findings);
  zyn_free(*report);
  *report = nullptr;
}

// Examining a bound graph (zyn_cg_check): what the rules of the operators share. A rule sees
// one node, says what is wrong with it, and tells its output's shape where it can.
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include "base/zyn_explain.h"
#include "base/zyn_list.h"
#include "cg/cpu/zyn_cg.h"
#include "cg/cpu/zyn_cg_records.h"
#include "zyncore_net.h"

// Extents and type of a tensor; dim_count 0: not known, because of an error before.
struct zyn_check_shape {
  int32_t dim_count;
  int32_t dims[5];
  uint32_t type;

  bool known() const { return dim_count > 0; }
  int64_t extent(int32_t d) const { return d < dim_count ? dims[d] : 1; }
  // Above 2^56 always that: joins of tensors that fit may have more elements than int64_t holds.
  int64_t count() const {
    constexpr int64_t kMost = int64_t{1} << 56;
    int64_t product = 1;
    for (int32_t d = 0; d < dim_count; d++)
      if (__builtin_mul_overflow(product, dims[d], &product) || product > kMost) return kMost;
    return product;
  }
};

// A shape for a finding: "320 x 240 x 3".
struct zyn_shape_text : zyn_extents_text {
  explicit zyn_shape_text(const zyn_check_shape& s) : zyn_extents_text(s.dim_count, s.dims) {}
};

// A node as its rule sees it.
struct zyn_check_node {
  int32_t id;
  int32_t type;
  const void* param;           // the record that it was bound with; null for types without
  const zyn_darray* reads;     // ids of its predecessors
  zyn_check_shape input;       // of the last predecessor that is not a constant
  int32_t producer;            // its id, -1: there is none
  int32_t producers;           // how many predecessors are not constants
  const zyn_tensor* constant;  // of the last constant; null where there is none that is sound
  int32_t constants;
  uint32_t method;  // convolutions: 0, 1, 2
};

class zyn_checker {
 public:
  explicit zyn_checker(const zyn_cg_handle* graph) : graph_(graph) {}

  // Everything there is to find; false without memory.
  bool run();
  // The findings as a report, errors first; null without memory.
  zyn_cg_report* report() const;

  const zyn_cg_handle* graph() const { return graph_; }
  bool is_fixed_point() const { return zyn_cg_is_fixed_point(graph_); }
  const zyn_check_shape& shape(int32_t node) const { return shapes_[node]; }
  // Of a data node's tensor or an operator's output, once its rule has run.
  bool is_constant(int32_t node) const;

  // Adds a finding about a node (-1: the graph), whose name and operator are put in front.
  ZYN_FORMAT(4, 5) void error(int32_t kind, int32_t node, const char* format, ...);
  ZYN_FORMAT(4, 5) void warn(int32_t kind, int32_t node, const char* format, ...);

 private:
  void add(int32_t severity, int32_t kind, int32_t node, const char* format, va_list arguments);
  bool check_edges();
  bool is_sorted();
  bool check_order();
  void check_bound();
  bool check_data_node(int32_t node);
  void check_operators();
  void check_node(int32_t node);
  void check_sharing(int32_t node);

  const zyn_cg_handle* graph_;
  zyn_list<zyn_cg_finding> findings_;
  zyn_list<zyn_check_shape> shapes_;
  bool short_of_memory_ = false;
};

// The rules by operator family. Each is called for nodes of its types alone.
void zyn_check_conv(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output);
void zyn_check_operator(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output);
// Of types 30 and 35: records that zyn_cg_find_further knows.
void zyn_check_further(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output);

// Type 9, and the joins of type 31, which have two predecessors.
void zyn_check_function(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output);
void zyn_check_join(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output);

// Whether a convolution method computes a record that has passed its rule.
bool zyn_check_method_computes(uint32_t method, int32_t type, const zyn_conv_param& param,
                               const zyn_check_shape& input);

// Whether a node has exactly the predecessors of its kind that its operator reads, and an
// input of the type that the graph computes in; says what is missing.
bool zyn_check_reads(zyn_checker* check, const zyn_check_node& node, bool with_constant);

// The fraction bits of a node's output, within least and most; says so otherwise.
bool zyn_check_q(zyn_checker* check, int32_t node, int32_t listed, int32_t least, int32_t most,
                 int32_t* q);

// Types 30 and 35 as far as the first word of the record says what they compute: what those
// operators share, and the rules for their records, which zyn_cg_check asks too.
#pragma once

#include "base/zyn_integers.h"
#include "cg/cpu/zyn_cg_records.h"
#include "cg/cpu/zyn_cg_support.h"
#include "zyncore_net.h"

struct zyn_cg_extents {
  int32_t dim_count;
  int32_t dims[kZynMaxDims];

  int64_t extent(int32_t d) const { return d < dim_count ? dims[d] : 1; }
  // Elements of the axes first to last - 1.
  int64_t elements(int32_t first, int32_t last) const {
    int64_t product = 1;
    for (int32_t d = first; d < last; d++) product *= extent(d);
    return product;
  }
};

// What a record makes of an input: code 0 and the output's extents, or the code that
// preparation returns and the reason.
struct zyn_cg_verdict {
  int32_t code;
  zyn_cg_extents output;
  char text[200];
};

// The verdict on a record that zyn_cg_find_further knows, of types 30 and 35.
void zyn_cg_judge(int32_t type, const void* param, const zyn_cg_extents& input, bool fixed_point,
                  zyn_cg_verdict* verdict);

// The state of every operator of types 30 and 35 begins like this.
struct zyn_cg_varied_state : zyn_cg_io_state {
  zyn_cg_prepare_fn prepare;
  zyn_cg_extents shape;  // of the input that was prepared for
};

// bind of such an operator; State has its record as the field param.
template <typename State>
int32_t zyn_cg_bind_varied(zyn_cg_handle* graph, int32_t node, const void* param, uint32_t type,
                           zyn_cg_prepare_fn prepare, zyn_cg_run_fn run) {
  auto* state = zyn_cg_new_state<State>(graph, node, type, run);
  if (!state) return ZYN_RET_ERR_MEMORY;
  state->prepare = prepare;
  memcpy(&state->param, param, sizeof(state->param));
  return ZYN_RET_OK;
}

// Calls move with a value of a type as wide as a tensor's elements; 1: there is none.
template <typename Move>
int32_t zyn_cg_move_by_width(const zyn_tensor* tensor, Move move) {
  switch (tensor->element_size) {
    case 1:
      move(int8_t());
      break;
    case 2:
      move(int16_t());
      break;
    case 4:
      move(float());
      break;
    case 8:
      move(int64_t());
      break;
    default:
      return ZYN_RET_ERR_PARA;
  }
  return ZYN_RET_OK;
}

// Prepares a node by the routine that it was bound with.
int32_t zyn_cg_prepare_varied(zyn_cg_handle* graph, int32_t node);

// Input, verdict, fraction bits (the input's) and output of a node with a further record.
int32_t zyn_cg_prepare_further(zyn_cg_handle* graph, int32_t node, zyn_cg_varied_state* state,
                               const void* param);

// prepare of an operator that needs nothing beside its output.
template <typename State>
int32_t zyn_cg_prepare_plain(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<State>(graph, node);
  return zyn_cg_prepare_further(graph, node, state, &state->param);
}

// Whether a run finds what was prepared: the caller may have changed its own tensor.
bool zyn_cg_same_input(const zyn_cg_varied_state* state);

// zyn_cg_window.cpp, zyn_cg_resize.cpp, zyn_cg_reduce.cpp, zyn_cg_permute.cpp and
// zyn_cg_move.cpp: bind by first word.
int32_t zyn_cg_bind_window(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_resize(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_reduce(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_permute(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_pad(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_shuffle(zyn_cg_handle* graph, int32_t node, const void* param);
int32_t zyn_cg_bind_part(zyn_cg_handle* graph, int32_t node, const void* param);

// An axis that a loop walks, with what a step means in both blocks.
struct zyn_cg_walked {
  int64_t extent, in, out;
};

// Calls f(in, out) with the offsets of every combination of indices, the first axis fastest.
template <typename Function>
void zyn_cg_walk(const zyn_cg_walked* axes, int32_t count, Function f) {
  int64_t at[kZynMaxDims] = {}, in = 0, out = 0;
  for (int32_t d = 0; d < count;) {
    if (d == 0) f(in, out);
    if (++at[d] < axes[d].extent) {
      in += axes[d].in;
      out += axes[d].out;
      d = 0;
    } else {
      in -= (axes[d].extent - 1) * axes[d].in;
      out -= (axes[d].extent - 1) * axes[d].out;
      at[d++] = 0;
    }
  }
  if (count == 0) f(in, out);
}

// What the operator families share: states, a node's inputs, output tensors, and the
// element-wise loops.
#pragma once

#include <immintrin.h>
#include <string.h>

#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "cg/cpu/zyn_cg.h"
#include "cg/cpu/zyn_cg_layout.h"
#include "simd/zyn_vectors.h"

// The first fields of every one-input state. Types 7, 8, 22, 23 and 30 share one
// release, which frees exactly these.
struct zyn_cg_io_state {
  uint32_t type;
  zyn_tensor* input;   // the producer's
  zyn_tensor* output;  // the node's own
  zyn_tensor* planar;  // the input in planar order, made when a run needs it
  void* workspace;     // a zyn_malloc block of the type's own, or null
};

inline constexpr int32_t kZynMaxDims = 5;

// A zeroed state for a node being bound; null without memory.
template <typename State>
State* zyn_cg_new_state(zyn_cg_handle* graph, int32_t node, uint32_t type, zyn_cg_run_fn run) {
  auto* state = static_cast<State*>(zyn_calloc(1, sizeof(State)));
  if (!state) return nullptr;
  state->type = type;
  zyn_cg_install(graph, node, state, run);
  return state;
}

// bind of a type without parameters.
template <typename State, uint32_t Type, zyn_cg_run_fn Run>
int32_t zyn_cg_bind_plain(zyn_cg_handle* graph, int32_t node, const void*) {
  return zyn_cg_new_state<State>(graph, node, Type, Run) ? ZYN_RET_OK : ZYN_RET_ERR_MEMORY;
}

// bind of a type whose state keeps a copy of its record in the field param.
template <typename State, uint32_t Type, zyn_cg_run_fn Run>
int32_t zyn_cg_bind_record(zyn_cg_handle* graph, int32_t node, const void* param) {
  if (!param) return ZYN_RET_ERR_PARA;
  auto* state = zyn_cg_new_state<State>(graph, node, Type, Run);
  if (!state) return ZYN_RET_ERR_MEMORY;
  memcpy(&state->param, param, sizeof(state->param));
  return ZYN_RET_OK;
}

// Device types 1 to 3 compute elsewhere: their outputs have no data here.
inline bool zyn_cg_on_device(uint32_t device_type) { return device_type >= 1 && device_type <= 3; }

// The members of a record's pair by the axis that they belong to: the first one, named _h,
// along x = dims[0], the second, named _w, along y = dims[1].
template <typename T>
struct zyn_cg_pair {
  T x, y;
};

// The state of a node that is being prepared; null for a null graph, a bad node.
template <typename State>
State* zyn_cg_state(zyn_cg_handle* graph, int32_t node) {
  return graph ? static_cast<State*>(zyn_cg_record(graph, node)) : nullptr;
}

// Where a node's data come from.
struct zyn_cg_sources {
  zyn_tensor* input;     // of the last predecessor that is not a constant; or null
  int32_t producer;      // that predecessor's id
  zyn_tensor* constant;  // of the last constant; or null
  int64_t count;         // number of predecessors
};
zyn_cg_sources zyn_cg_find_sources(zyn_cg_handle* graph, int32_t node);

// The two producers of a node that has exactly two, else null.
const int32_t* zyn_cg_two_inputs(const zyn_cg_handle* graph, int32_t node);

// What an operator that takes no constant reads from a producer: a graph input's
// tensor, else the producer's output. Null when there is none.
zyn_tensor* zyn_cg_input_tensor(zyn_cg_handle* graph, int32_t producer);

// The input of a node that may have one predecessor, kept in *input. 1: more than one,
// or no tensor, or one of another type than the graph computes in, or no Q list (fixed
// point only); *producer receives the predecessor's id where it is not null.
int32_t zyn_cg_only_input(zyn_cg_handle* graph, int32_t node, zyn_tensor** input,
                          int32_t* producer);

// 1 unless the input is of the type that the graph computes in: floats, or 16-bit fixed
// point and there is a Q list.
inline int32_t zyn_cg_check_input(const zyn_cg_handle* graph, const zyn_tensor* input) {
  if (!input) return ZYN_RET_ERR_PARA;
  const bool usable = zyn_cg_is_fixed_point(graph) ? graph->q_list && input->type == ZYN_TYPE_FPI16
                                                   : input->type == ZYN_TYPE_F32;
  return usable ? ZYN_RET_OK : ZYN_RET_ERR_PARA;
}

// The Q list's entry of a node as a signed count, in no range; false without a list or for an
// id outside it.
bool zyn_cg_read_fraction_bits(const zyn_cg_handle* graph, int32_t node, int32_t* q);

// The Q list's entry of a node; false unless it is 0 to 15, the fraction bits that 16-bit
// values can have.
bool zyn_cg_read_q(const zyn_cg_handle* graph, int32_t node, int32_t* q);

// In a fixed-point graph: a node that only selects or moves values takes its input's q,
// which is written into the list for the nodes behind it. 1 where that is no q.
int32_t zyn_cg_inherit_q(zyn_cg_handle* graph, int32_t node, int32_t producer);

// The input of a node that moves data of any type, in fixed point of 16 bits, and the node's
// q after it. The state has no input until its preparation succeeds.
int32_t zyn_cg_moved_input(zyn_cg_handle* graph, int32_t node, zyn_cg_io_state* state,
                           zyn_tensor** input);

// The 16-bit copy of a constant of floats, made again each time, and its one q. 1: no q
// fits; 2: no memory.
int32_t zyn_cg_quantize(zyn_tensor** quantized, const zyn_tensor* constant, uint32_t* q);

// Gives a node its output: an existing tensor of the same shape stays, so that nodes
// prepared before keep a valid pointer. 2 without memory or for an extent below 1,
// after the report of site (null: silent); the old output then stays. Without a graph
// the tensor has data whatever the device.
int32_t zyn_cg_make_output(const zyn_cg_handle* graph, zyn_tensor** output, int32_t dim_count,
                           const int32_t* dims, uint32_t type, const zyn_site* site);
// The same with the shape and type of another tensor.
inline int32_t zyn_cg_make_output_like(const zyn_cg_handle* graph, zyn_tensor** output,
                                       const zyn_tensor* shape, const zyn_site* site) {
  return zyn_cg_make_output(graph, output, shape->dim_count, shape->dims, shape->type, site);
}

// A product or quotient rule's extent as int32_t: what does not fit becomes 0, which no
// tensor admits.
inline int32_t zyn_cg_extent(int64_t value) {
  return value >= 1 && value <= INT32_MAX ? static_cast<int32_t>(value) : 0;
}

// extent * factor, rounded down, under the same rule.
inline int32_t zyn_cg_scaled_extent(int32_t extent, float factor) {
  const double value = static_cast<double>(extent) * static_cast<double>(factor);
  return value >= 1.0 && value <= static_cast<double>(INT32_MAX) ? static_cast<int32_t>(value) : 0;
}

// Equal extents on every dimension.
inline bool zyn_cg_same_dims(const zyn_tensor* a, const zyn_tensor* b) {
  return a->dim_count == b->dim_count && memcmp(a->dims, b->dims, sizeof(a->dims)) == 0;
}

// Both tensors are there and have data, of one type: the caller may have changed its own
// since preparation.
inline bool zyn_cg_ready(const zyn_tensor* a, const zyn_tensor* b) {
  return a && b && a->data && b->data && a->type == b->type;
}

inline float* zyn_cg_floats(const zyn_tensor* t) { return static_cast<float*>(t->data); }

// Releases a tensor that may be missing.
inline void zyn_cg_drop(zyn_tensor** tensor) {
  if (*tensor) zyn_release_tensor(tensor);
}

// Release of every state that begins with zyn_cg_io_state and owns no more than that.
int32_t zyn_cg_release_io(void** record);

// Slot 3 of a family: the output when the record's type is the one asked for.
template <typename State, uint32_t... Types>
zyn_tensor* zyn_cg_output_if(zyn_cg_handle* graph, int32_t node) {
  const auto* state = zyn_cg_state<State>(graph, node);
  return state && ((state->type == Types) || ...) ? state->output : nullptr;
}

// Fixed-point runs of the families that have none: their prepare ends here.
inline int32_t zyn_cg_no_fixed_point() { return ZYN_RET_ERR_NOT_SUPPORT; }

// Vectors in a turn of the element-wise loops, and elements of a run that earns such turns.
constexpr int32_t kZynMapped = 4;
constexpr int64_t kZynLongRun = 128;

// The lines that the turn after next writes, asked for ahead: the processor foresees what is read,
// but fetches what is written only when it is.
inline void zyn_ask_ahead(const float* out) {
  constexpr int64_t kAhead = 64, kLine = 16;  // floats
  ZYN_UNROLL for (int64_t i = 0; i < 8 * kZynMapped; i += kLine)
      _mm_prefetch(reinterpret_cast<const char*>(out + kAhead + i), _MM_HINT_T0);
}

// out[i] = f(in[i]); in place is fine. Tails are masked, with zeros in the idle lanes. Long
// functions, which do not wait for memory, and short runs take one vector in a turn.
template <int32_t kVectors = kZynMapped, typename Function>
void zyn_map(float* out, const float* in, int64_t count, Function f) {
  int64_t i = 0;
  if (kVectors > 1 && count >= kZynLongRun)
    for (; i + 8 * kVectors <= count; i += 8 * kVectors) {
      __m256 v[kVectors];
      ZYN_UNROLL for (int32_t k = 0; k < kVectors; k++) v[k] = f(_mm256_loadu_ps(in + i + 8 * k));
      zyn_ask_ahead(out + i);
      ZYN_UNROLL for (int32_t k = 0; k < kVectors; k++) _mm256_storeu_ps(out + i + 8 * k, v[k]);
    }
  for (; i + 8 <= count; i += 8) _mm256_storeu_ps(out + i, f(_mm256_loadu_ps(in + i)));
  if (i == count) return;
  const __m256i mask = zyn_first_lanes(count - i);
  _mm256_maskstore_ps(out + i, mask, f(_mm256_maskload_ps(in + i, mask)));
}

// out[i] = f(a[i], b[i]); in place is fine.
template <int32_t kVectors = kZynMapped, typename Function>
void zyn_map2(float* out, const float* a, const float* b, int64_t count, Function f) {
  int64_t i = 0;
  if (kVectors > 1 && count >= kZynLongRun)
    for (; i + 8 * kVectors <= count; i += 8 * kVectors) {
      __m256 v[kVectors];
      ZYN_UNROLL for (int32_t k = 0; k < kVectors; k++) v[k] =
          f(_mm256_loadu_ps(a + i + 8 * k), _mm256_loadu_ps(b + i + 8 * k));
      zyn_ask_ahead(out + i);
      ZYN_UNROLL for (int32_t k = 0; k < kVectors; k++) _mm256_storeu_ps(out + i + 8 * k, v[k]);
    }
  for (; i + 8 <= count; i += 8)
    _mm256_storeu_ps(out + i, f(_mm256_loadu_ps(a + i), _mm256_loadu_ps(b + i)));
  if (i == count) return;
  const __m256i mask = zyn_first_lanes(count - i);
  _mm256_maskstore_ps(out + i, mask,
                      f(_mm256_maskload_ps(a + i, mask), _mm256_maskload_ps(b + i, mask)));
}

// out = f(x, values[c]) for every element x of channel c, in the order in which input lies.
template <typename Function>
void zyn_map_channels(float* out, const zyn_tensor* input, const float* values, Function f) {
  const int64_t pixels = zyn_cg_pixels(input), channels = zyn_cg_channels(input);
  const uint32_t order = zyn_cg_order(input);
  const bool side_by_side = pixels == 1 || order == ZYN_LAYOUT_INTERLEAVED;
  const float* in = zyn_cg_floats(input);
  for (int64_t image = input->count / (pixels * channels); image > 0; image--) {
    for (int64_t c = 0, group; c < channels; c += group) {
      const int64_t left = channels - c;
      const bool blocked = order == ZYN_LAYOUT_BLOCKED;
      group = side_by_side ? left : blocked && left >= 8 ? 8 : blocked && left >= 4 ? 4 : 1;
      const int64_t at = c * pixels, count = group * pixels;
      if (side_by_side) {
        for (int64_t p = 0; p < count; p += channels)
          zyn_map2(out + p, in + p, values, channels, f);
        continue;
      }
      const float* v = values + c;
      const __m256 lanes = group == 8   ? _mm256_loadu_ps(v)
                           : group == 4 ? _mm256_set_m128(_mm_loadu_ps(v), _mm_loadu_ps(v))
                                        : _mm256_set1_ps(*v);
      const auto of_group = [=](__m256 x) { return f(x, lanes); };
      if (count < kZynLongRun)
        zyn_map<1>(out + at, in + at, count, of_group);
      else
        zyn_map(out + at, in + at, count, of_group);
    }
    in += channels * pixels;
    out += channels * pixels;
  }
}

// Joins of two tensors element by element, extents of 1 repeated, and the matrix product. Like
// shapes in one channel order, and one value a channel, are taken as they lie; all else is
// computed in planar order, row by row of what lies side by side in output and operands.
#include "cg/cpu/ops/zyn_cg_join.h"

#include "base/zyn_explain.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_ops.h"
#include "cg/cpu/ops/zyn_cg_power.h"
#include "cg/cpu/zyn_cg_records.h"
#include "cg/cpu/zyn_cg_support.h"

namespace {

// input is the first operand; planar is b in planar order, workspace the matrix product's scratch
// and behind it the first operand in planar order.
struct join_state : zyn_cg_io_state {
  zyn_join_param param;
  zyn_tensor* b;
  int32_t q_a, q_b, q_output;  // fixed point
  uint32_t device_type;
};

zyn_cg_extents extents_of(const zyn_tensor* t) { return {t->dim_count, t->dims}; }

// The output as rows of elements that lie side by side, and how far both operands move from one
// element to the next (1, or 0: one value for the row) and from row to row.
struct rows {
  int32_t levels = 1;
  int64_t extent[5] = {1}, a_step[5] = {1}, b_step[5] = {1};

  rows(const zyn_cg_extents& out, const zyn_cg_extents& a, const zyn_cg_extents& b) {
    int64_t a_pitch = 1, b_pitch = 1;
    int32_t last = -1;
    for (int32_t d = 0; d < 5; d++) {
      const int64_t next_a = a[d] > 1 ? a_pitch : 0, next_b = b[d] > 1 ? b_pitch : 0;
      a_pitch *= a[d];
      b_pitch *= b[d];
      if (out[d] == 1) continue;
      // An extent that continues the one before in both operands lengthens it.
      if (last >= 0 && next_a == a_step[last] * extent[last] &&
          next_b == b_step[last] * extent[last]) {
        extent[last] *= out[d];
        continue;
      }
      last++;
      extent[last] = out[d];
      a_step[last] = next_a;
      b_step[last] = next_b;
    }
    levels = last < 0 ? 1 : last + 1;
  }

  // f(place in the output, in a, in b) for every row.
  template <typename Function>
  void for_each(Function f) const {
    int64_t at[5] = {}, a = 0, b = 0, out = 0;
    for (;;) {
      f(out, a, b);
      out += extent[0];
      int32_t d = 1;
      for (; d < levels; d++) {
        a += a_step[d];
        b += b_step[d];
        if (++at[d] < extent[d]) break;
        at[d] = 0;
        a -= a_step[d] * extent[d];
        b -= b_step[d] * extent[d];
      }
      if (d >= levels) return;
    }
  }
};

// One value for every channel of data: {1, 1, C} beside {W, H, C}.
bool is_by_channel(const zyn_tensor* values, const zyn_tensor* data) {
  const zyn_cg_extents v = extents_of(values);
  return v[0] == 1 && v[1] == 1 && v[3] == 1 && v[4] == 1 && v[2] == zyn_cg_channels(data);
}

// The first operand in planar order; null without memory.
const float* planar_floats(join_state* state, const zyn_tensor* a, int64_t scratch) {
  if (zyn_cg_order(a) == ZYN_LAYOUT_PLANAR) return zyn_cg_floats(a);
  int64_t floats = 0, bytes = 0;
  if (!zyn_sum(scratch, a->count, &floats) || !zyn_multiply(floats, sizeof(float), &bytes))
    return nullptr;
  void* block = zyn_grow(state->workspace, bytes);
  if (!block) return nullptr;
  state->workspace = block;
  float* copy = static_cast<float*>(block) + scratch;
  zyn_cg_copy_planar(copy, a);
  return copy;
}

template <typename Op>
int32_t join_floats(join_state* state, Op op) {
  const zyn_tensor *a = state->input, *b = state->b;
  zyn_tensor* output = state->output;
  float* out = zyn_cg_floats(output);
  if (zyn_cg_same_dims(a, b) && zyn_cg_order(a) == zyn_cg_order(b)) {
    zyn_map2(out, zyn_cg_floats(a), zyn_cg_floats(b), output->count, op);
    output->layout = a->layout;
    return ZYN_RET_OK;
  }
  if (a->count == output->count && is_by_channel(b, a)) {
    zyn_map_channels(out, a, zyn_cg_floats(b), op);
    output->layout = a->layout;
    return ZYN_RET_OK;
  }
  if (b->count == output->count && is_by_channel(a, b)) {
    zyn_map_channels(out, b, zyn_cg_floats(a), [=](__m256 y, __m256 x) { return op(x, y); });
    output->layout = b->layout;
    return ZYN_RET_OK;
  }
  const float* x = planar_floats(state, a, 0);
  const zyn_tensor* planar = zyn_cg_planar(b, &state->planar);
  if (!x || !planar) return ZYN_RET_ERR_MEMORY;
  const float* y = zyn_cg_floats(planar);
  const rows all(extents_of(output), extents_of(a), extents_of(b));
  const int64_t count = all.extent[0];
  output->layout = ZYN_LAYOUT_PLANAR;
  all.for_each([&](int64_t to, int64_t i, int64_t j) {
    if (all.a_step[0] == 0) {
      const __m256 value = _mm256_set1_ps(x[i]);
      zyn_map(out + to, y + j, count, [=](__m256 v) { return op(value, v); });
    } else if (all.b_step[0] == 0) {
      const __m256 value = _mm256_set1_ps(y[j]);
      zyn_map(out + to, x + i, count, [=](__m256 v) { return op(v, value); });
    } else {
      zyn_map2(out + to, x + i, y + j, count, op);
    }
  });
  return ZYN_RET_OK;
}

// Where a is not a number it is the result, as b is by the order of the operands.
__m256 larger(__m256 a, __m256 b) {
  return _mm256_blendv_ps(_mm256_max_ps(a, b), a, _mm256_cmp_ps(a, a, _CMP_UNORD_Q));
}
__m256 smaller(__m256 a, __m256 b) {
  return _mm256_blendv_ps(_mm256_min_ps(a, b), a, _mm256_cmp_ps(a, a, _CMP_UNORD_Q));
}

// So long that the call costs nothing.
[[gnu::noinline]] __m256 power(__m256 a, __m256 b) { return zyn_power8(a, b); }

int32_t join_by_operation(join_state* state) {
  switch (state->param.operation) {
    case ZYN_JOIN_ADD:
      return join_floats(state, [](__m256 a, __m256 b) { return _mm256_add_ps(a, b); });
    case ZYN_JOIN_SUBTRACT:
      return join_floats(state, [](__m256 a, __m256 b) { return _mm256_sub_ps(a, b); });
    case ZYN_JOIN_MULTIPLY:
      return join_floats(state, [](__m256 a, __m256 b) { return _mm256_mul_ps(a, b); });
    case ZYN_JOIN_DIVIDE:
      return join_floats(state, [](__m256 a, __m256 b) { return _mm256_div_ps(a, b); });
    case ZYN_JOIN_MAX:
      return join_floats(state, [](__m256 a, __m256 b) { return larger(a, b); });
    case ZYN_JOIN_MIN:
      return join_floats(state, [](__m256 a, __m256 b) { return smaller(a, b); });
    default:
      return join_floats(state, power);
  }
}

using fixed_join = void (*)(int16_t* out, int32_t q_out, const zyn_fpi_operand& a,
                            const zyn_fpi_operand& b, int64_t count);

// Null: there is none.
fixed_join fixed_join_of(int32_t operation) {
  switch (operation) {
    case ZYN_JOIN_ADD:
      return zyn_fpi_add;
    case ZYN_JOIN_SUBTRACT:
      return zyn_fpi_subtract;
    case ZYN_JOIN_MULTIPLY:
      return zyn_fpi_multiply;
    case ZYN_JOIN_MAX:
      return zyn_fpi_max;
    case ZYN_JOIN_MIN:
      return zyn_fpi_min;
    default:
      return nullptr;
  }
}

int32_t join_fixed(join_state* state) {
  const zyn_tensor *a = state->input, *b = state->b;
  zyn_tensor* output = state->output;
  const fixed_join join = fixed_join_of(state->param.operation);
  if (!join) return ZYN_RET_ERR_PARA;
  const rows all(extents_of(output), extents_of(a), extents_of(b));
  output->layout = ZYN_LAYOUT_PLANAR;
  all.for_each([&](int64_t to, int64_t i, int64_t j) {
    join(zyn_fpi_words(output) + to, state->q_output,
         {zyn_fpi_words(a) + i, state->q_a, all.a_step[0] == 0},
         {zyn_fpi_words(b) + j, state->q_b, all.b_step[0] == 0}, all.extent[0]);
  });
  return ZYN_RET_OK;
}

int32_t run_matmul(join_state* state) {
  const zyn_tensor *a = state->input, *b = state->b;
  const int64_t scratch = zyn_cg_matmul_scratch(a->dims[0]);
  const bool has_room = zyn_block_bytes(state->workspace) / int64_t{sizeof(float)} >= scratch;
  if (!has_room) return ZYN_RET_ERR_PARA;
  const float* x = planar_floats(state, a, scratch);
  const zyn_tensor* planar = zyn_cg_planar(b, &state->planar);
  if (!x || !planar) return ZYN_RET_ERR_MEMORY;
  zyn_cg_matmul(state->output, extents_of(a), x, extents_of(b), zyn_cg_floats(planar),
                static_cast<float*>(state->workspace));
  state->output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

int32_t run_join(void* record) {
  auto* state = static_cast<join_state*>(record);
  if (zyn_cg_on_device(state->device_type)) return ZYN_RET_OK;
  const zyn_tensor *a = state->input, *b = state->b, *output = state->output;
  if (!zyn_cg_ready(a, b) || !zyn_cg_ready(output, a)) return ZYN_RET_ERR_PARA;
  int32_t dims[5];
  const int32_t count =
      zyn_cg_joined_extents(state->param.operation, extents_of(a), extents_of(b), dims);
  if (count != output->dim_count ||
      memcmp(dims, output->dims, static_cast<size_t>(count) * sizeof(int32_t)) != 0)
    return ZYN_RET_ERR_PARA;
  if (output->type == ZYN_TYPE_FPI16) return join_fixed(state);
  return state->param.operation == ZYN_JOIN_MATMUL ? run_matmul(state) : join_by_operation(state);
}

// The q of a node and its operands; false where one is missing, or where a product has fewer
// fraction bits than its result shall have.
bool read_q(const zyn_cg_handle* graph, int32_t node, const int32_t* ids, join_state* state) {
  return zyn_cg_read_q(graph, ids[0], &state->q_a) && zyn_cg_read_q(graph, ids[1], &state->q_b) &&
         zyn_cg_read_q(graph, node, &state->q_output) &&
         (state->param.operation != ZYN_JOIN_MULTIPLY ||
          state->q_a + state->q_b >= state->q_output);
}

}  // namespace

bool zyn_cg_join_is_fixed_point(int32_t operation) { return fixed_join_of(operation) != nullptr; }

bool zyn_cg_is_join(const void* param) {
  return param && zyn_cg_find_further(ZYN_OP_AFFINE, zyn_cg_first_word(param));
}

int32_t zyn_cg_joined_extents(int32_t operation, const zyn_cg_extents& a, const zyn_cg_extents& b,
                              int32_t (&dims)[5]) {
  const bool is_matmul = operation == ZYN_JOIN_MATMUL;
  if (is_matmul && a[0] != b[1]) return 0;
  for (int32_t d = 0; d < 5; d++) {
    dims[d] = a[d] > 1 ? a[d] : b[d];
    if (is_matmul && d < 2)
      dims[d] = d == 0 ? b[0] : a[1];
    else if (a[d] != b[d] && a[d] != 1 && b[d] != 1)
      return 0;
  }
  return a.count > b.count ? a.count : b.count;
}

int32_t zyn_cg_bind_join(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_record<join_state, ZYN_OP_AFFINE, run_join>(graph, node, param);
}

int32_t zyn_cg_prepare_join(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<join_state>(graph, node);
  const int32_t* ids = state ? zyn_cg_two_inputs(graph, node) : nullptr;
  if (!ids) return ZYN_RET_ERR_PARA;
  zyn_tensor* a = zyn_cg_producer_tensor(graph, ids[0]);
  zyn_tensor* b = zyn_cg_producer_tensor(graph, ids[1]);
  state->input = nullptr;
  if (zyn_cg_check_input(graph, a) || zyn_cg_check_input(graph, b))
    return zyn_refuse(
        ZYN_RET_ERR_PARA, "two tensors of %s are needed",
        zyn_cg_is_fixed_point(graph) ? "16 bits and a list of their fraction bits" : "floats");
  const int32_t operation = state->param.operation;
  if (zyn_cg_is_fixed_point(graph) && fixed_join_of(operation) && !read_q(graph, node, ids, state))
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "fraction bits are 0 to 15, those of a product at most as "
                      "many as its operands have together");
  int32_t dims[5];
  const int32_t count = zyn_cg_joined_extents(operation, extents_of(a), extents_of(b), dims);
  if (count == 0)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the extents of its operands do not fit each other");
  const int32_t code = zyn_cg_make_output(graph, &state->output, count, dims, a->type, nullptr);
  if (code != ZYN_RET_OK) return code;
  state->output->layout = a->layout;
  state->device_type = graph->device_type;
  if (zyn_cg_is_fixed_point(graph) && !fixed_join_of(operation)) return zyn_cg_no_fixed_point();
  if (operation == ZYN_JOIN_MATMUL) {
    void* grown = zyn_grow(state->workspace,
                           zyn_cg_matmul_scratch(a->dims[0]) * static_cast<int64_t>(sizeof(float)));
    if (!grown) return ZYN_RET_ERR_MEMORY;
    state->workspace = grown;
  }
  state->b = b;
  state->input = a;
  return ZYN_RET_OK;
}

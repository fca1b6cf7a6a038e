// What can be wrong with functions (type 9) and joins (type 31).
#include "cg/cpu/check/zyn_check.h"
#include "cg/cpu/ops/zyn_cg_function.h"
#include "cg/cpu/ops/zyn_cg_join.h"

namespace {

constexpr int32_t kMostQ = 15;

zyn_cg_extents extents_of(const zyn_check_shape& s) { return {s.dim_count, s.dims}; }

void check_slopes(zyn_checker* check, const zyn_check_node& node) {
  if (node.reads->count != 2)
    check->error(ZYN_CHECK_INPUTS, node.id,
                 "it reads %lld nodes, an input and a constant are needed",
                 static_cast<long long>(node.reads->count));
  const int64_t held = node.constant->count, channels = node.input.extent(2);
  if (held != 1 && held != channels)
    check->error(held < channels ? ZYN_CHECK_CONSTANT_SHORT : ZYN_CHECK_CONSTANT_LONG, node.id,
                 "constant holds %lld slopes, 1 or one for each of %lld channels are needed",
                 static_cast<long long>(held), static_cast<long long>(channels));
}

// Operands of 16 bits, and fraction bits that the operation can use.
void check_fixed_join(zyn_checker* check, const zyn_check_node& node, int32_t operation) {
  if (!zyn_cg_join_is_fixed_point(operation)) {
    check->error(ZYN_CHECK_TYPE, node.id, "this operation has no fixed-point form");
    return;
  }
  int32_t q[2] = {};
  for (int64_t i = 0; i < 2; i++) {
    const int32_t from = zyn_darray_ids(node.reads)[i];
    if (check->is_constant(from))
      check->error(
          ZYN_CHECK_DATA, node.id,
          "node %d is a constant of floats: in fixed point a join reads two 16-bit tensors", from);
    else if (!zyn_check_q(check, from, node.id, 0, kMostQ, &q[i]))
      return;
  }
  const int32_t sum = q[0] + q[1];
  const int32_t most = operation == ZYN_JOIN_MULTIPLY && sum < kMostQ ? sum : kMostQ;
  int32_t own = 0;
  zyn_check_q(check, node.id, node.id, 0, most, &own);
}

}  // namespace

void zyn_check_function(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  const auto& p = *static_cast<const zyn_func_param*>(node.param);
  const bool is_prelu = p.function == ZYN_FUNC_PRELU;
  if (!zyn_check_reads(check, node, is_prelu)) return;
  char text[128];
  if (zyn_cg_find_function_fault(p, node.input.dim_count, text, sizeof(text)))
    check->error(ZYN_CHECK_RECORD, node.id, "%s", text);
  if (is_prelu) check_slopes(check, node);
  *output = node.input;
  if (!check->is_fixed_point()) return;
  int32_t q = 0;
  if (!zyn_cg_function_is_fixed_point(p.function))
    check->error(ZYN_CHECK_TYPE, node.id, "this function has no fixed-point form");
  else if (zyn_check_q(check, node.producer, node.id, 0, kMostQ, &q))
    zyn_check_q(check, node.id, node.id, 0, kMostQ, &q);
}

void zyn_check_join(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  const int32_t operation = static_cast<const zyn_join_param*>(node.param)->operation;
  const zyn_check_shape a = check->shape(zyn_darray_ids(node.reads)[0]);
  const zyn_check_shape b = check->shape(zyn_darray_ids(node.reads)[1]);
  if (check->is_fixed_point()) check_fixed_join(check, node, operation);
  if (!a.known() || !b.known()) return;
  if (!check->is_fixed_point() && (a.type != ZYN_TYPE_F32 || b.type != ZYN_TYPE_F32))
    check->error(ZYN_CHECK_DATA, node.id, "element types %u and %u, floats (type %d) are needed",
                 a.type, b.type, ZYN_TYPE_F32);
  *output = a;
  output->dim_count = zyn_cg_joined_extents(operation, extents_of(a), extents_of(b), output->dims);
  if (output->known()) return;
  const zyn_shape_text first(a), second(b);
  if (operation == ZYN_JOIN_MATMUL)
    check->error(ZYN_CHECK_SHAPE, node.id,
                 "%s times %s: the first extent of the one and the second of the other are alike, "
                 "further ones alike or 1",
                 first.text, second.text);
  else
    check->error(ZYN_CHECK_SHAPE, node.id, "%s and %s: extents are alike, or one of them is 1",
                 first.text, second.text);
}

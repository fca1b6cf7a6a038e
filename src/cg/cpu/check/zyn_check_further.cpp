// What can be wrong with the further operators of types 30 and 35: the verdict that their
// preparation asks for, and fraction bits.
#include "cg/cpu/check/zyn_check.h"
#include "cg/cpu/ops/zyn_cg_further.h"

void zyn_check_further(zyn_checker* check, const zyn_check_node& node, zyn_check_shape* output) {
  if (!zyn_check_reads(check, node, false)) return;
  zyn_cg_extents input = {node.input.dim_count, {}};
  memcpy(input.dims, node.input.dims, sizeof(input.dims));
  zyn_cg_verdict verdict;
  zyn_cg_judge(node.type, node.param, input, check->is_fixed_point(), &verdict);
  if (verdict.code != ZYN_RET_OK) {
    const int32_t kind = verdict.code == ZYN_RET_ERR_PARA          ? ZYN_CHECK_RECORD
                         : verdict.code == ZYN_RET_ERR_NOT_SUPPORT ? ZYN_CHECK_TYPE
                                                                   : ZYN_CHECK_SHAPE;
    check->error(kind, node.id, "%s", verdict.text);
    return;
  }
  int32_t q = 0;
  if (check->is_fixed_point()) zyn_check_q(check, node.producer, node.id, 0, 15, &q);
  *output = node.input;
  memcpy(output->dims, verdict.output.dims, sizeof(output->dims));
}

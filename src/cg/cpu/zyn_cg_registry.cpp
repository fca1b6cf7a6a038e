// The operator table: which routine serves which type and slot. Types that share a
// routine have states that agree in the fields the routine touches.
#include "base/zyn_memory.h"
#include "cg/cpu/zyn_cg_operators.h"

namespace {

// Types that are registered but not computed: they bind, and refuse to prepare.
int32_t run_unsupported(void*) { return ZYN_RET_ERR_NOT_SUPPORT; }

template <uint32_t Type>
int32_t bind_unsupported(zyn_cg_handle* graph, int32_t node, const void*) {
  auto* record = static_cast<zyn_cg_node*>(zyn_calloc(1, sizeof(zyn_cg_node)));
  if (!record) return ZYN_RET_ERR_MEMORY;
  record->type = Type;
  zyn_cg_install(graph, node, record, run_unsupported);
  return ZYN_RET_OK;
}

int32_t prepare_unsupported(zyn_cg_handle*, int32_t) { return ZYN_RET_ERR_NOT_SUPPORT; }

int32_t release_unsupported(void** record) {
  zyn_free(*record);
  *record = nullptr;
  return ZYN_RET_OK;
}

zyn_tensor* output_unsupported(zyn_cg_handle*, int32_t) { return nullptr; }

template <uint32_t Type>
void register_unsupported(zyn_cg_operator* operators) {
  operators[Type] = {bind_unsupported<Type>, prepare_unsupported, release_unsupported,
                     output_unsupported, nullptr};
}

}  // namespace

int32_t zyn_cg_register_operators(zyn_cg_operator* operators) {
  register_unsupported<3>(operators);
  register_unsupported<4>(operators);
  register_unsupported<5>(operators);
  register_unsupported<12>(operators);
  register_unsupported<13>(operators);
  register_unsupported<7>(operators);
  register_unsupported<8>(operators);
  register_unsupported<9>(operators);
  register_unsupported<10>(operators);
  register_unsupported<11>(operators);
  register_unsupported<15>(operators);
  register_unsupported<16>(operators);
  register_unsupported<20>(operators);
  register_unsupported<21>(operators);
  register_unsupported<22>(operators);
  register_unsupported<23>(operators);
  register_unsupported<24>(operators);
  register_unsupported<25>(operators);
  register_unsupported<27>(operators);
  register_unsupported<28>(operators);
  register_unsupported<30>(operators);
  register_unsupported<31>(operators);
  register_unsupported<32>(operators);
  register_unsupported<33>(operators);
  register_unsupported<34>(operators);
  register_unsupported<35>(operators);
  return ZYN_RET_OK;
}

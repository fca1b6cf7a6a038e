// Setting a matrix to the identity.
#include <string.h>

#include "base/zyn_report.h"
#include "matrix/zyn_matrix_ops.h"

namespace {

constexpr const char* kPath = "src/matrix/zyn_matrix_basic_l1.cpp";
constexpr zyn_site kIdentityArgs{kPath, 2205, ZYN_MSG_PARA};
constexpr zyn_site kIdentityType{kPath, 2222, ZYN_MSG_NOT_SUPPORT};

template <typename T>
void ones(zyn_matrix* m) {
  for (int64_t i = 0; i < m->rows; i++)
    reinterpret_cast<T*>(static_cast<uint8_t*>(m->data) + i * m->row_bytes)[i] = 1;
}

}  // namespace

int32_t zyn_matrix_set_identity(zyn_matrix* m) {
  if (!m || m->rows != m->cols || !m->data) return zyn_fail(kIdentityArgs, ZYN_RET_ERR_PARA);
  // On purpose: the block is cleared before the type is looked at.
  memset(m->data, 0, static_cast<size_t>(int64_t{m->pages} * m->rows * m->row_bytes));
  switch (m->type) {  // On purpose: the whole code, several channels are refused.
    case ZYN_TYPE_F32:
      ones<float>(m);
      return ZYN_RET_OK;
    case ZYN_TYPE_F64:
      ones<double>(m);
      return ZYN_RET_OK;
    default:
      return zyn_fail(kIdentityType, ZYN_RET_ERR_NOT_SUPPORT);
  }
}

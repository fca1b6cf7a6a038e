// Transposition by copying or in place.
#include <stdint.h>

#include "base/zyn_report.h"
#include "matrix/zyn_matrix_ops.h"

namespace {

constexpr const char* kPath = "src/matrix/zyn_matrix_basic_l2.cpp";
constexpr zyn_site kArgs{kPath, 1411, ZYN_MSG_PARA};
constexpr zyn_site kInPlaceShape{kPath, 1417, ZYN_MSG_PARA};
constexpr zyn_site kType{kPath, 1425, ZYN_MSG_NOT_SUPPORT};

// T stands for any element of its size.
template <typename T>
void transpose(const zyn_matrix* d, const zyn_matrix* s) {
  const int64_t to_pitch = d->row_bytes / static_cast<int64_t>(sizeof(T));
  const int64_t from_pitch = s->row_bytes / static_cast<int64_t>(sizeof(T));
  T* const to = static_cast<T*>(d->data);
  const T* const from = static_cast<const T*>(s->data);
  if (to != from) {
    for (int64_t r = 0; r < s->rows; r++)
      for (int64_t c = 0; c < s->cols; c++) to[c * to_pitch + r] = from[r * from_pitch + c];
    return;
  }
  for (int64_t r = 0; r < d->rows; r++)
    for (int64_t c = 0; c < r; c++) {
      const T element = to[r * to_pitch + c];
      to[r * to_pitch + c] = to[c * to_pitch + r];
      to[c * to_pitch + r] = element;
    }
}

}  // namespace

int32_t zyn_matrix_transpose(zyn_matrix* d, const zyn_matrix* s) {
  if (!d || !s || d->pages != 1 || s->pages != 1 || s->channels != 1 || d->type != s->type ||
      d->rows != s->cols || d->cols != s->rows || !d->data || !s->data)
    return zyn_fail(kArgs, ZYN_RET_ERR_PARA);
  if (d->data == s->data && s->rows != s->cols) return zyn_fail(kInPlaceShape, ZYN_RET_ERR_PARA);
  switch (s->type & 7) {
    case 4:
    case 5:
    case ZYN_TYPE_F32:
      transpose<uint32_t>(d, s);
      return ZYN_RET_OK;
    case ZYN_TYPE_F64:
      transpose<uint64_t>(d, s);
      return ZYN_RET_OK;
    default:
      return zyn_fail(kType, ZYN_RET_ERR_NOT_SUPPORT);
  }
}

// Element-wise addition. Its reports name the container's file.
#include <stdint.h>

#include "base/zyn_report.h"
#include "matrix/zyn_matrix_ops.h"
#include "simd/zyn_lanes.h"

namespace {

constexpr const char* kPath = "src/matrix/zyn_matrix_core.cpp";
constexpr zyn_site kAddArgs{kPath, 592, ZYN_MSG_PARAMETERS};
constexpr zyn_site kAddType{kPath, 609, "can not support!"};

bool same_shape(const zyn_matrix* a, const zyn_matrix* b) {
  return a->rows == b->rows && a->cols == b->cols && a->pages == b->pages && a->type == b->type &&
         a->row_bytes == b->row_bytes;
}

template <typename T>
void add(T* c, const T* a, const T* b, int64_t count) {
  using L = zyn_lanes<T>;
  constexpr int64_t kBlock = 32;
  int64_t i = 0;
  for (; i + kBlock <= count; i += kBlock)
    for (int64_t v = i; v < i + kBlock; v += L::count)
      L::store(c + v, L::add(L::load(a + v), L::load(b + v)));
  for (; i < count; i++) c[i] = a[i] + b[i];
}

template <typename T>
int32_t add(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b) {
  const int64_t count =
      int64_t{c->pages} * c->rows * c->row_bytes / static_cast<int64_t>(sizeof(T));
  add(static_cast<T*>(c->data), static_cast<const T*>(a->data), static_cast<const T*>(b->data),
      count);
  return ZYN_RET_OK;
}

}  // namespace

int32_t zyn_matrix_add(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b) {
  if (!c || !a || !b || !same_shape(c, a) || !same_shape(c, b) || !c->data || !a->data || !b->data)
    return zyn_fail(kAddArgs, ZYN_RET_ERR_PARA);
  switch (c->type & 7) {
    case ZYN_TYPE_F32:
      return add<float>(c, a, b);
    case ZYN_TYPE_F64:
      return add<double>(c, a, b);
    default:
      return zyn_fail(kAddType, ZYN_RET_ERR_NOT_SUPPORT);
  }
}

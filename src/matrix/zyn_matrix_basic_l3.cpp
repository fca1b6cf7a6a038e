// General matrix multiplication: checks, and the choice between the direct and the
// blocked path.
#include <stdint.h>

#include "base/zyn_report.h"
#include "matrix/zyn_matrix_ops.h"
#include "matrix/zyn_matrix_product.h"

namespace {

constexpr const char* kPath = "src/matrix/zyn_matrix_basic_l3.cpp";
constexpr zyn_site kArgs{kPath, 47, "ZYN_RET_ERR_PARA"};
constexpr zyn_site kDirectType{kPath, 120, "ZYN_RET_ERR_NOT_SUPPORT"};
constexpr zyn_site kBlockedType{kPath, 185, "ZYN_RET_ERR_NOT_SUPPORT"};

// Elements of both operands up to which packing them does not pay.
constexpr int32_t kDirectElements = 180000;

// Counted in 32 bits.
bool is_large(const zyn_matrix* a, const zyn_matrix* b) {
  const uint32_t elements = static_cast<uint32_t>(b->rows) * static_cast<uint32_t>(b->cols) +
                            static_cast<uint32_t>(a->rows) * static_cast<uint32_t>(a->cols);
  return static_cast<int32_t>(elements) > kDirectElements;
}

// Rows of a up to which reading transposed rows of b where they lie, three rows of a at a time,
// takes less than packing them.
constexpr int32_t kDirectRows = 9;

template <typename T>
int32_t multiply(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b, bool transpose_b,
                 const void* alpha, const void* beta) {
  constexpr int64_t kSize = sizeof(T);
  const zyn_product<T> p{a->rows,
                         c->cols,
                         a->cols,
                         *static_cast<const T*>(alpha),
                         *static_cast<const T*>(beta),
                         static_cast<const T*>(a->data),
                         a->row_bytes / kSize,
                         static_cast<const T*>(b->data),
                         b->row_bytes / kSize,
                         transpose_b,
                         static_cast<T*>(c->data),
                         c->row_bytes / kSize};
  const bool streams = transpose_b && p.m <= kDirectRows && p.alpha != 0;
  // Without memory for packing the direct path does it, only slower.
  if (streams || !is_large(a, b) || !zyn_product_blocked(p)) zyn_product_direct(p);
  return ZYN_RET_OK;
}

}  // namespace

int32_t zyn_matrix_gemm(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b,
                        int32_t transpose_b, const void* alpha, const void* beta) {
  if (!c || !a || !b || c->type != a->type || c->type != b->type || c->pages != 1 ||
      a->pages != 1 || b->pages != 1 || !c->data || !a->data || !b->data || !alpha || !beta)
    return zyn_fail(kArgs, ZYN_RET_ERR_PARA);
  if ((transpose_b ? b->cols : b->rows) != a->cols) return ZYN_RET_ERR_PARA;
  switch (c->type) {
    case ZYN_TYPE_F32:
      return multiply<float>(c, a, b, transpose_b != 0, alpha, beta);
    case ZYN_TYPE_F64:
      return multiply<double>(c, a, b, transpose_b != 0, alpha, beta);
    default:
      return zyn_fail(is_large(a, b) ? kBlockedType : kDirectType, ZYN_RET_ERR_NOT_SUPPORT);
  }
}

int32_t zyn_matrix_multiply(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b,
                            int32_t transpose_b) {
  static constexpr float kOneZero32[2] = {1, 0};
  static constexpr double kOneZero64[2] = {1, 0};
  if (a && (a->type & 7) == ZYN_TYPE_F64)
    return zyn_matrix_gemm(c, a, b, transpose_b, &kOneZero64[0], &kOneZero64[1]);
  return zyn_matrix_gemm(c, a, b, transpose_b, &kOneZero32[0], &kOneZero32[1]);
}

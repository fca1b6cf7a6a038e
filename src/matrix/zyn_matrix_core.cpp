// The matrix container: header fields, ownership, release.
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "matrix/zyn_matrix.h"

namespace {

constexpr const char* kPath = "src/matrix/zyn_matrix_core.cpp";
constexpr zyn_site kHeaderArgs{kPath, 43, ZYN_MSG_PARAMETERS};
constexpr zyn_site kHeaderMemory{kPath, 48, "memory error!"};
constexpr zyn_site kSetHeaderArgs{kPath, 109, ZYN_MSG_PARAMETERS};
constexpr zyn_site kSetDataArgs{kPath, 162, ZYN_MSG_PARA};
constexpr zyn_site kSetDataLength{kPath, 168, ZYN_MSG_LENGTH};
constexpr zyn_site kBlockMemory{kPath, 241, ZYN_MSG_MEMORY};
constexpr zyn_site kReleaseArgs{kPath, 260, ZYN_MSG_PARAMETERS};

constexpr uint32_t kPlainFormat = 15;  // the pixel-format field of a record that is no image

// By type: bytes of one channel value times channels, and channels.
constexpr uint8_t kElementBytes[32] = {1, 1, 2, 2, 4,  4,  4,  8,  2, 2, 4, 4, 8,  8,  8,  16,
                                       3, 3, 6, 6, 12, 12, 12, 24, 4, 4, 8, 8, 16, 16, 16, 32};
constexpr uint8_t kChannels[32] = {1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2,
                                   3, 3, 3, 3, 3, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4};

uint32_t kind_of(int32_t rows, int32_t cols, int32_t pages) {
  if (pages != 1) return ZYN_KIND_MATRIX;
  if (rows == 1 && cols == 1) return ZYN_KIND_SCALAR;
  if (rows == 1) return ZYN_KIND_ROW_VECTOR;
  return cols == 1 ? ZYN_KIND_COLUMN_VECTOR : ZYN_KIND_MATRIX;
}

// Every field but the ownership flag. The tables are read by the type's low five
// bits, so that an unchecked type stays inside them.
void fill_header(zyn_matrix* matrix, int32_t rows, int32_t cols, int32_t pages, int32_t type) {
  memset(matrix, 0, sizeof(*matrix));
  matrix->kind = kind_of(rows, cols, pages);
  matrix->type = static_cast<uint32_t>(type);
  matrix->rows = rows;
  matrix->cols = cols;
  matrix->pages = pages;
  matrix->row_bytes = static_cast<int64_t>(zyn_matrix_element_bytes(type)) * cols;
  matrix->flag = 1;
  matrix->element_size = kElementBytes[type & 7];
  matrix->channels = kChannels[type & 31];
  matrix->format = kPlainFormat;
}

bool block_bytes(const zyn_matrix* matrix, int64_t* bytes) {
  return zyn_multiply(matrix->row_bytes, matrix->rows, bytes) &&
         zyn_multiply(*bytes, matrix->pages, bytes);
}

int32_t refuse_header(int32_t code, int32_t rows, int32_t cols, int32_t pages, int32_t type) {
  return zyn_refuse(code,
                    "a matrix has extents of at least 1 and a type of 0 to 31, found %d rows, %d "
                    "columns, %d pages, type %d",
                    rows, cols, pages, type);
}

}  // namespace

int32_t zyn_matrix_element_bytes(int32_t type) { return kElementBytes[type & 31]; }

zyn_matrix* zyn_create_matrix_header(int32_t rows, int32_t cols, int32_t pages, int32_t type) {
  if (rows < 1 || cols < 1 || pages < 1 || type < 0 || type > 31) {
    refuse_header(zyn_fail(kHeaderArgs, ZYN_RET_ERR_PARA), rows, cols, pages, type);
    return nullptr;
  }
  auto* matrix = static_cast<zyn_matrix*>(zyn_malloc(sizeof(zyn_matrix)));
  if (!matrix) {
    zyn_report(kHeaderMemory);
    return nullptr;
  }
  fill_header(matrix, rows, cols, pages, type);
  matrix->owns_data = 1;
  return matrix;
}

zyn_matrix* zyn_create_matrix(int32_t rows, int32_t cols, int32_t pages, int32_t type) {
  zyn_matrix_guard matrix(zyn_create_matrix_header(rows, cols, pages, type));
  if (!matrix) return nullptr;
  int64_t bytes = 0;
  if (block_bytes(matrix.get(), &bytes)) matrix->data = zyn_malloc(bytes);
  if (!matrix->data) {
    zyn_refuse(zyn_fail(kBlockMemory, ZYN_RET_ERR_MEMORY),
               "no memory for %d rows of %lld bytes, %d pages", rows,
               static_cast<long long>(matrix->row_bytes), pages);
    return nullptr;
  }
  return matrix.take();
}

int32_t zyn_set_matrix_header(zyn_matrix* matrix, int32_t rows, int32_t cols, int32_t pages,
                              int32_t type) {
  if (!matrix || rows < 1 || cols < 1 || pages < 1) {
    const int32_t code = zyn_fail(kSetHeaderArgs, ZYN_RET_ERR_PARA);
    return matrix ? refuse_header(code, rows, cols, pages, type) : zyn_refuse_null("the matrix");
  }
  fill_header(matrix, rows, cols, pages, type);  // On purpose: an owned block is not freed.
  return ZYN_RET_OK;
}

int32_t zyn_set_matrix_data(zyn_matrix* matrix, void* data, int64_t length) {
  if (!matrix || !data) return zyn_fail_null(kSetDataArgs, "the matrix or its data");
  int64_t bytes = 0;
  if (!block_bytes(matrix, &bytes) || length < bytes)
    return zyn_refuse(zyn_fail(kSetDataLength, ZYN_RET_ERR_DATA_LENGTH),
                      "the matrix has %lld bytes, found %lld", static_cast<long long>(bytes),
                      static_cast<long long>(length));
  if (data == matrix->data) return ZYN_RET_OK;  // its own block, owned as before
  if (matrix->data && matrix->owns_data) zyn_free(matrix->data);
  matrix->data = data;
  matrix->owns_data = 0;
  return ZYN_RET_OK;
}

int32_t zyn_release_matrix(zyn_matrix** matrix) {
  if (!matrix || !*matrix) return zyn_fail_null(kReleaseArgs, "the matrix");
  zyn_matrix* self = *matrix;
  if (self->owns_data && self->data) zyn_free(self->data);
  zyn_free(self);
  *matrix = nullptr;
  return ZYN_RET_OK;
}

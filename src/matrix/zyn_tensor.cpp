// The tensor container: shape arithmetic, ownership, release.
#include "matrix/zyn_tensor.h"

#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"

namespace {

constexpr const char* kPath = "src/matrix/zyn_tensor.cpp";
constexpr zyn_site kHeaderArgs{kPath, 41, ZYN_MSG_PARA};
constexpr zyn_site kHeaderExtent{kPath, 46, ZYN_MSG_PARA};
constexpr zyn_site kHeaderMemory{kPath, 53, ZYN_MSG_MEMORY};
constexpr zyn_site kBlockMemory{kPath, 109, ZYN_MSG_MEMORY};
constexpr zyn_site kTensorMemory{kPath, 123, ZYN_MSG_MEMORY};
constexpr zyn_site kSetHeaderArgs{kPath, 152, ZYN_MSG_PARA};
constexpr zyn_site kSetHeaderExtent{kPath, 157, ZYN_MSG_PARA};
constexpr zyn_site kSetHeaderType{kPath, 162, ZYN_MSG_PARA};
constexpr zyn_site kSetDataArgs{kPath, 203, ZYN_MSG_PARA};
constexpr zyn_site kSetDataLength{kPath, 208, ZYN_MSG_LENGTH};
constexpr zyn_site kReleaseArgs{kPath, 244, ZYN_MSG_PARA};

constexpr int32_t kMaxDims = 5;
constexpr uint8_t kElementSizes[8] = {1, 1, 2, 2, 4, 4, 4, 8};

// Whether every extent is at least 1 and the block stays below 2^31 bytes.
bool extents_fit(int32_t dim_count, const int32_t* dims, uint32_t type) {
  int64_t bytes = kElementSizes[type & 7];
  for (int32_t i = 0; i < dim_count; i++) {
    if (dims[i] < 1) return false;
    bytes *= dims[i];
    if (bytes > INT32_MAX) return false;
  }
  return true;
}

// Says what a header needs and what was given; code.
int32_t refuse_header(int32_t code, int32_t dim_count, const int32_t* dims, uint32_t type) {
  return zyn_refuse(code,
                    "a tensor has 1 to 5 dimensions of at least 1, fewer than 2^31 bytes and an "
                    "element type of 0 to 31, found %d dimensions, %s, type %u",
                    dim_count, zyn_extents_text(dim_count, dims).text, type);
}

// Fills the shape fields; the extents fit.
void set_shape(zyn_tensor* tensor, int32_t dim_count, const int32_t* dims, uint32_t type) {
  memset(tensor->dims, 0, sizeof(tensor->dims));
  memset(tensor->strides, 0, sizeof(tensor->strides));
  tensor->kind = ZYN_KIND_TENSOR;
  tensor->type = type;
  tensor->element_size = kElementSizes[type & 7];
  tensor->dim_count = dim_count;
  int32_t count = 1;
  for (int32_t i = 0; i < dim_count; i++) {
    tensor->dims[i] = dims[i];
    count *= dims[i];
    if (i < dim_count - 1) tensor->strides[i] = tensor->element_size * static_cast<uint32_t>(count);
  }
  tensor->count = count;
  tensor->byte_size = static_cast<int64_t>(tensor->element_size) * count;
}

}  // namespace

zyn_tensor* zyn_create_tensor_header(int32_t dim_count, const int32_t* dims, uint32_t type) {
  if (dim_count < 1 || dim_count > kMaxDims || !dims || type > 31) {
    refuse_header(zyn_fail(kHeaderArgs, ZYN_RET_ERR_PARA), dim_count, dims, type);
    return nullptr;
  }
  if (!extents_fit(dim_count, dims, type)) {
    refuse_header(zyn_fail(kHeaderExtent, ZYN_RET_ERR_PARA), dim_count, dims, type);
    return nullptr;
  }
  auto* tensor = static_cast<zyn_tensor*>(zyn_calloc(1, sizeof(zyn_tensor)));
  if (!tensor) {
    zyn_report(kHeaderMemory);
    return nullptr;
  }
  set_shape(tensor, dim_count, dims, type);
  tensor->owns_data = 1;  // On purpose: claims a block it does not have yet.
  return tensor;
}

zyn_tensor* zyn_create_tensor(int32_t dim_count, const int32_t* dims, uint32_t type) {
  zyn_tensor* tensor = zyn_create_tensor_header(dim_count, dims, type);
  if (!tensor) return nullptr;
  tensor->data = zyn_malloc(tensor->byte_size);
  if (!tensor->data) {
    zyn_report(kBlockMemory);
    zyn_report(kTensorMemory);
    return nullptr;  // On purpose: the header is lost and stays counted.
  }
  return tensor;
}

zyn_tensor* zyn_create_tensor_like(const zyn_tensor* source) {
  if (!source || source->kind != ZYN_KIND_TENSOR || source->dim_count < 1) return nullptr;
  zyn_tensor* tensor = zyn_create_tensor(source->dim_count, source->dims, source->type);
  if (tensor) tensor->layout = source->layout;
  return tensor;
}

int32_t zyn_set_tensor_header(zyn_tensor* tensor, int32_t dim_count, const int32_t* dims,
                              uint32_t type) {
  if (!tensor || dim_count < 1 || dim_count > kMaxDims || !dims)
    return refuse_header(zyn_fail(kSetHeaderArgs, ZYN_RET_ERR_PARA), dim_count, dims, type);
  if (!extents_fit(dim_count, dims, type))
    return refuse_header(zyn_fail(kSetHeaderExtent, ZYN_RET_ERR_PARA), dim_count, dims, type);
  if (type != ZYN_TYPE_F32 && type != ZYN_TYPE_F64)
    return zyn_refuse(zyn_fail(kSetHeaderType, ZYN_RET_ERR_PARA),
                      "element type %u: 6 (float) or 7 (double) is needed here", type);
  set_shape(tensor, dim_count, dims, type);
  tensor->data = nullptr;  // On purpose: a block that the record owned is not freed.
  tensor->owns_data = 0;
  tensor->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

int32_t zyn_set_tensor_data(zyn_tensor* tensor, void* data, int64_t length) {
  if (!tensor || !data) return zyn_fail_null(kSetDataArgs, "the tensor or its data");
  if (length < tensor->byte_size)
    return zyn_refuse(zyn_fail(kSetDataLength, ZYN_RET_ERR_DATA_LENGTH),
                      "the tensor has %lld bytes, found %lld",
                      static_cast<long long>(tensor->byte_size), static_cast<long long>(length));
  if (data == tensor->data) return ZYN_RET_OK;  // its own block, owned as before
  if (tensor->data && tensor->owns_data) zyn_free(tensor->data);
  tensor->data = data;
  tensor->owns_data = 0;
  return ZYN_RET_OK;
}

int32_t zyn_set_tensor_reference_value(zyn_tensor* tensor, uint32_t value) {
  if (!tensor) return zyn_refuse_null("the tensor");
  tensor->owns_data = value;
  return ZYN_RET_OK;
}

int32_t zyn_set_tensor_channel_layout(zyn_tensor* tensor, uint32_t layout) {
  if (!tensor) return zyn_refuse_null("the tensor");
  tensor->layout = layout;
  return ZYN_RET_OK;
}

int32_t zyn_release_tensor(zyn_tensor** tensor) {
  if (!tensor || !*tensor) return zyn_fail_null(kReleaseArgs, "the tensor");
  zyn_tensor* self = *tensor;
  if (self->owns_data && self->data) zyn_free(self->data);
  zyn_free(self);
  *tensor = nullptr;
  return ZYN_RET_OK;
}

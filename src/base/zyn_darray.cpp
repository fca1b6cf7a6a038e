// Growable arrays of fixed-size elements; room for 8 at first, then doubling.
#include "base/zyn_darray.h"

#include <stdlib.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"

namespace {

constexpr int64_t kFirstCapacity = 8;

int64_t element_size(const zyn_darray* array) {
  return static_cast<int64_t>(static_cast<uint32_t>(array->type.element_size));
}

char* slot_of(const zyn_darray* array, int64_t index) {
  return static_cast<char*>(array->data) + index * element_size(array);
}

int32_t make_room(zyn_darray* array) {
  if (array->count + 1 <= array->capacity) return ZYN_RET_OK;
  int64_t capacity = array->capacity ? array->capacity : kFirstCapacity / 2;
  do {
    if (!zyn_multiply(capacity, 2, &capacity)) return ZYN_RET_ERR_MEMORY;
  } while (array->count >= capacity);
  int64_t bytes = 0;
  if (!zyn_multiply(capacity, element_size(array), &bytes)) return ZYN_RET_ERR_MEMORY;
  void* data = zyn_grow(array->data, bytes);
  if (!data) return ZYN_RET_ERR_MEMORY;
  array->data = data;
  array->capacity = capacity;
  return ZYN_RET_OK;
}

}  // namespace

zyn_darray* zyn_create_darray(const zyn_darray_type* type) {
  if (!type) {
    zyn_refuse_null("the type of the elements");
    return nullptr;
  }
  auto* array = static_cast<zyn_darray*>(zyn_calloc(1, sizeof(zyn_darray)));
  if (array) array->type = *type;
  return array;
}

void zyn_darray_element_str_cpy(void* slot, const void* source, int64_t) {
  if (!slot) return;
  const char* text = source ? *static_cast<const char* const*>(source) : nullptr;
  *static_cast<char**>(slot) = text ? strdup(text) : nullptr;
}

void zyn_darray_element_str_free(void* slot) {
  if (slot) free(*static_cast<char**>(slot));
}

const zyn_darray_type zyn_darray_str_type = {sizeof(char*), 0, zyn_darray_element_str_cpy,
                                             zyn_darray_element_str_free};

int32_t zyn_darray_push(zyn_darray* array, const void* source) {
  if (const int32_t code = make_room(array)) return code;
  const int64_t index = array->count++;
  if (array->type.copy)
    array->type.copy(slot_of(array, index), source, index);
  else
    memcpy(slot_of(array, index), source, static_cast<size_t>(element_size(array)));
  return ZYN_RET_OK;
}

void zyn_darray_cut(zyn_darray* array, int64_t count) {
  if (array->type.free)
    for (int64_t i = count; i < array->count; i++) array->type.free(slot_of(array, i));
  array->count = count;
}

int32_t zyn_release_darray(zyn_darray** array) {
  if (!array || !*array) return ZYN_RET_ERR_PARA;
  zyn_darray* self = *array;
  if (self->capacity) {
    zyn_darray_cut(self, 0);
    zyn_free(self->data);
  }
  zyn_free(self);
  *array = nullptr;
  return ZYN_RET_OK;
}

// A growing list of plain records in a block of the library's allocator, freed at the end
// of the scope.
#pragma once

#include <string.h>

#include "base/zyn_memory.h"

template <typename T>
class zyn_list {
 public:
  zyn_list() = default;
  zyn_list(const zyn_list&) = delete;
  zyn_list& operator=(const zyn_list&) = delete;
  ~zyn_list() { zyn_free(data_); }

  int64_t count() const { return count_; }
  T* data() const { return data_; }
  T& operator[](int64_t i) const { return data_[i]; }
  void cut(int64_t count) { count_ = count; }
  // Hands the block out, to be freed with zyn_free.
  T* take() {
    T* data = data_;
    data_ = nullptr;
    count_ = capacity_ = 0;
    return data;
  }

  // Appends count records; false without memory, and nothing changes.
  bool append(const T* records, int64_t count) {
    if (!reserve(count)) return false;
    if (count > 0) memcpy(data_ + count_, records, static_cast<size_t>(count) * sizeof(T));
    count_ += count;
    return true;
  }
  bool push(const T& record) { return append(&record, 1); }
  // Makes room for more records behind the last.
  bool reserve(int64_t more) {
    int64_t needed = 0, bytes = 0;
    if (!zyn_sum(count_, more, &needed)) return false;
    if (needed <= capacity_) return true;
    const int64_t capacity = needed > 2 * capacity_ ? needed : 2 * capacity_;
    if (!zyn_multiply(capacity, static_cast<int64_t>(sizeof(T)), &bytes)) return false;
    void* grown = zyn_grow(data_, bytes);
    if (!grown) return false;
    data_ = static_cast<T*>(grown);
    capacity_ = capacity;
    return true;
  }

 private:
  T* data_ = nullptr;
  int64_t count_ = 0, capacity_ = 0;
};

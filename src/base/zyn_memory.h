// The library's allocator beyond its exported part: zeroing and growing
// allocations, the seam to the system allocator, guards for memory that lives
// within one function, and the checked size arithmetic that goes before them.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "zyncore.h"

// Where blocks come from and go to. Tests replace it to make allocations fail.
struct zyn_system_allocator {
  void* (*allocate)(size_t bytes);
  void (*release)(void* block);
};
// Installs an allocator, null the system's own; returns the one used before.
zyn_system_allocator zyn_set_system_allocator(const zyn_system_allocator* allocator);

// count * size bytes, all zero; null when the product is below 1, overflows or
// memory is short.
void* zyn_calloc(int64_t count, int64_t size);

// Makes block (null: a fresh one) hold at least bytes, keeping its content. Never
// shrinks: a block that is large enough comes back as it is. Null on failure, with
// the old block still valid.
void* zyn_grow(void* block, int64_t bytes);

// The size that a block was asked with; 0 for null.
int64_t zyn_block_bytes(const void* block);

// Blocks that one owner keeps instead of giving them back to the system, for work that needs
// the same memory again and again: while a zyn_recycling of it exists, what this thread frees
// goes onto its lists, and what it allocates comes from there as far as it can. Blocks are
// filled up to powers of two, so that they serve the next larger request too. Kept blocks are
// not counted as in use, and any of the library's blocks may be freed anywhere.
struct zyn_recycler {
  void* lists[64];  // by the binary logarithm of the bytes; a kept block begins with the next one
};
// Gives all kept blocks back to the system.
void zyn_empty_recycler(zyn_recycler* recycler);

// This thread's allocations use it (null: none) until the next call. What they used before.
zyn_recycler* zyn_use(zyn_recycler* now);
struct zyn_store;
zyn_store* zyn_use(zyn_store* now);

template <typename T>
class zyn_using {
 public:
  explicit zyn_using(T* now) : before_(zyn_use(now)) {}
  ~zyn_using() { zyn_use(before_); }
  zyn_using(const zyn_using&) = delete;
  zyn_using& operator=(const zyn_using&) = delete;

 private:
  T* before_;
};
using zyn_recycling = zyn_using<zyn_recycler>;

// Blocks that one owner makes to keep them, in common chunks on large pages where the system
// has such: on pages of 4 KB the weights of a network are more pages than a processor knows the
// places of. While a zyn_storing of a store exists (null: of none), this thread's allocations come
// from there. The blocks may be freed anywhere; a chunk goes back to the system with its last one.
inline constexpr int64_t kZynLargePage = int64_t{2} << 20;
struct zyn_store {
  int64_t chunk_bytes;  // at least, each
  void* chunk;          // the one with room, or null
};
// No more blocks come from what the store holds.
void zyn_close_store(zyn_store* store);

using zyn_storing = zyn_using<zyn_store>;

// *product = a * b; false when either is negative or the product does not fit.
inline bool zyn_multiply(int64_t a, int64_t b, int64_t* product) {
  return a >= 0 && b >= 0 && !__builtin_mul_overflow(a, b, product);
}

// *sum = a + b; false when either is negative or the sum does not fit.
inline bool zyn_sum(int64_t a, int64_t b, int64_t* sum) {
  return a >= 0 && b >= 0 && !__builtin_add_overflow(a, b, sum);
}

// Memory for count elements of T that is freed at the end of the scope; test it
// before use. take() hands the block out instead.
template <typename T>
class zyn_scratch {
 public:
  explicit zyn_scratch(int64_t count) {
    int64_t bytes = 0;
    if (count != 0 && zyn_multiply(count, static_cast<int64_t>(sizeof(T)), &bytes))
      block_ = static_cast<T*>(zyn_malloc(bytes));
  }
  // Takes a block over.
  explicit zyn_scratch(T* block) : block_(block) {}
  // Zeroed memory.
  static zyn_scratch zeroed(int64_t count) {
    if (count == 0) return zyn_scratch(static_cast<T*>(nullptr));
    return zyn_scratch(static_cast<T*>(zyn_calloc(count, static_cast<int64_t>(sizeof(T)))));
  }
  zyn_scratch(zyn_scratch&& other) : block_(other.take()) {}
  zyn_scratch(const zyn_scratch&) = delete;
  zyn_scratch& operator=(const zyn_scratch&) = delete;
  ~zyn_scratch() { zyn_free(block_); }

  explicit operator bool() const { return block_ != nullptr; }
  T* get() const { return block_; }
  T* operator->() const { return block_; }
  T& operator[](int64_t i) const { return block_[i]; }
  T* take() {
    T* block = block_;
    block_ = nullptr;
    return block;
  }

 private:
  T* block_ = nullptr;
};

// A record with a release function of its own (tensors, matrices, handles), let go
// at the end of the scope unless taken.
template <typename T, int32_t (*Release)(T**)>
class zyn_guard {
 public:
  explicit zyn_guard(T* record) : record_(record) {}
  zyn_guard(const zyn_guard&) = delete;
  zyn_guard& operator=(const zyn_guard&) = delete;
  ~zyn_guard() {
    if (record_) Release(&record_);
  }
  explicit operator bool() const { return record_ != nullptr; }
  T* get() const { return record_; }
  T* operator->() const { return record_; }
  T* take() {
    T* record = record_;
    record_ = nullptr;
    return record;
  }

 private:
  T* record_;
};

using zyn_tensor_guard = zyn_guard<zyn_tensor, zyn_release_tensor>;
using zyn_matrix_guard = zyn_guard<zyn_matrix, zyn_release_matrix>;

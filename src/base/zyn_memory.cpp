// The counted allocator. Every block is aligned to 32 bytes and preceded by two
// 64-bit words: [-1] the size asked for, [-2] the address the system gave, whose lowest bit
// is set where the block fills a power of two and so may be recycled; or that of a store's chunk,
// and the next bit is set.
#include "base/zyn_memory.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <new>

#include "base/zyn_explain.h"
#include "base/zyn_platform.h"

namespace {

constexpr uint64_t kOverhead = 48;  // two header words and the way to the next multiple of 32
constexpr uint64_t kLargest = UINT64_MAX - kOverhead;

void* system_allocate(size_t bytes) { return malloc(bytes); }
void system_release(void* block) { free(block); }

constexpr zyn_system_allocator kSystem = {system_allocate, system_release};
zyn_system_allocator allocator = kSystem;

// Graphs of several threads allocate at once; nothing is ordered by the count, so that
// relaxed operations suffice.
std::atomic<uint64_t> bytes_in_use{0};

// Null, explained.
void* no_block(int64_t size) {
  zyn_explain(
      size < 1 ? "a block has at least 1 byte, %lld were asked for" : "no memory for %lld bytes",
      static_cast<long long>(size));
  return nullptr;
}

uint64_t* header_of(void* block) { return static_cast<uint64_t*>(block); }

constexpr uint64_t kRecyclable = 1;  // addresses from a system are even
constexpr uint64_t kSmallestRecycled = 64;
constexpr uint64_t kLargestRecycled = uint64_t{1} << 62;

thread_local zyn_recycler* recycler = nullptr;

// The beginning of a chunk, which lies on a large page.
struct chunk {
  void* system_block;
  std::atomic<int64_t> holders;  // blocks, and the store while it has room
  uint64_t used, bytes;
};
constexpr uint64_t kStored = 2;
constexpr uint64_t kLine = 64;  // blocks of a chunk begin with one

thread_local zyn_store* store = nullptr;

void leave(chunk* c) {
  if (c->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) allocator.release(c->system_block);
}

// The list of blocks that hold so many bytes, at most kLargestRecycled.
int32_t list_of(uint64_t bytes) {
  return bytes <= kSmallestRecycled ? 6 : 64 - __builtin_clzll(bytes - 1);
}

// A block for bytes of which wanted are in use; tag goes into the header.
void* make_block(uint64_t bytes, uint64_t wanted, uint64_t tag) {
  void* system_block = allocator.allocate((bytes < kLargest ? bytes : kLargest) + kOverhead);
  if (!system_block) return nullptr;
  const uintptr_t address =
      (reinterpret_cast<uintptr_t>(system_block) + kOverhead - 1) & ~uintptr_t{31};
  uint64_t* block = reinterpret_cast<uint64_t*>(address);
  block[-1] = wanted;
  block[-2] = reinterpret_cast<uintptr_t>(system_block) | tag;
  return block;
}

// Opens a chunk with room for so many bytes. False without memory.
bool open_chunk(uint64_t needed) {
  constexpr uint64_t kPage = kZynLargePage;
  const auto usual = static_cast<uint64_t>(store->chunk_bytes);
  if (needed > kLargest - 3 * kPage) return false;
  const uint64_t bytes = ((needed > usual ? needed : usual) + kLine + kPage - 1) & ~(kPage - 1);
  void* system_block = allocator.allocate(bytes + kPage);
  if (!system_block) return false;
  void* memory = reinterpret_cast<void*>((reinterpret_cast<uintptr_t>(system_block) + kPage - 1) &
                                         ~uintptr_t{kPage - 1});
  zyn_platform_use_large_pages(memory, bytes);
  zyn_close_store(store);
  store->chunk = new (memory) chunk{system_block, {1}, kLine, bytes};
  return true;
}

void* stored_block(uint64_t wanted) {
  if (wanted > kLargest) return nullptr;
  const uint64_t needed = (wanted + kLine + kLine - 1) & ~(kLine - 1);
  auto* c = static_cast<chunk*>(store->chunk);
  if (!c || c->bytes - c->used < needed) {
    if (!open_chunk(needed)) return nullptr;
    c = static_cast<chunk*>(store->chunk);
  }
  auto* block = reinterpret_cast<uint64_t*>(reinterpret_cast<uint8_t*>(c) + c->used + kLine);
  c->used += needed;
  c->holders.fetch_add(1, std::memory_order_relaxed);
  block[-1] = wanted;
  block[-2] = reinterpret_cast<uintptr_t>(c) | kStored;
  return block;
}

void give_back(void* block) {
  if (header_of(block)[-2] & kStored)
    return leave(reinterpret_cast<chunk*>(static_cast<uintptr_t>(header_of(block)[-2] & ~kStored)));
  void* system_block =
      reinterpret_cast<void*>(static_cast<uintptr_t>(header_of(block)[-2] & ~kRecyclable));
  if (system_block) allocator.release(system_block);
}

// A kept block, or one that can be kept later.
void* recycled_block(uint64_t wanted) {
  void** list = &recycler->lists[list_of(wanted)];
  if (!*list) return make_block(uint64_t{1} << list_of(wanted), wanted, kRecyclable);
  void* block = *list;
  memcpy(list, block, sizeof(block));
  header_of(block)[-1] = wanted;
  return block;
}

}  // namespace

void zyn_empty_recycler(zyn_recycler* kept) {
  for (void*& list : kept->lists)
    while (void* block = list) {
      memcpy(&list, block, sizeof(block));
      give_back(block);
    }
}

zyn_recycler* zyn_use(zyn_recycler* now) {
  zyn_recycler* const before = recycler;
  recycler = now;
  return before;
}

zyn_store* zyn_use(zyn_store* now) {
  zyn_store* const before = store;
  store = now;
  return before;
}

void zyn_close_store(zyn_store* closed) {
  if (closed->chunk) leave(static_cast<chunk*>(closed->chunk));
  closed->chunk = nullptr;
}

zyn_system_allocator zyn_set_system_allocator(const zyn_system_allocator* replacement) {
  const zyn_system_allocator before = allocator;
  allocator = replacement ? *replacement : kSystem;
  return before;
}

void* zyn_malloc(int64_t size) {
  if (size < 1) return no_block(size);
  const uint64_t wanted = static_cast<uint64_t>(size);
  void* block = store                                    ? stored_block(wanted)
                : recycler && wanted <= kLargestRecycled ? recycled_block(wanted)
                                                         : make_block(wanted, wanted, 0);
  if (!block) return no_block(size);
  bytes_in_use.fetch_add(wanted, std::memory_order_relaxed);
  return block;
}

void zyn_free(void* block) {
  if (!block) return;
  const uint64_t* header = header_of(block);
  bytes_in_use.fetch_sub(header[-1], std::memory_order_relaxed);
  if (!recycler || !(header[-2] & kRecyclable)) return give_back(block);
  void** list = &recycler->lists[list_of(header[-1])];
  memcpy(block, list, sizeof(block));
  *list = block;
}

uint64_t zyn_get_current_memory_size_occupation(void) {
  return bytes_in_use.load(std::memory_order_relaxed);
}

int64_t zyn_block_bytes(const void* block) {
  return block ? static_cast<int64_t>(static_cast<const uint64_t*>(block)[-1]) : 0;
}

void* zyn_calloc(int64_t count, int64_t size) {
  int64_t bytes = 0;
  if (!zyn_multiply(count, size, &bytes)) return no_block(INT64_MAX);
  void* block = zyn_malloc(bytes);
  if (block) memset(block, 0, static_cast<size_t>(bytes));
  return block;
}

void* zyn_grow(void* block, int64_t bytes) {
  if (!block) return zyn_malloc(bytes);
  const uint64_t held = header_of(block)[-1];
  if (bytes < 1 || held >= static_cast<uint64_t>(bytes)) return block;
  void* grown = zyn_malloc(bytes);
  if (!grown) return nullptr;
  memcpy(grown, block, held);
  zyn_free(block);
  return grown;
}

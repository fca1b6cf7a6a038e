// Blocks without slack, guard pages and failing requests below the library's allocator.
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "base/zyn_memory.h"
#include "support/fuzz.h"

namespace zyn_fuzz {
namespace {

// The library asks for this much more than a block has, and puts the block at the last
// multiple of 32 bytes among the first ones.
constexpr size_t kOverhead = 48;
constexpr size_t kLead = 16;  // an address 16 bytes before a multiple of 32: this much is used
constexpr size_t kPage = 4096;
constexpr size_t kDirty = 1 << 16;  // so much of a block is full of rubbish: more takes long
constexpr uint8_t kRubbish = 0xCD;

struct Block {
  uint8_t *base, *address;
  size_t bytes;   // of the library's block
  size_t mapped;  // pages before the guard page; 0: from the heap
};
struct State {
  bool pages, lasting, failed;
  int64_t bound, machine, seen, fail, failures;
};
State state;
// Kept from input to input, as their making takes long.
std::vector<Block> live;                   // a block's number lies before its address
std::vector<std::vector<uint8_t*>> spare;  // mapped pages, by their number

uint8_t* map(size_t pages) {
  if (pages < spare.size() && !spare[pages].empty()) {
    uint8_t* base = spare[pages].back();
    spare[pages].pop_back();
    return base;
  }
  const size_t bytes = pages * kPage;
#ifdef _WIN32
  void* base = VirtualAlloc(nullptr, bytes + kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  DWORD old = 0;
  check(base && VirtualProtect(static_cast<uint8_t*>(base) + bytes, kPage, PAGE_NOACCESS, &old),
        "the system has pages");
#else
  void* base = mmap(nullptr, bytes + kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  check(base != MAP_FAILED && mprotect(base, bytes, PROT_READ | PROT_WRITE) == 0,
        "the system has pages");
#endif
  return static_cast<uint8_t*>(base);
}

void unmap(const Block& block) {
  if (block.mapped < 64) {
    if (spare.size() <= block.mapped) spare.resize(block.mapped + 1);
    return spare[block.mapped].push_back(block.base);
  }
#ifdef _WIN32
  VirtualFree(block.base, 0, MEM_RELEASE);
#else
  munmap(block.base, block.mapped * kPage + kPage);
#endif
}

void* aligned(size_t bytes) {
#ifdef _WIN32
  return _aligned_malloc(bytes, 32);
#else
  void* block = nullptr;
  return posix_memalign(&block, 32, bytes) ? nullptr : block;
#endif
}

void* allocate(size_t system_bytes) {
  State& s = state;
  const size_t bytes = system_bytes - kOverhead;
  const auto wanted = static_cast<int64_t>(bytes);
  if (bytes > static_cast<uint64_t>(INT64_MAX) || wanted > s.bound) {
    fprintf(stderr, "request of %zu bytes, bound %lld\n", bytes, static_cast<long long>(s.bound));
    broken("no request above what the shapes need");
  }
  s.seen++;
  const bool fails = s.fail > 0 && (s.lasting ? s.seen >= s.fail : s.seen == s.fail);
  if (fails || wanted > s.machine) {
    s.failed = true;
    s.failures++;
    return nullptr;
  }
  Block block = {nullptr, nullptr, bytes, 0};
  const size_t whole = s.pages ? (bytes + 31) / 32 * 32 : bytes;
  if (s.pages) {
    block.mapped = (whole + 2 * kLead + kPage - 1) / kPage;
    block.base = map(block.mapped);
    block.address = block.base + block.mapped * kPage - whole - kLead;
    memset(block.address + kLead + bytes, kRubbish, whole - bytes);
  } else {
    block.base = static_cast<uint8_t*>(aligned(whole + 2 * kLead));
    check(block.base != nullptr, "the system has memory");
    block.address = block.base + kLead;
  }
  memset(block.address, kRubbish, std::min(kLead + bytes, kDirty));
  const size_t number = live.size();
  memcpy(block.address - kLead, &number, sizeof(number));
  live.push_back(block);
  return block.address;
}

void release(void* address) {
  size_t number;
  memcpy(&number, static_cast<uint8_t*>(address) - kLead, sizeof(number));
  check(number < live.size() && live[number].address == address, "only live blocks are freed");
  const Block block = live[number];
  live[number] = live.back();
  memcpy(live[number].address - kLead, &number, sizeof(number));
  live.pop_back();
  if (block.mapped) {
    const uint8_t* end = block.base + block.mapped * kPage;
    for (const uint8_t* p = block.address + kLead + block.bytes; p < end; p++)
      check(*p == kRubbish, "nothing is written behind a block");
    return unmap(block);
  }
#ifdef _WIN32
  _aligned_free(block.base);
#else
  free(block.base);
#endif
}

}  // namespace

Memory::Memory(bool pages, int64_t bound, int64_t machine)
    : before_(zyn_get_current_memory_size_occupation()) {
  static const bool all = getenv("ZYN_GUARD_PAGES") != nullptr;
  state = {pages || all, false, false, bound, machine, 0, 0, 0};
  const zyn_system_allocator hooks = {allocate, release};
  zyn_set_system_allocator(&hooks);
}

Memory::~Memory() {
  for (const Block& block : live) fprintf(stderr, "block of %zu bytes is left\n", block.bytes);
  check(zyn_get_current_memory_size_occupation() == before_, "the byte counter is back");
  check(live.empty(), "every block is freed");
  zyn_set_system_allocator(nullptr);
}

void Memory::bound(int64_t bytes) { state.bound = bytes; }

void Memory::fail(int64_t n, bool lasting) {
  state.seen = 0;
  state.failed = false;
  state.fail = n;
  state.lasting = lasting;
}

bool Memory::failed() { return state.failed; }

void Memory::hand_back(int64_t bytes) {
  for (size_t i = live.size(); i-- > 0 && state.failures > 0;)
    if (live[i].bytes == static_cast<size_t>(bytes)) {
      zyn_free(live[i].address + kLead);
      state.failures--;
    }
}

const char* scratch_file(const void* content, size_t bytes) {
  static char name[64];
  if (!name[0]) {
    const char* memory = access("/dev/shm", W_OK) ? "" : "/dev/shm/";
    snprintf(name, sizeof(name), "%szyn-fuzz-%d.bmp", memory, static_cast<int>(getpid()));
    atexit([] { unlink(name); });
  }
  if (content) {
    FILE* stream = fopen(name, "wb");
    check(stream && fwrite(content, 1, bytes, stream) == bytes && fclose(stream) == 0,
          "the system has files");
  }
  return name;
}

}  // namespace zyn_fuzz

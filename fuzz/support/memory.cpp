// Blocks without slack, guard pages and failing requests below the library's allocator.
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif
#include <unistd.h>

#include <unordered_map>

#include "base/zyn_memory.h"
#include "support/fuzz.h"

namespace zyn_fuzz {
namespace {

// The library asks for this much more than a block has, and puts the block at the last
// multiple of 32 bytes among the first ones.
constexpr size_t kOverhead = 48;
constexpr size_t kLead = 16;  // an address 16 bytes before a multiple of 32: this much is used
constexpr size_t kPage = 4096;
constexpr uint8_t kRubbish = 0xCD;

struct Block {
  uint8_t* base;
  size_t bytes;   // of the library's block
  size_t mapped;  // before the guard page; 0: from the heap
};
struct State {
  std::unordered_map<void*, Block> live;
  bool pages, lasting, failed;
  int64_t bound, machine, largest, seen, fail, failures;
};
State* state = nullptr;

uint8_t* map(size_t bytes) {
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

void unmap(uint8_t* base, size_t bytes) {
#ifdef _WIN32
  (void)bytes;
  VirtualFree(base, 0, MEM_RELEASE);
#else
  munmap(base, bytes + kPage);
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
  State& s = *state;
  const size_t bytes = system_bytes - kOverhead;
  const auto wanted = static_cast<int64_t>(bytes);
  if (bytes > static_cast<uint64_t>(INT64_MAX) || wanted > s.bound) {
    fprintf(stderr, "request of %zu bytes, bound %lld\n", bytes, static_cast<long long>(s.bound));
    broken("no request above what the shapes need");
  }
  if (wanted > s.largest) s.largest = wanted;
  s.seen++;
  const bool fails = s.fail > 0 && (s.lasting ? s.seen >= s.fail : s.seen == s.fail);
  if (fails || wanted > s.machine) {
    s.failed = true;
    s.failures++;
    return nullptr;
  }
  Block block = {nullptr, bytes, 0};
  uint8_t* first;
  if (s.pages) {
    const size_t whole = (bytes + 31) / 32 * 32;
    block.mapped = (whole + 2 * kLead + kPage - 1) / kPage * kPage;
    block.base = map(block.mapped);
    memset(block.base, kRubbish, block.mapped);
    first = block.base + block.mapped - whole;
  } else {
    block.base = static_cast<uint8_t*>(aligned(bytes + 2 * kLead));
    check(block.base != nullptr, "the system has memory");
    memset(block.base, kRubbish, bytes + 2 * kLead);
    first = block.base + 2 * kLead;
  }
  s.live[first - kLead] = block;
  return first - kLead;
}

void release(void* address) {
  const auto at = state->live.find(address);
  check(at != state->live.end(), "only live blocks are freed");
  const Block block = at->second;
  state->live.erase(at);
  if (block.mapped) {
    const uint8_t* end = block.base + block.mapped;
    for (const uint8_t* p = static_cast<uint8_t*>(address) + kLead + block.bytes; p < end; p++)
      check(*p == kRubbish, "nothing is written behind a block");
    unmap(block.base, block.mapped);
  } else {
#ifdef _WIN32
    _aligned_free(block.base);
#else
    free(block.base);
#endif
  }
}

}  // namespace

Memory::Memory(bool pages, int64_t bound, int64_t machine)
    : before_(zyn_get_current_memory_size_occupation()) {
  state = new State{{}, pages, false, false, bound, machine, 0, 0, 0, 0};
  const zyn_system_allocator hooks = {allocate, release};
  zyn_set_system_allocator(&hooks);
}

Memory::~Memory() {
  for (const auto& [address, block] : state->live)
    fprintf(stderr, "block of %zu bytes is left\n", block.bytes);
  check(zyn_get_current_memory_size_occupation() == before_, "the byte counter is back");
  check(state->live.empty(), "every block is freed");
  zyn_set_system_allocator(nullptr);
  delete state;
  state = nullptr;
}

void Memory::bound(int64_t bytes) { state->bound = bytes; }

void Memory::fail(int64_t n, bool lasting) {
  state->seen = 0;
  state->failed = false;
  state->fail = n;
  state->lasting = lasting;
}

bool Memory::failed() { return state->failed; }

int64_t Memory::largest() { return state->largest; }

void Memory::hand_back(int64_t bytes) {
  for (auto at = state->live.begin(); at != state->live.end() && state->failures > 0;) {
    const auto next = std::next(at);
    if (at->second.bytes == static_cast<size_t>(bytes)) {
      zyn_free(static_cast<uint8_t*>(at->first) + kLead);
      state->failures--;
    }
    at = next;
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

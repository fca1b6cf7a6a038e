// Buffers that show out-of-bounds use: inputs end at an inaccessible page, outputs
// are surrounded by guard bytes. Also the tests' random numbers.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#ifdef _WIN32
#include <windows.h>
// Its macros from the days of segments would take these names from the tests.
#undef near
#undef far
#undef NEAR
#undef FAR
#define NEAR
#define FAR
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <map>
#include <vector>

namespace zyn_test {

// Whether two blocks hold the same bytes: of floats, -0 is not 0 here, and NaN is itself.
inline bool same_bytes(const void* a, const void* b, size_t bytes) {
  return memcmp(a, b, bytes) == 0;
}

// Pages before an inaccessible one. Those that are given back serve again: systems take long to
// protect a page.
class GuardedPages {
 public:
  static constexpr size_t kPage = 4096;

  static uint8_t* take(size_t bytes) {  // whole pages
    std::vector<uint8_t*>& spare = of(bytes);
    if (!spare.empty()) {
      uint8_t* const base = spare.back();
      spare.pop_back();
      return base;
    }
#ifdef _WIN32
    auto* const base = static_cast<uint8_t*>(
        VirtualAlloc(nullptr, bytes + kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD old = 0;
    VirtualProtect(base + bytes, kPage, PAGE_NOACCESS, &old);
#else
    auto* const base = static_cast<uint8_t*>(
        mmap(nullptr, bytes + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(base + bytes, kPage, PROT_NONE);
#endif
    return base;
  }
  static void give(uint8_t* base, size_t bytes) {
    constexpr size_t kMostKept = 16 * kPage;
    if (bytes <= kMostKept) return of(bytes).push_back(base);
#ifdef _WIN32
    VirtualFree(base, 0, MEM_RELEASE);
#else
    munmap(base, bytes + kPage);
#endif
  }

 private:
  static std::vector<uint8_t*>& of(size_t bytes) {
    static std::map<size_t, std::vector<uint8_t*>> spare;
    return spare[bytes];
  }
};

// count elements of T whose last byte is the last one before an inaccessible page;
// the bytes before them hold a pattern that the destructor checks.
template <typename T>
class PageEnd {
 public:
  explicit PageEnd(size_t count) : count_(count) {
    const size_t bytes = count * sizeof(T);
    pages_ = (bytes + kPage - 1) / kPage * kPage + kPage;
    base_ = GuardedPages::take(pages_);
    memset(base_, kPattern, pages_);
    data_ = reinterpret_cast<T*>(base_ + pages_ - bytes);
  }
  ~PageEnd() {
    const uint8_t* p = base_;
    while (p < reinterpret_cast<uint8_t*>(data_) && *p == kPattern) p++;
    EXPECT_EQ(p, reinterpret_cast<uint8_t*>(data_)) << "a byte before the buffer was written";
    GuardedPages::give(base_, pages_);
  }
  PageEnd(const PageEnd&) = delete;
  PageEnd& operator=(const PageEnd&) = delete;

  T* data() { return data_; }
  const T* data() const { return data_; }
  size_t size() const { return count_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T* begin() { return data_; }
  T* end() { return data_ + count_; }

 private:
  static constexpr size_t kPage = GuardedPages::kPage;
  static constexpr uint8_t kPattern = 0xA5;
  size_t count_;
  size_t pages_;
  uint8_t* base_;
  T* data_;
};

// splitmix64: small, seedable, the same everywhere.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
  }
  // low to high, both included.
  int integer(int low, int high) {
    return low + static_cast<int>(next() % (uint64_t{1} + high - low));
  }
  // low to high, evenly.
  float real(float low, float high) {
    return low + (high - low) * static_cast<float>(next() >> 40) * (1.0f / 16777216.0f);
  }

 private:
  uint64_t state_;
};

// ZYN_SOAK=1 asks for the full number of random cases instead of a part of them.
inline int soak(int quick, int full) {
  const char* text = getenv("ZYN_SOAK");
  return text && *text && *text != '0' ? full : quick;
}

}  // namespace zyn_test

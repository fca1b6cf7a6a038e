// What the fuzz targets share: values read from an input's bytes, checks that end the
// process, and the allocator that the library stands on while a target runs.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zyncore.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace zyn_fuzz {

[[noreturn]] inline void broken(const char* promise) {
  fprintf(stderr, "broken promise: %s\n", promise);
  abort();
}

inline void check(bool kept, const char* promise) {
  if (!kept) broken(promise);
}

// An input's bytes from front to back; zeros follow behind the last one.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}
  bool empty() const { return left_ == 0; }
  size_t left() const { return left_; }
  uint32_t byte() {
    if (left_ == 0) return 0;
    left_--;
    return *data_++;
  }
  bool one_in(uint32_t n) { return byte() % n == n - 1; }
  int32_t signed16() {
    const uint32_t low = byte();
    return static_cast<int16_t>(low | byte() << 8);
  }
  uint32_t word() {
    const uint32_t low = static_cast<uint16_t>(signed16());
    return low | static_cast<uint32_t>(signed16()) << 16;
  }
  // low to high, both included; one byte where that is enough, else four.
  int32_t integer(int32_t low, int32_t high) {
    const uint32_t range = static_cast<uint32_t>(high) - static_cast<uint32_t>(low) + 1;
    const uint32_t value = range && range <= 256 ? byte() : word();
    return static_cast<int32_t>(static_cast<uint32_t>(low) + (range ? value % range : value));
  }
  template <typename T, size_t n>
  T pick(const T (&values)[n]) {
    return values[byte() % n];
  }
  // A count where the sizes of things go wrong: around zero, around powers of two, any.
  int32_t extreme() {
    const uint32_t kind = byte();
    if (kind < 64) return static_cast<int32_t>(kind) - 4;
    if (kind == 64) return static_cast<int32_t>(word());
    const uint32_t power = 1u << kind % 32;
    return static_cast<int32_t>((kind & 128 ? power : 0u - power) + kind / 32 % 4 - 1u);
  }
  // Mostly a number of few digits, else any float: NaN, infinity and denormals too.
  float real() {
    const int32_t value = signed16();
    if (value % 16 != 15) return static_cast<float>(value) / 1024.0f;
    const uint32_t bits = word();
    float any;
    memcpy(&any, &bits, sizeof(any));
    return any;
  }

 private:
  const uint8_t* data_;
  size_t left_;
};

// The library's memory during one input. Every block ends where the program's memory
// ends: a sanitizer sees the first byte behind it. With pages, an inaccessible page
// follows at the next multiple of 32 bytes, and what lies between is looked after when
// the block goes: that shows masked vector accesses too, which no sanitizer sees.
// Blocks are full of rubbish. The end of the scope checks that all of them went.
class Memory {
 public:
  // No single request may be above bound bytes; above machine it finds no memory.
  explicit Memory(bool pages = false, int64_t bound = int64_t{1} << 24,
                  int64_t machine = int64_t{1} << 26);
  ~Memory();
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  static void bound(int64_t bytes);
  // The n-th request from now on (1 is the next) fails, lasting: all later ones too;
  // n = 0: none.
  static void fail(int64_t n, bool lasting);
  static bool failed();  // whether one did since fail()
  // Hands back blocks of this many bytes that calls lost on purpose, one for each
  // request that failed.
  static void hand_back(int64_t bytes);

 private:
  uint64_t before_;
};

// A file of this process, in memory where the system has a place for it; with content
// when one is given.
const char* scratch_file(const void* content = nullptr, size_t bytes = 0);

}  // namespace zyn_fuzz

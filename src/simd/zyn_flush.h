// Numbers below the normal range take the processor a hundred times as long as others.
#pragma once

#include <immintrin.h>

// While it lives, the calling thread's vector arithmetic takes such numbers for 0 and gives 0
// where one would result; then the thread's state is what it was.
class zyn_flush_denormals {
 public:
  zyn_flush_denormals() : state_(_mm_getcsr()) {
    constexpr unsigned kResults = 0x8000, kOperands = 0x0040;
    _mm_setcsr(state_ | kResults | kOperands);
  }
  zyn_flush_denormals(const zyn_flush_denormals&) = delete;
  zyn_flush_denormals& operator=(const zyn_flush_denormals&) = delete;
  ~zyn_flush_denormals() { _mm_setcsr(state_); }

 private:
  unsigned state_;
};

// x, which is 0 below the normal range while a zyn_flush_denormals lives: for values that
// reach an output without arithmetic.
inline float zyn_flushed(float x) { return 0.0f + x; }

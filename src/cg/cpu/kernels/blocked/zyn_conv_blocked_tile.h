// What the blocked micro-kernels share: the epilogue of a tile in registers, the split of
// a row into tiles of nearly equal size, and pointers that keep their registers.
#pragma once

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"

// Makes a pointer's origin unknown. Where several pointers of a loop come from one base,
// gcc computes every address as that base plus an offset of its own: offsets beyond the
// registers go to the stack, and multiply-adds with indexed operands take two issue slots.
inline void zyn_own_pointer(const float*& pointer) { __asm__("" : "+r"(pointer)); }

// The epilogue for a run of up to 64 output channels. Bias and ReLU are applied to
// values in registers without a branch: where there is no bias -0 is added, which
// changes no value, and where there is no ReLU the floor is -infinity. The other
// activations follow as a pass over values that have just been stored.
class zyn_tile_epilogue {
 public:
  zyn_tile_epilogue(const zyn_conv_epilogue* epilogue, int32_t channel, int32_t channels) {
    const bool relu = epilogue && epilogue->activation == ZYN_EPILOGUE_RELU;
    floor_ = relu ? 0.0f : -__builtin_inff();
    if (epilogue && !relu) pass_ = epilogue->activation;
    const float* bias = epilogue && epilogue->bias ? epilogue->bias + channel : nullptr;
    for (int32_t i = 0; i < channels; i++) bias_[i] = bias ? bias[i] : -0.0f;
  }

  // The bias of vector number block, Width channels.
  template <int Width>
  typename zyn_block_lanes<Width>::type bias(int block) const {
    return zyn_block_lanes<Width>::load(bias_ + block * Width);
  }
  const float* biases() const { return bias_; }
  // The lower bound of every value.
  template <int Width>
  typename zyn_block_lanes<Width>::type floor() const {
    return zyn_block_lanes<Width>::spread(&floor_);
  }
  template <int Width>
  typename zyn_block_lanes<Width>::type apply(typename zyn_block_lanes<Width>::type value,
                                              int block) const {
    using lanes = zyn_block_lanes<Width>;
    return lanes::max(floor<Width>(), lanes::add(value, bias<Width>(block)));
  }

  // The pass over count values, where the activation needs one.
  void finish(float* values, int64_t count) const {
    if (pass_ != ZYN_EPILOGUE_NONE) zyn_conv_finish_rows(values, 1, count, {nullptr, pass_});
  }
  // The same over blocks blocks of count values, apart floats from each other.
  void finish(float* values, int64_t count, int32_t blocks, int64_t apart) const {
    for (int32_t b = 0; b < blocks; b++) finish(values + b * apart, count);
  }

 private:
  alignas(64) float bias_[64];
  float floor_;
  int32_t pass_ = ZYN_EPILOGUE_NONE;
};

// Calls body.run<size>(first, count) for a size known at run time, 1 to Most.
template <int Most, typename Body>
inline void zyn_run_tiles(const Body& body, int64_t size, int64_t first, int64_t count) {
  if constexpr (Most > 1) {
    if (size < Most) {
      zyn_run_tiles<Most - 1>(body, size, first, count);
      return;
    }
  }
  body.template run<Most>(first, count);
}

// Covers [first, end) with tiles of at most Most pixels, all within one of each other, so
// that no tile is left with too few accumulators. Tiles of one size follow in one call.
template <int Most, typename Body>
inline void zyn_balanced_tiles(int64_t first, int64_t end, const Body& body) {
  if (first >= end) return;
  const auto pixels = static_cast<uint32_t>(end - first);  // 32-bit divisions are the fast ones
  const uint32_t tiles = (pixels + Most - 1) / Most;
  const int64_t small = pixels / tiles, larger = pixels % tiles;
  // One call in a loop, so that the tiles' code is there once.
  for (int64_t size = small + 1; size >= small; size--) {
    const int64_t count = size > small ? larger : tiles - larger;
    if (count > 0) zyn_run_tiles<Most>(body, size, first, count);
    first += count * size;
  }
}

// What the blocked micro-kernels share: the epilogue of a tile in registers and the
// split of a row into tiles of nearly equal size.
#pragma once

#include "cg/cpu/kernels/zyn_conv_blocked.h"

// The epilogue for a run of up to 16 output channels. Bias and ReLU are applied to
// values in registers without a branch: where there is no bias -0 is added, which
// changes no value, and where there is no ReLU the floor is -infinity. The other
// activations follow as a pass over values that have just been stored.
class zyn_tile_epilogue {
 public:
  zyn_tile_epilogue(const zyn_conv_epilogue* epilogue, int32_t channel, int32_t channels) {
    const bool relu = epilogue && epilogue->activation == ZYN_CONV_RELU;
    floor_ = relu ? 0.0f : -__builtin_inff();
    if (epilogue && !relu) pass_ = epilogue->activation;
    const float* bias = epilogue && epilogue->bias ? epilogue->bias + channel : nullptr;
    for (int32_t i = 0; i < channels; i++) bias_[i] = bias ? bias[i] : -0.0f;
  }

  // value holds output block number block of Width channels.
  template <int Width>
  typename zyn_lanes<Width>::type apply(typename zyn_lanes<Width>::type value, int block) const {
    using lanes = zyn_lanes<Width>;
    return lanes::max(lanes::spread(&floor_),
                      lanes::add(value, lanes::load(bias_ + block * Width)));
  }

  // The pass over count values, where the activation needs one.
  void finish(float* values, int64_t count) const {
    if (pass_ != ZYN_CONV_NONE) zyn_activate_values(values, count, pass_);
  }

 private:
  alignas(32) float bias_[16];
  float floor_;
  zyn_conv_activation pass_ = ZYN_CONV_NONE;
};

// Calls body.run<N>(x) over [first, end) with N at most Pixels and all N within one of
// each other, so that no tile is left with too few accumulators.
template <int Pixels, typename Body>
inline void zyn_balanced_tiles(int64_t first, int64_t end, const Body& body) {
  int64_t tiles = (end - first + Pixels - 1) / Pixels;
  while (first < end) {
    const int64_t size = (end - first + tiles - 1) / tiles;
    switch (size) {
      case 1:
        body.template run<1>(static_cast<int32_t>(first));
        break;
      case 2:
        body.template run<2>(static_cast<int32_t>(first));
        break;
      case 3:
        body.template run<3>(static_cast<int32_t>(first));
        break;
      case 4:
        body.template run<4>(static_cast<int32_t>(first));
        break;
      case 5:
        body.template run<5>(static_cast<int32_t>(first));
        break;
      default:
        body.template run<6>(static_cast<int32_t>(first));
        break;
    }
    static_assert(Pixels == 6, "the cases above cover tiles of 1 to 6 pixels");
    first += size;
    tiles--;
  }
}

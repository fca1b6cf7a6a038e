// The epilogue, bias and activation: what happens to the finished sums of a convolution.
// Kernels apply it to a tile or row that is still in registers, or to rows in place; both
// ways do the same arithmetic in the same order, the bias first.
#pragma once

#include <stdint.h>

#include "simd/zyn_block_lanes.h"

struct zyn_conv_epilogue {
  const float* bias;   // one per output channel, or null
  int32_t activation;  // ZYN_EPILOGUE_*
};
enum {
  ZYN_EPILOGUE_NONE = 0,
  ZYN_EPILOGUE_RELU = 1,
  ZYN_EPILOGUE_HARD_SWISH = 2,
  ZYN_EPILOGUE_HARD_SIGMOID = 4
};

template <int kActivation, int Width = 8>
inline typename zyn_block_lanes<Width>::type zyn_activate(typename zyn_block_lanes<Width>::type y) {
  using lanes = zyn_block_lanes<Width>;
  if (kActivation == ZYN_EPILOGUE_RELU) return lanes::max(lanes::zero(), y);  // NaN stays NaN
  if (kActivation == ZYN_EPILOGUE_HARD_SWISH || kActivation == ZYN_EPILOGUE_HARD_SIGMOID) {
    const auto shifted = lanes::max(lanes::add(y, lanes::spread(3.0f)), lanes::zero());
    const auto gate = lanes::min(shifted, lanes::spread(6.0f));
    const auto scaled = kActivation == ZYN_EPILOGUE_HARD_SWISH ? lanes::multiply(y, gate) : gate;
    return lanes::multiply(scaled, lanes::spread(1.0f / 6.0f));
  }
  return y;
}

// Calls action with the activation as a template value: action.template run<code>().
template <typename Action>
[[gnu::always_inline]] inline void zyn_with_activation(int32_t activation, const Action& action) {
  switch (activation) {
    case ZYN_EPILOGUE_RELU:
      return action.template run<ZYN_EPILOGUE_RELU>();
    case ZYN_EPILOGUE_HARD_SWISH:
      return action.template run<ZYN_EPILOGUE_HARD_SWISH>();
    case ZYN_EPILOGUE_HARD_SIGMOID:
      return action.template run<ZYN_EPILOGUE_HARD_SIGMOID>();
    default:
      return action.template run<ZYN_EPILOGUE_NONE>();
  }
}

// The epilogue over rows rows of count floats, in place; row r has bias r.
void zyn_conv_finish_rows(float* data, int64_t rows, int64_t count,
                          const zyn_conv_epilogue& epilogue);

// Dense tiles: Blocks x 8 output channels by Pixels pixels. One input value is spread over a
// vector and multiplied by the weights of 8 output channels. Tiles of a line are nearly equal, so
// that none has few sums.
#include "cg/cpu/kernels/general/zyn_general_tile.h"

#include <utility>

#include "simd/zyn_block_lanes.h"

namespace {

constexpr int64_t kLanes = 8;  // of a block

// The places of a tile's pixels: one pointer for every four, and distances whose origin the
// compiler does not see. Else it makes an offset for every pixel and channel, more than there
// are registers.
template <int Pixels>
struct pixel_places {
  static constexpr int kPointers = (Pixels + 3) / 4;
  const char* four[kPointers];
  int64_t step, steps3;  // bytes

  [[gnu::always_inline]] pixel_places(const float* first, int64_t floats) {
    step = floats * static_cast<int64_t>(sizeof(float));
    steps3 = 3 * step;
    __asm__("" : "+r"(step), "+r"(steps3));
    const char* p = reinterpret_cast<const char*>(first);
    ZYN_UNROLL for (int i = 0; i < kPointers; i++, p += 4 * step) {
      four[i] = p;
      __asm__("" : "+r"(four[i]));
    }
  }
  [[gnu::always_inline]] void next() {
    ZYN_UNROLL for (int i = 0; i < kPointers; i++) {
      four[i] += sizeof(float);
      __asm__("" : "+r"(four[i]));
    }
  }
  [[gnu::always_inline]] const float* at(int i) const {
    const char* p = four[i / 4];
    return reinterpret_cast<const float*>(i % 4 == 0   ? p
                                          : i % 4 == 1 ? p + step
                                          : i % 4 == 2 ? p + 2 * step
                                                       : p + steps3);
  }
};

// sum += a * b in the form that adds to its own register: left to choose, the compiler
// overwrites a or b, moves sums about and runs out of registers.
template <typename Vector>
[[gnu::always_inline]] inline void add_product(Vector& sum, Vector a, Vector b) {
  __asm__("vfmadd231ps %2, %1, %0" : "+v"(sum) : "v"(a), "v"(b));
}

template <int Blocks, int Pixels>
struct sums {
  static constexpr int kWidth = Blocks == 1 ? 8 : kZynVectorFloats;
  static constexpr int kVectors = Blocks * 8 / kWidth;
  using lanes = zyn_block_lanes<kWidth>;
  using vector = typename lanes::type;
  vector value[kVectors][Pixels];

  // From one vector's first block to the next one's.
  static int64_t apart(const zyn_general_lines& l) { return kWidth / kLanes * l.out_block; }

  void start(const zyn_general_lines& l, const float* out) {
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) value[v][i] =
          l.first ? lanes::load(l.bias + v * kWidth)
                  : zyn_load_blocks<kWidth>(out + v * apart(l) + i * l.out_step, l.out_block);
    }
  }
  // Whichever there are fewer of, weights or pixels, stay in registers.
  [[gnu::always_inline]] void add(const pixel_places<Pixels>& in, const float* weights) {
    if constexpr (kVectors <= Pixels) {
      vector weight[kVectors];
      ZYN_UNROLL for (int v = 0; v < kVectors; v++) weight[v] = lanes::load(weights + v * kWidth);
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
        const vector pixel = lanes::spread(in.at(i));
        ZYN_UNROLL for (int v = 0; v < kVectors; v++) add_product(value[v][i], pixel, weight[v]);
      }
    } else {
      vector pixel[Pixels];
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) pixel[i] = lanes::spread(in.at(i));
      ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
        const vector weight = lanes::load(weights + v * kWidth);
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) add_product(value[v][i], pixel[i], weight);
      }
    }
  }
  // A tap's 8 inputs.
  [[gnu::always_inline]] void add_block(const float* first, int64_t step, const float* weights) {
    pixel_places<Pixels> in(first, step);
    ZYN_UNROLL for (int i = 0; i < kLanes; i++) {
      add(in, weights + i * Blocks * kLanes);
      in.next();
    }
  }
  void finish(const zyn_general_lines& l, float* out) const {
    const vector floor = lanes::spread(&l.floor);
    ZYN_UNROLL for (int v = 0; v < kVectors; v++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++)
          zyn_store_blocks<kWidth>(out + v * apart(l) + i * l.out_step, l.out_block,
                                   lanes::max(floor, value[v][i]));  // NaN stays NaN
    }
  }
};

template <int Blocks, int Pixels>
struct dense_tile {
  // count tiles side by side: one call for all, so that a tile starts while the last one ends.
  static void run(const zyn_general_lines& l, const float* in, float* out, int64_t count) {
    // In registers: vector stores may alias what is not.
    const int64_t step = l.in_step, next_in = Pixels * step, next_out = Pixels * l.out_step;
    const int64_t *const taps = l.taps, *const end = taps + l.tap_count;
    const bool single = l.inputs == 1;
    for (; count > 0; count--, in += next_in, out += next_out) {
      sums<Blocks, Pixels> s;
      s.start(l, out);
      const float* weights = l.weights;
      if (single) {
        for (const int64_t* tap = taps; tap < end; tap++, weights += Blocks * kLanes)
          s.add({in + *tap, step}, weights);
      } else {
        for (const int64_t* tap = taps; tap < end; tap++, weights += kLanes * Blocks * kLanes)
          s.add_block(in + *tap, step, weights);
      }
      s.finish(l, out);
    }
  }
};

using tile = void (*)(const zyn_general_lines&, const float*, float*, int64_t);

template <int Blocks, int... Less>
tile one_of(int64_t pixels, std::integer_sequence<int, Less...>) {
  static constexpr tile kTiles[] = {dense_tile<Blocks, Less + 1>::run...};
  return kTiles[pixels - 1];
}
template <int Blocks>
tile dense_tile_of(int64_t pixels) {
  constexpr int kMost = zyn_general_most_pixels(Blocks);
  return one_of<Blocks>(pixels, std::make_integer_sequence<int, kMost>());
}

// Every line's count pixels in tiles of at most most, all within one of each other.
template <typename Of>
void cover(const zyn_general_lines& l, int64_t count, int64_t most, Of tile_of) {
  const auto pixels = static_cast<uint32_t>(count);  // 32-bit divisions are the fast ones
  const uint32_t tiles = (pixels + static_cast<uint32_t>(most) - 1) / static_cast<uint32_t>(most);
  const int64_t small = pixels / tiles, larger = pixels % tiles;
  const tile run_larger = larger > 0 ? tile_of(small + 1) : nullptr, run_small = tile_of(small);
  for (int64_t y = 0; y < l.lines; y++) {
    const float* in = l.in + y * l.in_line;
    float* out = l.out + y * l.out_line;
    if (larger > 0) run_larger(l, in, out, larger);
    const int64_t behind = larger * (small + 1);
    run_small(l, in + behind * l.in_step, out + behind * l.out_step, tiles - larger);
  }
}

}  // namespace

void zyn_general_dense_lines(const zyn_general_lines& lines, int32_t blocks, int64_t count) {
  constexpr bool kOdd = kZynVectorFloats == 8;  // else there are no odd numbers but 1
  static constexpr decltype(&dense_tile_of<1>) kTilesOf[] = {dense_tile_of<1>,
                                                             dense_tile_of<2>,
                                                             dense_tile_of<(kOdd ? 3 : 1)>,
                                                             dense_tile_of<4>,
                                                             dense_tile_of<(kOdd ? 5 : 1)>,
                                                             dense_tile_of<6>,
                                                             dense_tile_of<(kOdd ? 7 : 1)>,
                                                             dense_tile_of<8>};
  cover(lines, count, zyn_general_most_pixels(blocks), kTilesOf[blocks - 1]);
}

// Tiles of one or two lines of pixels: up to 14 sums beside a vector of weights, whose taps come
// row by row of the kernel. Tiles of a line are nearly equal, so that none has few sums; tiles of
// one size follow each other within one call, so that a tile starts while the last one ends.
#include "cg/cpu/kernels/general/zyn_general_depthwise_tile.h"

#include <immintrin.h>

#include <utility>

#include "simd/zyn_vectors.h"

namespace {

using rectangle = zyn_general_rectangle;

constexpr int64_t kLanes = 8;
constexpr int32_t kMostPixels = 14;
constexpr int32_t kMostPixelsOfTwo = 7;  // a line's, of two lines
constexpr int32_t kFewPixels = 4;        // lines shorter than this run along the other axis

// sum += weight * value in the form that adds to its own register: left to choose, the compiler
// moves sums about and runs out of registers.
[[gnu::always_inline]] inline void add_product(__m256& sum, __m256 weight, const float* value) {
  __asm__("vfmadd231ps %2, %1, %0"
          : "+x"(sum)
          : "x"(weight), "m"(*reinterpret_cast<const __m256_u*>(value)));
}

// Columns: of the kernel's part, 0 for any number. Step: floats from pixel to pixel, 0 for any.
// Few pixels take their taps in turn into several sums, which would else wait for each other.
// Inside: input columns of a whole row of pixels with a border of half a kernel, whose taps are
// left out; else 0.
template <int Columns, int Lines, int Pixels, int Step, int Inside = 0>
struct tile {
  static constexpr int kSums = Lines * Pixels;
  static constexpr int kParts = Columns == 0 || kSums > 6 ? 1 : kSums > 2 ? 2 : Columns;

  // One tap; from is then at the next. The compiler is not to see where from comes from: else it
  // makes an offset for every pixel, more than there are registers.
  [[gnu::always_inline]] static void add(__m256 (&sum)[Lines][Pixels], const float* (&from)[Lines],
                                         int64_t step, int64_t column, const float* weights) {
    const __m256 weight = _mm256_loadu_ps(weights);
    ZYN_UNROLL for (int n = 0; n < Lines; n++) {
      __asm__("" : "+r"(from[n]));
      ZYN_UNROLL for (int i = 0; i < Pixels; i++)
          add_product(sum[n][i], weight, from[n] + i * step);
      from[n] += column;
    }
  }

  // The tap of column kx, from being at the input row.
  [[gnu::always_inline]] static void add_inside(__m256 (&sum)[Lines][Pixels],
                                                const float* const (&from)[Lines], int kx,
                                                const float* weights) {
    const __m256 weight = _mm256_loadu_ps(weights + kx * kLanes);
    ZYN_UNROLL for (int n = 0; n < Lines; n++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
        const int x = i * Step / kLanes + kx - Columns / 2;
        if (x >= 0 && x < Inside) add_product(sum[n][i], weight, from[n] + x * kLanes);
      }
    }
  }

  [[gnu::always_inline]] static void one(const rectangle& r, const zyn_general_depthwise_block& b,
                                         const float* weights, const float* in, float* out) {
    const int64_t step = Step ? Step : r.in_step;
    const __m256 bias = _mm256_loadu_ps(b.bias), floor = _mm256_set1_ps(b.floor);
    __m256 sum[kParts][Lines][Pixels];
    ZYN_UNROLL for (int p = 0; p < kParts; p++) {
      ZYN_UNROLL for (int n = 0; n < Lines; n++) {
        ZYN_UNROLL for (int i = 0; i < Pixels; i++) sum[p][n][i] =
            p == 0 ? bias : _mm256_setzero_ps();
      }
    }
    for (int32_t ky = 0; ky < r.rows; ky++, in += r.row, weights += r.weights_row) {
      const float* from[Lines];
      ZYN_UNROLL for (int n = 0; n < Lines; n++) from[n] = in + n * r.in_line;
      if constexpr (Inside > 0) {
        ZYN_UNROLL for (int kx = 0; kx < Columns; kx++)
            add_inside(sum[kx % kParts], from, kx, weights);
      } else if constexpr (Columns > 0) {
        ZYN_UNROLL for (int kx = 0; kx < Columns; kx++)
            add(sum[kx % kParts], from, step, r.column, weights + kx * kLanes);
      } else {
        for (int32_t kx = 0; kx < r.columns; kx++)
          add(sum[0], from, step, r.column, weights + kx * kLanes);
      }
    }
    ZYN_UNROLL for (int n = 0; n < Lines; n++) {
      ZYN_UNROLL for (int i = 0; i < Pixels; i++) {
        ZYN_UNROLL for (int p = 1; p < kParts; p++) sum[0][n][i] =
            _mm256_add_ps(sum[0][n][i], sum[p][n][i]);
        _mm256_storeu_ps(out + n * r.out_line + i * (Step ? kLanes : r.out_step),
                         _mm256_max_ps(floor, sum[0][n][i]));  // NaN stays NaN
      }
    }
  }

  // tiles of a line, side by side, in each of r.lines / Lines lines.
  static void run(const rectangle& r, const zyn_general_depthwise_block& b, int32_t first,
                  int32_t tiles) {
    const float* weights = b.weights + r.weights;
    const float* in = b.in + r.in + first * r.in_step;
    float* out = b.out + r.out + first * r.out_step;
    for (int32_t line = 0; line < r.lines; line += Lines) {
      for (int32_t i = 0; i < tiles; i++)
        one(r, b, weights, in + i * Pixels * r.in_step, out + i * Pixels * r.out_step);
      in += Lines * r.in_line;
      out += Lines * r.out_line;
    }
  }
};

using tile_run = void (*)(const rectangle&, const zyn_general_depthwise_block&, int32_t, int32_t);

template <int Columns, int Step>
tile_run of_one_line(int32_t pixels) {
  static constexpr tile_run kRuns[kMostPixels] = {
      tile<Columns, 1, 1, Step>::run,  tile<Columns, 1, 2, Step>::run,
      tile<Columns, 1, 3, Step>::run,  tile<Columns, 1, 4, Step>::run,
      tile<Columns, 1, 5, Step>::run,  tile<Columns, 1, 6, Step>::run,
      tile<Columns, 1, 7, Step>::run,  tile<Columns, 1, 8, Step>::run,
      tile<Columns, 1, 9, Step>::run,  tile<Columns, 1, 10, Step>::run,
      tile<Columns, 1, 11, Step>::run, tile<Columns, 1, 12, Step>::run,
      tile<Columns, 1, 13, Step>::run, tile<Columns, 1, 14, Step>::run};
  return kRuns[pixels - 1];
}

template <int Columns, int Step>
tile_run of_two_lines(int32_t pixels) {
  static constexpr tile_run kRuns[kMostPixelsOfTwo] = {
      tile<Columns, 2, 1, Step>::run, tile<Columns, 2, 2, Step>::run,
      tile<Columns, 2, 3, Step>::run, tile<Columns, 2, 4, Step>::run,
      tile<Columns, 2, 5, Step>::run, tile<Columns, 2, 6, Step>::run,
      tile<Columns, 2, 7, Step>::run};
  return kRuns[pixels - 1];
}

template <int Columns>
tile_run tile_of(int64_t step, int32_t lines, int32_t pixels) {
  if (step == kLanes)
    return lines == 2 ? of_two_lines<Columns, kLanes>(pixels)
                      : of_one_line<Columns, kLanes>(pixels);
  return lines == 2 ? of_two_lines<Columns, 2 * kLanes>(pixels)
                    : of_one_line<Columns, 2 * kLanes>(pixels);
}

constexpr int32_t kBorderColumns = 5;  // of the kernel whose border tiles know

// The tiles of whole rows of kFewPixels pixels and more; Odd: of an input column less.
template <int Lines, int Stride, int Odd, int... More>
tile_run border_tile(int32_t pixels, std::integer_sequence<int, More...>) {
  static constexpr tile_run kRuns[] = {
      tile<kBorderColumns, Lines, kFewPixels + More, Stride * kLanes,
           Stride*(kFewPixels + More) - Odd>::run...};
  return kRuns[pixels - kFewPixels];
}
tile_run border_tile_of(const rectangle& r, int32_t lines, int32_t pixels) {
  constexpr auto kUpToSeven = std::make_integer_sequence<int, kMostPixelsOfTwo - kFewPixels + 1>();
  constexpr auto kUpToMost = std::make_integer_sequence<int, kMostPixels - kFewPixels + 1>();
  const bool two = lines == 2;
  if (r.in_step == kLanes)
    return two ? border_tile<2, 1, 0>(pixels, kUpToSeven) : border_tile<1, 1, 0>(pixels, kUpToMost);
  if (r.inside == 2 * pixels)
    return two ? border_tile<2, 2, 0>(pixels, kUpToSeven)
               : border_tile<1, 2, 0>(pixels, kUpToSeven);
  return two ? border_tile<2, 2, 1>(pixels, kUpToSeven) : border_tile<1, 2, 1>(pixels, kUpToSeven);
}

tile_run tile_for(const rectangle& r, int32_t lines, int32_t pixels) {
  if (r.inside > 0) return border_tile_of(r, lines, pixels);
  // A turned rectangle of a plane two pixels wide has a usual step in the input, not in the output.
  const bool usual = r.in_step == kLanes || r.in_step == 2 * kLanes;
  if (!usual || r.out_step != kLanes) return of_one_line<0, 0>(pixels);
  return r.columns == 3   ? tile_of<3>(r.in_step, lines, pixels)
         : r.columns == 5 ? tile_of<5>(r.in_step, lines, pixels)
         : r.columns == 7 ? tile_of<7>(r.in_step, lines, pixels)
                          : tile_of<0>(r.in_step, lines, pixels);
}

// Lines run along the other axis.
void turn(rectangle* r) {
  const rectangle from = *r;
  r->in_step = from.in_line;
  r->in_line = from.in_step;
  r->out_step = from.out_line;
  r->out_line = from.out_step;
  r->pixels = from.lines;
  r->lines = from.pixels;
}

// Lines of pixels in tiles of at most most, all within one of each other.
void cover(rectangle* r, int32_t lines, int32_t most) {
  const int32_t tiles = (r->pixels + most - 1) / most;
  const int32_t small = r->pixels / tiles, larger = r->pixels % tiles;
  r->run[0] = larger > 0 ? tile_for(*r, lines, small + 1) : nullptr;
  r->run[1] = tile_for(*r, lines, small);
  r->first[0] = 0;
  r->first[1] = larger * (small + 1);
  r->tiles[0] = larger;
  r->tiles[1] = tiles - larger;
}

// One call for all blocks: what stands around a tile takes as long as its few sums.
template <int Columns>
void one_pixel(const rectangle& r, zyn_general_depthwise_block block, int64_t count,
               int64_t in_step, int64_t weights_step) {
  for (; count > 0; count--) {
    tile<Columns, 1, 1, kLanes>::one(r, block, block.weights + r.weights, block.in + r.in,
                                     block.out);
    block.in += in_step;
    block.weights += weights_step;
    block.out += kLanes;
    block.bias += kLanes;
  }
}

}  // namespace

bool zyn_general_knows_border(int32_t kernel, int32_t stride, int32_t pixels, int32_t inside) {
  const int32_t most = stride == 1 ? kMostPixels : stride == 2 ? kMostPixelsOfTwo : 0;
  return kernel == kBorderColumns && pixels >= kFewPixels && pixels <= most &&
         (inside + stride - 1) / stride == pixels;
}

bool zyn_general_choose_tiles(zyn_general_rectangle* rectangle, zyn_general_rectangle* last) {
  zyn_general_rectangle& r = *rectangle;
  if (r.pixels < kFewPixels && r.lines > 2 * r.pixels) turn(&r);
  const bool stepped = r.in_step == kLanes || r.in_step == 2 * kLanes;
  if (!stepped || r.pixels > kMostPixelsOfTwo || r.lines < 2) {
    cover(&r, 1, kMostPixels);
    return true;
  }
  const int32_t pairs = r.lines / 2 * 2;
  *last = r;
  r.lines = pairs;
  cover(&r, 2, kMostPixelsOfTwo);
  if (pairs == last->lines) return true;
  last->lines = 1;
  last->in += pairs * r.in_line;
  last->out += pairs * r.out_line;
  cover(last, 1, kMostPixels);
  return false;
}

void zyn_general_depthwise_pixel(const rectangle& r, zyn_general_depthwise_block block,
                                 int64_t count, int64_t in_step, int64_t weights_step) {
  (r.columns == 3   ? one_pixel<3>
   : r.columns == 5 ? one_pixel<5>
   : r.columns == 7 ? one_pixel<7>
                    : one_pixel<0>)(r, block, count, in_step, weights_step);
}

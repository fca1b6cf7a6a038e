// Tiles of 4 x 4 interpolate at 0, 3/4, -3/4, 3/2, -3/2 and infinity: with these the numbers of
// the input's and the output's transform are exact in floats, and the errors half of those that
// the usual 1 and 2 leave. Tiles of 2 x 2 take 0, 1, -1 and infinity.
#include "cg/cpu/kernels/winograd/zyn_winograd_tiles.h"

#include "cg/cpu/kernels/zyn_conv_epilogue.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kLanes = 8;

// The transforms along one axis: the weights' as a table, [frequency][tap].
template <int kTile>
struct axis;

template <>
struct axis<2> {
  static constexpr int kPoints = 4;
  static constexpr double kWeights[kPoints][3] = {
      {-1, 0, 0}, {0.5, 0.5, 0.5}, {0.5, -0.5, 0.5}, {0, 0, 1}};

  [[gnu::always_inline]] static void input(const __m256 (&d)[4], __m256 (&v)[4]) {
    v[0] = _mm256_sub_ps(d[2], d[0]);
    v[1] = _mm256_add_ps(d[2], d[1]);
    v[2] = _mm256_sub_ps(d[2], d[1]);
    v[3] = _mm256_sub_ps(d[3], d[1]);
  }
  [[gnu::always_inline]] static void output(const __m256 (&v)[4], __m256 (&y)[2]) {
    y[0] = _mm256_add_ps(v[0], _mm256_add_ps(v[1], v[2]));
    y[1] = _mm256_add_ps(_mm256_sub_ps(v[1], v[2]), v[3]);
  }
};

template <>
struct axis<4> {
  static constexpr int kPoints = 6;
  static constexpr float kP = 0.75f, kQ = 1.5f, kP2 = kP * kP, kQ2 = kQ * kQ;
  static constexpr double kWeights[kPoints][3] = {
      {64.0 / 81, 0, 0},
      {-128.0 / 243, -128.0 / 243 * 0.75, -128.0 / 243 * 0.5625},
      {-128.0 / 243, 128.0 / 243 * 0.75, -128.0 / 243 * 0.5625},
      {32.0 / 243, 32.0 / 243 * 1.5, 32.0 / 243 * 2.25},
      {32.0 / 243, -32.0 / 243 * 1.5, 32.0 / 243 * 2.25},
      {0, 0, 1}};

  // a + s * b
  [[gnu::always_inline]] static __m256 plus(__m256 a, float s, __m256 b) {
    return _mm256_fmadd_ps(_mm256_set1_ps(s), b, a);
  }
  [[gnu::always_inline]] static void input(const __m256 (&d)[6], __m256 (&v)[6]) {
    v[0] = plus(plus(d[4], -(kP2 + kQ2), d[2]), kP2 * kQ2, d[0]);
    v[5] = plus(plus(d[5], -(kP2 + kQ2), d[3]), kP2 * kQ2, d[1]);
    const __m256 even = plus(d[4], -kQ2, d[2]), odd = plus(d[3], -kQ2, d[1]);
    v[1] = plus(even, kP, odd);
    v[2] = plus(even, -kP, odd);
    const __m256 even2 = plus(d[4], -kP2, d[2]), odd2 = plus(d[3], -kP2, d[1]);
    v[3] = plus(even2, kQ, odd2);
    v[4] = plus(even2, -kQ, odd2);
  }
  [[gnu::always_inline]] static void output(const __m256 (&v)[6], __m256 (&y)[4]) {
    const __m256 s = _mm256_add_ps(v[1], v[2]), d = _mm256_sub_ps(v[1], v[2]);
    const __m256 s2 = _mm256_add_ps(v[3], v[4]), d2 = _mm256_sub_ps(v[3], v[4]);
    y[0] = _mm256_add_ps(v[0], _mm256_add_ps(s, s2));
    y[1] = plus(_mm256_mul_ps(_mm256_set1_ps(kQ), d2), kP, d);
    y[2] = plus(_mm256_mul_ps(_mm256_set1_ps(kQ2), s2), kP2, s);
    y[3] = plus(plus(v[5], kQ * kQ2, d2), kP * kP2, d);
  }
};

template <int kTile>
void weights(const double* kernels, double* out) {
  constexpr int kPoints = axis<kTile>::kPoints;
  for (int i = 0; i < kPoints; i++)
    for (int j = 0; j < kPoints; j++, out += kLanes)
      for (int lane = 0; lane < kLanes; lane++) {
        double sum = 0;
        for (int tap = 0; tap < 9; tap++)
          sum += axis<kTile>::kWeights[i][tap / 3] * axis<kTile>::kWeights[j][tap % 3] *
                 kernels[tap * kLanes + lane];
        out[lane] = sum;
      }
}

template <int kTile>
void input_tile(const float* pixels, int64_t pitch, float* out, int64_t step) {
  constexpr int kPoints = axis<kTile>::kPoints;
  __m256 columns[kPoints][kPoints];  // [frequency along y][x]
  for (int x = 0; x < kPoints; x++) {
    __m256 d[kPoints], v[kPoints];
    ZYN_UNROLL for (int y = 0; y < kPoints; y++) d[y] =
        _mm256_loadu_ps(pixels + y * pitch + x * kLanes);
    axis<kTile>::input(d, v);
    ZYN_UNROLL for (int i = 0; i < kPoints; i++) columns[i][x] = v[i];
  }
  for (int i = 0; i < kPoints; i++) {
    __m256 v[kPoints];
    axis<kTile>::input(columns[i], v);
    ZYN_UNROLL for (int j = 0; j < kPoints; j++, out += step) _mm256_storeu_ps(out, v[j]);
  }
}

template <int kTile>
void input(const zyn_winograd_tiles& t, const float* pixels, float* out) {
  const int64_t pitch = (int64_t{kTile} * t.columns + 2) * kLanes;
  for (int32_t y = 0; y < t.rows; y++)
    for (int32_t x = 0; x < t.columns; x++, out += kLanes)
      input_tile<kTile>(pixels + kTile * (y * pitch + x * kLanes), pitch, out, t.step);
}

// The part of a tile that the output has: width x height of its pixels.
template <int kTile, int kActivation>
void output_tile(const float* products, int64_t step, __m256 bias, float* out, int64_t pitch,
                 int32_t width, int32_t height) {
  constexpr int kPoints = axis<kTile>::kPoints;
  __m256 rows[kTile][kPoints];
  for (int j = 0; j < kPoints; j++) {
    __m256 v[kPoints], y[kTile];
    ZYN_UNROLL for (int i = 0; i < kPoints; i++) v[i] =
        _mm256_loadu_ps(products + (i * kPoints + j) * step);
    axis<kTile>::output(v, y);
    ZYN_UNROLL for (int r = 0; r < kTile; r++) rows[r][j] = y[r];
  }
  for (int r = 0; r < kTile && r < height; r++, out += pitch) {
    __m256 y[kTile];
    axis<kTile>::output(rows[r], y);
    ZYN_UNROLL for (int x = 0; x < kTile; x++) if (x < width)
        _mm256_storeu_ps(out + x * kLanes, zyn_activate<kActivation>(_mm256_add_ps(y[x], bias)));
  }
}

template <int kTile>
struct output_tiles {
  const zyn_winograd_tiles& t;
  const float* products;
  const float* bias;
  const zyn_winograd_output_rows& out;

  template <int kActivation>
  void run() const {
    const __m256 lanes = _mm256_loadu_ps(bias);
    const float* from = products;
    for (int32_t y = 0; y < t.rows; y++)
      for (int32_t x = 0; x < t.columns; x++, from += kLanes)
        output_tile<kTile, kActivation>(from, t.step, lanes,
                                        out.data + kTile * (y * out.pitch + x * kLanes), out.pitch,
                                        out.width - kTile * x, out.height - kTile * y);
  }
};

}  // namespace

void zyn_winograd_weights(int32_t m, const double* kernels, double* out) {
  m == 4 ? weights<4>(kernels, out) : weights<2>(kernels, out);
}

void zyn_winograd_input(const zyn_winograd_tiles& tiles, const float* pixels, float* out) {
  tiles.m == 4 ? input<4>(tiles, pixels, out) : input<2>(tiles, pixels, out);
}

void zyn_winograd_output(const zyn_winograd_tiles& tiles, const float* products, const float* bias,
                         int32_t activation, const zyn_winograd_output_rows& out) {
  if (tiles.m == 4)
    zyn_with_activation(activation, output_tiles<4>{tiles, products, bias, out});
  else
    zyn_with_activation(activation, output_tiles<2>{tiles, products, bias, out});
}

// Dense convolutions of method 2 with strides 1 and 2, 3 x 3 and 5 x 5 with padding half the
// kernel and smaller ones of any: strips of input rows are copied with their zero border into the
// plan's scratch, and the product reads its columns from there, tap by tap. Wide outputs are
// computed row by row; in narrow ones, where whole vectors would waste lanes at every row's end, a
// strip is one run of columns whose border products are dropped afterwards.
#include <immintrin.h>
#include <string.h>

#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "simd/zyn_fetch.h"

namespace {

constexpr int64_t kSmallStripFloats = 6 * 1024;    // fits the first-level cache
constexpr int64_t kLargeStripFloats = 128 * 1024;  // fits the second-level cache
constexpr int64_t kLargeStripRows = 12;  // enough to make the rows that two strips copy few
constexpr int64_t kRowUnit = 6;          // rows that make whole tiles of 2 or 3 vectors
constexpr int64_t kVector = 8;
constexpr int64_t kMostTaps = ZYN_CONV_STRIP_KERNEL * ZYN_CONV_STRIP_KERNEL;
constexpr uint32_t kFewTerms = 64;      // sums that end before a far output's line is there
constexpr int64_t kVectorsAtOnce = 96;  // whole tiles of 2 and of 3 vectors

// Columns of a flat strip of rows output rows.
int64_t flat_columns(const zyn_conv_plan* p, int64_t rows) {
  return (rows - 1) * p->strip.pitch + p->output_w;
}

// The two halves of 16 neighbouring floats: those at even and those at odd places.
struct halves {
  __m256 even, odd;
};
halves split(__m256 low, __m256 high) {
  const __m256d even = _mm256_castps_pd(_mm256_shuffle_ps(low, high, 0x88));
  const __m256d odd = _mm256_castps_pd(_mm256_shuffle_ps(low, high, 0xDD));
  return {_mm256_castpd_ps(_mm256_permute4x64_pd(even, 0xD8)),
          _mm256_castpd_ps(_mm256_permute4x64_pd(odd, 0xD8))};
}

// 8 floats of a row from column x on, 0 outside of the image.
__m256 load(const float* row, int64_t x, int64_t width) {
  if (x >= 0 && x + kVector <= width) return _mm256_loadu_ps(row + x);
  const auto at = static_cast<int32_t>(x);
  return _mm256_maskload_ps(row + x, zyn_lanes_within(at, static_cast<int32_t>(width)));
}

// One input row (null: outside of the image) into its phases, in whole vectors: what is
// written past the row's end belongs to a row that is written later or to the slack
// behind a phase.
void copy_row(const zyn_conv_plan* p, const float* row, float* to) {
  const int64_t pitch = p->strip.pitch, width = p->input_w, pad = p->pad;
  float* odd = to + p->strip.phase_floats;
  if (!row) {
    // Masked loads of nothing from nowhere would be right, and very slow.
    for (int64_t q = 0; q < pitch; q += kVector) {
      _mm256_storeu_ps(to + q, _mm256_setzero_ps());
      if (p->stride == 2) _mm256_storeu_ps(odd + q, _mm256_setzero_ps());
    }
  } else if (p->stride == 1) {
    int64_t q = 0;
    for (; q < pad; q += kVector) _mm256_storeu_ps(to + q, load(row, q - pad, width));
    for (; q < pitch && q - pad + kVector <= width; q += kVector)
      _mm256_storeu_ps(to + q, _mm256_loadu_ps(row + q - pad));
    for (; q < pitch; q += kVector) _mm256_storeu_ps(to + q, load(row, q - pad, width));
  } else {
    for (int64_t q = 0; q < pitch; q += kVector) {
      const int64_t x = 2 * q - pad;
      const halves h = split(load(row, x, width), load(row, x + kVector, width));
      _mm256_storeu_ps(to + q, h.even);
      _mm256_storeu_ps(odd + q, h.odd);
    }
  }
}

// The input rows under output rows y to y + rows - 1, all channels.
void copy_strip(const zyn_conv_plan* p, const float* input, int64_t y, int64_t rows, float* strip) {
  const zyn_conv_strip& s = p->strip;
  const int64_t plane = static_cast<int64_t>(p->input_w) * p->input_h;
  const int64_t padded_rows = (rows - 1) * p->stride + p->kernel;
  for (int64_t c = 0; c < p->input_channels; c++) {
    float* channel = strip + c * s.channel_floats;
    for (int64_t r = 0; r < padded_rows; r++) {
      const int64_t iy = y * p->stride + r - p->pad;
      const float* row = iy >= 0 && iy < p->input_h ? input + c * plane + iy * p->input_w : nullptr;
      copy_row(p, row,
               channel + r % p->stride * p->stride * s.phase_floats + r / p->stride * s.pitch);
    }
  }
}

void fill_offsets(const zyn_conv_plan* p, int64_t* offsets) {
  const zyn_conv_strip& s = p->strip;
  for (int64_t ky = 0; ky < p->kernel; ky++)
    for (int64_t kx = 0; kx < p->kernel; kx++) {
      const int64_t phase = ky % p->stride * p->stride + kx % p->stride;
      *offsets++ = phase * s.phase_floats + ky / p->stride * s.pitch + kx / p->stride;
    }
}

// The product of a strip whose rows are one run of columns, then without its border.
void multiply_flat(const zyn_conv_plan* p, const zyn_gemm_rows& b, int64_t y, int64_t rows,
                   float* products, float* output, const zyn_conv_epilogue& epilogue) {
  const int64_t w = p->output_w, h = p->output_h, channels = p->output_channels;
  const int64_t pitch = zyn_round_up(flat_columns(p, p->strip.rows), kVector);
  zyn_gemm_in_place(b, zyn_round_up(flat_columns(p, rows), kVector), zyn_conv_strip_weights(p),
                    p->channel_block, {products, pitch, channels, epilogue});
  for (int64_t c = 0; c < channels; c++)
    for (int64_t r = 0; r < rows; r++)
      memcpy(output + c * w * h + (y + r) * w, products + c * pitch + r * p->strip.pitch,
             static_cast<size_t>(w) * sizeof(float));
}

// The product of a strip row by row, in vectors of which the last ends with the row; rows of less
// than a vector are filled up to one. Tiles take the vectors that come next, be they of one row or
// of two.
void multiply_rows(const zyn_conv_plan* p, const zyn_gemm_rows& b, const float* weights,
                   int64_t rows, const zyn_gemm_output& out) {
  const int64_t w = zyn_larger(p->output_w, kVector);
  const int64_t lanes = w < kZynVectorFloats ? kVector : kZynVectorFloats;
  zyn_gemm_vector vectors[kVectorsAtOnce];
  int64_t count = 0;
  for (int64_t r = 0; r < rows; r++)
    for (int64_t column = 0; column < w; column += lanes) {
      const int64_t x = zyn_smaller(column, w - lanes);
      vectors[count++] = {r * p->strip.pitch + x, r * w + x};
      if (count < kVectorsAtOnce && (r < rows - 1 || column + lanes < w)) continue;
      zyn_gemm_scattered(b, vectors, count, lanes, weights, p->channel_block, out);
      count = 0;
    }
}

// The same in runs of terms, whose sums are added to the output one after the other.
void multiply_runs(const zyn_conv_plan* p, const int64_t* offsets, int64_t rows, float* output) {
  const int64_t k = p->k, taps = int64_t{p->kernel} * p->kernel, channels = p->output_channels;
  const int64_t w = p->output_w, filled = zyn_larger(w, kVector), pixels = p->output_pixels;
  const float* weights = zyn_conv_strip_weights(p);
  int64_t channel = 0, tap = 0;  // of the next term
  for (int64_t first = 0, count = 0; first < k; first += count) {
    count = zyn_smaller(ZYN_GEMM_RUN, k - first);
    int64_t at[ZYN_GEMM_RUN];
    for (int64_t i = 0; i < count; i++) {
      at[i] = channel + offsets[tap];
      if (++tap == taps) tap = 0, channel += p->strip.channel_floats;
    }
    const float* base = p->scratch.strip + (count == 1 ? at[0] : 0);
    const bool direct = first == 0 && w == filled;
    float* products = direct ? output : p->scratch.products;
    multiply_rows(p, {base, 0, 1, count, at, p->scratch.panel}, weights, rows,
                  {products, direct ? pixels : rows * filled, channels, {}});
    weights += count * zyn_round_up(channels, p->channel_block);
    for (int64_t c = 0; !direct && c < channels; c++)
      for (int64_t r = 0; r < rows; r++, products += filled) {
        float* to = output + c * pixels + r * w;
        for (int64_t x = 0; x < w; x++) to[x] = first > 0 ? to[x] + products[x] : products[x];
      }
  }
}

}  // namespace

zyn_conv_scratch_sizes zyn_conv_plan_dense(zyn_conv_plan* p) {
  zyn_conv_strip* s = &p->strip;
  const int64_t overlap = (p->kernel - 1) / p->stride;
  const int64_t phases = static_cast<int64_t>(p->stride) * p->stride;
  const int64_t output_w = p->output_w;
  s->pitch = output_w + overlap;
  const bool idle = s->pitch * 15 < zyn_round_up(output_w, kVector) * 14;
  s->flat = !zyn_conv_in_runs(p) && (output_w < kVector || idle);
  // Rows that begin on a vector are written without straddling cache lines.
  if (!s->flat) s->pitch = zyn_round_up(s->pitch, kVector);
  const int64_t row = phases * p->input_channels * s->pitch;
  const int64_t in_cache = zyn_larger(
      zyn_larger(kSmallStripFloats / row, zyn_smaller(kLargeStripRows, kLargeStripFloats / row)),
      1);
  const int64_t whole = in_cache < kRowUnit ? in_cache : in_cache / kRowUnit * kRowUnit;
  s->rows = zyn_smaller(whole, p->output_h);
  s->phase_rows = s->rows + overlap;
  // Behind a phase there is room for what whole vectors write and read past its end.
  s->phase_floats = zyn_round_up(s->phase_rows * s->pitch, kVector) + kVector;
  // An odd number of cache lines: channels spread over all sets of the cache.
  s->channel_floats = (phases * s->phase_floats + 31) / 32 * 32 + 16;
  const int64_t products =
      s->flat               ? p->output_channels * zyn_round_up(flat_columns(p, s->rows), kVector)
      : zyn_conv_in_runs(p) ? p->output_channels * s->rows * zyn_larger(output_w, kVector)
                            : 0;
  const int64_t terms = zyn_conv_in_runs(p) ? int64_t{ZYN_GEMM_RUN} : int64_t{p->k};
  return {s->channel_floats * p->input_channels, ZYN_GEMM_PANEL * terms, products, 0, 0};
}

uint32_t zyn_conv_run_dense(float* output, const float* input, const zyn_conv_plan* p,
                            const zyn_conv_epilogue& epilogue) {
  const zyn_conv_strip& s = p->strip;
  const zyn_conv_scratch& scratch = p->scratch;
  int64_t offsets[kMostTaps];
  fill_offsets(p, offsets);
  const int64_t taps = static_cast<int64_t>(p->kernel) * p->kernel;
  const zyn_gemm_rows b = {scratch.strip, s.channel_floats, p->input_channels,
                           taps,          offsets,          scratch.panel};
  for (int64_t y = 0; y < p->output_h; y += s.rows) {
    const int64_t rows = zyn_smaller(s.rows, p->output_h - y);
    copy_strip(p, input, y, rows, scratch.strip);
    if (p->far_output && p->k <= kFewTerms)
      for (int64_t c = 0; c < p->output_channels; c++)
        zyn_fetch(output + c * p->output_pixels + y * p->output_w, rows * p->output_w);
    if (zyn_conv_in_runs(p))
      multiply_runs(p, offsets, rows, output + y * p->output_w);
    else if (s.flat)
      multiply_flat(p, b, y, rows, scratch.products, output, epilogue);
    else
      multiply_rows(p, b, zyn_conv_strip_weights(p), rows,
                    {output + y * p->output_w, p->output_pixels, p->output_channels, epilogue});
  }
  if (zyn_conv_in_runs(p))
    zyn_conv_finish_rows(output, p->output_channels, p->output_pixels, epilogue);
  return 0;
}

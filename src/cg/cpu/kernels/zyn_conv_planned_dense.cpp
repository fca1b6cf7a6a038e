// Dense 3 x 3 and 5 x 5 convolutions of method 2 (padding half the kernel, stride 1 or
// 2): strips of input rows are copied with their zero border into the plan's scratch,
// and the product reads its columns from there, tap by tap. Wide outputs are computed
// row by row; in narrow ones, where whole vectors would waste lanes at every row's end,
// a strip is one run of columns whose border products are dropped afterwards.
#include <string.h>

#include "cg/cpu/kernels/zyn_conv_plan.h"

namespace {

constexpr int64_t kSmallStripFloats = 8 * 1024;    // fits the first-level cache
constexpr int64_t kLargeStripFloats = 128 * 1024;  // fits the second-level cache
constexpr int64_t kLargeStripRows = 8;             // keeps the rows that two strips copy a fifth
constexpr int64_t kVector = 8;
constexpr int64_t kMostTaps = 25;

int64_t smaller(int64_t a, int64_t b) { return a < b ? a : b; }
int64_t larger(int64_t a, int64_t b) { return a > b ? a : b; }
int64_t up_to_vectors(int64_t n) { return (n + kVector - 1) / kVector * kVector; }

// Columns of a flat strip of rows output rows.
int64_t flat_columns(const zyn_conv_plan* p, int64_t rows) {
  return (rows - 1) * p->strip.pitch + p->output_w;
}

// One input row into the phases of its row: padded column q * stride + phase.
void copy_row(const zyn_conv_plan* p, const float* row, float* to, int64_t phase_floats) {
  const int64_t stride = p->stride, pad = p->pad, width = p->input_w;
  for (int64_t phase = 0; phase < stride; phase++, to += phase_floats) {
    // Columns first to last - 1 lie inside the image.
    const int64_t first = phase < pad ? (pad - phase + stride - 1) / stride : 0;
    const int64_t inside = (width + pad - phase + stride - 1) / stride;
    const int64_t last = smaller(larger(inside, first), p->strip.pitch);
    for (int64_t q = 0; q < first; q++) to[q] = 0;
    const float* s = row + phase - pad;
    if (stride == 1)
      memcpy(to + first, s + first, static_cast<size_t>(last - first) * sizeof(float));
    else
      for (int64_t q = first; q < last; q++) to[q] = s[q * stride];
    for (int64_t q = last; q < p->strip.pitch; q++) to[q] = 0;
  }
}

// The input rows under output rows y to y + rows - 1, all channels.
void copy_strip(const zyn_conv_plan* p, const float* input, int64_t y, int64_t rows, float* strip) {
  const zyn_conv_strip& s = p->strip;
  const int64_t phase_floats = s.phase_rows * s.pitch;
  const int64_t plane = static_cast<int64_t>(p->input_w) * p->input_h;
  const int64_t padded_rows = (rows - 1) * p->stride + p->kernel;
  for (int64_t c = 0; c < p->input_channels; c++) {
    float* channel = strip + c * s.channel_floats;
    for (int64_t r = 0; r < padded_rows; r++) {
      float* to = channel + r % p->stride * p->stride * phase_floats + r / p->stride * s.pitch;
      const int64_t iy = y * p->stride + r - p->pad;
      if (iy >= 0 && iy < p->input_h)
        copy_row(p, input + c * plane + iy * p->input_w, to, phase_floats);
      else
        for (int64_t phase = 0; phase < p->stride; phase++)
          memset(to + phase * phase_floats, 0, static_cast<size_t>(s.pitch) * sizeof(float));
    }
  }
}

void fill_offsets(const zyn_conv_plan* p, int64_t* offsets) {
  const zyn_conv_strip& s = p->strip;
  for (int64_t ky = 0; ky < p->kernel; ky++)
    for (int64_t kx = 0; kx < p->kernel; kx++) {
      const int64_t phase = ky % p->stride * p->stride + kx % p->stride;
      *offsets++ = phase * s.phase_rows * s.pitch + ky / p->stride * s.pitch + kx / p->stride;
    }
}

}  // namespace

void zyn_conv_plan_strip_sizes(zyn_conv_plan* p) {
  zyn_conv_strip* s = &p->strip;
  const int64_t overlap = (p->kernel - 1) / p->stride;
  const int64_t phases = static_cast<int64_t>(p->stride) * p->stride;
  const int64_t output_w = p->output_w;
  s->pitch = output_w + overlap;
  s->flat = output_w < kVector || s->pitch * 15 < up_to_vectors(output_w) * 14;
  const int64_t row = phases * p->input_channels * s->pitch;
  const int64_t in_cache =
      larger(larger(kSmallStripFloats / row, smaller(kLargeStripRows, kLargeStripFloats / row)), 1);
  s->rows = smaller(in_cache, p->output_h);
  s->phase_rows = s->rows + overlap;
  // An odd number of cache lines: channels spread over all sets of the cache.
  s->channel_floats = (phases * s->phase_rows * s->pitch + 31) / 32 * 32 + 16;
  // Tiles read whole vectors, past the last row by less than one of them.
  s->floats = s->channel_floats * p->input_channels + kVector;
  s->flat_floats = s->flat ? p->output_channels * up_to_vectors(flat_columns(p, s->rows)) : 0;
}

uint32_t zyn_conv_run_dense(float* output, const float* input, const zyn_conv_plan* p,
                            const zyn_conv_epilogue& epilogue) {
  const zyn_conv_strip& s = p->strip;
  float* strip = zyn_conv_plan_strip(p);
  float* flat = strip + s.floats;
  int64_t offsets[kMostTaps];
  fill_offsets(p, offsets);
  const int64_t taps = static_cast<int64_t>(p->kernel) * p->kernel;
  const int64_t column_floats = static_cast<int64_t>(p->input_channels) * p->kernel * p->stride;
  zyn_gemm_rows b = {strip, s.channel_floats, p->input_channels, taps, offsets, column_floats};
  const int64_t w = p->output_w, h = p->output_h, channels = p->output_channels;
  for (int64_t y = 0; y < h; y += s.rows) {
    const int64_t rows = smaller(s.rows, h - y);
    copy_strip(p, input, y, rows, strip);
    b.base = strip;
    if (s.flat) {
      const int64_t pitch = up_to_vectors(flat_columns(p, s.rows));
      zyn_gemm_in_place(b, up_to_vectors(flat_columns(p, rows)), p->weights, p->channel_block,
                        {flat, pitch, channels, epilogue});
      for (int64_t c = 0; c < channels; c++)
        for (int64_t r = 0; r < rows; r++)
          memcpy(output + c * w * h + (y + r) * w, flat + c * pitch + r * s.pitch,
                 static_cast<size_t>(w) * sizeof(float));
    } else {
      for (int64_t r = 0; r < rows; r++, b.base += s.pitch)
        zyn_gemm_in_place(b, w, p->weights, p->channel_block,
                          {output + (y + r) * w, w * h, channels, epilogue});
    }
  }
  return 0;
}

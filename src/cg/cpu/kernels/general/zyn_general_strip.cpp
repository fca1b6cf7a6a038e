#include "cg/cpu/kernels/general/zyn_general_strip.h"

#include <string.h>

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int32_t kLanes = 8;

// Up to 8 planes; the last one stands for those that are missing.
struct plane_set {
  const float* of[kLanes];

  plane_set(const float* first, int64_t plane, int32_t valid) {
    for (int32_t k = 0; k < kLanes; k++) of[k] = first + (k < valid ? k : valid - 1) * plane;
  }
  // Pixels x to x + count - 1, at most 8, as vectors of channels.
  void load(int64_t x, int64_t count, __m256 (&pixels)[8]) const {
    if (count >= kLanes) {
      ZYN_UNROLL for (int k = 0; k < 8; k++) pixels[k] = _mm256_loadu_ps(of[k] + x);
    } else {
      const __m256i mask = zyn_first_lanes(count);
      for (int k = 0; k < 8; k++) pixels[k] = _mm256_maskload_ps(of[k] + x, mask);
    }
    zyn_transpose_8x8(pixels);
  }
};

// count pixels of planes into [pixel][8].
void interleave(float* out, const plane_set& planes, int64_t count) {
  for (int64_t x = 0; x < count; x += kLanes) {
    __m256 pixels[8];
    planes.load(x, count - x, pixels);
    if (count - x >= kLanes) {
      ZYN_UNROLL for (int k = 0; k < 8; k++) _mm256_storeu_ps(out + (x + k) * kLanes, pixels[k]);
    } else {
      for (int k = 0; k < count - x; k++) _mm256_storeu_ps(out + (x + k) * kLanes, pixels[k]);
    }
  }
}

// Pixels of planes, row by row without gaps, into rows pitch pixels apart: short rows would
// leave most lanes of a transposition empty.
void interleave_rows(float* out, const plane_set& planes, int32_t width, int32_t rows,
                     int32_t pitch) {
  const int64_t count = int64_t{width} * rows;
  const int64_t gap = int64_t{pitch - width} * kLanes;
  int32_t column = 0;
  for (int64_t x = 0; x < count; x += kLanes) {
    __m256 pixels[8];
    planes.load(x, count - x, pixels);
    const int64_t here = count - x < kLanes ? count - x : kLanes;
    for (int k = 0; k < here; k++, out += kLanes) {
      if (column == width) {
        column = 0;
        out += gap;
      }
      column++;
      _mm256_storeu_ps(out, pixels[k]);
    }
  }
}

// Four pixels of up to 4 planes as vectors of channels; the first plane stands for missing ones.
void load_quad(const float* planes, int64_t plane, int32_t valid, __m128 (&pixels)[4]) {
  for (int32_t k = 0; k < 4; k++) pixels[k] = _mm_loadu_ps(planes + (k < valid ? k : 0) * plane);
  _MM_TRANSPOSE4_PS(pixels[0], pixels[1], pixels[2], pixels[3]);
}

// The channels behind the last whole block of a blocked tensor, into [pixel][8]: a block of 4
// if there are as many, then single ones.
void interleave_rest(float* out, const zyn_general_tensor& from, int32_t channel, int64_t first,
                     int64_t count) {
  const int32_t left = from.channels - channel, fours = left / 4 * 4, ones = left - fours;
  const float* block = from.data + channel * from.plane() + first * 4;
  const float* single = from.data + (channel + fours) * from.plane() + first;
  if (fours > 0)
    for (int64_t x = 0; x < count; x++)
      _mm_storeu_ps(out + x * kLanes, _mm_loadu_ps(block + x * 4));
  if (ones == 0) return;
  float* to = out + fours;
  int64_t x = 0;
  for (; x + 4 <= count; x += 4) {
    __m128 pixels[4];
    load_quad(single + x, from.plane(), ones, pixels);
    for (int k = 0; k < 4; k++) _mm_storeu_ps(to + (x + k) * kLanes, pixels[k]);
  }
  for (; x < count; x++)
    for (int32_t k = 0; k < ones; k++) to[x * kLanes + k] = single[k * from.plane() + x];
}

void copy_vectors(float* out, const float* from, int64_t count) {
  for (int64_t i = 0; i < count; i++) {
    __m256 v = _mm256_loadu_ps(from + i * kLanes);
    __asm__("" : "+x"(v));  // else the compiler makes it a call, which costs more than short rows
    _mm256_storeu_ps(out + i * kLanes, v);
  }
}

// count pixels of lanes channels into [pixel][lane]: blocks as they are, or up to 8 channels of
// either order.
void copy_pixels(float* out, const zyn_general_tensor& from, int32_t channel, int32_t lanes,
                 int64_t first, int64_t count) {
  const int32_t left = from.channels - channel;
  if (from.blocked && lanes == kLanes && left < lanes) {
    interleave_rest(out, from, channel, first, count);
  } else if (from.blocked || lanes == 1) {
    memcpy(out, from.data + channel * from.plane() + first * lanes,
           static_cast<size_t>(count * lanes) * sizeof(float));
  } else if (lanes == kLanes) {
    interleave(out, {from.data + channel * from.plane() + first, from.plane(), left}, count);
  } else {
    for (int32_t k = 0; k < lanes; k++) {
      const float* plane = from.data + (channel + k) * from.plane() + first;
      for (int64_t x = 0; x < count; x++) out[x * lanes + k] = plane[x];
    }
  }
}

// count pixels of [pixel][8] into 8 planes, valid of them.
void separate(float* planes, int64_t plane, int32_t valid, int64_t count, const float* in) {
  for (int64_t x = 0; x < count; x += kLanes) {
    const int64_t here = count - x < kLanes ? count - x : kLanes;
    __m256 row[8];
    for (int k = 0; k < 8; k++)
      row[k] = k < here ? _mm256_loadu_ps(in + (x + k) * kLanes) : _mm256_setzero_ps();
    zyn_transpose_8x8(row);
    const __m256i mask = zyn_first_lanes(here);
    for (int k = 0; k < valid; k++)
      if (here == kLanes)
        _mm256_storeu_ps(planes + k * plane + x, row[k]);
      else
        _mm256_maskstore_ps(planes + k * plane + x, mask, row[k]);
  }
}

// Every other one of 16.
__m256 even_pixels(const float* from) {
  const __m256 pairs = _mm256_shuffle_ps(_mm256_loadu_ps(from), _mm256_loadu_ps(from + 8), 0x88);
  return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(pairs), 0xD8));
}

}  // namespace

void zyn_general_gather(float* out, const zyn_general_tensor& from, int32_t channel, int32_t lanes,
                        const zyn_general_window& w, bool zeros) {
  const int64_t row_floats = int64_t{w.pitch} * lanes;
  const int32_t begin = w.left < 0 ? 0 : w.left;  // columns begin to end - 1 are inside
  const int32_t end = w.left + w.pitch < from.width ? w.left + w.pitch : from.width;
  int32_t top = w.first < 0 ? -w.first : 0;  // rows of the window from here to bottom - 1, too
  int32_t bottom = from.height - w.first < w.rows ? from.height - w.first : w.rows;
  if (top > w.rows) top = w.rows;
  if (bottom < top || end <= begin) bottom = top;
  if (zeros) {
    memset(out, 0, static_cast<size_t>(top * row_floats) * sizeof(float));
    memset(out + bottom * row_floats, 0,
           static_cast<size_t>((w.rows - bottom) * row_floats) * sizeof(float));
  }
  const int64_t before = begin - w.left, behind = w.left + w.pitch - end;
  const int64_t start = int64_t{w.first + top} * from.width;
  const bool whole = begin == 0 && end == from.width;
  const bool gaps = before + behind > 0;
  if (gaps && zeros)
    for (int32_t y = top; y < bottom; y++) {
      memset(out + y * row_floats, 0, static_cast<size_t>(before * lanes) * sizeof(float));
      memset(out + (y + 1) * row_floats - behind * lanes, 0,
             static_cast<size_t>(behind * lanes) * sizeof(float));
    }
  float* inside = out + top * row_floats + before * lanes;
  if (whole && !gaps) {
    copy_pixels(inside, from, channel, lanes, start, int64_t{bottom - top} * from.width);
  } else if (whole && !from.blocked && lanes == kLanes) {
    interleave_rows(
        inside, {from.data + channel * from.plane() + start, from.plane(), from.channels - channel},
        from.width, bottom - top, w.pitch);
  } else if (from.blocked && lanes == kLanes && channel + lanes <= from.channels) {
    const float* row = from.data + channel * from.plane() + (start + begin) * lanes;
    for (int32_t y = top; y < bottom; y++, inside += row_floats, row += from.width * lanes)
      copy_vectors(inside, row, end - begin);
  } else {
    for (int32_t y = top; y < bottom; y++, inside += row_floats)
      copy_pixels(inside, from, channel, lanes, start + int64_t{y - top} * from.width + begin,
                  end - begin);
  }
}

void zyn_general_pick(float* out, const zyn_general_tensor& from, int32_t channel, int32_t lanes,
                      const zyn_general_grid& g) {
  const int32_t left = from.channels - channel, valid = left < lanes ? left : lanes;
  for (int32_t k = 0; k < valid; k++) {
    const float* row =
        from.data + (channel + k) * from.plane() + int64_t{g.first} * g.step_y * from.width;
    for (int32_t y = 0; y < g.rows; y++, row += int64_t{g.step_y} * from.width, out += g.count) {
      int32_t x = 0;
      for (; g.step_x == 2 && 2 * (x + kLanes) <= from.width; x += kLanes)
        _mm256_storeu_ps(out + x, even_pixels(row + 2 * x));
      for (; x < g.count; x++) out[x] = row[int64_t{x} * g.step_x];
    }
  }
}

void zyn_general_scatter(const zyn_general_tensor& to, int32_t channel, int64_t first,
                         int64_t count, const float* in) {
  const int32_t left = to.channels - channel;
  const int32_t valid = left < kLanes ? left : kLanes;
  if (!to.blocked) {
    separate(to.data + channel * to.plane() + first, to.plane(), valid, count, in);
    return;
  }
  if (valid == kLanes) {
    memcpy(to.data + channel * to.plane() + first * kLanes, in,
           static_cast<size_t>(count * kLanes) * sizeof(float));
    return;
  }
  const int32_t fours = valid / 4 * 4;
  float* block = to.data + channel * to.plane() + first * 4;
  if (fours > 0)
    for (int64_t x = 0; x < count; x++) _mm_storeu_ps(block + x * 4, _mm_loadu_ps(in + x * kLanes));
  for (int32_t k = fours; k < valid; k++) {
    float* plane = to.data + (channel + k) * to.plane() + first;
    for (int64_t x = 0; x < count; x++) plane[x] = in[x * kLanes + k];
  }
}

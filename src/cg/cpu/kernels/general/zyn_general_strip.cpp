#include "cg/cpu/kernels/general/zyn_general_strip.h"

#include <string.h>

#include "cg/cpu/kernels/blocked/zyn_conv_blocked.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int32_t kLanes = 8;

// Where a channel's pixels lie, and how far apart.
struct channel_place {
  float* first;
  int64_t step;
};

channel_place place_of(const zyn_general_tensor& t, int32_t channel) {
  const int32_t eights = t.channels / 8 * 8, fours = t.channels / 4 * 4;
  if (!t.blocked || channel >= fours) return {t.data + channel * t.plane(), 1};
  const int32_t width = channel < eights ? 8 : 4;
  const int32_t block = channel / width * width;
  return {t.data + block * t.plane() + (channel - block), width};
}

// count pixels of 8 planes, valid of them there, into [pixel][8].
void interleave(float* out, const float* planes, int64_t plane, int32_t valid, int64_t count) {
  for (int64_t x = 0; x < count; x += kLanes) {
    const int64_t here = count - x < kLanes ? count - x : kLanes;
    __m256 row[8];
    if (here == kLanes && valid == kLanes) {
      ZYN_UNROLL for (int k = 0; k < 8; k++) row[k] = _mm256_loadu_ps(planes + k * plane + x);
    } else {
      const __m256i mask = zyn_first_lanes(here);
      for (int k = 0; k < 8; k++)
        row[k] = k < valid ? _mm256_maskload_ps(planes + k * plane + x, mask) : _mm256_setzero_ps();
    }
    zyn_transpose_8x8(row);
    if (here == kLanes) {
      ZYN_UNROLL for (int k = 0; k < 8; k++) _mm256_storeu_ps(out + (x + k) * kLanes, row[k]);
    } else {
      for (int k = 0; k < here; k++) _mm256_storeu_ps(out + (x + k) * kLanes, row[k]);
    }
  }
}

// Pixels of 8 whole planes, row by row without gaps, into rows pitch pixels apart: short rows
// would leave most lanes of a transposition empty.
void interleave_rows(float* out, const float* planes, int64_t plane, int32_t width, int32_t rows,
                     int32_t pitch) {
  const int64_t count = int64_t{width} * rows;
  const int64_t gap = int64_t{pitch - width} * kLanes;
  int32_t column = 0;
  for (int64_t x = 0; x < count; x += kLanes) {
    const int64_t here = count - x < kLanes ? count - x : kLanes;
    const __m256i mask = zyn_first_lanes(here);
    __m256 row[8];
    if (here == kLanes) {
      ZYN_UNROLL for (int k = 0; k < 8; k++) row[k] = _mm256_loadu_ps(planes + k * plane + x);
    } else {
      for (int k = 0; k < 8; k++) row[k] = _mm256_maskload_ps(planes + k * plane + x, mask);
    }
    zyn_transpose_8x8(row);
    for (int k = 0; k < here; k++, out += kLanes) {
      if (column == width) {
        column = 0;
        out += gap;
      }
      column++;
      _mm256_storeu_ps(out, row[k]);
    }
  }
}

void copy_vectors(float* out, const float* from, int64_t count) {
  for (int64_t i = 0; i < count; i++) {
    __m256 v = _mm256_loadu_ps(from + i * kLanes);
    __asm__("" : "+x"(v));  // else the compiler makes it a call, which costs more than short rows
    _mm256_storeu_ps(out + i * kLanes, v);
  }
}

// count pixels of lanes channels, any order, into [pixel][lane].
void copy_pixels(float* out, const zyn_general_tensor& from, int32_t channel, int32_t lanes,
                 int64_t first, int64_t count) {
  const int32_t left = from.channels - channel;
  const int32_t valid = left < lanes ? left : lanes;
  const channel_place start = place_of(from, channel);
  if (start.step == kLanes && lanes == kLanes && valid == lanes) {
    copy_vectors(out, start.first + first * lanes, count);
    return;
  }
  if (start.step == lanes && valid == lanes) {
    memcpy(out, start.first + first * lanes, static_cast<size_t>(count * lanes) * sizeof(float));
    return;
  }
  if (lanes == kLanes && !from.blocked) {
    interleave(out, start.first + first, from.plane(), valid, count);
    return;
  }
  for (int32_t k = 0; k < lanes; k++) {
    const channel_place place = k < valid ? place_of(from, channel + k) : channel_place{};
    for (int64_t x = 0; x < count; x++)
      out[x * lanes + k] = k < valid ? place.first[(first + x) * place.step] : 0.0f;
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
  } else if (whole && !from.blocked && lanes == kLanes && channel + lanes <= from.channels) {
    interleave_rows(inside, from.data + channel * from.plane() + start, from.plane(), from.width,
                    bottom - top, w.pitch);
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
  for (int32_t k = 0; k < valid; k++) {
    const channel_place place = place_of(to, channel + k);
    for (int64_t x = 0; x < count; x++) place.first[(first + x) * place.step] = in[x * kLanes + k];
  }
}

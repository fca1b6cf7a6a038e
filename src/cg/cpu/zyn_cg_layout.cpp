// Blocked and interleaved channel order to planar: both are groups of g channels whose
// values lie together pixel by pixel, so one transposition per group does it. Eight
// pixels of eight channels, or four of four, turn in registers, the last ones beside some that
// have; other group sizes and short rows go value by value.
#include "cg/cpu/zyn_cg_layout.h"

#include <string.h>

#include "base/zyn_memory.h"
#include "matrix/zyn_tensor.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr uint32_t kElementBytes = 4;
constexpr uint32_t kPlanar = ZYN_LAYOUT_PLANAR;

// Eight pixels of eight channels: source pixel by pixel, pitch elements apart.
void transpose_8x8(float* out, int64_t plane_pitch, const float* in, int64_t pitch) {
  __m256 rows[8];
  ZYN_UNROLL for (int i = 0; i < 8; i++) rows[i] = _mm256_loadu_ps(in + i * pitch);
  zyn_transpose_8x8(rows);
  ZYN_UNROLL for (int i = 0; i < 8; i++) _mm256_storeu_ps(out + i * plane_pitch, rows[i]);
}

void transpose_4x4(float* out, int64_t plane_pitch, const float* in, int64_t pitch) {
  __m128 row[4];
  ZYN_UNROLL for (int i = 0; i < 4; i++) row[i] = _mm_loadu_ps(in + i * pitch);
  _MM_TRANSPOSE4_PS(row[0], row[1], row[2], row[3]);
  ZYN_UNROLL for (int i = 0; i < 4; i++) _mm_storeu_ps(out + i * plane_pitch, row[i]);
}

// One row of group channels that lie pitch elements apart from pixel to pixel.
void spread_row(float* out, int64_t plane_pitch, const float* in, int64_t group, int64_t pitch,
                int64_t width) {
  if ((group == 8 || group == 4) && width >= group) {
    const auto transpose = group == 8 ? transpose_8x8 : transpose_4x4;
    for (int64_t x = 0; x < width; x += group) {
      const int64_t at = x + group <= width ? x : width - group;
      transpose(out + at, plane_pitch, in + at * pitch, pitch);
    }
    return;
  }
  for (int64_t c = 0; c < group; c++)
    for (int64_t x = 0; x < width; x++) out[c * plane_pitch + x] = in[x * pitch + c];
}

// Channels that lie together from first on: interleaved images take them eight at a
// time too, as pieces of their pixels.
int64_t group_size(int64_t left, bool interleaved) {
  if (left >= 8) return 8;
  if (left >= 4 && !interleaved) return 4;
  return interleaved ? left : 1;
}

void spread_image(float* out, int64_t row_pitch, int64_t plane_pitch, const float* in,
                  const zyn_tensor* shape) {
  int64_t width = zyn_cg_width(shape), height = zyn_cg_height(shape);
  if (row_pitch == width) {  // rows that follow each other are one
    width *= height;
    height = 1;
  }
  const int64_t channels = zyn_cg_channels(shape);
  const bool interleaved = shape->layout == ZYN_LAYOUT_INTERLEAVED;
  for (int64_t c = 0, group; c < channels; c += group) {
    group = group_size(channels - c, interleaved);
    const int64_t pitch = interleaved ? channels : group;
    const float* first = in + (interleaved ? c : c * width * height);
    for (int64_t y = 0; y < height; y++)
      spread_row(out + c * plane_pitch + y * row_pitch, plane_pitch, first + y * width * pitch,
                 group, pitch, width);
  }
}

void copy_rows(void* destination, int64_t row_pitch, int64_t plane_pitch,
               const zyn_tensor* source) {
  const int64_t size = source->element_size;
  const int64_t height = zyn_cg_height(source);
  const int64_t row_bytes = zyn_cg_width(source) * size;
  const int64_t planes = source->count / zyn_cg_pixels(source);
  auto* out = static_cast<uint8_t*>(destination);
  const auto* in = static_cast<const uint8_t*>(source->data);
  for (int64_t p = 0; p < planes; p++, out += plane_pitch * size) {
    if (row_pitch == zyn_cg_width(source)) {
      memcpy(out, in, static_cast<size_t>(row_bytes * height));
      in += row_bytes * height;
      continue;
    }
    for (int64_t y = 0; y < height; y++, in += row_bytes)
      memcpy(out + y * row_pitch * size, in, static_cast<size_t>(row_bytes));
  }
}

bool same_shape(const zyn_tensor* a, const zyn_tensor* b) {
  return a->type == b->type && a->dim_count == b->dim_count &&
         memcmp(a->dims, b->dims, sizeof(a->dims)) == 0;
}

}  // namespace

uint32_t zyn_cg_order(const zyn_tensor* tensor) {
  const uint32_t code = tensor->layout;
  const bool reordered = code == ZYN_LAYOUT_INTERLEAVED || code == ZYN_LAYOUT_BLOCKED;
  const bool matters = zyn_cg_pixels(tensor) > 1 && zyn_cg_channels(tensor) > 1;
  return reordered && matters && tensor->element_size == kElementBytes ? code : kPlanar;
}

void zyn_cg_copy_planar(void* destination, int64_t row_pitch, int64_t plane_pitch,
                        const zyn_tensor* source) {
  if (zyn_cg_order(source) == ZYN_LAYOUT_PLANAR)
    return copy_rows(destination, row_pitch, plane_pitch, source);
  const int64_t channels = zyn_cg_channels(source);
  const int64_t image = zyn_cg_pixels(source) * channels;
  auto* out = static_cast<float*>(destination);
  const auto* in = static_cast<const float*>(source->data);
  for (int64_t i = 0; i < source->count / image; i++)
    spread_image(out + i * channels * plane_pitch, row_pitch, plane_pitch, in + i * image, source);
}

void zyn_cg_copy_planar(void* destination, const zyn_tensor* source) {
  zyn_cg_copy_planar(destination, zyn_cg_width(source), zyn_cg_pixels(source), source);
}

const zyn_tensor* zyn_cg_planar(const zyn_tensor* source, zyn_tensor** scratch) {
  if (zyn_cg_order(source) == ZYN_LAYOUT_PLANAR) return source;
  if (*scratch && !same_shape(*scratch, source)) zyn_release_tensor(scratch);
  if (!*scratch) *scratch = zyn_create_tensor_like(source);
  if (!*scratch) return nullptr;
  (*scratch)->layout = ZYN_LAYOUT_PLANAR;
  zyn_cg_copy_planar((*scratch)->data, source);
  return *scratch;
}

// Prior boxes of the face detector and the decoding of what the network says about
// them. Boxes are four floats in fractions of the network's input: centre x, centre
// y, width, height (centre form) or x1, y1, x2, y2 (corner form).
#include <immintrin.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "base/zyn_report.h"
#include "matrix/zyn_math.h"
#include "zyncore.h"

namespace {

constexpr zyn_site kPriorMemory{"src/matrix/zyn_tensor.cpp", 123, ZYN_MSG_MEMORY};

constexpr int32_t kLevels = 4;
constexpr int32_t kBoxFloats = 4;

// Box sizes of a level, in pixels of the input.
struct level_sizes {
  int32_t count;
  float pixels[3];
};
constexpr level_sizes kMinSizes[kLevels] = {
    {3, {10, 16, 24}}, {2, {32, 48, 0}}, {2, {64, 96, 0}}, {3, {128, 192, 256}}};

// Feature maps of one input size, level by level.
struct feature_maps {
  uint32_t width, height;
  int32_t columns[kLevels], rows[kLevels];
};
constexpr feature_maps kInputs[] = {
    {128, 96, {16, 8, 4, 2}, {12, 6, 3, 2}},          {160, 120, {20, 10, 5, 3}, {15, 8, 4, 2}},
    {240, 180, {30, 15, 8, 4}, {23, 12, 6, 3}},       {320, 240, {40, 20, 10, 5}, {30, 15, 8, 4}},
    {480, 360, {60, 30, 15, 8}, {45, 23, 12, 6}},     {640, 480, {80, 40, 20, 10}, {60, 30, 15, 8}},
    {1280, 960, {160, 80, 40, 20}, {120, 60, 30, 15}}};

const feature_maps& maps_of(uint32_t width, uint32_t height) {
  for (const feature_maps& maps : kInputs)
    if (maps.width == width && maps.height == height) return maps;
  return kInputs[0];
}

int32_t prior_count(const feature_maps& maps) {
  int32_t count = 0;
  for (int32_t k = 0; k < kLevels; k++)
    count += maps.rows[k] * maps.columns[k] * kMinSizes[k].count;
  return count;
}

float clamp_to_one(float value) { return value < 0.0f ? 0.0f : value > 1.0f ? 1.0f : value; }

// The grid of one level: cells per axis, and how many of them make up the input.
struct level_grid {
  int32_t columns, rows;
  float scale_x, scale_y;
};

// Writes one level's priors for a width x height input; returns the place behind them.
float* write_level(float* to, const level_grid& grid, const level_sizes& sizes, float width,
                   float height) {
  for (int32_t j = 0; j < grid.rows; j++)
    for (int32_t i = 0; i < grid.columns; i++)
      for (int32_t s = 0; s < sizes.count; s++, to += kBoxFloats) {
        to[0] = clamp_to_one((static_cast<float>(i) + 0.5f) / grid.scale_x);
        to[1] = clamp_to_one((static_cast<float>(j) + 0.5f) / grid.scale_y);
        to[2] = clamp_to_one(sizes.pixels[s] / width);
        to[3] = clamp_to_one(sizes.pixels[s] / height);
      }
  return to;
}

// Two boxes from two boxes' offsets and priors.
__m256 decode(__m256 offsets, __m256 priors, __m256 center_variance, __m256 size_variance) {
  const __m256 sizes = _mm256_permute_ps(priors, _MM_SHUFFLE(3, 2, 3, 2));
  const __m256 centers =
      _mm256_add_ps(_mm256_mul_ps(_mm256_mul_ps(center_variance, offsets), sizes), priors);
  const __m256 extents = _mm256_mul_ps(zyn_exp8(_mm256_mul_ps(size_variance, offsets)), sizes);
  return _mm256_blend_ps(centers, extents, 0xCC);
}

}  // namespace

zyn_tensor* zyn_generate_priors(uint32_t height, uint32_t width, uint32_t transposed) {
  if (width == 0 || height == 0) {  // nothing that priors could be fractions of
    zyn_explain("an input has sides of at least 1, found %u x %u", width, height);
    return nullptr;
  }
  const feature_maps& maps = maps_of(width, height);
  const int32_t dims[2] = {kBoxFloats, prior_count(maps)};
  zyn_tensor* priors = zyn_create_tensor_header(2, dims, ZYN_TYPE_F32);
  if (!priors) return nullptr;
  priors->data = zyn_malloc(priors->byte_size);
  if (!priors->data) {
    zyn_report(kPriorMemory);
    return nullptr;  // On purpose: the header is lost and stays counted.
  }
  const auto input_width = static_cast<float>(width), input_height = static_cast<float>(height);
  const float laid_width = transposed ? input_height : input_width;
  const float laid_height = transposed ? input_width : input_height;
  auto* to = static_cast<float*>(priors->data);
  for (int32_t k = 0; k < kLevels; k++) {
    // On purpose: the shrink factors are those of the input before the turn, also when
    // the grid and the sizes are turned.
    const float shrink_x = input_width / static_cast<float>(maps.columns[k]);
    const float shrink_y = input_height / static_cast<float>(maps.rows[k]);
    const level_grid grid{transposed ? maps.rows[k] : maps.columns[k],
                          transposed ? maps.columns[k] : maps.rows[k], laid_width / shrink_x,
                          laid_height / shrink_y};
    to = write_level(to, grid, kMinSizes[k], laid_width, laid_height);
  }
  return priors;
}

void zyn_convert_locations_to_boxes(float* boxes, const float* locations, const float* priors,
                                    int32_t count, float center_variance, float size_variance) {
  const __m256 center = _mm256_set1_ps(center_variance), size = _mm256_set1_ps(size_variance);
  const int64_t floats = static_cast<int64_t>(count) * kBoxFloats;
  int64_t i = 0;
  for (; i <= floats - 2 * kBoxFloats; i += 2 * kBoxFloats)
    _mm256_storeu_ps(boxes + i, decode(_mm256_loadu_ps(locations + i), _mm256_loadu_ps(priors + i),
                                       center, size));
  if (i >= floats) return;
  const __m256 last = decode(_mm256_zextps128_ps256(_mm_loadu_ps(locations + i)),
                             _mm256_zextps128_ps256(_mm_loadu_ps(priors + i)), center, size);
  _mm_storeu_ps(boxes + i, _mm256_castps256_ps128(last));
}

void zyn_center_form_to_corner_form(float* boxes, int32_t count) {
  for (int64_t i = 0; i < static_cast<int64_t>(count) * kBoxFloats; i += kBoxFloats) {
    float* box = boxes + i;
    const float half_width = 0.5f * box[2], half_height = 0.5f * box[3];
    const float cx = box[0], cy = box[1];
    box[0] = cx - half_width;
    box[1] = cy - half_height;
    box[2] = cx + half_width;
    box[3] = cy + half_height;
  }
}

// What users do with a network's output tensors: interleaved channel order, softmax
// over groups, fixed point to float. Nothing allocates or reports. Tails are read
// with masks or one by one, so that no byte past a block is touched.
#include <immintrin.h>
#include <math.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "matrix/zyn_math.h"
#include "matrix/zyn_tensor.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int64_t kWord = 4;  // bytes of an element, whatever the type code says

// Pixels that are converted together: their part of every channel fills whole cache
// lines, and their interleaved rows stay in the first cache.
constexpr int64_t kTile = 16;

bool holds_words(const zyn_tensor* tensor, int64_t count) {
  return tensor->data && tensor->byte_size / kWord >= count;
}

bool disjoint(const void* a, int64_t a_bytes, const void* b, int64_t b_bytes) {
  const auto first = reinterpret_cast<uintptr_t>(a), second = reinterpret_cast<uintptr_t>(b);
  return first + static_cast<uint64_t>(a_bytes) <= second ||
         second + static_cast<uint64_t>(b_bytes) <= first;
}

// ---- layouts

// One image of pixels * channels words.
struct image_words {
  const float* source;
  float* destination;
  int64_t pixels;
  int64_t channels;
};

// False when the conversion's arguments are not what both converters demand.
bool take_image(zyn_tensor* destination, const zyn_tensor* source, uint32_t layout,
                image_words* image) {
  if (!destination || !source || destination->dim_count < 3 || source->dim_count < 3) return false;
  if (destination->count != source->count || source->layout != layout) return false;
  const int32_t* dims = source->dims;
  *image = {static_cast<const float*>(source->data), static_cast<float*>(destination->data), 0, 0};
  if (dims[0] > 0 && dims[1] > 0 && dims[2] > 0) {
    image->pixels = static_cast<int64_t>(dims[0]) * dims[1];
    image->channels = dims[2];
  }
  int64_t words = 0;
  return zyn_multiply(image->pixels, image->channels, &words) && words <= source->count &&
         holds_words(source, words) && holds_words(destination, words);
}

int32_t refuse_image(const zyn_tensor* destination, const zyn_tensor* source, uint32_t layout) {
  if (!destination || !source) return zyn_refuse_null("the destination or the source");
  return zyn_refuse(ZYN_RET_ERR_PARA,
                    "two tensors with data of one size, 3 dimensions or more and 4 bytes an "
                    "element are needed, the source in layout %u, found %s from %s in layout %u",
                    layout, zyn_extents_text(destination->dim_count, destination->dims).text,
                    zyn_extents_text(source->dim_count, source->dims).text, source->layout);
}

// Rows of four words become columns.
void transpose4(__m128 row[4]) {
  const __m128 a = _mm_unpacklo_ps(row[0], row[1]), b = _mm_unpackhi_ps(row[0], row[1]);
  const __m128 c = _mm_unpacklo_ps(row[2], row[3]), d = _mm_unpackhi_ps(row[2], row[3]);
  row[0] = _mm_movelh_ps(a, c);
  row[1] = _mm_movehl_ps(c, a);
  row[2] = _mm_movelh_ps(b, d);
  row[3] = _mm_movehl_ps(d, b);
}

template <int Count>
void store_first(float* out, __m128 value) {
  if constexpr (Count == 4) {
    _mm_storeu_ps(out, value);
  } else {
    if constexpr (Count >= 2) _mm_storel_pi(reinterpret_cast<__m64*>(out), value);
    if constexpr (Count == 1) _mm_store_ss(out, value);
    if constexpr (Count == 3) _mm_store_ss(out + 2, _mm_movehl_ps(value, value));
  }
}

// Pixels first to last of Count channels from channel on.
template <int Count>
void interleave(const image_words& image, int64_t channel, int64_t first, int64_t last) {
  const float* in = image.source + channel * image.pixels;
  float* out = image.destination + channel;
  int64_t p = first;
  for (; p + 4 <= last; p += 4) {
    __m128 row[4] = {};
    ZYN_UNROLL for (int c = 0; c < Count; c++) row[c] = _mm_loadu_ps(in + c * image.pixels + p);
    transpose4(row);
    ZYN_UNROLL for (int i = 0; i < 4; i++)
        store_first<Count>(out + (p + i) * image.channels, row[i]);
  }
  for (; p < last; p++)
    for (int c = 0; c < Count; c++) out[p * image.channels + c] = in[c * image.pixels + p];
}

void interleave_tail(const image_words& image, int64_t channel, int64_t first, int64_t last) {
  switch (image.channels - channel) {
    case 1:
      return interleave<1>(image, channel, first, last);
    case 2:
      return interleave<2>(image, channel, first, last);
    case 3:
      return interleave<3>(image, channel, first, last);
    default:
      return;
  }
}

// Pixels first to last of a block of 8 or 4 channels that starts at channel.
template <int Count>
void spread(const image_words& image, int64_t channel, int64_t first, int64_t last) {
  static_assert(Count == 8 || Count == 4, "the block sizes with vectors of their own");
  const float* in = image.source + channel * image.pixels;
  float* out = image.destination + channel;
  for (int64_t p = first; p < last; p++) {
    if constexpr (Count == 8)
      _mm256_storeu_ps(out + p * image.channels, _mm256_loadu_ps(in + p * Count));
    else
      _mm_storeu_ps(out + p * image.channels, _mm_loadu_ps(in + p * Count));
  }
}

// ---- softmax

// Sum of eight lanes; the order is part of the result: ((0+4)+(2+6)) + ((1+5)+(3+7)).
template <typename T, typename Add>
T sum_in_order(const T (&e)[8], Add add) {
  return add(add(add(e[0], e[4]), add(e[2], e[6])), add(add(e[1], e[5]), add(e[3], e[7])));
}

// The maximum to subtract from a group with the maximum m and the sum s.
__m256 shift(__m256 m, __m256 s) {
  const __m256 empty = _mm256_cmp_ps(s, _mm256_setzero_ps(), _CMP_EQ_OQ);
  return _mm256_blendv_ps(_mm256_add_ps(m, zyn_log8(s)), _mm256_sub_ps(m, _mm256_set1_ps(100.0f)),
                          empty);
}

// One group of n elements, in blocks of 8: element i counts in lane i % 8. What the
// group's exponentials are shifted by, in every lane.
__m256 group_shift(const float* x, int64_t n) {
  __m256 m = _mm256_set1_ps(-3.4028235e38f);
  for (int64_t i = 0; i < n; i += 8) {
    const __m256i fill = zyn_first_lanes(n - i);
    // The second operand passes where the first is not a number.
    const __m256 v =
        _mm256_blendv_ps(m, _mm256_maskload_ps(x + i, fill), _mm256_castsi256_ps(fill));
    m = _mm256_max_ps(v, m);
  }
  m = _mm256_max_ps(m, _mm256_permute2f128_ps(m, m, 1));
  m = _mm256_max_ps(m, _mm256_permute_ps(m, 0x4E));
  m = _mm256_max_ps(m, _mm256_permute_ps(m, 0xB1));
  __m256 s = _mm256_setzero_ps();
  for (int64_t i = 0; i < n; i += 8) {
    const __m256i fill = zyn_first_lanes(n - i);
    const __m256 e = zyn_exp8(_mm256_sub_ps(_mm256_maskload_ps(x + i, fill), m));
    s = _mm256_add_ps(s, _mm256_and_ps(e, _mm256_castsi256_ps(fill)));
  }
  alignas(32) float lanes[8];
  _mm256_store_ps(lanes, s);
  const float sum = sum_in_order(lanes, [](float a, float b) { return a + b; });
  return shift(m, _mm256_set1_ps(sum));
}

// One group; in place or apart.
void softmax_group(float* y, const float* x, int64_t n) {
  const __m256 m = group_shift(x, n);
  for (int64_t i = 0; i < n; i += 8) {
    const __m256i fill = zyn_first_lanes(n - i);
    const __m256 e = zyn_exp8(_mm256_sub_ps(_mm256_maskload_ps(x + i, fill), m));
    _mm256_maskstore_ps(y + i, fill, e);
  }
}

// One group whose blocks overlap: every element is read just before its result is
// written.
void softmax_group_overlapping(float* y, const float* x, int64_t n) {
  const float m = _mm256_cvtss_f32(group_shift(x, n));
  for (int64_t i = 0; i < n; i++) y[i] = zyn_exp1(x[i] - m);
}

// Eight groups of N <= 8 elements at a time, one a lane; element j of a group takes
// lane j's place in the sum. Returns the number of groups done.
template <int N>
int64_t softmax_small(float* y, const float* x, int64_t groups) {
  const __m256i first =
      _mm256_mullo_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), _mm256_set1_epi32(N));
  int64_t g = 0;
  for (; g + 8 <= groups; g += 8, x += 8 * N, y += 8 * N) {
    __m256 v[N], m = _mm256_set1_ps(-3.4028235e38f), e[8];
    ZYN_UNROLL for (int j = 0; j < N; j++) {
      v[j] = _mm256_i32gather_ps(x + j, first, 4);
      m = _mm256_max_ps(v[j], m);
    }
    ZYN_UNROLL for (int j = 0; j < 8; j++) e[j] =
        j < N ? zyn_exp8(_mm256_sub_ps(v[j < N ? j : 0], m)) : _mm256_setzero_ps();
    m = shift(m, sum_in_order(e, [](__m256 a, __m256 b) { return _mm256_add_ps(a, b); }));
    alignas(32) float columns[N][8];
    ZYN_UNROLL for (int j = 0; j < N; j++)
        _mm256_store_ps(columns[j], zyn_exp8(_mm256_sub_ps(v[j], m)));
    for (int lane = 0; lane < 8; lane++)
      ZYN_UNROLL for (int j = 0; j < N; j++) y[lane * N + j] = columns[j][lane];
  }
  return g;
}

int64_t softmax_small_groups(float* y, const float* x, int64_t groups, int32_t n) {
  switch (n) {
    case 1:
      return softmax_small<1>(y, x, groups);
    case 2:
      return softmax_small<2>(y, x, groups);
    case 3:
      return softmax_small<3>(y, x, groups);
    case 4:
      return softmax_small<4>(y, x, groups);
    case 5:
      return softmax_small<5>(y, x, groups);
    case 6:
      return softmax_small<6>(y, x, groups);
    case 7:
      return softmax_small<7>(y, x, groups);
    case 8:
      return softmax_small<8>(y, x, groups);
    default:
      return 0;
  }
}

bool same_shape(const zyn_tensor* a, const zyn_tensor* b) {
  if (a->dim_count != b->dim_count || a->dim_count < 1 || a->dim_count > 5) return false;
  for (int32_t i = 0; i < a->dim_count; i++)
    if (a->dims[i] != b->dims[i]) return false;
  return a->count == b->count;
}

}  // namespace

int32_t zyn_tensor_convert_NCHW2NHWC(zyn_tensor* destination, const zyn_tensor* source) {
  image_words image;
  if (!take_image(destination, source, ZYN_LAYOUT_PLANAR, &image))
    return refuse_image(destination, source, ZYN_LAYOUT_PLANAR);
  for (int64_t p = 0; p < image.pixels; p += kTile) {
    const int64_t last = p + kTile < image.pixels ? p + kTile : image.pixels;
    int64_t c = 0;
    for (; c + 4 <= image.channels; c += 4) interleave<4>(image, c, p, last);
    interleave_tail(image, c, p, last);
  }
  destination->layout = ZYN_LAYOUT_INTERLEAVED;
  return ZYN_RET_OK;
}

int32_t zyn_tensor_convert_NHWG2NHWC(zyn_tensor* destination, const zyn_tensor* source) {
  image_words image;
  if (!take_image(destination, source, ZYN_LAYOUT_BLOCKED, &image))
    return refuse_image(destination, source, ZYN_LAYOUT_BLOCKED);
  for (int64_t p = 0; p < image.pixels; p += kTile) {
    const int64_t last = p + kTile < image.pixels ? p + kTile : image.pixels;
    int64_t c = 0;
    for (; c + 8 <= image.channels; c += 8) spread<8>(image, c, p, last);
    for (; c + 4 <= image.channels; c += 4) spread<4>(image, c, p, last);
    interleave_tail(image, c, p, last);  // single channels are planes
  }
  destination->layout = ZYN_LAYOUT_INTERLEAVED;
  return ZYN_RET_OK;
}

static int32_t refuse_groups(const zyn_tensor* destination, const zyn_tensor* source,
                             int32_t group_size) {
  return zyn_refuse(ZYN_RET_ERR_PARA,
                    "two tensors of floats of one shape that hold groups of %d are needed, found "
                    "%s from %s",
                    group_size, zyn_extents_text(destination->dim_count, destination->dims).text,
                    zyn_extents_text(source->dim_count, source->dims).text);
}

int32_t zyn_tensor_softmax(zyn_tensor* destination, const zyn_tensor* source, int32_t group_size) {
  if (!destination || !source) return zyn_refuse_null("the destination or the source");
  if (group_size < 1 || !same_shape(destination, source))
    return refuse_groups(destination, source, group_size);
  const int64_t groups = source->count / group_size;
  const int64_t words = groups * group_size;
  if (groups < 1 || !holds_words(source, words) || !holds_words(destination, words))
    return refuse_groups(destination, source, group_size);
  const auto* x = static_cast<const float*>(source->data);
  auto* y = static_cast<float*>(destination->data);
  const bool apart = x == y || disjoint(x, words * kWord, y, words * kWord);
  for (int64_t g = apart ? softmax_small_groups(y, x, groups, group_size) : 0; g < groups; g++) {
    const int64_t at = g * group_size;
    if (apart)
      softmax_group(y + at, x + at, group_size);
    else
      softmax_group_overlapping(y + at, x + at, group_size);
  }
  return ZYN_RET_OK;
}

int32_t zyn_tensor_transform_data_from_fpi16_to_real32(zyn_tensor* destination,
                                                       const zyn_tensor* source, int32_t count,
                                                       uint32_t q) {
  if (!destination || !source || !destination->data || !source->data)
    return zyn_refuse_null("the destination, the source or the data of one");
  if (destination->count < count || source->count < count || q >= 16 ||
      source->type != ZYN_TYPE_FPI16 || destination->type != ZYN_TYPE_F32)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "%d elements from type 3 to type 6 with q of 0 to 15 are needed, found %lld "
                      "of type %u, %lld of type %u, q %u",
                      count, static_cast<long long>(source->count), source->type,
                      static_cast<long long>(destination->count), destination->type, q);
  const auto* x = static_cast<const int16_t*>(source->data);
  auto* y = static_cast<float*>(destination->data);
  const float scale = 1.0f / static_cast<float>(1 << q);
  const __m256 scales = _mm256_set1_ps(scale);
  int32_t i = 0;
  if (count > 0 && disjoint(x, int64_t{2} * count, y, kWord * count))
    for (; i + 32 <= count; i += 32) ZYN_UNROLL for (int k = 0; k < 32; k += 8) {
        const __m128i words = _mm_loadu_si128(reinterpret_cast<const __m128i*>(x + i + k));
        const __m256 v = _mm256_cvtepi32_ps(_mm256_cvtepi16_epi32(words));
        _mm256_storeu_ps(y + i + k, _mm256_mul_ps(v, scales));
      }
  for (; i < count; i++) y[i] = static_cast<float>(x[i]) * scale;
  return ZYN_RET_OK;
}

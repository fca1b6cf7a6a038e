// Packed 8-bit pixels into the planes that the networks take: three planes of rows *
// cols values, row after row. Eight pixels (24 bytes) make a block; what is left of a
// row runs as a block of its own on the stack, so that nothing beyond a row is
// touched.
#include <immintrin.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "zyncore.h"

namespace {

constexpr int32_t kBlock = 8;     // pixels
constexpr int32_t kChannels = 3;  // bytes of a pixel

// Byte c of eight pixels as 32-bit lanes. v holds pixels 0 to 3 at the start of its
// lower half and pixels 4 to 7 from byte 4 of its upper half: two overlapping loads
// of 16 bytes read exactly the 24 bytes of the block.
template <int c>
__m256i channel(__m256i v) {
  const __m256i order = _mm256_setr_epi8(
      c, -1, -1, -1, c + 3, -1, -1, -1, c + 6, -1, -1, -1, c + 9, -1, -1, -1,  //
      c + 4, -1, -1, -1, c + 7, -1, -1, -1, c + 10, -1, -1, -1, c + 13, -1, -1, -1);
  return _mm256_shuffle_epi8(v, order);
}

void store_words(int16_t* to, __m256i values) {
  const __m256i halves = _mm256_packs_epi32(values, values);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to),
                   _mm256_castsi256_si128(_mm256_permute4x64_epi64(halves, 0x08)));
}

// What a byte becomes. Each form stores the eight values of one channel.

// (byte - 127.5) / 128: exact in every step, fused or not.
struct ssd_float {
  using element = float;
  static void store(float* to, __m256i bytes) {
    const __m256 scale = _mm256_set1_ps(1.0f / 128), offset = _mm256_set1_ps(-127.5f / 128);
    _mm256_storeu_ps(to, _mm256_fmadd_ps(_mm256_cvtepi32_ps(bytes), scale, offset));
  }
};

// byte - 127.
struct ssd_word {
  using element = int16_t;
  static void store(int16_t* to, __m256i bytes) {
    store_words(to, _mm256_sub_epi32(bytes, _mm256_set1_epi32(127)));
  }
};

// On purpose: byte / 255 written to seven decimals and then taken as a float, which is
// not the float next to byte / 255. The decimals as an integer are round(byte * 10^7 /
// 255) = 39216 * byte - round(byte * 16 / 51), exact in floats; the quotient by 10^7
// gets one Newton step, after which it is the correctly rounded one for all 256 bytes.
struct pfld_float {
  using element = float;
  static void store(float* to, __m256i bytes) {
    const __m256 byte = _mm256_cvtepi32_ps(bytes);
    const __m256 excess = _mm256_round_ps(_mm256_mul_ps(byte, _mm256_set1_ps(16.0f / 51)),
                                          _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    const __m256 decimals = _mm256_fmsub_ps(byte, _mm256_set1_ps(39216), excess);
    const __m256 inverse = _mm256_set1_ps(1e-7f);
    const __m256 quotient = _mm256_mul_ps(decimals, inverse);
    const __m256 rest = _mm256_fnmadd_ps(quotient, _mm256_set1_ps(1e7f), decimals);
    _mm256_storeu_ps(to, _mm256_fmadd_ps(rest, inverse, quotient));
  }
};

// truncate(byte * 2^14 / 255), the product in single precision.
struct pfld_word {
  using element = int16_t;
  static void store(int16_t* to, __m256i bytes) {
    const __m256 scaled =
        _mm256_mul_ps(_mm256_cvtepi32_ps(bytes), _mm256_set1_ps(16384.0f / 255.0f));
    store_words(to, _mm256_cvttps_epi32(scaled));
  }
};

// to[c] takes byte c of every pixel.
template <typename Form>
void convert_block(typename Form::element* const to[kChannels], const uint8_t* pixels) {
  const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels));
  const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels + 8));
  const __m256i v = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
  Form::store(to[0], channel<0>(v));
  Form::store(to[1], channel<1>(v));
  Form::store(to[2], channel<2>(v));
}

template <typename Form>
void convert_row(typename Form::element* const to[kChannels], const uint8_t* pixels,
                 int64_t count) {
  using element = typename Form::element;
  int64_t x = 0;
  for (; x <= count - kBlock; x += kBlock) {
    element* const block[kChannels] = {to[0] + x, to[1] + x, to[2] + x};
    convert_block<Form>(block, pixels + x * kChannels);
  }
  const auto rest = static_cast<size_t>(count - x);
  if (rest == 0) return;
  uint8_t padded[kBlock * kChannels] = {};
  element values[kChannels][kBlock];
  element* const block[kChannels] = {values[0], values[1], values[2]};
  memcpy(padded, pixels + x * kChannels, rest * kChannels);
  convert_block<Form>(block, padded);
  for (int32_t c = 0; c < kChannels; c++) memcpy(to[c] + x, values[c], rest * sizeof(element));
}

// kReversed: plane 0 takes byte 2 of the pixels, plane 2 byte 0.
template <typename Form, bool kReversed>
void convert(zyn_tensor* tensor, const zyn_image* image) {
  using element = typename Form::element;
  if (!tensor || !tensor->data || !image || !image->data) {
    zyn_refuse_null("the tensor, the image or the data of one");
    return;
  }
  if (image->rows < 1 || image->cols < 1) return;
  const int64_t plane = static_cast<int64_t>(image->rows) * image->cols;
  auto* first = static_cast<element*>(tensor->data);
  // Rows without padding are one long row.
  const bool tight = image->row_bytes == static_cast<int64_t>(image->cols) * kChannels;
  const int64_t rows = tight ? 1 : image->rows;
  const int64_t cols = tight ? plane : image->cols;
  for (int64_t y = 0; y < rows; y++) {
    element* const row = first + y * cols;
    element* const to[kChannels] = {row + (kReversed ? 2 * plane : 0), row + plane,
                                    row + (kReversed ? 0 : 2 * plane)};
    convert_row<Form>(to, static_cast<const uint8_t*>(image->data) + y * image->row_bytes, cols);
  }
}

}  // namespace

void zyn_transform_image_data_for_ssd_detector(zyn_tensor* tensor, const zyn_image* image) {
  convert<ssd_float, true>(tensor, image);
}

void zyn_transform_image_data_for_ssd_detector_rgb24(zyn_tensor* tensor, const zyn_image* image) {
  convert<ssd_float, false>(tensor, image);
}

void zyn_transform_image_data_for_ssd_detector_fp16(zyn_tensor* tensor, const zyn_image* image) {
  convert<ssd_word, true>(tensor, image);
}

void zyn_transform_image_data_for_ssd_detector_rgb24_fp16(zyn_tensor* tensor,
                                                          const zyn_image* image) {
  convert<ssd_word, false>(tensor, image);
}

void zyn_transform_image_data_for_pfld_detector(zyn_tensor* tensor, const zyn_image* image) {
  convert<pfld_float, false>(tensor, image);
}

void zyn_transform_image_data_for_pfld_detector_rgb24(zyn_tensor* tensor, const zyn_image* image) {
  convert<pfld_float, true>(tensor, image);
}

void zyn_transform_image_data_for_pfld_detector_fp16(zyn_tensor* tensor, const zyn_image* image) {
  convert<pfld_word, false>(tensor, image);
}

void zyn_transform_image_data_for_pfld_detector_rgb24_fp16(zyn_tensor* tensor,
                                                           const zyn_image* image) {
  convert<pfld_word, true>(tensor, image);
}

int32_t zyn_convert_rgba_to_rgb(uint8_t* destination, const uint8_t* source, int32_t width,
                                int32_t height) {
  if (!destination || !source) return zyn_refuse_null("the destination or the source");
  if (width < 1 || height < 1) return ZYN_RET_OK;
  const int64_t count = static_cast<int64_t>(width) * height;
  const __m256i drop = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                        0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const __m256i join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  int64_t i = 0;
  for (; i <= count - kBlock; i += kBlock) {
    const __m256i pixels = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(source + 4 * i));
    const __m256i packed = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(pixels, drop), join);
    uint8_t* to = destination + 3 * i;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm256_castsi256_si128(packed));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to + 16), _mm256_extracti128_si256(packed, 1));
  }
  for (; i < count; i++)
    for (int32_t c = 0; c < kChannels; c++) destination[3 * i + c] = source[4 * i + c];
  return ZYN_RET_OK;
}

// Rows of pixel arithmetic.
#include "image/zyn_image_rows.h"

#include <string.h>

namespace {

constexpr uint32_t kGrayBlue = 1868, kGrayGreen = 9617, kGrayRed = 4899;  // 14 bits

uint8_t gray_of(const uint8_t* bgr) {
  return static_cast<uint8_t>(
      (kGrayBlue * bgr[0] + kGrayGreen * bgr[1] + kGrayRed * bgr[2] + 8192) >> 14);
}

uint8_t clamp_byte(int32_t value) {
  return static_cast<uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
}

void yuv_pixel(uint8_t* bgr, int32_t y, int32_t u, int32_t v) {
  const int32_t luma = 9535 * (y - 16) + 4096;
  bgr[0] = clamp_byte((luma + 16531 * (u - 128)) >> 13);
  bgr[1] = clamp_byte((luma - 6660 * (v - 128) - 3203 * (u - 128)) >> 13);
  bgr[2] = clamp_byte((luma + 13074 * (v - 128)) >> 13);
}

}  // namespace

void zyn_gray_row(uint8_t* gray, const uint8_t* bgr, int64_t count) {
  for (int64_t i = 0; i < count; i++) gray[i] = gray_of(bgr + 3 * i);
}

void zyn_gray3_row(uint8_t* gray, const uint8_t* bgr, int64_t count) {
  for (int64_t i = 0; i < count; i++)
    gray[3 * i] = gray[3 * i + 1] = gray[3 * i + 2] = gray_of(bgr + 3 * i);
}

void zyn_swap3_row(uint8_t* destination, const uint8_t* source, int64_t count) {
  for (int64_t i = 0; i < 3 * count; i += 3) {
    const uint8_t first = source[i];
    destination[i] = source[i + 2];
    destination[i + 1] = source[i + 1];
    destination[i + 2] = first;
  }
}

void zyn_swap4_row(uint8_t* destination, const uint8_t* source, int64_t count) {
  for (int64_t i = 0; i < 4 * count; i += 4) {
    const uint8_t first = source[i];
    destination[i] = source[i + 2];
    destination[i + 1] = source[i + 1];
    destination[i + 2] = first;
    destination[i + 3] = source[i + 3];
  }
}

void zyn_swap48_row(uint8_t* destination, const uint8_t* source, int64_t count) {
  for (int64_t i = 0; i < 6 * count; i += 6) {
    uint16_t pixel[3];
    memcpy(pixel, source + i, 6);
    const uint16_t exchanged[3] = {pixel[2], pixel[1], pixel[0]};
    memcpy(destination + i, exchanged, 6);
  }
}

void zyn_split_row(uint8_t* p0, uint8_t* p1, uint8_t* p2, const uint8_t* packed, int64_t count) {
  for (int64_t i = 0; i < count; i++) {
    p0[i] = packed[3 * i];
    p1[i] = packed[3 * i + 1];
    p2[i] = packed[3 * i + 2];
  }
}

void zyn_merge_row(uint8_t* packed, const uint8_t* p0, const uint8_t* p1, const uint8_t* p2,
                   int64_t count) {
  for (int64_t i = 0; i < count; i++) {
    packed[3 * i] = p0[i];
    packed[3 * i + 1] = p1[i];
    packed[3 * i + 2] = p2[i];
  }
}

void zyn_luma_row(uint8_t* luma, const uint8_t* bgr, int64_t count) {
  for (int64_t i = 0; i < count; i++, bgr += 3)
    luma[i] =
        static_cast<uint8_t>(((3211 * bgr[0] + 16515 * bgr[1] + 8421 * bgr[2] + 16384) >> 15) + 16);
}

void zyn_chroma_row(uint8_t* u, uint8_t* v, const uint8_t* upper, const uint8_t* lower,
                    int64_t count) {
  for (int64_t i = 0; i < count; i++, upper += 6, lower += 6) {
    int32_t mean[3];
    for (int c = 0; c < 3; c++)
      mean[c] = (upper[c] + upper[c + 3] + lower[c] + lower[c + 3] + 2) >> 2;
    u[i] = static_cast<uint8_t>(
        ((14385 * mean[0] - 9535 * mean[1] - 4850 * mean[2] + 16384) >> 15) + 128);
    v[i] = static_cast<uint8_t>(
        ((14385 * mean[2] - 12059 * mean[1] - 2327 * mean[0] + 16384) >> 15) + 128);
  }
}

void zyn_yuv_to_bgr_row(uint8_t* bgr, const uint8_t* luma, const uint8_t* u, const uint8_t* v,
                        int64_t count) {
  for (int64_t i = 0; i < count; i++) yuv_pixel(bgr + 3 * i, luma[i], u[i / 2], v[i / 2]);
}

void zyn_bgr_to_opponent_row(uint8_t* opponent, const uint8_t* bgr, int64_t count) {
  for (int64_t i = 0; i < 3 * count; i += 3) {
    const int32_t blue = bgr[i], green = bgr[i + 1], red = bgr[i + 2];
    const int32_t warm = (red - blue) >> 1;
    const int32_t middle = blue + warm;
    const int32_t leaf = (green - middle) >> 1;
    opponent[i] = static_cast<uint8_t>(middle + leaf - 128);
    opponent[i + 1] = static_cast<uint8_t>(leaf);
    opponent[i + 2] = static_cast<uint8_t>(warm);
  }
}

void zyn_opponent_to_bgr_row(uint8_t* bgr, const uint8_t* opponent, int64_t count) {
  for (int64_t i = 0; i < 3 * count; i += 3) {
    const int32_t lightness = static_cast<int8_t>(opponent[i]) + 128;
    const int32_t leaf = static_cast<int8_t>(opponent[i + 1]);
    const int32_t warm = static_cast<int8_t>(opponent[i + 2]);
    const int32_t middle = lightness - leaf;
    bgr[i] = clamp_byte(middle - warm);
    bgr[i + 1] = clamp_byte(middle + 2 * leaf);
    bgr[i + 2] = clamp_byte(middle + warm);
  }
}

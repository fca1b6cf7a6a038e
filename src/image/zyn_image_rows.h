// Pixel arithmetic on rows: count pixels from one place to another, integer formulas
// only. Packed pixels are blue, green, red. In-place use (same first byte) is allowed
// where the pixel size stays.
#pragma once

#include <stdint.h>

// Grey into one byte, or into all three bytes of a pixel.
void zyn_gray_row(uint8_t* gray, const uint8_t* bgr, int64_t count);
void zyn_gray3_row(uint8_t* gray, const uint8_t* bgr, int64_t count);

// Exchanges values 0 and 2 of pixels of 3 or 4 bytes, or of three 16-bit values.
void zyn_swap3_row(uint8_t* destination, const uint8_t* source, int64_t count);
void zyn_swap4_row(uint8_t* destination, const uint8_t* source, int64_t count);
void zyn_swap48_row(uint8_t* destination, const uint8_t* source, int64_t count);

// Three planes and back.
void zyn_split_row(uint8_t* p0, uint8_t* p1, uint8_t* p2, const uint8_t* packed, int64_t count);
void zyn_merge_row(uint8_t* packed, const uint8_t* p0, const uint8_t* p1, const uint8_t* p2,
                   int64_t count);

// Limited-range luma of a row; chroma of count 2 x 2 blocks, from the rounded mean of
// each block's colours.
void zyn_luma_row(uint8_t* luma, const uint8_t* bgr, int64_t count);
void zyn_chroma_row(uint8_t* u, uint8_t* v, const uint8_t* upper, const uint8_t* lower,
                    int64_t count);

// Two rows of count pixels that share a row of chroma, one sample for two pixels. The
// rows may be the same.
void zyn_yuv_to_bgr_rows(uint8_t* upper, uint8_t* lower, const uint8_t* y0, const uint8_t* y1,
                         const uint8_t* u, const uint8_t* v, int64_t count);

// Signed opponent colours (format 8) and back.
void zyn_bgr_to_opponent_row(uint8_t* opponent, const uint8_t* bgr, int64_t count);
void zyn_opponent_to_bgr_row(uint8_t* bgr, const uint8_t* opponent, int64_t count);

// Everything on 16-bit fixed point but the convolutions. q is 0 to 15 unless a function
// says otherwise; right
// shifts round to nearest (halves up), results keep their low 16 bits unless a function
// says otherwise. out and in may be the same block.
#pragma once

#include <stdint.h>

// max(x, 0) and min(max(x, 0), 6).
void zyn_fpi_relu(int16_t* out, const int16_t* in, int64_t count);
void zyn_fpi_relu6(int16_t* out, const int16_t* in, int64_t count, int32_t q);

// x * min(max(x + 3, 0), 6) / 6: with c = 1/6 rounded to q_out bits, the gate times c is
// rounded to q_out bits, then multiplied by x and rounded again.
void zyn_fpi_hard_swish(int16_t* out, int32_t q_out, const int16_t* in, int32_t q_in,
                        int64_t count);

// The same in place for any q: above 15 in 64 bits; from 1 down 1/6 is 0, and so is all.
void zyn_fpi_hard_swish_any(int16_t* values, int64_t count, int32_t q);

// 1 / (1 + e^-x) with 15 fraction bits, rounded to nearest, at most 32767.
void zyn_fpi_sigmoid(int16_t* out, const int16_t* in, int32_t q_in, int64_t count);

// out = x brought from q_in to q_out.
void zyn_fpi_rescale(int16_t* out, int32_t q_out, const int16_t* in, int32_t q_in, int64_t count);

// Where an operand comes from: count values, or one value for all.
struct zyn_fpi_operand {
  const int16_t* values;
  int32_t q;
  bool is_single;
};
// a + b, a - b, the larger and the smaller one, both brought to q_out first.
void zyn_fpi_add(int16_t* out, int32_t q_out, const zyn_fpi_operand& a, const zyn_fpi_operand& b,
                 int64_t count);
void zyn_fpi_subtract(int16_t* out, int32_t q_out, const zyn_fpi_operand& a,
                      const zyn_fpi_operand& b, int64_t count);
void zyn_fpi_max(int16_t* out, int32_t q_out, const zyn_fpi_operand& a, const zyn_fpi_operand& b,
                 int64_t count);
void zyn_fpi_min(int16_t* out, int32_t q_out, const zyn_fpi_operand& a, const zyn_fpi_operand& b,
                 int64_t count);
// (a * b) >> (q_a + q_b - q_out), which is not negative.
void zyn_fpi_multiply(int16_t* out, int32_t q_out, const zyn_fpi_operand& a,
                      const zyn_fpi_operand& b, int64_t count);

// Largest value and mean of k x k windows of one plane that advance by k; windows without
// an output are passed over, part windows use what is inside (the mean divides by k * k
// all the same), outputs without a window become 0. The mean is rounded to nearest and
// then brought to q_out.
struct zyn_fpi_pool {
  int64_t width, height, out_width, out_height, k;
};
void zyn_fpi_max_pool(int16_t* out, const int16_t* in, const zyn_fpi_pool& shape);
void zyn_fpi_average_pool(int16_t* out, int32_t q_out, const int16_t* in, int32_t q_in,
                          const zyn_fpi_pool& shape);

// out[j] = (sum of in[i] * weights[j * features + i]) >> shift, in 64 bits.
void zyn_fpi_linear(int16_t* out, int64_t units, const int16_t* in, const int16_t* weights,
                    int64_t features, int32_t shift);

// out = (x * multiplier + offset) >> shift in 64 bits, rounded to nearest.
struct zyn_fpi_scale {
  int32_t multiplier;
  int32_t shift;  // 1 to 62
  int64_t offset;
};
// The scale for y = x * factor + term from q_in to q_out; false where it cannot be held.
bool zyn_fpi_make_scale(zyn_fpi_scale* scale, double factor, double term, int32_t q_in,
                        int32_t q_out);
void zyn_fpi_apply_scale(int16_t* out, const int16_t* in, int64_t count,
                         const zyn_fpi_scale& scale);

// A pointwise convolution is a product of matrices: weights A (outputs by inputs) and pixels B
// (inputs by pixels). Cut into quarters, it takes seven products of a quarter's size instead of
// eight and fifteen sums (Strassen, "Gaussian elimination is not optimal", 1969, in Winograd's
// form):
//   S1 = A21 + A22, S2 = S1 - A11, S3 = A11 - A21, S4 = A12 - S2
//   T1 = B12 - B11, T2 = B22 - T1, T3 = B22 - B12, T4 = T2 - B21
//   P1 = A11 B11, P2 = A12 B21, P3 = S4 B22, P4 = A22 T4, P5 = S1 T1, P6 = S2 T2, P7 = S3 T3
//   U2 = P1 + P6, U3 = U2 + P7
//   C11 = P1 + P2, C12 = U2 + P5 + P3, C21 = U3 - P4, C22 = U3 + P5
// The first index counts outputs of A and inputs of B, the second inputs of A and pixels.
#pragma once

#include <stdint.h>

// The products in the order in which they are computed.
enum zyn_winograd_product { kP1, kP2, kP6, kP5, kP3, kP7, kP4, kZynWinogradProducts };

// The first factors of the products, of one place in A11, A12, A21 and A22.
void zyn_winograd_quarter_weights(const double (&a)[4], double (&factors)[kZynWinogradProducts]);

// T1 to T4 of count values in each of B11, B12, B21 and B22, a multiple of 8. T4 with the other
// sign: C21 is then U3 + A22 T4.
void zyn_winograd_quarter_inputs(const float* const (&b)[4], int64_t count, float* const (&t)[4]);

// C22 of count values, a multiple of 8, of one block of 8 outputs: U3 + P5, 8 biases and an
// activation (ZYN_EPILOGUE_*).
void zyn_winograd_last_quarter(float* c22, const float* u3, const float* p5, int64_t count,
                               const float* bias, int32_t activation);

// Arithmetic on matrices of floats (type 6) and doubles (type 7). Every function
// returns 0, 1 for arguments that do not fit together, 4 for other element types.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// c = a + b over every page and channel; all three of one shape and type (any channel
// count). c may be a or b.
int32_t zyn_matrix_add(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b);

// Clears every page of a square matrix and writes ones on the first page's diagonal.
// Of another type than 6 and 7 the block is cleared all the same.
int32_t zyn_matrix_set_identity(zyn_matrix* m);

// d = transposed s, one page and one channel, also of 32-bit integers (depths 4, 5). In
// place when both name the same block, which must then be square.
int32_t zyn_matrix_transpose(zyn_matrix* d, const zyn_matrix* s);

// c = alpha * a * op(b) + beta * c, op(b) being b or, with transpose_b non-zero, its
// transposition. alpha and beta point at a value of the matrices' type. With *beta = 0
// the old content of c is not read. Inner extents that differ give 1 without a report;
// the caller guarantees c's rows and b's other extent, and that c is neither a nor b.
int32_t zyn_matrix_gemm(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b,
                        int32_t transpose_b, const void* alpha, const void* beta);

// zyn_matrix_gemm with alpha 1 and beta 0.
int32_t zyn_matrix_multiply(zyn_matrix* c, const zyn_matrix* a, const zyn_matrix* b,
                            int32_t transpose_b);

// Solves a * x = b for x by elimination with partial pivoting. a is overwritten; x may
// share b's block and is overwritten even on failure. 1 (silent): shapes or types do not
// fit; 32: a pivot below the type's epsilon, prints "\nIt's not a full rank matrix\n".
int32_t zyn_solve_linear(zyn_matrix* x, zyn_matrix* a, const zyn_matrix* b);

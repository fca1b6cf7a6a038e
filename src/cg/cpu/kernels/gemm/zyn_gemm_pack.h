// Packers: the operands of a product rearranged so that a micro-kernel reads both as
// running streams.
#pragma once

#include <stdint.h>

// Regroups rows x k floats (rows source_stride floats apart) into blocks of block rows;
// inside a block the block's values of each k stand next to each other. The last block
// is filled up with zero rows: destination holds ceil(rows / block) * block * k floats.
void zyn_gemm_pack_weights(int64_t rows, int64_t k, int64_t block, const float* source,
                           int64_t source_stride, float* destination);

// Regroups k x columns floats into panels of width columns, k-major inside a panel. The
// last panel is filled up with zero columns: destination holds
// ceil(columns / width) * width * k floats.
void zyn_gemm_pack_panels(int64_t k, int64_t columns, int64_t width, const float* source,
                          int64_t source_stride, float* destination);

// The rectangular assignment problem: one column for every row, no column twice, the
// sum of scores as large as possible.
#pragma once

#include <stdint.h>

#include "zyncore.h"

// scores: floats, rows <= cols, overwritten by costs; columns takes one index per row.
// 2: no memory; 256: rows that cannot all be assigned (more rows than columns, or scores
// that are not finite), prints "infeasible cost matrix\n".
int32_t zyn_solve_assignment(zyn_matrix* scores, int32_t* columns);

// The pairs (row, column) of the best assignment for a matrix of floats of any shape,
// min(rows, cols) of them, to be freed with zyn_free. Null on failure.
int32_t* zyn_assignment_pairs(const zyn_matrix* scores);

/* Compiles the public headers as C99, and pins the record layouts that other
 * compilers and languages rely on. */
#include <stddef.h>

#include "zyncore.h"
#include "zyncore_face.h"
#include "zyncore_net.h"

#define HOLDS(name, condition) typedef char name[(condition) ? 1 : -1]

HOLDS(tensor_size, sizeof(zyn_tensor) == 96);
HOLDS(tensor_data, offsetof(zyn_tensor, data) == 8 && offsetof(zyn_tensor, dims) == 16);
HOLDS(tensor_bytes, offsetof(zyn_tensor, byte_size) == 64 && offsetof(zyn_tensor, layout) == 80);
HOLDS(matrix_size, sizeof(zyn_matrix) == 96);
HOLDS(matrix_rows, offsetof(zyn_matrix, rows) == 32 && offsetof(zyn_matrix, row_bytes) == 48);
HOLDS(matrix_format, offsetof(zyn_matrix, owns_data) == 72 && offsetof(zyn_matrix, format) == 88);
HOLDS(darray_size, sizeof(zyn_darray_type) == 32 && sizeof(zyn_darray) == 56);
HOLDS(desc_size, sizeof(zyn_cg_node_desc) == 40 && offsetof(zyn_cg_node_desc, word_b) == 32);
HOLDS(create_param_size, sizeof(zyn_cg_create_param) == 20);
HOLDS(conv_param_size, sizeof(zyn_conv_param) == 64 && offsetof(zyn_conv_param, word14) == 56);
HOLDS(sort_records, sizeof(zyn_detection) == 20 && sizeof(zyn_sort_param) == 16);
HOLDS(match_info, sizeof(zyn_sort_match_info) == 24 && offsetof(zyn_sort_match_info, matched) == 8);
HOLDS(track_info, sizeof(zyn_track_info) == 40 && offsetof(zyn_track_info, payload) == 32);

int zyn_header_compiles(void);
int zyn_header_compiles(void) { return ZYN_RET_OK; }

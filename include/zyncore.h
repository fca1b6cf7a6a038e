/* zyncore: small convolutional networks on one CPU core, and what a face
 * application needs around them.
 *
 * This is the whole public interface: plain C99 records and functions. It also
 * compiles as C++. Everything the library allocates is counted
 * (zyn_get_current_memory_size_occupation) and is released by the function that
 * the description names.
 *
 * Conventions that hold everywhere:
 *  - Functions that can fail return a zyn_ret code (0 is success) or, where they
 *    create something, a pointer (null is failure). A failing call also prints a
 *    report to standard output; where a description says "silent" it does not.
 *  - Release functions take the address of your pointer and set it to null.
 *  - Nothing here is locked. One graph, tracker or image belongs to one thread at
 *    a time; the random generator and the clock's cached frequency are plain globals,
 *    the memory counter is atomic.
 *  - File names are UTF-8 on every system, except those of
 *    zyn_get_specfic_files_for_given_dir.
 *  - Axes: dims[0] is the contiguous extent of a tensor (the row length), dims[1]
 *    the number of rows, dims[2] the number of channels. Operator parameters come
 *    in pairs named _h and _w: the first of a pair (_h) belongs to dims[0], the
 *    second (_w) to dims[1].
 */
#ifndef ZYNCORE_H
#define ZYNCORE_H

#include <stdint.h>

/* The version of this header; zyn_version tells the library's. */
#define ZYN_VERSION_MAJOR 1
#define ZYN_VERSION_MINOR 1
#define ZYN_VERSION_PATCH 0

#if defined(ZYN_STATIC)
#define ZYN_API
#elif defined(_WIN32)
#if defined(ZYN_BUILDING)
#define ZYN_API __declspec(dllexport)
#else
#define ZYN_API __declspec(dllimport)
#endif
#else
#define ZYN_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Return codes and messages                                                 */
/* ------------------------------------------------------------------------ */

/* What a call answers. The values are fixed: the first nine failures are single
 * bits, then they count on by one. A call returns exactly one of them. */
typedef enum zyn_ret {
  ZYN_RET_OK = 0,                 /* success */
  ZYN_RET_ERR_PARA = 1,           /* bad arguments */
  ZYN_RET_ERR_MEMORY = 2,         /* an allocation failed */
  ZYN_RET_ERR_NOT_SUPPORT = 4,    /* valid, but not supported */
  ZYN_RET_ERR_OPEN_FILE = 8,      /* a file could not be opened */
  ZYN_RET_ERR_UNINITIALIZED = 16, /* data not initialised */
  ZYN_RET_ERR_UNKNOWN = 32,       /* no other code fits, for example a cycle */
  ZYN_RET_ERR_END_OF_FILE = 64,   /* end of the file */
  ZYN_RET_ERR_WAITING = 128,      /* a queue is full */
  ZYN_RET_ERR_DATA_LENGTH = 256,  /* a buffer is too short */
  ZYN_RET_ERR_ALREADY_EXISTS = 257,
  ZYN_RET_ERR_NOT_FOUND = 258,
  ZYN_RET_ERR_LOCK = 259 /* no call returns it */
} zyn_ret;

/* The message of every code, in the order of zyn_ret: [0] belongs to code 0, [1]
 * to 1, [2] to 2, [3] to 4, ... [9] to 256, [10] to 257, [11] to 258, [12] to
 * ZYN_RET_ERR_LOCK. NUL-terminated, never null, read-only. */
ZYN_API extern const char* const zyn_error_string[13];

/* ------------------------------------------------------------------------ */
/* Memory                                                                     */
/* ------------------------------------------------------------------------ */

/* Allocates size bytes, aligned to 32 bytes, content uninitialised, and counts
 * them. Null when size < 1 or the system has no memory. Silent. */
ZYN_API void* zyn_malloc(int64_t size);

/* Frees a block of zyn_malloc, or one that a function here hands over and says to
 * free with zyn_free. Null does nothing. */
ZYN_API void zyn_free(void* block);

/* Bytes that the library has handed out and not taken back: the sum of the sizes
 * asked for, without alignment and headers. */
ZYN_API uint64_t zyn_get_current_memory_size_occupation(void);

/* ------------------------------------------------------------------------ */
/* Growable array                                                             */
/* ------------------------------------------------------------------------ */

/* Writes a copy of *source into slot; index is the slot's position. */
typedef void (*zyn_darray_copy_fn)(void* slot, const void* source, int64_t index);
/* Frees what the element in slot owns. */
typedef void (*zyn_darray_free_fn)(void* slot);

/* How an array treats its elements. */
typedef struct zyn_darray_type {
  int64_t element_size;    /* bytes of one element; the low 32 bits count */
  int64_t reserved;        /* 0 */
  zyn_darray_copy_fn copy; /* null: elements are copied byte by byte */
  zyn_darray_free_fn free; /* null: elements own nothing */
} zyn_darray_type;

/* A growable array of equal elements; element i lies at
 * (char*)data + i * type.element_size. */
typedef struct zyn_darray {
  int64_t count;        /* elements in use */
  int64_t capacity;     /* elements that fit in data */
  zyn_darray_type type; /* copy of the descriptor given at creation */
  void* data;           /* a zyn_malloc block, null until the first element */
} zyn_darray;

/* Elements that are NUL-terminated strings (char*) owned by the array:
 * {sizeof(char*), 0, zyn_darray_element_str_cpy, zyn_darray_element_str_free}. */
ZYN_API extern const zyn_darray_type zyn_darray_str_type;

/* Creates an empty array; *type is copied. Null for a null type or without memory
 * (silent). To let it go: type.free on every element (where set), then zyn_free
 * on data and on the record. */
ZYN_API zyn_darray* zyn_create_darray(const zyn_darray_type* type);

/* The callbacks of zyn_darray_str_type. Copying stores a strdup of the string that
 * *(char* const*)source points at (null stays null); freeing calls free() on the
 * string in the slot. Such strings are not counted as library memory. */
ZYN_API void zyn_darray_element_str_cpy(void* slot, const void* source, int64_t index);
ZYN_API void zyn_darray_element_str_free(void* slot);

/* ------------------------------------------------------------------------ */
/* System utilities                                                           */
/* ------------------------------------------------------------------------ */

/* Milliseconds of a monotonic high-resolution clock whose zero is arbitrary; -1.0
 * when it cannot be read. */
ZYN_API double zyn_get_current_system_time(void);

/* major * 10000 + minor * 100 + patch of the library that is loaded. */
ZYN_API uint32_t zyn_version(void);

/* Appends "directory/name" to list (an array of zyn_darray_str_type) for every
 * entry of directory that matches pattern and is not a directory, in name order.
 * The pattern takes * and ?, ignores case, must begin with '*' or have '.' as its
 * second character, and must be at least 3 characters long ("*.bmp", "a.txt").
 * An entry is passed over where directory and name together reach 1024 bytes. On
 * Windows directory, pattern and names are in the system's code page, elsewhere the
 * system's bytes. The working directory of the process changes meanwhile (mind other
 * threads) and is the caller's again afterwards.
 * 0: also when only directories matched; 1: null argument or refused pattern
 * (silent), the directory cannot be entered (prints "chdir %s error\n"), nothing
 * matches (prints "no %s file format in the %s!\n"); 2: no memory (silent), the
 * elements are those from before. */
ZYN_API int32_t zyn_get_specfic_files_for_given_dir(zyn_darray* list, const char* directory,
                                                    const char* pattern);

/* ------------------------------------------------------------------------ */
/* Tensors                                                                    */
/* ------------------------------------------------------------------------ */

/* First field of every container record. */
enum {
  ZYN_KIND_MATRIX = 4,
  ZYN_KIND_ROW_VECTOR = 5,
  ZYN_KIND_COLUMN_VECTOR = 6,
  ZYN_KIND_SCALAR = 7,
  ZYN_KIND_IMAGE = 8,
  ZYN_KIND_TENSOR = 16
};

/* Element type codes. The size of one value is {1, 1, 2, 2, 4, 4, 4, 8}[code & 7];
 * codes 8 to 31 repeat it (in matrices they count channels, see zyn_matrix). */
enum {
  ZYN_TYPE_FPI16 = 3, /* signed 16-bit fixed point: value = v / 2^q */
  ZYN_TYPE_F32 = 6,   /* 32-bit float */
  ZYN_TYPE_F64 = 7    /* 64-bit float */
};

/* Order of the channels in a tensor's block, for dims {W, H, C}. */
enum {
  ZYN_LAYOUT_PLANAR = 0,      /* channel after channel, each H rows of W elements */
  ZYN_LAYOUT_INTERLEAVED = 2, /* pixel after pixel, each with its C channels */
  ZYN_LAYOUT_BLOCKED = 3      /* blocks of 8 channels, then one of 4 if 4 remain, then
                               single channels; a block of g channels is H * W pixels of
                               g values */
};

/* A block of up to five dimensions. Dimension 0 varies fastest: element
 * (i0, i1, ...) lies at i0 * element_size + i1 * strides[0] + i2 * strides[1] + ... */
typedef struct zyn_tensor {
  uint32_t kind;         /* ZYN_KIND_TENSOR */
  uint32_t type;         /* element type code, 0 to 31 */
  void* data;            /* the elements, or null */
  int32_t dims[5];       /* extents; 0 beyond dim_count */
  uint32_t strides[4];   /* bytes: strides[i] = element_size * dims[0] * ... * dims[i] for
                            i < dim_count - 1, else 0 */
  int32_t dim_count;     /* 1 to 5 */
  uint32_t owns_data;    /* non-zero: releasing the tensor frees data */
  uint32_t element_size; /* bytes of one element */
  int64_t byte_size;     /* count * element_size */
  int64_t count;         /* product of all extents */
  uint32_t layout;       /* channel order, ZYN_LAYOUT_*; 0 at creation */
  void* reserved;        /* null at creation, not used */
} zyn_tensor;

/* Creates a tensor without data: dims points at dim_count extents, fastest first.
 * It claims to own a block that it does not have yet; releasing it is safe all the
 * same. Null when dim_count is outside 1 to 5, dims is null, type > 31, an extent
 * is below 1, the block would exceed 2^31 - 1 elements or bytes, or memory is
 * short. */
ZYN_API zyn_tensor* zyn_create_tensor_header(int32_t dim_count, const int32_t* dims, uint32_t type);

/* As zyn_create_tensor_header, with an owned block whose content is uninitialised.
 * Release with zyn_release_tensor. */
ZYN_API zyn_tensor* zyn_create_tensor(int32_t dim_count, const int32_t* dims, uint32_t type);

/* Writes the header fields into your own record; data becomes null, not owned,
 * layout 0. A block that the record owned is not freed. Only ZYN_TYPE_F32 and
 * ZYN_TYPE_F64. 1: bad argument; the record is then unchanged. */
ZYN_API int32_t zyn_set_tensor_header(zyn_tensor* tensor, int32_t dim_count, const int32_t* dims,
                                      uint32_t type);

/* Points the tensor at length bytes of yours, which stay yours; a block that the
 * tensor owned is freed. Setting the block that it has changes nothing: it owns it as
 * before. 1: null argument; 256: length is below the tensor's byte_size. On failure
 * nothing changes. */
ZYN_API int32_t zyn_set_tensor_data(zyn_tensor* tensor, void* data, int64_t length);

/* Sets owns_data. Set it to non-zero only for blocks of zyn_malloc. 1: null tensor
 * (silent). */
ZYN_API int32_t zyn_set_tensor_reference_value(zyn_tensor* tensor, uint32_t value);

/* Sets the layout code; the data stay as they are. 1: null tensor (silent). */
ZYN_API int32_t zyn_set_tensor_channel_layout(zyn_tensor* tensor, uint32_t layout);

/* Frees an owned block and the record, and sets *tensor to null. 1: tensor or
 * *tensor is null. */
ZYN_API int32_t zyn_release_tensor(zyn_tensor** tensor);

/* Reorders one planar image {W, H, C} of 4-byte elements to interleaved order and
 * marks the destination interleaved; the element type is not looked at, and only the
 * first of several images is converted. Both tensors have data, at least 3
 * dimensions and the same element count; the blocks must not overlap. 1 (silent):
 * null tensor or data, fewer dimensions, different counts, elements narrower than 4
 * bytes, a source that is not planar. */
ZYN_API int32_t zyn_tensor_convert_NCHW2NHWC(zyn_tensor* destination, const zyn_tensor* source);

/* The same from the channel-blocked layout (ZYN_LAYOUT_BLOCKED). */
ZYN_API int32_t zyn_tensor_convert_NHWG2NHWC(zyn_tensor* destination, const zyn_tensor* source);

/* Softmax over each group of group_size consecutive floats; what follows the last
 * whole group is left alone. Same shape on both sides, in place allowed. The result
 * of a group does not depend on how many there are or where they lie; a group
 * without a finite element gives zeros, one with a NaN or +infinity gives NaN. The
 * logarithm of a group's sum is added to its maximum before that is subtracted: where floats
 * of the maximum's size lie further apart than the logarithm (from 2^24 on, about), the results
 * do not sum to 1; equal elements of 1e8 give 1 each. 1 (silent): null tensor or data,
 * group_size < 1, different shapes, no whole group, elements narrower than 4 bytes. */
ZYN_API int32_t zyn_tensor_softmax(zyn_tensor* destination, const zyn_tensor* source,
                                   int32_t group_size);

/* destination[i] = source[i] / 2^q for i < count: fixed point (ZYN_TYPE_FPI16) to
 * float (ZYN_TYPE_F32). 1 (silent): null tensor or data, fewer than count
 * elements on a side, q > 15, other element types. */
ZYN_API int32_t zyn_tensor_transform_data_from_fpi16_to_real32(zyn_tensor* destination,
                                                               const zyn_tensor* source,
                                                               int32_t count, uint32_t q);

/* ------------------------------------------------------------------------ */
/* Matrices                                                                   */
/* ------------------------------------------------------------------------ */

/* Rows x columns x pages of one element type, row by row, page after page; also
 * the record of images (zyn_image). A type code is depth + 8 * (channels - 1):
 * depth (type & 7) tells the value's size as in tensors, channels is 1 to 4. */
typedef struct zyn_matrix {
  uint32_t kind;         /* ZYN_KIND_*: scalar 1 x 1 x 1, row vector (one row, one page),
                            column vector (one column, one page), image, or matrix */
  uint32_t type;         /* type code, 0 to 31 */
  void* data;            /* the block (images: plane 0), or null */
  void* plane1;          /* images: second plane, or null */
  void* plane2;          /* images: third plane, or null */
  int32_t rows;          /* images: height */
  int32_t cols;          /* images: width */
  int32_t pages;         /* images: 1 */
  int64_t row_bytes;     /* bytes from one row to the next */
  int64_t plane1_bytes;  /* images: bytes from one row of plane1 to the next */
  int64_t plane2_bytes;  /* images: the same for plane2 */
  uint32_t owns_data;    /* non-zero: releasing the record frees data */
  uint32_t flag;         /* 1 */
  uint32_t element_size; /* bytes of one channel value */
  int32_t channels;      /* channels of one element, 1 to 4; -1 in images of format 6 */
  uint32_t format;       /* images: pixel format, ZYN_IMAGE_*; 15 in plain matrices */
} zyn_matrix;

/* Creates a matrix with an owned block of pages * rows * row_bytes bytes, content
 * uninitialised. Null when an extent is below 1, type is outside 0 to 31, the size
 * overflows or memory is short. Release with zyn_release_matrix. */
ZYN_API zyn_matrix* zyn_create_matrix(int32_t rows, int32_t cols, int32_t pages, int32_t type);

/* Writes the header fields into your own record; data becomes null, not owned (a
 * block that the record owned is not freed). The type is not checked: pass 0 to
 * 31. 1: null matrix or an extent below 1; the record is then unchanged. */
ZYN_API int32_t zyn_set_matrix_header(zyn_matrix* matrix, int32_t rows, int32_t cols, int32_t pages,
                                      int32_t type);

/* Points the matrix at length bytes of yours, which stay yours; a block that it
 * owned is freed. Setting the block that it has changes nothing: it owns it as before.
 * 1: null argument; 256: length < rows * pages * row_bytes. On failure nothing
 * changes. */
ZYN_API int32_t zyn_set_matrix_data(zyn_matrix* matrix, void* data, int64_t length);

/* Frees an owned block and the record and sets *matrix to null; also for images.
 * 1: matrix or *matrix is null. */
ZYN_API int32_t zyn_release_matrix(zyn_matrix** matrix);

/* ------------------------------------------------------------------------ */
/* Computation graphs                                                         */
/* ------------------------------------------------------------------------ */

/* A network: numbered nodes, directed edges, one operator per node. Build it in
 * this order: create, all edges, sort, one binding per node, prepare; then run it
 * as often as needed and read node outputs. */
typedef struct zyn_cg_handle zyn_cg_handle;

/* Settings of a new graph. */
typedef struct zyn_cg_create_param {
  int32_t max_nodes;     /* node ids are 0 to max_nodes - 1; a large maximum costs nothing, but
                            only nodes below 1048576 have edges, so no larger graph sorts */
  uint32_t thread_count; /* sizes the scratch of the convolution kernels */
  uint32_t reserved[2];  /* not read */
  uint32_t fixed_point;  /* 1: 16-bit fixed point; anything else: float */
} zyn_cg_create_param;

/* Creates an empty graph and prints "zyn go to cpu backend!" (or "zyn go to fixed
 * point cpu backend!"). Null parameters mean 256 nodes, 1 thread, float. Null when
 * max_nodes < 1 or memory is short. */
ZYN_API zyn_cg_handle* zyn_create_computation_graph_handle(const zyn_cg_create_param* param);

/* Frees the graph with its operators, their output tensors and workspaces, and the
 * Q list; tensors of data nodes stay yours. 2 (silent): graph or *graph is null. */
ZYN_API int32_t zyn_release_computation_graph_handle(zyn_cg_handle** graph);

/* Chooses how convolution nodes that are bound afterwards compute: 0 planar,
 * 1 blocked, 2 planned (the default). 1 (silent): null graph or another value; the
 * method then stays as it was. */
ZYN_API int32_t zyn_cg_set_conv_method(zyn_cg_handle* graph, uint32_t method);

/* The graph's device type: always 0 in this library, also for a null graph. */
ZYN_API uint32_t zyn_cg_get_dev_type(const zyn_cg_handle* graph);

/* The graph's device context: always null in this library. */
ZYN_API void* zyn_get_dev_context_from_cg_handle(const zyn_cg_handle* graph);

/* Gives the graph its fixed-point Q list: max_nodes words, one per node id, the
 * fraction bits of that node's output. The list must come from zyn_malloc and is
 * the graph's from then on; a second list replaces the first without freeing it.
 * 1 (silent): null argument. */
ZYN_API int32_t zyn_cg_set_ptr_q_list(zyn_cg_handle* graph, uint32_t* q_list);

/* The Q value of a node; 0xFFFFFFFF for a null graph, an id outside 0 to
 * max_nodes - 1, or without a list. */
ZYN_API uint32_t zyn_cg_get_q_from_list(const zyn_cg_handle* graph, int32_t node);

/* Lets the output of node from feed node to. The order of a node's incoming edges
 * is the order of its inputs; an edge added twice counts twice. Add every edge
 * before the first binding. 1: null graph or negative id (reported), an id at or
 * above max_nodes (silent; the ids count as nodes all the same, so a later sort
 * fails). */
ZYN_API int32_t zyn_add_one_edge_into_computation_graph(zyn_cg_handle* graph, int32_t from,
                                                        int32_t to);

/* Computes the order of execution. Node ids must be exactly 0 to n - 1. 1: null
 * graph; 2: no memory; 32: the graph has a cycle or its ids have gaps. */
ZYN_API int32_t zyn_computation_graph_topo_sort(zyn_cg_handle* graph);

/* Node types of zyn_cg_node_desc; docs/operators.md holds shapes and formulas. */
enum {
  ZYN_OP_INPUT = 0,            /* data node: a tensor of the caller, read at every run */
  ZYN_OP_DATA = 1,             /* data node that no operator of this library reads */
  ZYN_OP_CONSTANT = 2,         /* data node: weights */
  ZYN_OP_CONV = 3,             /* convolution, zyn_conv_param */
  ZYN_OP_CONV_DEPTHWISE = 4,   /* depthwise convolution, zyn_conv_param */
  ZYN_OP_CONV_POINTWISE = 5,   /* 1 x 1 convolution, zyn_conv_param */
  ZYN_OP_CONV_GROUPED = 7,     /* convolution in groups, zyn_conv_param */
  ZYN_OP_CONV_TRANSPOSED = 8,  /* transposed convolution, zyn_conv_param */
  ZYN_OP_FUNCTION = 9,         /* element-wise function, zyn_func_param */
  ZYN_OP_BATCH_NORM = 10,      /* normalisation per channel, zyn_bn_param */
  ZYN_OP_BATCH_NORM_FAST = 11, /* the same with one reciprocal a channel */
  ZYN_OP_CONV_ACT = 12,        /* convolution and activation, zyn_conv_param */
  ZYN_OP_CONV_BN = 13,         /* convolution, folded normalisation, activation */
  ZYN_OP_SIGMOID = 15,         /* activations, in place, no parameters: see below */
  ZYN_OP_RELU = 16,
  ZYN_OP_RELU6 = 20,
  ZYN_OP_HARD_SWISH = 21,
  ZYN_OP_MAX_POOL = 22,      /* zyn_pool_param */
  ZYN_OP_AVERAGE_POOL = 23,  /* zyn_pool_param */
  ZYN_OP_MISH = 24,          /* activation */
  ZYN_OP_LINEAR = 25,        /* dense layer, zyn_linear_param */
  ZYN_OP_ADD = 27,           /* sum of two inputs, no parameters */
  ZYN_OP_MULTIPLY = 28,      /* product of two inputs, no parameters */
  ZYN_OP_RESAMPLE = 30,      /* resizing, global average, zyn_resample_param */
  ZYN_OP_AFFINE = 31,        /* affine sampling, zyn_affine_param */
  ZYN_OP_RESHAPE = 32,       /* zyn_reshape_param */
  ZYN_OP_CONCAT = 33,        /* zyn_concat_param */
  ZYN_OP_CHANNEL_SLICE = 34, /* zyn_slice_param */
  ZYN_OP_CHANNEL_GATHER = 35 /* zyn_gather_param */
};

/* What a node is. Only type is read for operators (types 3 and above). */
typedef struct zyn_cg_node_desc {
  int32_t type;    /* ZYN_OP_* */
  void* data;      /* data nodes: the zyn_tensor they stand for; it stays yours and
                      must live as long as the graph uses it */
  uint32_t word_a; /* data nodes: kept with the node, free for your use */
  void* extra;     /* not read */
  uint32_t word_b; /* data nodes: kept with the node, free for your use */
} zyn_cg_node_desc;

/* Binds a node: data nodes keep a copy of the descriptor, operators read param, the
 * record of their type (copied; your buffer is free afterwards). Sort first. 1: null
 * graph or descriptor, unknown node or type, node bound before (all reported), null
 * param where the type needs one (silent); 2: no memory; 4: not supported. The
 * node counts as bound even if its operator refuses. */
ZYN_API int32_t zyn_bind_operator_onto_computation_graph(zyn_cg_handle* graph, int32_t node,
                                                         const zyn_cg_node_desc* desc,
                                                         const void* param);

/* Lets every operator find its inputs, make its output tensor and pack its weights,
 * in order of execution. Weights are read here: change them and prepare again.
 * 0; 1: null graph or unbound node; else the code of the first operator that
 * fails, after printing "failed to prepare inference node:%d!!!" (2: output or
 * workspace could not be made; 4: not supported). Prepare again after changing an
 * input's shape. A preparation that fails leaves the failing operator and those behind
 * it unusable until one succeeds: a run ends there with 1, and they have no output. */
ZYN_API int32_t zyn_prepare_inference_computation(zyn_cg_handle* graph);

/* Runs every node once, in order; the network's inputs are read from the tensors of
 * its data nodes. 0; 1: null graph, a graph that was not sorted (silent); else the code
 * of the first node that fails, after printing "failed to inference: %d!!!": 1 at the
 * first operator that the latest preparation did not make ready. Values and constants
 * below the normal range (1.2e-38) count as 0, here and while preparing; the caller's
 * floating-point state comes back in any case. */
ZYN_API int32_t zyn_computation_graph_inference(zyn_cg_handle* graph);

/* The output tensor of a node: the graph's, valid until it is released or prepared
 * again, rewritten by every run. Its layout field tells the channel order. Null for
 * a null graph, an id without an operator, data nodes, before preparation, and after
 * one that failed before or at the node. */
ZYN_API zyn_tensor* zyn_get_computation_node_inference_data(zyn_cg_handle* graph, int32_t node);

/* Reads a model file: word_count little-endian 32-bit words, then the 16 bytes of
 * their MD5 digest. buffer holds 4 * word_count bytes; path is UTF-8. 0: read, and
 * the digest matches; 1: null argument (silent), file cannot be opened or is too
 * short (printed), digest differs (silent; the words are in the buffer all the
 * same); 2: no memory. */
ZYN_API int32_t zyn_cg_load_model(void* buffer, int32_t word_count, const char* path);

/* ------------------------------------------------------------------------ */
/* Operator parameter records                                                 */
/* ------------------------------------------------------------------------ */

/* Activation codes of types 12 and 13, applied after the convolution. Any other
 * code, 3 included, leaves the plain convolution without bias (fixed point: 3 is ReLU6). */
enum {
  ZYN_ACT_BIAS = 0,        /* bias only */
  ZYN_ACT_RELU = 1,        /* bias, then max(y, 0) */
  ZYN_ACT_HARD_SWISH = 2,  /* bias, then y * min(max(y + 3, 0), 6) / 6 */
  ZYN_ACT_HARD_SIGMOID = 4 /* bias, then min(max(y + 3, 0), 6) / 6: type 13 with
                              method 2 only, elsewhere as any other code */
};

/* Convolutions (types 3, 4, 5, 12, 13). The node has one data input {W, H,
 * in_channels} (dims[0], dims[1], dims[2]) and one constant (type 2).
 *
 * Output of types 3, 4, 5, 12: {ow, oh, out_channels} with
 *   ow = (W - 1 + 2 * pad_h - (kernel_h - 1) * dilation_h) / stride_h + 1
 *   oh = (H - 1 + 2 * pad_w - (kernel_w - 1) * dilation_w) / stride_w + 1
 * Output of type 13: ow = (W - kernel_h + 2 * pad_h) / stride_h + 1 and
 *   oh = (H - kernel_w + 2 * pad_h) / stride_w + 1 (pad_h in both, on purpose).
 *
 * The constant is a float tensor holding, in this order:
 *  1. weights [out][in][row][column], columns running along W, so that the weight of
 *     row r and column c lies at r * kernel_h + c; depthwise
 *     (in_channels = out_channels = groups): [channel][row][column];
 *  2. out_channels biases, only when bias is 1;
 *  3. type 13: scale, shift, mean and variance, out_channels values each; nothing
 *     may follow.
 * It may lie anywhere 4-byte aligned. Weights are read by preparation, biases at
 * every run; type 13 reads everything by preparation.
 *
 * In fixed point the constant is converted to 16 bits by preparation, and the code 3 of
 * types 12 and 13 means ReLU6: see docs/fixed-point.md.
 *
 * Codes: prepare 1 (no input or constant, constant too short; fixed point: input not of
 * 16 bits, no Q list, weights that fit no q, q_in + q_w - q_out outside 0 to 31), 2 (output below
 * one pixel, memory, or a shape that method 2 refuses); run 1 (channel counts of record and tensors
 * differ), 4 (a shape that method 1 has no kernel for). docs/operators.md lists the shapes of every
 * method. */
typedef struct zyn_conv_param {
  int32_t in_channels, out_channels;
  int32_t kernel_h, kernel_w;
  int32_t stride_h, stride_w; /* at least 1 */
  int32_t pad_h, pad_w;       /* zeros on both sides */
  int32_t reserved[2];        /* not read */
  int32_t dilation_h, dilation_w;
  int32_t groups; /* 1, or in_channels = out_channels = groups for depthwise */
  int32_t bias;   /* 1: the constant holds biases; anything else: it does not */
  union {
    int32_t activation; /* type 12: activation code */
    float epsilon;      /* type 13: added to the variance; 0 means 1e-5 */
  } word14;
  int32_t activation; /* type 13: activation code */
} zyn_conv_param;

/* The remaining operators. All compute on float tensors, in fixed-point graphs on 16-bit
 * ones as far as docs/operators.md lists them; those that move data (32 to 35) take any
 * type in float graphs. "Input" is the output of the one predecessor that is not a constant,
 * or the tensor of a graph input (type 0). Unless said otherwise a type has exactly one
 * predecessor, and its codes are
 *   bind 1 (no record), 2 (no memory);
 *   prepare 1 (wrong number of predecessors, no input, not of floats, a record out of
 *   range, a constant that is too short; fixed point: no Q list, input not of 16 bits,
 *   a q above 15, which average pooling judges at the run, or above what the operands
 *   have), 2 (output or workspace could not be made),
 *   4 (fixed-point graph: no 16-bit form of this type);
 *   run 1 (a tensor without data, or whose shape changed since preparation), 2 (no
 *   memory to bring a blocked input to planar order).
 * Outputs have the input's dimension count and type. Types that treat pixels or
 * channels differently write planar order; types 9, 27, 28 (without broadcast) and the
 * activations keep the order of their input. */

/* Activations (15, 16, 20, 21, 24), no record, any shape:
 *   15 sigmoid 1 / (1 + e^-x); 16 max(x, 0); 20 min(max(x, 0), 6);
 *   21 x * min(max(x + 3, 0), 6) / 6; 24 Mish x * tanh(ln(1 + e^x)).
 * THEY WORK IN PLACE: the output is the input tensor itself, be it the output of the
 * predecessor or your own tensor behind a graph input. Every other node that reads the
 * same producer sees the activated values if it runs later (a node added by an earlier
 * edge is not necessarily earlier: only an edge orders two nodes), and reading the
 * producer's output after a run gives the activated values. To keep the plain values,
 * let a copying node (type 9 with ZYN_FUNC_SCALE_SHIFT, 1, 0) feed the activation. A
 * graph input that is activated must be refilled before every run.
 * Sigmoid needs at least two dimensions: run 1 (reported) otherwise. */

/* Functions of ZYN_OP_FUNCTION. */
enum {
  ZYN_FUNC_ABS = 0,         /* |x| */
  ZYN_FUNC_NEGATE = 1,      /* -x */
  ZYN_FUNC_SQUARE = 2,      /* x * x */
  ZYN_FUNC_SQRT = 3,        /* square root; NaN below 0 */
  ZYN_FUNC_RECIPROCAL = 4,  /* 1 / x */
  ZYN_FUNC_EXP = 5,         /* e^x */
  ZYN_FUNC_LOG = 6,         /* ln x; NaN below 0 */
  ZYN_FUNC_TANH = 7,        /* hyperbolic tangent */
  ZYN_FUNC_POWER = 8,       /* x^a, a finite; NaN for x < 0 unless a is an integer; 1 for a = 0 */
  ZYN_FUNC_CLIP = 9,        /* min(max(x, a), b) */
  ZYN_FUNC_SCALE_SHIFT = 10 /* x * a + b, rounded once */
};

/* Type 9: y = function(x) for every element, into a tensor of the input's shape. */
typedef struct zyn_func_param {
  int32_t function; /* ZYN_FUNC_* */
  float a, b;       /* as the function says */
} zyn_func_param;

/* Types 10 and 11: y = (x - mean[c]) * gamma[c] / sqrt(variance[c] + epsilon) + beta[c]
 * for every element of channel c. Inputs {W, H, C} and one constant of 4 * C floats:
 * gamma, beta, mean, variance, C values each. Type 11 computes gamma / sqrt(...) once a
 * channel and is faster; the results differ by rounding. */
typedef struct zyn_bn_param {
  float epsilon;     /* added as it is: 0 stays 0 */
  uint32_t reserved; /* not read */
} zyn_bn_param;

/* Types 22 and 23. Output {(W - kernel_h) / stride_h + 1, (H - kernel_w) / stride_w + 1,
 * C}, no padding. The windows follow another rule, on purpose: they are kernel_h x
 * kernel_h and advance by kernel_h along both axes; window (i, j) gives element (i, j).
 * Windows without such an element are passed over, elements without a window are 0,
 * and of a window that reaches over the edge only the part inside counts. The average
 * is the sum divided by kernel_h twice, for parts of windows too. With kernel = stride
 * in both directions this is the pooling that one expects. */
typedef struct zyn_pool_param {
  int32_t kernel_h, kernel_w; /* at least 1 */
  int32_t stride_h, stride_w; /* at least 1; for the shape alone */
  uint64_t reserved;          /* kept, not read */
} zyn_pool_param;

/* Type 25: output[r][j] = sum over i of input[r][i] * weights[j][i]. Input
 * {features, rows}, exactly two dimensions (reshape others first); output
 * {out_features, rows}; one constant of the input's type (float or double) with
 * out_features rows of weights, then the biases. With bias 1, bias j (element
 * out_features * in_features + j of the constant) is added to element j of the FIRST
 * row alone, on purpose: the layer serves one row at a time. */
typedef struct zyn_linear_param {
  uint32_t in_features;  /* only finds the biases; rows of weights have dims[0] values */
  uint32_t out_features; /* at least 1 */
  uint32_t bias;         /* 1: add the biases; anything else: do not */
} zyn_linear_param;

/* Types 27 and 28 have no record and exactly two predecessors, a and b in the order of
 * their edges (constants are welcome). The output has a's shape, or b's when a has one
 * pixel (dims[0] = dims[1] = 1). Shapes are compared in their first three extents and
 * the element count.
 * 27: a + b for equal element counts; or, b having one value per channel of a {W, H, C},
 *   a + b[c]; run 1 for anything else, which includes a one-pixel a with a larger b.
 * 28: a * b for equal shapes; or, one of them having one pixel, the other scaled per
 *   channel by it; run 1 for anything else. */

/* What ZYN_OP_RESAMPLE computes. */
enum {
  ZYN_RESAMPLE_NEAREST = 0,       /* y[i] = x[floor(i * in / out)] along each axis */
  ZYN_RESAMPLE_BILINEAR = 1,      /* at (i + 1/2) * in / out - 1/2, edges repeated */
  ZYN_RESAMPLE_GLOBAL_AVERAGE = 2 /* output {1, 1, C}: the mean of each plane */
};

/* Type 30. Output {floor(W * factor_h), floor(H * factor_w), C}; in and out are the
 * extents along an axis. */
typedef struct zyn_resample_param {
  int32_t mode;             /* ZYN_RESAMPLE_* */
  float factor_h, factor_w; /* above 0; not read by the global average */
} zyn_resample_param;

/* Type 31, two predecessors: the image {W, H, C}, and a float tensor m of at least six
 * values (any data or operator node). Output {floor(W * factor_h), floor(H * factor_w),
 * C}; its pixel (x, y) is the input at
 *   (m[0] * x + m[1] * y + m[2], m[3] * x + m[4] * y + m[5]),
 * first coordinate along dims[0], whole numbers at pixel centres, bilinear between the
 * four pixels around it, where those outside the input count as 0. */
typedef struct zyn_affine_param {
  float factor_h, factor_w; /* above 0 */
} zyn_affine_param;

/* Type 32: the elements of the input in planar order under a new shape. At most one
 * extent may be -1: it becomes the input's element count divided (rounding down) by the
 * others. Element counts need not agree: what is left of a larger output is 0; a
 * smaller one makes run return 1. Prepare 1: count outside 1 to 5, an
 * extent 0 or below -1, two extents -1; prepare 2: -1 that becomes 0. */
typedef struct zyn_reshape_param {
  int32_t count;   /* 1 to 5 */
  int32_t dims[5]; /* target extents; only the first count are read */
} zyn_reshape_param;

/* Type 33: the inputs one after another along an axis, in the order of the list, not of
 * the edges. One predecessor per entry, every predecessor in the list and the other way
 * round; an input named twice has two edges. Inputs are alike but for the extent along
 * the axis, of at most three dimensions. Bind 1: null list or count below 1; prepare 1:
 * list and predecessors differ, axis outside the first input's dimensions, different
 * types; prepare 2: an input without output; run 1: extents differ. */
typedef struct zyn_concat_param {
  int32_t axis;         /* 0: dims[0], 1: dims[1], 2: dims[2] (channels) */
  int32_t count;        /* number of inputs */
  const int32_t* nodes; /* ids of the inputs, count entries; copied */
} zyn_concat_param;

/* Type 34: channel c of the output is channel first + c * step of the input. Output {W,
 * H, C / parts}. Prepare 1: parts outside 1 to C, a channel outside the input. */
typedef struct zyn_slice_param {
  int32_t reserved_a; /* kept, not read */
  int32_t parts;
  int32_t first;
  int32_t step;
  int32_t reserved_b; /* kept, not read */
} zyn_slice_param;

/* Type 35: channel c of the output is channel channels[c] of the input {W, H, C}; any
 * order, repeats allowed. Output {W, H, count}. Bind 1: null list or count below 1;
 * prepare 1: a channel outside the input. */
typedef struct zyn_gather_param {
  int32_t count;
  const int32_t* channels; /* count entries; copied */
} zyn_gather_param;

/* ------------------------------------------------------------------------ */
/* Network building blocks                                                    */
/* ------------------------------------------------------------------------ */

/* Each binds a block of convolutions onto consecutive nodes: node, node + 1, ...
 * You add the edges, between them and from a constant to each, before. k, s, p are
 * kernel, stride and padding. All return 0 or the first code of a binding (the
 * nodes after it stay unbound); 1 for a null graph (silent). */

/* node: type 3, k 3, s 1, p 1, bias. The third argument is ignored. */
ZYN_API int32_t zyn_bind_std_conv2d(uint32_t in_channels, uint32_t out_channels, uint32_t ignored,
                                    uint32_t node, zyn_cg_handle* graph);

/* node: type 13, k 3, s stride, p 1, ReLU. */
ZYN_API int32_t zyn_bind_base_net_conv_bn(uint32_t in_channels, uint32_t out_channels,
                                          uint32_t stride, uint32_t node, zyn_cg_handle* graph);

/* node: type 13, depthwise k 3, s stride, p 1, ReLU; node + 1: type 13, 1 x 1, ReLU. */
ZYN_API int32_t zyn_bind_base_net_conv_dw(uint32_t channels, uint32_t out_channels, uint32_t stride,
                                          uint32_t node, zyn_cg_handle* graph);

/* node: type 12, depthwise k 3, s stride, p 1, bias, ReLU; node + 1: type 5 with
 * bias. */
ZYN_API int32_t zyn_bind_seperable_conv2d(uint32_t in_channels, uint32_t out_channels,
                                          uint32_t stride, uint32_t node, zyn_cg_handle* graph);

/* Three nodes of type 12 with bias and ReLU: 1 x 1 from 16c to 4c channels,
 * depthwise k 3, s stride, p 1, then 1 x 1 back to 16c. */
ZYN_API int32_t zyn_bind_extra_net(uint32_t c, uint32_t stride, uint32_t node,
                                   zyn_cg_handle* graph);

/* Inverted residual of type 13: 1 x 1 to in_channels * expand with hard-swish,
 * depthwise k 3, s stride, p 1 with hard-swish, 1 x 1 to out_channels with bias
 * only; node + 3 is an addition (type 27) when residual is non-zero. */
ZYN_API int32_t zyn_bind_invert_residual(uint32_t in_channels, uint32_t out_channels,
                                         uint32_t stride, uint32_t residual, uint32_t expand,
                                         uint32_t node, zyn_cg_handle* graph);

/* The same with activation code 3 on the first two nodes: despite the name they
 * write the plain convolution, without bias and without activation. */
ZYN_API int32_t zyn_bind_invert_residual_relu6(uint32_t in_channels, uint32_t out_channels,
                                               uint32_t stride, uint32_t residual, uint32_t expand,
                                               uint32_t node, zyn_cg_handle* graph);

/* ------------------------------------------------------------------------ */
/* Detector outputs                                                           */
/* ------------------------------------------------------------------------ */

/* A scored box in corner form. */
typedef struct zyn_detection {
  float x1, y1, x2, y2;
  float score;
} zyn_detection;

/* The prior boxes of the SSD detector for an input of width * height pixels: a float
 * tensor {4, N}, per prior centre x, centre y, width, height as fractions of the
 * input. Inputs with feature maps of their own: 128x96, 160x120, 240x180, 320x240
 * (N = 4420), 480x360, 640x480, 1280x960; any other size uses the maps of 128x96.
 * transposed non-zero lays the priors out for the input turned by a quarter turn.
 * All N come, whatever the size: values outside 0 to 1 (boxes larger than the input)
 * are clamped, no prior is dropped. Release with zyn_release_tensor. Null: a side of 0
 * (silent), or no memory (reported; without memory for the data the tensor's header is
 * lost and stays counted). */
ZYN_API zyn_tensor* zyn_generate_priors(uint32_t height, uint32_t width, uint32_t transposed);

/* Turns network offsets into boxes in centre form, count * 4 floats each:
 * centre = center_variance * offset * prior size + prior centre,
 * size = exp(size_variance * offset) * prior size. Nothing is checked; boxes may be
 * locations or priors. */
ZYN_API void zyn_convert_locations_to_boxes(float* boxes, const float* locations,
                                            const float* priors, int32_t count,
                                            float center_variance, float size_variance);

/* Turns count boxes from centre form to x1, y1, x2, y2 in place, not clamped. */
ZYN_API void zyn_center_form_to_corner_form(float* boxes, int32_t count);

/* Greedy non-maximum suppression: the highest score stays and removes every lower
 * one whose overlap (intersection over union) exceeds iou_threshold, and so on.
 * out takes up to count records, by falling score; equal scores stay in input order
 * and NaN scores come last. A box whose overlap with a better one is not a number
 * (infinite corners) is removed. boxes is not changed, unless it is out itself.
 * Returns the number written; 0 for null arguments and without memory (silent). */
ZYN_API int32_t zyn_ssd_nms(zyn_detection* out, const zyn_detection* boxes, int32_t count,
                            float iou_threshold);

/* ------------------------------------------------------------------------ */
/* Random numbers, pose, smoothing                                            */
/* ------------------------------------------------------------------------ */

/* Fills every value of the matrix's block (all pages and channels) with *mean +
 * *deviation * N(0, 1). Depth 6 (ZYN_TYPE_F32) reads and stores floats, depth 7
 * doubles. All calls of a process share one sequence that is the same in every
 * process and cannot be seeded. 1: null argument or a matrix without data; 4: another
 * depth. */
ZYN_API int32_t zyn_random_norm(zyn_matrix* matrix, const void* mean, const void* deviation);

/* Camera poses that map three world points onto three image points. Up to four.
 *   rotations     room for 4 matrices of 3 x 3, row by row
 *   translations  room for 4 vectors of 3; camera point = rotation * world point +
 *                 translation, the camera looks along +z, x to the right, y down
 *   world         x, y, z of the three points
 *   image         u, v of the three points, in pixels
 *   camera        3 x 3 row by row; fx [0], cx [2], fy [4], cy [5] are used
 *   spare         not read, may be null
 *   count         how many poses were written, 0 to 4
 * Dropped are poses that repeat another one, are not finite, put a point into the camera's
 * centre or come from roots that are real by rounding alone: count tells how many slots
 * are written, and those behind them are not touched.
 * The equations do not ask on which side of the camera a point lies: of several poses
 * drop those that put a point at z <= 0, and choose by a fourth point. 0, also without a
 * solution (collinear or coinciding points, for example); 1 (silent): a null argument,
 * and nothing is written. */
ZYN_API int32_t zyn_solve_ap3p(double* rotations, double* translations, const float* world,
                               const float* image, const float* camera, const void* spare,
                               int32_t* count);

/* Settings of zyn_one_euro_filter_v2. */
typedef struct zyn_one_euro_param {
  float te;                /* seconds from one sample to the next, above 0 */
  float derivative_cutoff; /* cut-off frequency of the derivative, hertz */
  float min_cutoff;        /* cut-off frequency at rest, hertz */
  float beta;              /* by how much speed raises the cut-off frequency */
} zyn_one_euro_param;

/* Smooths one value: x is the sample, previous and previous_derivative are the results
 * of the last step (before the first: the sample itself and 0). Returns the filtered
 * value and writes the filtered derivative. Checks nothing. */
ZYN_API float zyn_one_euro_filter_v2(float x, float previous, float previous_derivative,
                                     const zyn_one_euro_param* param, float* derivative);

/* ------------------------------------------------------------------------ */
/* Images                                                                     */
/* ------------------------------------------------------------------------ */

/* An image is a zyn_matrix of kind ZYN_KIND_IMAGE: rows = height, cols = width,
 * pages = 1, format = pixel format. Release it with zyn_release_matrix. */
typedef zyn_matrix zyn_image;

/* Pixel formats; bytes in memory order. Packed rows are width * pixel bytes long;
 * formats 5, 12 and 13 use the aligned stride, the width raised to a multiple of 4. */
enum {
  ZYN_IMAGE_BGR = 0,       /* blue, green, red */
  ZYN_IMAGE_RGB = 1,       /* red, green, blue */
  ZYN_IMAGE_GRAY = 2,      /* one byte */
  ZYN_IMAGE_BGRA = 3,      /* four bytes */
  ZYN_IMAGE_RGBA = 4,      /* four bytes, the other order */
  ZYN_IMAGE_I420 = 5,      /* planar YUV 4:2:0: luma, then two chroma planes of half the
                              stride and half the rows */
  ZYN_IMAGE_PLANAR = 6,    /* three full planes (blue, green, red), stride = width */
  ZYN_IMAGE_PACKED2 = 7,   /* two bytes */
  ZYN_IMAGE_SIGNED3 = 8,   /* three signed bytes */
  ZYN_IMAGE_PACKED3_A = 9, /* three bytes, meaning not fixed (also 10 and 11) */
  ZYN_IMAGE_PACKED3_B = 10,
  ZYN_IMAGE_PACKED3_C = 11,
  ZYN_IMAGE_NV12 = 12, /* two-plane YUV 4:2:0: luma, then interleaved chroma of half the
                          rows; plane pointers and plane strides stay 0 */
  ZYN_IMAGE_NV21 = 13, /* the same, the other chroma order */
  ZYN_IMAGE_BGR48 = 14 /* three 16-bit values */
};

/* Creates an image with an owned, uninitialised buffer. Null (reported) when width
 * or height is below 1 or format above 14; null when the size overflows or memory
 * is short. */
ZYN_API zyn_image* zyn_create_image(int32_t width, int32_t height, uint32_t format);

/* Gives an image another size and a new, uninitialised buffer that it owns; the old
 * buffer is freed with zyn_free, even if the image did not own it. The buffer holds
 * rows * row_bytes bytes, so formats with several planes get the first plane only
 * and null plane pointers. Returns image; unchanged when it is null or a size is
 * below 1. A size below 4 x 4 is reported and the old one stays; the buffer is renewed
 * all the same. Its data is null when memory is short. */
ZYN_API zyn_image* zyn_recreate_image(zyn_image* image, int32_t width, int32_t height);

/* Writes an image header into your record; data becomes null, not owned: a buffer that the
 * record owned is lost, free it first. 1: null image, width or height below 4
 * (zyn_create_image takes 1), format above 14. */
ZYN_API int32_t zyn_set_image_header(zyn_image* image, int32_t width, int32_t height,
                                     uint32_t format);

/* Points an image header at your memory and sets the planes. A buffer that the image owned
 * is not freed and owns_data stays, so that the image goes on owning what data points at;
 * the image's own buffer may be given again. 1: null argument, not an image, length < 16; 256:
 * length < rows * row_bytes (nothing changed), and also for formats 3, 4, 7 to 11
 * and 14, whose data pointer is stored all the same. */
ZYN_API int32_t zyn_set_image_data(zyn_image* image, void* data, int64_t length);

/* Header and memory in one call; nothing is owned. Formats 5, 12 and 13 take the
 * plane pointers and strides (bytes) as given. Every other format goes through
 * zyn_set_image_header and zyn_set_image_data with planes[0] and strides[0] as the
 * length, and answers with their codes: pass the buffer's byte count as strides[0].
 * 1: null image, planes, planes[0] or strides, sizes below 1, strides[0] < width. */
ZYN_API int32_t zyn_set_image_header_and_data(zyn_image* image, int32_t width, int32_t height,
                                              uint32_t format, void* const planes[3],
                                              const int32_t strides[3]);

/* Reads a BMP file (1, 4, 8, 16, 24 or 32 bits, not run-length coded): its header and the
 * palette and rows that it names; what else the file holds is not looked at. mode 0: grey
 * files become format 2, others format 0; 1: format 2; anything else: format 0.
 * Null: no name or file, a stream without a length, no memory (reported); not a BMP file
 * (PNG and JPEG are recognised but not decoded), damaged or unsupported (silent). */
ZYN_API zyn_image* zyn_create_image_from_file(const char* file_name, int32_t mode);

/* Writes a BMP file: the name must end in ".bmp" or ".BMP" exactly. Formats 0 and
 * 2 as they are; 1 has its channels exchanged in your image, which stays format 0;
 * 5 goes through a temporary format 0 image. 1: null argument, not an image,
 * formats 6 to 13, no extension; 2: no memory for the temporary image; 4: unknown
 * extension; 8: file cannot be opened, or not written to its end, as on a full disk
 * (silent; the file is removed then, devices and pipes stay); 256: ".jpg", ".JPG", ".png", ".PNG"
 * (nothing is written), and formats 3, 4 and 14, which only PNG could hold. */
ZYN_API int32_t zyn_image_write_to_file_with_level(const char* file_name, zyn_image* image);

/* What zyn_image_color_space_convert can do. */
enum {
  ZYN_COLOR_BGR_TO_GRAY = 0,     /* format 0 to 2, or to 0 with the grey in all channels */
  ZYN_COLOR_BGR_TO_RGB = 2,      /* exchanges channels 0 and 2 */
  ZYN_COLOR_RGB_TO_BGR = 3,      /* the same exchange */
  ZYN_COLOR_BGR_TO_I420 = 8,     /* format 0 to 5, BT.601 limited range */
  ZYN_COLOR_I420_TO_BGR = 9,     /* format 5 to 0 */
  ZYN_COLOR_BGR_TO_SIGNED3 = 13, /* format 0 to 8 */
  ZYN_COLOR_SIGNED3_TO_BGR = 14, /* format 8 to 0 */
  ZYN_COLOR_BGR_TO_PLANAR = 21,  /* format 0 to 6 */
  ZYN_COLOR_PLANAR_TO_BGR = 22   /* format 6 to 0 */
};

/* Converts source into destination, an image of the same size. Both may be one packed
 * buffer where formats of equal pixel bytes meet (codes 2, 3, 13, 14, and 0 to format
 * 0); any other sharing of pixels is refused.
 *  - Grey: (1868 B + 9617 G + 4899 R + 8192) >> 14.
 *  - Codes 2 and 3 take any pair of packed images with three bytes, four bytes or three
 *    16-bit values per pixel. Where the images share their buffer, code 2 turns
 *    destination's format 0 into 1 and code 3 turns 1 into 0; else no format
 *    changes.
 *  - Code 8: chroma comes from the rounded mean colour of each 2 x 2 block. Odd sizes:
 *    the last row and column repeat the luma (code 9: the pixels) before them;
 *    chroma planes have height / 2 rows.
 *  - Format 8: bytes (lightness, leaf, warm), signed, with warm = (R - B) >> 1,
 *    middle = B + warm, leaf = (G - middle) >> 1, lightness = middle + leaf - 128. Back,
 *    blue is exact, green and red are up to 1 below; results are clamped to 0..255.
 *  - Codes 21 and 22 need only one side's format to be right: in place of format 0 any
 *    packed image of three bytes per pixel, in place of format 6 any packed image
 *    with room for three planes of width * height bytes at its start.
 *    Likewise a format 6 image whose planes follow each other without a gap stands
 *    for rows of 3 * width bytes: 21 from 6 to 6 and 22 from 0 to 0 take the source's
 *    bytes for the other layout.
 * 1: null, not images, different sizes, formats that the code does not take or
 * without all planes (zyn_recreate_image), shared pixels; 4: any other code (silent). */
ZYN_API int32_t zyn_image_color_space_convert(zyn_image* destination, zyn_image* source,
                                              uint32_t code);

/* Scales source into destination, whose size is the caller's choice; both of one
 * element type, formats 0, 1, 2, 5, 8, 11. method 0: nearest neighbour, pixel i from
 * floor(i * scale) with scale the float quotient of the sizes, which rarely is one below
 * floor(i * source / destination) (2 to 82, pixel 41); 1: bilinear
 * with 11-bit weights. Equal sizes copy and an exact 2:1 reduction averages 2 x 2
 * pixels, whatever the method. 0 (any other method on a packed format does
 * nothing; equal sizes in one buffer are done at once); 1: null, not images, different
 * types, a format not listed, images that share pixels; 2: no memory; 4: another method
 * on format 5. */
ZYN_API int32_t zyn_image_resizer(zyn_image* destination, const zyn_image* source, int32_t method);

/* Copies the rectangle of size (w, h) at position (x, y) of source into destination,
 * whose size is (w, h). Pixels outside of source repeat its nearest edge pixel;
 * position may be negative. Packed formats of one or three channels and format
 * 5, whose planes use half the luma stride for chroma. After a format 5 crop
 * position is halved (x >> 1, y >> 1).
 * 1: null, not images, destination not (w, h), different pixels or layouts, images that
 * share pixels; 4: other formats. Silent; on failure nothing is written. */
ZYN_API int32_t zyn_image_cropped_patch(zyn_image* destination, const zyn_image* source,
                                        int32_t position[2], const int32_t size[2]);

/* ------------------------------------------------------------------------ */
/* Detector inputs                                                            */
/* ------------------------------------------------------------------------ */

/* Image to network input. The image holds three interleaved 8-bit channels: blue,
 * green, red for the plain functions, red, green, blue for the _rgb24 ones. The
 * tensor's block receives three planes of rows * cols values: 4-byte floats, or
 * 16-bit integers in the _fp16 ones. Neither formats nor sizes are checked; a null
 * record or null data does nothing.
 * SSD: planes red, green, blue; float (byte - 127.5) / 128, integer byte - 127.
 * PFLD: planes blue, green, red; float byte / 255 to seven decimals, integer
 * truncate(byte * 2^14 / 255), which is fixed point with 14 fraction bits. */
ZYN_API void zyn_transform_image_data_for_ssd_detector(zyn_tensor* tensor, const zyn_image* image);
ZYN_API void zyn_transform_image_data_for_ssd_detector_rgb24(zyn_tensor* tensor,
                                                             const zyn_image* image);
ZYN_API void zyn_transform_image_data_for_ssd_detector_fp16(zyn_tensor* tensor,
                                                            const zyn_image* image);
ZYN_API void zyn_transform_image_data_for_ssd_detector_rgb24_fp16(zyn_tensor* tensor,
                                                                  const zyn_image* image);
ZYN_API void zyn_transform_image_data_for_pfld_detector(zyn_tensor* tensor, const zyn_image* image);
ZYN_API void zyn_transform_image_data_for_pfld_detector_rgb24(zyn_tensor* tensor,
                                                              const zyn_image* image);
ZYN_API void zyn_transform_image_data_for_pfld_detector_fp16(zyn_tensor* tensor,
                                                             const zyn_image* image);
ZYN_API void zyn_transform_image_data_for_pfld_detector_rgb24_fp16(zyn_tensor* tensor,
                                                                   const zyn_image* image);

/* Drops the fourth byte of every pixel; rows without padding on both sides. Takes
 * width * height * 4 bytes, gives * 3; destination may be source or lie before it. 1: null pointer
 * (silent). */
ZYN_API int32_t zyn_convert_rgba_to_rgb(uint8_t* destination, const uint8_t* source, int32_t width,
                                        int32_t height);

/* Pads an image (format 0, 1 or 5) with black to height / width = ratio; the odd
 * pixel goes to the bottom or right. The four margins in pixels come back through
 * the pointers. The chroma planes of format 5 become 128 and take half the margins.
 * Returns a new image, release it with zyn_release_matrix. Null for a null pointer or null data,
 * ratio <= 0 or NaN, a source side outside 1 to 4096, a padded side beyond 31 bits, or another
 * format (silent, unless it is above 14), and without memory (reported, but for the pixels of
 * format 5); the margins are then unchanged. */
ZYN_API zyn_image* zyn_create_border_image(int32_t* top, int32_t* bottom, int32_t* left,
                                           int32_t* right, const zyn_image* source, float ratio);

/* Clears the destination (0; chroma planes of format 5: 128) and copies a patch of
 * size (w, h) from source_position (x, y) to destination_position (x, y). The patch
 * must fit on both sides by x + w and y + h; with a negative x nothing is copied,
 * rows outside are clamped. 1: null pointer or null data, formats whose bytes lie
 * differently (0 and 1 may be mixed, 0 and 5 not), different channel counts, a patch
 * that does not fit, a source with pixels in destination's buffer; 4: neither 1 nor 3 channels,
 * formats 6, 12 and 13. Nothing is written then. Silent. */
ZYN_API int32_t zyn_image_cropped_patch_with_border(zyn_image* destination,
                                                    const int32_t destination_position[2],
                                                    const zyn_image* source,
                                                    const int32_t source_position[2],
                                                    const int32_t size[2]);

/* ------------------------------------------------------------------------ */
/* Tracking                                                                   */
/* ------------------------------------------------------------------------ */

/* A tracker follows boxes from frame to frame and gives each an id. One frame:
 *  1. zyn_create_sort_predict: where every track should be by this frame;
 *  2. zyn_associate_detections_to_trackers on the detections and those boxes, or,
 *     without tracks, zyn_create_sort_match_info with everything unmatched;
 *  3. zyn_sort_update_detection: matched tracks move to their detections, unmatched
 *     detections become tracks, stale tracks go;
 *  4. zyn_sort_get_track_info: the tracks to show.
 * Callers with an association of their own replace 2 and 3 by
 * zyn_sort_update_detection_v2. docs/tracking.md follows one example frame by frame.
 *
 * Boxes may hold any value, NaN and infinity included; a track fed with them yields
 * the like until it is dropped, so leave such detections out. */
typedef struct zyn_sort_handle zyn_sort_handle;

/* Settings of a tracker. */
typedef struct zyn_sort_param {
  int32_t max_age;     /* 0 or more: a track is dropped when it went without a
                          detection for more frames than this */
  int32_t min_hits;    /* 1 or more: frames in a row with a detection before a track
                          is listed, see zyn_sort_get_track_info */
  float iou_threshold; /* 0 to below 1; kept for you, association takes its own */
  float payload_size;  /* bytes of your data per track, truncated to an integer;
                          below 1 or NaN: none */
} zyn_sort_param;

/* Which detection belongs to which track. Indices count from 0 in the arrays given
 * to the association. */
typedef struct zyn_sort_match_info {
  int32_t matched_count;   /* pairs in matched */
  int32_t unmatched_count; /* entries in unmatched */
  int32_t* matched;        /* pairs (detection, track): [2 * i] and [2 * i + 1]; null
                              when matched_count is below 1 */
  int32_t* unmatched;      /* detections without a track, ascending after association;
                              null when unmatched_count is below 1 */
} zyn_sort_match_info;

/* Tracks of one frame; entry i of every array belongs to one track. */
typedef struct zyn_track_info {
  float* boxes;               /* x1, y1, x2, y2 per entry */
  uint32_t* ids;              /* the tracks' ids */
  int32_t* time_since_update; /* predictions since the last detection; in listings 0 */
  int32_t count;              /* entries; the arrays may be longer */
  void* payload;              /* payload bytes per entry, zero for a track without a
                                 payload slot; null without payloads */
} zyn_track_info;

/* Creates a tracker without tracks; *param is copied. Null when param is null or a
 * field is outside its range, or memory is short (both reported). Release with
 * zyn_release_sort_handle. */
ZYN_API zyn_sort_handle* zyn_create_sort_handle(const zyn_sort_param* param);

/* Frees the tracker with all tracks and payloads and sets *handle to null. 1
 * (silent): handle or *handle is null. */
ZYN_API int32_t zyn_release_sort_handle(zyn_sort_handle** handle);

/* Moves every track on by one frame and gives their predicted boxes, in the order
 * in which associations and updates number the tracks. Without tracks: count 0 and
 * null arrays. Null (no report of its own): null handle, no memory, or a prediction
 * that failed; the frame then is not counted, and tracks before the failing one
 * have moved. Release with zyn_release_track_info. */
ZYN_API zyn_track_info* zyn_create_sort_predict(zyn_sort_handle* handle);

/* Pairs detections with predicted boxes (x1, y1, x2, y2; the fifth value is not
 * read) so that the sum of overlaps is as large as possible, then drops pairs whose
 * overlap does not exceed iou_threshold. Overlap is intersection over union of the
 * boxes enlarged five times about their centres. Null tracks with a count above 0
 * overlap nothing.
 * Null: no detections, a count of 0 (reported), no memory, or overlaps that are not
 * numbers for a whole row of the problem (prints "infeasible cost matrix\n" and a
 * report): one NaN box is enough. Release with zyn_release_sort_match_info. */
ZYN_API zyn_sort_match_info* zyn_associate_detections_to_trackers(const zyn_detection* detections,
                                                                  int32_t detection_count,
                                                                  const zyn_detection* tracks,
                                                                  int32_t track_count,
                                                                  float iou_threshold);

/* Creates match info of these sizes, counts stored as given, for you to fill: the
 * indices are uninitialised. Null without memory (silent). */
ZYN_API zyn_sort_match_info* zyn_create_sort_match_info(int32_t matched_count,
                                                        int32_t unmatched_count);

/* Frees match info and sets *info to null; null does nothing. */
ZYN_API void zyn_release_sort_match_info(zyn_sort_match_info** info);

/* Applies one frame's association: unmatched detections become tracks, matched ones
 * correct theirs, then tracks older than max_age are dropped; of two neighbours only
 * the first, the second in the next frame's update. ids takes, per detection, the id
 * of its track, or -1. mask, null or one byte per detection: 0 keeps an unmatched
 * detection from becoming a track, only 1 lets a matched one correct its track (its
 * id is written all the same).
 * The payload buffer does not grow here: tracks beyond the first 128 have no payload
 * until the next zyn_sort_update_detection_v2 gives them slots, zeroed.
 * Ids count up from 0 in 32 bits: those above 2147483647 read as negative here
 * (4294967295 as -1, like no track), in track info as they are. The other update takes a
 * negative id for a new track, after which ids go on from 0; the track that was meant
 * grows stale.
 * 0; 1 (silent): null detections (also with detection_count 0), matches or handle,
 * null ids with detection_count above 0, an index outside its array; nothing has
 * changed; 2: no memory; 32: a correction failed. After 2 and 32 the tracks handled
 * so far are changed and none is dropped. */
ZYN_API int32_t zyn_sort_update_detection(const zyn_detection* detections, int32_t* ids,
                                          const uint8_t* mask, int32_t detection_count,
                                          const zyn_sort_match_info* matches,
                                          zyn_sort_handle* handle);

/* The same for an association of your own: ids holds, per detection, the id of its
 * track, or any negative value for a new track, whose id is not told (it shows in
 * the next listing; ids count up and go from 2147483647 to 0). mask, null or one byte
 * per detection: other values than 1 skip the detection. payloads, null or payload
 * size bytes per detection: copied into the track's slot along with its detection;
 * null leaves the slots as they are and those of new tracks zero.
 * 0; 1 (silent): null detections, ids (both also with detection_count 0) or handle;
 * 2: no memory (creating a track: reported; payload slots for tracks that the other
 * update added: nothing has changed); 32: an id that no track has, masked or
 * not (silent), or a correction failed (reported). After 2 and 32 the detections
 * handled so far have taken effect and no track is dropped. */
ZYN_API int32_t zyn_sort_update_detection_v2(const zyn_detection* detections, const int32_t* ids,
                                             const uint8_t* mask, int32_t detection_count,
                                             const void* payloads, zyn_sort_handle* handle);

/* Lists the tracks that got a detection in this frame and whose row of frames with a
 * detection has reached min_hits or is not longer than the number of predictions
 * made so far. The boxes are corrected, not predicted ones. Null: null handle
 * (reported), no memory (silent). Release with zyn_release_track_info. */
ZYN_API zyn_track_info* zyn_sort_get_track_info(const zyn_sort_handle* handle);

/* Predictions made so far; 18446744073709551615 for a null handle. */
ZYN_API uint64_t zyn_sort_get_frame_count(const zyn_sort_handle* handle);

/* Frees track info and sets *info to null; null does nothing. */
ZYN_API void zyn_release_track_info(zyn_track_info** info);

#ifdef __cplusplus
}
#endif

#endif

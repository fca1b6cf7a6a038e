/* zyncore_net: networks as files, explanations, and a look at a graph before it runs.
 *
 * A network is one file (docs/network-file.md): load it, fill its input, run it, read
 * its output.
 *
 *   zyn_net* net = zyn_net_load("faces.zyn", NULL);
 *   if (!net) { puts(zyn_error_detail()); return 1; }
 *   float* pixels = zyn_net_input(net, NULL)->data;
 *   ...
 *   zyn_net_run(net);
 *   const float* scores = zyn_net_output(net, "scores")->data;
 *   ...
 *   zyn_net_release(&net);
 *
 * The conventions of zyncore.h hold here too: codes, axes, ownership, UTF-8 file names,
 * one network used by one thread at a time (several networks may run in several threads).
 * Nothing here prints anything of its own: failures are explained by zyn_error_detail.
 */
#ifndef ZYNCORE_NET_H
#define ZYNCORE_NET_H

#include "zyncore.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Explanations                                                               */
/* ------------------------------------------------------------------------ */

/* Why the latest failing call of this thread failed, be it of this header or of zyncore.h, silent
 * or with a report: one line without a line end. It names what was expected and what was found,
 * and in graphs the node by id, name and operator:
 *   node 3 'head.cls' CONV: constant holds 216 floats, 8 x 3 x 3 x 3 weights + 8 biases =
 *   224 are needed
 * Where an operator refuses, that is what zyn_cg_check says of it (graphs of up to 4096 nodes).
 * Calls without a code or a null to answer with (nothing is done) explain themselves too where
 * a description says that they check; releasing null where that does nothing is no failure.
 * Empty before the first failure. The text is the thread's own, UTF-8, at most 511 bytes; calls
 * that succeed leave it alone, unless they went on without memory that they could not get. */
ZYN_API const char* zyn_error_detail(void);

/* Receives what the library would print: one call for every report or notice, text as it
 * would be printed (NUL-terminated, valid during the call). Called on the thread that
 * caused it; must not call the library. */
typedef void (*zyn_report_handler)(const char* text, void* context);

/* Sets who receives reports and notices instead of standard output; null: standard output
 * again. One handler for the process: set it before other threads use the library. */
ZYN_API void zyn_set_report_handler(zyn_report_handler handler, void* context);

/* Gives a node of a graph a name for explanations; the text is copied. 1: null argument
 * or an id outside the graph's range; 2: no memory. */
ZYN_API int32_t zyn_cg_set_node_name(zyn_cg_handle* graph, int32_t node, const char* name);

/* ------------------------------------------------------------------------ */
/* Checking a graph                                                           */
/* ------------------------------------------------------------------------ */

/* How grave a finding is: warnings are legal and probably not what was meant. */
enum { ZYN_CHECK_WARNING = 1, ZYN_CHECK_ERROR = 2 };

/* What kind of finding it is. */
enum {
  ZYN_CHECK_NOT_SORTED = 1,      /* not sorted since the last edge was added */
  ZYN_CHECK_NODE_RANGE = 2,      /* an edge names a node id at or above the maximum */
  ZYN_CHECK_GAP = 3,             /* ids are not 0 to n - 1: an edge is missing */
  ZYN_CHECK_CYCLE = 4,           /* edges lead back to their own beginning */
  ZYN_CHECK_UNBOUND = 5,         /* a node without an operator */
  ZYN_CHECK_TYPE = 6,            /* an operator type that nothing computes */
  ZYN_CHECK_INPUTS = 7,          /* wrong number or kind of inputs */
  ZYN_CHECK_RECORD = 8,          /* a parameter out of its range */
  ZYN_CHECK_CHANNELS = 9,        /* channels of record and input differ */
  ZYN_CHECK_SHAPE = 10,          /* shapes that do not fit each other, or no output */
  ZYN_CHECK_CONSTANT_SHORT = 11, /* a constant holds too little */
  ZYN_CHECK_CONSTANT_LONG = 12,  /* a constant holds more than is read */
  ZYN_CHECK_DATA = 13,           /* a data node without a tensor, data, or of a wrong type */
  ZYN_CHECK_ACTIVATION = 14,     /* an activation code that computes nothing */
  ZYN_CHECK_POOL_STEP = 15,      /* pooling windows that do not advance as the record says */
  ZYN_CHECK_IN_PLACE = 16,       /* an in-place activation with a second reader, or on a
                                    graph input */
  ZYN_CHECK_METHOD = 17,         /* a shape that the node's convolution method refuses */
  ZYN_CHECK_FRACTION_BITS = 18,  /* fixed point: q missing or out of range */
  ZYN_CHECK_UNUSED = 19          /* a data node that no operator reads */
};

/* One finding. */
typedef struct zyn_cg_finding {
  int32_t severity; /* ZYN_CHECK_WARNING or ZYN_CHECK_ERROR */
  int32_t kind;     /* ZYN_CHECK_* */
  int32_t node;     /* id of the node, -1: the graph as a whole */
  char text[236];   /* what was expected and found, one line, cut where it is longer */
} zyn_cg_finding;

/* All findings, by falling severity, then in the order of node ids. */
typedef struct zyn_cg_report {
  int32_t errors, warnings;
  zyn_cg_finding* findings; /* errors + warnings entries; null where there are none */
} zyn_cg_report;

/* Examines a graph whose operators have been bound, without preparing it, and lists every
 * problem at once; the graph is not changed. *report is a new record (null on failure);
 * release it with zyn_release_cg_report. 0: examined, whatever was found; 1: null
 * argument; 2: no memory. Silent. Shapes behind a node with an error are not followed. */
ZYN_API int32_t zyn_cg_check(const zyn_cg_handle* graph, zyn_cg_report** report);

/* Frees a report and sets *report to null. Null, or a pointer to null, does nothing. */
ZYN_API void zyn_release_cg_report(zyn_cg_report** report);

/* ------------------------------------------------------------------------ */
/* Further operators                                                          */
/* ------------------------------------------------------------------------ */

/* Types 9, 30, 31 and 35 compute more than zyncore.h lists. The first word of the record that
 * they are bound with says what: a number from the lists below instead of one from zyncore.h.
 * Axes are counted as in dims: 0 is x, the fastest, 1 is y, 2 the channels. All of them write
 * tensors of their own and never work in place. Functions of single elements, and joins of like
 * shapes or with one value a channel, keep the channel order of their input; all others write
 * planar order. */

/* Type 9, zyn_func_param: one input, output of its shape. */
enum {
  ZYN_FUNC_LEAKY_RELU = 16,   /* x, below 0 a * x */
  ZYN_FUNC_PRELU = 17,        /* x, below 0 s[c] * x: reads one constant more, of one slope or one
                                 per channel */
  ZYN_FUNC_ELU = 18,          /* x, below 0 a * (e^x - 1) */
  ZYN_FUNC_HARD_SIGMOID = 19, /* min(max(a * x + b, 0), 1) */
  ZYN_FUNC_SIGMOID = 20,      /* 1 / (1 + e^-x) */
  ZYN_FUNC_SILU = 21,         /* x / (1 + e^(-a * x)); SiLU for a = 1 */
  ZYN_FUNC_HARD_SWISH = 22,   /* x * min(max(x + 3, 0), 6) / 6 */
  ZYN_FUNC_MISH = 23,         /* x * tanh(ln(1 + e^x)) */
  ZYN_FUNC_GELU = 24,        /* a = 0: x * (1 + erf(x / sqrt 2)) / 2; a = 1: with tanh in its place,
                                x * (1 + tanh(sqrt(2 / pi) * (x + 0.044715 x^3))) / 2 */
  ZYN_FUNC_SOFTPLUS = 25,    /* ln(1 + e^x) */
  ZYN_FUNC_SOFTMAX = 26,     /* along axis a: e^x / sum of e^x */
  ZYN_FUNC_LOG_SOFTMAX = 27, /* along axis a: x - ln(sum of e^x) */
  ZYN_FUNC_L2_NORM = 28,     /* along axis a: x / max(sqrt(sum of x * x), b) */
  ZYN_FUNC_ERF = 29          /* the error function */
};

/* Type 30, zyn_window_param, zyn_resize_param or zyn_reduce_param by the mode. */
enum {
  ZYN_RESAMPLE_MAX_WINDOW = 16,      /* zyn_window_param: largest value of a window */
  ZYN_RESAMPLE_AVERAGE_WINDOW = 17,  /* zyn_window_param: mean of a window */
  ZYN_RESAMPLE_RESIZE_NEAREST = 18,  /* zyn_resize_param */
  ZYN_RESAMPLE_RESIZE_BILINEAR = 19, /* zyn_resize_param */
  ZYN_RESAMPLE_REDUCE = 20           /* zyn_reduce_param */
};

/* Pooling of any kind, of an input {W, H, C}. Along x the output has
 *   (W + pad_left + pad_right - (kernel_x - 1) * dilation_x - 1) / stride_x + 1
 * elements, rounded down, or with ceil_mode up, where a window that would begin behind the
 * input and its left padding is left out again; along y alike. Maxima pass over padding. */
typedef struct zyn_window_param {
  int32_t mode;
  int32_t kernel_x, kernel_y;                       /* at least 1 */
  int32_t stride_x, stride_y;                       /* at least 1 */
  int32_t dilation_x, dilation_y;                   /* at least 1; averages: 1 */
  int32_t pad_left, pad_top, pad_right, pad_bottom; /* 0 or more, below the dilated kernel */
  int32_t ceil_mode;                                /* 0 or 1 */
  int32_t count_pad; /* averages: 1 divides by the elements of the window in input and padding, 0
                        by those in the input */
} zyn_window_param;

/* Where the pixels of a resized tensor lie in the input; step is 1 / scale. */
enum {
  ZYN_PLACE_HALF_PIXEL = 0,    /* (i + 1/2) * step - 1/2 */
  ZYN_PLACE_ALIGN_CORNERS = 1, /* i * (in - 1) / (out - 1), 0 where out is 1 */
  ZYN_PLACE_ASYMMETRIC = 2,    /* i * step */
  ZYN_PLACE_HALF_PIXEL_0 = 3   /* as half pixel, 0 where out is 1 */
};

/* Resizing of an input {W, H, C} to {width, height, C}; places outside are moved to the edge. */
typedef struct zyn_resize_param {
  int32_t mode;
  int32_t width, height;  /* at least 1 */
  int32_t place;          /* ZYN_PLACE_* */
  int32_t rounding;       /* nearest: 0 half down, 1 half up, 2 down, 3 up */
  float scale_x, scale_y; /* out / in as the network says it; 0: the quotient of the extents */
} zyn_resize_param;

enum {
  ZYN_REDUCE_MEAN = 0,
  ZYN_REDUCE_SUM = 1,
  ZYN_REDUCE_MAX = 2,
  ZYN_REDUCE_MIN = 3,
  ZYN_REDUCE_L2 = 4 /* square root of the sum of squares */
};

/* One value along some axes, whose extents become 1. */
typedef struct zyn_reduce_param {
  int32_t mode;
  int32_t axes;      /* bit i: axis i */
  int32_t operation; /* ZYN_REDUCE_* */
} zyn_reduce_param;

/* Type 31, two ordered inputs a and b (operators, inputs or constants), zyn_join_param. For
 * element-wise operations extents are alike or one of them is 1, which is repeated; the fewer
 * dimensions are continued with 1. */
enum {
  ZYN_JOIN_ADD = -1,
  ZYN_JOIN_SUBTRACT = -2,
  ZYN_JOIN_MULTIPLY = -3,
  ZYN_JOIN_DIVIDE = -4,
  ZYN_JOIN_MAX = -5,
  ZYN_JOIN_MIN = -6,
  ZYN_JOIN_POWER = -7, /* a^b */
  ZYN_JOIN_MATMUL = -8 /* {K, M, ...} and {N, K, ...} make {N, M, ...}: matrices of M rows and K
                          columns times matrices of K rows and N columns; further extents alike or
                          1 */
};
typedef struct zyn_join_param {
  int32_t operation;
  int32_t reserved; /* 0 */
} zyn_join_param;

/* Type 35: elements are moved, of any type and of up to five dimensions. */
enum {
  ZYN_MOVE_PERMUTE = -1, /* zyn_permute_param */
  ZYN_MOVE_PAD = -2,     /* zyn_pad_param */
  ZYN_MOVE_SHUFFLE = -3, /* zyn_shuffle_param */
  ZYN_MOVE_PART = -4     /* zyn_part_param */
};

/* Axes in another order: axis i of the output is axis order[i] of the input. */
typedef struct zyn_permute_param {
  int32_t move;
  int32_t order[5]; /* a permutation of the input's axes; the rest is not read */
} zyn_permute_param;

enum { ZYN_PAD_CONSTANT = 0, ZYN_PAD_REFLECT = 1, ZYN_PAD_EDGE = 2 };

/* Elements in front of and behind each axis; negative numbers cut off. */
typedef struct zyn_pad_param {
  int32_t move;
  int32_t mode; /* ZYN_PAD_*; reflection leaves the edge element out and needs pads below the
                   extent */
  int32_t before[5], after[5]; /* by axis; those behind the input's last are not read */
  float value;                 /* ZYN_PAD_CONSTANT; fixed point: with the input's fraction bits */
} zyn_pad_param;

/* Channel c * groups + g of the output is channel g * (C / groups) + c of the input. */
typedef struct zyn_shuffle_param {
  int32_t move;
  int32_t groups; /* at least 1, divides the channels */
} zyn_shuffle_param;

/* Elements first, first + step, ... along an axis, count of them. */
typedef struct zyn_part_param {
  int32_t move;
  int32_t axis;
  int32_t first, count; /* count at least 1; all elements lie in the input */
  int32_t step;         /* not 0 */
} zyn_part_param;

/* ------------------------------------------------------------------------ */
/* Networks                                                                   */
/* ------------------------------------------------------------------------ */

typedef struct zyn_net zyn_net;

/* How convolutions compute. */
enum {
  ZYN_NET_AUTOMATIC = -1, /* the file's own choice where it has one, else by a table of costs
                             that counts the conversions between channel orders */
  ZYN_NET_TIMED = -2      /* the table's choice and each method alone are timed on this
                             machine while loading, with whatever the input holds */
  /* 0, 1, 2: one method for all, as zyn_cg_set_conv_method; where it refuses a layer,
     another takes that layer */
};

/* Settings of zyn_net_load; ZYN_NET_DEFAULTS fills one, a null pointer means the same. */
typedef struct zyn_net_options {
  int32_t method;       /* ZYN_NET_AUTOMATIC, ZYN_NET_TIMED, 0, 1 or 2 */
  int32_t fixed_point;  /* 1: 16-bit fixed point, by the file's fraction bits */
  int32_t keep_all;     /* 1: every node's output stays readable after a run; else only
                           those of named outputs, and the others share their memory */
  int32_t exact;        /* 1: no convolution by Winograd's methods (3 x 3, large pointwise ones),
                           whose sums are others than those of methods 0 to 2, within 1e-4 of
                           an output's range */
  int64_t memory_limit; /* most bytes that the outputs of all nodes may take together before
                           they share memory; 0: 2^31 */
} zyn_net_options;
#define ZYN_NET_DEFAULTS \
  { ZYN_NET_AUTOMATIC, 0, 0, 0, 0 }

/* Loads a network file and prepares it. Null: zyn_error_detail tells why. Release it with
 * zyn_net_release. */
ZYN_API zyn_net* zyn_net_load(const char* path, const zyn_net_options* options);

/* The same from size bytes at data, which are copied where they are needed later. */
ZYN_API zyn_net* zyn_net_load_memory(const void* data, int64_t size,
                                     const zyn_net_options* options);

/* Frees the network with all its tensors and sets *net to null. 1: net or *net is null. */
ZYN_API int32_t zyn_net_release(zyn_net** net);

/* The tensor of an input, by name or, for null, the first: floats (fixed point: 16-bit
 * values), planar, extents fastest first ({width, height, channels}). The network's own;
 * fill its data before every run: a run may overwrite them. Null: no such input. */
ZYN_API zyn_tensor* zyn_net_input(zyn_net* net, const char* name);

/* Computes all outputs from the inputs. 0; 1: null network; else the code of the node
 * that failed. */
ZYN_API int32_t zyn_net_run(zyn_net* net);

/* The tensor of an output, by name or, for null, the first: of floats (fixed point: 16-bit
 * values, whose fraction bits zyn_net_describe tells), in planar order whatever the method. The
 * network's own, rewritten by every run. Null: no such output. */
ZYN_API const zyn_tensor* zyn_net_output(zyn_net* net, const char* name);

/* What a network's input or output is. Texts are the network's own. */
typedef struct zyn_net_port {
  const char* name;
  int32_t node;      /* id of its node */
  int32_t dim_count; /* extents, fastest first */
  int32_t dims[5];
  int32_t leading;       /* axes of extent 1 in front of them in the network's own notation */
  int32_t channel_order; /* inputs: 0 not a picture, 1 blue green red, 2 red green blue, 3 grey */
  int32_t resize;        /* inputs: 0 not said, 1 stretched, 2 bordered, 3 cut out */
  float mean[3];         /* inputs: value = (byte - mean) * scale, in the order of the planes */
  float scale[3];
  int32_t meaning; /* outputs: ZYN_NET_MEANING_* */
  int32_t q;       /* fixed point: fraction bits; else 0 */
} zyn_net_port;

enum {
  ZYN_NET_MEANING_NONE = 0,
  ZYN_NET_MEANING_SCORES = 1, /* class scores before softmax */
  ZYN_NET_MEANING_PROBABILITIES = 2,
  ZYN_NET_MEANING_OFFSETS = 3, /* box offsets */
  ZYN_NET_MEANING_BOXES = 4,
  ZYN_NET_MEANING_LANDMARKS = 5,
  ZYN_NET_MEANING_FEATURES = 6
};

/* One node as it was prepared. */
typedef struct zyn_net_node {
  const char* name;      /* "" where the file has none */
  int32_t type;          /* ZYN_OP_* */
  const char* operation; /* the operator's name: "CONV" for ZYN_OP_CONV; "JOIN", "WINDOW",
                           "RESIZE", "REDUCE", "PERMUTE", "PAD", "SHUFFLE", "PART" for the
                           records of the further operators */
  int32_t dim_count;     /* of the output; 0: none */
  int32_t dims[5];
  int32_t method;     /* convolutions: 0, 1, 2, or 3 and 4: kernels of any shape that write
                         channel blocks or planes; 5 and 6: Winograd's, alike; else -1 */
  int64_t parameters; /* floats of the constants that it reads */
  int64_t multiply_adds;
} zyn_net_node;

/* A network's size, and what it is made of. Arrays and texts are the network's own. */
typedef struct zyn_net_description {
  int32_t input_count, output_count, node_count, metadata_count;
  const zyn_net_port* inputs;
  const zyn_net_port* outputs;
  const zyn_net_node* nodes;        /* by id */
  const char* const* metadata_keys; /* metadata_count entries */
  const char* const* metadata_values;
  int64_t parameters, multiply_adds; /* of the whole network */
} zyn_net_description;

/* What the network is; null for a null network. Valid until the network is released. */
ZYN_API const zyn_net_description* zyn_net_describe(const zyn_net* net);

/* The value of a metadata key; null: not there. */
ZYN_API const char* zyn_net_metadata(const zyn_net* net, const char* key);

/* Bytes that a loaded network takes; runs add what it takes to bring tensors into another
 * order of channels, where methods are mixed. */
typedef struct zyn_net_memory_use {
  int64_t weights;     /* constants, packed or as they are */
  int64_t activations; /* inputs and the block that all outputs share */
  int64_t scratch;     /* what kernels keep for themselves */
  int64_t total;       /* all that loading allocated and kept, tables included; other
                          threads' allocations meanwhile are counted too */
} zyn_net_memory_use;

/* Fills *use. 1: null argument. */
ZYN_API int32_t zyn_net_memory(const zyn_net* net, zyn_net_memory_use* use);

/* The graph that the network runs on, for a closer look: node outputs (all of them with
 * keep_all; planes or channel blocks, as their layout says), fraction bits. The network's own:
 * do not change or release it. */
ZYN_API zyn_cg_handle* zyn_net_graph(zyn_net* net);

/* ------------------------------------------------------------------------ */
/* Writing network files                                                      */
/* ------------------------------------------------------------------------ */

typedef struct zyn_net_writer zyn_net_writer;

/* An empty network. Null: no memory. Release it with zyn_net_writer_release. The calls
 * below copy what they are given; a call that fails leaves the writer as it was. */
ZYN_API zyn_net_writer* zyn_net_writer_create(void);

/* A writer that holds what a network file holds, to give it other methods (those that a loaded
 * network runs with, say), fraction bits, or more nodes, and to write it anew. Sections that this
 * version does not know are lost. Null: zyn_error_detail tells why. */
ZYN_API zyn_net_writer* zyn_net_writer_load(const char* path);
ZYN_API void zyn_net_writer_release(zyn_net_writer** writer);

/* Every call that adds a node returns its id, counted from 0, or -1. */

/* A named input; of port, name, dims, leading, channel_order, resize, mean and scale are
 * read. */
ZYN_API int32_t zyn_net_writer_input(zyn_net_writer* writer, const zyn_net_port* port);

/* A constant: a float tensor with data. */
ZYN_API int32_t zyn_net_writer_constant(zyn_net_writer* writer, const char* name,
                                        const zyn_tensor* constant);

/* An operator of a type (ZYN_OP_*) with its parameter record as bound by
 * zyn_bind_operator_onto_computation_graph (null where the type has none); it reads the
 * nodes inputs[0 .. count - 1] in this order, all of them added before. The list of nodes
 * in a zyn_concat_param is not read: inputs is. */
ZYN_API int32_t zyn_net_writer_node(zyn_net_writer* writer, const char* name, int32_t type,
                                    const void* param, const int32_t* inputs, int32_t count);

/* A named output; of port, name, node, leading and meaning are read. 0, 1 or 2. */
ZYN_API int32_t zyn_net_writer_output(zyn_net_writer* writer, const zyn_net_port* port);

/* Fraction bits of a node's output; nodes that are not given any have 0. 0, 1 or 2. */
ZYN_API int32_t zyn_net_writer_q(zyn_net_writer* writer, int32_t node, int32_t q);

/* The convolution method of a node (0 to 6, see zyn_net_node). 0, 1 or 2. */
ZYN_API int32_t zyn_net_writer_method(zyn_net_writer* writer, int32_t node, int32_t method);

/* A line of metadata. 0, 1 (null, an empty or repeated key) or 2. */
ZYN_API int32_t zyn_net_writer_metadata(zyn_net_writer* writer, const char* key, const char* value);

/* Writes the file. 0; 1: null argument, no input or no output; 2: no memory; 8: the file
 * cannot be opened or not be written to the end (it is then removed). */
ZYN_API int32_t zyn_net_write(const zyn_net_writer* writer, const char* path);

/* The file in memory: *data is a block of *size bytes that zyn_free frees. 0, 1 or 2. */
ZYN_API int32_t zyn_net_write_memory(const zyn_net_writer* writer, void** data, int64_t* size);

#ifdef __cplusplus
}
#endif

#endif /* ZYNCORE_NET_H */

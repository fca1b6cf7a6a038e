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

/* Why the latest failing call of this thread failed: one line without a line end. Calls of
 * this header, and binding, preparing and running graphs, name what was expected and what was
 * found, and in graphs the node by id, name and operator:
 *   node 3 'head.cls' CONV: constant holds 216 floats, 8 x 3 x 3 x 3 weights + 8 biases =
 *   224 are needed
 * Of the other calls of zyncore.h those that print a report leave its message here; their
 * silent failures leave the text as it is. Empty before the first failure. The text is the
 * thread's own, UTF-8, at most 511 bytes; calls that succeed leave it alone. */
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
  ZYN_CHECK_NOT_SORTED = 1,       /* not sorted since the last edge was added */
  ZYN_CHECK_NODE_RANGE = 2,       /* an edge names a node id at or above the maximum */
  ZYN_CHECK_GAP = 3,              /* ids are not 0 to n - 1: an edge is missing */
  ZYN_CHECK_CYCLE = 4,            /* edges lead back to their own beginning */
  ZYN_CHECK_UNBOUND = 5,          /* a node without an operator */
  ZYN_CHECK_TYPE = 6,             /* an operator type that nothing computes */
  ZYN_CHECK_INPUTS = 7,           /* wrong number or kind of inputs */
  ZYN_CHECK_RECORD = 8,           /* a parameter out of its range */
  ZYN_CHECK_CHANNELS = 9,         /* channels of record and input differ */
  ZYN_CHECK_SHAPE = 10,           /* shapes that do not fit each other, or no output */
  ZYN_CHECK_CONSTANT_SHORT = 11,  /* a constant holds too little */
  ZYN_CHECK_CONSTANT_LONG = 12,   /* a constant holds more than is read */
  ZYN_CHECK_DATA = 13,            /* a data node without a tensor, data, or of a wrong type */
  ZYN_CHECK_ACTIVATION = 14,      /* an activation code that computes nothing */
  ZYN_CHECK_POOL_STEP = 15,       /* pooling windows that do not advance as the record says */
  ZYN_CHECK_IN_PLACE = 16,        /* an in-place activation with a second reader, or on a
                                     graph input */
  ZYN_CHECK_METHOD = 17,          /* a shape that the node's convolution method refuses */
  ZYN_CHECK_FRACTION_BITS = 18,   /* fixed point: q missing or out of range */
  ZYN_CHECK_UNUSED = 19           /* a data node that no operator reads */
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
  int32_t reserved;     /* 0 */
  int64_t memory_limit; /* most bytes that the outputs of all nodes may take together before
                           they share memory; 0: 2^31 */
} zyn_net_options;
#define ZYN_NET_DEFAULTS {ZYN_NET_AUTOMATIC, 0, 0, 0, 0}

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
 * values, whose fraction bits zyn_net_describe tells), in planar order whatever the method. The network's own,
 * rewritten by every run. Null: no such output. */
ZYN_API const zyn_tensor* zyn_net_output(zyn_net* net, const char* name);

/* What a network's input or output is. Texts are the network's own. */
typedef struct zyn_net_port {
  const char* name;
  int32_t node;          /* id of its node */
  int32_t dim_count;     /* extents, fastest first */
  int32_t dims[5];
  int32_t leading;       /* axes of extent 1 in front of them in the network's own notation */
  int32_t channel_order; /* inputs: 0 not a picture, 1 blue green red, 2 red green blue, 3 grey */
  int32_t resize;        /* inputs: 0 not said, 1 stretched, 2 bordered, 3 cut out */
  float mean[3];         /* inputs: value = (byte - mean) * scale, in the order of the planes */
  float scale[3];
  int32_t meaning;       /* outputs: ZYN_NET_MEANING_* */
  int32_t q;             /* fixed point: fraction bits; else 0 */
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
  const char* name;     /* "" where the file has none */
  int32_t type;         /* ZYN_OP_* */
  const char* operation; /* the operator's name, "CONV" for ZYN_OP_CONV */
  int32_t dim_count;    /* of the output; 0: none */
  int32_t dims[5];
  int32_t method;       /* convolutions: 0, 1, 2; else -1 */
  int64_t parameters;   /* floats of the constants that it reads */
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
 * keep_all), fraction bits. The network's own: do not change or release it. */
ZYN_API zyn_cg_handle* zyn_net_graph(zyn_net* net);

/* ------------------------------------------------------------------------ */
/* Writing network files                                                      */
/* ------------------------------------------------------------------------ */

typedef struct zyn_net_writer zyn_net_writer;

/* An empty network. Null: no memory. Release it with zyn_net_writer_release. The calls
 * below copy what they are given; a call that fails leaves the writer as it was. */
ZYN_API zyn_net_writer* zyn_net_writer_create(void);
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

/* The convolution method of a node (0, 1, 2). 0, 1 or 2. */
ZYN_API int32_t zyn_net_writer_method(zyn_net_writer* writer, int32_t node, int32_t method);

/* A line of metadata. 0, 1 (null, an empty or repeated key) or 2. */
ZYN_API int32_t zyn_net_writer_metadata(zyn_net_writer* writer, const char* key,
                                        const char* value);

/* Writes the file. 0; 1: null argument, no input or no output; 2: no memory; 8: the file
 * cannot be opened or not be written to the end (it is then removed). */
ZYN_API int32_t zyn_net_write(const zyn_net_writer* writer, const char* path);

/* The file in memory: *data is a block of *size bytes that zyn_free frees. 0, 1 or 2. */
ZYN_API int32_t zyn_net_write_memory(const zyn_net_writer* writer, void** data, int64_t* size);

#ifdef __cplusplus
}
#endif

#endif /* ZYNCORE_NET_H */

// Names of operators, for explanations and descriptions.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "zyncore_net.h"

// The name of an operator type, "CONV" for ZYN_OP_CONV; "NOTHING" for ids without an
// operator.
const char* zyn_cg_operation_name(int32_t type);

// The name of a bound node's operator: its type's, or that of the further operator that its record
// names.
const char* zyn_cg_node_operation(const zyn_cg_handle* graph, int32_t node, int32_t type);

// Writes "node 3 'head.cls' CONV: ", without the name for nodes that have none, into a
// buffer of size bytes; the number of bytes written. type is the node's operator type, -1
// before it has one.
int zyn_cg_name_node(const zyn_cg_handle* graph, int32_t node, int32_t type, char* buffer,
                     size_t size);

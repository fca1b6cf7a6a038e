// Names of operators, for explanations and descriptions.
#pragma once

#include <stdint.h>

// The name of an operator type, "CONV" for ZYN_OP_CONV; "NOTHING" for ids without an
// operator.
const char* zyn_cg_operation_name(int32_t type);

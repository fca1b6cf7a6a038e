// Preparation of the general convolutions, without their weights.
#pragma once

#include "cg/cpu/kernels/general/zyn_general_layer.h"

// The layer's shape; false where it is not served.
bool zyn_general_open(zyn_conv_general* layer, const zyn_conv_param& param, int32_t width,
                      int32_t height);

// What a dense run is made of: for layers that were opened.
void zyn_general_plan_dense(zyn_conv_general* layer);

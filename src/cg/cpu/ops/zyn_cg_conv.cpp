// Convolution operators: what all types share, and types 3 (standard), 4 (depthwise)
// and 5 (pointwise).
#include "cg/cpu/ops/zyn_cg_conv.h"

#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"
#include "cg/cpu/kernels/planned/zyn_conv_plan.h"
#include "cg/cpu/ops/zyn_cg_operators.h"
#include "simd/zyn_fetch.h"

namespace {

bool holds_positive(const zyn_conv_param& p) {
  return p.in_channels > 0 && p.out_channels > 0 && p.kernel_h > 0 && p.kernel_w > 0 &&
         p.stride_h > 0 && p.stride_w > 0 && p.dilation_h > 0 && p.dilation_w > 0 && p.pad_h >= 0 &&
         p.pad_w >= 0;
}

// Elements that the constant needs for weights and biases; false where they overflow.
bool needed_constant(const zyn_conv_param& p, int64_t* needed) {
  const int64_t inputs = zyn_conv_is_depthwise(&p) ? 1 : p.in_channels;
  return zyn_multiply(p.kernel_h, p.kernel_w, needed) && zyn_multiply(*needed, inputs, needed) &&
         zyn_multiply(*needed, p.out_channels, needed) &&
         zyn_sum(*needed, p.bias == 1 ? p.out_channels : 0, needed);
}

// Extents beyond the third are 1.
bool is_one_image(const zyn_tensor* tensor) {
  for (int32_t i = 3; i < tensor->dim_count; i++)
    if (tensor->dims[i] != 1) return false;
  return true;
}

// The kernels take the output's size for one that follows from the input's: an input that
// got another shape since preparation is refused.
bool input_fits(const zyn_cg_conv_state* state) {
  return zyn_cg_ready(state->input, state->output) &&
         memcmp(state->input->dims, state->input_dims, sizeof(state->input_dims)) == 0;
}

bool is_dense(const zyn_conv_param& p) { return p.groups == 1; }

bool is_1x1(const zyn_conv_param& p) { return p.kernel_h == 1 && p.kernel_w == 1; }

// A grouping that no kernel serves: the sums are 0, the epilogue still follows.
uint32_t run_without_kernel(zyn_tensor* output, const zyn_conv_epilogue& epilogue) {
  memset(output->data, 0, static_cast<size_t>(output->byte_size));
  zyn_conv_finish_rows(zyn_cg_floats(output), zyn_cg_channels(output), zyn_cg_pixels(output),
                       epilogue);
  output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

uint32_t run_method0(zyn_cg_conv_state* state, const zyn_conv_epilogue& epilogue) {
  const zyn_tensor* input = zyn_cg_planar(state->input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  const zyn_conv_param& p = state->param;
  zyn_tensor* output = state->output;
  const float* weights = zyn_cg_floats(state->weights);
  const uint32_t code = zyn_conv_is_depthwise(&p)
                            ? zyn_cg_dwconv_planar(output, input, weights, &p, &epilogue)
                        : is_1x1(p) ? zyn_cg_conv1x1_planar(output, input, weights, &p, &epilogue)
                                    : zyn_cg_conv_planar(output, input, weights, &p, &epilogue);
  if (code == ZYN_RET_OK) output->layout = ZYN_LAYOUT_PLANAR;
  return code;
}

uint32_t run_method1(zyn_cg_conv_state* state, const zyn_conv_epilogue& epilogue,
                     bool keep_standard) {
  const zyn_conv_param& p = state->param;
  if (!state->blocked) return ZYN_RET_ERR_PARA;
  zyn_tensor* output = state->output;
  const zyn_tensor* input = state->input;
  if (zyn_cg_order(input) != ZYN_LAYOUT_BLOCKED) {
    input = zyn_cg_planar(input, &state->planar);
    if (!input) return ZYN_RET_ERR_MEMORY;
  }
  if (is_dense(p) && is_1x1(p) && !keep_standard)
    return zyn_cg_conv1x1(output, input, state->blocked->packed, &p, &epilogue, state->behind);
  return is_dense(p) ? zyn_cg_conv3x3(output, input, state->blocked, &p, &epilogue)
                     : zyn_cg_dwconv3x3(output, input, state->blocked, &p, &epilogue);
}

bool is_inner(uint32_t method) { return method >= ZYN_METHOD_GENERAL; }

// Methods 3 to 6: kernels that read either order.
uint32_t run_inner(zyn_cg_conv_state* state, const zyn_conv_epilogue& epilogue) {
  if (!state->general && !state->winograd) return ZYN_RET_ERR_PARA;
  const zyn_tensor* input = state->input;
  if (zyn_cg_order(input) != ZYN_LAYOUT_BLOCKED) {
    input = zyn_cg_planar(input, &state->planar);
    if (!input) return ZYN_RET_ERR_MEMORY;
  }
  if (state->general)
    zyn_conv_general_run(state->general, state->output, input, epilogue, state->scratch->block);
  else
    zyn_conv_winograd_run(state->winograd, state->output, input, epilogue, state->scratch->block);
  return ZYN_RET_OK;
}

// Outputs of fewer bytes come as fast while they are written.
constexpr int64_t kFewBytes = 256 * 1024;

void fetch(const zyn_tensor* tensor) {
  constexpr int64_t kMostFloats = 512 * 1024;  // more does not stay
  zyn_fetch(zyn_cg_floats(tensor), tensor->count < kMostFloats ? tensor->count : kMostFloats);
}

uint32_t run_method2(zyn_cg_conv_state* state, const zyn_conv_epilogue& epilogue) {
  const zyn_tensor* input = zyn_cg_planar(state->input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  zyn_tensor* output = state->output;
  if (is_1x1(state->param)) {
    if (state->far_input && input == state->input) fetch(input);
    if (state->far_output) fetch(output);
  }
  const uint32_t code = zyn_cg_conv_run_planned_fused(output, input, state->weights, &state->param,
                                                      state->plan, &epilogue);
  if (code == ZYN_RET_OK) output->layout = ZYN_LAYOUT_PLANAR;
  return code;
}

void release_workspace(zyn_cg_conv_state* state) {
  if (state->blocked) zyn_cg_conv_release_direct(&state->blocked);
  if (state->plan) zyn_cg_conv_release_planned(&state->plan);
  zyn_conv_general_release(&state->general);
  zyn_conv_winograd_release(&state->winograd);
  zyn_cg_drop(&state->folded);
  zyn_cg_drop(&state->biases);
  zyn_fpi_drop_plan(&state->fixed);
  zyn_cg_drop(&state->quantized);
  state->behind = 0;
}

// Makes the layer of methods 3 to 6; it stays null without memory. The floats of scratch that its
// runs need.
int64_t make_inner(zyn_cg_conv_state* state) {
  int64_t scratch = 0;
  const float* weights = zyn_cg_floats(state->weights);
  const int32_t *in = state->input->dims, *out = state->output->dims;
  if (zyn_cg_is_winograd(state->method))
    state->winograd = zyn_conv_winograd_prepare(
        weights, &state->param, in, out, state->method == ZYN_METHOD_WINOGRAD_PLANAR, &scratch);
  else
    state->general = zyn_conv_general_prepare(weights, &state->param, in, out,
                                              state->method == ZYN_METHOD_GENERAL_PLANAR, &scratch);
  return scratch;
}

// What the node's method packs; the floats of scratch that its runs need.
int64_t pack(zyn_cg_conv_state* state) {
  const zyn_storing storing(state->store);
  if (state->method == 1)
    state->blocked = zyn_cg_conv_prepare_direct(state->weights, &state->param,
                                                static_cast<int32_t>(state->thread_count));
  if (state->method == 2)
    state->plan = zyn_cg_conv_prepare_planned(state->input, state->weights, &state->param,
                                              &state->thread_count);
  return is_inner(state->method) ? make_inner(state) : 0;
}

// Makes the workspace of the node's method; 2 when it cannot be made.
int32_t make_workspace(zyn_cg_conv_state* state) {
  if (!zyn_cg_reserve_scratch(state->scratch, pack(state))) {
    zyn_conv_general_release(&state->general);
    zyn_conv_winograd_release(&state->winograd);
  }
  const bool made =
      state->method == 0 || state->blocked || state->plan || state->general || state->winograd;
  return made ? ZYN_RET_OK : ZYN_RET_ERR_MEMORY;
}

// The constant (or what became of it) in 16 bits with one q, and the kernel for it.
int32_t make_fixed(zyn_cg_conv_state* state) {
  uint32_t q = 0;
  if (const int32_t code = zyn_cg_quantize(&state->quantized, state->weights, &q)) return code;
  state->weight_q = static_cast<int32_t>(q);
  return static_cast<int32_t>(zyn_fpi_make_plan(
      &state->fixed, static_cast<const int16_t*>(state->quantized->data), &state->param,
      int64_t{state->input_q} + state->weight_q - state->output_q, state->input, state->output));
}

// Run functions of types 3, 4 and 5: bias where the record has it.
template <bool KeepStandard>
int32_t run_plain(void* record) {
  auto* state = static_cast<zyn_cg_conv_state*>(record);
  if (!state) return ZYN_RET_ERR_PARA;
  if (state->fixed_point == 1)
    return zyn_cg_conv_run_fixed(state, state->param.bias == 1, ZYN_ACT_BIAS);
  return zyn_cg_conv_run(state, {zyn_cg_conv_bias(state), ZYN_EPILOGUE_NONE}, KeepStandard);
}

// Output extent along one axis; 0 where int32_t does not hold it.
int32_t conv_extent(int32_t extent, int32_t kernel, int32_t pad, int32_t stride, int32_t dilation) {
  const int64_t reach = (kernel - int64_t{1}) * dilation;
  return zyn_cg_extent((extent - int64_t{1} + int64_t{2} * pad - reach) / stride + 1);
}

int32_t prepare_plain(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<zyn_cg_conv_state>(graph, node);
  if (!state) return ZYN_RET_ERR_PARA;
  if (const int32_t code = zyn_cg_conv_open(graph, node, state)) return code;
  const zyn_conv_shape s = zyn_conv_shape_of(&state->param);
  const int32_t* dims = state->input->dims;
  return zyn_cg_conv_finish_prepare(
      graph, state, conv_extent(dims[0], s.kernel_x, s.pad_x, s.stride_x, s.dilation_x),
      conv_extent(dims[1], s.kernel_y, s.pad_y, s.stride_y, s.dilation_y), nullptr);
}

// The state of a node of one of the types here; null for others.
zyn_cg_conv_state* find_state(zyn_cg_handle* graph, int32_t node) {
  const int32_t type = zyn_cg_node_type(graph, node);
  const bool is_one = type == ZYN_OP_CONV || type == ZYN_OP_CONV_DEPTHWISE ||
                      type == ZYN_OP_CONV_POINTWISE || type == ZYN_OP_CONV_ACT ||
                      type == ZYN_OP_CONV_BN;
  return is_one ? zyn_cg_state<zyn_cg_conv_state>(graph, node) : nullptr;
}

}  // namespace

int32_t zyn_cg_bind_conv_state(zyn_cg_handle* graph, int32_t node, const void* param, uint32_t type,
                               zyn_cg_run_fn run) {
  if (!param) return ZYN_RET_ERR_PARA;
  auto* state = zyn_cg_new_state<zyn_cg_conv_state>(graph, node, type, run);
  if (!state) return ZYN_RET_ERR_MEMORY;
  state->param = *static_cast<const zyn_conv_param*>(param);
  state->method = graph->conv_method;
  state->scratch = &graph->scratch;
  state->store = graph->store;
  state->thread_count = graph->thread_count;
  state->fixed_point = graph->fixed_point;
  state->device_type = graph->device_type;
  return ZYN_RET_OK;
}

int32_t zyn_cg_conv_open(zyn_cg_handle* graph, int32_t node, zyn_cg_conv_state* state) {
  // Nothing of an earlier preparation stays: a node that fails here refuses to run.
  state->input = state->weights = nullptr;
  release_workspace(state);
  const zyn_cg_sources sources = zyn_cg_find_sources(graph, node);
  if (const int32_t code = zyn_cg_check_input(graph, sources.input)) return code;
  // Any counts: that they fit together is zyn_fpi_make_plan's to say.
  if (zyn_cg_is_fixed_point(graph) &&
      (!zyn_cg_read_fraction_bits(graph, sources.producer, &state->input_q) ||
       !zyn_cg_read_fraction_bits(graph, node, &state->output_q)))
    return ZYN_RET_ERR_PARA;
  const zyn_tensor* constant = sources.constant;
  int64_t needed = 0;
  if (!is_one_image(sources.input) || !constant || !constant->data ||
      constant->type != ZYN_TYPE_F32 || !holds_positive(state->param) ||
      !needed_constant(state->param, &needed) || constant->count < needed)
    return ZYN_RET_ERR_PARA;
  state->input = sources.input;
  state->weights = sources.constant;
  return ZYN_RET_OK;
}

int32_t zyn_cg_conv_finish_prepare(zyn_cg_handle* graph, zyn_cg_conv_state* state, int32_t width,
                                   int32_t height, const zyn_site* site) {
  const zyn_tensor* input = state->input;
  int32_t dims[5];
  memcpy(dims, input->dims, sizeof(dims));
  memcpy(state->input_dims, dims, sizeof(dims));
  dims[0] = width;
  dims[1] = height;
  dims[2] = state->param.out_channels;
  if (const int32_t code =
          zyn_cg_make_output(graph, &state->output, input->dim_count, dims, input->type, site)) {
    state->input = nullptr;
    return code;
  }
  state->output->layout = input->layout;
  return zyn_cg_is_fixed_point(graph) ? make_fixed(state) : make_workspace(state);
}

int32_t zyn_cg_conv_run(zyn_cg_conv_state* state, const zyn_conv_epilogue& epilogue,
                        bool keep_standard) {
  const zyn_tensor* weights = state->weights;
  int64_t needed = 0;
  if (!input_fits(state) || state->input->type != ZYN_TYPE_F32 ||
      !zyn_cg_ready(weights, state->output) || !needed_constant(state->param, &needed) ||
      (!state->biases && weights->count < needed))
    return ZYN_RET_ERR_PARA;
  const zyn_conv_param& p = state->param;
  if (state->input->dims[2] != p.in_channels || state->output->dims[2] != p.out_channels)
    return ZYN_RET_ERR_PARA;
  uint32_t code = ZYN_RET_OK;
  if (!is_dense(p) && !zyn_conv_is_depthwise(&p))
    code = run_without_kernel(state->output, epilogue);
  else if (state->method == 0)
    code = run_method0(state, epilogue);
  else if (state->method == 1)
    code = run_method1(state, epilogue, keep_standard);
  else if (is_inner(state->method))
    code = run_inner(state, epilogue);
  else
    code = run_method2(state, epilogue);
  return static_cast<int32_t>(code);
}

bool zyn_cg_conv_memory(zyn_cg_handle* graph, int32_t node, int64_t* weights, int64_t* scratch) {
  const zyn_cg_conv_state* state = find_state(graph, node);
  if (!state) return false;
  const auto bytes_of = [](const zyn_tensor* tensor) { return tensor ? tensor->byte_size : 0; };
  *weights = bytes_of(state->folded) + bytes_of(state->biases) + bytes_of(state->quantized) +
             zyn_block_bytes(state->fixed.packed);
  *scratch = bytes_of(state->planar);
  if (state->blocked) *weights += bytes_of(state->blocked->packed);
  *weights += zyn_conv_general_bytes(state->general) + zyn_conv_winograd_bytes(state->winograd);
  if (state->plan) {
    *weights += zyn_block_bytes(state->plan->weights);
    *scratch += zyn_block_bytes(state->plan->scratch.block);
  }
  return true;
}

bool zyn_cg_conv_drop_weights(zyn_cg_handle* graph, int32_t node) {
  zyn_cg_conv_state* state = find_state(graph, node);
  if (!state) return false;
  if (state->fixed_point == 1) return state->fixed.weights != nullptr;
  if (state->method == 0 || !state->weights || !state->weights->data) return false;
  const bool has_bias = state->folded || state->param.bias == 1;
  const int32_t count = has_bias ? state->param.out_channels : 1;
  zyn_tensor_guard biases(zyn_create_tensor_header(1, &count, ZYN_TYPE_F32));
  if (biases) biases->data = zyn_calloc(count, sizeof(float));
  if (!biases || !biases->data) return false;
  if (has_bias)
    memcpy(biases->data, zyn_cg_floats(state->weights) + zyn_conv_weight_count(&state->param),
           static_cast<size_t>(biases->byte_size));
  zyn_cg_drop(&state->folded);
  state->weights = state->biases = biases.take();
  return true;
}

void zyn_cg_conv_expect_far(zyn_cg_handle* graph, int32_t node, bool input, bool output) {
  zyn_cg_conv_state* state = find_state(graph, node);
  if (!state) return;
  state->far_input = input;
  state->far_output = output && state->output && state->output->byte_size > kFewBytes;
  if (state->plan) state->plan->far_output = state->far_output;
}

zyn_cg_packed zyn_cg_conv_find_packed(zyn_cg_handle* graph, int32_t node) {
  const zyn_cg_conv_state* state = find_state(graph, node);
  const void* block = nullptr;
  if (state && state->blocked) block = state->blocked->packed->data;
  if (state && state->plan) block = state->plan->weights;
  if (state && state->general) block = zyn_conv_general_weights(state->general);
  if (state && state->winograd) block = zyn_conv_winograd_weights(state->winograd);
  const bool asks =
      state && (state->winograd ? zyn_conv_winograd_asks_ahead(state->winograd)
                                : state->blocked && is_dense(state->param) && is_1x1(state->param));
  return {reinterpret_cast<uintptr_t>(block), zyn_block_bytes(block), asks};
}

void zyn_cg_conv_expect_behind(zyn_cg_handle* graph, int32_t node, int64_t bytes) {
  zyn_cg_conv_state* state = find_state(graph, node);
  if (!state) return;
  state->behind = bytes;
  if (state->winograd) zyn_conv_winograd_expect_behind(state->winograd, bytes);
}

const float* zyn_cg_conv_bias(const zyn_cg_conv_state* state) {
  if (state->param.bias != 1 || !state->weights || !state->weights->data) return nullptr;
  if (state->biases) return zyn_cg_floats(state->biases);
  return zyn_cg_floats(state->weights) + zyn_conv_weight_count(&state->param);
}

int32_t zyn_cg_conv_run_fixed(zyn_cg_conv_state* state, bool has_bias, int32_t code) {
  zyn_tensor* output = state->output;
  if (!input_fits(state) || state->input->type != ZYN_TYPE_FPI16 || !state->fixed.weights)
    return ZYN_RET_ERR_PARA;
  const int16_t* bias =
      has_bias ? state->fixed.weights + zyn_conv_weight_count(&state->param) : nullptr;
  const zyn_fpi_epilogue epilogue = {bias, code};
  return static_cast<int32_t>(zyn_fpi_run_plan(&state->fixed, output, state->output_q, state->input,
                                               state->weight_q, &epilogue));
}

int32_t zyn_cg_conv_release(void** record) {
  if (!record || !*record) return ZYN_RET_ERR_PARA;
  auto* state = static_cast<zyn_cg_conv_state*>(*record);
  release_workspace(state);
  return zyn_cg_release_io(record);
}

int32_t zyn_cg_prepare_conv(zyn_cg_handle* graph, int32_t node) {
  return prepare_plain(graph, node);
}

zyn_tensor* zyn_cg_output_conv(zyn_cg_handle* graph, int32_t node) {
  return zyn_cg_output_if<zyn_cg_io_state, ZYN_OP_CONV, ZYN_OP_CONV_DEPTHWISE,
                          ZYN_OP_CONV_POINTWISE, ZYN_OP_CONV_GROUPED, ZYN_OP_CONV_TRANSPOSED>(graph,
                                                                                              node);
}

const zyn_cg_operator zyn_cg_conv_row = {zyn_cg_bind_conv<ZYN_OP_CONV, run_plain<true>>,
                                         zyn_cg_prepare_conv, zyn_cg_conv_release,
                                         zyn_cg_output_conv, nullptr};

const zyn_cg_operator zyn_cg_conv_depthwise_row = {
    zyn_cg_bind_conv<ZYN_OP_CONV_DEPTHWISE, run_plain<true>>, zyn_cg_prepare_conv,
    zyn_cg_conv_release, zyn_cg_output_conv, nullptr};

const zyn_cg_operator zyn_cg_conv_pointwise_row = {
    zyn_cg_bind_conv<ZYN_OP_CONV_POINTWISE, run_plain<false>>, zyn_cg_prepare_conv,
    zyn_cg_conv_release, zyn_cg_output_conv, nullptr};

// Functions of type 9 that look at one element at a time, on floats and on 16-bit fixed point.
// NaN stays NaN; at infinities the function's limit comes out where there is one.
#include <math.h>
#include <stdio.h>

#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"
#include "cg/cpu/ops/zyn_cg_function.h"
#include "cg/cpu/ops/zyn_cg_power.h"
#include "cg/cpu/zyn_cg_support.h"
#include "matrix/zyn_math.h"

namespace {

// One function over a run of floats.
struct float_map {
  float* out;
  const float* in;
  int64_t count;
  template <typename Function>
  void operator()(Function f) const {
    zyn_map(out, in, count, f);
  }
  // Functions of tens of operations.
  template <typename Function>
  void with_long(Function f) const {
    zyn_map<1>(out, in, count, f);
  }
};

// The same over 16-bit values.
struct fixed_map {
  int16_t* out;
  int32_t q_out;
  const int16_t* in;
  int32_t q_in;
  int64_t count;
  template <typename Function>
  void operator()(Function f) const {
    zyn_fpi_map_floats(out, q_out, in, q_in, count, f);
  }
};

__m256 leaky_relu(__m256 x, __m256 slope) {
  return _mm256_blendv_ps(x, _mm256_mul_ps(slope, x), x);
}

// x * gate, and 0 wherever the gate is closed: minus infinity too.
__m256 gated(__m256 x, __m256 gate) {
  const __m256 open = _mm256_cmp_ps(gate, _mm256_setzero_ps(), _CMP_NEQ_UQ);
  return _mm256_and_ps(_mm256_mul_ps(x, gate), open);
}

// Operands of max and min stand in the order that lets NaN through. From -3 down all is 0.
__m256 hard_swish(__m256 x) {
  x = _mm256_max_ps(_mm256_set1_ps(-3.0f), x);
  const __m256 gate = _mm256_min_ps(_mm256_set1_ps(6.0f), _mm256_add_ps(x, _mm256_set1_ps(3.0f)));
  return _mm256_mul_ps(x, _mm256_mul_ps(gate, _mm256_set1_ps(1.0f / 6.0f)));
}

__m256 gelu(__m256 x) {
  const __m256 half = _mm256_set1_ps(0.5f);
  return gated(
      x, _mm256_fmadd_ps(zyn_erf8(_mm256_mul_ps(x, _mm256_set1_ps(0.70710678f))), half, half));
}

// (1 + tanh u) / 2 is the sigmoid of 2 u, which loses nothing below 0.
__m256 gelu_by_tanh(__m256 x) {
  const __m256 slope =
      _mm256_fmadd_ps(_mm256_mul_ps(x, x), _mm256_set1_ps(0.07135481f), _mm256_set1_ps(1.5957691f));
  return gated(x, zyn_sigmoid8(_mm256_mul_ps(x, slope)));
}

// The functions that fixed point has as well.
template <typename Map>
void apply_both(const Map& map, const zyn_func_param& param) {
  const __m256 a = _mm256_set1_ps(param.a);
  const __m256 b = _mm256_set1_ps(param.b);
  switch (param.function) {
    case ZYN_FUNC_CLIP:  // operands in this order let NaN through
      return map([=](__m256 x) { return _mm256_min_ps(b, _mm256_max_ps(a, x)); });
    case ZYN_FUNC_SCALE_SHIFT:
      return map([=](__m256 x) { return _mm256_fmadd_ps(x, a, b); });
    case ZYN_FUNC_LEAKY_RELU:
      return map([=](__m256 x) { return leaky_relu(x, a); });
    case ZYN_FUNC_HARD_SIGMOID:
      return map([=](__m256 x) {
        const __m256 open = _mm256_max_ps(_mm256_setzero_ps(), _mm256_fmadd_ps(x, a, b));
        return _mm256_min_ps(_mm256_set1_ps(1.0f), open);
      });
    case ZYN_FUNC_SIGMOID:
      return map([](__m256 x) { return zyn_sigmoid8(x); });
    case ZYN_FUNC_HARD_SWISH:
      return map([](__m256 x) { return hard_swish(x); });
  }
}

void apply_later(const float_map& map, const zyn_func_param& param) {
  const __m256 a = _mm256_set1_ps(param.a);
  switch (param.function) {
    case ZYN_FUNC_ELU:
      return map.with_long(
          [=](__m256 x) { return _mm256_blendv_ps(x, _mm256_mul_ps(a, zyn_expm1_8(x)), x); });
    case ZYN_FUNC_SILU:
      return map.with_long([=](__m256 x) { return gated(x, zyn_sigmoid8(_mm256_mul_ps(a, x))); });
    case ZYN_FUNC_MISH:
      return map.with_long([](__m256 x) { return zyn_mish8(x); });
    case ZYN_FUNC_GELU:
      return param.a == 0.0f ? map.with_long([](__m256 x) { return gelu(x); })
                             : map.with_long([](__m256 x) { return gelu_by_tanh(x); });
    case ZYN_FUNC_SOFTPLUS:
      return map.with_long([](__m256 x) { return zyn_softplus8(x); });
    case ZYN_FUNC_ERF:
      return map.with_long([](__m256 x) { return zyn_erf8(x); });
    default:
      return apply_both(map, param);
  }
}

bool fault(char* text, size_t size, const char* format, double value) {
  snprintf(text, size, format, value);
  return true;
}

}  // namespace

bool zyn_cg_function_is_fixed_point(int32_t function) {
  return function == ZYN_FUNC_CLIP || function == ZYN_FUNC_SCALE_SHIFT ||
         function == ZYN_FUNC_LEAKY_RELU || function == ZYN_FUNC_PRELU ||
         function == ZYN_FUNC_HARD_SIGMOID || function == ZYN_FUNC_SIGMOID ||
         function == ZYN_FUNC_HARD_SWISH;
}

bool zyn_cg_find_function_fault(const zyn_func_param& param, int32_t dim_count, char* text,
                                size_t size) {
  const auto a = static_cast<double>(param.a), b = static_cast<double>(param.b);
  const int32_t function = param.function;
  if (function < ZYN_FUNC_ABS || function > ZYN_FUNC_ERF ||
      (function > ZYN_FUNC_SCALE_SHIFT && function < ZYN_FUNC_LEAKY_RELU)) {
    snprintf(text, size, "there is no function %d", function);
    return true;
  }
  if (function == ZYN_FUNC_POWER && !isfinite(a))
    return fault(text, size, "the exponent is not finite", 0);
  const bool reads_a = function == ZYN_FUNC_LEAKY_RELU || function == ZYN_FUNC_ELU ||
                       function == ZYN_FUNC_HARD_SIGMOID || function == ZYN_FUNC_SILU;
  if (reads_a && !isfinite(a)) return fault(text, size, "a is %g, a finite number is needed", a);
  if (function == ZYN_FUNC_HARD_SIGMOID && !isfinite(b))
    return fault(text, size, "b is %g, a finite number is needed", b);
  if (function == ZYN_FUNC_GELU && a != 0 && a != 1)
    return fault(text, size, "a is %g, 0 (by erf) or 1 (by tanh) is needed", a);
  if (zyn_cg_is_axis_function(function) && !(a >= 0 && a < dim_count && a == floor(a))) {
    snprintf(text, size, "axis %g of an input whose axes are 0 to %d", a, dim_count - 1);
    return true;
  }
  if (function == ZYN_FUNC_L2_NORM && !(b >= 0 && isfinite(b)))
    return fault(text, size, "b is %g, a number of at least 0 is needed", b);
  return false;
}

void zyn_cg_apply_function(zyn_tensor* output, const zyn_tensor* input,
                           const zyn_func_param& param) {
  const float_map map = {zyn_cg_floats(output), zyn_cg_floats(input), output->count};
  output->layout = input->layout;
  switch (param.function) {
    case ZYN_FUNC_ABS:
      return map([](__m256 x) { return _mm256_andnot_ps(_mm256_set1_ps(-0.0f), x); });
    case ZYN_FUNC_NEGATE:
      return map([](__m256 x) { return _mm256_xor_ps(_mm256_set1_ps(-0.0f), x); });
    case ZYN_FUNC_SQUARE:
      return map([](__m256 x) { return _mm256_mul_ps(x, x); });
    case ZYN_FUNC_SQRT:
      return map([](__m256 x) { return _mm256_sqrt_ps(x); });
    case ZYN_FUNC_RECIPROCAL:
      return map([](__m256 x) { return _mm256_div_ps(_mm256_set1_ps(1.0f), x); });
    case ZYN_FUNC_EXP:
      return map.with_long([](__m256 x) { return zyn_exp8(x); });
    case ZYN_FUNC_LOG:
      return map.with_long([](__m256 x) { return zyn_log8(x); });
    case ZYN_FUNC_TANH:
      return map.with_long([](__m256 x) { return zyn_tanh8(x); });
    case ZYN_FUNC_POWER:
      return map.with_long([a = param.a](__m256 x) { return zyn_power8(x, a); });
    default:
      return apply_later(map, param);
  }
}

void zyn_cg_apply_prelu(zyn_tensor* output, const zyn_tensor* input, const zyn_tensor* slopes) {
  if (slopes->count == 1)
    return zyn_cg_apply_function(output, input,
                                 {ZYN_FUNC_LEAKY_RELU, *zyn_cg_floats(slopes), 0.0f});
  output->layout = input->layout;
  zyn_map_channels(zyn_cg_floats(output), input, zyn_cg_floats(slopes), leaky_relu);
}

void zyn_cg_apply_fixed_function(zyn_tensor* output, const zyn_tensor* input,
                                 const zyn_cg_fixed_function& function) {
  const bool by_channel = function.param.function == ZYN_FUNC_PRELU;
  const int64_t slopes = by_channel ? function.slopes->count : 1;
  // One slope serves all elements, as a leaky ReLU's a does.
  const int64_t run = slopes > 1 ? zyn_cg_pixels(input) : input->count;
  for (int64_t i = 0; i * run < input->count; i++) {
    const fixed_map map = {zyn_fpi_words(output) + i * run, function.q_output,
                           zyn_fpi_words(input) + i * run, function.q_input, run};
    zyn_func_param param = function.param;
    if (by_channel) param = {ZYN_FUNC_LEAKY_RELU, zyn_cg_floats(function.slopes)[i % slopes], 0.0f};
    apply_both(map, param);
  }
  output->layout = input->layout;
}

// Choosing the fraction bits of a range of floats, and converting it.
#include "cg/cpu/kernels/fixed/zyn_cg_fpi_convert.h"

#include <float.h>
#include <math.h>

namespace {

constexpr int32_t kWordBits = 16;

}  // namespace

int32_t zyn_cg_fpi_choose_fraction_bits(uint32_t* q, const zyn_tensor* source, int64_t first,
                                        int64_t count) {
  if (!q || !source || !source->data || first < 0 || source->type != ZYN_TYPE_F32)
    return ZYN_RET_ERR_PARA;
  if (count > source->count) count = source->count;
  const float* values = static_cast<const float*>(source->data) + first;
  float low = FLT_MAX;
  float high = FLT_MIN;  // On purpose not negative: the extreme of zeros is tiny, not 0.
  for (int64_t i = 0; i < count; i++) {
    if (values[i] < low) low = values[i];
    if (values[i] > high) high = values[i];
  }
  const float extreme = fabsf(high) < fabsf(low) ? low : high;
  for (int32_t i = 0; i < kWordBits; i++) {
    const int32_t bits = kWordBits - 1 - i;
    if (-ldexpf(1.0f, i) <= extreme && extreme <= ldexpf(1.0f, i) - ldexpf(1.0f, -bits)) {
      *q = static_cast<uint32_t>(bits);
      return ZYN_RET_OK;
    }
  }
  return ZYN_RET_ERR_PARA;
}

int32_t zyn_cg_fpi_quantize_range(zyn_tensor* destination, const zyn_tensor* source, int64_t first,
                                  int64_t count, uint32_t q) {
  if (!destination || !source || !destination->data || !source->data || first < 0 || q >= kWordBits)
    return ZYN_RET_ERR_PARA;
  if (source->type != ZYN_TYPE_F32 || destination->type != ZYN_TYPE_FPI16 ||
      source->count < count || destination->count < count)
    return ZYN_RET_ERR_PARA;
  const float* in = static_cast<const float*>(source->data) + first;
  auto* out = static_cast<int16_t*>(destination->data) + first;
  const float scale = static_cast<float>(1 << q);
  for (int64_t i = 0; i < count; i++) {
    // Beyond 63 bits there is no low word to keep; llrintf would be undefined.
    const float scaled = in[i] * scale;
    const bool fits = fabsf(scaled) < 9.0e18f;
    out[i] = static_cast<int16_t>(static_cast<uint64_t>(fits ? llrintf(scaled) : 0));
  }
  return ZYN_RET_OK;
}

// Activations as passes over finished values.
#include "cg/cpu/kernels/zyn_conv_epilogue.h"

void zyn_activate_values(float* values, int64_t count, zyn_conv_activation activation) {
  int64_t i = 0;
  for (; i + 8 <= count; i += 8)
    _mm256_storeu_ps(values + i, zyn_activate(_mm256_loadu_ps(values + i), activation));
  for (; i < count; i++)
    values[i] = _mm256_cvtss_f32(zyn_activate(_mm256_set1_ps(values[i]), activation));
}

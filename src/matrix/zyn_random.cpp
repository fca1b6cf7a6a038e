// Normally distributed matrices from one process-wide Mersenne Twister (MT19937).
#include "matrix/zyn_random.h"

#include <math.h>

#include "base/zyn_explain.h"
#include "base/zyn_report.h"
#include "zyncore.h"

namespace {

constexpr const char* kPath = "src/matrix/zyn_random.cpp";
constexpr zyn_site kArgs{kPath, 166, ZYN_MSG_PARA};
constexpr zyn_site kType{kPath, 181, ZYN_MSG_NOT_SUPPORT};

constexpr int32_t kWords = 624;
constexpr int32_t kShift = 397;
constexpr int32_t kUnseeded = kWords + 1;

uint32_t state[kWords];
int32_t index = kUnseeded;

// The second value of a polar round, kept for the next draw.
double spare_value;
bool has_spare = false;

void seed(uint32_t value) {
  state[0] = value;
  for (uint32_t i = 1; i < kWords; i++)
    state[i] = 1812433253u * (state[i - 1] ^ (state[i - 1] >> 30)) + i;
}

void twist() {
  for (int32_t i = 0; i < kWords; i++) {
    const uint32_t y = (state[i] & 0x80000000u) | (state[(i + 1) % kWords] & 0x7FFFFFFFu);
    state[i] = state[(i + kShift) % kWords] ^ (y >> 1) ^ (y & 1 ? 0x9908B0DFu : 0);
  }
}

// Evenly in [-1, 1).
double draw_signed() { return zyn_random_u32() * 0x1p-31 - 1; }

template <typename T>
void fill(const zyn_matrix* matrix, const void* mean, const void* deviation) {
  const double center = *static_cast<const T*>(mean);
  const double scale = *static_cast<const T*>(deviation);
  T* const values = static_cast<T*>(matrix->data);
  const int64_t count =
      int64_t{matrix->pages} * matrix->rows * matrix->row_bytes / static_cast<int64_t>(sizeof(T));
  for (int64_t i = 0; i < count; i++) values[i] = static_cast<T>(zyn_random_gauss(center, scale));
}

}  // namespace

uint32_t zyn_random_u32() {
  if (index == kUnseeded) seed(5489);
  if (index >= kWords) {
    twist();
    index = 0;
  }
  uint32_t y = state[index++];
  y ^= y >> 11;
  y ^= (y << 7) & 0x9D2C5680u;
  y ^= (y << 15) & 0xEFC60000u;
  return y ^ (y >> 18);
}

double zyn_random_gauss(double mean, double deviation) {
  has_spare = !has_spare;
  if (!has_spare) return spare_value * deviation + mean;
  double u, v, s;
  do {
    u = draw_signed();
    v = draw_signed();
    s = u * u + v * v;
  } while (!(s > 1e-10 && s < 1));
  const double factor = sqrt(-2 * log(s) / s);
  spare_value = v * factor;
  return u * factor * deviation + mean;
}

int32_t zyn_random_norm(zyn_matrix* matrix, const void* mean, const void* deviation) {
  if (!matrix || !matrix->data || !mean || !deviation)
    return zyn_fail_null(kArgs, "the matrix, its data, the mean or the deviation");
  switch (matrix->type & 7) {
    case ZYN_TYPE_F32:
      fill<float>(matrix, mean, deviation);
      return ZYN_RET_OK;
    case ZYN_TYPE_F64:
      fill<double>(matrix, mean, deviation);
      return ZYN_RET_OK;
    default:
      return zyn_refuse(zyn_fail(kType, ZYN_RET_ERR_NOT_SUPPORT),
                        "a matrix of floats or doubles is needed, found type %u", matrix->type);
  }
}

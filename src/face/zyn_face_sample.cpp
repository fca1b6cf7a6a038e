// One pass down the target: the rows of the frame that a row of the target covers are summed up
// as packed bytes, in floats, then gathered along the row into planes.
#include "face/zyn_face_sample.h"

#include <immintrin.h>
#include <math.h>

#include "base/zyn_explain.h"
#include "base/zyn_integers.h"
#include "base/zyn_memory.h"
#include "face/zyn_face_frame.h"
#include "simd/zyn_vectors.h"

namespace {

constexpr int32_t kLanes = 8;

// Which pixels along an axis make up each element of the target: taps of them from first on,
// with weights that sum up to one, or to zero where the element lies outside. Arrays are filled
// up to whole vectors.
class axis {
 public:
  axis(int32_t elements, int32_t pixels, double begin, double extent)
      : elements_(elements),
        pixels_(pixels),
        padded_(zyn_round_up(elements, kLanes)),
        begin_(begin),
        step_(extent / elements),
        taps_(needed_taps()),
        first_(padded_),
        weights_(padded_ * taps_) {
    if (!*this) return;
    for (int32_t i = 0; i < padded_; i++) place(i);
    for (int32_t i = 0; inside() && i < begin_inside_; i++) first_[i] = first_[begin_inside_];
  }
  explicit operator bool() const { return first_ && weights_; }

  int32_t taps() const { return taps_; }
  const int32_t* first() const { return first_.get(); }
  // The weights of tap t, by element.
  const float* weights(int64_t t) const { return weights_.get() + t * padded_; }
  // Elements begin_inside() to end_inside() - 1 have pixels; those are begin() to end() - 1.
  int32_t begin_inside() const { return begin_inside_; }
  int32_t end_inside() const { return end_inside_; }
  int32_t begin() const { return inside() ? first_[begin_inside_] : 0; }
  int32_t end() const { return inside() ? first_[end_inside_ - 1] + taps_ : 0; }
  bool inside() const { return begin_inside_ < end_inside_; }

 private:
  // The part of the axis that element i covers, cut at the frame's edges.
  struct span {
    bool inside;
    double low, high;
  };
  span cover(int32_t i) const {
    const double center = begin_ + (i + 0.5) * step_, half = 0.5 * fmax(step_, 1);
    const bool inside = i < elements_ && center >= 0 && center < pixels_;
    return {inside, fmax(center - half, 0), fmin(center + half, pixels_)};
  }

  int32_t needed_taps() const {
    int32_t most = 1;
    for (int32_t i = 0; i < elements_; i++) {
      const span s = cover(i);
      const double taps = ceil(s.high) - floor(s.low);
      if (s.inside && taps > most) most = static_cast<int32_t>(taps);
    }
    return most;
  }

  // A window that would reach over the end of the frame is moved inside, which leaves taps
  // without weight.
  void place(int32_t i) {
    const span s = cover(i);
    int32_t first = s.inside ? static_cast<int32_t>(s.low) : i > 0 ? first_[i - 1] : 0;
    if (first > pixels_ - taps_) first = pixels_ - taps_;
    first_[i] = first;
    for (int32_t t = 0; t < taps_; t++) {
      const double part = fmin(s.high, first + t + 1.0) - fmax(s.low, first + t);
      const bool counts = s.inside && part > 0;
      weights_[t * padded_ + i] = counts ? static_cast<float>(part / (s.high - s.low)) : 0.0f;
    }
    if (!s.inside) return;
    if (!inside()) begin_inside_ = i;
    end_inside_ = i + 1;
  }

  int32_t elements_, pixels_;
  int64_t padded_;
  double begin_, step_;
  int32_t taps_;
  zyn_scratch<int32_t> first_;
  zyn_scratch<float> weights_;
  int32_t begin_inside_ = 0, end_inside_ = 0;
};

// sum = [sum +] weight_a * a + weight_b * b over count bytes.
template <bool kStart>
void add_rows(float* sum, const uint8_t* a, float weight_a, const uint8_t* b, float weight_b,
              int64_t count) {
  const __m256 wa = _mm256_set1_ps(weight_a), wb = _mm256_set1_ps(weight_b);
  const auto bytes = [](const uint8_t* from) {
    const auto* words = reinterpret_cast<const __m128i*>(from);
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(words)));
  };
  int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    const __m256 before = kStart ? _mm256_setzero_ps() : _mm256_loadu_ps(sum + i);
    const __m256 with_a = _mm256_fmadd_ps(wa, bytes(a + i), before);
    _mm256_storeu_ps(sum + i, _mm256_fmadd_ps(wb, bytes(b + i), with_a));
  }
  for (; i < count; i++) {
    const float with_a = __builtin_fmaf(weight_a, a[i], kStart ? 0.0f : sum[i]);
    sum[i] = __builtin_fmaf(weight_b, b[i], with_a);
  }
}

// The frame's part of target row y: count bytes of the mean over its rows.
void sum_rows(float* sum, zyn_frame_rows* rows, const axis& down, int32_t y, int64_t count) {
  const int32_t first = down.first()[y], taps = down.taps();
  for (int32_t t = 0; t < taps; t += 2) {
    const bool single = t + 1 == taps;
    const uint8_t* a = rows->row(first + t);
    const uint8_t* b = single ? a : rows->row(first + t + 1);
    const float weight_a = down.weights(t)[y];
    const float weight_b = single ? 0.0f : down.weights(t + 1)[y];
    if (t == 0)
      add_rows<true>(sum, a, weight_a, b, weight_b, count);
    else
      add_rows<false>(sum, a, weight_a, b, weight_b, count);
  }
}

// Blue, green, red to grey in place: element i from elements 3 i and behind.
void make_grey(float* row, int64_t pixels, bool red_first) {
  const float red = 4899 / 16384.0f, green = 9617 / 16384.0f, blue = 1868 / 16384.0f;
  const float head = red_first ? red : blue, tail = red_first ? blue : red;
  for (int64_t i = 0; i < pixels; i++)
    row[i] = head * row[3 * i] + green * row[3 * i + 1] + tail * row[3 * i + 2];
}

// A plane of the target: value * scale + shift, as floats or rounded to 16 bits.
struct plane {
  void* data;
  bool words;
  float scale, shift;
};

void store(const plane& to, int64_t at, __m256 values, int64_t count) {
  const __m256 y = _mm256_fmadd_ps(values, _mm256_set1_ps(to.scale), _mm256_set1_ps(to.shift));
  if (!to.words) {
    float* out = static_cast<float*>(to.data) + at;
    if (count >= kLanes) return _mm256_storeu_ps(out, y);
    return _mm256_maskstore_ps(out, zyn_first_lanes(count), y);
  }
  alignas(16) int16_t rounded[kLanes];
  const __m256i whole = _mm256_cvtps_epi32(y);
  _mm_store_si128(
      reinterpret_cast<__m128i*>(rounded),
      _mm_packs_epi32(_mm256_castsi256_si128(whole), _mm256_extracti128_si256(whole, 1)));
  int16_t* out = static_cast<int16_t*>(to.data) + at;
  for (int64_t i = 0; i < count && i < kLanes; i++) out[i] = rounded[i];
}

// One row of a plane: weights times every step-th float from row on.
void gather_row(const plane& to, int64_t at, int64_t width, const float* row, const axis& along,
                int32_t step) {
  const __m256i origin = _mm256_set1_epi32(along.begin() * step);
  for (int64_t x = 0; x < width; x += kLanes) {
    const auto* first = reinterpret_cast<const __m256i*>(along.first() + x);
    const __m256i index = _mm256_sub_epi32(
        _mm256_mullo_epi32(_mm256_loadu_si256(first), _mm256_set1_epi32(step)), origin);
    __m256 sum = _mm256_setzero_ps();
    for (int64_t t = 0; t < along.taps(); t++)
      sum = _mm256_fmadd_ps(_mm256_loadu_ps(along.weights(t) + x),
                            _mm256_i32gather_ps(row + t * step, index, 4), sum);
    store(to, at + x, sum, width - x);
  }
}

void fill_black(const plane& to, int64_t at, int64_t count) {
  for (int64_t x = 0; x < count; x += kLanes) store(to, at + x, _mm256_setzero_ps(), count - x);
}

struct target {
  plane planes[3];
  int32_t count, width, height;

  target(zyn_tensor* tensor, const zyn_net_port& port)
      : count(tensor->dim_count > 2 ? tensor->dims[2] : 1),
        width(tensor->dims[0]),
        height(tensor->dims[1]) {
    const bool words = tensor->type == ZYN_TYPE_FPI16;
    const float unit = words ? static_cast<float>(int64_t{1} << port.q) : 1.0f;
    for (int64_t p = 0; p < count; p++)
      planes[p] = {static_cast<uint8_t*>(tensor->data) + p * width * height * tensor->element_size,
                   words, port.scale[p] * unit, -port.mean[p] * port.scale[p] * unit};
  }
  void fill_row_black(int64_t y) const {
    for (int32_t p = 0; p < count; p++) fill_black(planes[p], y * width, width);
  }
};

// Rows of the target that have pixels.
void fill_rows(const target& to, bool red_first, zyn_frame_rows* rows, const axis& along,
               const axis& down, float* sum) {
  const int32_t channels = rows->channels(), pixels = along.end() - along.begin();
  const bool grey = to.count == 1, mixed = grey && channels == 3;
  const bool swapped = !grey && channels == 3 && rows->red_first() != red_first;
  const int32_t step = mixed ? 1 : channels;
  for (int32_t y = down.begin_inside(); y < down.end_inside(); y++) {
    sum_rows(sum, rows, down, y, int64_t{pixels} * channels);
    if (mixed) make_grey(sum, pixels, rows->red_first());
    for (int32_t p = 0; p < to.count; p++) {
      const int32_t channel = step == 1 ? 0 : swapped ? 2 - p : p;
      gather_row(to.planes[p], int64_t{y} * to.width, to.width, sum + channel, along, step);
    }
  }
}

}  // namespace

zyn_face_region zyn_face_input_region(const zyn_face_frame& frame, int32_t width, int32_t height,
                                      int32_t rule) {
  constexpr int32_t kStretched = 1, kCutOut = 3;
  const double across = static_cast<double>(frame.width) / width;
  const double down = static_cast<double>(frame.height) / height;
  const double both = rule == kCutOut ? fmin(across, down) : fmax(across, down);
  const double w = rule == kStretched ? frame.width : width * both;
  const double h = rule == kStretched ? frame.height : height * both;
  return {0.5 * (frame.width - w), 0.5 * (frame.height - h), w, h};
}

int32_t zyn_face_sample(zyn_tensor* tensor, const zyn_net_port& port, const zyn_face_frame& frame,
                        const zyn_face_region& region) {
  constexpr int32_t kRedFirst = 2;  // channel_order of a port
  const target to(tensor, port);
  const axis along(to.width, frame.width, region.x, region.width);
  const axis down(to.height, frame.height, region.y, region.height);
  if (!along || !down) return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory to resize a frame");
  const bool any = along.inside() && down.inside();
  for (int32_t y = 0; y < to.height; y++)
    if (!any || y < down.begin_inside() || y >= down.end_inside()) to.fill_row_black(y);
  if (!any) return ZYN_RET_OK;

  zyn_frame_rows rows(frame, along.begin(), along.end(), down.taps());
  // Behind the last pixel there is room for what the last gathers reach over.
  const zyn_scratch<float> sum(3 * int64_t{along.end() - along.begin()} + kLanes);
  if (!rows || !sum) return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory to resize a frame");
  fill_rows(to, port.channel_order == kRedFirst, &rows, along, down, sum.get());
  return ZYN_RET_OK;
}

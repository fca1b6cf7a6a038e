// Resizing to given extents, and the planes of every resampling. Bilinear goes along the rows
// first: an input row is brought to the output's columns once, and the rows of the output lie
// between two of those.
#include "cg/cpu/ops/zyn_cg_resize.h"

#include <math.h>

#include "cg/cpu/ops/zyn_cg_further.h"

namespace {

constexpr int64_t kWordsPerTap = 3;

struct resize_state : zyn_cg_varied_state {
  zyn_resize_param param;
  zyn_cg_resizer resizer;
};

// Where output i lies, in elements of the input.
double place_of(const zyn_cg_placing& p, int64_t i) {
  const auto at = static_cast<double>(i);
  const double in = p.scale > 0 ? 1.0 : static_cast<double>(p.in);
  const double out = p.scale > 0 ? static_cast<double>(p.scale) : static_cast<double>(p.out);
  if (p.place == ZYN_PLACE_ASYMMETRIC) return at * in / out;
  if (p.place == ZYN_PLACE_ALIGN_CORNERS)
    return p.out == 1 ? 0.0 : at * static_cast<double>(p.in - 1) / static_cast<double>(p.out - 1);
  if (p.place == ZYN_PLACE_HALF_PIXEL_0 && p.out == 1) return 0.0;
  return (at + 0.5) * in / out - 0.5;
}

double inside(const zyn_cg_placing& p, double place) {
  const auto last = static_cast<double>(p.in - 1);
  return place < 0 ? 0 : place > last ? last : place;
}

void fill_nearest(const zyn_cg_taps& taps, const zyn_cg_placing& p) {
  for (int64_t i = 0; i < p.out; i++) {
    const double place = place_of(p, i);
    const double near = p.rounding == 0   ? ceil(place - 0.5)
                        : p.rounding == 1 ? floor(place + 0.5)
                        : p.rounding == 2 ? floor(place)
                                          : ceil(place);
    taps.low[i] = taps.high[i] = static_cast<int32_t>(inside(p, near));
    taps.weight[i] = 0.0f;
  }
}

void fill_linear(const zyn_cg_taps& taps, const zyn_cg_placing& p) {
  for (int64_t i = 0; i < p.out; i++) {
    const double place = inside(p, place_of(p, i));
    const auto low = static_cast<int32_t>(place);
    taps.low[i] = low;
    taps.high[i] = low + 1 < p.in ? low + 1 : static_cast<int32_t>(p.in - 1);
    taps.weight[i] = static_cast<float>(place - low);
  }
}

zyn_cg_taps taps_at(int32_t* words, int64_t count) {
  return {words, words + count, reinterpret_cast<float*>(words + 2 * count)};
}

// How often every input column stands in a row of the output, where that is the same for all.
int32_t repeat_of(const zyn_cg_taps& taps, const zyn_cg_placing& p) {
  const int64_t times = p.out / p.in;
  if (p.out % p.in != 0 || times > 2) return 0;
  for (int64_t i = 0; i < p.out; i++)
    if (taps.low[i] != i / times) return 0;
  return static_cast<int32_t>(times);
}

// A row at the columns' places.
void line_linear(float* out, const float* in, const zyn_cg_taps& taps, int64_t count) {
  const __m256 zero = _mm256_setzero_ps();
  for (int64_t x = 0; x < count; x += 8) {
    const __m256i mask = zyn_first_lanes(count - x);
    const __m256 lanes = _mm256_castsi256_ps(mask);
    const __m256i at_low = _mm256_maskload_epi32(taps.low + x, mask);
    const __m256i at_high = _mm256_maskload_epi32(taps.high + x, mask);
    const __m256 low = _mm256_mask_i32gather_ps(zero, in, at_low, lanes, 4);
    const __m256 high = _mm256_mask_i32gather_ps(zero, in, at_high, lanes, 4);
    const __m256 weight = _mm256_maskload_ps(taps.weight + x, mask);
    _mm256_maskstore_ps(out + x, mask, _mm256_fmadd_ps(weight, _mm256_sub_ps(high, low), low));
  }
}

void plane_linear(const zyn_cg_resizer& r, float* out, const float* in) {
  const int64_t width = r.across.out;
  float* lines[2] = {r.lines[0], r.lines[1]};
  int64_t held[2] = {-1, -1};
  for (int64_t y = 0; y < r.down.out; y++, out += width) {
    const int64_t wanted[2] = {r.rows.low[y], r.rows.high[y]};
    if (held[1] == wanted[0]) {  // the upper row was the lower one before
      held[1] = held[0];
      held[0] = wanted[0];
      float* line = lines[1];
      lines[1] = lines[0];
      lines[0] = line;
    }
    for (int i = 0; i < 2; i++) {
      if (held[i] == wanted[i]) continue;
      line_linear(lines[i], in + wanted[i] * r.across.in, r.columns, width);
      held[i] = wanted[i];
    }
    const __m256 weight = _mm256_set1_ps(r.rows.weight[y]);
    zyn_map2<1>(out, lines[0], lines[1], width, [weight](__m256 upper, __m256 lower) {
      return _mm256_fmadd_ps(weight, _mm256_sub_ps(lower, upper), upper);
    });
  }
}

// A row of given columns.
void line_nearest(float* out, const float* in, const zyn_cg_resizer& r) {
  for (int64_t x = 0; x < r.across.out; x += 8) {
    const __m256i mask = zyn_first_lanes(r.across.out - x);
    const __m256i at = _mm256_maskload_epi32(r.columns.low + x, mask);
    _mm256_maskstore_ps(
        out + x, mask,
        _mm256_mask_i32gather_ps(_mm256_setzero_ps(), in, at, _mm256_castsi256_ps(mask), 4));
  }
}
void line_nearest(int16_t* out, const int16_t* in, const zyn_cg_resizer& r) {
  for (int64_t x = 0; x < r.across.out; x++) out[x] = in[r.columns.low[x]];
}

// Every column twice: a vector of 32 bytes makes two.
template <typename T>
void line_twice(T* out, const T* in, int64_t count) {
  constexpr int64_t kStep = 32 / sizeof(T);
  int64_t x = 0;
  for (; x + kStep <= count; x += kStep) {
    __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + x));
    v = _mm256_permute4x64_epi64(v, 0xD8);
    const bool wide = sizeof(T) == sizeof(float);
    const __m256i first = wide ? _mm256_unpacklo_epi32(v, v) : _mm256_unpacklo_epi16(v, v);
    const __m256i second = wide ? _mm256_unpackhi_epi32(v, v) : _mm256_unpackhi_epi16(v, v);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 2 * x), first);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 2 * x + kStep), second);
  }
  for (; x < count; x++) out[2 * x] = out[2 * x + 1] = in[x];
}

template <typename T>
void plane_nearest(const zyn_cg_resizer& r, T* out, const T* in) {
  const int64_t width = r.across.out;
  for (int64_t y = 0; y < r.down.out; y++, out += width) {
    const T* row = in + r.rows.low[y] * r.across.in;
    const bool again = y > 0 && r.rows.low[y] == r.rows.low[y - 1];
    if (again || r.repeat == 1)
      memcpy(out, again ? out - width : row, static_cast<size_t>(width) * sizeof(T));
    else if (r.repeat == 2)
      line_twice(out, row, r.across.in);
    else
      line_nearest(out, row, r);
  }
}

template <typename T>
void resize_planes(const resize_state* state, const zyn_tensor* input) {
  const int64_t from = zyn_cg_pixels(input), to = zyn_cg_pixels(state->output);
  const auto* in = static_cast<const T*>(input->data);
  auto* out = static_cast<T*>(state->output->data);
  for (int64_t p = input->count / from; p > 0; p--, in += from, out += to)
    zyn_cg_resize_plane(state->resizer, out, in);
}

int32_t run_resize(void* record) {
  auto* state = static_cast<resize_state*>(record);
  if (!zyn_cg_same_input(state)) return ZYN_RET_ERR_PARA;
  const zyn_tensor* input = zyn_cg_planar(state->input, &state->planar);
  if (!input) return ZYN_RET_ERR_MEMORY;
  if (input->type == ZYN_TYPE_FPI16)
    resize_planes<int16_t>(state, input);
  else
    resize_planes<float>(state, input);
  state->output->layout = ZYN_LAYOUT_PLANAR;
  return ZYN_RET_OK;
}

int32_t prepare_resize(zyn_cg_handle* graph, int32_t node) {
  auto* state = zyn_cg_state<resize_state>(graph, node);
  const int32_t code = zyn_cg_prepare_further(graph, node, state, &state->param);
  if (code != ZYN_RET_OK) return code;
  const zyn_resize_param& p = state->param;
  return zyn_cg_make_resizer(&state->resizer, &state->workspace,
                             {state->shape.dims[0], p.width, p.place, p.rounding, p.scale_x},
                             {state->shape.dims[1], p.height, p.place, p.rounding, p.scale_y},
                             p.mode == ZYN_RESAMPLE_RESIZE_BILINEAR);
}

}  // namespace

int32_t zyn_cg_make_resizer(zyn_cg_resizer* resizer, void** workspace, const zyn_cg_placing& across,
                            const zyn_cg_placing& down, bool linear) {
  const int64_t taps = (across.out + down.out) * kWordsPerTap;
  zyn_scratch<int32_t> words(taps + (linear ? 2 * across.out : 0));
  if (!words) return ZYN_RET_ERR_MEMORY;
  *resizer = {across,
              down,
              linear,
              taps_at(words.get(), across.out),
              taps_at(words.get() + across.out * kWordsPerTap, down.out),
              {},
              0};
  const auto fill = linear ? fill_linear : fill_nearest;
  fill(resizer->columns, across);
  fill(resizer->rows, down);
  if (linear) {
    resizer->lines[0] = reinterpret_cast<float*>(words.get() + taps);
    resizer->lines[1] = resizer->lines[0] + across.out;
  } else {
    resizer->repeat = repeat_of(resizer->columns, across);
  }
  zyn_free(*workspace);
  *workspace = words.take();
  return ZYN_RET_OK;
}

void zyn_cg_resize_plane(const zyn_cg_resizer& resizer, float* out, const float* in) {
  if (resizer.linear)
    plane_linear(resizer, out, in);
  else
    plane_nearest(resizer, out, in);
}

void zyn_cg_resize_plane(const zyn_cg_resizer& resizer, int16_t* out, const int16_t* in) {
  plane_nearest(resizer, out, in);
}

int32_t zyn_cg_bind_resize(zyn_cg_handle* graph, int32_t node, const void* param) {
  return zyn_cg_bind_varied<resize_state>(graph, node, param, ZYN_OP_RESAMPLE, prepare_resize,
                                          run_resize);
}

// Matrix arithmetic, solver, tensors, their conversions and poses of any shapes and values,
// each beside the plain formula: small whole numbers must come out exactly.
#include <algorithm>
#include <cmath>
#include <vector>

#include "matrix/zyn_matrix_ops.h"
#include "matrix/zyn_random.h"
#include "support/fuzz.h"

namespace {

using zyn_fuzz::check;
using zyn_fuzz::Input;

// A matrix of small whole numbers, or of any now and then; its rows lie gap elements apart.
template <typename T>
struct Grid {
  zyn_matrix m, *owner;
  Grid(Input& in, int32_t rows, int32_t cols, bool any = false, int32_t gap = 0) {
    const int32_t type = sizeof(T) == 4 ? ZYN_TYPE_F32 : ZYN_TYPE_F64;
    owner = zyn_create_matrix(rows, cols + gap, 1, type);
    check(owner && !zyn_set_matrix_header(&m, rows, cols, 1, type), "a matrix can be made");
    m.data = owner->data;
    m.row_bytes = owner->row_bytes;
    uint32_t state = in.word();
    for (int64_t i = 0; i < m.rows * m.row_bytes / int64_t{sizeof(T)}; i++) {
      state = state * 1664525 + 1013904223;
      const auto whole = static_cast<float>(static_cast<int>(state >> 28) - 8);
      static_cast<T*>(m.data)[i] = static_cast<T>(any && in.one_in(8) ? in.real() : whole);
    }
  }
  ~Grid() { zyn_release_matrix(&owner); }
  Grid(const Grid&) = delete;
  T& at(int32_t r, int32_t c) {
    return static_cast<T*>(m.data)[r * m.row_bytes / int64_t{sizeof(T)} + c];
  }
};

template <typename T>
void arithmetic(Input& in) {
  // Now and then more than 180000 elements: the packed path.
  const bool large = in.one_in(256), turned = in.one_in(2);
  const int32_t m = in.integer(1, large ? 13 : 27), n = large ? 301 : in.integer(1, 35);
  const int32_t k = large ? 600 + in.integer(0, 9) : in.integer(1, 24);
  const int32_t gap = in.integer(0, 3);
  Grid<T> a(in, m, k, false, gap), b(in, turned ? n : k, turned ? k : n, false, 2 * gap);
  Grid<T> c(in, m, n, false, gap), d(in, m, n, false, gap), t(in, n, m);
  const T alpha = static_cast<T>(in.integer(-3, 3)), beta = static_cast<T>(in.integer(-2, 2));
  const auto element = [&](int32_t r, int32_t j) {
    T sum = 0;
    for (int32_t i = 0; i < k; i++) sum += a.at(r, i) * (turned ? b.at(j, i) : b.at(i, j));
    return alpha * sum + beta * d.at(r, j);
  };
  check(!zyn_matrix_transpose(&t.m, &c.m) && !zyn_matrix_add(&c.m, &d.m, &c.m), "shapes fit");
  for (int32_t r = 0; r < m; r++)
    for (int32_t j = 0; j < n; j++) {
      check(c.at(r, j) == d.at(r, j) + t.at(j, r), "a sum, and a transposition");
      c.at(r, j) = d.at(r, j);
    }
  check(!zyn_matrix_gemm(&c.m, &a.m, &b.m, turned, &alpha, &beta), "shapes fit");
  const int32_t step = large ? 17 : 1;
  for (int32_t r = 0; r < m; r += step)
    for (int32_t j = 0; j < n; j += step) check(c.at(r, j) == element(r, j), "a product");
}

template <typename T>
void solve(Input& in) {
  const int32_t n = in.integer(1, 9), columns = in.integer(1, 9);
  const bool any = in.one_in(3);
  Grid<T> a(in, n, n, any), b(in, n, columns, any), x(in, n, columns), kept(in, n, n);
  for (int32_t r = 0; r < n; r++)
    for (int32_t c = 0; c < n; c++) kept.at(r, c) = a.at(r, c);
  const int32_t code = zyn_solve_linear(&x.m, &a.m, &b.m);
  check(code == 0 || code == 32, "a system is solved or singular");
  if (code || any) return;
  double size = 1;
  for (int32_t r = 0; r < n; r++)
    for (int32_t c = 0; c < columns; c++)
      size = std::max(size, std::fabs(static_cast<double>(x.at(r, c))));
  for (int32_t r = 0; r < n; r++)
    for (int32_t c = 0; c < columns; c++) {
      double rest = -static_cast<double>(b.at(r, c));
      for (int32_t i = 0; i < n; i++)
        rest += static_cast<double>(kept.at(r, i)) * static_cast<double>(x.at(i, c));
      check(std::fabs(rest) < size * (sizeof(T) == 4 ? 1e-4 : 1e-12), "a solution solves");
    }
}

zyn_tensor* tensor(Input& in, const int32_t (&dims)[3], uint32_t type) {
  zyn_tensor* t = zyn_create_tensor(3, dims, type);
  check(t, "a tensor can be made");
  for (int64_t i = 0; i < t->count; i++)
    if (type == ZYN_TYPE_F32)
      static_cast<float*>(t->data)[i] =
          in.one_in(16) ? in.real() : static_cast<float>(in.byte()) / 16;
    else
      static_cast<int16_t*>(t->data)[i] = static_cast<int16_t>(in.signed16());
  return t;
}

void conversions(Input& in) {
  const int32_t dims[3] = {in.integer(1, 12), in.integer(1, 4), in.integer(1, 22)};
  zyn_tensor* a = tensor(in, dims, ZYN_TYPE_F32);
  zyn_tensor* b = zyn_create_tensor(3, dims, ZYN_TYPE_F32);
  const auto* x = static_cast<const uint32_t*>(a->data);
  const int32_t pixels = dims[0] * dims[1], channels = dims[2];
  for (const bool blocked : {false, true}) {
    const auto convert = blocked ? zyn_tensor_convert_NHWG2NHWC : zyn_tensor_convert_NCHW2NHWC;
    check(convert(b, a) == (blocked ? 1 : 0), "the layout code counts");
    zyn_set_tensor_channel_layout(a, ZYN_LAYOUT_BLOCKED);
    if (blocked) check(convert(b, a) == 0, "the layout code counts");
    zyn_set_tensor_channel_layout(a, blocked ? ZYN_LAYOUT_BLOCKED : ZYN_LAYOUT_PLANAR);
    check(b->layout == ZYN_LAYOUT_INTERLEAVED, "the result is marked");
    for (int32_t c = 0; c < channels; c++) {
      const int32_t left = channels / 8 * 8, group = !blocked                          ? 1
                                                     : c < left                        ? 8
                                                     : c < left + channels % 8 / 4 * 4 ? 4
                                                                                       : 1;
      const int32_t first = group == 8 ? c / 8 * 8 : group == 4 ? left : c;
      for (int32_t p = 0; p < pixels; p++)
        check(static_cast<uint32_t*>(b->data)[p * channels + c] ==
                  x[first * pixels + p * group + c - first],
              "elements keep their pixels and channels");
    }
  }
  const int32_t group = in.integer(1, 20), groups = static_cast<int32_t>(a->count) / group;
  const std::vector<float> v(static_cast<float*>(a->data), static_cast<float*>(a->data) + a->count);
  zyn_tensor* to = in.one_in(2) ? a : b;
  check(zyn_tensor_softmax(to, a, group) == (groups ? 0 : 1), "whole groups only");
  const auto* y = static_cast<const float*>(to->data);
  for (int32_t g = 0; g < groups; g++) {
    const auto from = v.begin() + g * group;
    if (!std::all_of(from, from + group, [](float f) { return std::isfinite(f); })) continue;
    const double top = static_cast<double>(*std::max_element(from, from + group));
    double sum = 0;
    for (int32_t i = 0; i < group; i++) sum += std::exp(static_cast<double>(from[i]) - top);
    for (int32_t i = 0; i < group; i++)
      check(std::fabs(static_cast<double>(y[g * group + i]) -
                      std::exp(static_cast<double>(from[i]) - top) / sum) <
                1e-5 + 1.2e-7 * std::fabs(top),  // the shift is a float of the top's size
            "a softmax");
  }
  zyn_tensor* words = tensor(in, dims, ZYN_TYPE_FPI16);
  const auto q = static_cast<uint32_t>(in.integer(0, 17));
  const int32_t count = in.integer(-2, static_cast<int32_t>(words->count) + 1);
  check(zyn_tensor_transform_data_from_fpi16_to_real32(b, words, count, q) ==
            (q > 15 || count > words->count),
        "q below 16, elements enough");
  for (int32_t i = 0; q < 16 && i < count && count <= words->count; i++)
    check(static_cast<float*>(b->data)[i] ==
              std::ldexp(static_cast<float>(static_cast<int16_t*>(words->data)[i]),
                         -static_cast<int>(q)),
          "a word's value");
  for (zyn_tensor* t : {a, b, words}) zyn_release_tensor(&t);
}

void poses(Input& in) {
  float world[9], image[6], camera[9] = {500, 0, 320, 0, 500, 240, 0, 0, 1};
  const bool any = in.one_in(3);
  for (float& v : world) v = any ? in.real() : static_cast<float>(in.signed16()) / 32768;
  for (float& v : image)
    v = any ? in.real()
            : static_cast<float>(in.integer(0, 639)) + static_cast<float>(in.byte()) / 256;
  if (any)
    for (float& v : camera) v = in.real();
  // Pixels on one line have points in a plane with the camera: any error grows there.
  const float area =
      (image[2] - image[0]) * (image[5] - image[1]) - (image[4] - image[0]) * (image[3] - image[1]);
  const bool sane = !any && std::fabs(area) >= 1000;
  double rotations[36], translations[12];
  int32_t count = -1;
  check(!zyn_solve_ap3p(rotations, translations, world, image, camera, nullptr, &count),
        "poses are looked for");
  check(count >= 0 && count <= 4, "up to four poses");
  for (int32_t k = 0; sane && k < count; k++)
    for (int i = 0; i < 3; i++) {
      double p[3];
      for (int r = 0; r < 3; r++) {
        p[r] = translations[3 * k + r];
        for (int c = 0; c < 3; c++)
          p[r] += rotations[9 * k + 3 * r + c] * static_cast<double>(world[3 * i + c]);
      }
      const double du = 500 * p[0] / p[2] + 320 - static_cast<double>(image[2 * i]);
      const double dv = 500 * p[1] / p[2] + 240 - static_cast<double>(image[2 * i + 1]);
      check(std::fabs(p[2]) < 1e-3 || std::hypot(du, dv) < 0.01,
            "poses put the points on the pixels");
    }
}

void noise(Input& in) {
  const int32_t type = in.integer(0, 31), channels = type / 8 + 1;
  zyn_matrix* m = zyn_create_matrix(in.integer(1, 9), in.integer(1, 9), in.integer(1, 3), type);
  const double mean64 = static_cast<double>(in.real()),
               deviation64 = static_cast<double>(in.real());
  const auto mean32 = static_cast<float>(mean64), deviation32 = static_cast<float>(deviation64);
  const bool wide = type % 8 == 7, narrow = type % 8 == 6;
  const int32_t code =
      zyn_random_norm(m, wide ? static_cast<const void*>(&mean64) : &mean32,
                      wide ? static_cast<const void*>(&deviation64) : &deviation32);
  check(code == (wide || narrow ? 0 : 4), "floats and doubles");
  const double reach = 10 * std::fabs(deviation64) + 1e-6 * std::fabs(mean64);
  for (int32_t i = 0;
       !code && std::isfinite(reach) && reach < 1e37 && i < m->rows * m->cols * m->pages * channels;
       i++)
    check(std::fabs((wide ? static_cast<double*>(m->data)[i]
                          : static_cast<double>(static_cast<float*>(m->data)[i])) -
                    mean64) <= reach,
          "values lie about their mean");
  zyn_release_matrix(&m);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zyn_fuzz::Memory memory(size % 8 == 7, 1 << 22);
  Input in(data, size);
  static void (*const kinds[])(Input&) = {arithmetic<float>,
                                          arithmetic<double>,
                                          solve<float>,
                                          solve<double>,
                                          conversions,
                                          poses,
                                          noise};
  for (int rounds = 0; rounds < 6 && !in.empty(); rounds++) kinds[in.byte() % 7](in);
  return 0;
}

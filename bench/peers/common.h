// Shared parts of the peer harness on top of ../measure.h: buffers and test data, the
// reference convolution and the instruction sets the peers may use.
#pragma once
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <map>
#include <memory>

#include "../../tools/options.h"
#include "../measure.h"

namespace peers {

template <class T>
struct Buffer {  // 64-byte aligned, with slack behind for over-reading kernels
  T* p = nullptr;
  size_t n = 0;
  explicit Buffer(size_t count = 0) { resize(count); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  ~Buffer() { free(p); }
  void resize(size_t count) {
    free(p);
    n = count;
    p = static_cast<T*>(aligned_alloc(64, (count * sizeof(T) + 256 + 63) / 64 * 64));
    memset(static_cast<void*>(p), 0, count * sizeof(T) + 256);
  }
  T& operator[](size_t i) { return p[i]; }
  const T& operator[](size_t i) const { return p[i]; }
};

inline void fill(Buffer<float>& b, uint32_t stream) {
  for (size_t i = 0; i < b.n; i++) b[i] = test_value(static_cast<uint32_t>(i), stream);
}

// Smooth gradients plus noise: neither constant nor white.
inline void fill_pixels(uint8_t* p, int w, int h, int c) {
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      for (int k = 0; k < c; k++) {
        const uint32_t i = (uint32_t(y) * w + x) * c + k;
        const int noise = static_cast<int>((test_value(i, kPixels) + 0.5f) * 32);
        p[i] = static_cast<uint8_t>((x * 200 / w * (k + 1) + y * 100 / h + noise) & 0xff);
      }
}

struct Box {
  float x1, y1, x2, y2, score;
};

// n candidates around 24 face positions, all scores different.
inline std::vector<Box> test_boxes(int n) {
  std::vector<Box> v(n);
  for (int i = 0; i < n; i++) {
    const int face = i % 24, column = face % 6, row = face / 6;
    const float cx = 80.0f + 160.0f * column, cy = 90.0f + 180.0f * row;
    const float size = 60.0f + 4.0f * face;
    const float dx = test_value(4 * i, kPixels) * size, dy = test_value(4 * i + 1, kPixels) * size;
    const float s = size * (1.0f + 0.6f * test_value(4 * i + 2, kPixels));
    v[i] = {cx + dx - s / 2, cy + dy - s / 2, cx + dx + s / 2, cy + dy + s / 2,
            0.5f + 0.4f * test_value(4 * i + 3, kPixels) + 1e-5f * i};
  }
  return v;
}

// Scores of the boxes that survive greedy suppression, highest first.
inline std::vector<float> greedy_nms(std::vector<Box> b, float thr) {
  std::sort(b.begin(), b.end(), [](const Box& p, const Box& q) { return p.score > q.score; });
  std::vector<float> keep;
  std::vector<Box> kept;
  for (const Box& x : b) {
    bool ok = true;
    for (const Box& k : kept) {
      const float w = std::max(0.0f, std::min(x.x2, k.x2) - std::max(x.x1, k.x1));
      const float h = std::max(0.0f, std::min(x.y2, k.y2) - std::max(x.y1, k.y1));
      const float inter = w * h;
      const float uni =
          (x.x2 - x.x1) * (x.y2 - x.y1) + (k.x2 - k.x1) * (k.y2 - k.y1) - inter + 1e-5f;
      ok &= inter / uni <= thr;
    }
    if (ok) {
      kept.push_back(x);
      keep.push_back(x.score);
    }
  }
  return keep;
}

// ------------------------------------------------------- reference and probes

// One output of conv + bias + relu in double precision (planar indexing).
inline double conv_ref(const Layer& l, const float* in, const float* w, const float* b, size_t o) {
  const int ow = l.out_w(), oh = l.out_h();
  const int c = static_cast<int>(o / (size_t(ow) * oh));
  const int y = static_cast<int>(o / ow % oh), x = static_cast<int>(o % ow);
  const int icg = l.in_c / l.groups, g = c / (l.out_c / l.groups);
  double s = b[c];
  for (int i = 0; i < icg; i++)
    for (int ky = 0; ky < l.k.y; ky++)
      for (int kx = 0; kx < l.k.x; kx++) {
        const int iy = y * l.stride.y + ky * l.dilation.y - l.pad.y;
        const int ix = x * l.stride.x + kx * l.dilation.x - l.pad.x;
        if (iy < 0 || iy >= l.in_h || ix < 0 || ix >= l.in_w) continue;
        s += double(in[(size_t(g * icg + i) * l.in_h + iy) * l.in_w + ix]) *
             w[((size_t(c) * icg + i) * l.k.y + ky) * l.k.x + kx];
      }
  return std::max(s, 0.0);
}

// Output indices to check: the corners of first and last channel, the last
// columns of a row (right edge), and a spread over everything.
inline std::vector<size_t> probe_points(size_t rows_total, size_t row, size_t n_spread = 160) {
  const size_t n = rows_total * row;
  std::vector<size_t> v = {0, row - 1, n - row, n - 1};
  for (size_t i = 0; i < row && i < 20; i++) v.push_back(n - 1 - i);
  for (size_t i = 0; i < n_spread; i++) v.push_back((i * 2654435761ull + 12345) % n);
  return v;
}

inline bool close_enough(double got, double want, double scale) {
  return std::isfinite(got) && std::fabs(got - want) <= 2e-5 * scale + 1e-5;
}

// ------------------------------------------------------------- ISA selection

enum Isa { kSse = 0, kAvx2 = 1, kNative = 2 };

inline const char* isa_name(Isa i) { return i == kSse ? "sse" : i == kAvx2 ? "avx2" : "native"; }

// The options that every peer program knows; run.sh gives them to all.
inline std::vector<cli::Option> with_common(std::vector<cli::Option> own) {
  own.insert(own.end(), {{"isa", "avx2"}, {"subject", ""}});
  return own;
}

// The peers read their ISA limits from the environment at load time, so the
// program sets them and starts itself again once.
inline Isa select_isa(const cli::Line& line, char** argv) {
  const std::string& v = line["isa"];
  if (v != "sse" && v != "avx2" && v != "native") line.wrong("--isa takes sse, avx2 or native\n");
  const Isa isa = v == "sse" ? kSse : v == "avx2" ? kAvx2 : kNative;
  if (!getenv("PEERS_ISA_SET")) {
    setenv("PEERS_ISA_SET", isa_name(isa), 1);
    setenv("OMP_NUM_THREADS", "1", 1);
    setenv("OPENBLAS_NUM_THREADS", "1", 1);
    setenv("OPENCV_OPENCL_RUNTIME", "disabled", 1);
    if (isa != kNative) {
      setenv("DNNL_MAX_CPU_ISA", isa == kAvx2 ? "AVX2" : "SSE41", 1);
      setenv("OPENBLAS_CORETYPE", isa == kAvx2 ? "Haswell" : "Nehalem", 1);
      setenv("OPENCV_CPU_DISABLE",
             isa == kAvx2 ? "AVX512-COMMON,AVX512-SKX,AVX512-CNL,AVX512-CLX,AVX512-ICL"
                          : "AVX512-COMMON,AVX512-SKX,AVX512-CNL,AVX512-CLX,AVX512-ICL,AVX2,"
                            "FMA3,FP16,AVX",
             1);
    }
    execv("/proc/self/exe", argv);
    perror("execv");
    exit(2);
  }
  return isa;
}

}  // namespace peers

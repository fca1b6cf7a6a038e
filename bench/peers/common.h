// Shared parts of the peer harness: timing, statistics, layer lists, the
// deterministic test data, the reference convolution and the FMA peak probe.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace peers {

inline double now_ns() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1e9 + t.tv_nsec;
}

// ---------------------------------------------------------------- statistics

struct Samples {
  std::vector<double> ns;
  double min() const { return ns.empty() ? NAN : *std::min_element(ns.begin(), ns.end()); }
  double median() const {
    if (ns.empty()) return NAN;
    std::vector<double> s = ns;
    std::nth_element(s.begin(), s.begin() + s.size() / 2, s.end());
    return s[s.size() / 2];
  }
};

// Calls f for about budget_ms; short calls are batched so that the clock's own
// cost (about 30 ns) stays below 0.3 % of a sample.
inline void sample(Samples& out, double budget_ms, const std::function<void()>& f) {
  double t0 = now_ns();
  f();
  double once = std::max(now_ns() - t0, 1.0);
  int batch = once < 10000 ? static_cast<int>(10000 / once) + 1 : 1;
  const double end = now_ns() + budget_ms * 1e6;
  int n = 0;
  do {
    t0 = now_ns();
    for (int i = 0; i < batch; i++) f();
    double t = (now_ns() - t0) / batch;
    // The first call may have been cold: settle the batch size once more.
    if (n++ == 0 && batch > 1 && t * batch < 5000) {
      batch = static_cast<int>(10000 / std::max(t, 1.0)) + 1;
      continue;
    }
    out.ns.push_back(t);
  } while (now_ns() < end || out.ns.size() < 3);
}

// ------------------------------------------------------------------ FMA peak

// 12 independent register-only chains of 256-bit FMA; returns GFLOP/s.
inline double fma256_burst(double ms) {
  const long iters = 2000;
  double best = 0;
  const double end = now_ns() + ms * 1e6;
  do {
    const double t0 = now_ns();
    long n = iters;
    __asm__ volatile(
        "vxorps %%ymm12,%%ymm12,%%ymm12\n vxorps %%ymm13,%%ymm13,%%ymm13\n"
        "1:\n"
        ".rept 4\n"
        "vfmadd231ps %%ymm12,%%ymm13,%%ymm0\n vfmadd231ps %%ymm12,%%ymm13,%%ymm1\n"
        "vfmadd231ps %%ymm12,%%ymm13,%%ymm2\n vfmadd231ps %%ymm12,%%ymm13,%%ymm3\n"
        "vfmadd231ps %%ymm12,%%ymm13,%%ymm4\n vfmadd231ps %%ymm12,%%ymm13,%%ymm5\n"
        "vfmadd231ps %%ymm12,%%ymm13,%%ymm6\n vfmadd231ps %%ymm12,%%ymm13,%%ymm7\n"
        "vfmadd231ps %%ymm12,%%ymm13,%%ymm8\n vfmadd231ps %%ymm12,%%ymm13,%%ymm9\n"
        "vfmadd231ps %%ymm12,%%ymm13,%%ymm10\n vfmadd231ps %%ymm12,%%ymm13,%%ymm11\n"
        ".endr\n"
        "dec %0\n jnz 1b\n"
        : "+r"(n)
        :
        : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9",
          "xmm10", "xmm11", "xmm12", "xmm13", "cc");
    best = std::max(best, iters * 4.0 * 12 * 16 / (now_ns() - t0));
  } while (now_ns() < end);
  return best;
}

// The peak used for "% of peak": the best burst of the run, probed again
// before every round so that it sees the same clock as the peers.
struct Peak {
  double best = 0;
  std::vector<double> all;
  void probe(double ms = 0.6) {
    all.push_back(fma256_burst(ms));
    best = std::max(best, all.back());
  }
  double median() const {
    std::vector<double> s = all;
    std::sort(s.begin(), s.end());
    return s.empty() ? 0 : s[s.size() / 2];
  }
};

// ------------------------------------------------------------------- layers

struct Layer {
  int in_c, out_c, in_w, in_h, k, stride, pad, groups;
  std::string name;
  int count = 1;
  int out_w() const { return (in_w + 2 * pad - k) / stride + 1; }
  int out_h() const { return (in_h + 2 * pad - k) / stride + 1; }
  int k_len() const { return in_c / groups * k * k; }
  bool depthwise() const { return groups > 1 && groups == in_c && groups == out_c; }
  double flop() const { return 2.0 * out_w() * out_h() * out_c * k_len(); }
  size_t in_size() const { return size_t(in_c) * in_w * in_h; }
  size_t out_size() const { return size_t(out_c) * out_w() * out_h(); }
  size_t w_size() const { return size_t(out_c) * k_len(); }
  std::string str() const {
    char b[128];
    snprintf(b, sizeof b, "%d>%d %dx%d k%d s%d%s", in_c, out_c, in_w, in_h, k, stride,
             depthwise() ? " dw" : groups > 1 ? " grp" : "");
    return b;
  }
};

// Lines: in_c out_c in_w in_h k stride pad groups [name...]; '#' starts a comment.
// Equal layers are merged and counted, unless their order matters.
inline std::vector<Layer> read_layers(const std::string& path, bool merge = true) {
  std::ifstream f(path);
  if (!f) {
    fprintf(stderr, "cannot read %s\n", path.c_str());
    exit(2);
  }
  std::vector<Layer> v;
  std::string line;
  for (int no = 1; std::getline(f, line); no++) {
    line = line.substr(0, line.find('#'));
    std::istringstream s(line);
    Layer l;
    if (!(s >> l.in_c)) continue;
    if (!(s >> l.out_c >> l.in_w >> l.in_h >> l.k >> l.stride >> l.pad >> l.groups) ||
        l.in_c < 1 || l.out_c < 1 || l.k < 1 || l.stride < 1 || l.pad < 0 || l.groups < 1 ||
        l.in_c % l.groups || l.out_c % l.groups || l.in_w + 2 * l.pad < l.k ||
        l.in_h + 2 * l.pad < l.k) {
      fprintf(stderr, "%s:%d: bad layer line\n", path.c_str(), no);
      exit(2);
    }
    s >> l.name;
    bool seen = false;
    for (Layer& o : v)
      if (merge && o.in_c == l.in_c && o.out_c == l.out_c && o.in_w == l.in_w && o.in_h == l.in_h &&
          o.k == l.k && o.stride == l.stride && o.pad == l.pad && o.groups == l.groups) {
        o.count++;
        seen = true;
      }
    if (!seen) v.push_back(l);
  }
  return v;
}

// ---------------------------------------------------------------- test data

// Value i of stream s, exactly representable, in [-0.5, 0.5). The comparison
// subject (see bench/README.md) fills its buffers with the same values.
inline float test_value(uint32_t i, uint32_t s) {
  uint32_t x = i * 2654435761u + s * 40503u + 1u;
  x ^= x >> 15;
  x *= 2246822519u;
  x ^= x >> 13;
  return static_cast<float>(x & 0xffffu) / 65536.0f - 0.5f;
}

enum Stream : uint32_t { kInput = 1, kWeights = 2, kBias = 3, kMatA = 4, kMatB = 5, kPixels = 6 };

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
    const int face = i % 24;
    const float cx = 80.0f + 160.0f * (face % 6), cy = 90.0f + 180.0f * (face / 6);
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
      const float uni = (x.x2 - x.x1) * (x.y2 - x.y1) + (k.x2 - k.x1) * (k.y2 - k.y1) - inter + 1e-5f;
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
    for (int ky = 0; ky < l.k; ky++)
      for (int kx = 0; kx < l.k; kx++) {
        const int iy = y * l.stride + ky - l.pad, ix = x * l.stride + kx - l.pad;
        if (iy < 0 || iy >= l.in_h || ix < 0 || ix >= l.in_w) continue;
        s += double(in[(size_t(g * icg + i) * l.in_h + iy) * l.in_w + ix]) *
             w[(size_t(c) * icg + i) * l.k * l.k + ky * l.k + kx];
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

inline const char* isa_name(Isa i) {
  return i == kSse ? "sse" : i == kAvx2 ? "avx2" : "native";
}

// The peers read their ISA limits from the environment at load time, so the
// program sets them and starts itself again once.
inline Isa select_isa(int argc, char** argv) {
  Isa isa = kAvx2;
  for (int i = 1; i + 1 < argc; i++)
    if (!strcmp(argv[i], "--isa")) {
      const std::string v = argv[i + 1];
      if (v == "sse") isa = kSse;
      else if (v == "avx2") isa = kAvx2;
      else if (v == "native") isa = kNative;
      else {
        fprintf(stderr, "--isa takes sse, avx2 or native\n");
        exit(2);
      }
    }
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

inline double arg_num(int argc, char** argv, const char* name, double dflt) {
  for (int i = 1; i + 1 < argc; i++)
    if (!strcmp(argv[i], name)) return atof(argv[i + 1]);
  return dflt;
}

inline std::string arg_str(int argc, char** argv, const char* name, const char* dflt = "") {
  for (int i = 1; i + 1 < argc; i++)
    if (!strcmp(argv[i], name)) return argv[i + 1];
  return dflt;
}

// First argument that is neither an option nor an option's value.
inline std::string arg_pos(int argc, char** argv, int which = 0) {
  for (int i = 1; i < argc; i++) {
    if (!strncmp(argv[i], "--", 2)) {
      i++;
      continue;
    }
    if (which-- == 0) return argv[i];
  }
  return "";
}

}  // namespace peers

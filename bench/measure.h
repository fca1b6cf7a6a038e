// Timing, the FMA peak of this machine, layer lists and test values: what every benchmark
// needs, on every system.
#pragma once
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace peers {

inline double now_ns() {
  return std::chrono::duration<double, std::nano>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
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

// Calls burst, which returns the operations that it did, for about ms; the best rate in
// operations per nanosecond.
template <typename Burst>
double best_rate(double ms, Burst burst) {
  double best = 0;
  const double end = now_ns() + ms * 1e6;
  do {
    const double t0 = now_ns();
    const double operations = burst();
    best = std::max(best, operations / (now_ns() - t0));
  } while (now_ns() < end);
  return best;
}

// 12 independent register-only chains of FMA on the registers r (%%ymm, %%zmm), 4 rounds a turn.
#define PEERS_FMA(r, i) "vfmadd231ps " r "12," r "13," r #i "\n"
#define PEERS_FMA_LOOP(r)                                                                          \
  "vpxor %%xmm12,%%xmm12,%%xmm12\n vpxor %%xmm13,%%xmm13,%%xmm13\n 1:\n .rept 4\n" PEERS_FMA(r, 0) \
      PEERS_FMA(r, 1) PEERS_FMA(r, 2) PEERS_FMA(r, 3) PEERS_FMA(r, 4) PEERS_FMA(r, 5)              \
          PEERS_FMA(r, 6) PEERS_FMA(r, 7) PEERS_FMA(r, 8) PEERS_FMA(r, 9) PEERS_FMA(r, 10)         \
              PEERS_FMA(r, 11) ".endr\n dec %0\n jnz 1b\n vzeroupper\n"
#define PEERS_FMA_CLOBBERS                                                                 \
  "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", \
      "xmm11", "xmm12", "xmm13", "cc"

// GFLOP/s.
constexpr long kFmaIterations = 2000;
inline double fma256_burst(double ms) {
  return best_rate(ms, [] {
    long n = kFmaIterations;
    __asm__ volatile(PEERS_FMA_LOOP("%%ymm") : "+r"(n) : : PEERS_FMA_CLOBBERS);
    return kFmaIterations * 4.0 * 12 * 16;
  });
}
inline bool has_fma512() { return __builtin_cpu_supports("avx512f"); }
inline double fma512_burst(double ms) {
  if (!has_fma512()) return 0;
  return best_rate(ms, [] {
    long n = kFmaIterations;
    __asm__ volatile(PEERS_FMA_LOOP("%%zmm") : "+r"(n) : : PEERS_FMA_CLOBBERS);
    return kFmaIterations * 4.0 * 12 * 32;
  });
}

// The peak used for "% of peak": the best burst of the run, probed again
// before every round so that it sees the same clock as the peers.
struct Peak {
  bool wide = false;  // of 512 bits
  double best = 0;
  std::vector<double> all;
  void probe(double ms = 0.6) {
    all.push_back(wide ? fma512_burst(ms) : fma256_burst(ms));
    best = std::max(best, all.back());
  }
  double median() const {
    std::vector<double> s = all;
    std::sort(s.begin(), s.end());
    return s.empty() ? 0 : s[s.size() / 2];
  }
};

// ------------------------------------------------------------------- layers

// Along x and along y.
struct Pair {
  int x = 1, y = 1;
  bool operator==(const Pair& o) const { return x == o.x && y == o.y; }
  bool operator!=(const Pair& o) const { return !(*this == o); }
  std::string str() const { return std::to_string(x) + (x == y ? "" : "x" + std::to_string(y)); }
};

// "3", or "1x7": 1 across, 7 down.
inline std::istream& operator>>(std::istream& s, Pair& p) {
  std::string word;
  s >> word;
  int used = 0, used_both = 0;
  const int found = sscanf(word.c_str(), "%d%nx%d%n", &p.x, &used, &p.y, &used_both);
  if (found == 1) p.y = p.x;
  if (found < 1 || size_t(found == 1 ? used : used_both) != word.size()) s.setstate(s.failbit);
  return s;
}

struct Layer {
  int in_c = 0, out_c = 0, in_w = 0, in_h = 0;
  Pair k, stride, pad;
  int groups = 1;
  Pair dilation;
  std::string name;
  int count = 1;
  // Input pixels between the first and the last that an output reads, both counted.
  Pair extent() const { return {(k.x - 1) * dilation.x + 1, (k.y - 1) * dilation.y + 1}; }
  int out_w() const { return (in_w + 2 * pad.x - extent().x) / stride.x + 1; }
  int out_h() const { return (in_h + 2 * pad.y - extent().y) / stride.y + 1; }
  int k_len() const { return in_c / groups * k.x * k.y; }
  bool depthwise() const { return groups > 1 && groups == in_c && groups == out_c; }
  bool valid() const {
    return in_c > 0 && out_c > 0 && in_w > 0 && in_h > 0 && groups > 0 && in_c % groups == 0 &&
           out_c % groups == 0 && std::min({k.x, k.y, stride.x, stride.y}) > 0 &&
           std::min({dilation.x, dilation.y}) > 0 && std::min(pad.x, pad.y) >= 0 &&
           in_w + 2 * pad.x >= extent().x && in_h + 2 * pad.y >= extent().y;
  }
  bool same_shape(const Layer& o) const { return line() == o.line(); }
  double flop() const { return 2.0 * out_w() * out_h() * out_c * k_len(); }
  size_t in_size() const { return size_t(in_c) * in_w * in_h; }
  size_t out_size() const { return size_t(out_c) * out_w() * out_h(); }
  size_t w_size() const { return size_t(out_c) * k_len(); }
  // As a layer file has it, without the name.
  std::string line() const {
    char b[160];
    snprintf(b, sizeof b, "%d %d %d %d %s %s %s %d", in_c, out_c, in_w, in_h, k.str().c_str(),
             stride.str().c_str(), pad.str().c_str(), groups);
    return b + (dilation == Pair{} ? "" : " d" + dilation.str());
  }
  // For people: padding where it is not the one that keeps the extents at stride 1.
  std::string str() const {
    char b[160];
    snprintf(b, sizeof b, "%d>%d %dx%d k%s s%s", in_c, out_c, in_w, in_h, k.str().c_str(),
             stride.str().c_str());
    std::string label = b;
    if (dilation != Pair{}) label += " d" + dilation.str();
    if (pad != Pair{extent().x / 2, extent().y / 2}) label += " p" + pad.str();
    return label + (depthwise() ? " dw" : groups > 1 ? " grp" : "");
  }
};

// in_c out_c in_w in_h k stride pad groups [dN], pairs as above.
inline std::istream& operator>>(std::istream& s, Layer& l) {
  s >> l.in_c >> l.out_c >> l.in_w >> l.in_h >> l.k >> l.stride >> l.pad >> l.groups;
  l.dilation = {};
  l.name.clear();
  std::string word;
  if (s && !s.eof() && (s >> std::ws).good() && s.peek() == 'd') s >> word;
  if (word.find_first_not_of("0123456789x", 1) != word.npos || word.size() == 1)
    l.name = word;
  else if (!word.empty())
    std::istringstream(word.substr(1)) >> l.dilation;
  if (!l.valid()) s.setstate(s.failbit);
  return s;
}

// Lines: in_c out_c in_w in_h k stride pad groups [dN] [name...]; '#' starts a comment.
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
    if (line.find_first_not_of(" \t\r") == line.npos) continue;
    std::istringstream s(line);
    Layer l;
    if (!(s >> l)) {
      fprintf(stderr, "%s:%d: bad layer line\n", path.c_str(), no);
      exit(2);
    }
    if (l.name.empty()) s >> l.name;
    bool seen = false;
    for (Layer& o : v)
      if (merge && o.same_shape(l)) {
        o.count++;
        seen = true;
      }
    if (!seen) v.push_back(l);
  }
  return v;
}

// What every layer of a network reads: layer from[i], or where that is negative input
// -1 - from[i]. It is the latest layer that puts out its input shape, else an input of that
// shape. Input j is the one that layer inputs[j] was the first to need: behind pooling and
// joins, which lists leave out.
struct Wiring {
  std::vector<int> from;
  std::vector<size_t> inputs;
};

inline Wiring wire(const std::vector<Layer>& layers) {
  Wiring w;
  for (size_t i = 0; i < layers.size(); i++) {
    const Layer& l = layers[i];
    const int none = -1 - static_cast<int>(w.inputs.size());
    int from = none;
    for (size_t j = 0; j < w.inputs.size(); j++) {
      const Layer& o = layers[w.inputs[j]];
      if (o.in_c == l.in_c && o.in_w == l.in_w && o.in_h == l.in_h) from = -1 - static_cast<int>(j);
    }
    for (size_t j = 0; j < i; j++)
      if (layers[j].out_c == l.in_c && layers[j].out_w() == l.in_w && layers[j].out_h() == l.in_h)
        from = static_cast<int>(j);
    if (from == none) w.inputs.push_back(i);
    w.from.push_back(from);
  }
  return w;
}

// -------------------------------------------------------------- fixed point

// Fraction bits of input and output of a single layer; its sums stay below 2^5.
constexpr uint32_t kLayerFractionBits = 10;

// How far such a layer's outputs may be off: six standard deviations of what comes from
// rounding the inputs and every input channel's sum, test values taken as random ones, and
// one step for the bias.
inline double fixed_point_tolerance(const Layer& l) {
  const double steps =
      1 + 0.5 * std::sqrt(double(l.k_len())) + 1.75 * std::sqrt(double(l.in_c) / l.groups);
  return steps / (1 << kLayerFractionBits);
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

// What the operators take: wide enough for every branch of the activations.
inline float operand(uint32_t i, uint32_t s) { return 8 * test_value(i, s); }

enum Stream : uint32_t { kInput = 1, kWeights = 2, kBias = 3, kMatA = 4, kMatB = 5, kPixels = 6 };

}  // namespace peers

// Every layer of the given lists, and every list as a network, under all methods and in
// fixed point:
//   bench_layers LAYERFILE... [--benchmark_filter=...]
// Each layer is checked against a plain loop in double precision before it is timed.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>

#include "network.h"
#include "peers/common.h"

namespace {

using peers::Layer;

bool right(const bench::Network& network, const Layer& l, bool fixed) {
  peers::Buffer<float> in(l.in_size()), w(l.w_size()), b(l.out_c);
  fill(in, peers::kInput);
  fill(w, peers::kWeights);
  fill(b, peers::kBias);
  const double scale = std::sqrt(double(l.k_len())) + 1;
  for (size_t i : peers::probe_points(size_t(l.out_c) * l.out_h(), l.out_w())) {
    const double got = network.output(i), expected = peers::conv_ref(l, in.p, w.p, b.p, i);
    if (fixed ? std::fabs(got - expected) > peers::fixed_point_tolerance(l)
              : !peers::close_enough(got, expected, scale))
      return false;
  }
  return true;
}

double flop(const std::vector<Layer>& layers) {
  double sum = 0;
  for (const Layer& l : layers) sum += l.flop();
  return sum;
}

void run(benchmark::State& state, const std::vector<Layer>& layers, uint32_t method) {
  bench::Network network(layers, method, layers.size() > 1);
  if (!network.ok() || !network.run()) return state.SkipWithError("not supported");
  if (layers.size() == 1 && !right(network, layers[0], method == bench::kFixedPoint))
    return state.SkipWithError("WRONG RESULT");
  for (auto _ : state) network.run();
  state.counters["GFLOP/s"] =
      benchmark::Counter(flop(layers) * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  for (int i = 1; i < argc; i++) {
    const std::string file = argv[i];
    auto add = [](const std::string& name, const std::vector<Layer>& layers) {
      for (uint32_t method = 0; method <= bench::kFixedPoint; method++)
        benchmark::RegisterBenchmark(
            (name + (method == bench::kFixedPoint ? "/fixed" : "/method" + std::to_string(method)))
                .c_str(),
            run, layers, method)
            ->Unit(benchmark::kMicrosecond);
    };
    for (const Layer& l : peers::read_layers(file)) add(l.str(), {l});
    const std::vector<Layer> network = peers::read_layers(file, false);
    if (bench::Network::connected(network)) add(file.substr(file.find_last_of('/') + 1), network);
  }
  // The library prints to standard output; results go to a copy of it.
  std::ofstream results("/dev/fd/" + std::to_string(dup(1)));
  benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_None);
  reporter.SetOutputStream(&results);
  if (!results || !freopen("/dev/null", "w", stdout)) return 1;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
}

// A host's own view of a network's time: every node by itself, under each convolution
// method, next to the FMA peak that the same run measures.
#include <stdlib.h>
#include <string.h>
#ifdef _WIN32
#include <io.h>
#define dup _dup
#define fdopen _fdopen
constexpr char kNowhere[] = "NUL";
#else
#include <unistd.h>
constexpr char kNowhere[] = "/dev/null";
#endif

#include "options.h"
#include "whole.h"

namespace {

using tools::Whole;

constexpr char kHelp[] =
    "usage: zyn-bench ssd320|LAYERFILE|FILE.zyn [--methods 2,1,0] [--rounds 15] [--ms 2] [--json]\n"
    "                 [--store OUT.zyn]\n"
    "\n"
    "Times the ssd320 face detector (generated weights: they do not change the time), or the\n"
    "network of a layer list: lines \"in_c out_c width height kernel stride padding groups\",\n"
    "each a convolution with bias and ReLU on the latest output of its input's shape.\n"
    "\n"
    "A graph runs whole, so a node is timed as a graph of its own: the same operator and\n"
    "weights on the very tensor that the whole graph hands it (in channel blocks under method\n"
    "1, but for the network's input). Its result is compared with the whole graph's first.\n"
    "Repeated by itself, a node finds its weights and often its input in the caches, which\n"
    "the other nodes would have used in between: the sum of the nodes stays below the whole\n"
    "network's time; both are printed.\n"
    "\n"
    "One warm-up run, then --rounds rounds of --ms milliseconds for each node (ten times that\n"
    "for the whole network), the methods in turn. us: the fastest run; med: the median; % peak:\n"
    "of the best burst of 256-bit fused multiply-adds between the rounds; ratio: to the first\n"
    "method's time. One thread; pin it to a core (taskset -c 1) and compare ratios, not times,\n"
    "on a shared machine.\n"
    "--json prints one JSON object instead of the table.\n"
    "\n"
    "Of a network file (.zyn) the whole network is timed, by default with --methods auto,2,1,0;\n"
    "auto is the file's own choice or that of the table of costs, exact the same without\n"
    "Winograd's method, timed the fastest of some runs while loading. --store writes the file\n"
    "anew with the methods of the fastest: automatic loading takes them from then on. In JSON\n"
    "auto, timed and exact are -1, -2, -3.\n";

struct Options {
  std::string layers, network, store;  // files; neither layers nor network: ssd320
  std::vector<int32_t> methods;
  int rounds;
  double ms;
  bool json;
};

// One method's graphs and times; the last entry of times is the whole network.
struct Method {
  int32_t number;
  Whole whole;
  std::vector<std::unique_ptr<bench::Graph>> single;
  std::vector<peers::Samples> times;
};

bool same(const zyn_tensor* a, const zyn_tensor* b) {
  return a && b && a->byte_size == b->byte_size && a->layout == b->layout &&
         memcmp(a->data, b->data, static_cast<size_t>(a->byte_size)) == 0;
}

// The whole graph, then every node alone. False, with a note, when a graph cannot be made
// or a lone node gives something else.
bool make_method(const Options& options, const std::vector<peers::Layer>& layers, Method* m) {
  Whole& whole = m->whole;
  const auto number = static_cast<uint32_t>(m->number);
  const bool made = options.network.empty()
                        ? tools::make_whole(layers, {number, nullptr, {}}, &whole)
                        : tools::make_file(options.network, m->number, &whole);
  if (!made || !whole.run()) {
    fprintf(stderr, "method %s: the network cannot be run: %s\n",
            tools::method_name(m->number).c_str(), zyn_error_detail());
    return false;
  }
  for (size_t i = 0; i < whole.nodes.size(); i++) {
    bench::Node node = whole.nodes[i];
    zyn_tensor* const input =
        node.from < 0 ? whole.input : whole.output(static_cast<size_t>(node.from));
    node.from = -1;
    m->single.emplace_back(new bench::Graph);
    bench::Graph& graph = *m->single.back();
    if (!graph.create(input, {node}, number) || !graph.run() ||
        !same(graph.output(0), whole.output(i))) {
      fprintf(stderr, "method %u, node %zu: not the whole network's result\n", number, i);
      return false;
    }
  }
  m->times.resize(whole.nodes.size() + 1);
  return true;
}

void measure(const Options& options, std::vector<Method>& methods, peers::Peak* peak) {
  const size_t nodes = methods[0].single.size();
  for (int round = 0; round < options.rounds; round++)
    for (size_t i = 0; i <= nodes; i++) {
      if (i % 8 == 0) peak->probe();
      for (Method& m : methods)
        peers::sample(m.times[i], i < nodes ? options.ms : 10 * options.ms, [&m, i, nodes] {
          if (i < nodes)
            m.single[i]->run();
          else
            m.whole.run();
        });
    }
}

const char* type_name(int32_t type) {
  switch (type) {
    case ZYN_OP_CONV:
      return "conv";
    case ZYN_OP_CONV_POINTWISE:
      return "pointwise";
    case ZYN_OP_CONV_ACT:
      return "conv_act";
    case ZYN_OP_CONV_BN:
      return "conv_bn";
  }
  return "operator";
}

// What the report says of a node: name, shape and work.
struct Row {
  int id;
  std::string type;
  const int32_t* shape;
  double flop;
};

std::vector<Row> rows(const Whole& whole) {
  std::vector<Row> all;
  for (size_t i = 0; i < whole.nodes.size(); i++) {
    const zyn_conv_param& p = whole.nodes[i].param;
    char kernel[48];
    snprintf(kernel, sizeof kernel, " %dx%d/%d%s", p.kernel_w, p.kernel_h, p.stride_w,
             p.groups > 1 ? " dw" : "");
    const zyn_tensor* t = whole.output(i);
    const double terms = double(p.in_channels) / p.groups * p.kernel_h * p.kernel_w;
    all.push_back({whole.id(i), type_name(whole.nodes[i].type) + std::string(kernel), t->dims,
                   2 * terms * static_cast<double>(t->count)});
  }
  return all;
}

double total(const std::vector<Row>& list, const Whole& whole) {
  double flop = 0;
  if (whole.net) flop = 2.0 * static_cast<double>(zyn_net_describe(whole.net.get())->multiply_adds);
  for (const Row& row : list) flop += row.flop;
  return flop;
}

double sum_of_nodes(const Method& m) {
  double ns = 0;
  for (size_t i = 0; i + 1 < m.times.size(); i++) ns += m.times[i].min();
  return ns;
}

void print_table(FILE* out, const std::vector<Row>& list, const std::vector<Method>& methods,
                 double peak) {
  fprintf(out, "%4s  %-20s %-12s %8s", "node", "type", "output", "MFLOP");
  for (const Method& m : methods)
    fprintf(out, " | method %s: us      med  GFLOP/s %%peak%s",
            tools::method_name(m.number).c_str(), &m == &methods[0] ? "" : "  ratio");
  fprintf(out, "\n");
  const auto columns = [&](size_t i, double flop) {
    for (const Method& m : methods) {
      const double ns = m.times[i].min();
      fprintf(out, " | %12.1f %8.1f %8.1f %5.1f", ns / 1e3, m.times[i].median() / 1e3, flop / ns,
              100 * flop / ns / peak);
      if (&m != &methods[0]) fprintf(out, " %6.2f", ns / methods[0].times[i].min());
    }
    fprintf(out, "\n");
  };
  for (size_t i = 0; i < list.size(); i++) {
    char shape[48];
    snprintf(shape, sizeof shape, "%dx%dx%d", list[i].shape[0], list[i].shape[1], list[i].shape[2]);
    fprintf(out, "%4d  %-20s %-12s %8.2f", list[i].id, list[i].type.c_str(), shape,
            list[i].flop / 1e6);
    columns(i, list[i].flop);
  }
  fprintf(out, "%4s  %-33s %8.2f", "", "whole network", total(list, methods[0].whole) / 1e6);
  columns(list.size(), total(list, methods[0].whole));
  for (const Method& m : methods)
    if (!list.empty())
      fprintf(out, "method %d: the sum of the nodes is %.1f us, %.1f %% of the whole\n", m.number,
              sum_of_nodes(m) / 1e3, 100 * sum_of_nodes(m) / m.times.back().min());
  fprintf(out, "FMA peak of this run: %.1f GFLOP/s\n", peak);
}

void print_json(FILE* out, const std::vector<Row>& list, const std::vector<Method>& methods,
                const Options& options, double peak) {
  const auto times = [&](size_t i, double flop) {
    fprintf(out, "\"methods\":[");
    for (const Method& m : methods) {
      const double ns = m.times[i].min();
      fprintf(out,
              "%s{\"method\":%d,\"min_us\":%.3f,\"median_us\":%.3f,\"gflops\":%.3f,"
              "\"percent_of_peak\":%.2f,\"ratio\":%.4f}",
              &m == &methods[0] ? "" : ",", m.number, ns / 1e3, m.times[i].median() / 1e3,
              flop / ns, 100 * flop / ns / peak, ns / methods[0].times[i].min());
    }
    fprintf(out, "]}");
  };
  fprintf(out, "{\"rounds\":%d,\"fma_peak_gflops\":%.2f,\n\"nodes\":[", options.rounds, peak);
  for (size_t i = 0; i < list.size(); i++) {
    fprintf(out, "%s\n{\"node\":%d,\"type\":\"%s\",\"output\":[%d,%d,%d],\"mflop\":%.4f,",
            i ? "," : "", list[i].id, list[i].type.c_str(), list[i].shape[0], list[i].shape[1],
            list[i].shape[2], list[i].flop / 1e6);
    times(i, list[i].flop);
  }
  fprintf(out, "],\n\"whole\":{\"mflop\":%.4f,", total(list, methods[0].whole) / 1e6);
  times(list.size(), total(list, methods[0].whole));
  fprintf(out, "}\n");
}

// A list of methods, auto and timed among them where the network is a file.
bool parse_methods(const std::string& text, bool is_file, std::vector<int32_t>* methods) {
  for (size_t from = 0; from <= text.size();) {
    const size_t comma = std::min(text.find(',', from), text.size());
    int32_t method = 0;
    if (!tools::parse_method(text.substr(from, comma - from), &method)) return false;
    if (method < 0 && !is_file) return false;
    methods->push_back(method);
    from = comma + 1;
  }
  return true;
}

// The file with the methods of the fastest network.
bool store(const Options& options, const std::vector<Method>& methods) {
  const auto faster = [](const Method& a, const Method& b) {
    return a.times.back().min() < b.times.back().min();
  };
  const Method& best = *std::min_element(methods.begin(), methods.end(), faster);
  const zyn_net_description* const d = zyn_net_describe(best.whole.net.get());
  const tools::Writer writer(zyn_net_writer_load(options.network.c_str()));
  bool done = writer != nullptr;
  for (int32_t id = 0; done && id < d->node_count; id++)
    done = d->nodes[id].method < 0 ||
           zyn_net_writer_method(writer.get(), id, d->nodes[id].method) == ZYN_RET_OK;
  done = done && zyn_net_write(writer.get(), options.store.c_str()) == ZYN_RET_OK;
  if (!done) fprintf(stderr, "%s: %s\n", options.store.c_str(), zyn_error_detail());
  return done;
}

Options parse(int argc, char** argv) {
  if (argc == 1) {
    fputs(kHelp, stdout);
    exit(0);
  }
  const cli::Line line(
      argc, argv, kHelp,
      {{"methods", ""}, {"rounds", "15"}, {"ms", "2"}, {"json", nullptr}, {"store", ""}}, 1);
  Options options;
  if (line.words().empty()) line.wrong("which network?\n");
  const bool is_file = tools::ends_with(line.word(0), ".zyn");
  if (is_file)
    options.network = line.word(0);
  else if (line.word(0) != "ssd320")
    options.layers = line.word(0);
  const std::string methods = line.has("methods") ? line["methods"]
                              : is_file           ? "auto,2,1,0"
                                                  : "2,1,0";
  if (!parse_methods(methods, is_file, &options.methods))
    line.wrong("--methods takes a list of 0, 1 and 2, not " + methods + "\n");
  options.store = line["store"];
  if (!is_file && !options.store.empty()) line.wrong("--store is for network files\n");
  options.rounds = static_cast<int>(line.number("rounds", 1));
  options.ms = line.number("ms", 0.001);
  options.json = line.has("json");
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  std::vector<peers::Layer> layers;
  if (!options.store.empty() && !cli::writable(options.store, false)) {
    fprintf(stderr, "%s cannot be written\n", options.store.c_str());
    return 1;
  }
  if (!options.layers.empty()) {
    layers = peers::read_layers(options.layers, false);
    if (!bench::Network::connected(layers)) {
      fprintf(stderr, "%s: a layer has nothing to read\n", options.layers.c_str());
      return 2;
    }
  }
  // The library prints to standard output; the report goes to a copy of it.
  FILE* const out = fdopen(dup(1), "w");
  if (!out || !freopen(kNowhere, "w", stdout)) return 1;

  std::vector<Method> methods;
  for (const int32_t number : options.methods) {
    methods.emplace_back();
    methods.back().number = number;
    if (!make_method(options, layers, &methods.back())) return 1;
  }
  peers::Peak peak;
  peak.probe(20);
  measure(options, methods, &peak);
  const std::vector<Row> list = rows(methods[0].whole);
  if (options.json)
    print_json(out, list, methods, options, peak.best);
  else
    print_table(out, list, methods, peak.best);
  if (!options.store.empty() && !store(options, methods)) return 1;
  return fclose(out) == 0 ? 0 : 1;
}

// Whole-network latency through OpenCV dnn, one thread (see kHelp).
#include "opencv_layer.h"
#include "subject.h"

using namespace peers;

static constexpr char kHelp[] =
    "usage: net_peers FILE [WIDTHxHEIGHT] [--channels 3] [--isa avx2|native] [--runs n] "
    "[--layers LAYERFILE] [--subject COMMAND --net NAME [--methods 2,1,0,-1]]\n"
    "FILE is an ONNX network, or a layer list (*.layers): then the network in which every layer\n"
    "reads the latest output of its input shape, or an input, each a convolution with bias and\n"
    "ReLU. The layer file only supplies the work count (OpenCV's own count is wrong for depthwise\n"
    "layers). With a subject, its network is NAME under each of the methods, measured in turn;\n"
    "-1: the choice of a network file.\n";

namespace {

cv::dnn::Net network_of_layers(const std::vector<Layer>& layers) {
  cv::dnn::Net net;
  const Wiring wiring = wire(layers);
  std::vector<cv::String> names;
  for (size_t j = 0; j < wiring.inputs.size(); j++) names.push_back("in" + std::to_string(j));
  net.setInputsNames(names);
  std::vector<int> ids;
  for (size_t i = 0; i < layers.size(); i++) {
    const Layer& l = layers[i];
    const int from = wiring.from[i];
    Buffer<float> w(l.w_size()), b(l.out_c);
    fill(w, kWeights);
    fill(b, kBias);
    for (size_t k = 0; k < w.n; k++) w[k] *= std::sqrt(24.0f / l.k_len());
    cv::dnn::LayerParams p = opencv_convolution(l, w.p, b.p), relu;
    const std::string name = std::to_string(i);
    const int conv = net.addLayer("c" + name, "Convolution", p);
    if (from < 0)
      net.connect(0, -1 - from, conv, 0);
    else
      net.connect(ids[static_cast<size_t>(from)], 0, conv, 0);
    ids.push_back(net.addLayer("r" + name, "ReLU", relu));
    net.connect(conv, 0, ids.back(), 0);
  }
  return net;
}

}  // namespace

int main(int argc, char** argv) {
  const cli::Line line(
      argc, argv, kHelp,
      with_common(
          {{"channels", "3"}, {"runs", "200"}, {"layers", ""}, {"net", ""}, {"methods", "2"}}),
      2);
  const Isa isa = select_isa(line, argv);
  const int runs = static_cast<int>(line.number("runs", 1));
  const int ch = static_cast<int>(line.number("channels", 1));
  cv::setNumThreads(1);
  const std::string file = line.word(0);
  const bool list = file.size() > 7 && file.compare(file.size() - 7, 7, ".layers") == 0;
  const std::vector<Layer> layers = list ? read_layers(file, false) : std::vector<Layer>();
  cv::dnn::Net net = list ? network_of_layers(layers) : cv::dnn::readNetFromONNX(file);
  net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
  // Where a layer reads an input, or the ONNX network's one.
  std::vector<std::vector<int>> shapes;
  if (list) {
    for (size_t i : wire(layers).inputs)
      shapes.push_back({1, layers[i].in_c, layers[i].in_h, layers[i].in_w});
  } else {
    int w = 0, h = 0;
    if (sscanf(line.word(1).c_str(), "%dx%d", &w, &h) != 2)
      line.wrong("the input's size is needed\n");
    shapes.push_back({1, ch, h, w});
  }
  std::vector<cv::Mat> inputs;
  for (const std::vector<int>& shape : shapes) {
    inputs.emplace_back(4, shape.data(), CV_32F);
    for (size_t i = 0; i < inputs.back().total(); i++)
      inputs.back().ptr<float>()[i] = test_value(static_cast<uint32_t>(i), kInput);
  }
  const auto set_inputs = [&] {
    for (size_t j = 0; j < inputs.size(); j++)
      net.setInput(inputs[j], list ? "in" + std::to_string(j) : "");
  };
  const std::vector<std::string> outs = net.getUnconnectedOutLayersNames();
  std::vector<cv::Mat> res;
  set_inputs();
  net.forward(res, outs);
  double flop = 0;
  const std::string& lf = line["layers"];
  if (!lf.empty())
    for (const Layer& l : read_layers(lf)) flop += l.flop() * l.count;

  // One process for each method: a process keeps one network.
  struct Ours {
    std::string method;
    Subject process;
    bool ready = false;
    double min = 0;
    Samples medians;
    explicit Ours(const std::string& command) : process(command) {}
  };
  std::vector<std::unique_ptr<Ours>> ours;
  const std::string& command = line["subject"];
  std::istringstream methods(line["methods"]);
  for (std::string m; !command.empty() && std::getline(methods, m, ',');) {
    ours.emplace_back(new Ours(command));
    ours.back()->method = m;
    ours.back()->ready = ours.back()->process.setup("net " + line["net"] + " " + m);
  }
  Samples s;
  Peak peak;
  constexpr int rounds = 40;  // short ones: the clock drifts
  for (int r = 0; r < rounds; r++) {
    peak.probe(2);
    const double start = now_ns();
    for (int i = 0; i < (runs + rounds - 1) / rounds; i++) {
      set_inputs();
      const double t0 = now_ns();
      net.forward(res, outs);
      s.ns.push_back(now_ns() - t0);
    }
    const double ms = (now_ns() - start) / 1e6;
    for (auto& o : ours)
      if (o->ready) o->process.time(ms, o->min, o->medians.ns);
  }
  printf("isa %s: OpenCV avx2=%d avx512=%d; convolutions %.2f MFLOP; outputs:", isa_name(isa),
         cv::checkHardwareSupport(CV_CPU_AVX2), cv::checkHardwareSupport(CV_CPU_AVX512_SKX),
         flop / 1e6);
  for (size_t i = 0; i < res.size(); i++) {
    printf(" %s[", outs[i].c_str());
    for (int d = 0; d < res[i].dims; d++) printf("%s%d", d ? "x" : "", res[i].size[d]);
    printf("]");
  }
  printf("\nAVX2 FMA peak of this run: best %.1f, median %.1f GFLOP/s\n", peak.best, peak.median());
  auto print = [&](const char* who, double mn, double md) {
    printf("  %-10s min %9.1f us  median %9.1f us", who, mn / 1e3, md / 1e3);
    if (flop > 0) printf("  %6.1f GFLOP/s %5.1f%%", flop / mn, 100 * flop / mn / peak.best);
    printf("\n");
  };
  print("opencv-dnn", s.min(), s.median());
  bool failed = false;
  for (auto& o : ours) {
    failed |= o->process.failed();
    if (!(o->min > 0)) continue;
    const std::string who = o->method == "-1" ? "subject-auto" : "subject-m" + o->method;
    print(who.c_str(), o->min, o->medians.median());
    printf("  %s x%.2f of opencv-dnn\n", who.c_str(), s.min() / o->min);
  }
  return failed ? 1 : 0;
}

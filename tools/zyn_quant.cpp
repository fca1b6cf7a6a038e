// Chooses the fraction bits of a network for the fixed-point backend; see kHelp.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "net_quant.h"
#include "options.h"
#include "whole.h"

namespace {

using tools::bits_for;
using tools::Floats;
using tools::is_normalised;
using tools::kMostWord;
using tools::Whole;

constexpr char kHelp[] =
    "usage: zyn-quant [--layers FILE] --model FILE.zynm --out LIST [--margin 1.5] [--vary] "
    "SAMPLE...\n"
    "       zyn-quant --model FILE.zyn --out OUT.zyn [--margin 1.5] SAMPLE...\n"
    "\n"
    "Chooses the fraction bits of a network for the fixed-point backend: runs the float network\n"
    "over sample inputs, takes for every node the largest q that holds --margin times what was\n"
    "seen, writes the list to LIST (\"node q\" a line), and reports how well the fixed-point\n"
    "network then does.\n"
    "\n"
    "The network is the ssd320 detector or that of a layer list. A sample is a raw file with\n"
    "the floats of its input (.f32); for the detector, a BMP photo too. --vary calibrates the\n"
    "detector on flips, crops and brightness changes of the samples instead of the samples.\n"
    "\n"
    "Of a network file (.zyn) OUT.zyn is the same file with the fraction bits in it. A sample is\n"
    "what zyn-run takes: a BMP photo, an array (.npy), or the floats of the input; of a network\n"
    "with several inputs one file for each, in their order, then those of the next sample.\n";
constexpr uint32_t kMethod = 0;
constexpr int32_t kColour = 2;  // reading mode: blue, green, red

struct Options {
  std::string layers, model, out;
  std::vector<std::string> samples;
  float margin;
  bool vary;
};

bool failed(const std::string& complaint) {
  fprintf(stderr, "zyn-quant: %s\n", complaint.c_str());
  return false;
}

Options parse(int argc, char** argv) {
  const cli::Line line(
      argc, argv, kHelp,
      {{"layers", ""}, {"model", ""}, {"out", ""}, {"margin", "1.5"}, {"vary", nullptr}},
      static_cast<size_t>(argc));
  const Options options = {line["layers"],
                           line["model"],
                           line["out"],
                           line.words(),
                           static_cast<float>(line.number("margin", 1)),
                           line.has("vary")};
  if (options.model.empty() || options.out.empty() || options.samples.empty())
    line.wrong("a model, a file for the list and samples are needed\n");
  const bool is_file = tools::ends_with(options.model, ".zyn");
  if (options.vary && (is_file || !options.layers.empty()))
    line.wrong("--vary is for the detector\n");
  if (is_file && !options.layers.empty()) line.wrong("a network file has its own layers\n");
  return options;
}

// ---- samples: what the network's input holds

constexpr size_t kInputs = size_t{3} * ssd320::kWidth * ssd320::kHeight;

bool read_raw(const std::string& path, size_t count, Floats* values) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return failed(path + " cannot be read");
  values->resize(count);
  const bool whole = fread(values->data(), sizeof(float), count, file) == count;
  const bool more = fgetc(file) != EOF;
  fclose(file);
  const bool finite =
      std::all_of(values->begin(), values->end(), [](float v) { return std::isfinite(v); });
  return (whole && !more && finite) ||
         failed(path + " does not hold the " + std::to_string(count) + " numbers of an input");
}

bool read_photo(const std::string& path, zyn_tensor* input, Floats* values) {
  const ssd320::Image photo(zyn_create_image_from_file(path.c_str(), kColour));
  if (!photo) return failed(path + " cannot be read as a BMP file");
  const ssd320::Padded padded = ssd320::pad(photo.get());
  if (!padded.image || !ssd320::fill_input(padded.image.get(), input))
    return failed(path + " cannot be brought to the network's size");
  const auto* from = static_cast<const float*>(input->data);
  values->assign(from, from + kInputs);
  return true;
}

// value(plane, x, y) for every element of an input.
template <typename Value>
Floats make_input(Value value) {
  Floats made(kInputs);
  size_t i = 0;
  for (int32_t plane = 0; plane < 3; plane++)
    for (int32_t y = 0; y < ssd320::kHeight; y++)
      for (int32_t x = 0; x < ssd320::kWidth; x++) made[i++] = value(plane, x, y);
  return made;
}

float pixel(const Floats& from, int32_t plane, int32_t x, int32_t y) {
  return from[static_cast<size_t>((plane * ssd320::kHeight + y) * ssd320::kWidth + x)];
}

// The part of size share that begins at (left, top), all in fractions, enlarged.
Floats crop(const Floats& from, float left, float top, float share) {
  return make_input([&](int32_t plane, int32_t x, int32_t y) {
    const float sx = (left + share * static_cast<float>(x) / ssd320::kWidth) * ssd320::kWidth;
    const float sy = (top + share * static_cast<float>(y) / ssd320::kHeight) * ssd320::kHeight;
    const auto ix = static_cast<int32_t>(sx), iy = static_cast<int32_t>(sy);
    const int32_t jx = std::min(ix + 1, ssd320::kWidth - 1);
    const int32_t jy = std::min(iy + 1, ssd320::kHeight - 1);
    const float fx = sx - static_cast<float>(ix), fy = sy - static_cast<float>(iy);
    const float upper = pixel(from, plane, ix, iy) * (1 - fx) + pixel(from, plane, jx, iy) * fx;
    const float lower = pixel(from, plane, ix, jy) * (1 - fx) + pixel(from, plane, jx, jy) * fx;
    return upper * (1 - fy) + lower * fy;
  });
}

// Bytes multiplied by factor.
Floats brighten(const Floats& from, float factor) {
  return make_input([&](int32_t plane, int32_t x, int32_t y) {
    const float byte = (pixel(from, plane, x, y) * 128 + 127.5f) * factor;
    return (std::min(roundf(byte), 255.0f) - 127.5f) / 128;
  });
}

void add_variants(const Floats& from, std::vector<Floats>* samples) {
  samples->push_back(make_input([&](int32_t plane, int32_t x, int32_t y) {
    return pixel(from, plane, ssd320::kWidth - 1 - x, y);
  }));
  samples->push_back(crop(from, 0.05f, 0.1f, 0.7f));
  samples->push_back(crop(from, 0.3f, 0.25f, 0.65f));
  samples->push_back(brighten(from, 0.7f));
  samples->push_back(brighten(from, 1.35f));
}

bool read_samples(const Options& options, zyn_tensor* input, std::vector<Floats>* samples) {
  const auto count = static_cast<size_t>(input->count);
  for (const std::string& path : options.samples) {
    Floats values;
    const bool raw = path.size() > 4 && path.substr(path.size() - 4) == ".f32";
    if (!raw && !options.layers.empty()) return failed(path + ": photos are for the detector");
    if (!(raw ? read_raw(path, count, &values) : read_photo(path, input, &values))) return false;
    if (options.vary)
      add_variants(values, samples);
    else
      samples->push_back(values);
  }
  return true;
}

// ---- the choice

// What is known of a node.
struct Node {
  float low = 0, high = 0;  // of the sums before the activation
  int32_t q = 0, q_weights = 0;
  double signal = 0, noise = 0;
  int64_t wrapped = 0;
};

// A node without its activation. What a fixed-point node must hold is the sum before it: a
// value beyond 16 bits changes its sign there.
bench::Node sums_of(bench::Node node) {
  node.from = -1;
  node.param.activation = 0;
  if (is_normalised(node.type)) return node;
  node.type = ZYN_OP_CONV;
  node.param.word14.activation = 0;
  return node;
}

// The float network, its layers one by one, and what was seen of them.
class Quantiser {
 public:
  bool create(const Options& options);
  bool choose(float margin);
  bool measure();
  bool write(const std::string& path) const;
  void report() const;

 private:
  bool load(const std::string& model);
  bool run(const Floats& sample);
  void compare(size_t i, const zyn_tensor* words, const zyn_tensor* sums);
  // Node 0 is the input, layer i is node i + 1.
  int id_of(size_t node) const { return node ? float_.id(node - 1) : 0; }
  std::string name_of(size_t node) const { return "node " + std::to_string(id_of(node)); }
  const Node& producer_of(size_t node) const {
    return nodes_[static_cast<size_t>(float_.nodes[node - 1].from + 1)];
  }

  std::vector<peers::Layer> layers_;  // none: the detector
  Floats words_;
  std::vector<Node> nodes_;
  Whole float_;
  std::vector<std::unique_ptr<bench::Graph>> probes_;
  std::vector<Floats> samples_;
};

bool Quantiser::load(const std::string& model) {
  if (!tools::make_whole(layers_, {kMethod, nullptr, {}}, &float_))
    return failed("the network cannot be built");
  words_.resize(static_cast<size_t>(float_.words()));
  if (zyn_cg_load_model(words_.data(), float_.words(), model.c_str()) != ZYN_RET_OK)
    return failed(model + " cannot be read or is not " +
                  (layers_.empty() ? "an ssd320 model" : "a model of these layers"));
  return tools::make_whole(layers_, {kMethod, words_.data(), {}}, &float_) ||
         failed("the network cannot be prepared");
}

bool Quantiser::create(const Options& options) {
  if (!options.layers.empty()) {
    layers_ = peers::read_layers(options.layers, false);
    if (!bench::Network::connected(layers_))
      return failed(options.layers + ": a layer has nothing to read");
  }
  if (!load(options.model) || !read_samples(options, float_.input, &samples_)) return false;
  nodes_.resize(float_.nodes.size() + 1);
  for (size_t i = 0; i < float_.nodes.size(); i++) {
    const bench::Node& node = float_.nodes[i];
    zyn_tensor* const input =
        node.from < 0 ? float_.input : float_.output(static_cast<size_t>(node.from));
    probes_.emplace_back(new bench::Graph);
    if (!probes_[i]->create(input, {sums_of(node)}, kMethod))
      return failed(name_of(i + 1) + " cannot be built by itself");
    nodes_[i + 1].q_weights =
        tools::weight_bits(node.type, node.param, static_cast<const float*>(node.constant->data));
    if (nodes_[i + 1].q_weights < 0)
      return failed(name_of(i + 1) + ": its weights do not fit 16 bits with any q");
  }
  printf("\n");  // The notices of new graphs do not end their line.
  return true;
}

bool Quantiser::run(const Floats& sample) {
  std::copy(sample.begin(), sample.end(), static_cast<float*>(float_.input->data));
  return float_.run() || failed("the network cannot be run");
}

// The largest q that holds margin times what was seen, and no more fraction bits than a
// product has: q of the input + q of the weights.
bool Quantiser::choose(float margin) {
  const auto note = [](Node* node, const float* values, int64_t count) {
    const auto range = std::minmax_element(values, values + count);
    node->low = std::min(node->low, *range.first);
    node->high = std::max(node->high, *range.second);
  };
  for (const Floats& sample : samples_) {
    if (!run(sample)) return false;
    note(&nodes_[0], sample.data(), static_cast<int64_t>(sample.size()));
    for (size_t i = 0; i < probes_.size(); i++) {
      if (!probes_[i]->run()) return failed(name_of(i + 1) + " cannot be run by itself");
      const zyn_tensor* sums = probes_[i]->output(0);
      note(&nodes_[i + 1], static_cast<const float*>(sums->data), sums->count);
    }
  }
  for (size_t i = 0; i < nodes_.size(); i++) {
    Node& node = nodes_[i];
    const double extreme = static_cast<double>(margin) * std::max(-node.low, node.high);
    node.q = i == 0 && layers_.empty() ? static_cast<int32_t>(ssd320::kInputQ) : bits_for(extreme);
    if (node.q < 0)
      return failed(name_of(i) + ": its values reach " + std::to_string(extreme / margin) +
                    ", which with the margin no q can hold");
    if (i > 0) node.q = std::min(node.q, producer_of(i).q + node.q_weights);
  }
  return true;
}

// Fixed point beside float, on the samples.
bool Quantiser::measure() {
  std::vector<uint32_t> q;
  for (const Node& node : nodes_) q.push_back(static_cast<uint32_t>(node.q));
  Whole fixed;
  const bool made = tools::make_whole(layers_, {bench::kFixedPoint, words_.data(), q}, &fixed);
  printf("\n");
  if (!made) return failed("the fixed-point network refuses the list");
  for (const Floats& sample : samples_) {
    auto* words = static_cast<int16_t*>(fixed.input->data);
    for (size_t i = 0; i < sample.size(); i++) {  // of the detector: byte - 127
      const double exact = floor(ldexp(static_cast<double>(sample[i]), nodes_[0].q) + 0.5);
      words[i] = static_cast<int16_t>(std::clamp(exact, -kMostWord - 1, kMostWord));
    }
    if (!run(sample)) return false;
    if (!fixed.run()) return failed("the fixed-point network cannot be run");
    for (size_t i = 0; i < probes_.size(); i++) {
      probes_[i]->run();
      compare(i, fixed.output(i), probes_[i]->output(0));
    }
  }
  return true;
}

// The outputs of layer i, and the values that leave 16 bits: by the sums, and by outputs
// that are further from the float network's than half the range.
void Quantiser::compare(size_t i, const zyn_tensor* words, const zyn_tensor* sums) {
  Node& node = nodes_[i + 1];
  const auto* expected = static_cast<const float*>(float_.output(i)->data);
  const auto* got = static_cast<const int16_t*>(words->data);
  const auto* sum = static_cast<const float*>(sums->data);
  const double unit = ldexp(1, -node.q);
  for (int64_t k = 0; k < words->count; k++) {
    const double wanted = static_cast<double>(expected[k]);
    const double off = got[k] * unit - wanted;
    const double exact = static_cast<double>(sum[k]) / unit;
    node.signal += wanted * wanted;
    node.noise += off * off;
    node.wrapped +=
        exact < -kMostWord - 1.5 || exact >= kMostWord + 0.5 || fabs(off) > kMostWord * unit;
  }
}

bool Quantiser::write(const std::string& path) const {
  FILE* file = fopen(path.c_str(), "w");
  if (!file) return failed(path + " cannot be written");
  fprintf(file, "# fraction bits of the nodes: node q\n");
  for (size_t i = 0; i < nodes_.size(); i++) fprintf(file, "%d %d\n", id_of(i), nodes_[i].q);
  return fclose(file) == 0 || failed(path + " cannot be written");
}

void Quantiser::report() const {
  printf("%d samples; range of the sums before the activation\n",
         static_cast<int>(samples_.size()));
  printf(
      "node from  layer               lowest   highest    q  weights q  shift  SNR dB  wrapped\n");
  int64_t wrapped = 0;
  double worst = INFINITY;
  for (size_t i = 1; i < nodes_.size(); i++) {
    const Node& n = nodes_[i];
    const bench::Node& node = float_.nodes[i - 1];
    const zyn_conv_param& p = node.param;
    char layer[64];
    snprintf(layer, sizeof(layer), "%dx%d%s %d > %d", p.kernel_h, p.kernel_w,
             p.groups > 1 ? " dw" : "", p.in_channels, p.out_channels);
    const double snr = 10 * log10(n.signal / n.noise);
    const int32_t shift = producer_of(i).q + n.q_weights - n.q;
    printf("%4d %4d  %-16s %9.3f %9.3f   %2d         %2d     %2d  %6.1f  %7lld\n", id_of(i),
           id_of(static_cast<size_t>(node.from + 1)), layer, static_cast<double>(n.low),
           static_cast<double>(n.high), n.q, n.q_weights, shift, snr,
           static_cast<long long>(n.wrapped));
    wrapped += n.wrapped;
    worst = std::min(worst, snr);
  }
  printf("worst SNR %.1f dB, %lld values wrapped\n", worst, static_cast<long long>(wrapped));
  if (wrapped) fprintf(stderr, "zyn-quant: values wrap; use a larger --margin\n");
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  Quantiser quantiser;
  if (!cli::writable(options.out, false)) {
    failed(options.out + " cannot be written");
    return 1;
  }
  if (tools::ends_with(options.model, ".zyn")) {
    tools::NetQuantiser net(options.model, options.margin);
    const std::string wrong = net.run(options.samples, options.out);
    if (wrong.empty()) net.report();
    return wrong.empty() || failed(wrong) ? 0 : 1;
  }
  if (!quantiser.create(options) || !quantiser.choose(options.margin) || !quantiser.measure() ||
      !quantiser.write(options.out))
    return 1;
  quantiser.report();
  return 0;
}

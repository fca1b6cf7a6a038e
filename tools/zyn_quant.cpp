// Chooses the fraction bits of the ssd320 detector for the fixed-point backend: runs the
// float network over sample inputs, takes for every node the largest q that holds what
// was seen, writes the list, and reports how well the fixed-point network then does.
//
//   zyn-quant --model FILE.zynm --out LIST [--margin 1.5] [--vary] SAMPLE...
//
// A sample is a BMP photo or a raw file of 320 x 240 x 3 floats (.f32). --vary calibrates
// on flips, crops and brightness changes of the samples instead of the samples. The list
// goes to LIST ("node q" a line), the report to the standard output.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../examples/ssd320.h"

namespace {

using ssd320::Convolution;
using ssd320::Detector;
using ssd320::Graph;
using ssd320::Tensor;
using Floats = std::vector<float>;

constexpr float kDefaultMargin = 1.5f;
constexpr double kMostWord = 32767;
constexpr int32_t kMostBits = 15;
constexpr uint32_t kMethod = 0;
constexpr float kEpsilon = 1e-5f;  // of the normalised convolutions
constexpr int32_t kColour = 2;     // reading mode: blue, green, red

enum Exit { kDone = 0, kFailed = 1, kUsage = 2 };

struct Options {
  std::string model, out;
  std::vector<std::string> samples;
  float margin = kDefaultMargin;
  bool vary = false;
};

bool usage(const std::string& complaint) {
  fprintf(stderr,
          "%s\nusage: zyn-quant --model FILE.zynm --out LIST [--margin 1.5] [--vary] SAMPLE...\n",
          complaint.c_str());
  return false;
}

bool failed(const std::string& complaint) {
  fprintf(stderr, "zyn-quant: %s\n", complaint.c_str());
  return false;
}

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; i++) {
    const std::string argument = argv[i];
    const bool takes_value = argument == "--model" || argument == "--out" || argument == "--margin";
    if (takes_value && i + 1 == argc) return usage(argument + " needs a value");
    if (argument == "--model") {
      options->model = argv[++i];
    } else if (argument == "--out") {
      options->out = argv[++i];
    } else if (argument == "--margin") {
      options->margin = static_cast<float>(atof(argv[++i]));
      if (!(options->margin >= 1)) return usage("the margin is a factor of at least 1");
    } else if (argument == "--vary") {
      options->vary = true;
    } else if (argument[0] == '-') {
      return usage("what is " + argument + "?");
    } else {
      options->samples.push_back(argument);
    }
  }
  if (options->model.empty() || options->out.empty() || options->samples.empty())
    return usage("a model, a file for the list and samples are needed");
  return true;
}

// ---- samples: what the network's input holds

constexpr size_t kInputs = size_t{3} * ssd320::kWidth * ssd320::kHeight;

bool read_raw(const std::string& path, Floats* values) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return failed(path + " cannot be read");
  values->resize(kInputs);
  const bool whole = fread(values->data(), sizeof(float), kInputs, file) == kInputs;
  const bool more = fgetc(file) != EOF;
  fclose(file);
  return (whole && !more) || failed(path + " does not hold 320 x 240 x 3 floats");
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

bool read_samples(const Options& options, Detector* network, std::vector<Floats>* samples) {
  for (const std::string& path : options.samples) {
    Floats values;
    const bool raw = path.size() > 4 && path.substr(path.size() - 4) == ".f32";
    if (!(raw ? read_raw(path, &values) : read_photo(path, network->input(), &values)))
      return false;
    if (options.vary)
      add_variants(values, samples);
    else
      samples->push_back(values);
  }
  return true;
}

// ---- one convolution by itself, without its activation

// What a fixed-point node must hold is the sum before the activation: a value beyond 16
// bits changes its sign there.
class Probe {
 public:
  bool create(const Convolution& layer, const zyn_tensor* input, float* words);
  // The sums for what the input holds at the moment.
  const zyn_tensor* run() {
    if (zyn_computation_graph_inference(graph_.get()) != ZYN_RET_OK) return nullptr;
    return zyn_get_computation_node_inference_data(graph_.get(), 2);
  }

 private:
  bool bind(int32_t node, int32_t type, void* data, const void* param) {
    zyn_cg_node_desc desc{};
    desc.type = type;
    desc.data = data;
    return zyn_bind_operator_onto_computation_graph(graph_.get(), node, &desc, param) == ZYN_RET_OK;
  }
  Tensor constant_;
  Graph graph_;
};

bool Probe::create(const Convolution& layer, const zyn_tensor* input, float* words) {
  zyn_conv_param p{};
  p.in_channels = static_cast<int32_t>(layer.in_channels);
  p.out_channels = static_cast<int32_t>(layer.out_channels);
  p.kernel_h = p.kernel_w = static_cast<int32_t>(layer.kernel);
  p.stride_h = p.stride_w = static_cast<int32_t>(layer.stride);
  p.pad_h = p.pad_w = p.kernel_h / 2;
  p.dilation_h = p.dilation_w = 1;
  p.groups = static_cast<int32_t>(layer.groups);
  p.bias = layer.normalised ? 0 : 1;
  if (layer.normalised) p.word14.epsilon = kEpsilon;
  zyn_cg_create_param settings{};
  settings.max_nodes = 3;
  settings.thread_count = 1;
  const int32_t count = layer.words();
  constant_.reset(zyn_create_tensor_header(1, &count, ZYN_TYPE_F32));
  graph_.reset(zyn_create_computation_graph_handle(&settings));
  zyn_cg_handle* graph = graph_.get();
  return constant_ && graph && zyn_cg_set_conv_method(graph, kMethod) == ZYN_RET_OK &&
         zyn_set_tensor_data(constant_.get(), words, int64_t{4} * count) == ZYN_RET_OK &&
         zyn_add_one_edge_into_computation_graph(graph, 0, 2) == ZYN_RET_OK &&
         zyn_add_one_edge_into_computation_graph(graph, 1, 2) == ZYN_RET_OK &&
         zyn_computation_graph_topo_sort(graph) == ZYN_RET_OK &&
         bind(0, ZYN_OP_INPUT, const_cast<zyn_tensor*>(input), nullptr) &&
         bind(1, ZYN_OP_CONSTANT, constant_.get(), nullptr) &&
         bind(2, layer.normalised ? ZYN_OP_CONV_BN : ZYN_OP_CONV, nullptr, &p) &&
         zyn_prepare_inference_computation(graph) == ZYN_RET_OK;
}

// ---- the choice

// What is known of a node.
struct Node {
  float low = 0, high = 0;  // of the sums before the activation
  int32_t q = 0, q_weights = 0;
  double signal = 0, noise = 0;
  int64_t wrapped = 0;
};

// The q that preparation gives to the weights and biases of a layer; -1: none.
int32_t weight_bits(const Convolution& layer, const float* words) {
  const int32_t weights = layer.weights(),
                per_channel = weights / static_cast<int32_t>(layer.out_channels);
  const auto channels = static_cast<int32_t>(layer.out_channels);
  const float* after = words + weights;
  float low = 0, high = 0;
  const auto note = [&](float v) {
    low = std::min(low, v);
    high = std::max(high, v);
  };
  for (int32_t c = 0; c < channels; c++) {
    float scale = 1, bias = after[c];
    if (layer.normalised) {  // scale, shift, mean and variance
      scale = after[c] / sqrtf(after[3 * channels + c] + kEpsilon);
      bias = after[channels + c] - after[2 * channels + c] * scale;
    }
    note(bias);
    for (int32_t i = c * per_channel; i < (c + 1) * per_channel; i++) note(words[i] * scale);
  }
  const float extreme = fabsf(high) < fabsf(low) ? low : high;
  for (int32_t q = kMostBits; q >= 0; q--)
    if (extreme >= -ldexpf(1, kMostBits - q) && extreme <= ldexpf(1, kMostBits - q) - ldexpf(1, -q))
      return q;
  return -1;
}

std::string name_of(size_t node) { return "node " + std::to_string(node); }

// The float network, its layers one by one, and what was seen of them.
class Quantiser {
 public:
  bool create(const Options& options);
  bool choose(float margin);
  bool measure();
  bool write(const std::string& path) const;
  void report() const;

 private:
  bool run(const Floats& sample);
  void compare(size_t i, const Detector& fixed, const zyn_tensor* sums);
  std::vector<uint32_t> list() const;

  std::vector<Convolution> layers_ = ssd320::convolutions();
  std::vector<Node> nodes_;  // node 0 is the input, layer i is node i + 1
  Detector float_;
  std::vector<Probe> probes_;
  std::vector<Floats> samples_;
};

bool Quantiser::create(const Options& options) {
  if (!float_.create(kMethod)) return failed("the network cannot be built");
  if (zyn_cg_load_model(float_.weights(), float_.weight_count(), options.model.c_str()) !=
      ZYN_RET_OK)
    return failed(options.model + " cannot be read or is not an ssd320 model");
  if (!float_.prepare()) return failed("the network cannot be prepared");
  if (!read_samples(options, &float_, &samples_)) return false;
  nodes_.resize(layers_.size() + 1);
  probes_.resize(layers_.size());
  float* words = float_.weights();
  for (size_t i = 0; i < layers_.size(); words += layers_[i++].words()) {
    const int32_t from = layers_[i].from;
    if (!probes_[i].create(layers_[i], from ? float_.output(from) : float_.input(), words))
      return failed(name_of(i + 1) + " cannot be built by itself");
    nodes_[i + 1].q_weights = weight_bits(layers_[i], words);
    if (nodes_[i + 1].q_weights < 0)
      return failed(name_of(i + 1) + ": its weights do not fit 16 bits with any q");
  }
  printf("\n");  // The notices of new graphs do not end their line.
  return true;
}

bool Quantiser::run(const Floats& sample) {
  std::copy(sample.begin(), sample.end(), static_cast<float*>(float_.input()->data));
  return float_.run() || failed("the network cannot be run");
}

// The largest q that holds margin times what was seen, and no more fraction bits than a
// product has: q of the input + q of the weights.
bool Quantiser::choose(float margin) {
  for (const Floats& sample : samples_) {
    if (!run(sample)) return false;
    for (size_t i = 0; i < layers_.size(); i++) {
      const zyn_tensor* sums = probes_[i].run();
      if (!sums) return failed(name_of(i + 1) + " cannot be run by itself");
      const auto* values = static_cast<const float*>(sums->data);
      const auto range = std::minmax_element(values, values + sums->count);
      nodes_[i + 1].low = std::min(nodes_[i + 1].low, *range.first);
      nodes_[i + 1].high = std::max(nodes_[i + 1].high, *range.second);
    }
  }
  nodes_[0].q = ssd320::kInputQ;
  nodes_[0].low = -127 / 128.0f;
  nodes_[0].high = 1;
  for (size_t i = 1; i < nodes_.size(); i++) {
    Node& node = nodes_[i];
    const double extreme = static_cast<double>(margin) * std::max(-node.low, node.high);
    node.q = kMostBits;
    while (node.q >= 0 && !(ldexp(extreme, node.q) <= kMostWord)) node.q--;
    if (node.q < 0)
      return failed(name_of(i) + ": its values reach " + std::to_string(extreme / margin) +
                    ", which with the margin no q can hold");
    const Node& from = nodes_[static_cast<size_t>(layers_[i - 1].from)];
    node.q = std::min(node.q, from.q + node.q_weights);
  }
  return true;
}

// Fixed point beside float, on the samples.
bool Quantiser::measure() {
  Detector fixed;
  if (!fixed.create(kMethod, list())) return failed("the fixed-point network cannot be built");
  printf("\n");
  std::copy(float_.weights(), float_.weights() + float_.weight_count(), fixed.weights());
  if (!fixed.prepare()) return failed("the fixed-point network refuses the list");
  for (const Floats& sample : samples_) {
    auto* words = static_cast<int16_t*>(fixed.input()->data);
    for (size_t i = 0; i < kInputs; i++)
      words[i] = static_cast<int16_t>(floorf(sample[i] * 128 + 0.5f));  // byte - 127
    if (!run(sample)) return false;
    if (!fixed.run()) return failed("the fixed-point network cannot be run");
    for (size_t i = 0; i < layers_.size(); i++) compare(i, fixed, probes_[i].run());
  }
  return true;
}

// The outputs of layer i, and the values that leave 16 bits: by the sums, and by outputs
// that are further from the float network's than half the range.
void Quantiser::compare(size_t i, const Detector& fixed, const zyn_tensor* sums) {
  Node& node = nodes_[i + 1];
  const auto id = static_cast<int32_t>(i) + 1;
  const zyn_tensor* words = fixed.output(id);
  const auto* expected = static_cast<const float*>(float_.output(id)->data);
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

std::vector<uint32_t> Quantiser::list() const {
  // Constants need none: the graph chooses the q of weights by itself.
  std::vector<uint32_t> q(1 + 2 * layers_.size(), 0);
  for (size_t i = 0; i < nodes_.size(); i++) q[i] = static_cast<uint32_t>(nodes_[i].q);
  return q;
}

bool Quantiser::write(const std::string& path) const {
  FILE* file = fopen(path.c_str(), "w");
  if (!file) return failed(path + " cannot be written");
  fprintf(file, "# fraction bits of the ssd320 detector: node q\n");
  for (size_t i = 0; i < nodes_.size(); i++)
    fprintf(file, "%d %d\n", static_cast<int>(i), nodes_[i].q);
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
    const Convolution& c = layers_[i - 1];
    char layer[64];
    snprintf(layer, sizeof(layer), "%ux%u%s %u > %u", c.kernel, c.kernel, c.groups > 1 ? " dw" : "",
             c.in_channels, c.out_channels);
    const double snr = 10 * log10(n.signal / n.noise);
    const int32_t shift = nodes_[static_cast<size_t>(c.from)].q + n.q_weights - n.q;
    printf("%4d %4d  %-16s %9.3f %9.3f   %2d         %2d     %2d  %6.1f  %7lld\n",
           static_cast<int>(i), c.from, layer, static_cast<double>(n.low),
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
  Options options;
  if (!parse(argc, argv, &options)) return kUsage;
  Quantiser quantiser;
  if (!quantiser.create(options) || !quantiser.choose(options.margin) || !quantiser.measure() ||
      !quantiser.write(options.out))
    return kFailed;
  quantiser.report();
  return kDone;
}

// Fraction bits for the nodes of a network file: what zyn-quant does with one.
#pragma once

#include <math.h>
#include <stdio.h>
#include <string.h>

#include <map>

#include "net.h"

namespace tools {

constexpr double kMostWord = 32767;
constexpr int32_t kMostBits = 15;
constexpr float kEpsilon = 1e-5f;  // of the normalised convolutions whose record has none

inline bool is_normalised(int32_t type) { return type == ZYN_OP_CONV_BN; }
inline bool is_convolution(int32_t type) {
  return type == ZYN_OP_CONV || type == ZYN_OP_CONV_DEPTHWISE || type == ZYN_OP_CONV_POINTWISE ||
         type == ZYN_OP_CONV_ACT || type == ZYN_OP_CONV_BN;
}
inline bool works_in_place(int32_t type) {
  return type == ZYN_OP_SIGMOID || type == ZYN_OP_RELU || type == ZYN_OP_RELU6 ||
         type == ZYN_OP_HARD_SWISH || type == ZYN_OP_MISH;
}

// The largest q that holds values up to extreme; -1: none.
inline int32_t bits_for(double extreme) {
  int32_t q = kMostBits;
  while (q >= 0 && !(ldexp(extreme, q) <= kMostWord)) q--;
  return q;
}

// The q that preparation gives to constants between two extremes; -1: none.
inline int32_t constant_bits(float low, float high) {
  const float extreme = fabsf(high) < fabsf(low) ? low : high;
  for (int32_t q = kMostBits; q >= 0; q--)
    if (extreme >= -ldexpf(1, kMostBits - q) && extreme <= ldexpf(1, kMostBits - q) - ldexpf(1, -q))
      return q;
  return -1;
}

// The same for the weights and biases of a convolution, normalisation folded in.
inline int32_t weight_bits(int32_t type, const zyn_conv_param& p, const float* words) {
  const int32_t channels = p.out_channels;
  const int32_t per_channel = p.in_channels / p.groups * p.kernel_h * p.kernel_w;
  const float* after = words + int64_t{per_channel} * channels;
  float low = 0, high = 0;
  const auto note = [&](float v) {
    low = std::min(low, v);
    high = std::max(high, v);
  };
  for (int32_t c = 0; c < channels; c++) {
    float scale = 1, bias = p.bias == 1 ? after[c] : 0;
    if (is_normalised(type)) {  // scale, shift, mean and variance, behind biases that nobody reads
      const float* norm = p.bias == 1 ? after + channels : after;
      const float epsilon = p.word14.epsilon != 0.0f ? p.word14.epsilon : kEpsilon;
      scale = norm[c] / sqrtf(norm[3 * channels + c] + epsilon);
      bias = norm[channels + c] - norm[2 * channels + c] * scale;
    }
    note(bias);
    for (int32_t i = c * per_channel; i < (c + 1) * per_channel; i++) note(words[i] * scale);
  }
  return constant_bits(low, high);
}

// The nodes of a network file (docs/network-file.md) that has been loaded and so is sound.
class FileNodes {
 public:
  struct Node {
    int32_t type;
    std::vector<uint32_t> words;  // of the record
    std::vector<int32_t> inputs;
    Floats values;  // of a constant
  };

  bool read(const std::string& path) {
    FILE* file = fopen(path.c_str(), "rb");
    if (!file) return false;
    uint8_t block[1 << 16];
    for (size_t got; (got = fread(block, 1, sizeof block, file)) > 0;)
      bytes_.insert(bytes_.end(), block, block + got);
    fclose(file);
    std::map<uint32_t, uint64_t> at;  // sections by id
    for (uint32_t row = 0; row < word(24); row++)
      at[word(32 + row * 24)] = word(32 + row * 24 + 8) | uint64_t{word(32 + row * 24 + 12)} << 32;
    const auto run = [&](uint64_t where, auto* list) {
      for (uint32_t i = 0; i < word(where + 4); i++)
        list->push_back(static_cast<typename std::decay_t<decltype(*list)>::value_type>(
            word(at[3] + (word(where) + uint64_t{i}) * 4)));
    };
    for (uint64_t i = 0; i < count_of(2); i++) {
      const uint64_t row = at[2] + i * 32;
      Node node = {static_cast<int32_t>(word(row)), {}, {}, {}};
      run(row + 12, &node.words);
      run(row + 20, &node.inputs);
      if (node.type == ZYN_OP_CONSTANT) {
        const uint64_t constant = at[4] + uint64_t{word(row + 28)} * 40;
        uint64_t count = 1;
        for (uint32_t d = 0; d < word(constant + 8); d++) count *= word(constant + 12 + d * 4);
        node.values.resize(count);
        const uint64_t offset = word(constant) | uint64_t{word(constant + 4)} << 32;
        memcpy(node.values.data(), &bytes_[at[5] + offset], count * sizeof(float));
      }
      nodes.push_back(std::move(node));
    }
    return true;
  }

  std::vector<Node> nodes;

 private:
  uint32_t word(uint64_t at) const {
    uint32_t value;
    memcpy(&value, &bytes_[at], sizeof value);
    return value;
  }
  uint64_t count_of(uint32_t id) const {
    for (uint32_t row = 0; row < word(24); row++)
      if (word(32 + row * 24) == id) return word(32 + row * 24 + 4);
    return 0;
  }

  std::vector<uint8_t> bytes_;
};

// What a fixed-point node must hold is the sum before its activation: a value beyond 16 bits
// changes its sign there. So every node whose output is activated, by itself or in place by
// another, gets a second node behind all others that computes the same without.
class NetQuantiser {
 public:
  NetQuantiser(const std::string& path, float margin) : path_(path), margin_(margin) {}

  // Writes the file with fraction bits; what went wrong, or nothing.
  std::string run(const std::vector<std::string>& samples, const std::string& out) {
    if (!load(path_, ZYN_NET_AUTOMATIC, false, false) || !file_.read(path_))
      return explained(path_);
    if (!make_float()) return explained(path_);
    std::string wrong = read_samples(samples);
    if (wrong.empty()) wrong = find_ranges();
    if (wrong.empty()) wrong = choose();
    if (wrong.empty()) wrong = measure();
    if (wrong.empty() && zyn_net_write(writer_.get(), out.c_str()) != ZYN_RET_OK)
      wrong = explained(out);
    return wrong;
  }

  void report() const {
    printf("%zu samples; range of the values before the activation\n", samples_.size());
    printf("node  operator              lowest   highest    q  SNR dB  wrapped  name\n");
    int64_t wrapped = 0;
    double worst = INFINITY;
    const zyn_net_description* const d = zyn_net_describe(float_.get());
    for (size_t i = 0; i < file_.nodes.size(); i++) {
      const Seen& n = seen_[i];
      if (file_.nodes[i].type == ZYN_OP_CONSTANT) continue;
      printf("%4zu  %-18s %9.3f %9.3f   %2d", i, d->nodes[i].operation, static_cast<double>(n.low),
             static_cast<double>(n.high), n.q);
      if (file_.nodes[i].type == ZYN_OP_INPUT) {
        printf("                   %s\n", d->nodes[i].name);
        continue;
      }
      const double snr = 10 * log10(n.signal / n.noise);
      printf("  %6.1f  %7lld  %s\n", snr, static_cast<long long>(n.wrapped), d->nodes[i].name);
      wrapped += n.wrapped;
      if (n.noise > 0) worst = std::min(worst, snr);
    }
    printf("worst SNR %.1f dB, %lld values wrapped\n", worst, static_cast<long long>(wrapped));
    if (wrapped) fprintf(stderr, "zyn-quant: values wrap; use a larger --margin\n");
  }

 private:
  struct Seen {
    int32_t watched = 0;  // the node whose values count: it or its second
    float low = 0, high = 0;
    int32_t q = 0;
    double signal = 0, noise = 0;
    int64_t wrapped = 0;
  };

  static std::string explained(const std::string& what) { return what + ": " + zyn_error_detail(); }
  std::string name_of(size_t i) const { return "node " + std::to_string(i); }

  static Net load_written(const zyn_net_writer* writer, bool fixed) {
    void* data = nullptr;
    int64_t size = 0;
    if (zyn_net_write_memory(writer, &data, &size) != ZYN_RET_OK) return nullptr;
    zyn_net_options options = ZYN_NET_DEFAULTS;
    options.method = 0;
    options.keep_all = 1;
    options.fixed_point = fixed ? 1 : 0;
    Net net(zyn_net_load_memory(data, size, &options));
    zyn_free(data);
    return net;
  }

  // The id of a node like node i without an activation; -1 where it cannot be added.
  static int32_t add_second(const FileNodes::Node& node, zyn_net_writer* writer) {
    std::vector<uint32_t> words = node.words;
    words.resize(16);
    if (node.type == ZYN_OP_CONV_ACT) words[14] = ZYN_ACT_BIAS;
    if (is_normalised(node.type)) words[15] = ZYN_ACT_BIAS;
    const auto* list = reinterpret_cast<const int32_t*>(words.data());
    const zyn_gather_param gather = {list[0], list + 1};
    const bool is_list = node.type == ZYN_OP_CHANNEL_GATHER && list[0] > 0;
    return zyn_net_writer_node(writer, "", node.type,
                               is_list ? static_cast<const void*>(&gather) : words.data(),
                               node.inputs.data(), static_cast<int32_t>(node.inputs.size()));
  }

  bool make_float() {
    writer_.reset(zyn_net_writer_load(path_.c_str()));
    const Writer both(zyn_net_writer_load(path_.c_str()));
    if (!writer_ || !both) return false;
    seen_.resize(file_.nodes.size());
    for (size_t i = 0; i < seen_.size(); i++) {
      const FileNodes::Node& node = file_.nodes[i];
      seen_[i].watched = static_cast<int32_t>(i);
      bool activated = (node.type == ZYN_OP_CONV_ACT && node.words[14] != ZYN_ACT_BIAS) ||
                       (is_normalised(node.type) && node.words[15] != ZYN_ACT_BIAS);
      for (const FileNodes::Node& reader : file_.nodes)
        if (works_in_place(reader.type) && reader.inputs[0] == static_cast<int32_t>(i))
          activated = true;
      if (!activated || node.inputs.empty() || works_in_place(node.type)) continue;
      seen_[i].watched = add_second(node, both.get());
      if (seen_[i].watched < 0) return false;
    }
    float_ = load_written(both.get(), false);
    return float_ != nullptr;
  }

  std::string read_samples(const std::vector<std::string>& files) {
    const zyn_net_description* const d = zyn_net_describe(float_.get());
    const auto inputs = static_cast<size_t>(d->input_count);
    if (files.size() % inputs)
      return "samples of " + std::to_string(inputs) + " files each are needed";
    samples_.resize(files.size() / inputs);
    for (size_t i = 0; i < files.size(); i++) {
      samples_[i / inputs].emplace_back();
      const std::string wrong =
          read_input(files[i], d->inputs[i % inputs], &samples_[i / inputs].back());
      if (!wrong.empty()) return wrong;
    }
    return "";
  }

  bool run_sample(const std::vector<Floats>& sample, zyn_net* net) const {
    const zyn_net_description* const d = zyn_net_describe(net);
    for (size_t i = 0; i < sample.size(); i++)
      store(sample[i], d->inputs[i].q, zyn_net_input(net, d->inputs[i].name));
    return zyn_net_run(net) == ZYN_RET_OK;
  }

  // The values of a node after a run; of inputs those of the sample.
  Floats values(zyn_net* net, int32_t node, const std::vector<Floats>& sample) const {
    const zyn_net_description* const d = zyn_net_describe(net);
    for (int32_t i = 0; i < d->input_count; i++)
      if (d->inputs[i].node == node) return sample[static_cast<size_t>(i)];
    zyn_cg_handle* const graph = zyn_net_graph(net);
    const zyn_tensor* tensor = zyn_get_computation_node_inference_data(graph, node);
    const bool known = tensor && (tensor->type == ZYN_TYPE_F32 || tensor->type == ZYN_TYPE_FPI16);
    return known ? values_of(*tensor, static_cast<int32_t>(zyn_cg_get_q_from_list(graph, node)))
                 : Floats();
  }

  std::string find_ranges() {
    for (const std::vector<Floats>& sample : samples_) {
      if (!run_sample(sample, float_.get())) return explained(path_);
      for (size_t i = 0; i < seen_.size(); i++) {
        if (file_.nodes[i].type == ZYN_OP_CONSTANT) continue;
        for (const float v : values(float_.get(), seen_[i].watched, sample)) {
          seen_[i].low = std::min(seen_[i].low, v);
          seen_[i].high = std::max(seen_[i].high, v);
        }
      }
    }
    return "";
  }

  // The most fraction bits of a node's output, whatever its values.
  int32_t most_bits(const FileNodes::Node& node) const {
    // Constants take the q that holds them.
    const auto q = [&](size_t i) {
      const auto id = static_cast<size_t>(node.inputs[i]);
      const Floats& values = file_.nodes[id].values;
      if (values.empty()) return seen_[id].q;
      const auto range = std::minmax_element(values.begin(), values.end());
      return constant_bits(*range.first, *range.second);
    };
    const auto is_constant = [&](int32_t id) {
      return file_.nodes[size_t(id)].type == ZYN_OP_CONSTANT;
    };
    const auto weights = std::find_if(node.inputs.begin(), node.inputs.end(), is_constant);
    const auto data = std::find_if_not(node.inputs.begin(), node.inputs.end(), is_constant);
    int32_t least = kMostBits;
    switch (node.type) {
      case ZYN_OP_CONV:
      case ZYN_OP_CONV_DEPTHWISE:
      case ZYN_OP_CONV_POINTWISE:
      case ZYN_OP_CONV_ACT:
      case ZYN_OP_CONV_BN: {
        zyn_conv_param p;
        memcpy(&p, node.words.data(), sizeof p);
        return seen_[size_t(*data)].q +
               weight_bits(node.type, p, file_.nodes[size_t(*weights)].values.data());
      }
      case ZYN_OP_LINEAR:
      case ZYN_OP_MULTIPLY:
        return q(0) + q(1);
      case ZYN_OP_RELU:  // those that take over the q of their input
      case ZYN_OP_RELU6:
      case ZYN_OP_MAX_POOL:
      case ZYN_OP_RESHAPE:
      case ZYN_OP_CHANNEL_SLICE:
      case ZYN_OP_CHANNEL_GATHER:
      case ZYN_OP_CONCAT:
        for (size_t i = 0; i < node.inputs.size(); i++) least = std::min(least, q(i));
        return least;
      default:
        return kMostBits;
    }
  }

  std::string choose() {
    for (size_t i = 0; i < seen_.size(); i++) {
      const FileNodes::Node& node = file_.nodes[i];
      Seen& n = seen_[i];
      const double extreme = static_cast<double>(margin_) * std::max(-n.low, n.high);
      n.q = node.type == ZYN_OP_SIGMOID ? kMostBits : bits_for(extreme);
      if (n.q < 0)
        return name_of(i) + ": its values reach " + std::to_string(extreme / margin_) +
               ", which with the margin no q can hold";
      if (!node.inputs.empty()) n.q = std::min(n.q, most_bits(node));
      if (n.q < 0) return name_of(i) + ": its weights do not fit 16 bits with any q";
      if (zyn_net_writer_q(writer_.get(), static_cast<int32_t>(i), n.q) != ZYN_RET_OK)
        return explained(path_);
    }
    return "";
  }

  // Fixed point beside float, on the samples. Some operators set their own fraction bits.
  std::string measure() {
    const Net fixed = load_written(writer_.get(), true);
    if (!fixed) return explained("in fixed point");
    for (size_t i = 0; i < seen_.size(); i++)
      seen_[i].q = static_cast<int32_t>(
          zyn_cg_get_q_from_list(zyn_net_graph(fixed.get()), static_cast<int32_t>(i)));
    for (const std::vector<Floats>& sample : samples_) {
      if (!run_sample(sample, float_.get())) return explained(path_);
      if (!run_sample(sample, fixed.get())) return explained("in fixed point");
      for (size_t i = 0; i < seen_.size(); i++)
        if (!file_.nodes[i].inputs.empty()) compare(i, fixed.get(), sample);
    }
    return "";
  }

  // The outputs of a node, and the values that leave 16 bits: by the sums, and by outputs that
  // are further from the float network's than half the range.
  void compare(size_t i, zyn_net* fixed, const std::vector<Floats>& sample) {
    Seen& n = seen_[i];
    const auto id = static_cast<int32_t>(i);
    const Floats got = values(fixed, id, sample), wanted = values(float_.get(), id, sample);
    const Floats sums = values(float_.get(), n.watched, sample);
    const double unit = ldexp(1, -n.q);
    for (size_t k = 0; k < std::min(got.size(), wanted.size()); k++) {
      const double expected = static_cast<double>(wanted[k]);
      const double off = static_cast<double>(got[k]) - expected;
      const double exact = static_cast<double>(sums[k]) / unit;
      n.signal += expected * expected;
      n.noise += off * off;
      n.wrapped +=
          exact < -kMostWord - 1.5 || exact >= kMostWord + 0.5 || fabs(off) > kMostWord * unit;
    }
  }

  std::string path_;
  float margin_;
  FileNodes file_;
  Writer writer_;  // the file that becomes the result
  Net float_;      // with the second nodes
  std::vector<Seen> seen_;
  std::vector<std::vector<Floats>> samples_;  // per sample, per input
};

}  // namespace tools

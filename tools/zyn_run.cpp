// Runs a network file on inputs from files, writes its outputs, tells how long it takes.
#include <ctype.h>
#include <stdio.h>

#include <filesystem>
#include <set>

#include "net.h"
#include "options.h"

namespace {

constexpr char kHelp[] =
    "usage: zyn-run FILE.zyn [NAME=]INPUT... [--out DIR] [--runs N] [--method auto] [--fixed]\n"
    "               [--node NODE] [--keep-all]\n"
    "\n"
    "Runs a network file on inputs. An input is a BMP photo (.bmp), which is brought to the size,\n"
    "the channels and the values that the file asks for; an array of float32 or uint8 (.npy) in\n"
    "the input's shape, with its leading axes or without; or any other file, which holds the\n"
    "input's floats, little-endian, rows of planes. Of a picture's input, bytes are pixels: mean\n"
    "and scale apply. Inputs come in the order of the file's list unless NAME= says which.\n"
    "\n"
    "--out DIR writes every output to DIR/NAME.npy, float32 in numpy's order with the leading\n"
    "axes; --node NODE (a name or an id) one node more, --keep-all every node; a node that an\n"
    "in-place activation reads has that one's values. Without --out each output's extremes are\n"
    "printed. --runs N runs N times more and prints the first run's time and the fastest and the\n"
    "median of the others. --method auto (the file's choice, else the table of costs), exact\n"
    "(auto without Winograd's method), timed, 0, 1 or 2; --fixed computes in 16-bit fixed point.\n";

bool failed(const std::string& complaint) {
  fprintf(stderr, "zyn-run: %s\n", complaint.c_str());
  return false;
}

struct Options {
  std::string file, out, node;
  std::vector<std::string> inputs;
  int32_t method, runs;
  bool fixed, keep_all;
};

Options parse(int argc, char** argv) {
  const cli::Line line(argc, argv, kHelp,
                       {{"out", ""},
                        {"runs", "0"},
                        {"method", "auto"},
                        {"fixed", nullptr},
                        {"node", ""},
                        {"keep-all", nullptr}},
                       static_cast<size_t>(argc));
  Options options = {line.word(0), line["out"], line["node"], line.words(), 0, 0, false, false};
  if (line.words().size() < 2) line.wrong("a network and its inputs are needed\n");
  options.inputs.erase(options.inputs.begin());
  if (!tools::parse_method(line["method"], &options.method))
    line.wrong("no method " + line["method"] + "\n");
  options.runs = static_cast<int32_t>(line.number("runs", 0));
  options.fixed = line.has("fixed");
  options.keep_all = line.has("keep-all");
  if (options.out.empty() && (options.keep_all || !options.node.empty()))
    line.wrong("--node and --keep-all need --out\n");
  return options;
}

// A tensor to be written: of an output, or of a node where port is null.
struct Wanted {
  std::string name;
  const zyn_net_port* port;
  int32_t node;
};

class Runner {
 public:
  bool run(const Options& options) {
    return prepare_folder(options.out) && load(options) && find_wanted(options) &&
           read_inputs(options.inputs) && time_runs(options.runs) && give(options.out);
  }

 private:
  static bool prepare_folder(const std::string& folder) {
    std::error_code error;
    if (folder.empty()) return true;
    std::filesystem::create_directories(folder, error);
    return cli::writable(folder + "/.zyn-run", false) ||
           failed(folder + " cannot be made or written");
  }

  bool load(const Options& options) {
    const bool all = options.keep_all || !options.node.empty();
    net_ = tools::load(options.file, options.method, options.fixed, all);
    if (!net_) return failed(options.file + ": " + zyn_error_detail());
    description_ = zyn_net_describe(net_.get());
    return true;
  }

  // A file's name from a node's: letters, digits, '.', '-' and '_', none twice.
  std::string file_name(const std::string& name) {
    std::string text = name;
    for (char& c : text)
      if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-') c = '_';
    if (text.find_first_not_of('.') == std::string::npos) text = "_" + text;
    while (!names_.insert(text).second) text += "_";
    return text;
  }

  bool find_wanted(const Options& options) {
    for (int32_t i = 0; i < description_->output_count; i++) {
      const zyn_net_port& port = description_->outputs[i];
      wanted_.push_back({file_name(port.name), &port, port.node});
    }
    bool found = options.node.empty();
    for (int32_t id = 0; id < description_->node_count; id++) {
      const zyn_net_node& node = description_->nodes[id];
      const bool asked = !options.node.empty() &&
                         (options.node == node.name || options.node == std::to_string(id));
      const bool data = node.type == ZYN_OP_INPUT || node.type == ZYN_OP_CONSTANT;
      if (data || !(asked || options.keep_all)) continue;
      const std::string number = "node" + std::to_string(id);
      wanted_.push_back({file_name(*node.name ? node.name : number), nullptr, id});
      found = found || asked;
    }
    return found || failed("there is no operator '" + options.node + "'");
  }

  bool read_inputs(const std::vector<std::string>& words) {
    inputs_.resize(static_cast<size_t>(description_->input_count));
    for (const std::string& word : words) {
      const size_t equals = word.find('=');
      std::string path = word;
      size_t i = 0;  // without a name the first that has nothing yet
      while (i < inputs_.size() && !inputs_[i].empty()) i++;
      for (size_t k = 0; equals != std::string::npos && k < inputs_.size(); k++)
        if (word.substr(0, equals) == description_->inputs[k].name) {
          i = k;
          path = word.substr(equals + 1);
        }
      if (i >= inputs_.size())
        return failed(word + ": the network has no more than " + std::to_string(inputs_.size()) +
                      " inputs");
      const std::string wrong = tools::read_input(path, description_->inputs[i], &inputs_[i]);
      if (!wrong.empty()) return failed(wrong);
    }
    for (size_t i = 0; i < inputs_.size(); i++)
      if (inputs_[i].empty())
        return failed(std::string("nothing is given for input '") + description_->inputs[i].name +
                      "'");
    return true;
  }

  // Milliseconds of one run; below 0: it failed. Runs may overwrite inputs.
  double time_run() {
    for (size_t i = 0; i < inputs_.size(); i++) {
      const zyn_net_port& port = description_->inputs[i];
      tools::store(inputs_[i], port.q, zyn_net_input(net_.get(), port.name));
    }
    const double begin = zyn_get_current_system_time();
    if (zyn_net_run(net_.get()) != ZYN_RET_OK) return -1;
    return zyn_get_current_system_time() - begin;
  }

  bool time_runs(int32_t runs) {
    const double cold = time_run();
    std::vector<double> warm;
    for (int32_t i = 0; cold >= 0 && i < runs; i++) warm.push_back(time_run());
    std::sort(warm.begin(), warm.end());
    if (cold < 0 || (!warm.empty() && warm[0] < 0)) return failed(zyn_error_detail());
    if (!warm.empty())
      printf("first run %.3f ms, then %d runs: fastest %.3f ms, median %.3f ms\n", cold, runs,
             warm[0], warm[warm.size() / 2]);
    return true;
  }

  // The values of a tensor that is wanted, in numpy's order.
  bool take(const Wanted& wanted, npy::Array* array) {
    zyn_cg_handle* const graph = zyn_net_graph(net_.get());
    const zyn_tensor* tensor = wanted.port
                                   ? zyn_net_output(net_.get(), wanted.port->name)
                                   : zyn_get_computation_node_inference_data(graph, wanted.node);
    if (!tensor) return failed(wanted.name + ": " + zyn_error_detail());
    if (tensor->type != ZYN_TYPE_F32 && tensor->type != ZYN_TYPE_FPI16)
      return failed(wanted.name + " holds no floats");
    zyn_net_port shape = wanted.port ? *wanted.port : zyn_net_port{};
    shape.dim_count = tensor->dim_count;
    std::copy(tensor->dims, tensor->dims + 5, shape.dims);
    array->shape = tools::shape_of(shape);
    const auto q = static_cast<int32_t>(zyn_cg_get_q_from_list(graph, wanted.node));
    array->values = tools::values_of(*tensor, q);
    return true;
  }

  bool give(const std::string& folder) {
    for (const Wanted& wanted : wanted_) {
      npy::Array array;
      if (!take(wanted, &array)) return false;
      if (folder.empty()) {
        const auto range = std::minmax_element(array.values.begin(), array.values.end());
        printf("%s %s: %g to %g\n", wanted.name.c_str(), npy::text_of(array.shape).c_str(),
               static_cast<double>(*range.first), static_cast<double>(*range.second));
        continue;
      }
      const std::string path = folder + "/" + wanted.name + ".npy";
      if (!npy::write(path, array)) return failed(path + " cannot be written");
      printf("%s %s\n", path.c_str(), npy::text_of(array.shape).c_str());
    }
    return true;
  }

  tools::Net net_;
  const zyn_net_description* description_ = nullptr;
  std::vector<Wanted> wanted_;
  std::set<std::string> names_;
  std::vector<tools::Floats> inputs_;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  return Runner().run(options) && fflush(stdout) == 0 ? 0 : 1;
}

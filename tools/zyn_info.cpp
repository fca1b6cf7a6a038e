// What a network file holds, and what the network takes once it is loaded.
#include <stdio.h>

#include "net.h"
#include "options.h"

namespace {

constexpr char kHelp[] =
    "usage: zyn-info FILE.zyn [--method auto] [--fixed] [--json]\n"
    "\n"
    "Loads a network file and prints what it is: inputs with what has to be done to a picture\n"
    "before, outputs with what they mean, every node with its operator, its output's shape and,\n"
    "for convolutions, the method that computes it, parameters, multiply-adds, the memory that\n"
    "the loaded network takes, and what the file says of its origin. Extents stand as in dims:\n"
    "width, height, channels.\n"
    "\n"
    "--method auto (the file's choice, else the table of costs), exact (auto without Winograd's\n"
    "method), timed, 0, 1 or 2; --fixed loads for the fixed-point backend and shows fraction "
    "bits.\n"
    "--json prints one JSON object.\n";

// As python/zyncore/netfile.py names them.
const char* const kOrders[] = {"none", "bgr", "rgb", "grey"};
const char* const kRules[] = {"none", "stretch", "border", "crop"};
const char* const kMeanings[] = {"none",  "scores",    "probabilities", "offsets",
                                 "boxes", "landmarks", "features"};

std::string extents(const int32_t* dims, int32_t count, const char* between) {
  std::string text;
  for (int32_t i = 0; i < count; i++) text += (i ? between : "") + std::to_string(dims[i]);
  return text;
}

std::string number(float v) {
  char text[32];
  snprintf(text, sizeof text, "%.9g", static_cast<double>(v));
  return text;
}

// ---- for people

std::string preparation(const zyn_net_port& port) {
  if (port.channel_order == 0) return "";
  std::string text = std::string(", ") + kOrders[port.channel_order];
  text += std::string(", resize ") + kRules[port.resize];
  for (int32_t c = 0; c < (port.channel_order == 3 ? 1 : 3); c++)
    text += std::string(c ? " " : ", ") + "(byte - " + number(port.mean[c]) + ") * " +
            number(port.scale[c]);
  return text;
}

void print_port(const zyn_net_port& port, bool fixed) {
  printf("  %-16s %-16s", port.name, extents(port.dims, port.dim_count, " x ").c_str());
  printf(" numpy %s", npy::text_of(tools::shape_of(port)).c_str());
  if (fixed) printf(", q %d", port.q);
  if (port.meaning) printf(", %s", kMeanings[port.meaning]);
  printf("%s\n", preparation(port).c_str());
}

void print_table(const std::string& path, const zyn_net_description& d,
                 const zyn_net_memory_use& memory, zyn_cg_handle* fixed_graph) {
  printf("%s: %d nodes, %lld parameters, %lld multiply-adds\n", path.c_str(), d.node_count,
         static_cast<long long>(d.parameters), static_cast<long long>(d.multiply_adds));
  printf("memory: %lld bytes: weights %lld, activations %lld, scratch %lld\n",
         static_cast<long long>(memory.total), static_cast<long long>(memory.weights),
         static_cast<long long>(memory.activations), static_cast<long long>(memory.scratch));
  for (int32_t i = 0; i < d.metadata_count; i++)
    printf("%s: %s\n", d.metadata_keys[i], d.metadata_values[i]);
  printf("inputs\n");
  for (int32_t i = 0; i < d.input_count; i++) print_port(d.inputs[i], fixed_graph != nullptr);
  printf("outputs\n");
  for (int32_t i = 0; i < d.output_count; i++) print_port(d.outputs[i], fixed_graph != nullptr);
  printf("nodes\n  %4s %-18s %-18s %6s %10s %13s%s  %s\n", "id", "operator", "output", "method",
         "parameters", "multiply-adds", fixed_graph ? "  q" : "", "name");
  for (int32_t id = 0; id < d.node_count; id++) {
    const zyn_net_node& node = d.nodes[id];
    printf("  %4d %-18s %-18s %6s %10lld %13lld", id, node.operation,
           extents(node.dims, node.dim_count, " x ").c_str(),
           node.method < 0 ? "" : std::to_string(node.method).c_str(),
           static_cast<long long>(node.parameters), static_cast<long long>(node.multiply_adds));
    if (fixed_graph) printf(" %2d", static_cast<int32_t>(zyn_cg_get_q_from_list(fixed_graph, id)));
    printf("  %s\n", node.name);
  }
}

// ---- for programs

// Names are UTF-8, which the loader has checked.
std::string quoted(const char* text) {
  std::string all = "\"";
  for (; *text; text++) {
    char code[8];
    if (static_cast<unsigned char>(*text) < ' ') {
      snprintf(code, sizeof code, "\\u%04x", *text);
      all += code;
      continue;
    }
    if (*text == '"' || *text == '\\') all += '\\';
    all += *text;
  }
  return all + "\"";
}

std::string port_object(const zyn_net_port& port, bool is_input) {
  std::string text = "{\"name\":" + quoted(port.name) + ",\"node\":" + std::to_string(port.node) +
                     ",\"dims\":[" + extents(port.dims, port.dim_count, ",") +
                     "],\"leading\":" + std::to_string(port.leading) +
                     ",\"q\":" + std::to_string(port.q);
  if (!is_input) return text + ",\"meaning\":" + quoted(kMeanings[port.meaning]) + "}";
  text += ",\"channel_order\":" + quoted(kOrders[port.channel_order]) +
          ",\"resize\":" + quoted(kRules[port.resize]);
  for (const auto& [name, values] : {std::make_pair("mean", port.mean), {"scale", port.scale}})
    text += std::string(",\"") + name + "\":[" + number(values[0]) + "," + number(values[1]) + "," +
            number(values[2]) + "]";
  return text + "}";
}

std::string node_object(int32_t id, const zyn_net_node& node, zyn_cg_handle* fixed_graph) {
  std::string text = "{\"node\":" + std::to_string(id) + ",\"name\":" + quoted(node.name) +
                     ",\"type\":" + std::to_string(node.type) +
                     ",\"operation\":" + quoted(node.operation) + ",\"dims\":[" +
                     extents(node.dims, node.dim_count, ",") +
                     "],\"method\":" + (node.method < 0 ? "null" : std::to_string(node.method)) +
                     ",\"parameters\":" + std::to_string(node.parameters) +
                     ",\"multiply_adds\":" + std::to_string(node.multiply_adds);
  if (fixed_graph)
    text +=
        ",\"q\":" + std::to_string(static_cast<int32_t>(zyn_cg_get_q_from_list(fixed_graph, id)));
  return text + "}";
}

// The objects of a list, one a line.
template <typename Object>
std::string list(const char* name, int32_t count, Object object) {
  std::string text = std::string("\"") + name + "\":[";
  for (int32_t i = 0; i < count; i++) text += (i ? ",\n" : "\n") + object(i);
  return text + "]";
}

void print_json(const zyn_net_description& d, const zyn_net_memory_use& memory,
                zyn_cg_handle* fixed_graph) {
  std::string text = "{\"parameters\":" + std::to_string(d.parameters) +
                     ",\"multiply_adds\":" + std::to_string(d.multiply_adds) +
                     ",\n\"memory\":{\"total\":" + std::to_string(memory.total) +
                     ",\"weights\":" + std::to_string(memory.weights) +
                     ",\"activations\":" + std::to_string(memory.activations) +
                     ",\"scratch\":" + std::to_string(memory.scratch) + "},\n\"metadata\":{";
  for (int32_t i = 0; i < d.metadata_count; i++)
    text += (i ? "," : "") + quoted(d.metadata_keys[i]) + ":" + quoted(d.metadata_values[i]);
  text += "},\n" +
          list("inputs", d.input_count, [&](int32_t i) { return port_object(d.inputs[i], true); });
  text += ",\n" + list("outputs", d.output_count,
                       [&](int32_t i) { return port_object(d.outputs[i], false); });
  text += ",\n" + list("nodes", d.node_count,
                       [&](int32_t i) { return node_object(i, d.nodes[i], fixed_graph); });
  printf("%s}\n", text.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const cli::Line line(argc, argv, kHelp,
                       {{"method", "auto"}, {"fixed", nullptr}, {"json", nullptr}}, 1);
  int32_t method = 0;
  if (line.words().empty()) line.wrong("which network?\n");
  if (!tools::parse_method(line["method"], &method))
    line.wrong("no method " + line["method"] + "\n");
  const tools::Net net = tools::load(line.word(0), method, line.has("fixed"), false);
  if (!net) {
    fprintf(stderr, "zyn-info: %s: %s\n", line.word(0).c_str(), zyn_error_detail());
    return 1;
  }
  zyn_net_memory_use memory = {};
  zyn_net_memory(net.get(), &memory);
  zyn_cg_handle* const fixed_graph = line.has("fixed") ? zyn_net_graph(net.get()) : nullptr;
  if (line.has("json"))
    print_json(*zyn_net_describe(net.get()), memory, fixed_graph);
  else
    print_table(line.word(0), *zyn_net_describe(net.get()), memory, fixed_graph);
  return fflush(stdout) == 0 ? 0 : 1;
}

// This library's side of the comparison: answers the harness's requests (protocol in
// bench/README.md) through the exported functions; only the general multiply, the matrix product
// and the changes of channel order, which are not exported, are called directly.
#include <unistd.h>

#include <iostream>

#include "cg/cpu/kernels/zyn_cg_kernels.h"
#include "common.h"
#include "matrix/zyn_matrix_ops.h"
#include "network.h"
#include "subject_job.h"

namespace subject {

namespace {

using peers::Buffer;
using peers::Layer;

// In place of a method, as a network file: it chooses by layer; its kernels of any shape, or
// Winograd's, channel blocks in and out.
constexpr int kAutomatic = -1, kAnyShape = 4, kWinograd = 5;

// The layers as a network file; outputs are the last layer and all others that none reads.
std::shared_ptr<FileNetwork> file_network(const std::vector<Layer>& layers, int method,
                                          bool scaled) {
  const bench::Network made(layers, 0, scaled);
  const auto net = std::make_shared<FileNetwork>();
  if (!made.ok()) return nullptr;
  std::vector<int32_t> inputs, ids;
  for (const zyn_tensor* input : made.inputs()) inputs.push_back(net->input(input));
  std::vector<bool> read(layers.size());
  for (const bench::Node& node : made.nodes()) {
    const int from = node.from;
    if (from >= 0) read[static_cast<size_t>(from)] = true;
    const int32_t reads[] = {
        from < 0 ? inputs[static_cast<size_t>(-1 - from)] : ids[static_cast<size_t>(from)],
        zyn_net_writer_constant(net->writer(), "", node.constant)};
    ids.push_back(zyn_net_writer_node(net->writer(), "", node.type, &node.param, reads, 2));
    if (method != kAutomatic)
      zyn_net_writer_method(net->writer(), ids.back(), method == kWinograd ? 5 : 3);
  }
  for (size_t i = layers.size(); i-- > 0;)
    if (!read[i]) net->output(ids[i]);
  if (method != kAutomatic) net->stay_in_blocks();
  return net->load() ? net : nullptr;
}

Job network_job(const std::vector<Layer>& layers, int method_number, bool scaled) {
  if (method_number == kAutomatic || method_number >= kAnyShape) {
    const auto network = file_network(layers, method_number, scaled);
    if (!network) return {};
    return {[=] { network->run(); }, [=](size_t i) { return network->element(i); }};
  }
  const auto method = static_cast<uint32_t>(method_number);
  const auto network = std::make_shared<bench::Network>(layers, method, scaled);
  if (!network->ok() || !network->run()) return {};
  return {[=] { network->run(); }, [=](size_t i) { return double(network->output(i)); }};
}

Job conv_job(std::istringstream& request) {
  Layer l;
  int method = 0;
  request >> l >> method;
  return request ? network_job({l}, method, false) : Job();
}

// "net FILE [METHOD]": the network of a layer list.
Job net_job(std::istringstream& request) {
  std::string file;
  int method = 2;
  request >> file >> method;
  const std::vector<Layer> layers = peers::read_layers(file, false);
  return layers.empty() ? Job() : network_job(layers, method, true);
}

Job sgemm_job(std::istringstream& request) {
  int n = 0;
  request >> n;
  if (n < 1) return {};
  const auto count = static_cast<size_t>(n) * n;
  const auto a = std::make_shared<Buffer<float>>(count), b = std::make_shared<Buffer<float>>(count),
             c = std::make_shared<Buffer<float>>(count);
  fill(*a, peers::kMatA);
  fill(*b, peers::kMatB);
  return {[=] { zyn_cg_sgemm(n, n, n, 1, 0, a->p, n, b->p, n, c->p, n); },
          [=](size_t i) { return double((*c)[i]); }};
}

std::shared_ptr<zyn_matrix> matrix(int n, int type, uint32_t stream) {
  const std::shared_ptr<zyn_matrix> m(zyn_create_matrix(n, n, 1, type), [](zyn_matrix* last) {
    if (last) zyn_release_matrix(&last);
  });
  for (int i = 0; m && i < n * n; i++) {
    const float value = peers::test_value(static_cast<uint32_t>(i), stream);
    if (type == ZYN_TYPE_F32)
      static_cast<float*>(m->data)[i] = value;
    else
      static_cast<double*>(m->data)[i] = value;
  }
  return m;
}

// "matmul n f32|f64": the matrix routines' own product.
Job matmul_job(std::istringstream& request) {
  int n = 0;
  std::string type_name;
  request >> n >> type_name;
  const int type = type_name == "f64" ? ZYN_TYPE_F64 : ZYN_TYPE_F32;
  const auto a = matrix(n, type, peers::kMatA), b = matrix(n, type, peers::kMatB),
             c = matrix(n, type, 0);
  if (!a || !b || !c) return {};
  return {[=] { zyn_matrix_multiply(c.get(), a.get(), b.get(), 0); },
          [=](size_t i) {
            return type == ZYN_TYPE_F32 ? double(static_cast<float*>(c->data)[i])
                                        : static_cast<double*>(c->data)[i];
          }};
}

// One frame of a tracker: predicts and corrects n tracks, the pairing given.
struct Tracker {
  std::vector<zyn_detection> boxes;
  std::vector<int32_t> ids;
  zyn_sort_handle* sort = nullptr;
  zyn_sort_match_info* pairs = nullptr;

  explicit Tracker(int n) : boxes(n, {70, 75, 110, 135, 1}), ids(n) {
    const zyn_sort_param param = {1, 1, 0.3f, 0};
    sort = zyn_create_sort_handle(&param);
    pairs = zyn_create_sort_match_info(0, n);
    if (!ok()) return;
    for (int i = 0; i < n; i++) pairs->unmatched[i] = i;
    frame();  // every box becomes a track
    zyn_release_sort_match_info(&pairs);
    pairs = zyn_create_sort_match_info(n, 0);
    boxes.assign(n, {85, 85, 115, 115, 1});
    for (int i = 0; ok() && i < n; i++) pairs->matched[2 * i] = pairs->matched[2 * i + 1] = i;
  }
  Tracker(const Tracker&) = delete;
  Tracker& operator=(const Tracker&) = delete;
  ~Tracker() {
    zyn_release_sort_match_info(&pairs);
    zyn_release_sort_handle(&sort);
  }
  bool ok() const { return sort && pairs; }
  void frame() {
    zyn_track_info* predicted = zyn_create_sort_predict(sort);
    zyn_sort_update_detection(boxes.data(), ids.data(), nullptr, static_cast<int>(boxes.size()),
                              pairs, sort);
    zyn_release_track_info(&predicted);
  }
  double coordinate(size_t i) const {
    zyn_track_info* listed = zyn_sort_get_track_info(sort);
    const bool known = listed && i < 4 * static_cast<size_t>(listed->count);
    const double value = known ? double(listed->boxes[i]) : 0;
    zyn_release_track_info(&listed);
    return value;
  }
};

Job track_job(std::istringstream& request) {
  int n = 0;
  request >> n;
  if (n < 1) return {};
  const auto tracker = std::make_shared<Tracker>(n);
  if (!tracker->ok()) return {};
  return {[=] { tracker->frame(); }, [=](size_t i) { return tracker->coordinate(i); }};
}

Job nms_job(std::istringstream& request) {
  int n = 0;
  float threshold = 0;
  request >> n >> threshold;
  const std::vector<peers::Box> boxes = peers::test_boxes(n);
  const auto in = std::make_shared<std::vector<zyn_detection>>(n);
  const auto kept = std::make_shared<std::vector<zyn_detection>>(n);
  const auto count = std::make_shared<int>(0);
  for (int i = 0; i < n; i++)
    (*in)[i] = {boxes[i].x1, boxes[i].y1, boxes[i].x2, boxes[i].y2, boxes[i].score};
  return {[=] { *count = zyn_ssd_nms(kept->data(), in->data(), n, threshold); },
          [=](size_t i) { return static_cast<int>(i) < *count ? double((*kept)[i].score) : 0.0; }};
}

// Requests by their first word; what is missing is answered with "unsupported".
const struct {
  const char* verb;
  Job (*make)(std::istringstream& request);
} kJobs[] = {{"conv", conv_job},   {"sgemm", sgemm_job}, {"matmul", matmul_job},
             {"net", net_job},     {"image", image_job}, {"nms", nms_job},
             {"track", track_job}, {"op", operator_job}};

Job make_job(const std::string& verb, std::istringstream& request) {
  for (const auto& job : kJobs)
    if (verb == job.verb) return job.make(request);
  return {};
}

}  // namespace
}  // namespace subject

int main() {
  // The library prints to standard output; answers go to a copy of it.
  FILE* answers = fdopen(dup(1), "w");
  if (!answers || !freopen("/dev/null", "w", stdout)) return 1;
  subject::Job job;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream request(line);
    std::string verb;
    request >> verb;
    if (verb == "quit") break;
    if (verb == "time") {
      double ms = 1;
      request >> ms;
      peers::Samples times;
      peers::sample(times, ms, job.run);
      fprintf(answers, "time %zu %.1f %.1f\n", times.ns.size(), times.min(), times.median());
    } else if (verb == "probe") {
      size_t n = 0, i = 0;
      request >> n;
      job.run();
      fprintf(answers, "probe");
      while (n-- && request >> i) fprintf(answers, " %.9g", job.out(i));
      fprintf(answers, "\n");
    } else {
      job = subject::Job();
      job = subject::make_job(verb, request);
      fprintf(answers, job.run ? "ok\n" : "unsupported\n");
    }
    fflush(answers);
  }
  return 0;
}

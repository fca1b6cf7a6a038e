// Face sessions on frames of any size, format, stride and time, with any options and any metadata;
// crops and poses of any points. What a session hands out keeps the promises of its record.
#include <algorithm>
#include <cmath>
#include <vector>

#include "support/buffers.h"
#include "support/fuzz.h"
#include "support/network_files.h"
#include "zyncore_face.h"

namespace {

using zyn_fuzz::check;
using zyn_fuzz::Input;
using namespace zyn_test;

// Pictures of 16 x 12 pixels; outputs are biases and few weights, some of them no numbers.
Bytes network(Input& in, bool detector, const char* (&keys)[6][2], int planes) {
  Writer writer(zyn_net_writer_create());
  zyn_net_port image = port("image", {16, 12, planes});
  image.channel_order = in.one_in(32) ? in.integer(0, 3) : planes == 1 ? 3 : 1 + planes % 2;
  image.resize = in.integer(0, 3);
  image.scale[0] = image.scale[1] = image.scale[2] = 1 / 64.0f;
  const int source = zyn_net_writer_input(writer.get(), &image);
  const auto output = [&](const char* name, int values, int rows, int meaning) {
    Random random(in.word());
    const auto weights = static_cast<size_t>(values) * 16 * 12 * planes;
    std::vector<float> words(weights + static_cast<size_t>(values));
    for (size_t i = 0; i < weights; i += 61) words[i] = random.real(-0.5f, 0.5f);
    for (size_t i = weights; i < words.size(); i++) words[i] = random.real(-2, 2);
    if (meaning == ZYN_NET_MEANING_LANDMARKS)
      for (size_t i = weights; i < words.size(); i++)  // a head at rest
        words[i] = zyn_face_model()[(i - weights) / 2 * 3 + (i - weights) % 2] / 300 + 0.4f;
    if (in.one_in(8)) words[in.word() % words.size()] = in.real();
    const zyn_conv_param p = {planes, values, 16, 12, 1, 1, 0, 0, {0, 0}, 1, 1, 1, 1, {0}, 0};
    const int from[] = {source, add_constant(writer.get(), words)};
    const int all = zyn_net_writer_node(writer.get(), "", ZYN_OP_CONV_ACT, &p, from, 2);
    const zyn_reshape_param shape = {2, {rows, -1, 0, 0, 0}};
    zyn_net_port out =
        port(name, {}, zyn_net_writer_node(writer.get(), "", ZYN_OP_RESHAPE, &shape, &all, 1));
    out.meaning = in.one_in(32) ? in.integer(0, 6) : meaning;
    zyn_net_writer_output(writer.get(), &out);
  };
  if (detector) {
    output("scores", 24, 2, in.integer(1, 2));
    output("offsets", 48, 4, ZYN_NET_MEANING_OFFSETS);
  } else {
    output("points", 136, 2, ZYN_NET_MEANING_LANDMARKS);
    if (in.one_in(2)) {  // it judges what the detector finds
      output("scores", 2, 2, in.integer(1, 2));
      output("offsets", 4, 4, ZYN_NET_MEANING_OFFSETS);
    }
  }
  for (const auto& [key, value] : keys) {
    char text[] = "................";
    if (in.one_in(48))
      for (char& c : text) c = c ? "0123456789,;.- x"[in.byte() % 16] : c;
    else
      text[0] = 0;
    if (key) zyn_net_writer_metadata(writer.get(), key, *text ? text : value);
  }
  return bytes_of(writer.get());
}

class Pictures {
 public:
  explicit Pictures(Input& in) : in_(in), bytes_(3 * 64 * 64 + 4096) {
    Random random(in.word());
    for (uint8_t& b : bytes_) b = static_cast<uint8_t>(random.next());
    width_ = in.integer(1, 64), height_ = in.integer(1, 40);
  }
  // Planes lie in the bytes as far as the record is right; a wrong record is refused unread.
  zyn_face_frame next() {
    constexpr uint32_t kFormats[] = {0, 1, 2, 5, 12, 13, 32};
    if (in_.one_in(16)) width_ = in_.integer(1, 64), height_ = in_.integer(1, 40);
    const int extreme = in_.one_in(16) ? in_.extreme() : 0;
    if (extreme < 0 || extreme > 16384) height_ = extreme;
    zyn_face_frame f = {in_.one_in(32) ? in_.word() : in_.pick(kFormats), width_, height_, {}, {}};
    const int row = f.format < 2 ? 3 * width_ : f.format == 32 ? 2 * width_ : width_;
    for (int k = 0; k < 3; k++) {
      f.planes[k] = in_.one_in(64) ? nullptr : bytes_.data() + in_.byte();
      f.strides[k] = in_.one_in(32) ? in_.extreme() : row;
      if (f.strides[k] > 200) f.strides[k] = row;
    }
    return f;
  }

 private:
  Input& in_;
  std::vector<uint8_t> bytes_;
  int width_, height_;
};

zyn_face_options any_options(Input& in) {
  zyn_face_options o = ZYN_FACE_DEFAULTS;
  o.max_faces = in.integer(1, 6);
  o.detect_every = in.integer(1, 4);
  o.max_age = in.integer(0, 3);
  o.min_hits = in.integer(1, 2);
  o.remember = in.integer(0, 5);
  o.score_threshold = static_cast<float>(in.byte()) / 255;
  o.keep_threshold = o.score_threshold / 2;
  o.resize = in.integer(0, 3);
  float* const numbers[] = {&o.overlap_threshold, &o.track_overlap,     &o.smooth_cutoff,
                            &o.smooth_beta,       &o.smooth_derivative, &o.focal_length,
                            &o.score_threshold,   &o.keep_threshold,    &o.second_look};
  for (float* number : numbers)
    if (in.one_in(8)) *number = in.real();
  return o;
}

void look(const zyn_face* faces, int32_t count, const zyn_face_options& o) {
  check(count <= o.max_faces, "there are at most max_faces");
  for (int32_t i = 0; i < count; i++) {
    const zyn_face& f = faces[i];
    check(i == 0 || faces[i - 1].id < f.id, "faces come by their ids");
    check(f.unseen <= o.max_age && f.unseen <= f.age, "faces unseen for too long go");
    check((f.state == ZYN_FACE_PREDICTED) == (f.unseen > 0), "faces seen are not predicted");
    check(f.score > o.keep_threshold, "detections exceed the threshold");
    for (float v : f.box) check(std::isfinite(v), "boxes are finite");
    for (int32_t k = 0; k < 2 * f.landmark_count; k++)
      check(std::isfinite(f.landmarks[k]), "landmarks are finite");
    if (!f.pose.valid) continue;
    for (float v : f.pose.rotation) check(std::fabs(v) < 1.001f, "rotations are rotations");
    check(std::fabs(f.pose.yaw) <= 90.001f, "yaw is within its range");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const zyn_fuzz::Memory memory;
  Input in(data, size);
  const char* detector_keys[6][2] = {
      {"face.strides", "8"},     {"face.min-sizes", "4,8,12"}, {"face.variances", "0.1,0.2"},
      {"face.role", "detector"}, {nullptr, nullptr},           {nullptr, nullptr}};
  const char* landmark_keys[6][2] = {{"face.points", "68"},      {"face.crop", "1.25"},
                                     {"face.left-eye", "36-41"}, {"face.mouth", "48,54"},
                                     {"face.role", "landmarks"}, {"face.variances", "0.1,0.2"}};
  const int planes = in.one_in(2) ? 1 : 3;
  const Bytes detector = network(in, true, detector_keys, planes);
  const Bytes landmarks = network(in, false, landmark_keys, 1);
  zyn_face_options options = any_options(in);
  options.detector_data = detector.data();
  options.detector_bytes = static_cast<int64_t>(detector.size());
  options.landmarks_data = in.one_in(8) ? nullptr : landmarks.data();
  options.landmarks_bytes = static_cast<int64_t>(landmarks.size());
  zyn_face_session* session = zyn_face_create(&options);
  Pictures pictures(in);
  double time = 0;
  for (int i = 0; i < 24 && !in.empty(); i++) {
    const zyn_face_frame frame = pictures.next();
    time += in.one_in(8) ? static_cast<double>(in.real()) : 0.04;
    const zyn_face* faces = nullptr;
    int32_t count = 0;
    if (session && zyn_face_process(session, &frame, time, &faces, &count) == 0)
      look(faces, count, options);
    if (session && in.one_in(32)) zyn_face_reset(session);
    if (!in.one_in(4)) continue;
    float points[136];
    for (int k = 0; k < 136; k++)
      points[k] = zyn_face_model()[k / 2 * 3 + k % 2] + (k % 9 ? 0 : in.real() * 16);
    zyn_image* out = zyn_create_image(9, 9, in.byte() % 3);
    zyn_face_align(out, &frame, points, 9);
    zyn_release_matrix(&out);
    zyn_face_pose pose;
    zyn_face_solve_pose(points, frame.width, frame.height, in.real(), &pose);
  }
  if (session) zyn_face_release(&session);
  return 0;
}

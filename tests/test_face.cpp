// Parts of face sessions: frames resized into inputs, faces brought to a crop, poses; then whole
// sessions on networks whose answers are known.
#include <gtest/gtest.h>

#include <array>
#include <fstream>

#include "face/zyn_face_sample.h"
#include "support/frames.h"
#include "support/images.h"
#include "support/ledger.h"
#include "support/network_files.h"

using namespace zyn_test;

namespace {

// The part of an axis that the box around a centre covers, pixel by pixel.
std::vector<double> shares(double center, double step, int pixels) {
  std::vector<double> share(static_cast<size_t>(pixels));
  const double half = std::max(step, 1.0) / 2;
  double sum = 0;
  for (int i = 0; i < pixels && center >= 0 && center < pixels; i++) {
    share[i] = std::max(0.0, std::min(center + half, i + 1.0) - std::max(center - half, i * 1.0));
    sum += share[i];
  }
  for (double& s : share) s = sum > 0 ? s / sum : 0;
  return share;
}

// What a plane of the input should hold at (x, y), as a byte's value.
double sampled(Frame& frame, const zyn_face_region& r, const zyn_tensor& t, int order, int plane,
               int x, int y) {
  const double sx = r.width / t.dims[0], sy = r.height / t.dims[1];
  const auto across = shares(r.x + (x + 0.5) * sx, sx, frame.record.width);
  const auto down = shares(r.y + (y + 0.5) * sy, sy, frame.record.height);
  double sum = 0;
  for (int v = 0; v < frame.record.height; v++)
    for (int u = 0; u < frame.record.width && down[v] > 0; u++) {
      if (across[u] == 0) continue;
      const std::vector<double> p = frame.pixel(u, v);
      const double grey = (1868 * p[0] + 9617 * p[1] + 4899 * p[2]) / 16384;
      sum += across[u] * down[v] * (order == 3 ? grey : p[order == 2 ? 2 - plane : plane]);
    }
  return sum;
}

void check_sampling(Random& random, uint32_t format, int order, bool words) {
  const int even = format <= ZYN_FRAME_GREY ? 1 : 2;
  const int width = even * random.integer(1, 40), height = even * random.integer(1, 30);
  Frame frame(format, width, height, random.integer(0, 5));
  frame.noise(random.next());
  zyn_net_port in = port("image");
  in.channel_order = order;
  in.q = words ? 7 : 0;
  for (float& mean : in.mean) mean = random.real(0, 128);
  for (float& scale : in.scale) scale = random.real(0.004f, 0.02f);
  const int32_t dims[3] = {random.integer(1, 35), random.integer(1, 20), order == 3 ? 1 : 3};
  zyn_tensor t = {};
  zyn_set_tensor_header(&t, 3, dims, ZYN_TYPE_F32);
  if (words) t.type = ZYN_TYPE_FPI16, t.element_size = 2, t.byte_size /= 2;
  PageEnd<uint8_t> data(static_cast<size_t>(t.byte_size));
  t.data = data.data();
  const int rule = random.integer(0, 4);
  zyn_face_region r = zyn_face_input_region(frame.record, dims[0], dims[1], rule);
  if (rule == 4)
    r = {random.real(-30, 40), random.real(-20, 30), random.real(1, 60), random.real(1, 60)};
  ASSERT_EQ(zyn_face_sample(&t, in, frame.record, r), 0);
  for (int p = 0; p < dims[2]; p++)
    for (int y = 0; y < dims[1]; y++)
      for (int x = 0; x < dims[0]; x++) {
        const int64_t i = (int64_t{p} * dims[1] + y) * dims[0] + x;
        const double want = (sampled(frame, r, t, order, p, x, y) - in.mean[p]) * in.scale[p];
        const double got = words ? static_cast<const int16_t*>(t.data)[i] / 128.0
                                 : static_cast<const float*>(t.data)[i];
        ASSERT_NEAR(got, want, words ? 0.51 / 128 : 1e-4)
            << "format " << format << " " << width << " x " << height << " to " << dims[0] << " x "
            << dims[1] << ", rule " << rule << ", plane " << p << " at " << x << ", " << y;
      }
}

}  // namespace

TEST(FaceSample, EveryFormatRuleAndSize) {
  Random random(1);
  for (int round = 0; round < soak(12, 400); round++)
    for (const uint32_t format : kFrameFormats)
      for (int order = 1; order <= 3; order++) check_sampling(random, format, order, round & 1);
}

TEST(FaceSample, RegionsOfTheRules) {
  const Frame frame(ZYN_FRAME_GREY, 640, 360);
  const auto region = [&](int rule) {
    const zyn_face_region r = zyn_face_input_region(frame.record, 320, 240, rule);
    return std::vector<double>{r.x, r.y, r.width, r.height};
  };
  EXPECT_EQ(region(1), (std::vector<double>{0, 0, 640, 360}));
  EXPECT_EQ(region(2), (std::vector<double>{0, -60, 640, 480}));
  EXPECT_EQ(region(0), region(2));
  EXPECT_EQ(region(3), (std::vector<double>{80, 0, 480, 360}));
}

// ---- hostile frames

namespace {

constexpr float kRight[10] = {1, 1, 9, 1, 5, 5, 2, 9, 8, 9};

}  // namespace

TEST(FaceFrame, WhatIsNotAsItsRecordSays) {
  const Image out = make_image(8, 8, ZYN_IMAGE_BGR);
  const auto refused = [&](uint32_t format, int w, int h, std::vector<int> strides,
                           std::vector<bool> planes = {true, true, true}) {
    static uint8_t byte;
    zyn_face_frame f = {format, w, h, {}, {}};
    for (size_t k = 0; k < 3; k++) {
      f.planes[k] = planes[k] ? &byte : nullptr;
      f.strides[k] = k < strides.size() ? strides[k] : 0;
    }
    memset(out->data, 7, 8 * 8 * 3);
    EXPECT_EQ(zyn_face_align(out.get(), &f, kRight, 8), ZYN_RET_ERR_PARA);
    EXPECT_EQ(bytes(out)[0], 7);
    return std::string(zyn_error_detail());
  };
  const std::pair<std::string, const char*> cases[] = {
      {refused(ZYN_FRAME_BGR, 10, 10, {29}), "plane 0: rows of 30 bytes do not fit a stride of 29"},
      {refused(ZYN_FRAME_BGR, 10, 10, {-30}), "do not fit a stride of -30"},
      {refused(ZYN_FRAME_RGB, 0, 10, {0}), "0 x 10 pixels"},
      {refused(ZYN_FRAME_GREY, 10, -1, {10}), "10 x -1 pixels"},
      {refused(ZYN_FRAME_GREY, 16385, 1, {16385}), "16385 x 1 pixels"},
      {refused(ZYN_FRAME_GREY, 10, 10, {10}, {false, true, true}), "plane 0 of the frame is null"},
      {refused(ZYN_FRAME_I420, 10, 9, {10, 5, 5}), "even sides"},
      {refused(ZYN_FRAME_I420, 10, 10, {10, 5, 4}), "plane 2: rows of 5 bytes"},
      {refused(ZYN_FRAME_NV12, 9, 10, {9, 9}), "even sides"},
      {refused(ZYN_FRAME_NV12, 10, 10, {10, 9}), "plane 1: rows of 10 bytes"},
      {refused(ZYN_FRAME_NV21, 10, 10, {10, 10}, {true, false, true}), "plane 1 of the frame"},
      {refused(ZYN_FRAME_YUYV, 9, 10, {20}), "even sides"},
      {refused(ZYN_FRAME_YUYV, 10, 10, {19}), "rows of 20 bytes"},
      {refused(ZYN_IMAGE_PLANAR, 10, 10, {30}), "frame format 6"}};
  for (const auto& [text, expected] : cases)
    EXPECT_NE(text.find(expected), std::string::npos) << text;
  EXPECT_EQ(zyn_face_align(out.get(), nullptr, kRight, 8), ZYN_RET_ERR_PARA);
}

// ---- alignment

TEST(FaceAlign, KnownTransforms) {
  // In the crop the picture is a slope, so that every value tells its place.
  constexpr double kStandard[10] = {38.2946, 51.6963, 73.5318, 51.5014, 56.0252,
                                    71.7366, 41.5493, 92.3655, 70.7299, 92.2041};
  Random random(2);
  for (const uint32_t format : kFrameFormats)
    for (int round = 0; round < 6; round++) {
      const bool yuv = format > ZYN_FRAME_GREY;
      const int size = random.integer(0, 1) ? 112 : 40;
      const double scale = random.real(0.4f, 2.5f), angle = random.real(-3, 3);
      const double a = scale * std::cos(angle), b = scale * std::sin(angle);
      // Crop to frame: the crop's middle to (100, 80).
      const auto place = [&](double u, double v) {
        u -= 56, v -= 56;
        return std::pair<double, double>{100 + a * u - b * v, 80 + b * u + a * v};
      };
      Frame frame(format, 200, 160, 3);
      for (int y = 0; y < 160; y++)
        for (int x = 0; x < 200; x++) frame.set(x, y, static_cast<uint8_t>(20 + (x + y) / 2));
      float points[10];
      for (int i = 0; i < 5; i++) {
        const auto [x, y] = place(kStandard[2 * i], kStandard[2 * i + 1]);
        points[2 * i] = static_cast<float>(x), points[2 * i + 1] = static_cast<float>(y);
      }
      const Image out = make_image(size, size, static_cast<uint32_t>(round % 3));
      ASSERT_EQ(zyn_face_align(out.get(), &frame.record, points, size), 0) << zyn_error_detail();
      const int channels = round % 3 == 2 ? 1 : 3;
      for (int v = 0; v < size; v++)
        for (int u = 0; u < size; u++) {
          const auto [x, y] = place((u + 0.5) * 112 / size, (v + 0.5) * 112 / size);
          const bool inside = x > 5 && y > 5 && x < 195 && y < 155;
          const bool outside = x < -5 || y < -5 || x > 205 || y > 165;
          if (!inside && !outside) continue;
          double want = inside ? 20 + (x + y - 1.5) / 2 : 0;
          if (yuv && inside) want = (want - 16) * 9535 / 8192;
          for (int c = 0; c < channels; c++)
            ASSERT_NEAR(bytes(out)[v * out->row_bytes + channels * u + c], want, 1.6)
                << "format " << format << " at " << u << ", " << v << ", scale " << scale;
        }
    }
  const float one_place[10] = {5, 5, 5, 5, 5, 5, 5, 5, 5, 5}, no_number[10] = {NAN};
  const Image out = make_image(8, 8, ZYN_IMAGE_BGR);
  const Frame frame(ZYN_FRAME_GREY, 20, 20);
  for (const float* wrong : {one_place, no_number, static_cast<const float*>(nullptr)})
    EXPECT_EQ(zyn_face_align(out.get(), &frame.record, wrong, 8), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_align(out.get(), &frame.record, kRight, 9), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_align(nullptr, &frame.record, kRight, 8), ZYN_RET_ERR_PARA);
}

// ---- poses

namespace {

struct Head {
  double yaw, pitch, roll, x, y, z;
};

// The rotation as the header says it: the pitch first, then yaw, then roll.
std::vector<double> turned(const Head& h, const float* m) {
  const double d = 3.14159265358979323846 / 180;
  const double p = -h.pitch * d, w = -h.yaw * d, r = h.roll * d;
  const double y1 = std::cos(p) * m[1] - std::sin(p) * m[2];
  const double z1 = std::sin(p) * m[1] + std::cos(p) * m[2];
  const double x2 = std::cos(w) * m[0] + std::sin(w) * z1;
  const double z2 = -std::sin(w) * m[0] + std::cos(w) * z1;
  return {std::cos(r) * x2 - std::sin(r) * y1 + h.x, std::sin(r) * x2 + std::cos(r) * y1 + h.y,
          z2 + h.z};
}

std::vector<float> seen(const Head& h, double focal, int width, int height) {
  std::vector<float> points;
  for (int i = 0; i < 68; i++) {
    const std::vector<double> p = turned(h, zyn_face_model() + 3 * i);
    points.push_back(static_cast<float>(focal * p[0] / p[2] + width / 2.0));
    points.push_back(static_cast<float>(focal * p[1] / p[2] + height / 2.0));
  }
  return points;
}

}  // namespace

TEST(FacePose, KnownHeads) {
  Random random(3);
  for (int round = 0; round < soak(300, 20000); round++) {
    const Head h = {random.real(-75, 75),   random.real(-35, 35),   random.real(-40, 40),
                    random.real(-200, 200), random.real(-150, 150), random.real(400, 2000)};
    const float focal = round & 1 ? 800.0f : 0.0f;
    std::vector<float> points = seen(h, round & 1 ? 800 : 640, 640, 480);
    const double noise = round % 3 == 0 ? 0 : 0.3;
    for (float& v : points) v += static_cast<float>(noise) * random.real(-1, 1);
    zyn_face_pose pose;
    ASSERT_EQ(zyn_face_solve_pose(points.data(), 640, 480, focal, &pose), 0);
    const double near = noise > 0 ? 0.004 * h.z : 0.02;
    EXPECT_NEAR(pose.yaw, h.yaw, near) << round;
    EXPECT_NEAR(pose.pitch, h.pitch, near) << round;
    EXPECT_NEAR(pose.roll, h.roll, near) << round;
    EXPECT_NEAR(pose.translation[2], h.z, (noise > 0 ? 0.03 : 1e-4) * h.z) << round;
    EXPECT_NEAR(pose.error, 0, noise > 0 ? 0.4 : 1e-3);
    for (int i = 0; i < 3; i++) {
      const float* m = zyn_face_model();
      const double x = static_cast<double>(pose.rotation[3 * i]) * m[0] +
                       static_cast<double>(pose.rotation[3 * i + 1]) * m[1] +
                       static_cast<double>(pose.rotation[3 * i + 2]) * m[2];
      EXPECT_NEAR(x + static_cast<double>(pose.translation[i]), turned(h, m)[i],
                  noise > 0 ? 0.04 * h.z : 0.3);
    }
  }
}

TEST(FacePose, ModelAndRefusals) {
  const float* m = zyn_face_model();
  // Left and right are mirror images, by the usual order; the eyes' middle is the origin.
  const int pairs[][2] = {{0, 16},  {7, 9},   {17, 26}, {31, 35}, {36, 45},
                          {40, 47}, {48, 54}, {55, 59}, {60, 64}, {65, 67}};
  for (const auto& p : pairs)
    for (int c = 0; c < 3; c++)
      EXPECT_EQ(m[3 * p[0] + c], c == 0 ? -m[3 * p[1]] : m[3 * p[1] + c]) << p[0];
  for (int c = 0; c < 3; c++) {
    float sum = 0;
    for (int i = 36; i < 48; i++) sum += m[3 * i + c];
    EXPECT_EQ(sum, 0) << c;
  }
  EXPECT_LT(m[3 * 30 + 2], m[3 * 27 + 2]);  // the nose's tip is the nearest to the camera
  std::vector<float> points = seen({0, 0, 0, 0, 0, 600}, 640, 640, 480);
  zyn_face_pose pose;
  EXPECT_EQ(zyn_face_solve_pose(nullptr, 640, 480, 0, &pose), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_solve_pose(points.data(), 640, 480, 0, nullptr), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_solve_pose(points.data(), 0, 480, 0, &pose), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_solve_pose(points.data(), 640, 480, -1, &pose), ZYN_RET_ERR_PARA);
  for (const float wrong : {NAN, INFINITY}) {
    points[30] = wrong;
    EXPECT_EQ(zyn_face_solve_pose(points.data(), 640, 480, 0, &pose), ZYN_RET_ERR_UNKNOWN);
    EXPECT_EQ(pose.valid, 0);
  }
  points.assign(136, 5.0f);
  EXPECT_EQ(zyn_face_solve_pose(points.data(), 640, 480, 0, &pose), ZYN_RET_ERR_UNKNOWN);
}

// ---- sessions

namespace {

// The key with another value; an empty value: without it.
Keys with(Keys keys, const std::string& key, const std::string& value) {
  for (auto& entry : keys)
    if (entry.first == key) entry.second = value;
  return keys;
}

// A detector of bright squares: 64 x 48 grey pixels, cells of 16, of which one with a mean of m
// (0 to 1) has the chance 1 / (1 + e^(10 - 20 m)) and is a face of 12 x 12 pixels, moved by the
// offsets (1, 0), which is 1.2 pixels.
const Keys kDetectorKeys = {{"face.role", "detector"},
                            {"face.strides", "16"},
                            {"face.min-sizes", "12"},
                            {"face.variances", "0.1,0.2"}};
Bytes detector_file(const Keys& keys = kDetectorKeys, int order = 3, int meaning = 1) {
  Writer writer(zyn_net_writer_create());
  zyn_net_port in = port("image", {64, 48, 1});
  in.channel_order = order;
  in.scale[0] = 1 / 255.0f;
  const int image = zyn_net_writer_input(writer.get(), &in);
  const int scores = add_conv(writer.get(), image, 1, 16, 16, {0.0f, 20.0f / 256}, {0.0f, -10.0f});
  const int offsets = add_conv(writer.get(), image, 1, 16, 16, {0, 0, 0, 0}, {1, 0, 0, 0});
  add_output(writer.get(), "scores", add_rows(writer.get(), scores, 2, 2), meaning);
  add_output(writer.get(), "offsets", add_rows(writer.get(), offsets, 4, 4),
             ZYN_NET_MEANING_OFFSETS);
  return finished(writer, keys);
}

// Landmarks that lie in the crop where a head at rest has them, and go to the right by pull of its
// side where the crop is white all over.
const Keys kLandmarkKeys = {{"face.role", "landmarks"},
                            {"face.points", "68"},
                            {"face.crop", "1.5"},
                            {"face.left-eye", ""},
                            {"face.mouth", ""}};
std::vector<float> marks_in_crop() {
  std::vector<float> marks = seen({0, 0, 0, 0, -35, 600}, 600 / 300.0, 1, 1);
  return marks;
}
const Keys kJudgeKeys = {
    {"face.points", "68"}, {"face.crop", "1.5"}, {"face.variances", "0.1,0.2"}};
// The logarithm of the odds that a crop is a face, by its brightness from 0 to 1.
double judged(double brightness) { return 20 * (brightness - 0.6); }
Bytes landmarks_file(const Keys& keys = kLandmarkKeys, int points = 68, float pull = 0.1f,
                     float height = 1, int boxes = 0) {
  Writer writer(zyn_net_writer_create());
  zyn_net_port in = port("image", {16, 16, 1});
  in.channel_order = 3;
  in.scale[0] = 1 / 255.0f;
  const int image = zyn_net_writer_input(writer.get(), &in);
  std::vector<float> marks = marks_in_crop(), weights(2 * static_cast<size_t>(points));
  marks.resize(weights.size());
  for (size_t i = 0; i < weights.size(); i += 2) weights[i] = pull / 256;
  for (size_t i = 1; i < marks.size(); i += 2) marks[i] = 0.5f + height * (marks[i] - 0.5f);
  add_output(writer.get(), "points", add_conv(writer.get(), image, 1, 16, 1, weights, marks),
             ZYN_NET_MEANING_LANDMARKS);
  if (boxes == 0) return finished(writer, keys);
  const float offsets[] = {1, 0, 1, -1};
  add_output(writer.get(), "scores",
             add_conv(writer.get(), image, 1, 16, 1, {0, 20.0f / 256}, {0, -12}),
             ZYN_NET_MEANING_SCORES);
  add_output(writer.get(), "offsets",
             add_conv(writer.get(), image, 1, 16, 1, std::vector<float>(static_cast<size_t>(boxes)),
                      {offsets, offsets + boxes}),
             ZYN_NET_MEANING_OFFSETS);
  return finished(writer, keys);
}

struct ReleaseSession {
  void operator()(zyn_face_session* session) const { zyn_face_release(&session); }
};
using Session = std::unique_ptr<zyn_face_session, ReleaseSession>;

struct Networks {
  Bytes detector = detector_file(), landmarks = landmarks_file();
  zyn_face_options options() const {
    zyn_face_options o = ZYN_FACE_DEFAULTS;
    o.detector_data = detector.data();
    o.detector_bytes = static_cast<int64_t>(detector.size());
    o.landmarks_data = landmarks.data();
    o.landmarks_bytes = static_cast<int64_t>(landmarks.size());
    o.max_faces = 4;
    return o;
  }
};

// A grey frame of 64 x 48 with white squares in some cells.
std::unique_ptr<Frame> squares(const std::vector<int>& cells) {
  auto frame = std::make_unique<Frame>(ZYN_FRAME_GREY, 64, 48);
  for (int y = 0; y < 48; y++)
    for (int x = 0; x < 64; x++) frame->set(x, y, 0);
  for (int cell : cells)
    for (int i = 0; i < 256; i++) frame->set(cell % 4 * 16 + i % 16, cell / 4 * 16 + i / 16, 255);
  return frame;
}

std::vector<zyn_face> run(const Session& session, const Frame& frame, double time, int code = 0) {
  const zyn_face* faces = nullptr;
  int32_t count = 0;
  EXPECT_EQ(zyn_face_process(session.get(), &frame.record, time, &faces, &count), code)
      << zyn_error_detail();
  return std::vector<zyn_face>(faces, faces + count);
}

}  // namespace

TEST(FaceSession, FacesOfKnownNetworks) {
  const Networks networks;
  const uint64_t before = zyn_get_current_memory_size_occupation();
  {
    const zyn_face_options options = networks.options();
    const Session session(zyn_face_create(&options));
    ASSERT_TRUE(session) << zyn_error_detail();
    const std::vector<zyn_face> faces = run(session, *squares({2, 5}), 0);
    ASSERT_EQ(faces.size(), 2u);
    for (int i = 0; i < 2; i++) {
      const zyn_face& f = faces[static_cast<size_t>(i)];
      const float x = i == 0 ? 40 : 24, y = i == 0 ? 8 : 24;  // both scores are alike
      const float box[4] = {x + 1.2f - 6, y - 6, x + 1.2f + 6, y + 6};
      for (int k = 0; k < 4; k++) EXPECT_NEAR(f.box[k], box[k], 1e-4);
      EXPECT_NEAR(f.score, 1 / (1 + std::exp(-10.0)), 1e-5);
      EXPECT_EQ(std::vector<int>({f.id, f.state, f.age, f.unseen, f.landmark_count}),
                std::vector<int>({i, ZYN_FACE_DETECTED, 0, 0, 68}));
      // The crop's side is 1.5 times 12; the landmarks say how much of it is white.
      const std::vector<float> marks = marks_in_crop();
      const float moved = (f.landmarks[0] - (x + 1.2f - 9)) / 18 - marks[0];
      EXPECT_GT(moved, 0.05f);
      EXPECT_LT(moved, 0.1f);
      for (int k = 0; k < 68; k++) {
        EXPECT_NEAR(f.landmarks[2 * k], x + 1.2f - 9 + 18 * (marks[2 * k] + moved), 1e-3);
        EXPECT_NEAR(f.landmarks[2 * k + 1], y - 9 + 18 * marks[2 * k + 1], 1e-3);
      }
      EXPECT_TRUE(same_bytes(f.landmarks, f.smoothed, 136 * sizeof(float)));
      for (int k = 0; k < 2; k++) {
        EXPECT_EQ(f.points[4 + k], f.smoothed[60 + k]);
        EXPECT_EQ(f.points[6 + k], f.smoothed[96 + k]);
      }
      EXPECT_LT(f.points[0], f.points[2]);
      zyn_face_pose pose;
      ASSERT_EQ(zyn_face_solve_pose(f.smoothed, 64, 48, 0, &pose), 0);
      EXPECT_TRUE(same_bytes(&pose, &f.pose, sizeof(pose)));
    }
    zyn_face_times times;
    EXPECT_EQ(zyn_face_get_times(session.get(), &times), 0);
    EXPECT_GT(times.total, 0);
    EXPECT_LE(times.detector + times.landmarks + times.pose, times.total);
  }
  EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
}

TEST(FaceSession, StatesFromFrameToFrame) {
  const Networks networks;
  zyn_face_options options = networks.options();
  options.detect_every = 3;
  options.max_age = 2;
  options.remember = 0;
  const Session session(zyn_face_create(&options));
  ASSERT_TRUE(session) << zyn_error_detail();
  const auto none = squares({}), one = squares({5}), two = squares({5, 2});
  struct {
    const Frame& frame;
    double time;
    std::vector<std::array<int, 4>> faces;  // id, state, age, unseen
  } const steps[] = {
      {*one, 0.00, {{0, 2, 0, 0}}},                // the first frame detects
      {*two, 0.04, {{0, 1, 1, 0}}},                // followed
      {*one, 0.08, {{0, 1, 2, 0}}},                //
      {*two, 0.12, {{0, 2, 3, 0}, {1, 2, 0, 0}}},  // every third one
      {*two, 0.16, {{0, 1, 4, 0}, {1, 1, 1, 0}}},  //
      {*two, 3.00, {{0, 2, 5, 0}, {1, 2, 2, 0}}},  // the time jumps
      {*two, 2.00, {{0, 2, 6, 0}, {1, 2, 3, 0}}},  // back
      {*two, 2.04, {{0, 1, 7, 0}, {1, 1, 4, 0}}},  //
      {*two, 2.08, {{0, 1, 8, 0}, {1, 1, 5, 0}}},  //
      {*none, 2.12, {{0, 0, 9, 1}, {1, 0, 6, 1}}},
      {*none, 2.16, {{0, 0, 10, 2}, {1, 0, 7, 2}}},
      {*two, 2.20, {}},  // too old
      {*two, 2.24, {{2, 2, 0, 0}, {3, 2, 0, 0}}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.time);
    std::vector<std::array<int, 4>> got;
    for (const zyn_face& f : run(session, step.frame, step.time)) {
      got.push_back({f.id, f.state, f.age, f.unseen});
      EXPECT_NEAR(f.box[2] - f.box[0], 12, 1);
    }
    EXPECT_EQ(got, step.faces);
  }
  // A frame of another size, and a reset, forget the faces but not the ids.
  Frame large(ZYN_FRAME_GREY, 128, 96);
  for (int i = 0; i < 128 * 96; i++) large.set(i % 128, i / 128, 0);
  EXPECT_EQ(run(session, large, 2.28).size(), 0u);
  EXPECT_EQ(run(session, *one, 2.32)[0].id, 4);
  EXPECT_EQ(zyn_face_reset(session.get()), 0);
  EXPECT_EQ(run(session, *one, 2.36)[0].id, 5);
  // What is refused changes nothing.
  Frame bad(ZYN_FRAME_GREY, 64, 48);
  bad.record.strides[0] = 63;
  EXPECT_EQ(run(session, bad, 2.4, ZYN_RET_ERR_PARA).size(), 0u);
  EXPECT_EQ(run(session, *one, NAN, ZYN_RET_ERR_PARA).size(), 0u);
  EXPECT_EQ(run(session, *one, 2.4)[0].age, 1);
}

// Between detections faces are followed as long as their landmarks can be those of a face there.
TEST(FaceSession, LandmarksThatAreNoFaceAreNotFollowed) {
  const struct {
    float pull, height;
    int state;
  } cases[] = {{0.3f, 1, ZYN_FACE_FOLLOWED},
               {0.9f, 1, ZYN_FACE_PREDICTED},    // off the crop's middle
               {0.3f, -1, ZYN_FACE_PREDICTED}};  // the mouth above the eyes
  for (const auto& c : cases) {
    Networks networks;
    networks.landmarks = landmarks_file(kLandmarkKeys, 68, c.pull, c.height);
    zyn_face_options options = networks.options();
    options.detect_every = 2;
    const Session session(zyn_face_create(&options));
    EXPECT_EQ(run(session, *squares({5}), 0).at(0).state, ZYN_FACE_DETECTED);
    EXPECT_EQ(run(session, *squares({5}), 0.04).at(0).state, c.state) << c.pull << c.height;
    EXPECT_EQ(run(session, *squares({5}), 0.08).at(0).id, 0);
  }
  // A face on its way out of the frame is gone once its predicted middle is outside.
  const Networks networks;
  zyn_face_options options = networks.options();
  const Session session(zyn_face_create(&options));
  for (int cell = 0; cell < 4; cell++) run(session, *squares({cell}), 0.04 * cell);
  EXPECT_LE(run(session, *squares({}), 0.16).size(), 1u);
  EXPECT_EQ(run(session, *squares({}), 0.20).size(), 0u);
}

// Faces of two looks, both as bright as a detection needs, are found again and told apart by them.
TEST(FaceSession, LooksTellFacesApart) {
  struct Shown {
    int cell;
    bool dark_right;
  };
  Networks networks;
  networks.detector = detector_file(with(kDetectorKeys, "face.min-sizes", "20"));
  const auto show = [](const std::vector<Shown>& faces) {
    auto frame = squares({});
    for (const Shown& f : faces)
      for (int i = 0; i < 256; i++)
        frame->set(f.cell % 4 * 16 + i % 16, f.cell / 4 * 16 + i / 16,
                   (i % 16 < 8) == f.dark_right ? 255 : 120);
    return frame;
  };
  const Shown one = {0, false}, other = {0, true}, far = {11, false};
  const struct {
    const char* what;
    int remember, gap;  // frames without a face
    std::vector<Shown> before, then;
    std::vector<int> ids;  // by cells
  } cases[] = {
      {"again", 9, 5, {one}, {one}, {0}},
      {"beside", 9, 5, {one}, {{1, false}}, {0}},
      {"still predicted", 9, 2, {one}, {{1, false}}, {0}},
      {"another one", 9, 5, {one}, {other}, {1}},
      {"too far", 9, 5, {one}, {far}, {1}},
      {"forgotten", 9, 12, {one}, {one}, {1}},
      {"remembers nothing", 0, 5, {one}, {one}, {1}},
      {"two", 9, 5, {{0, false}, {1, true}}, {{0, true}, {1, false}}, {1, 0}},
      {"crossed", 9, 0, {{0, false}, {1, true}}, {{0, true}, {1, false}}, {1, 0}},
      {"crossed, looks ignored", 0, 0, {{0, false}, {1, true}}, {{0, true}, {1, false}}, {0, 1}},
      {"uncovered", 9, 5, {{0, false}, {2, true}}, {{1, true}}, {1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    zyn_face_options options = networks.options();
    options.max_age = 2;
    options.remember = c.remember;
    options.track_overlap = 0.9f;
    const Session session(zyn_face_create(&options));
    ASSERT_TRUE(session) << zyn_error_detail();
    double time = 0;
    for (int i = 0; i < 3; i++)
      EXPECT_EQ(run(session, *show(c.before), time += 0.04).size(), c.before.size());
    for (int i = 0; i < c.gap; i++) run(session, *show({}), time += 0.04);
    std::vector<zyn_face> faces = run(session, *show(c.then), time += 0.04);
    std::sort(faces.begin(), faces.end(),
              [](const zyn_face& a, const zyn_face& b) { return a.box[0] < b.box[0]; });
    std::vector<int> ids;
    for (const zyn_face& f : faces)
      if (f.unseen == 0) ids.push_back(f.id);
    EXPECT_EQ(ids, c.ids);
  }
}

// The landmark network judges detections too: their odds meet in the middle, as the weight says,
// and the box is its own.
TEST(FaceSession, SecondLook) {
  Networks networks;
  networks.landmarks = landmarks_file(kJudgeKeys, 68, 0.1f, 1, 4);
  zyn_face_options options = networks.options();
  const std::pair<float, int> cases[] = {{0.0f, 1}, {0.3f, 1}, {0.5f, 1},
                                         {1.0f, 1}, {0.0f, 2}, {0.5f, 2}};
  for (const auto& [weight, every] : cases) {
    options.second_look = weight;
    options.detect_every = every;
    const Session session(zyn_face_create(&options));
    ASSERT_TRUE(session) << zyn_error_detail();
    std::vector<zyn_face> faces = run(session, *squares({5}), 0);
    ASSERT_EQ(faces.size(), 1u);
    // The crop reaches from 16.2 to 34.2 and from 15 to 33, the white square from 16 to 32.
    const double white = (15.8 / 18) * (16.0 / 18),
                 odds = 10 * (1 - weight) + weight * judged(white);
    EXPECT_NEAR(faces[0].score, 1 / (1 + std::exp(-odds)), weight > 0 ? 0.02 : 1e-6);
    const double x = weight > 0 ? 26.4 : 25.2, w = weight > 0 ? 12 * std::exp(0.2) : 12;
    EXPECT_NEAR(faces[0].box[0], x - w / 2, 1e-3);
    EXPECT_NEAR(faces[0].box[2], x + w / 2, 1e-3);
    EXPECT_NEAR(faces[0].box[3] - faces[0].box[1], weight > 0 ? 12 * std::exp(-0.2) : 12, 1e-3);
    // Half as bright it still is a face to the detector and has its landmarks; the judge has
    // doubts.
    auto frame = squares({});
    for (int i = 0; i < 256; i++) frame->set(16 + i % 16, 16 + i / 16, 130);
    faces = run(session, *frame, 0.04);
    ASSERT_EQ(faces.size(), 1u);
    const int seen = every > 1 ? ZYN_FACE_FOLLOWED : ZYN_FACE_DETECTED;
    EXPECT_EQ(faces[0].state, weight > 0 ? ZYN_FACE_PREDICTED : seen) << weight;
  }
}

TEST(FaceSession, ThresholdsAndRoom) {
  const Networks networks;
  zyn_face_options options = networks.options();
  options.max_faces = 2;
  options.min_hits = 2;
  const Session session(zyn_face_create(&options));
  ASSERT_TRUE(session) << zyn_error_detail();
  const auto fill = [](Frame* frame, int cell, uint8_t value) {
    for (int i = 0; i < 256; i++) frame->set(cell % 4 * 16 + i % 16, cell / 4 * 16 + i / 16, value);
  };
  // A score of 0.55 continues a face and begins none.
  auto frame = squares({3, 8});
  fill(frame.get(), 0, 130);
  EXPECT_EQ(run(session, *frame, 0).size(), 0u);  // one detection is not enough
  EXPECT_EQ(run(session, *frame, 0.1).size(), 2u);
  fill(frame.get(), 3, 130);
  fill(frame.get(), 0, 255);
  const std::vector<zyn_face> faces = run(session, *frame, 0.2);  // no room for a third
  ASSERT_EQ(faces.size(), 2u);
  EXPECT_NEAR(std::min(faces[0].score, faces[1].score), 0.549, 0.001);
  EXPECT_NEAR(faces[0].box[0] + faces[1].box[0], 56 + 8 + 2 * 1.2 - 12, 1e-3);
}

TEST(FaceSession, PriorsAreAtMostAsLargeAsThePicture) {
  Networks networks;
  networks.detector = detector_file(with(kDetectorKeys, "face.min-sizes", "80"));
  const zyn_face_options options = networks.options();
  const std::vector<zyn_face> faces = run(Session(zyn_face_create(&options)), *squares({5}), 0);
  EXPECT_NEAR(faces.at(0).box[2] - faces[0].box[0], 64, 1e-3);
  EXPECT_NEAR(faces[0].box[3] - faces[0].box[1], 48, 1e-3);
}

TEST(FaceSession, SmoothedLandmarksFollowTheFilter) {
  const Networks networks;
  zyn_face_options options = networks.options();
  options.smooth_cutoff = 1.5f;
  options.smooth_beta = 20;
  options.smooth_derivative = 1;
  const Session session(zyn_face_create(&options));
  // One-euro from rest: cut-offs 1 Hz of the speed, 1.5 Hz and 20 Hz for each of the box's 12
  // pixels a second.
  const auto follow = [&](double seconds) {
    const std::vector<zyn_face> first = run(session, *squares({5}), seconds);
    const double start = first.at(0).smoothed[0], y = first[0].smoothed[1];
    EXPECT_EQ(start, first[0].landmarks[0]);
    const std::vector<zyn_face> second = run(session, *squares({4, 5, 6}), seconds + 0.05);
    const double found = second.at(0).landmarks[0], pi = 3.14159265358979;
    EXPECT_GT(found - start, 0.15);
    const auto alpha = [&](double hertz) { return 1 / (1 + 1 / (2 * pi * hertz * 0.05)); };
    const double speed = alpha(1) * (found - start) / 0.05;
    const double share = alpha(1.5 + 20.0 / 12 * std::abs(speed));
    EXPECT_NEAR(second[0].smoothed[0], start + share * (found - start), 1e-3);
    EXPECT_NEAR(second[0].smoothed[1], y, 1e-4);
  };
  follow(1.0);
  follow(2.1);  // a second later it begins anew
}

TEST(FaceSession, FramesAllocateNothing) {
  const Networks networks;
  zyn_face_options options = networks.options();
  options.max_faces = 8;
  options.detect_every = 2;
  options.max_age = 1;
  const Session session(zyn_face_create(&options));
  ASSERT_TRUE(session) << zyn_error_detail();
  Random random(5);
  run(session, *squares({}), 0);
  const uint64_t before = zyn_get_current_memory_size_occupation();
  const FailingAllocations counting(0);
  for (int i = 1; i < 200; i++) {
    std::vector<int> cells;
    for (int k = random.integer(0, 9); k > 0; k--) cells.push_back(random.integer(0, 11));
    run(session, *squares(cells), 0.04 * i);
    EXPECT_LE(zyn_get_current_memory_size_occupation(), before + 8 * 4000);  // tracks
  }
  EXPECT_EQ(FailingAllocations::seen(), 0);
  run(session, *squares({}), 9), run(session, *squares({}), 9.1), run(session, *squares({}), 9.2);
  run(session, *squares({}), 9.3), run(session, *squares({}), 9.4), run(session, *squares({}), 9.5);
  EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
}

TEST(FaceSession, EveryAllocationFails) {
  const Networks networks;
  zyn_face_options options = networks.options();
  options.max_faces = 1;
  const auto frame = squares({5}), large = std::make_unique<Frame>(ZYN_FRAME_NV12, 400, 300);
  int seen = 0;
  until_it_succeeds([&](int n, bool lasting) {
    Ledger::fail(n, lasting);
    const zyn_face* faces;
    int32_t count = 0;
    const bool good = [&] {
      const Session session(zyn_face_create(&options));
      return session && zyn_face_process(session.get(), &frame->record, 0, &faces, &count) == 0 &&
             count == 1 && zyn_face_process(session.get(), &large->record, 0, &faces, &count) == 0;
    }();
    seen = Ledger::seen();
    Ledger::fail(0, false);
    EXPECT_TRUE(good || seen >= n) << zyn_error_detail();
    return seen;
  });
  EXPECT_GT(seen, 100);
}

TEST(FaceSession, NetworksAndOptionsThatDoNotFit) {
  const auto refusal = [](const zyn_face_options& options) {
    EXPECT_EQ(zyn_face_create(&options), nullptr);
    return std::string(zyn_error_detail());
  };
  const auto expect = [](const std::string& text, const char* expected) {
    EXPECT_NE(text.find(expected), std::string::npos) << text << "\n" << expected;
  };
  const auto detector = [&](const Bytes& file) {
    Networks networks;
    networks.detector = file;
    return refusal(networks.options());
  };
  const auto keyed = [&](const char* key, const char* value) {
    return detector(detector_file(with(kDetectorKeys, key, value)));
  };
  expect(keyed("face.role", "landmarks"), "detector: metadata face.role = 'landmarks'");
  expect(keyed("face.strides", ""), "detector: metadata face.strides are missing");
  expect(keyed("face.min-sizes", ""), "metadata face.min-sizes are missing");
  expect(keyed("face.variances", ""), "metadata face.variances are missing");
  expect(keyed("face.variances", "0.1"), "two numbers");
  expect(keyed("face.strides", "16,32"), "face.strides have 2 numbers, face.min-sizes 1 groups");
  expect(keyed("face.strides", "0.5"), "below a pixel");
  expect(keyed("face.min-sizes", "12,x"), "face.min-sizes = '12,x'");
  expect(keyed("face.min-sizes", "1,2,3,4,5,6,7,8,9"), "at most 8 numbers");
  expect(keyed("face.min-sizes", "12;"), "numbers");
  expect(keyed("face.min-sizes", "12,24"), "make 24 priors; output 'scores' holds 24 values");
  expect(keyed("face.strides", "8"), "make 48 priors");
  expect(detector(detector_file(kDetectorKeys, 0)), "not said to be a picture");
  expect(detector(detector_file(kDetectorKeys, 1)), "{width, height, 3}");
  expect(detector(detector_file(kDetectorKeys, 3, ZYN_NET_MEANING_FEATURES)),
         "no output that means scores or probabilities");
  expect(detector(landmarks_file({})), "face.strides are missing");
  expect(detector({1, 2, 3}), "detector: ");

  const auto landmarks = [&](const Keys& keys, int points = 68) {
    Networks networks;
    networks.landmarks = landmarks_file(keys, points);
    return refusal(networks.options());
  };
  expect(landmarks(with(kLandmarkKeys, "face.crop", "")), "landmarks: metadata face.crop");
  expect(landmarks(with(kLandmarkKeys, "face.crop", "0")), "face.crop = 0");
  expect(landmarks(with(kLandmarkKeys, "face.points", "")), "face.points are missing");
  expect(landmarks(with(kLandmarkKeys, "face.points", "5")), "face.points = 5");
  expect(landmarks(with(kLandmarkKeys, "face.left-eye", "36-68")), "face.left-eye = '36-68'");
  expect(landmarks(with(kLandmarkKeys, "face.mouth", "48-54")), "its two corners");
  expect(landmarks(with(kLandmarkKeys, "face.points", "10"), 10), "face.left-eye are missing");
  expect(landmarks({{"face.role", "detector"}}), "landmarks: metadata face.role");
  const auto judge = [&](const char* variances, int boxes) {
    Networks networks;
    networks.landmarks =
        landmarks_file(with(kJudgeKeys, "face.variances", variances), 68, 0.1f, 1, boxes);
    return refusal(networks.options());
  };
  expect(judge("", 4), "landmarks: metadata face.variances are missing");
  expect(judge("1", 4), "two numbers");
  expect(judge("0.1,0.2", 3), "scores and offsets hold 2 and 3 values: 2 and 4 or neither");

  const Networks networks;
  const auto option = [&](auto field, auto value) {
    zyn_face_options o = networks.options();
    o.*field = value;
    return refusal(o);
  };
  using O = zyn_face_options;
  expect(option(&O::detect_every, 0), "detect_every = 0");
  expect(option(&O::max_faces, 1001), "max_faces = 1001");
  expect(option(&O::score_threshold, 1.5f), "score_threshold = 1.5");
  expect(option(&O::keep_threshold, 0.8f), "keep_threshold");
  expect(option(&O::overlap_threshold, -1.0f), "overlap_threshold = -1");
  expect(option(&O::resize, 4), "resize = 4");
  expect(option(&O::max_age, -1), "max_age");
  expect(option(&O::min_hits, 0), "min_hits");
  expect(option(&O::track_overlap, 1.0f), "track_overlap = 1");
  expect(option(&O::smooth_cutoff, NAN), "smooth_cutoff");
  expect(option(&O::smooth_beta, -1.0f), "smooth_beta");
  expect(option(&O::smooth_derivative, 0.0f), "smooth_derivative");
  expect(option(&O::focal_length, INFINITY), "focal_length");
  expect(option(&O::remember, -1), "remember = -1");
  expect(option(&O::second_look, -1.0f), "second_look = -1");
  expect(option(&O::second_look, 1.1f), "second_look = 1.1");
  expect(option(&O::method, 7), "detector: method 7");
  expect(option(&O::detector, "no such file"), "not several");
  expect(option(&O::landmarks, "no such file"), "not several");
  expect(option(&O::detector_data, static_cast<const void*>(nullptr)), "there is no detector");
  EXPECT_EQ(zyn_face_create(nullptr), nullptr);
  EXPECT_EQ(zyn_face_release(nullptr), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_reset(nullptr), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_get_times(nullptr, nullptr), ZYN_RET_ERR_PARA);
  EXPECT_EQ(zyn_face_process(nullptr, nullptr, 0, nullptr, nullptr), ZYN_RET_ERR_PARA);
}

TEST(FaceSession, FixedPointFindsTheSame) {
  const Networks networks;
  zyn_face_options options = networks.options();
  const Session exact(zyn_face_create(&options));
  options.fixed_point = 1;
  const Session fixed(zyn_face_create(&options));
  ASSERT_TRUE(exact && fixed) << zyn_error_detail();
  const std::vector<zyn_face> a = run(exact, *squares({1, 6, 11}), 0);
  const std::vector<zyn_face> b = run(fixed, *squares({1, 6, 11}), 0);
  ASSERT_EQ(a.size(), 3u);
  ASSERT_EQ(b.size(), 3u);
  for (size_t i = 0; i < 3; i++) {
    for (int k = 0; k < 4; k++) EXPECT_NEAR(a[i].box[k], b[i].box[k], 0.05);
    for (int k = 0; k < 136; k++) EXPECT_NEAR(a[i].landmarks[k], b[i].landmarks[k], 0.3);
    EXPECT_NEAR(a[i].score, b[i].score, 0.01);
  }
}

// Another number of landmarks, networks of the caller's, no landmark network.
TEST(FaceSession, OtherNetworks) {
  const Keys keys = {{"face.points", "6"},    {"face.crop", "1.5"}, {"face.left-eye", "0"},
                     {"face.right-eye", "1"}, {"face.nose", "2"},   {"face.mouth", "3,4"},
                     {"face.chin", "5"}};
  const Network detector = load(detector_file()), landmarks = load(landmarks_file(keys, 6));
  zyn_face_options options = ZYN_FACE_DEFAULTS;
  options.detector_net = detector.get();
  options.landmarks_net = landmarks.get();
  for (int round = 0; round < 2; round++) {
    const Session session(zyn_face_create(&options));
    ASSERT_TRUE(session) << zyn_error_detail();
    const std::vector<zyn_face> faces = run(session, *squares({5}), 0);
    ASSERT_EQ(faces.size(), 1u);
    EXPECT_EQ(faces[0].landmark_count, round ? 0 : 6);
    EXPECT_EQ(faces[0].landmarks == nullptr, round == 1);
    for (int k = 0; k < 10 && !round; k++) EXPECT_EQ(faces[0].points[k], faces[0].landmarks[k]);
    options.landmarks_net = nullptr;
  }
  EXPECT_EQ(zyn_net_run(detector.get()), 0);  // still there
}

// The published detector finds the faces of both photos, from every kind of frame.
TEST(FaceSession, PhotosWithSsd320) {
  const std::string folder = model_dir();
  if (folder.empty()) return;  // model_dir has said so
  ssd320::Detector detector;
  printed([&] {
    ASSERT_TRUE(detector.create(2) &&
                zyn_cg_load_model(detector.weights(), detector.weight_count(),
                                  (folder + "/ssd320.zynm").c_str()) == ZYN_RET_OK);
  });
  const Bytes file = ssd320_face_file(detector);
  zyn_face_options options = ZYN_FACE_DEFAULTS;
  options.detector_data = file.data();
  options.detector_bytes = static_cast<int64_t>(file.size());
  const Session session(zyn_face_create(&options));
  ASSERT_TRUE(session) << zyn_error_detail();
  for (const std::string name : {"photo_a", "photo_b"}) {
    const Image photo(zyn_create_image_from_file((folder + "/" + name + ".bmp").c_str(), 2));
    ASSERT_TRUE(photo);
    const int w = photo->cols, h = photo->rows;
    const double side_w = std::max(w, h * 4 / 3), side_h = std::max(h, w * 3 / 4);
    const zyn_face_frame frame = {
        ZYN_FRAME_BGR, w, h, {photo->data}, {static_cast<int32_t>(photo->row_bytes)}};
    const zyn_face* faces;
    int32_t count = 0;
    ASSERT_EQ(zyn_face_process(session.get(), &frame, 0, &faces, &count), 0);
    std::ifstream expected(folder + "/" + name + ".faces.txt");
    int found = 0;
    for (std::string line; std::getline(expected, line);) {
      double b[4], score;
      if (sscanf(line.c_str(), "%lf %lf %lf %lf %lf", b, b + 1, b + 2, b + 3, &score) != 5)
        continue;
      for (int k = 0; k < 4; k++)
        b[k] = k % 2 ? b[k] * side_h - (side_h - h) / 2 : b[k] * side_w - (side_w - w) / 2;
      double best = 0;
      for (int i = 0; i < count; i++) {
        const float* g = faces[i].box;
        const double x = std::min<double>(b[2], g[2]) - std::max<double>(b[0], g[0]);
        const double y = std::min<double>(b[3], g[3]) - std::max<double>(b[1], g[1]);
        const double common = std::max(x, 0.0) * std::max(y, 0.0);
        best = std::max(best, common / ((b[2] - b[0]) * (b[3] - b[1]) +
                                        (g[2] - g[0]) * (g[3] - g[1]) - common));
      }
      EXPECT_GT(best, 0.8) << name << " " << line;
      found++;
    }
    EXPECT_EQ(count, found) << name;
  }
}

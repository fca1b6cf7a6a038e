// A whole frame with faces against OpenCV dnn, one thread (see kHelp).
#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "opencv_layer.h"
#include "zyncore_face.h"

using namespace peers;

static constexpr char kHelp[] =
    "usage: face_peers DETECTOR LANDMARKS FRAME.bmp [--rounds 200] [--isa avx2|native]\n"
    "Every frame: detection, then the landmarks of every face. DETECTOR and LANDMARKS name\n"
    "network files without their ending: .zyn for a session of this library (which also follows,\n"
    "smooths and poses), .onnx for OpenCV, with its resizing and suppression.\n";

namespace {

constexpr int kWidth = 320, kHeight = 240, kCrop = 112;
constexpr float kScore = 0.7f, kOverlap = 0.3f, kAround = 1.25f;

// What the metadata of the networks say.
struct Level {
  int stride;
  std::vector<float> sizes;
};
const Level kLevels[] = {{8, {10, 16, 24}}, {16, {32, 48}}, {32, {64, 96}}, {64, {128, 192, 256}}};

cv::dnn::Net read(const std::string& file) {
  cv::dnn::Net net = cv::dnn::readNetFromONNX(file + ".onnx");
  net.setPreferableBackend(cv::dnn::DNN_BACKEND_OPENCV);
  net.setPreferableTarget(cv::dnn::DNN_TARGET_CPU);
  return net;
}

class Peer {
 public:
  Peer(const std::string& detector, const std::string& landmarks)
      : detector_(read(detector)), landmarks_(read(landmarks)) {
    for (const Level& level : kLevels)
      for (int y = 0; y < (kHeight + level.stride - 1) / level.stride; y++)
        for (int x = 0; x < (kWidth + level.stride - 1) / level.stride; x++)
          for (float size : level.sizes) priors_.push_back({x, y, level.stride, size});
  }

  // The landmarks of every face, in pixels of the frame.
  std::vector<cv::Mat> operator()(const cv::Mat& frame) {
    cv::dnn::blobFromImage(frame, blob_, 1 / 128.0, {kWidth, kHeight}, cv::Scalar::all(127), true);
    detector_.setInput(blob_);
    detector_.forward(outputs_, std::vector<cv::String>{"scores", "offsets"});
    std::vector<cv::Rect2d> boxes;
    std::vector<float> scores;
    collect(frame.cols / double(kWidth), frame.rows / double(kHeight), &boxes, &scores);
    std::vector<int> kept;
    cv::dnn::NMSBoxes(boxes, scores, kScore, kOverlap, kept);
    std::vector<cv::Mat> found;
    for (int i : kept) found.push_back(mark(frame, boxes[static_cast<size_t>(i)]));
    return found;
  }

 private:
  struct Prior {
    int x, y, stride;
    float size;
  };

  void collect(double wide, double high, std::vector<cv::Rect2d>* boxes,
               std::vector<float>* scores) const {
    const float* score = outputs_[0].ptr<float>();
    const float* offset = outputs_[1].ptr<float>();
    for (const Prior& p : priors_) {
      const float chance = 1 / (1 + std::exp(score[0] - score[1]));
      if (chance > kScore) {
        // In pixels of the input; levels whose sides are no multiples of the stride are stretched.
        const int columns = (kWidth + p.stride - 1) / p.stride;
        const int rows = (kHeight + p.stride - 1) / p.stride;
        const double high_prior = std::min(p.size, float(kHeight));
        const double cx = (p.x + 0.5) * kWidth / columns + 0.1 * offset[0] * p.size;
        const double cy = (p.y + 0.5) * kHeight / rows + 0.1 * offset[1] * high_prior;
        const double w = p.size * std::exp(0.2 * offset[2]);
        const double h = high_prior * std::exp(0.2 * offset[3]);
        boxes->push_back({(cx - w / 2) * wide, (cy - h / 2) * high, w * wide, h * high});
        scores->push_back(chance);
      }
      score += 2;
      offset += 4;
    }
  }

  cv::Mat mark(const cv::Mat& frame, const cv::Rect2d& box) {
    const double side = kAround * std::max(box.width, box.height);
    const int length = std::max(1, int(std::lround(side)));
    const cv::Rect crop(int(std::lround(box.x + (box.width - side) / 2)),
                        int(std::lround(box.y + (box.height - side) / 2)), length, length);
    const cv::Rect inside = crop & cv::Rect(0, 0, frame.cols, frame.rows);
    cv::Mat square = frame(inside);
    if (inside != crop)
      cv::copyMakeBorder(square, square, inside.y - crop.y, crop.br().y - inside.br().y,
                         inside.x - crop.x, crop.br().x - inside.br().x, cv::BORDER_CONSTANT);
    cv::dnn::blobFromImage(square, blob_, 1 / 128.0, {kCrop, kCrop}, cv::Scalar::all(127), true);
    landmarks_.setInput(blob_);
    landmarks_.forward(outputs_, landmarks_.getUnconnectedOutLayersNames());  // a judge's too
    const auto marks = std::find_if(outputs_.begin(), outputs_.end(),
                                    [](const cv::Mat& output) { return output.total() == 2 * 68; });
    cv::Mat points = marks->reshape(2, 68).clone();
    points = points * side;
    return points + cv::Scalar(crop.x, crop.y);
  }

  cv::dnn::Net detector_, landmarks_;
  std::vector<Prior> priors_;
  cv::Mat blob_;
  std::vector<cv::Mat> outputs_;
};

struct Ours {
  zyn_face_session* session = nullptr;
  double time = 0;
  ~Ours() { zyn_face_release(&session); }
  bool run(const zyn_face_frame& frame, const zyn_face** faces, int32_t* count) {
    return zyn_face_process(session, &frame, time += 0.04, faces, count) == 0;
  }
};

// How far the two place the landmarks of the same faces apart: the mean over faces, in pixels;
// negative where they do not find the same faces.
double difference(const std::vector<cv::Mat>& theirs, const zyn_face* faces, int32_t count) {
  double sum = 0;
  for (int32_t i = 0; i < count; i++) {
    double least = 1e9;
    for (const cv::Mat& points : theirs) {
      double mean = 0;
      for (int k = 0; k < 68; k++) {
        const cv::Vec2f& at = points.at<cv::Vec2f>(k);
        mean +=
            std::hypot(at[0] - faces[i].landmarks[2 * k], at[1] - faces[i].landmarks[2 * k + 1]) /
            68;
      }
      least = std::min(least, mean);
    }
    if (least > 10) return -1;
    sum += least / count;
  }
  return theirs.size() == static_cast<size_t>(count) ? sum : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const cli::Line line(argc, argv, kHelp, with_common({{"rounds", "200"}}), 3);
  const Isa isa = select_isa(line, argv);
  if (line.words().size() != 3) line.wrong("two networks and a frame are needed\n");
  cv::setNumThreads(1);
  zyn_image* picture = zyn_create_image_from_file(line.word(2).c_str(), 2);
  const std::string detector = line.word(0) + ".zyn", landmarks = line.word(1) + ".zyn";
  zyn_face_options options = ZYN_FACE_DEFAULTS;
  options.detector = detector.c_str();
  options.landmarks = landmarks.c_str();
  Ours ours, fixed;
  ours.session = zyn_face_create(&options);
  options.fixed_point = 1;
  fixed.session = zyn_face_create(&options);
  if (!picture || !ours.session) {
    fprintf(stderr, "face_peers: %s\n", picture ? zyn_error_detail() : "no such picture");
    return 1;
  }
  auto* pixels = static_cast<uint8_t*>(picture->data);
  const auto bytes = static_cast<int32_t>(picture->row_bytes);
  const cv::Mat frame(picture->rows, picture->cols, CV_8UC3, pixels, static_cast<size_t>(bytes));
  const zyn_face_frame same = {ZYN_FRAME_BGR, picture->cols, picture->rows, {pixels}, {bytes}};

  Peer peer(line.word(0), line.word(1));
  const zyn_face* faces = nullptr;
  int32_t count = 0;
  Samples them, us, us_fixed;
  double apart = 0;
  const int rounds = static_cast<int>(line.number("rounds", 1));
  for (int r = -3; r < rounds; r++) {  // the first ones warm up
    double start = now_ns();
    const std::vector<cv::Mat> theirs = peer(frame);
    const double took = now_ns() - start;
    start = now_ns();
    if (!ours.run(same, &faces, &count)) return 1;
    const double we = now_ns() - start;
    apart = difference(theirs, faces, count);
    if (apart < 0) {
      fprintf(stderr, "face_peers: %zu faces against %d, or others\n", theirs.size(), count);
      return 1;
    }
    const int32_t found = count;
    start = now_ns();
    if (fixed.session && !fixed.run(same, &faces, &count)) return 1;
    const double we_fixed = now_ns() - start;
    if (r < 0) continue;
    count = found;
    them.ns.push_back(took);
    us.ns.push_back(we);
    if (fixed.session) us_fixed.ns.push_back(we_fixed);
  }
  printf("isa %s: %d x %d pixels, %d faces, landmarks %.2f pixels apart\n", isa_name(isa),
         picture->cols, picture->rows, count, apart);
  const auto print = [&](const char* who, const Samples& s) {
    printf("  %-12s min %8.1f us  median %8.1f us  x%.2f of opencv\n", who, s.min() / 1e3,
           s.median() / 1e3, them.min() / s.min());
  };
  print("opencv", them);
  print("zyncore", us);
  if (fixed.session) print("fixed point", us_fixed);
  return zyn_release_matrix(&picture);
}

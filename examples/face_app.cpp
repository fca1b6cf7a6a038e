// Follows the faces in a video, a folder of frames or a picture; see kHelp.
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../tools/options.h"
#include "face_draw.h"
#include "face_media.h"

namespace {

constexpr char kHelp[] =
    "usage: face_app --model DETECTOR.zyn [--landmarks LANDMARKS.zyn] [OPTIONS] INPUT\n"
    "\n"
    "Finds and follows the faces of INPUT: a folder of BMP frames, one BMP, or whatever ffmpeg\n"
    "reads. Writes annotated.mp4 and contact-sheet.png (both through ffmpeg, where it is there, "
    "else\n"
    "contact-sheet.bmp) and faces.jsonl, one line a frame, into the folder of --out.\n"
    "\n"
    "  --out FOLDER       where to (an existing folder; without it nothing is drawn or written)\n"
    "  --frames           annotated frames as BMP files too\n"
    "  --fixed            networks in 16-bit fixed point\n"
    "  --method M         convolution method: 0, 1, 2, or -1: the best of them (standard)\n"
    "  --detect-every N   the detector on every N-th frame (1)\n"
    "  --score S          a detection above it is a face (0.7)\n"
    "  --min-hits N       detections before a face is reported (1)\n"
    "  --rate R           frames a second of BMP frames (25)\n"
    "  --focal F          the camera's focal length in pixels (0: the width)\n"
    "\n"
    "At the end it says what the stages of a frame took, as medians of all frames but the first\n"
    "five, and what the library's byte counter says once everything is released.\n";

struct ReleaseSession {
  void operator()(zyn_face_session* session) const { zyn_face_release(&session); }
};
using Session = std::unique_ptr<zyn_face_session, ReleaseSession>;

bool failed(const std::string& complaint) {
  fprintf(stderr, "face_app: %s\n", complaint.c_str());
  return false;
}

// Stage by stage, the times of all frames.
class Table {
 public:
  void add(const zyn_face_times& t) {
    const double stages[] = {t.detector_input, t.detector,  t.boxes, t.tracking,
                             t.landmark_input, t.landmarks, t.pose,  t.total};
    for (size_t i = 0; i < kStages; i++) times_[i].push_back(stages[i]);
  }
  void print() {
    static const char* const kNames[kStages] = {"detector input",  "detector",       "boxes",
                                                "tracking",        "landmark input", "landmarks",
                                                "smoothing, pose", "whole frame"};
    if (times_[0].empty()) return;
    printf("%-16s %9s %9s\n", "stage", "median ms", "most ms");
    for (size_t i = 0; i < kStages; i++) {
      std::vector<double>& all = times_[i];
      if (all.size() > kCold) all.erase(all.begin(), all.begin() + kCold);
      std::sort(all.begin(), all.end());
      printf("%-16s %9.3f %9.3f\n", kNames[i], all[all.size() / 2], all.back());
    }
  }

 private:
  static constexpr size_t kStages = 8, kCold = 5;
  std::vector<double> times_[kStages];
};

void write_points(FILE* file, const char* name, const float* values, int32_t count) {
  fprintf(file, ",\"%s\":[", name);
  for (int32_t i = 0; i < count; i++)
    fprintf(file, "%s%.2f", i ? "," : "", static_cast<double>(values[i]));
  fputc(']', file);
}

void write_line(FILE* file, int64_t frame, double time, const zyn_face* faces, int32_t count) {
  static const char* const kStates[] = {"predicted", "followed", "detected"};
  fprintf(file, "{\"frame\":%lld,\"time\":%.4f,\"faces\":[", static_cast<long long>(frame), time);
  for (int32_t i = 0; i < count; i++) {
    const zyn_face& f = faces[i];
    fprintf(file, "%s{\"id\":%d,\"state\":\"%s\",\"age\":%d,\"score\":%.4f", i ? "," : "", f.id,
            kStates[f.state], f.age, static_cast<double>(f.score));
    write_points(file, "box", f.box, 4);
    write_points(file, "landmarks", f.landmarks, 2 * f.landmark_count);
    write_points(file, "smoothed", f.smoothed, 2 * f.landmark_count);
    if (f.pose.valid) {
      fprintf(file, ",\"yaw\":%.2f,\"pitch\":%.2f,\"roll\":%.2f", static_cast<double>(f.pose.yaw),
              static_cast<double>(f.pose.pitch), static_cast<double>(f.pose.roll));
      write_points(file, "translation", f.pose.translation, 3);
      fprintf(file, ",\"rotation\":[");
      for (int k = 0; k < 9; k++)
        fprintf(file, "%s%.5f", k ? "," : "", static_cast<double>(f.pose.rotation[k]));
      fputc(']', file);
    }
    fputc('}', file);
  }
  fputs("]}\n", file);
}

// What --out receives.
class Results {
 public:
  ~Results() {
    if (lines_) fclose(lines_);
  }
  // False: a file cannot be written.
  bool open(const std::string& folder, bool frames, double rate, bool ffmpeg) {
    folder_ = folder;
    frames_ = frames;
    rate_ = rate;
    ffmpeg_ = ffmpeg;
    if (folder.empty()) return true;
    if (!media::is_folder(folder)) return failed("--out " + folder + " is not a folder");
    lines_ = fopen((folder + "/faces.jsonl").c_str(), "w");
    if (!lines_) return failed(folder + "/faces.jsonl cannot be written");
    if (!ffmpeg) fprintf(stderr, "no ffmpeg: there will be no annotated.mp4\n");
    return true;
  }
  bool add(int64_t frame, double time, zyn_image* picture, const zyn_face* faces, int32_t count,
           double focal) {
    if (folder_.empty()) return true;
    write_line(lines_, frame, time, faces, count);
    for (int32_t i = 0; i < count; i++) draw::face(picture, faces[i], focal);
    if (frame == 0 && ffmpeg_)
      film_.open(folder_ + "/annotated.mp4", picture->cols, picture->rows, rate_);
    if (film_.is_open() && !film_.add(picture) && frame == 0)
      return failed("ffmpeg takes no frames for annotated.mp4");
    sheet_.add(picture);
    char name[32];
    snprintf(name, sizeof(name), "/frame-%06lld.bmp", static_cast<long long>(frame));
    return !frames_ || write(folder_ + name, picture);
  }
  bool finish() {
    const media::Image sheet = sheet_.sheet();
    if (!sheet) return true;
    const std::string bmp = folder_ + "/contact-sheet.bmp", png = folder_ + "/contact-sheet.png";
    if (!write(bmp, sheet.get())) return false;
    if (film_.is_open() && !film_.finish()) return failed("ffmpeg could not write annotated.mp4");
    if (!ffmpeg_) return true;
    const std::string command =
        "ffmpeg -v error -y -i " + media::quoted(bmp) + " " + media::quoted(png);
    if (system(command.c_str()) != 0) return failed("ffmpeg could not write " + png);
    remove(bmp.c_str());
    return true;
  }

 private:
  static bool write(const std::string& path, zyn_image* picture) {
    return zyn_image_write_to_file_with_level(path.c_str(), picture) == ZYN_RET_OK ||
           failed(path + " cannot be written");
  }

  std::string folder_;
  bool frames_ = false, ffmpeg_ = false;
  double rate_ = 25;
  FILE* lines_ = nullptr;
  media::Film film_;
  media::ContactSheet sheet_;
};

std::unique_ptr<media::Source> open_source(const std::string& path, bool ffmpeg) {
  if (!media::is_there(path)) return failed(path + " is not there"), nullptr;
  std::unique_ptr<media::Source> source;
  if (media::is_folder(path) || media::is_bmp(path))
    source = std::make_unique<media::Files>(path);
  else if (!ffmpeg)
    failed(path +
           " is no BMP file, and there is no ffmpeg to read it (Debian: apt install ffmpeg)");
  else
    source = std::make_unique<media::Video>(path);
  if (source && !source->error.empty()) return failed(source->error), nullptr;
  return source;
}

bool run(const cli::Line& line, zyn_face_session* session, media::Source* source, Results* results,
         Table* table) {
  const double focal = line.number("focal", 0);
  const bool progress = isatty(fileno(stderr));
  media::Frame frame;
  int64_t count = 0, seen = 0;
  for (; source->next(&frame); count++) {
    const zyn_face* faces = nullptr;
    int32_t face_count = 0;
    const double time = static_cast<double>(count) / source->rate;
    if (zyn_face_process(session, &frame.record, time, &faces, &face_count) != ZYN_RET_OK)
      return failed("frame " + std::to_string(count) + ": " + zyn_error_detail());
    zyn_face_times times;
    zyn_face_get_times(session, &times);
    table->add(times);
    seen += face_count;
    if (progress)
      fprintf(stderr, "\rframe %lld: %d faces, %.2f ms  ", static_cast<long long>(count),
              face_count, times.total);
    if (!results->add(count, time, frame.picture.get(), faces, face_count,
                      focal > 0 ? focal : frame.record.width))
      return false;
  }
  if (progress) fprintf(stderr, "\n");
  if (!source->error.empty()) return failed(source->error);
  if (count == 0) return failed("there are no frames");
  printf("%lld frames, %.2f faces in each\n", static_cast<long long>(count),
         static_cast<double>(seen) / static_cast<double>(count));
  return true;
}

bool work(const cli::Line& line) {
  if (line.word(0).empty()) return failed("no input (--help says what it may be)");
  if (!line.has("model")) return failed("no detector: --model FILE.zyn");
  for (const char* name : {"model", "landmarks"})
    if (line.has(name) && !media::is_there(line[name]))
      return failed("--" + std::string(name) + ": there is no file " + line[name]);
  zyn_face_options options = ZYN_FACE_DEFAULTS;
  options.detector = line["model"].c_str();
  options.landmarks = line.has("landmarks") ? line["landmarks"].c_str() : nullptr;
  options.method = static_cast<int32_t>(line.number("method", -1));
  options.fixed_point = line.has("fixed");
  options.detect_every = static_cast<int32_t>(line.number("detect-every", 1));
  options.min_hits = static_cast<int32_t>(line.number("min-hits", 1));
  options.score_threshold = static_cast<float>(line.number("score", 0));
  options.keep_threshold = std::min(options.keep_threshold, options.score_threshold);
  options.focal_length = static_cast<float>(line.number("focal", 0));
  const Session session(zyn_face_create(&options));
  if (!session) return failed(zyn_error_detail());
  const bool ffmpeg = media::has_ffmpeg();
  const std::unique_ptr<media::Source> source = open_source(line.word(0), ffmpeg);
  if (!source) return false;
  if (line.has("rate")) source->rate = line.number("rate", 0.1);
  Results results;
  Table table;
  if (!results.open(line["out"], line.has("frames"), source->rate, ffmpeg) ||
      !run(line, session.get(), source.get(), &results, &table) || !results.finish())
    return false;
  table.print();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const cli::Line line(argc, argv, kHelp,
                       {{"model", ""},
                        {"landmarks", ""},
                        {"out", ""},
                        {"frames", nullptr},
                        {"fixed", nullptr},
                        {"method", "-1"},
                        {"detect-every", "1"},
                        {"score", "0.7"},
                        {"min-hits", "1"},
                        {"rate", ""},
                        {"focal", "0"}},
                       1);
  const bool done = work(line);
  printf("library memory in use at the end: %llu bytes\n",
         static_cast<unsigned long long>(zyn_get_current_memory_size_occupation()));
  return done ? 0 : 1;
}

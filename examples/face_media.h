// Where face_app's frames come from and where its pictures go: BMP files, and everything that
// ffmpeg reads and writes, through pipes.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <zyncore_face.h>

#include <memory>
#include <string>
#include <vector>

namespace media {

#ifdef _WIN32
constexpr char kRead[] = "rb", kWrite[] = "wb", kNowhere[] = " 2>NUL";
inline FILE* open_pipe(const std::string& command, const char* mode) {
  return _popen(command.c_str(), mode);
}
inline int close_pipe(FILE* pipe) { return _pclose(pipe); }
inline std::string quoted(const std::string& path) { return '"' + path + '"'; }
#else
constexpr char kRead[] = "r", kWrite[] = "w", kNowhere[] = " 2>/dev/null";
inline FILE* open_pipe(const std::string& command, const char* mode) {
  return popen(command.c_str(), mode);
}
inline int close_pipe(FILE* pipe) { return pclose(pipe); }
inline std::string quoted(const std::string& path) {
  std::string text = "'";
  for (const char c : path) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return text + "'";
}
#endif

inline bool has_ffmpeg() {
  FILE* pipe = open_pipe(std::string("ffmpeg -version") + kNowhere, kRead);
  char text[16] = "";
  const bool there = pipe && fread(text, 1, 6, pipe) == 6 && std::string(text, 6) == "ffmpeg";
  if (pipe) {
    char rest[4096];
    while (fread(rest, 1, sizeof(rest), pipe) > 0) {
    }
    close_pipe(pipe);
  }
  return there;
}

inline bool is_folder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && (info.st_mode & S_IFDIR);
}
inline bool is_there(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}
inline bool is_bmp(const std::string& path) {
  const std::string end = path.size() < 4 ? "" : path.substr(path.size() - 4);
  return end == ".bmp" || end == ".BMP";
}

struct ReleaseImage {
  void operator()(zyn_image* image) const { zyn_release_matrix(&image); }
};
using Image = std::unique_ptr<zyn_image, ReleaseImage>;

// A frame as it came, and as a BGR picture to draw on.
struct Frame {
  Image picture;
  zyn_face_frame record;
};

// Frame after frame. error says what went wrong; empty at the end of the frames.
class Source {
 public:
  virtual ~Source() = default;
  virtual bool next(Frame* frame) = 0;
  double rate = 25;  // frames a second
  std::string error;
};

// BMP files, in the order of their names.
class Files : public Source {
 public:
  explicit Files(const std::string& path) {
    if (!is_folder(path)) {
      names_.push_back(path);
      return;
    }
    zyn_darray* list = zyn_create_darray(&zyn_darray_str_type);
    if (list && zyn_get_specfic_files_for_given_dir(list, path.c_str(), "*.bmp") == ZYN_RET_OK)
      for (int64_t i = 0; i < list->count; i++)
        names_.push_back(static_cast<char**>(list->data)[i]);
    for (int64_t i = 0; list && i < list->count; i++)
      zyn_darray_element_str_free(static_cast<char**>(list->data) + i);
    if (list) zyn_free(list->data);
    zyn_free(list);
    if (names_.empty()) error = path + " holds no BMP files";
  }
  bool next(Frame* frame) override {
    if (!error.empty() || at_ == names_.size()) return false;
    constexpr int32_t kColour = 2;  // reading mode: blue, green, red
    frame->picture.reset(zyn_create_image_from_file(names_[at_].c_str(), kColour));
    zyn_image* p = frame->picture.get();
    if (!p) {
      error = names_[at_] + " cannot be read as a BMP file";
      return false;
    }
    frame->record = {ZYN_FRAME_BGR, p->cols, p->rows, {p->data}, {}};
    frame->record.strides[0] = static_cast<int32_t>(p->row_bytes);
    at_++;
    return true;
  }

 private:
  std::vector<std::string> names_;
  size_t at_ = 0;
};

// Any picture or video, as 4:2:0 frames that ffmpeg decodes; these go to the session as they are.
class Video : public Source {
 public:
  explicit Video(const std::string& path) : path_(path) {
    // Even sides, and colours as the library takes them.
    pipe_ = open_pipe("ffmpeg -v error -nostdin -i " + quoted(path) +
                          " -vf \"scale=trunc(iw/2)*2:trunc(ih/2)*2:out_color_matrix=bt601:"
                          "out_range=tv,format=yuv420p\" -f yuv4mpegpipe -",
                      kRead);
    std::string header;
    for (int c = 0; pipe_ && (c = fgetc(pipe_)) != EOF && c != '\n' && header.size() < 1000;)
      header += static_cast<char>(c);
    int over = 0, under = 0;
    if (!field(header, 'W', "%d", &width_) || !field(header, 'H', "%d", &height_)) {
      error = "ffmpeg cannot read " + path;
      return;
    }
    if (field(header, 'F', "%d", &over) && sscanf(at(header, 'F'), "%d:%d", &over, &under) == 2 &&
        over > 0 && under > 0)
      rate = static_cast<double>(over) / under;
    if (rate < 1 || rate > 1000) rate = 25;
  }
  ~Video() override {
    if (pipe_) close_pipe(pipe_);
  }
  bool next(Frame* frame) override {
    if (!error.empty()) return false;
    char line[256];
    if (!fgets(line, sizeof(line), pipe_)) return false;
    yuv_.reset(zyn_create_image(width_, height_, ZYN_IMAGE_I420));
    frame->picture.reset(zyn_create_image(width_, height_, ZYN_IMAGE_BGR));
    zyn_image* y = yuv_.get();
    if (!y || !frame->picture) {
      error = "no memory for a frame";
      return false;
    }
    frame->record = {ZYN_FRAME_I420, width_, height_, {y->data, y->plane1, y->plane2}, {}};
    const int64_t strides[3] = {y->row_bytes, y->plane1_bytes, y->plane2_bytes};
    for (int k = 0; k < 3; k++) {
      frame->record.strides[k] = static_cast<int32_t>(strides[k]);
      const int32_t w = k ? width_ / 2 : width_, h = k ? height_ / 2 : height_;
      auto* row = static_cast<char*>(const_cast<void*>(frame->record.planes[k]));
      for (int32_t r = 0; r < h; r++, row += strides[k])
        if (fread(row, 1, static_cast<size_t>(w), pipe_) != static_cast<size_t>(w)) {
          error = path_ + " ends within a frame";
          return false;
        }
    }
    return zyn_image_color_space_convert(frame->picture.get(), y, ZYN_COLOR_I420_TO_BGR) ==
           ZYN_RET_OK;
  }

 private:
  static const char* at(const std::string& header, char key) {
    const size_t found = header.find(std::string(" ") + key);
    return found == std::string::npos ? "" : header.c_str() + found + 2;
  }
  static bool field(const std::string& header, char key, const char* format, int* value) {
    return sscanf(at(header, key), format, value) == 1 && *value > 0;
  }

  std::string path_;
  FILE* pipe_ = nullptr;
  int32_t width_ = 0, height_ = 0;
  Image yuv_;
};

// An MP4 through ffmpeg.
class Film {
 public:
  ~Film() { finish(); }
  bool open(const std::string& path, int32_t width, int32_t height, double rate) {
    width_ = width;
    height_ = height;
    pipe_ = open_pipe("ffmpeg -v error -y -f rawvideo -pix_fmt bgr24 -s " + std::to_string(width) +
                          "x" + std::to_string(height) + " -r " + std::to_string(rate) +
                          " -i - -vf \"pad=ceil(iw/2)*2:ceil(ih/2)*2\" -pix_fmt yuv420p " +
                          quoted(path),
                      kWrite);
    return pipe_ != nullptr;
  }
  bool is_open() const { return pipe_ != nullptr; }
  // Frames of another size are left out.
  bool add(const zyn_image* picture) {
    if (!pipe_ || picture->cols != width_ || picture->rows != height_) return false;
    const size_t row = 3 * static_cast<size_t>(width_);
    for (int32_t y = 0; y < height_; y++)
      if (fwrite(static_cast<const char*>(picture->data) + y * picture->row_bytes, 1, row, pipe_) !=
          row)
        return false;
    return true;
  }
  bool finish() {
    FILE* const pipe = pipe_;
    pipe_ = nullptr;
    return pipe && close_pipe(pipe) == 0;
  }

 private:
  FILE* pipe_ = nullptr;
  int32_t width_ = 0, height_ = 0;
};

// Some of the frames, small, side by side: every so-manieth one, fewer as there are more.
class ContactSheet {
 public:
  void add(const zyn_image* picture) {
    if (frame_++ % every_ != 0) return;
    const int32_t height = std::max(1, kWidth * picture->rows / picture->cols);
    Image small(zyn_create_image(kWidth, height, ZYN_IMAGE_BGR));
    constexpr int32_t kBilinear = 1;
    if (!small || zyn_image_resizer(small.get(), picture, kBilinear) != ZYN_RET_OK) return;
    pictures_.push_back(std::move(small));
    if (pictures_.size() <= kMost) return;
    for (size_t i = 0; 2 * i < pictures_.size(); i++) pictures_[i] = std::move(pictures_[2 * i]);
    pictures_.resize((pictures_.size() + 1) / 2);
    every_ *= 2;
  }
  // As one picture; null without frames or memory.
  Image sheet() const {
    if (pictures_.empty()) return nullptr;
    int32_t count = static_cast<int32_t>(pictures_.size());
    if (count > kColumns) count -= count % kColumns;  // whole rows
    const int32_t height = pictures_[0]->rows;
    const int32_t columns = count < kColumns ? count : kColumns;
    const int32_t rows = (count + columns - 1) / columns;
    Image sheet(zyn_create_image(columns * kWidth, rows * height, ZYN_IMAGE_BGR));
    if (!sheet) return nullptr;
    memset(sheet->data, 0, static_cast<size_t>(sheet->row_bytes) * sheet->rows);
    for (int32_t i = 0; i < count; i++) {
      const zyn_image* p = pictures_[static_cast<size_t>(i)].get();
      for (int32_t y = 0; y < std::min(p->rows, height); y++)
        memcpy(static_cast<char*>(sheet->data) + (i / columns * height + y) * sheet->row_bytes +
                   i % columns * 3 * kWidth,
               static_cast<const char*>(p->data) + y * p->row_bytes, 3 * kWidth);
    }
    return sheet;
  }

 private:
  static constexpr int32_t kWidth = 480, kColumns = 4;
  static constexpr size_t kMost = 16;
  std::vector<Image> pictures_;
  int64_t frame_ = 0, every_ = 1;
};

}  // namespace media

#include "support/capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#ifdef _WIN32
#include <io.h>
#include <process.h>
#else
#include <unistd.h>
#endif

#include <vector>

#include "zyncore.h"

namespace zyn_test {

namespace {

#ifdef _WIN32
int process_id() { return _getpid(); }
constexpr int kOpenFlags = _O_RDWR | _O_CREAT | _O_TRUNC | _O_BINARY | _O_TEMPORARY;
int empty(int file) { return _chsize(file, 0); }
#else
int process_id() { return getpid(); }
constexpr int kOpenFlags = O_RDWR | O_CREAT | O_TRUNC;
int empty(int file) { return ftruncate(file, 0); }
#endif

// Windows turns line ends into two characters in text mode.
std::string without_returns(const std::string& text) {
#ifdef _WIN32
  std::string result;
  for (size_t i = 0; i < text.size(); i++)
    if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) result += text[i];
  return result;
#else
  return text;
#endif
}

// Files for the output, used again and again: systems take long to make one. They have no name,
// or lose it when the process ends.
std::vector<int> spare_files;

int take_file() {
  if (spare_files.empty()) {
    const std::string path = temp_path("capture");
    const int file = open(path.c_str(), kOpenFlags, 0600);
#ifndef _WIN32
    remove(path.c_str());
#endif
    return file;
  }
  const int file = spare_files.back();
  spare_files.pop_back();
  return lseek(file, 0, SEEK_SET) == 0 && empty(file) == 0 ? file : -1;
}

}  // namespace

Capture::Capture() {
  fflush(stdout);
  saved_ = dup(1);
  file_ = take_file();
  dup2(file_, 1);
}

Capture::~Capture() { text(); }

std::string Capture::text() {
  if (saved_ < 0) return "";
  fflush(stdout);
  dup2(saved_, 1);
  close(saved_);
  saved_ = -1;
  std::string result;
  lseek(file_, 0, SEEK_SET);
  char buffer[4096];
  for (int got; (got = static_cast<int>(read(file_, buffer, sizeof(buffer)))) > 0;)
    result.append(buffer, static_cast<size_t>(got));
  spare_files.push_back(file_);
  return without_returns(result);
}

std::string report(const std::string& message, const std::string& path, int line) {
  return "Error occurred: " + message + " \nError position:\nFile:" + path + ":" +
         std::to_string(line) + "\n";
}

std::string temp_path(const std::string& name) {
  static int serial = 0;
#ifdef _WIN32
  const char* folder = getenv("TEMP");
#else
  const char* folder = getenv("TMPDIR");
  // Thousands of small files: memory first, a disk may write each one through.
  if (!folder) folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
#endif
  std::string path = std::string(folder ? folder : ".") + "/zyn-" + std::to_string(process_id()) +
                     "-" + std::to_string(serial++) + "-" + name;
  for (char& c : path)
    if (c == '\\') c = '/';
  return path;
}

std::string model_dir() {
  const char* folder = getenv("ZYN_MODEL_DIR");
  if (folder && *folder) return folder;
  printf("ZYN_MODEL_DIR is not set: the check with the trained model is passed over\n");
  return "";
}

namespace {

// After every test the library's memory counter stands where it stood before.
class MemoryListener : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    before_ = zyn_get_current_memory_size_occupation();
  }
  void OnTestEnd(const ::testing::TestInfo&) override {
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), before_) << "library memory is not back";
  }
  uint64_t before_ = 0;
};

const bool listening = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new MemoryListener);
  return true;
}();

}  // namespace

}  // namespace zyn_test

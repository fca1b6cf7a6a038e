// Captures what the library prints to standard output, byte for byte (line ends as
// the library wrote them, on every system).
#pragma once

#include <string>

namespace zyn_test {

class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  // Ends the capture and returns the text.
  std::string text();

 private:
  int saved_ = -1;
  int file_ = -1;
};

// The report of a site, as one text.
std::string report(const std::string& message, const std::string& path, int line);

// The reports of one source file.
struct Reports {
  const char* path;
  std::string operator()(const std::string& message, int line) const {
    return report(message, path, line);
  }
};
constexpr const char* kPara = "Your input params are wrong!";
constexpr const char* kMemory = "Allocating memory failure! ";
constexpr const char* kSupport = "Current version can not support!";

// Runs action and returns what it printed.
template <typename Action>
std::string printed(Action action) {
  Capture capture;
  action();
  return capture.text();
}

// Expects what a call answers and what it prints.
#define EXPECT_SAYS(call, code, text) \
  EXPECT_EQ(zyn_test::printed([&] { EXPECT_EQ(call, code); }), text)

// A path in a folder for temporary files, with forward slashes.
std::string temp_path(const std::string& name);

// The folder named by ZYN_MODEL_DIR, or "" after saying that it is not set.
std::string model_dir();

}  // namespace zyn_test

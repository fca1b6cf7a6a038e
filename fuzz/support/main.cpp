// A target as a plain program, for compilers without libFuzzer: runs the files and
// folders that it is given. The last name in what it prints is that of a broken input.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "support/fuzz.h"

namespace {

void run(const std::filesystem::path& path) {
  fprintf(stderr, "%s\n", path.string().c_str());
  std::ifstream stream(path, std::ios::binary);
  zyn_fuzz::check(stream.good(), "inputs can be read");
  const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int count, char** arguments) {
  for (int i = 1; i < count; i++)
    if (std::filesystem::is_directory(arguments[i]))
      for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) run(entry);
    else
      run(arguments[i]);
}

// A target as a plain program, for compilers without libFuzzer: runs the files and
// folders that it is given; with -max_total_time=S it then mutates them for S seconds.
// An input that breaks something is kept as fuzz-crash in the working directory.
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "support/fuzz.h"

namespace {

using Bytes = std::vector<uint8_t>;

void add(std::vector<Bytes>& inputs, const std::filesystem::path& path) {
  if (std::filesystem::is_directory(path)) {
    for (const auto& entry : std::filesystem::directory_iterator(path)) add(inputs, entry.path());
    return;
  }
  std::ifstream stream(path, std::ios::binary);
  zyn_fuzz::check(stream.good(), "inputs can be read");
  inputs.emplace_back(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

void mutate(Bytes& bytes, const Bytes& other, std::mt19937_64& random) {
  for (uint64_t edits = random() % 4 + 1; edits-- > 0;) {
    const size_t at = bytes.empty() ? 0 : random() % bytes.size();
    const auto position = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    const uint64_t kind = random() % 4;
    if (kind == 0 || bytes.empty())
      bytes.insert(position, static_cast<uint8_t>(random()));
    else if (kind == 1)
      bytes.erase(position);
    else if (kind == 2)
      bytes[at] ^= static_cast<uint8_t>(1 << random() % 8);
    else
      for (size_t i = at; i < other.size() && i < bytes.size() && i < at + 16; i++)
        bytes[i] = other[i];
  }
}

const Bytes* current = nullptr;

void keep_input(int signal_number) {
  if (FILE* file = fopen("fuzz-crash", "wb")) {
    fwrite(current->data(), 1, current->size(), file);
    fclose(file);
  }
  signal(signal_number, SIG_DFL);
  raise(signal_number);
}

void run(const Bytes& input) {
  current = &input;
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int count, char** arguments) {
  std::vector<Bytes> inputs = {{}};
  int seconds = 0;
  for (int i = 1; i < count; i++)
    if (sscanf(arguments[i], "-max_total_time=%d", &seconds) != 1 && arguments[i][0] != '-')
      add(inputs, arguments[i]);
  signal(SIGABRT, keep_input);
  signal(SIGSEGV, keep_input);
  for (const Bytes& input : inputs) run(input);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  size_t runs = inputs.size();
  for (std::mt19937_64 random(1); std::chrono::steady_clock::now() < end; runs++) {
    Bytes input = inputs[random() % inputs.size()];
    mutate(input, inputs[random() % inputs.size()], random);
    run(input);
  }
  fprintf(stderr, "stat::number_of_executed_units: %zu\n", runs);
}

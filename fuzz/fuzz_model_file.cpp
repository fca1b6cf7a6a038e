// Hostile model files: any bytes, any word count, a digest that fits or not. What loading
// answers is compared with a digest computed here.
#include <math.h>

#include <vector>

#include "support/fuzz.h"

namespace {

using zyn_fuzz::check;
using Bytes = std::vector<uint8_t>;

// MD5 as its definition reads: no tables, sines as constants.
Bytes digest_of(Bytes text) {
  static constexpr uint32_t kTurns[4][4] = {
      {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  const uint64_t bits = 8 * static_cast<uint64_t>(text.size());
  text.push_back(0x80);
  while (text.size() % 64 != 56) text.push_back(0);
  for (int i = 0; i < 8; i++) text.push_back(static_cast<uint8_t>(bits >> 8 * i));
  uint32_t sum[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
  for (size_t at = 0; at < text.size(); at += 64) {
    uint32_t words[16], a = sum[0], b = sum[1], c = sum[2], d = sum[3];
    memcpy(words, &text[at], 64);
    for (uint32_t i = 0; i < 64; i++) {
      const uint32_t mixed[4] = {(b & c) | (~b & d), (d & b) | (~d & c), b ^ c ^ d, c ^ (b | ~d)};
      const uint32_t place[4] = {i, 5 * i + 1, 3 * i + 5, 7 * i};
      const auto sine = static_cast<uint32_t>(fabs(sin(i + 1.0)) * 4294967296.0);
      const uint32_t turned = a + mixed[i / 16] + sine + words[place[i / 16] % 16];
      const uint32_t turn = kTurns[i / 16][i % 4];
      a = d, d = c, c = b, b += turned << turn | turned >> (32 - turn);
    }
    sum[0] += a, sum[1] += b, sum[2] += c, sum[3] += d;
  }
  const auto* first = reinterpret_cast<const uint8_t*>(sum);
  return Bytes(first, first + sizeof(sum));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zyn_fuzz::Memory memory(size % 4 == 3, static_cast<int64_t>(4 * size + 65536));
  zyn_fuzz::Input input(data, size);
  const uint32_t setup = input.byte();
  const auto whole = static_cast<int32_t>(input.left() / 4);
  const int32_t count = setup & 1 ? input.extreme() : whole;
  Bytes file(data + size - input.left(), data + size);
  const Bytes model(file.begin(), file.begin() + (setup & 1 ? 0 : whole * 4));
  if (setup & 2) {
    file = model;
    const Bytes digest = digest_of(model);
    file.insert(file.end(), digest.begin(), digest.end());
    if (setup & 4) file[file.size() - 1 - (setup >> 4)] ^= 1;
    if (setup & 8) file.resize(file.size() - (setup >> 4));
  }
  const bool held = count >= 0 && 4 * static_cast<uint64_t>(count) <= file.size();
  const size_t bytes = held ? 4 * static_cast<size_t>(count) : file.size();
  Bytes words(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(bytes));
  // What the file has of the digest; zeros for the rest; nothing counts after a shared zero.
  Bytes stored(file.begin() + static_cast<std::ptrdiff_t>(bytes), file.end());
  stored.resize(16);
  const bool same =
      held && strncmp(reinterpret_cast<const char*>(stored.data()),
                      reinterpret_cast<const char*>(digest_of(words).data()), 16) == 0;

  void* buffer = zyn_malloc(static_cast<int64_t>(bytes ? bytes : 1));
  file.reserve(1);
  const char* path = zyn_fuzz::scratch_file(file.data(), file.size());
  if (setup & 16) {
    zyn_fuzz::Memory::fail(1, false);
    const int32_t code = zyn_cg_load_model(buffer, count, path);
    check(code == (zyn_fuzz::Memory::failed() ? 2 : same ? 0 : 1), "short memory is said");
    zyn_fuzz::Memory::fail(0, false);
  }
  check(zyn_cg_load_model(buffer, count, path) == (same ? 0 : 1), "the digest decides");
  check(!held || !bytes || memcmp(buffer, words.data(), bytes) == 0, "the words are the file's");
  zyn_free(buffer);
  return 0;
}

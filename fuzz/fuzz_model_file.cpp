// Hostile model files: any bytes, any word count, a digest that fits or not. What loading
// answers is compared with the digest.
#include <vector>

#include "base/zyn_md5.h"
#include "support/fuzz.h"

namespace {

using zyn_fuzz::check;
using Bytes = std::vector<uint8_t>;

Bytes digest_of(const Bytes& text) {
  zyn_md5_ctx context;
  Bytes digest(16);
  zyn_md5_start(&context);
  zyn_md5_update(&context, text.data(), static_cast<int64_t>(text.size()));
  zyn_md5_finish(&context, digest.data());
  return digest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zyn_fuzz::Memory memory(size % 8 == 7, static_cast<int64_t>(4 * size + 65536));
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
#ifdef _WIN32
    const bool unopened = code == 1;  // the name's wide copy is made of the library's memory
#else
    const bool unopened = false;
#endif
    check(unopened || code == (zyn_fuzz::Memory::failed() ? 2
                               : same                     ? 0
                                                          : 1),
          "short memory is said");
    zyn_fuzz::Memory::fail(0, false);
  }
  check(zyn_cg_load_model(buffer, count, path) == (same ? 0 : 1), "the digest decides");
  check(!held || !bytes || memcmp(buffer, words.data(), bytes) == 0, "the words are the file's");
  zyn_free(buffer);
  return 0;
}

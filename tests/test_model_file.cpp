// Model files and their digest.
#include <stdio.h>

#include "base/zyn_md5.h"
#include "base/zyn_platform.h"
#include "support/buffers.h"
#include "support/capture.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;

std::string digest_of(const std::string& text, size_t piece = 64) {
  zyn_md5_ctx ctx;
  zyn_md5_start(&ctx);
  for (size_t i = 0; i < text.size(); i += piece) {
    const std::string part = text.substr(i, piece);
    zyn_md5_update(&ctx, part.data(), static_cast<int64_t>(part.size()));
  }
  uint8_t bytes[16];
  zyn_md5_finish(&ctx, bytes);
  return std::string(reinterpret_cast<char*>(bytes), 16);
}

TEST(Md5, PublishedVectorsAndLengthsAroundTheBlockInAnyPieces) {
  const auto x = [](size_t count) { return std::string(count, 'x'); };  // digests by md5sum
  const struct {
    std::string text;
    const char* digest;
  } cases[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {x(55), "04364420e25c512fd958a70738aa8f72"}, {x(56), "668a72d5ba17f08e62dabcafad6db14b"},
      {x(63), "7dc2ca208106a2f703567bdff99d8981"}, {x(64), "c1bb4f81d892b2d57947682aeb252456"},
      {x(65), "1bc932052302d074bdec39795fe00cf6"}, {x(1000), "398533d48111e9f664b1f64cb10c4b63"}};
  for (const auto& c : cases)
    for (size_t piece : {1, 7, 63, 64, 65, 1000}) {
      std::string hex;
      char two[3];
      for (char byte : digest_of(c.text, piece)) {
        snprintf(two, sizeof(two), "%02x", static_cast<unsigned char>(byte));
        hex += two;
      }
      EXPECT_EQ(hex, c.digest) << c.text;
    }
}

// A file that is written and removed again.
struct File {
  explicit File(const std::string& content, const std::string& name = "model")
      : path(temp_path(name)) {
    FILE* file = zyn_platform_open(path.c_str(), "wb");
    EXPECT_NE(file, nullptr) << path;
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
  }
  ~File() {
#ifdef _WIN32
    // The name is UTF-16 on the disk, not some code page's reading of the bytes.
    wchar_t wide[1024];
    MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, wide, 1024);
    EXPECT_EQ(_wremove(wide), 0);
#else
    remove(path.c_str());
#endif
  }
  std::string path;
};

std::string some_words(size_t bytes) {
  std::string text;
  for (size_t i = 0; i < bytes; i++) text += static_cast<char>(i * 37 / 3 + 1);
  return text;
}

void expect_load(const std::string& path, int32_t words, void* buffer, int32_t code,
                 const std::string& text = "") {
  EXPECT_SAYS(zyn_cg_load_model(buffer, words, path.c_str()), code, text) << path << words;
}

TEST(ModelFile, LoadsWordsWhoseDigestFollowsUnderAnyName) {
  for (size_t words : {1, 14, 1000, 100000})
    for (const char* name : {"model", "m\xC3\xB6-\xE6\xA8\xA1-\xF0\x9F\x98\x80"}) {
      const std::string content = some_words(4 * words);
      const File file(content + digest_of(content) + "anything else", name);
      PageEnd<uint8_t> buffer(4 * words);
      expect_load(file.path, static_cast<int32_t>(words), buffer.data(), 0);
      EXPECT_EQ(memcmp(buffer.data(), content.data(), content.size()), 0);
    }
}

TEST(ModelFile, DamageIsFoundSilentlyAndTheWordsAreThereAllTheSame) {
  const std::string content = some_words(80), digest = digest_of(content);
  for (size_t at : {0, 40, 79, 80, 95, 96}) {  // 96: no digest at all
    std::string damaged = at < 96 ? content + digest : content;
    if (at < 96) damaged[at] = static_cast<char>(damaged[at] ^ 1);
    const File file(damaged);
    uint8_t buffer[80];
    expect_load(file.path, 20, buffer, 1);
    EXPECT_EQ(memcmp(buffer, damaged.data(), 80), 0);
  }
}

TEST(ModelFile, WhatCannotBeReadIsSaid) {
  const std::string content = some_words(80);
  const File file(content + digest_of(content));
  uint8_t buffer[4000];
  for (int32_t words : {25, -1})  // 96 bytes are 24 words
    expect_load(file.path, words, buffer, 1, "failed to read model file");
  for (const std::string& path : {file.path + ".none", std::string("/"), std::string("")})
    expect_load(path, 20, buffer, 1, "failed to open model file from " + path);
  expect_load(file.path, 20, nullptr, 1);
  EXPECT_SAYS(zyn_cg_load_model(buffer, 20, nullptr), 1, "");
}

TEST(ModelFile, NoWordsAreCheckedAgainstTheEmptyDigest) {
  uint32_t buffer[1] = {42};
  for (const std::string& content : {digest_of(""), digest_of("a"), std::string()}) {
    const File file(content);
    expect_load(file.path, 0, buffer, content == digest_of("") ? 0 : 1);
  }
  EXPECT_EQ(buffer[0], 42u);
}

// The comparison stops at a zero byte that both digests share: what follows it may be
// anything, or missing from the file.
TEST(ModelFile, BytesAfterASharedZeroDoNotCount) {
  std::string content(4, 0), digest;
  size_t zero = 0;
  for (uint32_t seed = 0; zero == 0 || zero == std::string::npos; seed++) {
    memcpy(&content[0], &seed, 4);
    digest = digest_of(content);
    zero = digest.substr(0, 15).find('\0');
  }
  std::string after = digest, before = digest;
  after[15] = static_cast<char>(after[15] ^ 0x55);
  before[zero - 1] = static_cast<char>(before[zero - 1] ^ 0x55);
  uint32_t buffer[1];
  for (const std::string& stored : {after, before, digest.substr(0, zero)}) {
    const File file(content + stored);
    expect_load(file.path, 1, buffer, stored == before ? 1 : 0);
  }
}

TEST(ModelFile, FailedAllocationsLeaveNothing) {
  const std::string content = some_words(80);
  const File file(content + digest_of(content));
  const uint64_t before = zyn_get_current_memory_size_occupation();
  for_each_failing_allocation([&](int64_t n, bool) {
    uint8_t buffer[80];
    int32_t code = -1;
    printed([&] { code = zyn_cg_load_model(buffer, 20, file.path.c_str()); });
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
#ifdef _WIN32
    EXPECT_EQ(code, n == 1 ? 1 : n == 2 ? 2 : 0);  // first the converted path
#else
    EXPECT_EQ(code, n == 1 ? 2 : 0);
#endif
    return code == 0;
  });
}

}  // namespace

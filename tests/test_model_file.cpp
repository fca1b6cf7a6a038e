// Model files and their digest.
#include <stdio.h>

#include <vector>

#include "base/zyn_md5.h"
#include "base/zyn_platform.h"
#include "support/buffers.h"
#include "support/capture.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;

std::string digest_of(const std::string& text, size_t piece) {
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

std::string hex(const std::string& bytes) {
  std::string text;
  char two[3];
  for (char c : bytes) {
    snprintf(two, sizeof(two), "%02x", static_cast<unsigned char>(c));
    text += two;
  }
  return text;
}

TEST(Md5, PublishedVectorsAndLengthsAroundTheBlockInAnyPieces) {
  const auto x = [](size_t count) { return std::string(count, 'x'); };  // digests by md5sum
  const struct {
    std::string text;
    const char* digest;
  } cases[] = {{"", "d41d8cd98f00b204e9800998ecf8427e"},
               {"abc", "900150983cd24fb0d6963f7d28e17f72"},
               {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
               {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
                "57edf4a22be3c955ac49da2e2107b67a"},
               {x(55), "04364420e25c512fd958a70738aa8f72"},
               {x(56), "668a72d5ba17f08e62dabcafad6db14b"},
               {x(57), "693037871c4a9d3d8685018905cb530a"},
               {x(63), "7dc2ca208106a2f703567bdff99d8981"},
               {x(64), "c1bb4f81d892b2d57947682aeb252456"},
               {x(65), "1bc932052302d074bdec39795fe00cf6"},
               {x(128), "d69cb61a6ee87200676eb0d4b90edbcb"},
               {x(1000), "398533d48111e9f664b1f64cb10c4b63"}};
  for (const auto& c : cases)
    for (size_t piece : {1, 3, 7, 63, 64, 65, 1000})
      EXPECT_EQ(hex(digest_of(c.text, piece)), c.digest) << c.text;
}

// A file that is written from its parts and removed again.
struct File {
  File(const std::string& name, const std::string& content) : path(temp_path(name)) {
    FILE* file = zyn_platform_open(path.c_str(), "wb");
    EXPECT_NE(file, nullptr) << path;
    fwrite(content.data(), 1, content.size(), file);
    fclose(file);
  }
  ~File() {
#ifdef _WIN32
    wchar_t wide[1024];
    MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, wide, 1024);
    _wremove(wide);
#else
    remove(path.c_str());
#endif
  }
  std::string path;
};

struct Load {
  int32_t code;
  std::string text;
};
Load load(const std::string& path, int32_t words, void* buffer) {
  Load result{};
  result.text = printed([&] { result.code = zyn_cg_load_model(buffer, words, path.c_str()); });
  return result;
}

const std::string kWords = "these bytes are the forty words of a model, one after the other: ";

std::string some_words(size_t bytes) {
  std::string text;
  while (text.size() < bytes) text += kWords;
  return text.substr(0, bytes);
}

TEST(ModelFile, LoadsWordsWhoseDigestFollows) {
  for (size_t words : {1, 13, 14, 15, 16, 17, 1000, 100000}) {
    const std::string content = some_words(4 * words);
    const File file("model", content + digest_of(content, 64) + "anything else");
    PageEnd<uint8_t> buffer(4 * words);
    const Load result = load(file.path, static_cast<int32_t>(words), buffer.data());
    EXPECT_EQ(result.code, 0) << words;
    EXPECT_EQ(result.text, "");
    EXPECT_EQ(memcmp(buffer.data(), content.data(), content.size()), 0);
  }
}

TEST(ModelFile, OpensNamesOutsideAscii) {
  const std::string content = some_words(8);
  const File file(
      "m\xC3\xB6"
      "del-\xE6\xA8\xA1\xE5\x9E\x8B-\xF0\x9F\x98\x80",
      content + digest_of(content, 64));
  uint32_t buffer[2];
  EXPECT_EQ(load(file.path, 2, buffer).code, 0);
#ifdef _WIN32
  // The name is UTF-16 on the disk, not some code page's reading of the bytes.
  wchar_t wide[1024];
  MultiByteToWideChar(CP_UTF8, 0, file.path.c_str(), -1, wide, 1024);
  EXPECT_NE(GetFileAttributesW(wide), INVALID_FILE_ATTRIBUTES);
#endif
}

TEST(ModelFile, DamageIsFoundSilentlyAndTheWordsAreThereAllTheSame) {
  const std::string content = some_words(80), digest = digest_of(content, 64);
  for (size_t at : {0, 40, 79, 80, 95}) {
    std::string damaged = content + digest;
    damaged[at] = static_cast<char>(damaged[at] ^ 1);
    const File file("model", damaged);
    uint8_t buffer[80];
    const Load result = load(file.path, 20, buffer);
    EXPECT_EQ(result.code, 1) << at;
    EXPECT_EQ(result.text, "");
    EXPECT_EQ(memcmp(buffer, damaged.data(), 80), 0);
  }
  const File missing("model", content);  // no digest at all
  uint8_t buffer[80];
  EXPECT_EQ(load(missing.path, 20, buffer).code, 1);
}

TEST(ModelFile, WhatCannotBeReadIsSaid) {
  const std::string content = some_words(80);
  const File file("model", content + digest_of(content, 64));
  uint8_t buffer[4000];
  const Load longer = load(file.path, 25, buffer);  // 96 bytes are 24 words
  EXPECT_EQ(longer.code, 1);
  EXPECT_EQ(longer.text, "failed to read model file");
  const Load negative = load(file.path, -1, buffer);
  EXPECT_EQ(negative.code, 1);
  EXPECT_EQ(negative.text, "failed to read model file");
  for (const std::string& path : {file.path + ".none", std::string("/"), std::string("")}) {
    const Load absent = load(path, 20, buffer);
    EXPECT_EQ(absent.code, 1);
    EXPECT_EQ(absent.text, "failed to open model file from " + path);
  }
  EXPECT_SAYS(zyn_cg_load_model(nullptr, 20, file.path.c_str()), 1, "");
  EXPECT_SAYS(zyn_cg_load_model(buffer, 20, nullptr), 1, "");
}

TEST(ModelFile, NoWordsAreCheckedAgainstTheEmptyDigest) {
  const File good("model", digest_of("", 1)), wrong("model", digest_of("a", 1)), empty("model", "");
  uint32_t buffer[1] = {42};
  EXPECT_EQ(load(good.path, 0, buffer).code, 0);
  EXPECT_EQ(load(wrong.path, 0, buffer).code, 1);
  EXPECT_EQ(load(empty.path, 0, buffer).code, 1);
  EXPECT_EQ(buffer[0], 42u);
}

// The comparison stops at a zero byte that both digests share: what follows it may be
// anything, or missing from the file.
TEST(ModelFile, BytesAfterASharedZeroDoNotCount) {
  std::string content(4, 0), digest;
  size_t zero = 0;
  for (uint32_t seed = 0; zero == 0 || zero == std::string::npos; seed++) {
    memcpy(&content[0], &seed, 4);
    digest = digest_of(content, 4);
    zero = digest.substr(0, 15).find('\0');
  }
  std::string after = digest, before = digest;
  after[15] = static_cast<char>(after[15] ^ 0x55);
  before[zero - 1] = static_cast<char>(before[zero - 1] ^ 0x55);
  const File lenient("model", content + after), strict("model", content + before);
  const File cut("model", content + digest.substr(0, zero));
  uint32_t buffer[1];
  EXPECT_EQ(load(lenient.path, 1, buffer).code, 0);
  EXPECT_EQ(load(strict.path, 1, buffer).code, 1);
  EXPECT_EQ(load(cut.path, 1, buffer).code, 0);
}

TEST(ModelFile, FailedAllocationsLeaveNothing) {
  const std::string content = some_words(80);
  const File file("model", content + digest_of(content, 64));
  const uint64_t before = zyn_get_current_memory_size_occupation();
  const int64_t needed = for_each_failing_allocation([&](int64_t n, bool) {
    uint8_t buffer[80];
    const Load result = load(file.path, 20, buffer);
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
#ifdef _WIN32
    if (n == 1) {  // the converted path
      EXPECT_EQ(result.code, 1);
      EXPECT_EQ(result.text, "failed to open model file from " + file.path);
      return false;
    }
    EXPECT_EQ(result.code, n == 2 ? 2 : 0);
#else
    EXPECT_EQ(result.code, n == 1 ? 2 : 0);
#endif
    return result.code == 0;
  });
  EXPECT_GE(needed, 1);
}

}  // namespace

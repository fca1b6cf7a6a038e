// Model files and their digest.
#include <filesystem>
#include <fstream>

#include "base/zyn_md5.h"
#include "support/buffers.h"
#include "support/capture.h"
#include "zyncore.h"

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
  const struct {
    std::string text;
    const char* digest;
  } cases[] = {{"", "d41d8cd98f00b204e9800998ecf8427e"},
               {"abc", "900150983cd24fb0d6963f7d28e17f72"},
               {std::string(55, 'x'), "04364420e25c512fd958a70738aa8f72"},  // by md5sum from here
               {std::string(56, 'x'), "668a72d5ba17f08e62dabcafad6db14b"},
               {std::string(64, 'x'), "c1bb4f81d892b2d57947682aeb252456"},
               {std::string(1000, 'x'), "398533d48111e9f664b1f64cb10c4b63"}};
  for (const auto& c : cases)
    for (size_t piece : {1, 7, 63, 64, 65, 1000}) {
      const std::string digest = digest_of(c.text, piece);
      for (size_t i = 0; i < 16; i++)
        EXPECT_EQ(static_cast<uint8_t>(digest[i]),
                  std::stoi(std::string(c.digest + 2 * i, 2), nullptr, 16))
            << c.text << piece;
    }
}

// A file that is written and removed again.
struct File {
  explicit File(const std::string& content, const std::string& name = "model")
      : path(temp_path(name)) {
    std::ofstream(std::filesystem::u8path(path), std::ios::binary) << content;
  }
  // The name is UTF-16 on a Windows disk, not some code page's reading of the bytes.
  ~File() { EXPECT_TRUE(std::filesystem::remove(std::filesystem::u8path(path))); }
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
  for (size_t words : {0, 1, 14, 1000, 100000})
    for (const char* name : {"model", "m\xC3\xB6-\xE6\xA8\xA1-\xF0\x9F\x98\x80"}) {
      const std::string content = some_words(4 * words);
      const File file(content + digest_of(content) + "anything else", name);
      PageEnd<uint8_t> buffer(4 * words);
      expect_load(file.path, static_cast<int32_t>(words), buffer.data(), 0);
      EXPECT_EQ(memcmp(buffer.data(), content.data(), content.size()), 0);
    }
}

TEST(ModelFile, DamageIsFoundSilentlyAndTheWordsAreThereAllTheSame) {
  const std::string content = some_words(80), whole = content + digest_of(content);
  for (size_t at = 0; at <= 96; at++) {  // 96: no digest at all
    std::string damaged = at < 96 ? whole : content;
    if (at < 96) damaged[at] = static_cast<char>(damaged[at] ^ 1);
    const File file(damaged);
    char buffer[81] = {};
    expect_load(file.path, 20, buffer, 1);
    EXPECT_TRUE(same_bytes(buffer, damaged.data(), 80) && !buffer[80]);
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

// The comparison stops at a zero byte that both digests share: what follows it may be
// anything, or missing from the file. The digest of no words has one at 5.
TEST(ModelFile, BytesAfterASharedZeroDoNotCount) {
  const std::string digest = digest_of("");
  for (size_t at = 0; at < 16; at++) {
    std::string damaged = digest;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
    const File changed(damaged, "changed"), cut(digest.substr(0, at), "cut");
    uint32_t buffer[1] = {42};
    expect_load(changed.path, 0, buffer, at <= 5 ? 1 : 0);
    expect_load(cut.path, 0, buffer, at < 5 ? 1 : 0);
    EXPECT_EQ(buffer[0], 42u);
  }
}

}  // namespace

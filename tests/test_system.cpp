// The directory lister.
#include <filesystem>
#include <fstream>
#include <vector>

#include "base/zyn_darray.h"
#include "support/capture.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

int64_t copies_left = 0;
void copy_some(void* slot, const void* source, int64_t index) {
  const char* none = nullptr;
  zyn_darray_element_str_cpy(slot, copies_left-- > 0 ? source : &none, index);
}

uint64_t asked = 0;
void* count_bytes(size_t bytes) {
  asked += bytes;
  return malloc(bytes);
}

class Lister : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = temp_path("list");
    fs::create_directories(folder + "/sub.bmp/inner.bmp");
    for (const char* name : {"b.bmp", "a.BMP", "c.txt", "noextension"}) make(name);
    before = fs::current_path();
  }
  void TearDown() override {
    EXPECT_EQ(fs::current_path(), before);
    fs::current_path(before);
    fs::remove_all(folder);
  }
  void make(const std::string& name) { std::ofstream(folder + "/" + name) << "x"; }
  // Lists behind a first element; code and what is printed go to the members.
  Names list(const std::string& directory, const char* pattern,
             const zyn_darray_type& type = zyn_darray_str_type) {
    zyn_darray array = {0, 0, type, nullptr};
    const char* first = "kept";
    EXPECT_EQ(zyn_darray_push(&array, &first), 0);
    text = printed(
        [&] { code = zyn_get_specfic_files_for_given_dir(&array, directory.c_str(), pattern); });
    Names names;
    char** strings = static_cast<char**>(array.data);
    for (int64_t i = 0; i < array.count; i++) names.push_back(strings[i] ? strings[i] : "(null)");
    zyn_darray_cut(&array, 0);
    zyn_free(array.data);
    EXPECT_EQ(names[0], "kept");
    names.erase(names.begin());
    return names;
  }
  std::string folder, text;
  fs::path before;
  int32_t code = -1;
};

TEST_F(Lister, FilesThatMatchComeInNameOrder) {
  const std::string f = folder + "/";
  const Names pictures = {f + "a.BMP", f + "b.bmp"};
  const std::pair<const char*, Names> cases[] = {
      {"*.bmp", pictures},
      {"?.BmP", pictures},
      {"c.*", {f + "c.txt"}},
      {"*t?t", {f + "c.txt"}},
      {"*.*", {f + "a.BMP", f + "b.bmp", f + "c.txt", f + "noextension"}}};
  for (const auto& [pattern, names] : cases) {
    EXPECT_EQ(list(folder, pattern), names);
    EXPECT_TRUE(code == 0 && text.empty()) << pattern;
  }
  EXPECT_EQ(list(folder + "/sub.bmp", "*.bmp"), Names{});
  EXPECT_TRUE(code == 0 && text.empty()) << "folders alone";
}

TEST_F(Lister, WhatIsRefusedSaysWhatIsDescribed) {
  const std::string none = folder + "/none";
  const std::pair<const char*, std::string> cases[] = {
      {"*.png", "no *.png file format in the " + folder + "!\n"},
      {"", ""},
      {"*", ""},
      {"*.", ""},
      {".bmp", ""},
      {"ab.bmp", ""},
      {"a.", ""},
      {"?mp", ""}};
  for (const auto& [pattern, said] : cases) {
    EXPECT_EQ(list(folder, pattern), Names{});
    EXPECT_TRUE(code == 1 && text == said) << pattern << text;
  }
  EXPECT_EQ(list(none, "*.bmp"), Names{});
  EXPECT_TRUE(code == 1 && text == "chdir " + none + " error\n") << text;
  zyn_darray array = {0, 0, zyn_darray_str_type, nullptr};
  EXPECT_EQ(zyn_get_specfic_files_for_given_dir(nullptr, ".", "*.a"), 1);
  EXPECT_EQ(zyn_get_specfic_files_for_given_dir(&array, nullptr, "*.a"), 1);
  EXPECT_EQ(zyn_get_specfic_files_for_given_dir(&array, ".", nullptr), 1);
}

#ifndef _WIN32  // directories of that length cannot be entered there
TEST_F(Lister, LongPathsAreLeftOutAndLongWorkingDirectoriesComeBack) {
  std::string path = folder;
  while (path.size() < 1000) path += "/.";
  // With c.txt the full name fills the buffer to its last byte.
  const std::string pad(1023 - 1 - 5 - path.size(), '/');
  EXPECT_EQ(list(path + pad, "c.txt"), Names{path + pad + "/c.txt"});
  EXPECT_EQ(list(path + pad + "/", "c.txt"), Names{});
  EXPECT_EQ(code, 0);
  for (fs::current_path(folder); fs::current_path().native().size() < 1100;) {
    fs::create_directory(std::string(100, 'd'));
    fs::current_path(std::string(100, 'd'));
  }
  const fs::path deep = fs::current_path();
  EXPECT_EQ(list(folder, "c.txt"), Names{folder + "/c.txt"}) << text;
  EXPECT_EQ(fs::current_path(), deep);
  fs::current_path(before);
}
#endif

TEST_F(Lister, WithoutMemoryTheListIsAsItWas) {
  printed([&] {
    for_each_failing_allocation([&](int64_t n, bool) {
      // The list's first element is the first allocation.
      const Names names = n == 1 ? Names() : list(folder, "*.*");
      EXPECT_TRUE(n == 1 || (code == 0 ? names.size() == 4 : code == 2 && names.empty()));
      EXPECT_TRUE(n == 1 || text.empty()) << text;
      if (n == 1) zyn_free(zyn_malloc(1));
      return n > 1 && code == 0;
    });
  });
  // Copies of strings are not the library's memory.
  for (int64_t copies = 1; copies < 6; copies++) {
    copies_left = copies;
    EXPECT_EQ(
        list(folder, "*.*", {sizeof(char*), 0, copy_some, zyn_darray_element_str_free}).size(),
        copies < 5 ? 0u : 4u);
    EXPECT_EQ(code, copies < 5 ? 2 : 0);
  }
}

TEST_F(Lister, TwiceTheNamesTakeTwiceTheMemory) {
  uint64_t needed[2];
  for (int k = 0; k < 2; k++) {
    for (int i = 0; i < 512; i++) make(std::to_string(1000 * k + i) + ".jpg");
    const zyn_system_allocator counting = {count_bytes, free};
    const zyn_system_allocator own = zyn_set_system_allocator(&counting);
    asked = 0;
    EXPECT_EQ(list(folder, "*.jpg").size(), 512u * (k + 1));
    needed[k] = asked;
    zyn_set_system_allocator(&own);
  }
  EXPECT_LT(needed[1], 3 * needed[0]);
}

}  // namespace

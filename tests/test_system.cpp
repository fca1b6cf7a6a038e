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
    fs::create_directories(folder + "/sub.bmp/inner.bmp");
    for (const char* name : {"b.bmp", "a.BMP", "c.txt", "noextension"}) make(name);
  }
  void TearDown() override {
    EXPECT_EQ(fs::current_path(), before);
    fs::current_path(before);
    fs::remove_all(folder);
  }
  void make(const std::string& name) { std::ofstream(folder + "/" + name) << "x"; }
  // What comes behind a first element; the code and what was printed lie in members.
  Names list(const std::string& directory, const char* pattern,
             const zyn_darray_type& type = zyn_darray_str_type) {
    zyn_darray array = {0, 0, type, nullptr};
    const char* first = "kept";
    EXPECT_EQ(zyn_darray_push(&array, &first), 0);
    text = printed(
        [&] { code = zyn_get_specfic_files_for_given_dir(&array, directory.c_str(), pattern); });
    char** strings = static_cast<char**>(array.data);
    EXPECT_STREQ(strings[0], "kept");
    const Names names(strings + 1, strings + array.count);
    zyn_darray_cut(&array, 0);
    zyn_free(array.data);
    return names;
  }
  const std::string folder = temp_path("list");
  const fs::path before = fs::current_path();
  std::string text;
  int32_t code = -1;
};

TEST_F(Lister, FilesThatMatchComeInNameOrderAndOtherCallsSayWhatIsWrong) {
  const std::string f = folder + "/", none = f + "none";
  const Names pictures = {f + "a.BMP", f + "b.bmp"}, texts = {f + "c.txt"};
  const struct {
    std::string in;
    const char* pattern;
    int code;
    Names names;
    std::string said;
  } cases[] = {{folder, "*.bmp", 0, pictures, ""},
               {folder, "?.BmP", 0, pictures, ""},
               {folder, "c.*", 0, texts, ""},
               {folder, "*t?t", 0, texts, ""},
               {folder, "*.*", 0, {f + "a.BMP", f + "b.bmp", f + "c.txt", f + "noextension"}, ""},
               {f + "sub.bmp", "*.bmp", 0, {}, ""},  // folders alone
               {folder, "*.png", 1, {}, "no *.png file format in the " + folder + "!\n"},
               {none, "*.bmp", 1, {}, "chdir " + none + " error\n"}};
  for (const auto& c : cases) {
    EXPECT_EQ(list(c.in, c.pattern), c.names) << c.pattern;
    EXPECT_TRUE(code == c.code && text == c.said) << c.pattern << text;
  }
  for (const char* pattern : {"", "*", "*.", ".bmp", "ab.bmp", "a.", "?mp"}) {
    EXPECT_EQ(list(folder, pattern), Names{});
    EXPECT_TRUE(code == 1 && text.empty()) << pattern << text;
  }
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
  path.resize(1023 - 1 - 5, '/');
  EXPECT_EQ(list(path, "c.txt"), Names{path + "/c.txt"});
  EXPECT_EQ(list(path + "/", "c.txt"), Names{});
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

TEST_F(Lister, WhereAStringCannotBeCopiedTheListIsAsItWas) {
  for (int64_t copies = 1; copies < 6; copies++) {
    copies_left = copies;
    const size_t want = copies < 5 ? 0 : 4;
    EXPECT_EQ(
        list(folder, "*.*", {sizeof(char*), 0, copy_some, zyn_darray_element_str_free}).size(),
        want);
    EXPECT_EQ(code, copies < 5 ? 2 : 0);
  }
}

TEST_F(Lister, TwiceTheNamesTakeTwiceTheMemory) {
  uint64_t needed[2];
  for (size_t k = 0; k < 2; k++) {
    for (size_t i = 0; i < 512; i++) make(std::to_string(1000 * k + i) + ".jpg");
    FailingAllocations counting(0, false, {count_bytes, free});
    asked = 0;
    EXPECT_EQ(list(folder, "*.jpg").size(), 512u * (k + 1));
    needed[k] = asked;
  }
  EXPECT_LT(needed[1], 3 * needed[0]);
}

}  // namespace

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

class Lister : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = temp_path("list");
    fs::create_directories(folder + "/sub.bmp/inner.bmp");
    for (const char* name : {"b.bmp", "a.BMP", "c.txt", "noextension"})
      std::ofstream(folder + "/" + name) << "x";
    before = fs::current_path();
  }
  void TearDown() override {
    EXPECT_EQ(fs::current_path(), before);
    fs::current_path(before);
    fs::remove_all(folder);
  }
  // Lists into fresh array; what is printed goes to text.
  Names list(const std::string& directory, const char* pattern) {
    zyn_darray* array = zyn_create_darray(&zyn_darray_str_type);
    text = printed(
        [&] { code = zyn_get_specfic_files_for_given_dir(array, directory.c_str(), pattern); });
    Names names;
    for (int64_t i = 0; i < array->count; i++) names.push_back(static_cast<char**>(array->data)[i]);
    zyn_release_darray(&array);
    return names;
  }
  std::string folder, text;
  fs::path before;
  int32_t code = -1;
};

TEST_F(Lister, FilesThatMatchComeInNameOrder) {
  const std::string f = folder + "/";
  EXPECT_EQ(list(folder, "*.bmp"), (Names{f + "a.BMP", f + "b.bmp"}));
  EXPECT_EQ(list(folder, "?.BmP"), (Names{f + "a.BMP", f + "b.bmp"}));
  EXPECT_EQ(list(folder, "c.*"), (Names{f + "c.txt"}));
  EXPECT_EQ(list(folder, "*t?t"), (Names{f + "c.txt"}));
  EXPECT_EQ(list(folder, "*.*"), (Names{f + "a.BMP", f + "b.bmp", f + "c.txt", f + "noextension"}));
  EXPECT_EQ(text, "");
  EXPECT_EQ(code, 0);
}

TEST_F(Lister, FoldersAloneGiveAnEmptyList) {
  EXPECT_EQ(list(folder + "/sub.bmp", "*.bmp"), Names{});
  EXPECT_EQ(code, 0);
  EXPECT_EQ(text, "");
}

TEST_F(Lister, NothingFoundAndNoDirectoryAreSaid) {
  list(folder, "*.png");
  EXPECT_EQ(code, 1);
  EXPECT_EQ(text, "no *.png file format in the " + folder + "!\n");
  list(folder + "/none", "*.bmp");
  EXPECT_EQ(code, 1);
  EXPECT_EQ(text, "chdir " + folder + "/none error\n");
}

TEST_F(Lister, OtherPatternsAreRefusedSilently) {
  for (const char* pattern : {"", "*", "*.", ".bmp", "ab.bmp", "a.", "?mp"}) {
    EXPECT_EQ(list(folder, pattern), Names{});
    EXPECT_EQ(code, 1) << pattern;
    EXPECT_EQ(text, "") << pattern;
  }
  zyn_darray* array = zyn_create_darray(&zyn_darray_str_type);
  EXPECT_EQ(zyn_get_specfic_files_for_given_dir(nullptr, ".", "*.a"), 1);
  EXPECT_EQ(zyn_get_specfic_files_for_given_dir(array, nullptr, "*.a"), 1);
  EXPECT_EQ(zyn_get_specfic_files_for_given_dir(array, ".", nullptr), 1);
  zyn_release_darray(&array);
}

TEST_F(Lister, NamesTooLongForTheirBufferAreLeftOut) {
#ifndef _WIN32  // a directory name of that length cannot be entered there
  std::string path = folder;
  while (path.size() < 1000) path += "/.";
  // With c.txt the full name fills the buffer to its last byte.
  const std::string pad(1023 - 1 - 5 - path.size(), '/');
  EXPECT_EQ(list(path + pad, "c.txt"), Names{path + pad + "/c.txt"});
  EXPECT_EQ(list(path + pad + "/", "c.txt"), Names{});
  EXPECT_EQ(code, 0);
#endif
}

TEST_F(Lister, FailedAllocationsLeaveNothing) {
  for_each_failing_allocation([&](int64_t, bool) {
    const uint64_t used = zyn_get_current_memory_size_occupation();
    zyn_darray list = {0, 0, zyn_darray_str_type, nullptr};
    printed([&] { code = zyn_get_specfic_files_for_given_dir(&list, folder.c_str(), "*.bmp"); });
    EXPECT_EQ(fs::current_path(), before);
    const int64_t count = list.count;
    for (int64_t i = 0; i < count; i++)
      zyn_darray_element_str_free(static_cast<char**>(list.data) + i);
    zyn_free(list.data);
    EXPECT_EQ(zyn_get_current_memory_size_occupation(), used);
    return code == 0 && count == 2;
  });
}

}  // namespace

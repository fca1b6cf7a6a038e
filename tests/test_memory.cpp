// The counted allocator, the growable array and the message table.
#include "base/zyn_darray.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;

uint64_t in_use() { return zyn_get_current_memory_size_occupation(); }

TEST(Memory, BlocksAreAlignedCountedAndCarryTheirHeader) {
  const uint64_t before = in_use();
  for (int64_t size = 1; size < 3000; size = size * 3 / 2 + 1) {
    auto* block = static_cast<uint64_t*>(zyn_malloc(size));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 32, 0u);
    EXPECT_EQ(block[-1], static_cast<uint64_t>(size));
    const uint64_t gap = reinterpret_cast<uintptr_t>(block) - block[-2];
    EXPECT_TRUE(gap >= 16 && gap <= 47) << gap;
    memset(block, 0xEE, static_cast<size_t>(size));
    void* second = zyn_malloc(7);
    EXPECT_EQ(in_use(), before + static_cast<uint64_t>(size) + 7);
    zyn_free(block);
    EXPECT_EQ(in_use(), before + 7);
    zyn_free(second);
  }
  zyn_free(nullptr);
}

size_t asked = 0;
void* refuse(size_t bytes) {
  asked = bytes;
  return nullptr;
}

TEST(Memory, SizesThatCannotBeAreRefused) {
  for (int64_t size : {int64_t{0}, int64_t{-5}, INT64_MIN}) EXPECT_EQ(zyn_malloc(size), nullptr);
  EXPECT_EQ(zyn_calloc(3, 0), nullptr);
  EXPECT_EQ(zyn_calloc(-1, 4), nullptr);
  EXPECT_EQ(zyn_grow(nullptr, 0), nullptr);
  FailingAllocations refusing(0, false, {refuse, free});
  EXPECT_EQ(zyn_malloc(INT64_MAX), nullptr);
  EXPECT_EQ(asked, (uint64_t{1} << 63) + 47);
  asked = 0;
  EXPECT_EQ(zyn_calloc(int64_t{1} << 40, int64_t{1} << 24), nullptr);  // 2^64 wraps to nothing
  EXPECT_EQ(zyn_calloc((int64_t{1} << 62) + 1, 4), nullptr);           // 2^64 + 4 wraps to 4
  EXPECT_FALSE(zyn_scratch<uint64_t>((int64_t{1} << 61) + 1));
  EXPECT_EQ(asked, 0u);
}

TEST(Memory, GrowingKeepsContentAndNeverShrinks) {
  auto* block = static_cast<uint8_t*>(zyn_grow(nullptr, 64));
  for (int i = 0; i < 64; i++) block[i] = static_cast<uint8_t>(i);
  const uint64_t before = in_use();
  for (int64_t size : {32, 64, -1}) EXPECT_EQ(zyn_grow(block, size), block);
  {
    FailingAllocations failing(1);
    EXPECT_EQ(zyn_grow(block, 65), nullptr);
  }
  EXPECT_EQ(in_use(), before);
  auto* grown = static_cast<uint8_t*>(zyn_grow(block, 65));
  EXPECT_EQ(in_use(), before + 1);
  for (int i = 0; i < 64; i++) ASSERT_EQ(grown[i], i);
  zyn_free(grown);
}

int chunks = 0;
void* take_chunk(size_t bytes) { return chunks == 2 ? nullptr : (chunks++, malloc(bytes)); }
void drop_chunk(void* block) {
  chunks--;
  free(block);
}

TEST(Memory, BlocksOfAStoreShareChunksThatGoWithTheirLast) {
  const uint64_t before = in_use();
  FailingAllocations hooks(0, false, {take_chunk, drop_chunk});
  zyn_store store = {3 << 20, nullptr};
  const int64_t sizes[] = {1, 100, (3 << 20) - 1000, 64, 5 << 20, 4096};  // the fifth needs its own
  std::vector<uint8_t*> blocks;
  uint64_t sum = 0;
  {
    const zyn_storing storing(&store);
    for (int64_t size : sizes) {
      blocks.push_back(static_cast<uint8_t*>(zyn_malloc(size)));
      ASSERT_NE(blocks.back(), nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(blocks.back()) % 64, 0u);
      memset(blocks.back(), static_cast<int>(blocks.size()), static_cast<size_t>(size));
      sum += static_cast<uint64_t>(size);
    }
    for (int64_t size : {int64_t{8} << 20, INT64_MAX}) EXPECT_EQ(zyn_malloc(size), nullptr);
    const zyn_storing nowhere(nullptr);
    EXPECT_EQ(zyn_malloc(1), nullptr);  // the hooks give no third
  }
  EXPECT_EQ(chunks, 2);
  EXPECT_EQ(in_use(), before + sum);
  for (size_t i = 0; i < blocks.size(); i++)
    for (int64_t k = 0; k < sizes[i]; k += i == 4 ? 999 : 1) ASSERT_EQ(blocks[i][k], i + 1);
  for (size_t i : {2, 0, 3, 1}) EXPECT_EQ((zyn_free(blocks[i]), chunks), i == 1 ? 1 : 2);
  zyn_close_store(&store);  // its second chunk has blocks
  EXPECT_EQ(chunks, 1);
  for (size_t i : {5, 4}) zyn_free(blocks[i]);
  EXPECT_EQ(chunks, 0);
  EXPECT_EQ(in_use(), before);
}

std::string calls;
void log_copy(void* slot, const void* source, int64_t index) {
  *static_cast<int16_t*>(slot) = *static_cast<const int16_t*>(source);
  calls += "copy" + std::to_string(index) + " ";
}
void log_free(void* slot) { calls += "free" + std::to_string(*static_cast<int16_t*>(slot)) + " "; }

TEST(Array, RoomDoublesFromEightAFailedPushChangesNothingAndCallbacksSeeEveryElement) {
  // Only the low half of the size word counts.
  const zyn_darray_type types[2] = {{2, 0, nullptr, nullptr},
                                    {(int64_t{5} << 32) + 2, 0, log_copy, log_free}};
  std::string want;
  for (const zyn_darray_type& type : types) {
    zyn_darray* array = zyn_create_darray(&type);
    EXPECT_TRUE(array->capacity == 0 && array->data == nullptr);
    for (int16_t i = 0, value = 7; i < 40; i++, value++) {
      if (array->count == array->capacity) {
        const zyn_darray copy = *array;
        FailingAllocations failing(1);
        EXPECT_EQ(zyn_darray_push(array, &value), 2);
        EXPECT_EQ(memcmp(&copy, array, sizeof(copy)), 0);
      }
      ASSERT_EQ(zyn_darray_push(array, &value), 0);
      EXPECT_EQ(array->capacity, i < 8 ? 8 : i < 16 ? 16 : i < 32 ? 32 : 64);
      want += "copy" + std::to_string(i) + " ";
    }
    for (int i = 0; i < 40; i++) ASSERT_EQ(static_cast<int16_t*>(array->data)[i], i + 7);
    EXPECT_EQ(zyn_release_darray(&array), 0);
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(zyn_release_darray(&array), 1);
    if (!type.copy) want = "";
  }
  for (int i = 0; i < 40; i++) want += "free" + std::to_string(i + 7) + " ";
  EXPECT_EQ(calls, want);
  EXPECT_EQ(zyn_release_darray(nullptr), 1);
  EXPECT_EQ(zyn_create_darray(nullptr), nullptr);
}

TEST(Array, StringsAreUncountedCopies) {
  zyn_darray* array = zyn_create_darray(&zyn_darray_str_type);
  char text[] = "first";
  const char *source = text, *none = nullptr;
  zyn_darray_push(array, &none);
  const uint64_t before = in_use();
  zyn_darray_push(array, &source);
  EXPECT_EQ(in_use(), before);
  strcpy(text, "other");
  EXPECT_EQ(static_cast<char**>(array->data)[0], nullptr);
  EXPECT_STREQ(static_cast<char**>(array->data)[1], "first");
  EXPECT_EQ(zyn_release_darray(&array), 0);
  zyn_darray_element_str_cpy(nullptr, &source, 0);
  zyn_darray_element_str_free(nullptr);
}

TEST(Messages, AreThePublishedTexts) {
  std::string all;
  for (int i = 0; i < 13; i++) all += zyn_error_string[i] + std::string("|");
  EXPECT_EQ(all,
            "Good! Normal return!|Your input params are wrong!|Allocating memory failure! |"
            "Current version can not support!|Opening file errors!|Data are uninitialized!|"
            "Unknown error!|Arriving the end of the file!|Data are waiting!|"
            "Data length is not enough!|Data was already exits!|Data not found!|"
            "Faled to lock thread|");
}

}  // namespace

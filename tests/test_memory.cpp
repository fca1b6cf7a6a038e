// The counted allocator and the growable array.
#include <thread>
#include <vector>

#include "base/zyn_darray.h"
#include "support/failing.h"

namespace {

using namespace zyn_test;

uint64_t in_use() { return zyn_get_current_memory_size_occupation(); }

TEST(Memory, BlocksAreAlignedCountedAndCarryTheirHeader) {
  const uint64_t before = in_use();
  std::vector<uint64_t*> blocks;
  uint64_t sum = 0;
  for (int64_t size = 1; size < 3000; size = size * 3 / 2 + 1) {
    auto* block = static_cast<uint64_t*>(zyn_malloc(size));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 32, 0u);
    EXPECT_EQ(block[-1], static_cast<uint64_t>(size));
    const uint64_t gap = reinterpret_cast<uintptr_t>(block) - block[-2];
    EXPECT_TRUE(gap >= 16 && gap <= 47) << gap;
    memset(block, 0xEE, static_cast<size_t>(size));
    sum += static_cast<uint64_t>(size);
    EXPECT_EQ(in_use(), before + sum);
    blocks.push_back(block);
  }
  for (uint64_t* block : blocks) zyn_free(block);
  EXPECT_EQ(in_use(), before);
  zyn_free(nullptr);
}

TEST(Memory, ThreadsCountTogether) {
  const uint64_t before = in_use();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++)
    threads.emplace_back([] {
      for (int i = 0; i < 300000; i++) zyn_free(zyn_malloc(i % 7 + 1));
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(in_use(), before);
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
  const zyn_system_allocator refusing = {refuse, free};
  const zyn_system_allocator before = zyn_set_system_allocator(&refusing);
  EXPECT_EQ(zyn_malloc(INT64_MAX), nullptr);
  EXPECT_EQ(asked, (uint64_t{1} << 63) + 47);
  asked = 0;
  EXPECT_EQ(zyn_calloc(int64_t{1} << 40, int64_t{1} << 24), nullptr);  // 2^64 wraps to nothing
  EXPECT_EQ(zyn_calloc((int64_t{1} << 62) + 1, 4), nullptr);           // 2^64 + 4 wraps to 4
  EXPECT_FALSE(zyn_scratch<uint64_t>((int64_t{1} << 61) + 1));
  EXPECT_EQ(asked, 0u);
  zyn_set_system_allocator(&before);
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
  ASSERT_NE(grown, block);
  EXPECT_EQ(in_use(), before + 1);
  for (int i = 0; i < 64; i++) ASSERT_EQ(grown[i], i);
  zyn_free(grown);
}

TEST(Array, RoomDoublesFromEightAndAFailedPushChangesNothing) {
  const zyn_darray_type type = {12, 0, nullptr, nullptr};
  zyn_darray* array = zyn_create_darray(&type);
  EXPECT_TRUE(array->capacity == 0 && array->data == nullptr);
  int32_t element[3];
  for (int i = 0; i < 100; i++) {
    if (array->count == array->capacity) {
      const zyn_darray copy = *array;
      FailingAllocations failing(1);
      EXPECT_EQ(zyn_darray_push(array, element), 2);
      EXPECT_EQ(memcmp(&copy, array, sizeof(copy)), 0);
    }
    element[0] = i, element[1] = -i, element[2] = 7;
    ASSERT_EQ(zyn_darray_push(array, element), 0);
    EXPECT_EQ(array->capacity, i < 8 ? 8 : i < 16 ? 16 : i < 32 ? 32 : i < 64 ? 64 : 128);
  }
  for (int i = 0; i < 100; i++) ASSERT_EQ(static_cast<int32_t*>(array->data)[3 * i + 1], -i);
  EXPECT_EQ(zyn_release_darray(&array), 0);
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(zyn_release_darray(&array), 1);
  EXPECT_EQ(zyn_release_darray(nullptr), 1);
  EXPECT_EQ(zyn_create_darray(nullptr), nullptr);
  FailingAllocations failing(1);
  EXPECT_EQ(zyn_create_darray(&type), nullptr);
}

std::string calls;
void log_copy(void* slot, const void* source, int64_t index) {
  *static_cast<int16_t*>(slot) = *static_cast<const int16_t*>(source);
  calls += "copy" + std::to_string(index) + " ";
}
void log_free(void* slot) { calls += "free" + std::to_string(*static_cast<int16_t*>(slot)) + " "; }

TEST(Array, CallbacksSeeEveryElementInOrderAndStringsAreUncountedCopies) {
  // Only the low half of the size word counts.
  const zyn_darray_type type = {(int64_t{5} << 32) + 2, 0, log_copy, log_free};
  zyn_darray* array = zyn_create_darray(&type);
  for (int16_t value : {7, 8, 9}) zyn_darray_push(array, &value);
  EXPECT_EQ(static_cast<int16_t*>(array->data)[2], 9);
  zyn_release_darray(&array);
  EXPECT_EQ(calls, "copy0 copy1 copy2 free7 free8 free9 ");
  array = zyn_create_darray(&zyn_darray_str_type);
  char text[] = "first";
  const char* source = text;
  const char* none = nullptr;
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

}  // namespace

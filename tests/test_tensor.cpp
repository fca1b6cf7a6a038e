// The tensor and matrix containers.
#include <vector>

#include "matrix/zyn_matrix.h"
#include "matrix/zyn_tensor.h"
#include "support/buffers.h"
#include "support/capture.h"
#include "support/ledger.h"

namespace {

using namespace zyn_test;

constexpr Reports tensor_report{"src/matrix/zyn_tensor.cpp"};
constexpr Reports matrix_report{"src/matrix/zyn_matrix_core.cpp"};
constexpr const char* kLength = "Data length is not enough!";
constexpr const char* kParameters = "parameters error!";

// Every field against the shape, with the address arithmetic walked out.
void check_shape(const zyn_tensor& t, const std::vector<int32_t>& dims, uint32_t type) {
  const uint32_t size = std::vector<uint32_t>{1, 1, 2, 2, 4, 4, 4, 8}[type % 8];
  EXPECT_TRUE(t.kind == 16 && t.type == type && t.element_size == size);
  EXPECT_EQ(t.dim_count, static_cast<int32_t>(dims.size()));
  int64_t count = 1;
  for (size_t i = 0; i < 5; i++) {
    EXPECT_EQ(t.dims[i], i < dims.size() ? dims[i] : 0);
    if (i < dims.size()) count *= dims[i];
    EXPECT_TRUE(i == 4 || t.strides[i] == (i + 1 < dims.size() ? count * size : 0)) << i;
  }
  EXPECT_TRUE(t.count == count && t.byte_size == count * size);
}

TEST(Tensor, ShapesOfAllKinds) {
  const std::vector<std::vector<int32_t>> shapes = {{10}, {3, 4, 5}, {7, 1, 2, 3, 5}, {1 << 15, 1}};
  for (const auto& dims : shapes)
    for (uint32_t type = 0; type < 32; type++) {
      const auto count = static_cast<int32_t>(dims.size());
      zyn_tensor* header = zyn_create_tensor_header(count, dims.data(), type);
      check_shape(*header, dims, type);
      EXPECT_TRUE(!header->data && header->owns_data == 1 && !header->reserved && !header->layout);
      EXPECT_EQ(zyn_set_tensor_channel_layout(header, 3), 0);
      const uint64_t before = zyn_get_current_memory_size_occupation();
      zyn_tensor* like = zyn_create_tensor_like(header);
      EXPECT_EQ(zyn_get_current_memory_size_occupation() - before,
                sizeof(zyn_tensor) + static_cast<uint64_t>(header->byte_size));
      EXPECT_EQ(like->layout, 3u);
      check_shape(*like, dims, type);
      for (zyn_tensor** made : {&like, &header}) EXPECT_EQ(zyn_release_tensor(made), 0);
      EXPECT_EQ(header, nullptr);
      zyn_tensor own;
      memset(&own, 0xEE, sizeof(own));
      const int32_t code = type == 6 || type == 7 ? 0 : 1;
      EXPECT_SAYS(zyn_set_tensor_header(&own, count, dims.data(), type), code,
                  code ? tensor_report(kPara, 162) : "");
      if (code) continue;
      check_shape(own, dims, type);
      EXPECT_TRUE(!own.data && own.owns_data == 0 && own.layout == 0);
    }
}

TEST(Tensor, BadArgumentsAreReportedByTheirSites) {
  const int32_t good[] = {3, 4, 5}, zero[] = {3, 0, 5}, large[] = {1 << 16, 1 << 15, 1};
  zyn_tensor own, same, *none = nullptr;
  memset(&own, 0xEE, sizeof(own));
  same = own;
  const struct {
    int32_t count;
    const int32_t* dims;
    uint32_t type;
    int create_line, set_line;
  } cases[] = {{0, good, 6, 41, 152},  {6, good, 6, 41, 152}, {3, nullptr, 6, 41, 152},
               {3, good, 32, 41, 162}, {3, zero, 6, 46, 157}, {3, zero, 3, 46, 157},
               {3, large, 0, 46, 157}};
  for (const auto& c : cases) {
    EXPECT_SAYS(zyn_create_tensor_header(c.count, c.dims, c.type), nullptr,
                tensor_report(kPara, c.create_line));
    EXPECT_SAYS(zyn_set_tensor_header(&own, c.count, c.dims, c.type), 1,
                tensor_report(kPara, c.set_line));
    EXPECT_TRUE(same_bytes(&own, &same, sizeof(own)));
  }
  EXPECT_SAYS(zyn_set_tensor_header(nullptr, 3, good, 6), 1, tensor_report(kPara, 152));
  for (zyn_tensor** bad : {static_cast<zyn_tensor**>(nullptr), &none})
    EXPECT_SAYS(zyn_release_tensor(bad), 1, tensor_report(kPara, 244));
  EXPECT_SAYS(zyn_set_tensor_reference_value(nullptr, 1), 1, "");
  EXPECT_SAYS(zyn_set_tensor_channel_layout(nullptr, 1), 1, "");
  for (const zyn_tensor* bad : {none, &own}) EXPECT_SAYS(zyn_create_tensor_like(bad), nullptr, "");
}

// The header of a tensor whose block cannot be allocated is lost and stays counted.
TEST(Tensor, HeaderWithoutBlockIsLost) {
  const int32_t dims[] = {10};
  for (int n : {1, 2}) {
    const uint64_t before = zyn_get_current_memory_size_occupation();
    Ledger ledger;
    Ledger::fail(n, true);
    EXPECT_SAYS(zyn_create_tensor(1, dims, 6), nullptr,
                n == 1 ? tensor_report(kMemory, 53)
                       : tensor_report(kMemory, 109) + tensor_report(kMemory, 123));
    EXPECT_EQ(zyn_get_current_memory_size_occupation() - before, n == 1 ? 0 : sizeof(zyn_tensor));
  }
}

// Both containers over a block of 96 bytes, and a caller's in its place.
template <typename Record>
void exchange_blocks(Record* record, int32_t (*set)(Record*, void*, int64_t),
                     int32_t (*release)(Record**), const Reports& reports, int para, int length) {
  double mine[12] = {0, 0, 3};
  const uint64_t before = zyn_get_current_memory_size_occupation();
  void* const owned = record->data;
  for (void* block : {owned, static_cast<void*>(mine)})
    EXPECT_SAYS(set(record, block, 95), 256, reports(kLength, length));
  EXPECT_SAYS(set(record, nullptr, 96), 1, reports(kPara, para));
  EXPECT_SAYS(set(nullptr, mine, 96), 1, reports(kPara, para));
  EXPECT_EQ(set(record, owned, 96), 0) << "its own block";
  EXPECT_TRUE(record->data == owned && record->owns_data == 1);
  for (int64_t bytes : {96, 100}) EXPECT_EQ(set(record, mine, bytes), 0);
  EXPECT_EQ(zyn_get_current_memory_size_occupation(), before - 96);
  EXPECT_TRUE(record->data == mine && record->owns_data == 0);
  EXPECT_EQ(release(&record), 0);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(mine[2], 3);
}

TEST(Containers, KeepTheirOwnBlockAndLeaveTheCallersAlone) {
  const int32_t dims[] = {24};
  exchange_blocks(zyn_create_tensor(1, dims, 6), zyn_set_tensor_data, zyn_release_tensor,
                  tensor_report, 203, 208);
  exchange_blocks(zyn_create_matrix(2, 3, 2, 7), zyn_set_matrix_data, zyn_release_matrix,
                  matrix_report, 162, 168);
  // A block of the library's allocator can be handed over.
  const uint64_t before = zyn_get_current_memory_size_occupation();
  zyn_tensor* tensor = zyn_create_tensor_header(1, dims, 6);
  EXPECT_EQ(zyn_set_tensor_data(tensor, zyn_malloc(96), 96), 0);
  EXPECT_EQ(zyn_set_tensor_reference_value(tensor, 5), 0);
  EXPECT_EQ(tensor->owns_data, 5u);
  EXPECT_EQ(zyn_release_tensor(&tensor), 0);
  EXPECT_EQ(zyn_get_current_memory_size_occupation(), before);
}

TEST(Matrix, HeadersOfAllTypes) {
  const struct {
    int32_t rows, cols, pages;
    uint32_t kind;
  } shapes[] = {{1, 1, 1, 7}, {1, 5, 1, 5}, {3, 1, 1, 6}, {3, 4, 1, 4},
                {1, 5, 2, 4}, {5, 1, 2, 4}, {1, 1, 2, 4}};
  for (const auto& s : shapes)
    for (int32_t type = 0; type < 32; type++) {
      const int64_t value = std::vector<int64_t>{1, 1, 2, 2, 4, 4, 4, 8}[type % 8];
      const int64_t channels = type / 8 + 1, row = s.cols * value * channels;
      const uint64_t before = zyn_get_current_memory_size_occupation();
      zyn_matrix* m = zyn_create_matrix(s.rows, s.cols, s.pages, type);
      EXPECT_EQ(zyn_get_current_memory_size_occupation() - before,
                sizeof(zyn_matrix) + static_cast<uint64_t>(s.pages * s.rows * row));
      EXPECT_TRUE(m->kind == s.kind && m->type == static_cast<uint32_t>(type));
      EXPECT_TRUE(m->rows == s.rows && m->cols == s.cols && m->pages == s.pages);
      EXPECT_TRUE(m->element_size == value && m->channels == channels && m->row_bytes == row);
      EXPECT_TRUE(m->flag == 1 && m->format == 15 && m->owns_data == 1);
      zyn_matrix own;
      memset(&own, 0xEE, sizeof(own));
      EXPECT_EQ(zyn_set_matrix_header(&own, s.rows, s.cols, s.pages, type), 0);
      // The same record but for its block.
      EXPECT_TRUE(own.data == nullptr && own.owns_data == 0 && own.plane1 == nullptr);
      own.data = m->data;
      own.owns_data = 1;
      EXPECT_EQ(memcmp(&own, m, offsetof(zyn_matrix, format) + sizeof(own.format)), 0);
      EXPECT_EQ(zyn_release_matrix(&m), 0);
      EXPECT_EQ(m, nullptr);
    }
}

TEST(Matrix, BadArgumentsAreReportedByTheirSites) {
  const std::string refused = matrix_report(kParameters, 43), set = matrix_report(kParameters, 109);
  zyn_matrix own{}, *none = nullptr;
  for (int k = 0; k < 3; k++) {
    const int32_t sizes[3] = {k != 0, k != 1, k != 2};
    EXPECT_SAYS(zyn_create_matrix(sizes[0], sizes[1], sizes[2], 6), nullptr, refused);
    EXPECT_SAYS(zyn_set_matrix_header(&own, sizes[0], sizes[1], sizes[2], 6), 1, set);
  }
  for (int type : {-1, 32}) EXPECT_SAYS(zyn_create_matrix(1, 1, 1, type), nullptr, refused);
  EXPECT_EQ(zyn_set_matrix_header(&own, 2, 3, 1, 99), 0);  // the type is the caller's business
  EXPECT_SAYS(zyn_set_matrix_header(nullptr, 1, 1, 1, 6), 1, set);
  for (zyn_matrix** bad : {static_cast<zyn_matrix**>(nullptr), &none})
    EXPECT_SAYS(zyn_release_matrix(bad), 1, matrix_report(kParameters, 260));
  EXPECT_SAYS(zyn_create_matrix(INT32_MAX, INT32_MAX, INT32_MAX, 31), nullptr,
              matrix_report(kMemory, 241));  // 2^93 elements
  for (int n : {1, 2}) {
    FailingAllocations failing(n);
    EXPECT_SAYS(zyn_create_matrix(2, 3, 1, 6), nullptr,
                n == 1 ? matrix_report("memory error!", 48) : matrix_report(kMemory, 241));
  }
}

}  // namespace

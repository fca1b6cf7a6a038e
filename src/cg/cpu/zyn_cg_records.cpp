// Copies of the records that operators are bound with: the operators keep what they need of
// them in states of their own.
#include "cg/cpu/zyn_cg_records.h"

#include <string.h>

#include "base/zyn_memory.h"

namespace {

struct record_size {
  int32_t type;
  int64_t bytes;
};
constexpr record_size kSizes[] = {{ZYN_OP_CONV, sizeof(zyn_conv_param)},
                                  {ZYN_OP_CONV_DEPTHWISE, sizeof(zyn_conv_param)},
                                  {ZYN_OP_CONV_POINTWISE, sizeof(zyn_conv_param)},
                                  {ZYN_OP_CONV_GROUPED, sizeof(zyn_conv_param)},
                                  {ZYN_OP_CONV_TRANSPOSED, sizeof(zyn_conv_param)},
                                  {ZYN_OP_CONV_ACT, sizeof(zyn_conv_param)},
                                  {ZYN_OP_CONV_BN, sizeof(zyn_conv_param)},
                                  {ZYN_OP_FUNCTION, sizeof(zyn_func_param)},
                                  {ZYN_OP_BATCH_NORM, sizeof(zyn_bn_param)},
                                  {ZYN_OP_BATCH_NORM_FAST, sizeof(zyn_bn_param)},
                                  {ZYN_OP_MAX_POOL, sizeof(zyn_pool_param)},
                                  {ZYN_OP_AVERAGE_POOL, sizeof(zyn_pool_param)},
                                  {ZYN_OP_LINEAR, sizeof(zyn_linear_param)},
                                  {ZYN_OP_RESAMPLE, sizeof(zyn_resample_param)},
                                  {ZYN_OP_AFFINE, sizeof(zyn_affine_param)},
                                  {ZYN_OP_CONCAT, sizeof(zyn_concat_param)},
                                  {ZYN_OP_CHANNEL_SLICE, sizeof(zyn_slice_param)},
                                  {ZYN_OP_CHANNEL_GATHER, sizeof(zyn_gather_param)}};

constexpr zyn_cg_further_record kFurther[] = {
    {ZYN_OP_RESAMPLE, ZYN_RESAMPLE_MAX_WINDOW, ZYN_RESAMPLE_AVERAGE_WINDOW, 13, "WINDOW"},
    {ZYN_OP_RESAMPLE, ZYN_RESAMPLE_RESIZE_NEAREST, ZYN_RESAMPLE_RESIZE_BILINEAR, 7, "RESIZE"},
    {ZYN_OP_RESAMPLE, ZYN_RESAMPLE_REDUCE, ZYN_RESAMPLE_REDUCE, 3, "REDUCE"},
    {ZYN_OP_AFFINE, ZYN_JOIN_MATMUL, ZYN_JOIN_ADD, 2, "JOIN"},
    {ZYN_OP_CHANNEL_GATHER, ZYN_MOVE_PERMUTE, ZYN_MOVE_PERMUTE, 6, "PERMUTE"},
    {ZYN_OP_CHANNEL_GATHER, ZYN_MOVE_PAD, ZYN_MOVE_PAD, 13, "PAD"},
    {ZYN_OP_CHANNEL_GATHER, ZYN_MOVE_SHUFFLE, ZYN_MOVE_SHUFFLE, 2, "SHUFFLE"},
    {ZYN_OP_CHANNEL_GATHER, ZYN_MOVE_PART, ZYN_MOVE_PART, 5, "PART"}};
constexpr int64_t kWordBytes = sizeof(int32_t);
static_assert(
    sizeof(zyn_window_param) == 13 * kWordBytes && sizeof(zyn_resize_param) == 7 * kWordBytes &&
        sizeof(zyn_reduce_param) == 3 * kWordBytes && sizeof(zyn_join_param) == 2 * kWordBytes &&
        sizeof(zyn_permute_param) == 6 * kWordBytes && sizeof(zyn_pad_param) == 13 * kWordBytes &&
        sizeof(zyn_shuffle_param) == 2 * kWordBytes && sizeof(zyn_part_param) == 5 * kWordBytes,
    "records without gaps");

// A record of bytes that points at count numbers, and those behind it; the place of the
// numbers is the caller's to enter.
void* copy_with_list(const void* param, int64_t bytes, const int32_t* list, int32_t count,
                     int32_t** copied) {
  int64_t total = 0;
  if (count < 0 || !list) count = 0;
  if (!zyn_sum(bytes, int64_t{count} * static_cast<int64_t>(sizeof(int32_t)), &total))
    return nullptr;
  auto* block = static_cast<uint8_t*>(zyn_malloc(total));
  if (!block) return nullptr;
  memcpy(block, param, static_cast<size_t>(bytes));
  *copied = reinterpret_cast<int32_t*>(block + bytes);
  if (count > 0) memcpy(*copied, list, static_cast<size_t>(count) * sizeof(int32_t));
  return block;
}

}  // namespace

const zyn_cg_further_record* zyn_cg_find_further(int32_t type, int32_t first_word) {
  for (const zyn_cg_further_record& row : kFurther)
    if (row.type == type && first_word >= row.first && first_word <= row.last) return &row;
  return nullptr;
}

bool zyn_cg_copy_record(int32_t type, const void* param, void** copy) {
  *copy = nullptr;
  int32_t* list = nullptr;
  if (!param) return true;
  if (const zyn_cg_further_record* further = zyn_cg_find_further(type, zyn_cg_first_word(param))) {
    *copy = copy_with_list(param, further->words * kWordBytes, nullptr, 0, &list);
    return *copy != nullptr;
  }
  if (type == ZYN_OP_RESHAPE) {  // only the extents in use: the caller's record may end there
    const auto* source = static_cast<const zyn_reshape_param*>(param);
    auto* reshape = static_cast<zyn_reshape_param*>(zyn_calloc(1, sizeof(zyn_reshape_param)));
    if (!reshape) return false;
    reshape->count = source->count;
    const int32_t extents = source->count <= 5 ? source->count : 0;  // too many: none is read
    for (int32_t i = 0; i < extents; i++) reshape->dims[i] = source->dims[i];
    *copy = reshape;
    return true;
  }
  for (const record_size& row : kSizes) {
    if (row.type != type) continue;
    const auto* concat = static_cast<const zyn_concat_param*>(param);
    const auto* gather = static_cast<const zyn_gather_param*>(param);
    if (type == ZYN_OP_CONCAT) {
      *copy = copy_with_list(param, row.bytes, concat->nodes, concat->count, &list);
      if (*copy) static_cast<zyn_concat_param*>(*copy)->nodes = list;
    } else if (type == ZYN_OP_CHANNEL_GATHER) {
      *copy = copy_with_list(param, row.bytes, gather->channels, gather->count, &list);
      if (*copy) static_cast<zyn_gather_param*>(*copy)->channels = list;
    } else {
      *copy = copy_with_list(param, row.bytes, nullptr, 0, &list);
    }
    return *copy != nullptr;
  }
  return true;
}

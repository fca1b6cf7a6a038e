// Parameter records are rows of 32-bit fields without gaps, so that most of them are their
// own words; lists follow their count, and what is not read is left out.
#include "net/zyn_net_params.h"

#include <string.h>

#include "base/zyn_explain.h"
#include "cg/cpu/zyn_cg_records.h"

namespace {

constexpr int64_t kMostChannels = INT32_MAX;

// The words of a type's record that are written as they lie in it.
struct plain_words {
  uint32_t type;
  int64_t words;
};
constexpr plain_words kPlainWords[] = {{ZYN_OP_CONV, 16},
                                       {ZYN_OP_CONV_DEPTHWISE, 16},
                                       {ZYN_OP_CONV_POINTWISE, 16},
                                       {ZYN_OP_CONV_GROUPED, 16},
                                       {ZYN_OP_CONV_TRANSPOSED, 16},
                                       {ZYN_OP_CONV_ACT, 16},
                                       {ZYN_OP_CONV_BN, 16},
                                       {ZYN_OP_FUNCTION, 3},
                                       {ZYN_OP_BATCH_NORM, 1},
                                       {ZYN_OP_BATCH_NORM_FAST, 1},
                                       {ZYN_OP_MAX_POOL, 4},
                                       {ZYN_OP_AVERAGE_POOL, 4},
                                       {ZYN_OP_LINEAR, 3},
                                       {ZYN_OP_RESAMPLE, 3},
                                       {ZYN_OP_AFFINE, 2},
                                       {ZYN_OP_CONCAT, 1},
                                       {ZYN_OP_CHANNEL_SLICE, 5},
                                       {ZYN_OP_INPUT, 0},
                                       {ZYN_OP_CONSTANT, 0},
                                       {ZYN_OP_SIGMOID, 0},
                                       {ZYN_OP_RELU, 0},
                                       {ZYN_OP_RELU6, 0},
                                       {ZYN_OP_HARD_SWISH, 0},
                                       {ZYN_OP_MISH, 0},
                                       {ZYN_OP_ADD, 0},
                                       {ZYN_OP_MULTIPLY, 0}};
static_assert(sizeof(zyn_conv_param) == 64 && sizeof(zyn_func_param) == 12 &&
                  sizeof(zyn_linear_param) == 12 && sizeof(zyn_resample_param) == 12 &&
                  sizeof(zyn_affine_param) == 8 && sizeof(zyn_slice_param) == 20,
              "records without gaps");

int32_t append_list(int32_t count, const int32_t* list, int32_t most, zyn_list<uint32_t>* words) {
  if (count < 1 || count > most || !list)
    return zyn_refuse(ZYN_RET_ERR_PARA, "a list of 1 to %d entries is needed, found %d", most,
                      count);
  const int64_t before = words->count();
  if (words->push(static_cast<uint32_t>(count)) &&
      words->append(reinterpret_cast<const uint32_t*>(list), count))
    return ZYN_RET_OK;
  words->cut(before);
  return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for a list of %d words", count);
}

}  // namespace

bool zyn_net_param_words(uint32_t type, int32_t first_word, int64_t* least, int64_t* most) {
  if (const auto* further = zyn_cg_find_further(static_cast<int32_t>(type), first_word)) {
    *least = *most = further->words;
    return true;
  }
  for (const plain_words& row : kPlainWords) {
    if (row.type != type) continue;
    *least = *most = row.words;
    return true;
  }
  *least = 2;
  *most = type == ZYN_OP_RESHAPE ? 6 : 1 + kMostChannels;
  return type == ZYN_OP_RESHAPE || type == ZYN_OP_CHANNEL_GATHER;
}

const void* zyn_net_read_param(uint32_t type, const uint32_t* words, int64_t count,
                               const int32_t* inputs, int32_t input_count, zyn_net_param* param) {
  int64_t least = 0, most = 0;
  const int32_t first_word = count > 0 ? static_cast<int32_t>(words[0]) : 0;
  if (!zyn_net_param_words(type, first_word, &least, &most) || most == 0) return nullptr;
  memset(param, 0, sizeof(*param));
  if (type == ZYN_OP_CHANNEL_GATHER && first_word > 0) {
    param->gather = {static_cast<int32_t>(words[0]), reinterpret_cast<const int32_t*>(words + 1)};
  } else if (type == ZYN_OP_CONCAT) {
    param->concat = {static_cast<int32_t>(words[0]), input_count, inputs};
  } else {
    const int64_t used = type == ZYN_OP_RESHAPE ? int64_t{words[0]} + 1 : least;
    memcpy(param, words, static_cast<size_t>(used) * sizeof(uint32_t));
  }
  return param;
}

int32_t zyn_net_write_param(uint32_t type, const void* param, zyn_list<uint32_t>* words) {
  int64_t least = 0, most = 0;
  if (!zyn_net_param_words(type, 0, &least, &most))
    return zyn_refuse(ZYN_RET_ERR_PARA, "a file holds no operators of type %u", type);
  if (most == 0) return ZYN_RET_OK;
  if (!param) return zyn_refuse(ZYN_RET_ERR_PARA, "operators of type %u need a record", type);
  const auto* further = zyn_cg_find_further(static_cast<int32_t>(type), zyn_cg_first_word(param));
  if (further) least = further->words;
  if (type == ZYN_OP_RESHAPE) {
    const auto* reshape = static_cast<const zyn_reshape_param*>(param);
    return append_list(reshape->count, reshape->dims, 5, words);
  }
  if (type == ZYN_OP_CHANNEL_GATHER && !further) {
    const auto* gather = static_cast<const zyn_gather_param*>(param);
    return append_list(gather->count, gather->channels, INT32_MAX, words);
  }
  if (words->append(static_cast<const uint32_t*>(param), least)) return ZYN_RET_OK;
  return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for a record of %lld words",
                    static_cast<long long>(least));
}

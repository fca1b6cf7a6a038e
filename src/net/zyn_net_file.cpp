// Checking a network file: every count, offset, index and product before anything is read
// through it.
#include "net/zyn_net_file.h"

#include <math.h>
#include <stdio.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_md5.h"
#include "base/zyn_memory.h"
#include "base/zyn_platform.h"
#include "cg/cpu/zyn_cg.h"
#include "net/zyn_net_params.h"

namespace {

constexpr int64_t kMostFileBytes = int64_t{1} << 31;
constexpr int64_t kMostElements = INT32_MAX;
constexpr int32_t kRefused = ZYN_RET_ERR_PARA;
// Most inputs, outputs and metadata: their names are compared with each other.
constexpr int64_t kMostNamed = 1024;
// Edges and shared memory are found by comparing nodes with each other.
constexpr int64_t kMostNodes = 16384;

const char* const kSectionNames[ZYN_FILE_SECTIONS] = {
    "",       "texts",   "nodes",         "words",   "constants", "data",
    "inputs", "outputs", "fraction bits", "methods", "metadata"};

// Whether the bytes are UTF-8 (RFC 3629) without a zero.
bool is_utf8(const char* text, int64_t length) {
  int64_t i = 0;
  while (i < length) {
    const auto lead = static_cast<uint8_t>(text[i++]);
    if (lead == 0) return false;
    if (lead < 0x80) continue;
    const int64_t more = lead >= 0xC2 && lead < 0xE0   ? 1
                         : lead >= 0xE0 && lead < 0xF0 ? 2
                         : lead >= 0xF0 && lead < 0xF5 ? 3
                                                       : 0;
    if (more == 0 || more > length - i) return false;
    const auto next = static_cast<uint8_t>(text[i]);
    // Longer forms than needed, halves of pairs, and what lies above the last code.
    if ((lead == 0xE0 && next < 0xA0) || (lead == 0xED && next > 0x9F) ||
        (lead == 0xF0 && next < 0x90) || (lead == 0xF4 && next > 0x8F))
      return false;
    for (int64_t k = 0; k < more; k++)
      if ((static_cast<uint8_t>(text[i++]) & 0xC0) != 0x80) return false;
  }
  return true;
}

// The extents' product; false where an extent is not one or the product is too large.
bool count_elements(uint32_t dim_count, const int32_t (&dims)[5], int64_t* count) {
  if (dim_count < 1 || dim_count > 5) return false;
  *count = 1;
  for (uint32_t i = 0; i < 5; i++) {
    if (i >= dim_count) {
      if (dims[i] != 0) return false;
      continue;
    }
    if (dims[i] < 1 || !zyn_multiply(*count, dims[i], count) || *count > kMostElements)
      return false;
  }
  return true;
}

bool all_finite(const float (&values)[3]) {
  return isfinite(values[0]) && isfinite(values[1]) && isfinite(values[2]);
}

}  // namespace

int64_t zyn_file_record_bytes(uint32_t section) {
  switch (section) {
    case ZYN_FILE_TEXTS:
      return 1;
    case ZYN_FILE_NODES:
      return sizeof(zyn_file_node);
    case ZYN_FILE_CONSTANTS:
      return sizeof(zyn_file_constant);
    case ZYN_FILE_INPUTS:
      return sizeof(zyn_file_input);
    case ZYN_FILE_OUTPUTS:
      return sizeof(zyn_file_output);
    case ZYN_FILE_METADATA:
      return sizeof(zyn_file_metadata);
    default:
      return sizeof(uint32_t);
  }
}

void* zyn_net_read_file(const char* path, int64_t* size) {
  if (!path) {
    zyn_explain("the file's name is null");
    return nullptr;
  }
  FILE* file = zyn_platform_open(path, "rb");
  if (!file) {
    zyn_explain("'%s' cannot be opened", path);
    return nullptr;
  }
  zyn_file_frame frame = {};
  const bool framed = fread(&frame, sizeof(frame), 1, file) == 1 &&
                      memcmp(frame.magic, kZynFileMagic, sizeof(frame.magic)) == 0;
  const bool usual = framed && frame.byte_order == kZynFileByteOrder;
  if (framed && usual && frame.size > static_cast<uint64_t>(kMostFileBytes)) {
    zyn_explain("'%s' says that it has %llu bytes; at most 2^31 are read", path,
                static_cast<unsigned long long>(frame.size));
    fclose(file);
    return nullptr;
  }
  // One byte more than the frame says: what is behind the end is noticed. A file without a
  // frame is read as far as it takes to say what is wrong with it.
  const int64_t least = sizeof(frame) + kZynFileDigestBytes;
  int64_t bytes = usual ? static_cast<int64_t>(frame.size) : least;
  if (bytes < least) bytes = least;
  zyn_scratch<uint8_t> data(bytes + 1);
  if (!data)
    zyn_explain("no memory for the %lld bytes of '%s'", static_cast<long long>(bytes), path);
  if (data) {
    rewind(file);
    *size = static_cast<int64_t>(fread(data.get(), 1, static_cast<size_t>(bytes) + 1, file));
  }
  fclose(file);
  return data.take();
}

int32_t zyn_net_file::open(const void* data, int64_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (const int32_t code = check_frame(bytes, size)) return code;
  if (const int32_t code = find_sections(bytes, size)) return code;
  if (const int32_t code = check_constants()) return code;
  if (const int32_t code = check_nodes()) return code;
  if (const int32_t code = check_ports()) return code;
  return check_metadata();
}

// Magic, byte order, version, size and digest.
int32_t zyn_net_file::check_frame(const uint8_t* data, int64_t size) const {
  zyn_file_frame frame;
  const int64_t least = static_cast<int64_t>(sizeof(frame)) + kZynFileDigestBytes;
  if (!data || size < least)
    return zyn_refuse(kRefused, "a network file has at least %lld bytes, found %lld",
                      static_cast<long long>(least), static_cast<long long>(size));
  memcpy(&frame, data, sizeof(frame));
  if (memcmp(frame.magic, kZynFileMagic, sizeof(kZynFileMagic)) != 0)
    return zyn_refuse(kRefused, "this is no network file: it does not begin with \"ZYNNET\"");
  if (frame.byte_order == __builtin_bswap32(kZynFileByteOrder))
    return zyn_refuse(kRefused,
                      "the file was written in big-endian byte order; network files "
                      "are little-endian");
  if (frame.byte_order != kZynFileByteOrder)
    return zyn_refuse(kRefused, "the byte-order mark is 0x%08X, 0x01020304 is expected",
                      frame.byte_order);
  if (frame.version != kZynFileVersion)
    return zyn_refuse(kRefused, "the file has version %u, this library reads version %u",
                      frame.version, kZynFileVersion);
  if (frame.size != static_cast<uint64_t>(size))
    return zyn_refuse(kRefused, "the file says that it has %llu bytes, found %lld: it is %s",
                      static_cast<unsigned long long>(frame.size), static_cast<long long>(size),
                      frame.size > static_cast<uint64_t>(size) ? "cut short" : "too long");
  zyn_md5_ctx md5;
  uint8_t digest[kZynFileDigestBytes];
  zyn_md5_start(&md5);
  zyn_md5_update(&md5, data, size - kZynFileDigestBytes);
  zyn_md5_finish(&md5, digest);
  if (memcmp(digest, data + size - kZynFileDigestBytes, sizeof(digest)) != 0)
    return zyn_refuse(kRefused,
                      "the digest at the file's end does not match its content: the "
                      "file is damaged");
  return ZYN_RET_OK;
}

int32_t zyn_net_file::find_sections(const uint8_t* data, int64_t size) {
  zyn_file_frame frame;
  memcpy(&frame, data, sizeof(frame));
  const int64_t end = size - kZynFileDigestBytes;
  const int64_t table = sizeof(zyn_file_frame);
  if (frame.sections < 1 || frame.sections > kZynFileMostSections || frame.zero != 0 ||
      table + frame.sections * static_cast<int64_t>(sizeof(zyn_file_row)) > end)
    return zyn_refuse(kRefused, "the section table does not fit: %u sections", frame.sections);
  int64_t from = table + frame.sections * static_cast<int64_t>(sizeof(zyn_file_row));
  uint32_t seen = 0;
  for (uint32_t i = 0; i < frame.sections; i++) {
    zyn_file_row row;
    memcpy(&row, data + table + i * sizeof(row), sizeof(row));
    if (row.offset < static_cast<uint64_t>(from) || row.offset > static_cast<uint64_t>(end) ||
        row.size > static_cast<uint64_t>(end) - row.offset)
      return zyn_refuse(kRefused,
                        "section %u (id %u) lies at %llu with %llu bytes: %lld to %lld is free", i,
                        row.id, static_cast<unsigned long long>(row.offset),
                        static_cast<unsigned long long>(row.size), static_cast<long long>(from),
                        static_cast<long long>(end));
    from = static_cast<int64_t>(row.offset + row.size);
    if (row.id == 0 || row.id >= ZYN_FILE_SECTIONS) continue;
    const int64_t record = zyn_file_record_bytes(row.id);
    if (static_cast<int64_t>(row.offset) % zyn_file_alignment(row.id) != 0 ||
        row.size != static_cast<uint64_t>(row.count) * static_cast<uint64_t>(record) ||
        (seen >> row.id & 1) != 0)
      return zyn_refuse(kRefused,
                        "section \"%s\" is there twice, not aligned, or not %u records of %lld "
                        "bytes",
                        kSectionNames[row.id], row.count, static_cast<long long>(record));
    seen |= 1u << row.id;
    sections_[row.id] = {data + row.offset, static_cast<int64_t>(row.count)};
  }
  const uint32_t needed[] = {ZYN_FILE_NODES, ZYN_FILE_INPUTS, ZYN_FILE_OUTPUTS};
  for (const uint32_t id : needed)
    if (count(id) < 1) return zyn_refuse(kRefused, "the file has no %s", kSectionNames[id]);
  const uint32_t named[] = {ZYN_FILE_INPUTS, ZYN_FILE_OUTPUTS, ZYN_FILE_METADATA};
  for (const uint32_t id : named)
    if (count(id) > kMostNamed)
      return zyn_refuse(kRefused, "section \"%s\" has %lld records, at most %lld are read",
                        kSectionNames[id], static_cast<long long>(count(id)),
                        static_cast<long long>(kMostNamed));
  const uint32_t per_node[] = {ZYN_FILE_Q, ZYN_FILE_METHODS};
  for (const uint32_t id : per_node)
    if (count(id) != 0 && count(id) != count(ZYN_FILE_NODES))
      return zyn_refuse(kRefused, "section \"%s\" has %lld entries for %lld nodes",
                        kSectionNames[id], static_cast<long long>(count(id)),
                        static_cast<long long>(count(ZYN_FILE_NODES)));
  return ZYN_RET_OK;
}

bool zyn_net_file::holds(const zyn_file_text& t, uint32_t least, uint32_t most) const {
  const int64_t bytes = count(ZYN_FILE_TEXTS);
  return t.length >= least && t.length <= most && t.offset <= bytes &&
         t.length <= bytes - t.offset && is_utf8(text(t), t.length);
}

bool zyn_net_file::same(const zyn_file_text& a, const zyn_file_text& b) const {
  return a.length == b.length && memcmp(text(a), text(b), a.length) == 0;
}

int32_t zyn_net_file::check_constants() const {
  const int64_t bytes = count(ZYN_FILE_DATA) * static_cast<int64_t>(sizeof(float));
  for (int64_t i = 0; i < count(ZYN_FILE_CONSTANTS); i++) {
    const zyn_file_constant c = constant(i);
    int64_t elements = 0;
    if (!count_elements(c.dim_count, c.dims, &elements) || c.type != ZYN_TYPE_F32 || c.zero != 0)
      return zyn_refuse(kRefused, "constant %lld: its extents or its type are out of range",
                        static_cast<long long>(i));
    const int64_t needed = elements * static_cast<int64_t>(sizeof(float));
    if (c.offset % sizeof(float) != 0 || needed > bytes ||
        c.offset > static_cast<uint64_t>(bytes - needed))
      return zyn_refuse(kRefused, "constant %lld: %lld floats at %llu do not lie in %lld bytes",
                        static_cast<long long>(i), static_cast<long long>(elements),
                        static_cast<unsigned long long>(c.offset), static_cast<long long>(bytes));
  }
  return ZYN_RET_OK;
}

int32_t zyn_net_file::check_nodes() const {
  if (count(ZYN_FILE_NODES) > kMostNodes)
    return zyn_refuse(kRefused, "the file has %lld nodes, at most %lld are read",
                      static_cast<long long>(count(ZYN_FILE_NODES)),
                      static_cast<long long>(kMostNodes));
  int64_t inputs_seen = 0, words_used = 0;
  for (int64_t id = 0; id < count(ZYN_FILE_NODES); id++) {
    const zyn_file_node n = node(id);
    if (const int32_t code = check_node(id, n)) return code;
    // What a graph takes grows with the words that its nodes use, and so with the file.
    words_used += int64_t{n.param.count} + n.inputs.count;
    if (words_used > count(ZYN_FILE_WORDS))
      return zyn_refuse(kRefused, "node %lld: the nodes share words", static_cast<long long>(id));
    // Inputs belong to their nodes in order, which makes each belong to exactly one.
    if (n.type == ZYN_OP_INPUT && n.data != inputs_seen++)
      return zyn_refuse(kRefused, "node %lld: input %u is not the next one",
                        static_cast<long long>(id), n.data);
  }
  if (inputs_seen != count(ZYN_FILE_INPUTS))
    return zyn_refuse(kRefused, "%lld input nodes for %lld inputs",
                      static_cast<long long>(inputs_seen),
                      static_cast<long long>(count(ZYN_FILE_INPUTS)));
  return ZYN_RET_OK;
}

int32_t zyn_net_file::check_node(int64_t id, const zyn_file_node& n) const {
  const auto number = static_cast<long long>(id);
  const auto words = static_cast<uint64_t>(count(ZYN_FILE_WORDS));
  int64_t least = 0, most = 0;
  if (!holds(n.name, 0, kZynFileMostText))
    return zyn_refuse(kRefused, "node %lld: its name does not lie in the texts", number);
  if (n.param.first > words || n.param.count > words - n.param.first || n.inputs.first > words ||
      n.inputs.count > words - n.inputs.first)
    return zyn_refuse(kRefused, "node %lld: its parameters or inputs do not lie in the words",
                      number);
  const auto first_word = n.param.count > 0 ? static_cast<int32_t>(word(n.param.first)) : 0;
  if (!zyn_net_param_words(n.type, first_word, &least, &most))
    return zyn_refuse(kRefused, "node %lld: operator type %u is not known", number, n.type);
  if (n.param.count < least || n.param.count > most)
    return zyn_refuse(kRefused, "node %lld: type %u has %lld to %lld parameter words, found %u",
                      number, n.type, static_cast<long long>(least), static_cast<long long>(most),
                      n.param.count);
  const bool listed = n.type == ZYN_OP_RESHAPE ||
                      (n.type == ZYN_OP_CHANNEL_GATHER && first_word > ZYN_MOVE_PERMUTE);
  if (listed && word(n.param.first) != n.param.count - 1)
    return zyn_refuse(kRefused, "node %lld: a list of %u entries says that it has %u", number,
                      n.param.count - 1, word(n.param.first));
  for (uint32_t i = 0; i < n.inputs.count; i++)
    if (word(n.inputs.first + int64_t{i}) >= static_cast<uint64_t>(id))
      return zyn_refuse(kRefused, "node %lld reads node %u, which does not stand before it", number,
                        word(n.inputs.first + int64_t{i}));
  const bool is_data = n.type == ZYN_OP_INPUT || n.type == ZYN_OP_CONSTANT;
  const uint32_t table = n.type == ZYN_OP_INPUT ? ZYN_FILE_INPUTS : ZYN_FILE_CONSTANTS;
  if (is_data ? n.data >= count(table) || n.inputs.count != 0
              : n.data != kZynFileNone || n.inputs.count == 0)
    return zyn_refuse(kRefused,
                      "node %lld: an operator reads at least one node, an input or "
                      "constant none and has data",
                      number);
  return ZYN_RET_OK;
}

int32_t zyn_net_file::check_ports() const {
  for (int64_t i = 0; i < count(ZYN_FILE_INPUTS); i++) {
    const zyn_file_input p = input(i);
    int64_t elements = 0;
    if (!holds(p.name, 1, kZynFileMostText) || !count_elements(p.dim_count, p.dims, &elements) ||
        p.channel_order > 3 || p.resize > 3 || p.leading > 8 || p.zero != 0 ||
        !all_finite(p.mean) || !all_finite(p.scale))
      return zyn_refuse(kRefused, "input %lld: its name, extents or preparation are out of range",
                        static_cast<long long>(i));
    for (int64_t k = 0; k < i; k++)
      if (same(input(k).name, p.name))
        return zyn_refuse(kRefused, "inputs %lld and %lld have one name", static_cast<long long>(k),
                          static_cast<long long>(i));
  }
  for (int64_t i = 0; i < count(ZYN_FILE_OUTPUTS); i++) {
    const zyn_file_output p = output(i);
    if (!holds(p.name, 1, kZynFileMostText) || p.node >= count(ZYN_FILE_NODES) ||
        node(p.node).type == ZYN_OP_INPUT || node(p.node).type == ZYN_OP_CONSTANT ||
        p.meaning > ZYN_NET_MEANING_FEATURES || p.leading > 8 || p.zero != 0)
      return zyn_refuse(kRefused, "output %lld: its name, node or meaning is out of range",
                        static_cast<long long>(i));
    for (int64_t k = 0; k < i; k++)
      if (same(output(k).name, p.name))
        return zyn_refuse(kRefused, "outputs %lld and %lld have one name",
                          static_cast<long long>(k), static_cast<long long>(i));
  }
  for (int64_t i = 0; i < count(ZYN_FILE_METHODS); i++)
    if (method(i) >= kZynMethods && method(i) != kZynFileNone)
      return zyn_refuse(kRefused, "node %lld: there is no method %u", static_cast<long long>(i),
                        method(i));
  return ZYN_RET_OK;
}

int32_t zyn_net_file::check_metadata() const {
  for (int64_t i = 0; i < count(ZYN_FILE_METADATA); i++) {
    const zyn_file_metadata m = metadata(i);
    if (!holds(m.key, 1, kZynFileMostText) || !holds(m.value, 0, kZynFileMostValue))
      return zyn_refuse(kRefused, "metadata %lld: its texts do not lie in the texts",
                        static_cast<long long>(i));
    for (int64_t k = 0; k < i; k++)
      if (same(metadata(k).key, m.key))
        return zyn_refuse(kRefused, "metadata %lld and %lld have one key",
                          static_cast<long long>(k), static_cast<long long>(i));
  }
  return ZYN_RET_OK;
}

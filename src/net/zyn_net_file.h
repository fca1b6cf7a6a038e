// The network file (docs/network-file.md) in memory: a view that has been checked whole,
// so that whoever reads through it needs no check of its own, and the tables that reader
// and writer share.
#pragma once

#include <stdint.h>

#include "base/zyn_list.h"
#include "zyncore_net.h"

// Sections by id.
enum zyn_file_section : uint32_t {
  ZYN_FILE_TEXTS = 1,
  ZYN_FILE_NODES,
  ZYN_FILE_WORDS,
  ZYN_FILE_CONSTANTS,
  ZYN_FILE_DATA,
  ZYN_FILE_INPUTS,
  ZYN_FILE_OUTPUTS,
  ZYN_FILE_Q,
  ZYN_FILE_METHODS,
  ZYN_FILE_METADATA,
  ZYN_FILE_SECTIONS  // one more than the last id
};

// Records as they lie in the file; all multiples of 4 bytes and free of gaps.
struct zyn_file_text {
  uint32_t offset, length;
};
struct zyn_file_words {
  uint32_t first, count;
};
struct zyn_file_frame {
  uint8_t magic[8];
  uint32_t byte_order, version;
  uint64_t size;
  uint32_t sections, zero;
};
struct zyn_file_row {
  uint32_t id, count;
  uint64_t offset, size;
};
struct zyn_file_node {
  uint32_t type;
  zyn_file_text name;
  zyn_file_words param, inputs;
  uint32_t data;
};
struct zyn_file_constant {
  uint64_t offset;
  uint32_t dim_count;
  int32_t dims[5];
  uint32_t type, zero;
};
struct zyn_file_input {
  zyn_file_text name;
  uint32_t dim_count;
  int32_t dims[5];
  uint32_t channel_order, resize;
  float mean[3], scale[3];
  uint32_t leading, zero;
};
struct zyn_file_output {
  zyn_file_text name;
  uint32_t node, meaning, leading, zero;
};
struct zyn_file_metadata {
  zyn_file_text key, value;
};
static_assert(sizeof(zyn_file_frame) == 32 && sizeof(zyn_file_row) == 24 &&
                  sizeof(zyn_file_node) == 32 && sizeof(zyn_file_constant) == 40 &&
                  sizeof(zyn_file_input) == 72 && sizeof(zyn_file_output) == 24 &&
                  sizeof(zyn_file_metadata) == 16,
              "records of the file");

inline constexpr uint8_t kZynFileMagic[8] = {'Z', 'Y', 'N', 'N', 'E', 'T', '\r', '\n'};
inline constexpr uint32_t kZynFileByteOrder = 0x01020304;
inline constexpr uint32_t kZynFileVersion = 1;
inline constexpr int64_t kZynFileDigestBytes = 16;
inline constexpr uint32_t kZynFileNone = 0xFFFFFFFFu;
inline constexpr uint32_t kZynFileMostText = 255;     // bytes of a name
inline constexpr uint32_t kZynFileMostValue = 65535;  // bytes of a metadata value
inline constexpr uint32_t kZynFileMostSections = 16;

// Bytes of one record of a section, and the multiple at which it begins.
int64_t zyn_file_record_bytes(uint32_t section);
inline int64_t zyn_file_alignment(uint32_t section) { return section == ZYN_FILE_DATA ? 64 : 8; }

// A file's bytes, which zyn_free frees; null with an explanation. The frame is read first, so that
// a file of another kind is not read whole.
void* zyn_net_read_file(const char* path, int64_t* size);

// A file in memory whose every rule has been checked. Records are read by copy: the memory
// need not be aligned.
class zyn_net_file {
 public:
  // Checks size bytes at data, which must stay while the view is used. 0, or 1 with an
  // explanation. Nothing is allocated.
  int32_t open(const void* data, int64_t size);

  int64_t count(uint32_t section) const { return sections_[section].count; }
  zyn_file_node node(int64_t i) const { return record<zyn_file_node>(ZYN_FILE_NODES, i); }
  zyn_file_constant constant(int64_t i) const {
    return record<zyn_file_constant>(ZYN_FILE_CONSTANTS, i);
  }
  zyn_file_input input(int64_t i) const { return record<zyn_file_input>(ZYN_FILE_INPUTS, i); }
  zyn_file_output output(int64_t i) const { return record<zyn_file_output>(ZYN_FILE_OUTPUTS, i); }
  zyn_file_metadata metadata(int64_t i) const {
    return record<zyn_file_metadata>(ZYN_FILE_METADATA, i);
  }
  uint32_t word(int64_t i) const { return record<uint32_t>(ZYN_FILE_WORDS, i); }
  // Of a node; 0 and kZynFileNone where the file does not say.
  int32_t q(int64_t node) const {
    return count(ZYN_FILE_Q) ? record<int32_t>(ZYN_FILE_Q, node) : 0;
  }
  uint32_t method(int64_t node) const {
    return count(ZYN_FILE_METHODS) ? record<uint32_t>(ZYN_FILE_METHODS, node) : kZynFileNone;
  }
  // Puts all records of a section behind a list's; false without memory.
  template <typename Record>
  bool copy(uint32_t section, zyn_list<Record>* list) const {
    if (!list->reserve(count(section))) return false;
    for (int64_t i = 0; i < count(section); i++) list->push(record<Record>(section, i));
    return true;
  }
  // The bytes of a text (not ended by a zero), and of a constant's values.
  const char* text(const zyn_file_text& text) const {
    return reinterpret_cast<const char*>(sections_[ZYN_FILE_TEXTS].at) + text.offset;
  }
  const uint8_t* values(const zyn_file_constant& constant) const {
    return sections_[ZYN_FILE_DATA].at + constant.offset;
  }

 private:
  struct section {
    const uint8_t* at;
    int64_t count;
  };
  template <typename Record>
  Record record(uint32_t section, int64_t i) const {
    Record r;
    __builtin_memcpy(&r, sections_[section].at + i * static_cast<int64_t>(sizeof(Record)),
                     sizeof(Record));
    return r;
  }

  int32_t check_frame(const uint8_t* data, int64_t size) const;
  int32_t find_sections(const uint8_t* data, int64_t size);
  int32_t check_nodes() const;
  int32_t check_node(int64_t id, const zyn_file_node& node) const;
  int32_t check_constants() const;
  int32_t check_ports() const;
  int32_t check_metadata() const;
  bool holds(const zyn_file_text& text, uint32_t least, uint32_t most) const;
  bool same(const zyn_file_text& a, const zyn_file_text& b) const;

  section sections_[ZYN_FILE_SECTIONS] = {};
};

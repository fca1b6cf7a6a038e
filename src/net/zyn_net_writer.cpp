// Writing network files: the sections grow in memory as nodes are added, and are put
// behind each other at the end.
#include <math.h>
#include <stdio.h>
#include <string.h>

#include <new>

#include "base/zyn_explain.h"
#include "base/zyn_list.h"
#include "base/zyn_md5.h"
#include "base/zyn_platform.h"
#include "cg/cpu/zyn_cg.h"
#include "net/zyn_net_file.h"
#include "net/zyn_net_params.h"

struct zyn_net_writer {
  zyn_list<char> texts;
  zyn_list<zyn_file_node> nodes;
  zyn_list<uint32_t> words;
  zyn_list<zyn_file_constant> constants;
  zyn_list<float> data;
  zyn_list<zyn_file_input> inputs;
  zyn_list<zyn_file_output> outputs;
  zyn_list<int32_t> q;         // per node
  zyn_list<uint32_t> methods;  // per node
  zyn_list<zyn_file_metadata> metadata;
  bool has_q, has_methods;
};

namespace {

constexpr int64_t kDataFloats = 64 / sizeof(float);  // constants begin at multiples of it

int32_t no_memory() { return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the network"); }

// Gives the lists of a writer back their lengths unless what was begun succeeds.
class writer_step {
 public:
  explicit writer_step(zyn_net_writer* writer)
      : writer_(writer),
        texts_(writer->texts.count()),
        nodes_(writer->nodes.count()),
        words_(writer->words.count()),
        constants_(writer->constants.count()),
        data_(writer->data.count()),
        inputs_(writer->inputs.count()) {}
  ~writer_step() {
    if (done_) return;
    writer_->texts.cut(texts_);
    writer_->nodes.cut(nodes_);
    writer_->q.cut(nodes_);
    writer_->methods.cut(nodes_);
    writer_->words.cut(words_);
    writer_->constants.cut(constants_);
    writer_->data.cut(data_);
    writer_->inputs.cut(inputs_);
  }
  writer_step(const writer_step&) = delete;
  writer_step& operator=(const writer_step&) = delete;
  void keep() { done_ = true; }

 private:
  zyn_net_writer* writer_;
  int64_t texts_, nodes_, words_, constants_, data_, inputs_;
  bool done_ = false;
};

int32_t add_text(zyn_net_writer* writer, const char* text, size_t least, size_t most,
                 zyn_file_text* where) {
  const size_t length = text ? strlen(text) : 0;
  if (length < least || length > most)
    return zyn_refuse(ZYN_RET_ERR_PARA, "a text of %zu to %zu bytes is needed, found %zu", least,
                      most, length);
  *where = {static_cast<uint32_t>(writer->texts.count()), static_cast<uint32_t>(length)};
  return writer->texts.append(text, static_cast<int64_t>(length)) ? ZYN_RET_OK : no_memory();
}

// Adds a node whose other fields are set; its id or -1.
int32_t add_node(zyn_net_writer* writer, const char* name, zyn_file_node node) {
  if (add_text(writer, name, 0, kZynFileMostText, &node.name) != ZYN_RET_OK) return -1;
  if (!writer->nodes.push(node) || !writer->q.push(0) || !writer->methods.push(kZynFileNone)) {
    no_memory();
    return -1;
  }
  return static_cast<int32_t>(writer->nodes.count() - 1);
}

bool same_text(const zyn_net_writer* writer, const zyn_file_text& a, const char* b) {
  return a.length == strlen(b) && memcmp(writer->texts.data() + a.offset, b, a.length) == 0;
}

template <typename Row>
bool has_name(const zyn_net_writer* writer, const zyn_list<Row>& rows, const char* name) {
  for (int64_t i = 0; i < rows.count(); i++)
    if (same_text(writer, rows[i].name, name)) return true;
  return false;
}

bool is_node(const zyn_net_writer* writer, int32_t node) {
  return writer && node >= 0 && node < writer->nodes.count();
}

// The file being put together.
class file_bytes {
 public:
  explicit file_bytes(zyn_list<uint8_t>* bytes) : bytes_(bytes) {}

  bool pad(int64_t alignment) {
    static constexpr uint8_t kZeros[64] = {};
    return bytes_->append(kZeros, (alignment - bytes_->count() % alignment) % alignment);
  }
  // Appends a section and fills the next row of the table with it.
  template <typename Record>
  bool section(uint32_t id, const zyn_list<Record>& records, int64_t row) {
    if (!pad(zyn_file_alignment(id))) return false;
    const int64_t size = records.count() * static_cast<int64_t>(sizeof(Record));
    const zyn_file_row written = {id, static_cast<uint32_t>(records.count()),
                                  static_cast<uint64_t>(bytes_->count()),
                                  static_cast<uint64_t>(size)};
    memcpy(bytes_->data() + sizeof(zyn_file_frame) + row * sizeof(written), &written,
           sizeof(written));
    return bytes_->append(reinterpret_cast<const uint8_t*>(records.data()), size);
  }

 private:
  zyn_list<uint8_t>* bytes_;
};

// Everything but the digest, with the frame's size still open.
bool put_sections(const zyn_net_writer* writer, zyn_list<uint8_t>* bytes) {
  uint32_t sections = ZYN_FILE_SECTIONS - 1;
  if (!writer->has_q) sections--;
  if (!writer->has_methods) sections--;
  zyn_file_frame frame = {};
  memcpy(frame.magic, kZynFileMagic, sizeof(frame.magic));
  frame.byte_order = kZynFileByteOrder;
  frame.version = kZynFileVersion;
  frame.sections = sections;
  zyn_scratch<uint8_t> table =
      zyn_scratch<uint8_t>::zeroed(sections * static_cast<int64_t>(sizeof(zyn_file_row)));
  if (!table || !bytes->append(reinterpret_cast<const uint8_t*>(&frame), sizeof(frame)) ||
      !bytes->append(table.get(), sections * static_cast<int64_t>(sizeof(zyn_file_row))))
    return false;
  file_bytes file(bytes);
  int64_t row = 0;
  return file.section(ZYN_FILE_TEXTS, writer->texts, row++) &&
         file.section(ZYN_FILE_NODES, writer->nodes, row++) &&
         file.section(ZYN_FILE_WORDS, writer->words, row++) &&
         file.section(ZYN_FILE_CONSTANTS, writer->constants, row++) &&
         file.section(ZYN_FILE_DATA, writer->data, row++) &&
         file.section(ZYN_FILE_INPUTS, writer->inputs, row++) &&
         file.section(ZYN_FILE_OUTPUTS, writer->outputs, row++) &&
         (!writer->has_q || file.section(ZYN_FILE_Q, writer->q, row++)) &&
         (!writer->has_methods || file.section(ZYN_FILE_METHODS, writer->methods, row++)) &&
         file.section(ZYN_FILE_METADATA, writer->metadata, row++) && file.pad(8);
}

int32_t put_file(const zyn_net_writer* writer, zyn_list<uint8_t>* bytes) {
  if (!writer) return zyn_refuse(ZYN_RET_ERR_PARA, "the writer is null");
  if (writer->inputs.count() < 1 || writer->outputs.count() < 1)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "a network needs an input and an output, found %lld and "
                      "%lld",
                      static_cast<long long>(writer->inputs.count()),
                      static_cast<long long>(writer->outputs.count()));
  if (writer->data.count() > UINT32_MAX || writer->texts.count() > UINT32_MAX ||
      writer->words.count() > UINT32_MAX)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "a network file holds at most 2^32 - 1 floats, words and "
                      "bytes of text");
  uint8_t digest[kZynFileDigestBytes];
  if (!put_sections(writer, bytes) || !bytes->reserve(kZynFileDigestBytes)) return no_memory();
  const auto size = static_cast<uint64_t>(bytes->count() + kZynFileDigestBytes);
  memcpy(bytes->data() + offsetof(zyn_file_frame, size), &size, sizeof(size));
  zyn_md5_ctx md5;
  zyn_md5_start(&md5);
  zyn_md5_update(&md5, bytes->data(), bytes->count());
  zyn_md5_finish(&md5, digest);
  bytes->append(digest, kZynFileDigestBytes);
  // A file that the reader would refuse is not written.
  zyn_net_file check;
  return check.open(bytes->data(), bytes->count());
}

// Fills an empty writer; false without memory. Records and what they refer to stay where they are
// in their sections.
bool copy_file(const zyn_net_file& file, zyn_net_writer* writer) {
  static constexpr float kZeros[kDataFloats] = {};
  const int64_t ragged = file.count(ZYN_FILE_DATA) % kDataFloats;
  if (!file.copy(ZYN_FILE_TEXTS, &writer->texts) || !file.copy(ZYN_FILE_NODES, &writer->nodes) ||
      !file.copy(ZYN_FILE_WORDS, &writer->words) ||
      !file.copy(ZYN_FILE_CONSTANTS, &writer->constants) ||
      !file.copy(ZYN_FILE_DATA, &writer->data) ||
      !writer->data.append(kZeros, ragged ? kDataFloats - ragged : 0) ||
      !file.copy(ZYN_FILE_INPUTS, &writer->inputs) ||
      !file.copy(ZYN_FILE_OUTPUTS, &writer->outputs) ||
      !file.copy(ZYN_FILE_METADATA, &writer->metadata))
    return false;
  for (int64_t id = 0; id < writer->nodes.count(); id++)
    if (!writer->q.push(file.q(id)) || !writer->methods.push(file.method(id))) return false;
  writer->has_q = file.count(ZYN_FILE_Q) > 0;
  writer->has_methods = file.count(ZYN_FILE_METHODS) > 0;
  return true;
}

}  // namespace

zyn_net_writer* zyn_net_writer_create() {
  void* block = zyn_malloc(sizeof(zyn_net_writer));
  if (!block) {
    no_memory();
    return nullptr;
  }
  return new (block) zyn_net_writer{};
}

zyn_net_writer* zyn_net_writer_load(const char* path) {
  int64_t size = 0;
  const zyn_scratch<uint8_t> bytes(static_cast<uint8_t*>(zyn_net_read_file(path, &size)));
  zyn_net_file file;
  if (!bytes || file.open(bytes.get(), size) != ZYN_RET_OK) return nullptr;
  zyn_net_writer* writer = zyn_net_writer_create();
  if (writer && !copy_file(file, writer)) {
    zyn_net_writer_release(&writer);
    no_memory();
  }
  return writer;
}

void zyn_net_writer_release(zyn_net_writer** writer) {
  if (!writer || !*writer) return;
  (*writer)->~zyn_net_writer();
  zyn_free(*writer);
  *writer = nullptr;
}

int32_t zyn_net_writer_input(zyn_net_writer* writer, const zyn_net_port* port) {
  if (!writer || !port || !port->name) {
    zyn_explain("the writer, the input or its name is null");
    return -1;
  }
  if (has_name(writer, writer->inputs, port->name)) {
    zyn_explain("there is an input '%s' already", port->name);
    return -1;
  }
  writer_step step(writer);
  zyn_file_input input = {};
  input.dim_count = static_cast<uint32_t>(port->dim_count);
  for (int32_t i = 0; i < port->dim_count && i < 5; i++) input.dims[i] = port->dims[i];
  input.channel_order = static_cast<uint32_t>(port->channel_order);
  input.resize = static_cast<uint32_t>(port->resize);
  memcpy(input.mean, port->mean, sizeof(input.mean));
  memcpy(input.scale, port->scale, sizeof(input.scale));
  input.leading = static_cast<uint32_t>(port->leading);
  zyn_file_node node = {};
  node.type = ZYN_OP_INPUT;
  node.data = static_cast<uint32_t>(writer->inputs.count());
  if (add_text(writer, port->name, 1, kZynFileMostText, &input.name) != ZYN_RET_OK) return -1;
  if (!writer->inputs.push(input)) {
    no_memory();
    return -1;
  }
  const int32_t id = add_node(writer, port->name, node);
  if (id >= 0) step.keep();
  return id;
}

int32_t zyn_net_writer_constant(zyn_net_writer* writer, const char* name,
                                const zyn_tensor* constant) {
  if (!writer || !constant || !constant->data || constant->type != ZYN_TYPE_F32 ||
      constant->dim_count < 1 || constant->dim_count > 5) {
    zyn_explain("a constant is a tensor of floats with data");
    return -1;
  }
  writer_step step(writer);
  static constexpr float kZeros[kDataFloats] = {};
  zyn_file_constant row = {};
  row.dim_count = static_cast<uint32_t>(constant->dim_count);
  row.type = ZYN_TYPE_F32;
  for (int32_t i = 0; i < constant->dim_count; i++) row.dims[i] = constant->dims[i];
  row.offset = static_cast<uint64_t>(writer->data.count()) * sizeof(float);
  const int64_t ragged = constant->count % kDataFloats;
  zyn_file_node node = {};
  node.type = ZYN_OP_CONSTANT;
  node.data = static_cast<uint32_t>(writer->constants.count());
  if (!writer->data.append(static_cast<const float*>(constant->data), constant->count) ||
      !writer->data.append(kZeros, ragged ? kDataFloats - ragged : 0) ||
      !writer->constants.push(row)) {
    no_memory();
    return -1;
  }
  const int32_t id = add_node(writer, name, node);
  if (id >= 0) step.keep();
  return id;
}

int32_t zyn_net_writer_node(zyn_net_writer* writer, const char* name, int32_t type,
                            const void* param, const int32_t* inputs, int32_t count) {
  if (!writer || !inputs || count < 1 || type == ZYN_OP_INPUT || type == ZYN_OP_CONSTANT) {
    zyn_explain("an operator and at least one node that it reads are needed");
    return -1;
  }
  for (int32_t i = 0; i < count; i++)
    if (!is_node(writer, inputs[i])) {
      zyn_explain("a node reads node %d, which has not been added", inputs[i]);
      return -1;
    }
  writer_step step(writer);
  zyn_file_node node = {};
  node.type = static_cast<uint32_t>(type);
  node.data = kZynFileNone;
  node.param.first = static_cast<uint32_t>(writer->words.count());
  if (zyn_net_write_param(node.type, param, &writer->words) != ZYN_RET_OK) return -1;
  node.param.count = static_cast<uint32_t>(writer->words.count()) - node.param.first;
  node.inputs = {static_cast<uint32_t>(writer->words.count()), static_cast<uint32_t>(count)};
  if (!writer->words.append(reinterpret_cast<const uint32_t*>(inputs), count)) {
    no_memory();
    return -1;
  }
  const int32_t id = add_node(writer, name, node);
  if (id >= 0) step.keep();
  return id;
}

int32_t zyn_net_writer_output(zyn_net_writer* writer, const zyn_net_port* port) {
  if (!writer || !port || !port->name || !is_node(writer, port->node))
    return zyn_refuse(ZYN_RET_ERR_PARA, "an output needs a name and a node that has been added");
  if (has_name(writer, writer->outputs, port->name))
    return zyn_refuse(ZYN_RET_ERR_PARA, "there is an output '%s' already", port->name);
  writer_step step(writer);
  zyn_file_output output = {};
  output.node = static_cast<uint32_t>(port->node);
  output.meaning = static_cast<uint32_t>(port->meaning);
  output.leading = static_cast<uint32_t>(port->leading);
  if (const int32_t code = add_text(writer, port->name, 1, kZynFileMostText, &output.name))
    return code;
  if (!writer->outputs.push(output)) return no_memory();
  step.keep();
  return ZYN_RET_OK;
}

int32_t zyn_net_writer_q(zyn_net_writer* writer, int32_t node, int32_t q) {
  if (!is_node(writer, node))
    return zyn_refuse(ZYN_RET_ERR_PARA, "node %d has not been added", node);
  writer->q[node] = q;
  writer->has_q = true;
  return ZYN_RET_OK;
}

int32_t zyn_net_writer_method(zyn_net_writer* writer, int32_t node, int32_t method) {
  if (!is_node(writer, node) || method < 0 || method >= static_cast<int32_t>(kZynMethods))
    return zyn_refuse(ZYN_RET_ERR_PARA, "node %d or method %d is not there", node, method);
  writer->methods[node] = static_cast<uint32_t>(method);
  writer->has_methods = true;
  return ZYN_RET_OK;
}

int32_t zyn_net_writer_metadata(zyn_net_writer* writer, const char* key, const char* value) {
  if (!writer || !key || !value)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the writer, the key or the value is null");
  for (int64_t i = 0; i < writer->metadata.count(); i++)
    if (same_text(writer, writer->metadata[i].key, key))
      return zyn_refuse(ZYN_RET_ERR_PARA, "there is a value for '%s' already", key);
  writer_step step(writer);
  zyn_file_metadata row = {};
  if (const int32_t code = add_text(writer, key, 1, kZynFileMostText, &row.key)) return code;
  if (const int32_t code = add_text(writer, value, 0, kZynFileMostValue, &row.value)) return code;
  if (!writer->metadata.push(row)) return no_memory();
  step.keep();
  return ZYN_RET_OK;
}

int32_t zyn_net_write_memory(const zyn_net_writer* writer, void** data, int64_t* size) {
  if (!data || !size) return zyn_refuse(ZYN_RET_ERR_PARA, "there is no place for the file");
  zyn_list<uint8_t> bytes;
  if (const int32_t code = put_file(writer, &bytes)) return code;
  *size = bytes.count();
  *data = bytes.take();
  return ZYN_RET_OK;
}

int32_t zyn_net_write(const zyn_net_writer* writer, const char* path) {
  if (!path) return zyn_refuse(ZYN_RET_ERR_PARA, "the file's name is null");
  zyn_list<uint8_t> bytes;
  if (const int32_t code = put_file(writer, &bytes)) return code;
  FILE* file = zyn_platform_open(path, "wb");
  if (!file) return zyn_refuse(ZYN_RET_ERR_OPEN_FILE, "'%s' cannot be opened for writing", path);
  const auto count = static_cast<size_t>(bytes.count());
  const bool written = fwrite(bytes.data(), 1, count, file) == count;
  if (zyn_platform_finish(file, path, written)) return ZYN_RET_OK;
  return zyn_refuse(ZYN_RET_ERR_OPEN_FILE, "'%s' could not be written to its end", path);
}

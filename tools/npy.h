// Arrays in numpy's file format (.npy, versions 1 and 2): floats and bytes, little-endian, in C
// order.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

namespace npy {

struct Array {
  std::vector<int64_t> shape;  // the slowest axis first
  bool bytes = false;          // uint8 instead of float32
  std::vector<float> values;
};

inline std::string text_of(const std::vector<int64_t>& shape) {
  std::string text = "(";
  for (size_t i = 0; i < shape.size(); i++)
    text += (i ? ", " : "") + std::to_string(shape[i]) + (shape.size() == 1 ? "," : "");
  return text + ")";
}

constexpr char kMagic[] = "\x93NUMPY";
constexpr size_t kMagicBytes = 6;
constexpr size_t kMostHeader = 1 << 16;
constexpr int64_t kMostElements = int64_t{1} << 31;

// What follows 'key': in a header; null where it is not there.
inline const char* entry(const std::string& header, const char* key) {
  const size_t at = header.find("'" + std::string(key) + "'");
  const size_t colon = at == std::string::npos ? at : header.find(':', at);
  if (colon == std::string::npos) return nullptr;
  const char* const value = header.c_str() + colon + 1;
  return value + strspn(value, " ");
}

// The numbers of "(1, 3, 240, 320)" and their product; false where that is something else.
inline bool parse_shape(const char* text, std::vector<int64_t>* shape, int64_t* count) {
  *count = 1;
  if (*text++ != '(') return false;
  while (*text && *text != ')') {
    char* end = nullptr;
    const long long extent = strtoll(text, &end, 10);
    if (end == text || extent < 0 || (extent > 0 && *count > kMostElements / extent)) return false;
    shape->push_back(extent);
    *count *= extent;
    text = end + strspn(end, ", ");
  }
  return *text == ')';
}

// The header's text of a file that has been opened: its magic, version and length are read.
inline bool read_header(FILE* file, std::string* header) {
  uint8_t frame[12] = {};
  if (fread(frame, kMagicBytes + 2, 1, file) != 1 || memcmp(frame, kMagic, kMagicBytes) != 0)
    return false;
  const uint8_t version = frame[kMagicBytes];
  const size_t bytes = version == 1 ? 2 : 4;
  if (version < 1 || version > 2 || fread(frame + 8, bytes, 1, file) != 1) return false;
  size_t length = frame[8] | frame[9] << 8;
  if (version == 2) length |= static_cast<size_t>(frame[10]) << 16 | size_t{frame[11]} << 24;
  if (length > kMostHeader) return false;
  header->resize(length);
  return length > 0 && fread(&(*header)[0], length, 1, file) == 1;
}

inline std::string read_values(FILE* file, int64_t count, Array* array) {
  const auto needed = static_cast<size_t>(count);
  std::vector<uint8_t> bytes(needed * (array->bytes ? 1 : sizeof(float)));
  if (fread(bytes.data(), 1, bytes.size(), file) != bytes.size() || fgetc(file) != EOF)
    return "does not hold exactly the " + std::to_string(count) + " elements of its shape";
  array->values.resize(needed);
  if (array->bytes)
    for (size_t i = 0; i < needed; i++) array->values[i] = bytes[i];
  else if (needed)
    memcpy(array->values.data(), bytes.data(), bytes.size());
  return "";
}

// Reads a file; what is wrong with it, or nothing.
inline std::string read(const std::string& path, Array* array) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return "cannot be read";
  std::string header, wrong;
  int64_t count = 0;
  if (!read_header(file, &header)) wrong = "is no .npy file of version 1 or 2";
  const char* const type = entry(header, "descr");
  const char* const order = entry(header, "fortran_order");
  const char* const shape = entry(header, "shape");
  array->bytes = type && (!strncmp(type, "'|u1'", 5) || !strncmp(type, "'u1'", 4));
  if (wrong.empty() && !array->bytes && !(type && !strncmp(type, "'<f4'", 5)))
    wrong = "holds neither little-endian float32 nor uint8";
  if (wrong.empty() && !(order && !strncmp(order, "False", 5))) wrong = "is not in C order";
  if (wrong.empty() && !(shape && parse_shape(shape, &array->shape, &count)))
    wrong = "has a shape that cannot be read";
  if (wrong.empty()) wrong = read_values(file, count, array);
  fclose(file);
  return wrong;
}

// Writes floats; whether all of it was written.
inline bool write(const std::string& path, const Array& array) {
  std::string header =
      "{'descr': '<f4', 'fortran_order': False, 'shape': " + text_of(array.shape) + ", }";
  header.append(63 - (kMagicBytes + 4 + header.size()) % 64, ' ');
  header += '\n';
  const std::string frame = std::string(kMagic, kMagicBytes) + '\1' + '\0' +
                            static_cast<char>(header.size() & 255) +
                            static_cast<char>(header.size() >> 8) + header;
  FILE* file = fopen(path.c_str(), "wb");
  if (!file) return false;
  const size_t count = array.values.size();
  const bool written = fwrite(frame.data(), 1, frame.size(), file) == frame.size() &&
                       fwrite(array.values.data(), sizeof(float), count, file) == count;
  return fclose(file) == 0 && written;
}

}  // namespace npy

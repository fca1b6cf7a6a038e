// What the tools share for network files: loading, filling inputs from files, reading outputs.
#pragma once

#include <math.h>
#include <stdint.h>
#include <zyncore_net.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "npy.h"

namespace tools {

struct Release {
  void operator()(zyn_net* net) const { zyn_net_release(&net); }
  void operator()(zyn_net_writer* writer) const { zyn_net_writer_release(&writer); }
  void operator()(zyn_image* image) const { zyn_release_matrix(&image); }
};
using Net = std::unique_ptr<zyn_net, Release>;
using Writer = std::unique_ptr<zyn_net_writer, Release>;
using Image = std::unique_ptr<zyn_image, Release>;
using Floats = std::vector<float>;

inline bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// "auto" with the option exact.
constexpr int32_t kExact = ZYN_NET_TIMED - 1;

// exact, auto, timed, 0, 1 and 2.
inline bool parse_method(const std::string& text, int32_t* method) {
  const char* const names[] = {"exact", "timed", "auto", "0", "1", "2"};
  for (int32_t i = 0; i < 6; i++)
    if (text == names[i]) {
      *method = i + kExact;
      return true;
    }
  return false;
}

inline std::string method_name(int32_t method) {
  return method == kExact              ? "exact"
         : method == ZYN_NET_TIMED     ? "timed"
         : method == ZYN_NET_AUTOMATIC ? "auto"
                                       : std::to_string(method);
}

// Null: zyn_error_detail tells why.
inline Net load(const std::string& path, int32_t method, bool fixed, bool keep_all) {
  zyn_net_options options = ZYN_NET_DEFAULTS;
  options.method = method == kExact ? ZYN_NET_AUTOMATIC : method;
  options.exact = method == kExact ? 1 : 0;
  options.fixed_point = fixed ? 1 : 0;
  options.keep_all = keep_all ? 1 : 0;
  return Net(zyn_net_load(path.c_str(), &options));
}

// ---- inputs. Functions return what is wrong, or nothing.

inline std::string size_text(int32_t width, int32_t height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

// A port's extents as numpy says them, the slowest first, with its leading axes.
inline std::vector<int64_t> shape_of(const zyn_net_port& port) {
  std::vector<int64_t> shape(static_cast<size_t>(port.leading), 1);
  for (int32_t i = port.dim_count; i-- > 0;) shape.push_back(port.dims[i]);
  return shape;
}

// The part of a picture that a port's rule takes: all of it with borders, or its middle.
inline std::string frame(const zyn_net_port& port, Image* picture) {
  const int32_t width = port.dims[0], height = port.dims[1];
  const zyn_image& all = **picture;
  if (port.resize == 0 && (all.cols != width || all.rows != height))
    return "has " + size_text(all.cols, all.rows) + " pixels, input '" + port.name + "' has " +
           size_text(width, height) + " and names no way to resize";
  if (port.resize == 2) {
    int32_t margins[4];
    const float ratio = static_cast<float>(height) / static_cast<float>(width);
    Image padded(zyn_create_border_image(&margins[0], &margins[1], &margins[2], &margins[3],
                                         picture->get(), ratio));
    if (!padded) return std::string("cannot be bordered: ") + zyn_error_detail();
    picture->swap(padded);
  }
  if (port.resize == 3) {
    const auto part = [](int64_t side, int64_t other, int64_t of, int64_t to) {
      return static_cast<int32_t>(
          std::max<int64_t>(1, std::min<int64_t>(side, other * to / std::max<int64_t>(of, 1))));
    };
    const int32_t size[2] = {part(all.cols, all.rows, height, width),
                             part(all.rows, all.cols, width, height)};
    int32_t position[2] = {(all.cols - size[0]) / 2, (all.rows - size[1]) / 2};
    Image middle(zyn_create_image(size[0], size[1], ZYN_IMAGE_BGR));
    if (!middle || zyn_image_cropped_patch(middle.get(), picture->get(), position, size) != 0)
      return std::string("cannot be cut: ") + zyn_error_detail();
    picture->swap(middle);
  }
  return "";
}

// A photo as a port wants it: its size, its channels, its values.
inline std::string read_picture(const std::string& path, const zyn_net_port& port, Floats* values) {
  constexpr int32_t kColour = 2, kBilinear = 1;  // of reading and resizing
  const int32_t channels = port.dim_count > 2 ? port.dims[2] : 1;
  if (port.channel_order < 1 || port.channel_order > 3 || port.dim_count < 2 ||
      port.dim_count > 3 || channels != (port.channel_order == 3 ? 1 : 3))
    return "is a picture, which input '" + std::string(port.name) + "' does not take";
  Image picture(zyn_create_image_from_file(path.c_str(), kColour));
  if (!picture) return std::string("cannot be read as a BMP file: ") + zyn_error_detail();
  const std::string wrong = frame(port, &picture);
  if (!wrong.empty()) return wrong;
  Image scaled(zyn_create_image(port.dims[0], port.dims[1], ZYN_IMAGE_BGR));
  Image grey(zyn_create_image(port.dims[0], port.dims[1], ZYN_IMAGE_GRAY));
  if (!scaled || !grey || zyn_image_resizer(scaled.get(), picture.get(), kBilinear) != 0 ||
      zyn_image_color_space_convert(grey.get(), scaled.get(), ZYN_COLOR_BGR_TO_GRAY) != 0)
    return std::string("cannot be resized: ") + zyn_error_detail();
  const zyn_image& from = channels == 1 ? *grey : *scaled;
  const auto pixels = static_cast<size_t>(from.rows) * static_cast<size_t>(from.cols);
  values->resize(pixels * static_cast<size_t>(channels));
  for (int32_t c = 0; c < channels; c++)
    for (size_t i = 0; i < pixels; i++) {
      const size_t x = i % static_cast<size_t>(from.cols), y = i / static_cast<size_t>(from.cols);
      const auto* row = static_cast<const uint8_t*>(from.data) + y * from.row_bytes;
      const int32_t at = port.channel_order == 2 ? 2 - c : c;
      const auto byte = static_cast<float>(row[x * static_cast<size_t>(channels) + at]);
      (*values)[static_cast<size_t>(c) * pixels + i] = (byte - port.mean[c]) * port.scale[c];
    }
  return "";
}

// The bytes of a picture's pixels become values as a photo's do.
inline std::string read_array(const std::string& path, const zyn_net_port& port, Floats* values) {
  npy::Array array;
  const std::string wrong = npy::read(path, &array);
  if (!wrong.empty()) return wrong;
  std::vector<int64_t> shape = shape_of(port);
  const std::vector<int64_t> plain(shape.begin() + port.leading, shape.end());
  if (array.shape != shape && array.shape != plain)
    return "has the shape " + npy::text_of(array.shape) + ", input '" + port.name + "' has " +
           npy::text_of(shape);
  values->swap(array.values);
  const size_t plane = port.dim_count < 2 ? 1 : size_t(port.dims[0]) * size_t(port.dims[1]);
  if (array.bytes && port.channel_order != 0)
    for (size_t i = 0; i < values->size(); i++) {
      const size_t c = std::min<size_t>(i / plane, 2);
      (*values)[i] = ((*values)[i] - port.mean[c]) * port.scale[c];
    }
  return "";
}

inline std::string read_raw(const std::string& path, const zyn_net_port& port, Floats* values) {
  size_t count = 1;
  for (int32_t i = 0; i < port.dim_count; i++) count *= static_cast<size_t>(port.dims[i]);
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return "cannot be read";
  values->resize(count);
  const size_t got = fread(values->data(), sizeof(float), count, file);
  const bool whole = got == count && fgetc(file) == EOF;
  fclose(file);
  return whole ? "" : "does not hold the " + std::to_string(count) + " floats of an input";
}

// The values of an input from a file: a picture (.bmp), an array (.npy), or the floats as they lie
// in the input's tensor.
inline std::string read_input(const std::string& path, const zyn_net_port& port, Floats* values) {
  const std::string wrong = ends_with(path, ".bmp") || ends_with(path, ".BMP")
                                ? read_picture(path, port, values)
                            : ends_with(path, ".npy") ? read_array(path, port, values)
                                                      : read_raw(path, port, values);
  if (!wrong.empty()) return path + " " + wrong;
  if (!std::all_of(values->begin(), values->end(), [](float v) { return std::isfinite(v); }))
    return path + " holds values that are not finite";
  return "";
}

// Puts values into an input, in fixed point with q fraction bits.
inline void store(const Floats& values, int32_t q, zyn_tensor* input) {
  if (input->type == ZYN_TYPE_F32) {
    std::copy(values.begin(), values.end(), static_cast<float*>(input->data));
    return;
  }
  auto* words = static_cast<int16_t*>(input->data);
  for (size_t i = 0; i < values.size(); i++) {
    const double exact = floor(ldexp(static_cast<double>(values[i]), q) + 0.5);
    words[i] = static_cast<int16_t>(std::clamp(exact, -32768.0, 32767.0));
  }
}

// ---- outputs

// Where element i of the planar order lies in a tensor of channel blocks: groups of 8 channels,
// then 4, then single ones.
inline size_t blocked_index(const zyn_tensor& t, size_t i) {
  const size_t pixels = static_cast<size_t>(t.dims[0]) * static_cast<size_t>(t.dims[1]);
  const size_t image = pixels * static_cast<size_t>(t.dims[2]);
  const size_t c = i % image / pixels, pixel = i % pixels, channels = image / pixels;
  const size_t eights = channels / 8 * 8, fours = channels / 4 * 4;
  const size_t group = c < eights ? 8 : c < fours ? 4 : 1;
  const size_t begin = c < eights ? c / 8 * 8 : c < fours ? eights : c;
  return i - i % image + begin * pixels + pixel * group + (c - begin);
}

// The values of a tensor in planar order; 16-bit ones have q fraction bits.
inline Floats values_of(const zyn_tensor& t, int32_t q) {
  Floats values(static_cast<size_t>(t.count));
  for (size_t i = 0; i < values.size(); i++) {
    const size_t at = t.layout == ZYN_LAYOUT_BLOCKED ? blocked_index(t, i) : i;
    values[i] = t.type == ZYN_TYPE_FPI16
                    ? ldexpf(static_cast<float>(static_cast<const int16_t*>(t.data)[at]), -q)
                    : static_cast<const float*>(t.data)[at];
  }
  return values;
}

}  // namespace tools

// The image operations as jobs of the comparison harness: "OP src_w src_h dst_w dst_h"
// sets up source and destination, out(i) is byte i of the destination's buffer.
#include <memory>

#include "subject_job.h"

namespace subject {

namespace {

// The harness's picture: smooth gradients plus noise.
double noise_value(uint32_t i) {
  uint32_t x = i * 2654435761u + 6u * 40503u + 1u;
  x ^= x >> 15;
  x *= 2246822519u;
  x ^= x >> 13;
  return static_cast<double>(x & 0xffffu) / 65536.0;
}

void fill_pixels(uint8_t* p, int w, int h, int c) {
  for (int y = 0; y < h; y++)
    for (int x = 0; x < w; x++)
      for (int k = 0; k < c; k++) {
        const uint32_t i = (static_cast<uint32_t>(y) * w + x) * c + k;
        const int noise = static_cast<int>(static_cast<float>(noise_value(i)) * 32);
        p[i] = static_cast<uint8_t>((x * 200 / w * (k + 1) + y * 100 / h + noise) & 0xff);
      }
}

struct Operation {
  const char* name;
  uint32_t from, to;
  int code;  // of the conversion, or one of those below
};
constexpr int kResize = -1, kBorder = -2, kInput = -3;
constexpr Operation kOperations[] = {
    {"gray", 0, 2, ZYN_COLOR_BGR_TO_GRAY},
    {"bgr_i420", 0, 5, ZYN_COLOR_BGR_TO_I420},
    {"i420_bgr", 5, 0, ZYN_COLOR_I420_TO_BGR},
    {"swap_rb", 0, 1, ZYN_COLOR_BGR_TO_RGB},
    {"split", 0, 6, ZYN_COLOR_BGR_TO_PLANAR},
    {"merge", 6, 0, ZYN_COLOR_PLANAR_TO_BGR},
    {"resize1", 2, 2, kResize},
    {"resize3", 0, 0, kResize},
    {"border", 0, 0, kBorder},
    {"ssd_input", 0, 0, kInput},
};

using Image = std::shared_ptr<zyn_image>;
Image owned(zyn_image* image) {
  return Image(image, [](zyn_image* last) {
    if (last) zyn_release_matrix(&last);
  });
}

uint8_t* bytes(const Image& image) { return static_cast<uint8_t*>(image->data); }

// The border image is made anew by every run, as the function does it.
Job border_job(const Image& from, float ratio) {
  const auto made = std::make_shared<Image>();
  return {[=] {
            int32_t top, bottom, left, right;
            *made = owned(zyn_create_border_image(&top, &bottom, &left, &right, from.get(), ratio));
          },
          [=](size_t i) { return double(bytes(*made)[i]); }};
}

Job input_job(const Image& from) {
  const int32_t dims[3] = {from->cols, from->rows, 3};
  const std::shared_ptr<zyn_tensor> tensor(zyn_create_tensor(3, dims, ZYN_TYPE_F32),
                                           [](zyn_tensor* last) { zyn_release_tensor(&last); });
  return {[=] { zyn_transform_image_data_for_ssd_detector(tensor.get(), from.get()); },
          [=](size_t i) { return double(static_cast<float*>(tensor->data)[i]); }};
}

}  // namespace

Job image_job(std::istringstream& request) {
  std::string name;
  int sw = 0, sh = 0, dw = 0, dh = 0;
  request >> name >> sw >> sh >> dw >> dh;
  for (const Operation& operation : kOperations) {
    if (!request || name != operation.name) continue;
    const Image from = owned(zyn_create_image(sw, sh, operation.from));
    const Image to = owned(zyn_create_image(dw, dh, operation.to));
    if (!from || !to) return {};
    // A source of several planes is filled as the one buffer that it is.
    if (operation.from == ZYN_IMAGE_I420)
      fill_pixels(bytes(from), sw, sh * 3 / 2, 1);
    else
      fill_pixels(bytes(from), sw, sh, operation.from == ZYN_IMAGE_GRAY ? 1 : 3);
    if (operation.code == kBorder)
      return border_job(from, static_cast<float>(dh) / static_cast<float>(dw));
    if (operation.code == kInput) return input_job(from);
    const auto out = [to](size_t i) { return double(bytes(to)[i]); };
    if (operation.code == kResize)
      return {[=] { zyn_image_resizer(to.get(), from.get(), 1); }, out};
    const auto code = static_cast<uint32_t>(operation.code);
    return {[=] { zyn_image_color_space_convert(to.get(), from.get(), code); }, out};
  }
  return {};
}

}  // namespace subject

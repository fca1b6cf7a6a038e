// Drawing on BGR pictures: boxes, numbers, dots and lines for face_app.
#pragma once

#include <math.h>
#include <stdint.h>
#include <string.h>
#include <zyncore_face.h>

#include <algorithm>
#include <string>

namespace draw {

struct Colour {
  uint8_t blue, green, red;
};
constexpr Colour kColours[] = {{80, 200, 80},  {60, 120, 255}, {255, 160, 50}, {200, 80, 220},
                               {220, 210, 60}, {90, 90, 255},  {60, 220, 230}, {170, 170, 170}};
inline Colour colour_of(int32_t id) { return kColours[id % 8]; }

inline void dot(zyn_image* picture, double x, double y, int32_t size, Colour c) {
  if (!(fabs(x) < 1e6 && fabs(y) < 1e6)) return;
  const int32_t left = static_cast<int32_t>(x) - size / 2, top = static_cast<int32_t>(y) - size / 2;
  for (int32_t v = std::max(top, 0); v < std::min(top + size, picture->rows); v++)
    for (int32_t u = std::max(left, 0); u < std::min(left + size, picture->cols); u++)
      memcpy(static_cast<uint8_t*>(picture->data) + v * picture->row_bytes + 3 * u, &c, 3);
}

inline void line(zyn_image* picture, double x1, double y1, double x2, double y2, int32_t size,
                 Colour c) {
  const double length = std::max(fabs(x2 - x1), fabs(y2 - y1));
  if (!(length < 1e5)) return;
  const int32_t steps = static_cast<int32_t>(length) + 1;
  for (int32_t i = 0; i <= steps; i++)
    dot(picture, x1 + (x2 - x1) * i / steps, y1 + (y2 - y1) * i / steps, size, c);
}

// Digits, three dots wide and five high; bit 14 is the upper left one.
inline void number(zyn_image* picture, int32_t value, double x, double y, int32_t size, Colour c) {
  constexpr uint16_t kDigits[] = {0x7B6F, 0x2C97, 0x73E7, 0x73CF, 0x5BC9,
                                  0x79CF, 0x79EF, 0x7249, 0x7BEF, 0x7BCF};
  for (const char digit : std::to_string(value)) {
    for (int32_t bit = 0; digit >= '0' && bit < 15; bit++) {
      const int32_t column = bit % 3, row = bit / 3;
      if (kDigits[digit - '0'] >> (14 - bit) & 1)
        dot(picture, x + column * size, y + row * size, size, c);
    }
    x += 4 * size;
  }
}

// The head's axes, from the origin of the model: right red, down green, forward blue.
inline void axes(zyn_image* picture, const zyn_face_pose& pose, double focal, int32_t size) {
  constexpr double kLength = 60;  // millimetres
  constexpr Colour kAxes[] = {{60, 60, 255}, {60, 220, 60}, {255, 120, 60}};
  double ends[4][2];
  for (int32_t a = 0; a < 4; a++) {
    double p[3];
    for (int32_t k = 0; k < 3; k++) {
      p[k] = static_cast<double>(pose.translation[k]);
      // The nose points at the camera, against z.
      if (a < 3)
        p[k] += (a == 2 ? -kLength : kLength) * static_cast<double>(pose.rotation[3 * k + a]);
    }
    if (!(p[2] > 1)) return;
    ends[a][0] = focal * p[0] / p[2] + 0.5 * picture->cols;
    ends[a][1] = focal * p[1] / p[2] + 0.5 * picture->rows;
  }
  for (int32_t a = 0; a < 3; a++)
    line(picture, ends[3][0], ends[3][1], ends[a][0], ends[a][1], size, kAxes[a]);
}

inline void face(zyn_image* picture, const zyn_face& f, double focal) {
  const Colour c = colour_of(f.id);
  const float* b = f.box;
  const double side = static_cast<double>(std::max(b[2] - b[0], b[3] - b[1]));
  const int32_t thick = std::max(1, static_cast<int32_t>(side / 60)) + 1;
  const auto x1 = static_cast<double>(b[0]), y1 = static_cast<double>(b[1]);
  const auto x2 = static_cast<double>(b[2]), y2 = static_cast<double>(b[3]);
  // Predicted boxes have corners only.
  const double part = f.state == ZYN_FACE_PREDICTED ? 0.25 : 0.5;
  const double w = part * (x2 - x1), h = part * (y2 - y1);
  for (const double y : {y1, y2}) {
    line(picture, x1, y, x1 + w, y, thick, c);
    line(picture, x2 - w, y, x2, y, thick, c);
  }
  for (const double x : {x1, x2}) {
    line(picture, x, y1, x, y1 + h, thick, c);
    line(picture, x, y2 - h, x, y2, thick, c);
  }
  number(picture, f.id, x1 + 2, y1 - 6 * thick - 2, thick, c);
  if (f.state == ZYN_FACE_PREDICTED) return;
  for (int32_t i = 0; i < f.landmark_count; i++)
    dot(picture, static_cast<double>(f.smoothed[2 * i]), static_cast<double>(f.smoothed[2 * i + 1]),
        std::max(2, thick - 1), {255, 255, 255});
  if (f.pose.valid) axes(picture, f.pose, focal, thick);
}

}  // namespace draw

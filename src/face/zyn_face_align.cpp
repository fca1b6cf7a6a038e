// Faces brought to a standard crop.
#include <math.h>

#include "base/zyn_explain.h"
#include "face/zyn_face_frame.h"
#include "face/zyn_face_similarity.h"

namespace {

constexpr int32_t kPoints = 5;
constexpr double kStandardSide = 112;
constexpr float kStandard[2 * kPoints] = {38.2946f, 51.6963f, 73.5318f, 51.5014f, 56.0252f,
                                          71.7366f, 41.5493f, 92.3655f, 70.7299f, 92.2041f};
constexpr int32_t kMostSide = 4096;
constexpr int32_t kChannels = 3;

bool fits(const zyn_image* out, int32_t size) {
  return out && out->kind == ZYN_KIND_IMAGE && out->format <= ZYN_IMAGE_GRAY && out->data &&
         out->rows == size && out->cols == size &&
         out->row_bytes >= int64_t{size} * (out->format == ZYN_IMAGE_GRAY ? 1 : kChannels);
}

// Pixels of a frame in blue, green, red, as sums for averages; black outside.
class pixels {
 public:
  // Places are asked for in columns begin to end - 1, of at most so many rows: rows of YUV stay
  // converted, because every row of a turned crop crosses many of them.
  pixels(const zyn_face_frame& frame, int32_t begin, int32_t end, int32_t rows)
      : begin_(begin), end_(end), height_(frame.height), rows_(frame, begin, end, rows) {}
  explicit operator bool() const { return static_cast<bool>(rows_); }

  // Adds weight times what lies at (x, y), bilinear.
  void add(double x, double y, double weight, double (&sum)[kChannels]) {
    const double left = floor(x - 0.5), top = floor(y - 0.5);
    if (!(left >= -1 && top >= -1 && left < end_ && top < height_)) return;
    const auto column = static_cast<int32_t>(left), row = static_cast<int32_t>(top);
    const double across = x - 0.5 - left, down = y - 0.5 - top;
    add_pixel(column, row, weight * (1 - across) * (1 - down), sum);
    add_pixel(column + 1, row, weight * across * (1 - down), sum);
    add_pixel(column, row + 1, weight * (1 - across) * down, sum);
    add_pixel(column + 1, row + 1, weight * across * down, sum);
  }

 private:
  void add_pixel(int32_t x, int32_t y, double weight, double (&sum)[kChannels]) {
    if (x < begin_ || y < 0 || x >= end_ || y >= height_) return;
    const int32_t channels = rows_.channels();
    const uint8_t* pixel = rows_.row(y) + int64_t{x - begin_} * channels;
    for (int32_t c = 0; c < kChannels; c++) {
      const int32_t from = rows_.red_first() ? kChannels - 1 - c : c;
      sum[c] += weight * pixel[channels == 1 ? 0 : from];
    }
  }

  int32_t begin_, end_, height_;
  zyn_frame_rows rows_;
};

uint8_t to_byte(double value) { return static_cast<uint8_t>(fmin(value + 0.5, 255)); }

void store(const zyn_image* out, int32_t x, int32_t y, const double (&bgr)[kChannels]) {
  uint8_t* row = static_cast<uint8_t*>(out->data) + y * out->row_bytes;
  if (out->format == ZYN_IMAGE_GRAY) {
    row[x] = to_byte((1868 * bgr[0] + 9617 * bgr[1] + 4899 * bgr[2]) / 16384);
    return;
  }
  for (int32_t c = 0; c < kChannels; c++)
    row[kChannels * x + c] = to_byte(bgr[out->format == ZYN_IMAGE_BGR ? c : kChannels - 1 - c]);
}

// Every pixel of the crop is the mean of samples x samples places in it.
void warp(const zyn_image* out, pixels* from, const zyn_similarity& place, int32_t samples) {
  const double weight = 1.0 / (samples * samples);
  for (int32_t y = 0; y < out->rows; y++)
    for (int32_t x = 0; x < out->cols; x++) {
      double sum[kChannels] = {};
      for (int32_t s = 0; s < samples * samples; s++) {
        const int32_t column = s % samples, row = s / samples;
        const double u = x + (column + 0.5) / samples, v = y + (row + 0.5) / samples;
        from->add(place.a * u - place.b * v + place.x0, place.b * u + place.a * v + place.y0,
                  weight, sum);
      }
      store(out, x, y, sum);
    }
}

// The pixels of an axis that the crop reaches, cut at the frame's edges: at least one.
struct reach {
  int32_t begin, end;
  reach(double first, double across, double down, int32_t pixels) {
    const double low = first + fmin(across, 0) + fmin(down, 0) - 1;
    const double high = first + fmax(across, 0) + fmax(down, 0) + 2;
    begin = static_cast<int32_t>(fmin(fmax(low, 0), pixels - 1));
    end = static_cast<int32_t>(fmin(fmax(high, begin + 1), pixels));
  }
};

}  // namespace

// The least squares of a transform that is linear in its four numbers: Umeyama's solution, in
// the plane and without reflections.
bool zyn_fit_similarity(const float* from, const float* to, int32_t count, zyn_similarity* fit) {
  double mean[4] = {};
  for (int32_t i = 0; i < count; i++)
    for (int32_t c = 0; c < 2; c++) {
      mean[c] += static_cast<double>(from[2 * i + c]) / count;
      mean[2 + c] += static_cast<double>(to[2 * i + c]) / count;
    }
  double spread = 0, along = 0, across = 0;
  for (int32_t i = 0; i < count; i++) {
    const double x = from[2 * i] - mean[0], y = from[2 * i + 1] - mean[1];
    const double u = to[2 * i] - mean[2], v = to[2 * i + 1] - mean[3];
    spread += x * x + y * y;
    along += x * u + y * v;
    across += x * v - y * u;
  }
  const double a = along / spread, b = across / spread;
  *fit = {a, b, mean[2] - a * mean[0] + b * mean[1], mean[3] - b * mean[0] - a * mean[1]};
  return isfinite(a) && isfinite(b) && isfinite(fit->x0) && isfinite(fit->y0);
}

int32_t zyn_face_align(zyn_image* out, const zyn_face_frame* frame, const float* points,
                       int32_t size) {
  if (size < 1 || size > kMostSide || !fits(out, size))
    return zyn_refuse(
        ZYN_RET_ERR_PARA,
        "an image of %d x %d pixels (sides of 1 to %d) in format 0, 1 or 2 is expected", size, size,
        kMostSide);
  if (const int32_t code = zyn_check_frame(frame)) return code;
  float standard[2 * kPoints];
  for (int32_t i = 0; i < 2 * kPoints; i++)
    standard[i] = static_cast<float>(kStandard[i] * size / kStandardSide);
  zyn_similarity place, back;
  // Both ways: points in one place have no way to the crop, but the crop has one to them.
  if (!points || !zyn_fit_similarity(points, standard, kPoints, &place) ||
      place.a * place.a + place.b * place.b == 0)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the five points are null, not finite or in one place");
  const double square = place.a * place.a + place.b * place.b;
  back = {place.a / square, -place.b / square, 0, 0};
  back.x0 = -back.a * place.x0 + back.b * place.y0;
  back.y0 = -back.b * place.x0 - back.a * place.y0;
  constexpr double kMostSamples = 8;
  const double scale = sqrt(back.a * back.a + back.b * back.b);
  const auto samples = static_cast<int32_t>(fmin(fmax(ceil(scale), 1), kMostSamples));
  const reach columns(back.x0, back.a * size, -back.b * size, frame->width);
  const reach rows(back.y0, back.b * size, back.a * size, frame->height);
  pixels from(*frame, columns.begin, columns.end, rows.end - rows.begin);
  if (!from) return zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for the rows of a frame");
  warp(out, &from, back, samples);
  return ZYN_RET_OK;
}

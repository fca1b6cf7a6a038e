// Checks of frames, and their rows as packed bytes. YUV goes through the row conversions of
// src/image, so that colours are those of images.
#include "face/zyn_face_frame.h"

#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_integers.h"
#include "image/zyn_image_rows.h"

namespace {

constexpr int32_t kMostPixels = 16384;  // of a side
constexpr int64_t kAlign = 32;          // bytes

bool is_420(uint32_t format) {
  return format == ZYN_FRAME_I420 || format == ZYN_FRAME_NV12 || format == ZYN_FRAME_NV21;
}

// The bytes of a row of every plane, 0 for planes that the format does not have.
struct row_bytes {
  int32_t plane[3];
};
bool find_row_bytes(const zyn_face_frame& frame, row_bytes* rows) {
  const int32_t w = frame.width;
  switch (frame.format) {
    case ZYN_FRAME_BGR:
    case ZYN_FRAME_RGB:
      *rows = {{3 * w, 0, 0}};
      return true;
    case ZYN_FRAME_GREY:
      *rows = {{w, 0, 0}};
      return true;
    case ZYN_FRAME_I420:
      *rows = {{w, w / 2, w / 2}};
      return true;
    case ZYN_FRAME_NV12:
    case ZYN_FRAME_NV21:
      *rows = {{w, w, 0}};
      return true;
    case ZYN_FRAME_YUYV:
      *rows = {{2 * w, 0, 0}};
      return true;
    default:
      return false;
  }
}

}  // namespace

int32_t zyn_check_frame(const zyn_face_frame* frame) {
  if (!frame) return zyn_refuse(ZYN_RET_ERR_PARA, "the frame is null");
  const zyn_face_frame& f = *frame;
  row_bytes rows;
  if (f.width < 1 || f.height < 1 || f.width > kMostPixels || f.height > kMostPixels)
    return zyn_refuse(ZYN_RET_ERR_PARA, "a frame of %d x %d pixels: sides of 1 to %d are expected",
                      f.width, f.height, kMostPixels);
  if (!find_row_bytes(f, &rows))
    return zyn_refuse(ZYN_RET_ERR_PARA, "frame format %u: one of ZYN_FRAME_... is expected",
                      f.format);
  if ((is_420(f.format) && ((f.width | f.height) & 1)) ||
      (f.format == ZYN_FRAME_YUYV && (f.width & 1)))
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "a frame of %d x %d pixels: format %u shares colours between pairs of pixels "
                      "and needs even sides",
                      f.width, f.height, f.format);
  for (int32_t k = 0; k < 3; k++) {
    if (rows.plane[k] == 0) continue;
    if (!f.planes[k]) return zyn_refuse(ZYN_RET_ERR_PARA, "plane %d of the frame is null", k);
    if (f.strides[k] < rows.plane[k])
      return zyn_refuse(ZYN_RET_ERR_PARA, "plane %d: rows of %d bytes do not fit a stride of %d", k,
                        rows.plane[k], f.strides[k]);
  }
  return ZYN_RET_OK;
}

zyn_frame_rows::zyn_frame_rows(const zyn_face_frame& frame, int32_t begin, int32_t end,
                               int32_t kept)
    : frame_(frame),
      begin_(converts() ? begin & ~1 : begin),
      count_(converts() ? zyn_round_up(end - begin_, 2) : end - begin),
      skipped_(begin - begin_),
      pitch_(zyn_round_up(3 * count_, kAlign)),
      apart_(2 * zyn_round_up(count_, kAlign)),
      pairs_(kept / 2 + 2),
      block_(converts() ? held_bytes() + apart_ + 2 * pairs_ * pitch_ : 0) {
  if (!block_) return;
  held_ = reinterpret_cast<int32_t*>(block_.get());
  luma_ = block_.get() + held_bytes();
  u_ = luma_ + apart_ / 2;
  v_ = u_ + apart_ / 4;
  memset(held_, 0xFF, static_cast<size_t>(held_bytes()));
}

int64_t zyn_frame_rows::held_bytes() const {
  return zyn_round_up(pairs_ * int64_t{sizeof(int32_t)}, kAlign);
}

void zyn_frame_rows::split_chroma(int64_t y) {
  const uint8_t* pairs = plane(1, y) + begin_;
  const int32_t first = frame_.format == ZYN_FRAME_NV12 ? 0 : 1;
  for (int64_t i = 0; i < count_ / 2; i++) {
    u_[i] = pairs[2 * i + first];
    v_[i] = pairs[2 * i + 1 - first];
  }
}

void zyn_frame_rows::split_yuyv(int64_t y) {
  const uint8_t* from = plane(0, y) + 2 * begin_;
  for (int64_t i = 0; i < count_; i++) luma_[i] = from[2 * i];
  for (int64_t i = 0; i < count_ / 2; i++) {
    u_[i] = from[4 * i + 1];
    v_[i] = from[4 * i + 3];
  }
}

void zyn_frame_rows::convert(int32_t pair, uint8_t* to) {
  const int64_t y = 2 * int64_t{pair};
  if (frame_.format == ZYN_FRAME_YUYV) {
    for (int64_t k = 0; k < 2 && y + k < frame_.height; k++) {
      split_yuyv(y + k);
      uint8_t* row = to + k * pitch_;
      zyn_yuv_to_bgr_rows(row, row, luma_, luma_, u_, v_, count_);
    }
    return;
  }
  const uint8_t *u = u_, *v = v_;
  if (frame_.format == ZYN_FRAME_I420) {
    u = plane(1, pair) + begin_ / 2;
    v = plane(2, pair) + begin_ / 2;
  } else {
    split_chroma(pair);
  }
  zyn_yuv_to_bgr_rows(to, to + pitch_, plane(0, y) + begin_, plane(0, y + 1) + begin_, u, v,
                      count_);
}

const uint8_t* zyn_frame_rows::row(int32_t y) {
  if (!converts()) return plane(0, y) + begin_ * channels();
  const int32_t pair = y / 2;
  const int64_t slot = pair % pairs_;
  uint8_t* rows = luma_ + apart_ + 2 * slot * pitch_;
  if (held_[slot] != pair) {
    convert(pair, rows);
    held_[slot] = pair;
  }
  return rows + (y & 1) * pitch_ + 3 * skipped_;
}

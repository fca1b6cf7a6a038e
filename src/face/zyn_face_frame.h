// Frames of any format as rows of packed bytes.
#pragma once

#include <stdint.h>

#include "base/zyn_memory.h"
#include "zyncore_face.h"

// 0 for a frame that is as its record is described, else 1 with an explanation.
int32_t zyn_check_frame(const zyn_face_frame* frame);

// Part of a frame's rows, columns begin to end - 1, as packed pixels: of one byte (grey) or of
// three in the order blue, green, red, or of RGB frames red, green, blue. Packed frames are read
// where they are; rows of YUV are converted when they are asked for, in pairs, and the latest
// ones are kept.
class zyn_frame_rows {
 public:
  // kept: at least as many rows as are in use at the same time.
  zyn_frame_rows(const zyn_face_frame& frame, int32_t begin, int32_t end, int32_t kept);
  explicit operator bool() const { return !converts() || block_; }

  int32_t channels() const { return frame_.format == ZYN_FRAME_GREY ? 1 : 3; }
  bool red_first() const { return frame_.format == ZYN_FRAME_RGB; }
  // The pixel in column begin of row y; the pointer holds until more than kept other rows
  // have been asked for.
  const uint8_t* row(int32_t y);

 private:
  bool converts() const {
    return channels() == 3 && frame_.format != ZYN_FRAME_BGR && frame_.format != ZYN_FRAME_RGB;
  }
  const uint8_t* plane(int32_t k, int64_t y) const {
    return static_cast<const uint8_t*>(frame_.planes[k]) + y * frame_.strides[k];
  }
  void split_chroma(int64_t y);
  void split_yuyv(int64_t y);
  void convert(int32_t pair, uint8_t* to);

  int64_t held_bytes() const;

  zyn_face_frame frame_;
  int64_t begin_, count_;       // even where rows are converted
  int64_t skipped_;             // pixels that the first column lies behind begin_
  int64_t pitch_;               // bytes of a converted row
  int64_t apart_;               // bytes of a row taken apart
  int64_t pairs_;               // of rows that are kept
  zyn_scratch<uint8_t> block_;  // held_, luma_ with u_ and v_, the pairs
  int32_t* held_ = nullptr;     // per pair the row / 2 of what it holds, -1: nothing
  uint8_t *luma_ = nullptr, *u_ = nullptr, *v_ = nullptr;
};

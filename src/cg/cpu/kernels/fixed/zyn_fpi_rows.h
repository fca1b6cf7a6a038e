// Padded input rows for the fixed-point kernels: a ring of rows of each of several planes.
// The padding around a row is written once. Rows may be kept by phases: every n-th column, then
// every n-th from the next one on, so that the taps of a dilated kernel are neighbours. A ring that
// holds more rows than are read at a time is filled as a whole, so that nobody reads words that
// have only just been written at another offset.
#pragma once

#include "base/zyn_memory.h"
#include "cg/cpu/kernels/fixed/zyn_fpi_lanes.h"

// How much a kernel reads for its outputs.
struct zyn_fpi_reach {
  int64_t rows;        // at a time, for one output row
  int64_t columns;     // for all outputs of a row
  int64_t most_rows;   // that the ring may hold of a plane: a power of two, at least rows
  int64_t phases = 1;  // of a row; columns are a multiple
};

struct zyn_fpi_rows {
  zyn_scratch<int16_t> words;
  const int16_t* planes;
  int64_t channels, width, height, pad_x, pad_y, rows, pitch, phases, inside;
  int64_t total;     // rows that the outputs read, counted from -pad_y
  int64_t capacity;  // rows of the ring, a power of two
  int64_t next = 0;  // first row not yet there

  // Rows of all planes of the input. Test words before use.
  zyn_fpi_rows(const zyn_tensor* input, const zyn_tensor* output, const zyn_fpi_layer& l,
               const zyn_fpi_reach& reach)
      : words(zyn_scratch<int16_t>::zeroed(words_of(output, l, reach))),
        planes(zyn_fpi_words(input)),
        channels(l.in_channels),
        width(input->dims[0]),
        height(input->dims[1]),
        pad_x(l.pad_x),
        pad_y(l.pad_y),
        rows(reach.rows),
        pitch(reach.columns),
        phases(reach.phases),
        inside(pad_x >= pitch          ? 0
               : width < pitch - pad_x ? width
                                       : pitch - pad_x),
        total(total_of(output, l, reach)),
        capacity(capacity_of(total, reach.most_rows)) {}

  static int64_t total_of(const zyn_tensor* output, const zyn_fpi_layer& l,
                          const zyn_fpi_reach& reach) {
    return (output->dims[1] - int64_t{1}) * l.stride_y + reach.rows;
  }
  static int64_t capacity_of(int64_t total_rows, int64_t most_rows) {
    while (most_rows > 1 && most_rows / 2 >= total_rows) most_rows /= 2;
    return most_rows;
  }
  // Size of the ring, -1 where it does not fit 64 bits.
  static int64_t words_of(const zyn_tensor* output, const zyn_fpi_layer& l,
                          const zyn_fpi_reach& reach) {
    int64_t plane = 0, all = 0;
    return zyn_multiply(capacity_of(total_of(output, l, reach), reach.most_rows), reach.columns,
                        &plane) &&
                   zyn_multiply(plane, l.in_channels, &all)
               ? all
               : -1;
  }
  // Lets rows first to first + rows - 1, counted from -pad_y, be there.
  void advance(int64_t first) {
    if (next >= first + rows || inside == 0) return;
    if (next < first) next = first;
    const int64_t end = first + capacity < total ? first + capacity : total;
    for (; next < end; next++) fill(next);
  }
  void fill(int64_t row) const {
    const int64_t y = row - pad_y;
    const bool exists = y >= 0 && y < height;
    // Without one, rows of a ring that holds all of them stay as they were made.
    if (!exists && total <= capacity) return;
    if (phases > 1) return fill_by_phases(exists ? planes + y * width : nullptr, row);
    int16_t* to = slot(0, row) + pad_x;
    if (exists)
      return zyn_fpi_copy_rows(to, capacity * pitch, planes + y * width, width * height, inside,
                               channels);
    for (int64_t c = 0; c < channels; c++, to += capacity * pitch)
      memset(to, 0, static_cast<size_t>(inside) * sizeof(int16_t));
  }
  // from null: a row outside.
  void fill_by_phases(const int16_t* from, int64_t row) const {
    for (int64_t c = 0; c < channels; c++) {
      int16_t* const to = slot(c, row);
      for (int64_t phase = 0; phase < phases && phase < inside; phase++) {
        int16_t* part = to + column(pad_x + phase);
        for (int64_t x = phase; x < inside; x += phases)
          *part++ = from ? from[c * width * height + x] : int16_t{0};
      }
    }
  }
  // Where column x of a row, counted from -pad_x, lies.
  int64_t column(int64_t x) const { return x % phases * (pitch / phases) + x / phases; }
  int16_t* slot(int64_t c, int64_t row) const {
    return words.get() + (c * capacity + (row & (capacity - 1))) * pitch;
  }
};

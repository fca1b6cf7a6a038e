// The walk over the output of a product whose B is read in place: which tile computes which
// columns, which columns are copied, and how many terms are summed at once.
#include "base/zyn_integers.h"
#include "cg/cpu/kernels/gemm/zyn_gemm_tiles.h"

namespace {

// Bytes of B that a group of columns may keep in the first-level cache (48 KB, of which
// the weights and the output need their share); terms beyond are summed in parts, the
// sums so far waiting in the output.
constexpr int64_t kGroupBytes = 24 * 1024;
constexpr int64_t kMostPartBytes = 60 * 1024;
// Vectors of 16 columns read them twice as fast: the second level would not keep up.
constexpr int64_t kMostWidePartBytes = 30 * 1024;
// More channels than this, for two tiles, leave no room in the first-level cache; as many for a row
// block's share ask for more than the next level gives.
constexpr int64_t kMostChannelsAhead = 160, kMostShareAhead = 16;
// Fewer row blocks than this do not earn the copy of the columns back.
constexpr int64_t kCopyBlocks = 3;
// So few terms are summed sooner than a job for every tile is made.
constexpr int64_t kFewTerms = 32;
constexpr int64_t kVectorsAtOnce = 48;   // of slim rows: whole tiles of 8, 6 and 4 vectors
constexpr int64_t kColumnsAtOnce = 192;  // the same without taps, whose sums need no memory
constexpr int64_t kMostSlimRows = 3;
// Terms of a column that is multiplied by itself, rows at a time, and how many earn that.
constexpr int64_t kMostColumn = 2048, kMostColumnRows = 8 * 6, kLastColumnRows = 16;
constexpr int64_t kGroupUnit = 96;  // columns: whole tiles of 3, 6 and 4 vectors

// Everything that a walk over an output needs to call a tile.
struct walk {
  const zyn_gemm_rows& b;
  const zyn_gemm_tile_set& set;
  const float* packed;
  const zyn_gemm_output& output;
  int64_t blocks;
  int64_t part;  // channels that are summed at once

  // The job for row block block and channels first to last - 1, without its columns.
  zyn_gemm_tile_job job(int64_t block, int64_t first, int64_t last) const {
    const int64_t row = block * set.block, terms = b.channels * b.taps;
    const bool done = last == b.channels;
    const zyn_conv_epilogue& e = output.epilogue;
    zyn_gemm_tile_job j = {};
    j.x = b.base + first * b.channel_stride;
    j.channel_stride = b.channel_stride;
    j.channels = last - first;
    j.taps = b.taps;
    j.offsets = b.offsets;
    j.weights = packed + row * terms + first * b.taps * set.block;
    j.block_stride = terms * set.block;
    j.out = output.data + row * output.pitch;
    j.pitch = output.pitch;
    j.rows = output.rows - row;
    j.columns = set.lanes;
    j.at[1] = j.to[1] = set.lanes;
    j.at[2] = j.to[2] = 2 * set.lanes;
    j.bias = done && e.bias ? e.bias + row : nullptr;
    j.activation = done ? e.activation : static_cast<int32_t>(ZYN_EPILOGUE_NONE);
    j.resume = first > 0;
    j.count = 1;
    return j;
  }

  // One vector of columns, all blocks: as many at once as there are registers, but two
  // pairs rather than three blocks and a single one.
  void narrow(int64_t from, int64_t to, int64_t columns) const {
    for (int64_t block = 0; block < blocks;) {
      const int64_t left = blocks - block;
      const int64_t count =
          left == 4 && set.most_blocks == 3 ? 2 : zyn_smaller(left, set.most_blocks);
      zyn_gemm_tile_job j = job(block, 0, b.channels);
      j.x += from;
      j.out += to;
      j.columns = columns;
      set.narrow[b.taps > 1][count - 1](j);
      block += count;
    }
  }

  bool copies() const { return b.panel && blocks >= kCopyBlocks; }

  // Whole wide tiles from column to last, row block by row block: for few row blocks, whose
  // columns are not worth a copy.
  void wide(int64_t column, int64_t last) const {
    for (int64_t first = 0; first < b.channels; first += part)
      for (int64_t block = 0; block < blocks; block++) {
        zyn_gemm_tile_job j = job(block, first, zyn_smaller(first + part, b.channels));
        j.x += column;
        j.out += column;
        j.count = (last - column) / set.wide_columns;
        j.next_x = j.next_out = set.wide_columns;
        set.wide[b.taps > 1][0](j);
      }
  }

  // One wide tile whose vectors lie anywhere, all row blocks in one call. The tile that
  // comes next, if it is known, has its first column at next (floats from base on, else 0).
  void scattered(const zyn_gemm_vector* vectors, int64_t next = 0) const {
    all_blocks(vectors, next, set.wide[b.taps > 1], set.wide[0][0]);
  }

  // The tile of the last columns, the last 4 of which are half a vector.
  void half(int64_t column) const {
    const zyn_gemm_vector vectors[3] = {
        {column, column}, {column + 8, column + 8}, {column + 16, column + 16}};
    all_blocks(vectors, 0, set.half, set.half[0]);
  }

  // by_copy: the tile for B in place, without and with copying; packed: for the copy.
  void all_blocks(const zyn_gemm_vector* vectors, int64_t next,
                  const zyn_gemm_tile_function* by_copy, zyn_gemm_tile_function packed) const {
    const bool copy = copies();
    for (int64_t first = 0; first < b.channels; first += part) {
      zyn_gemm_tile_job j = job(0, first, zyn_smaller(first + part, b.channels));
      j.x += vectors[0].from;
      j.out += vectors[0].to;
      for (int64_t v = 1; v < set.wide_columns / set.lanes; v++) {
        j.at[v] = vectors[v].from - vectors[0].from;
        j.to[v] = vectors[v].to - vectors[0].to;
      }
      j.copy = b.panel;
      j.next_weights = j.block_stride;
      j.next_out = set.block * j.pitch;
      j.next_rows = set.block;
      j.count = copy ? 1 : blocks;
      if (next > 0 && b.taps == 1 && b.channels <= kMostChannelsAhead &&
          b.channels < kMostShareAhead * blocks) {
        j.ahead = b.base + next;
        j.ahead_stride = b.channel_stride;
        j.ahead_rows = (b.channels + blocks - 1) / blocks;
      }
      by_copy[copy](j);
      if (!copy) continue;
      read_panel(&j);
      j.count = blocks - 1;
      j.weights += j.next_weights;
      j.out += j.next_out;
      j.rows -= j.next_rows;
      if (j.bias) j.bias += j.next_rows;
      if (j.ahead) j.ahead += j.ahead_rows * j.ahead_stride;
      packed(j);
    }
  }

  // Lets a job read the columns that the first row block copied.
  void read_panel(zyn_gemm_tile_job* j) const {
    j->x = b.panel;
    j->channel_stride = set.wide_columns;
    j->channels *= b.taps;
    j->at[1] = set.lanes;
    j->at[2] = 2 * set.lanes;
  }

  // The columns from first on in whole tiles side by side, of which count hold.
  void side_by_side(int64_t first, int64_t last, int64_t columns) const {
    const int64_t width = set.wide_columns;
    if (blocks < kCopyBlocks || (!b.panel && b.channels * b.taps <= kFewTerms)) {
      const int64_t group = zyn_larger(kGroupBytes / (b.channels * b.taps * 4) / width, 1) * width;
      for (; first < last; first += group) wide(first, zyn_smaller(first + group, last));
      return;
    }
    for (; first < last; first += width) tile_at(first, first + 2 * set.lanes, columns);
  }

  // A tile of the vectors at column and behind it, but for a third one that
  // lies elsewhere.
  void tile_at(int64_t column, int64_t last_vector, int64_t columns) const {
    const int64_t width = set.wide_columns, second = column + set.lanes;
    const zyn_gemm_vector vectors[3] = {
        {column, column}, {second, second}, {last_vector, last_vector}};
    scattered(vectors, column + 2 * width <= columns ? column + width : 0);
  }
};

const zyn_gemm_tile_set& set_of(int64_t block, int64_t lanes) {
#if ZYN_VECTOR_BITS == 512
  if (lanes == 16) return block == 6 ? zyn_gemm_wide_tiles_6 : zyn_gemm_wide_tiles_4;
#endif
  (void)lanes;
  return block == 6 ? zyn_gemm_tiles_6 : zyn_gemm_tiles_4;
}

walk make_walk(const zyn_gemm_rows& b, int64_t lanes, const float* packed, int64_t block,
               const zyn_gemm_output& output) {
  const zyn_gemm_tile_set& set = set_of(block, lanes);
  const int64_t bytes = set.wide_columns * b.channels * b.taps * 4;
  const int64_t parts = zyn_units(bytes, lanes > 8 ? kMostWidePartBytes : kMostPartBytes);
  return {
      b, set, packed, output, (output.rows + block - 1) / block, (b.channels + parts - 1) / parts};
}

// The columns by tiles of 8-lane vectors.
void by_eights(const zyn_gemm_rows& b, int64_t columns, const float* packed, int64_t block,
               const zyn_gemm_output& output) {
  const walk w = make_walk(b, 8, packed, block, output);
  const int64_t width = w.set.wide_columns;
  // A plane that ends with at most half a vector ends with a tile made for that.
  const int64_t tail = columns % 8;
  if (w.set.half[0] && b.taps == 1 && columns >= ZYN_GEMM_HALF && tail >= 1 && tail <= 4) {
    w.half(columns - ZYN_GEMM_HALF);
    columns -= ZYN_GEMM_HALF;
  }
  const int64_t whole = columns / width * width, rest = columns - whole;
  w.side_by_side(0, whole, columns);
  if (rest == 0) return;
  // The remaining columns are taken in tiles that end with the last column; what overlaps
  // is computed twice, to the same bits.
  if (columns >= width && w.blocks == 1 && rest > 8) return w.wide(columns - width, columns);
  if (rest > 16) return w.tile_at(whole, columns - 8, columns);
  for (int64_t column = whole; column < columns; column += 8) {
    const int64_t start = columns < 8 ? 0 : zyn_smaller(column, columns - 8);
    w.narrow(start, start, zyn_smaller(columns, 8));
  }
}

// All rows in whole blocks, the last of which may have rows that do not exist.
void in_blocks(const zyn_gemm_rows& b, int64_t columns, const float* packed, int64_t block,
               const zyn_gemm_output& output) {
  zyn_gemm_rows rest = b;
  zyn_gemm_output rest_output = output;
  if (kZynVectorFloats > 8) {
    const walk w = make_walk(b, kZynVectorFloats, packed, block, output);
    int64_t done = columns / w.set.wide_columns * w.set.wide_columns;
    w.side_by_side(0, done, done);
    for (; done + w.set.lanes <= columns; done += w.set.lanes) w.narrow(done, done, w.set.lanes);
    if (done == columns) return;
    // What remains has at least 8 columns to read; what overlaps is computed twice.
    const int64_t first = done > 0 ? zyn_smaller(done, columns - 8) : 0;
    rest.base += first;
    rest_output.data += first;
    columns -= first;
  }
  by_eights(rest, columns, packed, block, rest_output);
}

void scattered_in_blocks(const zyn_gemm_rows& b, const zyn_gemm_vector* vectors, int64_t count,
                         int64_t lanes, const float* packed, int64_t block,
                         const zyn_gemm_output& output) {
  const walk w = make_walk(b, lanes, packed, block, output);
  const int64_t wide = w.set.wide_columns / lanes;
  int64_t i = 0;
  for (; i + wide <= count; i += wide) w.scattered(vectors + i);
  for (; i < count; i++) w.narrow(vectors[i].from, vectors[i].to, lanes);
}

// Whether the last block's rows that exist get tiles of their own: where so few blocks go before
// that those that do not would show.
bool has_slim_rows(const zyn_gemm_output& output, int64_t block) {
  return block == 4 && output.rows % block != 0 && output.rows / block < kCopyBlocks;
}

zyn_gemm_output whole_blocks(const zyn_gemm_output& output, int64_t block) {
  return {output.data, output.pitch, output.rows / block * block, output.epilogue};
}

// Of strips, whose values several taps read, as many channels at a time as stay in the first
// cache level.
void slim_rows(const zyn_gemm_rows& b, const zyn_gemm_vector* vectors, int64_t count, int64_t lanes,
               const float* packed, int64_t block, const zyn_gemm_output& output) {
  const int64_t row = output.rows / block * block;
  const int64_t in_cache = zyn_larger(kGroupBytes / (zyn_larger(b.channel_stride, 1) * 4), 1);
  const int64_t part = b.taps > 1 ? in_cache : b.channels;
  alignas(64) float sums[kVectorsAtOnce * kMostSlimRows * kZynVectorFloats];
  for (int64_t first = 0; first < b.channels; first += part) {
    const walk w = {b, set_of(block, 8), packed, output, 0, 0};
    const zyn_gemm_tile_job j = w.job(row / block, first, zyn_smaller(first + part, b.channels));
    zyn_gemm_rows some = b;
    some.base = j.x;
    some.channels = j.channels;
    const bool last = first + part >= b.channels;
    zyn_gemm_slim_tiles(
        {some, j.weights, j.out, j.pitch, j.bias, j.activation, sums, j.resume, last}, j.rows,
        lanes, vectors, count);
  }
}

// Columns side by side, at least 8.
void slim_columns(const zyn_gemm_rows& b, int64_t columns, const float* packed, int64_t block,
                  const zyn_gemm_output& output) {
  const int64_t lanes = columns < kZynVectorFloats ? 8 : kZynVectorFloats;
  zyn_gemm_vector vectors[kColumnsAtOnce];
  const int64_t at_once = b.taps > 1 ? kVectorsAtOnce : kColumnsAtOnce;
  int64_t count = 0;
  for (int64_t column = 0; column + lanes <= columns; column += lanes) {
    vectors[count++] = {column, column};
    if (count < at_once && column + 2 * lanes <= columns) continue;
    slim_rows(b, vectors, count, lanes, packed, block, output);
    count = 0;
  }
  vectors[0] = {columns - lanes, columns - lanes};
  if (columns % lanes != 0) slim_rows(b, vectors, 1, lanes, packed, block, output);
}

// Whether a last column is left that would cost a vector of columns: planes of 5 x 5, 7 x 7, 13 x
// 13 and other odd sides.
bool has_last_column(const zyn_gemm_rows& b, int64_t columns, int64_t rows) {
  return b.taps == 1 && b.channels <= kMostColumn && columns > 8 && columns % 8 == 1 &&
         rows >= kLastColumnRows;
}

// Column number column by itself: a product by a vector, the same sums.
void last_column(const zyn_gemm_rows& b, int64_t column, const float* packed, int64_t block,
                 const zyn_gemm_output& output) {
  float x[kMostColumn], y[kMostColumnRows];
  for (int64_t i = 0; i < b.channels; i++) x[i] = b.base[i * b.channel_stride + column];
  const int64_t at_once = 8 * block;
  const zyn_conv_epilogue& e = output.epilogue;
  for (int64_t row = 0; row < output.rows; row += at_once) {
    const int64_t count = zyn_smaller(at_once, output.rows - row);
    zyn_gemm_blocks_by_vector(count, b.channels, packed + row * b.channels, block, x, y);
    zyn_conv_finish_rows(y, count, 1, {e.bias ? e.bias + row : nullptr, e.activation});
    float* to = output.data + row * output.pitch + column;
    for (int64_t r = 0; r < count; r++) to[r * output.pitch] = y[r];
  }
}

}  // namespace

void zyn_gemm_in_place(const zyn_gemm_rows& b, int64_t columns, const float* packed, int64_t block,
                       const zyn_gemm_output& output) {
  if (has_last_column(b, columns, output.rows)) last_column(b, --columns, packed, block, output);
  if (columns < 8 || !has_slim_rows(output, block))
    return in_blocks(b, columns, packed, block, output);
  const zyn_gemm_output whole = whole_blocks(output, block);
  if (whole.rows == 0) return slim_columns(b, columns, packed, block, output);
  // Groups of columns stay in the first cache level until the last rows read them.
  const int64_t group = zyn_larger(kGroupBytes / (b.channels * 4) / kGroupUnit, 1) * kGroupUnit;
  zyn_gemm_rows from = b;
  zyn_gemm_output some = whole, last = output;
  for (int64_t here = 0; columns > 0; columns -= here) {
    here = columns < group + 8 ? columns : group;
    in_blocks(from, here, packed, block, some);
    slim_columns(from, here, packed, block, last);
    from.base += here;
    some.data += here;
    last.data += here;
  }
}

void zyn_gemm_scattered(const zyn_gemm_rows& b, const zyn_gemm_vector* vectors, int64_t count,
                        int64_t lanes, const float* packed, int64_t block,
                        const zyn_gemm_output& output) {
  const bool slim = b.taps > 1 && has_slim_rows(output, block);  // see zyn_gemm_slim_tiles
  const zyn_gemm_output whole = slim ? whole_blocks(output, block) : output;
  if (whole.rows > 0) scattered_in_blocks(b, vectors, count, lanes, packed, block, whole);
  for (int64_t i = 0; slim && i < count; i += kVectorsAtOnce)
    slim_rows(b, vectors + i, zyn_smaller(count - i, kVectorsAtOnce), lanes, packed, block, output);
}

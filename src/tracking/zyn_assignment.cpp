// Detections to tracks: the overlap score, the assignment (shortest augmenting paths
// with row and column duals, after D. F. Crouse, "On implementing 2D rectangular
// assignment algorithms", 2016), and the match info that carries the result.
#include "tracking/zyn_assignment.h"

#include <math.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_memory.h"
#include "matrix/zyn_matrix_ops.h"
#include "tracking/zyn_tracking_report.h"

namespace {

constexpr zyn_site kColumnsMemory{kZynTrackingPath, 767, ZYN_MSG_MEMORY};
constexpr zyn_site kAssociateArgs{kZynTrackingPath, 1196, ZYN_MSG_PARA};
constexpr zyn_site kScoresMemory{kZynTrackingPath, 1202, ZYN_MSG_MEMORY};
constexpr zyn_site kSolve{kZynTrackingPath, 1222, ZYN_MSG_UNKNOWN};
constexpr zyn_site kPairFlagsMemory{kZynTrackingPath, 1232, ZYN_MSG_MEMORY};
constexpr zyn_site kDetectionFlagsMemory{kZynTrackingPath, 1239, ZYN_MSG_MEMORY};

constexpr int32_t kNone = -1;
constexpr int64_t kIndexBytes = sizeof(int32_t);
constexpr int64_t kPairBytes = 2 * kIndexBytes;

// On purpose: small faces that move fast still overlap their predictions.
constexpr float kEnlargement = 5.0f;
constexpr float kUnionMargin = 0.00001f;

// Costs are floats, everything summed up along paths is double.
struct problem {
  const float* cost;
  int32_t rows, cols;
  double* row_dual;
  double* col_dual;
  double* shortest;     // per column, the cheapest path that reaches it
  int32_t* path;        // per column, the row before it on that path
  int32_t* col_of_row;  // the assignment so far
  int32_t* row_of_col;
  int32_t* remaining;  // columns that the search has not settled
  uint8_t* row_visited;
  uint8_t* col_visited;
};

void turn_scores_into_costs(float* scores, int64_t count) {
  float largest = -INFINITY;
  for (int64_t i = 0; i < count; i++)
    if (scores[i] > largest) largest = scores[i];
  for (int64_t i = 0; i < count; i++) scores[i] = largest - scores[i];
}

// Lowers the shortest paths to the remaining columns by those that leave row i, and
// returns the position in remaining of the closest column. On purpose: of equally close
// columns the last free one wins, and among taken ones the first; *lowest stays infinite
// when none can be reached.
int32_t closest_column(const problem& p, int32_t i, int32_t remaining, double* lowest) {
  const float* const cost = p.cost + int64_t{i} * p.cols;
  const double travelled = *lowest;
  int32_t closest = kNone;
  *lowest = INFINITY;
  for (int32_t k = 0; k < remaining; k++) {
    const int32_t j = p.remaining[k];
    const double length = travelled + static_cast<double>(cost[j]) - p.row_dual[i] - p.col_dual[j];
    if (length < p.shortest[j]) {
      p.path[j] = i;
      p.shortest[j] = length;
    }
    if (p.shortest[j] < *lowest || (p.shortest[j] == *lowest && p.row_of_col[j] == kNone)) {
      *lowest = p.shortest[j];
      closest = k;
    }
  }
  return closest;
}

// Finds the cheapest augmenting path from a row; returns the free column at its end, or
// kNone. *length takes its cost.
int32_t find_path(const problem& p, int32_t from, double* length) {
  // On purpose reversed, and holes are filled by the last entry: equal costs are decided
  // by this order.
  for (int32_t k = 0; k < p.cols; k++) p.remaining[k] = p.cols - 1 - k;
  for (int32_t j = 0; j < p.cols; j++) p.shortest[j] = INFINITY;
  memset(p.row_visited, 0, static_cast<size_t>(p.rows));
  memset(p.col_visited, 0, static_cast<size_t>(p.cols));
  *length = 0;
  int32_t i = from;
  for (int32_t remaining = p.cols;; remaining--) {
    p.row_visited[i] = 1;
    const int32_t k = closest_column(p, i, remaining, length);
    if (*length == INFINITY) return kNone;
    const int32_t j = p.remaining[k];
    p.col_visited[j] = 1;
    if (p.row_of_col[j] == kNone) return j;
    i = p.row_of_col[j];
    p.remaining[k] = p.remaining[remaining - 1];
  }
}

void update_duals(const problem& p, int32_t from, double length) {
  p.row_dual[from] += length;
  for (int32_t i = 0; i < p.rows; i++)
    if (i != from && p.row_visited[i]) p.row_dual[i] += length - p.shortest[p.col_of_row[i]];
  for (int32_t j = 0; j < p.cols; j++)
    if (p.col_visited[j]) p.col_dual[j] -= length - p.shortest[j];
}

// Assigns along the path that ends at column j, backwards.
void augment(const problem& p, int32_t from, int32_t j) {
  for (int32_t i = kNone; i != from;) {
    i = p.path[j];
    p.row_of_col[j] = i;
    const int32_t before = p.col_of_row[i];
    p.col_of_row[i] = j;
    j = before;
  }
}

struct edges {
  float left, top, right, bottom, area;
};

// On purpose: the area is not clamped, an inverted box has a negative or, twice
// inverted, a positive one.
edges enlarge(const zyn_detection& box) {
  const float cx = 0.5f * (box.x1 + box.x2);
  const float cy = 0.5f * (box.y1 + box.y2);
  const float half_w = kEnlargement * (box.x2 - box.x1) * 0.5f;
  const float half_h = kEnlargement * (box.y2 - box.y1) * 0.5f;
  edges e{cx - half_w, cy - half_h, cx + half_w, cy + half_h, 0};
  e.area = (e.right - e.left) * (e.bottom - e.top);
  return e;
}

// The common part of two ranges, 0 when there is none.
float overlap(float begin_a, float end_a, float begin_b, float end_b) {
  const float length = (end_a < end_b ? end_a : end_b) - (begin_a > begin_b ? begin_a : begin_b);
  return length > 0 ? length : 0;
}

float score(const edges& a, const edges& b) {
  const float common =
      overlap(a.left, a.right, b.left, b.right) * overlap(a.top, a.bottom, b.top, b.bottom);
  return common / (a.area + b.area - common + kUnionMargin);
}

void fill_scores(float* scores, const zyn_detection* detections, int32_t detection_count,
                 const zyn_detection* tracks, int32_t track_count) {
  for (int32_t d = 0; d < detection_count; d++) {
    const edges detection = enlarge(detections[d]);
    for (int32_t t = 0; t < track_count; t++)
      *scores++ = tracks ? score(detection, enlarge(tracks[t])) : 0;
  }
}

// Keeps the pairs above the threshold and lists the detections that have none.
zyn_sort_match_info* make_match_info(const zyn_matrix* scores, const int32_t* pairs,
                                     float threshold) {
  const int32_t detections = scores->rows;
  const int32_t count = detections < scores->cols ? detections : scores->cols;
  const auto kept = zyn_scratch<uint8_t>::zeroed(count);
  if (!kept) {
    zyn_report(kPairFlagsMemory);
    return nullptr;
  }
  const auto matched = zyn_scratch<uint8_t>::zeroed(detections);
  if (!matched) {
    zyn_report(kDetectionFlagsMemory);
    return nullptr;
  }
  const auto* values = static_cast<const float*>(scores->data);
  int32_t matched_count = 0;
  for (int32_t i = 0; i < count; i++) {
    const int32_t d = pairs[2 * i];
    kept[i] = values[int64_t{d} * scores->cols + pairs[2 * i + 1]] > threshold;
    matched[d] = kept[i];
    matched_count += kept[i];
  }
  zyn_sort_match_info* info = zyn_create_sort_match_info(matched_count, detections - matched_count);
  if (!info) return nullptr;
  int32_t* pair = info->matched;
  for (int32_t i = 0; i < count; i++) {
    if (!kept[i]) continue;
    *pair++ = pairs[2 * i];
    *pair++ = pairs[2 * i + 1];
  }
  int32_t* unmatched = info->unmatched;
  for (int32_t d = 0; d < detections; d++)
    if (!matched[d]) *unmatched++ = d;
  return info;
}

}  // namespace

int32_t zyn_solve_assignment(zyn_matrix* scores, int32_t* columns) {
  const int32_t rows = scores->rows;
  const int32_t cols = scores->cols;
  auto* const cost = static_cast<float*>(scores->data);
  turn_scores_into_costs(cost, int64_t{rows} * cols);
  const auto sums = zyn_scratch<double>::zeroed(int64_t{rows} + 2 * int64_t{cols});
  const zyn_scratch<int32_t> indices(int64_t{rows} + 3 * int64_t{cols});
  const zyn_scratch<uint8_t> flags(int64_t{rows} + cols);
  if (!sums || !indices || !flags) return ZYN_RET_ERR_MEMORY;

  problem p{};
  p.cost = cost;
  p.rows = rows;
  p.cols = cols;
  p.row_dual = sums.get();
  p.col_dual = p.row_dual + rows;
  p.shortest = p.col_dual + cols;
  p.path = indices.get();
  p.remaining = p.path + cols;
  p.row_of_col = p.remaining + cols;
  p.col_of_row = p.row_of_col + cols;
  p.row_visited = flags.get();
  p.col_visited = p.row_visited + rows;
  for (int64_t k = 0; k < int64_t{rows} + cols; k++) p.row_of_col[k] = kNone;  // and col_of_row

  for (int32_t row = 0; row < rows; row++) {
    double length = 0;
    const int32_t sink = find_path(p, row, &length);
    if (sink == kNone) {
      zyn_print("infeasible cost matrix\n");
      return ZYN_RET_ERR_DATA_LENGTH;
    }
    update_duals(p, row, length);
    augment(p, row, sink);
  }
  memcpy(columns, p.col_of_row, sizeof(int32_t) * static_cast<size_t>(rows));
  return ZYN_RET_OK;
}

int32_t* zyn_assignment_pairs(const zyn_matrix* scores) {
  const bool transposed = scores->rows > scores->cols;
  const int32_t rows = transposed ? scores->cols : scores->rows;
  const int32_t cols = transposed ? scores->rows : scores->cols;
  const zyn_matrix_guard solved(zyn_create_matrix(rows, cols, 1, ZYN_TYPE_F32));
  if (!solved) return nullptr;
  if (transposed)
    zyn_matrix_transpose(solved.get(), scores);
  else
    memcpy(solved->data, scores->data, static_cast<size_t>(scores->row_bytes * scores->rows));

  const zyn_scratch<int32_t> columns(rows);
  if (!columns) {
    zyn_report(kColumnsMemory);
    return nullptr;
  }
  if (zyn_solve_assignment(solved.get(), columns.get()) != ZYN_RET_OK) return nullptr;
  zyn_scratch<int32_t> pairs(2 * int64_t{rows});
  for (int32_t i = 0; pairs && i < rows; i++) {
    pairs[2 * i] = transposed ? columns[i] : i;
    pairs[2 * i + 1] = transposed ? i : columns[i];
  }
  return pairs.take();
}

zyn_sort_match_info* zyn_associate_detections_to_trackers(const zyn_detection* detections,
                                                          int32_t detection_count,
                                                          const zyn_detection* tracks,
                                                          int32_t track_count,
                                                          float iou_threshold) {
  // On purpose: null tracks are let through, and overlap nothing.
  if (!detections || detection_count == 0 || track_count == 0) {
    zyn_report(kAssociateArgs);
    zyn_explain("detections and tracks are needed, found %d%s and %d", detection_count,
                detections ? "" : " at null", track_count);
    return nullptr;
  }
  const zyn_matrix_guard scores(zyn_create_matrix(detection_count, track_count, 1, ZYN_TYPE_F32));
  if (!scores) {
    zyn_report(kScoresMemory);
    return nullptr;
  }
  fill_scores(static_cast<float*>(scores->data), detections, detection_count, tracks, track_count);
  int32_t* const pairs = zyn_assignment_pairs(scores.get());
  if (!pairs) {
    zyn_report(kSolve);
    zyn_explain(
        "the overlaps of %d detections with %d tracks cannot be solved: no memory, or a box "
        "that is not finite",
        detection_count, track_count);
    return nullptr;
  }
  zyn_sort_match_info* const info = make_match_info(scores.get(), pairs, iou_threshold);
  zyn_free(pairs);
  return info;
}

zyn_sort_match_info* zyn_create_sort_match_info(int32_t matched_count, int32_t unmatched_count) {
  auto* info = static_cast<zyn_sort_match_info*>(zyn_calloc(1, sizeof(zyn_sort_match_info)));
  if (!info) return nullptr;
  info->matched_count = matched_count;  // On purpose stored as given, negative ones too.
  info->unmatched_count = unmatched_count;
  // Not touched: untouched pages of a large request cost nothing.
  if (matched_count > 0)
    info->matched = static_cast<int32_t*>(zyn_malloc(int64_t{matched_count} * kPairBytes));
  if (unmatched_count > 0)
    info->unmatched = static_cast<int32_t*>(zyn_malloc(int64_t{unmatched_count} * kIndexBytes));
  if ((matched_count > 0 && !info->matched) || (unmatched_count > 0 && !info->unmatched))
    zyn_release_sort_match_info(&info);
  return info;
}

void zyn_release_sort_match_info(zyn_sort_match_info** info) {
  if (!info || !*info) return;
  zyn_free((*info)->matched);
  zyn_free((*info)->unmatched);
  zyn_free(*info);
  *info = nullptr;
}

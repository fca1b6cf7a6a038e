// A tracker's life beside a plain model of its tracks (ids, ages, payloads), with both
// updates mixed, masks, match info made by hand, ids about to wrap and boxes of any
// floats; and associations beside the best of all assignments.
#include <algorithm>
#include <cmath>
#include <vector>

#include "support/fuzz.h"
#include "tracking/zyn_sort.h"

namespace {

using zyn_fuzz::check;
using zyn_fuzz::Input;
using Boxes = std::vector<zyn_detection>;

zyn_detection box(Input& in) {
  if (in.one_in(24)) return {in.real(), in.real(), in.real(), in.real(), in.real()};
  const auto x = static_cast<float>(in.byte()), y = static_cast<float>(in.byte());
  const uint32_t size = in.byte(), width = size % 16 + 1, height = size / 16 + 1;
  return {x, y, x + static_cast<float>(width), y + static_cast<float>(height), 1};
}
Boxes some_boxes(Input& in, uint32_t count) {
  Boxes boxes(count);
  for (zyn_detection& b : boxes) b = box(in);
  return boxes;
}

// The documented overlap of two boxes enlarged five times.
double score(const zyn_detection& a, const zyn_detection& b) {
  const auto edge = [](float from, float to, double side) {
    return 0.5 * (double{from} + double{to}) + 2.5 * side * (double{to} - double{from});
  };
  const auto common = [&](float a1, float a2, float b1, float b2) {
    return std::max(0.0, std::min(edge(a1, a2, 1), edge(b1, b2, 1)) -
                             std::max(edge(a1, a2, -1), edge(b1, b2, -1)));
  };
  const auto area = [](const zyn_detection& d) {
    return 25 * (double{d.x2} - double{d.x1}) * (double{d.y2} - double{d.y1});
  };
  const double both = common(a.x1, a.x2, b.x1, b.x2) * common(a.y1, a.y2, b.y1, b.y2);
  return both / (area(a) + area(b) - both + 0.00001);
}

// The largest sum over assignments of the rows from d on to columns not in used, when
// spare rows may stay without one.
double best(const std::vector<double>& s, size_t cols, size_t d, uint32_t used, size_t spare) {
  if (d * cols == s.size()) return 0;
  double sum = spare ? best(s, cols, d + 1, used, spare - 1) : -HUGE_VAL;
  for (size_t t = 0; t < cols; t++)
    if (!(used >> t & 1))
      sum = std::max(sum, s[d * cols + t] + best(s, cols, d + 1, used | 1u << t, spare));
  return sum;
}

void associate(Input& in) {
  const Boxes d = some_boxes(in, in.byte() % 7 + 1), t = some_boxes(in, in.byte() % 7 + 1);
  const size_t rows = d.size(), cols = t.size();
  std::vector<double> s;
  for (const zyn_detection& a : d)
    for (const zyn_detection& b : t) s.push_back(score(a, b));
  // Areas that single precision cannot hold have no score.
  const auto small = [](const zyn_detection& b) {
    return std::max({std::fabs(b.x1), std::fabs(b.y1), std::fabs(b.x2), std::fabs(b.y2)}) < 1e15f;
  };
  const bool sane =
      std::all_of(s.begin(), s.end(), [](double v) { return v >= 0 && v <= 1.001; }) &&
      std::all_of(d.begin(), d.end(), small) && std::all_of(t.begin(), t.end(), small);
  const float threshold = in.one_in(2) ? -1 : in.real();
  zyn_sort_match_info* m = zyn_associate_detections_to_trackers(
      d.data(), static_cast<int32_t>(rows), t.data(), static_cast<int32_t>(cols), threshold);
  check(m || !sane, "numbers can be assigned");
  if (!m) return;
  double sum = 0;
  uint32_t used = 0, seen = 0;  // each box once
  for (int32_t i = 0; i < m->matched_count; i++) {
    const auto a = static_cast<uint32_t>(m->matched[2 * i]),
               b = static_cast<uint32_t>(m->matched[2 * i + 1]);
    check(a < rows && b < cols && !(seen >> a & 1) && !(used >> b & 1), "pairs name boxes once");
    seen |= 1u << a, used |= 1u << b;
    check(!sane || s[a * cols + b] > double{threshold} - 1e-5, "pairs are above the threshold");
    sum += s[a * cols + b];
  }
  for (int32_t i = 0; i < m->unmatched_count; i++) seen ^= 1u << m->unmatched[i];
  check(m->matched_count + m->unmatched_count == static_cast<int32_t>(rows) &&
            seen == (1u << rows) - 1,
        "every detection is matched or not");
  if (sane && threshold < 0)
    check(std::fabs(sum - best(s, cols, 0, 0, rows > cols ? rows - cols : 0)) < 1e-4,
          "the sum is the largest one");
  zyn_release_sort_match_info(&m);
}

struct Track {
  uint32_t id;
  int32_t age;
  std::vector<uint8_t> payload;
};

class Life {
 public:
  explicit Life(Input& in) : in_(in) {
    const zyn_sort_param p = {in.integer(0, 3), in.integer(1, 3), 0.5f, in.pick(kSizes)};
    max_age_ = p.max_age;
    bytes_ = static_cast<size_t>(std::max(0.0f, p.payload_size));
    sort_ = zyn_create_sort_handle(&p);
    if (in.one_in(4)) next_ = sort_->next_id = INT32_MAX - in.byte() % 8u;
  }
  ~Life() { zyn_release_sort_handle(&sort_); }
  // False: a correction or prediction failed in the middle; the model ends here.
  bool step() {
    if (in_.one_in(3)) return predict();
    const bool many = in_.one_in(48) && model_.size() < 200;
    const Boxes boxes = many ? Boxes(60, box(in_)) : some_boxes(in_, in_.byte() % 5 + 1);
    for (const zyn_detection& b : boxes)
      for (const float v : {b.x1, b.y1, b.x2, b.y2}) wild_ = wild_ || !(std::fabs(v) < 300);
    std::vector<uint8_t> mask(boxes.size());
    for (uint8_t& m : mask) m = static_cast<uint8_t>(many ? 1 : in_.byte() % 3);
    const uint8_t* masked = in_.one_in(2) ? mask.data() : nullptr;
    const bool known =
        in_.one_in(2) ? by_ids(boxes, masked, many) : by_matches(boxes, masked, many);
    if (known) list();
    return known;
  }

 private:
  static constexpr float kSizes[] = {0, 1, 6, 17.9f, -3};

  bool predict() {
    zyn_track_info* info = zyn_create_sort_predict(sort_);
    check(info || wild_, "tracks of ordinary boxes can be predicted");
    if (!info) return false;
    check(info->count == static_cast<int32_t>(model_.size()), "every track is predicted");
    for (size_t k = 0; k < model_.size(); k++) {
      check(info->time_since_update[k] == ++model_[k].age, "tracks age by one a frame");
      same(info, k, model_[k]);
    }
    zyn_release_track_info(&info);
    return true;
  }
  void list() {
    zyn_track_info* info = zyn_sort_get_track_info(sort_);
    check(info, "tracks can be listed");
    size_t k = 0;
    for (int32_t i = 0; i < info->count; i++, k++) {
      while (k < model_.size() && (model_[k].age > 0 || model_[k].id != info->ids[i])) k++;
      check(k < model_.size(), "the list holds tracks of this frame in their order");
      same(info, static_cast<size_t>(i), model_[k]);
    }
    zyn_release_track_info(&info);
  }
  void same(const zyn_track_info* info, size_t entry, const Track& track) {
    check(info->ids[entry] == track.id, "tracks keep their ids");
    const auto* payload = static_cast<const uint8_t*>(info->payload);
    check(!bytes_ || !memcmp(payload + entry * bytes_, track.payload.data(), bytes_),
          "tracks keep their payloads");
  }
  void drop() {
    for (size_t k = 0; k < model_.size(); k++)
      if (model_[k].age > max_age_) model_.erase(model_.begin() + static_cast<std::ptrdiff_t>(k));
  }
  void add(const uint8_t* payload) {
    model_.push_back({static_cast<uint32_t>(next_), 0, std::vector<uint8_t>(bytes_)});
    if (payload) model_.back().payload.assign(payload, payload + bytes_);
  }

  bool by_ids(const Boxes& boxes, const uint8_t* mask, bool many) {
    std::vector<int32_t> ids;
    std::vector<uint8_t> payloads(boxes.size() * bytes_, static_cast<uint8_t>(in_.byte()));
    const bool filled = in_.one_in(2);
    int32_t expected = 0;
    for (size_t d = 0; d < boxes.size(); d++) {
      const uint32_t kind = many ? 0 : in_.byte();
      ids.push_back(kind % 4 == 0    ? -1 - static_cast<int32_t>(kind)
                    : kind == 255    ? in_.extreme()
                    : model_.empty() ? -1
                                     : static_cast<int32_t>(model_[kind % model_.size()].id));
      if (expected) continue;
      const bool allowed = !mask || mask[d] == 1;
      const uint8_t* payload = filled && bytes_ ? payloads.data() + d * bytes_ : nullptr;
      if (ids[d] < 0) {
        if (!allowed) continue;
        add(payload);
        next_ = next_ < INT32_MAX ? next_ + 1 : 0;
        continue;
      }
      expected = ZYN_RET_ERR_UNKNOWN;
      for (Track& t : model_)
        if (t.id == static_cast<uint32_t>(ids[d])) {
          expected = 0;
          if (!allowed) continue;
          t.age = 0;
          if (payload) t.payload.assign(payload, payload + bytes_);
        }
    }
    const int32_t code = zyn_sort_update_detection_v2(
        boxes.data(), ids.data(), mask, static_cast<int32_t>(ids.size()),
        filled && bytes_ ? payloads.data() : nullptr, sort_);
    check(code == expected || (wild_ && code == ZYN_RET_ERR_UNKNOWN), "an update answers its code");
    if (!expected) drop();
    return code == expected;
  }

  bool by_matches(const Boxes& boxes, const uint8_t* mask, bool many) {
    const auto count = static_cast<int32_t>(boxes.size());
    std::vector<int32_t> fresh, pairs, ids(boxes.size(), 77);
    const auto index = [&](size_t end) {
      return in_.one_in(32) ? in_.extreme() : static_cast<int32_t>(in_.byte() % (end + 1));
    };
    for (int32_t k = many ? count : in_.integer(0, 4); k > 0; k--)
      fresh.push_back(many ? k - 1 : index(boxes.size() - 1));
    for (int32_t k = in_.integer(0, 4); k > 0; k--) {
      pairs.push_back(index(boxes.size() - 1));
      pairs.push_back(index(model_.size()));
    }
    const zyn_sort_match_info m = {static_cast<int32_t>(pairs.size() / 2),
                                   static_cast<int32_t>(fresh.size()), pairs.data(), fresh.data()};
    size_t tracks = model_.size();
    bool fits = true;
    for (int32_t d : fresh) {
      fits = fits && d >= 0 && d < count;
      tracks += fits && (!mask || mask[d]);
    }
    for (size_t k = 0; k < pairs.size(); k += 2)
      fits = fits && pairs[k] >= 0 && pairs[k] < count && pairs[k + 1] >= 0 &&
             static_cast<size_t>(pairs[k + 1]) < tracks;
    const int32_t code =
        zyn_sort_update_detection(boxes.data(), ids.data(), mask, count, &m, sort_);
    if (!fits) check(code == ZYN_RET_ERR_PARA, "indices outside are refused");
    if (!fits) return true;
    check(code == 0 || (wild_ && code == ZYN_RET_ERR_UNKNOWN), "an update answers its code");
    if (code) return false;
    std::vector<int32_t> expected(boxes.size(), -1);
    for (int32_t d : fresh)
      if (!mask || mask[d]) {
        add(nullptr);
        next_++;
        expected[static_cast<size_t>(d)] = static_cast<int32_t>(model_.back().id);
      }
    for (size_t k = 0; k < pairs.size(); k += 2) {
      Track& track = model_[static_cast<size_t>(pairs[k + 1])];
      if (!mask || mask[pairs[k]] == 1) track.age = 0;
      expected[static_cast<size_t>(pairs[k])] = static_cast<int32_t>(track.id);
    }
    check(ids == expected, "detections learn their tracks' ids");
    drop();
    return true;
  }

  Input& in_;
  zyn_sort_handle* sort_;
  std::vector<Track> model_;
  uint64_t next_ = 0;
  bool wild_ = false;  // a box was none of a picture's
  int32_t max_age_;
  size_t bytes_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zyn_fuzz::Memory memory(size % 8 == 7, 1 << 16);
  Input in(data, size);
  if (in.one_in(3)) {
    for (int rounds = 0; rounds < 4 && !in.empty(); rounds++) associate(in);
    return 0;
  }
  Life life(in);
  for (int steps = 0; steps < 24 && !in.empty(); steps++)
    if (!life.step()) break;
  return 0;
}

// Loading and checking the networks of a session, and their runs.
#include "face/zyn_face_networks.h"

#include <math.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "face/zyn_face_metadata.h"

namespace {

constexpr int32_t kBoxFloats = 4;
constexpr int32_t kMostPriors = 1 << 22;
constexpr int32_t kMostSide = 4096;
constexpr int32_t kMostLandmarks = 1000;

struct source {
  const char* what;
  const char* path;
  const void* data;
  int64_t bytes;
  zyn_net* net;
};

int32_t open_network(const source& from, const zyn_face_options& options, zyn_face_network* to) {
  if (!!from.path + !!from.data + !!from.net > 1)
    return zyn_refuse(ZYN_RET_ERR_PARA, "%s: a path, memory or a network is expected, not several",
                      from.what);
  const zyn_net_options how = {options.method, options.fixed_point, 0, 0, 0};
  to->owned = !from.net;
  to->net = from.net    ? from.net
            : from.path ? zyn_net_load(from.path, &how)
                        : zyn_net_load_memory(from.data, from.bytes, &how);
  if (!to->net) {
    zyn_explain_where("%s: ", from.what);
    return ZYN_RET_ERR_PARA;
  }
  return ZYN_RET_OK;
}

// A single input that is a picture, and a role that is not another one.
int32_t check_input(const char* what, zyn_face_network* network) {
  const char* role = zyn_net_metadata(network->net, "face.role");
  if (role && strcmp(role, what) != 0)
    return zyn_refuse(ZYN_RET_ERR_PARA, "metadata face.role = '%s': %s is expected", role, what);
  const zyn_net_description* d = zyn_net_describe(network->net);
  network->pixels = zyn_net_input(network->net, nullptr);
  if (d->input_count != 1 || !network->pixels)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the network has %d inputs, one picture is expected",
                      d->input_count);
  network->input = d->inputs[0];
  const zyn_net_port& port = network->input;
  const zyn_tensor& t = *network->pixels;
  constexpr int32_t kGrey = 3;
  if (port.channel_order < 1 || port.channel_order > kGrey)
    return zyn_refuse(ZYN_RET_ERR_PARA, "input '%s' is not said to be a picture (channel order)",
                      port.name);
  const int32_t channels = t.dim_count == 3 ? t.dims[2] : t.dim_count == 2 ? 1 : 0;
  if (channels != (port.channel_order == kGrey ? 1 : 3) || t.dims[0] > kMostSide ||
      t.dims[1] > kMostSide)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "input '%s' has %d extents, the last of them %d: {width, height, 3} or, of "
                      "grey pictures, 1, with sides up to %d are expected",
                      port.name, t.dim_count, t.dims[t.dim_count - 1], kMostSide);
  if (port.q < 0 || port.q > 15)
    return zyn_refuse(ZYN_RET_ERR_PARA, "input '%s' has %d fraction bits: 0 to 15 are expected",
                      port.name, port.q);
  return ZYN_RET_OK;
}

// The output of a meaning; null where there is none.
const zyn_net_port* find_output(const zyn_net* net, int32_t meaning) {
  const zyn_net_description* d = zyn_net_describe(net);
  for (int32_t i = 0; i < d->output_count; i++)
    if (d->outputs[i].meaning == meaning) return &d->outputs[i];
  return nullptr;
}

int64_t count_of(const zyn_net_port& port) {
  int64_t count = 1;
  for (int32_t i = 0; i < port.dim_count; i++) count *= port.dims[i];
  return count;
}

// The output with memory for its floats where the network computes in fixed point.
int32_t open_output(zyn_net* net, const zyn_net_port& port, zyn_face_output* output) {
  output->port = port;
  const zyn_tensor* tensor = zyn_net_output(net, port.name);
  if (!tensor) return ZYN_RET_ERR_PARA;
  if (tensor->type == ZYN_TYPE_F32) return ZYN_RET_OK;
  output->floats = zyn_create_tensor(tensor->dim_count, tensor->dims, ZYN_TYPE_F32);
  return output->floats ? ZYN_RET_OK
                        : zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for an output's floats");
}

// An output's values after a run.
int32_t read_output(zyn_net* net, const zyn_face_output& output, const float** values) {
  const zyn_tensor* tensor = zyn_net_output(net, output.port.name);
  if (!tensor) return ZYN_RET_ERR_MEMORY;
  *values = static_cast<const float*>(output.floats ? output.floats->data : tensor->data);
  if (!output.floats) return ZYN_RET_OK;
  return zyn_tensor_transform_data_from_fpi16_to_real32(output.floats, tensor,
                                                        static_cast<int32_t>(tensor->count),
                                                        static_cast<uint32_t>(output.port.q));
}

// ---- the detector

// The prior boxes: by level, row, column and size, as zyn_generate_priors lays them out.
struct prior_levels {
  int32_t count;
  int32_t columns[kZynMostGroups], rows[kZynMostGroups];
  zyn_number_groups sizes;
};

int32_t read_levels(const zyn_face_detector& d, prior_levels* levels, int64_t* priors) {
  zyn_number_groups strides;
  if (const int32_t code = zyn_read_numbers(d.net, "face.strides", &strides)) return code;
  if (const int32_t code = zyn_read_numbers(d.net, "face.min-sizes", &levels->sizes)) return code;
  levels->count = strides.counts[0];
  if (strides.groups != 1 || levels->sizes.groups != levels->count)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "metadata face.strides have %d numbers, face.min-sizes %d groups: one each "
                      "is expected",
                      levels->count, levels->sizes.groups);
  *priors = 0;
  for (int32_t k = 0; k < levels->count; k++) {
    const float stride = strides.numbers[0][k];
    if (!(stride >= 1))
      return zyn_refuse(ZYN_RET_ERR_PARA, "metadata face.strides: %g is below a pixel",
                        static_cast<double>(stride));
    levels->columns[k] = static_cast<int32_t>(ceilf(static_cast<float>(d.width()) / stride));
    levels->rows[k] = static_cast<int32_t>(ceilf(static_cast<float>(d.height()) / stride));
    *priors += int64_t{levels->columns[k]} * levels->rows[k] * levels->sizes.counts[k];
  }
  return ZYN_RET_OK;
}

float at_most_one(float value) { return value < 1 ? value : 1; }

void fill_priors(const prior_levels& levels, const zyn_face_detector& d) {
  float* to = d.table;
  for (int32_t k = 0; k < levels.count; k++)
    for (int32_t y = 0; y < levels.rows[k]; y++)
      for (int32_t x = 0; x < levels.columns[k]; x++)
        for (int32_t s = 0; s < levels.sizes.counts[k]; s++, to += kBoxFloats) {
          const float size = levels.sizes.numbers[k][s];
          to[0] = (static_cast<float>(x) + 0.5f) / static_cast<float>(levels.columns[k]);
          to[1] = (static_cast<float>(y) + 0.5f) / static_cast<float>(levels.rows[k]);
          to[2] = at_most_one(size / static_cast<float>(d.width()));
          to[3] = at_most_one(size / static_cast<float>(d.height()));
        }
}

const zyn_net_port* find_scores(const zyn_net* net, bool* probabilities) {
  const zyn_net_port* scores = find_output(net, ZYN_NET_MEANING_SCORES);
  *probabilities = !scores;
  return scores ? scores : find_output(net, ZYN_NET_MEANING_PROBABILITIES);
}

int32_t read_variances(const zyn_net* net, float* variances) {
  zyn_number_groups read;
  if (const int32_t code = zyn_read_numbers(net, "face.variances", &read)) return code;
  if (read.groups != 1 || read.counts[0] != 2)
    return zyn_refuse(ZYN_RET_ERR_PARA, "metadata face.variances: two numbers are expected");
  for (int32_t i = 0; i < 2; i++) variances[i] = read.numbers[0][i];
  return ZYN_RET_OK;
}

// Scores and offsets for each of the priors.
int32_t check_outputs(zyn_face_detector* d, int64_t priors) {
  const zyn_net_port* scores = find_scores(d->net, &d->probabilities);
  const zyn_net_port* offsets = find_output(d->net, ZYN_NET_MEANING_OFFSETS);
  if (!scores || !offsets)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the network has no output that means %s",
                      scores ? "box offsets" : "scores or probabilities");
  d->classes = scores->dims[0];
  if (priors > kMostPriors || d->classes < 2 || count_of(*scores) != d->classes * priors ||
      offsets->dims[0] != kBoxFloats || count_of(*offsets) != kBoxFloats * priors)
    return zyn_refuse(
        ZYN_RET_ERR_PARA,
        "the metadata make %lld priors; output '%s' holds %lld values, %d first, '%s' "
        "%lld, %d first: two or more classes and 4 offsets for each are expected",
        static_cast<long long>(priors), scores->name, static_cast<long long>(count_of(*scores)),
        d->classes, offsets->name, static_cast<long long>(count_of(*offsets)), offsets->dims[0]);
  d->priors = static_cast<int32_t>(priors);
  if (const int32_t code = open_output(d->net, *scores, &d->scores)) return code;
  return open_output(d->net, *offsets, &d->offsets);
}

int32_t make_buffers(zyn_face_detector* d) {
  const int64_t box_bytes = d->priors * kBoxFloats * int64_t{sizeof(float)};
  const int64_t record_bytes = d->priors * int64_t{sizeof(zyn_detection)};
  const int32_t dims[2] = {d->classes, d->priors};
  d->chances = zyn_create_tensor(2, dims, ZYN_TYPE_F32);
  d->table = static_cast<float*>(zyn_malloc(box_bytes));
  d->boxes = static_cast<float*>(zyn_malloc(box_bytes));
  d->candidates = static_cast<zyn_detection*>(zyn_malloc(record_bytes));
  d->kept = static_cast<zyn_detection*>(zyn_malloc(record_bytes));
  return d->chances && d->table && d->boxes && d->candidates && d->kept
             ? ZYN_RET_OK
             : zyn_refuse(ZYN_RET_ERR_MEMORY, "no memory for %d priors", d->priors);
}

int32_t check_detector(zyn_face_detector* d) {
  prior_levels levels;
  int64_t priors = 0;
  if (const int32_t code = check_input("detector", d)) return code;
  if (const int32_t code = read_levels(*d, &levels, &priors)) return code;
  if (const int32_t code = read_variances(d->net, d->variances)) return code;
  if (const int32_t code = check_outputs(d, priors)) return code;
  if (const int32_t code = make_buffers(d)) return code;
  fill_priors(levels, *d);
  return ZYN_RET_OK;
}

// ---- the landmarker

zyn_face_group range(int16_t first, int16_t last) {
  zyn_face_group group = {};
  for (int16_t i = first; i <= last; i++) group.index[group.count++] = i;
  return group;
}

int32_t read_group(const zyn_face_landmarker& l, const char* key, const zyn_face_group& usual,
                   zyn_face_group* group) {
  constexpr int32_t kRoom = sizeof(group->index) / sizeof(group->index[0]);
  if (const int32_t code =
          zyn_read_points(l.net, key, l.points, group->index, kRoom, &group->count))
    return code;
  if (group->count == 0 && l.points == kZynFacePoints) *group = usual;
  return ZYN_RET_OK;
}

int32_t read_groups(zyn_face_landmarker* l) {
  zyn_face_group mouth = {}, corners = range(48, 48);
  corners.index[corners.count++] = 54;
  const struct {
    const char* key;
    zyn_face_group usual;
    zyn_face_group* group;
  } groups[] = {{"face.left-eye", range(36, 41), &l->left_eye},
                {"face.right-eye", range(42, 47), &l->right_eye},
                {"face.nose", range(30, 30), &l->nose},
                {"face.mouth", corners, &mouth},
                {"face.chin", range(8, 8), &l->chin}};
  for (const auto& g : groups) {
    if (const int32_t code = read_group(*l, g.key, g.usual, g.group)) return code;
    if (g.group->count == 0 && g.group != &l->chin)
      return zyn_refuse(ZYN_RET_ERR_PARA, "metadata %s are missing", g.key);
  }
  if (mouth.count != 2)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "metadata face.mouth name %d points: its two corners are expected",
                      mouth.count);
  l->left_mouth = range(mouth.index[0], mouth.index[0]);
  l->right_mouth = range(mouth.index[1], mouth.index[1]);
  return ZYN_RET_OK;
}

void mean_of(const zyn_face_group& group, const float* points, int32_t axes, float* mean) {
  for (int32_t c = 0; c < axes; c++) {
    mean[c] = 0;
    for (int32_t i = 0; i < group.count; i++)
      mean[c] += points[axes * group.index[i] + c] / static_cast<float>(group.count);
  }
}

// What the groups are on the model, whatever the network's own points.
void fill_model(zyn_face_landmarker* l) {
  const zyn_face_group usual[] = {range(36, 41), range(42, 47), range(30, 30),
                                  range(48, 48), range(54, 54), range(8, 8)};
  for (int32_t g = 0; g < 6; g++) mean_of(usual[g], zyn_face_model(), 3, l->model + 3 * g);
}

// What judges a crop; networks without it are fine.
int32_t check_judgement(zyn_face_landmarker* l) {
  const zyn_net_port* scores = find_scores(l->net, &l->probabilities);
  const zyn_net_port* offsets = find_output(l->net, ZYN_NET_MEANING_OFFSETS);
  if (!scores && !offsets) return ZYN_RET_OK;
  if (!scores || !offsets || count_of(*scores) != 2 || count_of(*offsets) != kBoxFloats)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "outputs that mean scores and offsets hold %lld and %lld values: 2 and 4 or "
                      "neither of them are expected",
                      static_cast<long long>(scores ? count_of(*scores) : 0),
                      static_cast<long long>(offsets ? count_of(*offsets) : 0));
  if (const int32_t code = read_variances(l->net, l->variances)) return code;
  if (const int32_t code = open_output(l->net, *scores, &l->scores)) return code;
  if (const int32_t code = open_output(l->net, *offsets, &l->offsets)) return code;
  l->judges = true;
  return ZYN_RET_OK;
}

int32_t check_landmarker(zyn_face_landmarker* l) {
  if (const int32_t code = check_input("landmarks", l)) return code;
  const zyn_net_port* landmarks = find_output(l->net, ZYN_NET_MEANING_LANDMARKS);
  if (!landmarks)
    return zyn_refuse(ZYN_RET_ERR_PARA, "the network has no output that means landmarks");
  zyn_number_groups points, crop;
  if (const int32_t code = zyn_read_numbers(l->net, "face.points", &points)) return code;
  if (const int32_t code = zyn_read_numbers(l->net, "face.crop", &crop)) return code;
  l->crop = crop.numbers[0][0];
  if (!(l->crop >= 0.5f && l->crop <= 10))
    return zyn_refuse(ZYN_RET_ERR_PARA, "metadata face.crop = %g: 0.5 to 10 is expected",
                      static_cast<double>(l->crop));
  const float asked = points.numbers[0][0];
  l->points = asked <= kMostLandmarks ? static_cast<int32_t>(asked) : 0;
  if (l->points < 1 || count_of(*landmarks) != 2 * l->points)
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "metadata face.points = %g: output '%s' holds %lld values, two for each of 1 "
                      "to %d points are expected",
                      static_cast<double>(asked), landmarks->name,
                      static_cast<long long>(count_of(*landmarks)), kMostLandmarks);
  if (const int32_t code = open_output(l->net, *landmarks, &l->landmarks)) return code;
  if (const int32_t code = check_judgement(l)) return code;
  if (const int32_t code = read_groups(l)) return code;
  fill_model(l);
  return ZYN_RET_OK;
}

// The numbers of a box are usable.
bool is_box(const zyn_detection& box) {
  constexpr float kFar = 16;  // inputs
  const auto near = [](float value) { return value > -kFar && value < kFar; };
  return near(box.x1) && near(box.y1) && near(box.x2) && near(box.y2) && box.x1 < box.x2 &&
         box.y1 < box.y2;
}

}  // namespace

zyn_face_network::~zyn_face_network() {
  if (net && owned) zyn_net_release(&net);
}

zyn_face_output::~zyn_face_output() {
  if (floats) zyn_release_tensor(&floats);
}

zyn_face_detector::~zyn_face_detector() {
  if (chances) zyn_release_tensor(&chances);
  zyn_free(table);
  zyn_free(boxes);
  zyn_free(candidates);
  zyn_free(kept);
}

int32_t zyn_open_face_detector(const zyn_face_options& options, zyn_face_detector* detector) {
  const source from = {"detector", options.detector, options.detector_data, options.detector_bytes,
                       options.detector_net};
  if (!from.path && !from.data && !from.net)
    return zyn_refuse(ZYN_RET_ERR_PARA, "there is no detector: a path, memory or a network");
  int32_t code = open_network(from, options, detector);
  if (code != ZYN_RET_OK) return code;
  code = check_detector(detector);
  if (code != ZYN_RET_OK) zyn_explain_where("detector: ");
  return code;
}

int32_t zyn_open_face_landmarker(const zyn_face_options& options, zyn_face_landmarker* landmarker) {
  const source from = {"landmarks", options.landmarks, options.landmarks_data,
                       options.landmarks_bytes, options.landmarks_net};
  if (!from.path && !from.data && !from.net) return ZYN_RET_OK;
  int32_t code = open_network(from, options, landmarker);
  if (code != ZYN_RET_OK) return code;
  code = check_landmarker(landmarker);
  if (code != ZYN_RET_OK) zyn_explain_where("landmarks: ");
  return code;
}

int32_t zyn_run_face_detector(zyn_face_detector* d) { return zyn_net_run(d->net); }

int32_t zyn_collect_faces(zyn_face_detector* d, float threshold, int32_t* count) {
  const float *scores = nullptr, *offsets = nullptr;
  if (const int32_t code = read_output(d->net, d->scores, &scores)) return code;
  if (const int32_t code = read_output(d->net, d->offsets, &offsets)) return code;
  auto* chances = static_cast<float*>(d->chances->data);
  memcpy(chances, scores, static_cast<size_t>(d->chances->byte_size));
  if (!d->probabilities) zyn_tensor_softmax(d->chances, d->chances, d->classes);
  zyn_convert_locations_to_boxes(d->boxes, offsets, d->table, d->priors, d->variances[0],
                                 d->variances[1]);
  zyn_center_form_to_corner_form(d->boxes, d->priors);
  *count = 0;
  for (int64_t i = 0; i < d->priors; i++) {
    const float* b = d->boxes + i * kBoxFloats;
    const zyn_detection box = {b[0], b[1], b[2], b[3], chances[i * d->classes + 1]};
    if (box.score > threshold && is_box(box)) d->candidates[(*count)++] = box;
  }
  return ZYN_RET_OK;
}

int32_t zyn_run_face_landmarker(zyn_face_landmarker* l, const float** points) {
  if (const int32_t code = zyn_net_run(l->net)) return code;
  return read_output(l->net, l->landmarks, points);
}

int32_t zyn_face_landmarker::judge(float* odds, float* box) const {
  const float *likely = nullptr, *from = nullptr;
  if (const int32_t code = read_output(net, scores, &likely)) return code;
  if (const int32_t code = read_output(net, offsets, &from)) return code;
  *odds = probabilities ? logf(likely[1]) - logf(likely[0]) : likely[1] - likely[0];
  const float prior[kBoxFloats] = {0.5f, 0.5f, 1 / crop, 1 / crop};
  zyn_convert_locations_to_boxes(box, from, prior, 1, variances[0], variances[1]);
  zyn_center_form_to_corner_form(box, 1);
  return ZYN_RET_OK;
}

void zyn_face_landmarker::five_points(const float* marks, float* five) const {
  const zyn_face_group* groups[] = {&left_eye, &right_eye, &nose, &left_mouth, &right_mouth};
  for (int32_t g = 0; g < 5; g++) mean_of(*groups[g], marks, 2, five + 2 * g);
}

void zyn_face_landmarker::pose(const float* marks, int32_t frame_width, int32_t frame_height,
                               float focal_length, zyn_face_pose* result) const {
  if (points == kZynFacePoints) {
    zyn_fit_pose(zyn_all_landmarks(marks), frame_width, frame_height, focal_length, result);
    return;
  }
  float image[2 * 6];
  const float weights[6] = {1, 1, 1, 1, 1, 1};
  five_points(marks, image);
  const int32_t count = chin.count > 0 ? 6 : 5;
  if (chin.count > 0) mean_of(chin, marks, 2, image + 10);
  const zyn_pose_points some = {count, {{0, 1, 3}, {0, 1, 4}, {0, 1, 2}}, model, image, weights};
  zyn_fit_pose(some, frame_width, frame_height, focal_length, result);
}

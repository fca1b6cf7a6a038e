// Poses: first estimates from three points each (AP3P) and from a head seen from the front, the
// best of them refined on all points by damped Gauss-Newton steps.
#include "face/zyn_face_pose.h"

#include <math.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "base/zyn_report.h"
#include "face/zyn_face_similarity.h"
#include "matrix/zyn_matrix_ops.h"

namespace {

constexpr int32_t kUnknowns = 6;  // a small rotation, then a translation
constexpr int32_t kSteps = 20;
constexpr double kDegrees = 57.29577951308232;

struct placement {
  double r[9], t[3];
};

struct camera {
  double focal, cx, cy;
};

void turn(const double* r, const float* model, double (&p)[3]) {
  for (int32_t i = 0; i < 3; i++)
    p[i] = r[3 * i] * model[0] + r[3 * i + 1] * model[1] + r[3 * i + 2] * model[2];
}

// The differences between where point i is and where the placement puts it; p takes the point
// turned, q the point before the camera. False behind the camera.
bool compare(const zyn_pose_points& points, int32_t i, const camera& c, const placement& at,
             double (&p)[3], double (&q)[3], double (&difference)[2]) {
  turn(at.r, points.model + 3 * i, p);
  for (int32_t k = 0; k < 3; k++) q[k] = p[k] + at.t[k];
  if (!(q[2] > 0)) return false;
  difference[0] = points.image[2 * i] - (c.focal * q[0] / q[2] + c.cx);
  difference[1] = points.image[2 * i + 1] - (c.focal * q[1] / q[2] + c.cy);
  return true;
}

// The weighted sum of squared distances; infinite with a point behind the camera.
double cost_of(const zyn_pose_points& points, const camera& c, const placement& at, bool weighted) {
  double cost = 0, p[3], q[3], d[2];
  for (int32_t i = 0; i < points.count; i++) {
    if (!compare(points, i, c, at, p, q, d)) return INFINITY;
    cost += (weighted ? points.weights[i] : 1.0) * (d[0] * d[0] + d[1] * d[1]);
  }
  return isfinite(cost) ? cost : INFINITY;
}

// Turns by a rotation vector.
void rotate(placement* at, const double* w) {
  const double angle = sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
  const double s = angle > 1e-9 ? sin(angle) / angle : 1;
  const double v = angle > 1e-9 ? (1 - cos(angle)) / (angle * angle) : 0.5;
  const double cross[9] = {0, -w[2], w[1], w[2], 0, -w[0], -w[1], w[0], 0};
  double turned[9];
  for (int32_t i = 0; i < 3; i++)
    for (int32_t j = 0; j < 3; j++) {
      double sum = 0;
      for (int32_t k = 0; k < 3; k++) {
        double square = 0;
        for (int32_t l = 0; l < 3; l++) square += cross[3 * i + l] * cross[3 * l + k];
        sum += ((i == k) + s * cross[3 * i + k] + v * square) * at->r[3 * k + j];
      }
      turned[3 * i + j] = sum;
    }
  memcpy(at->r, turned, sizeof(turned));
}

struct equations {
  double a[kUnknowns * kUnknowns], b[kUnknowns];
};

// The normal equations of a step from a placement.
void collect(const zyn_pose_points& points, const camera& c, const placement& at, equations* e) {
  *e = {};
  double p[3], q[3], d[2];
  for (int32_t i = 0; i < points.count; i++) {
    if (!compare(points, i, c, at, p, q, d)) continue;
    const double f = c.focal / q[2];
    const double axis[2][3] = {{f, 0, -f * q[0] / q[2]}, {0, f, -f * q[1] / q[2]}};
    for (int32_t k = 0; k < 2; k++) {
      const double* g = axis[k];
      const double row[kUnknowns] = {p[1] * g[2] - p[2] * g[1],
                                     p[2] * g[0] - p[0] * g[2],
                                     p[0] * g[1] - p[1] * g[0],
                                     g[0],
                                     g[1],
                                     g[2]};
      for (int32_t m = 0; m < kUnknowns; m++) {
        const double weighted = points.weights[i] * row[m];
        e->b[m] += weighted * d[k];
        for (int32_t n = 0; n < kUnknowns; n++) e->a[kUnknowns * m + n] += weighted * row[n];
      }
    }
  }
}

// Solves the damped equations; false where they have no solution.
bool solve(equations e, double damping, double (&step)[kUnknowns]) {
  zyn_matrix a = {}, b = {};
  for (int32_t i = 0; i < kUnknowns; i++) e.a[(kUnknowns + 1) * i] *= 1 + damping;
  zyn_set_matrix_header(&a, kUnknowns, kUnknowns, 1, ZYN_TYPE_F64);
  zyn_set_matrix_header(&b, kUnknowns, 1, 1, ZYN_TYPE_F64);
  zyn_set_matrix_data(&a, e.a, sizeof(e.a));
  zyn_set_matrix_data(&b, e.b, sizeof(e.b));
  if (zyn_solve_linear(&b, &a, &b) != ZYN_RET_OK) return false;
  memcpy(step, e.b, sizeof(step));
  return true;
}

void refine(const zyn_pose_points& points, const camera& c, placement* best) {
  constexpr double kEnough = 1e-9;  // relative gain of a step that is not worth another one
  constexpr double kMostDamping = 1e6;
  double cost = cost_of(points, c, *best, true), damping = 1e-3;
  for (int32_t i = 0; i < kSteps && damping < kMostDamping; i++) {
    equations e;
    double step[kUnknowns];
    collect(points, c, *best, &e);
    if (!solve(e, damping, step)) return;
    placement next = *best;
    rotate(&next, step);
    for (int32_t k = 0; k < 3; k++) next.t[k] += step[3 + k];
    const double cost_then = cost_of(points, c, next, true);
    if (!(cost_then < cost)) {
      damping *= 10;
      continue;
    }
    const bool enough = cost - cost_then < kEnough * cost;
    *best = next;
    cost = cost_then;
    damping *= 0.1;
    if (enough) return;
  }
}

// Keeps the better one of two placements.
void offer(const zyn_pose_points& points, const camera& c, const placement& at, placement* best,
           double* cost) {
  const double cost_there = cost_of(points, c, at, true);
  if (!(cost_there < *cost)) return;
  *best = at;
  *cost = cost_there;
}

void offer_triple(const zyn_pose_points& points, const int32_t (&triple)[3], const camera& c,
                  placement* best, double* cost) {
  float world[9], image[6];
  for (int32_t k = 0; k < 3; k++) {
    memcpy(world + 3 * k, points.model + 3 * triple[k], 3 * sizeof(float));
    memcpy(image + 2 * k, points.image + 2 * triple[k], 2 * sizeof(float));
  }
  const auto focal = static_cast<float>(c.focal);
  const float intrinsics[9] = {
      focal, 0, static_cast<float>(c.cx), 0, focal, static_cast<float>(c.cy), 0, 0, 1};
  double rotations[4 * 9], translations[4 * 3];
  int32_t count = 0;
  zyn_solve_ap3p(rotations, translations, world, image, intrinsics, nullptr, &count);
  for (int32_t i = 0; i < count; i++) {
    placement at;
    memcpy(at.r, rotations + 9 * i, sizeof(at.r));
    memcpy(at.t, translations + 3 * i, sizeof(at.t));
    offer(points, c, at, best, cost);
  }
}

// A head that looks at the camera, turned in the picture's plane and at the distance that its
// size tells. False where it has no size: the points are not finite, or all in one place.
bool offer_frontal(const zyn_pose_points& points, const camera& c, placement* best, double* cost) {
  constexpr double kLeast = 1e-6;  // pixels for a millimetre
  float flat[2 * kZynFacePoints];
  for (int32_t i = 0; i < points.count; i++)
    for (int32_t k = 0; k < 2; k++) flat[2 * i + k] = points.model[3 * i + k];
  zyn_similarity fit;
  if (!zyn_fit_similarity(flat, points.image, points.count, &fit)) return false;
  const double scale = sqrt(fit.a * fit.a + fit.b * fit.b);
  if (!(scale > kLeast)) return false;
  const double cosine = fit.a / scale, sine = fit.b / scale;
  const placement at = {{cosine, -sine, 0, sine, cosine, 0, 0, 0, 1},
                        {(fit.x0 - c.cx) / scale, (fit.y0 - c.cy) / scale, c.focal / scale}};
  offer(points, c, at, best, cost);
  return true;
}

void tell(const zyn_pose_points& points, const camera& c, const placement& at,
          zyn_face_pose* pose) {
  pose->valid = 1;
  for (int32_t i = 0; i < 9; i++) pose->rotation[i] = static_cast<float>(at.r[i]);
  for (int32_t i = 0; i < 3; i++) pose->translation[i] = static_cast<float>(at.t[i]);
  const double* r = at.r;
  pose->yaw = static_cast<float>(kDegrees * asin(fmin(fmax(r[6], -1), 1)));
  pose->pitch = static_cast<float>(-kDegrees * atan2(r[7], r[8]));
  pose->roll = static_cast<float>(kDegrees * atan2(r[3], r[0]));
  pose->error = static_cast<float>(sqrt(cost_of(points, c, at, false) / points.count));
}

}  // namespace

bool zyn_fit_pose(const zyn_pose_points& points, int32_t width, int32_t height, float focal_length,
                  zyn_face_pose* pose) {
  const zyn_quiet quiet;  // of equations without a solution
  const camera c = {focal_length, 0.5 * width, 0.5 * height};
  placement best = {};
  double cost = INFINITY;
  *pose = {};
  if (!offer_frontal(points, c, &best, &cost)) return false;
  for (const auto& triple : points.triples) offer_triple(points, triple, c, &best, &cost);
  if (!(cost < INFINITY)) return false;
  refine(points, c, &best);
  tell(points, c, best, pose);
  return true;
}

int32_t zyn_face_solve_pose(const float* landmarks, int32_t width, int32_t height,
                            float focal_length, zyn_face_pose* pose) {
  if (!landmarks || !pose) return zyn_refuse(ZYN_RET_ERR_PARA, "landmarks or pose are null");
  if (width < 1 || height < 1 || !(focal_length >= 0 && isfinite(focal_length)))
    return zyn_refuse(ZYN_RET_ERR_PARA,
                      "a frame of %d x %d pixels with a focal length of %g: above 0, and 0 or "
                      "above, are expected",
                      width, height, static_cast<double>(focal_length));
  const zyn_pose_points points = zyn_all_landmarks(landmarks);
  const float focal = focal_length > 0 ? focal_length : static_cast<float>(width);
  if (zyn_fit_pose(points, width, height, focal, pose)) return ZYN_RET_OK;
  return zyn_refuse(ZYN_RET_ERR_UNKNOWN, "no head has its landmarks there");
}

// Camera pose from three points: the algebraic method of T. Ke and S. I. Roumeliotis, "An
// Efficient Algebraic Solution to the Perspective-Three-Point Problem", CVPR 2017.
//
// Unknown are the rotation R and the distances d of d_i b_i = R P_i + t for the world points
// P_i and their unit bearings b_i. The differences of two of these equations, multiplied by
// the normal of the two bearings, hold neither t nor d:
//
//   (b_i x b_j) . R (P_i - P_j) = 0                                  for 12, 13, 23.
//
// Frames, each right-handed:
//   world     e1 = k1 = (P1 - P2) / |P1 - P2|, e2 normal to the triangle, e3 = e1 x e2 such
//             that P3 - P1 = p1 e1 + e3 and P3 - P2 = p2 e1 + e3, lengths measured in the
//             height of P3 over the line P1 P2;
//   bearings  b1, k3 = (b1 x b2) / |b1 x b2|, b1 x k3, where b2 = (x2, 0, z2), b3 = (x, y, z).
//
// In these frames R is a matrix M, and the equation of 12 says that M e1 has no component
// along k3. So M is a turn about k1, of cosine c and sine s, followed by one about k3, of
// cosine u and sine v:
//
//   M e1 = (u, 0, -v)        M e2 = (-v s, c, -u s)        M e3 = (v c, s, u c).
//
// The equations of 13 and 23 (the latter with the former's share taken out) are linear in u, v,
// with t = (p2 - p1) x2 / z2:
//
//   y (c u - p1 v)        = s z                y (p2 u + (c + t) v) = s x,
//
// and with D = c (c + t) + p1 p2 their solution is
//
//   u = s (z (c + t) + x p1) / (y D)         v = s (x c - z p2) / (y D).
//
// u^2 + v^2 = 1 and s^2 = 1 - c^2 leave a quartic in c alone, whose leading coefficient is
// x^2 + y^2 + z^2 = 1:
//
//   y^2 D^2 - (1 - c^2) ((z (c + t) + x p1)^2 + (x c - z p2)^2) = 0.
//
// The component of d3 b3 along k3 is d3 y = s times the height, which with d3 > 0 gives s the
// sign of y.
//
// Where D and both numerators vanish, two poses share c, a double root (it happens with points on
// a grid). So u and v are taken from one of the linear equations and u^2 + v^2 = 1, which they
// meet in two points; the other equation tells which of them belong to the root. All four are then
// polished in the two equations themselves. The distances of P1 and P2 follow from M e1 and
// |P1 - P2|, without y, which may be small.
#include <float.h>
#include <math.h>
#include <string.h>

#include "base/zyn_explain.h"
#include "zyncore.h"

namespace {

struct vec {
  double x, y, z;
};
vec operator-(const vec& a, const vec& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
vec operator*(double s, const vec& a) { return {s * a.x, s * a.y, s * a.z}; }
double dot(const vec& a, const vec& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
vec cross(const vec& a, const vec& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
double length(const vec& a) { return sqrt(dot(a, a)); }

// The frames of the file comment, and the third bearing and points 1 and 2 in them.
struct frames {
  vec world[3], bearing[3];  // e1, e2, e3; b1, k3, b1 x k3
  double height;             // of P3 over the line P1 P2
  double side;               // |P1 - P2|
  double p1, p2;             // in heights
  double x2, z2;
  vec b3;
  double t;
};

// Axes along first and, of normal, what is at right angles to it; the latter may be a thin
// triangle's, whose own direction is off by more than rounding.
void make_axes(const vec& first, const vec& normal, vec* axes) {
  axes[0] = first;
  const vec third = cross(first, normal);
  axes[2] = (1 / length(third)) * third;
  axes[1] = cross(axes[2], first);
}

frames make_frames(const vec* points, const vec* bearings) {
  frames f;
  const vec edge = points[0] - points[1];
  const vec third = points[2] - points[0];
  // Of points on one line the product is zero to the last bit: differences of floats of about
  // one size and their products are exact.
  const vec normal = cross(third, edge);
  f.side = length(edge);
  f.height = length(normal) / f.side;
  make_axes((1 / f.side) * edge, normal, f.world);
  f.p1 = dot(third, f.world[0]) / f.height;
  f.p2 = dot(points[2] - points[1], f.world[0]) / f.height;

  const vec across = cross(bearings[0], bearings[1]);
  make_axes(bearings[0], across, f.bearing);
  f.x2 = dot(bearings[0], bearings[1]);
  f.z2 = -length(across);
  f.b3 = {dot(f.bearing[0], bearings[2]), dot(f.bearing[1], bearings[2]),
          dot(f.bearing[2], bearings[2])};
  f.t = f.side / f.height * f.x2 / f.z2;
  return f;
}

// a[4] c^4 + ... + a[0].
void make_quartic(const frames& f, double* a) {
  const double x = f.b3.x, y = f.b3.y, z = f.b3.z;
  const double m = f.p1 * f.p2;
  const double zt = z * f.t + x * f.p1;  // the constant parts of u's and v's numerators
  const double zp = z * f.p2;
  const double q2 = x * x + z * z;
  const double q1 = 2 * (z * zt - x * zp);
  const double q0 = zt * zt + zp * zp;
  const double yy = y * y;
  a[4] = yy + q2;
  a[3] = 2 * yy * f.t + q1;
  a[2] = yy * (f.t * f.t + 2 * m) + q0 - q2;
  a[1] = 2 * yy * f.t * m - q1;
  a[0] = yy * m * m - q0;
}

double value(const double* a, double x) {
  return (((a[4] * x + a[3]) * x + a[2]) * x + a[1]) * x + a[0];
}

// The largest real root of x^3 + b x^2 + c x + d.
double largest_cubic_root(double b, double c, double d) {
  const double shift = b / 3;
  const double p = c - b * shift;  // y^3 + p y + q, x = y - shift
  const double q = shift * (2 * shift * shift - c) + d;
  const double half = q / 2, third = p / 3;
  const double discriminant = half * half + third * third * third;
  double y;
  if (discriminant > 0) {
    const double root = cbrt(fabs(half) + sqrt(discriminant));
    y = half < 0 ? root - third / root : third / root - root;
  } else {
    const double radius = sqrt(-third);
    const double cosine = radius > 0 ? -half / (radius * radius * radius) : 1;
    y = 2 * radius * cos(acos(fmax(-1, fmin(1, cosine))) / 3);
  }
  double x = y - shift;
  for (int i = 0; i < 2; i++) {
    const double slope = (3 * x + 2 * b) * x + c;
    if (slope != 0) x -= (((x + b) * x + c) * x + d) / slope;
  }
  return x;
}

// The roots of y^2 + b y + c, each minus shift; those of a pair that is complex by more than
// rounding are not a number.
void quadratic_roots(double b, double c, double shift, double* roots) {
  // Where a pair lies this close to the real axis its real part can pass for a double root;
  // whether it is one is seen from the equations before the quartic.
  constexpr double kNearlyReal = 1e-9;
  const double discriminant = b * b / 4 - c;
  double root = 0;
  if (discriminant > 0)
    root = sqrt(discriminant);
  else if (!(-discriminant <= kNearlyReal * (b * b / 4 + fabs(c))))
    root = NAN;
  const double far = b > 0 ? -b / 2 - root : -b / 2 + root;
  roots[0] = far - shift;
  roots[1] = (root > 0 && far != 0 ? c / far : -b - far) - shift;
}

// The four roots of a quartic by Ferrari's factors; not a number for roots that are not real.
void quartic_roots(const double* a, double* roots) {
  const double b3 = a[3] / a[4], b2 = a[2] / a[4], b1 = a[1] / a[4], b0 = a[0] / a[4];
  const double shift = b3 / 4;  // y^4 + p y^2 + q y + r, x = y - shift
  const double p = b2 - 6 * shift * shift;
  const double q = b1 - 2 * b2 * shift + 8 * shift * shift * shift;
  const double r = b0 + shift * (-b1 + shift * (b2 - 3 * shift * shift));
  // (y^2 + p / 2 + m)^2 = 2 m (y - q / (4 m))^2
  const double m = largest_cubic_root(p, p * p / 4 - r, -q * q / 8);
  if (m > DBL_EPSILON * (fabs(p) + sqrt(fabs(r)))) {
    const double w = sqrt(2 * m);
    quadratic_roots(-w, p / 2 + m + q / (2 * w), shift, roots);
    quadratic_roots(w, p / 2 + m - q / (2 * w), shift, roots + 2);
    return;
  }
  double squares[2];  // q is 0 to rounding: a quadratic in y^2
  quadratic_roots(p, r, 0, squares);
  for (int i = 0; i < 2; i++) {
    const double y = sqrt(squares[i]);
    roots[2 * i] = y - shift;
    roots[2 * i + 1] = -y - shift;
  }
}

// Two Newton steps; one that does not lead nearer (at a double root, from rounding alone) is
// not taken.
double polish(const double* a, double x) {
  for (int i = 0; i < 2; i++) {
    const double slope = ((4 * a[4] * x + 3 * a[3]) * x + 2 * a[2]) * x + a[1];
    const double next = x - value(a, x) / slope;
    if (fabs(value(a, next)) < fabs(value(a, x))) x = next;
  }
  return x;
}

// The turns about k1 (cosine c, sine s) and k3 (u, v) with what they leave of the equations
// of 13 and 23.
struct turns {
  double c, s, u, v;
  double left13, left23;

  void measure(const frames& f) {
    left13 = f.b3.y * (c * u - f.p1 * v) - s * f.b3.z;
    left23 = f.b3.y * (f.p2 * u + (c + f.t) * v) - s * f.b3.x;
  }
  double left() const { return left13 * left13 + left23 * left23; }
  // Whether what is left is at most this part of the terms.
  bool solve(const frames& f, double part) const {
    const double y = fabs(f.b3.y);
    return fabs(left13) <= part * (y * (1 + fabs(f.p1)) + fabs(f.b3.z)) &&
           fabs(left23) <= part * (y * (fabs(f.p2) + 1 + fabs(f.t)) + fabs(f.b3.x));
  }
  bool same(const turns& other) const {
    constexpr double kSame = 1e-10;
    return fabs(c - other.c) + fabs(s - other.s) + fabs(u - other.u) + fabs(v - other.v) < kSame;
  }
};

// The turns that may belong to a root, the likelier first.
void make_turns(const frames& f, double c, turns* both) {
  const double sine = sqrt(1 - c * c);
  const double s = f.b3.y > 0 ? sine : -sine;
  // The line a u + b v = d, of the equation with the larger coefficients.
  double a = c, b = -f.p1, d = s * f.b3.z / f.b3.y;
  if (f.p2 * f.p2 + (c + f.t) * (c + f.t) > a * a + b * b) {
    a = f.p2;
    b = c + f.t;
    d = s * f.b3.x / f.b3.y;
  }
  const double square = a * a + b * b;
  const double half = sqrt(fmax(0, square - d * d));  // of the chord, times the normal's length
  for (int i = 0; i < 2; i++) {
    const double h = i ? -half : half;
    const double u = a * d - b * h, v = b * d + a * h;
    const double size = sqrt(u * u + v * v);
    both[i] = {c, s, u / size, v / size, 0, 0};
    both[i].measure(f);
  }
  if (both[1].left() < both[0].left()) {
    const turns first = both[0];
    both[0] = both[1];
    both[1] = first;
  }
}

// Newton steps on both angles. Near c = 1 the cosine tells little about the turn, and where two
// poses share it, it is a double root of the quartic, good for half the digits; the two equations
// are sound in both cases, and two steps do. Where poses meet the equations are singular as well:
// damped least-squares steps then approach them as near as rounding lets them.
turns polish(const frames& f, turns x) {
  constexpr int kSteps = 40;
  constexpr double kExact = 1e-16;
  const double y = f.b3.y;
  double caution = 1;
  for (int i = 0; i < kSteps && !x.solve(f, kExact); i++) {
    // Derivatives of the two equations (a, b and c, d) by the two angles.
    const double a = -y * x.s * x.u - x.c * f.b3.z, b = -y * (x.c * x.v + f.p1 * x.u);
    const double c = -y * x.s * x.v - x.c * f.b3.x, d = y * ((x.c + f.t) * x.u - f.p2 * x.v);
    const double damping = caution * x.left();
    const double n11 = a * a + c * c + damping, n12 = a * b + c * d, n22 = b * b + d * d + damping;
    const double g1 = a * x.left13 + c * x.left23, g2 = b * x.left13 + d * x.left23;
    // (a d - b c)^2 is the determinant without damping, and without cancellation.
    const double det = (a * d - b * c) * (a * d - b * c) + damping * (n11 + n22 - damping);
    const double turn1 = (n12 * g2 - n22 * g1) / det, turn3 = (n12 * g1 - n11 * g2) / det;
    const double length1 = sqrt(1 + turn1 * turn1), length3 = sqrt(1 + turn3 * turn3);
    turns next = x;
    next.c = (x.c - x.s * turn1) / length1;
    next.s = (x.s + x.c * turn1) / length1;
    next.u = (x.u - x.v * turn3) / length3;
    next.v = (x.v + x.u * turn3) / length3;
    next.measure(f);
    if (next.left() < x.left()) {
      x = next;
      caution = 1;
    } else {
      if (caution > 1e3) break;
      caution *= 16;
    }
  }
  return x;
}

// Rotation (row by row) and translation; false where they are not finite or put a point
// into the camera's centre, from where it is seen in no direction.
bool make_pose(const frames& f, const vec& first, const turns& x, double* rotation,
               double* translation) {
  const double c = x.c, s = x.s, u = x.u, v = x.v;
  const double columns[3][3] = {{u, 0, -v}, {-v * s, c, -u * s}, {v * c, s, u * c}};
  double R[3][3] = {};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) {
      const double factor = columns[j][i];  // M, row i, column j
      const vec& b = f.bearing[i];
      const vec& e = f.world[j];
      const double from[3] = {b.x, b.y, b.z}, to[3] = {e.x, e.y, e.z};
      for (int r = 0; r < 3; r++)
        for (int k = 0; k < 3; k++) R[r][k] += from[r] * factor * to[k];
    }
  constexpr double kNear = 1e-6;  // sides of the triangle
  const double d2 = f.side * v / f.z2;
  const double d1 = f.side * u + d2 * f.x2;
  const double d3 = f.height * s / f.b3.y;
  if (!(fmin(fabs(d1), fmin(fabs(d2), fabs(d3))) > kNear * f.side)) return false;
  const double bearing[3] = {f.bearing[0].x, f.bearing[0].y, f.bearing[0].z};
  double t[3], sum = 0;
  for (int r = 0; r < 3; r++) {
    t[r] = d1 * bearing[r] - (R[r][0] * first.x + R[r][1] * first.y + R[r][2] * first.z);
    sum += t[r] + R[r][0] + R[r][1] + R[r][2];
  }
  if (!isfinite(sum)) return false;
  memcpy(rotation, R, sizeof(R));
  memcpy(translation, t, sizeof(t));
  return true;
}

// Poses found so far, and where the caller wants them.
struct poses {
  double* rotations;
  double* translations;
  int32_t count;
  turns taken[4];

  void add(const frames& f, const vec& first, const turns& x) {
    if (count == 4) return;
    for (int32_t i = 0; i < count; i++)
      if (x.same(taken[i])) return;
    if (!make_pose(f, first, x, rotations + 9 * count, translations + 3 * count)) return;
    taken[count++] = x;
  }
};

// The poses of a root of the quartic: one, or two that share it.
void add_poses(const frames& f, const vec& first, double c, poses* found) {
  constexpr double kShared = 1e-1;  // a root this near to another may have lost its own turns
  constexpr double kRounding =
      1e-13;  // what a solution leaves; a root that is not real leaves more
  turns candidates[2];
  make_turns(f, c, candidates);
  for (int i = 0; i < 2; i++) {
    if (i > 0 && !candidates[i].solve(f, kShared)) return;
    const turns x = polish(f, candidates[i]);
    // With s of the other sign the third point lies behind the camera.
    if (x.s * f.b3.y >= 0 && x.solve(f, kRounding)) found->add(f, first, x);
  }
}

}  // namespace

int32_t zyn_solve_ap3p(double* rotations, double* translations, const float* world,
                       const float* image, const float* camera, const void*, int32_t* count) {
  if (!rotations || !translations || !world || !image || !camera || !count)
    return zyn_refuse_null("the rotations, translations, points, camera or count");
  const double per_fx = 1 / static_cast<double>(camera[0]);
  const double per_fy = 1 / static_cast<double>(camera[4]);
  vec points[3], bearings[3];
  for (int i = 0; i < 3; i++) {
    points[i] = {world[3 * i], world[3 * i + 1], world[3 * i + 2]};
    const vec ray = {(static_cast<double>(image[2 * i]) - camera[2]) * per_fx,
                     (static_cast<double>(image[2 * i + 1]) - camera[5]) * per_fy, 1};
    bearings[i] = (1 / length(ray)) * ray;
  }
  const frames f = make_frames(points, bearings);
  double a[5], roots[4];
  make_quartic(f, a);
  quartic_roots(a, roots);
  poses found = {rotations, translations, 0, {}};
  for (double root : roots) {
    const double c = polish(a, root);
    if (!(fabs(c) <= 1)) continue;
    add_poses(f, points[0], c, &found);
  }
  *count = found.count;
  return ZYN_RET_OK;
}

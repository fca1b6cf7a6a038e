#include "mesh.h"

namespace render {
namespace {

// The neck's joint in face coordinates.
constexpr vec3 kJoint{0.0f, 8.0f, 2.0f};

// Face to camera coordinates: with the head for follow 0, with the shoulders for 1.
vec3 to_camera(const head_pose& pose, vec3 p, float follow) {
  const vec3 with_head = pose.rotation * p + pose.translation;
  if (follow <= 0.0f) return with_head;
  const vec3 joint = pose.rotation * kJoint + pose.translation;
  return mix(with_head, pose.torso * (p - kJoint) + joint, follow);
}

mesh grid(int rows, int columns, material kind) {
  return {rows, columns, kind, std::vector<vertex>(static_cast<size_t>(rows * columns))};
}

// Normals from the neighbours in the grid; sign turns them outwards.
void find_normals(mesh& m, bool closed, float sign) {
  for (int i = 0; i < m.rows; i++)
    for (int j = 0; j < m.columns; j++) {
      const int up = std::max(i - 1, 0), low = std::min(i + 1, m.rows - 1);
      int left = j - 1, right = j + 1;
      if (closed) {  // the last column stands on the first one
        if (left < 0) left = m.columns - 2;
        if (right > m.columns - 1) right = 1;
      }
      left = std::max(left, 0);
      right = std::min(right, m.columns - 1);
      const vec3 across = m.at(i, right).seen - m.at(i, left).seen;
      const vec3 along = m.at(low, j).seen - m.at(up, j).seen;
      m.at(i, j).normal = normalize(cross(across, along)) * sign;
    }
}

// Angles close together at the face.
float column_angle(int j, int columns) {
  const float c = 2.0f * static_cast<float>(j) / static_cast<float>(columns - 1) - 1.0f;
  return kPi * (0.55f * c + 0.45f * c * c * c);
}

void set(vertex* v, vec3 canonical, float cover, float along_u, float along_v, vec3 seen) {
  v->canonical = canonical;
  v->cover = cover;
  v->u = along_u;
  v->v = along_v;
  v->seen = seen;
}

float follow_of_ring(float ring) { return step(13.5f, 17.5f, ring); }

mesh build_skin(const shape& form, const head_pose& pose) {
  std::vector<float> rings;
  for (float r = 0.0f; r < 5.0f; r += 0.25f) rings.push_back(r);
  for (float r = 5.0f; r < 13.0f; r += 1.0f / 9.0f) rings.push_back(r);
  for (float r = 13.0f; r <= kLastRing; r += 0.25f) rings.push_back(r);
  mesh m = grid(static_cast<int>(rings.size()), 150, kSkin);
  for (int i = 0; i < m.rows; i++)
    for (int j = 0; j < m.columns; j++) {
      const float angle = column_angle(j, m.columns), ring = rings[static_cast<size_t>(i)];
      vertex& v = m.at(i, j);
      v.canonical = form.skin_point(ring, angle);
      v.seen = to_camera(pose, form.to_face(v.canonical), follow_of_ring(ring));
      v.cover = ring < 16.0f && !form.who.bald ? form.hairline(angle) - v.canonical.y : -9.0f;
      v.u = angle;
      v.v = ring;
    }
  find_normals(m, true, -1.0f);
  return m;
}

mesh build_ear(const shape& form, const head_pose& pose, float side) {
  mesh m = grid(14, 22, kEar);
  for (int i = 0; i < m.rows; i++)
    for (int j = 0; j < m.columns; j++) {
      const float a = kPi * static_cast<float>(i) / static_cast<float>(m.rows - 1);
      const float b = 2.0f * kPi * static_cast<float>(j) / static_cast<float>(m.columns - 1);
      const float rim = std::sin(a);
      const float narrow = 1.0f - 0.3f * step(0.3f, 1.0f, -std::cos(a));
      vec3 p{0.55f * std::sin(b) * rim, -3.0f * std::cos(a), 1.65f * std::cos(b) * rim * narrow};
      const vec3 turned = turn(-0.55f * side, 0.12f, 0.12f * side) * p;
      vertex& v = m.at(i, j);
      v.canonical = {side * 7.2f + turned.x, 1.0f + turned.y, -0.6f - turned.z};
      v.seen = to_camera(pose, form.to_face(v.canonical), 0.0f);
      v.u = p.z / 1.65f;
      v.v = p.y / 3.0f;
    }
  find_normals(m, true, 1.0f);
  return m;
}

// How far hair stands off the scalp at a point that is cover inside the hairline.
float hair_height(const shape& form, float ring, float angle, float cover) {
  const identity& who = form.who;
  const float side = step(0.5f, 1.4f, std::fabs(angle)) * step(3.0f, 5.5f, ring);
  const float full = mix(who.hair_thick, who.hair_side, side);
  const float lumps =
      1.0f +
      (0.25f + 0.3f * who.hair_curl) * noise(angle * 2.5f + 9.0f, ring * 0.9f, who.seed + 5) +
      0.18f * noise(angle * 7.0f, ring * 2.4f, who.seed + 6);
  return (0.12f + full * step(-0.4f, 1.6f, cover)) * lumps;
}

mesh build_hair(const shape& form, const head_pose& pose) {
  const identity& who = form.who;
  const bool hanging = who.hair_length > 8.0f;
  mesh m = grid(hanging ? 62 : 46, 120, kHair);
  for (int i = 0; i < m.rows; i++)
    for (int j = 0; j < m.columns; j++) {
      const float angle = column_angle(j, m.columns);
      const float behind = step(1.2f, 2.2f, std::fabs(angle));
      const float line = form.hairline(angle);
      const float last = hanging ? 8.0f : 12.5f;
      const float ring = std::min(static_cast<float>(i) * (hanging ? 0.2f : 0.28f), last);
      vec3 p = form.ring_point(ring, angle);
      if (hanging && i > 40) p.y += static_cast<float>(i - 40) / 21.0f * (who.hair_length - 1.0f);
      const float cover = line - p.y;
      const float low = std::max(p.y - 2.0f, 0.0f);
      const float high = hair_height(form, ring, angle, cover);
      const vec3 out = normalize(vec3{p.x * 1.1f, ring < 5.0f ? p.y * 0.8f : 0.0f, p.z * 0.9f});
      p = p + out * high;
      if (hanging) {
        p.z += 0.2f * low * behind;
        p.x *= 1.0f + 0.012f * low * (1.0f + noise(low * 0.4f, angle, who.seed + 8));
      }
      set(&m.at(i, j), p, cover, angle, p.y,
          to_camera(pose, form.to_face(p), 0.8f * step(10.0f, 18.0f, p.y)));
    }
  find_normals(m, true, -1.0f);
  return m;
}

// The dome of what is worn; cover ends it at its edge.
mesh build_hat(const shape& form, const head_pose& pose) {
  const identity& who = form.who;
  const bool cloth = who.hat == 4;
  mesh m = grid(cloth ? 50 : 30, 90, kHat);
  for (int i = 0; i < m.rows; i++)
    for (int j = 0; j < m.columns; j++) {
      const float angle = column_angle(j, m.columns), degrees = std::fabs(angle) * 180.0f / kPi;
      const float ring = std::min(static_cast<float>(i) * 0.21f, cloth ? 7.0f : 6.3f);
      vec3 p = form.ring_point(ring, angle);
      if (cloth && i > 33) p.y += static_cast<float>(i - 33) * 1.1f;
      float edge = -3.9f + 1.4f * step(40.0f, 120.0f, degrees);
      if (cloth) edge = mix(-5.6f, 30.0f, step(52.0f, 78.0f, degrees));
      const float high = who.hat == 1 ? 1.1f : who.hat == 2 ? 1.2f : cloth ? 0.9f : 1.4f;
      const float rise = who.hat == 3 ? 1.0f * (1.0f - step(3.5f, 5.0f, ring)) : 0.0f;
      const vec3 out = normalize(vec3{p.x, ring < 5.0f ? p.y * 0.8f : 0.0f, p.z});
      p = p + out * (high + std::max(who.hair_side, 0.0f) * 0.3f +
                     0.2f * noise(angle * 3.0f, p.y * 0.4f, who.seed + 11));
      p.y -= rise;
      set(&m.at(i, j), p, edge - p.y + (cloth ? 0.0f : 0.01f), angle, p.y,
          to_camera(pose, form.to_face(p), 0.8f * step(9.0f, 16.0f, p.y)));
    }
  find_normals(m, true, -1.0f);
  return m;
}

mesh build_brim(const shape& form, const head_pose& pose) {
  const bool visor = form.who.hat == 2;
  mesh m = grid(6, 60, kHat);
  for (int i = 0; i < m.rows; i++)
    for (int j = 0; j < m.columns; j++) {
      const float c = 2.0f * static_cast<float>(j) / static_cast<float>(m.columns - 1) - 1.0f;
      const float angle = c * (visor ? 1.15f : kPi);
      vec3 p = form.ring_point(4.95f, angle);
      const float across = static_cast<float>(i) / static_cast<float>(m.rows - 1);
      const float reach = visor ? 7.5f * std::pow(std::max(std::cos(c * 1.5f), 0.0f), 0.6f) : 6.0f;
      const float out = 1.2f + 0.3f * form.who.hair_side + across * reach;
      const vec3 away = normalize(vec3{visor ? 0.35f * p.x : p.x, 0.0f, p.z});
      p = p + away * out;
      p.y += across * (visor ? 1.6f - 1.0f * c * c : 1.2f);
      set(&m.at(i, j), p, 1.0f, angle, 4.0f + across, to_camera(pose, form.to_face(p), 0.0f));
    }
  find_normals(m, false, -1.0f);
  return m;
}

// A bent tube through points, six sides.
mesh build_tube(const shape& form, const head_pose& pose, const std::vector<vec3>& line,
                float radius) {
  mesh m = grid(static_cast<int>(line.size()), 7, kFrame);
  for (int i = 0; i < m.rows; i++) {
    const vec3 ahead = normalize(line[static_cast<size_t>(std::min(i + 1, m.rows - 1))] -
                                 line[static_cast<size_t>(std::max(i - 1, 0))]);
    const vec3 side = normalize(cross(ahead, vec3{0.3f, 0.2f, 1.0f})), up = cross(ahead, side);
    for (int j = 0; j < 7; j++) {
      const float a = 2.0f * kPi * static_cast<float>(j) / 6.0f;
      const vec3 out = side * std::cos(a) + up * std::sin(a);
      vertex& v = m.at(i, j);
      v.canonical = line[static_cast<size_t>(i)] + out * radius;
      v.cover = 1.0f;
      v.seen = to_camera(pose, form.to_face(v.canonical), 0.0f);
      const vec3 tip = to_camera(pose, form.to_face(v.canonical + out * 0.1f), 0.0f);
      v.normal = normalize(tip - v.seen);
    }
  }
  return m;
}

vec3 rim_point(const shape& form, float side, float angle, float part) {
  const identity& who = form.who;
  const float c = std::cos(angle), s = std::sin(angle), round = who.glasses_round;
  const float x = side * (3.35f * who.eye_apart) +
                  part * who.glasses_wide * std::copysign(std::pow(std::fabs(c), round), c);
  const float y = 0.35f + part * who.glasses_high * std::copysign(std::pow(std::fabs(s), round), s);
  return {x, y, 10.75f - 0.04f * x * x};
}

void build_glasses(const shape& form, const head_pose& pose, std::vector<mesh>* meshes) {
  const identity& who = form.who;
  const float thick = who.glasses == 2 ? 0.07f : who.glasses_thick;
  for (const float side : {-1.0f, 1.0f}) {
    std::vector<vec3> rim;
    for (int i = 0; i <= 28; i++)
      rim.push_back(rim_point(form, side, 2.0f * kPi * static_cast<float>(i) / 28.0f, 1.0f));
    meshes->push_back(build_tube(form, pose, rim, thick));
    const float outer = side * (3.35f * who.eye_apart + who.glasses_wide);
    const std::vector<vec3> temple = {{outer, -0.1f, rim[0].z},
                                      {side * 7.35f, -0.2f, 7.6f},
                                      {side * 7.6f, -0.3f, 3.0f},
                                      {side * 7.6f, -0.2f, -0.5f}};
    meshes->push_back(build_tube(form, pose, temple, thick * 1.1f));
    mesh lens = grid(2, 29, kLens);
    for (int j = 0; j < 29; j++)
      for (int i = 0; i < 2; i++) {
        vertex& v = lens.at(i, j);
        v.canonical = rim_point(form, side, 2.0f * kPi * static_cast<float>(j) / 28.0f,
                                i == 0 ? 0.02f : 1.0f);
        v.cover = 1.0f;
        v.seen = to_camera(pose, form.to_face(v.canonical), 0.0f);
        v.normal =
            pose.rotation * normalize(vec3{0.08f * v.canonical.x, 0.02f * v.canonical.y, -1});
      }
    meshes->push_back(lens);
  }
  const float inner = 3.35f * who.eye_apart - who.glasses_wide;
  const std::vector<vec3> bridge = {{-inner, 0.1f, 10.75f},
                                    {-0.4f * inner, -0.25f, 11.0f},
                                    {0.4f * inner, -0.25f, 11.0f},
                                    {inner, 0.1f, 10.75f}};
  meshes->push_back(build_tube(form, pose, bridge, thick));
}

// Where (x, y) lies on the skin: the angle of the ring through it, by bisection.
vec3 on_skin(const shape& form, float x, float y) {
  float ring = kEyeRing, angle = 0.0f;
  for (int turn = 0; turn < 12; turn++) {
    const auto search = [](float low, float high, const auto& below) {
      for (int i = 0; i < 22; i++) {
        const float middle = 0.5f * (low + high);
        (below(middle) ? low : high) = middle;
      }
      return 0.5f * (low + high);
    };
    angle = search(-1.5f, 1.5f, [&](float a) { return form.ring_point(ring, a).x < x; });
    ring = search(1.0f, 13.0f, [&](float r) { return form.ring_point(r, angle).y < y; });
  }
  return form.skin_point(ring, angle);
}

}  // namespace

std::vector<mesh> build_head(const shape& form, const head_pose& pose) {
  const identity& who = form.who;
  std::vector<mesh> meshes;
  meshes.push_back(build_skin(form, pose));
  if (who.hat != 4) {
    meshes.push_back(build_ear(form, pose, -1.0f));
    meshes.push_back(build_ear(form, pose, 1.0f));
  }
  if (!who.bald && who.hat != 4 && who.hair_thick > 0.05f) meshes.push_back(build_hair(form, pose));
  if (who.hat) meshes.push_back(build_hat(form, pose));
  if (who.hat == 2 || who.hat == 3) meshes.push_back(build_brim(form, pose));
  if (who.glasses) build_glasses(form, pose, &meshes);
  return meshes;
}

vec3 forehead_point(const shape& form, int i) {
  const float x = (static_cast<float>(i) - 2.0f) * 2.0f;
  return form.to_face(on_skin(form, x, -4.6f + 0.12f * x * x * 0.5f));
}

vec3 landmark(const shape& form, int i) {
  const auto mirrored = [](int k, int first, int last, int pivot) {
    return k < pivot ? std::pair<int, int>{k - first, 0} : std::pair<int, int>{last - k, 1};
  };
  if (i < 17) {  // jaw
    const float rings[] = {7.0f, 8.2f, 9.4f, 10.6f, 11.6f, 12.1f, 12.3f, 12.4f, 12.4f};
    const float degrees[] = {83.0f, 81.5f, 80.0f, 76.0f, 65.0f, 49.0f, 32.0f, 15.5f, 0.0f};
    const auto [k, side] = mirrored(i, 0, 16, 9);
    const float angle = degrees[k] * kPi / 180.0f * (side == 0 ? -1.0f : 1.0f);
    return form.to_face(form.skin_point(rings[k], angle));
  }
  if (i < 27) {  // brows
    const auto [k, side] = mirrored(i, 17, 26, 22);
    const float t = 1.0f - 0.25f * static_cast<float>(k);
    const float x = shape::brow_x(t) * (side == 0 ? -1.0f : 1.0f);
    return form.to_face(on_skin(form, x, form.brow_line(side, t)));
  }
  const identity& who = form.who;
  const float tip = 4.3f * who.nose_long;
  if (i < 31) return form.to_face(on_skin(form, 0.0f, mix(-0.1f, tip, (i - 27) / 3.0f)));
  if (i < 36) {
    const float x = static_cast<float>(i - 33) * 0.72f * who.nose_wide;
    return form.to_face(on_skin(form, x, tip + 0.95f - 0.09f * x * x));
  }
  if (i < 48) {  // eyes, each from its left corner over the upper lid and back
    const int side = i < 42 ? 0 : 1, k = (i - 36) % 6;
    const float across[] = {-1.0f, -0.36f, 0.36f, 1.0f, 0.36f, -0.36f};
    const float x = form.eye_x(side) + across[k] * form.eye_half;
    const float t = side == 0 ? -across[k] : across[k];
    const float y = k == 0 || k == 3 ? form.eye_y(t) : form.lid(side, t, k < 3 ? -1 : 1);
    return form.to_face(on_skin(form, x, y));
  }
  const float outer[] = {-1.0f, -0.62f, -0.24f, 0.0f, 0.24f,  0.62f,
                         1.0f,  0.62f,  0.26f,  0.0f, -0.26f, -0.62f};
  const float inner[] = {-0.88f, -0.38f, 0.0f, 0.38f, 0.88f, 0.38f, 0.0f, -0.38f};
  const int k = i < 60 ? i - 48 : i - 60;
  const float u = i < 60 ? outer[k] : inner[k];
  const int edge = i < 60 ? (k < 7 ? 0 : 3) : (k < 5 ? 1 : 2);
  return form.to_face(on_skin(form, u * form.mouth_half, form.mouth_edge(u, edge)));
}

}  // namespace render

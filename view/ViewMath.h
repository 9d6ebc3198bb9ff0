#pragma once
// The little vector and matrix algebra the viewer needs to place its camera. Matrices are 16
// floats in the scene's own layout: a point is a row vector, so elements 12 to 14 hold the
// translation, which is also how OpenGL reads the same 16 floats as a column-major matrix.

#include <algorithm>
#include <cmath>

namespace korvex::view {

struct Vec3 {
  float x = 0, y = 0, z = 0;
};

inline Vec3 operator+(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline Vec3 operator*(Vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline float Dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec3 Cross(Vec3 a, Vec3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float Length(Vec3 a) { return std::sqrt(Dot(a, a)); }
inline Vec3 Normalised(Vec3 a) {
  const float l = Length(a);
  return l > 0 ? a * (1 / l) : a;
}
inline bool IsFinite(Vec3 a) { return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z); }

struct Mat4 {
  float m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};

// a then b: the point is carried by a first.
inline Mat4 operator*(const Mat4& a, const Mat4& b) {
  Mat4 r;
  for (int row = 0; row < 4; ++row)
    for (int col = 0; col < 4; ++col) {
      float s = 0;
      for (int k = 0; k < 4; ++k) s += a.m[row * 4 + k] * b.m[k * 4 + col];
      r.m[row * 4 + col] = s;
    }
  return r;
}

inline Mat4 FromFloats(const float* p) {
  Mat4 r;
  std::copy(p, p + 16, r.m);
  return r;
}

inline Vec3 TransformPoint(const Mat4& a, Vec3 p) {
  const float* m = a.m;
  return {p.x * m[0] + p.y * m[4] + p.z * m[8] + m[12], p.x * m[1] + p.y * m[5] + p.z * m[9] + m[13],
          p.x * m[2] + p.y * m[6] + p.z * m[10] + m[14]};
}

// The largest factor by which the matrix can stretch a length (the longest axis row).
inline float MaxScale(const Mat4& a) {
  const float* m = a.m;
  const float sx = Length({m[0], m[1], m[2]}), sy = Length({m[4], m[5], m[6]}),
              sz = Length({m[8], m[9], m[10]});
  return std::max(sx, std::max(sy, sz));
}

// World to eye: the eye at `eye` looks towards `target` with `up` roughly above.
inline Mat4 LookAt(Vec3 eye, Vec3 target, Vec3 up) {
  const Vec3 f = Normalised(target - eye);
  Vec3 s = Cross(f, up);
  if (Length(s) < 1e-6f) s = Cross(f, std::fabs(f.y) < 0.9f ? Vec3{0, 1, 0} : Vec3{1, 0, 0});
  s = Normalised(s);
  const Vec3 u = Cross(s, f);
  Mat4 r;
  r.m[0] = s.x, r.m[4] = s.y, r.m[8] = s.z;
  r.m[1] = u.x, r.m[5] = u.y, r.m[9] = u.z;
  r.m[2] = -f.x, r.m[6] = -f.y, r.m[10] = -f.z;
  r.m[12] = -Dot(s, eye), r.m[13] = -Dot(u, eye), r.m[14] = Dot(f, eye);
  return r;
}

// Eye to clip space with a vertical field of view in radians.
inline Mat4 Perspective(float fovY, float aspect, float nearPlane, float farPlane) {
  const float t = 1 / std::tan(fovY / 2);
  Mat4 r;
  r.m[0] = t / aspect;
  r.m[5] = t;
  r.m[10] = (farPlane + nearPlane) / (nearPlane - farPlane);
  r.m[11] = -1;
  r.m[14] = 2 * farPlane * nearPlane / (nearPlane - farPlane);
  r.m[15] = 0;
  return r;
}

}  // namespace korvex::view

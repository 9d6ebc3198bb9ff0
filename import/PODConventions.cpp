#include "import/PODConventions.h"

#include <algorithm>
#include <cmath>

namespace korvex::podimport {

PODQUATERNIONf PODRotationKey(const aiQuaternion& rotation) {
  const double length =
      std::sqrt(double(rotation.x) * rotation.x + double(rotation.y) * rotation.y +
                double(rotation.z) * rotation.z + double(rotation.w) * rotation.w);
  if (!std::isfinite(length) || length == 0.0) return PODQUATERNIONf{0, 0, 0, 1};
  return PODQUATERNIONf{
      static_cast<float>(-rotation.x / length), static_cast<float>(-rotation.y / length),
      static_cast<float>(-rotation.z / length), static_cast<float>(rotation.w / length)};
}

PODMATRIXf PODMatrixFromSource(const aiMatrix4x4& m) {
  const ai_real* rows[4] = {m[0], m[1], m[2], m[3]};
  PODMATRIXf out;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) out.f[4 * r + c] = static_cast<float>(rows[c][r]);
  return out;
}

bool IsFinite(const aiMatrix4x4& m) {
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c)
      if (!std::isfinite(m[r][c])) return false;
  return true;
}

LocalTransform DecomposeTransform(const aiMatrix4x4& m) {
  LocalTransform t;
  if (!IsFinite(m)) return t;
  m.Decompose(t.scale, t.rotation, t.position);
  const bool finite = std::isfinite(t.rotation.w) && std::isfinite(t.rotation.x) &&
                      std::isfinite(t.rotation.y) && std::isfinite(t.rotation.z);
  // A zero scale leaves no rotation to find.
  if (!finite) t.rotation = aiQuaternion(1, 0, 0, 0);
  return t;
}

// Not the library's (scaling, rotation, position) constructor: that one scales the rows of the
// rotation, which differs from T * R * S under a non-uniform scale.
aiMatrix4x4 ComposeTransform(const LocalTransform& t) {
  const aiMatrix3x3 r = t.rotation.GetMatrix();
  const ai_real s[3] = {t.scale.x, t.scale.y, t.scale.z};
  const ai_real p[3] = {t.position.x, t.position.y, t.position.z};
  aiMatrix4x4 m;
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) m[row][col] = r[row][col] * s[col];
    m[row][3] = p[row];
  }
  return m;
}

bool TransformsClose(const aiMatrix4x4& a, const aiMatrix4x4& b, float tolerance) {
  float largest = 0.0f;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) largest = std::max(largest, std::fabs(b[r][c]));
  const float bound = tolerance * (1.0f + largest);
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c)
      if (!(std::fabs(a[r][c] - b[r][c]) <= bound)) return false;
  return true;
}

}  // namespace korvex::podimport

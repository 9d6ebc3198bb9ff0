// Single-precision matrix, vector and quaternion math of the POD side.
//
// Output files are compared bit for bit, so every expression below is written in the order it
// must be evaluated (left to right, as read) and in the precision it must have: float unless a
// value is explicitly kept as double. Nothing may be reassociated or fused.

#include "pod/PODMatrix.h"

#include <cmath>
#include <cstring>

void PODMatrixIdentityF(PODMATRIXf& out) {
  std::memset(out.f, 0, sizeof(out.f));
  out.f[0] = 1.0f;
  out.f[5] = 1.0f;
  out.f[10] = 1.0f;
  out.f[15] = 1.0f;
}

void PODMatrixMultiplyF(PODMATRIXf& out, const PODMATRIXf& A, const PODMATRIXf& B) {
  // Computed into a local so that out may alias A or B.
  PODMATRIXf r;
  for (int row = 0; row < 4; ++row) {
    for (int col = 0; col < 4; ++col) {
      r.f[4 * row + col] = A.f[4 * row + 0] * B.f[0 + col] + A.f[4 * row + 1] * B.f[4 + col] +
                           A.f[4 * row + 2] * B.f[8 + col] + A.f[4 * row + 3] * B.f[12 + col];
    }
  }
  out = r;
}

void PODMatrixTranslationF(PODMATRIXf& out, float x, float y, float z) {
  PODMatrixIdentityF(out);
  out.f[12] = x;
  out.f[13] = y;
  out.f[14] = z;
}

void PODMatrixScalingF(PODMATRIXf& out, float x, float y, float z) {
  std::memset(out.f, 0, sizeof(out.f));
  out.f[0] = x;
  out.f[5] = y;
  out.f[10] = z;
  out.f[15] = 1.0f;
}

namespace {

// Adds a triple product to the sum of its sign, so that the determinant can be judged against
// the magnitude of its terms rather than against an absolute threshold.
inline void Accumulate(double product, double& positive, double& negative) {
  if (product >= 0.0)
    positive += product;
  else
    negative += product;
}

}  // namespace

void PODMatrixInverseF(PODMATRIXf& out, const PODMATRIXf& in) {
  const float* m = in.f;
  double positive = 0.0;
  double negative = 0.0;
  // Each triple product is a float product (the elements are floats); only the sums are double.
  Accumulate(m[0] * m[5] * m[10], positive, negative);
  Accumulate(m[4] * m[9] * m[2], positive, negative);
  Accumulate(m[8] * m[1] * m[6], positive, negative);
  Accumulate(-m[8] * m[5] * m[2], positive, negative);
  Accumulate(-m[4] * m[1] * m[10], positive, negative);
  Accumulate(-m[0] * m[9] * m[6], positive, negative);

  const double det = positive + negative;
  if (det == 0.0) return;
  // Nearly singular relative to the size of its terms: leave the output as it was.
  const double ratio = det / (positive - negative);
  if (ratio < 1e-15 && ratio > -1e-15) return;

  // The adjugate is formed in float and scaled by the reciprocal of the determinant, itself
  // rounded to float once.
  const float inv = static_cast<float>(1.0 / det);
  PODMATRIXf r;
  r.f[0] = (m[5] * m[10] - m[9] * m[6]) * inv;
  r.f[1] = -(m[1] * m[10] - m[9] * m[2]) * inv;
  r.f[2] = (m[1] * m[6] - m[5] * m[2]) * inv;
  r.f[3] = 0.0f;
  r.f[4] = -(m[4] * m[10] - m[8] * m[6]) * inv;
  r.f[5] = (m[0] * m[10] - m[8] * m[2]) * inv;
  r.f[6] = -(m[0] * m[6] - m[4] * m[2]) * inv;
  r.f[7] = 0.0f;
  r.f[8] = (m[4] * m[9] - m[8] * m[5]) * inv;
  r.f[9] = -(m[0] * m[9] - m[8] * m[1]) * inv;
  r.f[10] = (m[0] * m[5] - m[4] * m[1]) * inv;
  r.f[11] = 0.0f;
  // Translation row: -(t * inverse 3x3), t being the translation row of the input.
  r.f[12] = -(m[12] * r.f[0] + m[13] * r.f[4] + m[14] * r.f[8]);
  r.f[13] = -(m[12] * r.f[1] + m[13] * r.f[5] + m[14] * r.f[9]);
  r.f[14] = -(m[12] * r.f[2] + m[13] * r.f[6] + m[14] * r.f[10]);
  r.f[15] = 1.0f;
  out = r;
}

void PODMatrixVec3LerpF(PODVECTOR3f& out, const PODVECTOR3f& a, const PODVECTOR3f& b, float t) {
  const PODVECTOR3f va = a;
  const PODVECTOR3f vb = b;
  out.x = (vb.x - va.x) * t + va.x;
  out.y = (vb.y - va.y) * t + va.y;
  out.z = (vb.z - va.z) * t + va.z;
}

void PODMatrixQuaternionNormalizeF(PODQUATERNIONf& q) {
  // The squares are summed in float; the root and its reciprocal are taken in double and each
  // component is scaled in double before being rounded back to float.
  const float sum = q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w;
  const double length = std::sqrt(static_cast<double>(sum));
  if (length == 0.0) return;
  const double inv = 1.0 / length;
  q.x = static_cast<float>(q.x * inv);
  q.y = static_cast<float>(q.y * inv);
  q.z = static_cast<float>(q.z * inv);
  q.w = static_cast<float>(q.w * inv);
}

void PODMatrixQuaternionSlerpF(PODQUATERNIONf& out, const PODQUATERNIONf& q1,
                               const PODQUATERNIONf& q2, float t) {
  // A weight outside 0..1 is not extrapolated: it yields no rotation at all.
  if (t < 0.0f || t > 1.0f) {
    out = PODQUATERNIONf{0.0f, 0.0f, 0.0f, 1.0f};
    return;
  }
  const PODQUATERNIONf a = q1;
  PODQUATERNIONf b = q2;
  float d = a.x * b.x + a.y * b.y + a.z * b.z + a.w * b.w;
  // q and -q are the same rotation: take the short way round. After negating, d is positive,
  // so this happens at most once.
  if (d < 0.0f) {
    b = PODQUATERNIONf{-b.x, -b.y, -b.z, -b.w};
    d = a.x * b.x + a.y * b.y + a.z * b.z + a.w * b.w;
  }
  if (d > 1.0f) d = 1.0f;
  const double angle = std::acos(static_cast<double>(d));
  if (angle == 0.0) {
    out = a;
    return;
  }
  // The weights stay double; each component is summed in double and rounded once.
  const double sinAngle = std::sin(angle);
  const double s1 = std::sin((1.0f - t) * angle) / sinAngle;
  const double s2 = std::sin(t * angle) / sinAngle;
  PODQUATERNIONf r;
  r.x = static_cast<float>(a.x * s1 + b.x * s2);
  r.y = static_cast<float>(a.y * s1 + b.y * s2);
  r.z = static_cast<float>(a.z * s1 + b.z * s2);
  r.w = static_cast<float>(a.w * s1 + b.w * s2);
  PODMatrixQuaternionNormalizeF(r);
  out = r;
}

void PODMatrixRotationQuaternionF(PODMATRIXf& out, const PODQUATERNIONf& q) {
  const float x = q.x, y = q.y, z = q.z, w = q.w;
  out.f[0] = 1.0f - 2.0f * y * y - 2.0f * z * z;
  out.f[1] = 2.0f * x * y - 2.0f * z * w;
  out.f[2] = 2.0f * x * z + 2.0f * y * w;
  out.f[3] = 0.0f;
  out.f[4] = 2.0f * x * y + 2.0f * z * w;
  out.f[5] = 1.0f - 2.0f * x * x - 2.0f * z * z;
  out.f[6] = 2.0f * y * z - 2.0f * x * w;
  out.f[7] = 0.0f;
  out.f[8] = 2.0f * x * z - 2.0f * y * w;
  out.f[9] = 2.0f * y * z + 2.0f * x * w;
  out.f[10] = 1.0f - 2.0f * x * x - 2.0f * y * y;
  out.f[11] = 0.0f;
  out.f[12] = 0.0f;
  out.f[13] = 0.0f;
  out.f[14] = 0.0f;
  out.f[15] = 1.0f;
}

void PODMatrixVec3TransposeMultipleF(PODVECTOR3f& out, const PODVECTOR3f& v,
                                     const PODMATRIXf& M) {
  const PODVECTOR3f p = v;
  out.x = p.x * M.f[0] + p.y * M.f[4] + p.z * M.f[8] + M.f[12];
  out.y = p.x * M.f[1] + p.y * M.f[5] + p.z * M.f[9] + M.f[13];
  out.z = p.x * M.f[2] + p.y * M.f[6] + p.z * M.f[10] + M.f[14];
}

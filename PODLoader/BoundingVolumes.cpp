#include "convert/BoundingVolumes.h"

#include <cmath>
#include <cstring>

#include "pod/Assertion.h"

namespace {

const char* const kSource = "PODLoader/SceneGraphConverter";

// Position k of the stream, through the matrix when one is given:
// x' = m12 + (x*m0 + y*m4 + z*m8), and likewise for y' and z'.
inline __attribute__((always_inline)) PODVECTOR3f Position(const PODMATRIXf* matrix,
                                                           const CPODData* vertex, int k) {
  float p[3];
  std::memcpy(p, vertex->pData + static_cast<size_t>(k) * 12u, sizeof p);
  if (matrix == nullptr) return {p[0], p[1], p[2]};
  const float* m = matrix->f;
  PODVECTOR3f out;
  out.x = m[12] + (p[0] * m[0] + p[1] * m[4] + p[2] * m[8]);
  out.y = m[13] + (p[0] * m[1] + p[1] * m[5] + p[2] * m[9]);
  out.z = m[14] + (p[0] * m[2] + p[1] * m[6] + p[2] * m[10]);
  return out;
}

}  // namespace

bool CreateBoundingSphere(PODMATRIXf* matrix, CPODData* vertex, int count, float* center,
                          float* radius) {
  KX_ASSERT(vertex, kSource);
  KX_ASSERT(vertex->eType == EPODDataFloat, kSource);
  KX_ASSERT(vertex->n == 3, kSource);
  KX_ASSERT(vertex->nStride == 12, kSource);
  // A negative count can only come from a wrapped vertex count; treat it like an empty mesh.
  if (count <= 0) return false;

  // Running mean: c = v / (1 + k) + c * (k / (1 + k)). The four quotients of a vertex are one
  // vector division: each lane is the correctly rounded quotient, as four scalar divisions give.
  typedef float Lanes __attribute__((vector_size(16)));
  Lanes mean = {0.0f, 0.0f, 0.0f, 0.0f};
  for (int k = 0; k < count; ++k) {
    const PODVECTOR3f v = Position(matrix, vertex, k);
    const float t = static_cast<float>(k);
    const float w = 1.0f + t;
    const Lanes q = Lanes{v.x, v.y, v.z, t} / Lanes{w, w, w, w};
    const float share = q[3];
    mean = q + mean * Lanes{share, share, share, share};
  }
  const PODVECTOR3f c = {mean[0], mean[1], mean[2]};

  float mx2 = 0.0f;
  for (int k = 0; k < count; ++k) {
    const PODVECTOR3f v = Position(matrix, vertex, k);
    const float dx = v.x - c.x;
    const float dy = v.y - c.y;
    const float dz = v.z - c.z;
    const float d2 = dz * dz + (dx * dx + dy * dy);
    if (d2 > mx2) mx2 = d2;
  }
  KX_ASSERT(mx2 >= 0.0000f, kSource);

  center[0] = c.x;
  center[1] = c.y;
  center[2] = c.z;
  *radius = std::sqrt(mx2);
  return true;
}

bool CreateBoundingAABB(PODMATRIXf* matrix, CPODData* vertex, int count, float* center, float* min,
                        float* max) {
  KX_ASSERT(vertex, kSource);
  KX_ASSERT(vertex->eType == EPODDataFloat, kSource);
  KX_ASSERT(vertex->n == 3, kSource);
  KX_ASSERT(vertex->nStride == 12, kSource);
  if (count <= 0) return false;

  PODVECTOR3f mMin = {0.0f, 0.0f, 0.0f};
  PODVECTOR3f mMax = {0.0f, 0.0f, 0.0f};
  for (int k = 0; k < count; ++k) {
    const PODVECTOR3f position = Position(matrix, vertex, k);
    const PODVECTOR3f* psV2 = &position;
    KX_ASSERT(psV2, kSource);
    if (k == 0) {
      mMin = *psV2;
      mMax = *psV2;
    } else {
      if (psV2->x > mMax.x) mMax.x = psV2->x;
      if (psV2->y > mMax.y) mMax.y = psV2->y;
      if (psV2->z > mMax.z) mMax.z = psV2->z;
      if (psV2->x < mMin.x) mMin.x = psV2->x;
      if (psV2->y < mMin.y) mMin.y = psV2->y;
      if (psV2->z < mMin.z) mMin.z = psV2->z;
    }
    KX_ASSERT(mMin.x <= psV2->x, kSource);
    KX_ASSERT(mMin.y <= psV2->y, kSource);
    KX_ASSERT(mMin.z <= psV2->z, kSource);
    KX_ASSERT(mMax.x >= psV2->x, kSource);
    KX_ASSERT(mMax.y >= psV2->y, kSource);
    KX_ASSERT(mMax.z >= psV2->z, kSource);
  }
  KX_ASSERT(mMin.x <= mMax.x, kSource);
  KX_ASSERT(mMin.y <= mMax.y, kSource);
  KX_ASSERT(mMin.z <= mMax.z, kSource);

  min[0] = mMin.x;
  min[1] = mMin.y;
  min[2] = mMin.z;
  max[0] = mMax.x;
  max[1] = mMax.y;
  max[2] = mMax.z;
  center[0] = (mMin.x + mMax.x) / 2.0f;
  center[1] = (mMin.y + mMax.y) / 2.0f;
  center[2] = (mMin.z + mMax.z) / 2.0f;
  return true;
}

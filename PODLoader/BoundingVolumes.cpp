#include "convert/BoundingVolumes.h"

#include <cmath>
#include <cstdint>
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

// Four positions at a time, one vector of x, one of y and one of z: each lane is computed with
// the very operations of Position, so each is the same float.
typedef float F4 __attribute__((vector_size(16)));
typedef int32_t I4 __attribute__((vector_size(16)));

struct Block {
  F4 x, y, z;
};

inline F4 Splat(float v) { return F4{v, v, v, v}; }

// Lanes of `a` where `take` is set, else of `b`.
inline F4 Select(I4 take, F4 a, F4 b) { return (F4)((take & (I4)a) | (~take & (I4)b)); }

inline __attribute__((always_inline)) Block Positions4(const PODMATRIXf* matrix,
                                                       const CPODData* vertex, int k) {
  float p[12];
  std::memcpy(p, vertex->pData + static_cast<size_t>(k) * 12u, sizeof p);
  const F4 x = {p[0], p[3], p[6], p[9]};
  const F4 y = {p[1], p[4], p[7], p[10]};
  const F4 z = {p[2], p[5], p[8], p[11]};
  if (matrix == nullptr) return Block{x, y, z};
  const float* m = matrix->f;
  Block out;
  out.x = Splat(m[12]) + (x * Splat(m[0]) + y * Splat(m[4]) + z * Splat(m[8]));
  out.y = Splat(m[13]) + (x * Splat(m[1]) + y * Splat(m[5]) + z * Splat(m[9]));
  out.z = Splat(m[14]) + (x * Splat(m[2]) + y * Splat(m[6]) + z * Splat(m[10]));
  return out;
}

// The value a running "replace when strictly greater" (or smaller) ends with over all
// positions, when no position is NaN: the extreme value, and where that is a zero, the sign of
// the first zero of the component in stream order (later equal values never replace it).
float FirstZero(const PODMATRIXf* matrix, const CPODData* vertex, int count, int component) {
  for (int k = 0; k < count; ++k) {
    const PODVECTOR3f v = Position(matrix, vertex, k);
    const float c = component == 0 ? v.x : component == 1 ? v.y : v.z;
    if (c == 0.0f) return c;
  }
  return 0.0f;
}

// The four checks of the position stream both volumes start with, under the name of the
// volume's own function.
void AssertPositions(const CPODData* vertex, const char* function) {
  if (!vertex) korvex::AssertionFailed("vertex", function, kSource, __LINE__);
  if (!(vertex->eType == EPODDataFloat))
    korvex::AssertionFailed("vertex->eType == EPODDataFloat", function, kSource, __LINE__);
  if (!(vertex->n == 3)) korvex::AssertionFailed("vertex->n == 3", function, kSource, __LINE__);
  if (!(vertex->nStride == 12))
    korvex::AssertionFailed("vertex->nStride == 12", function, kSource, __LINE__);
}

// The box four positions at a time: lane-wise extremes, and whether any lane saw a NaN.
struct BoxLanes {
  Block lo, hi;
  I4 nan;

  explicit BoxLanes(const Block& first)
      : lo(first), hi(first), nan((first.x != first.x) | (first.y != first.y) | (first.z != first.z)) {}

  void add(const Block& b) {
    nan |= (b.x != b.x) | (b.y != b.y) | (b.z != b.z);
    hi.x = Select(b.x > hi.x, b.x, hi.x);
    hi.y = Select(b.y > hi.y, b.y, hi.y);
    hi.z = Select(b.z > hi.z, b.z, hi.z);
    lo.x = Select(b.x < lo.x, b.x, lo.x);
    lo.y = Select(b.y < lo.y, b.y, lo.y);
    lo.z = Select(b.z < lo.z, b.z, lo.z);
  }

  // The lanes combined by value with the positions from `tail` on, then written out when no
  // position is NaN (every per-vertex check of the box then holds): a zero extreme takes the
  // sign of the first zero. False, nothing written, when some position is NaN.
  bool finish(const PODMATRIXf* matrix, const CPODData* vertex, int count, int tail,
              float* center, float* min, float* max) const {
    float mn[3] = {lo.x[0], lo.y[0], lo.z[0]};
    float mx[3] = {hi.x[0], hi.y[0], hi.z[0]};
    bool clean = (nan[0] | nan[1] | nan[2] | nan[3]) == 0;
    auto fold = [&mn, &mx, &clean](float x, float y, float z) {
      const float v[3] = {x, y, z};
      for (int c = 0; c < 3; ++c) {
        if (v[c] != v[c]) clean = false;
        if (v[c] > mx[c]) mx[c] = v[c];
        if (v[c] < mn[c]) mn[c] = v[c];
      }
    };
    for (int i = 1; i < 4; ++i) {
      fold(lo.x[i], lo.y[i], lo.z[i]);
      fold(hi.x[i], hi.y[i], hi.z[i]);
    }
    for (int k = tail; k < count; ++k) {
      const PODVECTOR3f v = Position(matrix, vertex, k);
      fold(v.x, v.y, v.z);
    }
    if (!clean) return false;
    for (int c = 0; c < 3; ++c) {
      if (mn[c] == 0.0f) mn[c] = FirstZero(matrix, vertex, count, c);
      if (mx[c] == 0.0f) mx[c] = FirstZero(matrix, vertex, count, c);
      min[c] = mn[c];
      max[c] = mx[c];
      center[c] = (mn[c] + mx[c]) / 2.0f;
    }
    return true;
  }
};

// Running mean: c = v / (1 + k) + c * (k / (1 + k)). The four quotients of a vertex are one
// vector division: each lane is the correctly rounded quotient, as four scalar divisions give.
// Each step waits for the one before, so positions are transformed four at a time and handed to
// `onBlock(block, k)` while the mean goes one vertex after the other.
template <class OnBlock>
PODVECTOR3f Mean(const PODMATRIXf* matrix, const CPODData* vertex, int count, const OnBlock& onBlock) {
  typedef float Lanes __attribute__((vector_size(16)));
  Lanes mean = {0.0f, 0.0f, 0.0f, 0.0f};
  auto add = [&mean](float x, float y, float z, int k) {
    const float t = static_cast<float>(k);
    const float w = 1.0f + t;
    const Lanes q = Lanes{x, y, z, t} / Lanes{w, w, w, w};
    const float share = q[3];
    mean = q + mean * Lanes{share, share, share, share};
  };
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    const Block b = Positions4(matrix, vertex, k);
    onBlock(b, k);
    for (int i = 0; i < 4; ++i) add(b.x[i], b.y[i], b.z[i], k + i);
  }
  for (; k < count; ++k) {
    const PODVECTOR3f v = Position(matrix, vertex, k);
    add(v.x, v.y, v.z, k);
  }
  return {mean[0], mean[1], mean[2]};
}

// The largest squared distance from c: d2 is never -0, so the largest value is the one result
// whichever order the lanes see the vertices in (a NaN never replaces).
float LargestSquaredDistance(const PODMATRIXf* matrix, const CPODData* vertex, int count,
                             const PODVECTOR3f& c) {
  F4 best = Splat(0.0f);
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    const Block b = Positions4(matrix, vertex, k);
    const F4 dx = b.x - Splat(c.x);
    const F4 dy = b.y - Splat(c.y);
    const F4 dz = b.z - Splat(c.z);
    const F4 d2 = dz * dz + (dx * dx + dy * dy);
    best = Select(d2 > best, d2, best);
  }
  float mx2 = 0.0f;
  for (int i = 0; i < 4; ++i) {
    if (best[i] > mx2) mx2 = best[i];
  }
  for (; k < count; ++k) {
    const PODVECTOR3f v = Position(matrix, vertex, k);
    const float dx = v.x - c.x;
    const float dy = v.y - c.y;
    const float dz = v.z - c.z;
    const float d2 = dz * dz + (dx * dx + dy * dy);
    if (d2 > mx2) mx2 = d2;
  }
  return mx2;
}

// The sphere from its centre; the radius pass and the checks after it.
void FinishSphere(const PODMATRIXf* matrix, const CPODData* vertex, int count,
                  const PODVECTOR3f& c, float* center, float* radius) {
  const float mx2 = LargestSquaredDistance(matrix, vertex, count, c);
  if (!(mx2 >= 0.0000f))
    korvex::AssertionFailed("mx2 >= 0.0000f", "CreateBoundingSphere", kSource, __LINE__);
  center[0] = c.x;
  center[1] = c.y;
  center[2] = c.z;
  *radius = std::sqrt(mx2);
}

}  // namespace

bool CreateBoundingSphere(PODMATRIXf* matrix, CPODData* vertex, int count, float* center,
                          float* radius) {
  AssertPositions(vertex, "CreateBoundingSphere");
  // A negative count can only come from a wrapped vertex count; treat it like an empty mesh.
  if (count <= 0) return false;
  FinishSphere(matrix, vertex, count, Mean(matrix, vertex, count, [](const Block&, int) {}), center,
               radius);
  return true;
}

bool CreateBoundingAABB(PODMATRIXf* matrix, CPODData* vertex, int count, float* center, float* min,
                        float* max) {
  AssertPositions(vertex, "CreateBoundingAABB");
  if (count <= 0) return false;

  // Four at a time when no position is NaN.
  if (count >= 4) {
    BoxLanes box(Positions4(matrix, vertex, 0));
    int k = 4;
    for (; k + 4 <= count; k += 4) box.add(Positions4(matrix, vertex, k));
    if (box.finish(matrix, vertex, count, k, center, min, max)) return true;
  }

  // One at a time, checked after every vertex: a NaN fails here, at the check that names it.
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

namespace {

// Both volumes through `matrix` in one pass fewer, for at least four positions; `check` sees every
// group of four positions as the mean passes. False when a position is NaN, through the check's
// matrix (told first, before the sphere) or through `matrix` (the box is then not written): a
// check of the box fails on it, which only the one-at-a-time box can tell where.
template <class Check>
bool BothVolumes(const PODMATRIXf* matrix, const CPODData* vertex, int count, Check& check,
                 float* sphereCenter, float* sphereRadius, float* boxCenter, float* boxMin,
                 float* boxMax) {
  BoxLanes box(Positions4(matrix, vertex, 0));
  const PODVECTOR3f c = Mean(matrix, vertex, count, [&](const Block& b, int k) {
    box.add(b);
    check.add(k);
  });
  if (!check.clean(count)) return false;
  FinishSphere(matrix, vertex, count, c, sphereCenter, sphereRadius);
  return box.finish(matrix, vertex, count, count / 4 * 4, boxCenter, boxMin, boxMax);
}

struct NoCheck {
  void add(int) {}
  bool clean(int) const { return true; }
};

// The box through the world matrix, never kept: it fails on a NaN position, and only then.
struct WorldBoxCheck {
  const PODMATRIXf* world;
  const CPODData* vertex;
  I4 nan = {0, 0, 0, 0};

  void add(int k) {
    const Block w = Positions4(world, vertex, k);
    nan |= (w.x != w.x) | (w.y != w.y) | (w.z != w.z);
  }
  bool clean(int count) const {
    bool clean = (nan[0] | nan[1] | nan[2] | nan[3]) == 0;
    for (int k = count / 4 * 4; k < count && clean; ++k) {
      const PODVECTOR3f v = Position(world, vertex, k);
      clean = v.x == v.x && v.y == v.y && v.z == v.z;
    }
    return clean;
  }
};

// The world box's checks, which fail on the first NaN position through `world`.
void CheckWorldBox(PODMATRIXf* world, CPODData* vertex, int count) {
  float unused[9];
  CreateBoundingAABB(world, vertex, count, unused, unused + 3, unused + 6);
}

}  // namespace

BoundingVolumeResult CreateBoundingVolumes(PODMATRIXf* matrix, CPODData* vertex, int count,
                                           float* sphereCenter, float* sphereRadius,
                                           float* boxCenter, float* boxMin, float* boxMax) {
  AssertPositions(vertex, "CreateBoundingSphere");
  // The box's own checks are the sphere's: they hold here.
  if (count <= 0) return {false, false};
  NoCheck none;
  if (count < 4) {
    CreateBoundingSphere(matrix, vertex, count, sphereCenter, sphereRadius);
    return {true, CreateBoundingAABB(matrix, vertex, count, boxCenter, boxMin, boxMax)};
  }
  // A NaN somewhere: the box's own loop fails at the check that names it.
  if (!BothVolumes(matrix, vertex, count, none, sphereCenter, sphereRadius, boxCenter, boxMin,
                   boxMax))
    CreateBoundingAABB(matrix, vertex, count, boxCenter, boxMin, boxMax);
  return {true, true};
}

// The world sphere's only possible failures are the position checks (its largest squared distance
// starts at 0 and a NaN never replaces it), so only the world box is checked.
BoundingVolumeResult CreateObjectSpaceVolumes(PODMATRIXf* world, CPODData* vertex, int count,
                                              float* sphereCenter, float* sphereRadius,
                                              float* boxCenter, float* boxMin, float* boxMax) {
  AssertPositions(vertex, "CreateBoundingSphere");
  if (count <= 0) return {false, false};
  PODMATRIXf identity;
  PODMatrixIdentityF(identity);
  WorldBoxCheck check{world, vertex};
  if (count < 4) {
    if (!check.clean(count)) CheckWorldBox(world, vertex, count);
    return CreateBoundingVolumes(&identity, vertex, count, sphereCenter, sphereRadius, boxCenter,
                                 boxMin, boxMax);
  }
  if (!BothVolumes(&identity, vertex, count, check, sphereCenter, sphereRadius, boxCenter, boxMin,
                   boxMax)) {
    // A NaN: the world box fails first where it holds one, else the kept box.
    CheckWorldBox(world, vertex, count);
    CreateBoundingAABB(&identity, vertex, count, boxCenter, boxMin, boxMax);
  }
  return {true, true};
}

bool TryBoundingVolumes(bool objectSpace, const PODMATRIXf& matrix, const CPODData& vertex,
                        int count, BoundingVolumeValues& v) {
  if (vertex.eType != EPODDataFloat || vertex.n != 3 || vertex.nStride != 12 || count < 4 ||
      vertex.pData == nullptr || vertex.nDataSize / 12 < static_cast<size_t>(count))
    return false;
  PODMATRIXf identity;
  PODMatrixIdentityF(identity);
  NoCheck none;
  WorldBoxCheck world{&matrix, &vertex};
  return objectSpace ? BothVolumes(&identity, &vertex, count, world, v.sphereCenter,
                                   &v.sphereRadius, v.boxCenter, v.boxMin, v.boxMax)
                     : BothVolumes(&matrix, &vertex, count, none, v.sphereCenter, &v.sphereRadius,
                                   v.boxCenter, v.boxMin, v.boxMax);
}

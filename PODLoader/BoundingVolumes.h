#pragma once
// Bounding sphere and axis-aligned box of a position stream, optionally transformed by a
// matrix. The float operations run in a fixed order because their results are stored in the
// output file and compared bit for bit.
//
// Positions must be 3 floats at a stride of 12 bytes; anything else is a broken invariant and
// ends the run by assertion. `vertex->pData` must hold `count` positions (the caller checks).

#include "pod/PODModel.h"

// center: 3 floats, radius: 1 float. False (nothing written) when count is not positive.
bool CreateBoundingSphere(PODMATRIXf* matrix, CPODData* vertex, int count, float* center,
                          float* radius);

// center, min, max: 3 floats each. False (nothing written) when count is not positive.
bool CreateBoundingAABB(PODMATRIXf* matrix, CPODData* vertex, int count, float* center, float* min,
                        float* max);

// Both volumes of one stream through one matrix, exactly as CreateBoundingSphere followed by
// CreateBoundingAABB give them (the same checks, floats and results: `sphere` and `box` are
// their returns), in one pass fewer over the positions.
struct BoundingVolumeResult {
  bool sphere;
  bool box;
};
BoundingVolumeResult CreateBoundingVolumes(PODMATRIXf* matrix, CPODData* vertex, int count,
                                           float* sphereCenter, float* sphereRadius,
                                           float* boxCenter, float* boxMin, float* boxMax);

// The volumes of a mesh its per-frame matrices place: kept in object space (through the
// identity), while the ones through its `world` matrix are only checked, never written. The same
// checks, in the same order, floats and results as CreateBoundingVolumes through `world` followed
// by CreateBoundingVolumes through the identity, in one pass over the positions.
BoundingVolumeResult CreateObjectSpaceVolumes(PODMATRIXf* world, CPODData* vertex, int count,
                                              float* sphereCenter, float* sphereRadius,
                                              float* boxCenter, float* boxMin, float* boxMax);

// What CreateBoundingVolumes through `matrix` (or, with `objectSpace`, CreateObjectSpaceVolumes
// with `matrix` as the world) gives, when it gives it without failing a check: four positions or
// more, none of them NaN through either matrix. False otherwise, and nothing is told: only the
// function itself, run in its turn, fails where it must. It never ends the run and reads no more
// than the stream holds, so any thread may call it.
struct BoundingVolumeValues {
  float sphereCenter[3];
  float sphereRadius;
  float boxCenter[3];
  float boxMin[3];
  float boxMax[3];
};
bool TryBoundingVolumes(bool objectSpace, const PODMATRIXf& matrix, const CPODData& vertex,
                        int count, BoundingVolumeValues& values);

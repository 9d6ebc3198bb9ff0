#pragma once
// Transforms of the import library in the POD conventions.
//
// The library multiplies column vectors (p' = M p, translation in the fourth column, a node's
// local matrix is T * R * S); POD multiplies row vectors (p' = p M, translation in elements 12 to
// 14, a node's world matrix is S * R * T * parent). A POD matrix is therefore the transpose of the
// library's, and a POD rotation key is the conjugate of the library's quaternion:
// PODMatrixRotationQuaternionF(x, y, z, w) lays out the library's rotation matrix of (x, y, z, w)
// row by row, which turns row vectors the other way.

#include <assimp/types.h>

#include "pod/PODMatrix.h"

namespace korvex::podimport {

// A node's local transform, split as the library's animation keys are.
struct LocalTransform {
  aiVector3D position{0, 0, 0};
  aiQuaternion rotation{1, 0, 0, 0};  // w, x, y, z
  aiVector3D scale{1, 1, 1};
};

// The POD rotation key of a rotation: the conjugate of the unit quaternion (the identity for a
// quaternion of zero or non-finite length).
PODQUATERNIONf PODRotationKey(const aiQuaternion& rotation);

PODMATRIXf PODMatrixFromSource(const aiMatrix4x4& m);

// Position, rotation and scale of a matrix; a matrix with shear loses it, one with non-finite
// elements gives the identity.
LocalTransform DecomposeTransform(const aiMatrix4x4& m);
// T * R * S.
aiMatrix4x4 ComposeTransform(const LocalTransform& t);

// Element by element within `tolerance` times (1 + the largest element of `b`).
bool TransformsClose(const aiMatrix4x4& a, const aiMatrix4x4& b, float tolerance);

bool IsFinite(const aiMatrix4x4& m);

}  // namespace korvex::podimport

#pragma once
// Bounded reads of the animation keys of a node's channels and a camera's field of view, for every
// evaluation of a node and for the checks made before baking. Keys are counted from the bytes a channel really holds, never
// from the frame count: a key asked for past the last one reads the last one. That is what the
// interpolating rules need at the last frame (key n+1 with weight 0) and for a single-key channel
// read at frame f. Rotation is the exception: see RotationBetweenKeys.

#include <cstddef>
#include <cstdint>

#include "pod/PODModel.h"

namespace korvex {

// Floats per key of each channel.
enum : size_t {
  kPositionKeyFloats = 3,
  kRotationKeyFloats = 4,
  kScaleKeyFloats = 7,  // x, y, z scale, then four floats no evaluation reads
  kMatrixKeyFloats = 16,
};

inline size_t PositionKeyCount(const SPODNode& node) {
  return node.pfAnimPosition ? node.nAnimPositionSize / (kPositionKeyFloats * 4) : 0;
}
inline size_t RotationKeyCount(const SPODNode& node) {
  return node.pfAnimRotation ? node.nAnimRotationSize / (kRotationKeyFloats * 4) : 0;
}
// A scale key is read only in its first three floats, so the last key counts once those exist.
inline size_t ScaleKeyCount(const SPODNode& node) {
  const size_t floats = node.pfAnimScale ? node.nAnimScaleSize / 4 : 0;
  return floats >= 3 ? (floats - 3) / kScaleKeyFloats + 1 : 0;
}
inline size_t MatrixKeyCount(const SPODNode& node) {
  return node.pfAnimMatrix ? node.nAnimMatrixSize / (kMatrixKeyFloats * 4) : 0;
}
inline size_t FOVKeyCount(const SPODCamera& camera) {
  return camera.pfAnimFOV ? camera.nAnimFOVSize / 4 : 0;
}

// Key k of a channel of `count` keys (count > 0), clamped into the keys that exist.
inline size_t ClampKey(int64_t k, size_t count) {
  if (k <= 0) return 0;
  return static_cast<uint64_t>(k) >= count ? count - 1 : static_cast<size_t>(k);
}

// The readers below require the channel's key count to be non-zero.
inline PODVECTOR3f PositionKey(const SPODNode& node, int64_t k) {
  const float* p = node.pfAnimPosition + kPositionKeyFloats * ClampKey(k, PositionKeyCount(node));
  return PODVECTOR3f{p[0], p[1], p[2]};
}
inline PODVECTOR3f ScaleKey(const SPODNode& node, int64_t k) {
  const float* p = node.pfAnimScale + kScaleKeyFloats * ClampKey(k, ScaleKeyCount(node));
  return PODVECTOR3f{p[0], p[1], p[2]};
}
inline PODQUATERNIONf RotationKey(const SPODNode& node, int64_t k) {
  const float* p = node.pfAnimRotation + kRotationKeyFloats * ClampKey(k, RotationKeyCount(node));
  return PODQUATERNIONf{p[0], p[1], p[2], p[3]};
}

// The rotation between key n and key n + 1 of a rotation channel at weight t, as every flagged
// rotation is evaluated (the key count must be non-zero). With both keys present it is their
// slerp. Without key n + 1 (at the last frame) it is key n normalised, or the identity for a
// weight outside 0..1 as the slerp itself would give.
inline PODQUATERNIONf RotationBetweenKeys(const SPODNode& node, int64_t n, float t) {
  if (n < static_cast<int64_t>(RotationKeyCount(node)) - 1) {
    PODQUATERNIONf q;
    PODMatrixQuaternionSlerpF(q, RotationKey(node, n), RotationKey(node, n + 1), t);
    return q;
  }
  // Key n + 1 is past the array; pairing key n with itself would return it unnormalised.
  if (t < 0.0f || t > 1.0f) return PODQUATERNIONf{0.0f, 0.0f, 0.0f, 1.0f};
  PODQUATERNIONf q = RotationKey(node, n);
  PODMatrixQuaternionNormalizeF(q);
  return q;
}

inline float FOVKey(const SPODCamera& camera, int64_t k) {
  return camera.pfAnimFOV[ClampKey(k, FOVKeyCount(camera))];
}

inline PODMATRIXf MatrixKey(const SPODNode& node, int64_t k) {
  const float* p = node.pfAnimMatrix + kMatrixKeyFloats * ClampKey(k, MatrixKeyCount(node));
  PODMATRIXf m;
  for (size_t i = 0; i < kMatrixKeyFloats; ++i) m.f[i] = p[i];
  return m;
}

}  // namespace korvex

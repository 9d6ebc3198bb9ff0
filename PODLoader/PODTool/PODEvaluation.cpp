// Evaluation of a POD scene at a point in time: frame selection, the three transform channels
// of a node, world matrices with their per-node caches, bone matrices, cameras and lights.
//
// Channel rules (the reference for the converters, which keep rule sets of their own):
//   array absent           -> the node's static value
//   animation flag set     -> blend of key nFrameIndex and key nFrameIndex + 1 by fFrameBlend
//                             (a rotation with no key nFrameIndex + 1 is key nFrameIndex
//                             normalised)
//   flag clear             -> key 0 for position and scale, but the static pfRotation for
//                             rotation (this asymmetry is intended)
//
// Safety beyond that contract (the scene may come from a hostile file): every key index is
// clamped into the keys the array really holds (its byte size, not nNumFrame, decides), an array
// too short for one whole key counts as absent, parent chains stop at an index outside the node
// array and after nNumNode steps, and node, camera and light indices outside their arrays leave
// the outputs untouched.

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "pod/ChannelKeys.h"
#include "pod/PODModel.h"

namespace {

// Nodes that can be evaluated: a count without its array means none.
uint32_t NodeCount(const SPODScene& scene) { return scene.pNode ? scene.nNumNode : 0; }

// Index of a node record inside the scene's node array, -1 when it is not one of its records.
int64_t NodeIndex(const SPODScene& scene, const SPODNode& node) {
  const uint32_t count = NodeCount(scene);
  if (count == 0) return -1;
  std::less<const SPODNode*> before;
  if (before(&node, scene.pNode) || !before(&node, scene.pNode + count)) return -1;
  return &node - scene.pNode;
}

// The parent of a node, or null for a root and for a parent index outside the node array.
const SPODNode* Parent(const SPODScene& scene, const SPODNode& node) {
  if (node.nIdxParent < 0 || static_cast<uint32_t>(node.nIdxParent) >= NodeCount(scene))
    return nullptr;
  return &scene.pNode[node.nIdxParent];
}

// Frame index and blend of the current frame; a scene without evaluation state sits at frame 0.
struct FrameKey {
  int64_t index;
  float blend;
};

FrameKey CurrentKey(const SPODImpl* impl) {
  if (impl == nullptr) return {0, 0.0f};
  return {impl->nFrameIndex, impl->fFrameBlend};
}

// Whole keys held by an animation array of `bytes` bytes.
size_t KeyCount(const float* keys, size_t bytes, size_t floatsPerKey) {
  return keys ? bytes / (floatsPerKey * sizeof(float)) : 0;
}

// First float of key n, with n clamped into the keys that exist (count > 0): before the first
// key reads key 0, past the last one reads the last. At the last frame the blend therefore
// pairs the last key with itself, and nothing beyond the array can influence the result.
const float* Key(const float* keys, size_t count, size_t floatsPerKey, int64_t n) {
  size_t k = 0;
  if (n > 0) k = static_cast<uint64_t>(n) >= count ? count - 1 : static_cast<size_t>(n);
  return keys + k * floatsPerKey;
}

// Integer part of a frame, truncated toward zero; NaN and values beyond the 32-bit range
// (which the conversion would make undefined) are pinned.
int32_t TruncateFrame(float frame) {
  if (!(frame == frame)) return 0;
  if (frame >= 2147483648.0f) return INT32_MAX;
  if (frame <= -2147483648.0f) return INT32_MIN;
  return static_cast<int32_t>(frame);
}

// Vector channels (position: 3 floats a key, scale: 7 floats a key of which 3 are read).
PODVECTOR3f VectorChannel(const float* keys, size_t bytes, size_t floatsPerKey, bool animated,
                          const float* staticValue, const SPODImpl* impl) {
  const size_t count = KeyCount(keys, bytes, floatsPerKey);
  if (count == 0) return {staticValue[0], staticValue[1], staticValue[2]};
  if (animated) {
    const FrameKey fk = CurrentKey(impl);
    const float* a = Key(keys, count, floatsPerKey, fk.index);
    const float* b = Key(keys, count, floatsPerKey, fk.index + 1);
    PODVECTOR3f out;
    PODMatrixVec3LerpF(out, PODVECTOR3f{a[0], a[1], a[2]}, PODVECTOR3f{b[0], b[1], b[2]},
                       fk.blend);
    return out;
  }
  return {keys[0], keys[1], keys[2]};
}

// S * R * T of one node at the current frame, in that grouping: (S * R) * T.
void LocalMatrix(const CPODScene& scene, PODMATRIXf& out, const SPODNode& node) {
  PODMATRIXf tmp;
  scene.GetScalingMatrix(out, node);
  scene.GetRotationMatrix(tmp, node);
  PODMatrixMultiplyF(out, out, tmp);
  scene.GetTranslationMatrix(tmp, node);
  PODMatrixMultiplyF(out, out, tmp);
}

// The chain of a node and its ancestors, nearest first. A cycle cannot make it endless: it is cut
// after nNumNode parent steps (readers refuse such scenes; this guards scenes built in memory).
class AncestorChain {
 public:
  AncestorChain(const SPODScene& scene, const SPODNode& node) {
    const uint32_t limit = NodeCount(scene);
    const SPODNode* current = &node;
    push(current);
    for (uint32_t steps = 0; steps < limit; ++steps) {
      current = Parent(scene, *current);
      if (current == nullptr) break;
      push(current);
    }
  }
  size_t size() const { return m_size; }
  const SPODNode& operator[](size_t i) const {
    return *(i < kInline ? m_inline[i] : m_overflow[i - kInline]);
  }

 private:
  static constexpr size_t kInline = 32;  // deeper hierarchies are rare
  void push(const SPODNode* n) {
    if (m_size < kInline)
      m_inline[m_size] = n;
    else
      m_overflow.push_back(n);
    ++m_size;
  }
  const SPODNode* m_inline[kInline];
  std::vector<const SPODNode*> m_overflow;
  size_t m_size = 0;
};

}  // namespace

bool CPODScene::InitImpl() {
  // A state left from earlier is released rather than leaked.
  if (m_pImpl != nullptr) {
    std::free(m_pImpl->pfCachedFrame);
    std::free(m_pImpl->pmWorldCache);
    std::free(m_pImpl->pmWorldFrameZero);
    std::free(m_pImpl);
    m_pImpl = nullptr;
  }
  SPODImpl* impl = static_cast<SPODImpl*>(std::calloc(1, sizeof(SPODImpl)));
  if (impl == nullptr) return false;
  const uint32_t count = NodeCount(*this);
  if (count > 0) {
    impl->pfCachedFrame = static_cast<float*>(std::calloc(count, sizeof(float)));
    impl->pmWorldCache = static_cast<PODMATRIXf*>(std::calloc(count, sizeof(PODMATRIXf)));
    impl->pmWorldFrameZero = static_cast<PODMATRIXf*>(std::calloc(count, sizeof(PODMATRIXf)));
    // Caches that could not be had would be written to by FlushCache: fail instead.
    if (!impl->pfCachedFrame || !impl->pmWorldCache || !impl->pmWorldFrameZero) {
      std::free(impl->pfCachedFrame);
      std::free(impl->pmWorldCache);
      std::free(impl->pmWorldFrameZero);
      std::free(impl);
      return false;
    }
  }
  m_pImpl = impl;
  FlushCache();
  return true;
}

void CPODScene::FlushCache() {
  if (m_pImpl == nullptr) return;
  SetFrame(0.0f);
  const uint32_t count = NodeCount(*this);
  PODMATRIXf* world = m_pImpl->pmWorldFrameZero;
  // pfCachedFrame is borrowed as a "computed" mark per node and cleared at the end.
  float* computed = m_pImpl->pfCachedFrame;
  for (uint32_t i = 0; i < count; ++i) computed[i] = 0.0f;
  // Each world matrix reuses its parent's instead of walking to the root again, so a long
  // hierarchy costs linear rather than quadratic time. world(n) = local(n) * world(parent) is
  // exactly the product GetWorldMatrixNoCache forms, so the results are bit-identical.
  std::vector<uint32_t> path;
  for (uint32_t i = 0; i < count; ++i) {
    if (computed[i] != 0.0f) continue;
    path.clear();
    const PODMATRIXf* above = nullptr;
    bool cyclic = false;
    for (uint32_t n = i;;) {
      path.push_back(n);
      const SPODNode* parent = Parent(*this, pNode[n]);
      if (parent == nullptr) break;
      const uint32_t p = static_cast<uint32_t>(parent - pNode);
      if (computed[p] != 0.0f) {
        above = &world[p];
        break;
      }
      // More distinct ancestors than nodes: the chain loops.
      if (path.size() >= count) {
        cyclic = true;
        break;
      }
      n = p;
    }
    if (cyclic) {
      // Cut chains depend on where they start: computed on their own and never reused.
      GetWorldMatrixNoCache(world[i], pNode[i]);
      continue;
    }
    for (size_t k = path.size(); k-- > 0;) {
      const uint32_t n = path[k];
      PODMATRIXf local;
      LocalMatrix(*this, local, pNode[n]);
      if (above != nullptr)
        PODMatrixMultiplyF(world[n], local, *above);
      else
        world[n] = local;
      computed[n] = 1.0f;
      above = &world[n];
    }
  }
  if (count > 0) {
    std::memcpy(m_pImpl->pmWorldCache, world, count * sizeof(PODMATRIXf));
    for (uint32_t i = 0; i < count; ++i) computed[i] = 0.0f;
  }
}

void CPODScene::SetFrame(float fFrame) {
  if (m_pImpl == nullptr) return;
  if (nNumFrame != 0) {
    m_pImpl->nFrameIndex = TruncateFrame(fFrame);
    m_pImpl->fFrameBlend = fFrame - static_cast<float>(m_pImpl->nFrameIndex);
  } else {
    m_pImpl->fFrameBlend = 0.0f;
    m_pImpl->nFrameIndex = 0;
  }
  m_pImpl->fCurrentFrame = fFrame;
}

void CPODScene::GetTranslation(PODVECTOR3f& out, const SPODNode& node) const {
  out = VectorChannel(node.pfAnimPosition, node.nAnimPositionSize, 3,
                      (node.nAnimFlags & ePODHasPositionAni) != 0, node.pfPosition, m_pImpl);
}

void CPODScene::GetTranslationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  PODVECTOR3f v;
  GetTranslation(v, node);
  PODMatrixTranslationF(out, v.x, v.y, v.z);
}

void CPODScene::GetScalingMatrix(PODMATRIXf& out, const SPODNode& node) const {
  const PODVECTOR3f s = VectorChannel(node.pfAnimScale, node.nAnimScaleSize, 7,
                                      (node.nAnimFlags & ePODHasScaleAni) != 0, node.pfScale,
                                      m_pImpl);
  PODMatrixScalingF(out, s.x, s.y, s.z);
}

void CPODScene::GetRotationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  PODQUATERNIONf q{node.pfRotation[0], node.pfRotation[1], node.pfRotation[2],
                   node.pfRotation[3]};
  // Unlike position and scale, an unflagged rotation array is ignored in favour of the static
  // rotation, not read at key 0.
  if (korvex::RotationKeyCount(node) > 0 && (node.nAnimFlags & ePODHasRotationAni) != 0) {
    const FrameKey fk = CurrentKey(m_pImpl);
    q = korvex::RotationBetweenKeys(node, fk.index, fk.blend);
  }
  PODMatrixRotationQuaternionF(out, q);
}

void CPODScene::GetWorldMatrixNoCache(PODMATRIXf& out, const SPODNode& node) const {
  // world(n) = S * R * T * world(parent), multiplied in exactly the grouping of the recursive
  // definition: local(n) * (local(parent) * (local(grandparent) * ...)). Built from the root
  // down so that deep hierarchies need no recursion.
  const AncestorChain chain(*this, node);
  PODMATRIXf world;
  PODMATRIXf local;
  for (size_t k = chain.size(); k-- > 0;) {
    LocalMatrix(*this, local, chain[k]);
    if (k + 1 == chain.size())
      world = local;
    else
      PODMatrixMultiplyF(world, local, world);
  }
  out = world;
}

void CPODScene::GetWorldMatrix(PODMATRIXf& out, const SPODNode& node) const {
  const int64_t i = NodeIndex(*this, node);
  // Without state, or for a record outside the node array, there is no cache slot to use.
  if (m_pImpl == nullptr || i < 0) {
    GetWorldMatrixNoCache(out, node);
    return;
  }
  // Frame 0 comes from its own cache; the zeros FlushCache leaves in pfCachedFrame never count.
  if (m_pImpl->fCurrentFrame == 0.0f) {
    out = m_pImpl->pmWorldFrameZero[i];
    return;
  }
  if (m_pImpl->fCurrentFrame == m_pImpl->pfCachedFrame[i]) {
    out = m_pImpl->pmWorldCache[i];
    return;
  }
  GetWorldMatrixNoCache(out, node);
  m_pImpl->pfCachedFrame[i] = m_pImpl->fCurrentFrame;
  m_pImpl->pmWorldCache[i] = out;
}

void CPODScene::GetBoneWorldMatrix(PODMATRIXf& out, const SPODNode& meshNode,
                                   const SPODNode& boneNode) {
  // meshWorld(0) * inverse(boneWorld(0)) * boneWorld(frame): from the mesh's bind pose into the
  // bone's animated pose.
  const float frame = m_pImpl ? m_pImpl->fCurrentFrame : 0.0f;
  SetFrame(0.0f);
  PODMATRIXf result;
  PODMATRIXf tmp;
  GetWorldMatrix(result, meshNode);
  GetWorldMatrix(tmp, boneNode);
  PODMatrixInverseF(tmp, tmp);
  PODMatrixMultiplyF(result, result, tmp);
  SetFrame(frame);
  GetWorldMatrix(tmp, boneNode);
  PODMatrixMultiplyF(out, result, tmp);
}

namespace {

const SPODCamera* CameraRecord(const SPODScene& scene, unsigned int camera) {
  return (scene.pCamera != nullptr && camera < scene.nNumCamera) ? &scene.pCamera[camera] : nullptr;
}

// Camera k is placed by node nNumMeshNode + nNumLight + k, light k by node nNumMeshNode + k.
const SPODNode* PlacingNode(const SPODScene& scene, uint64_t index) {
  return index < NodeCount(scene) ? &scene.pNode[index] : nullptr;
}

const SPODNode* CameraNode(const SPODScene& scene, unsigned int camera) {
  if (CameraRecord(scene, camera) == nullptr) return nullptr;
  return PlacingNode(scene, uint64_t(scene.nNumMeshNode) + scene.nNumLight + camera);
}

const SPODNode* LightNode(const SPODScene& scene, unsigned int light) {
  if (scene.pLight == nullptr || light >= scene.nNumLight) return nullptr;
  return PlacingNode(scene, uint64_t(scene.nNumMeshNode) + light);
}

// Field of view at the current frame; 0 for a camera index outside the camera array.
float CameraFOV(const SPODScene& scene, const SPODImpl* impl, unsigned int camera) {
  const SPODCamera* cam = CameraRecord(scene, camera);
  if (cam == nullptr) return 0.0f;
  const size_t count = KeyCount(cam->pfAnimFOV, cam->nAnimFOVSize, 1);
  if (count == 0) return cam->fFOV;
  const FrameKey fk = CurrentKey(impl);
  const float a = *Key(cam->pfAnimFOV, count, 1, fk.index);
  const float b = *Key(cam->pfAnimFOV, count, 1, fk.index + 1);
  return a + (b - a) * fk.blend;
}

}  // namespace

float CPODScene::GetCamera(PODVECTOR3f& from, PODVECTOR3f& to, PODVECTOR3f& up,
                           unsigned int camera) const {
  (void)up;  // left untouched on purpose
  if (const SPODNode* node = CameraNode(*this, camera)) {
    PODMATRIXf m;
    GetWorldMatrix(m, *node);
    from = PODVECTOR3f{m.f[12], m.f[13], m.f[14]};
    to = PODVECTOR3f{from.x - m.f[4], from.y - m.f[5], from.z - m.f[6]};
  }
  return CameraFOV(*this, m_pImpl, camera);
}

float CPODScene::GetCameraPos(PODVECTOR3f& from, PODVECTOR3f& to, unsigned int camera) const {
  if (const SPODNode* node = CameraNode(*this, camera)) {
    PODMATRIXf m;
    GetWorldMatrix(m, *node);
    from = PODVECTOR3f{m.f[12], m.f[13], m.f[14]};
    const int32_t target = pCamera[camera].nIdxTarget;
    if (target >= 0 && static_cast<uint32_t>(target) < NodeCount(*this)) {
      GetWorldMatrix(m, pNode[target]);
      to = PODVECTOR3f{m.f[12], m.f[13], m.f[14]};
    }
  }
  return CameraFOV(*this, m_pImpl, camera);
}

void CPODScene::GetLight(PODVECTOR3f& position, PODVECTOR3f& direction, unsigned int light) const {
  const SPODNode* node = LightNode(*this, light);
  if (node == nullptr) return;
  PODMATRIXf m;
  GetWorldMatrix(m, *node);
  position = PODVECTOR3f{m.f[12], m.f[13], m.f[14]};
  // Lights shine down their node's Y axis.
  direction = PODVECTOR3f{-m.f[4], -m.f[5], -m.f[6]};
}

PODVECTOR4f CPODScene::GetLightPosition(unsigned int light) const {
  PODVECTOR3f position{0.0f, 0.0f, 0.0f};
  PODVECTOR3f direction{0.0f, 0.0f, 0.0f};
  GetLight(position, direction, light);
  return PODVECTOR4f{position.x, position.y, position.z, 1.0f};
}

PODVECTOR4f CPODScene::GetLightDirection(unsigned int light) const {
  PODVECTOR3f position{0.0f, 0.0f, 0.0f};
  PODVECTOR3f direction{0.0f, 0.0f, 0.0f};
  GetLight(position, direction, light);
  return PODVECTOR4f{direction.x, direction.y, direction.z, 1.0f};
}

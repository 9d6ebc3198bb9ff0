// Evaluation of a POD scene at a point in time: frame selection, world matrices with their
// per-node caches, bone matrices, cameras and lights. The channels follow the scene's own rules
// (korvex::kSceneRules, the reference the bakers' rule sets depart from):
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

#include "pod/ChannelKeys.h"
#include "pod/NodeEvaluator.h"
#include "pod/PODModel.h"

using korvex::kSceneRules;

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

// Where the current frame reads the keys; a scene without evaluation state sits at frame 0.
korvex::KeyPoint CurrentKey(const SPODImpl* impl) {
  if (impl == nullptr) return {0, 0.0f, 0};
  return {impl->nFrameIndex, impl->fFrameBlend, 0};
}

// Integer part of a frame, truncated toward zero; NaN and values beyond the 32-bit range
// (which the conversion would make undefined) are pinned.
int32_t TruncateFrame(float frame) {
  if (!(frame == frame)) return 0;
  if (frame >= 2147483648.0f) return INT32_MAX;
  if (frame <= -2147483648.0f) return INT32_MIN;
  return static_cast<int32_t>(frame);
}

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
  if (count == 0) return;
  // Each world matrix reuses its parent's instead of walking to the root again, so a long
  // hierarchy costs linear rather than quadratic time, with the very products of the walk.
  korvex::WorldTable table;
  table.reset(count);
  const korvex::KeyPoint at = CurrentKey(m_pImpl);
  for (uint32_t i = 0; i < count; ++i) {
    m_pImpl->pmWorldFrameZero[i] = table.world(*this, i, kSceneRules, at);
  }
  std::memcpy(m_pImpl->pmWorldCache, m_pImpl->pmWorldFrameZero, count * sizeof(PODMATRIXf));
  for (uint32_t i = 0; i < count; ++i) m_pImpl->pfCachedFrame[i] = 0.0f;
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
  out = korvex::NodePosition(node, kSceneRules, CurrentKey(m_pImpl));
}

void CPODScene::GetTranslationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  PODVECTOR3f v;
  GetTranslation(v, node);
  PODMatrixTranslationF(out, v.x, v.y, v.z);
}

void CPODScene::GetScalingMatrix(PODMATRIXf& out, const SPODNode& node) const {
  const PODVECTOR3f s = korvex::NodeScale(node, kSceneRules, CurrentKey(m_pImpl));
  PODMatrixScalingF(out, s.x, s.y, s.z);
}

void CPODScene::GetRotationMatrix(PODMATRIXf& out, const SPODNode& node) const {
  korvex::NodeRotationMatrix(out, node, kSceneRules, CurrentKey(m_pImpl));
}

void CPODScene::GetWorldMatrixNoCache(PODMATRIXf& out, const SPODNode& node) const {
  korvex::NodeWorldMatrix(out, *this, node, kSceneRules, CurrentKey(m_pImpl));
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
  // meshWorld(0) x inverse(boneWorld(0)) x boneWorld(frame).
  const float frame = m_pImpl ? m_pImpl->fCurrentFrame : 0.0f;
  SetFrame(0.0f);
  PODMATRIXf bindPose, boneWorld, bindTerm;
  GetWorldMatrix(bindPose, meshNode);
  GetWorldMatrix(boneWorld, boneNode);
  korvex::BoneBindTerm(bindTerm, bindPose, boneWorld);
  SetFrame(frame);
  GetWorldMatrix(boneWorld, boneNode);
  korvex::BoneMatrix(out, bindTerm, boneWorld);
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
  if (korvex::FOVKeyCount(*cam) == 0) return cam->fFOV;
  const korvex::KeyPoint at = CurrentKey(impl);
  const float a = korvex::FOVKey(*cam, at.index);
  const float b = korvex::FOVKey(*cam, at.index + 1);
  return a + (b - a) * at.blend;
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

#include "convert/SceneRules.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "pod/PODModel.h"

namespace korvex {

namespace {

// The name starts with `keyword` (a shorter name never does).
bool StartsWith(const char* name, const char* keyword) {
  return std::strncmp(name, keyword, std::strlen(keyword)) == 0;
}

}  // namespace

NodeKind MeshNodeKind(const char* name, bool sceneHasFrames, bool skinned) {
  if (name == nullptr) name = "";
  if (StartsWith(name, "BILLBOARD")) return NodeKind::kBillboard;
  if (StartsWith(name, "MARKER")) return NodeKind::kMarker;
  if (StartsWith(name, "SKYBOX")) return NodeKind::kSkyBox;
  if (StartsWith(name, "COLLISIONBOX") || StartsWith(name, "PITBOX") ||
      StartsWith(name, "F1COLLISIONBOX"))
    return NodeKind::kCollisionBox;
  if (StartsWith(name, "COLLISIONSPHERE")) return NodeKind::kCollisionSphere;
  if (StartsWith(name, "LIGHTMAP"))
    return std::strlen(name) == kLightMapNameLength ? NodeKind::kLightMapDefinition
                                                    : NodeKind::kLightMappedMesh;
  if (!sceneHasFrames) return NodeKind::kMesh;
  // In a scene with frames every other mesh is baked, whether it moves or not.
  return skinned ? NodeKind::kSkeletalMesh : NodeKind::kAnimationMesh;
}

bool IsMeshNodeKind(NodeKind kind) {
  return kind != NodeKind::kNotConverted && kind != NodeKind::kLight &&
         kind != NodeKind::kCamera && kind != NodeKind::kAnimationCamera;
}

bool IsMeshRecordKind(NodeKind kind) {
  return IsMeshNodeKind(kind) && kind != NodeKind::kLightMapDefinition &&
         kind != NodeKind::kMarker;
}

bool IsBaked(NodeKind kind) {
  return kind == NodeKind::kSkeletalMesh || kind == NodeKind::kAnimationMesh ||
         kind == NodeKind::kAnimationCamera;
}

bool UsesMaterial(NodeKind kind) {
  return kind == NodeKind::kLightMapDefinition || IsMeshRecordKind(kind);
}

std::string LightMapName(const char* name) {
  if (name == nullptr) return std::string();
  return std::string(name, strnlen(name, kLightMapNameLength));
}

SceneRules::SceneRules(const CPODScene& scene) {
  classify(scene);
  linkLightMaps(scene);
  countHeaders(scene);
  followParents(scene);
}

int64_t SceneRules::lightMapOf(uint32_t node) const {
  return m_kind[node] == NodeKind::kLightMappedMesh ? m_lightMap[node] : -1;
}

int64_t SceneRules::earlierDefinition(uint32_t node) const {
  return m_kind[node] == NodeKind::kLightMapDefinition ? m_lightMap[node] : -1;
}

void SceneRules::classify(const CPODScene& scene) {
  const uint32_t count = scene.pNode != nullptr ? scene.nNumNode : 0;
  m_kind.assign(count, NodeKind::kNotConverted);
  // Mesh nodes first, then lights, then cameras; counts beyond the node array change nothing.
  const uint64_t meshEnd = scene.nNumMeshNode;
  const uint64_t lightEnd = meshEnd + scene.nNumLight;
  const uint64_t cameraEnd = lightEnd + scene.nNumCamera;
  const bool frames = scene.nNumFrame != 0;
  for (uint32_t i = 0; i < count; ++i) {
    const SPODNode& node = scene.pNode[i];
    if (i < meshEnd) {
      // Bone batches of a mesh that does not exist count as none.
      const bool skinned = node.nIdx >= 0 && static_cast<uint32_t>(node.nIdx) < scene.nNumMesh &&
                           scene.pMesh != nullptr &&
                           scene.pMesh[node.nIdx].sBoneBatches.nBatchCnt > 0;
      m_kind[i] = MeshNodeKind(node.pszName, frames, skinned);
    } else if (i < lightEnd) {
      m_kind[i] = NodeKind::kLight;
    } else if (i < cameraEnd) {
      m_kind[i] = frames ? NodeKind::kAnimationCamera : NodeKind::kCamera;
    }
  }
}

void SceneRules::linkLightMaps(const CPODScene& scene) {
  m_lightMap.assign(m_kind.size(), -1);
  std::map<std::string, uint32_t> latest;  // light-map name -> its last definition so far
  for (uint32_t i = 0; i < m_kind.size(); ++i) {
    if (m_kind[i] == NodeKind::kLightMapDefinition) {
      m_definitions.push_back(i);
      auto inserted = latest.emplace(scene.pNode[i].pszName, i);
      if (!inserted.second) {
        m_lightMap[i] = inserted.first->second;
        inserted.first->second = i;
      }
    } else if (m_kind[i] == NodeKind::kLightMappedMesh) {
      m_lightMapped.push_back(i);
    }
  }
  m_lightMapNames = latest.size();
  // Meshes are linked once every definition is known: one may follow the meshes that use it.
  for (uint32_t i : m_lightMapped) {
    const auto found = latest.find(LightMapName(scene.pNode[i].pszName));
    if (found != latest.end())
      m_lightMap[i] = found->second;
    else
      ++m_unlinked;
  }
}

void SceneRules::countHeaders(const CPODScene& scene) {
  m_announced = scene.nNumMeshNode + scene.nNumCamera + scene.nNumLight + scene.nNumMaterial -
                static_cast<uint32_t>(m_lightMapNames);

  std::vector<int32_t> materials;
  m_made = 0;
  for (uint32_t i = 0; i < m_kind.size(); ++i) {
    const NodeKind kind = m_kind[i];
    if (kind != NodeKind::kNotConverted && kind != NodeKind::kLightMapDefinition) ++m_made;
    // A definition takes its material whatever the index (-1 ends the conversion first).
    const int32_t material = scene.pNode[i].nIdxMaterial;
    if (UsesMaterial(kind) && (material >= 0 || kind == NodeKind::kLightMapDefinition))
      materials.push_back(material);
  }
  std::sort(materials.begin(), materials.end());
  m_made += static_cast<uint64_t>(std::unique(materials.begin(), materials.end()) -
                                  materials.begin());
}

void SceneRules::followParents(const CPODScene& scene) {
  const uint32_t count = nodeCount();
  for (uint32_t i = 0; i < count && m_parentOutOfRange < 0; ++i) {
    const int32_t parent = scene.pNode[i].nIdxParent;
    if (parent >= 0 && static_cast<uint32_t>(parent) >= count) m_parentOutOfRange = i;
  }

  // Each node is walked over once: a walk stops at the first node whose depth is known.
  const uint32_t kUnknown = 0, kOnWalk = UINT32_MAX, kBroken = UINT32_MAX - 1;
  m_depth.assign(count, kUnknown);
  std::vector<uint32_t> walk;
  for (uint32_t start = 0; start < count; ++start) {
    if (m_depth[start] != kUnknown) continue;
    walk.clear();
    uint32_t i = start;
    uint32_t known = 0;  // depth of the node the walk stopped above
    bool broken = false;
    for (;;) {
      if (m_depth[i] == kOnWalk || m_depth[i] == kBroken) {
        // A chain that meets an earlier broken one is broken too, but that chain was reported.
        if (m_depth[i] == kOnWalk && m_broken.node < 0) m_broken = BrokenChain{i, true};
        broken = true;
        break;
      }
      if (m_depth[i] != kUnknown) {
        known = m_depth[i];
        break;
      }
      m_depth[i] = kOnWalk;
      walk.push_back(i);
      const int32_t parent = scene.pNode[i].nIdxParent;
      if (parent < 0) break;
      if (static_cast<uint32_t>(parent) >= count) {
        if (m_broken.node < 0) m_broken = BrokenChain{i, false};
        broken = true;
        break;
      }
      i = static_cast<uint32_t>(parent);
    }
    for (size_t w = walk.size(); w-- > 0;) m_depth[walk[w]] = broken ? kBroken : ++known;
  }
  for (uint32_t& d : m_depth)
    if (d == kBroken) d = 0;
}

}  // namespace korvex

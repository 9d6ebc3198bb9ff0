#include "convert/AnimationValidation.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "convert/SceneRules.h"
#include "pod/ChannelKeys.h"
#include "pod/Diagnostics.h"
#include "qsn/SceneGraphRecords.h"

namespace {

using korvex::Format;

// The bone count of a skinned mesh's first batch; a mesh without batch counts has none (0).
bool HasBoneCount(const CPODBoneBatches& batches) {
  return batches.pnBatchBoneCnt != nullptr && batches.nBatchBoneCntSize >= 4;
}
int32_t FirstBoneCount(const CPODBoneBatches& batches) {
  return HasBoneCount(batches) ? batches.pnBatchBoneCnt[0] : 0;
}

// The skeletal converter evaluates every node with its parents (its frame-0 table), so every
// chain must stay inside the node array and end at a root.
std::string CheckParentChains(const CPODScene& scene, const korvex::SceneRules& rules) {
  const korvex::SceneRules::BrokenChain broken = rules.firstBrokenChain();
  if (broken.node < 0) return std::string();
  if (broken.cyclic) return Format("parent chain of node %lld is cyclic", static_cast<long long>(broken.node));
  return Format("node %lld has parent %d outside the node array",
                static_cast<long long>(broken.node), scene.pNode[broken.node].nIdxParent);
}

// Node evaluations the skeletal conversion makes (each a local S x R x T and a product): the
// frame-0 table of every node with its chain; each bone's bind term once, with the bone's chain
// and the mesh's parent chain; then at every frame each node on the bones' chains once (a node's
// world matrix at a frame is kept once computed, however many bones share it) and one bone matrix
// a bone. Every chain reaches a root (checked before).
uint64_t SkeletalWork(const CPODScene& scene, const SPODNode& node, const int32_t* bones, int32_t k,
                      const korvex::SceneRules& rules) {
  uint64_t work = 0;
  for (uint32_t i = 0; i < rules.nodeCount(); ++i) work += rules.depth(i);
  const uint64_t parentDepth = node.nIdxParent > 0 ? rules.depth(node.nIdxParent) : 0;
  std::vector<bool> onChain(rules.nodeCount(), false);
  uint64_t chainNodes = 0;
  for (int32_t b = 0; b < k; ++b) {
    work += rules.depth(bones[b]) + parentDepth + 1;
    for (int32_t n = bones[b]; n >= 0 && uint32_t(n) < rules.nodeCount() && !onChain[n];
         n = scene.pNode[n].nIdxParent) {
      onChain[n] = true;
      ++chainNodes;
    }
  }
  return work + uint64_t{scene.nNumFrame} * (chainNodes + uint64_t(k > 0 ? k : 0));
}

// A per-vertex bone stream is copied as numVertex x stride bytes from its own array.
std::string CheckBoneStream(const SPODMesh& mesh, const CPODData& stream, const char* name) {
  const uint64_t bytes = uint64_t{mesh.nNumVertex} * stream.nStride;
  if (bytes == 0) return std::string();
  if (mesh.pInterleaved != nullptr) return std::string("skinned mesh has interleaved ") + name;
  if (bytes > UINT32_MAX) return std::string(name) + " is too large";
  if (stream.pData == nullptr || stream.nDataSize < bytes) {
    return std::string(name) + " holds fewer than numVertex x stride bytes";
  }
  return std::string();
}

std::string CheckSkinnedMesh(const CPODScene& scene, const korvex::SceneRules& rules,
                             const SPODNode& node, const SPODMesh& mesh) {
  const CPODBoneBatches& batches = mesh.sBoneBatches;
  const bool counted = HasBoneCount(batches);
  const int32_t k = FirstBoneCount(batches);

  // Each bone's bind pose reads the first keys of the mesh node, without a fallback; with no
  // bones they are never read.
  if (k > 0) {
    if (korvex::ScaleKeyCount(node) == 0) return "skinned mesh node has no pfAnimScale key";
    if (korvex::RotationKeyCount(node) == 0) return "skinned mesh node has no pfAnimRotation key";
    if (korvex::PositionKeyCount(node) == 0) return "skinned mesh node has no pfAnimPosition key";
  }

  if (counted) {
    // The bone loops would run past the tables sized by the count's low byte.
    if (k > 255) return Format("bone count %d of the first batch is above 255", k);
    // The batch table takes the count's low byte of entries (255 for -1), though only a positive
    // count uses them as bones.
    const uint32_t entries = static_cast<uint32_t>(k) & 0xFFu;
    const size_t available = batches.pnBatches ? batches.nBatchesSize / 4 : 0;
    if (available < entries) {
      return Format("first batch takes %u bones (count %d) but pnBatches holds %zu", entries, k,
                    available);
    }
    for (int32_t b = 0; b < k; ++b) {
      const int32_t bone = batches.pnBatches[b];
      if (bone < 0 || static_cast<uint32_t>(bone) >= scene.nNumNode) {
        return Format("bone node index %d is outside the node array", bone);
      }
    }
  }

  std::string problem = CheckBoneStream(mesh, mesh.sBoneIdx, "sBoneIdx");
  if (problem.empty()) problem = CheckBoneStream(mesh, mesh.sBoneWeight, "sBoneWeight");
  if (problem.empty()) problem = CheckParentChains(scene, rules);
  return problem;
}

}  // namespace

std::string CheckAnimatedNode(const CPODScene& scene, const korvex::SceneRules& rules,
                              unsigned int nodeIndex) {
  if (scene.nNumFrame == 0) return std::string();
  if (scene.pNode == nullptr || nodeIndex >= scene.nNumNode) {
    return "node index is outside the node array";
  }
  if (scene.m_pImpl == nullptr) return "scene has no frame-evaluation state";

  if (!rules.baked(nodeIndex)) return std::string();
  const SPODNode& node = scene.pNode[nodeIndex];
  if (rules.kind(nodeIndex) == korvex::NodeKind::kAnimationCamera) {
    if (node.nIdx < 0 || static_cast<uint32_t>(node.nIdx) >= scene.nNumCamera ||
        scene.pCamera == nullptr) {
      return "camera node's nIdx is outside the camera array";
    }
    return std::string();
  }
  if (node.nIdx < 0 || static_cast<uint32_t>(node.nIdx) >= scene.nNumMesh ||
      scene.pMesh == nullptr) {
    return "mesh node's nIdx is outside the mesh array";
  }
  const SPODMesh& mesh = scene.pMesh[node.nIdx];
  if (rules.kind(nodeIndex) == korvex::NodeKind::kSkeletalMesh)
    return CheckSkinnedMesh(scene, rules, node, mesh);
  return std::string();
}

// A scene larger than a scene-graph file can hold could never be written, so it is refused before
// anything is baked rather than after; the cap on evaluations keeps a few bytes of input that
// claim many frames over a deep hierarchy from running for hours.
std::string AnimationBudget::Add(const CPODScene& scene, const korvex::SceneRules& rules,
                                 unsigned int nodeIndex) {
  if (scene.nNumFrame == 0 || !rules.baked(nodeIndex)) return std::string();
  const uint64_t frames = scene.nNumFrame;
  const SPODNode& node = scene.pNode[nodeIndex];
  if (rules.kind(nodeIndex) == korvex::NodeKind::kSkeletalMesh) {
    const CPODBoneBatches& batches = scene.pMesh[node.nIdx].sBoneBatches;
    const int32_t k = FirstBoneCount(batches);
    // A bone matrix a table entry (the count's low byte of them) and two volumes a frame.
    const uint64_t entries = static_cast<uint32_t>(k) & 0xFFu;
    m_bytes += frames * (entries * 64 + kSGSphereElementSize + kSGAABBElementSize);
    m_work += SkeletalWork(scene, node, batches.pnBatches, k, rules);
  } else {
    // A world matrix a frame, each evaluated along the node's chain.
    m_bytes += frames * 64;
    m_work += frames * std::max<uint32_t>(rules.depth(nodeIndex), 1);
  }
  if (m_bytes > m_maxBytes)
    return Format(
        "the animation baked up to this node takes %llu bytes of tables, more than the "
        "%llu allowed",
        static_cast<unsigned long long>(m_bytes), static_cast<unsigned long long>(m_maxBytes));
  if (m_work > m_maxWork)
    return Format(
        "the animation baked up to this node takes %llu node evaluations, more than the "
        "%llu allowed",
        static_cast<unsigned long long>(m_work), static_cast<unsigned long long>(m_maxWork));
  return std::string();
}

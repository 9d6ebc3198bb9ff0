#include "convert/AnimationValidation.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "pod/ChannelKeys.h"

namespace {

// Limits of what is baked, so that a few bytes of input claiming a huge animation cannot make
// the conversion allocate absurd tables: at most 65536 frames (over half an hour at 30 frames a
// second), and at most 64 MiB of bone matrices for one skinned mesh (60 bones over 17476 frames).
const uint64_t kMaxFrames = 65536;
const uint64_t kMaxBoneMatrixBytes = uint64_t{64} << 20;
// And at most 2^25 node evaluations for one skinned mesh (some seconds): the bone matrices
// re-evaluate each bone's parent chain at every frame. A 60-bone skeleton ten deep over 2000
// frames needs under 1.5 million.
const uint64_t kMaxWork = uint64_t{1} << 25;

std::string Format(const char* format, long long a, long long b = 0) {
  char text[160];
  std::snprintf(text, sizeof text, format, a, b);
  return text;
}

// Mesh nodes whose name starts with a keyword become special records, never baked ones.
bool HasKeyword(const char* name) {
  static const char* const kKeywords[] = {"BILLBOARD",       "MARKER",  "SKYBOX",
                                          "COLLISIONBOX",    "PITBOX",  "F1COLLISIONBOX",
                                          "COLLISIONSPHERE", "LIGHTMAP"};
  if (name == nullptr) return false;
  for (const char* keyword : kKeywords) {
    if (std::strncmp(name, keyword, std::strlen(keyword)) == 0) return true;
  }
  return false;
}

// The skeletal converter evaluates every node with its parents (its frame-0 table), so every
// chain must stay inside the node array and end at a root. Fills `depth` (nodes on each chain,
// the node itself included) for the cost estimate below.
std::string CheckParentChains(const CPODScene& scene, std::vector<uint32_t>& depth) {
  const uint32_t count = scene.nNumNode;
  const uint32_t kOnWalk = UINT32_MAX;
  depth.assign(count, 0);  // 0 unseen, kOnWalk on the current walk, else the chain length
  std::vector<uint32_t> walk;
  for (uint32_t start = 0; start < count; ++start) {
    walk.clear();
    uint32_t i = start, known = 0;
    for (;;) {
      if (depth[i] == kOnWalk) return Format("parent chain of node %lld is cyclic", i);
      if (depth[i] != 0) {
        known = depth[i];
        break;
      }
      depth[i] = kOnWalk;
      walk.push_back(i);
      const int32_t parent = scene.pNode[i].nIdxParent;
      if (parent < 0) break;
      if (static_cast<uint32_t>(parent) >= count) {
        return Format("node %lld has parent %lld outside the node array", i, parent);
      }
      i = static_cast<uint32_t>(parent);
    }
    for (size_t w = walk.size(); w-- > 0;) depth[walk[w]] = ++known;
  }
  return std::string();
}

// Node evaluations the skeletal conversion makes (each a local S x R x T): the frame-0 table of
// every node with its chain, then per bone and frame the bone's chain and the mesh's parent chain.
uint64_t SkeletalWork(const CPODScene& scene, const SPODNode& node, const int32_t* bones, int32_t k,
                      const std::vector<uint32_t>& depth) {
  uint64_t work = 0;
  for (uint32_t d : depth) work += d;
  const uint64_t parentDepth = node.nIdxParent > 0 ? depth[node.nIdxParent] : 0;
  for (int32_t b = 0; b < k; ++b) {
    work += uint64_t{scene.nNumFrame} * (depth[bones[b]] + parentDepth + 1);
  }
  return work;
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

std::string CheckSkinnedMesh(const CPODScene& scene, const SPODNode& node, const SPODMesh& mesh) {
  // The bind pose is read from the first keys of the mesh node, without a fallback.
  if (korvex::ScaleKeyCount(node) == 0) return "skinned mesh node has no pfAnimScale key";
  if (korvex::RotationKeyCount(node) == 0) return "skinned mesh node has no pfAnimRotation key";
  if (korvex::PositionKeyCount(node) == 0) return "skinned mesh node has no pfAnimPosition key";

  const CPODBoneBatches& batches = mesh.sBoneBatches;
  if (batches.pnBatchBoneCnt != nullptr && batches.nBatchBoneCntSize >= 4) {
    const int32_t k = batches.pnBatchBoneCnt[0];
    if (k < 0 || k > 255) return Format("bone count %lld of the first batch is outside 0..255", k);
    const size_t available = batches.pnBatches ? batches.nBatchesSize / 4 : 0;
    if (available < static_cast<size_t>(k)) {
      return Format("first batch names %lld bones but pnBatches holds %lld", k,
                    static_cast<long long>(available));
    }
    for (int32_t b = 0; b < k; ++b) {
      const int32_t bone = batches.pnBatches[b];
      if (bone < 0 || static_cast<uint32_t>(bone) >= scene.nNumNode) {
        return Format("bone node index %lld is outside the node array", bone);
      }
    }
    if (uint64_t{scene.nNumFrame} * static_cast<uint64_t>(k) * 64 > kMaxBoneMatrixBytes) {
      return Format("%lld bones over %lld frames exceed the bone matrix limit", k, scene.nNumFrame);
    }
  }

  std::string problem = CheckBoneStream(mesh, mesh.sBoneIdx, "sBoneIdx");
  if (problem.empty()) problem = CheckBoneStream(mesh, mesh.sBoneWeight, "sBoneWeight");
  std::vector<uint32_t> depth;
  if (problem.empty()) problem = CheckParentChains(scene, depth);
  if (problem.empty() && batches.pnBatchBoneCnt != nullptr && batches.nBatchBoneCntSize >= 4 &&
      SkeletalWork(scene, node, batches.pnBatches, batches.pnBatchBoneCnt[0], depth) > kMaxWork) {
    problem = "bone hierarchy too deep for the frame count";
  }
  return problem;
}

}  // namespace

std::string CheckAnimatedNode(const CPODScene& scene, unsigned int nodeIndex) {
  if (scene.nNumFrame == 0) return std::string();
  if (scene.pNode == nullptr || nodeIndex >= scene.nNumNode) {
    return "node index is outside the node array";
  }
  if (scene.m_pImpl == nullptr) return "scene has no frame-evaluation state";

  const SPODNode& node = scene.pNode[nodeIndex];
  const uint64_t meshNodes = scene.nNumMeshNode;
  const uint64_t firstCamera = meshNodes + scene.nNumLight;
  const bool isMesh = nodeIndex < meshNodes;
  const bool isCamera = nodeIndex >= firstCamera && nodeIndex < firstCamera + scene.nNumCamera;
  if (!isCamera && !(isMesh && !HasKeyword(node.pszName))) return std::string();

  if (scene.nNumFrame > kMaxFrames) {
    return Format("frame count %lld exceeds %lld", scene.nNumFrame, kMaxFrames);
  }
  if (isCamera) {
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
  if (mesh.sBoneBatches.nBatchCnt > 0) return CheckSkinnedMesh(scene, node, mesh);
  return std::string();
}

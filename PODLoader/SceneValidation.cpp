#include "convert/SceneValidation.h"

#include <string>
#include <vector>

#include "convert/AnimationValidation.h"
#include "pod/PODMeshWeld.h"
#include "pod/PODModel.h"
#include "pod/PODWriter.h"
#include "convert/SceneRules.h"

namespace {

// Each check returns true when the data is fine; on a problem it fills `out` and returns false.
// The node and parent checks ask the scene's rules (`rules`, set for the conversion's checks).
class Checker {
 public:
  Checker(const CPODScene& scene, SceneCheck& out, const korvex::SceneRules* rules = nullptr,
          const PODWeldPlan* plan = nullptr)
      : s(scene), out(out), rules(rules), plan(plan) {}

  bool fail(int64_t node, std::string problem) {
    out.node = node;
    out.problem = std::move(problem);
    return false;
  }
  // The pipeline stops at a specified assertion: nothing after it matters.
  bool assertionAhead() {
    out.assertionAhead = true;
    return false;
  }

  bool recordArrays() {
    struct Array {
      uint32_t count;
      const void* data;
      const char* what;
    };
    const Array arrays[] = {
        {s.nNumCamera, s.pCamera, "cameras"},   {s.nNumLight, s.pLight, "lights"},
        {s.nNumMesh, s.pMesh, "meshes"},        {s.nNumNode, s.pNode, "nodes"},
        {s.nNumTexture, s.pTexture, "textures"}, {s.nNumMaterial, s.pMaterial, "materials"},
    };
    for (const Array& a : arrays) {
      if (a.count != 0 && a.data == nullptr)
        return fail(-1, std::to_string(a.count) + " " + a.what + " declared but none stored");
    }
    return true;
  }

  // A weld decided for `mesh` rebuilds stream `d` as the scene is saved: whatever the old stream
  // holds, the saved one holds as many elements as the weld keeps vertices.
  static bool Rebuilt(const SPODMesh& mesh, const SPODMeshWeld* weld, const CPODData& d) {
    if (weld == nullptr) return false;
    for (EPODWeldStream w : {EPODWeldStream::Vertex, EPODWeldStream::Normals, EPODWeldStream::UVW0,
                             EPODWeldStream::UVW1, EPODWeldStream::BoneIdx,
                             EPODWeldStream::BoneWeight}) {
      if (PODMeshWeldedStream(mesh, *weld, w) == &d) return true;
    }
    return false;
  }

  // `bytes` of a stream's own array are needed; an interleaved stream owns none.
  bool streamCovers(int64_t node, const SPODMesh& mesh, const CPODData& d, uint64_t bytes,
                    const std::string& what) {
    if (bytes == 0) return true;
    if (mesh.pInterleaved != nullptr)
      return fail(node, "mesh has interleaved vertex data, which cannot be converted (" + what +
                            ")");
    if (d.pData == nullptr || d.nDataSize < bytes)
      return fail(node, what + " holds " + std::to_string(d.pData ? d.nDataSize : 0) +
                            " bytes, " + std::to_string(bytes) + " needed");
    return true;
  }

  // Key 0 of each channel the node's frame-0 transform reads.
  bool transformArrays(int64_t i) {
    const SPODNode& n = s.pNode[i];
    if (n.pfAnimMatrix != nullptr) {
      if (n.nAnimMatrixSize < 64) return fail(i, "matrix animation holds less than one matrix");
      return true;  // the matrix replaces the other channels
    }
    if (n.pfAnimScale != nullptr && n.nAnimScaleSize < 12)
      return fail(i, "scale animation holds less than one key");
    if (n.pfAnimRotation != nullptr && n.nAnimRotationSize < 16)
      return fail(i, "rotation animation holds less than one key");
    if (n.pfAnimPosition != nullptr && n.nAnimPositionSize < 12)
      return fail(i, "position animation holds less than one key");
    return true;
  }

  bool name(int64_t i, bool beforeSave) {
    if (!beforeSave && s.pNode[i].pszName == nullptr) return fail(i, "node has no name");
    return true;
  }

  // The material record of node i (material index already known to be >= 0).
  bool material(int64_t i, bool beforeSave) {
    const SPODNode& n = s.pNode[i];
    if (uint32_t(n.nIdxMaterial) >= s.nNumMaterial)
      return fail(i, "material index " + std::to_string(n.nIdxMaterial) + " is out of range (" +
                         std::to_string(s.nNumMaterial) + " materials)");
    const SPODMaterial& m = s.pMaterial[n.nIdxMaterial];
    if (!beforeSave && m.pszName == nullptr)
      return fail(i, "material " + std::to_string(n.nIdxMaterial) + " has no name");
    // Only -1 means "no texture"; the conversion indexes with anything else.
    if (m.nIdxTexDiffuse != -1) {
      if (m.nIdxTexDiffuse < 0 || uint32_t(m.nIdxTexDiffuse) >= s.nNumTexture)
        return fail(i, "material " + std::to_string(n.nIdxMaterial) + " names texture " +
                           std::to_string(m.nIdxTexDiffuse) + ", out of range (" +
                           std::to_string(s.nNumTexture) + " textures)");
      if (!beforeSave && s.pTexture[m.nIdxTexDiffuse].pszName == nullptr)
        return fail(i, "texture " + std::to_string(m.nIdxTexDiffuse) + " has no name");
    }
    return true;
  }

  // Everything the mesh record of node i reads, in the order it reads it.
  bool meshRecord(int64_t i, bool beforeSave) {
    const SPODNode& n = s.pNode[i];
    const SPODMesh& mesh = s.pMesh[n.nIdx];
    const SPODMeshWeld* weld = plan != nullptr ? plan->weld(uint32_t(n.nIdx)) : nullptr;
    if (!transformArrays(i)) return false;
    // The bounding volumes assert on the position format before anything is read.
    if (mesh.sVertex.eType != EPODDataFloat || mesh.sVertex.n != 3 || mesh.sVertex.nStride != 12)
      return assertionAhead();
    const uint64_t v = weld != nullptr ? weld->nKept : mesh.nNumVertex;
    if (!Rebuilt(mesh, weld, mesh.sVertex) &&
        !streamCovers(i, mesh, mesh.sVertex, v * 12, "position stream"))
      return false;
    const uint64_t normalBytes = v * mesh.sNormals.n * 4;
    if (normalBytes > UINT32_MAX) return fail(i, "normal stream is too large");
    if (!Rebuilt(mesh, weld, mesh.sNormals) &&
        !streamCovers(i, mesh, mesh.sNormals, normalBytes, "normal stream"))
      return false;
    if (!streamFaces(i, mesh)) return false;
    if (n.nIdxMaterial >= 0) {
      const uint32_t sets = mesh.nNumUVW > 2 ? 2 : mesh.nNumUVW;
      if (mesh.psUVW == nullptr ? sets != 0 : mesh.nUVWCount < sets)
        return fail(i, "mesh declares " + std::to_string(mesh.nNumUVW) +
                           " texture-coordinate sets but stores fewer");
      for (uint32_t k = 0; k < sets; ++k) {
        if (!Rebuilt(mesh, weld, mesh.psUVW[k]) &&
            !streamCovers(i, mesh, mesh.psUVW[k], v * 8,
                          "texture-coordinate set " + std::to_string(k)))
          return false;
      }
      if (!material(i, beforeSave)) return false;
    }
    return true;
  }

  bool streamFaces(int64_t i, const SPODMesh& mesh) {
    const uint64_t bytes = uint64_t(mesh.nNumFaces) * 6;
    if (bytes > UINT32_MAX) return fail(i, "face stream is too large");
    if (bytes == 0) return true;
    if (mesh.sFaces.pData == nullptr || mesh.sFaces.nDataSize < bytes)
      return fail(i, "face stream holds " + std::to_string(mesh.sFaces.nDataSize) + " bytes, " +
                         std::to_string(bytes) + " needed");
    return true;
  }

  bool animated(int64_t i) {
    std::string problem = CheckAnimatedNode(s, *rules, static_cast<unsigned int>(i));
    if (problem.empty()) problem = budget.Add(s, *rules, static_cast<unsigned int>(i));
    if (!problem.empty()) return fail(i, problem);
    return true;
  }

  // One mesh node as buildMeshType would take it.
  bool meshNode(int64_t i, bool beforeSave) {
    const SPODNode& n = s.pNode[i];
    if (n.nIdx == -1) return assertionAhead();
    if (!name(i, beforeSave)) return false;
    if (n.nIdx < 0 || uint32_t(n.nIdx) >= s.nNumMesh)
      return fail(i, "mesh index " + std::to_string(n.nIdx) + " is out of range (" +
                         std::to_string(s.nNumMesh) + " meshes)");
    const korvex::NodeKind kind = rules->kind(static_cast<uint32_t>(i));
    if (kind == korvex::NodeKind::kMarker) return transformArrays(i);
    if (kind == korvex::NodeKind::kLightMapDefinition) {
      if (n.nIdxMaterial == -1) return assertionAhead();
      if (n.nIdxMaterial < 0)
        return fail(i, "material index " + std::to_string(n.nIdxMaterial) + " is out of range");
      return material(i, beforeSave);
    }
    // Every other kind is built on a mesh record; the baked ones need more.
    if (!meshRecord(i, beforeSave)) return false;
    return !rules->baked(static_cast<uint32_t>(i)) || animated(i);
  }

  bool lightNode(int64_t i, bool beforeSave) {
    const SPODNode& n = s.pNode[i];
    if (!name(i, beforeSave) || !transformArrays(i)) return false;
    if (n.nIdx < 0 || uint32_t(n.nIdx) >= s.nNumLight)
      return fail(i, "light index " + std::to_string(n.nIdx) + " is out of range (" +
                         std::to_string(s.nNumLight) + " lights)");
    return true;
  }

  bool cameraNode(int64_t i, bool beforeSave) {
    const SPODNode& n = s.pNode[i];
    if (!name(i, beforeSave) || !transformArrays(i)) return false;
    if (n.nIdx < 0 || uint32_t(n.nIdx) >= s.nNumCamera)
      return fail(i, "camera index " + std::to_string(n.nIdx) + " is out of range (" +
                         std::to_string(s.nNumCamera) + " cameras)");
    // A targeted camera takes its target position from the node at its own camera index.
    if (s.pCamera[n.nIdx].nIdxTarget >= 0) {
      if (uint32_t(n.nIdx) >= s.nNumNode)
        return fail(i, "target position is read from node " + std::to_string(n.nIdx) +
                           ", which does not exist");
      const SPODNode& source = s.pNode[n.nIdx];
      if (source.pfAnimPosition == nullptr || source.nAnimPositionSize < 12)
        return fail(i, "target position is read from node " + std::to_string(n.nIdx) +
                           ", which has no position key");
    }
    return !rules->baked(static_cast<uint32_t>(i)) || animated(i);
  }

  // The vertex reduction checks each mesh itself (and leaves alone what it cannot handle), but
  // a mesh node without mesh ends it by assertion before the scene is saved.
  bool reductionAssertion() {
    const uint32_t meshNodes =
        s.pNode == nullptr ? 0 : s.nNumMeshNode < s.nNumNode ? s.nNumMeshNode : s.nNumNode;
    for (uint32_t i = 0; i < meshNodes; ++i) {
      if (s.pNode[i].nIdx == -1) return assertionAhead();
    }
    return true;
  }

  // What the POD writer reads: every array of every record, as long as the counts say.
  // Bone-batch counts that are both negative give the writer a length all the same; the
  // conversion refuses them.
  bool savedScene() {
    const std::string shortfall = PODWriteShortfall(s, plan);
    if (!shortfall.empty()) return fail(-1, shortfall);
    for (uint32_t m = 0; m < s.nNumMesh; ++m) {
      const CPODBoneBatches& bb = s.pMesh[m].sBoneBatches;
      if ((bb.pnBatches || bb.pnBatchBoneCnt || bb.pnBatchOffset) &&
          (bb.nBatchCnt < 0 || bb.nBatchBoneMax < 0))
        return fail(-1, "mesh " + std::to_string(m) + ": negative bone-batch counts");
    }
    return true;
  }

  // Parent indices in range and no chain that loops. Any negative index means no parent.
  bool parents() {
    const int64_t outside = rules->parentOutOfRange();
    if (outside >= 0)
      return fail(outside, "parent index " + std::to_string(s.pNode[outside].nIdxParent) +
                               " is out of range (" + std::to_string(s.nNumNode) + " nodes)");
    // With every parent in range, a chain that reaches no root loops.
    const int64_t loop = rules->firstBrokenChain().node;
    if (loop >= 0) return fail(loop, "parent chain loops back to this node");
    return true;
  }

  const CPODScene& s;
  SceneCheck& out;
  const korvex::SceneRules* rules;
  const PODWeldPlan* plan;  // the welds the save applies; null for none
  AnimationBudget budget;   // what the animated nodes checked so far take to bake
};

}  // namespace

SceneCheck CheckSceneForEdits(const CPODScene& scene, bool reduction) {
  SceneCheck out;
  Checker c(scene, out);
  // The renaming walks the texture array; a texture without a name is renamed like an empty one.
  if (scene.nNumTexture != 0 && scene.pTexture == nullptr) {
    c.fail(-1, std::to_string(scene.nNumTexture) + " textures declared but none stored");
    return out;
  }
  std::string nameless;
  uint32_t namelessCount = 0;
  for (uint32_t t = 0; t < scene.nNumTexture; ++t) {
    if (scene.pTexture[t].pszName != nullptr) continue;
    if (++namelessCount <= 8) nameless += (nameless.empty() ? "" : ", ") + std::to_string(t);
  }
  if (namelessCount > 8) nameless += ", ...";
  if (namelessCount == 1)
    out.warnings.push_back("texture " + nameless + " has no name; it is renamed \".qimg\"");
  else if (namelessCount > 1)
    out.warnings.push_back(std::to_string(namelessCount) + " textures (" + nameless +
                           ") have no name; each is renamed \".qimg\"");
  if (!reduction) return out;
  // The reduction visits the mesh nodes in order and may stop at its assertion; past the node
  // array there is nothing it could visit.
  if (!c.reductionAssertion()) return out;
  if (scene.nNumMeshNode != 0 && (scene.pNode == nullptr || scene.nNumMeshNode > scene.nNumNode))
    c.fail(-1, std::to_string(scene.nNumMeshNode) + " mesh nodes declared, but the scene holds " +
                   std::to_string(scene.pNode ? scene.nNumNode : 0) + " nodes");
  return out;
}

SceneCheck CheckSceneForSave(const CPODScene& scene, const PODWeldPlan* plan) {
  SceneCheck out;
  Checker c(scene, out, nullptr, plan);
  if (c.recordArrays()) c.savedScene();
  return out;
}

SceneCheck CheckSceneForConversion(const CPODScene& scene, bool beforeSave, const PODWeldPlan* plan) {
  SceneCheck out;
  if (!Checker(scene, out, nullptr, plan).recordArrays()) return out;
  const korvex::SceneRules rules(scene);
  Checker c(scene, out, &rules, plan);
  for (uint32_t i = 0; i < rules.nodeCount(); ++i) {
    const korvex::NodeKind kind = rules.kind(i);
    if (kind == korvex::NodeKind::kNotConverted) continue;
    const bool ok = korvex::IsMeshNodeKind(kind)    ? c.meshNode(i, beforeSave)
                    : kind == korvex::NodeKind::kLight ? c.lightNode(i, beforeSave)
                                                       : c.cameraNode(i, beforeSave);
    if (!ok) return out;
  }
  c.parents();
  return out;
}

std::string DescribeSceneCheck(const CPODScene& scene, const SceneCheck& check,
                               const std::string& file) {
  std::string line = "Korvex: " + file + ": ";
  if (check.node >= 0) {
    line += "node " + std::to_string(check.node);
    if (scene.pNode != nullptr && uint64_t(check.node) < scene.nNumNode &&
        scene.pNode[check.node].pszName != nullptr)
      line += std::string(" \"") + scene.pNode[check.node].pszName + "\"";
    line += ": ";
  }
  return line + check.problem;
}

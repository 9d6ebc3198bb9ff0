#pragma once
// Prepares a still POD scene for fewer draw calls: sorts its mesh nodes by material, and
// concatenates meshes into one SPODMesh. The conversion pipeline does not use it.
//
// Pointers held by the combiner refer into the scene it classified; only the group and
// first-node arrays are its own. A mesh returned by combineMesh or createNewMesh belongs to the
// caller, who releases it with releaseCombinedMesh.

#include <vector>

#include "pod/PODModel.h"

class MeshCombiner {
 public:
  MeshCombiner();
  ~MeshCombiner();
  MeshCombiner(const MeshCombiner&) = delete;
  MeshCombiner& operator=(const MeshCombiner&) = delete;

  // Groups the meshes of the scene's nodes by material index. The scene must have no animation:
  // an animated scene fails an assertion and ends the process. Nodes without an object, and
  // nodes whose mesh has two or more texture-coordinate sets, are kept apart (the latter with
  // their meshes). So are nodes the groups cannot hold: an nIdx past the scene's meshes (kept
  // apart without a mesh) or a material index that names no material (kept apart with the mesh).
  void classifyMeshwithSameMaterialTexture(CPODScene* input);

  // A new mesh holding A's geometry followed by B's: the counts are summed (nNumUVW too), the
  // faces, positions and normals are concatenated, and the first texture-coordinate set when A
  // has one. B's indices are not shifted. The texture-coordinate descriptors are the result's own
  // copy of A's (none when A has no set), so A is never modified. Every other stream and
  // descriptor is A's: the result points at A's arrays for them, so A must outlive it.
  //
  // Streams are read as separate, tightly packed arrays (12-byte positions and normals, 8-byte
  // coordinates, 6-byte triangles), never past what they hold (nDataSize). A position or face
  // stream shorter than its count claims, a count sum beyond 32 bits or a null argument is
  // refused with a null result; normals and coordinates a mesh does not hold come out as zeros.
  SPODMesh* combineMesh(SPODMesh* a, SPODMesh* b);

  // All meshes combined in sequence order; null with fewer than two meshes or when one step is
  // refused. Intermediate results are released on the way.
  SPODMesh* createNewMesh(const std::vector<SPODMesh*>& meshes);

  // Would put the combined meshes back into a scene; nothing needs that, so it does nothing.
  void createCombinedMesh();

  // Releases a mesh made by combineMesh or createNewMesh: the record and the arrays it owns
  // (faces, positions, normals, its texture-coordinate descriptors and their first set), not the
  // arrays it shares with its first mesh. Null is allowed.
  static void releaseCombinedMesh(SPODMesh* mesh);

  // Results of the classification. Group m holds the meshes of material m in node order; first
  // node m is a copy of the first node met for material m (zero while the group is empty).
  const std::vector<std::vector<SPODMesh*>>& materialGroups() const { return m_materialGroups; }
  const std::vector<SPODNode>& firstNodes() const { return m_firstNodes; }
  const std::vector<SPODNode*>& nodesKeptApart() const { return m_nodesKeptApart; }
  const std::vector<SPODMesh*>& meshesKeptApart() const { return m_meshesKeptApart; }

 private:
  std::vector<std::vector<SPODMesh*>> m_materialGroups;
  std::vector<SPODNode> m_firstNodes;
  std::vector<SPODNode*> m_nodesKeptApart;
  std::vector<SPODMesh*> m_meshesKeptApart;
};

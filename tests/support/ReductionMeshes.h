#pragma once
// Builds small POD scenes in memory for the vertex-reduction tests, copies and frees them, and
// reads their streams back. Arrays are calloc'd like the reader's, so the reduction may free them.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pod/PODModel.h"

namespace reduction_test {

template <typename T>
CPODData Stream(EPODDataType type, uint32_t n, uint32_t stride, const std::vector<T>& values) {
  CPODData d{};
  d.eType = type;
  d.n = n;
  d.nStride = stride;
  d.nDataSize = values.size() * sizeof(T);
  d.pData = static_cast<uint8_t*>(std::calloc(d.nDataSize + 1, 1));
  if (!values.empty()) std::memcpy(d.pData, values.data(), d.nDataSize);
  return d;
}

struct MeshData {
  std::vector<float> positions, normals;   // 3 floats a vertex
  std::vector<std::vector<float>> uvs;     // per set, 2 floats a vertex
  std::vector<uint16_t> faces;
  uint32_t boneIdxN = 0, boneWeightN = 0;  // skinned when boneIdxN or boneWeightN > 0
  std::vector<uint8_t> boneIdx;
  std::vector<float> boneWeights;
};

inline SPODMesh MakeMesh(const MeshData& m) {
  SPODMesh mesh{};
  mesh.nNumVertex = static_cast<uint32_t>(m.positions.size() / 3);
  mesh.nNumFaces = static_cast<uint32_t>(m.faces.size() / 3);
  mesh.sVertex = Stream(EPODDataFloat, 3, 12, m.positions);
  mesh.sNormals = Stream(EPODDataFloat, 3, 12, m.normals);
  mesh.sFaces = Stream(EPODDataUInt16, 1, 2, m.faces);
  mesh.nNumUVW = static_cast<uint32_t>(m.uvs.size());
  mesh.nUVWCount = m.uvs.size();
  if (!m.uvs.empty()) {
    mesh.psUVW = static_cast<CPODData*>(std::calloc(m.uvs.size(), sizeof(CPODData)));
    for (size_t k = 0; k < m.uvs.size(); ++k) mesh.psUVW[k] = Stream(EPODDataFloat, 2, 8, m.uvs[k]);
  }
  if (m.boneIdxN > 0 || m.boneWeightN > 0) {
    mesh.sBoneBatches.nBatchCnt = 1;
    mesh.sBoneIdx = Stream(EPODDataUInt8, m.boneIdxN, m.boneIdxN, m.boneIdx);
    mesh.sBoneWeight = Stream(EPODDataFloat, m.boneWeightN, 4 * m.boneWeightN, m.boneWeights);
  }
  return mesh;
}

inline void CopyStream(CPODData& d) {
  uint8_t* copy = static_cast<uint8_t*>(std::calloc(d.nDataSize + 1, 1));
  if (d.pData) std::memcpy(copy, d.pData, d.nDataSize);
  d.pData = d.pData ? copy : (std::free(copy), nullptr);
}

inline void FreeMesh(SPODMesh& mesh) {
  for (CPODData* d : {&mesh.sVertex, &mesh.sNormals, &mesh.sFaces, &mesh.sVtxColours, &mesh.sBoneIdx,
                      &mesh.sBoneWeight})
    std::free(d->pData);
  for (size_t k = 0; k < mesh.nUVWCount; ++k) std::free(mesh.psUVW[k].pData);
  std::free(mesh.psUVW);
}

// A scene of the given meshes and mesh nodes (each node: mesh index, material index, name).
struct NodeSpec {
  int32_t mesh;
  int32_t material;
  std::string name;
};

inline SPODScene MakeScene(const std::vector<SPODMesh>& meshes, const std::vector<NodeSpec>& nodes) {
  SPODScene s{};
  s.nNumMesh = static_cast<uint32_t>(meshes.size());
  s.pMesh = static_cast<SPODMesh*>(std::calloc(meshes.size() + 1, sizeof(SPODMesh)));
  for (size_t k = 0; k < meshes.size(); ++k) s.pMesh[k] = meshes[k];
  s.nNumNode = s.nNumMeshNode = static_cast<uint32_t>(nodes.size());
  s.pNode = static_cast<SPODNode*>(std::calloc(nodes.size() + 1, sizeof(SPODNode)));
  for (size_t k = 0; k < nodes.size(); ++k) {
    s.pNode[k].nIdx = nodes[k].mesh;
    s.pNode[k].nIdxMaterial = nodes[k].material;
    s.pNode[k].pszName = strdup(nodes[k].name.c_str());
  }
  return s;
}

inline SPODScene CopyScene(const SPODScene& src) {
  std::vector<SPODMesh> meshes(src.pMesh, src.pMesh + src.nNumMesh);
  for (SPODMesh& m : meshes) {
    for (CPODData* d : {&m.sVertex, &m.sNormals, &m.sFaces, &m.sVtxColours, &m.sBoneIdx, &m.sBoneWeight})
      CopyStream(*d);
    CPODData* uvs = static_cast<CPODData*>(std::calloc(m.nUVWCount + 1, sizeof(CPODData)));
    for (size_t k = 0; k < m.nUVWCount; ++k) {
      uvs[k] = m.psUVW[k];
      CopyStream(uvs[k]);
    }
    m.psUVW = m.nUVWCount ? uvs : (std::free(uvs), nullptr);
  }
  std::vector<NodeSpec> nodes;
  for (uint32_t k = 0; k < src.nNumNode; ++k)
    nodes.push_back({src.pNode[k].nIdx, src.pNode[k].nIdxMaterial, src.pNode[k].pszName});
  return MakeScene(meshes, nodes);
}

inline void FreeScene(SPODScene& s) {
  for (uint32_t k = 0; k < s.nNumMesh; ++k) FreeMesh(s.pMesh[k]);
  for (uint32_t k = 0; k < s.nNumNode; ++k) std::free(s.pNode[k].pszName);
  std::free(s.pMesh);
  std::free(s.pNode);
}

template <typename T>
std::vector<T> Values(const CPODData& d) {
  std::vector<T> out(d.nDataSize / sizeof(T));
  if (!out.empty()) std::memcpy(out.data(), d.pData, out.size() * sizeof(T));
  return out;
}

}  // namespace reduction_test

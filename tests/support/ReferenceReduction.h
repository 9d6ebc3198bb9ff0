#pragma once
// The vertex reduction written as the plain scan: for every triangle corner, walk the list of
// kept vertices from its start and take the first that matches. Quadratic, kept as the yardstick
// that the fast reduction is compared with (in the tests) and timed against (in the benchmark).
// It expects meshes the reduction can handle (separate float streams, 16-bit triangle lists,
// indices in range) and checks none of that.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pod/Assertion.h"
#include "pod/PODModel.h"

namespace reference_reduction {

struct Entry {
  float position[3];
  float u[8];
  float v[8];
  float normal[3];
  uint16_t newIndex;
  std::vector<uint8_t> boneIndices;
  std::vector<float> boneWeights;
};

inline float ReadF(const uint8_t* base, size_t offset) {
  float f;
  std::memcpy(&f, base + offset, 4);
  return f;
}

inline void* Allocate(size_t bytes) { return std::calloc(bytes ? bytes : 1, 1); }

inline void ReduceVertex(SPODNode* node, SPODMesh* mesh, bool useUV, bool nearly) {
  if (mesh->nNumUVW > 2) {
    mesh->nNumUVW = 2;
    std::printf("Error1: Number of UVW > 2, \"%s\"\n", node->pszName ? node->pszName : "");
  }
  std::vector<Entry*> list;
  uint16_t counter = 0;
  const uint32_t numUVW = mesh->nNumUVW;
  const bool skinned = mesh->sBoneBatches.nBatchCnt > 0;
  uint16_t* faces = reinterpret_cast<uint16_t*>(mesh->sFaces.pData);

  for (uint32_t f = 0; f < mesh->nNumFaces * 3; ++f) {
    const uint32_t i = faces[f];
    float pos[3], nor[3], u[8] = {}, v[8] = {};
    for (int a = 0; a < 3; ++a) {
      pos[a] = ReadF(mesh->sVertex.pData, 12 * i + 4 * a);
      nor[a] = ReadF(mesh->sNormals.pData, 12 * i + 4 * a);
    }
    for (uint32_t k = 0; k < numUVW; ++k) {
      u[k] = ReadF(mesh->psUVW[k].pData, 8 * i);
      v[k] = ReadF(mesh->psUVW[k].pData, 8 * i + 4);
    }

    Entry* found = nullptr;
    for (Entry* e : list) {
      if (!(e->position[0] == pos[0] && e->position[1] == pos[1] && e->position[2] == pos[2]))
        continue;
      bool agree = true;
      if (numUVW != 0 && useUV) {
        for (uint32_t k = 0; k < numUVW && agree; ++k) {
          if (nearly) {
            const float du = e->u[k] - u[k], dv = e->v[k] - v[k];
            agree = std::fabs((double)du) <= 0.001 && std::fabs((double)dv) <= 0.001;
          } else {
            agree = e->u[k] == u[k] && e->v[k] == v[k];
          }
        }
      }
      if (agree) {
        found = e;
        break;
      }
    }

    if (found != nullptr) {
      faces[f] = found->newIndex;
      std::memcpy(found->normal, nor, 12);
      continue;
    }
    Entry* e = new Entry();
    std::memcpy(e->position, pos, 12);
    std::memcpy(e->u, u, sizeof u);
    std::memcpy(e->v, v, sizeof v);
    std::memcpy(e->normal, nor, 12);
    e->newIndex = counter;
    faces[f] = counter;
    if (skinned) {
      for (uint32_t j = 0; j < mesh->sBoneIdx.n; ++j) {
        e->boneIndices.push_back(mesh->sBoneIdx.pData[mesh->sBoneIdx.nStride * i + j]);
        e->boneWeights.push_back(ReadF(mesh->sBoneWeight.pData, mesh->sBoneWeight.nStride * i + 4 * j));
      }
    }
    ++counter;
    list.push_back(e);
  }

  const size_t n = list.size();
  float* positions = static_cast<float*>(Allocate(n * 12));
  float* normals = static_cast<float*>(Allocate(n * 12));
  for (size_t e = 0; e < n; ++e) {
    std::memcpy(positions + 3 * e, list[e]->position, 12);
    std::memcpy(normals + 3 * e, list[e]->normal, 12);
  }
  for (uint32_t k = 0; k < numUVW; ++k) {
    float* uv = static_cast<float*>(Allocate(n * 8));
    for (size_t e = 0; e < n; ++e) {
      uv[2 * e] = list[e]->u[k];
      uv[2 * e + 1] = list[e]->v[k];
    }
    std::free(mesh->psUVW[k].pData);
    mesh->psUVW[k].pData = reinterpret_cast<uint8_t*>(uv);
    mesh->psUVW[k].nDataSize = n * 8;
  }
  std::free(mesh->sVertex.pData);
  mesh->sVertex.pData = reinterpret_cast<uint8_t*>(positions);
  mesh->sVertex.nDataSize = n * 12;
  std::free(mesh->sNormals.pData);
  mesh->sNormals.pData = reinterpret_cast<uint8_t*>(normals);
  mesh->sNormals.nDataSize = n * 12;
  mesh->nNumVertex = static_cast<uint32_t>(n);

  if (skinned) {
    uint8_t* idx = static_cast<uint8_t*>(Allocate(n * mesh->sBoneIdx.n));
    float* weights = static_cast<float*>(Allocate(n * mesh->sBoneWeight.n * 4));
    size_t out = 0;
    for (Entry* e : list) {
      for (size_t j = 0; j < e->boneIndices.size(); ++j, ++out) {
        idx[out] = e->boneIndices[j];
        weights[out] = e->boneWeights[j];
      }
    }
    std::free(mesh->sBoneIdx.pData);
    mesh->sBoneIdx.pData = idx;
    mesh->sBoneIdx.nDataSize = n * mesh->sBoneIdx.n;
    std::free(mesh->sBoneWeight.pData);
    mesh->sBoneWeight.pData = reinterpret_cast<uint8_t*>(weights);
    mesh->sBoneWeight.nDataSize = n * mesh->sBoneWeight.n * 4;
  }
  for (Entry* e : list) delete e;
}

inline void ReduceMeshVertex(SPODScene* scene, bool nearly) {
  std::printf("%s", nearly ? "Reducing vertex number with vertex have NEARLY same UV..."
                             : "Reducing vertex number with vertex have SAME UV...");
  int32_t before = 0, after = 0;
  for (uint32_t k = 0; k < scene->nNumMeshNode; ++k) {
    SPODNode* node = &scene->pNode[k];
    KX_ASSERT(node->nIdx != -1, "main");
    SPODMesh* mesh = &scene->pMesh[node->nIdx];
    before += static_cast<int32_t>(mesh->nNumVertex);
    ReduceVertex(node, mesh, node->nIdxMaterial >= 0, nearly);
    after += static_cast<int32_t>(mesh->nNumVertex);
  }
  std::printf("Total vertex before reduction: %d\n", before);
  std::printf("Total vertex after reduction: %d\n", after);
  std::printf("Difference: %d\n", before - after);
}

}  // namespace reference_reduction

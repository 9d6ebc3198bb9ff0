#include "convert/MeshCombiner.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "pod/Assertion.h"
#include "pod/Diagnostics.h"

namespace {

const char* const kSource = "PODLoader/MeshCombiner";

const uint64_t kPositionBytes = 12;
const uint64_t kNormalBytes = 12;
const uint64_t kUVBytes = 8;
const uint64_t kTriangleBytes = 6;

// Bytes of the stream that can be read as its own array: none when pData is an offset into an
// interleaved block (nDataSize 0) or absent.
uint64_t Readable(const CPODData& d) {
  return d.pData != nullptr ? d.nDataSize : 0;
}

uint64_t Min(uint64_t a, uint64_t b) {
  return a < b ? a : b;
}

// A new zero-filled array holding `aBytes` bytes of A's stream followed by `bBytes` of B's; of
// each only what the stream holds is copied, the rest stays zero. Null for an empty result.
uint8_t* Concatenate(const CPODData* a, uint64_t aBytes, const CPODData* b, uint64_t bBytes) {
  const uint64_t total = aBytes + bBytes;
  if (total == 0) return nullptr;
  uint8_t* out = korvex::AllocateZeroed<uint8_t>(static_cast<size_t>(total), "a combined stream");
  const uint64_t fromA = a != nullptr ? Min(aBytes, Readable(*a)) : 0;
  const uint64_t fromB = b != nullptr ? Min(bBytes, Readable(*b)) : 0;
  if (fromA != 0) std::memcpy(out, a->pData, static_cast<size_t>(fromA));
  if (fromB != 0) std::memcpy(out + aBytes, b->pData, static_cast<size_t>(fromB));
  return out;
}

// The first texture-coordinate set of a mesh, when it has one to read.
const CPODData* FirstUVSet(const SPODMesh& m) {
  return m.nNumUVW != 0 && m.psUVW != nullptr && m.nUVWCount >= 1 ? &m.psUVW[0] : nullptr;
}

}  // namespace

MeshCombiner::MeshCombiner() = default;
MeshCombiner::~MeshCombiner() = default;

void MeshCombiner::classifyMeshwithSameMaterialTexture(CPODScene* input) {
  KX_ASSERT_TEXT(input->nNumFrame == 0, "input->nNumFrame==0", kSource, 22);
  // The scene's counts are taken to describe its arrays, as those of a read or built scene do.
  const uint32_t materials = input->nNumMaterial;
  m_materialGroups.assign(materials, std::vector<SPODMesh*>());
  m_firstNodes.assign(materials, SPODNode{});
  m_nodesKeptApart.clear();
  m_meshesKeptApart.clear();

  for (uint32_t i = 0; i < input->nNumNode; ++i) {
    SPODNode* node = &input->pNode[i];
    // Any node with an object index places a mesh, lights and cameras included; one whose index
    // lies past the meshes has nothing to group and is kept apart.
    if (node->nIdx < 0 || input->pMesh == nullptr ||
        static_cast<uint32_t>(node->nIdx) >= input->nNumMesh) {
      m_nodesKeptApart.push_back(node);
      continue;
    }
    SPODMesh* mesh = &input->pMesh[node->nIdx];
    const int32_t m = node->nIdxMaterial;
    // A mesh without a material of the scene has no group: it is kept apart like a multi-set one.
    if (mesh->nNumUVW >= 2 || m < 0 || static_cast<uint32_t>(m) >= materials) {
      m_nodesKeptApart.push_back(node);
      m_meshesKeptApart.push_back(mesh);
      continue;
    }
    if (m_materialGroups[m].empty()) m_firstNodes[m] = *node;
    m_materialGroups[m].push_back(mesh);
  }
}

SPODMesh* MeshCombiner::combineMesh(SPODMesh* a, SPODMesh* b) {
  if (a == nullptr || b == nullptr) return nullptr;
  const uint64_t vertices = uint64_t(a->nNumVertex) + b->nNumVertex;
  const uint64_t faces = uint64_t(a->nNumFaces) + b->nNumFaces;
  const uint64_t sets = uint64_t(a->nNumUVW) + b->nNumUVW;
  if (vertices > UINT32_MAX || faces > UINT32_MAX || sets > UINT32_MAX) return nullptr;
  // Positions and faces must be there in full: this also bounds every allocation below by the
  // data the two meshes really hold.
  for (const SPODMesh* m : {a, b}) {
    if (Readable(m->sVertex) < m->nNumVertex * kPositionBytes) return nullptr;
    if (Readable(m->sFaces) < m->nNumFaces * kTriangleBytes) return nullptr;
  }

  SPODMesh* r = korvex::AllocateZeroed<SPODMesh>(1, "a combined mesh");
  *r = *a;
  r->nNumVertex = static_cast<uint32_t>(vertices);
  r->nNumFaces = static_cast<uint32_t>(faces);
  r->nNumUVW = static_cast<uint32_t>(sets);  // summed as it stands
  r->sFaces.pData = r->sVertex.pData = r->sNormals.pData = nullptr;
  r->sFaces.nDataSize = r->sVertex.nDataSize = r->sNormals.nDataSize = 0;
  // The result owns the arrays made below, whatever A's streams were.
  r->sFaces.bBorrowed = r->sVertex.bBorrowed = r->sNormals.bBorrowed = false;
  r->psUVW = nullptr;
  r->nUVWCount = 0;

  r->sFaces.pData = Concatenate(&a->sFaces, a->nNumFaces * kTriangleBytes, &b->sFaces,
                                b->nNumFaces * kTriangleBytes);
  r->sFaces.nDataSize = static_cast<size_t>(faces * kTriangleBytes);
  r->sVertex.pData = Concatenate(&a->sVertex, a->nNumVertex * kPositionBytes, &b->sVertex,
                                 b->nNumVertex * kPositionBytes);
  r->sVertex.nDataSize = static_cast<size_t>(vertices * kPositionBytes);
  r->sNormals.pData = Concatenate(&a->sNormals, a->nNumVertex * kNormalBytes, &b->sNormals,
                                  b->nNumVertex * kNormalBytes);
  r->sNormals.nDataSize = static_cast<size_t>(vertices * kNormalBytes);

  // Only when A has a set: the result gets its own copy of A's descriptors (A's are never
  // written to), whose first entry aims at A's first set followed by B's (zeros when B has
  // none). Without a set of A, the result has no descriptors at all rather than sharing A's.
  if (const CPODData* aSet = FirstUVSet(*a)) {
    r->psUVW = korvex::AllocateZeroed<CPODData>(a->nUVWCount, "combined stream descriptors");
    std::memcpy(r->psUVW, a->psUVW, a->nUVWCount * sizeof(CPODData));
    r->nUVWCount = a->nUVWCount;
    r->psUVW[0].pData =
        Concatenate(aSet, a->nNumVertex * kUVBytes, FirstUVSet(*b), b->nNumVertex * kUVBytes);
    r->psUVW[0].nDataSize = static_cast<size_t>(vertices * kUVBytes);
    r->psUVW[0].bBorrowed = false;
  }
  return r;
}

SPODMesh* MeshCombiner::createNewMesh(const std::vector<SPODMesh*>& meshes) {
  if (meshes.size() < 2) return nullptr;
  SPODMesh* result = combineMesh(meshes[0], meshes[1]);
  for (size_t k = 2; k < meshes.size() && result != nullptr; ++k) {
    SPODMesh* next = combineMesh(result, meshes[k]);
    // The previous step's arrays were copied into the next; the shared streams stay the first
    // mesh's, so releasing it whole frees nothing the next result uses.
    releaseCombinedMesh(result);
    result = next;
  }
  return result;
}

void MeshCombiner::createCombinedMesh() {}

void MeshCombiner::releaseCombinedMesh(SPODMesh* mesh) {
  if (mesh == nullptr) return;
  std::free(mesh->sFaces.pData);
  std::free(mesh->sVertex.pData);
  std::free(mesh->sNormals.pData);
  if (mesh->psUVW != nullptr && mesh->nUVWCount >= 1) std::free(mesh->psUVW[0].pData);
  std::free(mesh->psUVW);
  std::free(mesh);
}

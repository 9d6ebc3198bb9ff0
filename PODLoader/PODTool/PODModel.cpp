// CPODScene lifetime (construction, adoption of an in-memory scene, release) and the element-type
// lookups of the POD model.

#include "PODModel.h"

#include "PODMeshWeld.h"
#include "PODReader.h"
#include "PODRecordLayout.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <vector>

namespace {

struct TypeInfo {
  unsigned int size;
  unsigned int components;
};

// Indexed by EPODDataType; values past the end have size 0 and no components.
constexpr TypeInfo kTypeInfo[] = {
    {0, 0},  // EPODDataUndefined
    {4, 1},  // EPODDataFloat
    {4, 1},  // EPODDataInt32
    {2, 1},  // EPODDataUInt16
    {4, 4},  // EPODDataColourRGBA
    {4, 4},  // EPODDataColourARGB
    {4, 4},  // EPODDataColourPacked32
    {4, 4},  // EPODDataUByte4
    {4, 3},  // EPODDataNormal101010
    {4, 1},  // EPODDataFixed1616
    {1, 1},  // EPODDataUInt8
    {2, 1},  // EPODDataInt16
    {2, 1},  // EPODDataInt16Norm
    {1, 1},  // EPODDataInt8
    {1, 1},  // EPODDataInt8Norm
};
constexpr unsigned int kTypeCount = sizeof(kTypeInfo) / sizeof(kTypeInfo[0]);

// Counts computed from file data saturate instead of wrapping: a wrapped count could look
// small enough to pass a later size check while meaning something else.
unsigned int Saturate(uint64_t v) { return v > UINT32_MAX ? UINT32_MAX : static_cast<unsigned int>(v); }

template <typename T>
void Release(T*& p) {
  std::free(p);
  p = nullptr;
}

void ReleaseStream(CPODData& data) {
  if (data.bBorrowed)
    data.pData = nullptr;  // the scene's source file holds it
  else
    Release(data.pData);
  data.bBorrowed = false;
  data.nDataSize = 0;
}

void ReleaseMeshArrays(SPODMesh& mesh) {
  PODMeshWeldFree(mesh.pWeld);
  mesh.pWeld = nullptr;
  ReleaseStream(mesh.sFaces);
  Release(mesh.pnStripLength);
  mesh.nStripLengthSize = 0;
  // In an interleaved mesh the descriptors hold offsets into the block and own nothing, except
  // a stream read as its own array before the block arrived: its size field says that it owns
  // one. nUVWCount, not nNumUVW: only descriptors that really exist are visited.
  const bool interleaved = mesh.pInterleaved != nullptr;
  ForEachVertexStream(mesh, EPODUVSets::Held, [interleaved](CPODData& d, const PODVertexStream&) {
    if (!interleaved || d.nDataSize > 0) ReleaseStream(d);
  });
  if (interleaved) {
    Release(mesh.pInterleaved);
    mesh.nInterleavedSize = 0;
  }
  Release(mesh.psUVW);
  mesh.nUVWCount = 0;
  CPODBoneBatches& bb = mesh.sBoneBatches;
  Release(bb.pnBatches);
  bb.nBatchesSize = 0;
  Release(bb.pnBatchBoneCnt);
  bb.nBatchBoneCntSize = 0;
  Release(bb.pnBatchOffset);
  bb.nBatchOffsetSize = 0;
  bb.nBatchCnt = 0;
}

void ReleaseImpl(SPODImpl*& impl) {
  if (impl == nullptr) return;
  std::free(impl->pfCachedFrame);
  std::free(impl->pmWorldCache);
  std::free(impl->pmWorldFrameZero);
  std::free(impl);
  impl = nullptr;
}

}  // namespace

void PODModelRelease(SPODCamera& camera) {
  korvex::PODRecordArraysRelease release;
  korvex::DescribeCamera(camera, release);
  camera = SPODCamera();
}

void PODModelRelease(SPODLight& light) { light = SPODLight(); }

void PODModelRelease(SPODMaterial& material) {
  korvex::PODRecordArraysRelease release;
  korvex::DescribeMaterial(material, release);
  material = SPODMaterial();
}

void PODModelRelease(SPODMesh& mesh) {
  ReleaseMeshArrays(mesh);
  mesh = SPODMesh();
}

void PODModelRelease(SPODNode& node) {
  Release(node.pszName);
  Release(node.pfAnimPosition);
  Release(node.pfAnimRotation);
  Release(node.pfAnimScale);
  // Released as well, although the file format's own release order leaves it out: keeping it
  // would only leak, and nothing observable depends on it.
  Release(node.pfAnimMatrix);
  node = SPODNode();
}

void PODModelRelease(SPODTexture& texture) {
  korvex::PODRecordArraysRelease release;
  korvex::DescribeTexture(texture, release);
  texture = SPODTexture();
}

unsigned int PODModelDataTypeSize(EPODDataType type) {
  return type < kTypeCount ? kTypeInfo[type].size : 0;
}

unsigned int PODModelDataTypeComponentCount(EPODDataType type) {
  return type < kTypeCount ? kTypeInfo[type].components : 0;
}

unsigned int PODModelDataStride(const CPODData& data) {
  return Saturate(uint64_t(data.n) * PODModelDataTypeSize(data.eType));
}

unsigned int PODModelCountIndices(const SPODMesh& mesh) {
  if (mesh.nNumStrips == 0) return Saturate(uint64_t(mesh.nNumFaces) * 3);
  // Only strip lengths that are really present are summed; a mesh that declares more strips
  // than it stores counts the stored ones.
  uint64_t stored = mesh.pnStripLength ? mesh.nStripLengthSize / sizeof(uint32_t) : 0;
  uint64_t strips = mesh.nNumStrips < stored ? mesh.nNumStrips : stored;
  uint64_t total = 0;
  for (uint64_t i = 0; i < strips; ++i) total += uint64_t(mesh.pnStripLength[i]) + 2;
  return Saturate(total);
}

bool PODModelOwnBorrowedArrays(CPODScene& scene) {
  std::vector<CPODData*> borrowed;
  for (uint32_t m = 0; scene.pMesh != nullptr && m < scene.nNumMesh; ++m) {
    SPODMesh& mesh = scene.pMesh[m];
    if (mesh.sFaces.bBorrowed) borrowed.push_back(&mesh.sFaces);
    ForEachVertexStream(mesh, EPODUVSets::Held, [&borrowed](CPODData& d, const PODVertexStream&) {
      if (d.bBorrowed) borrowed.push_back(&d);
    });
  }
  // Every copy is made before any stream changes, so running out of memory changes nothing.
  std::vector<uint8_t*> copies;
  for (const CPODData* d : borrowed) {
    uint8_t* copy = static_cast<uint8_t*>(std::malloc(d->nDataSize > 0 ? d->nDataSize : 1));
    if (copy == nullptr) {
      for (uint8_t* c : copies) std::free(c);
      return false;
    }
    std::memcpy(copy, d->pData, d->nDataSize);
    copies.push_back(copy);
  }
  for (size_t i = 0; i < borrowed.size(); ++i) {
    borrowed[i]->pData = copies[i];
    borrowed[i]->bBorrowed = false;
  }
  delete scene.m_pSourceFile;
  scene.m_pSourceFile = nullptr;
  return true;
}

CPODScene::CPODScene() : SPODScene(), m_pImpl(nullptr), m_pSourceFile(nullptr) {}

CPODScene::~CPODScene() { Destroy(); }

bool CPODScene::ReadFromMemory(const SPODScene& scene) {
  // Copied first: the argument may be this very object. Any previous evaluation state is
  // dropped without being released, exactly as a fresh read does; call Destroy before reuse.
  const SPODScene copy = scene;
  static_cast<SPODScene&>(*this) = SPODScene();
  m_pImpl = nullptr;
  static_cast<SPODScene&>(*this) = copy;
  if (!InitImpl()) return false;
  m_pImpl->bReadFromMemory = true;
  return true;
}

namespace {

// Every record of an array, then the array.
template <typename T>
void ReleaseRecords(T*& records, uint32_t count) {
  if (records != nullptr) {
    for (uint32_t i = 0; i < count; ++i) PODModelRelease(records[i]);
  }
  Release(records);
}

}  // namespace

void CPODScene::Destroy() {
  if (m_pImpl != nullptr && !m_pImpl->bReadFromMemory) {
    ReleaseRecords(pCamera, nNumCamera);
    ReleaseRecords(pLight, nNumLight);
    ReleaseRecords(pMaterial, nNumMaterial);
    ReleaseRecords(pMesh, nNumMesh);
    ReleaseRecords(pNode, nNumNode);
    ReleaseRecords(pTexture, nNumTexture);
  }
  ReleaseImpl(m_pImpl);
  static_cast<SPODScene&>(*this) = SPODScene();
  // Last: the arrays borrowed from it are gone with the zeroed records.
  delete m_pSourceFile;
  m_pSourceFile = nullptr;
}

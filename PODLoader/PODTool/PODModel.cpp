// CPODScene lifetime (construction, adoption of an in-memory scene, release) and the element-type
// lookups of the POD model.

#include "pod/PODModel.h"

#include "pod/Diagnostics.h"
#include "pod/PODSource.h"
#include "pod/PODRecordLayout.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
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

void ReleaseImpl(SPODImpl*& impl) {
  if (impl == nullptr) return;
  std::free(impl->pfCachedFrame);
  std::free(impl->pmWorldCache);
  std::free(impl->pmWorldFrameZero);
  std::free(impl);
  impl = nullptr;
}

// Every name and array of a record's table, then the record is zeroed where it stands. Unlike
// the format's own release order, a node's pfAnimMatrix is released as well: keeping it would
// only leak, and nothing observable depends on it.
template <class R>
void ReleaseRecord(R& record) {
  korvex::PODRecordArraysRelease release;
  korvex::DescribePOD(record, release);
  record = R();
}

}  // namespace

void PODModelRelease(SPODCamera& camera) { ReleaseRecord(camera); }
void PODModelRelease(SPODLight& light) { ReleaseRecord(light); }
void PODModelRelease(SPODMaterial& material) { ReleaseRecord(material); }
void PODModelRelease(SPODNode& node) { ReleaseRecord(node); }
void PODModelRelease(SPODTexture& texture) { ReleaseRecord(texture); }

// The descriptors go after the streams they hold.
void PODModelRelease(SPODMesh& mesh) {
  CPODData* sets = mesh.psUVW;
  ReleaseRecord(mesh);
  std::free(sets);
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

namespace {

// The streams of a scene whose arrays lie in its source file.
struct BorrowedStreams : korvex::PODFieldVisitor {
  static constexpr EPODUVSets kUVSets = EPODUVSets::Held;
  std::vector<CPODData*> found;
  template <class T>
  void records(unsigned int, const char*, T* array, uint32_t count) {
    for (uint32_t i = 0; array != nullptr && i < count; ++i) korvex::DescribePOD(array[i], *this);
  }
  void stream(const PODVertexStream&, CPODData& d, bool) {
    if (d.bBorrowed) found.push_back(&d);
  }
};

}  // namespace

void PODModelOwnBorrowedArrays(CPODScene& scene) {
  BorrowedStreams streams;
  korvex::DescribePOD(static_cast<SPODScene&>(scene), streams);
  for (CPODData* d : streams.found) {
    uint8_t* copy = korvex::AllocateZeroed<uint8_t>(d->nDataSize > 0 ? d->nDataSize : 1,
                                                    "a copy of a stream");
    std::memcpy(copy, d->pData, d->nDataSize);
    d->pData = copy;
    d->bBorrowed = false;
  }
  scene.m_pSourceFile.reset();
}

CPODScene::CPODScene() : SPODScene(), m_pImpl(nullptr), m_bOwnsArrays(false) {}

CPODScene::~CPODScene() { Destroy(); }

bool CPODScene::ReadFromMemory(const SPODScene& scene) {
  // Copied first: the argument may be this very object. Any previous evaluation state is
  // dropped without being released, exactly as a fresh read does; call Destroy before reuse.
  const SPODScene copy = scene;
  static_cast<SPODScene&>(*this) = SPODScene();
  m_pImpl = nullptr;
  m_bOwnsArrays = false;
  static_cast<SPODScene&>(*this) = copy;
  if (!InitImpl()) return false;
  m_pImpl->bReadFromMemory = true;
  return true;
}

void CPODScene::Destroy() {
  // Unlike the format's own release, which frees only with an evaluation state, ownership alone
  // decides: a read that failed part-way is released too instead of leaked.
  if (m_bOwnsArrays) {
    // Records in table order: cameras, lights, materials, meshes, nodes, textures.
    korvex::PODRecordArraysRelease release;
    korvex::DescribePOD(static_cast<SPODScene&>(*this), release);
  }
  ReleaseImpl(m_pImpl);
  m_bOwnsArrays = false;
  static_cast<SPODScene&>(*this) = SPODScene();
  // Last: the arrays borrowed from it are gone with the zeroed records.
  m_pSourceFile.reset();
}

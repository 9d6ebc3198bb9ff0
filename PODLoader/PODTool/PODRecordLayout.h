#pragma once
// The blocks of every record of a POD file, written down once, in the order a file of this system
// holds them: `PODLayout<K>::fields(record, visitor)`. The reader, the writer, the fixed-point
// conversion, the release, the copy-out of borrowed arrays, the saved-scene checks and the
// report's list of expected blocks all walk these tables.
//
// Each entry gives the tag, the member's name, the member, and by the visitor method its kind:
//   word(tag, name, T&)                  one 32-bit integer (signed, unsigned or an enumeration)
//   real(tag, name, float&)              one float (16.16 fixed point in a fixed-point scene)
//   reals(tag, name, float (&)[N])       N floats held in the record
//   older(tag, name, float (&)[N])       N floats of the older node layout: read and converted,
//                                        never written
//   text(tag, name, char*&, need, clear) a string with its zero; `need`: a record cannot be
//                                        written without it (else no block when absent)
//   array(tag, name, T*&, size_t& bytes, int64_t count, clear)
//                                        sized by its block when read; `count` elements written
//   frames(tag, name, float*&, size_t& bytes, perFrame, everyFrame, converted)
//                                        perFrame floats a key: nNumFrame keys written when
//                                        `everyFrame`, else one; what its block holds when read
//   count(tag, name, uint32_t&, T*&)     a record count; reading it allocates the records
//   uvCount(tag, name, uint32_t&, CPODData*&, size_t& held)
//                                        a mesh's texture-coordinate set count; reading it
//                                        allocates the descriptors
//   records(tag, name, T*&, uint32_t)    one container per record, in array order
//   stream(const PODVertexStream&, CPODData&, bool withData)
//                                        a stream container; `withData` false: the stream is an
//                                        offset into the interleaved block
//   payload(tag, name, CPODData&)        a stream's data, or its offset
// `clear`: the reader releases the member as the record starts. Only the members the format
// names are cleared so; the others keep what the record slot held (a second scene in one file
// reads over the first).
//
// The record parameter is a template so that const records can be walked for writing.
// Visitors derive from PODFieldVisitor and declare only the kinds they act on.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

#include "pod/PODModel.h"
#include "pod/PODTag.h"

// The containers of the format, as the reader's report names them.
enum class EPODRecord : uint8_t { File, Scene, Camera, Light, Material, Mesh, Node, Texture, Stream };

namespace korvex {

constexpr bool kNeeded = true, kOptional = false;
constexpr bool kClearedFirst = true, kKept = false;

// The element count of two 32-bit factors (vertices times stride). A product beyond what int64_t
// holds stays at its largest value, a count no block can hold, rather than overflowing.
inline int64_t PODCountProduct(uint32_t a, uint32_t b) {
  const uint64_t product = uint64_t{a} * b;
  return product > uint64_t{INT64_MAX} ? INT64_MAX : static_cast<int64_t>(product);
}
constexpr bool kEveryFrame = true;
constexpr bool kConverted = true, kNotConverted = false;

// Kinds a visitor leaves alone. A visitor names in kUVSets which texture-coordinate descriptors a
// mesh's streams include: the ones its count uses (what a file holds), or every one there is.
struct PODFieldVisitor {
  static constexpr EPODUVSets kUVSets = EPODUVSets::Used;
  template <class... A> void word(A&&...) {}
  template <class... A> void real(A&&...) {}
  template <class... A> void reals(A&&...) {}
  template <class... A> void older(A&&...) {}
  template <class... A> void text(A&&...) {}
  template <class... A> void array(A&&...) {}
  template <class... A> void frames(A&&...) {}
  template <class... A> void count(A&&...) {}
  template <class... A> void uvCount(A&&...) {}
  template <class... A> void records(A&&...) {}
  template <class... A> void stream(A&&...) {}
  template <class... A> void payload(A&&...) {}
};

template <class K>
struct PODLayout;

// Walks the table of a record's kind; `R` may be const.
template <class R, class V>
void DescribePOD(R& record, V& v) {
  PODLayout<std::remove_const_t<R>>::fields(record, v);
}

template <>
struct PODLayout<SPODScene> {
  static constexpr EPODRecord kRecord = EPODRecord::Scene;
  static constexpr unsigned int kTag = PODTag::Scene;
  // The counts come first, then the records in the groups a file of this system holds:
  // cameras, lights, materials, meshes, nodes, textures (not the order of their tags).
  template <class R, class V>
  static void fields(R& s, V& v) {
    v.reals(PODTag::SceneClearCol, "pfColourBackground", s.pfColourBackground);
    v.reals(PODTag::SceneAmbientCol, "pfColourAmbient", s.pfColourAmbient);
    v.count(PODTag::SceneNumCamera, "nNumCamera", s.nNumCamera, s.pCamera);
    v.count(PODTag::SceneNumLight, "nNumLight", s.nNumLight, s.pLight);
    v.count(PODTag::SceneNumMesh, "nNumMesh", s.nNumMesh, s.pMesh);
    v.count(PODTag::SceneNumNode, "nNumNode", s.nNumNode, s.pNode);
    v.word(PODTag::SceneNumMeshNode, "nNumMeshNode", s.nNumMeshNode);
    v.count(PODTag::SceneNumTexture, "nNumTexture", s.nNumTexture, s.pTexture);
    v.count(PODTag::SceneNumMaterial, "nNumMaterial", s.nNumMaterial, s.pMaterial);
    v.word(PODTag::SceneNumFrame, "nNumFrame", s.nNumFrame);
    v.word(PODTag::SceneFlags, "nFlags", s.nFlags);
    v.records(PODTag::SceneCamera, "camera", s.pCamera, s.nNumCamera);
    v.records(PODTag::SceneLight, "light", s.pLight, s.nNumLight);
    v.records(PODTag::SceneMaterial, "material", s.pMaterial, s.nNumMaterial);
    v.records(PODTag::SceneMesh, "mesh", s.pMesh, s.nNumMesh);
    v.records(PODTag::SceneNode, "node", s.pNode, s.nNumNode);
    v.records(PODTag::SceneTexture, "texture", s.pTexture, s.nNumTexture);
  }
};

template <>
struct PODLayout<SPODCamera> {
  static constexpr EPODRecord kRecord = EPODRecord::Camera;
  static constexpr unsigned int kTag = PODTag::SceneCamera;
  template <class R, class V>
  static void fields(R& c, V& v) {
    v.word(PODTag::CamIdxTgt, "nIdxTarget", c.nIdxTarget);
    v.real(PODTag::CamFOV, "fFOV", c.fFOV);
    v.real(PODTag::CamFar, "fFar", c.fFar);
    v.real(PODTag::CamNear, "fNear", c.fNear);
    v.frames(PODTag::CamAnimFOV, "pfAnimFOV", c.pfAnimFOV, c.nAnimFOVSize, 1, kEveryFrame, kConverted);
  }
};

template <>
struct PODLayout<SPODLight> {
  static constexpr EPODRecord kRecord = EPODRecord::Light;
  static constexpr unsigned int kTag = PODTag::SceneLight;
  template <class R, class V>
  static void fields(R& l, V& v) {
    v.word(PODTag::LightIdxTgt, "nIdxTarget", l.nIdxTarget);
    v.reals(PODTag::LightColour, "pfColour", l.pfColour);
    v.word(PODTag::LightType, "eType", l.eType);
  }
};

// A material without block 3001 keeps nIdxTexDiffuse 0 (a fresh slot is zeroed): the first
// texture, not none.
template <>
struct PODLayout<SPODMaterial> {
  static constexpr EPODRecord kRecord = EPODRecord::Material;
  static constexpr unsigned int kTag = PODTag::SceneMaterial;
  template <class R, class V>
  static void fields(R& m, V& v) {
    v.text(PODTag::MatName, "pszName", m.pszName, kNeeded, kClearedFirst);
    v.word(PODTag::MatIdxTexDiffuse, "nIdxTexDiffuse", m.nIdxTexDiffuse);
    v.real(PODTag::MatOpacity, "fMatOpacity", m.fMatOpacity);
    v.reals(PODTag::MatAmbient, "pfMatAmbient", m.pfMatAmbient);
    v.reals(PODTag::MatDiffuse, "pfMatDiffuse", m.pfMatDiffuse);
    v.reals(PODTag::MatSpecular, "pfMatSpecular", m.pfMatSpecular);
    v.real(PODTag::MatShininess, "fMatShininess", m.fMatShininess);
    v.text(PODTag::MatEffectFile, "pszEffectFile", m.pszEffectFile, kOptional, kClearedFirst);
    v.text(PODTag::MatEffectName, "pszEffectName", m.pszEffectName, kOptional, kClearedFirst);
  }
};

template <>
struct PODLayout<SPODTexture> {
  static constexpr EPODRecord kRecord = EPODRecord::Texture;
  static constexpr unsigned int kTag = PODTag::SceneTexture;
  template <class R, class V>
  static void fields(R& t, V& v) {
    v.text(PODTag::TexName, "pszName", t.pszName, kNeeded, kKept);
  }
};

// Files of this system are of the newer node layout: flags and four channels. The older layout
// (static 5004 to 5006, read only) is brought to the newer one by the reader. The matrix channel
// is never converted from fixed point.
template <>
struct PODLayout<SPODNode> {
  static constexpr EPODRecord kRecord = EPODRecord::Node;
  static constexpr unsigned int kTag = PODTag::SceneNode;
  template <class R, class V>
  static void fields(R& n, V& v) {
    v.word(PODTag::NodeIdx, "nIdx", n.nIdx);
    v.text(PODTag::NodeName, "pszName", n.pszName, kNeeded, kClearedFirst);
    v.word(PODTag::NodeIdxMat, "nIdxMaterial", n.nIdxMaterial);
    v.word(PODTag::NodeIdxParent, "nIdxParent", n.nIdxParent);
    v.older(PODTag::NodePos, "pfPosition", n.pfPosition);
    v.older(PODTag::NodeRot, "pfRotation", n.pfRotation);
    v.older(PODTag::NodeScale, "pfScale", n.pfScale);
    v.word(PODTag::NodeAnimFlags, "nAnimFlags", n.nAnimFlags);
    const uint32_t fl = n.nAnimFlags;
    v.frames(PODTag::NodeAnimPos, "pfAnimPosition", n.pfAnimPosition, n.nAnimPositionSize, 3,
             (fl & ePODHasPositionAni) != 0, kConverted);
    v.frames(PODTag::NodeAnimRot, "pfAnimRotation", n.pfAnimRotation, n.nAnimRotationSize, 4,
             (fl & ePODHasRotationAni) != 0, kConverted);
    v.frames(PODTag::NodeAnimScale, "pfAnimScale", n.pfAnimScale, n.nAnimScaleSize, 7,
             (fl & ePODHasScaleAni) != 0, kConverted);
    v.frames(PODTag::NodeAnimMatrix, "pfAnimMatrix", n.pfAnimMatrix, n.nAnimMatrixSize, 16,
             (fl & ePODHasMatrixAni) != 0, kNotConverted);
  }
};

// The interleaved block comes before the streams: whether a stream holds data or an offset is
// decided as each stream block is met.
template <>
struct PODLayout<SPODMesh> {
  static constexpr EPODRecord kRecord = EPODRecord::Mesh;
  static constexpr unsigned int kTag = PODTag::SceneMesh;
  template <class R, class V>
  static void fields(R& m, V& v) {
    auto& b = m.sBoneBatches;
    // Taken before the walk: releasing the interleaved block must not turn offsets into arrays.
    const bool separate = m.pInterleaved == nullptr;
    v.word(PODTag::MeshNumVtx, "nNumVertex", m.nNumVertex);
    v.word(PODTag::MeshNumFaces, "nNumFaces", m.nNumFaces);
    v.uvCount(PODTag::MeshNumUVW, "nNumUVW", m.nNumUVW, m.psUVW, m.nUVWCount);
    v.array(PODTag::MeshStripLength, "pnStripLength", m.pnStripLength, m.nStripLengthSize,
            int64_t{m.nNumStrips}, kClearedFirst);
    v.word(PODTag::MeshNumStrips, "nNumStrips", m.nNumStrips);
    v.array(PODTag::MeshInterleaved, "pInterleaved", m.pInterleaved, m.nInterleavedSize,
            PODCountProduct(m.nNumVertex, m.sVertex.nStride), kClearedFirst);
    v.word(PODTag::MeshBoneBatchBoneMax, "nBatchBoneMax", b.nBatchBoneMax);
    v.word(PODTag::MeshBoneBatchCnt, "nBatchCnt", b.nBatchCnt);
    v.array(PODTag::MeshBoneBatches, "pnBatches", b.pnBatches, b.nBatchesSize,
            int64_t{b.nBatchBoneMax} * b.nBatchCnt, kClearedFirst);
    v.array(PODTag::MeshBoneBatchBoneCnts, "pnBatchBoneCnt", b.pnBatchBoneCnt,
            b.nBatchBoneCntSize, int64_t{b.nBatchCnt}, kClearedFirst);
    v.array(PODTag::MeshBoneBatchOffsets, "pnBatchOffset", b.pnBatchOffset, b.nBatchOffsetSize,
            int64_t{b.nBatchCnt}, kClearedFirst);
    v.stream(PODVertexStream{PODTag::MeshFaces, "sFaces", 0}, m.sFaces, true);
    ForEachVertexStream(m, V::kUVSets, [&](auto& d, const PODVertexStream& which) {
      v.stream(which, d, separate);
    });
  }
};

template <>
struct PODLayout<CPODData> {
  static constexpr EPODRecord kRecord = EPODRecord::Stream;
  template <class R, class V>
  static void fields(R& d, V& v) {
    v.word(PODTag::DataType, "eType", d.eType);
    v.word(PODTag::DataN, "n", d.n);
    v.word(PODTag::DataStride, "nStride", d.nStride);
    v.payload(PODTag::DataData, "pData", d);
  }
};

// The blocks a container of one kind may hold: tags first .. first + count - 1. `required`
// (bit k for tag first + k) are those a complete file always has there; `repeatable` those
// that may come more than once. Derived from the tables above.
struct PODBlockSet {
  unsigned int first;
  unsigned int count;
  uint32_t required;
  uint32_t repeatable;
};
const PODBlockSet& PODBlocksOf(EPODRecord kind);

// Frees the names and arrays of a record's table: every one (`onlyClearedFirst` false, as a
// record is released, records and streams included), or only those the reader clears as the
// record starts.
struct PODRecordArraysRelease : PODFieldVisitor {
  static constexpr EPODUVSets kUVSets = EPODUVSets::Held;
  bool onlyClearedFirst = false;

  void text(unsigned int, const char*, char*& p, bool, bool clear) {
    if (!onlyClearedFirst || clear) Free(p);
  }
  template <class T>
  void array(unsigned int, const char*, T*& p, size_t& bytes, int64_t, bool clear) {
    if (onlyClearedFirst && !clear) return;
    Free(p);
    bytes = 0;
  }
  void frames(unsigned int, const char*, float*& p, size_t& bytes, unsigned int, bool, bool) {
    Free(p);
    bytes = 0;
  }
  template <class T>
  void records(unsigned int, const char*, T*& array, uint32_t count) {
    if (onlyClearedFirst) return;
    for (uint32_t i = 0; array != nullptr && i < count; ++i) PODModelRelease(array[i]);
    Free(array);
  }
  // A stream read as an offset owns nothing; a borrowed one belongs to the scene's source file.
  void stream(const PODVertexStream&, CPODData& d, bool withData);

 private:
  template <class T>
  static void Free(T*& p) {
    std::free(p);
    p = nullptr;
  }
};

}  // namespace korvex

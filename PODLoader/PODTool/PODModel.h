#pragma once
// The in-memory POD scene: plain records, their element types, and the scene class that owns
// them together with its frame-evaluation state.
//
// Ownership: every array and string a record points at is a separate heap block allocated with
// calloc (zero-filled) or malloc and released with free, by CPODScene::Destroy. The one exception
// is a stream array marked bBorrowed: it lies inside the file a scene was read from, which the
// scene keeps until Destroy; such an array is never freed on its own.
//
// Beside the fields of the format, each array carries the byte size it really holds
// (`n...Size`, 0 when absent). The format has no length fields of its own and files can lie
// about their counts, so everything that reads an array checks against these sizes.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "pod/PODMatrix.h"
#include "pod/PODTag.h"

enum EPODDataType : uint32_t {
  EPODDataUndefined = 0,
  EPODDataFloat = 1,
  EPODDataInt32 = 2,
  EPODDataUInt16 = 3,
  EPODDataColourRGBA = 4,
  EPODDataColourARGB = 5,
  EPODDataColourPacked32 = 6,
  EPODDataUByte4 = 7,
  EPODDataNormal101010 = 8,
  EPODDataFixed1616 = 9,
  EPODDataUInt8 = 10,
  EPODDataInt16 = 11,
  EPODDataInt16Norm = 12,
  EPODDataInt8 = 13,
  EPODDataInt8Norm = 14,
};

// Light kinds are carried through unchanged; no value has a meaning of its own here.
enum EPODLight : uint32_t {};

struct CPODData {
  EPODDataType eType{};
  uint32_t n{};
  uint32_t nStride{};
  // The stream's own array, or, in an interleaved mesh, the byte offset of its first element
  // inside SPODMesh::pInterleaved kept as a number in the pointer slot.
  uint8_t* pData{};
  uint32_t nFileOffset{};
  size_t nDataSize{};  // bytes held at pData (separate layout); 0 when absent or an offset
  // pData aims into the file the scene was read from (CPODScene keeps it) and is not freed on its
  // own; whoever replaces such an array just drops the pointer. Writable: the file is mapped
  // privately, so edits stay in memory.
  bool bBorrowed{};
};

struct CPODBoneBatches {
  int32_t* pnBatches{};       // nBatchBoneMax * nBatchCnt node indices
  int32_t* pnBatchBoneCnt{};  // nBatchCnt
  int32_t* pnBatchOffset{};   // nBatchCnt
  int32_t nBatchBoneMax{};
  int32_t nBatchCnt{};
  int32_t nReserved{};  // never read or written; kept zero
  size_t nBatchesSize{};
  size_t nBatchBoneCntSize{};
  size_t nBatchOffsetSize{};
};

struct SPODMesh {
  uint32_t nNumVertex{};
  uint32_t nNumFaces{};
  uint32_t nNumUVW{};
  CPODData sFaces{};
  uint32_t* pnStripLength{};
  uint32_t nNumStrips{};
  CPODData sVertex{};
  CPODData sNormals{};
  CPODData sTangents{};
  CPODData sBinormals{};
  CPODData* psUVW{};  // nNumUVW descriptors
  CPODData sVtxColours{};
  CPODData sBoneIdx{};
  CPODData sBoneWeight{};
  uint8_t* pInterleaved{};
  CPODBoneBatches sBoneBatches{};
  size_t nStripLengthSize{};
  size_t nInterleavedSize{};
  size_t nUVWCount{};  // descriptors allocated at psUVW
};

// One per-vertex stream of a mesh as ForEachVertexStream hands it over.
struct PODVertexStream {
  unsigned int tag;  // its block in a mesh record
  const char* name;  // its member
  uint32_t uvSet;    // the texture-coordinate set (tag 6010 only)
};

// Which texture-coordinate descriptors ForEachVertexStream visits: every one there is (what a
// mesh owns), the ones its count uses, as far as they exist (what a file holds), or none (for a
// reader that fills them in turn itself).
enum class EPODUVSets { Held, Used, None };

// Every per-vertex stream of a mesh, in the order a file holds them: positions, normals,
// tangents, binormals, the texture-coordinate sets, colours, bone indices, bone weights.
// f(CPODData& stream, const PODVertexStream& which); `Mesh` may be const.
template <class Mesh, class F>
void ForEachVertexStream(Mesh& mesh, EPODUVSets sets, F&& f) {
  f(mesh.sVertex, PODVertexStream{PODTag::MeshVtx, "sVertex", 0});
  f(mesh.sNormals, PODVertexStream{PODTag::MeshNor, "sNormals", 0});
  f(mesh.sTangents, PODVertexStream{PODTag::MeshTan, "sTangents", 0});
  f(mesh.sBinormals, PODVertexStream{PODTag::MeshBin, "sBinormals", 0});
  const size_t uvSets = mesh.psUVW == nullptr || sets == EPODUVSets::None ? 0
                        : sets == EPODUVSets::Held
                            ? mesh.nUVWCount
                            : (mesh.nNumUVW < mesh.nUVWCount ? mesh.nNumUVW : mesh.nUVWCount);
  for (size_t k = 0; k < uvSets; ++k) f(mesh.psUVW[k], PODVertexStream{PODTag::MeshUVW, "psUVW", uint32_t(k)});
  f(mesh.sVtxColours, PODVertexStream{PODTag::MeshVtxCol, "sVtxColours", 0});
  f(mesh.sBoneIdx, PODVertexStream{PODTag::MeshBoneIdx, "sBoneIdx", 0});
  f(mesh.sBoneWeight, PODVertexStream{PODTag::MeshBoneWeight, "sBoneWeight", 0});
}

struct SPODNode {
  int32_t nIdx{};
  char* pszName{};
  int32_t nIdxMaterial{};
  int32_t nIdxParent{};
  float pfPosition[3]{};
  float pfRotation[4]{};
  float pfScale[3]{};
  float* pfAnimPosition{};  // 3 floats a key
  float* pfAnimRotation{};  // 4 floats a key
  float* pfAnimScale{};     // 7 floats a key
  uint32_t nAnimFlags{};
  float* pfAnimMatrix{};  // 16 floats a key
  size_t nAnimPositionSize{};
  size_t nAnimRotationSize{};
  size_t nAnimScaleSize{};
  size_t nAnimMatrixSize{};
};

// nAnimFlags bits.
enum : uint32_t {
  ePODHasPositionAni = 1,
  ePODHasRotationAni = 2,
  ePODHasScaleAni = 4,
  ePODHasMatrixAni = 8,
};

struct SPODCamera {
  int32_t nIdxTarget{};
  float fFOV{};
  float fFar{};
  float fNear{};
  float* pfAnimFOV{};
  size_t nAnimFOVSize{};
};

struct SPODLight {
  int32_t nIdxTarget{};
  float pfColour[3]{};
  EPODLight eType{};
};

struct SPODTexture {
  char* pszName{};
};

struct SPODMaterial {
  char* pszName{};
  int32_t nIdxTexDiffuse{};
  float fMatOpacity{};
  float pfMatAmbient[3]{};
  float pfMatDiffuse[3]{};
  float pfMatSpecular[3]{};
  float fMatShininess{};
  char* pszEffectFile{};
  char* pszEffectName{};
};

struct SPODScene {
  float pfColourBackground[3]{};
  float pfColourAmbient[3]{};
  uint32_t nNumCamera{};
  SPODCamera* pCamera{};
  uint32_t nNumLight{};
  SPODLight* pLight{};
  uint32_t nNumMesh{};
  SPODMesh* pMesh{};
  uint32_t nNumNode{};
  uint32_t nNumMeshNode{};
  SPODNode* pNode{};
  uint32_t nNumTexture{};
  SPODTexture* pTexture{};
  uint32_t nNumMaterial{};
  SPODMaterial* pMaterial{};
  uint32_t nNumFrame{};
  uint32_t nFlags{};  // bit 0: real numbers stored as 16.16 fixed point
};

// Frame-evaluation state of one scene.
struct SPODImpl {
  float fCurrentFrame{};
  float fFrameBlend{};
  int32_t nFrameIndex{};
  float* pfCachedFrame{};          // nNumNode
  PODMATRIXf* pmWorldCache{};      // nNumNode
  PODMATRIXf* pmWorldFrameZero{};  // nNumNode
  bool bReadFromMemory{};
};

class CResourceFile;
struct PODReadReport;
class PODWeldPlan;

class CPODScene : public SPODScene {
 public:
  CPODScene();
  ~CPODScene();
  CPODScene(const CPODScene&) = delete;
  CPODScene& operator=(const CPODScene&) = delete;

  // Reading (with a buffer: only the export-options text), adopting, saving, releasing. A
  // report, when given, receives why a failed read stopped and the irregular blocks met.
  bool ReadFromFile(const char* pszFileName, char* pExpOpt = nullptr, unsigned long count = 0,
                    PODReadReport* report = nullptr);
  bool ReadFromMemory(const SPODScene& scene);
  bool SavePOD(const char* pszFilename, const char* pszExpOpt = nullptr);
  // The same, with the meshes welded as `plan` (PODMeshWeld.h) says; false, before anything is
  // opened, when a weld of the plan no longer fits its mesh.
  bool SavePOD(const char* pszFilename, const char* pszExpOpt, const PODWeldPlan& plan);
  void Destroy();

  // Frame evaluation.
  bool InitImpl();
  void FlushCache();
  void SetFrame(float fFrame);
  void GetScalingMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void GetRotationMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void GetTranslation(PODVECTOR3f& out, const SPODNode& node) const;
  void GetTranslationMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void GetWorldMatrixNoCache(PODMATRIXf& out, const SPODNode& node) const;
  void GetWorldMatrix(PODMATRIXf& out, const SPODNode& node) const;
  void GetBoneWorldMatrix(PODMATRIXf& out, const SPODNode& meshNode, const SPODNode& boneNode);
  float GetCamera(PODVECTOR3f& from, PODVECTOR3f& to, PODVECTOR3f& up, unsigned int camera) const;
  float GetCameraPos(PODVECTOR3f& from, PODVECTOR3f& to, unsigned int camera) const;
  void GetLight(PODVECTOR3f& position, PODVECTOR3f& direction, unsigned int light) const;
  PODVECTOR4f GetLightPosition(unsigned int light) const;
  PODVECTOR4f GetLightDirection(unsigned int light) const;

  SPODImpl* m_pImpl;
  // Whether Destroy releases the records and their arrays: set by a read (also one that fails
  // part-way, so its partial arrays are not leaked) and by the scene builder; clear for a scene
  // adopted by ReadFromMemory, whose arrays stay their builder's.
  bool m_bOwnsArrays;
  // The file the scene was read from, kept while stream arrays are borrowed from it (released
  // by Destroy after the arrays).
  std::unique_ptr<CResourceFile> m_pSourceFile;
};

unsigned int PODModelDataTypeSize(EPODDataType type);
unsigned int PODModelDataTypeComponentCount(EPODDataType type);
unsigned int PODModelDataStride(const CPODData& data);
unsigned int PODModelCountIndices(const SPODMesh& mesh);

// Releases what one record owns and zeroes it; the record itself stays where it is.
void PODModelRelease(SPODCamera& camera);
void PODModelRelease(SPODLight& light);
void PODModelRelease(SPODMaterial& material);
void PODModelRelease(SPODMesh& mesh);
void PODModelRelease(SPODNode& node);
void PODModelRelease(SPODTexture& texture);

// Copies every stream array the scene borrows from its source file into an array of its own and
// lets the file go, for a scene whose file is about to be overwritten.
void PODModelOwnBorrowedArrays(CPODScene& scene);

// Fixed point <-> float of every real value of the scene (vertex data excepted); flips bit 0.
void PODModelToggleFixedPoint(SPODScene& scene);
void FixedToFloat(float* dst, const int* src, unsigned int count);
void FloatToFixed(int* dst, const float* src, unsigned int count);

bool WritePOD(FILE* file, const char* pszExpOpt, const SPODScene& scene);
// The same, with the meshes welded as `plan` says; false when a weld does not fit its mesh.
bool WritePOD(FILE* file, const char* pszExpOpt, const SPODScene& scene, const PODWeldPlan& plan);

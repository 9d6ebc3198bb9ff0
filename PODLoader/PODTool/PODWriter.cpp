#include "PODWriter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ByteIO.h"
#include "PODMeshWeld.h"
#include "PODRecordLayout.h"
#include "PODTag.h"

namespace {

bool HostIsLittleEndian() {
  const uint16_t probe = 1;
  uint8_t first;
  memcpy(&first, &probe, 1);
  return first == 1;
}

bool WriteWord(FILE* pFile, uint32_t v) {
  uint8_t b[4];
  korvex::StoreU32LE(b, v);
  return WriteFileSafe(pFile, b, 4);
}

template <typename T>
bool WriteValue(FILE* pFile, unsigned int nName, const T& v) {
  static_assert(sizeof(T) == 4, "one 32-bit word");
  uint32_t w;
  memcpy(&w, &v, 4);
  uint8_t b[4];
  korvex::StoreU32LE(b, w);
  return WriteData(pFile, nName, b, 4);
}

// Byte length of `count` elements of `elementSize` bytes, when it is a length a block can have
// and the array holds that much; an array asked for beyond what it holds is refused rather
// than read past its end.
bool ArrayLength(uint64_t count, uint64_t elementSize, size_t nHeld, unsigned int& nLen) {
  if (elementSize != 0 && count > UINT64_MAX / elementSize) return false;
  uint64_t bytes = count * elementSize;
  if (bytes > 0xFFFFFFFFu || bytes > nHeld) return false;
  nLen = static_cast<unsigned int>(bytes);
  return true;
}

// A block for a string with its zero; a record cannot be written without its name.
bool WriteName(FILE* pFile, unsigned int nName, const char* psz) {
  if (!psz) return false;
  size_t len = strlen(psz) + 1;
  if (len > 0xFFFFFFFFu) return false;
  return WriteData(pFile, nName, psz, static_cast<unsigned int>(len));
}

// An optional string: no block when absent.
bool WriteOptionalString(FILE* pFile, unsigned int nName, const char* psz) {
  return !psz || WriteName(pFile, nName, psz);
}

// An optional array of 32-bit words: no block when absent, else `count` elements of
// `elementBytes` that must lie within the nHeld bytes the array holds.
bool WriteWordArray(FILE* pFile, unsigned int nName, const void* p, uint64_t count,
                    uint64_t elementBytes, size_t nHeld) {
  if (!p) return true;
  unsigned int nLen;
  return ArrayLength(count, elementBytes, nHeld, nLen) && WriteDataWords(pFile, nName, p, nLen);
}

// Writes the blocks of a record's description in its order.
struct BlockWriter {
  FILE* f;
  unsigned int nNumFrame;
  bool ok = true;

  template <class T>
  void word(unsigned int tag, const T& v) {
    ok = ok && WriteValue(f, tag, v);
  }
  void real(unsigned int tag, const float& v) { ok = ok && WriteValue(f, tag, v); }
  void reals(unsigned int tag, const float (&v)[3]) { ok = ok && WriteData(f, tag, v); }
  void text(unsigned int tag, const char* p, bool needed, bool) {
    ok = ok && (needed ? WriteName(f, tag, p) : WriteOptionalString(f, tag, p));
  }
  void frames(unsigned int tag, const float* p, size_t bytes, unsigned int perFrame, bool) {
    ok = ok && WriteWordArray(f, tag, p, nNumFrame, 4 * uint64_t{perFrame}, bytes);
  }
};

// A record: its container around the blocks of its description.
template <class R, class Describe>
bool WriteFields(FILE* f, unsigned int container, const R& record, unsigned int nNumFrame, Describe describe) {
  BlockWriter writer{f, nNumFrame};
  if (!WriteMarker(f, container, false, 0)) return false;
  describe(record, writer);
  return writer.ok && WriteMarker(f, container, true, 0);
}

// A stream of a welded mesh is written as its rebuilt array would be, gathered from the old
// streams a slice at a time; any other stream as it is.
// The stream a weld rebuilds a vertex stream as; false for the streams it leaves in their old
// order (tangents, binormals, colours, texture-coordinate sets beyond the second).
bool WeldedAs(const PODVertexStream& stream, EPODWeldStream& welded) {
  switch (stream.tag) {
    case PODTag::MeshVtx: welded = EPODWeldStream::Vertex; return true;
    case PODTag::MeshNor: welded = EPODWeldStream::Normals; return true;
    case PODTag::MeshUVW:
      welded = stream.uvSet == 0 ? EPODWeldStream::UVW0 : EPODWeldStream::UVW1;
      return stream.uvSet < 2;
    case PODTag::MeshBoneIdx: welded = EPODWeldStream::BoneIdx; return true;
    case PODTag::MeshBoneWeight: welded = EPODWeldStream::BoneWeight; return true;
    default: return false;
  }
}

bool WriteStream(FILE* f, unsigned int nName, const SPODMesh& m, const CPODData& data,
                 EPODWeldStream stream, unsigned int nCount, bool bValidData) {
  if (m.pWeld == nullptr || PODMeshWeldedStream(m, *m.pWeld, stream) == nullptr)
    return WriteCPODData(f, nName, data, nCount, bValidData);
  const SPODMeshWeld& weld = *m.pWeld;
  unsigned int nLen = 0;
  if (!ArrayLength(nCount, data.nStride, PODMeshWeldedBytes(m, weld, stream), nLen)) return false;
  // Slices large enough that the file's buffer passes most of them on without copying.
  static const size_t kSlice = 1 << 18;
  uint8_t* slice = nLen > 0 ? static_cast<uint8_t*>(malloc(std::min<size_t>(nLen, kSlice))) : nullptr;
  if (nLen > 0 && slice == nullptr) return false;
  bool ok = WriteMarker(f, nName, false, 0) && WriteData(f, PODTag::DataType, data.eType) &&
            WriteData(f, PODTag::DataN, data.n) && WriteData(f, PODTag::DataStride, data.nStride) &&
            WriteMarker(f, PODTag::DataData, false, nLen);
  for (size_t at = 0; ok && at < nLen; at += kSlice) {
    const size_t count = std::min<size_t>(nLen - at, kSlice);
    PODMeshWeldGather(m, weld, stream, at, count, slice);
    ok = WriteFileSafe(f, slice, static_cast<unsigned int>(count));
  }
  free(slice);
  return ok && WriteMarker(f, PODTag::DataData, true, 0) && WriteMarker(f, nName, true, 0);
}

bool WriteMesh(FILE* f, const SPODMesh& m) {
  const CPODBoneBatches& b = m.sBoneBatches;
  // The face count walks the strip lengths: they must all be there.
  if (m.nNumStrips != 0 && (!m.pnStripLength || uint64_t(m.nNumStrips) * 4 > m.nStripLengthSize))
    return false;
  if (m.nNumUVW != 0 && (!m.psUVW || m.nNumUVW > m.nUVWCount)) return false;
  // Bone counts are signed in memory: a negative product is no length at all.
  const int64_t batchEntries = int64_t(b.nBatchBoneMax) * int64_t(b.nBatchCnt);
  if ((b.pnBatches && batchEntries < 0) ||
      ((b.pnBatchBoneCnt || b.pnBatchOffset) && b.nBatchCnt < 0))
    return false;

  // The interleaved block is sized by the vertex stride: with vertices but no stride it would
  // be written empty, and read back the mesh would lose its layout and take each stream's
  // 4-byte offset for that stream's data.
  if (m.pInterleaved && m.nNumVertex != 0 && m.sVertex.nStride == 0) return false;

  const bool separate = m.pInterleaved == nullptr;
  const unsigned int nVtx = m.nNumVertex;
  bool ok = WriteMarker(f, PODTag::SceneMesh, false, 0) &&
            WriteData(f, PODTag::MeshNumVtx, m.nNumVertex) &&
            WriteData(f, PODTag::MeshNumFaces, m.nNumFaces) &&
            WriteData(f, PODTag::MeshNumUVW, m.nNumUVW) &&
            WriteWordArray(f, PODTag::MeshStripLength, m.pnStripLength, m.nNumStrips, 4,
                           m.nStripLengthSize) &&
            WriteData(f, PODTag::MeshNumStrips, m.nNumStrips);
  if (ok && m.pInterleaved) {
    unsigned int nLen;
    ok = ArrayLength(nVtx, m.sVertex.nStride, m.nInterleavedSize, nLen) &&
         WriteData(f, PODTag::MeshInterleaved, m.pInterleaved, nLen);
  }
  ok = ok && WriteData(f, PODTag::MeshBoneBatchBoneMax, b.nBatchBoneMax) &&
       WriteData(f, PODTag::MeshBoneBatchCnt, b.nBatchCnt) &&
       WriteWordArray(f, PODTag::MeshBoneBatches, b.pnBatches, uint64_t(batchEntries), 4,
                      b.nBatchesSize) &&
       WriteWordArray(f, PODTag::MeshBoneBatchBoneCnts, b.pnBatchBoneCnt, uint64_t(b.nBatchCnt), 4,
                      b.nBatchBoneCntSize) &&
       WriteWordArray(f, PODTag::MeshBoneBatchOffsets, b.pnBatchOffset, uint64_t(b.nBatchCnt), 4,
                      b.nBatchOffsetSize) &&
       WriteStream(f, PODTag::MeshFaces, m, m.sFaces, EPODWeldStream::Faces, PODModelCountIndices(m), true);
  ForEachVertexStream(m, EPODUVSets::Used, [&](const CPODData& d, const PODVertexStream& stream) {
    EPODWeldStream welded;
    ok = ok && (WeldedAs(stream, welded) ? WriteStream(f, stream.tag, m, d, welded, nVtx, separate)
                                         : WriteCPODData(f, stream.tag, d, nVtx, separate));
  });
  return ok && WriteMarker(f, PODTag::SceneMesh, true, 0);
}

// A channel holds nNumFrame keys when its flag is set, else the one static key.
uint64_t Keys(uint32_t flags, uint32_t bit, unsigned int nNumFrame) {
  return (flags & bit) ? nNumFrame : 1;
}

bool WriteNode(FILE* f, const SPODNode& n, unsigned int nNumFrame) {
  const uint32_t fl = n.nAnimFlags;
  return WriteMarker(f, PODTag::SceneNode, false, 0) && WriteData(f, PODTag::NodeIdx, n.nIdx) &&
         WriteName(f, PODTag::NodeName, n.pszName) &&
         WriteData(f, PODTag::NodeIdxMat, n.nIdxMaterial) &&
         WriteData(f, PODTag::NodeIdxParent, n.nIdxParent) &&
         WriteData(f, PODTag::NodeAnimFlags, n.nAnimFlags) &&
         WriteWordArray(f, PODTag::NodeAnimPos, n.pfAnimPosition,
                        Keys(fl, ePODHasPositionAni, nNumFrame), 12, n.nAnimPositionSize) &&
         WriteWordArray(f, PODTag::NodeAnimRot, n.pfAnimRotation,
                        Keys(fl, ePODHasRotationAni, nNumFrame), 16, n.nAnimRotationSize) &&
         WriteWordArray(f, PODTag::NodeAnimScale, n.pfAnimScale,
                        Keys(fl, ePODHasScaleAni, nNumFrame), 28, n.nAnimScaleSize) &&
         WriteWordArray(f, PODTag::NodeAnimMatrix, n.pfAnimMatrix,
                        Keys(fl, ePODHasMatrixAni, nNumFrame), 64, n.nAnimMatrixSize) &&
         WriteMarker(f, PODTag::SceneNode, true, 0);
}

// Records of one kind in array order; a count without its array cannot be written.
template <typename T, typename Fn>
bool WriteRecords(const T* array, unsigned int count, Fn write) {
  if (count != 0 && !array) return false;
  for (unsigned int i = 0; i < count; ++i)
    if (!write(array[i])) return false;
  return true;
}

}  // namespace

bool WriteFileSafe(FILE* pFile, const void* lpBuffer, unsigned int nSize) {
  if (nSize == 0) return true;
  return fwrite(lpBuffer, 1, nSize, pFile) == nSize;
}

bool WriteMarker(FILE* pFile, unsigned int nName, bool bEnd, unsigned int nLen) {
  return WriteWord(pFile, bEnd ? (nName | PODTag::End) : nName) && WriteWord(pFile, nLen);
}

bool WriteData(FILE* pFile, unsigned int nName, const void* pData, unsigned int nLen) {
  if (!pData) return true;
  return WriteMarker(pFile, nName, false, nLen) && WriteFileSafe(pFile, pData, nLen) &&
         WriteMarker(pFile, nName, true, 0);
}

bool WriteDataWords(FILE* pFile, unsigned int nName, const void* pData, unsigned int nLen) {
  if (!pData || HostIsLittleEndian()) return WriteData(pFile, nName, pData, nLen);
  std::vector<uint8_t> le(nLen);
  memcpy(le.data(), pData, nLen);
  for (size_t i = 0; i + 4 <= nLen; i += 4) {
    uint32_t v;
    memcpy(&v, le.data() + i, 4);
    korvex::StoreU32LE(le.data() + i, v);
  }
  return WriteData(pFile, nName, le.data(), nLen);
}

bool WriteData(FILE* pFile, unsigned int nName, int n) { return WriteValue(pFile, nName, n); }
bool WriteData(FILE* pFile, unsigned int nName, unsigned int n) {
  return WriteValue(pFile, nName, n);
}
bool WriteData(FILE* pFile, unsigned int nName, float f) { return WriteValue(pFile, nName, f); }
bool WriteData(FILE* pFile, unsigned int nName, EPODDataType e) {
  return WriteValue(pFile, nName, e);
}
bool WriteData(FILE* pFile, unsigned int nName, EPODLight e) { return WriteValue(pFile, nName, e); }

bool WriteData(FILE* pFile, unsigned int nName, const float (&pf)[3]) {
  uint8_t b[12];
  for (int i = 0; i < 3; ++i) {
    uint32_t w;
    memcpy(&w, &pf[i], 4);
    korvex::StoreU32LE(b + 4 * i, w);
  }
  return WriteData(pFile, nName, b, 12);
}

bool WriteCPODData(FILE* pFile, unsigned int nName, const CPODData& data, unsigned int nCount,
                   bool bValidData) {
  unsigned int nLen = 0;
  uintptr_t offset = reinterpret_cast<uintptr_t>(data.pData);
  if (bValidData) {
    if (data.pData && !ArrayLength(nCount, data.nStride, data.nDataSize, nLen)) return false;
  } else if (data.nDataSize != 0 || offset > 0xFFFFFFFFu) {
    // An interleaved stream keeps an offset, not an array of its own: a stream that holds one
    // (a file with the interleaved block after the streams) has no offset to write.
    return false;
  }
  bool ok = WriteMarker(pFile, nName, false, 0) && WriteData(pFile, PODTag::DataType, data.eType) &&
            WriteData(pFile, PODTag::DataN, data.n) &&
            WriteData(pFile, PODTag::DataStride, data.nStride);
  if (ok && bValidData) ok = WriteData(pFile, PODTag::DataData, data.pData, nLen);
  if (ok && !bValidData) ok = WriteData(pFile, PODTag::DataData, static_cast<unsigned int>(offset));
  return ok && WriteMarker(pFile, nName, true, 0);
}

bool WritePOD(FILE* pFile, const char* pszExpOpt, const SPODScene& s) {
  if (!pFile) return false;
  if (!WriteData(pFile, PODTag::FormatVersion, PODTag::kFormatVersion,
                 PODTag::kFormatVersionLength))
    return false;
  if (pszExpOpt && *pszExpOpt && !WriteName(pFile, PODTag::ExportOptions, pszExpOpt)) return false;
  const unsigned int frames = s.nNumFrame;
  return WriteMarker(pFile, PODTag::Scene, false, 0) &&
         WriteData(pFile, PODTag::SceneClearCol, s.pfColourBackground) &&
         WriteData(pFile, PODTag::SceneAmbientCol, s.pfColourAmbient) &&
         WriteData(pFile, PODTag::SceneNumCamera, s.nNumCamera) &&
         WriteData(pFile, PODTag::SceneNumLight, s.nNumLight) &&
         WriteData(pFile, PODTag::SceneNumMesh, s.nNumMesh) &&
         WriteData(pFile, PODTag::SceneNumNode, s.nNumNode) &&
         WriteData(pFile, PODTag::SceneNumMeshNode, s.nNumMeshNode) &&
         WriteData(pFile, PODTag::SceneNumTexture, s.nNumTexture) &&
         WriteData(pFile, PODTag::SceneNumMaterial, s.nNumMaterial) &&
         WriteData(pFile, PODTag::SceneNumFrame, s.nNumFrame) &&
         WriteData(pFile, PODTag::SceneFlags, s.nFlags) &&
         WriteRecords(s.pCamera, s.nNumCamera,
                      [&](const SPODCamera& c) {
                        return WriteFields(pFile, PODTag::SceneCamera, c, frames,
                                           [](auto& r, auto& v) { korvex::DescribeCamera(r, v); });
                      }) &&
         WriteRecords(s.pLight, s.nNumLight,
                      [&](const SPODLight& l) {
                        return WriteFields(pFile, PODTag::SceneLight, l, frames,
                                           [](auto& r, auto& v) { korvex::DescribeLight(r, v); });
                      }) &&
         WriteRecords(s.pMaterial, s.nNumMaterial,
                      [&](const SPODMaterial& m) {
                        return WriteFields(pFile, PODTag::SceneMaterial, m, frames,
                                           [](auto& r, auto& v) { korvex::DescribeMaterial(r, v); });
                      }) &&
         WriteRecords(s.pMesh, s.nNumMesh,
                      [&](const SPODMesh& m) { return WriteMesh(pFile, m); }) &&
         WriteRecords(s.pNode, s.nNumNode,
                      [&](const SPODNode& n) { return WriteNode(pFile, n, frames); }) &&
         WriteRecords(s.pTexture, s.nNumTexture,
                      [&](const SPODTexture& t) {
                        return WriteFields(pFile, PODTag::SceneTexture, t, frames,
                                           [](auto& r, auto& v) { korvex::DescribeTexture(r, v); });
                      }) &&
         WriteMarker(pFile, PODTag::Scene, true, 0);
}

bool CPODScene::SavePOD(const char* pszFilename, const char* pszExpOpt) {
  FILE* pFile = fopen(pszFilename, "wb+");
  if (!pFile) return false;
  // Blocks are small and many: a buffer gathers them into few writes, while stream arrays larger
  // than it go to the file directly rather than through it.
  static const size_t kBuffer = 1 << 16;
  char* buffer = static_cast<char*>(malloc(kBuffer));
  if (buffer) setvbuf(pFile, buffer, _IOFBF, kBuffer);
  bool ok = WritePOD(pFile, pszExpOpt, *this);
  // A close that cannot flush the last bytes is a short write too.
  if (fclose(pFile) != 0) ok = false;
  free(buffer);
  return ok;
}

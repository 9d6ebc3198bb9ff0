#include "pod/PODWriter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "pod/ByteIO.h"
#include "pod/Diagnostics.h"
#include "pod/FileHandle.h"
#include "pod/PODMeshWeld.h"
#include "pod/PODRecordLayout.h"
#include "pod/PODTag.h"
#include "pod/PODWeldGatherAhead.h"

namespace {

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

// Why a mesh's counts cannot be written at all, or null: the face count walks the strip lengths,
// which must all be there; every texture-coordinate set counted must exist; and an interleaved
// block is sized by the vertex stride, so with vertices but no stride it would be written empty,
// and read back the mesh would lose its layout and take each stream's offset for its data.
const char* WhyUnwritable(const SPODMesh& m) {
  if (m.nNumStrips != 0 && (!m.pnStripLength || uint64_t(m.nNumStrips) * 4 > m.nStripLengthSize))
    return "strip lengths are shorter than its strips";
  if (m.nNumUVW != 0 && (!m.psUVW || m.nNumUVW > m.nUVWCount))
    return "fewer texture-coordinate sets are stored than declared";
  if (m.pInterleaved && m.nNumVertex != 0 && m.sVertex.nStride == 0)
    return "an interleaved block with no vertex stride";
  return nullptr;
}
// The stream a weld rebuilds a stream as; false for the streams it leaves in their old order
// (tangents, binormals, colours, texture-coordinate sets beyond the second).
bool WeldedAs(const PODVertexStream& stream, EPODWeldStream& welded) {
  switch (stream.tag) {
    case PODTag::MeshFaces: welded = EPODWeldStream::Faces; return true;
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

// Writes the blocks of a record's table in its order. Without a file it writes nothing and
// names the first member whose write would read beyond what the member holds; a missing name or
// record array is then not its concern, nor a stream a weld rebuilds (the weld is checked whole).
struct BlockWriter : korvex::PODFieldVisitor {
  FILE* f;  // null: a check
  unsigned int nNumFrame = 0;
  const PODWeldPlan* plan = nullptr;
  bool ok = true;
  std::string shortfall = std::string();
  const char* kind = nullptr;  // the record being written, for the shortfall's text
  uint32_t index = 0;
  // The mesh being written, as written, and its weld (null: none).
  const SPODMesh* mesh = nullptr;
  const SPODMeshWeld* weld = nullptr;
  SPODMesh welded{};
  // The stream being written: its data length, whether it holds data (else an offset), and the
  // weld that rebuilds it as `rebuiltAs` (null: written from its own array).
  unsigned int nLen = 0;
  bool withData = true;
  const SPODMeshWeld* rebuild = nullptr;
  EPODWeldStream rebuiltAs = EPODWeldStream::Faces;
  // Without a file, `listing` collects the rebuilt streams a save writes, in its order; a save
  // takes their slices from a gatherer in that order, if it has one.
  std::vector<PODWeldGatherRequest>* listing = nullptr;
  PODWeldGatherAhead* ahead = nullptr;
  size_t rebuilt = 0;  // rebuilt streams written so far

  // A write that would read beyond what a member holds fails; a check names the first.
  void Short(const std::string& what) {
    if (!f && ok) shortfall = (kind ? std::string(kind) + " " + std::to_string(index) + ": " : "") + what;
    ok = false;
  }
  template <class W>
  void Put(W&& write) {
    ok = ok && (!f || write());
  }

  template <class T>
  void word(unsigned int tag, const char*, const T& v) {
    Put([&] { return WriteValue(f, tag, v); });
  }
  void real(unsigned int tag, const char*, float v) { word(tag, nullptr, v); }
  void reals(unsigned int tag, const char*, const float (&v)[3]) { Put([&] { return WriteData(f, tag, v); }); }
  void text(unsigned int tag, const char*, const char* p, bool needed, bool) {
    Put([&] { return (!needed && !p) || WriteName(f, tag, p); });
  }
  template <class T>
  void count(unsigned int tag, const char*, uint32_t n, const T*) {
    word(tag, nullptr, n);
  }
  template <class... A>
  void uvCount(unsigned int tag, const char*, uint32_t n, A&&...) {
    word(tag, nullptr, n);
  }
  // No block when absent; a negative count (bone counts are signed) is no length at all.
  template <class T>
  void array(unsigned int tag, const char* name, const T* p, size_t bytes, int64_t count, bool) {
    unsigned int n;
    if (!ok || !p) return;
    if (count < 0 || !ArrayLength(uint64_t(count), sizeof(T), bytes, n))
      return Short(std::string(name) + " holds fewer than its " + std::to_string(count) + " elements");
    Put([&] { return sizeof(T) == 1 ? WriteData(f, tag, p, n) : WriteDataWords(f, tag, p, n); });
  }
  void frames(unsigned int tag, const char* name, const float* p, size_t bytes, unsigned int perFrame,
              bool everyFrame, bool) {
    const uint64_t keys = everyFrame ? nNumFrame : 1;
    unsigned int n;
    if (!ok || !p) return;
    if (!ArrayLength(keys, 4 * uint64_t{perFrame}, bytes, n))
      return Short(std::string(name) + " holds fewer than " + std::to_string(keys) + " keys");
    Put([&] { return WriteDataWords(f, tag, p, n); });
  }
  // Records of one kind in array order; a count without its array cannot be written.
  template <class T>
  void records(unsigned int tag, const char* name, const T* array, uint32_t count) {
    if (array == nullptr) ok = ok && (count == 0 || !f);
    for (uint32_t i = 0; ok && array != nullptr && i < count; ++i) {
      kind = name;
      index = i;
      const T* record = &array[i];
      if constexpr (std::is_same<T, SPODMesh>::value) {
        // Welded, the mesh holds the vertices its weld keeps; a save knows the weld to fit.
        weld = plan != nullptr ? plan->weld(i) : nullptr;
        if (!f && weld != nullptr && !PODMeshWeldFits(array[i], *weld))
          return Short("its streams have changed since it was welded");
        if (weld != nullptr) {
          welded = array[i];
          welded.nNumVertex = weld->nKept;
          record = &welded;
        }
        mesh = record;
        if (const char* why = WhyUnwritable(*record)) return Short(why);
      }
      Put([&] { return WriteMarker(f, tag, false, 0); });
      korvex::DescribePOD(*record, *this);
      Put([&] { return WriteMarker(f, tag, true, 0); });
    }
  }
  void stream(const PODVertexStream& s, const CPODData& d, bool data) {
    const unsigned int count = s.tag == PODTag::MeshFaces ? PODModelCountIndices(*mesh) : mesh->nNumVertex;
    const bool rebuilt = weld && WeldedAs(s, rebuiltAs) && PODMeshWeldedStream(*mesh, *weld, rebuiltAs);
    Stream(s.tag, s.name, d, count, data, rebuilt ? weld : nullptr);
  }
  // A stream container of `count` elements. Refused before anything is written when the data is
  // asked for beyond what the stream (or its weld) holds, or when an interleaved stream holds an
  // array of its own (a file with the interleaved block after the streams) and so has no offset.
  void Stream(unsigned int tag, const char* name, const CPODData& d, unsigned int count, bool data,
              const SPODMeshWeld* w) {
    if (!ok || (w && !f && !listing)) return;
    nLen = 0;
    withData = data;
    rebuild = w;
    if (w != nullptr) {
      ok = ArrayLength(count, d.nStride, PODMeshWeldedBytes(*mesh, *w, rebuiltAs), nLen);
    } else if (data) {
      if (d.pData && !ArrayLength(count, d.nStride, d.nDataSize, nLen))
        Short(std::string(name) + " is shorter than its " + std::to_string(count) + " elements");
    } else if (d.nDataSize != 0 || reinterpret_cast<uintptr_t>(d.pData) > 0xFFFFFFFFu) {
      Short(std::string(name) + " holds an array of its own in an interleaved mesh");
    }
    Put([&] { return WriteMarker(f, tag, false, 0); });
    korvex::DescribePOD(d, *this);
    Put([&] { return WriteMarker(f, tag, true, 0); });
  }
  // A stream's data: nLen bytes of its own array, its offset, or the array its weld rebuilds,
  // gathered from the old streams a slice at a time.
  void payload(unsigned int tag, const char*, const CPODData& d) {
    if (!ok) return;
    if (!f) {
      if (listing != nullptr && rebuild != nullptr) listing->push_back({*mesh, rebuild, rebuiltAs, nLen});
      return;
    }
    if (rebuild == nullptr) {
      ok = withData ? WriteData(f, tag, d.pData, nLen)
                    : WriteData(f, tag, static_cast<unsigned int>(reinterpret_cast<uintptr_t>(d.pData)));
      return;
    }
    // Slices large enough that the file's buffer passes most of them on without copying.
    const size_t kSlice = PODWeldGatherAhead::kSlice;
    const size_t request = rebuilt++;
    uint8_t* slice = nullptr;
    ok = WriteMarker(f, tag, false, nLen);
    for (size_t at = 0; ok && at < nLen; at += kSlice) {
      const size_t n = std::min<size_t>(nLen - at, kSlice);
      bool gathered = true;
      const uint8_t* data = ahead != nullptr ? ahead->Take(request, at, n, gathered) : nullptr;
      if (data == nullptr) {
        if (slice == nullptr)
          slice = static_cast<uint8_t*>(korvex::AllocateUnfilled(std::min<size_t>(nLen, kSlice), "a stream slice"));
        gathered = PODMeshWeldGather(*mesh, *rebuild, rebuiltAs, at, n, slice);
        data = slice;
      }
      ok = gathered && WriteFileSafe(f, data, static_cast<unsigned int>(n));
      if (data != slice) ahead->Done();
    }
    free(slice);
    ok = ok && WriteMarker(f, tag, true, 0);
  }
};

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
  if (!pData || korvex::HostIsLittleEndian()) return WriteData(pFile, nName, pData, nLen);
  const uint8_t* bytes = static_cast<const uint8_t*>(pData);
  std::vector<uint8_t> le(bytes, bytes + nLen);
  korvex::WordsLittleEndian(le.data(), nLen);
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
  return WriteDataWords(pFile, nName, pf, 12);
}

bool WriteCPODData(FILE* pFile, unsigned int nName, const CPODData& data, unsigned int nCount,
                   bool bValidData) {
  BlockWriter writer{{}, pFile};
  writer.Stream(nName, "", data, nCount, bValidData, nullptr);
  return writer.ok;
}

namespace {

// Every weld of the plan is for a mesh of the scene and fits it.
bool PlanFits(const SPODScene& s, const PODWeldPlan* plan) {
  for (uint32_t m = 0; plan != nullptr && m < plan->meshes(); ++m) {
    const SPODMeshWeld* weld = plan->weld(m);
    if (weld != nullptr && (m >= s.nNumMesh || s.pMesh == nullptr || !PODMeshWeldFits(s.pMesh[m], *weld)))
      return false;
  }
  return true;
}

// A gatherer of the streams `plan` rebuilds, when there are enough of them to gain from a
// second thread (null otherwise).
std::unique_ptr<PODWeldGatherAhead> GatherAhead(const SPODScene& s, const PODWeldPlan* plan) {
  static const size_t kWorthAThread = size_t{4} << 20;
  if (plan == nullptr || plan->empty()) return nullptr;
  std::vector<PODWeldGatherRequest> requests;
  BlockWriter list{{}, nullptr, s.nNumFrame, plan};
  list.listing = &requests;
  korvex::DescribePOD(s, list);
  size_t bytes = 0;
  for (const PODWeldGatherRequest& r : requests) bytes += r.bytes;
  if (bytes < kWorthAThread) return nullptr;
  return std::make_unique<PODWeldGatherAhead>(std::move(requests));
}

// The scene's blocks, its meshes welded as `plan` says; the plan is known to fit.
bool WriteScene(FILE* pFile, const char* pszExpOpt, const SPODScene& s, const PODWeldPlan* plan) {
  if (!pFile) return false;
  if (!WriteData(pFile, PODTag::FormatVersion, PODTag::kFormatVersion,
                 PODTag::kFormatVersionLength))
    return false;
  if (pszExpOpt && *pszExpOpt && !WriteName(pFile, PODTag::ExportOptions, pszExpOpt)) return false;
  const std::unique_ptr<PODWeldGatherAhead> ahead = GatherAhead(s, plan);
  BlockWriter writer{{}, pFile, s.nNumFrame, plan};
  writer.ahead = ahead.get();
  if (!WriteMarker(pFile, PODTag::Scene, false, 0)) return false;
  korvex::DescribePOD(s, writer);
  return writer.ok && WriteMarker(pFile, PODTag::Scene, true, 0);
}

bool SaveScene(const CPODScene& scene, const char* pszFilename, const char* pszExpOpt,
               const PODWeldPlan* plan) {
  if (!PlanFits(scene, plan)) return false;
  // Blocks are small and many: a buffer gathers them into few writes, while stream arrays larger
  // than it go to the file directly rather than through it. Declared first: it outlives the file.
  static const size_t kBuffer = 1 << 16;
  std::unique_ptr<char[]> buffer(new char[kBuffer]);
  korvex::FileHandle file(pszFilename, "wb+");
  if (!file) return false;
  setvbuf(file.get(), buffer.get(), _IOFBF, kBuffer);
  bool ok = WriteScene(file.get(), pszExpOpt, scene, plan);
  // A close that cannot flush the last bytes is a short write too.
  return file.Close() && ok;
}

}  // namespace

bool WritePOD(FILE* pFile, const char* pszExpOpt, const SPODScene& s) {
  return WriteScene(pFile, pszExpOpt, s, nullptr);
}

bool WritePOD(FILE* pFile, const char* pszExpOpt, const SPODScene& s, const PODWeldPlan& plan) {
  return PlanFits(s, &plan) && WriteScene(pFile, pszExpOpt, s, &plan);
}

std::string PODWriteShortfall(const SPODScene& s, const PODWeldPlan* plan) {
  BlockWriter check{{}, nullptr, s.nNumFrame, plan};
  for (uint32_t m = s.nNumMesh; plan != nullptr && m < plan->meshes(); ++m)
    if (plan->weld(m) != nullptr) return "mesh " + std::to_string(m) + ": welded, but the scene has no such mesh";
  korvex::DescribePOD(s, check);
  return check.shortfall;
}

bool CPODScene::SavePOD(const char* pszFilename, const char* pszExpOpt) {
  return SaveScene(*this, pszFilename, pszExpOpt, nullptr);
}

bool CPODScene::SavePOD(const char* pszFilename, const char* pszExpOpt, const PODWeldPlan& plan) {
  return SaveScene(*this, pszFilename, pszExpOpt, &plan);
}

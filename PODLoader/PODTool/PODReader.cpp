#include "PODReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ByteIO.h"
#include "PODTag.h"

// ---------------------------------------------------------------------------------------------
// Counted allocation

namespace {
size_t g_allocatedBytes = 0;
}  // namespace

void* PODReaderCalloc(size_t count, size_t size) {
  if (size != 0 && count > SIZE_MAX / size) return nullptr;
  g_allocatedBytes += count * size;
  return calloc(count, size);
}

size_t PODReaderAllocatedBytes() { return g_allocatedBytes; }
void PODReaderResetAllocatedBytes() { g_allocatedBytes = 0; }

// ---------------------------------------------------------------------------------------------
// Whole-file buffer

std::string CResourceFile::s_ReadPath;

void CResourceFile::SetReadPath(const char* pszPath) { s_ReadPath = pszPath ? pszPath : ""; }
const std::string& CResourceFile::GetReadPath() { return s_ReadPath; }

namespace {

// Maps `size` bytes of a file followed by at least one zero byte: the file is mapped over the
// start of an anonymous region one byte longer (the rest of the file's last page reads as zero,
// and when the file ends on a page boundary the zero is the region's own). Private and writable.
// Null when the system cannot map the file.
char* MapFile(int fd, size_t size, size_t& mappedLength) {
  const long page = sysconf(_SC_PAGESIZE);
  if (size == 0 || page <= 0) return nullptr;
  const size_t pageSize = static_cast<size_t>(page);
  const size_t length = (size + 1 + pageSize - 1) / pageSize * pageSize;
  void* region = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (region == MAP_FAILED) return nullptr;
  void* file = mmap(region, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED, fd, 0);
  if (file == MAP_FAILED) {
    munmap(region, length);
    return nullptr;
  }
  mappedLength = length;
  return static_cast<char*>(region);
}

// The whole file into a zeroed buffer one byte longer; false (nothing kept) on a short read.
char* ReadWholeFile(int fd, size_t size) {
  char* data = static_cast<char*>(PODReaderCalloc(size + 1, 1));
  if (!data) return nullptr;
  size_t got = 0;
  while (got < size) {
    const ssize_t n = read(fd, data + got, size - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      free(data);
      return nullptr;
    }
    got += static_cast<size_t>(n);
  }
  return data;
}

}  // namespace

CResourceFile::CResourceFile(const char* pszName) {
  std::string path = s_ReadPath + (pszName ? pszName : "");
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  // Only regular files are mapped or sized up front; the parser counts positions in 32 bits, so
  // a larger file (or one whose size cannot be told) is refused.
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0 ||
      static_cast<unsigned long long>(st.st_size) >= 0xFFFFFFFFull) {
    close(fd);
    return;
  }
  const unsigned int size = static_cast<unsigned int>(st.st_size);
  char* data = MapFile(fd, size, m_MappedLength);
  if (!data) {
    m_MappedLength = 0;
    data = ReadWholeFile(fd, size);
  }
  close(fd);
  if (!data) return;
  m_pData = data;
  m_Size = size;
  m_bOpen = true;
}

CResourceFile::CResourceFile(const void* pData, unsigned int nSize)
    : m_bOpen(true), m_bMemoryFile(true), m_Size(nSize), m_pData(static_cast<const char*>(pData)) {}

CResourceFile::~CResourceFile() { Close(); }

void CResourceFile::Close() {
  if (m_bOpen && !m_bMemoryFile) {
    if (m_MappedLength != 0)
      munmap(const_cast<char*>(m_pData), m_MappedLength);
    else
      free(const_cast<char*>(m_pData));
  }
  m_pData = nullptr;
  m_Size = 0;
  m_MappedLength = 0;
  m_bOpen = false;
}

uint8_t* CResourceFile::LendableData() const {
  if (!m_bOpen || m_bMemoryFile) return nullptr;
  // Owned and writable: a private mapping or a buffer of our own.
  return reinterpret_cast<uint8_t*>(const_cast<char*>(m_pData));
}

void CResourceFile::Prefetch() const {
#ifdef MADV_POPULATE_READ
  // Advice only: an older system without it reads the pages as they are used.
  if (m_MappedLength != 0 && m_Size != 0)
    madvise(const_cast<char*>(m_pData), m_Size, MADV_POPULATE_READ);
#endif
}

// ---------------------------------------------------------------------------------------------
// Byte source over a resource file

CSourceStream::~CSourceStream() { delete m_pFile; }

bool CSourceStream::Init(const char* pszFileName) {
  m_BytePosition = 0;
  m_bLent = false;
  delete m_pFile;
  m_pFile = new CResourceFile(pszFileName);
  if (!m_pFile->IsOpen()) {
    delete m_pFile;
    m_pFile = nullptr;
    return false;
  }
  return true;
}

bool CSourceStream::InitFromMemory(const void* pData, unsigned int nSize) {
  m_BytePosition = 0;
  m_bLent = false;
  delete m_pFile;
  m_pFile = new CResourceFile(pData, nSize);
  return true;
}

bool CSourceStream::Read(void* pData, unsigned int nBytes) {
  if (!m_pFile || nBytes > m_pFile->Size() - m_BytePosition) return false;
  if (nBytes) memcpy(pData, m_pFile->StringPtr() + m_BytePosition, nBytes);
  m_BytePosition += nBytes;
  return true;
}

bool CSourceStream::Skip(unsigned int nBytes) {
  if (!m_pFile || nBytes > m_pFile->Size() - m_BytePosition) return false;
  m_BytePosition += nBytes;
  return true;
}

unsigned int CSourceStream::GetRemaining() const {
  return m_pFile ? m_pFile->Size() - m_BytePosition : 0;
}

uint8_t* CSourceStream::Lend(unsigned int nBytes) {
  uint8_t* data = m_pFile ? m_pFile->LendableData() : nullptr;
  if (!data || nBytes > m_pFile->Size() - m_BytePosition) return nullptr;
  uint8_t* lent = data + m_BytePosition;
  m_BytePosition += nBytes;
  m_bLent = true;
  return lent;
}

CResourceFile* CSourceStream::TakeLentFile() {
  if (!m_bLent) return nullptr;
  CResourceFile* file = m_pFile;
  m_pFile = nullptr;
  m_bLent = false;
  return file;
}

// ---------------------------------------------------------------------------------------------
// Typed reads

namespace {

// Reads n little-endian 32-bit words in one all-or-nothing read.
bool ReadWords(CSource& src, uint32_t* out, unsigned int n) {
  uint8_t buf[16];
  if (!src.Read(buf, 4 * n)) return false;
  for (unsigned int i = 0; i < n; ++i) out[i] = korvex::LoadU32LE(buf + 4 * i);
  return true;
}

template <typename T>
bool ReadWordAs(CSource& src, T& v) {
  static_assert(sizeof(T) == 4, "one 32-bit word");
  uint32_t w;
  if (!ReadWords(src, &w, 1)) return false;
  memcpy(&v, &w, 4);
  return true;
}

template <size_t N>
bool ReadFloats(CSource& src, float (&v)[N]) {
  uint32_t w[N];
  if (!ReadWords(src, w, N)) return false;
  memcpy(v, w, sizeof v);
  return true;
}

bool HostIsLittleEndian() {
  const uint16_t probe = 1;
  uint8_t first;
  memcpy(&first, &probe, 1);
  return first == 1;
}

// Arrays of 32-bit words arrive as little-endian bytes; only a big-endian host has to turn them.
void WordsFromLittleEndian(void* p, size_t nBytes) {
  if (HostIsLittleEndian()) return;
  uint8_t* b = static_cast<uint8_t*>(p);
  for (size_t i = 0; i + 4 <= nBytes; i += 4) {
    uint32_t v = korvex::LoadU32LE(b + i);
    memcpy(b + i, &v, 4);
  }
}

// The shared body of ReadAfterAlloc: `extra` zeroed bytes after the payload for strings.
template <typename T>
bool AllocAndRead(CSource& src, T*& p, unsigned int nLen, bool ownsOld, size_t extra) {
  if (nLen == 0) return true;
  if (nLen > src.GetRemaining()) return false;
  T* fresh = nullptr;
  if (!SafeAlloc(fresh, size_t(nLen) + extra)) return false;
  if (!src.Read(fresh, nLen)) {
    free(fresh);
    return false;
  }
  // A block met twice replaces the earlier array.
  if (ownsOld) free(p);
  p = fresh;
  return true;
}

}  // namespace

uint8_t* CSource::Lend(unsigned int) { return nullptr; }

bool CSource::Read(int& v) { return ReadWordAs(*this, v); }
bool CSource::Read(unsigned int& v) { return ReadWordAs(*this, v); }
bool CSource::Read(float& v) { return ReadWordAs(*this, v); }
bool CSource::Read(float (&v)[3]) { return ReadFloats(*this, v); }
bool CSource::Read(float (&v)[4]) { return ReadFloats(*this, v); }
bool CSource::Read(EPODDataType& v) { return ReadWordAs(*this, v); }
bool CSource::Read(EPODLight& v) { return ReadWordAs(*this, v); }

bool CSource::ReadOffset(uint8_t*& pData) {
  uint32_t offset;
  if (!ReadWords(*this, &offset, 1)) return false;
  pData = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(offset));
  return true;
}

bool CSource::ReadMarker(unsigned int& nName, unsigned int& nLen) {
  return Read(nName) && Read(nLen);
}

bool CSource::ReadAfterAlloc(uint8_t*& p, unsigned int nLen, size_t& nSize) {
  // A byte pointer may hold an interleaved offset rather than an array: only a recorded size
  // says it owns memory.
  if (!AllocAndRead(*this, p, nLen, nSize != 0, 0)) return false;
  if (nLen) nSize = nLen;
  return true;
}

bool CSource::ReadAfterAlloc(char*& p, unsigned int nLen) {
  return AllocAndRead(*this, p, nLen, true, 1);
}

bool CSource::ReadAfterAlloc(float*& p, unsigned int nLen, size_t& nSize) {
  if (!AllocAndRead(*this, p, nLen, true, 0)) return false;
  if (nLen) {
    WordsFromLittleEndian(p, nLen);
    nSize = nLen;
  }
  return true;
}

bool CSource::ReadAfterAlloc(uint32_t*& p, unsigned int nLen, size_t& nSize) {
  if (!AllocAndRead(*this, p, nLen, true, 0)) return false;
  if (nLen) {
    WordsFromLittleEndian(p, nLen);
    nSize = nLen;
  }
  return true;
}

bool CSource::ReadAfterAlloc(int32_t*& p, unsigned int nLen, size_t& nSize) {
  if (!AllocAndRead(*this, p, nLen, true, 0)) return false;
  if (nLen) {
    WordsFromLittleEndian(p, nLen);
    nSize = nLen;
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Record parsers

namespace {

constexpr unsigned int kEnd = PODTag::End;
// The smallest record container: its start and end markers.
constexpr unsigned int kMinRecordBytes = 16;

}  // namespace

namespace {

// A stream's payload: lent by the source where it can (no copy), else read into a fresh array.
// An array the stream held before is released, or, when borrowed, dropped, only once the new
// payload is in place, so a failed read leaves the stream as it was.
bool ReadStreamPayload(CPODData& s, CSource& src, unsigned int nLen) {
  if (nLen == 0) return true;
  if (uint8_t* lent = src.Lend(nLen)) {
    if (s.nDataSize != 0 && !s.bBorrowed) free(s.pData);
    s.pData = lent;
    s.nDataSize = nLen;
    s.bBorrowed = true;
    return true;
  }
  if (!s.bBorrowed) return src.ReadAfterAlloc(s.pData, nLen, s.nDataSize);
  uint8_t* fresh = nullptr;
  size_t size = 0;
  if (!src.ReadAfterAlloc(fresh, nLen, size)) return false;
  s.pData = fresh;
  s.nDataSize = size;
  s.bBorrowed = false;
  return true;
}

}  // namespace

bool ReadCPODData(CPODData& s, CSource& src, unsigned int nSpec, bool bValidData) {
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    if (nName == (nSpec | kEnd)) return true;
    switch (nName) {
      case PODTag::DataType:
        if (!src.Read(s.eType)) return false;
        break;
      case PODTag::DataN:
        if (!src.Read(s.n)) return false;
        break;
      case PODTag::DataStride:
        if (!src.Read(s.nStride)) return false;
        break;
      case PODTag::DataData:
        if (bValidData) {
          s.nFileOffset = src.GetReadLocation();
          if (!ReadStreamPayload(s, src, nLen)) return false;
        } else {
          // An array read earlier for this stream gives way to the offset.
          if (s.nDataSize != 0 && !s.bBorrowed) free(s.pData);
          s.pData = nullptr;
          s.nDataSize = 0;
          s.bBorrowed = false;
          if (!src.ReadOffset(s.pData)) return false;
        }
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

bool ReadCamera(SPODCamera& s, CSource& src) {
  s.pfAnimFOV = nullptr;
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneCamera | kEnd:
        return true;
      case PODTag::CamIdxTgt:
        if (!src.Read(s.nIdxTarget)) return false;
        break;
      case PODTag::CamFOV:
        if (!src.Read(s.fFOV)) return false;
        break;
      case PODTag::CamFar:
        if (!src.Read(s.fFar)) return false;
        break;
      case PODTag::CamNear:
        if (!src.Read(s.fNear)) return false;
        break;
      case PODTag::CamAnimFOV:
        if (!src.ReadAfterAlloc(s.pfAnimFOV, nLen, s.nAnimFOVSize)) return false;
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

bool ReadLight(SPODLight& s, CSource& src) {
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneLight | kEnd:
        return true;
      case PODTag::LightIdxTgt:
        if (!src.Read(s.nIdxTarget)) return false;
        break;
      case PODTag::LightColour:
        if (!src.Read(s.pfColour)) return false;
        break;
      case PODTag::LightType:
        if (!src.Read(s.eType)) return false;
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

bool ReadTexture(SPODTexture& s, CSource& src) {
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneTexture | kEnd:
        return true;
      case PODTag::TexName:
        if (!src.ReadAfterAlloc(s.pszName, nLen)) return false;
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

bool ReadMaterial(SPODMaterial& s, CSource& src) {
  s.pszName = nullptr;
  s.pszEffectFile = nullptr;
  s.pszEffectName = nullptr;
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneMaterial | kEnd:
        return true;
      case PODTag::MatName:
        if (!src.ReadAfterAlloc(s.pszName, nLen)) return false;
        break;
      case PODTag::MatIdxTexDiffuse:
        if (!src.Read(s.nIdxTexDiffuse)) return false;
        break;
      case PODTag::MatOpacity:
        if (!src.Read(s.fMatOpacity)) return false;
        break;
      case PODTag::MatAmbient:
        if (!src.Read(s.pfMatAmbient)) return false;
        break;
      case PODTag::MatDiffuse:
        if (!src.Read(s.pfMatDiffuse)) return false;
        break;
      case PODTag::MatSpecular:
        if (!src.Read(s.pfMatSpecular)) return false;
        break;
      case PODTag::MatShininess:
        if (!src.Read(s.fMatShininess)) return false;
        break;
      case PODTag::MatEffectFile:
        if (!src.ReadAfterAlloc(s.pszEffectFile, nLen)) return false;
        break;
      case PODTag::MatEffectName:
        if (!src.ReadAfterAlloc(s.pszEffectName, nLen)) return false;
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

bool ReadMesh(SPODMesh& s, CSource& src) {
  s.pnStripLength = nullptr;
  s.pInterleaved = nullptr;
  s.sBoneBatches.pnBatches = nullptr;
  s.sBoneBatches.pnBatchBoneCnt = nullptr;
  s.sBoneBatches.pnBatchOffset = nullptr;
  unsigned int nUVWs = 0;
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneMesh | kEnd:
        return nUVWs == s.nNumUVW;
      case PODTag::MeshNumVtx:
        if (!src.Read(s.nNumVertex)) return false;
        break;
      case PODTag::MeshNumFaces:
        if (!src.Read(s.nNumFaces)) return false;
        break;
      case PODTag::MeshNumUVW: {
        unsigned int count;
        if (!src.Read(count)) return false;
        // Each stream needs a container of its own in what is left of the file; and a second
        // count for streams that are already allocated is refused rather than leaked.
        if (count > src.GetRemaining() / kMinRecordBytes || s.psUVW != nullptr) return false;
        if (!SafeAlloc(s.psUVW, count)) return false;
        s.nNumUVW = count;
        s.nUVWCount = count;
        break;
      }
      case PODTag::MeshFaces:
        if (!ReadCPODData(s.sFaces, src, PODTag::MeshFaces, true)) return false;
        break;
      case PODTag::MeshStripLength:
        if (!src.ReadAfterAlloc(s.pnStripLength, nLen, s.nStripLengthSize)) return false;
        break;
      case PODTag::MeshNumStrips:
        if (!src.Read(s.nNumStrips)) return false;
        break;
      case PODTag::MeshVtx:
        if (!ReadCPODData(s.sVertex, src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshNor:
        if (!ReadCPODData(s.sNormals, src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshTan:
        if (!ReadCPODData(s.sTangents, src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshBin:
        if (!ReadCPODData(s.sBinormals, src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshUVW:
        // A stream beyond the declared count has no slot to go to.
        if (nUVWs >= s.nUVWCount) return false;
        if (!ReadCPODData(s.psUVW[nUVWs++], src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshVtxCol:
        if (!ReadCPODData(s.sVtxColours, src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshBoneIdx:
        if (!ReadCPODData(s.sBoneIdx, src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshBoneWeight:
        if (!ReadCPODData(s.sBoneWeight, src, nName, s.pInterleaved == nullptr)) return false;
        break;
      case PODTag::MeshInterleaved:
        if (!src.ReadAfterAlloc(s.pInterleaved, nLen, s.nInterleavedSize)) return false;
        break;
      case PODTag::MeshBoneBatches:
        if (!src.ReadAfterAlloc(s.sBoneBatches.pnBatches, nLen, s.sBoneBatches.nBatchesSize))
          return false;
        break;
      case PODTag::MeshBoneBatchBoneCnts:
        if (!src.ReadAfterAlloc(s.sBoneBatches.pnBatchBoneCnt, nLen,
                                s.sBoneBatches.nBatchBoneCntSize))
          return false;
        break;
      case PODTag::MeshBoneBatchOffsets:
        if (!src.ReadAfterAlloc(s.sBoneBatches.pnBatchOffset, nLen,
                                s.sBoneBatches.nBatchOffsetSize))
          return false;
        break;
      case PODTag::MeshBoneBatchBoneMax:
        if (!src.Read(s.sBoneBatches.nBatchBoneMax)) return false;
        break;
      case PODTag::MeshBoneBatchCnt:
        if (!src.Read(s.sBoneBatches.nBatchCnt)) return false;
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

namespace {

// One frame of a channel the older node layout kept static; the caller checks the allocation.
float* OneFrame(const float* values, size_t nValues, size_t nFloats, size_t& nSize) {
  float* p = nullptr;
  if (!SafeAlloc(p, nFloats)) return nullptr;
  memcpy(p, values, nValues * sizeof(float));
  nSize = nFloats * sizeof(float);
  return p;
}

// A pointer's low 32 bits, as a 64-bit host's record holds them in the word that follows.
uint32_t LowWord(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

// Brings a node of the older layout (static position, rotation, scale) to the newer one.
bool ConvertOlderNode(SPODNode& s) {
  if (s.pfAnimPosition) {
    s.nAnimFlags |= ePODHasPositionAni;
  } else if (!(s.pfAnimPosition = OneFrame(s.pfPosition, 3, 3, s.nAnimPositionSize))) {
    return false;
  }
  if (s.pfAnimRotation) {
    s.nAnimFlags |= ePODHasRotationAni;
  } else if (!(s.pfAnimRotation = OneFrame(s.pfRotation, 4, 4, s.nAnimRotationSize))) {
    return false;
  }
  if (s.pfAnimScale) {
    s.nAnimFlags |= ePODHasScaleAni;
  } else {
    // The scale frame is 7 words: the static scale, then the four 32-bit words that followed
    // pfScale in the record this format grew up with (the three channel pointers and the
    // flags, as they stand now). Only the first three are ever used as scale; the rest is
    // kept as it always was written.
    float words[7];
    memcpy(words, s.pfScale, 3 * sizeof(float));
    const uint32_t tail[4] = {LowWord(s.pfAnimPosition), LowWord(s.pfAnimRotation),
                              LowWord(s.pfAnimScale), s.nAnimFlags};
    memcpy(words + 3, tail, sizeof tail);
    if (!(s.pfAnimScale = OneFrame(words, 7, 7, s.nAnimScaleSize))) return false;
  }
  return true;
}

}  // namespace

bool ReadNode(SPODNode& s, CSource& src) {
  s.pszName = nullptr;
  s.pfAnimPosition = nullptr;
  s.pfAnimRotation = nullptr;
  s.pfAnimScale = nullptr;
  s.pfAnimMatrix = nullptr;
  s.nAnimFlags = 0;
  bool bOldNodeFormat = false;
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneNode | kEnd:
        return !bOldNodeFormat || ConvertOlderNode(s);
      case PODTag::NodeIdx:
        if (!src.Read(s.nIdx)) return false;
        break;
      case PODTag::NodeName:
        if (!src.ReadAfterAlloc(s.pszName, nLen)) return false;
        break;
      case PODTag::NodeIdxMat:
        if (!src.Read(s.nIdxMaterial)) return false;
        break;
      case PODTag::NodeIdxParent:
        if (!src.Read(s.nIdxParent)) return false;
        break;
      case PODTag::NodePos:
        if (!src.Read(s.pfPosition)) return false;
        bOldNodeFormat = true;
        break;
      case PODTag::NodeRot:
        if (!src.Read(s.pfRotation)) return false;
        bOldNodeFormat = true;
        break;
      case PODTag::NodeScale:
        if (!src.Read(s.pfScale)) return false;
        bOldNodeFormat = true;
        break;
      case PODTag::NodeAnimPos:
        if (!src.ReadAfterAlloc(s.pfAnimPosition, nLen, s.nAnimPositionSize)) return false;
        break;
      case PODTag::NodeAnimRot:
        if (!src.ReadAfterAlloc(s.pfAnimRotation, nLen, s.nAnimRotationSize)) return false;
        break;
      case PODTag::NodeAnimScale:
        if (!src.ReadAfterAlloc(s.pfAnimScale, nLen, s.nAnimScaleSize)) return false;
        break;
      case PODTag::NodeAnimMatrix:
        if (!src.ReadAfterAlloc(s.pfAnimMatrix, nLen, s.nAnimMatrixSize)) return false;
        break;
      case PODTag::NodeAnimFlags:
        if (!src.Read(s.nAnimFlags)) return false;
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

namespace {

// One kind of record of the scene: its count, its array and how many of its blocks were read.
template <typename T>
struct RecordArray {
  uint32_t& count;
  T*& array;
  unsigned int read = 0;

  unsigned int Pending() const { return read < count ? count - read : 0; }
};

struct SceneRecords {
  RecordArray<SPODCamera> cameras;
  RecordArray<SPODLight> lights;
  RecordArray<SPODMesh> meshes;
  RecordArray<SPODNode> nodes;
  RecordArray<SPODTexture> textures;
  RecordArray<SPODMaterial> materials;

  // Records announced but not yet read, of all kinds but the one being counted anew.
  size_t PendingExcept(const void* kind) const {
    size_t n = 0;
    if (kind != &cameras) n += cameras.Pending();
    if (kind != &lights) n += lights.Pending();
    if (kind != &meshes) n += meshes.Pending();
    if (kind != &nodes) n += nodes.Pending();
    if (kind != &textures) n += textures.Pending();
    if (kind != &materials) n += materials.Pending();
    return n;
  }

  bool AllRead() const {
    return cameras.read == cameras.count && lights.read == lights.count &&
           meshes.read == meshes.count && nodes.read == nodes.count &&
           textures.read == textures.count && materials.read == materials.count;
  }
};

// A record count: every announced record still needs a container of at least 16 bytes in what
// is left of the file, so a count the file cannot hold fails before anything is allocated. A
// second count for records that are already allocated is refused rather than leaked.
template <typename T>
bool ReadCount(RecordArray<T>& kind, const SceneRecords& all, CSource& src) {
  unsigned int count;
  if (!src.Read(count)) return false;
  if (kind.array != nullptr) return false;
  size_t budget = src.GetRemaining() / kMinRecordBytes;
  size_t others = all.PendingExcept(&kind);
  if (others > budget || count > budget - others) return false;
  if (!SafeAlloc(kind.array, count)) return false;
  kind.count = count;
  return true;
}

// The next record of a kind goes into the slot given by the number read so far; a record with
// no slot (before its count, or beyond it) fails the scene at once.
template <typename T>
bool ReadRecord(RecordArray<T>& kind, CSource& src, bool (*parse)(T&, CSource&)) {
  if (kind.array == nullptr || kind.read >= kind.count) return false;
  return parse(kind.array[kind.read++], src);
}

}  // namespace

bool ReadScene(SPODScene& s, CSource& src) {
  SceneRecords r{{s.nNumCamera, s.pCamera},   {s.nNumLight, s.pLight},
                 {s.nNumMesh, s.pMesh},       {s.nNumNode, s.pNode},
                 {s.nNumTexture, s.pTexture}, {s.nNumMaterial, s.pMaterial}};
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::Scene | kEnd:
        return r.AllRead();
      case PODTag::SceneClearCol:
        if (!src.Read(s.pfColourBackground)) return false;
        break;
      case PODTag::SceneAmbientCol:
        if (!src.Read(s.pfColourAmbient)) return false;
        break;
      case PODTag::SceneNumCamera:
        if (!ReadCount(r.cameras, r, src)) return false;
        break;
      case PODTag::SceneNumLight:
        if (!ReadCount(r.lights, r, src)) return false;
        break;
      case PODTag::SceneNumMesh:
        if (!ReadCount(r.meshes, r, src)) return false;
        break;
      case PODTag::SceneNumNode:
        if (!ReadCount(r.nodes, r, src)) return false;
        break;
      case PODTag::SceneNumMeshNode:
        if (!src.Read(s.nNumMeshNode)) return false;
        break;
      case PODTag::SceneNumTexture:
        if (!ReadCount(r.textures, r, src)) return false;
        break;
      case PODTag::SceneNumMaterial:
        if (!ReadCount(r.materials, r, src)) return false;
        break;
      case PODTag::SceneNumFrame:
        if (!src.Read(s.nNumFrame)) return false;
        break;
      case PODTag::SceneFlags:
        if (!src.Read(s.nFlags)) return false;
        break;
      case PODTag::SceneCamera:
        if (!ReadRecord(r.cameras, src, ReadCamera)) return false;
        break;
      case PODTag::SceneLight:
        if (!ReadRecord(r.lights, src, ReadLight)) return false;
        break;
      case PODTag::SceneMesh:
        if (!ReadRecord(r.meshes, src, ReadMesh)) return false;
        break;
      case PODTag::SceneNode:
        if (!ReadRecord(r.nodes, src, ReadNode)) return false;
        break;
      case PODTag::SceneTexture:
        if (!ReadRecord(r.textures, src, ReadTexture)) return false;
        break;
      case PODTag::SceneMaterial:
        if (!ReadRecord(r.materials, src, ReadMaterial)) return false;
        break;
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return false;
}

bool Read(SPODScene* pScene, CSource& src, char* pExpOpt, unsigned long count) {
  bool bVersionOK = false;
  bool bDone = false;
  // A loaded scene always holds floats: also when a stray scene end marker at the top level
  // ends the file early (the marker is otherwise met only in export-options mode).
  auto finish = [&]() {
    if (pScene && (pScene->nFlags & 1u)) PODModelToggleFixedPoint(*pScene);
    return bVersionOK && bDone;
  };
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::FormatVersion: {
        if (nLen != PODTag::kFormatVersionLength) return false;
        char* version = nullptr;
        if (!SafeAlloc(version, nLen)) return false;
        bool same = src.Read(version, nLen) && memcmp(version, PODTag::kFormatVersion, nLen) == 0;
        free(version);
        if (!same) return false;
        bVersionOK = true;
        break;
      }
      case PODTag::Scene:
        if (pScene) {
          // One scene per file: its records would otherwise land in slots already filled.
          if (bDone || !ReadScene(*pScene, src)) return false;
          bDone = true;
        }
        break;
      case PODTag::ExportOptions:
        if (!pExpOpt) {
          if (!src.Skip(nLen)) return false;
          break;
        }
        return src.Read(pExpOpt, static_cast<unsigned int>(count < nLen ? count : nLen));
      case PODTag::Scene | kEnd:
        return finish();
      default:
        if (!src.Skip(nLen)) return false;
    }
  }
  return finish();
}

// ---------------------------------------------------------------------------------------------
// Parent chains

bool PODCheckParents(const SPODScene& scene) {
  const unsigned int n = scene.nNumNode;
  if (n == 0) return true;
  if (!scene.pNode) return false;
  // depth[i]: 0 unknown, otherwise 1 + the number of parents above node i. Each chain is walked
  // once up to a node already measured, then measured on the way back down.
  std::vector<unsigned int> depth(n, 0);
  std::vector<unsigned int> chain;
  for (unsigned int start = 0; start < n; ++start) {
    chain.clear();
    unsigned int i = start;
    unsigned int above = 0;  // depth of the first already-measured ancestor, 0 for none
    while (depth[i] == 0) {
      if (chain.size() > n) return false;  // a cycle: more steps than there are nodes
      chain.push_back(i);
      int32_t parent = scene.pNode[i].nIdxParent;
      if (parent < 0) break;
      if (static_cast<uint32_t>(parent) >= n) return false;
      i = static_cast<unsigned int>(parent);
      if (depth[i] != 0) above = depth[i];
    }
    for (size_t k = chain.size(); k-- > 0;) {
      size_t d = above + (chain.size() - k);
      if (d > kPODMaxParentDepth) return false;
      depth[chain[k]] = static_cast<unsigned int>(d);
    }
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Scene entry points

namespace {

bool ReadFromSource(CPODScene& scene, CSource& src, char* pExpOpt, unsigned long count) {
  // A previous state is not released here: callers reusing a scene call Destroy first.
  static_cast<SPODScene&>(scene) = SPODScene{};
  scene.m_pImpl = nullptr;
  if (!Read(pExpOpt ? nullptr : &scene, src, pExpOpt, count)) return false;
  if (!PODCheckParents(scene)) return false;
  return scene.InitImpl();
}

}  // namespace

bool CPODScene::ReadFromFile(const char* pszFileName, char* pExpOpt, unsigned long count) {
  CSourceStream src;
  if (!src.Init(pszFileName)) return false;
  // The options alone sit at the start of the file; a scene is read through to its end.
  if (!pExpOpt) src.File()->Prefetch();
  const bool ok = ReadFromSource(*this, src, pExpOpt, count);
  // Streams borrowed from the file (also by a read that failed part-way) keep it alive. A file
  // kept from an earlier read goes: the records that used it were dropped with the fields.
  if (CResourceFile* lent = src.TakeLentFile()) {
    delete m_pSourceFile;
    m_pSourceFile = lent;
  }
  return ok;
}

bool PODReadFromBytes(CPODScene& scene, const void* pData, size_t nSize, char* pExpOpt,
                      unsigned long count) {
  if (nSize >= 0xFFFFFFFFu) return false;
  CSourceStream src;
  src.InitFromMemory(pData, static_cast<unsigned int>(nSize));
  return ReadFromSource(scene, src, pExpOpt, count);
}

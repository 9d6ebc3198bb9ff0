#include "PODReader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "ByteIO.h"
#include "PODRecordLayout.h"
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

void PODReaderReleased(size_t bytes) {
  g_allocatedBytes -= bytes < g_allocatedBytes ? bytes : g_allocatedBytes;
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
// What a source tells its report

namespace {

constexpr unsigned int kEnd = PODTag::End;

// The blocks a container of one kind may hold: tags first .. first + count - 1. `required`
// (bit k for tag first + k) are those a complete file always has there; `repeatable` those
// that may come more than once.
struct BlockSet {
  unsigned int first;
  unsigned int count;
  uint32_t required;
  uint32_t repeatable;
};

constexpr uint32_t Tags(unsigned int first, std::initializer_list<unsigned int> tags) {
  uint32_t bits = 0;
  for (unsigned int t : tags) bits |= 1u << (t - first);
  return bits;
}

constexpr uint32_t TagRange(unsigned int first, unsigned int from, unsigned int to) {
  uint32_t bits = 0;
  for (unsigned int t = from; t <= to; ++t) bits |= 1u << (t - first);
  return bits;
}

// Indexed by EPODRecord. Nodes and meshes have further blocks that depend on what they hold
// (their layout, their bones); their parsers check those.
constexpr BlockSet kBlockSets[] = {
    /* File */ {1000, 3, Tags(1000, {1000, 1001}), 0},
    /* Scene */
    {2000, 17, TagRange(2000, 2000, 2009) | Tags(2000, {2016}), TagRange(2000, 2010, 2015)},
    /* Camera */ {8000, 5, TagRange(8000, 8000, 8003), 0},
    /* Light */ {7000, 3, TagRange(7000, 7000, 7002), 0},
    /* Material */ {3000, 9, TagRange(3000, 3000, 3006), 0},
    /* Mesh */
    {6000, 20,
     Tags(6000, {6000, 6001, 6002, 6003, 6005, 6006, 6007, 6008, 6009, 6011, 6012, 6013, 6018,
                 6019}),
     Tags(6000, {6010})},
    /* Node */ {5000, 13, TagRange(5000, 5000, 5003), 0},
    /* Texture */ {4000, 1, Tags(4000, {4000}), 0},
    /* Stream */ {9000, 4, TagRange(9000, 9000, 9002), 0},
};

const char* const kRecordNames[] = {"the file", "the scene", "camera", "light", "material",
                                    "mesh",     "node",      "texture", "stream"};

const BlockSet& SetOf(EPODRecord kind) { return kBlockSets[static_cast<size_t>(kind)]; }

std::string BlockName(unsigned int nTag) {
  const char* field = PODTagField(nTag);
  return "block " + std::to_string(nTag) + (field ? std::string(" (") + field + ")" : "");
}

}  // namespace

CSource::Container::Container(CSource& src, EPODRecord kind, int64_t index, unsigned int nTag,
                             bool tally)
    : m_src(src), m_pushed(tally && src.m_pReport != nullptr) {
  if (m_pushed) src.m_open.push_back(Open{kind, index, nTag, 0, false, false});
}

CSource::Container::~Container() {
  if (!m_pushed) return;
  const Open& open = m_src.m_open.back();
  // Only a container read to its end marker is complete enough to miss anything.
  if (open.ended) {
    const BlockSet& set = SetOf(open.kind);
    const uint32_t missing = set.required & ~open.seen;
    for (unsigned int k = 0; k < set.count; ++k) {
      if (missing & (1u << k)) m_src.Irregular(BlockName(set.first + k) + " is missing");
    }
  }
  m_src.m_open.pop_back();
}

std::string CSource::Describe(const Open& open) const {
  const char* name = kRecordNames[static_cast<size_t>(open.kind)];
  switch (open.kind) {
    case EPODRecord::File:
    case EPODRecord::Scene:
      return name;
    case EPODRecord::Stream: {
      // A stream belongs to the mesh below it on the stack.
      std::string owner = "a mesh";
      for (size_t i = m_open.size(); i-- > 0;) {
        if (m_open[i].kind == EPODRecord::Mesh) {
          owner = Describe(m_open[i]);
          break;
        }
      }
      const char* field = PODTagField(open.tag);
      return std::string("stream ") + (field ? field : std::to_string(open.tag)) + " of " + owner;
    }
    default:
      return std::string(name) + " " + std::to_string(open.index);
  }
}

std::string CSource::Where() const {
  return m_open.empty() ? std::string("the file") : Describe(m_open.back());
}

bool CSource::Fail(EPODReadFailure why, const std::string& detail) {
  return FailAt(why, GetReadLocation(), detail);
}

bool CSource::FailAt(EPODReadFailure why, unsigned int at, const std::string& detail) {
  if (m_pReport && !m_pReport->failed()) {
    m_pReport->failure = why;
    m_pReport->failureOffset = at;
    m_pReport->failureWhere = Where();
    m_pReport->failureDetail = detail;
  }
  return false;
}

void CSource::Irregular(const std::string& text) {
  if (!m_pReport) return;
  // Blocks at the top level are the file's own and need no record named.
  const bool top = m_open.empty() || m_open.back().kind == EPODRecord::File;
  m_pReport->AddIrregularity(top ? text : Where() + ": " + text);
}

bool CSource::HasSeen(unsigned int nTag) const {
  if (!m_pReport || m_open.empty()) return false;
  const Open& open = m_open.back();
  const BlockSet& set = SetOf(open.kind);
  return nTag >= set.first && nTag < set.first + set.count &&
         (open.seen & (1u << (nTag - set.first))) != 0;
}

void CSource::NoteMarker(unsigned int nName, unsigned int nLen, unsigned int at) {
  (void)nLen;
  if (!m_pReport || m_open.empty()) return;
  Open& open = m_open.back();
  if (nName & kEnd) {
    // End markers of data blocks close nothing; only the container's own one matters.
    if (open.tag != 0 && nName == (open.tag | kEnd)) open.ended = true;
    return;
  }
  auto block = [nName, at]() { return BlockName(nName) + " at byte " + std::to_string(at); };
  if (open.kind == EPODRecord::File && !open.started && nName != PODTag::FormatVersion)
    Irregular("the file does not start with its version block");
  open.started = true;
  const BlockSet& set = SetOf(open.kind);
  // Tags the format does not have (and 5010, skipped everywhere) are passed over in silence:
  // later versions of the format may add blocks.
  if (PODTagField(nName) == nullptr) return;
  if (nName < set.first || nName >= set.first + set.count) {
    Irregular(block() + " lies outside its record and is skipped");
    return;
  }
  const uint32_t bit = 1u << (nName - set.first);
  if ((open.seen & bit) && !(set.repeatable & bit))
    Irregular(block() + " comes a second time; the later one counts");
  open.seen |= bit;
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
  if (!ReadWords(src, &w, 1)) return src.Fail(EPODReadFailure::Truncated);
  memcpy(&v, &w, 4);
  return true;
}

template <size_t N>
bool ReadFloats(CSource& src, float (&v)[N]) {
  uint32_t w[N];
  if (!ReadWords(src, w, N)) return src.Fail(EPODReadFailure::Truncated);
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
  if (nLen > src.GetRemaining())
    return src.Fail(EPODReadFailure::Truncated,
                    "a block of " + std::to_string(nLen) + " bytes, " +
                        std::to_string(src.GetRemaining()) + " left");
  T* fresh = nullptr;
  if (!SafeAlloc(fresh, size_t(nLen) + extra))
    return src.Fail(EPODReadFailure::OutOfMemory, std::to_string(nLen) + " bytes");
  if (!src.Read(fresh, nLen)) {
    free(fresh);
    return src.Fail(EPODReadFailure::Truncated);
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
  if (!ReadWords(*this, &offset, 1)) return Fail(EPODReadFailure::Truncated);
  pData = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(offset));
  return true;
}

// Both words in one read: a marker cut short leaves the position at its start. Running out of
// data here is how every parsing loop meets the end; the loop decides whether that is a failure.
bool CSource::ReadMarker(unsigned int& nName, unsigned int& nLen) {
  const unsigned int at = GetReadLocation();
  uint32_t words[2];
  if (!ReadWords(*this, words, 2)) return false;
  nName = words[0];
  nLen = words[1];
  NoteMarker(nName, nLen, at);
  return true;
}

bool CSource::SkipBlock(unsigned int nLen) {
  if (Skip(nLen)) return true;
  return Fail(EPODReadFailure::Truncated, "a block of " + std::to_string(nLen) + " bytes, " +
                                              std::to_string(GetRemaining()) + " left");
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
//
// Each parser first clears the fields the format says it clears. A record slot is fresh and
// zeroed unless the file holds a second scene: what such a slot held is released here rather
// than leaked.

namespace {

// The smallest record container: its start and end markers.
constexpr unsigned int kMinRecordBytes = 16;

// Running out of data inside a container.
bool EndedInside(CSource& src) { return src.Fail(EPODReadFailure::Truncated); }

template <typename T>
void Clear(T*& p) {
  free(p);
  p = nullptr;
}

template <typename T>
void Clear(T*& p, size_t& nSize) {
  Clear(p);
  nSize = 0;
}

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
  CSource::Container container(src, EPODRecord::Stream, 0, nSpec);
  bool bHasData = false;
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    if (nName == (nSpec | kEnd)) {
      // An interleaved stream without its offset is taken to start the vertex (a separate one
      // without data is judged by its mesh, which knows how many elements it should hold).
      if (!bValidData && !bHasData && s.n != 0)
        src.Irregular("it has components but no block 9003 (pData)");
      return true;
    }
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
        bHasData = true;
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
        if (!src.SkipBlock(nLen)) return false;
    }
  }
  return EndedInside(src);
}

namespace {

// Reads one block into the member its tag names, if the description has it.
struct BlockReader {
  CSource& src;
  const unsigned int tag, nLen;
  bool found = false, ok = true;

  bool Is(unsigned int t) {
    if (t != tag) return false;
    found = true;
    return true;
  }
  template <class T>
  void word(unsigned int t, T& v) {
    if (Is(t)) ok = src.Read(v);
  }
  void real(unsigned int t, float& v) {
    if (Is(t)) ok = src.Read(v);
  }
  template <size_t N>
  void reals(unsigned int t, float (&v)[N]) {
    if (Is(t)) ok = src.Read(v);
  }
  void text(unsigned int t, char*& p, bool, bool) {
    if (Is(t)) ok = src.ReadAfterAlloc(p, nLen);
  }
  void frames(unsigned int t, float*& p, size_t& bytes, unsigned int, bool) {
    if (Is(t)) ok = src.ReadAfterAlloc(p, nLen, bytes);
  }
};

// The blocks of a record up to the end marker of `container`; blocks its description lacks are
// skipped.
template <class R, class Describe>
bool ReadFields(R& record, CSource& src, unsigned int container, Describe describe) {
  korvex::PODRecordArraysRelease clear{true};
  describe(record, clear);
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    if (nName == (container | kEnd)) return true;
    BlockReader reader{src, nName, nLen};
    describe(record, reader);
    if (!(reader.found ? reader.ok : src.SkipBlock(nLen))) return false;
  }
  return EndedInside(src);
}

}  // namespace

bool ReadCamera(SPODCamera& s, CSource& src) {
  return ReadFields(s, src, PODTag::SceneCamera, [](auto& r, auto& v) { korvex::DescribeCamera(r, v); });
}

bool ReadLight(SPODLight& s, CSource& src) {
  return ReadFields(s, src, PODTag::SceneLight, [](auto& r, auto& v) { korvex::DescribeLight(r, v); });
}

bool ReadTexture(SPODTexture& s, CSource& src) {
  return ReadFields(s, src, PODTag::SceneTexture, [](auto& r, auto& v) { korvex::DescribeTexture(r, v); });
}

bool ReadMaterial(SPODMaterial& s, CSource& src) {
  return ReadFields(s, src, PODTag::SceneMaterial, [](auto& r, auto& v) { korvex::DescribeMaterial(r, v); });
}

namespace {

// The descriptors of a mesh's texture-coordinate streams and whatever arrays they own.
void ReleaseUVWStreams(SPODMesh& s) {
  if (s.psUVW == nullptr) return;
  for (size_t k = 0; k < s.nUVWCount; ++k) {
    CPODData& d = s.psUVW[k];
    if (d.nDataSize != 0 && !d.bBorrowed) free(d.pData);
  }
  PODReaderReleased(s.nUVWCount * sizeof(CPODData));
  Clear(s.psUVW);
  s.nUVWCount = 0;
}

// Arrays a mesh's counts call for that a complete file would hold.
void CheckMeshArrays(const SPODMesh& s, CSource& src) {
  if (s.pInterleaved == nullptr) {
    auto check = [&src](const CPODData& d, const char* name, uint64_t elements) {
      if (d.n != 0 && d.pData == nullptr && elements != 0)
        src.Irregular("stream " + std::string(name) + " has components but no data");
    };
    check(s.sFaces, "sFaces", PODModelCountIndices(s));
    ForEachVertexStream(s, EPODUVSets::Used, [&](const CPODData& d, const PODVertexStream& which) {
      check(d, which.name, s.nNumVertex);
    });
  }
  if (s.nNumStrips != 0 && !src.HasSeen(PODTag::MeshStripLength))
    src.Irregular("nNumStrips is " + std::to_string(s.nNumStrips) + " but " +
                  BlockName(PODTag::MeshStripLength) + " is missing");
  if (s.sBoneBatches.nBatchCnt > 0) {
    for (unsigned int tag : {PODTag::MeshBoneBatches, PODTag::MeshBoneBatchBoneCnts}) {
      if (!src.HasSeen(tag))
        src.Irregular("nBatchCnt is " + std::to_string(s.sBoneBatches.nBatchCnt) + " but " +
                      BlockName(tag) + " is missing");
    }
  }
}

}  // namespace

bool ReadMesh(SPODMesh& s, CSource& src) {
  Clear(s.pnStripLength, s.nStripLengthSize);
  Clear(s.pInterleaved, s.nInterleavedSize);
  Clear(s.sBoneBatches.pnBatches, s.sBoneBatches.nBatchesSize);
  Clear(s.sBoneBatches.pnBatchBoneCnt, s.sBoneBatches.nBatchBoneCntSize);
  Clear(s.sBoneBatches.pnBatchOffset, s.sBoneBatches.nBatchOffsetSize);
  unsigned int nUVWs = 0;
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneMesh | kEnd:
        if (nUVWs != s.nNumUVW)
          return src.Fail(EPODReadFailure::StreamCountMismatch,
                          std::to_string(s.nNumUVW) + " declared, " + std::to_string(nUVWs) +
                              " held");
        CheckMeshArrays(s, src);
        return true;
      case PODTag::MeshNumVtx:
        if (!src.Read(s.nNumVertex)) return false;
        break;
      case PODTag::MeshNumFaces:
        if (!src.Read(s.nNumFaces)) return false;
        break;
      case PODTag::MeshNumUVW: {
        unsigned int count;
        if (!src.Read(count)) return false;
        // Each stream needs a container of its own in what is left of the file.
        if (count > src.GetRemaining() / kMinRecordBytes)
          return src.Fail(EPODReadFailure::TooManyRecords,
                          std::to_string(count) + " texture-coordinate streams");
        // A second count gives fresh descriptors, as the first did; the earlier ones are
        // released rather than leaked. A count of 0 allocates nothing and keeps them.
        if (count != 0) {
          CPODData* fresh = nullptr;
          if (!SafeAlloc(fresh, count))
            return src.Fail(EPODReadFailure::OutOfMemory,
                            std::to_string(count) + " texture-coordinate streams");
          ReleaseUVWStreams(s);
          s.psUVW = fresh;
          s.nUVWCount = count;
        }
        s.nNumUVW = count;
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
      case PODTag::MeshUVW:
        // A stream beyond the descriptors there are has no slot to go to.
        if (nUVWs >= s.nUVWCount)
          return src.Fail(EPODReadFailure::StreamCountMismatch,
                          "more streams than the " + std::to_string(s.nNumUVW) + " declared");
        if (!ReadCPODData(s.psUVW[nUVWs++], src, nName, s.pInterleaved == nullptr)) return false;
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
      default: {
        // The vertex streams other than the texture-coordinate sets, by their tags.
        CPODData* stream = nullptr;
        ForEachVertexStream(s, EPODUVSets::Held, [&](CPODData& d, const PODVertexStream& which) {
          if (which.tag == nName && nName != PODTag::MeshUVW) stream = &d;
        });
        if (stream != nullptr ? !ReadCPODData(*stream, src, nName, s.pInterleaved == nullptr)
                              : !src.SkipBlock(nLen))
          return false;
      }
    }
  }
  return EndedInside(src);
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

// The blocks a node of its layout always has: the static transform in the older layout, the
// flags and the three channels in the newer one (whose static fields no file fills: a node
// without them is placed at the origin, unrotated, with a scale of 0).
void CheckNodeLayout(const SPODNode& s, CSource& src, bool older) {
  const std::initializer_list<unsigned int> newer = {PODTag::NodeAnimFlags, PODTag::NodeAnimPos,
                                                     PODTag::NodeAnimRot, PODTag::NodeAnimScale};
  const std::initializer_list<unsigned int> old = {PODTag::NodePos, PODTag::NodeRot,
                                                   PODTag::NodeScale};
  for (unsigned int tag : older ? old : newer) {
    if (!src.HasSeen(tag)) src.Irregular(BlockName(tag) + " is missing");
  }
  if ((s.nAnimFlags & ePODHasMatrixAni) && s.pfAnimMatrix == nullptr)
    src.Irregular("its flags animate a matrix but " + BlockName(PODTag::NodeAnimMatrix) +
                  " is missing");
}

}  // namespace

bool ReadNode(SPODNode& s, CSource& src) {
  Clear(s.pszName);
  Clear(s.pfAnimPosition, s.nAnimPositionSize);
  Clear(s.pfAnimRotation, s.nAnimRotationSize);
  Clear(s.pfAnimScale, s.nAnimScaleSize);
  Clear(s.pfAnimMatrix, s.nAnimMatrixSize);
  s.nAnimFlags = 0;
  bool bOldNodeFormat = false;
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::SceneNode | kEnd:
        CheckNodeLayout(s, src, bOldNodeFormat);
        if (bOldNodeFormat && !ConvertOlderNode(s))
          return src.Fail(EPODReadFailure::OutOfMemory, "one frame of a static channel");
        return true;
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
        if (!src.SkipBlock(nLen)) return false;
    }
  }
  return EndedInside(src);
}

namespace {

// One kind of record of the scene: its count, its array, how many records the array has room
// for, and how many of its blocks were read.
template <typename T>
struct RecordArray {
  EPODRecord kind;
  unsigned int tag;
  uint32_t& count;
  T*& array;
  uint32_t capacity;
  unsigned int read = 0;

  RecordArray(EPODRecord k, unsigned int t, uint32_t& c, T*& a)
      : kind(k), tag(t), count(c), array(a), capacity(a ? c : 0) {}
  unsigned int Pending() const { return read < count ? count - read : 0; }

  // Records in the room beyond the count (a count of 0 keeps the array it finds) are never read
  // by anyone; what they hold is released once the scene is read, as far as it goes.
  void ReleaseBeyondCount() {
    for (uint32_t i = count; array != nullptr && i < capacity; ++i) PODModelRelease(array[i]);
  }
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

  ~SceneRecords() {
    cameras.ReleaseBeyondCount();
    lights.ReleaseBeyondCount();
    meshes.ReleaseBeyondCount();
    nodes.ReleaseBeyondCount();
    textures.ReleaseBeyondCount();
    materials.ReleaseBeyondCount();
  }

  // "" when every count equals the records read, else which one differs first.
  std::string Mismatch() const {
    std::string out;
    auto check = [&out](const char* what, uint32_t count, unsigned int read) {
      if (out.empty() && count != read)
        out = std::to_string(count) + " " + what + " declared, " + std::to_string(read) + " held";
    };
    check("cameras", cameras.count, cameras.read);
    check("lights", lights.count, lights.read);
    check("materials", materials.count, materials.read);
    check("meshes", meshes.count, meshes.read);
    check("textures", textures.count, textures.read);
    check("nodes", nodes.count, nodes.read);
    return out;
  }
};

// Every record of an array that the reader made, released with the array.
template <typename T>
void ReleaseRecordArray(T*& array, uint32_t capacity) {
  if (array == nullptr) return;
  for (uint32_t i = 0; i < capacity; ++i) PODModelRelease(array[i]);
  PODReaderReleased(size_t(capacity) * sizeof(T));
  free(array);
  array = nullptr;
}

// A record count. Every announced record still needs a container of at least 16 bytes in what is
// left of the file, so a count the file cannot hold fails before anything is allocated.
//
// A second count for the same records gives a fresh zeroed array, as the first did, and the
// running counter goes on from where it was. The earlier array is released rather than leaked;
// a count of 0 allocates nothing and leaves the array in place.
template <typename T>
bool ReadCount(RecordArray<T>& kind, const SceneRecords& all, CSource& src) {
  unsigned int count;
  if (!src.Read(count)) return false;
  if (count == 0) {
    kind.count = 0;
    return true;
  }
  const size_t budget = src.GetRemaining() / kMinRecordBytes;
  const size_t others = all.PendingExcept(&kind);
  const size_t pending = count > kind.read ? count - kind.read : 0;
  if (others > budget || pending > budget - others)
    return src.Fail(EPODReadFailure::TooManyRecords, std::to_string(count) + " records");
  T* fresh = nullptr;
  if (!SafeAlloc(fresh, count))
    return src.Fail(EPODReadFailure::OutOfMemory, std::to_string(count) + " records");
  ReleaseRecordArray(kind.array, kind.capacity);
  kind.array = fresh;
  kind.capacity = count;
  kind.count = count;
  return true;
}

// The next record of a kind goes into the slot given by the number read so far; a record with
// no slot in the array (before its count, or beyond the room there is) fails the scene at once.
template <typename T>
bool ReadRecord(RecordArray<T>& kind, CSource& src, bool (*parse)(T&, CSource&)) {
  const unsigned int slot = kind.read;
  CSource::Container container(src, kind.kind, slot, kind.tag);
  if (kind.array == nullptr || slot >= kind.capacity)
    return src.Fail(EPODReadFailure::RecordWithoutSlot);
  ++kind.read;
  return parse(kind.array[slot], src);
}

}  // namespace

bool ReadScene(SPODScene& s, CSource& src) {
  CSource::Container container(src, EPODRecord::Scene, 0, PODTag::Scene);
  SceneRecords r{{EPODRecord::Camera, PODTag::SceneCamera, s.nNumCamera, s.pCamera},
                 {EPODRecord::Light, PODTag::SceneLight, s.nNumLight, s.pLight},
                 {EPODRecord::Mesh, PODTag::SceneMesh, s.nNumMesh, s.pMesh},
                 {EPODRecord::Node, PODTag::SceneNode, s.nNumNode, s.pNode},
                 {EPODRecord::Texture, PODTag::SceneTexture, s.nNumTexture, s.pTexture},
                 {EPODRecord::Material, PODTag::SceneMaterial, s.nNumMaterial, s.pMaterial}};
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::Scene | kEnd: {
        const std::string mismatch = r.Mismatch();
        if (!mismatch.empty()) return src.Fail(EPODReadFailure::CountMismatch, mismatch);
        return true;
      }
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
        if (!src.SkipBlock(nLen)) return false;
    }
  }
  return EndedInside(src);
}

bool Read(SPODScene* pScene, CSource& src, char* pExpOpt, unsigned long count) {
  // Blocks are tallied only when a scene is read: the options alone walk the scene's blocks at
  // the top level on purpose.
  CSource::Container file(src, EPODRecord::File, 0, 0, pScene != nullptr);
  bool bVersionOK = false;
  bool bDone = false;
  // A loaded scene always holds floats: also when a stray scene end marker at the top level
  // ends the file early (the marker is otherwise met only in export-options mode).
  auto finish = [&]() {
    if (pScene && (pScene->nFlags & 1u)) PODModelToggleFixedPoint(*pScene);
    if (!bVersionOK) return src.Fail(EPODReadFailure::NoVersion);
    if (!bDone) return src.Fail(pExpOpt ? EPODReadFailure::NoExportOptions : EPODReadFailure::NoScene);
    return true;
  };
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    switch (nName) {
      case PODTag::FormatVersion: {
        const unsigned int at = src.GetReadLocation();
        if (nLen != PODTag::kFormatVersionLength)
          return src.FailAt(EPODReadFailure::BadVersion, at, std::to_string(nLen) + " bytes");
        char* version = nullptr;
        if (!SafeAlloc(version, nLen)) return src.Fail(EPODReadFailure::OutOfMemory);
        if (!src.Read(version, nLen)) {
          free(version);
          return src.Fail(EPODReadFailure::Truncated);
        }
        const bool same = memcmp(version, PODTag::kFormatVersion, nLen) == 0;
        free(version);
        if (!same) return src.FailAt(EPODReadFailure::BadVersion, at);
        bVersionOK = true;
        break;
      }
      case PODTag::Scene:
        // A second scene is read over the first: its counts give fresh arrays, and records
        // it holds without counts of its own go into the slots from the first on.
        if (pScene) {
          if (!ReadScene(*pScene, src)) return false;
          bDone = true;
        }
        break;
      case PODTag::ExportOptions:
        if (!pExpOpt) {
          if (!src.SkipBlock(nLen)) return false;
          break;
        }
        if (!src.Read(pExpOpt, static_cast<unsigned int>(count < nLen ? count : nLen)))
          return src.Fail(EPODReadFailure::Truncated);
        return true;
      case PODTag::Scene | kEnd:
        return finish();
      default:
        if (!src.SkipBlock(nLen)) return false;
    }
  }
  return finish();
}

// ---------------------------------------------------------------------------------------------
// Scene entry points

namespace {

bool ReadFromSource(CPODScene& scene, CSource& src, char* pExpOpt, unsigned long count) {
  // A previous state is not released here: callers reusing a scene call Destroy first.
  static_cast<SPODScene&>(scene) = SPODScene{};
  scene.m_pImpl = nullptr;
  if (!Read(pExpOpt ? nullptr : &scene, src, pExpOpt, count)) return false;
  // Parent chains are not checked here: evaluation walks them without recursion and stops on a
  // cycle, and whoever converts the scene refuses chains it cannot follow.
  if (!scene.InitImpl()) return src.Fail(EPODReadFailure::OutOfMemory, "evaluation state");
  return true;
}

}  // namespace

bool CPODScene::ReadFromFile(const char* pszFileName, char* pExpOpt, unsigned long count,
                             PODReadReport* report) {
  CSourceStream src;
  if (!src.Init(pszFileName)) {
    if (report) report->failure = EPODReadFailure::CannotOpen;
    return false;
  }
  src.SetReport(report);
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
                      unsigned long count, PODReadReport* report) {
  if (nSize >= 0xFFFFFFFFu) {
    if (report) report->failure = EPODReadFailure::CannotOpen;
    return false;
  }
  CSourceStream src;
  src.InitFromMemory(pData, static_cast<unsigned int>(nSize));
  src.SetReport(report);
  return ReadFromSource(scene, src, pExpOpt, count);
}

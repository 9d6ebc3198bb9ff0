#include "pod/PODSource.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "pod/ByteIO.h"
#include "pod/PODTag.h"

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

CSourceStream::~CSourceStream() = default;

bool CSourceStream::Init(const char* pszFileName) {
  m_BytePosition = 0;
  m_bLent = false;
  m_pFile = std::make_unique<CResourceFile>(pszFileName);
  if (!m_pFile->IsOpen()) {
    m_pFile.reset();
    return false;
  }
  return true;
}

bool CSourceStream::InitFromMemory(const void* pData, unsigned int nSize) {
  m_BytePosition = 0;
  m_bLent = false;
  m_pFile = std::make_unique<CResourceFile>(pData, nSize);
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

bool CSource::AllowUnbacked(size_t nBytes) {
  if (nBytes > kUnbackedAllowance - m_unbacked) return false;
  m_unbacked += nBytes;
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

std::unique_ptr<CResourceFile> CSourceStream::TakeLentFile() {
  if (!m_bLent) return nullptr;
  m_bLent = false;
  return std::move(m_pFile);
}

// ---------------------------------------------------------------------------------------------
// What a source tells its report

namespace {

constexpr unsigned int kEnd = PODTag::End;

const char* const kRecordNames[] = {"the file", "the scene", "camera", "light", "material",
                                    "mesh",     "node",      "texture", "stream"};

const korvex::PODBlockSet& SetOf(EPODRecord kind) { return korvex::PODBlocksOf(kind); }


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
    const korvex::PODBlockSet& set = SetOf(open.kind);
    const uint32_t missing = set.required & ~open.seen;
    for (unsigned int k = 0; k < set.count; ++k) {
      if (missing & (1u << k)) m_src.Irregular(PODBlockName(set.first + k) + " is missing");
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
  const korvex::PODBlockSet& set = SetOf(open.kind);
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
  auto block = [nName, at]() { return PODBlockName(nName) + " at byte " + std::to_string(at); };
  if (open.kind == EPODRecord::File && !open.started && nName != PODTag::FormatVersion)
    Irregular("the file does not start with its version block");
  open.started = true;
  const korvex::PODBlockSet& set = SetOf(open.kind);
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

template <typename T>
bool CSource::ReadAfterAlloc(T*& p, unsigned int nLen, size_t& nSize) {
  // A byte pointer may hold an interleaved offset rather than an array: only a recorded size
  // says it owns memory.
  const bool ownsOld = sizeof(T) != 1 || nSize != 0;
  if (!AllocAndRead(*this, p, nLen, ownsOld, 0)) return false;
  if (nLen == 0) return true;
  if (sizeof(T) == 4) korvex::WordsLittleEndian(p, nLen);
  nSize = nLen;
  return true;
}
template bool CSource::ReadAfterAlloc(uint8_t*&, unsigned int, size_t&);
template bool CSource::ReadAfterAlloc(float*&, unsigned int, size_t&);
template bool CSource::ReadAfterAlloc(uint32_t*&, unsigned int, size_t&);
template bool CSource::ReadAfterAlloc(int32_t*&, unsigned int, size_t&);

bool CSource::ReadAfterAlloc(char*& p, unsigned int nLen) {
  return AllocAndRead(*this, p, nLen, true, 1);
}

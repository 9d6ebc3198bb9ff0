#pragma once
// The byte source the POD parser reads through, the whole-file buffer behind it, and the
// reader's counted allocation. Reads return false on any problem and print nothing; nothing is
// read or written outside an allocation. A source given a report (PODReadReport.h) also says
// why a read stopped and which blocks were irregular.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODReadReport.h"
#include "pod/PODRecordLayout.h"

// Abstract byte source of the parser. Reads are all-or-nothing.
class CSource {
 public:
  virtual bool Read(void* pData, unsigned int nBytes) = 0;
  virtual bool Skip(unsigned int nBytes) = 0;
  virtual unsigned int GetReadLocation() const = 0;
  virtual ~CSource() = default;
  // Bytes between the read position and the end of the data: bounds what a count in the file
  // may make the parser allocate.
  virtual unsigned int GetRemaining() const = 0;
  // Records a count asks for beyond those the rest of the data can hold (each needs a container
  // of 16 bytes) are allocated only within a small allowance for the whole read, which this
  // grants or refuses: odd but valid files (a count declared twice, a smaller second scene read
  // over a first) read as they are, while no count makes a read allocate far beyond its data.
  static constexpr size_t kUnbackedAllowance = size_t{1} << 20;
  bool AllowUnbacked(size_t nBytes);
  // The next nBytes in place, skipped over, when the source can lend them to the scene for as
  // long as the scene keeps the source's file; null (nothing moved) otherwise.
  virtual uint8_t* Lend(unsigned int nBytes);

  // Typed little-endian reads, each of the exact size of its type whatever the block's length.
  bool Read(int& v);
  bool Read(unsigned int& v);
  bool Read(float& v);
  bool Read(float (&v)[3]);
  bool Read(float (&v)[4]);
  bool Read(EPODDataType& v);
  bool Read(EPODLight& v);
  // The 4-byte offset of an interleaved stream, kept as a number in the stream's pointer slot.
  bool ReadOffset(uint8_t*& pData);

  bool ReadMarker(unsigned int& nName, unsigned int& nLen);

  // A fresh zeroed array for a data block of nLen bytes, then the bytes. The array has nLen
  // elements of T (over-allocated for wider elements, as the format has always done) and
  // strings get one more zeroed byte so they end in a zero whatever the file holds. nSize
  // receives nLen. A zero length changes nothing; a length beyond the data fails before
  // allocating. An array the pointer already owned is released first.
  // For uint8_t, float, uint32_t and int32_t elements.
  template <typename T>
  bool ReadAfterAlloc(T*& p, unsigned int nLen, size_t& nSize);
  bool ReadAfterAlloc(char*& p, unsigned int nLen);

  // Skips a block's payload; a payload running past the end of the data fails the read.
  bool SkipBlock(unsigned int nLen);

  // ---- What the report is told (nothing happens without one).
  void SetReport(PODReadReport* report) { m_pReport = report; }
  // Records why the read fails, with the record being read and the read position; the first
  // reason given wins, as the innermost parser meets it first. Returns false for `return`.
  bool Fail(EPODReadFailure why, const std::string& detail = std::string());
  // The same for something that began at byte `at` of the file.
  bool FailAt(EPODReadFailure why, unsigned int at, const std::string& detail = std::string());
  // Whether anyone is told: checks that only make report lines can be skipped without one.
  bool Reporting() const { return m_pReport != nullptr; }
  // A block that a complete file would have, or would not have here, in the record being read.
  void Irregular(const std::string& text);
  // Whether the record being read has met a block of this tag so far.
  bool HasSeen(unsigned int nTag) const;

  // The container being read, for as long as its parser runs: markers read meanwhile are
  // tallied for it, and the blocks it must hold are checked when its end marker has come.
  class Container {
   public:
    // `tally` false: nothing is tallied (the options alone walk the scene's blocks unchecked).
    Container(CSource& src, EPODRecord kind, int64_t index, unsigned int nTag, bool tally = true);
    ~Container();
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

   private:
    CSource& m_src;
    bool m_pushed;
  };

 private:
  struct Open {
    EPODRecord kind;
    int64_t index;      // record index; for a stream, its container tag is `tag`
    unsigned int tag;   // the container's own tag (0 for the file)
    uint32_t seen;      // bit k: block first + k of this kind has come
    bool started;       // any marker read inside it yet
    bool ended;         // its own end marker has come
  };
  void NoteMarker(unsigned int nName, unsigned int nLen, unsigned int at);
  std::string Where() const;
  std::string Describe(const Open& open) const;

  PODReadReport* m_pReport = nullptr;
  std::vector<Open> m_open;
  size_t m_unbacked = 0;  // granted by AllowUnbacked so far
};

// One whole file (or a caller's bytes) in memory. A file is mapped privately rather than copied
// where the system allows it (and read into a buffer where not): pages are read as they are
// used, and writes to them stay in this process.
//
// A mapped file that another process shortens while it is mapped makes reading past its new end
// raise SIGBUS; the tool's driver turns that signal into a refusal of the run.
class CResourceFile {
 public:
  // Loads the file named by the read path followed by pszName; stays closed when that fails.
  explicit CResourceFile(const char* pszName);
  // Wraps bytes that stay the caller's.
  CResourceFile(const void* pData, unsigned int nSize);
  virtual ~CResourceFile();
  CResourceFile(const CResourceFile&) = delete;
  CResourceFile& operator=(const CResourceFile&) = delete;

  bool IsOpen() const { return m_bOpen; }
  bool IsMemoryFile() const { return m_bMemoryFile; }
  unsigned int Size() const { return m_Size; }
  const void* DataPtr() const { return m_pData; }
  const char* StringPtr() const { return m_pData; }
  // The bytes of a file loaded here, which may be written to (null for a caller's bytes).
  uint8_t* LendableData() const;
  // Brings every page of a mapped file in at once, far cheaper than one fault per page when the
  // whole file is going to be read.
  void Prefetch() const;
  void Close();

  static void SetReadPath(const char* pszPath);
  static const std::string& GetReadPath();

 private:
  bool m_bOpen = false;
  bool m_bMemoryFile = false;
  unsigned int m_Size = 0;
  // Owned (size + 1 bytes, the last one 0) unless m_bMemoryFile.
  const char* m_pData = nullptr;
  size_t m_MappedLength = 0;  // bytes mapped at m_pData; 0 when it was allocated
  static std::string s_ReadPath;
};

class CSourceStream : public CSource {
 public:
  CSourceStream() = default;
  ~CSourceStream() override;
  CSourceStream(const CSourceStream&) = delete;
  CSourceStream& operator=(const CSourceStream&) = delete;

  bool Init(const char* pszFileName);
  bool InitFromMemory(const void* pData, unsigned int nSize);

  using CSource::Read;
  bool Read(void* pData, unsigned int nBytes) override;
  bool Skip(unsigned int nBytes) override;
  unsigned int GetReadLocation() const override { return m_BytePosition; }
  unsigned int GetRemaining() const override;
  // Lends from a file loaded by Init; a caller's bytes are never lent.
  uint8_t* Lend(unsigned int nBytes) override;

  // Hands over the file once anything was lent from it (the caller then owns it); null, keeping
  // the file, when nothing was.
  std::unique_ptr<CResourceFile> TakeLentFile();
  CResourceFile* File() const { return m_pFile.get(); }

 private:
  std::unique_ptr<CResourceFile> m_pFile;
  unsigned int m_BytePosition = 0;
  bool m_bLent = false;
};

// Every allocation the reader makes goes through here (zero-filled) and is counted, so a test
// or a fuzzer can hold the reader to a small multiple of the file size.
void* PODReaderCalloc(size_t count, size_t size);
// Bytes of such allocations the reader released again (records it dropped): they no longer count.
void PODReaderReleased(size_t bytes);
size_t PODReaderAllocatedBytes();
void PODReaderResetAllocatedBytes();

// A zeroed block of `count` elements of T; a zero count leaves the pointer as it is.
template <typename T>
bool SafeAlloc(T*& ptr, size_t count) {
  if (count == 0) return true;
  void* p = PODReaderCalloc(count, sizeof(T));
  if (!p) return false;
  ptr = static_cast<T*>(p);
  return true;
}

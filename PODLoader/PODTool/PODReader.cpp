#include "pod/PODReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>

#include "pod/PODRecordLayout.h"
#include "pod/PODTag.h"

// Each record is read by walking its table (PODRecordLayout.h) once per block: the entry whose
// tag the block carries reads it, and a block no entry has is skipped. Before its blocks, a
// record releases the members its table marks as cleared first; a record slot is fresh and
// zeroed unless the file holds a second scene, and what such a slot held is released rather
// than leaked. Where the format is not regular, the hooks below say so.

namespace {

using korvex::DescribePOD;
using korvex::PODLayout;

constexpr unsigned int kEnd = PODTag::End;

// The smallest record container: its start and end markers.
constexpr unsigned int kMinRecordBytes = 16;

// Where an array that counts allocate stands: `slots` records in memory, at least as many as the
// last count, of which only [dirtyFrom, dirtyTo) may hold anything. A count no larger than the
// room makes the array fresh again by releasing those alone: a count declared many times then
// costs what was read in between, not its size each time.
struct Room {
  size_t slots = 0;
  size_t dirtyFrom = 0, dirtyTo = 0;
  static Room Found(const void* array, size_t count) {
    return array ? Room{count, 0, count} : Room{};
  }
  void Written(size_t upTo) { dirtyTo = std::max(dirtyTo, upTo); }
};

// The records of each kind of the scene being read (indexed by EPODRecord, in the order its
// table lists the records): the count, how many records its array has room for, and how many
// were read. Records in the room beyond the count (a count of 0 keeps the array it finds) are
// never read by anyone; what they hold is released once the scene is read, as far as it goes.
class SceneBook : public korvex::PODFieldVisitor {
 public:
  struct Kind {
    uint32_t* count = nullptr;
    uint32_t capacity = 0, read = 0;
    const char* name = "";
    Room room;
    uint32_t Pending() const { return read < *count ? *count - read : 0; }
  };
  explicit SceneBook(SPODScene& s) : m_scene(s) { DescribePOD(s, *this); }
  ~SceneBook() {
    m_closing = true;
    DescribePOD(m_scene, *this);
  }
  SceneBook(const SceneBook&) = delete;
  SceneBook& operator=(const SceneBook&) = delete;

  template <class T>
  Kind& Of() {
    return m_kinds[static_cast<size_t>(PODLayout<T>::kRecord)];
  }
  // Records announced but not yet read, of all kinds but `kind`.
  size_t PendingExcept(const Kind& kind) const {
    size_t n = 0;
    for (const Kind& k : m_kinds) n += &k == &kind || !k.count ? 0 : k.Pending();
    return n;
  }
  // "" when every count equals the records read, else which one differs first.
  std::string Mismatch() const {
    for (const Kind& k : m_kinds) {
      if (k.count && *k.count != k.read)
        return std::to_string(*k.count) + " " + k.name + (k.name[std::strlen(k.name) - 1] == 'h' ? "es" : "s") +
               " declared, " + std::to_string(k.read) + " held";
    }
    return std::string();
  }
  // The table's walk: enrols each kind, and at the close releases the records beyond its count.
  template <class T>
  void records(unsigned int, const char* name, T*& array, uint32_t& count) {
    Kind& k = Of<T>();
    if (!m_closing) k = Kind{&count, array ? count : 0, 0, name, Room::Found(array, count)};
    for (uint32_t i = count; m_closing && array != nullptr && i < k.capacity; ++i) PODModelRelease(array[i]);
  }

 private:
  SPODScene& m_scene;
  Kind m_kinds[9];
  bool m_closing = false;
};

// What one record's reading keeps between its blocks.
struct ReadState {
  SceneBook* book = nullptr;  // a scene's record kinds
  unsigned int uvRead = 0;    // a mesh's texture-coordinate streams so far
  Room uvRoom;                // and where its descriptors stand
  bool older = false;         // a node of the older layout
  bool withData = true;       // a stream holds its data (else an offset)
  bool hasData = false;       // a stream's data block has come
};

template <class R>
bool ReadRecord(R& r, CSource& src, unsigned int container, ReadState& st);

// What a record the reader made holds: a record's names and arrays, a descriptor's own array.
template <typename T>
void ReleaseHeld(T& record) {
  PODModelRelease(record);
}
void ReleaseHeld(CPODData& d) { korvex::PODRecordArraysRelease().stream({}, d, false); }

// Every record of an array that the reader made, released with the array.
template <typename T, typename C>
void ReleaseRecordArray(T*& array, C& capacity) {
  if (array == nullptr) return;
  for (C i = 0; i < capacity; ++i) ReleaseHeld(array[i]);
  PODReaderReleased(size_t(capacity) * sizeof(T));
  free(array);
  array = nullptr;
}

// A count that allocates its records (or a mesh's texture-coordinate descriptors): a fresh
// zeroed array, what the earlier one held released rather than leaked, for a second count as for
// the first; a count of 0 allocates nothing and keeps the array. `written`: the slot the next
// record read goes to. Every record announced and not yet read (`unread` of the count) needs a
// container of at least 16 bytes in what is left of the file; a count the file cannot hold fails
// before anything is allocated, unless its array fits in what is left of the read's allowance
// (CSource::AllowUnbacked). An array grows to twice its room where the rest of the file backs it,
// so that counts rising one by one allocate in all about what the largest does.
template <typename T, typename C, typename Unread>
bool ReadCount(CSource& src, uint32_t& n, T*& array, C& capacity, Room& room, size_t written,
               Unread&& unread, const char* what) {
  unsigned int count;
  if (!src.Read(count)) return false;
  if (count != 0) {
    const size_t backed = src.GetRemaining() / kMinRecordBytes;
    if (unread(count) > backed && !src.AllowUnbacked(size_t{count} * sizeof(T)))
      return src.Fail(EPODReadFailure::TooManyRecords, std::to_string(count) + what);
    if (array != nullptr && count <= room.slots) {
      for (size_t i = room.dirtyFrom; i < std::min(room.dirtyTo, room.slots); ++i) {
        ReleaseHeld(array[i]);
        array[i] = T();  // as zeroed as a fresh array (a released descriptor keeps its fields)
      }
    } else {
      const size_t slots = std::max<size_t>(count, std::min(2 * room.slots, written + backed));
      T* fresh = nullptr;
      if (!SafeAlloc(fresh, slots))
        return src.Fail(EPODReadFailure::OutOfMemory, std::to_string(count) + what);
      ReleaseRecordArray(array, room.slots);
      array = fresh;
      room.slots = slots;
    }
    room.dirtyFrom = room.dirtyTo = written;
    capacity = count;
  }
  n = count;
  return true;
}

// A stream's payload: lent by the source where it can (no copy), else read into a fresh array.
// An array the stream held before is released, or, when borrowed, dropped, only once the new
// payload is in place, so a failed read leaves the stream as it was. In an interleaved mesh the
// payload is the stream's offset, and an array read earlier for the stream gives way to it.
bool ReadPayload(CPODData& s, CSource& src, unsigned int nLen, ReadState& st) {
  st.hasData = true;
  if (!st.withData) {
    if (s.nDataSize != 0 && !s.bBorrowed) free(s.pData);
    s.pData = nullptr;
    s.nDataSize = 0;
    s.bBorrowed = false;
    return src.ReadOffset(s.pData);
  }
  s.nFileOffset = src.GetReadLocation();
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

// Reads one block into the entry its tag names, if the table has one. Arrays come through
// ReadAfterAlloc, which gives an array of nLen elements: wider elements get more room than
// they need, as the format has always done.
struct BlockReader : korvex::PODFieldVisitor {
  // Texture-coordinate streams are read by their own hook: see Unmatched.
  static constexpr EPODUVSets kUVSets = EPODUVSets::None;
  CSource& src;
  ReadState& st;
  const unsigned int tag, nLen;
  bool found = false, ok = true;

  bool Is(unsigned int t) {
    if (t != tag) return false;
    found = true;
    return true;
  }
  template <class T>
  void word(unsigned int t, const char*, T& v) {
    if (Is(t)) ok = src.Read(v);
  }
  void real(unsigned int t, const char*, float& v) {
    if (Is(t)) ok = src.Read(v);
  }
  template <size_t N>
  void reals(unsigned int t, const char*, float (&v)[N]) {
    if (Is(t)) ok = src.Read(v);
  }
  template <size_t N>
  void older(unsigned int t, const char*, float (&v)[N]) {
    if (!Is(t)) return;
    ok = src.Read(v);
    st.older = true;
  }
  void text(unsigned int t, const char*, char*& p, bool, bool) {
    if (Is(t)) ok = src.ReadAfterAlloc(p, nLen);
  }
  template <class T>
  void array(unsigned int t, const char*, T*& p, size_t& bytes, int64_t, bool) {
    if (Is(t)) ok = src.ReadAfterAlloc(p, nLen, bytes);
  }
  void frames(unsigned int t, const char*, float*& p, size_t& bytes, unsigned int, bool, bool) {
    if (Is(t)) ok = src.ReadAfterAlloc(p, nLen, bytes);
  }
  // The running counter of a kind goes on from where it was.
  template <class T>
  void count(unsigned int t, const char*, uint32_t& n, T*& records) {
    if (!Is(t)) return;
    SceneBook::Kind& k = st.book->Of<T>();
    auto unread = [&](uint32_t c) { return st.book->PendingExcept(k) + (c > k.read ? c - k.read : 0); };
    ok = ReadCount(src, n, records, k.capacity, k.room, k.read, unread, " records");
  }
  void uvCount(unsigned int t, const char*, uint32_t& n, CPODData*& sets, size_t& held) {
    if (Is(t))
      ok = ReadCount(
          src, n, sets, held, st.uvRoom, st.uvRead, [](uint32_t c) { return size_t{c}; },
          " texture-coordinate streams");
  }
  // The next record of a kind goes into the slot given by the number read so far; a record with
  // no slot in the array (before its count, or beyond the room there is) fails the scene at once.
  template <class T>
  void records(unsigned int t, const char*, T*& array, uint32_t) {
    if (!Is(t)) return;
    SceneBook::Kind& kind = st.book->Of<T>();
    const unsigned int slot = kind.read;
    CSource::Container container(src, PODLayout<T>::kRecord, slot, t);
    if (array == nullptr || slot >= kind.capacity) {
      ok = src.Fail(EPODReadFailure::RecordWithoutSlot);
      return;
    }
    kind.room.Written(++kind.read);
    ReadState inner;
    ok = ReadRecord(array[slot], src, t, inner);
  }
  void stream(const PODVertexStream& s, CPODData& d, bool withData) {
    if (Is(s.tag)) ok = ReadCPODData(d, src, s.tag, withData);
  }
  void payload(unsigned int t, const char*, CPODData& d) {
    if (Is(t)) ok = ReadPayload(d, src, nLen, st);
  }
};

// ---- Where records are not regular.

template <class R>
void Start(R&, ReadState&) {}
// The flags are cleared too: a node without a 5012 block has none.
void Start(SPODNode& s, ReadState&) {
  s.nAnimFlags = 0;
}
// Descriptors found in the slot (a second scene read over a first) may hold arrays.
void Start(SPODMesh& s, ReadState& st) {
  st.uvRoom = Room::Found(s.psUVW, s.nUVWCount);
}

template <class R>
bool Unmatched(R&, CSource& src, unsigned int, unsigned int nLen, ReadState&) {
  return src.SkipBlock(nLen);
}
// Texture-coordinate streams share one tag and fill the descriptors in turn. The table's walk
// leaves them out, so that a block costs the same however many sets a mesh has; a stream beyond
// the descriptors there are has no slot to go to.
bool Unmatched(SPODMesh& s, CSource& src, unsigned int nName, unsigned int nLen, ReadState& st) {
  if (nName != PODTag::MeshUVW) return src.SkipBlock(nLen);
  if (s.psUVW == nullptr || st.uvRead >= s.nUVWCount)
    return src.Fail(EPODReadFailure::StreamCountMismatch,
                    "more streams than the " + std::to_string(s.nNumUVW) + " declared");
  st.uvRoom.Written(st.uvRead + 1);
  return ReadCPODData(s.psUVW[st.uvRead++], src, nName, s.pInterleaved == nullptr);
}

template <class R>
bool Finish(R&, CSource&, const ReadState&) {
  return true;
}

bool Finish(SPODScene&, CSource& src, const ReadState& st) {
  const std::string mismatch = st.book->Mismatch();
  return mismatch.empty() || src.Fail(EPODReadFailure::CountMismatch, mismatch);
}

// An interleaved stream without its offset is taken to start the vertex (a separate one without
// data is judged by its mesh, which knows how many elements it should hold).
bool Finish(CPODData& s, CSource& src, const ReadState& st) {
  if (!st.withData && !st.hasData && s.n != 0)
    src.Irregular("it has components but no block 9003 (pData)");
  return true;
}

// Arrays a mesh's counts call for that a complete file would hold.
void CheckMeshArrays(const SPODMesh& s, CSource& src) {
  if (!src.Reporting()) return;
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
  // An empty block leaves its array as absent as a missing one: the skinned conversion then
  // takes the bone count as 0.
  auto absent = [&src](const void* array, unsigned int tag, const std::string& count) {
    if (array == nullptr)
      src.Irregular(count + " but " + PODBlockName(tag) +
                    (src.HasSeen(tag) ? " is empty" : " is missing"));
  };
  if (s.nNumStrips != 0)
    absent(s.pnStripLength, PODTag::MeshStripLength,
           "nNumStrips is " + std::to_string(s.nNumStrips));
  if (s.sBoneBatches.nBatchCnt > 0) {
    const std::string count = "nBatchCnt is " + std::to_string(s.sBoneBatches.nBatchCnt);
    // Batches of at most 0 bones have an empty table by right.
    if (s.sBoneBatches.nBatchBoneMax > 0)
      absent(s.sBoneBatches.pnBatches, PODTag::MeshBoneBatches, count);
    absent(s.sBoneBatches.pnBatchBoneCnt, PODTag::MeshBoneBatchBoneCnts, count);
  }
}

bool Finish(SPODMesh& s, CSource& src, const ReadState& st) {
  if (st.uvRead != s.nNumUVW)
    return src.Fail(EPODReadFailure::StreamCountMismatch,
                    std::to_string(s.nNumUVW) + " declared, " + std::to_string(st.uvRead) + " held");
  CheckMeshArrays(s, src);
  return true;
}

// One frame of a channel the older node layout kept static; the caller checks the allocation.
float* OneFrame(const float* values, size_t nFloats, size_t& nSize) {
  float* p = nullptr;
  if (!SafeAlloc(p, nFloats)) return nullptr;
  memcpy(p, values, nFloats * sizeof(float));
  nSize = nFloats * sizeof(float);
  return p;
}

// A pointer's low 32 bits, as a 64-bit host's record holds them in the word that follows.
uint32_t LowWord(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

// Brings a node of the older layout (static position, rotation, scale) to the newer one.
bool ConvertOlderNode(SPODNode& s) {
  if (s.pfAnimPosition) {
    s.nAnimFlags |= ePODHasPositionAni;
  } else if (!(s.pfAnimPosition = OneFrame(s.pfPosition, 3, s.nAnimPositionSize))) {
    return false;
  }
  if (s.pfAnimRotation) {
    s.nAnimFlags |= ePODHasRotationAni;
  } else if (!(s.pfAnimRotation = OneFrame(s.pfRotation, 4, s.nAnimRotationSize))) {
    return false;
  }
  if (s.pfAnimScale) {
    s.nAnimFlags |= ePODHasScaleAni;
    return true;
  }
  // The scale frame is 7 words: the static scale, then the four 32-bit words that followed
  // pfScale in the record this format grew up with (the three channel pointers and the flags,
  // as they stand now). Only the first three are ever used as scale; the rest is kept as it
  // always was written.
  float words[7];
  memcpy(words, s.pfScale, 3 * sizeof(float));
  const uint32_t tail[4] = {LowWord(s.pfAnimPosition), LowWord(s.pfAnimRotation),
                            LowWord(s.pfAnimScale), s.nAnimFlags};
  memcpy(words + 3, tail, sizeof tail);
  return (s.pfAnimScale = OneFrame(words, 7, s.nAnimScaleSize)) != nullptr;
}

// The blocks a node of its layout always has: the static transform in the older layout, the
// flags and the three channels in the newer one (whose static fields no file fills: a node
// without them is placed at the origin, unrotated, with a scale of 0).
void CheckNodeLayout(const SPODNode& s, CSource& src, bool older) {
  if (!src.Reporting()) return;
  const std::initializer_list<unsigned int> newer = {PODTag::NodeAnimFlags, PODTag::NodeAnimPos,
                                                     PODTag::NodeAnimRot, PODTag::NodeAnimScale};
  const std::initializer_list<unsigned int> old = {PODTag::NodePos, PODTag::NodeRot,
                                                   PODTag::NodeScale};
  for (unsigned int tag : older ? old : newer) {
    if (!src.HasSeen(tag)) src.Irregular(PODBlockName(tag) + " is missing");
  }
  if ((s.nAnimFlags & ePODHasMatrixAni) && s.pfAnimMatrix == nullptr)
    src.Irregular("its flags animate a matrix but " + PODBlockName(PODTag::NodeAnimMatrix) +
                  " is missing");
}

bool Finish(SPODNode& s, CSource& src, const ReadState& st) {
  CheckNodeLayout(s, src, st.older);
  if (st.older && !ConvertOlderNode(s))
    return src.Fail(EPODReadFailure::OutOfMemory, "one frame of a static channel");
  return true;
}

// ---- The walk.

template <class R>
bool ReadRecord(R& r, CSource& src, unsigned int container, ReadState& st) {
  korvex::PODRecordArraysRelease clear;
  clear.onlyClearedFirst = true;
  DescribePOD(r, clear);
  Start(r, st);
  unsigned int nName, nLen;
  while (src.ReadMarker(nName, nLen)) {
    if (nName == (container | kEnd)) return Finish(r, src, st);
    BlockReader reader{{}, src, st, nName, nLen};
    DescribePOD(r, reader);
    if (!(reader.found ? reader.ok : Unmatched(r, src, nName, nLen, st))) return false;
  }
  // Running out of data inside a container.
  return src.Fail(EPODReadFailure::Truncated);
}

template <class R>
bool ReadOne(R& r, CSource& src) {
  ReadState st;
  return ReadRecord(r, src, PODLayout<R>::kTag, st);
}

}  // namespace

bool ReadCPODData(CPODData& s, CSource& src, unsigned int nSpec, bool bValidData) {
  CSource::Container container(src, EPODRecord::Stream, 0, nSpec);
  ReadState st;
  st.withData = bValidData;
  return ReadRecord(s, src, nSpec, st);
}

bool ReadCamera(SPODCamera& s, CSource& src) { return ReadOne(s, src); }
bool ReadLight(SPODLight& s, CSource& src) { return ReadOne(s, src); }
bool ReadMaterial(SPODMaterial& s, CSource& src) { return ReadOne(s, src); }
bool ReadTexture(SPODTexture& s, CSource& src) { return ReadOne(s, src); }
bool ReadMesh(SPODMesh& s, CSource& src) { return ReadOne(s, src); }
bool ReadNode(SPODNode& s, CSource& src) { return ReadOne(s, src); }

bool ReadScene(SPODScene& s, CSource& src) {
  CSource::Container container(src, EPODRecord::Scene, 0, PODTag::Scene);
  SceneBook book(s);
  ReadState st;
  st.book = &book;
  return ReadRecord(s, src, PODTag::Scene, st);
}

// ---- The top level: not a record, and read by rules of its own.

bool Read(SPODScene* pScene, CSource& src, char* pExpOpt, unsigned long count) {
  // Blocks are tallied only when a scene is read: the options alone walk the scene's blocks at
  // the top level on purpose.
  CSource::Container file(src, EPODRecord::File, 0, 0, pScene != nullptr);
  bool bVersionOK = false;
  bool bDone = false;
  auto finish = [&]() {
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
      // Met at the top level only in export-options mode, unless a file holds a stray one after
      // its scene: that ends the read as it stands, without the fixed-point conversion.
      case PODTag::Scene | kEnd:
        return finish();
      default:
        if (!src.SkipBlock(nLen)) return false;
    }
  }
  // The end of the data: a fixed-point scene is brought to floats.
  if (pScene && (pScene->nFlags & 1u)) PODModelToggleFixedPoint(*pScene);
  return finish();
}

// ---------------------------------------------------------------------------------------------
// Scene entry points

namespace {

bool ReadFromSource(CPODScene& scene, CSource& src, char* pExpOpt, unsigned long count) {
  // A previous state is not released here: callers reusing a scene call Destroy first.
  static_cast<SPODScene&>(scene) = SPODScene{};
  scene.m_pImpl = nullptr;
  // Whatever the read allocates is the scene's, also when it fails part-way.
  scene.m_bOwnsArrays = true;
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
  if (std::unique_ptr<CResourceFile> lent = src.TakeLentFile()) m_pSourceFile = std::move(lent);
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

#include "qsn/QelSceneGraphModel.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "pod/Assertion.h"

namespace {

const char* const kSource = "PODLoader/QelSceneGraphModel";

// Frees every array a record owns; a borrowed one stays with its scene.
struct ArrayReleaser {
  void array(SSGNodeData& buffer) {
    if (!buffer.borrowed) std::free(buffer.data);
    buffer.data = nullptr;
    buffer.length = 0;
    buffer.borrowed = false;
  }
};

template <class L>
void ReleaseRecord(typename L::Record* r) {
  if (r == nullptr) return;
  ArrayReleaser releaser;
  L::arrays(*r, releaser);
  std::free(r);
}

// Size of the POD file, or 0 when it cannot be determined.
uint64_t FileSize(FILE* file) {
  struct stat st;
  if (fstat(fileno(file), &st) != 0 || st.st_size < 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

}  // namespace

QelSceneGraphModel::QelSceneGraphModel() {
  // type, version and totalNodeNumber stay as they are; they are always overwritten before use.
  std::memset(header.PODFilename, 0, sizeof header.PODFilename);
}

QelSceneGraphModel::~QelSceneGraphModel() {
  closePODFile();
  for (const auto& adopted : m_adopted) destroyRecord(adopted.first, adopted.second);
  for (SSGNodeHeader* h : m_adoptedHeaders) std::free(h);
  for (uint8_t* p : m_loadedStreams) std::free(p);
  for (uint8_t* p : m_keptArrays) std::free(p);
}

uint8_t* QelSceneGraphModel::keepArray(size_t bytes) {
  m_keptArrays.push_back(korvex::AllocateZeroed<uint8_t>(bytes, "a shared array"));
  return m_keptArrays.back();
}

void QelSceneGraphModel::destroyRecord(uint32_t kind, void* rec) {
  korvex::SGDispatchKind(kind, [&](auto layout) {
    using L = decltype(layout);
    ReleaseRecord<L>(static_cast<typename L::Record*>(rec));
  });
}

void QelSceneGraphModel::createNode(void* rec, ESGName kind) {
  if (kind == ESGFileHeader) {
    SSGFileHeader* fileHeader = static_cast<SSGFileHeader*>(rec);
    if (fileHeader != &header) std::memcpy(&header, fileHeader, sizeof header);
    return;
  }
  korvex::SGDispatchKind(kind, [&](auto layout) {
    using L = decltype(layout);
    sequence<L::kKind>().push_back(static_cast<typename L::Record*>(rec));
  });
}

void QelSceneGraphModel::createNodeHeader(SSGNodeHeader* nodeHeader) { nodeheader.push_back(nodeHeader); }

void QelSceneGraphModel::adoptNode(void* record, ESGName kind) {
  const size_t before = recordCount(kind);
  createNode(record, kind);
  // Only a record the model now holds is its own (not a header of kind 1000, which is copied).
  if (recordCount(kind) != before) m_adopted.emplace_back(kind, record);
}

void QelSceneGraphModel::adoptNodeHeader(SSGNodeHeader* nodeHeader) {
  createNodeHeader(nodeHeader);
  m_adoptedHeaders.push_back(nodeHeader);
}

void* QelSceneGraphModel::record(uint32_t kind, int32_t index) {
  void* found = nullptr;
  const bool known = korvex::SGDispatchKind(kind, [&](auto layout) {
    using L = decltype(layout);
    auto& records = sequence<L::kKind>();
    KX_ASSERT(index >= 0 && static_cast<size_t>(index) < records.size(), kSource);
    found = records[static_cast<size_t>(index)];
  });
  KX_ASSERT(known, kSource);
  return found;
}

size_t QelSceneGraphModel::recordCount(uint32_t kind) const {
  size_t count = 0;
  korvex::SGDispatchKind(kind, [&](auto layout) {
    using L = decltype(layout);
    count = sequence<L::kKind>().size();
  });
  return count;
}

bool QelSceneGraphModel::openPODFile(const std::string& path) {
  closePODFile();
  PODFile = korvex::FileHandle(path.c_str(), "rb");
  return static_cast<bool>(PODFile);
}

bool QelSceneGraphModel::closePODFile() {
  PODFile.Close();
  return true;
}

bool QelSceneGraphModel::seekFile(uint32_t offset) {
  if (!PODFile) return false;
  return std::fseek(PODFile.get(), static_cast<long>(offset), SEEK_SET) == 0;
}

size_t QelSceneGraphModel::readAt(uint8_t* buffer, size_t size, uint32_t offset) {
  if (!PODFile || !seekFile(offset)) return 0;
  return std::fread(buffer, 1, size, PODFile.get());
}

// Only a file that is not open, or a negative size, is refused; how much was read is not told.
bool QelSceneGraphModel::readPODData(uint8_t* buffer, int size, uint32_t offset) {
  if (!PODFile || size < 0) return false;
  readAt(buffer, static_cast<size_t>(size), offset);
  return true;
}

bool QelSceneGraphModel::loadStream(CPODData& stream, uint64_t bytes, uint32_t offset) {
  stream.pData = nullptr;
  stream.nDataSize = 0;
  if (bytes == 0) return true;
  // A stream cannot be longer than the file that holds it; refusing here keeps a corrupt count
  // from turning into an absurd allocation.
  const uint64_t fileBytes = PODFile ? FileSize(PODFile.get()) : 0;
  if (!PODFile || bytes > fileBytes || bytes > INT32_MAX) return false;
  std::pair<uint8_t*, bool>& loaded = m_loadedAt[{offset, bytes}];
  if (loaded.first == nullptr) {
    // The streams of a file never overlap, so those in different places come in all to no more
    // than its size: twice that bounds what records claiming large overlapping streams load.
    if (bytes > 2 * fileBytes - std::min(m_loadedBytes, 2 * fileBytes)) {
      m_loadedAt.erase({offset, bytes});
      return false;
    }
    m_loadedBytes += bytes;
    loaded.first = korvex::AllocateZeroed<uint8_t>(static_cast<size_t>(bytes), "a mesh stream");
    m_loadedStreams.push_back(loaded.first);
    // A short read leaves the rest of the array zero.
    loaded.second = readAt(loaded.first, static_cast<size_t>(bytes), offset) == bytes;
  }
  stream.pData = loaded.first;
  stream.nDataSize = static_cast<size_t>(bytes);
  return loaded.second;
}

bool QelSceneGraphModel::loadMeshData(SSGQelMeshNode* mesh) {
  const uint64_t vertices = mesh->numVertex;
  bool ok = loadStream(mesh->vertex, vertices * mesh->vertex.n * 4, mesh->vertexOffset);
  ok = loadStream(mesh->face, uint64_t(mesh->numFace) * 6, mesh->faceOffset) && ok;
  ok = loadStream(mesh->normal, vertices * mesh->normal.n * 4, mesh->normalOffset) && ok;
  // Only eight sets exist in the record, whatever numUVW claims.
  const uint32_t sets = mesh->numUVW < 8 ? mesh->numUVW : 8;
  for (uint32_t i = 0; i < sets; ++i)
    ok = loadStream(mesh->UVW[i], vertices * mesh->UVW[i].n * 4, mesh->UVWOffset[i]) && ok;
  return ok;
}

void QelSceneGraphModel::loadNodeDataFromPOD(SSGNodeHeader* nodeHeader) {
  // The check compares the field's address with a literal's, so it can never fail; an empty
  // name is not caught here and the open below then tries PODDirectory alone.
  const char* podFilename = this->header.PODFilename;
  const char* empty = "";
  KX_ASSERT_TEXT(podFilename != empty, "this->header.PODFilename!=\"\"", kSource, __LINE__);

  // PODFilename may fill its 256 bytes without a terminator.
  PODFilePath = PODDirectory + std::string(header.PODFilename, strnlen(header.PODFilename, 256));
  openPODFile(PODFilePath);
  // Kinds built on the mesh record load their streams; the others only open and close the file.
  korvex::SGDispatchKind(nodeHeader->type, [&](auto layout) {
    using L = decltype(layout);
    using Record = typename L::Record;
    // The dump and the viewer go on without what the file lacks, but say so.
    if constexpr (std::is_base_of<SSGQelMeshNode, Record>::value) {
      if (!loadMeshData(static_cast<Record*>(record(L::kKind, nodeHeader->index))))
        korvex::ReportProblem(
            std::string(korvex::ProgramName()) + ": warning: " + PODFilePath + ": node \"" +
            std::string(nodeHeader->name, strnlen(nodeHeader->name, sizeof nodeHeader->name)) +
            "\": its mesh streams are not all in the file; what is missing is left empty or zero");
    }
  });
  closePODFile();
}

void QelSceneGraphModel::loadAllNodeDataFromPOD() {
  for (SSGNodeHeader* h : nodeheader) loadNodeDataFromPOD(h);
}

#include "qsn/SceneGraphLoader.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "pod/ByteIO.h"
#include "pod/Diagnostics.h"

namespace {

using korvex::ByteReader;

using korvex::Format;

// Reads a description field by field from a range that holds exactly its fixed size. Pointer
// slots carry no meaning in the file and come back null.
class FieldReader {
 public:
  explicit FieldReader(ByteReader& in) : m_in(in) {}
  template <class T>
  void word(T& value) {
    static_assert(sizeof(T) == 4, "a file word is 32 bits");
    uint32_t u = 0;
    m_in.u32(u);
    std::memcpy(&value, &u, 4);
  }
  template <class T>
  void words(T* values, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) word(values[i]);
  }
  void text(char* field, uint32_t n) { m_in.raw(field, n); }
  void podData(CPODData& d) {
    uint32_t type = 0;
    m_in.u32(type);
    d.eType = static_cast<EPODDataType>(type);
    m_in.u32(d.n);
    m_in.u32(d.nStride);
    m_in.skip(4);
    d.pData = nullptr;
    m_in.u32(d.nFileOffset);
    d.nDataSize = 0;
  }
  void buffer(SSGNodeData& b) {
    m_in.u32(b.type);
    m_in.u32(b.length);
    m_in.skip(4);
    b.data = nullptr;
  }

 private:
  ByteReader& m_in;
};

// Largest fixed part of any kind: the buffer a block's fixed part is read into.
constexpr uint32_t kLargestFixedPart = kSGSkeletalMeshSize;
// What the records may read beyond the file's size, through headers that share blocks.
constexpr uint64_t kSharedBlockAllowance = uint64_t{64} << 20;

// Kinds other than the plain mesh re-aim their copied stream descriptors at their own arrays.
// A texture-coordinate set that starts beyond the array (the counts disagree with the array's
// length) is left null rather than aimed outside the allocation.
void AimStreams(SSGQelMeshNodeData& m) {
  m.vertex.pData = m.vertexBuffer.data;
  m.vertex.nDataSize = m.vertexBuffer.length;
  m.normal.pData = m.normalBuffer.data;
  m.normal.nDataSize = m.normalBuffer.length;
  m.face.pData = m.faceBuffer.data;
  m.face.nDataSize = m.faceBuffer.length;
  const uint32_t sets = m.numUVW < 8 ? m.numUVW : 8;
  const uint64_t setBytes = uint64_t(m.numVertex) * 8;
  for (uint32_t i = 0; i < sets; ++i) {
    const uint64_t start = i * setBytes;
    if (m.UVWBuffer.data != nullptr && start < m.UVWBuffer.length) {
      const uint64_t left = m.UVWBuffer.length - start;
      m.UVW[i].pData = m.UVWBuffer.data + start;
      m.UVW[i].nDataSize = static_cast<size_t>(setBytes < left ? setBytes : left);
    } else {
      m.UVW[i].pData = nullptr;
      m.UVW[i].nDataSize = 0;
    }
  }
}

}  // namespace

SceneGraphLoader::SceneGraphLoader()
    : m_model(nullptr),
      m_bytesRead(0),
      m_memory(nullptr),
      m_size(0),
      m_position(0),
      m_blockBytes(0),
      m_nodeNumber(0) {}

SceneGraphLoader::~SceneGraphLoader() { closeFile(); }

bool SceneGraphLoader::fail(const std::string& what) {
  m_error = "\"" + m_path + "\": " + what;
  return false;
}

bool SceneGraphLoader::failNode(const SSGNodeHeader* h, const std::string& what) {
  return fail(Format("node %zu (%s, type %u): ", m_nodeNumber, korvex::SGKindName(h->type), h->type) + what);
}

bool SceneGraphLoader::readFromFile(const std::string& path, QelSceneGraphModel* model) {
  m_model = model;
  m_path = path;
  m_memory = nullptr;
  m_error.clear();
  if (!openFile()) {
    const int error = errno;
    return fail(std::string("cannot open: ") + std::strerror(error));
  }
  const bool ok = load();
  closeFile();
  return ok;
}

bool SceneGraphLoader::readFromMemory(const uint8_t* bytes, size_t size, QelSceneGraphModel* model) {
  closeFile();
  m_model = model;
  m_path = "<memory>";
  m_memory = bytes;
  m_size = bytes != nullptr ? size : 0;
  m_position = 0;
  m_error.clear();
  const bool ok = load();
  m_memory = nullptr;
  return ok;
}

bool SceneGraphLoader::load() {
  m_nodeHeaders.clear();
  m_bytesRead = 0;
  m_blockBytes = 0;
  m_nodeNumber = 0;
  if (!readFileFormat()) return false;
  return buildSceneGraph();
}

bool SceneGraphLoader::openFile() {
  closeFile();
  m_file = korvex::FileHandle(m_path.c_str(), "rb");
  if (!m_file) return false;
  // Only a regular file has a size to check offsets against (a directory opens, then fails).
  struct stat st;
  int error = 0;
  if (fstat(fileno(m_file.get()), &st) != 0)
    error = errno;
  else if (!S_ISREG(st.st_mode))
    error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  if (error != 0) {
    closeFile();
    errno = error;
    return false;
  }
  m_size = static_cast<uint64_t>(st.st_size);
  m_position = 0;
  return true;
}

bool SceneGraphLoader::closeFile() {
  m_file.Close();
  return true;
}

bool SceneGraphLoader::seekFile(uint32_t offset) {
  if (offset > m_size) return false;
  if (m_file && fseeko(m_file.get(), static_cast<off_t>(offset), SEEK_SET) != 0) return false;
  m_position = offset;
  return true;
}

bool SceneGraphLoader::readFile(uint8_t* buffer, size_t size) {
  m_bytesRead += size;
  if (size > m_size - m_position) return false;
  if (m_memory != nullptr) {
    std::memcpy(buffer, m_memory + m_position, size);
  } else if (!m_file || std::fread(buffer, 1, size, m_file.get()) != size) {
    return false;
  }
  m_position += size;
  return true;
}

uint32_t SceneGraphLoader::calculateFileHeaderSize(const SSGFileHeader*) const { return kSGFileHeaderSize; }
uint32_t SceneGraphLoader::calculateNodeHeaderSize(const SSGNodeHeader*) const { return kSGNodeHeaderSize; }

bool SceneGraphLoader::readFileHeader(SGData* buffer) {
  buffer->assign(kSGFileHeaderSize, 0);
  return seekFile(0) && readFile(buffer->data(), buffer->size());
}

void SceneGraphLoader::createFileHeader(const SGData* buffer) {
  ByteReader in(buffer->data(), buffer->size());
  FieldReader fields(in);
  korvex::SGFileHeaderLayout::fields(m_model->header, fields);
}

bool SceneGraphLoader::readNode(int count) {
  m_nodeHeaders.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    SGData buffer(kSGNodeHeaderSize, 0);
    if (!readFile(buffer.data(), buffer.size()))
      return fail(Format("node header %d could not be read", i));
    m_nodeHeaders.push_back(std::move(buffer));
  }
  return true;
}

void SceneGraphLoader::createNodeHeader(const SGData* buffer, SSGNodeHeader* nodeHeader) {
  ByteReader in(buffer->data(), buffer->size());
  FieldReader fields(in);
  korvex::SGNodeHeaderLayout::fields(*nodeHeader, fields);
}

bool SceneGraphLoader::readFileFormat() {
  SGData buffer;
  if (!readFileHeader(&buffer))
    return fail(Format("file of %llu bytes is too short for the %u-byte file header",
                       static_cast<unsigned long long>(m_size), kSGFileHeaderSize));
  // The model's header is overwritten before any check.
  createFileHeader(&buffer);
  const SSGFileHeader& header = m_model->header;
  if (header.type != ESGFileHeader)
    return fail(Format("not a scene-graph file: header type %u, expected %u", header.type,
                       static_cast<uint32_t>(ESGFileHeader)));
  // The count is a signed one for the reading loops: one of 2^31 or more reads no header.
  if (header.totalNodeNumber > INT32_MAX) return true;
  // Refused before anything is allocated for them: the headers must fit in the file.
  const uint64_t room = (m_size - kSGFileHeaderSize) / kSGNodeHeaderSize;
  if (header.totalNodeNumber > room)
    return fail(Format("the file header announces %u node headers, the file has room for %llu",
                       header.totalNodeNumber, static_cast<unsigned long long>(room)));
  return readNode(static_cast<int>(header.totalNodeNumber));
}

bool SceneGraphLoader::buildSceneGraph() {
  for (size_t i = 0; i < m_nodeHeaders.size(); ++i) {
    m_nodeNumber = i;
    SSGNodeHeader* h = SGNewRecord<SSGNodeHeader>();
    createNodeHeader(&m_nodeHeaders[i], h);
    bool ok = true;
    switch (h->type) {
      case ESGMeshNode: ok = createMeshNode(h); break;
      case ESGLightNode: ok = createLightNode(h); break;
      case ESGCameraNode: ok = createCameraNode(h); break;
      case ESGMaterial: ok = createMaterialNode(h); break;
      case ESGCollisionBoxNode: ok = createCollisionBoxNode(h); break;
      case ESGCollisionSphereNode: ok = createCollisionSphereNode(h); break;
      case ESGBillboardNode: ok = createBillboardNode(h); break;
      case ESGSkyBoxNode: ok = createSkyboxNode(h); break;
      case ESGMarkerNode: ok = createMarkerNode(h); break;
      case ESGSkeletalMeshNode: ok = createSkeletonNode(h); break;
      case ESGAnimationMeshNode: ok = createAnimationMeshNode(h); break;
      case ESGAnimationCameraNode: ok = createAnimationCameraNode(h); break;
      default: break;  // any other type keeps only its header
    }
    if (!ok) {
      std::free(h);
      return false;
    }
    // Appended once its record is in place, so the model never holds a header without record.
    m_model->adoptNodeHeader(h);
  }
  return true;
}

template <class L>
bool SceneGraphLoader::createRecord(SSGNodeHeader* h) {
  using Record = typename L::Record;
  static_assert(L::kFixedSize <= kLargestFixedPart, "fixed part buffer too small");
  const uint32_t fixed = L::kFixedSize;

  // The header's index is not checked: the record goes to the end of its kind's sequence, and
  // whoever looks a record up by index checks the range.
  if (h->offset > m_size || h->length > m_size - h->offset)
    return failNode(h, Format("block at offset %u of %u bytes lies outside the file of %llu bytes",
                              h->offset, h->length, static_cast<unsigned long long>(m_size)));
  // A record without arrays is its fixed part, read as far as the block goes (the rest stays
  // zero); a record with arrays finds them behind its fixed part, so that part must be whole.
  constexpr bool kWithArrays = korvex::SGDescribedArrayCount<L>() != 0;
  if (kWithArrays && h->length < fixed)
    return failNode(h, Format("block of %u bytes is shorter than the %u-byte fixed part", h->length, fixed));
  if (!kWithArrays && h->length > fixed)
    return failNode(h, Format("block of %u bytes is longer than the %u-byte %s record", h->length, fixed,
                              korvex::SGKindName(h->type)));
  std::array<uint8_t, kLargestFixedPart> bytes{};
  const uint32_t head = h->length < fixed ? h->length : fixed;
  if (!seekFile(h->offset) || !readFile(bytes.data(), head))
    return failNode(h, Format("short read at offset %u", h->offset));
  Record* r = SGNewRecord<Record>();
  {
    ByteReader in(bytes.data(), fixed);
    FieldReader fields(in);
    L::fields(*r, fields);
  }

  // Bytes of the block after the arrays are left unread.
  const uint64_t arrays = korvex::SGArraysLength<L>(*r);
  if (kWithArrays && uint64_t(fixed) + arrays > h->length) {
    std::free(r);  // no array allocated yet
    return failNode(h, Format("the arrays add up to %llu bytes but the block holds %u after its fixed part",
                              static_cast<unsigned long long>(arrays), h->length - fixed));
  }
  // Headers may share blocks, each record reading its own copy. What the records hold beyond
  // the file's own size is bounded, so that a small file cannot make them allocate without end.
  if (m_blockBytes + fixed + arrays > m_size + kSharedBlockAllowance) {
    std::free(r);
    return failNode(h, Format("blocks shared between headers add up to more than %llu MiB beyond the file",
                              static_cast<unsigned long long>(kSharedBlockAllowance >> 20)));
  }

  // Each array is read straight into its own allocation, owned by the record.
  bool ok = true;
  struct ArrayReader {
    SceneGraphLoader* loader;
    bool* ok;
    void array(SSGNodeData& b) {
      if (!*ok || b.length == 0) return;
      // The lengths were bounded by the file's size above.
      b.data = korvex::AllocateZeroed<uint8_t>(b.length, "a record's array");
      *ok = loader->readFile(b.data, b.length);
    }
  } reader{this, &ok};
  L::arrays(*r, reader);
  if (!ok) {
    QelSceneGraphModel::destroyRecord(L::kKind, r);
    return failNode(h, "short read of the block's arrays");
  }

  if constexpr (std::is_base_of<SSGQelMeshNodeData, Record>::value && L::kKind != ESGMeshNode) AimStreams(*r);

  m_model->adoptNode(r, L::kKind);
  m_blockBytes += fixed + arrays;
  return true;
}

bool SceneGraphLoader::createMeshNode(SSGNodeHeader* h) { return createRecord<korvex::SGLayout<ESGMeshNode>>(h); }
bool SceneGraphLoader::createLightNode(SSGNodeHeader* h) { return createRecord<korvex::SGLayout<ESGLightNode>>(h); }
bool SceneGraphLoader::createCameraNode(SSGNodeHeader* h) { return createRecord<korvex::SGLayout<ESGCameraNode>>(h); }
bool SceneGraphLoader::createMaterialNode(SSGNodeHeader* h) { return createRecord<korvex::SGLayout<ESGMaterial>>(h); }
bool SceneGraphLoader::createCollisionBoxNode(SSGNodeHeader* h) {
  return createRecord<korvex::SGLayout<ESGCollisionBoxNode>>(h);
}
bool SceneGraphLoader::createCollisionSphereNode(SSGNodeHeader* h) {
  return createRecord<korvex::SGLayout<ESGCollisionSphereNode>>(h);
}
bool SceneGraphLoader::createBillboardNode(SSGNodeHeader* h) {
  return createRecord<korvex::SGLayout<ESGBillboardNode>>(h);
}
bool SceneGraphLoader::createSkyboxNode(SSGNodeHeader* h) { return createRecord<korvex::SGLayout<ESGSkyBoxNode>>(h); }
bool SceneGraphLoader::createMarkerNode(SSGNodeHeader* h) { return createRecord<korvex::SGLayout<ESGMarkerNode>>(h); }
bool SceneGraphLoader::createSkeletonNode(SSGNodeHeader* h) {
  return createRecord<korvex::SGLayout<ESGSkeletalMeshNode>>(h);
}
bool SceneGraphLoader::createAnimationMeshNode(SSGNodeHeader* h) {
  return createRecord<korvex::SGLayout<ESGAnimationMeshNode>>(h);
}
bool SceneGraphLoader::createAnimationCameraNode(SSGNodeHeader* h) {
  return createRecord<korvex::SGLayout<ESGAnimationCameraNode>>(h);
}

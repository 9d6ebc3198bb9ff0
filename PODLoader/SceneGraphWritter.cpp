#include "qsn/SceneGraphWritter.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <string>

#include "pod/ByteIO.h"
#include "pod/Diagnostics.h"

namespace {

using korvex::ByteWriter;
using korvex::SGLayout;

// Serialises a description field by field, little-endian; pointer slots are written as 0.
class FieldWriter {
 public:
  explicit FieldWriter(ByteWriter& out) : m_out(out) {}
  template <class T>
  void word(const T& value) {
    static_assert(sizeof(T) == 4, "a file word is 32 bits");
    uint32_t u;
    std::memcpy(&u, &value, 4);
    m_out.u32(u);
  }
  template <class T>
  void words(const T* values, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) word(values[i]);
  }
  void text(const char* field, uint32_t n) { m_out.raw(field, n); }
  void podData(const CPODData& d) {
    m_out.u32(d.eType);
    m_out.u32(d.n);
    m_out.u32(d.nStride);
    m_out.u32(0);
    m_out.u32(d.nFileOffset);
  }
  void buffer(const SSGNodeData& b) {
    m_out.u32(b.type);
    m_out.u32(b.length);
    m_out.u32(0);
  }

 private:
  ByteWriter& m_out;
};

// Appends each array from its data pointer, exactly `length` bytes (zeros if data is null).
class ArrayWriter {
 public:
  explicit ArrayWriter(ByteWriter& out) : m_out(out) {}
  void array(const SSGNodeData& b) { m_out.raw(b.data, b.length); }

 private:
  ByteWriter& m_out;
};

// Hands each array to `write` as it stands in the record, exactly `length` bytes (zeros if data
// is null). Every array is offered even after a failed write, as the byte count requires.
template <class Write>
class ArrayStreamer {
 public:
  explicit ArrayStreamer(Write& write) : m_write(write) {}
  void array(const SSGNodeData& b) {
    if (b.length == 0) return;
    if (b.data != nullptr) {
      m_ok = m_write(b.data, b.length) && m_ok;
      return;
    }
    static const uint8_t kZeros[4096] = {};
    for (uint32_t left = b.length; left > 0;) {
      const uint32_t n = left < sizeof kZeros ? left : static_cast<uint32_t>(sizeof kZeros);
      m_ok = m_write(kZeros, n) && m_ok;
      left -= n;
    }
  }
  bool ok() const { return m_ok; }

 private:
  Write& m_write;
  bool m_ok = true;
};

// Writes one block: its fixed part, then its arrays. The bytes are those BuildBlock assembles.
template <class L, class Write>
bool StreamBlock(const typename L::Record& r, Write& write) {
  ByteWriter out;
  out.reserve(L::kFixedSize);
  FieldWriter fields(out);
  L::fields(r, fields);
  bool ok = write(out.bytes().data(), out.size());
  ArrayStreamer<Write> arrays(write);
  L::arrays(r, arrays);
  return arrays.ok() && ok;
}

template <class L>
uint64_t BlockSize(const typename L::Record& r) {
  return uint64_t(L::kFixedSize) + korvex::SGArraysLength<L>(r);
}

template <class L>
SGData BuildBlock(const typename L::Record& r) {
  ByteWriter out;
  out.reserve(static_cast<size_t>(BlockSize<L>(r)));
  FieldWriter fields(out);
  L::fields(r, fields);
  ArrayWriter arrays(out);
  L::arrays(r, arrays);
  return std::move(out.bytes());
}

template <class Layout>
SGData BuildFixed(const typename Layout::Record& r) {
  ByteWriter out;
  out.reserve(Layout::kFixedSize);
  FieldWriter fields(out);
  Layout::fields(r, fields);
  return std::move(out.bytes());
}


}  // namespace

SceneGraphWritter::SceneGraphWritter()
    : m_model(nullptr), m_file(nullptr), m_bytesWritten(0), m_writeError(0) {}

// An open temporary file (a caller driving the steps by hand that stopped half-way) goes with m_out.
SceneGraphWritter::~SceneGraphWritter() = default;

bool SceneGraphWritter::fail(const std::string& what) {
  m_error = what;
  korvex::ReportProblem("Korvex: " + m_error);
  return false;
}

bool SceneGraphWritter::WritetoFile(const std::string& path, QelSceneGraphModel* model) {
  m_model = model;
  m_path = path;
  // A second call starts afresh rather than appending to the buffers of the first.
  m_fileHeader.clear();
  m_nodeHeaders.clear();
  m_written.clear();
  m_bytesWritten = 0;
  m_writeError = 0;
  m_error.clear();

  if (!buildFileFormat()) return false;
  if (!openFile()) return fail(m_out->error());
  uint64_t planned = m_fileHeader.size();
  for (const SGData& b : m_nodeHeaders) planned += b.size();
  for (const SSGNodeHeader* h : m_written) planned += h->length;
  m_out->Reserve(planned);
  writeFileFormat();
  if (!closeFile()) return fail(m_out->error());
  return true;
}

bool SceneGraphWritter::openFile() {
  m_out = std::make_unique<korvex::AtomicFile>(m_path);
  m_file = nullptr;
  if (!m_out->Open()) return false;
  m_file = m_out->file();
  // Headers and fixed parts are small and many: a larger buffer gathers them, while arrays
  // larger than it still go to the file directly.
  m_fileBuffer.resize(kFileBufferSize);
  setvbuf(m_file, m_fileBuffer.data(), _IOFBF, m_fileBuffer.size());
  return true;
}

bool SceneGraphWritter::closeFile() {
  if (m_file == nullptr) return true;
  m_file = nullptr;
  return m_out->Commit(m_writeError != 0, m_writeError);
}

bool SceneGraphWritter::writeFile(const uint8_t* bytes, size_t size) {
  m_bytesWritten += size;
  if (size == 0) return true;
  if (m_file == nullptr || std::fwrite(bytes, 1, size, m_file) != size) {
    if (m_writeError == 0) m_writeError = m_file == nullptr ? EBADF : (errno != 0 ? errno : EIO);
    return false;
  }
  return true;
}

uint32_t SceneGraphWritter::calculateFileHeaderSize(const SSGFileHeader*) const { return kSGFileHeaderSize; }
uint32_t SceneGraphWritter::calculateNodeHeaderSize(const SSGNodeHeader*) const { return kSGNodeHeaderSize; }

uint64_t SceneGraphWritter::calculateNodeSize(const SSGQelNodeData* d) const { return BlockSize<SGLayout<ESGNode>>(*d); }
uint64_t SceneGraphWritter::calculateSSGNodeSize(const SSGNodeData* b) const { return uint64_t(kSGNodeSize) + b->length; }
uint64_t SceneGraphWritter::calculateMeshNodeSize(const SSGQelMeshNodeData* d) const {
  return BlockSize<SGLayout<ESGMeshNode>>(*d);
}
uint64_t SceneGraphWritter::calculateLightNodeSize(const SSGQelLightNodeData* d) const {
  return BlockSize<SGLayout<ESGLightNode>>(*d);
}
uint64_t SceneGraphWritter::calculateCameraNodeSize(const SSGQelCameraNodeData* d) const {
  return BlockSize<SGLayout<ESGCameraNode>>(*d);
}
uint64_t SceneGraphWritter::calculateMaterialNodeSize(const SSGQelMaterialData* d) const {
  return BlockSize<SGLayout<ESGMaterial>>(*d);
}
uint64_t SceneGraphWritter::calculateCollisionBoxNodeSize(const SSGQelCollisionBoxNodeData* d) const {
  return BlockSize<SGLayout<ESGCollisionBoxNode>>(*d);
}
uint64_t SceneGraphWritter::calculateCollisionSphereNodeSize(const SSGQelCollisionSphereNodeData* d) const {
  return BlockSize<SGLayout<ESGCollisionSphereNode>>(*d);
}
uint64_t SceneGraphWritter::calculateBillboardNodeSize(const SSGQelBillboardNodeData* d) const {
  return BlockSize<SGLayout<ESGBillboardNode>>(*d);
}
uint64_t SceneGraphWritter::calculateSkyboxNodeSize(const SSGQelSkyBoxNodeData* d) const {
  return BlockSize<SGLayout<ESGSkyBoxNode>>(*d);
}
uint64_t SceneGraphWritter::calculateMarkerNodeSize(const SSGQelMarkerNodeData* d) const {
  return BlockSize<SGLayout<ESGMarkerNode>>(*d);
}
uint64_t SceneGraphWritter::calculateSkeletonNodeSize(const SSGQelSkeletalMeshNodeData* d) const {
  return BlockSize<SGLayout<ESGSkeletalMeshNode>>(*d);
}
uint64_t SceneGraphWritter::calculateAnimationNodeSize(const SSGQelAnimationMeshNodeData* d) const {
  return BlockSize<SGLayout<ESGAnimationMeshNode>>(*d);
}
uint64_t SceneGraphWritter::calculateAnimationCameraNodeSize(const SSGQelAnimationCameraNodeData* d) const {
  return BlockSize<SGLayout<ESGAnimationCameraNode>>(*d);
}

SGData SceneGraphWritter::createFileHeader() const { return BuildFixed<korvex::SGFileHeaderLayout>(m_model->header); }
SGData SceneGraphWritter::createNodeHeader(const SSGNodeHeader* h) const {
  return BuildFixed<korvex::SGNodeHeaderLayout>(*h);
}
SGData SceneGraphWritter::createNodeData(const SSGQelNodeData* d) const { return BuildBlock<SGLayout<ESGNode>>(*d); }
SGData SceneGraphWritter::createSSGNodeData(const SSGQelNodeData* d, const SSGNodeData* b) const {
  ByteWriter out;
  FieldWriter fields(out);
  SGLayout<ESGNode>::fields(*d, fields);
  out.raw(b->data, b->length);
  return std::move(out.bytes());
}
SGData SceneGraphWritter::createMeshData(const SSGQelMeshNodeData* d) const { return BuildBlock<SGLayout<ESGMeshNode>>(*d); }
SGData SceneGraphWritter::createLightData(const SSGQelLightNodeData* d) const {
  return BuildBlock<SGLayout<ESGLightNode>>(*d);
}
SGData SceneGraphWritter::createCameraData(const SSGQelCameraNodeData* d) const {
  return BuildBlock<SGLayout<ESGCameraNode>>(*d);
}
SGData SceneGraphWritter::createMaterialData(const SSGQelMaterialData* d) const {
  return BuildBlock<SGLayout<ESGMaterial>>(*d);
}
SGData SceneGraphWritter::createCollisionBoxData(const SSGQelCollisionBoxNodeData* d) const {
  return BuildBlock<SGLayout<ESGCollisionBoxNode>>(*d);
}
SGData SceneGraphWritter::createCollisionSphereData(const SSGQelCollisionSphereNodeData* d) const {
  return BuildBlock<SGLayout<ESGCollisionSphereNode>>(*d);
}
SGData SceneGraphWritter::createBillboardData(const SSGQelBillboardNodeData* d) const {
  return BuildBlock<SGLayout<ESGBillboardNode>>(*d);
}
SGData SceneGraphWritter::createSkyboxData(const SSGQelSkyBoxNodeData* d) const {
  return BuildBlock<SGLayout<ESGSkyBoxNode>>(*d);
}
SGData SceneGraphWritter::createMarkerData(const SSGQelMarkerNodeData* d) const {
  return BuildBlock<SGLayout<ESGMarkerNode>>(*d);
}
SGData SceneGraphWritter::createSkeletonData(const SSGQelSkeletalMeshNodeData* d) const {
  return BuildBlock<SGLayout<ESGSkeletalMeshNode>>(*d);
}
SGData SceneGraphWritter::createAnimationMeshData(const SSGQelAnimationMeshNodeData* d) const {
  return BuildBlock<SGLayout<ESGAnimationMeshNode>>(*d);
}
SGData SceneGraphWritter::createAnimationCameraData(const SSGQelAnimationCameraNodeData* d) const {
  return BuildBlock<SGLayout<ESGAnimationCameraNode>>(*d);
}

bool SceneGraphWritter::buildFileFormat() {
  constexpr uint64_t kMax32 = std::numeric_limits<uint32_t>::max();
  // The base counts every header, written or not (only kinds 2001..2012 are written).
  const uint64_t base =
      uint64_t(m_model->nodeheader.size()) * kSGNodeHeaderSize + kSGFileHeaderSize;
  m_fileHeader = createFileHeader();
  uint64_t running = 0;
  for (size_t i = 0; i < m_model->nodeheader.size(); ++i) {
    SSGNodeHeader* h = m_model->nodeheader[i];
    if (h->type >= ESGMeshNode && h->type <= ESGAnimationCameraNode) {
      // A model read from a file may hold a header whose index has no record of its kind.
      const size_t records = m_model->recordCount(h->type);
      if (h->index < 0 || static_cast<size_t>(h->index) >= records)
        return fail("cannot write " + m_path + ": node header " + std::to_string(i) + " names record " +
                    std::to_string(h->index) + " of its kind, which has " + std::to_string(records));
      uint64_t size = 0;
      korvex::SGDispatchKind(h->type, [&](auto layout) {
        using L = decltype(layout);
        size = BlockSize<L>(*static_cast<const typename L::Record*>(m_model->record(L::kKind, h->index)));
      });
      const uint64_t offset = base + running;
      if (size > kMax32 || offset > kMax32)
        return fail("cannot write " + m_path + ": the scene does not fit the 32-bit offsets of the format");
      h->length = static_cast<uint32_t>(size);
      h->offset = static_cast<uint32_t>(offset);
      m_nodeHeaders.push_back(createNodeHeader(h));
      m_written.push_back(h);
    }
    // Every header's length moves the running offset, also the length a skipped header had.
    running += h->length;
  }
  return true;
}

bool SceneGraphWritter::writeFileHeader() { return writeFile(m_fileHeader.data(), m_fileHeader.size()); }

bool SceneGraphWritter::writeNodeHeader() {
  bool ok = true;
  for (const SGData& b : m_nodeHeaders) ok = writeFile(b.data(), b.size()) && ok;
  return ok;
}

bool SceneGraphWritter::writeData() {
  auto write = [this](const uint8_t* bytes, size_t size) { return writeFile(bytes, size); };
  bool ok = true;
  for (const SSGNodeHeader* h : m_written) {
    korvex::SGDispatchKind(h->type, [&](auto layout) {
      using L = decltype(layout);
      const auto* record = static_cast<const typename L::Record*>(m_model->record(L::kKind, h->index));
      ok = StreamBlock<L>(*record, write) && ok;
    });
  }
  return ok;
}

bool SceneGraphWritter::writeFileFormat() {
  bool ok = writeFileHeader();
  ok = writeNodeHeader() && ok;
  ok = writeData() && ok;
  return ok;
}

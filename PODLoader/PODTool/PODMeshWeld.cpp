#include "pod/PODMeshWeld.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "pod/Diagnostics.h"
#include "pod/IndexRange.h"

namespace {

// Rebuilt arrays are made of elements of this many bytes: a corner's index, a vertex's position,
// normal or coordinates, a vertex's bone indices, or one bone weight (weights are packed by bone
// index, not by the weight stride, so they are gathered one at a time).
size_t ElementBytes(const SPODMesh& mesh, EPODWeldStream stream) {
  switch (stream) {
    case EPODWeldStream::Faces: return 2;
    case EPODWeldStream::Vertex:
    case EPODWeldStream::Normals: return 12;
    case EPODWeldStream::UVW0:
    case EPODWeldStream::UVW1: return 8;
    case EPODWeldStream::BoneIdx: return mesh.sBoneIdx.n;
    case EPODWeldStream::BoneWeight: return 4;
  }
  return 0;
}

// The stream a weld rebuilds as `stream`, for a const or a mutable mesh.
template <typename Mesh>
auto StreamOf(Mesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream) -> decltype(&mesh.sVertex) {
  switch (stream) {
    // Without triangles an absent index array stays absent.
    case EPODWeldStream::Faces: return mesh.sFaces.pData != nullptr ? &mesh.sFaces : nullptr;
    case EPODWeldStream::Vertex: return &mesh.sVertex;
    case EPODWeldStream::Normals: return &mesh.sNormals;
    case EPODWeldStream::UVW0: return weld.nUVW > 0 ? &mesh.psUVW[0] : nullptr;
    case EPODWeldStream::UVW1: return weld.nUVW > 1 ? &mesh.psUVW[1] : nullptr;
    case EPODWeldStream::BoneIdx: return weld.bBones ? &mesh.sBoneIdx : nullptr;
    case EPODWeldStream::BoneWeight: return weld.bBones ? &mesh.sBoneWeight : nullptr;
  }
  return nullptr;
}

size_t Corners(const SPODMesh& mesh) { return static_cast<size_t>(mesh.nNumFaces) * 3; }

// Element e of the rebuilt array, into out (ElementBytes of them). False for an index beyond the
// old vertices the weld covers.
bool Element(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream, size_t e,
             uint8_t* out) {
  switch (stream) {
    case EPODWeldStream::Faces: {
      const uint8_t* old = mesh.sFaces.pData + 2 * e;
      if (e >= Corners(mesh)) {
        std::memcpy(out, old, 2);  // past the triangles the array keeps its bytes
        return true;
      }
      uint16_t kept;
      if (weld.pnKeptOf != nullptr) {
        uint16_t i;
        std::memcpy(&i, old, 2);
        if (i >= weld.nReach) return false;
        kept = weld.pnKeptOf[i];
      } else {
        kept = weld.pnCornerKept[e];
      }
      std::memcpy(out, &kept, 2);
      return true;
    }
    case EPODWeldStream::Vertex:
      std::memcpy(out, mesh.sVertex.pData + 12 * size_t{weld.pnSource[e]}, 12);
      return true;
    case EPODWeldStream::Normals:
      std::memcpy(out, mesh.sNormals.pData + 12 * size_t{weld.pnNormalFrom[e]}, 12);
      return true;
    case EPODWeldStream::UVW0:
    case EPODWeldStream::UVW1: {
      const CPODData& uv = mesh.psUVW[stream == EPODWeldStream::UVW0 ? 0 : 1];
      std::memcpy(out, uv.pData + 8 * size_t{weld.pnSource[e]}, 8);
      return true;
    }
    case EPODWeldStream::BoneIdx: {
      const CPODData& idx = mesh.sBoneIdx;
      std::memcpy(out, idx.pData + size_t{idx.nStride} * weld.pnSource[e], idx.n);
      return true;
    }
    case EPODWeldStream::BoneWeight: {
      const uint32_t bones = mesh.sBoneIdx.n;
      const CPODData& weights = mesh.sBoneWeight;
      if (bones == 0 || e >= size_t{weld.nKept} * bones) {
        std::memset(out, 0, 4);
        return true;
      }
      const size_t source = weld.pnSource[e / bones];
      std::memcpy(out, weights.pData + size_t{weights.nStride} * source + 4 * (e % bones), 4);
      return true;
    }
  }
  return true;
}

// Elements [first, first + count) of a stream gathered row by row from an old array.
template <size_t kBytes>
void GatherRows(const uint8_t* old, const uint16_t* from, size_t first, size_t count, uint8_t* out) {
  for (size_t e = 0; e < count; ++e) std::memcpy(out + kBytes * e, old + kBytes * size_t{from[first + e]}, kBytes);
}

// The same for rows of `bytes` bytes at a stride of their own (a vertex's bone indices).
void GatherStridedRows(const CPODData& old, size_t bytes, const uint16_t* from, size_t first,
                       size_t count, uint8_t* out) {
  const size_t stride = old.nStride;
  if (bytes == 4) {
    for (size_t e = 0; e < count; ++e)
      std::memcpy(out + 4 * e, old.pData + stride * from[first + e], 4);
    return;
  }
  for (size_t e = 0; e < count; ++e)
    std::memcpy(out + bytes * e, old.pData + stride * from[first + e], bytes);
}

// Bone weights [first, first + count): `bones` of them a kept vertex, each taken from its old
// vertex's row by bone; past the kept vertices, zeros.
void GatherWeights(const SPODMesh& mesh, const SPODMeshWeld& weld, size_t bones, size_t first,
                   size_t count, uint8_t* out) {
  const size_t held = std::min(first + count, size_t{weld.nKept} * bones);
  const CPODData& weights = mesh.sBoneWeight;
  size_t v = first / bones, b = first % bones;
  size_t e = first;
  for (; e < held; ++e) {
    std::memcpy(out + 4 * (e - first),
                weights.pData + size_t{weights.nStride} * weld.pnSource[v] + 4 * b, 4);
    if (++b == bones) {
      b = 0;
      ++v;
    }
  }
  if (e < first + count) std::memset(out + 4 * (e - first), 0, 4 * (first + count - e));
}

// Whole elements [first, first + count) of the rebuilt array, each stream by a loop of its own.
// False for an index beyond the old vertices the weld covers.
bool GatherElements(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream,
                    size_t first, size_t count, uint8_t* out) {
  switch (stream) {
    case EPODWeldStream::Vertex:
      GatherRows<12>(mesh.sVertex.pData, weld.pnSource, first, count, out);
      return true;
    case EPODWeldStream::Normals:
      GatherRows<12>(mesh.sNormals.pData, weld.pnNormalFrom, first, count, out);
      return true;
    case EPODWeldStream::UVW0:
      GatherRows<8>(mesh.psUVW[0].pData, weld.pnSource, first, count, out);
      return true;
    case EPODWeldStream::UVW1:
      GatherRows<8>(mesh.psUVW[1].pData, weld.pnSource, first, count, out);
      return true;
    case EPODWeldStream::Faces:
      if (weld.pnKeptOf != nullptr && first + count <= Corners(mesh)) {
        if (weld.nReach == 0) return count == 0;
        // The range is checked first (its indices are in the nearest cache for the lookups
        // that follow): an index beyond the weld's old vertices fails the whole. Pointers in
        // locals: `out` could alias them for all the compiler knows.
        const uint8_t* old = mesh.sFaces.pData + 2 * first;
        if (HighestIndex(old, count) >= weld.nReach) return false;
        const uint16_t* keptOf = weld.pnKeptOf;
        for (size_t e = 0; e < count; ++e) {
          uint16_t i;
          std::memcpy(&i, old + 2 * e, 2);
          std::memcpy(out + 2 * e, &keptOf[i], 2);
        }
        return true;
      }
      break;
    case EPODWeldStream::BoneIdx:
      GatherStridedRows(mesh.sBoneIdx, mesh.sBoneIdx.n, weld.pnSource, first, count, out);
      return true;
    case EPODWeldStream::BoneWeight:
      if (mesh.sBoneIdx.n == 0) break;
      GatherWeights(mesh, weld, mesh.sBoneIdx.n, first, count, out);
      return true;
    default:
      break;
  }
  const size_t size = ElementBytes(mesh, stream);
  bool ok = true;
  for (size_t e = 0; e < count; ++e) ok = Element(mesh, weld, stream, first + e, out + size * e) && ok;
  return ok;
}

void* AllocZeroed(size_t bytes) {
  // Never null, even for nothing: a present stream stays present.
  return korvex::AllocateZeroed(bytes > 0 ? bytes : 1, 1, "a welded stream");
}

void Install(CPODData& d, uint8_t* data, size_t bytes) {
  // A borrowed array belongs to the scene's source file: only the pointer goes.
  if (!d.bBorrowed) std::free(d.pData);
  d.pData = data;
  d.bBorrowed = false;
  d.nDataSize = bytes;
}

}  // namespace

SPODMeshWeld* PODMeshWeldCreate(uint32_t kept, bool byOldVertex, size_t oldVertices, size_t corners) {
  const size_t perCorner = byOldVertex ? oldVertices : corners;
  const size_t header = (sizeof(SPODMeshWeld) + 15) / 16 * 16;
  auto* block = static_cast<uint8_t*>(korvex::AllocateUnfilled(
      header + sizeof(uint16_t) * (2 * size_t{kept} + perCorner), "a weld"));
  auto* weld = reinterpret_cast<SPODMeshWeld*>(block);
  *weld = SPODMeshWeld{};
  weld->nKept = kept;
  weld->pnSource = reinterpret_cast<uint16_t*>(block + header);
  weld->pnNormalFrom = weld->pnSource + kept;
  (byOldVertex ? weld->pnKeptOf : weld->pnCornerKept) = weld->pnNormalFrom + kept;
  return weld;
}

void PODMeshWeldFree(SPODMeshWeld* weld) { std::free(weld); }

namespace {

// The same layout and length; the array may have moved (a scene about to overwrite its own
// file copies the arrays it borrows from it).
bool SameStream(const CPODData& a, const CPODData& b) {
  return a.eType == b.eType && a.n == b.n && a.nStride == b.nStride &&
         (a.pData == nullptr) == (b.pData == nullptr) && a.nDataSize == b.nDataSize;
}

}  // namespace

void PODMeshWeldNote(SPODMeshWeld& weld, const SPODMesh& mesh, size_t oldVertices) {
  weld.nReach = static_cast<uint32_t>(oldVertices);
  weld.nFaces = mesh.nNumFaces;
  weld.nNumUVW = mesh.nNumUVW;
  weld.sFaces = mesh.sFaces;
  weld.sVertex = mesh.sVertex;
  weld.sNormals = mesh.sNormals;
  for (uint32_t k = 0; k < 2; ++k) weld.sUVW[k] = k < weld.nUVW ? mesh.psUVW[k] : CPODData{};
  weld.sBoneIdx = weld.bBones ? mesh.sBoneIdx : CPODData{};
  weld.sBoneWeight = weld.bBones ? mesh.sBoneWeight : CPODData{};
}

bool PODMeshWeldFits(const SPODMesh& mesh, const SPODMeshWeld& weld) {
  if (mesh.nNumFaces != weld.nFaces || mesh.nNumUVW != weld.nNumUVW || mesh.pInterleaved != nullptr ||
      !SameStream(mesh.sFaces, weld.sFaces) || !SameStream(mesh.sVertex, weld.sVertex) ||
      !SameStream(mesh.sNormals, weld.sNormals))
    return false;
  if (weld.nUVW > 0 && (mesh.psUVW == nullptr || mesh.nUVWCount < weld.nUVW)) return false;
  for (uint32_t k = 0; k < weld.nUVW; ++k)
    if (!SameStream(mesh.psUVW[k], weld.sUVW[k])) return false;
  if (weld.bBones != (mesh.sBoneBatches.nBatchCnt > 0)) return false;
  return !weld.bBones ||
         (SameStream(mesh.sBoneIdx, weld.sBoneIdx) && SameStream(mesh.sBoneWeight, weld.sBoneWeight));
}

namespace {

// Every index stays below the old vertices the weld covers.
bool IndicesFit(const SPODMesh& mesh, const SPODMeshWeld& weld) {
  const size_t corners = Corners(mesh);
  if (weld.pnKeptOf == nullptr || corners == 0) return true;
  return HighestIndex(mesh.sFaces.pData, corners) < weld.nReach;
}

}  // namespace

const CPODData* PODMeshWeldedStream(const SPODMesh& mesh, const SPODMeshWeld& weld,
                                    EPODWeldStream stream) {
  return StreamOf(mesh, weld, stream);
}

size_t PODMeshWeldedBytes(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream) {
  const size_t n = weld.nKept;
  switch (stream) {
    case EPODWeldStream::Faces: return mesh.sFaces.nDataSize;
    case EPODWeldStream::Vertex:
    case EPODWeldStream::Normals: return n * 12;
    case EPODWeldStream::UVW0:
    case EPODWeldStream::UVW1: return n * 8;
    case EPODWeldStream::BoneIdx: return n * mesh.sBoneIdx.n;
    case EPODWeldStream::BoneWeight: return n * mesh.sBoneWeight.n * 4;
  }
  return 0;
}

bool PODMeshWeldGather(const SPODMesh& mesh, const SPODMeshWeld& weld, EPODWeldStream stream,
                       size_t first, size_t count, uint8_t* out) {
  const size_t size = ElementBytes(mesh, stream);
  if (size == 0 || count == 0) return true;
  bool ok = true;
  // Whole elements go straight to `out`; the ones cut by the ends of the range through here
  // (a vertex's bone indices may be longer than the buffer at hand).
  uint8_t small[64];
  std::unique_ptr<uint8_t, decltype(&std::free)> large(nullptr, &std::free);
  if (size > sizeof small) large.reset(static_cast<uint8_t*>(korvex::AllocateUnfilled(size, "a bone element")));
  uint8_t* element = large ? large.get() : small;
  size_t at = first;
  const size_t end = first + count;
  if (at % size != 0) {
    const size_t e = at / size;
    ok = Element(mesh, weld, stream, e, element);
    const size_t take = std::min(size - at % size, end - at);
    std::memcpy(out, element + at % size, take);
    at += take;
  }
  const size_t whole = (end - at) / size;
  ok = GatherElements(mesh, weld, stream, at / size, whole, out + (at - first)) && ok;
  at += whole * size;
  if (at < end) {
    ok = Element(mesh, weld, stream, at / size, element) && ok;
    std::memcpy(out + (at - first), element, end - at);
  }
  return ok;
}

bool PODMeshApplyWeld(SPODMesh& mesh, const SPODMeshWeld& weld) {
  // Checked whole before anything changes: the indices are rewritten where they stand.
  if (!PODMeshWeldFits(mesh, weld) || !IndicesFit(mesh, weld)) return false;
  const EPODWeldStream arrays[] = {EPODWeldStream::Vertex, EPODWeldStream::Normals,
                                   EPODWeldStream::UVW0,   EPODWeldStream::UVW1,
                                   EPODWeldStream::BoneIdx, EPODWeldStream::BoneWeight};
  constexpr size_t kArrays = sizeof arrays / sizeof arrays[0];
  // Everything is filled before anything changes, so that no old array is released while
  // another still reads it.
  uint8_t* rebuilt[kArrays] = {};
  size_t bytes[kArrays] = {};
  for (size_t a = 0; a < kArrays; ++a) {
    if (PODMeshWeldedStream(mesh, weld, arrays[a]) == nullptr) continue;
    bytes[a] = PODMeshWeldedBytes(mesh, weld, arrays[a]);
    rebuilt[a] = static_cast<uint8_t*>(AllocZeroed(bytes[a]));
  }
  for (size_t a = 0; a < kArrays; ++a) {
    if (rebuilt[a] != nullptr) PODMeshWeldGather(mesh, weld, arrays[a], 0, bytes[a], rebuilt[a]);
  }
  // Corner f reads the old index at f before its own new one goes there.
  if (PODMeshWeldedStream(mesh, weld, EPODWeldStream::Faces) != nullptr) {
    PODMeshWeldGather(mesh, weld, EPODWeldStream::Faces, 0, 2 * Corners(mesh), mesh.sFaces.pData);
  }
  for (size_t a = 0; a < kArrays; ++a) {
    if (rebuilt[a] == nullptr) continue;
    Install(*StreamOf(mesh, weld, arrays[a]), rebuilt[a], bytes[a]);
  }
  mesh.nNumVertex = weld.nKept;
  return true;
}

PODWeldPlan::PODWeldPlan(PODWeldPlan&& other) noexcept
    : m_welds(other.m_welds), m_meshes(other.m_meshes) {
  other.m_welds = nullptr;
  other.m_meshes = 0;
}

PODWeldPlan& PODWeldPlan::operator=(PODWeldPlan&& other) noexcept {
  if (this != &other) {
    clear();
    m_welds = other.m_welds;
    m_meshes = other.m_meshes;
    other.m_welds = nullptr;
    other.m_meshes = 0;
  }
  return *this;
}

PODWeldPlan::~PODWeldPlan() { clear(); }

void PODWeldPlan::clear() {
  for (uint32_t k = 0; k < m_meshes; ++k) PODMeshWeldFree(m_welds[k]);
  std::free(m_welds);
  m_welds = nullptr;
  m_meshes = 0;
}

void PODWeldPlan::reserve(uint32_t meshes) {
  clear();
  if (meshes == 0) return;
  m_welds = korvex::AllocateZeroed<SPODMeshWeld*>(meshes, "the weld plan");
  m_meshes = meshes;
}

bool PODWeldPlan::empty() const {
  for (uint32_t k = 0; k < m_meshes; ++k)
    if (m_welds[k] != nullptr) return false;
  return true;
}

const SPODMeshWeld* PODWeldPlan::weld(uint32_t index) const {
  return index < m_meshes ? m_welds[index] : nullptr;
}

void PODWeldPlan::set(uint32_t index, SPODMeshWeld* weld) {
  PODMeshWeldFree(m_welds[index]);
  m_welds[index] = weld;
}

SPODMeshWeld* PODWeldPlan::take(uint32_t index) {
  if (index >= m_meshes) return nullptr;
  SPODMeshWeld* weld = m_welds[index];
  m_welds[index] = nullptr;
  return weld;
}

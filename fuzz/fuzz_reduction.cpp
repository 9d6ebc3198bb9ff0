// Vertex welding on meshes whose descriptors, sizes and contents come from the fuzzer. The
// reduction must never touch memory it does not own; when it does reduce a mesh, the plain
// first-match scan run on a copy must give the same streams.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/ReferenceReduction.h"
#include "pod/PODMeshWeld.h"
#include "edit/VertexReduction.h"

namespace {

class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  uint8_t byte() { return m_pos < m_size ? m_data[m_pos++] : 0; }
  uint32_t small(uint32_t max) { return byte() % (max + 1); }
  void fill(uint8_t* out, size_t n) {
    for (size_t k = 0; k < n; ++k) out[k] = byte();
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
};

// Mostly the layout the reduction expects, sometimes anything else. The size usually holds
// `vertices` elements; sometimes it is cut to between `reach` elements and that, or to one element
// short of `reach`, or it is any small number of bytes.
CPODData Stream(Bytes& in, EPODDataType type, uint32_t n, uint32_t elementSize, uint32_t vertices,
                uint32_t reach) {
  CPODData d{};
  const uint8_t shape = in.byte();
  d.eType = shape & 1 ? EPODDataType(in.small(15)) : type;
  d.n = shape & 2 ? in.small(5) : n;
  d.nStride = shape & 4 ? in.small(20) : d.n * elementSize;
  if (shape & 8) return d;  // absent
  size_t elements = vertices;
  if (shape & 32) elements = reach + in.small(vertices > reach ? vertices - reach : 0);
  if (shape & 64 && reach > 0) elements = reach - 1;
  d.nDataSize = shape & 16 ? in.small(64) : elements * d.nStride;
  d.pData = static_cast<uint8_t*>(std::malloc(d.nDataSize ? d.nDataSize : 1));
  in.fill(d.pData, d.nDataSize);
  return d;
}

// Replaces raw bytes by values that repeat and lie close together: few distinct positions, and
// coordinates on a 0.0001 grid, so that long groups of near-distinct coordinates form.
void Structure(Bytes& in, CPODData& d, float base, float step, uint32_t steps) {
  for (size_t k = 0; d.pData != nullptr && k + 4 <= d.nDataSize; k += 4) {
    const float f = base + step * float(in.small(steps));
    std::memcpy(d.pData + k, &f, 4);
  }
}

SPODMesh MakeMesh(Bytes& in) {
  SPODMesh m{};
  m.nNumVertex = in.small(40);
  m.nNumFaces = in.small(30);
  m.nNumUVW = in.small(3);
  m.nUVWCount = m.nNumUVW;
  if (m.nNumUVW > 0 && in.small(7) == 0) --m.nUVWCount;  // fewer descriptors than the count
  // Streams hold the vertex count most of the time, sometimes a number of their own; the indices
  // mostly stay below `reach`, which a stream cut short may or may not hold.
  const uint32_t held = in.small(3) == 0 ? in.small(40) : m.nNumVertex;
  const uint32_t reach = held > 0 ? 1 + in.small(held - 1) : 0;
  m.sVertex = Stream(in, EPODDataFloat, 3, 4, held, reach);
  m.sNormals = Stream(in, EPODDataFloat, 3, 4, held, reach);
  m.sFaces = Stream(in, EPODDataUInt16, 1, 2, m.nNumFaces * 3, m.nNumFaces * 3);
  if (m.sFaces.pData != nullptr && reach > 0 && in.small(3) != 0)
    for (size_t c = 0; c + 1 < m.sFaces.nDataSize; c += 2) m.sFaces.pData[c + 1] = 0, m.sFaces.pData[c] %= reach;
  if (m.nUVWCount > 0) {
    m.psUVW = static_cast<CPODData*>(std::calloc(m.nUVWCount, sizeof(CPODData)));
    for (size_t k = 0; k < m.nUVWCount; ++k) m.psUVW[k] = Stream(in, EPODDataFloat, 2, 4, held, reach);
  }
  if (in.small(1) == 0) {
    Structure(in, m.sVertex, 0, 1, in.small(1));  // one position, or the corners of a cube
    for (size_t k = 0; k < m.nUVWCount; ++k) Structure(in, m.psUVW[k], 0.49f, 0.0001f, 200);
  }
  if (in.small(2) == 0) {
    m.sBoneBatches.nBatchCnt = 1;
    m.sBoneIdx = Stream(in, EPODDataUInt8, in.small(4), 1, held, reach);
    m.sBoneWeight = Stream(in, EPODDataFloat, in.small(5), 4, held, reach);
  }
  if (in.small(15) == 0) m.nNumStrips = 1;
  return m;
}

CPODData Copy(const CPODData& d) {
  CPODData c = d;
  if (d.pData != nullptr) {
    c.pData = static_cast<uint8_t*>(std::malloc(d.nDataSize ? d.nDataSize : 1));
    std::memcpy(c.pData, d.pData, d.nDataSize);
  }
  return c;
}

SPODMesh Copy(const SPODMesh& m) {
  SPODMesh c = m;
  c.sVertex = Copy(m.sVertex), c.sNormals = Copy(m.sNormals), c.sFaces = Copy(m.sFaces);
  c.sBoneIdx = Copy(m.sBoneIdx), c.sBoneWeight = Copy(m.sBoneWeight);
  if (m.psUVW != nullptr) {
    c.psUVW = static_cast<CPODData*>(std::calloc(m.nUVWCount, sizeof(CPODData)));
    for (size_t k = 0; k < m.nUVWCount; ++k) c.psUVW[k] = Copy(m.psUVW[k]);
  }
  return c;
}

void Free(SPODMesh& m) {
  for (CPODData* d : {&m.sVertex, &m.sNormals, &m.sFaces, &m.sBoneIdx, &m.sBoneWeight}) std::free(d->pData);
  for (size_t k = 0; k < m.nUVWCount; ++k) std::free(m.psUVW[k].pData);
  std::free(m.psUVW);
}

bool Same(const CPODData& a, const CPODData& b) {
  return a.nDataSize == b.nDataSize && (a.pData == nullptr) == (b.pData == nullptr) &&
         (a.pData == nullptr || std::memcmp(a.pData, b.pData, a.nDataSize) == 0);
}

// The file WritePOD makes of a scene of this one mesh and node, welded as `plan` says; empty when
// it refuses.
std::string Saved(SPODMesh& mesh, SPODNode& node, const PODWeldPlan& plan) {
  SPODScene scene{};
  scene.nNumMesh = 1;
  scene.pMesh = &mesh;
  scene.nNumNode = scene.nNumMeshNode = 1;
  scene.pNode = &node;
  char* bytes = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&bytes, &size);
  if (f == nullptr) __builtin_trap();
  const bool written = WritePOD(f, nullptr, scene, plan);
  std::fclose(f);
  std::string out = written ? std::string(bytes, size) : std::string();
  std::free(bytes);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The reduction's progress lines are of no interest here (libFuzzer reports on stderr).
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes in(data, size);
  SPODMesh fast = MakeMesh(in);
  SPODMesh plain = Copy(fast);
  const bool useUV = in.byte() & 1, nearly = in.byte() & 1;
  SPODNode node{};
  node.pszName = const_cast<char*>("fuzz");

  const uint8_t* before = fast.sVertex.pData;
  reduceVertex(&node, &fast, useUV, nearly);
  if (fast.sVertex.pData != before) {  // reduced: the plain scan must agree
    reference_reduction::ReduceVertex(&node, &plain, useUV, nearly);
    bool same = fast.nNumVertex == plain.nNumVertex && fast.nNumUVW == plain.nNumUVW &&
                Same(fast.sVertex, plain.sVertex) && Same(fast.sNormals, plain.sNormals) &&
                Same(fast.sFaces, plain.sFaces) && Same(fast.sBoneIdx, plain.sBoneIdx) &&
                Same(fast.sBoneWeight, plain.sBoneWeight);
    for (uint32_t k = 0; k < fast.nNumUVW; ++k) same = same && Same(fast.psUVW[k], plain.psUVW[k]);
    if (!same) __builtin_trap();
  }
  Free(fast);
  Free(plain);

  // Streams rebuilt while saving must give the file that streams rebuilt at once give.
  Bytes again(data, size);
  SPODMesh now = MakeMesh(again);
  SPODMesh later = Copy(now);
  node.nIdxMaterial = useUV ? 0 : -1;
  SPODScene nowScene{};
  nowScene.nNumMesh = nowScene.nNumNode = nowScene.nNumMeshNode = 1;
  nowScene.pMesh = &now;
  nowScene.pNode = &node;
  SPODScene laterScene = nowScene;
  laterScene.pMesh = &later;
  reduceMeshVertex(&nowScene, nearly);
  const PODWeldPlan plan = reduceMeshVertexForSave(&laterScene, nearly);
  if (Saved(now, node, PODWeldPlan()) != Saved(later, node, plan)) __builtin_trap();
  Free(now);
  Free(later);
  return 0;
}

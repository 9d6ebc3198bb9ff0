// In-memory construction of complete POD scenes with the ownership of a loaded one.

#include "pod/PODSceneBuilder.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "pod/Assertion.h"
#include "pod/Diagnostics.h"

namespace korvex {

namespace {

const char* const kSource = "PODLoader/PODTool/PODSceneBuilder";

// malloc'd copy of `bytes` bytes; null for an empty copy.
void* CopyBytes(const void* data, size_t bytes) {
  if (bytes == 0 || data == nullptr) return nullptr;
  void* p = korvex::AllocateZeroed(bytes, 1, "a copy for the scene builder");
  std::memcpy(p, data, bytes);
  return p;
}

char* CopyString(const char* text) {
  if (text == nullptr) return nullptr;
  return static_cast<char*>(CopyBytes(text, std::strlen(text) + 1));
}

float* CopyFloats(const std::vector<float>& values) {
  return static_cast<float*>(CopyBytes(values.data(), values.size() * sizeof(float)));
}

// A scene-level array of records moved out of the builder (calloc'd as the reader does).
template <typename T>
T* MoveRecords(std::vector<T>& records) {
  if (records.empty()) return nullptr;
  T* p = korvex::AllocateZeroed<T>(records.size(), "the scene builder's records");
  std::memcpy(static_cast<void*>(p), records.data(), records.size() * sizeof(T));
  records.clear();
  return p;
}

void SetChannel(float*& keys, size_t& size, uint32_t& flags, uint32_t bit,
                const std::vector<float>& values, bool animated) {
  std::free(keys);
  keys = CopyFloats(values);
  size = keys ? values.size() * sizeof(float) : 0;
  if (animated)
    flags |= bit;
  else
    flags &= ~bit;
}

}  // namespace

PODSceneBuilder::PODSceneBuilder() : m_scene(), m_kindCount{0, 0, 0, 0} {}

PODSceneBuilder::~PODSceneBuilder() {
  // Whatever was never built is handed to a scene that releases it.
  CPODScene discard;
  Build(discard);
}

void PODSceneBuilder::SetNumFrames(uint32_t numFrames) { m_scene.nNumFrame = numFrames; }
void PODSceneBuilder::SetFlags(uint32_t flags) { m_scene.nFlags = flags; }

void PODSceneBuilder::SetBackgroundColour(float r, float g, float b) {
  m_scene.pfColourBackground[0] = r;
  m_scene.pfColourBackground[1] = g;
  m_scene.pfColourBackground[2] = b;
}

void PODSceneBuilder::SetAmbientColour(float r, float g, float b) {
  m_scene.pfColourAmbient[0] = r;
  m_scene.pfColourAmbient[1] = g;
  m_scene.pfColourAmbient[2] = b;
}

int PODSceneBuilder::AddTexture(const char* name) {
  SPODTexture t{};
  t.pszName = CopyString(name);
  m_textures.push_back(t);
  return static_cast<int>(m_textures.size() - 1);
}

int PODSceneBuilder::AddMaterial(const char* name, int32_t texture) {
  SPODMaterial m{};
  m.pszName = CopyString(name);
  m.nIdxTexDiffuse = texture;
  m.fMatOpacity = 1.0f;
  m_materials.push_back(m);
  return static_cast<int>(m_materials.size() - 1);
}

void PODSceneBuilder::SetMaterialEffect(int material, const char* effectFile,
                                        const char* effectName) {
  SPODMaterial& m = Material(material);
  std::free(m.pszEffectFile);
  std::free(m.pszEffectName);
  m.pszEffectFile = CopyString(effectFile);
  m.pszEffectName = CopyString(effectName);
}

int PODSceneBuilder::AddMesh(uint32_t numVertex) {
  SPODMesh m{};
  m.nNumVertex = numVertex;
  m_meshes.push_back(m);
  return static_cast<int>(m_meshes.size() - 1);
}

CPODData& PODSceneBuilder::StreamOf(SPODMesh& mesh, PODStream which) {
  switch (which) {
    case PODStream::Vertex:
      return mesh.sVertex;
    case PODStream::Normals:
      return mesh.sNormals;
    case PODStream::Tangents:
      return mesh.sTangents;
    case PODStream::Binormals:
      return mesh.sBinormals;
    case PODStream::Colours:
      return mesh.sVtxColours;
    case PODStream::BoneIdx:
      return mesh.sBoneIdx;
    case PODStream::BoneWeight:
      break;
  }
  return mesh.sBoneWeight;
}

namespace {

void FillStream(CPODData& s, EPODDataType type, uint32_t n, const void* data, size_t bytes) {
  std::free(s.pData);
  s = CPODData{};
  s.eType = type;
  s.n = n;
  s.nStride = PODModelDataStride(s);
  s.pData = static_cast<uint8_t*>(CopyBytes(data, bytes));
  s.nDataSize = s.pData ? bytes : 0;
}

}  // namespace

void PODSceneBuilder::SetStream(int mesh, PODStream which, EPODDataType type, uint32_t n,
                                const void* data, size_t bytes) {
  SPODMesh& m = Mesh(mesh);
  KX_ASSERT(m.pInterleaved == nullptr, kSource);
  FillStream(StreamOf(m, which), type, n, data, bytes);
}

void PODSceneBuilder::SetFloatStream(int mesh, PODStream which, uint32_t n,
                                     const std::vector<float>& values) {
  SetStream(mesh, which, EPODDataFloat, n, values.data(), values.size() * sizeof(float));
}

int PODSceneBuilder::AddUVW(int mesh, EPODDataType type, uint32_t n, const void* data,
                            size_t bytes) {
  SPODMesh& m = Mesh(mesh);
  KX_ASSERT(m.pInterleaved == nullptr, kSource);
  const size_t count = m.nUVWCount + 1;
  CPODData* grown = static_cast<CPODData*>(std::realloc(m.psUVW, count * sizeof(CPODData)));
  if (grown == nullptr) korvex::OutOfMemory("texture-coordinate streams");
  m.psUVW = grown;
  m.psUVW[count - 1] = CPODData{};
  FillStream(m.psUVW[count - 1], type, n, data, bytes);
  m.nUVWCount = count;
  m.nNumUVW = static_cast<uint32_t>(count);
  return static_cast<int>(count - 1);
}

int PODSceneBuilder::AddFloatUVW(int mesh, uint32_t n, const std::vector<float>& values) {
  return AddUVW(mesh, EPODDataFloat, n, values.data(), values.size() * sizeof(float));
}

void PODSceneBuilder::SetFaces(int mesh, const std::vector<uint16_t>& indices) {
  SetFaceData(mesh, EPODDataUInt16, indices.data(), indices.size() * sizeof(uint16_t));
}

void PODSceneBuilder::SetFaceData(int mesh, EPODDataType type, const void* data, size_t bytes) {
  SPODMesh& m = Mesh(mesh);
  FillStream(m.sFaces, type, 1, data, bytes);
  const unsigned int size = PODModelDataTypeSize(type);
  if (m.nNumStrips == 0 && size != 0) m.nNumFaces = static_cast<uint32_t>(bytes / size / 3);
}

void PODSceneBuilder::SetStrips(int mesh, const std::vector<uint32_t>& lengths) {
  SPODMesh& m = Mesh(mesh);
  std::free(m.pnStripLength);
  m.pnStripLength =
      static_cast<uint32_t*>(CopyBytes(lengths.data(), lengths.size() * sizeof(uint32_t)));
  m.nStripLengthSize = m.pnStripLength ? lengths.size() * sizeof(uint32_t) : 0;
  m.nNumStrips = static_cast<uint32_t>(lengths.size());
  uint32_t faces = 0;
  for (uint32_t l : lengths) faces += l;
  m.nNumFaces = faces;
}

void PODSceneBuilder::SetBoneBatches(int mesh, int32_t boneMax,
                                     const std::vector<std::vector<int32_t>>& bones,
                                     const std::vector<int32_t>& offsets) {
  KX_ASSERT(boneMax >= 0 && offsets.size() == bones.size(), kSource);
  CPODBoneBatches& bb = Mesh(mesh).sBoneBatches;
  std::free(bb.pnBatches);
  std::free(bb.pnBatchBoneCnt);
  std::free(bb.pnBatchOffset);
  bb = CPODBoneBatches{};
  const size_t count = bones.size();
  std::vector<int32_t> table(count * static_cast<size_t>(boneMax), 0);
  std::vector<int32_t> used(count, 0);
  for (size_t b = 0; b < count; ++b) {
    KX_ASSERT(bones[b].size() <= static_cast<size_t>(boneMax), kSource);
    for (size_t k = 0; k < bones[b].size(); ++k) table[b * boneMax + k] = bones[b][k];
    used[b] = static_cast<int32_t>(bones[b].size());
  }
  bb.pnBatches = static_cast<int32_t*>(CopyBytes(table.data(), table.size() * sizeof(int32_t)));
  bb.nBatchesSize = bb.pnBatches ? table.size() * sizeof(int32_t) : 0;
  bb.pnBatchBoneCnt = static_cast<int32_t*>(CopyBytes(used.data(), used.size() * sizeof(int32_t)));
  bb.nBatchBoneCntSize = bb.pnBatchBoneCnt ? used.size() * sizeof(int32_t) : 0;
  bb.pnBatchOffset =
      static_cast<int32_t*>(CopyBytes(offsets.data(), offsets.size() * sizeof(int32_t)));
  bb.nBatchOffsetSize = bb.pnBatchOffset ? offsets.size() * sizeof(int32_t) : 0;
  bb.nBatchBoneMax = boneMax;
  bb.nBatchCnt = static_cast<int32_t>(count);
}

void PODSceneBuilder::Interleave(int mesh) {
  SPODMesh& m = Mesh(mesh);
  KX_ASSERT(m.pInterleaved == nullptr, kSource);
  std::vector<CPODData*> streams;
  ForEachVertexStream(m, EPODUVSets::Held, [&streams](CPODData& s, const PODVertexStream&) {
    if (s.pData) streams.push_back(&s);
  });
  size_t stride = 0;
  for (const CPODData* s : streams) stride += s->nStride;
  const size_t bytes = stride * m.nNumVertex;
  if (bytes == 0) return;  // nothing to interleave: the mesh stays separate
  uint8_t* block = korvex::AllocateZeroed<uint8_t>(bytes, "an interleaved stream");
  size_t offset = 0;
  for (CPODData* s : streams) {
    // A stream shorter than its vertices leaves zeros behind it.
    for (size_t v = 0; v < m.nNumVertex; ++v) {
      const size_t from = v * s->nStride;
      if (from >= s->nDataSize) break;
      const size_t take = s->nDataSize - from < s->nStride ? s->nDataSize - from : s->nStride;
      std::memcpy(block + v * stride + offset, s->pData + from, take);
    }
    std::free(s->pData);
    // The offset is kept as a number in the pointer slot.
    s->pData = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(offset));
    s->nDataSize = 0;
    offset += s->nStride;
    s->nStride = static_cast<uint32_t>(stride);
  }
  m.pInterleaved = block;
  m.nInterleavedSize = bytes;
}

int PODSceneBuilder::AddNodeOfKind(NodeKind kind, const char* name, int32_t idx, int32_t parent) {
  // Mesh, light and camera nodes must precede every node of a later kind.
  for (int later = kind + 1; later <= kOtherNode; ++later) KX_ASSERT(m_kindCount[later] == 0, kSource);
  SPODNode n{};
  n.nIdx = idx;
  n.pszName = CopyString(name);
  n.nIdxMaterial = -1;
  n.nIdxParent = parent;
  n.pfRotation[3] = 1.0f;
  n.pfScale[0] = n.pfScale[1] = n.pfScale[2] = 1.0f;
  m_nodes.push_back(n);
  ++m_kindCount[kind];
  return static_cast<int>(m_nodes.size() - 1);
}

int PODSceneBuilder::AddMeshNode(const char* name, int32_t mesh, int32_t material, int32_t parent) {
  const int node = AddNodeOfKind(kMeshNode, name, mesh, parent);
  m_nodes[node].nIdxMaterial = material;
  return node;
}

int PODSceneBuilder::AddLightNode(const char* name, float r, float g, float b, uint32_t type,
                                  int32_t target, int32_t parent) {
  SPODLight l{};
  l.nIdxTarget = target;
  l.pfColour[0] = r;
  l.pfColour[1] = g;
  l.pfColour[2] = b;
  l.eType = static_cast<EPODLight>(type);
  const int node = AddNodeOfKind(kLightNode, name, static_cast<int32_t>(m_lights.size()), parent);
  m_lights.push_back(l);
  return node;
}

int PODSceneBuilder::AddCameraNode(const char* name, float fov, float nearClip, float farClip,
                                   int32_t target, int32_t parent) {
  SPODCamera c{};
  c.nIdxTarget = target;
  c.fFOV = fov;
  c.fNear = nearClip;
  c.fFar = farClip;
  const int node = AddNodeOfKind(kCameraNode, name, static_cast<int32_t>(m_cameras.size()), parent);
  m_cameras.push_back(c);
  return node;
}

int PODSceneBuilder::AddNode(const char* name, int32_t parent) {
  return AddNodeOfKind(kOtherNode, name, -1, parent);
}

void PODSceneBuilder::SetParent(int node, int32_t parent) { Node(node).nIdxParent = parent; }

void PODSceneBuilder::SetPosition(int node, float x, float y, float z) {
  SPODNode& n = Node(node);
  n.pfPosition[0] = x;
  n.pfPosition[1] = y;
  n.pfPosition[2] = z;
}

void PODSceneBuilder::SetRotation(int node, float x, float y, float z, float w) {
  SPODNode& n = Node(node);
  n.pfRotation[0] = x;
  n.pfRotation[1] = y;
  n.pfRotation[2] = z;
  n.pfRotation[3] = w;
}

void PODSceneBuilder::SetScale(int node, float x, float y, float z) {
  SPODNode& n = Node(node);
  n.pfScale[0] = x;
  n.pfScale[1] = y;
  n.pfScale[2] = z;
}

void PODSceneBuilder::SetAnimPosition(int node, const std::vector<float>& keys, bool animated) {
  SPODNode& n = Node(node);
  SetChannel(n.pfAnimPosition, n.nAnimPositionSize, n.nAnimFlags, ePODHasPositionAni, keys,
             animated);
}

void PODSceneBuilder::SetAnimRotation(int node, const std::vector<float>& keys, bool animated) {
  SPODNode& n = Node(node);
  SetChannel(n.pfAnimRotation, n.nAnimRotationSize, n.nAnimFlags, ePODHasRotationAni, keys,
             animated);
}

void PODSceneBuilder::SetAnimScale(int node, const std::vector<float>& keys, bool animated) {
  SPODNode& n = Node(node);
  SetChannel(n.pfAnimScale, n.nAnimScaleSize, n.nAnimFlags, ePODHasScaleAni, keys, animated);
}

void PODSceneBuilder::SetAnimMatrix(int node, const std::vector<float>& keys, bool animated) {
  SPODNode& n = Node(node);
  SetChannel(n.pfAnimMatrix, n.nAnimMatrixSize, n.nAnimFlags, ePODHasMatrixAni, keys, animated);
}

void PODSceneBuilder::SetAnimFOV(int camera, const std::vector<float>& fov) {
  SPODCamera& c = Camera(camera);
  std::free(c.pfAnimFOV);
  c.pfAnimFOV = CopyFloats(fov);
  c.nAnimFOVSize = c.pfAnimFOV ? fov.size() * sizeof(float) : 0;
}

std::vector<float> PODSceneBuilder::ScaleKeys(const std::vector<float>& xyz) {
  std::vector<float> keys;
  for (size_t i = 0; i + 2 < xyz.size(); i += 3) {
    keys.insert(keys.end(), {xyz[i], xyz[i + 1], xyz[i + 2], 0.0f, 0.0f, 0.0f, 0.0f});
  }
  return keys;
}

SPODNode& PODSceneBuilder::Node(int index) {
  KX_ASSERT(index >= 0 && static_cast<size_t>(index) < m_nodes.size(), kSource);
  return m_nodes[index];
}

SPODMesh& PODSceneBuilder::Mesh(int index) {
  KX_ASSERT(index >= 0 && static_cast<size_t>(index) < m_meshes.size(), kSource);
  return m_meshes[index];
}

SPODMaterial& PODSceneBuilder::Material(int index) {
  KX_ASSERT(index >= 0 && static_cast<size_t>(index) < m_materials.size(), kSource);
  return m_materials[index];
}

SPODTexture& PODSceneBuilder::Texture(int index) {
  KX_ASSERT(index >= 0 && static_cast<size_t>(index) < m_textures.size(), kSource);
  return m_textures[index];
}

SPODCamera& PODSceneBuilder::Camera(int index) {
  KX_ASSERT(index >= 0 && static_cast<size_t>(index) < m_cameras.size(), kSource);
  return m_cameras[index];
}

SPODLight& PODSceneBuilder::Light(int index) {
  KX_ASSERT(index >= 0 && static_cast<size_t>(index) < m_lights.size(), kSource);
  return m_lights[index];
}

bool PODSceneBuilder::Build(CPODScene& scene) {
  scene.Destroy();
  SPODScene s = m_scene;
  s.nNumCamera = static_cast<uint32_t>(m_cameras.size());
  s.pCamera = MoveRecords(m_cameras);
  s.nNumLight = static_cast<uint32_t>(m_lights.size());
  s.pLight = MoveRecords(m_lights);
  s.nNumMesh = static_cast<uint32_t>(m_meshes.size());
  s.pMesh = MoveRecords(m_meshes);
  s.nNumNode = static_cast<uint32_t>(m_nodes.size());
  s.nNumMeshNode = m_kindCount[kMeshNode];
  s.pNode = MoveRecords(m_nodes);
  s.nNumTexture = static_cast<uint32_t>(m_textures.size());
  s.pTexture = MoveRecords(m_textures);
  s.nNumMaterial = static_cast<uint32_t>(m_materials.size());
  s.pMaterial = MoveRecords(m_materials);
  m_scene = SPODScene();
  for (uint32_t& k : m_kindCount) k = 0;
  static_cast<SPODScene&>(scene) = s;
  scene.m_bOwnsArrays = true;
  return scene.InitImpl();
}

}  // namespace korvex

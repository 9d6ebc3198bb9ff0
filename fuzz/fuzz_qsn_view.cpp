// Feeds arbitrary bytes to the .qsn loader and, when they load, to what qsnview takes from the
// model: every array a drawable node hands to the renderer is read in full, and every matrix,
// volume and view the renderer asks for is computed, so that a damaged file that the viewer
// does not leave out shows as a read outside an array.

#include <cstdint>
#include <cstdlib>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "view/ViewScene.h"

namespace {

using namespace korvex::view;

volatile uint8_t g_sink;

// Touches `bytes` bytes, as uploading them would.
void Read(const void* p, size_t bytes) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  uint8_t x = 0;
  for (size_t i = 0; i < bytes; ++i) x ^= b[i];
  g_sink = x;
}

void ReadMesh(const DrawMesh& m) {
  const size_t nv = m.vertexCount;
  Read(m.positions, nv * 12);
  if (m.normals != nullptr) Read(m.normals, nv * 12);
  if (m.uvs != nullptr) Read(m.uvs, nv * 8);
  Read(m.indices, size_t{m.triangleCount} * 6);
  for (size_t c = 0; c < size_t{m.triangleCount} * 3; ++c)
    if (m.indices[c] >= nv) std::abort();  // the renderer would read past the vertices
  if (m.bonesPerVertex > 0) {
    if (m.bonesPerVertex > 4 || m.batchSlots.empty()) std::abort();
    Read(m.boneIndices, (nv - 1) * m.boneIndexStride + m.bonesPerVertex);
    Read(m.boneWeights, (nv - 1) * m.boneWeightStride + 4 * m.bonesPerVertex);
  }
  for (uint32_t f : {0u, m.frames > 0 ? m.frames - 1 : 0u, m.frames}) {
    BoneMatrices(m, f);
    MeshMatrix(m, f);
    WorldSphere(m, f);
    WorldBox(m, f);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  if (!loader.readFromMemory(data, size, &model)) return 0;
  const ViewScene scene = BuildViewScene(model, false);
  for (const DrawMesh& m : scene.meshes) ReadMesh(m);
  const Sphere bounds = SceneBounds(scene);
  AutomaticView(bounds, 4.0f / 3.0f);
  for (const DrawCamera& c : scene.cameras)
    for (uint32_t f : {0u, c.frames > 0 ? c.frames - 1 : 0u}) CameraView(c, f, bounds);
  return 0;
}

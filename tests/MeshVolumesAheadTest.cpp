// The volumes of mesh records made on a second core while the converter walks the nodes: the
// records get the very bits the converter would make itself, and the helper hands over nothing
// made from other inputs.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "convert/BoundingVolumes.h"
#include "convert/MeshVolumesAhead.h"
#include "convert/SceneGraphConverter.h"
#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "qsn/QelSceneGraphModel.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

// Enough positions for the helper to start: a large first mesh, which the converter makes
// itself while the helper makes the others from the last back.
const uint32_t kMeshVertices[] = {90000, 9000, 9000, 9000, 9000, 9000, 9000, 9000};

// Meshes of random positions, one node each, moved and scaled; with frames the meshes are
// animated, and their volumes kept in object space.
void BuildScene(CPODScene& scene, bool frames) {
  PODSceneBuilder b;
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> coordinate(-50.0f, 50.0f);
  int k = 0;
  for (uint32_t vertices : kMeshVertices) {
    const int mesh = b.AddMesh(vertices);
    std::vector<float> positions(3 * size_t{vertices});
    for (float& p : positions) p = coordinate(rng);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, positions);
    b.SetFaces(mesh, {0, 1, 2});
    const int node = b.AddMeshNode(("mesh" + std::to_string(k)).c_str(), mesh);
    const float f = float(k++);
    b.SetAnimPosition(node, {f, -f, 2 * f, f, f, f}, false);
    b.SetAnimScale(node, {1.5f, 0.5f + f, 2.0f, 0, 0, 0, 0, 1, 1, 1, 0, 0, 0, 0}, false);
  }
  if (frames) b.SetNumFrames(2);
  ASSERT_TRUE(b.Build(scene));
}

TEST(MeshVolumesAhead, RecordsGetTheVolumesTheConverterWouldMake) {
  for (bool frames : {false, true}) {
    SCOPED_TRACE(frames ? "animated meshes" : "still meshes");
    CPODScene scene;
    BuildScene(scene, frames);
    QelSceneGraphModel model;
    SceneGraphConverter converter(&model);
    ASSERT_TRUE(converter.convertFromPOD(&scene, "volumes.PODx"));
    std::vector<SSGQelMeshNodeData*> records;
    for (auto* r : model.meshnode) records.push_back(r);
    for (auto* r : model.animationmeshnode) records.push_back(r);
    ASSERT_EQ(records.size(), sizeof kMeshVertices / sizeof kMeshVertices[0]);
    for (SSGQelMeshNodeData* r : records) {
      SCOPED_TRACE("node " + std::to_string(r->indexToObject));
      SPODMesh& mesh = scene.pMesh[scene.pNode[r->indexToObject].nIdx];
      float v[13];
      (frames ? CreateObjectSpaceVolumes : CreateBoundingVolumes)(
          &r->transform, &mesh.sVertex, int(mesh.nNumVertex), v, v + 3, v + 4, v + 7, v + 10);
      EXPECT_EQ(std::memcmp(r->sphereCenter, v, 12), 0);
      EXPECT_EQ(std::memcmp(&r->sphereRadius, v + 3, 4), 0);
      EXPECT_EQ(std::memcmp(r->boxCenter, v + 4, 12), 0);
      EXPECT_EQ(std::memcmp(r->boxMin, v + 7, 12), 0);
      EXPECT_EQ(std::memcmp(r->boxMax, v + 10, 12), 0);
    }
  }
}

// Asked with the inputs it was given, the helper hands over what it made; asked with others
// (another matrix, another way of keeping the volumes, another count) or for a node it has no job
// for, it hands over nothing, and the converter makes the volumes itself.
TEST(MeshVolumesAhead, OnlyVolumesMadeFromTheInputsAskedForAreHandedOver) {
  CPODScene scene;
  BuildScene(scene, false);
  std::vector<MeshVolumesAhead::Job> jobs;
  for (uint32_t k = 0; k < scene.nNumMesh; ++k) {
    PODMATRIXf m;
    PODMatrixIdentityF(m);
    m.f[0] = 2.0f;
    jobs.push_back({2 * k, false, m, &scene.pMesh[k].sVertex, int(scene.pMesh[k].nNumVertex)});
  }
  MeshVolumesAhead ahead(jobs);
  // Time for the helper to make every job: nothing asked yet is the converter's.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  for (size_t k = 0; k < jobs.size(); ++k) {
    SCOPED_TRACE("job " + std::to_string(k));
    MeshVolumesAhead::Job asked = jobs[k];
    const bool same = k % 2 == 0;
    switch (same ? -1 : int(k / 2)) {
      case 0:
        asked.matrix.f[12] = 1.0f;
        break;
      case 1:
        asked.objectSpace = true;
        break;
      case 2:
        asked.count -= 1;
        break;
      case 3:
        asked.node += 1;
        break;
      default:
        break;
    }
    BoundingVolumeValues values;
    const bool handed = ahead.Take(asked, values);
    EXPECT_EQ(handed, same);
    BoundingVolumeValues made;
    ASSERT_TRUE(TryBoundingVolumes(false, jobs[k].matrix, *jobs[k].vertex, jobs[k].count, made));
    if (handed) {
      EXPECT_EQ(std::memcmp(&values, &made, sizeof made), 0);
    }
  }
}

}  // namespace

// The weld plan between the reduction and the save: the reduced scene keeps streams and counts
// that agree, the plan carries the welds, and a save refuses a weld its mesh no longer fits.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "pod/PODMeshWeld.h"
#include "pod/PODWriter.h"
#include "support/ReductionMeshes.h"
#include "edit/VertexReduction.h"

namespace {

using namespace reduction_test;

// Two quads side by side whose shared edge is stored twice (old 4 and 5 repeat old 1 and 2), so
// welding keeps 5 of 8 vertices (old 7 is never used).
MeshData Quads() {
  MeshData m;
  m.positions = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 1, 0, 0, 1, 1, 0, 2, 0, 0, 2, 1, 0};
  m.uvs = {{0, 0, 0.5f, 0, 0.5f, 1, 0, 1, 0.5f, 0, 0.5f, 1, 1, 0, 1, 1}};
  for (int v = 0; v < 8; ++v) m.normals.insert(m.normals.end(), {0, 0, float(v)});
  m.faces = {0, 1, 2, 0, 2, 3, 4, 6, 5, 6, 5, 5};
  return m;
}

std::string Written(const SPODScene& scene, const PODWeldPlan& plan) {
  char* bytes = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&bytes, &size);
  if (f == nullptr) return "<no stream>";
  const bool ok = WritePOD(f, nullptr, scene, plan);
  std::fclose(f);
  std::string out = ok ? std::string(bytes, size) : "<refused>";
  std::free(bytes);
  return out;
}

std::string Reduce(SPODScene& scene, PODWeldPlan* plan) {
  testing::internal::CaptureStdout();
  if (plan != nullptr)
    *plan = reduceMeshVertexForSave(&scene, false);
  else
    reduceMeshVertex(&scene, false);
  return testing::internal::GetCapturedStdout();
}

TEST(WeldPlan, ReducedSceneKeepsItsStreamsAndThePlanCarriesTheWeld) {
  SPODScene scene = MakeScene({MakeMesh(Quads())}, {{0, 0, "quads"}});
  SPODScene untouched = CopyScene(scene);
  SPODScene now = CopyScene(scene);
  PODWeldPlan plan;
  const std::string printed = Reduce(scene, &plan);
  EXPECT_EQ(printed, Reduce(now, nullptr));
  EXPECT_NE(printed.find("after reduction: 5\n"), std::string::npos) << printed;

  const SPODMesh& mesh = scene.pMesh[0];
  EXPECT_EQ(mesh.nNumVertex, 8u);
  for (auto stream : {&SPODMesh::sFaces, &SPODMesh::sVertex, &SPODMesh::sNormals})
    EXPECT_EQ(Values<uint8_t>(mesh.*stream), Values<uint8_t>(untouched.pMesh[0].*stream));
  ASSERT_NE(plan.weld(0), nullptr);
  EXPECT_EQ(plan.weld(0)->nKept, 5u);
  EXPECT_EQ(plan.weld(1), nullptr);

  // The plan's save is the file of the scene welded at once; without it the scene saves unwelded.
  EXPECT_EQ(Written(scene, plan), Written(now, PODWeldPlan()));
  EXPECT_EQ(Written(scene, PODWeldPlan()), Written(untouched, PODWeldPlan()));
  EXPECT_EQ(PODWriteShortfall(scene, &plan), "");

  // A plan moves with its welds.
  PODWeldPlan moved = std::move(plan);
  EXPECT_EQ(moved.weld(0)->nKept, 5u);
  EXPECT_TRUE(plan.empty());
  FreeScene(scene);
  FreeScene(untouched);
  FreeScene(now);
}

// A vertex may carry more bone indices than the gather's element buffer holds: they are welded,
// saved through the plan as welding at once gives them, and gathered across element edges.
TEST(WeldPlan, ManyBonesAVertexAreWeldedLikeAFew) {
  MeshData quads = Quads();
  quads.boneIdxN = quads.boneWeightN = 70;
  for (int v = 0; v < 8; ++v) {
    for (int j = 0; j < 70; ++j) {
      quads.boneIdx.push_back(uint8_t(3 * v + j));
      quads.boneWeights.push_back(float(v) + 0.01f * float(j));
    }
  }
  SPODScene scene = MakeScene({MakeMesh(quads)}, {{0, 0, "quads"}});
  SPODScene now = CopyScene(scene);
  PODWeldPlan plan;
  const std::string printed = Reduce(scene, &plan);
  EXPECT_NE(printed.find("after reduction: 5\n"), std::string::npos) << printed;
  EXPECT_EQ(Reduce(now, nullptr), printed);
  ASSERT_NE(plan.weld(0), nullptr);
  const SPODMeshWeld& weld = *plan.weld(0);

  // Welded at once: each kept vertex has its source's 70 indices and weights.
  const std::vector<uint8_t> idx = Values<uint8_t>(now.pMesh[0].sBoneIdx);
  const std::vector<float> weights = Values<float>(now.pMesh[0].sBoneWeight);
  ASSERT_EQ(idx.size(), 5u * 70);
  ASSERT_EQ(weights.size(), 5u * 70);
  for (size_t k = 0; k < 5; ++k) {
    for (size_t j = 0; j < 70; ++j) {
      EXPECT_EQ(idx[70 * k + j], uint8_t(3 * weld.pnSource[k] + j)) << k << " " << j;
      EXPECT_EQ(weights[70 * k + j], float(weld.pnSource[k]) + 0.01f * float(j)) << k << " " << j;
    }
  }
  EXPECT_EQ(Written(scene, plan), Written(now, PODWeldPlan()));

  // A range that starts and ends inside elements.
  uint8_t part[150];
  ASSERT_TRUE(PODMeshWeldGather(scene.pMesh[0], weld, EPODWeldStream::BoneIdx, 5, sizeof part, part));
  EXPECT_EQ(std::vector<uint8_t>(part, part + sizeof part), std::vector<uint8_t>(idx.begin() + 5, idx.begin() + 155));
  FreeScene(scene);
  FreeScene(now);
}

struct Change {
  const char* name;
  std::function<void(SPODScene&)> apply;
  const char* shortfall;  // empty: the weld still fits the mesh's shape
  bool writes;            // the save with the plan writes (what welding at once writes)
};

const Change kChanges[] = {
    {"nothing", [](SPODScene&) {}, "", true},
    {"arrays copied elsewhere, as before overwriting the input",
     [](SPODScene& s) {
       for (CPODData* d : {&s.pMesh[0].sVertex, &s.pMesh[0].sNormals, &s.pMesh[0].sFaces, &s.pMesh[0].psUVW[0]}) {
         uint8_t* copy = static_cast<uint8_t*>(std::malloc(d->nDataSize + 1));
         std::memcpy(copy, d->pData, d->nDataSize);
         std::free(d->pData);
         d->pData = copy;
       }
     },
     "", true},
    {"positions cut short", [](SPODScene& s) { s.pMesh[0].sVertex.nDataSize -= 12; },
     "mesh 0: its streams have changed since it was welded", false},
    {"normals given another layout", [](SPODScene& s) { s.pMesh[0].sNormals.nStride = 16; },
     "mesh 0: its streams have changed since it was welded", false},
    // The shape is the same: the index is found as the save reads it.
    {"an index raised past the old vertices the weld covers",
     [](SPODScene& s) { std::memcpy(s.pMesh[0].sFaces.pData + 2, "\x07\x00", 2); }, "", false},
    {"a triangle fewer", [](SPODScene& s) { --s.pMesh[0].nNumFaces; },
     "mesh 0: its streams have changed since it was welded", false},
    {"texture coordinates dropped", [](SPODScene& s) { s.pMesh[0].nNumUVW = 0; },
     "mesh 0: its streams have changed since it was welded", false},
    {"bones switched on", [](SPODScene& s) { s.pMesh[0].sBoneBatches.nBatchCnt = 1; },
     "mesh 0: its streams have changed since it was welded", false},
    {"the mesh gone from the scene", [](SPODScene& s) { s.nNumMesh = 0; },
     "mesh 0: welded, but the scene has no such mesh", false},
};

// Whatever changed a mesh after its weld was decided, a save with the plan either writes what
// welding at once would have written (the weld still fits) or refuses; the pre-save check names
// a mesh whose shape changed. Applying the weld refuses alike.
TEST(WeldPlan, SaveRefusesAWeldItsMeshNoLongerFits) {
  for (const Change& c : kChanges) {
    SCOPED_TRACE(c.name);
    SPODScene scene = MakeScene({MakeMesh(Quads())}, {{0, 0, "quads"}});
    SPODScene now = CopyScene(scene);
    PODWeldPlan plan;
    Reduce(scene, &plan);
    Reduce(now, nullptr);
    const uint32_t meshes = scene.nNumMesh;
    c.apply(scene);
    EXPECT_EQ(PODWriteShortfall(scene, &plan), c.shortfall);
    const bool fits = c.writes;
    if (fits) {
      EXPECT_EQ(Written(scene, plan), Written(now, PODWeldPlan()));
    } else {
      EXPECT_EQ(Written(scene, plan), "<refused>");
    }
    if (scene.nNumMesh > 0) {
      SPODMesh& mesh = scene.pMesh[0];
      EXPECT_EQ(PODMeshApplyWeld(mesh, *plan.weld(0)), fits);
      EXPECT_EQ(mesh.nNumVertex, fits ? 5u : 8u);
    }
    scene.nNumMesh = meshes;
    FreeScene(scene);
    FreeScene(now);
  }
}

}  // namespace

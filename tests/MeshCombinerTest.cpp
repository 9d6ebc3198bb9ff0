// The mesh combiner: grouping of a still scene's meshes by material, and concatenation of meshes.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "MeshCombiner.h"
#include "PODSceneBuilder.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

const std::vector<float> kP0 = {0, 0, 0, 1, 0, 0, 0, 1, 0}, kN0 = {0, 0, 1, 0, 0, 1, 0, 0, 1};
const std::vector<float> kU0 = {0, 0, 1, 0, 0, 1};
const std::vector<float> kP1 = {5, 5, 5, 6, 6, 6}, kU1 = {0.5f, 0.5f, 0.25f, 0.25f};
const std::vector<uint16_t> kF0 = {0, 1, 2}, kF1 = {0, 1, 1};

// Meshes: 0 = 3 vertices with normals and one set; 1 = 2 vertices, one set, no normals;
// 2 = two sets; 3 = one vertex, no set.
// Nodes: 0 first0 (mesh 0, material 0), 1 second0 (1, 0), 2 multi (2, 1), 3 nomat (3, none),
// 4 only1 (3, 1), 5 badmat (0, material 7 of 3), 6 far (mesh 9 of 4), 7 lamp (light 0, which the
// grouping takes for mesh 0, without material), 8 bone (no object).
void BuildScene(CPODScene& scene, uint32_t frames = 0) {
  PODSceneBuilder b;
  b.SetNumFrames(frames);
  for (const char* name : {"a", "b", "unused"}) b.AddMaterial(name);
  const int m0 = b.AddMesh(3), m1 = b.AddMesh(2), m2 = b.AddMesh(3), m3 = b.AddMesh(1);
  b.SetFloatStream(m0, PODStream::Vertex, 3, kP0);
  b.SetFloatStream(m0, PODStream::Normals, 3, kN0);
  b.SetFaces(m0, kF0);
  b.AddFloatUVW(m0, 2, kU0);
  b.SetFloatStream(m1, PODStream::Vertex, 3, kP1);
  b.SetFaces(m1, kF1);
  b.AddFloatUVW(m1, 2, kU1);
  b.SetFloatStream(m2, PODStream::Vertex, 3, kP0);
  b.AddFloatUVW(m2, 2, kU0);
  b.AddFloatUVW(m2, 2, kU0);
  b.SetFloatStream(m3, PODStream::Vertex, 3, {7, 7, 7});
  b.AddMeshNode("first0", m0, 0);
  b.AddMeshNode("second0", m1, 0);
  b.AddMeshNode("multi", m2, 1);
  b.AddMeshNode("nomat", m3);
  b.AddMeshNode("only1", m3, 1);
  b.AddMeshNode("badmat", m0, 7);
  b.Node(b.AddMeshNode("far", m0, 0)).nIdx = 9;
  b.AddLightNode("lamp", 1, 1, 1);
  b.AddNode("bone");
  ASSERT_TRUE(b.Build(scene));
}

template <class T>
std::vector<T> Array(const void* data, size_t count) {
  const T* p = static_cast<const T*>(data);
  return p != nullptr ? std::vector<T>(p, p + count) : std::vector<T>();
}

template <class T>
std::vector<T> Join(std::initializer_list<std::vector<T>> parts) {
  std::vector<T> all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

TEST(MeshCombiner, GroupsMeshesByMaterialAndKeepsApartWhatCannotBeGrouped) {
  CPODScene scene;
  BuildScene(scene);
  MeshCombiner combiner;
  combiner.classifyMeshwithSameMaterialTexture(&scene);

  ASSERT_EQ(combiner.materialGroups().size(), 3u);
  EXPECT_EQ(combiner.materialGroups()[0],
            (std::vector<SPODMesh*>{&scene.pMesh[0], &scene.pMesh[1]}));
  EXPECT_EQ(combiner.materialGroups()[1], (std::vector<SPODMesh*>{&scene.pMesh[3]}));
  EXPECT_TRUE(combiner.materialGroups()[2].empty());
  EXPECT_STREQ(combiner.firstNodes()[0].pszName, "first0");
  EXPECT_STREQ(combiner.firstNodes()[1].pszName, "only1");
  EXPECT_EQ(combiner.firstNodes()[2].pszName, nullptr);

  std::vector<std::string> apart;
  for (const SPODNode* n : combiner.nodesKeptApart()) apart.push_back(n->pszName);
  EXPECT_EQ(apart, (std::vector<std::string>{"multi", "nomat", "badmat", "far", "lamp", "bone"}));
  EXPECT_EQ(combiner.meshesKeptApart(), (std::vector<SPODMesh*>{&scene.pMesh[2], &scene.pMesh[3],
                                                                &scene.pMesh[0], &scene.pMesh[0]}));
}

TEST(MeshCombiner, CombinesCountsAndArraysWithoutShiftingIndices) {
  CPODScene scene;
  BuildScene(scene);
  MeshCombiner combiner;
  SPODMesh& a = scene.pMesh[0];
  SPODMesh& b = scene.pMesh[1];
  uint8_t* const aUV = a.psUVW[0].pData;

  SPODMesh* ab = combiner.combineMesh(&a, &b);
  ASSERT_NE(ab, nullptr);
  EXPECT_EQ(ab->nNumVertex, 5u);
  EXPECT_EQ(ab->nNumFaces, 2u);
  EXPECT_EQ(ab->nNumUVW, 2u);  // summed as it stands
  EXPECT_EQ(Array<uint16_t>(ab->sFaces.pData, 6), Join({kF0, kF1}));
  EXPECT_EQ(Array<float>(ab->sVertex.pData, 15), Join({kP0, kP1}));
  EXPECT_EQ(Array<float>(ab->sNormals.pData, 15),
            Join({kN0, std::vector<float>(6, 0.0f)}));  // B has none
  EXPECT_EQ(Array<float>(ab->psUVW[0].pData, 10), Join({kU0, kU1}));
  EXPECT_EQ(ab->sVertex.nDataSize, 60u);
  // A is left as it was; the other streams are still A's.
  EXPECT_NE(ab->psUVW, a.psUVW);
  EXPECT_EQ(a.psUVW[0].pData, aUV);
  EXPECT_EQ(Array<float>(a.psUVW[0].pData, 6), kU0);
  EXPECT_EQ(ab->sBoneIdx.pData, a.sBoneIdx.pData);
  EXPECT_EQ(ab->sVertex.eType, a.sVertex.eType);

  // The first set is combined only when A has one: B's set is then dropped with it.
  SPODMesh* noA = combiner.combineMesh(&scene.pMesh[3], &b);
  ASSERT_NE(noA, nullptr);
  EXPECT_EQ(noA->nNumUVW, 1u);
  EXPECT_EQ(noA->psUVW, nullptr);
  EXPECT_EQ(Array<float>(noA->sVertex.pData, 9), Join({std::vector<float>{7, 7, 7}, kP1}));
  // B without a set: its part of the combined set is zero.
  SPODMesh* noB = combiner.combineMesh(&a, &scene.pMesh[3]);
  ASSERT_NE(noB, nullptr);
  EXPECT_EQ(Array<float>(noB->psUVW[0].pData, 8), Join({kU0, {0, 0}}));

  for (SPODMesh* m : {ab, noA, noB}) MeshCombiner::releaseCombinedMesh(m);
}

TEST(MeshCombiner, CreatesOneMeshFromThreeInOrderAndRefusesWhatItCannotRead) {
  CPODScene scene;
  BuildScene(scene);
  MeshCombiner combiner;
  SPODMesh* all = combiner.createNewMesh({&scene.pMesh[0], &scene.pMesh[1], &scene.pMesh[0]});
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(all->nNumVertex, 8u);
  EXPECT_EQ(all->nNumFaces, 3u);
  EXPECT_EQ(all->nNumUVW, 3u);
  EXPECT_EQ(Array<uint16_t>(all->sFaces.pData, 9), Join({kF0, kF1, kF0}));
  EXPECT_EQ(Array<float>(all->sVertex.pData, 24), Join({kP0, kP1, kP0}));
  EXPECT_EQ(Array<float>(all->psUVW[0].pData, 16), Join({kU0, kU1, kU0}));
  MeshCombiner::releaseCombinedMesh(all);

  EXPECT_EQ(combiner.createNewMesh({&scene.pMesh[0]}), nullptr);
  // Counts that claim more positions or triangles than the streams hold.
  SPODMesh liar = scene.pMesh[1];
  liar.nNumVertex = 1000;
  EXPECT_EQ(combiner.combineMesh(&scene.pMesh[0], &liar), nullptr);
  liar = scene.pMesh[1];
  liar.nNumFaces = 2;
  EXPECT_EQ(combiner.createNewMesh({&scene.pMesh[0], &scene.pMesh[1], &liar}), nullptr);
}

TEST(MeshCombinerDeathTest, AnAnimatedSceneFailsTheStillSceneAssertion) {
  CPODScene scene;
  BuildScene(scene, 2);
  MeshCombiner combiner;
  EXPECT_DEATH(combiner.classifyMeshwithSameMaterialTexture(&scene),
               "PODLoader/MeshCombiner:22: classifyMeshwithSameMaterialTexture: Assertion "
               "`input->nNumFrame==0' failed\\.");
}

}  // namespace

// The mesh combiner: concatenation of meshes, and its still-scene assertion.

#include <gtest/gtest.h>

#include <vector>

#include "convert/MeshCombiner.h"
#include "pod/PODSceneBuilder.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

const std::vector<float> kP0 = {0, 0, 0, 1, 0, 0, 0, 1, 0}, kN0 = {0, 0, 1, 0, 0, 1, 0, 0, 1};
const std::vector<float> kU0 = {0, 0, 1, 0, 0, 1};
const std::vector<float> kP1 = {5, 5, 5, 6, 6, 6}, kU1 = {0.5f, 0.5f, 0.25f, 0.25f};
const std::vector<uint16_t> kF0 = {0, 1, 2}, kF1 = {0, 1, 1};

// Meshes: 0 = 3 vertices with normals and one set; 1 = 2 vertices, one set, no normals;
// 2 = one vertex, no set. Node "first0" shows mesh 0 with material 0.
void BuildScene(CPODScene& scene, uint32_t frames = 0) {
  PODSceneBuilder b;
  b.SetNumFrames(frames);
  b.AddMaterial("a");
  const int m0 = b.AddMesh(3), m1 = b.AddMesh(2), m2 = b.AddMesh(1);
  b.SetFloatStream(m0, PODStream::Vertex, 3, kP0);
  b.SetFloatStream(m0, PODStream::Normals, 3, kN0);
  b.SetFaces(m0, kF0);
  b.AddFloatUVW(m0, 2, kU0);
  b.SetFloatStream(m1, PODStream::Vertex, 3, kP1);
  b.SetFaces(m1, kF1);
  b.AddFloatUVW(m1, 2, kU1);
  b.SetFloatStream(m2, PODStream::Vertex, 3, {7, 7, 7});
  b.AddMeshNode("first0", m0, 0);
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
  SPODMesh* noA = combiner.combineMesh(&scene.pMesh[2], &b);
  ASSERT_NE(noA, nullptr);
  EXPECT_EQ(noA->nNumUVW, 1u);
  EXPECT_EQ(noA->psUVW, nullptr);
  EXPECT_EQ(Array<float>(noA->sVertex.pData, 9), Join({std::vector<float>{7, 7, 7}, kP1}));
  // B without a set: its part of the combined set is zero.
  SPODMesh* noB = combiner.combineMesh(&a, &scene.pMesh[2]);
  ASSERT_NE(noB, nullptr);
  EXPECT_EQ(Array<float>(noB->psUVW[0].pData, 8), Join({kU0, {0, 0}}));

  for (SPODMesh* m : {ab, noA, noB}) MeshCombiner::releaseCombinedMesh(m);
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

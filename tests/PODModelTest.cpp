#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "PODModel.h"
#include "PODSceneBuilder.h"

using korvex::PODSceneBuilder;
using korvex::PODStream;

namespace {

TEST(PODModel, TypeSizesAndComponentCounts) {
  struct Row {
    uint32_t type, size, components;
  };
  const Row table[] = {{0, 0, 0},  {1, 4, 1},  {2, 4, 1},  {3, 2, 1},  {4, 4, 4},  {5, 4, 4},
                       {6, 4, 4},  {7, 4, 4},  {8, 4, 3},  {9, 4, 1},  {10, 1, 1}, {11, 2, 1},
                       {12, 2, 1}, {13, 1, 1}, {14, 1, 1}, {15, 0, 0}, {0xFFFFFFFFu, 0, 0}};
  for (const Row& r : table) {
    EXPECT_EQ(PODModelDataTypeSize(EPODDataType(r.type)), r.size) << r.type;
    EXPECT_EQ(PODModelDataTypeComponentCount(EPODDataType(r.type)), r.components) << r.type;
  }
  CPODData d{};
  d.eType = EPODDataUInt16;
  d.n = 3;
  EXPECT_EQ(PODModelDataStride(d), 6u);
  d.eType = EPODDataType(15);
  EXPECT_EQ(PODModelDataStride(d), 0u);
}

TEST(PODModel, IndexCountComesFromStripsOrFaces) {
  SPODMesh mesh{};
  mesh.nNumFaces = 5;
  EXPECT_EQ(PODModelCountIndices(mesh), 15u);

  uint32_t lengths[2] = {4, 6};
  mesh.pnStripLength = lengths;
  mesh.nStripLengthSize = sizeof(lengths);
  mesh.nNumStrips = 2;
  EXPECT_EQ(PODModelCountIndices(mesh), 14u);  // (4 + 2) + (6 + 2), nNumFaces ignored

  // More strips declared than stored: only the stored ones are counted.
  mesh.nNumStrips = 1000;
  EXPECT_EQ(PODModelCountIndices(mesh), 14u);

  // Counts from a hostile file saturate rather than wrap to something small.
  SPODMesh huge{};
  huge.nNumFaces = 0x80000000u;
  EXPECT_EQ(PODModelCountIndices(huge), UINT32_MAX);
}

// A scene using every kind of owned array; building it and destroying it must leave nothing
// behind (the leak checker of the sanitizer build watches this).
void BuildFullScene(CPODScene& scene) {
  PODSceneBuilder b;
  b.SetNumFrames(2);
  b.SetBackgroundColour(0.1f, 0.2f, 0.3f);
  b.SetAmbientColour(0.4f, 0.5f, 0.6f);
  const int tex = b.AddTexture("wall.png");
  const int mat = b.AddMaterial("brick", tex);
  b.SetMaterialEffect(mat, "fx.pfx", "Brick");
  b.AddMaterial("plain");

  const int separate = b.AddMesh(3);
  b.SetFloatStream(separate, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.SetFloatStream(separate, PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.SetFloatStream(separate, PODStream::Tangents, 3, {1, 0, 0, 1, 0, 0, 1, 0, 0});
  b.SetFloatStream(separate, PODStream::Binormals, 3, {0, 1, 0, 0, 1, 0, 0, 1, 0});
  const uint32_t colours[3] = {0xFF0000FFu, 0x00FF00FFu, 0x0000FFFFu};
  b.SetStream(separate, PODStream::Colours, EPODDataColourRGBA, 1, colours, sizeof(colours));
  const uint8_t boneIdx[3 * 2] = {0, 1, 0, 1, 1, 0};
  b.SetStream(separate, PODStream::BoneIdx, EPODDataUInt8, 2, boneIdx, sizeof(boneIdx));
  b.SetFloatStream(separate, PODStream::BoneWeight, 2, {0.5f, 0.5f, 1, 0, 0.25f, 0.75f});
  b.AddFloatUVW(separate, 2, {0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(separate, 2, {0, 0, 0.5f, 0, 0, 0.5f});
  b.SetFaces(separate, {0, 1, 2, 2, 1, 0});
  b.SetStrips(separate, {1, 1});
  b.SetBoneBatches(separate, 3, {{3, 4}, {4}}, {0, 3});

  const int interleaved = b.AddMesh(3);
  b.SetFloatStream(interleaved, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.AddFloatUVW(interleaved, 2, {0, 0, 1, 0, 0, 1});
  b.SetFaces(interleaved, {0, 1, 2});
  b.Interleave(interleaved);

  b.AddMeshNode("wall", separate, mat);
  b.AddMeshNode("floor", interleaved, -1);
  b.AddLightNode("sun", 1, 0.9f, 0.8f, 0x12345678u);
  const int cam = b.AddCameraNode("eye", 0.8f, 0.1f, 500.0f, 4);
  b.SetAnimFOV(0, {0.8f, 0.9f});
  const int root = b.AddNode("root");
  b.AddNode("bone", root);
  b.SetParent(cam, root);
  b.SetAnimPosition(root, {0, 0, 0, 1, 1, 1});
  b.SetAnimRotation(root, {0, 0, 0, 1}, false);
  b.SetAnimScale(root, PODSceneBuilder::ScaleKeys({1, 1, 1, 2, 2, 2}));
  b.SetAnimMatrix(root, std::vector<float>(32, 0.0f));
  ASSERT_TRUE(b.Build(scene));
}

TEST(PODSceneBuilder, BuildsACompleteSceneWithSizesAndOrder) {
  CPODScene scene;
  BuildFullScene(scene);
  ASSERT_NE(scene.m_pImpl, nullptr);
  EXPECT_FALSE(scene.m_pImpl->bReadFromMemory);
  EXPECT_EQ(scene.nNumNode, 6u);
  EXPECT_EQ(scene.nNumMeshNode, 2u);
  EXPECT_EQ(scene.nNumLight, 1u);
  EXPECT_EQ(scene.nNumCamera, 1u);
  EXPECT_STREQ(scene.pNode[2].pszName, "sun");
  EXPECT_EQ(scene.pNode[2].nIdx, 0);
  EXPECT_EQ(scene.pNode[3].nIdx, 0);
  EXPECT_EQ(scene.pNode[3].nIdxParent, 4);
  EXPECT_EQ(scene.pLight[0].eType, EPODLight(0x12345678u));
  EXPECT_EQ(scene.pCamera[0].nAnimFOVSize, 2 * sizeof(float));
  EXPECT_STREQ(scene.pMaterial[0].pszEffectName, "Brick");
  EXPECT_EQ(scene.pMaterial[1].pszEffectFile, nullptr);

  const SPODNode& root = scene.pNode[4];
  EXPECT_EQ(root.nAnimFlags, uint32_t(ePODHasPositionAni | ePODHasScaleAni | ePODHasMatrixAni));
  EXPECT_EQ(root.nAnimPositionSize, 6 * sizeof(float));
  EXPECT_EQ(root.nAnimScaleSize, 14 * sizeof(float));
  EXPECT_EQ(root.nAnimMatrixSize, 32 * sizeof(float));

  const SPODMesh& sep = scene.pMesh[0];
  EXPECT_EQ(sep.nNumUVW, 2u);
  EXPECT_EQ(sep.nNumStrips, 2u);
  EXPECT_EQ(sep.nNumFaces, 2u);
  EXPECT_EQ(PODModelCountIndices(sep), 6u);
  EXPECT_EQ(sep.sBoneIdx.nStride, 2u);
  EXPECT_EQ(sep.sBoneIdx.nDataSize, 6u);
  const CPODBoneBatches& bb = sep.sBoneBatches;
  ASSERT_EQ(bb.nBatchCnt, 2);
  const int32_t batches[6] = {3, 4, 0, 4, 0, 0};
  EXPECT_EQ(std::memcmp(bb.pnBatches, batches, sizeof(batches)), 0);
  EXPECT_EQ(bb.pnBatchBoneCnt[1], 1);
  EXPECT_EQ(bb.pnBatchOffset[1], 3);
}

TEST(PODSceneBuilder, InterleavingStoresOffsetsAndWholeVertexStride) {
  PODSceneBuilder b;
  const int mesh = b.AddMesh(2);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {1, 2, 3, 4, 5, 6});
  b.SetFloatStream(mesh, PODStream::Normals, 3, {0, 0, 1, 0, 1, 0});
  b.AddFloatUVW(mesh, 2, {0.25f, 0.75f, 0.5f, 0.125f});
  b.SetFaces(mesh, {0, 1, 1});
  b.Interleave(mesh);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  const SPODMesh& m = scene.pMesh[0];
  ASSERT_NE(m.pInterleaved, nullptr);
  EXPECT_EQ(m.nInterleavedSize, 2u * 32u);
  EXPECT_EQ(m.sVertex.nStride, 32u);
  EXPECT_EQ(m.sNormals.nStride, 32u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(m.sVertex.pData), 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(m.sNormals.pData), 12u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(m.psUVW[0].pData), 24u);
  // Normal 1 starts 12 bytes into vertex 1; UV 1 24 bytes in.
  float normal[3], uv[2];
  std::memcpy(normal, m.pInterleaved + 32 + 12, sizeof(normal));
  std::memcpy(uv, m.pInterleaved + 32 + 24, sizeof(uv));
  EXPECT_EQ(normal[1], 1.0f);
  EXPECT_EQ(uv[0], 0.5f);
  EXPECT_EQ(uv[1], 0.125f);
  EXPECT_NE(m.sFaces.pData, nullptr);  // faces always stay separate
}

TEST(PODSceneBuilder, RefusesNodesOutOfKindOrder) {
  EXPECT_DEATH(
      {
        PODSceneBuilder b;
        b.AddCameraNode("cam", 1, 1, 10);
        b.AddMeshNode("mesh", 0);
      },
      "PODSceneBuilder");
}

TEST(PODModel, DestroyReleasesEverythingAndZeroes) {
  CPODScene scene;
  BuildFullScene(scene);
  scene.Destroy();
  EXPECT_EQ(scene.m_pImpl, nullptr);
  EXPECT_EQ(scene.pNode, nullptr);
  EXPECT_EQ(scene.pMesh, nullptr);
  EXPECT_EQ(scene.nNumNode, 0u);
  EXPECT_EQ(scene.pfColourBackground[0], 0.0f);
  scene.Destroy();  // a second release finds nothing to free
}

TEST(PODModel, ReadFromMemorySharesArraysAndDestroyLeavesThemToTheOwner) {
  CPODScene owner;
  BuildFullScene(owner);
  {
    CPODScene view;
    ASSERT_TRUE(view.ReadFromMemory(owner));
    EXPECT_EQ(view.pNode, owner.pNode);
    EXPECT_TRUE(view.m_pImpl->bReadFromMemory);
    EXPECT_NE(view.m_pImpl, owner.m_pImpl);
    // Its own evaluation state works on the shared nodes.
    view.SetFrame(1.0f);
    PODMATRIXf m;
    view.GetWorldMatrix(m, view.pNode[4]);
    EXPECT_EQ(m.f[0], 2.0f);   // scale key 1
    EXPECT_EQ(m.f[12], 1.0f);  // position key 1, applied after the scale
  }
  // The view's destructor freed only its caches: the owner's arrays are still readable.
  EXPECT_STREQ(owner.pNode[5].pszName, "bone");
}

}  // namespace

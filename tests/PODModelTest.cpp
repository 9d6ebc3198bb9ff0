#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>

#include "pod/PODModel.h"

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

// Records declared without an initialiser are zero too, also where the memory held something
// else before: they stand in for the files' records, whose absent blocks mean zero.
TEST(PODModel, RecordsStartAllZeroWithoutAnInitialiser) {
  alignas(SPODScene) unsigned char sceneBytes[sizeof(SPODScene)];
  alignas(SPODMesh) unsigned char meshBytes[sizeof(SPODMesh)];
  alignas(SPODNode) unsigned char nodeBytes[sizeof(SPODNode)];
  alignas(SPODMaterial) unsigned char materialBytes[sizeof(SPODMaterial)];
  std::memset(sceneBytes, 0xA5, sizeof sceneBytes);
  std::memset(meshBytes, 0xA5, sizeof meshBytes);
  std::memset(nodeBytes, 0xA5, sizeof nodeBytes);
  std::memset(materialBytes, 0xA5, sizeof materialBytes);
  const SPODScene* s = new (sceneBytes) SPODScene;
  const SPODMesh* m = new (meshBytes) SPODMesh;
  const SPODNode* n = new (nodeBytes) SPODNode;
  const SPODMaterial* mat = new (materialBytes) SPODMaterial;
  EXPECT_EQ(s->pfColourBackground[2], 0.0f);
  EXPECT_EQ(s->nNumNode, 0u);
  EXPECT_EQ(s->pNode, nullptr);
  EXPECT_EQ(s->nNumFrame, 0u);
  EXPECT_EQ(s->nFlags, 0u);
  EXPECT_EQ(m->nNumVertex, 0u);
  EXPECT_EQ(m->sFaces.pData, nullptr);
  EXPECT_EQ(m->sFaces.nDataSize, 0u);
  EXPECT_FALSE(m->sVertex.bBorrowed);
  EXPECT_EQ(m->sBoneBatches.nBatchCnt, 0);
  EXPECT_EQ(m->nUVWCount, 0u);
  EXPECT_EQ(n->nIdxParent, 0);
  EXPECT_EQ(n->pfScale[2], 0.0f);
  EXPECT_EQ(n->nAnimFlags, 0u);
  EXPECT_EQ(n->nAnimMatrixSize, 0u);
  EXPECT_EQ(mat->nIdxTexDiffuse, 0);
  EXPECT_EQ(mat->pszEffectName, nullptr);
}

}  // namespace

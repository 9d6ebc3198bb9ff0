#include <gtest/gtest.h>

#include <cstdint>

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

}  // namespace

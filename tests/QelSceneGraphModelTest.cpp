#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qsn/QelSceneGraphModel.h"
#include "support/SceneGraphSamples.h"
#include "support/TestSupport.h"

namespace {

using namespace korvex::test;

class PODFileAccess : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<uint8_t> pod(300);
    for (size_t i = 0; i < pod.size(); ++i) pod[i] = uint8_t(i);
    ASSERT_TRUE(WriteFileBytes(dir.file("scene.PODx"), pod));
  }
  // numVertex 2 with 3-float positions at 10 and normals at 60, one triangle at 50.
  SSGQelMeshNodeData* AddMesh(QelSceneGraphModel& model, ESGName kind) {
    auto* m = kind == ESGMeshNode ? AddNode<SSGQelMeshNodeData>(model, kind, "Mesh")
                                  : AddNode<SSGQelCollisionBoxNodeData>(model, kind, "COLBOX");
    m->numVertex = 2;
    m->numFace = 1;
    m->vertex.n = m->normal.n = 3;
    m->vertexOffset = 10;
    m->faceOffset = 50;
    m->normalOffset = 60;
    return m;
  }
  static std::vector<uint8_t> Bytes(const CPODData& d, size_t n) {
    return d.pData ? std::vector<uint8_t>(d.pData, d.pData + n) : std::vector<uint8_t>();
  }
  static std::vector<uint8_t> Pattern(size_t from, size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = uint8_t(from + i);
    return v;
  }
  TempDir dir;
};

TEST_F(PODFileAccess, LoadsEachStreamFromItsOffset) {
  QelSceneGraphModel model;
  SSGQelMeshNodeData* m = AddMesh(model, ESGMeshNode);
  ASSERT_TRUE(model.openPODFile(dir.file("scene.PODx")));
  EXPECT_TRUE(model.loadMeshData(m));
  EXPECT_EQ(Bytes(m->vertex, 24), Pattern(10, 24));
  EXPECT_EQ(Bytes(m->face, 6), Pattern(50, 6));
  EXPECT_EQ(Bytes(m->normal, 24), Pattern(60, 24));
  EXPECT_EQ(m->UVW[0].pData, nullptr);  // numUVW 0 reads no texture coordinates

  // A set running past the end of the file keeps zeros where the file ends.
  m->numUVW = 1;
  m->UVW[0].n = 2;
  m->UVWOffset[0] = 290;
  EXPECT_FALSE(model.loadMeshData(m));
  std::vector<uint8_t> expected = Pattern(290, 10);
  expected.resize(16, 0);
  EXPECT_EQ(Bytes(m->UVW[0], 16), expected);

  // Counts no file could hold are not allocated.
  m->numVertex = 0x40000000;
  EXPECT_FALSE(model.loadMeshData(m));
  EXPECT_EQ(m->vertex.pData, nullptr);
  EXPECT_TRUE(model.closePODFile());
  EXPECT_FALSE(model.PODFile);
}

TEST_F(PODFileAccess, LazyLoadingJoinsDirectoryAndFileName) {
  QelSceneGraphModel model;
  SSGQelMeshNodeData* box = AddMesh(model, ESGCollisionBoxNode);
  AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light");
  SetFileHeader(model, "scene.PODx");
  model.PODDirectory = dir.path() + "/";
  model.loadAllNodeDataFromPOD();
  EXPECT_EQ(model.PODFilePath, dir.file("scene.PODx"));
  EXPECT_FALSE(model.PODFile);
  EXPECT_EQ(Bytes(box->normal, 24), Pattern(60, 24));
}

}  // namespace

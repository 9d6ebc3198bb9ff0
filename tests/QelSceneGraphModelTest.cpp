#include <gtest/gtest.h>

#include <cstdlib>
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
  // Reading on its own does not tell a short read: the bytes the file holds arrive.
  uint8_t tail[16] = {};
  EXPECT_TRUE(model.readPODData(tail, 16, 290));
  EXPECT_EQ(std::vector<uint8_t>(tail, tail + 16), expected);

  // Counts no file could hold are not allocated.
  m->numVertex = 0x40000000;
  EXPECT_FALSE(model.loadMeshData(m));
  EXPECT_EQ(m->vertex.pData, nullptr);
  EXPECT_TRUE(model.closePODFile());
  EXPECT_FALSE(model.PODFile);
}

// Streams several records name in one place (nodes on one mesh, headers naming one record) are
// read once and shared. What is read in all stays within twice the file's size (its streams never
// overlap): past that a stream is left out, as one the file does not hold.
TEST_F(PODFileAccess, StreamsInOnePlaceAreReadOnceAndAllThatIsReadIsBounded) {
  QelSceneGraphModel model;
  SSGQelMeshNodeData* a = AddMesh(model, ESGMeshNode);
  SSGQelMeshNodeData* b = AddMesh(model, ESGMeshNode);
  ASSERT_TRUE(model.openPODFile(dir.file("scene.PODx")));
  EXPECT_TRUE(model.loadMeshData(a));
  EXPECT_TRUE(model.loadMeshData(b));
  EXPECT_EQ(a->vertex.pData, b->vertex.pData);
  EXPECT_EQ(Bytes(b->normal, 24), Pattern(60, 24));
  // 54 bytes read so far; two more streams of 288 bytes in other places pass 600.
  SSGQelMeshNodeData* wide[2];
  for (int k = 0; k < 2; ++k) {
    wide[k] = AddMesh(model, ESGMeshNode);
    wide[k]->numVertex = 24;
    wide[k]->numFace = 0;
    wide[k]->normal.n = 0;
    wide[k]->vertexOffset = uint32_t(k);
  }
  EXPECT_TRUE(model.loadMeshData(wide[0]));
  EXPECT_EQ(Bytes(wide[0]->vertex, 288), Pattern(0, 288));
  EXPECT_FALSE(model.loadMeshData(wide[1]));
  EXPECT_EQ(wide[1]->vertex.pData, nullptr);
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

// Streams the POD file does not hold, in part or at all, leave a warning naming file and node.
TEST_F(PODFileAccess, LazyLoadingWarnsOfStreamsTheFileDoesNotHold) {
  struct Case {
    const char* what;
    uint32_t uvOffset;  // of one set of 2 floats a vertex
    uint32_t vertices;
    bool warned;
  };
  const Case cases[] = {
      {"inside the file", 200, 2, false},
      {"past its end", 290, 2, true},
      {"larger than the file", 10, 40, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    QelSceneGraphModel model;
    SSGQelMeshNodeData* m = AddMesh(model, ESGMeshNode);
    m->numVertex = c.vertices;
    m->numUVW = 1;
    m->UVW[0].n = 2;
    m->UVWOffset[0] = c.uvOffset;
    AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light");
    SetFileHeader(model, "scene.PODx");
    model.PODDirectory = dir.path() + "/";
    testing::internal::CaptureStderr();
    model.loadAllNodeDataFromPOD();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              c.warned
                  ? "Korvex: warning: " + dir.file("scene.PODx") +
                        ": node \"Mesh\": its mesh streams are not all in the file; what is missing"
                        " is left empty or zero\n"
                  : "");
  }
}

// What a caller hands over with createNode and createNodeHeader stays the caller's: the model
// copies a file header and keeps the other pointers, but frees none of them, nor their arrays.
// Records made for the model and adopted are released with it (the leak checker would say).
TEST(QelSceneGraphModel, KeepsTheCallersRecordsAndReleasesOnlyWhatItAdopted) {
  SSGFileHeader fileHeader{};
  fileHeader.type = ESGFileHeader;
  fileHeader.totalNodeNumber = 2;
  SSGNodeHeader lightHeader{};
  lightHeader.type = ESGLightNode;
  SSGQelLightNodeData light{};
  light.colour[0] = 0.5f;
  uint8_t vertices[12] = {1, 2, 3};
  SSGQelMeshNodeData* mesh = SGNewRecord<SSGQelMeshNodeData>();
  mesh->vertexBuffer.data = vertices;
  mesh->vertexBuffer.length = sizeof vertices;
  {
    QelSceneGraphModel model;
    model.createNode(&fileHeader, ESGFileHeader);
    model.createNodeHeader(&lightHeader);
    model.createNode(&light, ESGLightNode);
    model.createNode(mesh, ESGMeshNode);
    EXPECT_EQ(model.header.totalNodeNumber, 2u);
    ASSERT_EQ(model.lightnode.size(), 1u);
    EXPECT_EQ(model.lightnode[0], &light);
    AddNode<SSGQelMarkerNodeData>(model, ESGMarkerNode, "Marker")->numAnimation = 3;
  }
  EXPECT_EQ(light.colour[0], 0.5f);
  EXPECT_EQ(mesh->vertexBuffer.data, vertices);
  EXPECT_EQ(vertices[2], 3);
  std::free(mesh);
}

}  // namespace

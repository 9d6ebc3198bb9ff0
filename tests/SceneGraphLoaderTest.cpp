#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "support/SceneGraphSamples.h"
#include "qsn/SceneGraphWritter.h"
#include "support/TestSupport.h"

namespace {

using namespace korvex::test;

std::vector<uint8_t> Write(QelSceneGraphModel& model, const std::string& path) {
  SceneGraphWritter writer;
  EXPECT_TRUE(writer.WritetoFile(path, &model));
  return ReadFileBytes(path);
}

std::vector<uint8_t> ArrayBytes(const SSGNodeData& b) {
  return b.data ? std::vector<uint8_t>(b.data, b.data + b.length) : std::vector<uint8_t>();
}

// A file with a light (block at 556) and a material (block at 656).
std::vector<uint8_t> LightAndMaterialFile(const TempDir& dir) {
  QelSceneGraphModel model;
  auto* light = AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light");
  light->colour[2] = 0.75f;
  light->targetIndex = -1;
  std::strcpy(AddNode<SSGQelMaterialData>(model, ESGMaterial, "Mat")->textureName, "wall.png");
  SetFileHeader(model, "lm.PODx");
  return Write(model, dir.file("lm.qsn"));
}

TEST(SceneGraphLoader, EveryKindSurvivesWriteLoadWriteAndItsArraysAreReachable) {
  TempDir dir;
  QelSceneGraphModel original;
  BuildEveryKindModel(original);
  const std::vector<uint8_t> first = Write(original, dir.file("a.qsn"));

  QelSceneGraphModel loaded;
  SceneGraphLoader loader;
  ASSERT_TRUE(loader.readFromFile(dir.file("a.qsn"), &loaded)) << loader.lastError();
  EXPECT_EQ(Write(loaded, dir.file("b.qsn")), first);

  // Each header carries the offset and length stored in the file (header i at 268 + 144 i).
  ASSERT_EQ(loaded.nodeheader.size(), 12u);
  for (size_t i = 0; i < 12; ++i) {
    EXPECT_EQ(loaded.nodeheader[i]->offset, U32At(first, 268 + 144 * i + 132));
    EXPECT_EQ(loaded.nodeheader[i]->length, U32At(first, 268 + 144 * i + 136));
  }

  const auto checkMesh = [](const SSGQelMeshNodeData& a, const SSGQelMeshNodeData& b, bool aimed) {
    EXPECT_EQ(ArrayBytes(a.vertexBuffer), ArrayBytes(b.vertexBuffer));
    EXPECT_EQ(ArrayBytes(a.normalBuffer), ArrayBytes(b.normalBuffer));
    EXPECT_EQ(ArrayBytes(a.faceBuffer), ArrayBytes(b.faceBuffer));
    EXPECT_EQ(ArrayBytes(a.UVWBuffer), ArrayBytes(b.UVWBuffer));
    EXPECT_EQ(b.vertex.pData, aimed ? b.vertexBuffer.data : nullptr);
    EXPECT_EQ(b.normal.pData, aimed ? b.normalBuffer.data : nullptr);
    EXPECT_EQ(b.face.pData, aimed ? b.faceBuffer.data : nullptr);
    EXPECT_EQ(b.UVW[0].pData, aimed ? b.UVWBuffer.data : nullptr);
  };
  checkMesh(*original.meshnode[0], *loaded.meshnode[0], false);
  checkMesh(*original.collisionboxnode[0], *loaded.collisionboxnode[0], true);
  checkMesh(*original.collisionspherenode[0], *loaded.collisionspherenode[0], true);
  checkMesh(*original.billboardnode[0], *loaded.billboardnode[0], true);
  checkMesh(*original.skyboxnode[0], *loaded.skyboxnode[0], true);
  checkMesh(*original.skeletalmeshnode[0], *loaded.skeletalmeshnode[0], true);
  checkMesh(*original.animationmeshnode[0], *loaded.animationmeshnode[0], true);
  EXPECT_EQ(loaded.collisionboxnode[0]->localBoxMax[2], 4.0f);

  const SSGQelSkeletalMeshNodeData& s0 = *original.skeletalmeshnode[0];
  const SSGQelSkeletalMeshNodeData& s1 = *loaded.skeletalmeshnode[0];
  EXPECT_EQ(ArrayBytes(s0.Batch), ArrayBytes(s1.Batch));
  EXPECT_EQ(ArrayBytes(s0.BoneWeight_ptr), ArrayBytes(s1.BoneWeight_ptr));
  EXPECT_EQ(ArrayBytes(s0.sBoneWorldMatrixbuffer), ArrayBytes(s1.sBoneWorldMatrixbuffer));
  EXPECT_EQ(ArrayBytes(s0.sAABBbuffer), ArrayBytes(s1.sAABBbuffer));
  EXPECT_EQ(ArrayBytes(original.animationmeshnode[0]->animMatrixbuffer),
            ArrayBytes(loaded.animationmeshnode[0]->animMatrixbuffer));
  EXPECT_EQ(ArrayBytes(original.animationcameranode[0]->animMatrixbuffer),
            ArrayBytes(loaded.animationcameranode[0]->animMatrixbuffer));
  EXPECT_EQ(loaded.cameranode[0]->FOV, 0.75f);
  EXPECT_EQ(loaded.markernode[0]->numAnimation, 7u);
}

struct Refusal {
  const char* what;
  void (*corrupt)(std::vector<uint8_t>&);
  const char* message;
};

// Faults in the light-and-material file; header 0 (light) is at 268, header 1 at 412.
const Refusal kRefusals[] = {
    {"truncated header", [](std::vector<uint8_t>& f) { f.resize(200); }, "too short for the 268-byte file header"},
    {"truncated block", [](std::vector<uint8_t>& f) { f.resize(900); }, "lies outside the file"},
    {"wrong type", [](std::vector<uint8_t>& f) { PutU32(f, 0, 1001); }, "header type 1001, expected 1000"},
    {"too many headers", [](std::vector<uint8_t>& f) { PutU32(f, 8, 5); }, "announces 5 node headers"},
    {"offset past end", [](std::vector<uint8_t>& f) { PutU32(f, 268 + 132, 961); }, "offset 961"},
    {"light too long", [](std::vector<uint8_t>& f) { PutU32(f, 268 + 136, 104); f.resize(964); },
     "block of 104 bytes is longer than the 100-byte light record"},
    {"light too short", [](std::vector<uint8_t>& f) { PutU32(f, 268 + 136, 96); }, "shorter than the 100-byte"},
    {"wrong index", [](std::vector<uint8_t>& f) { PutU32(f, 412 + 140, 1); }, "index 1 is not the record's position 0"},
};

TEST(SceneGraphLoader, RefusesBrokenFilesWithAMessage) {
  TempDir dir;
  const std::vector<uint8_t> good = LightAndMaterialFile(dir);
  for (const Refusal& r : kRefusals) {
    std::vector<uint8_t> bad = good;
    r.corrupt(bad);
    ASSERT_TRUE(WriteFileBytes(dir.file("bad.qsn"), bad));
    QelSceneGraphModel model;
    SceneGraphLoader loader;
    EXPECT_FALSE(loader.readFromFile(dir.file("bad.qsn"), &model)) << r.what;
    EXPECT_NE(loader.lastError().find(r.message), std::string::npos) << r.what << ": " << loader.lastError();
    EXPECT_NE(loader.lastError().find(dir.file("bad.qsn")), std::string::npos) << r.what;
    // Whatever the model kept is consistent: every header of a loaded kind has its record.
    EXPECT_EQ(model.nodeheader.size(), model.lightnode.size() + model.material.size()) << r.what;
  }
}

TEST(SceneGraphLoader, MeshWhoseArrayLengthsDisagreeWithTheBlockIsRefused) {
  TempDir dir;
  QelSceneGraphModel model;
  FillMesh(*AddNode<SSGQelMeshNodeData>(model, ESGMeshNode, "Mesh"), 1, 1);
  SetFileHeader(model, "a.PODx");
  std::vector<uint8_t> file = Write(model, dir.file("a.qsn"));
  PutU32(file, 412 + 448, 0xFFFFFFF0u);  // vertexBuffer.length
  ASSERT_TRUE(WriteFileBytes(dir.file("a.qsn"), file));
  QelSceneGraphModel loaded;
  SceneGraphLoader loader;
  EXPECT_FALSE(loader.readFromFile(dir.file("a.qsn"), &loaded));
  EXPECT_NE(loader.lastError().find("arrays add up to"), std::string::npos) << loader.lastError();
  EXPECT_TRUE(loaded.nodeheader.empty());
}

// Headers sharing one block could make the records allocate many times the file's size.
TEST(SceneGraphLoader, BlocksAddingUpToMoreThanTheFileAreRefused) {
  TempDir dir;
  QelSceneGraphModel model;
  FillMesh(*AddNode<SSGQelMeshNodeData>(model, ESGMeshNode, "Mesh"), 1, 1);
  AddNode<SSGQelMarkerNodeData>(model, ESGMarkerNode, "Marker");
  SetFileHeader(model, "a.PODx");
  std::vector<uint8_t> file = Write(model, dir.file("a.qsn"));
  // The marker's header becomes a second mesh header on the mesh's block.
  PutU32(file, 412, 2001);
  PutU32(file, 412 + 132, U32At(file, 268 + 132));
  PutU32(file, 412 + 136, U32At(file, 268 + 136));
  PutU32(file, 412 + 140, 1);
  ASSERT_TRUE(WriteFileBytes(dir.file("a.qsn"), file));
  QelSceneGraphModel loaded;
  SceneGraphLoader loader;
  EXPECT_FALSE(loader.readFromFile(dir.file("a.qsn"), &loaded));
  EXPECT_NE(loader.lastError().find("together are longer than the file"), std::string::npos) << loader.lastError();
  EXPECT_EQ(loaded.meshnode.size(), 1u);
}

}  // namespace

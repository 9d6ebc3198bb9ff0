#include <gtest/gtest.h>

#include <cstdlib>
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

// Files no writer makes, whose reading is still defined: headers are taken as they stand.
TEST(SceneGraphLoader, OddButDefinedFilesLoad) {
  TempDir dir;
  const std::vector<uint8_t> good = LightAndMaterialFile(dir);
  struct Odd {
    const char* what;
    void (*change)(std::vector<uint8_t>&);
    size_t headers;
  };
  const Odd cases[] = {
      // A record without arrays reads what its block holds; the rest of it stays zero.
      {"light block of 0 bytes", [](std::vector<uint8_t>& f) { PutU32(f, 268 + 136, 0); }, 2},
      // The record goes to the end of its kind's sequence, whatever its header's index says.
      {"index not the record's position", [](std::vector<uint8_t>& f) { PutU32(f, 412 + 140, 7); }, 2},
      // The count is a signed one: no header is read.
      {"2^31 node headers", [](std::vector<uint8_t>& f) { PutU32(f, 8, 0x80000000u); }, 0},
  };
  for (const Odd& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> odd = good;
    c.change(odd);
    ASSERT_TRUE(WriteFileBytes(dir.file("odd.qsn"), odd));
    QelSceneGraphModel model;
    SceneGraphLoader loader;
    ASSERT_TRUE(loader.readFromFile(dir.file("odd.qsn"), &model)) << loader.lastError();
    ASSERT_EQ(model.nodeheader.size(), c.headers);
    if (c.headers == 0) continue;
    ASSERT_EQ(model.lightnode.size(), 1u);
    ASSERT_EQ(model.material.size(), 1u);
    EXPECT_EQ(model.lightnode[0]->colour[2], U32At(odd, 268 + 136) == 0 ? 0.0f : 0.75f);
    EXPECT_STREQ(model.material[0]->textureName, "wall.png");
  }
}

// A file with one mesh block and `headers` - 1 marker headers made into mesh headers on the
// same block, each reading `length` bytes from it (the mesh's own length or more).
std::vector<uint8_t> SharedMeshBlockFile(const TempDir& dir, size_t headers, uint32_t vertexBytes,
                                         uint32_t extraLength) {
  QelSceneGraphModel model;
  auto* mesh = AddNode<SSGQelMeshNodeData>(model, ESGMeshNode, "Mesh");
  FillMesh(*mesh, 1, 1);
  std::free(mesh->vertexBuffer.data);
  mesh->vertexBuffer.data = static_cast<uint8_t*>(std::calloc(vertexBytes, 1));
  mesh->vertexBuffer.length = vertexBytes;
  for (size_t k = 1; k < headers; ++k) AddNode<SSGQelMarkerNodeData>(model, ESGMarkerNode, "Marker");
  SetFileHeader(model, "a.PODx");
  std::vector<uint8_t> file = Write(model, dir.file("a.qsn"));
  for (size_t k = 1; k < headers; ++k) {
    const size_t at = 268 + 144 * k;
    PutU32(file, at, 2001);
    PutU32(file, at + 132, U32At(file, 268 + 132));
    PutU32(file, at + 136, U32At(file, 268 + 136) + extraLength);
    PutU32(file, at + 140, uint32_t(k));
  }
  return file;
}

// Headers may share a block (each record reads its own copy) and a block may run on past its
// arrays; but records reading far more than the file holds are refused.
TEST(SceneGraphLoader, SharedBlocksLoadUntilTheyHoldFarMoreThanTheFile) {
  TempDir dir;
  {
    // The second header reads on into the marker's 80 bytes.
    std::vector<uint8_t> file = SharedMeshBlockFile(dir, 2, 36, 80);
    ASSERT_TRUE(WriteFileBytes(dir.file("a.qsn"), file));
    QelSceneGraphModel loaded;
    SceneGraphLoader loader;
    ASSERT_TRUE(loader.readFromFile(dir.file("a.qsn"), &loaded)) << loader.lastError();
    ASSERT_EQ(loaded.meshnode.size(), 2u);
    EXPECT_NE(loaded.meshnode[0], loaded.meshnode[1]);
    EXPECT_EQ(ArrayBytes(loaded.meshnode[0]->vertexBuffer), ArrayBytes(loaded.meshnode[1]->vertexBuffer));
    EXPECT_EQ(ArrayBytes(loaded.meshnode[0]->UVWBuffer), ArrayBytes(loaded.meshnode[1]->UVWBuffer));
  }
  {
    // 66 copies of a 1 MiB block: more than 64 MiB beyond the file.
    std::vector<uint8_t> file = SharedMeshBlockFile(dir, 66, 1u << 20, 0);
    ASSERT_TRUE(WriteFileBytes(dir.file("a.qsn"), file));
    QelSceneGraphModel loaded;
    SceneGraphLoader loader;
    EXPECT_FALSE(loader.readFromFile(dir.file("a.qsn"), &loaded));
    EXPECT_NE(loader.lastError().find("more than 64 MiB beyond the file"), std::string::npos) << loader.lastError();
    EXPECT_GE(loaded.meshnode.size(), 60u);
    EXPECT_LT(loaded.meshnode.size(), 66u);
  }
}

}  // namespace

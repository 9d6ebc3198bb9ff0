#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QelSceneGraphModel.h"
#include "SceneGraphSamples.h"
#include "SceneGraphWritter.h"
#include "TestSupport.h"

namespace {

using namespace korvex_test;

std::vector<std::string> DirEntries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

std::vector<uint8_t> WriteModel(QelSceneGraphModel& model, const TempDir& dir) {
  SceneGraphWritter writer;
  EXPECT_TRUE(writer.WritetoFile(dir.file("out.qsn"), &model));
  return ReadFileBytes(dir.file("out.qsn"));
}

void PutText(std::vector<uint8_t>& b, size_t offset, const char* text) {
  std::memcpy(&b[offset], text, std::strlen(text));
}

TEST(SceneGraphWriter, LightAndMaterialMatchTheDocumentedFileByteForByte) {
  QelSceneGraphModel model;
  auto* light = AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light01");
  light->indexToObject = 3;
  light->objectIndex = 1;
  light->transform.f[0] = light->transform.f[5] = light->transform.f[10] = light->transform.f[15] = 1.0f;
  light->targetIndex = -1;
  light->colour[0] = 1.0f;
  light->colour[1] = 0.5f;
  light->colour[2] = 0.25f;
  light->lightType = 2;
  auto* material = AddNode<SSGQelMaterialData>(model, ESGMaterial, "Stone");
  material->opacity = 0.5f;
  material->ambient[0] = 0.1f;
  material->diffuse[1] = 0.2f;
  material->specular[2] = 0.3f;
  material->shininess = 8.0f;
  std::strcpy(material->materialName, "Stone");
  std::strcpy(material->textureName, "stone.pvr");
  SetFileHeader(model, "scene.PODx");

  // Offsets: 2 headers x 144 + 268 = 556 for the light, 556 + 100 = 656 for the material.
  std::vector<uint8_t> expected(960, 0);
  PutU32(expected, 0, 1000);
  PutU32(expected, 4, 1);
  PutU32(expected, 8, 2);
  PutText(expected, 12, "scene.PODx");
  PutU32(expected, 268, 2002);
  PutText(expected, 272, "Light01");
  PutU32(expected, 400, 556);
  PutU32(expected, 404, 100);
  PutU32(expected, 412, 2004);
  PutText(expected, 416, "Stone");
  PutU32(expected, 544, 656);
  PutU32(expected, 548, 304);
  PutU32(expected, 556, 3);
  PutU32(expected, 560, 1);
  for (int k : {0, 5, 10, 15}) PutF32(expected, 564 + 4 * k, 1.0f);
  PutU32(expected, 636, 0xFFFFFFFFu);
  PutF32(expected, 640, 1.0f);
  PutF32(expected, 644, 0.5f);
  PutF32(expected, 648, 0.25f);
  PutU32(expected, 652, 2);
  PutF32(expected, 660, 0.5f);
  PutF32(expected, 664, 0.1f);
  PutF32(expected, 680, 0.2f);
  PutF32(expected, 696, 0.3f);
  PutF32(expected, 700, 8.0f);
  PutText(expected, 704, "Stone");
  PutText(expected, 832, "stone.pvr");

  TempDir dir;
  EXPECT_EQ(WriteModel(model, dir), expected);
  // The model's headers now agree with the file.
  EXPECT_EQ(model.nodeheader[0]->offset, 556u);
  EXPECT_EQ(model.nodeheader[0]->length, 100u);
  EXPECT_EQ(model.nodeheader[1]->offset, 656u);
  EXPECT_EQ(model.nodeheader[1]->length, 304u);
}

TEST(SceneGraphWriter, EmptyModelGivesJustTheFileHeader) {
  QelSceneGraphModel model;
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  const std::vector<uint8_t> bytes = WriteModel(model, dir);
  ASSERT_EQ(bytes.size(), 268u);
  EXPECT_EQ(U32At(bytes, 0), 1000u);
  EXPECT_EQ(U32At(bytes, 8), 0u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&bytes[12])), "a.PODx");
}

TEST(SceneGraphWriter, NameOf128CharactersFillsTheFieldWithoutTerminator) {
  QelSceneGraphModel model;
  const std::string name(128, 'n');
  AddNode<SSGQelMarkerNodeData>(model, ESGMarkerNode, name.c_str());
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  const std::vector<uint8_t> bytes = WriteModel(model, dir);
  ASSERT_EQ(bytes.size(), 268u + 144u + 80u);
  EXPECT_EQ(std::string(bytes.begin() + 272, bytes.begin() + 400), name);
  EXPECT_EQ(U32At(bytes, 400), 412u);  // the offset follows the name directly
}

// Field positions of the larger kinds, checked against the documented tables rather than
// against the serialiser's own description.
TEST(SceneGraphWriter, SkeletalBlockHoldsFieldsAndArraysAtTheirDocumentedPlaces) {
  QelSceneGraphModel model;
  auto* skin = AddNode<SSGQelSkeletalMeshNodeData>(model, ESGSkeletalMeshNode, "Skin");
  FillMesh(*skin, 1, 10);
  skin->numUVW = 1;
  skin->vertexOffset = 0xAAAA;
  skin->UVWOffset[0] = 0xBBBB;
  skin->defaultMaterialIndex = 5;
  skin->materialIndex[7] = 9;
  skin->boneBatchA = 4;
  skin->boneWeight = {EPODDataFloat, 3, 12, reinterpret_cast<uint8_t*>(skin), 0xCCCC, 0, false};
  skin->evalFrame = 2.5f;
  SSGNodeData* skeletal[] = {&skin->Batch, &skin->BatchBoneCnt, &skin->BatchOffset, &skin->BoneIdx_ptr,
                             &skin->BoneWeight_ptr, &skin->sBoneIndexbuffer, &skin->sBoneWorldMatrixbuffer,
                             &skin->sSpherebuffer, &skin->sAABBbuffer};
  for (uint32_t i = 0; i < 9; ++i) FillArray(*skeletal[i], 20 + i, 4 * (i + 1), uint8_t(100 + 10 * i));
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  const std::vector<uint8_t> file = WriteModel(model, dir);
  const size_t b = 268 + 144;
  // Arrays: 36 + 36 + 6 + 24 mesh bytes, then 4 x (1 + ... + 9) = 180 skeletal bytes.
  ASSERT_EQ(file.size(), b + 660 + 102 + 180);
  EXPECT_EQ(U32At(file, 268 + 136), 660u + 102u + 180u);
  EXPECT_EQ(U32At(file, b + 80), 3u);        // numVertex
  EXPECT_EQ(U32At(file, b + 144), 1u);       // vertex.eType (float)
  EXPECT_EQ(U32At(file, b + 164), 0xAAAAu);  // vertexOffset
  EXPECT_EQ(U32At(file, b + 376), 0xBBBBu);  // UVWOffset[0]
  EXPECT_EQ(U32At(file, b + 408), 5u);       // defaultMaterialIndex
  EXPECT_EQ(U32At(file, b + 440), 9u);       // materialIndex[7]
  EXPECT_EQ(U32At(file, b + 448), 36u);      // vertexBuffer.length
  EXPECT_EQ(U32At(file, b + 484), 24u);      // UVWBuffer.length
  EXPECT_EQ(U32At(file, b + 492), 4u);       // boneBatchA
  EXPECT_EQ(U32At(file, b + 508), 12u);      // boneWeight.nStride
  EXPECT_EQ(U32At(file, b + 512), 0u);       // boneWeight.pData slot, written as 0
  EXPECT_EQ(U32At(file, b + 516), 0xCCCCu);  // boneWeight.nFileOffset
  EXPECT_EQ(U32At(file, b + 540), 0x40200000u);  // evalFrame 2.5
  for (uint32_t i = 0; i < 9; ++i) {
    EXPECT_EQ(U32At(file, b + 552 + 12 * i), 20 + i);
    EXPECT_EQ(U32At(file, b + 556 + 12 * i), 4 * (i + 1));
    EXPECT_EQ(U32At(file, b + 560 + 12 * i), 0u);
  }
  EXPECT_EQ(file[b + 660], 10);              // positions first
  EXPECT_EQ(file[b + 660 + 36], 60);         // then normals (seed + 50)
  EXPECT_EQ(file[b + 660 + 72], 110);        // faces
  EXPECT_EQ(file[b + 660 + 78], 160);        // texture coordinates
  EXPECT_EQ(file[b + 660 + 102], 100);       // Batch
  EXPECT_EQ(file[b + 660 + 102 + 144], 180);  // sAABBbuffer last: 4 x (1+...+8) = 144 bytes in
}

TEST(SceneGraphWriter, AnimatedCameraBlockIsFixedPartPlus64BytesAFrame) {
  QelSceneGraphModel model;
  auto* cam = AddNode<SSGQelAnimationCameraNodeData>(model, ESGAnimationCameraNode, "Cam");
  cam->FOV = 1.0f;
  cam->targetIndex = 6;
  cam->evalFrameIndex = 2;
  FillArray(cam->animMatrixbuffer, SSGBufferMatrix, 3 * 64, 1);
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  const std::vector<uint8_t> file = WriteModel(model, dir);
  const size_t b = 268 + 144;
  ASSERT_EQ(file.size(), b + 132 + 192);
  EXPECT_EQ(U32At(file, b + 80), 0x3F800000u);  // FOV
  EXPECT_EQ(U32At(file, b + 92), 6u);           // targetIndex
  EXPECT_EQ(U32At(file, b + 116), 2u);          // evalFrameIndex
  EXPECT_EQ(U32At(file, b + 124), 192u);        // animMatrixbuffer.length
  EXPECT_EQ(file[b + 132], 1);
}

TEST(SceneGraphWriter, MeshWithoutTextureCoordinatesWritesThreeArrays) {
  QelSceneGraphModel model;
  FillMesh(*AddNode<SSGQelMeshNodeData>(model, ESGMeshNode, "Mesh"), 0, 1);
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  const std::vector<uint8_t> file = WriteModel(model, dir);
  EXPECT_EQ(file.size(), 268u + 144u + 492u + 36u + 36u + 6u);
  EXPECT_EQ(file.back(), uint8_t(101 + 5));  // last face byte
}

// Offsets count every header, although a kind-2000 header is not written.
TEST(SceneGraphWriter, OffsetBaseCountsHeadersThatAreNotWritten) {
  QelSceneGraphModel model;
  AddNode<SSGQelNodeData>(model, ESGNode, "Bare");
  AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light");
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  const std::vector<uint8_t> file = WriteModel(model, dir);
  ASSERT_EQ(file.size(), 268u + 144u + 100u);
  EXPECT_EQ(U32At(file, 268), 2002u);
  EXPECT_EQ(U32At(file, 268 + 132), 2u * 144u + 268u);
}

TEST(SceneGraphWriter, ReplacesAnExistingFileAndLeavesNoTemporaryFile) {
  TempDir dir;
  ASSERT_TRUE(WriteFileBytes(dir.file("out.qsn"), std::vector<uint8_t>(5000, 7)));
  QelSceneGraphModel model;
  SetFileHeader(model, "a.PODx");
  EXPECT_EQ(WriteModel(model, dir).size(), 268u);
  EXPECT_EQ(DirEntries(dir.path()), std::vector<std::string>{"out.qsn"});
}

TEST(SceneGraphWriter, TargetThatIsADirectoryFailsCleanly) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.file("out.qsn").c_str(), 0755), 0);
  QelSceneGraphModel model;
  SetFileHeader(model, "a.PODx");
  SceneGraphWritter writer;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(writer.WritetoFile(dir.file("out.qsn"), &model));
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(dir.file("out.qsn")), std::string::npos) << err;
  EXPECT_NE(err.find(std::strerror(EISDIR)), std::string::npos) << err;
  EXPECT_EQ(err, "Korvex: " + writer.lastError() + "\n");
  EXPECT_EQ(DirEntries(dir.path()), std::vector<std::string>{"out.qsn"});
  EXPECT_TRUE(DirEntries(dir.file("out.qsn")).empty());
}

TEST(SceneGraphWriter, UnwritableDirectoryFailsWithoutLeavingFiles) {
  TempDir dir;
  QelSceneGraphModel model;
  SetFileHeader(model, "a.PODx");
  SceneGraphWritter writer;
  // A "directory" that is a plain file can never be written into, not even by root.
  ASSERT_TRUE(WriteFileBytes(dir.file("plain"), {1}));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(writer.WritetoFile(dir.file("plain/out.qsn"), &model));
  EXPECT_NE(testing::internal::GetCapturedStderr().find(std::strerror(ENOTDIR)), std::string::npos);
  EXPECT_EQ(DirEntries(dir.path()), std::vector<std::string>{"plain"});

  ASSERT_EQ(mkdir(dir.file("ro").c_str(), 0555), 0);
  if (access(dir.file("ro").c_str(), W_OK) == 0) return;  // permissions are not enforced for root
  testing::internal::CaptureStderr();
  EXPECT_FALSE(writer.WritetoFile(dir.file("ro/out.qsn"), &model));
  EXPECT_NE(testing::internal::GetCapturedStderr().find(std::strerror(EACCES)), std::string::npos);
  EXPECT_TRUE(DirEntries(dir.file("ro")).empty());
}

TEST(SceneGraphWriterDeath, HeaderIndexOutsideItsSequenceAborts) {
  QelSceneGraphModel model;
  AddNode<SSGQelLightNodeData>(model, ESGLightNode, "Light")->targetIndex = -1;
  model.nodeheader[0]->index = 1;
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  SceneGraphWritter writer;
  EXPECT_DEATH(writer.WritetoFile(dir.file("out.qsn"), &model), "PODLoader/QelSceneGraphModel");
}

}  // namespace

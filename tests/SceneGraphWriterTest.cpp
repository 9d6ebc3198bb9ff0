#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "qsn/QelSceneGraphModel.h"
#include "support/SceneGraphSamples.h"
#include "qsn/SceneGraphWritter.h"
#include "support/TestSupport.h"

namespace {

using namespace korvex::test;

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
  std::strcpy(material->textureName, "stone.tga");
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
  PutText(expected, 832, "stone.tga");

  TempDir dir;
  EXPECT_EQ(WriteModel(model, dir), expected);
  // The model's headers now agree with the file.
  EXPECT_EQ(model.nodeheader[0]->offset, 556u);
  EXPECT_EQ(model.nodeheader[0]->length, 100u);
  EXPECT_EQ(model.nodeheader[1]->offset, 656u);
  EXPECT_EQ(model.nodeheader[1]->length, 304u);
}

TEST(SceneGraphWriter, EmptyModelGivesJustTheFileHeaderReplacingTheOldFile) {
  QelSceneGraphModel model;
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  ASSERT_TRUE(WriteFileBytes(dir.file("out.qsn"), std::vector<uint8_t>(5000, 7)));
  const std::vector<uint8_t> bytes = WriteModel(model, dir);
  ASSERT_EQ(bytes.size(), 268u);
  EXPECT_EQ(U32At(bytes, 0), 1000u);
  EXPECT_EQ(U32At(bytes, 8), 0u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&bytes[12])), "a.PODx");
  EXPECT_EQ(DirEntries(dir.path()), std::vector<std::string>{"out.qsn"});  // no temporary left
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

// Writing a path that is a link writes the file it leads to, as opening it would; the file
// written over keeps its permissions.
TEST(SceneGraphWriter, WritesThroughALinkAndKeepsTheFilesMode) {
  QelSceneGraphModel model;
  SetFileHeader(model, "a.PODx");
  TempDir dir;
  ASSERT_TRUE(WriteFileBytes(dir.file("real.qsn"), std::vector<uint8_t>(10, 1)));
  ASSERT_EQ(chmod(dir.file("real.qsn").c_str(), 0600), 0);
  ASSERT_EQ(symlink("real.qsn", dir.file("out.qsn").c_str()), 0);
  SceneGraphWritter writer;
  ASSERT_TRUE(writer.WritetoFile(dir.file("out.qsn"), &model)) << writer.lastError();
  struct stat link;
  ASSERT_EQ(lstat(dir.file("out.qsn").c_str(), &link), 0);
  EXPECT_TRUE(S_ISLNK(link.st_mode));
  EXPECT_EQ(ReadFileBytes(dir.file("real.qsn")).size(), 268u);
  struct stat real;
  ASSERT_EQ(stat(dir.file("real.qsn").c_str(), &real), 0);
  EXPECT_EQ(real.st_mode & 0777, 0600u);
  auto entries = DirEntries(dir.path());
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<std::string>{"out.qsn", "real.qsn"}));  // no temporary left
}

// Each header's block is the record its index names, wherever that record stands; an index with
// no record of its kind cannot be written.
TEST(SceneGraphWriter, EachHeaderWritesTheRecordItsIndexNames) {
  QelSceneGraphModel model;
  AddNode<SSGQelLightNodeData>(model, ESGLightNode, "first")->colour[0] = 1.0f;
  AddNode<SSGQelLightNodeData>(model, ESGLightNode, "second")->colour[0] = 2.0f;
  SetFileHeader(model, "a.PODx");
  std::swap(model.nodeheader[0]->index, model.nodeheader[1]->index);
  TempDir dir;
  const std::vector<uint8_t> bytes = WriteModel(model, dir);
  ASSERT_EQ(bytes.size(), 268u + 2 * 144 + 2 * 100);
  float colour[2];
  std::memcpy(&colour[0], &bytes[556 + 84], 4);  // header "first" holds the second record
  std::memcpy(&colour[1], &bytes[656 + 84], 4);
  EXPECT_EQ(colour[0], 2.0f);
  EXPECT_EQ(colour[1], 1.0f);

  model.nodeheader[1]->index = 2;
  SceneGraphWritter writer;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(writer.WritetoFile(dir.file("bad.qsn"), &model));
  testing::internal::GetCapturedStderr();
  EXPECT_NE(writer.lastError().find("node header 1 names record 2 of its kind, which has 2"), std::string::npos)
      << writer.lastError();
  EXPECT_EQ(DirEntries(dir.path()), std::vector<std::string>{"out.qsn"});
}

// A failed write reports the path and the reason and leaves nothing behind.
TEST(SceneGraphWriter, FailedWritesLeaveNoFiles) {
  TempDir dir;
  ASSERT_EQ(mkdir(dir.file("out.qsn").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFileBytes(dir.file("plain"), {1}));  // a "directory" even root cannot write into
  QelSceneGraphModel model;
  SetFileHeader(model, "a.PODx");
  SceneGraphWritter writer;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(writer.WritetoFile(dir.file("out.qsn"), &model));
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(dir.file("out.qsn")), std::string::npos) << err;
  EXPECT_NE(err.find(std::strerror(EISDIR)), std::string::npos) << err;
  EXPECT_EQ(err, "Korvex: " + writer.lastError() + "\n");
  EXPECT_TRUE(DirEntries(dir.file("out.qsn")).empty());
  testing::internal::CaptureStderr();
  EXPECT_FALSE(writer.WritetoFile(dir.file("plain/out.qsn"), &model));
  EXPECT_NE(testing::internal::GetCapturedStderr().find(std::strerror(ENOTDIR)), std::string::npos);
  auto entries = DirEntries(dir.path());
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries, (std::vector<std::string>{"out.qsn", "plain"}));
}

}  // namespace

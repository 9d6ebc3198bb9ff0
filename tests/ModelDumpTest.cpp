// The model dump and the texture-coordinate check. Expected texts are written out from the print
// formats and from values worked out by hand for the scenes of ConvertedScenes.h; only pointer
// values (printed as their low 32 bits) and the stream offsets inside the .PODx file (found by
// searching the file for the stream bytes) are taken from outside.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "ConvertedScenes.h"
#include "QelSceneGraphModel.h"
#include "SceneGraphLoader.h"
#include "SceneGraphSamples.h"
#include "TestSupport.h"

namespace {

using namespace korvex_test;

// glibc's rendering of the length line, whose "%l" conversion has no type letter.
const char* const kLengthLine = "Node length: %\n";

std::string Captured(const std::function<void()>& print) {
  std::fflush(stdout);
  testing::internal::CaptureStdout();
  print();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::string Hex(const void* p) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
  return text;
}

// Offset of the only occurrence of `values` in `file`.
template <class T>
std::string OffsetOf(const std::vector<uint8_t>& file, const std::vector<T>& values) {
  const size_t n = values.size() * sizeof(T);
  const uint8_t* needle = reinterpret_cast<const uint8_t*>(values.data());
  std::vector<size_t> found;
  for (size_t i = 0; i + n <= file.size(); ++i)
    if (std::memcmp(file.data() + i, needle, n) == 0) found.push_back(i);
  EXPECT_EQ(found.size(), 1u);
  return found.empty() ? "?" : std::to_string(found[0]);
}

std::string Header(int type, int offset, int index, const std::string& name) {
  return "NodeHeader Type: " + std::to_string(type) + "\nNode offset: " + std::to_string(offset) +
         "\n" + kLengthLine + "Node index: " + std::to_string(index) + "\nNode name: " + name +
         "\n";
}

std::string NodePart(int indexToObject, const char* lastRow) {
  return "Index to object: " + std::to_string(indexToObject) +
         "\nObject Index: 0\n"
         "Transform: 1.000000, 0.000000, 0.000000, 0.000000\n"
         "Transform: 0.000000, 1.000000, 0.000000, 0.000000\n"
         "Transform: 0.000000, 0.000000, 1.000000, 0.000000\n"
         "Transform: " +
         lastRow + "\nNumber of animation: 0\nAnimation Flag: 0\n";
}

std::string NoMaterials(int from) {
  std::string s;
  for (int m = from; m < 8; ++m)
    s += "Material Number: " + std::to_string(m) + "\nMaterial Index -1\n";
  return s;
}

const char* const kSquareVertices =
    "Vertex data: 0.000000 0.000000 0.000000\nVertex data: 2.000000 0.000000 0.000000\n"
    "Vertex data: 2.000000 2.000000 0.000000\nVertex data: 0.000000 2.000000 0.000000\n";
const char* const kSquareNormals =
    "Normal data: 0.000000 0.000000 1.000000\nNormal data: 0.000000 0.000000 1.000000\n"
    "Normal data: 0.000000 0.000000 1.000000\nNormal data: 0.000000 0.000000 1.000000\n";

TEST(ModelDump, ConvertedStillSceneDumpsAsDerivedFromItsValues) {
  TempDir dir;
  converted::PODSceneBuilder b;
  converted::BuildStillScene(b);
  const std::string qsn = converted::Convert(b, dir, "still");
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  ASSERT_TRUE(loader.readFromFile(qsn, &model)) << loader.lastError();
  ASSERT_EQ(model.meshnode.size(), 1u);
  ASSERT_EQ(model.collisionspherenode.size(), 1u);
  const SSGQelMeshNodeData& square = *model.meshnode[0];
  const SSGQelMeshNodeData& sphere = *model.collisionspherenode[0];

  const std::vector<uint8_t> podx = ReadFileBytes(dir.file("still.PODx"));
  const std::string vertexAt = OffsetOf(podx, converted::SquarePositions());
  const std::string normalAt = OffsetOf(podx, converted::SquareNormals());
  const std::string faceAt = OffsetOf(podx, converted::SquareFaces());
  const std::string uvAt = OffsetOf(podx, converted::SquareUV());

  // Blocks after 268 + 6 x 144 = 1132: square 492 + 48 + 48 + 12 + 32 = 632, stone 304,
  // marker 80, sphere 492 + 48 + 48 + 12 = 600, lamp 100, cam 108.
  // World volumes of the square at (1, 2, 3): corners (1,2,3)..(3,4,3), centre (2,3,3), radius
  // sqrt(2); the unplaced sphere node has centre (1,1,0).
  const std::string streams =
      "Vertex data type: 1\nVertex number of values: 3\nVertex stride: 12\n";
  std::string expected =
      "FileHeader Type: 1000\nFileHeader version: 1\nNode name: still.PODx\n" +
      Header(2001, 1132, 0, "square") + NodePart(0, "1.000000, 2.000000, 3.000000, 1.000000") +
      "Number of vertex: 4\nNumber of face: 2\nNumber of UVW: 1\n"
      "Bounding Sphere: center:2.000000, 3.000000, 3.000000 with radius 1.414214\n"
      "Bounding Box: center:2.000000, 3.000000, 3.000000 with max 3.000000 4.000000 3.000000 and "
      "min "
      "1.000000 2.000000 3.000000\n" +
      streams + "Vertex data location offset: " + vertexAt +
      "\nVertex data length:  48\nVertex data ptr:  " + Hex(square.vertexBuffer.data) + "\n" +
      kSquareVertices +
      "Normal data type: 1\nNormal number of values: 3\nNormal stride: 12\nNormal data:  0\n"
      "Normal data location offset: " +
      normalAt + "\nNormal data length: 48\nNormal data ptr: " + Hex(square.normalBuffer.data) +
      "\n" + kSquareNormals +
      // A plain mesh keeps the zero face pointer of the file: no index lines.
      "Face data type: 3\nFace number of values: 1\nFace stride: 2\nFace data:  0\n"
      "Face data location offset: " +
      faceAt + "\nFace data length: 12\nFace data ptr: " + Hex(square.faceBuffer.data) +
      "\nUVW Number: 0\nUVW data type: 1\nUVW number of values: 2\nUVW stride: 8\nUVW data:  0\n"
      "UVW data location offset: " +
      uvAt +
      "\nUVW data length: 20\n"
      "UVW data: 0.000000 0.000000\nUVW data: 1.000000 0.000000\nUVW data: 1.000000 1.000000\n"
      "UVW data: 0.000000 1.000000\n"
      "Material Number: 0\nMaterial Index 0\nOpacity: 0.500000\nAmbient: 0.250000 0.500000 "
      "0.750000\n"
      "Diffuse: 1.000000 0.500000 0.000000\nSpecular:  0.125000 0.250000 0.375000\nShininess:  "
      "8.000000\n"
      "Material Name: stone\nTexture Name: stone.png.qimg\n" +
      NoMaterials(1) + "Default material index 0\n" + Header(2004, 1764, 0, "stone") +
      Header(2009, 2068, 0, "MARKER1") + "***Marker***\n***Marker***\n" +
      NodePart(1, "0.000000, 0.000000, 0.000000, 1.000000") +
      Header(2006, 2148, 0, "COLLISIONSPHERE1") +
      "***Collision Sphere***\n***Collision Sphere***\n" +
      NodePart(2, "0.000000, 0.000000, 0.000000, 1.000000") +
      "Number of vertex: 4\nNumber of face: 2\nNumber of UVW: 1\n"
      "Bounding Sphere: center:1.000000, 1.000000, 0.000000 with radius 1.414214\n"
      "Bounding Box: center:1.000000, 1.000000, 0.000000 with max 2.000000 2.000000 0.000000 and "
      "min "
      "0.000000 0.000000 0.000000\n" +
      streams + "Vertex data location offset: " + vertexAt +
      "\nVertex data length:  48\nVertex data ptr:  " + Hex(sphere.vertexBuffer.data) + "\n" +
      kSquareVertices +
      "Normal data type: 1\nNormal number of values: 3\nNormal stride: 12\nNormal data:  " +
      Hex(sphere.normalBuffer.data) + "\nNormal data location offset: " + normalAt +
      "\nNormal data length: 48\nNormal data ptr: " + Hex(sphere.normalBuffer.data) + "\n" +
      kSquareNormals +
      // A loaded collision sphere's face pointer is aimed at its buffer: the indices follow.
      "Face data type: 3\nFace number of values: 1\nFace stride: 2\nFace data:  " +
      Hex(sphere.faceBuffer.data) + "\nFace data location offset: " + faceAt +
      "\nFace data length: 12\nFace data ptr: " + Hex(sphere.faceBuffer.data) +
      "\nFace data: 0\nFace data: 1\nFace data: 2\nFace data: 0\nFace data: 2\nFace data: 3\n"
      // Without material the set's descriptor, offset and coordinates are all zero.
      "UVW Number: 0\nUVW data type: 0\nUVW number of values: 0\nUVW stride: 0\nUVW data:  0\n"
      "UVW data location offset: 0\nUVW data length: 0\n" +
      NoMaterials(0) + "Default material index -1\n" + Header(2002, 2748, 0, "lamp") +
      Header(2003, 2848, 0, "cam");

  EXPECT_EQ(Captured([&] { model.printModelInfo(); }), expected);
  // One texture-coordinate set: nothing to report.
  EXPECT_EQ(Captured([&] { model.printCheckModelInfo(); }), "");
}

std::vector<std::string> Lines(const std::string& text, const std::regex& pattern) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = text.substr(start, end - start);
    if (std::regex_match(line, pattern)) lines.push_back(line);
  }
  return lines;
}

TEST(ModelDump, EveryKindOfAnAnimatedSceneHasItsBannersRecordsAndBoundedTables) {
  TempDir dir;
  converted::PODSceneBuilder b;
  converted::BuildEveryKindScene(b);
  const std::string qsn = converted::Convert(b, dir, "every");
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  ASSERT_TRUE(loader.readFromFile(qsn, &model)) << loader.lastError();
  const std::string dump = Captured([&] { model.printModelInfo(); });

  EXPECT_EQ(Lines(dump, std::regex("NodeHeader Type: .*")),
            (std::vector<std::string>{
                "NodeHeader Type: 2004", "NodeHeader Type: 2001", "NodeHeader Type: 2004",
                "NodeHeader Type: 2005", "NodeHeader Type: 2006", "NodeHeader Type: 2007",
                "NodeHeader Type: 2008", "NodeHeader Type: 2009", "NodeHeader Type: 2010",
                "NodeHeader Type: 2011", "NodeHeader Type: 2002", "NodeHeader Type: 2012"}));
  EXPECT_EQ(Lines(dump, std::regex("\\*\\*\\*.*")),
            (std::vector<std::string>{
                "***Collision Box***", "***Collision Box***", "***Collision Sphere***",
                "***Collision Sphere***", "***Billboard***", "***Billboard Box***", "***Sky Box***",
                "***Sky Box***", "***Marker***", "***Marker***", "***Skeletal Mesh***",
                "***Skeleton***", "***Animation Mesh***", "***Animation***",
                "***Animation Camera***", "***Animation Camera***"}));
  // Nine records with a node part (all but light and materials), four transform lines each.
  EXPECT_EQ(Lines(dump, std::regex("Transform: .*")).size(), 36u);
  // Indices only where the loader aimed face.pData: box, sphere, billboard, sky box and prop
  // (6 each), skin (3); not the plain mesh.
  EXPECT_EQ(Lines(dump, std::regex("Face data: [0-9]+")).size(), 33u);
  // Three frames hold 3 matrices each for the animated mesh, the animated camera (30 at most)
  // and the one bone of the skin (10 at most).
  const std::regex matrixRow(
      "-?[0-9]+\\.[0-9]{6}, -?[0-9]+\\.[0-9]{6},-?[0-9]+\\.[0-9]{6}, -?[0-9]+\\.[0-9]{6}");
  EXPECT_EQ(Lines(dump, matrixRow).size(), 3u * 3 * 4);
  EXPECT_EQ(Lines(dump, std::regex("(Center|Radius|Max|Min) .*")).size(), 12u);
  // The light-mapped wall names its own material (record 1) and the light map (record 0).
  EXPECT_NE(dump.find("Material Index 1\nOpacity: 1.000000\nAmbient: 0.000000 0.000000 0.000000\n"
                      "Diffuse: 0.000000 0.000000 0.000000\nSpecular:  0.000000 0.000000 0.000000\n"
                      "Shininess:  0.000000\nMaterial Name: wall\nTexture Name: wall.png.qimg\n"
                      "Material Number: 1\nMaterial Index 0\nOpacity: 1.000000\n"),
            std::string::npos);
}

TEST(ModelDump, SkeletalAndAnimatedTablesPrintTheirWordsAndAtMostTheFixedCounts) {
  QelSceneGraphModel model;
  auto* skin = AddNode<SSGQelSkeletalMeshNodeData>(model, ESGSkeletalMeshNode, "skin");
  const auto put = [](SSGNodeData& b, const std::vector<float>& words, bool asInt) {
    b.type = asInt ? 1 : 0;
    b.length = static_cast<uint32_t>(4 * words.size());
    b.data = static_cast<uint8_t*>(std::malloc(b.length ? b.length : 1));
    for (size_t i = 0; i < words.size(); ++i) {
      const int32_t v = static_cast<int32_t>(words[i]);
      std::memcpy(b.data + 4 * i, asInt ? static_cast<const void*>(&v) : &words[i], 4);
    }
  };
  put(skin->Batch, {7, -1}, true);
  put(skin->BatchBoneCnt, {2}, true);
  put(skin->BoneWeight_ptr, {0.5f, 0.25f}, false);
  std::vector<float> matrix(16);
  for (int i = 0; i < 16; ++i) matrix[i] = float(i);
  put(skin->sBoneWorldMatrixbuffer, matrix, false);     // one of at most 10
  put(skin->sSpherebuffer, {0, 1, 2, 3, 4, 0}, false);  // one sphere
  put(skin->sAABBbuffer, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0, 0},
      false);  // one box, 12 bytes spare
  auto* cam = AddNode<SSGQelAnimationCameraNodeData>(model, ESGAnimationCameraNode, "cam");
  cam->FOV = 0.5f;
  put(cam->animMatrixbuffer, matrix, false);  // one frame of at most 30

  const std::string zeroNode = std::string("Index to object: 0\nObject Index: 0\n") +
                               "Transform: 0.000000, 0.000000, 0.000000, 0.000000\nTransform: "
                               "0.000000, 0.000000, 0.000000, 0.000000\n"
                               "Transform: 0.000000, 0.000000, 0.000000, 0.000000\nTransform: "
                               "0.000000, 0.000000, 0.000000, 0.000000\n"
                               "Number of animation: 0\nAnimation Flag: 0\n";
  const std::string matrixRows =
      "0.000000, 1.000000,2.000000, 3.000000\n4.000000, 5.000000,6.000000, 7.000000\n"
      "8.000000, 9.000000,10.000000, 11.000000\n12.000000, 13.000000,14.000000, 15.000000\n\n";

  const std::string skeleton = Captured([&] { model.printSkeletonNodeInfo(skin); });
  EXPECT_EQ(skeleton.rfind("***Skeleton***\n" + zeroNode + "Number of vertex: 0\n", 0), 0u);
  const std::string last = "Default material index 0\n";
  ASSERT_NE(skeleton.find(last), std::string::npos);
  EXPECT_EQ(skeleton.substr(skeleton.find(last) + last.size()),
            "Batch\ntype: 1\nlength: 8\n7,-1,\nBatchBoneCnt\ntype: 1\nlength: 4\n2,\n"
            "BatchOffset\ntype: 0\nlength: 0\n\nBoneIdx_ptr\ntype: 0\nlength: 0\n\n"
            "BoneWeight_ptr\ntype: 0\nlength: 8\n0.500000,0.250000,\n"
            "sBoneIndexbuffer\ntype: 0\nlength: 0\n\n"
            "sBoneWorldMatrixbuffer\ntype: 0\nlength: 64\n" +
                matrixRows +
                "sSpherebuffer\ntype: 0\nlength: 24\nCenter 1.000000, 2.000000, 3.000000\nRadius "
                "4.000000\n\n"
                "sAABBbuffer\ntype: 0\nlength: 56\nMax 4.000000, 5.000000, 6.000000\nMin 1.000000, "
                "2.000000, 3.000000\n\n");

  EXPECT_EQ(Captured([&] { model.printAnimationCameraNodeInfo(cam); }),
            "***Animation Camera***\n" + zeroNode +
                "FOV: 0.500000\nFar plane: 0.000000\nNear Plane: 0.000000\nanimMatrixbuffer\ntype: "
                "0\nlength: 64\n" +
                matrixRows);
}

// Counts far beyond what the buffers hold: every table stops at its buffer's end (the buffers are
// exact-size allocations, so the sanitizer build would catch a read past them).
TEST(ModelDump, CountsBeyondTheBuffersPrintOnlyWhatTheBuffersHold) {
  QelSceneGraphModel model;
  auto* mesh = AddNode<SSGQelMeshNodeData>(model, ESGMeshNode, "big");
  FillMesh(*mesh, 1, 0);  // 3 vertices, 1 triangle, one set of 3 coordinates
  mesh->numVertex = 1000;
  mesh->numFace = 1000;
  mesh->numUVW = 40;
  mesh->face.pData = mesh->faceBuffer.data;
  for (int m = 0; m < 8; ++m) mesh->materialIndex[m] = m == 0 ? 0 : 5;
  std::strcpy(AddNode<SSGQelMaterialData>(model, ESGMaterial, "only")->materialName, "only");
  auto* anim =
      AddNode<SSGQelAnimationMeshNodeData>(model, ESGAnimationMeshNode, "anim");  // no arrays
  for (int m = 0; m < 8; ++m) anim->materialIndex[m] = -1;
  SSGNodeHeader* stray = SGNewRecord<SSGNodeHeader>();
  stray->type = ESGSkyBoxNode;
  stray->index = 3;  // no such sky box
  model.createNodeHeader(stray);

  const std::string dump = Captured([&] { model.printModelInfo(); });
  EXPECT_EQ(Lines(dump, std::regex("Vertex data: .*")).size(), 3u);
  EXPECT_EQ(Lines(dump, std::regex("Normal data: [0-9].*")).size(), 3u);
  EXPECT_EQ(Lines(dump, std::regex("Face data: [0-9]+")).size(), 3u);
  EXPECT_EQ(Lines(dump, std::regex("UVW Number: .*")).size(), 8u);  // eight sets exist in a record
  EXPECT_EQ(Lines(dump, std::regex("UVW data: [-0-9].*")).size(),
            3u);  // set 1 would start 8000 bytes in
  // Entry 0 of the big mesh names the one material; index 5 names none.
  EXPECT_EQ(Lines(dump, std::regex("Material Name: only")).size(), 1u);
  EXPECT_NE(dump.find("animMatrixbuffer\ntype: 0\nlength: 0\n\n"), std::string::npos);
  const std::string end = std::string("NodeHeader Type: 2008\nNode offset: 0\n") + kLengthLine +
                          "Node index: 3\nNode name: \n***Sky Box***\n";
  EXPECT_EQ(dump.substr(dump.size() - std::min(dump.size(), end.size())), end);
}

TEST(ModelDump, ModelWithOnlyALightPrintsTheHeadersOnlyAndFullNamesStopAtTheirField) {
  QelSceneGraphModel model;
  AddNode<SSGQelLightNodeData>(model, ESGLightNode, "lamp");
  SetFileHeader(model, "");
  std::memset(model.header.PODFilename, 'P', sizeof model.header.PODFilename);  // no terminator
  std::memset(model.nodeheader[0]->name, 'N', sizeof model.nodeheader[0]->name);
  model.nodeheader[0]->offset = 556;
  EXPECT_EQ(Captured([&] { model.printModelInfo(); }),
            "FileHeader Type: 1000\nFileHeader version: 1\nNode name: " + std::string(256, 'P') +
                "\n" + Header(2002, 556, 0, std::string(128, 'N')));
}

// A mesh with `sets` texture-coordinate sets of 2 vertices whose first vertices are (u0, v0) and
// (u1, v1).
void AddUVMesh(QelSceneGraphModel& model, ESGName kind, const char* name, uint32_t sets, float u0,
               float v0, float u1, float v1) {
  SSGQelMeshNodeData* m = kind == ESGMeshNode ? AddNode<SSGQelMeshNodeData>(model, kind, name)
                                              : AddNode<SSGQelBillboardNodeData>(model, kind, name);
  m->numVertex = 2;
  m->numUVW = sets;
  const float uv[] = {u0, v0, 9, 9, u1, v1, 9, 9, u0, v0, 9, 9};
  m->UVWBuffer.length = 16 * std::min<uint32_t>(sets, 3);
  m->UVWBuffer.data = static_cast<uint8_t*>(std::malloc(m->UVWBuffer.length));
  std::memcpy(m->UVWBuffer.data, uv, m->UVWBuffer.length);
}

TEST(ModelCheck, ReportsMoreThanTwoSetsAndSetsCloserThanOneThousandth) {
  QelSceneGraphModel model;
  AddUVMesh(model, ESGMeshNode, "near_u", 2, 0, 0.5f, 0.0009f, 0.5f);
  AddUVMesh(model, ESGMeshNode, "near_v", 2, 0.25f, 0, 0.25f, 0.0009f);
  AddUVMesh(model, ESGMeshNode, "at_u", 2, 0, 0.5f, 0.001f, 0.5f);
  AddUVMesh(model, ESGMeshNode, "at_v", 2, 0.5f, 0, 0.5f, 0.001f);
  AddUVMesh(model, ESGMeshNode, "past_u", 2, 0, 0.5f, 0.0011f, 0.5f);
  AddUVMesh(model, ESGMeshNode, "three", 3, 0, 0, 0, 0);  // identical sets too, but Error1 only
  AddUVMesh(model, ESGMeshNode, "one", 1, 0, 0, 0, 0);
  AddUVMesh(model, ESGBillboardNode, "billboard", 2, 0, 0, 0, 0);  // not a plain mesh
  EXPECT_EQ(Captured([&] { model.printCheckModelInfo(); }),
            "Error2: Same UVW in 2 planes \"near_u\"\t\t\t: UV0:(0.000000, 0.500000) "
            "UV1:(0.000900,0.500000)\n"
            "Error2: Same UVW in 2 planes \"near_v\"\t\t\t: UV0:(0.250000, 0.000000) "
            "UV1:(0.250000,0.000900)\n"
            "Error1: Number of UVW > 2, \"three\"\n");
}

}  // namespace

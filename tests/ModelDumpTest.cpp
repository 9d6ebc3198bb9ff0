// The model dump and the texture-coordinate check. Expected texts are written out from the print
// formats and from values worked out by hand for the scenes of ConvertedScenes.h; only pointer
// values (printed as their low 32 bits) and the stream offsets inside the .PODx file (found by
// searching the file for the stream bytes) are taken from outside.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/ConvertedScenes.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "support/SceneGraphSamples.h"
#include "support/TestSupport.h"

namespace {

using namespace korvex::test;

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

// The check reads a header's name as 256 bytes: a name filling its whole field runs on into the
// header's offset, length and index as the file stores them, up to the first zero byte.
TEST(ModelCheck, AFullNameRunsOnIntoTheHeaderFieldsAfterIt) {
  QelSceneGraphModel model;
  const std::string full(128, 'A');
  AddUVMesh(model, ESGMeshNode, full.c_str(), 3, 0, 0, 0, 0);
  SSGNodeHeader* h = model.nodeheader.back();
  ASSERT_EQ(std::string(h->name, 128), full);
  h->offset = 0x0000019Cu;  // 9C 01 00 00
  EXPECT_EQ(Captured([&] { model.printCheckModelInfo(); }),
            "Error1: Number of UVW > 2, \"" + full + "\x9c\x01\"\n");
  h->offset = 0x44434241u;  // "ABCD", then the length's bytes
  h->length = 0x00004645u;  // "EF"
  EXPECT_EQ(Captured([&] { model.printCheckModelInfo(); }),
            "Error1: Number of UVW > 2, \"" + full + "ABCDEF\"\n");
}

}  // namespace

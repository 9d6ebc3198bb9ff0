#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include "support/ReductionMeshes.h"
#include "edit/VertexReduction.h"

namespace {

using namespace reduction_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

std::string ReduceScene(SPODScene& scene, bool nearly) {
  CaptureStdout();
  reduceMeshVertex(&scene, nearly);
  return GetCapturedStdout();
}

std::string Totals(int before, int after) {
  return "Total vertex before reduction: " + std::to_string(before) +
         "\nTotal vertex after reduction: " + std::to_string(after) +
         "\nDifference: " + std::to_string(before - after) + "\n";
}

const char kSameHeader[] = "Reducing vertex number with vertex have SAME UV...";
const char kNearHeader[] = "Reducing vertex number with vertex have NEARLY same UV...";

// A unit cube exported as 6 quads of 4 vertices each (vertex 4f+c is corner c of face f) with the
// face normal and texture coordinates (f, c); corner positions are P(b) = (b&1, b>>1&1, b>>2).
const int kFaceCorners[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                                {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
const float kFaceNormals[6][3] = {{0, 0, -1}, {0, 0, 1}, {0, -1, 0}, {0, 1, 0}, {-1, 0, 0}, {1, 0, 0}};

MeshData Cube() {
  MeshData m;
  m.uvs.resize(1);
  for (int f = 0; f < 6; ++f) {
    for (int c = 0; c < 4; ++c) {
      const int p = kFaceCorners[f][c];
      m.positions.insert(m.positions.end(), {float(p & 1), float(p >> 1 & 1), float(p >> 2)});
      m.normals.insert(m.normals.end(), kFaceNormals[f], kFaceNormals[f] + 3);
      m.uvs[0].insert(m.uvs[0].end(), {float(f), float(c)});
    }
    const uint16_t b = uint16_t(4 * f);
    m.faces.insert(m.faces.end(), {b, uint16_t(b + 1), uint16_t(b + 2), b, uint16_t(b + 2), uint16_t(b + 3)});
  }
  return m;
}

TEST(VertexReduction, CubeWithMaterialMergesOnlyEqualTextureCoordinates) {
  MeshData cube = Cube();
  // Face 2 starts at P0 and P1 like face 0 (its corners 0 and 3); give those two vertices of
  // face 2 the same coordinates so that exactly they merge.
  cube.uvs[0][2 * 8] = 0, cube.uvs[0][2 * 8 + 1] = 0;
  cube.uvs[0][2 * 9] = 0, cube.uvs[0][2 * 9 + 1] = 3;
  SPODScene scene = MakeScene({MakeMesh(cube)}, {{0, 0, "cube"}});
  EXPECT_EQ(ReduceScene(scene, false), kSameHeader + Totals(24, 22));

  const SPODMesh& mesh = scene.pMesh[0];
  ASSERT_EQ(mesh.nNumVertex, 22u);
  // Old 8 and 9 become new 0 and 3; every later vertex moves down by two.
  const std::vector<uint16_t> faces = {0,  1,  2,  0,  2,  3,  4,  5,  6,  4,  6,  7,  0,  3,  8,  0,  8,  9,
                                       10, 11, 12, 10, 12, 13, 14, 15, 16, 14, 16, 17, 18, 19, 20, 18, 20, 21};
  EXPECT_EQ(Values<uint16_t>(mesh.sFaces), faces);
  const std::vector<float> normals = Values<float>(mesh.sNormals);
  ASSERT_EQ(normals.size(), 66u);
  EXPECT_EQ(std::vector<float>(normals.begin(), normals.begin() + 3), (std::vector<float>{0, -1, 0}));
  EXPECT_EQ(std::vector<float>(normals.begin() + 9, normals.begin() + 12), (std::vector<float>{0, -1, 0}));
  EXPECT_EQ(std::vector<float>(normals.begin() + 3, normals.begin() + 6), (std::vector<float>{0, 0, -1}));
  EXPECT_EQ(mesh.sVertex.nDataSize, 22u * 12);
  EXPECT_EQ(mesh.psUVW[0].nDataSize, 22u * 8);
  FreeScene(scene);
}

TEST(VertexReduction, CubeWithoutMaterialCollapsesToItsCorners) {
  SPODScene scene = MakeScene({MakeMesh(Cube())}, {{0, -1, "cube"}});
  EXPECT_EQ(ReduceScene(scene, false), kSameHeader + Totals(24, 8));
  const SPODMesh& mesh = scene.pMesh[0];
  ASSERT_EQ(mesh.nNumVertex, 8u);

  // First use: face 0 brings P0 P2 P3 P1, face 1 brings P4 P5 P7 P6. The last face touching a
  // corner (in face order) gives its normal: P0, P2, P4, P6 end on face 4, the rest on face 5.
  const int order[8] = {0, 2, 3, 1, 4, 5, 7, 6};
  const int lastFace[8] = {4, 4, 5, 5, 4, 5, 5, 4};
  int newIndexOf[8];
  for (int k = 0; k < 8; ++k) newIndexOf[order[k]] = k;
  const std::vector<float> positions = Values<float>(mesh.sVertex), normals = Values<float>(mesh.sNormals);
  for (int k = 0; k < 8; ++k) {
    const int p = order[k];
    EXPECT_EQ(positions[3 * k], float(p & 1));
    EXPECT_EQ(positions[3 * k + 1], float(p >> 1 & 1));
    EXPECT_EQ(positions[3 * k + 2], float(p >> 2));
    for (int a = 0; a < 3; ++a) EXPECT_EQ(normals[3 * k + a], kFaceNormals[lastFace[k]][a]) << k;
  }
  std::vector<uint16_t> faces;
  for (const auto& f : kFaceCorners) {
    const uint16_t q[4] = {uint16_t(newIndexOf[f[0]]), uint16_t(newIndexOf[f[1]]), uint16_t(newIndexOf[f[2]]),
                           uint16_t(newIndexOf[f[3]])};
    faces.insert(faces.end(), {q[0], q[1], q[2], q[0], q[2], q[3]});
  }
  EXPECT_EQ(Values<uint16_t>(mesh.sFaces), faces);
  // Texture coordinates come with the first corner: P1 was first met as face 0, corner 3.
  EXPECT_EQ(Values<float>(mesh.psUVW[0])[2 * 3 + 1], 3.0f);
  FreeScene(scene);
}

TEST(VertexReduction, UnusedVertexDisappearsAndZeroSignsMergeWhileNaNNeverDoes) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  MeshData m;
  // 0 and 4 differ only in the sign of zero; 3 is never used; 2 has a NaN and is used twice.
  m.positions = {0, 1, 0, 5, 5, 5, nan, 0, 0, 9, 9, 9, -0.0f, 1, -0.0f};
  m.normals = {1, 0, 0, 2, 0, 0, 3, 0, 0, 4, 0, 0, 5, 0, 0};
  m.faces = {0, 1, 2, 4, 2, 1};
  SPODScene scene = MakeScene({MakeMesh(m)}, {{0, -1, "n"}});
  EXPECT_EQ(ReduceScene(scene, false), kSameHeader + Totals(5, 4));
  const SPODMesh& mesh = scene.pMesh[0];
  EXPECT_EQ(Values<uint16_t>(mesh.sFaces), (std::vector<uint16_t>{0, 1, 2, 0, 3, 1}));
  EXPECT_EQ(Values<float>(mesh.sNormals), (std::vector<float>{5, 0, 0, 2, 0, 0, 3, 0, 0, 3, 0, 0}));
  const std::vector<float> positions = Values<float>(mesh.sVertex);
  EXPECT_FALSE(std::signbit(positions[0]));  // the first corner's +0.0 is kept
  EXPECT_TRUE(std::isnan(positions[6]) && std::isnan(positions[9]));
  FreeScene(scene);
}

TEST(VertexReduction, ThirdTextureSetIsCutOnceForASharedMesh) {
  MeshData m;
  m.positions = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  m.normals = m.positions;
  m.uvs = {{0, 0, 1, 1, 2, 2}, {3, 3, 4, 4, 5, 5}, {6, 6, 7, 7, 8, 8}};
  m.faces = {0, 1, 2};
  SPODScene scene = MakeScene({MakeMesh(m)}, {{0, 0, "first"}, {0, 0, "second"}});
  const uint8_t* thirdSet = scene.pMesh[0].psUVW[2].pData;
  // The second node finds the mesh already cut to two sets.
  EXPECT_EQ(ReduceScene(scene, false),
            kSameHeader + std::string("Error1: Number of UVW > 2, \"first\"\n") + Totals(6, 6));
  const SPODMesh& mesh = scene.pMesh[0];
  EXPECT_EQ(mesh.nNumUVW, 2u);
  EXPECT_EQ(Values<float>(mesh.psUVW[1]), (std::vector<float>{3, 3, 4, 4, 5, 5}));
  EXPECT_EQ(mesh.psUVW[2].pData, thirdSet);
  FreeScene(scene);
}

// Near mode compares the float difference of two coordinates, widened only afterwards: a pair
// whose difference in double is just under 0.001 but rounds above it as a float stays apart.
TEST(VertexReduction, NearCoordinatesAreComparedByTheirFloatDifference) {
  struct Case {
    float a, b;
    int kept;
  };
  const Case cases[] = {{6.3e-06f, -0.0009937f, 3},  // 0.00099999999975 in double, 0.0010000000475 as a float
                        {0.25f, 0.2509f, 2},
                        {0.25f, 0.2511f, 3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.a << " and " << c.b);
    MeshData m;
    m.positions = {0, 0, 0, 0, 0, 0, 1, 0, 0};  // 0 and 1 share a position
    m.normals = m.positions;
    m.uvs = {{c.a, 0, c.b, 0, 5, 5}};
    m.faces = {0, 1, 2};
    SPODScene scene = MakeScene({MakeMesh(m)}, {{0, 0, "n"}});
    EXPECT_EQ(ReduceScene(scene, true), kNearHeader + Totals(3, c.kept));
    FreeScene(scene);
  }
}

TEST(VertexReduction, NewIndicesWrapAbove65535KeptVertices) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  MeshData m;
  m.positions = {nan, 0, 0, 7, 8, 9};
  m.normals.assign(6, 0);
  m.faces.assign(65536, 0);  // every corner of the NaN vertex is a kept vertex of its own
  m.faces.insert(m.faces.end(), {1, 1});
  SPODScene scene = MakeScene({MakeMesh(m)}, {{0, -1, "big"}});
  EXPECT_EQ(ReduceScene(scene, false), kSameHeader + Totals(2, 65537));
  const std::vector<uint16_t> faces = Values<uint16_t>(scene.pMesh[0].sFaces);
  for (size_t c = 0; c < 65536; ++c) ASSERT_EQ(faces[c], c);
  EXPECT_EQ(faces[65536], 0);
  EXPECT_EQ(faces[65537], 0);
  EXPECT_EQ(Values<float>(scene.pMesh[0].sVertex)[3 * 65536 + 2], 9.0f);
  FreeScene(scene);
}

// The rebuilt bone streams are bounded by the vertices the weld keeps, not by the corners: many
// triangles over few vertices weld, while a NaN vertex kept at every corner would pass 256 MiB.
TEST(VertexReduction, RebuiltBoneStreamsAreBoundedByTheVerticesKept) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const uint32_t kBones = 65536;  // 327,680 bytes of bones a vertex: 820 kept vertices pass 256 MiB
  MeshData m;
  m.normals = {1, 0, 0, 2, 0, 0};
  m.boneIdxN = m.boneWeightN = kBones;
  m.boneIdx.assign(2 * kBones, 0);
  m.boneIdx[0] = 7, m.boneIdx[kBones] = 9;
  m.boneWeights.assign(2 * kBones, 0.5f);
  for (int c = 0; c < 274; ++c) m.faces.insert(m.faces.end(), {0, 0, 1});  // 822 corners
  m.positions = {3, 4, 5, 3, 4, 5};
  const SPODMesh few = MakeMesh(m);
  m.positions = {nan, 4, 5, 3, 4, 5};
  m.faces.assign(822, 0);
  const SPODMesh everyCorner = MakeMesh(m);
  SPODScene scene = MakeScene({few, everyCorner}, {{0, -1, "few"}, {1, -1, "nan"}});
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReduceScene(scene, false), kSameHeader + Totals(4, 3));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Note: vertices of \"nan\" not reduced: the rebuilt bone streams would pass 256 MiB\n");
  const SPODMesh& welded = scene.pMesh[0];
  ASSERT_EQ(welded.nNumVertex, 1u);
  const std::vector<uint8_t> bones = Values<uint8_t>(welded.sBoneIdx);
  ASSERT_EQ(bones.size(), kBones);
  EXPECT_EQ(bones[0], 7);  // the first corner's vertex
  EXPECT_EQ(Values<float>(welded.sNormals), (std::vector<float>{2, 0, 0}));  // the last corner's
  EXPECT_EQ(scene.pMesh[1].nNumVertex, 2u);
  FreeScene(scene);
}

// What the welds add to the scene's bone streams is bounded as a whole: two meshes whose NaN
// vertex is kept at each of 498 corners grow by 163 MB each, within 256 MiB alone, not together.
TEST(VertexReduction, TheScenesRebuiltBoneStreamsAreBoundedAsAWhole) {
  const uint32_t kBones = 65536;  // 327,680 bytes of bones a vertex
  MeshData m;
  m.normals = {1, 0, 0, 2, 0, 0};
  m.boneIdxN = m.boneWeightN = kBones;
  m.boneIdx.assign(2 * kBones, 0);
  m.boneWeights.assign(2 * kBones, 0.5f);
  m.positions = {std::numeric_limits<float>::quiet_NaN(), 4, 5, 3, 4, 5};
  m.faces.assign(498, 0);
  SPODScene scene = MakeScene({MakeMesh(m), MakeMesh(m)}, {{0, -1, "first"}, {1, -1, "second"}});
  CaptureStdout();
  testing::internal::CaptureStderr();
  const PODWeldPlan plan = reduceMeshVertexForSave(&scene, false);
  EXPECT_EQ(GetCapturedStdout(), kSameHeader + Totals(4, 500));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Note: vertices of \"second\" not reduced: the scene's rebuilt bone streams would grow "
            "by more than 256 MiB\n");
  ASSERT_NE(plan.weld(0), nullptr);
  EXPECT_EQ(plan.weld(0)->nKept, 498u);
  EXPECT_EQ(plan.weld(1), nullptr);
  FreeScene(scene);
}

// The vertex count does not bound the indices: vertices are read only where the triangles use
// them, so streams shorter than the count, or indices past it, are welded as long as every stream
// read holds each index used. The totals still add up the counts.
TEST(VertexReduction, StreamsShorterThanTheCountAndIndicesPastItAreWelded) {
  MeshData m;
  // Old 2 repeats old 0's position; 0 and 2 share coordinates in set 0 only.
  m.positions = {0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 0, 0};
  m.normals = {1, 0, 0, 2, 0, 0, 3, 0, 0, 4, 0, 0, 5, 0, 0};  // one vertex more than the others
  m.uvs = {{0, 0, 1, 1, 0, 0, 3, 3}, {0, 0, 1, 1, 5, 5, 3, 3}, {9, 9}};  // the third set is dropped
  m.faces = {0, 3, 2, 2, 1, 3};
  SPODMesh fewer = MakeMesh(m);
  fewer.nNumVertex = 2;  // indices 2 and 3 lie past the count
  SPODMesh more = MakeMesh(m);
  more.nNumVertex = 100;  // every stream is far shorter than the count
  SPODScene scene = MakeScene({fewer, more}, {{0, -1, "fewer"}, {1, 0, "more"}});
  EXPECT_EQ(ReduceScene(scene, false),
            kSameHeader + std::string("Error1: Number of UVW > 2, \"fewer\"\n") +
                "Error1: Number of UVW > 2, \"more\"\n" + Totals(102, 7));

  // Without material the position alone decides: old 2 merges into old 0 and gives its normal.
  const SPODMesh& byPosition = scene.pMesh[0];
  ASSERT_EQ(byPosition.nNumVertex, 3u);
  EXPECT_EQ(Values<uint16_t>(byPosition.sFaces), (std::vector<uint16_t>{0, 1, 0, 0, 2, 1}));
  EXPECT_EQ(Values<float>(byPosition.sVertex), (std::vector<float>{0, 0, 0, 2, 0, 0, 1, 0, 0}));
  EXPECT_EQ(Values<float>(byPosition.sNormals), (std::vector<float>{3, 0, 0, 4, 0, 0, 2, 0, 0}));
  EXPECT_EQ(Values<float>(byPosition.psUVW[0]), (std::vector<float>{0, 0, 3, 3, 1, 1}));
  EXPECT_EQ(Values<float>(byPosition.psUVW[1]), (std::vector<float>{0, 0, 3, 3, 1, 1}));

  // With material set 1 keeps old 2 apart.
  const SPODMesh& byCoordinates = scene.pMesh[1];
  ASSERT_EQ(byCoordinates.nNumVertex, 4u);
  EXPECT_EQ(Values<uint16_t>(byCoordinates.sFaces), (std::vector<uint16_t>{0, 1, 2, 2, 3, 1}));
  EXPECT_EQ(Values<float>(byCoordinates.sNormals), (std::vector<float>{1, 0, 0, 4, 0, 0, 3, 0, 0, 2, 0, 0}));
  EXPECT_EQ(Values<float>(byCoordinates.psUVW[1]), (std::vector<float>{0, 0, 3, 3, 5, 5, 1, 1}));
  FreeScene(scene);
}

// A mesh left alone still has its texture-coordinate sets cut to two first, with its Error1.
TEST(VertexReduction, MeshesItCannotHandleAreLeftAloneAndCountedUnchanged) {
  MeshData m;
  m.positions = {0, 0, 0, 0, 0, 0, 1, 1, 1};
  m.normals.assign(9, 0);
  m.uvs = {{0, 0, 0, 0, 1, 1}, {0, 0, 0, 0, 1, 1}, {0, 0, 0, 0, 0, 0}};
  m.faces = {0, 1, 2};
  m.boneIdxN = m.boneWeightN = 1;
  m.boneIdx = {1, 2, 3};
  m.boneWeights = {1, 1, 1};
  struct Breakage {
    std::function<void(SPODMesh&)> apply;
    const char* why;  // the note's reason
  };
  // Streams marked shorter keep their arrays' real length or more, so nothing is read past them.
  const std::vector<Breakage> breakages = {
      {[](SPODMesh& s) { s.pInterleaved = s.sVertex.pData; }, "interleaved vertex data"},
      {[](SPODMesh& s) { s.nNumStrips = 1; }, "triangle strips"},
      {[](SPODMesh& s) { s.sVertex.eType = EPODDataInt32; }, "positions are not 3 floats a vertex"},
      {[](SPODMesh& s) { s.sNormals.nStride = 16; }, "normals missing or not 3 floats a vertex"},
      {[](SPODMesh& s) { std::swap(s.sNormals.pData, s.sVtxColours.pData); },
       "normals missing or not 3 floats a vertex"},
      {[](SPODMesh& s) { s.psUVW[1].n = 3; }, "texture coordinates are not 2 floats a vertex"},
      {[](SPODMesh& s) { s.sFaces.eType = EPODDataInt32; }, "indices are not 16-bit"},
      {[](SPODMesh& s) { s.nNumFaces = 2; }, "index stream shorter than its triangles"},
      {[](SPODMesh& s) { s.sVertex.nDataSize = 24; }, "an index lies beyond the positions"},
      {[](SPODMesh& s) { s.nNumVertex = 2; s.sNormals.nDataSize = 35; }, "an index lies beyond the normals"},
      {[](SPODMesh& s) { s.psUVW[1].nDataSize = 16; }, "an index lies beyond the texture coordinates"},
      {[](SPODMesh& s) { s.sBoneWeight.n = 0; s.sBoneWeight.nStride = 0; }, "fewer bone weights than bone indices"},
      {[](SPODMesh& s) { s.sBoneIdx.nStride = 4; }, "bone streams are not packed or shorter than their vertices"},
      {[](SPODMesh& s) { s.sBoneIdx.nDataSize = 2; }, "an index lies beyond the bone streams"},
      {[](SPODMesh& s) { s.nNumVertex = 9; s.sBoneWeight.nDataSize = 11; }, "an index lies beyond the bone streams"},
      {[](SPODMesh& s) { s.nUVWCount = 1; }, "texture-coordinate descriptors missing"},
  };
  for (size_t k = 0; k < breakages.size(); ++k) {
    SCOPED_TRACE(breakages[k].why);
    SPODMesh mesh = MakeMesh(m);
    breakages[k].apply(mesh);
    const SPODMesh before = mesh;
    // A second node points past the mesh array and must not be followed.
    SPODScene scene = MakeScene({mesh}, {{0, 0, "broken"}, {1, 0, "dangling"}});
    const int count = int(before.nNumVertex);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ReduceScene(scene, k % 2 == 0), std::string(k % 2 ? kSameHeader : kNearHeader) +
                                                  "Error1: Number of UVW > 2, \"broken\"\n" +
                                                  Totals(count, count));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Note: vertices of \"broken\" not reduced: " + std::string(breakages[k].why) +
                  "\nNote: vertices of \"dangling\" not reduced: no such mesh\n");
    const SPODMesh& after = scene.pMesh[0];
    EXPECT_EQ(after.nNumVertex, before.nNumVertex);
    EXPECT_EQ(after.nNumUVW, 2u);
    const CPODData SPODMesh::*streams[] = {&SPODMesh::sVertex, &SPODMesh::sNormals, &SPODMesh::sFaces,
                                           &SPODMesh::sBoneIdx, &SPODMesh::sBoneWeight};
    for (auto stream : streams) {
      EXPECT_EQ((after.*stream).pData, (before.*stream).pData);
      EXPECT_EQ((after.*stream).nDataSize, (before.*stream).nDataSize);
    }
    for (int set = 0; set < 3; ++set) EXPECT_EQ(after.psUVW[set].pData, before.psUVW[set].pData);
    EXPECT_EQ(Values<uint16_t>(after.sFaces), (std::vector<uint16_t>{0, 1, 2}));
    scene.pMesh[0].nUVWCount = m.uvs.size();  // so that every set is released
    FreeScene(scene);
  }
}

TEST(VertexReductionDeathTest, MeshNodeWithoutMeshIsABrokenInvariant) {
  SPODScene scene = MakeScene({}, {{-1, 0, "empty"}});
  EXPECT_DEATH(reduceMeshVertex(&scene, false),
               "main:[0-9]+: reduceMeshVertex: Assertion `node->nIdx != -1' failed");
  FreeScene(scene);
}

}  // namespace

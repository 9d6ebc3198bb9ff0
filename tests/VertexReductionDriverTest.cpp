// Welding through the Korvex command: the progress lines on standard output and the reduced
// meshes in the intermediate .PODx file, which is what the conversion reads back.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "support/ReductionMeshes.h"
#include "support/TestSupport.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;
using korvex::test::RunResult;
using korvex::test::TempDir;
using reduction_test::Values;

// Two quads of a unit cube's faces z = 0 and y = 0, 4 vertices each, sharing the edge P0-P1
// (8 vertices, 6 distinct positions); each vertex's texture coordinates are (face, corner).
int AddTwoFaces(PODSceneBuilder& b) {
  const int mesh = b.AddMesh(8);
  b.SetFloatStream(mesh, PODStream::Vertex, 3,
                   {0, 0, 0, 0, 1, 0, 1, 1, 0, 1, 0, 0, /**/ 0, 0, 0, 1, 0, 0, 1, 0, 1, 0, 0, 1});
  b.SetFloatStream(mesh, PODStream::Normals, 3,
                   {0, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0, -1, 0, 0, -1, 0, 0, -1, 0, 0, -1, 0});
  b.AddFloatUVW(mesh, 2, {0, 0, 0, 1, 0, 2, 0, 3, 1, 0, 1, 1, 1, 2, 1, 3});
  b.SetFaces(mesh, {0, 1, 2, 0, 2, 3, 4, 5, 6, 4, 6, 7});
  return mesh;
}

std::string ReductionLines(const char* mode, int before, int after) {
  return std::string("Reducing vertex number with vertex have ") + mode + " UV..." +
         "Total vertex before reduction: " + std::to_string(before) + "\n" +
         "Total vertex after reduction: " + std::to_string(after) + "\n" +
         "Difference: " + std::to_string(before - after) + "\n";
}

TEST(VertexReductionDriver, ExactWeldingReachesTheIntermediateFile) {
  TempDir dir;
  PODSceneBuilder b;
  b.AddTexture("t.png");
  b.AddMaterial("M", 0);
  b.AddMeshNode("Textured", AddTwoFaces(b), 0);
  b.AddMeshNode("Untextured", AddTwoFaces(b), -1);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  const std::string input = dir.file("faces.pod");
  ASSERT_TRUE(scene.SavePOD(input.c_str(), "options"));

  const RunResult r = korvex::test::ConvertInProcess({"-r0", input});
  ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
  // With a material the shared edge keeps both copies (coordinates differ): 8 stay. Without,
  // only the 6 positions stay.
  // The welding comes after the renaming (whose line ending is the renaming's own business).
  const size_t renaming = r.out.find("Renaming texture...");
  const size_t welding = r.out.find(ReductionLines("SAME", 16, 14));
  EXPECT_EQ(r.out.find("Converting " + input + "\n"), 0u) << r.out;
  EXPECT_TRUE(renaming != std::string::npos && welding != std::string::npos && renaming < welding) << r.out;

  CPODScene reloaded;
  ASSERT_TRUE(reloaded.ReadFromFile(dir.file("faces.PODx").c_str()));
  ASSERT_EQ(reloaded.nNumMesh, 2u);
  EXPECT_EQ(reloaded.pMesh[0].nNumVertex, 8u);
  const SPODMesh& welded = reloaded.pMesh[1];
  ASSERT_EQ(welded.nNumVertex, 6u);
  // P0 and P1 are met first on face z = 0 (new 0 and 3); face y = 0 brings (1,0,1), (0,0,1).
  EXPECT_EQ(Values<uint16_t>(welded.sFaces), (std::vector<uint16_t>{0, 1, 2, 0, 2, 3, 0, 3, 4, 0, 4, 5}));
  EXPECT_EQ(Values<float>(welded.sVertex),
            (std::vector<float>{0, 0, 0, 0, 1, 0, 1, 1, 0, 1, 0, 0, 1, 0, 1, 0, 0, 1}));
  // The shared edge (new 0 and 3) keeps the normal of the later face.
  EXPECT_EQ(Values<float>(welded.sNormals),
            (std::vector<float>{0, -1, 0, 0, 0, -1, 0, 0, -1, 0, -1, 0, 0, -1, 0, 0, -1, 0}));
}

TEST(VertexReductionDriver, NearWeldingAndTheThirdTextureSet) {
  TempDir dir;
  PODSceneBuilder b;
  b.AddTexture("t.png");
  b.AddMaterial("M", 0);
  const int mesh = b.AddMesh(5);
  // Vertices 3 and 4 repeat vertex 0's position with u 0.0009 and 0.0011 larger: only 3 merges.
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0});
  b.SetFloatStream(mesh, PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(mesh, 2, {0.5f, 0.5f, 1, 0, 0, 1, 0.5009f, 0.5f, 0.5011f, 0.5f});
  b.AddFloatUVW(mesh, 2, {0, 0, 1, 0, 0, 1, 0, 0, 0, 0});
  b.AddFloatUVW(mesh, 2, {9, 9, 9, 9, 9, 9, 9, 9, 9, 9});
  b.SetFaces(mesh, {0, 1, 2, 3, 2, 1, 4, 1, 2});
  b.AddMeshNode("Tri", mesh, 0);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  const std::string input = dir.file("near.pod");
  ASSERT_TRUE(scene.SavePOD(input.c_str(), "options"));

  for (const char* flag : {"-r1", "-r0"}) {
    const bool nearly = std::string(flag) == "-r1";
    const RunResult r = korvex::test::ConvertInProcess({flag, input});
    ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;
    const std::string lines = ReductionLines(nearly ? "NEARLY same" : "SAME", 5, nearly ? 4 : 5);
    const size_t cut = lines.find("UV...") + 5;  // the header line is left open
    EXPECT_NE(r.out.find(lines.substr(0, cut) + "Error1: Number of UVW > 2, \"Tri\"\n" + lines.substr(cut)),
              std::string::npos)
        << r.out;
    CPODScene reloaded;
    ASSERT_TRUE(reloaded.ReadFromFile(dir.file("near.PODx").c_str()));
    EXPECT_EQ(reloaded.pMesh[0].nNumUVW, 2u);
    const SPODMesh& m = reloaded.pMesh[0];
    ASSERT_EQ(m.nNumVertex, nearly ? 4u : 5u);
    // Near: old 3 becomes 0, old 4 the new 3 with its own u.
    const std::vector<uint16_t> faces = nearly ? std::vector<uint16_t>{0, 1, 2, 0, 2, 1, 3, 1, 2}
                                               : std::vector<uint16_t>{0, 1, 2, 3, 2, 1, 4, 1, 2};
    EXPECT_EQ(Values<uint16_t>(m.sFaces), faces);
    const std::vector<float> u = Values<float>(m.psUVW[0]);
    EXPECT_EQ(u[0], 0.5f);                // the first corner keeps its coordinates
    EXPECT_EQ(u[u.size() - 2], 0.5011f);  // the last vertex is old 4
  }
}

}  // namespace

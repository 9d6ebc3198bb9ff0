// The up-front checks: each thing the edits, the save or the conversion would read outside an
// array is named with its node; a specified assertion further along the pipeline is left to end
// the run, and the checks do not look past it.

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "PODModel.h"
#include "PODSceneBuilder.h"
#include "SceneValidation.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

int AddTriangle(PODSceneBuilder& b) {
  const int mesh = b.AddMesh(3);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.SetFloatStream(mesh, PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(mesh, 2, {0, 0, 1, 0, 0, 1});
  b.SetFaces(mesh, {0, 1, 2});
  return mesh;
}

// Mesh node 0 "Box" (material 0, texture 0), light node 1, camera node 2 with a target (it
// reads the position key of node 0), helper node 3.
void BuildGood(PODSceneBuilder& b) {
  b.AddTexture("t.png");
  b.AddMaterial("M", 0);
  const int box = b.AddMeshNode("Box", AddTriangle(b), 0);
  b.SetAnimPosition(box, {1, 2, 3}, false);
  b.AddLightNode("Lamp", 1, 1, 1);
  b.AddCameraNode("Cam", 1, 1, 10, 3);
  b.AddNode("Target", 0);
}

struct Expect {
  int64_t node;
  std::string problem;
};

void ExpectProblem(const SceneCheck& check, const Expect& e) {
  EXPECT_EQ(check.node, e.node);
  EXPECT_EQ(check.problem, e.problem);
  EXPECT_FALSE(check.assertionAhead);
}

TEST(SceneValidation, ConsistentSceneHasNoProblem) {
  PODSceneBuilder b;
  BuildGood(b);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  for (bool reduction : {false, true}) EXPECT_FALSE(CheckSceneForEdits(scene, reduction).found());
  const SceneCheck check = CheckSceneForConversion(scene, false);
  EXPECT_FALSE(check.found()) << check.problem;
  EXPECT_FALSE(check.assertionAhead);
}

TEST(SceneValidation, ConversionRefusesWhatItWouldReadOutsideArrays) {
  struct Case {
    const char* name;
    std::function<void(CPODScene&)> breakIt;
    Expect expect;
  };
  const Case cases[] = {
      {"mesh index", [](CPODScene& s) { s.pNode[0].nIdx = 1; },
       {0, "mesh index 1 is out of range (1 meshes)"}},
      {"material index", [](CPODScene& s) { s.pNode[0].nIdxMaterial = 1; },
       {0, "material index 1 is out of range (1 materials)"}},
      {"texture index", [](CPODScene& s) { s.pMaterial[0].nIdxTexDiffuse = -2; },
       {0, "material 0 names texture -2, out of range (1 textures)"}},
      {"light index", [](CPODScene& s) { s.pNode[1].nIdx = 1; },
       {1, "light index 1 is out of range (1 lights)"}},
      {"camera index", [](CPODScene& s) { s.pNode[2].nIdx = -1; },
       {2, "camera index -1 is out of range (1 cameras)"}},
      {"camera target source", [](CPODScene& s) {
         std::free(s.pNode[0].pfAnimPosition);
         s.pNode[0].pfAnimPosition = nullptr;
         s.pNode[0].nAnimPositionSize = 0;
       },
       {2, "target position is read from node 0, which has no position key"}},
      {"short normals", [](CPODScene& s) { s.pMesh[0].sNormals.nDataSize = 24; },
       {0, "normal stream holds 24 bytes, 36 needed"}},
      {"short faces", [](CPODScene& s) { s.pMesh[0].nNumFaces = 2; },
       {0, "face stream holds 6 bytes, 12 needed"}},
      {"missing uv set", [](CPODScene& s) { s.pMesh[0].nNumUVW = 2; },
       {0, "mesh declares 2 texture-coordinate sets but stores fewer"}},
      {"short matrix", [](CPODScene& s) {
         s.pNode[1].pfAnimMatrix = static_cast<float*>(std::calloc(8, 4));
         s.pNode[1].nAnimMatrixSize = 32;
       },
       {1, "matrix animation holds less than one matrix"}},
      {"node kinds", [](CPODScene& s) { s.nNumCamera = 3; },
       {-1, "1 mesh, 1 light and 3 camera nodes do not fit in 4 nodes"}},
      {"records", [](CPODScene& s) { s.nNumTexture = 7; },
       {-1, "7 textures declared but none stored"}},
      {"parent range", [](CPODScene& s) { s.pNode[3].nIdxParent = 4; },
       {3, "parent index 4 is out of range (4 nodes)"}},
      {"parent cycle", [](CPODScene& s) { s.pNode[0].nIdxParent = 3; },
       {0, "parent chain loops back to this node"}},
      {"nameless", [](CPODScene& s) {
         std::free(s.pNode[1].pszName);
         s.pNode[1].pszName = nullptr;
       },
       {1, "node has no name"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PODSceneBuilder b;
    BuildGood(b);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    if (std::string(c.name) == "records") {
      // A texture count without its array (as a failed read can leave it).
      std::free(scene.pTexture[0].pszName);
      std::free(scene.pTexture);
      scene.pTexture = nullptr;
    }
    const uint32_t cameras = scene.nNumCamera, lights = scene.nNumLight;
    c.breakIt(scene);
    ExpectProblem(CheckSceneForConversion(scene, false), c.expect);
    scene.nNumCamera = cameras;  // what Destroy walks
    scene.nNumLight = lights;
  }
}

TEST(SceneValidation, InterleavedMeshCannotBeConverted) {
  PODSceneBuilder b;
  BuildGood(b);
  b.Interleave(0);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  // Interleaving puts positions and normals in one vertex of 32 bytes: the stride assertion
  // of the bounding volumes comes first.
  EXPECT_TRUE(CheckSceneForConversion(scene, false).assertionAhead);
  scene.pMesh[0].sVertex.nStride = 12;  // positions alone at stride 12: nothing to copy from
  ExpectProblem(CheckSceneForConversion(scene, false),
                {0, "mesh has interleaved vertex data, which cannot be converted (position "
                    "stream)"});
}

TEST(SceneValidation, NamesAreSettledBySavingBeforeConversion) {
  PODSceneBuilder b;
  BuildGood(b);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  std::free(scene.pNode[0].pszName);
  scene.pNode[0].pszName = nullptr;
  std::free(scene.pMaterial[0].pszName);
  scene.pMaterial[0].pszName = nullptr;
  EXPECT_FALSE(CheckSceneForConversion(scene, true).found());
  EXPECT_EQ(CheckSceneForConversion(scene, false).problem, "node has no name");
}

TEST(SceneValidation, SpecifiedAssertionsAheadStopTheChecks) {
  // Mesh node 0 would end the conversion by assertion; node 1's bad material is never reached.
  PODSceneBuilder b;
  b.AddMaterial("M", -1);
  const int mesh = AddTriangle(b);
  b.AddMeshNode("Lost", -1);
  b.AddMeshNode("Bad", mesh, 9);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  SceneCheck check = CheckSceneForConversion(scene, false);
  EXPECT_FALSE(check.found());
  EXPECT_TRUE(check.assertionAhead);

  // In the other order the bad node is met first.
  std::swap(scene.pNode[0], scene.pNode[1]);
  ExpectProblem(CheckSceneForConversion(scene, false),
                {0, "material index 9 is out of range (1 materials)"});

  // Positions of 4 floats trip the bounding-volume assertion before the short normals matter.
  scene.pNode[0].nIdxMaterial = 0;
  scene.pMesh[0].sVertex.n = 4;
  scene.pMesh[0].sNormals.nDataSize = 0;
  EXPECT_TRUE(CheckSceneForConversion(scene, false).assertionAhead);
}

TEST(SceneValidation, LightMapDefinitionsNeedAMaterialInRange) {
  PODSceneBuilder b;
  b.AddMeshNode("LIGHTMAP001", AddTriangle(b));
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  EXPECT_TRUE(CheckSceneForConversion(scene, false).assertionAhead);  // nIdxMaterial -1
  scene.pNode[0].nIdxMaterial = -2;
  ExpectProblem(CheckSceneForConversion(scene, false), {0, "material index -2 is out of range"});
  // A definition reads its material only: its mesh streams may be anything.
  scene.pNode[0].nIdxMaterial = -1;
  scene.pMesh[0].sNormals.nDataSize = 0;
  EXPECT_TRUE(CheckSceneForConversion(scene, false).assertionAhead);
}

TEST(SceneValidation, AnimatedNodesAreCheckedForTheirBaking) {
  PODSceneBuilder b;
  const int mesh = AddTriangle(b);
  b.SetStream(mesh, PODStream::BoneIdx, EPODDataUByte4, 1, "\0\0\0\0\0\0\0\0\0\0\0\0", 12);
  b.SetFloatStream(mesh, PODStream::BoneWeight, 1, {1, 1, 1});
  b.SetBoneBatches(mesh, 1, {{1}}, {0});
  b.AddMeshNode("Skin", mesh);  // no channel keys: the bind pose cannot be read
  b.AddNode("Bone");
  b.SetNumFrames(2);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  ExpectProblem(CheckSceneForConversion(scene, false), {0, "skinned mesh node has no pfAnimScale key"});
}

TEST(SceneValidation, EditsCheckWhatTheReductionAndTheSaveRead) {
  PODSceneBuilder b;
  BuildGood(b);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));

  // The reduction's own assertion comes before the save.
  scene.pNode[0].nIdx = -1;
  EXPECT_TRUE(CheckSceneForEdits(scene, true).assertionAhead);
  EXPECT_FALSE(CheckSceneForEdits(scene, false).assertionAhead);
  scene.pNode[0].nIdx = 0;

  // A stream the writer would copy beyond its array.
  scene.pMesh[0].sNormals.nDataSize = 35;
  ExpectProblem(CheckSceneForEdits(scene, false),
                {-1, "mesh 0: a vertex stream is shorter than its 3 vertices"});
  scene.pMesh[0].sNormals.nDataSize = 36;

  // An animated channel must hold a key per frame.
  scene.nNumFrame = 4;
  scene.pNode[0].nAnimFlags = ePODHasPositionAni;
  ExpectProblem(CheckSceneForEdits(scene, false),
                {0, "position animation holds fewer than 4 keys"});
}

TEST(SceneValidation, MessageNamesFileNodeAndProblem) {
  PODSceneBuilder b;
  BuildGood(b);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  SceneCheck check;
  check.node = 1;
  check.problem = "broken";
  EXPECT_EQ(DescribeSceneCheck(scene, check, "d/x.pod"), "Korvex: d/x.pod: node 1 \"Lamp\": broken");
  check.node = -1;
  EXPECT_EQ(DescribeSceneCheck(scene, check, "d/x.pod"), "Korvex: d/x.pod: broken");
  check.node = 7;  // beyond the nodes: no name to show
  EXPECT_EQ(DescribeSceneCheck(scene, check, "d/x.pod"), "Korvex: d/x.pod: node 7: broken");
}

}  // namespace

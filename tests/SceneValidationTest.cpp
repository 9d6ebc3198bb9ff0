// The up-front checks: what the conversion would read outside an array is named with its node;
// an assertion further along the pipeline is left to end the run, and the checks stop there.

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "convert/SceneValidation.h"
#include "support/TriangleMesh.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

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
      {"camera target source", [](CPODScene& s) {
         std::free(s.pNode[0].pfAnimPosition);
         s.pNode[0].pfAnimPosition = nullptr;
         s.pNode[0].nAnimPositionSize = 0;
       },
       {2, "target position is read from node 0, which has no position key"}},
      {"short faces", [](CPODScene& s) { s.pMesh[0].nNumFaces = 2; },
       {0, "face stream holds 6 bytes, 12 needed"}},
      {"parent cycle", [](CPODScene& s) { s.pNode[0].nIdxParent = 3; },
       {0, "parent chain loops back to this node"}},
      {"parent beyond the nodes", [](CPODScene& s) { s.pNode[2].nIdxParent = 9; },
       {2, "parent index 9 is out of range (4 nodes)"}},
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
    c.breakIt(scene);
    ExpectProblem(CheckSceneForConversion(scene, false), c.expect);
  }
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

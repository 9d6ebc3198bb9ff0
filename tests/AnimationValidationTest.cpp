#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "convert/AnimationValidation.h"
#include "pod/PODSceneBuilder.h"
#include "convert/SceneRules.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

// Node 0: skinned mesh with bones 2 and 3; node 1: a camera; 2 and 3 bones (3 below 2). With
// `ancestors`, that many nodes stand in a chain above the bones, which move down past them.
void BuildValid(PODSceneBuilder& b, uint32_t frames = 4, int ancestors = 0) {
  b.SetNumFrames(frames);
  const int mesh = b.AddMesh(2);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 1, 1});
  b.SetFloatStream(mesh, PODStream::BoneWeight, 1, {1, 1});
  const int skin = b.AddMeshNode("skin", mesh);
  b.SetAnimScale(skin, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  b.SetAnimRotation(skin, {0, 0, 0, 1}, false);
  b.SetAnimPosition(skin, {0, 0, 0}, false);
  b.AddCameraNode("camera", 0.7f, 1, 100);
  int parent = -1;
  for (int a = 0; a < ancestors; ++a) parent = b.AddNode("ancestor", parent);
  const int hip = b.AddNode("hip", parent);
  const int knee = b.AddNode("knee", hip);
  b.SetBoneBatches(mesh, 2, {{hip, knee}}, {0});
}

TEST(AnimationValidation, NamesWhatTheBakedConversionWouldReadOutsideItsArrays) {
  struct Case {
    const char* expected;  // part of the problem text; empty: the scene passes
    std::function<void(CPODScene&)> spoil;
    unsigned node = 0;
  };
  auto cnt = [](CPODScene& s) -> int32_t& { return s.pMesh[0].sBoneBatches.pnBatchBoneCnt[0]; };
  const Case cases[] = {
      {"", [](CPODScene&) {}},
      {"", [](CPODScene&) {}, 1},
      {"no pfAnimRotation key", [](CPODScene& s) { s.pNode[0].nAnimRotationSize = 12; }},
      {"above 255", [&](CPODScene& s) { cnt(s) = 256; }},
      // Without bones the mesh node's keys are never read; a negative count still copies its
      // low byte of batch entries, which the mesh must hold.
      {"", [&](CPODScene& s) { cnt(s) = 0, s.pNode[0].nAnimRotationSize = 0; }},
      {"takes 255 bones (count -1) but pnBatches holds 2", [&](CPODScene& s) { cnt(s) = -1; }},
      {"", [&](CPODScene& s) { cnt(s) = -256, s.pNode[0].nAnimScaleSize = 0; }},
      {"bone node index 4", [](CPODScene& s) { s.pMesh[0].sBoneBatches.pnBatches[1] = 4; }},
      {"sBoneWeight holds fewer", [](CPODScene& s) { s.pMesh[0].sBoneWeight.nDataSize = 4; }},
      {"parent chain of node 2 is cyclic", [](CPODScene& s) { s.pNode[2].nIdxParent = 3; }},
      {"node 3 has parent 9 outside", [](CPODScene& s) { s.pNode[3].nIdxParent = 9; }},
      {"camera node's nIdx", [](CPODScene& s) { s.pNode[1].nIdx = 1; }, 1},
      {"",  // a keyword mesh is not baked, so its missing key does not matter
       [](CPODScene& s) {
         s.pNode[0].nAnimRotationSize = 0;
         std::free(s.pNode[0].pszName);
         s.pNode[0].pszName = static_cast<char*>(std::calloc(8, 1));
         std::memcpy(s.pNode[0].pszName, "MARKER1", 7);
       }},
      {"node index is outside", [](CPODScene&) {}, 4},
  };
  for (const Case& c : cases) {
    PODSceneBuilder b;
    BuildValid(b);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    c.spoil(scene);
    const std::string problem = CheckAnimatedNode(scene, korvex::SceneRules(scene), c.node);
    if (c.expected[0] == '\0') {
      EXPECT_EQ(problem, "") << "case for node " << c.node;
    } else {
      EXPECT_NE(problem.find(c.expected), std::string::npos) << problem << " / " << c.expected;
    }
  }
}

// The budget adds up every baked node (here the skinned mesh, node 0, then the camera, node 1):
// per frame 2 bone matrices and two volumes (196 bytes) and a camera matrix (64), and the node
// evaluations of the bones' chains and the camera's. The node that passes a cap is named.
TEST(AnimationValidation, TheBudgetRefusesTheNodeThatTakesTheBakedTablesOrTheirWorkPastItsCap) {
  struct Case {
    uint32_t frames;
    int ancestors;
    unsigned node;        // the node refused; 9: none
    const char* problem;  // part of its problem text
  };
  const Case cases[] = {
      // Long animations convert: frame counts have no limit of their own.
      {65537, 0, 9, ""},
      // 16,500,000 frames: 3,234,000,000 bytes for the mesh, then 1,056,000,000 for the camera
      // stay within 2^32 - 1; 16,600,000 do not, only once the camera is added.
      {16500000, 0, 9, ""},
      {16600000, 0, 1, "takes 4316000000 bytes of tables, more than the 4294967295 allowed"},
      // Some 2^20 x 1100 evaluations for the bones' chains pass 2^30 at the mesh; 900 ancestors
      // stay below it, camera included.
      {1u << 20, 1100, 0, "node evaluations, more than the 1073741824 allowed"},
      {1u << 20, 900, 9, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.frames) + " frames, " + std::to_string(c.ancestors) +
                 " ancestors");
    PODSceneBuilder b;
    BuildValid(b, c.frames, c.ancestors);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    const korvex::SceneRules rules(scene);
    AnimationBudget budget;
    unsigned refused = 9;
    std::string problem;
    for (unsigned i = 0; i < scene.nNumNode && refused == 9; ++i) {
      ASSERT_EQ(CheckAnimatedNode(scene, rules, i), "");
      problem = budget.Add(scene, rules, i);
      if (!problem.empty()) refused = i;
    }
    EXPECT_EQ(refused, c.node) << problem;
    EXPECT_NE(problem.find(c.problem), std::string::npos) << problem;
  }
}

}  // namespace

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
      {"frame count 65537", [](CPODScene& s) { s.nNumFrame = 65537; }},
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

TEST(AnimationValidation, BoneChainsTooDeepForTheFrameCountAreRefused) {
  struct Case {
    uint32_t frames;
    int ancestors;
    const char* expected;
  };
  // 600 ancestors put the bones about 600 deep: some 600 evaluations a frame, since the two
  // bones share them. 300 ancestors need half as many, within the limit, although each bone
  // alone has a chain of over 300.
  const Case cases[] = {
      {65536, 600, "bone hierarchy too deep for the frame count"},
      {65536, 300, ""},
      {4, 600, ""},
      {65536, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.frames) + " frames, " + std::to_string(c.ancestors) +
                 " ancestors");
    PODSceneBuilder b;
    BuildValid(b, c.frames, c.ancestors);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    EXPECT_EQ(CheckAnimatedNode(scene, korvex::SceneRules(scene), 0), c.expected);
  }
}

}  // namespace

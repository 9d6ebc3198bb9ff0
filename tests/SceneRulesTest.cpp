// The scene rules: what each node becomes, light maps, header counts and parent chains, checked
// against values worked out by hand (and, for the header count, against the converter itself).

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "qsn/QelSceneGraphModel.h"
#include "convert/SceneGraphConverter.h"
#include "convert/SceneRules.h"
#include "support/TriangleMesh.h"

namespace {

using korvex::NodeKind;
using korvex::PODSceneBuilder;
using korvex::SceneRules;

TEST(SceneRules, MeshKindIsTheKeywordAtTheStartOfTheNameElseFramesAndBoneBatchesDecide) {
  struct Case {
    const char* name;
    NodeKind kind;
    bool frames = false, skinned = false;
  };
  const Case cases[] = {
      {"BILLBOARD", NodeKind::kBillboard},
      {"BILLBOARDtree", NodeKind::kBillboard},
      {"billboard", NodeKind::kMesh},   // case matters
      {"BILLBOAR", NodeKind::kMesh},    // shorter than the keyword
      {"xBILLBOARD", NodeKind::kMesh},  // not at the start
      {"MARKERS", NodeKind::kMarker},
      {"Marker", NodeKind::kMesh},
      {"SKYBOX_day", NodeKind::kSkyBox},
      {"COLLISIONBOXES", NodeKind::kCollisionBox},
      {"PITBOX_A", NodeKind::kCollisionBox},
      {"F1COLLISIONBOX", NodeKind::kCollisionBox},
      {"F1COLLISIONSPHERE", NodeKind::kMesh},
      {"COLLISIONSPHERE2", NodeKind::kCollisionSphere},
      {"COLLISION", NodeKind::kMesh},
      {"LIGHTMAP001", NodeKind::kLightMapDefinition},  // exactly 11 characters
      {"LIGHTMAP001wall", NodeKind::kLightMappedMesh},
      {"LIGHTMAP01", NodeKind::kLightMappedMesh},
      {"LIGHTMAP0011", NodeKind::kLightMappedMesh},
      {"LIGHTMAP", NodeKind::kLightMappedMesh},
      {"MARKERBILLBOARD", NodeKind::kMarker},  // the keyword at the start decides
      {"BILLBOARDMARKER", NodeKind::kBillboard},
      {"SKYBOXLIGHTMAP001", NodeKind::kSkyBox},
      {"", NodeKind::kMesh},
      {nullptr, NodeKind::kMesh},
      // Without keyword a mesh of a scene with frames is baked, skeletal with bone batches.
      {"Body", NodeKind::kMesh, false, true},
      {"Body", NodeKind::kAnimationMesh, true, false},
      {"Body", NodeKind::kSkeletalMesh, true, true},
      {"MARKER1", NodeKind::kMarker, true, true},  // keyword meshes are never baked
      {"LIGHTMAP001x", NodeKind::kLightMappedMesh, true, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name ? c.name : "(null)") + (c.frames ? " frames" : "") +
                 (c.skinned ? " skinned" : ""));
    EXPECT_EQ(korvex::MeshNodeKind(c.name, c.frames, c.skinned), c.kind);
  }
}

// Mesh nodes "Body" (skinned mesh), "Prop", "MARKER1", then a light, a camera and a bone.
void BuildRanges(PODSceneBuilder& b, uint32_t frames) {
  b.SetNumFrames(frames);
  const int skinned = AddTriangle(b);
  const int plain = AddTriangle(b);
  b.AddMeshNode("Body", skinned);
  b.AddMeshNode("Prop", plain);
  b.AddMeshNode("MARKER1", plain);
  b.AddLightNode("Lamp", 1, 1, 1);
  b.AddCameraNode("Cam", 1, 1, 10);
  const int bone = b.AddNode("Bone");
  b.SetBoneBatches(skinned, 1, {{bone}}, {0});
}

TEST(SceneRules, NodeKindsFollowTheRangeOfTheNodeArray) {
  struct Case {
    uint32_t frames;
    std::vector<NodeKind> kinds;
    std::vector<bool> baked;
  };
  const Case cases[] = {
      {0,
       {NodeKind::kMesh, NodeKind::kMesh, NodeKind::kMarker, NodeKind::kLight, NodeKind::kCamera,
        NodeKind::kNotConverted},
       {false, false, false, false, false, false}},
      {4,
       {NodeKind::kSkeletalMesh, NodeKind::kAnimationMesh, NodeKind::kMarker, NodeKind::kLight,
        NodeKind::kAnimationCamera, NodeKind::kNotConverted},
       {true, true, false, false, true, false}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("frames " + std::to_string(c.frames));
    PODSceneBuilder b;
    BuildRanges(b, c.frames);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    const SceneRules rules(scene);
    ASSERT_EQ(rules.nodeCount(), c.kinds.size());
    for (uint32_t i = 0; i < rules.nodeCount(); ++i) {
      EXPECT_EQ(rules.kind(i), c.kinds[i]) << i;
      EXPECT_EQ(rules.baked(i), c.baked[i]) << i;
    }
  }
}

TEST(SceneRules, UncheckedScenesAreReadWithoutGoingOutsideTheirArrays) {
  PODSceneBuilder b;
  BuildRanges(b, 4);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  scene.pNode[0].nIdx = 9;  // no such mesh: no bone batches to read
  std::free(scene.pNode[1].pszName);
  scene.pNode[1].pszName = nullptr;
  scene.nNumLight = 3;  // lights declared beyond the node array
  const SceneRules rules(scene);
  scene.nNumLight = 1;  // as many as Destroy may free
  EXPECT_EQ(rules.nodeCount(), 6u);
  EXPECT_EQ(rules.kind(0), NodeKind::kAnimationMesh);
  EXPECT_EQ(rules.kind(1), NodeKind::kAnimationMesh);
  EXPECT_EQ(rules.kind(4), NodeKind::kLight);
  EXPECT_EQ(rules.kind(5), NodeKind::kLight);
}

// Mesh nodes named `names`, node k using material `materials[k]`; `materialCount` materials.
void BuildMeshNodes(PODSceneBuilder& b, const std::vector<const char*>& names,
                    const std::vector<int32_t>& materials, int materialCount) {
  for (int m = 0; m < materialCount; ++m) b.AddMaterial(("M" + std::to_string(m)).c_str());
  const int mesh = AddTriangle(b);
  for (size_t k = 0; k < names.size(); ++k) b.AddMeshNode(names[k], mesh, materials[k]);
}

TEST(SceneRules, LightMappedMeshesLinkToTheLastDefinitionOfTheirFirstElevenCharacters) {
  PODSceneBuilder b;
  BuildMeshNodes(b,
                 {"LIGHTMAP001wall", "LIGHTMAP001", "LIGHTMAP002", "LIGHTMAP002", "LIGHTMAP002floor",
                  "LIGHTMAP003x", "LIGHTMAP"},
                 {0, 0, 1, 2, 0, 0, 0}, 3);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  const SceneRules rules(scene);
  EXPECT_EQ(rules.lightMapDefinitions(), (std::vector<uint32_t>{1, 2, 3}));
  EXPECT_EQ(rules.lightMappedMeshes(), (std::vector<uint32_t>{0, 4, 5, 6}));
  struct Case {
    uint32_t node;
    int64_t lightMap, earlier;
  };
  const Case cases[] = {
      {0, 1, -1},   // defined after the mesh that uses it
      {1, -1, -1},  // first definition of its name
      {3, -1, 2},   // redefines LIGHTMAP002
      {4, 3, -1},   // the later definition wins
      {5, -1, -1},  // LIGHTMAP003 is defined nowhere
      {6, -1, -1},  // "LIGHTMAP" names itself, which no definition can be
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(scene.pNode[c.node].pszName);
    EXPECT_EQ(rules.lightMapOf(c.node), c.lightMap);
    EXPECT_EQ(rules.earlierDefinition(c.node), c.earlier);
  }
  EXPECT_FALSE(rules.lightMapsLinked());

  EXPECT_EQ(korvex::LightMapName("LIGHTMAP001wall"), "LIGHTMAP001");
  EXPECT_EQ(korvex::LightMapName("LIGHTMAP"), "LIGHTMAP");
  EXPECT_EQ(korvex::LightMapName(nullptr), "");
}

TEST(SceneRules, HeaderCountsAnnouncedAndMadeDifferWhereAMaterialIsNotConverted) {
  struct Case {
    const char* what;
    std::vector<const char*> names;
    std::vector<int32_t> materials;
    int materialCount;
    bool lightAndCamera;
    uint32_t announced;
    uint64_t made;
  };
  const Case cases[] = {
      {"one mesh, one material", {"Box"}, {0}, 1, false, 2, 2},
      {"meshes share a material, with a light and a camera", {"A", "B"}, {0, 0}, 1, true, 5, 5},
      {"mesh without material", {"Box"}, {-1}, 0, false, 1, 1},
      {"material used by a marker only", {"MARKER1"}, {0}, 1, false, 2, 1},
      {"material nobody uses", {"Box"}, {0}, 2, false, 3, 2},
      {"light map linked", {"LIGHTMAP001", "LIGHTMAP001a"}, {0, 1}, 2, false, 3, 3},
      {"two definitions of one name",
       {"LIGHTMAP001", "LIGHTMAP001", "LIGHTMAP001a"}, {0, 1, 0}, 2, false, 4, 3},
      {"no converted node", {}, {}, 1, false, 1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PODSceneBuilder b;
    BuildMeshNodes(b, c.names, c.materials, c.materialCount);
    if (c.lightAndCamera) {
      b.AddLightNode("Lamp", 1, 1, 1);
      b.AddCameraNode("Cam", 1, 1, 10);
    }
    b.AddNode("Helper");
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    const SceneRules rules(scene);
    EXPECT_EQ(rules.announcedHeaders(), c.announced);
    EXPECT_EQ(rules.headersMade(), c.made);
    if (c.announced != c.made || !rules.lightMapsLinked()) continue;
    // Where the counts agree the converter gets through, and makes that many headers.
    QelSceneGraphModel model;
    SceneGraphConverter converter(&model);
    converter.convertFromPOD(&scene, "x.PODx");
    EXPECT_EQ(model.nodeheader.size(), c.made);
  }
}

// Nodes with the given parent indices (set after building, so that any index can be given).
void ExpectParents(const std::vector<int32_t>& parents, const std::vector<uint32_t>& depths,
                   int64_t outOfRange, SceneRules::BrokenChain broken) {
  PODSceneBuilder b;
  for (size_t i = 0; i < parents.size(); ++i) b.AddNode("n");
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  for (size_t i = 0; i < parents.size(); ++i) scene.pNode[i].nIdxParent = parents[i];
  const SceneRules rules(scene);
  for (uint32_t i = 0; i < depths.size(); ++i) EXPECT_EQ(rules.depth(i), depths[i]) << "node " << i;
  EXPECT_EQ(rules.parentOutOfRange(), outOfRange);
  EXPECT_EQ(rules.firstBrokenChain().node, broken.node);
  EXPECT_EQ(rules.firstBrokenChain().cyclic, broken.cyclic);
}

TEST(SceneRules, ParentChainsGiveDepthsAndTheFirstChainThatReachesNoRoot) {
  struct Case {
    const char* what;
    std::vector<int32_t> parents;
    std::vector<uint32_t> depths;
    int64_t outOfRange;
    SceneRules::BrokenChain broken;
  };
  const Case cases[] = {
      {"chain", {-1, 0, 1}, {1, 2, 3}, -1, {-1, false}},
      {"children before parents", {2, 2, -1}, {2, 2, 1}, -1, {-1, false}},
      {"any negative parent is none", {-5, 0}, {1, 2}, -1, {-1, false}},
      {"two-node loop", {1, 0, -1}, {0, 0, 1}, -1, {0, true}},
      {"loop entered from below", {-1, 2, 3, 1}, {1, 0, 0, 0}, -1, {1, true}},
      {"own parent", {-1, 0, 3, 3}, {1, 2, 0, 0}, -1, {3, true}},
      {"hanging below a loop", {1, 0, 0}, {0, 0, 0}, -1, {0, true}},
      {"parent beyond the array", {7, -1}, {0, 1}, 0, {0, false}},
      {"below a parent beyond the array", {-1, 5, 1}, {1, 0, 0}, 1, {1, false}},
      // The lowest bad parent and the first broken chain are different nodes here.
      {"loop first, bad parent later", {2, 9, 0}, {0, 0, 0}, 1, {0, true}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ExpectParents(c.parents, c.depths, c.outOfRange, c.broken);
  }
}

TEST(SceneRules, DeepChainsAreFollowedWithoutRecursion) {
  const uint32_t n = 200000;
  std::vector<int32_t> down(n), up(n);
  for (uint32_t i = 0; i < n; ++i) {
    down[i] = static_cast<int32_t>(i) - 1;  // node 0 is the root
    up[i] = i + 1 < n ? static_cast<int32_t>(i + 1) : -1;  // the last node is the root
  }
  {
    SCOPED_TRACE("root first");
    ExpectParents(down, {1, 2, 3}, -1, {-1, false});
  }
  {
    SCOPED_TRACE("root last");
    ExpectParents(up, {n, n - 1, n - 2}, -1, {-1, false});
  }
}

}  // namespace

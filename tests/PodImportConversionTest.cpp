// The parts of podimport below the command line: bone influences, and the conversion of a scene
// built in memory with the import library's own types.

#include <assimp/scene.h>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "import/BoneInfluences.h"
#include "import/PODSceneImporter.h"

namespace {

using namespace korvex::podimport;

TEST(PodImportInfluences, StrongestFourKeptAndScaledToOne) {
  const float nan = std::nanf("");
  // Bone 1 twice (0.4 + 0.1), bones 0 and 5 tie at 0.1: the lower number wins.
  bool dropped = false;
  const VertexInfluences in = LimitInfluences(
      {{0, .1f}, {1, .4f}, {2, .05f}, {3, .2f}, {4, .15f}, {5, .1f}, {1, .1f}, {6, -1}, {7, nan}},
      kMaxInfluences, &dropped);
  EXPECT_TRUE(dropped);
  ASSERT_EQ(in.count, 4);
  const uint32_t bones[4] = {1, 3, 4, 0};
  const float weights[4] = {.5f / .95f, .2f / .95f, .15f / .95f, .1f / .95f};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(in.item[i].bone, bones[i]);
    EXPECT_NEAR(in.item[i].weight, weights[i], 1e-6);
  }
  EXPECT_EQ(LimitInfluences({{0, 0}, {1, nan}}, kMaxInfluences).count, 0);
}

// --- a scene built with the library's own types ------------------------------------------------

aiMaterial* NamedMaterial(const char* name) {
  aiMaterial* material = new aiMaterial();
  const aiString text(name);
  material->AddProperty(&text, AI_MATKEY_NAME);
  return material;
}

aiNode* Child(aiNode* parent, const char* name) {
  aiNode* node = new aiNode(name);
  node->mParent = parent;
  aiNode** children = new aiNode*[parent->mNumChildren + 1];
  for (unsigned int c = 0; c < parent->mNumChildren; ++c) children[c] = parent->mChildren[c];
  children[parent->mNumChildren++] = node;
  delete[] parent->mChildren;
  parent->mChildren = children;
  return node;
}

void PlaceMesh(aiNode* node, unsigned int mesh) {
  node->mNumMeshes = 1;
  node->mMeshes = new unsigned int[1]{mesh};
}

// Root with bones B0..B5, a skinned "Body" and a "MARKER_spot" whose material nothing else uses.
// Body: triangle 0 has vertex 0 on all six bones (weights 1 to 6, bone i weight i + 1) and
// vertices 1 and 2 on B0; triangle 1 (vertices 3 to 5) follows B1.
std::unique_ptr<aiScene> SkinnedScene() {
  auto scene = std::make_unique<aiScene>();
  scene->mRootNode = new aiNode("Root");
  const char* boneNames[6] = {"B0", "B1", "B2", "B3", "B4", "B5"};
  for (const char* name : boneNames) Child(scene->mRootNode, name);
  PlaceMesh(Child(scene->mRootNode, "Body"), 0);
  PlaceMesh(Child(scene->mRootNode, "MARKER_spot"), 1);

  scene->mNumMeshes = 2;
  scene->mMeshes = new aiMesh*[2];
  for (unsigned int m = 0; m < 2; ++m) {
    aiMesh* mesh = scene->mMeshes[m] = new aiMesh();
    mesh->mPrimitiveTypes = aiPrimitiveType_TRIANGLE;
    mesh->mMaterialIndex = m;
    mesh->mNumVertices = 6;
    mesh->mVertices = new aiVector3D[6];
    for (unsigned int v = 0; v < 6; ++v) mesh->mVertices[v] = aiVector3D(float(v), float(v % 2), 0);
    mesh->mNumFaces = 2;
    mesh->mFaces = new aiFace[2];
    for (unsigned int f = 0; f < 2; ++f) {
      mesh->mFaces[f].mNumIndices = 3;
      mesh->mFaces[f].mIndices = new unsigned int[3]{3 * f, 3 * f + 1, 3 * f + 2};
    }
  }
  aiMesh* body = scene->mMeshes[0];
  body->mNumBones = 6;
  body->mBones = new aiBone*[6];
  for (unsigned int b = 0; b < 6; ++b) {
    aiBone* bone = body->mBones[b] = new aiBone();
    bone->mName = aiString(boneNames[b]);
    std::vector<aiVertexWeight> weights = {{0, float(b + 1)}};
    if (b == 0) weights.insert(weights.end(), {{1, 1}, {2, 1}});
    if (b == 1) weights.insert(weights.end(), {{3, 1}, {4, 1}, {5, 1}});
    bone->mNumWeights = static_cast<unsigned int>(weights.size());
    bone->mWeights = new aiVertexWeight[weights.size()];
    std::copy(weights.begin(), weights.end(), bone->mWeights);
  }
  scene->mNumMaterials = 2;
  scene->mMaterials = new aiMaterial* [2] { NamedMaterial("Skin"), NamedMaterial("OnlyMarker") };
  return scene;
}

TEST(PodImportScene, SkinBatchesMarkersAndNodeOrder) {
  const std::unique_ptr<aiScene> source = SkinnedScene();
  ImportOptions options;
  options.maxBones = 5;
  CPODScene pod;
  ImportSummary summary;
  std::string error;
  ASSERT_TRUE(PODSceneImporter(*source, options).Convert(pod, summary, error)) << error;

  // Mesh nodes first (Body, MARKER_spot), then the others in tree order: Root, B0..B5.
  ASSERT_EQ(pod.nNumMeshNode, 2u);
  ASSERT_EQ(pod.nNumNode, 9u);
  EXPECT_STREQ(pod.pNode[0].pszName, "Body");
  EXPECT_STREQ(pod.pNode[1].pszName, "MARKER_spot");
  EXPECT_STREQ(pod.pNode[2].pszName, "Root");
  EXPECT_STREQ(pod.pNode[3].pszName, "B0");
  EXPECT_EQ(pod.pNode[3].nIdxParent, 2);
  // The marker uses no material, so its only material is left out.
  EXPECT_EQ(pod.pNode[1].nIdxMaterial, -1);
  ASSERT_EQ(pod.nNumMaterial, 1u);
  EXPECT_STREQ(pod.pMaterial[0].pszName, "Skin");
  // No animation: a still scene, the skinned node a root with one key per channel.
  EXPECT_EQ(pod.nNumFrame, 0u);
  EXPECT_EQ(pod.pNode[0].nIdxParent, -1);
  EXPECT_EQ(pod.pNode[0].nAnimRotationSize, 16u);

  // Triangle 0 needs B5, B4, B3, B2 (vertex 0's strongest four) and B0; triangle 1 adds B1,
  // a sixth bone: a second batch, which the summary warns of.
  const SPODMesh& mesh = pod.pMesh[pod.pNode[0].nIdx];
  ASSERT_EQ(mesh.sBoneBatches.nBatchCnt, 2);
  ASSERT_EQ(mesh.sBoneBatches.nBatchBoneMax, 5);
  const int32_t* first = mesh.sBoneBatches.pnBatches;
  const char* expected[5] = {"B5", "B4", "B3", "B2", "B0"};
  for (int b = 0; b < 5; ++b) EXPECT_STREQ(pod.pNode[first[b]].pszName, expected[b]);
  EXPECT_EQ(mesh.sBoneBatches.pnBatchOffset[1], 1);
  bool warned = false;
  for (const std::string& note : summary.notes)
    warned = warned || note.find("needs 2 bone batches") != std::string::npos;
  EXPECT_TRUE(warned);
  // Vertex 0 keeps its four strongest bones, weights 6, 5, 4 and 3, divided by their sum 18.
  ASSERT_EQ(mesh.sBoneWeight.n, 4u);
  const float* w = reinterpret_cast<const float*>(mesh.sBoneWeight.pData);
  const uint8_t* slot = mesh.sBoneIdx.pData;
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(w[i], (6 - i) / 18.0f, 1e-6);
    EXPECT_EQ(slot[i], i);
  }
  EXPECT_EQ(summary.bones, 6u);
}

// A child of the root for each (name, mesh) pair; mesh 0 uses the scene's only material, mesh 1
// a material that does not exist.
std::unique_ptr<aiScene> NamedMeshNodes(const std::vector<std::pair<const char*, unsigned>>& nodes) {
  auto scene = std::make_unique<aiScene>();
  scene->mRootNode = new aiNode("Root");
  for (const auto& node : nodes) PlaceMesh(Child(scene->mRootNode, node.first), node.second);
  scene->mNumMeshes = 2;
  scene->mMeshes = new aiMesh*[2];
  for (unsigned int m = 0; m < 2; ++m) {
    aiMesh* mesh = scene->mMeshes[m] = new aiMesh();
    mesh->mPrimitiveTypes = aiPrimitiveType_TRIANGLE;
    mesh->mMaterialIndex = m == 0 ? 0 : 7;
    mesh->mNumVertices = 3;
    mesh->mVertices = new aiVector3D[3]{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    mesh->mNumFaces = 1;
    mesh->mFaces = new aiFace[1];
    mesh->mFaces[0].mNumIndices = 3;
    mesh->mFaces[0].mIndices = new unsigned int[3]{0, 1, 2};
  }
  scene->mNumMaterials = 1;
  scene->mMaterials = new aiMaterial* [1] { NamedMaterial("Glass") };
  return scene;
}

TEST(PodImportScene, LightMapsAreRefusedWhereKorvexWouldStop) {
  struct Case {
    std::vector<std::pair<const char*, unsigned>> nodes;
    const char* error;  // the start of the message; empty: the scene converts
  };
  const Case cases[] = {
      {{{"LIGHTMAP001", 0}, {"LIGHTMAP001wall", 0}}, ""},
      {{{"LIGHTMAP001wall", 0}, {"LIGHTMAP001", 0}}, ""},  // defined after its use
      {{{"LIGHTMAP001", 0}, {"LIGHTMAP001", 0}}, "two mesh nodes define light map \"LIGHTMAP001\""},
      {{{"LIGHTMAP001", 0}, {"LIGHTMAP002floor", 0}},
       "mesh node \"LIGHTMAP002floor\" uses light map \"LIGHTMAP002\", which no mesh node defines"},
      {{{"LIGHTMAP003", 1}}, "mesh node \"LIGHTMAP003\" defines a light map but has no material"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.nodes.back().first);
    const std::unique_ptr<aiScene> source = NamedMeshNodes(c.nodes);
    CPODScene pod;
    ImportSummary summary;
    std::string error;
    const bool converted = PODSceneImporter(*source, ImportOptions()).Convert(pod, summary, error);
    EXPECT_EQ(converted, c.error[0] == '\0') << error;
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
  }
}

}  // namespace

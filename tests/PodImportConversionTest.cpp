// The parts of podimport below the command line: bone influences, the cutting of meshes into
// pieces and bone batches, the transform conventions, animation sampling, and the conversion
// of a scene built in memory with the import library's own types.

#include <assimp/scene.h>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "AnimationSampling.h"
#include "BoneInfluences.h"
#include "MeshPartition.h"
#include "PODConventions.h"
#include "PODSceneImporter.h"

namespace {

using namespace korvex_import;

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

// The source triangles a partition stands for, piece after piece.
std::vector<uint32_t> SourceTriangles(const PartitionResult& result) {
  std::vector<uint32_t> triangles;
  for (const MeshPiece& piece : result.pieces)
    for (uint16_t index : piece.indices) triangles.push_back(piece.sourceVertex.at(index));
  return triangles;
}

TEST(PodImportPartition, BatchesHoldAtMostMaxBones) {
  // Vertex v follows bone v alone.
  std::vector<VertexInfluences> influences(6);
  for (uint32_t v = 0; v < 6; ++v) influences[v] = LimitInfluences({{v, 1}}, kMaxInfluences);
  const std::vector<uint32_t> triangles = {0, 1, 2, 3, 4, 5, 0, 1, 3};
  PartitionLimits limits;
  limits.maxBones = 3;
  const PartitionResult result = PartitionMesh(triangles, 6, &influences, 6, limits);
  ASSERT_EQ(result.pieces.size(), 1u);
  const MeshPiece& piece = result.pieces[0];
  // Each triangle brings three bones: one batch each, vertices stored once per batch.
  ASSERT_EQ(piece.batches.size(), 3u);
  EXPECT_EQ(piece.sourceVertex.size(), 9u);
  for (uint32_t b = 0; b < 3; ++b) EXPECT_EQ(piece.batches[b].firstTriangle, b);
  EXPECT_EQ(SourceTriangles(result), triangles);
  for (size_t corner = 0; corner < piece.indices.size(); ++corner) {
    const uint16_t v = piece.indices[corner];
    const BoneBatch& batch = piece.batches[corner / 3];
    ASSERT_EQ(piece.influences[v].count, 1);
    EXPECT_EQ(batch.bones.at(piece.influences[v].item[0].bone), piece.sourceVertex[v]);
  }
  EXPECT_EQ(result.prunedTriangles, 0u);

  // A triangle that alone needs three bones, with room for two: the strongest of its first
  // two vertices stay, the third vertex is left without a bone.
  limits.maxBones = 2;
  const PartitionResult pruned = PartitionMesh({0, 1, 2}, 6, &influences, 6, limits);
  EXPECT_EQ(pruned.prunedTriangles, 1u);
  ASSERT_EQ(pruned.pieces.size(), 1u);
  EXPECT_EQ(pruned.pieces[0].batches[0].bones, (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(pruned.pieces[0].influences[2].count, 0);
}

TEST(PodImportConventions, PODKeysRebuildTheSourceMatrix) {
  // 90 degrees about z, scale (2, 3, 4), at (1, 2, 3): as columns, T * R * S is
  // [0 -3 0 1; 2 0 0 2; 0 0 4 3].
  LocalTransform t;
  t.rotation = aiQuaternion(std::sqrt(0.5f), 0, 0, std::sqrt(0.5f));
  t.scale = aiVector3D(2, 3, 4);
  t.position = aiVector3D(1, 2, 3);
  const aiMatrix4x4 m = ComposeTransform(t);
  const float expected[3][4] = {{0, -3, 0, 1}, {2, 0, 0, 2}, {0, 0, 4, 3}};
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(m[r][c], expected[r][c], 1e-6) << r << c;

  // POD's world matrix S * R * T of the keys is the transpose of the source's matrix: the
  // rotation key must be the conjugate, the quaternion itself turns the other way.
  const aiQuaternion q = aiQuaternion(aiVector3D(1, 2, 2).Normalize(), 0.7f);
  t.rotation = q;
  const PODMATRIXf source = PODMatrixFromSource(ComposeTransform(t));
  auto world = [&t](const PODQUATERNIONf& key) {
    PODMATRIXf s, r, p, out;
    PODMatrixScalingF(s, t.scale.x, t.scale.y, t.scale.z);
    PODMatrixRotationQuaternionF(r, key);
    PODMatrixTranslationF(p, t.position.x, t.position.y, t.position.z);
    PODMatrixMultiplyF(out, s, r);
    PODMatrixMultiplyF(out, out, p);
    return out;
  };
  const PODMATRIXf conjugate = world(PODRotationKey(q));
  const PODMATRIXf same = world(PODQUATERNIONf{q.x, q.y, q.z, q.w});
  float worst = 0, worstSame = 0;
  for (int i = 0; i < 16; ++i) {
    worst = std::max(worst, std::fabs(conjugate.f[i] - source.f[i]));
    worstSame = std::max(worstSame, std::fabs(same.f[i] - source.f[i]));
  }
  EXPECT_LT(worst, 1e-5f);
  EXPECT_GT(worstSame, 0.1f);
}

TEST(PodImportSampling, KeysInterpolatedAndHeldOutsideTheirSpan) {
  aiNodeAnim channel;
  channel.mNumPositionKeys = 2;
  channel.mPositionKeys = new aiVectorKey[2]{{10, aiVector3D(0, 0, 0)}, {20, aiVector3D(4, 2, 0)}};
  LocalTransform rest;
  rest.scale = aiVector3D(5, 5, 5);
  EXPECT_FLOAT_EQ(SampleChannel(channel, 12.5, rest).position.y, 0.5f);
  EXPECT_FLOAT_EQ(SampleChannel(channel, 0, rest).position.x, 0);
  EXPECT_FLOAT_EQ(SampleChannel(channel, 99, rest).position.x, 4);
  EXPECT_FLOAT_EQ(SampleChannel(channel, 15, rest).scale.z, 5);  // no scale keys: the rest's

  aiAnimation animation;
  animation.mDuration = 1000;
  animation.mTicksPerSecond = 0;  // taken as 25 ticks a second: 40 seconds, 401 frames at 10
  EXPECT_EQ(WholeAnimationFrames(animation, 10), 401u);
  animation.mDuration = std::nan("");
  EXPECT_EQ(WholeAnimationFrames(animation, 10), 1u);
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

}  // namespace

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "PODSceneBuilder.h"
#include "SkeletonNodeConverter.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

const float kHalfSqrt2 = 0.70710678f;

// A skinned mesh node 0 with identity bind keys, then `extra` plain nodes, then the bones:
// node hip (root) and node knee (child of hip).
struct SkinScene {
  PODSceneBuilder b;
  int mesh, skin, hip, knee;
  explicit SkinScene(uint32_t frames) {
    b.SetNumFrames(frames);
    mesh = b.AddMesh(2);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0});
    const uint8_t idx[] = {0, 1, 2, 3, 4, 5, 6, 7};
    b.SetStream(mesh, PODStream::BoneIdx, EPODDataUByte4, 1, idx, sizeof idx);
    b.SetFloatStream(mesh, PODStream::BoneWeight, 2, {0.5f, 0.5f, 1.0f, 0.0f});
    skin = b.AddMeshNode("skin", mesh);
    b.SetAnimScale(skin, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
    b.SetAnimRotation(skin, {0, 0, 0, 1}, false);
    b.SetAnimPosition(skin, {0, 0, 0}, false);
    hip = b.AddNode("hip");
    knee = b.AddNode("knee", hip);
  }
};

// Record with the static volumes the mesh conversion would have left.
struct Record {
  SSGQelSkeletalMeshNodeData* r =
      static_cast<SSGQelSkeletalMeshNodeData*>(std::calloc(1, sizeof(SSGQelSkeletalMeshNodeData)));
  Record() {
    const float sphere[3] = {1, 0, 0}, box[3] = {0, 2, 0};
    std::memcpy(r->sphereCenter, sphere, sizeof sphere);
    std::memcpy(r->boxCenter, box, sizeof box);
    r->sphereRadius = 7;
  }
  ~Record() {
    for (SSGNodeData* d :
         {&r->Batch, &r->BatchBoneCnt, &r->BatchOffset, &r->BoneIdx_ptr, &r->BoneWeight_ptr,
          &r->sBoneIndexbuffer, &r->sBoneWorldMatrixbuffer, &r->sSpherebuffer, &r->sAABBbuffer})
      std::free(d->data);
    std::free(r);
  }
  std::vector<float> floats(const SSGNodeData& d, size_t first, size_t count) const {
    std::vector<float> v(count);
    std::memcpy(v.data(), d.data + 4 * first, 4 * count);
    return v;
  }
  // Matrix of table slot s at frame f, F frames.
  std::vector<float> matrix(int s, int f, int frames) const {
    return floats(r->sBoneWorldMatrixbuffer, 16 * (size_t(frames) * s + f), 16);
  }
  int32_t slot(int s) const {
    int32_t v;
    std::memcpy(&v, r->sBoneIndexbuffer.data + 4 * s, 4);
    return v;
  }
};

// Carries point p by a stored matrix as a row vector with w = 1.
std::vector<float> Carry(const std::vector<float>& m, float x, float y, float z) {
  return {x * m[0] + y * m[4] + z * m[8] + m[12], x * m[1] + y * m[5] + z * m[9] + m[13],
          x * m[2] + y * m[6] + z * m[10] + m[14]};
}

void ExpectPoint(const std::vector<float>& p, float x, float y, float z) {
  EXPECT_NEAR(p[0], x, 1e-5f);
  EXPECT_NEAR(p[1], y, 1e-5f);
  EXPECT_NEAR(p[2], z, 1e-5f);
}

TEST(SkeletonNodeConverter, BoneMatricesAtFrameZeroAreIdentityWhenFirstKeysMatchTheStaticPose) {
  SkinScene s(3);
  // A rotated, scaled, moved hip whose first keys equal its static values; the knee below it.
  const float q[4] = {0.2f, 0.3f, 0.1f, 0.92736185f};
  s.b.SetRotation(s.hip, q[0], q[1], q[2], q[3]);
  s.b.SetPosition(s.hip, 1, 2, 3);
  s.b.SetScale(s.hip, 2, 2, 2);
  s.b.SetAnimRotation(s.hip, {q[0], q[1], q[2], q[3], 0, 0, 0, 1, 0, 0, 0, 1});
  s.b.SetAnimPosition(s.hip, {1, 2, 3, 5, 5, 5, 6, 6, 6});
  s.b.SetAnimScale(s.hip, PODSceneBuilder::ScaleKeys({2, 2, 2, 1, 1, 1, 1, 1, 1}));
  s.b.SetPosition(s.knee, 0, 4, 0);
  s.b.SetBoneBatches(s.mesh, 2, {{s.hip, s.knee}}, {0});
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  Record rec;
  SkeletonNodeConverter conv;
  conv.convertSkeletonNode(&scene, s.skin, rec.r);

  for (int slot = 0; slot < 2; ++slot) {
    const std::vector<float> m = rec.matrix(slot, 0, 3);
    for (int e = 0; e < 16; ++e) EXPECT_NEAR(m[e], e % 5 == 0 ? 1.0f : 0.0f, 1e-5f) << e;
  }
}

TEST(SkeletonNodeConverter, BoneMatricesCarryTheBindPoseIntoEachFrame) {
  SkinScene s(3);
  // Hip: moves and turns 90 degrees about z at frame 1; the knee's position keys are not
  // flagged but are interpolated all the same by this converter.
  s.b.SetAnimPosition(s.hip, {1, 2, 3, 4, 2, 3, 4, 5, 3});
  s.b.SetAnimRotation(s.hip,
                      {0, 0, 0, 1, 0, 0, kHalfSqrt2, kHalfSqrt2, 0, 0, kHalfSqrt2, kHalfSqrt2});
  s.b.SetAnimPosition(s.knee, {0, 1, 0, 0, 3, 0, 0, 5, 0}, false);
  s.b.SetBoneBatches(s.mesh, 2, {{s.hip, s.knee}}, {0});
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  Record rec;
  SkeletonNodeConverter conv;
  conv.convertSkeletonNode(&scene, s.skin, rec.r);

  // Rotation (0, 0, s, s) maps x to (0, -1, 0) and y to (1, 0, 0) (rows of its matrix).
  // Hip at frame 2 (the last, whose key n+1 does not exist): its bind origin (1,2,3) goes to
  // (4,5,3), and the point one unit along x from it to (4,5,3) + (0,-1,0).
  const std::vector<float> hip2 = rec.matrix(0, 2, 3);
  ExpectPoint(Carry(hip2, 1, 2, 3), 4, 5, 3);
  ExpectPoint(Carry(hip2, 2, 2, 3), 4, 4, 3);
  // Knee origin: frame 0 at (0,1,0) + (1,2,3); frame 1 at (0,3,0) turned = (3,0,0), + (4,2,3).
  ExpectPoint(Carry(rec.matrix(1, 1, 3), 1, 3, 3), 7, 2, 3);

  // The scene's frame state is left at the last frame; the record copied it at frame 0.
  EXPECT_EQ(scene.m_pImpl->fCurrentFrame, 2.0f);
  EXPECT_EQ(scene.m_pImpl->nFrameIndex, 2);
  EXPECT_EQ(scene.m_pImpl->fFrameBlend, 0.0f);
  EXPECT_EQ(rec.r->evalFrame, 0.0f);
  EXPECT_EQ(rec.r->evalFrameIndex, 0);
  EXPECT_EQ(rec.r->numAnimation, 3u);
}

TEST(SkeletonNodeConverter, OnlyAParentAboveNodeZeroEntersTheBindPose) {
  // Node 0: a plain mesh node moved by (5,0,0); node 1 the skinned mesh. Parented to node 0 the
  // skin keeps no parent transform; parented to the bone's sibling node 3 (moved the same) it
  // does, and its bone matrix at frame 0 is that translation.
  for (int parent : {0, 3}) {
    PODSceneBuilder b;
    b.SetNumFrames(1);
    const int mesh = b.AddMesh(1);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0});
    const int plain = b.AddMeshNode("plain", mesh);
    b.SetPosition(plain, 5, 0, 0);
    const int skin = b.AddMeshNode("skin", mesh);
    b.SetAnimScale(skin, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
    b.SetAnimRotation(skin, {0, 0, 0, 1}, false);
    b.SetAnimPosition(skin, {0, 0, 0}, false);
    const int bone = b.AddNode("bone");
    const int other = b.AddNode("other");
    b.SetPosition(other, 5, 0, 0);
    b.SetParent(skin, parent == 0 ? plain : other);
    b.SetBoneBatches(mesh, 1, {{bone}}, {0});
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    Record rec;
    SkeletonNodeConverter conv;
    conv.convertSkeletonNode(&scene, skin, rec.r);
    EXPECT_EQ(rec.matrix(0, 0, 1)[12], parent == 0 ? 0.0f : 5.0f) << parent;
  }
}

TEST(SkeletonNodeConverter, ABoneNamedTwiceIsRegisteredOnceAndCountsTwiceInTheVolumes) {
  SkinScene s(2);
  s.b.SetAnimPosition(s.hip, {1, 2, 3, 4, 2, 3});
  s.b.SetAnimPosition(s.knee, {0, 1, 0, 0, 1, 6});
  s.b.SetBoneBatches(s.mesh, 3, {{s.hip, s.hip, s.knee}}, {0});
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  Record rec;
  SkeletonNodeConverter conv;
  conv.convertSkeletonNode(&scene, s.skin, rec.r);

  EXPECT_EQ(rec.r->sBoneIndexbuffer.length, 12u);
  EXPECT_EQ(rec.slot(0), s.hip);
  EXPECT_EQ(rec.slot(1), s.knee);
  EXPECT_EQ(rec.slot(2), -1);
  EXPECT_EQ(rec.r->sBoneWorldMatrixbuffer.length, 2u * 3 * 64);
  for (int f = 0; f < 2; ++f)
    for (float e : rec.matrix(2, f, 2)) EXPECT_EQ(e, 0.0f);

  // Frame 1: the hip moved by (3,0,0), the knee by (3,0,6); mean over hip, hip, knee = (3,0,2).
  // Sphere centre (1,0,0) and box centre (0,2,0) move by it; the box collapses onto its centre.
  ASSERT_EQ(rec.r->sSpherebuffer.length, 2u * 24);
  ASSERT_EQ(rec.r->sAABBbuffer.length, 2u * 44);
  const std::vector<float> sphere = rec.floats(rec.r->sSpherebuffer, 6, 6);
  ExpectPoint({sphere[1], sphere[2], sphere[3]}, 4, 0, 2);
  EXPECT_EQ(sphere[4], 7.0f);
  const std::vector<float> box = rec.floats(rec.r->sAABBbuffer, 11, 11);
  ExpectPoint({box[7], box[8], box[9]}, 3, 2, 2);
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(box[1 + c], box[7 + c]);  // min == centre
    EXPECT_EQ(box[4 + c], box[7 + c]);  // max == centre
  }
  for (const std::vector<float>& element : {sphere, box}) {
    uint32_t first, last;
    std::memcpy(&first, &element.front(), 4);
    std::memcpy(&last, &element.back(), 4);
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(last, 0u);
  }
}

TEST(SkeletonNodeConverter, CopiesTheFirstBatchAndTheBoneStreams) {
  SkinScene s(2);
  s.b.SetBoneBatches(s.mesh, 2, {{s.knee, s.hip}, {s.hip}}, {0, 7});
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  Record rec;
  SkeletonNodeConverter conv;
  conv.convertSkeletonNode(&scene, s.skin, rec.r);

  EXPECT_EQ(rec.r->boneBatchA, 2u);
  EXPECT_EQ(rec.r->boneBatchB, 2u);
  const int32_t expectedBatch[] = {s.knee, s.hip}, expectedCount = 2;
  ASSERT_EQ(rec.r->Batch.length, 8u);
  EXPECT_EQ(std::memcmp(rec.r->Batch.data, expectedBatch, 8), 0);
  ASSERT_EQ(rec.r->BatchBoneCnt.length, 4u);
  EXPECT_EQ(std::memcmp(rec.r->BatchBoneCnt.data, &expectedCount, 4), 0);
  EXPECT_EQ(rec.r->BatchOffset.length, 0u);
  EXPECT_EQ(rec.r->Batch.type, 1u);
  EXPECT_EQ(rec.r->sBoneWorldMatrixbuffer.type, 6u);
  EXPECT_EQ(rec.r->sSpherebuffer.type, 7u);
  EXPECT_EQ(rec.r->sAABBbuffer.type, 8u);

  // Two vertices: 4-byte bone indices, weights of 2 floats (8 bytes a vertex).
  EXPECT_EQ(rec.r->boneIdx.eType, EPODDataUByte4);
  EXPECT_EQ(rec.r->boneIdx.nStride, 4u);
  EXPECT_EQ(rec.r->boneIdx.pData, nullptr);
  ASSERT_EQ(rec.r->BoneIdx_ptr.length, 8u);
  const uint8_t idx[] = {0, 1, 2, 3, 4, 5, 6, 7};
  EXPECT_EQ(std::memcmp(rec.r->BoneIdx_ptr.data, idx, 8), 0);
  EXPECT_EQ(rec.r->boneWeight.n, 2u);
  ASSERT_EQ(rec.r->BoneWeight_ptr.length, 16u);
  const float weights[] = {0.5f, 0.5f, 1.0f, 0.0f};
  EXPECT_EQ(std::memcmp(rec.r->BoneWeight_ptr.data, weights, 16), 0);
  EXPECT_EQ(rec.r->BoneWeight_ptr.type, 0u);
}

TEST(SkeletonNodeConverter, WithoutBatchCountsTheBoneTablesStayEmptyAndCentresAreNaN) {
  SkinScene s(2);
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  scene.pMesh[s.mesh].sBoneBatches.nBatchCnt = 1;  // skinned, but no batch arrays
  Record rec;
  SkeletonNodeConverter conv;
  conv.convertSkeletonNode(&scene, s.skin, rec.r);

  EXPECT_EQ(rec.r->Batch.length, 0u);
  EXPECT_EQ(rec.r->BatchBoneCnt.length, 0u);
  EXPECT_EQ(rec.r->sBoneIndexbuffer.length, 0u);
  EXPECT_EQ(rec.r->sBoneWorldMatrixbuffer.length, 0u);
  const std::vector<float> sphere = rec.floats(rec.r->sSpherebuffer, 6, 6);
  EXPECT_TRUE(std::isnan(sphere[1]));
  EXPECT_EQ(sphere[4], 7.0f);
}

TEST(SkeletonNodeConverter, WithoutFramesOnlyTheBoneTableIsFilled) {
  SkinScene s(0);
  s.b.SetBoneBatches(s.mesh, 2, {{s.hip, s.knee}}, {0});
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  Record rec;
  SkeletonNodeConverter conv;
  conv.convertSkeletonNode(&scene, s.skin, rec.r);
  EXPECT_EQ(rec.slot(0), s.hip);
  EXPECT_EQ(rec.slot(1), s.knee);
  EXPECT_EQ(rec.r->sBoneWorldMatrixbuffer.length, 0u);
  EXPECT_EQ(rec.r->sSpherebuffer.length, 0u);
  EXPECT_EQ(rec.r->sAABBbuffer.length, 0u);
}

TEST(SkeletonNodeConverterDeathTest, AnUnregisteredBoneFailsTheSlotAssertion) {
  SkinScene s(2);
  s.b.SetBoneBatches(s.mesh, 1, {{s.hip}}, {0});
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  Record rec;
  SkeletonNodeConverter conv;
  conv.convertSkeletonNode(&scene, s.skin, rec.r);
  PODMATRIXf m{};
  EXPECT_DEATH(conv.setBoneWorldMatrix(m, s.knee, 0),
               "PODLoader/SkeletonNodeConverter:204: setBoneWorldMatrix: Assertion "
               "`_index!=-1' failed");
  EXPECT_DEATH(conv.getBoneWorldMatrixBuffer(m, s.knee, 0),
               "PODLoader/SkeletonNodeConverter:402: getBoneWorldMatrixBuffer: Assertion "
               "`_index!=-1' failed");
}

}  // namespace

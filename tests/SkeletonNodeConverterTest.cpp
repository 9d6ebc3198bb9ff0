#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "convert/SkeletonNodeConverter.h"
#include "pod/PODSceneBuilder.h"
#include "support/RotationReference.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;
using korvex::test::ReferenceNormalised;
using korvex::test::ReferenceRotation;
using korvex::test::SameBits;

// A skinned two-vertex mesh node 0 with identity bind keys;
// then the bones hip (a root) and knee (below hip). The record holds the static volumes the mesh
// conversion would have left.
struct Skin {
  PODSceneBuilder b;
  int mesh, skin, hip, knee;
  CPODScene scene;
  SkeletonNodeConverter conv;
  korvex::FrameFields frame;
  SSGQelSkeletalMeshNodeData* r =
      static_cast<SSGQelSkeletalMeshNodeData*>(std::calloc(1, sizeof(SSGQelSkeletalMeshNodeData)));
  explicit Skin(uint32_t frames) {
    b.SetNumFrames(frames);
    mesh = b.AddMesh(2);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0});
    const uint8_t idx[] = {0, 1, 2, 3, 4, 5, 6, 7};
    b.SetStream(mesh, PODStream::BoneIdx, EPODDataUByte4, 1, idx, sizeof idx);
    skin = b.AddMeshNode("skin", mesh);
    b.SetAnimScale(skin, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
    b.SetAnimRotation(skin, {0, 0, 0, 1}, false);
    b.SetAnimPosition(skin, {0, 0, 0}, false);
    hip = b.AddNode("hip");
    knee = b.AddNode("knee", hip);
    const float sphere[3] = {1, 0, 0}, box[3] = {0, 2, 0};
    std::memcpy(r->sphereCenter, sphere, sizeof sphere);
    std::memcpy(r->boxCenter, box, sizeof box);
    r->sphereRadius = 7;
  }
  ~Skin() {
    for (SSGNodeData* d :
         {&r->Batch, &r->BatchBoneCnt, &r->BatchOffset, &r->BoneIdx_ptr, &r->BoneWeight_ptr,
          &r->sBoneIndexbuffer, &r->sBoneWorldMatrixbuffer, &r->sSpherebuffer, &r->sAABBbuffer})
      std::free(d->data);
    std::free(r);
  }
  void convert(const std::vector<int32_t>& bones) {
    b.SetBoneBatches(mesh, int32_t(bones.size()), {bones}, {0});
    ASSERT_TRUE(b.Build(scene));
    conv.convertSkeletonNode(&scene, skin, r, frame);
  }
  std::vector<float> floats(const SSGNodeData& d, size_t first, size_t count) const {
    std::vector<float> v(count);
    std::memcpy(v.data(), d.data + 4 * first, 4 * count);
    return v;
  }
  // Matrix of table slot s at frame f.
  std::vector<float> matrix(int s, int f) const {
    return floats(r->sBoneWorldMatrixbuffer, 16 * (size_t(r->numAnimation) * s + f), 16);
  }
  int32_t slot(int s) const {
    int32_t v;
    std::memcpy(&v, r->sBoneIndexbuffer.data + 4 * s, 4);
    return v;
  }
};

void ExpectPoint(const std::vector<float>& p, float x, float y, float z) {
  EXPECT_NEAR(p[0], x, 1e-5f);
  EXPECT_NEAR(p[1], y, 1e-5f);
  EXPECT_NEAR(p[2], z, 1e-5f);
}

TEST(SkeletonNodeConverter, BoneMatricesAtFrameZeroAreIdentityWhenFirstKeysMatchTheStaticPose) {
  Skin s(3);
  // A rotated, scaled, moved hip whose first keys equal its static values; the knee below it.
  const float q[4] = {0.2f, 0.3f, 0.1f, 0.92736185f};
  s.b.SetRotation(s.hip, q[0], q[1], q[2], q[3]);
  s.b.SetPosition(s.hip, 1, 2, 3);
  s.b.SetScale(s.hip, 2, 2, 2);
  s.b.SetAnimRotation(s.hip, {q[0], q[1], q[2], q[3], 0, 0, 0, 1, 0, 0, 0, 1});
  s.b.SetAnimPosition(s.hip, {1, 2, 3, 5, 5, 5, 6, 6, 6});
  s.b.SetAnimScale(s.hip, PODSceneBuilder::ScaleKeys({2, 2, 2, 1, 1, 1, 1, 1, 1}));
  s.b.SetPosition(s.knee, 0, 4, 0);
  s.convert({s.hip, s.knee});
  for (int slot = 0; slot < 2; ++slot) {
    const std::vector<float> m = s.matrix(slot, 0);
    for (int e = 0; e < 16; ++e) EXPECT_NEAR(m[e], e % 5 == 0 ? 1.0f : 0.0f, 1e-5f) << e;
  }
}

// The bind pose and the bone's frame-0 pose are the identity, so each bone matrix is the bone's
// rotation alone. Its keys are not of unit length: at the last frame (no key after it) the key is
// normalised; at frame 1 the pair (0.5, 0, 0, 1), (0, 0, 0.5, 1) has angle 0 and is kept as is.
TEST(SkeletonNodeConverter, ABonesLastKeyIsNormalisedInItsMatrixAndTheVolumes) {
  const PODQUATERNIONf identity{0, 0, 0, 1}, middle{0.5f, 0, 0, 1}, last{0, 0, 0.5f, 1};
  Skin s(3);
  s.b.SetAnimRotation(s.hip, {0, 0, 0, 1, middle.x, middle.y, middle.z, middle.w, last.x, last.y,
                              last.z, last.w});
  s.convert({s.hip});
  const PODQUATERNIONf expected[] = {identity, middle, ReferenceNormalised(last)};
  for (int f = 0; f < 3; ++f) {
    SCOPED_TRACE(f);
    const PODMATRIXf m = korvex::test::MatrixAt(s.r->sBoneWorldMatrixbuffer.data, size_t(f));
    const PODMATRIXf r = ReferenceRotation(expected[f]);
    EXPECT_TRUE(SameBits(m, r));
    // One bone: the sphere centre (1, 0, 0) and the box centre (0, 2, 0), carried by it.
    const std::vector<float> sphere = s.floats(s.r->sSpherebuffer, 6 * size_t(f), 6);
    EXPECT_EQ(sphere[1], 1 * r.f[0] + 0 * r.f[4] + 0 * r.f[8] + r.f[12]);
    EXPECT_EQ(sphere[2], 1 * r.f[1] + 0 * r.f[5] + 0 * r.f[9] + r.f[13]);
    EXPECT_EQ(sphere[3], 1 * r.f[2] + 0 * r.f[6] + 0 * r.f[10] + r.f[14]);
    const std::vector<float> box = s.floats(s.r->sAABBbuffer, 11 * size_t(f), 11);
    EXPECT_EQ(box[7], 0 * r.f[0] + 2 * r.f[4] + 0 * r.f[8] + r.f[12]);
    EXPECT_EQ(box[8], 0 * r.f[1] + 2 * r.f[5] + 0 * r.f[9] + r.f[13]);
    EXPECT_EQ(box[9], 0 * r.f[2] + 2 * r.f[6] + 0 * r.f[10] + r.f[14]);
  }
}

TEST(SkeletonNodeConverter, ABoneNamedTwiceIsRegisteredOnceAndCountsTwiceInTheVolumes) {
  Skin s(2);
  s.b.SetAnimPosition(s.hip, {1, 2, 3, 4, 2, 3});
  s.b.SetAnimPosition(s.knee, {0, 1, 0, 0, 1, 6});
  s.convert({s.hip, s.hip, s.knee});

  // The first batch and the bone streams are copied as they are.
  const int32_t batch[] = {s.hip, s.hip, s.knee}, count = 3;
  ASSERT_EQ(s.r->Batch.length, 12u);
  EXPECT_EQ(std::memcmp(s.r->Batch.data, batch, 12), 0);
  EXPECT_EQ(std::memcmp(s.r->BatchBoneCnt.data, &count, 4), 0);
  const uint8_t idx[] = {0, 1, 2, 3, 4, 5, 6, 7};
  ASSERT_EQ(s.r->BoneIdx_ptr.length, 8u);
  EXPECT_EQ(std::memcmp(s.r->BoneIdx_ptr.data, idx, 8), 0);
  EXPECT_EQ(s.r->boneIdx.eType, EPODDataUByte4);

  EXPECT_EQ(s.slot(0), s.hip);
  EXPECT_EQ(s.slot(1), s.knee);
  EXPECT_EQ(s.slot(2), -1);
  EXPECT_EQ(s.r->sBoneWorldMatrixbuffer.length, 2u * 3 * 64);
  for (float e : s.matrix(2, 1)) EXPECT_EQ(e, 0.0f);

  // Frame 1: the hip moved by (3,0,0), the knee by (3,0,6); mean over hip, hip, knee = (3,0,2).
  // Sphere centre (1,0,0) and box centre (0,2,0) move by it; the box collapses onto its centre.
  ASSERT_EQ(s.r->sSpherebuffer.length, 2u * 24);
  ASSERT_EQ(s.r->sAABBbuffer.length, 2u * 44);
  const std::vector<float> sphere = s.floats(s.r->sSpherebuffer, 6, 6);
  ExpectPoint({sphere[1], sphere[2], sphere[3]}, 4, 0, 2);
  EXPECT_EQ(sphere[4], 7.0f);
  const std::vector<float> box = s.floats(s.r->sAABBbuffer, 11, 11);
  ExpectPoint({box[7], box[8], box[9]}, 3, 2, 2);
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(box[1 + c], box[7 + c]);  // min == centre
    EXPECT_EQ(box[4 + c], box[7 + c]);  // max == centre
  }
  // The geometry word and the trailing word of each element are zero.
  for (float word : {sphere[0], sphere[5], box[0], box[10]}) EXPECT_EQ(word, 0.0f);
}

// A count of no bones sizes the tables by its low byte (255 for -1), runs no bone loop and so
// reads no key of the mesh node, and divides the empty sums by itself: 0/0 or -0.
TEST(SkeletonNodeConverter, ACountOfNoBonesSizesItsTablesByItsLowByteAndDividesByItself) {
  struct Case {
    int32_t count;
    uint32_t entries;
  };
  for (const Case c : {Case{0, 0}, Case{-1, 255}, Case{-256, 0}}) {
    SCOPED_TRACE(c.count);
    Skin s(2);
    s.b.SetAnimScale(s.skin, {}, false);  // the mesh node has no keys at all
    s.b.SetAnimRotation(s.skin, {}, false);
    s.b.SetAnimPosition(s.skin, {}, false);
    std::vector<int32_t> bones(255);
    for (size_t b = 0; b < bones.size(); ++b) bones[b] = int32_t(b);
    s.b.SetBoneBatches(s.mesh, 255, {bones}, {0});
    ASSERT_TRUE(s.b.Build(s.scene));
    s.scene.pMesh[s.mesh].sBoneBatches.pnBatchBoneCnt[0] = c.count;
    s.conv.convertSkeletonNode(&s.scene, s.skin, s.r, s.frame);

    ASSERT_EQ(s.r->Batch.length, 4 * c.entries);
    if (c.entries > 0) {
      EXPECT_EQ(std::memcmp(s.r->Batch.data, bones.data(), 4 * c.entries), 0);
    }
    ASSERT_EQ(s.r->sBoneIndexbuffer.length, 4 * c.entries);
    for (uint32_t slot = 0; slot < c.entries; ++slot) EXPECT_EQ(s.slot(int(slot)), -1);
    ASSERT_EQ(s.r->sBoneWorldMatrixbuffer.length, 2 * 64 * c.entries);
    for (uint32_t e = 0; e < 2 * 16 * c.entries; ++e)
      ASSERT_EQ(s.floats(s.r->sBoneWorldMatrixbuffer, e, 1)[0], 0.0f);
    for (int f = 0; f < 2; ++f) {
      const std::vector<float> sphere = s.floats(s.r->sSpherebuffer, 6 * f, 6);
      const std::vector<float> box = s.floats(s.r->sAABBbuffer, 11 * f, 11);
      for (float v : {sphere[1], sphere[3], box[1], box[5], box[9]}) {
        if (c.count == 0) {
          EXPECT_TRUE(std::isnan(v));
        } else {
          EXPECT_EQ(v, 0.0f);
          EXPECT_TRUE(std::signbit(v));
        }
      }
      EXPECT_EQ(sphere[4], 7.0f);
    }
    EXPECT_EQ(s.frame.frame, 0.0f);  // no bone matrix set a frame
    EXPECT_EQ(s.frame.index, 0);
  }
}

TEST(SkeletonNodeConverterDeathTest, AnUnregisteredBoneFailsTheSlotAssertion) {
  Skin s(2);
  s.convert({s.hip});
  PODMATRIXf m{};
  EXPECT_DEATH(s.conv.setBoneWorldMatrix(m, s.knee, 0),
               "PODLoader/SkeletonNodeConverter:204: setBoneWorldMatrix: Assertion "
               "`_index!=-1' failed");
  EXPECT_DEATH(s.conv.getBoneWorldMatrixBuffer(m, s.knee, 0),
               "PODLoader/SkeletonNodeConverter:402: getBoneWorldMatrixBuffer: Assertion "
               "`_index!=-1' failed");
}

}  // namespace

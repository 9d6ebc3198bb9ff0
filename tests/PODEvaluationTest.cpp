#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "support/RotationReference.h"

using korvex::PODSceneBuilder;
using korvex::test::ReferenceNormalised;
using korvex::test::ReferenceRotation;
using korvex::test::SameBits;

namespace {

const float kHalfSqrt2 = float(std::sqrt(0.5));  // 90 degrees about z: (0, 0, r, r)

PODVECTOR3f Transform(const PODMATRIXf& m, PODVECTOR3f p) {
  PODVECTOR3f out;
  PODMatrixVec3TransposeMultipleF(out, p, m);
  return out;
}

void ExpectNear(const PODVECTOR3f& v, float x, float y, float z, float tol = 1e-5f) {
  EXPECT_NEAR(v.x, x, tol);
  EXPECT_NEAR(v.y, y, tol);
  EXPECT_NEAR(v.z, z, tol);
}

void ExpectMatricesNear(const PODMATRIXf& a, const PODMATRIXf& b, float tol) {
  for (int i = 0; i < 16; ++i) EXPECT_NEAR(a.f[i], b.f[i], tol) << i;
}

// The three channels of node n at the scene's current frame.
PODVECTOR3f Position(const CPODScene& s, int n) {
  PODVECTOR3f t;
  s.GetTranslation(t, s.pNode[n]);
  return t;
}
PODVECTOR3f Scale(const CPODScene& s, int n) {
  PODMATRIXf m;
  s.GetScalingMatrix(m, s.pNode[n]);
  return {m.f[0], m.f[5], m.f[10]};
}
PODVECTOR3f RotatedX(const CPODScene& s, int n) {  // where the rotation sends (1, 0, 0)
  PODMATRIXf m;
  s.GetRotationMatrix(m, s.pNode[n]);
  return Transform(m, {1, 0, 0});
}

TEST(PODEvaluation, PositionAndScaleFallBackToKeyZeroButRotationToStaticValue) {
  PODSceneBuilder b;
  b.SetNumFrames(3);
  const int absent = b.AddNode("absent");
  b.SetPosition(absent, 1, 2, 3);
  b.SetScale(absent, 4, 5, 6);
  b.SetRotation(absent, 0, 0, kHalfSqrt2, kHalfSqrt2);
  // Arrays present, flags clear: position/scale read key 0, rotation ignores its array.
  const int unflagged = b.AddNode("unflagged");
  b.SetPosition(unflagged, 1, 2, 3);
  b.SetRotation(unflagged, 0, 0, kHalfSqrt2, kHalfSqrt2);
  b.SetAnimPosition(unflagged, {7, 8, 9, 70, 80, 90, 700, 800, 900}, false);
  b.SetAnimScale(unflagged, PODSceneBuilder::ScaleKeys({2, 3, 4, 20, 30, 40, 5, 5, 5}), false);
  b.SetAnimRotation(unflagged, {0, 0, 0, 1, 1, 0, 0, 0, 0, 1, 0, 0}, false);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  scene.SetFrame(1.5f);
  ExpectNear(Position(scene, absent), 1, 2, 3, 0);
  ExpectNear(Scale(scene, absent), 4, 5, 6, 0);
  ExpectNear(Position(scene, unflagged), 7, 8, 9, 0);
  ExpectNear(Scale(scene, unflagged), 2, 3, 4, 0);
  // Both nodes turn x into -y (the table's row 0 for 90 degrees about z).
  ExpectNear(RotatedX(scene, absent), 0, -1, 0);
  ExpectNear(RotatedX(scene, unflagged), 0, -1, 0);
}

// Arrays hold exactly the keys they need, so under AddressSanitizer any read of key N (one past
// the last) at the last frame would be reported.
TEST(PODEvaluation, LastFrameEqualsLastKeyWithoutReadingPastTheArray) {
  const int N = 4;
  PODSceneBuilder b;
  b.SetNumFrames(N);
  const int n = b.AddNode("n");
  b.SetAnimPosition(n, {0, 0, 0, 1, 1, 1, 2, 2, 2, 3.5f, -4.25f, 5});
  b.SetAnimScale(n, PODSceneBuilder::ScaleKeys({1, 1, 1, 1, 1, 1, 1, 1, 1, 2, 3, 4}));
  b.SetAnimRotation(n, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0.6f, 0.8f});
  // Flagged channel holding fewer keys than frames: clamps to its own last key.
  const int shortNode = b.AddNode("short");
  b.SetAnimPosition(shortNode, {1, 1, 1, 9, 8, 7});
  // Less than one whole key: treated as absent.
  const int brokenNode = b.AddNode("broken");
  b.SetPosition(brokenNode, 4, 5, 6);
  b.SetAnimPosition(brokenNode, {1, 2});
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));

  scene.SetFrame(float(N - 1));
  ExpectNear(Position(scene, n), 3.5f, -4.25f, 5, 0);
  ExpectNear(Scale(scene, n), 2, 3, 4, 0);
  // (0, 0, 0.6, 0.8): x goes to (1 - 2*0.36, -2*0.6*0.8, 0) = (0.28, -0.96, 0).
  ExpectNear(RotatedX(scene, n), 0.28f, -0.96f, 0);
  ExpectNear(Position(scene, shortNode), 9, 8, 7, 0);
  scene.SetFrame(0.5f);
  ExpectNear(Position(scene, brokenNode), 4, 5, 6, 0);
}

// Exported keys are seldom of unit length. Where a rotation has no key n + 1 (the last frame, a
// single key) the result is key n normalised, while a pair of keys that exists is slerped as it
// always was: here (0.5, 0, 0, 1) against (0, 0, 0.5, 1) has angle 0 and stays unnormalised.
TEST(PODEvaluation, RotationWithoutALaterKeyIsItsKeyNormalised) {
  const PODQUATERNIONf identity{0, 0, 0, 1}, middle{0.5f, 0, 0, 1}, last{0, 0, 0.5f, 1},
      unit{0.5f, 0.5f, 0.5f, 0.5f};
  PODSceneBuilder b;
  b.SetNumFrames(3);
  const int longer = b.AddNode("non-unit keys");
  b.SetAnimRotation(longer, {0, 0, 0, 1, middle.x, middle.y, middle.z, middle.w, last.x, last.y,
                             last.z, last.w});
  const int unitLast = b.AddNode("unit last key");
  b.SetAnimRotation(unitLast, {0, 0, 0, 1, 0, 0, 0, 1, unit.x, unit.y, unit.z, unit.w});
  const int single = b.AddNode("single key");
  b.SetAnimRotation(single, {last.x, last.y, last.z, last.w});
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));

  struct Case {
    const char* what;
    int node;
    int32_t index;
    float blend;
    PODQUATERNIONf expected;
  };
  const Case cases[] = {
      {"last frame", longer, 2, 0.0f, ReferenceNormalised(last)},
      {"earlier frame, both keys present", longer, 1, 0.0f, middle},
      {"half a frame past the last", longer, 2, 0.5f, ReferenceNormalised(last)},
      {"last frame, weight above 1", longer, 2, 1.5f, identity},
      {"last frame, unit-length key as before", unitLast, 2, 0.0f, unit},
      {"single key read at frame 1", single, 1, 0.0f, ReferenceNormalised(last)},
      {"single key, negative weight", single, 0, -0.5f, identity},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    scene.m_pImpl->nFrameIndex = c.index;
    scene.m_pImpl->fFrameBlend = c.blend;
    const PODMATRIXf expected = ReferenceRotation(c.expected);
    PODMATRIXf rotation, world;
    scene.GetRotationMatrix(rotation, scene.pNode[c.node]);
    scene.GetWorldMatrixNoCache(world, scene.pNode[c.node]);
    EXPECT_TRUE(SameBits(rotation, expected));
    EXPECT_TRUE(SameBits(world, expected));
  }
}

// The frame-0 cache reuses parents' matrices; it must equal the from-scratch product bit for bit,
// whatever order parents and children come in, and also for chains cut by a cycle.
TEST(PODEvaluation, FrameZeroCacheIsBitIdenticalToUncachedWorld) {
  const int count = 40;
  PODSceneBuilder b;
  for (int i = 0; i < count; ++i) {
    // Parents before and after their children, a few roots, one parent out of range.
    const int parent = i % 7 == 0 ? -1 : (i == 5 ? 1000 : (i * 13 + 3) % count);
    const int n = b.AddNode("n", parent);
    b.SetPosition(n, 0.1f * i, -0.3f * i, 1.7f);
    b.SetScale(n, 1.1f, 0.9f + 0.01f * i, 1.3f);
    const float c = 0.3f + 0.01f * i;
    b.SetRotation(n, c, 0.2f, -0.1f, 0.9f);
  }
  b.SetParent(20, 21);
  b.SetParent(21, 20);  // a cycle, with other nodes hanging from it
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  for (int i = 0; i < count; ++i) {
    PODMATRIXf expected;
    scene.GetWorldMatrixNoCache(expected, scene.pNode[i]);
    EXPECT_EQ(std::memcmp(&expected, &scene.m_pImpl->pmWorldFrameZero[i], sizeof(expected)), 0)
        << "node " << i;
    EXPECT_EQ(scene.m_pImpl->pfCachedFrame[i], 0.0f);
  }
}

TEST(PODEvaluation, CacheIsKeyedByFrameAndFrameZeroUsesItsOwnCache) {
  PODSceneBuilder b;
  b.SetNumFrames(3);
  const int n = b.AddNode("n");
  b.SetAnimPosition(n, {0, 0, 0, 1, 0, 0, 2, 0, 0});
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  SPODImpl& impl = *scene.m_pImpl;
  auto worldX = [&] {
    PODMATRIXf m;
    scene.GetWorldMatrix(m, scene.pNode[n]);
    return m.f[12];
  };
  // At frame 0 the per-frame cache is never consulted, although its key reads 0.
  EXPECT_EQ(impl.pfCachedFrame[n], 0.0f);
  impl.pmWorldCache[n].f[12] = 99.0f;
  EXPECT_EQ(worldX(), 0.0f);
  scene.SetFrame(2.0f);
  EXPECT_EQ(worldX(), 2.0f);
  EXPECT_EQ(impl.pfCachedFrame[n], 2.0f);
  // Changed keys are not seen until the frame changes or the cache is flushed.
  scene.pNode[n].pfAnimPosition[6] = 5.0f;
  EXPECT_EQ(worldX(), 2.0f);
  scene.SetFrame(1.0f);
  EXPECT_EQ(worldX(), 1.0f);
  scene.SetFrame(2.0f);
  EXPECT_EQ(worldX(), 5.0f);
  scene.pNode[n].pfAnimPosition[0] = -3.0f;
  scene.FlushCache();
  EXPECT_EQ(impl.fCurrentFrame, 0.0f);
  EXPECT_EQ(impl.pfCachedFrame[n], 0.0f);
  EXPECT_EQ(worldX(), -3.0f);
}

TEST(PODEvaluation, BoneMatrixCarriesBindPoseIntoAnimatedPose) {
  PODSceneBuilder b;
  b.SetNumFrames(3);
  const int mesh = b.AddMeshNode("skin", 0);
  b.SetPosition(mesh, 0, 0, 5);
  const int bone = b.AddNode("bone");
  b.SetAnimPosition(bone, {1, 0, 0, 1, 1, 0, 1, 3, 0});
  b.SetAnimRotation(bone, {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, kHalfSqrt2, kHalfSqrt2});
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));

  // T(0,0,5) * T(-1,0,0) * R(90 z) * T(1,3,0): the origin lands at (-1,0,5) rotated -> (0,1,5),
  // then moved to (1,4,5).
  scene.SetFrame(2.0f);
  PODMATRIXf m;
  scene.GetBoneWorldMatrix(m, scene.pNode[mesh], scene.pNode[bone]);
  ExpectNear(Transform(m, {0, 0, 0}), 1, 4, 5);
  EXPECT_EQ(scene.m_pImpl->fCurrentFrame, 2.0f);
  EXPECT_EQ(scene.m_pImpl->pfCachedFrame[bone], 2.0f);

  // Mesh node = bone node: the bone's own world matrix at the current frame.
  PODMATRIXf own, expected;
  scene.GetBoneWorldMatrix(own, scene.pNode[bone], scene.pNode[bone]);
  scene.GetWorldMatrixNoCache(expected, scene.pNode[bone]);
  ExpectMatricesNear(own, expected, 1e-5f);
  EXPECT_EQ(scene.m_pImpl->nFrameIndex, 2);
}

}  // namespace

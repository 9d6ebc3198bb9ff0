#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "pod/NodeEvaluator.h"
#include "pod/PODSceneBuilder.h"
#include "support/RotationReference.h"
#include "convert/SkeletonNodeConverter.h"

namespace {

using korvex::NodeEvaluator;
using korvex::PODSceneBuilder;
using korvex::PODStream;
using korvex::test::ReferenceRotation;
using korvex::test::SameBits;

const float kHalfSqrt2 = float(std::sqrt(0.5));  // (0, 0, r, r): 90 degrees about z

PODMATRIXf Translation(float x, float y, float z) {
  return PODMATRIXf{{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, y, z, 1}};
}

PODMATRIXf Identity() { return Translation(0, 0, 0); }

// Equal element by element as values (an inverse may leave -0 where a hand-written matrix has 0).
::testing::AssertionResult SameValues(const PODMATRIXf& actual, const PODMATRIXf& expected) {
  ::testing::AssertionResult result = ::testing::AssertionSuccess();
  for (int i = 0; i < 16; ++i) {
    if (actual.f[i] != expected.f[i]) {
      if (result) result = ::testing::AssertionFailure();
      result << "element " << i << ": " << actual.f[i] << " instead of " << expected.f[i] << "; ";
    }
  }
  return result;
}

// Each rule set is evaluated on the same node, at frame 0 with half a frame's blend where that
// matters; the expected matrices are worked out by hand from the node's values.
TEST(NodeEvaluator, EachRuleSetDepartsFromTheScenesWhereItSays) {
  struct Case {
    const char* what;
    std::function<int(PODSceneBuilder&)> build;  // returns the node to evaluate
    float frame;
    PODMATRIXf scene, skeletal, animation;
  };
  const PODMATRIXf turned = ReferenceRotation({0, 0, kHalfSqrt2, kHalfSqrt2});
  const Case cases[] = {
      {"unflagged position keys interpolate only for the skeletal rules",
       [](PODSceneBuilder& b) {
         const int n = b.AddNode("n");
         b.SetAnimPosition(n, {2, 0, 0, 4, 0, 0}, false);
         return n;
       },
       0.5f, Translation(2, 0, 0), Translation(3, 0, 0), Translation(2, 0, 0)},
      {"unflagged rotation keys: the static rotation for the scene, key 0 for the bakers",
       [](PODSceneBuilder& b) {
         const int n = b.AddNode("n");
         b.SetRotation(n, 0, 0, kHalfSqrt2, kHalfSqrt2);
         b.SetAnimRotation(n, {0, 0, 0, 1, 0, 0, kHalfSqrt2, kHalfSqrt2}, false);
         return n;
       },
       0.0f, turned, Identity(), Identity()},
      {"no rotation keys: the static rotation for the scene, none for the bakers",
       [](PODSceneBuilder& b) {
         const int n = b.AddNode("n");
         b.SetRotation(n, 0, 0, kHalfSqrt2, kHalfSqrt2);
         return n;
       },
       0.0f, turned, Identity(), Identity()},
      {"a matrix channel replaces the others for the animation rules only",
       [](PODSceneBuilder& b) {
         const int n = b.AddNode("n");
         b.SetPosition(n, 5, 5, 5);
         std::vector<float> keys;
         for (float x : {10.0f, 20.0f}) {
           const PODMATRIXf m = Translation(x, 0, 1);
           keys.insert(keys.end(), m.f, m.f + 16);
         }
         b.SetAnimMatrix(n, keys);
         return n;
       },
       1.0f, Translation(5, 5, 5), Translation(5, 5, 5), Translation(20, 0, 1)},
      {"parents apply except for the animation rules",
       [](PODSceneBuilder& b) {
         const int parent = b.AddNode("parent");
         b.SetPosition(parent, 0, 4, 0);
         const int child = b.AddNode("child", parent);
         b.SetPosition(child, 1, 0, 0);
         return child;
       },
       0.0f, Translation(1, 4, 0), Translation(1, 4, 0), Translation(1, 0, 0)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PODSceneBuilder b;
    b.SetNumFrames(2);
    const int node = c.build(b);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    const std::pair<const korvex::EvaluationRules*, const PODMATRIXf*> rules[] = {
        {&korvex::kSceneRules, &c.scene},
        {&korvex::kSkeletalRules, &c.skeletal},
        {&korvex::kAnimationRules, &c.animation}};
    for (const auto& r : rules) {
      SCOPED_TRACE(r.first->name);
      NodeEvaluator e(*r.first);
      e.start(scene, korvex::FrameFields{});
      e.setFrame(c.frame);
      EXPECT_TRUE(SameValues(e.world(uint32_t(node)), *r.second));
    }
  }
}

// The bind pose of a bone matrix: the scene's rules take the mesh node's world matrix; the
// skeletal rules its first keys (not its static position) and its parent only above node 0.
TEST(NodeEvaluator, TheSkeletalBindPoseIgnoresAParentAtNodeZero) {
  struct Case {
    int meshParent;  // 0 or 1
    PODMATRIXf scene, skeletal;
  };
  // Node 0 sits at (0, 0, 7), node 1 at (0, 3, 0); the mesh's first key is (1, 0, 0), its static
  // position (9, 9, 9) (read by the scene's rules only: the key is unflagged, so key 0 wins there
  // too); the bone sits at (2, 0, 0) in the bind pose, so its inverse moves by (-2, 0, 0).
  const Case cases[] = {
      {0, Translation(-1, 0, 7), Translation(-1, 0, 0)},
      {1, Translation(-1, 3, 0), Translation(-1, 3, 0)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.meshParent);
    PODSceneBuilder b;
    b.SetNumFrames(2);
    const int zero = b.AddNode("zero");
    b.SetPosition(zero, 0, 0, 7);
    const int one = b.AddNode("one");
    b.SetPosition(one, 0, 3, 0);
    const int mesh = b.AddNode("mesh", c.meshParent == 0 ? zero : one);
    b.SetPosition(mesh, 9, 9, 9);
    b.SetAnimPosition(mesh, {1, 0, 0}, false);
    const int bone = b.AddNode("bone");
    b.SetPosition(bone, 2, 0, 0);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    for (const auto& r : {std::make_pair(&korvex::kSceneRules, c.scene),
                          std::make_pair(&korvex::kSkeletalRules, c.skeletal)}) {
      SCOPED_TRACE(r.first->name);
      NodeEvaluator e(*r.first);
      e.start(scene, korvex::FrameFields{});
      PODMATRIXf term;
      e.bindTerm(term, uint32_t(mesh), uint32_t(bone));
      EXPECT_TRUE(SameValues(term, r.second));
    }
  }
}

// The frame-selection rule of the bakers: the fields the previous node left stay until a frame
// is set, and a frame past the frame count moves the key index but not the frame field.
TEST(NodeEvaluator, StartsFromTheCarriedFieldsAndSetsFrameZero) {
  PODSceneBuilder b;
  b.SetNumFrames(4);
  b.AddNode("n");
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  NodeEvaluator e(korvex::kAnimationRules);
  e.start(scene, korvex::FrameFields{3.0f, 0.0f, 3});
  EXPECT_EQ(e.fields().frame, 0.0f);
  EXPECT_EQ(e.fields().index, 0);
  e.setFrame(2.5f);
  EXPECT_EQ(e.fields().frame, 2.5f);
  EXPECT_EQ(e.fields().blend, 0.5f);
  EXPECT_EQ(e.fields().index, 2);
  EXPECT_EQ(e.currentFrame(), 2);
  e.setFrame(6.0f);
  EXPECT_EQ(e.fields().frame, 2.5f);
  EXPECT_EQ(e.fields().index, 6);
  EXPECT_EQ(e.currentFrame(), 0);
}

// The kept world matrices must equal the walk from scratch bit for bit, with rotations that round,
// in any order of frames and nodes, parents before or after their children, and for chains that
// loop (1 and 16 are each other's parent).
TEST(NodeEvaluator, KeptWorldMatricesEqualTheUncachedWalkBitForBit) {
  const int count = 30, frames = 4;
  PODSceneBuilder b;
  b.SetNumFrames(frames);
  for (int i = 0; i < count; ++i) {
    const int n = b.AddNode("n", i % 6 == 0 ? -1 : (i * 11 + 5) % count);
    std::vector<float> at, turn;
    for (int f = 0; f < frames; ++f) {
      const float a = 0.1f * float(i + 1) + 0.07f * float(f);
      at.insert(at.end(), {0.3f * float(i), 1.1f * float(f), -0.7f});
      turn.insert(turn.end(), {std::sin(a) * 0.6f, 0.0f, std::sin(a) * 0.8f, std::cos(a)});
    }
    b.SetAnimPosition(n, at, i % 2 == 0);
    b.SetAnimRotation(n, turn, i % 3 != 0);
    b.SetScale(n, 1.0f + 0.01f * float(i), 0.9f, 1.1f);
  }
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  for (const korvex::EvaluationRules* rules :
       {&korvex::kSceneRules, &korvex::kSkeletalRules, &korvex::kAnimationRules}) {
    // Kept, each whole frame has a table of its own, and they last from one start to the next;
    // any other point is worked out as without.
    for (bool keep : {false, true}) {
      SCOPED_TRACE(keep ? "whole frames kept" : "one frame at a time");
      NodeEvaluator e(*rules);
      if (keep) e.keepFrames(&scene);
      for (int start = 0; start < 2; ++start) {
        e.start(scene, korvex::FrameFields{});
        for (float f : {3.0f, 1.0f, 1.0f, 1.5f, 1.0f, 0.0f, 0.25f, 2.0f, 3.0f, 7.0f, 2.0f}) {
          e.setFrame(f);
          const korvex::KeyPoint at{e.fields().index, e.fields().blend, e.currentFrame()};
          for (int k = 0; k < count; ++k) {
            const int n = (k * 7) % count;
            PODMATRIXf expected;
            korvex::NodeWorldMatrix(expected, scene, scene.pNode[n], *rules, at);
            EXPECT_TRUE(SameBits(e.world(uint32_t(n)), expected)) << "frame " << f << " node " << n;
          }
        }
      }
    }
  }
}

// A skinned mesh whose bones only move (no rotation, unit scale), so every bone matrix is the
// translation bind - boneWorld(0) + boneWorld(f), exact in float. Two chains of two bones: a
// world matrix kept from another frame, another node, another mesh or another scene would show.
struct MovingSkeleton {
  PODSceneBuilder b;
  int mesh, skinA, skinB, rootA, childA, rootB, childB;
  explicit MovingSkeleton(float speed) {
    b.SetNumFrames(3);
    mesh = b.AddMesh(1);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0});
    const uint8_t idx[] = {0, 1, 2, 3};
    b.SetStream(mesh, PODStream::BoneIdx, EPODDataUByte4, 1, idx, sizeof idx);
    skinA = b.AddMeshNode("skinA", mesh);
    skinB = b.AddMeshNode("skinB", mesh);
    for (int s : {skinA, skinB}) {
      b.SetAnimScale(s, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
      b.SetAnimRotation(s, {0, 0, 0, 1}, false);
    }
    b.SetAnimPosition(skinA, {0, 0, 5}, false);
    b.SetAnimPosition(skinB, {0, 0, -3}, false);
    rootA = b.AddNode("rootA");
    childA = b.AddNode("childA", rootA);
    rootB = b.AddNode("rootB");
    childB = b.AddNode("childB", rootB);
    // rootA moves along x, rootB along y; the children add moves of their own.
    b.SetAnimPosition(rootA, {0, 0, 0, speed, 0, 0, 2 * speed, 0, 0});
    b.SetAnimPosition(childA, {0, 1, 0, 0, 1, 10, 0, 1, 30});
    b.SetAnimPosition(rootB, {4, 0, 0, 4, speed, 0, 4, 3 * speed, 0});
    b.SetPosition(childB, 0, 0, 2);  // static, moved by its parent only
    b.SetBoneBatches(mesh, 4, {{childA, rootB, childB, rootA}}, {0});
  }
};

TEST(SkeletalBaking, BoneMatricesFollowTheirOwnChainAtEveryFrame) {
  SkeletonNodeConverter conv;  // one converter for every mesh and scene, as in a conversion
  for (float speed : {1.0f, 8.0f}) {
    MovingSkeleton s(speed);
    CPODScene scene;
    ASSERT_TRUE(s.b.Build(scene));
    // World translations of the bones at each frame, from the keys above.
    auto world = [&](int bone, int f) -> std::vector<float> {
      const float F = float(f), sp = speed;
      const float childAz[] = {0, 10, 30}, rootBy[] = {0, sp, 3 * sp};
      if (bone == s.rootA) return {F * sp, 0, 0};
      if (bone == s.childA) return {F * sp, 1, childAz[f]};
      if (bone == s.rootB) return {4, rootBy[f], 0};
      return {4, rootBy[f], 2};  // childB
    };
    // Both skins share the bones: their world matrices are kept from one to the other, for this
    // scene only (the next one stands at the same address).
    conv.keepFrames(&scene);
    for (const auto& skin : {std::make_pair(s.skinA, 5.0f), std::make_pair(s.skinB, -3.0f)}) {
      SCOPED_TRACE(testing::Message() << "speed " << speed << " skin " << skin.first);
      SSGQelSkeletalMeshNodeData* r = static_cast<SSGQelSkeletalMeshNodeData*>(
          std::calloc(1, sizeof(SSGQelSkeletalMeshNodeData)));
      korvex::FrameFields frame;
      conv.convertSkeletonNode(&scene, skin.first, r, frame);
      ASSERT_EQ(r->sBoneWorldMatrixbuffer.length, 4u * 3 * 64);
      for (int slot = 0; slot < 4; ++slot) {
        int32_t bone;
        std::memcpy(&bone, r->sBoneIndexbuffer.data + 4 * slot, 4);
        for (int f = 0; f < 3; ++f) {
          const std::vector<float> zero = world(bone, 0), now = world(bone, f);
          const PODMATRIXf expected = Translation(now[0] - zero[0], now[1] - zero[1],
                                                  skin.second + now[2] - zero[2]);
          EXPECT_TRUE(SameValues(korvex::test::MatrixAt(r->sBoneWorldMatrixbuffer.data,
                                                     size_t(3 * slot + f)),
                               expected))
              << "bone " << bone << " frame " << f;
        }
      }
      EXPECT_EQ(frame.frame, 2.0f);
      EXPECT_EQ(frame.index, 2);
      for (SSGNodeData* d :
           {&r->Batch, &r->BatchBoneCnt, &r->BoneIdx_ptr, &r->BoneWeight_ptr, &r->sBoneIndexbuffer,
            &r->sBoneWorldMatrixbuffer, &r->sSpherebuffer, &r->sAABBbuffer})
        std::free(d->data);
      std::free(r);
    }
    conv.keepFrames(nullptr);
  }
}

}  // namespace

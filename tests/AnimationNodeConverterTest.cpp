#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "convert/AnimationNodeConverter.h"
#include "pod/PODSceneBuilder.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

const float kHalfSqrt2 = 0.70710678f;

struct Table {
  SSGNodeData d{};
  ~Table() { std::free(d.data); }
  std::vector<float> matrix(int f) const {
    std::vector<float> m(16);
    std::memcpy(m.data(), d.data + 64 * f, 64);
    return m;
  }
};

// Nodes: 0 "parent" (a mesh node) and 1 "child" below it, over `frames` frames.
struct TwoNodes {
  PODSceneBuilder b;
  int parent, child;
  explicit TwoNodes(uint32_t frames) {
    b.SetNumFrames(frames);
    const int mesh = b.AddMesh(1);
    b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0});
    parent = b.AddMeshNode("parent", mesh);
    child = b.AddMeshNode("child", mesh, -1, parent);
  }
};

// Bakes `node` into `t`; returns the frame fields handed on to the next record.
korvex::FrameFields Bake(AnimationNodeConverter& conv, const CPODScene& scene, int node, Table& t) {
  korvex::FrameFields frame;
  conv.convertAnimationNode(&scene, node, &t.d, frame);
  return frame;
}

std::vector<float> Translation(float x, float y, float z) {
  return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, y, z, 1};
}

TEST(AnimationNodeConverter, AChildMovedOnlyByItsParentGetsItsOwnConstantMatrix) {
  TwoNodes s(3);
  s.b.SetAnimPosition(s.parent, {0, 0, 0, 1, 0, 0, 2, 0, 0});
  s.b.SetPosition(s.child, 0, 4, 0);
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  AnimationNodeConverter conv;
  Table t;
  Bake(conv, scene, s.child, t);
  ASSERT_EQ(t.d.type, 6u);
  ASSERT_EQ(t.d.length, 3u * 64);
  for (int f = 0; f < 3; ++f) EXPECT_EQ(t.matrix(f), Translation(0, 4, 0)) << f;

  // The parent's own table follows its keys; the last frame pairs the last key with itself.
  Table p;
  const korvex::FrameFields frame = Bake(conv, scene, s.parent, p);
  for (int f = 0; f < 3; ++f) EXPECT_EQ(p.matrix(f), Translation(float(f), 0, 0)) << f;
  // The frame fields handed on to the next record are those of the last frame; the scene's own
  // evaluation state is not the converter's to change.
  EXPECT_EQ(frame.frame, 2.0f);
  EXPECT_EQ(frame.index, 2);
  EXPECT_EQ(frame.blend, 0.0f);
  EXPECT_EQ(scene.m_pImpl->fCurrentFrame, 0.0f);
}

TEST(AnimationNodeConverter, TheMatrixChannelReplacesTheOthersAndFollowsItsFlag) {
  std::vector<float> keys;
  for (int f = 0; f < 3; ++f) {
    const std::vector<float> m = Translation(10.0f * f, 0, 1);
    keys.insert(keys.end(), m.begin(), m.end());
  }
  for (bool animated : {false, true}) {
    TwoNodes s(3);
    s.b.SetAnimMatrix(s.parent, keys, animated);
    s.b.SetPosition(s.parent, 5, 5, 5);  // ignored: the matrix channel wins
    CPODScene scene;
    ASSERT_TRUE(s.b.Build(scene));
    AnimationNodeConverter conv;
    Table t;
    Bake(conv, scene, s.parent, t);
    for (int f = 0; f < 3; ++f) {
      EXPECT_EQ(t.matrix(f), Translation(animated ? 10.0f * f : 0.0f, 0, 1)) << f << animated;
    }
  }
}

TEST(AnimationNodeConverter, UnflaggedChannelsReadTheirFirstKey) {
  // Rotation keys present but not flagged: key 0 (90 degrees about z) in every frame, not the
  // static rotation; unflagged position keys: key 0 as well.
  TwoNodes s(2);
  s.b.SetRotation(s.parent, 0.6f, 0, 0, 0.8f);
  s.b.SetAnimRotation(s.parent, {0, 0, kHalfSqrt2, kHalfSqrt2, 0, 0, 0, 1}, false);
  s.b.SetAnimPosition(s.parent, {1, 2, 3, 9, 9, 9}, false);
  // No rotation keys: not rotated at all, whatever the static rotation says.
  s.b.SetRotation(s.child, 0.6f, 0, 0, 0.8f);
  CPODScene scene;
  ASSERT_TRUE(s.b.Build(scene));
  AnimationNodeConverter conv;
  Table t;
  Bake(conv, scene, s.parent, t);
  // Rows of the rotation (0, 0, s, s): x -> (0, -1, 0), y -> (1, 0, 0).
  const std::vector<float> expected = {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 1, 2, 3, 1};
  for (int f = 0; f < 2; ++f) {
    const std::vector<float> m = t.matrix(f);
    for (int e = 0; e < 16; ++e) EXPECT_NEAR(m[e], expected[e], 1e-6f) << f << " " << e;
  }
  Table c;
  Bake(conv, scene, s.child, c);
  EXPECT_EQ(c.matrix(1), Translation(0, 0, 0));
}

}  // namespace

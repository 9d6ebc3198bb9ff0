// An animated scene converted whole and written as a .qsn file: a skinned mesh on a two-bone
// hierarchy, an animated mesh and an animated camera over 30 frames. The file is parsed here on
// its own terms and its tables are compared with matrices computed in double precision below,
// independently of the converters' float math.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "pod/PODSceneBuilder.h"
#include "qsn/QelSceneGraphModel.h"
#include "support/RotationReference.h"
#include "convert/SceneGraphConverter.h"
#include "qsn/SceneGraphWritter.h"
#include "convert/SceneValidation.h"
#include "support/TestSupport.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;
using M4 = std::array<double, 16>;

const int kFrames = 30;
const double kDeg = 3.14159265358979323846 / 180.0;

// Row-vector matrices, as the file stores them (translation in elements 12..14).
M4 Mul(const M4& a, const M4& b) {
  M4 r{};
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j)
      for (int k = 0; k < 4; ++k) r[4 * i + j] += a[4 * i + k] * b[4 * k + j];
  return r;
}
M4 T(double x, double y, double z) {
  return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, y, z, 1};
}
M4 S(double s) {
  return {s, 0, 0, 0, 0, s, 0, 0, 0, 0, s, 0, 0, 0, 0, 1};
}
// Rotation by the quaternion (0, 0, sin(a/2), cos(a/2)) / (sin(a/2), 0, 0, cos(a/2)).
M4 Rz(double a) {
  return {cos(a), -sin(a), 0, 0, sin(a), cos(a), 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
}
M4 Rx(double a) {
  return {1, 0, 0, 0, 0, cos(a), -sin(a), 0, 0, sin(a), cos(a), 0, 0, 0, 0, 1};
}

std::vector<float> ZKeys(double stepDeg) {
  std::vector<float> keys;
  for (int f = 0; f < kFrames; ++f) {
    const double h = f * stepDeg * kDeg / 2;
    keys.insert(keys.end(), {0, 0, float(sin(h)), float(cos(h))});
  }
  return keys;
}

// Nodes: 0 skin (skinned mesh), 1 prop (animated mesh), 2 cam, 3 hip (bone), 4 knee (below hip).
// Like an exporter's, every node holds all three channels, with one key where not animated: a
// POD file keeps no static transform.
// Without `bones` the skin's batch is empty (K = 0).
void BuildScene(CPODScene& scene, bool bones = true) {
  PODSceneBuilder b;
  b.SetNumFrames(kFrames);
  const int skinMesh = b.AddMesh(4);
  b.SetFloatStream(skinMesh, PODStream::Vertex, 3, {-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, 1, 0});
  b.SetFaces(skinMesh, {0, 1, 2});
  const uint8_t idx[16] = {0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
  b.SetStream(skinMesh, PODStream::BoneIdx, EPODDataUByte4, 1, idx, sizeof idx);
  b.SetFloatStream(skinMesh, PODStream::BoneWeight, 2, {.5, .5, .5, .5, 1, 0, 1, 0});
  const int propMesh = b.AddMesh(2);
  b.SetFloatStream(propMesh, PODStream::Vertex, 3, {0, 0, 0, 2, 0, 0});
  b.SetFaces(propMesh, {0, 1, 1});

  const int skin = b.AddMeshNode("skin", skinMesh);
  b.SetAnimScale(skin, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  b.SetAnimRotation(skin, {0, 0, 0, 1}, false);
  b.SetAnimPosition(skin, {0, 0, 2}, false);
  const int prop = b.AddMeshNode("prop", propMesh);
  std::vector<float> propPos, camPos, hipPos, kneeRot;
  for (int f = 0; f < kFrames; ++f) {
    propPos.insert(propPos.end(), {5 + 0.5f * f, 0, 0});
    camPos.insert(camPos.end(), {0, 0, 10.0f + f});
    hipPos.insert(hipPos.end(), {0, 0.1f * f, 0});
    const double h = f * kDeg / 2;
    kneeRot.insert(kneeRot.end(), {float(sin(h)), 0, 0, float(cos(h))});
  }
  b.SetAnimPosition(prop, propPos);
  b.SetAnimRotation(prop, ZKeys(3));
  b.SetAnimScale(prop, PODSceneBuilder::ScaleKeys({2, 2, 2}), false);
  const int cam = b.AddCameraNode("cam", 0.8f, 1, 500);
  b.SetAnimPosition(cam, camPos);
  b.SetAnimRotation(cam, {0, 0, 0, 1}, false);
  const int hip = b.AddNode("hip");
  b.SetAnimPosition(hip, hipPos);
  b.SetAnimRotation(hip, ZKeys(2));
  const int knee = b.AddNode("knee", hip);
  b.SetAnimPosition(knee, {0, 1, 0}, false);
  b.SetAnimRotation(knee, kneeRot);
  for (int node : {cam, hip, knee})
    b.SetAnimScale(node, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  if (bones) {
    b.SetBoneBatches(skinMesh, 2, {{hip, knee}}, {0});
  } else {
    b.SetBoneBatches(skinMesh, 0, {{}}, {0});
  }
  ASSERT_TRUE(b.Build(scene));
}

// Expected tables, frame f.
M4 HipBone(int f) {
  return Mul(T(0, 0, 2), Mul(Rz(2 * f * kDeg), T(0, 0.1 * f, 0)));
}
M4 KneeBone(int f) {
  return Mul(Mul(T(0, 0, 2), T(0, -1, 0)),
             Mul(Mul(Rx(f * kDeg), T(0, 1, 0)), Mul(Rz(2 * f * kDeg), T(0, 0.1 * f, 0))));
}
M4 Prop(int f) {
  return Mul(Mul(S(2), Rz(3 * f * kDeg)), T(5 + 0.5 * f, 0, 0));
}

struct Qsn {
  std::vector<uint8_t> bytes;
  uint32_t u32(size_t at) const {
    uint32_t v;
    std::memcpy(&v, &bytes.at(at + 3) - 3, 4);
    return v;
  }
  float f32(size_t at) const {
    float v;
    std::memcpy(&v, &bytes.at(at + 3) - 3, 4);
    return v;
  }
  // Offset and length of the block of the node header named `name`.
  std::pair<size_t, size_t> block(const char* name, uint32_t kind) const {
    const uint32_t count = u32(8);
    for (uint32_t h = 0; h < count; ++h) {
      const size_t at = 268 + 144 * size_t(h);
      if (std::strncmp(reinterpret_cast<const char*>(&bytes.at(at + 4)), name, 128) == 0) {
        EXPECT_EQ(u32(at), kind) << name;
        return {u32(at + 132), u32(at + 136)};
      }
    }
    ADD_FAILURE() << "no node header " << name;
    return {0, 0};
  }
  void expectMatrix(size_t at, const M4& expected, const char* what, int f) const {
    for (int e = 0; e < 16; ++e)
      EXPECT_NEAR(f32(at + 4 * e), expected[e], 1e-4) << what << " frame " << f << " [" << e << "]";
  }
};

void CheckAnimatedQsn(const Qsn& q) {
  ASSERT_GE(q.bytes.size(), 268u + 3 * 144);
  EXPECT_EQ(q.u32(8), 3u);

  // Skinned mesh: converted first, it copies the frame state the reader left (frame 0).
  const auto [skin, skinLength] = q.block("skin", 2010);
  EXPECT_EQ(q.f32(skin + 540), 0.0f);
  EXPECT_EQ(q.u32(skin + 548), 0u);
  size_t array = skin + 660;
  for (size_t d : {444, 456, 468, 480}) array += q.u32(skin + d + 4);
  size_t arrays[9];
  for (int i = 0; i < 9; ++i) {
    arrays[i] = array;
    array += q.u32(skin + 552 + 12 * i + 4);
  }
  EXPECT_EQ(array - skin, skinLength);
  EXPECT_EQ(q.u32(skin + 564 + 4), 4u);  // BatchBoneCnt
  EXPECT_EQ(q.u32(arrays[1]), 2u);       // K = 2
  EXPECT_EQ(q.u32(arrays[5]), 3u);       // bone table: hip, knee
  EXPECT_EQ(q.u32(arrays[5] + 4), 4u);
  EXPECT_EQ(q.u32(skin + 624 + 4), kFrames * 2u * 64);
  for (int f = 0; f < kFrames; ++f) {
    q.expectMatrix(arrays[6] + 64 * size_t(f), HipBone(f), "hip", f);
    q.expectMatrix(arrays[6] + 64 * size_t(kFrames + f), KneeBone(f), "knee", f);
    // The world-space box centre (0, 0, 2) carried by both bones, averaged; the box collapses.
    double mean[3] = {0, 0, 0};
    for (const M4& m : {HipBone(f), KneeBone(f)})
      for (int c = 0; c < 3; ++c) mean[c] += (2 * m[8 + c] + m[12 + c]) / 2;
    const size_t sphere = arrays[7] + 24 * size_t(f), box = arrays[8] + 44 * size_t(f);
    for (int c = 0; c < 3; ++c) {
      EXPECT_NEAR(q.f32(sphere + 4 + 4 * c), mean[c], 1e-4) << f;
      for (int v = 0; v < 3; ++v) EXPECT_NEAR(q.f32(box + 4 + 12 * v + 4 * c), mean[c], 1e-4);
    }
    EXPECT_NEAR(q.f32(sphere + 16), std::sqrt(2.0), 1e-5);
  }

  // Animated mesh: converted after the skin, it copies the skin's last frame.
  const auto [prop, propLength] = q.block("prop", 2011);
  EXPECT_EQ(q.f32(prop + 492), kFrames - 1.0f);
  EXPECT_EQ(q.f32(prop + 496), 0.0f);
  EXPECT_EQ(q.u32(prop + 500), kFrames - 1u);
  // Object-space volumes of (0,0,0), (2,0,0): sphere (1,0,0) r 1, box (0,0,0)..(2,0,0).
  const float volumes[13] = {1, 0, 0, 1, 1, 0, 0, 0, 0, 0, 2, 0, 0};
  for (int i = 0; i < 13; ++i) EXPECT_EQ(q.f32(prop + 92 + 4 * i), volumes[i]) << i;
  size_t matrices = prop + 516;
  for (size_t d : {444, 456, 468, 480}) matrices += q.u32(prop + d + 4);
  EXPECT_EQ(q.u32(prop + 504), 6u);
  EXPECT_EQ(propLength, matrices - prop + 64u * kFrames);
  for (int f = 0; f < kFrames; ++f) q.expectMatrix(matrices + 64 * size_t(f), Prop(f), "prop", f);

  // Animated camera: 132 + 64 x F bytes; its frame state is the one the prop left.
  const auto [cam, camLength] = q.block("cam", 2012);
  EXPECT_EQ(camLength, 132u + 64u * kFrames);
  EXPECT_EQ(q.f32(cam + 80), 0.8f);
  EXPECT_EQ(q.f32(cam + 108), kFrames - 1.0f);
  EXPECT_EQ(q.u32(cam + 116), kFrames - 1u);
  EXPECT_EQ(q.u32(cam + 124), 64u * kFrames);
  for (int f = 0; f < kFrames; ++f)
    q.expectMatrix(cam + 132 + 64 * size_t(f), T(0, 0, 10 + f), "cam", f);
}

TEST(ConvertAnimatedScene, ConvertedEndToEndByTheTool) {
  korvex::test::TempDir dir;
  {
    CPODScene scene;
    BuildScene(scene);
    ASSERT_TRUE(scene.SavePOD(dir.file("anim.pod").c_str(), "options"));
  }
  const korvex::test::RunResult run =
      korvex::test::Run(korvex::test::KorvexExe(), {dir.file("anim.pod")});
  ASSERT_EQ(run.exitStatus, 0) << run.out << run.err;
  EXPECT_TRUE(korvex::test::FileExists(dir.file("anim.PODx")));
  Qsn q{korvex::test::ReadFileBytes(dir.file("anim.qsn"))};
  CheckAnimatedQsn(q);
  EXPECT_STREQ(reinterpret_cast<const char*>(&q.bytes.at(12)), "anim.PODx");
}

// Records that take the scene's stream arrays as they are (as the tool converts) give the file
// that records with copies give; the arrays stay the scene's when the model goes.
TEST(ConvertAnimatedScene, RecordsBorrowingTheScenesArraysWriteTheSameFile) {
  korvex::test::TempDir dir;
  {
    CPODScene built;
    BuildScene(built);
    ASSERT_TRUE(built.SavePOD(dir.file("anim.PODx").c_str(), "options"));
  }
  std::vector<uint8_t> files[2];
  for (int borrow = 0; borrow < 2; ++borrow) {
    CPODScene scene;
    ASSERT_TRUE(scene.ReadFromFile(dir.file("anim.PODx").c_str()));
    QelSceneGraphModel model;
    SceneGraphConverter converter(&model);
    converter.setBorrowStreams(borrow == 1);
    ASSERT_TRUE(converter.convertFromPOD(&scene, "anim.PODx"));
    ASSERT_EQ(model.skeletalmeshnode.size(), 1u);
    const SSGQelSkeletalMeshNodeData* skin = model.skeletalmeshnode[0];
    const SPODMesh& mesh = scene.pMesh[scene.pNode[skin->indexToObject].nIdx];
    EXPECT_EQ(skin->vertexBuffer.borrowed, borrow == 1);
    EXPECT_EQ(skin->faceBuffer.borrowed, borrow == 1);
    EXPECT_EQ(skin->BoneWeight_ptr.borrowed, borrow == 1);
    EXPECT_EQ(skin->vertexBuffer.data == mesh.sVertex.pData, borrow == 1);
    EXPECT_EQ(skin->BoneIdx_ptr.data == mesh.sBoneIdx.pData, borrow == 1);
    const std::string out = dir.file(borrow ? "borrowed.qsn" : "copied.qsn");
    SceneGraphWritter writer;
    ASSERT_TRUE(writer.WritetoFile(out, &model));
    files[borrow] = korvex::test::ReadFileBytes(out);
  }
  EXPECT_EQ(files[1], files[0]);
  CheckAnimatedQsn(Qsn{files[1]});
}

// Records of nodes on one mesh with two texture-coordinate sets take the sets end to end: when
// borrowing, from one array for the mesh (so that many nodes on a large mesh take no copy each),
// kept by the model; otherwise each from a copy of its own. Either way each holds its own mesh's
// sets, and the files are the same.
TEST(ConvertAnimatedScene, NodesOnOneMeshShareItsJoinedTextureCoordinatesWhenBorrowing) {
  korvex::test::TempDir dir;
  std::vector<uint8_t> files[2];
  for (int borrow = 0; borrow < 2; ++borrow) {
    PODSceneBuilder b;
    const int material = b.AddMaterial("M", b.AddTexture("t.png"));
    int meshes[2];
    for (int m = 0; m < 2; ++m) {
      meshes[m] = b.AddMesh(3);
      b.SetFloatStream(meshes[m], PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
      b.SetFaces(meshes[m], {0, 1, 2});
      for (int k = 0; k < 2; ++k) {
        std::vector<float> uv(6);
        for (int i = 0; i < 6; ++i) uv[i] = float(100 * m + 10 * k + i);
        b.AddFloatUVW(meshes[m], 2, uv);
      }
    }
    b.AddMeshNode("A", meshes[0], material);
    b.AddMeshNode("B", meshes[1], material);
    b.AddMeshNode("C", meshes[0], material);
    CPODScene scene;
    ASSERT_TRUE(b.Build(scene));
    QelSceneGraphModel model;
    SceneGraphConverter converter(&model);
    converter.setBorrowStreams(borrow == 1);
    ASSERT_TRUE(converter.convertFromPOD(&scene, "uv.PODx"));
    ASSERT_EQ(model.meshnode.size(), 3u);
    const SSGNodeData* uvw[3];
    for (int n = 0; n < 3; ++n) {
      SCOPED_TRACE("node " + std::to_string(n) + (borrow ? ", borrowing" : ", copying"));
      uvw[n] = &model.meshnode[n]->UVWBuffer;
      ASSERT_EQ(uvw[n]->length, 48u);
      EXPECT_EQ(uvw[n]->borrowed, borrow == 1);
      const SPODMesh& mesh = scene.pMesh[n == 1 ? 1 : 0];
      EXPECT_EQ(std::memcmp(uvw[n]->data, mesh.psUVW[0].pData, 24), 0);
      EXPECT_EQ(std::memcmp(uvw[n]->data + 24, mesh.psUVW[1].pData, 24), 0);
    }
    EXPECT_EQ(uvw[0]->data == uvw[2]->data, borrow == 1);
    EXPECT_NE(uvw[0]->data, uvw[1]->data);
    SceneGraphWritter writer;
    const std::string out = dir.file(borrow ? "borrowed.qsn" : "copied.qsn");
    ASSERT_TRUE(writer.WritetoFile(out, &model));
    files[borrow] = korvex::test::ReadFileBytes(out);
  }
  EXPECT_EQ(files[1], files[0]);
}

// A skinned mesh without bones sets no frame after frame 0, so the animated mesh converted next
// copies frame 0, and the camera after it the mesh's last frame: each record holds the state its
// predecessor left, taken before its own frames are computed.
TEST(ConvertAnimatedScene, EachRecordCopiesTheFrameStateItsPredecessorLeft) {
  CPODScene scene;
  BuildScene(scene, false);
  QelSceneGraphModel model;
  SceneGraphConverter converter(&model);
  ASSERT_TRUE(converter.convertFromPOD(&scene, "anim.PODx"));
  ASSERT_EQ(model.animationmeshnode.size(), 1u);
  ASSERT_EQ(model.animationcameranode.size(), 1u);
  // No bones: no matrices, and each frame's centre is the 0/0 mean of no bones.
  const SSGQelSkeletalMeshNodeData* skin = model.skeletalmeshnode.at(0);
  EXPECT_EQ(skin->sBoneWorldMatrixbuffer.length, 0u);
  float centre;
  std::memcpy(&centre, skin->sSpherebuffer.data + 4, 4);
  EXPECT_TRUE(std::isnan(centre));
  EXPECT_EQ(model.animationmeshnode[0]->evalFrame, 0.0f);
  EXPECT_EQ(model.animationcameranode[0]->evalFrame, kFrames - 1.0f);
  EXPECT_EQ(model.animationcameranode[0]->evalFrameIndex, kFrames - 1);
}

// A baked mesh and a baked camera whose rotation keys are not of unit length: the last frame,
// which has no later key, holds the last key normalised; frame 1, a pair with angle 0, keeps
// (0.5, 0, 0, 1) as it is.
TEST(ConvertAnimatedScene, BakedRotationAtTheLastFrameIsTheLastKeyNormalised) {
  const PODQUATERNIONf identity{0, 0, 0, 1}, middle{0.5f, 0, 0, 1}, last{0, 0, 0.5f, 1};
  const std::vector<float> keys = {0, 0, 0, 1, middle.x, middle.y, middle.z, middle.w,
                                   last.x, last.y, last.z, last.w};
  PODSceneBuilder b;
  b.SetNumFrames(3);
  const int mesh = b.AddMesh(2);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 2, 0, 0});
  b.SetFaces(mesh, {0, 1, 1});
  b.SetAnimRotation(b.AddMeshNode("prop", mesh), keys);
  b.SetAnimRotation(b.AddCameraNode("cam", 0.8f, 1, 500), keys);
  CPODScene scene;
  ASSERT_TRUE(b.Build(scene));
  QelSceneGraphModel model;
  SceneGraphConverter converter(&model);
  ASSERT_TRUE(converter.convertFromPOD(&scene, "turn.PODx"));
  ASSERT_EQ(model.animationmeshnode.size(), 1u);
  ASSERT_EQ(model.animationcameranode.size(), 1u);

  const PODQUATERNIONf expected[] = {identity, middle, korvex::test::ReferenceNormalised(last)};
  const std::pair<const char*, const SSGNodeData*> tables[] = {
      {"mesh", &model.animationmeshnode[0]->animMatrixbuffer},
      {"camera", &model.animationcameranode[0]->animMatrixbuffer}};
  for (const auto& [what, table] : tables) {
    SCOPED_TRACE(what);
    ASSERT_EQ(table->length, 3u * 64);
    for (int f = 0; f < 3; ++f) {
      SCOPED_TRACE(f);
      EXPECT_TRUE(korvex::test::SameBits(korvex::test::MatrixAt(table->data, size_t(f)),
                                        korvex::test::ReferenceRotation(expected[f])));
    }
  }
}

}  // namespace

#pragma once
// Scenes converted by the real Korvex executable, for the dump and qsndump suites.
//
// Still scene "still" (no frames), node walk order and the headers it makes:
//   square            plain mesh, material "stone", placed at (1, 2, 3)  -> 2001, then 2004 "stone"
//   MARKER1           marker on the same mesh                           -> 2009
//   COLLISIONSPHERE1  collision sphere on the same mesh, no material     -> 2006
//   lamp, cam         light and camera                                   -> 2002, 2003
// The mesh is the square (0,0,0) (2,0,0) (2,2,0) (0,2,0), normals (0,0,1), triangles 0 1 2 and
// 0 2 3, one texture-coordinate set (0,0) (1,0) (1,1) (0,1).
//
// Animated scene "every" (3 frames) holds every kind a converted file can hold except the still
// camera: light-map definition LIGHTMAP001 (material "lm"), LIGHTMAP001wall (plain mesh, material
// "wall"), COLLISIONBOX1, COLLISIONSPHERE1, BILLBOARD1, SKYBOX1, MARKER1, skin (skinned on bone
// "hip"), prop (animated mesh), lamp (light), cam (animated camera).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pod/PODSceneBuilder.h"
#include "support/TestSupport.h"

namespace converted {

using korvex::PODSceneBuilder;
using korvex::PODStream;

inline const std::vector<float>& SquarePositions() {
  static const std::vector<float> v = {0, 0, 0, 2, 0, 0, 2, 2, 0, 0, 2, 0};
  return v;
}
inline const std::vector<float>& SquareNormals() {
  static const std::vector<float> v = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
  return v;
}
inline const std::vector<uint16_t>& SquareFaces() {
  static const std::vector<uint16_t> v = {0, 1, 2, 0, 2, 3};
  return v;
}
inline const std::vector<float>& SquareUV() {
  static const std::vector<float> v = {0, 0, 1, 0, 1, 1, 0, 1};
  return v;
}

inline int AddSquare(PODSceneBuilder& b) {
  const int mesh = b.AddMesh(4);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, SquarePositions());
  b.SetFloatStream(mesh, PODStream::Normals, 3, SquareNormals());
  b.SetFaces(mesh, SquareFaces());
  b.AddFloatUVW(mesh, 2, SquareUV());
  return mesh;
}

// A still node keeps its placement in one-key channels, as exporters write it.
inline int Place(PODSceneBuilder& b, int node, float x = 0, float y = 0, float z = 0) {
  b.SetAnimPosition(node, {x, y, z}, false);
  b.SetAnimRotation(node, {0, 0, 0, 1}, false);
  b.SetAnimScale(node, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  return node;
}

inline void BuildStillScene(PODSceneBuilder& b) {
  const int mat = b.AddMaterial("stone", b.AddTexture("stone.png"));
  SPODMaterial& m = b.Material(mat);
  m.fMatOpacity = 0.5f;
  const float ambient[3] = {0.25f, 0.5f, 0.75f}, diffuse[3] = {1, 0.5f, 0},
              specular[3] = {0.125f, 0.25f, 0.375f};
  for (int i = 0; i < 3; ++i) {
    m.pfMatAmbient[i] = ambient[i];
    m.pfMatDiffuse[i] = diffuse[i];
    m.pfMatSpecular[i] = specular[i];
  }
  m.fMatShininess = 8;
  const int mesh = AddSquare(b);
  Place(b, b.AddMeshNode("square", mesh, mat), 1, 2, 3);
  Place(b, b.AddMeshNode("MARKER1", mesh));
  Place(b, b.AddMeshNode("COLLISIONSPHERE1", mesh));
  b.AddLightNode("lamp", 1, 0.5f, 0.25f);
  b.AddCameraNode("cam", 0.7f, 1, 100);
}

inline void BuildEveryKindScene(PODSceneBuilder& b) {
  const int frames = 3;
  b.SetNumFrames(frames);
  const int wall = b.AddMaterial("wall", b.AddTexture("wall.png"));
  const int lm = b.AddMaterial("lm", b.AddTexture("lm.png"));
  const int square = AddSquare(b);
  const int skinMesh = b.AddMesh(3);
  b.SetFloatStream(skinMesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.SetFaces(skinMesh, {0, 1, 2});
  const uint8_t boneIdx[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  b.SetStream(skinMesh, PODStream::BoneIdx, EPODDataUByte4, 1, boneIdx, sizeof boneIdx);
  b.SetFloatStream(skinMesh, PODStream::BoneWeight, 1, {1, 1, 1});

  Place(b, b.AddMeshNode("LIGHTMAP001", square, lm));
  Place(b, b.AddMeshNode("LIGHTMAP001wall", square, wall));
  Place(b, b.AddMeshNode("COLLISIONBOX1", square, wall));
  Place(b, b.AddMeshNode("COLLISIONSPHERE1", square));
  Place(b, b.AddMeshNode("BILLBOARD1", square, wall));
  Place(b, b.AddMeshNode("SKYBOX1", square, wall));
  Place(b, b.AddMeshNode("MARKER1", square));
  const int skin = b.AddMeshNode("skin", skinMesh);
  b.SetAnimScale(skin, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  b.SetAnimRotation(skin, {0, 0, 0, 1}, false);
  b.SetAnimPosition(skin, {0, 0, 0}, false);
  const int prop = Place(b, b.AddMeshNode("prop", square, wall));
  b.SetAnimPosition(prop, {0, 0, 0, 1, 0, 0, 2, 0, 0});
  b.AddLightNode("lamp", 1, 1, 1);
  b.SetAnimPosition(b.AddCameraNode("cam", 0.8f, 1, 500), {0, 0, 10, 0, 0, 11, 0, 0, 12});
  const int hip = b.AddNode("hip");
  b.SetAnimPosition(hip, {0, 0, 0, 0, 1, 0, 0, 2, 0});
  b.SetBoneBatches(skinMesh, 1, {{hip}}, {0});
}

// Writes DIR/NAME.pod and converts it with Korvex into DIR/NAME.qsn (and DIR/NAME.PODx).
inline std::string Convert(PODSceneBuilder& b, const korvex::test::TempDir& dir,
                           const std::string& name) {
  CPODScene scene;
  EXPECT_TRUE(b.Build(scene));
  const std::string pod = dir.file(name + ".pod");
  EXPECT_TRUE(scene.SavePOD(pod.c_str(), "test options"));
  const korvex::test::RunResult run = korvex::test::Run(korvex::test::KorvexExe(), {pod});
  EXPECT_EQ(run.exitStatus, 0) << run.out << run.err;
  return dir.file(name + ".qsn");
}

}  // namespace converted

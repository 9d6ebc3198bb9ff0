// qsnview: what its pictures show, checked as properties of the image rather than against golden
// images (rasterisers differ in the last bit): where the background is, where a mesh lands under a
// known camera, how frames, bones, sheets and the checker change the picture; and its answers to
// wrong input.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "pod/PODMatrix.h"
#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"
#include "view/PngFile.h"
#include "qsn/QelSceneGraphModel.h"
#include "qsn/SceneGraphLoader.h"
#include "view/SceneRenderer.h"
#include "support/TestSupport.h"
#include "view/ViewScene.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;
using korvex::view::Image;
using korvex::test::FileExists;
using korvex::test::RunResult;
using korvex::test::TempDir;

const uint32_t kWidth = 128, kHeight = 96;
const float kFov = 0.6f;

RunResult QsnView(const std::vector<std::string>& args) {
  return korvex::test::Run(korvex::test::BinDir() + "/qsnview", args);
}

// An axis-aligned box of 8 shared corners, its normals pointing away from its centre.
int AddBox(PODSceneBuilder& b, float x0, float y0, float z0, float x1, float y1, float z1) {
  std::vector<float> positions, normals;
  for (int i = 0; i < 8; ++i) {
    positions.insert(positions.end(), {i & 1 ? x1 : x0, i & 2 ? y1 : y0, i & 4 ? z1 : z0});
    normals.insert(normals.end(), {i & 1 ? 1.f : -1.f, i & 2 ? 1.f : -1.f, i & 4 ? 1.f : -1.f});
  }
  const int mesh = b.AddMesh(8);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, positions);
  b.SetFloatStream(mesh, PODStream::Normals, 3, normals);
  b.SetFaces(mesh, {0, 1, 3, 0, 3, 2, 4, 6, 7, 4, 7, 5, 0, 4, 5, 0, 5, 1,
                    2, 3, 7, 2, 7, 6, 0, 2, 6, 0, 6, 4, 1, 5, 7, 1, 7, 3});
  return mesh;
}

void Place(PODSceneBuilder& b, int node, float x, float y, float z) {
  b.SetAnimPosition(node, {x, y, z}, false);
  b.SetAnimRotation(node, {0, 0, 0, 1}, false);
  b.SetAnimScale(node, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
}

// A camera at (0, 0, 10) targeting a helper node at the origin; added after the mesh nodes.
void AddCamera(PODSceneBuilder& b) {
  const int camera = b.AddCameraNode("Eye", kFov, 0.1f, 100.0f, b.NumNodes() + 1);
  Place(b, camera, 0, 0, 10);
  Place(b, b.AddNode("Origin"), 0, 0, 0);
}

// Saves the scene beside a fresh directory's files and converts it; returns the .qsn path.
std::string Convert(const TempDir& dir, PODSceneBuilder& b, const std::string& name) {
  CPODScene scene;
  EXPECT_TRUE(b.Build(scene));
  const std::string pod = dir.file(name + ".pod");
  EXPECT_TRUE(scene.SavePOD(pod.c_str(), "options"));
  const RunResult r = korvex::test::Run(korvex::test::KorvexExe(), {pod});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  return dir.file(name + ".qsn");
}

Image Render(const std::string& qsn, const std::string& png, std::vector<std::string> options = {}) {
  options.insert(options.end(), {"--size", std::to_string(kWidth) + "x" + std::to_string(kHeight), qsn, png});
  const RunResult r = QsnView(options);
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  Image image;
  std::string error;
  EXPECT_TRUE(korvex::view::ReadPng(png, image, error)) << error;
  return image;
}

bool IsBackground(const Image& image, uint32_t x, uint32_t y) {
  const uint8_t* p = image.pixel(x, y);
  return p[0] == korvex::view::kBackground[0] && p[1] == korvex::view::kBackground[1] &&
         p[2] == korvex::view::kBackground[2];
}

// The drawn pixels of a rectangle: their count, bounding box and centroid.
struct Silhouette {
  int count = 0;
  int minX = 1 << 30, minY = 1 << 30, maxX = -1, maxY = -1;
  double cx = 0, cy = 0;
  int width() const { return maxX - minX + 1; }
  int height() const { return maxY - minY + 1; }
};

Silhouette Drawn(const Image& image, uint32_t x0 = 0, uint32_t y0 = 0, uint32_t w = 0, uint32_t h = 0) {
  if (w == 0) w = image.width, h = image.height;
  Silhouette s;
  for (uint32_t y = y0; y < y0 + h; ++y)
    for (uint32_t x = x0; x < x0 + w; ++x) {
      if (IsBackground(image, x, y)) continue;
      ++s.count;
      s.minX = std::min<int>(s.minX, x), s.maxX = std::max<int>(s.maxX, x);
      s.minY = std::min<int>(s.minY, y), s.maxY = std::max<int>(s.maxY, y);
      s.cx += x, s.cy += y;
    }
  if (s.count > 0) s.cx /= s.count, s.cy /= s.count;
  return s;
}

struct Point {
  double x, y, z;
};
Point Minus(Point a, Point b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
double Dot(Point a, Point b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
Point Cross(Point a, Point b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
Point Unit(Point a) {
  const double l = std::sqrt(Dot(a, a));
  return {a.x / l, a.y / l, a.z / l};
}

// Where a world point lands in an image of `width` x `height` seen by the camera at (0, 0, 10)
// looking at `target` with the world's Y up: x to the right, y down, in pixels. The camera's
// target is what the file stores: the first position of node 0 (the first mesh node).
void Project(Point p, Point target, double& px, double& py, double width = kWidth, double height = kHeight) {
  const Point eye{0, 0, 10};
  const Point f = Unit(Minus(target, eye)), side = Unit(Cross(f, {0, 1, 0})), up = Cross(side, f);
  const Point d = Minus(p, eye);
  const double t = std::tan(kFov / 2.0), aspect = width / height;
  px = (Dot(d, side) / (Dot(d, f) * t * aspect) + 1) / 2 * width;
  py = (1 - Dot(d, up) / (Dot(d, f) * t)) / 2 * height;
}

const Point kOrigin{0, 0, 0};

TEST(QsnView, AMeshLandsWhereTheCameraProjectsItAndTheRestIsBackground) {
  TempDir dir;
  PODSceneBuilder b;
  b.AddMaterial("Red", -1);
  b.Material(0).pfMatDiffuse[0] = 0.9f;
  const int box = b.AddMeshNode("Box", AddBox(b, -2, -1, -1, 1, 2, 1), 0);
  Place(b, box, 0, 0, 0);
  AddCamera(b);
  const Image image = Render(Convert(dir, b, "box"), dir.file("box.png"));
  ASSERT_EQ(image.width, kWidth);
  ASSERT_EQ(image.height, kHeight);

  // The box's outline is that of its nearer face, z = 1.
  double left, top, right, bottom;
  Project({-2, 2, 1}, kOrigin, left, top);
  Project({1, -1, 1}, kOrigin, right, bottom);
  const Silhouette s = Drawn(image);
  EXPECT_NEAR(s.minX, left, 2);
  EXPECT_NEAR(s.maxX + 1, right, 2);
  EXPECT_NEAR(s.minY, top, 2);
  EXPECT_NEAR(s.maxY + 1, bottom, 2);
  // Nothing else is drawn: the drawn pixels fill the box's outline.
  EXPECT_GT(s.count, 0.9 * (right - left) * (bottom - top));
  // Shaded in its material's colour: red dominates.
  const uint8_t* centre = image.pixel(static_cast<uint32_t>((left + right) / 2), static_cast<uint32_t>((top + bottom) / 2));
  EXPECT_GT(centre[0], 2 * centre[1]);
}

// The bounding sphere reaches past the box's outline: its circles widen what is drawn.
TEST(QsnView, BoundsAreDrawnAroundTheMesh) {
  TempDir dir;
  PODSceneBuilder b;
  Place(b, b.AddMeshNode("Box", AddBox(b, -1, -1, -1, 1, 1, 1)), 0, 0, 0);
  AddCamera(b);
  const std::string qsn = Convert(dir, b, "box");
  const Silhouette plain = Drawn(Render(qsn, dir.file("plain.png")));
  const Silhouette bounds = Drawn(Render(qsn, dir.file("bounds.png"), {"--bounds"}));
  double left, top, right, bottom;
  Project({-std::sqrt(3.0), std::sqrt(3.0), 0}, kOrigin, left, top);  // the sphere's silhouette, about
  Project({std::sqrt(3.0), -std::sqrt(3.0), 0}, kOrigin, right, bottom);
  EXPECT_LT(bounds.minX, plain.minX - 3);
  EXPECT_GT(bounds.maxX, plain.maxX + 3);
  EXPECT_NEAR(bounds.minX, left, 4);
  EXPECT_NEAR(bounds.maxX + 1, right, 4);
}

// A scene of three frames with a box moving along +x by 1 a frame.
void MovingBox(PODSceneBuilder& b) {
  b.SetNumFrames(3);
  const int box = b.AddMeshNode("Box", AddBox(b, -0.5f, -0.5f, -0.5f, 0.5f, 0.5f, 0.5f));
  b.SetAnimPosition(box, {-2, 0, 0, -1, 0, 0, 0, 0, 0});
  b.SetAnimRotation(box, {0, 0, 0, 1}, false);
  b.SetAnimScale(box, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
  AddCamera(b);
}

TEST(QsnView, AFrameOfAMovingMeshMovesItsSilhouette) {
  TempDir dir;
  PODSceneBuilder b;
  MovingBox(b);
  const std::string qsn = Convert(dir, b, "moving");
  const Silhouette first = Drawn(Render(qsn, dir.file("0.png"), {"--frame", "0"}));
  const Silhouette last = Drawn(Render(qsn, dir.file("2.png"), {"--frame", "2"}));
  // The camera looks at the box's first position.
  const Point target{-2, 0, 0};
  double x0, x2, y0, y2;
  Project({-2, 0, 0}, target, x0, y0);
  Project({0, 0, 0}, target, x2, y2);
  EXPECT_NEAR(first.cx, x0, 2);
  EXPECT_NEAR(last.cx, x2, 2);
  EXPECT_NEAR(first.cy, y0, 2);
  EXPECT_NEAR(last.cy, y2, 2);
}

TEST(QsnView, SheetCellsShowEvenlySpacedFrames) {
  TempDir dir;
  PODSceneBuilder b;
  MovingBox(b);
  const Image sheet = Render(Convert(dir, b, "moving"), dir.file("sheet.png"), {"--sheet", "1x3"});
  // Frames 0, 1 and 2, each in a cell a third as high, from the top: the box steps right by the
  // projection of its step.
  const uint32_t cell = kHeight / 3;
  for (uint32_t c = 0; c < 3; ++c) {
    SCOPED_TRACE(c);
    const Silhouette s = Drawn(sheet, 0, c * cell, kWidth, cell);
    double x, y;
    Project({-2.0 + c, 0, 0}, {-2, 0, 0}, x, y, kWidth, cell);
    EXPECT_NEAR(s.cx, x, 2);
    EXPECT_NEAR(s.cy - c * cell, y, 2);
  }
}

// A bar from the origin up the Y axis, skinned wholly to one bone at the origin that turns by
// 90 degrees about Z at frame 1.
TEST(QsnView, ASkinnedMeshFollowsItsBone) {
  TempDir dir;
  PODSceneBuilder b;
  b.SetNumFrames(2);
  const int mesh = AddBox(b, -0.2f, 0, -0.2f, 0.2f, 3, 0.2f);
  const std::vector<uint8_t> bones(8, 0);
  b.SetStream(mesh, PODStream::BoneIdx, EPODDataUInt8, 1, bones.data(), bones.size());
  b.SetFloatStream(mesh, PODStream::BoneWeight, 1, std::vector<float>(8, 1.0f));
  const int bar = b.AddMeshNode("Bar", mesh);
  Place(b, bar, 0, 0, 0);
  AddCamera(b);
  const int bone = b.AddNode("Bone");
  const float s = std::sqrt(0.5f);
  b.SetAnimPosition(bone, {0, 0, 0, 0, 0, 0});
  b.SetAnimRotation(bone, {0, 0, 0, 1, 0, 0, s, s});
  b.SetAnimScale(bone, PODSceneBuilder::ScaleKeys({1, 1, 1, 1, 1, 1}));
  b.SetBoneBatches(mesh, 1, {{bone}}, {0});
  const std::string qsn = Convert(dir, b, "bar");

  const Silhouette upright = Drawn(Render(qsn, dir.file("0.png"), {"--frame", "0"}));
  const Silhouette turned = Drawn(Render(qsn, dir.file("1.png"), {"--frame", "1"}));
  EXPECT_GT(upright.height(), 3 * upright.width());
  EXPECT_GT(turned.width(), 3 * turned.height());
  // The tip goes where the bone's rotation carries (0, 3, 0).
  PODMATRIXf r;
  PODMatrixRotationQuaternionF(r, PODQUATERNIONf{0, 0, s, s});
  PODVECTOR3f tip;
  PODMatrixVec3TransposeMultipleF(tip, PODVECTOR3f{0, 3, 0}, r);
  double cx, cy, tx, ty;
  Project(kOrigin, kOrigin, cx, cy);
  Project({tip.x, tip.y, tip.z}, kOrigin, tx, ty);
  EXPECT_EQ(turned.cx > cx, tx > cx) << turned.cx << " " << cx << " " << tx;
  EXPECT_NEAR(turned.cy, cy, 3);
}

TEST(QsnView, TheUVOptionShowsAChecker) {
  TempDir dir;
  PODSceneBuilder b;
  b.AddMaterial("M", -1);
  const int quad = b.AddMesh(4);
  b.SetFloatStream(quad, PODStream::Vertex, 3, {-3, -3, 0, 3, -3, 0, 3, 3, 0, -3, 3, 0});
  b.SetFloatStream(quad, PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(quad, 2, {0, 0, 1, 0, 1, 1, 0, 1});
  b.SetFaces(quad, {0, 1, 2, 0, 2, 3});
  Place(b, b.AddMeshNode("Quad", quad, 0), 0, 0, 0);
  AddCamera(b);
  const std::string qsn = Convert(dir, b, "quad");

  // Changes of brightness along the middle row, inside the quad.
  auto changes = [](const Image& image) {
    double left, right, y;
    Project({-3, 0, 0}, kOrigin, left, y);
    Project({3, 0, 0}, kOrigin, right, y);
    int count = 0;
    for (uint32_t x = static_cast<uint32_t>(left) + 2; x + 3 < right; ++x) {
      const int a = image.pixel(x, kHeight / 2)[0], c = image.pixel(x + 1, kHeight / 2)[0];
      count += std::abs(a - c) > 60;
    }
    return count;
  };
  EXPECT_EQ(changes(Render(qsn, dir.file("plain.png"))), 0);
  EXPECT_GE(changes(Render(qsn, dir.file("uv.png"), {"--uv"})), 6);  // eight cells across
}

TEST(QsnView, WrongInputEndsWithStatusOneAndLeavesTheImageAlone) {
  TempDir dir;
  const std::string png = dir.file("keep.png");
  ASSERT_TRUE(korvex::test::WriteFileBytes(png, {'o', 'l', 'd'}));
  ASSERT_TRUE(korvex::test::WriteFileBytes(dir.file("junk.qsn"), {1, 2, 3, 4, 5}));
  PODSceneBuilder b;
  MovingBox(b);
  const std::string qsn = Convert(dir, b, "moving");
  const struct {
    const char* name;
    std::vector<std::string> args;
    const char* message;
  } cases[] = {
      {"missing", {dir.file("none.qsn"), png}, "none.qsn"},
      {"junk", {dir.file("junk.qsn"), png}, "junk.qsn"},
      {"frame", {"--frame", "3", qsn, png}, "frame 3 is beyond the scene's 3 frames"},
      {"camera", {"--camera", "Nobody", qsn, png}, "no camera named \"Nobody\""},
      {"pod-dir", {"--pod-dir", dir.file("nowhere"), qsn, png}, "cannot open the POD file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const RunResult r = QsnView(c.args);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(korvex::test::ReadFileBytes(png), (std::vector<uint8_t>{'o', 'l', 'd'}));
  }
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{qsn},
                                             {"--size", "0x5", qsn, png},
                                             {"--size", "16384x4097", qsn, png},
                                             {"--frame", "2", "--sheet", qsn, png},
                                             {"--bogus", qsn, png}}) {
    SCOPED_TRACE(args[0]);
    EXPECT_EQ(QsnView(args).exitStatus, 2);
  }
}

// The library without the command line: the automatic view frames the whole scene, cameras or
// not, and an empty scene is all background.
TEST(QsnViewScene, TheAutomaticViewFramesTheSceneWhole) {
  TempDir dir;
  PODSceneBuilder b;
  Place(b, b.AddMeshNode("Near", AddBox(b, -1, -1, -1, 1, 1, 1)), 0, 0, 0);
  Place(b, b.AddMeshNode("Far", AddBox(b, 30, 0, 0, 31, 1, 1)), 0, 0, 0);
  AddCamera(b);
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  ASSERT_TRUE(loader.readFromFile(Convert(dir, b, "two"), &model));
  const korvex::view::ViewScene scene = korvex::view::BuildViewScene(model, false);
  ASSERT_EQ(scene.meshes.size(), 2u);

  korvex::view::RenderRequest request;
  request.width = kWidth;
  request.height = kHeight;
  Image image;
  std::string error;
  ASSERT_TRUE(korvex::view::RenderScene(scene, request, image, error)) << error;
  const Silhouette s = Drawn(image);
  EXPECT_GT(s.minX, 0);
  EXPECT_LT(s.maxX, int(kWidth) - 1);
  EXPECT_GT(s.minY, 0);
  EXPECT_LT(s.maxY, int(kHeight) - 1);
  EXPECT_GT(s.width(), int(kWidth) / 2);  // both boxes, 31 units apart, fill the view's width

  ASSERT_TRUE(korvex::view::RenderScene(korvex::view::ViewScene{}, request, image, error)) << error;
  EXPECT_EQ(Drawn(image).count, 0);
}

// A record whose triangles reach past its vertices is left out with a note, not read past.
TEST(QsnViewScene, NodesWhoseArraysDoNotHoldTheirCountsAreLeftOut) {
  TempDir dir;
  PODSceneBuilder b;
  Place(b, b.AddMeshNode("Box", AddBox(b, 0, 0, 0, 1, 1, 1)), 0, 0, 0);
  AddCamera(b);
  const std::string qsn = Convert(dir, b, "box");
  QelSceneGraphModel model;
  SceneGraphLoader loader;
  ASSERT_TRUE(loader.readFromFile(qsn, &model));
  ASSERT_EQ(model.meshnode.size(), 1u);
  SSGQelMeshNodeData& mesh = *model.meshnode[0];

  ASSERT_EQ(korvex::view::BuildViewScene(model, false).meshes.size(), 1u);
  const uint16_t beyond = 8;
  std::memcpy(mesh.faceBuffer.data + 10, &beyond, 2);
  korvex::view::ViewScene scene = korvex::view::BuildViewScene(model, false);
  EXPECT_TRUE(scene.meshes.empty());
  ASSERT_EQ(scene.skipped.size(), 1u);
  EXPECT_EQ(scene.skipped[0], "node \"Box\": a triangle uses a vertex beyond its 8 vertices");

  mesh.vertexBuffer.length = 8 * 12 - 1;
  scene = korvex::view::BuildViewScene(model, false);
  ASSERT_EQ(scene.skipped.size(), 1u);
  EXPECT_EQ(scene.skipped[0], "node \"Box\": positions are not 3 floats for each of its 8 vertices");
}

}  // namespace

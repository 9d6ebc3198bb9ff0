// podgen: writes generated POD scenes.
//
//   podgen example OUT.pod     the bundled example: one node of every still kind
//   podgen minimal OUT.pod     one textured triangle
//   podgen animated OUT.pod    a skinned mesh on two bones, animated meshes and camera, 6 frames
//   podgen large-still OUT.pod     2,000,000 vertices in 32 textured meshes (about 88 MB)
//   podgen large-animated OUT.pod  the same meshes over 100 frames, 8 of them skinned to 60 bones
//
// Scenes are built in memory and saved with the POD writer, with an export-options block ahead
// of the scene (the converter refuses files without one).

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "pod/PODModel.h"
#include "pod/PODSceneBuilder.h"

namespace {

using korvex::PODSceneBuilder;
using korvex::PODStream;

// A unit cube of 24 vertices (4 a face, each face with its own normal and texture corners) and
// 12 triangles.
int AddCube(PODSceneBuilder& b, float half) {
  static const float kNormals[6][3] = {{1, 0, 0},  {-1, 0, 0}, {0, 1, 0},
                                       {0, -1, 0}, {0, 0, 1},  {0, 0, -1}};
  std::vector<float> positions, normals, uvs;
  std::vector<uint16_t> faces;
  for (int f = 0; f < 6; ++f) {
    const float* n = kNormals[f];
    // Two axes spanning the face.
    const int axis = n[0] != 0 ? 0 : n[1] != 0 ? 1 : 2;
    const int u = (axis + 1) % 3, v = (axis + 2) % 3;
    static const float kCorner[4][2] = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
    const uint16_t base = static_cast<uint16_t>(positions.size() / 3);
    for (const auto& c : kCorner) {
      float p[3];
      p[axis] = n[axis] * half;
      p[u] = c[0] * half;
      p[v] = c[1] * half;
      positions.insert(positions.end(), p, p + 3);
      normals.insert(normals.end(), n, n + 3);
      uvs.push_back((c[0] + 1) / 2);
      uvs.push_back((c[1] + 1) / 2);
    }
    const uint16_t tri[6] = {0, 1, 2, 0, 2, 3};
    for (uint16_t t : tri) faces.push_back(static_cast<uint16_t>(base + t));
  }
  const int mesh = b.AddMesh(24);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, positions);
  b.SetFloatStream(mesh, PODStream::Normals, 3, normals);
  b.AddFloatUVW(mesh, 2, uvs);
  b.SetFaces(mesh, faces);
  return mesh;
}

// A 2 x 2 quad in the xy plane facing +z, two triangles.
int AddQuad(PODSceneBuilder& b) {
  const int mesh = b.AddMesh(4);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, 1, 0});
  b.SetFloatStream(mesh, PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(mesh, 2, {0, 0, 1, 0, 1, 1, 0, 1});
  b.SetFaces(mesh, {0, 1, 2, 0, 2, 3});
  return mesh;
}

// Places a node: one key of each channel, not animated (the POD writer stores channel arrays
// only, so a static transform lives in key 0).
void Place(PODSceneBuilder& b, int node, float x, float y, float z) {
  b.SetAnimPosition(node, {x, y, z}, false);
  b.SetAnimRotation(node, {0, 0, 0, 1}, false);
  b.SetAnimScale(node, PODSceneBuilder::ScaleKeys({1, 1, 1}), false);
}

void BuildExample(PODSceneBuilder& b) {
  b.SetBackgroundColour(0.2f, 0.3f, 0.4f);
  b.SetAmbientColour(0.1f, 0.1f, 0.1f);

  const int woodTex = b.AddTexture("wood.png");
  const int leafTex = b.AddTexture("leaves.png");
  const int skyTex = b.AddTexture("sky.png");
  const int bakedTex = b.AddTexture("lightmap001.png");
  const int wood = b.AddMaterial("Wood", woodTex);
  const int leaves = b.AddMaterial("Leaves", leafTex);
  const int sky = b.AddMaterial("Sky", skyTex);
  const int baked = b.AddMaterial("Baked001", bakedTex);
  const int floor = b.AddMaterial("Floor", -1);

  const int cube = AddCube(b, 1.0f);
  const int bigCube = AddCube(b, 50.0f);
  const int quad = AddQuad(b);

  // Mesh nodes: one of each still kind.
  Place(b, b.AddMeshNode("Crate", cube, wood), 0, 1, 0);
  Place(b, b.AddMeshNode("BILLBOARD_Tree", quad, leaves), 4, 2, -3);
  Place(b, b.AddMeshNode("MARKER_Start", quad), -5, 0, 5);
  Place(b, b.AddMeshNode("SKYBOX", bigCube, sky), 0, 0, 0);
  const int wall = b.AddMeshNode("COLLISIONBOX_Wall", cube);
  Place(b, wall, 10, 1, 0);
  b.SetAnimScale(wall, PODSceneBuilder::ScaleKeys({0.5f, 2, 8}), false);
  Place(b, b.AddMeshNode("COLLISIONSPHERE_Ball", cube), -2, 1, 2);
  Place(b, b.AddMeshNode("LIGHTMAP001", quad, baked), 0, 0, 0);
  const int ground = b.AddMeshNode("LIGHTMAP001Ground", quad, floor);
  Place(b, ground, 0, 0, 0);
  b.SetAnimRotation(ground, {-0.70710677f, 0, 0, 0.70710677f}, false);  // lie flat
  b.SetAnimScale(ground, PODSceneBuilder::ScaleKeys({20, 20, 1}), false);

  // A light and a camera looking at a helper node.
  const int sun = b.AddLightNode("Sun", 1.0f, 0.95f, 0.8f, 1);
  Place(b, sun, 30, 60, 20);
  const int target = b.NumNodes() + 1;  // the helper added after the camera
  const int camera = b.AddCameraNode("Camera01", 0.785398f, 0.1f, 500.0f, target);
  Place(b, camera, 0, 5, 15);
  Place(b, b.AddNode("CameraTarget"), 0, 1, 0);
}

void BuildMinimal(PODSceneBuilder& b) {
  const int material = b.AddMaterial("Paint", b.AddTexture("paint.png"));
  const int mesh = b.AddMesh(3);
  b.SetFloatStream(mesh, PODStream::Vertex, 3, {0, 0, 0, 1, 0, 0, 0, 1, 0});
  b.SetFloatStream(mesh, PODStream::Normals, 3, {0, 0, 1, 0, 0, 1, 0, 0, 1});
  b.AddFloatUVW(mesh, 2, {0, 0, 1, 0, 0, 1});
  b.SetFaces(mesh, {0, 1, 2});
  Place(b, b.AddMeshNode("Triangle", mesh, material), 1, 2, 3);
}

// Six frames: a quad skinned to a hip and a knee bone, a crate that moves and turns, a door
// keyed by whole matrices, and a camera that moves back looking at a helper node, all keyed per
// frame.
void BuildAnimated(PODSceneBuilder& b) {
  const int frames = 6;
  b.SetNumFrames(frames);
  const int wood = b.AddMaterial("Wood", b.AddTexture("wood.png"));
  const int quad = AddQuad(b);
  const uint8_t bones[16] = {0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
  b.SetStream(quad, PODStream::BoneIdx, EPODDataUByte4, 1, bones, sizeof bones);
  b.SetFloatStream(quad, PODStream::BoneWeight, 2, {.5f, .5f, .5f, .5f, 1, 0, 1, 0});
  const int cube = AddCube(b, 1.0f);

  const int skin = b.AddMeshNode("Skin", quad);
  Place(b, skin, 0, 0, 1);
  const int crate = b.AddMeshNode("Crate", cube, wood);
  const int door = b.AddMeshNode("Door", cube);
  const int target = b.NumNodes() + 3;  // the helper added after the camera and the two bones
  const int camera = b.AddCameraNode("Camera01", 0.785398f, 0.1f, 500.0f, target);
  const int hip = b.AddNode("Hip");
  const int knee = b.AddNode("Knee", hip);
  Place(b, b.AddNode("CameraTarget"), 1.5f, 0.5f, 0);
  Place(b, crate, 0, 0, 0);
  Place(b, camera, 0, 5, 15);
  Place(b, hip, 0, 0, 0);
  Place(b, knee, 0, 1, 0);
  std::vector<float> crateAt, turn, cameraAt, lift, swing;
  for (int f = 0; f < frames; ++f) {
    swing.insert(swing.end(), {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 3, 0, 0.5f * f, 1});
    crateAt.insert(crateAt.end(), {float(f), 0, 0});
    turn.insert(turn.end(), {0, 0, 0.1f * f, 1});
    cameraAt.insert(cameraAt.end(), {0, 5, 15.0f + f});
    lift.insert(lift.end(), {0, 0.2f * f, 0});
  }
  b.SetAnimPosition(crate, crateAt);
  b.SetAnimRotation(crate, turn);
  b.SetAnimPosition(camera, cameraAt);
  Place(b, door, 3, 0, 0);
  b.SetAnimMatrix(door, swing);
  b.SetAnimPosition(hip, lift);
  b.SetAnimRotation(knee, turn);
  b.SetBoneBatches(quad, 2, {{hip, knee}}, {0});
}

// Large scenes for throughput measurements. Each mesh is a wavy sheet of four patches of
// 125 x 125 vertices side by side; neighbouring patches repeat their shared column of vertices,
// as exporters do at hard edges and texture seams. Two of the three seams repeat it exactly
// (welded by -r0), the third with texture coordinates 0.0005 apart (welded by -r1 only).
const int kLargeMeshes = 32;
const int kPatches = 4;
const int kPatchSide = 125;  // 4 x 125 x 125 = 62,500 vertices a mesh, 2,000,000 in all
const int kLargeMaterials = 8;
const int kLargeFrames = 100;
const int kBones = 60;
const int kSkinnedEvery = 4;  // meshes 0, 4, 8, ... are skinned in the animated scene

struct Sheet {
  std::vector<float> positions, normals, uvs;
  std::vector<uint16_t> faces;
  std::vector<uint8_t> boneIdx;  // 4 bone slots a vertex
  std::vector<float> boneWeights;  // 4 weights a vertex
};

Sheet MakeSheet(int mesh, bool skinned) {
  Sheet s;
  const int columns = kPatches * (kPatchSide - 1);  // distinct columns of the whole sheet
  const float phase = 0.37f * float(mesh);
  for (int p = 0; p < kPatches; ++p) {
    const uint16_t base = static_cast<uint16_t>(s.positions.size() / 3);
    for (int row = 0; row < kPatchSide; ++row) {
      for (int c = 0; c < kPatchSide; ++c) {
        const int column = p * (kPatchSide - 1) + c;
        const float x = 0.1f * float(column), y = 0.1f * float(row);
        const float z = 0.5f * std::sin(0.05f * float(column) + phase) * std::cos(0.07f * float(row));
        s.positions.insert(s.positions.end(), {x, y, z});
        // Normal of the height field (x, y, z(x, y)) by its partial derivatives.
        const float dzdx = 0.5f * 0.5f * std::cos(0.05f * float(column) + phase) *
                           std::cos(0.07f * float(row));
        const float dzdy = -0.5f * 0.7f * std::sin(0.05f * float(column) + phase) *
                           std::sin(0.07f * float(row));
        const float len = std::sqrt(dzdx * dzdx + dzdy * dzdy + 1.0f);
        s.normals.insert(s.normals.end(), {-dzdx / len, -dzdy / len, 1.0f / len});
        float u = float(column) / float(columns);
        const float v = float(row) / float(kPatchSide - 1);
        if (p == 2 && c == 0) u += 0.0005f;  // the seam only -r1 welds
        s.uvs.insert(s.uvs.end(), {u, v});
        if (skinned) {
          // Four bones along the sheet, weighted by distance along x.
          const int first = (column * (kBones - 3)) / (columns + 1);
          const float t = float(column) / float(columns + 1) * float(kBones - 3) - float(first);
          s.boneIdx.insert(s.boneIdx.end(), {uint8_t(first), uint8_t(first + 1),
                                             uint8_t(first + 2), uint8_t(first + 3)});
          s.boneWeights.insert(s.boneWeights.end(),
                               {0.5f * (1 - t), 0.5f * (1 - t), 0.5f * t, 0.5f * t});
        }
      }
    }
    for (int row = 0; row + 1 < kPatchSide; ++row) {
      for (int c = 0; c + 1 < kPatchSide; ++c) {
        const uint16_t a = static_cast<uint16_t>(base + row * kPatchSide + c);
        const uint16_t b = static_cast<uint16_t>(a + 1);
        const uint16_t d = static_cast<uint16_t>(a + kPatchSide);
        const uint16_t e = static_cast<uint16_t>(d + 1);
        s.faces.insert(s.faces.end(), {a, b, e, a, e, d});
      }
    }
  }
  return s;
}

int AddSheet(PODSceneBuilder& b, int index, bool skinned) {
  const Sheet s = MakeSheet(index, skinned);
  const int mesh = b.AddMesh(static_cast<uint32_t>(s.positions.size() / 3));
  b.SetFloatStream(mesh, PODStream::Vertex, 3, s.positions);
  b.SetFloatStream(mesh, PODStream::Normals, 3, s.normals);
  b.AddFloatUVW(mesh, 2, s.uvs);
  b.SetFaces(mesh, s.faces);
  if (skinned) {
    b.SetStream(mesh, PODStream::BoneIdx, EPODDataUInt8, 4, s.boneIdx.data(), s.boneIdx.size());
    b.SetFloatStream(mesh, PODStream::BoneWeight, 4, s.boneWeights);
  }
  return mesh;
}

void BuildLarge(PODSceneBuilder& b, bool animated) {
  b.SetBackgroundColour(0.5f, 0.6f, 0.7f);
  b.SetAmbientColour(0.2f, 0.2f, 0.2f);
  if (animated) b.SetNumFrames(kLargeFrames);
  int materials[kLargeMaterials];
  for (int m = 0; m < kLargeMaterials; ++m) {
    const std::string n = std::to_string(m);
    materials[m] = b.AddMaterial(("Terrain" + n).c_str(), b.AddTexture(("terrain" + n + ".png").c_str()));
  }
  // Mesh nodes first, then the light, the camera and (animated) the bones, as the format orders
  // them; the bones' indices are known ahead: they follow the two.
  const int firstBone = kLargeMeshes + 2;
  std::vector<int32_t> bones;
  for (int k = 0; k < kBones; ++k) bones.push_back(firstBone + k);
  for (int i = 0; i < kLargeMeshes; ++i) {
    const bool skinned = animated && i % kSkinnedEvery == 0;
    const int mesh = AddSheet(b, i, skinned);
    if (skinned) b.SetBoneBatches(mesh, kBones, {bones}, {0});
    const int node =
        b.AddMeshNode(("Sheet" + std::to_string(i)).c_str(), mesh, materials[i % kLargeMaterials]);
    Place(b, node, float(i % 8) * 60.0f, float(i / 8) * 20.0f, 0);
    if (animated && !skinned && i % 2 == 1) {
      // Every other unskinned sheet bobs up and down and turns about z.
      std::vector<float> at, turn;
      for (int f = 0; f < kLargeFrames; ++f) {
        at.insert(at.end(), {float(i % 8) * 60.0f, float(i / 8) * 20.0f, std::sin(0.1f * float(f))});
        const float half = 0.005f * float(f);
        turn.insert(turn.end(), {0, 0, std::sin(half), std::cos(half)});
      }
      b.SetAnimPosition(node, at);
      b.SetAnimRotation(node, turn);
    }
  }
  Place(b, b.AddLightNode("Sun", 1.0f, 0.95f, 0.8f, 1), 100, 300, 200);
  const int camera = b.AddCameraNode("Camera01", 0.785398f, 0.1f, 2000.0f);
  Place(b, camera, 240, -200, 150);
  if (!animated) return;
  std::vector<float> dolly;
  for (int f = 0; f < kLargeFrames; ++f) dolly.insert(dolly.end(), {240, -200 + 2.0f * f, 150});
  b.SetAnimPosition(camera, dolly);
  // Bones: three chains of 20 along the sheets, each bone a child of the one before; every bone
  // turns a little about y over the frames.
  for (int k = 0; k < kBones; ++k) {
    const int32_t parent = k % 20 == 0 ? -1 : firstBone + k - 1;
    const int bone = b.AddNode(("Bone" + std::to_string(k)).c_str(), parent);
    Place(b, bone, k % 20 == 0 ? float(k / 20) : 0.3f, 0, 0);
    std::vector<float> turn;
    for (int f = 0; f < kLargeFrames; ++f) {
      const float half = 0.002f * float(f) * float(1 + k % 5);
      turn.insert(turn.end(), {0, std::sin(half), 0, std::cos(half)});
    }
    b.SetAnimRotation(bone, turn);
  }
}

void BuildLargeStill(PODSceneBuilder& b) { BuildLarge(b, false); }
void BuildLargeAnimated(PODSceneBuilder& b) { BuildLarge(b, true); }

struct Generator {
  const char* name;
  void (*build)(PODSceneBuilder&);
};
const Generator kGenerators[] = {
    {"example", BuildExample},
    {"minimal", BuildMinimal},
    {"animated", BuildAnimated},
    {"large-still", BuildLargeStill},
    {"large-animated", BuildLargeAnimated}};

int Usage() {
  std::fprintf(stderr, "usage: podgen example|minimal|animated|large-still|large-animated OUT.pod\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return Usage();
  const std::string what = argv[1];
  PODSceneBuilder builder;
  const Generator* generator = nullptr;
  for (const Generator& g : kGenerators)
    if (what == g.name) generator = &g;
  if (generator == nullptr) return Usage();
  generator->build(builder);

  CPODScene scene;
  if (!builder.Build(scene)) {
    std::fprintf(stderr, "podgen: cannot build the scene\n");
    return 1;
  }
  const std::string options = "podgen " + what;
  if (!scene.SavePOD(argv[2], options.c_str())) {
    std::fprintf(stderr, "podgen: cannot write %s\n", argv[2]);
    return 1;
  }
  std::printf("%s: %u nodes, %u meshes, %u materials\n", argv[2], scene.nNumNode, scene.nNumMesh,
              scene.nNumMaterial);
  return 0;
}

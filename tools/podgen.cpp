// podgen: writes generated POD scenes.
//
//   podgen example OUT.pod     the bundled example: one node of every still kind
//   podgen minimal OUT.pod     one textured triangle
//   podgen animated OUT.pod    a skinned mesh on two bones, animated meshes and camera, 6 frames
//
// Scenes are built in memory and saved with the POD writer, with an export-options block ahead
// of the scene (the converter refuses files without one).

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "PODModel.h"
#include "PODSceneBuilder.h"

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
// keyed by whole matrices, and a camera that moves back, all keyed per frame.
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
  const int camera = b.AddCameraNode("Camera01", 0.785398f, 0.1f, 500.0f);
  const int hip = b.AddNode("Hip");
  const int knee = b.AddNode("Knee", hip);
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

struct Generator {
  const char* name;
  void (*build)(PODSceneBuilder&);
};
const Generator kGenerators[] = {
    {"example", BuildExample}, {"minimal", BuildMinimal}, {"animated", BuildAnimated}};

int Usage() {
  std::fprintf(stderr, "usage: podgen example|minimal|animated OUT.pod\n");
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

#pragma once
// What the viewer draws of a loaded scene-graph model: every node it can place, with its arrays
// checked against its counts, so that the renderer reads nothing a damaged file does not hold.
// Nothing here touches OpenGL; the arrays stay the model's own.

#include <cstdint>
#include <string>
#include <vector>

#include "view/ViewMath.h"

class QelSceneGraphModel;

namespace korvex::view {

enum class DrawKind { Mesh, Billboard, SkyBox, CollisionBox, CollisionSphere, AnimatedMesh, SkeletalMesh };

// A bounding box given by its eight corners (a box carried by a matrix need not stay aligned).
struct Box {
  Vec3 corner[8];
};
struct Sphere {
  Vec3 center;
  float radius = 0;
};

struct DrawMesh {
  DrawKind kind = DrawKind::Mesh;
  std::string name;
  uint32_t vertexCount = 0;
  uint32_t triangleCount = 0;
  const float* positions = nullptr;  // 3 floats a vertex
  const float* normals = nullptr;    // 3 floats a vertex, or null: shaded by its faces
  const float* uvs = nullptr;        // first texture-coordinate set, 2 floats a vertex, or null
  const uint16_t* indices = nullptr;  // 3 a triangle, each below vertexCount
  Vec3 colour;                        // the material's diffuse colour
  float opacity = 1;

  // Placement: the node's transform, one matrix per frame, or bones.
  Mat4 transform;
  const float* frameMatrices = nullptr;  // animated mesh: 16 floats a frame
  uint32_t frames = 0;                   // frames of frameMatrices or of the bone tables

  // Skinning: per vertex `bonesPerVertex` byte indices into the batch and as many float weights,
  // at their strides; per batch entry its slot in the frame-major bone matrix table.
  const uint8_t* boneIndices = nullptr;
  uint32_t boneIndexStride = 0;
  const uint8_t* boneWeights = nullptr;
  uint32_t boneWeightStride = 0;
  uint32_t bonesPerVertex = 0;
  std::vector<uint32_t> batchSlots;
  const float* boneMatrices = nullptr;  // slot-major: all frames of slot 0, then of slot 1, ...
  const uint8_t* frameSpheres = nullptr;  // skeletal: one sphere element a frame
  const uint8_t* frameBoxes = nullptr;    // skeletal: one box element a frame

  // Volumes as stored: world space, except for animated meshes (object space).
  Sphere sphere;
  Vec3 boxMin, boxMax;
};

struct DrawMarker {
  std::string name;
  Mat4 transform;
};

struct DrawCamera {
  std::string name;
  Mat4 transform;
  const float* frameMatrices = nullptr;  // animated camera: 16 floats a frame
  uint32_t frames = 0;
  float fov = 0, nearPlane = 0, farPlane = 0;
  bool hasTarget = false;
  Vec3 target;
};

struct ViewScene {
  std::vector<DrawMesh> meshes;
  std::vector<DrawMarker> markers;
  std::vector<DrawCamera> cameras;
  uint32_t frameCount = 0;  // the longest animation of any node (0 for a still scene)
  // Nodes that cannot be drawn and why, one line each ("node "NAME": REASON").
  std::vector<std::string> skipped;
};

// Collects the drawable nodes of a loaded model. `podStreams`: take positions, normals, faces
// and texture coordinates from the stream arrays re-read from the POD file where they exist.
ViewScene BuildViewScene(QelSceneGraphModel& model, bool podStreams);

// The node's matrix at a frame (frames beyond its table take its last one).
Mat4 MeshMatrix(const DrawMesh& mesh, uint32_t frame);
Mat4 CameraMatrix(const DrawCamera& camera, uint32_t frame);
// One matrix per batch entry a vertex can reach (the first 256) at a frame, for the renderer.
std::vector<Mat4> BoneMatrices(const DrawMesh& mesh, uint32_t frame);

// The mesh's volumes in world space at a frame.
Sphere WorldSphere(const DrawMesh& mesh, uint32_t frame);
Box WorldBox(const DrawMesh& mesh, uint32_t frame);

// A view: where the eye is, where it looks, and its projection.
struct View {
  Mat4 viewMatrix;
  Vec3 eye;
  float fovY = 0.7853982f;
  float nearPlane = 0.1f, farPlane = 100;
};

// The union of every mesh's bounding sphere over all frames, as one sphere (radius 0 and the
// origin when nothing is drawn). Sky boxes surround the scene rather than belong to it and are
// left out.
Sphere SceneBounds(const ViewScene& scene);
// Looks at `bounds` from the front, right and above; one view for every frame, so that motion
// shows.
View AutomaticView(const Sphere& bounds, float aspect);
// Through a camera of the scene at a frame. A field of view or clip planes the camera does not
// hold sensibly are chosen from `bounds` as the automatic view would.
View CameraView(const DrawCamera& camera, uint32_t frame, const Sphere& bounds);

}  // namespace korvex::view
